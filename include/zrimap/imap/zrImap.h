// _zrImap: the IMAP4rev1 protocol engine, one object per server session.
//
// The owner sets its properties and passes a LogBase and a SocketParams into
// every call. Operations return a bool and throw nothing; for command
// operations true means that a complete tagged response was read, and the
// owner judges OK/NO/BAD from the ImapResultSet.
#pragma once

#include "zrimap/base/DataBuffer.h"
#include "zrimap/base/ExtPtrArray.h"
#include "zrimap/base/ImapResultSet.h"
#include "zrimap/base/LogBase.h"
#include "zrimap/base/SocketParams.h"
#include "zrimap/base/StringBuffer.h"
#include "zrimap/base/XString.h"

namespace zr {

class Socket2;
class _clsTls;
class SystemCerts;

class _zrImap {
public:
    _zrImap();
    virtual ~_zrImap();
    _zrImap(const _zrImap&) = delete;
    _zrImap& operator=(const _zrImap&) = delete;

    // --- properties ---
    void getLastCommand(StringBuffer& out) { out.setString(m_lastCommand); }
    void getLastIntermediateResponse(StringBuffer& out) { out.setString(m_lastIntermediateResponse); }
    void getLastAppendedMime(StringBuffer& out) { out.setString(m_lastAppendedMime); }
    void setSsl(bool b) { m_ssl = b; }
    bool getSsl() const { return m_ssl; }
    void setStartTls(bool b) { m_startTls = b; }
    bool getStartTls() const { return m_startTls; }
    bool get_ReadOnly() const { return m_readOnly; }
    // While the selected mailbox is read-only the property cannot be turned off.
    void put_ReadOnly(bool b) { m_readOnly = b || m_selectedReadOnly; }
    unsigned get_NumEmailsInMailbox() const { return m_numEmailsInMailbox; }
    int get_ReadTimeout() { return static_cast<int>(m_readTimeoutMs / 1000); }
    void put_ReadTimeout(int seconds);
    bool isImapConnected(LogBase& log);

    // --- session log (no-ops unless m_keepSessionLog) ---
    void appendRequestToSessionLog(const char* text);
    void appendResponseStartToSessionLog();
    void appendResponseLineToSessionLog(const char* line);
    void appendInfoToSessionLog(const char* text);
    void appendErrorToSessionLog(const char* text);
    void autoTrimSessionLog();

    // --- connection ---
    bool connectToImapServer(StringBuffer const& host, int port, StringBuffer& greeting, _clsTls& tls,
                             SocketParams& sp, LogBase& log);
    void setSoSndBuf(int n, LogBase& log);
    void setSoRcvBuf(int n, LogBase& log);
    bool getRemoteServerCert(SystemCerts* certs);
    bool getRemoteServerCertVerified();
    void imapDisconnect(LogBase& log, SocketParams& sp);
    void ensureImapDisconnect(SocketParams& sp);
    void closeImapSocket();
    void handleSocketFailure();

    // --- commands ---
    void getNextTag(StringBuffer& out);
    bool sendCommand(StringBuffer& cmd, LogBase& log, SocketParams& sp);
    bool sendCommandDb(DataBuffer& data, LogBase& log, SocketParams& sp);
    bool sendRawCommand(const char* cmd, ImapResultSet& result, LogBase& log, SocketParams& sp);
    bool sendRawCommandBinary(DataBuffer& cmd, ImapResultSet& result, LogBase& log, SocketParams& sp);
    bool sendRawCommand_noGetResponse(const char* cmd, ImapResultSet& result, StringBuffer& tag, LogBase& log,
                                      SocketParams& sp);
    bool cmdNoArgs(const char* command, ImapResultSet& rs, LogBase& log, SocketParams& sp);

    // --- response reading ---
    bool getServerResponseLine2(StringBuffer& line, LogBase& log, SocketParams& sp);
    bool getCompleteResponse(const char* tag, ExtPtrArraySb& results, LogBase& log, SocketParams& sp,
                             bool splitSearchStatus);
    bool getCompleteResponse2(const char* tag, ExtPtrArraySb& results, LogBase& log, SocketParams& sp);
    bool getPartialResponse(const char* tagAndSpace, const char* stopString, StringBuffer& out, bool& gotFinalTag,
                            bool& finalIsOk, SocketParams& sp, LogBase& log);
    bool getNResponseBytes(unsigned n, DataBuffer& out, SocketParams& sp, LogBase& log);
    void parseUntaggedResponses(ExtPtrArraySb& lines);

    // --- members, in the order the object lays them out ---
    bool m_idling;
    bool m_keepSessionLog;
    StringBuffer m_sessionLog;
    StringBuffer m_lastCommand;
    StringBuffer m_lastIntermediateResponse;
    StringBuffer m_lastAppendedMime;
    const char* m_noConnectionError;
    StringBuffer m_idleTag;
    unsigned m_numEmailsInMailbox;
    Socket2* m_socket;
    bool m_ssl;
    bool m_startTls;
    bool m_selectedReadOnly;
    bool m_readOnly;
    char m_nextTag[5];  // four letters and a terminator
    StringBuffer m_ntlmScratch;
    bool m_autoDownloadAttachments;
    int m_ownerSetting;  // kept for the owner; the engine never reads it
    unsigned m_readTimeoutMs;

private:
    // Sends a complete command line (ending "\r\n") with the bookkeeping
    // every command does: last command, session log, "ImapCmdSent". On a
    // send failure reports `sendError` and the line under "ImapCommand".
    bool sendCommandLine(StringBuffer& line, const char* sendError, LogBase& log, SocketParams& sp);
    // The shared command pattern: takes a tag, records it and `name` in rs,
    // and sends tag + " " + text + "\r\n" through sendCommandLine. On
    // success `tag` holds the tag used.
    bool sendTaggedCommand(const char* name, const StringBuffer& text, const char* sendError, ImapResultSet& rs,
                           StringBuffer& tag, LogBase& log, SocketParams& sp);
    // sendTaggedCommand, then the complete response into rs.
    bool runTaggedCommand(const char* name, const StringBuffer& text, const char* sendError, ImapResultSet& rs,
                          LogBase& log, SocketParams& sp);
    // The raw-command steps common to its three variants.
    bool sendRawLine(const StringBuffer& input, ImapResultSet& result, StringBuffer& tag, LogBase& log,
                     SocketParams& sp);
    void appendBlockHeader(const char* header);
    void releaseSocket();
    void closeAfterFailure();
    // Logs, reports and session-logs one received line (the per-line
    // bookkeeping of the collectors).
    void recordResponseLine(const StringBuffer& line, bool report, LogBase& log, SocketParams& sp);
    // The abort check made before each response line; disconnects when the
    // application asked to stop.
    bool abortedByApplication(LogBase& log, SocketParams& sp);
    // The collectors' report of a failed line read (silent for a bare
    // time-out when the caller does not count it as a failure).
    void reportLineReadFailure(LogBase& log, SocketParams& sp);
};

}  // namespace zr
