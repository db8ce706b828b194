#include "RobustnessSupport.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <system_error>
#include <thread>


namespace zr::test {

int openFdCount() {
    DIR* d = ::opendir("/proc/self/fd");
    if (!d) return -1;
    int n = 0;
    while (dirent* e = ::readdir(d))
        if (e->d_name[0] != '.') ++n;
    ::closedir(d);
    return n - 1;  // the directory stream's own descriptor
}

long peakRssKb() {
    rusage u{};
    ::getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss;
}

long msSince(Clock::time_point t) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

void mixedSummary(ImapMsgSummary& s) {
    const char* parts[][3] = {{"", "multipart", "mixed"}, {"1", "text", "plain"}, {"2", "application", "pdf"}};
    for (const auto& p : parts) {
        auto* part = new ImapMsgPart;
        part->m_partId.setString(p[0]);
        part->m_contentType.setString(p[1]);
        part->m_subType.setString(p[2]);
        s.appendPart(part);
    }
    s.m_numAttachments = 1;
    s.m_loaded = 1;
}

std::string lit(const std::string& bytes) { return "{" + std::to_string(bytes.size()) + "}\r\n" + bytes; }

BufferLimitGuard::BufferLimitGuard(std::uint64_t maxBytes) { BufferLimits::setMaxBytes(maxBytes); }
BufferLimitGuard::~BufferLimitGuard() { BufferLimits::setMaxBytes(0); }

namespace {

int msLeft(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

struct FloodServer::Impl {
    Config cfg;
    int listenFd = -1;
    std::uint16_t port = 0;
    std::thread thread;
    std::atomic<bool> stop{false};
    std::atomic<bool> clientClosed{false};

    // The events of `events` that occurred on fd, or 0 once the deadline
    // has passed or the server is stopping. Waits in short slices so a stop
    // is seen soon.
    short waitFor(int fd, short events, Clock::time_point deadline) {
        while (!stop) {
            const int wait = std::min(msLeft(deadline), 100);
            if (wait == 0) return 0;
            pollfd p{fd, events, 0};
            if (::poll(&p, 1, wait) > 0) return p.revents;
        }
        return 0;
    }

    int acceptOne(Clock::time_point deadline) {
        return waitFor(listenFd, POLLIN, deadline) ? ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    }

    bool sendAll(int fd, const std::string& bytes, Clock::time_point deadline) {
        for (std::size_t sent = 0; sent < bytes.size();) {
            if (!waitFor(fd, POLLOUT, deadline)) return false;
            const ssize_t w = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (w < 0 && errno != EINTR && errno != EAGAIN) return false;
            if (w > 0) sent += static_cast<std::size_t>(w);
        }
        return true;
    }

    bool readLine(int fd, std::string& pending, Clock::time_point deadline) {
        char buf[4096];
        while (pending.find("\r\n") == std::string::npos) {
            if (!waitFor(fd, POLLIN, deadline)) return false;
            const ssize_t r = ::recv(fd, buf, sizeof buf, 0);
            if (r <= 0) return false;
            pending.append(buf, static_cast<std::size_t>(r));
        }
        pending.erase(0, pending.find("\r\n") + 2);
        return true;
    }

    void flood(int fd, Clock::time_point deadline) {
        std::uint64_t flooded = 0;
        std::size_t offset = 0;  // into chunk, so partial writes keep the pattern
        char scratch[4096];
        while (flooded < cfg.maxBytes) {
            const short ev = waitFor(fd, POLLIN | POLLOUT, deadline);
            if (!ev) return;
            ssize_t r = 1;
            if (ev & POLLIN) r = ::recv(fd, scratch, sizeof scratch, MSG_DONTWAIT);
            if (ev & POLLOUT && r != 0) {
                const std::size_t n = static_cast<std::size_t>(
                    std::min<std::uint64_t>(cfg.chunk.size() - offset, cfg.maxBytes - flooded));
                r = ::send(fd, cfg.chunk.data() + offset, n, MSG_NOSIGNAL | MSG_DONTWAIT);
                if (r > 0) {
                    flooded += static_cast<std::uint64_t>(r);
                    offset = (offset + static_cast<std::size_t>(r)) % cfg.chunk.size();
                }
            }
            if (r == 0 || (r < 0 && errno != EAGAIN && errno != EINTR) || (ev & (POLLERR | POLLHUP))) {
                clientClosed = true;
                return;
            }
        }
    }

    void run() {
        const Clock::time_point deadline = Clock::now() + cfg.maxTime;
        int fd = acceptOne(deadline);
        if (fd < 0) return;
        std::string pending;
        bool ok = sendAll(fd, cfg.greeting, deadline);
        for (std::size_t i = 0; ok && i < cfg.replies.size(); ++i)
            ok = readLine(fd, pending, deadline) && sendAll(fd, cfg.replies[i], deadline);
        if (ok && !cfg.chunk.empty()) flood(fd, deadline);
        ::close(fd);
        if (!cfg.acceptSecond || (fd = acceptOne(Clock::now() + cfg.maxTime)) < 0) return;
        const Clock::time_point end = Clock::now() + cfg.maxTime;
        sendAll(fd, "* OK again\r\n", end);
        // Keep it open until the client closes it or the time is up.
        char scratch[256];
        while (waitFor(fd, POLLIN, end) && ::recv(fd, scratch, sizeof scratch, 0) > 0) {
        }
        ::close(fd);
    }
};

FloodServer::FloodServer(Config config) : impl_(new Impl) {
    impl_->cfg = std::move(config);
    impl_->listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (impl_->listenFd < 0) throw std::system_error(errno, std::generic_category(), "socket");
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (::bind(impl_->listenFd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::listen(impl_->listenFd, 4) != 0 ||
        ::getsockname(impl_->listenFd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        const int e = errno;
        ::close(impl_->listenFd);
        throw std::system_error(e, std::generic_category(), "bind/listen on 127.0.0.1");
    }
    impl_->port = ntohs(a.sin_port);
    impl_->thread = std::thread([this] { impl_->run(); });
}

FloodServer::~FloodServer() {
    impl_->stop = true;
    if (impl_->thread.joinable()) impl_->thread.join();
    ::close(impl_->listenFd);
}

std::uint16_t FloodServer::port() const { return impl_->port; }

void FloodServer::join() {
    if (impl_->thread.joinable()) impl_->thread.join();
}

bool FloodServer::clientClosed() const { return impl_->clientClosed; }

}  // namespace zr::test
