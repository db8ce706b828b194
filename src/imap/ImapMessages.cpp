// Message operations: flag stores (STORE), COPY, MOVE (RFC 6851), SEARCH,
// SORT and THREAD (RFC 5256), APPEND, and the FETCH commands that read flags
// and structure summaries without downloading bodies (RFC 3501 section 6.4).
#include <cstring>
#include <string>

#include "zrimap/auth/Settings.h"
#include "zrimap/base/ImapMsgSummary.h"
#include "zrimap/base/Progress.h"
#include "zrimap/base/StrFunctions.h"
#include "WireText.h"
#include "zrimap/imap/zrImap.h"
#include "zrimap/net/Socket2.h"

namespace zr {

using wire::appendQuoted;
using wire::commandWord;

// ---------------------------------------------------------------------------
// Flag stores

bool _zrImap::setFlagForMsgSet(const char* msgSet, bool bUid, bool bValue, const char* flagName, ImapResultSet& rs,
                               LogBase& log, SocketParams& sp) {
    if (!flagName) {
        log.logError("NULL flag name");
        return false;
    }
    StringBuffer flag(flagName);
    flag.trim2();
    // The test looks at the name as given, so " \Seen" gains a second backslash
    // while "\Seen" does not.
    if (flagName[0] != '$' && flagName[0] != '\\') {
        for (const char* system : {"Seen", "Answered", "Draft", "Flagged", "Deleted"})
            if (flag.equalsIgnoreCase(system)) {
                flag.prepend("\\");
                break;
            }
    }
    StringBuffer trimmedSet(msgSet);
    trimmedSet.trim2();
    if (trimmedSet.isEmpty()) {
        log.logError("Empty message set");
        return false;
    }
    StringBuffer text = commandWord(bUid, "STORE");
    text.append(msgSet);
    text.append(bValue ? " +FLAGS.SILENT (" : " -FLAGS.SILENT (");
    text.append(flag);
    text.appendChar(')');
    return runTaggedCommand("STORE", text, "Failed to send STORE command", rs, log, sp);
}

bool _zrImap::setFlag_u(unsigned msgId, bool bUid, bool bValue, const char* flagName, ImapResultSet& rs,
                        LogBase& log, SocketParams& sp) {
    StringBuffer id;
    id.append(msgId);
    return setFlagForMsgSet(id.getString(), bUid, bValue, flagName, rs, log, sp);
}

bool _zrImap::storeFlags_u(unsigned msgId, bool bUid, bool bAdd, const char* flagList, ImapResultSet& rs,
                           LogBase& log, SocketParams& sp) {
    StringBuffer text = commandWord(bUid, "STORE");
    text.append(msgId);
    text.append(bAdd ? " +FLAGS.SILENT (" : " -FLAGS.SILENT (");
    text.append(flagList);
    text.appendChar(')');
    return runTaggedCommand("STORE", text, "Failed to send STORE command", rs, log, sp);
}

// The two delete shortcuts use the non-silent form: the server's FETCH
// answers land in rs.
bool _zrImap::setDeleteFlag_u(unsigned seqNum, ImapResultSet& rs, LogBase& log, SocketParams& sp) {
    StringBuffer text("STORE ");
    text.append(seqNum);
    text.append(" +FLAGS (\\Deleted)");
    return runTaggedCommand("STORE", text, "Failed to send STORE command", rs, log, sp);
}

bool _zrImap::uidSetDeleteFlag_u(unsigned uid, ImapResultSet& rs, LogBase& log, SocketParams& sp) {
    StringBuffer text("UID STORE ");
    text.append(uid);
    text.append(" +FLAGS (\\Deleted)");
    return runTaggedCommand("STORE", text, "Failed to send STORE command", rs, log, sp,
                            "IMAP set delete flag aborted by application");
}

// ---------------------------------------------------------------------------
// COPY and MOVE

bool _zrImap::copySet(const char* msgSet, bool bUid, const char* toMailbox, ImapResultSet& rs, LogBase& log,
                      SocketParams& sp) {
    StringBuffer text = commandWord(bUid, "COPY");
    text.append(msgSet);
    text.appendChar(' ');
    appendQuoted(text, toMailbox);
    StringBuffer tag;
    const bool sent = sendTaggedCommand("COPY", text, "Failed to send COPY command", rs, tag, log, sp);
    log.LogDataSb("Command", m_lastCommand);
    return sent && getCompleteResponse(tag.getString(), rs.getArray2(), log, sp, false);
}

bool _zrImap::copy_u(unsigned msgId, bool bUid, const char* toMailbox, ImapResultSet& rs, LogBase& log,
                     SocketParams& sp) {
    StringBuffer id;
    id.append(msgId);
    return copySet(id.getString(), bUid, toMailbox, rs, log, sp);
}

bool _zrImap::moveMessages(const char* msgSet, bool bUid, const char* toMailbox, ImapResultSet& rs, LogBase& log,
                           SocketParams& sp) {
    StringBuffer text = commandWord(bUid, "MOVE");
    text.append(msgSet);
    text.appendChar(' ');
    appendQuoted(text, toMailbox);
    return runTaggedCommand("MOVE", text, "Failed to send MOVE command", rs, log, sp);
}

// ---------------------------------------------------------------------------
// SEARCH, SORT, THREAD

bool _zrImap::searchOrSortImap(bool bUid, const char* command, const char* charset, const char* sortOrThreadArg,
                               const char* criteria, ImapResultSet& rs, LogBase& log, SocketParams& sp) {
    if (!command) command = "SEARCH";
    const bool sort = std::strcmp(command, "SORT") == 0;
    const bool thread = std::strcmp(command, "THREAD") == 0;

    StringBuffer tag;
    getNextTag(tag);
    rs.setTag(tag.getString());
    rs.setCommand(command);
    StringBuffer line(tag);
    if (bUid) line.append(" UID");
    line.append3(" ", command, " ");
    if (sort) line.append3("(", sortOrThreadArg, ")");
    if (thread) line.append(sortOrThreadArg);

    StringBuffer cs(charset);
    cs.trim2();
    if (!cs.isEmpty()) {
        if (sort || thread) {
            cs.toUpperCase();
            line.appendChar(' ');
        } else {
            line.append("CHARSET ");
        }
        line.append(cs);
    } else if (sort || thread) {
        line.append("UTF-8 ");  // joined without a blank in front, as servers have always seen it
    }
    line.trim2();
    line.appendChar(' ');
    line.append(criteria);
    line.trim2();

    log.LogDataSb("Command", line);
    line.append("\r\n");
    if (!sendCommandLine(line, "Failed to send SEARCH/SORT command", log, sp)) return false;
    ProgressMonitor* pm = sp.m_progressMonitor;
    if (pm && pm->get_Aborted(log)) {
        log.logInfo("IMAP search aborted by application");
        return false;
    }

    // A slow search over a large mailbox gets its own explanation below.
    const bool savedTimeoutIsFailure = sp.timeoutIsFailure;
    sp.timeoutIsFailure = false;
    const bool complete = getCompleteResponse(tag.getString(), rs.getArray2(), log, sp, true);
    sp.timeoutIsFailure = savedTimeoutIsFailure;
    if (!complete && sp.hasOnlyTimeout()) {
        log.logError("The IMAP server is taking a long time to respond to the SEARCH command.");
        log.logError("It took longer than the value of the Imap.ReadTimeout property.");
        log.logError("It is likely the SEARCH command was over a large mailbox and takes the server quite some time "
                     "to respond.");
        log.logError("Try increasing the value of the Imap.ReadTimeout property.");
    }
    return complete;
}

// ---------------------------------------------------------------------------
// APPEND

namespace {

// Turns the caller's date into the IMAP date-time form as far as a few
// textual repairs go; false when nothing usable is left.
bool fixUpAppendDate(const char* date, StringBuffer& out, LogBase& log) {
    out.setString(date);
    out.replaceFirstOccurance(" (GMT)", " +0000", false);
    out.replaceFirstOccurance(" (BST)", " +0100", false);
    out.replaceFirstOccurance(" (UTC)", " +0000", false);
    if (out.endsWith("GMT") || out.endsWith("UTC")) {
        out.shorten(3);
        out.append("+0000");
    }
    if (out.getSize() <= 9) {
        log.LogDataSb("invalidDate", out);
        return false;
    }
    if (out.charAt(1) == '-') out.prepend(" ");  // the day takes two positions
    return true;
}

}  // namespace

bool _zrImap::appendMime(const char* mailbox, const char* mimeText, const char* date, bool bSeen, bool bDeleted,
                         bool bFlagged, bool bAnswered, bool bDraft, ExtPtrArraySb& completionLines,
                         ImapResultSet& rs, LogBase& log, SocketParams& sp) {
    LogContextExitor ctx(log, "appendMime");

    // The message is trimmed in place (by bounds), so a large upload is
    // copied once: into m_lastAppendedMime, which is then sent.
    const char* mime = mimeText ? mimeText : "";
    size_t mimeLen = std::strlen(mime);
    auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (mimeLen && isSpace(*mime)) ++mime, --mimeLen;
    while (mimeLen && isSpace(mime[mimeLen - 1])) --mimeLen;
    if (mimeLen > 0xFFFFFFF0u - 4) {
        log.logError("MIME message too large to append.");
        return false;
    }

    StringBuffer fixedDate;
    bool haveDate = false;
    if (date && *date) {
        log.logData("date", date);
        haveDate = fixUpAppendDate(date, fixedDate, log);
    }

    StringBuffer tag;
    getNextTag(tag);
    rs.setTag(tag.getString());
    rs.setCommand("APPEND");
    StringBuffer line(tag);
    line.append(" APPEND \"");
    line.append(mailbox);
    line.appendChar('"');
    const char* setFlags[5];
    int n = 0;
    if (bSeen) setFlags[n++] = "\\Seen";
    if (bDeleted) setFlags[n++] = "\\Deleted";
    if (bFlagged) setFlags[n++] = "\\Flagged";
    if (bAnswered) setFlags[n++] = "\\Answered";
    if (bDraft) setFlags[n++] = "\\Draft";
    for (int i = 0; i < n; ++i) line.append2(i == 0 ? " (" : " ", setFlags[i]);
    if (n) line.appendChar(')');
    if (haveDate) {
        line.append(" \"");
        line.append(fixedDate);
        line.appendChar('"');
        log.LogBracketed("dateInCommand", fixedDate.getString());
    }
    line.append(" {");
    line.appendUint64(static_cast<uint64_t>(mimeLen) + 2);
    line.append("}\r\n");

    m_lastCommand.setString(line);
    m_lastCommand.shorten(2);
    appendRequestToSessionLog(line.getString());
    if (m_socket) m_socket->setBulkSendBehavior(_zrSettings::m_defaultBulkSendBehavior, true);
    if (!sendCommand(line, log, sp)) {
        log.logError("Failed to send APPEND command");
        log.LogDataSb("ImapCommand", line);
        return false;
    }
    ProgressMonitor* pm = sp.m_progressMonitor;
    if (pm) pm->progressInfo("ImapCmdSent", line.getString());
    if (log.m_verboseLogging) log.LogDataSb_copyTrim("ImapCmdSent", line);

    appendResponseStartToSessionLog();
    StringBuffer first;
    if (!getServerResponseLine2(first, log, sp)) {
        log.logError("Failed to get first APPEND response.");
        return false;
    }
    recordResponseLine(first, true, log, sp);
    m_lastIntermediateResponse.setString(first);

    StringBuffer prefix(tag);
    prefix.appendChar(' ');
    if (first.beginsWith(prefix.getString())) {
        // Refused (or completed) before the literal: the message is not sent.
        const char* status = first.getString() + prefix.getSize();
        if (std::strncmp(status, "BAD", 3) == 0) {
            log.LogDataSb("errorResponse", first);
            if (first.containsSubstringNoCase("Command received in Invalid state"))
                log.logError("Check to make sure the session is in the authenticated state.  It may be that the "
                             "login never happened or failed.");
            return false;
        }
        if (std::strncmp(status, "NO", 2) == 0) log.LogDataSb("errorResponse", first);
        return std::strncmp(status, "OK", 2) == 0;
    }

    // Whatever else came back is taken as the go-ahead.
    m_lastAppendedMime.clear();
    if (!m_lastAppendedMime.expectNumBytes(static_cast<unsigned>(mimeLen) + 4) ||
        !m_lastAppendedMime.appendN(mime, static_cast<unsigned>(mimeLen))) {
        log.logError("Failed to allocate memory for the MIME message.");
        return false;
    }
    bool certified = false;
    if (m_socket) {
        const StringBuffer& host = m_socket->getLastConnectedHost();
        log.LogDataSb("lastConnectedHostname", host);
        const char* domain = _zrSettings::m_certifiedMailProviderDomain;
        certified = domain && *domain && host.containsSubstring(domain);
    }
    log.LogDataLong("mimeLength", static_cast<long>(mimeLen + 2));
    // The first CRLF ends the literal's content, the second the command.
    m_lastAppendedMime.append("\r\n\r\n");
    const bool sent = sendCommand(m_lastAppendedMime, log, sp);
    m_lastAppendedMime.shorten(4);
    if (!sent) {
        log.logError("Failed to send MIME message");
        return false;
    }

    ImapResultSet noop;
    StringBuffer noopTag;
    if (certified && !sendRawCommand_noGetResponse("NOOP", noop, noopTag, log, sp)) return false;

    bool result = getCompleteResponse(tag.getString(), completionLines, log, sp, false);
    if (!result) log.logError("Failed to get complete response after appending MIME.");
    if (certified) result = getCompleteResponse(noopTag.getString(), noop.getArray2(), log, sp, false);
    return result;
}

// ---------------------------------------------------------------------------
// Flag and summary fetches

bool _zrImap::fetchFlags_u(unsigned msgId, bool bUid, ImapResultSet& rs, LogBase& log, SocketParams& sp) {
    StringBuffer text = commandWord(bUid, "FETCH");
    text.append(msgId);
    text.append(" (FLAGS)");
    return runTaggedCommand("FETCH", text, "Failed to send FETCH command", rs, log, sp,
                            "IMAP fetch flags aborted by application");
}

bool _zrImap::fetchAllFlags(ImapResultSet& rs, LogBase& log, SocketParams& sp) {
    return runTaggedCommand("FETCH", StringBuffer("UID FETCH 1:* (FLAGS)"), "Failed to send FETCH command", rs, log,
                            sp, "IMAP fetch all flags aborted by application");
}

bool _zrImap::fetchMultipleSummaries(const char* msgSet, bool bUid, const char* fetchItems, ImapResultSet& rs,
                                     LogBase& log, SocketParams& sp) {
    LogContextExitor ctx(log, "fetchMultipleSummaries");
    StringBuffer text = commandWord(bUid, "FETCH");
    text.append(msgSet);
    text.appendChar(' ');
    text.append(fetchItems);
    return runTaggedCommand("FETCH", text, "Failed to send FETCH command", rs, log, sp,
                            "IMAP fetch aborted by application", true);
}

bool _zrImap::fetchSummary_u(unsigned msgId, bool bUid, const char* fetchItems, ImapResultSet& rs, LogBase& log,
                             SocketParams& sp) {
    // The signed conversion is kept: a number above 2^31 goes out negative.
    char id[12];
    zr_int_to_str(static_cast<int>(msgId), id);
    return fetchMultipleSummaries(id, bUid, fetchItems, rs, log, sp);
}

bool _zrImap::fetchMsgSummary_u(unsigned msgId, bool bUid, const char* fetchItems, ImapMsgSummary& summary,
                                SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "fetchMsgSummary");
    if (msgId == 0 && !bUid) {
        log.logError("Invalid sequence number.  IMAP sequence numbers begin at 1 (not 0).");
        return false;
    }
    char id[12];
    zr_int_to_str(static_cast<int>(msgId), id);
    ImapResultSet rs;
    if (!fetchMultipleSummaries(id, bUid, fetchItems, rs, log, sp)) {
        log.logError("Fetch summary failed.");
        return false;
    }
    if (!rs.isOK(true, log)) {
        log.logError("Non-OK response.");
        log.LogDataLong("msgID", static_cast<long>(msgId));
        log.LogDataLong("bUid", bUid);
        return false;
    }
    if (!rs.parseSummary(summary, fetchItems, log)) {
        log.logError("Parse summary failed.");
        return false;
    }
    return true;
}

}  // namespace zr
