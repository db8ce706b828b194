#include "Options.h"

#include <cerrno>
#include <cstdlib>

#include "CliError.h"

namespace zr {
namespace cli {

namespace {

enum class G {
    Url, Host, Port, User, Tls, StartTls, Plain, CaFile, Insecure, Auth, Timeout,
    SshHost, SshPort, SshUser, SshKey, SshFingerprint, SessionLog, Verbose, Json, PasswordStdin, Help, Version
};

struct GlobalSpec {
    const char* name;
    const char* shortName;
    bool takesValue;
    G id;
};

const GlobalSpec kGlobals[] = {
    {"--url", nullptr, true, G::Url},
    {"--host", nullptr, true, G::Host},
    {"--port", nullptr, true, G::Port},
    {"--user", "-u", true, G::User},
    {"--tls", nullptr, false, G::Tls},
    {"--starttls", nullptr, false, G::StartTls},
    {"--plain", nullptr, false, G::Plain},
    {"--ca-file", nullptr, true, G::CaFile},
    {"--insecure", nullptr, false, G::Insecure},
    {"--auth", nullptr, true, G::Auth},
    {"--timeout", nullptr, true, G::Timeout},
    {"--ssh-host", nullptr, true, G::SshHost},
    {"--ssh-port", nullptr, true, G::SshPort},
    {"--ssh-user", nullptr, true, G::SshUser},
    {"--ssh-key", nullptr, true, G::SshKey},
    {"--ssh-fingerprint", nullptr, true, G::SshFingerprint},
    {"--session-log", nullptr, true, G::SessionLog},
    {"--verbose", "-v", false, G::Verbose},
    {"--json", nullptr, false, G::Json},
    {"--password-stdin", nullptr, false, G::PasswordStdin},
    {"--help", "-h", false, G::Help},
    {"--version", "-V", false, G::Version},
};

const GlobalSpec* findGlobal(const std::string& name) {
    for (const GlobalSpec& g : kGlobals) {
        if (name == g.name || (g.shortName && name == g.shortName)) return &g;
    }
    return nullptr;
}

// "--opt=value" is accepted as well as "--opt value".
void splitInline(const std::string& arg, std::string& name, std::optional<std::string>& inlineValue) {
    size_t eq = arg.find('=');
    if (arg.rfind("--", 0) == 0 && eq != std::string::npos) {
        name = arg.substr(0, eq);
        inlineValue = arg.substr(eq + 1);
    } else {
        name = arg;
        inlineValue.reset();
    }
}

[[noreturn]] void refusePasswordArgument() {
    usageError("passwords are not accepted on the command line (other users could read them in the process list); "
               "set ZRIMAP_PASSWORD, add the account to ~/.netrc, or use --password-stdin");
}

void setSecurity(GlobalOptions& g, Security s, const std::string& name) {
    if (g.security && *g.security != s) usageError("choose one of --tls, --starttls and --plain (" + name + " conflicts)");
    g.security = s;
}

}  // namespace

long long parseNumber(const std::string& text, long long min, long long max, const std::string& what) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        usageError(what + " must be a whole number, not '" + text + "'");
    errno = 0;
    char* end = nullptr;
    long long v = std::strtoll(text.c_str(), &end, 10);
    if (errno == ERANGE || v < min || v > max)
        usageError(what + " must be between " + std::to_string(min) + " and " + std::to_string(max) + ", not " + text);
    return v;
}

std::optional<AuthMechanism> parseMechanism(const std::string& name) {
    std::string n;
    for (char c : name) n += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    if (n == "auto") return AuthMechanism::Auto;
    if (n == "login") return AuthMechanism::Login;
    if (n == "plain") return AuthMechanism::Plain;
    if (n == "cram-md5") return AuthMechanism::CramMd5;
    if (n == "digest-md5") return AuthMechanism::DigestMd5;
    if (n == "ntlm") return AuthMechanism::Ntlm;
    if (n == "xoauth2") return AuthMechanism::XOAuth2;
    return std::nullopt;
}

CommandLine parseCommandLine(const std::vector<std::string>& argv) {
    CommandLine cl;
    GlobalOptions& g = cl.global;
    size_t i = 0;
    for (; i < argv.size(); ++i) {
        const std::string& arg = argv[i];
        if (arg == "--") {
            ++i;
            break;
        }
        if (arg.empty() || arg[0] != '-' || arg == "-") break;

        std::string name;
        std::optional<std::string> inlineValue;
        splitInline(arg, name, inlineValue);
        if (name == "--password" || name == "-p" || name == "--pass" || name == "--pw") refusePasswordArgument();
        const GlobalSpec* spec = findGlobal(name);
        if (!spec) usageError("unknown option '" + name + "' (see zrimap --help)");

        std::string value;
        if (spec->takesValue) {
            if (inlineValue) {
                value = *inlineValue;
            } else if (i + 1 < argv.size()) {
                value = argv[++i];
            } else {
                usageError("option " + name + " needs a value");
            }
        } else if (inlineValue) {
            usageError("option " + name + " takes no value");
        }

        switch (spec->id) {
            case G::Url: g.url = value; break;
            case G::Host: g.host = value; break;
            case G::Port: g.port = static_cast<int>(parseNumber(value, 1, 65535, "--port")); break;
            case G::User: g.user = value; break;
            case G::Tls: setSecurity(g, Security::Tls, name); break;
            case G::StartTls: setSecurity(g, Security::StartTls, name); break;
            case G::Plain: setSecurity(g, Security::Plain, name); break;
            case G::CaFile: g.caFile = value; break;
            case G::Insecure: g.insecure = true; break;
            case G::Auth:
                g.mechanism = parseMechanism(value);
                if (!g.mechanism)
                    usageError("unknown --auth mechanism '" + value +
                               "' (one of auto, login, plain, cram-md5, digest-md5, ntlm, xoauth2)");
                break;
            case G::Timeout: g.timeoutSeconds = static_cast<int>(parseNumber(value, 1, 86400, "--timeout")); break;
            case G::SshHost: g.sshHost = value; break;
            case G::SshPort: g.sshPort = static_cast<int>(parseNumber(value, 1, 65535, "--ssh-port")); break;
            case G::SshUser: g.sshUser = value; break;
            case G::SshKey: g.sshKey = value; break;
            case G::SshFingerprint: g.sshFingerprint = value; break;
            case G::SessionLog: g.sessionLog = value; break;
            case G::Verbose: g.verbose = true; break;
            case G::Json: g.json = true; break;
            case G::PasswordStdin: g.passwordStdin = true; break;
            case G::Help: g.help = true; break;
            case G::Version: g.version = true; break;
        }
    }
    if (i < argv.size()) {
        cl.command = argv[i++];
        cl.args.assign(argv.begin() + static_cast<std::ptrdiff_t>(i), argv.end());
    }
    if (g.insecure && !g.caFile.empty()) usageError("--insecure and --ca-file contradict each other; choose one");
    return cl;
}

std::string ParsedArgs::value(const std::string& name, const std::string& fallback) const {
    auto it = options.find(name);
    if (it == options.end() || it->second.empty()) return fallback;
    return it->second.back();
}

std::vector<std::string> ParsedArgs::values(const std::string& name) const {
    auto it = options.find(name);
    return it == options.end() ? std::vector<std::string>{} : it->second;
}

ParsedArgs parseCommandArgs(const CommandSpec& spec, const std::vector<std::string>& args) {
    ParsedArgs out;
    bool optionsDone = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        bool looksLikeOption = !optionsDone && arg.size() > 1 && arg[0] == '-' &&
                               !(arg[1] >= '0' && arg[1] <= '9');
        if (!looksLikeOption) {
            out.positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsDone = true;
            continue;
        }
        if (arg == "--help" || arg == "-h") {
            out.help = true;
            continue;
        }
        std::string name;
        std::optional<std::string> inlineValue;
        splitInline(arg, name, inlineValue);
        if (name == "--password" || name == "-p") refusePasswordArgument();
        const OptionSpec* opt = nullptr;
        for (const OptionSpec& o : spec.options) {
            if (o.name == name) opt = &o;
        }
        if (!opt) {
            if (findGlobal(name))
                usageError(spec.name + ": " + name + " is a global option; put it before the subcommand (zrimap " +
                           name + " ... " + spec.name + " ...)");
            usageError(spec.name + ": unknown option '" + name + "' (see zrimap help " + spec.name + ")");
        }
        std::vector<std::string>& slot = out.options[name];
        switch (opt->arity) {
            case OptionSpec::Flag:
                if (inlineValue) usageError(spec.name + ": option " + name + " takes no value");
                slot.emplace_back();
                break;
            case OptionSpec::One:
                if (inlineValue) {
                    slot.push_back(*inlineValue);
                } else if (i + 1 < args.size()) {
                    slot.push_back(args[++i]);
                } else {
                    usageError(spec.name + ": option " + name + " needs a value (" + opt->valueName + ")");
                }
                break;
            case OptionSpec::Many: {
                size_t before = slot.size();
                if (inlineValue) slot.push_back(*inlineValue);
                while (i + 1 < args.size() && args[i + 1].rfind("--", 0) != 0) slot.push_back(args[++i]);
                if (slot.size() == before)
                    usageError(spec.name + ": option " + name + " needs at least one " + opt->valueName);
                break;
            }
        }
    }
    if (out.help) return out;
    int n = static_cast<int>(out.positional.size());
    if (n < spec.minPositional) usageError(spec.name + ": missing arguments; usage: zrimap " + spec.synopsis);
    if (spec.maxPositional >= 0 && n > spec.maxPositional)
        usageError(spec.name + ": unexpected argument '" + out.positional[static_cast<size_t>(spec.maxPositional)] +
                   "'; usage: zrimap " + spec.synopsis);
    return out;
}

}  // namespace cli
}  // namespace zr
