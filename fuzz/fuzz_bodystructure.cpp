// ImapResultSet::parseSummary: BODYSTRUCTURE / BODY responses, with the
// RFC 2231 and RFC 2047 decoding of the parameters and the attachment rule.
//
// Input: the response lines, separated by NUL bytes (a line itself may not
// hold one here; NUL bytes inside lines reach the parser through the
// collectors target). The lines are taken as the collector joins them:
// literal data stays inside its line.
#include <cstdint>
#include <cstring>

#include "FuzzSupport.h"

using namespace zr;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ImapResultSet rs;
    rs.setTag("aaab");
    const char* p = reinterpret_cast<const char*>(data);
    const char* end = p + size;
    while (p <= end) {
        const char* nul = static_cast<const char*>(std::memchr(p, 0, static_cast<std::size_t>(end - p)));
        const char* stop = nul ? nul : end;
        StringBuffer* line = StringBuffer::createNewSB(nullptr);
        if (!line) return 0;
        line->appendN(p, static_cast<unsigned>(stop - p));
        rs.getArray2().appendPtr(line);
        if (!nul) break;
        p = nul + 1;
    }
    zr::fuzz::TouchLog log(size % 2 == 0);
    ImapMsgSummary summary;
    if (rs.parseSummary(summary, "(UID BODYSTRUCTURE)", log)) {
        if (summary.m_loaded != 1) zr::fuzz::die("a parsed summary is not marked loaded");
        int attachments = 0;
        for (int i = 0; i < summary.getNumParts(); ++i) {
            const ImapMsgPart* part = summary.getPart(i);
            if (!part) zr::fuzz::die("a hole in the part list");
            if (part->m_isAttachment) ++attachments;
        }
        if (attachments != summary.m_numAttachments) zr::fuzz::die("the attachment count disagrees with the parts");
        StringBuffer best;
        summary.findBestMsgPart(best);
        summary.logMsgParts(log);
    } else if (summary.m_loaded != 0 || summary.getNumParts() != 0) {
        zr::fuzz::die("a refused structure left parts behind");
    }
    return 0;
}
