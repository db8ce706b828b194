// Shared growth rules of StringBuffer and DataBuffer (internal).
#pragma once

#include <cstddef>
#include <cstdint>

namespace zr {
namespace detail {

// Capacity to allocate so that `need` bytes fit, growing by half again to
// keep appends amortised linear. 0 when `need` passes the buffer ceiling
// (`slack` bytes, e.g. a terminator, are allowed beyond it).
uint64_t growCapacity(uint64_t currentCapacity, uint64_t need, uint64_t slack);

// Moves a block to a new capacity, keeping its first `used` bytes. Small
// blocks are copied and the old copy wiped, so that short secrets (the usual
// content of small buffers) do not linger in freed memory; large blocks use
// realloc, which can often grow in place. Null on failure (block untouched).
void* regrowBlock(void* block, size_t used, size_t oldCapacity, size_t newCapacity);

// Overwrites memory in a way the compiler cannot remove.
void wipe(void* p, size_t n);

}  // namespace detail
}  // namespace zr
