#include <gtest/gtest.h>

#include <random>
#include <string>

#include "NetTestSupport.h"
#include "zrimap/net/ReadAheadBuffer.h"
#include "zrimap/net/TlsSettings.h"

using namespace zr;
using zrtest::LimitGuard;

namespace {

std::string contentOf(const ReadAheadBuffer& b) {
    return b.empty() ? std::string() : std::string(reinterpret_cast<const char*>(b.data()), b.size());
}

bool fill(ReadAheadBuffer& b, const std::string& bytes) {
    unsigned granted = 0;
    unsigned char* room = b.tailRoom(static_cast<unsigned>(bytes.size()), granted);
    if (!room || granted != bytes.size()) return false;
    std::copy(bytes.begin(), bytes.end(), room);
    b.commit(granted);
    return true;
}

}  // namespace

// Random appends, consumes and prepends against a std::string model: any
// slip in compaction, regrowth or the head offset shows up as a mismatch.
TEST(ReadAheadBuffer, MatchesModelUnderRandomTraffic) {
    std::mt19937 rng(12345);
    ReadAheadBuffer buf;
    std::string model;
    unsigned char next = 0;
    for (int step = 0; step < 4000; ++step) {
        const int op = static_cast<int>(rng() % 10);
        if (op < 5) {
            std::string bytes(rng() % 40000 + 1, '\0');
            for (char& c : bytes) c = static_cast<char>(next++);
            ASSERT_TRUE(fill(buf, bytes));
            model += bytes;
        } else if (op < 9) {
            const unsigned n = model.empty() ? 0 : static_cast<unsigned>(rng() % (model.size() + 1));
            buf.consume(n);
            model.erase(0, n);
        } else {
            const std::string front(rng() % 300 + 1, static_cast<char>(step));
            ASSERT_TRUE(buf.prepend(reinterpret_cast<const unsigned char*>(front.data()),
                                    static_cast<unsigned>(front.size())));
            model.insert(0, front);
        }
        ASSERT_EQ(buf.size(), model.size()) << "step " << step;
        ASSERT_TRUE(contentOf(buf) == model) << "step " << step;
    }
}

TEST(ReadAheadBuffer, NeverHoldsMoreThanTheCeiling) {
    LimitGuard guard(1000);
    ReadAheadBuffer buf;
    unsigned granted = 0;
    ASSERT_NE(buf.tailRoom(4096, granted), nullptr);
    EXPECT_EQ(granted, 1000u);
    buf.commit(granted);
    EXPECT_EQ(buf.tailRoom(1, granted), nullptr);
    EXPECT_EQ(granted, 0u);
    const unsigned char one = 'x';
    EXPECT_FALSE(buf.prepend(&one, 1));
    buf.consume(10);
    EXPECT_NE(buf.tailRoom(100, granted), nullptr);
    EXPECT_EQ(granted, 10u);
}

TEST(TlsSettings, ProtocolTextRaisesTheMinimumOrIsRejected) {
    _clsTls tls;
    TlsVersion v;
    ASSERT_TRUE(tls.getEffectiveMinVersion(v));
    EXPECT_EQ(v, TlsVersion::Tls1_2);  // "default"
    for (const char* text : {"TLS 1.3", "tlsv1.3", "TLS 1.3 or higher", "TLS1.3+"}) {
        tls.m_sslProtocol.setString(text);
        ASSERT_TRUE(tls.getEffectiveMinVersion(v)) << text;
        EXPECT_EQ(v, TlsVersion::Tls1_3) << text;
    }
    tls.m_sslProtocol.setString("TLS 1.0");  // never below m_minTlsVersion
    ASSERT_TRUE(tls.getEffectiveMinVersion(v));
    EXPECT_EQ(v, TlsVersion::Tls1_2);
    for (const char* text : {"SSL 3.0", "TLS 1.4", "TLS 1.2 please", "tls"}) {
        tls.m_sslProtocol.setString(text);
        EXPECT_FALSE(tls.getEffectiveMinVersion(v)) << text;
    }
}
