// ImapResultSet::parseSummary: the FETCH BODYSTRUCTURE / BODY response
// (RFC 3501 sections 7.4.2 and 9) turned into an ImapMsgSummary, with the
// file-name parameters decoded (RFC 2231, RFC 2047).
//
// Servers get this response wrong in many small ways, so the reader accepts
// more than the grammar allows wherever the intent stays unambiguous:
//   - types, subtypes, parameter names and NIL in any case;
//   - NIL where a string, a list or a number belongs, and atoms where a
//     string belongs;
//   - a body that closes early: every field after the media subtype may be
//     missing;
//   - any number of unknown extension values (atoms, numbers, strings, NIL,
//     nested lists) at the end of a body;
//   - a parameter list with an odd number of items (the lone name gets an
//     empty value), and a lone string where a parameter list belongs (it is
//     ignored);
//   - a disposition sent as a bare string instead of a list;
//   - missing or extra blanks between values;
//   - backslash escapes in quoted strings other than \" and \\ (the
//     backslash is kept, which is what unescaped Windows paths need);
//   - a bare LF after a literal's "{n}".
// It refuses what cannot be read without guessing: a multipart with no parts
// (a single-part body typed "multipart"), a list where the media type or
// subtype belongs, an unterminated string, a literal longer than the rest of
// the line, and nesting deeper than kMaxNesting parenthesised levels, which
// also bounds the recursion.
#include <iconv.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "zrimap/base/ContentCoding.h"
#include "zrimap/base/DataBuffer.h"
#include "zrimap/base/ImapMsgSummary.h"
#include "zrimap/base/ImapResultSet.h"
#include "zrimap/base/LogBase.h"
#include "zrimap/base/StringBuffer.h"

namespace zr {

namespace {

// Real structures stay far below this: a forwarded message adds two or three
// levels, an address list in its envelope two. It is what keeps a hostile
// "((((..." from exhausting the stack.
constexpr int kMaxNesting = 64;

char lowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

bool equalsNoCase(const std::string& a, const char* b) {
    size_t i = 0;
    for (; i < a.size() && b[i]; ++i)
        if (lowerAscii(a[i]) != lowerAscii(b[i])) return false;
    return i == a.size() && !b[i];
}

std::string lowered(const std::string& s) {
    std::string out(s);
    for (char& c : out) c = lowerAscii(c);
    return out;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// ---------------------------------------------------------------------------
// Parameter values: charsets, RFC 2231 and RFC 2047.

// The bytes converted from `charset` to UTF-8. Text whose charset is unknown
// to the system, or that does not convert cleanly, is returned as it is:
// showing raw bytes beats losing the name.
std::string toUtf8(const std::string& bytes, std::string charset) {
    const size_t star = charset.find('*');  // RFC 2231 section 5: "utf-8*en"
    if (star != std::string::npos) charset.resize(star);
    if (charset.empty() || bytes.empty()) return bytes;
    const std::string cs = lowered(charset);
    if (cs == "utf-8" || cs == "utf8" || cs == "us-ascii" || cs == "ascii") return bytes;

    iconv_t cd = iconv_open("UTF-8", charset.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) return bytes;
    std::string out;
    std::vector<char> in(bytes.begin(), bytes.end());
    char* inPtr = in.data();
    size_t inLeft = in.size();
    char chunk[256];
    bool ok = true;
    while (inLeft > 0) {
        char* outPtr = chunk;
        size_t outLeft = sizeof chunk;
        const size_t rc = iconv(cd, &inPtr, &inLeft, &outPtr, &outLeft);
        out.append(chunk, sizeof chunk - outLeft);
        if (rc == static_cast<size_t>(-1) && errno != E2BIG) {
            ok = false;
            break;
        }
    }
    if (ok) {  // flush a stateful encoding's closing shift sequence
        char* outPtr = chunk;
        size_t outLeft = sizeof chunk;
        if (iconv(cd, nullptr, nullptr, &outPtr, &outLeft) == static_cast<size_t>(-1)) ok = false;
        out.append(chunk, sizeof chunk - outLeft);
    }
    iconv_close(cd);
    return ok ? out : bytes;
}

// "%E2%82%AC" -> the three bytes; a '%' without two hex digits stays as is.
std::string percentDecode(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size() && hexValue(s[i + 1]) >= 0 && hexValue(s[i + 2]) >= 0) {
            out += static_cast<char>(hexValue(s[i + 1]) * 16 + hexValue(s[i + 2]));
            i += 2;
        } else {
            out += s[i];
        }
    }
    return out;
}

// One RFC 2047 encoded word "=?charset?B|Q?text?=" starting at s[pos];
// on success `decoded` holds its UTF-8 text and `end` the offset after it.
bool decodeEncodedWord(const std::string& s, size_t pos, std::string& decoded, size_t& end) {
    if (s.compare(pos, 2, "=?") != 0) return false;
    const size_t q1 = s.find('?', pos + 2);
    if (q1 == std::string::npos || q1 == pos + 2 || q1 + 2 >= s.size() || s[q1 + 2] != '?') return false;
    const char enc = lowerAscii(s[q1 + 1]);
    if (enc != 'b' && enc != 'q') return false;
    const size_t textStart = q1 + 3;
    const size_t close = s.find("?=", textStart);
    if (close == std::string::npos) return false;
    const std::string text = s.substr(textStart, close - textStart);
    if (text.find_first_of(" \t") != std::string::npos) return false;

    std::string bytes;
    if (enc == 'b') {
        DataBuffer db;
        if (!ContentCoding::decodeBase64ToDb(text.data(), static_cast<unsigned>(text.size()), db)) return false;
        bytes.assign(reinterpret_cast<const char*>(db.getData2()), db.getSize());
    } else {
        for (size_t i = 0; i < text.size(); ++i) {
            if (text[i] == '_') {
                bytes += ' ';
            } else if (text[i] == '=' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
                       hexValue(text[i + 2]) >= 0) {
                bytes += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
                i += 2;
            } else {
                bytes += text[i];
            }
        }
    }
    decoded = toUtf8(bytes, s.substr(pos + 2, q1 - pos - 2));
    end = close + 2;
    return true;
}

// Many mailers put RFC 2047 words in file names although RFC 2047 section 5
// does not allow them there; readers decode them anyway, and so do we.
// Blanks between two adjacent encoded words are dropped (section 6.2).
std::string decodeEncodedWords(const std::string& s) {
    if (s.find("=?") == std::string::npos) return s;
    std::string out;
    size_t pos = 0;
    bool lastWasWord = false;
    while (pos < s.size()) {
        std::string word;
        size_t end = 0;
        if (decodeEncodedWord(s, pos, word, end)) {
            out += word;
            pos = end;
            lastWasWord = true;
            continue;
        }
        if (lastWasWord && (s[pos] == ' ' || s[pos] == '\t')) {
            size_t next = pos;
            while (next < s.size() && (s[next] == ' ' || s[next] == '\t')) ++next;
            if (decodeEncodedWord(s, next, word, end)) {
                pos = next;
                continue;
            }
        }
        out += s[pos++];
        lastWasWord = false;
    }
    return out;
}

struct Param {
    std::string name;
    std::string value;
};

// The value of parameter `name` (any case). The RFC 2231 forms win: the
// single "name*" with charset'language'percent-encoding, or the numbered
// continuations "name*0", "name*1*", ... joined in numeric order. The plain
// "name" is used only when there is no extended form; it may carry RFC 2047
// words when `decode2047` is set.
bool findParam(const std::vector<Param>& params, const char* name, bool decode2047, std::string& out) {
    const std::string base = lowered(name);
    const std::string star = base + "*";
    const Param* plain = nullptr;
    const Param* single = nullptr;
    std::map<unsigned, std::pair<bool, const Param*>> sections;  // index -> (encoded, param)
    for (const Param& p : params) {
        const std::string n = lowered(p.name);
        if (n == base) {
            if (!plain) plain = &p;
        } else if (n == star) {
            if (!single) single = &p;
        } else if (n.size() > star.size() && n.compare(0, star.size(), star) == 0) {
            size_t i = star.size();
            unsigned index = 0;
            size_t digits = 0;
            while (i < n.size() && n[i] >= '0' && n[i] <= '9' && digits < 6) {
                index = index * 10 + static_cast<unsigned>(n[i] - '0');
                ++i;
                ++digits;
            }
            if (!digits) continue;
            const bool encoded = i + 1 == n.size() && n[i] == '*';
            if (i != n.size() && !encoded) continue;
            sections.emplace(index, std::make_pair(encoded, &p));  // the first of duplicates wins
        }
    }

    // charset'language'text -> the charset, and the rest in `text`
    auto splitCharset = [](const std::string& v, std::string& charset, std::string& text) {
        const size_t a = v.find('\'');
        const size_t b = a == std::string::npos ? a : v.find('\'', a + 1);
        if (b == std::string::npos) {
            charset.clear();
            text = v;
        } else {
            charset = v.substr(0, a);
            text = v.substr(b + 1);
        }
    };

    if (single) {
        std::string charset, text;
        splitCharset(single->value, charset, text);
        out = toUtf8(percentDecode(text), charset);
        return true;
    }
    if (!sections.empty()) {
        std::string charset, bytes;
        bool first = true;
        for (const auto& entry : sections) {
            const bool encoded = entry.second.first;
            const std::string& value = entry.second.second->value;
            if (encoded && first) {
                std::string text;
                splitCharset(value, charset, text);
                bytes += percentDecode(text);
            } else {
                bytes += encoded ? percentDecode(value) : value;
            }
            first = false;
        }
        out = toUtf8(bytes, charset);
        return true;
    }
    if (plain) {
        out = decode2047 ? decodeEncodedWords(plain->value) : plain->value;
        return true;
    }
    return false;
}

// ---------------------------------------------------------------------------
// The reader of one FETCH response line.

// What the attachment rule needs to know about a part's place in the tree.
struct NodeInfo {
    int parent;        // index of the enclosing part, -1 for the top body
    int childNo;       // 1-based position among the parent's children
    bool container;    // a multipart
    bool inForwarded;  // somewhere below a message/rfc822 or message/global
};

// Specifiers for a body about to be read: the one it gets when it turns out
// single-part, the one when it is multipart, and the prefix of its children.
struct BodyIds {
    std::string single;
    std::string multi;
    std::string childPrefix;
};

bool isForwardedType(const ImapMsgPart& part) {
    return part.m_contentType.equalsIgnoreCase("message") &&
           (part.m_subType.equalsIgnoreCase("rfc822") || part.m_subType.equalsIgnoreCase("global"));
}

class FetchLineReader {
public:
    enum class Outcome {
        NotFetch,     // not an untagged FETCH response
        NoStructure,  // a FETCH response without a body structure item
        ItemsFailed,  // the item list broke before any body structure item
        BodyFailed,   // the body structure itself could not be read
        Parsed,
    };

    FetchLineReader(const char* data, size_t size, ImapMsgSummary& summary)
        : m_d(data), m_n(size), m_summary(summary) {}

    Outcome run();
    // Sets the attachment flags and count and marks the summary loaded.
    void finish();

    const std::string& error() const { return m_error; }
    size_t errorOffset() const { return m_errorPos; }
    // A problem in the items after a successfully read body structure.
    const std::string& trailingError() const { return m_trailingError; }

private:
    int peek() const { return m_pos < m_n ? static_cast<unsigned char>(m_d[m_pos]) : -1; }
    void skipBlanks() {
        while (m_pos < m_n && (m_d[m_pos] == ' ' || m_d[m_pos] == '\t')) ++m_pos;
    }
    // Next value closes the current list.
    bool closesHere() {
        skipBlanks();
        return peek() == ')';
    }
    bool atLineEnd() const { return m_pos >= m_n || m_d[m_pos] == '\r' || m_d[m_pos] == '\n'; }
    // Another field of the current body follows; false at its ')' and at
    // the line end, where skipRest reports the missing ')'.
    bool moreFields() {
        skipBlanks();
        return peek() != ')' && !atLineEnd();
    }
    static bool endsAtom(unsigned char c) {
        return c <= ' ' || c == 0x7f || c == '(' || c == ')' || c == '"';
    }
    bool nilFollows() const;

    std::string describe(size_t pos) const;
    bool failAt(size_t pos, const std::string& problem);
    bool failExpected(const char* what) {
        return failAt(m_pos, std::string("expected ") + what + " but found " + describe(m_pos));
    }
    bool checkDepth(int level);

    bool readString(std::string& out, bool& isNil, const char* what);
    bool readQuoted(std::string& out);
    bool readLiteral(std::string& out);
    bool readNumber(uint64_t& out, const char* what);
    bool skipValue(int depth, const char* what);
    bool readParams(std::vector<Param>& out, int depth, const char* what);
    bool readDisposition(ImapMsgPart& part, int depth);
    bool skipRest(int depth);

    bool parseBody(const BodyIds& ids, int parent, int childNo, bool inForwarded, int depth);
    bool parseMultipart(ImapMsgPart& part, int index, const BodyIds& ids, bool inForwarded, int depth);
    bool parseSinglePart(ImapMsgPart& part, int index, const BodyIds& ids, int depth);
    ImapMsgPart* newPart(const std::string& id, int parent, int childNo, bool container, bool inForwarded);
    bool readItems(bool& sawBody);
    bool readFlags();
    bool isAttachment(int index) const;

    const char* m_d;
    size_t m_n;
    size_t m_pos = 0;
    ImapMsgSummary& m_summary;
    std::vector<NodeInfo> m_nodes;
    bool m_inBody = false;  // reading the structure rather than the other items
    bool m_bodyFailed = false;
    std::string m_where;  // the part being read, for error texts
    std::string m_error;
    size_t m_errorPos = 0;
    std::string m_trailingError;
};

std::string FetchLineReader::describe(size_t pos) const {
    if (pos >= m_n) return "the end of the line";
    const unsigned char c = static_cast<unsigned char>(m_d[pos]);
    if (c == '\r' || c == '\n') return "the end of the line";
    if (c == ' ') return "a blank";
    if (c > ' ' && c < 0x7f) return std::string("'") + static_cast<char>(c) + "'";
    char hex[16];
    std::snprintf(hex, sizeof hex, "byte 0x%02X", c);
    return hex;
}

bool FetchLineReader::failAt(size_t pos, const std::string& problem) {
    if (!m_error.empty()) return false;  // the first, innermost report stands
    m_errorPos = pos;
    m_error = (m_inBody ? "BODYSTRUCTURE parse error at offset " : "FETCH response parse error at offset ") +
              std::to_string(pos);
    if (m_inBody && !m_where.empty()) m_error += " in " + m_where;
    m_error += ": " + problem;
    return false;
}

// `level` is the nesting level of a list about to be opened, 1 for the
// outermost parenthesis of the structure.
bool FetchLineReader::checkDepth(int level) {
    if (level <= kMaxNesting) return true;
    return failAt(m_pos, "nesting deeper than " + std::to_string(kMaxNesting) + " levels");
}

bool FetchLineReader::nilFollows() const {
    if (m_pos >= m_n || m_n - m_pos < 3) return false;
    if (lowerAscii(m_d[m_pos]) != 'n' || lowerAscii(m_d[m_pos + 1]) != 'i' || lowerAscii(m_d[m_pos + 2]) != 'l')
        return false;
    return m_pos + 3 == m_n || endsAtom(static_cast<unsigned char>(m_d[m_pos + 3]));
}

bool FetchLineReader::readQuoted(std::string& out) {
    const size_t start = m_pos++;
    out.clear();
    while (m_pos < m_n) {
        const char c = m_d[m_pos];
        if (c == '"') {
            ++m_pos;
            return true;
        }
        if (c == '\r' || c == '\n') break;
        if (c == '\\' && m_pos + 1 < m_n) {
            const char next = m_d[m_pos + 1];
            if (next == '\r' || next == '\n') break;
            if (next != '"' && next != '\\') out += '\\';
            out += next;
            m_pos += 2;
            continue;
        }
        out += c;
        ++m_pos;
    }
    return failAt(start, "unterminated quoted string");
}

bool FetchLineReader::readLiteral(std::string& out) {
    const size_t start = m_pos;
    if (m_d[m_pos] == '~') ++m_pos;  // literal8 (RFC 3516)
    ++m_pos;                         // '{'
    uint64_t count = 0;
    size_t digits = 0;
    while (m_pos < m_n && m_d[m_pos] >= '0' && m_d[m_pos] <= '9') {
        const uint64_t digit = static_cast<uint64_t>(m_d[m_pos] - '0');
        count = count > (UINT64_MAX - digit) / 10 ? UINT64_MAX : count * 10 + digit;
        ++m_pos;
        ++digits;
    }
    if (!digits || m_pos >= m_n || m_d[m_pos] != '}') return failAt(start, "malformed literal size");
    ++m_pos;
    if (m_pos < m_n && m_d[m_pos] == '\r') ++m_pos;
    if (m_pos >= m_n || m_d[m_pos] != '\n') return failAt(start, "expected a line end after the literal size");
    ++m_pos;
    const size_t left = m_n - m_pos;
    if (count > left)
        return failAt(start, "literal of " + std::to_string(count) + " bytes runs past the end of the line (" +
                                 std::to_string(left) + " bytes left)");
    out.assign(m_d + m_pos, static_cast<size_t>(count));
    m_pos += static_cast<size_t>(count);
    return true;
}

// string / nstring / atom, with NIL reported through isNil (out empty).
bool FetchLineReader::readString(std::string& out, bool& isNil, const char* what) {
    skipBlanks();
    isNil = false;
    out.clear();
    const int c = peek();
    if (c == '"') return readQuoted(out);
    if (c == '{' || (c == '~' && m_pos + 1 < m_n && m_d[m_pos + 1] == '{')) return readLiteral(out);
    if (c < 0 || endsAtom(static_cast<unsigned char>(c))) return failExpected(what);
    if (nilFollows()) {
        isNil = true;
        m_pos += 3;
        return true;
    }
    const size_t start = m_pos;
    while (m_pos < m_n && !endsAtom(static_cast<unsigned char>(m_d[m_pos]))) ++m_pos;
    out.assign(m_d + start, m_pos - start);
    return true;
}

// A number; NIL and non-numeric strings read as 0, huge values saturate.
bool FetchLineReader::readNumber(uint64_t& out, const char* what) {
    std::string text;
    bool isNil = false;
    if (!readString(text, isNil, what)) return false;
    out = 0;
    for (char c : text) {
        if (c < '0' || c > '9') break;
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        out = out > (UINT64_MAX - digit) / 10 ? UINT64_MAX : out * 10 + digit;
    }
    return true;
}

bool FetchLineReader::skipValue(int depth, const char* what) {
    skipBlanks();
    if (peek() != '(') {
        std::string ignored;
        bool isNil = false;
        return readString(ignored, isNil, what);
    }
    if (!checkDepth(depth + 1)) return false;
    ++m_pos;
    while (!closesHere()) {
        if (atLineEnd()) return failExpected("')' to close a list");
        if (!skipValue(depth + 1, "a value or ')'")) return false;
    }
    ++m_pos;
    return true;
}

// Whatever follows the fields we know, up to and including the body's ')'.
bool FetchLineReader::skipRest(int depth) {
    while (!closesHere()) {
        if (atLineEnd()) return failExpected("')' to close the body");
        if (!skipValue(depth, "an extension value or ')'")) return false;
    }
    ++m_pos;
    return true;
}

bool FetchLineReader::readParams(std::vector<Param>& out, int depth, const char* what) {
    out.clear();
    skipBlanks();
    if (peek() != '(') {
        std::string ignored;  // NIL, or a stray string a broken server put here
        bool isNil = false;
        return readString(ignored, isNil, what);
    }
    if (!checkDepth(depth + 1)) return false;
    ++m_pos;
    std::vector<std::string> items;
    while (!closesHere()) {
        std::string item;
        bool isNil = false;
        if (!readString(item, isNil, "a parameter name or value")) return false;
        items.push_back(item);
    }
    ++m_pos;
    for (size_t i = 0; i < items.size(); i += 2)
        out.push_back(Param{items[i], i + 1 < items.size() ? items[i + 1] : std::string()});
    return true;
}

bool FetchLineReader::readDisposition(ImapMsgPart& part, int depth) {
    skipBlanks();
    std::string type;
    bool isNil = false;
    if (peek() != '(') {  // NIL, or the bare type some servers send
        if (!readString(type, isNil, "a disposition list or NIL")) return false;
        return part.m_disposition.setString(type.c_str());
    }
    if (!checkDepth(depth + 1)) return false;
    ++m_pos;
    if (closesHere()) {
        ++m_pos;
        return true;
    }
    if (!readString(type, isNil, "the disposition type")) return false;
    part.m_disposition.setString(type.c_str());
    if (moreFields()) {
        std::vector<Param> params;
        if (!readParams(params, depth + 1, "the disposition parameters")) return false;
        std::string filename;
        if (findParam(params, "filename", true, filename)) part.m_filename.setString(filename.c_str());
    }
    return skipRest(depth + 1);
}

ImapMsgPart* FetchLineReader::newPart(const std::string& id, int parent, int childNo, bool container,
                                      bool inForwarded) {
    ImapMsgPart* part = new (std::nothrow) ImapMsgPart;
    if (!part || !m_summary.appendPart(part)) {  // appendPart deletes it on failure
        failAt(m_pos, "out of memory");
        return nullptr;
    }
    part->m_partId.setString(id.c_str());
    m_nodes.push_back(NodeInfo{parent, childNo, container, inForwarded});
    return part;
}

bool FetchLineReader::parseBody(const BodyIds& ids, int parent, int childNo, bool inForwarded, int depth) {
    const std::string outerWhere = m_where;
    skipBlanks();
    if (peek() != '(') return failExpected("'(' to open a body");
    if (!checkDepth(depth + 1)) return false;
    ++m_pos;
    skipBlanks();
    const bool multipart = peek() == '(';
    const std::string& id = multipart ? ids.multi : ids.single;
    m_where = id.empty() ? "the top-level multipart" : "part " + id;
    ImapMsgPart* part = newPart(id, parent, childNo, multipart, inForwarded);
    if (!part) return false;
    const int index = static_cast<int>(m_nodes.size()) - 1;
    const bool ok = multipart ? parseMultipart(*part, index, ids, inForwarded, depth + 1)
                              : parseSinglePart(*part, index, ids, depth + 1);
    if (ok) m_where = outerWhere;
    return ok;
}

// After the '(' of a body whose first value is a body: 1*body SP subtype
// [SP body-ext-mpart].
bool FetchLineReader::parseMultipart(ImapMsgPart& part, int index, const BodyIds& ids, bool inForwarded,
                                     int depth) {
    part.m_contentType.setString("multipart");
    int children = 0;
    for (;;) {
        skipBlanks();
        if (peek() != '(') break;
        ++children;
        const std::string childId =
            ids.childPrefix.empty() ? std::to_string(children) : ids.childPrefix + "." + std::to_string(children);
        if (!parseBody(BodyIds{childId, childId, childId}, index, children, inForwarded, depth)) return false;
    }
    if (!moreFields()) return skipRest(depth);  // no subtype
    std::string value;
    bool isNil = false;
    if (!readString(value, isNil, "the multipart subtype (a string)")) return false;
    part.m_subType.setString(value.c_str());
    if (!moreFields()) return skipRest(depth);

    std::vector<Param> params;
    if (!readParams(params, depth, "the multipart parameters")) return false;
    if (findParam(params, "charset", false, value)) part.m_charset.setString(value.c_str());
    if (!moreFields()) return skipRest(depth);
    if (!readDisposition(part, depth)) return false;
    return skipRest(depth);  // language, location, extensions
}

// After the '(' of a single-part body: type SP subtype SP body-fields, then
// the envelope, body and line count of a message, or the line count of a
// text, then [SP body-ext-1part].
bool FetchLineReader::parseSinglePart(ImapMsgPart& part, int index, const BodyIds& ids, int depth) {
    std::string value;
    bool isNil = false;
    skipBlanks();
    const size_t typePos = m_pos;
    if (!readString(value, isNil, "the media type (a string)")) return false;
    part.m_contentType.setString(value.c_str());
    if (equalsNoCase(value, "multipart")) return failAt(typePos, "multipart body with no parts");
    if (!readString(value, isNil, "the media subtype (a string)")) return false;
    part.m_subType.setString(value.c_str());

    // body-fields; any trailing field may be missing
    if (!moreFields()) return skipRest(depth);
    std::vector<Param> params;
    if (!readParams(params, depth, "the body parameters")) return false;
    if (findParam(params, "charset", false, value)) part.m_charset.setString(value.c_str());
    if (findParam(params, "name", true, value)) part.m_name.setString(value.c_str());

    StringBuffer* fields[] = {&part.m_contentId, &part.m_description, &part.m_encoding};
    const char* fieldNames[] = {"the content id (a string or NIL)", "the description (a string or NIL)",
                                "the transfer encoding (a string)"};
    for (int i = 0; i < 3; ++i) {
        if (!moreFields()) return skipRest(depth);
        if (!readString(value, isNil, fieldNames[i])) return false;
        fields[i]->setString(value.c_str());
    }
    if (!moreFields()) return skipRest(depth);
    uint64_t number = 0;
    if (!readNumber(number, "the body size (a number)")) return false;
    part.m_size = number > UINT32_MAX ? UINT32_MAX : static_cast<unsigned>(number);

    if (isForwardedType(part)) {
        skipBlanks();
        if (peek() == '(') {  // envelope; a server treating it as basic sends none
            if (!skipValue(depth, "the envelope")) return false;
            if (!moreFields()) return skipRest(depth);
            const std::string& id = ids.single;
            if (!parseBody(BodyIds{id + ".1", id + ".TEXT", id}, index, 1, true, depth)) return false;
            if (!moreFields()) return skipRest(depth);
            if (!readNumber(number, "the line count (a number)")) return false;
        }
    } else if (part.m_contentType.equalsIgnoreCase("text")) {
        if (!moreFields()) return skipRest(depth);
        if (!readNumber(number, "the line count (a number)")) return false;
    }

    // body-ext-1part: MD5, then the disposition, then whatever follows
    if (!moreFields()) return skipRest(depth);
    if (!skipValue(depth, "the body MD5 (a string or NIL)")) return false;
    if (!moreFields()) return skipRest(depth);
    if (!readDisposition(part, depth)) return false;
    return skipRest(depth);
}

bool FetchLineReader::readFlags() {
    skipBlanks();
    if (peek() != '(') return skipValue(0, "the FLAGS list");
    ++m_pos;
    std::string flags;
    while (!closesHere()) {
        std::string flag;
        bool isNil = false;
        if (!readString(flag, isNil, "a flag or ')'")) return false;
        if (!flags.empty()) flags += ' ';
        flags += flag;
    }
    ++m_pos;
    return m_summary.m_flags.setString(flags.c_str());
}

// The msg-att list: name value pairs. Names are atoms, with a bracketed
// section ("BODY[HEADER.FIELDS (FROM)]<0>") taken whole.
bool FetchLineReader::readItems(bool& sawBody) {
    while (!closesHere()) {
        if (atLineEnd()) return failExpected("a FETCH item or ')'");
        const size_t nameStart = m_pos;
        while (m_pos < m_n && !endsAtom(static_cast<unsigned char>(m_d[m_pos]))) {
            if (m_d[m_pos] == '[') {
                while (m_pos < m_n && m_d[m_pos] != ']' && m_d[m_pos] != '\r' && m_d[m_pos] != '\n') ++m_pos;
                if (m_pos >= m_n || m_d[m_pos] != ']') return failAt(nameStart, "unterminated section in a FETCH item name");
            }
            ++m_pos;
        }
        if (m_pos == nameStart) return failExpected("a FETCH item name");
        const std::string name(m_d + nameStart, m_pos - nameStart);

        if (!sawBody && (equalsNoCase(name, "BODYSTRUCTURE") || equalsNoCase(name, "BODY"))) {
            m_inBody = true;
            const bool ok = parseBody(BodyIds{"1", "", ""}, -1, 1, false, 0);
            m_inBody = false;
            if (!ok) {
                m_bodyFailed = true;
                return false;
            }
            sawBody = true;
        } else if (equalsNoCase(name, "UID")) {
            uint64_t uid = 0;
            if (!readNumber(uid, "the UID (a number)")) return false;
            m_summary.m_uid = uid > UINT32_MAX ? UINT32_MAX : static_cast<unsigned>(uid);
        } else if (equalsNoCase(name, "RFC822.SIZE")) {
            if (!readNumber(m_summary.m_rfc822Size, "the RFC822.SIZE (a number)")) return false;
        } else if (equalsNoCase(name, "FLAGS")) {
            if (!readFlags()) return false;
        } else if (!skipValue(0, "a FETCH item value")) {
            return false;
        }
    }
    ++m_pos;
    return true;
}

FetchLineReader::Outcome FetchLineReader::run() {
    // "* " number SP "FETCH" SP "("
    if (m_n < 2 || m_d[0] != '*' || m_d[1] != ' ') return Outcome::NotFetch;
    m_pos = 1;
    skipBlanks();
    const size_t numStart = m_pos;
    while (m_pos < m_n && m_d[m_pos] >= '0' && m_d[m_pos] <= '9') ++m_pos;
    if (m_pos == numStart) return Outcome::NotFetch;
    skipBlanks();
    const size_t wordStart = m_pos;
    while (m_pos < m_n && !endsAtom(static_cast<unsigned char>(m_d[m_pos]))) ++m_pos;
    if (!equalsNoCase(std::string(m_d + wordStart, m_pos - wordStart), "FETCH")) return Outcome::NotFetch;
    skipBlanks();
    if (peek() != '(') {
        failExpected("'(' to open the FETCH item list");
        return Outcome::ItemsFailed;
    }
    ++m_pos;

    bool sawBody = false;
    if (!readItems(sawBody)) {
        if (!sawBody) return m_bodyFailed ? Outcome::BodyFailed : Outcome::ItemsFailed;
        m_trailingError.swap(m_error);  // the structure stands; what follows it is lost
        m_error.clear();
    }
    return sawBody ? Outcome::Parsed : Outcome::NoStructure;
}

bool FetchLineReader::isAttachment(int index) const {
    const NodeInfo& node = m_nodes[static_cast<size_t>(index)];
    const ImapMsgPart* part = m_summary.getPart(index);
    if (!part || node.container || node.inForwarded) return false;
    if (isForwardedType(*part)) return true;
    if (part->m_disposition.equalsIgnoreCase("attachment")) return true;

    const ImapMsgPart* parent = node.parent >= 0 ? m_summary.getPart(node.parent) : nullptr;
    const bool inRelated = parent && parent->m_subType.equalsIgnoreCase("related");
    if (inRelated) return false;
    const bool bodyPosition = !parent || node.childNo == 1 || parent->m_subType.equalsIgnoreCase("alternative");
    if (bodyPosition && (part->isType("text", "plain") || part->isType("text", "html"))) return false;
    if (!part->m_filename.isEmpty() || !part->m_name.isEmpty()) return true;
    return parent && parent->m_subType.equalsIgnoreCase("mixed") && node.childNo > 1 &&
           part->m_disposition.isEmpty() && !part->m_contentType.equalsIgnoreCase("text");
}

void FetchLineReader::finish() {
    int count = 0;
    for (int i = 0; i < static_cast<int>(m_nodes.size()); ++i) {
        ImapMsgPart* part = m_summary.getPart(i);
        if (!part) continue;
        part->m_isAttachment = isAttachment(i);
        if (part->m_isAttachment) ++count;
    }
    m_summary.m_numAttachments = count;
    m_summary.m_loaded = 1;
}

// Up to 60 bytes either side of the offset, control bytes shown as \xNN.
std::string excerpt(const char* d, size_t n, size_t pos) {
    const size_t from = pos > 60 ? pos - 60 : 0;
    const size_t to = n - pos > 60 ? pos + 60 : n;
    std::string out;
    for (size_t i = from; i < to; ++i) {
        if (i == pos) out += "-->";
        const unsigned char c = static_cast<unsigned char>(d[i]);
        if (c < ' ' || c >= 0x7f) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    if (pos >= to) out += "-->";
    return out;
}

}  // namespace

bool ImapResultSet::parseSummary(ImapMsgSummary& summary, const char* fetchItems, LogBase& log) {
    LogContextExitor ctx(log, "parseSummary");
    summary.clear();
    try {
        std::string firstError;
        std::string firstExcerpt;
        for (int i = 0; i < m_lines.getSize(); ++i) {
            const StringBuffer* line = m_lines.sbAt(i);
            if (!line) continue;
            summary.clear();  // a line without a structure must not leave its UID or flags behind
            FetchLineReader reader(line->getString(), line->getSize(), summary);
            const FetchLineReader::Outcome outcome = reader.run();
            if (outcome == FetchLineReader::Outcome::Parsed) {
                reader.finish();
                if (!reader.trailingError().empty())
                    log.logInfo(("Ignoring the FETCH items after the body structure: " + reader.trailingError()).c_str());
                return true;
            }
            if (outcome == FetchLineReader::Outcome::BodyFailed || outcome == FetchLineReader::Outcome::ItemsFailed) {
                if (firstError.empty()) {
                    firstError = reader.error();
                    firstExcerpt = excerpt(line->getString(), line->getSize(), reader.errorOffset());
                }
                if (outcome == FetchLineReader::Outcome::BodyFailed) break;
            }
        }
        summary.clear();
        log.logError(firstError.empty() ? "No FETCH response with a BODYSTRUCTURE found" : firstError.c_str());
        if (!firstExcerpt.empty()) log.logData("near", firstExcerpt.c_str());
        if (fetchItems) log.logData("fetchItems", fetchItems);
        return false;
    } catch (const std::bad_alloc&) {
        summary.clear();
        log.logError("Out of memory while parsing a BODYSTRUCTURE");
        return false;
    }
}

}  // namespace zr
