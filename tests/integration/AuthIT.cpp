// Every login mechanism against a real Dovecot on 127.0.0.1, with the right
// and a wrong password.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ItSession.h"

using namespace zr;

namespace {

class DovecotAuth : public ::testing::Test {
protected:
    _zrImap imap;
    MemoryLog log;
    _clsTls tls;
    SocketParams sp{nullptr};

    void SetUp() override {
        it::failWithoutFixture();
        imap.m_keepSessionLog = true;
        imap.put_ReadTimeout(15);
    }
    void TearDown() override { disconnect(); }
    void connect() {
        disconnect();
        StringBuffer greeting;
        ASSERT_TRUE(imap.connectToImapServer(StringBuffer("127.0.0.1"), it::envPort("ZRIMAP_IMAP_PORT"), greeting, tls,
                                             sp, log))
            << log.toText();
    }
    void disconnect() {
        StringBuffer bye;
        if (imap.m_socket) imap.logout(bye, sp, log);
        imap.imapDisconnect(log, sp);
    }
    // The session is really authenticated: SELECT works.
    bool selectWorks() {
        ImapResultSet rs;
        return imap.sendRawCommand("EXAMINE INBOX", rs, log, sp) && rs.isOK(true, log);
    }
};

enum class Mech { Login, Plain, CramMd5, DigestMd5, Ntlm, NtlmV1, Xoauth2 };

// What a login came to: "OK", "NO" (the server's refusal, read to its end) or "failed".
std::string verdict(bool completed, const ImapResultSet& rs, MemoryLog& log) {
    if (!completed) return "failed";
    if (rs.isOK(true, log)) return "OK";
    return std::string(rs.getLine(rs.getNumLines() - 1)).find(" NO ") != std::string::npos ? "NO" : "other";
}
std::string verdict(bool ok, const StringBuffer& final) {
    return ok ? "OK" : final.containsSubstring(" NO ") ? "NO" : "failed";
}

std::string logIn(_zrImap& imap, Mech mech, XString& user, SecurePassword& pw, MemoryLog& log, SocketParams& sp) {
    XString none, domain("");
    ImapResultSet rs;
    StringBuffer final;
    switch (mech) {
        case Mech::Login: return verdict(imap.loginImap(user, pw, rs, log, sp), rs, log);
        case Mech::Plain: return verdict(imap.authenticatePlain(none, user, pw, rs, log, sp), rs, log);
        case Mech::CramMd5: return verdict(imap.authenticateCramMd5(user, pw, final, log, sp), final);
        case Mech::DigestMd5: return imap.authenticateDigestMd5(user, pw, final, log, sp) ? "OK" : "failed";
        case Mech::Ntlm: return verdict(imap.authenticateNTLM(user, pw, domain, final, log, sp), final);
        case Mech::NtlmV1: {
            const int before = _zrSettings::m_defaultNtlmVersion;
            _zrSettings::m_defaultNtlmVersion = 1;
            const bool ok = imap.authenticateNTLM(user, pw, domain, final, log, sp);
            _zrSettings::m_defaultNtlmVersion = before;
            return verdict(ok, final);
        }
        case Mech::Xoauth2: return verdict(imap.xoauth2Imap(user, pw, rs, log, sp), rs, log);
    }
    return "unknown";
}

}  // namespace

TEST_F(DovecotAuth, CapabilityThenLoginAndLogout) {
    connect();
    StringBuffer caps;
    ASSERT_TRUE(imap.capability(caps, log, sp));
    EXPECT_TRUE(caps.containsSubstring("IMAP4rev1"));
    XString login("alice");
    SecurePassword pw("alice-pw");
    EXPECT_EQ(logIn(imap, Mech::Login, login, pw, log, sp), "OK") << log.toText();
    StringBuffer bye;
    ASSERT_TRUE(imap.logout(bye, sp, log));
    EXPECT_TRUE(bye.beginsWith("* BYE"));
}

TEST_F(DovecotAuth, EveryMechanismWithTheRightAndAWrongSecret) {
    const std::string clientCredentials = "{\"token_endpoint\": \"http://127.0.0.1:" + it::env("ZRIMAP_OAUTH_PORT") +
                                          "/token\", \"client_id\": \"imaptest-client\", "
                                          "\"client_secret\": \"imaptest-secret\"}";
    struct Case {
        const char* name;
        Mech mechanism;
        const char* user;
        std::string secret;
        const char* wrong;         // null: no refusal tried
        const char* wrongVerdict;  // how the engine reports the refusal
        std::vector<std::string> neverLogged;
    } cases[] = {
        {"LOGIN", Mech::Login, "alice", "alice-pw", "wrong", "NO", {"alice-pw"}},
        {"PLAIN, UTF-8 password", Mech::Plain, "dave", "d\xC3\xA4v\xC3\xA9-pw", "nope", "NO", {}},
        {"PLAIN, quotes and backslashes", Mech::Plain, "carol", "sp ace\"quo\\te", nullptr, nullptr, {}},
        {"CRAM-MD5", Mech::CramMd5, "alice", "alice-pw", "nope", "NO", {}},
        {"DIGEST-MD5", Mech::DigestMd5, "alice", "alice-pw", "nope", "failed", {}},
        {"NTLMv2, UTF-8 password", Mech::Ntlm, "dave", "d\xC3\xA4v\xC3\xA9-pw", "nope", "NO", {}},
        {"NTLMv1", Mech::NtlmV1, "alice", "alice-pw", nullptr, nullptr, {}},
        // A revoked token gets the error challenge, then NO.
        {"XOAUTH2 token", Mech::Xoauth2, "alice", "alice-oauth2-token", "revoked-oauth2-token", "NO",
         {"alice-oauth2-token"}},
        {"XOAUTH2 by client credentials", Mech::Xoauth2, "alice", clientCredentials, nullptr, nullptr,
         {"imaptest-secret", "alice-oauth2-token"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto attempt = [&](const char* secret) {  // on a new connection, with new credentials
            connect();
            XString user(c.user);
            SecurePassword pw(secret);
            return logIn(imap, c.mechanism, user, pw, log, sp);
        };
        if (c.wrong) {
            EXPECT_EQ(attempt(c.wrong), c.wrongVerdict) << log.toText();
        }
        ASSERT_EQ(attempt(c.secret.c_str()), "OK") << log.toText();
        EXPECT_TRUE(selectWorks());
        for (const std::string& s : c.neverLogged) {
            EXPECT_EQ(std::string(imap.m_sessionLog.getString()).find(s), std::string::npos) << s;
            EXPECT_EQ(log.toText().find(s), std::string::npos) << s;
        }
    }
}
