#include "zrimap/base/DataBuffer.h"

#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "Growth.h"
#include "zrimap/base/BufferLimits.h"
#include "zrimap/base/ContentCoding.h"
#include "zrimap/base/StringBuffer.h"

namespace zr {

DataBuffer::DataBuffer() : m_data(nullptr), m_size(0), m_capacity(0) {}

DataBuffer::DataBuffer(const DataBuffer& other) : DataBuffer() { append(other); }

DataBuffer::DataBuffer(DataBuffer&& other) noexcept
    : m_data(other.m_data), m_size(other.m_size), m_capacity(other.m_capacity) {
    other.m_data = nullptr;
    other.m_size = other.m_capacity = 0;
}

DataBuffer& DataBuffer::operator=(const DataBuffer& other) {
    if (this != &other && reserveTotal(other.m_size)) {
        m_size = 0;
        append(other);
    }
    return *this;
}

DataBuffer& DataBuffer::operator=(DataBuffer&& other) noexcept {
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

DataBuffer::~DataBuffer() { release(); }

void DataBuffer::release() {
    std::free(m_data);
    m_data = nullptr;
    m_size = m_capacity = 0;
}

void DataBuffer::clear() { release(); }
void DataBuffer::weakClear() { m_size = 0; }

void DataBuffer::secureClear() {
    detail::wipe(m_data, m_capacity);
    release();
}

bool DataBuffer::reserveTotal(uint64_t total) {
    if (total <= m_capacity) return true;
    const uint64_t cap = detail::growCapacity(m_capacity, total, 0);
    if (cap == 0) return false;
    void* block = detail::regrowBlock(m_data, m_size, m_capacity, cap);
    if (!block) return false;
    m_data = static_cast<unsigned char*>(block);
    m_capacity = static_cast<unsigned>(cap);
    return true;
}

bool DataBuffer::ensureBuffer(unsigned n) {
    if (n <= m_capacity) return true;
    if (!BufferLimits::fits(0, n)) return false;
    // An explicit reservation is taken at its word: exactly n, no headroom,
    // so that a 100 MB literal costs 100 MB.
    void* block = detail::regrowBlock(m_data, m_size, m_capacity, n);
    if (!block) return false;
    m_data = static_cast<unsigned char*>(block);
    m_capacity = n;
    return true;
}

unsigned char* DataBuffer::appendSpace(unsigned n) {
    if (!reserveTotal(uint64_t(m_size) + n)) return nullptr;
    return m_data + m_size;
}

void DataBuffer::commitAppend(unsigned k) {
    if (uint64_t(m_size) + k > m_capacity) k = m_capacity - m_size;
    m_size += k;
}

bool DataBuffer::append(const void* bytes, unsigned n) {
    if (n == 0) return true;
    if (!bytes) return false;
    const unsigned char* src = static_cast<const unsigned char*>(bytes);
    const bool aliased = m_data && src >= m_data && src < m_data + m_capacity;
    const size_t offset = aliased ? static_cast<size_t>(src - m_data) : 0;
    if (!reserveTotal(uint64_t(m_size) + n)) return false;
    if (aliased) src = m_data + offset;
    std::memmove(m_data + m_size, src, n);
    m_size += n;
    return true;
}

bool DataBuffer::append(const DataBuffer& db) { return append(db.m_data, db.m_size); }
bool DataBuffer::append(const StringBuffer& sb) { return append(sb.getString(), sb.getSize()); }
bool DataBuffer::appendChar(unsigned char c) { return append(&c, 1); }

bool DataBuffer::appendStr(const char* text) {
    if (!text) return true;
    const size_t n = std::strlen(text);
    if (n > BufferLimits::kAbsoluteMaxBytes) return false;
    return append(text, static_cast<unsigned>(n));
}

void DataBuffer::shorten(unsigned n) { m_size = n >= m_size ? 0 : m_size - n; }

void DataBuffer::removeHead(unsigned n) {
    if (n >= m_size) {
        m_size = 0;
        return;
    }
    std::memmove(m_data, m_data + n, m_size - n);
    m_size -= n;
}

bool DataBuffer::beginsWith(const unsigned char* bytes, int n) const {
    if (n <= 0) return true;
    if (!bytes || static_cast<unsigned>(n) > m_size) return false;
    return std::memcmp(m_data, bytes, static_cast<size_t>(n)) == 0;
}

bool DataBuffer::endsWithStr(const char* text) const {
    const size_t n = text ? std::strlen(text) : 0;
    if (n > m_size) return false;
    return n == 0 || std::memcmp(m_data + m_size - n, text, n) == 0;
}

int DataBuffer::replaceAllOccurances(const unsigned char* pat, unsigned patLen,
                                     const unsigned char* rep, unsigned repLen) {
    if (!pat || patLen == 0 || !m_data || (repLen && !rep)) return 0;
    auto find = [&](size_t from) -> long {
        if (from + patLen > m_size) return -1;
        const void* hit = memmem(m_data + from, m_size - from, pat, patLen);
        return hit ? static_cast<const unsigned char*>(hit) - m_data : -1;
    };
    long hit = find(0);
    if (hit < 0) return 0;
    DataBuffer result;
    if (!result.ensureBuffer(m_size)) return 0;
    int count = 0;
    size_t pos = 0;
    while (hit >= 0) {
        if (!result.append(m_data + pos, static_cast<unsigned>(hit - pos)) || !result.append(rep, repLen))
            return 0;
        ++count;
        pos = static_cast<size_t>(hit) + patLen;
        hit = find(pos);
    }
    if (!result.append(m_data + pos, static_cast<unsigned>(m_size - pos))) return 0;
    *this = std::move(result);
    return count;
}

bool DataBuffer::encodeDB(const char* encoding, StringBuffer& out) const {
    if (!encoding || strcasecmp(encoding, "base64") != 0) return false;
    return ContentCoding::encodeBase64_noCrLf(m_data, m_size, out);
}

bool DataBuffer::takeString(StringBuffer& out) {
    // The text needs one byte of room for its terminator, which may lie just
    // past the buffer ceiling.
    if (m_data && m_size == m_capacity) {
        void* block = detail::regrowBlock(m_data, m_size, m_capacity, size_t(m_capacity) + 1);
        if (!block) return false;
        m_data = static_cast<unsigned char*>(block);
        m_capacity += 1;
    }
    if (!m_data) {
        out.clear();
        return true;
    }
    out.adopt(reinterpret_cast<char*>(m_data), m_size, m_capacity);
    m_data = nullptr;
    m_size = m_capacity = 0;
    return true;
}

}  // namespace zr
