// Engine core: the session object and its session log, command tags and
// sending (with the shared command pattern every command uses), the
// response reader, raw commands, connect and disconnect.
//
// IMAP4rev1 is RFC 3501; IDLE (whose DONE the argument-less commands send)
// is RFC 2177; STARTTLS is section 6.2.1 of RFC 3501.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "ResponseBudget.h"
#include "zrimap/base/ImapResultSet.h"
#include "zrimap/base/Progress.h"
#include "zrimap/base/StrFunctions.h"
#include "zrimap/imap/zrImap.h"
#include "zrimap/net/Socket2.h"
#include "zrimap/net/Ssh.h"
#include "zrimap/net/TlsSettings.h"

namespace zr {

namespace {

constexpr unsigned kSessionLogTrimAbove = 25000000;
constexpr unsigned kSessionLogKeep = 20000000;
constexpr unsigned kFewBytesLimit = 2048;
// Literal bytes are read straight into their reservation, at most this
// much per receive.
constexpr unsigned kRawReadChunk = 16384;
constexpr unsigned kLiteralHeadroom = 2048;

// A large literal lands in fresh memory, which the kernel otherwise hands
// over one page fault at a time while the receives copy into it: about
// 26,000 faults for 100 MB, costing more CPU than the receives themselves.
// Committing the pages a window ahead of the bytes, in one call per window,
// saves most of that. The window bounds what a server can make us commit
// before it sends anything: a gigabyte announced and never sent costs one
// window. Only a hint: where the kernel declines, pages fault in as before.
class LiteralPrefault {
public:
    LiteralPrefault(const DataBuffer& out, unsigned n) {
#if defined(__linux__) && defined(MADV_POPULATE_WRITE)
        const unsigned have = out.getSize();
        const unsigned end = std::min(n, out.getCapacity());
        if (end <= have || end - have < kFrom) return;
        const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
        m_next = (reinterpret_cast<uintptr_t>(out.getData2() + have) + page - 1) & ~(page - 1);
        m_end = reinterpret_cast<uintptr_t>(out.getData2() + end) & ~(page - 1);
        m_data = reinterpret_cast<uintptr_t>(out.getData2());
#else
        (void)out;
        (void)n;
#endif
    }

    // Keeps between half a window and a window committed beyond the bytes
    // received so far.
    void keepAhead(const DataBuffer& out) {
#if defined(__linux__) && defined(MADV_POPULATE_WRITE)
        if (m_next >= m_end) return;
        const uintptr_t filled = m_data + out.getSize();
        if (filled + kWindow / 2 < m_next) return;
        const uintptr_t upTo = std::min(m_end, std::max(filled, m_next) + kWindow);
        if (madvise(reinterpret_cast<void*>(m_next), upTo - m_next, MADV_POPULATE_WRITE) != 0) {
            m_end = 0;  // not supported here: no second try
            return;
        }
        m_next = upTo;
#else
        (void)out;
#endif
    }

private:
    static constexpr unsigned kFrom = 8u << 20;
    static constexpr uintptr_t kWindow = 4u << 20;

    uintptr_t m_data = 0;
    uintptr_t m_next = 0;
    uintptr_t m_end = 0;
};

const char kLineReadFailed[] = "Failed to get next response line from IMAP server.";
const char kAbortedReading[] = "Aborted when getting response lines from IMAP server.";

void reportProgress(SocketParams& sp, const char* name, const StringBuffer& value) {
    if (ProgressMonitor* pm = sp.m_progressMonitor) pm->progressInfo(name, value.getString());
}

bool appendCopy(ExtPtrArraySb& results, const StringBuffer& line) {
    StringBuffer* copy = StringBuffer::createNewSB(nullptr);
    if (!copy) return false;
    if (!copy->append(line)) {
        StringBuffer::deleteSb(copy);
        return false;
    }
    return results.appendPtr(copy);
}

}  // namespace

// ---------------------------------------------------------------------------
// Session object

_zrImap::_zrImap()
    : m_idling(false),
      m_keepSessionLog(false),
      m_noConnectionError("No connection to IMAP server."),
      m_numEmailsInMailbox(0),
      m_socket(nullptr),
      m_ssl(false),
      m_startTls(false),
      m_selectedReadOnly(false),
      m_readOnly(false),
      m_nextTag{'a', 'a', 'a', 'a', 0},
      m_autoDownloadAttachments(true),
      m_ownerSetting(32767),
      m_readTimeoutMs(60000) {}

_zrImap::~_zrImap() {
    // Only the reference is released: the owner decides about logout and
    // close, and another holder of the socket may still use it.
    releaseSocket();
}

void _zrImap::releaseSocket() {
    if (m_socket) {
        m_socket->decRefCount();
        m_socket = nullptr;
    }
}

void _zrImap::put_ReadTimeout(int seconds) {
    // Unsigned arithmetic, so that no value of seconds is undefined behaviour.
    m_readTimeoutMs = static_cast<unsigned>(seconds) * 1000u;
    if (m_socket) m_socket->put_IdleTimeoutMs(m_readTimeoutMs);
}

bool _zrImap::isImapConnected(LogBase& log) { return m_socket && m_socket->isSock2Connected(true, log); }

// ---------------------------------------------------------------------------
// Session log

void _zrImap::appendBlockHeader(const char* header) {
    if (m_sessionLog.lastChar() != '\n') m_sessionLog.append("\r\n");
    m_sessionLog.append(header);
}

void _zrImap::appendResponseStartToSessionLog() {
    if (!m_keepSessionLog) return;
    appendBlockHeader("----IMAP RESPONSE----\r\n");
    autoTrimSessionLog();
}

void _zrImap::appendResponseLineToSessionLog(const char* line) {
    if (!m_keepSessionLog) return;
    m_sessionLog.append(line);
    autoTrimSessionLog();
}

void _zrImap::appendTextBlock(const char* header, const char* text) {
    if (!m_keepSessionLog) return;
    appendBlockHeader(header);
    m_sessionLog.append(text);
    autoTrimSessionLog();
}

void _zrImap::appendRequestToSessionLog(const char* text) { appendTextBlock("----IMAP REQUEST----\r\n", text); }

void _zrImap::appendInfoToSessionLog(const char* text) { appendTextBlock("----INFO----\r\n", text); }

void _zrImap::appendErrorToSessionLog(const char* text) { appendTextBlock("----ERROR----\r\n", text); }

void _zrImap::autoTrimSessionLog() {
    if (!m_keepSessionLog) return;
    const unsigned size = m_sessionLog.getSize();
    // The cut falls at a byte position, not a line boundary: cheap and bounded.
    if (size > kSessionLogTrimAbove) m_sessionLog.removeChunk(0, size - kSessionLogKeep);
}

// ---------------------------------------------------------------------------
// Tags and sending

void _zrImap::getNextTag(StringBuffer& out) {
    // An odometer over 'a'..'z', last letter least significant; the first
    // tag of an object's life is therefore "aaab". After "zzzz" comes "aaaa".
    for (int i = 3; i >= 0; --i) {
        if (++m_nextTag[i] <= 'z') break;
        m_nextTag[i] = 'a';
    }
    out.setString(m_nextTag);
}

void _zrImap::closeAfterFailure() {
    if (!m_socket) return;
    LogNull quiet;
    m_socket->sockClose(true, false, m_readTimeoutMs, quiet, nullptr, false);
}

bool _zrImap::sendCommand(StringBuffer& cmd, LogBase& log, SocketParams& sp) {
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(cmd.getString());
    const unsigned n = cmd.getSize();
    const bool sent = n <= kFewBytesLimit
                          ? m_socket->s2_sendFewBytes(bytes, n, m_readTimeoutMs, log, sp)
                          : m_socket->s2_sendManyBytes(bytes, n, kFewBytesLimit, m_readTimeoutMs, log, sp);
    if (sent) return true;
    appendErrorToSessionLog("Failed to send to IMAP server.");
    closeAfterFailure();
    return false;
}

bool _zrImap::sendCommandDb(DataBuffer& data, LogBase& log, SocketParams& sp) {
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }
    if (m_socket->s2_sendFewBytes(data.getData2(), data.getSize(), m_readTimeoutMs, log, sp)) return true;
    appendErrorToSessionLog("Failed to send to IMAP server.");
    closeAfterFailure();
    return false;
}

bool _zrImap::sendCommandLine(StringBuffer& line, const char* sendError, LogBase& log, SocketParams& sp) {
    m_lastCommand.setString(line);
    m_lastCommand.shorten(2);
    appendRequestToSessionLog(line.getString());
    if (!sendCommand(line, log, sp)) {
        log.logError(sendError);
        log.LogDataSb("ImapCommand", line);
        return false;
    }
    reportProgress(sp, "ImapCmdSent", line);
    if (log.m_verboseLogging) log.LogDataSb_copyTrim("ImapCmdSent", line);
    return true;
}

bool _zrImap::sendTaggedCommand(const char* name, const StringBuffer& text, const char* sendError,
                                ImapResultSet& rs, StringBuffer& tag, LogBase& log, SocketParams& sp) {
    getNextTag(tag);
    rs.setTag(tag.getString());
    rs.setCommand(name);
    StringBuffer line;
    if (!line.append(tag) || !line.appendChar(' ') || !line.append(text) || !line.append("\r\n")) return false;
    return sendCommandLine(line, sendError, log, sp);
}

bool _zrImap::runTaggedCommand(const char* name, const StringBuffer& text, const char* sendError,
                               ImapResultSet& rs, LogBase& log, SocketParams& sp, const char* abortInfo,
                               bool joinLiterals) {
    StringBuffer tag;
    if (!sendTaggedCommand(name, text, sendError, rs, tag, log, sp)) return false;
    if (abortInfo) {
        ProgressMonitor* pm = sp.m_progressMonitor;
        if (pm && pm->get_Aborted(log)) {
            log.logInfo(abortInfo);
            return false;
        }
    }
    return joinLiterals ? getCompleteResponse2(tag.getString(), rs.getArray2(), log, sp)
                        : getCompleteResponse(tag.getString(), rs.getArray2(), log, sp, false);
}

// ---------------------------------------------------------------------------
// Raw commands

bool _zrImap::sendRawLine(const StringBuffer& input, ImapResultSet& result, StringBuffer& tag, LogBase& log,
                          SocketParams& sp) {
    getNextTag(tag);
    result.setTag(tag.getString());
    result.setCommand("RAW");

    StringBuffer text(input);
    text.trim2();
    StringBuffer line(tag);
    line.appendChar(' ');
    line.append(text);
    m_lastCommand.setString(line);
    line.append("\r\n");
    appendRequestToSessionLog(line.getString());

    bool sent;
    // Every line starts with its tag, so this escape is never taken through
    // these operations; it is kept for lines that might one day be built
    // without one.
    if (line.beginsWith("[replace-nulls]")) {
        line.replaceFirstOccurance("[replace-nulls]", "", false);
        DataBuffer bytes;
        bytes.append(line);
        const unsigned char zero = 0;
        bytes.replaceAllOccurances(reinterpret_cast<const unsigned char*>("<NULL>"), 6, &zero, 1);
        sent = sendCommandDb(bytes, log, sp);
    } else {
        sent = sendCommand(line, log, sp);
    }
    if (!sent) return false;
    reportProgress(sp, "ImapCmdSent", line);
    if (log.m_verboseLogging) log.LogDataSb_copyTrim("ImapCmdSent", line);
    return true;
}

bool _zrImap::sendRawCommand(const char* cmd, ImapResultSet& result, LogBase& log, SocketParams& sp) {
    if (!cmd) return false;
    StringBuffer tag;
    if (!sendRawLine(StringBuffer(cmd), result, tag, log, sp)) return false;
    return getCompleteResponse(tag.getString(), result.getArray2(), log, sp, false);
}

bool _zrImap::sendRawCommandBinary(DataBuffer& cmd, ImapResultSet& result, LogBase& log, SocketParams& sp) {
    if (cmd.getSize() == 0) return false;
    StringBuffer input;
    if (!input.append(cmd)) return false;
    StringBuffer tag;
    if (!sendRawLine(input, result, tag, log, sp)) return false;
    return getCompleteResponse(tag.getString(), result.getArray2(), log, sp, false);
}

bool _zrImap::sendRawCommand_noGetResponse(const char* cmd, ImapResultSet& result, StringBuffer& tag,
                                           LogBase& log, SocketParams& sp) {
    if (!cmd) return false;
    tag.clear();
    return sendRawLine(StringBuffer(cmd), result, tag, log, sp);
}

// ---------------------------------------------------------------------------
// Response reader

bool _zrImap::getServerResponseLine2(StringBuffer& line, LogBase& log, SocketParams& sp) {
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }
    // The flags must describe this read alone, not an earlier call's.
    sp.initFlags();
    const unsigned before = line.getSize();
    bool ok = m_socket->receiveUntilMatchSb("\r\n", line, m_readTimeoutMs, sp, log);
    if (sp.hasAnyError()) {
        sp.logSocketResults("getImapResponseLine", log);
        ok = false;
    }
    if (ok) {
        // Some servers double the carriage return. A line ends at its first
        // CRLF, so in a line read into an empty buffer "\r\r\n" can only be
        // its last three bytes; the whole line is searched (and rebuilt) only
        // when the buffer held text before or the line ends that way.
        const unsigned size = line.getSize();
        const bool doubled =
            before > 0 || (size >= 3 && std::memcmp(line.getString() + size - 3, "\r\r\n", 3) == 0);
        const int repaired = doubled ? line.replaceAllOccurances("\r\r\n", "\r\n") : 0;
        if (repaired > 0 && log.m_verboseLogging) log.LogDataLong("CRCRLF_numReplaced", repaired);
        return true;
    }
    appendErrorToSessionLog("Failed to get command response on socket");
    closeAfterFailure();
    return false;
}

bool _zrImap::abortedByApplication(LogBase& log, SocketParams& sp) {
    ProgressMonitor* pm = sp.m_progressMonitor;
    if (!pm || !pm->get_Aborted(log)) return false;
    log.logError(kAbortedReading);
    appendErrorToSessionLog(kAbortedReading);
    imapDisconnect(log, sp);
    return true;
}

bool _zrImap::readCollectorLine(StringBuffer& line, bool quietTimeout, LogBase& log, SocketParams& sp) {
    if (abortedByApplication(log, sp)) return false;
    line.weakClear();
    if (getServerResponseLine2(line, log, sp)) return true;
    if (quietTimeout && sp.hasOnlyTimeout() && !sp.timeoutIsFailure) return false;  // the caller explains
    log.logError(kLineReadFailed);
    appendErrorToSessionLog(kLineReadFailed);
    return false;
}

void _zrImap::recordResponseLine(const StringBuffer& line, bool report, LogBase& log, SocketParams& sp) {
    appendResponseLineToSessionLog(line.getString());
    if (!report) return;
    reportProgress(sp, "ImapCmdResp", line);
    if (log.m_verboseLogging) log.LogDataSb_copyTrim("ImapCmdResp", line);
}

bool _zrImap::getCompleteResponse(const char* tag, ExtPtrArraySb& results, LogBase& log, SocketParams& sp,
                                  bool splitSearchStatus) {
    LogContextExitor ctx(log, "getCompleteResponse");
    StringBuffer prefix(tag);
    prefix.appendChar(' ');
    appendResponseStartToSessionLog();

    StringBuffer line;
    ResponseBudget budget;
    for (;;) {
        if (!readCollectorLine(line, true, log, sp)) return false;
        if (!budget.charge(line.getSize())) return budget.fail(*this, log);
        recordResponseLine(line, true, log, sp);

        if (line.charAt(0) == '*') {
            if (splitSearchStatus && line.containsSubstring("SEARCH completed")) {
                // "* SEARCH 2 5 aaac OK SEARCH completed": the completion rode
                // on the untagged line.
                StringBuffer separator(" ");
                separator.append(tag);
                separator.appendChar(' ');
                StringBuffer status;
                if (line.getAfterFinal(separator.getString(), true, status)) {
                    log.logInfo("Splitting the status from the SEARCH response.");
                    if (!appendCopy(results, line)) return false;
                    log.LogDataSb("results", line);
                    status.trim2();
                    log.LogDataSb("statusLine", status);
                    return appendCopy(results, status);
                }
            }
            if (!appendCopy(results, line)) return false;
            continue;
        }
        if (!appendCopy(results, line)) return false;
        if (std::strncmp(line.getString(), prefix.getString(), prefix.getSize()) == 0) return true;
    }
}

bool _zrImap::getCompleteResponse2(const char* tag, ExtPtrArraySb& results, LogBase& log, SocketParams& sp) {
    LogContextExitor ctx(log, "getCompleteResponse2");
    StringBuffer prefix(tag);
    prefix.appendChar(' ');
    appendResponseStartToSessionLog();

    StringBuffer line;
    StringBuffer* current = nullptr;  // the untagged line that literal data continues
    ResponseBudget budget;
    for (;;) {
        if (!readCollectorLine(line, true, log, sp)) return false;
        if (!budget.charge(line.getSize())) return budget.fail(*this, log);
        const bool untagged = line.charAt(0) == '*';
        const bool tagged = !untagged && std::strncmp(line.getString(), prefix.getString(), prefix.getSize()) == 0;
        recordResponseLine(line, untagged || tagged, log, sp);

        if (untagged || tagged || !current) {
            if (!appendCopy(results, line)) return false;
            if (tagged) return true;
            current = results.sbAt(results.getSize() - 1);
            continue;
        }
        if (!current->append(line)) return false;
    }
}

bool _zrImap::getPartialResponse(const char* tagAndSpace, const char* stopString, StringBuffer& out,
                                 bool& gotFinalTag, bool& finalIsOk, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "getPartialResponse");
    gotFinalTag = false;
    finalIsOk = false;
    if (!tagAndSpace) return false;
    if (log.m_verboseLogging && stopString) log.logData("stopString", stopString);

    StringBuffer line;
    ResponseBudget budget;
    for (unsigned linesRead = 0;;) {
        if (!readCollectorLine(line, false, log, sp)) return false;  // a time-out is a failure here too
        if (!budget.charge(line.getSize())) return budget.fail(*this, log);
        ++linesRead;
        if (log.m_verboseLogging) log.LogDataSb("sbLine", line);

        if (line.charAt(0) == '*') {
            out.append(line);
            recordResponseLine(line, true, log, sp);
            if (stopString && line.containsSubstring(stopString)) {
                if (log.m_verboseLogging) log.logInfo("Found stop string.");
                return true;
            }
            continue;
        }
        if (std::strncmp(line.getString(), tagAndSpace, 5) == 0) {
            gotFinalTag = true;
            if (log.m_verboseLogging) log.logInfo("Received complete response to final tag line.");
            out.append(line);
            recordResponseLine(line, true, log, sp);
            const char* p = line.getString() + 5;
            while (*p == ' ') ++p;
            finalIsOk = p[0] == 'O' && p[1] == 'K';
            return finalIsOk;
        }
        // Neither untagged nor the completion (literal data, a stray line):
        // tolerated once at the start, otherwise the caller takes over.
        if (linesRead > 1) return true;
        if (log.m_verboseLogging) log.LogDataSb("taggedResponse", line);
    }
}

bool _zrImap::getNResponseBytes(unsigned n, DataBuffer& out, SocketParams& sp, LogBase& log) {
    out.clear();
    const unsigned long long reserve = static_cast<unsigned long long>(n) + kLiteralHeadroom;
    // One reservation for the whole literal: the receives below then fill it
    // in place, without a reallocation or a second copy.
    if (reserve > 0xFFFFFFFFull || !out.ensureBuffer(static_cast<unsigned>(reserve))) {
        log.logError("Failed to allocate memory for IMAP response bytes.");
        // The refused literal is still on its way; nothing after it could be
        // told apart from its bytes.
        closeAfterFailure();
        return false;
    }
    return receiveLiteral(n, out, "imapGetNBYtes", "Failed while receiving IMAP response bytes.", "receiveImapBytes",
                          log, sp);
}

bool _zrImap::receiveLiteral(unsigned int n, DataBuffer& out, const char* socketContext, const char* failure,
                             const char* elapsedKey, LogBase& log, SocketParams& sp) {
    const unsigned start = Psdk::getTickCount();
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }
    m_socket->takeRumBuffered(out);
    LiteralPrefault prefault(out, n);
    while (out.getSize() < n) {
        if (!m_socket) {
            log.logError(m_noConnectionError);
            return false;
        }
        sp.initFlags();
        // Reads stay within the reservation, so the buffer never moves.
        unsigned room = out.getCapacity() - out.getSize();
        if (room == 0 || room > kRawReadChunk) room = kRawReadChunk;
        prefault.keepAhead(out);
        const bool received = m_socket->receiveBytes2a(out, room, m_readTimeoutMs, sp, log);
        if (sp.hasAnyError()) sp.logSocketResults(socketContext, log);
        if (!received) {
            log.logError(failure);
            // The rest of the literal would be read as response lines.
            closeAfterFailure();
            return false;
        }
    }
    if (log.m_verboseLogging) log.LogElapsedMs(elapsedKey, start);
    if (out.getSize() > n) {
        // The bytes after the literal belong to the next line.
        const unsigned surplus = out.getSize() - n;
        m_socket->addRumBuffered(out.getData2() + n, surplus);
        out.shorten(surplus);
    }
    return true;
}

void _zrImap::parseUntaggedResponses(ExtPtrArraySb& lines) {
    for (int i = 0; i < lines.getSize(); ++i) {
        const StringBuffer* line = lines.sbAt(i);
        if (!line || line->getSize() == 0 || line->charAt(0) != '*' || !line->containsSubstring("EXISTS")) continue;
        StringBuffer copy(*line);
        copy.trim2();
        if (!copy.endsWith("EXISTS") || copy.getSize() < 3) continue;
        int count = 0;
        if (_zrStdio::_zrSscanf1(copy.getString() + 2, "%d", &count) == 1)
            m_numEmailsInMailbox = static_cast<unsigned>(count);
    }
}

// ---------------------------------------------------------------------------
// Connect and disconnect

bool _zrImap::connectToImapServer(StringBuffer const& host, int port, StringBuffer& greeting, _clsTls& tls,
                                  SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "connectToImapServer");
    sp.initFlags();
    if (port == 0) port = 143;
    m_idling = false;
    m_numEmailsInMailbox = 0;
    log.LogDataSb("hostname", host);
    log.LogDataLong("port", port);
    if (m_keepSessionLog) {
        StringBuffer info("Connecting to IMAP server at ");
        info.append(host);
        info.appendChar(':');
        info.append(port);
        appendInfoToSessionLog(info.getString());
    }
    sp.m_sendSni = true;
    sp.m_tryAllAddresses = true;
    sp.m_soSndBuf = tls.m_soSndBuf;

    imapDisconnect(log, sp);
    if (!m_socket) {
        m_socket = Socket2::createNewSocket2(16);
        if (!m_socket) return false;
        m_socket->incRefCount();
    }

    if (!m_socket->socket2Connect(host, port, m_ssl, tls, m_readTimeoutMs, sp, log)) {
        if (!m_socket->isSsh()) releaseSocket();
        appendErrorToSessionLog("Connect Failed.");
        log.LogDataLong("failReason", 0);
        return false;
    }

    m_socket->setTcpNoDelay(true, log);
    m_socket->SetKeepAlive(true, log);
    if (tls.m_soRcvBuf != 0) m_socket->setSoRcvBuf(tls.m_soRcvBuf, log);
    if (tls.m_soSndBuf != 0) m_socket->setSoSndBuf(tls.m_soSndBuf, log);
    m_socket->logSocketOptions(log);
    appendResponseStartToSessionLog();
    m_socket->logConnectionType(log);

    greeting.clear();
    if (!getServerResponseLine2(greeting, log, sp)) {
        log.logError("Failed to get greeting.");
        appendErrorToSessionLog("Connect Failed (3)");
        return false;
    }
    recordResponseLine(greeting, true, log, sp);
    if (!m_startTls) return true;

    ImapResultSet rs;
    const bool completed = cmdNoArgs("STARTTLS", rs, log, sp);
    StringBuffer answer;
    rs.toStringBuffer(answer);
    answer.trim2();
    log.LogDataSb("startTlsResponse", answer);
    // A refusal is not checked here on purpose: it shows up as a failed
    // handshake, which names the problem better than the server's text.
    if (!completed || !m_socket) return false;
    log.LogDataSb("SslProtocol", tls.m_sslProtocol);
    return m_socket->convertToTls(host, tls, m_readTimeoutMs, sp, log);
}

void _zrImap::setSoSndBuf(int n, LogBase& log) {
    if (n != 0 && m_socket) m_socket->setSoSndBuf(n, log);
}

void _zrImap::setSoRcvBuf(int n, LogBase& log) {
    if (n != 0 && m_socket) m_socket->setSoRcvBuf(n, log);
}

bool _zrImap::getRemoteServerCert(SystemCerts* certs) {
    return m_socket && m_socket->getRemoteServerCerts(certs, nullptr);
}

bool _zrImap::getRemoteServerCertVerified() { return m_socket && m_socket->getRemoteServerCertVerified(); }

void _zrImap::imapDisconnect(LogBase& log, SocketParams& sp) {
    m_idling = false;
    m_numEmailsInMailbox = 0;
    if (!m_socket) return;
    appendInfoToSessionLog("Disconnecting...");
    if (m_socket->isSsh()) {
        // Only the channel goes; the tunnel stays for the next connect.
        if (log.m_verboseLogging) log.logInfo("Closing the SSH channel, if it exists.");
        SshReadParams rp;
        rp.m_waitForPeerClose = true;
        rp.m_timeoutMs = SshReadParams::closeTimeoutFor(m_readTimeoutMs);
        rp.m_rawTimeoutMs = m_readTimeoutMs;
        m_socket->sshCloseChannel(rp, sp, log);
        if (m_socket->isSsh()) return;
        log.logError("Lost SSH tunnel when closing the channel.");
        m_socket->sockClose(true, true, m_readTimeoutMs, log, sp.m_progressMonitor, false);
        releaseSocket();
        return;
    }
    log.logInfo("Closing the non-SSH tunneled IMAP connection.");
    m_socket->sockClose(true, true, m_readTimeoutMs, log, sp.m_progressMonitor, false);
    releaseSocket();
}

void _zrImap::ensureImapDisconnect(SocketParams& sp) {
    appendInfoToSessionLog("Disconnecting if already connected.");
    LogNull quiet;
    imapDisconnect(quiet, sp);
}

void _zrImap::closeImapSocket() {
    if (!m_socket) return;
    LogNull quiet;
    m_socket->sockClose(true, true, m_readTimeoutMs, quiet, nullptr, false);
    releaseSocket();
}

void _zrImap::handleSocketFailure() { closeAfterFailure(); }

}  // namespace zr
