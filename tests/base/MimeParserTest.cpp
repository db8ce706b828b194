#include <gtest/gtest.h>

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
}

TEST(MimeParser, HeaderFieldUnfoldsAndIgnoresCase) {
    StringBuffer v;
    ASSERT_TRUE(MimeParser::getHeaderField(kHeader, "Content-Type", v));
    EXPECT_STREQ(v.getString(), "multipart/mixed; boundary=\"==b1; x=\\\"q\\\"\";\tcharset=utf-8");
    ASSERT_TRUE(MimeParser::getHeaderField(kHeader, "received", v));
    EXPECT_STREQ(v.getString(), "from a\tby b");
    EXPECT_TRUE(MimeParser::getHeaderField(kHeader, "SUBJECT", v));
    EXPECT_STREQ(v.getString(), "hi");
    EXPECT_FALSE(MimeParser::getHeaderField(kHeader, "X-In-Body", v));  // after the blank line
    EXPECT_FALSE(MimeParser::getHeaderField(kHeader, "Content", v));    // whole names only
    EXPECT_STREQ(v.getString(), "");
    EXPECT_FALSE(MimeParser::getHeaderField(nullptr, "From", v));
    EXPECT_FALSE(MimeParser::getHeaderField(kHeader, nullptr, v));
    // Bare LF line ends and a space before the colon.
    EXPECT_TRUE(MimeParser::getHeaderField("A: 1\nContent-Type : text/plain\n more\n", "content-type", v));
    EXPECT_STREQ(v.getString(), "text/plain more");
}

TEST(MimeParser, SubFieldHandlesQuotesAndNeighbours) {
    StringBuffer ct, v;
    ASSERT_TRUE(MimeParser::getHeaderField(kHeader, "Content-Type", ct));
    ASSERT_TRUE(MimeParser::getSubField(ct.getString(), "boundary", v));
    EXPECT_STREQ(v.getString(), "==b1; x=\"q\"");
    ASSERT_TRUE(MimeParser::getSubField(ct.getString(), "CHARSET", v));
    EXPECT_STREQ(v.getString(), "utf-8");
    // "x" only appears inside another parameter's quotes.
    EXPECT_FALSE(MimeParser::getSubField(ct.getString(), "x", v));
    EXPECT_FALSE(MimeParser::getSubField("text/plain; xboundary=1", "boundary", v));
    EXPECT_TRUE(MimeParser::getSubField("attachment;filename=a.pdf;size=3", "filename", v));
    EXPECT_STREQ(v.getString(), "a.pdf");
    EXPECT_TRUE(MimeParser::getSubField("multipart/mixed; boundary = plain-token ", "boundary", v));
    EXPECT_STREQ(v.getString(), "plain-token");
    EXPECT_TRUE(MimeParser::getSubField("a/b; boundary=\"\"", "boundary", v));
    EXPECT_STREQ(v.getString(), "");
    EXPECT_TRUE(MimeParser::getSubField("a/b; boundary=\"unterminated", "boundary", v));
    EXPECT_STREQ(v.getString(), "unterminated");
    EXPECT_FALSE(MimeParser::getSubField("", "boundary", v));
    EXPECT_FALSE(MimeParser::getSubField(nullptr, "boundary", v));
}
