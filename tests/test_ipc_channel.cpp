// Owning, opening and closing IPC channels: one server per channel, a stale
// socket file replaced, open failures with their texts, the ID rules of the
// external controllers, and the serving thread's life. Each test has a
// private /tmp.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "IpcServer.h"
#include "IpcServerThread.h"
#include "IpcTestSupport.h"
#include "LogRecorder.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "TestSupport.h"
#include "Utilities.h"

namespace {

const char* const CHANNEL = "/tmp/nfs-server";

std::string AskVersion(const std::string& channel) {
    IpcDataInst data;
    CIpcBasic::InitialRequestData(&data, IPC_REQ_GET_VERSION);
    ParsedReply r = ParseReply(RawExchange(channel, RecordBytes(data.request)));
    return r.type == IPC_REPLY_MESSAGE ? r.text : "";
}

// A socket file as a crashed server leaves it: bound, then closed without
// removing the file.
void LeaveStaleSocketFile(const std::string& path) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a));
    ASSERT_EQ(0, listen(fd, 1));
    close(fd);
}

class IpcChannel : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(tmp_.Ok()) << tmp_.Error(); }
    PrivateTmp tmp_;
};

TEST_F(IpcChannel, ASecondServerIsRefusedWhileTheFirstAnswers) {
    CNfsIpcServerMain first("first", CRuntimeParam::LOG_ERROR);
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(first.Initial(err)) << err;
    ASSERT_TRUE(first.StartRemoteController(err)) << err;
    // Starting again is a no-op success.
    EXPECT_TRUE(first.StartRemoteController(err));

    CNfsIpcServerMain second("second", CRuntimeParam::LOG_ERROR);
    ASSERT_TRUE(second.Initial(err)) << err;
    EXPECT_FALSE(second.StartRemoteController(err));
    EXPECT_STREQ("Ipc channel is already created by others.", err);
    EXPECT_EQ("1.4", AskVersion(CHANNEL));

    first.StopRemoteController();
    EXPECT_FALSE(PathExists(CHANNEL));
    EXPECT_TRUE(second.StartRemoteController(err)) << err;
    EXPECT_EQ("1.4", AskVersion(CHANNEL));
    second.StopRemoteController();
}

TEST_F(IpcChannel, AStaleSocketFileIsReplaced) {
    LeaveStaleSocketFile(CHANNEL);
    ASSERT_TRUE(PathExists(CHANNEL));
    CNfsIpcServerMain nfs("srv", CRuntimeParam::LOG_ERROR);
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(nfs.Initial(err)) << err;
    ASSERT_TRUE(nfs.StartRemoteController(err)) << err;
    EXPECT_EQ("1.4", AskVersion(CHANNEL));
    struct stat st;
    ASSERT_EQ(0, stat(CHANNEL, &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(0777u, st.st_mode & 0777);
    nfs.StopRemoteController();
}

TEST_F(IpcChannel, TheExternalControllersRefuseReservedAndInvalidIds) {
    const struct {
        const char* id;
        const char* text;
    } cases[] = {{"server", "Cannot use \"server\" as ID"},
                 {"a/b", "Invalid char \"/\" inside ID"},
                 {"a b/c", "Invalid char \" \" inside ID"},
                 {"", "ID is not defined"}};
    for (const auto& c : cases) {
        char err[ERROR_TEXT_SIZE] = "";
        CNfsIpcServerMain server(c.id, CRuntimeParam::LOG_ERROR);
        EXPECT_FALSE(server.Initial(err)) << c.id;
        EXPECT_STREQ(c.text, err);
        err[0] = '\0';
        CNfsIpcClientMain client(c.id, CRuntimeParam::LOG_ERROR);
        EXPECT_FALSE(client.Initial(err)) << c.id;
        EXPECT_STREQ(c.text, err);
    }
    CNfsIpcServerMain fine("instance-1", CRuntimeParam::LOG_ERROR);
    char err[ERROR_TEXT_SIZE] = "";
    EXPECT_TRUE(fine.Initial(err)) << err;
    EXPECT_EQ(1, fine.GetAccessMode());
    char text[CNfsMain::INFO_TEXT_SIZE];
    fine.GetDescription(text);
    EXPECT_STREQ("External NFS Server", text);
}

TEST_F(IpcChannel, OpenFailuresAreReportedWithTheirTexts) {
    CNfsMain nfs("srv", CRuntimeParam::LOG_ERROR);
    CIpcServer server(&nfs);
    char err[ERROR_TEXT_SIZE] = "";
    EXPECT_FALSE(server.ReadRequest(err));
    EXPECT_STREQ("Channel not yet opened.", err);
    EXPECT_FALSE(server.Open(nullptr, err));
    EXPECT_STREQ("Channel is not defined", err);
    EXPECT_FALSE(server.Open("/tmp/no-such-folder/nfs-x", err));
    char reason[ERROR_TEXT_SIZE] = "";
    CUtilities::GetLastErrorText(reason, ENOENT);
    EXPECT_EQ(std::string("Fail to bind ipc server socket. ") + reason, err);
    EXPECT_FALSE(server.IsOpened());

    ASSERT_TRUE(server.Open("/tmp/nfs-x", err)) << err;
    EXPECT_FALSE(server.Open("/tmp/nfs-y", err));
    EXPECT_STREQ("Channel already opened", err);
    server.Close();
    EXPECT_FALSE(server.IsOpened());
    EXPECT_FALSE(PathExists("/tmp/nfs-x"));
}

TEST_F(IpcChannel, TheServingThreadEndsWhenItsChannelIsClosed) {
    CNfsMain nfs("srv", CRuntimeParam::LOG_ERROR);
    CIpcServerThread thread;
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(thread.Open("/tmp/nfs-t", &nfs, err)) << err;
    EXPECT_TRUE(thread.IsActive());
    EXPECT_EQ("1.4", AskVersion("/tmp/nfs-t"));
    const int threads = CountThreads();
    thread.Close();
    EXPECT_FALSE(thread.IsActive());
    EXPECT_EQ(threads - 1, CountThreads());
    EXPECT_FALSE(PathExists("/tmp/nfs-t"));
    thread.Close();  // twice is harmless
    // A thread on a path that cannot be bound is not started.
    EXPECT_FALSE(thread.Open("/tmp/none/nfs-t", &nfs, err));
    EXPECT_FALSE(thread.IsActive());
}

TEST_F(IpcChannel, APeerThatSendsNothingDoesNotHoldUpClosing) {
    CNfsMain nfs("srv", CRuntimeParam::LOG_ERROR);
    CIpcServerThread thread;
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(thread.Open("/tmp/nfs-t", &nfs, err)) << err;
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    strncpy(a.sun_path, "/tmp/nfs-t", sizeof a.sun_path - 1);
    ASSERT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a));
    usleep(100 * 1000);  // the thread is reading from it now
    timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    thread.Close();
    clock_gettime(CLOCK_MONOTONIC, &end);
    EXPECT_LT(end.tv_sec - start.tv_sec, 2);
    EXPECT_FALSE(thread.IsActive());
    close(fd);
}

TEST_F(IpcChannel, ProgressIsLoggedWithTheIpcStateBit) {
    LogRecorder log;
    CNfsMain nfs("srv", CRuntimeParam::LOG_IPC_STATE);
    nfs.SetCallback(&log);
    CIpcServerThread thread;
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(thread.Open("/tmp/nfs-t", &nfs, err)) << err;
    EXPECT_EQ("1.4", AskVersion("/tmp/nfs-t"));
    thread.Close();
    for (const char* line : {"[IpcServer.Open] Open channel: /tmp/nfs-t", "[IpcServer.Open] Bind ipc server socket",
                             "[IpcServer.ReadRequest] Accept ipc request", "[IpcServer.ReadRequest] Read ipc request",
                             "[IpcServer.ReadRequest] Send ipc reply"})
        EXPECT_LE(1, log.Count(line)) << line << "\n" << log.Dump();
}

}  // namespace
