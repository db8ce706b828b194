// The login exchanges against a scripted server: exact wire lines, the
// masking of secrets in every channel, and the early-failure paths.
#include <string>

#include "EngineTest.h"

using namespace zr;
using namespace zr::test;

namespace {

class Auth : public EngineTest {
protected:
    void SetUp() override {
        imap.m_keepSessionLog = true;
        server.send("* OK ready\r\n");
    }
    // Where a secret must never show: the session log, the last command and
    // every entry of the diagnostic log.
    void expectNowhere(const std::string& secret) {
        EXPECT_EQ(std::string(imap.m_sessionLog.getString()).find(secret), std::string::npos) << "session log";
        EXPECT_EQ(lastCommand().find(secret), std::string::npos) << "last command";
        EXPECT_EQ(log.toText().find(secret), std::string::npos) << "diagnostic log";
    }
};

}  // namespace

TEST_F(Auth, LoginSendsQuotesUnescapedAndMasksThePassword) {
    server.expect("{tag} LOGIN \"jo\"e\" \"s3\\cr\"et\"\r\n").send("{tag} NO [AUTHENTICATIONFAILED] nope\r\n");
    start();
    log.m_verboseLogging = true;
    XString login("jo\"e");
    SecurePassword password("s3\\cr\"et");
    ImapResultSet rs;
    ASSERT_TRUE(imap.loginImap(login, password, rs, log, sp));  // a NO is the caller's to judge
    EXPECT_FALSE(rs.isOK(true, log));
    EXPECT_TRUE(password.isEmpty());
    EXPECT_EQ(lastCommand(), "aaab LOGIN \"jo\"e\" \"<password>\"");
    EXPECT_NE(events.all.find("ImapCmdSent aaab LOGIN ...\n"), std::string::npos);
    EXPECT_NE(std::string(imap.m_sessionLog.getString()).find("----IMAP REQUEST----\r\naaab LOGIN \"jo\"e\"\r\n"),
              std::string::npos);
    expectNowhere("s3\\cr\"et");
    EXPECT_EQ(events.all.find("s3\\cr"), std::string::npos);
}

TEST_F(Auth, LoginWithoutConnectionKeepsThePassword) {
    _zrImap unconnected;
    XString login("a");
    SecurePassword password("pw");
    ImapResultSet rs;
    EXPECT_FALSE(unconnected.loginImap(login, password, rs, log, sp));
    EXPECT_STREQ(password.getUtf8(), "pw");
    EXPECT_TRUE(log.hasError("No connection to IMAP server."));
}

TEST_F(Auth, CapabilityLogoutAndAbort) {
    server.expect("{tag} CAPABILITY\r\n")
        .send("* CAPABILITY IMAP4rev1 IDLE\r\n{tag} OK done\r\n")
        .expect("{tag} CAPABILITY\r\n")
        .send("{tag} OK left unread\r\n")
        .expect("{tag} LOGOUT\r\n")
        .send("* BYE bye\r\n{tag} OK LOGOUT completed\r\n");
    start();
    StringBuffer caps;
    ASSERT_TRUE(imap.capability(caps, log, sp));
    EXPECT_STREQ(caps.getString(), "* CAPABILITY IMAP4rev1 IDLE\r\naaab OK done\r\n");
    events.abortNow = true;
    EXPECT_FALSE(imap.capability(caps, log, sp));
    EXPECT_TRUE(log.hasInfo("IMAP CAPABILITY aborted by application"));
    SocketParams fresh(nullptr);  // an abort stays latched in its monitor
    StringBuffer line;
    ASSERT_TRUE(imap.getServerResponseLine2(line, log, fresh));
    EXPECT_STREQ(line.getString(), "aaac OK left unread\r\n");  // the aborted command's completion
    StringBuffer bye;
    ASSERT_TRUE(imap.logout(bye, fresh, log));
    EXPECT_STREQ(bye.getString(), "* BYE bye\r\n");
    line.clear();
    ASSERT_TRUE(imap.getServerResponseLine2(line, log, fresh));  // logout did not wait for it
    EXPECT_STREQ(line.getString(), "aaad OK LOGOUT completed\r\n");
}

TEST_F(Auth, PlainSendsIdentityLoginPasswordInOneLine) {
    server.expect("{tag} AUTHENTICATE PLAIN\r\n")
        .send("+\r\n")
        .expect("AGFsaWNlAGFsaWNlLXB3\r\n")  // "\0alice\0alice-pw"
        .send("{tag} OK logged in\r\n")
        .expect("{tag} AUTHENTICATE PLAIN\r\n")
        .send("+ \r\n")
        .expect("YWRtaW4AYWxpY2UAYWxpY2UtcHc=\r\n")  // "admin\0alice\0alice-pw"
        .send("{tag} NO wrong\r\n")
        .expect("{tag} AUTHENTICATE PLAIN\r\n")
        .send("{tag} NO [CANNOT] not here\r\n");
    start();
    XString none, admin("admin"), login("alice");
    SecurePassword pw1("alice-pw"), pw2("alice-pw"), pw3("alice-pw");
    ImapResultSet rs1, rs2, rs3;
    ASSERT_TRUE(imap.authenticatePlain(none, login, pw1, rs1, log, sp));
    EXPECT_TRUE(rs1.isOK(true, log));
    EXPECT_TRUE(pw1.isEmpty());
    ASSERT_TRUE(imap.authenticatePlain(admin, login, pw2, rs2, log, sp));
    EXPECT_FALSE(rs2.isOK(true, log));
    EXPECT_EQ(lastCommand(), "aaac AUTHENTICATE PLAIN");
    expectNowhere("AGFsaWNlAGFsaWNlLXB3");
    expectNowhere("alice-pw");
    EXPECT_NE(std::string(imap.m_sessionLog.getString()).find("(Sending AuthzId/Login/Password in Base64 encoding)"),
              std::string::npos);
    // The progress monitor alone is given the real credential line.
    EXPECT_NE(events.all.find("ImapCmdSent AGFsaWNlAGFsaWNlLXB3\r\n"), std::string::npos);
    // Refused before the continuation: nothing of the credentials is sent.
    EXPECT_FALSE(imap.authenticatePlain(none, login, pw3, rs3, log, sp));
    EXPECT_TRUE(log.hasError("Unexpected response from AUTHENTICATE PLAIN command."));
    EXPECT_STREQ(pw3.getUtf8(), "alice-pw");  // not copied, so not wiped
    EXPECT_EQ(rs3.getNumLines(), 0);
}

TEST_F(Auth, Xoauth2TokenErrorChallengeAndMasking) {
    server.expect("{tag} AUTHENTICATE XOAUTH2 dXNlcj1hbGljZQFhdXRoPUJlYXJlciB0b2sBAQ==\r\n")
        .send("+ eyJzdGF0dXMiOiI0MDEifQ==\r\n")
        .expect("\r\n")
        .send("* OK noise\r\n{tag} NO [AUTHENTICATIONFAILED] bad token\r\n")
        .expect("{tag} AUTHENTICATE XOAUTH2 dXNlcj1hbGljZQFhdXRoPUJlYXJlciB4eXoBAQ==\r\n")
        .send("{tag} OK\r\n");
    start();
    XString login("alice");
    SecurePassword token("tok");
    ImapResultSet rs;
    ASSERT_TRUE(imap.xoauth2Imap(login, token, rs, log, sp));
    EXPECT_EQ(rs.getNumLines(), 3);
    EXPECT_FALSE(rs.isOK(true, log));
    EXPECT_TRUE(token.isEmpty());
    EXPECT_TRUE(login.isEmpty());  // the login is wiped too
    EXPECT_EQ(lastCommand(), "aaab AUTHENTICATE XOAUTH2 <base64_token>");
    expectNowhere("dXNlcj1hbGljZQFhdXRoPUJlYXJlciB0b2sBAQ==");
    EXPECT_NE(events.all.find("ImapCmdSent aaab AUTHENTICATE XOAUTH2 ...\n"), std::string::npos);

    XString login2("alice");
    SecurePassword bearer("Bearer xyz");  // already prefixed: no second "Bearer "
    ImapResultSet rs2;
    ASSERT_TRUE(imap.xoauth2Imap(login2, bearer, rs2, log, sp));
    EXPECT_TRUE(rs2.isOK(true, log));
}

TEST_F(Auth, CramMd5AnswersTheRfcExample) {
    server.expect("{tag} AUTHENTICATE CRAM-MD5\r\n")
        .send("+ PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+\r\n")
        .expect("dGltIGI5MTNhNjAyYzdlZGE3YTQ5NWI0ZTZlNzMzNGQzODkw\r\n")
        .send("{tag}    OK welcome\r\n")
        .expect("{tag} AUTHENTICATE CRAM-MD5\r\n")
        .send("+ PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+\r\n")
        .readLine()
        .send("{tag} ok lowercase\r\n")
        .expect("{tag} AUTHENTICATE CRAM-MD5\r\n")
        .send("+\r\n");
    start();
    XString login("tim");
    SecurePassword pw("tanstaaftanstaaf"), pw2("tanstaaftanstaaf"), pw3("x");
    StringBuffer final1, final2, final3;
    EXPECT_TRUE(imap.authenticateCramMd5(login, pw, final1, log, sp));
    EXPECT_STREQ(final1.getString(), "aaab    OK welcome\r\n");
    EXPECT_TRUE(pw.isEmpty());
    EXPECT_FALSE(imap.authenticateCramMd5(login, pw2, final2, log, sp));  // "ok" is not "OK"
    EXPECT_STREQ(final2.getString(), "aaac ok lowercase\r\n");
    EXPECT_FALSE(imap.authenticateCramMd5(login, pw3, final3, log, sp));  // "+" without a space
    EXPECT_TRUE(log.hasError("CRAM-MD5 not implemented by this IMAP server."));
    EXPECT_STREQ(pw3.getUtf8(), "x");
    expectNowhere("tanstaaf");
}

TEST_F(Auth, DigestMd5ResponsesComputedTheEnginesWay) {
    // realm, qop=auth, charset, no algorithm: no cnonce, digest over an empty one.
    server.expect("{tag} AUTHENTICATE DIGEST-MD5\r\n")
        .send("+ cmVhbG09Im1haWwuZXhhbXBsZSIsbm9uY2U9Ik9BNk1HOXRFUUdtMmhoIixxb3A9ImF1dGgiLGNoYXJzZXQ9dXRmLTg=\r\n")
        .expect("Y2hhcnNldD11dGYtOCx1c2VybmFtZT0iY2hyaXMiLHJlYWxtPSJtYWlsLmV4YW1wbGUiLG5vbmNlPSJPQTZNRzl0RVFHbTJoaCIs"
                "bmM9MDAwMDAwMDEsZGlnZXN0LXVyaT0iaW1hcC9tYWlsLmV4YW1wbGUiLHJlc3BvbnNlPWFjNDRhNWE4MzQyZmUwOGM0MjlkZTIx"
                "ZTFkZGZiM2QxLHFvcD1hdXRo\r\n")
        .send("+ cnNwYXV0aD1kZWFkYmVlZg==\r\n")
        .expect("\r\n")
        .send("{tag} OK done\r\n")
        // Only a nonce: no realm, no qop.
        .expect("{tag} AUTHENTICATE DIGEST-MD5\r\n")
        .send("+ bm9uY2U9ImFiYyI=\r\n")
        .expect("dXNlcm5hbWU9ImNocmlzIixub25jZT0iYWJjIixuYz0wMDAwMDAwMSxkaWdlc3QtdXJpPSJpbWFwLyIscmVzcG9uc2U9YTg0ODVl"
                "ZWZmYWE4YTAyYTI4MjBhMjExZGI0YmU3ZTY=\r\n")
        .send("{tag} OK directly\r\n")
        // Several qop options in one quoted value: HA2 stays empty.
        .expect("{tag} AUTHENTICATE DIGEST-MD5\r\n")
        .send("+ cmVhbG09InIiLG5vbmNlPSJuIixxb3A9ImF1dGgsYXV0aC1pbnQi\r\n")
        .expect("dXNlcm5hbWU9ImNocmlzIixyZWFsbT0iciIsbm9uY2U9Im4iLG5jPTAwMDAwMDAxLGRpZ2VzdC11cmk9ImltYXAvciIscmVzcG9u"
                "c2U9NWU3MTMzNGJiZjFiMWQ2Y2NlOTExYmZmNWQzOTI4ZWEscW9wPWF1dGgsYXV0aC1pbnQ=\r\n")
        .send("+ x\r\n");  // a "+" line under five characters is the final line
    start();
    XString login("chris");
    SecurePassword pw1("secret"), pw2("secret"), pw3("secret");
    StringBuffer response("untouched");
    EXPECT_TRUE(imap.authenticateDigestMd5(login, pw1, response, log, sp));
    EXPECT_EQ(response.getSize(), 0u);
    EXPECT_EQ(*log.firstData("decodedResponse"), "rspauth=deadbeef");
    EXPECT_TRUE(imap.authenticateDigestMd5(login, pw2, response, log, sp));
    EXPECT_FALSE(imap.authenticateDigestMd5(login, pw3, response, log, sp));
    EXPECT_TRUE(pw3.isEmpty());
    expectNowhere("secret");
}

TEST_F(Auth, DigestMd5SessMakesAFreshCnonce) {
    // algorithm=md5-sess (any case): a 24-character cnonce is sent.
    server.expect("{tag} AUTHENTICATE DIGEST-MD5\r\n")
        .send("+ cmVhbG09InIiLG5vbmNlPSJuIixxb3A9YXV0aCxhbGdvcml0aG09TUQ1LXNlc3M=\r\n")
        .readLine()
        .send("{tag} NO rejected\r\n");
    start();
    XString login("chris");
    SecurePassword pw("secret");
    StringBuffer response;
    EXPECT_FALSE(imap.authenticateDigestMd5(login, pw, response, log, sp));
    ASSERT_TRUE(server.finish()) << server.report();
    const std::string sent = imap.m_sessionLog.getString();
    const size_t at = sent.find("cnonce=\"");
    ASSERT_NE(at, std::string::npos) << sent;
    const size_t end = sent.find('"', at + 8);
    EXPECT_EQ(end - (at + 8), 24u);
    EXPECT_NE(sent.find("digest-uri=\"imap/r\""), std::string::npos);
}

TEST_F(Auth, NtlmExchangeAndEarlyRefusals) {
    // A NO to the bare command still gets a Type 1; the NO shows on the next test.
    server.expect("{tag} AUTHENTICATE NTLM\r\n")
        .send("{tag} NO no NTLM here\r\n")
        .readLine()
        .send("{tag} BAD really\r\n")
        .expect("{tag} AUTHENTICATE NTLM\r\n")
        .send("+\r\n")
        .readLine()
        .send("+ TlRMTVNTUAACAAAADAAMADgAAAAzgoriASNFZ4mrze8AAAAAAAAAACQAJABEAAAABgBwFwAAAA9TAGUAcgB2AGUAcgACAAwA"
              "RABvAG0AYQBpAG4AAQAMAFMAZQByAHYAZQByAAAAAAA=\r\n")
        .readLine()
        .send("{tag} OK NTLM done\r\n");
    start();
    XString login("User"), domain("Domain");
    SecurePassword pw1("Password"), pw2("Password");
    StringBuffer final1, final2;
    EXPECT_FALSE(imap.authenticateNTLM(login, pw1, domain, final1, log, sp));
    EXPECT_TRUE(log.hasError("NTLM not implemented by this IMAP server."));
    EXPECT_EQ(*log.lastData("ntmlResponse"), "aaab BAD really");
    EXPECT_TRUE(pw1.isEmpty());  // the NTLM object had taken it
    EXPECT_TRUE(imap.authenticateNTLM(login, pw2, domain, final2, log, sp)) << log.toText();
    EXPECT_STREQ(final2.getString(), "aaac OK NTLM done");
    EXPECT_EQ(lastCommand(), "");  // NTLM leaves the last command alone
    expectNowhere("Password");
}

TEST_F(Auth, NtlmVersionFollowsTheProcessDefault) {
    // The Type 3 NT response of NTLMv1 is 24 bytes, of NTLMv2 longer: the two
    // logins differ in the message length the server receives.
    const std::string type2 =
        "+ TlRMTVNTUAACAAAADAAMADgAAAAzgoriASNFZ4mrze8AAAAAAAAAACQAJABEAAAABgBwFwAAAA9TAGUAcgB2AGUAcgACAAwA"
        "RABvAG0AYQBpAG4AAQAMAFMAZQByAHYAZQByAAAAAAA=\r\n";
    server.expect("{tag} AUTHENTICATE NTLM\r\n").send("+\r\n").readLine().send(type2).readLine().send("{tag} OK\r\n");
    server.expect("{tag} AUTHENTICATE NTLM\r\n").send("+\r\n").readLine().send(type2).readLine().send("{tag} OK\r\n");
    start();
    XString login("User"), domain("Domain");
    StringBuffer final1, final2;
    SecurePassword pw1("Password"), pw2("Password");
    _zrSettings::m_defaultNtlmVersion = 1;
    EXPECT_TRUE(imap.authenticateNTLM(login, pw1, domain, final1, log, sp));
    _zrSettings::m_defaultNtlmVersion = 2;
    EXPECT_TRUE(imap.authenticateNTLM(login, pw2, domain, final2, log, sp));
    ASSERT_TRUE(server.finish()) << server.report();
    const std::string v1 = *log.firstData("NtlmType3"), v2 = *log.lastData("NtlmType3");
    EXPECT_LT(v1.size(), v2.size());
}
