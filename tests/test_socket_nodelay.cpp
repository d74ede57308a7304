// Accepted TCP connections send each reply at once: Nagle's algorithm is
// off on them, so that the partial last segment of a large reply is not held
// back until the previous segment is acknowledged (a client with several
// READs in flight would otherwise wait for its delayed acknowledgement).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstdlib>
#include <string>

#include "RpcServerHarness.h"
#include "RpcTestClient.h"
#include "ServerSocket.h"
#include "TestRpcProg.h"
#include "TestSupport.h"

namespace {

constexpr uint32_t PROG = 100005;
constexpr uint32_t VERS = 3;

uint16_t PortOf(const sockaddr_in& addr) { return ntohs(addr.sin_port); }

// The descriptor of this process whose TCP connection runs from localPort
// to peerPort, or -1.
int FindConnection(uint16_t localPort, uint16_t peerPort) {
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) return -1;
    int found = -1;
    while (dirent* e = readdir(dir)) {
        int fd = atoi(e->d_name);
        if (e->d_name[0] == '.' || fd == dirfd(dir)) continue;
        sockaddr_in local{}, peer{};
        socklen_t localLen = sizeof local, peerLen = sizeof peer;
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLen) != 0 || local.sin_family != AF_INET)
            continue;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLen) != 0) continue;
        if (PortOf(local) == localPort && PortOf(peer) == peerPort) found = fd;
    }
    closedir(dir);
    return found;
}

int NoDelay(int fd) {
    int value = -1;
    socklen_t len = sizeof value;
    if (getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &value, &len) != 0) return -1;
    return value;
}

}  // namespace

TEST(SocketNoDelay, AcceptedConnectionsSendWithoutDelay) {
    RpcServerHarness harness;
    TestRpcProg prog{&harness.Utilities(), VERS, 6};
    harness.Server().Set(PROG, &prog);
    CServerSocket listener;
    listener.SetListener(&harness.Server());
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(listener.Open(PROG, 0, 3, &harness.Utilities(), err)) << err;
    uint16_t port = GetBoundPort(listener.GetSocket());
    RpcTestClient client(RpcTestClient::TCP, port);
    RpcReply reply;
    ASSERT_TRUE(client.Call(1, PROG, VERS, TestRpcProg::PROC_NULL, {}, reply));  // accepted and served

    int server = FindConnection(port, client.LocalPort());
    ASSERT_NE(-1, server);
    EXPECT_NE(0, NoDelay(server));
    // The client's own end is left as the system made it.
    EXPECT_EQ(0, NoDelay(client.Fd()));
    listener.Close();
}
