// MD5, HMAC-MD5 and random bytes for the challenge-response logins
// (CRAM-MD5, RFC 2195; DIGEST-MD5, RFC 2831), on OpenSSL.
#pragma once

namespace zr {

class StringBuffer;
class DataBuffer;

class Md5Hasher {
public:
    // Writes the 16-byte MD5 of the buffer's bytes into out.
    static bool digestString(const StringBuffer& text, unsigned char out[16]);
    static bool digestData(const DataBuffer& data, unsigned char out[16]);
    // Appends two lowercase hexadecimal digits per byte.
    static bool toLowercaseHex(const unsigned char* bytes, unsigned n, StringBuffer& out);
};

class RandomSource {
public:
    // Appends n bytes from the operating system's cryptographic generator.
    static bool randomBytes(unsigned n, DataBuffer& out);
};

class _zrCramMD5 {
public:
    // Appends the CRAM-MD5 response text: the login, one space, and the 32
    // lowercase hex digits of HMAC-MD5 keyed with the password over the
    // decoded challenge.
    static bool crammd5_generateData(StringBuffer& login, StringBuffer& password, DataBuffer& challenge,
                                     StringBuffer& out);
};

}  // namespace zr
