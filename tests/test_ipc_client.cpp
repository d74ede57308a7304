// The IPC client controller against external server controllers in the
// same process (each side with its own channel): every forwarded operation
// reaches the server, error texts come back, log lines of requests that
// carry the client's ID arrive at its callback, the version gates hold back
// requests an older server lacks, and without a server every operation
// gives its failure value. Each test has a private /tmp and network.
#include <gtest/gtest.h>

#include <fcntl.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>

#include "IpcServerThread.h"
#include "IpcTestSupport.h"
#include "RpcTestClient.h"
#include "LogRecorder.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "RedirectedFile.h"
#include "TestSupport.h"
#include "Utilities.h"

namespace {

const char* const CHANNEL = "/tmp/nfs-server";

class IpcClientTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(tmp_.Ok()) << tmp_.Error();
        dir_.reset(new TempDir);
        folder_ = Canonical(dir_->Path());
        client_.SetCallback(&log_);
        char err[ERROR_TEXT_SIZE] = "";
        ASSERT_TRUE(client_.Initial(err)) << err;
        ASSERT_TRUE(client_.StartRemoteController(err)) << err;
    }
    void TearDown() override {
        client_.StopRemoteController();
        client_.Terminate();
        server_.StopServer();
        server_.StopRemoteController();
        dir_.reset();
    }
    void StartExternalServer() {
        char err[ERROR_TEXT_SIZE] = "";
        ASSERT_TRUE(server_.Initial(err)) << err;
        ASSERT_TRUE(server_.StartRemoteController(err)) << err;
    }

    PrivateTmp tmp_{true};
    std::unique_ptr<TempDir> dir_;
    std::string folder_;
    LogRecorder log_;
    CNfsIpcServerMain server_{"srv", CRuntimeParam::LOG_ERROR};
    CNfsIpcClientMain client_{"ctl", CRuntimeParam::LOG_ERROR | CRuntimeParam::LOG_GENERAL_INFO};
};

TEST_F(IpcClientTest, WithoutAServerEveryOperationGivesItsFailureValue) {
    char text[CNfsMain::INFO_TEXT_SIZE];
    client_.GetVersion(text);
    EXPECT_STREQ("Unknown", text);
    client_.GetDescription(text);
    EXPECT_STREQ("Unknown", text);
    EXPECT_EQ(0, client_.GetServerStatus());
    EXPECT_FALSE(client_.IsServerRunning());
    char err[ERROR_TEXT_SIZE] = "untouched";
    EXPECT_FALSE(client_.StartServer(0, 0, 0, 0, false, err));
    EXPECT_STREQ("untouched", err);
    EXPECT_FALSE(client_.IsSessionExists("s"));
    EXPECT_EQ(-1, client_.GetMountInfo(false, false));
    EXPECT_FALSE(client_.RequestAutoShutdown());
    EXPECT_EQ(0, client_.GetVSphereInfo(false));
    EXPECT_FALSE(client_.RunQuickTestMode("/", 0, err));
    char reason[ERROR_TEXT_SIZE] = "";
    CUtilities::GetLastErrorText(reason, ENOENT);
    EXPECT_LE(1, log_.Count(std::string("[IpcClient.SendRequest] Fail to connect ipc client socket. ") + reason))
        << log_.Dump();
    EXPECT_EQ(2, client_.GetAccessMode());
}

TEST_F(IpcClientTest, StartStatusAndDebugActionsAreForwarded) {
    StartExternalServer();
    char text[CNfsMain::INFO_TEXT_SIZE];
    client_.GetVersion(text);
    EXPECT_STREQ("1.4", text);
    client_.GetDescription(text);
    EXPECT_STREQ("External NFS Server", text);
    EXPECT_EQ(1, client_.GetServerStatus());
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(client_.StartServer(3058, 3049, 0, 0, true, err)) << err;
    EXPECT_TRUE(server_.IsServerRunning());
    EXPECT_TRUE(client_.IsServerRunning());
    EXPECT_EQ(3, client_.GetServerStatus());
    EXPECT_TRUE(client_.SetDebugActionEnabled(true));
    EXPECT_EQ(7, client_.GetServerStatus());

    // Stopping from the client only logs; the server keeps running.
    client_.StopServer();
    EXPECT_TRUE(server_.IsServerRunning());
    EXPECT_EQ(1, log_.Count("[NfsIpcClientMain.StopServer] Cannot stop NFS service in client mode."));

    // A second start fails on the busy ports and its text comes back.
    server_.StopServer();
    CNfsMain squatter("squatter", 0);
    ASSERT_TRUE(squatter.StartServer(3058, 3049, 0, 0, false, err)) << err;
    EXPECT_FALSE(client_.StartServer(3158, 3049, 0, 0, false, err));
    EXPECT_STREQ("NFS daemon failed to open port 3049", err);
    squatter.StopServer();
}

TEST_F(IpcClientTest, ExportsAndSessionsAreForwardedWithTheClientsIdAsIpcId) {
    StartExternalServer();
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(client_.AddMountPoint(folder_.c_str(), "datastore", err)) << err;
    CRuntimeParam rp("t", 0);
    LogArgu la{"Test"};
    MountInfo mount;
    ASSERT_TRUE(server_.GetUtils()->GetMountInfoByPath(&rp, &la, folder_.c_str(), &mount));
    EXPECT_EQ("datastore", mount.sExportName);
    EXPECT_EQ("ctl", mount.sIcpID);
    // A refusal comes back with the server's text.
    EXPECT_FALSE(client_.AddMountPoint(folder_.c_str(), "other", err));
    EXPECT_EQ("Local mount path \"" + folder_ + "\" already defined", std::string(err));

    // The listing's details are logged for the client's ID and come back.
    EXPECT_EQ(1, client_.GetMountInfo(false, true));
    EXPECT_EQ(1, log_.Count(" Mount 1 - " + folder_ + " : datastore () [ctl]")) << log_.Dump();
    client_.RemoveMountPoint(folder_.c_str());
    EXPECT_EQ(0, server_.GetMountInfo(false, false));

    client_.AddSessionInfo("s1", "/b/1");
    EXPECT_TRUE(server_.IsLocalSessionExists("s1"));
    EXPECT_TRUE(client_.IsSessionExists("s1"));
    EXPECT_FALSE(client_.IsLocalSessionExists("s1"));  // never forwarded
    EXPECT_EQ(1, client_.GetSessionInfo(true));
    EXPECT_EQ(1, log_.Count(" Session 1 - s1 : /b/1"));
    client_.RemoveSessionInfo("s1");
    EXPECT_FALSE(client_.IsSessionExists("s1"));
}

TEST_F(IpcClientTest, RedirectedFilesAndCachedDescriptorsAreForwarded) {
    StartExternalServer();
    const std::string disk = folder_ + "/disk.vmdk";
    const std::string source = folder_ + "/src.bin";
    WriteWholeFile(disk, "");
    WriteWholeFile(source, "ABCDEFGHIJ");
    client_.OpenRedirectedFile(disk.c_str(), 1LL << 33, false, 0, 0);
    CRedirectedFile* file = server_.GetUtils()->GetRedirectedFile(disk.c_str());
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(1LL << 33, file->GetFileSize());
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(client_.AddRedirectedFileSegment(disk.c_str(), source.c_str(), 3, (1LL << 32) + 1, 4, err)) << err;
    CRuntimeParam rp("t", 0);
    char got[6];
    bool eof = false;
    ASSERT_EQ(6, file->Read(&rp, 1LL << 32, got, 6, &eof));
    EXPECT_EQ(std::string("\0DEFG\0", 6), std::string(got, 6));
    EXPECT_FALSE(client_.AddRedirectedFileSegment((folder_ + "/none").c_str(), source.c_str(), 0, 0, 1, err));

    client_.CloseRedirectedFile(disk.c_str());
    EXPECT_EQ(nullptr, server_.GetUtils()->GetRedirectedFile(disk.c_str()));
    client_.OpenRedirectedFile(disk.c_str(), 100, false, 0, 0);
    client_.CloseAllRedirectedFiles(folder_.c_str());
    EXPECT_EQ(nullptr, server_.GetUtils()->GetRedirectedFile(disk.c_str()));

    LogArgu la{"Test"};
    int fd = server_.GetUtils()->GetCachedFileHandle(&rp, &la, source.c_str(), false);
    ASSERT_GE(fd, 0);
    client_.CloseCachedFileHandle(source.c_str());
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    fd = server_.GetUtils()->GetCachedFileHandle(&rp, &la, source.c_str(), false);
    client_.CloseAllCachedFileHandles(folder_.c_str());
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

TEST_F(IpcClientTest, LogControlIsSetOnBothSides) {
    StartExternalServer();
    client_.SetLogControl(0x83);
    EXPECT_EQ(0x83, client_.GetRuntimeParam()->GetLogControl());
    EXPECT_EQ(0x83, server_.GetRuntimeParam()->GetLogControl());
}

TEST_F(IpcClientTest, TestsCommandsVSphereAndNetworkDevicesAreForwarded) {
    StartExternalServer();
    char err[ERROR_TEXT_SIZE] = "";
    EXPECT_TRUE(client_.RunQuickTestMode(folder_.c_str(), 0, err)) << err;
    EXPECT_FALSE(client_.RunQuickTestMode(folder_.c_str(), 3, err));
    EXPECT_STREQ("Unknown mode (3)", err);
    EXPECT_EQ(2 << 8, client_.ExecuteSystemCmd("exit 2", false));
    EXPECT_EQ(0, client_.ExecuteSystemCmd("echo from-the-server", true));
    EXPECT_LE(1, log_.CountContaining("from-the-server")) << log_.Dump();

    client_.RunTestMode(folder_.c_str(), 65536);
    EXPECT_LE(1, log_.CountContaining(folder_ + "/_test")) << log_.Dump();

    client_.AddVSphereInfo("datastore-3", "h", "443", "u", "p");
    EXPECT_EQ(1, server_.GetVSphereInfo(false));
    EXPECT_EQ(1, client_.GetVSphereInfo(true));
    EXPECT_EQ(1, log_.Count(" NFS datastore 1 - datastore-3 (h:443)"));
    client_.RemoveVSphereInfo("datastore-3");
    EXPECT_EQ(0, server_.GetVSphereInfo(false));

    CNfsMain reference("ref", 0);
    EXPECT_EQ(reference.AddNetDeviceCredential("/n", "u", "p"), client_.AddNetDeviceCredential("/n", "u", "p"));
    EXPECT_EQ(reference.GetNetDeviceCredential(false), client_.GetNetDeviceCredential(false));
    EXPECT_EQ(reference.RemoveNetDeviceCredential("/n"), client_.RemoveNetDeviceCredential("/n"));
}

TEST_F(IpcClientTest, AutoShutdownIsOnlyRequestedAndGrantedWhereTheServerEnabledIt) {
    StartExternalServer();
    client_.EnableAutoShutdown(true);
    EXPECT_FALSE(client_.IsAutoShutdownEnabled());
    EXPECT_EQ(1, log_.Count("[NfsIpcClientMain.EnableAutoShutdown] Auto shutdown is supported in client mode."));
    EXPECT_FALSE(client_.RequestAutoShutdown());
    EXPECT_FALSE(server_.IsAutoShutdownRequested());
    server_.EnableAutoShutdown(true);
    EXPECT_TRUE(client_.RequestAutoShutdown());
    // The serving loop raises the flag once the reply is sent.
    EXPECT_TRUE(WaitUntil([this] { return server_.IsAutoShutdownRequested(); }));
}

TEST_F(IpcClientTest, ASecondClientWithTheSameIdCannotOpenTheCallbackChannel) {
    CNfsIpcClientMain twin("ctl", CRuntimeParam::LOG_ERROR);
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(twin.Initial(err)) << err;
    EXPECT_FALSE(twin.StartRemoteController(err));
    EXPECT_STREQ("Ipc channel is already created by others.", err);
    EXPECT_TRUE(PathExists("/tmp/nfs-ctl"));
}

// A server that reports an older version and counts what reaches it.
class OlderServer : public CNfsMain {
public:
    explicit OlderServer(const char* version) : CNfsMain("old", 0), m_version(version) {}
    void GetVersion(char* buf) override { snprintf(buf, INFO_TEXT_SIZE, "%s", m_version.c_str()); }
    bool IsServerRunning() override { return running; }
    int GetServerStatus() override {
        ++statusCalls;
        return 5;
    }
    int GetVSphereInfo(CRuntimeParam*, bool) override {
        ++vsphereCalls;
        return 4;
    }
    void AddVSphereInfo(const char*, const char*, const char*, const char*, const char*) override { ++vsphereCalls; }
    bool SetDebugActionEnabled(bool) override {
        ++debugCalls;
        return true;
    }
    bool RunQuickTestMode(CRuntimeParam*, const char*, int, char*) override {
        ++netCalls;
        return true;
    }
    int ExecuteSystemCmd(CRuntimeParam*, const char*, bool) override {
        ++netCalls;
        return 9;
    }
    int GetNetDeviceCredential(CRuntimeParam*, bool) override {
        ++netCalls;
        return 9;
    }
    bool AddNetDeviceCredential(const char*, const char*, const char*) override {
        ++netCalls;
        return true;
    }
    bool RemoveNetDeviceCredential(const char*) override {
        ++netCalls;
        return true;
    }

    std::atomic<bool> running{false};
    std::atomic<int> statusCalls{0}, vsphereCalls{0}, debugCalls{0}, netCalls{0};

private:
    std::string m_version;
};

class IpcClientVersions : public IpcClientTest {
protected:
    // The server outlives the thread that serves it: both end in TearDown.
    OlderServer& Serve(const char* version) {
        server_ = std::make_unique<OlderServer>(version);
        char err[ERROR_TEXT_SIZE] = "";
        EXPECT_TRUE(thread_.Open(CHANNEL, server_.get(), err)) << err;
        return *server_;
    }
    void TearDown() override {
        thread_.Close();
        server_.reset();
        IpcClientTest::TearDown();
    }
    std::unique_ptr<OlderServer> server_;
    CIpcServerThread thread_;
};

TEST_F(IpcClientVersions, AVersion10ServerGivesStatus1Or3WithoutTheStatusRequest) {
    OlderServer& old = Serve("1.0");
    EXPECT_EQ(1, client_.GetServerStatus());
    old.running = true;
    EXPECT_EQ(3, client_.GetServerStatus());
    EXPECT_EQ(0, old.statusCalls);
    EXPECT_FALSE(client_.SetDebugActionEnabled(true));
    EXPECT_EQ(0, old.debugCalls);
    EXPECT_EQ(0, client_.GetVSphereInfo(false));
    EXPECT_EQ(0, old.vsphereCalls);
}

TEST_F(IpcClientVersions, AVersion11ServerAnswersStatusButNoVSphereRequests) {
    OlderServer& old = Serve("1.1");
    EXPECT_EQ(5, client_.GetServerStatus());
    EXPECT_EQ(1, old.statusCalls);
    EXPECT_TRUE(client_.SetDebugActionEnabled(true));
    EXPECT_EQ(1, old.debugCalls);
    EXPECT_EQ(0, client_.GetVSphereInfo(false));
    client_.AddVSphereInfo("m", "h", "p", "u", "w");
    client_.RemoveVSphereInfo("m");
    EXPECT_EQ(0, old.vsphereCalls);
}

TEST_F(IpcClientVersions, AVersion12ServerTakesVSphereButNoNetworkDeviceRequests) {
    OlderServer& old = Serve("1.2");
    EXPECT_EQ(4, client_.GetVSphereInfo(false));
    client_.AddVSphereInfo("m", "h", "p", "u", "w");
    EXPECT_EQ(2, old.vsphereCalls);
    char err[ERROR_TEXT_SIZE] = "";
    EXPECT_FALSE(client_.RunQuickTestMode("/", 0, err));
    EXPECT_EQ(0, client_.ExecuteSystemCmd("true", false));
    EXPECT_EQ(0, client_.GetNetDeviceCredential(false));
    EXPECT_FALSE(client_.AddNetDeviceCredential("/n", "u", "p"));
    EXPECT_FALSE(client_.RemoveNetDeviceCredential("/n"));
    EXPECT_EQ(0, old.netCalls);
}

TEST_F(IpcClientVersions, TheVersionGatesFollowTheVersionText) {
    EXPECT_FALSE(CNfsIpcClientMain::IsConnectable("Unknown"));
    EXPECT_TRUE(CNfsIpcClientMain::IsConnectable("1.0"));
    EXPECT_FALSE(CNfsIpcClientMain::IsGetServerStatusSupported("1.0"));
    EXPECT_TRUE(CNfsIpcClientMain::IsGetServerStatusSupported("1.1"));
    EXPECT_FALSE(CNfsIpcClientMain::IsVSphereSupported("1.1"));
    EXPECT_TRUE(CNfsIpcClientMain::IsVSphereSupported("1.2"));
    EXPECT_FALSE(CNfsIpcClientMain::IsNetDeviceSupported("1.2"));
    EXPECT_TRUE(CNfsIpcClientMain::IsNetDeviceSupported("1.4"));
    EXPECT_FALSE(CNfsIpcClientMain::IsNetDeviceSupported("Unknown"));
}

}  // namespace
