// SshChannel: the byte stream of one SSH channel, in ByteChannel terms.
#include <libssh2.h>

#include <cerrno>
#include <cstdio>

#include "ByteChannel.h"
#include "zrimap/base/LogBase.h"
#include "zrimap/base/SocketParams.h"
#include "zrimap/net/Ssh.h"

namespace zr {
namespace net {

SshChannel::SshChannel(SshTransport* transport, _LIBSSH2_CHANNEL* channel)
    : ByteChannel(transport->fd()), m_transport(transport), m_channel(channel) {
    m_transport->incRefCount();
}

SshChannel::~SshChannel() {
    if (m_channel) {
        SocketParams sp(nullptr);
        LogNull quiet;
        m_transport->closeChannel(m_channel, false, 0, sp, quiet);
    }
    m_transport->decRefCount();
}

_LIBSSH2_CHANNEL* SshChannel::release() {
    _LIBSSH2_CHANNEL* ch = m_channel;
    m_channel = nullptr;
    return ch;
}

Io SshChannel::wouldBlock() {
    const int dir = libssh2_session_block_directions(m_transport->session());
    short events = 0;
    if (dir & LIBSSH2_SESSION_BLOCK_INBOUND) events |= POLLIN;
    if (dir & LIBSSH2_SESSION_BLOCK_OUTBOUND) events |= POLLOUT;
    // Nothing recorded: the next thing to happen is the server sending.
    m_events = events ? events : POLLIN;
    return (events & POLLOUT) && !(events & POLLIN) ? Io::WantWrite : Io::WantRead;
}

Io SshChannel::failed(int rc, bool writing) {
    if (m_transport->noteResult(rc) || !m_transport->isConnected()) {
        char text[256];
        std::snprintf(text, sizeof text, "SSH connection lost: %s", m_transport->lostReason());
        setError(text, false);
        m_errno = ECONNRESET;
        return Io::Error;
    }
    if (rc == LIBSSH2_ERROR_CHANNEL_CLOSED || rc == LIBSSH2_ERROR_CHANNEL_EOF_SENT) {
        setError("the SSH channel was closed", false);
        if (!writing) return Io::Eof;
        m_errno = EPIPE;
        return Io::Error;
    }
    char text[256];
    std::snprintf(text, sizeof text, "SSH channel error %d: %s", rc, m_transport->lastErrorText());
    setError(text, false);
    return Io::Error;
}

Io SshChannel::readSome(unsigned char* buf, unsigned n, unsigned& got) {
    got = 0;
    if (!m_channel) {
        setError("the SSH channel is closed", false);
        return Io::Error;
    }
    if (!m_transport->isConnected()) return failed(LIBSSH2_ERROR_SOCKET_DISCONNECT, false);
    const ssize_t r = libssh2_channel_read(m_channel, reinterpret_cast<char*>(buf), n);
    if (r > 0) {
        got = static_cast<unsigned>(r);
        return Io::Ok;
    }
    if (r == 0) {
        if (!m_transport->isConnected()) return failed(LIBSSH2_ERROR_SOCKET_DISCONNECT, false);
        if (libssh2_channel_eof(m_channel)) {
            setError("connection closed by peer (end of the SSH channel)", false);
            return Io::Eof;
        }
        return wouldBlock();
    }
    if (r == LIBSSH2_ERROR_EAGAIN) return wouldBlock();
    return failed(static_cast<int>(r), false);
}

Io SshChannel::writeSome(const unsigned char* buf, unsigned n, unsigned& sent) {
    sent = 0;
    if (!m_channel) {
        setError("the SSH channel is closed", false);
        m_errno = EPIPE;
        return Io::Error;
    }
    if (!m_transport->isConnected()) return failed(LIBSSH2_ERROR_SOCKET_DISCONNECT, true);
    const ssize_t r = libssh2_channel_write(m_channel, reinterpret_cast<const char*>(buf), n);
    if (r > 0) {
        sent = static_cast<unsigned>(r);
        return Io::Ok;
    }
    // 0: the server's window is full; libssh2 has said to wait for reading.
    if (r == 0 || r == LIBSSH2_ERROR_EAGAIN) return wouldBlock();
    return failed(static_cast<int>(r), true);
}

}  // namespace net
}  // namespace zr
