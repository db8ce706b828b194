#include <gtest/gtest.h>

#include <string>

#include "zrimap/engine.h"

using namespace zr;

namespace {

std::vector<std::string> pieces(const ExtPtrArraySb& arr) {
    std::vector<std::string> out;
    for (int i = 0; i < arr.getSize(); ++i) out.push_back(arr.sbAt(i)->getString());
    return out;
}

std::vector<std::string> splitOf(const char* text, char sep, bool quoteAware, bool trimAndSkipEmpty) {
    ExtPtrArraySb arr;
    EXPECT_TRUE(StringBuffer(text).split(arr, sep, quoteAware, trimAndSkipEmpty));
    return pieces(arr);
}

using V = std::vector<std::string>;

}  // namespace

TEST(StringBuffer, AppendsNumbersTextsAndItself) {
    StringBuffer sb;
    EXPECT_STREQ(sb.getString(), "");
    EXPECT_EQ(sb.lastChar(), 0);
    sb.append("a");
    sb.append(-2147483647 - 1);
    sb.append(4294967295u);
    sb.append2("x", nullptr);
    sb.append3("1", "2", "3");
    sb.prepend(">");
    EXPECT_STREQ(sb.getString(), ">a-21474836484294967295x123");
    // Appending a buffer to itself must survive the reallocation it causes.
    for (int i = 0; i < 6; ++i) sb.append(sb);
    EXPECT_EQ(sb.getSize(), 27u * 64u);
    EXPECT_TRUE(sb.beginsWith(">a-2147483648") && sb.endsWith("x123"));
    // Binary bytes are kept; text operations stop at the NUL.
    StringBuffer bin;
    bin.appendN("ab\0cd", 5);
    EXPECT_EQ(bin.getSize(), 5u);
    EXPECT_TRUE(bin.equals("ab"));
    EXPECT_EQ(bin.charAt(3), 'c');
    EXPECT_EQ(bin.charAt(99), 0);
}

TEST(StringBuffer, ComparisonsHonourCaseFlags) {
    StringBuffer sb("aaab OK Done");
    EXPECT_TRUE(sb.beginsWith("aaab "));
    EXPECT_FALSE(sb.beginsWith("AAAB "));
    EXPECT_TRUE(sb.beginsWithIgnoreCase("AAAB ok"));
    EXPECT_TRUE(sb.equalsIgnoreCase("AAAB ok dONE"));
    EXPECT_FALSE(sb.equals("aaab OK Done "));
    EXPECT_TRUE(sb.containsSubstring("OK D"));
    EXPECT_FALSE(sb.containsSubstring("ok d"));
    EXPECT_TRUE(sb.containsSubstringNoCase("ok d"));
    EXPECT_FALSE(sb.containsSubstringNoCase("done!"));
    EXPECT_EQ(sb.indexOf("a", 1), 1);
    EXPECT_EQ(sb.indexOf("a", 3), -1);
    EXPECT_TRUE(sb.beginsWith(nullptr));
    EXPECT_FALSE(sb.equals(nullptr));
}

TEST(StringBuffer, RemoveChunkShortenAndTrimStayInBounds) {
    StringBuffer sb("0123456789");
    sb.removeChunk(0, 3);
    EXPECT_STREQ(sb.getString(), "3456789");
    sb.removeChunk(5, 100);  // past the end: only what exists goes
    EXPECT_STREQ(sb.getString(), "34567");
    sb.removeChunk(5, 1);  // start at the end: nothing
    sb.removeChunk(99, 1);
    sb.removeChunk(4294967295u, 4294967295u);
    EXPECT_STREQ(sb.getString(), "34567");
    sb.shorten(2);
    EXPECT_STREQ(sb.getString(), "345");
    sb.shorten(100);
    EXPECT_EQ(sb.getSize(), 0u);

    StringBuffer t(" \t\r\n x y \r\n");
    t.trim2();
    EXPECT_STREQ(t.getString(), "x y");
    StringBuffer blank(" \r\n\t ");
    blank.trim2();
    EXPECT_EQ(blank.getSize(), 0u);
    StringBuffer empty;
    empty.trim2();
    empty.shorten(1);
    empty.removeChunk(0, 1);
    EXPECT_STREQ(empty.getString(), "");
}

TEST(StringBuffer, ReplaceCountsAndKeepsTheRest) {
    StringBuffer line("* 1 EXISTS\r\r\n\r\r\r\n");
    EXPECT_EQ(line.replaceAllOccurances("\r\r\n", "\r\n"), 2);
    EXPECT_STREQ(line.getString(), "* 1 EXISTS\r\n\r\r\n");
    StringBuffer s("aaaa");
    EXPECT_EQ(s.replaceAllOccurances("aa", "a"), 2);  // no overlap, no rescan of output
    EXPECT_STREQ(s.getString(), "aa");
    EXPECT_EQ(s.replaceAllOccurances("", "x"), 0);
    EXPECT_EQ(s.replaceAllOccurances("zz", "x"), 0);
    StringBuffer f("x PartToFetch y PartToFetch");
    EXPECT_TRUE(f.replaceFirstOccurance("PartToFetch", "1.2", false));
    EXPECT_STREQ(f.getString(), "x 1.2 y PartToFetch");
    EXPECT_FALSE(f.replaceFirstOccurance("parttofetch", "2", false));
    EXPECT_TRUE(f.replaceFirstOccurance("parttofetch", "2", true));
    EXPECT_STREQ(f.getString(), "x 1.2 y 2");
}

TEST(StringBuffer, GetAfterFinalAndGetDelimited) {
    StringBuffer line("* SEARCH 2 5 aaac OK aaac SEARCH completed");
    StringBuffer status("old");
    EXPECT_FALSE(line.getAfterFinal(" zzzz ", true, status));
    EXPECT_STREQ(status.getString(), "old");
    EXPECT_TRUE(line.getAfterFinal(" aaac ", true, status));  // the last occurrence counts
    EXPECT_STREQ(status.getString(), "SEARCH completed");
    EXPECT_STREQ(line.getString(), "* SEARCH 2 5 aaac OK");

    StringBuffer q("* 1 FETCH (BODY[1] \"hello \\\"x\" \"second\")");
    StringBuffer out;
    EXPECT_TRUE(q.getDelimited("\"", "\"", false, out));
    EXPECT_STREQ(out.getString(), "hello \\");
    EXPECT_TRUE(q.getDelimited("(", ")", true, out));
    EXPECT_STREQ(out.getString(), "(BODY[1] \"hello \\\"x\" \"second\")");
    EXPECT_FALSE(StringBuffer("no quote \"here").getDelimited("\"", "\"", false, out));
}

TEST(StringBuffer, SplitModes) {
    // Plain split, as flag lists use it.
    EXPECT_EQ(splitOf("\\Seen $Label1", ' ', false, false), (V{"\\Seen", "$Label1"}));
    EXPECT_EQ(splitOf("a  b ", ' ', false, false), (V{"a", "", "b", ""}));
    EXPECT_EQ(splitOf("", ' ', false, false), V{});
    // Quote-aware, trimmed, empties dropped: DIGEST-MD5 challenges and IDLE lines.
    EXPECT_EQ(splitOf("realm=\"a,b\", nonce=\"x\\\"y\",,qop=auth", ',', true, true),
              (V{"realm=a,b", "nonce=x\"y", "qop=auth"}));
    EXPECT_EQ(splitOf("  \\Seen   \\Answered ", ' ', true, true), (V{"\\Seen", "\\Answered"}));
    EXPECT_EQ(splitOf("   ", ' ', true, true), V{});
    EXPECT_EQ(splitOf("unterminated=\"a,b", ',', true, true), (V{"unterminated=a,b"}));
    // The array is appended to, not replaced.
    ExtPtrArraySb arr;
    StringBuffer("x y").split(arr, ' ', false, false);
    StringBuffer("z").split(arr, ' ', false, false);
    EXPECT_EQ(pieces(arr), (V{"x", "y", "z"}));
}

TEST(StringBuffer, SplitAttrValue) {
    // "name|value", or "<false>name" when there is no '='.
    auto split = [](const char* text, bool unquote) {
        StringBuffer name, value;
        const bool ok = StringBuffer(text).splitAttrValue(name, value, unquote);
        return std::string(ok ? "" : "<false>") + name.getString() + (ok ? "|" : "") + value.getString();
    };
    EXPECT_EQ(split(" realm = \"elwood, inc\" ", true), "realm|elwood, inc");
    EXPECT_EQ(split("nonce=\"a\\\\b\\\"c\"", true), "nonce|a\\b\"c");
    EXPECT_EQ(split("charset=utf-8=x", true), "charset|utf-8=x");
    EXPECT_EQ(split("realm=", true), "realm|");
    EXPECT_EQ(split("stale", true), "<false>stale");
    EXPECT_EQ(split(" a = \"b\" ", false), " a | \"b\" ");
}

TEST(StringBuffer, SecureClearLeavesCopiesAndSelfAssignmentIsSafe) {
    StringBuffer secret("hunter2");
    StringBuffer copy(secret);
    secret.secureClear();
    EXPECT_EQ(secret.getSize(), 0u);
    EXPECT_STREQ(copy.getString(), "hunter2");
    EXPECT_TRUE(copy.setString(copy.getString()));
    EXPECT_STREQ(copy.getString(), "hunter2");
}

TEST(StringBuffer, GrowthStopsAtTheCeiling) {
    BufferLimits::setMaxBytes(1000);
    StringBuffer sb;
    std::string block(600, 'x');
    EXPECT_TRUE(sb.append(block.c_str()));
    EXPECT_FALSE(sb.append(block.c_str()));  // 1200 > 1000
    EXPECT_EQ(sb.getSize(), 600u);           // unchanged by the failure
    EXPECT_TRUE(sb.appendN(block.data(), 400));
    EXPECT_FALSE(sb.appendChar('y'));
    EXPECT_EQ(sb.appendSpace(1), nullptr);
    EXPECT_FALSE(sb.expectNumBytes(4294967295u));
    EXPECT_FALSE(StringBuffer().setString(std::string(1001, 'z').c_str()));
    BufferLimits::setMaxBytes(0);
    EXPECT_EQ(BufferLimits::getMaxBytes(), BufferLimits::kDefaultMaxBytes);
}
