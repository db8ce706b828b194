// Fault injection over one whole session: connect, LOGIN, SELECT, a fetch
// with a literal, a fetch without attachments (three literals), APPEND,
// IDLE with a pushed line, LOGOUT.
//
// DropAtEveryByte: the server closes the connection after each byte offset
// of its side in turn. StallAfterEveryLine: the server goes quiet after each
// line it sends (and before its first). In both, the operation that was
// reading must return false with its own error message (the end of the
// stream noticed at once; a stall noticed after the read time-out), the
// operations before it must have succeeded with the right results, the same
// object must connect again and run a command, and no file descriptor may be
// left open.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "RobustnessSupport.h"
#include "ScriptedServer.h"
#include "zrimap/auth/Settings.h"

using namespace zr;
using namespace zr::test;
using namespace std::string_literals;

namespace {

using Millis = std::chrono::milliseconds;

enum Op { kConnect, kLogin, kSelect, kFetchWhole, kFetchParts, kAppend, kIdleStart, kIdleCheck, kIdleDone, kLogout,
          kOpCount, kNoOp = -1 };
const char* const kOpNames[] = {"connect", "login", "select", "fetchWhole", "fetchParts",
                                "append",  "idle",  "idleCheck", "done",   "logout"};

const std::string kMessage =
    "From: Ann <ann@example.com>\r\nTo: Bob <bob@example.com>\r\nSubject: one\r\n\r\nFirst line.\r\nSecond line.\r\n";
const std::string kTopHeader = "Subject: two\r\nContent-Type: multipart/mixed; boundary=\"b1\"\r\n\r\n";
const std::string kPartMime = "Content-Type: text/plain; charset=us-ascii\r\n\r\n";
const std::string kPartBody = "Hello, part one.\r\n";
const std::string kAppended = "Subject: three\r\n\r\nAppended.";

// A stretch of one exchange's server bytes, up to (not including) `end`, and
// the error the reading operation reports when the bytes stop inside it.
struct Segment {
    std::size_t end;
    const char* error;
};

// One client line (or none) and the server bytes that answer it.
struct Exchange {
    std::string client;
    bool clientRaw = false;  // bytes compared literally (the APPEND message)
    std::string server;
    int op;  // the operation that reads `server`; kNoOp: none does
    std::vector<Segment> segments;
};

Exchange plain(std::string client, std::string server, int op, const char* error) {
    Exchange e{std::move(client), false, std::move(server), op, {}};
    e.segments.push_back({e.server.size(), error});
    return e;
}

std::vector<Exchange> buildSession() {
    std::vector<Exchange> s;
    s.push_back(plain("", "* OK [CAPABILITY IMAP4rev1 IDLE] ready\r\n", kConnect, "Failed to get greeting."));
    s.push_back(plain("aaab LOGIN \"joe\" \"secret\"\r\n", "aaab OK [CAPABILITY IMAP4rev1 IDLE] Logged in\r\n",
                      kLogin, kLineReadFailed));
    s.push_back(plain("aaac SELECT \"INBOX\"\r\n",
                      "* FLAGS (\\Answered \\Flagged \\Deleted \\Seen \\Draft)\r\n* 3 EXISTS\r\n* 0 RECENT\r\n"
                      "* OK [UIDVALIDITY 1700000000] UIDs valid\r\naaac OK [READ-WRITE] Select completed.\r\n",
                      kSelect, kLineReadFailed));
    {
        const std::string head =
            "* 1 FETCH (UID 1 FLAGS (\\Seen) INTERNALDATE \"01-Jan-2024 10:00:00 +0000\" BODY[] {" +
            std::to_string(kMessage.size()) + "}\r\n";
        Exchange e{"aaad UID FETCH 1 (FLAGS INTERNALDATE BODY[])\r\n", false,
                   head + kMessage + ")\r\naaad OK Fetch completed.\r\n", kFetchWhole, {}};
        e.segments = {{head.size(), kLineReadFailed},
                      {head.size() + kMessage.size(), "Failed while receiving MIME."},
                      {e.server.size(), kLineReadFailed}};
        s.push_back(e);
    }
    {
        const std::string head =
            "* 2 FETCH (UID 2 FLAGS (\\Seen) INTERNALDATE \"01-Jan-2024 11:00:00 +0000\" BODY[HEADER] {" +
            std::to_string(kTopHeader.size()) + "}\r\n";
        const std::string mimeLine = " BODY[1.MIME] {" + std::to_string(kPartMime.size()) + "}\r\n";
        const std::string bodyLine = " BODY[1] {" + std::to_string(kPartBody.size()) + "}\r\n";
        Exchange e{"aaae UID FETCH 2 (FLAGS INTERNALDATE BODY[HEADER] BODY[1.MIME] BODY[1])\r\n", false,
                   head + kTopHeader + mimeLine + kPartMime + bodyLine + kPartBody + ")\r\naaae OK Fetch completed.\r\n",
                   kFetchParts, {}};
        std::size_t at = head.size();
        e.segments.push_back({at, kLineReadFailed});
        e.segments.push_back({at += kTopHeader.size(), "Failed to read top header bytes."});
        e.segments.push_back({at += mimeLine.size(), "Failed to get read next BODY[part] response line."});
        e.segments.push_back({at += kPartMime.size(), "Failed to read BODY[part.MIME] bytes."});
        e.segments.push_back({at += bodyLine.size(), "Failed to get read next BODY[part] response line."});
        e.segments.push_back({at += kPartBody.size(), "Failed to read BODY[part] bytes."});
        e.segments.push_back({at += 3, "Failed to get read final paren line."});
        e.segments.push_back({e.server.size(), kLineReadFailed});
        s.push_back(e);
    }
    s.push_back(plain("aaaf APPEND \"INBOX\" (\\Seen) {" + std::to_string(kAppended.size() + 2) + "}\r\n",
                      "+ Ready for literal data\r\n", kAppend, "Failed to get first APPEND response."));
    {
        Exchange e = plain(kAppended + "\r\n\r\n", "aaaf OK [APPENDUID 1700000000 4] Append completed.\r\n", kAppend,
                           "Failed to get complete response after appending MIME.");
        e.clientRaw = true;
        s.push_back(e);
    }
    s.push_back(plain("aaag IDLE\r\n", "+ idling\r\n", kIdleStart, kLineReadFailed));
    s.push_back(plain("", "* 4 EXISTS\r\n", kIdleCheck, nullptr));  // no message: the flags tell
    s.push_back(plain("DONE\r\n", "aaag OK Idle completed.\r\n", kIdleDone, kLineReadFailed));
    s.push_back(plain("aaah LOGOUT\r\n", "* BYE Logging out\r\n", kLogout, nullptr));  // the transport's message
    s.push_back(plain("", "aaah OK Logout completed.\r\n", kNoOp, nullptr));  // nobody reads it
    return s;
}

const std::vector<Exchange>& session() {
    static const std::vector<Exchange> s = buildSession();
    return s;
}

const char* errorAt(const Exchange& e, std::size_t offset) {
    for (const Segment& seg : e.segments)
        if (offset < seg.end) return seg.error;
    return nullptr;
}

void expectClient(ScriptedServer& server, const Exchange& e) {
    if (e.clientRaw) server.expectRaw(e.client);
    else if (!e.client.empty()) server.expect(e.client);
}

void playUpTo(ScriptedServer& server, std::size_t upTo) {
    for (std::size_t i = 0; i < upTo; ++i) {
        expectClient(server, session()[i]);
        server.send(session()[i].server);
    }
}

class Client {
public:
    explicit Client(std::uint16_t port, unsigned readTimeoutMs) : port_(port) {
        imap.m_keepSessionLog = true;
        imap.m_readTimeoutMs = readTimeoutMs;
    }

    // Runs one operation of the session; checks what a success must yield.
    bool run(int op) {
        ImapResultSet rs;
        XString user("joe"), xml;
        SecurePassword pw("secret");
        ImapMsgSummary summary;
        ImapFlags flags;
        StringBuffer date, text, line;
        DataBuffer mime;
        ExtPtrArraySb completion;
        bool ok = false;
        const auto got = [&] { return std::string(reinterpret_cast<const char*>(mime.getData2()), mime.getSize()); };
        switch (op) {
            case kConnect:
                if (!connect()) return false;
                EXPECT_STREQ(greeting.getString(), session()[0].server.c_str());
                return true;
            case kLogin:
                if (!imap.loginImap(user, pw, rs, log, sp)) return false;
                EXPECT_TRUE(rs.isOK(false, log));
                return true;
            case kSelect:
                if (!imap.selectMailbox("INBOX", false, rs, ok, log, sp)) return false;
                EXPECT_EQ(imap.get_NumEmailsInMailbox(), 3u);
                return true;
            case kFetchWhole:
                if (!imap.fetchCompleteWithAttachments_u(1, true, flags, date, text, mime, ok, sp, log)) return false;
                EXPECT_TRUE(ok);
                EXPECT_EQ(got(), kMessage);
                EXPECT_STREQ(date.getString(), "01-Jan-2024 10:00:00 +0000");
                return true;
            case kFetchParts:
                mixedSummary(summary);
                if (!imap.fetchCompleteWithoutAttachments_u(2, true, summary, flags, date, text, mime, ok, sp, log))
                    return false;
                EXPECT_TRUE(ok);
                EXPECT_EQ(got(), kTopHeader + "--b1\r\n" + kPartMime + kPartBody + "--b1--\r\n");
                return true;
            case kAppend:
                if (!imap.appendMime("INBOX", kAppended.c_str(), nullptr, true, false, false, false, false, completion,
                                     rs, log, sp))
                    return false;
                EXPECT_EQ(completion.getSize(), 1);
                return true;
            case kIdleStart:
                return imap.cmdNoArgs("IDLE", rs, log, sp);
            case kIdleCheck:
                idleOk = imap.idleCheck(150, xml, sp, log);
                idleXml = xml.getUtf8();
                return idleOk;
            case kIdleDone:
                return imap.cmdNoArgs("DONE", rs, log, sp) && rs.isOK(false, log);
            case kLogout:
                if (!imap.logout(line, sp, log)) return false;
                EXPECT_STREQ(line.getString(), "* BYE Logging out\r\n");
                return true;
            default:
                return false;
        }
    }

    bool connect() {
        return imap.connectToImapServer(StringBuffer("127.0.0.1"), port_, greeting, tls, sp, log);
    }

    // Connects again and runs a NOOP; the time-out is generous, so a server
    // that is still sitting out a stall is waited for.
    void reconnectAndNoop() {
        imap.put_ReadTimeout(10);
        ASSERT_TRUE(connect()) << log.toText();
        EXPECT_STREQ(greeting.getString(), "* OK again\r\n");
        ImapResultSet rs;
        ASSERT_TRUE(imap.cmdNoArgs("NOOP", rs, log, sp)) << log.toText();
        EXPECT_TRUE(rs.isOK(false, log));
        imap.closeImapSocket();
    }

    _zrImap imap;
    MemoryLog log;
    _clsTls tls;
    SocketParams sp{nullptr};
    StringBuffer greeting;
    bool idleOk = false;
    std::string idleXml;

private:
    std::uint16_t port_;
};

// Runs the session until an operation fails; returns it (kNoOp when none
// does) and how long it took.
int runSession(Client& c, long& failedMs) {
    for (int op = 0; op < kOpCount; ++op) {
        const Clock::time_point t0 = Clock::now();
        const bool ok = c.run(op);
        failedMs = msSince(t0);
        if (!ok || ::testing::Test::HasFailure()) return op;
    }
    return kNoOp;
}

std::string exchangeName(const ::testing::TestParamInfo<int>& info) {
    const Exchange& e = session()[static_cast<std::size_t>(info.param)];
    return "Exchange" + std::to_string(info.param) + "_" + (e.op == kNoOp ? "unread" : kOpNames[e.op]);
}

std::vector<int> allExchanges() {
    std::vector<int> v;
    for (std::size_t i = 0; i < session().size(); ++i) v.push_back(static_cast<int>(i));
    return v;
}

}  // namespace

// The session itself, untouched: everything succeeds and the wire matches.
TEST(FaultInjectionSession, RunsCleanlyWithoutFaults) {
    const int fdsBefore = openFdCount();
    {
        ScriptedServer server;
        playUpTo(server, session().size());
        server.start();
        Client c(server.port(), 5000);
        long ms = 0;
        EXPECT_EQ(runSession(c, ms), kNoOp) << c.log.toText();
        EXPECT_EQ(c.idleXml, "<idle><exists>4</exists></idle>");
        c.imap.closeImapSocket();
        EXPECT_TRUE(server.finish()) << server.report();
    }
    EXPECT_EQ(openFdCount(), fdsBefore);
}

namespace {

// Plays the session up to exchange j, lets `fault` script how the server's
// side of exchange j goes wrong, runs the session, lets `judge` check the
// failure, and then makes the object connect again and run a NOOP.
template <class Fault, class Judge>
void runWithFault(std::size_t j, unsigned readTimeoutMs, Fault fault, Judge judge) {
    const int fdsBefore = openFdCount();
    {
        ScriptedServer server;
        playUpTo(server, j);
        expectClient(server, session()[j]);
        fault(server);
        server.acceptNext().send("* OK again\r\n").expect("{tag} NOOP\r\n").send("{tag} OK NOOP completed\r\n");
        server.start();
        Client c(server.port(), readTimeoutMs);
        long ms = 0;
        const int failed = runSession(c, ms);
        judge(c, failed, ms);
        c.reconnectAndNoop();
        EXPECT_TRUE(server.finish()) << server.report();
    }
    EXPECT_EQ(openFdCount(), fdsBefore);
}

const char* opName(int op) { return op == kNoOp ? "no failure" : kOpNames[op]; }

}  // namespace

class DropAtEveryByte : public ::testing::TestWithParam<int> {};

TEST_P(DropAtEveryByte, OperationFailsAtOnceWithItsMessageAndTheObjectReconnects) {
    const std::size_t j = static_cast<std::size_t>(GetParam());
    const Exchange& ex = session()[j];
    for (std::size_t cut = 0; cut < ex.server.size() && !HasFailure(); ++cut) {
        SCOPED_TRACE("server closes after " + std::to_string(cut) + " bytes of \"" + visible(ex.server) + "\"");
        const char* error = errorAt(ex, cut);
        runWithFault(j, 5000, [&](ScriptedServer& s) { s.closeAfter(ex.server, cut); },
                     [&](Client& c, int failed, long ms) {
            ASSERT_EQ(failed, ex.op) << "expected " << opName(ex.op) << c.log.toText();
            if (failed == kNoOp) return;
            // The end of the stream is seen at once, not waited out.
            EXPECT_LT(ms, 2000) << kOpNames[failed];
            if (error) {
                EXPECT_TRUE(c.log.hasError(error)) << "expected \"" << error << "\"\n" << c.log.toText();
            } else if (failed == kIdleCheck) {
                EXPECT_TRUE(c.sp.m_connLost);
                EXPECT_EQ(c.idleXml, "<idle></idle>");  // a partial line is not reported
            } else {
                EXPECT_TRUE(c.sp.m_connLost);
                bool said = false;
                for (const std::string& e : c.log.errors()) said |= e.find("closed by peer") != std::string::npos;
                EXPECT_TRUE(said) << c.log.toText();
            }
            // A failed line read is in the session log too.
            if (error && std::string(error) == kLineReadFailed) {
                EXPECT_NE(std::string(c.imap.m_sessionLog.getString()).find("----ERROR----\r\n"s + kLineReadFailed),
                          std::string::npos);
            }
        });
    }
}

INSTANTIATE_TEST_SUITE_P(Session, DropAtEveryByte, ::testing::ValuesIn(allExchanges()), exchangeName);

class StallAfterEveryLine : public ::testing::TestWithParam<int> {};

TEST_P(StallAfterEveryLine, OperationTimesOutWithItsMessageAndTheObjectReconnects) {
    constexpr unsigned kReadTimeoutMs = 400;
    const std::size_t j = static_cast<std::size_t>(GetParam());
    const Exchange& ex = session()[j];
    for (std::size_t at = 0; at < ex.server.size() && !HasFailure(); ++at) {
        if (at != 0 && ex.server[at - 1] != '\n') continue;  // line boundaries only
        SCOPED_TRACE("server stalls after " + std::to_string(at) + " bytes of \"" + visible(ex.server) + "\"");
        runWithFault(j, kReadTimeoutMs,
                     [&](ScriptedServer& s) {
                         if (at) s.send(ex.server.substr(0, at));
                         s.stall(Millis(900));
                     },
                     [&](Client& c, int failed, long ms) {
            // IDLE monitoring takes silence as "nothing new", so the stall
            // hits the DONE that follows.
            const int expectedOp = ex.op == kIdleCheck ? kIdleDone : ex.op;
            ASSERT_EQ(failed, expectedOp) << "expected " << opName(expectedOp) << c.log.toText();
            if (ex.op == kIdleCheck) {
                EXPECT_TRUE(c.idleOk);
                EXPECT_EQ(c.idleXml, "<idle></idle>");
            }
            if (failed == kNoOp) return;
            EXPECT_GE(ms, static_cast<long>(kReadTimeoutMs) - 50) << kOpNames[failed];
            EXPECT_LT(ms, static_cast<long>(kReadTimeoutMs) + 1500) << kOpNames[failed];
            EXPECT_TRUE(c.sp.m_timedOut) << kOpNames[failed];
            const char* error = ex.op == kIdleCheck ? kLineReadFailed : errorAt(ex, at);
            if (error) {
                EXPECT_TRUE(c.log.hasError(error)) << "expected \"" << error << "\"\n" << c.log.toText();
            } else {
                EXPECT_NE(std::string(c.imap.m_sessionLog.getString()).find("Failed to get command response"),
                          std::string::npos);
            }
            // A read that timed out leaves the stream in an unknown place:
            // the connection must not be used again.
            EXPECT_FALSE(c.imap.isImapConnected(c.log)) << kOpNames[failed];
        });
    }
}

INSTANTIATE_TEST_SUITE_P(Session, StallAfterEveryLine, ::testing::ValuesIn(allExchanges()), exchangeName);
