#include "ToolRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#ifndef ZRIMAP_TOOL_PATH
#error "ZRIMAP_TOOL_PATH must name the zrimap executable"
#endif

namespace zr {
namespace clitest {

namespace {

void closeFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

}  // namespace

std::string toolPath() { return ZRIMAP_TOOL_PATH; }

ToolProcess::ToolProcess(const std::vector<std::string>& args, const RunOptions& options)
    : m_input(options.input), m_timeoutSeconds(options.timeoutSeconds) {
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    std::vector<std::string> argv{toolPath()};
    argv.insert(argv.end(), args.begin(), args.end());

    m_pid = fork();
    if (m_pid < 0) throw std::runtime_error("fork failed");
    if (m_pid == 0) {
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
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
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    m_in = in[1];
    m_out = out[0];
    m_err = err[0];
    fcntl(m_in, F_SETFL, O_NONBLOCK);
    if (m_input.empty()) closeFd(m_in);
}

ToolProcess::~ToolProcess() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    closeFd(m_in);
    closeFd(m_out);
    closeFd(m_err);
}

bool ToolProcess::pump(int timeoutMs) {
    if (m_out < 0 && m_err < 0) return false;
    pollfd fds[3];
    int n = 0;
    int idxIn = -1, idxOut = -1, idxErr = -1;
    if (m_in >= 0) {
        idxIn = n;
        fds[n++] = {m_in, POLLOUT, 0};
    }
    if (m_out >= 0) {
        idxOut = n;
        fds[n++] = {m_out, POLLIN, 0};
    }
    if (m_err >= 0) {
        idxErr = n;
        fds[n++] = {m_err, POLLIN, 0};
    }
    int r = poll(fds, static_cast<nfds_t>(n), timeoutMs);
    if (r <= 0) return true;
    if (idxIn >= 0 && fds[idxIn].revents) {
        ssize_t w = ::write(m_in, m_input.data() + m_inputSent, m_input.size() - m_inputSent);
        if (w > 0) m_inputSent += static_cast<size_t>(w);
        if (w < 0 && errno != EAGAIN) m_inputSent = m_input.size();
        if (m_inputSent >= m_input.size()) closeFd(m_in);
    }
    char buf[65536];
    auto drain = [&](int idx, int& fd, std::string& sink) {
        if (idx < 0 || !fds[idx].revents) return;
        ssize_t got = ::read(fd, buf, sizeof buf);
        if (got > 0) {
            sink.append(buf, static_cast<size_t>(got));
        } else if (got == 0 || errno != EINTR) {
            closeFd(fd);
        }
    };
    drain(idxOut, m_out, m_result.out);
    drain(idxErr, m_err, m_result.err);
    return true;
}

bool ToolProcess::waitForStderr(const std::string& text, int timeoutSeconds) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    while (m_result.err.find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() >= end) return false;
        if (!pump(100)) return m_result.err.find(text) != std::string::npos;
    }
    return true;
}

void ToolProcess::kill(int sig) {
    if (m_pid > 0) ::kill(m_pid, sig);
}

RunResult ToolProcess::finish() {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(m_timeoutSeconds);
    while (pump(100)) {
        if (std::chrono::steady_clock::now() >= end) {
            m_result.timedOut = true;
            ::kill(m_pid, SIGKILL);
            break;
        }
    }
    closeFd(m_in);
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_pid = -1;
    if (WIFEXITED(status)) {
        m_result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        m_result.signal = WTERMSIG(status);
    }
    return m_result;
}

RunResult runTool(const std::vector<std::string>& args, const RunOptions& options) {
    ToolProcess p(args, options);
    return p.finish();
}

}  // namespace clitest
}  // namespace zr
