// Every login mechanism against a real Dovecot on 127.0.0.1, with the right
// and a wrong password.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "zrimap/auth/Settings.h"
#include "zrimap/engine.h"

using namespace zr;

namespace {

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "";
}

class DovecotAuth : public ::testing::Test {
protected:
    _zrImap imap;
    MemoryLog log;
    _clsTls tls;
    SocketParams sp{nullptr};

    void SetUp() override {
        if (env("ZRIMAP_IMAP_PORT").empty()) GTEST_FAIL() << "ZRIMAP_IMAP_PORT is not set: run this test through ctest";
        imap.m_keepSessionLog = true;
        imap.put_ReadTimeout(15);
        StringBuffer greeting;
        ASSERT_TRUE(imap.connectToImapServer(StringBuffer("127.0.0.1"), std::atoi(env("ZRIMAP_IMAP_PORT").c_str()),
                                             greeting, tls, sp, log))
            << log.toText();
    }
    void TearDown() override {
        StringBuffer bye;
        if (imap.m_socket) imap.logout(bye, sp, log);
        imap.imapDisconnect(log, sp);
    }
    // The session is really authenticated: SELECT works.
    bool selectWorks() {
        ImapResultSet rs;
        return imap.sendRawCommand("EXAMINE INBOX", rs, log, sp) && rs.isOK(true, log);
    }
    void expectNotInSessionLog(const std::string& secret) {
        EXPECT_EQ(std::string(imap.m_sessionLog.getString()).find(secret), std::string::npos);
        EXPECT_EQ(log.toText().find(secret), std::string::npos);
    }
};

}  // namespace

TEST_F(DovecotAuth, CapabilityThenLoginAndLogout) {
    StringBuffer caps;
    ASSERT_TRUE(imap.capability(caps, log, sp));
    EXPECT_TRUE(caps.containsSubstring("IMAP4rev1"));
    XString login("alice");
    SecurePassword pw("alice-pw");
    ImapResultSet rs;
    ASSERT_TRUE(imap.loginImap(login, pw, rs, log, sp));
    EXPECT_TRUE(rs.isOK(true, log)) << log.toText();
    EXPECT_TRUE(selectWorks());
    expectNotInSessionLog("alice-pw");
    StringBuffer bye;
    ASSERT_TRUE(imap.logout(bye, sp, log));
    EXPECT_TRUE(bye.beginsWith("* BYE"));
}

TEST_F(DovecotAuth, LoginWrongPasswordIsAnOkExchangeWithNo) {
    XString login("alice");
    SecurePassword pw("wrong");
    ImapResultSet rs;
    ASSERT_TRUE(imap.loginImap(login, pw, rs, log, sp));
    EXPECT_FALSE(rs.isOK(true, log));
    EXPECT_NE(std::string(rs.getLine(rs.getNumLines() - 1)).find(" NO "), std::string::npos);
}

TEST_F(DovecotAuth, PlainWithUtf8PasswordAndAwkwardCharacters) {
    XString none, dave("dave");
    SecurePassword pw("d\xC3\xA4v\xC3\xA9-pw");
    ImapResultSet rs;
    ASSERT_TRUE(imap.authenticatePlain(none, dave, pw, rs, log, sp));
    EXPECT_TRUE(rs.isOK(true, log)) << log.toText();
    EXPECT_TRUE(selectWorks());
}

TEST_F(DovecotAuth, PlainQuotesAndBackslashes) {
    XString none, carol("carol");
    SecurePassword pw("sp ace\"quo\\te");
    ImapResultSet rs;
    ASSERT_TRUE(imap.authenticatePlain(none, carol, pw, rs, log, sp));
    EXPECT_TRUE(rs.isOK(true, log)) << log.toText();
}

TEST_F(DovecotAuth, PlainWrongPassword) {
    XString none, login("alice");
    SecurePassword pw("nope");
    ImapResultSet rs;
    ASSERT_TRUE(imap.authenticatePlain(none, login, pw, rs, log, sp));
    EXPECT_FALSE(rs.isOK(true, log));
}

TEST_F(DovecotAuth, CramMd5) {
    XString login("alice");
    SecurePassword good("alice-pw");
    StringBuffer final1;
    EXPECT_TRUE(imap.authenticateCramMd5(login, good, final1, log, sp)) << log.toText();
    EXPECT_TRUE(selectWorks());
}

TEST_F(DovecotAuth, CramMd5WrongPasswordIsFalse) {
    XString login("alice");
    SecurePassword bad("nope");
    StringBuffer final1;
    EXPECT_FALSE(imap.authenticateCramMd5(login, bad, final1, log, sp));
    EXPECT_TRUE(final1.containsSubstring(" NO "));
}

TEST_F(DovecotAuth, DigestMd5) {
    XString login("alice");
    SecurePassword good("alice-pw");
    StringBuffer response;
    EXPECT_TRUE(imap.authenticateDigestMd5(login, good, response, log, sp)) << log.toText();
    EXPECT_TRUE(selectWorks());
}

TEST_F(DovecotAuth, DigestMd5WrongPasswordIsFalse) {
    XString login("alice");
    SecurePassword bad("nope");
    StringBuffer response;
    EXPECT_FALSE(imap.authenticateDigestMd5(login, bad, response, log, sp));
}

TEST_F(DovecotAuth, NtlmVersionTwoAndOne) {
    XString login("dave"), domain("");
    SecurePassword pw("d\xC3\xA4v\xC3\xA9-pw");
    StringBuffer final1;
    EXPECT_TRUE(imap.authenticateNTLM(login, pw, domain, final1, log, sp)) << log.toText();
    EXPECT_TRUE(selectWorks());

    _zrImap second;
    StringBuffer greeting;
    ASSERT_TRUE(second.connectToImapServer(StringBuffer("127.0.0.1"), std::atoi(env("ZRIMAP_IMAP_PORT").c_str()),
                                           greeting, tls, sp, log));
    _zrSettings::m_defaultNtlmVersion = 1;
    XString alice("alice");
    SecurePassword pw2("alice-pw");
    StringBuffer final2;
    const bool v1 = second.authenticateNTLM(alice, pw2, domain, final2, log, sp);
    _zrSettings::m_defaultNtlmVersion = 2;
    EXPECT_TRUE(v1) << log.toText();
    second.imapDisconnect(log, sp);
}

TEST_F(DovecotAuth, NtlmWrongPasswordIsFalse) {
    XString login("alice"), domain("");
    SecurePassword bad("nope");
    StringBuffer final1;
    EXPECT_FALSE(imap.authenticateNTLM(login, bad, domain, final1, log, sp));
    EXPECT_TRUE(final1.containsSubstring(" NO "));
}

TEST_F(DovecotAuth, Xoauth2WithAReadyToken) {
    XString login("alice");
    SecurePassword token("alice-oauth2-token");
    ImapResultSet rs;
    ASSERT_TRUE(imap.xoauth2Imap(login, token, rs, log, sp));
    EXPECT_TRUE(rs.isOK(true, log)) << log.toText();
    EXPECT_TRUE(selectWorks());
    expectNotInSessionLog("alice-oauth2-token");
}

TEST_F(DovecotAuth, Xoauth2RevokedTokenGetsTheErrorChallengeAndNo) {
    XString login("alice");
    SecurePassword token("revoked-oauth2-token");
    ImapResultSet rs;
    ASSERT_TRUE(imap.xoauth2Imap(login, token, rs, log, sp));
    EXPECT_FALSE(rs.isOK(true, log));
}

TEST_F(DovecotAuth, Xoauth2ByClientCredentials) {
    const std::string json = std::string("{\"token_endpoint\": \"http://127.0.0.1:") + env("ZRIMAP_OAUTH_PORT") +
                             "/token\", \"client_id\": \"imaptest-client\", \"client_secret\": \"imaptest-secret\"}";
    XString login("alice");
    SecurePassword token(json.c_str());
    ImapResultSet rs;
    ASSERT_TRUE(imap.xoauth2Imap(login, token, rs, log, sp)) << log.toText();
    EXPECT_TRUE(rs.isOK(true, log)) << log.toText();
    EXPECT_TRUE(selectWorks());
    expectNotInSessionLog("imaptest-secret");
    expectNotInSessionLog("alice-oauth2-token");
}
