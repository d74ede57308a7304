// File IDs, the path table with its list of recently found IDs, and the
// 56-byte NFS file handles built on them.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "FileTable.h"
#include "TestSupport.h"
#include "Utilities.h"

namespace {

LogArgu la{"Test.FileTable"};

std::string Name(int i) { return "/export/dir/file" + std::to_string(i); }

std::string PathOf(CFileTable& table, unsigned int id) {
    char buf[PATH_BUFFER_SIZE];
    if (!table.GetPathByID(id, buf, sizeof buf)) return "<none>";
    return buf;
}

std::string PathOfHandle(CUtilities& u, const unsigned char* handle) {
    char buf[PATH_BUFFER_SIZE];
    if (!u.GetFilePath(nullptr, handle, buf, sizeof buf)) return "<none>";
    return buf;
}

}  // namespace

TEST(FileTable, IdsRunInOrderOfFirstSightAndFillBucketsOf1024) {
    CFileTable table;
    for (int i = 0; i < 1025; ++i) EXPECT_EQ((unsigned)i, table.GetIDByPath(Name(i).c_str()));
    EXPECT_EQ(1025u, table.GetRowCount());
    EXPECT_EQ(Name(0), PathOf(table, 0));
    EXPECT_EQ(Name(1023), PathOf(table, 1023));
    EXPECT_EQ(Name(1024), PathOf(table, 1024));
    EXPECT_EQ("<none>", PathOf(table, 1025));
    EXPECT_EQ("<none>", PathOf(table, 2048));  // a bucket that does not exist
}

TEST(FileTable, HandlesOfRealFilesCarryTheIdInTheFirstFourBytes) {
    TempDir dir;
    CUtilities u;
    std::string base = Canonical(dir.Path());
    unsigned char handle[FILE_HANDLE_SIZE];
    for (int i = 0; i < 1025; ++i) {
        std::string path = dir / ("f" + std::to_string(i));
        WriteWholeFile(path, "x");
        ASSERT_TRUE(u.GetFileHandle(nullptr, &la, path.c_str(), handle, sizeof handle));
        unsigned int id;
        memcpy(&id, handle, 4);
        ASSERT_EQ((unsigned)i, id);
    }
    // The 1025th file opens the second bucket: ID 1024, little-endian.
    const unsigned char expected[4] = {0x00, 0x04, 0x00, 0x00};
    EXPECT_EQ(0, memcmp(expected, handle, 4));
    // Bytes 4..11 the verifier of this table, the rest zero.
    EXPECT_EQ(0, memcmp(HandleOfId(u, 0).data() + 4, handle + 4, 8));
    for (size_t i = 12; i < FILE_HANDLE_SIZE; ++i) EXPECT_EQ(0, handle[i]) << i;
    EXPECT_EQ(base + "/f1024", PathOfHandle(u, handle));

    unsigned char first[FILE_HANDLE_SIZE];
    ASSERT_TRUE(u.GetFileHandle(nullptr, &la, (dir / "f0").c_str(), first, sizeof first));
    unsigned char last[FILE_HANDLE_SIZE];
    ASSERT_TRUE(u.GetFileHandle(nullptr, &la, (dir / "f1023").c_str(), last, sizeof last));
    const unsigned char id1023[4] = {0xFF, 0x03, 0x00, 0x00};
    EXPECT_EQ(0, memcmp(id1023, last, 4));
}

TEST(FileTable, SamePathSameIdAndCaseMatters) {
    TempDir dir;
    CUtilities u;
    WriteWholeFile(dir / "name", "a");
    WriteWholeFile(dir / "NAME", "b");
    unsigned int id = u.GetFileID(nullptr, &la, (dir / "name").c_str());
    EXPECT_EQ(id, u.GetFileID(nullptr, &la, (dir / "name").c_str()));
    unsigned int upper = u.GetFileID(nullptr, &la, (dir / "NAME").c_str());
    EXPECT_NE(id, upper);
    EXPECT_EQ(id + 1, upper);
}

TEST(FileTable, TheSameFileByAnotherSpellingGetsTheSameId) {
    TempDir dir;
    CUtilities u;
    ASSERT_EQ(0, mkdir((dir / "sub").c_str(), 0755));
    WriteWholeFile(dir / "sub/file", "a");
    ASSERT_EQ(0, symlink((dir / "sub").c_str(), (dir / "link").c_str()));
    unsigned int id = u.GetFileID(nullptr, &la, (dir / "sub/file").c_str());
    EXPECT_EQ(id, u.GetFileID(nullptr, &la, (dir / "sub/../sub/./file").c_str()));
    EXPECT_EQ(id, u.GetFileID(nullptr, &la, (dir / "link/file").c_str()));
    char buf[PATH_BUFFER_SIZE];
    ASSERT_TRUE(u.GetFilePath(nullptr, HandleOfId(u, id).data(), buf, sizeof buf));
    EXPECT_EQ(Canonical(dir.Path()) + "/sub/file", buf);
}

TEST(FileTable, MissingPathsAreKeptAsGiven) {
    TempDir dir;
    CUtilities u;
    std::string missing = dir / "no/such/file";
    unsigned int id = u.GetFileID(nullptr, &la, missing.c_str());
    EXPECT_EQ(missing, PathOfHandle(u, HandleOfId(u, id).data()));
}

TEST(FileTable, UpdateItemPathMovesTheRowAndKeepsItsId) {
    CFileTable table;
    unsigned int a = table.GetIDByPath("/e/a");
    table.GetIDByPath("/e/other");
    EXPECT_TRUE(table.UpdateItemPath("/e/a", "/e/b"));
    EXPECT_EQ("/e/b", PathOf(table, a));
    EXPECT_EQ(a, table.GetIDByPath("/e/b"));
    unsigned int again = table.GetIDByPath("/e/a");  // a new row
    EXPECT_EQ(2u, again);
    EXPECT_EQ(3u, table.GetRowCount());
    EXPECT_FALSE(table.UpdateItemPath("/e/none", "/e/x"));
    EXPECT_FALSE(table.UpdateItemPath(nullptr, "/e/x"));
    EXPECT_FALSE(table.UpdateItemPath("/e/a", nullptr));
}

TEST(FileTable, GetPathByIdNeedsRoomForTheTerminatingZero) {
    CFileTable table;
    unsigned int id = table.GetIDByPath("/abc");  // 4 characters
    char buf[8];
    memset(buf, '#', sizeof buf);
    EXPECT_FALSE(table.GetPathByID(id, buf, 4));
    EXPECT_EQ('#', buf[0]);  // untouched
    EXPECT_TRUE(table.GetPathByID(id, buf, 5));
    EXPECT_STREQ("/abc", buf);
    EXPECT_TRUE(table.GetPathByID(id, nullptr, 0));  // existence test
    EXPECT_FALSE(table.GetPathByID(id + 1, nullptr, 0));
    EXPECT_FALSE(table.GetPathByID(id, buf, 0));
    EXPECT_FALSE(table.GetPathByID(id, buf, -1));
}

TEST(FileTable, NullPathHasNoId) {
    CFileTable table;
    EXPECT_EQ(NO_FILE_ID, table.GetIDByPath(nullptr));
    EXPECT_EQ(0u, table.GetRowCount());
}

TEST(FileTable, GetFileHandleRefusesSizeFourAndLeavesItZero) {
    TempDir dir;
    CUtilities u;
    WriteWholeFile(dir / "f", "x");
    unsigned char handle[8];
    memset(handle, 0xAA, sizeof handle);
    EXPECT_FALSE(u.GetFileHandle(nullptr, &la, (dir / "f").c_str(), handle, 4));
    for (int i = 0; i < 4; ++i) EXPECT_EQ(0, handle[i]);
    EXPECT_EQ(0xAA, handle[4]);  // nothing beyond the given size
    EXPECT_FALSE(u.GetFileHandle(nullptr, &la, (dir / "f").c_str(), nullptr, 56));
    EXPECT_TRUE(u.GetFileHandle(nullptr, &la, (dir / "f").c_str(), handle, 5));
    const std::vector<unsigned char> whole = HandleOfId(u, 0);
    EXPECT_EQ(whole[4], handle[4]);  // as much of the verifier as fits
    EXPECT_EQ(0xAA, handle[5]);
    // MOUNT asks for 88 bytes: all of them are written, zero behind the verifier.
    unsigned char mnt[88];
    memset(mnt, 0xAA, sizeof mnt);
    EXPECT_TRUE(u.GetFileHandle(nullptr, &la, (dir / "f").c_str(), mnt, sizeof mnt));
    EXPECT_EQ(0, memcmp(whole.data(), mnt, FILE_HANDLE_SIZE));
    for (size_t i = 12; i < sizeof mnt; ++i) EXPECT_EQ(0, mnt[i]) << i;
}

TEST(FileTable, NullPathGivesAHandleWithNoId) {
    CUtilities u;
    unsigned char handle[FILE_HANDLE_SIZE];
    memset(handle, 0xAA, sizeof handle);
    EXPECT_FALSE(u.GetFileHandle(nullptr, &la, nullptr, handle, sizeof handle));
    for (int i = 0; i < 4; ++i) EXPECT_EQ(0xFF, handle[i]);
    for (size_t i = 4; i < FILE_HANDLE_SIZE; ++i) EXPECT_EQ(0, handle[i]);
    EXPECT_EQ("<none>", PathOfHandle(u, handle));
}

TEST(FileTable, AllZeroHandleIsStaleAndIdZeroWithTheVerifierNamesTheFirstPath) {
    TempDir dir;
    CUtilities u;
    WriteWholeFile(dir / "first", "1");
    WriteWholeFile(dir / "second", "2");
    u.GetFileID(nullptr, &la, (dir / "first").c_str());
    u.GetFileID(nullptr, &la, (dir / "second").c_str());
    nfs_fh3 zero{};
    char buf[PATH_BUFFER_SIZE];
    bool stale = false;
    EXPECT_FALSE(u.GetFilePath(nullptr, zero.cHandle, buf, sizeof buf, sizeof zero.cHandle, &stale));
    EXPECT_TRUE(stale);
    EXPECT_EQ(Canonical(dir / "first"), PathOfHandle(u, HandleOfId(u, 0).data()));
    // A handle too short to hold the verifier is stale as well.
    EXPECT_FALSE(u.GetFilePath(nullptr, HandleOfId(u, 0).data(), buf, sizeof buf, 11, &stale));
    EXPECT_TRUE(stale);
    EXPECT_TRUE(u.GetFilePath(nullptr, HandleOfId(u, 0).data(), buf, sizeof buf, 12, &stale));
    EXPECT_FALSE(stale);
}

TEST(FileTable, HandlesBeyondTheTableOrUnfittingFail) {
    CUtilities u;
    unsigned char handle[FILE_HANDLE_SIZE] = {};
    EXPECT_EQ("<none>", PathOfHandle(u, handle));  // empty table
    EXPECT_FALSE(u.GetFilePath(nullptr, nullptr, nullptr, 0));
    unsigned int id = u.GetFileID(nullptr, &la, "/no/such/path");
    char small[4];
    EXPECT_FALSE(u.GetFilePath(nullptr, HandleOfId(u, id).data(), small, sizeof small));
    EXPECT_EQ("<none>", PathOfHandle(u, HandleOfId(u, id + 1).data()));
}

TEST(FileTable, RecentListTakesAPathOnItsSecondLookup) {
    CFileTable table;
    table.GetIDByPath("/a");
    table.GetIDByPath("/b");
    EXPECT_TRUE(table.GetCache().empty());  // added rows are not entered
    table.GetIDByPath("/b");
    table.GetIDByPath("/a");
    EXPECT_EQ((std::vector<unsigned>{1, 0}), table.GetCache());
    table.GetIDByPath("/b");  // a hit does not reorder
    table.GetIDByPath("/nothing-new");
    EXPECT_EQ((std::vector<unsigned>{1, 0}), table.GetCache());
    // A renamed row stays in the list under its ID and is found by its new path.
    EXPECT_TRUE(table.UpdateItemPath("/b", "/c"));
    EXPECT_EQ(1u, table.GetIDByPath("/c"));
    EXPECT_EQ((std::vector<unsigned>{1, 0}), table.GetCache());
}

TEST(FileTable, RecentListIsTrimmedByATenthWhenFull) {
    for (bool index : {true, false}) {
        CFileTable table(index);
        for (int i = 0; i < 1100; ++i) table.GetIDByPath(Name(i).c_str());
        for (int i = 0; i < 1024; ++i) table.GetIDByPath(Name(i).c_str());
        ASSERT_EQ(1024u, table.GetCache().size());
        table.GetIDByPath(Name(1050).c_str());  // a miss that finds a row
        const std::vector<unsigned>& cache = table.GetCache();
        ASSERT_EQ(923u, cache.size()) << index;
        EXPECT_EQ(102u, cache.front());  // the oldest 102 went
        EXPECT_EQ(1023u, cache[921]);
        EXPECT_EQ(1050u, cache.back());
        // The dropped rows are found again and re-enter at the end.
        table.GetIDByPath(Name(0).c_str());
        EXPECT_EQ(0u, table.GetCache().back());
        EXPECT_EQ(924u, table.GetCache().size());
    }
}

TEST(FileTable, ClearRestartsIdsAtZero) {
    CFileTable table;
    table.GetIDByPath("/a");
    table.GetIDByPath("/b");
    table.GetIDByPath("/b");
    table.Clear();
    EXPECT_EQ(0u, table.GetRowCount());
    EXPECT_TRUE(table.GetCache().empty());
    EXPECT_EQ(0u, table.GetIDByPath("/b"));
    EXPECT_EQ("<none>", PathOf(table, 1));
}

TEST(FileTable, AfterResetOldHandlesAreStaleEvenWhenTheirIdIsGivenOutAgain) {
    TempDir dir;
    CUtilities u;
    for (const char* n : {"a", "b", "c"}) WriteWholeFile(dir / n, n);
    unsigned char handleA[FILE_HANDLE_SIZE], handleC[FILE_HANDLE_SIZE];
    ASSERT_TRUE(u.GetFileHandle(nullptr, &la, (dir / "a").c_str(), handleA, sizeof handleA));
    u.GetFileID(nullptr, &la, (dir / "b").c_str());
    ASSERT_TRUE(u.GetFileHandle(nullptr, &la, (dir / "c").c_str(), handleC, sizeof handleC));
    u.ResetFileTable();
    EXPECT_EQ("<none>", PathOfHandle(u, handleA));
    EXPECT_EQ(0u, u.GetFileID(nullptr, &la, (dir / "b").c_str()));
    EXPECT_EQ("<none>", PathOfHandle(u, handleA));  // ID 0 is now b, under a new verifier
    EXPECT_EQ(Canonical(dir / "b"), PathOfHandle(u, HandleOfId(u, 0).data()));
    EXPECT_NE(0, memcmp(handleA + 4, HandleOfId(u, 0).data() + 4, 8));
    EXPECT_EQ("<none>", PathOfHandle(u, handleC));
}

TEST(FileTable, OverlongPathsStayInsideTheirBuffers) {
    CUtilities u;
    std::string longPath = "/" + std::string(6000, 'x');
    unsigned int id = u.GetFileID(nullptr, &la, longPath.c_str());
    ASSERT_NE(NO_FILE_ID, id);
    char buf[PATH_BUFFER_SIZE];
    ASSERT_TRUE(u.GetFilePath(nullptr, HandleOfId(u, id).data(), buf, sizeof buf));
    EXPECT_EQ(PATH_BUFFER_SIZE - 1, strlen(buf));  // cut to the path buffer
}

TEST(FileTable, TheGetFileIdLogIsTheCanonicalPathLine) {
    TempDir dir;
    CUtilities u;
    CRuntimeParam rp("id", CRuntimeParam::LOG_GENERAL_INFO);
    testing::internal::CaptureStdout();
    u.GetFileID(&rp, &la, (dir / "missing").c_str());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ("[info] (id) [Test.FileTable] Fail to get canonical path from non-exist path: " + (dir / "missing") +
                  "\n",
              out);
}

// The path index must give the same IDs and leave the recent list exactly as
// the plain scans do, also when renames make two rows share a path.
TEST(FileTable, PathIndexBehavesExactlyLikeTheScans) {
    CFileTable indexed(true), scanned(false);
    ASSERT_TRUE(indexed.HasPathIndex());
    ASSERT_FALSE(scanned.HasPathIndex());
    std::mt19937 rng(12345);
    for (int step = 0; step < 60000; ++step) {
        int op = (int)(rng() % 10);
        std::string a = Name((int)(rng() % 1500));
        if (op == 0) {
            std::string b = Name((int)(rng() % 1500));
            ASSERT_EQ(indexed.UpdateItemPath(a.c_str(), b.c_str()), scanned.UpdateItemPath(a.c_str(), b.c_str()))
                << step;
        } else if (op == 1 && rng() % 500 == 0) {
            indexed.Clear();
            scanned.Clear();
        } else {
            ASSERT_EQ(indexed.GetIDByPath(a.c_str()), scanned.GetIDByPath(a.c_str())) << step;
        }
        ASSERT_EQ(indexed.GetCache(), scanned.GetCache()) << step;
    }
    ASSERT_EQ(indexed.GetRowCount(), scanned.GetRowCount());
    for (unsigned id = 0; id < indexed.GetRowCount(); ++id) ASSERT_EQ(PathOf(scanned, id), PathOf(indexed, id));
}

TEST(FileTable, DuplicatePathsAfterARenameResolveLikeTheScans) {
    for (bool index : {true, false}) {
        CFileTable table(index);
        table.GetIDByPath("/x");                  // 0
        table.GetIDByPath("/y");                  // 1
        EXPECT_TRUE(table.UpdateItemPath("/y", "/x"));  // full pass: 1 enters the list
        EXPECT_EQ((std::vector<unsigned>{1}), table.GetCache());
        // Two rows hold /x: the recent list answers first, with row 1.
        EXPECT_EQ(1u, table.GetIDByPath("/x")) << index;
        table.Clear();
        table.GetIDByPath("/x");  // 0
        table.GetIDByPath("/y");  // 1
        table.GetIDByPath("/z");  // 2
        table.GetIDByPath("/z");  // 2 enters the list
        EXPECT_TRUE(table.UpdateItemPath("/z", "/x"));  // a hit: list unchanged
        EXPECT_EQ((std::vector<unsigned>{2}), table.GetCache());
        EXPECT_EQ(2u, table.GetIDByPath("/x")) << index;
        EXPECT_TRUE(table.UpdateItemPath("/x", "/w"));  // moves row 2, the recent one
        EXPECT_EQ(0u, table.GetIDByPath("/x")) << index;  // now the full pass: lowest ID
        EXPECT_EQ((std::vector<unsigned>{2, 0}), table.GetCache());
    }
}
