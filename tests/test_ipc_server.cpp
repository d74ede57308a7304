// The external server's request channel over a real Unix-domain socket:
// every request type, built byte for byte and sent raw, is carried out on
// the controller (checked through its state) and answered with the reply
// record of its type. Unknown types and groups, cut and short records,
// unterminated texts, the shutdown request, and log lines of requests that
// name a callback channel arriving there. Each test has a private /tmp and
// network.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "IpcBasic.h"
#include "IpcServerThread.h"
#include "IpcTestSupport.h"
#include "RpcTestClient.h"
#include "LogRecorder.h"
#include "NfsIpcServerMain.h"
#include "RedirectedFile.h"
#include "TestSupport.h"
#include "Utilities.h"

namespace {

const char* const CHANNEL = "/tmp/nfs-server";

bool TcpPortAnswers(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons((uint16_t)port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

class IpcServerRequests : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(tmp_.Ok()) << tmp_.Error();
        dir_.reset(new TempDir);
        nfs_.SetCallback(&log_);
        requester_.SetCallback(&requesterLog_);
        char err[ERROR_TEXT_SIZE] = "";
        ASSERT_TRUE(nfs_.Initial(err)) << err;
        ASSERT_TRUE(nfs_.StartRemoteController(err)) << err;
        ASSERT_TRUE(callbacks_.Open("/tmp/nfs-ctl", &requester_, err)) << err;
    }
    void TearDown() override {
        nfs_.StopServer();
        nfs_.StopRemoteController();
        callbacks_.Close();
        dir_.reset();
    }

    template <class T>
    T* New(int type) {
        CIpcBasic::InitialRequestData(&data_, type);
        return CIpcBasic::Record<T>(&data_.request);
    }
    ParsedReply Send() {
        std::string why;
        std::string bytes = RawExchange(CHANNEL, RecordBytes(data_.request), &why);
        EXPECT_FALSE(bytes.empty()) << why;
        return ParseReply(bytes);
    }
    ParsedReply SendBytes(const std::string& bytes) {
        std::string why;
        std::string reply = RawExchange(CHANNEL, bytes, &why);
        EXPECT_FALSE(reply.empty()) << why;
        return ParseReply(reply);
    }
    static void ExpectBool(const ParsedReply& r, bool value) {
        EXPECT_EQ(20u, r.size);
        EXPECT_EQ(IPC_GROUP_REPLY, r.group);
        EXPECT_EQ(IPC_REPLY_BOOL, r.type);
        EXPECT_EQ("1.4", r.version);
        EXPECT_EQ(value ? 1 : 0, r.value);
    }
    static void ExpectInt(const ParsedReply& r, int value) {
        EXPECT_EQ(20u, r.size);
        EXPECT_EQ(IPC_GROUP_REPLY, r.group);
        EXPECT_EQ(IPC_REPLY_INT, r.type);
        EXPECT_EQ(value, r.value);
    }
    static void ExpectText(const ParsedReply& r, int type, const std::string& text) {
        EXPECT_EQ(2064u, r.size);
        EXPECT_EQ(IPC_GROUP_REPLY, r.group);
        EXPECT_EQ(type, r.type);
        EXPECT_EQ(text, r.text);
    }
    std::string Folder() const {
        char out[PATH_BUFFER_SIZE];
        char* p = realpath(dir_->Path().c_str(), out);
        return p ? std::string(p) : dir_->Path();
    }

    PrivateTmp tmp_{true};
    std::unique_ptr<TempDir> dir_;
    LogRecorder log_;
    LogRecorder requesterLog_;
    CNfsIpcServerMain nfs_{"srv", CRuntimeParam::LOG_ERROR};
    CNfsMain requester_{"ctl", CRuntimeParam::LOG_ERROR};
    CIpcServerThread callbacks_;
    IpcDataInst data_;
};

// ---- 1 to 4, 23, 24: identity, start and status ---------------------------------

TEST_F(IpcServerRequests, VersionAndDescriptionAreTextReplies) {
    New<Ipc_Header>(IPC_REQ_GET_VERSION);
    ExpectText(Send(), IPC_REPLY_MESSAGE, "1.4");
    New<Ipc_Header>(IPC_REQ_GET_DESCRIPTION);
    ExpectText(Send(), IPC_REPLY_MESSAGE, "External NFS Server");
}

TEST_F(IpcServerRequests, StartServerCarriesPortsAndStatusFollowsRunningAndDebugActions) {
    New<Ipc_Header>(IPC_REQ_IS_SERVER_RUNNING);
    ExpectBool(Send(), false);
    New<Ipc_Header>(IPC_REQ_GET_SERVER_STATUS);
    ExpectInt(Send(), 1);

    auto* r = New<IpcRequest_Start>(IPC_REQ_START_SERVER);
    r->iMountPort = 3058;
    r->iNfsPort = 3049;
    r->iUId = 7;
    r->iGId = 8;
    r->bReadOnly = 1;
    ExpectBool(Send(), true);
    EXPECT_TRUE(nfs_.IsServerRunning());
    EXPECT_TRUE(TcpPortAnswers(3049));
    EXPECT_TRUE(TcpPortAnswers(3058));
    EXPECT_FALSE(TcpPortAnswers(2049));
    New<Ipc_Header>(IPC_REQ_IS_SERVER_RUNNING);
    ExpectBool(Send(), true);
    New<Ipc_Header>(IPC_REQ_GET_SERVER_STATUS);
    ExpectInt(Send(), 3);

    New<IpcRequest_SetBoolean>(IPC_REQ_SET_DEBUG_ACTION_ENABLED)->bVal = 1;
    ExpectBool(Send(), true);
    New<Ipc_Header>(IPC_REQ_GET_SERVER_STATUS);
    ExpectInt(Send(), 7);
    New<IpcRequest_SetBoolean>(IPC_REQ_SET_DEBUG_ACTION_ENABLED)->bVal = 0;
    ExpectBool(Send(), true);
    EXPECT_EQ(3, nfs_.GetServerStatus());
}

TEST_F(IpcServerRequests, AFailedStartAnswersTheControllersErrorText) {
    int busy = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(3049);
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    ASSERT_EQ(0, bind(busy, reinterpret_cast<sockaddr*>(&a), sizeof a));
    ASSERT_EQ(0, listen(busy, 1));
    auto* r = New<IpcRequest_Start>(IPC_REQ_START_SERVER);
    r->iMountPort = 3058;
    r->iNfsPort = 3049;
    ExpectText(Send(), IPC_REPLY_EXCEPTION, "NFS daemon failed to open port 3049");
    EXPECT_FALSE(nfs_.IsServerRunning());
    close(busy);
}

// ---- 5 to 9: exports and sessions ---------------------------------------------------

TEST_F(IpcServerRequests, AddMountPointStoresFolderNameAndIpcIdAndRemoveMountPointDropsIt) {
    auto* r = New<IpcRequest_AddMountPoint>(IPC_REQ_ADD_MOUNT_POINT);
    CIpcBasic::SetText(r->cLocalMountFolder, Folder().c_str());
    CIpcBasic::SetText(r->cExportName, "datastore");
    CIpcBasic::SetText(r->cIpcID, "ctl");
    ExpectBool(Send(), true);
    CRuntimeParam rp("t", 0);
    LogArgu la{"Test"};
    MountInfo mount;
    ASSERT_TRUE(nfs_.GetUtils()->GetMountInfoByPath(&rp, &la, (Folder() + "/x").c_str(), &mount));
    EXPECT_EQ(Folder(), mount.sLocalMountPath);
    EXPECT_EQ("datastore", mount.sExportName);
    EXPECT_EQ("ctl", mount.sIcpID);

    CIpcBasic::SetText(New<IpcRequest_RemoveMountPoint>(IPC_REQ_REMOVE_MOUNT_POINT)->cLocalMountFolder,
                       Folder().c_str());
    ExpectBool(Send(), true);
    EXPECT_FALSE(nfs_.GetUtils()->GetMountInfoByPath(&rp, &la, (Folder() + "/x").c_str(), &mount));
}

TEST_F(IpcServerRequests, ARefusedMountPointAnswersTheReason) {
    auto* r = New<IpcRequest_AddMountPoint>(IPC_REQ_ADD_MOUNT_POINT);
    CIpcBasic::SetText(r->cLocalMountFolder, Folder().c_str());
    CIpcBasic::SetText(r->cExportName, "data store");
    ExpectText(Send(), IPC_REPLY_EXCEPTION, "Invalid char \" \" inside export name");
    EXPECT_EQ(0, nfs_.GetMountInfo(false, false));
}

TEST_F(IpcServerRequests, SessionsAreAddedAskedForAndRemoved) {
    auto* r = New<IpcRequest_AddSession>(IPC_REQ_ADD_SESSION);
    CIpcBasic::SetText(r->cSessionID, "session-1");
    CIpcBasic::SetText(r->cLocalMountFolder, "/backup/one");
    ExpectBool(Send(), true);
    EXPECT_TRUE(nfs_.IsLocalSessionExists("session-1"));

    CIpcBasic::SetText(New<IpcRequest_IsSessionExists>(IPC_REQ_IS_SESSION_EXISTS)->cSessionID, "session-1");
    ExpectBool(Send(), true);
    CIpcBasic::SetText(New<IpcRequest_IsSessionExists>(IPC_REQ_IS_SESSION_EXISTS)->cSessionID, "session-2");
    ExpectBool(Send(), false);

    CIpcBasic::SetText(New<IpcRequest_RemoveSession>(IPC_REQ_REMOVE_SESSION)->cSessionID, "session-1");
    ExpectBool(Send(), true);
    EXPECT_FALSE(nfs_.IsLocalSessionExists("session-1"));
}

// ---- 10 to 17: redirected files and cached descriptors --------------------------------

TEST_F(IpcServerRequests, RedirectedFilesAreOpenedFilledExportedAndClosed) {
    const std::string disk = Folder() + "/disk.vmdk";
    const std::string source = Folder() + "/source.bin";
    WriteWholeFile(disk, "");
    WriteWholeFile(source, "0123456789abcdefghij");
    // Exports are written through descriptors that are writable inside an
    // export only.
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(nfs_.AddMountPoint(Folder().c_str(), "datastore", err)) << err;

    auto* open = New<IpcRequest_OpenRedirectedFile>(IPC_REQ_OPEN_REDIRECTED_FILE);
    CIpcBasic::SetText(open->cPath, disk.c_str());
    open->iSize = 5000000000LL;
    open->bCreateInfoFile = 0;
    open->iInfoFileSegmentSizeMB = 1;
    open->iInfoFileCheckPointSizeMB = 4;
    ExpectBool(Send(), true);
    CRedirectedFile* file = nfs_.GetUtils()->GetRedirectedFile(disk.c_str());
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(5000000000LL, file->GetFileSize());

    auto* seg = New<IpcRequest_AddRedirectedFileSegment>(IPC_REQ_ADD_REDIRECTED_FILE_SEGMENT);
    CIpcBasic::SetText(seg->cPath, disk.c_str());
    CIpcBasic::SetText(seg->cSrcPath, source.c_str());
    seg->iSrcFileOffset = 10;
    seg->iOffset = 4000000000LL;
    seg->iLength = 6;
    ExpectBool(Send(), true);
    CRuntimeParam rp("t", 0);
    char got[8] = {};
    bool eof = false;
    ASSERT_EQ(8, file->Read(&rp, 4000000000LL - 1, got, 8, &eof));
    EXPECT_EQ(std::string("\0abcdef\0", 8), std::string(got, 8));

    // A segment for a file that is not open is refused (no text).
    seg = New<IpcRequest_AddRedirectedFileSegment>(IPC_REQ_ADD_REDIRECTED_FILE_SEGMENT);
    CIpcBasic::SetText(seg->cPath, (Folder() + "/other.vmdk").c_str());
    CIpcBasic::SetText(seg->cSrcPath, source.c_str());
    seg->iLength = 6;
    ExpectText(Send(), IPC_REPLY_EXCEPTION, "");

    const std::string listing = Folder() + "/listing.txt";
    WriteWholeFile(listing, "");
    auto* info = New<IpcRequest_ExportRedirectedFileInfo>(IPC_REQ_EXPORT_REDIRECTED_FILE_INFO);
    CIpcBasic::SetText(info->cPath, disk.c_str());
    CIpcBasic::SetText(info->cExportPath, listing.c_str());
    info->bMergeRange = 1;
    ExpectBool(Send(), true);
    EXPECT_NE(std::string::npos, ReadWholeFile(listing).find(source)) << ReadWholeFile(listing);

    // A small file exported whole: its assembled content.
    const std::string small = Folder() + "/small.vmdk";
    WriteWholeFile(small, "");
    nfs_.OpenRedirectedFile(small.c_str(), 8, false, 0, 0);
    ASSERT_TRUE(nfs_.AddRedirectedFileSegment(small.c_str(), source.c_str(), 2, 1, 6, err)) << err;
    const std::string copy = Folder() + "/copy.bin";
    WriteWholeFile(copy, "");
    auto* ex = New<IpcRequest_ExportRedirectedFile>(IPC_REQ_EXPORT_REDIRECTED_FILE);
    CIpcBasic::SetText(ex->cPath, small.c_str());
    CIpcBasic::SetText(ex->cExportPath, copy.c_str());
    ExpectBool(Send(), true);
    EXPECT_EQ(std::string("\0" "234567" "\0", 8), ReadWholeFile(copy));

    CIpcBasic::SetText(New<IpcRequest_CloseRedirectedFile>(IPC_REQ_CLOSE_REDIRECTED_FILE)->cPath, disk.c_str());
    ExpectBool(Send(), true);
    EXPECT_EQ(nullptr, nfs_.GetUtils()->GetRedirectedFile(disk.c_str()));
    EXPECT_NE(nullptr, nfs_.GetUtils()->GetRedirectedFile(small.c_str()));

    CIpcBasic::SetText(New<IpcRequest_CloseAllRedirectedFiles>(IPC_REQ_CLOSE_ALL_REDIRECTED_FILES)->cPath,
                       Folder().c_str());
    ExpectBool(Send(), true);
    EXPECT_EQ(nullptr, nfs_.GetUtils()->GetRedirectedFile(small.c_str()));
}

TEST_F(IpcServerRequests, CachedDescriptorsAreClosedOneByOneOrBeneathAFolder) {
    const std::string a = Folder() + "/a.bin";
    const std::string b = Folder() + "/sub/b.bin";
    mkdir((Folder() + "/sub").c_str(), 0755);
    WriteWholeFile(a, "a");
    WriteWholeFile(b, "b");
    CRuntimeParam rp("t", 0);
    LogArgu la{"Test"};
    int fa = nfs_.GetUtils()->GetCachedFileHandle(&rp, &la, a.c_str(), false);
    int fb = nfs_.GetUtils()->GetCachedFileHandle(&rp, &la, b.c_str(), false);
    ASSERT_GE(fa, 0);
    ASSERT_GE(fb, 0);

    CIpcBasic::SetText(New<IpcRequest_CloseOpenedFile>(IPC_REQ_CLOSE_OPENED_FILE)->cPath, a.c_str());
    ExpectBool(Send(), true);
    EXPECT_EQ(-1, fcntl(fa, F_GETFD));
    EXPECT_NE(-1, fcntl(fb, F_GETFD));

    CIpcBasic::SetText(New<IpcRequest_CloseAllOpenedFiles>(IPC_REQ_CLOSE_ALL_OPENED_FILES)->cPath, Folder().c_str());
    ExpectBool(Send(), true);
    EXPECT_EQ(-1, fcntl(fb, F_GETFD));
}

// ---- 18 to 21: log control, listings and the platform test -------------------------

TEST_F(IpcServerRequests, SetLogControlSetsTheControllersControl) {
    New<IpcRequest_SetLogControl>(IPC_REQ_SET_LOG_CONTROL)->iLogControl = 0x2A1;
    ExpectBool(Send(), true);
    EXPECT_EQ(0x2A1, nfs_.GetRuntimeParam()->GetLogControl());
}

TEST_F(IpcServerRequests, ListingsCountAndTheirDetailsTravelToTheRequestersChannel) {
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(nfs_.AddMountPoint(Folder().c_str(), "datastore", "ctl", err)) << err;
    nfs_.AddSessionInfo("s1", "/b/1");
    nfs_.AddSessionInfo("s2", "/b/2");

    auto* m = New<IpcRequest_GetMountInfo>(IPC_REQ_GET_MOUNT_INFO);
    CIpcBasic::SetText(m->cIpcID, "ctl");
    m->bClientMountedOnly = 0;
    m->bPrintDetails = 1;
    ExpectInt(Send(), 1);
    const std::string mountLine = " Mount 1 - " + Folder() + " : datastore () [ctl]";
    EXPECT_EQ((std::vector<std::string>{mountLine}), requesterLog_.Texts("raw"));
    // Routed locally as well, with the server's ID.
    EXPECT_EQ(1, log_.Count(mountLine));
    for (const auto& line : requesterLog_.Lines()) EXPECT_EQ("srv", line.id);

    // Only mounted exports: none is mounted by a client.
    m = New<IpcRequest_GetMountInfo>(IPC_REQ_GET_MOUNT_INFO);
    CIpcBasic::SetText(m->cIpcID, "ctl");
    m->bClientMountedOnly = 1;
    m->bPrintDetails = 1;
    ExpectInt(Send(), 0);

    requesterLog_.Clear();
    auto* s = New<IpcRequest_GetSessionInfo>(IPC_REQ_GET_SESSION_INFO);
    CIpcBasic::SetText(s->cIpcID, "ctl");
    s->bPrintDetails = 1;
    ExpectInt(Send(), 2);
    EXPECT_EQ((std::vector<std::string>{" Session 1 - s1 : /b/1", " Session 2 - s2 : /b/2"}),
              requesterLog_.Texts("raw"));

    // Without an IPC ID the details stay local.
    requesterLog_.Clear();
    New<IpcRequest_GetSessionInfo>(IPC_REQ_GET_SESSION_INFO)->bPrintDetails = 1;
    ExpectInt(Send(), 2);
    EXPECT_TRUE(requesterLog_.Lines().empty());
    EXPECT_EQ(2, log_.Count(" Session 2 - s2 : /b/2"));
}

TEST_F(IpcServerRequests, ThePlatformTestReportsToTheRequester) {
    auto* r = New<IpcRequest_RunTestMode>(IPC_REQ_RUN_TEST_MODE);
    CIpcBasic::SetText(r->cIpcID, "ctl");
    CIpcBasic::SetText(r->cDirPath, Folder().c_str());
    r->iFileSize = 1 << 20;
    ExpectBool(Send(), true);
    EXPECT_GT(requesterLog_.Lines().size(), 3u) << requesterLog_.Dump();
    EXPECT_NE(std::string::npos, requesterLog_.AllText().find(Folder())) << requesterLog_.Dump();
    EXPECT_FALSE(PathExists(Folder() + "/_test"));
}

// ---- 22: shutdown -------------------------------------------------------------------------

TEST_F(IpcServerRequests, AShutdownRequestIsRefusedWhileAutoShutdownIsNotEnabled) {
    New<Ipc_Header>(IPC_REQ_REQUEST_AUTO_SHUTDOWN);
    ExpectBool(Send(), false);
    EXPECT_FALSE(nfs_.IsAutoShutdownRequested());
    New<Ipc_Header>(IPC_REQ_GET_VERSION);
    ExpectText(Send(), IPC_REPLY_MESSAGE, "1.4");
}

TEST_F(IpcServerRequests, AGrantedShutdownRaisesTheFlagAndLeavesLaterConnectionsPending) {
    nfs_.EnableAutoShutdown(true);
    New<Ipc_Header>(IPC_REQ_REQUEST_AUTO_SHUTDOWN);
    ExpectBool(Send(), true);
    // The serving loop raises the flag once the reply is sent.
    EXPECT_TRUE(WaitUntil([this] { return nfs_.IsAutoShutdownRequested(); }));
    New<Ipc_Header>(IPC_REQ_GET_VERSION);
    std::string why;
    EXPECT_EQ("", RawExchange(CHANNEL, RecordBytes(data_.request), &why, 500));
    EXPECT_EQ("no reply in time", why);
    nfs_.StopRemoteController();
    EXPECT_FALSE(PathExists(CHANNEL));
}

// ---- 25 to 27: vSphere records ------------------------------------------------------------

TEST_F(IpcServerRequests, VSphereRecordsAreAddedListedToTheRequesterAndRemoved) {
    auto* a = New<IpcRequest_AddVSphereInfo>(IPC_REQ_ADD_VSPHERE_INFO);
    CIpcBasic::SetText(a->cDatastoreMoid, "datastore-12");
    CIpcBasic::SetText(a->cHost, "esx.example");
    CIpcBasic::SetText(a->cPort, "443");
    CIpcBasic::SetText(a->cUser, "root");
    CIpcBasic::SetText(a->cPwd, "secret");
    ExpectBool(Send(), true);

    auto* g = New<IpcRequest_GetVSphereInfo>(IPC_REQ_GET_VSPHERE_INFO);
    CIpcBasic::SetText(g->cIpcID, "ctl");
    g->bPrintDetails = 1;
    ExpectInt(Send(), 1);
    EXPECT_EQ((std::vector<std::string>{" NFS datastore 1 - datastore-12 (esx.example:443)"}),
              requesterLog_.Texts("raw"));
    EXPECT_EQ(std::string::npos, requesterLog_.AllText().find("secret"));

    CIpcBasic::SetText(New<IpcRequest_RemoveVSphereInfo>(IPC_REQ_REMOVE_VSPHERE_INFO)->cDatastoreMoid,
                       "datastore-12");
    ExpectBool(Send(), true);
    EXPECT_EQ(0, nfs_.GetVSphereInfo(false));
}

// ---- 28 to 32: quick test, commands, network devices -----------------------------------

TEST_F(IpcServerRequests, TheQuickTestAnswersTrueOrTheFailureText) {
    auto* q = New<IpcRequest_RunQuickTestMode>(IPC_REQ_RUN_QUICK_TEST_MODE);
    CIpcBasic::SetText(q->cIpcID, "ctl");
    CIpcBasic::SetText(q->cPath, Folder().c_str());
    q->iMode = 0;
    ExpectBool(Send(), true);

    // The failure text is the controller's own.
    const std::string missing = Folder() + "/missing";
    char expected[ERROR_TEXT_SIZE] = "";
    ASSERT_FALSE(nfs_.RunQuickTestMode(missing.c_str(), 0, expected));
    ASSERT_STRNE("", expected);
    q = New<IpcRequest_RunQuickTestMode>(IPC_REQ_RUN_QUICK_TEST_MODE);
    CIpcBasic::SetText(q->cPath, missing.c_str());
    ExpectText(Send(), IPC_REPLY_EXCEPTION, expected);

    q = New<IpcRequest_RunQuickTestMode>(IPC_REQ_RUN_QUICK_TEST_MODE);
    CIpcBasic::SetText(q->cPath, Folder().c_str());
    q->iMode = 5;
    ExpectText(Send(), IPC_REPLY_EXCEPTION, "Unknown mode (5)");
}

TEST_F(IpcServerRequests, ASystemCommandAnswersItsWaitStatusAndItsOutputReachesTheRequester) {
    auto* c = New<IpcRequest_ExecuteSystemCmd>(IPC_REQ_EXECUTE_SYSTEM_CMD);
    CIpcBasic::SetText(c->cIpcID, "ctl");
    CIpcBasic::SetText(c->cCmd, "exit 3");
    ExpectInt(Send(), 3 << 8);

    c = New<IpcRequest_ExecuteSystemCmd>(IPC_REQ_EXECUTE_SYSTEM_CMD);
    CIpcBasic::SetText(c->cIpcID, "ctl");
    CIpcBasic::SetText(c->cCmd, "echo carried-over-ipc");
    c->bLogResult = 1;
    ExpectInt(Send(), 0);
    EXPECT_NE(std::string::npos, requesterLog_.AllText().find("carried-over-ipc")) << requesterLog_.Dump();
}

TEST_F(IpcServerRequests, NetworkDeviceCredentialsAnswerAsTheControllerDoes) {
    // The same operations on an in-process controller give the expected
    // answers (they depend on the credential commands of this machine).
    CNfsMain reference("ref", 0);
    const bool added = reference.AddNetDeviceCredential("/net/dev", "user", "pwd");
    const int count = reference.GetNetDeviceCredential(false);
    const bool removed = reference.RemoveNetDeviceCredential("/net/dev");

    auto* a = New<IpcRequest_AddNetDeviceCredential>(IPC_REQ_ADD_NET_DEVICE_CREDENTIAL);
    CIpcBasic::SetText(a->cPath, "/net/dev");
    CIpcBasic::SetText(a->cUser, "user");
    CIpcBasic::SetText(a->cPwd, "pwd");
    ExpectBool(Send(), added);
    auto* g = New<IpcRequest_GetNetDeviceCredential>(IPC_REQ_GET_NET_DEVICE_CREDENTIAL);
    CIpcBasic::SetText(g->cIpcID, "ctl");
    g->bPrintDetails = 1;
    ExpectInt(Send(), count);
    if (count > 0) {
        EXPECT_EQ((std::vector<std::string>{" Net device path 1 - /net/dev"}), requesterLog_.Texts("raw"));
    }
    CIpcBasic::SetText(New<IpcRequest_RemoveNetDeviceCredential>(IPC_REQ_REMOVE_NET_DEVICE_CREDENTIAL)->cPath,
                       "/net/dev");
    ExpectBool(Send(), removed);
    EXPECT_EQ(0, nfs_.GetNetDeviceCredential(false));
}

// ---- records the server does not know, cut and short records --------------------------

TEST_F(IpcServerRequests, AnUnknownRequestTypeIsAnsweredWithItsNumber) {
    New<Ipc_Header>(33);  // stored as type 0
    ExpectText(Send(), IPC_REPLY_EXCEPTION, "Unknown request type (0)");
    New<Ipc_Header>(IPC_REQ_GET_VERSION);
    CIpcBasic::Record<Ipc_Header>(&data_.request)->iType = 99;
    ExpectText(Send(), IPC_REPLY_EXCEPTION, "Unknown request type (99)");
}

TEST_F(IpcServerRequests, ReplyAndUnknownGroupsAreAnsweredWithExceptions) {
    New<Ipc_Header>(IPC_REQ_GET_DESCRIPTION);
    CIpcBasic::Record<Ipc_Header>(&data_.request)->iGroup = IPC_GROUP_REPLY;
    ExpectText(Send(), IPC_REPLY_EXCEPTION, "Reply action group is not support (2)");
    CIpcBasic::Record<Ipc_Header>(&data_.request)->iGroup = 7;
    ExpectText(Send(), IPC_REPLY_EXCEPTION, "Unknown action group: 7 (2)");
    CIpcBasic::Record<Ipc_Header>(&data_.request)->iGroup = -1;
    ExpectText(Send(), IPC_REPLY_EXCEPTION, "Unknown action group: -1 (2)");
}

TEST_F(IpcServerRequests, ARequestOf5000BytesIsCutTo4096ByTheSingleRead) {
    nfs_.SetLogControl(CRuntimeParam::LOG_ERROR | CRuntimeParam::LOG_IPC);
    New<Ipc_Header>(IPC_REQ_GET_VERSION);
    std::string bytes = RecordBytes(data_.request) + std::string(5000 - 16, 'x');
    ExpectText(SendBytes(bytes), IPC_REPLY_MESSAGE, "1.4");
    EXPECT_EQ(1, log_.Count("[IpcServer.ParseData] Request action group (type = 1, ver = 1.4, dataLen = 4096)"))
        << log_.Dump();
    EXPECT_EQ(1, log_.Count("[IpcServer.ParseData] Reply action group (type = 5, ver = 1.4, dataLen = 2064)"));
}

TEST_F(IpcServerRequests, FieldsPastAShortRecordReadAsZero) {
    nfs_.SetLogControl(0x3FF);
    New<IpcRequest_SetLogControl>(IPC_REQ_SET_LOG_CONTROL)->iLogControl = 0x55;
    ExpectBool(SendBytes(RecordBytes(data_.request).substr(0, 16)), true);
    EXPECT_EQ(0, nfs_.GetRuntimeParam()->GetLogControl());

    auto* s = New<IpcRequest_AddSession>(IPC_REQ_ADD_SESSION);
    CIpcBasic::SetText(s->cSessionID, "abc");
    CIpcBasic::SetText(s->cLocalMountFolder, "/never/sent");
    ExpectBool(SendBytes(RecordBytes(data_.request).substr(0, 18)), true);
    EXPECT_TRUE(nfs_.IsLocalSessionExists("ab"));
    EXPECT_FALSE(nfs_.IsLocalSessionExists("abc"));
}

TEST_F(IpcServerRequests, UnterminatedTextsAreReadOnlyToTheirFieldsLastByte) {
    New<IpcRequest_AddSession>(IPC_REQ_ADD_SESSION);
    memset(data_.request.cBuf + 16, 'A', data_.request.lDataLen - 16);
    ExpectBool(Send(), true);
    EXPECT_TRUE(nfs_.IsLocalSessionExists(std::string(255, 'A').c_str()));
    nfs_.GetUtils()->SetCallback(&log_);
    EXPECT_EQ(1, nfs_.GetSessionInfo(true));
    EXPECT_EQ(1, log_.Count(" Session 1 - " + std::string(255, 'A') + " : " + std::string(1023, 'A')));
}

TEST_F(IpcServerRequests, AConnectionThatSendsNothingDoesNotStopTheNextOne) {
    std::string why;
    EXPECT_EQ("", RawExchange(CHANNEL, "", &why, 300));
    New<Ipc_Header>(IPC_REQ_GET_VERSION);
    ExpectText(Send(), IPC_REPLY_MESSAGE, "1.4");
}

}  // namespace
