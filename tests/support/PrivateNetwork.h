#pragma once

// Network and mount isolation for tests that need fixed ports (111, 2049,
// ...) or fixed paths: they run in a network and mount namespace of their
// own, so that parallel tests and the host never see each other.

#include <sys/types.h>

#include <set>
#include <string>
#include <tuple>

// Moves this process into a new network and mount namespace (mounts made
// private, so nothing mounted later leaks out) and brings its loopback
// interface up. Call first in a test, while the process has one thread.
// False with the reason in why when it could not be done.
bool EnterPrivateNetwork(std::string* why = nullptr);

// A system portmapper (rpcbind) for the current private namespace: Start
// mounts a private tmpfs over /run (its socket and lock files) and starts
// "rpcbind -f" as a child, then waits until port 111 answers. The child is
// stopped and reaped by Stop or the destructor.
class RpcbindProcess {
public:
    RpcbindProcess() = default;
    ~RpcbindProcess() { Stop(); }
    RpcbindProcess(const RpcbindProcess&) = delete;
    RpcbindProcess& operator=(const RpcbindProcess&) = delete;

    bool Start(std::string* why = nullptr);
    void Stop();
    pid_t Pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
};

// Runs a shell command line, returns its standard output (and the exit
// status through status when given).
std::string RunCommand(const std::string& commandLine, int* status = nullptr);

// (program, version, protocol, port) of every line of "rpcinfo -p" for the
// portmapper on 127.0.0.1.
using PortmapperMappings = std::set<std::tuple<unsigned long, unsigned long, std::string, unsigned long>>;
PortmapperMappings ListPortmapperRegistrations();
