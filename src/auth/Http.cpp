#include "zrimap/auth/Http.h"

#include <curl/curl.h>
#include <pthread.h>
#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <nlohmann/json.hpp>
#include <string>

#include "../base/Growth.h"
#include "zrimap/base/ContentCoding.h"
#include "zrimap/base/LogBase.h"
#include "zrimap/base/Progress.h"
#include "zrimap/base/XString.h"

namespace zr {

namespace {

using json = nlohmann::json;

const long kMaxTimeoutMs = 600000;
const long kDefaultTimeoutMs = 30000;
const long kDefaultConnectTimeoutMs = 10000;
// A token this close to its expiry is renewed rather than handed to a
// server that may already reject it by the time it arrives.
const int64_t kExpiryMarginSeconds = 30;
// Server-supplied text quoted in an error is cut to this many bytes.
const size_t kQuoteMax = 300;

// libcurl's global state is set up once per process. The cleanup runs at
// exit, after every handle is gone, so leak checkers see a clean process.
bool initCurl() {
    static std::once_flag once;
    static bool ok = false;
    std::call_once(once, [] {
        ok = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
        if (ok) std::atexit([] { curl_global_cleanup(); });
    });
    return ok;
}

void wipeString(std::string& s) { detail::wipe(&s[0], s.capacity()); }

// The parsed copies of secrets live in the json tree; overwrite every
// string in it before the tree is freed.
void wipeJson(json& j) {
    if (j.is_string()) {
        wipeString(j.get_ref<std::string&>());
    } else if (j.is_object() || j.is_array()) {
        for (auto& item : j) wipeJson(item);
    }
}

struct JsonWiper {
    json& j;
    ~JsonWiper() { wipeJson(j); }
};

// application/x-www-form-urlencoded. Within a form body a space is '+'.
// In the Basic credentials a space is written "%20": a form decoder reads
// that back as a space just the same, and so does a server that merely
// percent-decodes the credentials, which a '+' would not survive.
bool formEncode(const char* s, size_t n, bool spaceAsPlus, StringBuffer& out) {
    static const char hex[] = "0123456789ABCDEF";
    for (size_t i = 0; i < n; ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                     c == '-' || c == '.' || c == '_' || c == '*';
        bool ok;
        if (plain) {
            ok = out.appendChar(static_cast<char>(c));
        } else if (c == ' ' && spaceAsPlus) {
            ok = out.appendChar('+');
        } else {
            char esc[3] = {'%', hex[c >> 4], hex[c & 15]};
            ok = out.appendN(esc, 3);
        }
        if (!ok) return false;
    }
    return true;
}

bool formEncode(const StringBuffer& sb, bool spaceAsPlus, StringBuffer& out) {
    return formEncode(sb.getString(), sb.getSize(), spaceAsPlus, out);
}

bool appendField(StringBuffer& body, const char* name, const StringBuffer& value) {
    return body.append3("&", name, "=") && formEncode(value, true, body);
}

// Server text quoted in a log line: control characters become spaces and
// the length is bounded, cut at a UTF-8 character boundary.
void appendQuoted(StringBuffer& out, const char* s, size_t n) {
    size_t len = n;
    bool cut = false;
    if (len > kQuoteMax) {
        len = kQuoteMax;
        while (len > 0 && (static_cast<unsigned char>(s[len]) & 0xC0) == 0x80) --len;
        cut = true;
    }
    for (size_t i = 0; i < len; ++i) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        out.appendChar(c < 0x20 || c == 0x7F ? ' ' : static_cast<char>(c));
    }
    if (cut) out.append("...");
}

void appendQuoted(StringBuffer& out, const std::string& s) {
    appendQuoted(out, s.data(), s.size());
}

bool equalsNoCase(const std::string& a, const char* b) {
    StringBuffer sb(a.c_str());
    return sb.equalsIgnoreCase(b);
}

// Only visible ASCII can stand in a bearer token (RFC 6750 section 2.1);
// a control character would also break the ^A-separated XOAUTH2 message.
bool isTokenText(const char* s, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (static_cast<unsigned char>(s[i]) < 0x21 || static_cast<unsigned char>(s[i]) > 0x7E)
            return false;
    return n > 0;
}

int64_t nowUnix() { return static_cast<int64_t>(std::time(nullptr)); }

// --- reading the settings ---

class SettingsReader {
public:
    SettingsReader(const json& obj, LogBase& log) : m_obj(obj), m_log(log) {}

    // False (error logged) when the key is present with another type, or
    // absent while required.
    bool str(const char* key, bool required, StringBuffer& out, bool& present) {
        present = false;
        auto it = m_obj.find(key);
        if (it == m_obj.end() || it->is_null()) {
            if (!required) return true;
            return fail(key, "is missing");
        }
        if (!it->is_string()) return wrongType(key, "a string", *it);
        const std::string& s = it->get_ref<const std::string&>();
        if (!out.appendN(s.data(), static_cast<unsigned>(s.size())))
            return fail(key, "is too long");
        present = true;
        return true;
    }

    bool str(const char* key, bool required, StringBuffer& out) {
        bool present;
        return str(key, required, out, present);
    }

    // Integer in [lo, hi]; `out` keeps its value when the key is absent.
    bool integer(const char* key, int64_t lo, int64_t hi, int64_t& out, bool& present) {
        present = false;
        auto it = m_obj.find(key);
        if (it == m_obj.end() || it->is_null()) return true;
        if (!it->is_number_integer()) return wrongType(key, "an integer", *it);
        bool inRange;
        int64_t v = 0;
        if (it->is_number_unsigned()) {
            uint64_t u = it->get<uint64_t>();
            inRange = u <= static_cast<uint64_t>(hi) && static_cast<int64_t>(u) >= lo;
            v = static_cast<int64_t>(u);
        } else {
            v = it->get<int64_t>();
            inRange = v >= lo && v <= hi;
        }
        if (!inRange) {
            StringBuffer msg("In the OAuth2 token request JSON, \"");
            msg.append3(key, "\" is out of range: ", it->dump().c_str());
            msg.append(" (allowed ");
            msg.appendUint64(static_cast<uint64_t>(lo));
            msg.append(" to ");
            msg.appendUint64(static_cast<uint64_t>(hi));
            msg.append(").");
            m_log.logError(msg.getString());
            return false;
        }
        out = v;
        present = true;
        return true;
    }

    bool fail(const char* key, const char* what) {
        StringBuffer msg("In the OAuth2 token request JSON, \"");
        msg.append3(key, "\" ", what);
        msg.appendChar('.');
        m_log.logError(msg.getString());
        return false;
    }

private:
    bool wrongType(const char* key, const char* wanted, const json& v) {
        StringBuffer msg("In the OAuth2 token request JSON, \"");
        msg.append3(key, "\" must be ", wanted);
        msg.append3(", not ", v.type_name(), ".");
        m_log.logError(msg.getString());
        return false;
    }

    const json& m_obj;
    LogBase& m_log;
};

// Checks the endpoint URL with libcurl's own parser, so that what is
// accepted here is what the transfer will use.
bool checkEndpoint(const StringBuffer& url, LogBase& log) {
    CURLU* u = curl_url();
    if (!u) {
        log.logError("Out of memory checking the token_endpoint URL.");
        return false;
    }
    bool ok = false;
    StringBuffer msg;
    CURLUcode rc = curl_url_set(u, CURLUPART_URL, url.getString(), CURLU_NON_SUPPORT_SCHEME);
    if (rc != CURLUE_OK) {
        msg.append3("The token_endpoint is not a valid URL (", curl_url_strerror(rc), ").");
    } else {
        char* scheme = nullptr;
        char* user = nullptr;
        char* host = nullptr;
        curl_url_get(u, CURLUPART_SCHEME, &scheme, 0);
        bool hasUser = curl_url_get(u, CURLUPART_USER, &user, 0) == CURLUE_OK;
        bool hasHost = curl_url_get(u, CURLUPART_HOST, &host, 0) == CURLUE_OK && host && *host;
        StringBuffer sch(scheme);
        if (!sch.equalsIgnoreCase("http") && !sch.equalsIgnoreCase("https"))
            msg.append3("The token_endpoint must be an http:// or https:// URL, not ",
                        sch.getString(), "://.");
        else if (hasUser)
            msg.append(
                "The token_endpoint must not contain user information; give client_id and "
                "client_secret instead.");
        else if (!hasHost)
            msg.append("The token_endpoint has no host name.");
        else
            ok = true;
        curl_free(scheme);
        if (user) {
            detail::wipe(user, std::strlen(user));
            curl_free(user);
        }
        curl_free(host);
    }
    curl_url_cleanup(u);
    if (!ok) log.logError(msg.getString());
    return ok;
}

// --- the transfer ---

struct Transfer {
    StringBuffer body;
    bool tooLarge = false;
    bool outOfMemory = false;
    ProgressMonitor* monitor = nullptr;
    LogBase* log = nullptr;
};

size_t onBody(char* data, size_t size, size_t count, void* user) {
    Transfer* t = static_cast<Transfer*>(user);
    size_t n = size * count;
    if (n > ClsHttp::kMaxResponseBytes - t->body.getSize()) {
        t->tooLarge = true;
        return 0;
    }
    if (!t->body.appendN(data, static_cast<unsigned>(n))) {
        t->outOfMemory = true;
        return 0;
    }
    return n;
}

int onProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    Transfer* t = static_cast<Transfer*>(user);
    return t->monitor->get_Aborted(*t->log) ? 1 : 0;
}

// Wipes and frees a header list that may hold the client's credentials.
struct HeaderList {
    curl_slist* list = nullptr;
    ~HeaderList() {
        for (curl_slist* p = list; p; p = p->next)
            if (p->data) detail::wipe(p->data, std::strlen(p->data));
        curl_slist_free_all(list);
    }
    bool add(const char* line) {
        curl_slist* next = curl_slist_append(list, line);
        if (!next) return false;
        list = next;
        return true;
    }
};

// libcurl is told not to touch signal dispositions (they are process-wide
// and the application's), so a write to a vanished peer could raise
// SIGPIPE. It is blocked on this thread for the transfer, and one raised
// meanwhile is taken off the thread before the old mask returns.
class SigpipeBlock {
public:
    SigpipeBlock() {
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_old);
        m_wasPending = pending();
    }
    ~SigpipeBlock() {
        if (!m_wasPending && pending()) {
            timespec zero{0, 0};
            sigtimedwait(&m_pipe, nullptr, &zero);
        }
        pthread_sigmask(SIG_SETMASK, &m_old, nullptr);
    }
    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;

private:
    bool pending() const {
        sigset_t set;
        sigemptyset(&set);
        return sigpending(&set) == 0 && sigismember(&set, SIGPIPE) == 1;
    }
    sigset_t m_pipe;
    sigset_t m_old;
    bool m_wasPending = false;
};

struct EasyHandle {
    CURL* h = curl_easy_init();
    ~EasyHandle() {
        if (h) curl_easy_cleanup(h);
    }
};

// Appends ` error: X; error_description: Y` when the answer is an OAuth2
// error object (RFC 6749 section 5.2).
void appendOAuthError(const json& answer, StringBuffer& msg) {
    if (!answer.is_object()) return;
    auto err = answer.find("error");
    if (err != answer.end() && err->is_string()) {
        msg.append("; error: ");
        appendQuoted(msg, err->get_ref<const std::string&>());
    }
    auto desc = answer.find("error_description");
    if (desc != answer.end() && desc->is_string()) {
        msg.append("; error_description: ");
        appendQuoted(msg, desc->get_ref<const std::string&>());
    }
}

bool looksLikeJson(const StringBuffer& body) {
    for (unsigned i = 0; i < body.getSize(); ++i) {
        char c = body.charAt(i);
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n') continue;
        return c == '{' || c == '[';
    }
    return false;
}

}  // namespace

// --- _clsHttp ---

_clsHttp::~_clsHttp() { clearSettings(); }

void _clsHttp::clearSettings() {
    m_haveSettings = false;
    m_tokenEndpoint.clear();
    m_clientId.clear();
    m_clientSecret.secureClear();
    m_scope.clear();
    m_audience.clear();
    m_resource.clear();
    m_caFile.clear();
    m_clientAuth = ClientAuth::Basic;
    m_timeoutMs = kDefaultTimeoutMs;
    m_connectTimeoutMs = kDefaultConnectTimeoutMs;
    m_accessToken.secureClear();
    m_expiresAt = 0;
}

bool _clsHttp::setAuthToken(XString& jsonText, LogBase& log) {
    clearSettings();
    json cfg;
    JsonWiper wiper{cfg};
    try {
        const char* text = jsonText.getUtf8();
        cfg = json::parse(text, text + jsonText.getSizeUtf8());
    } catch (const json::parse_error& e) {
        // The parser's own message quotes the text it stopped at, which
        // may be the secret; only the position is passed on.
        StringBuffer msg("The OAuth2 token request JSON is not valid JSON (syntax error at byte ");
        msg.appendUint64(e.byte);
        msg.append(").");
        log.logError(msg.getString());
        return false;
    } catch (const std::exception&) {
        log.logError("Out of memory reading the OAuth2 token request JSON.");
        return false;
    }
    if (!cfg.is_object()) {
        StringBuffer msg("The OAuth2 token request JSON must be an object, not ");
        msg.append2(cfg.type_name(), ".");
        log.logError(msg.getString());
        return false;
    }

    SettingsReader rd(cfg, log);
    StringBuffer clientAuth;
    bool ok = rd.str("token_endpoint", true, m_tokenEndpoint) &&
              rd.str("client_id", true, m_clientId) &&
              rd.str("client_secret", true, m_clientSecret) && rd.str("scope", false, m_scope) &&
              rd.str("audience", false, m_audience) && rd.str("resource", false, m_resource) &&
              rd.str("ca_file", false, m_caFile) && rd.str("client_auth", false, clientAuth) &&
              rd.str("access_token", false, m_accessToken);
    int64_t timeout = kDefaultTimeoutMs, connectTimeout = 0, expiresAt = 0;
    bool haveConnect = false, haveExpiry = false, dummy = false;
    ok = ok && rd.integer("timeout_ms", 1, kMaxTimeoutMs, timeout, dummy) &&
         rd.integer("connect_timeout_ms", 1, kMaxTimeoutMs, connectTimeout, haveConnect) &&
         rd.integer("expires_at", 0, INT64_MAX, expiresAt, haveExpiry);
    if (ok && m_clientId.isEmpty()) ok = rd.fail("client_id", "is empty");
    if (ok && m_tokenEndpoint.isEmpty()) ok = rd.fail("token_endpoint", "is empty");
    if (ok && !m_accessToken.isEmpty() &&
        !isTokenText(m_accessToken.getString(), m_accessToken.getSize()))
        ok = rd.fail("access_token", "holds characters a bearer token cannot have");
    if (ok && !clientAuth.isEmpty()) {
        if (clientAuth.equalsIgnoreCase("post")) {
            m_clientAuth = ClientAuth::Post;
        } else if (!clientAuth.equalsIgnoreCase("basic")) {
            StringBuffer msg(
                "In the OAuth2 token request JSON, \"client_auth\" must be \"basic\" or \"post\", "
                "not \"");
            appendQuoted(msg, clientAuth.getString(), clientAuth.getSize());
            msg.append("\".");
            log.logError(msg.getString());
            ok = false;
        }
    }
    ok = ok && checkEndpoint(m_tokenEndpoint, log);
    if (!ok) {
        clearSettings();
        return false;
    }
    m_timeoutMs = static_cast<long>(timeout);
    m_connectTimeoutMs =
        haveConnect
            ? static_cast<long>(connectTimeout)
            : (m_timeoutMs < kDefaultConnectTimeoutMs ? m_timeoutMs : kDefaultConnectTimeoutMs);
    // A token of unknown lifetime that arrives with the settings is trusted
    // as long as the caller hands it over; a known one only until it expires.
    m_expiresAt = haveExpiry ? (expiresAt > 0 ? expiresAt : 1) : 0;
    m_haveSettings = true;

    if (log.m_verboseLogging) {
        static const char* const known[] = {"token_endpoint", "client_id",          "client_secret",
                                            "scope",          "audience",           "resource",
                                            "ca_file",        "client_auth",        "access_token",
                                            "timeout_ms",     "connect_timeout_ms", "expires_at"};
        for (auto it = cfg.begin(); it != cfg.end(); ++it) {
            bool isKnown = false;
            for (const char* k : known) isKnown = isKnown || it.key() == k;
            if (!isKnown) {
                StringBuffer msg("Ignoring unknown key in the OAuth2 token request JSON: ");
                appendQuoted(msg, it.key());
                log.logInfo(msg.getString());
            }
        }
    }
    return true;
}

// --- ClsHttp ---

ClsHttp* ClsHttp::createNewCls() {
    ClsHttp* obj = new (std::nothrow) ClsHttp();
    if (obj) obj->incRefCount();
    return obj;
}

ClsHttp::~ClsHttp() = default;

bool ClsHttp::check_update_oauth2_cc(LogBase& log, ProgressEvent* pev) {
    LogContextExitor ctx(log, "check_update_oauth2_cc");
    if (!m_haveSettings) {
        log.logError("No OAuth2 token request settings: setAuthToken was not called or failed.");
        return false;
    }
    if (!m_accessToken.isEmpty()) {
        if (m_expiresAt == 0 || nowUnix() < m_expiresAt - kExpiryMarginSeconds) {
            if (log.m_verboseLogging) log.logInfo("Using the OAuth2 access token already held.");
            return true;
        }
        if (log.m_verboseLogging) log.logInfo("The OAuth2 access token held has expired.");
        m_accessToken.secureClear();
        m_expiresAt = 0;
    }
    return requestToken(log, pev);
}

bool ClsHttp::requestToken(LogBase& log, ProgressEvent* pev) {
    const char* url = m_tokenEndpoint.getString();
    // Every message about the exchange goes through here, so that a secret a
    // server echoes back never reaches the log.
    auto logError = [&](StringBuffer& msg) {
        if (m_clientSecret.getSize() >= 4) {
            msg.replaceAllOccurances(m_clientSecret.getString(), "***");
            for (bool plus : {true, false}) {
                StringBuffer enc;
                if (formEncode(m_clientSecret, plus, enc))
                    msg.replaceAllOccurances(enc.getString(), "***");
                enc.secureClear();
            }
        }
        log.logError(msg.getString());
        return false;
    };

    if (!initCurl()) {
        log.logError("libcurl could not be initialised.");
        return false;
    }
    ProgressMonitor monitor(pev);
    if (monitor.get_Aborted(log)) {
        log.logError("OAuth2 token request aborted by the application before it started.");
        return false;
    }
    if (log.m_verboseLogging) {
        log.logData("tokenEndpoint", url);
        log.logData("clientId", m_clientId.getString());
        log.logData("clientAuth", m_clientAuth == ClientAuth::Basic ? "basic" : "post");
        if (!m_scope.isEmpty()) log.logData("scope", m_scope.getString());
    }

    // The body and the Basic credentials hold the secret; both are wiped on
    // every way out of this function.
    struct Wiped {
        StringBuffer sb;
        ~Wiped() { sb.secureClear(); }
    } body, auth;
    bool built = body.sb.append("grant_type=client_credentials");
    if (!m_scope.isEmpty()) built = built && appendField(body.sb, "scope", m_scope);
    if (!m_audience.isEmpty()) built = built && appendField(body.sb, "audience", m_audience);
    if (!m_resource.isEmpty()) built = built && appendField(body.sb, "resource", m_resource);
    HeaderList headers;
    built = built && headers.add("Content-Type: application/x-www-form-urlencoded") &&
            headers.add("Accept: application/json") && headers.add("Expect:");
    if (m_clientAuth == ClientAuth::Post) {
        built = built && appendField(body.sb, "client_id", m_clientId) &&
                appendField(body.sb, "client_secret", m_clientSecret);
    } else {
        Wiped pair;
        built =
            built && formEncode(m_clientId, false, pair.sb) && pair.sb.appendChar(':') &&
            formEncode(m_clientSecret, false, pair.sb) && auth.sb.append("Authorization: Basic ") &&
            ContentCoding::encodeBase64_noCrLf(pair.sb.getString(), pair.sb.getSize(), auth.sb) &&
            headers.add(auth.sb.getString());
    }
    EasyHandle easy;
    if (!built || !easy.h) {
        log.logError("Out of memory building the OAuth2 token request.");
        return false;
    }

    Transfer t;
    t.monitor = &monitor;
    t.log = &log;
    char errbuf[CURL_ERROR_SIZE];
    errbuf[0] = 0;
    CURL* h = easy.h;
    curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errbuf);
    curl_easy_setopt(h, CURLOPT_URL, url);
#if LIBCURL_VERSION_NUM >= 0x075500
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
#else
    curl_easy_setopt(h, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS,
                     static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
#endif
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(h, CURLOPT_PROXY, "");
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, body.sb.getString());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.sb.getSize()));
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.list);
    curl_easy_setopt(h, CURLOPT_USERAGENT, "zrimap");
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(h, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    if (!m_caFile.isEmpty()) curl_easy_setopt(h, CURLOPT_CAINFO, m_caFile.getString());
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, m_connectTimeoutMs);
    curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, m_timeoutMs);
    curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxResponseBytes));
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(h, CURLOPT_XFERINFODATA, &t);

    StringBuffer info("POST ");
    info.append(url);
    monitor.progressInfo("HttpRequest", info.getString());

    CURLcode rc;
    {
        SigpipeBlock noSigpipe;
        rc = curl_easy_perform(h);
    }
    // The answer may hold the token; wipe it whatever happens next.
    struct BodyWiper {
        StringBuffer& sb;
        ~BodyWiper() { sb.secureClear(); }
    } bodyWiper{t.body};

    if (rc != CURLE_OK) {
        StringBuffer msg;
        if (rc == CURLE_ABORTED_BY_CALLBACK && monitor.get_Aborted(log)) {
            msg.append3("OAuth2 token request to ", url, " aborted by the application.");
        } else if (t.tooLarge || rc == CURLE_FILESIZE_EXCEEDED) {
            msg.append3("The answer of the token endpoint ", url, " is larger than ");
            msg.append(kMaxResponseBytes);
            msg.append(" bytes.");
        } else if (t.outOfMemory) {
            msg.append3("Out of memory reading the answer of the token endpoint ", url, ".");
        } else {
            msg.append3("OAuth2 token request to ", url, " failed: ");
            msg.append(errbuf[0] ? errbuf : curl_easy_strerror(rc));
            while (msg.lastChar() == '\n') msg.shorten(1);
        }
        return logError(msg);
    }

    long status = 0;
    char* contentType = nullptr;
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(h, CURLINFO_CONTENT_TYPE, &contentType);
    StringBuffer statusText;
    statusText.append(static_cast<int>(status));
    monitor.progressInfo("HttpStatus", statusText.getString());
    if (log.m_verboseLogging) {
        log.logData("httpStatus", statusText.getString());
        log.logData("contentType", contentType ? contentType : "");
        log.LogDataLong("responseBytes", static_cast<long>(t.body.getSize()));
    }

    json answer;
    JsonWiper answerWiper{answer};
    bool parsed = false;
    size_t syntaxErrorAt = 0;
    try {
        const char* p = t.body.getString();
        answer = json::parse(p, p + t.body.getSize());
        parsed = true;
    } catch (const json::parse_error& e) {
        syntaxErrorAt = e.byte;
    } catch (const std::exception&) {
        StringBuffer msg("Out of memory reading the answer of the token endpoint ");
        msg.append2(url, ".");
        return logError(msg);
    }

    StringBuffer msg;
    if (status < 200 || status > 299) {
        msg.append3("The token endpoint ", url, " answered HTTP ");
        msg.append(statusText);
        if (status >= 300 && status <= 399) {
            char* location = nullptr;
            curl_easy_getinfo(h, CURLINFO_REDIRECT_URL, &location);
            msg.append(" (a redirect; redirects are not followed");
            if (location) {
                msg.append(", Location: ");
                appendQuoted(msg, location, std::strlen(location));
            }
            msg.appendChar(')');
        }
        if (parsed) {
            appendOAuthError(answer, msg);
        } else if (t.body.getSize() > 0) {
            msg.append("; body: ");
            appendQuoted(msg, t.body.getString(), t.body.getSize());
        }
        msg.appendChar('.');
        return logError(msg);
    }
    if (!parsed) {
        msg.append3("The answer of the token endpoint ", url, " (HTTP ");
        msg.append(statusText);
        msg.append2(", Content-Type ", contentType ? contentType : "none");
        msg.append(") is not valid JSON (syntax error at byte ");
        msg.appendUint64(syntaxErrorAt);
        msg.appendChar(')');
        // A body that starts like JSON may hold the token; anything else
        // (an HTML error page, typically) is quoted to show what arrived.
        if (!looksLikeJson(t.body) && t.body.getSize() > 0) {
            msg.append(": ");
            appendQuoted(msg, t.body.getString(), t.body.getSize());
        }
        msg.appendChar('.');
        return logError(msg);
    }
    if (!answer.is_object()) {
        msg.append3("The answer of the token endpoint ", url, " is JSON but not an object (");
        msg.append2(answer.type_name(), ").");
        return logError(msg);
    }
    auto tok = answer.find("access_token");
    if (tok == answer.end() || !tok->is_string() || tok->get_ref<const std::string&>().empty()) {
        msg.append3("The answer of the token endpoint ", url, " has no access_token");
        if (answer.contains("error")) {
            appendOAuthError(answer, msg);
        } else {
            msg.append(" (keys:");
            unsigned n = 0;
            for (auto it = answer.begin(); it != answer.end() && n < 20; ++it, ++n) {
                msg.append(n ? ", " : " ");
                appendQuoted(msg, it.key());
            }
            if (n == 0) msg.append(" none");
            msg.appendChar(')');
        }
        msg.appendChar('.');
        return logError(msg);
    }
    auto type = answer.find("token_type");
    if (type != answer.end() &&
        !(type->is_string() && equalsNoCase(type->get_ref<const std::string&>(), "bearer"))) {
        msg.append3("The token endpoint ", url, " issued a token of type ");
        if (type->is_string()) {
            msg.appendChar('"');
            appendQuoted(msg, type->get_ref<const std::string&>());
            msg.appendChar('"');
        } else {
            msg.append(type->type_name());
        }
        msg.append("; only Bearer tokens can be used.");
        return logError(msg);
    }

    const std::string& token = tok->get_ref<const std::string&>();
    if (!isTokenText(token.data(), token.size())) {
        msg.append3("The access_token in the answer of the token endpoint ", url,
                    " holds characters a bearer token cannot have.");
        return logError(msg);
    }
    if (!m_accessToken.appendN(token.data(), static_cast<unsigned>(token.size()))) {
        msg.append("Out of memory storing the OAuth2 access token.");
        return logError(msg);
    }
    m_expiresAt = 0;
    auto exp = answer.find("expires_in");
    if (exp != answer.end()) {
        double seconds = 0;
        if (exp->is_number()) {
            seconds = exp->get<double>();
        } else if (exp->is_string()) {
            seconds = std::strtod(exp->get_ref<const std::string&>().c_str(), nullptr);
        }
        // Absurd lifetimes are treated as unknown rather than overflowing.
        if (seconds > 0 && seconds < 1e10) {
            m_expiresAt = nowUnix() + static_cast<int64_t>(seconds);
            if (log.m_verboseLogging) log.LogDataLong("expiresIn", static_cast<long>(seconds));
        }
    }
    log.logInfo("Obtained an OAuth2 access token by client credentials.");
    return true;
}

}  // namespace zr
