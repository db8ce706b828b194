// Socket2: one client connection (TCP, optionally TLS) with a read-ahead
// buffer, as the IMAP engine uses it.
//
// Lifetime: shared by reference count. createNewSocket2() returns an object
// with a count of zero; the creator calls incRefCount() and everyone lets go
// with decRefCount(). The destructor closes whatever is still open.
//
// Time-outs. Every timeoutMs is an idle limit: the longest wait for the next
// sign of progress (bytes arriving, bytes leaving, the connect completing).
// A call that keeps making progress is never cut off by it; one that waits
// longer than timeoutMs for anything to happen fails with m_timedOut.
// timeoutMs == 0 means "use the idle time-out" (put_IdleTimeoutMs), and when
// that is 0 too, there is no limit. The connect and the TLS handshake are
// the exceptions: each address attempted, and the handshake, get timeoutMs
// in total.
//
// Abort. While it waits, a call asks sp.m_progressMonitor (when there is
// one) get_Aborted() about every 100 ms; on true it returns false with
// m_aborted. Calls that find their data without waiting do not ask.
//
// Flags and errors. Each call sets, on failure, the SocketParams flags that
// describe what happened (callers reset them with initFlags()) and logs one
// error through log.logError. The one exception: a read that merely timed
// out while sp.timeoutIsFailure is false logs its message with logInfo.
// After a failure that leaves the byte stream in an unknown state (send
// time-out, abort mid-send, a line over the buffer limit, a failed TLS
// upgrade) the caller is expected to close the connection.
//
// SSH tunnel. sshTunnel (or takeSshTunnel) attaches an SSH connection and
// sshAuthenticatePw/Pk logs in to it; from then on socket2Connect opens a
// direct-tcpip channel to its host and port through the SSH server instead
// of a TCP connection, and everything above (lines, literals, read-ahead,
// time-outs, abort, flags, TLS and STARTTLS) runs over that channel. Closing
// (sockClose, sshCloseChannel) ends only the channel; the tunnel stays for
// the next connect until sshCloseTunnel, or until sshCloseChannel finds the
// SSH connection lost. The SSH set-up steps (connect, handshake,
// authentication, opening a channel) are limited by the idle time-out (see
// put_IdleTimeoutMs), each in total.
//
// Not thread-safe: one thread uses a given object at a time. No exceptions
// escape. SIGPIPE is never raised: plain sends, the TLS layer's writes and
// the SSH layer's all go through send(MSG_NOSIGNAL).
#pragma once

#include <cstddef>
#include <cstdint>

#include "zrimap/base/ZendrelObject.h"
#include "zrimap/net/ReadAheadBuffer.h"
#include "zrimap/net/SystemCerts.h"
#include "zrimap/net/TlsSettings.h"

namespace zr {

class DataBuffer;
class LogBase;
class ProgressMonitor;
class SocketParams;
class SshReadParams;
class SshTransport;
class StringBuffer;
class XString;
class _zrPublicKey;

namespace net {
class ByteChannel;
class IdleTimer;
class SshChannel;
class TlsChannel;
enum class Wait;
}  // namespace net

class Socket2 : public RefCountedObject {
public:
    // A new unconnected socket, or null when memory runs out. `code` names
    // the creating site and only shows in diagnostics.
    static Socket2* createNewSocket2(int code);
    int getCreatorCode() const { return m_creatorCode; }
    // The host name given to the last socket2Connect, as given.
    const StringBuffer& getLastConnectedHost() const { return m_lastHost; }

    // --- connecting ---

    // Resolves host (a name, an IPv4 literal or an IPv6 literal, with or
    // without brackets), connects to the first address that accepts (only the
    // first address when sp.m_tryAllAddresses is false) and, when tls is
    // true, performs the TLS handshake. An open connection is closed first.
    // On failure the socket is left closed. Flags: m_connectFailed for
    // resolve/connect failures (with m_timedOut or m_aborted when that was
    // the cause), m_tlsFailure for any handshake failure (with m_connLost,
    // m_timedOut or m_aborted when that was the cause). The host name lookup
    // itself cannot be timed or aborted.
    bool socket2Connect(const StringBuffer& host, int port, bool tls, _clsTls& tlsSettings,
                        unsigned int timeoutMs, SocketParams& sp, LogBase& log);

    // Upgrades the open plain connection (STARTTLS). The read-ahead buffer
    // must be empty: bytes the server sent after its go-ahead line and before
    // the handshake could have been injected by anyone on the path, so they
    // fail the upgrade instead of being handed out later as if protected.
    // On failure the connection is closed.
    bool convertToTls(const StringBuffer& host, _clsTls& tls, unsigned int timeoutMs, SocketParams& sp,
                      LogBase& log);

    // --- the server certificate (from the last TLS handshake; kept after
    // close, cleared by the next connect) ---

    // Replaces certs' content with the chain the server sent, leaf first.
    // False when there is none (not TLS) or certs is null. log may be null.
    bool getRemoteServerCerts(SystemCerts* certs, LogBase* log);
    // True only when the chain verified against the system CA store (or the
    // CA file in _clsTls) and the certificate matched the host name or IP.
    bool getRemoteServerCertVerified() const { return m_serverVerified; }
    // OpenSSL's reason when it did not verify ("self-signed certificate",
    // "hostname mismatch", ...); empty otherwise.
    const char* getServerCertVerifyError() const { return m_verifyError; }

    // --- socket options (remembered and applied again on the next connect;
    // a value set in _clsTls at connect takes precedence for the buffer
    // sizes; n <= 0 leaves the system's size) ---

    void setTcpNoDelay(bool on, LogBase& log);
    void SetKeepAlive(bool on, LogBase& log);
    void setSoSndBuf(int n, LogBase& log);
    void setSoRcvBuf(int n, LogBase& log);
    void put_IdleTimeoutMs(unsigned int ms) { m_idleTimeoutMs = ms; }
    unsigned int get_IdleTimeoutMs() const { return m_idleTimeoutMs; }
    // Logs SO_SNDBUF, SO_RCVBUF, TCP_NODELAY and SO_KEEPALIVE as the kernel
    // reports them.
    void logSocketOptions(LogBase& log);
    // Logs "connectionType": "TCP", "TLS 1.3 TLS_AES_256_GCM_SHA384", or
    // "none" when not connected.
    void logConnectionType(LogBase& log);

    // --- sending (both block until everything is sent or a failure) ---

    bool s2_sendFewBytes(const unsigned char* data, unsigned int n, unsigned int timeoutMs, LogBase& log,
                         SocketParams& sp);
    // Hands the data to the socket at most chunkSize bytes at a time
    // (0: 64 KB), straight from the caller's memory.
    bool s2_sendManyBytes(const unsigned char* data, unsigned int n, unsigned int chunkSize,
                          unsigned int timeoutMs, LogBase& log, SocketParams& sp);
    // bulk: s2_sendManyBytes uses chunks of at least 64 KB, whatever the
    //   caller asked, so a large upload takes fewer system calls (and full
    //   TLS records).
    // cork: s2_sendManyBytes holds partial TCP segments back (TCP_CORK)
    //   while it runs and releases them when it returns, so the data leaves
    //   in full-sized segments even with TCP_NODELAY set. Without TCP_CORK on
    //   the platform it does nothing.
    void setBulkSendBehavior(bool bulk, bool cork);

    // --- receiving ---

    // Appends to out everything up to and including the first occurrence of
    // match, leaving the bytes after it buffered. On failure nothing is
    // appended and the bytes received so far stay buffered (so a call that
    // timed out can be repeated; bytes already searched are not searched
    // again). A line that would take out past the BufferLimits ceiling fails
    // with m_otherError; the partial line is then discarded and the
    // connection is no longer usable.
    bool receiveUntilMatchSb(const char* match, StringBuffer& out, unsigned int timeoutMs, SocketParams& sp,
                             LogBase& log);
    // Appends between 1 and maxBytes bytes: buffered bytes first (and then
    // only those), otherwise the result of one read made straight into out's
    // spare room.
    bool receiveBytes2a(DataBuffer& out, unsigned int maxBytes, unsigned int timeoutMs, SocketParams& sp,
                        LogBase& log);
    // Moves every buffered byte to the end of out (true when none).
    bool takeRumBuffered(DataBuffer& out);
    // Puts bytes back in front of the buffered ones; the next receive
    // returns them first. False only when the buffer limit or memory does
    // not allow it.
    bool addRumBuffered(const unsigned char* data, unsigned int n);
    unsigned int getRumBufferedSize() const { return m_rum.size(); }

    // True when a receive would find data without waiting. It makes one
    // non-blocking read into the read-ahead buffer when that is empty (for
    // TLS a readable socket may hold no application data, so poll() alone
    // cannot tell). End of stream: false with m_connLost.
    bool pollDataAvailable(SocketParams& sp, LogBase& log);

    // --- closing and state ---

    // bShutdown: shutdown(SHUT_RDWR) before close(), so that the peer sees
    //   the end at once and any read still blocked on the descriptor wakes.
    // bGraceful: on TLS, send close_notify first (only when the session is
    //   intact). The wait for the socket to take it is bounded by
    //   min(timeoutMs, 2000) ms (0: no waiting at all) and by pm's abort; the
    //   peer's close_notify is not awaited.
    // bQuiet: log nothing, even with verbose logging.
    // Always returns true; calling it again is harmless. Buffered bytes are
    // discarded. The object stays usable for a new connect.
    // Through an SSH tunnel only the channel is closed (bShutdown has no
    // meaning there; bGraceful sends close_notify on a TLS session in it and
    // lets the SSH close take up to the same bound); the tunnel stays, even
    // when it is found lost, so that a later connect fails with the reason
    // instead of going around it.
    bool sockClose(bool bShutdown, bool bGraceful, unsigned int timeoutMs, LogBase& log, ProgressMonitor* pm,
                   bool bQuiet);

    // Connected and neither closed by the peer nor broken by an error.
    // checkPeer: also make one non-blocking read to notice a close the
    // peer made since the last call (any data read is kept buffered).
    bool isSock2Connected(bool checkPeer, LogBase& log);
    // True while an SSH tunnel is attached (authenticated or not, with or
    // without an open channel).
    bool isSsh() const { return m_ssh != nullptr; }
    // A TLS session runs directly over this TCP connection (not through an
    // SSH channel).
    bool isNonTunneledTls() const;

    // --- SSH tunnel ---

    // Connects to the SSH server at host:port (resolution, time-out and
    // address handling as socket2Connect) and runs the SSH handshake. When
    // tls.m_sshHostKeyFingerprint is set and the server's host key has
    // another fingerprint, the tunnel is refused before any authentication.
    // Any connection and tunnel held before are let go first. On failure the
    // object holds neither. Flags: m_connectFailed (with m_timedOut,
    // m_aborted or m_connLost when that was the cause).
    bool sshTunnel(XString& host, int port, _clsTls& tls, LogBase& log, SocketParams& sp);
    // Attaches an SSH connection another holder opened (one more reference
    // is taken). channelNum must be kNoSshChannel: channels are opened by
    // socket2Connect, never shared. False for a null ssh or another number.
    static constexpr unsigned kNoSshChannel = static_cast<unsigned>(-1);
    bool takeSshTunnel(SshTransport* ssh, unsigned int channelNum);
    // User authentication on the attached tunnel; see SshTransport.
    bool sshAuthenticatePw(XString& user, XString& password, LogBase& log, SocketParams& sp);
    // rsaSigAlg chooses the signature for an RSA key ("rsa-sha2-256" when
    // null, "rsa-sha2-512", or "ssh-rsa" for old servers); other key types
    // ignore it.
    bool sshAuthenticatePk(XString& user, const char* rsaSigAlg, _zrPublicKey& key, LogBase& log, SocketParams& sp);
    // Closes the open channel as rp says (see SshReadParams) and keeps the
    // tunnel. When the SSH connection turns out to be lost, the tunnel is let
    // go too (isSsh() becomes false) and the result is false. True when
    // there was no channel.
    bool sshCloseChannel(SshReadParams& rp, SocketParams& sp, LogBase& log);
    // Closes any channel, sends the SSH disconnect and closes the TCP
    // connection; shared holders of the tunnel lose it too. True when there
    // was no tunnel.
    bool sshCloseTunnel(SocketParams& sp, LogBase& log);
    // The SSH server's host key fingerprint ("SHA256:..."); false when no
    // tunnel is attached.
    bool getSshHostKeyFingerprint(StringBuffer& out) const;
    SshTransport* getSshTransport() const { return m_ssh; }
    // A channel of the tunnel carries the connection right now.
    bool isSshChannelOpen() const { return m_sshChan != nullptr; }

protected:
    ~Socket2() override;

private:
    explicit Socket2(int code);

    using Wait = net::Wait;
    using Timer = net::IdleTimer;

    enum class Attempt { Connected, Failed, TimedOut, Aborted };

    bool usable(bool forReading, SocketParams& sp, LogBase& log);
    Wait waitFor(int fd, short events, Timer& timer, SocketParams& sp, LogBase& log);
    void waitFailed(Wait w, const char* doing, const Timer& timer, bool reading, SocketParams& sp,
                    LogBase& log);
    void streamFailed(int io, const char* doing, SocketParams& sp, LogBase& log);
    Attempt connectOne(const void* addrInfo, unsigned timeoutMs, _clsTls& tls, SocketParams& sp, LogBase& log,
                       int& err);
    bool tlsHandshake(const char* host, _clsTls& tls, unsigned timeoutMs, SocketParams& sp, LogBase& log);
    void applyOptions(int fd, const _clsTls* tls, LogBase& log);
    bool readSome(unsigned char* buf, unsigned n, unsigned& got, Timer& timer, SocketParams& sp,
                  LogBase& log);
    bool sendAll(const unsigned char* data, unsigned n, Timer& timer, SocketParams& sp, LogBase& log);
    bool fillReadAhead(Timer& timer, SocketParams& sp, LogBase& log);
    int readAheadNow(SocketParams& sp, LogBase& log);
    void lineTooLong(uint64_t lineBytes, SocketParams& sp, LogBase& log);
    void consumeReadAhead(unsigned n);
    unsigned effectiveTimeout(unsigned timeoutMs) const;
    void dropConnection();
    void clearServerCertInfo();
    // The part of a connect that is the same direct and through a tunnel:
    // forgets the last peer, records the new one and checks host and port.
    // `host` (of size `hostSize`) receives the host without brackets.
    bool beginConnect(const StringBuffer& hostIn, int port, const _clsTls& tlsSettings, char* host, std::size_t hostSize,
                      SocketParams& sp, LogBase& log);
    void sendCloseNotify(unsigned timeoutMs, ProgressMonitor* pm, LogBase& log, bool bQuiet);
    bool sshConnectChannel(const StringBuffer& host, int port, bool tls, _clsTls& tlsSettings, unsigned timeoutMs,
                           SocketParams& sp, LogBase& log);
    // Ends the open channel (and a TLS session over it); true when the close
    // completed in time.
    bool closeSshChannel(bool waitForPeer, unsigned timeoutMs, SocketParams& sp, LogBase& log, bool bQuiet);

    int m_creatorCode;
    StringBuffer m_lastHost;
    int m_fd = -1;
    // Owned: a TcpChannel, an SshChannel, or a TlsChannel over either. With
    // an SSH channel, m_fd is the SSH connection's descriptor, borrowed for
    // waiting on and never closed here.
    net::ByteChannel* m_chan = nullptr;
    char m_remote[160] = {0};  // "127.0.0.1:143", for messages
    SshTransport* m_ssh = nullptr;          // one reference held
    net::SshChannel* m_sshChan = nullptr;  // owned; m_chan or under it

    ReadAheadBuffer m_rum;
    // Bytes at the front of m_rum already searched for m_scanMatch without
    // finding it, so a long line is searched once, not once per read.
    unsigned m_rumScanned = 0;
    char m_scanMatch[16] = {0};

    bool m_peerClosed = false;  // end of stream seen
    bool m_broken = false;      // an error left the stream unusable
    int m_waitErrno = 0;        // why the last poll() failed

    unsigned m_idleTimeoutMs = 0;
    bool m_bulkSend = false;
    bool m_corkSend = false;
    int m_optNoDelay = -1;  // -1: never set; else 0/1
    int m_optKeepAlive = -1;
    int m_optSndBuf = 0;
    int m_optRcvBuf = 0;

    SystemCerts m_serverCerts;
    bool m_serverVerified = false;
    char m_verifyError[160] = {0};
};

}  // namespace zr
