// Per-call transport parameters: the caller's progress monitor, switches the
// connect operation sets, and the flags the transport sets after each call.
#pragma once

namespace zr {

class LogBase;
class ProgressMonitor;

class SocketParams {
public:
    explicit SocketParams(ProgressMonitor* pm);  // null allowed

    ProgressMonitor* m_progressMonitor;

    // Switches the engine's connect turns on. m_sendSni: the TLS handshake
    // names the host (SNI). m_tryAllAddresses: every address a host name
    // resolves to is tried in turn until one accepts.
    bool m_sendSni = true;
    bool m_tryAllAddresses = true;

    int m_soSndBuf = 0;  // send-buffer size copied from the TLS settings at connect

    // When false, a read that ends only by time-out makes the response
    // collectors return false without an error message of their own.
    bool timeoutIsFailure = true;

    // Set by the transport on every call; reset with initFlags().
    bool m_timedOut = false;
    bool m_connLost = false;
    bool m_tlsFailure = false;
    bool m_connectFailed = false;
    bool m_aborted = false;
    bool m_otherError = false;

    ProgressMonitor* getProgressMonitor() const { return m_progressMonitor; }

    void initFlags();
    bool hasAnyError() const;
    bool hasOnlyTimeout() const;
    bool hasNonTimeoutError() const;
    // Logs the flags that are set, inside a context called `context`.
    void logSocketResults(const char* context, LogBase& log) const;
};

}  // namespace zr
