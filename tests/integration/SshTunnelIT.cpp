// IMAP through an SSH tunnel: the test sshd forwards direct-tcpip channels
// to the test Dovecot. Logins, the host key check, whole sessions in a
// channel, and the failures an SSH server or a dying connection can cause.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "ItSession.h"

using namespace zr;
using zr::it::envPort;
using zr::it::hasErrorPart;

namespace {

std::string sshdFile(const std::string& name) { return it::env("ZRIMAP_SSHD_DIR") + "/" + name; }

// stdout of a shell command.
std::string run(const std::string& cmd) {
    std::string out;
    if (FILE* p = popen(cmd.c_str(), "r")) {
        char buf[512];
        while (size_t n = fread(buf, 1, sizeof buf, p)) out.append(buf, n);
        pclose(p);
    }
    return out;
}

// A private directory for key files, removed at the end.
struct TempDir {
    std::string path;
    TempDir() {
        char tmpl[] = "/tmp/zrimap-ssh-it-XXXXXX";
        if (mkdtemp(tmpl)) path = tmpl;
    }
    ~TempDir() {
        if (!path.empty()) run("rm -rf '" + path + "'");
    }
};

// A TCP relay between the client and sshd that can be cut: it closes both
// sides once `cutAfter` bytes have gone from the server to the client.
class CutProxy {
public:
    CutProxy(int targetPort, size_t cutAfter) : m_cutAfter(cutAfter) {
        m_listen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a = it::loopback();
        socklen_t len = sizeof a;
        if (::bind(m_listen, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(m_listen, 1) != 0 ||
            ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len) != 0)
            return;
        m_port = ntohs(a.sin_port);
        m_thread = std::thread([this, targetPort] { relay(targetPort); });
    }
    ~CutProxy() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
        ::close(m_listen);
    }
    int port() const { return m_port; }
    bool wasCut() const { return m_cut; }

private:
    void relay(int targetPort) {
        pollfd lp{m_listen, POLLIN, 0};
        while (!m_stop && ::poll(&lp, 1, 50) == 0) {
        }
        if (m_stop) return;
        const int client = ::accept(m_listen, nullptr, nullptr);
        const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (client < 0 || !it::connectLoopback(server, targetPort)) {
            ::close(client);
            ::close(server);
            return;
        }
        size_t toClient = 0;
        char buf[16384];
        while (!m_stop) {
            pollfd p[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
            if (::poll(p, 2, 50) <= 0) continue;
            if (p[0].revents) {
                const ssize_t n = ::recv(client, buf, sizeof buf, 0);
                if (n <= 0 || ::send(server, buf, static_cast<size_t>(n), MSG_NOSIGNAL) != n) break;
            }
            if (p[1].revents) {
                const size_t room = m_cutAfter - toClient < sizeof buf ? m_cutAfter - toClient : sizeof buf;
                const ssize_t n = ::recv(server, buf, room, 0);
                if (n <= 0 || ::send(client, buf, static_cast<size_t>(n), MSG_NOSIGNAL) != n) break;
                toClient += static_cast<size_t>(n);
                if (toClient >= m_cutAfter) {
                    m_cut = true;
                    break;
                }
            }
        }
        ::shutdown(client, SHUT_RDWR);
        ::close(client);
        ::close(server);
    }

    int m_listen = -1;
    int m_port = 0;
    size_t m_cutAfter;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_cut{false};
    std::thread m_thread;
};

// An sshd of the test's own that offers only keyboard-interactive (through
// PAM), for the password fallback. Started as a child and ended by its pid.
class KbdInteractiveSshd {
public:
    KbdInteractiveSshd() {
        m_port = it::closedPort();
        const std::string cfg = m_dir.path + "/sshd_config";
        std::ofstream(cfg) << "Port " << m_port << "\nListenAddress 127.0.0.1\nHostKey "
                           << sshdFile("ssh_host_ed25519_key") << "\nPidFile " << m_dir.path << "/sshd.pid\n"
                           << "UsePAM yes\nPasswordAuthentication no\nKbdInteractiveAuthentication yes\n"
                           << "PubkeyAuthentication no\nAllowUsers imaptest\nAllowTcpForwarding local\n"
                           << "PermitOpen 127.0.0.1:*\nStrictModes no\n";
        const std::string logPath = m_dir.path + "/sshd.log";  // no allocation after fork()
        m_pid = fork();
        if (m_pid == 0) {
            const int log = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(log, 1);
            dup2(log, 2);
            execl("/usr/sbin/sshd", "/usr/sbin/sshd", "-D", "-e", "-f", cfg.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        // Ready once it accepts.
        for (int i = 0; i < 100 && !m_ready; ++i) {
            const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            m_ready = it::connectLoopback(fd, m_port);
            ::close(fd);
            if (!m_ready) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    ~KbdInteractiveSshd() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGTERM);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    bool ready() const { return m_ready; }
    int port() const { return m_port; }
    std::string log() const { return run("cat '" + m_dir.path + "/sshd.log'"); }

private:
    TempDir m_dir;
    int m_port = 0;
    pid_t m_pid = -1;
    bool m_ready = false;
};

class SshTunnel : public it::SessionTest {
protected:
    int sshPort = envPort("ZRIMAP_SSH_PORT");

    void SetUp() override {
        SessionTest::SetUp();
        if (!sshPort) GTEST_FAIL() << "ZRIMAP_SSH_PORT is not set: run this test through ctest";
    }
    bool openTunnel(int port = 0) {
        XString host("127.0.0.1");
        return imap.sshOpenTunnel(host, port ? port : sshPort, tls, log, sp);
    }
    bool authPw(const char* password = "imaptest-pw") {
        XString user("imaptest"), pw(password);
        return imap.sshAuthenticatePw(user, pw, log, sp);
    }
    Socket2* sock() { return imap.m_socket; }
    void openAndLogIn() {
        ASSERT_TRUE(openTunnel() && authPw() && connect()) << log.toText();
        ASSERT_TRUE(login()) << log.toText();
    }
    // Appends a message of about `bytes` bytes to the mailbox SshTunnel
    // (LITERAL+, so the whole APPEND is one command) and returns its UID.
    unsigned appendLarge(size_t bytes, std::string& message) {
        ImapResultSet create;
        imap.sendRawCommand("CREATE SshTunnel", create, log, sp);  // NO when it exists already
        message = "From: ssh@test\r\nSubject: tunnelled\r\n\r\n";
        for (unsigned line = 0; message.size() < bytes; ++line) {
            char buf[100];
            std::snprintf(buf, sizeof buf,
                          "%07u abcdefghijklmnopqrstuvwxyz ABCDEFGHIJKLMNOPQRSTUVWXYZ 0123456789\r\n", line);
            message += buf;
        }
        message += "END";  // no trailing blank: the raw command text is trimmed
        const std::string cmd = "APPEND SshTunnel {" + std::to_string(message.size()) + "+}\r\n" + message;
        ImapResultSet rs;
        if (!raw(cmd.c_str(), rs)) return 0;
        const std::string last = rs.getLine(rs.getNumLines() - 1);
        const size_t at = last.find("APPENDUID ");
        unsigned validity = 0, uid = 0;
        if (at == std::string::npos || std::sscanf(last.c_str() + at, "APPENDUID %u %u", &validity, &uid) != 2)
            return 0;
        return uid;
    }
    // UID FETCH of the whole message, read as the literal it comes in.
    bool fetchBody(unsigned uid, DataBuffer& body) {
        if (!raw("SELECT SshTunnel")) return false;
        ImapResultSet rs;
        StringBuffer tag;
        const std::string cmd = "UID FETCH " + std::to_string(uid) + " BODY.PEEK[]";
        if (!imap.sendRawCommand_noGetResponse(cmd.c_str(), rs, tag, log, sp)) return false;
        StringBuffer first;
        if (!imap.getServerResponseLine2(first, log, sp)) return false;
        const char* brace = std::strrchr(first.getString(), '{');
        unsigned size = 0;
        if (!brace || std::sscanf(brace, "{%u}", &size) != 1) return false;
        return imap.getNResponseBytes(size, body, sp, log);
    }
};

// Reports an abort at the first question.
struct AbortAtOnce : ProgressEvent {
    void onProgressInfo(const char*, const char*) override {}
    bool onAbortCheck() override { return true; }
};

}  // namespace

// Plain, implicit TLS and STARTTLS sessions in turn through one tunnel:
// ending a session closes its channel, never the tunnel.
TEST_F(SshTunnel, SessionsFollowOneAnotherInOneTunnel) {
    ASSERT_TRUE(openTunnel()) << log.toText();
    ASSERT_TRUE(sock() && sock()->isSsh());
    ASSERT_TRUE(authPw() && connect()) << log.toText();
    EXPECT_TRUE(greeting.beginsWith("* OK")) << greeting.getString();
    EXPECT_TRUE(sock()->isSshChannelOpen());
    EXPECT_FALSE(sock()->isNonTunneledTls());
    ASSERT_TRUE(login()) << log.toText();

    imap.imapDisconnect(log, sp);
    ASSERT_NE(sock(), nullptr) << "the tunnel must survive the end of the IMAP session";
    EXPECT_TRUE(sock()->isSsh());
    EXPECT_FALSE(sock()->isSshChannelOpen());
    EXPECT_FALSE(hasErrorPart(log, "Lost SSH tunnel")) << log.toText();

    // The next sessions need no new SSH login.
    tls.m_caFile.setString(it::env("ZRIMAP_CA_FILE").c_str());
    tls.m_requireVerifiedServer = true;
    imap.setSsl(true);
    ASSERT_TRUE(connect("127.0.0.1", envPort("ZRIMAP_IMAPS_PORT"))) << log.toText();
    EXPECT_TRUE(imap.getRemoteServerCertVerified());
    EXPECT_NE(log.lastData("connectionType")->find("over SSH channel"), std::string::npos);
    ASSERT_TRUE(login()) << log.toText();
    imap.imapDisconnect(log, sp);

    imap.setSsl(false);
    imap.setStartTls(true);
    ASSERT_TRUE(connect()) << log.toText();
    EXPECT_TRUE(imap.getRemoteServerCertVerified());
    ASSERT_TRUE(login()) << log.toText();
    ImapResultSet caps;
    ASSERT_TRUE(raw("CAPABILITY", caps));
    EXPECT_EQ(std::string(caps.getLine(0)).find("STARTTLS"), std::string::npos);

    EXPECT_TRUE(imap.sshCloseTunnel(sp, log));
    EXPECT_FALSE(sock()->isSsh());
    EXPECT_FALSE(imap.isImapConnected(log));
}

// A multi-megabyte literal each way, byte for byte; then the same fetch
// through a relay that cuts the SSH connection in the middle of it.
TEST_F(SshTunnel, MegabytesCrossTheChannelAndALostConnectionIsRecoverable) {
    openAndLogIn();
    std::string message;
    const unsigned uid = appendLarge(3 * 1024 * 1024 + 17, message);
    ASSERT_NE(uid, 0u) << log.toText();
    DataBuffer body;
    ASSERT_TRUE(fetchBody(uid, body)) << log.toText();
    ASSERT_EQ(body.getSize(), message.size());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(body.getData2()), body.getSize()), message);
    StringBuffer tail;  // the rest of the response is intact behind the literal
    ASSERT_TRUE(imap.getServerResponseLine2(tail, log, sp));
    EXPECT_TRUE(tail.beginsWith(")")) << tail.getString();
    imap.imapDisconnect(log, sp);
    imap.sshCloseTunnel(sp, log);

    CutProxy proxy(sshPort, 1024 * 1024);
    ASSERT_NE(proxy.port(), 0);
    ASSERT_TRUE(openTunnel(proxy.port()) && authPw() && connect()) << log.toText();
    ASSERT_TRUE(login()) << log.toText();
    log.clear();
    EXPECT_FALSE(fetchBody(uid, body));
    EXPECT_TRUE(proxy.wasCut());
    EXPECT_TRUE(sp.m_connLost) << log.toText();
    EXPECT_TRUE(hasErrorPart(log, "SSH connection lost")) << log.toText();

    imap.imapDisconnect(log, sp);
    EXPECT_TRUE(hasErrorPart(log, "Lost SSH tunnel when closing the channel.")) << log.toText();
    EXPECT_EQ(sock(), nullptr);

    // A new tunnel straight to sshd works on the same engine.
    openAndLogIn();
    DataBuffer again;
    ASSERT_TRUE(fetchBody(uid, again)) << log.toText();
    EXPECT_EQ(again.getSize(), message.size());
}

// Encrypted key files load to the very same keys (SshTest's OpenSshKeys), so
// the plain files stand for them here.
TEST_F(SshTunnel, EveryClientKeyLogsIn) {
    struct Case {
        const char* file;
        const char* rsaSigAlg;
    } cases[] = {{"client_ed25519", nullptr}, {"client_rsa", nullptr}, {"client_rsa", "rsa-sha2-512"}};
    XString user("imaptest");
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " " + (c.rsaSigAlg ? c.rsaSigAlg : "default"));
        _zrPublicKey key;
        ASSERT_TRUE(key.loadFromFile(sshdFile(c.file).c_str(), nullptr, log)) << log.toText();
        ASSERT_TRUE(openTunnel()) << log.toText();
        ASSERT_TRUE(sock()->sshAuthenticatePk(user, c.rsaSigAlg, key, log, sp)) << log.toText();
        ASSERT_TRUE(connect()) << log.toText();
        EXPECT_TRUE(greeting.beginsWith("* OK"));
        EXPECT_TRUE(imap.sshCloseTunnel(sp, log));
    }
    // The engine's pass-through uses the default signature.
    _zrPublicKey key;
    ASSERT_TRUE(key.loadFromFile(sshdFile("client_rsa").c_str(), nullptr, log));
    ASSERT_TRUE(openTunnel());
    EXPECT_TRUE(imap.sshAuthenticatePk(user, key, log, sp)) << log.toText();
}

TEST_F(SshTunnel, HostKeyFingerprintIsRecordedAndCanBeRequired) {
    ASSERT_TRUE(openTunnel()) << log.toText();
    StringBuffer fp;
    ASSERT_TRUE(imap.getSshHostKeyFingerprint(fp));
    // The file of the host key the server chose, and what ssh-keygen says.
    std::string alg = sock()->getSshTransport()->hostKeyAlgorithm();
    const std::string type = alg == "ssh-ed25519" ? "ed25519" : alg == "ssh-rsa" ? "rsa" : "ecdsa";
    const std::string keygen = run("ssh-keygen -l -f '" + sshdFile("ssh_host_" + type + "_key.pub") + "'");
    const size_t start = keygen.find("SHA256:");
    ASSERT_NE(start, std::string::npos) << keygen;
    EXPECT_EQ(fp.getString(), keygen.substr(start, keygen.find(' ', start) - start));

    // Required and matching: accepted, also written without the prefix and
    // with base64 padding.
    tls.m_sshHostKeyFingerprint.setString(fp);
    ASSERT_TRUE(openTunnel()) << log.toText();
    EXPECT_TRUE(authPw());
    tls.m_sshHostKeyFingerprint.setString(fp.getString() + 7);
    tls.m_sshHostKeyFingerprint.append("=");
    EXPECT_TRUE(openTunnel()) << log.toText();

    // Required and different: refused before anything is sent to log in.
    tls.m_sshHostKeyFingerprint.setString("SHA256:AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
    log.clear();
    EXPECT_FALSE(openTunnel());
    EXPECT_TRUE(sp.m_connectFailed);
    EXPECT_TRUE(hasErrorPart(log, std::string("SSH host key fingerprint mismatch: expected "
                                          "SHA256:AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA, server presented ") +
                                  fp.getString()))
        << log.toText();
    EXPECT_FALSE(sock()->isSsh());
    EXPECT_FALSE(authPw());
}

// Wrong passphrases and public keys given as private ones: SshTest.
TEST_F(SshTunnel, RefusedCredentialsAndUnusableKeysLeaveTheTunnelUsable) {
    ASSERT_TRUE(openTunnel());
    EXPECT_FALSE(authPw("not-the-password"));
    EXPECT_TRUE(hasErrorPart(log, "SSH password authentication failed for user imaptest")) << log.toText();
    EXPECT_FALSE(connect());
    EXPECT_TRUE(hasErrorPart(log, "not authenticated"));

    // A key the server does not know.
    TempDir dir;
    run("ssh-keygen -q -t ed25519 -N '' -f '" + dir.path + "/stranger' >/dev/null 2>&1");
    _zrPublicKey stranger;
    ASSERT_TRUE(stranger.loadFromFile((dir.path + "/stranger").c_str(), nullptr, log)) << log.toText();
    XString user("imaptest");
    log.clear();
    EXPECT_FALSE(imap.sshAuthenticatePk(user, stranger, log, sp));
    EXPECT_TRUE(hasErrorPart(log, "SSH public-key authentication failed for user imaptest: the server did not accept"))
        << log.toText();

    // SHA-1 RSA signatures are off in current OpenSSH.
    _zrPublicKey rsa;
    ASSERT_TRUE(rsa.loadFromFile(sshdFile("client_rsa").c_str(), nullptr, log));
    EXPECT_FALSE(sock()->sshAuthenticatePk(user, "ssh-rsa", rsa, log, sp));

    // No key file there, or a directory: nothing loads, and nothing is tried.
    _zrPublicKey none;
    EXPECT_FALSE(none.loadFromFile((dir.path + "/missing").c_str(), nullptr, log));
    EXPECT_TRUE(hasErrorPart(log, "Cannot read the private key file")) << log.toText();
    EXPECT_FALSE(none.loadFromFile(dir.path.c_str(), nullptr, log));
    EXPECT_FALSE(none.isLoaded());
    EXPECT_FALSE(imap.sshAuthenticatePk(user, none, log, sp));

    // None of it spoiled the connection.
    ASSERT_TRUE(authPw()) << log.toText();
    ASSERT_TRUE(connect()) << log.toText();
}

// A closed port refuses the tunnel itself: the "closed port" row of SshNoServer.HandshakeFailuresSayWhy.
TEST_F(SshTunnel, ForbiddenOrDeadForwardsCostNothingButTheChannel) {
    ASSERT_TRUE(openTunnel() && authPw()) << log.toText();
    // Only 127.0.0.1 and localhost may be reached through this server.
    EXPECT_FALSE(connect("127.0.0.2"));
    EXPECT_TRUE(sp.m_connectFailed);
    EXPECT_TRUE(hasErrorPart(log, "refused a channel to 127.0.0.2")) << log.toText();
    EXPECT_TRUE(sock()->isSsh()) << "a refused channel must not cost the tunnel";
    // Allowed, but nothing listens there.
    EXPECT_FALSE(connect("127.0.0.1", it::closedPort()));
    EXPECT_TRUE(hasErrorPart(log, "refused a channel to 127.0.0.1")) << log.toText();

    ASSERT_TRUE(connect()) << log.toText();
    EXPECT_TRUE(greeting.beginsWith("* OK"));
}

TEST_F(SshTunnel, TimeOutAndAbortWorkInsideTheChannel) {
    openAndLogIn();
    imap.put_ReadTimeout(1);
    sp.timeoutIsFailure = false;
    StringBuffer line;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(sock()->receiveUntilMatchSb("\r\n", line, 1000, sp, log));  // the server has nothing to say
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    EXPECT_TRUE(sp.m_timedOut);
    EXPECT_GE(ms, 900);
    EXPECT_LT(ms, 5000);
    // The channel is still good after a time-out.
    imap.put_ReadTimeout(15);
    ASSERT_TRUE(raw("NOOP")) << log.toText();

    AbortAtOnce stop;
    ProgressMonitor pm(&stop);
    SocketParams aborting(&pm);
    EXPECT_FALSE(sock()->receiveUntilMatchSb("\r\n", line, 10000, aborting, log));
    EXPECT_TRUE(aborting.m_aborted);
}

TEST_F(SshTunnel, TwoEnginesShareOneTunnel) {
    openAndLogIn();
    it::Session second;
    ASSERT_TRUE(second.imap.useSshTunnel(sock()->getSshTransport(), log));
    ASSERT_TRUE(second.connect()) << second.log.toText();
    // Interleaved commands on the two channels.
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(raw("NOOP")) << log.toText();
        EXPECT_TRUE(second.raw("CAPABILITY")) << second.log.toText();
    }
    second.imap.imapDisconnect(log, sp);
    EXPECT_TRUE(raw("NOOP")) << "closing one channel must not touch the other";
    EXPECT_FALSE(second.imap.useSshTunnel(nullptr, log));
}

TEST_F(SshTunnel, PasswordFallsBackToKeyboardInteractive) {
    KbdInteractiveSshd server;
    ASSERT_TRUE(server.ready()) << server.log();
    ASSERT_TRUE(openTunnel(server.port())) << log.toText();
    EXPECT_FALSE(authPw("wrong"));
    EXPECT_TRUE(hasErrorPart(log, "SSH keyboard-interactive authentication failed for user imaptest")) << log.toText();
    ASSERT_TRUE(authPw()) << log.toText() << server.log();
    ASSERT_TRUE(connect()) << log.toText();
    EXPECT_TRUE(greeting.beginsWith("* OK"));
    EXPECT_NE(server.log().find("Accepted keyboard-interactive"), std::string::npos) << server.log();
}
