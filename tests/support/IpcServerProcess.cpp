#include "IpcServerProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>


extern char** environ;

namespace {

long long NowMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

}  // namespace

IpcServerProcess::IpcServerProcess() { m_programFd = open(NFSENGINE_IPC_SERVER_HOST, O_RDONLY | O_CLOEXEC); }

IpcServerProcess::~IpcServerProcess() {
    if (m_pid > 0) Kill();
    if (m_out != -1) close(m_out);
    if (m_programFd != -1) close(m_programFd);
}

std::vector<std::string> IpcServerProcess::Arguments(const std::string& id, int logControl, bool autoShutdown) {
    std::vector<std::string> args = {"-md", "svr", "-id", id, "-log", std::to_string(logControl)};
    if (!autoShutdown) args.push_back("-noautoshutdown");
    return args;
}

bool IpcServerProcess::Start(const std::vector<std::string>& args, int timeoutMs) {
    if (m_programFd == -1 || m_pid > 0) return false;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    std::vector<std::string> all = {"ipc_server_host"};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
        dup2(fds[1], 1);
        fexecve(m_programFd, argv.data(), environ);
        _exit(127);
    }
    close(fds[1]);
    if (m_pid < 0) {
        close(fds[0]);
        return false;
    }
    if (m_out != -1) close(m_out);
    m_out = fds[0];
    m_output.clear();
    long long end = NowMs() + timeoutMs;
    while (m_output.find("Ready\n") == std::string::npos) {
        long long left = end - NowMs();
        if (left <= 0 || !ReadSome((int)left)) return false;
    }
    return true;
}

bool IpcServerProcess::ReadSome(int timeoutMs) {
    if (m_out == -1) return false;
    pollfd p{m_out, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) return true;
    char buf[4096];
    ssize_t n = read(m_out, buf, sizeof buf);
    if (n <= 0) return false;
    m_output.append(buf, (size_t)n);
    return true;
}

std::string IpcServerProcess::Output() {
    while (m_out != -1) {
        pollfd p{m_out, POLLIN, 0};
        if (poll(&p, 1, 0) <= 0) break;
        if (!ReadSome(0)) break;
    }
    return m_output;
}

int IpcServerProcess::Wait(int timeoutMs) {
    if (m_pid <= 0) return -1;
    long long end = NowMs() + timeoutMs;
    for (;;) {
        int status = 0;
        pid_t r = waitpid(m_pid, &status, WNOHANG);
        if (r == m_pid) {
            m_pid = -1;
            for (int i = 0; i < 20 && ReadSome(50); ++i) {
            }
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        if (NowMs() >= end) return -1;
        if (!ReadSome(20)) usleep(20 * 1000);
    }
}

void IpcServerProcess::Terminate() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGTERM);
    if (Wait() == -1 && m_pid > 0) Kill();
}

void IpcServerProcess::Kill() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}
