// Runs the zrimap executable as a child process, the way a user or a script
// would, and collects its exit status, stdout and stderr.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zr {
namespace clitest {

struct RunResult {
    int exitCode = -1;  // -1 when killed by a signal
    int signal = 0;     // the signal that ended it, else 0
    bool timedOut = false;
    std::string out;
    std::string err;
};

struct RunOptions {
    std::string input;                                      // fed to stdin, then closed
    std::map<std::string, std::optional<std::string>> env;  // nullopt: removed from the child's environment
    int timeoutSeconds = 120;
};

// A started child; read() collects output until it ends.
class ToolProcess {
public:
    ToolProcess(const std::vector<std::string>& args, const RunOptions& options);
    ~ToolProcess();
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    // Collects output until stderr contains text or the time is up; true if it did.
    bool waitForStderr(const std::string& text, int timeoutSeconds);
    // Until the process ends (killed after the timeout given at start).
    RunResult finish();
    void kill(int sig);
    pid_t pid() const { return m_pid; }

private:
    bool pump(int timeoutMs);  // false once both pipes are closed

    pid_t m_pid = -1;
    int m_in = -1, m_out = -1, m_err = -1;
    std::string m_input;
    size_t m_inputSent = 0;
    int m_timeoutSeconds;
    RunResult m_result;
};

// The path of the built tool (a compile definition of the test executable).
std::string toolPath();

RunResult runTool(const std::vector<std::string>& args, const RunOptions& options = {});

}  // namespace clitest
}  // namespace zr
