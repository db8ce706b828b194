// The result of one IMAP command: the tag and keyword used and every
// response line, in arrival order, line endings kept.
#pragma once

#include "zrimap/base/ExtPtrArray.h"
#include "zrimap/base/StringBuffer.h"

namespace zr {

class LogBase;

class ImapResultSet {
public:
    ImapResultSet() = default;
    virtual ~ImapResultSet();
    ImapResultSet(const ImapResultSet&) = delete;
    ImapResultSet& operator=(const ImapResultSet&) = delete;

    void setTag(const char* tag) { m_tag.setString(tag); }
    void setCommand(const char* command) { m_command.setString(command); }
    const char* getTag() const { return m_tag.getString(); }
    const char* getCommand() const { return m_command.getString(); }

    ExtPtrArraySb& getArray2() { return m_lines; }
    const ExtPtrArraySb& getArray2() const { return m_lines; }
    int getNumLines() const { return m_lines.getSize(); }
    const char* getLine(int i) const;  // "" when out of range

    // True when the last line completes the command with OK: it begins with
    // the tag, one space and the word OK, or (after a SEARCH status was split
    // off its line) it begins with the word OK itself. The status word is
    // matched without regard to case and must end at a space or line end.
    // With `logNonOk`, a failed check logs the final line under
    // "imapStatusLine" so the server's reason shows in the log.
    bool isOK(bool logNonOk, LogBase& log) const;

    // Every line, concatenated as received (line endings included).
    void toStringBuffer(StringBuffer& out) const;

    void clear();  // tag, command and lines

private:
    StringBuffer m_tag;
    StringBuffer m_command;
    ExtPtrArraySb m_lines;
};

}  // namespace zr
