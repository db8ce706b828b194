// Test messages with known structure, for the integration tests.
#pragma once

#include <string>

#include "zrimap/engine.h"

namespace zr {
namespace it {

// Base64 in 76-character lines, as mailers write attachments.
inline std::string base64Lines(const std::string& bytes) {
    StringBuffer sb;
    ContentCoding::encodeBase64_noCrLf(bytes.data(), static_cast<unsigned>(bytes.size()), sb);
    std::string flat = sb.getString(), out;
    for (size_t i = 0; i < flat.size(); i += 76) out += flat.substr(i, 76) + "\r\n";
    return out;
}

// Bytes that survive no accidental text conversion: every value, repeated.
inline std::string binaryBytes(size_t n, unsigned seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 31 + seed * 7 + (i >> 8)) & 0xFF);
    return s;
}

inline std::string plainMessage(const std::string& subject) {
    return "From: a@example.org\r\nTo: b@example.org\r\nSubject: " + subject +
           "\r\nMIME-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8\r\n\r\nJust text.\r\n";
}

inline std::string alternativeMessage() {
    return "Subject: alt\r\nMIME-Version: 1.0\r\nContent-Type: multipart/alternative; boundary=\"A1\"\r\n\r\n"
           "--A1\r\nContent-Type: text/plain; charset=us-ascii\r\n\r\nplain text\r\n"
           "--A1\r\nContent-Type: text/html; charset=us-ascii\r\n\r\n<p>html</p>\r\n--A1--\r\n";
}

inline const std::string& pdfBytes() {
    static const std::string bytes = binaryBytes(5000, 1);
    return bytes;
}
inline const std::string& pngBytes() {
    static const std::string bytes = binaryBytes(1234, 2);
    return bytes;
}

inline std::string mixedMessage() {
    return "Subject: mixed\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"M1\"\r\n\r\n"
           "--M1\r\nContent-Type: text/plain; charset=utf-8\r\n\r\nSee attached.\r\n"
           "--M1\r\nContent-Type: application/pdf; name=\"doc.pdf\"\r\n"
           "Content-Disposition: attachment; filename=\"doc.pdf\"\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
           base64Lines(pdfBytes()) +
           "--M1\r\nContent-Type: image/png\r\nContent-Disposition: attachment; filename=\"pic.png\"\r\n"
           "Content-Transfer-Encoding: base64\r\n\r\n" +
           base64Lines(pngBytes()) + "--M1--\r\n";
}

inline std::string relatedMessage() {
    return "Subject: related\r\nMIME-Version: 1.0\r\n"
           "Content-Type: multipart/related; boundary=\"R1\"; type=\"text/html\"\r\n\r\n"
           "--R1\r\nContent-Type: text/html; charset=utf-8\r\n\r\n<img src=\"cid:img1\">\r\n"
           "--R1\r\nContent-Type: image/png\r\nContent-ID: <img1>\r\nContent-Disposition: inline\r\n"
           "Content-Transfer-Encoding: base64\r\n\r\n" +
           base64Lines(pngBytes()) + "--R1--\r\n";
}

inline std::string forwardMessage() {
    return "Subject: fwd\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"N1\"\r\n\r\n"
           "--N1\r\nContent-Type: text/plain; charset=utf-8\r\n\r\nForwarded below.\r\n"
           "--N1\r\nContent-Type: message/rfc822\r\n\r\n" +
           alternativeMessage() + "\r\n--N1--\r\n";
}

}  // namespace it
}  // namespace zr
