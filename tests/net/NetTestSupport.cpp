#include "NetTestSupport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

namespace zrtest {

namespace {

void addExtension(X509* cert, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    ASSERT_NE(ext, nullptr) << value;
    X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
}

int listenLoopback(int& port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), len) != 0 || ::listen(fd, 4) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        ADD_FAILURE() << "cannot listen on 127.0.0.1";
        if (fd >= 0) ::close(fd);
        return -1;
    }
    port = ntohs(a.sin_port);
    return fd;
}

}  // namespace

TestCert::TestCert(const char* cn, const char* subjectAltNames) {
    static std::atomic<int> serial{1};
    m_key = EVP_EC_gen("P-256");
    m_cert = X509_new();
    if (!m_key || !m_cert) {
        ADD_FAILURE() << "cannot make a test key";
        return;
    }
    X509_set_version(m_cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(m_cert), serial++);
    X509_gmtime_adj(X509_getm_notBefore(m_cert), -3600);
    X509_gmtime_adj(X509_getm_notAfter(m_cert), 86400);
    X509_set_pubkey(m_cert, m_key);
    X509_NAME* name = X509_get_subject_name(m_cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn), -1, -1, 0);
    X509_set_issuer_name(m_cert, name);
    addExtension(m_cert, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(m_cert, NID_subject_key_identifier, "hash");
    addExtension(m_cert, NID_subject_alt_name, subjectAltNames);
    EXPECT_GT(X509_sign(m_cert, m_key, EVP_sha256()), 0);

    m_path = ::testing::TempDir() + "zrimap-net-" + std::to_string(::getpid()) + "-" +
             std::to_string(serial.load()) + ".pem";
    FILE* f = std::fopen(m_path.c_str(), "w");
    EXPECT_NE(f, nullptr) << m_path;
    if (!f) return;
    EXPECT_EQ(PEM_write_X509(f, m_cert), 1);
    std::fclose(f);
}

TestCert::~TestCert() {
    if (!m_path.empty()) std::remove(m_path.c_str());
    X509_free(m_cert);
    EVP_PKEY_free(m_key);
}

const Certs& Certs::get() {
    static const Certs certs;
    return certs;
}

PeerConn::PeerConn(int fd) : m_fd(fd) {
    timeval tv{5, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

PeerConn::~PeerConn() { close(); }

void PeerConn::close() {
    if (m_ssl) SSL_free(m_ssl);
    if (m_ctx) SSL_CTX_free(m_ctx);
    m_ssl = nullptr;
    m_ctx = nullptr;
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
}

bool PeerConn::startTls(const TestCert& cert, int maxVersion) {
    m_ctx = SSL_CTX_new(TLS_server_method());
    if (!m_ctx || SSL_CTX_use_certificate(m_ctx, cert.cert()) != 1 || SSL_CTX_use_PrivateKey(m_ctx, cert.key()) != 1)
        return false;
    if (maxVersion) SSL_CTX_set_max_proto_version(m_ctx, maxVersion);
    m_ssl = SSL_new(m_ctx);
    SSL_set_fd(m_ssl, m_fd);
    const bool ok = SSL_accept(m_ssl) == 1;
    ERR_clear_error();
    return ok;
}

std::string PeerConn::serverName() const {
    const char* name = m_ssl ? SSL_get_servername(m_ssl, TLSEXT_NAMETYPE_host_name) : nullptr;
    return name ? name : "";
}

bool PeerConn::write(const std::string& bytes) {
    if (m_ssl) return SSL_write(m_ssl, bytes.data(), static_cast<int>(bytes.size())) == static_cast<int>(bytes.size());
    return ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string PeerConn::readLine() {
    std::string line;
    char c = 0;
    while (line.empty() || line.back() != '\n') {
        const int r = m_ssl ? SSL_read(m_ssl, &c, 1) : static_cast<int>(::recv(m_fd, &c, 1, 0));
        if (r <= 0) break;
        line += c;
    }
    return line;
}

int PeerConn::readUntilClosed() {
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

PeerServer::PeerServer(std::function<void(PeerConn&)> script) {
    m_listenFd = listenLoopback(m_port);
    if (m_listenFd < 0) return;
    m_thread = std::thread([this, script] {
        // A write to a client that has gone must not kill the test run; the
        // signal stays pending on this thread and dies with it.
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

PeerServer::~PeerServer() {
    if (m_thread.joinable()) m_thread.join();
    if (m_listenFd >= 0) ::close(m_listenFd);
}

std::string flagsOf(const zr::SocketParams& sp) {
    std::string s;
    auto add = [&s](bool on, const char* name) {
        if (on) s += s.empty() ? name : std::string(" ") + name;
    };
    add(sp.m_timedOut, "timedOut");
    add(sp.m_connLost, "connLost");
    add(sp.m_tlsFailure, "tlsFailure");
    add(sp.m_connectFailed, "connectFailed");
    add(sp.m_aborted, "aborted");
    add(sp.m_otherError, "otherError");
    return s;
}

int closedPort() {
    int port = 0;
    const int fd = listenLoopback(port);
    if (fd >= 0) ::close(fd);
    return port;
}

}  // namespace zrtest
