// ClsHttp against a loopback HTTP(S) server that records the request.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "zrimap/auth/Http.h"
#include "zrimap/base/LogBase.h"
#include "zrimap/base/Progress.h"
#include "zrimap/base/XString.h"

using namespace zr;
using ::testing::HasSubstr;
using ::testing::Not;
using Clock = std::chrono::steady_clock;

namespace {

// Accepts one connection, reads one request, writes `answer` (an empty
// answer: says nothing until the client leaves). Optionally over TLS.
class StubServer {
public:
    explicit StubServer(std::string answer, SSL_CTX* tls = nullptr)
        : m_answer(std::move(answer)), m_tls(tls) {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        bind(m_fd, reinterpret_cast<sockaddr*>(&a), len);
        listen(m_fd, 1);
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &len);
        port = ntohs(a.sin_port);
        m_thread = std::thread([this] { serve(); });
    }
    ~StubServer() { join(); }
    void join() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
        if (m_fd >= 0) close(m_fd);
        m_fd = -1;
    }
    const std::string& request() { return join(), m_request; }
    bool connected() { return join(), m_connected; }
    std::string body() { return request().substr(request().find("\r\n\r\n") + 4); }
    std::string header(const std::string& name) {
        size_t p = request().find("\r\n" + name + ": ");
        return p == std::string::npos
                   ? "<none>"
                   : m_request.substr(p + name.size() + 4,
                                      m_request.find("\r\n", p + 2) - p - name.size() - 4);
    }
    int port = 0;

private:
    void serve() {
        sigset_t pipe;  // a client that has gone must not end the test run
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        pollfd p{m_fd, POLLIN, 0};
        for (int i = 0; i < 100 && !m_stop; ++i)
            if (poll(&p, 1, 50) > 0) break;
        if (!(p.revents & POLLIN)) return;
        int c = accept(m_fd, nullptr, nullptr);
        m_connected = true;
        timeval tv{5, 0};
        setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        SSL* ssl = m_tls ? SSL_new(m_tls) : nullptr;
        if (ssl) SSL_set_fd(ssl, c);
        if (!ssl || SSL_accept(ssl) == 1) {
            char buf[4096];
            int n;
            while ((n = ssl ? SSL_read(ssl, buf, sizeof buf)
                            : static_cast<int>(recv(c, buf, sizeof buf, 0))) > 0) {
                m_request.append(buf, n);
                size_t end = m_request.find("\r\n\r\n");
                size_t cl = m_request.find("Content-Length: ");
                if (!m_answer.empty() && end != std::string::npos &&
                    m_request.size() >=
                        end + 4 + (cl < end ? std::stoul(m_request.substr(cl + 16)) : 0))
                    break;
            }
            for (size_t off = 0; off < m_answer.size() && n > 0;) {
                n = ssl ? SSL_write(ssl, m_answer.data() + off,
                                    static_cast<int>(m_answer.size() - off))
                        : static_cast<int>(
                              send(c, m_answer.data() + off, m_answer.size() - off, MSG_NOSIGNAL));
                off += n > 0 ? n : 0;
            }
            if (ssl) SSL_shutdown(ssl);
        }
        SSL_free(ssl);
        close(c);
    }
    std::string m_answer;
    SSL_CTX* m_tls;
    int m_fd;
    std::atomic<bool> m_stop{false};
    bool m_connected = false;
    std::string m_request;
    std::thread m_thread;
};

std::string answer(int status, const std::string& body,
                   const std::string& type = "application/json") {
    return "HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
           body;
}

const char* const kToken = "tok-9f8e7d6c5b4a";
const char* const kSecret = "s3cr+t /%\xC3\xBC";  // "s3cr+t /%ü"

std::string config(int port, const std::string& extra = "", const char* scheme = "http") {
    return std::string("{\"token_endpoint\":\"") + scheme + "://127.0.0.1:" + std::to_string(port) +
           "/token\",\"client_id\":\"my client:1\",\"client_secret\":\"" + kSecret + "\"" + extra +
           "}";
}

struct Events : ProgressEvent {
    std::vector<std::string> infos;
    int abortAtCall = 0;   // 0: never
    int abortAfterMs = 0;  // counted from the first check; 0: never
    int calls = 0;
    Clock::time_point first;
    void onProgressInfo(const char* name, const char* value) override {
        infos.push_back(std::string(name) + "=" + value);
    }
    bool onAbortCheck() override {
        if (++calls == 1) first = Clock::now();
        return (abortAtCall && calls >= abortAtCall) ||
               (abortAfterMs && Clock::now() - first >= std::chrono::milliseconds(abortAfterMs));
    }
};

// One token request, the way the engine makes it.
struct TokenRun {
    MemoryLog log;
    bool setOk = false, ok = false;
    std::string token;
    double seconds = 0;
    TokenRun(const std::string& json, ProgressEvent* pev = nullptr, bool verbose = true) {
        log.m_verboseLogging = verbose;
        ClsHttp* http = ClsHttp::createNewCls();
        _clsOwner owner;
        owner.setClsBasePtr(http);
        XString x;
        x.setFromUtf8(json.c_str());
        setOk = http->setAuthToken(x, log);
        auto t0 = Clock::now();
        ok = http->check_update_oauth2_cc(log, pev);
        seconds = std::chrono::duration<double>(Clock::now() - t0).count();
        token = http->getAccessToken().getString();
    }
    std::string error() const {
        auto e = log.errors();
        return e.size() == 1 ? e[0] : "expected exactly one error, got: " + log.toText();
    }
};

TEST(HttpTokenRequest, BasicAuthSendsTheExactRequestAndReturnsTheToken) {
    StubServer srv(answer(200, std::string("{\"access_token\":\"") + kToken +
                                   "\",\"token_type\":\"bearer\",\"expires_in\":3600}"));
    Events ev;
    TokenRun r(config(srv.port, ",\"scope\":\"imap mail/read&x=y\",\"audience\":\"api://x\""), &ev);
    ASSERT_TRUE(r.ok) << r.log.toText();
    EXPECT_EQ(r.token, kToken);
    EXPECT_THAT(srv.request(), ::testing::StartsWith("POST /token HTTP/1.1\r\n"));
    EXPECT_EQ(srv.header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(srv.header("Accept"), "application/json");
    // base64("my%20client%3A1:s3cr%2Bt%20%2F%25%C3%BC")
    EXPECT_EQ(srv.header("Authorization"),
              "Basic bXklMjBjbGllbnQlM0ExOnMzY3IlMkJ0JTIwJTJGJTI1JUMzJUJD");
    EXPECT_EQ(
        srv.body(),
        "grant_type=client_credentials&scope=imap+mail%2Fread%26x%3Dy&audience=api%3A%2F%2Fx");
    EXPECT_EQ(srv.header("Expect"), "<none>");
    std::string url = "http://127.0.0.1:" + std::to_string(srv.port) + "/token";
    EXPECT_EQ(ev.infos, (std::vector<std::string>{"HttpRequest=POST " + url, "HttpStatus=200"}));
}

TEST(HttpTokenRequest, PostAuthPutsTheCredentialsInTheBody) {
    StubServer srv(answer(200, std::string("{\"access_token\":\"") + kToken + "\"}"));
    TokenRun r(config(srv.port, ",\"client_auth\":\"post\""));
    ASSERT_TRUE(r.ok) << r.log.toText();
    EXPECT_EQ(r.token, kToken);
    EXPECT_EQ(srv.header("Authorization"), "<none>");
    EXPECT_EQ(srv.body(),
              "grant_type=client_credentials&client_id=my+client%3A1&client_secret=s3cr%2Bt+%2F%25%"
              "C3%BC");
}

TEST(HttpTokenRequest, AHeldTokenIsUsedUntilItExpires) {
    StubServer srv(answer(200, "{\"access_token\":\"fresh\"}"));
    std::string future = std::to_string(std::time(nullptr) + 3600);
    TokenRun held(config(srv.port, ",\"access_token\":\"held\",\"expires_at\":" + future));
    EXPECT_TRUE(held.ok);
    EXPECT_EQ(held.token, "held");
    EXPECT_FALSE(srv.connected());

    StubServer srv2(answer(200, "{\"access_token\":\"fresh\"}"));
    TokenRun expired(config(srv2.port, ",\"access_token\":\"held\",\"expires_at\":1000"));
    EXPECT_TRUE(expired.ok) << expired.log.toText();
    EXPECT_EQ(expired.token, "fresh");
    EXPECT_TRUE(srv2.connected());
}

TEST(HttpTokenRequest, SecondCallReusesTheTokenAndNewSettingsDropIt) {
    StubServer srv(answer(200, "{\"access_token\":\"one\",\"expires_in\":3600}"));
    MemoryLog log;
    ClsHttp* http = ClsHttp::createNewCls();
    _clsOwner owner;
    owner.setClsBasePtr(http);
    XString x(config(srv.port).c_str());
    ASSERT_TRUE(http->setAuthToken(x, log));
    ASSERT_TRUE(http->check_update_oauth2_cc(log, nullptr)) << log.toText();
    srv.join();  // a second request would find nobody listening
    EXPECT_TRUE(http->check_update_oauth2_cc(log, nullptr));
    EXPECT_STREQ(http->getAccessToken().getString(), "one");
    XString bad("{}");
    EXPECT_FALSE(http->setAuthToken(bad, log));
    EXPECT_TRUE(http->getAccessToken().isEmpty());
    EXPECT_FALSE(http->check_update_oauth2_cc(log, nullptr));
    EXPECT_THAT(log.errors().back(), HasSubstr("setAuthToken was not called or failed"));
}

TEST(HttpTokenRequest, BadSettingsAreRejectedWithTheReason) {
    const std::pair<std::string, std::string> cases[] = {
        {"not json", "not valid JSON (syntax error at byte 2)"},
        {"[1]", "must be an object, not array"},
        {"{\"client_id\":\"a\",\"client_secret\":\"b\"}", "\"token_endpoint\" is missing"},
        {config(1, ",\"client_id\":7"), "\"client_id\" must be a string, not number"},
        {"{\"token_endpoint\":\"http://h/t\",\"client_id\":\"a\"}", "\"client_secret\" is missing"},
        {config(1, ",\"timeout_ms\":0"), "\"timeout_ms\" is out of range: 0"},
        {config(1, ",\"timeout_ms\":\"5\""), "\"timeout_ms\" must be an integer, not string"},
        {config(1, ",\"client_auth\":\"digest\""), "must be \"basic\" or \"post\", not \"digest\""},
        {config(1, "", "ftp"), "must be an http:// or https:// URL, not ftp://"},
        {"{\"token_endpoint\":\"http://u:pw@h/t\",\"client_id\":\"a\",\"client_secret\":\"b\"}",
         "must not contain user information"},
        {"{\"token_endpoint\":\"http://\",\"client_id\":\"a\",\"client_secret\":\"b\"}",
         "The token_endpoint is not a valid URL ("},
        {config(1, ",\"access_token\":\"a\\u0001b\""),
         "\"access_token\" holds characters a bearer token cannot have"},
    };
    for (const auto& c : cases) {
        TokenRun r(c.first);
        EXPECT_FALSE(r.setOk) << c.first;
        EXPECT_FALSE(r.ok) << c.first;
        ASSERT_EQ(r.log.errors().size(), 2u) << r.log.toText();
        EXPECT_THAT(r.log.errors()[0], HasSubstr(c.second)) << c.first;
    }
}

TEST(HttpTokenRequest, FailuresNameWhatArrived) {
    const std::pair<std::string, std::string> cases[] = {
        {answer(401, "{\"error\":\"invalid_client\",\"error_description\":\"Bad secret\"}"),
         "answered HTTP 401; error: invalid_client; error_description: Bad secret."},
        {answer(503, "<h1>Down</h1>", "text/html"), "answered HTTP 503; body: <h1>Down</h1>."},
        {"HTTP/1.1 302 Found\r\nLocation: http://elsewhere/t\r\nContent-Length: 0\r\n\r\n",
         "answered HTTP 302 (a redirect; redirects are not followed, Location: "
         "http://elsewhere/t)."},
        {answer(200, "<html>oops", "text/html"),
         "(HTTP 200, Content-Type text/html) is not valid JSON (syntax error at byte 1): "
         "<html>oops."},
        {answer(200, "{\"access_token\":\"abc\""), "is not valid JSON (syntax error at byte 22)."},
        {answer(200, "\"abc\""), "is JSON but not an object (string)."},
        {answer(200, "{\"token_type\":\"Bearer\",\"expires_in\":60}"),
         "has no access_token (keys: expires_in, token_type)."},
        {answer(200, "{\"access_token\":\"\"}"), "has no access_token (keys: access_token)."},
        {answer(200, "{\"error\":\"invalid_scope\"}"),
         "has no access_token; error: invalid_scope."},
        {answer(200, "{\"access_token\":\"abc\",\"token_type\":\"mac\"}"),
         "issued a token of type \"mac\"; only Bearer tokens can be used."},
        {answer(200, "{\"access_token\":\"a b\"}"), "holds characters a bearer token cannot have."},
        {answer(200, std::string(ClsHttp::kMaxResponseBytes + 1, ' ')),
         "is larger than 1048576 bytes."},
        {"HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" +
             std::string(ClsHttp::kMaxResponseBytes + 1, ' '),
         "is larger than 1048576 bytes."},
    };
    for (const auto& c : cases) {
        StubServer srv(c.first);
        TokenRun r(config(srv.port));
        EXPECT_FALSE(r.ok);
        EXPECT_TRUE(r.token.empty());
        EXPECT_THAT(r.error(), HasSubstr(c.second));
        EXPECT_TRUE(srv.connected());
    }
}

TEST(HttpTokenRequest, AnswerOfExactlyTheLimitIsRead) {
    std::string body = "{\"access_token\":\"big\"}";
    body.resize(ClsHttp::kMaxResponseBytes, ' ');
    for (std::string head :
         {"HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n",
          std::string("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n")}) {
        StubServer srv(head + body);
        TokenRun r(config(srv.port));
        EXPECT_TRUE(r.ok) << r.log.toText();
        EXPECT_EQ(r.token, "big");
    }
}

TEST(HttpTokenRequest, UnreachableEndpointReportsTheConnectionError) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(fd, reinterpret_cast<sockaddr*>(&a), len);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    int port = ntohs(a.sin_port);
    TokenRun r(config(port));
    EXPECT_FALSE(r.ok);
    EXPECT_THAT(r.error(), HasSubstr("/token failed: Failed to connect to 127.0.0.1 port " +
                                     std::to_string(port)));
}

TEST(HttpTokenRequest, SilentServerTimesOutAndAbortStopsTheTransfer) {
    StubServer silent("");
    TokenRun timedOut(config(silent.port, ",\"timeout_ms\":500"));
    EXPECT_FALSE(timedOut.ok);
    EXPECT_THAT(timedOut.error(), HasSubstr("failed: Operation timed out after"));
    EXPECT_GT(timedOut.seconds, 0.4);
    EXPECT_LT(timedOut.seconds, 3.0);

    StubServer silent2("");
    Events ev;
    ev.abortAfterMs = 300;
    TokenRun aborted(config(silent2.port, ",\"timeout_ms\":20000"), &ev);
    EXPECT_FALSE(aborted.ok);
    EXPECT_THAT(aborted.error(), HasSubstr("/token aborted by the application."));
    EXPECT_GT(aborted.seconds, 0.25);
    EXPECT_LT(aborted.seconds, 5.0);
    EXPECT_THAT(silent2.request(),
                ::testing::StartsWith("POST /token "));  // it stopped mid-transfer

    StubServer unused(answer(200, "{\"access_token\":\"x\"}"));
    Events early;
    early.abortAtCall = 1;
    TokenRun before(config(unused.port), &early);
    EXPECT_FALSE(before.ok);
    EXPECT_THAT(before.error(), HasSubstr("aborted by the application before it started"));
    EXPECT_FALSE(unused.connected());
}

TEST(HttpTokenRequest, NeitherSecretNorTokenReachesTheLog) {
    const std::string leaks[] = {kSecret, "s3cr%2Bt", "s3cr%2Bt+%2F%25%C3%BC", kToken,
                                 "bXklMjBjbGllbnQlM0ExOnMzY3Il"};
    std::vector<std::string> bodies = {
        std::string("{\"access_token\":\"") + kToken + "\"}",
        std::string("{\"error\":\"invalid_client\",\"error_description\":\"wrong: ") + kSecret +
            " s3cr%2Bt+%2F%25%C3%BC\"}",
        std::string("{\"access_token\":\"") + kToken + "\",\"token_type\":\"mac\"}",
        std::string("{\"access_token\":\"") + kToken + "\"",
    };
    for (size_t i = 0; i < bodies.size(); ++i) {
        StubServer srv(answer(i == 1 ? 401 : 200, bodies[i]));
        TokenRun r(config(srv.port, ",\"client_auth\":\"post\",\"scope\":\"s\""));
        EXPECT_EQ(r.ok, i == 0) << r.log.toText();
        EXPECT_GT(r.log.entries().size(), 4u);  // verbose: there is something to leak into
        for (const auto& e : r.log.entries())
            for (const auto& s : leaks)
                EXPECT_THAT(e.context + e.name + e.value, Not(HasSubstr(s))) << i;
    }
    // The JSON parser's own message would quote the unterminated secret.
    std::string cut = config(1);
    TokenRun bad(cut.substr(0, cut.find(kSecret) + 8));
    EXPECT_FALSE(bad.setOk);
    EXPECT_THAT(bad.log.toText(), HasSubstr("not valid JSON"));
    EXPECT_THAT(bad.log.toText(), Not(HasSubstr("s3cr")));
}

// --- HTTPS: a self-signed certificate made for this run ---

struct TlsServerCert {
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    std::string pem = ::testing::TempDir() + "http-test-ca-" + std::to_string(getpid()) + "-" +
                      std::to_string(++count) + ".pem";
    static inline int count = 0;
    explicit TlsServerCert(const char* san) {
        EVP_PKEY* key = EVP_EC_gen("P-256");
        X509* x = X509_new();
        ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
        X509_gmtime_adj(X509_getm_notBefore(x), -60);
        X509_gmtime_adj(X509_getm_notAfter(x), 3600);
        X509_set_pubkey(x, key);
        X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("test"), -1, -1, 0);
        X509_set_issuer_name(x, X509_get_subject_name(x));
        X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, san);
        X509_add_ext(x, ext, -1);
        X509_EXTENSION_free(ext);
        X509_sign(x, key, EVP_sha256());
        SSL_CTX_use_certificate(ctx, x);
        SSL_CTX_use_PrivateKey(ctx, key);
        FILE* f = std::fopen(pem.c_str(), "w");
        PEM_write_X509(f, x);
        std::fclose(f);
        X509_free(x);
        EVP_PKEY_free(key);
    }
    ~TlsServerCert() {
        SSL_CTX_free(ctx);
        std::remove(pem.c_str());
    }
};

TEST(HttpTokenRequest, HttpsVerifiesCertificateAndHostName) {
    TlsServerCert good("IP:127.0.0.1");
    {
        StubServer srv(answer(200, "{\"access_token\":\"tls-token\"}"), good.ctx);
        TokenRun r(config(srv.port, ",\"ca_file\":\"" + good.pem + "\"", "https"));
        EXPECT_TRUE(r.ok) << r.log.toText();
        EXPECT_EQ(r.token, "tls-token");
        EXPECT_EQ(srv.header("Authorization"),
                  "Basic bXklMjBjbGllbnQlM0ExOnMzY3IlMkJ0JTIwJTJGJTI1JUMzJUJD");
    }
    {
        StubServer srv(answer(200, "{\"access_token\":\"tls-token\"}"), good.ctx);
        TokenRun r(config(srv.port, "", "https"));
        EXPECT_FALSE(r.ok);
        EXPECT_THAT(r.error(), HasSubstr("SSL certificate problem: self-signed certificate"));
        EXPECT_EQ(srv.request(), "");
    }
    TlsServerCert wrongHost("DNS:wrong.test");
    {
        StubServer srv(answer(200, "{\"access_token\":\"tls-token\"}"), wrongHost.ctx);
        TokenRun r(config(srv.port, ",\"ca_file\":\"" + wrongHost.pem + "\"", "https"));
        EXPECT_FALSE(r.ok);
        EXPECT_THAT(
            r.error(),
            HasSubstr(
                "no alternative certificate subject name matches target host name '127.0.0.1'"));
        EXPECT_EQ(srv.request(), "");
    }
}

}  // namespace
