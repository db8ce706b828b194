// Server bytes through every engine operation that reads a response: the
// line reader, the collectors (getCompleteResponse, getCompleteResponse2,
// getPartialResponse), the literal reader and what each operation makes of
// the lines afterwards.
//
// Input: [operation][options][server bytes after the greeting]
//   options bit 0: verbose logging      bit 1: session log kept
//   options bit 2: UID / EXAMINE variant
//   options bit 3: a NOOP follows on the same connection, whatever happened
// The first command's tag is "aaab", the next "aaac", and so on.
#include <cstdint>
#include <cstring>

#include "FuzzSupport.h"
#include "zrimap/auth/Settings.h"

using namespace zr;
using zr::fuzz::EngineSession;

namespace {

enum Op : unsigned {
    kNoop,
    kSelect,
    kSearch,
    kFetchSummaries,
    kFetchMsgSummary,
    kFetchAttachment,
    kAppend,
    kIdle,
    kLogout,
    kLogin,
    kAuthPlain,
    kXoauth2,
    kCramMd5,
    kCapability,
    kStatusAndList,
    kRaw,
    kFetchStrategy,
    kNtlm,
    kSort,
    kOpCount
};

void runOp(unsigned op, bool variant, EngineSession& s) {
    _zrImap& imap = s.imap;
    LogBase& log = s.log;
    SocketParams& sp = s.sp;
    ImapResultSet rs;
    switch (op) {
        case kNoop:
            if (imap.cmdNoArgs("NOOP", rs, log, sp)) {
                rs.isOK(true, log);
                imap.parseUntaggedResponses(rs.getArray2());
            }
            break;
        case kSelect: {
            bool got = false;
            imap.selectMailbox("INBOX", variant, rs, got, log, sp);
            (void)imap.get_NumEmailsInMailbox();
            break;
        }
        case kSearch:
            if (imap.searchOrSortImap(variant, "SEARCH", "UTF-8", nullptr, "UNSEEN", rs, log, sp)) rs.isOK(true, log);
            break;
        case kSort:
            imap.searchOrSortImap(variant, "SORT", nullptr, "DATE", "ALL", rs, log, sp);
            break;
        case kFetchSummaries:
            if (imap.fetchMultipleSummaries("1:*", variant, "(UID FLAGS RFC822.SIZE BODYSTRUCTURE)", rs, log, sp)) {
                ImapMsgSummary summary;
                rs.parseSummary(summary, "(UID FLAGS RFC822.SIZE BODYSTRUCTURE)", log);
            }
            break;
        case kFetchMsgSummary: {
            ImapMsgSummary summary;
            if (imap.fetchMsgSummary_u(1, variant, "(UID BODYSTRUCTURE)", summary, sp, log)) summary.logMsgParts(log);
            break;
        }
        case kFetchAttachment: {
            StringBuffer text;
            DataBuffer data;
            bool ok = false;
            imap.fetchAttachment_u(1, variant, "2", text, data, ok, sp, log);
            break;
        }
        case kAppend: {
            ExtPtrArraySb completion;
            imap.appendMime("INBOX", "Subject: fuzz\r\n\r\nbody\r\n", "1-Jan-2024 00:00:00 +0000", true, false,
                            variant, false, false, completion, rs, log, sp);
            break;
        }
        case kIdle: {
            if (!imap.cmdNoArgs("IDLE", rs, log, sp)) break;
            XString xml;
            imap.idleCheck(variant ? 0 : 20, xml, sp, log);
            ImapResultSet done;
            imap.cmdNoArgs("DONE", done, log, sp);
            break;
        }
        case kLogout: {
            StringBuffer line;
            imap.logout(line, sp, log);
            break;
        }
        case kLogin: {
            XString user("joe");
            SecurePassword pw("secret");
            if (imap.loginImap(user, pw, rs, log, sp)) rs.isOK(true, log);
            break;
        }
        case kAuthPlain: {
            XString authz, user("joe");
            SecurePassword pw("secret");
            imap.authenticatePlain(authz, user, pw, rs, log, sp);
            break;
        }
        case kXoauth2: {
            XString user("joe@example.com");
            SecurePassword token("ya29.token");
            imap.xoauth2Imap(user, token, rs, log, sp);
            break;
        }
        case kCramMd5: {
            XString user("joe");
            SecurePassword pw("secret");
            StringBuffer finalLine;
            imap.authenticateCramMd5(user, pw, finalLine, log, sp);
            break;
        }
        case kCapability: {
            StringBuffer caps;
            imap.capability(caps, log, sp);
            break;
        }
        case kStatusAndList: {
            bool got = false;
            imap.getMailboxStatus("INBOX", rs, got, log, sp);
            ImapResultSet list;
            imap.listImapMailboxes(variant, "", "*", list, log, sp);
            break;
        }
        case kRaw:
            imap.sendRawCommand("NOOP", rs, log, sp);
            break;
        case kFetchStrategy: {
            imap.m_autoDownloadAttachments = false;
            ImapFlags flags;
            StringBuffer date, text;
            DataBuffer mime;
            bool ok = false;
            imap.fetchComplete_u(1, variant, nullptr, flags, date, text, mime, ok, sp, log);
            break;
        }
        case kNtlm: {
            XString user("joe"), domain;
            SecurePassword pw("secret");
            StringBuffer finalLine;
            imap.authenticateNTLM(user, pw, domain, finalLine, log, sp);
            break;
        }
        default:
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zr::fuzz::useFuzzBufferLimit();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const unsigned op = data[0] % kOpCount;
    const unsigned options = data[1];
    EngineSession s(data + 2, size - 2, options & 1, options & 2);
    if (!s.connected()) return 0;
    runOp(op, (options & 4) != 0, s);
    if (options & 8) {
        ImapResultSet rs;
        s.imap.cmdNoArgs("NOOP", rs, s.log, s.sp);
    }
    return 0;
}
