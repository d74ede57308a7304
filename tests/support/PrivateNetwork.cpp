#include "PrivateNetwork.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "RpcTestClient.h"

namespace {

bool Fail(std::string* why, const std::string& what) {
    if (why) *why = what + ": " + strerror(errno);
    return false;
}

bool PortAnswers(uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd == -1) return false;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

}  // namespace

bool EnterPrivateNetwork(std::string* why) {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) == -1) return Fail(why, "unshare");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == -1) return Fail(why, "make mounts private");
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd == -1) return Fail(why, "socket");
    ifreq ifr{};
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "lo");
    bool ok = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
    if (ok) {
        ifr.ifr_flags = (short)(ifr.ifr_flags | IFF_UP | IFF_RUNNING);
        ok = ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
    }
    if (!ok) Fail(why, "bring lo up");
    close(fd);
    return ok;
}

bool RpcbindProcess::Start(std::string* why) {
    if (mount("tmpfs", "/run", "tmpfs", 0, "mode=0755") == -1) return Fail(why, "mount tmpfs on /run");
    m_pid = fork();
    if (m_pid == -1) return Fail(why, "fork");
    if (m_pid == 0) {
        execl("/usr/sbin/rpcbind", "rpcbind", "-f", (char*)nullptr);
        _exit(127);
    }
    // Ready once it accepts on 111 and its local socket (used to register) is there.
    bool ready = WaitUntil([] { return PortAnswers(111) && access("/run/rpcbind.sock", F_OK) == 0; });
    if (!ready) {
        if (why) *why = "rpcbind did not come up";
        Stop();
    }
    return ready;
}

void RpcbindProcess::Stop() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGTERM);
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_pid = -1;
}

std::string RunCommand(const std::string& commandLine, int* status) {
    std::string output;
    FILE* p = popen(commandLine.c_str(), "r");
    if (p == nullptr) {
        if (status) *status = -1;
        return output;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) output.append(buf, n);
    int rc = pclose(p);
    if (status) *status = rc;
    return output;
}

PortmapperMappings ListPortmapperRegistrations() {
    PortmapperMappings rows;
    std::istringstream in(RunCommand("rpcinfo -p 127.0.0.1 2>&1"));
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        unsigned long prog, vers, port;
        std::string proto;
        if (fields >> prog >> vers >> proto >> port) rows.insert(std::make_tuple(prog, vers, proto, port));
    }
    return rows;
}
