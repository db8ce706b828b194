#include "FuzzSupport.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

namespace zr::fuzz {

namespace {

using Clock = std::chrono::steady_clock;

// Generous bounds: they only end a connection the client never uses or
// never closes, which would be a harness bug.
constexpr int kAcceptWaitMs = 5000;
constexpr int kConnectionLifetimeMs = 20000;

int msLeft(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

void die(const char* what) {
    std::fprintf(stderr, "fuzz harness: %s (errno %d: %s)\n", what, errno, std::strerror(errno));
    std::fflush(stderr);
    std::abort();
}

struct LoopbackPeer::Impl {
    int listenFd = -1;
    std::uint16_t port = 0;
    std::mutex m;
    std::condition_variable cv;
    std::string job;
    bool hasJob = false;
    bool busy = false;
    std::thread thread;

    void serveOne(const std::string& bytes) {
        pollfd lp{listenFd, POLLIN, 0};
        if (::poll(&lp, 1, kAcceptWaitMs) <= 0) return;  // the client never came
        const int fd = ::accept(listenFd, nullptr, nullptr);
        if (fd < 0) return;
        const int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kConnectionLifetimeMs);

        // Write everything, reading (and dropping) what the client sends
        // meanwhile so that neither side can fill its buffers and stall.
        std::size_t sent = 0;
        bool open = true;
        char scratch[4096];
        while (open && sent < bytes.size()) {
            pollfd p{fd, POLLIN | POLLOUT, 0};
            if (::poll(&p, 1, msLeft(deadline)) <= 0) {
                open = false;
                break;
            }
            if (p.revents & POLLIN) {
                const ssize_t r = ::recv(fd, scratch, sizeof scratch, 0);
                if (r <= 0) open = false;
            }
            if (open && (p.revents & POLLOUT)) {
                const ssize_t w = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
                if (w < 0 && errno != EINTR && errno != EAGAIN) open = false;
                if (w > 0) sent += static_cast<std::size_t>(w);
            }
            if (p.revents & (POLLERR | POLLHUP | POLLNVAL)) open = false;
        }
        ::shutdown(fd, SHUT_WR);
        // Wait for the client to close; reading first keeps unread client
        // bytes from turning our close into a reset that could cut off
        // server bytes the client has not read yet.
        while (open) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, msLeft(deadline)) <= 0) break;
            const ssize_t r = ::recv(fd, scratch, sizeof scratch, 0);
            if (r <= 0) break;
        }
        // An abortive close leaves no TIME_WAIT behind on either side, so
        // millions of connections do not exhaust the loopback ports.
        const linger abortive{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
        ::close(fd);
    }

    void run() {
        for (;;) {
            std::string bytes;
            {
                std::unique_lock<std::mutex> lock(m);
                cv.wait(lock, [&] { return hasJob; });
                bytes.swap(job);
                hasJob = false;
                busy = true;
            }
            serveOne(bytes);
            {
                std::lock_guard<std::mutex> lock(m);
                busy = false;
            }
            cv.notify_all();
        }
    }
};

LoopbackPeer::LoopbackPeer() : impl_(new Impl) {
    impl_->listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (impl_->listenFd < 0) die("socket");
    const int one = 1;
    ::setsockopt(impl_->listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = 0;
    if (::bind(impl_->listenFd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) die("bind 127.0.0.1");
    if (::listen(impl_->listenFd, 16) != 0) die("listen");
    socklen_t len = sizeof a;
    if (::getsockname(impl_->listenFd, reinterpret_cast<sockaddr*>(&a), &len) != 0) die("getsockname");
    impl_->port = ntohs(a.sin_port);
    impl_->thread = std::thread([this] { impl_->run(); });
    impl_->thread.detach();  // lives as long as the process
}

LoopbackPeer& LoopbackPeer::get() {
    static LoopbackPeer* peer = new LoopbackPeer;  // never destroyed: the thread outlives main
    return *peer;
}

std::uint16_t LoopbackPeer::port() const { return impl_->port; }

void LoopbackPeer::play(std::string bytes) {
    {
        std::lock_guard<std::mutex> lock(impl_->m);
        if (impl_->hasJob || impl_->busy) die("play() while the previous connection is still open");
        impl_->job = std::move(bytes);
        impl_->hasJob = true;
    }
    impl_->cv.notify_all();
}

void LoopbackPeer::finish() {
    std::unique_lock<std::mutex> lock(impl_->m);
    const bool done = impl_->cv.wait_for(lock, std::chrono::milliseconds(kAcceptWaitMs + kConnectionLifetimeMs + 5000),
                                         [&] { return !impl_->hasJob && !impl_->busy; });
    if (!done) die("the loopback peer did not finish its connection");
}

int countOpenFds() {
    DIR* d = ::opendir("/proc/self/fd");
    if (!d) die("opendir /proc/self/fd");
    int n = 0;
    while (dirent* e = ::readdir(d))
        if (e->d_name[0] != '.') ++n;
    ::closedir(d);
    return n - 1;  // the directory stream's own descriptor
}

void TouchLog::touch(const char* s) {
    if (s) total += std::strlen(s);
}

void TouchEvents::onProgressInfo(const char* name, const char* value) {
    if (name) total += std::strlen(name);
    if (value) total += std::strlen(value);
}

EngineSession::EngineSession(const std::uint8_t* bytes, std::size_t n, bool verbose, bool sessionLog)
    : log(verbose), fdsBefore_(0) {
    // The peer's own listener must exist before the count is taken.
    LoopbackPeer& peer = LoopbackPeer::get();
    fdsBefore_ = countOpenFds();
    std::string stream("* OK fuzz\r\n");
    stream.append(reinterpret_cast<const char*>(bytes), n);
    peer.play(std::move(stream));
    imap.m_keepSessionLog = sessionLog;
    // Every read ends by data or by the end of the stream; the time-out
    // only matters if that ever stops being true.
    imap.put_ReadTimeout(5);
    connected_ = imap.connectToImapServer(StringBuffer("127.0.0.1"), peer.port(), greeting, tls, sp, log);
    if (!connected_) {
        imap.closeImapSocket();
        LoopbackPeer::get().finish();
    }
}

EngineSession::~EngineSession() {
    imap.closeImapSocket();
    if (connected_) LoopbackPeer::get().finish();
    if (countOpenFds() != fdsBefore_) die("a file descriptor was left open");
}

std::string asText(const std::uint8_t* data, std::size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

void useFuzzBufferLimit() { BufferLimits::setMaxBytes(8u << 20); }

}  // namespace zr::fuzz
