// Pieces Socket2 shares with the SSH layer (internal): waiting on a
// descriptor with a time limit and the application's abort check, so both
// honour time-outs and aborts the same way, and two message helpers.
#pragma once

#include <chrono>
#include <cstddef>

namespace zr {

class LogBase;
class ProgressMonitor;
class StringBuffer;

namespace net {

// Measures a limit in milliseconds (0: none). Used as an idle limit by
// calling restart() on every sign of progress, or as a total by not.
class IdleTimer {
public:
    using Clock = std::chrono::steady_clock;
    explicit IdleTimer(unsigned limitMs) : m_limit(limitMs), m_start(Clock::now()) {}
    bool unlimited() const { return m_limit == 0; }
    unsigned limit() const { return m_limit; }
    void restart() { m_start = Clock::now(); }
    // Milliseconds left; 0 once the limit has passed.
    unsigned remaining() const {
        const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - m_start).count();
        return elapsed >= static_cast<long long>(m_limit) ? 0 : m_limit - static_cast<unsigned>(elapsed);
    }

private:
    unsigned m_limit;
    Clock::time_point m_start;
};

enum class Wait { Ready, TimedOut, Aborted, Failed };

// How often a wait asks the progress monitor whether to stop.
constexpr unsigned kAbortCheckMs = 100;
// The longest a close waits for the peer, whatever time-out it is given.
constexpr unsigned kCloseWaitCapMs = 2000;

// Waits until fd reports one of `events` (or an error or hang-up, which the
// next read or write will name), the timer runs out, or pm asks to abort
// (checked before the first wait and about every kAbortCheckMs). On Failed,
// err is poll()'s errno.
Wait waitFd(int fd, short events, IdleTimer& timer, ProgressMonitor* pm, LogBase& log, int& err);

// Formats and logs one message, as an error or as information.
__attribute__((format(printf, 3, 4))) void logf(LogBase& log, bool error, const char* fmt, ...);

// Host without the brackets of an IPv6 literal ("[::1]" -> "::1"); false
// when it is empty or does not fit.
bool bareHost(const StringBuffer& in, char* out, size_t n);

}  // namespace net
}  // namespace zr
