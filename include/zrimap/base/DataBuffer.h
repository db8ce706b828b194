// DataBuffer: growable, binary-safe byte array.
//
// Growth is checked against BufferLimits; an operation that would pass the
// ceiling or run out of memory returns false and leaves the content as it was.
#pragma once

#include <cstdint>

namespace zr {

class StringBuffer;

class DataBuffer {
public:
    DataBuffer();
    DataBuffer(const DataBuffer& other);
    DataBuffer(DataBuffer&& other) noexcept;
    DataBuffer& operator=(const DataBuffer& other);
    DataBuffer& operator=(DataBuffer&& other) noexcept;
    ~DataBuffer();

    void clear();        // frees the memory
    void weakClear();    // keeps the memory for the next fill
    void secureClear();  // overwrites every byte held with zeros, then frees

    bool append(const DataBuffer& db);
    bool append(const StringBuffer& sb);
    bool append(const void* bytes, unsigned n);  // null with n > 0 fails
    bool appendChar(unsigned char c);
    bool appendStr(const char* text);  // without the terminator

    // Makes sure the buffer can hold `n` bytes in all without reallocating.
    bool ensureBuffer(unsigned n);
    unsigned getCapacity() const { return m_capacity; }

    const unsigned char* getData2() const { return m_data; }
    unsigned getSize() const { return m_size; }

    void shorten(unsigned n);     // n larger than the size empties the buffer
    void removeHead(unsigned n);  // likewise

    bool beginsWith(const unsigned char* bytes, int n) const;  // n <= 0: true
    bool endsWithStr(const char* text) const;

    // Binary replace-all; returns the number of replacements. An empty
    // pattern replaces nothing.
    int replaceAllOccurances(const unsigned char* pat, unsigned patLen,
                             const unsigned char* rep, unsigned repLen);

    // Appends the content to out in the named encoding. Only "base64" (with
    // no line breaks) is known; any other name returns false.
    bool encodeDB(const char* encoding, StringBuffer& out) const;

    // Moves the content into out (replacing out's content) without copying
    // it, and leaves this buffer empty. A NUL in the content ends the text
    // as far as out's text operations go.
    bool takeString(StringBuffer& out);

    // Low-level access for readers that fill the buffer in place.
    // Returns a pointer to room for `n` bytes after the content (null on
    // failure); commitAppend(k) then adds the first k of them.
    unsigned char* appendSpace(unsigned n);
    void commitAppend(unsigned k);

private:
    bool reserveTotal(uint64_t total);
    void release();

    unsigned char* m_data;
    unsigned m_size;
    unsigned m_capacity;
};

}  // namespace zr
