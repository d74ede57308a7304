// The server controller: status bits and flags, the lifecycle texts, the
// RPC stack that StartServer builds on the fixed ports (with the internal
// portmapper or beside a real rpcbind), its failures, and the forwarding
// operations. Tests that start the server run in a network namespace of
// their own, where the fixed ports are free.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "FileLogger.h"
#include "LogRecorder.h"
#include "NfsMain.h"
#include "PrivateNetwork.h"
#include "RpcTestClient.h"
#include "TestSupport.h"
#include "Utilities.h"
#include "VSphereToolStandIn.h"

namespace {

constexpr uint32_t PMAP = 100000;
constexpr uint32_t NFS = 100003;
constexpr uint32_t MOUNT = 100005;
constexpr uint32_t GETPORT = 3;
constexpr uint32_t MNT = 1;
constexpr uint32_t UMNT = 3;
constexpr uint32_t ACCEPT_SUCCESS = 0;
constexpr uint32_t ACCEPT_PROG_UNAVAIL = 1;

const auto TCP = RpcTestClient::TCP;
const auto UDP = RpcTestClient::UDP;

// A socket bound to port on all addresses (TCP ones also listen), closed
// with the object: it makes a port busy.
class PortHolder {
public:
    PortHolder(int type, uint16_t port, bool listening = true) {
        m_fd = socket(AF_INET, type, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_ANY);
        m_ok = m_fd != -1 && bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
               (type != SOCK_STREAM || !listening || listen(m_fd, 1) == 0);
    }
    ~PortHolder() {
        if (m_fd != -1) close(m_fd);
    }
    PortHolder(const PortHolder&) = delete;
    PortHolder& operator=(const PortHolder&) = delete;
    bool Ok() const { return m_ok; }

private:
    int m_fd = -1;
    bool m_ok = false;
};

// Whether some socket holds port: a TCP listener (connections left in
// TIME_WAIT do not count) or a bound UDP socket.
bool PortHeld(int type, uint16_t port) {
    int fd = socket(AF_INET, type, 0);
    if (fd == -1) return false;
    int on = 1;
    if (type == SOCK_STREAM) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    bool held = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == -1;
    close(fd);
    return held;
}

bool PortHeldByTcpAndUdp(uint16_t port) { return PortHeld(SOCK_STREAM, port) && PortHeld(SOCK_DGRAM, port); }
bool PortFreeForTcpAndUdp(uint16_t port) { return !PortHeld(SOCK_STREAM, port) && !PortHeld(SOCK_DGRAM, port); }

Bytes PathArgs(const std::string& path) {
    XdrEncoder e;
    e.PutString(path);
    return e.GetBytes();
}

// The port that the portmapper on port 111 gives for prog.
uint32_t GetPort(RpcTestClient::Transport t, uint32_t prog, uint32_t proto) {
    RpcTestClient client(t, 111);
    XdrEncoder mapping;
    mapping.PutUint32(prog).PutUint32(3).PutUint32(proto).PutUint32(0);
    RpcReply reply;
    if (!client.Call(7, PMAP, 2, GETPORT, mapping.GetBytes(), reply) || reply.results.size() != 4) return 0xFFFFFFFF;
    return WordAt(reply.results, 0);
}

// One call to port; false when no reply came.
bool CallOnce(RpcTestClient::Transport t, uint16_t port, uint32_t prog, uint32_t vers, uint32_t proc,
              const Bytes& args, RpcReply& reply) {
    RpcTestClient client(t, port);
    return client.IsOpen() && client.Call(11, prog, vers, proc, args, reply);
}

// The MOUNT program answers NULL on port, over TCP and UDP.
void ExpectMountServed(uint16_t port) {
    for (auto t : {TCP, UDP}) {
        RpcReply reply;
        ASSERT_TRUE(CallOnce(t, port, MOUNT, 3, 0, {}, reply)) << port;
        EXPECT_EQ(ACCEPT_SUCCESS, reply.acceptStat);
        EXPECT_TRUE(reply.results.empty());
    }
}

// The NFS program is registered on port, over TCP and UDP: its NULL call is
// accepted and routed to it (whatever the program answers).
void ExpectNfsServed(uint16_t port) {
    for (auto t : {TCP, UDP}) {
        RpcReply reply;
        ASSERT_TRUE(CallOnce(t, port, NFS, 3, 0, {}, reply)) << port;
        EXPECT_EQ(0u, reply.replyStat);
        EXPECT_NE(ACCEPT_PROG_UNAVAIL, reply.acceptStat);
    }
}

// A controller with its log lines recorded.
class Controller : public testing::Test {
protected:
    void MakeController(const char* id = "inst", int logControl = 0x3FF) {
        main.reset(new CNfsMain(id, logControl));
        main->SetCallback(&log);
    }
    void SetUp() override { MakeController(); }
    void TearDown() override {
        if (main) main->SetCallback(nullptr);
    }

    LogRecorder log;
    std::unique_ptr<CNfsMain> main;
    char err[ERROR_TEXT_SIZE] = "";
};

// The same in a private network namespace.
class Server : public Controller {
protected:
    void SetUp() override {
        std::string why;
        ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
        Controller::SetUp();
    }
};

}  // namespace

// ---- status, flags, lifecycle texts -----------------------------------------

TEST_F(Controller, NewControllerIsStoppedWithStatus1) {
    EXPECT_EQ(1, main->GetServerStatus());
    EXPECT_FALSE(main->IsServerRunning());
    EXPECT_FALSE(main->IsAutoShutdownEnabled());
    EXPECT_FALSE(main->IsAutoShutdownRequested());
    EXPECT_EQ(0, main->GetAccessMode());
    EXPECT_STREQ("inst", main->GetRuntimeParam()->GetID());
    EXPECT_EQ(0x3FF, main->GetRuntimeParam()->GetLogControl());
    EXPECT_NE(nullptr, main->GetUtils());
    EXPECT_EQ(&log, main->GetCallback());
    EXPECT_EQ(&log, main->GetUtils()->GetCallback());
}

TEST_F(Server, StatusIs3WhileRunningAnd7WithDebugActions) {
    EXPECT_TRUE(main->SetDebugActionEnabled(true));
    EXPECT_EQ(5, main->GetServerStatus());
    ASSERT_TRUE(main->StartServer(0, 0, 0, 0, false, err)) << err;
    EXPECT_EQ(7, main->GetServerStatus());
    EXPECT_TRUE(main->SetDebugActionEnabled(false));
    EXPECT_EQ(3, main->GetServerStatus());
    EXPECT_TRUE(main->IsServerRunning());
    main->StopServer();
    EXPECT_EQ(1, main->GetServerStatus());
    EXPECT_FALSE(main->IsServerRunning());
}

TEST_F(Controller, RequestAutoShutdownIsRefusedWhileDisabled) {
    EXPECT_FALSE(main->RequestAutoShutdown());
    EXPECT_FALSE(main->IsAutoShutdownRequested());
    EXPECT_FALSE(main->IsAutoShutdownEnabled());

    main->EnableAutoShutdown(true);
    EXPECT_TRUE(main->IsAutoShutdownEnabled());
    EXPECT_FALSE(main->IsAutoShutdownRequested());
    EXPECT_TRUE(main->RequestAutoShutdown());
    EXPECT_TRUE(main->IsAutoShutdownRequested());

    // Disabling later does not take back a request already made.
    main->EnableAutoShutdown(false);
    EXPECT_FALSE(main->RequestAutoShutdown());
    EXPECT_TRUE(main->IsAutoShutdownRequested());
}

TEST_F(Controller, InitialNeedsAnId) {
    MakeController("");
    EXPECT_FALSE(main->Initial(err));
    EXPECT_STREQ("ID is not defined", err);
    MakeController(nullptr);
    err[0] = '\0';
    EXPECT_FALSE(main->Initial(err));
    EXPECT_STREQ("ID is not defined", err);
    EXPECT_FALSE(main->Initial(nullptr));

    MakeController("server");  // only the external placements refuse this one
    err[0] = '\0';
    EXPECT_TRUE(main->Initial(err));
    EXPECT_STREQ("", err);
    main->Terminate();
}

TEST_F(Controller, VersionAndDescription) {
    char text[CNfsMain::INFO_TEXT_SIZE];
    main->GetVersion(text);
    EXPECT_STREQ("1.4", text);
    main->GetDescription(text);
    EXPECT_STREQ("Internal NFS Server", text);
}

TEST_F(Controller, RemoteControllerIsNotSupportedInTheInternalServer) {
    EXPECT_TRUE(main->StartRemoteController(err));
    main->StopRemoteController();
    std::vector<std::string> expected = {
        "[NfsMain.StartRemoteController] No remote controller to start. It is NOT support in internal server mode.",
        "[NfsMain.StopRemoteController] No remote controller to stop. It is NOT support in internal server mode.",
    };
    EXPECT_EQ(expected, log.Texts("info")) << log.Dump();
    EXPECT_EQ(2u, log.Lines().size());

    log.Clear();
    main->SetLogControl(CRuntimeParam::LOG_ERROR);
    EXPECT_TRUE(main->StartRemoteController(err));
    main->StopRemoteController();
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(Server, LifecycleLinesGoToAnAttachedFileLoggerWhateverTheLogControl) {
    TempDir dir;
    std::string path = dir / "engine.log";
    CFileLogger logger(path.c_str());
    ASSERT_TRUE(logger.Open(1));
    MakeController("inst", 0);  // no log kind at all
    main->SetCallback(nullptr);
    main->SetFileLogger(&logger);
    EXPECT_EQ(&logger, main->GetUtils()->GetFileLogger());

    ASSERT_TRUE(main->Initial(err)) << err;
    ASSERT_TRUE(main->StartRemoteController(err)) << err;
    ASSERT_TRUE(main->StartServer(0, 0, 0, 0, false, err)) << err;
    main->StopServer();
    main->StopServer();  // not running: no second "Stop NFS"
    main->StopRemoteController();
    main->Terminate();
    main->SetFileLogger(nullptr);
    logger.Close();

    std::vector<std::string> lines = SplitLines(ReadWholeFile(path));
    std::vector<std::string> expected = {"Initial NFS",
                                         "Start Remote Controller",
                                         "Start NFS with internal portmapper: MountPort = 1058, NfsPort = 2049",
                                         "Stop NFS",
                                         "Stop Remote Controller",
                                         "Terminate NFS"};
    std::vector<std::string> messages;
    for (const std::string& line : lines) {
        size_t at = line.find("[info] ");
        if (at != std::string::npos) messages.push_back(line.substr(at + 7));
    }
    EXPECT_EQ(expected, messages) << ReadWholeFile(path);
}

// ---- the RPC stack on the fixed ports -------------------------------------------

TEST_F(Server, WithoutASystemPortmapperListensOn111And2049And1058) {
    ASSERT_TRUE(main->StartServer(0, 0, 0, 0, false, err)) << err;
    for (uint16_t port : {111, 2049, 1058}) EXPECT_TRUE(PortHeldByTcpAndUdp(port)) << port;
    EXPECT_TRUE(PortFreeForTcpAndUdp(2050));
    EXPECT_TRUE(PortFreeForTcpAndUdp(1059));

    // The internal portmapper knows both programs, for either protocol.
    for (auto t : {TCP, UDP}) {
        EXPECT_EQ(2049u, GetPort(t, NFS, 6));
        EXPECT_EQ(2049u, GetPort(t, NFS, 17));
        EXPECT_EQ(1058u, GetPort(t, MOUNT, 6));
        EXPECT_EQ(1058u, GetPort(t, MOUNT, 17));
    }
    ExpectMountServed(1058);
    ExpectNfsServed(2049);

    main->StopServer();
    for (uint16_t port : {111, 2049, 1058}) EXPECT_TRUE(PortFreeForTcpAndUdp(port)) << port;
}

TEST_F(Server, BesideASystemPortmapperListensOn2050And1059AndRegistersBoth) {
    RpcbindProcess rpcbind;
    std::string why;
    ASSERT_TRUE(rpcbind.Start(&why)) << why;

    ASSERT_TRUE(main->StartServer(0, 0, 0, 0, false, err)) << err;
    EXPECT_TRUE(PortHeldByTcpAndUdp(2050));
    EXPECT_TRUE(PortHeldByTcpAndUdp(1059));
    EXPECT_TRUE(PortFreeForTcpAndUdp(2049));
    EXPECT_TRUE(PortFreeForTcpAndUdp(1058));

    PortmapperMappings rows = ListPortmapperRegistrations();
    EXPECT_EQ(1u, rows.count(std::make_tuple(NFS, 3ul, std::string("tcp"), 2050ul)));
    EXPECT_EQ(1u, rows.count(std::make_tuple(NFS, 3ul, std::string("udp"), 2050ul)));
    EXPECT_EQ(1u, rows.count(std::make_tuple(MOUNT, 3ul, std::string("tcp"), 1059ul)));
    EXPECT_EQ(1u, rows.count(std::make_tuple(MOUNT, 3ul, std::string("udp"), 1059ul)));
    // rpcbind answers the queries on 111, not the engine.
    EXPECT_EQ(2050u, GetPort(UDP, NFS, 17));
    EXPECT_EQ(1059u, GetPort(TCP, MOUNT, 6));
    ExpectMountServed(1059);
    ExpectNfsServed(2050);

    main->StopServer();
    rows = ListPortmapperRegistrations();
    for (const auto& row : rows) {
        EXPECT_NE(NFS, std::get<0>(row));
        EXPECT_NE(MOUNT, std::get<0>(row));
    }
    EXPECT_FALSE(rows.empty());  // rpcbind's own rows stay
    EXPECT_TRUE(PortFreeForTcpAndUdp(2050));
    EXPECT_TRUE(PortFreeForTcpAndUdp(1059));
}

TEST_F(Server, GivenPortsAreUsedAsTheyAre) {
    ASSERT_TRUE(main->StartServer(4058, 3049, 0, 0, false, err)) << err;
    EXPECT_EQ(3049u, GetPort(TCP, NFS, 6));
    EXPECT_EQ(4058u, GetPort(UDP, MOUNT, 17));
    ExpectMountServed(4058);
    ExpectNfsServed(3049);
    EXPECT_TRUE(PortFreeForTcpAndUdp(2049));
    EXPECT_TRUE(PortFreeForTcpAndUdp(1058));
}

TEST_F(Server, MntOfTheBareExportNameGivesTheRootHandle) {
    ASSERT_TRUE(main->StartServer(0, 0, 0, 0, false, err)) << err;
    TempDir exported;
    ASSERT_TRUE(main->AddMountPoint(exported.Path().c_str(), "demo", err)) << err;

    RpcReply reply;
    ASSERT_TRUE(CallOnce(TCP, 1058, MOUNT, 3, MNT, PathArgs("demo"), reply));
    ASSERT_EQ(68u, reply.results.size());
    EXPECT_EQ(0u, WordAt(reply.results, 0));
    EXPECT_EQ(56u, WordAt(reply.results, 4));
    unsigned int id = main->GetUtils()->GetFileID(main->GetRuntimeParam(), nullptr, exported.Path().c_str());
    unsigned int handleId;
    memcpy(&handleId, reply.results.data() + 8, sizeof handleId);
    EXPECT_EQ(id, handleId);
    EXPECT_EQ(1, main->GetMountInfo(true, false));

    // A path with a leading slash is not the export's name.
    ASSERT_TRUE(CallOnce(UDP, 1058, MOUNT, 3, UMNT, PathArgs("demo"), reply));
    ASSERT_TRUE(CallOnce(UDP, 1058, MOUNT, 3, MNT, PathArgs("/demo"), reply));
    ASSERT_EQ(4u, reply.results.size());
    EXPECT_EQ(13u, WordAt(reply.results, 0));
    EXPECT_EQ(0, main->GetMountInfo(true, false));
}

TEST_F(Server, SetLogControlReachesTheDispatcherAndThePrograms) {
    MakeController("inst", 0);
    ASSERT_TRUE(main->StartServer(0, 0, 0, 0, false, err)) << err;
    ExpectMountServed(1058);
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();

    main->SetLogControl(CRuntimeParam::LOG_PROC_FUNC_NAME);
    EXPECT_EQ(CRuntimeParam::LOG_PROC_FUNC_NAME, main->GetRuntimeParam()->GetLogControl());
    ExpectMountServed(1058);
    EXPECT_EQ(2, log.Count("[MountProg.ProcedureNULL]")) << log.Dump();
}

// ---- failures ----------------------------------------------------------------

TEST_F(Server, BusyNfsPortFailsTheStartAndLeavesNothingBehind) {
    PortHolder holder(SOCK_STREAM, 2049);
    ASSERT_TRUE(holder.Ok());
    const int fds = CountOpenDescriptors();
    const int threads = CountThreads();

    EXPECT_FALSE(main->StartServer(0, 0, 0, 0, false, err));
    EXPECT_STREQ("NFS daemon failed to open port 2049", err);
    EXPECT_EQ(fds, CountOpenDescriptors());
    EXPECT_EQ(threads, CountThreads());
    EXPECT_EQ(1, main->GetServerStatus());
    std::vector<std::string> errors = log.Texts("error");
    ASSERT_EQ(1u, errors.size()) << log.Dump();
    EXPECT_EQ("[NfsMain.StartServer] Fail to start NFS daemon. Reason=Fail to bind server socket. " +
                  std::string(strerror(EADDRINUSE)) + " (98)",
              errors[0]);
    // The portmapper opened before the failure is closed again.
    EXPECT_TRUE(PortFreeForTcpAndUdp(111));
    EXPECT_TRUE(PortFreeForTcpAndUdp(1058));
}

TEST_F(Server, BusyNfsUdpPortAloneAlsoFailsTheStart) {
    PortHolder holder(SOCK_DGRAM, 2049);
    ASSERT_TRUE(holder.Ok());
    const int fds = CountOpenDescriptors();
    const int threads = CountThreads();
    EXPECT_FALSE(main->StartServer(0, 0, 0, 0, false, err));
    EXPECT_STREQ("NFS daemon failed to open port 2049", err);
    EXPECT_EQ(fds, CountOpenDescriptors());
    EXPECT_EQ(threads, CountThreads());
    EXPECT_EQ(1, log.CountContaining("[NfsMain.StartServer] Fail to start NFS daemon. Reason=Fail to bind datagram socket. "))
        << log.Dump();
    EXPECT_FALSE(PortHeld(SOCK_STREAM, 2049));
}

TEST_F(Server, BusyMountPortFailsTheStart) {
    PortHolder holder(SOCK_STREAM, 4444);
    ASSERT_TRUE(holder.Ok());
    const int fds = CountOpenDescriptors();
    const int threads = CountThreads();
    EXPECT_FALSE(main->StartServer(4444, 0, 0, 0, false, err));
    EXPECT_STREQ("Mount daemon failed to open port 4444", err);
    EXPECT_EQ(fds, CountOpenDescriptors());
    EXPECT_EQ(threads, CountThreads());
    EXPECT_EQ(1, log.CountContaining("[NfsMain.StartServer] Fail to start Mount daemon. Reason=Fail to bind server socket. "))
        << log.Dump();
    EXPECT_TRUE(PortFreeForTcpAndUdp(2049));
}

TEST_F(Server, BusyPortmapperUdpPortFailsTheStart) {
    // A UDP socket on 111 is no system portmapper (the probe is TCP), but
    // the internal one cannot have the port.
    PortHolder holder(SOCK_DGRAM, 111);
    ASSERT_TRUE(holder.Ok());
    const int fds = CountOpenDescriptors();
    EXPECT_FALSE(main->StartServer(0, 0, 0, 0, false, err));
    EXPECT_STREQ("PortMap daemon failed to open port 111", err);
    EXPECT_EQ(fds, CountOpenDescriptors());
    EXPECT_EQ(1, log.CountContaining("Fail to start PortMap daemon. Reason=Fail to bind datagram socket. ")) << log.Dump();
    EXPECT_EQ(0, log.CountContaining("[NfsMain.StartServer] Fail to start PortMap daemon"));
    EXPECT_FALSE(PortHeld(SOCK_STREAM, 111));
    EXPECT_FALSE(PortHeld(SOCK_STREAM, 2049));
}

TEST_F(Server, FailureLinesNamePortsForTheFileLoggerAndFollowTheErrorBit) {
    TempDir dir;
    std::string path = dir / "engine.log";
    CFileLogger logger(path.c_str());
    ASSERT_TRUE(logger.Open(1));
    MakeController("inst", 0);
    main->SetCallback(nullptr);
    main->SetFileLogger(&logger);
    PortHolder holder(SOCK_STREAM, 2049);
    ASSERT_TRUE(holder.Ok());
    EXPECT_FALSE(main->StartServer(0, 0, 0, 0, false, err));
    EXPECT_STREQ("NFS daemon failed to open port 2049", err);
    main->SetFileLogger(nullptr);
    std::string text = ReadWholeFile(path);
    EXPECT_NE(std::string::npos, text.find("[error] Fail to start NFS daemon on port 2049. Reason=Fail to bind server "
                                           "socket. "))
        << text;
    // Error logging is off: the line without the port is not written.
    EXPECT_EQ(std::string::npos, text.find("Fail to start NFS daemon. Reason")) << text;
    EXPECT_EQ(std::string::npos, text.find("Stop NFS")) << text;  // it never ran
}

TEST_F(Server, FailedRegistrationWithTheSystemPortmapperFailsTheStart) {
    // Something holds TCP port 111 without serving it, and there is no
    // portmapper socket under /run: the probe sees a system portmapper, and
    // registering with it fails.
    ASSERT_EQ(0, mount("tmpfs", "/run", "tmpfs", 0, "mode=0755"));
    PortHolder holder(SOCK_STREAM, 111, false);
    ASSERT_TRUE(holder.Ok());
    TempDir dir;
    std::string path = dir / "engine.log";
    CFileLogger logger(path.c_str());
    ASSERT_TRUE(logger.Open(1));
    main->SetFileLogger(&logger);
    main->SetCallback(nullptr);
    const int fds = CountOpenDescriptors();
    const int threads = CountThreads();

    EXPECT_FALSE(main->StartServer(0, 0, 0, 0, false, err));
    EXPECT_EQ(0, strncmp(err, "Fail to register NFS daemon to external portmapper. Reason=", 59)) << err;
    EXPECT_EQ(fds, CountOpenDescriptors());
    EXPECT_EQ(threads, CountThreads());
    EXPECT_FALSE(main->IsServerRunning());
    main->SetFileLogger(nullptr);
    std::string text = ReadWholeFile(path);
    EXPECT_NE(std::string::npos,
              text.find("Start NFS with external portmapper: MountPort = 1059, NfsPort = 2050"))
        << text;
    // Both registrations are tried.
    EXPECT_NE(std::string::npos, text.find("[error] Fail to register NFS daemon to external portmapper. Reason=Fail to "
                                           "register socket for port 2050. Reason="))
        << text;
    EXPECT_NE(std::string::npos, text.find("[error] Fail to register Mount daemon to external portmapper. Reason=Fail "
                                           "to register socket for port 1059. Reason="))
        << text;
    EXPECT_TRUE(PortFreeForTcpAndUdp(2050));
    EXPECT_TRUE(PortFreeForTcpAndUdp(1059));
}

// ---- start, stop, start again ------------------------------------------------

TEST_F(Server, StartStopAndStartAgainInOneProcess) {
    const int fds = CountOpenDescriptors();
    const int threads = CountThreads();
    TempDir exported;
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(main->StartServer(0, 0, 0, 0, false, err)) << round << ": " << err;
        ASSERT_TRUE(main->AddMountPoint(exported.Path().c_str(), "demo", err)) << err;
        RpcReply reply;
        ASSERT_TRUE(CallOnce(TCP, 1058, MOUNT, 3, MNT, PathArgs("demo"), reply));
        EXPECT_EQ(68u, reply.results.size()) << round;
        ExpectNfsServed(2049);
        EXPECT_EQ(2049u, GetPort(UDP, NFS, 17));
        main->StopServer();
        EXPECT_EQ(fds, CountOpenDescriptors()) << round;
        EXPECT_EQ(threads, CountThreads()) << round;
    }
}

TEST_F(Server, StartStopAndStartAgainBesideASystemPortmapper) {
    RpcbindProcess rpcbind;
    std::string why;
    ASSERT_TRUE(rpcbind.Start(&why)) << why;
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(main->StartServer(0, 0, 0, 0, false, err)) << round << ": " << err;
        EXPECT_EQ(1u, ListPortmapperRegistrations().count(std::make_tuple(MOUNT, 3ul, std::string("udp"), 1059ul)));
        ExpectMountServed(1059);
        main->StopServer();
        EXPECT_EQ(0u, ListPortmapperRegistrations().count(std::make_tuple(MOUNT, 3ul, std::string("udp"), 1059ul)));
    }
}

TEST_F(Server, StartingAgainWithoutAStopReplacesTheRunningServer) {
    ASSERT_TRUE(main->StartServer(0, 0, 0, 0, false, err)) << err;
    ASSERT_TRUE(main->StartServer(4058, 3049, 0, 0, false, err)) << err;
    EXPECT_TRUE(PortFreeForTcpAndUdp(1058));
    EXPECT_TRUE(PortFreeForTcpAndUdp(2049));
    ExpectMountServed(4058);
    EXPECT_EQ(3049u, GetPort(TCP, NFS, 6));
}

TEST_F(Server, DestroyingARunningControllerClosesEverything) {
    const int fds = CountOpenDescriptors();
    const int threads = CountThreads();
    MakeController("other", 0);
    ASSERT_TRUE(main->StartServer(0, 0, 0, 0, false, err)) << err;
    ExpectMountServed(1058);
    main.reset();
    EXPECT_EQ(fds, CountOpenDescriptors());
    EXPECT_EQ(threads, CountThreads());
    for (uint16_t port : {111, 2049, 1058}) EXPECT_TRUE(PortFreeForTcpAndUdp(port)) << port;
}

TEST_F(Server, StopServerEmptiesTheFileServiceAndCleansUpVSphereRecords) {
    std::string tool = InstallToolBesideExecutable();
    TempDir dir;
    std::string runs = dir / "runs.log";
    setenv("DSUNMOUNTER_RUNS", runs.c_str(), 1);
    ASSERT_TRUE(main->StartServer(0, 0, 0, 0, false, err)) << err;
    ASSERT_TRUE(main->AddMountPoint(dir.Path().c_str(), "demo", err)) << err;
    main->AddSessionInfo("s1", dir.Path().c_str());
    main->AddVSphereInfo("datastore-5", "esx", "443", "root", "pw");
    main->StopServer();
    EXPECT_EQ(0, main->GetMountInfo(false, false));
    EXPECT_EQ(0, main->GetSessionInfo(false));
    EXPECT_EQ(0, main->GetVSphereInfo(false));
    EXPECT_EQ(std::vector<std::string>{tool + " [-host] [esx] [-port] [443] [-user] [root] [-pwd] [pw] [-method] "
                                              "[removeDatastore] [-argu] [datastore-5]"},
              SplitLines(ReadWholeFile(runs)));
}

// ---- forwarding to the file service ---------------------------------------------

TEST_F(Controller, ExportsAreForwardedWithTheControllersName) {
    TempDir a, b;
    ASSERT_TRUE(main->AddMountPoint(a.Path().c_str(), "a", err)) << err;
    EXPECT_FALSE(main->AddMountPoint(b.Path().c_str(), "a", err));
    EXPECT_STREQ("Export name \"a\" already defined", err);
    EXPECT_FALSE(main->AddMountPoint(b.Path().c_str(), "b/c", err));
    EXPECT_STREQ("Invalid char \"/\" inside export name", err);
    ASSERT_TRUE(main->AddMountPoint(b.Path().c_str(), "b", "ipc-7", err)) << err;
    EXPECT_TRUE(log.Has("[NfsMain.AddMountPoint] Get canonical path successfully: " + a.Path())) << log.Dump();

    log.Clear();
    EXPECT_EQ(2, main->GetMountInfo(false, true));
    std::vector<std::string> expected = {" Mount 1 - " + a.Path() + " : a () []",
                                         " Mount 2 - " + b.Path() + " : b () [ipc-7]"};
    EXPECT_EQ(expected, log.Texts("raw"));

    main->RemoveMountPoint(a.Path().c_str());
    EXPECT_TRUE(log.Has("[NfsMain.RemoveMountPoint] Get canonical path successfully: " + a.Path())) << log.Dump();
    CRuntimeParam quiet("q", 0);
    EXPECT_EQ(1, main->GetMountInfo(&quiet, false, false));
    EXPECT_EQ(0, main->GetMountInfo(&quiet, true, false));
}

TEST_F(Controller, SessionsAreForwarded) {
    EXPECT_FALSE(main->IsSessionExists("s1"));
    main->AddSessionInfo("s1", "/x");
    main->AddSessionInfo("s2", "/y");
    EXPECT_TRUE(main->IsSessionExists("s1"));
    EXPECT_TRUE(main->IsLocalSessionExists("s2"));
    EXPECT_EQ(2, main->GetSessionInfo(false));
    main->RemoveSessionInfo("s1");
    EXPECT_FALSE(main->IsSessionExists("s1"));
    EXPECT_FALSE(main->IsLocalSessionExists("s1"));
    log.Clear();
    EXPECT_EQ(1, main->GetSessionInfo(true));
    EXPECT_EQ(std::vector<std::string>{" Session 1 - s2 : /y"}, log.Texts("raw"));
}

TEST_F(Controller, CachedDescriptorsAreClosedThroughTheController) {
    TempDir dir;
    WriteWholeFile(dir / "f1", "1");
    WriteWholeFile(dir / "f2", "2");
    const int fds = CountOpenDescriptors();
    CRuntimeParam* rp = main->GetRuntimeParam();
    ASSERT_NE(-1, main->GetUtils()->GetCachedFileHandle(rp, nullptr, (dir / "f1").c_str(), false));
    ASSERT_NE(-1, main->GetUtils()->GetCachedFileHandle(rp, nullptr, (dir / "f2").c_str(), false));
    EXPECT_EQ(fds + 2, CountOpenDescriptors());
    main->CloseCachedFileHandle((dir / "f1").c_str());
    EXPECT_EQ(fds + 1, CountOpenDescriptors());
    EXPECT_TRUE(log.CountContaining("[NfsMain.CloseCachedFileHandle]") > 0) << log.Dump();
    main->CloseAllCachedFileHandles(dir.Path().c_str());
    EXPECT_EQ(fds, CountOpenDescriptors());
    EXPECT_TRUE(log.CountContaining("[NfsMain.CloseAllCachedFileHandles]") > 0) << log.Dump();
}

TEST_F(Controller, RedirectedFilesAreForwarded) {
    TempDir dir;
    ASSERT_TRUE(main->AddMountPoint(dir.Path().c_str(), "store", err)) << err;
    std::string source = dir / "source.bin";
    WriteWholeFile(source, "0123456789abcdef");
    std::string disk = dir / "disk.vmdk";
    WriteWholeFile(disk, "");  // the info file lives in the virtual file's own place
    CUtilities* u = main->GetUtils();

    main->OpenRedirectedFile(disk.c_str(), 32, true, 1, 16);
    ASSERT_NE(nullptr, u->GetRedirectedFile(disk.c_str()));
    EXPECT_EQ(32, u->GetRedirectedFile(disk.c_str())->GetFileSize());
    ASSERT_TRUE(main->AddRedirectedFileSegment(disk.c_str(), source.c_str(), 4, 8, 6, err)) << err;
    char unknown[ERROR_TEXT_SIZE] = "untouched";
    EXPECT_FALSE(main->AddRedirectedFileSegment((dir / "other").c_str(), source.c_str(), 0, 0, 1, unknown));
    EXPECT_STREQ("untouched", unknown);

    std::string exported = dir / "exported.bin";
    WriteWholeFile(exported, "");  // exports write into existing files
    main->ExportRedirectedFile(disk.c_str(), exported.c_str());
    EXPECT_EQ(std::string(8, '\0') + "456789" + std::string(18, '\0'), ReadWholeFile(exported));
    std::string listing = dir / "listing.txt";
    WriteWholeFile(listing, "");
    main->ExportRedirectedFileInfo(disk.c_str(), listing.c_str(), false);
    EXPECT_NE(std::string::npos, ReadWholeFile(listing).find(source)) << ReadWholeFile(listing);

    main->CloseRedirectedFile(disk.c_str());
    EXPECT_EQ(nullptr, u->GetRedirectedFile(disk.c_str()));
    main->OpenRedirectedFile((dir / "a/one").c_str(), 1, false, 1, 16);
    main->OpenRedirectedFile((dir / "a/two").c_str(), 1, false, 1, 16);
    main->OpenRedirectedFile((dir / "ab").c_str(), 1, false, 1, 16);
    main->CloseAllRedirectedFiles((dir / "a").c_str());
    EXPECT_EQ(nullptr, u->GetRedirectedFile((dir / "a/one").c_str()));
    EXPECT_EQ(nullptr, u->GetRedirectedFile((dir / "a/two").c_str()));
    EXPECT_NE(nullptr, u->GetRedirectedFile((dir / "ab").c_str()));
}

TEST_F(Controller, VSphereRecordsAreForwarded) {
    main->AddVSphereInfo("datastore-2", "h", "443", "u", "secret");
    main->AddVSphereInfo("datastore-1", "h", "444", "u", "secret");
    EXPECT_EQ(2, main->GetVSphereInfo(false));
    main->RemoveVSphereInfo("datastore-2");
    log.Clear();
    EXPECT_EQ(1, main->GetVSphereInfo(true));
    EXPECT_EQ(std::vector<std::string>{" NFS datastore 1 - datastore-1 (h:444)"}, log.Texts("raw"));
    main->RemoveVSphereInfo("datastore-1");
    EXPECT_EQ(0, main->GetVSphereInfo(false));
}

TEST_F(Controller, TestsAndCommandsAreForwardedWithTheGivenParameters) {
    TempDir dir;
    char status[ERROR_TEXT_SIZE] = "";
    EXPECT_TRUE(main->RunQuickTestMode(dir.Path().c_str(), 0, status)) << status;
    EXPECT_FALSE(main->RunQuickTestMode(dir.Path().c_str(), 1, status));
    EXPECT_STREQ("Unknown mode (1)", status);
    CRuntimeParam other("other", 0);
    EXPECT_FALSE(main->RunQuickTestMode(&other, (dir / "missing").c_str(), 0, status));

    EXPECT_EQ(512, main->ExecuteSystemCmd("exit 2", false));
    log.Clear();
    EXPECT_EQ(0, main->ExecuteSystemCmd(&other, "echo forwarded", true));
    std::vector<LogRecorder::Line> lines = log.Lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("other", lines.back().id) << log.Dump();

    log.Clear();
    main->RunTestMode(dir.Path().c_str(), 4096);
    EXPECT_FALSE(log.Lines().empty());
    EXPECT_EQ("inst", log.Lines().front().id);
    EXPECT_FALSE(PathExists(dir / "_test"));  // the test cleans up after itself
}

TEST_F(Controller, NetDeviceCredentialsAreForwarded) {
    EXPECT_EQ(0, main->GetNetDeviceCredential(false));
    // The credential command is not installed on this system: adding fails.
    EXPECT_FALSE(main->AddNetDeviceCredential("//nas/share", "user", "password"));
    EXPECT_EQ(0, main->GetNetDeviceCredential(true));
    EXPECT_FALSE(main->RemoveNetDeviceCredential("//nas/share"));
    EXPECT_EQ(std::string::npos, log.AllText().find("password"));
}
