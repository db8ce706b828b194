// A logged-in session against the test Dovecot, for the integration tests.
#pragma once

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

struct Session {
    _zrImap imap;
    MemoryLog log;
    _clsTls tls;
    SocketParams sp{nullptr};

    // Connects and logs in; false (with the reason in log) otherwise.
    bool open(const char* user = "bob", const char* password = "bob-pw") {
        imap.put_ReadTimeout(30);
        StringBuffer greeting;
        if (!imap.connectToImapServer(StringBuffer("127.0.0.1"), std::atoi(env("ZRIMAP_IMAP_PORT").c_str()), greeting,
                                      tls, sp, log))
            return false;
        XString login(user);
        SecurePassword pw(password);
        ImapResultSet rs;
        return imap.loginImap(login, pw, rs, log, sp) && rs.isOK(true, log);
    }
    bool ok(bool completed, const ImapResultSet& rs) { return completed && rs.isOK(true, log); }
    bool raw(const char* cmd) {
        ImapResultSet rs;
        return ok(imap.sendRawCommand(cmd, rs, log, sp), rs);
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
    bool append(const char* mailbox, const std::string& mime, bool seen = false) {
        ExtPtrArraySb lines;
        ImapResultSet rs;
        if (!imap.appendMime(mailbox, mime.c_str(), nullptr, seen, false, false, false, false, lines, rs, log, sp))
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
    ~Session() { imap.imapDisconnect(log, sp); }
};

inline void failWithoutFixture() {
    if (env("ZRIMAP_IMAP_PORT").empty()) GTEST_FAIL() << "ZRIMAP_IMAP_PORT is not set: run this test through ctest";
}

}  // namespace it
}  // namespace zr
