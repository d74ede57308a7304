// TCP listeners, UDP sockets and their connection threads, on loopback.
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DatagramSocket.h"
#include "RpcServerHarness.h"
#include "RpcTestClient.h"
#include "ServerSocket.h"
#include "TestRpcProg.h"
#include "TestSupport.h"

namespace {

constexpr uint32_t PROG = 100005;
constexpr uint32_t VERS = 3;

// A dispatcher serving the test program as program 100005.
struct Served {
    RpcServerHarness harness;
    TestRpcProg prog{&harness.Utilities(), VERS, 7};
    Served() { harness.Server().Set(PROG, &prog); }
};

bool NullCall(RpcTestClient& client, uint32_t xid) {
    RpcReply reply;
    return client.Call(xid, PROG, VERS, TestRpcProg::PROC_NULL, {}, reply) && reply.acceptStat == 0;
}

// How often a thread of this process has gone to sleep.
long SleepsOf(int tid) {
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0) return std::stol(line.substr(24));
    return -1;
}

// Makes calls of proc on client, each 8 microseconds after the last reply:
// later than a thread that sleeps at once is asleep, sooner than one that
// looks for its next call stops looking. How often the thread that serves
// them went to sleep meanwhile. The client and the serving thread run on
// processors of their own; the client sends calls built beforehand and waits
// for each reply without sleeping, so that neither its wake-up nor its own
// work moves the timing.
long SleepsServing(Served& s, RpcTestClient& client, uint32_t proc, int calls) {
    RpcReply reply;
    if (!client.Call(1, PROG, VERS, proc, {}, reply) || reply.acceptStat != 0) return -1;
    const size_t replySize = reply.message.size() + 4;
    std::vector<Bytes> messages;
    for (int i = 0; i < calls; ++i) messages.push_back(WithRecordMark(BuildRpcCall((uint32_t)i + 2, PROG, VERS, proc)));
    const int tid = s.prog.LastThread();
    cpu_set_t mine, theirs;
    CPU_ZERO(&mine);
    CPU_ZERO(&theirs);
    CPU_SET(0, &mine);
    CPU_SET(1, &theirs);
    if (sched_setaffinity(0, sizeof mine, &mine) != 0 || sched_setaffinity(tid, sizeof theirs, &theirs) != 0)
        return -1;
    const long before = SleepsOf(tid);
    unsigned char received[256];
    for (const Bytes& message : messages) {
        StayBusy(std::chrono::microseconds(8));
        if (!client.SendRaw(message)) return -1;
        for (size_t got = 0; got < replySize;) {
            ssize_t n = recv(client.Fd(), received, sizeof received, MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) return -1;
            if (n > 0) got += (size_t)n;
            if (got > replySize) return -1;
        }
    }
    return SleepsOf(tid) - before;
}

// A served program with one client connected, for the tests of when a
// connection's thread sleeps; they need a processor each for client and server.
class ConnectionSleeps : public testing::Test {
protected:
    void SetUp() override {
        if (sysconf(_SC_NPROCESSORS_ONLN) < 2) GTEST_SKIP() << "needs two processors";
        endpoint = served.harness.Listen(PROG, 0, 0, 3);
        ASSERT_NE(nullptr, endpoint);
        client.reset(new RpcTestClient(RpcTestClient::TCP, endpoint->tcpPort));
    }
    long Sleeps(uint32_t proc, int calls) { return SleepsServing(served, *client, proc, calls); }

    Served served;
    RpcServerHarness::Endpoint* endpoint = nullptr;
    std::unique_ptr<RpcTestClient> client;
};

}  // namespace

TEST_F(ConnectionSleeps, OnlyConnectionLooksForItsNextCallBeforeSleeping) {
    // A call that follows its reply soon is found while the thread still
    // looks, so most calls cost it no sleep; a thread that slept at once
    // would sleep once per call.
    const int calls = 500;
    const long sleeps = Sleeps(TestRpcProg::PROC_NULL, calls);
    ASSERT_GE(sleeps, 0);
    EXPECT_LT(sleeps, calls / 2);
    // A call that comes long after the last one is still answered.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(NullCall(*client, 1000));
}

TEST_F(ConnectionSleeps, ConnectionsSleepAtOnceWhenOthersAreOpen) {
    RpcTestClient other(RpcTestClient::TCP, endpoint->tcpPort);
    ASSERT_TRUE(NullCall(other, 1));
    const int calls = 300;
    const long sleeps = Sleeps(TestRpcProg::PROC_NULL, calls);
    ASSERT_GE(sleeps, 0);
    EXPECT_GE(sleeps, calls * 3 / 4);
    // Once the other connection is gone, the last one looks again.
    const uint16_t otherPort = other.LocalPort();
    other.Close();
    ASSERT_TRUE(WaitUntil([&] {
        for (int i = 0; i < 3; ++i) {
            CSocket* connection = endpoint->tcp->GetConnection(i);
            if (connection->IsActive() && connection->GetRemotePort() == otherPort) return false;
        }
        return true;
    }));
    const long alone = Sleeps(TestRpcProg::PROC_NULL, calls);
    ASSERT_GE(alone, 0);
    EXPECT_LT(alone, calls / 2);
}

TEST_F(ConnectionSleeps, ConnectionSleepsAtOnceAfterSlowCalls) {
    // After a call that kept it a millisecond the thread sleeps at once; one
    // that looked for the next call would find it.
    const int calls = 100;
    const long sleeps = Sleeps(TestRpcProg::PROC_SLOW, calls);
    ASSERT_GE(sleeps, 0);
    EXPECT_GE(sleeps, calls * 3 / 4);
}

TEST(ServerSocket, FourthConnectionToThreeSlotsAbortsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            Served s;
            RpcServerHarness::Endpoint* e = s.harness.Listen(PROG, 0, 0, 3);
            if (e == nullptr) _exit(3);
            std::vector<std::unique_ptr<RpcTestClient>> clients;
            for (int i = 0; i < 3; ++i) {
                clients.emplace_back(new RpcTestClient(RpcTestClient::TCP, e->tcpPort));
                // A served call proves the connection holds a slot.
                if (!NullCall(*clients.back(), (uint32_t)i + 1)) _exit(4);
            }
            clients.emplace_back(new RpcTestClient(RpcTestClient::TCP, e->tcpPort));
            for (;;) pause();
        },
        testing::KilledBySignal(SIGABRT), "i < m_nMaxNum");
}

TEST(ServerSocket, DisconnectedClientFreesItsSlotForTheNextConnection) {
    Served s;
    RpcServerHarness::Endpoint* e = s.harness.Listen(PROG, 0, 0, 3);
    ASSERT_NE(nullptr, e);
    CServerSocket& listener = *e->tcp;

    std::unique_ptr<RpcTestClient> c[3];
    for (int i = 0; i < 3; ++i) {
        c[i].reset(new RpcTestClient(RpcTestClient::TCP, e->tcpPort));
        ASSERT_TRUE(NullCall(*c[i], (uint32_t)i + 1));
    }
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(listener.GetConnection(i)->IsActive());
        EXPECT_EQ(c[i]->LocalPort(), listener.GetConnection(i)->GetRemotePort());
        EXPECT_EQ("127.0.0.1", listener.GetConnection(i)->GetRemoteAddress());
    }

    const int fds = CountOpenDescriptors();
    const int threads = CountThreads();

    // Slot 1 is freed by the disconnect, and the next client gets it (the
    // lowest free one); were it not freed, the fourth client would abort.
    c[1]->Close();
    ASSERT_TRUE(WaitUntil([&] { return !listener.GetConnection(1)->IsActive(); }));
    EXPECT_TRUE(listener.GetConnection(0)->IsActive());
    EXPECT_TRUE(listener.GetConnection(2)->IsActive());
    // The ended connection keeps its descriptor until the slot is reused.
    EXPECT_EQ(fds - 1, CountOpenDescriptors());

    RpcTestClient next(RpcTestClient::TCP, e->tcpPort);
    ASSERT_TRUE(NullCall(next, 10));
    EXPECT_TRUE(listener.GetConnection(1)->IsActive());
    EXPECT_EQ(next.LocalPort(), listener.GetConnection(1)->GetRemotePort());
    // Reopening the slot closed the old descriptor and joined the old thread.
    EXPECT_EQ(fds, CountOpenDescriptors());
    EXPECT_EQ(threads, CountThreads());
    // The reused slot starts clean and keeps serving.
    ASSERT_TRUE(NullCall(next, 11));
    ASSERT_TRUE(NullCall(*c[0], 12));
    ASSERT_TRUE(NullCall(*c[2], 13));
}

TEST(ServerSocket, BindingAPortInUseFails) {
    Served s;
    RpcServerHarness::Endpoint* e = s.harness.Listen(PROG, 0, 0, 3);
    ASSERT_NE(nullptr, e);
    int fds = CountOpenDescriptors();

    CServerSocket second;
    char err[ERROR_TEXT_SIZE] = "";
    EXPECT_FALSE(second.Open(PROG, e->tcpPort, 3, &s.harness.Utilities(), err));
    EXPECT_STREQ("Fail to bind server socket. Address already in use (98)", err);
    EXPECT_EQ(-1, second.GetSocket());
    EXPECT_EQ(fds, CountOpenDescriptors());

    CDatagramSocket secondUdp;
    err[0] = '\0';
    EXPECT_FALSE(secondUdp.Open(PROG, e->udpPort, &s.harness.Utilities(), err));
    EXPECT_STREQ("Fail to bind datagram socket. Address already in use (98)", err);
    EXPECT_EQ(fds, CountOpenDescriptors());

    // The first listener is unharmed.
    RpcTestClient client(RpcTestClient::TCP, e->tcpPort);
    EXPECT_TRUE(NullCall(client, 1));
}

TEST(ServerSocket, ReopensAtOnceAfterClosingUnderAConnectedClient) {
    Served s;
    CServerSocket listener;
    listener.SetListener(&s.harness.Server());
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(listener.Open(PROG, 0, 3, &s.harness.Utilities(), err)) << err;
    int port = GetBoundPort(listener.GetSocket());
    RpcTestClient client(RpcTestClient::TCP, (uint16_t)port);
    ASSERT_TRUE(NullCall(client, 1));
    listener.Close();  // the server side closes first: its end waits in TIME_WAIT
    ASSERT_TRUE(client.WaitForClose());
    client.Close();

    ASSERT_TRUE(listener.Open(PROG, port, 3, &s.harness.Utilities(), err)) << err;
    RpcTestClient again(RpcTestClient::TCP, (uint16_t)port);
    EXPECT_TRUE(NullCall(again, 2));
    listener.Close();
}

TEST(ServerSocket, OpenReportsThePortAskedFor) {
    Served s;
    CServerSocket listener;
    listener.SetListener(&s.harness.Server());
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(listener.Open(PROG, 0, 2, &s.harness.Utilities(), err)) << err;
    EXPECT_EQ(0, listener.GetPort());
    EXPECT_EQ(2, listener.GetMaxNum());
    EXPECT_NE(-1, listener.GetSocket());
    EXPECT_NE(0, GetBoundPort(listener.GetSocket()));
    for (int i = 0; i < 2; ++i) {
        ASSERT_NE(nullptr, listener.GetConnection(i));
        EXPECT_FALSE(listener.GetConnection(i)->IsActive());
        EXPECT_EQ(CSocket::TYPE_TCP, listener.GetConnection(i)->GetType());
        EXPECT_EQ(PROG, listener.GetConnection(i)->GetProgId());
    }
    EXPECT_EQ(nullptr, listener.GetConnection(2));
    listener.Close();
    EXPECT_EQ(-1, listener.GetSocket());
    EXPECT_EQ(nullptr, listener.GetConnection(0));
}

TEST(DatagramSocket, ReplyGoesToTheSenderOfTheMostRecentDatagram) {
    Served s;
    RpcServerHarness::Endpoint* e = s.harness.Listen(PROG, 0, 0, 3);
    ASSERT_NE(nullptr, e);
    RpcTestClient a(RpcTestClient::UDP, e->udpPort);
    RpcTestClient b(RpcTestClient::UDP, e->udpPort);

    // a sends the start of a call (cut inside its credentials), b the rest:
    // neither datagram holds a whole call, so nobody is answered; b's own
    // call then is, to b, who sent last.
    XdrEncoder args;
    args.PutUint32(1).PutUint32(2).PutUint32(3).PutUint32(4);
    Bytes call = BuildRpcCall(77, PROG, VERS, TestRpcProg::PROC_SUM, args.GetBytes(),
                              RpcAuth::Unix(5, "host", 0, 0));
    ASSERT_TRUE(a.SendRaw(Bytes(call.begin(), call.begin() + 40)));
    ASSERT_TRUE(WaitUntil([&] {
        return s.harness.Log().Has("[RpcServer.SocketReceived] Datagram holds no whole call, dropped");
    })) << s.harness.Log().Dump();
    ASSERT_TRUE(b.SendRaw(Bytes(call.begin() + 40, call.end())));
    ASSERT_TRUE(WaitUntil([&] {
        return s.harness.Log().Has("[RpcServer.SocketReceived] Cannot find valid header!!");
    })) << s.harness.Log().Dump();
    ASSERT_TRUE(b.SendRaw(call));

    RpcReply reply;
    ASSERT_TRUE(b.ReceiveReply(reply));
    EXPECT_EQ(77u, reply.xid);
    EXPECT_EQ(0u, reply.acceptStat);
    EXPECT_EQ(10u, reply.Results().GetUint32());
    EXPECT_EQ(b.LocalPort(), e->udp->GetConnection()->GetRemotePort());
    EXPECT_EQ(CSocket::TYPE_UDP, e->udp->GetConnection()->GetType());

    // And a's own next call goes back to a.
    ASSERT_TRUE(NullCall(a, 78));
    EXPECT_EQ(a.LocalPort(), e->udp->GetConnection()->GetRemotePort());
}

TEST(DatagramSocket, EmptyDatagramDoesNotEndTheService) {
    Served s;
    RpcServerHarness::Endpoint* e = s.harness.Listen(PROG, 0, 0, 3);
    ASSERT_NE(nullptr, e);
    RpcTestClient client(RpcTestClient::UDP, e->udpPort);
    ASSERT_TRUE(client.SendRaw(nullptr, 0));
    ASSERT_TRUE(NullCall(client, 1));
    EXPECT_TRUE(e->udp->GetConnection()->IsActive());
}

TEST(Sockets, CloseOnSocketsNeverOpenedDoesNothing) {
    int fds = CountOpenDescriptors();
    int threads = CountThreads();
    CServerSocket listener;
    listener.Close();
    listener.Close();
    EXPECT_EQ(-1, listener.GetSocket());
    EXPECT_EQ(nullptr, listener.GetConnection(0));
    CDatagramSocket datagram;
    datagram.Close();
    EXPECT_EQ(-1, datagram.GetSocket());
    EXPECT_EQ(nullptr, datagram.GetConnection());
    CSocket connection(CSocket::TYPE_TCP, PROG);
    connection.Close();
    connection.Send();  // no descriptor: nothing happens
    EXPECT_FALSE(connection.IsActive());
    EXPECT_EQ(fds, CountOpenDescriptors());
    EXPECT_EQ(threads, CountThreads());
}

TEST(Sockets, CloseLeavesNoThreadOrDescriptorBehind) {
    int fds = CountOpenDescriptors();
    int threads = CountThreads();
    {
        Served s;
        RpcServerHarness::Endpoint* e = s.harness.Listen(PROG, 0, 0, 3);
        ASSERT_NE(nullptr, e);
        EXPECT_EQ(threads + 2, CountThreads());  // accept thread and UDP receive thread
        RpcTestClient t1(RpcTestClient::TCP, e->tcpPort);
        RpcTestClient t2(RpcTestClient::TCP, e->tcpPort);
        RpcTestClient u(RpcTestClient::UDP, e->udpPort);
        ASSERT_TRUE(NullCall(t1, 1));
        ASSERT_TRUE(NullCall(t2, 2));
        ASSERT_TRUE(NullCall(u, 3));
        EXPECT_EQ(threads + 4, CountThreads());
        // Closed while the clients are still connected: the blocked
        // receives are released and joined.
        s.harness.Close();
        EXPECT_EQ(threads, CountThreads());
        EXPECT_TRUE(t1.WaitForClose());
        EXPECT_TRUE(t2.WaitForClose());
    }
    EXPECT_EQ(fds, CountOpenDescriptors());
    EXPECT_EQ(threads, CountThreads());
}

TEST(Sockets, ReopeningAListenerReplacesItsSlotsAndThreads) {
    int fds = CountOpenDescriptors();
    int threads = CountThreads();
    Served s;
    CServerSocket listener;
    listener.SetListener(&s.harness.Server());
    char err[ERROR_TEXT_SIZE] = "";
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(listener.Open(PROG, 0, 2, &s.harness.Utilities(), err)) << err;
        RpcTestClient client(RpcTestClient::TCP, GetBoundPort(listener.GetSocket()));
        ASSERT_TRUE(NullCall(client, (uint32_t)round + 1));
    }
    listener.Close();
    EXPECT_EQ(fds, CountOpenDescriptors());
    EXPECT_EQ(threads, CountThreads());
}
