// Loopback peers, throwaway certificates and a socket fixture for the
// transport tests (and the HTTPS token tests).
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "zrimap/engine.h"

namespace zrtest {

// A listening socket on 127.0.0.1 with a kernel-chosen port; -1 on failure.
inline int listenLoopback(int& port, int backlog = 4) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), len) != 0 || ::listen(fd, backlog) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        ADD_FAILURE() << "cannot listen on 127.0.0.1";
        if (fd >= 0) ::close(fd);
        return -1;
    }
    port = ntohs(a.sin_port);
    return fd;
}

// A port on 127.0.0.1 that nothing listens on (bound, then closed).
inline int closedPort() {
    int port = 0;
    const int fd = listenLoopback(port);
    if (fd >= 0) ::close(fd);
    return port;
}

// A throwaway self-signed CA certificate (EC P-256), also written to a PEM
// file so it can serve as the CA file of the client.
struct TestCert {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    std::string pem;

    TestCert(const char* cn, const char* subjectAltNames) { make(cn, subjectAltNames); }
    ~TestCert() {
        if (!pem.empty()) std::remove(pem.c_str());
        X509_free(cert);
        EVP_PKEY_free(key);
    }
    TestCert(const TestCert&) = delete;
    TestCert& operator=(const TestCert&) = delete;

private:
    void make(const char* cn, const char* subjectAltNames) {
        static std::atomic<int> serial{1};
        const int n = serial++;
        ASSERT_TRUE(key && cert);
        X509_set_version(cert, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(cert), n);
        X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
        X509_gmtime_adj(X509_getm_notAfter(cert), 86400);
        X509_set_pubkey(cert, key);
        X509_NAME* name = X509_get_subject_name(cert);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn), -1, -1, 0);
        X509_set_issuer_name(cert, name);
        X509V3_CTX ctx;
        X509V3_set_ctx_nodb(&ctx);
        X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
        for (const auto& [nid, value] : {std::pair<int, const char*>{NID_basic_constraints, "critical,CA:TRUE"},
                                         {NID_subject_key_identifier, "hash"},
                                         {NID_subject_alt_name, subjectAltNames}}) {
            X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
            ASSERT_NE(ext, nullptr) << value;
            X509_add_ext(cert, ext, -1);
            X509_EXTENSION_free(ext);
        }
        EXPECT_GT(X509_sign(cert, key, EVP_sha256()), 0);
        pem = ::testing::TempDir() + "zrimap-net-" + std::to_string(::getpid()) + "-" + std::to_string(n) + ".pem";
        FILE* f = std::fopen(pem.c_str(), "w");
        ASSERT_NE(f, nullptr) << pem;
        EXPECT_EQ(PEM_write_X509(f, cert), 1);
        std::fclose(f);
    }
};

// Made once per run: "good" is for localhost and 127.0.0.1, "other" claims
// the same names with another key, "wrongHost" is for wrong.test only.
struct Certs {
    TestCert good{"localhost", "DNS:localhost,IP:127.0.0.1"};
    TestCert other{"localhost", "DNS:localhost,IP:127.0.0.1"};
    TestCert wrongHost{"wrong.test", "DNS:wrong.test"};
    static const Certs& get() {
        static const Certs certs;
        return certs;
    }
};

// The server side of one accepted connection. Blocking, with 5 s time-outs
// so a broken client fails the test instead of hanging it.
class PeerConn {
public:
    explicit PeerConn(int fd) : m_fd(fd) {
        timeval tv{5, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    }
    ~PeerConn() { close(); }
    // Server-side handshake; maxVersion 0 allows every version.
    bool startTls(const TestCert& cert, int maxVersion = 0) {
        m_ctx = SSL_CTX_new(TLS_server_method());
        if (!m_ctx || SSL_CTX_use_certificate(m_ctx, cert.cert) != 1 || SSL_CTX_use_PrivateKey(m_ctx, cert.key) != 1)
            return false;
        if (maxVersion) SSL_CTX_set_max_proto_version(m_ctx, maxVersion);
        m_ssl = SSL_new(m_ctx);
        SSL_set_fd(m_ssl, m_fd);
        const bool ok = SSL_accept(m_ssl) == 1;
        ERR_clear_error();
        return ok;
    }
    // The name the client sent in SNI ("" when none), after startTls.
    std::string serverName() const {
        const char* name = m_ssl ? SSL_get_servername(m_ssl, TLSEXT_NAMETYPE_host_name) : nullptr;
        return name ? name : "";
    }
    bool write(const std::string& bytes) {
        const int n = static_cast<int>(bytes.size());
        return m_ssl ? SSL_write(m_ssl, bytes.data(), n) == n
                     : ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(n);
    }
    // Up to n bytes, stopping after `stop` or before EOF.
    std::string read(size_t n, char stop = 0) {
        std::string out;
        char c = 0;
        while (out.size() < n && (out.empty() || !stop || out.back() != stop)) {
            if ((m_ssl ? SSL_read(m_ssl, &c, 1) : static_cast<int>(::recv(m_fd, &c, 1, 0))) <= 0) break;
            out += c;
        }
        return out;
    }
    std::string readLine() { return read(SIZE_MAX, '\n'); }
    // Reads until the client goes: 1 = TLS close_notify received, 0 = the
    // stream just ended, -1 = time-out or error.
    int readUntilClosed() {
        char buf[512];
        for (;;) {
            if (!m_ssl) {
                const ssize_t r = ::recv(m_fd, buf, sizeof buf, 0);
                if (r > 0) continue;
                return r == 0 ? 0 : -1;
            }
            const int r = SSL_read(m_ssl, buf, sizeof buf);
            if (r > 0) continue;
            const int e = SSL_get_error(m_ssl, r);
            const bool timedOut = e == SSL_ERROR_SYSCALL && (errno == EAGAIN || errno == EWOULDBLOCK);
            ERR_clear_error();
            return e == SSL_ERROR_ZERO_RETURN ? 1 : timedOut ? -1 : 0;
        }
    }
    void close() {
        SSL_free(m_ssl);
        SSL_CTX_free(m_ctx);
        m_ssl = nullptr;
        m_ctx = nullptr;
        if (m_fd >= 0) ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd;
    SSL_CTX* m_ctx = nullptr;
    SSL* m_ssl = nullptr;
};

// Listens on 127.0.0.1, accepts one connection in its own thread and runs
// the script on it.
class PeerServer {
public:
    explicit PeerServer(std::function<void(PeerConn&)> script) {
        m_listenFd = listenLoopback(m_port);
        if (m_listenFd < 0) return;
        m_thread = std::thread([this, script] {
            // A write to a client that has gone must not kill the test run;
            // the signal stays pending on this thread and dies with it.
            sigset_t set;
            sigemptyset(&set);
            sigaddset(&set, SIGPIPE);
            pthread_sigmask(SIG_BLOCK, &set, nullptr);
            pollfd p{m_listenFd, POLLIN, 0};
            if (::poll(&p, 1, 5000) != 1) return;
            const int fd = ::accept(m_listenFd, nullptr, nullptr);
            if (fd < 0) return;
            PeerConn conn(fd);
            script(conn);
        });
    }
    ~PeerServer() {
        join();
        if (m_listenFd >= 0) ::close(m_listenFd);
    }
    void join() {
        if (m_thread.joinable()) m_thread.join();
    }
    int port() const { return m_port; }

private:
    int m_listenFd = -1;
    int m_port = 0;
    std::thread m_thread;
};

// Records progress and asks to abort once `ms` have passed since it was made
// (never when ms is negative).
struct AbortAfter : zr::ProgressEvent {
    explicit AbortAfter(int ms = -1) : never(ms < 0), at(std::chrono::steady_clock::now() + std::chrono::milliseconds(ms)) {}
    void onProgressInfo(const char* name, const char* value) override { infos.push_back(std::string(name) + "=" + value); }
    bool onAbortCheck() override { return !never && std::chrono::steady_clock::now() >= at; }
    bool never;
    std::chrono::steady_clock::time_point at;
    std::vector<std::string> infos;
};

// Caps every buffer for the length of a test.
struct LimitGuard {
    explicit LimitGuard(uint64_t n) { zr::BufferLimits::setMaxBytes(n); }
    ~LimitGuard() { zr::BufferLimits::setMaxBytes(0); }
};

// The flags that are set, space separated ("timedOut connLost"), so a test
// can say exactly which ones it expects.
inline std::string flagsOf(const zr::SocketParams& sp) {
    std::string s;
    for (const auto& [on, name] : {std::pair<bool, const char*>{sp.m_timedOut, "timedOut"},
                                   {sp.m_connLost, "connLost"},
                                   {sp.m_tlsFailure, "tlsFailure"},
                                   {sp.m_connectFailed, "connectFailed"},
                                   {sp.m_aborted, "aborted"},
                                   {sp.m_otherError, "otherError"}})
        if (on) s += s.empty() ? name : std::string(" ") + name;
    return s;
}

inline bool hasErrorWith(const zr::MemoryLog& log, const std::string& part) {
    for (const std::string& e : log.errors())
        if (e.find(part) != std::string::npos) return true;
    return false;
}

inline std::string str(const zr::DataBuffer& db) {
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}

inline long long msSince(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t).count();
}

// One socket, referenced for the length of the test, with verbose logging
// (so the detail logging runs too) and the calls most transport tests make.
class SocketTest : public ::testing::Test {
protected:
    SocketTest() {
        log.m_verboseLogging = true;
        sock->incRefCount();
    }
    ~SocketTest() override { sock->decRefCount(); }
    bool connect(int port, const char* host = "127.0.0.1", bool tlsOn = false, const TestCert* ca = nullptr) {
        tls.m_caFile.setString(ca ? ca->pem.c_str() : "");
        return sock->socket2Connect(zr::StringBuffer(host), port, tlsOn, tls, 5000, sp, log);
    }
    // One line through CRLF, or "<failed>" (flags and log say why).
    std::string line(unsigned timeoutMs = 5000) {
        zr::StringBuffer sb;
        return sock->receiveUntilMatchSb("\r\n", sb, timeoutMs, sp, log) ? sb.getString() : "<failed>";
    }
    bool send(const std::string& s, unsigned timeoutMs = 5000) {
        return sock->s2_sendFewBytes(reinterpret_cast<const unsigned char*>(s.data()),
                                     static_cast<unsigned>(s.size()), timeoutMs, log, sp);
    }

    zr::Socket2* const sock = zr::Socket2::createNewSocket2(16);
    zr::SocketParams sp{nullptr};
    zr::MemoryLog log;
    zr::_clsTls tls;
};

}  // namespace zrtest
