// Reads of redirected files whose consecutive segments continue each other
// in one source are served with one read of the source for the run. For
// random layouts (runs of such segments, splits at the segment size, holes,
// missing and short sources, segments added later over holes, with and
// without an info file) every read gives byte for byte, count for count and
// end-of-file flag for end-of-file flag what the read segment by segment
// gives.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "LogRecorder.h"
#include "RedirectedFile.h"
#include "TestSupport.h"
#include "Utilities.h"

// Reads a file segment by segment (the reference) or with joined reads.
struct RedirectedFileReadProbe {
    static int Read(CRedirectedFile& file, CRuntimeParam* rp, long long seek, char* buf, unsigned int len, bool* eof,
                    bool bySegment) {
        file.m_bReadBySegment = bySegment;
        int n = file.Read(rp, seek, buf, len, eof);
        file.m_bReadBySegment = false;
        return n;
    }
    static long long& Position(CRedirectedFile& file) { return file.m_iPos; }
};

namespace {

constexpr long long KiB = 1LL << 10;
constexpr long long MiB = 1LL << 20;

class RedirectedJoinedReads : public ::testing::TestWithParam<bool> {
protected:
    RedirectedJoinedReads() : rp("test", CRuntimeParam::LOG_ERROR) {
        info = dir / "disk.vmdk";
        WriteWholeFile(info, "");
    }

    // Sources of random bytes; short ones end inside the runs taken from
    // them. One more path names no file (reads as zeros).
    void MakeSources(std::mt19937_64& gen) {
        sources.clear();
        sourceSizes.clear();
        for (int k = 0; k < 3; ++k) {
            long long size = k == 0 ? 2 * MiB : (long long)(gen() % (1 * MiB)) + 1;
            std::string data((size_t)size, '\0');
            for (char& c : data) c = (char)(gen() & 0xff);
            sources.push_back(dir / ("source" + std::to_string(k)));
            WriteWholeFile(sources.back(), data);
            sourceSizes.push_back(size);
        }
        sources.push_back(dir / "missing");
        sourceSizes.push_back(2 * MiB);
    }

    void Add(CRedirectedFile& file, const char* source, long long fox, long long offset, long long length) {
        ASSERT_EQ(offset < fileSize, file.AddSegment(&rp, source, fox, offset, length, nullptr));
        edges.push_back(offset);
        edges.push_back(offset + length);
    }

    long long Length(std::mt19937_64& gen) {
        unsigned long long roll = gen() % 10;
        if (roll == 0) return 1 + (long long)(gen() % 100);
        if (roll < 8) return 1 + (long long)(gen() % (32 * KiB));
        return 1 + (long long)(gen() % (600 * KiB));
    }

    // Runs of segments that continue each other in one source, now and
    // then with a hole, a jump in the source, a source without a file or
    // no source; a third of the holes filled later (sometimes overlapping
    // their neighbours).
    void Build(CRedirectedFile& file, std::mt19937_64& gen) {
        std::vector<std::pair<long long, long long>> holes;
        long long offset = 0;
        while (offset < fileSize) {
            int pick = (int)(gen() % (sources.size() + 1));
            const char* source = pick == (int)sources.size() ? nullptr : sources[(size_t)pick].c_str();
            long long limit = pick == (int)sources.size() ? 2 * MiB : sourceSizes[(size_t)pick];
            long long fox = (long long)(gen() % (unsigned long long)limit);
            int pieces = 1 + (int)(gen() % 12);
            for (int i = 0; i < pieces && offset < fileSize; ++i) {
                long long length = Length(gen);
                Add(file, source, fox, offset, length);
                if (HasFatalFailure()) return;
                offset += length;
                fox += length;
                if (gen() % 8 == 0) fox += 1 + (long long)(gen() % 4096);  // not a continuation
            }
            if (gen() % 4 == 0) {
                long long length = Length(gen);
                holes.push_back({offset, length});
                offset += length;
            }
        }
        std::shuffle(holes.begin(), holes.end(), gen);
        for (size_t i = 0; i < holes.size() / 3; ++i) {
            long long grow = gen() % 2 ? 0 : (long long)(gen() % (8 * KiB));
            long long at = std::max(0LL, holes[i].first - grow);
            if (at < fileSize) Add(file, sources[0].c_str(), (long long)(gen() % MiB), at, holes[i].second + 2 * grow);
            if (HasFatalFailure()) return;
        }
    }

    void CompareRead(CRedirectedFile& file, long long seek, unsigned int len) {
        std::vector<char> reference(len + 1, 'R'), joined(len + 1, 'J');
        long long& position = RedirectedFileReadProbe::Position(file);
        // Where the last read ended decides the zeros after the last
        // segment: both reads start from the same one.
        long long before = position;
        bool referenceEof = false, joinedEof = false;
        int referenceCount = RedirectedFileReadProbe::Read(file, &rp, seek, reference.data(), len, &referenceEof, true);
        long long referencePosition = position;
        position = before;
        int joinedCount = RedirectedFileReadProbe::Read(file, &rp, seek, joined.data(), len, &joinedEof, false);
        ASSERT_EQ(referenceCount, joinedCount) << "seek " << seek << " len " << len;
        ASSERT_EQ(referenceEof, joinedEof) << "seek " << seek << " len " << len;
        ASSERT_EQ(referencePosition, position);
        ASSERT_TRUE(std::equal(reference.begin(), reference.begin() + std::max(referenceCount, 0), joined.begin()))
            << "seek " << seek << " len " << len;
        ++reads;
    }

    TempDir dir;
    CUtilities utilities;
    CRuntimeParam rp;
    std::string info;
    std::vector<std::string> sources;
    std::vector<long long> sourceSizes;
    std::vector<long long> edges;
    long long fileSize = 0;
    int reads = 0;
};

}  // namespace

TEST_P(RedirectedJoinedReads, ReadsMatchTheReadSegmentBySegment) {
    bool useInfoFile = GetParam();
    long long joinedSourceReads = 0, referenceSourceReads = 0;
    for (unsigned seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937_64 gen(seed);
        WriteWholeFile(info, "");
        MakeSources(gen);
        edges.clear();
        fileSize = (long long)(4 + gen() % 12) * MiB + (long long)(gen() % 4096);
        CRedirectedFile file(&utilities);
        // 1 MiB blocks: segments across a block boundary are split into
        // records that continue each other.
        file.Open(&rp, fileSize, 0, useInfoFile ? info.c_str() : nullptr, 1, 4);
        Build(file, gen);
        if (HasFatalFailure()) return;

        std::vector<long long> seeks = {0, fileSize - 1};
        for (long long e : edges)
            for (long long d : {-1LL, 0LL, 1LL})
                if (e + d >= 0 && e + d < fileSize) seeks.push_back(e + d);
        std::shuffle(seeks.begin(), seeks.end(), gen);
        if (seeks.size() > 1500) seeks.resize(1500);
        for (int i = 0; i < 500; ++i) seeks.push_back((long long)(gen() % (unsigned long long)fileSize));
        for (long long seek : seeks) {
            unsigned int len;
            switch (gen() % 4) {
                case 0: len = 65536; break;
                case 1: len = 1 + (unsigned int)(gen() % 512); break;
                default: len = 1 + (unsigned int)(gen() % (300 * KiB)); break;
            }
            // The source reads of each way, from the same starting point.
            long long savedPosition = RedirectedFileReadProbe::Position(file);
            std::vector<char> scratch(len);
            bool eof;
            for (bool bySegment : {true, false}) {
                long long before = file.GetSourceReads();
                RedirectedFileReadProbe::Read(file, &rp, seek, scratch.data(), len, &eof, bySegment);
                (bySegment ? referenceSourceReads : joinedSourceReads) += file.GetSourceReads() - before;
                RedirectedFileReadProbe::Position(file) = savedPosition;
            }
            CompareRead(file, seek, len);
            if (HasFatalFailure()) return;
        }
        // Reads past the end, and sequential reads to the end.
        CompareRead(file, fileSize, 4096);
        if (HasFatalFailure()) return;
        for (long long at = fileSize - 300 * KiB; at < fileSize; at += 65536) {
            CompareRead(file, std::max(0LL, at), 65536);
            if (HasFatalFailure()) return;
        }
    }
    EXPECT_GT(reads, 6 * 500);
    // Runs were joined: fewer calls, though a short source costs a second
    // pass.
    EXPECT_LT(joinedSourceReads, referenceSourceReads);
}

INSTANTIATE_TEST_SUITE_P(Storage, RedirectedJoinedReads, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return std::string(info.param ? "InfoFile" : "InMemory");
                         });

namespace {

class RedirectedJoinedReadCases : public ::testing::Test {
protected:
    RedirectedJoinedReadCases() : rp("test", CRuntimeParam::LOG_ERROR) {
        info = dir / "disk.vmdk";
        WriteWholeFile(info, "");
        source = dir / "source";
        std::mt19937 gen(3);
        for (int i = 0; i < 256 * 1024; ++i) data.push_back((char)('a' + gen() % 26));
        WriteWholeFile(source, data);
    }

    std::string Read(CRedirectedFile& file, long long seek, unsigned int len, int* count, bool* eof) {
        std::string out(len, '\x5A');
        *count = file.Read(&rp, seek, &out[0], len, eof);
        out.resize((size_t)std::max(*count, 0));
        return out;
    }

    TempDir dir;
    CUtilities utilities;
    CRuntimeParam rp;
    std::string info, source, data;
};

}  // namespace

TEST_F(RedirectedJoinedReadCases, SixteenSegmentsThatContinueEachOtherAreReadWithOneCall) {
    CRedirectedFile file(&utilities);
    file.Open(&rp, 1 * MiB, 0, info.c_str(), 0, 0);
    for (int i = 0; i < 16; ++i)
        ASSERT_TRUE(file.AddSegment(&rp, source.c_str(), 4096 + i * 4096, i * 4096, 4096, nullptr));
    long long before = file.GetSourceReads();
    int count = 0;
    bool eof = true;
    EXPECT_EQ(data.substr(4096, 65536), Read(file, 0, 65536, &count, &eof));
    EXPECT_EQ(65536, count);
    EXPECT_FALSE(eof);
    EXPECT_EQ(1, file.GetSourceReads() - before);
}

TEST_F(RedirectedJoinedReadCases, SegmentsOfSourcesInTurnAreReadOneByOne) {
    std::string other = dir / "other";
    WriteWholeFile(other, data);
    CRedirectedFile file(&utilities);
    file.Open(&rp, 1 * MiB, 0, info.c_str(), 0, 0);
    for (int i = 0; i < 16; ++i)
        ASSERT_TRUE(file.AddSegment(&rp, (i % 2 ? other : source).c_str(), i * 4096, i * 4096, 4096, nullptr));
    long long before = file.GetSourceReads();
    int count = 0;
    bool eof = true;
    EXPECT_EQ(data.substr(0, 65536), Read(file, 0, 65536, &count, &eof));
    EXPECT_EQ(16, file.GetSourceReads() - before);
}

TEST_F(RedirectedJoinedReadCases, ASourceThatEndsInsideARunReadsAsTheSegmentsOneByOne) {
    // Two segments continue each other in a source of 6 KiB: the first is
    // read whole, the second gives the 2 KiB the source still has; no
    // segment follows, so the rest up to the size reads as zeros.
    std::string shortSource = dir / "short";
    WriteWholeFile(shortSource, data.substr(0, 6144));
    CRedirectedFile file(&utilities);
    file.Open(&rp, 12288, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, shortSource.c_str(), 0, 0, 4096, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, shortSource.c_str(), 4096, 4096, 4096, nullptr));
    int count = 0;
    bool eof = false;
    std::string got = Read(file, 0, 65536, &count, &eof);
    EXPECT_EQ(12288, count);
    EXPECT_TRUE(eof);
    EXPECT_EQ(data.substr(0, 6144) + std::string(6144, '\0'), got);
}

TEST_F(RedirectedJoinedReadCases, ARunThatStartsPastTheSourceEndReadsAsZeros) {
    CRedirectedFile file(&utilities);
    file.Open(&rp, 1 * MiB, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, source.c_str(), 0, 0, 4096, nullptr));
    for (int i = 1; i < 4; ++i)
        ASSERT_TRUE(file.AddSegment(&rp, source.c_str(), (long long)data.size() + i * 4096, i * 4096, 4096, nullptr));
    ASSERT_TRUE(file.AddSegment(&rp, source.c_str(), 8192, 16384, 4096, nullptr));
    int count = 0;
    bool eof = true;
    std::string got = Read(file, 0, 20480, &count, &eof);
    EXPECT_EQ(20480, count);
    EXPECT_FALSE(eof);
    EXPECT_EQ(data.substr(0, 4096) + std::string(12288, '\0') + data.substr(8192, 4096), got);
}

TEST_F(RedirectedJoinedReadCases, AFailedJoinedReadLogsWhatTheReadSegmentBySegmentLogs) {
    // A folder as the source: it opens, and every read of it fails. The
    // read stops at the first piece, after the bytes of the segment before.
    std::string folder = dir / "folder";
    ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
    LogRecorder recorder;
    utilities.SetCallback(&recorder);
    CRedirectedFile file(&utilities);
    file.Open(&rp, 1 * MiB, 0, info.c_str(), 0, 0);
    ASSERT_TRUE(file.AddSegment(&rp, source.c_str(), 0, 0, 4096, nullptr));
    for (int i = 1; i < 4; ++i)
        ASSERT_TRUE(file.AddSegment(&rp, folder.c_str(), i * 4096, i * 4096, 4096, nullptr));
    std::vector<std::vector<LogRecorder::Line>> lines;
    for (bool bySegment : {true, false}) {
        recorder.Clear();
        std::string out(65536, '\x5A');
        bool eof = false;
        int count = RedirectedFileReadProbe::Read(file, &rp, 0, &out[0], 65536, &eof, bySegment);
        EXPECT_EQ(4096, count);
        EXPECT_FALSE(eof);
        EXPECT_EQ(data.substr(0, 4096), out.substr(0, 4096));
        lines.push_back(recorder.Lines());
    }
    utilities.SetCallback(nullptr);
    ASSERT_EQ(1u, lines[0].size()) << recorder.Dump();
    EXPECT_NE(std::string::npos, lines[0][0].text.find("Is a directory")) << lines[0][0].text;
    EXPECT_EQ(lines[0], lines[1]);
}
