// Socket2's SSH tunnel: attaching an SSH connection, logging in to it,
// connecting through a direct-tcpip channel and closing channel and tunnel.
// The byte stream itself is an SshChannel under Socket2's usual machinery.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "ByteChannel.h"
#include "NetSupport.h"
#include "SshInternal.h"
#include "zrimap/base/LogBase.h"
#include "zrimap/base/Progress.h"
#include "zrimap/base/SocketParams.h"
#include "zrimap/base/StringBuffer.h"
#include "zrimap/base/XString.h"
#include "zrimap/net/Socket2.h"
#include "zrimap/net/Ssh.h"

namespace zr {

using net::logf;

bool Socket2::sshTunnel(XString& host, int port, _clsTls& tls, LogBase& log, SocketParams& sp) {
    LogContextExitor ctx(log, "sshTunnel");
    dropConnection();
    if (m_ssh) {
        m_ssh->decRefCount();
        m_ssh = nullptr;
    }
    // The TCP part is an ordinary connect; the descriptor then goes to the
    // SSH layer, and this object keeps only the tunnel.
    if (!socket2Connect(host.getUtf8Sb(), port, false, tls, 0, sp, log)) return false;
    const int fd = m_fd;
    delete m_chan;
    m_chan = nullptr;
    m_fd = -1;
    char remote[sizeof m_remote];
    std::snprintf(remote, sizeof remote, "%s", m_remote);

    SshTransport* ssh = SshTransport::createNew();
    if (!ssh) {
        ::close(fd);
        sp.m_connectFailed = true;
        log.logError("Out of memory creating the SSH connection");
        return false;
    }
    ssh->incRefCount();
    if (!ssh->startSession(fd, remote, effectiveTimeout(0), sp, log)) {
        ssh->decRefCount();
        return false;
    }
    // Checked before a password or a signature goes anywhere: a server
    // that is not the expected one learns nothing.
    const char* expected = tls.m_sshHostKeyFingerprint.getString();
    if (*expected && !net::sameFingerprint(expected, ssh->hostKeyFingerprint().getString())) {
        sp.m_connectFailed = true;
        logf(log, true, "SSH host key fingerprint mismatch: expected %s, server presented %s (%s key of %s)", expected,
             ssh->hostKeyFingerprint().getString(), ssh->hostKeyAlgorithm(), remote);
        ssh->disconnect("host key not accepted", 0, log);
        ssh->decRefCount();
        return false;
    }
    m_ssh = ssh;
    if (log.m_verboseLogging) logf(log, false, "SSH tunnel to %s established", remote);
    return true;
}

bool Socket2::takeSshTunnel(SshTransport* ssh, unsigned int channelNum) {
    if (!ssh || channelNum != kNoSshChannel) return false;
    dropConnection();
    if (ssh == m_ssh) return true;
    ssh->incRefCount();
    if (m_ssh) m_ssh->decRefCount();
    m_ssh = ssh;
    return true;
}

bool Socket2::sshAuthenticatePw(XString& user, XString& password, LogBase& log, SocketParams& sp) {
    if (!m_ssh) {
        log.logError("No SSH tunnel to authenticate on: open one first");
        return false;
    }
    return m_ssh->authenticatePassword(user, password, effectiveTimeout(0), sp, log);
}

bool Socket2::sshAuthenticatePk(XString& user, const char* rsaSigAlg, _zrPublicKey& key, LogBase& log,
                                SocketParams& sp) {
    if (!m_ssh) {
        log.logError("No SSH tunnel to authenticate on: open one first");
        return false;
    }
    return m_ssh->authenticatePublicKey(user, rsaSigAlg, key, effectiveTimeout(0), sp, log);
}

bool Socket2::getSshHostKeyFingerprint(StringBuffer& out) const {
    if (!m_ssh) return false;
    return out.setString(m_ssh->hostKeyFingerprint()) && !out.isEmpty();
}

bool Socket2::sshConnectChannel(const StringBuffer& hostIn, int port, bool tls, _clsTls& tlsSettings,
                                unsigned timeoutMs, SocketParams& sp, LogBase& log) {
    if (m_sshChan || m_chan) {
        if (log.m_verboseLogging) log.logInfo("Closing the previous connection first");
        dropConnection();
    }
    char host[256];
    if (!beginConnect(hostIn, port, tlsSettings, host, sizeof host, sp, log)) return false;
    if (!m_ssh->isConnected()) {
        sp.m_connectFailed = true;
        sp.m_connLost = true;
        logf(log, true, "Cannot connect to %s:%d: the SSH tunnel is no longer connected (%s)", host, port,
             m_ssh->lostReason());
        return false;
    }
    if (!m_ssh->isAuthenticated()) {
        sp.m_connectFailed = true;
        logf(log, true, "Cannot connect to %s:%d: the SSH tunnel is not authenticated yet", host, port);
        return false;
    }
    if (log.m_verboseLogging) {
        log.logData("hostname", host);
        log.LogDataLong("port", port);
        log.LogDataLong("tls", tls ? 1 : 0);
    }
    _LIBSSH2_CHANNEL* ch = m_ssh->openDirectTcpip(host, port, effectiveTimeout(timeoutMs), sp, log);
    if (!ch) return false;
    m_sshChan = new (std::nothrow) net::SshChannel(m_ssh, ch);
    if (!m_sshChan) {
        m_ssh->closeChannel(ch, false, 0, sp, log);
        sp.m_connectFailed = true;
        log.logError("Out of memory for the SSH channel");
        return false;
    }
    m_chan = m_sshChan;
    m_fd = m_ssh->fd();
    m_peerClosed = false;
    m_broken = false;
    // Long names are cut short: the text only appears in messages.
    std::snprintf(m_remote, sizeof m_remote, "%.120s:%d (SSH tunnel)", host, port);
    if (log.m_verboseLogging) log.logData("connectedTo", m_remote);
    if (tls && !tlsHandshake(host, tlsSettings, timeoutMs, sp, log)) {
        dropConnection();
        return false;
    }
    return true;
}

bool Socket2::closeSshChannel(bool waitForPeer, unsigned timeoutMs, SocketParams& sp, LogBase& log, bool bQuiet) {
    m_rum.clear();
    m_rumScanned = 0;
    if (!m_sshChan) return true;
    if (m_chan != m_sshChan) {
        sendCloseNotify(timeoutMs, sp.m_progressMonitor, log, bQuiet);
        delete m_chan;
    }
    m_chan = nullptr;
    _LIBSSH2_CHANNEL* ch = m_sshChan->release();
    delete m_sshChan;
    m_sshChan = nullptr;
    m_fd = -1;
    m_peerClosed = false;
    m_broken = false;
    LogNull quiet;
    const bool ok = m_ssh->closeChannel(ch, waitForPeer, timeoutMs, sp, bQuiet ? static_cast<LogBase&>(quiet) : log);
    if (!bQuiet && log.m_verboseLogging) logf(log, false, "Closed the SSH channel to %s", m_remote);
    return ok;
}

bool Socket2::sshCloseChannel(SshReadParams& rp, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "sshCloseChannel");
    if (!m_ssh) {
        log.logError("No SSH tunnel");
        return false;
    }
    if (log.m_verboseLogging) {
        log.LogDataLong("closeTimeoutMs", static_cast<long>(rp.m_timeoutMs));
        log.LogDataLong("readTimeoutMs", static_cast<long>(rp.m_rawTimeoutMs));
    }
    bool ok = true;
    if (m_sshChan) {
        ok = closeSshChannel(rp.m_waitForPeerClose, rp.m_timeoutMs, sp, log, false);
    } else {
        m_rum.clear();
        m_rumScanned = 0;
        if (log.m_verboseLogging) log.logInfo("No SSH channel is open");
    }
    if (!m_ssh->isConnected()) {
        sp.m_connLost = true;
        logf(log, false, "The SSH connection is lost (%s); letting go of the tunnel", m_ssh->lostReason());
        m_ssh->decRefCount();
        m_ssh = nullptr;
        return false;
    }
    return ok;
}

bool Socket2::sshCloseTunnel(SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "sshCloseTunnel");
    if (!m_ssh) {
        if (log.m_verboseLogging) log.logInfo("No SSH tunnel is open");
        return true;
    }
    const unsigned limit = effectiveTimeout(0);
    // Nobody waits on the channel's answer: the disconnect ends it anyway.
    if (m_sshChan) closeSshChannel(false, 0, sp, log, false);
    m_ssh->disconnect("closed by the client", limit ? limit : net::kCloseWaitCapMs, log);
    m_ssh->decRefCount();
    m_ssh = nullptr;
    if (log.m_verboseLogging) log.logInfo("SSH tunnel closed");
    return true;
}

}  // namespace zr
