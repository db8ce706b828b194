// One logged-in connection for one run of the tool.
#pragma once

#include <fstream>
#include <functional>
#include <string>

#include "Options.h"
#include "zrimap/client.h"

namespace zr {
namespace cli {

// From --url and the separate options; throws usage errors (malformed URL,
// no server, contradicting options).
ServerSettings buildSettings(const GlobalOptions& g);

class Session {
public:
    explicit Session(const GlobalOptions& g);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Resolves the password, connects and logs in. Throws CliError with
    // kExitConnection or kExitAuth.
    void open();
    // Logs out and writes the session log; a failure of either is reported
    // but does not hide an earlier error.
    void close();

    ImapClient& client() { return m_client; }
    const ServerSettings& settings() const { return m_settings; }

    // Read-only (EXAMINE) or read-write (SELECT); throws on failure.
    SelectedMailbox examine(const std::string& mailbox);
    SelectedMailbox select(const std::string& mailbox);

    // Throws the CliError that fits a failed operation: interrupted, the
    // connection gone (kExitConnection), or the server's refusal (kExitFailed).
    [[noreturn]] void fail(const std::string& what, const std::string& reason);
    template <class T>
    T check(Result<T> r, const std::string& what) {
        if (!r) fail(what, r.message());
        return std::move(r.value());
    }
    void check(const Status& st, const std::string& what) {
        if (!st) fail(what, st.message());
    }

    // Called while a transfer runs (each time the library asks whether to
    // abort), to keep a progress line moving; empty: nothing.
    void setActivityListener(std::function<void()> listener) { m_activity = std::move(listener); }

private:
    void writeSessionLog();
    void watchLogin(const std::string& name, const std::string& value);

    const GlobalOptions& m_global;
    ServerSettings m_settings;
    ImapClient m_client;
    std::ofstream m_sessionLog;
    bool m_logWritten = false;
    bool m_open = false;
    // What connect() got through, to tell a connection failure from a login failure.
    std::string m_capabilityTag;
    bool m_serverReached = false;
    bool m_loginSent = false;
    std::function<void()> m_activity;
};

}  // namespace cli
}  // namespace zr
