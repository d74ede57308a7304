// Shell commands run for the controller (ExecuteSystemCmd) and the list of
// network devices with registered credentials, whose commands are played
// by stand-in scripts put first on the PATH.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "LogRecorder.h"
#include "PrivateMounts.h"
#include "TestSupport.h"
#include "Utilities.h"

namespace {

const char* const ADD_COMMAND = "Add_Net_Device_Credential_Command_Not_Defined";
const char* const REMOVE_COMMAND = "Remove_Net_Device_Credential_Command_Not_Defined";
const int ALL_LOGS = 0x3FF;

// Writes an executable script called name into folder. Each run appends one
// line to runLog: its own name, then each argument in brackets; then it
// exits with exitCode.
void WriteStandIn(const std::string& folder, const std::string& name, const std::string& runLog, int exitCode) {
    std::string path = folder + "/" + name;
    std::string temporary = path + ".new";
    WriteWholeFile(temporary, "#!/bin/sh\n"
                              "{ printf '%s' \"${0##*/}\"; for a in \"$@\"; do printf ' [%s]' \"$a\"; done; "
                              "printf '\\n'; } >> '" + runLog + "'\n"
                              "exit " + std::to_string(exitCode) + "\n");
    ASSERT_EQ(0, chmod(temporary.c_str(), 0755));
    ASSERT_EQ(0, rename(temporary.c_str(), path.c_str()));  // never rewrite a script in place
}

void PutFirstOnPath(const std::string& folder) {
    const char* old = getenv("PATH");
    std::string path = folder + ":" + (old ? old : "/usr/bin:/bin");
    setenv("PATH", path.c_str(), 1);
}

std::vector<LogRecorder::Line> Expected(std::vector<std::pair<const char*, std::string>> lines) {
    std::vector<LogRecorder::Line> out;
    for (auto& line : lines) out.push_back({line.first, "", line.second});
    return out;
}

class SystemCommands : public testing::Test {
protected:
    void SetUp() override { u.SetCallback(&recorder); }
    void TearDown() override { u.SetCallback(nullptr); }

    CUtilities u;
    LogRecorder recorder;
};

// Credential tests: stand-ins for both commands in a folder first on the PATH.
class NetDeviceCredentials : public SystemCommands {
protected:
    void SetUp() override {
        SystemCommands::SetUp();
        PutFirstOnPath(bin.Path());
        addLog = logs / "add.log";
        removeLog = logs / "remove.log";
    }
    void InstallCommands(int addExit, int removeExit) {
        WriteStandIn(bin.Path(), ADD_COMMAND, addLog, addExit);
        WriteStandIn(bin.Path(), REMOVE_COMMAND, removeLog, removeExit);
    }
    std::vector<std::string> Runs(const std::string& log) { return SplitLines(ReadWholeFile(log)); }

    TempDir bin;
    TempDir logs;
    std::string addLog;
    std::string removeLog;
};

}  // namespace

// ---- system commands --------------------------------------------------------

TEST_F(SystemCommands, ExitCodesComeBackAsRawWaitStatus) {
    CRuntimeParam rp("inst", 0);
    EXPECT_EQ(512, u.ExecuteSystemCmd(&rp, "exit 2", false));
    EXPECT_EQ(256, u.ExecuteSystemCmd(&rp, "exit 1", false));
    EXPECT_EQ(0, u.ExecuteSystemCmd(&rp, "true", false));
    EXPECT_EQ(9, u.ExecuteSystemCmd(&rp, "kill -9 $$", false));  // killed by signal 9
    EXPECT_EQ(127 << 8, u.ExecuteSystemCmd(&rp, "a_command_that_is_nowhere_to_be_found 2>/dev/null", false));
    EXPECT_TRUE(recorder.Lines().empty());
}

TEST_F(SystemCommands, ForcedLoggingShowsCommandOutputAndStatus) {
    CRuntimeParam rp("inst", 0);
    EXPECT_EQ(768, u.ExecuteSystemCmd(&rp, "printf 'one\\ntwo\\n'; exit 3", true));
    auto expected = Expected({{"info", "printf 'one\\ntwo\\n'; exit 3"},
                              {"raw", "\n------\n"},
                              {"raw", "one\n"},
                              {"raw", "two\n"},
                              {"raw", "\n------\n"},
                              {"raw", "Process returned 768\n"}});
    EXPECT_EQ(expected, recorder.Lines());
}

TEST_F(SystemCommands, GeneralInfoLoggingShowsTheOutputToo) {
    CRuntimeParam rp("inst", CRuntimeParam::LOG_GENERAL_INFO);
    EXPECT_EQ(0, u.ExecuteSystemCmd(&rp, "echo hello", false));
    auto expected = Expected({{"info", "echo hello"},
                              {"raw", "\n------\n"},
                              {"raw", "hello\n"},
                              {"raw", "\n------\n"},
                              {"raw", "Process returned 0\n"}});
    EXPECT_EQ(expected, recorder.Lines());
}

TEST_F(SystemCommands, WithoutLoggingTheCommandStillRuns) {
    TempDir tmp;
    CRuntimeParam rp("inst", ALL_LOGS & ~CRuntimeParam::LOG_GENERAL_INFO);
    std::string marker = tmp / "ran";
    EXPECT_EQ(0, u.ExecuteSystemCmd(&rp, ("echo out; echo done > '" + marker + "'").c_str(), false));
    EXPECT_EQ("done\n", ReadWholeFile(marker));
    EXPECT_TRUE(recorder.Lines().empty());
}

TEST_F(SystemCommands, OutputIsReadInPiecesOfAtMost127Characters) {
    CRuntimeParam rp("inst", 0);
    // One line of 300 characters and its line end, then a short line.
    EXPECT_EQ(0, u.ExecuteSystemCmd(&rp, "printf '%300s\\nend\\n' ''", true));
    std::vector<std::string> raw = recorder.Texts("raw");
    std::vector<std::string> expected = {"\n------\n",          std::string(127, ' '), std::string(127, ' '),
                                         std::string(46, ' ') + "\n", "end\n",           "\n------\n",
                                         "Process returned 0\n"};
    EXPECT_EQ(expected, raw);
}

TEST_F(SystemCommands, WithoutRuntimeParametersTheCommandRunsAndLogsWhenForced) {
    EXPECT_EQ(512, u.ExecuteSystemCmd(nullptr, "exit 2", false));
    EXPECT_TRUE(recorder.Lines().empty());
    EXPECT_EQ(0, u.ExecuteSystemCmd(nullptr, "true", true));
    ASSERT_FALSE(recorder.Lines().empty());
    EXPECT_EQ("Process returned 0\n", recorder.Lines().back().text);
}

TEST_F(SystemCommands, NullCommandIsRefused) {
    CRuntimeParam rp("inst", ALL_LOGS);
    EXPECT_EQ(-1, u.ExecuteSystemCmd(&rp, nullptr, true));
    EXPECT_TRUE(recorder.Lines().empty());
}

TEST_F(SystemCommands, PipeThatCannotBeStartedGivesMinusOne) {
    // Hide the shell from this process only: the pipe's command cannot start.
    std::string err;
    ASSERT_TRUE(EnterPrivateMountNamespace(err)) << err;
    std::string shell = Canonical("/bin/sh");
    std::string shellFolder = shell.substr(0, shell.rfind('/'));
    ScopedTmpfs emptyFolder(shellFolder, "");
    ASSERT_TRUE(emptyFolder.Ok()) << emptyFolder.Error();
    ASSERT_FALSE(PathExists("/bin/sh"));

    CRuntimeParam rp("inst", 0);
    EXPECT_EQ(-1, u.ExecuteSystemCmd(&rp, "true", true));
    auto expected = Expected({{"info", "true"}, {"error", "Fail to execute cmd (popen() failed)"}});
    EXPECT_EQ(expected, recorder.Lines());
}

// ---- net device credentials -------------------------------------------------

TEST_F(NetDeviceCredentials, AddingTheSamePathTwiceListsItOnce) {
    InstallCommands(0, 0);
    CRuntimeParam rp("inst", ALL_LOGS);
    EXPECT_TRUE(u.AddNetDeviceCredential(&rp, "//nas/share", "backup-user", "Pa55-w0rd"));
    EXPECT_TRUE(u.AddNetDeviceCredential(&rp, "//nas/share", "backup-user", "Pa55-w0rd"));
    recorder.Clear();
    EXPECT_EQ(1, u.GetNetDeviceCredential(&rp, true));
    EXPECT_EQ(std::vector<std::string>{" Net device path 1 - //nas/share"}, recorder.Texts("raw"));
    // The command ran each time, with nothing of path, user or password.
    std::vector<std::string> expectedRuns = {ADD_COMMAND, ADD_COMMAND};
    EXPECT_EQ(expectedRuns, Runs(addLog));
}

TEST_F(NetDeviceCredentials, PasswordsAndUsersAreNeverLoggedNorPassed) {
    InstallCommands(0, 0);
    CRuntimeParam rp("inst", ALL_LOGS);
    EXPECT_TRUE(u.AddNetDeviceCredential(&rp, "/dev/nas1", "the-user-name", "Very$ecret"));
    EXPECT_TRUE(u.RemoveNetDeviceCredential(&rp, "/dev/nas1"));
    std::string logged = recorder.AllText();
    EXPECT_NE(std::string::npos, logged.find(ADD_COMMAND));  // general info shows the command
    EXPECT_EQ(std::string::npos, logged.find("Very$ecret"));
    EXPECT_EQ(std::string::npos, logged.find("the-user-name"));
    std::string runs = ReadWholeFile(addLog) + ReadWholeFile(removeLog);
    EXPECT_EQ(std::string(ADD_COMMAND) + "\n" + REMOVE_COMMAND + "\n", runs);
}

TEST_F(NetDeviceCredentials, PathsKeepTheirInsertionOrderAndCompareExactly) {
    InstallCommands(0, 0);
    CRuntimeParam rp("inst", 0);
    for (const char* path : {"/b", "/a", "/c", "/a", "/a/"})
        EXPECT_TRUE(u.AddNetDeviceCredential(&rp, path, "u", "p"));
    EXPECT_EQ(4, u.GetNetDeviceCredential(&rp, true));
    std::vector<std::string> expected = {" Net device path 1 - /b", " Net device path 2 - /a",
                                         " Net device path 3 - /c", " Net device path 4 - /a/"};
    EXPECT_EQ(expected, recorder.Texts("raw"));
}

TEST_F(NetDeviceCredentials, CountingWithoutDetailsLogsNothing) {
    InstallCommands(0, 0);
    CRuntimeParam rp("inst", 0);
    EXPECT_EQ(0, u.GetNetDeviceCredential(&rp, true));
    EXPECT_TRUE(u.AddNetDeviceCredential(&rp, "/x", "u", "p"));
    EXPECT_EQ(1, u.GetNetDeviceCredential(&rp, false));
    EXPECT_TRUE(recorder.Lines().empty());
}

TEST_F(NetDeviceCredentials, FailingAddCommandListsNothing) {
    InstallCommands(3, 0);
    CRuntimeParam rp("inst", 0);
    EXPECT_FALSE(u.AddNetDeviceCredential(&rp, "/dev/nas1", "u", "p"));
    EXPECT_EQ(0, u.GetNetDeviceCredential(&rp, false));
    EXPECT_EQ(std::vector<std::string>{ADD_COMMAND}, Runs(addLog));
}

TEST_F(NetDeviceCredentials, WithoutTheCommandOnThisSystemAddingFails) {
    // The folder first on the PATH holds no stand-in, and no such program exists.
    CRuntimeParam rp("inst", 0);
    EXPECT_FALSE(u.AddNetDeviceCredential(&rp, "/dev/nas1", "u", "p"));
    EXPECT_FALSE(u.RemoveNetDeviceCredential(&rp, "/dev/nas1"));
    EXPECT_EQ(0, u.GetNetDeviceCredential(&rp, false));
}

TEST_F(NetDeviceCredentials, RemoveErasesOnlyWhenItsCommandSucceeds) {
    InstallCommands(0, 1);
    CRuntimeParam rp("inst", 0);
    EXPECT_TRUE(u.AddNetDeviceCredential(&rp, "/a", "u", "p"));
    EXPECT_TRUE(u.AddNetDeviceCredential(&rp, "/b", "u", "p"));
    EXPECT_FALSE(u.RemoveNetDeviceCredential(&rp, "/a"));
    EXPECT_EQ(2, u.GetNetDeviceCredential(&rp, false));

    InstallCommands(0, 0);
    EXPECT_TRUE(u.RemoveNetDeviceCredential(&rp, "/a"));
    EXPECT_TRUE(u.RemoveNetDeviceCredential(&rp, "/not-listed"));  // the command's result decides
    EXPECT_EQ(1, u.GetNetDeviceCredential(&rp, true));
    EXPECT_EQ(std::vector<std::string>{" Net device path 1 - /b"}, recorder.Texts("raw"));
    std::vector<std::string> expectedRuns(3, REMOVE_COMMAND);
    EXPECT_EQ(expectedRuns, Runs(removeLog));
}

TEST_F(NetDeviceCredentials, RemoveAllRunsTheCommandOncePerPathAndEmptiesTheList) {
    InstallCommands(0, 1);  // failing removals are ignored here
    CRuntimeParam rp("inst", 0);
    for (const char* path : {"/a", "/b", "/c"}) EXPECT_TRUE(u.AddNetDeviceCredential(&rp, path, "u", "p"));
    u.RemoveAllNetDeviceCredential(&rp);
    EXPECT_EQ(0, u.GetNetDeviceCredential(&rp, false));
    std::vector<std::string> expectedRuns(3, REMOVE_COMMAND);
    EXPECT_EQ(expectedRuns, Runs(removeLog));

    u.RemoveAllNetDeviceCredential(&rp);  // nothing listed: nothing run
    EXPECT_EQ(expectedRuns, Runs(removeLog));
}

TEST_F(NetDeviceCredentials, ResetRemovesEveryCredential) {
    InstallCommands(0, 0);
    CRuntimeParam rp("inst", 0);
    LogArgu la{"NfsMain.StopServer"};
    for (const char* path : {"/a", "/b"}) EXPECT_TRUE(u.AddNetDeviceCredential(&rp, path, "u", "p"));
    u.Reset(&rp, &la);
    EXPECT_EQ(0, u.GetNetDeviceCredential(&rp, false));
    EXPECT_EQ(std::vector<std::string>(2, REMOVE_COMMAND), Runs(removeLog));
}

TEST_F(NetDeviceCredentials, NullPathIsRefusedWithoutRunningAnything) {
    InstallCommands(0, 0);
    CRuntimeParam rp("inst", 0);
    EXPECT_FALSE(u.AddNetDeviceCredential(&rp, nullptr, "u", "p"));
    EXPECT_FALSE(u.RemoveNetDeviceCredential(&rp, nullptr));
    EXPECT_FALSE(PathExists(addLog));
    EXPECT_FALSE(PathExists(removeLog));
    EXPECT_TRUE(u.AddNetDeviceCredential(&rp, "/a", nullptr, nullptr));  // user and password are not used
    EXPECT_EQ(1, u.GetNetDeviceCredential(&rp, false));
}

TEST_F(NetDeviceCredentials, ConcurrentAddsListEachPathOnce) {
    InstallCommands(0, 0);
    CRuntimeParam rp("inst", 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this, &rp, i] {
            EXPECT_TRUE(u.AddNetDeviceCredential(&rp, "/shared", "u", "p"));
            EXPECT_TRUE(u.AddNetDeviceCredential(&rp, ("/own" + std::to_string(i)).c_str(), "u", "p"));
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(5, u.GetNetDeviceCredential(&rp, true));
    std::vector<std::string> lines = recorder.Texts("raw");
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), " Net device path 1 - /shared"));
    EXPECT_EQ(8u, Runs(addLog).size());
}
