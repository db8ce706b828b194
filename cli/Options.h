// Command-line parsing: global options before the subcommand, the
// subcommand's own positional arguments and options after it.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "zrimap/client.h"

namespace zr {
namespace cli {

struct GlobalOptions {
    std::string url;
    std::string host;
    std::optional<int> port;
    std::string user;
    std::optional<Security> security;
    std::string caFile;
    bool insecure = false;
    std::optional<AuthMechanism> mechanism;
    std::optional<int> timeoutSeconds;

    std::string sshHost;
    std::optional<int> sshPort;
    std::string sshUser;
    std::string sshKey;
    std::string sshFingerprint;

    std::string sessionLog;
    bool verbose = false;
    bool json = false;
    bool passwordStdin = false;
    bool help = false;
    bool version = false;
};

struct CommandLine {
    GlobalOptions global;
    std::string command;  // empty when none was given
    std::vector<std::string> args;  // everything after the subcommand
};

// Throws CliError(kExitUsage) on unknown or malformed options, and on any
// attempt to pass a password as an argument.
CommandLine parseCommandLine(const std::vector<std::string>& argv);

// --- the subcommands' own arguments -----------------------------------------

struct OptionSpec {
    enum Arity { Flag, One, Many };  // Many: every following value up to the next "--" option
    std::string name;                // "--out"
    Arity arity = Flag;
    std::string valueName;           // for help: "DIR"
    std::string help;
};

struct CommandSpec {
    std::string name;
    std::string synopsis;     // "fetch MAILBOX UID... [--without-attachments] [--out DIR]"
    std::string summary;      // one line for the command list
    std::string description;  // the rest of `zrimap help NAME`
    int minPositional = 0;
    int maxPositional = 0;    // -1: no limit
    std::vector<OptionSpec> options;
};

struct ParsedArgs {
    std::vector<std::string> positional;
    std::map<std::string, std::vector<std::string>> options;
    bool help = false;

    bool has(const std::string& name) const { return options.count(name) != 0; }
    std::string value(const std::string& name, const std::string& fallback = "") const;
    std::vector<std::string> values(const std::string& name) const;
};

ParsedArgs parseCommandArgs(const CommandSpec& spec, const std::vector<std::string>& args);

// Whole decimal numbers in range, else a usage error naming what.
long long parseNumber(const std::string& text, long long min, long long max, const std::string& what);

std::optional<AuthMechanism> parseMechanism(const std::string& name);

}  // namespace cli
}  // namespace zr
