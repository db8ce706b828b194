#include "zrimap/base/ImapResultSet.h"

#include <cstring>

#include "zrimap/base/LogBase.h"

namespace zr {

ImapResultSet::~ImapResultSet() = default;

const char* ImapResultSet::getLine(int i) const {
    const StringBuffer* sb = m_lines.sbAt(i);
    return sb ? sb->getString() : "";
}

namespace {

// The status word at p is OK, as a whole word.
bool statusIsOk(const char* p) {
    if ((p[0] != 'O' && p[0] != 'o') || (p[1] != 'K' && p[1] != 'k')) return false;
    const char after = p[2];
    return after == ' ' || after == '\r' || after == '\n' || after == '\0';
}

}  // namespace

bool ImapResultSet::isOK(bool logNonOk, LogBase& log) const {
    const StringBuffer* last = nullptr;
    for (int i = m_lines.getSize() - 1; i >= 0 && !last; --i) last = m_lines.sbAt(i);
    if (!last) return false;

    const char* line = last->getString();
    bool ok = false;
    const size_t tagLen = m_tag.getSize();
    if (tagLen && std::strncmp(line, m_tag.getString(), tagLen) == 0 && line[tagLen] == ' ')
        ok = statusIsOk(line + tagLen + 1);
    else
        ok = statusIsOk(line);  // a status split off its SEARCH line keeps no tag

    if (!ok && logNonOk) log.LogDataSb_copyTrim("imapStatusLine", *last);
    return ok;
}

void ImapResultSet::toStringBuffer(StringBuffer& out) const {
    for (int i = 0; i < m_lines.getSize(); ++i)
        if (const StringBuffer* sb = m_lines.sbAt(i)) out.append(*sb);
}

void ImapResultSet::clear() {
    m_tag.clear();
    m_command.clear();
    m_lines.removeAllSbs();
}

}  // namespace zr
