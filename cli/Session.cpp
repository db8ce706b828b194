#include "Session.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <utility>

#include "CliError.h"
#include "Credentials.h"
#include "Terminal.h"

namespace zr {
namespace cli {

namespace {

std::string getEnv(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "";
}

std::string upper(std::string s) {
    for (char& c : s) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
    return s;
}

// "abcd VERB args" -> ("abcd", "VERB")
std::pair<std::string, std::string> tagAndVerb(const std::string& line) {
    size_t sp1 = line.find(' ');
    if (sp1 == std::string::npos) return {};
    size_t sp2 = line.find_first_of(" \r\n", sp1 + 1);
    return {line.substr(0, sp1), upper(line.substr(sp1 + 1, sp2 == std::string::npos ? std::string::npos : sp2 - sp1 - 1))};
}

std::string describeServer(const ServerSettings& s) {
    int port = s.port ? s.port : (s.security == Security::Tls ? 993 : 143);
    bool ipv6 = s.host.find(':') != std::string::npos;
    return (ipv6 ? "[" + s.host + "]" : s.host) + ":" + std::to_string(port);
}

}  // namespace

ServerSettings buildSettings(const GlobalOptions& g) {
    ServerSettings s;
    if (!g.url.empty()) {
        auto parsed = ServerSettings::fromUrl(g.url);
        if (!parsed) usageError("malformed URL '" + g.url + "': " + oneLine(parsed.message()));
        s = parsed.value();
        if (!g.host.empty()) s.host = g.host;
    } else if (!g.host.empty()) {
        s.host = g.host;
        s.security = Security::Tls;
    } else {
        usageError("no server given: use --url imaps://USER@HOST[:PORT] or --host HOST (see zrimap --help)");
    }
    if (g.port) s.port = *g.port;
    if (!g.user.empty()) s.user = g.user;
    if (g.security) s.security = *g.security;
    if (!g.caFile.empty()) s.caFile = g.caFile;
    if (g.insecure) s.verifyCertificate = false;
    if (g.mechanism) s.mechanism = *g.mechanism;
    if (g.timeoutSeconds) s.timeoutSeconds = *g.timeoutSeconds;

    bool anySsh = !g.sshHost.empty() || g.sshPort || !g.sshUser.empty() || !g.sshKey.empty() || !g.sshFingerprint.empty();
    if (anySsh) {
        if (g.sshHost.empty()) usageError("the SSH options need --ssh-host");
        SshSettings ssh;
        ssh.host = g.sshHost;
        if (g.sshPort) ssh.port = *g.sshPort;
        ssh.user = g.sshUser.empty() ? getEnv("USER") : g.sshUser;
        if (ssh.user.empty()) usageError("--ssh-host needs --ssh-user");
        ssh.privateKeyFile = g.sshKey;
        ssh.privateKeyPassphrase = getEnv("ZRIMAP_SSH_KEY_PASSPHRASE");
        ssh.password = getEnv("ZRIMAP_SSH_PASSWORD");
        ssh.hostKeyFingerprint = g.sshFingerprint;
        if (ssh.privateKeyFile.empty() && ssh.password.empty())
            usageError("the SSH tunnel needs --ssh-key FILE or the password in ZRIMAP_SSH_PASSWORD");
        if (!ssh.privateKeyFile.empty() && access(ssh.privateKeyFile.c_str(), R_OK) != 0)
            localIoError("cannot read SSH key " + ssh.privateKeyFile);
        s.ssh = ssh;
    }
    if (!s.caFile.empty() && access(s.caFile.c_str(), R_OK) != 0) localIoError("cannot read CA file " + s.caFile);
    return s;
}

Session::Session(const GlobalOptions& g) : m_global(g), m_settings(buildSettings(g)) {
    // Opened before connecting so an unwritable path fails before any network traffic.
    if (!g.sessionLog.empty()) {
        m_sessionLog.open(g.sessionLog, std::ios::binary | std::ios::trunc);
        if (!m_sessionLog) localIoError("cannot write the session log " + g.sessionLog);
    }
}

Session::~Session() {
    writeSessionLog();
    if (m_open) m_client.disconnect();
}

void Session::open() {
    Credentials cred = resolveCredentials(m_settings.host, m_settings.user, m_global.passwordStdin);
    m_settings.user = cred.user;
    m_settings.password = cred.password;

    if (m_global.verbose) {
        m_client.setDiagnostics([](const std::string& line) { std::cerr << "zrimap: debug: " << line << '\n'; }, true);
        std::cerr << "zrimap: debug: password from " << cred.source << '\n';
    }
    if (m_sessionLog.is_open()) m_client.keepSessionLog(true);

    ProgressCallbacks cb;
    cb.onEvent = [this](const std::string& name, const std::string& value) { watchLogin(name, value); };
    cb.shouldAbort = [this] {
        if (m_activity) m_activity();
        return interrupted();
    };
    m_client.setProgressCallbacks(std::move(cb));

    Status st = m_client.connect(m_settings);
    m_settings.password.clear();
    if (!st) {
        if (interrupted()) throw CliError(kExitInterrupted, "interrupted");
        std::string reason = oneLine(st.message());
        if (m_loginSent || m_serverReached)
            throw CliError(kExitAuth, "login as " + m_settings.user + " failed: " + reason);
        throw CliError(kExitConnection, "cannot connect to " + describeServer(m_settings) + ": " + reason);
    }
    m_open = true;
}

// connect() reports the transport (TCP, TLS, STARTTLS, SSH) and the login
// in one Status. The commands it sent tell them apart: a CAPABILITY answered
// OK over the final transport, or any LOGIN/AUTHENTICATE, means the server
// was reached and what failed was the login (or the choice of mechanism).
void Session::watchLogin(const std::string& name, const std::string& value) {
    if (m_open) return;
    if (name == "ImapCmdSent") {
        auto [tag, verb] = tagAndVerb(value);
        if (verb == "LOGIN" || verb == "AUTHENTICATE") m_loginSent = true;
        if (verb == "CAPABILITY") m_capabilityTag = tag;
        if (verb == "STARTTLS") {  // what came before the upgrade proves nothing about it
            m_capabilityTag.clear();
            m_serverReached = false;
        }
    } else if (name == "ImapCmdResp" && !m_capabilityTag.empty()) {
        auto [tag, verb] = tagAndVerb(value);
        if (tag == m_capabilityTag && verb == "OK") m_serverReached = true;
    }
}

void Session::close() {
    if (m_open) {
        m_open = false;
        Status st = m_client.logout();
        if (!st && m_global.verbose) std::cerr << "zrimap: debug: logout: " << oneLine(st.message()) << '\n';
    }
    writeSessionLog();
    if (!m_global.sessionLog.empty() && !m_sessionLog) localIoError("cannot write the session log " + m_global.sessionLog);
}

void Session::writeSessionLog() {
    if (m_logWritten || !m_sessionLog.is_open()) return;
    m_logWritten = true;
    std::string log = m_client.sessionLog();
    if (!log.empty() && log.back() != '\n') log += '\n';
    m_sessionLog << log;
    m_sessionLog.flush();
}

SelectedMailbox Session::examine(const std::string& mailbox) {
    return check(m_client.examine(mailbox), "cannot open mailbox \"" + mailbox + "\"");
}

SelectedMailbox Session::select(const std::string& mailbox) {
    return check(m_client.select(mailbox), "cannot select mailbox \"" + mailbox + "\"");
}

void Session::fail(const std::string& what, const std::string& reason) {
    if (interrupted()) throw CliError(kExitInterrupted, "interrupted");
    std::string text = what + ": " + oneLine(reason);
    if (!m_client.isConnected()) throw CliError(kExitConnection, text + " (connection lost)");
    throw CliError(kExitFailed, text);
}

}  // namespace cli
}  // namespace zr
