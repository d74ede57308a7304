#pragma once

#include <climits>
#include <string>
#include <unordered_map>
#include <vector>

#include "RuntimeParam.h"

class CUtilities;

// One range of a redirected file: iLength bytes at iOffset hold the bytes of
// source iSource from iFileOffset on. A source of -1 reads as zeros.
struct Segment {
    int iSource = -1;
    long long iFileOffset = 0;
    long long iOffset = 0;
    long long iLength = 0;
};

// Size of a segment in the info file: iSource, iFileOffset, iOffset and
// iLength, little-endian, no padding, no header before the first record.
constexpr int SEGMENT_RECORD_SIZE = 28;

// Cursor of a read. index -1 means no segment; otherwise the position in the
// in-memory list, or (info file) the found record's iOffset.
struct ProcSegment {
    long long index = -1;
    Segment segment;
};

// A record written at info-file position iFileOffset whose redirected-file
// offset iOffset is a multiple of the checkpoint spacing.
struct CheckPointSegment {
    long long iFileOffset = 0;
    long long iOffset = 0;
};

// Summary of a run of consecutive records (a leaf: SEGMENT_INDEX_FANOUT
// records; above it: that many runs of the level below), in record order.
// Nothing in the run covers or starts at an offset at or past iReach, and
// nothing starts below iMinOffset; iFirstMin is the position, inside the run,
// of the record (or run) that holds the first record starting at iMinOffset.
// bInOrder (leaves): the records start in non-decreasing order.
struct SegmentRunSummary {
    long long iMinOffset = 0;
    long long iReach = 0;
    int iFirstMin = 0;
    int bInOrder = 1;
};

// An index over a list of segment records, in memory: one summary per run of
// SEGMENT_INDEX_FANOUT records and a tree of summaries above them, so that
// it costs about a third of a byte per record while a lookup reads at most
// a run or two of records.
struct SegmentIndex {
    std::vector<std::vector<SegmentRunSummary>> vLevels;  // leaves first, a single root last
    long long iCount = 0;                                 // records summarised
    long long iLastOffset = 0;                            // iOffset of the last one
};

constexpr int SEGMENT_INDEX_FANOUT = 64;

// A virtual file of a declared size assembled from ranges of other local
// files. The segment list lives in an info file of fixed-size records, so
// that millions of segments cost no memory; lookups seek to an estimated
// record (one per segment-size block, corrected by checkpoints) and find the
// record that answers from there through an in-memory index of the records
// (rebuilt from the info file when the object did not write them itself).
// When the info file cannot be opened the segments are kept in memory
// instead, indexed the same way.
// No lock of its own: the owner must not run two operations at once.
class CRedirectedFile {
public:
    explicit CRedirectedFile(CUtilities* pUtilities);
    virtual ~CRedirectedFile();
    CRedirectedFile(const CRedirectedFile&) = delete;
    CRedirectedFile& operator=(const CRedirectedFile&) = delete;

    // pcInfoFile may be null (segments kept in memory). Sizes in MiB; zero or
    // negative keeps 32 MiB and 1024 MiB. The info file is neither created
    // nor emptied here.
    void Open(CRuntimeParam* pRuntimeParam, long long iSize, int iId, const char* pcInfoFile,
              int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB);
    // Acts once: forgets segments, sources and checkpoints and closes their
    // descriptors; the info file stays on disk.
    void Close(CRuntimeParam* pRuntimeParam);
    long long GetFileSize() const { return m_iSize; }

    // Up to iLen bytes at iSeek into pcBuf; *pbEof tells whether the read
    // reached the declared size. A read at or past the size returns 0.
    int Read(CRuntimeParam* pRuntimeParam, long long iSeek, char* pcBuf, unsigned int iLen, bool* pbEof);
    // False only when iOffset is at or past the size; pcStatus is not written.
    bool AddSegment(CRuntimeParam* pRuntimeParam, const char* pcSourcePath, long long iSrcFileOffset,
                    long long iOffset, long long iLength, char* pcStatus);
    // Write the assembled content, or a listing of the segments, into the
    // existing local file pcPath.
    void Export(CRuntimeParam* pRuntimeParam, const char* pcPath);
    void ExportInfo(CRuntimeParam* pRuntimeParam, const char* pcPath, bool bMergeRange);

    // Number of info-file records examined by segment lookups since the
    // file was built (for measurements).
    long long GetInfoFileRecordsRead() const { return m_iInfoFileRecordsRead; }
    // Read calls that segment lookups made on the info file, and the most
    // bytes that one lookup read (for measurements).
    long long GetInfoFileLookupReads() const { return m_iInfoFileLookupReads; }
    long long GetInfoFileLookupMaxBytes() const { return m_iInfoFileLookupMaxBytes; }
    // Read calls made on source files since the file was built (for
    // measurements).
    long long GetSourceReads() const { return m_iSourceReads; }

private:
    // Tests compare the indexed lookups with the plain scans.
    friend struct RedirectedFileLookupProbe;
    friend struct RedirectedFileReadProbe;

    void CreateCheckPointSegment(CRuntimeParam* pRuntimeParam, const Segment& segment);
    void GetSegment(CRuntimeParam* pRuntimeParam, long long iSeek, ProcSegment* pCursor);
    void GetNextSegment(CRuntimeParam* pRuntimeParam, ProcSegment* pCursor);
    int Read(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, long long iSeek, char* pcBuf, unsigned int iLen);
    // iLength bytes of source iSource (descriptor fd) from iSourcePosition
    // on, for the caller's buffer at iAt: pieces of consecutive segments
    // read with one call.
    struct JoinedRead {
        int iSource = -1;
        int fd = -1;
        long long iSourcePosition = 0;
        unsigned int iAt = 0;
        unsigned int iLength = 0;
    };
    // The inner read, piece by piece or (bCoalesce) with pieces that
    // continue each other in one source read together; *pbRedo tells that
    // a gathered read came back short and the result is not to be used.
    int ReadSegments(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, long long iSeek, char* pcBuf,
                     unsigned int iLen, bool bCoalesce, bool* pbRedo);
    // False when the gathered read did not come back whole or empty.
    bool ReadJoined(LogArgu* pLogArgu, char* pcBuf, const JoinedRead& run);
    int SourceIndex(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcSourcePath);
    const char* SourcePath(int iSource) const;
    // True when the whole record went in.
    bool WriteRecord(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, const Segment& segment);
    // True when the info file holds exactly the records this object wrote,
    // in non-decreasing order of iOffset (fd is left at an unknown position).
    bool InfoFileInOrder(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd);
    // The lookups without the index: the list from its start, the info file
    // from the estimated record to its end.
    void ScanCachedSegments(long long iSeek, ProcSegment* pCursor);
    void ScanInfoFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, long long iSeek, long long start,
                      ProcSegment* pCursor);
    // Info-file position of the estimated record for iSeek, or -1.
    long long EstimatedRecordPosition(long long iSeek) const;
    // Brings the info-file index up to the records of the file behind fd:
    // records appended since are read in; a file that is shorter, or another
    // file, is indexed again from its start. False when the file cannot be
    // examined.
    bool SyncFileIndex(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, bool* pbChanged = nullptr);
    // Drops the info-file index and the records kept from the file.
    void ForgetFileIndex();
    // The records [from, to) of the info file, from the run kept in memory
    // or read with the rest of their run of the index (one read of at most
    // SEGMENT_INDEX_FANOUT records, added to *pBytesRead); null when they
    // cannot be read.
    const Segment* LoadRecords(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, long long from, long long to,
                               long long* pBytesRead);
    // The record at info-file position iPosition; false past the end.
    bool RecordAt(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, long long iPosition, Segment* pSegment);
    // Lookup through the info-file index; false when it cannot answer (the
    // caller scans instead).
    bool LookUpInfoFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, long long iSeek, long long start,
                        ProcSegment* pCursor);

    // Descriptor access; descriptor -1 is a source of zeros.
    int OS_FileRead(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, void* pBuf, unsigned int iLen);
    int OS_FileWrite(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, const void* pBuf, unsigned int iLen);
    long long OS_FileSeek(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, long long iOffset, int iWhence);
    long long OS_FileTell(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd);
    int OS_FileReadAt(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, void* pBuf, unsigned int iLen,
                      long long iOffset);

    // The descriptors this file reads and writes (info file, sources, export
    // targets) come from the file service's shared cache, so that consecutive
    // reads of one source do not reopen it. Every access seeks first.
    int GetFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const std::string& sPath,
                      bool bAlwaysReadWrite);
    void CloseFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const std::string& sPath);

    long long m_iSize = 0;
    std::vector<std::string> m_vSource;
    std::vector<Segment> m_vAllCachedSegment;
    std::string m_sInfoFile;
    long long m_iInfoFileSegmentSize = 1LL << 25;
    long long m_iInfoFileCheckPointSize = 1LL << 30;
    std::vector<CheckPointSegment> m_vInfoFileCheckPoint;
    long long m_iPos = 0;
    CUtilities* m_pUtilities;
    int m_iId = 0;
    bool m_bClosed = false;

    // Index of each path in m_vSource, so that adding a segment does not
    // search the whole list.
    std::unordered_map<std::string, int> m_mSourceIndex;
    long long m_iInfoFileRecordsRead = 0;
    long long m_iInfoFileLookupReads = 0;
    long long m_iInfoFileLookupMaxBytes = 0;
    long long m_iSourceReads = 0;
    // Indexes of the in-memory list and of the info file's records. The
    // info-file index belongs to the file identified by m_iIndexedDevice and
    // m_iIndexedInode, and is trusted to grow only by appended records.
    SegmentIndex m_memoryIndex;
    SegmentIndex m_fileIndex;
    int m_iIndexedFd = -1;
    unsigned long long m_iIndexedDevice = 0;
    unsigned long long m_iIndexedInode = 0;
    // Checkpoints recorded in ascending iOffset (the usual case): the last
    // one at or below an offset is then found by a binary search.
    bool m_bCheckPointsAscending = true;
    // Lookups by the plain scans only, and the next segment read at the
    // descriptor's position (reference for comparisons).
    bool m_bPlainLookup = false;
    // Reads piece by piece, without joining the pieces of consecutive
    // segments (reference for comparisons).
    bool m_bReadBySegment = false;
    // The last run of info-file records read, from record m_iRunFirst on
    // (the info file only grows, so they stay what the file holds), and the
    // info-file position right after the record taken last, where
    // GetNextSegment goes on.
    std::vector<Segment> m_vRun;
    long long m_iRunFirst = 0;
    long long m_iNextRecordPosition = 0;
    // The last lookup answered from the info file (not the in-memory list).
    bool m_bCursorInFile = false;
    // What this object appended to the info file: its length in bytes, the
    // iOffset of the last record, and whether the records went in whole and
    // in non-decreasing order of iOffset. While that holds and the file is
    // no longer than that, a lookup that meets a record starting after the
    // offset can stop there: no later record starts nearer or covers it.
    long long m_iInfoFileWritten = 0;
    long long m_iLastRecordOffset = LLONG_MIN;
    bool m_bRecordsInOrder = true;
};
