// ImapClient: the owner of one _zrImap session. It sets the engine's
// properties, hands it a fresh log and progress monitor for every call,
// judges the responses the engine leaves to its owner, and turns the
// outcome into a Status whose message says what went wrong in one line.
//
// Policy that applies to every operation:
// - A command that did not complete (transport failure, time-out, abort)
//   leaves the session in an unknown state, so the connection is closed;
//   isConnected() then says so, and later calls fail with "Not connected".
// - A server refusal (NO/BAD) keeps the connection; the message is the
//   server's own text.
// - Nothing is thrown out of the API.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "ClientDetail.h"
#include "zrimap/auth/Settings.h"
#include "zrimap/base/ContentCoding.h"
#include "zrimap/base/ImapMsgSummary.h"
#include "zrimap/base/Progress.h"
#include "zrimap/client.h"
#include "zrimap/engine.h"
#include "zrimap/net/Ssh.h"

namespace zr {

using client_detail::completionStatus;
using client_detail::completionText;
using client_detail::Response;
using client_detail::Token;

namespace {

const char kNotConnected[] = "Not connected to a server";
const char kAborted[] = "Aborted by the application; the connection was closed";

std::string upper(std::string s) {
    for (char& c : s)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return s;
}

std::string lower(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

bool iequals(const std::string& a, const std::string& b) { return upper(a) == upper(b); }

// Server and engine texts may carry line ends; a Status message is one line.
std::string oneLine(const std::string& text) {
    std::string out;
    bool blank = false;
    for (char c : text) {
        if (c == '\r' || c == '\n' || c == '\t') {
            blank = !out.empty();
            continue;
        }
        if (blank) out += ' ';
        blank = false;
        out += c;
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out;
}

bool hasLineBreakOrNul(const std::string& s) { return s.find_first_of(std::string("\r\n\0", 3)) != std::string::npos; }

bool hasControl(const std::string& s) {
    for (char c : s) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7F) return true;
    }
    return false;
}

bool isNumber(const std::string& s) {
    if (s.empty() || s.size() > 10) return false;
    for (char c : s)
        if (c < '0' || c > '9') return false;
    return std::stoull(s) <= 0xFFFFFFFFull;
}

uint32_t toUint(const std::string& s) { return isNumber(s) ? static_cast<uint32_t>(std::stoull(s)) : 0; }

std::vector<std::string> linesOf(const ImapResultSet& rs) {
    std::vector<std::string> out;
    for (int i = 0; i < rs.getNumLines(); ++i) out.emplace_back(rs.getLine(i));
    return out;
}

std::vector<Response> responsesOf(const ImapResultSet& rs) {
    return client_detail::parseResponses(client_detail::joinLines(linesOf(rs)));
}

std::string lastLine(const ImapResultSet& rs) {
    return rs.getNumLines() > 0 ? std::string(rs.getLine(rs.getNumLines() - 1)) : std::string();
}

// The line in `text` that completes the command with `tag`, or empty.
std::string completionLineIn(const std::string& text, const std::string& tag) {
    if (tag.empty()) return {};
    const std::string prefix = tag + " ";
    size_t p = 0;
    while (p < text.size()) {
        size_t e = text.find('\n', p);
        if (e == std::string::npos) e = text.size();
        if (text.compare(p, prefix.size(), prefix) == 0) return text.substr(p, e - p);
        p = e + 1;
    }
    return {};
}

// "(UID 5 FLAGS (\Seen))" as name/value pairs.
const Token* fetchItem(const Token& list, const char* name) {
    for (size_t i = 0; i + 1 < list.items.size(); i += 2)
        if (list.items[i].isAtom(name)) return &list.items[i + 1];
    return nullptr;
}

bool isFetchResponse(const Response& r) {
    return r.tokens.size() >= 4 && r.tokens[0].isAtom("*") && r.tokens[2].isAtom("FETCH") &&
           r.tokens[3].kind == Token::Kind::List;
}

// A flag as the wire carries it: an atom, or '\' and an atom.
bool isValidFlag(const std::string& flag) {
    if (flag.empty()) return false;
    for (size_t i = 0; i < flag.size(); ++i) {
        const auto c = static_cast<unsigned char>(flag[i]);
        if (c == '\\' && i == 0 && flag.size() > 1) continue;
        if (c <= 0x20 || c >= 0x7F || std::strchr("(){%*\"\\]", c)) return false;
    }
    return true;
}

std::string joinFlags(const Flags& flags) {
    std::string out;
    for (const std::string& f : flags) {
        if (!out.empty()) out += ' ';
        out += f;
    }
    return out;
}

Flags splitFlags(const std::string& text) {
    Flags out;
    size_t p = 0;
    while (p < text.size()) {
        while (p < text.size() && text[p] == ' ') ++p;
        size_t e = text.find(' ', p);
        if (e == std::string::npos) e = text.size();
        if (e > p) out.insert(text.substr(p, e - p));
        p = e;
    }
    return out;
}

// ---------------------------------------------------------------------------
// Per-call collaborators

// Collects the errors of one call (the first is the most specific: the
// transport's reason comes before the engine's summary of it) and forwards
// everything to the application's diagnostics sink.
class CallLog : public LogBase {
public:
    CallLog(const std::function<void(const std::string&)>& sink, bool verbose) : m_sink(sink) {
        m_verboseLogging = verbose;
    }

    void logError(const char* text) override {
        const std::string t = text ? text : "";
        if (!t.empty()) m_errors.push_back(t);
        emit("error: " + t);
    }
    void logInfo(const char* text) override { emit(text ? text : ""); }
    void enterContext(const char* name, bool) override {
        m_path.emplace_back(name ? name : "");
        if (m_verboseLogging) emit("enter");
    }
    void leaveContext() override {
        if (!m_path.empty()) m_path.pop_back();
    }
    void logData(const char* name, const char* value) override {
        std::string v = value ? value : "";
        if (v.size() > kMaxKeptValue) v.resize(kMaxKeptValue);
        m_data.emplace_back(name ? name : "", v);
        emit(std::string(name ? name : "") + ": " + v);
    }

    const std::vector<std::string>& errors() const { return m_errors; }
    const std::string* lastData(const char* name) const {
        for (auto it = m_data.rbegin(); it != m_data.rend(); ++it)
            if (it->first == name) return &it->second;
        return nullptr;
    }

private:
    static constexpr size_t kMaxKeptValue = 4096;

    void emit(const std::string& text) {
        if (!m_sink) return;
        std::string line;
        for (const std::string& p : m_path) {
            if (!line.empty()) line += '/';
            line += p;
        }
        if (!line.empty()) line += ": ";
        line += oneLine(text);
        try {
            m_sink(line);
        } catch (...) {
            // A failing diagnostics sink must not break the operation.
        }
    }

    const std::function<void(const std::string&)>& m_sink;
    std::vector<std::string> m_path;
    std::vector<std::string> m_errors;
    std::vector<std::pair<std::string, std::string>> m_data;
};

// Forwards the engine's progress events and abort checks to the
// application's callbacks.
class ProgressForwarder : public ProgressEvent {
public:
    ProgressForwarder(const ProgressCallbacks& callbacks, const bool& maskCredentials,
                      std::vector<std::string>* responses)
        : m_callbacks(callbacks), m_mask(maskCredentials), m_responses(responses) {}

    void onProgressInfo(const char* name, const char* value) override {
        const std::string n = name ? name : "";
        std::string v = value ? value : "";
        if (m_responses && n == "ImapCmdResp") m_responses->push_back(v);
        if (n == "ImapCmdSent" && looksTagged(v)) m_lastTag = v.substr(0, 4);
        if (!m_callbacks.onEvent) return;
        // During a login the SASL exchanges report their credential lines
        // as sent; only tagged command lines (already masked) go out.
        if (m_mask && n == "ImapCmdSent" && !looksTagged(v)) v = "(credentials)";
        try {
            m_callbacks.onEvent(n, v);
        } catch (...) {
            // The application's problem; the operation goes on.
        }
    }

    bool onAbortCheck() override {
        if (!m_callbacks.shouldAbort) return false;
        bool stop;
        try {
            stop = m_callbacks.shouldAbort();
        } catch (...) {
            stop = true;  // a callback that cannot answer is taken as a request to stop
        }
        if (stop) m_abortRequested = true;
        return stop;
    }

    bool abortRequested() const { return m_abortRequested; }
    // The tag of the last command line sent during this call.
    const std::string& lastTag() const { return m_lastTag; }

private:
    static bool looksTagged(const std::string& v) {
        if (v.size() < 5 || v[4] != ' ') return false;
        for (int i = 0; i < 4; ++i)
            if (v[static_cast<size_t>(i)] < 'a' || v[static_cast<size_t>(i)] > 'z') return false;
        return true;
    }

    const ProgressCallbacks& m_callbacks;
    const bool& m_mask;
    std::vector<std::string>* m_responses;
    bool m_abortRequested = false;
    std::string m_lastTag;
};

template <class F>
auto guarded(F&& f) noexcept -> decltype(f()) {
    try {
        return f();
    } catch (const std::bad_alloc&) {
        return Status::failure("Out of memory");
    } catch (const std::exception& e) {
        return Status::failure(std::string("Internal error: ") + e.what());
    } catch (...) {
        return Status::failure("Internal error");
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Impl

struct ImapClient::Impl {
    _zrImap imap;
    ProgressCallbacks callbacks;
    std::function<void(const std::string&)> diagSink;
    bool verbose = false;

    std::vector<std::string> caps;  // upper case
    std::string selected;           // wire name of the selected mailbox; empty: none
    bool idling = false;
    std::vector<IdleEvent> pendingIdle;
    bool maskCredentials = false;
    std::vector<std::string>* capturedResponses = nullptr;

    // Everything one engine call needs, fresh for each call: a monitor's
    // abort is sticky, and the errors must be this call's alone.
    struct Call {
        CallLog log;
        ProgressForwarder events;
        ProgressMonitor monitor;
        SocketParams sp;
        explicit Call(Impl& impl)
            : log(impl.diagSink, impl.verbose),
              events(impl.callbacks, impl.maskCredentials, impl.capturedResponses),
              monitor(&events),
              sp(&monitor) {}
    };

    Impl() { imap.m_autoDownloadAttachments = true; }

    bool connected() {
        LogNull quiet;
        return imap.isImapConnected(quiet);
    }

    void resetState() {
        caps.clear();
        selected.clear();
        idling = false;
        pendingIdle.clear();
    }

    // Closes the session and, when there is one, the SSH tunnel under it:
    // the engine keeps a tunnel for the next session, this API does not.
    void dropConnection() {
        LogNull quiet;
        SocketParams sp(nullptr);
        imap.imapDisconnect(quiet, sp);
        if (imap.m_socket) {
            imap.sshCloseTunnel(sp, quiet);
            imap.closeImapSocket();
        }
        resetState();
    }

    bool hasCap(const std::string& name) const {
        const std::string u = upper(name);
        for (const std::string& c : caps)
            if (c == u) return true;
        return false;
    }

    Status notReady(bool needSelected) {
        if (idling) return Status::failure("IDLE is running: call idleDone() first");
        if (!connected()) return Status::failure(kNotConnected);
        if (needSelected && selected.empty())
            return Status::failure("No mailbox is selected: call select() or examine() first");
        return {};
    }

    // An engine call failed without a usable server answer.
    Status failure(Call& c, const std::string& fallback, bool drop) {
        if (c.events.abortRequested()) {
            dropConnection();
            return Status::failure(kAborted);
        }
        std::string msg = c.log.errors().empty() ? fallback : c.log.errors().front();
        if (drop) dropConnection();
        return Status::failure(oneLine(msg));
    }

    // The server's NO/BAD (or whatever ended the command), as its text.
    static Status refusal(const std::string& line, const std::string& what) {
        std::string text = oneLine(completionText(line));
        if (text.empty()) {
            const std::string status = completionStatus(line);
            text = what + " refused by the server" + (status.empty() ? std::string() : " (" + status + ")");
        }
        return Status::failure(text);
    }

    // For the operations that leave judging to the owner.
    Status judge(Call& c, bool completed, const ImapResultSet& rs, const std::string& what) {
        if (!completed) return failure(c, what + " failed", true);
        LogNull quiet;
        if (rs.isOK(false, quiet)) return {};
        return refusal(lastLine(rs), what);
    }

    static Status checkUids(const std::vector<uint32_t>& uids) {
        for (uint32_t u : uids)
            if (u == 0) return Status::failure("0 is not a valid UID");
        return {};
    }

    // What COPY and MOVE check before sending anything: a selected mailbox,
    // valid UIDs and a target name, which comes back encoded for the wire.
    Status checkTransfer(const std::vector<uint32_t>& uids, const std::string& toMailbox, std::string& wire) {
        if (Status st = notReady(true); !st) return st;
        if (Status st = checkUids(uids); !st) return st;
        return wireName(toMailbox, wire);
    }

    // Mailbox names: checked, then encoded for the wire.
    static Status wireName(const std::string& name, std::string& out, bool allowEmpty = false) {
        if (name.empty() && !allowEmpty) return Status::failure("The mailbox name is empty");
        if (!client_detail::isValidUtf8(name))
            return Status::failure("The mailbox name is not valid UTF-8");
        if (hasControl(name)) return Status::failure("The mailbox name contains control characters");
        // The engine sends names quoted and unescaped; rather than send a
        // broken command, such names are refused.
        if (name.find_first_of("\"\\") != std::string::npos)
            return Status::failure("Mailbox names containing '\"' or '\\' are not supported: '" + name + "'");
        out = encodeMailboxName(name);
        return {};
    }

    bool isSelected(const std::string& wire) const {
        if (selected.empty()) return false;
        if (iequals(wire, "INBOX") && iequals(selected, "INBOX")) return true;
        return wire == selected;
    }

    using MailboxOp = bool (_zrImap::*)(const char*, ImapResultSet&, LogBase&, SocketParams&);
    Status mailboxCommand(const std::string& name, MailboxOp op, const char* verb);
    Status refreshCapabilities(Call& c);
    Status login(Call& c, const ServerSettings& s);
    Status chooseMechanism(const ServerSettings& s, AuthMechanism& out) const;
    Status connect(const ServerSettings& s);
    Status openSshTunnel(Call& c, const SshSettings& ssh, _clsTls& tls);
    Result<SelectedMailbox> open(const std::string& name, bool examine);
    Status fetchSummary(Call& c, uint32_t uid, ImapMsgSummary& summary);
    Status storeFlags(const std::vector<uint32_t>& uids, const Flags& flags, bool add);
    std::vector<IdleEvent> idleEventsFrom(const ImapResultSet& rs);
};

// ---------------------------------------------------------------------------
// Connecting and logging in

Status ImapClient::Impl::refreshCapabilities(Call& c) {
    StringBuffer text;
    if (!imap.capability(text, c.log, c.sp)) return failure(c, "CAPABILITY failed", true);
    std::vector<std::string> found;
    std::string last;
    for (const Response& r : client_detail::parseResponses(text.getString())) {
        last = r.raw;
        if (r.tokens.size() < 2 || !r.tokens[0].isAtom("*") || !r.tokens[1].isAtom("CAPABILITY")) continue;
        for (size_t i = 2; i < r.tokens.size(); ++i)
            if (r.tokens[i].kind == Token::Kind::Atom) found.push_back(upper(r.tokens[i].text));
    }
    if (completionStatus(last) != "OK") return refusal(last, "CAPABILITY");
    if (found.empty()) return Status::failure("The server sent no capability list");
    caps = std::move(found);
    return {};
}

namespace {

// Looked at in place: the secret is not copied anywhere it would not be wiped.
bool looksLikeOAuth2(const std::string& secret) {
    auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    size_t b = 0, e = secret.size();
    while (b < e && blank(secret[b])) ++b;
    while (e > b && blank(secret[e - 1])) --e;
    if (e - b >= 2 && secret[b] == '{' && secret[e - 1] == '}') return true;  // client-credentials JSON
    static const char kBearer[] = "bearer ";
    if (e - b <= 7) return false;
    for (size_t i = 0; i < 7; ++i)
        if (std::tolower(static_cast<unsigned char>(secret[b + i])) != kBearer[i]) return false;
    return true;
}

bool hasQuoteOrBackslash(const std::string& s) { return s.find_first_of("\"\\") != std::string::npos; }

const char* mechanismName(AuthMechanism m) {
    switch (m) {
    case AuthMechanism::Login: return "LOGIN";
    case AuthMechanism::Plain: return "PLAIN";
    case AuthMechanism::CramMd5: return "CRAM-MD5";
    case AuthMechanism::DigestMd5: return "DIGEST-MD5";
    case AuthMechanism::Ntlm: return "NTLM";
    case AuthMechanism::XOAuth2: return "XOAUTH2";
    case AuthMechanism::Auto: break;
    }
    return "AUTO";
}

}  // namespace

Status ImapClient::Impl::chooseMechanism(const ServerSettings& s, AuthMechanism& out) const {
    // A bearer token or a client-credentials request cannot be told from a
    // password by its look alone; these two forms can, and sending a
    // password to the token check (or a token as a password) is avoided.
    if (looksLikeOAuth2(s.password)) {
        if (!hasCap("AUTH=XOAUTH2"))
            return Status::failure("The password looks like an OAuth2 token, but the server does not offer AUTH=XOAUTH2");
        out = AuthMechanism::XOAuth2;
        return {};
    }
    if (!s.authzId.empty()) {
        if (!hasCap("AUTH=PLAIN"))
            return Status::failure("An authorisation identity needs AUTH=PLAIN, which the server does not offer");
        out = AuthMechanism::Plain;
        return {};
    }
    // The password never crosses the wire with CRAM-MD5; PLAIN and LOGIN
    // only go out over TLS or when the application chose Security::Plain.
    if (hasCap("AUTH=CRAM-MD5")) {
        out = AuthMechanism::CramMd5;
    } else if (hasCap("AUTH=PLAIN")) {
        out = AuthMechanism::Plain;
    } else if (!hasCap("LOGINDISABLED")) {
        if (hasQuoteOrBackslash(s.user) || hasQuoteOrBackslash(s.password))
            return Status::failure("The server offers only LOGIN, which cannot carry a user name or password "
                                   "containing '\"' or '\\'");
        out = AuthMechanism::Login;
    } else {
        return Status::failure("The server offers no login mechanism this client can use "
                               "(LOGINDISABLED and neither AUTH=PLAIN nor AUTH=CRAM-MD5)");
    }
    return {};
}

Status ImapClient::Impl::login(Call& c, const ServerSettings& s) {
    if (s.user.empty()) return Status::failure("No user name given");
    if (s.password.empty())
        return Status::failure(s.mechanism == AuthMechanism::XOAuth2 ? "No access token given" : "No password given");
    if (hasLineBreakOrNul(s.user) || hasLineBreakOrNul(s.password) || hasLineBreakOrNul(s.authzId) ||
        hasLineBreakOrNul(s.ntlmDomain))
        return Status::failure("The user name, password, authorisation identity or domain contains a line break");

    AuthMechanism mech = s.mechanism;
    if (mech == AuthMechanism::Auto) {
        Status st = chooseMechanism(s, mech);
        if (!st) return st;
    } else if (mech == AuthMechanism::Login) {
        if (hasCap("LOGINDISABLED"))
            return Status::failure("The server does not accept LOGIN here (LOGINDISABLED)");
        if (hasQuoteOrBackslash(s.user) || hasQuoteOrBackslash(s.password))
            return Status::failure("LOGIN cannot carry a user name or password containing '\"' or '\\'; "
                                   "use AuthMechanism::Plain");
    } else if (!hasCap(std::string("AUTH=") + mechanismName(mech))) {
        return Status::failure(std::string("The server does not offer AUTH=") + mechanismName(mech));
    }

    struct Mask {
        bool& flag;
        explicit Mask(bool& f) : flag(f) { flag = true; }
        ~Mask() { flag = false; }
    } mask(maskCredentials);

    XString user(s.user.c_str());
    SecurePassword secret(s.password.c_str());
    const std::string what = std::string("Login (") + mechanismName(mech) + ")";
    // Tagged answers: the engine leaves them to be judged here.
    auto judgeRs = [&](bool completed, ImapResultSet& rs) -> Status {
        if (completed) {
            LogNull quiet;
            if (rs.isOK(false, quiet)) return {};
            return refusal(lastLine(rs), what);
        }
        return failure(c, what + " failed", false);
    };
    // Exchanges that return the verdict judge the one line that follows
    // them. A server may put untagged data there first (Dovecot sends its
    // new capability list when the client asked for one before logging
    // in): then the rest of the response is read and its completion decides.
    // A first answer that is not the go-ahead is judged as it stands: the
    // server may still be waiting for the exchange to go on.
    auto verdictAfter = [&](const std::string& line, bool finalLine) -> Status {
        std::string l = line;
        while (!l.empty() && (l.back() == '\r' || l.back() == '\n' || l.back() == ' ')) l.pop_back();
        if (finalLine && l.compare(0, 2, "* ") == 0 && !c.events.lastTag().empty()) {
            ExtPtrArraySb rest;
            if (!imap.getCompleteResponse(c.events.lastTag().c_str(), rest, c.log, c.sp, false))
                return failure(c, what + " failed", false);
            const StringBuffer* completion = rest.sbAt(rest.getSize() - 1);
            l = completion ? completion->getString() : "";
            while (!l.empty() && (l.back() == '\r' || l.back() == '\n')) l.pop_back();
            if (completionStatus(l) == "OK") return {};
        }
        if (!l.empty() && l[0] != '+' && l[0] != '*' && !completionStatus(l).empty() && completionStatus(l) != "OK")
            return refusal(l, what);
        return failure(c, what + " failed", false);
    };

    switch (mech) {
    case AuthMechanism::Login: {
        ImapResultSet rs;
        const bool done = imap.loginImap(user, secret, rs, c.log, c.sp);
        return judgeRs(done, rs);
    }
    case AuthMechanism::Plain: {
        XString authz(s.authzId.c_str());
        ImapResultSet rs;
        const bool done = imap.authenticatePlain(authz, user, secret, rs, c.log, c.sp);
        if (!done && rs.getNumLines() == 0) {
            if (const std::string* first = c.log.lastData("plainResponse1")) return verdictAfter(*first, false);
        }
        return judgeRs(done, rs);
    }
    case AuthMechanism::XOAuth2: {
        ImapResultSet rs;
        const bool done = imap.xoauth2Imap(user, secret, rs, c.log, c.sp);
        return judgeRs(done, rs);
    }
    case AuthMechanism::CramMd5: {
        StringBuffer last;
        if (imap.authenticateCramMd5(user, secret, last, c.log, c.sp)) return {};
        if (!last.isEmpty()) return verdictAfter(last.getString(), true);
        if (const std::string* first = c.log.lastData("cramMd5Response")) return verdictAfter(*first, false);
        return failure(c, what + " failed", false);
    }
    case AuthMechanism::DigestMd5: {
        StringBuffer unused;
        if (imap.authenticateDigestMd5(user, secret, unused, c.log, c.sp)) return {};
        for (const char* key : {"digestMd5Response3", "digestMd5Response2"})
            if (const std::string* line = c.log.lastData(key)) return verdictAfter(*line, true);
        if (const std::string* first = c.log.lastData("digestMd5Response")) return verdictAfter(*first, false);
        return failure(c, what + " failed", false);
    }
    case AuthMechanism::Ntlm: {
        XString domain(s.ntlmDomain.c_str());
        StringBuffer last;
        const bool ok = imap.authenticateNTLM(user, secret, domain, last, c.log, c.sp);
        // The NTLM exchange does not record its command; lastCommand() should show it.
        const std::string& tag = c.events.lastTag();
        if (!tag.empty() && !imap.m_lastCommand.beginsWith(tag.c_str()))
            imap.m_lastCommand.setString((tag + " AUTHENTICATE NTLM").c_str());
        if (ok) return {};
        if (const std::string* refused = c.log.lastData("ntmlResponse")) return verdictAfter(*refused, false);
        if (!last.isEmpty()) return verdictAfter(last.getString(), true);
        return failure(c, what + " failed", false);
    }
    case AuthMechanism::Auto:
        break;
    }
    return Status::failure("No login mechanism chosen");
}

Status ImapClient::Impl::connect(const ServerSettings& s) {
    dropConnection();
    imap.m_lastCommand.clear();  // what this connect sends, not the last session's

    if (s.host.empty()) return Status::failure("No server host name given");
    if (hasControl(s.host) || s.host.find(' ') != std::string::npos)
        return Status::failure("Invalid host name '" + oneLine(s.host) + "'");
    if (s.port < 0 || s.port > 65535) return Status::failure("Port " + std::to_string(s.port) + " out of range (1-65535)");
    if (s.timeoutSeconds < 0) return Status::failure("The time-out must not be negative");
    if (s.timeoutSeconds > 24 * 3600) return Status::failure("The time-out must not exceed a day");
    if (!s.caFile.empty()) {
        std::ifstream probe(s.caFile, std::ios::binary);
        if (!probe) return Status::failure("Cannot read the CA file " + s.caFile + ": " + std::strerror(errno));
    }

    const int port = s.port != 0 ? s.port : (s.security == Security::Tls ? 993 : 143);
    imap.setSsl(s.security == Security::Tls);
    imap.setStartTls(s.security == Security::StartTls);
    imap.put_ReadTimeout(s.timeoutSeconds);
    _clsTls tls;
    tls.m_requireVerifiedServer = s.verifyCertificate;
    tls.m_caFile.setString(s.caFile.c_str());

    // The lines of the greeting and of STARTTLS, to judge the upgrade by.
    std::vector<std::string> responses;
    capturedResponses = &responses;
    struct Release {
        std::vector<std::string>*& p;
        ~Release() { p = nullptr; }
    } release{capturedResponses};

    Call c(*this);
    if (s.ssh) {
        Status st = openSshTunnel(c, *s.ssh, tls);
        if (!st) {
            dropConnection();
            return st;
        }
    }
    StringBuffer greeting;
    const bool opened = imap.connectToImapServer(StringBuffer(s.host.c_str()), port, greeting, tls, c.sp, c.log);
    const std::string greet = greeting.getString();
    const bool startTlsAnswered = s.security == Security::StartTls && responses.size() >= 2;
    if (!opened) {
        if (c.events.abortRequested()) return failure(c, kAborted, true);
        if (!greet.empty() && completionStatus(greet) == "BYE") {
            dropConnection();
            return Status::failure("The server refused the session: " + oneLine(completionText(greet)));
        }
        if (startTlsAnswered && completionStatus(responses.back()) != "OK") {
            dropConnection();
            return Status::failure("The server refused STARTTLS: " + oneLine(completionText(responses.back())));
        }
        return failure(c, "Could not connect to " + s.host + ":" + std::to_string(port), true);
    }
    capturedResponses = nullptr;

    const std::string greetStatus = completionStatus(greet);
    if (greetStatus == "BYE") {
        dropConnection();
        return Status::failure("The server refused the session: " + oneLine(completionText(greet)));
    }
    if (greet.compare(0, 2, "* ") != 0 || (greetStatus != "OK" && greetStatus != "PREAUTH")) {
        dropConnection();
        return Status::failure("Unexpected greeting from the server: " + oneLine(greet));
    }
    if (s.security == Security::StartTls) {
        // The engine tries the handshake whatever the server answered; the
        // connection only counts as upgraded when STARTTLS was accepted and
        // the transport really runs TLS now.
        const bool accepted = startTlsAnswered && completionStatus(responses.back()) == "OK";
        // Through a tunnel the socket is not TLS itself; the certificate of
        // a completed handshake (cleared by every connect) shows it then.
        SystemCerts certs;
        const bool tlsNow = imap.m_socket && (imap.m_socket->isNonTunneledTls() ||
                                              (imap.m_socket->isSsh() && imap.getRemoteServerCert(&certs)));
        if (!accepted || !tlsNow) {
            dropConnection();
            return Status::failure("The connection was not upgraded to TLS (STARTTLS did not take effect)");
        }
    }

    Status st = refreshCapabilities(c);
    if (st && greetStatus != "PREAUTH") {
        st = login(c, s);
        // The list usually grows once logged in (MOVE, UIDPLUS, ...).
        if (st) st = refreshCapabilities(c);
    }
    if (!st) dropConnection();
    return st;
}

Status ImapClient::Impl::openSshTunnel(Call& c, const SshSettings& ssh, _clsTls& tls) {
    if (ssh.host.empty()) return Status::failure("No SSH host given");
    if (ssh.port < 1 || ssh.port > 65535) return Status::failure("SSH port " + std::to_string(ssh.port) + " out of range");
    if (ssh.user.empty()) return Status::failure("No SSH user given");
    if (ssh.password.empty() && ssh.privateKeyFile.empty())
        return Status::failure("The SSH tunnel needs a password or a private key file");
    tls.m_sshHostKeyFingerprint.setString(ssh.hostKeyFingerprint.c_str());
    XString host(ssh.host.c_str());
    if (!imap.sshOpenTunnel(host, ssh.port, tls, c.log, c.sp))
        return failure(c, "Could not open the SSH tunnel to " + ssh.host, false);
    XString user(ssh.user.c_str());
    bool ok;
    if (!ssh.privateKeyFile.empty()) {
        _zrPublicKey key;
        if (!key.loadFromFile(ssh.privateKeyFile.c_str(), ssh.privateKeyPassphrase.c_str(), c.log))
            return failure(c, "Cannot load the SSH key " + ssh.privateKeyFile, false);
        ok = imap.sshAuthenticatePk(user, key, c.log, c.sp);
    } else {
        SecurePassword password(ssh.password.c_str());
        ok = imap.sshAuthenticatePw(user, password, c.log, c.sp);
    }
    if (!ok) return failure(c, "SSH login as " + ssh.user + " failed", false);
    return {};
}

// ---------------------------------------------------------------------------
// Mailboxes

Result<SelectedMailbox> ImapClient::Impl::open(const std::string& name, bool examine) {
    if (Status st = notReady(false); !st) return st;
    std::string wire;
    if (Status st = wireName(name, wire); !st) return st;
    // A SELECT or EXAMINE that fails leaves no mailbox selected (RFC 3501 6.3.1).
    selected.clear();
    Call c(*this);
    ImapResultSet rs;
    bool gotResponse = false;
    if (!imap.selectMailbox(wire.c_str(), examine, rs, gotResponse, c.log, c.sp)) {
        if (gotResponse) return refusal(lastLine(rs), examine ? "EXAMINE" : "SELECT");
        return failure(c, std::string(examine ? "EXAMINE" : "SELECT") + " failed", true);
    }
    SelectedMailbox box;
    box.name = name;
    box.exists = imap.get_NumEmailsInMailbox();
    box.readOnly = examine;
    for (const Response& r : responsesOf(rs)) {
        const auto& t = r.tokens;
        if (t.size() >= 3 && t[0].isAtom("*") && t[1].isAtom("FLAGS") && t[2].kind == Token::Kind::List) {
            for (const Token& f : t[2].items)
                if (f.kind == Token::Kind::Atom) box.flags.insert(f.text);
            continue;
        }
        // Response codes: "[UIDVALIDITY 5]" on untagged OK lines, "[READ-ONLY]" on the completion.
        if (t.size() < 3 || !t[1].isAtom("OK") || t[2].kind != Token::Kind::Atom) continue;
        const std::string code = upper(t[2].text);
        if (code.rfind("[UIDVALIDITY ", 0) == 0) box.uidValidity = toUint(code.substr(13, code.size() - 14));
        if (code.rfind("[UIDNEXT ", 0) == 0) box.uidNext = toUint(code.substr(9, code.size() - 10));
        if (code == "[READ-ONLY]") box.readOnly = true;
    }
    selected = wire;
    return box;
}

Status ImapClient::Impl::mailboxCommand(const std::string& name, MailboxOp op, const char* verb) {
    if (Status st = notReady(false); !st) return st;
    std::string wire;
    if (Status st = wireName(name, wire); !st) return st;
    Call c(*this);
    ImapResultSet rs;
    const bool done = (imap.*op)(wire.c_str(), rs, c.log, c.sp);
    Status st = judge(c, done, rs, verb);
    if (st && op == &_zrImap::deleteMailbox2 && isSelected(wire)) selected.clear();
    return st;
}

std::vector<IdleEvent> ImapClient::Impl::idleEventsFrom(const ImapResultSet& rs) {
    XString xml;
    LogNull quiet;
    for (int i = 0; i < rs.getNumLines(); ++i) {
        StringBuffer line(rs.getLine(i));
        if (line.charAt(0) == '*') imap.parseAddIdleResponseLine(line, xml, quiet);
    }
    return client_detail::parseIdleXml(xml.getUtf8());
}

// ---------------------------------------------------------------------------
// Messages

Status ImapClient::Impl::fetchSummary(Call& c, uint32_t uid, ImapMsgSummary& summary) {
    const char* items = "(UID BODYSTRUCTURE)";
    ImapResultSet rs;
    const bool done = imap.fetchMultipleSummaries(std::to_string(uid).c_str(), true, items, rs, c.log, c.sp);
    if (Status st = judge(c, done, rs, "FETCH BODYSTRUCTURE"); !st) return st;
    bool found = false;
    for (const Response& r : responsesOf(rs))
        if (isFetchResponse(r) && fetchItem(r.tokens[3], "BODYSTRUCTURE")) found = true;
    if (!found) return Status::failure("No message with UID " + std::to_string(uid) + " in the selected mailbox");
    if (!rs.parseSummary(summary, items, c.log))
        return failure(c, "Could not read the structure of message UID " + std::to_string(uid), false);
    return {};
}

Status ImapClient::Impl::storeFlags(const std::vector<uint32_t>& uids, const Flags& flags, bool add) {
    if (Status st = notReady(true); !st) return st;
    if (Status st = checkUids(uids); !st) return st;
    for (const std::string& f : flags)
        if (!isValidFlag(f)) return Status::failure("Invalid flag '" + oneLine(f) + "'");
    if (uids.empty() || flags.empty()) return {};
    const std::string list = joinFlags(flags);
    for (const std::string& set : client_detail::compactUidSets(uids)) {
        Call c(*this);
        ImapResultSet rs;
        const bool done = imap.setFlagForMsgSet(set.c_str(), true, add, list.c_str(), rs, c.log, c.sp);
        if (Status st = judge(c, done, rs, "STORE"); !st) return st;
    }
    return {};
}

// ---------------------------------------------------------------------------
// ImapClient

ImapClient::ImapClient() : m_impl(new Impl) {}

ImapClient::~ImapClient() {
    try {
        m_impl->dropConnection();
    } catch (...) {
    }
}

Status ImapClient::connect(const ServerSettings& settings) {
    return guarded([&] { return m_impl->connect(settings); });
}

bool ImapClient::isConnected() {
    try {
        return m_impl->connected();
    } catch (...) {
        return false;
    }
}

std::vector<std::string> ImapClient::capabilities() {
    try {
        return m_impl->caps;
    } catch (...) {
        return {};
    }
}

bool ImapClient::hasCapability(const std::string& name) {
    try {
        return m_impl->hasCap(name);
    } catch (...) {
        return false;
    }
}

Status ImapClient::logout() {
    return guarded([&]() -> Status {
        Impl& d = *m_impl;
        if (!d.connected()) {
            d.dropConnection();
            return Status::failure(kNotConnected);
        }
        if (d.idling) {
            Impl::Call c(d);
            ImapResultSet rs;
            d.imap.cmdNoArgs("DONE", rs, c.log, c.sp);
            d.idling = false;
        }
        Impl::Call c(d);
        StringBuffer bye;
        const bool ok = d.imap.logout(bye, c.sp, c.log);
        Status st = ok ? Status() : d.failure(c, "LOGOUT failed", false);
        d.dropConnection();
        return st;
    });
}

void ImapClient::disconnect() {
    try {
        m_impl->dropConnection();
    } catch (...) {
    }
}

Result<std::vector<MailboxEntry>> ImapClient::listMailboxes(const std::string& pattern, bool subscribedOnly,
                                                            const std::string& reference) {
    return guarded([&]() -> Result<std::vector<MailboxEntry>> {
        Impl& d = *m_impl;
        if (Status st = d.notReady(false); !st) return st;
        std::string wirePattern, wireReference;
        if (Status st = Impl::wireName(pattern, wirePattern, true); !st) return st;
        if (Status st = Impl::wireName(reference, wireReference, true); !st) return st;
        Impl::Call c(d);
        ImapResultSet rs;
        const bool done = d.imap.listImapMailboxes(subscribedOnly, wireReference.c_str(), wirePattern.c_str(), rs,
                                                   c.log, c.sp);
        if (Status st = d.judge(c, done, rs, subscribedOnly ? "LSUB" : "LIST"); !st) return st;
        std::vector<MailboxEntry> out;
        for (const Response& r : responsesOf(rs)) {
            MailboxEntry e;
            if (client_detail::parseListResponse(r, e)) out.push_back(std::move(e));
        }
        return out;
    });
}

Status ImapClient::createMailbox(const std::string& name) {
    return guarded([&] { return m_impl->mailboxCommand(name, &_zrImap::createMailbox, "CREATE"); });
}

Status ImapClient::deleteMailbox(const std::string& name) {
    return guarded([&] { return m_impl->mailboxCommand(name, &_zrImap::deleteMailbox2, "DELETE"); });
}

Status ImapClient::subscribe(const std::string& name) {
    return guarded([&] { return m_impl->mailboxCommand(name, &_zrImap::subscribe, "SUBSCRIBE"); });
}

Status ImapClient::unsubscribe(const std::string& name) {
    return guarded([&] { return m_impl->mailboxCommand(name, &_zrImap::unsubscribe, "UNSUBSCRIBE"); });
}

Status ImapClient::renameMailbox(const std::string& from, const std::string& to) {
    return guarded([&]() -> Status {
        Impl& d = *m_impl;
        if (Status st = d.notReady(false); !st) return st;
        std::string wireFrom, wireTo;
        if (Status st = Impl::wireName(from, wireFrom); !st) return st;
        if (Status st = Impl::wireName(to, wireTo); !st) return st;
        Impl::Call c(d);
        ImapResultSet rs;
        const bool done = d.imap.renameMailbox(wireFrom.c_str(), wireTo.c_str(), rs, c.log, c.sp);
        return d.judge(c, done, rs, "RENAME");
    });
}

Result<MailboxStatus> ImapClient::status(const std::string& name) {
    return guarded([&]() -> Result<MailboxStatus> {
        Impl& d = *m_impl;
        if (Status st = d.notReady(false); !st) return st;
        std::string wire;
        if (Status st = Impl::wireName(name, wire); !st) return st;
        Impl::Call c(d);
        ImapResultSet rs;
        bool gotResponse = false;
        const bool done = d.imap.getMailboxStatus(wire.c_str(), rs, gotResponse, c.log, c.sp);
        if (Status st = d.judge(c, done && gotResponse, rs, "STATUS"); !st) return st;
        Token items;
        bool found = false;
        for (const Response& r : responsesOf(rs)) {
            const auto& t = r.tokens;
            if (t.size() < 4 || !t[0].isAtom("*") || !t[1].isAtom("STATUS") || t[3].kind != Token::Kind::List)
                continue;
            // Another mailbox's unsolicited STATUS is not this one's.
            const bool thisOne = t[2].text == wire || (iequals(t[2].text, "INBOX") && iequals(wire, "INBOX"));
            if (!found || thisOne) {
                items = t[3];
                found = true;
            }
        }
        if (!found) return Status::failure("The server sent no STATUS data for '" + name + "'");
        MailboxStatus out;
        for (size_t i = 0; i + 1 < items.items.size(); i += 2) {
            const Token& k = items.items[i];
            const uint32_t v = toUint(items.items[i + 1].text);
            if (k.isAtom("MESSAGES")) out.messages = v;
            else if (k.isAtom("RECENT")) out.recent = v;
            else if (k.isAtom("UIDNEXT")) out.uidNext = v;
            else if (k.isAtom("UIDVALIDITY")) out.uidValidity = v;
            else if (k.isAtom("UNSEEN")) out.unseen = v;
        }
        return out;
    });
}

Result<SelectedMailbox> ImapClient::select(const std::string& name) {
    return guarded([&] { return m_impl->open(name, false); });
}

Result<SelectedMailbox> ImapClient::examine(const std::string& name) {
    return guarded([&] { return m_impl->open(name, true); });
}

Result<std::vector<uint32_t>> ImapClient::search(const std::string& criteria, const std::string& charset) {
    return guarded([&]() -> Result<std::vector<uint32_t>> {
        Impl& d = *m_impl;
        if (Status st = d.notReady(true); !st) return st;
        std::string query = criteria;
        while (!query.empty() && query.back() == ' ') query.pop_back();
        while (!query.empty() && query.front() == ' ') query.erase(0, 1);
        if (query.empty()) query = "ALL";
        if (hasControl(query)) return Status::failure("The search criteria contain line breaks or control characters");
        std::string cs = charset;
        for (char ch : cs)
            if (!(std::isalnum(static_cast<unsigned char>(ch)) || ch == '-' || ch == '_' || ch == '.' || ch == ':'))
                return Status::failure("Invalid charset name '" + oneLine(charset) + "'");
        if (cs.empty())
            for (char ch : query)
                if (static_cast<unsigned char>(ch) >= 0x80) cs = "UTF-8";  // the API's text is UTF-8

        Impl::Call c(d);
        ImapResultSet rs;
        const bool done = d.imap.searchOrSortImap(true, "SEARCH", cs.empty() ? nullptr : cs.c_str(), nullptr,
                                                  query.c_str(), rs, c.log, c.sp);
        if (Status st = d.judge(c, done, rs, "SEARCH"); !st) return st;
        std::vector<uint32_t> uids;
        for (const Response& r : responsesOf(rs)) {
            const auto& t = r.tokens;
            if (t.size() < 2 || !t[0].isAtom("*") || !t[1].isAtom("SEARCH")) continue;
            for (size_t i = 2; i < t.size() && t[i].kind == Token::Kind::Atom && isNumber(t[i].text); ++i)
                uids.push_back(toUint(t[i].text));
        }
        std::sort(uids.begin(), uids.end());
        uids.erase(std::unique(uids.begin(), uids.end()), uids.end());
        return uids;
    });
}

Result<Message> ImapClient::fetchMessage(uint32_t uid, bool withoutAttachments) {
    return guarded([&]() -> Result<Message> {
        Impl& d = *m_impl;
        if (Status st = d.notReady(true); !st) return st;
        if (uid == 0) return Status::failure("0 is not a valid UID");
        Message msg;
        msg.uid = uid;
        ImapMsgSummary summary;
        if (withoutAttachments) {
            Impl::Call c(d);
            if (Status st = d.fetchSummary(c, uid, summary); !st) return st;
            // The engine leaves attachments out only for these two shapes
            // and downloads anything else whole; say which one happened.
            const ImapMsgPart* p0 = summary.getPart(0);
            const ImapMsgPart* p1 = summary.getPart(1);
            msg.attachmentsLeftOut =
                summary.m_numAttachments > 0 && p0 &&
                (p0->isType("multipart", "mixed") ||
                 (p1 && p0->isType("multipart", "alternative") && p1->m_contentType.equalsIgnoreCase("text")));
        }
        struct Restore {
            _zrImap& e;
            ~Restore() { e.m_autoDownloadAttachments = true; }
        } restore{d.imap};
        d.imap.m_autoDownloadAttachments = !withoutAttachments;

        Impl::Call c(d);
        ImapFlags flags;
        StringBuffer date, responseText;
        DataBuffer mime;
        bool ok = false;
        const bool done = d.imap.fetchComplete_u(uid, true, withoutAttachments ? &summary : nullptr, flags, date,
                                                 responseText, mime, ok, c.sp, c.log);
        if (!done || !ok) {
            StringBuffer last;
            d.imap.getLastCommand(last);
            const std::string tag = std::string(last.getString()).substr(0, 4);
            const std::string completion = completionLineIn(responseText.getString(), tag);
            if (completion.empty()) return d.failure(c, "FETCH failed", true);
            if (completionStatus(completion) != "OK") return Impl::refusal(completion, "FETCH");
            if (mime.getSize() == 0)
                return Status::failure("No message with UID " + std::to_string(uid) + " in the selected mailbox");
            return d.failure(c, "FETCH failed", false);
        }
        msg.mime.assign(mime.getData2(), mime.getData2() + mime.getSize());
        StringBuffer all;
        flags.getAllFlags(all);
        msg.flags = splitFlags(all.getString());
        msg.internalDate = date.getString();
        return msg;
    });
}

Result<std::vector<MessagePart>> ImapClient::fetchStructure(uint32_t uid) {
    return guarded([&]() -> Result<std::vector<MessagePart>> {
        Impl& d = *m_impl;
        if (Status st = d.notReady(true); !st) return st;
        if (uid == 0) return Status::failure("0 is not a valid UID");
        Impl::Call c(d);
        ImapMsgSummary summary;
        if (Status st = d.fetchSummary(c, uid, summary); !st) return st;
        std::vector<MessagePart> parts;
        for (int i = 0; i < summary.getNumParts(); ++i) {
            const ImapMsgPart* p = summary.getPart(i);
            if (!p) continue;
            MessagePart part;
            part.partId = p->m_partId.getString();
            part.type = lower(p->m_contentType.getString());
            part.subtype = lower(p->m_subType.getString());
            part.charset = p->m_charset.getString();
            part.filename = !p->m_filename.isEmpty() ? p->m_filename.getString() : p->m_name.getString();
            part.encoding = lower(p->m_encoding.getString());
            part.size = p->m_size;
            part.isAttachment = p->m_isAttachment;
            parts.push_back(std::move(part));
        }
        return parts;
    });
}

Result<std::vector<uint8_t>> ImapClient::fetchPart(uint32_t uid, const std::string& partId, bool decode) {
    return guarded([&]() -> Result<std::vector<uint8_t>> {
        Impl& d = *m_impl;
        if (Status st = d.notReady(true); !st) return st;
        if (uid == 0) return Status::failure("0 is not a valid UID");
        if (partId.empty()) return Status::failure("No part given (e.g. \"1\" or \"2.1\")");
        for (char ch : partId)
            if (!(std::isalnum(static_cast<unsigned char>(ch)) || ch == '.'))
                return Status::failure("Invalid part specifier '" + oneLine(partId) + "'");

        // The structure says whether the part exists and how it is encoded.
        ImapMsgSummary summary;
        {
            Impl::Call c(d);
            if (Status st = d.fetchSummary(c, uid, summary); !st) return st;
        }
        const ImapMsgPart* part = summary.findMsgPart(partId.c_str());
        bool numeric = true;
        for (char ch : partId)
            if (!(std::isdigit(static_cast<unsigned char>(ch)) || ch == '.')) numeric = false;
        if (!part && numeric)
            return Status::failure("Message UID " + std::to_string(uid) + " has no part " + partId);

        Impl::Call c(d);
        StringBuffer responseText;
        DataBuffer data;
        bool ok = false;
        const bool done = d.imap.fetchAttachment_u(uid, true, partId.c_str(), responseText, data, ok, c.sp, c.log);
        if (!done || !ok) {
            StringBuffer last;
            d.imap.getLastCommand(last);
            const std::string completion =
                completionLineIn(responseText.getString(), std::string(last.getString()).substr(0, 4));
            if (!completion.empty() && completionStatus(completion) != "OK")
                return Impl::refusal(completion, "FETCH");
            return d.failure(c, "FETCH of part " + partId + " failed", true);
        }
        const uint8_t* bytes = data.getData2();
        std::vector<uint8_t> out(bytes, bytes + data.getSize());
        if (!decode || !part) return out;
        const std::string encoding = lower(part->m_encoding.getString());
        if (encoding == "base64") {
            DataBuffer decoded;
            if (!ContentCoding::decodeBase64ToDb(reinterpret_cast<const char*>(bytes), data.getSize(), decoded))
                return Status::failure("Part " + partId + " is not valid base64");
            return std::vector<uint8_t>(decoded.getData2(), decoded.getData2() + decoded.getSize());
        }
        if (encoding == "quoted-printable") return client_detail::decodeQuotedPrintable(out.data(), out.size());
        return out;
    });
}

Result<Flags> ImapClient::fetchFlags(uint32_t uid) {
    return guarded([&]() -> Result<Flags> {
        Impl& d = *m_impl;
        if (Status st = d.notReady(true); !st) return st;
        if (uid == 0) return Status::failure("0 is not a valid UID");
        Impl::Call c(d);
        ImapResultSet rs;
        const bool done = d.imap.fetchFlags_u(uid, true, rs, c.log, c.sp);
        if (Status st = d.judge(c, done, rs, "FETCH FLAGS"); !st) return st;
        for (const Response& r : responsesOf(rs)) {
            if (!isFetchResponse(r)) continue;
            const Token* u = fetchItem(r.tokens[3], "UID");
            const Token* f = fetchItem(r.tokens[3], "FLAGS");
            if (!u || !f || toUint(u->text) != uid || f->kind != Token::Kind::List) continue;
            Flags out;
            for (const Token& flag : f->items)
                if (flag.kind == Token::Kind::Atom) out.insert(flag.text);
            return out;
        }
        return Status::failure("No message with UID " + std::to_string(uid) + " in the selected mailbox");
    });
}

Status ImapClient::addFlags(const std::vector<uint32_t>& uids, const Flags& flags) {
    return guarded([&] { return m_impl->storeFlags(uids, flags, true); });
}

Status ImapClient::removeFlags(const std::vector<uint32_t>& uids, const Flags& flags) {
    return guarded([&] { return m_impl->storeFlags(uids, flags, false); });
}

Status ImapClient::copy(const std::vector<uint32_t>& uids, const std::string& toMailbox) {
    return guarded([&]() -> Status {
        Impl& d = *m_impl;
        std::string wire;
        if (Status st = d.checkTransfer(uids, toMailbox, wire); !st) return st;
        for (const std::string& set : client_detail::compactUidSets(uids)) {
            Impl::Call c(d);
            ImapResultSet rs;
            const bool done = d.imap.copySet(set.c_str(), true, wire.c_str(), rs, c.log, c.sp);
            if (Status st = d.judge(c, done, rs, "COPY"); !st) return st;
        }
        return {};
    });
}

Status ImapClient::move(const std::vector<uint32_t>& uids, const std::string& toMailbox) {
    return guarded([&]() -> Status {
        Impl& d = *m_impl;
        std::string wire;
        if (Status st = d.checkTransfer(uids, toMailbox, wire); !st) return st;
        const bool hasMove = d.hasCap("MOVE");
        if (!hasMove && !d.hasCap("UIDPLUS"))
            return Status::failure("The server offers neither MOVE nor UIDPLUS; moving would take a plain EXPUNGE, "
                                   "which could remove other messages marked \\Deleted");
        for (const std::string& set : client_detail::compactUidSets(uids)) {
            if (hasMove) {
                Impl::Call c(d);
                ImapResultSet rs;
                const bool done = d.imap.moveMessages(set.c_str(), true, wire.c_str(), rs, c.log, c.sp);
                if (Status st = d.judge(c, done, rs, "MOVE"); !st) return st;
                continue;
            }
            {
                Impl::Call c(d);
                ImapResultSet rs;
                const bool done = d.imap.copySet(set.c_str(), true, wire.c_str(), rs, c.log, c.sp);
                if (Status st = d.judge(c, done, rs, "COPY"); !st) return st;
            }
            {
                Impl::Call c(d);
                ImapResultSet rs;
                const bool done = d.imap.setFlagForMsgSet(set.c_str(), true, true, "\\Deleted", rs, c.log, c.sp);
                if (Status st = d.judge(c, done, rs, "STORE"); !st)
                    return Status::failure("Copied, but marking the originals \\Deleted failed: " + st.message());
            }
            {
                Impl::Call c(d);
                ImapResultSet rs;
                const std::string cmd = "UID EXPUNGE " + set;
                const bool done = d.imap.sendRawCommand(cmd.c_str(), rs, c.log, c.sp);
                if (Status st = d.judge(c, done, rs, "UID EXPUNGE"); !st)
                    return Status::failure("Copied and marked \\Deleted, but UID EXPUNGE failed: " + st.message());
            }
        }
        return {};
    });
}

Result<uint32_t> ImapClient::append(const std::string& mailbox, const std::vector<uint8_t>& mime, const Flags& flags,
                                    const std::string& internalDate) {
    return guarded([&]() -> Result<uint32_t> {
        Impl& d = *m_impl;
        if (Status st = d.notReady(false); !st) return st;
        std::string wire;
        if (Status st = Impl::wireName(mailbox, wire); !st) return st;
        if (mime.empty()) return Status::failure("The message is empty");
        for (uint8_t b : mime)
            if (b == 0) return Status::failure("The message contains a NUL byte, which APPEND cannot carry here");
        if (hasControl(internalDate) || internalDate.find('"') != std::string::npos)
            return Status::failure("Invalid internal date '" + oneLine(internalDate) + "'");

        bool seen = false, deleted = false, flagged = false, answered = false, draft = false;
        Flags keywords;  // set afterwards with UID STORE
        for (const std::string& f : flags) {
            if (!isValidFlag(f)) return Status::failure("Invalid flag '" + oneLine(f) + "'");
            const std::string u = upper(f);
            if (u == "\\SEEN") seen = true;
            else if (u == "\\DELETED") deleted = true;
            else if (u == "\\FLAGGED") flagged = true;
            else if (u == "\\ANSWERED") answered = true;
            else if (u == "\\DRAFT") draft = true;
            else if (u == "\\RECENT") return Status::failure("\\Recent is set by the server and cannot be given");
            else keywords.insert(f);
        }
        if (!keywords.empty() && !(d.isSelected(wire) && d.hasCap("UIDPLUS")))
            return Status::failure("Keywords (" + joinFlags(keywords) +
                                   ") can be given on append only into the selected mailbox of a server with UIDPLUS");

        const std::string text(mime.begin(), mime.end());
        Impl::Call c(d);
        ExtPtrArraySb completion;
        ImapResultSet rs;
        const bool ok = d.imap.appendMime(wire.c_str(), text.c_str(), internalDate.empty() ? nullptr : internalDate.c_str(),
                                          seen, deleted, flagged, answered, draft, completion, rs, c.log, c.sp);
        const std::string tagPrefix = std::string(rs.getTag()) + " ";
        std::string finalLine;
        for (int i = completion.getSize() - 1; i >= 0 && finalLine.empty(); --i)
            if (const StringBuffer* sb = completion.sbAt(i))
                if (sb->beginsWith(tagPrefix.c_str())) finalLine = sb->getString();
        if (!ok) {
            if (!finalLine.empty()) return Impl::refusal(finalLine, "APPEND");
            StringBuffer first;
            d.imap.getLastIntermediateResponse(first);
            if (first.beginsWith(tagPrefix.c_str())) return Impl::refusal(first.getString(), "APPEND");
            return d.failure(c, "APPEND failed", true);
        }
        uint32_t uid = 0;
        const size_t code = upper(finalLine).find("[APPENDUID ");
        if (code != std::string::npos) {
            const std::string rest = finalLine.substr(code + 11);
            const size_t sp = rest.find(' ');
            const size_t close = rest.find(']');
            if (sp != std::string::npos && close != std::string::npos && close > sp)
                uid = toUint(rest.substr(sp + 1, close - sp - 1));
        }
        if (!keywords.empty()) {
            if (uid == 0) return Status::failure("Appended, but the server gave no UID to set the keywords on");
            if (Status st = d.storeFlags({uid}, keywords, true); !st)
                return Status::failure("Appended, but setting the keywords failed: " + st.message());
        }
        return uid;
    });
}

Result<uint32_t> ImapClient::appendFile(const std::string& mailbox, const std::string& path, const Flags& flags) {
    return guarded([&]() -> Result<uint32_t> {
        std::ifstream in(path, std::ios::binary);
        if (!in) return Status::failure("Cannot read " + path + ": " + std::strerror(errno));
        std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (in.bad()) return Status::failure("Cannot read " + path + ": " + std::strerror(errno));
        return append(mailbox, bytes, flags);
    });
}

Status ImapClient::idleStart() {
    return guarded([&]() -> Status {
        Impl& d = *m_impl;
        if (Status st = d.notReady(false); !st) return st;
        // Without the capability the server would answer with a tagged
        // refusal, which the engine does not wait for: it waits for "+".
        if (!d.hasCap("IDLE")) return Status::failure("The server does not offer IDLE");
        Impl::Call c(d);
        ImapResultSet rs;
        const bool done = d.imap.cmdNoArgs("IDLE", rs, c.log, c.sp);
        if (!done || lastLine(rs).compare(0, 1, "+") != 0) return d.failure(c, "IDLE failed", true);
        d.idling = true;
        // Untagged news that came before the go-ahead is the first event.
        d.pendingIdle = d.idleEventsFrom(rs);
        return {};
    });
}

Result<std::vector<IdleEvent>> ImapClient::idleWait(int timeoutMs) {
    return guarded([&]() -> Result<std::vector<IdleEvent>> {
        Impl& d = *m_impl;
        if (!d.idling) return Status::failure("IDLE is not running: call idleStart() first");
        if (!d.connected()) {
            d.dropConnection();
            return Status::failure(kNotConnected);
        }
        std::vector<IdleEvent> events = std::move(d.pendingIdle);
        d.pendingIdle.clear();
        Impl::Call c(d);
        XString xml;
        // With events already in hand only what has arrived meanwhile is added.
        const bool ok = d.imap.idleCheck(events.empty() ? timeoutMs : 0, xml, c.sp, c.log);
        if (!ok) {
            if (c.events.abortRequested()) return Status::failure("Aborted by the application");
            return d.failure(c, "Waiting for IDLE events failed", true);
        }
        for (IdleEvent& e : client_detail::parseIdleXml(xml.getUtf8())) events.push_back(std::move(e));
        return events;
    });
}

Status ImapClient::idleDone() {
    return guarded([&]() -> Status {
        Impl& d = *m_impl;
        if (!d.idling) return Status::failure("IDLE is not running");
        d.idling = false;
        d.pendingIdle.clear();
        Impl::Call c(d);
        ImapResultSet rs;
        const bool done = d.imap.cmdNoArgs("DONE", rs, c.log, c.sp);
        return d.judge(c, done, rs, "IDLE");
    });
}

void ImapClient::keepSessionLog(bool on) { m_impl->imap.m_keepSessionLog = on; }

std::string ImapClient::sessionLog() const {
    try {
        return m_impl->imap.m_sessionLog.getString();
    } catch (...) {
        return {};
    }
}

void ImapClient::clearSessionLog() { m_impl->imap.m_sessionLog.clear(); }

void ImapClient::setProgressCallbacks(ProgressCallbacks callbacks) { m_impl->callbacks = std::move(callbacks); }

void ImapClient::setDiagnostics(std::function<void(const std::string& line)> sink, bool verbose) {
    m_impl->diagSink = std::move(sink);
    m_impl->verbose = verbose;
}

std::string ImapClient::lastCommand() {
    try {
        StringBuffer sb;
        m_impl->imap.getLastCommand(sb);
        return sb.getString();
    } catch (...) {
        return {};
    }
}

_zrImap& ImapClient::engine() { return m_impl->imap; }

bool MailboxEntry::selectable() const {
    for (const std::string& a : attributes)
        if (iequals(a, "\\Noselect") || iequals(a, "\\NonExistent")) return false;
    return true;
}

void ImapClientTesting::setCapabilities(ImapClient& client, std::vector<std::string> capabilities) {
    for (std::string& c : capabilities) c = upper(c);
    client.m_impl->caps = std::move(capabilities);
}

}  // namespace zr
