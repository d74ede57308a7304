// The internal portmapper program and the registration with a system
// portmapper. Every test runs in a network namespace of its own, where port
// 111 is free (or held by the test's own rpcbind).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <rpc/pmap_clnt.h>
#include <rpc/rpc.h>

#include <string>
#include <tuple>

#include "Portmap.h"
#include "PortmapProg.h"
#include "PrivateNetwork.h"
#include "RpcServerHarness.h"
#include "RpcTestClient.h"
#include "TestSupport.h"

namespace {

constexpr uint32_t PMAP_PROG = 100000;
constexpr uint32_t NFS = 100003;
constexpr uint32_t MOUNT = 100005;
constexpr uint32_t GETPORT = 3;
constexpr uint32_t TCP = 6;
constexpr uint32_t UDP = 17;

Bytes Mapping(uint32_t prog, uint32_t vers, uint32_t proto, uint32_t port = 0) {
    XdrEncoder e;
    e.PutUint32(prog).PutUint32(vers).PutUint32(proto).PutUint32(port);
    return e.GetBytes();
}

// The internal portmapper on port 111, TCP and UDP, knowing NFS on 2049 and
// MOUNT on 1058.
class InternalPortmapper : public testing::Test {
protected:
    void SetUp() override {
        std::string why;
        ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
        prog.reset(new CPortmapProg(&harness.Utilities()));
        prog->Set(NFS, 2049);
        prog->Set(MOUNT, 1058);
        harness.Server().Set(PMAP_PROG, prog.get());
        ASSERT_NE(nullptr, harness.Listen(PMAP_PROG, 111, 111, 3, &why)) << why;
    }
    void TearDown() override { harness.Close(); }

    uint32_t GetPort(RpcTestClient& client, uint32_t xid, uint32_t vers, const Bytes& mapping) {
        RpcReply reply;
        EXPECT_TRUE(client.Call(xid, PMAP_PROG, vers, GETPORT, mapping, reply));
        EXPECT_EQ(0u, reply.acceptStat);
        EXPECT_EQ(4u, reply.results.size());
        return reply.results.size() == 4 ? WordAt(reply.results, 0) : 0xFFFFFFFF;
    }

    RpcServerHarness harness;
    std::unique_ptr<CPortmapProg> prog;
};

}  // namespace

TEST_F(InternalPortmapper, GetPortAnswersForTcpAndUdpAndAnyVersion) {
    uint32_t xid = 1;
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        RpcTestClient client(transport, 111);
        ASSERT_TRUE(client.IsOpen());
        for (uint32_t pmapVers : {2u, 3u, 4u}) {
            for (uint32_t proto : {TCP, UDP}) {
                EXPECT_EQ(2049u, GetPort(client, xid++, pmapVers, Mapping(NFS, 3, proto)));
                EXPECT_EQ(2049u, GetPort(client, xid++, pmapVers, Mapping(NFS, 2, proto, 7)));
                EXPECT_EQ(1058u, GetPort(client, xid++, pmapVers, Mapping(MOUNT, 3, proto)));
                EXPECT_EQ(1058u, GetPort(client, xid++, pmapVers, Mapping(MOUNT, 1, proto)));
            }
        }
    }
}

TEST_F(InternalPortmapper, GetPortForAnUnknownProgramIsZero) {
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        RpcTestClient client(transport, 111);
        EXPECT_EQ(0u, GetPort(client, 1, 2, Mapping(200000, 1, TCP)));
        EXPECT_EQ(0u, GetPort(client, 2, 2, Mapping(100001, 1, UDP)));  // a slot nobody set
        EXPECT_EQ(0u, GetPort(client, 3, 2, Mapping(99999, 1, TCP)));
        EXPECT_EQ(0u, GetPort(client, 4, 2, Mapping(100010, 1, TCP)));
    }
}

TEST_F(InternalPortmapper, NullAndEveryOtherProcedureIsProcUnavail) {
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        RpcTestClient client(transport, 111);
        for (uint32_t proc : {0u, 1u, 2u, 4u, 5u}) {
            RpcReply reply;
            ASSERT_TRUE(client.Call(proc + 10, PMAP_PROG, 2, proc, {}, reply)) << proc;
            EXPECT_EQ(0u, reply.replyStat);
            EXPECT_EQ(3u, reply.acceptStat) << proc;
            EXPECT_TRUE(reply.results.empty());
        }
    }
    EXPECT_EQ(10, harness.Log().Count("[PortmapProg.ProcedureNOIMP]")) << harness.Log().Dump();
}

TEST_F(InternalPortmapper, ProcedureSixIsNeverDispatched) {
    RpcTestClient client(RpcTestClient::TCP, 111);
    ASSERT_TRUE(client.SendCall(1, PMAP_PROG, 2, 6));
    // The first answer is the GETPORT's: procedure 6 got none.
    EXPECT_EQ(2049u, GetPort(client, 2, 2, Mapping(NFS, 3, TCP)));
    EXPECT_EQ(0, harness.Log().Count("[PortmapProg.ProcedureNOIMP]"));
}

TEST_F(InternalPortmapper, LogsGetPortUnderItsBits) {
    RpcTestClient client(RpcTestClient::UDP, 111);
    EXPECT_EQ(2049u, GetPort(client, 1, 2, Mapping(NFS, 3, UDP)));
    EXPECT_TRUE(harness.Log().Has("[PortmapProg.ProcedureGETPORT]")) << harness.Log().Dump();
    EXPECT_TRUE(harness.Log().Has("[PortmapProg.ProcedureGETPORT] lProg = 100003, lPort = 2049"));

    harness.Log().Clear();
    harness.Server().SetLogControl(CRuntimeParam::LOG_ERROR);
    EXPECT_EQ(1058u, GetPort(client, 2, 2, Mapping(MOUNT, 3, UDP)));
    EXPECT_TRUE(harness.Log().Lines().empty()) << harness.Log().Dump();
}

TEST_F(InternalPortmapper, GetPortCutInItsArgumentsIsAnsweredOnceComplete) {
    RpcTestClient client(RpcTestClient::TCP, 111);
    Bytes call = WithRecordMark(BuildRpcCall(5, PMAP_PROG, 2, GETPORT, Mapping(MOUNT, 3, TCP)));
    ASSERT_TRUE(client.SendRaw(Bytes(call.begin(), call.end() - 8)));
    // Nothing of the call runs before its whole record is here.
    ASSERT_TRUE(WaitUntil([&] { return harness.Log().Has("[RpcServer.SocketReceived] Waiting for the rest of the record"); }))
        << harness.Log().Dump();
    EXPECT_EQ(0, harness.Log().CountContaining("Data is truncated")) << harness.Log().Dump();
    ASSERT_TRUE(client.SendRaw(Bytes(call.end() - 8, call.end())));
    RpcReply reply;
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(5u, reply.xid);
    EXPECT_EQ(0u, reply.acceptStat);
    EXPECT_EQ(1058u, WordAt(reply.results, 0));
}

TEST_F(InternalPortmapper, SystemRpcClientGetsThePorts) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &addr.sin_addr);
    // The C library's client asks GETPORT (version 2) directly, over TCP or UDP.
    EXPECT_EQ(2049, pmap_getport(&addr, NFS, 3, IPPROTO_TCP));
    EXPECT_EQ(2049, pmap_getport(&addr, NFS, 3, IPPROTO_UDP));
    EXPECT_EQ(1058, pmap_getport(&addr, MOUNT, 3, IPPROTO_TCP));
    EXPECT_EQ(1058, pmap_getport(&addr, MOUNT, 3, IPPROTO_UDP));
}

TEST(Portmap, ProbeWithPort111FreeFindsNoPortmapperAndKeepsNoSocket) {
    std::string why;
    ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
    LogRecorder log;
    CUtilities utilities;
    utilities.SetCallback(&log);
    CRuntimeParam rp("id", 0x3FF);
    int fds = CountOpenDescriptors();
    CPortmap portmap(&utilities, &rp);
    EXPECT_FALSE(portmap.bIsRunning);
    EXPECT_FALSE(portmap.IsRunning());
    EXPECT_FALSE(portmap.IsRunning(true));
    EXPECT_EQ(fds, CountOpenDescriptors());
    EXPECT_EQ(0, log.CountContaining("already in used"));
    // The probe socket is gone: the port can be had.
    CServerSocket listener;
    char err[ERROR_TEXT_SIZE] = "";
    EXPECT_TRUE(listener.Open(PMAP_PROG, 111, 3, &utilities, err)) << err;
}

TEST(Portmap, ProbeFindsPort111Taken) {
    std::string why;
    ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
    LogRecorder log;
    CUtilities utilities;
    utilities.SetCallback(&log);
    CRuntimeParam rp("id", CRuntimeParam::LOG_PORTMAP);
    CServerSocket holder;
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(holder.Open(PMAP_PROG, 111, 3, &utilities, err)) << err;
    int fds = CountOpenDescriptors();
    CPortmap portmap(&utilities, &rp);
    EXPECT_TRUE(portmap.bIsRunning);
    EXPECT_TRUE(portmap.IsRunning());
    EXPECT_EQ(1, log.Count("[Portmap.IsRunning] Port 111 is already in used")) << log.Dump();
    EXPECT_EQ(fds, CountOpenDescriptors());
    holder.Close();
    EXPECT_TRUE(portmap.IsRunning());       // the answer found at construction
    EXPECT_FALSE(portmap.IsRunning(true));  // a new probe
}

TEST(Portmap, RegisterWithoutAPortmapperFails) {
    std::string why;
    ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
    CUtilities utilities;
    CRuntimeParam rp("id", 0);
    CPortmap portmap(&utilities, &rp);
    ASSERT_FALSE(portmap.IsRunning());
    char err[ERROR_TEXT_SIZE] = "";
    EXPECT_FALSE(portmap.Register(NFS, 3, 5, 2049, err));
    EXPECT_STREQ("Portmapper is not running.", err);
    err[0] = '\0';
    EXPECT_FALSE(portmap.Unregister(NFS, 3, err));
    EXPECT_STREQ("Portmapper is not running.", err);
    EXPECT_FALSE(portmap.Unregister(NFS, 3, nullptr));
}

TEST(Portmap, RegistersAndUnregistersWithTheSystemPortmapper) {
    std::string why;
    ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
    RpcbindProcess rpcbind;
    ASSERT_TRUE(rpcbind.Start(&why)) << why;

    RpcServerHarness harness(CRuntimeParam::LOG_PORTMAP);
    std::string err;
    RpcServerHarness::Endpoint* nfs = harness.Listen(NFS, 2049, 2049, 10, &err);
    ASSERT_NE(nullptr, nfs) << err;
    RpcServerHarness::Endpoint* mount = harness.Listen(MOUNT, 1058, 1058, 3, &err);
    ASSERT_NE(nullptr, mount) << err;

    CPortmap portmap(&harness.Utilities(), &harness.Runtime());
    EXPECT_TRUE(portmap.IsRunning());
    EXPECT_TRUE(harness.Log().Has("[Portmap.IsRunning] Port 111 is already in used"));

    char text[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(portmap.Register(NFS, 3, nfs->tcp.get(), text)) << text;
    ASSERT_TRUE(portmap.Register(MOUNT, 3, mount->tcp.get(), text)) << text;
    for (const char* line : {"[Portmap.RegisterSvc] Creating UDP for 100003 ver=3",
                             "[Portmap.RegisterSvc] Registering UDP for 100003 ver=3",
                             "[Portmap.RegisterSvc] Registered UDP for 100003 ver=3",
                             "[Portmap.RegisterSvc] Creating TCP for 100003 ver=3",
                             "[Portmap.RegisterSvc] Registering TCP for 100003 ver=3",
                             "[Portmap.RegisterSvc] Registered TCP for 100003 ver=3",
                             "[Portmap.RegisterSvc] Registered TCP for 100005 ver=3"}) {
        EXPECT_TRUE(harness.Log().Has(line)) << line << "\n" << harness.Log().Dump();
    }

    PortmapperMappings rows = ListPortmapperRegistrations();
    EXPECT_EQ(1u, rows.count({NFS, 3, "tcp", 2049}));
    EXPECT_EQ(1u, rows.count({NFS, 3, "udp", 2049}));
    EXPECT_EQ(1u, rows.count({MOUNT, 3, "tcp", 1058}));
    EXPECT_EQ(1u, rows.count({MOUNT, 3, "udp", 1058}));

    // A client of the system portmapper finds the ports.
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &addr.sin_addr);
    EXPECT_EQ(2049, pmap_getport(&addr, NFS, 3, IPPROTO_UDP));
    EXPECT_EQ(1058, pmap_getport(&addr, MOUNT, 3, IPPROTO_TCP));
    // The listeners still serve their own programs.
    RpcTestClient client(RpcTestClient::TCP, 2049);
    ASSERT_TRUE(client.SendCall(1, NFS, 3, 0));
    RpcReply reply;
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(1u, reply.acceptStat);  // no program in the harness: PROG_UNAVAIL

    // Registering again replaces the old mapping.
    ASSERT_TRUE(portmap.Register(NFS, 3, nfs->tcp.get(), text)) << text;
    EXPECT_EQ(1u, ListPortmapperRegistrations().count({NFS, 3, "tcp", 2049}));

    EXPECT_TRUE(portmap.Unregister(NFS, 3, text));
    EXPECT_TRUE(portmap.Unregister(MOUNT, 3, text));
    EXPECT_TRUE(harness.Log().Has("[Portmap.Unregister] Unregistered the program 100003 ver=3"));
    EXPECT_TRUE(harness.Log().Has("[Portmap.Unregister] Unregistered the program 100005 ver=3"));
    rows = ListPortmapperRegistrations();
    for (const auto& row : rows) {
        EXPECT_NE(NFS, std::get<0>(row));
        EXPECT_NE(MOUNT, std::get<0>(row));
    }
    EXPECT_EQ(1u, rows.count({PMAP_PROG, 2, "tcp", 111}));  // rpcbind itself still answers
}

TEST(Portmap, RegisterReportsASocketThatCannotBeBound) {
    std::string why;
    ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
    RpcbindProcess rpcbind;
    ASSERT_TRUE(rpcbind.Start(&why)) << why;
    RpcServerHarness harness;
    RpcServerHarness::Endpoint* nfs = harness.Listen(NFS, 2049, 2049, 10, &why);
    ASSERT_NE(nullptr, nfs) << why;
    CPortmap portmap(&harness.Utilities(), &harness.Runtime());
    ASSERT_TRUE(portmap.IsRunning());
    char text[ERROR_TEXT_SIZE] = "";
    int fds = CountOpenDescriptors();
    // No descriptor given: one is made for the port, which the listener holds.
    EXPECT_FALSE(portmap.Register(NFS, 3, 0, 2049, text));
    EXPECT_STREQ("Fail to opening register socket for port 2049. Reason=Error binding socket with port 2049", text);
    EXPECT_EQ(fds, CountOpenDescriptors());
}
