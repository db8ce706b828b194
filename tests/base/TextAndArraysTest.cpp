#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "zrimap/engine.h"

using namespace zr;

namespace {

struct Tracked : ZendrelObject {
    explicit Tracked(int* deaths) : deaths(deaths) {}
    ~Tracked() override { ++*deaths; }
    int* deaths;
};

struct Shared : RefCountedObject {
    explicit Shared(bool* gone) : gone(gone) {}
    ~Shared() override { *gone = true; }
    bool* gone;
};

}  // namespace

TEST(XString, Utf8IsTheAnsiFormToo) {
    XString x;
    x.appendUtf8("d\xC3\xA4v\xC3\xA9");
    x.appendAnsi("-pw");
    EXPECT_STREQ(x.getAnsi(), "d\xC3\xA4v\xC3\xA9-pw");
    EXPECT_STREQ(x.getAnsi(), x.getUtf8());
    EXPECT_EQ(x.getSizeUtf8(), 9u);
    EXPECT_EQ(x.getSizeAnsi(), 9u);
    x.appendUsAscii(" \xC3\xA4");
    EXPECT_STREQ(x.getUtf8(), "d\xC3\xA4v\xC3\xA9-pw ??");

    XString token("Bearer abc");
    EXPECT_TRUE(token.beginsWithUtf8("Bearer ", true));
    EXPECT_FALSE(token.beginsWithUtf8("bearer ", true));
    EXPECT_TRUE(token.beginsWithUtf8("bEARER ", false));
    token.secureClear();
    EXPECT_TRUE(token.isEmpty());
    XString spaced;
    spaced.setFromUtf8("  INBOX \r\n");
    spaced.trim2();
    EXPECT_STREQ(spaced.getUtf8(), "INBOX");
}

TEST(ExtPtrArray, OwnsItsElements) {
    int deaths = 0;
    {
        ExtPtrArray arr;
        arr.appendPtr(new Tracked(&deaths));
        arr.appendPtr(nullptr);
        arr.appendPtr(new Tracked(&deaths));
        EXPECT_EQ(arr.getSize(), 3);
        EXPECT_EQ(arr.elementAt(1), nullptr);
        EXPECT_EQ(arr.elementAt(-1), nullptr);
        EXPECT_EQ(arr.elementAt(3), nullptr);
        ZendrelObject* taken = arr.removeAt(0);
        ASSERT_NE(taken, nullptr);
        EXPECT_EQ(arr.getSize(), 2);
        EXPECT_EQ(arr.removeAt(7), nullptr);
        delete taken;  // removeAt hands ownership back
        EXPECT_EQ(deaths, 1);
    }
    EXPECT_EQ(deaths, 2);  // the array deleted the rest

    ExtPtrArraySb sbs;
    sbs.appendString("a");
    sbs.appendPtr(new Tracked(&deaths));
    EXPECT_STREQ(sbs.sbAt(0)->getString(), "a");
    EXPECT_EQ(sbs.sbAt(1), nullptr);  // not a StringBuffer
    sbs.removeAllSbs();
    EXPECT_EQ(sbs.getSize(), 0);
    EXPECT_EQ(deaths, 3);
}

TEST(RefCountedObject, LastReleaseDeletes) {
    bool gone = false;
    Shared* s = new Shared(&gone);
    s->incRefCount();
    s->incRefCount();
    EXPECT_EQ(s->getRefCount(), 2);
    s->decRefCount();
    EXPECT_FALSE(gone);
    s->decRefCount();
    EXPECT_TRUE(gone);
}

TEST(FreeFunctions, NullSafeStringHelpers) {
    EXPECT_EQ(zrStrLen(nullptr), 0u);
    EXPECT_EQ(zrStrCmp(nullptr, ""), 0);
    EXPECT_EQ(zrStrNCmp("aaab OK", "aaab X", 5), 0);
    EXPECT_NE(zrStrNCmp("aaab OK", "aaabx", 5), 0);
    EXPECT_EQ(zrStrNCmp("x", "y", 0), 0);
    EXPECT_EQ(zrStrChr(nullptr, 'a'), nullptr);

    char buf[12];
    EXPECT_EQ(zr_int_to_str(0, buf), 1);
    EXPECT_STREQ(buf, "0");
    zr_int_to_str(INT_MIN, buf);
    EXPECT_STREQ(buf, "-2147483648");
    zr_int_to_str(INT_MAX, buf);
    EXPECT_STREQ(buf, "2147483647");
    // A UID above 2^31 reaches the signed parameter as a negative number.
    zr_int_to_str(static_cast<int>(3000000000u), buf);
    EXPECT_STREQ(buf, "-1294967296");
}

TEST(FreeFunctions, ScanOneValue) {
    // Into an int that starts as 77: a failed scan leaves it so; out of range
    // is not converted, rather than undefined.
    const struct {
        const char* in;
        const char* format;
        int converted, value;
    } ints[] = {{"3 EXISTS", "%d", 1, 3},       {"  -42}", "%d", 1, -42},         {"+7", "%d", 1, 7},
                {"x}", "%d", 0, 77},            {"", "%d", 0, 77},                {"-", "%d", 0, 77},
                {"99999999999}", "%d", 0, 77},  {"2147483648", "%d", 0, 77},      {"-2147483648", "%d", 1, INT_MIN},
                {"UID  99)", "UID %d", 1, 99},  {"FLAGS 1", "UID %d", 0, 77},     {nullptr, "%d", 0, 77},
                {"1", "%s", 0, 77}};
    for (const auto& c : ints) {
        int n = 77;
        EXPECT_EQ(_zrStdio::_zrSscanf1(c.in, c.format, &n), c.converted) << (c.in ? c.in : "null") << " " << c.format;
        EXPECT_EQ(n, c.value) << (c.in ? c.in : "null") << " " << c.format;
    }
    // -1 read into an unsigned size becomes its two's-complement pattern.
    unsigned u = 0;
    EXPECT_EQ(_zrStdio::_zrSscanf1("-1", "%d", &u), 1);
    EXPECT_EQ(u, 4294967295u);
    EXPECT_EQ(_zrStdio::_zrSscanf1("4294967295", "%u", &u), 1);
    EXPECT_EQ(u, 4294967295u);
    EXPECT_EQ(_zrStdio::_zrSscanf1("4294967296", "%u", &u), 0);
    EXPECT_EQ(_zrStdio::_zrSscanf1("ff", "%x", &u), 1);
    EXPECT_EQ(u, 255u);
    long l = 0;
    EXPECT_EQ(_zrStdio::_zrSscanf1("-9000000000", "%ld", &l), 1);
    EXPECT_EQ(l, -9000000000L);
}
