// The byte stream under Socket2 (internal).
//
// Socket2 owns the descriptor, the waiting, the time-outs and the read-ahead
// buffer; a channel only moves bytes and never blocks. That split lets a TLS
// session replace the plain channel in the middle of a connection (STARTTLS)
// and lets an SSH channel stand in for the TCP connection (a tunnel), with
// TLS on top of either.
#pragma once

#include <openssl/ssl.h>
#include <poll.h>

#include "zrimap/net/TlsSettings.h"

struct _LIBSSH2_CHANNEL;

namespace zr {

class SshTransport;

namespace net {

enum class Io {
    Ok,         // some bytes moved (or the step finished)
    WantRead,   // nothing moved: wait until the descriptor is readable
    WantWrite,  // nothing moved: wait until the descriptor is writable
    Eof,        // the peer closed the stream
    Error       // the stream is broken; errorText() says why
};

class ByteChannel {
public:
    explicit ByteChannel(int fd) : m_fd(fd) {}
    virtual ~ByteChannel();
    ByteChannel(const ByteChannel&) = delete;
    ByteChannel& operator=(const ByteChannel&) = delete;

    // Both return Ok only with n > 0 bytes moved.
    virtual Io readSome(unsigned char* buf, unsigned n, unsigned& got) = 0;
    virtual Io writeSome(const unsigned char* buf, unsigned n, unsigned& sent) = 0;
    virtual bool isTls() const = 0;
    // The poll() events to wait for after WantRead or WantWrite. A channel
    // whose bytes pass through another protocol may need the other
    // direction of the descriptor than the one the caller was after.
    virtual short waitEvents(Io io) const { return io == Io::WantWrite ? POLLOUT : POLLIN; }

    int fd() const { return m_fd; }
    // Why the last operation ended in Error or Eof.
    const char* errorText() const { return m_errorText; }
    // Error came from the TLS layer (as opposed to the system).
    bool errorIsTls() const { return m_errorIsTls; }
    // The system error behind the last Error, 0 when it was not one.
    int lastErrno() const { return m_errno; }

protected:
    void setError(const char* text, bool tls);
    void setSystemError(const char* what, int err);

    int m_fd;
    char m_errorText[256] = {0};
    bool m_errorIsTls = false;
    int m_errno = 0;
};

class TcpChannel : public ByteChannel {
public:
    explicit TcpChannel(int fd) : ByteChannel(fd) {}
    Io readSome(unsigned char* buf, unsigned n, unsigned& got) override;
    Io writeSome(const unsigned char* buf, unsigned n, unsigned& sent) override;
    bool isTls() const override { return false; }
};

// A client TLS session on the descriptor, or on another channel (`lower`,
// an SSH channel). The records go through a BIO of our own that sends with
// MSG_NOSIGNAL: OpenSSL's socket BIO uses write(), which would raise SIGPIPE
// when the peer has gone.
class TlsChannel : public ByteChannel {
public:
    // Null when OpenSSL cannot be set up; errText then says why.
    // `host` is what the certificate must match (a name or an IP literal);
    // `sni` names it in the ClientHello (ignored for IP literals). `lower`
    // is not owned and must outlive the session.
    static TlsChannel* create(int fd, const _clsTls& settings, TlsVersion minVersion,
                              const char* host, bool sni, char* errText, unsigned errTextSize,
                              ByteChannel* lower = nullptr);
    ~TlsChannel() override;

    Io handshakeStep();
    // Sends close_notify; Ok once it is out (the peer's is not awaited).
    Io shutdownStep();

    Io readSome(unsigned char* buf, unsigned n, unsigned& got) override;
    Io writeSome(const unsigned char* buf, unsigned n, unsigned& sent) override;
    bool isTls() const override { return true; }
    short waitEvents(Io io) const override;

    // After a fatal error OpenSSL must not be asked to send anything more.
    bool hadFatalError() const { return m_fatal; }
    SSL* ssl() const { return m_ssl; }

    // Called by the BIO.
    void noteSystemError(int err) { m_sysErrno = err; }
    void noteEof() { m_bioEof = true; }
    bool bioEof() const { return m_bioEof; }
    ByteChannel* lower() const { return m_lower; }
    // The lower channel asked to be called again (io) or failed.
    void noteLowerWait(Io io) { m_lowerWait = io; }
    void noteLowerFailure(const char* text, int err);

private:
    explicit TlsChannel(int fd) : ByteChannel(fd) {}
    void beginCall();
    Io classify(int ret, const char* during);
    Io failedEarlier();

    SSL_CTX* m_ctx = nullptr;
    SSL* m_ssl = nullptr;
    BIO_METHOD* m_bioMethod = nullptr;
    int m_sysErrno = 0;
    bool m_bioEof = false;
    bool m_fatal = false;
    bool m_fatalWasEof = false;  // the fatal error was the peer going away
    ByteChannel* m_lower = nullptr;
    Io m_lowerWait = Io::WantRead;
    bool m_lowerFailed = false;
    int m_lowerErrno = 0;
    char m_lowerError[200] = {0};
};

// One direct-tcpip channel of an SSH connection (RFC 4254 section 7.2). The
// descriptor is the SSH connection's; a read or write that cannot go on
// reports the direction libssh2 is blocked on through waitEvents, which may
// be the opposite of the call's (a read may have to send a window
// adjustment, a write may wait for one to arrive). When the SSH connection
// is lost the error says so and lastErrno() is ECONNRESET.
class SshChannel : public ByteChannel {
public:
    // Takes a reference to the transport and owns the channel.
    SshChannel(SshTransport* transport, _LIBSSH2_CHANNEL* channel);
    // Closes a channel still held without waiting (see release()).
    ~SshChannel() override;

    Io readSome(unsigned char* buf, unsigned n, unsigned& got) override;
    Io writeSome(const unsigned char* buf, unsigned n, unsigned& sent) override;
    bool isTls() const override { return false; }
    short waitEvents(Io) const override { return m_events; }

    // Hands the channel over (for an orderly close by the transport).
    _LIBSSH2_CHANNEL* release();
    SshTransport* transport() const { return m_transport; }

private:
    Io wouldBlock();
    Io failed(int rc, bool writing);

    SshTransport* m_transport;
    _LIBSSH2_CHANNEL* m_channel;
    short m_events = POLLIN;
};

}  // namespace net
}  // namespace zr
