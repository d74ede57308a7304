// The console program in the external server placement (-md svr) and as
// its client (-md cli, -query, -shutdown): real processes talking over the
// channel /tmp/nfs-server, each test on a private /tmp and network.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ChildProcess.h"
#include "IpcTestSupport.h"
#include "LibnfsMount.h"
#include "PrivateMounts.h"
#include "TestSupport.h"
#include "VSphereToolStandIn.h"

namespace {

const char* const DASHES = "------------------------------------";
const char* const CHANNEL = "/tmp/nfs-server";
const char* const PROMPT = "\nCommand: ";

// Opened before /tmp is hidden: the build may live there.
int ConsoleFd() {
    static int fd = open((FolderOf(OwnExecutablePath()) + "../nfsengine").c_str(), O_RDONLY | O_CLOEXEC);
    return fd;
}

bool ExitedWith(int status, int code) { return WIFEXITED(status) && WEXITSTATUS(status) == code; }

// The lines of text from the first one equal to first, up to count lines.
std::vector<std::string> LinesFrom(const std::string& text, const std::string& first, size_t count) {
    std::vector<std::string> lines = SplitLines(text);
    for (size_t i = 0; i < lines.size(); ++i)
        if (lines[i] == first) return std::vector<std::string>(lines.begin() + i, lines.begin() + std::min(lines.size(), i + count));
    return {};
}

class ExternalConsole : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(-1, ConsoleFd()) << "nfsengine is not built beside the tests folder";
        tmp.reset(new PrivateTmp(true));
        ASSERT_TRUE(tmp->Ok()) << tmp->Error();
    }

    // Runs nfsengine with args and no input to its end; the wait status.
    int RunToEnd(const std::vector<std::string>& args, std::string* output) {
        ChildProcess p;
        if (!p.Start(ConsoleFd(), "nfsengine", args)) return -1;
        int status = p.Finish(0);
        *output = p.Output();
        return status;
    }

    // Starts a console and waits for its first prompt.
    bool StartConsole(ChildProcess& p, const std::vector<std::string>& args) {
        return p.Start(ConsoleFd(), "nfsengine", args) && p.ReadUntil(PROMPT);
    }

    std::unique_ptr<PrivateTmp> tmp;
};

}  // namespace

TEST_F(ExternalConsole, WithoutArgumentsItIsTheExternalServerNamedcRun) {
    ChildProcess server;
    ASSERT_TRUE(StartConsole(server, {})) << server.Output();
    EXPECT_TRUE(server.HasLine("Server Description: External NFS Server")) << server.Output();
    EXPECT_TRUE(PathExists(CHANNEL));
    size_t from = server.Output().size();
    ASSERT_TRUE(server.Send("debug\nprint hello\n"));
    ASSERT_TRUE(server.ReadUntil("[info] (cRun) hello\n", from)) << server.Output();
    // Log control 0: nothing but the printed line is logged, not even the
    // general-info lines of an export; with control 2 they are.
    TempDir quiet, loud;
    from = server.Output().size();
    ASSERT_TRUE(server.Send("start\nmount " + quiet.Path() + "=quiet\nstart\n"));
    ASSERT_TRUE(server.ReadUntil("NFS already running\n", from)) << server.Output();
    const std::string out = server.Output();
    EXPECT_EQ(out.find("[info]"), out.rfind("[info]")) << out;
    EXPECT_EQ(std::string::npos, out.find("[erro]")) << out;
    ASSERT_TRUE(server.Send("log 2\nmount " + loud.Path() + "=loud\n"));
    ASSERT_TRUE(server.ReadUntil("[info] (cRun) [NfsMain.AddMountPoint]", out.size())) << server.Output();
    ASSERT_TRUE(server.Send("quit\n"));
    EXPECT_TRUE(ExitedWith(server.Finish(0), 0)) << server.Output();
    EXPECT_FALSE(PathExists(CHANNEL));
}

TEST_F(ExternalConsole, QueryWithoutAServerIsNotAccessibleAndEndsWithZero) {
    TempDir dir;
    std::string out;
    int status = RunToEnd({"-query", "-logfile", dir / "q.log"}, &out);
    EXPECT_TRUE(ExitedWith(status, 0)) << out;
    std::vector<std::string> expected = {DASHES, "Execute Version: 1.4", "Server Version: Unknown",
                                         "Server Description: Unknown", DASHES, "Server Status: NotAccessible",
                                         DASHES};
    EXPECT_EQ(expected, SplitLines(out));
    // The client placement, with the query's default ID.
    EXPECT_NE(std::string::npos, ReadWholeFile(dir / "q.log").find("ID = qyRun, LogControl = 0, AccessMode = 2"));
}

TEST_F(ExternalConsole, AClientOrShutdownWithoutAServerEndsWithOne) {
    for (std::vector<std::string> args : {std::vector<std::string>{"-md", "cli"}, std::vector<std::string>{"-shutdown"}}) {
        std::string out;
        int status = RunToEnd(args, &out);
        EXPECT_TRUE(ExitedWith(status, 1)) << out;
        EXPECT_TRUE(LinesFrom(out, "Terminated. Reason=Fail to get server version", 1).size() == 1) << out;
    }
}

TEST_F(ExternalConsole, TheIdServerIsRefused) {
    std::string out;
    EXPECT_TRUE(ExitedWith(RunToEnd({"-md", "svr", "-id", "server"}, &out), 1)) << out;
    EXPECT_TRUE(LinesFrom(out, "Terminated. Reason=Cannot use \"server\" as ID", 1).size() == 1) << out;
    EXPECT_TRUE(ExitedWith(RunToEnd({"-md", "svr", "-id", "a/b"}, &out), 1)) << out;
    EXPECT_TRUE(LinesFrom(out, "Terminated. Reason=Invalid char \"/\" inside ID", 1).size() == 1) << out;
    EXPECT_FALSE(PathExists(CHANNEL));
}

TEST_F(ExternalConsole, ASecondServerFindsTheChannelTaken) {
    ChildProcess first;
    ASSERT_TRUE(StartConsole(first, {"-md", "svr", "-id", "first"})) << first.Output();
    std::string out;
    EXPECT_TRUE(ExitedWith(RunToEnd({"-md", "svr", "-id", "second"}, &out), 1)) << out;
    EXPECT_TRUE(LinesFrom(out, "Terminated. Reason=Ipc channel is already created by others.", 1).size() == 1) << out;
    // The first one still serves.
    EXPECT_TRUE(ExitedWith(RunToEnd({"-query"}, &out), 0)) << out;
    EXPECT_TRUE(LinesFrom(out, "Server Description: External NFS Server", 1).size() == 1) << out;
    EXPECT_TRUE(ExitedWith(first.Finish(SIGTERM), 0)) << first.Output();
}

TEST_F(ExternalConsole, SigtermStopsTheServerAndRemovesItsFiles) {
    TempDir dir;
    std::string pid = dir / "svr.pid";
    ChildProcess server;
    ASSERT_TRUE(StartConsole(server, {"-md", "svr", "-id", "term", "-pidfile", pid})) << server.Output();
    // Input at its end, as under a service manager.
    server.CloseInput();
    EXPECT_TRUE(PathExists(pid));
    EXPECT_TRUE(PathExists(CHANNEL));
    EXPECT_TRUE(ExitedWith(server.Finish(SIGTERM), 0)) << server.Output();
    EXPECT_TRUE(server.HasLine("Exit by request")) << server.Output();
    EXPECT_FALSE(PathExists(pid));
    EXPECT_FALSE(PathExists(CHANNEL));
}

TEST_F(ExternalConsole, ServedQueriedDrivenByAClientMountedAndShutDown) {
    TempDir dir;
    TempDir exported;
    WriteWholeFile(exported / "hello.txt", "served by the external process\n");
    std::string pid = dir / "svr.pid";
    std::string logFile = dir / "svr.log";

    // The external server process.
    ChildProcess server;
    ASSERT_TRUE(StartConsole(server, {"-md", "svr", "-id", "e2e", "-log", "3", "-pidfile", pid, "-logfile", logFile}))
        << server.Output();
    server.CloseInput();
    EXPECT_EQ(std::to_string(server.Pid()) + "\n", ReadWholeFile(pid));

    // -query prints its status.
    std::string out;
    ASSERT_TRUE(ExitedWith(RunToEnd({"-query"}, &out), 0)) << out;
    std::vector<std::string> stopped = {DASHES,
                                        "Execute Version: 1.4",
                                        "Server Version: 1.4",
                                        "Server Description: External NFS Server",
                                        DASHES,
                                        "Server Status: Stopped",
                                        DASHES,
                                        "Number of Mount Point: 0",
                                        DASHES,
                                        "Number of Session: 0",
                                        DASHES,
                                        "Number of mounted NFS datastore: 0",
                                        DASHES,
                                        "Number of Net Device info: 0",
                                        DASHES};
    EXPECT_EQ(stopped, SplitLines(out));

    // A client process drives it: starts the NFS server, adds an export.
    ChildProcess client;
    ASSERT_TRUE(StartConsole(client, {"-md", "cli", "-id", "driver"})) << client.Output();
    EXPECT_TRUE(client.HasLine("Server Description: External NFS Server")) << client.Output();
    size_t from = client.Output().size();
    ASSERT_TRUE(client.Send("debug\nstart\nmount " + exported.Path() + "=backup\nmount " + exported.Path() + "\n"));
    ASSERT_TRUE(client.ReadUntil("Start NFS success\n", from)) << client.Output();
    ASSERT_TRUE(client.ReadUntil("Fail to add mount point to NFS. Reason=In-valid input value: " + exported.Path() + "\n",
                                 from))
        << client.Output();
    EXPECT_EQ(std::string::npos, client.Output().find("Fail to add mount point to NFS. Reason=Invalid", from));

    // A real NFS client mounts the export and reads the file.
    {
        LibnfsMount nfs;
        std::string why;
        ASSERT_TRUE(nfs.Mount("nfsport=2049&mountport=1058&auto-traverse-mounts=0", "backup", &why)) << why;
    }

    // The status now shows the server running with its export; the
    // details come back over the query's own channel.
    ASSERT_TRUE(ExitedWith(RunToEnd({"-query", "-log", "3"}, &out), 0)) << out;
    EXPECT_EQ(1u, LinesFrom(out, "Server Status: Started", 1).size()) << out;
    EXPECT_EQ(1u, LinesFrom(out, "Number of Mount Point: 1", 1).size()) << out;
    EXPECT_NE(std::string::npos, out.find(" Mount 1 - " + exported.Path() + " : backup (127.0.0.1) [driver]")) << out;

    // The client leaves; the server keeps its export.
    ASSERT_TRUE(client.Send("quit\n"));
    EXPECT_TRUE(ExitedWith(client.Finish(0), 0)) << client.Output();
    EXPECT_FALSE(PathExists("/tmp/nfs-driver"));
    ASSERT_TRUE(ExitedWith(RunToEnd({"-query"}, &out), 0)) << out;
    EXPECT_EQ(1u, LinesFrom(out, "Number of Mount Point: 1", 1).size()) << out;

    // -shutdown makes it end with status 0 and remove its files.
    ASSERT_TRUE(ExitedWith(RunToEnd({"-shutdown"}, &out), 0)) << out;
    int status = server.Finish(0);
    EXPECT_TRUE(ExitedWith(status, 0)) << server.Output();
    EXPECT_TRUE(server.HasLine("Exit by request")) << server.Output();
    EXPECT_FALSE(PathExists(pid));
    EXPECT_FALSE(PathExists(CHANNEL));
    std::string log = ReadWholeFile(logFile);
    EXPECT_NE(std::string::npos, log.find("ID = e2e, LogControl = 3, AccessMode = 1")) << log;
    EXPECT_NE(std::string::npos, log.find("Stop NFS")) << log;
}

TEST_F(ExternalConsole, AShutdownRequestEndsTheServersLoopEvenWithInputOpen) {
    ChildProcess server;
    ASSERT_TRUE(StartConsole(server, {"-md", "svr", "-id", "open"})) << server.Output();
    std::string out;
    ASSERT_TRUE(ExitedWith(RunToEnd({"-shutdown", "-md", "cli"}, &out), 0)) << out;
    EXPECT_TRUE(ExitedWith(server.Finish(0), 0)) << server.Output();
    EXPECT_EQ(std::string("\nExit by request\n"), server.Output().substr(server.Output().rfind(PROMPT) + strlen(PROMPT)));
    EXPECT_FALSE(PathExists(CHANNEL));
}
