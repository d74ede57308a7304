// The cache of open descriptors and the file operations by path, on real
// files in temporary folders.
#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <vector>

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

bool HasLine(const LogRecorder& log, const std::string& line) {
    for (const auto& l : Logged(log))
        if (l == line) return true;
    return false;
}

LogArgu la{"Nfs3Prog.ProcedureREAD"};

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

off_t SizeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

mode_t ModeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

// Lets the tests look into the descriptor cache.
class CacheProbe : public CUtilities {
public:
    bool IsCached(const std::string& path) { return m_OpenedFileHandles.count(path) != 0; }
    int CachedFile(const std::string& path) {
        auto row = m_OpenedFileHandles.find(path);
        return row == m_OpenedFileHandles.end() ? -2 : row->second.iFile;
    }
    size_t CachedCount() { return m_OpenedFileHandles.size(); }
    // Paths in last-access order, oldest first.
    std::vector<std::string> AccessOrder() {
        std::vector<std::string> paths;
        for (auto& entry : m_OpenedFileLastAccessList) paths.push_back(entry.second);
        return paths;
    }
    std::string TimeKey(const std::string& path) { return m_OpenedFileHandles[path].sTimeKey; }
    // Every row has exactly one last-access entry, naming it by its key.
    bool Consistent() {
        if (m_OpenedFileHandles.size() != m_OpenedFileLastAccessList.size()) return false;
        for (auto& row : m_OpenedFileHandles) {
            auto entry = m_OpenedFileLastAccessList.find(row.second.sTimeKey);
            if (entry == m_OpenedFileLastAccessList.end() || entry->second != row.first) return false;
        }
        return true;
    }
};

struct Service {
    LogRecorder log;
    CacheProbe u;
    CRuntimeParam quiet{"t", 0};
    CRuntimeParam access{"t", CRuntimeParam::LOG_FILE_ACCESS};
    Service() { u.SetCallback(&log); }
    ~Service() { u.SetCallback(nullptr); }
    int Open(const std::string& path) { return u.GetCachedFileHandle(&quiet, &la, path.c_str(), false); }
    int Read(const std::string& path, unsigned long long seek, unsigned len, bool* eof, std::string* data = nullptr) {
        std::vector<char> buf(len + 1);
        int n = u.ReadFile(&quiet, &la, path.c_str(), seek, SEEK_SET, buf.data(), len, eof);
        if (data && n > 0) data->assign(buf.data(), (size_t)n);
        return n;
    }
    int Write(const std::string& path, unsigned long long seek, const std::string& data) {
        return u.WriteFile(&quiet, &la, path.c_str(), seek, SEEK_SET, data.data(), (unsigned)data.size());
    }
    bool Attr(const std::string& path, bool bMode, unsigned mode, bool bUid, bool bSize, unsigned long long size) {
        return u.UpdateFileAttributes(&quiet, &la, path.c_str(), bMode, mode, bUid, 4242, false, 0, bSize, size,
                                      false, 0, 0, false, 0, 0);
    }
};

// Waits until the wall clock enters a new second, so that accesses before and
// after fall into different seconds of the last-access keys.
void WaitForNextSecond() {
    time_t start = time(nullptr);
    while (time(nullptr) == start) usleep(10000);
}

}  // namespace

TEST(DescriptorCache, RepeatedAccessReusesOneDescriptor) {
    TempDir dir;
    Service s;
    WriteWholeFile(dir / "f", "hello");
    int before = CountOpenDescriptors();
    int fd = s.Open(dir / "f");
    ASSERT_NE(-1, fd);
    EXPECT_EQ(fd, s.Open(dir / "f"));
    bool eof = false;
    EXPECT_EQ(5, s.Read(dir / "f", 0, 5, &eof));
    EXPECT_EQ(before + 1, CountOpenDescriptors());
    EXPECT_EQ(1u, s.u.CachedCount());
    EXPECT_TRUE(s.u.Consistent());
}

TEST(DescriptorCache, TimeKeyIsSixteenDigitsOfSecondsThenTheDescriptor) {
    TempDir dir;
    Service s;
    WriteWholeFile(dir / "f", "x");
    time_t before = time(nullptr);
    int fd = s.Open(dir / "f");
    time_t after = time(nullptr);
    std::string key = s.u.TimeKey(dir / "f");
    std::string fdText = std::to_string(fd);
    ASSERT_EQ(16 + fdText.size(), key.size());
    EXPECT_EQ(fdText, key.substr(16));
    unsigned long long seconds = std::stoull(key.substr(0, 16));
    EXPECT_LE((unsigned long long)before, seconds);
    EXPECT_GE((unsigned long long)after, seconds);
}

TEST(DescriptorCache, The1025thFileFirstClosesThe102LeastRecentlyUsed) {
    TempDir dir;
    Service s;
    const int total = 1025;
    std::vector<std::string> paths;
    for (int i = 0; i < total; ++i) {
        paths.push_back(dir / ("f" + std::to_string(i)));
        WriteWholeFile(paths.back(), std::to_string(i));
    }
    // 103 files in an older second; one of them is used again later, so
    // exactly 102 stay older than everything else.
    std::vector<int> fds(total, -1);
    for (int i = 0; i < 103; ++i) fds[i] = s.Open(paths[i]);
    WaitForNextSecond();
    EXPECT_EQ(fds[50], s.Open(paths[50]));
    for (int i = 103; i < 1024; ++i) fds[i] = s.Open(paths[i]);
    ASSERT_EQ(1024u, s.u.CachedCount());
    for (int i = 0; i < 1024; ++i) ASSERT_NE(-1, fds[i]);

    s.log.Clear();
    fds[1024] = s.u.GetCachedFileHandle(&s.access, &la, paths[1024].c_str(), false);
    ASSERT_NE(-1, fds[1024]);
    EXPECT_EQ(923u, s.u.CachedCount());
    EXPECT_TRUE(HasLine(s.log, "info|[Nfs3Prog.ProcedureREAD] Close exceeded cached file handle: 102"));
    std::set<int> closedNumbers;
    for (int i = 0; i < 103; ++i) {
        if (i == 50) continue;
        EXPECT_FALSE(s.u.IsCached(paths[i])) << i;
        closedNumbers.insert(fds[i]);
    }
    EXPECT_TRUE(s.u.IsCached(paths[50]));
    for (int i = 103; i < total; ++i) EXPECT_TRUE(s.u.IsCached(paths[i])) << i;
    // The freed descriptors are closed (the new file may have reused one).
    for (int fd : closedNumbers)
        if (fd != fds[1024]) {
            EXPECT_FALSE(IsOpen(fd)) << fd;
        }
    EXPECT_TRUE(s.u.Consistent());
}

TEST(DescriptorCache, AFailedRowThatThinningClosesIsOpenedAfresh) {
    TempDir dir;
    Service s;
    // The failed row is the oldest: "-1" sorts before every descriptor of
    // its second, and everything else comes later.
    const std::string late = dir / "late";
    ASSERT_EQ(-1, s.Open(late));
    for (int i = 0; i < 1023; ++i) {
        WriteWholeFile(dir / ("f" + std::to_string(i)), "x");
        ASSERT_NE(-1, s.Open(dir / ("f" + std::to_string(i))));
    }
    ASSERT_EQ(1024u, s.u.CachedCount());
    // Retrying it thins the cache first, which takes that very row.
    WriteWholeFile(late, "now here");
    const int fd = s.Open(late);
    ASSERT_NE(-1, fd);
    EXPECT_EQ(fd, s.u.CachedFile(late));
    EXPECT_EQ(923u, s.u.CachedCount());
    EXPECT_TRUE(s.u.Consistent());
    char byte = 0;
    EXPECT_EQ(1, pread(fd, &byte, 1, 0));
    EXPECT_EQ('n', byte);
}

TEST(DescriptorCache, FewerThanTenRowsAreAllClosedByThinning) {
    TempDir dir;
    Service s;
    int before = CountOpenDescriptors();
    std::vector<int> fds;
    for (int i = 0; i < 8; ++i) {
        WriteWholeFile(dir / std::to_string(i), "x");
        fds.push_back(s.Open(dir / std::to_string(i)));
    }
    s.u.GetCachedFileHandle(&s.quiet, &la, (dir / "missing").c_str(), false);  // a row with -1
    ASSERT_EQ(9u, s.u.CachedCount());
    EXPECT_EQ(before + 8, CountOpenDescriptors());
    s.log.Clear();
    s.u.CloseExceededCachedFileHandle(&s.access, &la);
    EXPECT_TRUE(HasLine(s.log, "info|[Nfs3Prog.ProcedureREAD] Close exceeded cached file handle: ALL"));
    EXPECT_EQ(0u, s.u.CachedCount());
    EXPECT_TRUE(s.u.AccessOrder().empty());
    EXPECT_EQ(before, CountOpenDescriptors());
}

TEST(DescriptorCache, AnExhaustedDescriptorTableThinsTheCacheAndRetries) {
    TempDir dir;
    Service s;
    struct rlimit old;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &old));
    // The test caches 15 descriptors (fewer than the cache keeps) and takes
    // every other free slot itself, so that the next open of the cache
    // fails for want of descriptors.
    int highest = 0;
    for (int fd = 0; fd < 65536; ++fd)
        if (IsOpen(fd)) highest = fd;
    const int cached = 15;
    struct rlimit tight = old;
    // At least 128, so that the cache may hold more rows than the test
    // caches however few descriptors the process had open before.
    tight.rlim_cur = (rlim_t)std::max(highest + 1 + cached + 20, 128);
    for (int i = 0; i <= cached + 1; ++i) WriteWholeFile(dir / std::to_string(i), "x");
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
    ASSERT_GT(CUtilities::MaxCachedFileHandles(), (size_t)cached + 1);
    int opened = 0;
    for (int i = 0; i < cached; ++i)
        if (s.Open(dir / std::to_string(i)) != -1) ++opened;
    std::vector<int> held;
    for (int fd; (fd = ::open("/dev/null", O_RDONLY)) != -1;) held.push_back(fd);
    int refusedErrno = errno;
    s.log.Clear();
    // Fails once with too many open files, then a tenth of the rows is
    // closed and the open is tried again.
    int fd = s.u.GetCachedFileHandle(&s.access, &la, (dir / std::to_string(cached + 1)).c_str(), false);
    for (int h : held) close(h);
    setrlimit(RLIMIT_NOFILE, &old);
    EXPECT_EQ(cached, opened);
    EXPECT_EQ(EMFILE, refusedErrno);
    EXPECT_NE(-1, fd);
    EXPECT_EQ((size_t)(cached - cached / 10 + 1), s.u.CachedCount());
    EXPECT_TRUE(HasLine(s.log, "info|[Nfs3Prog.ProcedureREAD] Close exceeded cached file handle: " +
                          std::to_string(cached / 10)));
    EXPECT_TRUE(s.u.Consistent());
}

TEST(DescriptorCache, ItsSizeLeavesAQuarterOfTheLimitFree) {
    struct rlimit old;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &old));
    struct rlimit limit = old;
    const std::pair<rlim_t, size_t> cases[] = {{1024, 768}, {4096, 1024}, {256, 192}, {100, 36}, {60, 16}};
    for (const auto& c : cases) {
        if (c.first > old.rlim_max) continue;
        limit.rlim_cur = c.first;
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
        EXPECT_EQ(c.second, CUtilities::MaxCachedFileHandles()) << c.first;
    }
    setrlimit(RLIMIT_NOFILE, &old);
}

TEST(DescriptorCache, TheServerRaisesTheSoftLimitToTheHardOne) {
    struct rlimit old;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &old));
    if (old.rlim_max < 2048) GTEST_SKIP() << "hard limit " << old.rlim_max;
    struct rlimit low = old;
    low.rlim_cur = 1024;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    CUtilities::RaiseDescriptorLimit();
    struct rlimit now;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &now));
    EXPECT_EQ(old.rlim_max, now.rlim_cur);
}

TEST(DescriptorCache, AFailedOpenStaysAsARowAndIsRetried) {
    TempDir dir;
    Service s;
    std::string path = dir / "later";
    EXPECT_EQ(-1, s.Open(path));
    EXPECT_EQ(-1, s.u.CachedFile(path));
    EXPECT_EQ(1u, s.u.AccessOrder().size());
    EXPECT_EQ(-1, s.Open(dir / "other-missing"));  // same second, same descriptor text
    EXPECT_TRUE(s.u.Consistent());
    WriteWholeFile(path, "now here");
    int fd = s.Open(path);
    EXPECT_NE(-1, fd);
    EXPECT_EQ(fd, s.u.CachedFile(path));
    EXPECT_TRUE(s.u.Consistent());
    EXPECT_EQ(-1, s.Open(""));
    EXPECT_EQ(-1, s.u.GetCachedFileHandle(&s.quiet, &la, nullptr, true));
    EXPECT_EQ(2u, s.u.CachedCount());
}

TEST(DescriptorCache, OpenModeFollowsTheExportsAndItsLogLine) {
    TempDir dir;
    Service s;
    ASSERT_EQ(0, mkdir((dir / "exp").c_str(), 0755));
    std::string inside = Canonical(dir / "exp") + "/f";
    std::string outside = Canonical(dir.Path()) + "/g";
    WriteWholeFile(inside, "in");
    WriteWholeFile(outside, "out");
    ASSERT_TRUE(s.u.AddMountInfo(&s.quiet, &la, (dir / "exp").c_str(), "exp", "", nullptr));
    s.log.Clear();
    int in = s.u.GetCachedFileHandle(&s.access, &la, inside.c_str(), false);
    int out = s.u.GetCachedFileHandle(&s.access, &la, outside.c_str(), false);
    EXPECT_EQ(O_RDWR, fcntl(in, F_GETFL) & O_ACCMODE);
    EXPECT_EQ(O_RDONLY, fcntl(out, F_GETFL) & O_ACCMODE);
    EXPECT_TRUE(HasLine(s.log, "info|[Nfs3Prog.ProcedureREAD] open read/write mode " + inside));
    EXPECT_TRUE(HasLine(s.log, "info|[Nfs3Prog.ProcedureREAD] open read only mode " + outside));
    EXPECT_TRUE(HasLine(s.log, "info|[Nfs3Prog.ProcedureREAD] OS open file \"" + inside + "\""));
    s.u.CloseCachedFileHandle(&s.quiet, &la, outside.c_str());
    int forced = s.u.GetCachedFileHandle(&s.quiet, &la, outside.c_str(), true);
    EXPECT_EQ(O_RDWR, fcntl(forced, F_GETFL) & O_ACCMODE);
}

TEST(FileOperations, ReadSetsEndOfFileByPositionAgainstSize) {
    TempDir dir;
    Service s;
    WriteWholeFile(dir / "small", std::string(100, 'a'));
    WriteWholeFile(dir / "big", std::string(100, 'b') + std::string(100, 'c'));
    bool eof = false;
    std::string data;
    EXPECT_EQ(100, s.Read(dir / "small", 0, 100, &eof, &data));
    EXPECT_TRUE(eof);
    EXPECT_EQ(std::string(100, 'a'), data);
    eof = true;
    EXPECT_EQ(100, s.Read(dir / "big", 0, 100, &eof, &data));
    EXPECT_FALSE(eof);
    EXPECT_EQ(std::string(100, 'b'), data);
    EXPECT_EQ(50, s.Read(dir / "big", 150, 100, &eof, &data));
    EXPECT_TRUE(eof);
    EXPECT_EQ(std::string(50, 'c'), data);
    eof = false;
    EXPECT_EQ(0, s.Read(dir / "big", 500, 10, &eof));  // beyond the end
    EXPECT_TRUE(eof);
    eof = false;
    EXPECT_EQ(-1, s.Read(dir / "missing", 0, 100, &eof));
    EXPECT_TRUE(eof);
    EXPECT_EQ(-1, s.u.ReadFile(&s.quiet, &la, (dir / "missing").c_str(), 0, 0, nullptr, 0, nullptr));
}

TEST(FileOperations, AReadDoesNotDependOnWhereTheDescriptorStands) {
    TempDir dir;
    Service s;
    std::string path = dir / "f";
    WriteWholeFile(path, "0123456789");
    bool eof = true;
    std::string data;
    EXPECT_EQ(4, s.Read(path, 2, 4, &eof, &data));
    EXPECT_EQ("2345", data);
    EXPECT_FALSE(eof);
    // Asking for the size leaves the shared descriptor at the end.
    EXPECT_EQ(10, s.u.GetFileSize(&s.quiet, &la, path.c_str(), -1));
    EXPECT_EQ(4, s.Read(path, 6, 4, &eof, &data));
    EXPECT_EQ("6789", data);
    EXPECT_TRUE(eof);  // the read ends where the file does
    EXPECT_EQ(3, s.Read(path, 0, 3, &eof, &data));
    EXPECT_EQ("012", data);
    EXPECT_FALSE(eof);
    EXPECT_EQ(1u, s.u.CachedCount());
    EXPECT_TRUE(s.u.Consistent());
}

TEST(FileOperations, ReadAndWriteLogLines) {
    TempDir dir;
    Service s;
    std::string path = dir / "f";
    WriteWholeFile(path, "0123456789");
    ASSERT_TRUE(s.u.AddMountInfo(&s.quiet, &la, dir.Path().c_str(), "e", "", nullptr));
    char buf[4];
    bool eof;
    s.log.Clear();
    s.u.ReadFile(&s.access, &la, path.c_str(), 2, 0, buf, 4, &eof);
    EXPECT_EQ("info|[Nfs3Prog.ProcedureREAD] Read file, path=" + path + ", iSeek=2, iSeekType=0, length=4",
              Logged(s.log).at(0));
    LogArgu wla{"Nfs3Prog.ProcedureWRITE"};
    s.log.Clear();
    EXPECT_EQ(3, s.u.WriteFile(&s.access, &wla, path.c_str(), 5, 0, "abc", 3));
    EXPECT_EQ("info|[Nfs3Prog.ProcedureWRITE] Write file, path=" + path + ", iSeek=5, iSeekType=0, length=3",
              Logged(s.log).at(0));
    s.log.Clear();
    s.u.ReadFile(&s.access, &la, path.c_str(), 18446744073709551615ULL, 1, buf, 4, &eof);
    EXPECT_EQ("info|[Nfs3Prog.ProcedureREAD] Read file, path=" + path +
                  ", iSeek=18446744073709551615, iSeekType=1, length=4",
              Logged(s.log).at(0));
}

TEST(FileOperations, WriteInsideAnExportGoesToTheFile) {
    TempDir dir;
    Service s;
    std::string path = dir / "f";
    WriteWholeFile(path, "0123456789");
    ASSERT_TRUE(s.u.AddMountInfo(&s.quiet, &la, dir.Path().c_str(), "e", "", nullptr));
    EXPECT_EQ(3, s.Write(Canonical(path), 4, "abc"));
    EXPECT_EQ(2, s.Write(Canonical(path), 12, "zz"));  // past the end: a hole of zeros
    EXPECT_EQ(std::string("0123abc789\0\0zz", 14), ReadWholeFile(path));
    bool eof;
    std::string data;
    EXPECT_EQ(3, s.Read(Canonical(path), 4, 3, &eof, &data));  // the same cached descriptor
    EXPECT_EQ("abc", data);
}

TEST(FileOperations, WriteOutsideEveryExportFailsOnAReadOnlyDescriptor) {
    TempDir dir;
    Service s;
    std::string path = dir / "f";
    WriteWholeFile(path, "0123456789");
    EXPECT_EQ(-1, s.Write(path, 0, "abc"));
    EXPECT_EQ("0123456789", ReadWholeFile(path));
    EXPECT_EQ(-1, s.Write(dir / "missing", 0, "abc"));
    EXPECT_FALSE(PathExists(dir / "missing"));
}

TEST(FileOperations, GetFileSize) {
    TempDir dir;
    Service s;
    WriteWholeFile(dir / "f", std::string(1234, 'x'));
    EXPECT_EQ(1234, s.u.GetFileSize(&s.quiet, &la, (dir / "f").c_str(), -7));
    EXPECT_EQ(-7, s.u.GetFileSize(&s.quiet, &la, (dir / "missing").c_str(), -7));
    EXPECT_TRUE(s.u.IsCached(dir / "f"));
}

TEST(FileOperations, NewFileCreatesWithoutCaching) {
    TempDir dir;
    Service s;
    int before = CountOpenDescriptors();
    umask(0);
    EXPECT_TRUE(s.u.NewFile(&s.quiet, &la, (dir / "n").c_str()));
    EXPECT_TRUE(PathExists(dir / "n"));
    EXPECT_EQ(0666u, ModeOf(dir / "n"));
    EXPECT_EQ(0u, s.u.CachedCount());
    EXPECT_EQ(before, CountOpenDescriptors());
    EXPECT_FALSE(s.u.NewFile(&s.quiet, &la, (dir / "no/dir/n").c_str()));
}

TEST(FileOperations, RemoveFileClosesItsDescriptorFirst) {
    TempDir dir;
    Service s;
    WriteWholeFile(dir / "f", "x");
    int fd = s.Open(dir / "f");
    ASSERT_NE(-1, fd);
    s.log.Clear();
    LogArgu rla{"Nfs3Prog.ProcedureREMOVE"};
    EXPECT_TRUE(s.u.RemoveFile(&s.access, &rla, (dir / "f").c_str()));
    EXPECT_EQ("info|[Nfs3Prog.ProcedureREMOVE] Remove file, path=" + dir / "f", Logged(s.log).at(0));
    EXPECT_FALSE(PathExists(dir / "f"));
    EXPECT_FALSE(s.u.IsCached(dir / "f"));
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_FALSE(s.u.RemoveFile(&s.quiet, &la, (dir / "f").c_str()));
    ASSERT_EQ(0, mkdir((dir / "d").c_str(), 0755));
    EXPECT_TRUE(s.u.RemoveFile(&s.quiet, &la, (dir / "d").c_str()));  // an empty folder too
}

TEST(FileOperations, RenameOntoAnExistingFileRemovesItFirst) {
    TempDir dir;
    Service s;
    std::string base = Canonical(dir.Path());
    WriteWholeFile(base + "/from", "new");
    WriteWholeFile(base + "/to", "old");
    int fromFd = s.Open(base + "/from");
    int toFd = s.Open(base + "/to");
    unsigned int id = s.u.GetFileID(&s.quiet, &la, (base + "/from").c_str());
    s.log.Clear();
    LogArgu rla{"Nfs3Prog.ProcedureRENAME"};
    EXPECT_TRUE(s.u.RenameFile(&s.access, &rla, (base + "/from").c_str(), (base + "/to").c_str()));
    EXPECT_EQ("info|[Nfs3Prog.ProcedureRENAME] Rename file, pathFrom=" + base + "/from, pathTo=" + base + "/to",
              Logged(s.log).at(0));
    EXPECT_TRUE(HasLine(s.log, "info|[Nfs3Prog.ProcedureRENAME] Remove file, path=" + base + "/to"));
    EXPECT_EQ("new", ReadWholeFile(base + "/to"));
    EXPECT_FALSE(PathExists(base + "/from"));
    EXPECT_FALSE(IsOpen(fromFd));
    EXPECT_FALSE(IsOpen(toFd));
    EXPECT_EQ(0u, s.u.CachedCount());
    // The handle given out for the old name follows the file.
    unsigned char handle[56] = {};
    memcpy(handle, HandleOfId(s.u, id).data(), sizeof handle);
    char path[PATH_BUFFER_SIZE];
    ASSERT_TRUE(s.u.GetFilePath(&s.quiet, handle, path, sizeof path));
    EXPECT_EQ(base + "/to", path);
}

TEST(FileOperations, RenameKeepsTheSourceWhenTheTargetCannotBeRemoved) {
    TempDir dir;
    Service s;
    WriteWholeFile(dir / "from", "data");
    ASSERT_EQ(0, mkdir((dir / "to").c_str(), 0755));
    WriteWholeFile(dir / "to/inside", "keeps the folder non-empty");
    int fd = s.Open(dir / "from");
    EXPECT_FALSE(s.u.RenameFile(&s.quiet, &la, (dir / "from").c_str(), (dir / "to").c_str()));
    EXPECT_EQ("data", ReadWholeFile(dir / "from"));
    EXPECT_EQ("keeps the folder non-empty", ReadWholeFile(dir / "to/inside"));
    EXPECT_TRUE(IsOpen(fd));
    EXPECT_TRUE(s.u.IsCached(dir / "from"));
}

TEST(FileOperations, RenameOfAPathWithNoFileOnlyMovesItsId) {
    TempDir dir;
    Service s;
    // Not in the table: nothing to move.
    EXPECT_FALSE(s.u.RenameFile(&s.quiet, &la, (dir / "a").c_str(), (dir / "b").c_str()));
    unsigned int id = s.u.GetFileID(&s.quiet, &la, (dir / "a").c_str());
    EXPECT_TRUE(s.u.RenameFile(&s.quiet, &la, (dir / "a").c_str(), (dir / "b").c_str()));
    EXPECT_EQ(id, s.u.GetFileID(&s.quiet, &la, (dir / "b").c_str()));
    EXPECT_FALSE(PathExists(dir / "b"));
    // A failing system rename reports false.
    WriteWholeFile(dir / "c", "x");
    EXPECT_FALSE(s.u.RenameFile(&s.quiet, &la, (dir / "c").c_str(), (dir / "no/such/dir/c").c_str()));
    EXPECT_TRUE(PathExists(dir / "c"));
}

TEST(FileOperations, UpdateAttributesWithOnlyTheOwnerChangesNothing) {
    TempDir dir;
    Service s;
    std::string path = dir / "f";
    WriteWholeFile(path, "12345");
    ASSERT_EQ(0, chmod(path.c_str(), 0640));
    struct stat before;
    ASSERT_EQ(0, stat(path.c_str(), &before));
    int fd = s.Open(path);
    EXPECT_TRUE(s.Attr(path, false, 0, true, false, 0));
    EXPECT_TRUE(s.u.UpdateFileAttributes(&s.quiet, &la, path.c_str(), false, 0, false, 0, true, 99, false, 0, true,
                                         1, 2, true, 3, 4));
    struct stat after;
    ASSERT_EQ(0, stat(path.c_str(), &after));
    EXPECT_EQ(before.st_mode, after.st_mode);
    EXPECT_EQ(before.st_uid, after.st_uid);
    EXPECT_EQ(before.st_gid, after.st_gid);
    EXPECT_EQ(before.st_size, after.st_size);
    EXPECT_EQ(before.st_mtime, after.st_mtime);
    EXPECT_TRUE(IsOpen(fd));  // no mode or size: the descriptor stays
    EXPECT_TRUE(s.u.IsCached(path));
    EXPECT_TRUE(s.Attr(dir / "missing", false, 0, false, false, 0));  // nothing to set
}

TEST(FileOperations, UpdateAttributesSetsModeAndSize) {
    TempDir dir;
    Service s;
    std::string path = dir / "f";
    WriteWholeFile(path, "12345");
    int fd = s.Open(path);
    EXPECT_TRUE(s.Attr(path, true, 0600, false, true, 2));
    EXPECT_EQ(0600u, ModeOf(path));
    EXPECT_EQ(2, SizeOf(path));
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_FALSE(s.u.IsCached(path));
    EXPECT_TRUE(s.Attr(path, false, 0, false, true, 4096));
    EXPECT_EQ(4096, SizeOf(path));
    // A size for a missing file creates it.
    EXPECT_TRUE(s.Attr(dir / "created", false, 0, false, true, 10));
    EXPECT_EQ(10, SizeOf(dir / "created"));
}

TEST(FileOperations, AFailedModeChangeLeavesTheSizeAlone) {
    TempDir dir;
    Service s;
    // chmod follows the dangling link and fails; a size change would create
    // the link's target.
    ASSERT_EQ(0, symlink((dir / "target").c_str(), (dir / "link").c_str()));
    EXPECT_FALSE(s.Attr(dir / "link", true, 0644, false, true, 100));
    EXPECT_FALSE(PathExists(dir / "target"));
    EXPECT_TRUE(s.Attr(dir / "link", false, 0, false, true, 100));  // the size alone goes through
    EXPECT_EQ(100, SizeOf(dir / "target"));
}

TEST(FileOperations, UpdateAttributesLogLine) {
    TempDir dir;
    Service s;
    LogArgu sla{"Nfs3Prog.ProcedureSETATTR"};
    s.u.UpdateFileAttributes(&s.access, &sla, "/p", false, 420, true, 7, false, 8, true, 1099511627776ULL, false,
                             10, 11, true, 12, 13);
    EXPECT_EQ("info|[Nfs3Prog.ProcedureSETATTR] Update file attributes, path=/p, set_mode=0, mode=420, set_uid=1, "
              "uid=7, set_gid=0, gid=8, set_size=1, size=1099511627776, set_atime=0, atime.sec=10, atime.nsec=11, "
              "set_mtime=1, mtime.sec=12, mtime.nsec=13",
              Logged(s.log).at(0));
}

TEST(FileOperations, CloseAllOfAFolderClosesItAndBeneathButNotASibling) {
    TempDir dir;
    Service s;
    std::string e = Canonical(dir.Path()) + "/e";
    ASSERT_EQ(0, mkdir(e.c_str(), 0755));
    ASSERT_EQ(0, mkdir((e + "/d").c_str(), 0755));
    WriteWholeFile(e + "/d/f", "f");
    WriteWholeFile(e + "/dx", "dx");
    int dirFd = s.u.GetCachedFileHandle(&s.quiet, &la, (e + "/d").c_str(), false);  // read-only open of a folder
    int fileFd = s.Open(e + "/d/f");
    int siblingFd = s.Open(e + "/dx");
    ASSERT_NE(-1, dirFd);
    ASSERT_NE(-1, fileFd);
    s.log.Clear();
    CRuntimeParam info("t", CRuntimeParam::LOG_GENERAL_INFO);
    s.u.CloseAllCachedFileHandles(&info, &la, (e + "/d").c_str());
    EXPECT_FALSE(IsOpen(dirFd));
    EXPECT_FALSE(IsOpen(fileFd));
    EXPECT_TRUE(IsOpen(siblingFd));
    EXPECT_FALSE(s.u.IsCached(e + "/d"));
    EXPECT_FALSE(s.u.IsCached(e + "/d/f"));
    EXPECT_TRUE(s.u.IsCached(e + "/dx"));
    EXPECT_TRUE(s.u.Consistent());
    // Path order: d, d/f, dx; the walk restarts after each close.
    std::vector<std::string> expected = {
        "info|[CloseAllCachedFileHandles] Path compare: \"" + e + "/d/\" vs \"" + e + "/d/\"",
        "info|[CloseAllCachedFileHandles] Path compare: \"" + e + "/d/\" vs \"" + e + "/d/f/\"",
        "info|[CloseAllCachedFileHandles] Path compare: \"" + e + "/d/\" vs \"" + e + "/dx/\"",
    };
    EXPECT_EQ(expected, Logged(s.log));
    s.u.CloseAllCachedFileHandles(&s.quiet, &la, "");
    s.u.CloseAllCachedFileHandles(&s.quiet, &la, nullptr);
    EXPECT_TRUE(IsOpen(siblingFd));
    s.u.CloseAllCachedFileHandles(&s.quiet, &la);
    EXPECT_FALSE(IsOpen(siblingFd));
    EXPECT_EQ(0u, s.u.CachedCount());
    EXPECT_TRUE(s.u.AccessOrder().empty());
}

TEST(FileOperations, CloseCachedFileHandleClosesOneRow) {
    TempDir dir;
    Service s;
    WriteWholeFile(dir / "a", "a");
    WriteWholeFile(dir / "b", "b");
    int a = s.Open(dir / "a");
    int b = s.Open(dir / "b");
    s.log.Clear();
    s.u.CloseCachedFileHandle(&s.access, &la, (dir / "a").c_str());
    EXPECT_EQ((std::vector<std::string>{"info|[Nfs3Prog.ProcedureREAD] OS close file \"" + dir / "a" + "\""}),
              Logged(s.log));
    EXPECT_FALSE(IsOpen(a));
    EXPECT_TRUE(IsOpen(b));
    EXPECT_EQ((std::vector<std::string>{dir / "b"}), s.u.AccessOrder());
    s.u.CloseCachedFileHandle(&s.quiet, &la, (dir / "none").c_str());
    s.u.CloseCachedFileHandle(&s.quiet, &la, nullptr);
    EXPECT_TRUE(IsOpen(b));
}

TEST(FileOperations, OverlongPathsFailWithoutHarm) {
    Service s;
    std::string longPath = "/" + std::string(9000, 'y');
    bool eof = false;
    EXPECT_EQ(-1, s.Read(longPath, 0, 10, &eof));
    EXPECT_TRUE(eof);
    EXPECT_EQ(-1, s.Write(longPath, 0, "x"));
    EXPECT_FALSE(s.u.NewFile(&s.quiet, &la, longPath.c_str()));
    EXPECT_FALSE(s.u.RemoveFile(&s.quiet, &la, longPath.c_str()));
    EXPECT_FALSE(s.Attr(longPath, true, 0644, false, false, 0));
    CRuntimeParam all("t", -1 & 0x7fffffff);
    s.u.GetCachedFileHandle(&all, &la, longPath.c_str(), false);  // every log line bounded
    EXPECT_TRUE(s.u.Consistent());
}
