// The fetch engine against a scripted server: flag sets, FETCH-line parsing,
// whole-message download, the strategy, the download without attachments
// with its reassembly, single parts, and hostile literal sizes.
#include <array>
#include <string>

#include "EngineTest.h"

using namespace zr;
using namespace zr::test;

namespace {

std::string str(const DataBuffer& db) {
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}

std::string flagsOf(ImapFlags& f) {
    StringBuffer sb;
    f.getAllFlags(sb);
    return sb.getString();
}

std::string lit(const std::string& bytes) { return "{" + std::to_string(bytes.size()) + "}\r\n" + bytes; }

const std::string kTopHeader = "Subject: hi\r\nContent-Type: multipart/mixed; boundary=\"XX\"\r\n\r\n";
const std::string kPartMime = "Content-Type: text/plain\r\n\r\n";

class Fetch : public GreetedEngineTest {
protected:
    ImapFlags flags;
    StringBuffer internalDate, responseText;
    DataBuffer mime;
    bool ok = true;

    bool fetchWhole(unsigned id, bool uid) {
        return imap.fetchCompleteWithAttachments_u(id, uid, flags, internalDate, responseText, mime, ok, sp, log);
    }
    bool fetchWithout(ImapMsgSummary& s, unsigned id = 7) {
        return imap.fetchCompleteWithoutAttachments_u(id, true, s, flags, internalDate, responseText, mime, ok, sp,
                                                      log);
    }
};

// A loaded summary whose first entries are the given type/subtype pairs.
void summaryOf(ImapMsgSummary& s, std::initializer_list<std::array<const char*, 3>> parts, int attachments) {
    for (const auto& p : parts) {
        auto* part = new ImapMsgPart;
        part->m_partId.setString(p[0]);
        part->m_contentType.setString(p[1]);
        part->m_subType.setString(p[2]);
        s.appendPart(part);
    }
    s.m_numAttachments = attachments;
    s.m_loaded = 1;
}

}  // namespace

TEST(ImapFlagsSet, CaseInsensitiveSetKeepsFirstSpelling) {
    ImapFlags f;
    f.setFlag("\\Seen");
    f.setFlag("\\SEEN");
    f.setFlag("$Label1");
    EXPECT_EQ(flagsOf(f), "\\Seen $Label1");
    EXPECT_TRUE(f.isFlagSet("\\seen"));
    f.clearFlag("\\seen");
    EXPECT_FALSE(f.isFlagSet("\\Seen"));
    StringBuffer list("\\Seen \\Seen  x");
    f.setFlags(list);  // bulk load keeps duplicates and the empty word
    EXPECT_EQ(f.getNumFlags(), 4);
    f.clearFlag("\\Seen");
    EXPECT_EQ(flagsOf(f), "\\Seen  x");
    StringBuffer out("a");
    ImapFlags empty;
    empty.getAllFlags(out);
    EXPECT_STREQ(out.getString(), "a");
    StringBuffer none("");
    empty.setFlags(none);
    EXPECT_EQ(empty.getNumFlags(), 0);
}

TEST(FlagsAndSize, TakesFlagsDateAndTheFirstLiteral) {
    _zrImap imap;
    MemoryLog log;
    ImapFlags f;
    StringBuffer date;
    unsigned size = 99;
    StringBuffer a(
        "* 12 FETCH (FLAGS (\\Seen $Label1) INTERNALDATE \"17-Jul-1996 02:44:25 -0700\" BODY[] {3417}\r\n");
    ASSERT_TRUE(imap.parseFlagsAndSize(a, size, f, date, log));
    EXPECT_EQ(size, 3417u);
    EXPECT_EQ(flagsOf(f), "\\Seen $Label1");
    EXPECT_STREQ(date.getString(), "17-Jul-1996 02:44:25 -0700");
    StringBuffer b("* 12 FETCH (FLAGS () BODY[] {0}");
    ASSERT_TRUE(imap.parseFlagsAndSize(b, size, f, date, log));
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(f.getNumFlags(), 0);
    StringBuffer c("* 12 FETCH (FLAGS (\\Seen) BODY[] NIL)");
    ASSERT_TRUE(imap.parseFlagsAndSize(c, size, f, date, log));
    EXPECT_TRUE(log.hasInfo("Body size is 0 bytes."));
    StringBuffer d("* 12 FETCH (BODY[] {x}");
    EXPECT_FALSE(imap.parseFlagsAndSize(d, size, f, date, log));
    EXPECT_TRUE(log.hasError("Failed to parse message size"));
    StringBuffer e("* 1 FETCH (INTERNALDATE\t\"1-Jan-2024 00:00:00 +0000\" BODY[] {5} FLAGS (\\Deleted)");
    ASSERT_TRUE(imap.parseFlagsAndSize(e, size, f, date, log));
    EXPECT_STREQ(date.getString(), "1-Jan-2024 00:00:00 +0000");
    EXPECT_EQ(f.getNumFlags(), 0);  // FLAGS after the "{" is not read here
    StringBuffer g("* 1 FETCH (BODY[] {-1}");
    ASSERT_TRUE(imap.parseFlagsAndSize(g, size, f, date, log));
    EXPECT_EQ(size, 4294967295u);
    // A NUL could hide the literal from the reader: refused outright.
    using namespace std::string_literals;
    const std::string withNul = "* 1 FETCH (FLAGS (\\Seen)\0 BODY[] {5}\r\n"s;
    StringBuffer n;
    n.appendN(withNul.data(), static_cast<unsigned>(withNul.size()));
    EXPECT_FALSE(imap.parseFlagsAndSize(n, size, f, date, log));
    EXPECT_EQ(size, 0u);
    EXPECT_TRUE(log.hasError("The FETCH response contains a NUL byte."));
}

TEST_F(Fetch, WholeMessageInEveryFragmentation) {
    const std::string message = "Subject: x\r\n\r\nhello world\r\n";
    const std::string reply = "* 5 FETCH (FLAGS () INTERNALDATE \"1-Jan-2024 10:00:00 +0000\" BODY[] " + lit(message) +
                              " FLAGS (\\Seen))\r\n{tag} OK FETCH completed\r\n";
    for (const auto& mode : ScriptedServer::Mode::allFor(60)) {
        ScriptedServer s;
        s.setMode(mode).send("* OK\r\n").expect("{tag} UID FETCH 4711 (FLAGS INTERNALDATE BODY[])\r\n").send(reply);
        s.start();
        _zrImap engine;
        ASSERT_TRUE(engine.connectToImapServer(StringBuffer("127.0.0.1"), s.port(), greeting, tls, sp, log));
        ASSERT_TRUE(engine.fetchCompleteWithAttachments_u(4711, true, flags, internalDate, responseText, mime, ok, sp,
                                                          log))
            << mode.name() << log.toText();
        EXPECT_TRUE(ok);
        EXPECT_EQ(str(mime), message) << mode.name();
        EXPECT_EQ(flagsOf(flags), "\\Seen") << mode.name();  // the flags after the literal win
        EXPECT_STREQ(internalDate.getString(), "1-Jan-2024 10:00:00 +0000");
        EXPECT_EQ(std::string(responseText.getString()).find("hello"), std::string::npos);  // literal excluded
        EXPECT_TRUE(s.finish()) << s.report();
    }
}

TEST_F(Fetch, WholeMessageShapes) {
    imap.m_keepSessionLog = true;
    server.expect("{tag} FETCH 3 (FLAGS INTERNALDATE BODY.PEEK[])\r\n")
        .send("* 3 FETCH (FLAGS (\\Seen) RFC822 " + lit("abc") + ")\r\n{tag} OK\r\n")
        .expect("{tag} FETCH 4 (FLAGS INTERNALDATE BODY.PEEK[])\r\n")
        .send("{tag} OK FETCH completed\r\n")
        .expect("{tag} FETCH 5 (FLAGS INTERNALDATE BODY.PEEK[])\r\n")
        .send("* 5 FETCH (BODY[] {0}\r\n)\r\n{tag} NO gone\r\n")
        .expect("{tag} FETCH 6 (FLAGS INTERNALDATE BODY.PEEK[])\r\n")
        .send("* 6 FETCH (FLAGS (\\Seen) BODY[] NIL)\r\n{tag} OK\r\n")
        .expect("{tag} FETCH 7 (FLAGS INTERNALDATE BODY.PEEK[])\r\n")
        .send("* 7 FETCH (BODY[] " + lit("xy") + ")\r\n{tag} OK\r\n" + std::string(200, 'z') + "\r\n");
    start();
    imap.put_ReadOnly(true);  // never mark \Seen from a read-only engine
    EXPECT_TRUE(fetchWhole(3, false));  // RFC822 instead of BODY[]
    EXPECT_EQ(str(mime), "abc");
    EXPECT_NE(std::string(imap.m_sessionLog.getString()).find("(3 bytes)\r\n"), std::string::npos);
    EXPECT_FALSE(fetchWhole(4, false));
    EXPECT_FALSE(ok);
    EXPECT_TRUE(log.hasError("No email received.  No email exists with the given UID or sequence number."));
    EXPECT_FALSE(fetchWhole(5, false));  // {0}: nothing read, the NO decides
    EXPECT_EQ(mime.getSize(), 0u);
    EXPECT_TRUE(fetchWhole(6, false));   // NIL body: empty, OK
    EXPECT_EQ(mime.getSize(), 0u);
    EXPECT_TRUE(fetchWhole(7, false));
    EXPECT_EQ(str(mime), "xy");
    StringBuffer line;  // the surplus after the completion is the next line
    ASSERT_TRUE(imap.getServerResponseLine2(line, log, sp));
    EXPECT_EQ(std::string(line.getString()), std::string(200, 'z') + "\r\n");
}

TEST_F(Fetch, StrategyFollowsTheSummary) {
    // With attachments downloaded, no structure is asked for.
    server.expect("{tag} UID FETCH 7 (FLAGS INTERNALDATE BODY[])\r\n")
        .send("* 1 FETCH (BODY[] " + lit("m1") + ")\r\n{tag} OK\r\n")
        // A related root with attachments: whole download after the warning.
        .expect("{tag} UID FETCH 7 (FLAGS INTERNALDATE BODY[])\r\n")
        .send("* 1 FETCH (BODY[] " + lit("m2") + ")\r\n{tag} OK\r\n")
        // Mixed (any case): header plus part 1.
        .expect("{tag} UID FETCH 7 (FLAGS INTERNALDATE BODY[HEADER] BODY[1.MIME] BODY[1])\r\n")
        .send("* 1 FETCH (BODY[HEADER] " + lit(kTopHeader) + " BODY[1.MIME] " + lit(kPartMime) + " BODY[1] " +
              lit("Hi") + ")\r\n{tag} OK\r\n");
    start();
    ImapMsgSummary related, mixed;
    summaryOf(related, {{"", "multipart", "related"}, {"1", "text", "html"}}, 1);
    summaryOf(mixed, {{"", "MULTIPART", "Mixed"}, {"1", "text", "plain"}}, 1);
    EXPECT_TRUE(imap.fetchComplete_u(7, true, nullptr, flags, internalDate, responseText, mime, ok, sp, log));
    EXPECT_EQ(str(mime), "m1");
    imap.m_autoDownloadAttachments = false;
    EXPECT_TRUE(imap.fetchComplete_u(7, true, &related, flags, internalDate, responseText, mime, ok, sp, log));
    EXPECT_TRUE(log.hasError("This message contains attachments but is structured in an unusual way.  The full "
                             "email will be downloaded..."));
    EXPECT_TRUE(imap.fetchComplete_u(7, true, &mixed, flags, internalDate, responseText, mime, ok, sp, log));
    EXPECT_EQ(str(mime), kTopHeader + "--XX\r\n" + kPartMime + "Hi\r\n--XX--\r\n");
}

TEST_F(Fetch, WithoutAttachmentsAcceptsEveryShape) {
    imap.m_keepSessionLog = true;
    const std::string head = "* 3 FETCH (FLAGS (\\Seen) BODY[HEADER] " + lit(kTopHeader);
    server.expect("{tag} UID FETCH 7 (FLAGS INTERNALDATE BODY[HEADER] BODY[1.MIME] BODY[1])\r\n")
        .send(head + " BODY[1.MIME] " + lit(kPartMime) + " BODY[1] " + lit("Hi\r\n") + ")\r\n{tag} OK\r\n")
        .expect("{tag} UID FETCH 7 (FLAGS INTERNALDATE BODY[HEADER] BODY[1.MIME] BODY[1])\r\n")
        .send(head + " BODY[1.MIME] NIL BODY[1] NIL)\r\n{tag} OK\r\n")
        .expect("{tag} UID FETCH 7 (FLAGS INTERNALDATE BODY[HEADER] BODY[1.MIME] BODY[1])\r\n")
        .send(head + " BODY[1] \"quoted body\" BODY[1.MIME] " + lit(kPartMime) + ")\r\n{tag} OK\r\n")
        .expect("{tag} UID FETCH 7 (FLAGS INTERNALDATE BODY[HEADER] BODY[1.MIME] BODY[1])\r\n")
        .send(head + " BODY[1.MIME] {0}\r\n BODY[1] NIL UID 17)\r\n{tag} OK\r\n")
        .expect("{tag} UID FETCH 7 (FLAGS INTERNALDATE BODY[HEADER] BODY[1.MIME] BODY[1])\r\n")
        .send(head + " BODY[1] ATOM)\r\n");
    start();
    ImapMsgSummary s;
    summaryOf(s, {{"", "multipart", "mixed"}, {"1", "text", "plain"}}, 1);
    ASSERT_TRUE(fetchWithout(s)) << log.toText();
    EXPECT_EQ(str(mime), kTopHeader + "--XX\r\n" + kPartMime + "Hi\r\n--XX--\r\n");
    EXPECT_EQ(flagsOf(flags), "\\Seen");
    ASSERT_TRUE(fetchWithout(s)) << log.toText();  // empty part, closing seen on the NIL line
    EXPECT_EQ(str(mime), kTopHeader + "--XX\r\n--XX--\r\n");
    ASSERT_TRUE(fetchWithout(s)) << log.toText();  // MIME after a quoted body
    EXPECT_EQ(str(mime), kTopHeader + "--XX\r\n" + kPartMime + "quoted body\r\n--XX--\r\n");
    ASSERT_TRUE(fetchWithout(s)) << log.toText();  // closing seen through the UID form
    EXPECT_NE(std::string(imap.m_sessionLog.getString()).find("(0 bytes)\r\n"), std::string::npos);
    EXPECT_FALSE(fetchWithout(s));
    EXPECT_TRUE(log.hasError("Error parsing BODY[part] response line"));
}

TEST_F(Fetch, WithoutAttachmentsPicksTheInnerPartOfAWrappedMessage) {
    server.expect("{tag} UID FETCH 7 (FLAGS INTERNALDATE BODY.PEEK[HEADER] BODY.PEEK[1.2.MIME] BODY.PEEK[1.2])\r\n")
        .send("* 1 FETCH (BODY[HEADER] " + lit(kTopHeader) + " BODY[1.2] " + lit("inner") + " BODY[1.2.MIME] " +
              lit(kPartMime) + ")\r\n{tag} OK\r\n");
    start();
    imap.m_selectedReadOnly = true;
    ImapMsgSummary s;
    summaryOf(s, {{"", "multipart", "mixed"}, {"1", "message", "rfc822"}, {"1.1", "text", "html"},
                  {"1.2", "text", "plain"}, {"2", "application", "pdf"}},
              2);
    ASSERT_TRUE(fetchWithout(s)) << log.toText();
    EXPECT_EQ(str(mime), kTopHeader + "--XX\r\n" + kPartMime + "inner\r\n--XX--\r\n");
}

TEST(Reassembly, JoinsHeaderPartHeaderAndBody) {
    _zrImap imap;
    MemoryLog log;
    DataBuffer top, partMime, body, out;
    top.appendStr("Content-Type: multipart/alternative;\r\n boundary=\"  XX \"\r\n\r\n");
    partMime.appendStr("\r\n\r\nContent-Type: text/plain\r\n\r\n");
    body.appendStr("Hi\r\n");
    ASSERT_TRUE(imap.combineFetchParts(top, partMime, body, out, log));
    EXPECT_EQ(str(out), str(top) + "--XX\r\nContent-Type: text/plain\r\n\r\nHi\r\n--XX--\r\n");
    EXPECT_EQ(str(partMime), "Content-Type: text/plain\r\n\r\n");  // leading blank lines gone
    DataBuffer empty1, empty2, out2;
    ASSERT_TRUE(imap.combineFetchParts(top, empty1, empty2, out2, log));
    EXPECT_EQ(str(out2), str(top) + "--XX\r\n--XX--\r\n");

    DataBuffer noType, noBoundary, out3;
    noType.appendStr("Subject: x\r\n\r\n");
    EXPECT_FALSE(imap.combineFetchParts(noType, empty1, empty2, out3, log));
    EXPECT_TRUE(log.hasError("Failed to get content-type header."));
    EXPECT_EQ(str(noType), "Subject: x\r\n\r\n");  // the parsing terminator was taken off again
    noBoundary.appendStr("Content-Type: text/plain\r\n\r\n");
    EXPECT_FALSE(imap.combineFetchParts(noBoundary, empty1, empty2, out3, log));
    EXPECT_TRUE(log.hasError("Failed to get boundary subfield."));
    EXPECT_EQ(out3.getSize(), 0u);
}

TEST_F(Fetch, SinglePartsComeBackAsSent) {
    server.expect("{tag} UID FETCH 9 (BODY[2])\r\n")
        .send("* 9 FETCH (BODY[2] {4}\r\nabcd FLAGS (\\Seen))\r\n{tag} OK\r\n")
        .expect("{tag} UID FETCH 9 (BODY[3])\r\n")
        .send("* 9 FETCH (BODY[3] NIL)\r\n{tag} OK\r\n")
        .expect("{tag} UID FETCH 9 (BODY[4])\r\n")
        .send("* 9 FETCH (BODY[4] {0}\r\n)\r\n{tag} OK\r\n")
        .expect("{tag} UID FETCH 9 (BODY[5])\r\n")
        .send("{tag} NO no such part\r\n");
    start();
    DataBuffer data;
    ASSERT_TRUE(imap.fetchAttachment_u(9, true, "2", responseText, data, ok, sp, log)) << log.toText();
    EXPECT_EQ(str(data), "abcd");
    EXPECT_FALSE(imap.fetchAttachment_u(9, true, "3", responseText, data, ok, sp, log));
    EXPECT_TRUE(log.hasError("Failed to find attachment size in response."));
    StringBuffer rest;  // the NIL form leaves its completion unread
    ASSERT_TRUE(imap.getServerResponseLine2(rest, log, sp));
    EXPECT_TRUE(imap.fetchAttachment_u(9, true, "4", responseText, data, ok, sp, log));
    EXPECT_EQ(data.getSize(), 0u);
    EXPECT_FALSE(imap.fetchAttachment_u(9, true, "5", responseText, data, ok, sp, log));
    EXPECT_EQ(*log.lastData("fetchCommand"), "aaae UID FETCH 9 (BODY[5])");
}

TEST_F(Fetch, StrategyFetchesTheStructureWhenItHasNone) {
    // Sequence number 0 is refused before anything is sent; UID 0 is let through.
    ImapMsgSummary zero;
    EXPECT_FALSE(imap.fetchMsgSummary_u(0, false, "(UID BODYSTRUCTURE)", zero, sp, log));
    EXPECT_TRUE(log.hasError("Invalid sequence number.  IMAP sequence numbers begin at 1 (not 0)."));
    const std::string alternative =
        "(\"TEXT\" \"PLAIN\" (\"CHARSET\" \"us-ascii\") NIL NIL \"7BIT\" 5 1 NIL NIL NIL)"
        "(\"TEXT\" \"HTML\" (\"CHARSET\" \"us-ascii\") NIL NIL \"7BIT\" 12 1 NIL NIL NIL) \"ALTERNATIVE\"";
    // An alternative with a named part: one attachment, text second, so the
    // part is fetched alone. The structure's name arrives as a literal.
    server.expect("{tag} UID FETCH 0 (UID BODYSTRUCTURE)\r\n")
        .send("{tag} NO no such message\r\n")
        .expect("{tag} UID FETCH 8 (UID BODYSTRUCTURE)\r\n")
        .send("* 1 FETCH (UID 8 BODYSTRUCTURE ((\"TEXT\" \"PLAIN\" (\"CHARSET\" \"us-ascii\") NIL NIL \"7BIT\" 5 1 NIL "
              "NIL NIL)(\"APPLICATION\" \"PDF\" (\"NAME\" {4}\r\na\"(b) NIL NIL \"BASE64\" 12 NIL (\"ATTACHMENT\" "
              "(\"FILENAME\" \"a.pdf\")) NIL) \"ALTERNATIVE\"))\r\n{tag} OK\r\n")
        .expect("{tag} UID FETCH 8 (FLAGS INTERNALDATE BODY[HEADER] BODY[1.MIME] BODY[1])\r\n")
        .send("* 1 FETCH (BODY[HEADER] " + lit(kTopHeader) + " BODY[1.MIME] NIL BODY[1] " + lit("Hi") +
              ")\r\n{tag} OK\r\n")
        // No attachment in the structure: the whole message.
        .expect("{tag} UID FETCH 9 (UID BODYSTRUCTURE)\r\n")
        .send("* 2 FETCH (UID 9 BODYSTRUCTURE (" + alternative + "))\r\n{tag} OK\r\n")
        .expect("{tag} UID FETCH 9 (FLAGS INTERNALDATE BODY[])\r\n")
        .send("* 2 FETCH (BODY[] " + lit("whole") + ")\r\n{tag} OK\r\n");
    start();
    EXPECT_FALSE(imap.fetchMsgSummary_u(0, true, "(UID BODYSTRUCTURE)", zero, sp, log));
    EXPECT_TRUE(log.hasError("Non-OK response."));
    imap.m_autoDownloadAttachments = false;
    ImapMsgSummary kept;
    ASSERT_TRUE(imap.fetchComplete_u(8, true, &kept, flags, internalDate, responseText, mime, ok, sp, log))
        << log.toText();
    EXPECT_EQ(str(mime), kTopHeader + "--XX\r\nHi\r\n--XX--\r\n");
    EXPECT_NE(kept.m_loaded, 0);  // the caller's summary was filled and can be reused
    EXPECT_STREQ(kept.findMsgPart("2")->m_name.getString(), "a\"(b");
    ASSERT_TRUE(imap.fetchComplete_u(9, true, nullptr, flags, internalDate, responseText, mime, ok, sp, log));
    EXPECT_EQ(str(mime), "whole");
}
