// The registry of redirected files in the file service, reads of registered
// paths through the file operations, and the change notifications that
// writes, attribute changes, removals and renames of them send to the
// controller. Real files in temporary folders.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "NotificationRecorder.h"
#include "TestSupport.h"
#include "Utilities.h"

namespace {

constexpr long long MiB = 1LL << 20;

using Call = NotificationRecorder::Call;

off_t SizeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

mode_t ModeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

std::string RandomBytes(size_t n, unsigned seed) {
    std::string data(n, '\0');
    std::mt19937 gen(seed);
    for (char& c : data) c = (char)(gen() & 0xff);
    return data;
}

// Lets the tests see the descriptor cache and the size of the registry.
class ServiceProbe : public CUtilities {
public:
    bool IsCached(const std::string& path) {
        std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
        auto row = m_OpenedFileHandles.find(path);
        return row != m_OpenedFileHandles.end() && row->second.iFile != -1;
    }
    size_t RegisteredCount() {
        std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
        return m_mRedirectedFiles.size();
    }
};

class RegistryTest : public ::testing::Test {
protected:
    RegistryTest() : rp("vm-runner", CRuntimeParam::LOG_ERROR) {
        base = Canonical(dir.Path());
        exportDir = base + "/export";
        backupDir = base + "/backup";
        EXPECT_EQ(0, mkdir(exportDir.c_str(), 0755));
        EXPECT_EQ(0, mkdir(backupDir.c_str(), 0755));
        u.SetCallback(&callback);
        EXPECT_TRUE(u.AddMountInfo(&rp, &la, exportDir.c_str(), "export", "", nullptr));
    }

    // A file in the export (created empty) that becomes a redirected file.
    std::string ExportedFile(const std::string& name, const std::string& content = "") {
        std::string path = exportDir + "/" + name;
        WriteWholeFile(path, content);
        return path;
    }

    // A source file of the backup (outside the export).
    std::string Source(const std::string& name, const std::string& content) {
        std::string path = backupDir + "/" + name;
        WriteWholeFile(path, content);
        return path;
    }

    int Read(const std::string& path, unsigned long long seek, unsigned int len, std::string* data, bool* eof) {
        std::vector<char> buf((size_t)len + 1);
        int n = u.ReadFile(&rp, &la, path.c_str(), seek, SEEK_SET, buf.data(), len, eof);
        data->assign(buf.data(), (size_t)std::max(n, 0));
        return n;
    }

    std::string ReadAll(const std::string& path, unsigned int len) {
        std::string data;
        bool eof = false;
        Read(path, 0, len, &data, &eof);
        return data;
    }

    bool SetAttributes(const std::string& path, bool bMode, unsigned mode, bool bSize, unsigned long long size,
                       bool bAtime, unsigned atimeSec, bool bMtime, unsigned mtimeSec) {
        return u.UpdateFileAttributes(&rp, &la, path.c_str(), bMode, mode, true, 4242, true, 4343, bSize, size,
                                      bAtime, atimeSec, 999999, bMtime, mtimeSec, 888888);
    }

    // The declared fields of one notification.
    static Call Write(const std::string& path, unsigned long long seek, int seekType, unsigned len) {
        Call c;
        c.op = "write";
        c.id = "vm-runner";
        c.path = path;
        c.iSeek = seek;
        c.iSeekType = seekType;
        c.iLen = len;
        return c;
    }
    static Call Attributes(const std::string& path, bool bSize, unsigned long long size, bool bAtime,
                           unsigned long atime, bool bMtime, unsigned long mtime) {
        Call c;
        c.op = "attributes";
        c.id = "vm-runner";
        c.path = path;
        c.bSize = bSize;
        c.iSize = size;
        c.bAccessTime = bAtime;
        c.lAccessTimeSec = atime;
        c.bLastModifiedTime = bMtime;
        c.lLastModifiedTimeSec = mtime;
        return c;
    }
    static Call Remove(const std::string& path) {
        Call c;
        c.op = "remove";
        c.id = "vm-runner";
        c.path = path;
        return c;
    }
    static Call Rename(const std::string& from, const std::string& to) {
        Call c;
        c.op = "rename";
        c.id = "vm-runner";
        c.path = from;
        c.pathTo = to;
        return c;
    }

    TempDir dir;
    NotificationRecorder callback;
    ServiceProbe u;
    CRuntimeParam rp;
    LogArgu la{"Nfs3Prog.ProcedureREAD"};
    std::string base, exportDir, backupDir;
};

}  // namespace

// ---- the registry ----------------------------------------------------------------

TEST_F(RegistryTest, OpenRegistersAndGetFindsTheSameObject) {
    std::string a = ExportedFile("a.vmdk");
    EXPECT_EQ(nullptr, u.GetRedirectedFile(a.c_str()));
    CRedirectedFile* file = u.OpenRedirectedFile(&rp, a.c_str(), 5000, true, 0, 0);
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(file, u.GetRedirectedFile(a.c_str()));
    EXPECT_EQ(5000, file->GetFileSize());
    EXPECT_EQ(nullptr, u.GetRedirectedFile((a + "x").c_str()));
    EXPECT_EQ(nullptr, u.GetRedirectedFile(nullptr));
    EXPECT_EQ(nullptr, u.OpenRedirectedFile(&rp, nullptr, 10, false, 0, 0));
    EXPECT_EQ(1u, u.RegisteredCount());
    u.CloseRedirectedFile(&rp, a.c_str());
    EXPECT_EQ(nullptr, u.GetRedirectedFile(a.c_str()));
    u.CloseRedirectedFile(&rp, a.c_str());  // unknown now: ignored
    u.CloseRedirectedFile(&rp, nullptr);
    EXPECT_EQ(0u, u.RegisteredCount());
}

TEST_F(RegistryTest, IdsCountTheRegisteredFilesAndRepeatAfterCloses) {
    CRuntimeParam logged("vm-runner", CRuntimeParam::LOG_REDIRECT_FILE);
    u.OpenRedirectedFile(&logged, "/e/vm/x", 10, false, 0, 0);
    u.OpenRedirectedFile(&logged, "/e/vm/y", 20, false, 0, 0);
    u.OpenRedirectedFile(&logged, "/e/vm/z", 30, false, 0, 0);
    u.CloseRedirectedFile(&logged, "/e/vm/y");
    u.OpenRedirectedFile(&logged, "/e/vm/w", 40, true, 0, 0);
    EXPECT_EQ((std::vector<std::string>{
                  "[RedirectedFile.Open] id=0, size=10 (path=)",
                  "[RedirectedFile.Open] id=1, size=20 (path=)",
                  "[RedirectedFile.Open] id=2, size=30 (path=)",
                  "[RedirectedFile.Open] id=2, size=40 (path=/e/vm/w)",
              }),
              callback.LinesStarting("[RedirectedFile.Open]"));
}

TEST_F(RegistryTest, OpeningAPathTwiceReplacesTheFirstObject) {
    CRuntimeParam logged("vm-runner", CRuntimeParam::LOG_REDIRECT_FILE);
    std::string data = RandomBytes(4096, 1);
    std::string src = Source("src", data);
    std::string a = ExportedFile("a.vmdk"), b = ExportedFile("b.vmdk");
    ASSERT_NE(nullptr, u.OpenRedirectedFile(&logged, a.c_str(), 4096, true, 0, 0));
    ASSERT_NE(nullptr, u.OpenRedirectedFile(&logged, b.c_str(), 4096, true, 0, 0));
    ASSERT_TRUE(u.AddRedirectedFileSegment(&logged, a.c_str(), src.c_str(), 0, 0, 4096, nullptr));
    EXPECT_EQ(data, ReadAll(a, 4096));
    EXPECT_TRUE(u.IsCached(a));
    EXPECT_TRUE(u.IsCached(src));

    callback.Clear();
    CRedirectedFile* second = u.OpenRedirectedFile(&logged, a.c_str(), 2000, false, 0, 0);
    ASSERT_NE(nullptr, second);
    EXPECT_EQ(second, u.GetRedirectedFile(a.c_str()));
    EXPECT_EQ(2u, u.RegisteredCount());
    // The first object was closed: its descriptors are gone. The second got
    // the number of files left after the first was removed.
    EXPECT_FALSE(u.IsCached(a));
    EXPECT_FALSE(u.IsCached(src));
    EXPECT_EQ((std::vector<std::string>{"[RedirectedFile.Open] id=1, size=2000 (path=)"}),
              callback.LinesStarting("[RedirectedFile.Open]"));
    // The new object has no segments and its own size.
    EXPECT_EQ(std::string(2000, '\0'), ReadAll(a, 4096));
    EXPECT_EQ(2000, u.GetFileSize(&rp, &la, a.c_str(), -1));
}

TEST_F(RegistryTest, AddingASegmentToAPathNeverOpenedFails) {
    std::string src = Source("src", "abc");
    char status[ERROR_TEXT_SIZE];
    memset(status, 'Q', sizeof status);
    EXPECT_FALSE(u.AddRedirectedFileSegment(&rp, (exportDir + "/never").c_str(), src.c_str(), 0, 0, 3, status));
    EXPECT_FALSE(u.AddRedirectedFileSegment(&rp, nullptr, src.c_str(), 0, 0, 3, status));
    // Opened and closed again: unknown as well.
    std::string a = ExportedFile("a.vmdk");
    u.OpenRedirectedFile(&rp, a.c_str(), 100, true, 0, 0);
    u.CloseRedirectedFile(&rp, a.c_str());
    EXPECT_FALSE(u.AddRedirectedFileSegment(&rp, a.c_str(), src.c_str(), 0, 0, 3, status));
    EXPECT_TRUE(std::all_of(status, status + sizeof status, [](char c) { return c == 'Q'; }));
    EXPECT_EQ(0, SizeOf(a));
}

TEST_F(RegistryTest, AddingASegmentReturnsTheFilesAnswer) {
    std::string src = Source("src", "abc");
    std::string a = ExportedFile("a.vmdk");
    u.OpenRedirectedFile(&rp, a.c_str(), 100, true, 0, 0);
    char status[ERROR_TEXT_SIZE];
    memset(status, 'Q', sizeof status);
    EXPECT_TRUE(u.AddRedirectedFileSegment(&rp, a.c_str(), src.c_str(), 0, 0, 3, status));
    EXPECT_FALSE(u.AddRedirectedFileSegment(&rp, a.c_str(), src.c_str(), 0, 100, 3, status));  // at the size
    EXPECT_TRUE(std::all_of(status, status + sizeof status, [](char c) { return c == 'Q'; }));
    EXPECT_EQ(28, SizeOf(a));
}

TEST_F(RegistryTest, TheInfoFileIsTheRegisteredPathOnlyWhenAsked) {
    std::string data = RandomBytes(4 * MiB, 2);
    std::string src = Source("src", data);
    std::string withInfo = ExportedFile("with.vmdk"), inMemory = ExportedFile("memory.vmdk");
    u.OpenRedirectedFile(&rp, withInfo.c_str(), 4 * MiB, true, 1, 0);
    u.OpenRedirectedFile(&rp, inMemory.c_str(), 4 * MiB, false, 1, 0);
    // 3 MiB with blocks of 1 MiB: three records in the file at the path.
    ASSERT_TRUE(u.AddRedirectedFileSegment(&rp, withInfo.c_str(), src.c_str(), 0, 0, 3 * MiB, nullptr));
    ASSERT_TRUE(u.AddRedirectedFileSegment(&rp, inMemory.c_str(), src.c_str(), 0, 0, 3 * MiB, nullptr));
    EXPECT_EQ(3 * 28, SizeOf(withInfo));
    EXPECT_EQ(0, SizeOf(inMemory));
    std::string expected = data.substr(0, 3 * MiB) + std::string(MiB, '\0');
    EXPECT_TRUE(ReadAll(withInfo, 4 * MiB) == expected);
    EXPECT_TRUE(ReadAll(inMemory, 4 * MiB) == expected);
}

TEST_F(RegistryTest, SegmentsNeedTheLocalFileToExist) {
    std::string data = RandomBytes(1000, 3);
    std::string src = Source("src", data);
    std::string missing = exportDir + "/missing.vmdk";
    u.OpenRedirectedFile(&rp, missing.c_str(), 1000, true, 0, 0);
    // Not created: the segments stay in memory and still read.
    ASSERT_TRUE(u.AddRedirectedFileSegment(&rp, missing.c_str(), src.c_str(), 0, 0, 1000, nullptr));
    EXPECT_FALSE(PathExists(missing));
    EXPECT_EQ(data, ReadAll(missing, 1000));
}

TEST_F(RegistryTest, CloseAllOfAFolderClosesWhatLiesBeneathIt) {
    CRuntimeParam logged("vm-runner", CRuntimeParam::LOG_GENERAL_INFO);
    for (const char* path : {"/e/vm/a", "/e/vm/b", "/e/other", "/e/vmx"})
        ASSERT_NE(nullptr, u.OpenRedirectedFile(&rp, path, 10, false, 0, 0));

    u.CloseAllRedirectedFiles(&logged, "/e/v");
    EXPECT_EQ(4u, u.RegisteredCount());
    EXPECT_EQ((std::vector<std::string>{
                  "[CloseAllRedirectedFiles] Path compare: \"/e/v/\" vs \"/e/other/\"",
                  "[CloseAllRedirectedFiles] Path compare: \"/e/v/\" vs \"/e/vm/a/\"",
                  "[CloseAllRedirectedFiles] Path compare: \"/e/v/\" vs \"/e/vm/b/\"",
                  "[CloseAllRedirectedFiles] Path compare: \"/e/v/\" vs \"/e/vmx/\"",
              }),
              callback.LinesStarting("[CloseAllRedirectedFiles]"));

    callback.Clear();
    u.CloseAllRedirectedFiles(&logged, "/e/vm");
    EXPECT_EQ(nullptr, u.GetRedirectedFile("/e/vm/a"));
    EXPECT_EQ(nullptr, u.GetRedirectedFile("/e/vm/b"));
    EXPECT_NE(nullptr, u.GetRedirectedFile("/e/vmx"));
    EXPECT_NE(nullptr, u.GetRedirectedFile("/e/other"));
    // The walk starts again from the first entry after each close.
    EXPECT_EQ((std::vector<std::string>{
                  "[CloseAllRedirectedFiles] Path compare: \"/e/vm/\" vs \"/e/other/\"",
                  "[CloseAllRedirectedFiles] Path compare: \"/e/vm/\" vs \"/e/vm/a/\"",
                  "[CloseAllRedirectedFiles] Path compare: \"/e/vm/\" vs \"/e/other/\"",
                  "[CloseAllRedirectedFiles] Path compare: \"/e/vm/\" vs \"/e/vm/b/\"",
                  "[CloseAllRedirectedFiles] Path compare: \"/e/vm/\" vs \"/e/other/\"",
                  "[CloseAllRedirectedFiles] Path compare: \"/e/vm/\" vs \"/e/vmx/\"",
              }),
              callback.LinesStarting("[CloseAllRedirectedFiles]"));
}

TEST_F(RegistryTest, CloseAllOfAFileOrAFolderWithItsSlash) {
    for (const char* path : {"/e/vm/a", "/e/vm/b", "/e/vm/sub/c"})
        u.OpenRedirectedFile(&rp, path, 10, false, 0, 0);
    u.CloseAllRedirectedFiles(&rp, "/e/vm/a");
    EXPECT_EQ(nullptr, u.GetRedirectedFile("/e/vm/a"));
    EXPECT_EQ(2u, u.RegisteredCount());
    u.CloseAllRedirectedFiles(&rp, "/e/vm/sub/");
    EXPECT_EQ(nullptr, u.GetRedirectedFile("/e/vm/sub/c"));
    EXPECT_NE(nullptr, u.GetRedirectedFile("/e/vm/b"));
    u.CloseAllRedirectedFiles(&rp, nullptr);  // refused, not "everything"
    EXPECT_EQ(1u, u.RegisteredCount());
    u.CloseAllRedirectedFiles(&rp);
    EXPECT_EQ(0u, u.RegisteredCount());
}

TEST_F(RegistryTest, CloseAllOnAnEmptyRegistryComparesNothing) {
    CRuntimeParam logged("vm-runner", CRuntimeParam::LOG_GENERAL_INFO);
    u.CloseAllRedirectedFiles(&logged, "/e");
    EXPECT_TRUE(callback.LinesStarting("[CloseAllRedirectedFiles]").empty());
}

TEST_F(RegistryTest, ClosingAFileClosesItsCachedDescriptors) {
    std::string src1 = Source("s1", RandomBytes(1000, 4)), src2 = Source("s2", RandomBytes(1000, 5));
    std::string a = ExportedFile("a.vmdk");
    int before = CountOpenDescriptors();
    u.OpenRedirectedFile(&rp, a.c_str(), 2000, true, 0, 0);
    ASSERT_TRUE(u.AddRedirectedFileSegment(&rp, a.c_str(), src1.c_str(), 0, 0, 1000, nullptr));
    ASSERT_TRUE(u.AddRedirectedFileSegment(&rp, a.c_str(), src2.c_str(), 0, 1000, 1000, nullptr));
    ReadAll(a, 2000);
    // Info file and sources share the file service's descriptor cache.
    EXPECT_TRUE(u.IsCached(a));
    EXPECT_TRUE(u.IsCached(src1));
    EXPECT_TRUE(u.IsCached(src2));
    EXPECT_EQ(before + 3, CountOpenDescriptors());
    u.CloseRedirectedFile(&rp, a.c_str());
    EXPECT_FALSE(u.IsCached(a));
    EXPECT_FALSE(u.IsCached(src1));
    EXPECT_FALSE(u.IsCached(src2));
    EXPECT_EQ(before, CountOpenDescriptors());
    EXPECT_EQ(28 * 2, SizeOf(a));  // the info file stays
}

TEST_F(RegistryTest, RenamingOntoARegisteredFileClosesTheTargetAndMovesTheSource) {
    std::string data = RandomBytes(3000, 6);
    std::string src = Source("src", data), other = Source("other", RandomBytes(3000, 7));
    std::string a = ExportedFile("a.vmdk"), b = ExportedFile("b.vmdk");
    CRedirectedFile* fileA = u.OpenRedirectedFile(&rp, a.c_str(), 3000, true, 0, 0);
    u.OpenRedirectedFile(&rp, b.c_str(), 3000, true, 0, 0);
    ASSERT_TRUE(u.AddRedirectedFileSegment(&rp, a.c_str(), src.c_str(), 0, 0, 3000, nullptr));
    ASSERT_TRUE(u.AddRedirectedFileSegment(&rp, b.c_str(), other.c_str(), 0, 0, 3000, nullptr));
    ReadAll(b, 3000);
    EXPECT_TRUE(u.IsCached(other));

    u.RenameRedirectedFile(&rp, a.c_str(), b.c_str());
    EXPECT_EQ(nullptr, u.GetRedirectedFile(a.c_str()));
    EXPECT_EQ(fileA, u.GetRedirectedFile(b.c_str()));
    EXPECT_EQ(1u, u.RegisteredCount());
    EXPECT_FALSE(u.IsCached(other));  // the target's object was closed
    // The moved object still keeps its segments in the info file of its old
    // name, so it reads the content of a.
    EXPECT_TRUE(ReadAll(b, 3000) == data);
    EXPECT_TRUE(u.IsCached(a));
}

TEST_F(RegistryTest, RenamingAnUnknownPathStillClosesTheTarget) {
    u.OpenRedirectedFile(&rp, "/e/vm/b", 10, false, 0, 0);
    u.RenameRedirectedFile(&rp, "/e/vm/none", "/e/vm/b");
    EXPECT_EQ(0u, u.RegisteredCount());
    u.OpenRedirectedFile(&rp, "/e/vm/a", 10, false, 0, 0);
    u.RenameRedirectedFile(&rp, "/e/vm/a", nullptr);
    u.RenameRedirectedFile(&rp, nullptr, "/e/vm/a");
    EXPECT_NE(nullptr, u.GetRedirectedFile("/e/vm/a"));
}

TEST_F(RegistryTest, ExportsWriteIntoExistingFilesInAnExport) {
    std::string data = RandomBytes(100000, 8);
    std::string src = Source("src", data);
    std::string a = ExportedFile("a.vmdk");
    u.OpenRedirectedFile(&rp, a.c_str(), 150000, true, 0, 0);
    ASSERT_TRUE(u.AddRedirectedFileSegment(&rp, a.c_str(), src.c_str(), 0, 0, 100000, nullptr));
    ASSERT_TRUE(u.AddRedirectedFileSegment(&rp, a.c_str(), nullptr, 0, 100000, 50000, nullptr));

    std::string content = ExportedFile("content.bin"), listing = ExportedFile("listing.txt");
    u.ExportRedirectedFile(&rp, a.c_str(), content.c_str());
    EXPECT_TRUE(ReadWholeFile(content) == data + std::string(50000, '\0'));
    u.ExportRedirectedFileInfo(&rp, a.c_str(), listing.c_str(), false);
    EXPECT_EQ("Segment path=" + src + ", fox=0, ox=0, len=100000\nSegment path=Null, fox=0, ox=100000, len=50000\n",
              ReadWholeFile(listing));
    std::string merged = ExportedFile("merged.txt");
    u.ExportRedirectedFileInfo(&rp, a.c_str(), merged.c_str(), true);
    EXPECT_EQ("--> Merged Segment path=" + src + ", fox=0, ox=0, len=100000\n"
              "--> Merged Segment path=Null, fox=0, ox=100000, len=50000\n",
              ReadWholeFile(merged));

    // Unknown paths do nothing.
    std::string untouched = ExportedFile("untouched.txt");
    u.ExportRedirectedFile(&rp, (exportDir + "/none").c_str(), untouched.c_str());
    u.ExportRedirectedFileInfo(&rp, (exportDir + "/none").c_str(), untouched.c_str(), false);
    u.ExportRedirectedFile(&rp, nullptr, untouched.c_str());
    EXPECT_EQ("", ReadWholeFile(untouched));
}

TEST_F(RegistryTest, ExportTargetOutsideAnExportOpensReadOnlyAndStaysEmpty) {
    std::string src = Source("src", RandomBytes(1000, 9));
    std::string a = ExportedFile("a.vmdk");
    u.OpenRedirectedFile(&rp, a.c_str(), 1000, true, 0, 0);
    ASSERT_TRUE(u.AddRedirectedFileSegment(&rp, a.c_str(), src.c_str(), 0, 0, 1000, nullptr));
    std::string outside = Source("outside.bin", "");
    u.ExportRedirectedFile(&rp, a.c_str(), outside.c_str());
    u.ExportRedirectedFileInfo(&rp, a.c_str(), outside.c_str(), false);
    EXPECT_EQ(0, SizeOf(outside));
}

TEST_F(RegistryTest, ResetAndTheDestructorCloseEveryFile) {
    std::string src = Source("src", RandomBytes(1000, 10));
    int before = CountOpenDescriptors();
    {
        CUtilities service;
        std::string a = ExportedFile("a.vmdk");
        service.OpenRedirectedFile(&rp, a.c_str(), 1000, true, 0, 0);
        ASSERT_TRUE(service.AddRedirectedFileSegment(&rp, a.c_str(), src.c_str(), 0, 0, 1000, nullptr));
        std::vector<char> buf(1000);
        bool eof;
        EXPECT_EQ(1000, service.ReadFile(&rp, &la, a.c_str(), 0, SEEK_SET, buf.data(), 1000, &eof));
        EXPECT_EQ(before + 2, CountOpenDescriptors());
        service.Reset(&rp, &la);
        EXPECT_EQ(nullptr, service.GetRedirectedFile(a.c_str()));
        EXPECT_EQ(before, CountOpenDescriptors());
        service.OpenRedirectedFile(&rp, a.c_str(), 1000, true, 0, 0);
        EXPECT_EQ(1000, service.ReadFile(&rp, &la, a.c_str(), 0, SEEK_SET, buf.data(), 1000, &eof));
        EXPECT_EQ(before + 1, CountOpenDescriptors());  // the info file
    }
    EXPECT_EQ(before, CountOpenDescriptors());
}

// ---- reads through the file operations ------------------------------------------

namespace {

// Segments from three sources with holes between them, segments without a
// source in the middle, and one without source up to the end; the reference
// holds the bytes they must read as.
std::string AddAssembledSegments(CUtilities& u, CRuntimeParam* rp, const std::string& path,
                                 const std::vector<std::string>& sources, const std::vector<std::string>& contents,
                                 long long size, int* sourceless) {
    std::string reference((size_t)size, '\0');
    std::mt19937_64 gen(20240612);
    long long off = 100 * 1024;  // a hole at the start
    int count = 0;
    *sourceless = 0;
    while (off < size - MiB) {
        long long len = 1 + (long long)(gen() % (700 * 1024));
        int which = ++count == 3 ? 3 : (int)(gen() % 4);  // 3: no source
        if (which < 3) {
            long long fox = (long long)(gen() % (contents[(size_t)which].size() - (size_t)len));
            EXPECT_TRUE(u.AddRedirectedFileSegment(rp, path.c_str(), sources[(size_t)which].c_str(), fox, off, len,
                                                   nullptr));
            reference.replace((size_t)off, (size_t)len, contents[(size_t)which], (size_t)fox, (size_t)len);
        } else {
            EXPECT_TRUE(u.AddRedirectedFileSegment(rp, path.c_str(), nullptr, (long long)(gen() % 1000), off, len,
                                                   nullptr));
            ++*sourceless;
        }
        off += len;
        off += gen() % 3 == 0 ? 0 : (long long)(gen() % (200 * 1024));  // a hole, or none
    }
    EXPECT_TRUE(u.AddRedirectedFileSegment(rp, path.c_str(), "", 0, off, size - off, nullptr));
    ++*sourceless;
    return reference;
}

}  // namespace

class RegistryReadTest : public RegistryTest, public ::testing::WithParamInterface<bool> {};

TEST_P(RegistryReadTest, ReadFileServesTheAssembledContent) {
    const bool withInfoFile = GetParam();
    std::vector<std::string> sources, contents;
    for (int i = 0; i < 3; ++i) {
        contents.push_back(RandomBytes((size_t)(6 * MiB), 200 + (unsigned)i));
        sources.push_back(Source("src" + std::to_string(i), contents.back()));
    }
    const long long size = 12 * MiB + 12345;
    std::string path = ExportedFile("disk.vmdk");
    u.OpenRedirectedFile(&rp, path.c_str(), size, withInfoFile, 1, 4);
    int sourceless = 0;
    std::string reference = AddAssembledSegments(u, &rp, path, sources, contents, size, &sourceless);
    EXPECT_GE(sourceless, 2);
    EXPECT_EQ(withInfoFile, SizeOf(path) > 12 * 28);

    // The size is the declared one, not that of the local file.
    EXPECT_EQ(size, u.GetFileSize(&rp, &la, path.c_str(), -1));

    std::string data;
    bool eof = false;
    EXPECT_EQ(size, Read(path, 0, (unsigned int)size + 100, &data, &eof));
    EXPECT_TRUE(eof);
    EXPECT_TRUE(data == reference);

    // The seek origin does not apply to redirected files.
    std::vector<char> buf(1000);
    EXPECT_EQ(1000, u.ReadFile(&rp, &la, path.c_str(), 5 * MiB, SEEK_END, buf.data(), 1000, &eof));
    EXPECT_EQ(0, memcmp(buf.data(), reference.data() + 5 * MiB, 1000));

    std::mt19937_64 gen(4242);
    for (int i = 0; i < 2000; ++i) {
        unsigned long long seek = gen() % (unsigned long long)(size + 1000);
        unsigned int len = (unsigned int)(gen() % (300 * 1024));
        eof = false;
        int count = Read(path, seek, len, &data, &eof);
        if ((long long)seek >= size) {
            ASSERT_EQ(0, count) << "read " << i;
            EXPECT_TRUE(eof);
            continue;
        }
        long long expected = std::min<long long>(len, size - (long long)seek);
        ASSERT_EQ(expected, count) << "read " << i << " at " << seek << " len " << len;
        ASSERT_TRUE(data == reference.substr((size_t)seek, (size_t)count)) << "read " << i << " at " << seek;
        EXPECT_EQ((long long)seek + count >= size, eof) << "read " << i;
    }

    // An offset beyond any signed position, and a null buffer.
    EXPECT_EQ(0, u.ReadFile(&rp, &la, path.c_str(), ~0ULL, SEEK_SET, buf.data(), 1000, &eof));
    EXPECT_TRUE(eof);
    EXPECT_EQ(-1, u.ReadFile(&rp, &la, path.c_str(), 0, SEEK_SET, nullptr, 1000, &eof));
    EXPECT_TRUE(callback.Calls().empty());
}

INSTANTIATE_TEST_SUITE_P(InfoFileOrMemory, RegistryReadTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& p) { return p.param ? "InfoFile" : "InMemory"; });

TEST_F(RegistryTest, PlainFilesAreReadAndWrittenLocallyWithoutNotifications) {
    std::string plain = ExportedFile("plain.txt", "hello world");
    u.OpenRedirectedFile(&rp, (plain + ".other").c_str(), 10, false, 0, 0);
    EXPECT_EQ("hello world", ReadAll(plain, 100));
    EXPECT_EQ(5, u.WriteFile(&rp, &la, plain.c_str(), 6, SEEK_SET, "WORLD", 5));
    EXPECT_EQ("hello WORLD", ReadWholeFile(plain));
    EXPECT_EQ(11, u.GetFileSize(&rp, &la, plain.c_str(), -1));
    EXPECT_TRUE(SetAttributes(plain, false, 0, true, 4, true, 1, true, 2));
    EXPECT_EQ("hell", ReadWholeFile(plain));
    EXPECT_TRUE(callback.Calls().empty());
}

// ---- change notifications ------------------------------------------------------------

TEST_F(RegistryTest, AWriteIsReportedAndTheAnswerIsTheCount) {
    std::string path = ExportedFile("disk.vmdk", "local content");
    u.OpenRedirectedFile(&rp, path.c_str(), 1LL << 40, false, 0, 0);
    std::string data(4096, 'W');
    callback.SetAnswer(4096);
    EXPECT_EQ(4096, u.WriteFile(&rp, &la, path.c_str(), 123456789012ULL, SEEK_SET, data.data(), 4096));
    callback.SetAnswer(17);
    EXPECT_EQ(17, u.WriteFile(&rp, &la, path.c_str(), 5, SEEK_CUR, data.data(), 100));
    callback.SetAnswer(-5);
    EXPECT_EQ(-5, u.WriteFile(&rp, &la, path.c_str(), 0, SEEK_SET, nullptr, 0));
    EXPECT_EQ((std::vector<Call>{Write(path, 123456789012ULL, SEEK_SET, 4096), Write(path, 5, SEEK_CUR, 100),
                                 Write(path, 0, SEEK_SET, 0)}),
              callback.Calls());
    EXPECT_EQ("local content", ReadWholeFile(path));
}

TEST_F(RegistryTest, AWriteWithoutCallbackFailsAndLeavesTheLocalFileAlone) {
    std::string path = ExportedFile("disk.vmdk", "local content");
    u.OpenRedirectedFile(&rp, path.c_str(), 1000, false, 0, 0);
    u.SetCallback(nullptr);
    EXPECT_EQ(-1, u.WriteFile(&rp, &la, path.c_str(), 0, SEEK_SET, "XXXXXXXX", 8));
    EXPECT_EQ("local content", ReadWholeFile(path));
    EXPECT_FALSE(u.IsCached(path));  // not even opened
}

TEST_F(RegistryTest, SizeAndTimesAreReportedAndOnlyAZeroAnswerSucceeds) {
    std::string path = ExportedFile("disk.vmdk", "local content");
    ASSERT_EQ(0, chmod(path.c_str(), 0644));
    u.OpenRedirectedFile(&rp, path.c_str(), 1000, false, 0, 0);
    EXPECT_TRUE(SetAttributes(path, true, 0600, true, 5000000000ULL, true, 1700000000, true, 1700000123));
    EXPECT_TRUE(SetAttributes(path, false, 0, true, 0, false, 0, true, 42));
    callback.SetAnswer(1);
    EXPECT_FALSE(SetAttributes(path, false, 0, false, 0, true, 7, false, 0));
    callback.SetAnswer(-1);
    EXPECT_FALSE(SetAttributes(path, false, 0, true, 10, false, 0, false, 0));
    // Mode, owner, group and nanoseconds are not passed on.
    EXPECT_EQ((std::vector<Call>{
                  Attributes(path, true, 5000000000ULL, true, 1700000000, true, 1700000123),
                  Attributes(path, true, 0, false, 0, true, 42),
                  Attributes(path, false, 0, true, 7, false, 0),
                  Attributes(path, true, 10, false, 0, false, 0),
              }),
              callback.Calls());
    EXPECT_EQ("local content", ReadWholeFile(path));
    EXPECT_EQ(0644u, ModeOf(path));
}

TEST_F(RegistryTest, AModeOrOwnerChangeAloneIsReportedWithNoFlags) {
    std::string path = ExportedFile("disk.vmdk", "x");
    ASSERT_EQ(0, chmod(path.c_str(), 0644));
    u.OpenRedirectedFile(&rp, path.c_str(), 1000, false, 0, 0);
    EXPECT_TRUE(u.UpdateFileAttributes(&rp, &la, path.c_str(), true, 0600, false, 0, false, 0, false, 0, false, 0, 0,
                                       false, 0, 0));
    EXPECT_TRUE(u.UpdateFileAttributes(&rp, &la, path.c_str(), false, 0, false, 0, true, 7, false, 0, false, 0, 0,
                                       false, 0, 0));
    // No flag at all: success without a report.
    EXPECT_TRUE(u.UpdateFileAttributes(&rp, &la, path.c_str(), false, 0, false, 0, false, 0, false, 99, false, 1, 2,
                                       false, 3, 4));
    EXPECT_EQ((std::vector<Call>{Attributes(path, false, 0, false, 0, false, 0),
                                 Attributes(path, false, 0, false, 0, false, 0)}),
              callback.Calls());
    EXPECT_EQ(0644u, ModeOf(path));
}

TEST_F(RegistryTest, ARemovalRemovesTheLocalFileClosesTheEntryAndIsReported) {
    std::string path = ExportedFile("disk.vmdk");
    std::string src = Source("src", RandomBytes(100, 11));
    u.OpenRedirectedFile(&rp, path.c_str(), 100, true, 0, 0);
    ASSERT_TRUE(u.AddRedirectedFileSegment(&rp, path.c_str(), src.c_str(), 0, 0, 100, nullptr));
    ReadAll(path, 100);
    EXPECT_TRUE(u.IsCached(path));
    EXPECT_TRUE(u.RemoveFile(&rp, &la, path.c_str()));
    EXPECT_FALSE(PathExists(path));
    EXPECT_EQ(nullptr, u.GetRedirectedFile(path.c_str()));
    EXPECT_FALSE(u.IsCached(path));
    EXPECT_FALSE(u.IsCached(src));
    EXPECT_EQ((std::vector<Call>{Remove(path)}), callback.Calls());

    // A refused removal is still done locally and in the registry.
    std::string second = ExportedFile("second.vmdk");
    u.OpenRedirectedFile(&rp, second.c_str(), 100, true, 0, 0);
    callback.SetAnswer(3);
    EXPECT_FALSE(u.RemoveFile(&rp, &la, second.c_str()));
    EXPECT_FALSE(PathExists(second));
    EXPECT_EQ(nullptr, u.GetRedirectedFile(second.c_str()));
    EXPECT_EQ((std::vector<Call>{Remove(path), Remove(second)}), callback.Calls());
}

TEST_F(RegistryTest, ARemovalWhoseLocalFileIsMissingFailsBeforeAnyReport) {
    std::string path = exportDir + "/absent.vmdk";
    u.OpenRedirectedFile(&rp, path.c_str(), 100, false, 0, 0);
    EXPECT_FALSE(u.RemoveFile(&rp, &la, path.c_str()));
    EXPECT_NE(nullptr, u.GetRedirectedFile(path.c_str()));
    EXPECT_TRUE(callback.Calls().empty());
}

TEST_F(RegistryTest, ARenameMovesTheEntryKeepsTheFileIdAndIsReported) {
    std::string from = ExportedFile("from.vmdk"), to = exportDir + "/to.vmdk";
    std::string src = Source("src", RandomBytes(100, 12));
    CRedirectedFile* file = u.OpenRedirectedFile(&rp, from.c_str(), 100, true, 0, 0);
    ASSERT_TRUE(u.AddRedirectedFileSegment(&rp, from.c_str(), src.c_str(), 0, 0, 100, nullptr));
    std::string infoBytes = ReadWholeFile(from);
    unsigned char handle[FILE_HANDLE_SIZE];
    ASSERT_TRUE(u.GetFileHandle(&rp, &la, from.c_str(), handle, sizeof handle));
    unsigned int id = u.GetFileID(&rp, &la, from.c_str());

    EXPECT_TRUE(u.RenameFile(&rp, &la, from.c_str(), to.c_str()));
    EXPECT_FALSE(PathExists(from));
    EXPECT_EQ(infoBytes, ReadWholeFile(to));
    EXPECT_EQ(nullptr, u.GetRedirectedFile(from.c_str()));
    EXPECT_EQ(file, u.GetRedirectedFile(to.c_str()));
    EXPECT_EQ((std::vector<Call>{Rename(from, to)}), callback.Calls());
    // The client's handle now names the new path.
    char path[PATH_BUFFER_SIZE];
    ASSERT_TRUE(u.GetFilePath(&rp, handle, path, sizeof path));
    EXPECT_EQ(to, path);
    EXPECT_EQ(id, u.GetFileID(&rp, &la, to.c_str()));
    // The object still looks for its segments under the old name, which no
    // longer exists: it reads as zeros of its size.
    EXPECT_EQ(100, u.GetFileSize(&rp, &la, to.c_str(), -1));
    EXPECT_EQ(std::string(100, '\0'), ReadAll(to, 100));
}

TEST_F(RegistryTest, ARefusedRenameFailsAndLeavesTheFileTableAlone) {
    std::string from = ExportedFile("from.vmdk"), to = exportDir + "/to.vmdk";
    CRedirectedFile* file = u.OpenRedirectedFile(&rp, from.c_str(), 100, false, 0, 0);
    unsigned char handle[FILE_HANDLE_SIZE];
    ASSERT_TRUE(u.GetFileHandle(&rp, &la, from.c_str(), handle, sizeof handle));
    callback.SetAnswer(2);
    EXPECT_FALSE(u.RenameFile(&rp, &la, from.c_str(), to.c_str()));
    // The local rename and the registry move are done before the answer.
    EXPECT_TRUE(PathExists(to));
    EXPECT_EQ(file, u.GetRedirectedFile(to.c_str()));
    EXPECT_EQ((std::vector<Call>{Rename(from, to)}), callback.Calls());
    char path[PATH_BUFFER_SIZE];
    ASSERT_TRUE(u.GetFilePath(&rp, handle, path, sizeof path));
    EXPECT_EQ(from, path);
}

TEST_F(RegistryTest, ARenameOntoARegisteredFileReportsItsRemovalFirst) {
    std::string from = ExportedFile("from.vmdk"), to = ExportedFile("to.vmdk", "old target");
    std::string src = Source("src", RandomBytes(100, 13)), other = Source("other", RandomBytes(100, 14));
    CRedirectedFile* file = u.OpenRedirectedFile(&rp, from.c_str(), 100, false, 0, 0);
    u.OpenRedirectedFile(&rp, to.c_str(), 100, false, 0, 0);
    ASSERT_TRUE(u.AddRedirectedFileSegment(&rp, from.c_str(), src.c_str(), 0, 0, 100, nullptr));
    ASSERT_TRUE(u.AddRedirectedFileSegment(&rp, to.c_str(), other.c_str(), 0, 0, 100, nullptr));
    ReadAll(to, 100);
    EXPECT_TRUE(u.IsCached(other));
    unsigned int id = u.GetFileID(&rp, &la, from.c_str());  // a client has its handle
    EXPECT_TRUE(u.RenameFile(&rp, &la, from.c_str(), to.c_str()));
    EXPECT_EQ(id, u.GetFileID(&rp, &la, to.c_str()));
    EXPECT_EQ((std::vector<Call>{Remove(to), Rename(from, to)}), callback.Calls());
    EXPECT_EQ(file, u.GetRedirectedFile(to.c_str()));
    EXPECT_EQ(nullptr, u.GetRedirectedFile(from.c_str()));
    EXPECT_FALSE(u.IsCached(other));
    EXPECT_EQ("", ReadWholeFile(to));  // the source's local file
}

TEST_F(RegistryTest, WithoutCallbackEveryChangeFails) {
    std::string a = ExportedFile("a.vmdk", "a"), b = ExportedFile("b.vmdk", "b");
    std::string c = ExportedFile("c.vmdk", "c");
    for (const std::string& path : {a, b, c}) u.OpenRedirectedFile(&rp, path.c_str(), 100, false, 0, 0);
    u.SetCallback(nullptr);
    EXPECT_EQ(-1, u.WriteFile(&rp, &la, a.c_str(), 0, SEEK_SET, "x", 1));
    EXPECT_FALSE(SetAttributes(a, false, 0, true, 1, false, 0, false, 0));
    EXPECT_FALSE(u.RemoveFile(&rp, &la, b.c_str()));
    EXPECT_FALSE(PathExists(b));
    EXPECT_FALSE(u.RenameFile(&rp, &la, c.c_str(), (exportDir + "/d.vmdk").c_str()));
    EXPECT_NE(nullptr, u.GetRedirectedFile((exportDir + "/d.vmdk").c_str()));
    // Untouched by the failed changes.
    EXPECT_EQ("a", ReadWholeFile(a));
    EXPECT_EQ(100, u.GetFileSize(&rp, &la, a.c_str(), -1));
}
