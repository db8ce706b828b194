#include "Credentials.h"

#include <termios.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

#include "CliError.h"

namespace zr {
namespace cli {

namespace {

bool equalsIgnoreCase(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    }
    return true;
}

class NetrcLexer {
public:
    explicit NetrcLexer(const std::string& text) : m_text(text) {}

    std::optional<std::string> next() {
        skipSpace();
        if (m_pos >= m_text.size()) return std::nullopt;
        std::string token;
        if (m_text[m_pos] == '"') {
            ++m_pos;
            while (m_pos < m_text.size() && m_text[m_pos] != '"') {
                if (m_text[m_pos] == '\\' && m_pos + 1 < m_text.size()) ++m_pos;
                token += m_text[m_pos++];
            }
            if (m_pos < m_text.size()) ++m_pos;
            return token;
        }
        while (m_pos < m_text.size() && !std::isspace(static_cast<unsigned char>(m_text[m_pos]))) {
            if (m_text[m_pos] == '\\' && m_pos + 1 < m_text.size()) ++m_pos;
            token += m_text[m_pos++];
        }
        return token;
    }

    // A macro body runs from the line after "macdef NAME" to the first empty line.
    void skipMacroBody() {
        size_t eol = m_text.find('\n', m_pos);
        if (eol == std::string::npos) {
            m_pos = m_text.size();
            return;
        }
        size_t end = m_text.find("\n\n", eol);
        m_pos = end == std::string::npos ? m_text.size() : end + 2;
    }

private:
    void skipSpace() {
        while (m_pos < m_text.size()) {
            char c = m_text[m_pos];
            if (std::isspace(static_cast<unsigned char>(c))) {
                ++m_pos;
            } else if (c == '#') {  // comments, as most readers accept them
                size_t eol = m_text.find('\n', m_pos);
                m_pos = eol == std::string::npos ? m_text.size() : eol + 1;
            } else {
                break;
            }
        }
    }

    const std::string& m_text;
    size_t m_pos = 0;
};

std::string getEnv(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "";
}

std::string stripLineEnd(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
    return s;
}

std::optional<std::string> promptOnTerminal(const std::string& user, const std::string& host) {
    if (!isatty(STDIN_FILENO)) return std::nullopt;
    std::cerr << "Password for " << user << "@" << host << ": " << std::flush;
    termios saved{};
    bool restore = tcgetattr(STDIN_FILENO, &saved) == 0;
    if (restore) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ECHONL;
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    }
    std::string line;
    bool got = static_cast<bool>(std::getline(std::cin, line));
    if (restore) tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
    if (!got) return std::nullopt;
    return stripLineEnd(line);
}

}  // namespace

std::vector<NetrcEntry> parseNetrc(const std::string& text) {
    std::vector<NetrcEntry> entries;
    NetrcLexer lex(text);
    NetrcEntry* current = nullptr;
    while (auto token = lex.next()) {
        const std::string& t = *token;
        if (t == "machine") {
            entries.emplace_back();
            current = &entries.back();
            current->machine = lex.next().value_or("");
        } else if (t == "default") {
            entries.emplace_back();
            current = &entries.back();
            current->isDefault = true;
        } else if (t == "login" && current) {
            current->login = lex.next().value_or("");
        } else if (t == "password" && current) {
            current->password = lex.next().value_or("");
        } else if (t == "account") {
            lex.next();
        } else if (t == "macdef") {
            lex.next();
            lex.skipMacroBody();
        }
        // Anything else is ignored, as other netrc readers do.
    }
    return entries;
}

std::optional<NetrcEntry> findNetrcEntry(const std::vector<NetrcEntry>& entries, const std::string& host,
                                         const std::string& user) {
    auto fits = [&](const NetrcEntry& e) { return user.empty() || e.login.empty() || e.login == user; };
    for (const NetrcEntry& e : entries) {
        if (!e.isDefault && equalsIgnoreCase(e.machine, host) && fits(e)) return e;
    }
    for (const NetrcEntry& e : entries) {
        if (e.isDefault && fits(e)) return e;
    }
    return std::nullopt;
}

std::string netrcPath() {
    std::string path = getEnv("NETRC");
    if (!path.empty()) return path;
    std::string home = getEnv("HOME");
    return home.empty() ? std::string() : home + "/.netrc";
}

Credentials resolveCredentials(const std::string& host, const std::string& user, bool passwordFromStdin) {
    Credentials c;
    c.user = user;

    if (passwordFromStdin) {
        std::string line;
        if (!std::getline(std::cin, line)) throw CliError(kExitAuth, "--password-stdin: nothing to read on stdin");
        c.password = stripLineEnd(line);
        c.source = "stdin";
        if (c.user.empty()) usageError("no user name: give one with --user or in the URL (imaps://USER@host)");
        return c;
    }

    std::string fromEnv = getEnv("ZRIMAP_PASSWORD");
    if (!fromEnv.empty()) {
        c.password = fromEnv;
        c.source = "ZRIMAP_PASSWORD";
        if (c.user.empty()) usageError("no user name: give one with --user or in the URL (imaps://USER@host)");
        return c;
    }

    std::string path = netrcPath();
    if (!path.empty()) {
        std::ifstream in(path, std::ios::binary);
        if (in) {
            std::stringstream text;
            text << in.rdbuf();
            if (auto entry = findNetrcEntry(parseNetrc(text.str()), host, user)) {
                if (c.user.empty()) c.user = entry->login;
                if (!entry->password.empty()) {
                    c.password = entry->password;
                    c.source = "netrc " + path;
                }
            }
        }
    }
    if (c.user.empty()) usageError("no user name: give one with --user or in the URL (imaps://USER@host)");
    if (!c.source.empty()) return c;

    if (auto typed = promptOnTerminal(c.user, host)) {
        c.password = *typed;
        c.source = "terminal";
        return c;
    }
    throw CliError(kExitAuth, "no password for " + c.user + "@" + host +
                                  ": set ZRIMAP_PASSWORD, add it to " + (path.empty() ? "~/.netrc" : path) +
                                  ", or use --password-stdin");
}

}  // namespace cli
}  // namespace zr
