// The test servers' settings and a logged-in session against the test
// Dovecot, for the integration tests.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "zrimap/auth/Settings.h"
#include "zrimap/engine.h"

namespace zr {
namespace it {

inline std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "";
}
inline int envPort(const char* name) { return std::atoi(env(name).c_str()); }

// Whether an error entry of the log contains `part`.
inline bool hasErrorPart(const MemoryLog& log, const std::string& part) {
    for (const std::string& e : log.errors())
        if (e.find(part) != std::string::npos) return true;
    return false;
}

inline sockaddr_in loopback(int port = 0) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

inline bool connectLoopback(int fd, int port) {
    const sockaddr_in a = loopback(port);
    return ::connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
}

// A loopback port nothing listens on: bound by the kernel's choice, then closed.
inline int closedPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback();
    socklen_t len = sizeof a;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    ::close(fd);
    return port;
}

inline void failWithoutFixture() {
    if (env("ZRIMAP_IMAP_PORT").empty()) GTEST_FAIL() << "ZRIMAP_IMAP_PORT is not set: run this test through ctest";
}

// An engine and what its calls take, against the test Dovecot.
struct Session {
    _zrImap imap;
    MemoryLog log;
    _clsTls tls;
    SocketParams sp{nullptr};
    StringBuffer greeting;

    Session() { imap.put_ReadTimeout(30); }
    ~Session() { imap.imapDisconnect(log, sp); }
    bool connect(const char* host = "127.0.0.1", int port = envPort("ZRIMAP_IMAP_PORT")) {
        return imap.connectToImapServer(StringBuffer(host), port, greeting, tls, sp, log);
    }
    bool login(const char* user = "bob", const char* password = "bob-pw") {
        XString login(user);
        SecurePassword pw(password);
        ImapResultSet rs;
        return ok(imap.loginImap(login, pw, rs, log, sp), rs);
    }
    // Connects and logs in; false (with the reason in log) otherwise.
    bool open() { return connect() && login(); }
    bool ok(bool completed, const ImapResultSet& rs) { return completed && rs.isOK(true, log); }
    bool raw(const char* cmd, ImapResultSet& rs) { return ok(imap.sendRawCommand(cmd, rs, log, sp), rs); }
    bool raw(const char* cmd) {
        ImapResultSet rs;
        return raw(cmd, rs);
    }
    // Creates (after deleting any leftover of an earlier run) and selects.
    bool freshMailbox(const char* name) {
        ImapResultSet del, create;
        imap.deleteMailbox2(name, del, log, sp);
        if (!ok(imap.createMailbox(name, create, log, sp), create)) return false;
        return select(name, false);
    }
    bool select(const char* name, bool examine) {
        ImapResultSet rs;
        bool got = false;
        return imap.selectMailbox(name, examine, rs, got, log, sp);
    }
    bool append(const char* mailbox, const std::string& mime) {
        ExtPtrArraySb lines;
        ImapResultSet rs;
        if (!imap.appendMime(mailbox, mime.c_str(), nullptr, false, false, false, false, false, lines, rs, log, sp))
            return false;
        const StringBuffer* last = lines.sbAt(lines.getSize() - 1);
        return last && last->containsSubstring(" OK");
    }
    // All the lines of a result set as one text.
    static std::string text(const ImapResultSet& rs) {
        StringBuffer sb;
        rs.toStringBuffer(sb);
        return sb.getString();
    }
};

// A test of its own session; LoggedIn: logged in as bob.
class SessionTest : public ::testing::Test, public Session {
protected:
    void SetUp() override { failWithoutFixture(); }
};
class LoggedIn : public SessionTest {
protected:
    void SetUp() override {
        SessionTest::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_TRUE(open()) << log.toText();
    }
};

}  // namespace it
}  // namespace zr
