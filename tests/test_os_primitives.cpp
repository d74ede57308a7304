// OS file primitives, their log lines, and the file-system figures.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "Utilities.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const int kFileAccessAndErrors = CRuntimeParam::LOG_FILE_ACCESS | CRuntimeParam::LOG_ERROR;

std::string SysText(int e) { return std::string(strerror(e)) + " (" + std::to_string(e) + ")"; }

// Gives the tests a way to put real descriptors into the cache.
class CacheUtilities : public CUtilities {
public:
    void AddCached(const std::string& path, int fd, const std::string& key) {
        m_OpenedFileHandles[path] = OpenedFileInfo{fd, key, path};
        m_OpenedFileLastAccessList[key] = path;
    }
    size_t CachedRows() const { return m_OpenedFileHandles.size(); }
    size_t AccessRows() const { return m_OpenedFileLastAccessList.size(); }
};

class OsPrimitives : public testing::Test {
protected:
    TempDir dir;
    CUtilities u;
    CRuntimeParam rp{"os", kFileAccessAndErrors};
    LogArgu la{"Test.Op"};
    char err[ERROR_TEXT_SIZE] = "";
};

}  // namespace

TEST_F(OsPrimitives, DescriptorMinusOneIsRefusedWithoutASystemCall) {
    char buf[4];
    CaptureStdout();
    EXPECT_EQ(-1, u.OS_FileRead(&rp, &la, -1, buf, sizeof buf, err));
    EXPECT_STREQ("Bad file descriptor", err);
    EXPECT_EQ(-1, u.OS_FileWrite(&rp, &la, -1, buf, sizeof buf, nullptr));
    EXPECT_EQ(-1, u.OS_FileSeek(&rp, &la, -1, 0, SEEK_SET, nullptr));
    EXPECT_EQ(-1, u.OS_FileTell(&rp, &la, -1, nullptr));
    EXPECT_EQ(-1, u.OS_FileClose(&rp, &la, "/x", -1, nullptr));
    EXPECT_EQ(
        "[erro] (os) [Test.Op] OS read file (-1). Error=Bad file descriptor\n"
        "[erro] (os) [Test.Op] OS write file (-1). Error=Bad file descriptor\n"
        "[erro] (os) [Test.Op] OS seek file (-1). Error=Bad file descriptor\n"
        "[erro] (os) [Test.Op] OS tell file (-1). Error=Bad file descriptor\n"
        "[erro] (os) [Test.Op] OS close file \"/x\". Error=Bad file descriptor\n",
        GetCapturedStdout());
}

TEST_F(OsPrimitives, SuccessAndFailureLines) {
    std::string f = dir / "f";
    std::string g = dir / "g";
    std::string sub = dir / "sub";
    CaptureStdout();
    int fd = u.OS_FileCreate(&rp, &la, f.c_str(), err);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(3, u.OS_FileWrite(&rp, &la, fd, "abc", 3, err));
    EXPECT_EQ(1, u.OS_FileSeek(&rp, &la, fd, 1, SEEK_SET, err));
    EXPECT_EQ(1, u.OS_FileTell(&rp, &la, fd, err));
    char buf[8] = {0};
    EXPECT_EQ(2, u.OS_FileRead(&rp, &la, fd, buf, sizeof buf, err));
    EXPECT_STREQ("bc", buf);
    EXPECT_EQ(0, u.OS_FileClose(&rp, &la, f.c_str(), fd, err));
    EXPECT_EQ(0, u.OS_FileRename(&rp, &la, f.c_str(), g.c_str(), err));
    EXPECT_EQ(0, u.OS_SetFileMode(&rp, &la, g.c_str(), 0600, err));
    struct stat st;
    EXPECT_EQ(0, u.OS_GetFileStat(&rp, &la, g.c_str(), &st, err));
    EXPECT_EQ(0100600u, st.st_mode);
    EXPECT_EQ(0, u.OS_FileRemove(&rp, &la, g.c_str(), err));
    EXPECT_EQ(0, u.OS_FolderCreate(&rp, &la, sub.c_str(), 0755, err));
    EXPECT_EQ(0, u.OS_FolderRemove(&rp, &la, sub.c_str(), err));
    std::string out = GetCapturedStdout();
    std::string d = std::to_string(fd);
    EXPECT_EQ("[info] (os) [Test.Op] OS create file \"" + f + "\"\n" +
                  "[info] (os) [Test.Op] OS write file (" + d + ")\n" +
                  "[info] (os) [Test.Op] OS seek file (" + d + ")\n" +
                  "[info] (os) [Test.Op] OS tell file (" + d + ")\n" +
                  "[info] (os) [Test.Op] OS read file (" + d + ")\n" +
                  "[info] (os) [Test.Op] OS close file \"" + f + "\"\n" +
                  "[info] (os) [Test.Op] OS rename file from \"" + f + "\" to \"" + g + "\"\n" +
                  "[info] (os) [Test.Op] OS set file mode \"" + g + "\" (mode = 384)\n" +
                  "[info] (os) [Test.Op] OS get file stat \"" + g + "\"\n" +
                  "[info] (os) [Test.Op] OS remove file \"" + g + "\"\n" +
                  "[info] (os) [Test.Op] OS create folder \"" + sub + "\" (mode = 493)\n" +
                  "[info] (os) [Test.Op] OS remove folder \"" + sub + "\"\n",
              out);

    // Each failure copies the system text into err and logs the failure line.
    std::string missing = dir / "missing";
    CaptureStdout();
    EXPECT_EQ(-1, u.OS_FileRemove(&rp, &la, missing.c_str(), err));
    EXPECT_EQ(SysText(ENOENT), err);
    EXPECT_EQ(-1, u.OS_FileRename(&rp, &la, missing.c_str(), g.c_str(), nullptr));
    EXPECT_EQ(-1, u.OS_FolderRemove(&rp, &la, missing.c_str(), nullptr));
    EXPECT_EQ(-1, u.OS_SetFileMode(&rp, &la, missing.c_str(), 0644, nullptr));
    EXPECT_EQ(-1, u.OS_GetFileStat(&rp, &la, missing.c_str(), &st, nullptr));
    EXPECT_EQ(-1, u.OS_FolderCreate(&rp, &la, (missing + "/a").c_str(), 0700, nullptr));
    EXPECT_EQ(-1, u.OS_FileCreate(&rp, &la, (missing + "/a").c_str(), nullptr));
    out = GetCapturedStdout();
    std::string e = ". Error=" + SysText(ENOENT) + "\n";
    EXPECT_EQ("[erro] (os) [Test.Op] OS remove file \"" + missing + "\"" + e +
                  "[erro] (os) [Test.Op] OS rename file from \"" + missing + "\" to \"" + g + "\"" + e +
                  "[erro] (os) [Test.Op] OS remove folder \"" + missing + "\"" + e +
                  "[erro] (os) [Test.Op] OS set file mode \"" + missing + "\" (mode = 420)" + e +
                  "[erro] (os) [Test.Op] OS get file stat \"" + missing + "\"" + e +
                  "[erro] (os) [Test.Op] OS create folder \"" + missing + "/a\" (mode = 448)" + e +
                  "[erro] (os) [Test.Op] OS create file \"" + missing + "/a\"" + e,
              out);
}

TEST_F(OsPrimitives, GetFileStatDescribesALinkItself) {
    std::string target = dir / "target";
    std::string link = dir / "link";
    WriteWholeFile(target, "12345");
    ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
    struct stat st;
    ASSERT_EQ(0, u.OS_GetFileStat(&rp, &la, link.c_str(), &st, nullptr));
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_TRUE(CUtilities::OS_IsFileExists(link.c_str(), nullptr));  // follows the link
    ASSERT_EQ(0, unlink(target.c_str()));
    char e[ERROR_TEXT_SIZE] = "";
    EXPECT_FALSE(CUtilities::OS_IsFileExists(link.c_str(), e));
    EXPECT_STREQ("ErrCode=2", e);
}

TEST_F(OsPrimitives, SetFileSizeCreatesWithMode0755AndSkipsAnEqualSize) {
    mode_t old = umask(0);
    std::string f = dir / "sized";
    CaptureStdout();
    EXPECT_TRUE(u.OS_SetFileSize(&rp, &la, f.c_str(), 5000, err));
    EXPECT_EQ("[info] (os) [Test.Op] OS set file file \"" + f + "\"\n", GetCapturedStdout());
    struct stat st;
    ASSERT_EQ(0, stat(f.c_str(), &st));
    EXPECT_EQ(0755u, st.st_mode & 07777);
    EXPECT_EQ(5000, st.st_size);

    CaptureStdout();
    EXPECT_TRUE(u.OS_SetFileSize(&rp, &la, f.c_str(), 5000, err));
    EXPECT_EQ("", GetCapturedStdout());

    EXPECT_TRUE(u.OS_SetFileSize(&rp, &la, f.c_str(), 10, err));
    ASSERT_EQ(0, stat(f.c_str(), &st));
    EXPECT_EQ(10, st.st_size);
    umask(old);

    CaptureStdout();
    EXPECT_FALSE(u.OS_SetFileSize(&rp, &la, (dir / "no/such").c_str(), 1, err));
    EXPECT_EQ(SysText(ENOENT), err);
    EXPECT_EQ("[erro] (os) [Test.Op] OS set file file \"" + (dir / "no/such") + "\". Error=" + SysText(ENOENT) +
                  "\n",
              GetCapturedStdout());
}

TEST_F(OsPrimitives, ForceOpenCreatesMissingFoldersInOrderThenAppends) {
    std::string base = dir.Path();
    std::string path = base + "/a/b/log.txt";
    std::vector<std::string> pieces;
    CUtilities::SplitIntoVector(path.c_str(), '/', pieces);
    CaptureStdout();
    int fd = u.OS_FileForceOpen(&rp, &la, path.c_str(), err);
    std::string out = GetCapturedStdout();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(1, write(fd, "x", 1));
    close(fd);

    // Every folder from the root down is checked; the missing ones are made.
    std::vector<std::string> expected;
    expected.push_back("[info] (os) [Test.Op] OS splited path \"" + path + "\" into " +
                       std::to_string(pieces.size()) + " elements");
    std::string folder;
    for (size_t i = 1; i + 1 < pieces.size(); ++i) {
        folder += "/" + pieces[i];
        expected.push_back("[info] (os) [Test.Op] Check folder \"" + folder + "\" exists");
        if (folder.size() > base.size()) {
            expected.push_back("[info] (os) [Test.Op] Create folder \"" + folder + "\"");
            expected.push_back("[info] (os) [Test.Op] OS create folder \"" + folder + "\" (mode = 493)");
        }
    }
    expected.push_back("[info] (os) [Test.Op] OS create file \"" + path + "\"");
    EXPECT_EQ(expected, SplitLines(out));

    CaptureStdout();
    fd = u.OS_FileForceOpen(&rp, &la, path.c_str(), err);
    out = GetCapturedStdout();
    ASSERT_GE(fd, 0);
    EXPECT_NE(std::string::npos, out.find("OS open file \"" + path + "\""));
    EXPECT_EQ(std::string::npos, out.find("Create folder"));
    ASSERT_EQ(1, write(fd, "y", 1));
    close(fd);
    EXPECT_EQ("xy", ReadWholeFile(path));
}

TEST_F(OsPrimitives, ForceOpenFailsWhenAFolderCannotBeMade) {
    WriteWholeFile(dir / "plain", "");
    std::string path = dir / "plain/sub/log.txt";
    EXPECT_EQ(-1, u.OS_FileForceOpen(&rp, &la, path.c_str(), err));
    EXPECT_EQ(SysText(ENOTDIR), err);
    EXPECT_FALSE(PathExists(path));
}

// Runs in a child process: fills the descriptor table with cached
// descriptors under a lowered limit, then opens once more. Exits 0 when every
// expectation holds, else with the number of the one that failed.
static void RetryScenario(const std::string& target) {
    CacheUtilities u;
    CRuntimeParam rp("", CRuntimeParam::LOG_ERROR);
    LogArgu la{"Test.Retry"};
    struct rlimit lim = {64, 64};
    if (setrlimit(RLIMIT_NOFILE, &lim) != 0) _exit(10);
    int n = 0;
    for (;;) {
        int fd = open(target.c_str(), O_RDONLY);
        if (fd < 0) break;
        char key[32];
        snprintf(key, sizeof key, "%016d%d", 1, fd);
        u.AddCached(target + std::to_string(n++), fd, key);
    }
    if (errno != EMFILE || n < 10) _exit(11);
    size_t before = u.CachedRows();
    char err[ERROR_TEXT_SIZE] = "";
    // Without the retry the open fails with the system text of error 24.
    if (u.OS_FileOpen(&rp, &la, target.c_str(), O_RDONLY, false, err) != -1) _exit(12);
    if (std::string(err) != SysText(EMFILE)) _exit(13);
    // With it, a tenth of the cache is closed and the second try works.
    int fd = u.OS_FileOpen(&rp, &la, target.c_str(), O_RDONLY, true, err);
    if (fd < 0) _exit(14);
    if (u.CachedRows() != before - before / 10) _exit(15);
    if (u.AccessRows() != u.CachedRows()) _exit(16);
    _exit(0);
}

TEST(OsFileOpen, RetryAfterRunningOutOfDescriptorsThinsTheCache) {
    TempDir dir;
    std::string target = dir / "target";
    WriteWholeFile(target, "data");
    EXPECT_EXIT(RetryScenario(target), testing::ExitedWithCode(0), "");
}

TEST(OsFileOpen, FewerThanTenCachedRowsAreAllClosed) {
    TempDir dir;
    CacheUtilities u;
    CRuntimeParam rp("t", CRuntimeParam::LOG_FILE_ACCESS);
    LogArgu la{"Test.Thin"};
    std::string f = dir / "f";
    WriteWholeFile(f, "x");
    int first = -1;
    for (int i = 0; i < 5; ++i) {
        int fd = open(f.c_str(), O_RDONLY);
        if (i == 0) first = fd;
        u.AddCached(f + std::to_string(i), fd, "000000000000000" + std::to_string(i) + std::to_string(fd));
    }
    CaptureStdout();
    u.CloseExceededCachedFileHandle(&rp, &la);
    std::string out = GetCapturedStdout();
    EXPECT_EQ(0u, u.CachedRows());
    EXPECT_EQ(0u, u.AccessRows());
    EXPECT_EQ(0u, out.find("[info] (t) [Test.Thin] Close exceeded cached file handle: ALL\n"));
    EXPECT_EQ(-1, fcntl(first, F_GETFD));  // really closed
}

TEST(FileSystemFigures, MatchStatvfs) {
    TempDir dir;
    const char* p = dir.Path().c_str();
    struct statvfs s;
    ASSERT_EQ(0, statvfs(p, &s));
    EXPECT_EQ((unsigned long long)s.f_blocks * s.f_frsize, CUtilities::GetTotalDiskSpace(p));
    EXPECT_EQ((unsigned long long)s.f_files, CUtilities::GetTotalFileSlots(p));
    EXPECT_EQ((unsigned long long)s.f_fsid, CUtilities::GetFileSystemID(p));
    // Free figures move with other processes; they stay within the total.
    EXPECT_LE(CUtilities::GetFreeDiskSpace(p), CUtilities::GetTotalDiskSpace(p));
    EXPECT_LE(CUtilities::GetFreeDiskSpaceAvailableToCaller(p), CUtilities::GetFreeDiskSpace(p));
    EXPECT_LE(CUtilities::GetFreeFileSlots(p), CUtilities::GetTotalFileSlots(p));
}

TEST(FileSystemFigures, FailedQueriesGiveTheirDefaults) {
    const char* missing = "/nonexistent/folder/for/figures";
    const unsigned long long ones = ~0ULL;
    EXPECT_EQ(ones, CUtilities::GetTotalDiskSpace(missing));
    EXPECT_EQ(ones, CUtilities::GetFreeDiskSpace(missing));
    EXPECT_EQ(ones, CUtilities::GetFreeDiskSpaceAvailableToCaller(missing));
    EXPECT_EQ(ones, CUtilities::GetTotalFileSlots(missing));
    EXPECT_EQ(ones, CUtilities::GetFreeFileSlots(missing));
    EXPECT_EQ(ones, CUtilities::GetFreeFileSlotsAvailableToCaller(missing));
    EXPECT_EQ(4ULL, CUtilities::GetFileSystemID(missing));
    EXPECT_EQ(1ULL << 41, CUtilities::GetMaxFileSize(missing));
}

TEST(FileSystemFigures, FreeSlotsToCallerAreTheFreeSlots) {
    // A private tmpfs keeps the figure still while both are read.
    ASSERT_EQ(0, unshare(CLONE_NEWNS)) << strerror(errno);
    ASSERT_EQ(0, mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
    TempDir dir;
    ASSERT_EQ(0, mount("tmpfs", dir.Path().c_str(), "tmpfs", 0, "size=1m,nr_inodes=100"));
    const char* p = dir.Path().c_str();
    EXPECT_EQ(100ULL, CUtilities::GetTotalFileSlots(p));
    EXPECT_EQ(CUtilities::GetFreeFileSlots(p), CUtilities::GetFreeFileSlotsAvailableToCaller(p));
    EXPECT_EQ(1048576ULL, CUtilities::GetTotalDiskSpace(p));
    EXPECT_EQ(1ULL << 41, CUtilities::GetMaxFileSize(p));  // tmpfs: any other type
    umount(p);
}

TEST(FileSystemFigures, MaxFileSizeByType) {
    EXPECT_EQ(4294967296ULL, CUtilities::MaxFileSizeOfType(0x4D44));       // FAT
    EXPECT_EQ(1ULL << 43, CUtilities::MaxFileSizeOfType(0x52654973));      // ReiserFS
    EXPECT_EQ(1ULL << 41, CUtilities::MaxFileSizeOfType(0xEF53));          // ext2/3/4
    EXPECT_EQ(1ULL << 41, CUtilities::MaxFileSizeOfType(0x01021994));      // tmpfs
}

TEST(Printing, PrintableFileSize) {
    struct {
        unsigned long long size;
        const char* text;
    } cases[] = {{0, "0.0B"},          {1023, "1023.0B"},         {1024, "1024.0B"},
                 {1536, "1.5KB"},      {1048576, "1024.0KB"},     {1073741824, "1024.0MB"},
                 {1ULL << 40, "1024.0GB"}, {~0ULL, "16.0EB"}};
    for (auto& c : cases) {
        char out[32];
        CUtilities::GetPrintableFileSize(c.size, out);
        EXPECT_STREQ(c.text, out) << c.size;
    }
}

TEST(Printing, SplitIntoVector) {
    std::vector<std::string> v;
    CUtilities::SplitIntoVector("/a//b/", '/', v);
    EXPECT_EQ((std::vector<std::string>{"", "a", "", "b"}), v);
    v.clear();
    CUtilities::SplitIntoVector("", '/', v);
    CUtilities::SplitIntoVector(nullptr, '/', v);
    EXPECT_TRUE(v.empty());
    CUtilities::SplitIntoVector("x", '/', v);
    CUtilities::SplitIntoVector("a,b", ',', v);  // appends
    EXPECT_EQ((std::vector<std::string>{"x", "a", "b"}), v);
}

TEST(Printing, CurrentTimeInMilliseconds) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    unsigned long long before = (unsigned long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
    unsigned long long now = CUtilities::GetCurrentSystemTimeInMilliseconds();
    EXPECT_GE(now, before);
    EXPECT_LT(now - before, 60000ULL);
}
