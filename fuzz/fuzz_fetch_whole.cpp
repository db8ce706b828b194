// getCompleteFetchResponse: the whole-message download (header lines, the
// literal read into the caller's buffer, the lines after it) and the
// parseFlagsAndSize call it makes on the collected lines.
//
// Input: [options][server bytes after the greeting], the response to a
// FETCH whose tag is "aaab".
//   options bit 0: verbose logging      bit 1: session log kept
//   options bit 2: a NOOP follows on the same connection
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
    zr::fuzz::EngineSession s(data + 1, size - 1, options & 1, options & 2);
    if (!s.connected()) return 0;
    ImapFlags flags;
    StringBuffer date, text;
    DataBuffer mime;
    bool ok = false;
    const bool done = s.imap.fetchCompleteWithAttachments_u(1, true, flags, date, text, mime, ok, s.sp, s.log);
    if (done && !ok) zr::fuzz::die("fetch reported success without an OK completion");
    if (options & 4) {
        ImapResultSet rs;
        s.imap.cmdNoArgs("NOOP", rs, s.log, s.sp);
    }
    return 0;
}
