#include "ScriptedServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
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
    void hangUp() { ::shutdown(fd_, SHUT_RDWR); }
    bool eof = false;

private:
    int fd_;
};

bool contains(const std::string& hay, const std::string& needle) { return hay.find(needle) != std::string::npos; }

// The other suites compare wire text through visible(): were it to lose
// bytes, unequal texts could compare equal.
TEST(ScriptedServer, VisibleEscapesControlBytes) {
    EXPECT_EQ(visible(Bytes("a \r\n\t\\\0\x7f\xff", 9)), "a \\r\\n\\t\\\\\\x00\\x7F\\xFF");
}

// The fragmentation tests elsewhere only mean something if each mode really
// cuts the bytes the way it says.
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

// A script the client did not follow must fail finish(), or every test
// using the server would pass whatever the client sent.
TEST(ScriptedServer, DeviationsFailWithStepAndWireText) {
    struct Case {
        const char* expected;  // null: expectClose()
        Bytes clientSends;
        std::vector<std::string> reportHas;
    };
    const Case cases[] = {
        {"{tag} LOGIN joe secret\r\n", "abcd LOGIN joe wrong\r\n",
         {"step 2 of 2, expect(\"{tag} LOGIN joe secret\\r\\n\")", "received \"abcd LOGIN joe wrong\\r\\n\""}},
        {"{tag} NOOP\r\n", "A001 NOOP\r\n", {"4 lower-case letters", "received \"A001 NOOP\\r\\n\""}},
        {"abcd {tag}\r\n", "abcd abcd\r\n", {"{tag} used before any tag was captured"}},
        {"x\r\n", "x\n\x01", {"timed out after 300 ms", "received so far \"x\\n\\x01\""}},
        {"{tag} NOOP\r\n", "", {"timed out after 300 ms"}},
        {nullptr, "", {"timed out after 300 ms while waiting for the client to close"}},
        {nullptr, "abcd LOGOUT\r\n", {"expected the client to close, but it sent \"abcd LOGOUT\\r\\n\""}},
    };
    for (const auto& tc : cases) {
        SCOPED_TRACE(tc.reportHas.front());
        ScriptedServer server;
        server.setStepTimeout(300ms).send("* OK\r\n");
        tc.expected ? server.expect(tc.expected) : server.expectClose();
        const auto t0 = Clock::now();
        server.start();
        Client c(server.port());
        c.write(tc.clientSends);
        auto result = server.finish();
        EXPECT_FALSE(result);
        for (const auto& s : tc.reportHas) EXPECT_TRUE(contains(result.message(), s)) << result.message();
        EXPECT_EQ(result.message(), server.report());
        EXPECT_TRUE(!tc.clientSends.empty() || Clock::now() - t0 >= 300ms);  // silence waited the full time-out
        EXPECT_LT(Clock::now() - t0, 4s);  // the configured time-out applies, not the 5 s default
    }
}

// The fault-injection tests cut replies at chosen bytes with closeAfter().
TEST(ScriptedServer, StallThenCloseAfterEndsInEofAfterExactBytes) {
    ScriptedServer server;
    server.send("A\r\n").stall(400ms).closeAfter("BCDEF", 2);
    server.start();
    Client c(server.port());
    EXPECT_EQ(c.read(3), "A\r\n");
    auto t0 = Clock::now();
    EXPECT_EQ(c.read(), "BC");
    EXPECT_TRUE(c.eof);
    EXPECT_GE(Clock::now() - t0, 250ms);
    EXPECT_TRUE(server.finish());
}

// A client that leaves before the script is done has not followed it.
TEST(ScriptedServer, ClientLeavingEarlyFailsTheScript) {
    ScriptedServer server;
    server.stall(200ms).send("a\r\n").stall(200ms).send("b\r\n");
    server.start();
    Client(server.port()).hangUp();
    auto result = server.finish();  // a SIGPIPE here would kill the whole test binary
    EXPECT_FALSE(result);
    EXPECT_TRUE(contains(result.message(), "the client has gone away")) << result.message();
}

// The hostile-server tests rely on a flood ending only when the client
// hangs up: a client that reads on to the cap must fail the script.
TEST(ScriptedServer, FloodPassesOnlyWhenTheClientHangsUp) {
    for (const bool hangUp : {true, false}) {
        SCOPED_TRACE(hangUp ? "client hangs up" : "client reads to the cap");
        ScriptedServer server;
        std::string chunk;
        while (chunk.size() < 4096) chunk += "xy";
        server.flood(chunk, 32u << 20);  // well beyond what the socket buffers hold
        server.start();
        Client c(server.port());
        EXPECT_EQ(c.read(5), "xyxyx");
        if (hangUp) {
            c.hangUp();
        } else {
            EXPECT_EQ(c.read().size(), (32u << 20) - 5);
        }
        auto result = server.finish();
        EXPECT_EQ(bool(result), hangUp) << result.message();
        EXPECT_EQ(contains(result.message(), "read all 33554432 bytes of the flood"), !hangUp) << result.message();
    }
}

}  // namespace
