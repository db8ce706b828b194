// ImapClient through an SSH tunnel: the test sshd forwards to the test
// Dovecot. The API's own part: password or key for the tunnel, STARTTLS
// judged through it, and the refusals it names. The tunnel itself is pinned
// by tests/integration/SshTunnelIT.cpp.
#include <gtest/gtest.h>

#include <string>

#include "ItSession.h"
#include "zrimap/client.h"

using namespace zr;
using zr::it::env;
using zr::it::envPort;

namespace {

ServerSettings settings(Security security) {
    ServerSettings s;
    s.host = "127.0.0.1";
    s.port = envPort(security == Security::Tls ? "ZRIMAP_IMAPS_PORT" : "ZRIMAP_IMAP_PORT");
    s.security = security;
    s.caFile = env("ZRIMAP_CA_FILE");
    s.user = "bob";
    s.password = "bob-pw";
    s.timeoutSeconds = 20;
    SshSettings ssh;
    ssh.host = "127.0.0.1";
    ssh.port = envPort("ZRIMAP_SSH_PORT");
    ssh.user = "imaptest";
    ssh.password = "imaptest-pw";
    s.ssh = ssh;
    return s;
}

class ClientSshIT : public ::testing::Test {
protected:
    ImapClient client;
    void SetUp() override {
        if (env("ZRIMAP_SSH_PORT").empty()) GTEST_FAIL() << "ZRIMAP_SSH_PORT is not set: run this test through ctest";
    }
};

TEST_F(ClientSshIT, PasswordTunnelWithTlsOrStartTls) {
    for (Security security : {Security::Tls, Security::StartTls}) {
        SCOPED_TRACE(security == Security::Tls ? "TLS" : "STARTTLS");
        Status st = client.connect(settings(security));
        ASSERT_TRUE(st) << st.message();
        auto box = client.select("INBOX");
        EXPECT_TRUE(box) << box.message();
        EXPECT_TRUE(client.logout());
        EXPECT_FALSE(client.isConnected());
    }
}

TEST_F(ClientSshIT, KeyTunnelAndRefusalsNameTheirCause) {
    ServerSettings s = settings(Security::Tls);
    s.ssh->password.clear();
    s.ssh->privateKeyFile = env("ZRIMAP_SSHD_DIR") + "/client_ed25519";
    Status st = client.connect(s);
    ASSERT_TRUE(st) << st.message();
    EXPECT_TRUE(client.status("INBOX"));

    s.ssh->hostKeyFingerprint = "SHA256:AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA";
    st = client.connect(s);
    EXPECT_FALSE(st);
    EXPECT_NE(st.message().find("ost key"), std::string::npos) << st.message();
    EXPECT_FALSE(client.isConnected());

    s = settings(Security::Tls);
    s.ssh->privateKeyFile = "/nonexistent/key";
    s.ssh->password.clear();
    st = client.connect(s);
    EXPECT_NE(st.message().find("/nonexistent/key"), std::string::npos) << st.message();

    s = settings(Security::Tls);
    s.ssh->password = "wrong-pw";
    st = client.connect(s);
    EXPECT_FALSE(st);
    EXPECT_FALSE(st.message().empty());
    EXPECT_EQ(st.message().find('\n'), std::string::npos);
}

}  // namespace
