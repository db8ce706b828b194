// Engine objects for the micro-benchmarks: a session whose transport either
// holds its input in the read-ahead buffer (pure CPU cost of the readers) or
// is connected over loopback to a thread that keeps writing (the receive
// path as it runs in production).
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "BenchSupport.h"
#include "zrimap/engine.h"

namespace zrbench {

// A session whose socket is never connected: input is placed in the
// read-ahead buffer with feed(), and the readers find it there without a
// system call.
struct BufferedSession {
    zr::_zrImap imap;
    zr::LogNull log;
    zr::SocketParams sp{nullptr};

    BufferedSession() {
        imap.m_socket = zr::Socket2::createNewSocket2(0);
        imap.m_socket->incRefCount();
    }
    bool feed(const std::string& bytes) {
        return imap.m_socket->addRumBuffered(reinterpret_cast<const unsigned char*>(bytes.data()),
                                            static_cast<unsigned>(bytes.size()));
    }
};

// A thread that writes `pattern` over and over to whoever connects to its
// loopback port, until the reader closes the connection.
class LoopbackFeeder {
public:
    explicit LoopbackFeeder(std::string pattern) : m_pattern(std::move(pattern)) {
        m_listen = listenLoopback(m_port);
        if (m_listen < 0) return;
        m_thread = std::thread([this] {
            const int fd = ::accept(m_listen, nullptr, nullptr);
            if (fd < 0) return;
            // Bounded: each round sends the pattern once, and the loop ends
            // as soon as the reader is gone or stop() was called.
            while (!m_stop.load(std::memory_order_relaxed)) {
                if (!sendAllFd(fd, m_pattern.data(), m_pattern.size())) break;
            }
            ::close(fd);
        });
    }
    ~LoopbackFeeder() { stop(); }
    int port() const { return m_port; }
    bool ok() const { return m_listen >= 0; }
    // The reader must have closed its end first, or the sender may block.
    void stop() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
        if (m_listen >= 0) ::close(m_listen);
        m_listen = -1;
    }

private:
    std::string m_pattern;
    int m_listen = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// A session connected to a LoopbackFeeder through the engine's transport.
struct LoopbackSession {
    zr::_zrImap imap;
    zr::LogNull log;
    zr::SocketParams sp{nullptr};
    zr::_clsTls tls;
    bool connected = false;

    explicit LoopbackSession(int port) {
        zr::Socket2* s = zr::Socket2::createNewSocket2(0);
        s->incRefCount();
        imap.m_socket = s;
        connected = s->socket2Connect(zr::StringBuffer("127.0.0.1"), port, false, tls, 30000, sp, log);
        if (connected) s->setTcpNoDelay(true, log);
    }
    // Closes first so that a feeder blocked in send() wakes up.
    void close() { imap.closeImapSocket(); }
};

}  // namespace zrbench
