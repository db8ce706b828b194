#include "zrimap/net/Socket2.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include "ByteChannel.h"
#include "NetSupport.h"
#include "zrimap/base/BufferLimits.h"
#include "zrimap/base/DataBuffer.h"
#include "zrimap/base/LogBase.h"
#include "zrimap/base/Progress.h"
#include "zrimap/base/SocketParams.h"
#include "zrimap/base/StringBuffer.h"
#include "zrimap/net/Ssh.h"

namespace zr {

using net::bareHost;
using net::kCloseWaitCapMs;
using net::logf;

namespace {

constexpr unsigned kReadChunk = 64 * 1024;
// One direct read never asks the caller's buffer for more room than this,
// so a huge maxBytes does not make the buffer reserve it all up front.
constexpr unsigned kDirectReadMax = 1024 * 1024;
constexpr unsigned kDefaultSendChunk = 64 * 1024;
constexpr unsigned kBulkSendChunk = 64 * 1024;

const char* errnoText(int err, char* buf, size_t n) { return strerror_r(err, buf, n); }

// Errors after which the peer is gone, as opposed to local trouble.
bool isConnectionErrno(int err) {
    switch (err) {
    case EPIPE:
    case ECONNRESET:
    case ECONNABORTED:
    case ENOTCONN:
    case ETIMEDOUT:
    case EHOSTUNREACH:
    case ENETUNREACH:
    case ENETDOWN:
    case ENETRESET:
        return true;
    default:
        return false;
    }
}

// "127.0.0.1:143" or "[::1]:143".
void describeAddress(const sockaddr* sa, char* out, size_t n) {
    char ip[INET6_ADDRSTRLEN] = "?";
    unsigned port = 0;
    if (sa->sa_family == AF_INET) {
        const sockaddr_in* in4 = reinterpret_cast<const sockaddr_in*>(sa);
        inet_ntop(AF_INET, &in4->sin_addr, ip, sizeof ip);
        port = ntohs(in4->sin_port);
        std::snprintf(out, n, "%s:%u", ip, port);
    } else if (sa->sa_family == AF_INET6) {
        const sockaddr_in6* in6 = reinterpret_cast<const sockaddr_in6*>(sa);
        inet_ntop(AF_INET6, &in6->sin6_addr, ip, sizeof ip);
        port = ntohs(in6->sin6_port);
        std::snprintf(out, n, "[%s]:%u", ip, port);
    } else {
        std::snprintf(out, n, "(address family %d)", sa->sa_family);
    }
}

// First occurrence of m at or after `from`, or -1. memchr on the first byte
// keeps the usual one- or two-byte match at memory speed.
long findMatch(const unsigned char* d, unsigned n, unsigned from, const char* m, size_t mlen) {
    if (n < mlen) return -1;
    const unsigned last = n - static_cast<unsigned>(mlen);
    const unsigned char first = static_cast<unsigned char>(m[0]);
    for (unsigned i = from; i <= last;) {
        const void* p = std::memchr(d + i, first, last - i + 1);
        if (!p) return -1;
        i = static_cast<unsigned>(static_cast<const unsigned char*>(p) - d);
        if (std::memcmp(d + i, m, mlen) == 0) return static_cast<long>(i);
        ++i;
    }
    return -1;
}

bool setIntOption(int fd, int level, int name, int value) {
    return ::setsockopt(fd, level, name, &value, sizeof value) == 0;
}

}  // namespace

namespace net {

Wait waitFd(int fd, short events, IdleTimer& timer, ProgressMonitor* pm, LogBase& log, int& err) {
    for (;;) {
        if (pm && pm->get_Aborted(log)) return Wait::Aborted;
        int slice = -1;
        if (!timer.unlimited()) {
            const unsigned left = timer.remaining();
            if (left == 0) return Wait::TimedOut;
            slice = static_cast<int>(left);
        }
        // Without a monitor there is nobody to ask, so the whole wait can be
        // one poll().
        if (pm && (slice < 0 || slice > static_cast<int>(kAbortCheckMs))) slice = kAbortCheckMs;
        pollfd p;
        p.fd = fd;
        p.events = events;
        p.revents = 0;
        const int r = ::poll(&p, 1, slice);
        // Errors and hang-ups count as ready: the next read or write says
        // what happened, in its own words.
        if (r > 0) return Wait::Ready;
        if (r < 0 && errno != EINTR) {
            err = errno;
            return Wait::Failed;
        }
    }
}

void logf(LogBase& log, bool error, const char* fmt, ...) {
    char text[768];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    if (error)
        log.logError(text);
    else
        log.logInfo(text);
}

bool bareHost(const StringBuffer& in, char* out, size_t n) {
    const char* h = in.getString();
    size_t len = std::strlen(h);
    if (len >= 2 && h[0] == '[' && h[len - 1] == ']') {
        ++h;
        len -= 2;
    }
    if (len == 0 || len >= n) return false;
    std::memcpy(out, h, len);
    out[len] = 0;
    return true;
}

}  // namespace net

Socket2* Socket2::createNewSocket2(int code) { return new (std::nothrow) Socket2(code); }

Socket2::Socket2(int code) : m_creatorCode(code) {}

Socket2::~Socket2() {
    LogNull quiet;
    sockClose(true, false, 0, quiet, nullptr, true);
    if (m_ssh) m_ssh->decRefCount();
}

unsigned Socket2::effectiveTimeout(unsigned timeoutMs) const { return timeoutMs ? timeoutMs : m_idleTimeoutMs; }

bool Socket2::isNonTunneledTls() const { return m_chan && m_chan->isTls() && !m_sshChan; }

void Socket2::clearServerCertInfo() {
    m_serverCerts.clear();
    m_serverVerified = false;
    m_verifyError[0] = 0;
}

// --- waiting ---

Socket2::Wait Socket2::waitFor(int fd, short events, Timer& timer, SocketParams& sp, LogBase& log) {
    return net::waitFd(fd, events, timer, sp.m_progressMonitor, log, m_waitErrno);
}

void Socket2::waitFailed(Wait w, const char* doing, const Timer& timer, bool reading, SocketParams& sp,
                         LogBase& log) {
    switch (w) {
    case Wait::TimedOut:
        sp.m_timedOut = true;
        logf(log, !(reading && !sp.timeoutIsFailure), "Timed out waiting to %s socket (%u ms)", doing,
             timer.limit());
        break;
    case Wait::Aborted:
        sp.m_aborted = true;
        logf(log, true, "Aborted by the application while waiting to %s socket", doing);
        break;
    case Wait::Failed: {
        sp.m_otherError = true;
        m_broken = true;
        char buf[128];
        logf(log, true, "Waiting to %s socket failed: %s", doing, errnoText(m_waitErrno, buf, sizeof buf));
        break;
    }
    case Wait::Ready:
        break;
    }
}

void Socket2::streamFailed(int ioCode, const char* doing, SocketParams& sp, LogBase& log) {
    const net::Io io = static_cast<net::Io>(ioCode);
    if (io == net::Io::Eof) {
        m_peerClosed = true;
        sp.m_connLost = true;
        logf(log, true, "Connection closed by peer %s while %s", m_remote, doing);
        return;
    }
    m_broken = true;
    if (m_chan->errorIsTls()) {
        sp.m_tlsFailure = true;
        sp.m_connLost = true;
        logf(log, true, "TLS error while %s (%s): %s", doing, m_remote, m_chan->errorText());
        return;
    }
    if (isConnectionErrno(m_chan->lastErrno()))
        sp.m_connLost = true;
    else
        sp.m_otherError = true;
    logf(log, true, "Socket error while %s (%s): %s", doing, m_remote, m_chan->errorText());
}

bool Socket2::usable(bool forReading, SocketParams& sp, LogBase& log) {
    if (m_fd < 0 || !m_chan) {
        sp.m_connLost = true;
        log.logError("Not connected");
        return false;
    }
    if (m_broken) {
        sp.m_connLost = true;
        log.logError("The connection is unusable after an earlier error");
        return false;
    }
    if (m_sshChan && !m_ssh->isConnected()) {
        sp.m_connLost = true;
        logf(log, true, "The SSH connection carrying %s is lost: %s", m_remote, m_ssh->lostReason());
        return false;
    }
    if (forReading && m_peerClosed) {
        sp.m_connLost = true;
        logf(log, true, "The connection was closed by peer %s", m_remote);
        return false;
    }
    return true;
}

// --- connecting ---

void Socket2::applyOptions(int fd, const _clsTls* tls, LogBase& log) {
    const int snd = tls && tls->m_soSndBuf > 0 ? tls->m_soSndBuf : m_optSndBuf;
    const int rcv = tls && tls->m_soRcvBuf > 0 ? tls->m_soRcvBuf : m_optRcvBuf;
    // A refused option costs some throughput at most, never the connection.
    if (snd > 0 && !setIntOption(fd, SOL_SOCKET, SO_SNDBUF, snd)) log.logInfo("Could not set SO_SNDBUF");
    if (rcv > 0 && !setIntOption(fd, SOL_SOCKET, SO_RCVBUF, rcv)) log.logInfo("Could not set SO_RCVBUF");
    if (m_optNoDelay >= 0 && !setIntOption(fd, IPPROTO_TCP, TCP_NODELAY, m_optNoDelay))
        log.logInfo("Could not set TCP_NODELAY");
    if (m_optKeepAlive >= 0 && !setIntOption(fd, SOL_SOCKET, SO_KEEPALIVE, m_optKeepAlive))
        log.logInfo("Could not set SO_KEEPALIVE");
}

Socket2::Attempt Socket2::connectOne(const void* addrInfo, unsigned timeoutMs, _clsTls& tls, SocketParams& sp,
                                     LogBase& log, int& err) {
    const addrinfo* ai = static_cast<const addrinfo*>(addrInfo);
    err = 0;
    const int fd = ::socket(ai->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, ai->ai_protocol);
    if (fd < 0) {
        err = errno;
        return Attempt::Failed;
    }
    applyOptions(fd, &tls, log);
    if (::connect(fd, ai->ai_addr, ai->ai_addrlen) != 0) {
        // A non-blocking connect interrupted by a signal goes on by itself,
        // just like one in progress.
        if (errno != EINPROGRESS && errno != EINTR) {
            err = errno;
            ::close(fd);
            return Attempt::Failed;
        }
        Timer timer(timeoutMs);
        const Wait w = waitFor(fd, POLLOUT, timer, sp, log);
        if (w != Wait::Ready) {
            err = w == Wait::Failed ? m_waitErrno : 0;
            ::close(fd);
            return w == Wait::TimedOut ? Attempt::TimedOut : w == Wait::Aborted ? Attempt::Aborted : Attempt::Failed;
        }
        int soErr = 0;
        socklen_t len = sizeof soErr;
        if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &soErr, &len) != 0) soErr = errno;
        if (soErr != 0) {
            err = soErr;
            ::close(fd);
            return Attempt::Failed;
        }
    }
    m_chan = new (std::nothrow) net::TcpChannel(fd);
    if (!m_chan) {
        err = ENOMEM;
        ::close(fd);
        return Attempt::Failed;
    }
    m_fd = fd;
    return Attempt::Connected;
}

bool Socket2::beginConnect(const StringBuffer& hostIn, int port, const _clsTls& tlsSettings, char* host,
                           size_t hostSize, SocketParams& sp, LogBase& log) {
    clearServerCertInfo();
    sp.m_soSndBuf = tlsSettings.m_soSndBuf;
    m_lastHost.setString(hostIn);
    if (!bareHost(hostIn, host, hostSize)) {
        sp.m_connectFailed = true;
        logf(log, true, "Invalid host name [%s]", hostIn.getString());
        return false;
    }
    if (port <= 0 || port > 65535) {
        sp.m_connectFailed = true;
        logf(log, true, "Invalid port number %d", port);
        return false;
    }
    return true;
}

bool Socket2::socket2Connect(const StringBuffer& hostIn, int port, bool tls, _clsTls& tlsSettings,
                             unsigned int timeoutMs, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "socket2Connect");
    if (m_ssh) return sshConnectChannel(hostIn, port, tls, tlsSettings, timeoutMs, sp, log);
    if (m_fd >= 0) {
        if (log.m_verboseLogging) log.logInfo("Closing the previous connection first");
        dropConnection();
    }
    char host[256];
    if (!beginConnect(hostIn, port, tlsSettings, host, sizeof host, sp, log)) return false;
    if (log.m_verboseLogging) {
        log.logData("hostname", host);
        log.LogDataLong("port", port);
        log.LogDataLong("tls", tls ? 1 : 0);
    }

    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    hints.ai_flags = AI_NUMERICSERV;
    char portText[12];
    std::snprintf(portText, sizeof portText, "%d", port);
    addrinfo* found = nullptr;
    const int rc = ::getaddrinfo(host, portText, &hints, &found);
    if (rc != 0) {
        char buf[128];
        sp.m_connectFailed = true;
        logf(log, true, "Failed to resolve host name %s: %s", host,
             rc == EAI_SYSTEM ? errnoText(errno, buf, sizeof buf) : gai_strerror(rc));
        return false;
    }

    const unsigned limit = effectiveTimeout(timeoutMs);
    Attempt last = Attempt::Failed;
    int lastErr = 0;
    char lastDesc[80] = "";
    int attempts = 0;
    for (const addrinfo* ai = found; ai; ai = ai->ai_next) {
        if (attempts > 0 && !sp.m_tryAllAddresses) break;
        if (attempts > 0) {
            // The previous attempt failed: say why, as this is not the end.
            char buf[128];
            logf(log, false, "Could not connect to %s (%s); trying the next address", lastDesc,
                 last == Attempt::TimedOut ? "timed out" : errnoText(lastErr, buf, sizeof buf));
        }
        ++attempts;
        describeAddress(ai->ai_addr, lastDesc, sizeof lastDesc);
        if (log.m_verboseLogging) log.logData("connectingTo", lastDesc);
        last = connectOne(ai, limit, tlsSettings, sp, log, lastErr);
        if (last == Attempt::Connected || last == Attempt::Aborted) break;
    }
    ::freeaddrinfo(found);

    if (last != Attempt::Connected) {
        sp.m_connectFailed = true;
        char buf[128];
        if (last == Attempt::TimedOut) {
            sp.m_timedOut = true;
            logf(log, true, "Timed out connecting to %s (%u ms)", lastDesc, limit);
        } else if (last == Attempt::Aborted) {
            sp.m_aborted = true;
            logf(log, true, "Connect to %s aborted by the application", lastDesc);
        } else if (lastErr == ECONNREFUSED) {
            logf(log, true, "Connection refused by %s", lastDesc);
        } else {
            logf(log, true, "Failed to connect to %s: %s", lastDesc, errnoText(lastErr, buf, sizeof buf));
        }
        return false;
    }
    std::snprintf(m_remote, sizeof m_remote, "%s", lastDesc);
    if (log.m_verboseLogging) log.logData("connectedTo", m_remote);

    if (tls && !tlsHandshake(host, tlsSettings, timeoutMs, sp, log)) {
        dropConnection();
        return false;
    }
    return true;
}

bool Socket2::convertToTls(const StringBuffer& hostIn, _clsTls& tls, unsigned int timeoutMs, SocketParams& sp,
                           LogBase& log) {
    LogContextExitor ctx(log, "convertToTls");
    if (!usable(true, sp, log)) return false;
    if (m_chan->isTls()) {
        sp.m_otherError = true;
        log.logError("The connection already uses TLS");
        return false;
    }
    if (!m_rum.empty()) {
        sp.m_tlsFailure = true;
        logf(log, true,
             "Refusing the TLS upgrade: %u bytes arrived from the server after its go-ahead and before "
             "the handshake",
             m_rum.size());
        dropConnection();
        return false;
    }
    char host[256];
    if (!bareHost(hostIn, host, sizeof host)) {
        sp.m_tlsFailure = true;
        logf(log, true, "Invalid host name for TLS [%s]", hostIn.getString());
        dropConnection();
        return false;
    }
    clearServerCertInfo();
    if (!tlsHandshake(host, tls, timeoutMs, sp, log)) {
        dropConnection();
        return false;
    }
    return true;
}

bool Socket2::tlsHandshake(const char* host, _clsTls& tls, unsigned timeoutMs, SocketParams& sp, LogBase& log) {
    TlsVersion minVersion;
    if (!tls.getEffectiveMinVersion(minVersion)) {
        sp.m_tlsFailure = true;
        logf(log, true, "Unrecognized SSL protocol setting [%s]", tls.m_sslProtocol.getString());
        return false;
    }
    char err[320];
    // Through a tunnel the records travel in the SSH channel, not on the
    // descriptor.
    net::TlsChannel* ch =
        net::TlsChannel::create(m_fd, tls, minVersion, host, sp.m_sendSni, err, sizeof err, m_sshChan);
    if (!ch) {
        sp.m_tlsFailure = true;
        logf(log, true, "TLS setup failed: %s", err);
        return false;
    }

    Timer timer(effectiveTimeout(timeoutMs));
    for (;;) {
        const net::Io io = ch->handshakeStep();
        if (io == net::Io::Ok) break;
        if (io == net::Io::WantRead || io == net::Io::WantWrite) {
            const Wait w = waitFor(m_fd, ch->waitEvents(io), timer, sp, log);
            if (w == Wait::Ready) continue;
            sp.m_tlsFailure = true;
            if (w == Wait::TimedOut) {
                sp.m_timedOut = true;
                logf(log, true, "TLS handshake with %s timed out (%u ms)", m_remote, timer.limit());
            } else if (w == Wait::Aborted) {
                sp.m_aborted = true;
                logf(log, true, "TLS handshake with %s aborted by the application", m_remote);
            } else {
                char buf[128];
                logf(log, true, "TLS handshake failed: waiting on the socket: %s",
                     errnoText(m_waitErrno, buf, sizeof buf));
            }
            delete ch;
            return false;
        }
        sp.m_tlsFailure = true;
        if (io == net::Io::Eof || !ch->errorIsTls()) sp.m_connLost = true;
        logf(log, true, "TLS handshake failed: %s (%s)", ch->errorText(), m_remote);
        delete ch;
        return false;
    }

    SSL* ssl = ch->ssl();
    const X509* leaf = SSL_get0_peer_certificate(ssl);
    const long verify = SSL_get_verify_result(ssl);
    m_serverVerified = leaf != nullptr && verify == X509_V_OK;
    if (!m_serverVerified)
        std::snprintf(m_verifyError, sizeof m_verifyError, "%s",
                      leaf ? X509_verify_cert_error_string(verify) : "the server sent no certificate");
    if (STACK_OF(X509)* chain = SSL_get_peer_cert_chain(ssl)) {
        for (int i = 0; i < sk_X509_num(chain); ++i) {
            unsigned char* der = nullptr;
            const int len = i2d_X509(sk_X509_value(chain, i), &der);
            if (len > 0) m_serverCerts.addCertDer(der, static_cast<unsigned>(len));
            OPENSSL_free(der);
        }
    }
    if (log.m_verboseLogging) {
        log.logData("serverCertVerified", m_serverVerified ? "yes" : "no");
        if (!m_serverVerified) log.logData("serverCertVerifyError", m_verifyError);
        log.LogDataLong("serverCertChainLength", m_serverCerts.getNumCerts());
    }
    if (tls.m_requireVerifiedServer && !m_serverVerified) {
        sp.m_tlsFailure = true;
        logf(log, true, "TLS server certificate not verified: %s (host %s)", m_verifyError, host);
        delete ch;
        return false;
    }
    if (m_chan != m_sshChan) delete m_chan;
    m_chan = ch;
    if (log.m_verboseLogging) logConnectionType(log);
    return true;
}

bool Socket2::getRemoteServerCerts(SystemCerts* certs, LogBase* log) {
    if (!certs) return false;
    if (m_serverCerts.isEmpty()) {
        if (log) log->logError("No server certificates: the last connection did not use TLS");
        return false;
    }
    try {
        *certs = m_serverCerts;
    } catch (const std::bad_alloc&) {
        if (log) log->logError("Out of memory copying the server certificates");
        return false;
    }
    return true;
}

// --- options and diagnostics ---

void Socket2::setTcpNoDelay(bool on, LogBase& log) {
    m_optNoDelay = on ? 1 : 0;
    if (m_fd >= 0 && !setIntOption(m_fd, IPPROTO_TCP, TCP_NODELAY, m_optNoDelay))
        log.logError("Failed to set TCP_NODELAY");
}

void Socket2::SetKeepAlive(bool on, LogBase& log) {
    m_optKeepAlive = on ? 1 : 0;
    if (m_fd >= 0 && !setIntOption(m_fd, SOL_SOCKET, SO_KEEPALIVE, m_optKeepAlive))
        log.logError("Failed to set SO_KEEPALIVE");
}

void Socket2::setSoSndBuf(int n, LogBase& log) {
    m_optSndBuf = n > 0 ? n : 0;
    if (m_fd >= 0 && n > 0 && !setIntOption(m_fd, SOL_SOCKET, SO_SNDBUF, n)) log.logError("Failed to set SO_SNDBUF");
}

void Socket2::setSoRcvBuf(int n, LogBase& log) {
    m_optRcvBuf = n > 0 ? n : 0;
    if (m_fd >= 0 && n > 0 && !setIntOption(m_fd, SOL_SOCKET, SO_RCVBUF, n)) log.logError("Failed to set SO_RCVBUF");
}

void Socket2::setBulkSendBehavior(bool bulk, bool cork) {
    m_bulkSend = bulk;
    m_corkSend = cork;
}

void Socket2::logSocketOptions(LogBase& log) {
    LogContextExitor ctx(log, "socketOptions");
    if (m_fd < 0) {
        log.logInfo("Not connected");
        return;
    }
    struct Opt {
        const char* name;
        int level;
        int opt;
    };
    static const Opt opts[] = {{"SO_SNDBUF", SOL_SOCKET, SO_SNDBUF},
                               {"SO_RCVBUF", SOL_SOCKET, SO_RCVBUF},
                               {"TCP_NODELAY", IPPROTO_TCP, TCP_NODELAY},
                               {"SO_KEEPALIVE", SOL_SOCKET, SO_KEEPALIVE}};
    for (const Opt& o : opts) {
        int value = 0;
        socklen_t len = sizeof value;
        if (::getsockopt(m_fd, o.level, o.opt, &value, &len) == 0)
            log.LogDataLong(o.name, value);
        else
            log.logData(o.name, "(unknown)");
    }
}

void Socket2::logConnectionType(LogBase& log) {
    if (m_fd < 0 || !m_chan) {
        log.logData("connectionType", "none");
        return;
    }
    if (!m_chan->isTls()) {
        log.logData("connectionType", m_sshChan ? "SSH channel" : "TCP");
        return;
    }
    SSL* ssl = static_cast<net::TlsChannel*>(m_chan)->ssl();
    // "TLSv1.3" reads better in a log as "TLS 1.3".
    const char* version = SSL_get_version(ssl);
    char text[160];
    if (std::strncmp(version, "TLSv", 4) == 0)
        std::snprintf(text, sizeof text, "TLS %s %s%s", version + 4, SSL_CIPHER_get_name(SSL_get_current_cipher(ssl)),
                      m_sshChan ? " over SSH channel" : "");
    else
        std::snprintf(text, sizeof text, "%s %s%s", version, SSL_CIPHER_get_name(SSL_get_current_cipher(ssl)),
                      m_sshChan ? " over SSH channel" : "");
    log.logData("connectionType", text);
}

// --- sending ---

bool Socket2::sendAll(const unsigned char* data, unsigned n, Timer& timer, SocketParams& sp, LogBase& log) {
    unsigned done = 0;
    while (done < n) {
        unsigned sent = 0;
        const net::Io io = m_chan->writeSome(data + done, n - done, sent);
        if (io == net::Io::Ok) {
            done += sent;
            timer.restart();
            continue;
        }
        if (io == net::Io::WantRead || io == net::Io::WantWrite) {
            const Wait w = waitFor(m_fd, m_chan->waitEvents(io), timer, sp, log);
            if (w == Wait::Ready) continue;
            waitFailed(w, "send on", timer, false, sp, log);
            return false;
        }
        streamFailed(static_cast<int>(io), "sending", sp, log);
        return false;
    }
    return true;
}

bool Socket2::s2_sendFewBytes(const unsigned char* data, unsigned int n, unsigned int timeoutMs, LogBase& log,
                              SocketParams& sp) {
    if (!usable(false, sp, log)) return false;
    if (n == 0) return true;
    if (!data) {
        sp.m_otherError = true;
        log.logError("Nothing to send (null data)");
        return false;
    }
    Timer timer(effectiveTimeout(timeoutMs));
    return sendAll(data, n, timer, sp, log);
}

bool Socket2::s2_sendManyBytes(const unsigned char* data, unsigned int n, unsigned int chunkSize,
                               unsigned int timeoutMs, LogBase& log, SocketParams& sp) {
    if (!usable(false, sp, log)) return false;
    if (n == 0) return true;
    if (!data) {
        sp.m_otherError = true;
        log.logError("Nothing to send (null data)");
        return false;
    }
    unsigned chunk = chunkSize ? chunkSize : kDefaultSendChunk;
    if (m_bulkSend && chunk < kBulkSendChunk) chunk = kBulkSendChunk;
#ifdef TCP_CORK
    const bool corked = m_corkSend && setIntOption(m_fd, IPPROTO_TCP, TCP_CORK, 1);
#endif
    Timer timer(effectiveTimeout(timeoutMs));
    bool ok = true;
    for (unsigned off = 0; ok && off < n;) {
        const unsigned len = n - off < chunk ? n - off : chunk;
        ok = sendAll(data + off, len, timer, sp, log);
        off += len;
    }
#ifdef TCP_CORK
    // Uncorking pushes out the last partial segment at once.
    if (corked && m_fd >= 0) setIntOption(m_fd, IPPROTO_TCP, TCP_CORK, 0);
#endif
    return ok;
}

// --- receiving ---

void Socket2::consumeReadAhead(unsigned n) {
    m_rum.consume(n);
    m_rumScanned = m_rumScanned > n ? m_rumScanned - n : 0;
}

bool Socket2::readSome(unsigned char* buf, unsigned n, unsigned& got, Timer& timer, SocketParams& sp,
                       LogBase& log) {
    for (;;) {
        const net::Io io = m_chan->readSome(buf, n, got);
        if (io == net::Io::Ok) {
            timer.restart();
            return true;
        }
        if (io == net::Io::WantRead || io == net::Io::WantWrite) {
            const Wait w = waitFor(m_fd, m_chan->waitEvents(io), timer, sp, log);
            if (w == Wait::Ready) continue;
            waitFailed(w, "read from", timer, true, sp, log);
            return false;
        }
        streamFailed(static_cast<int>(io), "reading", sp, log);
        return false;
    }
}

bool Socket2::fillReadAhead(Timer& timer, SocketParams& sp, LogBase& log) {
    unsigned granted = 0;
    unsigned char* room = m_rum.tailRoom(kReadChunk, granted);
    if (!room) {
        sp.m_otherError = true;
        log.logError("Out of memory for the read-ahead buffer");
        return false;
    }
    unsigned got = 0;
    if (!readSome(room, granted, got, timer, sp, log)) return false;
    m_rum.commit(got);
    return true;
}

// One read without waiting: 1 = bytes buffered, 0 = nothing there yet,
// -1 = end of stream or error (flags set and logged).
int Socket2::readAheadNow(SocketParams& sp, LogBase& log) {
    unsigned granted = 0;
    unsigned char* room = m_rum.tailRoom(kReadChunk, granted);
    if (!room) {
        sp.m_otherError = true;
        log.logError("Out of memory for the read-ahead buffer");
        return -1;
    }
    unsigned got = 0;
    const net::Io io = m_chan->readSome(room, granted, got);
    if (io == net::Io::Ok) {
        m_rum.commit(got);
        return 1;
    }
    if (io == net::Io::WantRead || io == net::Io::WantWrite) return 0;
    streamFailed(static_cast<int>(io), "checking for data", sp, log);
    return -1;
}

void Socket2::lineTooLong(uint64_t lineBytes, SocketParams& sp, LogBase& log) {
    sp.m_otherError = true;
    logf(log, true,
         "Line from the server exceeds the buffer limit of %llu bytes (%llu bytes and no end yet); "
         "the connection cannot continue",
         static_cast<unsigned long long>(BufferLimits::getMaxBytes()), static_cast<unsigned long long>(lineBytes));
    // The rest of the line will still arrive and would be taken for new
    // lines: nothing on this stream can be trusted any more.
    m_rum.clear();
    m_rumScanned = 0;
    m_broken = true;
}

bool Socket2::receiveUntilMatchSb(const char* match, StringBuffer& out, unsigned int timeoutMs, SocketParams& sp,
                                  LogBase& log) {
    const size_t mlen = match ? std::strlen(match) : 0;
    if (mlen == 0) {
        sp.m_otherError = true;
        log.logError("receiveUntilMatchSb: empty match string");
        return false;
    }
    // What was searched before only counts for the same match string.
    if (mlen >= sizeof m_scanMatch || std::strcmp(m_scanMatch, match) != 0) {
        m_rumScanned = 0;
        if (mlen < sizeof m_scanMatch)
            std::memcpy(m_scanMatch, match, mlen + 1);
        else
            m_scanMatch[0] = 0;
    }
    Timer timer(effectiveTimeout(timeoutMs));
    for (;;) {
        const unsigned avail = m_rum.size();
        // A match may straddle the end of what was searched last time.
        const unsigned from = m_rumScanned > mlen - 1 ? m_rumScanned - static_cast<unsigned>(mlen - 1) : 0;
        const long hit = findMatch(m_rum.data(), avail, from, match, mlen);
        if (hit >= 0) {
            const unsigned lineLen = static_cast<unsigned>(hit) + static_cast<unsigned>(mlen);
            if (!BufferLimits::fits(out.getSize(), lineLen)) {
                lineTooLong(lineLen, sp, log);
                return false;
            }
            if (!out.appendN(reinterpret_cast<const char*>(m_rum.data()), lineLen)) {
                sp.m_otherError = true;
                log.logError("Out of memory receiving a line");
                return false;
            }
            consumeReadAhead(lineLen);
            m_rumScanned = 0;
            return true;
        }
        m_rumScanned = avail;
        if (!BufferLimits::fits(out.getSize(), uint64_t(avail) + 1)) {
            lineTooLong(avail, sp, log);
            return false;
        }
        if (!usable(true, sp, log)) return false;
        if (!fillReadAhead(timer, sp, log)) return false;
    }
}

bool Socket2::receiveBytes2a(DataBuffer& out, unsigned int maxBytes, unsigned int timeoutMs, SocketParams& sp,
                             LogBase& log) {
    if (maxBytes == 0) {
        sp.m_otherError = true;
        log.logError("receiveBytes2a: maxBytes is 0");
        return false;
    }
    if (!m_rum.empty()) {
        const unsigned n = m_rum.size() < maxBytes ? m_rum.size() : maxBytes;
        if (!out.append(m_rum.data(), n)) {
            sp.m_otherError = true;
            log.logError("Receive buffer cannot grow (buffer limit or out of memory)");
            return false;
        }
        consumeReadAhead(n);
        return true;
    }
    if (!usable(true, sp, log)) return false;

    unsigned want = maxBytes < kDirectReadMax ? maxBytes : kDirectReadMax;
    const uint64_t max = BufferLimits::getMaxBytes();
    const uint64_t room = max > out.getSize() ? max - out.getSize() : 0;
    if (room < want) want = static_cast<unsigned>(room);
    unsigned char* dst = want ? out.appendSpace(want) : nullptr;
    if (!dst) {
        sp.m_otherError = true;
        logf(log, true, "Receive buffer cannot grow past %u bytes (buffer limit or out of memory)", out.getSize());
        return false;
    }
    Timer timer(effectiveTimeout(timeoutMs));
    unsigned got = 0;
    if (!readSome(dst, want, got, timer, sp, log)) return false;
    out.commitAppend(got);
    return true;
}

bool Socket2::takeRumBuffered(DataBuffer& out) {
    if (m_rum.empty()) return true;
    if (!out.append(m_rum.data(), m_rum.size())) return false;
    m_rum.consume(m_rum.size());
    m_rumScanned = 0;
    return true;
}

bool Socket2::addRumBuffered(const unsigned char* data, unsigned int n) {
    if (!m_rum.prepend(data, n)) return false;
    m_rumScanned = 0;
    return true;
}

bool Socket2::pollDataAvailable(SocketParams& sp, LogBase& log) {
    if (!m_rum.empty()) return true;
    if (!usable(true, sp, log)) return false;
    return readAheadNow(sp, log) > 0;
}

// --- closing and state ---

void Socket2::dropConnection() {
    LogNull quiet;
    sockClose(true, false, 0, quiet, nullptr, true);
}

void Socket2::sendCloseNotify(unsigned timeoutMs, ProgressMonitor* pm, LogBase& log, bool bQuiet) {
    if (!m_chan || !m_chan->isTls() || m_broken) return;
    net::TlsChannel* tlsChan = static_cast<net::TlsChannel*>(m_chan);
    const unsigned limit = timeoutMs < kCloseWaitCapMs ? timeoutMs : kCloseWaitCapMs;
    Timer timer(limit);
    SocketParams sp(pm);
    LogNull quiet;
    for (;;) {
        const net::Io io = tlsChan->shutdownStep();
        if (io == net::Io::Ok) {
            if (!bQuiet && log.m_verboseLogging) log.logInfo("Sent TLS close_notify");
            break;
        }
        // Only a full send buffer is worth waiting for; anything else
        // means the peer is gone or the session is done.
        if (io == net::Io::WantWrite && limit > 0 &&
            waitFor(m_fd, m_chan->waitEvents(io), timer, sp, quiet) == Wait::Ready)
            continue;
        if (!bQuiet && log.m_verboseLogging) log.logInfo("Could not send TLS close_notify");
        break;
    }
}

bool Socket2::sockClose(bool bShutdown, bool bGraceful, unsigned int timeoutMs, LogBase& log, ProgressMonitor* pm,
                        bool bQuiet) {
    m_rum.clear();
    m_rumScanned = 0;
    if (m_sshChan) {
        // Only the channel: the tunnel stays for the next connect, whatever
        // the flags (sshCloseTunnel ends it).
        SocketParams sp(pm);
        const unsigned limit = timeoutMs < kCloseWaitCapMs ? timeoutMs : kCloseWaitCapMs;
        closeSshChannel(false, bGraceful ? limit : 0, sp, log, bQuiet);
        return true;
    }
    if (m_fd < 0) {
        delete m_chan;
        m_chan = nullptr;
        return true;
    }
    if (bGraceful) sendCloseNotify(timeoutMs, pm, log, bQuiet);
    if (bShutdown) ::shutdown(m_fd, SHUT_RDWR);
    delete m_chan;
    m_chan = nullptr;
    // Not retried on EINTR: on Linux the descriptor is gone either way.
    ::close(m_fd);
    m_fd = -1;
    m_peerClosed = false;
    m_broken = false;
    if (!bQuiet && log.m_verboseLogging) logf(log, false, "Closed the connection to %s", m_remote);
    return true;
}

bool Socket2::isSock2Connected(bool checkPeer, LogBase& log) {
    if (m_fd < 0 || !m_chan || m_broken || m_peerClosed) return false;
    if (m_sshChan && !m_ssh->isConnected()) return false;
    if (checkPeer && m_rum.empty()) {
        SocketParams sp(nullptr);
        LogNull quiet;
        if (readAheadNow(sp, quiet) < 0) {
            if (log.m_verboseLogging) log.logInfo("The connection is no longer open");
            return false;
        }
    }
    return true;
}

}  // namespace zr
