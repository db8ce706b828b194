#include "zrimap/base/Progress.h"

namespace zr {

ProgressEvent::~ProgressEvent() = default;

ProgressMonitor::ProgressMonitor(ProgressEvent* sink) : m_sink(sink) {}

void ProgressMonitor::progressInfo(const char* name, const char* value) {
    if (m_sink) m_sink->onProgressInfo(name ? name : "", value ? value : "");
}

bool ProgressMonitor::get_Aborted(LogBase&) {
    if (!m_aborted && m_sink && m_sink->onAbortCheck()) m_aborted = true;
    return m_aborted;
}

}  // namespace zr
