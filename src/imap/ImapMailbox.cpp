// Mailbox commands and IDLE: CREATE, DELETE, RENAME, SUBSCRIBE, UNSUBSCRIBE,
// SELECT, EXAMINE, STATUS, LIST and LSUB (RFC 3501 section 6.3), the
// argument-less commands (NOOP, CHECK, STARTTLS, IDLE and its DONE), and the
// monitoring of an IDLE session (RFC 2177) as a small XML document.
#include <cstring>
#include <string>

#include "ResponseBudget.h"
#include "WireText.h"
#include "zrimap/imap/zrImap.h"
#include "zrimap/net/Socket2.h"

namespace zr {

using wire::appendQuoted;

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

// ---------------------------------------------------------------------------
// The mailbox family

bool _zrImap::runMailboxCommand(const char* verb, const char* mailbox, const char* sendError, ImapResultSet& rs,
                                LogBase& log, SocketParams& sp) {
    StringBuffer text(verb);
    text.appendChar(' ');
    appendQuoted(text, mailbox);
    return runTaggedCommand(verb, text, sendError, rs, log, sp);
}

bool _zrImap::createMailbox(const char* mailbox, ImapResultSet& rs, LogBase& log, SocketParams& sp) {
    return runMailboxCommand("CREATE", mailbox, "Failed to send CREATE command", rs, log, sp);
}

bool _zrImap::deleteMailbox2(const char* mailbox, ImapResultSet& rs, LogBase& log, SocketParams& sp) {
    return runMailboxCommand("DELETE", mailbox, "Failed to send DELETE command", rs, log, sp);
}

bool _zrImap::subscribe(const char* mailbox, ImapResultSet& rs, LogBase& log, SocketParams& sp) {
    return runMailboxCommand("SUBSCRIBE", mailbox, "Failed to send SUBSCRIBE command", rs, log, sp);
}

bool _zrImap::unsubscribe(const char* mailbox, ImapResultSet& rs, LogBase& log, SocketParams& sp) {
    return runMailboxCommand("UNSUBSCRIBE", mailbox, "Failed to send UNSUBSCRIBE command", rs, log, sp);
}

bool _zrImap::renameMailbox(const char* fromMailbox, const char* toMailbox, ImapResultSet& rs, LogBase& log,
                            SocketParams& sp) {
    StringBuffer text("RENAME ");
    appendQuoted(text, fromMailbox);
    text.appendChar(' ');
    appendQuoted(text, toMailbox);
    return runTaggedCommand("RENAME", text, "Failed to send RENAME command", rs, log, sp);
}

// ---------------------------------------------------------------------------
// SELECT, EXAMINE, STATUS, LIST, LSUB

bool _zrImap::selectMailbox(const char* mailbox, bool bExamine, ImapResultSet& rs, bool& bGotResponse,
                            LogBase& log, SocketParams& sp) {
    bGotResponse = false;
    m_numEmailsInMailbox = 0;
    const char* verb = bExamine ? "EXAMINE" : "SELECT";
    StringBuffer text(verb);
    text.appendChar(' ');
    appendQuoted(text, mailbox);
    if (!runTaggedCommand(verb, text, "Failed to send SELECT/EXAMINE command", rs, log, sp)) return false;
    bGotResponse = true;
    if (!rs.isOK(true, log)) return false;
    m_selectedReadOnly = bExamine;
    parseUntaggedResponses(rs.getArray2());
    return true;
}

bool _zrImap::getMailboxStatus(const char* mailbox, ImapResultSet& rs, bool& bGotResponse, LogBase& log,
                               SocketParams& sp) {
    LogContextExitor ctx(log, "getMailboxStatus");
    bGotResponse = false;
    StringBuffer text("STATUS ");
    appendQuoted(text, mailbox);
    text.append(" (MESSAGES RECENT UIDNEXT UIDVALIDITY UNSEEN)");
    // The completion's status is the caller's to read, like the STATUS line.
    if (!runTaggedCommand("STATUS", text, "Failed to send STATUS command", rs, log, sp)) return false;
    bGotResponse = true;
    return true;
}

bool _zrImap::listImapMailboxes(bool bSubscribedOnly, const char* reference, const char* pattern,
                                ImapResultSet& rs, LogBase& log, SocketParams& sp) {
    const char* verb = bSubscribedOnly ? "LSUB" : "LIST";
    StringBuffer text(verb);
    text.appendChar(' ');
    appendQuoted(text, reference ? reference : "");
    text.appendChar(' ');
    appendQuoted(text, pattern && *pattern ? pattern : "%");
    return runTaggedCommand(verb, text, "Failed to send LIST/LSUB command", rs, log, sp);
}

// ---------------------------------------------------------------------------
// Argument-less commands

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

    if (!sendCommandLine(line, "Failed to send command", log, sp) ||
        !getCompleteResponse(awaited.getString(), rs.getArray2(), log, sp, false)) {
        m_idling = false;
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// IDLE monitoring

bool _zrImap::idleCheck(int timeoutMs, XString& xmlOut, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "idleCheck");
    xmlOut.clear();
    xmlOut.appendUtf8("<idle>");

    unsigned wait = timeoutMs > 0 ? static_cast<unsigned>(timeoutMs) : 0;
    if (wait == 0) {
        if (!m_socket) {
            xmlOut.appendUtf8("</idle>");
            return false;
        }
        sp.initFlags();
        if (!m_socket->pollDataAvailable(sp, log)) {
            xmlOut.appendUtf8("</idle>");
            return !sp.hasNonTimeoutError();
        }
        wait = 10;
    }

    bool result = true;
    LogNull quiet;
    StringBuffer line;
    ResponseBudget budget;
    for (;;) {
        if (!m_socket) {
            result = false;
            break;
        }
        line.weakClear();
        sp.initFlags();
        const bool received = m_socket->receiveUntilMatchSb("\r\n", line, wait, sp, quiet);
        // The normal end: the server has nothing more to say for now.
        if (sp.m_timedOut) break;
        if (sp.hasAnyError()) {
            sp.logSocketResults("idleCheck", log);
            result = false;
            break;
        }
        if (!received) {
            appendErrorToSessionLog("Failed to receive IDLE data on socket.");
            closeAfterFailure();
            result = false;
            break;
        }
        line.replaceAllOccurances("\r\r\n", "\r\n");
        wait = 1;  // drain what is already here, then stop
        if (!line.equals("\r\n") && !parseAddIdleResponseLine(line, xmlOut, log))
            log.LogDataSb("idleResponseParseError", line);
        if (!budget.charge(line.getSize())) {
            // A server that never stops pushing must not hold the caller here
            // for ever; what it sends next stays queued for the next check.
            log.logInfo("IDLE data reached the buffer limit; the rest is left for the next check.");
            break;
        }
    }
    xmlOut.appendUtf8("</idle>");
    return result;
}

bool _zrImap::parseAddIdleResponseLine(StringBuffer& line, XString& xml, LogBase& log) {
    (void)log;
    const char* s = line.getString();
    if (line.getSize() < 3 || s[0] != '*') return false;
    // "* N word ...": the blank after the star is assumed, not checked.
    const char* p = s + 2;
    const char* digits = p;
    while (isDigit(*p)) ++p;
    if (p == digits || *p != ' ') return false;
    const std::string n(digits, p);
    const char* word = p + 1;

    StringBuffer element;
    // Five characters decide, so "EXPUNGED" counts as EXPUNGE.
    if (std::strncmp(word, "FETCH", 5) == 0) {
        const char* flags = std::strstr(word, "(FLAGS");
        if (!flags) return false;
        const char* open = flags + 6;
        while (*open == ' ') ++open;
        if (*open != '(') return false;
        const char* close = std::strchr(open + 1, ')');
        if (!close) return false;

        element.append3("<flags seqnum=\"", n.c_str(), "\"");
        if (const char* uid = std::strstr(word, "UID ")) {
            uid += 4;
            while (*uid == ' ') ++uid;
            const char* end = uid;
            while (isDigit(*end)) ++end;
            if (end > uid) {
                element.append(" uid=\"");
                element.appendN(uid, static_cast<unsigned>(end - uid));
                element.append("\"");
            }
        }
        element.appendChar('>');
        StringBuffer inner;
        inner.appendN(open + 1, static_cast<unsigned>(close - open - 1));
        ExtPtrArraySb words;
        inner.split(words, ' ', true, true);
        for (int i = 0; i < words.getSize(); ++i)
            element.append3("<flag>", words.sbAt(i)->getString(), "</flag>");
        element.append("</flags>");
    } else if (std::strncmp(word, "EXPUN", 5) == 0) {
        element.append3("<expunge>", n.c_str(), "</expunge>");
    } else if (std::strncmp(word, "EXIST", 5) == 0) {
        element.append3("<exists>", n.c_str(), "</exists>");
    } else if (std::strncmp(word, "RECEN", 5) == 0) {
        element.append3("<recent>", n.c_str(), "</recent>");
    } else {
        element.append3("<raw>", s, "</raw>");
    }
    return xml.appendSbUtf8(element);
}

}  // namespace zr
