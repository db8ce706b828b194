// Session log: _zrImap::appendResponseLineToSessionLog with m_keepSessionLog
// on. Past 25,000,000 bytes the log is cut back to its last 20,000,000, so a
// long session pays for a 20 MB move every 5 MB of log.
//
// Arguments: line length, and whether the log is allowed to cross the trim
// threshold (trim=1, the steady state of a long session) or is emptied just
// before it (trim=0: the append cost alone).
#include <benchmark/benchmark.h>

#include <string>

#include "zrimap/engine.h"

namespace {

constexpr unsigned kTrimAbove = 25000000;

void BM_SessionLogAppend(benchmark::State& st) {
    const size_t len = static_cast<size_t>(st.range(0));
    const bool trim = st.range(1) != 0;
    std::string text = "* 12345 FETCH (UID 67890 FLAGS (\\Seen) X \"";
    if (len > text.size() + 4) text.append(len - text.size() - 4, 'x');
    text += "\")\r\n";
    const char* line = text.c_str();

    zr::_zrImap imap;
    imap.m_keepSessionLog = true;
    // Start just below the threshold so every measured run includes trims.
    const unsigned start = trim ? kTrimAbove - 100000 : 0;
    while (imap.m_sessionLog.getSize() < start) imap.appendResponseLineToSessionLog(line);

    int64_t trims = 0;
    unsigned last = imap.m_sessionLog.getSize();
    for (auto _ : st) {
        imap.appendResponseLineToSessionLog(line);
        const unsigned now = imap.m_sessionLog.getSize();
        if (now < last) ++trims;
        last = now;
        if (!trim && now > kTrimAbove - 2 * len) {
            st.PauseTiming();
            imap.m_sessionLog.weakClear();
            last = 0;
            st.ResumeTiming();
        }
    }
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations() * text.size()));
    st.counters["trims"] = benchmark::Counter(static_cast<double>(trims));
}
BENCHMARK(BM_SessionLogAppend)
    ->ArgNames({"len", "trim"})
    ->Args({64, 0})
    ->Args({64, 1})
    ->Args({1024, 0})
    ->Args({1024, 1});

}  // namespace
