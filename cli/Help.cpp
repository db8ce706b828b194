#include <sstream>

#include "Commands.h"

namespace zr {
namespace cli {

std::string globalHelp() {
    std::ostringstream o;
    o << "usage: zrimap [OPTIONS] SUBCOMMAND [ARGS]\n"
         "\n"
         "An IMAP client for the command line: one connection per run, logged out at the end.\n"
         "\n"
         "Subcommands:\n";
    for (const Command& c : commands()) {
        std::string name = c.spec.name;
        name.resize(14, ' ');
        o << "  " << name << c.spec.summary << "\n";
    }
    o << "`zrimap help SUBCOMMAND` or `zrimap SUBCOMMAND --help` tells more about one.\n"
         "\n"
         "Server (before the subcommand):\n"
         "  --url URL            imaps://USER@HOST[:PORT][/MAILBOX] (implicit TLS, port 993) or\n"
         "                       imap://USER@HOST[:PORT][/MAILBOX] (STARTTLS, port 143)\n"
         "  --host HOST --port N --user USER    the same, piece by piece (default: implicit TLS)\n"
         "  --tls | --starttls | --plain         override the security (--plain: no encryption)\n"
         "  --ca-file FILE       trust the certificates in this PEM file (else the system's)\n"
         "  --insecure           do not verify the server's certificate\n"
         "  --auth MECH          auto (default), login, plain, cram-md5, digest-md5, ntlm, xoauth2\n"
         "  --timeout SECONDS    give up on a silent server after this long (default 60)\n"
         "  --ssh-host HOST [--ssh-port N] [--ssh-user USER] [--ssh-key FILE]\n"
         "  [--ssh-fingerprint SHA256:...]      connect through an SSH tunnel (port 22 and $USER\n"
         "                       unless given); the SSH password comes from ZRIMAP_SSH_PASSWORD,\n"
         "                       a key's passphrase from ZRIMAP_SSH_KEY_PASSPHRASE; with a\n"
         "                       fingerprint, any other host key is refused\n"
         "\n"
         "Password (never an argument): ZRIMAP_PASSWORD, else the machine's entry in ~/.netrc\n"
         "(or the file in NETRC), else a prompt when standard input is a terminal.\n"
         "  --password-stdin     read it from the first line of standard input instead\n"
         "For --auth xoauth2 the password is the access token.\n"
         "\n"
         "Output:\n"
         "  --json               machine-readable output on stdout (idle: one object per line)\n"
         "  --session-log FILE   write the whole IMAP conversation there (passwords masked)\n"
         "  --verbose, -v        diagnostics on stderr\n"
         "  --help, -h           this text;  --version, -V   the version\n"
         "\n"
         "Exit codes:\n"
         "  0  success\n"
         "  1  the server refused (NO/BAD) or the operation failed\n"
         "  2  usage error: unknown subcommand or option, bad arguments, malformed URL\n"
         "  3  connection failure: refused, unreachable, TLS or SSH error, time-out, connection lost\n"
         "  4  authentication failure, or no password available\n"
         "  5  a local file or directory could not be read or written\n"
         "  130 interrupted (Ctrl-C)\n"
         "Errors are one line on stderr starting with \"zrimap:\".\n"
         "\n"
         "Examples:\n"
         "  export ZRIMAP_PASSWORD=...            # or a line in ~/.netrc:\n"
         "                                        # machine mail.example.org login alice password ...\n"
         "  zrimap --url imaps://alice@mail.example.org list\n"
         "  zrimap --url imaps://alice@mail.example.org status INBOX\n"
         "  zrimap --url imaps://alice@mail.example.org search INBOX UNSEEN FROM bob\n"
         "  zrimap --url imaps://alice@mail.example.org fetch INBOX 5 7:9 --out mails/\n"
         "  zrimap --url imaps://alice@mail.example.org part INBOX 5 2 --out report.pdf\n"
         "  zrimap --url imaps://alice@mail.example.org append INBOX note.eml --flag '\\Seen'\n"
         "  zrimap --url imaps://alice@mail.example.org idle INBOX --count 1 --timeout 600\n"
         "  zrimap --url imaps://alice@mail.example.org backup INBOX ~/backup/inbox\n"
         "  zrimap --json --url imap://bob@127.0.0.1:14310 --plain capabilities\n";
    return o.str();
}

std::string commandHelp(const Command& cmd) {
    std::ostringstream o;
    std::string summary = cmd.spec.summary;
    if (!summary.empty() && summary[0] >= 'a' && summary[0] <= 'z') summary[0] = static_cast<char>(summary[0] - 'a' + 'A');
    o << "usage: zrimap [OPTIONS] " << cmd.spec.synopsis << "\n\n" << summary << ".\n";
    if (!cmd.spec.description.empty()) o << "\n" << cmd.spec.description << "\n";
    if (!cmd.spec.options.empty()) {
        o << "\nOptions:\n";
        for (const OptionSpec& opt : cmd.spec.options) {
            std::string left = opt.name;
            if (opt.arity == OptionSpec::One) left += " " + opt.valueName;
            if (opt.arity == OptionSpec::Many) left += " " + opt.valueName + "...";
            left.resize(std::max<size_t>(left.size() + 2, 26), ' ');
            o << "  " << left << opt.help << "\n";
        }
    }
    o << "\nGlobal options and exit codes: zrimap --help\n";
    return o.str();
}

}  // namespace cli
}  // namespace zr
