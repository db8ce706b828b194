#include "zrimap/base/StringBuffer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "Growth.h"
#include "zrimap/base/BufferLimits.h"
#include "zrimap/base/DataBuffer.h"
#include "zrimap/base/ExtPtrArray.h"

namespace zr {

namespace {

bool isTrimSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

bool equalNoCase(const char* a, const char* b, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (asciiLower(a[i]) != asciiLower(b[i])) return false;
    return true;
}

// First occurrence of needle in hay[0..hayLen), or -1.
long findIn(const char* hay, size_t hayLen, const char* needle, size_t needleLen, bool ignoreCase) {
    if (needleLen == 0 || needleLen > hayLen) return -1;
    if (!ignoreCase) {
        const void* hit = memmem(hay, hayLen, needle, needleLen);
        return hit ? static_cast<const char*>(hit) - hay : -1;
    }
    const char first = asciiLower(needle[0]);
    for (size_t i = 0; i + needleLen <= hayLen; ++i)
        if (asciiLower(hay[i]) == first && equalNoCase(hay + i, needle, needleLen))
            return static_cast<long>(i);
    return -1;
}

// Resolves the quoting of one double-quoted run starting at text[i] == '"'.
// Appends the content to out and returns the index just past the closing
// quote (or the end when unterminated).
size_t appendUnquoted(const char* text, size_t n, size_t i, std::string& out) {
    ++i;  // opening quote
    while (i < n) {
        const char c = text[i];
        if (c == '"') return i + 1;
        if (c == '\\' && i + 1 < n && (text[i + 1] == '"' || text[i + 1] == '\\')) {
            out.push_back(text[i + 1]);
            i += 2;
            continue;
        }
        out.push_back(c);
        ++i;
    }
    return i;
}

void trimStd(std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && isTrimSpace(s[b])) ++b;
    while (e > b && isTrimSpace(s[e - 1])) --e;
    s = s.substr(b, e - b);
}

}  // namespace

StringBuffer::StringBuffer() : m_data(nullptr), m_size(0), m_capacity(0) {}

StringBuffer::StringBuffer(const char* text) : StringBuffer() { append(text); }

StringBuffer::StringBuffer(const StringBuffer& other) : StringBuffer() { append(other); }

StringBuffer::StringBuffer(StringBuffer&& other) noexcept
    : m_data(other.m_data), m_size(other.m_size), m_capacity(other.m_capacity) {
    other.m_data = nullptr;
    other.m_size = other.m_capacity = 0;
}

StringBuffer& StringBuffer::operator=(const StringBuffer& other) {
    setString(other);
    return *this;
}

StringBuffer& StringBuffer::operator=(StringBuffer&& other) noexcept {
    if (this != &other) {
        release();
        m_data = other.m_data;
        m_size = other.m_size;
        m_capacity = other.m_capacity;
        other.m_data = nullptr;
        other.m_size = other.m_capacity = 0;
    }
    return *this;
}

StringBuffer::~StringBuffer() { release(); }

void StringBuffer::release() {
    std::free(m_data);
    m_data = nullptr;
    m_size = m_capacity = 0;
}

void StringBuffer::adopt(char* block, unsigned size, unsigned capacity) {
    release();
    m_data = block;
    m_size = size;
    m_capacity = capacity;
    if (m_data) m_data[m_size] = 0;
}

bool StringBuffer::reserveTotal(uint64_t total) {
    // `total` counts content bytes; one more is needed for the terminator.
    if (total + 1 <= m_capacity) return true;
    const uint64_t cap = detail::growCapacity(m_capacity, total + 1, 1);
    if (cap == 0) return false;
    void* block = detail::regrowBlock(m_data, m_size + (m_data ? 1u : 0u), m_capacity, cap);
    if (!block) return false;
    m_data = static_cast<char*>(block);
    m_capacity = static_cast<unsigned>(cap);
    m_data[m_size] = 0;
    return true;
}

bool StringBuffer::expectNumBytes(unsigned n) { return reserveTotal(uint64_t(m_size) + n); }

char* StringBuffer::appendSpace(unsigned n) {
    if (!reserveTotal(uint64_t(m_size) + n)) return nullptr;
    return m_data + m_size;
}

void StringBuffer::commitAppend(unsigned k) {
    if (!m_data) return;
    if (uint64_t(m_size) + k + 1 > m_capacity) k = m_capacity - 1 - m_size;
    m_size += k;
    m_data[m_size] = 0;
}

bool StringBuffer::appendN(const char* bytes, unsigned n) {
    if (n == 0) return true;
    if (!bytes) return false;
    // The source may lie inside this buffer; growing would move it.
    const bool aliased = m_data && bytes >= m_data && bytes < m_data + m_capacity;
    const size_t offset = aliased ? static_cast<size_t>(bytes - m_data) : 0;
    if (!reserveTotal(uint64_t(m_size) + n)) return false;
    if (aliased) bytes = m_data + offset;
    std::memmove(m_data + m_size, bytes, n);
    m_size += n;
    m_data[m_size] = 0;
    return true;
}

bool StringBuffer::append(const char* text) {
    if (!text) return true;
    const size_t n = std::strlen(text);
    if (n > BufferLimits::kAbsoluteMaxBytes) return false;
    return appendN(text, static_cast<unsigned>(n));
}

bool StringBuffer::append(const StringBuffer& sb) { return appendN(sb.m_data, sb.m_size); }

bool StringBuffer::append(const DataBuffer& db) {
    return appendN(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}

namespace {
// The decimal digits of n, written backwards from `end`; returns the first.
// Commands carry a number or two each (UIDs, sizes), and snprintf costs
// several times what the digits do.
char* decimalDigits(char* end, unsigned long long n) {
    do {
        *--end = static_cast<char>('0' + n % 10);
        n /= 10;
    } while (n);
    return end;
}
}  // namespace

bool StringBuffer::append(int n) {
    char tmp[16];
    char* end = tmp + sizeof tmp;
    // The magnitude in unsigned arithmetic, so that INT_MIN needs no case.
    const unsigned magnitude = n < 0 ? 0u - static_cast<unsigned>(n) : static_cast<unsigned>(n);
    char* p = decimalDigits(end, magnitude);
    if (n < 0) *--p = '-';
    return appendN(p, static_cast<unsigned>(end - p));
}

bool StringBuffer::append(unsigned n) {
    char tmp[16];
    char* end = tmp + sizeof tmp;
    char* p = decimalDigits(end, n);
    return appendN(p, static_cast<unsigned>(end - p));
}

bool StringBuffer::appendUint64(uint64_t n) {
    char tmp[24];
    const int len = std::snprintf(tmp, sizeof tmp, "%llu", static_cast<unsigned long long>(n));
    return appendN(tmp, static_cast<unsigned>(len));
}

bool StringBuffer::appendChar(char c) { return appendN(&c, 1); }

bool StringBuffer::append2(const char* a, const char* b) { return append(a) && append(b); }

bool StringBuffer::append3(const char* a, const char* b, const char* c) {
    return append(a) && append(b) && append(c);
}

bool StringBuffer::prepend(const char* text) {
    if (!text || !*text) return true;
    StringBuffer joined;
    if (!joined.append(text) || !joined.append(*this)) return false;
    *this = std::move(joined);
    return true;
}

bool StringBuffer::setString(const StringBuffer& sb) {
    if (&sb == this) return true;
    // Reserve first so that a failure leaves the old content in place.
    if (!reserveTotal(sb.m_size)) return false;
    weakClear();
    return appendN(sb.m_data, sb.m_size);
}

bool StringBuffer::setString(const char* text) {
    if (text && m_data && text >= m_data && text < m_data + m_capacity) {
        StringBuffer copy;
        if (!copy.append(text)) return false;
        *this = std::move(copy);
        return true;
    }
    const size_t n = text ? std::strlen(text) : 0;
    if (n > BufferLimits::kAbsoluteMaxBytes || !reserveTotal(n)) return false;
    weakClear();
    return appendN(text, static_cast<unsigned>(n));
}

void StringBuffer::clear() { release(); }

void StringBuffer::weakClear() {
    m_size = 0;
    if (m_data) m_data[0] = 0;
}

void StringBuffer::secureClear() {
    detail::wipe(m_data, m_capacity);
    release();
}

// --- comparisons: these see the text up to its first NUL ---

namespace {
size_t textLen(const char* data, unsigned size) { return data ? strnlen(data, size) : 0; }
}  // namespace

bool StringBuffer::beginsWith(const char* s) const {
    const size_t n = s ? std::strlen(s) : 0;
    return n <= m_size && (n == 0 || std::memcmp(m_data, s, n) == 0);
}

bool StringBuffer::beginsWithIgnoreCase(const char* s) const {
    const size_t n = s ? std::strlen(s) : 0;
    return n <= textLen(m_data, m_size) && equalNoCase(getString(), s ? s : "", n);
}

bool StringBuffer::endsWith(const char* s) const {
    const size_t n = s ? std::strlen(s) : 0;
    const size_t len = textLen(m_data, m_size);
    return n <= len && (n == 0 || std::memcmp(m_data + len - n, s, n) == 0);
}

bool StringBuffer::equals(const char* s) const {
    const size_t n = s ? std::strlen(s) : 0;
    return n == textLen(m_data, m_size) && (n == 0 || std::memcmp(m_data, s, n) == 0);
}

bool StringBuffer::equalsIgnoreCase(const char* s) const {
    const size_t n = s ? std::strlen(s) : 0;
    return n == textLen(m_data, m_size) && equalNoCase(getString(), s ? s : "", n);
}

bool StringBuffer::containsSubstring(const char* s) const { return indexOf(s) >= 0; }

bool StringBuffer::containsSubstringNoCase(const char* s) const {
    if (!s) return false;
    return findIn(getString(), textLen(m_data, m_size), s, std::strlen(s), true) >= 0;
}

int StringBuffer::indexOf(const char* s, unsigned from) const {
    const size_t len = textLen(m_data, m_size);
    if (!s || from > len) return -1;
    const long hit = findIn(m_data + from, len - from, s, std::strlen(s), false);
    return hit < 0 ? -1 : static_cast<int>(hit + from);
}

// --- edits: these keep every byte, NULs included ---

void StringBuffer::removeChunk(unsigned start, unsigned count) {
    if (start >= m_size || count == 0) return;
    if (count > m_size - start) count = m_size - start;
    std::memmove(m_data + start, m_data + start + count, m_size - start - count);
    m_size -= count;
    m_data[m_size] = 0;
}

void StringBuffer::shorten(unsigned n) {
    if (!m_data) return;
    m_size = n >= m_size ? 0 : m_size - n;
    m_data[m_size] = 0;
}

void StringBuffer::trim2() {
    if (!m_data) return;
    unsigned b = 0, e = m_size;
    while (b < e && isTrimSpace(m_data[b])) ++b;
    while (e > b && isTrimSpace(m_data[e - 1])) --e;
    if (b > 0) std::memmove(m_data, m_data + b, e - b);
    m_size = e - b;
    m_data[m_size] = 0;
}

void StringBuffer::toUpperCase() {
    for (unsigned i = 0; i < m_size; ++i)
        if (m_data[i] >= 'a' && m_data[i] <= 'z') m_data[i] = static_cast<char>(m_data[i] - 32);
}

void StringBuffer::toLowerCase() {
    for (unsigned i = 0; i < m_size; ++i) m_data[i] = asciiLower(m_data[i]);
}

int StringBuffer::replaceAllOccurances(const char* from, const char* to) {
    if (!from || !*from || !m_data) return 0;
    const size_t fromLen = std::strlen(from);
    const size_t toLen = to ? std::strlen(to) : 0;
    long hit = findIn(m_data, m_size, from, fromLen, false);
    if (hit < 0) return 0;

    StringBuffer result;
    if (!result.expectNumBytes(m_size)) return 0;
    int count = 0;
    size_t pos = 0;
    while (hit >= 0) {
        const size_t at = pos + static_cast<size_t>(hit);
        if (!result.appendN(m_data + pos, static_cast<unsigned>(at - pos)) ||
            !result.appendN(to, static_cast<unsigned>(toLen)))
            return 0;  // out of memory: leave this buffer as it was
        ++count;
        pos = at + fromLen;
        hit = findIn(m_data + pos, m_size - pos, from, fromLen, false);
    }
    if (!result.appendN(m_data + pos, static_cast<unsigned>(m_size - pos))) return 0;
    *this = std::move(result);
    return count;
}

bool StringBuffer::replaceFirstOccurance(const char* from, const char* to, bool ignoreCase) {
    if (!from || !*from || !m_data) return false;
    const size_t fromLen = std::strlen(from);
    const long hit = findIn(m_data, m_size, from, fromLen, ignoreCase);
    if (hit < 0) return false;
    StringBuffer result;
    if (!result.appendN(m_data, static_cast<unsigned>(hit)) || !result.append(to) ||
        !result.appendN(m_data + hit + fromLen, static_cast<unsigned>(m_size - hit - fromLen)))
        return false;
    *this = std::move(result);
    return true;
}

bool StringBuffer::getAfterFinal(const char* marker, bool cut, StringBuffer& out) {
    if (!marker || !*marker || !m_data) return false;
    const size_t len = textLen(m_data, m_size);
    const size_t mlen = std::strlen(marker);
    long last = -1;
    for (long hit = findIn(m_data, len, marker, mlen, false); hit >= 0;) {
        last = hit;
        const long next = findIn(m_data + last + 1, len - last - 1, marker, mlen, false);
        hit = next < 0 ? -1 : last + 1 + next;
    }
    if (last < 0) return false;
    StringBuffer after;
    if (!after.appendN(m_data + last + mlen, static_cast<unsigned>(len - last - mlen))) return false;
    out = std::move(after);
    if (cut) {
        m_size = static_cast<unsigned>(last);
        m_data[m_size] = 0;
    }
    return true;
}

bool StringBuffer::getDelimited(const char* open, const char* close, bool includeDelimiters,
                                StringBuffer& out) const {
    if (!open || !*open || !close || !*close || !m_data) return false;
    const size_t len = textLen(m_data, m_size);
    const size_t olen = std::strlen(open), clen = std::strlen(close);
    const long start = findIn(m_data, len, open, olen, false);
    if (start < 0) return false;
    const size_t contentAt = static_cast<size_t>(start) + olen;
    const long end = findIn(m_data + contentAt, len - contentAt, close, clen, false);
    if (end < 0) return false;
    StringBuffer piece;
    const bool ok = includeDelimiters
                        ? piece.appendN(m_data + start, static_cast<unsigned>(olen + end + clen))
                        : piece.appendN(m_data + contentAt, static_cast<unsigned>(end));
    if (!ok) return false;
    out = std::move(piece);
    return true;
}

bool StringBuffer::split(ExtPtrArraySb& out, char sep, bool quoteAware, bool trimAndSkipEmpty) const {
    const size_t n = textLen(m_data, m_size);
    if (n == 0) return true;
    try {
        std::string piece;
        auto emit = [&]() -> bool {
            if (trimAndSkipEmpty) {
                trimStd(piece);
                if (piece.empty()) return true;
            }
            const bool ok = out.appendString(piece.c_str());
            piece.clear();
            return ok;
        };
        for (size_t i = 0; i < n;) {
            const char c = m_data[i];
            if (quoteAware && c == '"') {
                i = appendUnquoted(m_data, n, i, piece);
            } else if (c == sep) {
                if (!emit()) return false;
                piece.clear();
                ++i;
            } else {
                piece.push_back(c);
                ++i;
            }
        }
        return emit();
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool StringBuffer::splitAttrValue(StringBuffer& name, StringBuffer& value, bool trimAndUnquote) const {
    const size_t n = textLen(m_data, m_size);
    const char* eq = n ? static_cast<const char*>(std::memchr(m_data, '=', n)) : nullptr;
    try {
        std::string left(getString(), eq ? static_cast<size_t>(eq - m_data) : n);
        std::string right = eq ? std::string(eq + 1, static_cast<const char*>(m_data + n)) : std::string();
        if (trimAndUnquote) {
            trimStd(left);
            trimStd(right);
            if (right.size() >= 2 && right.front() == '"' && right.back() == '"') {
                std::string unquoted;
                appendUnquoted(right.data(), right.size(), 0, unquoted);
                right.swap(unquoted);
            }
        }
        if (!name.setString(left.c_str()) || !value.setString(right.c_str())) return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
    return eq != nullptr;
}

StringBuffer* StringBuffer::createNewSB(const char* text) {
    StringBuffer* sb = new (std::nothrow) StringBuffer();
    if (sb && !sb->append(text)) {
        delete sb;
        return nullptr;
    }
    return sb;
}

void StringBuffer::deleteSb(StringBuffer* sb) { delete sb; }

}  // namespace zr
