// Base64 (RFC 4648, section 4): encoder without line breaks and a strict
// decoder that tolerates only white space and missing padding.
#include "zrimap/base/ContentCoding.h"

#include <cstdint>

#include "zrimap/base/DataBuffer.h"
#include "zrimap/base/StringBuffer.h"

namespace zr {

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// 0..63 for alphabet characters, kSkip for white space, kPad for '=', kBad otherwise.
enum : signed char { kBad = -1, kSkip = -2, kPad = -3 };

struct DecodeTable {
    signed char v[256];
    DecodeTable() {
        for (int i = 0; i < 256; ++i) v[i] = kBad;
        for (int i = 0; i < 64; ++i) v[static_cast<unsigned char>(kAlphabet[i])] = static_cast<signed char>(i);
        const unsigned char blanks[] = {' ', '\t', '\r', '\n'};
        for (unsigned char c : blanks) v[c] = kSkip;
        v[static_cast<unsigned char>('=')] = kPad;
    }
};
const DecodeTable kDecode;

}  // namespace

bool ContentCoding::encodeBase64_noCrLf(const void* bytes, unsigned n, StringBuffer& out) {
    if (n == 0) return true;
    if (!bytes) return false;
    const uint64_t outLen = (uint64_t(n) + 2) / 3 * 4;
    if (outLen > 0xFFFFFFF0ull) return false;
    char* dst = out.appendSpace(static_cast<unsigned>(outLen));
    if (!dst) return false;
    const unsigned char* src = static_cast<const unsigned char*>(bytes);
    char* p = dst;
    unsigned i = 0;
    for (; i + 3 <= n; i += 3) {
        const uint32_t v = (uint32_t(src[i]) << 16) | (uint32_t(src[i + 1]) << 8) | src[i + 2];
        *p++ = kAlphabet[v >> 18];
        *p++ = kAlphabet[(v >> 12) & 63];
        *p++ = kAlphabet[(v >> 6) & 63];
        *p++ = kAlphabet[v & 63];
    }
    if (i < n) {
        const bool two = i + 1 < n;
        const uint32_t v = (uint32_t(src[i]) << 16) | (two ? uint32_t(src[i + 1]) << 8 : 0);
        *p++ = kAlphabet[v >> 18];
        *p++ = kAlphabet[(v >> 12) & 63];
        *p++ = two ? kAlphabet[(v >> 6) & 63] : '=';
        *p++ = '=';
    }
    out.commitAppend(static_cast<unsigned>(p - dst));
    return true;
}

bool ContentCoding::decodeBase64ToDb(const char* text, unsigned n, DataBuffer& out) {
    if (n == 0) return true;
    if (!text) return false;
    unsigned char* dst = out.appendSpace(n / 4 * 3 + 3);
    if (!dst) return false;

    unsigned char* p = dst;
    uint32_t acc = 0;
    int inQuad = 0;       // symbols collected in the current group of four
    int padsAllowed = -1; // -1 until the first '='; then how many more may follow
    for (unsigned i = 0; i < n; ++i) {
        const signed char v = kDecode.v[static_cast<unsigned char>(text[i])];
        if (v == kSkip) continue;
        if (v == kPad) {
            if (padsAllowed < 0) {
                if (inQuad < 2) return false;  // "=" cannot stand for 6 or more data bits
                padsAllowed = 4 - inQuad;
            }
            if (padsAllowed-- <= 0) return false;
            continue;
        }
        if (v == kBad || padsAllowed >= 0) return false;  // nothing but padding after '='
        acc = (acc << 6) | static_cast<uint32_t>(v);
        if (++inQuad == 4) {
            *p++ = static_cast<unsigned char>(acc >> 16);
            *p++ = static_cast<unsigned char>(acc >> 8);
            *p++ = static_cast<unsigned char>(acc);
            acc = 0;
            inQuad = 0;
        }
    }
    if (inQuad == 1) return false;
    if (inQuad == 2) {
        *p++ = static_cast<unsigned char>(acc >> 4);
    } else if (inQuad == 3) {
        *p++ = static_cast<unsigned char>(acc >> 10);
        *p++ = static_cast<unsigned char>(acc >> 2);
    }
    out.commitAppend(static_cast<unsigned>(p - dst));
    return true;
}

}  // namespace zr
