#include "ScriptedServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace zr::test {

namespace {

using Clock = std::chrono::steady_clock;
using Millis = ScriptedServer::Millis;

// Long enough to show a whole IMAP exchange, short enough to keep a report readable.
constexpr std::size_t kMaxShown = 2000;
const char kNoConnection[] = "no open connection (closed earlier; use acceptNext())";
const char kStopped[] = "server stopped";

std::string quote(const std::string& bytes, std::size_t limit = kMaxShown) {
    if (bytes.size() <= limit) return "\"" + visible(bytes) + "\"";
    return "\"" + visible(bytes.substr(0, limit)) + "\"... (" + std::to_string(bytes.size()) + " bytes in all)";
}

std::string ms(Millis d) { return std::to_string(d.count()) + " ms"; }

bool transient() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

void check(bool ok, const char* what) {
    if (!ok) throw std::system_error(errno, std::generic_category(), what);
}

void notStarted(bool started, const std::string& what) {
    if (started) throw std::logic_error("ScriptedServer: " + what + " after start()");
}

}  // namespace

std::string visible(const std::string& bytes) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : bytes) {
        switch (c) {
        case '\r': out += "\\r"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '\\': out += "\\\\"; break;
        default:
            if (c >= 0x20 && c < 0x7f) out += static_cast<char>(c);
            else out += {'\\', 'x', kHex[c >> 4], kHex[c & 15]};
        }
    }
    return out;
}

std::vector<ScriptedServer::Mode> ScriptedServer::Mode::allFor(std::size_t length) {
    std::vector<Mode> modes{Whole, ByteByByte};
    for (std::size_t k = 1; k < length; ++k) modes.push_back(SplitAt(k));
    return modes;
}

std::string ScriptedServer::Mode::name() const {
    std::string n = kind == Kind::Whole        ? "Whole"
                    : kind == Kind::ByteByByte ? "ByteByByte"
                                               : "SplitAt" + std::to_string(offset);
    if (pause.count() > 0) n += "_pause" + std::to_string(pause.count()) + "ms";
    return n;
}

// A step is its description for the report and what it does; the returned
// text is empty when it passed, else why it failed.
struct ScriptedServer::Step {
    std::string description;
    std::function<std::string(Impl&)> run;
};

struct ScriptedServer::Impl {
    // Set up by the test thread before start(); read-only for the server thread afterwards.
    std::vector<Step> steps;
    Mode mode = Mode::Whole;
    Millis stepTimeout{5000};
    Millis stallsAndPauses{0};  // of the stalls and the fixed-shape sends
    std::size_t modeBytes = 0;  // sent in the server-wide mode, a pause possible after each
    std::uint16_t port = 0;
    int listenFd = -1, wakeRead = -1, wakeWrite = -1;
    std::thread thread;
    bool started = false, joined = false;
    std::optional<Millis> overran;  // finish() stopped waiting after this long
    std::atomic<bool> stopping{false};

    // The server thread's while it runs.
    int conn = -1;
    std::string inbuf;  // read from the client but not yet consumed by a step
    std::string tag;    // captured last by "{tag}"
    bool clientGone = false;

    // Shared between the threads.
    mutable std::mutex mu;
    std::condition_variable cv;
    bool done = false;
    std::atomic<std::size_t> currentStep{0};  // 1-based; 0 = accepting the first connection
    std::string failure;
    std::vector<std::string> perConnection;
    std::vector<std::size_t> writes;

    ~Impl() {
        for (int fd : {conn, listenFd, wakeRead, wakeWrite})
            if (fd >= 0) ::close(fd);
    }

    void wake() {
        stopping = true;
        char b = 1;
        // Never drained, so every later poll sees it at once.
        [[maybe_unused]] ssize_t n = ::write(wakeWrite, &b, 1);
    }

    Clock::time_point deadline() const { return Clock::now() + stepTimeout; }

    // Empty once fd has one of `events` (errors and hang-ups surface in the
    // recv or send that follows), else why not.
    std::string waitFor(int fd, short events, Clock::time_point until) {
        for (;;) {
            const auto left = std::max<Millis::rep>(0, std::chrono::ceil<Millis>(until - Clock::now()).count());
            pollfd pfd[2] = {{wakeRead, POLLIN, 0}, {fd, events, 0}};
            const int r = ::poll(pfd, fd >= 0 ? 2 : 1, static_cast<int>(left));
            if (stopping) return kStopped;
            if (r > 0) return {};
            if (left == 0) return "timed out after " + ms(stepTimeout);
        }
    }

    // Sleeps without reading or writing; false if a stop cut it short.
    bool pause(Millis d) {
        waitFor(-1, 0, Clock::now() + d);
        return !stopping;
    }

    void record(const char* data, ssize_t n) {
        std::lock_guard<std::mutex> lock(mu);
        perConnection.back().append(data, static_cast<std::size_t>(n));
    }

    // Adds what the client sends next to inbuf; empty if something came, else why not.
    std::string fill(Clock::time_point until) {
        for (;;) {
            if (auto why = waitFor(conn, POLLIN, until); !why.empty()) return why;
            char buf[4096];
            const ssize_t n = ::recv(conn, buf, sizeof buf, 0);
            if (n > 0) {
                record(buf, n);
                inbuf.append(buf, static_cast<std::size_t>(n));
                return {};
            }
            clientGone = n == 0 || !transient();
            if (n == 0) return "client closed the connection";
            if (clientGone) return std::string("connection error (") + std::strerror(errno) + ")";
        }
    }

    // Reads until `ready` says how many bytes of inbuf are complete (npos: not yet) and moves them to `out`.
    std::string take(const std::string& what, const std::function<std::size_t()>& ready, std::string& out) {
        if (conn < 0) return kNoConnection;
        const auto until = deadline();
        std::size_t n;
        while ((n = ready()) == std::string::npos)
            if (auto why = fill(until); !why.empty())
                return why + " while waiting for " + what + "; received so far " + quote(inbuf);
        out = inbuf.substr(0, n);
        inbuf.erase(0, n);
        return {};
    }

    std::string takeLine(std::string& line) {
        return take("a line ending in \\r\\n", [this] {
            const auto end = inbuf.find("\r\n");
            return end == std::string::npos ? end : end + 2;
        }, line);
    }

    // Replaces every "{tag}" with the captured tag.
    std::string expand(std::string text, std::string& out) const {
        for (auto at = text.find("{tag}"); at != std::string::npos; at = text.find("{tag}", at + tag.size())) {
            if (tag.empty()) return "{tag} used before any tag was captured";
            text.replace(at, 5, tag);
        }
        out = std::move(text);
        return {};
    }

    std::string matchLine(const std::string& pattern, const std::string& line) {
        const bool capture = pattern.compare(0, 5, "{tag}") == 0;
        if (capture) {
            const auto lower = [](char c) { return c >= 'a' && c <= 'z'; };
            if (line.size() < 4 || !std::all_of(line.begin(), line.begin() + 4, lower))
                return "expected " + quote(pattern) + " (a tag of 4 lower-case letters first) but received " +
                       quote(line);
            tag = line.substr(0, 4);
        }
        std::string rest;
        if (auto err = expand(pattern.substr(capture ? 5 : 0), rest); !err.empty()) return err;
        if (line.compare(capture ? 4 : 0, std::string::npos, rest) == 0) return {};
        return "expected " + quote((capture ? "{tag}" : "") + rest) + " but received " + quote(line);
    }

    std::string writeAll(const std::string& data) {
        if (conn < 0) return kNoConnection;
        const auto until = deadline();
        for (std::size_t off = 0; off < data.size();) {
            const ssize_t n = ::send(conn, data.data() + off, data.size() - off, MSG_NOSIGNAL);
            if (n > 0) off += static_cast<std::size_t>(n);
            else if (!transient())
                return std::string("write failed, the client has gone away (") + std::strerror(errno) + ")";
            else if (auto why = waitFor(conn, POLLOUT, until); !why.empty()) return why + " writing to the client";
        }
        std::lock_guard<std::mutex> lock(mu);
        writes.push_back(data.size());
        return {};
    }

    std::string sendShaped(const std::string& bytes, const Mode& m) {
        std::string text;
        if (auto err = expand(bytes, text); !err.empty()) return err;
        for (std::size_t start = 0; start < text.size();) {
            std::size_t end = text.size();
            if (m.kind == Mode::Kind::ByteByByte) end = start + 1;
            if (m.kind == Mode::Kind::SplitAt && start < m.offset) end = std::min(m.offset, end);
            if (start > 0 && !pause(m.pause)) return "server stopped during a pause";
            if (auto err = writeAll(text.substr(start, end - start)); !err.empty()) return err;
            start = end;
        }
        return {};
    }

    std::string flood(const std::string& chunk, std::uint64_t maxBytes) {
        if (conn < 0) return kNoConnection;
        char buf[4096];
        for (std::uint64_t sent = 0; sent < maxBytes;) {
            ssize_t n;
            while ((n = ::recv(conn, buf, sizeof buf, 0)) > 0) record(buf, n);
            if (n == 0 || !transient()) return {};
            const std::size_t at = static_cast<std::size_t>(sent % chunk.size());
            const std::uint64_t len = std::min<std::uint64_t>(chunk.size() - at, maxBytes - sent);
            n = ::send(conn, chunk.data() + at, len, MSG_NOSIGNAL);
            if (n > 0) sent += static_cast<std::uint64_t>(n);
            else if (!transient()) return {};
            else if (auto why = waitFor(conn, POLLIN | POLLOUT, deadline()); !why.empty())
                return why + " while the client neither read the flood nor hung up";
        }
        return "the client read all " + std::to_string(maxBytes) + " bytes of the flood without hanging up";
    }

    std::string accept() {
        const auto until = deadline();
        for (;;) {
            if (auto why = waitFor(listenFd, POLLIN, until); !why.empty())
                return why + " while waiting for a client to connect";
            const int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0 && (transient() || errno == ECONNABORTED)) continue;
            if (fd < 0) return std::string("accept failed: ") + std::strerror(errno);
            int one = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            conn = fd;
            inbuf.clear();
            clientGone = false;
            std::lock_guard<std::mutex> lock(mu);
            perConnection.emplace_back();
            return {};
        }
    }

    void closeConnection() {
        if (conn < 0) return;
        // FIN first, then take in what is already queued: closing with unread
        // input would turn the FIN into a reset the client may see instead of EOF.
        ::shutdown(conn, SHUT_WR);
        char buf[4096];
        ssize_t n;
        while ((n = ::recv(conn, buf, sizeof buf, MSG_DONTWAIT)) > 0) record(buf, n);
        ::close(conn);
        conn = -1;
    }

    std::string awaitClose() {
        if (conn < 0) return kNoConnection;
        const auto until = deadline();
        std::string why;
        while (inbuf.empty() && (why = fill(until)).empty()) {
        }
        if (!inbuf.empty()) return "expected the client to close, but it sent " + quote(inbuf);
        return clientGone ? std::string() : why + " while waiting for the client to close";
    }

    void run() {
        std::string err = accept();
        for (std::size_t i = 0; err.empty() && i < steps.size(); ++i) {
            currentStep = i + 1;
            err = steps[i].run(*this);
        }
        closeConnection();
        ::close(listenFd);  // later connection attempts are refused instead of hanging
        listenFd = -1;
        std::lock_guard<std::mutex> lock(mu);
        failure = err;
        done = true;
        cv.notify_all();
    }

    std::string stepName(std::size_t index) const {
        if (index == 0) return "the start (accepting the first connection)";
        return "step " + std::to_string(index) + " of " + std::to_string(steps.size()) + ", " +
               steps[index - 1].description;
    }

    std::string reportLocked() const {
        if (!started) return "ScriptedServer: start() was never called";
        if (!done) return "ScriptedServer: still running, at " + stepName(currentStep);
        if (failure.empty() && !overran)
            return "ScriptedServer: all " + std::to_string(steps.size()) + " steps matched";
        std::string r = "ScriptedServer failed at " + stepName(currentStep) + ":\n  ";
        if (overran) r += "the script did not finish within " + ms(*overran) + "; ";
        r += failure;
        if (perConnection.empty()) return r;
        const std::string& last = perConnection.back();
        const std::string shown =
            last.size() <= kMaxShown ? quote(last) : "...\"" + visible(last.substr(last.size() - kMaxShown)) + "\"";
        return r + "\n  client bytes on connection " + std::to_string(perConnection.size()) + ": " + shown;
    }

    static Step sendStep(const std::string& name, const std::string& bytes, std::optional<Mode> shape) {
        return {name + "(" + quote(bytes, 80) + ")",
                [bytes, shape](Impl& d) { return d.sendShaped(bytes, shape.value_or(d.mode)); }};
    }
};

ScriptedServer::ScriptedServer() : impl_(std::make_unique<Impl>()) {
    int pipefd[2];
    check(::pipe2(pipefd, O_CLOEXEC | O_NONBLOCK) == 0, "pipe2");
    impl_->wakeRead = pipefd[0];
    impl_->wakeWrite = pipefd[1];
    int& fd = impl_->listenFd;
    fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    check(fd >= 0, "socket");
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    check(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0, "bind");
    check(::listen(fd, 16) == 0, "listen");
    check(::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0, "getsockname");
    impl_->port = ntohs(addr.sin_port);
}

ScriptedServer::~ScriptedServer() {
    if (impl_->thread.joinable()) {
        impl_->wake();
        impl_->thread.join();
    }
}

std::uint16_t ScriptedServer::port() const { return impl_->port; }

ScriptedServer& ScriptedServer::add(Step step) {
    notStarted(impl_->started, step.description);
    impl_->steps.push_back(std::move(step));
    return *this;
}

ScriptedServer& ScriptedServer::setMode(Mode mode) {
    notStarted(impl_->started, "setMode()");
    impl_->mode = mode;
    return *this;
}

ScriptedServer& ScriptedServer::setStepTimeout(Millis timeout) {
    notStarted(impl_->started, "setStepTimeout()");
    impl_->stepTimeout = timeout;
    return *this;
}

ScriptedServer& ScriptedServer::send(const std::string& bytes) {
    impl_->modeBytes += bytes.size();
    return add(Impl::sendStep("send", bytes, std::nullopt));
}

ScriptedServer& ScriptedServer::sendWhole(const std::string& bytes) {
    return add(Impl::sendStep("sendWhole", bytes, Mode::Whole));
}

ScriptedServer& ScriptedServer::sendBytewise(const std::string& bytes, Millis pause) {
    impl_->stallsAndPauses += pause * static_cast<Millis::rep>(bytes.size());
    return add(Impl::sendStep("sendBytewise", bytes, Mode::ByteByByte.withPause(pause)));
}

ScriptedServer& ScriptedServer::expect(const std::string& line) {
    return add({"expect(" + quote(line, 80) + ")", [line](Impl& d) {
                    std::string got;
                    auto err = d.takeLine(got);
                    return err.empty() ? d.matchLine(line, got) : err;
                }});
}

ScriptedServer& ScriptedServer::expectRaw(const std::string& bytes) {
    return add({"expectRaw(" + quote(bytes, 80) + ")", [bytes](Impl& d) {
                    const std::size_t n = bytes.size();
                    std::string got;
                    auto err = d.take(std::to_string(n) + " bytes",
                                      [&] { return d.inbuf.size() >= n ? n : std::string::npos; }, got);
                    if (err.empty() && got != bytes) err = "expected " + quote(bytes) + " but received " + quote(got);
                    return err;
                }});
}

ScriptedServer& ScriptedServer::readLine() {
    return add({"readLine()", [](Impl& d) { std::string line; return d.takeLine(line); }});
}

ScriptedServer& ScriptedServer::stall(Millis duration) {
    impl_->stallsAndPauses += duration;
    return add({"stall(" + ms(duration) + ")",
                [duration](Impl& d) { return d.pause(duration) ? std::string() : "server stopped during the stall"; }});
}

ScriptedServer& ScriptedServer::close() {
    return add({"close()", [](Impl& d) { d.closeConnection(); return std::string(); }});
}

ScriptedServer& ScriptedServer::closeAfter(const std::string& bytes, std::size_t n) {
    return add({"closeAfter(" + quote(bytes, 80) + ", " + std::to_string(n) + ")", [bytes, n](Impl& d) {
                    std::string text;
                    auto err = d.expand(bytes, text);
                    if (err.empty()) err = d.writeAll(text.substr(0, n));
                    d.closeConnection();
                    return err;
                }});
}

ScriptedServer& ScriptedServer::acceptNext() {
    return add({"acceptNext()", [](Impl& d) { d.closeConnection(); return d.accept(); }});
}

ScriptedServer& ScriptedServer::expectClose() {
    return add({"expectClose()", [](Impl& d) { return d.awaitClose(); }});
}

ScriptedServer& ScriptedServer::flood(const std::string& chunk, std::uint64_t maxBytes) {
    if (chunk.empty()) throw std::invalid_argument("ScriptedServer: flood() needs a chunk");
    return add({"flood(" + quote(chunk, 80) + ", " + std::to_string(maxBytes) + ")",
                [chunk, maxBytes](Impl& d) { return d.flood(chunk, maxBytes); }});
}

void ScriptedServer::start() {
    notStarted(impl_->started, "start()");
    impl_->started = true;
    impl_->thread = std::thread([impl = impl_.get()] { impl->run(); });
}

::testing::AssertionResult ScriptedServer::finish() {
    Impl& d = *impl_;
    if (d.started && !d.joined) {
        const Millis bound = d.stepTimeout + Millis{10000} + d.stallsAndPauses +
                             d.mode.pause * static_cast<Millis::rep>(d.modeBytes);
        {
            std::unique_lock<std::mutex> lock(d.mu);
            if (!d.cv.wait_for(lock, bound, [&] { return d.done; })) d.overran = bound;
        }
        d.wake();
        d.thread.join();
        d.joined = true;
    }
    std::lock_guard<std::mutex> lock(d.mu);
    const bool ok = d.started && d.failure.empty() && !d.overran;
    return (ok ? ::testing::AssertionSuccess() : ::testing::AssertionFailure()) << d.reportLocked();
}

std::string ScriptedServer::report() const {
    std::lock_guard<std::mutex> lock(impl_->mu);
    return impl_->reportLocked();
}

std::string ScriptedServer::received() const {
    std::lock_guard<std::mutex> lock(impl_->mu);
    std::string all;
    for (const auto& c : impl_->perConnection) all += c;
    return all;
}

std::size_t ScriptedServer::connectionCount() const {
    std::lock_guard<std::mutex> lock(impl_->mu);
    return impl_->perConnection.size();
}

std::vector<std::size_t> ScriptedServer::writeSizes() const {
    std::lock_guard<std::mutex> lock(impl_->mu);
    return impl_->writes;
}

}  // namespace zr::test
