// Flag stores, COPY/MOVE, SEARCH/SORT/THREAD, APPEND and the small FETCH
// commands against a scripted server.
#include <chrono>
#include <string>

#include "EngineTest.h"

using namespace zr;
using namespace zr::test;

namespace {

class MessageOps : public GreetedEngineTest {};

}  // namespace

TEST_F(MessageOps, FlagNamesAreNormalisedAndSetsSentAsGiven) {
    server.expect("{tag} STORE 1 +FLAGS.SILENT (\\Seen)\r\n").send("{tag} OK\r\n")
        .expect("{tag} UID STORE 4:7 -FLAGS.SILENT (\\seen)\r\n").send("{tag} OK\r\n")
        .expect("{tag} STORE 1 +FLAGS.SILENT (\\Answered)\r\n").send("{tag} OK\r\n")
        .expect("{tag} STORE 1 +FLAGS.SILENT ($Forwarded)\r\n").send("{tag} OK\r\n")
        .expect("{tag} STORE 1 +FLAGS.SILENT (Junk)\r\n").send("{tag} NO no keywords\r\n")
        .expect("{tag} STORE  1:5 +FLAGS.SILENT (\\Flagged)\r\n").send("{tag} OK\r\n")
        .expect("{tag} UID STORE 0 +FLAGS.SILENT (\\Draft)\r\n").send("{tag} OK\r\n");
    start();
    ImapResultSet rs[9];
    EXPECT_TRUE(imap.setFlagForMsgSet("1", false, true, " Seen", rs[0], log, sp));
    EXPECT_TRUE(imap.setFlagForMsgSet("4:7", true, false, "seen", rs[1], log, sp));  // the caller's case is kept
    EXPECT_TRUE(imap.setFlagForMsgSet("1", false, true, "\\Answered", rs[2], log, sp));
    EXPECT_TRUE(imap.setFlagForMsgSet("1", false, true, "$Forwarded", rs[3], log, sp));
    EXPECT_TRUE(imap.setFlagForMsgSet("1", false, true, "Junk", rs[4], log, sp));  // NO: still a complete exchange
    EXPECT_FALSE(rs[4].isOK(true, log));
    EXPECT_TRUE(imap.setFlagForMsgSet(" 1:5", false, true, "Flagged", rs[5], log, sp));
    EXPECT_TRUE(imap.setFlag_u(0, true, true, "Draft", rs[6], log, sp));
    EXPECT_STREQ(rs[6].getCommand(), "STORE");
    EXPECT_EQ(lastCommand(), "aaah UID STORE 0 +FLAGS.SILENT (\\Draft)");
    // Refused before anything is sent.
    EXPECT_FALSE(imap.setFlagForMsgSet("1", false, true, nullptr, rs[7], log, sp));
    EXPECT_TRUE(log.hasError("NULL flag name"));
    EXPECT_FALSE(imap.setFlagForMsgSet("  ", false, true, "Seen", rs[8], log, sp));
    EXPECT_TRUE(log.hasError("Empty message set"));
}

TEST_F(MessageOps, RawFlagListsAndDeleteShortcuts) {
    server.expect("{tag} UID STORE 42 -FLAGS.SILENT (\\Seen $Label1)\r\n").send("{tag} OK\r\n")
        .expect("{tag} STORE 3 +FLAGS (\\Deleted)\r\n")
        .send("* 3 FETCH (FLAGS (\\Deleted))\r\n{tag} OK\r\n")
        .expect("{tag} UID STORE 99 +FLAGS (\\Deleted)\r\n")
        .send("{tag} OK left unread\r\n");
    start();
    ImapResultSet a, b, c;
    EXPECT_TRUE(imap.storeFlags_u(42, true, false, "\\Seen $Label1", a, log, sp));
    EXPECT_TRUE(imap.setDeleteFlag_u(3, b, log, sp));
    EXPECT_EQ(b.getNumLines(), 2);  // the non-silent form brings the FETCH back
    EXPECT_EQ(lastCommand(), "aaac STORE 3 +FLAGS (\\Deleted)");
    events.abortNow = true;
    EXPECT_FALSE(imap.uidSetDeleteFlag_u(99, c, log, sp));
    EXPECT_TRUE(log.hasInfo("IMAP set delete flag aborted by application"));
    EXPECT_EQ(c.getNumLines(), 0);
    SocketParams fresh(nullptr);  // an abort stays latched in its monitor
    StringBuffer line;
    ASSERT_TRUE(imap.getServerResponseLine2(line, log, fresh));
    EXPECT_STREQ(line.getString(), "aaad OK left unread\r\n");
}

TEST_F(MessageOps, CopyAndMove) {
    server.expect("{tag} UID COPY 42 \"Archive\"\r\n").send("{tag} OK [COPYUID 1 42 7] done\r\n")
        .expect("{tag} COPY  \"x\"\r\n").send("{tag} BAD empty set\r\n")
        .expect("{tag} UID MOVE 1:3 \"Old Stuff\"\r\n").send("{tag} BAD unknown command\r\n");
    start();
    ImapResultSet a, b, c;
    EXPECT_TRUE(imap.copy_u(42, true, "Archive", a, log, sp));
    EXPECT_EQ(*log.firstData("Command"), "aaab UID COPY 42 \"Archive\"");
    EXPECT_TRUE(imap.copySet("", false, "x", b, log, sp));
    EXPECT_TRUE(imap.moveMessages("1:3", true, "Old Stuff", c, log, sp));
    EXPECT_STREQ(c.getCommand(), "MOVE");
    EXPECT_FALSE(c.isOK(true, log));
}

TEST_F(MessageOps, SearchSortThreadLines) {
    server.expect("{tag} UID SEARCH CHARSET utf-8 FROM x\r\n").send("* SEARCH 4 9\r\n{tag} OK\r\n")
        .expect("{tag} SEARCH ALL\r\n").send("* SEARCH 1 2 {tag} OK SEARCH completed\r\n")
        .expect("{tag} SORT (REVERSE DATE) UTF-8 ALL\r\n").send("* SORT 3 1\r\n{tag} OK\r\n")
        .expect("{tag} THREAD REFERENCESUTF-8 ALL\r\n").send("* THREAD (1)(2 3)\r\n{tag} OK\r\n")
        .expect("{tag} SORT (DATE)UTF-8\r\n").send("{tag} BAD\r\n")
        .expect("{tag} search unseen\r\n").send("{tag} OK\r\n");
    start();
    ImapResultSet r[6];
    EXPECT_TRUE(imap.searchOrSortImap(true, "SEARCH", " utf-8 ", nullptr, "FROM x", r[0], log, sp));
    EXPECT_TRUE(imap.searchOrSortImap(false, "SEARCH", "  ", "ignored", "ALL", r[1], log, sp));
    ASSERT_EQ(r[1].getNumLines(), 2);  // the status rode on the SEARCH line
    EXPECT_STREQ(r[1].getLine(0), "* SEARCH 1 2");
    EXPECT_STREQ(r[1].getLine(1), "OK SEARCH completed");
    EXPECT_TRUE(log.hasInfo("Splitting the status from the SEARCH response."));
    EXPECT_TRUE(r[1].isOK(true, log));
    EXPECT_TRUE(imap.searchOrSortImap(false, "SORT", "utf-8", "REVERSE DATE", "ALL", r[2], log, sp));
    EXPECT_TRUE(imap.searchOrSortImap(false, "THREAD", nullptr, "REFERENCES", "ALL", r[3], log, sp));
    EXPECT_TRUE(imap.searchOrSortImap(false, "SORT", "", "DATE", "", r[4], log, sp));
    EXPECT_TRUE(imap.searchOrSortImap(false, "search", nullptr, nullptr, "unseen", r[5], log, sp));
    EXPECT_STREQ(r[5].getCommand(), "search");
    EXPECT_EQ(*log.lastData("Command"), "aaag search unseen");
}

TEST_F(MessageOps, SlowSearchExplainsTheTimeout) {
    imap.put_ReadTimeout(1);
    server.expect("{tag} SEARCH ALL\r\n").stall(std::chrono::milliseconds(1500));
    start();
    ImapResultSet rs;
    EXPECT_FALSE(imap.searchOrSortImap(false, "SEARCH", nullptr, nullptr, "ALL", rs, log, sp));
    EXPECT_TRUE(sp.timeoutIsFailure);  // restored
    EXPECT_FALSE(log.hasError("Failed to get next response line from IMAP server."));
    EXPECT_TRUE(log.hasError("Try increasing the value of the Imap.ReadTimeout property."));
}

TEST_F(MessageOps, AppendRepairsDatesAndSendsTheTrimmedMessage) {
    const std::string mime = "Subject: hi\r\n\r\nbody";  // 19 octets once trimmed
    server.expect("{tag} APPEND \"INBOX\" (\\Seen \\Flagged \\Draft) \" 1-Jan-2024 10:00:00 +0000\" {21}\r\n")
        .send("+ Ready for literal data\r\n")
        .expectRaw(mime + "\r\n\r\n")
        .send("{tag} OK [APPENDUID 1 5] done\r\n")
        .expect("{tag} APPEND \"Sent\" \"Mon, 1 Jan 2024 10:00:00 +0000 +0000\" {21}\r\n")
        .send("* 3 EXISTS\r\n")  // not a "+", still the go-ahead
        .expectRaw(mime + "\r\n\r\n")
        .send("{tag} OK\r\n")
        .expect("{tag} APPEND \"Drafts\" {21}\r\n")
        .send("{tag} OK no literal wanted\r\n")
        .expect("{tag} APPEND \"X\" (\\Deleted \\Answered) {21}\r\n")
        .send("{tag} BAD Command received in Invalid state.\r\n");
    start();
    ExtPtrArraySb c1, c2, c3, c4;
    ImapResultSet r1, r2, r3, r4;
    const std::string padded = "\r\n  " + mime + "\r\n\r\n\r\n";
    ASSERT_TRUE(imap.appendMime("INBOX", padded.c_str(), "1-Jan-2024 10:00:00 GMT", true, false, true, false, true,
                                c1, r1, log, sp));
    ASSERT_EQ(c1.getSize(), 1);
    EXPECT_STREQ(c1.sbAt(0)->getString(), "aaab OK [APPENDUID 1 5] done\r\n");
    EXPECT_EQ(r1.getNumLines(), 0);  // the completion goes to completionLines
    StringBuffer sb;
    imap.getLastAppendedMime(sb);
    EXPECT_EQ(std::string(sb.getString()), mime);
    imap.getLastIntermediateResponse(sb);
    EXPECT_STREQ(sb.getString(), "+ Ready for literal data\r\n");
    EXPECT_EQ(lastCommand(), "aaab APPEND \"INBOX\" (\\Seen \\Flagged \\Draft) \" 1-Jan-2024 10:00:00 +0000\" {21}");

    ASSERT_TRUE(imap.appendMime("Sent", mime.c_str(), "Mon, 1 Jan 2024 10:00:00 +0000 (GMT)", false, false, false,
                                false, false, c2, r2, log, sp));
    EXPECT_TRUE(imap.appendMime("Drafts", mime.c_str(), "1-Jan-24", false, false, false, false, false, c3, r3, log, sp));
    EXPECT_EQ(*log.lastData("invalidDate"), "1-Jan-24");
    EXPECT_FALSE(imap.appendMime("X", mime.c_str(), nullptr, false, true, false, true, false, c4, r4, log, sp));
    EXPECT_TRUE(log.hasError("Check to make sure the session is in the authenticated state.  It may be that the "
                             "login never happened or failed."));
}

TEST_F(MessageOps, AppendToACertifiedMailProviderWaitsForANoop) {
    _zrSettings::m_certifiedMailProviderDomain = "127.0.0";
    server.expect("{tag} APPEND \"INBOX\" {3}\r\n")
        .send("+ go\r\n")
        .expectRaw("x\r\n\r\n")
        .expect("{tag} NOOP\r\n")
        .send("aaab NO storage quota\r\n{tag} OK\r\n");
    start();
    ExtPtrArraySb lines;
    ImapResultSet rs;
    EXPECT_TRUE(imap.appendMime("INBOX", "x", "", false, false, false, false, false, lines, rs, log, sp));
    _zrSettings::m_certifiedMailProviderDomain = "";
    EXPECT_STREQ(lines.sbAt(0)->getString(), "aaab NO storage quota\r\n");  // the NOOP's answer decided
}

TEST_F(MessageOps, SmallFetches) {
    server.expect("{tag} UID FETCH 7 (FLAGS)\r\n").send("* 1 FETCH (UID 7 FLAGS (\\Seen))\r\n{tag} OK\r\n")
        .expect("{tag} UID FETCH 1:* (FLAGS)\r\n").send("{tag} OK\r\n")
        .expect("{tag} FETCH 2:4 (UID RFC822.SIZE)\r\n")
        .send("* 2 FETCH (UID 9 BODY[HEADER.FIELDS (SUBJECT)] {10}\r\nSubject: x)\r\n{tag} OK\r\n")
        .expect("{tag} UID FETCH -1294967296 (UID)\r\n").send("{tag} BAD\r\n")
        .expect("{tag} FETCH 5 (FLAGS)\r\n").send("{tag} OK unread\r\n");
    start();
    ImapResultSet a, b, c, d, e;
    EXPECT_TRUE(imap.fetchFlags_u(7, true, a, log, sp));
    EXPECT_TRUE(imap.fetchAllFlags(b, log, sp));
    EXPECT_EQ(lastCommand(), "aaac UID FETCH 1:* (FLAGS)");
    EXPECT_TRUE(imap.fetchMultipleSummaries("2:4", false, "(UID RFC822.SIZE)", c, log, sp));
    ASSERT_EQ(c.getNumLines(), 2);  // the literal stays with its line
    EXPECT_STREQ(c.getLine(0), "* 2 FETCH (UID 9 BODY[HEADER.FIELDS (SUBJECT)] {10}\r\nSubject: x)\r\n");
    EXPECT_TRUE(imap.fetchSummary_u(3000000000u, true, "(UID)", d, log, sp));
    events.abortNow = true;
    EXPECT_FALSE(imap.fetchFlags_u(5, false, e, log, sp));
    EXPECT_TRUE(log.hasInfo("IMAP fetch flags aborted by application"));
}
