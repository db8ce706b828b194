#include "zrimap/base/StrFunctions.h"

#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdint>
#include <cstring>

#include "zrimap/base/StringBuffer.h"

namespace zr {

unsigned zrStrLen(const char* s) { return s ? static_cast<unsigned>(std::strlen(s)) : 0; }

int zrStrCmp(const char* a, const char* b) { return std::strcmp(a ? a : "", b ? b : ""); }

int zrStrNCmp(const char* a, const char* b, int n) {
    if (n <= 0) return 0;
    return std::strncmp(a ? a : "", b ? b : "", static_cast<size_t>(n));
}

const char* zrStrChr(const char* s, int c) { return s ? std::strchr(s, c) : nullptr; }

int zr_int_to_str(int value, char* out) {
    if (!out) return 0;
    char tmp[12];
    int len = 0;
    // Work on the magnitude as unsigned so that INT_MIN does not overflow.
    unsigned magnitude = value < 0 ? 0u - static_cast<unsigned>(value) : static_cast<unsigned>(value);
    do {
        tmp[len++] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude);
    int pos = 0;
    if (value < 0) out[pos++] = '-';
    while (len) out[pos++] = tmp[--len];
    out[pos] = 0;
    return pos;
}

namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

int digitValue(char c, int base) {
    int d;
    if (c >= '0' && c <= '9') d = c - '0';
    else if (c >= 'a' && c <= 'f') d = c - 'a' + 10;
    else if (c >= 'A' && c <= 'F') d = c - 'A' + 10;
    else return -1;
    return d < base ? d : -1;
}

}  // namespace

int _zrStdio::_zrSscanf1(const char* s, const char* fmt, void* out) {
    if (!s || !fmt || !out) return 0;

    // Literal text before the conversion must match.
    while (*fmt && !(fmt[0] == '%' && fmt[1] != '%')) {
        if (isSpace(*fmt)) {
            while (isSpace(*s)) ++s;
            ++fmt;
        } else if (*fmt == '%') {  // "%%"
            if (*s != '%') return 0;
            ++s;
            fmt += 2;
        } else {
            if (*s != *fmt) return 0;
            ++s;
            ++fmt;
        }
    }
    if (*fmt != '%') return 0;
    ++fmt;
    bool isLong = false;
    if (*fmt == 'l') {
        isLong = true;
        ++fmt;
    }
    const char conv = *fmt;
    if (conv != 'd' && conv != 'u' && conv != 'x') return 0;
    const int base = conv == 'x' ? 16 : 10;

    while (isSpace(*s)) ++s;
    bool negative = false;
    if (*s == '+' || *s == '-') {
        negative = *s == '-';
        ++s;
    }
    if (base == 16 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X') && digitValue(s[2], 16) >= 0) s += 2;

    const uint64_t limit = conv == 'd' ? (isLong ? uint64_t(LONG_MAX) + negative : uint64_t(INT_MAX) + negative)
                                       : (isLong ? uint64_t(ULONG_MAX) : uint64_t(UINT_MAX));
    uint64_t magnitude = 0;
    int digits = 0;
    for (int d; (d = digitValue(*s, base)) >= 0; ++s, ++digits) {
        if (magnitude > (limit - static_cast<uint64_t>(d)) / static_cast<uint64_t>(base)) return 0;
        magnitude = magnitude * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
    }
    if (digits == 0) return 0;

    if (conv == 'd') {
        // The magnitude is within range for its sign, so the negation is exact.
        if (isLong) {
            const long v = negative ? static_cast<long>(0 - magnitude) : static_cast<long>(magnitude);
            *static_cast<long*>(out) = v;
        } else {
            const int64_t v = negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
            *static_cast<int*>(out) = static_cast<int>(v);
        }
    } else if (isLong) {
        unsigned long v = static_cast<unsigned long>(magnitude);
        *static_cast<unsigned long*>(out) = negative ? 0ul - v : v;
    } else {
        unsigned v = static_cast<unsigned>(magnitude);
        *static_cast<unsigned*>(out) = negative ? 0u - v : v;
    }
    return 1;
}

unsigned Psdk::getTickCount() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    return static_cast<unsigned>(static_cast<uint64_t>(ms));
}

bool Psdk::getComputerName(StringBuffer& out) {
    out.clear();
    char name[256];
    if (gethostname(name, sizeof name) != 0) return false;
    name[sizeof name - 1] = 0;
    return name[0] != 0 && out.setString(name);
}

}  // namespace zr
