#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

#include "TestSupport.h"

ChildProcess::~ChildProcess() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    if (m_in != -1 && m_in != m_out) close(m_in);
    if (m_out != -1) close(m_out);
}

bool ChildProcess::Start(int programFd, const std::string& name, const std::vector<std::string>& args, Input input) {
    std::vector<char*> argv{const_cast<char*>(name.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    if (input == TERMINAL) {
        termios settings{};
        cfmakeraw(&settings);
        // A line discipline as a terminal has it, without echo.
        settings.c_iflag = ICRNL;
        settings.c_oflag = OPOST | ONLCR;
        settings.c_lflag = ICANON | ISIG;
        settings.c_cflag = CS8 | CREAD;
        settings.c_cc[VINTR] = 3;
        settings.c_cc[VEOF] = 4;
        settings.c_cc[VMIN] = 1;
        int master = -1;
        m_pid = forkpty(&master, nullptr, &settings, nullptr);
        if (m_pid == -1) return false;
        if (m_pid == 0) {
            fexecve(programFd, argv.data(), environ);
            _exit(127);
        }
        m_in = m_out = master;
        return true;
    }

    int in[2], out[2];
    if (pipe(in) == -1) return false;
    if (pipe(out) == -1) {
        close(in[0]);
        close(in[1]);
        return false;
    }
    m_pid = fork();
    if (m_pid == -1) return false;
    if (m_pid == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(out[1], 2);
        close(in[0]);
        close(in[1]);
        close(out[0]);
        close(out[1]);
        fexecve(programFd, argv.data(), environ);
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    m_in = in[1];
    m_out = out[0];
    return true;
}

bool ChildProcess::Send(const std::string& text) {
    // A program that has ended makes the write fail, not end the test.
    signal(SIGPIPE, SIG_IGN);
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(m_in, text.data() + done, text.size() - done);
        if (n <= 0) return false;
        done += (size_t)n;
    }
    return true;
}

void ChildProcess::CloseInput() {
    if (m_in != -1 && m_in != m_out) close(m_in);
    if (m_in != m_out) m_in = -1;
}

bool ChildProcess::ReadMore(int timeoutMs) {
    pollfd p{m_out, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) != 1) return false;
    char buf[4096];
    ssize_t n = read(m_out, buf, sizeof buf);
    if (n <= 0) return false;  // a terminal's master reads EIO once the child is gone
    m_output.append(buf, (size_t)n);
    return true;
}

bool ChildProcess::ReadUntil(const std::string& text, size_t from, size_t* end, int timeoutMs) {
    while (true) {
        std::string output = Output();
        size_t at = from <= output.size() ? output.find(text, from) : std::string::npos;
        if (at != std::string::npos) {
            if (end) *end = at + text.size();
            return true;
        }
        if (!ReadMore(timeoutMs)) return false;
    }
}

int ChildProcess::Finish(int signal, int timeoutMs) {
    if (signal != 0) kill(m_pid, signal);
    CloseInput();
    while (ReadMore(timeoutMs)) {
    }
    // The output has ended; a program that does not exit as well is killed.
    int status = 0;
    for (int waited = 0; waitpid(m_pid, &status, WNOHANG) == 0; waited += 10) {
        if (waited >= timeoutMs) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &status, 0);
            break;
        }
        usleep(10000);
    }
    m_pid = -1;
    return status;
}

std::string ChildProcess::Output() const {
    std::string text;
    text.reserve(m_output.size());
    for (size_t i = 0; i < m_output.size(); ++i)
        if (!(m_output[i] == '\r' && i + 1 < m_output.size() && m_output[i + 1] == '\n')) text += m_output[i];
    return text;
}

std::vector<std::string> ChildProcess::Lines() const { return SplitLines(Output()); }

bool ChildProcess::HasLine(const std::string& line) const {
    for (const std::string& l : Lines())
        if (l == line) return true;
    return false;
}
