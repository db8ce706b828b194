// zrimap's public API: an IMAP client session for C++ applications.
//
// One ImapClient holds one connection. Every operation runs to completion
// on the calling thread and returns a Status or a Result<T>; a failure
// carries the reason in words (the library's own message, or the server's
// NO/BAD text), never a bare false.
//
//   zr::ImapClient client;
//   auto settings = zr::ServerSettings::fromUrl("imaps://alice@mail.example.org/INBOX");
//   settings.value().password = "secret";
//   if (auto st = client.connect(settings.value()); !st) { std::cerr << st.message() << "\n"; return 1; }
//   auto box = client.select("INBOX");
//   auto uids = client.search("UNSEEN");
//   for (uint32_t uid : uids.value()) {
//       auto msg = client.fetchMessage(uid);
//       ...msg.value().mime...
//   }
//   client.logout();
//
// Certificates are verified by default (the system's store, or caFile);
// turning that off is an explicit choice (verifyCertificate = false).
// Mailbox names are UTF-8 in this API; they are encoded to IMAP's modified
// UTF-7 on the way out and decoded on the way in.
//
// Failures and the connection: a server refusal (NO/BAD) leaves the session
// as it was. A command that did not complete (connection lost, time-out,
// abort through ProgressCallbacks) leaves it in an unknown state, so the
// connection is closed; isConnected() tells, and later calls fail with "Not
// connected to a server". One ImapClient is used by one thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace zr {

class _zrImap;
struct ImapClientTesting;

// ---------------------------------------------------------------------------
// Results

class Status {
public:
    Status() = default;  // success
    static Status failure(std::string message) { return Status(std::move(message)); }
    bool ok() const { return !m_failed; }
    explicit operator bool() const { return ok(); }
    // Why it failed; empty on success.
    const std::string& message() const { return m_message; }

private:
    explicit Status(std::string message) : m_failed(true), m_message(std::move(message)) {}
    bool m_failed = false;
    std::string m_message;
};

template <class T>
class Result {
public:
    Result(T value) : m_value(std::move(value)) {}  // NOLINT: implicit by design
    Result(Status failure) : m_status(std::move(failure)) {}  // NOLINT
    bool ok() const { return m_value.has_value(); }
    explicit operator bool() const { return ok(); }
    // Only when ok().
    T& value() { return *m_value; }
    const T& value() const { return *m_value; }
    T* operator->() { return &*m_value; }
    const T* operator->() const { return &*m_value; }
    const std::string& message() const { return m_status.message(); }
    const Status& status() const { return m_status; }

private:
    std::optional<T> m_value;
    Status m_status;
};

// ---------------------------------------------------------------------------
// Settings

enum class Security {
    Tls,       // implicit TLS (imaps, port 993)
    StartTls,  // plain connection upgraded with STARTTLS (port 143); refused if the upgrade fails
    Plain      // no encryption at all (port 143)
};

// Auto in detail: XOAUTH2 when the password is recognisably OAuth2 (a
// client-credentials JSON object "{...}" or a "Bearer ..." token; a bare
// token cannot be told from a password, so choose XOAuth2 explicitly for
// one); PLAIN when an authzId is set; otherwise CRAM-MD5, PLAIN, LOGIN in
// that order of preference among what the server announces. LOGIN is never
// sent to a server announcing LOGINDISABLED, nor with a user name or
// password containing '"' or '\' (the command would not carry them intact).
// An explicitly chosen SASL mechanism the server does not announce is
// refused before anything is sent. Clear-text mechanisms travel only over
// TLS, or over a connection the application made Security::Plain.
enum class AuthMechanism {
    Auto,  // the strongest the server offers: XOAUTH2 (when a token is set), CRAM-MD5, PLAIN, LOGIN
    Login,
    Plain,
    CramMd5,
    DigestMd5,
    Ntlm,
    XOAuth2
};

// With ServerSettings::ssh set, connect() opens the SSH connection, checks
// the host key, logs in (key file when given, else password) and reaches
// ServerSettings::host:port through a direct-tcpip channel; TLS or STARTTLS
// then run inside the channel as usual. logout() and disconnect() close the
// tunnel with the session.
struct SshSettings {
    std::string host;
    int port = 22;
    std::string user;
    std::string password;                 // either a password...
    std::string privateKeyFile;           // ...or a key file (OpenSSH or PEM)
    std::string privateKeyPassphrase;
    std::string hostKeyFingerprint;       // "SHA256:..."; when set, any other key is refused
};

struct ServerSettings {
    std::string host;
    int port = 0;  // 0: 993 for Tls, 143 otherwise
    Security security = Security::Tls;
    bool verifyCertificate = true;
    std::string caFile;  // PEM; empty: the system's trusted certificates

    std::string user;
    std::string password;       // or, for XOAuth2, the access token or a client-credentials JSON
    std::string authzId;        // PLAIN authorisation identity (usually empty)
    std::string ntlmDomain;
    AuthMechanism mechanism = AuthMechanism::Auto;

    std::string mailbox;  // from a URL's path; not opened by connect()
    int timeoutSeconds = 60;
    std::optional<SshSettings> ssh;

    // imap://[user@]host[:port][/mailbox] gives Security::StartTls,
    // imaps://[user@]host[:port][/mailbox] gives Security::Tls (set
    // security to Plain afterwards to go without encryption). IPv6 hosts in
    // brackets. User and mailbox are percent-decoded. A password in the URL
    // ("user:pw@") is refused, to keep it out of shell histories and process
    // lists.
    // Also understood: ";AUTH=<mechanism>" after the user (RFC 5092, "*" for
    // Auto). Refused with a reason: other schemes, queries and fragments,
    // message references (";UID=" ...), malformed percent-escapes, ports
    // outside 1-65535, and user or mailbox text that is not UTF-8.
    static Result<ServerSettings> fromUrl(const std::string& url);
};

// ---------------------------------------------------------------------------
// Values

using Flags = std::set<std::string>;  // "\\Seen", "$Forwarded", ... as the server spells them

struct MailboxEntry {
    std::string name;     // UTF-8
    std::string rawName;  // as on the wire (modified UTF-7)
    std::string delimiter;  // empty when the server has none
    std::vector<std::string> attributes;  // "\\HasNoChildren", "\\Noselect", ...
    bool selectable() const;
};

struct MailboxStatus {
    uint32_t messages = 0;
    uint32_t recent = 0;
    uint32_t uidNext = 0;
    uint32_t uidValidity = 0;
    uint32_t unseen = 0;
};

struct SelectedMailbox {
    std::string name;
    uint32_t exists = 0;
    uint32_t uidValidity = 0;
    uint32_t uidNext = 0;
    bool readOnly = false;
    Flags flags;  // the FLAGS the mailbox knows
};

struct MessagePart {
    std::string partId;  // "1", "2.1", ... ("" for the root container)
    std::string type;    // lower case, e.g. "text"
    std::string subtype; // lower case, e.g. "plain"
    std::string charset;
    std::string filename;  // the disposition's filename, else the type's name
    std::string encoding;  // content-transfer-encoding, lower case
    uint64_t size = 0;
    bool isAttachment = false;
};

struct Message {
    uint32_t uid = 0;
    std::vector<uint8_t> mime;  // the raw RFC 5322 message
    Flags flags;
    std::string internalDate;   // e.g. "17-Jul-1996 02:44:25 -0700"
    bool attachmentsLeftOut = false;  // fetched without attachments
};

struct IdleEvent {
    enum class Kind { Exists, Expunge, Recent, Flags, Other };
    Kind kind = Kind::Other;
    uint32_t number = 0;           // message count (Exists, Recent) or sequence number
    std::optional<uint32_t> uid;   // Flags: when the server named it
    Flags flags;                   // Flags: the new flags
    std::string raw;               // Other: the line as received
};

// Progress events ("ImapCmdSent", "ImapCmdResp", "fetchBytes", ...) and an
// abort check polled between response lines and during long transfers.
struct ProgressCallbacks {
    std::function<void(const std::string& name, const std::string& value)> onEvent;
    std::function<bool()> shouldAbort;
};

// ---------------------------------------------------------------------------
// The client

class ImapClient {
public:
    ImapClient();
    ~ImapClient();
    ImapClient(const ImapClient&) = delete;
    ImapClient& operator=(const ImapClient&) = delete;

    // Connects (through the SSH tunnel when settings.ssh is set), upgrades
    // with STARTTLS when asked, checks the certificate, and logs in with the
    // chosen mechanism. The password in settings is not kept.
    Status connect(const ServerSettings& settings);
    bool isConnected();
    std::vector<std::string> capabilities();  // as the server announced them, upper case
    bool hasCapability(const std::string& name);
    Status logout();  // LOGOUT, then closes the connection
    void disconnect();

    // Mailboxes (UTF-8 names). Names containing '"' or '\' are refused with
    // a Status: the commands carry names as quoted strings without escapes.
    Result<std::vector<MailboxEntry>> listMailboxes(const std::string& pattern = "*", bool subscribedOnly = false,
                                                    const std::string& reference = "");
    Status createMailbox(const std::string& name);
    Status deleteMailbox(const std::string& name);
    Status renameMailbox(const std::string& from, const std::string& to);
    Status subscribe(const std::string& name);
    Status unsubscribe(const std::string& name);
    Result<MailboxStatus> status(const std::string& name);
    Result<SelectedMailbox> select(const std::string& name);
    Result<SelectedMailbox> examine(const std::string& name);

    // Messages, by UID in the selected mailbox. Downloading a message or a
    // part of a mailbox opened with select() marks it \Seen, as reading it
    // would; in one opened with examine() nothing changes. search() gives
    // the UIDs in ascending order; an empty criteria text means "ALL", and
    // non-ASCII criteria are sent with CHARSET UTF-8 unless a charset is
    // given. An empty list of UIDs (or of flags) is done at once, sending
    // nothing.
    Result<std::vector<uint32_t>> search(const std::string& criteria, const std::string& charset = "");
    Result<Message> fetchMessage(uint32_t uid, bool withoutAttachments = false);
    Result<std::vector<MessagePart>> fetchStructure(uint32_t uid);
    // The part's bytes; with decode, its transfer encoding (base64,
    // quoted-printable) is undone.
    Result<std::vector<uint8_t>> fetchPart(uint32_t uid, const std::string& partId, bool decode = true);
    Result<Flags> fetchFlags(uint32_t uid);
    Status addFlags(const std::vector<uint32_t>& uids, const Flags& flags);
    Status removeFlags(const std::vector<uint32_t>& uids, const Flags& flags);
    Status copy(const std::vector<uint32_t>& uids, const std::string& toMailbox);
    // MOVE, or where the server lacks it: COPY, then \Deleted and UID
    // EXPUNGE of exactly these messages when it offers UIDPLUS. Without
    // UIDPLUS the move is refused rather than risk expunging other messages.
    Status move(const std::vector<uint32_t>& uids, const std::string& toMailbox);
    // The new message's UID when the server reports it (UIDPLUS), else 0.
    // The message is sent without leading or trailing white space and ends
    // with one CRLF; it cannot contain NUL bytes. \Seen, \Answered,
    // \Flagged, \Deleted and \Draft go with the APPEND; other flags
    // (keywords) are stored right after it, which needs the target to be the
    // selected mailbox and the server to have UIDPLUS (refused otherwise,
    // before anything is sent). internalDate: "17-Jul-1996 02:44:25 -0700".
    Result<uint32_t> append(const std::string& mailbox, const std::vector<uint8_t>& mime, const Flags& flags = {},
                            const std::string& internalDate = "");
    Result<uint32_t> appendFile(const std::string& mailbox, const std::string& path, const Flags& flags = {});

    // IDLE (RFC 2177): start, wait for events, stop.
    Status idleStart();
    // Waits up to timeoutMs for the first event, then returns everything that
    // arrived (empty on a quiet time-out).
    Result<std::vector<IdleEvent>> idleWait(int timeoutMs);
    Status idleDone();

    // Session log: every request and response (credentials masked).
    void keepSessionLog(bool on);
    std::string sessionLog() const;
    void clearSessionLog();

    void setProgressCallbacks(ProgressCallbacks callbacks);
    // Verbose diagnostics to this stream callback (one line per call), or
    // none when empty.
    void setDiagnostics(std::function<void(const std::string& line)> sink, bool verbose);
    // The text of the last command sent (passwords masked).
    std::string lastCommand();

    // The engine underneath, for what this API does not cover.
    _zrImap& engine();

private:
    friend struct ImapClientTesting;
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// Modified UTF-7 of IMAP mailbox names (RFC 3501 section 5.1.3). Invalid
// UTF-8 in the input is encoded as U+FFFD.
std::string encodeMailboxName(const std::string& utf8);
// Invalid input is returned as it stands. The check is strict: base64
// runs must be canonical (no padding bits, no printable ASCII inside them,
// paired surrogates, no two runs in a row), and 8-bit bytes (a server that
// sends UTF-8 names) make the whole name count as not encoded.
std::string decodeMailboxName(const std::string& modifiedUtf7);

}  // namespace zr
