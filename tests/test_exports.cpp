// The export and session tables: adding and refusing exports, mounting,
// tying request paths to exports, and resetting the file service.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "LogRecorder.h"
#include "TestSupport.h"
#include "Utilities.h"

namespace {

// Recorded lines as "kind|text".
std::vector<std::string> Logged(const LogRecorder& log) {
    std::vector<std::string> lines;
    for (const auto& line : log.Lines()) lines.push_back(line.kind + "|" + line.text);
    return lines;
}

LogArgu la{"NfsMain.AddMountPoint"};

// A file service whose log lines are recorded.
struct Service {
    LogRecorder log;
    CUtilities u;
    CRuntimeParam quiet{"t", 0};
    CRuntimeParam info{"t", CRuntimeParam::LOG_GENERAL_INFO};
    Service() { u.SetCallback(&log); }
    ~Service() { u.SetCallback(nullptr); }
    bool Add(const std::string& local, const std::string& name, char* err = nullptr, const char* ipc = "ipc") {
        return u.AddMountInfo(&quiet, &la, local.c_str(), name.c_str(), ipc, err);
    }
    std::string ExportOf(const std::string& path) {
        MountInfo m;
        if (!u.GetMountInfoByPath(&quiet, &la, path.c_str(), &m)) return "<none>";
        return m.sExportName;
    }
};

}  // namespace

TEST(Exports, ExportNamesWithABlankOrASlashAreRefused) {
    TempDir dir;
    Service s;
    char err[ERROR_TEXT_SIZE] = "";
    EXPECT_FALSE(s.Add(dir.Path(), "a b", err));
    EXPECT_STREQ("Invalid char \" \" inside export name", err);
    EXPECT_FALSE(s.Add(dir.Path(), "a/b", err));
    EXPECT_STREQ("Invalid char \"/\" inside export name", err);
    EXPECT_FALSE(s.Add(dir.Path(), "x/y z", err));  // the first offending character
    EXPECT_STREQ("Invalid char \"/\" inside export name", err);
    EXPECT_EQ(0, s.u.GetMountInfo(&s.quiet, false, false));
    EXPECT_FALSE(s.u.IsMountInfoExists(&s.quiet, &la, dir.Path().c_str(), "a b", nullptr));
    // Other characters, and the empty name, pass.
    EXPECT_TRUE(s.Add(dir.Path(), "", err));
    EXPECT_TRUE(s.Add(dir / "other", "a\tb.c-d_e", err));
    EXPECT_EQ(2, s.u.GetMountInfo(&s.quiet, false, false));
}

TEST(Exports, ATakenNameIsReportedBeforeAMalformedOne) {
    TempDir dir;
    Service s;
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(s.Add(dir / "one", "name", err));
    EXPECT_FALSE(s.Add(dir / "two", "name", err));
    EXPECT_STREQ("Export name \"name\" already defined", err);
    EXPECT_TRUE(s.u.IsMountInfoExists(&s.quiet, &la, nullptr, "name", err));
    EXPECT_STREQ("Export name \"name\" already defined", err);
    // The same local folder under the name of another export: the name is reported.
    EXPECT_FALSE(s.Add(dir / "one", "name", err));
    EXPECT_STREQ("Export name \"name\" already defined", err);
    // A taken local folder is reported before a malformed name.
    EXPECT_FALSE(s.Add(dir / "one", "bad name", err));
    EXPECT_STREQ(("Local mount path \"" + dir / "one" + "\" already defined").c_str(), err);
}

TEST(Exports, TheSameLocalFolderUnderANewNameIsRefusedAlsoThroughALink) {
    TempDir dir;
    Service s;
    ASSERT_EQ(0, mkdir((dir / "data").c_str(), 0755));
    ASSERT_EQ(0, symlink((dir / "data").c_str(), (dir / "alias").c_str()));
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(s.Add(dir / "data", "first", err));
    std::string expected = "Local mount path \"" + Canonical(dir / "data") + "\" already defined";
    EXPECT_FALSE(s.Add(dir / "data/", "second", err));
    EXPECT_EQ(expected, err);
    err[0] = '\0';
    EXPECT_FALSE(s.Add(dir / "alias", "third", err));
    EXPECT_EQ(expected, err);
    EXPECT_TRUE(s.u.IsMountInfoExists(&s.quiet, &la, (dir / "alias").c_str(), nullptr, nullptr));
    EXPECT_FALSE(s.u.IsMountInfoExists(&s.quiet, &la, dir.Path().c_str(), "fourth", nullptr));
    EXPECT_EQ(1, s.u.GetMountInfo(&s.quiet, false, false));
}

TEST(Exports, AMissingLocalFolderIsStoredAsGiven) {
    TempDir dir;
    Service s;
    std::string missing = dir / "not/there";
    ASSERT_TRUE(s.Add(missing, "m"));
    MountInfo m;
    ASSERT_TRUE(s.u.GetMountInfoByPath(&s.quiet, &la, (missing + "/f").c_str(), &m));
    EXPECT_EQ(missing, m.sLocalMountPath);
    EXPECT_EQ("m", m.sExportName);
    EXPECT_EQ("ipc", m.sIcpID);
    EXPECT_EQ("", m.sRemoteIpAddr);
}

TEST(Exports, AMountedExportRefusesEveryFurtherMountUntilUnmounted) {
    TempDir dir;
    Service s;
    ASSERT_TRUE(s.Add(dir.Path(), "vm", nullptr, "chan1"));
    char err[ERROR_TEXT_SIZE] = "";
    MountInfo out;
    EXPECT_TRUE(s.u.UpdateMountClientIpAddrByExportName("vm", "10.0.0.1", &out, err));
    EXPECT_EQ(Canonical(dir.Path()), out.sLocalMountPath);
    EXPECT_EQ("vm", out.sExportName);
    EXPECT_EQ("chan1", out.sIcpID);
    EXPECT_EQ("10.0.0.1", out.sRemoteIpAddr);
    EXPECT_FALSE(s.u.UpdateMountClientIpAddrByExportName("vm", "10.0.0.2", nullptr, err));
    EXPECT_STREQ("This mount point \"vm\" already mounted by 10.0.0.1", err);
    err[0] = '\0';
    EXPECT_FALSE(s.u.UpdateMountClientIpAddrByExportName("vm", "10.0.0.1", nullptr, err));  // the same client
    EXPECT_STREQ("This mount point \"vm\" already mounted by 10.0.0.1", err);
    EXPECT_TRUE(s.u.IsRemoteAddrExists("10.0.0.1"));
    EXPECT_FALSE(s.u.IsRemoteAddrExists("10.0.0.2"));

    EXPECT_TRUE(s.u.UpdateMountClientIpAddrByExportName("vm", nullptr, &out, nullptr));  // UMNT
    EXPECT_EQ("", out.sRemoteIpAddr);
    EXPECT_FALSE(s.u.IsRemoteAddrExists("10.0.0.1"));
    EXPECT_TRUE(s.u.UpdateMountClientIpAddrByExportName("vm", nullptr, nullptr, nullptr));  // always allowed
    EXPECT_TRUE(s.u.UpdateMountClientIpAddrByExportName("vm", "10.0.0.2", nullptr, err));
    EXPECT_TRUE(s.u.IsRemoteAddrExists("10.0.0.2"));
}

TEST(Exports, UnmountOfAnUnknownExportChangesNothing) {
    TempDir dir;
    Service s;
    ASSERT_TRUE(s.Add(dir.Path(), "vm"));
    ASSERT_TRUE(s.u.UpdateMountClientIpAddrByExportName("vm", "10.0.0.1", nullptr, nullptr));
    char err[ERROR_TEXT_SIZE] = "";
    MountInfo out;
    out.sExportName = "untouched";
    EXPECT_FALSE(s.u.UpdateMountClientIpAddrByExportName("other", nullptr, &out, err));
    EXPECT_STREQ("Undefined export name \"other\"", err);
    EXPECT_EQ("untouched", out.sExportName);
    EXPECT_FALSE(s.u.UpdateMountClientIpAddrByExportName("other", "1.2.3.4", nullptr, nullptr));
    EXPECT_EQ(1, s.u.GetMountInfo(&s.quiet, true, false));
    EXPECT_TRUE(s.u.IsRemoteAddrExists("10.0.0.1"));
}

TEST(Exports, NestedExportsMatchByNameOrderNotByLength) {
    TempDir dir;
    std::string x = Canonical(dir.Path()) + "/x";
    ASSERT_EQ(0, mkdir(x.c_str(), 0755));
    ASSERT_EQ(0, mkdir((x + "/y").c_str(), 0755));
    {
        Service s;
        ASSERT_TRUE(s.Add(x, "b"));
        ASSERT_TRUE(s.Add(x + "/y", "a"));
        EXPECT_EQ("a", s.ExportOf(x + "/y/f"));
        EXPECT_EQ("b", s.ExportOf(x + "/f"));
    }
    {
        Service s;
        ASSERT_TRUE(s.Add(x, "a"));
        ASSERT_TRUE(s.Add(x + "/y", "b"));
        EXPECT_EQ("a", s.ExportOf(x + "/y/f"));
    }
}

TEST(Exports, APathMatchesItsFolderAndWhatIsBeneathButNotASibling) {
    TempDir dir;
    Service s;
    std::string b = Canonical(dir.Path()) + "/a/b";
    ASSERT_TRUE(s.Add(b, "e"));
    EXPECT_EQ("e", s.ExportOf(b));
    EXPECT_EQ("e", s.ExportOf(b + "/"));
    EXPECT_EQ("e", s.ExportOf(b + "/c"));
    EXPECT_EQ("<none>", s.ExportOf(b + "c"));
    EXPECT_EQ("<none>", s.ExportOf(Canonical(dir.Path()) + "/a"));
    EXPECT_FALSE(s.u.GetMountInfoByPath(&s.quiet, &la, (b + "c").c_str(), nullptr));
    EXPECT_TRUE(s.u.GetMountInfoByPath(&s.quiet, &la, (b + "/c").c_str(), nullptr));
}

TEST(Exports, AnExportOfTheRootMatchesEveryAbsolutePath) {
    Service s;
    ASSERT_TRUE(s.Add("/", "root"));
    EXPECT_EQ("root", s.ExportOf("/"));
    EXPECT_EQ("root", s.ExportOf("/anything/at/all"));
    EXPECT_EQ("<none>", s.ExportOf("relative"));
}

TEST(Exports, PathMatchLogLines) {
    TempDir dir;
    Service s;
    std::string a = Canonical(dir.Path()) + "/a";
    std::string z = Canonical(dir.Path()) + "/z";
    ASSERT_TRUE(s.Add(a, "ea"));
    ASSERT_TRUE(s.Add(z, "ez"));
    LogArgu caller{"Nfs3Prog.ProcedureREAD"};
    s.log.Clear();
    ASSERT_TRUE(s.u.GetMountInfoByPath(&s.info, &caller, (z + "/f").c_str(), nullptr));
    std::vector<std::string> expected = {
        "info|[Nfs3Prog.ProcedureREAD] Path scan: \"" + z + "/f/\" vs \"" + a + "\"",
        "info|[Nfs3Prog.ProcedureREAD] Path scan: \"" + z + "/f/\" vs \"" + z + "\"",
        "info|[Nfs3Prog.ProcedureREAD] Path compare: \"" + z + "/f/\" vs \"" + z + "/\"",
        "info|[Nfs3Prog.ProcedureREAD] Path match",
    };
    EXPECT_EQ(expected, Logged(s.log));
    s.log.Clear();
    EXPECT_FALSE(s.u.GetMountInfoByPath(&s.info, &caller, (a + "x").c_str(), nullptr));
    expected = {
        "info|[Nfs3Prog.ProcedureREAD] Path scan: \"" + a + "x/\" vs \"" + a + "\"",
        "info|[Nfs3Prog.ProcedureREAD] Path compare: \"" + a + "x/\" vs \"" + a + "/\"",
        "info|[Nfs3Prog.ProcedureREAD] Path scan: \"" + a + "x/\" vs \"" + z + "\"",
    };
    EXPECT_EQ(expected, Logged(s.log));  // no line for the failed match
    s.log.Clear();
    s.u.GetMountInfoByPath(&s.quiet, &caller, (z + "/f").c_str(), nullptr);
    EXPECT_TRUE(Logged(s.log).empty());
}

TEST(Exports, AddingLogsTheCanonicalPathLines) {
    TempDir dir;
    Service s;
    std::string missing = dir / "missing";
    s.u.AddMountInfo(&s.info, &la, dir.Path().c_str(), "e1", "", nullptr);
    s.u.AddMountInfo(&s.info, &la, missing.c_str(), "e2", "", nullptr);
    std::string c = Canonical(dir.Path());
    // The path is canonicalised by the add and again by the conflict check.
    std::vector<std::string> expected = {
        "info|[NfsMain.AddMountPoint] Get canonical path successfully: " + c,
        "info|[NfsMain.AddMountPoint] Get canonical path successfully: " + c,
        "info|[NfsMain.AddMountPoint] Fail to get canonical path from non-exist path: " + missing,
        "info|[NfsMain.AddMountPoint] Fail to get canonical path from non-exist path: " + missing,
    };
    EXPECT_EQ(expected, Logged(s.log));
}

TEST(Exports, RemovingTheLastExportResetsTheFileTable) {
    TempDir dir;
    Service s;
    for (const char* n : {"one", "two"}) ASSERT_EQ(0, mkdir((dir / n).c_str(), 0755));
    ASSERT_TRUE(s.Add(dir / "one", "one"));
    ASSERT_TRUE(s.Add(dir / "two", "two"));
    unsigned int id0 = s.u.GetFileID(&s.quiet, &la, (dir / "one").c_str());
    unsigned int id1 = s.u.GetFileID(&s.quiet, &la, (dir / "two").c_str());
    ASSERT_EQ(1u, id1);
    unsigned char handle[56] = {};
    memcpy(handle, HandleOfId(s.u, id1).data(), sizeof handle);
    char buf[PATH_BUFFER_SIZE];

    s.u.RemoveMountInfoByLocalMountPath(&s.quiet, &la, (dir / "one").c_str());  // one of two
    EXPECT_EQ(1, s.u.GetMountInfo(&s.quiet, false, false));
    EXPECT_TRUE(s.u.GetFilePath(&s.quiet, handle, buf, sizeof buf));
    EXPECT_EQ(id0, s.u.GetFileID(&s.quiet, &la, (dir / "one").c_str()));

    s.u.RemoveMountInfoByLocalMountPath(&s.quiet, &la, (dir / "two").c_str());  // the last
    EXPECT_EQ(0, s.u.GetMountInfo(&s.quiet, false, false));
    EXPECT_FALSE(s.u.GetFilePath(&s.quiet, handle, buf, sizeof buf));
    EXPECT_EQ(0u, s.u.GetFileID(&s.quiet, &la, (dir / "two").c_str()));
}

TEST(Exports, RemovalByExportNameAndRemovingAll) {
    TempDir dir;
    Service s;
    ASSERT_TRUE(s.Add(dir / "one", "one"));
    ASSERT_TRUE(s.Add(dir / "two", "two"));
    s.u.GetFileID(&s.quiet, &la, "/p0");
    s.u.GetFileID(&s.quiet, &la, "/p1");
    s.u.RemoveMountInfoByExportName("nope");
    s.u.RemoveMountInfoByExportName("one");
    EXPECT_EQ(2u, s.u.GetFileID(&s.quiet, &la, "/p2"));  // not reset
    s.u.RemoveMountInfoByExportName("two");
    EXPECT_EQ(0u, s.u.GetFileID(&s.quiet, &la, "/p2"));  // reset
    ASSERT_TRUE(s.Add(dir / "one", "one"));
    ASSERT_TRUE(s.Add(dir / "two", "two"));
    s.u.RemoveAllMountInfo();
    EXPECT_EQ(0, s.u.GetMountInfo(&s.quiet, false, false));
    EXPECT_EQ(0u, s.u.GetFileID(&s.quiet, &la, "/p9"));
}

TEST(Exports, RemovalByLocalPathTakesOneRowAndAnEmptyTableStillResets) {
    TempDir dir;
    Service s;
    s.u.GetFileID(&s.quiet, &la, "/p0");
    s.u.RemoveMountInfoByLocalMountPath(&s.quiet, &la, "/nothing");  // empty table: reset
    EXPECT_EQ(0u, s.u.GetFileID(&s.quiet, &la, "/p1"));
    ASSERT_TRUE(s.Add(dir / "a", "a"));
    s.u.GetFileID(&s.quiet, &la, "/p2");
    s.u.RemoveMountInfoByLocalMountPath(&s.quiet, &la, "/nothing");
    EXPECT_EQ(2u, s.u.GetFileID(&s.quiet, &la, "/p3"));
    EXPECT_EQ(1, s.u.GetMountInfo(&s.quiet, false, false));
}

TEST(Exports, ListingCountsAndPrintsTheMountedOnes) {
    TempDir dir;
    Service s;
    ASSERT_TRUE(s.Add(dir / "a", "ea", nullptr, "chanA"));  // missing folders: kept as given
    ASSERT_TRUE(s.Add(dir / "b", "eb", nullptr, "chanB"));
    ASSERT_TRUE(s.u.UpdateMountClientIpAddrByExportName("eb", "192.168.1.7", nullptr, nullptr));
    s.log.Clear();
    EXPECT_EQ(1, s.u.GetMountInfo(&s.quiet, true, true));
    std::vector<std::string> expected = {"raw| Mount 1 - " + dir.Path() + "/b : eb (192.168.1.7) [chanB]"};
    EXPECT_EQ(expected, Logged(s.log));
    s.log.Clear();
    EXPECT_EQ(2, s.u.GetMountInfo(&s.quiet, false, true));
    expected = {"raw| Mount 1 - " + dir.Path() + "/a : ea () [chanA]",
                "raw| Mount 2 - " + dir.Path() + "/b : eb (192.168.1.7) [chanB]"};
    EXPECT_EQ(expected, Logged(s.log));
    s.log.Clear();
    EXPECT_EQ(2, s.u.GetMountInfo(&s.quiet, false, false));
    EXPECT_TRUE(Logged(s.log).empty());
}

TEST(Exports, ListingGoesToTheConsoleWithoutALineEnd) {
    CUtilities u;
    CRuntimeParam rp("t", 0);
    ASSERT_TRUE(u.AddMountInfo(&rp, &la, "/not/here", "e", "i", nullptr));
    testing::internal::CaptureStdout();
    EXPECT_EQ(1, u.GetMountInfo(&rp, false, true));
    EXPECT_EQ(" Mount 1 - /not/here : e () [i]", testing::internal::GetCapturedStdout());
}

TEST(Sessions, AddOverwriteRemoveAndList) {
    Service s;
    EXPECT_FALSE(s.u.IsSessionExists("s1"));
    s.u.AddSessionInfo("s2", "/data/x");
    s.u.AddSessionInfo("s1", "/data/y");
    s.u.AddSessionInfo("s3", "/data/x");
    s.u.AddSessionInfo("s1", "/data/z");  // overwritten
    EXPECT_TRUE(s.u.IsSessionExists("s1"));
    s.log.Clear();
    EXPECT_EQ(3, s.u.GetSessionInfo(&s.quiet, true));
    std::vector<std::string> expected = {"raw| Session 1 - s1 : /data/z", "raw| Session 2 - s2 : /data/x",
                                         "raw| Session 3 - s3 : /data/x"};
    EXPECT_EQ(expected, Logged(s.log));
    s.u.RemoveSessionInfoByLocalMountPath("/data/x/");  // exact text only
    EXPECT_EQ(3, s.u.GetSessionInfo(&s.quiet, false));
    s.u.RemoveSessionInfoByLocalMountPath("/data/x");
    EXPECT_EQ(1, s.u.GetSessionInfo(&s.quiet, false));
    EXPECT_TRUE(s.u.IsSessionExists("s1"));
    s.u.RemoveSessionInfo("nope");
    s.u.RemoveSessionInfo("s1");
    EXPECT_FALSE(s.u.IsSessionExists("s1"));
    s.u.AddSessionInfo("s4", "/a");
    s.u.AddSessionInfo("s5", "/b");
    s.u.RemoveAllSessionInfo();
    EXPECT_EQ(0, s.u.GetSessionInfo(&s.quiet, true));
}

TEST(Reset, EmptiesExportsSessionsDescriptorsAndTheFileTable) {
    TempDir dir;
    Service s;
    WriteWholeFile(dir / "f", "data");
    ASSERT_TRUE(s.Add(dir.Path(), "e"));
    s.u.AddSessionInfo("s", dir.Path().c_str());
    s.u.GetFileID(&s.quiet, &la, (dir / "f").c_str());
    int before = CountOpenDescriptors();
    ASSERT_NE(-1, s.u.GetCachedFileHandle(&s.quiet, &la, (dir / "f").c_str(), false));
    EXPECT_EQ(before + 1, CountOpenDescriptors());
    LogArgu stop{"NfsMain.StopServer"};
    s.u.Reset(&s.quiet, &stop);
    EXPECT_EQ(before, CountOpenDescriptors());
    EXPECT_EQ(0, s.u.GetMountInfo(&s.quiet, false, false));
    EXPECT_EQ(0, s.u.GetSessionInfo(&s.quiet, false));
    EXPECT_EQ(0u, s.u.GetFileID(&s.quiet, &la, "/other"));
}

TEST(Exports, NullArgumentsAreTakenAsEmptyTexts) {
    Service s;
    char err[ERROR_TEXT_SIZE] = "";
    EXPECT_FALSE(s.u.IsMountInfoExists(&s.quiet, &la, nullptr, nullptr, err));
    EXPECT_TRUE(s.u.AddMountInfo(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_FALSE(s.u.AddMountInfo(nullptr, nullptr, "/elsewhere", nullptr, nullptr, err));
    EXPECT_STREQ("Export name \"\" already defined", err);
    EXPECT_FALSE(s.u.UpdateMountClientIpAddrByExportName("x", nullptr, nullptr, nullptr));
    EXPECT_TRUE(s.u.UpdateMountClientIpAddrByExportName(nullptr, "1.1.1.1", nullptr, nullptr));
    EXPECT_TRUE(s.u.GetMountInfoByPath(nullptr, nullptr, nullptr, nullptr));  // an empty folder prefixes all
    EXPECT_FALSE(s.u.IsRemoteAddrExists(nullptr));
    s.u.AddSessionInfo(nullptr, nullptr);
    EXPECT_TRUE(s.u.IsSessionExists(""));
    s.u.RemoveSessionInfoByLocalMountPath(nullptr);
    EXPECT_FALSE(s.u.IsSessionExists(nullptr));
    s.u.RemoveMountInfoByLocalMountPath(nullptr, nullptr, nullptr);
    EXPECT_EQ(0, s.u.GetMountInfo(nullptr, false, false));
}
