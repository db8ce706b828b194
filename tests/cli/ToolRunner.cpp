#include "ToolRunner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "CliTestSupport.h"

#ifndef ZRIMAP_TOOL_PATH
#error "ZRIMAP_TOOL_PATH must name the zrimap executable"
#endif

namespace zr {
namespace clitest {

ToolProcess::ToolProcess(const std::vector<std::string>& args, const RunOptions& options)
    : m_timeoutSeconds(options.timeoutSeconds) {
    char tmpl[] = "/tmp/zrimap-tool-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    m_dir = tmpl;
    writeFile(m_dir + "/in", options.input);
    const std::string in = m_dir + "/in", out = m_dir + "/out", err = m_dir + "/err";
    std::vector<std::string> argv{ZRIMAP_TOOL_PATH};
    argv.insert(argv.end(), args.begin(), args.end());

    m_pid = fork();
    if (m_pid < 0) throw std::runtime_error("fork failed");
    if (m_pid == 0) {
        dup2(open(in.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDOUT_FILENO);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), STDERR_FILENO);
        for (const auto& [name, value] : options.env) {
            if (value) {
                setenv(name.c_str(), value->c_str(), 1);
            } else {
                unsetenv(name.c_str());
            }
        }
        std::vector<char*> cargs;
        for (std::string& a : argv) cargs.push_back(a.data());
        cargs.push_back(nullptr);
        execv(cargs[0], cargs.data());
        _exit(127);
    }
}

ToolProcess::~ToolProcess() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    for (const char* f : {"/in", "/out", "/err"}) unlink((m_dir + f).c_str());
    rmdir(m_dir.c_str());
}

bool ToolProcess::reap(bool wait) {
    if (m_pid > 0 && waitpid(m_pid, &m_status, wait ? 0 : WNOHANG) == m_pid) m_pid = -1;
    return m_pid <= 0;
}

bool ToolProcess::waitFor(const std::string& text, int timeoutSeconds, bool onStdout) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    const std::string file = m_dir + (onStdout ? "/out" : "/err");
    while (readFile(file).find(text) == std::string::npos) {
        if (reap(false) || std::chrono::steady_clock::now() >= end)
            return readFile(file).find(text) != std::string::npos;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

void ToolProcess::kill(int sig) {
    if (m_pid > 0) ::kill(m_pid, sig);
}

RunResult ToolProcess::finish() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(m_timeoutSeconds);
    while (!reap(false) && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        reap(true);
    }
    RunResult r;
    if (WIFEXITED(m_status)) r.exitCode = WEXITSTATUS(m_status);
    if (WIFSIGNALED(m_status)) r.signal = WTERMSIG(m_status);
    r.out = readFile(m_dir + "/out");
    r.err = readFile(m_dir + "/err");
    return r;
}

RunResult runTool(const std::vector<std::string>& args, const RunOptions& options) {
    return ToolProcess(args, options).finish();
}

}  // namespace clitest
}  // namespace zr
