#include "zrimap/base/XString.h"

#include <cstring>
#include <string>

namespace zr {

bool XString::appendUsAscii(const char* text) {
    if (!text) return true;
    std::string ascii(text);
    for (char& c : ascii)
        if (static_cast<unsigned char>(c) > 0x7F) c = '?';
    return m_utf8.append(ascii.c_str());
}

bool XString::beginsWithUtf8(const char* prefix, bool caseSensitive) const {
    return caseSensitive ? m_utf8.beginsWith(prefix) : m_utf8.beginsWithIgnoreCase(prefix);
}

}  // namespace zr
