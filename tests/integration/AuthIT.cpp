// A plain session and every login mechanism against a real Dovecot on
// 127.0.0.1, with the right and a wrong password. TLS and STARTTLS against
// it: ClientIT and SshTunnelIT; the engine's certificate checks: Socket2TlsTest.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ItSession.h"

using namespace zr;

namespace {

enum class Mech { Login, Plain, CramMd5, DigestMd5, Ntlm, NtlmV1, Xoauth2 };

class DovecotAuth : public it::SessionTest {
protected:
    void SetUp() override {
        SessionTest::SetUp();
        imap.m_keepSessionLog = true;
    }
    // What a login came to: "OK", "NO" (the server's refusal, read to its end) or "failed".
    std::string verdict(bool completed, const ImapResultSet& rs) {
        if (!completed) return "failed";
        if (rs.isOK(true, log)) return "OK";
        return std::string(rs.getLine(rs.getNumLines() - 1)).find(" NO ") != std::string::npos ? "NO" : "other";
    }
    static std::string verdict(bool ok, const StringBuffer& final) {
        return ok ? "OK" : final.containsSubstring(" NO ") ? "NO" : "failed";
    }
    // Logs in on a new connection.
    std::string logIn(Mech mech, const char* name, const char* secret) {
        imap.imapDisconnect(log, sp);
        if (!connect()) return "no connection";
        XString user(name), none, domain("");
        SecurePassword pw(secret);
        ImapResultSet rs;
        StringBuffer final;
        switch (mech) {
            case Mech::Login: return verdict(imap.loginImap(user, pw, rs, log, sp), rs);
            case Mech::Plain: return verdict(imap.authenticatePlain(none, user, pw, rs, log, sp), rs);
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
            case Mech::Xoauth2: return verdict(imap.xoauth2Imap(user, pw, rs, log, sp), rs);
        }
        return "unknown";
    }
};

}  // namespace

TEST_F(DovecotAuth, PlainSessionCapabilityLoginNoopLogout) {
    ASSERT_TRUE(connect()) << log.toText();
    EXPECT_TRUE(greeting.beginsWith("* OK")) << greeting.getString();
    EXPECT_TRUE(imap.isImapConnected(log));
    StringBuffer caps;
    ASSERT_TRUE(imap.capability(caps, log, sp));
    EXPECT_TRUE(caps.containsSubstring("IMAP4rev1"));
    ASSERT_TRUE(login("alice", "alice-pw")) << log.toText();
    ImapResultSet noop;
    EXPECT_TRUE(ok(imap.cmdNoArgs("NOOP", noop, log, sp), noop));
    StringBuffer bye;
    ASSERT_TRUE(imap.logout(bye, sp, log));
    EXPECT_TRUE(bye.beginsWith("* BYE"));
    imap.imapDisconnect(log, sp);
    EXPECT_FALSE(imap.isImapConnected(log));
    EXPECT_NE(std::string(imap.m_sessionLog.getString()).find("----INFO----\r\nDisconnecting..."), std::string::npos);
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
        if (c.wrong) {
            EXPECT_EQ(logIn(c.mechanism, c.user, c.wrong), c.wrongVerdict) << log.toText();
        }
        ASSERT_EQ(logIn(c.mechanism, c.user, c.secret.c_str()), "OK") << log.toText();
        EXPECT_TRUE(raw("EXAMINE INBOX"));  // really authenticated
        for (const std::string& s : c.neverLogged) {
            EXPECT_EQ(std::string(imap.m_sessionLog.getString()).find(s), std::string::npos) << s;
            EXPECT_EQ(log.toText().find(s), std::string::npos) << s;
        }
    }
}
