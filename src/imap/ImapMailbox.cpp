// Mailbox commands and IDLE: the argument-less commands (NOOP, CHECK,
// STARTTLS, IDLE and its DONE, RFC 2177), with the mailbox family, SELECT,
// EXAMINE, STATUS, LIST, LSUB and IDLE monitoring to follow.
#include <cstring>

#include "zrimap/imap/zrImap.h"

namespace zr {

bool _zrImap::cmdNoArgs(const char* command, ImapResultSet& rs, LogBase& log, SocketParams& sp) {
    if (!command) return false;
    const bool idle = std::strcmp(command, "IDLE") == 0;
    const bool done = std::strcmp(command, "DONE") == 0;
    if (idle) m_idling = true;
    if (done) m_idling = false;

    // IDLE ends at the server's "+ " go-ahead; DONE is untagged and ends at
    // the IDLE command's own completion.
    StringBuffer awaited;
    StringBuffer line;
    if (done) {
        awaited.setString(m_idleTag);
        m_idleTag.clear();
        rs.setTag(awaited.getString());
        line.append("DONE\r\n");
    } else {
        StringBuffer tag;
        getNextTag(tag);
        if (idle) m_idleTag.setString(tag);
        awaited.setString(idle ? "+" : tag.getString());
        rs.setTag(awaited.getString());
        line.append3(tag.getString(), " ", command);
        line.append("\r\n");
    }
    rs.setCommand(command);

    if (!sendCommandLine(line, "Failed to send command", log, sp)) {
        m_idling = false;
        return false;
    }
    if (!getCompleteResponse(awaited.getString(), rs.getArray2(), log, sp, false)) {
        m_idling = false;
        return false;
    }
    return true;
}

}  // namespace zr
