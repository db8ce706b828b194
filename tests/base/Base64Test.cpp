#include <gtest/gtest.h>

#include <random>
#include <string>

#include "zrimap/engine.h"

using namespace zr;

namespace {

std::string encode(const std::string& in) {
    StringBuffer out;
    EXPECT_TRUE(ContentCoding::encodeBase64_noCrLf(in.data(), static_cast<unsigned>(in.size()), out));
    return out.getString();
}

// Decoded bytes, or "<invalid>" when the decoder refuses the text.
std::string decode(const std::string& in) {
    DataBuffer out;
    out.appendStr("keep");
    if (!ContentCoding::decodeBase64ToDb(in.data(), static_cast<unsigned>(in.size()), out)) {
        EXPECT_EQ(out.getSize(), 4u) << "a refused decode must leave the output as it was";
        return "<invalid>";
    }
    return std::string(reinterpret_cast<const char*>(out.getData2()) + 4, out.getSize() - 4);
}

}  // namespace

TEST(Base64, Rfc4648Vectors) {
    const char* const vectors[][2] = {{"", ""},         {"f", "Zg=="},         {"fo", "Zm8="},
                                      {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
                                      {"foobar", "Zm9vYmFy"}};
    for (const auto& v : vectors) {
        EXPECT_EQ(encode(v[0]), v[1]);
        EXPECT_EQ(decode(v[1]), v[0]);
    }
}

TEST(Base64, RoundTripsRandomBytesOfEveryLengthRemainder) {
    std::mt19937 rng(12345);
    for (unsigned len = 0; len < 300; ++len) {
        std::string data(len, '\0');
        for (char& c : data) c = static_cast<char>(rng());
        const std::string text = encode(data);
        EXPECT_EQ(text.size(), (len + 2) / 3 * 4);
        EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos);
        ASSERT_EQ(decode(text), data) << "length " << len;
    }
    // The encoder appends; the full 256-value range survives.
    std::string all;
    for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
    StringBuffer out("prefix:");
    ContentCoding::encodeBase64_noCrLf(all.data(), 256, out);
    EXPECT_EQ(decode(std::string(out.getString()).substr(7)), all);
}

TEST(Base64, DecoderToleratesWhiteSpaceAndMissingPadding) {
    EXPECT_EQ(decode("Zm9v\r\nYmFy"), "foobar");
    EXPECT_EQ(decode(" Zm 9v YmE= \t"), "fooba");
    EXPECT_EQ(decode("Zm8"), "fo");
    EXPECT_EQ(decode("Zg"), "f");
    EXPECT_EQ(decode("Zg="), "f");
}

TEST(Base64, DecoderRefusesInvalidText) {
    // A lone symbol carries no whole byte; nothing may follow the padding.
    const std::string bad[] = {"Zm9v!", "Z", "Zm9vY", "Zg==Zg==", "Z===", "====", "Zg===", std::string("Zm\0v", 4)};
    for (const std::string& text : bad) EXPECT_EQ(decode(text), "<invalid>") << text;
    DataBuffer out;
    EXPECT_FALSE(ContentCoding::decodeBase64ToDb(nullptr, 4, out));
    EXPECT_TRUE(ContentCoding::decodeBase64ToDb(nullptr, 0, out));
}

TEST(Base64, EncodeDbUsesTheNamedEncoding) {
    DataBuffer db;
    db.appendStr("user\0pass");
    StringBuffer out;
    EXPECT_TRUE(db.encodeDB("BASE64", out));
    EXPECT_STREQ(out.getString(), "dXNlcg==");
    EXPECT_FALSE(db.encodeDB("quoted-printable", out));
    EXPECT_FALSE(db.encodeDB(nullptr, out));
}
