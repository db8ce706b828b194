#include "zrimap/base/BufferLimits.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "Growth.h"

namespace zr {

namespace {
std::atomic<uint64_t> g_maxBytes{BufferLimits::kDefaultMaxBytes};
constexpr size_t kWipeOnMoveBelow = 4096;
}  // namespace

uint64_t BufferLimits::getMaxBytes() { return g_maxBytes.load(std::memory_order_relaxed); }

void BufferLimits::setMaxBytes(uint64_t n) {
    if (n == 0) n = kDefaultMaxBytes;
    if (n > kAbsoluteMaxBytes) n = kAbsoluteMaxBytes;
    g_maxBytes.store(n, std::memory_order_relaxed);
}

bool BufferLimits::fits(uint64_t current, uint64_t extra, uint64_t slack) {
    const uint64_t max = getMaxBytes();
    // Each term is at most 2^32, so the sums cannot overflow 64 bits.
    return current <= max && extra <= max && current + extra <= max + slack;
}

namespace detail {

uint64_t growCapacity(uint64_t currentCapacity, uint64_t need, uint64_t slack) {
    const uint64_t ceiling = BufferLimits::getMaxBytes() + slack;
    if (need > ceiling) return 0;
    uint64_t cap = currentCapacity + currentCapacity / 2;
    if (cap < 64) cap = 64;
    if (cap < need) cap = need;
    if (cap > ceiling) cap = ceiling;
    return cap;
}

void* regrowBlock(void* block, size_t used, size_t oldCapacity, size_t newCapacity) {
    if (block == nullptr) return std::malloc(newCapacity);
    if (oldCapacity >= kWipeOnMoveBelow) return std::realloc(block, newCapacity);
    void* fresh = std::malloc(newCapacity);
    if (fresh == nullptr) return nullptr;
    std::memcpy(fresh, block, used);
    wipe(block, oldCapacity);
    std::free(block);
    return fresh;
}

void wipe(void* p, size_t n) {
    if (p == nullptr || n == 0) return;
    explicit_bzero(p, n);
}

}  // namespace detail
}  // namespace zr
