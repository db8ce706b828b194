// Base64: ContentCoding encode (no line breaks) and decode (with the CRLF
// every 76 characters that MIME bodies carry, which the decoder skips).
//
// Argument: size of the binary data in bytes.
#include <benchmark/benchmark.h>

#include <string>

#include "zrimap/engine.h"

namespace {

std::string binary(size_t n) {
    std::string s(n, '\0');
    uint32_t x = 2463534242u;
    for (size_t i = 0; i < n; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        s[i] = static_cast<char>(x);
    }
    return s;
}

void BM_Base64Encode(benchmark::State& st) {
    const std::string data = binary(static_cast<size_t>(st.range(0)));
    zr::StringBuffer out;
    for (auto _ : st) {
        out.weakClear();
        if (!zr::ContentCoding::encodeBase64_noCrLf(data.data(), static_cast<unsigned>(data.size()), out)) {
            st.SkipWithError("encode failed");
            break;
        }
        benchmark::DoNotOptimize(out.getString());
    }
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations()) * st.range(0));
}
BENCHMARK(BM_Base64Encode)->ArgName("bytes")->Arg(57)->Arg(4 << 10)->Arg(1 << 20)->Arg(16 << 20);

void BM_Base64Decode(benchmark::State& st) {
    const std::string data = binary(static_cast<size_t>(st.range(0)));
    zr::StringBuffer flat;
    zr::ContentCoding::encodeBase64_noCrLf(data.data(), static_cast<unsigned>(data.size()), flat);
    std::string text;
    const std::string all = flat.getString();
    for (size_t i = 0; i < all.size(); i += 76) {
        text += all.substr(i, 76);
        text += "\r\n";
    }
    zr::DataBuffer out;
    for (auto _ : st) {
        out.weakClear();
        if (!zr::ContentCoding::decodeBase64ToDb(text.data(), static_cast<unsigned>(text.size()), out) ||
            out.getSize() != data.size()) {
            st.SkipWithError("decode failed");
            break;
        }
        benchmark::DoNotOptimize(out.getData2());
    }
    // Counted in decoded bytes, so encode and decode compare directly.
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations()) * st.range(0));
}
BENCHMARK(BM_Base64Decode)->ArgName("bytes")->Arg(57)->Arg(4 << 10)->Arg(1 << 20)->Arg(16 << 20);

}  // namespace
