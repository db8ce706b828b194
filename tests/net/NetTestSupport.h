// Loopback TLS peers and certificates for the transport tests.
#pragma once

#include <openssl/ssl.h>

#include <functional>
#include <string>
#include <thread>

#include "zrimap/base/LogBase.h"
#include "zrimap/base/SocketParams.h"
#include "zrimap/net/Socket2.h"

namespace zrtest {

// A throwaway self-signed certificate (EC P-256), also written to a PEM file
// so it can serve as the CA file of the client.
class TestCert {
public:
    TestCert(const char* cn, const char* subjectAltNames);
    ~TestCert();
    TestCert(const TestCert&) = delete;
    TestCert& operator=(const TestCert&) = delete;
    X509* cert() const { return m_cert; }
    EVP_PKEY* key() const { return m_key; }
    const std::string& pemPath() const { return m_path; }

private:
    EVP_PKEY* m_key = nullptr;
    X509* m_cert = nullptr;
    std::string m_path;
};

// Made once per run: "good" is for localhost and 127.0.0.1, "other" claims
// the same names with another key, "wrongHost" is for wrong.test only.
struct Certs {
    TestCert good{"localhost", "DNS:localhost,IP:127.0.0.1"};
    TestCert other{"localhost", "DNS:localhost,IP:127.0.0.1"};
    TestCert wrongHost{"wrong.test", "DNS:wrong.test"};
    static const Certs& get();
};

// The server side of one accepted connection. Blocking, with 5 s time-outs
// so a broken client fails the test instead of hanging it.
class PeerConn {
public:
    explicit PeerConn(int fd);
    ~PeerConn();
    // Server-side handshake; maxVersion 0 allows every version.
    bool startTls(const TestCert& cert, int maxVersion = 0);
    // The name the client sent in SNI ("" when none), after startTls.
    std::string serverName() const;
    bool write(const std::string& bytes);
    std::string readLine();  // through '\n', or whatever came before EOF
    // Reads until the client goes: 1 = TLS close_notify received, 0 = the
    // stream just ended, -1 = time-out or error.
    int readUntilClosed();
    void close();

private:
    int m_fd;
    SSL_CTX* m_ctx = nullptr;
    SSL* m_ssl = nullptr;
};

// Listens on 127.0.0.1, accepts one connection in its own thread and runs
// the script on it.
class PeerServer {
public:
    explicit PeerServer(std::function<void(PeerConn&)> script);
    ~PeerServer();
    int port() const { return m_port; }

private:
    int m_listenFd = -1;
    int m_port = 0;
    std::thread m_thread;
};

// Holds one reference to a Socket2 for the length of a test.
struct SocketRef {
    zr::Socket2* s;
    SocketRef() : s(zr::Socket2::createNewSocket2(16)) {
        if (s) s->incRefCount();
    }
    ~SocketRef() {
        if (s) s->decRefCount();
    }
    SocketRef(const SocketRef&) = delete;
    SocketRef& operator=(const SocketRef&) = delete;
    zr::Socket2* operator->() const { return s; }
};

// The flags that are set, space separated ("timedOut connLost"), so a test
// can say exactly which ones it expects.
std::string flagsOf(const zr::SocketParams& sp);

// A port on 127.0.0.1 that nothing listens on (bound, then closed).
int closedPort();

}  // namespace zrtest
