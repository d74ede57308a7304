// The console program nfsengine, run as a child process: its options, its
// pid file, and its interactive loop driven through a pseudo-terminal and
// through a pipe.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ChildProcess.h"
#include "LibnfsMount.h"
#include "PrivateMounts.h"
#include "PrivateNetwork.h"
#include "TestSupport.h"
#include "VSphereToolStandIn.h"

namespace {

const char* const DASHES = "------------------------------------";
const char* const RULE = "==========================";

// The console program is built at the top of the build folder.
int ConsoleFd() {
    static int fd = open((FolderOf(OwnExecutablePath()) + "../nfsengine").c_str(), O_RDONLY | O_CLOEXEC);
    return fd;
}

// Runs nfsengine with args and no input to its end; the wait status.
int RunToEnd(const std::vector<std::string>& args, std::string* output) {
    ChildProcess p;
    if (!p.Start(ConsoleFd(), "nfsengine", args)) return -1;
    int status = p.Finish(0);
    *output = p.Output();
    return status;
}

bool HasLineIn(const std::string& text, const std::string& line) {
    for (const std::string& l : SplitLines(text))
        if (l == line) return true;
    return false;
}

bool ExitedWith(int status, int code) { return WIFEXITED(status) && WEXITSTATUS(status) == code; }

const std::vector<std::string> BASIC_HELP = {
    RULE,
    "Command:",
    "  help: display help",
    "  quit: quit this program",
    "  log <num>: display log messages or not",
    "  status: show status",
};

const std::vector<std::string> DEBUG_HELP = {
    "  start<mount_port=nfs_port]: start server",
    "  mount <path=exportName>: add mount point",
    "  umount <path>: remove mount point",
    "  test <dirPath=fileSizeInByte>: run platform test on target path",
    "  logfilesize <size>: set max log file size",
    "  print <message>: print message to log",
    "  debugaction <num>: turn on/off debug action control in VRS",
    "  addvsphereinfo <datastore MOID> <host> <port> <user> <password>: add VSphere info",
    "  removevsphereinfo <datastore MOID>: remove VSphere info",
    "  qtest <path> <mode>: run quick test on target path / file",
    "  exec <cmd>: run system command",
    "  addnet <path> <user> <password>: add net device credential",
    "  removenet <path>: remove net device credential",
};

class Console : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(-1, ConsoleFd()) << "nfsengine is not built beside the tests folder"; }
};

// A console session in the in-process placement, with a fresh private
// network for its fixed ports.
class ConsoleSession : public Console, public testing::WithParamInterface<ChildProcess::Input> {
protected:
    void SetUp() override {
        Console::SetUp();
        std::string why;
        ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
    }

    bool Start(std::vector<std::string> args) {
        args.insert(args.begin(), {"-md", "int"});
        return p.Start(ConsoleFd(), "nfsengine", args, GetParam()) && Prompt();
    }
    // Waits for the next prompt.
    bool Prompt() { return p.ReadUntil("\nCommand: ", mark, &mark); }
    // Types line and returns what the program printed until its next prompt.
    std::string Command(const std::string& line) {
        size_t from = mark;
        if (!p.Send(line + "\n") || !Prompt()) return "NO PROMPT AFTER " + line + ":\n" + p.Output().substr(from);
        return p.Output().substr(from, mark - from - strlen("\nCommand: "));
    }
    std::vector<std::string> CommandLines(const std::string& line) { return SplitLines(Command(line)); }

    ChildProcess p;
    size_t mark = 0;
};

}  // namespace

// ---- options ---------------------------------------------------------------------

TEST_F(Console, HelpPrintsTheUsageAndEnds) {
    std::string out;
    int status = RunToEnd({"-help"}, &out);
    EXPECT_TRUE(ExitedWith(status, 0)) << out;
    EXPECT_EQ("\n"
              "Usage: nfsengine [-help]\n"
              "       [-shutdown]\n"
              "       [-query]\n"
              "       [-test <path=max_file_size>]\n"
              "       [-id <name>] [-log <num>] [-md <int|svr|cli>] [-logfile <path>] [-pidfile <path>]\n",
              out);
}

TEST_F(Console, AnUnknownModeEndsWithStatusOne) {
    std::string out;
    EXPECT_TRUE(ExitedWith(RunToEnd({"-md", "xyz"}, &out), 1));
    EXPECT_EQ("Un-supported mode: -md\n", out);
    EXPECT_TRUE(ExitedWith(RunToEnd({"-md"}, &out), 1));
    EXPECT_EQ("Un-supported mode: -md\n", out);
}

TEST_F(Console, ATestValueWithoutEqualsEndsWithStatusOne) {
    std::string out;
    EXPECT_TRUE(ExitedWith(RunToEnd({"-test", "/tmp"}, &out), 1));
    EXPECT_EQ("In-valid test mode value: /tmp\n", out);
}

TEST_F(Console, ShutdownInTheServerPlacementsEndsAtOnce) {
    TempDir dir;
    std::string pid = dir / "run.pid";
    for (const char* mode : {"svr", "int"}) {
        std::string out;
        EXPECT_TRUE(ExitedWith(RunToEnd({"-shutdown", "-md", mode, "-pidfile", pid}, &out), 0)) << out;
        EXPECT_EQ("Auto shutdown is activated, terminate now\n", out);
        EXPECT_FALSE(PathExists(pid));
    }
}

TEST_F(Console, UnknownWordsAreSkippedWithTheWordAfterThem) {
    // "-md" after "-what" is swallowed, so the run goes on in the default
    // placement ("-help" comes too late to be seen).
    std::string out;
    int status = RunToEnd({"-what", "-md", "-help"}, &out);
    EXPECT_TRUE(ExitedWith(status, 0)) << out;
    EXPECT_NE(std::string::npos, out.find("Usage: nfsengine [-help]")) << out;
    EXPECT_TRUE(ExitedWith(RunToEnd({"-what", "-help", "-md", "bad"}, &out), 1));
    EXPECT_EQ("Un-supported mode: -md\n", out);
}

TEST_F(Console, TheTestOptionRunsThePlatformTestInTheFolder) {
    TempDir dir;
    TempDir logs;
    std::string out;
    int status = RunToEnd({"-md", "int", "-log", "3", "-logfile", logs / "console.log", "-test",
                           dir.Path() + "=65536"},
                          &out);
    EXPECT_TRUE(ExitedWith(status, 0)) << out;
    EXPECT_NE(std::string::npos, out.find("Server Description: Internal NFS Server")) << out;
    std::string log = ReadWholeFile(logs / "console.log");
    EXPECT_NE(std::string::npos, log.find("ID = tmRun, LogControl = 3, AccessMode = 0")) << log;
    EXPECT_NE(std::string::npos, log.find(dir.Path())) << log;
}

TEST_F(Console, TheBannerAndTheLogFileOfAnInternalRun) {
    TempDir dir;
    std::string logFile = dir / "logs/console.log";  // its folder is made
    ChildProcess p;
    ASSERT_TRUE(p.Start(ConsoleFd(), "nfsengine",
                        {"-md", "int", "-id", "bench", "-log", "2", "-logfile", logFile, "-pidfile", dir / "c.pid"}));
    ASSERT_TRUE(p.ReadUntil("\nCommand: ")) << p.Output();
    std::vector<std::string> lines = p.Lines();
    std::vector<std::string> expected = {DASHES,
                                         "Execute Version: 1.4",
                                         "Server Version: 1.4",
                                         "Server Description: Internal NFS Server",
                                         DASHES,
                                         "Type 'help' to see help",
                                         ""};
    EXPECT_EQ(expected, std::vector<std::string>(lines.begin(), lines.begin() + std::min(lines.size(), expected.size())));
    ASSERT_TRUE(p.Send("quit\n"));
    int status = p.Finish(0);
    EXPECT_TRUE(ExitedWith(status, 0)) << p.Output();
    EXPECT_TRUE(p.HasLine("Exit")) << p.Output();
    std::string log = ReadWholeFile(logFile);
    EXPECT_NE(std::string::npos, log.find("ID = bench, LogControl = 2, AccessMode = 0")) << log;
    EXPECT_NE(std::string::npos, log.find("Create pid file \"" + dir / "c.pid" + "\"")) << log;
    EXPECT_NE(std::string::npos, log.find("Initial NFS")) << log;
    EXPECT_NE(std::string::npos, log.find("Terminate NFS")) << log;
    EXPECT_FALSE(PathExists(dir / "c.pid"));
}

TEST_F(Console, ALogFileThatCannotBeCreatedIsReportedAndTheRunGoesOn) {
    TempDir dir;
    WriteWholeFile(dir / "file", "");
    std::string logFile = dir / "file/console.log";
    ChildProcess p;
    ASSERT_TRUE(p.Start(ConsoleFd(), "nfsengine", {"-md", "int", "-id", "x", "-logfile", logFile}));
    ASSERT_TRUE(p.ReadUntil("\nCommand: ")) << p.Output();
    EXPECT_TRUE(p.HasLine("Fail to create log file: " + logFile)) << p.Output();
    // The info line goes to standard output instead.
    EXPECT_TRUE(p.HasLine("[info] (x) ID = x, LogControl = 0, AccessMode = 0")) << p.Output();
    ASSERT_TRUE(p.Send("quit\n"));
    EXPECT_TRUE(ExitedWith(p.Finish(0), 0)) << p.Output();
}

// ---- pid file ------------------------------------------------------------------

class PidFile : public Console {
protected:
    // Runs an internal console that quits at once; its wait status.
    int RunWithPidFile(std::string* out, std::string* pidWhileRunning = nullptr) {
        ChildProcess p;
        if (!p.Start(ConsoleFd(), "nfsengine", {"-md", "int", "-pidfile", path})) return -1;
        if (p.ReadUntil("\nCommand: ") && pidWhileRunning) *pidWhileRunning = ReadWholeFile(path);
        p.Send("quit\n");
        int status = p.Finish(0);
        *out = p.Output();
        if (pidWhileRunning && pidWhileRunning->empty()) *pidWhileRunning = "none";
        return status;
    }
    // The ID of a process that has ended.
    pid_t StalePid() {
        pid_t child = fork();
        if (child == 0) _exit(0);
        waitpid(child, nullptr, 0);
        return child;
    }

    TempDir dir;
    std::string path = dir / "nfsengine.pid";
};

TEST_F(PidFile, HoldsTheConsolesProcessIdWhileItRunsAndGoesAfterwards) {
    std::string out, whileRunning;
    ChildProcess p;
    ASSERT_TRUE(p.Start(ConsoleFd(), "nfsengine", {"-md", "int", "-pidfile", path}));
    ASSERT_TRUE(p.ReadUntil("\nCommand: ")) << p.Output();
    EXPECT_EQ(std::to_string(p.Pid()) + "\n", ReadWholeFile(path));
    ASSERT_TRUE(p.Send("quit\n"));
    EXPECT_TRUE(ExitedWith(p.Finish(0), 0)) << p.Output();
    EXPECT_FALSE(PathExists(path));
}

TEST_F(PidFile, MissingFoldersOfItsPathAreMade) {
    path = dir / "a/b/nfsengine.pid";
    std::string out, whileRunning;
    EXPECT_TRUE(ExitedWith(RunWithPidFile(&out, &whileRunning), 0)) << out;
    EXPECT_NE("none", whileRunning);
    EXPECT_FALSE(PathExists(path));
}

TEST_F(PidFile, ALiveProcessIdStopsTheStart) {
    WriteWholeFile(path, std::to_string(getpid()) + "\n");
    std::string out;
    EXPECT_TRUE(ExitedWith(RunWithPidFile(&out), 1)) << out;
    EXPECT_EQ("Fail to create pid file \"" + path + "\". Reason=Process ID \"" + std::to_string(getpid()) +
                  "\" is still running\n",
              out);
    // Not removed: it belongs to the running process.
    EXPECT_EQ(std::to_string(getpid()) + "\n", ReadWholeFile(path));
}

TEST_F(PidFile, AStaleProcessIdIsReplaced) {
    WriteWholeFile(path, std::to_string(StalePid()) + "\r\n");
    std::string out, whileRunning;
    EXPECT_TRUE(ExitedWith(RunWithPidFile(&out, &whileRunning), 0)) << out;
    EXPECT_NE(std::string::npos, whileRunning.find('\n')) << whileRunning;
    EXPECT_NE("none", whileRunning);
    EXPECT_FALSE(PathExists(path));
}

TEST_F(PidFile, AnEmptyFileIsReplaced) {
    WriteWholeFile(path, "");
    std::string out, whileRunning;
    EXPECT_TRUE(ExitedWith(RunWithPidFile(&out, &whileRunning), 0)) << out;
    EXPECT_NE("none", whileRunning);
    EXPECT_FALSE(PathExists(path));
}

TEST_F(PidFile, ZeroCountsAsRunning) {
    WriteWholeFile(path, "0\n");
    std::string out;
    EXPECT_TRUE(ExitedWith(RunWithPidFile(&out), 1)) << out;
    EXPECT_EQ("Fail to create pid file \"" + path + "\". Reason=Process ID \"0\" is still running\n", out);
}

TEST_F(PidFile, TextThatIsNoNumberCountsAsRunning) {
    WriteWholeFile(path, "nfsengine\n");
    std::string out;
    EXPECT_TRUE(ExitedWith(RunWithPidFile(&out), 1)) << out;
    EXPECT_EQ("Fail to create pid file \"" + path + "\". Reason=Process ID \"0\" is still running\n", out);
    EXPECT_EQ("nfsengine\n", ReadWholeFile(path));
}

TEST_F(PidFile, AFileThatCannotBeReadStopsTheStart) {
    // A folder in its place: it exists and opens, but cannot be read.
    ASSERT_EQ(0, mkdir(path.c_str(), 0755));
    std::string out;
    EXPECT_TRUE(ExitedWith(RunWithPidFile(&out), 1)) << out;
    EXPECT_TRUE(HasLineIn(out, "Fail to create pid file \"" + path + "\". Reason=Is a directory (21)")) << out;
    EXPECT_TRUE(PathExists(path));
}

// ---- the interactive loop, through a terminal and through a pipe ----------------

TEST_P(ConsoleSession, HelpBasicAndDebug) {
    ASSERT_TRUE(Start({}));
    std::vector<std::string> basic = BASIC_HELP;
    basic.push_back(RULE);
    EXPECT_EQ(basic, CommandLines("help"));
    EXPECT_EQ("", Command("debug"));
    std::vector<std::string> debug = BASIC_HELP;
    debug.insert(debug.end(), DEBUG_HELP.begin(), DEBUG_HELP.end());
    debug.push_back(RULE);
    EXPECT_EQ(debug, CommandLines("help"));
    ASSERT_TRUE(p.Send("quit\n"));
    EXPECT_TRUE(ExitedWith(p.Finish(0), 0)) << p.Output();
    EXPECT_EQ("\nExit\n", p.Output().substr(mark));
}

TEST_P(ConsoleSession, UnknownAndEmptyCommands) {
    ASSERT_TRUE(Start({}));
    EXPECT_EQ("Unknown command: 'hello'\nType 'help' to see help\n", Command("hello"));
    EXPECT_EQ("", Command(""));
    // A command with an argument needs one.
    EXPECT_EQ("Unknown command: 'log '\nType 'help' to see help\n", Command("log "));
    EXPECT_EQ("Unknown command: 'log'\nType 'help' to see help\n", Command("log"));
    EXPECT_EQ("Unknown command: ' help'\nType 'help' to see help\n", Command(" help"));
}

TEST_P(ConsoleSession, DebugCommandsAreUnknownBeforeDebug) {
    TempDir dir;
    ASSERT_TRUE(Start({}));
    for (const std::string& c : {std::string("mount ") + dir.Path() + "=x", std::string("start"),
                                 std::string("start 1=2"), std::string("umount /x"), std::string("test /x=1"),
                                 std::string("logfilesize 1"), std::string("print x"), std::string("debugaction 1"),
                                 std::string("exec true"), std::string("qtest a 0"), std::string("removenet x")})
        EXPECT_EQ("Unknown command: '" + c + "'\nType 'help' to see help\n", Command(c));
    EXPECT_EQ("", Command("debug"));
    EXPECT_EQ("Start NFS success\n", Command("start"));
    EXPECT_EQ("", Command(std::string("mount ") + dir.Path() + "=x"));
}

TEST_P(ConsoleSession, StartWithoutPortsUsesTheDefaultsAndOnlyOnce) {
    TempDir dir;
    ASSERT_TRUE(Start({}));
    Command("debug");
    EXPECT_EQ("Start NFS success\n", Command("start"));
    EXPECT_EQ("NFS already running\n", Command("start"));
    EXPECT_EQ("NFS already running\n", Command("start 4058=3049"));
    EXPECT_EQ("", Command("mount " + dir.Path() + "=backup"));
    // A real client mounts it on the default ports.
    LibnfsMount client;
    std::string why;
    EXPECT_TRUE(client.Mount("nfsport=2049&mountport=1058&auto-traverse-mounts=0", "backup", &why)) << why;
    EXPECT_EQ("Current Server Status=7\n", Command("debugaction 1"));
    EXPECT_EQ("Current Server Status=3\n", Command("debugaction 0"));
}

TEST_P(ConsoleSession, StartWithPortsAndBadPorts) {
    TempDir dir;
    ASSERT_TRUE(Start({}));
    Command("debug");
    EXPECT_EQ("Current Server Status=5\n", Command("debugaction 9"));
    // A bad value prints its message and no prompt.
    for (const char* bad : {"4058", "4058=", "x=3049", "4058=70000", "=3049"}) {
        size_t from = mark;
        ASSERT_TRUE(p.Send(std::string("start ") + bad + "\n"));
        std::string text = std::string("Fail to start NFS. Reason=In-valid input value: ") + bad + "\n";
        ASSERT_TRUE(p.ReadUntil(text, from, &mark)) << p.Output().substr(from);
    }
    EXPECT_EQ("Start NFS success\n", Command("start 4058=3049"));
    EXPECT_EQ("", Command("mount " + dir.Path() + "=backup"));
    LibnfsMount client;
    std::string why;
    EXPECT_TRUE(client.Mount("nfsport=3049&mountport=4058&auto-traverse-mounts=0", "backup", &why)) << why;
}

TEST_P(ConsoleSession, AFailedStartIsReported) {
    // A second console finds the NFS port busy.
    ASSERT_TRUE(Start({}));
    Command("debug");
    EXPECT_EQ("Start NFS success\n", Command("start 4058=3049"));
    ChildProcess second;
    ASSERT_TRUE(second.Start(ConsoleFd(), "nfsengine", {"-md", "int"}, GetParam()));
    ASSERT_TRUE(second.ReadUntil("\nCommand: ")) << second.Output();
    size_t from = second.Output().size();
    ASSERT_TRUE(second.Send("debug\nstart 4059=3049\n"));
    ASSERT_TRUE(second.ReadUntil("Fail to start NFS. NFS daemon failed to open port 3049\n", from)) << second.Output();
    ASSERT_TRUE(second.Send("quit\n"));
    EXPECT_TRUE(ExitedWith(second.Finish(0), 0)) << second.Output();
}

TEST_P(ConsoleSession, MountUmountAndStatus) {
    TempDir dir;
    ASSERT_TRUE(Start({"-id", "status-test"}));
    Command("debug");
    std::vector<std::string> stopped = {"",
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
    EXPECT_EQ(stopped, CommandLines("status"));
    EXPECT_EQ("Fail to add mount point to NFS. Reason=In-valid input value: " + dir.Path() + "\n",
              Command("mount " + dir.Path()));
    EXPECT_EQ("Fail to add mount point to NFS. Reason=Invalid char \" \" inside export name\n",
              Command("mount " + dir.Path() + "=a b"));
    EXPECT_EQ("Start NFS success\n", Command("start"));
    EXPECT_EQ("", Command("mount " + dir.Path() + "=backup"));
    std::vector<std::string> started = {"",
                                        "Server Status: Started",
                                        DASHES,
                                        "Number of Mount Point: 1",
                                        " Mount 1 - " + dir.Path() + " : backup () []",
                                        DASHES,
                                        "Number of Session: 0",
                                        DASHES,
                                        "Number of mounted NFS datastore: 0",
                                        DASHES,
                                        "Number of Net Device info: 0",
                                        DASHES};
    EXPECT_EQ(started, CommandLines("status"));
    EXPECT_EQ("", Command("umount " + dir.Path()));
    std::vector<std::string> none = started;
    none[3] = "Number of Mount Point: 0";
    none.erase(none.begin() + 4);
    EXPECT_EQ(none, CommandLines("status"));
}

TEST_P(ConsoleSession, LogFileSizeAndPrintWithALogFile) {
    TempDir dir;
    std::string logFile = dir / "console.log";
    ASSERT_TRUE(Start({"-logfile", logFile}));
    Command("debug");
    EXPECT_EQ("Current max log file size: 33554432\nUpdated max log file size: 1000\n", Command("logfilesize 1000"));
    // Zero or less leaves the limit.
    EXPECT_EQ("Current max log file size: 1000\nUpdated max log file size: 1000\n", Command("logfilesize -5"));
    EXPECT_EQ("", Command("print a line for the log file"));
    EXPECT_NE(std::string::npos, ReadWholeFile(logFile).find("a line for the log file"));
    // Past the limit the file is rotated.
    for (int i = 0; i < 30; ++i) Command("print filler line number " + std::to_string(i));
    EXPECT_TRUE(PathExists(logFile + ".1"));
}

TEST_P(ConsoleSession, LogFileSizePrintAndLogWithoutALogFile) {
    ASSERT_TRUE(Start({"-id", "nolog"}));
    Command("debug");
    EXPECT_EQ("[info] (nolog) No file logger is defined\n", Command("logfilesize 1000"));
    EXPECT_EQ("[info] (nolog) hello there\n", Command("print hello there"));
    // Log control 0: the start logs nothing; with 2 (general info) it does.
    TempDir dir;
    EXPECT_EQ("Start NFS success\n", Command("start"));
    TempDir other;
    EXPECT_EQ("", Command("mount " + dir.Path() + "=quiet"));
    EXPECT_EQ("", Command("log 2"));
    EXPECT_NE(std::string::npos, Command("mount " + other.Path() + "=loud").find("[info] (nolog)"));
}

TEST_P(ConsoleSession, OtherDebugCommandsAndTheirBadValues) {
    TempDir dir;
    ASSERT_TRUE(Start({}));
    Command("debug");
    std::string out = Command("exec echo console-exec");
    EXPECT_NE(std::string::npos, out.find("console-exec")) << out;
    EXPECT_NE(std::string::npos, out.find("Return code: 0\n")) << out;
    EXPECT_EQ("Fail to add VSphere info to NFS. Reason=In-valid input value: a b c d\n",
              Command("addvsphereinfo a b c d"));
    EXPECT_EQ("", Command("removevsphereinfo a"));
    EXPECT_EQ("Fail to run quick test. Reason=In-valid input value: " + dir.Path() + "\n",
              Command("qtest " + dir.Path()));
    EXPECT_EQ("Quick test FAIL. Unknown mode (7)\n", Command("qtest " + dir.Path() + " 7"));
    EXPECT_EQ("Fail to add net device credential to NFS. Reason=In-valid input value: a b\n", Command("addnet a b"));
    // The command's own complaint comes first.
    out = Command("removenet " + dir.Path());
    EXPECT_EQ(out.size() - strlen("Failed\n"), out.rfind("Failed\n")) << out;
    // A bad test value prints its message and no prompt.
    size_t from = mark;
    ASSERT_TRUE(p.Send("test " + dir.Path() + "\n"));
    ASSERT_TRUE(p.ReadUntil("Fail to run test. Reason=In-valid input value: " + dir.Path() + "\n", from, &mark))
        << p.Output().substr(from);
    // The loop still runs.
    EXPECT_EQ("Unknown command: 'x'\nType 'help' to see help\n", Command("x"));
}

TEST_P(ConsoleSession, QuitStopsTheServerAndEnds) {
    TempDir dir;
    ASSERT_TRUE(Start({"-pidfile", dir / "c.pid"}));
    Command("debug");
    EXPECT_EQ("Start NFS success\n", Command("start"));
    ASSERT_TRUE(p.Send("quit\n"));
    EXPECT_TRUE(ExitedWith(p.Finish(0), 0)) << p.Output();
    EXPECT_EQ("\nExit\n", p.Output().substr(mark));
    EXPECT_FALSE(PathExists(dir / "c.pid"));
    // The ports are free again.
    ChildProcess again;
    ASSERT_TRUE(again.Start(ConsoleFd(), "nfsengine", {"-md", "int"}));
    ASSERT_TRUE(again.ReadUntil("\nCommand: "));
    ASSERT_TRUE(again.Send("debug\nstart\nquit\n"));
    EXPECT_TRUE(ExitedWith(again.Finish(0), 0));
    EXPECT_NE(std::string::npos, again.Output().find("Start NFS success\n")) << again.Output();
}

TEST_P(ConsoleSession, SigtermAndSigintEndTheLoopCleanly) {
    TempDir dir;
    for (int signal : {SIGTERM, SIGINT}) {
        ChildProcess c;
        ASSERT_TRUE(c.Start(ConsoleFd(), "nfsengine", {"-md", "int", "-pidfile", dir / "c.pid"}, GetParam()));
        ASSERT_TRUE(c.ReadUntil("\nCommand: "));
        ASSERT_TRUE(c.Send("debug\nstart\n"));
        ASSERT_TRUE(c.ReadUntil("Start NFS success\n")) << c.Output();
        ASSERT_TRUE(c.ReadUntil("\nCommand: ", c.Output().find("Start NFS success")));
        EXPECT_TRUE(PathExists(dir / "c.pid"));
        int status = c.Finish(signal);
        EXPECT_TRUE(ExitedWith(status, 0)) << c.Output();
        EXPECT_TRUE(c.HasLine("Exit by request")) << c.Output();
        EXPECT_FALSE(PathExists(dir / "c.pid"));
    }
}

INSTANTIATE_TEST_SUITE_P(Through, ConsoleSession, testing::Values(ChildProcess::TERMINAL, ChildProcess::PIPE),
                         [](const testing::TestParamInfo<ChildProcess::Input>& info) {
                             return info.param == ChildProcess::TERMINAL ? "Terminal" : "Pipe";
                         });

TEST_F(Console, APipeThatEndsLeavesTheLoopRunningUntilQuitOrSignal) {
    // Standard input at its end (as under systemd): the loop polls on.
    ChildProcess p;
    ASSERT_TRUE(p.Start(ConsoleFd(), "nfsengine", {"-md", "int"}));
    ASSERT_TRUE(p.Send("help\n"));
    p.CloseInput();
    ASSERT_TRUE(p.ReadUntil(RULE + std::string("\n\nCommand: "))) << p.Output();
    usleep(300000);
    int status = 0;
    EXPECT_EQ(0, waitpid(p.Pid(), &status, WNOHANG));
    EXPECT_TRUE(ExitedWith(p.Finish(SIGTERM), 0)) << p.Output();
}

TEST_F(Console, ALastLineWithoutLineEndIsACommand) {
    ChildProcess p;
    ASSERT_TRUE(p.Start(ConsoleFd(), "nfsengine", {"-md", "int"}));
    ASSERT_TRUE(p.Send("quit"));
    p.CloseInput();
    EXPECT_TRUE(ExitedWith(p.Finish(0), 0)) << p.Output();
    EXPECT_TRUE(p.HasLine("Exit")) << p.Output();
}

TEST_F(Console, ALineLongerThanTheBufferIsReadInPieces) {
    ChildProcess p;
    ASSERT_TRUE(p.Start(ConsoleFd(), "nfsengine", {"-md", "int"}));
    ASSERT_TRUE(p.Send(std::string(5000, 'a') + "\nquit\n"));
    EXPECT_TRUE(ExitedWith(p.Finish(0), 0)) << p.Output();
    EXPECT_NE(std::string::npos, p.Output().find("Unknown command: '" + std::string(4095, 'a') + "'\n"));
    EXPECT_NE(std::string::npos, p.Output().find("Unknown command: '" + std::string(905, 'a') + "'\n"));
}
