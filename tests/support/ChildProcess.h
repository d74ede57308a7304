#pragma once

// A program run as a child process whose standard input the test writes
// and whose standard output and error it reads: through pipes, or through
// a pseudo-terminal as an operator at a terminal would.

#include <sys/types.h>

#include <string>
#include <vector>

class ChildProcess {
public:
    enum Input { PIPE, TERMINAL };

    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Runs the program opened as programFd (fexecve, so that it runs even
    // when its path is hidden afterwards) with argv[0] name and args. With
    // TERMINAL, standard input, output and error are the slave side of a
    // pseudo-terminal whose echo is off, so that the output holds only what
    // the program prints (lines end in "\r\n" there).
    bool Start(int programFd, const std::string& name, const std::vector<std::string>& args, Input input = PIPE);
    // Writes text to the program's standard input.
    bool Send(const std::string& text);
    // Closes the program's standard input (PIPE only).
    void CloseInput();
    // Reads until the output after position from holds text (true), or
    // until the output ends or nothing comes for timeoutMs. Returns the
    // position just past text through end when given.
    bool ReadUntil(const std::string& text, size_t from = 0, size_t* end = nullptr, int timeoutMs = 30000);
    // Sends signal (0: none), reads everything and returns the wait status.
    int Finish(int signal, int timeoutMs = 30000);

    // The output so far, with "\r\n" turned into "\n".
    std::string Output() const;
    std::vector<std::string> Lines() const;
    bool HasLine(const std::string& line) const;
    pid_t Pid() const { return m_pid; }

private:
    bool ReadMore(int timeoutMs);

    pid_t m_pid = -1;
    int m_out = -1;  // read side (the terminal's master with TERMINAL)
    int m_in = -1;   // write side (the same master with TERMINAL)
    std::string m_output;
};
