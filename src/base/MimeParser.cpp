// Header-field and parameter lookup in MIME headers (RFC 5322 section 2.2
// for folding, RFC 2045 section 5.1 for parameters).
#include "zrimap/base/MimeParser.h"

#include <cstring>
#include <string>

#include "zrimap/base/StringBuffer.h"

namespace zr {

namespace {

bool isWsp(char c) { return c == ' ' || c == '\t'; }

bool namesEqual(const char* a, size_t alen, const char* b) {
    const size_t blen = std::strlen(b);
    if (alen != blen) return false;
    for (size_t i = 0; i < alen; ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x + 32);
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y + 32);
        if (x != y) return false;
    }
    return true;
}

// The line starting at p, without its line end; *next is set past the end.
std::string takeLine(const char* p, const char** next) {
    const char* e = std::strchr(p, '\n');
    const char* end = e ? e : p + std::strlen(p);
    *next = e ? e + 1 : end;
    if (end > p && end[-1] == '\r') --end;
    return std::string(p, end);
}

void trim(std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && (isWsp(s[b]) || s[b] == '\r' || s[b] == '\n')) ++b;
    while (e > b && (isWsp(s[e - 1]) || s[e - 1] == '\r' || s[e - 1] == '\n')) --e;
    s = s.substr(b, e - b);
}

}  // namespace

bool MimeParser::getHeaderField(const char* header, const char* name, StringBuffer& out) {
    out.clear();
    if (!header || !name || !*name) return false;
    try {
        const char* p = header;
        while (*p) {
            const char* next;
            std::string line = takeLine(p, &next);
            p = next;
            if (line.empty()) return false;  // end of the header block
            if (isWsp(line[0])) continue;    // continuation of a field we skip
            const size_t colon = line.find(':');
            if (colon == std::string::npos) continue;
            size_t nameEnd = colon;
            while (nameEnd > 0 && isWsp(line[nameEnd - 1])) --nameEnd;
            if (!namesEqual(line.data(), nameEnd, name)) continue;

            std::string value = line.substr(colon + 1);
            while (*p) {  // unfold: the next lines that begin with white space
                const char* after;
                std::string more = takeLine(p, &after);
                if (more.empty() || !isWsp(more[0])) break;
                value += more;
                p = after;
            }
            trim(value);
            return out.setString(value.c_str());
        }
    } catch (const std::bad_alloc&) {
    }
    return false;
}

bool MimeParser::getSubField(const char* fieldValue, const char* attr, StringBuffer& out) {
    out.clear();
    if (!fieldValue || !attr || !*attr) return false;
    try {
        const char* p = fieldValue;
        // Walk "token; name=value; name="quoted; value"" one segment at a time.
        while (*p) {
            while (*p && (isWsp(*p) || *p == ';' || *p == '\r' || *p == '\n')) ++p;
            const char* nameStart = p;
            while (*p && *p != '=' && *p != ';' && *p != '"') ++p;
            std::string pname(nameStart, p);
            trim(pname);
            std::string value;
            bool hasValue = false;
            if (*p == '=') {
                hasValue = true;
                ++p;
                while (isWsp(*p)) ++p;
                if (*p == '"') {
                    ++p;
                    while (*p && *p != '"') {
                        if (*p == '\\' && p[1]) ++p;
                        value.push_back(*p++);
                    }
                    if (*p == '"') ++p;
                } else {
                    while (*p && *p != ';' && !isWsp(*p) && *p != '\r' && *p != '\n') value.push_back(*p++);
                }
            }
            // Skip whatever else the segment holds (a stray quoted run included).
            while (*p && *p != ';') {
                if (*p == '"') {
                    ++p;
                    while (*p && *p != '"') p += (*p == '\\' && p[1]) ? 2 : 1;
                    if (*p) ++p;
                } else {
                    ++p;
                }
            }
            if (hasValue && namesEqual(pname.data(), pname.size(), attr)) return out.setString(value.c_str());
        }
    } catch (const std::bad_alloc&) {
    }
    return false;
}

}  // namespace zr
