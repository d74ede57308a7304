// The example host program (examples/nfs_demo.cpp), run as a child process
// in a private network and mount namespace: what it prints, that a client
// mounts what it prints, and that it stops cleanly on SIGINT and SIGTERM.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <nfsc/libnfs.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "LibnfsMount.h"
#include "PrivateMounts.h"
#include "PrivateNetwork.h"
#include "RpcTestClient.h"
#include "TestSupport.h"
#include "VSphereToolStandIn.h"

namespace {

constexpr uint32_t MOUNT = 100005;
constexpr uint32_t MNT = 1;

// The demo is built beside the tests folder.
std::string DemoPath() { return FolderOf(OwnExecutablePath()) + "../nfs_demo"; }

// The demo opened before the test hides /tmp behind a private tmpfs (the
// build may well live under /tmp), run from this descriptor.
int g_demoFd = -1;

// The demo as a child whose standard output and error the test reads.
class DemoProcess : public ChildProcess {
public:
    bool Start(const std::vector<std::string>& args) { return ChildProcess::Start(g_demoFd, "nfs_demo", args); }
    // Reads until the line has come (true) or the output ends.
    bool ReadUntilLine(const std::string& line) { return HasLine(line) || ReadUntil("\n" + line + "\n"); }
};

// MNT of name on the MOUNT port: the mount status (13 refused, 0 mounted).
uint32_t Mount(uint16_t port, const std::string& name) {
    RpcTestClient client(RpcTestClient::TCP, port);
    XdrEncoder args;
    args.PutString(name);
    RpcReply reply;
    if (!client.Call(1, MOUNT, 3, MNT, args.GetBytes(), reply) || reply.results.size() < 4) return 0xFFFFFFFF;
    return WordAt(reply.results, 0);
}

const char* const READY = "nfs_demo: press Ctrl+C to stop";

class Demo : public testing::Test {
protected:
    void SetUp() override {
        if (g_demoFd == -1) g_demoFd = open(DemoPath().c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_NE(-1, g_demoFd) << "the demo is not built: " << DemoPath();
        std::string why;
        ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
        // The demo's built-in folder lives under /tmp, and the system
        // portmapper's socket under /run: keep both in this test.
        tmp.reset(new ScopedTmpfs("/tmp", "mode=1777"));
        ASSERT_TRUE(tmp->Ok()) << tmp->Error();
        run.reset(new ScopedTmpfs("/run", "mode=0755"));
        ASSERT_TRUE(run->Ok()) << run->Error();
    }
    void TearDown() override {
        run.reset();
        tmp.reset();
    }

    std::unique_ptr<ScopedTmpfs> tmp;
    std::unique_ptr<ScopedTmpfs> run;
};

}  // namespace

TEST_F(Demo, WithoutArgumentsServesAVirtualDiskChecksItThroughNfsAndPrintsHowHostsMountIt) {
    const auto started = std::chrono::steady_clock::now();
    DemoProcess demo;
    ASSERT_TRUE(demo.Start({"--log", "3"}));
    ASSERT_TRUE(demo.ReadUntilLine(READY)) << demo.Output();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
    EXPECT_TRUE(demo.HasLine("nfs_demo: serving with the internal portmapper on port 111")) << demo.Output();
    EXPECT_TRUE(demo.HasLine("nfs_demo: MOUNT port 1058, NFS port 2049")) << demo.Output();
    EXPECT_TRUE(demo.HasLine("nfs_demo: export \"demo\" = /tmp/nfsengine-demo")) << demo.Output();
    EXPECT_TRUE(demo.HasLine("    [  65536,   98304) hole (no segment): zeros")) << demo.Output();
    EXPECT_TRUE(demo.HasLine("    [ 163840,  196608) segment without source: zeros")) << demo.Output();

    // The checksum line: the disk read through NFS equals the local assembly.
    std::string checksum;
    for (const std::string& l : demo.Lines())
        if (l.find("nfs_demo: read 262144 bytes of vm-disk.vmdk through NFS (libnfs): checksum ") == 0) checksum = l;
    ASSERT_FALSE(checksum.empty()) << demo.Output();
    EXPECT_EQ(checksum.size() - strlen(": match"), checksum.rfind(": match")) << checksum;
    const std::string served = checksum.substr(checksum.find("checksum ") + 9, 16);
    EXPECT_NE(std::string::npos, checksum.find("local reference " + served)) << checksum;

    // How each kind of client mounts the export, with the explicit ports.
    EXPECT_TRUE(demo.HasLine("    mount -t nfs -o vers=3,proto=tcp,port=2049,mountport=1058,mountproto=tcp,nolock,noacl "
                             "127.0.0.1:demo /mnt/demo"))
        << demo.Output();
    EXPECT_TRUE(demo.HasLine("    esxcli storage nfs add --host=127.0.0.1 --share=demo --volume-name=demo"))
        << demo.Output();
    EXPECT_TRUE(demo.HasLine(
        "    nfs_parse_url_incomplete(nfs, \"nfs://127.0.0.1/?nfsport=2049&mountport=1058&auto-traverse-mounts=0\");"))
        << demo.Output();
    EXPECT_TRUE(demo.HasLine("    nfs_mount(nfs, \"127.0.0.1\", \"demo\");")) << demo.Output();

    // The backup and the disk as another client sees them: the disk's
    // ranges are the backup files' bytes, and zeros in the hole and in the
    // range without source. The demo unmounted after its own check.
    const std::string disk0 = ReadWholeFile("/tmp/nfsengine-demo/backup/disk-0.bin");
    const std::string disk1 = ReadWholeFile("/tmp/nfsengine-demo/backup/disk-1.bin");
    const std::string disk2 = ReadWholeFile("/tmp/nfsengine-demo/backup/disk-2.bin");
    ASSERT_EQ(98304u, disk0.size());
    EXPECT_NE(disk0, disk1);
    {
        LibnfsMount client;
        std::string why;
        ASSERT_TRUE(client.Mount("nfsport=2049&mountport=1058&auto-traverse-mounts=0", "demo", &why)) << why;
        struct nfsfh* fh = nullptr;
        ASSERT_EQ(0, nfs_open(client.Get(), "/vm-disk.vmdk", O_RDONLY, &fh)) << nfs_get_error(client.Get());
        std::string data(262144 + 10, '\x55');
        size_t got = 0;
        int n;
        while ((n = nfs_pread(client.Get(), fh, got, 65536, &data[got])) > 0) got += (size_t)n;
        nfs_close(client.Get(), fh);
        nfs_umount(client.Get());
        ASSERT_EQ(262144u, got);
        EXPECT_EQ(disk0.substr(0, 65536), data.substr(0, 65536));
        EXPECT_EQ(std::string(32768, '\0'), data.substr(65536, 32768));
        EXPECT_EQ(disk1.substr(4096, 65536), data.substr(98304, 65536));
        EXPECT_EQ(std::string(32768, '\0'), data.substr(163840, 32768));
        EXPECT_EQ(disk2.substr(8192, 65536), data.substr(196608, 65536));
    }
    EXPECT_EQ(0u, Mount(1058, "demo"));

    int status = demo.Finish(SIGINT);
    ASSERT_TRUE(WIFEXITED(status)) << demo.Output();
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_TRUE(demo.HasLine("nfs_demo: SIGINT received, stopping")) << demo.Output();
    EXPECT_TRUE(demo.HasLine("nfs_demo: stopped")) << demo.Output();
    EXPECT_NE(std::string::npos, demo.Output().find("[MountProg.ProcedureMNT] Mount OK")) << demo.Output();
}

TEST_F(Demo, StopsCleanlyOnSigterm) {
    DemoProcess demo;
    ASSERT_TRUE(demo.Start({}));
    ASSERT_TRUE(demo.ReadUntilLine(READY)) << demo.Output();
    // Errors only by default: no info lines.
    EXPECT_EQ(std::string::npos, demo.Output().find("[info]")) << demo.Output();
    int status = demo.Finish(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << demo.Output();
    EXPECT_TRUE(demo.HasLine("nfs_demo: SIGTERM received, stopping")) << demo.Output();
}

TEST_F(Demo, ServesTheGivenExportsOnTheGivenPortsAndStopsOnSigint) {
    TempDir first, second;
    DemoProcess demo;
    ASSERT_TRUE(demo.Start({"--mount-port", "4058", "--nfs-port", "3049", "--read-only", "--log", "0",
                            first.Path() + "=backup", second.Path() + "=other"}));
    ASSERT_TRUE(demo.ReadUntilLine(READY)) << demo.Output();
    EXPECT_TRUE(demo.HasLine("nfs_demo: MOUNT port 4058, NFS port 3049, read-only")) << demo.Output();
    EXPECT_TRUE(demo.HasLine("nfs_demo: export \"backup\" = " + first.Path())) << demo.Output();
    EXPECT_TRUE(demo.HasLine("nfs_demo: export \"other\" = " + second.Path())) << demo.Output();
    EXPECT_TRUE(demo.HasLine(
        "    nfs_parse_url_incomplete(nfs, \"nfs://127.0.0.1/?nfsport=3049&mountport=4058&auto-traverse-mounts=0\");"))
        << demo.Output();
    EXPECT_TRUE(demo.HasLine("    nfs_mount(nfs, \"127.0.0.1\", \"backup\");")) << demo.Output();
    EXPECT_TRUE(demo.HasLine("    mount -t nfs -o vers=3,proto=tcp,port=3049,mountport=4058,mountproto=tcp,nolock,noacl,ro "
                             "127.0.0.1:backup /mnt/backup"))
        << demo.Output();
    EXPECT_FALSE(PathExists("/tmp/nfsengine-demo"));

    EXPECT_EQ(0u, Mount(4058, "other"));
    EXPECT_EQ(13u, Mount(4058, "demo"));

    int status = demo.Finish(SIGINT);
    ASSERT_TRUE(WIFEXITED(status)) << demo.Output();
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_TRUE(demo.HasLine("nfs_demo: SIGINT received, stopping")) << demo.Output();
    // Log control 0: nothing but the demo's own lines.
    EXPECT_EQ(std::string::npos, demo.Output().find("[info]")) << demo.Output();
}

TEST_F(Demo, BesideASystemPortmapperPrintsTheRaisedPorts) {
    RpcbindProcess rpcbind;
    std::string why;
    ASSERT_TRUE(rpcbind.Start(&why)) << why;
    DemoProcess demo;
    ASSERT_TRUE(demo.Start({"--log", "1"}));
    ASSERT_TRUE(demo.ReadUntilLine(READY)) << demo.Output();
    EXPECT_TRUE(demo.HasLine("nfs_demo: serving with the system portmapper on port 111")) << demo.Output();
    EXPECT_TRUE(demo.HasLine("nfs_demo: MOUNT port 1059, NFS port 2050")) << demo.Output();
    EXPECT_EQ(0u, Mount(1059, "demo"));
    int status = demo.Finish(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << demo.Output();
}

TEST_F(Demo, AFailedStartIsReportedWithTheServersText) {
    int holder = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(2049);
    ASSERT_EQ(0, bind(holder, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    ASSERT_EQ(0, listen(holder, 1));

    DemoProcess demo;
    ASSERT_TRUE(demo.Start({"--log", "0"}));
    int status = demo.Finish(0);
    close(holder);
    ASSERT_TRUE(WIFEXITED(status)) << demo.Output();
    EXPECT_EQ(1, WEXITSTATUS(status));
    EXPECT_TRUE(demo.HasLine("nfs_demo: cannot start the server: NFS daemon failed to open port 2049")) << demo.Output();
}

TEST_F(Demo, AnExportThatCannotBeAddedEndsTheDemo) {
    TempDir dir;
    DemoProcess demo;
    ASSERT_TRUE(demo.Start({"--log", "0", dir.Path() + "=a b"}));
    int status = demo.Finish(0);
    ASSERT_TRUE(WIFEXITED(status)) << demo.Output();
    EXPECT_EQ(1, WEXITSTATUS(status));
    EXPECT_TRUE(demo.HasLine("nfs_demo: cannot export " + dir.Path() + " as \"a b\": Invalid char \" \" inside export name"))
        << demo.Output();
    EXPECT_TRUE(demo.HasLine("nfs_demo: stopped")) << demo.Output();
}

TEST_F(Demo, HelpAndBadArguments) {
    DemoProcess help;
    ASSERT_TRUE(help.Start({"--help"}));
    int status = help.Finish(0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(0u, help.Output().find("Usage: nfs_demo [options] [PATH=NAME ...]")) << help.Output();

    for (std::vector<std::string> args : {std::vector<std::string>{"--nfs-port", "x"},
                                          std::vector<std::string>{"--mount-port"},
                                          std::vector<std::string>{"--log", "4096"},
                                          std::vector<std::string>{"=name"}, std::vector<std::string>{"/path="},
                                          std::vector<std::string>{"--unknown"}}) {
        DemoProcess demo;
        ASSERT_TRUE(demo.Start(args));
        status = demo.Finish(0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << args[0] << "\n" << demo.Output();
        EXPECT_NE(std::string::npos, demo.Output().find("nfs_demo: bad argument \"" + args[0] + "\"")) << demo.Output();
    }
}
