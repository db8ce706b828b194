// Building blocks of the NTLM message maker that are not part of the public
// API: the hash and cipher primitives NTLM is made of, and the text
// conversion its hashes depend on. Declared here so that the unit tests can
// check each one against published vectors.
#pragma once

#include <cstddef>

namespace zr {

class DataBuffer;

namespace ntlm {

// MD4 (RFC 1320), computed here rather than by OpenSSL: OpenSSL 3 only offers
// it through the legacy provider, and NTLMv2 (which needs nothing else from
// that provider) must keep working where the provider is missing.
void md4(const void* data, size_t n, unsigned char out[16]);

// From OpenSSL's default provider. False only when OpenSSL fails.
bool md5(const void* data, size_t n, unsigned char out[16]);
bool hmacMd5(const void* key, size_t keyLen, const void* data, size_t n, unsigned char out[16]);

// Single DES, from OpenSSL's legacy provider loaded into a private library
// context (the application's own context is never touched). Only NTLMv1
// needs it. False when the provider cannot be loaded or OpenSSL fails.
bool desAvailable();
bool desEncryptBlock(const unsigned char key8[8], const unsigned char in[8], unsigned char out[8]);
// The 7-byte key spread over 8 bytes with odd parity, as NTLM's DES uses it.
void desExpandKey(const unsigned char key7[7], unsigned char key8[8]);
// DESL from MS-NLMP: the 16-byte key cut into three DES keys.
bool desl(const unsigned char key16[16], const unsigned char data8[8], unsigned char out24[24]);

// UTF-8 to UTF-16LE, appended to out. With `upper`, letters are upper-cased
// by the simple Unicode mapping for Latin, Greek, Cyrillic and Armenian
// (characters outside those ranges stay as they are). False, with out as it
// was, when the text is not well-formed UTF-8 (overlong forms, surrogates and
// code points past U+10FFFF included).
bool utf8ToUtf16le(const char* text, unsigned n, bool upper, DataBuffer& out);
unsigned upperCodePoint(unsigned cp);

}  // namespace ntlm
}  // namespace zr
