// The engine core against a scripted server: what goes on the wire, what
// comes back in the result set, the session log and the failure paths.
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>

#include "EngineTest.h"

using namespace zr;
using namespace zr::test;

namespace {

std::vector<std::string> linesOf(const ImapResultSet& rs) {
    std::vector<std::string> out;
    for (int i = 0; i < rs.getNumLines(); ++i) out.push_back(rs.getLine(i));
    return out;
}

class EngineCore : public EngineTest {};

using Clock = std::chrono::steady_clock;
long msSince(Clock::time_point t) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

}  // namespace

TEST(EngineTags, OdometerOverTheWholeCycle) {
    _zrImap imap;
    StringBuffer tag;
    imap.getNextTag(tag);
    EXPECT_STREQ(tag.getString(), "aaab");
    for (int i = 0; i < 24; ++i) imap.getNextTag(tag);
    EXPECT_STREQ(tag.getString(), "aaaz");
    imap.getNextTag(tag);
    EXPECT_STREQ(tag.getString(), "aaba");
    std::memcpy(imap.m_nextTag, "aazz", 4);
    imap.getNextTag(tag);
    EXPECT_STREQ(tag.getString(), "abaa");
    std::memcpy(imap.m_nextTag, "zzzz", 4);
    imap.getNextTag(tag);
    EXPECT_STREQ(tag.getString(), "aaaa");
}

// The block format is pinned by GreetingNoopAndTheSessionLog.
TEST(EngineSessionLog, OffByDefaultAndTrimmedAtTheLimit) {
    _zrImap imap;
    imap.appendInfoToSessionLog("ignored while off");
    EXPECT_EQ(imap.m_sessionLog.getSize(), 0u);
    imap.m_keepSessionLog = true;
    std::string big(25000000 - 2, 'x');
    imap.appendResponseLineToSessionLog(big.c_str());
    imap.appendResponseLineToSessionLog("ab");
    EXPECT_EQ(imap.m_sessionLog.getSize(), 25000000u);  // exactly at the limit: kept
    imap.appendResponseLineToSessionLog("c");
    ASSERT_EQ(imap.m_sessionLog.getSize(), 20000000u);  // one over: the newest 20,000,000
    EXPECT_EQ(imap.m_sessionLog.lastChar(), 'c');
    EXPECT_EQ(imap.m_sessionLog.charAt(20000000 - 3), 'a');
}

TEST_F(EngineCore, GreetingNoopAndTheSessionLog) {
    imap.m_keepSessionLog = true;
    server.send("* OK ready\r\n").expect("{tag} NOOP\r\n").send("* 3 EXISTS\r\n{tag} OK NOOP done\r\n");
    start();
    EXPECT_STREQ(greeting.getString(), "* OK ready\r\n");
    ImapResultSet rs;
    ASSERT_TRUE(noop(rs));
    EXPECT_STREQ(rs.getTag(), "aaab");
    EXPECT_STREQ(rs.getCommand(), "NOOP");
    EXPECT_EQ(linesOf(rs), (std::vector<std::string>{"* 3 EXISTS\r\n", "aaab OK NOOP done\r\n"}));
    EXPECT_TRUE(rs.isOK(true, log));
    imap.parseUntaggedResponses(rs.getArray2());
    EXPECT_EQ(imap.get_NumEmailsInMailbox(), 3u);
    EXPECT_EQ(lastCommand(), "aaab NOOP");
    EXPECT_TRUE(server.finish()) << server.report();
    EXPECT_EQ(server.received(), "aaab NOOP\r\n");
    const std::string expectedLog =
        "\r\n----INFO----\r\nConnecting to IMAP server at 127.0.0.1:" + std::to_string(server.port()) +
        "\r\n----IMAP RESPONSE----\r\n* OK ready\r\n"
        "----IMAP REQUEST----\r\naaab NOOP\r\n"
        "----IMAP RESPONSE----\r\n* 3 EXISTS\r\naaab OK NOOP done\r\n";
    EXPECT_EQ(visible(imap.m_sessionLog.getString()), visible(expectedLog));
    EXPECT_EQ(events.all, "ImapCmdResp * OK ready\r\n\nImapCmdSent aaab NOOP\r\n\nImapCmdResp * 3 EXISTS\r\n\n"
                          "ImapCmdResp aaab OK NOOP done\r\n\n");
}

TEST_F(EngineCore, CompletionNeedsTheExactTagAndASpace) {
    server.send("* OK\r\n")
        .expect("{tag} NOOP\r\n")
        .send("aaabx OK not mine\r\nAAAB OK shouting\r\n+ go on\r\naaab NO but complete\r\n");
    start();
    ImapResultSet rs;
    ASSERT_TRUE(noop(rs));  // a NO still completes the command
    EXPECT_EQ(rs.getNumLines(), 4);
    EXPECT_FALSE(rs.isOK(true, log));
}

TEST_F(EngineCore, RepairsDoubledCarriageReturnsInEveryFragmentation) {
    const std::string reply = "* 1 EXISTS\r\r\n{tag} OK\r\r\n";
    for (const auto& mode : {ScriptedServer::Mode::Whole, ScriptedServer::Mode::ByteByByte,
                             ScriptedServer::Mode::SplitAt(12), ScriptedServer::Mode::SplitAt(11)}) {
        ScriptedServer s;
        s.setMode(mode).send("* OK\r\n").expect("{tag} NOOP\r\n").send(reply);
        s.start();
        _zrImap engine;
        ASSERT_TRUE(engine.connectToImapServer(StringBuffer("127.0.0.1"), s.port(), greeting, tls, sp, log));
        ImapResultSet rs;
        ASSERT_TRUE(engine.cmdNoArgs("NOOP", rs, log, sp)) << mode.name();
        EXPECT_EQ(linesOf(rs), (std::vector<std::string>{"* 1 EXISTS\r\n", "aaab OK\r\n"})) << mode.name();
        EXPECT_TRUE(s.finish()) << s.report();
    }
}

TEST_F(EngineCore, LiteralReaderRefusesHugeSizesAndNoticesTheEnd) {
    server.send("* OK\r\n").closeAfter("0123", 4);
    start();
    DataBuffer literal;
    EXPECT_FALSE(imap.getNResponseBytes(4294967295u, literal, sp, log));  // before any read
    EXPECT_TRUE(log.hasError("Failed to allocate memory for IMAP response bytes."));
    EXPECT_EQ(literal.getCapacity(), 0u);
    EXPECT_FALSE(imap.getNResponseBytes(10, literal, sp, log));
    EXPECT_TRUE(sp.m_connLost);
    EXPECT_TRUE(log.hasError("Failed while receiving IMAP response bytes."));
}

TEST_F(EngineCore, LiteralSurplusIsHandedBackToTheLineReader) {
    server.send("* OK\r\n").send("0123456789* 2 EXISTS\r\nrest\r\n");
    start();
    DataBuffer literal;
    ASSERT_TRUE(imap.getNResponseBytes(10, literal, sp, log));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(literal.getData2()), literal.getSize()), "0123456789");
    StringBuffer line;
    ASSERT_TRUE(imap.getServerResponseLine2(line, log, sp));
    EXPECT_STREQ(line.getString(), "* 2 EXISTS\r\n");
    line.clear();
    ASSERT_TRUE(imap.getServerResponseLine2(line, log, sp));
    EXPECT_STREQ(line.getString(), "rest\r\n");
}

TEST_F(EngineCore, PartialCollectionStopsAtTheStopStringOrTheTag) {
    server.send("* OK\r\n").send("stray first\r\n* 1 FETCH (BODY[HEADER] {3}\r\n").send("aaac NO gone\r\n");
    start();
    StringBuffer out;
    bool gotFinal = true, finalOk = true;
    ASSERT_TRUE(imap.getPartialResponse("aaac ", "BODY[HEADER]", out, gotFinal, finalOk, sp, log));
    EXPECT_FALSE(gotFinal);
    EXPECT_STREQ(out.getString(), "* 1 FETCH (BODY[HEADER] {3}\r\n");  // the stray first line is not kept
    EXPECT_FALSE(imap.getPartialResponse("aaac ", "BODY[HEADER]", out, gotFinal, finalOk, sp, log));
    EXPECT_TRUE(gotFinal);
    EXPECT_FALSE(finalOk);
}

TEST_F(EngineCore, RawCommandsTrimAndNeverTakeTheNullEscape) {
    server.send("* OK\r\n")
        .expect("{tag} NOOP\r\n")
        .send("{tag} OK\r\n")
        .expect("{tag} [replace-nulls]X<NULL>Y\r\n")
        .send("{tag} BAD\r\n")
        .expectRaw(std::string("aaad A\0B\r\n", 10))
        .send("aaad OK\r\n");
    start();
    ImapResultSet rs;
    ASSERT_TRUE(imap.sendRawCommand("  NOOP \r\n", rs, log, sp));
    EXPECT_STREQ(rs.getCommand(), "RAW");
    EXPECT_EQ(lastCommand(), "aaab NOOP");
    ImapResultSet rs2;
    ASSERT_TRUE(imap.sendRawCommand("[replace-nulls]X<NULL>Y", rs2, log, sp));
    DataBuffer empty;
    ImapResultSet rs3;
    EXPECT_FALSE(imap.sendRawCommandBinary(empty, rs3, log, sp));  // consumes no tag
    DataBuffer bin;
    bin.append("A\0B", 3);
    ImapResultSet rs4;
    ASSERT_TRUE(imap.sendRawCommandBinary(bin, rs4, log, sp));
    EXPECT_STREQ(rs4.getTag(), "aaad");
}

TEST_F(EngineCore, LongCommandsLeaveWholeAtBothSizes) {
    const std::string fits(2048 - 9, 'a');  // "aaab X " + text + "\r\n" = 2048 bytes
    const std::string over(2049 - 9, 'b');
    const std::string large(100000, 'c');
    server.send("* OK\r\n")
        .expect("{tag} X " + fits + "\r\n")
        .send("{tag} OK\r\n")
        .expect("{tag} X " + over + "\r\n")
        .send("{tag} OK\r\n")
        .expect("{tag} X " + large + "\r\n")
        .send("{tag} OK\r\n");
    start();
    for (const std::string* text : {&fits, &over, &large}) {
        ImapResultSet rs;
        ASSERT_TRUE(imap.sendRawCommand(("X " + *text).c_str(), rs, log, sp));
    }
}

TEST_F(EngineCore, IdleWaitsForGoAheadAndDoneForTheIdleTag) {
    server.send("* OK\r\n")
        .expect("{tag} IDLE\r\n")
        .send("* 4 EXISTS\r\n+\r\n+ idling\r\n")
        .expect("DONE\r\n")
        .send("{tag} OK IDLE terminated\r\n")
        .expect("DONE\r\n")
        .send(" stray\r\n")
        .expect("{tag} idle\r\n")
        .send("{tag} BAD unknown\r\n");
    start();
    ImapResultSet idle;
    ASSERT_TRUE(imap.cmdNoArgs("IDLE", idle, log, sp));
    EXPECT_TRUE(imap.m_idling);
    EXPECT_STREQ(idle.getTag(), "+");
    EXPECT_EQ(linesOf(idle), (std::vector<std::string>{"* 4 EXISTS\r\n", "+\r\n", "+ idling\r\n"}));
    ImapResultSet done;
    ASSERT_TRUE(imap.cmdNoArgs("DONE", done, log, sp));
    EXPECT_FALSE(imap.m_idling);
    EXPECT_STREQ(done.getTag(), "aaab");
    EXPECT_TRUE(done.isOK(true, log));
    ImapResultSet again;  // no saved tag: the empty tag's " " prefix ends the wait
    ASSERT_TRUE(imap.cmdNoArgs("DONE", again, log, sp));
    ImapResultSet lower;  // only "IDLE" exactly is special
    ASSERT_TRUE(imap.cmdNoArgs("idle", lower, log, sp));
    EXPECT_STREQ(lower.getTag(), "aaac");
}

TEST_F(EngineCore, TagsContinueAcrossReconnects) {
    server.send("* OK one\r\n")
        .expect("{tag} NOOP\r\n")
        .send("{tag} OK\r\n")
        .acceptNext()
        .send("* OK two\r\n")
        .expect("{tag} NOOP\r\n")
        .send("{tag} OK\r\n");
    start();
    ImapResultSet a;
    ASSERT_TRUE(noop(a));
    ASSERT_TRUE(connect()) << log.toText();  // closes the first connection itself
    EXPECT_STREQ(greeting.getString(), "* OK two\r\n");
    ImapResultSet b;
    ASSERT_TRUE(noop(b));
    EXPECT_STREQ(a.getTag(), "aaab");
    EXPECT_STREQ(b.getTag(), "aaac");
    EXPECT_TRUE(server.finish()) << server.report();
    EXPECT_EQ(server.connectionCount(), 2u);
}

TEST_F(EngineCore, AbortDisconnects) {
    server.send("* OK\r\n").expect("{tag} NOOP\r\n").send("* 1 EXISTS\r\n").expectClose();
    start();
    events.abortNow = true;
    ImapResultSet rs;
    EXPECT_FALSE(noop(rs));
    EXPECT_TRUE(log.hasError("Aborted when getting response lines from IMAP server."));
    EXPECT_EQ(imap.m_socket, nullptr);
}

// Reconnecting after a time-out: StallAfterEveryLine (robustness).
TEST_F(EngineCore, ReadTimeoutClosesTheSocketButKeepsTheObject) {
    imap.put_ReadTimeout(1);
    EXPECT_EQ(imap.m_readTimeoutMs, 1000u);
    server.send("* OK\r\n").expect("{tag} NOOP\r\n").stall(std::chrono::milliseconds(1500));
    start();
    ImapResultSet rs;
    const auto start = Clock::now();
    EXPECT_FALSE(noop(rs));
    EXPECT_LT(msSince(start), 2000);
    EXPECT_TRUE(sp.m_timedOut);
    EXPECT_TRUE(log.hasError("Failed to get next response line from IMAP server."));
    EXPECT_NE(imap.m_socket, nullptr);
    EXPECT_FALSE(imap.isImapConnected(log));
    ImapResultSet after;  // the closed socket refuses, without a crash
    EXPECT_FALSE(noop(after));
}

TEST_F(EngineCore, ConnectFailures) {
    imap.m_keepSessionLog = true;
    std::uint16_t closedPort;
    {
        ScriptedServer gone;  // its port is free again once it is destroyed
        closedPort = gone.port();
    }
    EXPECT_FALSE(imap.connectToImapServer(StringBuffer("127.0.0.1"), closedPort, greeting, tls, sp, log));
    EXPECT_TRUE(sp.m_connectFailed);
    EXPECT_EQ(imap.m_socket, nullptr);
    EXPECT_NE(std::string(imap.m_sessionLog.getString()).find("----ERROR----\r\nConnect Failed."), std::string::npos);
    EXPECT_EQ(*log.lastData("failReason"), "0");

    server.close();  // closes before the greeting
    startServer();
    EXPECT_FALSE(connect());
    EXPECT_TRUE(log.hasError("Failed to get greeting."));
    EXPECT_NE(std::string(imap.m_sessionLog.getString()).find("Connect Failed (3)"), std::string::npos);
}

TEST_F(EngineCore, StartTlsRefusedStillAttemptsTheHandshake) {
    imap.setStartTls(true);
    server.send("* OK\r\n")
        .expect("{tag} STARTTLS\r\n")
        .send("{tag} NO not today\r\n")
        .expectRaw("\x16\x03")  // a TLS record: the ClientHello
        .close();
    startServer();
    EXPECT_FALSE(connect());
    EXPECT_EQ(*log.firstData("startTlsResponse"), "aaab NO not today");
    EXPECT_TRUE(sp.m_tlsFailure || sp.m_connLost);
}
