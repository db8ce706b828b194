// Diagnostic logging: the abstract sink the engine writes to, the scoped
// context, and three concrete sinks (discarding, recording, streaming).
#pragma once

#include <cstdio>
#include <iosfwd>
#include <string>
#include <vector>

namespace zr {

class StringBuffer;
class XString;

// Outside code may subclass it: the five virtual operations are the whole
// interface; everything else is built on them.
class LogBase {
public:
    LogBase() = default;
    virtual ~LogBase();
    LogBase(const LogBase&) = delete;
    LogBase& operator=(const LogBase&) = delete;

    // Optional detail is logged only while this is set.
    bool m_verboseLogging = false;

    virtual void logError(const char* text) = 0;
    virtual void logInfo(const char* text) = 0;
    // `timed`: the sink may report how long the context was open.
    virtual void enterContext(const char* name, bool timed) = 0;
    virtual void leaveContext() = 0;
    virtual void logData(const char* name, const char* value) = 0;

    void LogDataLong(const char* name, long value);
    void LogDataSb(const char* name, const StringBuffer& value);
    // Logs a copy without leading and trailing white space and line ends.
    void LogDataSb_copyTrim(const char* name, const StringBuffer& value);
    void LogDataX(const char* name, XString& value);
    // Logs the milliseconds elapsed since startTick (Psdk::getTickCount).
    void LogElapsedMs(const char* name, unsigned startTick);
    // Logs value as "[text]", so that leading and trailing blanks show.
    void LogBracketed(const char* name, const char* text);
};

// Opens a named context for the lifetime of the object.
class LogContextExitor {
public:
    LogContextExitor(LogBase& log, const char* name);
    ~LogContextExitor();
    LogContextExitor(const LogContextExitor&) = delete;
    LogContextExitor& operator=(const LogContextExitor&) = delete;

private:
    LogBase& m_log;
};

// Discards everything; used where failures must not be reported.
class LogNull : public LogBase {
public:
    LogNull() = default;
    // The parent is not written to; the constructor exists so that call
    // sites read as "a silent stand-in for this log".
    explicit LogNull(LogBase& parent);
    void logError(const char*) override {}
    void logInfo(const char*) override {}
    void enterContext(const char*, bool) override {}
    void leaveContext() override {}
    void logData(const char*, const char*) override {}
};

// Records every entry in memory. Tests assert on it; applications can show
// it. Each entry carries the path of the contexts open when it was written,
// joined by '/', e.g. "connectToImapServer/getCompleteResponse".
class MemoryLog : public LogBase {
public:
    enum class Kind { Error, Info, Data, EnterContext, LeaveContext };
    struct Entry {
        Kind kind;
        std::string context;  // path of the enclosing contexts
        std::string name;     // data name or context name; empty otherwise
        std::string value;    // error/info text or data value
    };

    void logError(const char* text) override;
    void logInfo(const char* text) override;
    void enterContext(const char* name, bool timed) override;
    void leaveContext() override;
    void logData(const char* name, const char* value) override;

    const std::vector<Entry>& entries() const { return m_entries; }
    std::vector<std::string> errors() const;
    std::vector<std::string> infos() const;
    bool hasError(const std::string& text) const;
    bool hasInfo(const std::string& text) const;
    // Value of the first (or last) data entry with that name, if any.
    const std::string* firstData(const std::string& name) const;
    const std::string* lastData(const std::string& name) const;
    std::string contextPath() const;  // contexts open right now
    void clear();
    // All entries, one per line: "path: KIND name=value".
    std::string toText() const;

private:
    void add(Kind kind, const char* name, const char* value);
    std::vector<Entry> m_entries;
    std::vector<std::string> m_open;
};

// Writes readable, indented lines to a stream or a file as they arrive.
class StreamLog : public LogBase {
public:
    explicit StreamLog(std::ostream& out);
    // Appends to the file; isOpen() tells whether it could be opened.
    explicit StreamLog(const char* path);
    ~StreamLog() override;
    bool isOpen() const { return m_out != nullptr || m_file != nullptr; }

    void logError(const char* text) override;
    void logInfo(const char* text) override;
    void enterContext(const char* name, bool timed) override;
    void leaveContext() override;
    void logData(const char* name, const char* value) override;

private:
    void line(const std::string& text);
    std::ostream* m_out = nullptr;
    std::FILE* m_file = nullptr;
    struct Open {
        std::string name;
        bool timed;
        unsigned startTick;
    };
    std::vector<Open> m_open;
};

}  // namespace zr
