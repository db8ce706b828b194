// Line reading: _zrImap::getServerResponseLine2 (CRLF search plus the CRCRLF
// repair), and its two pieces on their own, Socket2::receiveUntilMatchSb and
// StringBuffer::replaceAllOccurances.
//
// Arguments: line length in bytes (including the line end) and whether every
// line ends in "\r\r\n" (the repair's worst case) instead of "\r\n".
#include <benchmark/benchmark.h>

#include <string>

#include "support/EngineFixture.h"

namespace {

using zrbench::BufferedSession;
using zrbench::LoopbackFeeder;
using zrbench::LoopbackSession;

// Lines shaped like untagged FETCH responses, padded to `len` bytes; enough
// of them to make at least `minBytes` and at least four lines.
std::string makeLines(size_t len, bool crcrlf, size_t minBytes, size_t& count) {
    const std::string end = crcrlf ? "\r\r\n" : "\r\n";
    std::string block;
    count = 0;
    while (block.size() < minBytes || count < 4) {
        std::string line = "* " + std::to_string(count + 1) + " FETCH (UID " + std::to_string(count + 1001) +
                           " FLAGS (\\Seen \\Answered) X-PAD \"";
        const size_t fixed = line.size() + 2 + end.size();
        if (len > fixed) line.append(len - fixed, 'x');
        line += "\")";
        line += end;
        block += line;
        ++count;
    }
    return block;
}

void setCounters(benchmark::State& st, size_t bytes, size_t lines) {
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations() * bytes));
    st.SetItemsProcessed(static_cast<int64_t>(st.iterations() * lines));
}

// The whole input is already in the read-ahead buffer: what is left is the
// search, the copy into the caller's line and the repair.
void BM_ResponseLine_Buffered(benchmark::State& st) {
    size_t lines = 0;
    const std::string block = makeLines(static_cast<size_t>(st.range(0)), st.range(1) != 0, 1 << 20, lines);
    BufferedSession s;
    zr::StringBuffer line;
    for (auto _ : st) {
        st.PauseTiming();
        s.feed(block);
        st.ResumeTiming();
        for (size_t i = 0; i < lines; ++i) {
            line.weakClear();
            if (!s.imap.getServerResponseLine2(line, s.log, s.sp)) {
                st.SkipWithError("line read failed");
                return;
            }
            benchmark::DoNotOptimize(line.getString());
        }
    }
    setCounters(st, block.size(), lines);
}
BENCHMARK(BM_ResponseLine_Buffered)
    ->ArgNames({"len", "crcrlf"})
    ->Args({48, 0})
    ->Args({48, 1})
    ->Args({200, 0})
    ->Args({4096, 0})
    ->Args({4096, 1})
    ->Args({1 << 20, 0})
    ->Args({1 << 20, 1});

// Over loopback from a writer thread: the receive path with its system calls
// and the incremental search of a line that arrives in many reads.
void BM_ResponseLine_Loopback(benchmark::State& st) {
    size_t lines = 0;
    const std::string block = makeLines(static_cast<size_t>(st.range(0)), st.range(1) != 0, 1 << 20, lines);
    LoopbackFeeder feeder(block);
    LoopbackSession s(feeder.port());
    if (!feeder.ok() || !s.connected) {
        st.SkipWithError("loopback setup failed");
        return;
    }
    zr::StringBuffer line;
    for (auto _ : st) {
        for (size_t i = 0; i < lines; ++i) {
            line.weakClear();
            if (!s.imap.getServerResponseLine2(line, s.log, s.sp)) {
                st.SkipWithError("line read failed");
                break;
            }
            benchmark::DoNotOptimize(line.getString());
        }
    }
    s.close();
    feeder.stop();
    setCounters(st, block.size(), lines);
}
BENCHMARK(BM_ResponseLine_Loopback)
    ->ArgNames({"len", "crcrlf"})
    ->Args({48, 0})
    ->Args({200, 0})
    ->Args({4096, 0})
    ->Args({1 << 20, 0})
    ->Args({1 << 20, 1})
    ->UseRealTime();

// The transport's line search alone, without the engine's wrapper.
void BM_ReceiveUntilMatchSb_Buffered(benchmark::State& st) {
    size_t lines = 0;
    const std::string block = makeLines(static_cast<size_t>(st.range(0)), false, 1 << 20, lines);
    BufferedSession s;
    zr::StringBuffer line;
    for (auto _ : st) {
        st.PauseTiming();
        s.feed(block);
        st.ResumeTiming();
        for (size_t i = 0; i < lines; ++i) {
            line.weakClear();
            if (!s.imap.m_socket->receiveUntilMatchSb("\r\n", line, 30000, s.sp, s.log)) {
                st.SkipWithError("line read failed");
                return;
            }
            benchmark::DoNotOptimize(line.getString());
        }
    }
    setCounters(st, block.size(), lines);
}
BENCHMARK(BM_ReceiveUntilMatchSb_Buffered)->ArgName("len")->Arg(48)->Arg(4096)->Arg(1 << 20);

// The repair alone on one line. Each iteration restores the line first (a
// copy of the same size, in both variants, so the difference between the
// two is the repair): a line without "\r\r\n" costs one search, a line with
// it is rebuilt.
void BM_ReplaceCrCrLf(benchmark::State& st) {
    size_t lines = 0;
    const std::string one = makeLines(static_cast<size_t>(st.range(0)), st.range(1) != 0, 0, lines);
    const std::string first = one.substr(0, one.find('\n') + 1);
    zr::StringBuffer line;
    for (auto _ : st) {
        line.setString(first.c_str());
        benchmark::DoNotOptimize(line.replaceAllOccurances("\r\r\n", "\r\n"));
    }
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations() * first.size()));
}
BENCHMARK(BM_ReplaceCrCrLf)
    ->ArgNames({"len", "crcrlf"})
    ->Args({48, 0})
    ->Args({48, 1})
    ->Args({4096, 0})
    ->Args({4096, 1})
    ->Args({1 << 20, 0})
    ->Args({1 << 20, 1});

}  // namespace
