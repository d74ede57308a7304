// vSphere datastore records and their cleanup through the web control tool.
// The tool is played by the stand-in script of the test support, placed
// beside the running executable.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "LogRecorder.h"
#include "PrivateMounts.h"
#include "TestSupport.h"
#include "Utilities.h"
#include "VSphereToolStandIn.h"
#include "VSphereWebController.h"

namespace {

// When this program is started as the copy named java (see the test
// ToolBesideJavaInOptXBinIsTheOneRun), it only removes one datastore
// through the controller and ends with the tool's exit code.
[[maybe_unused]] const int g_childMode = [] {
    const char* moid = getenv("VSPHERE_TEST_REMOVE_SESSION");
    if (moid == nullptr) return 0;
    CVSphereWebController controller;
    int status = controller.RemoveSession(moid, "esx.example", "443", "root", "pw");
    _exit(status == -1 ? 100 : WEXITSTATUS(status));
}();

// The line the stand-in records for one run.
std::string RunLine(const std::string& tool, const std::string& moid, const std::string& host,
                    const std::string& port, const std::string& user, const std::string& pwd) {
    return tool + " [-host] [" + host + "] [-port] [" + port + "] [-user] [" + user + "] [-pwd] [" + pwd +
           "] [-method] [removeDatastore] [-argu] [" + moid + "]";
}

class VSphereRecords : public testing::Test {
protected:
    void SetUp() override {
        tool = InstallToolBesideExecutable();
        runs = tmp / "runs.log";
        setenv("DSUNMOUNTER_RUNS", runs.c_str(), 1);
        unsetenv("DSUNMOUNTER_EXIT");
        u.SetCallback(&recorder);
    }
    void TearDown() override { u.SetCallback(nullptr); }
    std::vector<std::string> Runs() { return SplitLines(ReadWholeFile(runs)); }

    TempDir tmp;
    std::string tool;
    std::string runs;
    CUtilities u;
    LogRecorder recorder;
};

}  // namespace

TEST_F(VSphereRecords, AddingTheSameMoidTwiceKeepsOneRecordWithTheLaterValues) {
    CRuntimeParam rp("inst", 0);
    u.AddVSphereInfo("datastore-7", "vc-old", "443", "admin", "old");
    u.AddVSphereInfo("datastore-7", "vc-new", "8443", "root", "new");
    EXPECT_EQ(1, u.GetVSphereInfo(&rp, true));
    EXPECT_EQ(std::vector<std::string>{" NFS datastore 1 - datastore-7 (vc-new:8443)"}, recorder.Texts("raw"));

    u.RemoveAllVSphereInfoWithWebCtrl(&rp);
    EXPECT_EQ(std::vector<std::string>{RunLine(tool, "datastore-7", "vc-new", "8443", "root", "new")}, Runs());
}

TEST_F(VSphereRecords, CountingOnlyCountsAndDetailsComeInMoidOrder) {
    CRuntimeParam rp("inst", 0);
    EXPECT_EQ(0, u.GetVSphereInfo(&rp, true));
    u.AddVSphereInfo("datastore-3", "h3", "443", "u", "pw-secret");
    u.AddVSphereInfo("datastore-1", "h1", "444", "u", "pw-secret");
    u.AddVSphereInfo("datastore-2", "h2", "445", "u", "pw-secret");
    EXPECT_EQ(3, u.GetVSphereInfo(&rp, false));
    EXPECT_TRUE(recorder.Lines().empty());

    EXPECT_EQ(3, u.GetVSphereInfo(&rp, true));
    std::vector<std::string> expected = {" NFS datastore 1 - datastore-1 (h1:444)",
                                         " NFS datastore 2 - datastore-2 (h2:445)",
                                         " NFS datastore 3 - datastore-3 (h3:443)"};
    EXPECT_EQ(expected, recorder.Texts("raw"));
    EXPECT_EQ(3u, recorder.Lines().size());  // raw lines only, and no password among them
    EXPECT_EQ(std::string::npos, recorder.AllText().find("pw-secret"));
}

TEST_F(VSphereRecords, RemovingErasesOnlyThatRecord) {
    CRuntimeParam rp("inst", 0);
    u.AddVSphereInfo("a", "h", "1", "u", "p");
    u.AddVSphereInfo("b", "h", "2", "u", "p");
    u.RemoveVSphereInfo("a");
    u.RemoveVSphereInfo("not-there");
    u.RemoveVSphereInfo(nullptr);
    EXPECT_EQ(1, u.GetVSphereInfo(&rp, true));
    EXPECT_EQ(std::vector<std::string>{" NFS datastore 1 - b (h:2)"}, recorder.Texts("raw"));
}

TEST_F(VSphereRecords, CleanupRunsTheToolOncePerRecordInAscendingMoidOrder) {
    CRuntimeParam rp("inst", CRuntimeParam::LOG_GENERAL_INFO | CRuntimeParam::LOG_ERROR);
    u.AddVSphereInfo("datastore-30", "vc3", "443", "administrator", "Secret-3");
    u.AddVSphereInfo("datastore-10", "vc1", "443", "administrator", "Secret-1");
    u.AddVSphereInfo("datastore-20", "vc2", "8443", "root", "Secret-2");
    u.RemoveAllVSphereInfoWithWebCtrl(&rp);

    std::vector<std::string> expectedRuns = {
        RunLine(tool, "datastore-10", "vc1", "443", "administrator", "Secret-1"),
        RunLine(tool, "datastore-20", "vc2", "8443", "root", "Secret-2"),
        RunLine(tool, "datastore-30", "vc3", "443", "administrator", "Secret-3"),
    };
    EXPECT_EQ(expectedRuns, Runs());
    EXPECT_EQ(0, u.GetVSphereInfo(&rp, false));

    std::vector<std::string> expectedLog = {
        "Start cleanup mounted NFS datastores",
        "Unmount NFS datastore with MOID \"datastore-10\" on host \"vc1:443\"",
        "Unmount NFS datastore with MOID \"datastore-20\" on host \"vc2:8443\"",
        "Unmount NFS datastore with MOID \"datastore-30\" on host \"vc3:443\"",
    };
    EXPECT_EQ(expectedLog, recorder.Texts("info"));
    EXPECT_EQ(std::string::npos, recorder.AllText().find("Secret"));

    u.RemoveAllVSphereInfoWithWebCtrl(&rp);  // nothing left: the tool is not run again
    EXPECT_EQ(3u, Runs().size());
}

TEST_F(VSphereRecords, CleanupForgetsRecordsEvenWhenTheToolFails) {
    setenv("DSUNMOUNTER_EXIT", "1", 1);
    CRuntimeParam rp("inst", 0);
    u.AddVSphereInfo("b", "h", "1", "u", "p");
    u.AddVSphereInfo("a", "h", "1", "u", "p");
    u.RemoveAllVSphereInfoWithWebCtrl(&rp);
    EXPECT_EQ(0, u.GetVSphereInfo(&rp, false));
    std::vector<std::string> expectedRuns = {RunLine(tool, "a", "h", "1", "u", "p"),
                                             RunLine(tool, "b", "h", "1", "u", "p")};
    EXPECT_EQ(expectedRuns, Runs());
    EXPECT_TRUE(recorder.Lines().empty());  // general info is off
}

TEST_F(VSphereRecords, CleanupWithoutRecordsDoesNothing) {
    CRuntimeParam rp("inst", 0x3FF);
    u.RemoveAllVSphereInfoWithWebCtrl(&rp);
    EXPECT_TRUE(recorder.Lines().empty());
    EXPECT_FALSE(PathExists(runs));
}

TEST_F(VSphereRecords, RemoveSessionReturnsTheToolsWaitStatus) {
    CVSphereWebController controller;
    EXPECT_EQ(0, controller.RemoveSession("ds", "h", "443", "u", "p"));
    setenv("DSUNMOUNTER_EXIT", "2", 1);
    EXPECT_EQ(512, controller.RemoveSession("ds", "h", "443", "u", "p"));
    EXPECT_EQ(2u, Runs().size());
}

TEST_F(VSphereRecords, RemoveSessionNeedsEveryArgument) {
    CVSphereWebController controller;
    EXPECT_EQ(-1, controller.RemoveSession(nullptr, "h", "443", "u", "p"));
    EXPECT_EQ(-1, controller.RemoveSession("ds", nullptr, "443", "u", "p"));
    EXPECT_EQ(-1, controller.RemoveSession("ds", "h", nullptr, "u", "p"));
    EXPECT_EQ(-1, controller.RemoveSession("ds", "h", "443", nullptr, "p"));
    EXPECT_EQ(-1, controller.RemoveSession("ds", "h", "443", "u", nullptr));
    EXPECT_FALSE(PathExists(runs));
}

TEST_F(VSphereRecords, ValuesAreInsertedWithoutQuoting) {
    // Callers pass plain tokens; a blank splits a value into two arguments.
    CVSphereWebController controller;
    EXPECT_EQ(0, controller.RemoveSession("ds", "h", "443", "two words", "p"));
    std::string expected = tool + " [-host] [h] [-port] [443] [-user] [two] [words] [-pwd] [p] [-method] "
                                  "[removeDatastore] [-argu] [ds]";
    EXPECT_EQ(std::vector<std::string>{expected}, Runs());
}

TEST_F(VSphereRecords, CommandLineThatDoesNotFitIsNotRun) {
    // The line is "<tool>" -host h -port 443 -user u -pwd <pwd> -method
    // removeDatastore -argu ds; choose the password so that it has 1023
    // characters (the most the 1024-byte buffer holds), then one more.
    std::string fixed = "\"" + tool + "\" -host h -port 443 -user u -pwd  -method removeDatastore -argu ds";
    ASSERT_LT(fixed.size(), 1023u);
    std::string pwd(1023 - fixed.size(), 'w');
    CVSphereWebController controller;
    EXPECT_EQ(0, controller.RemoveSession("ds", "h", "443", "u", pwd.c_str()));
    EXPECT_EQ(std::vector<std::string>{RunLine(tool, "ds", "h", "443", "u", pwd)}, Runs());

    std::string longer = pwd + "w";
    EXPECT_EQ(-1, controller.RemoveSession("ds", "h", "443", "u", longer.c_str()));
    EXPECT_EQ(1u, Runs().size());

    // A cut line could name another datastore: the cleanup runs nothing for it.
    CRuntimeParam rp("inst", 0);
    u.AddVSphereInfo("datastore-1", "h", "443", "u", std::string(2000, 'x').c_str());
    u.RemoveAllVSphereInfoWithWebCtrl(&rp);
    EXPECT_EQ(0, u.GetVSphereInfo(&rp, false));
    EXPECT_EQ(1u, Runs().size());
}

TEST_F(VSphereRecords, NullFieldsOfARecordAreEmpty) {
    CRuntimeParam rp("inst", 0);
    u.AddVSphereInfo(nullptr, "h", "1", "u", "p");  // no MOID, no record
    u.AddVSphereInfo("ds", nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(1, u.GetVSphereInfo(&rp, true));
    EXPECT_EQ(std::vector<std::string>{" NFS datastore 1 - ds (:)"}, recorder.Texts("raw"));
}

TEST(VSphereWebController, ToolBesideJavaInOptXBinIsTheOneRun) {
    // Make the running program /opt/x/bin/java: a copy of this test program
    // in a private /opt, started with the request to remove one datastore.
    std::string err;
    ASSERT_TRUE(EnterPrivateMountNamespace(err)) << err;
    TempDir tmp;
    struct stat st;
    ASSERT_EQ(0, stat("/opt", &st)) << "needs a folder /opt to mount over";
    ScopedTmpfs opt("/opt", "mode=0755");
    ASSERT_TRUE(opt.Ok()) << opt.Error();
    ASSERT_EQ(0, mkdir("/opt/x", 0755));
    ASSERT_EQ(0, mkdir("/opt/x/bin", 0755));
    WriteWholeFile("/opt/x/bin/java", ReadWholeFile(OwnExecutablePath()));
    ASSERT_EQ(0, chmod("/opt/x/bin/java", 0755));
    WriteWholeFile("/opt/x/bin/DsUnmounterLinX86", VSPHERE_TOOL_SCRIPT);
    ASSERT_EQ(0, chmod("/opt/x/bin/DsUnmounterLinX86", 0755));

    std::string runs = tmp / "runs.log";
    pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        setenv("DSUNMOUNTER_RUNS", runs.c_str(), 1);
        setenv("VSPHERE_TEST_REMOVE_SESSION", "datastore-42", 1);
        execl("/opt/x/bin/java", "java", (char*)nullptr);
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    std::vector<std::string> expected = {
        RunLine("/opt/x/bin/DsUnmounterLinX86", "datastore-42", "esx.example", "443", "root", "pw")};
    EXPECT_EQ(expected, SplitLines(ReadWholeFile(runs)));
}
