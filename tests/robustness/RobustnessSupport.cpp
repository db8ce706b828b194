#include "RobustnessSupport.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "zrimap/base/BufferLimits.h"

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

BufferLimitGuard::BufferLimitGuard(std::uint64_t maxBytes) { BufferLimits::setMaxBytes(maxBytes); }
BufferLimitGuard::~BufferLimitGuard() { BufferLimits::setMaxBytes(0); }

namespace {

using Clock = std::chrono::steady_clock;

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
    std::atomic<std::uint64_t> flooded{0};
    std::atomic<bool> clientClosed{false};
    mutable std::mutex m;
    std::vector<std::string> lines;

    int acceptOne(Clock::time_point deadline) {
        while (!stop) {
            pollfd p{listenFd, POLLIN, 0};
            const int wait = std::min(msLeft(deadline), 100);
            if (wait == 0) return -1;
            if (::poll(&p, 1, wait) > 0) return ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        }
        return -1;
    }

    bool sendAll(int fd, const std::string& bytes, Clock::time_point deadline) {
        std::size_t sent = 0;
        while (sent < bytes.size() && !stop) {
            pollfd p{fd, POLLOUT, 0};
            if (::poll(&p, 1, std::min(msLeft(deadline), 100)) <= 0) {
                if (msLeft(deadline) == 0) return false;
                continue;
            }
            const ssize_t w = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (w < 0 && errno != EINTR && errno != EAGAIN) return false;
            if (w > 0) sent += static_cast<std::size_t>(w);
        }
        return sent == bytes.size();
    }

    bool readLine(int fd, std::string& pending, Clock::time_point deadline) {
        for (;;) {
            const std::size_t eol = pending.find("\r\n");
            if (eol != std::string::npos) {
                std::lock_guard<std::mutex> lock(m);
                lines.push_back(pending.substr(0, eol + 2));
                pending.erase(0, eol + 2);
                return true;
            }
            if (stop) return false;
            pollfd p{fd, POLLIN, 0};
            const int wait = std::min(msLeft(deadline), 100);
            if (wait == 0) return false;
            if (::poll(&p, 1, wait) <= 0) continue;
            char buf[4096];
            const ssize_t r = ::recv(fd, buf, sizeof buf, 0);
            if (r <= 0) return false;
            pending.append(buf, static_cast<std::size_t>(r));
        }
    }

    void flood(int fd, Clock::time_point deadline) {
        std::size_t offset = 0;  // into chunk, so partial writes keep the pattern
        char scratch[4096];
        while (!stop && flooded < cfg.maxBytes) {
            pollfd p{fd, POLLIN | POLLOUT, 0};
            const int wait = std::min(msLeft(deadline), 100);
            if (wait == 0) return;
            if (::poll(&p, 1, wait) <= 0) continue;
            if (p.revents & POLLIN) {
                const ssize_t r = ::recv(fd, scratch, sizeof scratch, MSG_DONTWAIT);
                if (r == 0 || (r < 0 && errno != EAGAIN && errno != EINTR)) {
                    clientClosed = true;
                    return;
                }
            }
            if (p.revents & (POLLERR | POLLHUP)) {
                clientClosed = true;
                return;
            }
            if (p.revents & POLLOUT) {
                const std::uint64_t left = cfg.maxBytes - flooded;
                std::size_t n = cfg.chunk.size() - offset;
                if (n > left) n = static_cast<std::size_t>(left);
                const ssize_t w = ::send(fd, cfg.chunk.data() + offset, n, MSG_NOSIGNAL | MSG_DONTWAIT);
                if (w < 0 && errno != EAGAIN && errno != EINTR) {
                    clientClosed = true;
                    return;
                }
                if (w > 0) {
                    flooded += static_cast<std::uint64_t>(w);
                    offset = (offset + static_cast<std::size_t>(w)) % cfg.chunk.size();
                }
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
        if (!cfg.acceptSecond) return;
        // The client's reconnect.
        fd = acceptOne(Clock::now() + cfg.maxTime);
        if (fd < 0) return;
        sendAll(fd, cfg.secondGreeting, Clock::now() + cfg.maxTime);
        // Keep it open until the client closes it or the time is up.
        char scratch[256];
        const Clock::time_point end = Clock::now() + cfg.maxTime;
        while (!stop) {
            pollfd p{fd, POLLIN, 0};
            const int wait = std::min(msLeft(end), 100);
            if (wait == 0) break;
            if (::poll(&p, 1, wait) > 0 && ::recv(fd, scratch, sizeof scratch, 0) <= 0) break;
        }
        ::close(fd);
    }
};

FloodServer::FloodServer(Config config) : impl_(new Impl) {
    impl_->cfg = std::move(config);
    if (impl_->cfg.chunk.empty() && impl_->cfg.maxBytes) impl_->cfg.maxBytes = 0;
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

std::uint64_t FloodServer::flooded() const { return impl_->flooded; }
bool FloodServer::clientClosed() const { return impl_->clientClosed; }

std::vector<std::string> FloodServer::clientLines() const {
    std::lock_guard<std::mutex> lock(impl_->m);
    return impl_->lines;
}

}  // namespace zr::test
