#include "zrimap/base/SocketParams.h"

#include "zrimap/base/LogBase.h"

namespace zr {

SocketParams::SocketParams(ProgressMonitor* pm) : m_progressMonitor(pm) {}

void SocketParams::initFlags() {
    m_timedOut = m_connLost = m_tlsFailure = m_connectFailed = m_aborted = m_otherError = false;
}

bool SocketParams::hasNonTimeoutError() const {
    return m_connLost || m_tlsFailure || m_connectFailed || m_aborted || m_otherError;
}

bool SocketParams::hasAnyError() const { return m_timedOut || hasNonTimeoutError(); }

bool SocketParams::hasOnlyTimeout() const { return m_timedOut && !hasNonTimeoutError(); }

void SocketParams::logSocketResults(const char* context, LogBase& log) const {
    LogContextExitor ctx(log, context);
    if (m_timedOut) log.logData("timedOut", "true");
    if (m_connLost) log.logData("connectionLost", "true");
    if (m_tlsFailure) log.logData("tlsFailure", "true");
    if (m_connectFailed) log.logData("connectFailed", "true");
    if (m_aborted) log.logData("aborted", "true");
    if (m_otherError) log.logData("otherError", "true");
}

}  // namespace zr
