// SshTransport: one SSH connection on libssh2, driven without blocking.
//
// libssh2 runs in non-blocking mode; every call that answers EAGAIN is
// repeated after poll() on the descriptor in the direction libssh2 says it
// is blocked on, under a total time limit and the application's abort check
// (drive()). Blocking mode with libssh2_session_set_timeout would give the
// time limit but no way to abort.
//
// The socket I/O goes through callbacks of our own: they add MSG_NOSIGNAL,
// notice the end of the connection the moment it happens, and can cut the
// connection off (m_ioCut) so that libssh2 stops waiting for a server that
// is gone, which is what lets channels and the session always be freed.
#include <arpa/inet.h>
#include <libssh2.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <openssl/sha.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "NetSupport.h"
#include "SshInternal.h"
#include "zrimap/base/DataBuffer.h"
#include "zrimap/base/LogBase.h"
#include "zrimap/base/SocketParams.h"
#include "zrimap/base/XString.h"
#include "zrimap/net/Ssh.h"

namespace zr {

using net::logf;

namespace {

// drive()'s own results, beyond libssh2's error range.
constexpr int kTimedOut = -1001;
constexpr int kAborted = -1002;
constexpr int kWaitFailed = -1003;

// Discarded per round while draining a channel that is being closed.
constexpr unsigned kDrainChunk = 16 * 1024;

void ensureLibssh2() {
    static std::once_flag once;
    // libssh2_init is not thread-safe on its own; every transport comes here.
    std::call_once(once, [] { libssh2_init(0); });
}

bool listHas(const char* list, const char* method) {
    const size_t m = std::strlen(method);
    for (const char* p = list; p && *p;) {
        const char* comma = std::strchr(p, ',');
        const size_t n = comma ? static_cast<size_t>(comma - p) : std::strlen(p);
        if (n == m && std::strncmp(p, method, n) == 0) return true;
        p = comma ? comma + 1 : nullptr;
    }
    return false;
}

const char* hostKeyName(int type) {
    switch (type) {
    case LIBSSH2_HOSTKEY_TYPE_RSA: return "ssh-rsa";
    case LIBSSH2_HOSTKEY_TYPE_DSS: return "ssh-dss";
    case LIBSSH2_HOSTKEY_TYPE_ECDSA_256: return "ecdsa-sha2-nistp256";
    case LIBSSH2_HOSTKEY_TYPE_ECDSA_384: return "ecdsa-sha2-nistp384";
    case LIBSSH2_HOSTKEY_TYPE_ECDSA_521: return "ecdsa-sha2-nistp521";
    case LIBSSH2_HOSTKEY_TYPE_ED25519: return "ssh-ed25519";
    default: return "unknown";
    }
}

// Results after which the connection itself cannot be used any more, as
// opposed to a refusal or a problem of one channel.
bool isConnectionFatal(int rc) {
    switch (rc) {
    case LIBSSH2_ERROR_SOCKET_NONE:
    case LIBSSH2_ERROR_BANNER_RECV:
    case LIBSSH2_ERROR_BANNER_SEND:
    case LIBSSH2_ERROR_INVALID_MAC:
    case LIBSSH2_ERROR_KEX_FAILURE:
    case LIBSSH2_ERROR_SOCKET_SEND:
    case LIBSSH2_ERROR_KEY_EXCHANGE_FAILURE:
    case LIBSSH2_ERROR_HOSTKEY_INIT:
    case LIBSSH2_ERROR_HOSTKEY_SIGN:
    case LIBSSH2_ERROR_DECRYPT:
    case LIBSSH2_ERROR_SOCKET_DISCONNECT:
    case LIBSSH2_ERROR_PROTO:
    case LIBSSH2_ERROR_ZLIB:
    case LIBSSH2_ERROR_SOCKET_TIMEOUT:
    case LIBSSH2_ERROR_COMPRESS:
    case LIBSSH2_ERROR_SOCKET_RECV:
    case LIBSSH2_ERROR_ENCRYPT:
    case LIBSSH2_ERROR_BAD_SOCKET:
        return true;
    default:
        return false;
    }
}

struct SignContext {
    const _zrPublicKey* key;
    const char* alg;
    LogBase* log;
    bool failed;
};

}  // namespace

// ---------------------------------------------------------------------------
// SshReadParams

unsigned SshReadParams::closeTimeoutFor(unsigned readTimeoutMs) {
    if (readTimeoutMs == kNoWaitReadTimeout) return 0;
    if (readTimeoutMs == 0) return kUnlimitedCloseMs;
    return readTimeoutMs;
}

// ---------------------------------------------------------------------------
// libssh2 callbacks

struct SshCallbacks {
    static SshTransport* of(void** abstract) { return abstract ? static_cast<SshTransport*>(*abstract) : nullptr; }

    static LIBSSH2_SEND_FUNC(send) {
        SshTransport* t = of(abstract);
        if (t && t->m_ioCut) return -EPIPE;
        for (;;) {
            const ssize_t r = ::send(socket, buffer, length, flags | MSG_NOSIGNAL);
            if (r >= 0) return r;
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return -EAGAIN;
            const int err = errno;
            if (t) t->noteIoFailure(err, false);
            return -err;
        }
    }

    static LIBSSH2_RECV_FUNC(recv) {
        SshTransport* t = of(abstract);
        if (t && t->m_ioCut) return -ECONNRESET;
        for (;;) {
            const ssize_t r = ::recv(socket, buffer, length, flags);
            if (r > 0) return r;
            if (r == 0) {
                if (t) t->noteIoFailure(0, true);
                return 0;
            }
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) return -EAGAIN;
            const int err = errno;
            if (t) t->noteIoFailure(err, false);
            return -err;
        }
    }

    static LIBSSH2_DISCONNECT_FUNC(disconnect) {
        (void)session;
        (void)language;
        (void)language_len;
        SshTransport* t = of(abstract);
        if (!t) return;
        char why[200];
        std::snprintf(why, sizeof why, "the SSH server disconnected (reason %d: %.*s)", reason,
                      message && message_len > 0 ? (message_len < 150 ? message_len : 150) : 0, message ? message : "");
        t->markLost(why);
    }

    static LIBSSH2_USERAUTH_KBDINT_RESPONSE_FUNC(keyboard) {
        (void)name;
        (void)name_len;
        (void)instruction;
        (void)instruction_len;
        SshTransport* t = of(abstract);
        if (t) ++t->m_kbdPrompts;
        // Only the common case is answered: one hidden prompt asking for the
        // password. Anything else (one-time codes, several questions) gets
        // empty answers and fails, rather than the password being handed
        // to a question it was not meant for.
        const bool answer = t && t->m_kbdPassword && num_prompts == 1 && prompts && !prompts[0].echo;
        for (int i = 0; i < num_prompts; ++i) {
            const char* text = answer ? t->m_kbdPassword->getUtf8() : "";
            const size_t n = std::strlen(text);
            // libssh2 frees the answers with its default allocator, free().
            responses[i].text = static_cast<char*>(std::malloc(n + 1));
            responses[i].length = 0;
            if (responses[i].text) {
                std::memcpy(responses[i].text, text, n + 1);
                responses[i].length = static_cast<unsigned>(n);
            }
        }
    }

    static LIBSSH2_USERAUTH_PUBLICKEY_SIGN_FUNC(sign) {
        (void)session;
        SignContext* ctx = abstract ? static_cast<SignContext*>(*abstract) : nullptr;
        if (!ctx) return -1;
        DataBuffer raw;
        if (!ctx->key->sign(ctx->alg, data, data_len, raw, *ctx->log)) {
            ctx->failed = true;
            return -1;
        }
        // libssh2 frees it with its default allocator, free().
        *sig = static_cast<unsigned char*>(std::malloc(raw.getSize()));
        if (!*sig) return -1;
        std::memcpy(*sig, raw.getData2(), raw.getSize());
        *sig_len = raw.getSize();
        return 0;
    }
};

// ---------------------------------------------------------------------------
// SshTransport

SshTransport* SshTransport::createNew() { return new (std::nothrow) SshTransport(); }

SshTransport::SshTransport() = default;

SshTransport::~SshTransport() {
    LogNull quiet;
    disconnect("", 0, quiet);
}

bool SshTransport::isConnected() const { return m_session != nullptr && !m_lost; }

void SshTransport::markLost(const char* why) {
    if (!m_lost) std::snprintf(m_lostReason, sizeof m_lostReason, "%s", why && *why ? why : "connection lost");
    m_lost = true;
    // From here on libssh2 gets an error for every read and write at once,
    // instead of waiting for a server that will not answer.
    m_ioCut = true;
}

void SshTransport::noteIoFailure(int err, bool eof) {
    if (eof) {
        markLost("the SSH server closed the connection");
        return;
    }
    char buf[128], why[200];
    std::snprintf(why, sizeof why, "the SSH connection failed: %s", strerror_r(err, buf, sizeof buf));
    markLost(why);
}

const char* SshTransport::lastErrorText() const {
    if (!m_session) return m_lostReason;
    char* msg = nullptr;
    libssh2_session_last_error(m_session, &msg, nullptr, 0);
    return msg && *msg ? msg : "no details";
}

bool SshTransport::noteResult(int rc) {
    if (rc >= 0 || rc == LIBSSH2_ERROR_EAGAIN) return false;
    if (!isConnectionFatal(rc)) return m_lost;
    if (!m_lost) {
        char why[200];
        std::snprintf(why, sizeof why, "SSH connection error: %s", lastErrorText());
        markLost(why);
    }
    return true;
}

template <class Op>
int SshTransport::drive(Op op, unsigned timeoutMs, SocketParams& sp, LogBase& log) {
    net::IdleTimer deadline(timeoutMs);
    for (;;) {
        const int rc = op();
        if (rc != LIBSSH2_ERROR_EAGAIN) return rc;
        if (m_lost) return LIBSSH2_ERROR_SOCKET_DISCONNECT;
        const int dir = libssh2_session_block_directions(m_session);
        short events = 0;
        if (dir & LIBSSH2_SESSION_BLOCK_INBOUND) events |= POLLIN;
        if (dir & LIBSSH2_SESSION_BLOCK_OUTBOUND) events |= POLLOUT;
        if (!events) events = POLLIN;
        int err = 0;
        switch (net::waitFd(m_fd, events, deadline, sp.m_progressMonitor, log, err)) {
        case net::Wait::Ready:
            break;
        case net::Wait::TimedOut:
            return kTimedOut;
        case net::Wait::Aborted:
            return kAborted;
        case net::Wait::Failed:
            return kWaitFailed;
        }
    }
}

bool SshTransport::startSession(int fd, const char* remote, unsigned timeoutMs, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "sshHandshake");
    ensureLibssh2();
    if (m_session || m_fd >= 0) {
        ::close(fd);
        sp.m_connectFailed = true;
        log.logError("This SSH connection object is already in use");
        return false;
    }
    m_fd = fd;
    std::snprintf(m_remote, sizeof m_remote, "%s", remote ? remote : "?");
    m_lost = false;
    m_ioCut = false;
    m_lostReason[0] = 0;
    m_session = libssh2_session_init_ex(nullptr, nullptr, nullptr, this);
    if (!m_session) {
        releaseSession();
        sp.m_connectFailed = true;
        log.logError("Cannot create an SSH session (out of memory)");
        return false;
    }
    // The casts are how libssh2 takes callbacks of every kind.
    libssh2_session_callback_set(m_session, LIBSSH2_CALLBACK_SEND, reinterpret_cast<void*>(&SshCallbacks::send));
    libssh2_session_callback_set(m_session, LIBSSH2_CALLBACK_RECV, reinterpret_cast<void*>(&SshCallbacks::recv));
    libssh2_session_callback_set(m_session, LIBSSH2_CALLBACK_DISCONNECT,
                                 reinterpret_cast<void*>(&SshCallbacks::disconnect));
    libssh2_session_set_blocking(m_session, 0);
    // OpenSSH's own order, so that the key negotiated (and its fingerprint)
    // is the one the ssh command would have recorded for this server.
    // libssh2 drops the names it does not know.
    libssh2_session_method_pref(m_session, LIBSSH2_METHOD_HOSTKEY,
                                "ssh-ed25519,ecdsa-sha2-nistp256,ecdsa-sha2-nistp384,ecdsa-sha2-nistp521,ssh-rsa");

    const int rc = drive([&] { return libssh2_session_handshake(m_session, fd); }, timeoutMs, sp, log);
    if (rc != 0) {
        sp.m_connectFailed = true;
        if (rc == kTimedOut) {
            sp.m_timedOut = true;
            logf(log, true, "SSH handshake with %s timed out (%u ms)", m_remote, timeoutMs);
        } else if (rc == kAborted) {
            sp.m_aborted = true;
            logf(log, true, "SSH handshake with %s aborted by the application", m_remote);
        } else if (m_lost) {
            sp.m_connLost = true;
            logf(log, true, "SSH handshake with %s failed: %s (%s)", m_remote, m_lostReason, lastErrorText());
        } else {
            logf(log, true, "SSH handshake with %s failed: %s", m_remote, lastErrorText());
        }
        releaseSession();
        return false;
    }

    size_t keyLen = 0;
    int keyType = 0;
    const char* key = libssh2_session_hostkey(m_session, &keyLen, &keyType);
    std::snprintf(m_hostKeyAlg, sizeof m_hostKeyAlg, "%s", hostKeyName(keyType));
    const char* hash = libssh2_hostkey_hash(m_session, LIBSSH2_HOSTKEY_HASH_SHA256);
    unsigned char digest[32];
    if (hash)
        std::memcpy(digest, hash, sizeof digest);
    else if (key && keyLen)
        SHA256(reinterpret_cast<const unsigned char*>(key), keyLen, digest);
    if ((!hash && !(key && keyLen)) || !net::formatSha256Fingerprint(digest, m_fingerprint)) {
        sp.m_connectFailed = true;
        logf(log, true, "The SSH server %s presented no usable host key", m_remote);
        disconnect("no host key", 0, log);
        return false;
    }
    log.logData("sshHostKey", m_hostKeyAlg);
    log.LogDataSb("sshHostKeyFingerprint", m_fingerprint);
    if (log.m_verboseLogging) {
        log.logData("sshKex", libssh2_session_methods(m_session, LIBSSH2_METHOD_KEX));
        log.logData("sshCipher", libssh2_session_methods(m_session, LIBSSH2_METHOD_CRYPT_CS));
        log.logData("sshMac", libssh2_session_methods(m_session, LIBSSH2_METHOD_MAC_CS));
    }
    return true;
}

bool SshTransport::reportAuthFailure(const char* method, const XString& user, int rc, SocketParams& sp,
                                     LogBase& log) {
    if (rc == kTimedOut) {
        sp.m_timedOut = true;
        logf(log, true, "SSH %s authentication for user %s timed out", method, user.getUtf8());
    } else if (rc == kAborted) {
        sp.m_aborted = true;
        logf(log, true, "SSH %s authentication for user %s aborted by the application", method, user.getUtf8());
    } else if (rc == kWaitFailed) {
        sp.m_otherError = true;
        logf(log, true, "SSH %s authentication for user %s: waiting on the socket failed", method, user.getUtf8());
    } else if (noteResult(rc) || m_lost) {
        sp.m_connLost = true;
        logf(log, true, "SSH %s authentication for user %s failed: %s", method, user.getUtf8(), m_lostReason);
    } else {
        return false;  // a refusal: the caller words it
    }
    return true;
}

bool SshTransport::authenticatePassword(const XString& user, const XString& password, unsigned timeoutMs,
                                        SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "sshAuthenticatePw");
    if (!isConnected()) {
        sp.m_connLost = true;
        logf(log, true, "No SSH connection to authenticate on (%s)", m_lostReason);
        return false;
    }
    if (m_authenticated) {
        log.logInfo("Already authenticated on this SSH connection");
        return true;
    }
    const char* u = user.getUtf8();
    const unsigned ulen = user.getSizeUtf8();
    if (m_authMethods.isEmpty()) {
        // The "none" request (RFC 4252 section 5.2) answers with the methods
        // that can continue, and lets us pick password or
        // keyboard-interactive. It is asked once per connection: libssh2
        // loses the previous answer's memory when asked again.
        char* methods = nullptr;
        const int rc = drive(
            [&] {
                methods = libssh2_userauth_list(m_session, u, ulen);
                if (methods || libssh2_userauth_authenticated(m_session)) return 0;
                const int e = libssh2_session_last_errno(m_session);
                return e ? e : static_cast<int>(LIBSSH2_ERROR_METHOD_NONE);
            },
            timeoutMs, sp, log);
        if (rc != 0) {
            if (!reportAuthFailure("password", user, rc, sp, log))
                logf(log, true, "SSH password authentication failed for user %s: %s", u, lastErrorText());
            return false;
        }
        if (!methods) {
            log.logInfo("The SSH server accepted the user without authentication");
            m_authenticated = true;
            return true;
        }
        m_authMethods.setString(methods);
    }
    const char* methods = m_authMethods.getString();
    if (log.m_verboseLogging) log.logData("sshAuthMethods", methods);
    int rc = 0;

    const char* method = "password";
    if (listHas(methods, "password")) {
        rc = drive(
            [&] {
                return libssh2_userauth_password_ex(m_session, u, ulen, password.getUtf8(), password.getSizeUtf8(),
                                                    nullptr);
            },
            timeoutMs, sp, log);
    } else if (listHas(methods, "keyboard-interactive")) {
        method = "keyboard-interactive";
        m_kbdPassword = &password;
        m_kbdPrompts = 0;
        rc = drive(
            [&] { return libssh2_userauth_keyboard_interactive_ex(m_session, u, ulen, &SshCallbacks::keyboard); },
            timeoutMs, sp, log);
        m_kbdPassword = nullptr;
    } else {
        logf(log, true, "The SSH server does not accept a password for user %s (it offers: %s)", u, methods);
        return false;
    }
    if (rc == 0 && libssh2_userauth_authenticated(m_session)) {
        m_authenticated = true;
        if (log.m_verboseLogging) logf(log, false, "SSH %s authentication succeeded for user %s", method, u);
        return true;
    }
    if (reportAuthFailure(method, user, rc, sp, log)) return false;
    if (rc == LIBSSH2_ERROR_PASSWORD_EXPIRED)
        logf(log, true, "SSH password authentication failed for user %s: the password has expired", u);
    else
        logf(log, true, "SSH %s authentication failed for user %s", method, u);
    return false;
}

bool SshTransport::authenticatePublicKey(const XString& user, const char* rsaSigAlg, const _zrPublicKey& key,
                                         unsigned timeoutMs, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "sshAuthenticatePk");
    if (!isConnected()) {
        sp.m_connLost = true;
        logf(log, true, "No SSH connection to authenticate on (%s)", m_lostReason);
        return false;
    }
    if (m_authenticated) {
        log.logInfo("Already authenticated on this SSH connection");
        return true;
    }
    if (!key.isLoaded()) {
        log.logError("SSH public-key authentication needs a loaded private key");
        return false;
    }
    const char* alg = key.signatureAlgorithm(rsaSigAlg);
    if (!alg) {
        logf(log, true, "Unknown RSA signature algorithm %s (use rsa-sha2-256, rsa-sha2-512 or ssh-rsa)", rsaSigAlg);
        return false;
    }
    // libssh2 names the algorithm of the request after the first field of
    // the blob. Naming an RSA blob "rsa-sha2-256" is how the request gets to
    // say SHA-2 (RFC 8332); servers read the key by its family, so the blob
    // still describes the same key.
    DataBuffer blob;
    if (!key.getPublicBlob(alg, blob)) {
        log.logError("Cannot encode the public key");
        return false;
    }
    StringBuffer fp;
    key.getFingerprint(fp);
    const char* u = user.getUtf8();
    SignContext sc{&key, alg, &log, false};
    void* abstract = &sc;
    const int rc = drive(
        [&] {
            return libssh2_userauth_publickey(m_session, u, blob.getData2(), blob.getSize(), &SshCallbacks::sign,
                                              &abstract);
        },
        timeoutMs, sp, log);
    if (rc == 0 && libssh2_userauth_authenticated(m_session)) {
        m_authenticated = true;
        if (log.m_verboseLogging) logf(log, false, "SSH public-key authentication succeeded for user %s (%s)", u, alg);
        return true;
    }
    if (reportAuthFailure("public-key", user, rc, sp, log)) return false;
    if (sc.failed)
        logf(log, true, "SSH public-key authentication failed for user %s: the key could not sign", u);
    else
        logf(log, true,
             "SSH public-key authentication failed for user %s: the server did not accept the %s key %s (%s)", u,
             key.keyType(), fp.getString(), alg);
    return false;
}

_LIBSSH2_CHANNEL* SshTransport::openDirectTcpip(const char* host, int port, unsigned timeoutMs, SocketParams& sp,
                                                LogBase& log) {
    LogContextExitor ctx(log, "sshOpenChannel");
    if (!isConnected()) {
        sp.m_connectFailed = true;
        sp.m_connLost = true;
        logf(log, true, "The SSH tunnel is no longer connected: %s", m_lostReason);
        return nullptr;
    }
    reapRetired();
    // The originator (RFC 4254 section 7.2) is our end of the SSH connection.
    char origin[INET6_ADDRSTRLEN] = "127.0.0.1";
    int originPort = 0;
    sockaddr_storage ss;
    socklen_t len = sizeof ss;
    if (::getsockname(m_fd, reinterpret_cast<sockaddr*>(&ss), &len) == 0) {
        if (ss.ss_family == AF_INET) {
            const sockaddr_in* a = reinterpret_cast<const sockaddr_in*>(&ss);
            inet_ntop(AF_INET, &a->sin_addr, origin, sizeof origin);
            originPort = ntohs(a->sin_port);
        } else if (ss.ss_family == AF_INET6) {
            const sockaddr_in6* a = reinterpret_cast<const sockaddr_in6*>(&ss);
            inet_ntop(AF_INET6, &a->sin6_addr, origin, sizeof origin);
            originPort = ntohs(a->sin6_port);
        }
    }
    LIBSSH2_CHANNEL* ch = nullptr;
    const int rc = drive(
        [&] {
            ch = libssh2_channel_direct_tcpip_ex(m_session, host, port, origin, originPort);
            return ch ? 0 : libssh2_session_last_errno(m_session);
        },
        timeoutMs, sp, log);
    if (ch) {
        if (log.m_verboseLogging) logf(log, false, "Opened an SSH channel to %s:%d through %s", host, port, m_remote);
        return ch;
    }
    sp.m_connectFailed = true;
    if (rc == kTimedOut) {
        sp.m_timedOut = true;
        logf(log, true, "Opening an SSH channel to %s:%d timed out (%u ms)", host, port, timeoutMs);
    } else if (rc == kAborted) {
        sp.m_aborted = true;
        logf(log, true, "Opening an SSH channel to %s:%d aborted by the application", host, port);
    } else if (noteResult(rc) || m_lost) {
        sp.m_connLost = true;
        logf(log, true, "Opening an SSH channel to %s:%d failed: %s", host, port, m_lostReason);
    } else {
        logf(log, true, "The SSH server %s refused a channel to %s:%d: %s", m_remote, host, port, lastErrorText());
    }
    return nullptr;
}

bool SshTransport::closeChannel(_LIBSSH2_CHANNEL* ch, bool waitForPeer, unsigned timeoutMs, SocketParams& sp,
                                LogBase& log) {
    if (!ch) return true;
    if (!m_session) return false;  // freed with the session already
    // A bound of 0 means one try at each step, never a wait.
    const bool noWait = timeoutMs == 0;
    net::IdleTimer total(timeoutMs);
    auto step = [&](auto op) {
        if (m_lost) return LIBSSH2_ERROR_SOCKET_DISCONNECT;
        if (noWait) return op();
        const unsigned left = total.remaining();
        if (left == 0) return kTimedOut;
        return drive(op, left, sp, log);
    };

    int rc = step([&] { return libssh2_channel_send_eof(ch); });
    bool ok = rc == 0;
    if (ok && waitForPeer) {
        // The server's EOF comes after whatever it still had to say; it is
        // read and dropped so the window never stops it.
        unsigned char* scratch = new (std::nothrow) unsigned char[kDrainChunk];
        rc = !scratch ? LIBSSH2_ERROR_ALLOC : step([&] {
            for (int i = 0; i < 64; ++i) {
                const ssize_t n = libssh2_channel_read(ch, reinterpret_cast<char*>(scratch), kDrainChunk);
                if (n > 0) continue;
                if (n < 0) return static_cast<int>(n);
                return libssh2_channel_eof(ch) ? 0 : static_cast<int>(LIBSSH2_ERROR_EAGAIN);
            }
            return static_cast<int>(LIBSSH2_ERROR_EAGAIN);
        });
        delete[] scratch;
        ok = rc == 0;
    }
    if (rc != kTimedOut && rc != kAborted) {
        rc = step([&] { return libssh2_channel_close(ch); });
        ok = ok && rc == 0;
        if (ok && waitForPeer) {
            rc = step([&] { return libssh2_channel_wait_closed(ch); });
            ok = rc == 0;
        }
    }
    if (rc == kTimedOut) {
        sp.m_timedOut = true;
        logf(log, true, "Closing the SSH channel timed out (%u ms)", timeoutMs);
    } else if (rc == kAborted) {
        sp.m_aborted = true;
        log.logError("Closing the SSH channel aborted by the application");
    } else if (!ok && !noWait && rc != LIBSSH2_ERROR_EAGAIN) {
        noteResult(rc);
        if (log.m_verboseLogging) logf(log, false, "The SSH channel did not close cleanly: %s", lastErrorText());
    }
    // Freeing waits for the server's CLOSE unless it has come or the
    // connection is gone; what cannot finish now finishes later.
    if (libssh2_channel_free(ch) == LIBSSH2_ERROR_EAGAIN) retire(ch);
    reapRetired();
    if (m_lost) {
        sp.m_connLost = true;
        return false;
    }
    return ok;
}

void SshTransport::retire(_LIBSSH2_CHANNEL* ch) {
    if (m_numRetired < sizeof m_retired / sizeof m_retired[0]) {
        m_retired[m_numRetired++] = ch;
        return;
    }
    // Nowhere to keep it: the session frees it when it goes.
}

void SshTransport::reapRetired() {
    unsigned kept = 0;
    for (unsigned i = 0; i < m_numRetired; ++i)
        if (libssh2_channel_free(m_retired[i]) == LIBSSH2_ERROR_EAGAIN && !m_lost) m_retired[kept++] = m_retired[i];
    for (unsigned i = kept; i < m_numRetired; ++i) m_retired[i] = nullptr;
    m_numRetired = kept;
}

void SshTransport::disconnect(const char* description, unsigned timeoutMs, LogBase& log) {
    if (!m_session) {
        if (m_fd >= 0) ::close(m_fd);
        m_fd = -1;
        return;
    }
    if (!m_lost) {
        SocketParams sp(nullptr);
        const unsigned limit = timeoutMs < net::kCloseWaitCapMs ? timeoutMs : net::kCloseWaitCapMs;
        const char* text = description && *description ? description : "closed by the client";
        // Best effort: the server learns why, but a server that does not
        // take it quickly is not waited for.
        const int rc = limit == 0 ? libssh2_session_disconnect_ex(m_session, SSH_DISCONNECT_BY_APPLICATION, text, "")
                                  : drive(
                                        [&] {
                                            return libssh2_session_disconnect_ex(
                                                m_session, SSH_DISCONNECT_BY_APPLICATION, text, "");
                                        },
                                        limit, sp, log);
        if (log.m_verboseLogging)
            logf(log, false, "%s %s",
                 rc == 0 ? "Disconnected from the SSH server" : "Could not send the SSH disconnect to", m_remote);
    }
    markLost("the SSH connection was closed");
    releaseSession();
}

void SshTransport::releaseSession() {
    // With the I/O cut off, nothing below can wait for the server.
    m_ioCut = true;
    for (unsigned i = 0; i < m_numRetired; ++i) m_retired[i] = nullptr;
    m_numRetired = 0;
    if (m_session) {
        // Every channel still on the session goes with it.
        for (int i = 0; i < 8 && libssh2_session_free(m_session) == LIBSSH2_ERROR_EAGAIN; ++i) {
        }
        m_session = nullptr;
    }
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
    m_authenticated = false;
    if (!m_lost) {
        m_lost = true;
        std::snprintf(m_lostReason, sizeof m_lostReason, "the SSH connection was closed");
    }
}

}  // namespace zr
