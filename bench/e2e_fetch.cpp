// End-to-end benchmark: the engine next to a bare client, against an
// in-memory server (plain TCP and TLS) and, when given its ports, a seeded
// Dovecot.
//
//   zrimap_e2e run    [--reps 5] [--small 5000] [--lat-iters 300] [--out FILE]
//                     [--dovecot-port P --dovecot-tls-port Q [--user U --password W]]
//                     [--only mem|dovecot] [--scenarios big1,big10,big100,small,latency]
//                     [--before-binary OTHER_BUILD] [--json FILE]
//   zrimap_e2e seed   --port P [--user U --password W] [--small 5000]
//   zrimap_e2e serve  --ready-fd FD [--small N]     (the in-memory server alone;
//                     writes "<plain port> <TLS port>\n" to FD once listening)
//
// Every measurement runs in a client process of its own (this program,
// executed again with "client ..."), so the peak RSS it reports (VmHWM) is
// that scenario's alone, and the CPU it reports (getrusage of that process,
// around the measured phase only) holds nothing of the server's: the
// in-memory server is another process too ("serve ...").
//
// The bare client is the limit: a blocking recv()/SSL_read() loop with a
// 64 KB buffer that sends the very same command lines as the engine, reads
// each response to its tagged completion and counts literal bytes without
// keeping them. A second bare variant ("bare-store") keeps each literal in
// one malloc'd buffer instead, to show what holding the message in fresh
// memory costs by itself.
//
// Mailboxes, identical on both servers:
//   Bulk   N small messages, UIDs 1..N (makeSmallMessage(uid - 1))
//   Large  UID 1, 2, 3: messages of exactly 1, 10 and 100 MiB
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/BenchSupport.h"
#include "zrimap/auth/Settings.h"
#include "zrimap/engine.h"

namespace {

using namespace zrbench;

constexpr unsigned kBigMiB[3] = {1, 10, 100};  // Large UIDs 1, 2, 3
constexpr size_t kBareBuffer = 64 * 1024;
const char kDate[] = "03-Jun-2024 10:00:00 +0000";

size_t bigSize(unsigned uid) { return static_cast<size_t>(kBigMiB[uid - 1]) << 20; }

// --- arguments: "--name value" pairs and bare "--flag"s ---

struct Args {
    std::map<std::string, std::string> kv;
    Args(int argc, char** argv, int from) {
        for (int i = from; i < argc; ++i) {
            std::string a = argv[i];
            if (a.rfind("--", 0) != 0) continue;
            a = a.substr(2);
            if (i + 1 < argc && std::strncmp(argv[i + 1], "--", 2) != 0)
                kv[a] = argv[++i];
            else
                kv[a] = "1";
        }
    }
    std::string str(const std::string& k, const std::string& d = "") const {
        auto it = kv.find(k);
        return it == kv.end() ? d : it->second;
    }
    long num(const std::string& k, long d) const {
        auto it = kv.find(k);
        return it == kv.end() ? d : std::atol(it->second.c_str());
    }
    bool has(const std::string& k) const { return kv.count(k) != 0; }
};

double threadCpuSeconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// ===========================================================================
// In-memory server

class ServerConn {
public:
    ServerConn(int fd, SSL* ssl) : m_fd(fd), m_ssl(ssl) {}
    bool readLine(std::string& line) {
        line.clear();
        for (;;) {
            const size_t nl = m_buf.find('\n', m_head);
            if (nl != std::string::npos) {
                line.assign(m_buf, m_head, nl + 1 - m_head);
                m_head = nl + 1;
                return true;
            }
            m_buf.erase(0, m_head);
            m_head = 0;
            if (m_buf.size() > (1u << 20)) return false;  // no line is that long here
            char tmp[16384];
            int n;
            if (m_ssl) {
                n = SSL_read(m_ssl, tmp, sizeof tmp);
            } else {
                do n = static_cast<int>(::recv(m_fd, tmp, sizeof tmp, 0));
                while (n < 0 && errno == EINTR);
            }
            if (n <= 0) return false;
            m_buf.append(tmp, static_cast<size_t>(n));
        }
    }
    bool write(const char* p, size_t n) {
        if (!m_ssl) return sendAllFd(m_fd, p, n);
        while (n > 0) {
            const int chunk = n > (1u << 20) ? (1 << 20) : static_cast<int>(n);
            const int w = SSL_write(m_ssl, p, chunk);
            if (w <= 0) return false;
            p += w;
            n -= static_cast<size_t>(w);
        }
        return true;
    }
    bool write(const std::string& s) { return write(s.data(), s.size()); }

private:
    int m_fd;
    SSL* m_ssl;
    std::string m_buf;
    size_t m_head = 0;
};

struct Store {
    std::vector<std::string> small;
    std::string big[3];
};

std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

std::string unquote(std::string s) {
    if (s.size() >= 2 && s.front() == '"' && s.back() == '"') s = s.substr(1, s.size() - 2);
    return s;
}

// Answers like Dovecot does, closely enough for the engine and the bare
// client to do the same work as against the real thing.
void serveConnection(ServerConn& c, const Store& store, bool trace) {
    if (!c.write("* OK [CAPABILITY IMAP4rev1 LITERAL+ AUTH=PLAIN] In-memory bench server ready.\r\n")) return;
    std::string line, mailbox;
    const unsigned nSmall = static_cast<unsigned>(store.small.size());
    // Bounded by the connection: every pass consumes one line or ends.
    while (c.readLine(line)) {
        if (trace) std::fprintf(stderr, "server got: %s", line.c_str());
        std::istringstream in(line);
        std::string tag, cmd;
        in >> tag >> cmd;
        cmd = upper(cmd);
        bool uid = false;
        if (cmd == "UID") {
            uid = true;
            in >> cmd;
            cmd = upper(cmd);
        }
        const std::string ok = tag + " OK ";
        if (cmd == "LOGIN") {
            c.write(ok + "[CAPABILITY IMAP4rev1 LITERAL+] Logged in\r\n");
        } else if (cmd == "SELECT" || cmd == "EXAMINE") {
            std::string box;
            in >> box;
            mailbox = unquote(box);
            const unsigned n = mailbox == "Large" ? 3 : mailbox == "Bulk" ? nSmall : 0;
            std::string r = "* FLAGS (\\Answered \\Flagged \\Deleted \\Seen \\Draft)\r\n"
                            "* OK [PERMANENTFLAGS ()] Read-only mailbox.\r\n* " +
                            std::to_string(n) + " EXISTS\r\n* 0 RECENT\r\n"
                            "* OK [UIDVALIDITY 1717400000] UIDs valid\r\n* OK [UIDNEXT " +
                            std::to_string(n + 1) + "] Predicted next UID\r\n" + ok + "[READ-ONLY] " +
                            (cmd == "SELECT" ? "Select" : "Examine") + " completed (0.001 + 0.000 secs).\r\n";
            c.write(r);
        } else if (cmd == "FETCH") {
            unsigned id = 0;
            in >> id;
            const std::string* msg = nullptr;
            if (mailbox == "Large" && id >= 1 && id <= 3) msg = &store.big[id - 1];
            if (mailbox == "Bulk" && id >= 1 && id <= nSmall) msg = &store.small[id - 1];
            (void)uid;
            if (!msg) {
                c.write(ok + "Fetch completed (0.001 + 0.000 secs).\r\n");
                continue;
            }
            std::string head = "* " + std::to_string(id) + " FETCH (UID " + std::to_string(id) +
                               " FLAGS (\\Seen) INTERNALDATE \"" + kDate + "\" BODY[] {" +
                               std::to_string(msg->size()) + "}\r\n";
            const std::string tail = ")\r\n" + ok + "Fetch completed (0.001 + 0.000 secs).\r\n";
            if (msg->size() < (256u << 10)) {
                c.write(head + *msg + tail);  // one write, as a server with a buffer would
            } else if (!c.write(head) || !c.write(*msg) || !c.write(tail)) {
                return;
            }
        } else if (cmd == "LIST") {
            static const char* kBoxes[] = {"INBOX", "Archive", "Bulk", "Drafts", "Junk", "Large", "Sent", "Trash",
                                           "Work", "Work/Projects"};
            std::string r;
            for (const char* b : kBoxes)
                r += std::string("* LIST (\\HasNoChildren) \"/\" ") + (std::strchr(b, '/') ? "\"" : "") + b +
                     (std::strchr(b, '/') ? "\"" : "") + "\r\n";
            c.write(r + ok + "List completed (0.001 + 0.000 secs).\r\n");
        } else if (cmd == "STATUS") {
            std::string box;
            in >> box;
            box = unquote(box);
            const unsigned n = box == "Large" ? 3 : box == "Bulk" ? nSmall : 0;
            c.write("* STATUS " + box + " (MESSAGES " + std::to_string(n) + " RECENT 0 UIDNEXT " +
                    std::to_string(n + 1) + " UIDVALIDITY 1717400000 UNSEEN " + std::to_string(n) + ")\r\n" + ok +
                    "Status completed (0.001 + 0.000 secs).\r\n");
        } else if (cmd == "SEARCH") {
            const unsigned n = mailbox == "Large" ? 3 : mailbox == "Bulk" ? nSmall : 0;
            std::string r = "* SEARCH";
            for (unsigned i = 1; i <= n; ++i) r += " " + std::to_string(i);
            c.write(r + "\r\n" + ok + "Search completed (0.001 + 0.000 secs).\r\n");
        } else if (cmd == "LOGOUT") {
            c.write("* BYE Logging out\r\n" + ok + "Logout completed.\r\n");
            return;
        } else {
            c.write(ok + "Done.\r\n");
        }
    }
}

int serveMain(const Args& a) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlive the orchestrator
    ::signal(SIGPIPE, SIG_IGN);
    const int readyFd = static_cast<int>(a.num("ready-fd", -1));
    const bool trace = a.has("trace");
    Store store;
    const unsigned nSmall = static_cast<unsigned>(a.num("small", 5000));
    for (unsigned i = 0; i < nSmall; ++i) store.small.push_back(makeSmallMessage(i));
    for (unsigned u = 1; u <= 3; ++u) store.big[u - 1] = makeBigMessage(bigSize(u), u);

    SSL_CTX* ctx = makeServerTlsContext();
    int plainPort = 0, tlsPort = 0;
    const int plain = listenLoopback(plainPort);
    const int tls = listenLoopback(tlsPort);
    if (!ctx || plain < 0 || tls < 0) {
        std::fprintf(stderr, "serve: setup failed\n");
        return 1;
    }
    const std::string ready = std::to_string(plainPort) + " " + std::to_string(tlsPort) + "\n";
    if (::write(readyFd, ready.data(), ready.size()) < 0) return 1;
    ::close(readyFd);

    // One connection at a time: the orchestrator runs one client at a time.
    for (;;) {
        pollfd p[2] = {{plain, POLLIN, 0}, {tls, POLLIN, 0}};
        if (::poll(p, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return 1;
        }
        for (int i = 0; i < 2; ++i) {
            if (!(p[i].revents & POLLIN)) continue;
            const int fd = ::accept(p[i].fd, nullptr, nullptr);
            if (fd < 0) continue;
            int one = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            SSL* ssl = nullptr;
            if (p[i].fd == tls) {
                ssl = SSL_new(ctx);
                SSL_set_fd(ssl, fd);
                if (SSL_accept(ssl) != 1) {
                    ERR_clear_error();
                    SSL_free(ssl);
                    ::close(fd);
                    continue;
                }
            }
            ServerConn c(fd, ssl);
            serveConnection(c, store, trace);
            if (ssl) {
                SSL_shutdown(ssl);
                SSL_free(ssl);
                ERR_clear_error();
            }
            ::close(fd);
        }
    }
}

// ===========================================================================
// Clients: the same operations through the engine and through a bare loop.

class Client {
public:
    virtual ~Client() = default;
    virtual bool connect(int port, bool tls) = 0;
    virtual bool login(const std::string& user, const std::string& password) = 0;
    virtual bool examine(const std::string& mailbox) = 0;
    // The whole message of that UID; bytes = the literal's length.
    virtual bool fetch(unsigned uid, uint64_t& bytes) = 0;
    virtual bool list() = 0;
    virtual bool status(const std::string& mailbox) = 0;
    virtual bool searchAll() = 0;
    virtual void logout() = 0;
};

class EngineClient : public Client {
public:
    bool connect(int port, bool tls) override {
        m_imap.setSsl(tls);
        m_imap.put_ReadTimeout(120);
        zr::StringBuffer greeting;
        return m_imap.connectToImapServer(zr::StringBuffer("127.0.0.1"), port, greeting, m_tls, m_sp, m_log);
    }
    bool login(const std::string& user, const std::string& password) override {
        zr::XString login(user.c_str());
        zr::SecurePassword pw(password.c_str());
        zr::ImapResultSet rs;
        return m_imap.loginImap(login, pw, rs, m_log, m_sp) && rs.isOK(false, m_log);
    }
    bool examine(const std::string& mailbox) override {
        zr::ImapResultSet rs;
        bool got = false;
        return m_imap.selectMailbox(mailbox.c_str(), true, rs, got, m_log, m_sp);
    }
    bool fetch(unsigned uid, uint64_t& bytes) override {
        zr::ImapFlags flags;
        zr::StringBuffer date, text;
        zr::DataBuffer mime;
        bool ok = false;
        const bool done =
            m_imap.fetchCompleteWithAttachments_u(uid, true, flags, date, text, mime, ok, m_sp, m_log);
        bytes = mime.getSize();
        return done && ok;
    }
    bool list() override {
        zr::ImapResultSet rs;
        return m_imap.listImapMailboxes(false, "", "*", rs, m_log, m_sp) && rs.isOK(false, m_log);
    }
    bool status(const std::string& mailbox) override {
        zr::ImapResultSet rs;
        bool got = false;
        return m_imap.getMailboxStatus(mailbox.c_str(), rs, got, m_log, m_sp) && rs.isOK(false, m_log);
    }
    bool searchAll() override {
        zr::ImapResultSet rs;
        return m_imap.searchOrSortImap(true, "SEARCH", nullptr, nullptr, "ALL", rs, m_log, m_sp) &&
               rs.isOK(false, m_log);
    }
    void logout() override {
        zr::StringBuffer line;
        m_imap.logout(line, m_sp, m_log);
        m_imap.imapDisconnect(m_log, m_sp);
    }
    const char* lastCommand() {
        m_imap.getLastCommand(m_last);
        return m_last.getString();
    }

private:
    zr::_zrImap m_imap;
    zr::LogNull m_log;
    zr::SocketParams m_sp{nullptr};
    zr::_clsTls m_tls;
    zr::StringBuffer m_last;
};

class BareClient : public Client {
public:
    // store: keep each literal in one malloc'd buffer of its size, read into
    // directly (the least a client that keeps the message must do); without
    // it the literal is only counted, which is the limit.
    explicit BareClient(bool store) : m_store(store) {}
    ~BareClient() override {
        if (m_ssl) SSL_free(m_ssl);
        if (m_ctx) SSL_CTX_free(m_ctx);
        if (m_fd >= 0) ::close(m_fd);
    }
    bool connect(int port, bool tls) override {
        m_fd = connectLoopback(port);
        if (m_fd < 0) return false;
        if (tls) {
            m_ctx = SSL_CTX_new(TLS_client_method());
            m_ssl = m_ctx ? SSL_new(m_ctx) : nullptr;
            if (!m_ssl || SSL_set_fd(m_ssl, m_fd) != 1 || SSL_connect(m_ssl) != 1) return false;
        }
        std::string greeting;
        return readLine(greeting) && greeting.rfind("* OK", 0) == 0;
    }
    bool login(const std::string& user, const std::string& password) override {
        return command("LOGIN \"" + user + "\" \"" + password + "\"");
    }
    bool examine(const std::string& mailbox) override { return command("EXAMINE \"" + mailbox + "\""); }
    bool fetch(unsigned uid, uint64_t& bytes) override {
        m_literalBytes = 0;
        const bool ok = command("UID FETCH " + std::to_string(uid) + " (FLAGS INTERNALDATE BODY.PEEK[])");
        bytes = m_literalBytes;
        return ok;
    }
    bool list() override { return command("LIST \"\" \"*\""); }
    bool status(const std::string& mailbox) override {
        return command("STATUS \"" + mailbox + "\" (MESSAGES RECENT UIDNEXT UIDVALIDITY UNSEEN)");
    }
    bool searchAll() override { return command("UID SEARCH ALL"); }
    void logout() override { command("LOGOUT"); }

private:
    // The engine's tag sequence, so that even the tags on the wire match:
    // "aaab" first, the last letter counting fastest.
    std::string nextTag() {
        for (int i = 3; i >= 0; --i) {
            if (++m_tag[i] <= 'z') break;
            m_tag[i] = 'a';
        }
        return std::string(m_tag, 4);
    }
    int fill() {
        if (m_ssl) return SSL_read(m_ssl, m_buf, static_cast<int>(kBareBuffer));
        ssize_t n;
        do n = ::recv(m_fd, m_buf, kBareBuffer, 0);
        while (n < 0 && errno == EINTR);
        return static_cast<int>(n);
    }
    bool readLine(std::string& line) {
        line.clear();
        for (;;) {
            const char* nl = static_cast<const char*>(std::memchr(m_buf + m_head, '\n', m_tail - m_head));
            if (nl) {
                const size_t end = static_cast<size_t>(nl - m_buf) + 1;
                line.append(m_buf + m_head, end - m_head);
                m_head = end;
                return true;
            }
            line.append(m_buf + m_head, m_tail - m_head);
            m_head = m_tail = 0;
            const int n = fill();
            if (n <= 0) return false;
            m_tail = static_cast<size_t>(n);
        }
    }
    bool storeLiteral(uint64_t n) {
        std::unique_ptr<char, decltype(&std::free)> keep(static_cast<char*>(std::malloc(n ? n : 1)), &std::free);
        if (!keep) return false;
        const size_t buffered = m_tail - m_head;
        size_t got = n < buffered ? static_cast<size_t>(n) : buffered;
        std::memcpy(keep.get(), m_buf + m_head, got);
        m_head += got;
        while (got < n) {
            const size_t want = n - got > (1u << 30) ? (1u << 30) : static_cast<size_t>(n - got);
            ssize_t r;
            if (m_ssl) {
                r = SSL_read(m_ssl, keep.get() + got, static_cast<int>(want));
            } else {
                do r = ::recv(m_fd, keep.get() + got, want, 0);
                while (r < 0 && errno == EINTR);
            }
            if (r <= 0) return false;
            got += static_cast<size_t>(r);
        }
        m_literalBytes += got;
        return true;
    }
    bool skipLiteral(uint64_t n) {
        if (m_store) return storeLiteral(n);
        const size_t buffered = m_tail - m_head;
        const size_t take = n < buffered ? static_cast<size_t>(n) : buffered;
        m_head += take;
        n -= take;
        m_literalBytes += take;
        while (n > 0) {
            const int got = fill();
            if (got <= 0) return false;
            if (static_cast<uint64_t>(got) > n) {
                m_head = static_cast<size_t>(n);
                m_tail = static_cast<size_t>(got);
                m_literalBytes += n;
                return true;
            }
            n -= static_cast<uint64_t>(got);
            m_literalBytes += static_cast<uint64_t>(got);
        }
        return true;
    }
    bool send(const std::string& s) {
        if (!m_ssl) return sendAllFd(m_fd, s.data(), s.size());
        return SSL_write(m_ssl, s.data(), static_cast<int>(s.size())) == static_cast<int>(s.size());
    }
    bool command(const std::string& text) {
        const std::string tag = nextTag();
        if (!send(tag + " " + text + "\r\n")) return false;
        const std::string done = tag + " ";
        std::string line;
        // Bounded by the stream: each pass consumes a line or fails.
        for (;;) {
            if (!readLine(line)) return false;
            if (line.compare(0, done.size(), done) == 0) return line.compare(done.size(), 2, "OK") == 0;
            // A literal announced at the end of a line follows it directly.
            if (line.size() >= 3 && line.compare(line.size() - 3, 3, "}\r\n") == 0) {
                const size_t open = line.rfind('{');
                if (open == std::string::npos) return false;
                if (!skipLiteral(std::strtoull(line.c_str() + open + 1, nullptr, 10))) return false;
            }
        }
    }

    bool m_store;
    int m_fd = -1;
    SSL_CTX* m_ctx = nullptr;
    SSL* m_ssl = nullptr;
    char m_buf[kBareBuffer];
    size_t m_head = 0, m_tail = 0;
    char m_tag[4] = {'a', 'a', 'a', 'a'};
    uint64_t m_literalBytes = 0;
};

// One measured scenario in this (fresh) process; prints one RESULT line.
int clientMain(const Args& a) {
    ::alarm(600);  // a hung server must not hang the run
    ::signal(SIGPIPE, SIG_IGN);
    const std::string impl = a.str("impl", "engine");
    const std::string scenario = a.str("scenario");
    const int port = static_cast<int>(a.num("port", 0));
    const bool tls = a.has("tls");
    const std::string user = a.str("user", "alice"), password = a.str("password", "alice-pw");
    std::unique_ptr<Client> c;
    if (impl == "bare" || impl == "bare-store")
        c.reset(new BareClient(impl == "bare-store"));
    else
        c.reset(new EngineClient);

    const std::string mailbox = scenario == "latency" || scenario == "small" ? "Bulk" : "Large";
    if (!c->connect(port, tls) || !c->login(user, password) || !c->examine(mailbox)) {
        std::printf("RESULT ok=0 error=setup\n");
        return 1;
    }
    // What the server must deliver, worked out before the clock starts.
    uint64_t expected = 0;
    const unsigned nSmall = static_cast<unsigned>(a.num("count", 5000));
    const unsigned bigUid = scenario == "big1" ? 1 : scenario == "big10" ? 2 : 3;
    if (scenario == "small")
        for (unsigned i = 0; i < nSmall; ++i) expected += makeSmallMessage(i).size();
    else if (scenario.rfind("big", 0) == 0)
        expected = bigSize(bigUid);

    const long rssBefore = vmRssKiB();
    std::ostringstream out;
    bool ok = true;
    double u0, s0, u1, s1;
    processCpu(u0, s0);
    const double t0 = monoSeconds();
    uint64_t bytes = 0;
    unsigned msgs = 0;
    if (scenario.rfind("big", 0) == 0) {
        ok = c->fetch(bigUid, bytes);
        msgs = 1;
    } else if (scenario == "small") {
        for (unsigned uid = 1; uid <= nSmall && ok; ++uid) {
            uint64_t b = 0;
            ok = c->fetch(uid, b);
            bytes += b;
            ++msgs;
        }
    } else if (scenario == "latency") {
        const int iters = static_cast<int>(a.num("iters", 300));
        std::vector<double> wall[3], cpu[3];
        for (int i = 0; i < iters && ok; ++i) {
            for (int k = 0; k < 3 && ok; ++k) {
                const double w0 = monoSeconds(), c0 = threadCpuSeconds();
                ok = k == 0 ? c->list() : k == 1 ? c->status(mailbox) : c->searchAll();
                wall[k].push_back(monoSeconds() - w0);
                cpu[k].push_back(threadCpuSeconds() - c0);
            }
        }
        static const char* kNames[3] = {"list", "status", "search"};
        for (int k = 0; k < 3; ++k) {
            std::vector<double> w = wall[k];
            std::sort(w.begin(), w.end());
            double cpuSum = 0;
            for (double x : cpu[k]) cpuSum += x;
            const double med = w.empty() ? 0 : w[w.size() / 2];
            const double p90 = w.empty() ? 0 : w[w.size() * 9 / 10];
            out << " " << kNames[k] << "_us=" << med * 1e6 << " " << kNames[k] << "_p90_us=" << p90 * 1e6 << " "
                << kNames[k] << "_cpu_us=" << (cpu[k].empty() ? 0 : cpuSum / cpu[k].size() * 1e6);
        }
        msgs = static_cast<unsigned>(iters * 3);
    } else {
        std::printf("RESULT ok=0 error=unknown-scenario\n");
        return 1;
    }
    const double t1 = monoSeconds();
    processCpu(u1, s1);
    const long hwm = vmHwmKiB();
    if (a.has("show-commands")) {
        if (EngineClient* e = dynamic_cast<EngineClient*>(c.get())) std::fprintf(stderr, "last: %s\n", e->lastCommand());
    }
    c->logout();
    if (expected && bytes != expected) ok = false;
    std::printf("RESULT ok=%d wall=%.6f user=%.6f sys=%.6f bytes=%" PRIu64 " expected=%" PRIu64
                " msgs=%u hwm_kib=%ld rss_before_kib=%ld%s\n",
                ok ? 1 : 0, t1 - t0, u1 - u0, s1 - s0, bytes, expected, msgs, hwm, rssBefore, out.str().c_str());
    return ok ? 0 : 1;
}

// ===========================================================================
// Seeding Dovecot through the engine (APPEND), skipped when already done.

bool statusCounts(zr::_zrImap& imap, const char* box, unsigned& messages, unsigned& uidNext, zr::LogBase& log,
                  zr::SocketParams& sp) {
    zr::ImapResultSet rs;
    bool got = false;
    messages = uidNext = 0;
    if (!imap.getMailboxStatus(box, rs, got, log, sp) || !rs.isOK(false, log)) return false;
    zr::StringBuffer all;
    rs.toStringBuffer(all);
    const char* s = all.getString();
    if (const char* m = std::strstr(s, "MESSAGES ")) messages = static_cast<unsigned>(std::atoi(m + 9));
    if (const char* u = std::strstr(s, "UIDNEXT ")) uidNext = static_cast<unsigned>(std::atoi(u + 8));
    return true;
}

int seedMain(const Args& a) {
    const int port = static_cast<int>(a.num("port", 0));
    const unsigned nSmall = static_cast<unsigned>(a.num("small", 5000));
    zr::_zrImap imap;
    zr::LogNull log;
    zr::SocketParams sp(nullptr);
    zr::_clsTls tls;
    imap.put_ReadTimeout(120);
    zr::StringBuffer greeting;
    zr::XString login(a.str("user", "alice").c_str());
    zr::SecurePassword pw(a.str("password", "alice-pw").c_str());
    zr::ImapResultSet lrs;
    if (!imap.connectToImapServer(zr::StringBuffer("127.0.0.1"), port, greeting, tls, sp, log) ||
        !imap.loginImap(login, pw, lrs, log, sp) || !lrs.isOK(false, log)) {
        std::fprintf(stderr, "seed: cannot log in on port %d\n", port);
        return 1;
    }
    struct Box {
        const char* name;
        unsigned count;
    } boxes[] = {{"Bulk", nSmall}, {"Large", 3}};
    for (const Box& b : boxes) {
        unsigned messages = 0, uidNext = 0;
        // Contiguous UIDs 1..count are what the clients fetch.
        if (statusCounts(imap, b.name, messages, uidNext, log, sp) && messages == b.count && uidNext == b.count + 1) {
            std::printf("seed: %s already holds %u messages\n", b.name, messages);
            continue;
        }
        zr::ImapResultSet del, create;
        imap.deleteMailbox2(b.name, del, log, sp);
        if (!imap.createMailbox(b.name, create, log, sp) || !create.isOK(false, log)) {
            std::fprintf(stderr, "seed: cannot create %s\n", b.name);
            return 1;
        }
        const double t0 = monoSeconds();
        for (unsigned i = 0; i < b.count; ++i) {
            const std::string msg = b.count == 3 ? makeBigMessage(bigSize(i + 1), i + 1) : makeSmallMessage(i);
            zr::ExtPtrArraySb lines;
            zr::ImapResultSet rs;
            if (!imap.appendMime(b.name, msg.c_str(), nullptr, false, false, false, false, false, lines, rs, log,
                                 sp)) {
                std::fprintf(stderr, "seed: APPEND %u to %s failed\n", i + 1, b.name);
                return 1;
            }
        }
        std::printf("seed: %s: %u messages appended in %.1f s\n", b.name, b.count, monoSeconds() - t0);
    }
    zr::StringBuffer bye;
    imap.logout(bye, sp, log);
    imap.imapDisconnect(log, sp);
    return 0;
}

// ===========================================================================
// Orchestration

struct Sample {
    bool ok = false;
    std::map<std::string, double> v;
};

// Runs this program (or `exe`, another build of it) as "client ..." and
// parses its RESULT line.
Sample runChild(const std::vector<std::string>& args, const std::string& exe = "/proc/self/exe") {
    Sample s;
    int fds[2];
    if (::pipe(fds) != 0) return s;
    const pid_t pid = ::fork();
    if (pid < 0) return s;
    if (pid == 0) {
        ::dup2(fds[1], 1);
        ::close(fds[0]);
        ::close(fds[1]);
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>("zrimap_e2e"));
        for (const std::string& x : args) argv.push_back(const_cast<char*>(x.c_str()));
        argv.push_back(nullptr);
        ::execv(exe.c_str(), argv.data());
        ::_exit(127);
    }
    ::close(fds[1]);
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(fds[0], buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0) text.append(buf, static_cast<size_t>(n));
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    const size_t at = text.find("RESULT ");
    if (at == std::string::npos) return s;
    std::istringstream in(text.substr(at + 7));
    std::string kv;
    while (in >> kv) {
        const size_t eq = kv.find('=');
        if (eq != std::string::npos) s.v[kv.substr(0, eq)] = std::atof(kv.c_str() + eq + 1);
    }
    s.ok = s.v["ok"] == 1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return s;
}

struct Target {
    std::string server;     // "in-memory" or "Dovecot"
    std::string transport;  // "TCP" or "TLS"
    int port;
};

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// The samples of one server/transport/scenario, by client ("engine",
// "bare", "bare-store").
struct Cell {
    std::map<std::string, std::vector<Sample>> by;
    double med(const std::string& impl, const std::string& key) const {
        std::vector<double> x;
        auto it = by.find(impl);
        if (it != by.end())
            for (const Sample& s : it->second)
                if (s.ok) x.push_back(s.v.at(key));
        return median(x);
    }
    double medCpu(const std::string& impl) const {
        std::vector<double> x;
        auto it = by.find(impl);
        if (it != by.end())
            for (const Sample& s : it->second)
                if (s.ok) x.push_back(s.v.at("user") + s.v.at("sys"));
        return median(x);
    }
    // The median over repetitions of f(a's sample, b's sample), each pair
    // taken from the same repetition. The two runs of a pair are next to
    // each other in time, so a change in the machine's load between
    // repetitions cancels out of their ratio.
    template <typename F>
    double paired(const std::string& a, const std::string& b, F f) const {
        auto ia = by.find(a), ib = by.find(b);
        if (ia == by.end() || ib == by.end()) return 0;
        std::vector<double> x;
        for (size_t r = 0; r < ia->second.size() && r < ib->second.size(); ++r) {
            const Sample& sa = ia->second[r];
            const Sample& sb = ib->second[r];
            if (sa.ok && sb.ok) x.push_back(f(sa, sb));
        }
        return median(x);
    }
    // Paired bare/engine wall time: the throughput or message-rate ratio.
    double pairedRate(const std::string& engine) const {
        return paired(engine, "bare", [](const Sample& e, const Sample& b) {
            return e.v.at("wall") > 0 ? b.v.at("wall") / e.v.at("wall") : 0;
        });
    }
    // Paired engine/bare CPU.
    double pairedCpu(const std::string& engine) const {
        return paired(engine, "bare", [](const Sample& e, const Sample& b) {
            const double bc = b.v.at("user") + b.v.at("sys");
            return bc > 0 ? (e.v.at("user") + e.v.at("sys")) / bc : 0;
        });
    }
    int failures() const {
        int f = 0;
        for (const auto& [impl, samples] : by)
            for (const Sample& s : samples) f += !s.ok;
        return f;
    }
};

std::string fmt(const char* f, double x) {
    char b[64];
    std::snprintf(b, sizeof b, f, x);
    return b;
}

std::string loadAverage() {
    std::ifstream f("/proc/loadavg");
    std::string a, b, c;
    f >> a >> b >> c;
    return a + " " + b + " " + c;
}

int runMain(const Args& a) {
    ::signal(SIGPIPE, SIG_IGN);
    const int reps = static_cast<int>(a.num("reps", 5));
    const long nSmall = a.num("small", 5000);
    const long latIters = a.num("lat-iters", 300);
    const std::string only = a.str("only");
    // Another build of this program whose engine client runs as a fourth
    // client in the same rotation, for before/after figures of an engine
    // change under identical conditions.
    const std::string before = a.str("before-binary");
    std::string scenarioList = a.str("scenarios", "big1,big10,big100,small,latency");
    auto wants = [&](const std::string& s) { return ("," + scenarioList + ",").find("," + s + ",") != std::string::npos; };

    std::vector<Target> targets;
    pid_t server = -1;
    if (only != "dovecot") {
        int fds[2];
        if (::pipe(fds) != 0) return 1;
        server = ::fork();
        if (server == 0) {
            ::close(fds[0]);
            std::string fd = std::to_string(fds[1]), small = std::to_string(nSmall);
            const char* argv[] = {"zrimap_e2e", "serve", "--ready-fd", fd.c_str(), "--small", small.c_str(), nullptr};
            ::execv("/proc/self/exe", const_cast<char**>(argv));
            ::_exit(127);
        }
        ::close(fds[1]);
        char buf[64] = {0};
        const ssize_t n = ::read(fds[0], buf, sizeof buf - 1);
        ::close(fds[0]);
        int plainPort = 0, tlsPort = 0;
        if (n <= 0 || std::sscanf(buf, "%d %d", &plainPort, &tlsPort) != 2) {
            std::fprintf(stderr, "run: the in-memory server did not start\n");
            return 1;
        }
        targets.push_back({"in-memory", "TCP", plainPort});
        targets.push_back({"in-memory", "TLS", tlsPort});
    }
    if (only != "mem" && a.has("dovecot-port")) {
        targets.push_back({"Dovecot", "TCP", static_cast<int>(a.num("dovecot-port", 0))});
        if (a.has("dovecot-tls-port"))
            targets.push_back({"Dovecot", "TLS", static_cast<int>(a.num("dovecot-tls-port", 0))});
    }

    const std::vector<std::string> scenarios = {"big1", "big10", "big100", "small", "latency"};
    std::map<std::string, Cell> cells;  // key: server/transport/scenario
    const std::string loadBefore = loadAverage();
    const double runStart = monoSeconds();
    for (const Target& t : targets) {
        for (const std::string& sc : scenarios) {
            if (!wants(sc)) continue;
            std::vector<std::string> base = {"client", "--scenario", sc, "--port", std::to_string(t.port),
                                             "--user", a.str("user", "alice"), "--password",
                                             a.str("password", "alice-pw"), "--count", std::to_string(nSmall),
                                             "--iters", std::to_string(latIters)};
            if (t.transport == "TLS") base.push_back("--tls");
            auto with = [&](const char* impl) {
                std::vector<std::string> v = base;
                v.push_back("--impl");
                v.push_back(impl);
                return v;
            };
            Cell& cell = cells[t.server + "/" + t.transport + "/" + sc];
            std::vector<std::string> impls = {"engine", "bare"};
            if (sc.rfind("big", 0) == 0) impls.push_back("bare-store");
            if (!before.empty()) impls.push_back("engine-before");
            runChild(with("bare"));  // warm-up: server caches, page cache; not counted
            for (int r = 0; r < reps; ++r) {
                // The order rotates, so that drift in the machine's load
                // does not favour one client.
                for (size_t k = 0; k < impls.size(); ++k) {
                    const std::string& impl = impls[(k + static_cast<size_t>(r)) % impls.size()];
                    if (impl == "engine-before")
                        cell.by[impl].push_back(runChild(with("engine"), before));
                    else
                        cell.by[impl].push_back(runChild(with(impl.c_str())));
                }
            }
            std::fprintf(stderr, "  %-9s %-3s %-8s done (%d failures)\n", t.server.c_str(), t.transport.c_str(),
                         sc.c_str(), cell.failures());
        }
    }
    const double runSeconds = monoSeconds() - runStart;
    if (server > 0) {
        ::kill(server, SIGTERM);
        ::waitpid(server, nullptr, 0);
    }

    std::ostringstream md;
    md << "Run: " << reps << " repetitions per cell (median shown), clients in rotating order; "
       << nSmall << " small messages; " << latIters << " iterations per latency command; "
       << "load average before " << loadBefore << ", after " << loadAverage() << "; "
       << fmt("%.0f", runSeconds) << " s.\n\n";

    // "0.93 (ok)" or "0.85 (MISSED)" where a target applies, the bare value
    // elsewhere.
    auto verdict = [](double value, bool applies, bool ok) {
        std::string v = fmt(applies ? "%.3f" : "%.2f", value);
        if (applies) v += ok ? " (ok)" : " (MISSED)";
        return v;
    };

    bool anyBig = false;
    for (const std::string& sc : {std::string("big1"), std::string("big10"), std::string("big100")})
        anyBig |= wants(sc);
    if (anyBig) {
        md << "### Whole-message fetch (one UID FETCH BODY.PEEK[])\n\n"
           << "Targets on the 100 MiB rows: throughput ratio >= 0.9, CPU ratio <= 1.3, peak RSS <= size + 16 MiB. "
              "Throughput ratio: engine MiB/s over bare MiB/s; CPU ratio: engine CPU over bare CPU. The ratio "
              "columns are paired (the median over repetitions of the ratio within each repetition, whose runs are "
              "adjacent in time); \"of medians\" divides the medians instead. \"bare+store\" is the bare loop "
              "keeping the literal in one malloc'd buffer; it separates the cost of holding the message in fresh "
              "memory from the engine's own.\n\n"
           << "| server | transport | size | engine MiB/s | bare MiB/s | throughput ratio | of medians | "
              "engine CPU ms | bare CPU ms | CPU ratio | of medians | bare+store CPU ms | engine peak RSS MiB | "
              "RSS - size MiB | bare peak RSS MiB | failed runs |\n"
           << "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n";
        for (const Target& t : targets) {
            for (unsigned u = 1; u <= 3; ++u) {
                const std::string sc = "big" + std::to_string(kBigMiB[u - 1]);
                auto it = cells.find(t.server + "/" + t.transport + "/" + sc);
                if (it == cells.end()) continue;
                const Cell& c = it->second;
                const bool targeted = kBigMiB[u - 1] == 100;
                const double mib = static_cast<double>(bigSize(u)) / (1 << 20);
                const double ew = c.med("engine", "wall"), bw = c.med("bare", "wall");
                const double ec = c.medCpu("engine"), bc = c.medCpu("bare"), sc2 = c.medCpu("bare-store");
                const double er = c.med("engine", "hwm_kib") / 1024, br = c.med("bare", "hwm_kib") / 1024;
                const double thr = c.pairedRate("engine"), cpu = c.pairedCpu("engine");
                md << "| " << t.server << " | " << t.transport << " | " << kBigMiB[u - 1] << " MiB | "
                   << fmt("%.0f", ew > 0 ? mib / ew : 0) << " | " << fmt("%.0f", bw > 0 ? mib / bw : 0) << " | "
                   << verdict(thr, targeted, thr >= 0.9) << " | " << fmt("%.2f", ew > 0 ? bw / ew : 0) << " | "
                   << fmt("%.1f", ec * 1e3) << " | " << fmt("%.1f", bc * 1e3) << " | "
                   << verdict(cpu, targeted, cpu <= 1.3) << " | " << fmt("%.2f", bc > 0 ? ec / bc : 0) << " | "
                   << fmt("%.1f", sc2 * 1e3) << " | " << fmt("%.1f", er) << " | "
                   << verdict(er - mib, targeted, er - mib <= 16)
                   << " | " << fmt("%.1f", br) << " | " << c.failures() << " |\n";
            }
        }
        md << "\n";
    }
    if (wants("small")) {
        md << "### " << nSmall << " small messages, one UID FETCH each\n\n"
           << "Target: rate ratio (engine msg/s over bare msg/s) >= 0.9, paired as above.\n\n"
           << "| server | transport | engine msg/s | bare msg/s | rate ratio | of medians | engine CPU ms | "
              "bare CPU ms | CPU ratio | engine CPU µs/msg | bare CPU µs/msg | failed runs |\n"
           << "|---|---|---|---|---|---|---|---|---|---|---|---|\n";
        for (const Target& t : targets) {
            auto it = cells.find(t.server + "/" + t.transport + "/small");
            if (it == cells.end()) continue;
            const Cell& c = it->second;
            const double ew = c.med("engine", "wall"), bw = c.med("bare", "wall");
            const double ec = c.medCpu("engine"), bc = c.medCpu("bare");
            const double rate = c.pairedRate("engine");
            md << "| " << t.server << " | " << t.transport << " | " << fmt("%.0f", ew > 0 ? nSmall / ew : 0)
               << " | " << fmt("%.0f", bw > 0 ? nSmall / bw : 0) << " | " << verdict(rate, true, rate >= 0.9)
               << " | " << fmt("%.2f", ew > 0 ? bw / ew : 0) << " | " << fmt("%.1f", ec * 1e3) << " | "
               << fmt("%.1f", bc * 1e3) << " | " << fmt("%.2f", c.pairedCpu("engine")) << " | " << fmt("%.1f", ec / nSmall * 1e6) << " | "
               << fmt("%.1f", bc / nSmall * 1e6) << " | " << c.failures() << " |\n";
        }
        md << "\n";
    }
    if (wants("latency")) {
        md << "### Command latency (median of " << latIters << " per run, then median over runs; no target)\n\n"
           << "| server | transport | command | engine µs | bare µs | latency ratio (paired) | engine p90 µs | "
              "bare p90 µs | "
              "engine CPU µs | bare CPU µs | failed runs |\n"
           << "|---|---|---|---|---|---|---|---|---|---|---|\n";
        static const char* kCmd[3][2] = {{"list", "LIST \"\" \"*\""},
                                         {"status", "STATUS \"Bulk\" (5 items)"},
                                         {"search", "UID SEARCH ALL"}};
        for (const Target& t : targets) {
            auto it = cells.find(t.server + "/" + t.transport + "/latency");
            if (it == cells.end()) continue;
            const Cell& c = it->second;
            for (auto& k : kCmd) {
                const std::string key = k[0];
                const double e = c.med("engine", key + "_us"), b = c.med("bare", key + "_us");
                const double ratio = c.paired("engine", "bare", [&key](const Sample& se, const Sample& sb) {
                    return sb.v.at(key + "_us") > 0 ? se.v.at(key + "_us") / sb.v.at(key + "_us") : 0;
                });
                md << "| " << t.server << " | " << t.transport << " | " << k[1] << " | " << fmt("%.0f", e) << " | "
                   << fmt("%.0f", b) << " | " << fmt("%.2f", ratio) << " | "
                   << fmt("%.0f", c.med("engine", key + "_p90_us")) << " | "
                   << fmt("%.0f", c.med("bare", key + "_p90_us")) << " | "
                   << fmt("%.1f", c.med("engine", key + "_cpu_us")) << " | "
                   << fmt("%.1f", c.med("bare", key + "_cpu_us")) << " | " << c.failures() << " |\n";
            }
        }
        md << "\n";
    }
    if (!before.empty()) {
        md << "### Before/after: the engine of " << before << " (before) and of this build (after)\n\n"
           << "Same run, same rotation. Ratios are paired against the bare client of the same repetition.\n\n"
           << "| server | transport | scenario | before wall ms | after wall ms | before ratio | after ratio | "
              "before CPU ms | after CPU ms | before CPU ratio | after CPU ratio | before peak RSS MiB | "
              "after peak RSS MiB |\n"
           << "|---|---|---|---|---|---|---|---|---|---|---|---|---|\n";
        for (const Target& t : targets) {
            for (const std::string& sc : scenarios) {
                if (sc == "latency") continue;
                auto it = cells.find(t.server + "/" + t.transport + "/" + sc);
                if (it == cells.end()) continue;
                const Cell& c = it->second;
                const double w0 = c.med("engine-before", "wall"), w1 = c.med("engine", "wall");
                const double c0 = c.medCpu("engine-before"), c1 = c.medCpu("engine");
                md << "| " << t.server << " | " << t.transport << " | " << sc << " | " << fmt("%.1f", w0 * 1e3)
                   << " | " << fmt("%.1f", w1 * 1e3) << " | " << fmt("%.3f", c.pairedRate("engine-before"))
                   << " | " << fmt("%.3f", c.pairedRate("engine")) << " | " << fmt("%.1f", c0 * 1e3) << " | "
                   << fmt("%.1f", c1 * 1e3) << " | " << fmt("%.2f", c.pairedCpu("engine-before")) << " | "
                   << fmt("%.2f", c.pairedCpu("engine")) << " | "
                   << fmt("%.1f", c.med("engine-before", "hwm_kib") / 1024) << " | "
                   << fmt("%.1f", c.med("engine", "hwm_kib") / 1024) << " |\n";
            }
        }
        md << "\n";
    }
    // The raw samples, for anyone who wants more than the medians.
    md << "<details><summary>Raw samples (wall s / CPU s / peak RSS MiB)</summary>\n\n```\n";
    for (const auto& [key, c] : cells) {
        for (const auto& [impl, samples] : c.by) {
            md << key << " " << impl << ":";
            for (const Sample& s : samples) {
                if (!s.ok) {
                    md << " FAIL";
                    continue;
                }
                md << " " << fmt("%.4f", s.v.at("wall")) << "/" << fmt("%.4f", s.v.at("user") + s.v.at("sys")) << "/"
                   << fmt("%.1f", s.v.at("hwm_kib") / 1024);
            }
            md << "\n";
        }
    }
    md << "```\n</details>\n";

    std::fputs(md.str().c_str(), stdout);
    const std::string outPath = a.str("out");
    if (!outPath.empty()) {
        std::ofstream f(outPath);
        f << md.str();
    }
    // Every sample with every value it reported, in run order, for analyses
    // other than the ones above.
    const std::string jsonPath = a.str("json");
    if (!jsonPath.empty()) {
        std::ofstream f(jsonPath);
        f << "{\n";
        bool firstCell = true;
        for (const auto& [key, c] : cells) {
            f << (firstCell ? "" : ",\n") << "  \"" << key << "\": {";
            firstCell = false;
            bool firstImpl = true;
            for (const auto& [impl, samples] : c.by) {
                f << (firstImpl ? "" : ",") << "\n    \"" << impl << "\": [";
                firstImpl = false;
                for (size_t i = 0; i < samples.size(); ++i) {
                    f << (i ? ", " : "") << "{\"ok\": " << (samples[i].ok ? "true" : "false");
                    for (const auto& [k, v] : samples[i].v) f << ", \"" << k << "\": " << fmt("%.9g", v);
                    f << "}";
                }
                f << "]";
            }
            f << "\n  }";
        }
        f << "\n}\n";
    }
    int failures = 0;
    for (const auto& [key, c] : cells) failures += c.failures();
    return failures ? 2 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    const Args a(argc, argv, 2);
    if (mode == "serve") return serveMain(a);
    if (mode == "client") return clientMain(a);
    if (mode == "seed") return seedMain(a);
    if (mode == "run") return runMain(a);
    std::fprintf(stderr,
                 "usage: %s run [--reps N] [--small N] [--lat-iters N] [--out FILE] [--only mem|dovecot]\n"
                 "            [--scenarios big1,big10,big100,small,latency]\n"
                 "            [--dovecot-port P --dovecot-tls-port Q] [--user U --password W]\n"
                 "            [--before-binary OTHER_BUILD_OF_THIS_PROGRAM] [--json FILE]\n"
                 "       %s seed --port P [--user U --password W] [--small N]\n",
                 argv[0], argv[0]);
    return 2;
}
