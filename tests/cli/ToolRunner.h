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
    std::string out;
    std::string err;
};

struct RunOptions {
    std::string input;                                      // fed to stdin
    std::map<std::string, std::optional<std::string>> env;  // nullopt: removed from the child's environment
    int timeoutSeconds = 120;
};

// A started child. Its output goes to files in a private directory, so
// nothing it writes can block it, and can be looked at while it runs.
class ToolProcess {
public:
    ToolProcess(const std::vector<std::string>& args, const RunOptions& options);
    ~ToolProcess();
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    // Until stderr (or stdout) contains text, the process ends or the time is up; true if it appeared.
    bool waitFor(const std::string& text, int timeoutSeconds, bool onStdout = false);
    // Until the process ends (killed after the timeout given at start).
    RunResult finish();
    void kill(int sig);

private:
    bool reap(bool wait);  // true once the process has ended

    pid_t m_pid = -1;
    int m_status = 0;
    std::string m_dir;
    int m_timeoutSeconds;
};

RunResult runTool(const std::vector<std::string>& args, const RunOptions& options = {});

}  // namespace clitest
}  // namespace zr
