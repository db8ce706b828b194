#include "zrimap/net/ReadAheadBuffer.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "zrimap/base/BufferLimits.h"

namespace zr {

namespace {
// Reads come in pieces of tens of kilobytes; a smaller first block would
// only be regrown at once.
constexpr uint64_t kMinBlock = 16 * 1024;
// How much spare room prepend() keeps when it reuses the block in place.
constexpr uint64_t kKeepSlack = 1024 * 1024;
}  // namespace

ReadAheadBuffer::~ReadAheadBuffer() { clear(); }

void ReadAheadBuffer::clear() {
    std::free(m_block);
    m_block = nullptr;
    m_head = m_end = m_capacity = 0;
}

// Moves the unread bytes to the start of a new block.
bool ReadAheadBuffer::regrow(unsigned long long capacity) {
    const unsigned n = size();
    unsigned char* block = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(capacity)));
    if (!block) return false;
    if (n) std::memcpy(block, m_block + m_head, n);
    std::free(m_block);
    m_block = block;
    m_head = 0;
    m_end = n;
    m_capacity = static_cast<unsigned>(capacity);
    return true;
}

unsigned char* ReadAheadBuffer::tailRoom(unsigned want, unsigned& granted) {
    granted = 0;
    const uint64_t max = BufferLimits::getMaxBytes();
    const uint64_t unread = size();
    if (want == 0 || unread >= max) return nullptr;
    const unsigned n = static_cast<unsigned>(want < max - unread ? want : max - unread);

    if (m_capacity - m_end >= n) {
        granted = n;
        return m_block + m_end;
    }
    // Compacting costs a move of the unread bytes; it is only worth it when
    // at least as many consumed bytes are reclaimed, which bounds the total
    // work by the bytes ever received.
    if (m_head >= unread && m_capacity - unread >= n) {
        if (unread) std::memmove(m_block, m_block + m_head, static_cast<size_t>(unread));
        m_head = 0;
        m_end = static_cast<unsigned>(unread);
        granted = n;
        return m_block + m_end;
    }
    const uint64_t need = unread + n;
    uint64_t cap = uint64_t(m_capacity) * 2;
    if (cap < kMinBlock) cap = kMinBlock;
    if (cap > max) cap = max;
    if (cap < need) cap = need;
    if (!regrow(cap)) return nullptr;
    granted = n;
    return m_block + m_end;
}

void ReadAheadBuffer::commit(unsigned k) {
    if (k > m_capacity - m_end) k = m_capacity - m_end;
    m_end += k;
}

void ReadAheadBuffer::consume(unsigned n) {
    if (n >= size()) {
        // Keep the block for the next read; only the offsets reset.
        m_head = m_end = 0;
        return;
    }
    m_head += n;
}

bool ReadAheadBuffer::prepend(const unsigned char* bytes, unsigned n) {
    if (n == 0) return true;
    if (!bytes) return false;
    const uint64_t unread = size();
    if (unread + n > BufferLimits::getMaxBytes()) return false;
    if (m_head >= n) {
        m_head -= n;
        std::memmove(m_block + m_head, bytes, n);
        return true;
    }
    // The block has room: slide the unread bytes up and put the new ones in
    // front. A new block here would be smaller than the current one, and the
    // next read would only grow it again (two allocations per literal).
    // Bytes from inside the block itself take the copying path below, as the
    // slide could overwrite them; so does a block far larger than needed
    // (left by a very long line), which that path gives back.
    const uintptr_t from = reinterpret_cast<uintptr_t>(bytes);
    const uintptr_t base = reinterpret_cast<uintptr_t>(m_block);
    const bool inside = m_block && from < base + m_capacity && from + n > base;
    if (!inside && m_capacity - unread >= n && m_capacity - unread - n <= kKeepSlack) {
        if (unread) std::memmove(m_block + n, m_block + m_head, static_cast<size_t>(unread));
        std::memcpy(m_block, bytes, n);
        m_head = 0;
        m_end = static_cast<unsigned>(unread + n);
        return true;
    }
    // The caller's bytes may lie inside the current block, so they are copied
    // into the new one before the old one is freed.
    uint64_t cap = unread + n + kMinBlock;
    if (cap > BufferLimits::kAbsoluteMaxBytes) cap = unread + n;
    unsigned char* block = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(cap)));
    if (!block) return false;
    std::memcpy(block, bytes, n);
    if (unread) std::memcpy(block + n, m_block + m_head, static_cast<size_t>(unread));
    std::free(m_block);
    m_block = block;
    m_head = 0;
    m_end = static_cast<unsigned>(unread + n);
    m_capacity = static_cast<unsigned>(cap);
    return true;
}

}  // namespace zr
