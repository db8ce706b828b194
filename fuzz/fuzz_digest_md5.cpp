// authenticateDigestMd5 against a server whose challenge comes from the
// fuzz input: the base64 decoding of the "+ " line, the split of the
// challenge into name=value pairs (quotes, escapes, commas), the response
// built from them, and the rspauth round that may follow.
//
// Input: [options][challenge length, 2 bytes little-endian][challenge]
//        [the server bytes after the challenge line, raw]
//   options bit 0: verbose logging      bit 1: session log kept
//   options bit 2: the challenge line is sent raw instead of base64-encoded
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "zrimap/auth/Settings.h"

using namespace zr;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zr::fuzz::useFuzzBufferLimit();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return 0;
    const unsigned options = data[0];
    std::size_t len = static_cast<std::size_t>(data[1]) | static_cast<std::size_t>(data[2]) << 8;
    if (len > size - 3) len = size - 3;
    const std::uint8_t* challenge = data + 3;
    const std::uint8_t* rest = challenge + len;
    const std::size_t restLen = size - 3 - len;

    std::string stream("+ ");
    if (options & 4) {
        stream.append(reinterpret_cast<const char*>(challenge), len);
    } else {
        StringBuffer encoded;
        ContentCoding::encodeBase64_noCrLf(challenge, static_cast<unsigned>(len), encoded);
        stream.append(encoded.getString(), encoded.getSize());
    }
    stream.append("\r\n");
    stream.append(reinterpret_cast<const char*>(rest), restLen);

    zr::fuzz::EngineSession s(reinterpret_cast<const std::uint8_t*>(stream.data()), stream.size(), options & 1,
                              options & 2);
    if (!s.connected()) return 0;
    XString user("joe");
    SecurePassword pw("secret");
    StringBuffer response;
    s.imap.authenticateDigestMd5(user, pw, response, s.log, s.sp);
    if (!pw.isEmpty()) zr::fuzz::die("the password was not wiped");
    return 0;
}
