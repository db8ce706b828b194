// SORT/THREAD, APPEND with every flag, structure summaries and IDLE
// events against a real Dovecot, in bob's account. The exact commands are
// pinned by tests/imap/MessageOpsTest, FetchTest and MailboxTest; here the
// server's answers count. Mailbox management, STATUS, SELECT, SEARCH, flag
// stores, COPY and MOVE against it go through the same engine calls in ClientIT.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ItMessages.h"
#include "ItSession.h"

using namespace zr;
using zr::it::Session;

namespace {

class DovecotMessages : public it::LoggedIn {
protected:
    // The FLAGS of message uid as the server reports them now.
    std::string flagsOf(unsigned uid) {
        ImapResultSet rs;
        if (!ok(imap.fetchFlags_u(uid, true, rs, log, sp), rs)) return "<failed>";
        return text(rs);
    }
};

const ImapMsgPart& part(const ImapMsgSummary& sum, const char* id) {
    static const ImapMsgPart missing;
    const ImapMsgPart* p = sum.findMsgPart(id);
    return p ? *p : missing;
}

}  // namespace

TEST_F(DovecotMessages, SortAndThread) {
    ASSERT_TRUE(freshMailbox("zr search"));
    for (const char* subject : {"banana", "apple", "Re: banana"})
        ASSERT_TRUE(append("zr search", it::plainMessage(subject)));
    ASSERT_TRUE(select("zr search", false));
    ImapResultSet sorted;
    ASSERT_TRUE(ok(imap.searchOrSortImap(true, "SORT", "utf-8", "SUBJECT", "ALL", sorted, log, sp), sorted));
    EXPECT_STREQ(sorted.getLine(0), "* SORT 2 1 3\r\n");
    ImapResultSet thread;
    EXPECT_TRUE(imap.searchOrSortImap(true, "THREAD", "UTF-8", "REFERENCES", "ALL", thread, log, sp));
    EXPECT_TRUE(thread.isOK(true, log)) << text(thread);
    EXPECT_EQ(std::string(thread.getLine(0)).rfind("* THREAD ", 0), 0u);
}

TEST_F(DovecotMessages, AppendWithEveryFlagCombinationAndDateForm) {
    ASSERT_TRUE(freshMailbox("zr append"));
    const char* names[] = {"\\Seen", "\\Deleted", "\\Flagged", "\\Answered", "\\Draft"};
    for (int mask = 0; mask < 32; ++mask) {
        ExtPtrArraySb lines;
        ImapResultSet rs;
        ASSERT_TRUE(imap.appendMime("zr append", it::plainMessage("m" + std::to_string(mask)).c_str(), nullptr,
                                    mask & 1, mask & 2, mask & 4, mask & 8, mask & 16, lines, rs, log, sp));
        const std::string got = flagsOf(static_cast<unsigned>(mask + 1));
        for (int bit = 0; bit < 5; ++bit)
            EXPECT_EQ(got.find(names[bit]) != std::string::npos, (mask & (1 << bit)) != 0) << mask << got;
    }
    // Dates the engine repairs or leaves out are pinned on the wire by MessageOps.AppendRepairsDates.
    struct DateCase {
        const char* given;
        const char* internalDate;  // what the server then reports; null: refused
    } cases[] = {{"1-Jan-2024 10:00:00 GMT", "01-Jan-2024 10:00:00 +0000"},
                 {"17-Jul-1996 02:44:25 -0700", "17-Jul-1996 09:44:25 +0000"},  // stored as an instant
                 {"2-Feb-2020 08:30:00 UTC", "02-Feb-2020 08:30:00 +0000"},
                 {"5-May-2021 12:00:00 +0000 (BST)", nullptr}};  // becomes "... +0000 +0100"
    unsigned uid = 33;
    for (const DateCase& c : cases) {
        ExtPtrArraySb lines;
        ImapResultSet rs;
        const bool done = imap.appendMime("zr append", it::plainMessage("dated").c_str(), c.given, false, false,
                                          false, false, false, lines, rs, log, sp);
        if (!c.internalDate) {
            EXPECT_TRUE(raw("NOOP")) << c.given;  // refused, and the session stays in step
            continue;
        }
        ASSERT_TRUE(done) << c.given << log.toText();
        ImapResultSet f;
        ASSERT_TRUE(ok(imap.fetchSummary_u(uid++, true, "(INTERNALDATE)", f, log, sp), f));
        EXPECT_NE(text(f).find(c.internalDate), std::string::npos) << c.given << text(f);
    }
}

TEST_F(DovecotMessages, StructureSummariesPartByPart) {
    ASSERT_TRUE(freshMailbox("zr structure"));
    for (const std::string& m : {it::plainMessage("plain"), it::alternativeMessage(), it::mixedMessage(),
                                 it::relatedMessage(), it::forwardMessage()})
        ASSERT_TRUE(append("zr structure", m));
    ASSERT_TRUE(select("zr structure", false));
    ImapMsgSummary sum[5];
    for (unsigned uid = 1; uid <= 5; ++uid)
        ASSERT_TRUE(imap.fetchMsgSummary_u(uid, true, "(UID BODYSTRUCTURE)", sum[uid - 1], sp, log)) << uid;

    EXPECT_EQ(sum[0].getNumParts(), 1);
    EXPECT_TRUE(part(sum[0], "1").isType("text", "plain"));
    EXPECT_TRUE(part(sum[0], "1").m_charset.equalsIgnoreCase("utf-8"));
    EXPECT_EQ(sum[0].m_numAttachments, 0);

    EXPECT_TRUE(sum[1].getPart(0)->isType("multipart", "alternative"));
    EXPECT_TRUE(part(sum[1], "2").isType("text", "html"));
    EXPECT_EQ(sum[1].m_numAttachments, 0);

    EXPECT_TRUE(sum[2].getPart(0)->isType("multipart", "mixed"));
    EXPECT_TRUE(part(sum[2], "2").isType("application", "pdf"));
    EXPECT_STREQ(part(sum[2], "2").m_filename.getString(), "doc.pdf");
    EXPECT_TRUE(part(sum[2], "2").m_encoding.equalsIgnoreCase("base64"));
    EXPECT_TRUE(part(sum[2], "2").m_isAttachment);
    EXPECT_TRUE(part(sum[2], "3").m_isAttachment);
    EXPECT_FALSE(part(sum[2], "1").m_isAttachment);
    EXPECT_EQ(sum[2].m_numAttachments, 2);

    EXPECT_TRUE(sum[3].getPart(0)->isType("multipart", "related"));
    EXPECT_STREQ(part(sum[3], "2").m_contentId.getString(), "<img1>");
    EXPECT_EQ(sum[3].m_numAttachments, 0);  // an embedded image is not an attachment

    EXPECT_TRUE(part(sum[4], "2").isType("message", "rfc822"));
    EXPECT_TRUE(part(sum[4], "2.TEXT").isType("multipart", "alternative"));
    EXPECT_TRUE(part(sum[4], "2.2").isType("text", "html"));
    EXPECT_EQ(sum[4].m_numAttachments, 1);
    StringBuffer best("2");
    ASSERT_TRUE(sum[4].findBestMsgPart(best));
    EXPECT_STREQ(best.getString(), "2.1");
}

TEST_F(DovecotMessages, IdleReportsAppendFlagChangeAndExpungeInOrder) {
    ASSERT_TRUE(freshMailbox("zr idle"));
    ImapResultSet idle;
    ASSERT_TRUE(imap.cmdNoArgs("IDLE", idle, log, sp));
    EXPECT_TRUE(imap.m_idling);
    EXPECT_EQ(std::string(idle.getLine(idle.getNumLines() - 1)).rfind("+ ", 0), 0u);
    XString xml;
    ASSERT_TRUE(imap.idleCheck(0, xml, sp, log));
    EXPECT_STREQ(xml.getUtf8(), "<idle></idle>");

    // The server folds changes it has not reported yet into one view, so
    // each change waits for its own notification before the next is made.
    std::string events;
    auto waitFor = [&](const char* element) {
        for (int i = 0; i < 15 && events.find(element) == std::string::npos; ++i) {
            ASSERT_TRUE(imap.idleCheck(1000, xml, sp, log));
            const std::string doc = xml.getUtf8();
            ASSERT_EQ(doc.rfind("<idle>", 0), 0u);
            ASSERT_EQ(doc.substr(doc.size() - 7), "</idle>");
            events += doc.substr(6, doc.size() - 13);
        }
        std::string refused;
        for (const auto& e : log.entries())
            if (e.name == "idleResponseParseError") refused += e.value;
        ASSERT_NE(events.find(element), std::string::npos) << events << "\nrefused lines:\n" << refused;
    };
    Session other;
    ASSERT_TRUE(other.open());
    ASSERT_TRUE(other.raw("APPEND \"zr idle\" {17+}\r\nSubject: one\r\n\r\nx"));
    waitFor("<exists>1</exists>");
    ASSERT_TRUE(other.raw("SELECT \"zr idle\""));
    ASSERT_TRUE(other.raw("STORE 1 +FLAGS (\\Flagged)"));
    waitFor("<flags seqnum=\"1\"");
    ASSERT_TRUE(other.raw("STORE 1 +FLAGS (\\Deleted)"));
    ASSERT_TRUE(other.raw("EXPUNGE"));
    waitFor("<expunge>1</expunge>");

    const size_t exists = events.find("<exists>1</exists>");
    const size_t flags = events.find("<flag>\\Flagged</flag>");
    const size_t expunge = events.find("<expunge>1</expunge>");
    EXPECT_LT(exists, flags);
    EXPECT_LT(flags, expunge);

    ImapResultSet done;
    ASSERT_TRUE(imap.cmdNoArgs("DONE", done, log, sp));
    EXPECT_TRUE(done.isOK(true, log));
    EXPECT_FALSE(imap.m_idling);
}
