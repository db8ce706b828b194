// XString: text that can be read and written as "ANSI" or UTF-8.
//
// UTF-8 is the native form. The "ANSI" form is the system's narrow character
// set, which on every platform this library supports is UTF-8, so the ANSI
// accessors hand out the very same bytes: a non-ASCII password entered by a
// user reaches a UTF-8 server unchanged. User names, passwords and mailbox
// names enter the engine in this type.
#pragma once

#include "zrimap/base/StringBuffer.h"

namespace zr {

class XString {
public:
    XString() = default;
    explicit XString(const char* utf8) { m_utf8.append(utf8); }
    virtual ~XString() = default;
    XString(const XString&) = default;
    XString& operator=(const XString&) = default;

    bool appendAnsi(const char* text) { return m_utf8.append(text); }
    bool appendUtf8(const char* text) { return m_utf8.append(text); }
    // Bytes above 0x7F are not US-ASCII; each becomes '?'.
    bool appendUsAscii(const char* text);
    bool appendSbUtf8(const StringBuffer& sb) { return m_utf8.append(sb); }
    bool setFromUtf8(const char* text) { return m_utf8.setString(text); }
    bool setFromAnsi(const char* text) { return m_utf8.setString(text); }
    bool setFromSbUtf8(const StringBuffer& sb) { return m_utf8.setString(sb); }

    const char* getAnsi() const { return m_utf8.getString(); }
    const char* getUtf8() const { return m_utf8.getString(); }
    const StringBuffer& getUtf8Sb() const { return m_utf8; }
    unsigned getSizeAnsi() const { return m_utf8.getSize(); }
    unsigned getSizeUtf8() const { return m_utf8.getSize(); }
    bool isEmpty() const { return m_utf8.isEmpty(); }

    // caseSensitive false compares ASCII letters without regard to case.
    bool beginsWithUtf8(const char* prefix, bool caseSensitive) const;
    bool equalsUtf8(const char* text) const { return m_utf8.equals(text); }

    void trim2() { m_utf8.trim2(); }
    void clear() { m_utf8.clear(); }
    void secureClear() { m_utf8.secureClear(); }

private:
    StringBuffer m_utf8;
};

}  // namespace zr
