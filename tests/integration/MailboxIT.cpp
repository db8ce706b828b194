// Mailbox management, selection, listing and IDLE events against a real
// Dovecot. Everything happens in bob's account, under names of its own.
#include <gtest/gtest.h>

#include <string>

#include "ItSession.h"

using namespace zr;
using zr::it::Session;

namespace {

// The LIST (or LSUB) lines as one text.
std::string list(Session& s, bool lsub, const char* ref, const char* pattern) {
    ImapResultSet rs;
    if (!s.ok(s.imap.listImapMailboxes(lsub, ref, pattern, rs, s.log, s.sp), rs)) return "<failed>";
    return Session::text(rs);
}

class DovecotMailbox : public ::testing::Test {
protected:
    Session s;
    void SetUp() override {
        it::failWithoutFixture();
        if (HasFatalFailure()) return;
        ASSERT_TRUE(s.open()) << s.log.toText();
    }
};

}  // namespace

TEST_F(DovecotMailbox, CreateRenameSubscribeDelete) {
    const char* spaced = "zr it/With Space";
    const char* utf7 = "zr it/Entw&APw-rfe";  // "Entwürfe", encoded by the caller
    ImapResultSet rs;
    ASSERT_TRUE(s.ok(s.imap.createMailbox(spaced, rs, s.log, s.sp), rs)) << s.log.toText();
    ImapResultSet again;
    ASSERT_TRUE(s.imap.createMailbox(spaced, again, s.log, s.sp));
    EXPECT_FALSE(again.isOK(true, s.log));  // exists already: NO, still a complete response

    ImapResultSet ren;
    ASSERT_TRUE(s.ok(s.imap.renameMailbox(spaced, utf7, ren, s.log, s.sp), ren));
    const std::string all = list(s, false, "", "zr it/*");
    EXPECT_NE(all.find("\"zr it/Entw&APw-rfe\""), std::string::npos) << all;
    EXPECT_EQ(all.find("With Space"), std::string::npos) << all;

    ImapResultSet sub;
    ASSERT_TRUE(s.ok(s.imap.subscribe(utf7, sub, s.log, s.sp), sub));
    EXPECT_NE(list(s, true, nullptr, "zr it/*").find("Entw&APw-rfe"), std::string::npos);
    ImapResultSet unsub;
    ASSERT_TRUE(s.ok(s.imap.unsubscribe(utf7, unsub, s.log, s.sp), unsub));
    EXPECT_EQ(list(s, true, nullptr, "zr it/*").find("Entw&APw-rfe"), std::string::npos);

    ImapResultSet del1, del2;
    ASSERT_TRUE(s.ok(s.imap.deleteMailbox2(utf7, del1, s.log, s.sp), del1));
    ASSERT_TRUE(s.ok(s.imap.deleteMailbox2("zr it", del2, s.log, s.sp), del2));
    EXPECT_EQ(list(s, false, "", "zr it*").find("* LIST"), std::string::npos);
}

// NO to STATUS and SELECT, the state after EXAMINE, and LIST's default
// arguments are pinned on the wire by tests/imap/MailboxTest.
TEST_F(DovecotMailbox, StatusSelectAndExamine) {
    ASSERT_TRUE(s.raw("APPEND INBOX {20+}\r\nSubject: status\r\n\r\nx"));
    bool got = false;
    ImapResultSet st;
    ASSERT_TRUE(s.imap.getMailboxStatus("INBOX", st, got, s.log, s.sp));
    EXPECT_TRUE(got && st.isOK(true, s.log));
    EXPECT_EQ(std::string(st.getLine(0)).rfind("* STATUS INBOX (MESSAGES ", 0), 0u) << st.getLine(0);

    ImapResultSet sel;
    ASSERT_TRUE(s.imap.selectMailbox("INBOX", false, sel, got, s.log, s.sp));
    EXPECT_GE(s.imap.get_NumEmailsInMailbox(), 1u);
    EXPECT_FALSE(s.imap.m_selectedReadOnly);
    ImapResultSet ex;
    ASSERT_TRUE(s.imap.selectMailbox("INBOX", true, ex, got, s.log, s.sp));
    EXPECT_TRUE(s.imap.m_selectedReadOnly);
}

TEST_F(DovecotMailbox, IdleReportsAppendFlagChangeAndExpungeInOrder) {
    ImapResultSet rs;
    ASSERT_TRUE(s.ok(s.imap.createMailbox("zr idle", rs, s.log, s.sp), rs));
    bool got = false;
    ImapResultSet sel;
    ASSERT_TRUE(s.imap.selectMailbox("zr idle", false, sel, got, s.log, s.sp));
    ImapResultSet idle;
    ASSERT_TRUE(s.imap.cmdNoArgs("IDLE", idle, s.log, s.sp));
    EXPECT_TRUE(s.imap.m_idling);
    EXPECT_EQ(std::string(idle.getLine(idle.getNumLines() - 1)).rfind("+ ", 0), 0u);
    XString xml;
    ASSERT_TRUE(s.imap.idleCheck(0, xml, s.sp, s.log));
    EXPECT_STREQ(xml.getUtf8(), "<idle></idle>");

    // The server folds changes it has not reported yet into one view, so
    // each change waits for its own notification before the next is made.
    std::string events;
    auto waitFor = [&](const char* element) {
        for (int i = 0; i < 15 && events.find(element) == std::string::npos; ++i) {
            ASSERT_TRUE(s.imap.idleCheck(1000, xml, s.sp, s.log));
            const std::string doc = xml.getUtf8();
            ASSERT_EQ(doc.rfind("<idle>", 0), 0u);
            ASSERT_EQ(doc.substr(doc.size() - 7), "</idle>");
            events += doc.substr(6, doc.size() - 13);
        }
        std::string refused;
        for (const auto& e : s.log.entries())
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
    ASSERT_TRUE(s.imap.cmdNoArgs("DONE", done, s.log, s.sp));
    EXPECT_TRUE(done.isOK(true, s.log));
    EXPECT_FALSE(s.imap.m_idling);
    ImapResultSet del;
    s.imap.sendRawCommand("UNSELECT", del, s.log, s.sp);
    ImapResultSet del2;
    EXPECT_TRUE(s.ok(s.imap.deleteMailbox2("zr idle", del2, s.log, s.sp), del2));
}
