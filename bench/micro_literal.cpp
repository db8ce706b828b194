// Literal reading: _zrImap::getNResponseBytes, next to bare recv() loops
// over the same kind of loopback stream, so that the engine's share can be
// told from the kernel's.
//
// Argument: literal size in bytes.
#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/EngineFixture.h"

namespace {

using zrbench::BufferedSession;
using zrbench::LoopbackFeeder;
using zrbench::LoopbackSession;

std::string streamPattern() {
    std::string p(1 << 20, '\0');
    for (size_t i = 0; i < p.size(); ++i) p[i] = static_cast<char>('A' + (i * 7) % 26);
    return p;
}

void setBytes(benchmark::State& st) {
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations()) * st.range(0));
}

// The engine's literal read over loopback: one reservation per literal,
// 16 KB receives into it, the surplus handed back to the read-ahead buffer.
void BM_GetNResponseBytes_Loopback(benchmark::State& st) {
    const unsigned n = static_cast<unsigned>(st.range(0));
    LoopbackFeeder feeder(streamPattern());
    LoopbackSession s(feeder.port());
    if (!feeder.ok() || !s.connected) {
        st.SkipWithError("loopback setup failed");
        return;
    }
    zr::DataBuffer out;
    for (auto _ : st) {
        if (!s.imap.getNResponseBytes(n, out, s.sp, s.log) || out.getSize() != n) {
            st.SkipWithError("literal read failed");
            break;
        }
        benchmark::DoNotOptimize(out.getData2());
    }
    s.close();
    feeder.stop();
    setBytes(st);
}
BENCHMARK(BM_GetNResponseBytes_Loopback)
    ->ArgName("bytes")
    ->Arg(4 << 10)
    ->Arg(64 << 10)
    ->Arg(1 << 20)
    ->Arg(16 << 20)
    ->UseRealTime();

// The limit: a blocking recv() loop with 64 KB reads. fresh=0 reuses one
// buffer (no page faults); fresh=1 allocates a new one per literal as the
// engine must, so the page-fault cost of fresh memory shows on its own.
void BM_BareRecv_Loopback(benchmark::State& st) {
    const size_t n = static_cast<size_t>(st.range(0));
    const bool fresh = st.range(1) != 0;
    LoopbackFeeder feeder(streamPattern());
    const int fd = zrbench::connectLoopback(feeder.port());
    if (!feeder.ok() || fd < 0) {
        st.SkipWithError("loopback setup failed");
        return;
    }
    std::vector<char> reused(fresh ? 0 : n);
    for (auto _ : st) {
        char* buf = fresh ? static_cast<char*>(std::malloc(n)) : reused.data();
        size_t got = 0;
        while (got < n) {
            const size_t want = n - got < (64u << 10) ? n - got : (64u << 10);
            const ssize_t r = ::recv(fd, buf + got, want, 0);
            if (r < 0 && errno == EINTR) continue;
            if (r <= 0) {
                st.SkipWithError("recv failed");
                break;
            }
            got += static_cast<size_t>(r);
        }
        benchmark::DoNotOptimize(buf);
        if (fresh) std::free(buf);
    }
    ::close(fd);
    feeder.stop();
    setBytes(st);
}
BENCHMARK(BM_BareRecv_Loopback)
    ->ArgNames({"bytes", "fresh"})
    ->Args({4 << 10, 0})
    ->Args({64 << 10, 0})
    ->Args({1 << 20, 0})
    ->Args({16 << 20, 0})
    ->Args({16 << 20, 1})
    ->UseRealTime();

// The literal is already in the read-ahead buffer (the bytes of the response
// that came in with its first line): reservation plus one move.
void BM_GetNResponseBytes_Buffered(benchmark::State& st) {
    const unsigned n = static_cast<unsigned>(st.range(0));
    const std::string literal = streamPattern().substr(0, n);
    BufferedSession s;
    zr::DataBuffer out;
    for (auto _ : st) {
        st.PauseTiming();
        s.feed(literal);
        st.ResumeTiming();
        if (!s.imap.getNResponseBytes(n, out, s.sp, s.log) || out.getSize() != n) {
            st.SkipWithError("literal read failed");
            break;
        }
        benchmark::DoNotOptimize(out.getData2());
    }
    setBytes(st);
}
BENCHMARK(BM_GetNResponseBytes_Buffered)->ArgName("bytes")->Arg(4 << 10)->Arg(64 << 10)->Arg(1 << 20);

// A small message as one read brings it in: the literal and the lines after
// it arrive together. The literal read takes everything buffered, hands the
// surplus back to the read-ahead buffer, and the closing line and the
// completion are then read from there. This is the per-message cycle of a
// run of single-message FETCHes, minus the network.
void BM_SmallLiteralCycle_Buffered(benchmark::State& st) {
    const unsigned n = static_cast<unsigned>(st.range(0));
    const std::string response = streamPattern().substr(0, n) + ")\r\naaab OK Fetch completed (0.001 + 0.000 secs).\r\n";
    BufferedSession s;
    zr::DataBuffer out;
    zr::StringBuffer line;
    for (auto _ : st) {
        s.feed(response);
        bool ok = s.imap.getNResponseBytes(n, out, s.sp, s.log);
        for (int i = 0; i < 2 && ok; ++i) {
            line.weakClear();
            ok = s.imap.getServerResponseLine2(line, s.log, s.sp);
        }
        if (!ok || out.getSize() != n) {
            st.SkipWithError("cycle failed");
            break;
        }
        benchmark::DoNotOptimize(line.getString());
    }
    st.SetItemsProcessed(static_cast<int64_t>(st.iterations()));
}
BENCHMARK(BM_SmallLiteralCycle_Buffered)->ArgName("bytes")->Arg(3000)->Arg(30000);

}  // namespace
