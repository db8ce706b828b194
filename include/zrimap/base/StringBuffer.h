// StringBuffer: growable 8-bit text.
//
// The content is always NUL-terminated for getString(); getSize() counts the
// bytes without the terminator. Any byte may be stored (appendN), but the
// text operations (comparisons, searches, replace) treat NUL as the end.
//
// Operations that can grow the buffer return false when the growth would
// pass BufferLimits or memory runs out; the buffer is then left as it was.
#pragma once

#include <cstdint>

#include "zrimap/base/ZendrelObject.h"

namespace zr {

class DataBuffer;
class ExtPtrArraySb;

class StringBuffer : public ZendrelObject {
public:
    StringBuffer();
    explicit StringBuffer(const char* text);  // null gives an empty buffer
    StringBuffer(const StringBuffer& other);
    StringBuffer(StringBuffer&& other) noexcept;
    StringBuffer& operator=(const StringBuffer& other);
    StringBuffer& operator=(StringBuffer&& other) noexcept;
    ~StringBuffer() override;

    // --- appending (a null text appends nothing and succeeds) ---
    bool append(const char* text);
    bool append(const StringBuffer& sb);
    bool append(const DataBuffer& db);
    bool append(int n);       // decimal form
    bool append(unsigned n);  // decimal form
    bool appendUint64(uint64_t n);
    bool appendN(const char* bytes, unsigned n);
    bool appendChar(char c);
    bool append2(const char* a, const char* b);
    bool append3(const char* a, const char* b, const char* c);
    bool prepend(const char* text);

    bool setString(const StringBuffer& sb);
    bool setString(const char* text);

    // Reserves room for `n` more bytes without changing the content.
    bool expectNumBytes(unsigned n);

    // --- emptying ---
    void clear();        // frees the memory
    void weakClear();    // keeps the memory for the next fill
    void secureClear();  // overwrites every byte held with zeros, then frees

    // --- reading ---
    const char* getString() const { return m_data ? m_data : ""; }
    unsigned getSize() const { return m_size; }
    bool isEmpty() const { return m_size == 0; }
    char lastChar() const { return m_size ? m_data[m_size - 1] : 0; }
    char charAt(unsigned i) const { return i < m_size ? m_data[i] : 0; }

    // --- comparisons (null texts compare as empty) ---
    bool beginsWith(const char* s) const;
    bool beginsWithIgnoreCase(const char* s) const;
    bool endsWith(const char* s) const;
    bool equals(const char* s) const;
    bool equalsIgnoreCase(const char* s) const;
    bool containsSubstring(const char* s) const;
    bool containsSubstringNoCase(const char* s) const;
    // Offset of the first occurrence at or after `from`, or -1.
    int indexOf(const char* s, unsigned from = 0) const;

    // --- editing ---
    // Out-of-range parts of the request are ignored: removeChunk(5, 100) on
    // a 10-byte buffer removes bytes 5..9; a start at or past the end is a
    // no-op.
    void removeChunk(unsigned start, unsigned count);
    void shorten(unsigned n);  // n larger than the size empties the buffer
    void trim2();              // strips ' ', '\t', '\r', '\n' at both ends
    void toUpperCase();        // ASCII only
    void toLowerCase();        // ASCII only

    // Returns the number of replacements; a null or empty `from` replaces
    // nothing. The result is built in a scan, so the cost is linear.
    int replaceAllOccurances(const char* from, const char* to);
    // Replaces the first occurrence; `ignoreCase` picks how `from` is
    // matched. False when there is none.
    bool replaceFirstOccurance(const char* from, const char* to, bool ignoreCase);

    // Finds the last occurrence of marker. out = the text after it; when
    // `cut` is true this buffer ends just before the marker. False (and out
    // untouched) when the marker does not occur.
    bool getAfterFinal(const char* marker, bool cut, StringBuffer& out);

    // out = the text between the first `open` and the next `close` after it.
    // With `includeDelimiters` the two markers are part of out. False (out
    // untouched) when either is missing.
    bool getDelimited(const char* open, const char* close, bool includeDelimiters,
                      StringBuffer& out) const;

    // Appends the pieces between separators to `out` as new elements.
    //
    // quoteAware: a double-quoted run is kept whole (separators inside it do
    //   not split), the quotes are removed, and inside the quotes a backslash
    //   before '"' or '\\' stands for that character alone. This is what
    //   name="value, with commas" lists need.
    // trimAndSkipEmpty: each piece is trimmed of spaces, tabs and line ends,
    //   and empty pieces are dropped.
    // With both false it is the plain split: every separator ends a piece, so
    //   two separators in a row give an empty piece. An empty buffer gives no
    //   pieces in every mode.
    bool split(ExtPtrArraySb& out, char sep, bool quoteAware, bool trimAndSkipEmpty) const;

    // Splits "name=value" at the first '='. With `trimAndUnquote`, both sides
    // are trimmed and a value in double quotes loses them (with backslash
    // escapes resolved as in split). Without '=', name is the whole text and
    // value is empty, and the result is false.
    bool splitAttrValue(StringBuffer& name, StringBuffer& value, bool trimAndUnquote) const;

    // Heap copy (null text gives an empty one); null when memory runs out.
    static StringBuffer* createNewSB(const char* text);
    static void deleteSb(StringBuffer* sb);

    // Low-level access for readers that fill the buffer in place.
    // Returns a pointer to room for `n` bytes after the content (null on
    // failure); commitAppend(k) then adds the first k of them.
    char* appendSpace(unsigned n);
    void commitAppend(unsigned k);

private:
    friend class DataBuffer;  // DataBuffer::takeString hands its block over
    bool reserveTotal(uint64_t total);
    void adopt(char* block, unsigned size, unsigned capacity);
    void release();

    char* m_data;
    unsigned m_size;
    unsigned m_capacity;  // bytes allocated, including room for the NUL
};

}  // namespace zr
