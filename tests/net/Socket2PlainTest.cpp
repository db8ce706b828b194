// Socket2 over plain TCP against the scripted loopback server.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "NetTestSupport.h"
#include "ScriptedServer.h"

using namespace zr;
using namespace zrtest;
using namespace std::chrono_literals;
using zr::test::ScriptedServer;
using Clock = std::chrono::steady_clock;

namespace {

class PlainSocket : public SocketTest {};
class LineChunking : public SocketTest, public ::testing::WithParamInterface<ScriptedServer::Mode> {};

}  // namespace

// Every way of cutting the reply into writes (one byte each, a CRLF split
// between two reads, ...) yields the same lines, and the bytes after the
// last line stay for the next receive.
TEST_P(LineChunking, LinesSurviveAnyFragmentation) {
    ScriptedServer server;
    server.setMode(GetParam()).send("* OK hi\r\nA1 OK\r\n\r\nrest");
    server.start();
    ASSERT_TRUE(connect(server.port())) << log.toText();
    EXPECT_EQ(line(), "* OK hi\r\n");
    EXPECT_EQ(line(), "A1 OK\r\n");
    EXPECT_EQ(line(), "\r\n");
    DataBuffer rest;
    while (rest.getSize() < 4 && sock->receiveBytes2a(rest, 100, 5000, sp, log)) {
    }
    EXPECT_EQ(str(rest), "rest");
    EXPECT_EQ(flagsOf(sp), "");
    EXPECT_TRUE(server.finish());
}

INSTANTIATE_TEST_SUITE_P(Modes, LineChunking,
                         ::testing::ValuesIn([] {
                             std::vector<ScriptedServer::Mode> modes;
                             for (const auto& m : ScriptedServer::Mode::allFor(24)) modes.push_back(m.withPause(3ms));
                             return modes;
                         }()),
                         [](const auto& info) { return info.param.name(); });

// Handing a literal's surplus back to the line reader goes through the
// engine in EngineCore.LiteralSurplusIsHandedBackToTheLineReader.
TEST_F(PlainSocket, SmallReadsComeOutOfTheReadAheadAndTakeAppendsIt) {
    ScriptedServer server;
    server.sendWhole("* 1 FETCH (BODY[] {10}\r\n0123456789");
    server.start();
    ASSERT_TRUE(connect(server.port()));
    ASSERT_EQ(line(), "* 1 FETCH (BODY[] {10}\r\n");
    DataBuffer literal;
    ASSERT_TRUE(sock->receiveBytes2a(literal, 4, 5000, sp, log));
    EXPECT_GE(literal.getSize(), 1u);
    EXPECT_LE(literal.getSize(), 4u);
    while (literal.getSize() < 10) ASSERT_TRUE(sock->receiveBytes2a(literal, 64, 5000, sp, log));
    EXPECT_EQ(str(literal), "0123456789");

    ASSERT_TRUE(sock->addRumBuffered(reinterpret_cast<const unsigned char*>("xyz"), 3));
    DataBuffer taken;
    taken.appendStr(">");
    ASSERT_TRUE(sock->takeRumBuffered(taken));
    EXPECT_EQ(str(taken), ">xyz");
    EXPECT_EQ(sock->getRumBufferedSize(), 0u);
    EXPECT_TRUE(sock->takeRumBuffered(taken));  // nothing left: still fine
}

TEST_F(PlainSocket, MultiMegabyteLineThenBodyReadDirectly) {
    std::string big(4u << 20, 'a');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 26);
    std::string body(3u << 20, '\0');
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 7 % 256);
    ScriptedServer server;
    server.sendWhole(big + "\r\n* small\r\n").sendWhole(body);
    server.start();
    ASSERT_TRUE(connect(server.port()));
    EXPECT_TRUE(line(20000) == big + "\r\n");
    EXPECT_EQ(line(), "* small\r\n");
    DataBuffer got;
    while (got.getSize() < body.size()) {
        const unsigned before = got.getSize();
        const unsigned want = static_cast<unsigned>(body.size()) - before;
        ASSERT_TRUE(sock->receiveBytes2a(got, want, 5000, sp, log)) << log.toText();
        ASSERT_LE(got.getSize() - before, want);
    }
    EXPECT_TRUE(str(got) == body);
}

TEST_F(PlainSocket, LinePastBufferLimitFailsCleanly) {
    LimitGuard guard(4096);
    ScriptedServer server;
    server.send(std::string(10000, 'x') + "\r\n* next\r\n");
    server.start();
    ASSERT_TRUE(connect(server.port()));
    EXPECT_EQ(line(), "<failed>");
    EXPECT_EQ(flagsOf(sp), "otherError");
    EXPECT_TRUE(hasErrorWith(log, "exceeds the buffer limit of 4096 bytes")) << log.toText();
    // The rest of the long line must never come out as a line of its own.
    sp.initFlags();
    EXPECT_EQ(line(), "<failed>");
    EXPECT_EQ(flagsOf(sp), "connLost");
}

TEST_F(PlainSocket, ReadTimeOutKeepsPartialBytesAndHonoursIdleSetting) {
    ScriptedServer server;
    server.send("* partial").stall(5000ms);
    server.start();
    ASSERT_TRUE(connect(server.port()));
    auto t0 = Clock::now();
    EXPECT_EQ(line(300), "<failed>");
    EXPECT_GE(msSince(t0), 250);
    EXPECT_LT(msSince(t0), 2000);
    EXPECT_EQ(flagsOf(sp), "timedOut");
    EXPECT_TRUE(log.hasError("Timed out waiting to read from socket (300 ms)")) << log.toText();
    EXPECT_EQ(sock->getRumBufferedSize(), 9u);

    // Not a failure for this caller: reported as information only. And
    // timeoutMs 0 falls back to the idle time-out.
    sp.initFlags();
    sp.timeoutIsFailure = false;
    sock->put_IdleTimeoutMs(200);
    const size_t errorsBefore = log.errors().size();
    t0 = Clock::now();
    EXPECT_EQ(line(0), "<failed>");
    EXPECT_LT(msSince(t0), 2000);
    EXPECT_EQ(flagsOf(sp), "timedOut");
    EXPECT_EQ(log.errors().size(), errorsBefore);
    EXPECT_TRUE(log.hasInfo("Timed out waiting to read from socket (200 ms)"));
    EXPECT_TRUE(sock->isSock2Connected(true, log));
}

TEST_F(PlainSocket, PollReportsDataThenEndOfStream) {
    ScriptedServer server;
    server.stall(300ms).send("* 1 EXISTS\r\n").stall(300ms).close();
    server.start();
    ASSERT_TRUE(connect(server.port()));
    EXPECT_FALSE(sock->pollDataAvailable(sp, log));
    EXPECT_EQ(flagsOf(sp), "");
    EXPECT_TRUE(sock->isSock2Connected(true, log));
    const auto t0 = Clock::now();
    while (!sock->pollDataAvailable(sp, log) && msSince(t0) < 5000) std::this_thread::sleep_for(10ms);
    EXPECT_EQ(line(), "* 1 EXISTS\r\n");
    while (sock->isSock2Connected(true, log) && msSince(t0) < 5000) std::this_thread::sleep_for(10ms);
    EXPECT_FALSE(sock->isSock2Connected(true, log));
    EXPECT_FALSE(sock->pollDataAvailable(sp, log));
    EXPECT_EQ(flagsOf(sp), "connLost");
}

TEST_F(PlainSocket, AbortIsNoticedWhileWaiting) {
    AbortAfter sink(300);
    ProgressMonitor pm(&sink);
    ScriptedServer server;
    server.stall(5000ms);
    server.start();
    ASSERT_TRUE(connect(server.port()));
    SocketParams withMonitor(&pm);
    StringBuffer sb;
    const auto t0 = Clock::now();
    EXPECT_FALSE(sock->receiveUntilMatchSb("\r\n", sb, 10000, withMonitor, log));
    EXPECT_LT(msSince(t0), 2500);
    EXPECT_EQ(flagsOf(withMonitor), "aborted");
}

TEST_F(PlainSocket, ConnectFailuresAreConnectFailed) {
    const int port = closedPort();
    EXPECT_FALSE(connect(port));
    EXPECT_EQ(flagsOf(sp), "connectFailed");
    EXPECT_TRUE(log.hasError("Connection refused by 127.0.0.1:" + std::to_string(port))) << log.toText();

    // Resolution of a .invalid name fails at once here (no DNS is reachable).
    sp.initFlags();
    EXPECT_FALSE(connect(port, "nosuch.invalid"));
    EXPECT_EQ(flagsOf(sp), "connectFailed");
    EXPECT_TRUE(hasErrorWith(log, "Failed to resolve host name nosuch.invalid: "));

    sp.initFlags();
    EXPECT_FALSE(connect(0));
    EXPECT_EQ(flagsOf(sp), "connectFailed");
    EXPECT_FALSE(sock->isSock2Connected(false, log));
}

// A listener whose accept queue is full drops new SYNs, so the connect can
// only end by time-out or abort.
TEST_F(PlainSocket, ConnectTimesOutOrAbortsWhenNobodyAnswers) {
    int port = 0;
    const int lfd = listenLoopback(port, 0);
    ASSERT_GE(lfd, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    struct Fds {
        std::vector<int> fds;
        ~Fds() {
            for (int fd : fds) ::close(fd);
        }
    } open{{lfd}};
    for (int i = 0; i < 6; ++i) {
        open.fds.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        ::connect(open.fds.back(), reinterpret_cast<sockaddr*>(&a), sizeof a);
    }
    std::this_thread::sleep_for(200ms);
    auto t0 = Clock::now();
    const bool connected = sock->socket2Connect(StringBuffer("127.0.0.1"), port, false, tls, 300, sp, log);
    const long long took = msSince(t0);
    if (connected) GTEST_SKIP() << "this kernel accepted past the backlog";
    EXPECT_LT(took, 2000);
    EXPECT_EQ(flagsOf(sp), "timedOut connectFailed");
    EXPECT_TRUE(log.hasError("Timed out connecting to 127.0.0.1:" + std::to_string(port) + " (300 ms)"))
        << log.toText();

    AbortAfter sink(0);
    ProgressMonitor pm(&sink);
    SocketParams withMonitor(&pm);
    EXPECT_FALSE(sock->socket2Connect(StringBuffer("127.0.0.1"), port, false, tls, 10000, withMonitor, log));
    EXPECT_EQ(flagsOf(withMonitor), "connectFailed aborted");
}

TEST_F(PlainSocket, ReconnectClosesTheOldOneAndCloseIsFinal) {
    ScriptedServer first;
    first.send("* OK one\r\n").expectClose();
    first.start();
    ASSERT_TRUE(connect(first.port()));
    EXPECT_EQ(line(), "* OK one\r\n");
    ScriptedServer second;
    second.send("* OK two\r\n").stall(3000ms);
    second.start();
    ASSERT_TRUE(connect(second.port()));
    EXPECT_TRUE(first.finish());  // saw the first connection closed
    EXPECT_EQ(line(), "* OK two\r\n");
    sock->logConnectionType(log);
    ASSERT_NE(log.lastData("connectionType"), nullptr);
    EXPECT_EQ(*log.lastData("connectionType"), "TCP");

    EXPECT_TRUE(sock->sockClose(true, true, 1000, log, nullptr, false));
    EXPECT_TRUE(sock->sockClose(true, false, 1000, log, nullptr, false));
    EXPECT_FALSE(sock->isSock2Connected(true, log));
    EXPECT_FALSE(send("x"));
    EXPECT_EQ(flagsOf(sp), "connLost");
    sp.initFlags();
    EXPECT_EQ(line(), "<failed>");
    EXPECT_EQ(flagsOf(sp), "connLost");
    sock->logConnectionType(log);
    EXPECT_EQ(*log.lastData("connectionType"), "none");
}

// The time-out bounds the wait for each next byte, not the whole line.
TEST_F(PlainSocket, SlowTrickleLongerThanTheTimeOutStillArrives) {
    ScriptedServer server;
    server.sendBytewise("* slow\r\n", 120ms);
    server.start();
    ASSERT_TRUE(connect(server.port()));
    const auto t0 = Clock::now();
    EXPECT_EQ(line(500), "* slow\r\n");
    EXPECT_GT(msSince(t0), 600);
    EXPECT_EQ(flagsOf(sp), "");
}

TEST_F(PlainSocket, ChunkedAndSmallSendsArriveIntact) {
    std::string payload(1u << 20, '\0');
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 13 % 256);
    ScriptedServer server;
    server.expectRaw(payload).expect("A1 NOOP\r\n").send("A1 OK\r\n");
    server.start();
    ASSERT_TRUE(connect(server.port()));
    sock->setTcpNoDelay(true, log);
    sock->setBulkSendBehavior(true, true);
    ASSERT_TRUE(sock->s2_sendManyBytes(reinterpret_cast<const unsigned char*>(payload.data()),
                                       static_cast<unsigned>(payload.size()), 1000, 5000, log, sp));
    ASSERT_TRUE(send("A1 NOOP\r\n"));
    EXPECT_EQ(line(), "A1 OK\r\n");
    EXPECT_TRUE(server.finish());
    sock->logSocketOptions(log);
    ASSERT_NE(log.lastData("TCP_NODELAY"), nullptr);
    EXPECT_NE(*log.lastData("TCP_NODELAY"), "0");
}

TEST_F(PlainSocket, ConnectsOverIpv6Loopback) {
    const int lfd = ::socket(AF_INET6, SOCK_STREAM, 0);
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_addr = in6addr_loopback;
    socklen_t len = sizeof a;
    if (lfd < 0 || ::bind(lfd, reinterpret_cast<sockaddr*>(&a), len) != 0 || ::listen(lfd, 1) != 0) {
        if (lfd >= 0) ::close(lfd);
        GTEST_SKIP() << "no IPv6 loopback here";
    }
    ::getsockname(lfd, reinterpret_cast<sockaddr*>(&a), &len);
    ASSERT_TRUE(connect(ntohs(a.sin6_port), "[::1]")) << log.toText();
    const int fd = ::accept(lfd, nullptr, nullptr);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::send(fd, "* OK v6\r\n", 9, MSG_NOSIGNAL), 9);
    EXPECT_EQ(line(), "* OK v6\r\n");
    ::close(fd);
    ::close(lfd);
}
