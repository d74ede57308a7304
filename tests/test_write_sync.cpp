// The descriptor a write goes through and that its sync later uses: a
// pipeline's writes of one file share one duplicate of the cached
// descriptor, and never one that has stopped standing for the path.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "OutputStream.h"
#include "RuntimeParam.h"
#include "StableBatch.h"
#include "Utilities.h"
#include "support/TestSupport.h"

namespace {

LogArgu la{"Nfs3Prog.ProcedureWRITE"};

ino_t InodeOfDescriptor(int fd) {
    struct stat st;
    return fstat(fd, &st) == 0 ? st.st_ino : 0;
}

ino_t InodeOfPath(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

struct Exported {
    TempDir dir;
    CUtilities u;
    CRuntimeParam quiet{"t", 0};
    std::string file;
    Exported() {
        WriteWholeFile(dir / "f", "");
        file = Canonical(dir / "f");
        EXPECT_TRUE(u.AddMountInfo(&quiet, &la, Canonical(dir.Path()).c_str(), "e", "", nullptr));
    }
    int Write(const std::string& path, unsigned long long at, const std::string& data, CUtilities::WriteSync* sync) {
        return u.WriteFile(&quiet, &la, path.c_str(), at, SEEK_SET, data.data(), (unsigned)data.size(), sync);
    }
};

}  // namespace

TEST(WriteSync, TheFirstWriteTakesADuplicateAndTheNextGoThroughIt) {
    Exported e;
    CUtilities::WriteSync first;
    ASSERT_EQ(3, e.Write(e.file, 0, "abc", &first));
    ASSERT_TRUE(first.duplicate.IsOpen());
    EXPECT_EQ(-1, first.held);
    EXPECT_EQ(InodeOfPath(e.file), InodeOfDescriptor(first.duplicate.Get()));

    CUtilities::WriteSync next;
    next.held = first.duplicate.Get();
    next.closes = first.closes;
    ASSERT_EQ(3, e.Write(e.file, 3, "def", &next));
    EXPECT_FALSE(next.duplicate.IsOpen()) << "a second duplicate of the same descriptor";
    EXPECT_EQ(first.duplicate.Get(), next.held);
    EXPECT_EQ("abcdef", ReadWholeFile(e.dir / "f"));
}

TEST(WriteSync, AFileReplacedBehindItsPathGetsADuplicateOfItsOwn) {
    Exported e;
    CUtilities::WriteSync first;
    ASSERT_EQ(3, e.Write(e.file, 0, "old", &first));
    const ino_t oldInode = InodeOfDescriptor(first.duplicate.Get());

    // Another file takes the name; the service closes the old descriptor,
    // as it does before anything changes a file behind it.
    WriteWholeFile(e.dir / "g", "");
    ASSERT_EQ(0, rename((e.dir / "g").c_str(), e.file.c_str()));
    e.u.CloseCachedFileHandle(&e.quiet, &la, e.file.c_str());

    CUtilities::WriteSync next;
    next.held = first.duplicate.Get();
    next.closes = first.closes;
    ASSERT_EQ(3, e.Write(e.file, 0, "new", &next));
    EXPECT_EQ(-1, next.held) << "written through the replaced file's descriptor";
    ASSERT_TRUE(next.duplicate.IsOpen());
    EXPECT_NE(oldInode, InodeOfDescriptor(next.duplicate.Get()));
    EXPECT_EQ(InodeOfPath(e.file), InodeOfDescriptor(next.duplicate.Get()));
    EXPECT_EQ("new", ReadWholeFile(e.file));
    char old[4] = "";
    EXPECT_EQ(3, pread(first.duplicate.Get(), old, 3, 0));
    EXPECT_EQ("old", std::string(old, 3));
}

TEST(WriteSync, AnyCloseInTheCacheEndsTheLoan) {
    Exported e;
    WriteWholeFile(e.dir / "other", "x");
    CUtilities::WriteSync first;
    ASSERT_EQ(1, e.Write(e.file, 0, "a", &first));
    const std::string other = Canonical(e.dir / "other");
    ASSERT_NE(-1, e.u.GetCachedFileHandle(&e.quiet, &la, other.c_str(), false));
    e.u.CloseCachedFileHandle(&e.quiet, &la, other.c_str());

    CUtilities::WriteSync next;
    next.held = first.duplicate.Get();
    next.closes = first.closes;
    ASSERT_EQ(1, e.Write(e.file, 1, "b", &next));
    EXPECT_EQ(-1, next.held);
    EXPECT_TRUE(next.duplicate.IsOpen());
    EXPECT_GT(next.closes, first.closes);
    EXPECT_EQ("ab", ReadWholeFile(e.dir / "f"));
}

TEST(WriteSync, AFileThatCannotBeOpenedLeavesNothingToSync) {
    Exported e;
    CUtilities::WriteSync sync;
    EXPECT_EQ(-1, e.Write(e.file + ".missing", 0, "a", &sync));
    EXPECT_FALSE(sync.duplicate.IsOpen());
    EXPECT_EQ(-1, sync.held);
}

TEST(StableBatchLending, WritesOfOnePathShareTheDescriptorOfTheFirst) {
    Exported e;
    CStableBatch batch;
    COutputStream out;
    unsigned long long closes = 0;
    EXPECT_EQ(-1, batch.HeldFor(e.file.c_str(), &closes));

    CUtilities::WriteSync first;
    batch.BeginReply(0, 4, true);
    ASSERT_EQ(1, e.Write(e.file, 0, "a", &first));
    const int duplicate = first.duplicate.Get();
    batch.AddWritten(e.file.c_str(), std::move(first.duplicate), first.held, first.closes);
    batch.EndReply(8, true);
    EXPECT_EQ(duplicate, batch.HeldFor(e.file.c_str(), &closes));
    EXPECT_EQ(first.closes, closes);
    EXPECT_EQ(-1, batch.HeldFor((e.file + "2").c_str(), &closes));

    CUtilities::WriteSync next;
    next.held = batch.HeldFor(e.file.c_str(), &next.closes);
    batch.BeginReply(8, 12, true);
    ASSERT_EQ(1, e.Write(e.file, 1, "b", &next));
    batch.AddWritten(e.file.c_str(), std::move(next.duplicate), next.held, next.closes);
    batch.EndReply(16, true);
    EXPECT_FALSE(batch.IsEmpty());

    EXPECT_EQ(0, batch.Flush(&out));
    EXPECT_TRUE(batch.IsEmpty());
    EXPECT_EQ(-1, batch.HeldFor(e.file.c_str(), &closes)) << "a flushed batch lends nothing";
    EXPECT_EQ("ab", ReadWholeFile(e.dir / "f"));
}

TEST(StableBatchLending, AFileTheBatchSyncsThroughADescriptorOfItsOwnIsNotLent) {
    // A size change before the writes adds a read-only descriptor opened to
    // sync: a write through it would fail, so the writes take their own.
    Exported e;
    CStableBatch batch;
    COutputStream out;
    batch.BeginReply(0, 4, true);
    batch.Add(CStableBatch::OpenForSync(e.file.c_str(), false), false, 1);
    batch.EndReply(8, true);

    CUtilities::WriteSync write;
    batch.BeginReply(8, 12, true);
    ASSERT_EQ(1, e.Write(e.file, 0, "w", &write));
    batch.AddWritten(e.file.c_str(), std::move(write.duplicate), write.held, write.closes);
    batch.EndReply(16, true);
    unsigned long long closes = 0;
    EXPECT_EQ(-1, batch.HeldFor(e.file.c_str(), &closes));

    CUtilities::WriteSync again;
    again.held = batch.HeldFor(e.file.c_str(), &again.closes);
    EXPECT_EQ(1, e.Write(e.file, 1, "x", &again));
    EXPECT_TRUE(again.duplicate.IsOpen());
    EXPECT_EQ(0, batch.Flush(&out));
    EXPECT_EQ("wx", ReadWholeFile(e.dir / "f"));
}
