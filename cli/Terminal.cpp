#include "Terminal.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace zr {
namespace cli {

namespace {

volatile sig_atomic_t g_interrupted = 0;

void onSignal(int) { g_interrupted = 1; }

}  // namespace

void installSignalHandlers() {
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    // No SA_RESTART: a blocked read returns EINTR and the abort check runs.
    sa.sa_flags = SA_RESETHAND;
    sigaction(SIGINT, &sa, nullptr);
    sa.sa_flags = 0;
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

bool interrupted() { return g_interrupted != 0; }

void clearInterrupted() { g_interrupted = 0; }

bool stderrIsTerminal() { return isatty(STDERR_FILENO) == 1; }

ProgressBar::ProgressBar(std::string label, uint64_t total, bool enabled)
    : m_label(std::move(label)),
      m_total(total),
      m_enabled(enabled && stderrIsTerminal()),
      m_start(std::chrono::steady_clock::now()) {}

ProgressBar::~ProgressBar() { finish(); }

void ProgressBar::update(uint64_t done) {
    m_done = done;
    draw(done >= m_total);
}

void ProgressBar::tick() { draw(false); }

void ProgressBar::draw(bool force) {
    if (!m_enabled) return;
    using namespace std::chrono;
    auto now = steady_clock::now();
    if (m_total == 0 && now - m_start < seconds(1)) return;
    // Redrawing on every network read would flood a slow terminal.
    if (!force && now - m_lastDraw < milliseconds(100)) return;
    m_lastDraw = now;

    double elapsed = duration_cast<milliseconds>(now - m_start).count() / 1000.0;
    if (m_total == 0) {
        static const char kSpin[] = "|/-\\";
        std::fprintf(stderr, "\r\033[K%s %c %.1f s", m_label.c_str(), kSpin[m_spin++ % 4], elapsed);
    } else {
        constexpr uint64_t kWidth = 30;
        uint64_t done = std::min(m_done, m_total);
        uint64_t filled = done * kWidth / m_total;
        std::string bar(filled, '#');
        bar.append(kWidth - filled, '.');
        std::fprintf(stderr, "\r\033[K%s [%s] %llu/%llu messages, %.1f s", m_label.c_str(), bar.c_str(),
                     static_cast<unsigned long long>(done), static_cast<unsigned long long>(m_total), elapsed);
    }
    std::fflush(stderr);
    m_drawn = true;
}

void ProgressBar::finish() {
    if (m_drawn) {
        std::fprintf(stderr, "\r\033[K");
        std::fflush(stderr);
        m_drawn = false;
    }
}

}  // namespace cli
}  // namespace zr
