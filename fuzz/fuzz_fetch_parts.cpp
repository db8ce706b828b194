// getCompleteFetchResponse2: the download of the top header plus one part's
// MIME header and body, in whichever order the server sends them, and the
// reassembly (combineFetchParts, MimeParser) that follows an OK.
//
// Input: [options][server bytes after the greeting], the response to a
// FETCH whose tag is "aaab".
//   options bit 0: verbose logging      bit 1: session log kept
//   options bits 2-3: the part fetched: "1", "2", "1.2" or "2.TEXT"
//   options bit 4: a NOOP follows on the same connection
#include <cstdint>

#include "FuzzSupport.h"

using namespace zr;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zr::fuzz::useFuzzBufferLimit();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const unsigned options = data[0];
    static const char* const kParts[] = {"1", "2", "1.2", "2.TEXT"};
    zr::fuzz::EngineSession s(data + 1, size - 1, options & 1, options & 2);
    if (!s.connected()) return 0;
    StringBuffer part(kParts[(options >> 2) & 3]);
    ImapFlags flags;
    StringBuffer date, text;
    DataBuffer mime;
    bool ok = false;
    const bool done = s.imap.getCompleteFetchResponse2("aaab", part, flags, date, text, mime, ok, s.sp, s.log);
    if (done && !ok) zr::fuzz::die("fetch reported success without an OK completion");
    if (options & 16) {
        ImapResultSet rs;
        s.imap.cmdNoArgs("NOOP", rs, s.log, s.sp);
    }
    return 0;
}
