// Segment lookups of redirected files through the in-memory index against
// the plain scans they replace: for random layouts (in order, out of order,
// holes filled later, overlaps, splits at the segment size, records left by
// an earlier opening or appended from outside, with and without an info
// file) every lookup, the segments taken after it, and every read give
// exactly what the plain scan gives. And the cost: a lookup reads at most
// one run of records.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "RedirectedFile.h"
#include "TestSupport.h"
#include "Utilities.h"

// Reaches the lookups of a file and switches it between the index and the
// plain scans.
struct RedirectedFileLookupProbe {
    static ProcSegment Find(CRedirectedFile& file, CRuntimeParam* rp, long long seek, bool plain) {
        file.m_bPlainLookup = plain;
        ProcSegment cursor;
        file.GetSegment(rp, seek, &cursor);
        file.m_bPlainLookup = false;
        return cursor;
    }
    static void Next(CRedirectedFile& file, CRuntimeParam* rp, ProcSegment* cursor, bool plain) {
        file.m_bPlainLookup = plain;
        file.GetNextSegment(rp, cursor);
        file.m_bPlainLookup = false;
    }
    static int Read(CRedirectedFile& file, CRuntimeParam* rp, long long seek, char* buf, unsigned int len, bool* eof,
                    bool plain) {
        file.m_bPlainLookup = plain;
        int n = file.Read(rp, seek, buf, len, eof);
        file.m_bPlainLookup = false;
        return n;
    }
    static long long& Position(CRedirectedFile& file) { return file.m_iPos; }
};

namespace {

constexpr long long KiB = 1LL << 10;
constexpr long long MiB = 1LL << 20;
constexpr int SOURCE_COUNT = 3;
constexpr long long SOURCE_SIZE = 256 * KiB;

enum class Layout { InOrder, OutOfOrder, HolesFilledLater, Reopened, AppendedFromOutside };

std::string LittleEndian(unsigned long long v, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out.push_back((char)(v >> (8 * i)));
    return out;
}

bool Same(const ProcSegment& a, const ProcSegment& b) {
    return a.index == b.index &&
           (a.index < 0 || (a.segment.iSource == b.segment.iSource && a.segment.iFileOffset == b.segment.iFileOffset &&
                            a.segment.iOffset == b.segment.iOffset && a.segment.iLength == b.segment.iLength));
}

std::string Describe(const ProcSegment& c) {
    return "index=" + std::to_string(c.index) + " src=" + std::to_string(c.segment.iSource) +
           " fox=" + std::to_string(c.segment.iFileOffset) + " ox=" + std::to_string(c.segment.iOffset) +
           " len=" + std::to_string(c.segment.iLength);
}

class RedirectedIndex : public ::testing::TestWithParam<std::tuple<Layout, bool>> {
protected:
    RedirectedIndex() : rp("test", CRuntimeParam::LOG_ERROR) {
        info = dir / "disk.vmdk";
        WriteWholeFile(info, "");
        std::mt19937 gen(1);
        for (int k = 0; k < SOURCE_COUNT; ++k) {
            std::string data((size_t)SOURCE_SIZE, '\0');
            for (char& c : data) c = (char)(gen() & 0xff);
            sources.push_back(dir / ("source" + std::to_string(k)));
            WriteWholeFile(sources.back(), data);
        }
    }

    void Open(CRedirectedFile& file, long long size, bool useInfoFile) {
        // 1 MiB blocks and 4 MiB between checkpoints: many splits and
        // checkpoints in a small file.
        file.Open(&rp, size, 0, useInfoFile ? info.c_str() : nullptr, 1, 4);
    }

    // A segment at offset of random length: sometimes tiny, sometimes
    // across several blocks; from a random source (or none), sometimes
    // running past the source's end.
    void Add(CRedirectedFile& file, std::mt19937_64& gen, long long offset, long long length) {
        int pick = (int)(gen() % (SOURCE_COUNT + 1));
        const char* source = pick == SOURCE_COUNT ? nullptr : sources[(size_t)pick].c_str();
        long long fox = (long long)(gen() % (unsigned long long)SOURCE_SIZE);
        ASSERT_EQ(offset < fileSize, file.AddSegment(&rp, source, fox, offset, length, nullptr));
    }

    // Lengths around meanLength, a few tiny ones and a few across several
    // blocks.
    long long RandomLength(std::mt19937_64& gen) {
        unsigned long long roll = gen() % 100;
        if (roll < 15) return 1 + (long long)(gen() % 64);
        if (roll < 97) return 1 + (long long)(gen() % (unsigned long long)(2 * meanLength));
        return 1 + (long long)(gen() % (3 * MiB));
    }

    // Fills file with segments of the layout; the offsets where segments
    // start and end go to edges.
    void Build(CRedirectedFile& file, Layout layout, bool useInfoFile, std::mt19937_64& gen,
               std::vector<long long>& edges) {
        auto add = [&](long long offset, long long length) {
            Add(file, gen, offset, length);
            edges.push_back(offset);
            edges.push_back(offset + length);
        };
        auto inOrder = [&](long long from, long long to, int holePercent) {
            for (long long offset = from; offset < to;) {
                long long length = RandomLength(gen);
                if ((int)(gen() % 100) >= holePercent) add(offset, length);
                offset += length;
            }
        };
        switch (layout) {
            case Layout::InOrder:
                inOrder(0, fileSize, 20);
                break;
            case Layout::OutOfOrder:
                for (int i = 0; i < segmentCount; ++i)
                    add((long long)(gen() % (unsigned long long)fileSize), RandomLength(gen));
                break;
            case Layout::HolesFilledLater: {
                std::vector<std::pair<long long, long long>> holes;
                for (long long offset = 0; offset < fileSize;) {
                    long long length = RandomLength(gen);
                    if (gen() % 3 == 0) holes.push_back({offset, length});
                    else add(offset, length);
                    offset += length;
                }
                std::shuffle(holes.begin(), holes.end(), gen);
                for (size_t i = 0; i < holes.size() / 2; ++i) {
                    // Exactly the hole, or overlapping its neighbours.
                    long long grow = gen() % 2 ? 0 : (long long)(gen() % (64 * KiB));
                    add(std::max(0LL, holes[i].first - grow), holes[i].second + 2 * grow);
                }
                break;
            }
            case Layout::Reopened: {
                // Records of an earlier opening, then more from this one.
                if (useInfoFile) {
                    CRedirectedFile earlier(&utilities);
                    Open(earlier, fileSize, true);
                    for (long long offset = 0; offset < fileSize / 2;) {
                        long long length = RandomLength(gen);
                        if (gen() % 4 != 0) {
                            Add(earlier, gen, offset, length);
                            edges.push_back(offset);
                            edges.push_back(offset + length);
                        }
                        offset += length;
                    }
                }
                inOrder(fileSize / 4, fileSize, 30);
                break;
            }
            case Layout::AppendedFromOutside:
                inOrder(0, fileSize, 40);
                break;
        }
    }

    // Records appended to the info file by someone else.
    void AppendFromOutside(std::mt19937_64& gen, int count, std::vector<long long>& edges) {
        std::string bytes;
        for (int i = 0; i < count; ++i) {
            long long offset = (long long)(gen() % (unsigned long long)fileSize);
            long long length = RandomLength(gen);
            bytes += LittleEndian((unsigned int)(gen() % SOURCE_COUNT), 4) +
                     LittleEndian(gen() % (unsigned long long)SOURCE_SIZE, 8) + LittleEndian((unsigned long long)offset, 8) +
                     LittleEndian((unsigned long long)length, 8);
            edges.push_back(offset);
            edges.push_back(offset + length);
        }
        int fd = open(info.c_str(), O_WRONLY | O_APPEND);
        ASSERT_NE(-1, fd);
        ASSERT_EQ((ssize_t)bytes.size(), write(fd, bytes.data(), bytes.size()));
        close(fd);
    }

    // The lookup and the next few segments, through the index and plainly.
    void CompareLookup(CRedirectedFile& file, long long seek) {
        ProcSegment plain = RedirectedFileLookupProbe::Find(file, &rp, seek, true);
        std::vector<ProcSegment> plainRun = {plain};
        for (int i = 0; i < 3; ++i) {
            RedirectedFileLookupProbe::Next(file, &rp, &plain, true);
            plainRun.push_back(plain);
        }
        ProcSegment indexed = RedirectedFileLookupProbe::Find(file, &rp, seek, false);
        for (int i = 0; i < 4; ++i) {
            ASSERT_TRUE(Same(plainRun[(size_t)i], indexed))
                << "seek " << seek << " step " << i << ": plain " << Describe(plainRun[(size_t)i]) << ", indexed "
                << Describe(indexed);
            RedirectedFileLookupProbe::Next(file, &rp, &indexed, false);
        }
        ++lookups;
    }

    void CompareRead(CRedirectedFile& file, long long seek, unsigned int len) {
        std::vector<char> plainBuf(len + 1, 'P'), indexedBuf(len + 1, 'I');
        long long& position = RedirectedFileLookupProbe::Position(file);
        long long before = position;
        bool plainEof = false, indexedEof = false;
        int plainCount = RedirectedFileLookupProbe::Read(file, &rp, seek, plainBuf.data(), len, &plainEof, true);
        long long plainPosition = position;
        position = before;
        int indexedCount = RedirectedFileLookupProbe::Read(file, &rp, seek, indexedBuf.data(), len, &indexedEof, false);
        ASSERT_EQ(plainCount, indexedCount) << "seek " << seek << " len " << len;
        ASSERT_EQ(plainEof, indexedEof);
        ASSERT_EQ(plainPosition, position);
        ASSERT_TRUE(std::equal(plainBuf.begin(), plainBuf.begin() + std::max(plainCount, 0), indexedBuf.begin()))
            << "seek " << seek << " len " << len;
        ++reads;
    }

    void CompareEverywhere(CRedirectedFile& file, std::mt19937_64& gen, std::vector<long long>& edges) {
        std::vector<long long> seeks = {0, fileSize - 1};
        for (long long e : edges)
            for (long long d : {-1LL, 0LL, 1LL})
                if (e + d >= 0 && e + d < fileSize) seeks.push_back(e + d);
        for (int i = 0; i < 1500; ++i) seeks.push_back((long long)(gen() % (unsigned long long)fileSize));
        std::shuffle(seeks.begin(), seeks.end(), gen);
        if (seeks.size() > 6000) seeks.resize(6000);
        for (long long seek : seeks) {
            CompareLookup(file, seek);
            if (HasFatalFailure()) return;
        }
        for (int i = 0; i < 400; ++i) {
            long long seek = i % 4 == 0 ? seeks[(size_t)i % seeks.size()] : (long long)(gen() % (unsigned long long)fileSize);
            CompareRead(file, seek, 1 + (unsigned int)(gen() % (200 * KiB)));
            if (HasFatalFailure()) return;
        }
    }

    TempDir dir;
    CUtilities utilities;
    CRuntimeParam rp;
    std::string info;
    std::vector<std::string> sources;
    long long fileSize = 48 * MiB;
    long long meanLength = 16 * KiB;
    int segmentCount = 3000;
    long long lookups = 0, reads = 0;
};

}  // namespace

TEST_P(RedirectedIndex, LookupsAndReadsMatchThePlainScan) {
    Layout layout = std::get<0>(GetParam());
    bool useInfoFile = std::get<1>(GetParam());
    for (unsigned seed = 1; seed <= 4; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        WriteWholeFile(info, "");
        std::mt19937_64 gen(seed);
        // From a few hundred records to several thousand (three levels of
        // index runs).
        fileSize = (long long)(8 + gen() % 56) * MiB + (long long)(gen() % 4096);
        segmentCount = seed % 2 ? 300 : 6000;
        meanLength = fileSize / segmentCount;
        std::vector<long long> edges;
        CRedirectedFile file(&utilities);
        Open(file, fileSize, useInfoFile);
        Build(file, layout, useInfoFile, gen, edges);
        if (HasFatalFailure()) return;
        CompareEverywhere(file, gen, edges);
        if (HasFatalFailure()) return;
        if (layout == Layout::AppendedFromOutside && useInfoFile) {
            // Looked up once already; then records arrive from outside, and
            // segments from this object again.
            AppendFromOutside(gen, 40, edges);
            if (HasFatalFailure()) return;
            CompareEverywhere(file, gen, edges);
            for (int i = 0; i < 50; ++i) {
                long long offset = (long long)(gen() % (unsigned long long)fileSize);
                long long length = RandomLength(gen);
                Add(file, gen, offset, length);
                edges.push_back(offset);
                edges.push_back(offset + length);
            }
            CompareEverywhere(file, gen, edges);
            if (HasFatalFailure()) return;
        }
    }
    EXPECT_GT(lookups, 4 * 1500);
    EXPECT_EQ(4 * 400 * (layout == Layout::AppendedFromOutside && useInfoFile ? 3 : 1), reads);
}

std::string LayoutName(const ::testing::TestParamInfo<std::tuple<Layout, bool>>& info) {
    static const char* const names[] = {"InOrder", "OutOfOrder", "HolesFilledLater", "Reopened",
                                        "AppendedFromOutside"};
    return std::string(names[(int)std::get<0>(info.param)]) + (std::get<1>(info.param) ? "InfoFile" : "InMemory");
}

INSTANTIATE_TEST_SUITE_P(Layouts, RedirectedIndex,
                         ::testing::Combine(::testing::Values(Layout::InOrder, Layout::OutOfOrder,
                                                              Layout::HolesFilledLater, Layout::Reopened,
                                                              Layout::AppendedFromOutside),
                                            ::testing::Bool()),
                         LayoutName);

// Many small segments in order, several to a block: the estimate lies far
// before the answer, yet a lookup reads one run of records at most.
TEST(RedirectedIndexCost, ALookupReadsAtMostOneRunOfRecords) {
    TempDir dir;
    CUtilities utilities;
    CRuntimeParam rp("test", CRuntimeParam::LOG_ERROR);
    std::string info = dir / "disk.vmdk";
    WriteWholeFile(info, "");
    const long long size = 64LL << 30;
    CRedirectedFile file(&utilities);
    file.Open(&rp, size, 0, info.c_str(), 0, 0);
    std::mt19937_64 gen(3);
    long long offset = 0;
    int records = 0;
    while (offset < size && records < 40000) {
        long long length = 4 * KiB * (1 + (long long)(gen() % 256));
        if (gen() % 8 != 0) {  // one in eight is a hole
            ASSERT_TRUE(file.AddSegment(&rp, nullptr, 0, offset, length, nullptr));
            ++records;
        }
        offset += length;
    }
    ASSERT_GE((long long)ReadWholeFile(info).size(), 40000LL * 28);
    long long readsBefore = file.GetInfoFileLookupReads();
    const int lookups = 5000;
    for (int i = 0; i < lookups; ++i) {
        long long reads = file.GetInfoFileLookupReads();
        long long seek = (long long)(gen() % (unsigned long long)offset);
        ProcSegment cursor = RedirectedFileLookupProbe::Find(file, &rp, seek, false);
        EXPECT_LE(file.GetInfoFileLookupReads() - reads, 1);
        // The segment covers seek or starts after it.
        if (cursor.index >= 0) {
            EXPECT_GT(cursor.segment.iOffset + cursor.segment.iLength, seek);
        }
    }
    EXPECT_GT(file.GetInfoFileLookupReads() - readsBefore, lookups / 2);
    EXPECT_LE(file.GetInfoFileLookupMaxBytes(), 4096);
}

// Reopened: a new object on the same info file finds the segments of the
// earlier one through an index it builds from the file, and goes on adding.
TEST(RedirectedIndexCost, AFileOpenedAgainIndexesItsInfoFile) {
    TempDir dir;
    CUtilities utilities;
    CRuntimeParam rp("test", CRuntimeParam::LOG_ERROR);
    std::string info = dir / "disk.vmdk";
    WriteWholeFile(info, "");
    std::string source = dir / "source";
    std::string data(64 * KiB, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = (char)('a' + i % 23);
    WriteWholeFile(source, data);
    const long long size = 1LL << 30;
    {
        CRedirectedFile first(&utilities);
        first.Open(&rp, size, 0, info.c_str(), 0, 0);
        for (long long i = 0; i < 10000; ++i)
            ASSERT_TRUE(first.AddSegment(&rp, source.c_str(), (i % 16) * 4 * KiB, i * 8 * KiB, 4 * KiB, nullptr));
    }
    CRedirectedFile again(&utilities);
    again.Open(&rp, size, 0, info.c_str(), 0, 0);
    // Sources are known by the order in which segments name them: the
    // controller names the source again (one more segment, after the others).
    ASSERT_TRUE(again.AddSegment(&rp, source.c_str(), 0, 20000 * 8 * KiB, 4 * KiB, nullptr));
    // Segment 7000 (source bytes from 8 * 4 KiB on), read from its middle.
    std::string out(100, '\0');
    bool eof = false;
    long long readsBefore = again.GetInfoFileLookupReads();
    ASSERT_EQ(100, again.Read(&rp, 7000 * 8 * KiB + 10, &out[0], 100, &eof));
    EXPECT_EQ(data.substr(8 * 4 * KiB + 10, 100), out);
    EXPECT_EQ(1, again.GetInfoFileLookupReads() - readsBefore);
    // In the hole after it: zeros, then segment 7001.
    ASSERT_EQ(100, again.Read(&rp, 7000 * 8 * KiB + 4 * KiB + 4046, &out[0], 100, &eof));
    EXPECT_EQ(std::string(50, '\0') + data.substr(9 * 4 * KiB, 50), out);
}
