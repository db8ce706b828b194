// Helpers of the robustness tests: resource counters, a scoped buffer
// ceiling and a flooding server for the hostile cases that need an endless
// stream.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "ScriptedServer.h"
#include "zrimap/engine.h"

namespace zr::test {

using Clock = std::chrono::steady_clock;
long msSince(Clock::time_point t);

inline constexpr char kLineReadFailed[] = "Failed to get next response line from IMAP server.";

// A loaded summary of a multipart/mixed message: part 1 text/plain, part 2
// an attachment, so the download without attachments asks for the top
// header, BODY[1.MIME] and BODY[1].
void mixedSummary(ImapMsgSummary& s);

// "{n}\r\n" and the bytes: an IMAP literal.
std::string lit(const std::string& bytes);

// Open file descriptors of this process.
int openFdCount();

// Peak resident set size of this process so far, in KiB.
long peakRssKb();

// Sets the BufferLimits ceiling for one scope and restores the default.
class BufferLimitGuard {
public:
    explicit BufferLimitGuard(std::uint64_t maxBytes);
    ~BufferLimitGuard();
    BufferLimitGuard(const BufferLimitGuard&) = delete;
    BufferLimitGuard& operator=(const BufferLimitGuard&) = delete;
};

// Serves one connection on 127.0.0.1: sends the greeting, then for each
// reply reads one line from the client and sends the reply, then floods
// `chunk` until the client hangs up (or `maxBytes` are out). Unless
// acceptSecond is false it then accepts one more connection and greets it
// with "* OK again", so a test can check that the object connects again.
class FloodServer {
public:
    struct Config {
        std::string greeting = "* OK flood\r\n";
        std::vector<std::string> replies;
        std::string chunk;
        std::uint64_t maxBytes = 256u << 20;
        bool acceptSecond = true;
    };
    explicit FloodServer(const Config& config);

    std::uint16_t port() const { return server_.port(); }
    // Waits for the script to end.
    void join() { verdict_ = server_.finish(); }
    // After join(): whether the client hung up on the flood instead of
    // reading to the cap (and, with acceptSecond, came back and left again).
    const ::testing::AssertionResult& clientClosed() const { return verdict_; }

private:
    ScriptedServer server_;
    ::testing::AssertionResult verdict_ = ::testing::AssertionFailure() << "join() was not called";
};

}  // namespace zr::test
