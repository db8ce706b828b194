#include "ScriptedServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>

namespace {

using namespace std::chrono_literals;
using zr::test::ScriptedServer;
using zr::test::visible;
using Clock = std::chrono::steady_clock;
using Bytes = std::string;

// Minimal blocking client; the receive time-out turns a broken server into a
// failed test instead of a hung one.
class Client {
public:
    explicit Client(std::uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
        timeval tv{5, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    }
    ~Client() { ::close(fd_); }
    void write(const Bytes& s) { ::send(fd_, s.data(), s.size(), MSG_NOSIGNAL); }
    // Reads until `n` bytes, EOF (sets eof) or the receive time-out.
    Bytes read(std::size_t n = SIZE_MAX) {
        Bytes out;
        char buf[4096];
        while (out.size() < n) {
            ssize_t r = ::recv(fd_, buf, std::min(sizeof buf, n - out.size()), 0);
            if (r <= 0) {
                eof = r == 0;
                break;
            }
            out.append(buf, static_cast<std::size_t>(r));
        }
        return out;
    }
    Bytes line() {
        Bytes out;
        while (out.size() < 2 || out.compare(out.size() - 2, 2, "\r\n") != 0) {
            Bytes c = read(1);
            if (c.empty()) break;
            out += c;
        }
        return out;
    }
    void hangUp() { ::shutdown(fd_, SHUT_RDWR); }
    bool eof = false;

private:
    int fd_;
};

bool contains(const std::string& hay, const std::string& needle) { return hay.find(needle) != std::string::npos; }

TEST(ScriptedServer, VisibleEscapesControlBytes) {
    EXPECT_EQ(visible(Bytes("a \r\n\t\\\0\x7f\xff", 9)), "a \\r\\n\\t\\\\\\x00\\x7F\\xFF");
}

TEST(ScriptedServer, PlaysScenarioWithTagsAndRawBytes) {
    const Bytes body("ab\0\r\ncd\r\n", 9);
    ScriptedServer server;
    server.send("* OK hi\r\n")
        .expect("{tag} LOGIN a b\r\n")
        .send("* CAPABILITY X\r\n{tag} OK done\r\n")
        .expect("{tag1} APPEND INBOX {9}\r\n")
        .send("+ go\r\n")
        .expectRaw(body)
        .expect("\r\n")
        .expect("{tag2} NOOP\r\n")
        .send("{tag1} OK appended\r\n{tag} OK noop\r\n")
        .expectClose();
    server.start();
    EXPECT_THROW(server.send("late"), std::logic_error);

    Client c(server.port());
    EXPECT_EQ(c.line(), "* OK hi\r\n");
    c.write("abcd LOGIN a b\r\n");
    EXPECT_EQ(c.line(), "* CAPABILITY X\r\n");
    EXPECT_EQ(c.line(), "abcd OK done\r\n");
    c.write("abce APPEND INBOX {9}\r\n");
    EXPECT_EQ(c.line(), "+ go\r\n");
    c.write(body + "\r\nabcf NOOP\r\n");  // pipelined: the server must split it itself
    EXPECT_EQ(c.line(), "abce OK appended\r\n");
    EXPECT_EQ(c.line(), "abcf OK noop\r\n");
    c.hangUp();

    EXPECT_TRUE(server.finish());
    EXPECT_EQ(visible(server.received()),
              visible("abcd LOGIN a b\r\nabce APPEND INBOX {9}\r\n" + body + "\r\nabcf NOOP\r\n"));
    EXPECT_EQ(server.connectionCount(), 1u);
}

TEST(ScriptedServer, EveryModeDeliversTheSameBytes) {
    const Bytes reply = "* 3 EXISTS\r\nabcd OK\r\n";
    const std::size_t n = reply.size();
    auto modes = ScriptedServer::Mode::allFor(n);
    modes.push_back(ScriptedServer::Mode::ByteByByte.withPause(1ms));
    for (const auto& mode : modes) {
        SCOPED_TRACE(mode.name());
        ScriptedServer server;
        server.setMode(mode).send(reply);
        server.start();
        Client c(server.port());
        EXPECT_EQ(c.read(), reply);
        EXPECT_TRUE(c.eof);
        EXPECT_TRUE(server.finish());
        using K = ScriptedServer::Mode::Kind;
        auto expected = mode.kind == K::Whole        ? std::vector<std::size_t>{n}
                        : mode.kind == K::ByteByByte ? std::vector<std::size_t>(n, 1)
                                                     : std::vector<std::size_t>{mode.offset, n - mode.offset};
        EXPECT_EQ(server.writeSizes(), expected);
    }
}

TEST(ScriptedServer, PerStepShapesOverrideTheMode) {
    ScriptedServer server;
    server.setMode(ScriptedServer::Mode::ByteByByte)
        .sendWhole("0123456789")
        .sendSplit("abcdefghij", {7, 3, 99}, 1ms)
        .sendBytewise("xyz", 1ms)
        .send("{}");
    server.start();
    Client c(server.port());
    EXPECT_EQ(c.read(), "0123456789abcdefghijxyz{}");
    EXPECT_TRUE(server.finish());
    EXPECT_EQ(server.writeSizes(), (std::vector<std::size_t>{10, 3, 4, 3, 1, 1, 1, 1, 1}));
}

TEST(ScriptedServer, MismatchesAreReportedWithStepAndWireText) {
    struct Case {
        const char* expected;
        Bytes clientSends;
        std::vector<std::string> reportHas;
    };
    const Case cases[] = {
        {"{tag} LOGIN joe secret\r\n", "abcd LOGIN joe wrong\r\n",
         {"step 2 of 2, expect(\"{tag} LOGIN joe secret\\r\\n\")", "received \"abcd LOGIN joe wrong\\r\\n\""}},
        {"{tag} NOOP\r\n", "A001 NOOP\r\n", {"4 lower-case letters", "received \"A001 NOOP\\r\\n\""}},
        {"abcd {tag}\r\n", "abcd abcd\r\n", {"{tag} used before any tag was captured"}},
        {"x\r\n", "x\n\x01", {"timed out after 300 ms", "received so far \"x\\n\\x01\""}},
    };
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.expected);
        ScriptedServer server;
        server.setStepTimeout(300ms).send("* OK\r\n").expect(tc.expected);
        server.start();
        Client c(server.port());
        c.write(tc.clientSends);
        auto result = server.finish();
        EXPECT_FALSE(result);
        for (const auto& s : tc.reportHas) EXPECT_TRUE(contains(result.message(), s)) << result.message();
        EXPECT_EQ(result.message(), server.report());
    }
}

TEST(ScriptedServer, TimesOutOnSilenceAndRejectsTalkInsteadOfClose) {
    struct Case {
        bool expectClose;
        Bytes clientSends;
        const char* reportHas;
    };
    const Case cases[] = {
        {false, "", "timed out after 300 ms"},
        {true, "", "did not close the connection within 300 ms"},
        {true, "abcd LOGOUT\r\n", "expected the client to close, but it sent \"abcd LOGOUT\\r\\n\""},
    };
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.reportHas);
        ScriptedServer server;
        server.setStepTimeout(300ms);
        tc.expectClose ? server.expectClose() : server.expect("{tag} NOOP\r\n");
        auto t0 = Clock::now();
        server.start();
        Client c(server.port());
        c.write(tc.clientSends);
        auto result = server.finish();
        EXPECT_FALSE(result);
        EXPECT_TRUE(!tc.clientSends.empty() || Clock::now() - t0 >= 300ms);  // silence waited the full time-out
        EXPECT_LT(Clock::now() - t0, 4s);  // the configured time-out applies, not the 5 s default
        EXPECT_TRUE(contains(result.message(), tc.reportHas)) << result.message();
    }
}

TEST(ScriptedServer, StallCloseAndCloseAfterEndInEofAfterExactBytes) {
    ScriptedServer server;
    server.send("A\r\n").stall(400ms).closeAfter("BCDEF", 2);
    server.start();
    Client c(server.port());
    EXPECT_EQ(c.line(), "A\r\n");
    auto t0 = Clock::now();
    EXPECT_EQ(c.read(), "BC");
    EXPECT_TRUE(c.eof);
    EXPECT_GE(Clock::now() - t0, 250ms);
    EXPECT_TRUE(server.finish());
}

TEST(ScriptedServer, AcceptNextServesASecondConnection) {
    ScriptedServer server;
    server.expect("{tag} X\r\n").send("one\r\n").close().acceptNext().send("two {tag}\r\n").expect("{tag} NOOP\r\n");
    server.start();
    {
        Client first(server.port());
        first.write("abcd X\r\n");
        EXPECT_EQ(first.read(), "one\r\n");
        EXPECT_TRUE(first.eof);
    }
    Client second(server.port());
    EXPECT_EQ(second.line(), "two abcd\r\n");
    second.write("wxyz NOOP\r\n");
    EXPECT_EQ(second.read(), "");
    EXPECT_TRUE(second.eof);
    EXPECT_TRUE(server.finish());
    EXPECT_EQ(server.connectionCount(), 2u);
    EXPECT_EQ(server.received(0), "abcd X\r\n");
    EXPECT_EQ(server.received(1), "wxyz NOOP\r\n");
    EXPECT_EQ(server.received(), "abcd X\r\nwxyz NOOP\r\n");
}

TEST(ScriptedServer, SurvivesClientsThatLeaveOrKeepTalking) {
    ScriptedServer gone;
    gone.stall(200ms).send("a\r\n").stall(200ms).send("b\r\n");
    gone.start();
    Client(gone.port()).hangUp();
    auto result = gone.finish();  // a SIGPIPE here would kill the whole test binary
    EXPECT_FALSE(result);
    EXPECT_TRUE(contains(result.message(), "the client has gone away")) << result.message();

    ScriptedServer chatty;
    chatty.send("* OK\r\n");
    chatty.start();
    Client c(chatty.port());
    EXPECT_EQ(c.line(), "* OK\r\n");
    for (int i = 0; i < 100; ++i) c.write("abcd NOOP\r\n");
    EXPECT_TRUE(chatty.finish());
    c.read();
    EXPECT_TRUE(c.eof || errno == ECONNRESET);
}

TEST(ScriptedServer, FinishBoundAndDestructorStopAStuckScript) {
    auto t0 = Clock::now();
    {
        ScriptedServer server;
        server.setStepTimeout(60s).expect("{tag} NOOP\r\n");
        server.start();
        Client c(server.port());
        auto result = server.finish(200ms);
        EXPECT_FALSE(result);
        EXPECT_TRUE(contains(result.message(), "did not finish within 200 ms")) << result.message();
        EXPECT_TRUE(contains(result.message(), "step 1 of 1")) << result.message();
        ScriptedServer abandoned;  // nobody ever connects; only the destructor ends it
        abandoned.setStepTimeout(60s).expect("x\r\n");
        abandoned.start();
    }
    EXPECT_LT(Clock::now() - t0, 10s);
}

}  // namespace
