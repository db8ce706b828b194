// Interrupts (Ctrl-C) and the progress bar on stderr.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace zr {
namespace cli {

// SIGINT and SIGTERM set a flag that running operations poll through the
// client's abort check; a second SIGINT ends the process at once. SIGPIPE is
// ignored so a closed connection or pipe shows up as an error, not a silent death.
void installSignalHandlers();
bool interrupted();
// After a Ctrl-C that merely ends a wait (idle), so the logout is not aborted too.
void clearInterrupted();

bool stderrIsTerminal();

// One line on stderr, redrawn in place; nothing at all unless stderr is a
// terminal. With a total it is a bar of messages done; without one it is an
// activity line with the elapsed time (the library reports no byte counts),
// shown only once an operation has taken a second, so quick ones never flicker.
class ProgressBar {
public:
    ProgressBar(std::string label, uint64_t total, bool enabled);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    void update(uint64_t done);
    void tick();    // activity: called while a transfer runs
    void finish();  // clears the line

private:
    void draw(bool force);

    std::string m_label;
    uint64_t m_total;
    uint64_t m_done = 0;
    bool m_enabled;
    bool m_drawn = false;
    unsigned m_spin = 0;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_lastDraw{};
};

}  // namespace cli
}  // namespace zr
