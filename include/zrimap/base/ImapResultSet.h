// The result of one IMAP command: the tag and keyword used and every
// response line, in arrival order, line endings kept.
#pragma once

#include "zrimap/base/ExtPtrArray.h"
#include "zrimap/base/StringBuffer.h"

namespace zr {

class LogBase;
class ImapMsgSummary;

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

    // Fills `summary` from the first untagged FETCH response line that
    // carries a BODYSTRUCTURE (or a BODY without a section) item, together
    // with the UID, RFC822.SIZE and FLAGS items of that same line. Literals
    // are expected inside their line, as the response collector joins them:
    // the text up to and including "{n}\r\n", then the n bytes, then the
    // rest of the line. `fetchItems` (the item list that was sent, e.g.
    // "(UID BODYSTRUCTURE)") is used only in error reports.
    //
    // Common server deviations from RFC 3501 are accepted: any case, NIL or
    // atoms where strings, lists or numbers belong, bodies that end early,
    // unknown extension values, odd parameter lists. Refused: a multipart
    // without parts, an unterminated string, a literal longer than the rest
    // of its line, and nesting deeper than 64 parenthesised levels. A
    // refusal, or the lack of such a line, gives false with an error logged
    // that names the problem and its byte offset in the line (plus "near"
    // and "fetchItems" data entries); the summary is then left cleared
    // (m_loaded 0, no parts). See ImapMsgSummary.h for the resulting part
    // list and the attachment rule.
    bool parseSummary(ImapMsgSummary& summary, const char* fetchItems, LogBase& log);

    void clear();  // tag, command and lines

private:
    StringBuffer m_tag;
    StringBuffer m_command;
    ExtPtrArraySb m_lines;
};

}  // namespace zr
