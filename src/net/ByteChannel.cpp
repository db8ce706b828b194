#include "ByteChannel.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

namespace zr {
namespace net {

ByteChannel::~ByteChannel() = default;

void ByteChannel::setError(const char* text, bool tls) {
    std::snprintf(m_errorText, sizeof m_errorText, "%s", text ? text : "");
    m_errorIsTls = tls;
    m_errno = 0;
}

void ByteChannel::setSystemError(const char* what, int err) {
    char buf[160];
    // The GNU strerror_r may return a static string instead of filling buf.
    const char* text = strerror_r(err, buf, sizeof buf);
    if (what && *what)
        std::snprintf(m_errorText, sizeof m_errorText, "%s: %s", what, text);
    else
        std::snprintf(m_errorText, sizeof m_errorText, "%s", text);
    m_errorIsTls = false;
    m_errno = err;
}

// --- plain TCP ---

Io TcpChannel::readSome(unsigned char* buf, unsigned n, unsigned& got) {
    got = 0;
    for (;;) {
        const ssize_t r = ::recv(m_fd, buf, n, 0);
        if (r > 0) {
            got = static_cast<unsigned>(r);
            return Io::Ok;
        }
        if (r == 0) {
            setError("connection closed by peer", false);
            return Io::Eof;
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) return Io::WantRead;
        setSystemError(nullptr, errno);
        return Io::Error;
    }
}

Io TcpChannel::writeSome(const unsigned char* buf, unsigned n, unsigned& sent) {
    sent = 0;
    for (;;) {
        const ssize_t r = ::send(m_fd, buf, n, MSG_NOSIGNAL);
        if (r > 0) {
            sent = static_cast<unsigned>(r);
            return Io::Ok;
        }
        if (r == 0) return Io::WantWrite;
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) return Io::WantWrite;
        setSystemError(nullptr, errno);
        return Io::Error;
    }
}

// --- the BIO under the TLS session ---

namespace {

TlsChannel* channelOf(BIO* b) { return static_cast<TlsChannel*>(BIO_get_data(b)); }

// For a session over another channel: one call to it, with its answer
// turned into BIO terms.
int lowerIo(BIO* b, TlsChannel* ch, bool writing, char* data, size_t n, size_t* moved) {
    ByteChannel* low = ch->lower();
    const unsigned want = n > 0x40000000u ? 0x40000000u : static_cast<unsigned>(n);
    unsigned done = 0;
    const Io io = writing ? low->writeSome(reinterpret_cast<const unsigned char*>(data), want, done)
                          : low->readSome(reinterpret_cast<unsigned char*>(data), want, done);
    switch (io) {
    case Io::Ok:
        *moved = done;
        return 1;
    case Io::WantRead:
    case Io::WantWrite:
        ch->noteLowerWait(io);
        if (writing)
            BIO_set_retry_write(b);
        else
            BIO_set_retry_read(b);
        return 0;
    case Io::Eof:
        if (writing)
            ch->noteLowerFailure(low->errorText(), EPIPE);
        else
            ch->noteEof();
        return 0;
    case Io::Error:
        ch->noteLowerFailure(low->errorText(), low->lastErrno());
        return 0;
    }
    return 0;
}

int bioWriteEx(BIO* b, const char* data, size_t n, size_t* written) {
    *written = 0;
    BIO_clear_retry_flags(b);
    TlsChannel* ch = channelOf(b);
    if (!ch) return 0;
    if (ch->lower()) return lowerIo(b, ch, true, const_cast<char*>(data), n, written);
    for (;;) {
        const ssize_t r = ::send(ch->fd(), data, n, MSG_NOSIGNAL);
        if (r >= 0) {
            *written = static_cast<size_t>(r);
            return 1;
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            BIO_set_retry_write(b);
            return 0;
        }
        ch->noteSystemError(errno);
        return 0;
    }
}

int bioReadEx(BIO* b, char* data, size_t n, size_t* got) {
    *got = 0;
    BIO_clear_retry_flags(b);
    TlsChannel* ch = channelOf(b);
    if (!ch) return 0;
    if (ch->lower()) return lowerIo(b, ch, false, data, n, got);
    for (;;) {
        const ssize_t r = ::recv(ch->fd(), data, n, 0);
        if (r > 0) {
            *got = static_cast<size_t>(r);
            return 1;
        }
        if (r == 0) {
            // Reported through BIO_CTRL_EOF, which is how OpenSSL tells a
            // truncated stream from a failing read.
            ch->noteEof();
            return 0;
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            BIO_set_retry_read(b);
            return 0;
        }
        ch->noteSystemError(errno);
        return 0;
    }
}

long bioCtrl(BIO* b, int cmd, long, void*) {
    switch (cmd) {
    case BIO_CTRL_FLUSH:
        return 1;  // nothing is held back here
    case BIO_CTRL_EOF: {
        TlsChannel* ch = channelOf(b);
        return ch && ch->bioEof() ? 1 : 0;
    }
    default:
        return 0;
    }
}

int bioCreate(BIO* b) {
    BIO_set_init(b, 1);
    return 1;
}

int bioDestroy(BIO* b) {
    BIO_set_data(b, nullptr);
    BIO_set_init(b, 0);
    return 1;
}

int toOpenSslVersion(TlsVersion v) {
    switch (v) {
    case TlsVersion::Tls1_0: return TLS1_VERSION;
    case TlsVersion::Tls1_1: return TLS1_1_VERSION;
    case TlsVersion::Tls1_2: return TLS1_2_VERSION;
    case TlsVersion::Tls1_3: return TLS1_3_VERSION;
    }
    return TLS1_2_VERSION;
}

// Appends the reasons queued by OpenSSL, oldest first, and empties the
// queue. Sets sawEof when one of them is a truncated stream.
void drainErrorQueue(char* out, size_t outSize, bool& sawEof) {
    sawEof = false;
    size_t used = std::strlen(out);
    unsigned long code;
    while ((code = ERR_get_error()) != 0) {
        if (ERR_GET_LIB(code) == ERR_LIB_SSL && ERR_GET_REASON(code) == SSL_R_UNEXPECTED_EOF_WHILE_READING)
            sawEof = true;
        char one[200];
        const char* reason = ERR_reason_error_string(code);
        if (reason)
            std::snprintf(one, sizeof one, "%s", reason);
        else
            ERR_error_string_n(code, one, sizeof one);
        if (used + 3 >= outSize) continue;  // keep draining, stop appending
        const int n = std::snprintf(out + used, outSize - used, "%s%s", used ? "; " : "", one);
        if (n > 0) used += static_cast<size_t>(n);
        if (used >= outSize) used = outSize - 1;
    }
}

bool isIpLiteral(const char* host) {
    unsigned char addr[16];
    return inet_pton(AF_INET, host, addr) == 1 || inet_pton(AF_INET6, host, addr) == 1;
}

}  // namespace

TlsChannel* TlsChannel::create(int fd, const _clsTls& settings, TlsVersion minVersion, const char* host,
                               bool sni, char* errText, unsigned errTextSize, ByteChannel* lower) {
    auto fail = [&](TlsChannel* ch, const char* what) -> TlsChannel* {
        char queue[200] = {0};
        bool eof = false;
        drainErrorQueue(queue, sizeof queue, eof);
        std::snprintf(errText, errTextSize, "%s%s%s", what, *queue ? ": " : "", queue);
        delete ch;
        return nullptr;
    };
    ERR_clear_error();
    TlsChannel* ch = new (std::nothrow) TlsChannel(fd);
    if (!ch) return fail(nullptr, "out of memory");
    ch->m_lower = lower;

    ch->m_ctx = SSL_CTX_new(TLS_client_method());
    if (!ch->m_ctx) return fail(ch, "cannot create a TLS context");
    if (SSL_CTX_set_min_proto_version(ch->m_ctx, toOpenSslVersion(minVersion)) != 1)
        return fail(ch, "cannot set the minimum TLS version");
    if (!settings.m_caFile.isEmpty()) {
        if (SSL_CTX_load_verify_locations(ch->m_ctx, settings.m_caFile.getString(), nullptr) != 1) {
            char what[300];
            std::snprintf(what, sizeof what, "cannot load the CA file %s", settings.m_caFile.getString());
            return fail(ch, what);
        }
    } else if (SSL_CTX_set_default_verify_paths(ch->m_ctx) != 1) {
        // Without a store nothing verifies, which is recorded per connection;
        // it is no reason to refuse the connection itself.
        ERR_clear_error();
    }
    // OpenSSL still verifies the chain and the host and keeps the result for
    // SSL_get_verify_result; whether a failure is fatal is decided after the
    // handshake, where the reason can be reported in plain words.
    SSL_CTX_set_verify(ch->m_ctx, SSL_VERIFY_NONE, nullptr);
    SSL_CTX_set_mode(ch->m_ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);

    ch->m_ssl = SSL_new(ch->m_ctx);
    if (!ch->m_ssl) return fail(ch, "cannot create a TLS session");
    if (isIpLiteral(host)) {
        if (X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ch->m_ssl), host) != 1)
            return fail(ch, "cannot set the IP address to verify");
    } else {
        SSL_set_hostflags(ch->m_ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        if (SSL_set1_host(ch->m_ssl, host) != 1) return fail(ch, "cannot set the host name to verify");
        if (sni && SSL_set_tlsext_host_name(ch->m_ssl, host) != 1)
            return fail(ch, "cannot set the server name indication");
    }

    ch->m_bioMethod = BIO_meth_new(BIO_TYPE_SOURCE_SINK, "zrimap socket");
    if (!ch->m_bioMethod || BIO_meth_set_write_ex(ch->m_bioMethod, bioWriteEx) != 1 ||
        BIO_meth_set_read_ex(ch->m_bioMethod, bioReadEx) != 1 || BIO_meth_set_ctrl(ch->m_bioMethod, bioCtrl) != 1 ||
        BIO_meth_set_create(ch->m_bioMethod, bioCreate) != 1 ||
        BIO_meth_set_destroy(ch->m_bioMethod, bioDestroy) != 1)
        return fail(ch, "cannot create the socket BIO");
    BIO* bio = BIO_new(ch->m_bioMethod);
    if (!bio) return fail(ch, "cannot create the socket BIO");
    BIO_set_data(bio, ch);
    SSL_set_bio(ch->m_ssl, bio, bio);  // the session owns the BIO from here
    SSL_set_connect_state(ch->m_ssl);
    return ch;
}

TlsChannel::~TlsChannel() {
    if (m_ssl) SSL_free(m_ssl);  // frees the BIO, which uses the method
    if (m_ctx) SSL_CTX_free(m_ctx);
    if (m_bioMethod) BIO_meth_free(m_bioMethod);
}

void TlsChannel::beginCall() {
    // SSL_get_error reads the thread's error queue, so stale entries from
    // an unrelated call must not be there.
    ERR_clear_error();
    m_sysErrno = 0;
    m_lowerFailed = false;
}

void TlsChannel::noteLowerFailure(const char* text, int err) {
    m_lowerFailed = true;
    m_lowerErrno = err;
    std::snprintf(m_lowerError, sizeof m_lowerError, "%s", text ? text : "");
}

short TlsChannel::waitEvents(Io io) const {
    // What the channel underneath was blocked on, not what TLS wants next.
    return m_lower ? m_lower->waitEvents(m_lowerWait) : ByteChannel::waitEvents(io);
}

Io TlsChannel::classify(int ret, const char* during) {
    const int e = SSL_get_error(m_ssl, ret);
    switch (e) {
    case SSL_ERROR_WANT_READ:
        return Io::WantRead;
    case SSL_ERROR_WANT_WRITE:
        return Io::WantWrite;
    case SSL_ERROR_ZERO_RETURN:
        setError("the server closed the TLS session", true);
        return Io::Eof;
    default:
        break;
    }
    m_fatal = true;
    char queue[200] = {0};
    bool sawEof = false;
    drainErrorQueue(queue, sizeof queue, sawEof);
    if (m_lowerFailed) {
        setError(m_lowerError, false);
        m_errno = m_lowerErrno;
        return Io::Error;
    }
    if (m_sysErrno != 0) {
        setSystemError(nullptr, m_sysErrno);
        return Io::Error;
    }
    if (sawEof || (e == SSL_ERROR_SYSCALL && *queue == 0)) {
        m_fatalWasEof = true;
        setError("connection closed by peer", false);
        return Io::Eof;
    }
    if (*queue == 0) std::snprintf(queue, sizeof queue, "unknown TLS error %d during %s", e, during);
    setError(queue, true);
    return Io::Error;
}

// OpenSSL must not be called again after a fatal error; later calls get
// the same kind of answer as the one that ended the session.
Io TlsChannel::failedEarlier() {
    if (m_fatalWasEof) {
        setError("connection closed by peer", false);
        return Io::Eof;
    }
    setError("the TLS session already failed", true);
    return Io::Error;
}

Io TlsChannel::handshakeStep() {
    beginCall();
    const int r = SSL_connect(m_ssl);
    return r == 1 ? Io::Ok : classify(r, "the handshake");
}

Io TlsChannel::shutdownStep() {
    if (m_fatal) return failedEarlier();
    beginCall();
    const int r = SSL_shutdown(m_ssl);
    return r >= 0 ? Io::Ok : classify(r, "the shutdown");
}

Io TlsChannel::readSome(unsigned char* buf, unsigned n, unsigned& got) {
    got = 0;
    if (m_fatal) return failedEarlier();
    beginCall();
    size_t k = 0;
    if (SSL_read_ex(m_ssl, buf, n, &k) == 1 && k > 0) {
        got = static_cast<unsigned>(k);
        return Io::Ok;
    }
    return classify(0, "a read");
}

Io TlsChannel::writeSome(const unsigned char* buf, unsigned n, unsigned& sent) {
    sent = 0;
    if (m_fatal) return failedEarlier();
    beginCall();
    size_t k = 0;
    if (SSL_write_ex(m_ssl, buf, n, &k) == 1 && k > 0) {
        sent = static_cast<unsigned>(k);
        return Io::Ok;
    }
    return classify(0, "a write");
}

}  // namespace net
}  // namespace zr
