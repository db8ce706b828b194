#include "zrimap/base/LogBase.h"

#include <cstdio>
#include <ostream>
#include <string>

#include "zrimap/base/StrFunctions.h"
#include "zrimap/base/StringBuffer.h"
#include "zrimap/base/XString.h"

namespace zr {

LogBase::~LogBase() = default;

void LogBase::LogDataLong(const char* name, long value) {
    char tmp[24];
    std::snprintf(tmp, sizeof tmp, "%ld", value);
    logData(name, tmp);
}

void LogBase::LogDataSb(const char* name, const StringBuffer& value) { logData(name, value.getString()); }

void LogBase::LogDataSb_copyTrim(const char* name, const StringBuffer& value) {
    StringBuffer copy(value);
    copy.trim2();
    logData(name, copy.getString());
}

void LogBase::LogDataX(const char* name, XString& value) { logData(name, value.getUtf8()); }

void LogBase::LogElapsedMs(const char* name, unsigned startTick) {
    // Unsigned subtraction stays right across the 49-day wrap of the tick count.
    LogDataLong(name, static_cast<long>(Psdk::getTickCount() - startTick));
}

void LogBase::LogBracketed(const char* name, const char* text) {
    std::string v = "[";
    v += text ? text : "";
    v += "]";
    logData(name, v.c_str());
}

LogContextExitor::LogContextExitor(LogBase& log, const char* name) : m_log(log) { m_log.enterContext(name, true); }

LogContextExitor::~LogContextExitor() { m_log.leaveContext(); }

LogNull::LogNull(LogBase&) {}

// --- MemoryLog ---

void MemoryLog::add(Kind kind, const char* name, const char* value) {
    m_entries.push_back(Entry{kind, contextPath(), name ? name : "", value ? value : ""});
}

void MemoryLog::logError(const char* text) { add(Kind::Error, nullptr, text); }
void MemoryLog::logInfo(const char* text) { add(Kind::Info, nullptr, text); }
void MemoryLog::logData(const char* name, const char* value) { add(Kind::Data, name, value); }

void MemoryLog::enterContext(const char* name, bool) {
    add(Kind::EnterContext, name, nullptr);
    m_open.emplace_back(name ? name : "");
}

void MemoryLog::leaveContext() {
    if (m_open.empty()) return;  // unbalanced leave: nothing to close
    const std::string name = m_open.back();
    m_open.pop_back();
    add(Kind::LeaveContext, name.c_str(), nullptr);
}

std::string MemoryLog::contextPath() const {
    std::string path;
    for (const std::string& c : m_open) {
        if (!path.empty()) path += '/';
        path += c;
    }
    return path;
}

std::vector<std::string> MemoryLog::errors() const {
    std::vector<std::string> out;
    for (const Entry& e : m_entries)
        if (e.kind == Kind::Error) out.push_back(e.value);
    return out;
}

std::vector<std::string> MemoryLog::infos() const {
    std::vector<std::string> out;
    for (const Entry& e : m_entries)
        if (e.kind == Kind::Info) out.push_back(e.value);
    return out;
}

bool MemoryLog::hasError(const std::string& text) const {
    for (const Entry& e : m_entries)
        if (e.kind == Kind::Error && e.value == text) return true;
    return false;
}

bool MemoryLog::hasInfo(const std::string& text) const {
    for (const Entry& e : m_entries)
        if (e.kind == Kind::Info && e.value == text) return true;
    return false;
}

const std::string* MemoryLog::firstData(const std::string& name) const {
    for (const Entry& e : m_entries)
        if (e.kind == Kind::Data && e.name == name) return &e.value;
    return nullptr;
}

const std::string* MemoryLog::lastData(const std::string& name) const {
    for (auto it = m_entries.rbegin(); it != m_entries.rend(); ++it)
        if (it->kind == Kind::Data && it->name == name) return &it->value;
    return nullptr;
}

void MemoryLog::clear() {
    m_entries.clear();
    m_open.clear();
}

std::string MemoryLog::toText() const {
    static const char* const kKinds[] = {"ERROR", "INFO", "DATA", "ENTER", "LEAVE"};
    std::string text;
    for (const Entry& e : m_entries) {
        text += e.context.empty() ? "-" : e.context;
        text += ": ";
        text += kKinds[static_cast<int>(e.kind)];
        if (!e.name.empty()) text += " " + e.name;
        if (e.kind != Kind::EnterContext && e.kind != Kind::LeaveContext) text += (e.name.empty() ? " " : "=") + e.value;
        text += "\n";
    }
    return text;
}

// --- StreamLog ---

StreamLog::StreamLog(std::ostream& out) : m_out(&out) {}

StreamLog::StreamLog(const char* path) { m_file = path ? std::fopen(path, "a") : nullptr; }

StreamLog::~StreamLog() {
    if (m_file) std::fclose(m_file);
}

void StreamLog::line(const std::string& text) {
    const std::string full = std::string(m_open.size() * 2, ' ') + text + "\n";
    if (m_out) {
        m_out->write(full.data(), static_cast<std::streamsize>(full.size()));
        m_out->flush();
    } else if (m_file) {
        std::fwrite(full.data(), 1, full.size(), m_file);
        std::fflush(m_file);  // a crash must not swallow the last lines
    }
}

void StreamLog::logError(const char* text) { line(std::string("ERROR: ") + (text ? text : "")); }
void StreamLog::logInfo(const char* text) { line(text ? text : ""); }

void StreamLog::logData(const char* name, const char* value) {
    line(std::string(name ? name : "") + ": " + (value ? value : ""));
}

void StreamLog::enterContext(const char* name, bool timed) {
    line(std::string(name ? name : "") + ":");
    m_open.push_back(Open{name ? name : "", timed, Psdk::getTickCount()});
}

void StreamLog::leaveContext() {
    if (m_open.empty()) return;
    const Open closing = m_open.back();
    m_open.pop_back();
    if (closing.timed)
        line("  (" + closing.name + ": " + std::to_string(Psdk::getTickCount() - closing.startTick) + " ms)");
}

}  // namespace zr
