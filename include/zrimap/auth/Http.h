// The HTTP client of the authentication code. Its one job: obtaining an
// OAuth2 access token with the client-credentials grant (RFC 6749 section
// 4.4) for AUTHENTICATE XOAUTH2.
//
//   ClsHttp* http = ClsHttp::createNewCls();
//   _clsOwner owner;
//   owner.setClsBasePtr(http);
//   if (!http->setAuthToken(json, log)) ...                // error logged
//   if (!http->check_update_oauth2_cc(log, progress)) ...  // error logged
//   token.setFromSbUtf8(http->getAccessToken());
//
// The JSON text given to setAuthToken is one object:
//
//   token_endpoint      string, required. http:// or https:// URL of the
//                       token endpoint; user information ("user:pw@") is
//                       refused so that no credential ends up in a log.
//   client_id           string, required, non-empty.
//   client_secret       string, required (may be empty).
//   scope               string, optional; sent as the "scope" form field.
//   audience, resource  strings, optional; sent as form fields of the same
//                       name (identity providers that want a target API).
//   client_auth         "basic" (default): HTTP Basic authentication of the
//                       client, RFC 6749 section 2.3.1, where id and secret
//                       are form-urlencoded before they are joined and
//                       base64-encoded (a space there is written %20, which
//                       form decoders and plain percent decoders both read
//                       back). "post": client_id and client_secret
//                       travel in the form body instead.
//   ca_file             string, optional: PEM file of the certificate
//                       authorities trusted for an https endpoint. Without
//                       it the system's default store is used. Certificate
//                       and host-name verification are always on.
//   timeout_ms          integer 1..600000, optional, default 30000: bound on
//                       the whole exchange.
//   connect_timeout_ms  integer 1..600000, optional, default the smaller of
//                       timeout_ms and 10000: bound on setting up the
//                       connection (TCP and TLS).
//   access_token        string, optional: a token already held. When it is
//                       non-empty and not expired, no request is made. Like
//                       a token the endpoint issues, it must be visible
//                       ASCII (no blanks or control characters).
//   expires_at          integer, optional: Unix time (seconds) at which
//                       access_token expires.
//
// Other keys are ignored (named in the log in verbose mode). The caller's
// JSON text is not modified; wiping it is the caller's business.
//
// The request: POST to token_endpoint, Content-Type
// application/x-www-form-urlencoded, Accept: application/json, body
// grant_type=client_credentials followed by scope, audience, resource (and
// client_id, client_secret with client_auth "post") when present. Only the
// http and https protocols are allowed and redirects are never followed: a
// token endpoint that redirects is reported as an error, so credentials are
// never re-sent to a place nobody configured. Proxies named in the
// environment are not used. The answer is read up to 1 MiB; a larger one
// fails. A ProgressEvent, when given, receives "HttpRequest" ("POST <url>")
// and "HttpStatus" (the status code), and its onAbortCheck() can stop the
// transfer: libcurl asks it at least once a second, often more while data
// flows. SIGPIPE is blocked on the calling thread during the transfer.
//
// Errors name what arrived: the HTTP status with the OAuth2 "error" and
// "error_description" of the answer, the start of a non-JSON answer, the keys
// of an answer without a token, libcurl's message for a failed connection.
// The client secret and the access token are never written to a log, not
// even in verbose mode (a secret of four bytes or more that a server echoes
// back is replaced by "***"); the object's copies, the request body and the
// answer are wiped when they are dropped.
#pragma once

#include <cstdint>

#include "zrimap/auth/ClsBase.h"
#include "zrimap/base/StringBuffer.h"

namespace zr {

class LogBase;
class ProgressEvent;
class XString;

// The token request settings, as the engine sees them.
class _clsHttp {
public:
    _clsHttp() = default;
    virtual ~_clsHttp();
    _clsHttp(const _clsHttp&) = delete;
    _clsHttp& operator=(const _clsHttp&) = delete;

    // Parses and checks the JSON described above. On failure the error is
    // logged, the object is left without settings (so a later
    // check_update_oauth2_cc fails) and the result is false. Either way a
    // token obtained earlier is dropped.
    bool setAuthToken(XString& json, LogBase& log);

protected:
    enum class ClientAuth { Basic, Post };

    // Drops the settings and the token, wiping the secrets.
    void clearSettings();

    bool m_haveSettings = false;
    StringBuffer m_tokenEndpoint;
    StringBuffer m_clientId;
    StringBuffer m_clientSecret;
    StringBuffer m_scope;
    StringBuffer m_audience;
    StringBuffer m_resource;
    StringBuffer m_caFile;
    ClientAuth m_clientAuth = ClientAuth::Basic;
    long m_timeoutMs = 30000;
    long m_connectTimeoutMs = 10000;

    StringBuffer m_accessToken;
    // Unix time at which m_accessToken expires; 0: unknown.
    int64_t m_expiresAt = 0;
};

class ClsHttp : public ClsBase, public _clsHttp {
public:
    // One reference held by the caller; null when memory runs out.
    static ClsHttp* createNewCls();

    // Makes sure the object holds a usable access token: the one already
    // held (from the JSON or an earlier call) while it has not expired, or
    // else a new one from the token endpoint. A token whose lifetime is
    // known is renewed 30 seconds before it runs out. True on success; on
    // failure the cause is logged once as an error and no token is held.
    // `pev` may be null.
    bool check_update_oauth2_cc(LogBase& log, ProgressEvent* pev);

    // The access token; empty until check_update_oauth2_cc has succeeded.
    // The reference stays valid until the next setAuthToken /
    // check_update_oauth2_cc or the object's release; copy it out.
    const StringBuffer& getAccessToken() const { return m_accessToken; }

    // The largest token-endpoint answer read, in bytes.
    static const unsigned kMaxResponseBytes = 1024 * 1024;

protected:
    ~ClsHttp() override;

private:
    ClsHttp() = default;
    bool requestToken(LogBase& log, ProgressEvent* pev);
};

}  // namespace zr
