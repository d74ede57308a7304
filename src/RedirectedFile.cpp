#include "RedirectedFile.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <sys/stat.h>

#include "Utilities.h"

namespace {

bool IsLogOn(CRuntimeParam* rp, int bit) { return rp != nullptr && rp->IsLogEnabled(bit); }

// Offsets come from the controller and from the info file, which may be
// corrupt: sums that do not fit saturate (or wrap, for positions that are
// only handed to a seek) instead of overflowing.
long long SaturatedAdd(long long a, long long b) {
    long long r;
    if (__builtin_add_overflow(a, b, &r)) return b > 0 ? LLONG_MAX : LLONG_MIN;
    return r;
}

long long SaturatedSub(long long a, long long b) {
    long long r;
    if (__builtin_sub_overflow(a, b, &r)) return b < 0 ? LLONG_MAX : LLONG_MIN;
    return r;
}

long long WrappingAdd(long long a, long long b) {
    return (long long)((unsigned long long)a + (unsigned long long)b);
}

bool Covers(const Segment& s, long long iSeek) {
    return s.iOffset <= iSeek && SaturatedAdd(s.iOffset, s.iLength) > iSeek;
}

void PutLittleEndian(unsigned char* p, unsigned long long v, int bytes) {
    for (int i = 0; i < bytes; ++i) p[i] = (unsigned char)(v >> (8 * i));
}

unsigned long long GetLittleEndian(const unsigned char* p, int bytes) {
    unsigned long long v = 0;
    for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}

void EncodeRecord(const Segment& s, unsigned char* p) {
    PutLittleEndian(p, (unsigned int)s.iSource, 4);
    PutLittleEndian(p + 4, (unsigned long long)s.iFileOffset, 8);
    PutLittleEndian(p + 12, (unsigned long long)s.iOffset, 8);
    PutLittleEndian(p + 20, (unsigned long long)s.iLength, 8);
}

Segment DecodeRecord(const unsigned char* p) {
    Segment s;
    s.iSource = (int)(unsigned int)GetLittleEndian(p, 4);
    s.iFileOffset = (long long)GetLittleEndian(p + 4, 8);
    s.iOffset = (long long)GetLittleEndian(p + 12, 8);
    s.iLength = (long long)GetLittleEndian(p + 20, 8);
    return s;
}

void AppendFormat(std::string& out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void AppendFormat(std::string& out, const char* fmt, ...) {
    char line[512];
    va_list args;
    va_start(args, fmt);
    int n = vsnprintf(line, sizeof line, fmt, args);
    va_end(args);
    if (n < 0) return;
    if ((size_t)n < sizeof line) {
        out.append(line, (size_t)n);
        return;
    }
    // A long source path: format again into a buffer of the exact size.
    std::vector<char> big((size_t)n + 1);
    va_start(args, fmt);
    vsnprintf(big.data(), big.size(), fmt, args);
    va_end(args);
    out.append(big.data(), (size_t)n);
}

// Records read per read call of a lookup scan once the first record read
// did not cover the offset (kept on the stack).
constexpr int RECORDS_PER_SCAN_READ = 1024;
// Bytes per read while exporting, and the listing text gathered per write.
constexpr unsigned int EXPORT_CHUNK = 65536;

// The wording of this line is kept as it is, "%I64u" conversions included.
// The C library reads each "%I64u" as an unsigned int printed in a field of
// 64 characters (flag I, width 64), so the values are handed over as
// unsigned ints. Compilers that read I64 as a length modifier would warn,
// hence the formatting without the format check.
const char* const SEGMENT_ADDED_FORMAT = "[%s] Segment id=%d, fox=%I64u, ox=%I64u, len=%I64u";

void FormatUnchecked(char* out, size_t size, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vsnprintf(out, size, fmt, args);
    va_end(args);
}

// ---- segment index ----------------------------------------------------------

constexpr int INDEX_SHIFT = 6;  // log2 of SEGMENT_INDEX_FANOUT
static_assert((1 << INDEX_SHIFT) == SEGMENT_INDEX_FANOUT, "fan-out is a power of two");
// Records read per read call while the index takes in an info file.
constexpr long long INDEX_SYNC_RECORDS = 4096;

// Nothing of s covers or starts at an offset at or past this.
long long Reach(const Segment& s) {
    return std::max(SaturatedAdd(s.iOffset, s.iLength), SaturatedAdd(s.iOffset, 1));
}

// First record of a run of the given level, or LLONG_MAX past any record.
long long RunStart(long long run, size_t level) {
    size_t shift = INDEX_SHIFT * (level + 1);
    if (shift >= 62) return run == 0 ? 0 : LLONG_MAX;
    if (run > (LLONG_MAX >> shift)) return LLONG_MAX;
    return run << shift;
}

void IndexClear(SegmentIndex& index) {
    std::vector<std::vector<SegmentRunSummary>>().swap(index.vLevels);
    index.iCount = 0;
    index.iLastOffset = 0;
}

void IndexAppend(SegmentIndex& index, const Segment& s) {
    const long long k = index.iCount;
    const long long reach = Reach(s);
    if (index.vLevels.empty()) index.vLevels.emplace_back();
    for (size_t level = 0; level < index.vLevels.size(); ++level) {
        std::vector<SegmentRunSummary>& runs = index.vLevels[level];
        size_t shift = INDEX_SHIFT * level;
        long long run = shift + INDEX_SHIFT >= 62 ? 0 : k >> (shift + INDEX_SHIFT);
        int child = shift >= 62 ? 0 : (int)((k >> shift) & (SEGMENT_INDEX_FANOUT - 1));
        if ((size_t)run == runs.size()) {
            SegmentRunSummary summary;
            summary.iMinOffset = s.iOffset;
            summary.iReach = reach;
            summary.iFirstMin = child;
            runs.push_back(summary);
            continue;
        }
        SegmentRunSummary& summary = runs[(size_t)run];
        if (s.iOffset < summary.iMinOffset) {
            summary.iMinOffset = s.iOffset;
            summary.iFirstMin = child;
        }
        summary.iReach = std::max(summary.iReach, reach);
        if (level == 0 && s.iOffset < index.iLastOffset) summary.bInOrder = 0;
    }
    // A new root once the top level holds two runs.
    const std::vector<SegmentRunSummary>& top = index.vLevels.back();
    if (top.size() > 1) {
        SegmentRunSummary root = top[0];
        root.iFirstMin = 0;
        root.bInOrder = 1;
        if (top[1].iMinOffset < root.iMinOffset) {
            root.iMinOffset = top[1].iMinOffset;
            root.iFirstMin = 1;
        }
        root.iReach = std::max(root.iReach, top[1].iReach);
        index.vLevels.push_back({root});
    }
    index.iLastOffset = s.iOffset;
    ++index.iCount;
}

// Looks through records [k0, iCount) of an index for the first record that
// covers iSeek, else the first of those that start nearest after it: what a
// scan of the records from k0 on finds. Runs whose summaries rule them out
// are skipped; the records of the others come from load(from, to), which
// returns them (or null when they cannot be read).
template <typename Load>
class CIndexSearch {
public:
    CIndexSearch(const SegmentIndex& index, long long iSeek, long long k0, Load& load)
        : m_index(index), m_iSeek(iSeek), m_k0(k0), m_load(load) {}

    // False when records could not be loaded.
    bool Run() {
        if (m_index.vLevels.empty()) return true;
        size_t top = m_index.vLevels.size() - 1;
        for (size_t run = 0; run < m_index.vLevels[top].size(); ++run)
            if (Visit(top, (long long)run)) break;
        if (m_bFailed) return false;
        if (!m_bCover && m_bAfter && m_iAfterLevel >= 0) {
            // Known from a summary only: down to the record.
            long long run = m_iAfterRun;
            for (size_t level = (size_t)m_iAfterLevel; level > 0; --level)
                run = run * SEGMENT_INDEX_FANOUT + m_index.vLevels[level][(size_t)run].iFirstMin;
            m_iAfterRecord = run * SEGMENT_INDEX_FANOUT + m_index.vLevels[0][(size_t)run].iFirstMin;
        }
        return true;
    }

    // The answer: its position (-1 for none), whether it covers iSeek, and
    // the record when it was loaded.
    long long Found() const { return m_bCover ? m_iCover : m_bAfter ? m_iAfterRecord : -1; }
    const Segment* Record() const {
        if (m_bCover) return &m_cover;
        return m_bAfter && m_iAfterLevel < 0 ? &m_after : nullptr;
    }
    long long Examined() const { return m_iExamined; }
    bool FoundCover() const { return m_bCover; }

private:
    bool Visit(size_t level, long long run) {
        long long first = RunStart(run, level);
        long long end = std::min(m_index.iCount, RunStart(run + 1, level));
        if (end <= m_k0) return false;
        const SegmentRunSummary& summary = m_index.vLevels[level][(size_t)run];
        if (summary.iReach <= m_iSeek) return false;
        if (first >= m_k0 && summary.iMinOffset > m_iSeek) {
            if (!m_bAfter || summary.iMinOffset < m_iAfterOffset) {
                m_bAfter = true;
                m_iAfterOffset = summary.iMinOffset;
                m_iAfterLevel = (int)level;
                m_iAfterRun = run;
            }
            return false;
        }
        if (level > 0) {
            long long child = run * SEGMENT_INDEX_FANOUT;
            long long last = std::min<long long>(child + SEGMENT_INDEX_FANOUT, (long long)m_index.vLevels[level - 1].size());
            for (; child < last; ++child)
                if (Visit(level - 1, child)) return true;
            return false;
        }
        long long from = std::max(first, m_k0);
        const Segment* records = m_load(from, end);
        if (records == nullptr) {
            m_bFailed = true;
            return true;
        }
        for (long long k = from; k < end; ++k) {
            const Segment& s = records[k - from];
            ++m_iExamined;
            if (Covers(s, m_iSeek)) {
                m_bCover = true;
                m_iCover = k;
                m_cover = s;
                return true;
            }
            if (s.iOffset > m_iSeek) {
                if (!m_bAfter || s.iOffset < m_iAfterOffset) {
                    m_bAfter = true;
                    m_iAfterOffset = s.iOffset;
                    m_iAfterLevel = -1;
                    m_iAfterRecord = k;
                    m_after = s;
                }
                // Records in order: none further on starts nearer or covers.
                if (summary.bInOrder) break;
            }
        }
        return false;
    }

    const SegmentIndex& m_index;
    const long long m_iSeek;
    const long long m_k0;
    Load& m_load;
    bool m_bFailed = false;
    bool m_bCover = false;
    long long m_iCover = -1;
    Segment m_cover;
    bool m_bAfter = false;
    long long m_iAfterOffset = 0;
    int m_iAfterLevel = -1;  // >= 0: known from the summary of run m_iAfterRun
    long long m_iAfterRun = -1;
    long long m_iAfterRecord = -1;
    Segment m_after;
    long long m_iExamined = 0;
};

}  // namespace

CRedirectedFile::CRedirectedFile(CUtilities* pUtilities) : m_pUtilities(pUtilities) {}

CRedirectedFile::~CRedirectedFile() { Close(nullptr); }

void CRedirectedFile::Open(CRuntimeParam* pRuntimeParam, long long iSize, int iId, const char* pcInfoFile,
                           int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB) {
    m_iSize = iSize;
    m_iId = iId;
    if (pcInfoFile != nullptr) {
        m_sInfoFile = pcInfoFile;
        if (iInfoFileSegmentSizeMB > 0) m_iInfoFileSegmentSize = (long long)iInfoFileSegmentSizeMB << 20;
        if (iInfoFileCheckPointSizeMB > 0) m_iInfoFileCheckPointSize = (long long)iInfoFileCheckPointSizeMB << 20;
    }
    if (IsLogOn(pRuntimeParam, CRuntimeParam::LOG_REDIRECT_FILE))
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] id=%d, size=%llu (path=%s)", "RedirectedFile.Open", m_iId,
                              (unsigned long long)m_iSize, m_sInfoFile.c_str());
}

void CRedirectedFile::Close(CRuntimeParam* pRuntimeParam) {
    if (m_bClosed) return;
    m_bClosed = true;
    LogArgu la{"RedirectedFile.Close"};
    std::vector<Segment>().swap(m_vAllCachedSegment);
    CloseFileHandle(pRuntimeParam, &la, m_sInfoFile);
    m_sInfoFile.clear();
    std::vector<CheckPointSegment>().swap(m_vInfoFileCheckPoint);
    for (const std::string& source : m_vSource) CloseFileHandle(pRuntimeParam, &la, source);
    std::vector<std::string>().swap(m_vSource);
    m_mSourceIndex.clear();
    IndexClear(m_memoryIndex);
    ForgetFileIndex();
}

void CRedirectedFile::ForgetFileIndex() {
    IndexClear(m_fileIndex);
    m_iIndexedFd = -1;
    std::vector<Segment>().swap(m_vRun);
}

// ---- segments ----------------------------------------------------------------

int CRedirectedFile::SourceIndex(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcSourcePath) {
    bool log = IsLogOn(pRuntimeParam, CRuntimeParam::LOG_REDIRECT_FILE);
    if (pcSourcePath == nullptr || *pcSourcePath == '\0') {
        if (log) m_pUtilities->LogInfo(pRuntimeParam, "[%s] Reference src (%d): Null", pLogArgu->pcName, m_iId);
        return -1;
    }
    int index;
    auto found = m_mSourceIndex.find(pcSourcePath);
    if (found != m_mSourceIndex.end()) {
        index = found->second;
    } else {
        index = (int)m_vSource.size();
        m_vSource.emplace_back(pcSourcePath);
        m_mSourceIndex.emplace(m_vSource.back(), index);
    }
    // The number printed is the file's ID, not the source's index.
    if (log)
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Reference src (%d): %s", pLogArgu->pcName, m_iId, pcSourcePath);
    return index;
}

const char* CRedirectedFile::SourcePath(int iSource) const {
    if (iSource < 0 || (size_t)iSource >= m_vSource.size()) return nullptr;
    return m_vSource[(size_t)iSource].c_str();
}

bool CRedirectedFile::AddSegment(CRuntimeParam* pRuntimeParam, const char* pcSourcePath, long long iSrcFileOffset,
                                 long long iOffset, long long iLength, char* pcStatus) {
    (void)pcStatus;  // never written: the only failure is an offset past the end
    LogArgu la{"RedirectedFile.AddSegment"};
    int source = SourceIndex(pRuntimeParam, &la, pcSourcePath);
    if (iOffset >= m_iSize) return false;

    Segment segment;
    segment.iSource = source;
    segment.iFileOffset = iSrcFileOffset;
    segment.iOffset = iOffset;
    segment.iLength = iLength;
    // Nothing of the file lies before offset 0: a part there is dropped,
    // which also keeps a huge negative offset from asking for billions of
    // records.
    if (segment.iOffset < 0) {
        long long before = SaturatedSub(0, segment.iOffset);
        segment.iFileOffset = WrappingAdd(segment.iFileOffset, before);
        segment.iLength = std::max(0LL, SaturatedSub(segment.iLength, before));
        segment.iOffset = 0;
    }
    // Clipped to end at the size.
    long long room = m_iSize - segment.iOffset;
    if (segment.iLength > room) segment.iLength = room;

    int fd = GetFileHandle(pRuntimeParam, &la, m_sInfoFile, true);
    if (fd == -1) {
        m_vAllCachedSegment.push_back(segment);
        IndexAppend(m_memoryIndex, segment);
    } else {
        // The index takes the records written here as they go, once it holds
        // those already in the file.
        long long end = OS_FileSeek(pRuntimeParam, &la, fd, 0, SEEK_END);
        bool indexed = fd == m_iIndexedFd && end == m_fileIndex.iCount * SEGMENT_RECORD_SIZE;
        if (!indexed && SyncFileIndex(pRuntimeParam, &la, fd)) {
            end = OS_FileSeek(pRuntimeParam, &la, fd, 0, SEEK_END);
            indexed = end == m_fileIndex.iCount * SEGMENT_RECORD_SIZE;
        }
        // One record per piece, pieces cut at multiples of the segment size
        // so that each block of the redirected file has a record of its own.
        const long long blockSize = m_iInfoFileSegmentSize;
        Segment piece = segment;
        long long remaining = segment.iLength;
        auto writePiece = [&](long long length) {
            piece.iLength = length;
            CreateCheckPointSegment(pRuntimeParam, piece);
            if (WriteRecord(pRuntimeParam, &la, fd, piece) && indexed) {
                IndexAppend(m_fileIndex, piece);
            } else if (indexed) {
                // A record went in short: the records from here on lie off
                // their places. The next lookup indexes the file again.
                indexed = false;
                ForgetFileIndex();
            }
            piece.iFileOffset = WrappingAdd(piece.iFileOffset, length);
            piece.iOffset += length;
            remaining -= length;
        };
        long long intoBlock = ((segment.iOffset % blockSize) + blockSize) % blockSize;
        if (intoBlock != 0 && remaining > blockSize - intoBlock) writePiece(blockSize - intoBlock);
        while (remaining > blockSize) writePiece(blockSize);
        if (remaining > 0) writePiece(remaining);
    }

    if (IsLogOn(pRuntimeParam, CRuntimeParam::LOG_REDIRECT_FILE)) {
        char line[LOG_MESSAGE_SIZE];
        FormatUnchecked(line, sizeof line, SEGMENT_ADDED_FORMAT, la.pcName, m_iId, (unsigned int)iSrcFileOffset,
                        (unsigned int)iOffset, (unsigned int)segment.iLength);
        m_pUtilities->LogInfo(pRuntimeParam, "%s", line);
    }
    return true;
}

bool CRedirectedFile::WriteRecord(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, const Segment& segment) {
    unsigned char record[SEGMENT_RECORD_SIZE];
    EncodeRecord(segment, record);
    int written = OS_FileWrite(pRuntimeParam, pLogArgu, fd, record, sizeof record);
    if (written > 0) m_iInfoFileWritten += written;
    if (written != SEGMENT_RECORD_SIZE || segment.iOffset < m_iLastRecordOffset) m_bRecordsInOrder = false;
    m_iLastRecordOffset = segment.iOffset;
    return written == SEGMENT_RECORD_SIZE;
}

bool CRedirectedFile::InfoFileInOrder(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd) {
    // Records this object did not write (left from an earlier opening of the
    // same info file, or appended by someone else) can be in any order: the
    // file is then longer than what was written here.
    return m_bRecordsInOrder && OS_FileSeek(pRuntimeParam, pLogArgu, fd, 0, SEEK_END) == m_iInfoFileWritten;
}

void CRedirectedFile::CreateCheckPointSegment(CRuntimeParam* pRuntimeParam, const Segment& segment) {
    // The offset test comes first: it spares a descriptor lookup for every
    // record that is no checkpoint.
    if (segment.iOffset <= 0 || segment.iOffset % m_iInfoFileCheckPointSize != 0) return;
    LogArgu la{"RedirectedFile.CreateCheckPointSegment"};
    int fd = GetFileHandle(pRuntimeParam, &la, m_sInfoFile, false);
    if (fd == -1) return;
    long long position = OS_FileTell(pRuntimeParam, &la, fd);
    if (position < 0) return;
    CheckPointSegment checkPoint;
    checkPoint.iFileOffset = position;
    checkPoint.iOffset = segment.iOffset;
    if (!m_vInfoFileCheckPoint.empty() && checkPoint.iOffset < m_vInfoFileCheckPoint.back().iOffset)
        m_bCheckPointsAscending = false;
    m_vInfoFileCheckPoint.push_back(checkPoint);
}

void CRedirectedFile::GetSegment(CRuntimeParam* pRuntimeParam, long long iSeek, ProcSegment* pCursor) {
    LogArgu la{"RedirectedFile.GetSegment"};
    pCursor->index = -1;
    m_bCursorInFile = false;
    // The answer is the first segment that covers iSeek. When none does, the
    // segment that starts nearest after iSeek is taken instead, so that a
    // read starting in a hole gives zeros up to it and then its bytes.
    int fd = GetFileHandle(pRuntimeParam, &la, m_sInfoFile, false);
    if (fd == -1) {
        if (m_bPlainLookup) {
            ScanCachedSegments(iSeek, pCursor);
            return;
        }
        if (m_memoryIndex.iCount != (long long)m_vAllCachedSegment.size()) {
            IndexClear(m_memoryIndex);
            for (const Segment& s : m_vAllCachedSegment) IndexAppend(m_memoryIndex, s);
        }
        const Segment* list = m_vAllCachedSegment.data();
        auto load = [list](long long from, long long) { return list + from; };
        CIndexSearch<decltype(load)> search(m_memoryIndex, iSeek, 0, load);
        search.Run();
        long long found = search.Found();
        if (found >= 0) {
            pCursor->index = found;
            pCursor->segment = m_vAllCachedSegment[(size_t)found];
        }
        return;
    }
    // The records are read from the estimated one on: one per block from the
    // start, or from the last checkpoint at or below iSeek.
    long long start = EstimatedRecordPosition(iSeek);
    if (start < 0) return;
    m_bCursorInFile = true;
    if (!m_bPlainLookup && LookUpInfoFile(pRuntimeParam, &la, fd, iSeek, start, pCursor)) return;
    ScanInfoFile(pRuntimeParam, &la, fd, iSeek, start, pCursor);
}

long long CRedirectedFile::EstimatedRecordPosition(long long iSeek) const {
    const long long blockSize = m_iInfoFileSegmentSize;
    const std::vector<CheckPointSegment>& checkPoints = m_vInfoFileCheckPoint;
    long long start = -1;
    if (m_iInfoFileCheckPointSize <= iSeek && !checkPoints.empty()) {
        // The last recorded checkpoint at or below iSeek.
        const CheckPointSegment* found = nullptr;
        if (m_bCheckPointsAscending && !m_bPlainLookup) {
            auto above = std::upper_bound(checkPoints.begin(), checkPoints.end(), iSeek,
                                          [](long long seek, const CheckPointSegment& cp) { return seek < cp.iOffset; });
            if (above != checkPoints.begin()) found = &*(above - 1);
        } else {
            for (auto cp = checkPoints.rbegin(); cp != checkPoints.rend(); ++cp) {
                if (cp->iOffset <= iSeek) {
                    found = &*cp;
                    break;
                }
            }
        }
        if (found) start = (iSeek - found->iOffset) / blockSize * SEGMENT_RECORD_SIZE + found->iFileOffset;
    }
    if (start < 0) start = iSeek / blockSize * SEGMENT_RECORD_SIZE;
    return start;
}

void CRedirectedFile::ScanCachedSegments(long long iSeek, ProcSegment* pCursor) {
    long long next = -1;
    for (size_t i = 0; i < m_vAllCachedSegment.size(); ++i) {
        const Segment& s = m_vAllCachedSegment[i];
        if (Covers(s, iSeek)) {
            pCursor->index = (long long)i;
            pCursor->segment = s;
            return;
        }
        if (s.iOffset > iSeek && (next < 0 || s.iOffset < m_vAllCachedSegment[(size_t)next].iOffset))
            next = (long long)i;
    }
    if (next >= 0) {
        pCursor->index = next;
        pCursor->segment = m_vAllCachedSegment[(size_t)next];
    }
}

bool CRedirectedFile::SyncFileIndex(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, bool* pbChanged) {
    struct stat st;
    if (fstat(fd, &st) != 0) return false;
    const long long records = (long long)st.st_size / SEGMENT_RECORD_SIZE;
    bool sameFile = m_iIndexedFd != -1 && (unsigned long long)st.st_dev == m_iIndexedDevice &&
                    (unsigned long long)st.st_ino == m_iIndexedInode;
    bool changed = !sameFile || records != m_fileIndex.iCount;
    if (pbChanged) *pbChanged = changed;
    if (!sameFile || records < m_fileIndex.iCount) {
        ForgetFileIndex();
        m_iIndexedDevice = (unsigned long long)st.st_dev;
        m_iIndexedInode = (unsigned long long)st.st_ino;
    }
    m_iIndexedFd = fd;
    if (records == m_fileIndex.iCount) return true;
    // Records appended since, or the whole file of another opening.
    if (OS_FileSeek(pRuntimeParam, pLogArgu, fd, m_fileIndex.iCount * SEGMENT_RECORD_SIZE, SEEK_SET) < 0) return false;
    std::vector<unsigned char> buffer((size_t)(INDEX_SYNC_RECORDS * SEGMENT_RECORD_SIZE));
    while (m_fileIndex.iCount < records) {
        long long wanted = std::min(INDEX_SYNC_RECORDS, records - m_fileIndex.iCount);
        int got = OS_FileRead(pRuntimeParam, pLogArgu, fd, buffer.data(), (unsigned int)(wanted * SEGMENT_RECORD_SIZE));
        if (got <= 0) break;
        for (int i = 0; i + SEGMENT_RECORD_SIZE <= got; i += SEGMENT_RECORD_SIZE)
            IndexAppend(m_fileIndex, DecodeRecord(buffer.data() + i));
        if (got % SEGMENT_RECORD_SIZE != 0 &&
            OS_FileSeek(pRuntimeParam, pLogArgu, fd, m_fileIndex.iCount * SEGMENT_RECORD_SIZE, SEEK_SET) < 0)
            break;
    }
    return m_fileIndex.iCount == records;
}

bool CRedirectedFile::LookUpInfoFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, long long iSeek,
                                     long long start, ProcSegment* pCursor) {
    // An estimate off the record boundaries (a checkpoint taken while the
    // file held a partial record) reads records across them: scanned.
    if (start % SEGMENT_RECORD_SIZE != 0) return false;
    // Another descriptor may be another file.
    if (fd != m_iIndexedFd && !SyncFileIndex(pRuntimeParam, pLogArgu, fd)) return false;
    long long bytesRead = 0;
    auto load = [&](long long from, long long to) {
        return LoadRecords(pRuntimeParam, pLogArgu, fd, from, to, &bytesRead);
    };
    long long found = -1;
    Segment record;
    bool ok = true;
    for (int pass = 0; pass < 2 && ok; ++pass) {
        CIndexSearch<decltype(load)> search(m_fileIndex, iSeek, start / SEGMENT_RECORD_SIZE, load);
        ok = search.Run();
        m_iInfoFileRecordsRead += search.Examined();
        found = ok ? search.Found() : -1;
        if (found >= 0) {
            if (const Segment* loaded = search.Record()) {
                record = *loaded;
            } else {
                const Segment* one = load(found, found + 1);
                ok = one != nullptr;
                if (ok) record = *one;
                ++m_iInfoFileRecordsRead;
            }
        }
        // No record covers iSeek among those indexed: records appended
        // since by someone else might.
        bool changed = false;
        if (!ok || search.FoundCover() || pass > 0) break;
        ok = SyncFileIndex(pRuntimeParam, pLogArgu, fd, &changed);
        if (!changed) break;
    }
    m_iInfoFileLookupMaxBytes = std::max(m_iInfoFileLookupMaxBytes, bytesRead);
    if (!ok) {
        // The file changed under the index: taken in again next time.
        ForgetFileIndex();
        return false;
    }
    if (found < 0) return true;
    m_iNextRecordPosition = (found + 1) * SEGMENT_RECORD_SIZE;
    pCursor->index = record.iOffset;
    pCursor->segment = record;
    return true;
}

const Segment* CRedirectedFile::LoadRecords(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, long long from,
                                            long long to, long long* pBytesRead) {
    if (from >= m_iRunFirst && to <= m_iRunFirst + (long long)m_vRun.size()) return m_vRun.data() + (from - m_iRunFirst);
    // The whole run of the index that holds them.
    long long first = from - from % SEGMENT_INDEX_FANOUT;
    long long end = std::min(first + SEGMENT_INDEX_FANOUT, m_fileIndex.iCount);
    if (from < 0 || to > end || from >= to) return nullptr;
    unsigned char bytes[SEGMENT_INDEX_FANOUT * SEGMENT_RECORD_SIZE];
    unsigned int wanted = (unsigned int)(end - first) * SEGMENT_RECORD_SIZE;
    int got = OS_FileReadAt(pRuntimeParam, pLogArgu, fd, bytes, wanted, first * SEGMENT_RECORD_SIZE);
    ++m_iInfoFileLookupReads;
    *pBytesRead += std::max(got, 0);
    if (got != (int)wanted) return nullptr;
    m_vRun.resize((size_t)(end - first));
    for (size_t i = 0; i < m_vRun.size(); ++i) m_vRun[i] = DecodeRecord(bytes + i * SEGMENT_RECORD_SIZE);
    m_iRunFirst = first;
    return m_vRun.data() + (from - first);
}

bool CRedirectedFile::RecordAt(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, long long iPosition,
                               Segment* pSegment) {
    unsigned char bytes[SEGMENT_INDEX_FANOUT * SEGMENT_RECORD_SIZE];
    if (iPosition % SEGMENT_RECORD_SIZE != 0) {
        // Off the record boundaries (after a scan from such an estimate).
        if (OS_FileReadAt(pRuntimeParam, pLogArgu, fd, bytes, SEGMENT_RECORD_SIZE, iPosition) != SEGMENT_RECORD_SIZE)
            return false;
        *pSegment = DecodeRecord(bytes);
        return true;
    }
    long long k = iPosition / SEGMENT_RECORD_SIZE;
    if (k < m_iRunFirst || k >= m_iRunFirst + (long long)m_vRun.size()) {
        // The records from there on, as many as a run holds.
        int got = OS_FileReadAt(pRuntimeParam, pLogArgu, fd, bytes, sizeof bytes, iPosition);
        if (got < SEGMENT_RECORD_SIZE) return false;
        m_vRun.resize((size_t)(got / SEGMENT_RECORD_SIZE));
        for (size_t i = 0; i < m_vRun.size(); ++i) m_vRun[i] = DecodeRecord(bytes + i * SEGMENT_RECORD_SIZE);
        m_iRunFirst = k;
    }
    *pSegment = m_vRun[(size_t)(k - m_iRunFirst)];
    return true;
}

void CRedirectedFile::ScanInfoFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, long long iSeek,
                                   long long start, ProcSegment* pCursor) {
    const bool inOrder = InfoFileInOrder(pRuntimeParam, pLogArgu, fd);
    if (OS_FileSeek(pRuntimeParam, pLogArgu, fd, start, SEEK_SET) < 0) return;

    // Records are scanned forward to the end of the file: a segment added
    // later over a hole is found even though it lies out of order. When the
    // records are known to be in order, the first one that starts after
    // iSeek ends the scan with the same answer. The first read takes one
    // record (the usual hit), later ones many; the descriptor is left just
    // after the record taken, where GetNextSegment goes on.
    unsigned char buffer[RECORDS_PER_SCAN_READ * SEGMENT_RECORD_SIZE];
    unsigned int wanted = SEGMENT_RECORD_SIZE;
    long long position = start;  // info-file position of buffer[0]
    bool haveNext = false;
    Segment next;
    long long afterNext = 0;
    for (;;) {
        int got = OS_FileRead(pRuntimeParam, pLogArgu, fd, buffer, wanted);
        if (got <= 0) break;
        int records = got / SEGMENT_RECORD_SIZE;
        for (int i = 0; i < records; ++i) {
            Segment s = DecodeRecord(buffer + i * SEGMENT_RECORD_SIZE);
            ++m_iInfoFileRecordsRead;
            long long after = position + (long long)(i + 1) * SEGMENT_RECORD_SIZE;
            if (Covers(s, iSeek)) {
                if (after != position + got) OS_FileSeek(pRuntimeParam, pLogArgu, fd, after, SEEK_SET);
                m_iNextRecordPosition = after;
                pCursor->index = s.iOffset;
                pCursor->segment = s;
                return;
            }
            if (s.iOffset > iSeek && (!haveNext || s.iOffset < next.iOffset)) {
                haveNext = true;
                next = s;
                afterNext = after;
                if (inOrder) break;
            }
        }
        if (haveNext && inOrder) break;
        if ((unsigned int)got < wanted) break;  // end of the info file
        position += got;
        wanted = sizeof buffer;
    }
    if (haveNext) {
        OS_FileSeek(pRuntimeParam, pLogArgu, fd, afterNext, SEEK_SET);
        m_iNextRecordPosition = afterNext;
        pCursor->index = next.iOffset;
        pCursor->segment = next;
    }
}

void CRedirectedFile::GetNextSegment(CRuntimeParam* pRuntimeParam, ProcSegment* pCursor) {
    if (pCursor->index < 0) return;
    // Next to the record taken last, in the run read with it: the records
    // of the info file do not change once written.
    long long k = m_iNextRecordPosition / SEGMENT_RECORD_SIZE;
    if (!m_bPlainLookup && m_bCursorInFile && m_iNextRecordPosition % SEGMENT_RECORD_SIZE == 0 && k >= m_iRunFirst &&
        k < m_iRunFirst + (long long)m_vRun.size()) {
        m_iNextRecordPosition += SEGMENT_RECORD_SIZE;
        ++m_iInfoFileRecordsRead;
        if (pCursor->index < LLONG_MAX) ++pCursor->index;
        pCursor->segment = m_vRun[(size_t)(k - m_iRunFirst)];
        return;
    }
    LogArgu la{"RedirectedFile.GetNextSegment"};
    int fd = GetFileHandle(pRuntimeParam, &la, m_sInfoFile, false);
    if (fd == -1) {
        size_t next = (size_t)pCursor->index + 1;
        if (next < m_vAllCachedSegment.size()) {
            pCursor->index = (long long)next;
            pCursor->segment = m_vAllCachedSegment[next];
        } else {
            pCursor->index = -1;
        }
        return;
    }
    // The record after the one taken last, in info-file order: mostly from
    // the run of records read last.
    Segment next;
    if (m_bPlainLookup) {
        unsigned char record[SEGMENT_RECORD_SIZE];
        if (OS_FileRead(pRuntimeParam, &la, fd, record, sizeof record) != SEGMENT_RECORD_SIZE) {
            pCursor->index = -1;
            return;
        }
        next = DecodeRecord(record);
    } else {
        if (!RecordAt(pRuntimeParam, &la, fd, m_iNextRecordPosition, &next)) {
            pCursor->index = -1;
            return;
        }
        m_iNextRecordPosition += SEGMENT_RECORD_SIZE;
    }
    ++m_iInfoFileRecordsRead;
    if (pCursor->index < LLONG_MAX) ++pCursor->index;
    pCursor->segment = next;
}

// ---- reading -------------------------------------------------------------------

int CRedirectedFile::Read(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, long long iSeek, char* pcBuf,
                         unsigned int iLen) {
    // A negative offset is an unsigned one past 2^63: beyond any size.
    if (iSeek < 0 || iSeek >= m_iSize) return -1;
    // The count must fit the result, and iSeek plus the count a position.
    unsigned long long limit = std::min<unsigned long long>(INT_MAX, (unsigned long long)(LLONG_MAX - iSeek));
    if (iLen > limit) iLen = (unsigned int)limit;

    // Joined reads skip the per-segment descriptor lookups and read lines,
    // so they are left to reads that log none of them.
    bool coalesce = !m_bReadBySegment && !IsLogOn(pRuntimeParam, CRuntimeParam::LOG_FILE_ACCESS);
    if (coalesce) {
        bool redo = false;
        int count = ReadSegments(pRuntimeParam, pLogArgu, iSeek, pcBuf, iLen, true, &redo);
        if (!redo) return count;
    }
    return ReadSegments(pRuntimeParam, pLogArgu, iSeek, pcBuf, iLen, false, nullptr);
}

bool CRedirectedFile::ReadJoined(LogArgu* pLogArgu, char* pcBuf, const JoinedRead& run) {
    if (run.iLength == 0) return true;
    ++m_iSourceReads;
    // A failure is not logged here: the read piece by piece that follows it
    // logs what it meets.
    int got = OS_FileReadAt(nullptr, pLogArgu, run.fd, pcBuf + run.iAt, run.iLength, run.iSourcePosition);
    if (got == (int)run.iLength) return true;
    // Nothing at all: every piece would have read nothing and become zeros.
    if (got == 0) {
        memset(pcBuf + run.iAt, 0, run.iLength);
        return true;
    }
    // A source that ends inside the run, or an error: the pieces one by one
    // would go on differently from here.
    return false;
}

int CRedirectedFile::ReadSegments(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, long long iSeek, char* pcBuf,
                                  unsigned int iLen, bool bCoalesce, bool* pbRedo) {
    bool logAccess = IsLogOn(pRuntimeParam, CRuntimeParam::LOG_FILE_ACCESS);
    long long p = iSeek;
    unsigned int f = 0;
    // With bCoalesce, pieces that go on where the previous one stopped, in
    // the same source and in the buffer, are gathered into one read. The
    // gathered read comes back whole (or empty) whenever the pieces read one
    // by one would each have come back whole (or empty); otherwise *pbRedo
    // is set and the caller reads again piece by piece.
    JoinedRead run;
    auto flush = [&]() {
        bool whole = ReadJoined(pLogArgu, pcBuf, run);
        run.iLength = 0;
        if (!whole) *pbRedo = true;
        return whole;
    };
    ProcSegment cursor;
    GetSegment(pRuntimeParam, iSeek, &cursor);
    while (cursor.index >= 0) {
        const Segment segment = cursor.segment;
        if (segment.iOffset > p) {
            // Zeros up to the segment, never past the caller's buffer.
            unsigned int fill = (unsigned int)std::min<long long>(segment.iOffset - p, iLen - f);
            memset(pcBuf + f, 0, fill);
            if (logAccess)
                m_pUtilities->LogInfo(pRuntimeParam, "[%s] Fill missing segment len:%d", pLogArgu->pcName, (int)fill);
            p += fill;
            f += fill;
            if (f == iLen) break;
        }
        long long d = SaturatedSub(p, segment.iOffset);
        long long remaining = iLen - f;
        long long available = SaturatedSub(segment.iLength, d);
        long long n;
        if (available > remaining) {
            n = remaining;
        } else {
            n = std::max(available, 0LL);  // a segment that ends before p gives nothing
            GetNextSegment(pRuntimeParam, &cursor);
        }
        long long sourcePosition = WrappingAdd(segment.iFileOffset, d);
        const char* sourcePath = SourcePath(segment.iSource);
        if (logAccess)
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Segment (%d) path:%s, fox:%llu, len:%d (seek:%llu)",
                                  pLogArgu->pcName, m_iId, sourcePath ? sourcePath : "Null",
                                  (unsigned long long)iSeek, (int)n, (unsigned long long)sourcePosition);
        if (n > 0 && bCoalesce && sourcePath && run.iLength > 0 && run.iSource == segment.iSource &&
            run.iSourcePosition + run.iLength == sourcePosition && run.iAt + run.iLength == f) {
            run.iLength += (unsigned int)n;
            p += n;
            f += (unsigned int)n;
        } else if (n > 0) {
            // The gathered read goes first: opening another source may close
            // cached descriptors, the gathered one among them.
            if (bCoalesce && !flush()) return (int)f;
            int fd = sourcePath ? GetFileHandle(pRuntimeParam, pLogArgu, sourcePath, false) : -1;
            // A position that cannot be sought to stops the read.
            if (sourcePosition < 0) return (int)f;
            if (bCoalesce && fd != -1) {
                run = JoinedRead{segment.iSource, fd, sourcePosition, f, (unsigned int)n};
                p += n;
                f += (unsigned int)n;
            } else {
                if (fd != -1) ++m_iSourceReads;
                int got = OS_FileReadAt(pRuntimeParam, pLogArgu, fd, pcBuf + f, (unsigned int)n, sourcePosition);
                if (got < 0) return (int)f;
                if (got == 0) {
                    // The source ends before the segment does: its missing
                    // bytes read as zeros, as a missing source does.
                    memset(pcBuf + f, 0, (size_t)n);
                    got = (int)n;
                }
                p += got;
                f += (unsigned int)got;
            }
        }
        if (f >= iLen) break;
    }
    if (bCoalesce && !flush()) return (int)f;
    // No segment left: zeros up to the size, as far as the buffer goes.
    if (cursor.index < 0 && m_iPos < m_iSize) {
        long long fill = std::max(0LL, std::min<long long>(m_iSize - p, iLen - f));
        memset(pcBuf + f, 0, (size_t)fill);
        p += fill;
        f += (unsigned int)fill;
    }
    return (int)f;
}

int CRedirectedFile::Read(CRuntimeParam* pRuntimeParam, long long iSeek, char* pcBuf, unsigned int iLen,
                         bool* pbEof) {
    LogArgu la{"RedirectedFile.Read"};
    int count = Read(pRuntimeParam, &la, iSeek, pcBuf, iLen);
    // -1 means the offset lies at or past the size: the end.
    bool eof = true;
    if (count >= 0) {
        m_iPos = iSeek + count;
        eof = m_iPos >= m_iSize;
    }
    if (pbEof) *pbEof = eof;
    if (IsLogOn(pRuntimeParam, CRuntimeParam::LOG_FILE_ACCESS))
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Eof=%s, ox=%llu, size=%llu", la.pcName, eof ? "T" : "F",
                              (unsigned long long)m_iPos, (unsigned long long)m_iSize);
    if (eof && count == -1) return 0;
    return count;
}

// ---- exports -------------------------------------------------------------------

void CRedirectedFile::Export(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    LogArgu la{"RedirectedFile.Export"};
    bool log = IsLogOn(pRuntimeParam, CRuntimeParam::LOG_REDIRECT_FILE);
    const char* path = pcPath ? pcPath : "";
    int fd = GetFileHandle(pRuntimeParam, &la, path, false);
    if (fd == -1) {
        if (log) m_pUtilities->LogInfo(pRuntimeParam, "[%s] Content to file error: %s", la.pcName, path);
        return;
    }
    if (log) m_pUtilities->LogInfo(pRuntimeParam, "[%s] Content to file: %s (fid=%d)", la.pcName, path, fd);

    std::vector<char> buffer(EXPORT_CHUNK);
    long long offset = 0;
    bool lastWasEmpty = false;
    for (;;) {
        bool eof = false;
        int count = Read(pRuntimeParam, offset, buffer.data(), EXPORT_CHUNK, &eof);
        if (count < 0) break;
        int written = OS_FileWrite(pRuntimeParam, &la, fd, buffer.data(), (unsigned int)count);
        if (log)
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Write ox:%llu, r:%d, w:%d", la.pcName,
                                  (unsigned long long)offset, count, written);
        offset += count;
        if (eof) break;
        // One empty read can happen (the zero fill of a trailing hole waits
        // for a read that starts below the end); two in a row mean the
        // sources cannot be read and the export would never end.
        if (count == 0 && lastWasEmpty) break;
        lastWasEmpty = count == 0;
    }
}

void CRedirectedFile::ExportInfo(CRuntimeParam* pRuntimeParam, const char* pcPath, bool bMergeRange) {
    LogArgu la{"RedirectedFile.ExportInfo"};
    bool log = IsLogOn(pRuntimeParam, CRuntimeParam::LOG_REDIRECT_FILE);
    const char* path = pcPath ? pcPath : "";
    int fd = GetFileHandle(pRuntimeParam, &la, path, false);
    if (fd == -1) {
        if (log) m_pUtilities->LogInfo(pRuntimeParam, "[%s] Info to file error: %s", la.pcName, path);
        return;
    }
    if (log) m_pUtilities->LogInfo(pRuntimeParam, "[%s] Info to file: %s (fid=%d)", la.pcName, path, fd);

    // Lines are gathered and written in chunks; the file receives the same
    // text at the same place as with one write per line.
    std::string text;
    auto flush = [&](size_t atLeast) {
        if (text.size() < atLeast) return;
        size_t done = 0;
        while (done < text.size()) {
            int w = OS_FileWrite(pRuntimeParam, &la, fd, text.data() + done, (unsigned int)(text.size() - done));
            if (w <= 0) break;
            done += (size_t)w;
        }
        text.clear();
    };
    auto pathOf = [&](int iSource) {
        const char* p = SourcePath(iSource);
        return p ? p : "Null";
    };

    for (const CheckPointSegment& cp : m_vInfoFileCheckPoint) {
        AppendFormat(text, "--> CheckPoint Segment fox=%llu, ox=%llu\n", (unsigned long long)cp.iFileOffset,
                     (unsigned long long)cp.iOffset);
        flush(EXPORT_CHUNK);
    }
    if (!m_vInfoFileCheckPoint.empty()) text += "-------------------\n";

    auto appendMerged = [&](const Segment& s) {
        AppendFormat(text, "--> Merged Segment path=%s, fox=%llu, ox=%llu, len=%llu\n", pathOf(s.iSource),
                     (unsigned long long)s.iFileOffset, (unsigned long long)s.iOffset,
                     (unsigned long long)s.iLength);
    };
    bool haveKept = false;
    Segment kept;
    ProcSegment cursor;
    GetSegment(pRuntimeParam, 0, &cursor);
    while (cursor.index >= 0) {
        const Segment& s = cursor.segment;
        if (!bMergeRange) {
            AppendFormat(text, "Segment path=%s, fox=%llu, ox=%llu, len=%llu\n", pathOf(s.iSource),
                         (unsigned long long)s.iFileOffset, (unsigned long long)s.iOffset,
                         (unsigned long long)s.iLength);
        } else if (!haveKept) {
            kept = s;
            haveKept = true;
        } else if (s.iSource == kept.iSource) {
            // Joined without checking that the ranges touch.
            kept.iLength = WrappingAdd(kept.iLength, s.iLength);
        } else {
            appendMerged(kept);
            kept = s;
        }
        flush(EXPORT_CHUNK);
        GetNextSegment(pRuntimeParam, &cursor);
    }
    if (haveKept) appendMerged(kept);
    flush(0);
}

// ---- descriptors ---------------------------------------------------------------

int CRedirectedFile::OS_FileRead(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, void* pBuf,
                                 unsigned int iLen) {
    if (fd == -1) {
        memset(pBuf, 0, iLen);
        return (int)iLen;
    }
    return m_pUtilities->OS_FileRead(pRuntimeParam, pLogArgu, fd, pBuf, iLen, nullptr);
}

int CRedirectedFile::OS_FileWrite(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, const void* pBuf,
                                  unsigned int iLen) {
    return m_pUtilities->OS_FileWrite(pRuntimeParam, pLogArgu, fd, pBuf, iLen, nullptr);
}

long long CRedirectedFile::OS_FileSeek(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, long long iOffset,
                                       int iWhence) {
    if (fd == -1) return iOffset;
    return m_pUtilities->OS_FileSeek(pRuntimeParam, pLogArgu, fd, iOffset, iWhence, nullptr);
}

int CRedirectedFile::OS_FileReadAt(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, void* pBuf,
                                   unsigned int iLen, long long iOffset) {
    if (fd == -1) {
        memset(pBuf, 0, iLen);
        return (int)iLen;
    }
    return m_pUtilities->OS_FileReadAt(pRuntimeParam, pLogArgu, fd, pBuf, iLen, iOffset, nullptr);
}

long long CRedirectedFile::OS_FileTell(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd) {
    return m_pUtilities->OS_FileTell(pRuntimeParam, pLogArgu, fd, nullptr);
}

int CRedirectedFile::GetFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const std::string& sPath,
                                   bool bAlwaysReadWrite) {
    return m_pUtilities->GetCachedFileHandle(pRuntimeParam, pLogArgu, sPath.c_str(), bAlwaysReadWrite);
}

void CRedirectedFile::CloseFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const std::string& sPath) {
    m_pUtilities->CloseCachedFileHandle(pRuntimeParam, pLogArgu, sPath.c_str());
}
