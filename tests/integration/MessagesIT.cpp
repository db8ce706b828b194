// Flag stores, COPY/MOVE, SEARCH/SORT/THREAD, APPEND and structure summaries
// against a real Dovecot, in bob's account. The exact commands are pinned by
// tests/imap/MessageOpsTest and FetchTest; here the server's answers count.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "ItMessages.h"
#include "ItSession.h"

using namespace zr;
using zr::it::Session;

namespace {

class DovecotMessages : public ::testing::Test {
protected:
    Session s;
    void SetUp() override {
        it::failWithoutFixture();
        if (HasFatalFailure()) return;
        ASSERT_TRUE(s.open()) << s.log.toText();
    }
    // The FLAGS of message uid as the server reports them now.
    std::string flagsOf(unsigned uid) {
        ImapResultSet rs;
        if (!s.ok(s.imap.fetchFlags_u(uid, true, rs, s.log, s.sp), rs)) return "<failed>";
        return Session::text(rs);
    }
    std::vector<unsigned> search(const char* criteria, const char* charset = nullptr) {
        ImapResultSet rs;
        std::vector<unsigned> uids;
        if (!s.ok(s.imap.searchOrSortImap(true, "SEARCH", charset, nullptr, criteria, rs, s.log, s.sp), rs))
            return {0};
        std::istringstream words(std::string(rs.getLine(0)).substr(8));  // after "* SEARCH"
        for (unsigned uid; words >> uid;) uids.push_back(uid);
        return uids;
    }
};

const ImapMsgPart& part(const ImapMsgSummary& sum, const char* id) {
    static const ImapMsgPart missing;
    const ImapMsgPart* p = sum.findMsgPart(id);
    return p ? *p : missing;
}

}  // namespace

TEST_F(DovecotMessages, FlagsSetClearedAndReadBack) {
    ASSERT_TRUE(s.freshMailbox("zr flags"));
    for (const char* subject : {"one", "two", "three"}) ASSERT_TRUE(s.append("zr flags", it::plainMessage(subject)));
    ASSERT_TRUE(s.select("zr flags", false));
    ImapResultSet a, b, c, d, e;
    ASSERT_TRUE(s.ok(s.imap.setFlag_u(1, false, true, "Flagged", a, s.log, s.sp), a));
    ASSERT_TRUE(s.ok(s.imap.setFlagForMsgSet("2:3", false, true, "$Label1", b, s.log, s.sp), b));
    ASSERT_TRUE(s.ok(s.imap.setFlag_u(3, true, true, "seen", c, s.log, s.sp), c));  // by UID
    EXPECT_NE(flagsOf(1).find("\\Flagged"), std::string::npos);
    EXPECT_NE(flagsOf(2).find("$Label1"), std::string::npos);
    const std::string third = flagsOf(3);
    EXPECT_NE(third.find("$Label1"), std::string::npos);
    EXPECT_NE(third.find("\\Seen"), std::string::npos);

    ASSERT_TRUE(s.ok(s.imap.setFlag_u(1, true, false, "\\Flagged", d, s.log, s.sp), d));
    ASSERT_TRUE(s.ok(s.imap.storeFlags_u(2, true, false, "$Label1", e, s.log, s.sp), e));
    EXPECT_EQ(flagsOf(1).find("\\Flagged"), std::string::npos);
    EXPECT_EQ(flagsOf(2).find("$Label1"), std::string::npos);

    ImapResultSet del1, del2, all;
    ASSERT_TRUE(s.ok(s.imap.setDeleteFlag_u(1, del1, s.log, s.sp), del1));
    EXPECT_NE(Session::text(del1).find("\\Deleted"), std::string::npos);  // non-silent: FETCH comes back
    ASSERT_TRUE(s.ok(s.imap.uidSetDeleteFlag_u(2, del2, s.log, s.sp), del2));
    ASSERT_TRUE(s.ok(s.imap.fetchAllFlags(all, s.log, s.sp), all));
    EXPECT_EQ(all.getNumLines(), 4);
    const std::string allText = Session::text(all);
    EXPECT_NE(allText.find("UID 2 FLAGS (\\Deleted"), std::string::npos) << allText;
}

TEST_F(DovecotMessages, CopyAndMoveBetweenMailboxes) {
    ASSERT_TRUE(s.freshMailbox("zr target"));
    ASSERT_TRUE(s.freshMailbox("zr source"));
    for (const char* subject : {"a", "b", "c"}) ASSERT_TRUE(s.append("zr source", it::plainMessage(subject)));
    ASSERT_TRUE(s.select("zr source", false));
    ImapResultSet copy, move;
    ASSERT_TRUE(s.ok(s.imap.copy_u(1, true, "zr target", copy, s.log, s.sp), copy));
    ASSERT_TRUE(s.ok(s.imap.moveMessages("2:3", true, "zr target", move, s.log, s.sp), move));
    ImapResultSet st1, st2;
    bool got = false;
    ASSERT_TRUE(s.imap.getMailboxStatus("zr source", st1, got, s.log, s.sp));
    ASSERT_TRUE(s.imap.getMailboxStatus("zr target", st2, got, s.log, s.sp));
    EXPECT_NE(Session::text(st1).find("MESSAGES 1 "), std::string::npos) << Session::text(st1);
    EXPECT_NE(Session::text(st2).find("MESSAGES 3 "), std::string::npos) << Session::text(st2);
}

TEST_F(DovecotMessages, SearchSortAndThread) {
    ASSERT_TRUE(s.freshMailbox("zr search"));
    ASSERT_TRUE(s.append("zr search", it::plainMessage("banana")));
    ASSERT_TRUE(s.append("zr search", it::plainMessage("apple")));
    ASSERT_TRUE(s.append("zr search", it::plainMessage("Re: banana")));
    ASSERT_TRUE(s.select("zr search", false));
    EXPECT_EQ(search("SUBJECT banana"), (std::vector<unsigned>{1, 3}));
    EXPECT_EQ(search("SUBJECT apple", "UTF-8"), (std::vector<unsigned>{2}));
    EXPECT_EQ(search("SUBJECT cherry"), std::vector<unsigned>{});

    ImapResultSet sorted;
    ASSERT_TRUE(s.ok(s.imap.searchOrSortImap(true, "SORT", "utf-8", "SUBJECT", "ALL", sorted, s.log, s.sp), sorted));
    EXPECT_STREQ(sorted.getLine(0), "* SORT 2 1 3\r\n");
    ImapResultSet thread;
    EXPECT_TRUE(s.imap.searchOrSortImap(true, "THREAD", "UTF-8", "REFERENCES", "ALL", thread, s.log, s.sp));
    EXPECT_TRUE(thread.isOK(true, s.log)) << Session::text(thread);
    EXPECT_EQ(std::string(thread.getLine(0)).rfind("* THREAD ", 0), 0u);
}

TEST_F(DovecotMessages, AppendWithEveryFlagCombinationAndDateForm) {
    ASSERT_TRUE(s.freshMailbox("zr append"));
    const char* names[] = {"\\Seen", "\\Deleted", "\\Flagged", "\\Answered", "\\Draft"};
    for (int mask = 0; mask < 32; ++mask) {
        ExtPtrArraySb lines;
        ImapResultSet rs;
        ASSERT_TRUE(s.imap.appendMime("zr append", it::plainMessage("m" + std::to_string(mask)).c_str(), nullptr,
                                      mask & 1, mask & 2, mask & 4, mask & 8, mask & 16, lines, rs, s.log, s.sp));
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
        const bool done = s.imap.appendMime("zr append", it::plainMessage("dated").c_str(), c.given, false, false,
                                            false, false, false, lines, rs, s.log, s.sp);
        if (!c.internalDate) {
            EXPECT_TRUE(s.raw("NOOP")) << c.given;  // refused, and the session stays in step
            continue;
        }
        ASSERT_TRUE(done) << c.given << s.log.toText();
        ImapResultSet f;
        ASSERT_TRUE(s.ok(s.imap.fetchSummary_u(uid++, true, "(INTERNALDATE)", f, s.log, s.sp), f));
        EXPECT_NE(Session::text(f).find(c.internalDate), std::string::npos) << c.given << Session::text(f);
    }
}

TEST_F(DovecotMessages, StructureSummariesPartByPart) {
    ASSERT_TRUE(s.freshMailbox("zr structure"));
    for (const std::string& m : {it::plainMessage("plain"), it::alternativeMessage(), it::mixedMessage(),
                                 it::relatedMessage(), it::forwardMessage()})
        ASSERT_TRUE(s.append("zr structure", m));
    ASSERT_TRUE(s.select("zr structure", false));
    ImapMsgSummary sum[5];
    for (unsigned uid = 1; uid <= 5; ++uid)
        ASSERT_TRUE(s.imap.fetchMsgSummary_u(uid, true, "(UID BODYSTRUCTURE)", sum[uid - 1], s.sp, s.log))
            << uid << s.log.toText();

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
