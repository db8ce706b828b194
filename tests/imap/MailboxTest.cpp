// Mailbox commands, SELECT/EXAMINE/STATUS, LIST/LSUB and the IDLE event XML
// against a scripted server.
#include <chrono>
#include <string>

#include "EngineTest.h"

using namespace zr;
using namespace zr::test;

namespace {

class Mailbox : public GreetedEngineTest {};

std::string idleXml(const char* line) {
    _zrImap imap;
    MemoryLog log;
    XString xml;
    StringBuffer sb(line);
    if (!imap.parseAddIdleResponseLine(sb, xml, log)) return "<refused>";
    return xml.getUtf8();
}

}  // namespace

TEST_F(Mailbox, FamilyLinesQuoteNamesAsGiven) {
    server.expect("{tag} CREATE \"\"\r\n")
        .send("{tag} NO [ALREADYEXISTS] exists\r\n")
        .expect("{tag} DELETE \"a \"b\\c\"\r\n")
        .send("{tag} OK\r\n")
        .expect("{tag} SUBSCRIBE \"Entw&APw-rfe\"\r\n")
        .send("{tag} OK\r\n")
        .expect("{tag} UNSUBSCRIBE \"x\"\r\n")
        .send("{tag} BAD\r\n")
        .expect("{tag} RENAME \"old name\" \"new/name\"\r\n")
        .send("{tag} OK\r\n");
    start();
    ImapResultSet r1, r2, r3, r4, r5;
    ASSERT_TRUE(imap.createMailbox("", r1, log, sp));
    EXPECT_FALSE(r1.isOK(true, log));  // NO still completes the command
    EXPECT_STREQ(r1.getCommand(), "CREATE");
    ASSERT_TRUE(imap.deleteMailbox2("a \"b\\c", r2, log, sp));
    ASSERT_TRUE(imap.subscribe("Entw&APw-rfe", r3, log, sp));
    ASSERT_TRUE(imap.unsubscribe("x", r4, log, sp));
    ASSERT_TRUE(imap.renameMailbox("old name", "new/name", r5, log, sp));
    EXPECT_STREQ(r5.getCommand(), "RENAME");
    EXPECT_EQ(lastCommand(), "aaaf RENAME \"old name\" \"new/name\"");
}

TEST_F(Mailbox, SelectExamineAndTheirSessionState) {
    server.expect("{tag} SELECT \"INBOX\"\r\n")
        .send("* 172 EXISTS\r\n* 1 RECENT\r\n* OK [UIDVALIDITY 3857529045] UIDs valid\r\n{tag} OK [READ-WRITE] done\r\n")
        .expect("{tag} SELECT \"Nope\"\r\n")
        .send("{tag} NO no such mailbox\r\n")
        .expect("{tag} EXAMINE \"Archive\"\r\n")
        .send("* 3 EXISTS\r\n{tag} OK [READ-ONLY] done\r\n")
        .expect("{tag} SELECT \"Empty\"\r\n")
        .send("{tag} OK no counts at all\r\n");
    start();
    bool got = true;
    ImapResultSet r1, r2, r3, r4;
    ASSERT_TRUE(imap.selectMailbox("INBOX", false, r1, got, log, sp));
    EXPECT_TRUE(got);
    EXPECT_EQ(imap.get_NumEmailsInMailbox(), 172u);
    EXPECT_FALSE(imap.selectMailbox("Nope", false, r2, got, log, sp));
    EXPECT_TRUE(got);  // a response arrived; it was NO
    EXPECT_EQ(imap.get_NumEmailsInMailbox(), 0u);
    EXPECT_FALSE(imap.m_selectedReadOnly);
    ASSERT_TRUE(imap.selectMailbox("Archive", true, r3, got, log, sp));
    EXPECT_TRUE(imap.m_selectedReadOnly);
    imap.put_ReadOnly(false);
    EXPECT_TRUE(imap.get_ReadOnly());
    EXPECT_EQ(imap.get_NumEmailsInMailbox(), 3u);
    ASSERT_TRUE(imap.selectMailbox("Empty", false, r4, got, log, sp));
    EXPECT_FALSE(imap.m_selectedReadOnly);
    EXPECT_EQ(imap.get_NumEmailsInMailbox(), 0u);
}

TEST_F(Mailbox, StatusAndListLines) {
    server.expect("{tag} STATUS \"Missing\" (MESSAGES RECENT UIDNEXT UIDVALIDITY UNSEEN)\r\n")
        .send("{tag} NO [NONEXISTENT] Mailbox doesn't exist\r\n")
        .expect("{tag} LIST \"\" \"%\"\r\n")
        .send("* LIST (\\HasNoChildren) \"/\" INBOX\r\n{tag} OK\r\n")
        .expect("{tag} LIST \"\" \"%\"\r\n")
        .send("{tag} OK\r\n")
        .expect("{tag} LSUB \"Archive\" \"*\"\r\n")
        .send("{tag} OK\r\n");
    start();
    bool got = false;
    ImapResultSet st, l1, l2, l3;
    ASSERT_TRUE(imap.getMailboxStatus("Missing", st, got, log, sp));
    EXPECT_TRUE(got);
    EXPECT_FALSE(st.isOK(true, log));
    ASSERT_TRUE(imap.listImapMailboxes(false, "", nullptr, l1, log, sp));
    EXPECT_EQ(l1.getNumLines(), 2);
    ASSERT_TRUE(imap.listImapMailboxes(false, nullptr, "", l2, log, sp));
    ASSERT_TRUE(imap.listImapMailboxes(true, "Archive", "*", l3, log, sp));
    EXPECT_STREQ(l3.getCommand(), "LSUB");
}

TEST(IdleXml, ElementGrammar) {
    EXPECT_EQ(idleXml("* 5 FETCH (FLAGS (\\Seen) UID 99)\r\n"),
              "<flags seqnum=\"5\" uid=\"99\"><flag>\\Seen</flag></flags>");
    EXPECT_EQ(idleXml("* 12 FETCH (FLAGS (\\Seen \\Answered))\r\n"),
              "<flags seqnum=\"12\"><flag>\\Seen</flag><flag>\\Answered</flag></flags>");
    EXPECT_EQ(idleXml("* 5 FETCH (FLAGS ())\r\n"), "<flags seqnum=\"5\"></flags>");
    EXPECT_EQ(idleXml("* 5 FETCH (FLAGS (\\Flagged) UID abc)\r\n"), "<flags seqnum=\"5\"><flag>\\Flagged</flag></flags>");
    // "(FLAGS" must occur literally: FLAGS after another item is refused.
    EXPECT_EQ(idleXml("* 5 FETCH (UID 99 FLAGS (\\Seen))\r\n"), "<refused>");
    EXPECT_EQ(idleXml("* 5 FETCH (FLAGS \\Seen)\r\n"), "<refused>");
    EXPECT_EQ(idleXml("* 5 FETCH (FLAGS (\\Seen\r\n"), "<refused>");
    EXPECT_EQ(idleXml("* 3 EXPUNGE\r\n"), "<expunge>3</expunge>");
    EXPECT_EQ(idleXml("* 3 EXPUNGED\r\n"), "<expunge>3</expunge>");  // five characters decide
    EXPECT_EQ(idleXml("* 13 EXISTS\r\n"), "<exists>13</exists>");
    EXPECT_EQ(idleXml("* 2 RECENT\r\n"), "<recent>2</recent>");
    EXPECT_EQ(idleXml("* 2 EXPUNGING\r\n"), "<expunge>2</expunge>");
    EXPECT_EQ(idleXml("* 7 FOOBAR x\r\n"), "<raw>* 7 FOOBAR x\r\n</raw>");
    EXPECT_EQ(idleXml("* 7 fetch (FLAGS ())\r\n"), "<raw>* 7 fetch (FLAGS ())\r\n</raw>");
    EXPECT_EQ(idleXml("* OK Still here\r\n"), "<refused>");
    EXPECT_EQ(idleXml("* BYE\r\n"), "<refused>");
    EXPECT_EQ(idleXml("* 12EXISTS\r\n"), "<refused>");
    EXPECT_EQ(idleXml("+ idling\r\n"), "<refused>");
    EXPECT_EQ(idleXml(""), "<refused>");
    EXPECT_EQ(idleXml("*"), "<refused>");
}

TEST_F(Mailbox, IdleCheckCollectsInArrivalOrderAndEndsByTimeout) {
    server.expect("{tag} IDLE\r\n")
        .send("+ idling\r\n")
        .stall(std::chrono::milliseconds(200))
        .send("* 5 FETCH (FLAGS (\\Seen) UID 99)\r\r\n* OK Still here\r\n* 6 EXISTS\r\n\r\n* 2 EXPUNGE\r\n")
        .stall(std::chrono::milliseconds(500))
        .expect("DONE\r\n")
        .send("{tag} OK\r\n");
    start();
    ImapResultSet idle;
    ASSERT_TRUE(imap.cmdNoArgs("IDLE", idle, log, sp));
    XString xml;
    ASSERT_TRUE(imap.idleCheck(0, xml, sp, log));  // nothing there yet: at once
    EXPECT_STREQ(xml.getUtf8(), "<idle></idle>");
    ASSERT_TRUE(imap.idleCheck(3000, xml, sp, log));
    EXPECT_STREQ(xml.getUtf8(),
                 "<idle><flags seqnum=\"5\" uid=\"99\"><flag>\\Seen</flag></flags><exists>6</exists>"
                 "<expunge>2</expunge></idle>");
    EXPECT_EQ(*log.firstData("idleResponseParseError"), "* OK Still here\r\n");
    ASSERT_TRUE(imap.idleCheck(100, xml, sp, log));  // a quiet wait also ends with true
    EXPECT_STREQ(xml.getUtf8(), "<idle></idle>");
    ImapResultSet done;
    ASSERT_TRUE(imap.cmdNoArgs("DONE", done, log, sp));
}

TEST_F(Mailbox, IdleCheckOnALostConnectionStillClosesTheDocument) {
    server.expect("{tag} IDLE\r\n").send("+ idling\r\n").closeAfter("* 4 EXISTS\r\n* 5 EXI", 19);
    start();
    ImapResultSet idle;
    ASSERT_TRUE(imap.cmdNoArgs("IDLE", idle, log, sp));
    XString xml;
    EXPECT_FALSE(imap.idleCheck(2000, xml, sp, log));
    EXPECT_STREQ(xml.getUtf8(), "<idle><exists>4</exists></idle>");
    EXPECT_TRUE(server.finish()) << server.report();
    _zrImap unconnected;
    EXPECT_FALSE(unconnected.idleCheck(0, xml, sp, log));
    EXPECT_STREQ(xml.getUtf8(), "<idle></idle>");
}
