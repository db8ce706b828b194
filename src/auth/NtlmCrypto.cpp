// Hash and cipher primitives of NTLM: MD4 (own), MD5 and HMAC-MD5 (OpenSSL
// default provider) and DES (OpenSSL legacy provider).
#include <cstdint>
#include <cstring>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>
#include <openssl/provider.h>

#include "NtlmInternal.h"

namespace zr {
namespace ntlm {

namespace {

// ---------------------------------------------------------------- MD4 ----

inline uint32_t rotl(uint32_t v, unsigned s) { return (v << s) | (v >> (32 - s)); }

inline uint32_t load32le(const unsigned char* p) {
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}

void md4Block(uint32_t st[4], const unsigned char block[64]) {
    uint32_t x[16];
    for (int i = 0; i < 16; ++i) x[i] = load32le(block + 4 * i);
    uint32_t a = st[0], b = st[1], c = st[2], d = st[3];

    auto f = [](uint32_t p, uint32_t q, uint32_t r) { return (p & q) | (~p & r); };
    auto g = [](uint32_t p, uint32_t q, uint32_t r) { return (p & q) | (p & r) | (q & r); };
    auto h = [](uint32_t p, uint32_t q, uint32_t r) { return p ^ q ^ r; };

    for (int i = 0; i < 16; i += 4) {
        a = rotl(a + f(b, c, d) + x[i], 3);
        d = rotl(d + f(a, b, c) + x[i + 1], 7);
        c = rotl(c + f(d, a, b) + x[i + 2], 11);
        b = rotl(b + f(c, d, a) + x[i + 3], 19);
    }
    for (int i = 0; i < 4; ++i) {
        a = rotl(a + g(b, c, d) + x[i] + 0x5A827999u, 3);
        d = rotl(d + g(a, b, c) + x[i + 4] + 0x5A827999u, 5);
        c = rotl(c + g(d, a, b) + x[i + 8] + 0x5A827999u, 9);
        b = rotl(b + g(c, d, a) + x[i + 12] + 0x5A827999u, 13);
    }
    static const int order3[4] = {0, 2, 1, 3};
    for (int j = 0; j < 4; ++j) {
        const int i = order3[j];
        a = rotl(a + h(b, c, d) + x[i] + 0x6ED9EBA1u, 3);
        d = rotl(d + h(a, b, c) + x[i + 8] + 0x6ED9EBA1u, 9);
        c = rotl(c + h(d, a, b) + x[i + 4] + 0x6ED9EBA1u, 11);
        b = rotl(b + h(c, d, a) + x[i + 12] + 0x6ED9EBA1u, 15);
    }
    st[0] += a;
    st[1] += b;
    st[2] += c;
    st[3] += d;
    // The input is a password more often than not.
    OPENSSL_cleanse(x, sizeof x);
}

// ------------------------------------------------- OpenSSL algorithms ----

// The legacy provider must not be loaded into the application's default
// library context: that would silently re-enable MD4, DES and friends for
// everything else in the process. A private context holds it instead,
// created on first use; the function-local static makes that thread-safe.
class NtlmProviders {
public:
    static NtlmProviders& get() {
        static NtlmProviders instance;
        return instance;
    }
    NtlmProviders(const NtlmProviders&) = delete;
    NtlmProviders& operator=(const NtlmProviders&) = delete;

    EVP_CIPHER* des = nullptr;
    EVP_MD* md5 = nullptr;
    EVP_MAC* hmac = nullptr;

private:
    NtlmProviders() {
        m_ctx = OSSL_LIB_CTX_new();
        if (m_ctx) {
            m_default = OSSL_PROVIDER_load(m_ctx, "default");
            m_legacy = OSSL_PROVIDER_load(m_ctx, "legacy");
            if (m_legacy) des = EVP_CIPHER_fetch(m_ctx, "DES-ECB", nullptr);
        }
        // MD5 and HMAC come from the private context when its default
        // provider loaded, so that both live in one place; otherwise from
        // the application's context, where they are always present.
        OSSL_LIB_CTX* mdCtx = m_default ? m_ctx : nullptr;
        md5 = EVP_MD_fetch(mdCtx, "MD5", nullptr);
        hmac = EVP_MAC_fetch(mdCtx, "HMAC", nullptr);
    }
    ~NtlmProviders() {
        EVP_MAC_free(hmac);
        EVP_MD_free(md5);
        EVP_CIPHER_free(des);
        if (m_legacy) OSSL_PROVIDER_unload(m_legacy);
        if (m_default) OSSL_PROVIDER_unload(m_default);
        OSSL_LIB_CTX_free(m_ctx);
    }

    OSSL_LIB_CTX* m_ctx = nullptr;
    OSSL_PROVIDER* m_default = nullptr;
    OSSL_PROVIDER* m_legacy = nullptr;
};

}  // namespace

void md4(const void* data, size_t n, unsigned char out[16]) {
    uint32_t st[4] = {0x67452301u, 0xEFCDAB89u, 0x98BADCFEu, 0x10325476u};
    const unsigned char* p = static_cast<const unsigned char*>(data);
    const uint64_t bits = uint64_t(n) * 8;
    size_t left = n;
    for (; left >= 64; left -= 64, p += 64) md4Block(st, p);

    unsigned char tail[128];
    std::memset(tail, 0, sizeof tail);
    if (left) std::memcpy(tail, p, left);
    tail[left] = 0x80;
    const size_t tailLen = left < 56 ? 64 : 128;
    for (int i = 0; i < 8; ++i) tail[tailLen - 8 + i] = static_cast<unsigned char>(bits >> (8 * i));
    md4Block(st, tail);
    if (tailLen == 128) md4Block(st, tail + 64);

    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) out[4 * i + j] = static_cast<unsigned char>(st[i] >> (8 * j));
    OPENSSL_cleanse(tail, sizeof tail);
    OPENSSL_cleanse(st, sizeof st);
}

bool md5(const void* data, size_t n, unsigned char out[16]) {
    EVP_MD* md = NtlmProviders::get().md5;
    if (!md) return false;
    EVP_MD_CTX* c = EVP_MD_CTX_new();
    if (!c) return false;
    unsigned outLen = 0;
    const bool ok = EVP_DigestInit_ex2(c, md, nullptr) == 1 && EVP_DigestUpdate(c, data, n) == 1 &&
                    EVP_DigestFinal_ex(c, out, &outLen) == 1 && outLen == 16;
    EVP_MD_CTX_free(c);
    return ok;
}

bool hmacMd5(const void* key, size_t keyLen, const void* data, size_t n, unsigned char out[16]) {
    EVP_MAC* mac = NtlmProviders::get().hmac;
    if (!mac) return false;
    EVP_MAC_CTX* c = EVP_MAC_CTX_new(mac);
    if (!c) return false;
    char digestName[] = "MD5";
    OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string("digest", digestName, 0), OSSL_PARAM_construct_end()};
    size_t outLen = 0;
    const bool ok = EVP_MAC_init(c, static_cast<const unsigned char*>(key), keyLen, params) == 1 &&
                    EVP_MAC_update(c, static_cast<const unsigned char*>(data), n) == 1 &&
                    EVP_MAC_final(c, out, &outLen, 16) == 1 && outLen == 16;
    EVP_MAC_CTX_free(c);  // cleanses the keyed state
    return ok;
}

bool desAvailable() { return NtlmProviders::get().des != nullptr; }

bool desEncryptBlock(const unsigned char key8[8], const unsigned char in[8], unsigned char out[8]) {
    EVP_CIPHER* des = NtlmProviders::get().des;
    if (!des) return false;
    EVP_CIPHER_CTX* c = EVP_CIPHER_CTX_new();
    if (!c) return false;
    int outLen = 0;
    int finLen = 0;
    unsigned char fin[8];
    const bool ok = EVP_EncryptInit_ex2(c, des, key8, nullptr, nullptr) == 1 &&
                    EVP_CIPHER_CTX_set_padding(c, 0) == 1 && EVP_EncryptUpdate(c, out, &outLen, in, 8) == 1 &&
                    outLen == 8 && EVP_EncryptFinal_ex(c, fin, &finLen) == 1 && finLen == 0;
    EVP_CIPHER_CTX_free(c);  // cleanses the key schedule
    return ok;
}

void desExpandKey(const unsigned char k[7], unsigned char key8[8]) {
    key8[0] = k[0];
    for (int i = 1; i < 7; ++i) key8[i] = static_cast<unsigned char>((k[i - 1] << (8 - i)) | (k[i] >> i));
    key8[7] = static_cast<unsigned char>(k[6] << 1);
    // DES ignores the low bit of each byte; odd parity there is the
    // customary form of a DES key.
    for (int i = 0; i < 8; ++i) {
        unsigned char b = key8[i] & 0xFE;
        int ones = 0;
        for (int bit = 1; bit < 8; ++bit) ones += (b >> bit) & 1;
        key8[i] = static_cast<unsigned char>(b | ((ones & 1) ? 0 : 1));
    }
}

bool desl(const unsigned char key16[16], const unsigned char data8[8], unsigned char out24[24]) {
    unsigned char k21[21];
    std::memcpy(k21, key16, 16);
    std::memset(k21 + 16, 0, 5);
    unsigned char key8[8];
    bool ok = true;
    for (int i = 0; i < 3 && ok; ++i) {
        desExpandKey(k21 + 7 * i, key8);
        ok = desEncryptBlock(key8, data8, out24 + 8 * i);
    }
    OPENSSL_cleanse(k21, sizeof k21);
    OPENSSL_cleanse(key8, sizeof key8);
    return ok;
}

}  // namespace ntlm
}  // namespace zr
