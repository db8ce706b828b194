// Mailbox names: UTF-8 in the API, modified UTF-7 on the wire (RFC 3501
// section 5.1.3). The decoder is strict so that a name which only looks
// encoded is shown as the server sent it rather than as something else.
#include <cstdint>
#include <string>
#include <vector>

#include "ClientDetail.h"
#include "zrimap/client.h"

namespace zr {

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+,";

int alphabetIndex(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == ',') return 63;
    return -1;
}

// One code point from s at i; advances i. False for a malformed sequence
// (i then moves past its first byte only).
bool nextCodePoint(const std::string& s, size_t& i, uint32_t& cp) {
    const auto b0 = static_cast<unsigned char>(s[i]);
    if (b0 < 0x80) {
        cp = b0;
        ++i;
        return true;
    }
    int extra;
    uint32_t min;
    if ((b0 & 0xE0) == 0xC0) {
        extra = 1;
        cp = b0 & 0x1F;
        min = 0x80;
    } else if ((b0 & 0xF0) == 0xE0) {
        extra = 2;
        cp = b0 & 0x0F;
        min = 0x800;
    } else if ((b0 & 0xF8) == 0xF0) {
        extra = 3;
        cp = b0 & 0x07;
        min = 0x10000;
    } else {
        ++i;
        return false;
    }
    if (s.size() - i <= static_cast<size_t>(extra)) {  // truncated at the end
        ++i;
        return false;
    }
    for (int k = 1; k <= extra; ++k) {
        const auto b = static_cast<unsigned char>(s[i + static_cast<size_t>(k)]);
        if ((b & 0xC0) != 0x80) {
            ++i;
            return false;
        }
        cp = (cp << 6) | (b & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++i;
        return false;
    }
    i += static_cast<size_t>(extra) + 1;
    return true;
}

void appendUtf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

void appendShifted(std::string& out, const std::vector<uint16_t>& units) {
    out += '&';
    uint32_t bits = 0;
    int count = 0;
    for (uint16_t u : units) {
        bits = (bits << 16) | u;
        count += 16;
        while (count >= 6) {
            count -= 6;
            out += kAlphabet[(bits >> count) & 0x3F];
        }
        bits &= (1u << count) - 1;
    }
    // No padding: the leftover bits are filled with zeros.
    if (count > 0) out += kAlphabet[(bits << (6 - count)) & 0x3F];
    out += '-';
}

// Decodes the base64 run between '&' and '-' into code points; false when
// it is not the canonical encoding of characters that needed it.
bool decodeShifted(const std::string& run, std::string& out) {
    if (run.empty()) return false;
    uint32_t bits = 0;
    int count = 0;
    std::vector<uint16_t> units;
    for (char c : run) {
        const int v = alphabetIndex(c);
        if (v < 0) return false;
        bits = (bits << 6) | static_cast<uint32_t>(v);
        count += 6;
        if (count >= 16) {
            count -= 16;
            units.push_back(static_cast<uint16_t>((bits >> count) & 0xFFFF));
            bits &= (1u << count) - 1;
        }
    }
    // Leftovers: fewer than six bits, all zero (anything else is padding
    // a canonical encoder never writes, or a truncated character).
    if (count >= 6 || bits != 0 || units.empty()) return false;
    for (size_t k = 0; k < units.size(); ++k) {
        uint32_t cp = units[k];
        if (cp >= 0xD800 && cp <= 0xDBFF) {
            if (k + 1 >= units.size() || units[k + 1] < 0xDC00 || units[k + 1] > 0xDFFF) return false;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (units[k + 1] - 0xDC00);
            ++k;
        } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            return false;
        } else if (cp >= 0x20 && cp <= 0x7E) {
            return false;  // printable ASCII must stand for itself
        }
        appendUtf8(out, cp);
    }
    return true;
}

}  // namespace

namespace client_detail {

bool isValidUtf8(const std::string& text) {
    size_t i = 0;
    uint32_t cp;
    while (i < text.size())
        if (!nextCodePoint(text, i, cp)) return false;
    return true;
}

}  // namespace client_detail

std::string encodeMailboxName(const std::string& utf8) {
    std::string out;
    std::vector<uint16_t> pending;
    auto flush = [&] {
        if (pending.empty()) return;
        appendShifted(out, pending);
        pending.clear();
    };
    size_t i = 0;
    while (i < utf8.size()) {
        uint32_t cp;
        if (!nextCodePoint(utf8, i, cp)) cp = 0xFFFD;
        if (cp >= 0x20 && cp <= 0x7E) {
            flush();
            out += cp == '&' ? std::string("&-") : std::string(1, static_cast<char>(cp));
        } else if (cp >= 0x10000) {
            const uint32_t v = cp - 0x10000;
            pending.push_back(static_cast<uint16_t>(0xD800 + (v >> 10)));
            pending.push_back(static_cast<uint16_t>(0xDC00 + (v & 0x3FF)));
        } else {
            pending.push_back(static_cast<uint16_t>(cp));
        }
    }
    flush();
    return out;
}

std::string decodeMailboxName(const std::string& modifiedUtf7) {
    const std::string& in = modifiedUtf7;
    std::string out;
    out.reserve(in.size());
    bool lastWasShifted = false;
    for (size_t i = 0; i < in.size();) {
        const auto c = static_cast<unsigned char>(in[i]);
        if (c < 0x20 || c > 0x7E) return in;  // 8-bit or control: not modified UTF-7
        if (c != '&') {
            out += static_cast<char>(c);
            lastWasShifted = false;
            ++i;
            continue;
        }
        const size_t end = in.find('-', i + 1);
        if (end == std::string::npos) return in;
        if (end == i + 1) {
            out += '&';
            lastWasShifted = false;
        } else {
            // Two runs in a row are one run split for no reason; a canonical
            // encoder joins them, so the name would not survive a round trip.
            if (lastWasShifted) return in;
            if (!decodeShifted(in.substr(i + 1, end - i - 1), out)) return in;
            lastWasShifted = true;
        }
        i = end + 1;
    }
    return out;
}

}  // namespace zr
