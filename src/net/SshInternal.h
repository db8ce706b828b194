// Helpers shared by the SSH sources (internal).
#pragma once

#include <cstddef>
#include <cstdint>

namespace zr {

class StringBuffer;

namespace net {

// "SHA256:" followed by the base64 of the digest without '=' padding: the
// form ssh-keygen -l and the OpenSSH client print.
bool formatSha256Fingerprint(const unsigned char digest[32], StringBuffer& out);

// True when two fingerprints name the same digest. The expected one may
// leave out the "SHA256:" prefix and may carry base64 padding.
bool sameFingerprint(const char* expected, const char* actual);

// bcrypt_pbkdf as OpenSSH uses it for encrypted private keys (PROTOCOL.key).
// False for arguments it refuses (empty passphrase or salt, no rounds, more
// output than 1024 bytes).
bool bcryptPbkdf(const char* pass, size_t passLen, const uint8_t* salt, size_t saltLen, uint8_t* key,
                 size_t keyLen, unsigned rounds);

}  // namespace net
}  // namespace zr
