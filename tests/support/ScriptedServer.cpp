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
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
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

std::string quote(const std::string& bytes, std::size_t limit = kMaxShown) {
    if (bytes.size() <= limit) return "\"" + visible(bytes) + "\"";
    return "\"" + visible(bytes.substr(0, limit)) + "\"... (" + std::to_string(bytes.size()) +
           " bytes in all)";
}

std::string tail(const std::string& bytes) {
    if (bytes.size() <= kMaxShown) return quote(bytes);
    return "...\"" + visible(bytes.substr(bytes.size() - kMaxShown)) + "\"";
}

std::string ms(Millis d) { return std::to_string(d.count()) + " ms"; }

std::system_error sysError(const char* what) {
    return std::system_error(errno, std::generic_category(), what);
}

void setNonBlocking(int fd) {
    int flags = ::fcntl(fd, F_GETFL, 0);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) throw sysError("fcntl");
}

// Parses "{tag}" (slot 0) or "{tagN}" at `pos`; returns the slot and sets `len`, or -1.
int placeholderAt(const std::string& s, std::size_t pos, std::size_t& len) {
    if (s.compare(pos, 4, "{tag") != 0) return -1;
    std::size_t i = pos + 4;
    int slot = 0;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9' && i - pos < 8) slot = slot * 10 + (s[i++] - '0');
    if (i >= s.size() || s[i] != '}') return -1;
    if (i == pos + 4) slot = 0;
    else if (slot == 0) return -1;  // "{tag0}" is not a thing; keep it literal
    len = i + 1 - pos;
    return slot;
}

std::string placeholderName(int slot) {
    return slot == 0 ? "{tag}" : "{tag" + std::to_string(slot) + "}";
}

bool isTag(const std::string& s) {
    return s.size() >= 4 && std::all_of(s.begin(), s.begin() + 4, [](char c) { return c >= 'a' && c <= 'z'; });
}

}  // namespace

std::string visible(const std::string& bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (unsigned char c : bytes) {
        switch (c) {
        case '\r': out += "\\r"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '\\': out += "\\\\"; break;
        default:
            if (c >= 0x20 && c < 0x7f) {
                out += static_cast<char>(c);
            } else {
                char hex[5];
                std::snprintf(hex, sizeof hex, "\\x%02X", c);
                out += hex;
            }
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

struct ScriptedServer::Step {
    enum class Kind { Send, Expect, ExpectRaw, ReadLine, Stall, Close, CloseAfter, AcceptNext, ExpectClose };
    Step(Kind k, std::string b, std::string d) : kind(k), bytes(std::move(b)), description(std::move(d)) {}
    Kind kind;
    std::string bytes;
    std::string description;
    // Send: a fixed shape overrides the server-wide mode.
    bool fixedShape = false;
    Mode shape = Mode::Whole;
    std::vector<std::size_t> offsets;  // fixed shape with several cuts
    Millis duration{0};                // stall
    std::size_t count = 0;             // closeAfter
};

struct ScriptedServer::Impl {
    // Set up by the test thread before start(); read-only for the server thread afterwards.
    std::vector<Step> steps;
    Mode mode = Mode::Whole;
    Millis stepTimeout{5000};
    std::uint16_t port = 0;
    int wakeRead = -1;
    int wakeWrite = -1;
    std::thread thread;
    bool started = false;
    bool joined = false;
    bool finishedInTime = true;
    Millis bound{0};
    std::atomic<bool> stopping{false};

    // Owned by the server thread while it runs, by whoever holds the object otherwise.
    int listenFd = -1;
    int conn = -1;
    std::string inbuf;  // read from the client but not yet consumed by a step
    std::map<int, std::string> tags;

    // Shared between the threads.
    mutable std::mutex mu;
    std::condition_variable cv;
    bool done = false;
    std::size_t currentStep = 0;  // 1-based; 0 = accepting the first connection
    std::string failure;          // empty while everything matched
    std::vector<std::string> perConnection;
    std::vector<std::size_t> writes;

    enum class Wait { Ready, Timeout, Stopped };

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

    // Waits until `fd` has one of `events`, the deadline passes or a stop is requested.
    Wait waitFor(int fd, short events, Clock::time_point deadline) {
        for (;;) {
            if (stopping) return Wait::Stopped;
            auto left = std::chrono::ceil<Millis>(deadline - Clock::now());
            pollfd pfd[2] = {{wakeRead, POLLIN, 0}, {fd, events, 0}};
            int r = ::poll(pfd, fd >= 0 ? 2 : 1, static_cast<int>(std::max<Millis::rep>(0, left.count())));
            if (r < 0 && errno == EINTR) continue;
            if (pfd[0].revents) return Wait::Stopped;
            if (r > 0) return Wait::Ready;  // errors and hang-ups surface in the following recv/send
            if (left.count() <= 0) return Wait::Timeout;
        }
    }

    // Sleeps without reading or writing; false if a stop cut it short.
    bool pause(Millis d) {
        auto deadline = Clock::now() + d;
        while (Clock::now() < deadline)
            if (waitFor(-1, 0, deadline) == Wait::Stopped) return false;
        return true;
    }

    Clock::time_point deadline() const { return Clock::now() + stepTimeout; }

    void record(const char* data, std::size_t n) {
        std::lock_guard<std::mutex> lock(mu);
        perConnection.back().append(data, n);
    }

    enum class Fill { Data, Eof, Reset, Timeout, Stopped };

    // Reads whatever the client has sent into inbuf.
    Fill fill(Clock::time_point until, std::string& error) {
        for (;;) {
            Wait w = waitFor(conn, POLLIN, until);
            if (w == Wait::Timeout) return Fill::Timeout;
            if (w == Wait::Stopped) return Fill::Stopped;
            char buf[4096];
            ssize_t n = ::recv(conn, buf, sizeof buf, 0);
            if (n > 0) {
                record(buf, static_cast<std::size_t>(n));
                inbuf.append(buf, static_cast<std::size_t>(n));
                return Fill::Data;
            }
            if (n == 0) return Fill::Eof;
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
            error = std::strerror(errno);
            return Fill::Reset;
        }
    }

    std::string describeStop(Fill f, const std::string& what, const std::string& error) {
        std::string got = "; received so far " + quote(inbuf);
        switch (f) {
        case Fill::Eof: return "client closed the connection while waiting for " + what + got;
        case Fill::Reset: return "connection error (" + error + ") while waiting for " + what + got;
        case Fill::Timeout: return "timed out after " + ms(stepTimeout) + " waiting for " + what + got;
        default: return "server stopped while waiting for " + what + got;
        }
    }

    // Takes the next complete line (with its CRLF) out of inbuf.
    std::string takeLine(std::string& line) {
        if (conn < 0) return "no open connection (closed earlier; use acceptNext())";
        auto until = deadline();
        for (;;) {
            auto pos = inbuf.find("\r\n");
            if (pos != std::string::npos) {
                line = inbuf.substr(0, pos + 2);
                inbuf.erase(0, pos + 2);
                return {};
            }
            std::string error;
            Fill f = fill(until, error);
            if (f != Fill::Data) return describeStop(f, "a line ending in \\r\\n", error);
        }
    }

    std::string takeBytes(std::size_t n, std::string& out) {
        if (conn < 0) return "no open connection (closed earlier; use acceptNext())";
        auto until = deadline();
        while (inbuf.size() < n) {
            std::string error;
            Fill f = fill(until, error);
            if (f != Fill::Data) return describeStop(f, std::to_string(n) + " bytes", error);
        }
        out = inbuf.substr(0, n);
        inbuf.erase(0, n);
        return {};
    }

    // Replaces tag placeholders with captured tags; `from` skips a capture at the start.
    std::string expand(const std::string& text, std::string& out, std::size_t from = 0) const {
        out.clear();
        for (std::size_t i = from; i < text.size();) {
            std::size_t len = 0;
            int slot = placeholderAt(text, i, len);
            if (slot < 0) {
                out += text[i++];
                continue;
            }
            auto it = tags.find(slot);
            if (it == tags.end()) return placeholderName(slot) + " used before any tag was captured into it";
            out += it->second;
            i += len;
        }
        return {};
    }

    std::string writeAll(const std::string& data) {
        if (conn < 0) return "no open connection (closed earlier; use acceptNext())";
        std::size_t off = 0;
        auto until = deadline();
        while (off < data.size()) {
            ssize_t n = ::send(conn, data.data() + off, data.size() - off, MSG_NOSIGNAL);
            if (n > 0) {
                off += static_cast<std::size_t>(n);
                continue;
            }
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                Wait w = waitFor(conn, POLLOUT, until);
                if (w == Wait::Timeout) return "timed out after " + ms(stepTimeout) + " writing to the client";
                if (w == Wait::Stopped) return "server stopped while writing";
                continue;
            }
            return std::string("write failed, the client has gone away (") + std::strerror(errno) + ")";
        }
        std::lock_guard<std::mutex> lock(mu);
        writes.push_back(data.size());
        return {};
    }

    std::string sendShaped(const std::string& bytes, const Step& step) {
        Mode m = step.fixedShape ? step.shape : mode;
        std::vector<std::size_t> cuts;
        if (m.kind == Mode::Kind::ByteByByte)
            for (std::size_t i = 1; i < bytes.size(); ++i) cuts.push_back(i);
        else if (m.kind == Mode::Kind::SplitAt)
            cuts = step.fixedShape && !step.offsets.empty() ? step.offsets : std::vector<std::size_t>{m.offset};
        std::sort(cuts.begin(), cuts.end());
        cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
        cuts.erase(std::remove_if(cuts.begin(), cuts.end(), [&](std::size_t c) { return c == 0 || c >= bytes.size(); }),
                   cuts.end());
        cuts.push_back(bytes.size());
        std::size_t start = 0;
        for (std::size_t c : cuts) {
            if (c <= start) continue;  // empty send: nothing to write
            if (start > 0 && m.pause.count() > 0 && !pause(m.pause)) return "server stopped during a pause";
            if (auto err = writeAll(bytes.substr(start, c - start)); !err.empty()) return err;
            start = c;
        }
        return {};
    }

    std::string accept() {
        auto until = deadline();
        for (;;) {
            Wait w = waitFor(listenFd, POLLIN, until);
            if (w == Wait::Timeout) return "no client connected within " + ms(stepTimeout);
            if (w == Wait::Stopped) return "server stopped while waiting for a client to connect";
            int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR || errno == ECONNABORTED) continue;
                return std::string("accept failed: ") + std::strerror(errno);
            }
            int one = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            conn = fd;
            inbuf.clear();
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
        while ((n = ::recv(conn, buf, sizeof buf, MSG_DONTWAIT)) > 0) record(buf, static_cast<std::size_t>(n));
        ::close(conn);
        conn = -1;
    }

    std::string runStep(const Step& s) {
        using K = Step::Kind;
        std::string text;
        switch (s.kind) {
        case K::Send:
        case K::CloseAfter: {
            if (auto err = expand(s.bytes, text); !err.empty()) return err;
            if (s.kind == K::Send) return sendShaped(text, s);
            if (auto err = writeAll(text.substr(0, std::min(s.count, text.size()))); !err.empty()) return err;
            closeConnection();
            return {};
        }
        case K::Expect: {
            std::string line;
            if (auto err = takeLine(line); !err.empty()) return err;
            return matchLine(s.bytes, line);
        }
        case K::ExpectRaw: {
            if (auto err = takeBytes(s.bytes.size(), text); !err.empty()) return err;
            return text == s.bytes ? std::string()
                                   : "expected " + quote(s.bytes) + " but received " + quote(text);
        }
        case K::ReadLine: return takeLine(text);
        case K::Stall: return pause(s.duration) ? std::string() : "server stopped during the stall";
        case K::Close: closeConnection(); return {};
        case K::AcceptNext: closeConnection(); return accept();
        case K::ExpectClose: return awaitClose();
        }
        return "unknown step";
    }

    std::string matchLine(const std::string& pattern, const std::string& line) {
        std::size_t len = 0;
        int slot = placeholderAt(pattern, 0, len);
        std::size_t skip = 0;
        if (slot >= 0) {
            if (!isTag(line))
                return "expected " + quote(pattern) + " (a tag of 4 lower-case letters first) but received " +
                       quote(line);
            tags[0] = tags[slot] = line.substr(0, 4);
            skip = 4;
        }
        std::string rest;
        if (auto err = expand(pattern, rest, slot >= 0 ? len : 0); !err.empty()) return err;
        if (line.compare(skip, std::string::npos, rest) == 0) return {};
        std::string shown = slot >= 0 ? placeholderName(slot) + rest : rest;
        return "expected " + quote(shown) + " but received " + quote(line);
    }

    std::string awaitClose() {
        if (conn < 0) return "no open connection (closed earlier; use acceptNext())";
        auto until = deadline();
        for (;;) {
            if (!inbuf.empty()) return "expected the client to close, but it sent " + quote(inbuf);
            std::string error;
            switch (fill(until, error)) {
            case Fill::Eof:
            case Fill::Reset: return {};
            case Fill::Timeout: return "client did not close the connection within " + ms(stepTimeout);
            case Fill::Stopped: return "server stopped while waiting for the client to close";
            case Fill::Data: break;
            }
        }
    }

    void run() {
        std::string err = accept();
        for (std::size_t i = 0; err.empty() && i < steps.size(); ++i) {
            {
                std::lock_guard<std::mutex> lock(mu);
                currentStep = i + 1;
            }
            err = runStep(steps[i]);
        }
        closeConnection();
        ::close(listenFd);  // later connection attempts are refused instead of hanging
        listenFd = -1;
        std::lock_guard<std::mutex> lock(mu);
        failure = err;
        done = true;
        cv.notify_all();
    }

    Millis defaultBound() const {
        Millis total = stepTimeout + Millis{10000};
        for (const Step& s : steps) {
            total += s.duration;
            if (s.kind == Step::Kind::Send) total += (s.fixedShape ? s.shape : mode).pause * static_cast<Millis::rep>(s.bytes.size());
        }
        return total;
    }

    std::string stepName(std::size_t index) const {
        if (index == 0) return "the start (accepting the first connection)";
        return "step " + std::to_string(index) + " of " + std::to_string(steps.size()) + ", " +
               steps[index - 1].description;
    }

    std::string reportLocked() const {
        if (!started) return "ScriptedServer: start() was never called";
        if (!done) return "ScriptedServer: still running, at " + stepName(currentStep);
        if (failure.empty() && finishedInTime)
            return "ScriptedServer: all " + std::to_string(steps.size()) + " steps matched";
        std::string r = "ScriptedServer failed at " + stepName(currentStep) + ":\n  ";
        if (!finishedInTime) r += "the script did not finish within " + ms(bound) + "; ";
        r += failure;
        if (!perConnection.empty())
            r += "\n  client bytes on connection " + std::to_string(perConnection.size()) + ": " +
                 tail(perConnection.back());
        return r;
    }
};

ScriptedServer::ScriptedServer() : impl_(std::make_unique<Impl>()) {
    int pipefd[2];
    if (::pipe2(pipefd, O_CLOEXEC | O_NONBLOCK) < 0) throw sysError("pipe2");
    impl_->wakeRead = pipefd[0];
    impl_->wakeWrite = pipefd[1];

    impl_->listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (impl_->listenFd < 0) throw sysError("socket");
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof addr;
    if (::bind(impl_->listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) throw sysError("bind");
    if (::listen(impl_->listenFd, 16) < 0) throw sysError("listen");
    if (::getsockname(impl_->listenFd, reinterpret_cast<sockaddr*>(&addr), &len) < 0) throw sysError("getsockname");
    impl_->port = ntohs(addr.sin_port);
    setNonBlocking(impl_->listenFd);
}

ScriptedServer::~ScriptedServer() {
    if (impl_->thread.joinable()) {
        impl_->wake();
        impl_->thread.join();
    }
}

std::uint16_t ScriptedServer::port() const { return impl_->port; }

ScriptedServer& ScriptedServer::add(Step step) {
    if (impl_->started) throw std::logic_error("ScriptedServer: steps must be added before start()");
    impl_->steps.push_back(std::move(step));
    return *this;
}

ScriptedServer& ScriptedServer::setMode(Mode mode) {
    if (impl_->started) throw std::logic_error("ScriptedServer: setMode() after start()");
    impl_->mode = mode;
    return *this;
}

ScriptedServer& ScriptedServer::setStepTimeout(Millis timeout) {
    if (impl_->started) throw std::logic_error("ScriptedServer: setStepTimeout() after start()");
    impl_->stepTimeout = timeout;
    return *this;
}

ScriptedServer& ScriptedServer::send(const std::string& bytes) {
    return add({Step::Kind::Send, bytes, "send(" + quote(bytes, 80) + ")"});
}

ScriptedServer& ScriptedServer::sendWhole(const std::string& bytes) {
    Step s{Step::Kind::Send, bytes, "sendWhole(" + quote(bytes, 80) + ")"};
    s.fixedShape = true;
    return add(std::move(s));
}

ScriptedServer& ScriptedServer::sendBytewise(const std::string& bytes, Millis pause) {
    Step s{Step::Kind::Send, bytes, "sendBytewise(" + quote(bytes, 80) + ")"};
    s.fixedShape = true;
    s.shape = Mode::ByteByByte.withPause(pause);
    return add(std::move(s));
}

ScriptedServer& ScriptedServer::sendSplit(const std::string& bytes, std::vector<std::size_t> offsets, Millis pause) {
    std::string at;
    for (std::size_t o : offsets) at += (at.empty() ? "" : ",") + std::to_string(o);
    Step s{Step::Kind::Send, bytes, "sendSplit(" + quote(bytes, 80) + ", {" + at + "})"};
    s.fixedShape = true;
    s.shape = Mode::SplitAt(0).withPause(pause);
    s.offsets = std::move(offsets);
    return add(std::move(s));
}

ScriptedServer& ScriptedServer::expect(const std::string& line) {
    return add({Step::Kind::Expect, line, "expect(" + quote(line, 80) + ")"});
}

ScriptedServer& ScriptedServer::expectRaw(const std::string& bytes) {
    return add({Step::Kind::ExpectRaw, bytes, "expectRaw(" + quote(bytes, 80) + ")"});
}

ScriptedServer& ScriptedServer::readLine() { return add({Step::Kind::ReadLine, {}, "readLine()"}); }

ScriptedServer& ScriptedServer::stall(Millis duration) {
    Step s{Step::Kind::Stall, {}, "stall(" + ms(duration) + ")"};
    s.duration = duration;
    return add(std::move(s));
}

ScriptedServer& ScriptedServer::close() { return add({Step::Kind::Close, {}, "close()"}); }

ScriptedServer& ScriptedServer::closeAfter(const std::string& bytes, std::size_t n) {
    Step s{Step::Kind::CloseAfter, bytes, "closeAfter(" + quote(bytes, 80) + ", " + std::to_string(n) + ")"};
    s.count = n;
    return add(std::move(s));
}

ScriptedServer& ScriptedServer::acceptNext() { return add({Step::Kind::AcceptNext, {}, "acceptNext()"}); }

ScriptedServer& ScriptedServer::expectClose() { return add({Step::Kind::ExpectClose, {}, "expectClose()"}); }

void ScriptedServer::start() {
    if (impl_->started) throw std::logic_error("ScriptedServer: start() called twice");
    impl_->started = true;
    impl_->thread = std::thread([impl = impl_.get()] { impl->run(); });
}

::testing::AssertionResult ScriptedServer::finish() { return finish(impl_->defaultBound()); }

::testing::AssertionResult ScriptedServer::finish(Millis bound) {
    Impl& d = *impl_;
    if (d.started && !d.joined) {
        {
            std::unique_lock<std::mutex> lock(d.mu);
            if (!d.cv.wait_for(lock, bound, [&] { return d.done; })) {
                d.finishedInTime = false;
                d.bound = bound;
            }
        }
        d.wake();
        d.thread.join();
        d.joined = true;
    }
    std::lock_guard<std::mutex> lock(d.mu);
    bool ok = d.started && d.failure.empty() && d.finishedInTime;
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

std::string ScriptedServer::received(std::size_t connection) const {
    std::lock_guard<std::mutex> lock(impl_->mu);
    return connection < impl_->perConnection.size() ? impl_->perConnection[connection] : std::string();
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
