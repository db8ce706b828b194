#include "zrimap/auth/Digests.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include "zrimap/base/DataBuffer.h"
#include "zrimap/base/StringBuffer.h"

namespace zr {

namespace {

bool md5(const void* bytes, size_t n, unsigned char out[16]) {
    unsigned int len = 0;
    return EVP_Digest(bytes, n, out, &len, EVP_md5(), nullptr) == 1 && len == 16;
}

}  // namespace

bool Md5Hasher::digestString(const StringBuffer& text, unsigned char out[16]) {
    return md5(text.getString(), text.getSize(), out);
}

bool Md5Hasher::digestData(const DataBuffer& data, unsigned char out[16]) {
    static const unsigned char kEmpty = 0;
    return md5(data.getData2() ? data.getData2() : &kEmpty, data.getSize(), out);
}

bool Md5Hasher::toLowercaseHex(const unsigned char* bytes, unsigned n, StringBuffer& out) {
    static const char kDigits[] = "0123456789abcdef";
    if (n && !bytes) return false;
    char* p = out.appendSpace(n * 2u);
    if (!p && n) return false;
    for (unsigned i = 0; i < n; ++i) {
        p[2 * i] = kDigits[bytes[i] >> 4];
        p[2 * i + 1] = kDigits[bytes[i] & 15];
    }
    out.commitAppend(n * 2u);
    return true;
}

bool RandomSource::randomBytes(unsigned n, DataBuffer& out) {
    unsigned char* p = out.appendSpace(n);
    if (!p && n) return false;
    if (n && RAND_bytes(p, static_cast<int>(n)) != 1) return false;
    out.commitAppend(n);
    return true;
}

bool _zrCramMD5::crammd5_generateData(StringBuffer& login, StringBuffer& password, DataBuffer& challenge,
                                      StringBuffer& out) {
    static const unsigned char kEmpty = 0;
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int macLen = 0;
    const unsigned char* data = challenge.getData2() ? challenge.getData2() : &kEmpty;
    if (!HMAC(EVP_md5(), password.getString(), static_cast<int>(password.getSize()), data, challenge.getSize(),
              mac, &macLen) ||
        macLen != 16)
        return false;
    return out.append(login) && out.appendChar(' ') && Md5Hasher::toLowercaseHex(mac, 16, out);
}

}  // namespace zr
