// The engine's SSH tunnel operations: thin pass-throughs to the transport
// (Socket2 and SshTransport do the work). Once a tunnel is attached,
// connectToImapServer connects through it and imapDisconnect closes only
// the channel, so several sessions can follow one another in one tunnel.
#include "zrimap/imap/zrImap.h"
#include "zrimap/net/Socket2.h"
#include "zrimap/net/Ssh.h"

namespace zr {

bool _zrImap::useSshTunnel(SshTransport* ssh, LogBase& log) {
    (void)log;
    if (!ssh) return false;
    releaseSocket();
    m_socket = Socket2::createNewSocket2(14);
    if (!m_socket) return false;
    m_socket->incRefCount();
    // The read time-out also bounds the tunnel's set-up steps.
    m_socket->put_IdleTimeoutMs(m_readTimeoutMs);
    m_socket->takeSshTunnel(ssh, Socket2::kNoSshChannel);
    return true;
}

bool _zrImap::sshOpenTunnel(XString& host, int port, _clsTls& tls, LogBase& log, SocketParams& sp) {
    releaseSocket();
    m_socket = Socket2::createNewSocket2(15);
    if (!m_socket) return false;
    m_socket->incRefCount();
    m_socket->put_IdleTimeoutMs(m_readTimeoutMs);
    return m_socket->sshTunnel(host, port, tls, log, sp);
}

bool _zrImap::sshCloseTunnel(SocketParams& sp, LogBase& log) {
    if (m_socket) return m_socket->sshCloseTunnel(sp, log);
    if (log.m_verboseLogging) log.logInfo("No IMAP socket connection exists (no SSH tunnel to be closed).");
    return true;
}

bool _zrImap::sshAuthenticatePw(XString& user, XString& password, LogBase& log, SocketParams& sp) {
    if (!m_socket) return false;
    return m_socket->sshAuthenticatePw(user, password, log, sp);
}

bool _zrImap::sshAuthenticatePk(XString& user, _zrPublicKey& key, LogBase& log, SocketParams& sp) {
    if (!m_socket) return false;
    // No RSA signature preference: rsa-sha2-256, which every current server
    // accepts.
    return m_socket->sshAuthenticatePk(user, nullptr, key, log, sp);
}

bool _zrImap::getSshHostKeyFingerprint(StringBuffer& out) {
    return m_socket && m_socket->getSshHostKeyFingerprint(out);
}

}  // namespace zr
