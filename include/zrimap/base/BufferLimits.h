// The process-wide ceiling on the size of one buffer.
//
// Everything the server controls (line lengths, literal sizes) ends up as a
// request to grow a StringBuffer or DataBuffer. The ceiling turns a hostile
// or broken size into a clean failure instead of an attempt to take all of
// the machine's memory. Growth arithmetic is done in 64 bits and checked
// against the ceiling, so no size can wrap around.
#pragma once

#include <cstdint>

namespace zr {

class BufferLimits {
public:
    static constexpr uint64_t kDefaultMaxBytes = 1ull << 30;  // 1 GiB
    // Never above what a 32-bit size (the buffers' size type) can hold.
    static constexpr uint64_t kAbsoluteMaxBytes = 0xFFFFFFF0ull;

    // Largest content, in bytes, that one buffer may hold.
    static uint64_t getMaxBytes();
    // Values above kAbsoluteMaxBytes are clamped; 0 restores the default.
    static void setMaxBytes(uint64_t n);

    // True when a buffer may hold `current + extra` bytes (plus `slack`
    // bytes of terminator or padding) without passing the ceiling.
    static bool fits(uint64_t current, uint64_t extra, uint64_t slack = 0);
};

}  // namespace zr
