// Socket2 with TLS: direct and STARTTLS handshakes against loopback peers
// using throwaway certificates, and what the engine may rely on after them.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>

#include "NetTestSupport.h"
#include "zrimap/net/SystemCerts.h"

using namespace zr;
using namespace zrtest;

namespace {

class TlsSocket : public SocketTest {
protected:
    bool connectTls(int port, const char* host, const TestCert* ca) { return connect(port, host, true, ca); }
    void hangUp() { sock->sockClose(true, false, 0, log, nullptr, true); }
    const Certs& certs = Certs::get();
};

}  // namespace

TEST_F(TlsSocket, VerifiedWithTheRightCaForNameAndAddress) {
    for (const char* host : {"localhost", "127.0.0.1"}) {
        SCOPED_TRACE(host);
        std::promise<std::string> sni;
        PeerServer server([&](PeerConn& c) {
            const bool ok = c.startTls(certs.good);
            sni.set_value(c.serverName());
            ASSERT_TRUE(ok);
            EXPECT_EQ(c.readLine(), "a1 NOOP\r\n");
            c.write("a1 OK fine\r\n");
            c.readUntilClosed();
        });
        ASSERT_TRUE(connectTls(server.port(), host, &certs.good)) << log.toText();
        EXPECT_TRUE(sock->getRemoteServerCertVerified()) << sock->getServerCertVerifyError();
        EXPECT_STREQ(sock->getServerCertVerifyError(), "");
        EXPECT_TRUE(sock->isNonTunneledTls());
        // SNI names a host, never an address.
        EXPECT_EQ(sni.get_future().get(), std::string(host) == "localhost" ? "localhost" : "");
        // Session tickets may have arrived by now: records without
        // application data must not count as data available.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_FALSE(sock->pollDataAvailable(sp, log));
        ASSERT_TRUE(send("a1 NOOP\r\n"));
        EXPECT_EQ(line(), "a1 OK fine\r\n");

        sock->logConnectionType(log);
        ASSERT_NE(log.lastData("connectionType"), nullptr);
        EXPECT_EQ(log.lastData("connectionType")->rfind("TLS 1.3 TLS_", 0), 0u) << *log.lastData("connectionType");

        SystemCerts chain;
        ASSERT_TRUE(sock->getRemoteServerCerts(&chain, &log));
        ASSERT_EQ(chain.getNumCerts(), 1);
        StringBuffer subject, issuer, pem;
        EXPECT_TRUE(chain.getSubjectText(0, subject));
        EXPECT_TRUE(chain.getIssuerText(0, issuer));
        EXPECT_TRUE(chain.getPem(0, pem));
        EXPECT_STREQ(subject.getString(), "CN=localhost");
        EXPECT_STREQ(issuer.getString(), "CN=localhost");
        EXPECT_TRUE(pem.beginsWith("-----BEGIN CERTIFICATE-----\n"));
        EXPECT_FALSE(chain.getPem(1, pem));
        EXPECT_EQ(flagsOf(sp), "");
        hangUp();
    }
}

TEST_F(TlsSocket, NotVerifiedWithWrongCaOrWrongHostButStillConnected) {
    struct Case {
        const TestCert& served;
        const TestCert* ca;  // null: the system store
        const char* reasonPart;
    };
    const Case cases[] = {{certs.good, &certs.other, ""},
                          {certs.good, nullptr, ""},
                          {certs.wrongHost, &certs.wrongHost, "hostname mismatch"}};
    sp.m_sendSni = false;
    for (const Case& c : cases) {
        std::promise<std::string> sni;
        PeerServer server([&](PeerConn& p) {
            const bool ok = p.startTls(c.served);
            sni.set_value(p.serverName());
            ASSERT_TRUE(ok);
            p.readUntilClosed();
        });
        ASSERT_TRUE(connectTls(server.port(), "localhost", c.ca)) << log.toText();
        EXPECT_FALSE(sock->getRemoteServerCertVerified());
        const std::string reason = sock->getServerCertVerifyError();
        EXPECT_FALSE(reason.empty());
        EXPECT_NE(reason.find(c.reasonPart), std::string::npos) << reason;
        EXPECT_EQ(sni.get_future().get(), "");
        hangUp();
    }
}

TEST_F(TlsSocket, RequireVerifiedServerFailsTheHandshakeWithTheReason) {
    PeerServer server([&](PeerConn& p) {
        p.startTls(certs.good);
        p.readUntilClosed();
    });
    tls.m_requireVerifiedServer = true;
    EXPECT_FALSE(connectTls(server.port(), "localhost", &certs.other));
    EXPECT_EQ(flagsOf(sp), "tlsFailure");
    EXPECT_TRUE(hasErrorWith(log, "TLS server certificate not verified: ")) << log.toText();
    EXPECT_TRUE(log.errors().back().find("(host localhost)") != std::string::npos);
    EXPECT_FALSE(sock->isSock2Connected(false, log));
}

TEST_F(TlsSocket, StartTlsAfterPlainExchange) {
    PeerServer server([&](PeerConn& c) {
        c.write("* OK ready\r\n");
        EXPECT_EQ(c.readLine(), "a1 STARTTLS\r\n");
        c.write("a1 OK begin\r\n");
        ASSERT_TRUE(c.startTls(certs.good));
        EXPECT_EQ(c.readLine(), "a2 NOOP\r\n");
        c.write("a2 OK secure\r\n");
        c.readUntilClosed();
    });
    ASSERT_TRUE(connect(server.port()));
    EXPECT_FALSE(sock->isNonTunneledTls());
    EXPECT_EQ(line(), "* OK ready\r\n");
    ASSERT_TRUE(send("a1 STARTTLS\r\n"));
    EXPECT_EQ(line(), "a1 OK begin\r\n");
    tls.m_caFile.setString(certs.good.pem.c_str());
    ASSERT_TRUE(sock->convertToTls(StringBuffer("127.0.0.1"), tls, 5000, sp, log)) << log.toText();
    EXPECT_TRUE(sock->isNonTunneledTls());
    EXPECT_TRUE(sock->getRemoteServerCertVerified()) << sock->getServerCertVerifyError();
    ASSERT_TRUE(send("a2 NOOP\r\n"));
    EXPECT_EQ(line(), "a2 OK secure\r\n");
    hangUp();
}

// Plaintext that follows the go-ahead would otherwise be read later as if it
// had come through TLS.
TEST_F(TlsSocket, StartTlsRefusesBytesAlreadyReadAhead) {
    PeerServer server([&](PeerConn& c) {
        c.write("a1 OK begin\r\n* injected\r\n");
        c.readUntilClosed();
    });
    ASSERT_TRUE(connect(server.port()));
    EXPECT_EQ(line(), "a1 OK begin\r\n");
    for (int i = 0; i < 200 && sock->getRumBufferedSize() < 12; ++i) sock->pollDataAvailable(sp, log);
    ASSERT_EQ(sock->getRumBufferedSize(), 12u);
    EXPECT_FALSE(sock->convertToTls(StringBuffer("127.0.0.1"), tls, 5000, sp, log));
    EXPECT_EQ(flagsOf(sp), "tlsFailure");
    EXPECT_TRUE(hasErrorWith(log, "Refusing the TLS upgrade: 12 bytes arrived")) << log.toText();
    EXPECT_FALSE(sock->isSock2Connected(false, log));
}

TEST_F(TlsSocket, HandshakeFailuresAreTlsFailuresWithTheReason) {
    struct Case {
        const char* name;
        std::function<void(PeerConn&)> peer;
        const char* protocol;
        const char* error;
    };
    const Case cases[] = {
        {"plain server",
         [](PeerConn& c) {
             c.write("* OK this is not TLS at all\r\n");
             c.readUntilClosed();
         },
         "default", "TLS handshake failed: "},
        {"server below the minimum",
         [this](PeerConn& c) { EXPECT_FALSE(c.startTls(certs.good, TLS1_2_VERSION)); }, "TLS 1.3",
         "TLS handshake failed: "},
        {"unknown setting", [](PeerConn& c) { c.readUntilClosed(); }, "SSL 2.0",
         "Unrecognized SSL protocol setting [SSL 2.0]"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        sp.initFlags();
        log.clear();
        PeerServer server(c.peer);
        tls.m_sslProtocol.setString(c.protocol);
        EXPECT_FALSE(connectTls(server.port(), "127.0.0.1", &certs.good));
        EXPECT_EQ(flagsOf(sp), "tlsFailure");
        EXPECT_TRUE(hasErrorWith(log, c.error)) << log.toText();
        EXPECT_FALSE(sock->isSock2Connected(false, log));
        EXPECT_FALSE(sock->getRemoteServerCerts(nullptr, nullptr));
    }
}

TEST_F(TlsSocket, GracefulCloseSendsCloseNotifyAndAbruptDoesNot) {
    for (bool graceful : {true, false}) {
        std::atomic<int> seen{-2};
        {
            PeerServer server([&](PeerConn& c) {
                ASSERT_TRUE(c.startTls(certs.good));
                seen = c.readUntilClosed();
            });
            ASSERT_TRUE(connectTls(server.port(), "localhost", &certs.good));
            EXPECT_TRUE(sock->sockClose(true, graceful, 1000, log, nullptr, false));
            EXPECT_TRUE(sock->sockClose(true, graceful, 1000, log, nullptr, false));
        }
        EXPECT_EQ(seen.load(), graceful ? 1 : 0) << "graceful=" << graceful;
    }
}

// The peer goes without a word (no close_notify under TLS): the read in
// progress sees the connection lost, and under TLS so does what follows.
TEST_F(TlsSocket, PeerGoneMidLineIsConnectionLostWithOrWithoutTls) {
    for (bool withTls : {false, true}) {
        SCOPED_TRACE(withTls ? "TLS" : "plain");
        sp.initFlags();
        PeerServer server([&](PeerConn& c) {
            ASSERT_TRUE(!withTls || c.startTls(certs.good));
            c.write("* partial");
            c.close();
        });
        ASSERT_TRUE(connect(server.port(), "localhost", withTls, &certs.good));
        EXPECT_EQ(line(), "<failed>");
        EXPECT_EQ(flagsOf(sp), "connLost");
        EXPECT_FALSE(sock->isSock2Connected(false, log));
        if (!withTls) continue;  // a plain FIN ends only the peer's half: sending may still work
        sp.initFlags();
        EXPECT_FALSE(send("a1 LOGOUT\r\n"));
        EXPECT_EQ(flagsOf(sp), "connLost");
    }
}

// Nothing is read, so it is the writes themselves (OpenSSL's under TLS) that
// meet the dead connection: they must fail instead of raising SIGPIPE, which
// would end the whole test run.
TEST_F(TlsSocket, SendsToVanishedPeerFailWithoutSigpipeWithOrWithoutTls) {
    for (bool withTls : {false, true}) {
        SCOPED_TRACE(withTls ? "TLS" : "plain");
        sp.initFlags();
        log.clear();
        PeerServer server([&](PeerConn& c) {
            ASSERT_TRUE(!withTls || c.startTls(certs.good));
            c.close();
        });
        ASSERT_TRUE(connect(server.port(), "localhost", withTls, &certs.good));
        const std::string chunk(64 * 1024, 'q');
        bool sent = true;
        for (int i = 0; i < 400 && sent; ++i) sent = send(chunk);
        EXPECT_FALSE(sent);
        EXPECT_EQ(log.errors().size(), 1u) << log.toText();
        EXPECT_EQ(flagsOf(sp), "connLost");
    }
}
