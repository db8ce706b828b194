// Helpers of the robustness tests: resource counters, a scoped buffer
// ceiling and a flooding server for the hostile cases that need an endless
// stream (the scripted server holds its whole script in memory, which would
// distort the memory measurements).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

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
// reply reads one line from the client and sends the reply, then writes
// `chunk` again and again until the client closes, `maxBytes` have been
// flooded or `maxTime` has passed. Whatever the client sends meanwhile is
// read and dropped. Then it accepts one more connection, if one comes within
// `maxTime`, and greets it with "* OK again", so a test can check that the
// object connects again.
class FloodServer {
public:
    struct Config {
        std::string greeting = "* OK flood\r\n";
        std::vector<std::string> replies;
        std::string chunk;
        std::uint64_t maxBytes = 256u << 20;
        std::chrono::milliseconds maxTime{20000};
        bool acceptSecond = true;  // false: no reconnect is waited for
    };
    explicit FloodServer(Config config);
    ~FloodServer();  // stops and joins
    FloodServer(const FloodServer&) = delete;
    FloodServer& operator=(const FloodServer&) = delete;

    std::uint16_t port() const;
    // Waits for the server thread (bounded by maxTime twice plus a margin).
    void join();
    // After join(): whether the client hung up (rather than the byte or
    // time cap ending the flood).
    bool clientClosed() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace zr::test
