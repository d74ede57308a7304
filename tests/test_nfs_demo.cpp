// The example host program (examples/nfs_demo.cpp), run as a child process
// in a private network and mount namespace: what it prints, that a client
// mounts what it prints, and that it stops cleanly on SIGINT and SIGTERM.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

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

// The demo as a child whose standard output and error are read by the test.
class DemoProcess {
public:
    ~DemoProcess() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        if (m_fd != -1) close(m_fd);
    }

    bool Start(const std::vector<std::string>& args) {
        int fds[2];
        if (pipe(fds) == -1) return false;
        m_pid = fork();
        if (m_pid == -1) return false;
        if (m_pid == 0) {
            dup2(fds[1], 1);
            dup2(fds[1], 2);
            close(fds[0]);
            close(fds[1]);
            std::string name = "nfs_demo";
            std::vector<char*> argv{const_cast<char*>(name.c_str())};
            for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            fexecve(g_demoFd, argv.data(), environ);
            _exit(127);
        }
        close(fds[1]);
        m_fd = fds[0];
        return true;
    }

    // Reads until a line equal to line has come (true) or the output ends.
    bool ReadUntilLine(const std::string& line) {
        while (true) {
            for (const std::string& l : SplitLines(m_output))
                if (l == line) return true;
            if (!ReadMore()) return false;
        }
    }

    // Sends signal (0: none), reads everything and returns the exit status.
    int Finish(int signal) {
        if (signal != 0) kill(m_pid, signal);
        while (ReadMore()) {
        }
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        return status;
    }

    const std::string& Output() const { return m_output; }
    bool HasLine(const std::string& line) const {
        for (const std::string& l : SplitLines(m_output))
            if (l == line) return true;
        return false;
    }

private:
    // One read; false at the end of the output (or when nothing comes for
    // 30 seconds, so that a broken demo fails the test instead of hanging it).
    bool ReadMore() {
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, 30000) != 1) return false;
        char buf[4096];
        ssize_t n = read(m_fd, buf, sizeof buf);
        if (n <= 0) return false;
        m_output.append(buf, (size_t)n);
        return true;
    }

    pid_t m_pid = -1;
    int m_fd = -1;
    std::string m_output;
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

TEST_F(Demo, WithoutArgumentsServesTheDemoFolderAndPrintsHowAClientReachesIt) {
    DemoProcess demo;
    ASSERT_TRUE(demo.Start({}));
    ASSERT_TRUE(demo.ReadUntilLine(READY)) << demo.Output();
    EXPECT_TRUE(demo.HasLine("nfs_demo: serving with the internal portmapper on port 111")) << demo.Output();
    EXPECT_TRUE(demo.HasLine("nfs_demo: MOUNT port 1058, NFS port 2049")) << demo.Output();
    EXPECT_TRUE(demo.HasLine("nfs_demo: export \"demo\" = /tmp/nfsengine-demo")) << demo.Output();
    EXPECT_TRUE(demo.HasLine(
        "    nfs_parse_url_incomplete(nfs, \"nfs://127.0.0.1/?nfsport=2049&mountport=1058&auto-traverse-mounts=0\");"))
        << demo.Output();
    EXPECT_TRUE(demo.HasLine("    nfs_mount(nfs, \"127.0.0.1\", \"demo\");")) << demo.Output();
    EXPECT_EQ("Hello from the NFS engine.\n", ReadWholeFile("/tmp/nfsengine-demo/hello.txt"));
    EXPECT_TRUE(PathExists("/tmp/nfsengine-demo/README.txt"));

    // What it printed works: the export is mounted by its bare name.
    EXPECT_EQ(0u, Mount(1058, "demo"));

    int status = demo.Finish(SIGTERM);
    ASSERT_TRUE(WIFEXITED(status)) << demo.Output();
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_TRUE(demo.HasLine("nfs_demo: SIGTERM received, stopping")) << demo.Output();
    EXPECT_TRUE(demo.HasLine("nfs_demo: stopped")) << demo.Output();
    EXPECT_NE(std::string::npos, demo.Output().find("[MountProg.ProcedureMNT] Mount OK")) << demo.Output();
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
