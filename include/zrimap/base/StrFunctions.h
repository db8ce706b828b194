// Free text functions and the two platform services (tick count, host name).
// Every function accepts null texts: a null text behaves as an empty one.
#pragma once

namespace zr {

class StringBuffer;

unsigned zrStrLen(const char* s);
int zrStrCmp(const char* a, const char* b);
int zrStrNCmp(const char* a, const char* b, int n);  // n <= 0 compares nothing
const char* zrStrChr(const char* s, int c);          // null when absent
// Writes the decimal form and its NUL into out (12 bytes are always enough);
// returns the number of characters written, without the NUL.
int zr_int_to_str(int value, char* out);

class _zrStdio {
public:
    // Scans one value from s with a format holding exactly one conversion,
    // optionally surrounded by literal text (white space in the format
    // matches any run of white space). Conversions: %d and %ld into int and
    // long, %u and %lu into unsigned and unsigned long, %x into unsigned.
    // Numbers take leading white space and, for %d/%ld, a sign; a %u with a
    // minus sign wraps as the C library does. A number that does not fit its
    // type is not converted. Returns the number of values stored (0 or 1).
    static int _zrSscanf1(const char* s, const char* fmt, void* out);
};

class Psdk {
public:
    // Milliseconds from a monotonic clock, wrapping at 2^32.
    static unsigned getTickCount();
    // The host's name; false (out cleared) when the system has none.
    static bool getComputerName(StringBuffer& out);
};

}  // namespace zr
