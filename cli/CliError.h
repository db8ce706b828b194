// Exit codes and the one error type of the zrimap tool.
#pragma once

#include <stdexcept>
#include <string>

namespace zr {
namespace cli {

// Documented in `zrimap --help`; scripts rely on them, so never renumber.
enum ExitCode : int {
    kExitOk = 0,
    kExitFailed = 1,      // the server said NO/BAD, or the operation could not be done
    kExitUsage = 2,       // unknown subcommand, bad arguments, malformed URL
    kExitConnection = 3,  // no connection: refused, unreachable, TLS or SSH failure, time-out
    kExitAuth = 4,        // login refused, or no password available
    kExitLocalIo = 5,     // a local file or directory could not be read or written
    kExitInterrupted = 130
};

// Thrown anywhere below main(); main() prints "zrimap: <message>" on one line
// and exits with the code.
class CliError : public std::runtime_error {
public:
    CliError(int code, const std::string& message) : std::runtime_error(message), m_code(code) {}
    int code() const { return m_code; }

private:
    int m_code;
};

[[noreturn]] inline void usageError(const std::string& message) { throw CliError(kExitUsage, message); }
[[noreturn]] inline void failed(const std::string& message) { throw CliError(kExitFailed, message); }
[[noreturn]] inline void localIoError(const std::string& message) { throw CliError(kExitLocalIo, message); }

// Server and library texts may span lines or carry CR; an error must stay
// one line on stderr.
std::string oneLine(const std::string& text);

}  // namespace cli
}  // namespace zr
