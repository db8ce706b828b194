// A scripted stand-in for an IMAP server, used by the protocol tests.
//
// It listens on 127.0.0.1 on a port the kernel picks, runs in its own thread
// and plays a fixed script against one client connection after another.
// Every byte the client sends is recorded so tests can assert wire text
// exactly, and every reading step has a time-out so a test never hangs.
//
//   zr::test::ScriptedServer server;
//   server.send("* OK ready\r\n")
//         .expect("{tag} LOGIN joe secret\r\n")
//         .send("{tag} OK logged in\r\n");
//   server.start();
//   ... drive a client against 127.0.0.1:server.port() ...
//   EXPECT_TRUE(server.finish());          // the failure message is report()
//
// Tags: in expect(), a line starting with "{tag}" accepts any four lower-case
// letters there and remembers them; any other "{tag}", in expect() or in the
// send family, stands for the tag captured last (a step using it before any
// capture fails). expectRaw() bytes are taken literally.
//
// Connections: the first client connection is accepted before step 1.
// When the script ends (or a step fails) the server closes the connection and
// stops listening; use expectClose() as the last step to insist on the client
// hanging up first. Client bytes left unread at that point are not an error.
//
// Only the first failing step is reported; the script stops there.

#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zr::test {

// Makes wire text readable in failure messages: CR, LF and TAB become
// \r \n \t, a backslash becomes \\, any other byte outside printable ASCII
// becomes \xNN.
std::string visible(const std::string& bytes);

class ScriptedServer {
public:
    using Millis = std::chrono::milliseconds;

    // How the plain send() steps cut their bytes into separate writes, so one
    // scenario can be replayed against every way the reply may be fragmented.
    // TCP_NODELAY is set; a pause between writes makes separate arrival at the
    // client likely (it can never be guaranteed).
    struct Mode {
        enum class Kind { Whole, ByteByByte, SplitAt };
        Kind kind;
        std::size_t offset;  // SplitAt: first write is bytes [0, offset)
        Millis pause;        // sleep between two writes of one send

        static const Mode Whole;
        static const Mode ByteByByte;
        static constexpr Mode SplitAt(std::size_t k) { return Mode{Kind::SplitAt, k, Millis{0}}; }
        constexpr Mode withPause(Millis p) const { return Mode{kind, offset, p}; }

        // Whole, ByteByByte and SplitAt(k) for every k in [1, length).
        static std::vector<Mode> allFor(std::size_t length);
        // Identifier-safe, usable as a gtest parameter name: "SplitAt3_pause2ms".
        std::string name() const;
    };

    // Binds and listens immediately, so port() is valid before start().
    // Throws std::system_error if the socket cannot be set up.
    ScriptedServer();
    // Stops the script wherever it is, joins the thread, closes every socket.
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    std::uint16_t port() const;

    // Configuration and steps may only be added before start()
    // (std::logic_error otherwise).
    ScriptedServer& setMode(Mode mode);               // default Mode::Whole
    ScriptedServer& setStepTimeout(Millis timeout);   // default 5 s; also bounds accepts and writes

    // Writes shaped by the server-wide mode.
    ScriptedServer& send(const std::string& bytes);
    // Writes with a fixed shape, whatever the server-wide mode says.
    ScriptedServer& sendWhole(const std::string& bytes);
    ScriptedServer& sendBytewise(const std::string& bytes, Millis pause = Millis{0});

    // Reads one line through "\r\n" and compares it with `line` (placeholders expanded).
    ScriptedServer& expect(const std::string& line);
    // Reads exactly bytes.size() bytes and compares them literally.
    ScriptedServer& expectRaw(const std::string& bytes);
    // Reads one line through "\r\n" and accepts whatever it is.
    ScriptedServer& readLine();
    // Neither reads nor writes for that long.
    ScriptedServer& stall(Millis duration);
    // Closes the current connection; the client sees EOF.
    ScriptedServer& close();
    // Writes the first n bytes (placeholders expanded first), then closes.
    ScriptedServer& closeAfter(const std::string& bytes, std::size_t n);
    // Closes the current connection (if still open) and accepts the next one.
    ScriptedServer& acceptNext();
    // Passes once the client closes (or resets) without sending anything more.
    ScriptedServer& expectClose();
    // Writes `chunk` (taken literally) over and over, dropping whatever the
    // client sends meanwhile; passes once the client hangs up, fails if it
    // is still reading after `maxBytes`. The chunk is held once, however
    // long the flood runs.
    ScriptedServer& flood(const std::string& chunk, std::uint64_t maxBytes);

    // Starts playing the script in the server thread. Call once.
    void start();

    // Waits for the script to end, at most the step time-out plus all stalls
    // and pauses plus 10 s, then stops and joins the thread. Success only if
    // every step matched. The message is report(). Calling it again returns
    // the same verdict.
    ::testing::AssertionResult finish();

    // Human-readable outcome: which step failed, expected vs. received.
    std::string report() const;

    // Everything read from the client, over all connections.
    std::string received() const;
    std::size_t connectionCount() const;

    // Size of every write the server made, in order, over all connections;
    // lets tests check that a send shape really fragments the bytes.
    std::vector<std::size_t> writeSizes() const;

private:
    struct Step;
    struct Impl;
    ScriptedServer& add(Step step);
    std::unique_ptr<Impl> impl_;
};

inline constexpr ScriptedServer::Mode ScriptedServer::Mode::Whole{
    ScriptedServer::Mode::Kind::Whole, 0, ScriptedServer::Millis{0}};
inline constexpr ScriptedServer::Mode ScriptedServer::Mode::ByteByByte{
    ScriptedServer::Mode::Kind::ByteByByte, 0, ScriptedServer::Millis{0}};

}  // namespace zr::test
