// Lookups of a redirected file's info file that start in a hole: when the
// records went in in order, the lookup stops at the first record past the
// offset instead of reading the info file to its end, with the same answer;
// records out of order, left from an earlier opening or appended by someone
// else are still found.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "RedirectedFile.h"
#include "TestSupport.h"
#include "Utilities.h"

namespace {

constexpr long long KiB = 1LL << 10;
constexpr long long MiB = 1LL << 20;
constexpr long long SIZE = 16 * MiB;
constexpr long long SLOT = 64 * KiB;  // each slot: a 32 KiB segment, then a hole

std::string LittleEndian(unsigned long long v, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out.push_back((char)(v >> (8 * i)));
    return out;
}

class RedirectedLookup : public ::testing::Test {
protected:
    RedirectedLookup() : rp("test", CRuntimeParam::LOG_ERROR) {
        info = dir / "disk.vmdk";
        WriteWholeFile(info, "");
        source = dir / "source";
        // 4 KiB pages of one letter each, the letters in turn.
        for (long long page = 0; page < SIZE / 2 / 4096; ++page) sourceData.append(4096, (char)('a' + page % 26));
        WriteWholeFile(source, sourceData);
    }

    // 1 MiB blocks, so that every block holds sixteen records.
    void Open(CRedirectedFile& file) { file.Open(&rp, SIZE, 0, info.c_str(), 1, 1024); }

    // Slot i: SLOT/2 bytes of the source from i*SLOT/2 on.
    void AddSlot(CRedirectedFile& file, long long i) {
        ASSERT_TRUE(file.AddSegment(&rp, source.c_str(), i * SLOT / 2, i * SLOT, SLOT / 2, nullptr));
    }

    std::string Read(CRedirectedFile& file, long long seek, unsigned int len) {
        std::string out(len, '\x5A');
        bool eof = false;
        int n = file.Read(&rp, seek, &out[0], len, &eof);
        EXPECT_EQ((int)len, n);
        return out;
    }

    // The n bytes at seek of a file whose filled slots hold their segments.
    std::string Expected(long long seek, unsigned int n, const std::vector<long long>& filled) {
        std::string out((size_t)n, '\0');
        for (long long i : filled) {
            long long begin = std::max(seek, i * SLOT), end = std::min(seek + (long long)n, i * SLOT + SLOT / 2);
            if (begin < end)
                out.replace((size_t)(begin - seek), (size_t)(end - begin), sourceData,
                            (size_t)(i * SLOT / 2 + begin - i * SLOT), (size_t)(end - begin));
        }
        return out;
    }

    TempDir dir;
    CUtilities utilities;
    CRuntimeParam rp;
    std::string info, source, sourceData;
};

}  // namespace

TEST_F(RedirectedLookup, AReadInAHoleOfRecordsInOrderStopsAtTheNextRecord) {
    CRedirectedFile file(&utilities);
    Open(file);
    std::vector<long long> filled;
    for (long long i = 0; i < SIZE / SLOT; ++i) {
        AddSlot(file, i);
        filled.push_back(i);
    }
    // 256 records. A read that starts in the hole of slot 3 and runs into
    // slot 4: zeros, then slot 4's bytes.
    long long seek = 3 * SLOT + SLOT / 2 + 100;
    long long before = file.GetInfoFileRecordsRead();
    EXPECT_EQ(Expected(seek, 50000, filled), Read(file, seek, 50000));
    // The lookup read the records of slots 0 to 4 (the estimate for block
    // 0 is the first record) and stopped there, not at the 256th.
    EXPECT_LE(file.GetInfoFileRecordsRead() - before, 5);
}

TEST_F(RedirectedLookup, ASegmentAddedOutOfOrderOverAHoleIsStillFound) {
    CRedirectedFile file(&utilities);
    Open(file);
    std::vector<long long> filled;
    for (long long i = 0; i < SIZE / SLOT; ++i) {
        if (i == 10) continue;
        AddSlot(file, i);
        filled.push_back(i);
    }
    AddSlot(file, 10);  // last in the info file, over the hole left in slot 10
    filled.push_back(10);
    // The read runs into slot 10's own hole: the records after slot 10's
    // are taken in info-file order, and there are none.
    long long seek = 9 * SLOT + SLOT / 2 + 7;
    long long before = file.GetInfoFileRecordsRead();
    EXPECT_EQ(Expected(seek, 90000, filled), Read(file, seek, 90000));
    // The index points at it: no scan to the end of the info file.
    EXPECT_LE(file.GetInfoFileRecordsRead() - before, SEGMENT_INDEX_FANOUT);
}

TEST_F(RedirectedLookup, RecordsLeftByAnEarlierOpeningAreStillFound) {
    {
        CRedirectedFile first(&utilities);
        Open(first);
        AddSlot(first, 30);
    }
    CRedirectedFile file(&utilities);
    Open(file);
    std::vector<long long> filled = {30};
    for (long long i = 0; i < 30; ++i) {
        AddSlot(file, i);
        filled.push_back(i);
    }
    ASSERT_EQ(31 * 28, (long long)ReadWholeFile(info).size());
    // The old record of slot 30 comes first in the info file; from the hole
    // of slot 1 the nearest record is still slot 2's, further on.
    long long seek = SLOT + SLOT / 2 + 3;
    EXPECT_EQ(Expected(seek, 150000, filled), Read(file, seek, 150000));
}

TEST_F(RedirectedLookup, ARecordAppendedBySomeoneElseIsStillFound) {
    CRedirectedFile file(&utilities);
    Open(file);
    std::vector<long long> filled;
    for (long long i = 0; i < 100; ++i) {
        if (i == 50) continue;
        AddSlot(file, i);
        filled.push_back(i);
    }
    // Slot 50 appended to the info file from outside.
    int fd = open(info.c_str(), O_WRONLY | O_APPEND);
    ASSERT_NE(-1, fd);
    std::string record = LittleEndian(0, 4) + LittleEndian((unsigned long long)(50 * SLOT / 2), 8) +
                         LittleEndian((unsigned long long)(50 * SLOT), 8) + LittleEndian(SLOT / 2, 8);
    ASSERT_EQ(28, write(fd, record.data(), record.size()));
    close(fd);
    filled.push_back(50);
    long long seek = 49 * SLOT + SLOT / 2 + 1;
    EXPECT_EQ(Expected(seek, 90000, filled), Read(file, seek, 90000));
}
