// Redirected files: the info-file records, checkpoints, assembled reads,
// the in-memory fallback and the exports, on real files in temporary folders.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "RedirectedFile.h"
#include "TestSupport.h"
#include "Utilities.h"

namespace {

constexpr long long MiB = 1LL << 20;
constexpr long long GiB = 1LL << 30;

// Keeps the info lines that reach the application.
class LineRecorder : public ICallback {
public:
    std::vector<std::string> lines;

    bool LogInfo(const char*, const char* text) override { return Keep(text); }
    bool LogError(const char*, const char* text) override { return Keep(text); }
    bool LogRaw(const char*, const char* text) override { return Keep(text); }
    int UpdateRedirectedFileAttributes(const char*, const char*, bool, unsigned long long, bool, unsigned long, bool,
                                       unsigned long) override {
        return -1;
    }
    int RemoveRedirectedFile(const char*, const char*) override { return -1; }
    int RenameRedirectedFile(const char*, const char*, const char*) override { return -1; }
    int WriteRedirectedFile(const char*, const char*, unsigned long long, int, unsigned int) override { return -1; }

    // The lines that begin with prefix, in order.
    std::vector<std::string> Starting(const std::string& prefix) const {
        std::vector<std::string> out;
        for (const std::string& l : lines)
            if (l.compare(0, prefix.size(), prefix) == 0) out.push_back(l);
        return out;
    }

private:
    bool Keep(const char* text) {
        lines.emplace_back(text);
        return true;
    }
};

struct Record {
    int iSource;
    long long iFileOffset, iOffset, iLength;
};

std::string LittleEndian(unsigned long long v, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out.push_back((char)(v >> (8 * i)));
    return out;
}

unsigned long long GetLittleEndianForTest(const char* p) {
    unsigned long long v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | (unsigned char)p[i];
    return v;
}

std::string RecordBytes(const Record& r) {
    return LittleEndian((unsigned int)r.iSource, 4) + LittleEndian((unsigned long long)r.iFileOffset, 8) +
           LittleEndian((unsigned long long)r.iOffset, 8) + LittleEndian((unsigned long long)r.iLength, 8);
}

// Checks the info file byte for byte against the expected records.
void ExpectRecords(const std::string& infoFile, const std::vector<Record>& expected) {
    std::string bytes = ReadWholeFile(infoFile);
    ASSERT_EQ(expected.size() * 28, bytes.size());
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(RecordBytes(expected[i]), bytes.substr(i * 28, 28)) << "record " << i;
}

class RedirectedFileTest : public ::testing::Test {
protected:
    RedirectedFileTest() : rp("test", CRuntimeParam::LOG_ERROR | CRuntimeParam::LOG_REDIRECT_FILE) {
        utilities.SetCallback(&recorder);
        // Files outside an export open read-only: the export targets of the
        // tests lie in the exported temporary folder.
        LogArgu la{"Test.AddMountPoint"};
        EXPECT_TRUE(utilities.AddMountInfo(&rp, &la, dir.Path().c_str(), "test", "", nullptr));
        info = dir / "disk.vmdk";
        WriteWholeFile(info, "");
    }

    // A source file of n bytes from a fixed sequence.
    std::string MakeSource(const std::string& name, size_t n, unsigned seed) {
        std::string data(n, '\0');
        std::mt19937 gen(seed);
        for (char& c : data) c = (char)(gen() & 0xff);
        WriteWholeFile(dir / name, data);
        return data;
    }

    std::string ReadRange(CRedirectedFile& file, long long seek, unsigned int len, int* count, bool* eof) {
        std::vector<char> buf(len + 1);
        *count = file.Read(&rp, seek, buf.data(), len, eof);
        return std::string(buf.data(), (size_t)std::max(*count, 0));
    }

    TempDir dir;
    LineRecorder recorder;
    CUtilities utilities;
    CRuntimeParam rp;
    std::string info;
};

}  // namespace

// ---- info-file records ---------------------------------------------------------

TEST_F(RedirectedFileTest, RecordIsTwentyEightLittleEndianBytes) {
    CRedirectedFile file(&utilities);
    file.Open(&rp, 1 << 20, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, nullptr, 0x0102030405060708LL, 0x1122, 0x33, nullptr));
    const unsigned char expected[28] = {0xff, 0xff, 0xff, 0xff,                          // iSource -1
                                        0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,  // iFileOffset
                                        0x22, 0x11, 0, 0, 0, 0, 0, 0,                    // iOffset
                                        0x33, 0, 0, 0, 0, 0, 0, 0};                      // iLength
    EXPECT_EQ(std::string((const char*)expected, 28), ReadWholeFile(info));
}

TEST_F(RedirectedFileTest, SegmentAcrossBlocksIsSplitAtMultiplesOfTheSegmentSize) {
    CRedirectedFile file(&utilities);
    file.Open(&rp, 4 * GiB, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 1000, 16 * MiB, 64 * MiB, nullptr));
    ExpectRecords(info, {{0, 1000, 16 * MiB, 16 * MiB},
                         {0, 1000 + 16 * MiB, 32 * MiB, 32 * MiB},
                         {0, 1000 + 48 * MiB, 64 * MiB, 16 * MiB}});
}

TEST_F(RedirectedFileTest, SplitCases) {
    CRedirectedFile file(&utilities);
    file.Open(&rp, 4 * GiB, 0, info.c_str(), 0, 0);
    // Aligned, exactly two blocks: a full block, then a remainder of a full block.
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 0, 0, 64 * MiB, nullptr));
    // Unaligned, ending exactly at the next multiple: one record.
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 7, 64 * MiB + 5, 32 * MiB - 5, nullptr));
    // Unaligned, one byte past the next multiple: cut there.
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 9, 96 * MiB + 5, 32 * MiB - 4, nullptr));
    ExpectRecords(info, {{0, 0, 0, 32 * MiB},
                         {0, 32 * MiB, 32 * MiB, 32 * MiB},
                         {0, 7, 64 * MiB + 5, 32 * MiB - 5},
                         {0, 9, 96 * MiB + 5, 32 * MiB - 5},
                         {0, 9 + 32 * MiB - 5, 128 * MiB, 1}});
}

TEST_F(RedirectedFileTest, SegmentSizeComesFromOpen) {
    CRedirectedFile file(&utilities);
    file.Open(&rp, GiB, 0, info.c_str(), 1, 4);
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 0, MiB / 2, 2 * MiB, nullptr));
    ExpectRecords(info, {{0, 0, MiB / 2, MiB / 2}, {0, MiB / 2, MiB, MiB}, {0, 3 * MiB / 2, 2 * MiB, MiB / 2}});
}

TEST_F(RedirectedFileTest, SourcesAreIndexedByFirstEqualPath) {
    CRedirectedFile file(&utilities);
    file.Open(&rp, 1000, 7, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 0, 0, 10, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, "/src/b", 0, 10, 10, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 0, 20, 10, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, "", 0, 30, 10, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, nullptr, 0, 40, 10, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a/", 0, 50, 10, nullptr));
    ExpectRecords(info, {{0, 0, 0, 10}, {1, 0, 10, 10}, {0, 0, 20, 10}, {-1, 0, 30, 10}, {-1, 0, 40, 10},
                         {2, 0, 50, 10}});
    // The reference lines carry the file's ID, not the source index.
    EXPECT_EQ((std::vector<std::string>{"[RedirectedFile.AddSegment] Reference src (7): /src/a",
                                        "[RedirectedFile.AddSegment] Reference src (7): /src/b",
                                        "[RedirectedFile.AddSegment] Reference src (7): /src/a",
                                        "[RedirectedFile.AddSegment] Reference src (7): Null",
                                        "[RedirectedFile.AddSegment] Reference src (7): Null",
                                        "[RedirectedFile.AddSegment] Reference src (7): /src/a/"}),
              recorder.Starting("[RedirectedFile.AddSegment] Reference"));
}

TEST_F(RedirectedFileTest, SegmentPastTheSizeIsClippedAndOneAtTheSizeRefused) {
    CRedirectedFile file(&utilities);
    file.Open(&rp, 100, 0, info.c_str(), 0, 0);
    char status[64];
    memset(status, 'x', sizeof status);
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 5, 50, 100, status));
    EXPECT_FALSE(file.AddSegment(&rp, "/src/a", 5, 100, 1, status));
    EXPECT_FALSE(file.AddSegment(&rp, "/src/a", 5, 150, 1, status));
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 5, 99, 1, status));
    EXPECT_EQ(std::string(sizeof status, 'x'), std::string(status, sizeof status));
    ExpectRecords(info, {{0, 5, 50, 50}, {0, 5, 99, 1}});
}

TEST_F(RedirectedFileTest, PartBeforeOffsetZeroIsDropped) {
    CRedirectedFile file(&utilities);
    file.Open(&rp, 100, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 1000, -10, 30, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 1000, -10, 5, nullptr));  // wholly before 0: nothing
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 0, LLONG_MIN, LLONG_MAX, nullptr));
    ExpectRecords(info, {{0, 1010, 0, 20}});
}

TEST_F(RedirectedFileTest, OpenAndAddLogLines) {
    CRedirectedFile file(&utilities);
    file.Open(&rp, 5000000000LL, 3, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 12, 34, 56, nullptr));
    EXPECT_EQ((std::vector<std::string>{"[RedirectedFile.Open] id=3, size=5000000000 (path=" + info + ")"}),
              recorder.Starting("[RedirectedFile.Open]"));
    // The "%I64u" conversions of this line stay as they are: each value is
    // printed in a field of 64 characters.
    auto field = [](const std::string& digits) { return std::string(64 - digits.size(), ' ') + digits; };
    EXPECT_EQ((std::vector<std::string>{"[RedirectedFile.AddSegment] Segment id=3, fox=" + field("12") +
                                        ", ox=" + field("34") + ", len=" + field("56")}),
              recorder.Starting("[RedirectedFile.AddSegment] Segment"));

    CRuntimeParam quiet("test", 0);
    recorder.lines.clear();
    CRedirectedFile other(&utilities);
    other.Open(&quiet, 100, 1, nullptr, 0, 0);
    other.AddSegment(&quiet, "/src/a", 0, 0, 10, nullptr);
    EXPECT_TRUE(recorder.lines.empty());
}

// ---- checkpoints -----------------------------------------------------------------

TEST_F(RedirectedFileTest, SegmentAtOneGiBRecordsACheckpoint) {
    std::string target = dir / "listing.txt";
    WriteWholeFile(target, "");
    CRedirectedFile file(&utilities);
    file.Open(&rp, 4 * GiB, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 0, 0, MiB, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 0, 5 * MiB, MiB, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, "/src/b", 77, GiB, MiB, nullptr));
    file.ExportInfo(&rp, target.c_str(), false);
    EXPECT_EQ("--> CheckPoint Segment fox=56, ox=1073741824\n"
              "-------------------\n"
              "Segment path=/src/a, fox=0, ox=0, len=1048576\n"
              "Segment path=/src/a, fox=0, ox=5242880, len=1048576\n"
              "Segment path=/src/b, fox=77, ox=1073741824, len=1048576\n",
              ReadWholeFile(target));
}

TEST_F(RedirectedFileTest, SegmentAtZeroNeverRecordsACheckpoint) {
    std::string target = dir / "listing.txt";
    WriteWholeFile(target, "");
    CRedirectedFile file(&utilities);
    file.Open(&rp, 4 * GiB, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 0, 0, 10, nullptr));
    file.ExportInfo(&rp, target.c_str(), false);
    EXPECT_EQ("Segment path=/src/a, fox=0, ox=0, len=10\n", ReadWholeFile(target));
}

TEST_F(RedirectedFileTest, PiecesOfALongSegmentRecordCheckpoints) {
    std::string target = dir / "listing.txt";
    WriteWholeFile(target, "");
    CRedirectedFile file(&utilities);
    file.Open(&rp, 8 * GiB, 0, info.c_str(), 0, 0);
    // 0 to 2 GiB + 1 MiB: 65 records; those at 1 GiB and 2 GiB are record 32 and 64.
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 0, 0, 2 * GiB + MiB, nullptr));
    file.ExportInfo(&rp, target.c_str(), false);
    std::vector<std::string> lines = SplitLines(ReadWholeFile(target));
    ASSERT_EQ(3u + 65u, lines.size());
    EXPECT_EQ("--> CheckPoint Segment fox=896, ox=1073741824", lines[0]);
    EXPECT_EQ("--> CheckPoint Segment fox=1792, ox=2147483648", lines[1]);
    EXPECT_EQ("-------------------", lines[2]);
    EXPECT_EQ("Segment path=/src/a, fox=1073741824, ox=1073741824, len=33554432", lines[3 + 32]);
    EXPECT_EQ("Segment path=/src/a, fox=2147483648, ox=2147483648, len=1048576", lines[3 + 64]);
}

TEST_F(RedirectedFileTest, CheckpointsCorrectTheEstimateForBlocksWithManyRecords) {
    // Sixteen small segments per 1 MiB block: without the checkpoint every
    // 4 MiB, the estimate would land far before the covering record.
    MakeSource("a", 64 * 4096 + 64 * 1024, 1);
    std::string src = dir / "a";
    CRedirectedFile file(&utilities);
    file.Open(&rp, 64 * MiB, 0, info.c_str(), 1, 4);
    for (long long off = 0; off < 64 * MiB; off += 64 * 1024)
        ASSERT_TRUE(file.AddSegment(&rp, src.c_str(), (off / (64 * 1024)) % 64 * 4096, off, 64 * 1024, nullptr));
    std::string source = ReadWholeFile(src);
    for (long long off : {0LL, 5 * MiB + 7, 37 * MiB + 64 * 1024 + 1, 64 * MiB - 10}) {
        int count;
        bool eof;
        std::string got = ReadRange(file, off, 8, &count, &eof);
        long long k = off / (64 * 1024);
        std::string expected = source.substr((size_t)(k % 64 * 4096 + off % (64 * 1024)), 8);
        if (off + 8 > 64 * MiB) expected = expected.substr(0, (size_t)(64 * MiB - off));
        EXPECT_EQ(expected, got) << off;
    }
    // Estimate from the checkpoint at 36 MiB (record 576), then 1 block of
    // 16 records later: the covering record (593) is the second one read.
    long long before = file.GetInfoFileRecordsRead();
    int count;
    bool eof;
    ReadRange(file, 37 * MiB + 64 * 1024 + 1, 8, &count, &eof);
    EXPECT_EQ(593 - 577 + 1, file.GetInfoFileRecordsRead() - before);
}

// ---- reads ---------------------------------------------------------------------------

TEST_F(RedirectedFileTest, HolesReadAsZerosAndAReadFromAHoleContinuesIntoTheSegment) {
    std::string data = MakeSource("a", 4096, 2);
    CRedirectedFile file(&utilities);
    file.Open(&rp, 10000, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 100, 1000, 2000, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 0, 5000, 1000, nullptr));
    int count;
    bool eof;
    EXPECT_EQ(std::string(300, '\0'), ReadRange(file, 3500, 300, &count, &eof));
    EXPECT_EQ(300, count);
    EXPECT_FALSE(eof);
    EXPECT_EQ(std::string(400, '\0'), ReadRange(file, 100, 400, &count, &eof));
    EXPECT_EQ(std::string(500, '\0') + data.substr(100, 100), ReadRange(file, 500, 600, &count, &eof));
    EXPECT_EQ(std::string(200, '\0') + data.substr(0, 50), ReadRange(file, 4800, 250, &count, &eof));
    // Segment, hole, segment in one read.
    EXPECT_EQ(data.substr(2050, 50) + std::string(2000, '\0') + data.substr(0, 10),
              ReadRange(file, 2950, 2060, &count, &eof));
}

TEST_F(RedirectedFileTest, ReadAtTheSizeReturnsZeroWithEndOfFile) {
    MakeSource("a", 4096, 3);
    CRedirectedFile file(&utilities);
    file.Open(&rp, 1000, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 0, 0, 1000, nullptr));
    int count;
    bool eof = false;
    ReadRange(file, 0, 100, &count, &eof);  // a read that ends mid-file first
    EXPECT_FALSE(eof);
    char buf[16];
    eof = false;
    EXPECT_EQ(0, file.Read(&rp, 1000, buf, sizeof buf, &eof));
    EXPECT_TRUE(eof);
    eof = false;
    EXPECT_EQ(0, file.Read(&rp, 5000, buf, sizeof buf, &eof));
    EXPECT_TRUE(eof);
    eof = true;
    EXPECT_EQ(0, file.Read(&rp, 900, buf, 0, &eof));
    EXPECT_FALSE(eof);
    std::string got = ReadRange(file, 990, 100, &count, &eof);
    EXPECT_EQ(10, count);
    EXPECT_TRUE(eof);
}

TEST_F(RedirectedFileTest, SegmentWithoutSourceReadsAsZeros) {
    std::string data = MakeSource("a", 4096, 4);
    CRedirectedFile file(&utilities);
    file.Open(&rp, 300, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 0, 0, 100, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, nullptr, 0, 100, 100, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, "", 4000, 200, 100, nullptr));
    int count;
    bool eof;
    EXPECT_EQ(data.substr(90, 10) + std::string(200, '\0'), ReadRange(file, 90, 1000, &count, &eof));
    EXPECT_TRUE(eof);
}

TEST_F(RedirectedFileTest, MissingOrShortSourceReadsAsZeros) {
    std::string data = MakeSource("short", 50, 5);
    CRedirectedFile file(&utilities);
    file.Open(&rp, 400, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "missing").c_str(), 0, 0, 100, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "short").c_str(), 20, 100, 100, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "short").c_str(), 0, 200, 200, nullptr));
    int count;
    bool eof;
    EXPECT_EQ(std::string(100, '\0') + data.substr(20, 30) + std::string(70, '\0') + data +
                  std::string(150, '\0'),
              ReadRange(file, 0, 400, &count, &eof));
    EXPECT_TRUE(eof);
    // Starting inside the part past the short source's end.
    EXPECT_EQ(std::string(10, '\0'), ReadRange(file, 300, 10, &count, &eof));
    EXPECT_EQ(10, count);
}

TEST_F(RedirectedFileTest, ZeroFillsStayInsideTheCallersBuffer) {
    std::string data = MakeSource("a", 4096, 6);
    CRedirectedFile file(&utilities);
    file.Open(&rp, 1000000, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 0, 0, 100, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 0, 500000, 100, nullptr));
    const unsigned int len = 1000;
    std::vector<char> buf(len + 64, 'G');
    auto guardIntact = [&] { return std::all_of(buf.begin() + len, buf.end(), [](char c) { return c == 'G'; }); };
    bool eof;
    // Gap to the next segment far larger than the buffer.
    EXPECT_EQ((int)len, file.Read(&rp, 50, buf.data(), len, &eof));
    EXPECT_TRUE(guardIntact());
    EXPECT_EQ(data.substr(50, 50) + std::string(len - 50, '\0'), std::string(buf.data(), len));
    // A read starting in that gap.
    EXPECT_EQ((int)len, file.Read(&rp, 1000, buf.data(), len, &eof));
    EXPECT_TRUE(guardIntact());
    // The trailing hole, after the last segment.
    EXPECT_EQ((int)len, file.Read(&rp, 500050, buf.data(), len, &eof));
    EXPECT_TRUE(guardIntact());
    EXPECT_EQ(data.substr(50, 50) + std::string(len - 50, '\0'), std::string(buf.data(), len));
    EXPECT_EQ((int)len, file.Read(&rp, 700000, buf.data(), len, &eof));
    EXPECT_TRUE(guardIntact());
    EXPECT_EQ(std::string(len, '\0'), std::string(buf.data(), len));
}

TEST_F(RedirectedFileTest, TrailingHoleAfterAReadThatReachedTheEndIsFilledOnTheNextRead) {
    std::string data = MakeSource("a", 4096, 7);
    CRedirectedFile file(&utilities);
    file.Open(&rp, 1000, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 0, 0, 600, nullptr));
    int count;
    bool eof;
    EXPECT_EQ(data.substr(0, 600) + std::string(400, '\0'), ReadRange(file, 0, 1000, &count, &eof));
    EXPECT_TRUE(eof);
    // The previous read ended at the size: no zero fill past the last segment.
    EXPECT_EQ(data.substr(500, 100), ReadRange(file, 500, 300, &count, &eof));
    EXPECT_FALSE(eof);
    // This one ended below it: the fill comes.
    EXPECT_EQ(data.substr(550, 50) + std::string(250, '\0'), ReadRange(file, 550, 300, &count, &eof));
    ReadRange(file, 0, 1000, &count, &eof);
    EXPECT_TRUE(eof);
    EXPECT_EQ("", ReadRange(file, 700, 100, &count, &eof));
    EXPECT_EQ(0, count);
    EXPECT_FALSE(eof);
    EXPECT_EQ(std::string(100, '\0'), ReadRange(file, 700, 100, &count, &eof));
}

TEST_F(RedirectedFileTest, FirstRecordCoveringAnOffsetWinsAndLaterHoleFillsAreSeen) {
    std::string a = MakeSource("a", 4096, 8);
    std::string b = MakeSource("b", 4096, 9);
    CRedirectedFile file(&utilities);
    file.Open(&rp, 3000, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 0, 0, 1000, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 2000, 2000, 1000, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "b").c_str(), 0, 0, 3000, nullptr));     // over covered ranges
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "b").c_str(), 1000, 1000, 1000, nullptr));  // over the hole
    int count;
    bool eof;
    EXPECT_EQ(a.substr(10, 20), ReadRange(file, 10, 20, &count, &eof));
    EXPECT_EQ(a.substr(2500, 20), ReadRange(file, 2500, 20, &count, &eof));
    // The hole at 1000 is covered first by the long b segment (third record).
    EXPECT_EQ(b.substr(1500, 20), ReadRange(file, 1500, 20, &count, &eof));
}

TEST_F(RedirectedFileTest, CorruptInfoFileNeverCrashesOrOverrunsTheBuffer) {
    MakeSource("a", 4096, 10);
    CRedirectedFile file(&utilities);
    file.Open(&rp, 1 << 20, 0, info.c_str(), 1, 1);
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 0, 0, 4096, nullptr));
    std::string bytes = ReadWholeFile(info);
    std::mt19937_64 gen(11);
    const long long extremes[] = {0, 1, -1, LLONG_MAX, LLONG_MIN, 1 << 20, 4096, -4096, LLONG_MAX - 10};
    for (int i = 0; i < 400; ++i) {
        Record r;
        r.iSource = (int)(gen() % 5) - 2;
        r.iFileOffset = (long long)((unsigned long long)extremes[gen() % 9] + gen() % 3);
        r.iOffset = gen() % 2 ? extremes[gen() % 9] : (long long)(gen() % (1 << 20));
        r.iLength = gen() % 2 ? extremes[gen() % 9] : (long long)(gen() % 100000);
        bytes += RecordBytes(r);
    }
    bytes += "partial";
    WriteWholeFile(info, bytes);
    const unsigned int len = 65536;
    std::vector<char> buf(len + 64);
    for (int i = 0; i < 300; ++i) {
        std::fill(buf.begin(), buf.end(), 'G');
        long long seek = gen() % 3 == 0 ? extremes[gen() % 9] : (long long)(gen() % (1 << 20));
        unsigned int n = (unsigned int)(gen() % (len + 1));
        bool eof;
        int count = file.Read(&rp, seek, buf.data(), n, &eof);
        EXPECT_GE(count, 0);
        EXPECT_LE(count, (int)n);
        EXPECT_TRUE(std::all_of(buf.begin() + n, buf.end(), [](char c) { return c == 'G'; })) << seek << " " << n;
    }
    std::string target = dir / "listing.txt";
    WriteWholeFile(target, "");
    file.ExportInfo(&rp, target.c_str(), true);
    file.ExportInfo(&rp, target.c_str(), false);
    EXPECT_FALSE(ReadWholeFile(target).empty());
}

TEST_F(RedirectedFileTest, ExtremeSegmentValuesNeverCrashOrOverrun) {
    MakeSource("a", 4096, 18);
    const long long extremes[] = {0, 1, -1, LLONG_MAX, LLONG_MIN, 5000, 4096, -4096, LLONG_MAX - 10};
    for (bool useInfoFile : {true, false}) {
        CRedirectedFile file(&utilities);
        file.Open(&rp, 1 << 20, 0, useInfoFile ? info.c_str() : nullptr, 1, 1);
        std::mt19937_64 gen(19);
        for (int i = 0; i < 200; ++i) {
            long long fox = extremes[gen() % 9], ox = extremes[gen() % 9], len = extremes[gen() % 9];
            bool added = file.AddSegment(&rp, gen() % 2 ? (dir / "a").c_str() : nullptr, fox, ox, len, nullptr);
            EXPECT_EQ(ox < (1 << 20), added);
        }
        // Everything recorded lies inside the file.
        std::string bytes = ReadWholeFile(info);
        for (size_t at = 0; at + 28 <= bytes.size(); at += 28) {
            long long ox = (long long)GetLittleEndianForTest(bytes.data() + at + 12);
            long long len = (long long)GetLittleEndianForTest(bytes.data() + at + 20);
            EXPECT_GE(ox, 0);
            EXPECT_GT(len, 0);
            EXPECT_LE(ox + len, 1 << 20);
        }
        const unsigned int maxLen = 70000;
        std::vector<char> buf(maxLen + 64);
        for (int i = 0; i < 200; ++i) {
            std::fill(buf.begin(), buf.end(), 'G');
            long long seek = gen() % 3 == 0 ? extremes[gen() % 9] : (long long)(gen() % (1 << 20));
            unsigned int n = (unsigned int)(gen() % (maxLen + 1));
            bool eof;
            int count = file.Read(&rp, seek, buf.data(), n, &eof);
            EXPECT_GE(count, 0);
            EXPECT_LE(count, (int)n);
            EXPECT_TRUE(std::all_of(buf.begin() + n, buf.end(), [](char c) { return c == 'G'; }));
        }
    }
}

TEST_F(RedirectedFileTest, ReadLogLines) {
    MakeSource("a", 4096, 12);
    CRuntimeParam access("test", CRuntimeParam::LOG_FILE_ACCESS);
    CRedirectedFile file(&utilities);
    file.Open(&access, 1000, 4, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&access, (dir / "a").c_str(), 10, 0, 100, nullptr));
    ASSERT_TRUE(file.AddSegment(&access, nullptr, 0, 150, 100, nullptr));
    recorder.lines.clear();
    char buf[200];
    bool eof;
    ASSERT_EQ(200, file.Read(&access, 50, buf, sizeof buf, &eof));
    // The line names the requested offset "fox" and the source position "seek".
    std::vector<std::string> lines;
    for (const std::string& l : recorder.Starting("[RedirectedFile.Read] "))
        if (l.find("] OS ") == std::string::npos && l.find("] open ") == std::string::npos) lines.push_back(l);
    EXPECT_EQ((std::vector<std::string>{
                  "[RedirectedFile.Read] Segment (4) path:" + dir / "a" + ", fox:50, len:50 (seek:60)",
                  "[RedirectedFile.Read] Fill missing segment len:50",
                  "[RedirectedFile.Read] Segment (4) path:Null, fox:50, len:100 (seek:0)",
                  "[RedirectedFile.Read] Eof=F, ox=250, size=1000",
              }),
              lines);
    recorder.lines.clear();
    file.Read(&access, 1000, buf, sizeof buf, &eof);
    EXPECT_EQ((std::vector<std::string>{"[RedirectedFile.Read] Eof=T, ox=250, size=1000"}),
              recorder.Starting("[RedirectedFile.Read] Eof"));
}

// ---- an assembled file against a reference ----------------------------------------

namespace {

struct Layout {
    long long size = 0;
    long long lastEnd = 0;  // end of the last segment
    std::string reference;
};

// Three sources, segments with holes (each smaller than a block) and
// segments without source, and a hole at the end.
Layout AddAssembledSegments(CRuntimeParam* rp, CRedirectedFile& file, const std::vector<std::string>& paths,
                            const std::vector<std::string>& contents, long long size) {
    Layout layout;
    layout.size = size;
    layout.reference.assign((size_t)size, '\0');
    std::mt19937_64 gen(20240611);
    long long off = 100 * 1024;  // a hole at the start
    while (off < size - 1024 * 1024) {  // the last one ends at least 300 KiB before the size
        long long len = 1 + (long long)(gen() % (700 * 1024));
        int which = (int)(gen() % 7);  // 0..5 a source, 6 none
        const char* path = which < 6 ? paths[(size_t)which % 3].c_str() : nullptr;
        const std::string* src = which < 6 ? &contents[(size_t)which % 3] : nullptr;
        long long fox = src ? (long long)(gen() % (src->size() - (size_t)len)) : (long long)(gen() % 1000);
        EXPECT_TRUE(file.AddSegment(rp, path, fox, off, len, nullptr));
        if (src) layout.reference.replace((size_t)off, (size_t)len, *src, (size_t)fox, (size_t)len);
        off += len;
        layout.lastEnd = off;
        off += gen() % 3 == 0 ? 0 : (long long)(gen() % (200 * 1024));
    }
    return layout;
}

}  // namespace

class AssembledFileTest : public RedirectedFileTest, public ::testing::WithParamInterface<bool> {};

TEST_P(AssembledFileTest, ReadsMatchTheReferenceByteForByte) {
    bool useInfoFile = GetParam();
    std::vector<std::string> paths, contents;
    for (int i = 0; i < 3; ++i) {
        contents.push_back(MakeSource("src" + std::to_string(i), (size_t)(6 * MiB), 100 + (unsigned)i));
        paths.push_back(dir / ("src" + std::to_string(i)));
    }
    const long long size = 12 * MiB + 12345;
    CRedirectedFile file(&utilities);
    file.Open(&rp, size, 0, useInfoFile ? info.c_str() : nullptr, 1, 4);
    Layout layout = AddAssembledSegments(&rp, file, paths, contents, size);
    if (useInfoFile)
        EXPECT_GT(ReadWholeFile(info).size(), 12u * 28u);  // split at every MiB
    else
        EXPECT_EQ(0u, ReadWholeFile(info).size());

    // Whole, in one read and in 64 KiB reads.
    int count;
    bool eof;
    std::string whole = ReadRange(file, 0, (unsigned int)size, &count, &eof);
    EXPECT_EQ(size, count);
    EXPECT_TRUE(eof);
    EXPECT_TRUE(whole == layout.reference);
    std::string pieces;
    long long off = 0;
    do {
        pieces += ReadRange(file, off, 65536, &count, &eof);
        ASSERT_GT(count, 0);
        off += count;
    } while (!eof);
    EXPECT_TRUE(pieces == layout.reference);

    // Random ranges. A read that reaches past the last segment gets its zero
    // fill only when the previous read ended below the size.
    std::mt19937_64 gen(77);
    long long previousEnd = size;
    for (int i = 0; i < 3000; ++i) {
        long long seek = (long long)(gen() % (unsigned long long)(size + 1000));
        unsigned int len = (unsigned int)(gen() % (300 * 1024));
        std::string got = ReadRange(file, seek, len, &count, &eof);
        if (seek >= size) {
            EXPECT_EQ(0, count);
            EXPECT_TRUE(eof);
            continue;
        }
        long long expected = std::min<long long>(len, size - seek);
        if (previousEnd >= size && seek + expected > layout.lastEnd)
            expected = std::max(0LL, std::min<long long>(len, layout.lastEnd - seek));
        ASSERT_EQ(expected, count) << "read " << i << " at " << seek << " len " << len;
        ASSERT_TRUE(got == layout.reference.substr((size_t)seek, (size_t)count)) << "read " << i << " at " << seek;
        EXPECT_EQ(seek + count >= size, eof);
        previousEnd = seek + count;
    }

    // Export writes the same bytes.
    std::string target = dir / "export.bin";
    WriteWholeFile(target, "");
    file.Export(&rp, target.c_str());
    EXPECT_TRUE(ReadWholeFile(target) == layout.reference);
}

INSTANTIATE_TEST_SUITE_P(InfoFileOrMemory, AssembledFileTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& p) { return p.param ? "InfoFile" : "InMemory"; });

// ---- in-memory fallback ------------------------------------------------------------------

TEST_F(RedirectedFileTest, InfoFileThatCannotBeOpenedKeepsSegmentsInMemory) {
    std::string data = MakeSource("a", 4096, 13);
    std::string missing = dir / "no/info";
    std::string target = dir / "listing.txt";
    WriteWholeFile(target, "");
    CRedirectedFile file(&utilities);
    file.Open(&rp, 100 * MiB, 0, missing.c_str(), 1, 0);
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 100, MiB / 2, 3 * MiB, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, nullptr, 0, 4 * MiB, 10, nullptr));
    EXPECT_FALSE(PathExists(missing));
    int count;
    bool eof;
    EXPECT_EQ(data.substr(100, 10), ReadRange(file, MiB / 2, 10, &count, &eof));
    // Kept whole, not split at the segment size.
    file.ExportInfo(&rp, target.c_str(), false);
    EXPECT_EQ("Segment path=" + dir / "a" + ", fox=100, ox=524288, len=3145728\n"
              "Segment path=Null, fox=0, ox=4194304, len=10\n",
              ReadWholeFile(target));
}

// ---- listings and exports ------------------------------------------------------------------

TEST_F(RedirectedFileTest, ExportInfoListsSegmentsInInfoFileOrder) {
    std::string target = dir / "listing.txt";
    WriteWholeFile(target, "");
    CRedirectedFile file(&utilities);
    file.Open(&rp, 100 * MiB, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 0, 0, 40 * MiB, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, nullptr, 0, 50 * MiB, 10, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, "/src/b", 5, 45 * MiB, 10, nullptr));
    file.ExportInfo(&rp, target.c_str(), false);
    EXPECT_EQ("Segment path=/src/a, fox=0, ox=0, len=33554432\n"
              "Segment path=/src/a, fox=33554432, ox=33554432, len=8388608\n"
              "Segment path=Null, fox=0, ox=52428800, len=10\n"
              "Segment path=/src/b, fox=5, ox=47185920, len=10\n",
              ReadWholeFile(target));
    std::vector<std::string> lines = recorder.Starting("[RedirectedFile.ExportInfo]");
    ASSERT_EQ(1u, lines.size());
    std::string prefix = "[RedirectedFile.ExportInfo] Info to file: " + target + " (fid=";
    ASSERT_EQ(0u, lines[0].find(prefix));
    EXPECT_GT(std::stoi(lines[0].substr(prefix.size())), 2);
    EXPECT_EQ(')', lines[0].back());
}

TEST_F(RedirectedFileTest, ExportInfoMergesRunsOfOneSource) {
    std::string target = dir / "listing.txt";
    WriteWholeFile(target, "");
    CRedirectedFile file(&utilities);
    file.Open(&rp, 100 * MiB, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 10, 0, 100, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 999, 500, 200, nullptr));  // not contiguous: still joined
    ASSERT_TRUE(file.AddSegment(&rp, "/src/b", 7, 700, 50, nullptr));
    file.ExportInfo(&rp, target.c_str(), true);
    EXPECT_EQ("--> Merged Segment path=/src/a, fox=10, ox=0, len=300\n"
              "--> Merged Segment path=/src/b, fox=7, ox=700, len=50\n",
              ReadWholeFile(target));
}

TEST_F(RedirectedFileTest, ExportInfoMergedWithCheckpointsAndNullRuns) {
    std::string target = dir / "listing.txt";
    WriteWholeFile(target, "");
    CRedirectedFile file(&utilities);
    file.Open(&rp, 4 * GiB, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, nullptr, 0, 0, 10, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, "", 0, 10, 10, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 3, GiB - 16 * MiB, 32 * MiB, nullptr));  // two pieces
    file.ExportInfo(&rp, target.c_str(), true);
    EXPECT_EQ("--> CheckPoint Segment fox=84, ox=1073741824\n"
              "-------------------\n"
              "--> Merged Segment path=Null, fox=0, ox=0, len=20\n"
              "--> Merged Segment path=/src/a, fox=3, ox=1056964608, len=33554432\n",
              ReadWholeFile(target));
}

TEST_F(RedirectedFileTest, ExportsToAMissingTargetOnlyLog) {
    std::string target = dir / "absent.txt";
    CRedirectedFile file(&utilities);
    file.Open(&rp, 100, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, "/src/a", 0, 0, 100, nullptr));
    file.ExportInfo(&rp, target.c_str(), false);
    file.Export(&rp, target.c_str());
    EXPECT_FALSE(PathExists(target));
    EXPECT_EQ((std::vector<std::string>{"[RedirectedFile.ExportInfo] Info to file error: " + target}),
              recorder.Starting("[RedirectedFile.ExportInfo] Info"));
    EXPECT_EQ((std::vector<std::string>{"[RedirectedFile.Export] Content to file error: " + target}),
              recorder.Starting("[RedirectedFile.Export] Content"));
}

TEST_F(RedirectedFileTest, ExportWritesTheContentInChunksAndLogsEachWrite) {
    std::string data = MakeSource("a", 200000, 14);
    std::string target = dir / "export.bin";
    WriteWholeFile(target, "");
    CRedirectedFile file(&utilities);
    file.Open(&rp, 150000, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 0, 0, 100000, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 100000, 120000, 30000, nullptr));
    file.Export(&rp, target.c_str());
    EXPECT_TRUE(ReadWholeFile(target) == data.substr(0, 100000) + std::string(20000, '\0') + data.substr(100000, 30000));
    std::vector<std::string> lines = recorder.Starting("[RedirectedFile.Export]");
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ(0u, lines[0].find("[RedirectedFile.Export] Content to file: " + target + " (fid="));
    EXPECT_EQ("[RedirectedFile.Export] Write ox:0, r:65536, w:65536", lines[1]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:65536, r:65536, w:65536", lines[2]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:131072, r:18928, w:18928", lines[3]);
}

TEST_F(RedirectedFileTest, ExportOfAnEmptyFileWritesNothing) {
    std::string target = dir / "export.bin";
    WriteWholeFile(target, "");
    CRedirectedFile file(&utilities);
    file.Open(&rp, 0, 0, info.c_str(), 0, 0);
    EXPECT_FALSE(file.AddSegment(&rp, "/src/a", 0, 0, 10, nullptr));
    file.Export(&rp, target.c_str());
    EXPECT_EQ("", ReadWholeFile(target));
    EXPECT_EQ("[RedirectedFile.Export] Write ox:0, r:0, w:0", recorder.Starting("[RedirectedFile.Export] Write")[0]);
}

// ---- close ---------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, CloseForgetsSourcesKeepsTheInfoFileAndClosesDescriptors) {
    std::string data = MakeSource("a", 4096, 15);
    MakeSource("b", 4096, 16);
    int before = CountOpenDescriptors();
    CRedirectedFile file(&utilities);
    file.Open(&rp, 4096, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 0, 0, 2048, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, (dir / "b").c_str(), 0, 2048, 2048, nullptr));
    int count;
    bool eof;
    EXPECT_EQ(data.substr(0, 10), ReadRange(file, 0, 10, &count, &eof));
    ReadRange(file, 3000, 10, &count, &eof);
    EXPECT_EQ(before + 3, CountOpenDescriptors());  // info file and two sources
    std::string infoBytes = ReadWholeFile(info);

    file.Close(&rp);
    EXPECT_EQ(before, CountOpenDescriptors());
    EXPECT_EQ(infoBytes, ReadWholeFile(info));
    EXPECT_EQ(std::string(4096, '\0'), ReadRange(file, 0, 4096, &count, &eof));
    EXPECT_TRUE(eof);
    file.Close(&rp);  // only the first call acts
    EXPECT_EQ(before, CountOpenDescriptors());
}

TEST_F(RedirectedFileTest, DestructorCloses) {
    MakeSource("a", 4096, 17);
    int before = CountOpenDescriptors();
    {
        CRedirectedFile file(&utilities);
        file.Open(&rp, 4096, 0, info.c_str(), 0, 0);
        ASSERT_TRUE(file.AddSegment(&rp, (dir / "a").c_str(), 0, 0, 2048, nullptr));
        int count;
        bool eof;
        ReadRange(file, 0, 10, &count, &eof);
        EXPECT_EQ(before + 2, CountOpenDescriptors());
    }
    EXPECT_EQ(before, CountOpenDescriptors());
}
