// A real NFS client (libnfs) against the whole server: mount an export by
// name, list a folder over several READDIRPLUS pages, stat files and read the
// file-system figures; once with the internal portmapper and explicit ports,
// once through a real rpcbind. Every reply of a session must parse in tshark.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <nfsc/libnfs.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "LibnfsMount.h"
#include "LogRecorder.h"
#include "NfsMain.h"
#include "PrivateNetwork.h"
#include "TestSupport.h"
#include "TsharkCapture.h"
#include "Utilities.h"

namespace {

const char* const EXPORT_NAME = "datastore";

// A mounted client of the export.
class NfsClient : public LibnfsMount {
public:
    bool Mount(const std::string& options, std::string* why) { return LibnfsMount::Mount(options, EXPORT_NAME, why); }
};

class LibnfsClient : public testing::Test {
protected:
    void SetUp() override {
        std::string why;
        ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
        for (int i = 0; i < 25; ++i) {
            char name[32];
            snprintf(name, sizeof name, "file%02d.vmdk", i);
            WriteWholeFile(export_ / name, std::string((size_t)i * 100, 'x'));
        }
        ASSERT_EQ(0, mkdir((export_ / "folder").c_str(), 0755));
        main_.SetCallback(&log_);
    }
    void TearDown() override {
        main_.StopServer();
        main_.SetCallback(nullptr);
    }

    bool Start(int mountPort, int nfsPort) {
        char err[ERROR_TEXT_SIZE] = "";
        if (!main_.Initial(err) || !main_.StartServer(mountPort, nfsPort, 0, 0, false, err) ||
            !main_.AddMountPoint(export_.Path().c_str(), EXPORT_NAME, err)) {
            ADD_FAILURE() << err;
            return false;
        }
        return true;
    }

    // Lists the export's root, stats files and reads the figures.
    void BrowseAndCheck(NfsClient& client) {
        struct nfsdir* dir = nullptr;
        ASSERT_EQ(0, nfs_opendir(client.Get(), "/", &dir)) << nfs_get_error(client.Get());
        std::set<std::string> names;
        while (struct nfsdirent* e = nfs_readdir(client.Get(), dir)) {
            names.insert(e->name);
            if (std::string(e->name).rfind("file", 0) == 0) {
                int i = std::stoi(std::string(e->name).substr(4, 2));
                EXPECT_EQ((uint64_t)i * 100, e->size) << e->name;
            }
        }
        nfs_closedir(client.Get(), dir);
        for (int i = 0; i < 25; ++i) {
            char name[32];
            snprintf(name, sizeof name, "file%02d.vmdk", i);
            EXPECT_EQ(1u, names.count(name)) << name;
        }
        EXPECT_EQ(1u, names.count("folder"));

        struct nfs_stat_64 st;
        ASSERT_EQ(0, nfs_stat64(client.Get(), "/file07.vmdk", &st)) << nfs_get_error(client.Get());
        EXPECT_EQ(700u, st.nfs_size);
        EXPECT_TRUE(S_ISREG(st.nfs_mode));
        ASSERT_EQ(0, nfs_stat64(client.Get(), "/folder", &st)) << nfs_get_error(client.Get());
        EXPECT_TRUE(S_ISDIR(st.nfs_mode));
        EXPECT_NE(0, nfs_stat64(client.Get(), "/missing", &st));

        struct nfs_statvfs_64 vfs;
        ASSERT_EQ(0, nfs_statvfs64(client.Get(), "/", &vfs)) << nfs_get_error(client.Get());
        unsigned long long total = CUtilities::GetTotalDiskSpace(export_.Path().c_str());
        EXPECT_EQ(total, (unsigned long long)vfs.f_blocks * vfs.f_frsize);
        EXPECT_GT(vfs.f_files, 0u);
    }

    TempDir export_;
    LogRecorder log_;
    CNfsMain main_{"libnfs-test", CRuntimeParam::LOG_ERROR | CRuntimeParam::LOG_PROC_FUNC_NAME};
};

}  // namespace

TEST_F(LibnfsClient, BrowsesAnExportThroughExplicitPorts) {
    ASSERT_TRUE(Start(0, 0));  // internal portmapper: 2049 and 1058
    NfsClient client;
    std::string why;
    ASSERT_TRUE(client.Mount("nfsport=2049&mountport=1058&auto-traverse-mounts=0", &why)) << why;
    BrowseAndCheck(client);
    // 25 files, a folder, "." and "..": three pages of at most ten entries.
    EXPECT_EQ(3, log_.CountContaining("ProcedureREADDIRPLUS]")) << log_.Dump();
}

TEST_F(LibnfsClient, FindsThePortsThroughRpcbind) {
    RpcbindProcess rpcbind;
    std::string why;
    ASSERT_TRUE(rpcbind.Start(&why)) << why;
    ASSERT_TRUE(Start(0, 0));  // beside a system portmapper: 2050 and 1059, registered
    NfsClient client;
    ASSERT_TRUE(client.Mount("auto-traverse-mounts=0", &why)) << why;
    BrowseAndCheck(client);
}

TEST_F(LibnfsClient, EveryMessageOfAClientSessionDissectsCleanly) {
    TempDir captureDir;  // beside the export, not in it
    std::string capture = captureDir / "session.pcap";
    TsharkCapture tshark(capture);
    std::string why;
    ASSERT_TRUE(tshark.Start("port 111 or port 2049 or port 1058", &why)) << why;
    ASSERT_TRUE(Start(0, 0));
    {
        NfsClient client;
        ASSERT_TRUE(client.Mount("nfsport=2049&mountport=1058&auto-traverse-mounts=0", &why)) << why;
        BrowseAndCheck(client);
    }
    tshark.Stop();

    std::string read = "tshark -n -r " + capture + " -d tcp.port==1058,rpc ";
    // Every call has its reply, and the NFS and MOUNT traffic was dissected.
    std::string calls = RunCommand(read + "-Y 'rpc.msgtyp == 0' -T fields -e rpc.xid | sort");
    std::string replies = RunCommand(read + "-Y 'rpc.msgtyp == 1' -T fields -e rpc.xid | sort");
    EXPECT_FALSE(calls.empty());
    EXPECT_EQ(calls, replies);
    auto replies_of = [&](int program, int procedure) {
        return RunCommand(read + "-Y 'rpc.msgtyp == 1 && rpc.program == " + std::to_string(program) +
                          " && rpc.procedure == " + std::to_string(procedure) + "' | wc -l");
    };
    EXPECT_EQ("1\n", replies_of(100005, 1));  // MNT
    EXPECT_EQ("3\n", replies_of(100003, 17));  // READDIRPLUS pages
    EXPECT_EQ("1\n", replies_of(100003, 18));  // FSSTAT
    // No malformed packet, no expert error.
    EXPECT_EQ("", RunCommand(read + "-Y '_ws.malformed || _ws.expert.severity >= error' -T fields -e frame.number"));
    // Every reply is accepted and successful at the RPC level.
    EXPECT_EQ("", RunCommand(read + "-Y 'rpc.msgtyp == 1 && (rpc.replystat != 0 || rpc.state_accept != 0)'"));
}
