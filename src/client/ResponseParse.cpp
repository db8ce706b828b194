// Reading the server's responses as the API needs them: tokens (RFC 3501
// section 9 syntax, leniently), LIST/LSUB lines, completion lines and the
// engine's IDLE report; plus the two encodings of message data this layer
// undoes and the UID sets it builds.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "ClientDetail.h"

namespace zr {
namespace client_detail {

namespace {

bool iequals(const std::string& a, const char* b) {
    const size_t n = std::strlen(b);
    if (a.size() != n) return false;
    for (size_t i = 0; i < n; ++i)
        if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

class Tokenizer {
public:
    explicit Tokenizer(const std::string& text) : m_s(text) {}

    bool atEnd() const { return m_p >= m_s.size(); }

    // Reads one response; false once the text is used up.
    bool next(Response& out) {
        out.tokens.clear();
        out.raw.clear();
        if (atEnd()) return false;
        const size_t start = m_p;
        parseSequence(out.tokens, 0);
        size_t end = m_p;
        // Swallow the line end that closed the response.
        if (m_p < m_s.size() && m_s[m_p] == '\r') ++m_p;
        if (m_p < m_s.size() && m_s[m_p] == '\n') ++m_p;
        out.raw = m_s.substr(start, end - start);
        return true;
    }

private:
    static constexpr int kMaxDepth = 64;

    bool atLineEnd() const { return m_p < m_s.size() && (m_s[m_p] == '\r' || m_s[m_p] == '\n'); }

    // Tokens up to the line end (depth 0) or the closing parenthesis.
    void parseSequence(std::vector<Token>& out, int depth) {
        while (m_p < m_s.size()) {
            const char c = m_s[m_p];
            if (c == ' ' || c == '\t') {
                ++m_p;
                continue;
            }
            if (c == '\r' || c == '\n') return;  // the caller (or next()) consumes it
            if (c == ')') {
                ++m_p;
                if (depth > 0) return;
                continue;  // a stray ')' at the top level
            }
            Token t;
            if (c == '(') {
                ++m_p;
                t.kind = Token::Kind::List;
                if (depth < kMaxDepth) {
                    parseSequence(t.items, depth + 1);
                } else {
                    skipToLineEnd();
                }
            } else if (c == '"') {
                t.kind = Token::Kind::String;
                parseQuoted(t.text);
            } else if (c == '{' && parseLiteral(t.text)) {
                t.kind = Token::Kind::String;
            } else {
                t.kind = Token::Kind::Atom;
                parseAtom(t.text);
            }
            out.push_back(std::move(t));
        }
    }

    void skipToLineEnd() {
        while (m_p < m_s.size() && !atLineEnd()) ++m_p;
    }

    void parseQuoted(std::string& out) {
        ++m_p;  // the opening quote
        while (m_p < m_s.size() && !atLineEnd()) {
            const char c = m_s[m_p++];
            if (c == '"') return;
            if (c == '\\' && m_p < m_s.size() && !atLineEnd()) {
                out += m_s[m_p++];
                continue;
            }
            out += c;
        }
        // Unterminated: the string ends with the line.
    }

    // "{n}" or "{n+}" and a line end, then n bytes. False (position
    // unchanged) when the text at m_p is not that.
    bool parseLiteral(std::string& out) {
        size_t q = m_p + 1;
        unsigned long long n = 0;
        const size_t digitsStart = q;
        while (q < m_s.size() && std::isdigit(static_cast<unsigned char>(m_s[q])) && q - digitsStart < 12)
            n = n * 10 + static_cast<unsigned>(m_s[q++] - '0');
        if (q == digitsStart) return false;
        if (q < m_s.size() && m_s[q] == '+') ++q;
        if (q >= m_s.size() || m_s[q] != '}') return false;
        ++q;
        if (q < m_s.size() && m_s[q] == '\r') ++q;
        if (q >= m_s.size() || m_s[q] != '\n') return false;
        ++q;
        const size_t available = m_s.size() - q;
        const size_t take = n < available ? static_cast<size_t>(n) : available;
        out.assign(m_s, q, take);
        m_p = q + take;
        return true;
    }

    // Up to a blank, a parenthesis, a quote or the line end; a '[' is
    // matched by its ']' first, so that "BODY[HEADER.FIELDS (SUBJECT)]" and
    // "[UIDVALIDITY 5]" stay one token.
    void parseAtom(std::string& out) {
        int brackets = 0;
        while (m_p < m_s.size() && !atLineEnd()) {
            const char c = m_s[m_p];
            if (brackets == 0 && (c == ' ' || c == '\t' || c == '(' || c == ')' || c == '"')) break;
            if (c == '[') ++brackets;
            if (c == ']' && brackets > 0) --brackets;
            out += c;
            ++m_p;
        }
        if (out.empty()) {  // a lone character no rule takes ('{' without a literal)
            out += m_s[m_p];
            ++m_p;
        }
    }

    const std::string& m_s;
    size_t m_p = 0;
};

}  // namespace

bool Token::isAtom(const char* word) const { return kind == Kind::Atom && iequals(text, word); }

std::string joinLines(const std::vector<std::string>& lines) {
    std::string out;
    for (const std::string& line : lines) {
        out += line;
        if (line.empty() || line.back() != '\n') out += "\r\n";
    }
    return out;
}

std::vector<Response> parseResponses(const std::string& text) {
    std::vector<Response> out;
    Tokenizer t(text);
    Response r;
    while (t.next(r))
        if (!r.tokens.empty()) out.push_back(r);
    return out;
}

bool parseListResponse(const Response& response, MailboxEntry& entry) {
    const std::vector<Token>& t = response.tokens;
    if (t.size() < 5 || !t[0].isAtom("*") || !(t[1].isAtom("LIST") || t[1].isAtom("LSUB"))) return false;
    if (t[2].kind != Token::Kind::List) return false;
    entry = MailboxEntry();
    for (const Token& a : t[2].items)
        if (a.kind == Token::Kind::Atom) entry.attributes.push_back(a.text);
    if (t[3].kind == Token::Kind::String)
        entry.delimiter = t[3].text;
    else if (!t[3].isNil())
        return false;
    if (t[4].kind == Token::Kind::List) return false;
    entry.rawName = t[4].text;
    entry.name = decodeMailboxName(entry.rawName);
    return true;
}

namespace {

// After the tag (or the star) and the status word.
size_t statusWordStart(const std::string& line) {
    size_t p = line.find(' ');
    if (p == std::string::npos) return line.size();
    while (p < line.size() && line[p] == ' ') ++p;
    return p;
}

std::string trimmed(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return s.substr(b, e - b);
}

}  // namespace

std::string completionStatus(const std::string& line) {
    const size_t p = statusWordStart(line);
    size_t e = p;
    while (e < line.size() && std::isalpha(static_cast<unsigned char>(line[e]))) ++e;
    std::string word = line.substr(p, e - p);
    for (char& c : word) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return word;
}

std::string completionText(const std::string& line) {
    size_t p = statusWordStart(line);
    while (p < line.size() && std::isalpha(static_cast<unsigned char>(line[p]))) ++p;
    return trimmed(line.substr(p));
}

// ---------------------------------------------------------------------------
// IDLE report

namespace {

std::string between(const std::string& s, size_t from, const char* open, const char* close, size_t& next) {
    const size_t a = s.find(open, from);
    if (a == std::string::npos) {
        next = std::string::npos;
        return {};
    }
    const size_t b = s.find(close, a + std::strlen(open));
    if (b == std::string::npos) {
        next = std::string::npos;
        return {};
    }
    next = b + std::strlen(close);
    return s.substr(a + std::strlen(open), b - a - std::strlen(open));
}

bool toNumber(const std::string& text, uint32_t& out) {
    if (text.empty() || text.size() > 10) return false;
    unsigned long long v = 0;
    for (char c : text) {
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
        v = v * 10 + static_cast<unsigned>(c - '0');
    }
    if (v > 0xFFFFFFFFull) return false;
    out = static_cast<uint32_t>(v);
    return true;
}

std::string attribute(const std::string& tag, const char* name) {
    const std::string key = std::string(" ") + name + "=\"";
    const size_t a = tag.find(key);
    if (a == std::string::npos) return {};
    const size_t b = tag.find('"', a + key.size());
    if (b == std::string::npos) return {};
    return tag.substr(a + key.size(), b - a - key.size());
}

}  // namespace

std::vector<IdleEvent> parseIdleXml(const std::string& xml) {
    // The report is the engine's own small format; raw lines inside it are
    // not escaped, so it is read element by element rather than as XML.
    std::vector<IdleEvent> out;
    size_t p = 0;
    while ((p = xml.find('<', p)) != std::string::npos) {
        const size_t nameEnd = xml.find_first_of(" >", p + 1);
        if (nameEnd == std::string::npos) break;
        const std::string name = xml.substr(p + 1, nameEnd - p - 1);
        if (name == "idle" || name == "/idle") {
            p = nameEnd;
            continue;
        }
        IdleEvent ev;
        size_t next = std::string::npos;
        if (name == "exists" || name == "expunge" || name == "recent") {
            const std::string open = "<" + name + ">", close = "</" + name + ">";
            const std::string value = between(xml, p, open.c_str(), close.c_str(), next);
            if (next == std::string::npos || !toNumber(value, ev.number)) break;
            ev.kind = name == "exists" ? IdleEvent::Kind::Exists
                      : name == "expunge" ? IdleEvent::Kind::Expunge
                                          : IdleEvent::Kind::Recent;
        } else if (name == "flags") {
            const size_t tagEnd = xml.find('>', p);
            const size_t end = xml.find("</flags>", p);
            if (tagEnd == std::string::npos || end == std::string::npos) break;
            const std::string tag = xml.substr(p, tagEnd - p);
            ev.kind = IdleEvent::Kind::Flags;
            if (!toNumber(attribute(tag, "seqnum"), ev.number)) break;
            uint32_t uid = 0;
            if (toNumber(attribute(tag, "uid"), uid)) ev.uid = uid;
            size_t q = tagEnd + 1;
            while (q < end) {
                size_t after = std::string::npos;
                const std::string flag = between(xml, q, "<flag>", "</flag>", after);
                if (after == std::string::npos || after > end) break;
                if (!flag.empty()) ev.flags.insert(flag);
                q = after;
            }
            next = end + 8;
        } else if (name == "raw") {
            const std::string value = between(xml, p, "<raw>", "</raw>", next);
            if (next == std::string::npos) break;
            ev.kind = IdleEvent::Kind::Other;
            ev.raw = trimmed(value);
        } else {
            p = nameEnd;
            continue;
        }
        out.push_back(std::move(ev));
        p = next;
    }
    return out;
}

// ---------------------------------------------------------------------------
// Quoted-printable and UID sets

namespace {

int hexDigit(uint8_t c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

std::vector<uint8_t> decodeQuotedPrintable(const uint8_t* data, size_t n) {
    std::vector<uint8_t> out;
    out.reserve(n);
    size_t lineStart = 0;
    while (lineStart < n) {
        size_t lineEnd = lineStart;
        while (lineEnd < n && data[lineEnd] != '\n') ++lineEnd;
        const bool hasBreak = lineEnd < n;
        size_t contentEnd = lineEnd;
        if (hasBreak && contentEnd > lineStart && data[contentEnd - 1] == '\r') --contentEnd;
        const bool crlf = hasBreak && contentEnd < lineEnd;
        // Transport padding: blanks at the end of an encoded line are not data.
        while (contentEnd > lineStart && (data[contentEnd - 1] == ' ' || data[contentEnd - 1] == '\t')) --contentEnd;
        bool soft = false;
        if (contentEnd > lineStart && data[contentEnd - 1] == '=') {
            soft = true;
            --contentEnd;
        }
        for (size_t i = lineStart; i < contentEnd; ++i) {
            if (data[i] == '=' && contentEnd - i >= 3) {
                const int hi = hexDigit(data[i + 1]), lo = hexDigit(data[i + 2]);
                if (hi >= 0 && lo >= 0) {
                    out.push_back(static_cast<uint8_t>(hi * 16 + lo));
                    i += 2;
                    continue;
                }
            }
            out.push_back(data[i]);
        }
        if (hasBreak && !soft) {
            if (crlf) out.push_back('\r');
            out.push_back('\n');
        }
        lineStart = hasBreak ? lineEnd + 1 : n;
    }
    return out;
}

std::vector<std::string> compactUidSets(std::vector<uint32_t> uids, size_t maxLength) {
    std::sort(uids.begin(), uids.end());
    uids.erase(std::unique(uids.begin(), uids.end()), uids.end());
    std::vector<std::string> sets;
    std::string current;
    for (size_t i = 0; i < uids.size();) {
        size_t j = i;
        while (j + 1 < uids.size() && uids[j + 1] == uids[j] + 1) ++j;
        std::string piece = std::to_string(uids[i]);
        if (j > i) piece += ":" + std::to_string(uids[j]);
        if (!current.empty() && current.size() + 1 + piece.size() > maxLength) {
            sets.push_back(current);
            current.clear();
        }
        if (!current.empty()) current += ',';
        current += piece;
        i = j + 1;
    }
    if (!current.empty()) sets.push_back(current);
    return sets;
}

}  // namespace client_detail
}  // namespace zr
