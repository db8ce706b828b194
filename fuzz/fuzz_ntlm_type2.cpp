// ClsNtlm::genType3 with the fuzz input as the server's Type 2 message:
// the header, the security buffers (offsets and lengths from the server),
// the target info AV pairs, and the Type 3 built from them.
//
// Input: [options][Type 2 bytes]; the harness sends them base64-encoded, as
// the server's "+ " line carries them.
//   options bit 0: NTLMv1 instead of NTLMv2
//   options bit 1: a Type 1 message is made first (so a MIC is computed)
//   options bit 2: the user name carries the domain ("DOM\joe")
//   options bit 3: the challenge text is the raw input (not encoded)
#include <cstdint>

#include "FuzzSupport.h"
#include "zrimap/auth/Ntlm.h"

using namespace zr;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zr::fuzz::useFuzzBufferLimit();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const unsigned options = data[0];
    ClsNtlm* ntlm = ClsNtlm::createNewCls();
    if (!ntlm) return 0;
    XString user(options & 4 ? "DOM\\joe" : "joe"), pw("secret"), workstation("FUZZHOST");
    ntlm->put_UserName(user);
    ntlm->put_Password(pw);
    ntlm->put_Workstation(workstation);
    ntlm->put_NtlmVersion(options & 1 ? 1 : 2);
    static const unsigned char kFixed[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ntlm->setClientChallengeForTesting(kFixed);
    zr::fuzz::TouchLog log(false);
    if (options & 2) {
        XString type1;
        if (!ntlm->genType1(type1, log)) zr::fuzz::die("genType1 failed");
    }
    XString challenge;
    if (options & 8) {
        StringBuffer raw;
        raw.appendN(reinterpret_cast<const char*>(data + 1), static_cast<unsigned>(size - 1));
        challenge.appendSbUtf8(raw);
    } else {
        StringBuffer encoded;
        ContentCoding::encodeBase64_noCrLf(data + 1, static_cast<unsigned>(size - 1), encoded);
        challenge.appendSbUtf8(encoded);
    }
    XString type3("stale");
    const bool ok = ntlm->genType3(challenge, type3, log);
    if (!ok && !type3.isEmpty()) zr::fuzz::die("a refused Type 2 left a Type 3 behind");
    if (ok) {
        DataBuffer decoded;
        if (!ContentCoding::decodeBase64ToDb(type3.getUtf8(), type3.getSizeUtf8(), decoded))
            zr::fuzz::die("the Type 3 message is not base64");
        if (decoded.getSize() < 64) zr::fuzz::die("the Type 3 message is shorter than its header");
    }
    ntlm->decRefCount();
    return 0;
}
