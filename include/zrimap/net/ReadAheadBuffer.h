// ReadAheadBuffer: the bytes a connection has received but nobody has
// consumed yet.
//
// Lines are taken from the front while reads land at the back, so the unread
// bytes are kept between a head offset and the end of one block instead of
// being moved down after every consumed line. The block is compacted only
// when the consumed part at the front is at least as large as what would
// have to move, which keeps the cost of compaction amortised linear in the
// bytes received. The unread bytes never pass the BufferLimits ceiling.
//
// Not copyable; never throws.
#pragma once

namespace zr {

class ReadAheadBuffer {
public:
    ReadAheadBuffer() = default;
    ~ReadAheadBuffer();
    ReadAheadBuffer(const ReadAheadBuffer&) = delete;
    ReadAheadBuffer& operator=(const ReadAheadBuffer&) = delete;

    const unsigned char* data() const { return m_block ? m_block + m_head : nullptr; }
    unsigned size() const { return m_end - m_head; }
    bool empty() const { return m_end == m_head; }

    // Room for up to `want` more bytes after the unread ones. `granted` tells
    // how many may be written: fewer than `want` when the ceiling is near,
    // 0 (and a null result) when the ceiling is reached or memory ran out.
    // Follow with commit(k), k <= granted.
    unsigned char* tailRoom(unsigned want, unsigned& granted);
    void commit(unsigned k);

    // Drops n bytes from the front (all of them when n >= size()).
    void consume(unsigned n);

    // Puts n bytes in front of the unread ones, so they are read first.
    // False (buffer unchanged) when the ceiling or memory does not allow it.
    bool prepend(const unsigned char* bytes, unsigned n);

    // Discards the content and frees the memory.
    void clear();

private:
    bool regrow(unsigned long long capacity);

    unsigned char* m_block = nullptr;
    unsigned m_head = 0;
    unsigned m_end = 0;
    unsigned m_capacity = 0;
};

}  // namespace zr
