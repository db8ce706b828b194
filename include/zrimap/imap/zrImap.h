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
class SecurePassword;
class SshTransport;
class _zrPublicKey;
class ImapFlags;
class ImapMsgSummary;

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
    // SSH tunnel: the next connect runs through a direct-tcpip channel of it.
    bool useSshTunnel(SshTransport* ssh, LogBase& log);
    bool sshOpenTunnel(XString& host, int port, _clsTls& tls, LogBase& log, SocketParams& sp);
    bool sshCloseTunnel(SocketParams& sp, LogBase& log);
    bool sshAuthenticatePw(XString& user, XString& password, LogBase& log, SocketParams& sp);
    bool sshAuthenticatePk(XString& user, _zrPublicKey& key, LogBase& log, SocketParams& sp);
    // The SSH server's host key fingerprint ("SHA256:..."); false without a tunnel.
    bool getSshHostKeyFingerprint(StringBuffer& out);
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

    // --- mailboxes (names are sent quoted as given, already encoded) ---
    bool createMailbox(const char* mailbox, ImapResultSet& rs, LogBase& log, SocketParams& sp);
    bool deleteMailbox2(const char* mailbox, ImapResultSet& rs, LogBase& log, SocketParams& sp);
    bool subscribe(const char* mailbox, ImapResultSet& rs, LogBase& log, SocketParams& sp);
    bool unsubscribe(const char* mailbox, ImapResultSet& rs, LogBase& log, SocketParams& sp);
    bool renameMailbox(const char* fromMailbox, const char* toMailbox, ImapResultSet& rs, LogBase& log,
                       SocketParams& sp);
    bool selectMailbox(const char* mailbox, bool bExamine, ImapResultSet& rs, bool& bGotResponse, LogBase& log,
                       SocketParams& sp);
    bool getMailboxStatus(const char* mailbox, ImapResultSet& rs, bool& bGotResponse, LogBase& log,
                          SocketParams& sp);
    bool listImapMailboxes(bool bSubscribedOnly, const char* reference, const char* pattern, ImapResultSet& rs,
                           LogBase& log, SocketParams& sp);

    // --- message operations (message sets are sent as given) ---
    bool setFlagForMsgSet(const char* msgSet, bool bUid, bool bValue, const char* flagName, ImapResultSet& rs,
                          LogBase& log, SocketParams& sp);
    bool setFlag_u(unsigned msgId, bool bUid, bool bValue, const char* flagName, ImapResultSet& rs, LogBase& log,
                   SocketParams& sp);
    bool storeFlags_u(unsigned msgId, bool bUid, bool bAdd, const char* flagList, ImapResultSet& rs, LogBase& log,
                      SocketParams& sp);
    bool setDeleteFlag_u(unsigned seqNum, ImapResultSet& rs, LogBase& log, SocketParams& sp);
    bool uidSetDeleteFlag_u(unsigned uid, ImapResultSet& rs, LogBase& log, SocketParams& sp);
    bool copySet(const char* msgSet, bool bUid, const char* toMailbox, ImapResultSet& rs, LogBase& log,
                 SocketParams& sp);
    bool copy_u(unsigned msgId, bool bUid, const char* toMailbox, ImapResultSet& rs, LogBase& log, SocketParams& sp);
    bool moveMessages(const char* msgSet, bool bUid, const char* toMailbox, ImapResultSet& rs, LogBase& log,
                      SocketParams& sp);
    bool searchOrSortImap(bool bUid, const char* command, const char* charset, const char* sortOrThreadArg,
                          const char* criteria, ImapResultSet& rs, LogBase& log, SocketParams& sp);
    bool appendMime(const char* mailbox, const char* mimeText, const char* date, bool bSeen, bool bDeleted,
                    bool bFlagged, bool bAnswered, bool bDraft, ExtPtrArraySb& completionLines, ImapResultSet& rs,
                    LogBase& log, SocketParams& sp);
    bool fetchFlags_u(unsigned msgId, bool bUid, ImapResultSet& rs, LogBase& log, SocketParams& sp);
    bool fetchAllFlags(ImapResultSet& rs, LogBase& log, SocketParams& sp);
    bool fetchMultipleSummaries(const char* msgSet, bool bUid, const char* fetchItems, ImapResultSet& rs,
                                LogBase& log, SocketParams& sp);
    bool fetchSummary_u(unsigned msgId, bool bUid, const char* fetchItems, ImapResultSet& rs, LogBase& log,
                        SocketParams& sp);

    bool fetchMsgSummary_u(unsigned msgId, bool bUid, const char* fetchItems, ImapMsgSummary& summary,
                           SocketParams& sp, LogBase& log);

    // --- message download (mime receives the raw bytes; bOk: the server said OK) ---
    bool parseFlagsAndSize(StringBuffer& text, unsigned int& size, ImapFlags& flags, StringBuffer& internalDate,
                           LogBase& log);
    bool fetchComplete_u(unsigned int msgId, bool bUid, ImapMsgSummary* summary, ImapFlags& flags,
                         StringBuffer& internalDate, StringBuffer& responseText, DataBuffer& mime, bool& bOk,
                         SocketParams& sp, LogBase& log);
    bool fetchCompleteWithAttachments_u(unsigned int msgId, bool bUid, ImapFlags& flags, StringBuffer& internalDate,
                                        StringBuffer& responseText, DataBuffer& mime, bool& bOk, SocketParams& sp,
                                        LogBase& log);
    bool getCompleteFetchResponse(const char* tag, ImapFlags& flags, StringBuffer& internalDate,
                                  StringBuffer& responseText, DataBuffer& mime, bool& bOk, SocketParams& sp,
                                  LogBase& log);
    bool fetchCompleteWithoutAttachments_u(unsigned int msgId, bool bUid, ImapMsgSummary& summary, ImapFlags& flags,
                                           StringBuffer& internalDate, StringBuffer& responseText, DataBuffer& mime,
                                           bool& bOk, SocketParams& sp, LogBase& log);
    bool getCompleteFetchResponse2(const char* tag, StringBuffer& partSpec, ImapFlags& flags,
                                   StringBuffer& internalDate, StringBuffer& responseText, DataBuffer& mime,
                                   bool& bOk, SocketParams& sp, LogBase& log);
    bool combineFetchParts(DataBuffer& topHeader, DataBuffer& partMimeHeader, DataBuffer& partBody,
                           DataBuffer& out, LogBase& log);
    bool fetchAttachment_u(unsigned int msgId, bool bUid, const char* partSpec, StringBuffer& responseText,
                           DataBuffer& data, bool& bOk, SocketParams& sp, LogBase& log);
    bool getFetchAttachmentResponse(const char* tag, const char* stopString, StringBuffer& responseText,
                                    DataBuffer& data, bool& bOk, SocketParams& sp, LogBase& log);

    // --- IDLE monitoring ---
    // Collects what the server pushed while idling, waiting at most
    // timeoutMs for the first line (0 or less: only what is already there),
    // as "<idle>...</idle>".
    bool idleCheck(int timeoutMs, XString& xmlOut, SocketParams& sp, LogBase& log);
    bool parseAddIdleResponseLine(StringBuffer& line, XString& xml, LogBase& log);

    // --- authentication (the caller's password is wiped once it is copied) ---
    bool loginImap(XString& login, SecurePassword& password, ImapResultSet& rs, LogBase& log, SocketParams& sp);
    bool capability(StringBuffer& out, LogBase& log, SocketParams& sp);
    bool logout(StringBuffer& responseLine, SocketParams& sp, LogBase& log);
    bool authenticatePlain(XString& authzId, XString& login, SecurePassword& password, ImapResultSet& rs,
                           LogBase& log, SocketParams& sp);
    bool xoauth2Imap(XString& login, SecurePassword& token, ImapResultSet& rs, LogBase& log, SocketParams& sp);
    bool authenticateCramMd5(XString& login, SecurePassword& password, StringBuffer& finalResponse, LogBase& log,
                             SocketParams& sp);
    bool authenticateDigestMd5(XString& login, SecurePassword& password, StringBuffer& response, LogBase& log,
                               SocketParams& sp);
    bool authenticateNTLM(XString& login, SecurePassword& password, XString& domain, StringBuffer& finalResponse,
                          LogBase& log, SocketParams& sp);

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
    // A command whose text is `verb`, one blank and one quoted mailbox name.
    bool runMailboxCommand(const char* verb, const char* mailbox, const char* sendError, ImapResultSet& rs,
                           LogBase& log, SocketParams& sp);
    // sendTaggedCommand, then the complete response into rs. With
    // `abortInfo`, an abort reported right after sending is logged as that
    // information and the response is left unread. `joinLiterals` collects
    // with getCompleteResponse2.
    bool runTaggedCommand(const char* name, const StringBuffer& text, const char* sendError, ImapResultSet& rs,
                          LogBase& log, SocketParams& sp, const char* abortInfo = nullptr,
                          bool joinLiterals = false);
    // The fetch command pattern: tag, line, last command, session log, send,
    // "ImapCmdSent", and the abort check that leaves the response unread.
    // True when the command is out and the caller should read the response.
    bool sendFetchCommand(unsigned int msgId, bool bUid, const char* items, StringBuffer& tag, LogBase& log,
                          SocketParams& sp);
    // Completes a literal of n bytes in out (its room already reserved):
    // bytes the line reader holds first, then receives; surplus bytes go
    // back to the socket. Reports `failure` (or the no-connection message)
    // and returns false when the bytes do not arrive. With verbose logging,
    // the time taken is logged under `elapsedKey`.
    bool receiveLiteral(unsigned int n, DataBuffer& out, const char* socketContext, const char* failure,
                        const char* elapsedKey, LogBase& log, SocketParams& sp);
    // Records the "(n bytes)" marker that stands for a literal in the
    // session log and the progress events.
    void recordLiteralMarker(unsigned int n, LogBase& log, SocketParams& sp);
    // The raw-command steps common to its three variants.
    bool sendRawLine(const StringBuffer& input, ImapResultSet& result, StringBuffer& tag, LogBase& log,
                     SocketParams& sp);
    // The SASL exchanges write their lines straight to the transport.
    bool sendAuthLine(const StringBuffer& text, LogBase& log, SocketParams& sp);
    // Session log, "ImapCmdResp" progress and `logKey` for one line the
    // server sent during an authentication exchange.
    void recordAuthLine(const StringBuffer& line, const char* logKey, LogBase& log, SocketParams& sp);
    void appendBlockHeader(const char* header);
    void appendTextBlock(const char* header, const char* text);
    // Sends "AUTHENTICATE <mechanism>" straight to the transport and reads
    // the challenge into line; false, with the mechanism's numbered
    // failures, unless the server answered "+ ".
    bool startChallengeLogin(const char* mechanism, const char* logStem, StringBuffer& line, LogBase& log,
                             SocketParams& sp);
    void releaseSocket();
    void closeAfterFailure();
    // Logs, reports and session-logs one received line (the per-line
    // bookkeeping of the collectors).
    void recordResponseLine(const StringBuffer& line, bool report, LogBase& log, SocketParams& sp);
    // The abort check made before each response line; disconnects when the
    // application asked to stop.
    bool abortedByApplication(LogBase& log, SocketParams& sp);
    // One response line for a collector: the abort check, then the read.
    // A failed read is reported (quietly for a bare time-out when
    // `quietTimeout` and the caller does not count time-outs as failures).
    bool readCollectorLine(StringBuffer& line, bool quietTimeout, LogBase& log, SocketParams& sp);
};

}  // namespace zr
