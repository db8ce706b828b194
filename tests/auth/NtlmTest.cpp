// NTLM messages against the MS-NLMP section 4.2 vectors, RFC 1320 (MD4), and
// reference values computed independently from the library.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>

#include <openssl/evp.h>

#include "../../src/auth/NtlmInternal.h"
#include "zrimap/auth/Ntlm.h"
#include "zrimap/engine.h"

using namespace zr;
using ::testing::HasSubstr;

namespace {

std::string unhex(const std::string& h) {
    std::string out;
    for (size_t i = 0; i + 1 < h.size(); i += 2) out.push_back(static_cast<char>(std::stoi(h.substr(i, 2), nullptr, 16)));
    return out;
}

std::string hex(const std::string& b) {
    std::string out;
    for (unsigned char c : b) out.append({"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]});
    return out;
}
std::string hex(const unsigned char* p, size_t n) { return hex(std::string(reinterpret_cast<const char*>(p), n)); }
const unsigned char* bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

std::string u16(const std::string& ascii) {
    std::string out;
    for (char c : ascii) out.append({c, '\0'});
    return out;
}

std::string le16(unsigned v) { return std::string{char(v & 0xFF), char((v >> 8) & 0xFF)}; }
std::string le32(uint32_t v) { return le16(v & 0xFFFF) + le16(v >> 16); }
std::string le64(uint64_t v) { return le32(uint32_t(v)) + le32(uint32_t(v >> 32)); }
unsigned rd16(const std::string& s, size_t at) { return unsigned(uint8_t(s[at])) | unsigned(uint8_t(s[at + 1])) << 8; }
uint32_t rd32(const std::string& s, size_t at) { return rd16(s, at) | uint32_t(rd16(s, at + 2)) << 16; }

std::string avPair(unsigned id, const std::string& value) { return le16(id) + le16(unsigned(value.size())) + value; }

std::string b64(const std::string& bytes) {
    StringBuffer sb;
    EXPECT_TRUE(ContentCoding::encodeBase64_noCrLf(bytes.data(), unsigned(bytes.size()), sb));
    return sb.getString();
}

std::string unb64(const std::string& text) {
    DataBuffer db;
    EXPECT_TRUE(ContentCoding::decodeBase64ToDb(text.data(), unsigned(text.size()), db));
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}

std::string hmacMd5(const std::string& key, const std::string& data) {
    unsigned char out[16];
    size_t outLen = 0;
    EXPECT_NE(EVP_Q_mac(nullptr, "HMAC", nullptr, "MD5", nullptr, key.data(), key.size(), bytes(data), data.size(), out,
                        sizeof out, &outLen),
              nullptr);
    return std::string(reinterpret_cast<char*>(out), 16);
}

// MS-NLMP 4.2.1 common values.
const std::string kServerChallenge = unhex("0123456789abcdef");
const unsigned char kClientChallenge[8] = {0xaa, 0xaa, 0xaa, 0xaa, 0xaa, 0xaa, 0xaa, 0xaa};
const std::string kTargetInfo = avPair(2, u16("Domain")) + avPair(1, u16("Server")) + avPair(0, "");
const std::string kResponseKeyNtV2 = unhex("0c868a403bfd7a93a3001ef22ef02e3f");  // NTOWFv2 of User/Domain/Password

// A Type 2 message the way a server lays it out: 48-byte header (56 with
// room for VERSION), then target name and target info.
std::string type2(uint32_t flags, const std::string& targetInfo = "", const std::string& challenge = kServerChallenge) {
    const std::string name = u16("Server");
    const unsigned nameOff = 56, infoOff = 56 + unsigned(name.size());
    return std::string("NTLMSSP\0", 8) + le32(2) + le16(unsigned(name.size())) + le16(unsigned(name.size())) +
           le32(nameOff) + le32(flags) + challenge + std::string(8, '\0') + le16(unsigned(targetInfo.size())) +
           le16(unsigned(targetInfo.size())) + le32(infoOff) + std::string(8, '\0') + name + targetInfo;
}

struct Type3 {
    std::string raw, lm, nt, domain, user, workstation, sessionKey;
    uint32_t flags = 0;
    unsigned payloadStart = 0xFFFFFFFF;
    std::string names() const { return domain + user + workstation; }
};

Type3 parseType3(const std::string& text) {
    Type3 t;
    t.raw = unb64(text);
    const std::string& m = t.raw;
    EXPECT_GE(m.size(), 64u);
    if (m.size() < 64) return t;
    EXPECT_EQ(m.substr(0, 8), std::string("NTLMSSP\0", 8));
    EXPECT_EQ(rd32(m, 8), 3u);
    std::string* fields[6] = {&t.lm, &t.nt, &t.domain, &t.user, &t.workstation, &t.sessionKey};
    for (int i = 0; i < 6; ++i) {
        const unsigned len = rd16(m, 12 + 8 * i), maxLen = rd16(m, 14 + 8 * i), off = rd32(m, 16 + 8 * i);
        EXPECT_EQ(len, maxLen);
        EXPECT_LE(size_t(off) + len, m.size()) << "field " << i;
        if (size_t(off) + len <= m.size()) *fields[i] = m.substr(off, len);
        if (off < t.payloadStart) t.payloadStart = off;
    }
    t.flags = rd32(m, 60);
    return t;
}

// An object released at the end of the test, with the common inputs set.
class NtlmFixture : public ::testing::Test {
protected:
    void SetUp() override { fresh(true); }
    // A new object in place of the old; without the hooks it uses the clock
    // and a random client challenge.
    void fresh(bool testHooks) {
        m_ntlm = ClsNtlm::createNewCls();
        ASSERT_NE(m_ntlm, nullptr);
        m_holder.setClsBasePtr(m_ntlm);
        set("User", "Password", "Domain", "COMPUTER");
        if (!testHooks) return;
        m_ntlm->setClientChallengeForTesting(kClientChallenge);
        m_ntlm->setTimestampForTesting(0);
    }
    void set(const char* user, const char* password, const char* domain, const char* workstation) {
        XString u(user), p(password), d(domain), w(workstation);
        m_ntlm->put_UserName(u);
        m_ntlm->put_Password(p);
        m_ntlm->put_Domain(d);
        m_ntlm->put_Workstation(w);
    }
    // Type 3 for the given Type 2 bytes; fails the test when none is made.
    Type3 answer(const std::string& type2Bytes) {
        XString in(b64(type2Bytes).c_str()), out;
        EXPECT_TRUE(m_ntlm->genType3(in, out, m_log)) << m_log.toText();
        return parseType3(out.getUtf8());
    }
    // The error logged for a Type 2 text that must be refused.
    std::string refusal(const std::string& type2Text) {
        m_log.clear();
        XString in(type2Text.c_str()), out("stale");
        EXPECT_FALSE(m_ntlm->genType3(in, out, m_log));
        EXPECT_TRUE(out.isEmpty());
        const auto errors = m_log.errors();
        return errors.empty() ? std::string("<no error logged>") : errors.front();
    }

    ClsNtlm* m_ntlm = nullptr;
    _clsBaseHolder m_holder;
    MemoryLog m_log;
};

// Type 2 flags of the MS-NLMP vectors.
constexpr uint32_t kV1Flags = 0xe2028233;     // 4.2.2: no extended session security
constexpr uint32_t kV1EssFlags = 0x820a8233;  // 4.2.3
constexpr uint32_t kV2Flags = 0xe28a8233;     // 4.2.4

}  // namespace

// ------------------------------------------------------------ primitives ----

TEST(NtlmPrimitives, Md4MatchesRfc1320AndBlockBoundaries) {
    const std::pair<std::string, const char*> vectors[] = {
        {"", "31d6cfe0d16ae931b73c59d7e0c089c0"},
        {"a", "bde52cb31de33e46245e05fbdbd6fb24"},
        {"abc", "a448017aaf21d8525fc10ae87aa6729d"},
        {"message digest", "d9130a8164549fe818874806e1c7014b"},
        {"abcdefghijklmnopqrstuvwxyz", "d79e1c308aa5bbcdeea8ed63df412da9"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "043f8582f241db351ce627e153e7f0e4"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "e33b4ddc9c38f2199c3e7b164fcc0536"},
        // Padding crosses into a second block from 56 bytes on.
        {std::string(55, 'a'), "c889c81dd86c4d2e025778944ea02881"},
        {std::string(56, 'a'), "d5f9a9e9257077a5f08b0b92f348b0ad"},
        {std::string(64, 'a'), "52f5076fabd22680234a3fa9f9dc5732"},
        {std::string(119, 'a'), "e65dd227ccef97fa1d34d70189120f76"},
        {std::string(120, 'a'), "b03ddbd470b47c013e0c7ab2ddd763db"},
    };
    unsigned char out[16];
    for (const auto& [in, expected] : vectors) {
        ntlm::md4(in.data(), in.size(), out);
        EXPECT_EQ(hex(out, 16), expected) << in.size() << " bytes: " << in;
    }
}

TEST(NtlmPrimitives, DesAndKeyExpansionMatchKnownVectors) {
    ASSERT_TRUE(ntlm::desAvailable()) << "the legacy provider is installed on the build machine";
    const std::string key = unhex("133457799bbcdff1"), plain = unhex("0123456789abcdef");
    unsigned char out[8];
    ASSERT_TRUE(ntlm::desEncryptBlock(bytes(key), bytes(plain), out));
    EXPECT_EQ(hex(out, 8), "85e813540f0ab405");

    // 7 bytes of all ones spread over 8 bytes: seven key bits each, odd parity.
    const unsigned char ones[7] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    unsigned char key8[8];
    ntlm::desExpandKey(ones, key8);
    EXPECT_EQ(hex(key8, 8), "fefefefefefefefe");
    const unsigned char mixed[7] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd};
    ntlm::desExpandKey(mixed, key8);
    EXPECT_EQ(hex(key8, 8), "0191d0ad794cae9b");
    // DESL is pinned by the NTLMv1 NT response of NtlmV1MatchesVector.
}

TEST(NtlmPrimitives, Utf16ConversionAndUpperCase) {
    auto conv = [](const std::string& s, bool upper) {
        DataBuffer out;
        out.appendStr("<");
        if (!ntlm::utf8ToUtf16le(s.data(), unsigned(s.size()), upper, out)) {
            EXPECT_EQ(out.getSize(), 1u) << "a refused text leaves the output as it was";
            return std::string("<invalid>");
        }
        return hex(std::string(reinterpret_cast<const char*>(out.getData2()) + 1, out.getSize() - 1));
    };
    EXPECT_EQ(conv("d\xc3\xa4v\xc3\xa9-pw", false), "6400e4007600e9002d0070007700");
    EXPECT_EQ(conv("d\xc3\xa4v\xc3\xa9", true), "4400c4005600c900");
    EXPECT_EQ(conv("\xe2\x82\xac", false), "ac20");                 // U+20AC, three bytes
    EXPECT_EQ(conv("\xf0\x9f\x98\x80", false), "3dd800de");         // U+1F600 as a surrogate pair
    EXPECT_EQ(conv("\xf4\x8f\xbf\xbf", false), "ffdbffdf");         // U+10FFFF, the last one
    EXPECT_EQ(conv("\xc3\x9f", true), "df00");                      // sharp s has no one-letter capital
    for (const char* bad : {"\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xc3", "a\xe2\x82",
                            "\x80", "\xff", "\xf8\x88\x80\x80\x80"})
        EXPECT_EQ(conv(bad, false), "<invalid>") << hex(bad);

    const std::pair<unsigned, unsigned> upper[] = {
        {'q', 'Q'},       {'Q', 'Q'},       {0xE4, 0xC4},     {0xF7, 0xF7},     {0xFF, 0x178},
        {0x101, 0x100},   {0x131, 0x131},   {0x13E, 0x13D},   {0x142, 0x141},   {0x14B, 0x14A},
        {0x17E, 0x17D},   {0x3C9, 0x3A9},   {0x3C2, 0x3A3},   {0x3AC, 0x386},   {0x3CE, 0x38F},
        {0x434, 0x414},   {0x451, 0x401},   {0x4D1, 0x4D0},   {0x4C2, 0x4C1},   {0x561, 0x531},
        {0x1EA1, 0x1EA0}, {0xFF41, 0xFF21}, {0x4E2D, 0x4E2D}, {0x1F600, 0x1F600}};
    for (const auto& [lower, capital] : upper) EXPECT_EQ(ntlm::upperCodePoint(lower), capital) << std::hex << lower;
}

// ---------------------------------------------------------------- Type 1 ----

TEST_F(NtlmFixture, Type1CarriesFlagsAndSuppliedNames) {
    XString out;
    ASSERT_TRUE(m_ntlm->genType1(out, m_log));
    std::string m = unb64(out.getUtf8());
    ASSERT_EQ(m.size(), 32u + 6 + 8);
    EXPECT_EQ(m.substr(0, 8), std::string("NTLMSSP\0", 8));
    EXPECT_EQ(rd32(m, 8), 1u);
    EXPECT_EQ(rd32(m, 12), 0xA0088207u | 0x1000u | 0x2000u);
    EXPECT_EQ(m.substr(rd32(m, 20), rd16(m, 16)), "Domain");
    EXPECT_EQ(m.substr(rd32(m, 28), rd16(m, 24)), "COMPUTER");

    set("User", "Password", "", "");
    ASSERT_TRUE(m_ntlm->genType1(out, m_log));
    m = unb64(out.getUtf8());
    ASSERT_EQ(m.size(), 32u);
    EXPECT_EQ(rd32(m, 12), 0xA0088207u) << "no *_SUPPLIED flag without the names";
    EXPECT_EQ(rd16(m, 16) + rd16(m, 24), 0u);
}

// --------------------------------------------------- MS-NLMP vectors ----

TEST_F(NtlmFixture, NtlmV1MatchesVector) {
    m_ntlm->put_NtlmVersion(1);
    const Type3 t = answer(type2(kV1Flags));
    EXPECT_EQ(hex(t.lm), "98def7b87f88aa5dafe2df779688a172def11c7d5ccdef13");
    EXPECT_EQ(hex(t.nt), "67c43011f30298a2ad35ece64f16331c44bdbed927841f94");
    EXPECT_EQ(t.names(), u16("DomainUserCOMPUTER"));
    EXPECT_TRUE(t.sessionKey.empty());
    EXPECT_EQ(t.payloadStart, 64u);
    // What both sides asked for: no KEY_EXCH, SIGN or SEAL (never requested),
    // no extended session security or REQUEST_TARGET (not granted).
    EXPECT_EQ(t.flags, 0xA0008201u);
}

TEST_F(NtlmFixture, NtlmV1WithExtendedSessionSecurityMatchesVector) {
    m_ntlm->put_NtlmVersion(1);
    const Type3 t = answer(type2(kV1EssFlags));
    EXPECT_EQ(hex(t.lm), "aaaaaaaaaaaaaaaa00000000000000000000000000000000");
    EXPECT_EQ(hex(t.nt), "7537f803ae367128ca458204bde7caf81e97ed2683267232");
    EXPECT_EQ(t.flags & 0x00080000u, 0x00080000u);
}

TEST_F(NtlmFixture, NtlmV2MatchesVector) {
    const Type3 t = answer(type2(kV2Flags, kTargetInfo));
    EXPECT_EQ(hex(t.lm), "86c35097ac9cec102554764a57cccc19aaaaaaaaaaaaaaaa");
    ASSERT_GE(t.nt.size(), 16u);
    EXPECT_EQ(hex(t.nt.substr(0, 16)), "68cd0ab851e51c96aabc927bebef6a1c");
    const std::string temp = unhex("01010000000000000000000000000000aaaaaaaaaaaaaaaa00000000") + kTargetInfo + le32(0);
    EXPECT_EQ(hex(t.nt.substr(16)), hex(temp));
    EXPECT_EQ(t.names(), u16("DomainUserCOMPUTER"));
    EXPECT_EQ(t.payloadStart, 64u) << "no MIC without a server timestamp";
}

TEST_F(NtlmFixture, DomainInUserNameAndOemStrings) {
    // "Domain\User" with no domain set is the same identity.
    set("Domain\\User", "Password", "", "COMPUTER");
    Type3 t = answer(type2(kV2Flags, kTargetInfo));
    EXPECT_EQ(hex(t.nt.substr(0, 16)), "68cd0ab851e51c96aabc927bebef6a1c");
    EXPECT_EQ(t.names(), u16("DomainUserCOMPUTER"));

    // Without NEGOTIATE_UNICODE the strings are 8-bit; the hashes are not.
    set("User", "Password", "Domain", "COMPUTER");
    t = answer(type2((kV2Flags & ~1u) | 2u, kTargetInfo));
    EXPECT_EQ(hex(t.nt.substr(0, 16)), "68cd0ab851e51c96aabc927bebef6a1c");
    EXPECT_EQ(t.names(), "DomainUserCOMPUTER");
    EXPECT_EQ(t.flags & 3u, 2u);
}

// ---------------------------------------------- non-ASCII and edge cases ----
// Reference values computed outside the library (Python, own MD4/DES).

TEST_F(NtlmFixture, NonAsciiNamesAndPasswords) {
    set("dave", "d\xc3\xa4v\xc3\xa9-pw", "", "COMPUTER");
    EXPECT_EQ(hex(answer(type2(kV2Flags, kTargetInfo)).nt.substr(0, 16)), "e16dae970565acc56a5a1b68f4752eb7");

    // A non-BMP password character, and a user name whose upper case matters.
    set("d\xc3\xa4v\xc3\xa9", "pw-\xf0\x9f\x98\x80", "D\xc3\xb6m\xc3\xa4in", "COMPUTER");
    Type3 t = answer(type2(kV2Flags, kTargetInfo));
    EXPECT_EQ(hex(t.nt.substr(0, 16)), "eae02f5ab205e81a7f31a6e3e48c8f79");
    EXPECT_EQ(hex(t.lm), "08fd4ce7bd32c2db7057399953f09d0caaaaaaaaaaaaaaaa");
    EXPECT_EQ(hex(t.user), "6400e4007600e900") << "sent as given, not upper-cased";
    set("D\xc3\x84V\xc3\x89", "pw-\xf0\x9f\x98\x80", "D\xc3\xb6m\xc3\xa4in", "COMPUTER");
    EXPECT_EQ(hex(answer(type2(kV2Flags, kTargetInfo)).nt.substr(0, 16)), "eae02f5ab205e81a7f31a6e3e48c8f79");

    set("\xc3\xbf\xc5\xa1\xc4\x91\xc5\x82\xcf\x89\xd0\xb4\xd0\xb6", "x", "", "COMPUTER");  // ÿšđłωдж
    EXPECT_EQ(hex(answer(type2(kV2Flags, kTargetInfo)).nt.substr(0, 16)), "b72175461ddda594f20d0c8f14558f6d");

    m_ntlm->put_NtlmVersion(1);
    set("dave", "d\xc3\xa4v\xc3\xa9-pw", "", "COMPUTER");
    EXPECT_EQ(hex(answer(type2(kV1Flags)).nt), "280910447c4c258ce69ef2623fe9bb420f26e2767fdd5694");
    set("dave", "d\xc3\xa4v\xc3\xa9-pw", "", "COMPUTER");
    EXPECT_EQ(hex(answer(type2(kV1EssFlags)).nt), "da2d84ca83a21778825a195459aac8b283b2bf2df9600c38");
}

TEST_F(NtlmFixture, NtlmV1LmResponseNeedsAShortPassword) {
    m_ntlm->put_NtlmVersion(1);
    set("User", "fourteen-chars", "Domain", "COMPUTER");
    Type3 t = answer(type2(kV1Flags));
    EXPECT_EQ(hex(t.lm), "65cf7542922d613d8cca68d645f70d7f72b02c3d7fa1722e");
    EXPECT_EQ(hex(t.nt), "1bdb958bf116ca59fe670c51936e55fb573ef53cf88447b3");

    // Past 14 characters there is no LM hash; the NT response stands in.
    set("User", "fifteen-chars!!", "Domain", "COMPUTER");
    t = answer(type2(kV1Flags));
    EXPECT_EQ(hex(t.nt), "9f2e726f2f66dc3d153f5ddb71cf4a920a793ae45a2ea898");
    EXPECT_EQ(t.lm, t.nt);
}

TEST_F(NtlmFixture, ServerTimestampBringsZeroLmResponseAndMic) {
    const uint64_t serverTime = 0x01d9a1b2c3d4e5f6ull;
    const std::string info = avPair(2, u16("Domain")) + avPair(6, le32(1)) + avPair(7, le64(serverTime)) + avPair(0, "");
    const std::string challenge = type2(kV2Flags, info);

    // Without a Type 1 of its own there is nothing a MIC could cover.
    Type3 t = answer(challenge);
    EXPECT_EQ(t.payloadStart, 64u);
    EXPECT_EQ(t.lm, std::string(24, '\0'));
    EXPECT_EQ(t.nt.substr(16 + 8, 8), le64(serverTime)) << "the server's time wins over the test hook";
    EXPECT_EQ(t.nt.substr(16 + 28), info + le32(0));

    set("User", "Password", "Domain", "COMPUTER");
    XString type1Text;
    ASSERT_TRUE(m_ntlm->genType1(type1Text, m_log));
    t = answer(challenge);
    ASSERT_EQ(t.payloadStart, 88u);
    EXPECT_EQ(t.lm, std::string(24, '\0'));
    const std::string blob = t.nt.substr(16);
    EXPECT_EQ(blob.substr(28), avPair(2, u16("Domain")) + avPair(7, le64(serverTime)) + avPair(6, le32(3)) +
                                   avPair(0, "") + le32(0))
        << "MsvAvFlags keeps the server's bits and adds MIC_PRESENT";
    const std::string proof = hmacMd5(kResponseKeyNtV2, kServerChallenge + blob);
    EXPECT_EQ(hex(t.nt.substr(0, 16)), hex(proof));
    std::string zeroedMic = t.raw;
    zeroedMic.replace(72, 16, std::string(16, '\0'));
    EXPECT_EQ(t.raw.substr(64, 8), std::string(8, '\0')) << "VERSION is not negotiated";
    const std::string sessionBaseKey = hmacMd5(kResponseKeyNtV2, proof);
    EXPECT_EQ(hex(t.raw.substr(72, 16)), hex(hmacMd5(sessionBaseKey, unb64(type1Text.getUtf8()) + challenge + zeroedMic)));

    // The Type 1 belonged to that exchange only.
    set("User", "Password", "Domain", "COMPUTER");
    EXPECT_EQ(answer(challenge).payloadStart, 64u);
}

TEST_F(NtlmFixture, TimestampAndClientChallengeSources) {
    // Old servers send no target info at all; NTLMv2 still answers.
    m_ntlm->setTimestampForTesting(0x0123456789abcdefull);
    Type3 t = answer(type2(kV2Flags & ~0x00800000u));
    EXPECT_EQ(t.nt.substr(16 + 8, 8), le64(0x0123456789abcdefull));
    EXPECT_EQ(t.nt.substr(16 + 28), std::string(8, '\0')) << "only MsvAvEol and the reserved field";
    EXPECT_EQ(hex(t.nt.substr(0, 16)), hex(hmacMd5(kResponseKeyNtV2, kServerChallenge + t.nt.substr(16))));

    // Without the hooks: the current time and a random client challenge.
    std::string clientChallenges[2];
    for (int i = 0; i < 2; ++i) {
        fresh(false);
        const Type3 r = answer(type2(kV2Flags, kTargetInfo));
        const uint64_t stamp = rd32(r.nt, 24) | uint64_t(rd32(r.nt, 28)) << 32;
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        const uint64_t nowFiletime =
            116444736000000000ull + uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(now).count()) * 10;
        EXPECT_LE(stamp, nowFiletime);
        EXPECT_GT(stamp + 600ull * 10000000ull, nowFiletime) << "within ten minutes of now";
        clientChallenges[i] = r.nt.substr(32, 8);
        EXPECT_EQ(r.lm.substr(16), clientChallenges[i]);
    }
    EXPECT_NE(clientChallenges[0], clientChallenges[1]);
}

TEST_F(NtlmFixture, PasswordIsSpentAndInputsAreChecked) {
    answer(type2(kV2Flags, kTargetInfo));
    EXPECT_EQ(refusal(b64(type2(kV2Flags, kTargetInfo))),
              "NTLM password has not been set (it is wiped after each Type 3 message)");
    XString p("Password");
    m_ntlm->put_Password(p);
    EXPECT_EQ(hex(answer(type2(kV2Flags, kTargetInfo)).nt.substr(0, 16)), "68cd0ab851e51c96aabc927bebef6a1c");

    set("", "Password", "Domain", "COMPUTER");
    EXPECT_EQ(refusal(b64(type2(kV2Flags, kTargetInfo))), "NTLM user name is empty");
    set("User", "bad\xc3", "Domain", "COMPUTER");
    EXPECT_EQ(refusal(b64(type2(kV2Flags, kTargetInfo))), "NTLM password is not valid UTF-8");

    // Anything but 1 means 2.
    const std::pair<int, int> versions[] = {{2, 2}, {0, 2}, {3, 2}, {-1, 2}, {1, 1}};
    for (const auto& [v, kept] : versions) {
        m_ntlm->put_NtlmVersion(v);
        EXPECT_EQ(m_ntlm->get_NtlmVersion(), kept) << v;
    }
}

// --------------------------------------------------- hostile Type 2 ----

TEST_F(NtlmFixture, MalformedType2IsRefused) {
    const std::string good = type2(kV2Flags, kTargetInfo);
    auto patched = [&](size_t at, const std::string& with) { return std::string(good).replace(at, with.size(), with); };
    const uint32_t infoFlag = 0x00800000;

    EXPECT_EQ(refusal(""), "NTLM Type 2 message is empty");
    EXPECT_EQ(refusal("TlRMTVNTUAAC!!!"), "NTLM Type 2 message is not valid base64");
    EXPECT_EQ(refusal(std::string(400000, 'A')), "NTLM Type 2 message too large (400000 base64 characters)");
    EXPECT_EQ(refusal(b64(good.substr(0, 12))), "NTLM Type 2 message too short (12 bytes)");
    EXPECT_EQ(refusal(b64(good.substr(0, 31))), "NTLM Type 2 message too short (31 bytes)");
    EXPECT_EQ(refusal(b64(patched(0, "NTLMSSQ"))), "NTLM Type 2 message does not begin with the NTLMSSP signature");
    EXPECT_EQ(refusal(b64(patched(8, le32(3)))), "NTLM message from the server is of type 3, not 2");
    EXPECT_EQ(refusal(b64(patched(16, le32(unsigned(good.size()) - 11)))),
              "NTLM Type 2 target name lies outside the message (offset " + std::to_string(good.size() - 11) +
                  ", length 12, message " + std::to_string(good.size()) + " bytes)");
    EXPECT_THAT(refusal(b64(patched(16, le32(0xFFFFFFF8)))), HasSubstr("target name lies outside the message"));
    EXPECT_THAT(refusal(b64(patched(40, le16(0xFFFF) + le16(0xFFFF)))), HasSubstr("target info lies outside"));
    EXPECT_THAT(refusal(b64(patched(44, le32(0xFFFFFFFF)))), HasSubstr("target info lies outside"));
    EXPECT_EQ(refusal(b64(type2(kV2Flags).replace(12, 4, le32(0)).substr(0, 40))),
              "NTLM Type 2 message announces target info but is too short to hold its field (40 bytes)");
    EXPECT_EQ(refusal(b64(type2(kV2Flags, le16(2) + le16(12)).substr(0, 56 + 12 + 2))) ,
              "NTLM Type 2 target info lies outside the message (offset 68, length 4, message 70 bytes)");
    EXPECT_EQ(refusal(b64(type2(kV2Flags, avPair(2, u16("Dom")) + "\x01"))),
              "NTLM Type 2 target info is malformed: it ends inside an AV pair header at offset 10");
    EXPECT_EQ(refusal(b64(type2(kV2Flags, le16(2) + le16(200) + u16("Dom")))),
              "NTLM Type 2 target info is malformed: AV pair 2 at offset 0 (length 200) runs past its end (10 bytes)");
    EXPECT_EQ(refusal(b64(type2(kV2Flags, avPair(7, le32(1)) + avPair(0, "")))),
              "NTLM Type 2 target info is malformed: AV pair 7 has length 4");

    // Still usable: target info without MsvAvEol, and a 32-byte message of an
    // old server (no flag for target info, nothing after the challenge).
    set("User", "Password", "Domain", "COMPUTER");
    EXPECT_EQ(hex(answer(type2(kV2Flags, kTargetInfo.substr(0, kTargetInfo.size() - 4))).nt.substr(0, 16)),
              "68cd0ab851e51c96aabc927bebef6a1c");
    set("User", "Password", "Domain", "COMPUTER");
    m_ntlm->put_NtlmVersion(1);
    const std::string old = std::string("NTLMSSP\0", 8) + le32(2) + le16(0) + le16(0) + le32(32) +
                            le32(kV1Flags & ~infoFlag) + kServerChallenge;
    EXPECT_EQ(hex(answer(old).nt), "67c43011f30298a2ad35ece64f16331c44bdbed927841f94");
}
