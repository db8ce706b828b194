// Where the password comes from: --password-stdin, $ZRIMAP_PASSWORD, a netrc
// file, or a prompt on the terminal. Never from an argument.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace zr {
namespace cli {

struct NetrcEntry {
    std::string machine;  // empty for the "default" entry
    std::string login;
    std::string password;
    bool isDefault = false;
};

// The usual netrc grammar: machine/default/login/password/account tokens,
// "macdef" bodies skipped up to the next empty line, double-quoted tokens
// with backslash escapes.
std::vector<NetrcEntry> parseNetrc(const std::string& text);

// The first entry for host (case-insensitive) whose login is user, or any
// login when user is empty; then the default entry under the same rule.
std::optional<NetrcEntry> findNetrcEntry(const std::vector<NetrcEntry>& entries, const std::string& host,
                                         const std::string& user);

// $NETRC, else $HOME/.netrc.
std::string netrcPath();

struct Credentials {
    std::string user;
    std::string password;
    std::string source;  // for --verbose: "ZRIMAP_PASSWORD", "netrc /path", ...
};

// Fills in the user (from netrc when none was given) and the password.
// Throws CliError(kExitAuth) when no password can be had, CliError(kExitUsage)
// when no user is known.
Credentials resolveCredentials(const std::string& host, const std::string& user, bool passwordFromStdin);

}  // namespace cli
}  // namespace zr
