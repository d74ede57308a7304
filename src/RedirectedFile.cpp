#include "RedirectedFile.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

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
    } else {
        OS_FileSeek(pRuntimeParam, &la, fd, 0, SEEK_END);
        // One record per piece, pieces cut at multiples of the segment size
        // so that each block of the redirected file has a record of its own.
        const long long blockSize = m_iInfoFileSegmentSize;
        Segment piece = segment;
        long long remaining = segment.iLength;
        auto writePiece = [&](long long length) {
            piece.iLength = length;
            CreateCheckPointSegment(pRuntimeParam, piece);
            WriteRecord(pRuntimeParam, &la, fd, piece);
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

void CRedirectedFile::WriteRecord(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int fd, const Segment& segment) {
    unsigned char record[SEGMENT_RECORD_SIZE];
    EncodeRecord(segment, record);
    int written = OS_FileWrite(pRuntimeParam, pLogArgu, fd, record, sizeof record);
    if (written > 0) m_iInfoFileWritten += written;
    if (written != SEGMENT_RECORD_SIZE || segment.iOffset < m_iLastRecordOffset) m_bRecordsInOrder = false;
    m_iLastRecordOffset = segment.iOffset;
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
    m_vInfoFileCheckPoint.push_back(checkPoint);
}

void CRedirectedFile::GetSegment(CRuntimeParam* pRuntimeParam, long long iSeek, ProcSegment* pCursor) {
    LogArgu la{"RedirectedFile.GetSegment"};
    pCursor->index = -1;
    // The answer is the first segment that covers iSeek. When none does, the
    // segment that starts nearest after iSeek is taken instead, so that a
    // read starting in a hole gives zeros up to it and then its bytes.
    int fd = GetFileHandle(pRuntimeParam, &la, m_sInfoFile, false);
    if (fd == -1) {
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
        return;
    }

    // Estimated record: one per block from the start, or from the last
    // checkpoint at or below iSeek.
    const long long blockSize = m_iInfoFileSegmentSize;
    long long start = -1;
    if (m_iInfoFileCheckPointSize <= iSeek) {
        for (auto cp = m_vInfoFileCheckPoint.rbegin(); cp != m_vInfoFileCheckPoint.rend(); ++cp) {
            if (cp->iOffset <= iSeek) {
                start = (iSeek - cp->iOffset) / blockSize * SEGMENT_RECORD_SIZE + cp->iFileOffset;
                break;
            }
        }
    }
    if (start < 0) start = iSeek / blockSize * SEGMENT_RECORD_SIZE;
    const bool inOrder = InfoFileInOrder(pRuntimeParam, &la, fd);
    if (start < 0 || OS_FileSeek(pRuntimeParam, &la, fd, start, SEEK_SET) < 0) return;

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
        int got = OS_FileRead(pRuntimeParam, &la, fd, buffer, wanted);
        if (got <= 0) break;
        int records = got / SEGMENT_RECORD_SIZE;
        for (int i = 0; i < records; ++i) {
            Segment s = DecodeRecord(buffer + i * SEGMENT_RECORD_SIZE);
            ++m_iInfoFileRecordsRead;
            long long after = position + (long long)(i + 1) * SEGMENT_RECORD_SIZE;
            if (Covers(s, iSeek)) {
                if (after != position + got) OS_FileSeek(pRuntimeParam, &la, fd, after, SEEK_SET);
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
        OS_FileSeek(pRuntimeParam, &la, fd, afterNext, SEEK_SET);
        pCursor->index = next.iOffset;
        pCursor->segment = next;
    }
}

void CRedirectedFile::GetNextSegment(CRuntimeParam* pRuntimeParam, ProcSegment* pCursor) {
    if (pCursor->index < 0) return;
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
    // The record after the one taken last, in info-file order.
    unsigned char record[SEGMENT_RECORD_SIZE];
    if (OS_FileRead(pRuntimeParam, &la, fd, record, sizeof record) != SEGMENT_RECORD_SIZE) {
        pCursor->index = -1;
        return;
    }
    ++m_iInfoFileRecordsRead;
    if (pCursor->index < LLONG_MAX) ++pCursor->index;
    pCursor->segment = DecodeRecord(record);
}

// ---- reading -------------------------------------------------------------------

int CRedirectedFile::Read(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, long long iSeek, char* pcBuf,
                         unsigned int iLen) {
    // A negative offset is an unsigned one past 2^63: beyond any size.
    if (iSeek < 0 || iSeek >= m_iSize) return -1;
    // The count must fit the result, and iSeek plus the count a position.
    unsigned long long limit = std::min<unsigned long long>(INT_MAX, (unsigned long long)(LLONG_MAX - iSeek));
    if (iLen > limit) iLen = (unsigned int)limit;

    bool logAccess = IsLogOn(pRuntimeParam, CRuntimeParam::LOG_FILE_ACCESS);
    long long p = iSeek;
    unsigned int f = 0;
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
        if (n > 0) {
            int fd = sourcePath ? GetFileHandle(pRuntimeParam, pLogArgu, sourcePath, false) : -1;
            if (OS_FileSeek(pRuntimeParam, pLogArgu, fd, sourcePosition, SEEK_SET) < 0) return (int)f;
            int got = OS_FileRead(pRuntimeParam, pLogArgu, fd, pcBuf + f, (unsigned int)n);
            if (got < 0) return (int)f;
            if (got == 0) {
                // The source ends before the segment does: its missing bytes
                // read as zeros, as a missing source does.
                memset(pcBuf + f, 0, (size_t)n);
                got = (int)n;
            }
            p += got;
            f += (unsigned int)got;
        }
        if (f >= iLen) break;
    }
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
