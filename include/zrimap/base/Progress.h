// Progress reporting and cooperative abort.
#pragma once

namespace zr {

class LogBase;

// The application's sink for progress events.
class ProgressEvent {
public:
    virtual ~ProgressEvent();
    // Events such as "ImapCmdSent" and "ImapCmdResp" with their text.
    virtual void onProgressInfo(const char* name, const char* value) = 0;
    // Asked between response lines; true asks the running operation to stop.
    virtual bool onAbortCheck() { return false; }
};

class ProgressMonitor {
public:
    explicit ProgressMonitor(ProgressEvent* sink);  // null: events go nowhere

    void progressInfo(const char* name, const char* value);
    // True once the application has asked to abort (through the sink or
    // abort()); it stays true for the rest of the monitor's life.
    bool get_Aborted(LogBase& log);
    void abort() { m_aborted = true; }
    ProgressEvent* getProgressEvent() const { return m_sink; }

private:
    ProgressEvent* m_sink;
    bool m_aborted = false;
};

}  // namespace zr
