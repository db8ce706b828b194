// ImapClient through an SSH tunnel: the test sshd forwards to the test
// Dovecot. Password and key logins, TLS and STARTTLS inside the channel,
// and the refusals (host key, SSH password).
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "zrimap/client.h"

using namespace zr;

namespace {

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "";
}

class ClientSshIT : public ::testing::Test {
protected:
    ImapClient client;

    void SetUp() override {
        if (env("ZRIMAP_SSH_PORT").empty()) GTEST_FAIL() << "ZRIMAP_SSH_PORT is not set: run this test through ctest";
    }

    static ServerSettings settings(Security security) {
        ServerSettings s;
        s.host = "127.0.0.1";
        s.port = std::atoi(env(security == Security::Tls ? "ZRIMAP_IMAPS_PORT" : "ZRIMAP_IMAP_PORT").c_str());
        s.security = security;
        s.caFile = env("ZRIMAP_CA_FILE");
        s.user = "bob";
        s.password = "bob-pw";
        s.timeoutSeconds = 20;
        SshSettings ssh;
        ssh.host = "127.0.0.1";
        ssh.port = std::atoi(env("ZRIMAP_SSH_PORT").c_str());
        ssh.user = "imaptest";
        ssh.password = "imaptest-pw";
        s.ssh = ssh;
        return s;
    }
};

TEST_F(ClientSshIT, TlsAndStartTlsInsideThePasswordTunnel) {
    for (Security security : {Security::Tls, Security::StartTls}) {
        client.keepSessionLog(true);
        Status st = client.connect(settings(security));
        ASSERT_TRUE(st) << st.message();
        auto box = client.select("INBOX");
        EXPECT_TRUE(box) << box.message();
        if (security == Security::StartTls) {
            EXPECT_NE(client.sessionLog().find("STARTTLS"), std::string::npos);
        }
        EXPECT_TRUE(client.logout());
        EXPECT_FALSE(client.isConnected());
    }
}

TEST_F(ClientSshIT, KeyLoginAndHostKeyCheck) {
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
}

TEST_F(ClientSshIT, RefusalsNameTheirCause) {
    ServerSettings s = settings(Security::Tls);
    s.ssh->password = "wrong-pw";
    Status st = client.connect(s);
    EXPECT_FALSE(st);
    EXPECT_FALSE(st.message().empty());
    EXPECT_EQ(st.message().find('\n'), std::string::npos);

    s = settings(Security::Tls);
    s.ssh->privateKeyFile = "/nonexistent/key";
    s.ssh->password.clear();
    st = client.connect(s);
    EXPECT_NE(st.message().find("/nonexistent/key"), std::string::npos) << st.message();

    s = settings(Security::Tls);
    s.password = "not-bobs-pw";
    st = client.connect(s);
    EXPECT_NE(st.message().find("[AUTHENTICATIONFAILED]"), std::string::npos) << st.message();
}

}  // namespace
