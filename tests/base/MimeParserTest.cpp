#include <gtest/gtest.h>

#include <string>

#include "zrimap/engine.h"

using namespace zr;

namespace {
const char* const kHeader =
    "Received: from a\r\n"
    "\tby b\r\n"
    "From: Alice <alice@example.org>\r\n"
    "content-type: multipart/mixed;\r\n"
    " boundary=\"==b1; x=\\\"q\\\"\";\r\n"
    "\tcharset=utf-8\r\n"
    "Subject: hi\r\n"
    "\r\n"
    "X-In-Body: not a header\r\n";

// The value found, or "<none>"; a failed lookup must also empty the output.
std::string lookup(bool (*find)(const char*, const char*, StringBuffer&), const char* in, const char* name) {
    StringBuffer v("stale");
    if (find(in, name, v)) return v.getString();
    return v.getSize() ? std::string("<none, output left as ") + v.getString() + ">" : "<none>";
}
std::string field(const char* header, const char* name) { return lookup(MimeParser::getHeaderField, header, name); }
std::string sub(const char* value, const char* name) { return lookup(MimeParser::getSubField, value, name); }
}  // namespace

TEST(MimeParser, HeaderFieldUnfoldsAndIgnoresCase) {
    EXPECT_EQ(field(kHeader, "Content-Type"), "multipart/mixed; boundary=\"==b1; x=\\\"q\\\"\";\tcharset=utf-8");
    EXPECT_EQ(field(kHeader, "received"), "from a\tby b");
    EXPECT_EQ(field(kHeader, "SUBJECT"), "hi");
    EXPECT_EQ(field(kHeader, "X-In-Body"), "<none>");  // after the blank line
    EXPECT_EQ(field(kHeader, "Content"), "<none>");    // whole names only
    EXPECT_EQ(field(nullptr, "From"), "<none>");
    EXPECT_EQ(field(kHeader, nullptr), "<none>");
    // Bare LF line ends and a space before the colon.
    EXPECT_EQ(field("A: 1\nContent-Type : text/plain\n more\n", "content-type"), "text/plain more");
}

TEST(MimeParser, SubFieldHandlesQuotesAndNeighbours) {
    const std::string ct = field(kHeader, "Content-Type");
    EXPECT_EQ(sub(ct.c_str(), "boundary"), "==b1; x=\"q\"");
    EXPECT_EQ(sub(ct.c_str(), "CHARSET"), "utf-8");
    EXPECT_EQ(sub(ct.c_str(), "x"), "<none>");  // only inside another parameter's quotes
    EXPECT_EQ(sub("text/plain; xboundary=1", "boundary"), "<none>");
    EXPECT_EQ(sub("attachment;filename=a.pdf;size=3", "filename"), "a.pdf");
    EXPECT_EQ(sub("multipart/mixed; boundary = plain-token ", "boundary"), "plain-token");
    EXPECT_EQ(sub("a/b; boundary=\"\"", "boundary"), "");
    EXPECT_EQ(sub("a/b; boundary=\"unterminated", "boundary"), "unterminated");
    EXPECT_EQ(sub("", "boundary"), "<none>");
    EXPECT_EQ(sub(nullptr, "boundary"), "<none>");
}
