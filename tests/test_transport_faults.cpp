// Faults a peer or the network can cause, over real sockets: a client that
// takes no replies, peers that vanish without a word, a short descriptor
// table, idle MOUNT connections, cut datagrams and READs too large for one.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "Nfs3TestServer.h"
#include "PrivateNetwork.h"
#include "RpcServerHarness.h"
#include "RpcTestClient.h"
#include "TestRpcProg.h"
#include "TestSupport.h"

using namespace nfs3wire;
using Clock = std::chrono::steady_clock;

namespace {

constexpr uint32_t NFS3_OK = 0;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Waits up to maxSeconds for condition; false when it never held.
bool WaitSeconds(const std::function<bool()>& condition, double maxSeconds) {
    const auto deadline = Clock::now() + std::chrono::duration<double>(maxSeconds);
    while (Clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return condition();
}

Bytes CreateArgs(const Bytes& dir, const std::string& name) {
    return Join({DirOpArgs(dir, name), Words({0, 0, 0, 0, 0, 0, 0})});  // UNCHECKED, nothing set
}

// The handle of a CREATE reply.
Bytes CreatedHandle(const Bytes& results) {
    XdrDecoder d(results);
    if (d.GetUint32() != NFS3_OK || d.GetUint32() != 1) return {};
    return d.GetOpaque();
}

// A plain TCP connection to port on address, with a receive buffer of
// rcvbuf bytes when not 0 (set before connecting, so that the window stays
// small); -1 on failure.
int Connect(const char* address, uint16_t port, int rcvbuf = 0) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    if (rcvbuf > 0) setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    inet_pton(AF_INET, address, &addr.sin_addr);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

TEST(TransportFaults, AClientThatTakesNoRepliesStallsOnlyItself) {
    Nfs3TestServer server(0);
    std::string err;
    ASSERT_TRUE(server.Start(&err)) << err;
    WriteWholeFile(server.PathOf("big"), std::string(1 << 20, 'b'));
    Bytes read = WithRecordMark(BuildRpcCall(1, PROGRAM, 3, PROC_READ, ReadArgs(server.Handle(server.PathOf("big")), 0, 65536)));

    // The stalling client pipelines 64 KiB READs and reads nothing, until
    // the server no longer takes its calls either.
    int staller = Connect("127.0.0.1", server.TcpPort(), 4096);
    ASSERT_NE(-1, staller);
    ASSERT_TRUE(server.WaitForConnections(1));
    auto lastProgress = Clock::now();
    size_t sent = 0;
    while (Seconds(Clock::now() - lastProgress) < 0.5) {
        ssize_t n = send(staller, read.data(), read.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) {
            sent += (size_t)n;
            lastProgress = Clock::now();
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ASSERT_GT(sent, read.size() * 4);

    // Meanwhile a bystander's NULL calls come back at once.
    RpcTestClient bystander(RpcTestClient::TCP, server.TcpPort());
    double worst = 0;
    for (uint32_t xid = 100; xid < 120; ++xid) {
        RpcReply reply;
        auto start = Clock::now();
        ASSERT_TRUE(bystander.Call(xid, PROGRAM, 3, PROC_NULL, {}, reply));
        worst = std::max(worst, Seconds(Clock::now() - start));
        EXPECT_EQ(xid, reply.xid);
    }
    RecordProperty("bystander_worst_ms", std::to_string(worst * 1000));
    std::printf("bystander NULL round trip during the stall: worst %.2f ms\n", worst * 1000);
    EXPECT_LT(worst, 0.1);

    // Within the send deadline the stalled connection is cut off and its
    // slot comes back.
    auto stalled = Clock::now();
    ASSERT_TRUE(WaitSeconds([&] { return server.ActiveConnections() == 1; }, CSocket::SEND_TIMEOUT_MS / 1000.0 + 15));
    std::printf("stalled connection cut off after %.1f s\n", Seconds(Clock::now() - stalled));
    close(staller);
    RpcReply reply;
    ASSERT_TRUE(bystander.Call(200, PROGRAM, 3, PROC_NULL, {}, reply));
}

TEST(TransportFaults, TheSlotOfAPeerThatVanishedComesBack) {
    std::string why;
    ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
    // A second host behind a veth pair, in a namespace of its own; /run is
    // private so that the namespace's name is seen nowhere else.
    int status = -1;
    RunCommand("mount -t tmpfs run-netns /run && ip netns add vanishing && "
               "ip link add nfs-host type veth peer name nfs-peer && ip link set nfs-peer netns vanishing && "
               "ip addr add 169.254.77.1/24 dev nfs-host && ip link set nfs-host up && "
               "ip -n vanishing addr add 169.254.77.2/24 dev nfs-peer && ip -n vanishing link set nfs-peer up",
               &status);
    ASSERT_EQ(0, status);

    Nfs3TestServer server(0);
    std::string err;
    ASSERT_TRUE(server.Start(&err)) << err;

    // Ten peers of the other host take every NFS slot.
    std::vector<int> peers;
    std::thread([&] {
        int ns = open("/run/netns/vanishing", O_RDONLY);
        if (ns < 0 || setns(ns, CLONE_NEWNET) != 0) return;
        close(ns);
        for (int i = 0; i < 10; ++i) {
            int fd = Connect("169.254.77.1", server.TcpPort());
            if (fd != -1) peers.push_back(fd);
        }
    }).join();
    ASSERT_EQ(10u, peers.size());
    ASSERT_TRUE(server.WaitForConnections(10));

    // The host vanishes: no FIN, no reset, ever.
    RunCommand("ip link del nfs-host", &status);
    ASSERT_EQ(0, status);
    auto gone = Clock::now();
    ASSERT_TRUE(WaitSeconds([&] { return server.ActiveConnections() == 0; }, 75));
    const double reaped = Seconds(Clock::now() - gone);
    std::printf("slots of vanished peers back after %.1f s\n", reaped);
    RecordProperty("reaped_seconds", std::to_string(reaped));
    EXPECT_LT(reaped, 70);

    // New peers find the slots again: ten at once, none of them the
    // eleventh that would end the process.
    std::vector<std::unique_ptr<RpcTestClient>> clients;
    for (uint32_t i = 0; i < 10; ++i) {
        clients.push_back(std::make_unique<RpcTestClient>(RpcTestClient::TCP, server.TcpPort()));
        RpcReply reply;
        ASSERT_TRUE(clients.back()->Call(i + 1, PROGRAM, 3, PROC_NULL, {}, reply));
        EXPECT_EQ(i + 1, reply.xid);
    }
    EXPECT_EQ(10, server.ActiveConnections());
    for (int fd : peers) close(fd);
}

TEST(TransportFaults, UnderA1024DescriptorLimitFilesAndConnectionsFindDescriptors) {
    rlimit limit{1024, 1024};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    Nfs3TestServer server(CRuntimeParam::LOG_ERROR);
    std::string err;
    ASSERT_TRUE(server.Start(&err)) << err;
    const Bytes root = server.Handle(server.Root());
    for (int i = 0; i < 1100; ++i) {
        Bytes file = CreatedHandle(server.Results(PROC_CREATE, CreateArgs(root, "vm-" + std::to_string(i) + ".log")));
        ASSERT_EQ(56u, file.size()) << "CREATE " << i << "\n" << server.Log().Dump();
        XdrDecoder written(server.Results(PROC_WRITE, WriteArgs(file, 0, 5, "hello", 2)));
        ASSERT_EQ(NFS3_OK, written.GetUint32()) << "WRITE " << i;
    }
    EXPECT_EQ(0, server.Log().CountContaining("Too many open files")) << server.Log().Dump();
    // New connections are answered.
    for (uint32_t i = 0; i < 4; ++i) {
        RpcTestClient client(RpcTestClient::TCP, server.TcpPort());
        RpcReply reply;
        ASSERT_TRUE(client.Call(50 + i, PROGRAM, 3, PROC_NULL, {}, reply)) << "connection " << i;
    }
}

TEST(TransportFaults, AFailingAcceptBacksOffInsteadOfSpinning) {
    Nfs3TestServer server(0);
    std::string err;
    ASSERT_TRUE(server.Start(&err)) << err;
    int client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_NE(-1, client);
    // Every descriptor is taken: the server cannot accept the connection.
    std::vector<int> held;
    for (int fd; (fd = open("/dev/null", O_RDONLY)) != -1;) held.push_back(fd);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(server.TcpPort());
    inet_pton(AF_INET, "127.0.0.1", &addr.sin_addr);
    ASSERT_EQ(0, connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    getrusage(RUSAGE_SELF, &after);
    for (int fd : held) close(fd);
    auto cpu = [](const rusage& r) {
        return r.ru_utime.tv_sec + r.ru_stime.tv_sec + (r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6;
    };
    const double spent = cpu(after) - cpu(before);
    std::printf("CPU while accept failed: %.3f s in 1.5 s\n", spent);
    EXPECT_LT(spent, 0.3);
    // Once descriptors are free again the waiting connection is served.
    Bytes call = WithRecordMark(BuildRpcCall(9, PROGRAM, 3, PROC_NULL));
    ASSERT_EQ((ssize_t)call.size(), send(client, call.data(), call.size(), MSG_NOSIGNAL));
    uint8_t reply[28];
    timeval wait{10, 0};
    setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    EXPECT_EQ((ssize_t)sizeof reply, recv(client, reply, sizeof reply, MSG_WAITALL));
    close(client);
}

TEST(TransportFaults, AQuietMountConnectionIsClosedAndNfsConnectionsAreNot) {
    RpcServerHarness harness(0);
    TestRpcProg mount(&harness.Utilities(), 3, 6);
    TestRpcProg nfs(&harness.Utilities(), 3, 22);
    harness.Server().Set(100005, &mount);
    harness.Server().Set(100003, &nfs);
    RpcServerHarness::Endpoint* mountEnd = harness.Listen(100005, 0, 0, 3);
    RpcServerHarness::Endpoint* nfsEnd = harness.Listen(100003, 0, 0, 10);
    ASSERT_NE(nullptr, mountEnd);
    ASSERT_NE(nullptr, nfsEnd);

    RpcTestClient mountClient(RpcTestClient::TCP, mountEnd->tcpPort);
    RpcTestClient nfsClient(RpcTestClient::TCP, nfsEnd->tcpPort);
    RpcReply reply;
    ASSERT_TRUE(mountClient.Call(1, 100005, 3, 0, {}, reply));
    ASSERT_TRUE(nfsClient.Call(1, 100003, 3, 0, {}, reply));
    auto quiet = Clock::now();
    // The server closes the MOUNT connection after its quiet time.
    ASSERT_TRUE(mountClient.WaitForClose());
    const double closedAfter = Seconds(Clock::now() - quiet);
    std::printf("quiet MOUNT connection closed after %.1f s\n", closedAfter);
    EXPECT_GT(closedAfter, 4.0);
    EXPECT_LT(closedAfter, 8.0);
    ASSERT_TRUE(WaitSeconds([&] { return !mountEnd->tcp->GetConnection(0)->IsActive(); }, 5));
    // The NFS connection, as quiet, still serves.
    ASSERT_TRUE(nfsClient.Call(2, 100003, 3, 0, {}, reply));
    EXPECT_EQ(2u, reply.xid);
}

TEST(TransportFaults, ACutDatagramSwallowsNothingOfAnotherPeer) {
    Nfs3TestServer server(CRuntimeParam::LOG_RPC);
    std::string err;
    ASSERT_TRUE(server.Start(&err)) << err;
    RpcTestClient attacker(RpcTestClient::UDP, server.UdpPort(), "127.0.0.1", 500);
    RpcTestClient victim(RpcTestClient::UDP, server.UdpPort());

    // 32 bytes announcing a credential of 60,000 bytes.
    ASSERT_TRUE(attacker.SendRaw(Words({0xBAD, 0, 2, PROGRAM, 3, PROC_NULL, 1, 60000})));
    for (uint32_t xid = 1; xid <= 20; ++xid) {
        RpcReply reply;
        ASSERT_TRUE(victim.Call(xid, PROGRAM, 3, PROC_NULL, {}, reply)) << xid;
        EXPECT_EQ(xid, reply.xid);
    }

    // A cut WRITE of the attacker; the victim's next call is not its data.
    WriteWholeFile(server.PathOf("attacker-file"), "");
    WriteWholeFile(server.PathOf("victim-file"), "victim");
    Bytes write = BuildRpcCall(0xA77, PROGRAM, 3, PROC_WRITE,
                               WriteArgs(server.Handle(server.PathOf("attacker-file")), 0, 4000, std::string(4000, 'a')));
    ASSERT_TRUE(attacker.SendRaw(Bytes(write.begin(), write.begin() + 200)));
    ASSERT_TRUE(WaitUntil([&] { return server.Log().Has("[RpcServer.SocketReceived] Datagram holds no whole call, dropped"); }))
        << server.Log().Dump();
    RpcReply reply;
    ASSERT_TRUE(victim.Call(0x71C, PROGRAM, 3, PROC_GETATTR, HandleArgs(server.Handle(server.PathOf("victim-file"))), reply));
    EXPECT_EQ(0x71Cu, reply.xid);
    EXPECT_EQ(NFS3_OK, reply.Results().GetUint32());
    EXPECT_EQ("", ReadWholeFile(server.PathOf("attacker-file")));
    // Nothing was ever sent to the attacker.
    EXPECT_FALSE(attacker.ReceiveReply(reply));
}

TEST(TransportFaults, ReadOverUdpFitsOneDatagram) {
    Nfs3TestServer server(0);
    std::string err;
    ASSERT_TRUE(server.Start(&err)) << err;
    std::string data(100000, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = (char)(i * 7 + i / 251);
    WriteWholeFile(server.PathOf("disk"), data);
    const Bytes file = server.Handle(server.PathOf("disk"));
    for (auto transport : {RpcTestClient::UDP, RpcTestClient::TCP}) {
        const bool udp = transport == RpcTestClient::UDP;
        XdrDecoder d(server.Results(PROC_READ, ReadArgs(file, 1000, 65536), transport));
        ASSERT_EQ(NFS3_OK, d.GetUint32());
        EXPECT_FALSE(GetPostOpAttr(d));
        const uint32_t count = d.GetUint32();
        EXPECT_EQ(udp ? 61440u : 65536u, count);
        EXPECT_EQ(0u, d.GetUint32());  // not at the end: a short read
        Bytes got = d.GetOpaque();
        EXPECT_EQ(data.substr(1000, count), std::string(got.begin(), got.end()));
    }
}

}  // namespace
