// Two real processes: an external server process (the test host standing in
// for the console program in mode svr) and this test as the controlling
// process, joined only by the IPC channels. The controller starts the NFS
// server, adds an export and a redirected file through IPC; the libnfs
// client reads the file byte for byte and changes it; the notifications
// reach this process's callback with their exact fields and its answers
// decide the NFS results. Channel ownership across processes and the
// shutdown request. Each test has a private /tmp and network, which the
// server process inherits.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <nfsc/libnfs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "IpcServerProcess.h"
#include "IpcTestSupport.h"
#include "LibnfsMount.h"
#include "NfsIpcClientMain.h"
#include "NotificationRecorder.h"
#include "TestSupport.h"
#include "Utilities.h"

namespace {

using Call = NotificationRecorder::Call;
const char* const EXPORT_NAME = "datastore";
const char* const MOUNT_OPTIONS = "nfsport=2049&mountport=1058&auto-traverse-mounts=0";
constexpr long long MiB = 1LL << 20;

// Bytes that differ at every position of every seed.
std::string Content(uint32_t seed, size_t n) {
    std::string out(n, '\0');
    uint64_t x = seed * 0x9E3779B97F4A7C15ull + 1;
    for (size_t i = 0; i < n; ++i) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        out[i] = (char)(x >> 24);
    }
    return out;
}

// Answers every notification with the recorder's answer, except that writes
// may be taken whole (answered with their length).
class Controller : public NotificationRecorder {
public:
    int WriteRedirectedFile(const char* id, const char* path, unsigned long long iSeek, int iSeekType,
                            unsigned int iLen) override {
        int answer = NotificationRecorder::WriteRedirectedFile(id, path, iSeek, iSeekType, iLen);
        return m_acceptWrites ? (int)iLen : answer;
    }
    void AcceptWrites(bool accept) { m_acceptWrites = accept; }

private:
    std::atomic<bool> m_acceptWrites{false};
};

Call MakeCall(const std::string& op, const std::string& path) {
    Call c;
    c.op = op;
    c.id = EXPORT_NAME;
    c.path = path;
    return c;
}

class IpcTwoProcesses : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(tmp_.Ok()) << tmp_.Error(); }
    void TearDown() override {
        client_.StopRemoteController();
        client_.Terminate();
        for (IpcServerProcess* p : {&server_, &second_}) p->Terminate();
    }
    void StartClient() {
        client_.SetCallback(&controller_);
        char err[ERROR_TEXT_SIZE] = "";
        ASSERT_TRUE(client_.Initial(err)) << err;
        ASSERT_TRUE(client_.StartRemoteController(err)) << err;
    }
    std::string Version() {
        char text[CNfsMain::INFO_TEXT_SIZE];
        client_.GetVersion(text);
        return text;
    }

    // Opened before /tmp is hidden: the build may live there.
    IpcServerProcess server_;
    IpcServerProcess second_;
    PrivateTmp tmp_{true};
    Controller controller_;
    CNfsIpcClientMain client_{"ctl", CRuntimeParam::LOG_ERROR};
};

TEST_F(IpcTwoProcesses, AClientReadsAndChangesARedirectedFileAndTheControllerDecides) {
    ASSERT_TRUE(server_.Start(IpcServerProcess::Arguments("nfs-host", CRuntimeParam::LOG_ERROR, true)))
        << server_.Output();
    StartClient();
    EXPECT_EQ("1.4", Version());
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(client_.StartServer(0, 0, 0, 0, false, err)) << err;  // 2049 and 1058
    EXPECT_EQ(3, client_.GetServerStatus());

    TempDir exportDir;
    TempDir sourceDir;
    const std::string root = Canonical(exportDir.Path());
    ASSERT_TRUE(client_.AddMountPoint(root.c_str(), EXPORT_NAME, err)) << err;

    // Two sources; the disk is a hole, a piece of each source and a tail
    // without source.
    const std::string a = Canonical(sourceDir.Path()) + "/a.bin";
    const std::string b = Canonical(sourceDir.Path()) + "/b.bin";
    WriteWholeFile(a, Content(1, 2 * MiB));
    WriteWholeFile(b, Content(2, 3 * MiB));
    const std::string disk = root + "/vm-flat.vmdk";
    WriteWholeFile(disk, "local bytes");
    const long long size = 4 * MiB + 777;
    client_.OpenRedirectedFile(disk.c_str(), size, false, 0, 0);
    std::string reference((size_t)size, '\0');
    struct Piece {
        const std::string* source;
        long long from, at, length;
    } pieces[] = {{&a, 1000, 5000, MiB + 3}, {&b, MiB - 7, 5000 + MiB + 3, 2 * MiB}};
    for (const Piece& p : pieces) {
        ASSERT_TRUE(client_.AddRedirectedFileSegment(disk.c_str(), p.source->c_str(), p.from, p.at, p.length, err))
            << err;
        reference.replace((size_t)p.at, (size_t)p.length, ReadWholeFile(*p.source).substr((size_t)p.from, (size_t)p.length));
    }

    LibnfsMount nfs;
    std::string why;
    ASSERT_TRUE(nfs.Mount(MOUNT_OPTIONS, EXPORT_NAME, &why)) << why;
    struct nfs_stat_64 st;
    ASSERT_EQ(0, nfs_stat64(nfs.Get(), "/vm-flat.vmdk", &st)) << nfs_get_error(nfs.Get());
    EXPECT_EQ((uint64_t)size, st.nfs_size);
    struct nfsfh* fh = nullptr;
    ASSERT_EQ(0, nfs_open(nfs.Get(), "/vm-flat.vmdk", O_RDWR, &fh)) << nfs_get_error(nfs.Get());
    std::string whole;
    std::string buffer((size_t)MiB, '\0');
    for (;;) {
        int n = nfs_pread(nfs.Get(), fh, whole.size(), buffer.size(), &buffer[0]);
        ASSERT_GE(n, 0) << nfs_get_error(nfs.Get());
        if (n == 0) break;
        whole.append(buffer, 0, (size_t)n);
        ASSERT_LE((long long)whole.size(), size);
    }
    ASSERT_EQ(reference.size(), whole.size());
    EXPECT_TRUE(reference == whole);

    // Writes: reported with position and length, the answer is the count.
    controller_.AcceptWrites(true);
    const std::string data = Content(3, 20000);
    EXPECT_EQ(20000, nfs_pwrite(nfs.Get(), fh, 3 * MiB + 1, data.size(), data.data())) << nfs_get_error(nfs.Get());
    std::vector<Call> calls = controller_.Calls();
    std::sort(calls.begin(), calls.end(), [](const Call& x, const Call& y) { return x.iSeek < y.iSeek; });
    Call w1 = MakeCall("write", disk);
    w1.iSeek = 3 * MiB + 1;
    w1.iLen = 16384;
    Call w2 = MakeCall("write", disk);
    w2.iSeek = 3 * MiB + 1 + 16384;
    w2.iLen = 20000 - 16384;
    EXPECT_EQ((std::vector<Call>{w1, w2}), calls);
    controller_.Clear();
    controller_.AcceptWrites(false);
    controller_.SetAnswer(-1);
    EXPECT_LT(nfs_pwrite(nfs.Get(), fh, 7, 10, data.data()), 0);
    Call refused = MakeCall("write", disk);
    refused.iSeek = 7;
    refused.iLen = 10;
    EXPECT_EQ((std::vector<Call>{refused}), controller_.Calls());
    nfs_close(nfs.Get(), fh);
    EXPECT_EQ("local bytes", ReadWholeFile(disk));

    // Size change: refused, then accepted.
    controller_.Clear();
    EXPECT_NE(0, nfs_truncate(nfs.Get(), "/vm-flat.vmdk", 12345));
    controller_.SetAnswer(0);
    EXPECT_EQ(0, nfs_truncate(nfs.Get(), "/vm-flat.vmdk", 54321)) << nfs_get_error(nfs.Get());
    Call t1 = MakeCall("attributes", disk);
    t1.bSize = true;
    t1.iSize = 12345;
    Call t2 = t1;
    t2.iSize = 54321;
    EXPECT_EQ((std::vector<Call>{t1, t2}), controller_.Calls());

    // Rename and removal, accepted.
    controller_.Clear();
    const std::string moved = root + "/moved.vmdk";
    EXPECT_EQ(0, nfs_rename(nfs.Get(), "/vm-flat.vmdk", "/moved.vmdk")) << nfs_get_error(nfs.Get());
    Call rename = MakeCall("rename", disk);
    rename.pathTo = moved;
    EXPECT_EQ(0, nfs_unlink(nfs.Get(), "/moved.vmdk")) << nfs_get_error(nfs.Get());
    EXPECT_EQ((std::vector<Call>{rename, MakeCall("remove", moved)}), controller_.Calls());
    EXPECT_FALSE(PathExists(moved));

    // A refused removal fails at the client.
    const std::string other = root + "/other.vmdk";
    WriteWholeFile(other, "x");
    client_.OpenRedirectedFile(other.c_str(), MiB, false, 0, 0);
    controller_.Clear();
    controller_.SetAnswer(3);
    EXPECT_NE(0, nfs_unlink(nfs.Get(), "/other.vmdk"));
    EXPECT_EQ((std::vector<Call>{MakeCall("remove", other)}), controller_.Calls());

    // Log lines of requests that carry this process's ID come back here.
    EXPECT_EQ(1, client_.GetMountInfo(true, true));
    EXPECT_EQ((std::vector<std::string>{" Mount 1 - " + root + " : datastore (127.0.0.1) [ctl]"}),
              controller_.LinesStarting(" Mount"));

    // The granted shutdown request ends the server process.
    EXPECT_TRUE(client_.RequestAutoShutdown());
    EXPECT_EQ(0, server_.Wait());
    EXPECT_NE(std::string::npos, server_.Output().find("Exit by request")) << server_.Output();
    EXPECT_FALSE(PathExists("/tmp/nfs-server"));
    EXPECT_EQ("Unknown", Version());
}

TEST_F(IpcTwoProcesses, ASecondServerProcessIsRefusedAndAfterACrashTheNextOneBinds) {
    ASSERT_TRUE(server_.Start(IpcServerProcess::Arguments("first", CRuntimeParam::LOG_ERROR, true)))
        << server_.Output();
    EXPECT_FALSE(second_.Start(IpcServerProcess::Arguments("second", CRuntimeParam::LOG_ERROR, true)));
    EXPECT_EQ(1, second_.Wait());
    EXPECT_EQ("Ipc channel is already created by others.\n", second_.Output());

    server_.Kill();  // leaves its socket file behind
    EXPECT_TRUE(PathExists("/tmp/nfs-server"));
    ASSERT_TRUE(second_.Start(IpcServerProcess::Arguments("second", CRuntimeParam::LOG_ERROR, true)))
        << second_.Output();
    StartClient();
    EXPECT_EQ("1.4", Version());
    EXPECT_EQ(1, client_.GetServerStatus());
}

TEST_F(IpcTwoProcesses, AShutdownRequestIsRefusedByAServerWithoutAutoShutdown) {
    ASSERT_TRUE(server_.Start(IpcServerProcess::Arguments("manual", CRuntimeParam::LOG_ERROR, false)))
        << server_.Output();
    StartClient();
    EXPECT_FALSE(client_.RequestAutoShutdown());
    EXPECT_EQ(-1, server_.Wait(500));  // still running
    EXPECT_EQ("1.4", Version());
    server_.Terminate();
    EXPECT_FALSE(server_.Running());
    EXPECT_EQ(std::string::npos, server_.Output().find("Exit by request"));
}

TEST_F(IpcTwoProcesses, TheServerProcessRefusesAReservedId) {
    EXPECT_FALSE(server_.Start(IpcServerProcess::Arguments("server", CRuntimeParam::LOG_ERROR, true)));
    EXPECT_EQ(1, server_.Wait());
    EXPECT_EQ("Cannot use \"server\" as ID\n", server_.Output());
}

}  // namespace
