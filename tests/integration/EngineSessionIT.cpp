// The engine core against a real Dovecot on 127.0.0.1: plain, implicit TLS
// and STARTTLS sessions, certificate checks, NOOP and a raw command. IDLE:
// MailboxIT.
#include <gtest/gtest.h>

#include <string>

#include "ItSession.h"

using namespace zr;
using zr::it::env;
using zr::it::envPort;

namespace {

class DovecotSession : public ::testing::Test {
protected:
    _zrImap imap;
    MemoryLog log;
    _clsTls tls;
    SocketParams sp{nullptr};
    StringBuffer greeting;

    void SetUp() override {
        it::failWithoutFixture();
        imap.m_keepSessionLog = true;
        imap.put_ReadTimeout(15);
    }
    bool connect(const char* host, const char* portVar) {
        return imap.connectToImapServer(StringBuffer(host), envPort(portVar), greeting, tls, sp, log);
    }
    bool raw(const char* cmd, ImapResultSet& rs) { return imap.sendRawCommand(cmd, rs, log, sp); }
    void loginBob() {
        ImapResultSet rs;
        ASSERT_TRUE(raw("LOGIN bob bob-pw", rs));
        ASSERT_TRUE(rs.isOK(true, log)) << log.toText();
    }
};

}  // namespace

TEST_F(DovecotSession, PlainSessionNoopCapabilityLogin) {
    ASSERT_TRUE(connect("127.0.0.1", "ZRIMAP_IMAP_PORT")) << log.toText();
    EXPECT_TRUE(greeting.beginsWith("* OK")) << greeting.getString();
    EXPECT_TRUE(imap.isImapConnected(log));

    ImapResultSet noop;
    ASSERT_TRUE(imap.cmdNoArgs("NOOP", noop, log, sp));
    EXPECT_TRUE(noop.isOK(true, log));

    ImapResultSet caps;
    ASSERT_TRUE(raw("CAPABILITY", caps));
    EXPECT_TRUE(caps.isOK(true, log));
    EXPECT_NE(std::string(caps.getLine(0)).find("IMAP4rev1"), std::string::npos);

    loginBob();
    imap.imapDisconnect(log, sp);
    EXPECT_FALSE(imap.isImapConnected(log));
    EXPECT_NE(std::string(imap.m_sessionLog.getString()).find("----INFO----\r\nDisconnecting..."), std::string::npos);
}

TEST_F(DovecotSession, ImplicitTlsIsVerifiedOnlyAgainstTheTestCa) {
    imap.setSsl(true);
    tls.m_requireVerifiedServer = true;  // the system store does not know the test CA
    EXPECT_FALSE(connect("localhost", "ZRIMAP_IMAPS_PORT"));
    EXPECT_TRUE(sp.m_tlsFailure);
    EXPECT_TRUE(it::hasErrorPart(log, "not verified")) << log.toText();

    // Without the switch the same connection is made, and reported unverified.
    tls.m_requireVerifiedServer = false;
    ASSERT_TRUE(connect("localhost", "ZRIMAP_IMAPS_PORT")) << log.toText();
    EXPECT_FALSE(imap.getRemoteServerCertVerified());
    imap.imapDisconnect(log, sp);

    tls.m_caFile.setString(env("ZRIMAP_CA_FILE").c_str());
    tls.m_requireVerifiedServer = true;
    ASSERT_TRUE(connect("localhost", "ZRIMAP_IMAPS_PORT")) << log.toText();
    EXPECT_TRUE(greeting.beginsWith("* OK"));
    EXPECT_TRUE(imap.getRemoteServerCertVerified());
    SystemCerts certs;
    ASSERT_TRUE(imap.getRemoteServerCert(&certs));
    EXPECT_GE(certs.getNumCerts(), 1);
    loginBob();
}

TEST_F(DovecotSession, StartTlsUpgradesThePlainPort) {
    tls.m_caFile.setString(env("ZRIMAP_CA_FILE").c_str());
    imap.setStartTls(true);
    ASSERT_TRUE(connect("127.0.0.1", "ZRIMAP_IMAP_PORT")) << log.toText();
    EXPECT_TRUE(imap.getRemoteServerCertVerified());
    EXPECT_NE(log.firstData("startTlsResponse")->find("OK"), std::string::npos);
    ImapResultSet caps;  // the same session goes on over TLS
    ASSERT_TRUE(raw("CAPABILITY", caps));
    EXPECT_TRUE(caps.isOK(true, log));
    EXPECT_EQ(std::string(caps.getLine(0)).find("STARTTLS"), std::string::npos);
}
