#pragma once

// An external server process for the two-process tests: the test host
// program (later the console program in mode svr) started as a child with
// its standard output on a pipe. The program is opened when the object is
// made, so that a test may hide /tmp (where the build may live) afterwards.

#include <sys/types.h>

#include <string>
#include <vector>

class IpcServerProcess {
public:
    IpcServerProcess();
    ~IpcServerProcess();
    IpcServerProcess(const IpcServerProcess&) = delete;
    IpcServerProcess& operator=(const IpcServerProcess&) = delete;

    // The program's arguments for an instance ID, e.g. "-md svr -id ID".
    static std::vector<std::string> Arguments(const std::string& id, int logControl, bool autoShutdown);

    // Starts the program with args and waits (up to timeoutMs) until it
    // prints "Ready" or ends. True when it is ready.
    bool Start(const std::vector<std::string>& args, int timeoutMs = 10000);
    // Waits for the end of the process; its exit status (-1 after timeout
    // or when it did not exit normally).
    int Wait(int timeoutMs = 10000);
    void Terminate();  // SIGTERM, then Wait
    void Kill();       // SIGKILL, as a crash would, then reaped
    bool Running() const { return m_pid > 0; }
    pid_t Pid() const { return m_pid; }
    // Everything the process printed so far.
    std::string Output();

private:
    // Reads what is available within timeoutMs; false at end of output.
    bool ReadSome(int timeoutMs);

    int m_programFd = -1;
    pid_t m_pid = -1;
    int m_out = -1;
    std::string m_output;
};
