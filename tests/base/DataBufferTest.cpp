#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "zrimap/engine.h"

using namespace zr;

namespace {
std::string bytes(const DataBuffer& db) {
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}
}  // namespace

TEST(DataBuffer, BinarySafeAppendAndEdits) {
    DataBuffer db;
    EXPECT_TRUE(db.append("a\0b", 3));
    db.appendChar(0);
    db.appendStr("xyz");
    EXPECT_TRUE(db.appendStr(nullptr));
    EXPECT_FALSE(db.append(nullptr, 1));
    StringBuffer sb("!");
    db.append(sb);
    EXPECT_EQ(bytes(db), std::string("a\0b\0xyz!", 8));
    db.append(db);  // self-append survives reallocation
    EXPECT_EQ(db.getSize(), 16u);
    db.removeHead(9);
    EXPECT_EQ(bytes(db), std::string("\0b\0xyz!", 7));
    EXPECT_TRUE(db.endsWithStr("yz!"));
    EXPECT_FALSE(db.endsWithStr("this is longer than the buffer"));
    const unsigned char head[] = {0, 'b'};
    EXPECT_TRUE(db.beginsWith(head, 2));
    EXPECT_TRUE(db.beginsWith(nullptr, 0));
    EXPECT_FALSE(db.beginsWith(head, 100));
    db.shorten(3);
    EXPECT_EQ(bytes(db), std::string("\0b\0x", 4));
    db.shorten(100);
    db.removeHead(100);
    EXPECT_EQ(db.getSize(), 0u);
}

TEST(DataBuffer, ReplaceNullMarkersWithZeroBytes) {
    DataBuffer db;
    db.appendStr("X<NULL>Y<NULL><NULL>");
    const unsigned char zero = 0;
    EXPECT_EQ(db.replaceAllOccurances(reinterpret_cast<const unsigned char*>("<NULL>"), 6, &zero, 1), 3);
    EXPECT_EQ(bytes(db), std::string("X\0Y\0\0", 5));
    EXPECT_EQ(db.replaceAllOccurances(reinterpret_cast<const unsigned char*>("<NULL>"), 6, &zero, 1), 0);
    EXPECT_EQ(db.replaceAllOccurances(nullptr, 0, &zero, 1), 0);
}

TEST(DataBuffer, TakeStringMovesWithoutCopy) {
    DataBuffer db;
    ASSERT_TRUE(db.ensureBuffer(1000));
    EXPECT_EQ(db.getCapacity(), 1000u);
    db.appendStr("hello");
    const unsigned char* block = db.getData2();
    StringBuffer out("previous");
    ASSERT_TRUE(db.takeString(out));
    EXPECT_STREQ(out.getString(), "hello");
    EXPECT_EQ(static_cast<const void*>(out.getString()), static_cast<const void*>(block));
    EXPECT_EQ(db.getSize(), 0u);
    // A full buffer still gets its terminator.
    DataBuffer full;
    full.ensureBuffer(3);
    full.appendStr("abc");
    ASSERT_TRUE(full.takeString(out));
    EXPECT_STREQ(out.getString(), "abc");
    DataBuffer empty;
    EXPECT_TRUE(empty.takeString(out));
    EXPECT_STREQ(out.getString(), "");
}

TEST(DataBuffer, ReservationsRespectTheCeiling) {
    BufferLimits::setMaxBytes(4096);
    DataBuffer db;
    EXPECT_FALSE(db.ensureBuffer(4097));
    EXPECT_TRUE(db.ensureBuffer(4096));
    std::string big(3000, 'q');
    EXPECT_TRUE(db.append(big.data(), 3000));
    EXPECT_FALSE(db.append(big.data(), 3000));
    EXPECT_EQ(db.getSize(), 3000u);
    // Sizes that would wrap a 32-bit counter are refused, not wrapped.
    EXPECT_FALSE(db.ensureBuffer(4294967295u));
    EXPECT_EQ(db.appendSpace(4294967295u), nullptr);
    EXPECT_EQ(db.getSize(), 3000u);
    BufferLimits::setMaxBytes(0);
}

TEST(DataBuffer, AppendSpaceThenCommit) {
    DataBuffer db;
    db.appendStr("ab");
    unsigned char* room = db.appendSpace(100);
    ASSERT_NE(room, nullptr);
    std::memcpy(room, "cdef", 4);
    db.commitAppend(4);
    EXPECT_EQ(bytes(db), "abcdef");
    StringBuffer sb("x");
    char* r = sb.appendSpace(10);
    ASSERT_NE(r, nullptr);
    std::memcpy(r, "yz", 2);
    sb.commitAppend(2);
    EXPECT_STREQ(sb.getString(), "xyz");
}
