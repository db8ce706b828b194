// Shared pieces of the fuzz targets.
//
// The engine reads through a real Socket2, so the targets that fuzz server
// bytes give it a real peer: LoopbackPeer listens on 127.0.0.1 and, for each
// connection, writes the bytes of one fuzz input and then ends the stream.
// Every read the engine makes therefore ends at once (data or end of
// stream), no input waits for a time-out, and the whole path from the
// socket through the line reader to the parsers is exercised.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "zrimap/engine.h"

namespace zr::fuzz {

// Prints the message and aborts: harness failures must show as crashes.
[[noreturn]] void die(const char* what);

// One listener and one serving thread for the whole process.
class LoopbackPeer {
public:
    static LoopbackPeer& get();
    std::uint16_t port() const;
    // The next connection receives exactly `bytes`, then the end of the
    // stream; whatever the client sends is read and dropped. Returns at once.
    void play(std::string bytes);
    // Waits until the connection of the last play() is over: the client has
    // closed it, or the peer gave up on it (bounded).
    void finish();

private:
    LoopbackPeer();
    struct Impl;
    Impl* impl_;
};

// Open file descriptors of this process (/proc/self/fd).
int countOpenFds();

// A log that reads every text it is handed (so the sanitizers see a read of
// a dangling or unterminated string) and keeps nothing.
class TouchLog : public LogBase {
public:
    explicit TouchLog(bool verbose) { m_verboseLogging = verbose; }
    void logError(const char* text) override { touch(text); }
    void logInfo(const char* text) override { touch(text); }
    void enterContext(const char* name, bool) override { touch(name); }
    void leaveContext() override {}
    void logData(const char* name, const char* value) override {
        touch(name);
        touch(value);
    }
    std::size_t total = 0;

private:
    void touch(const char* s);
};

// Progress events read the same way; never asks to abort.
class TouchEvents : public ProgressEvent {
public:
    void onProgressInfo(const char* name, const char* value) override;
    std::size_t total = 0;
};

// An engine connected to the LoopbackPeer that plays "* OK fuzz\r\n" and
// then the given bytes. The destructor closes the connection, waits for the
// peer and checks that no file descriptor was left open.
class EngineSession {
public:
    // verbose: verbose logging; sessionLog: the engine keeps its session log.
    EngineSession(const std::uint8_t* bytes, std::size_t n, bool verbose, bool sessionLog);
    ~EngineSession();
    EngineSession(const EngineSession&) = delete;
    EngineSession& operator=(const EngineSession&) = delete;

    bool connected() const { return connected_; }

    _zrImap imap;
    TouchLog log;
    TouchEvents events;
    ProgressMonitor pm{&events};
    SocketParams sp{&pm};
    _clsTls tls;
    StringBuffer greeting;

private:
    int fdsBefore_;
    bool connected_ = false;
};

// A copy of the bytes as a NUL-terminated string (NUL bytes inside kept).
std::string asText(const std::uint8_t* data, std::size_t size);

// Sets the buffer ceiling the targets run under: small enough that a hostile
// size meets it at once instead of taking the machine's memory.
void useFuzzBufferLimit();

}  // namespace zr::fuzz
