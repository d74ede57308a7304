#include "Utilities.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "FileLogger.h"

namespace {

const char* NameOf(const LogArgu* la) { return la && la->pcName ? la->pcName : ""; }

void CopyText(char* dst, const char* src, size_t size) {
    if (dst == nullptr || size == 0) return;
    size_t n = strnlen(src, size - 1);
    memmove(dst, src, n);
    dst[n] = '\0';
}

}  // namespace

CUtilities::CUtilities() { RenewHandleVerifier(); }

CUtilities::~CUtilities() {
    // The files close their descriptors through the cache: first them.
    CloseAllRedirectedFiles(nullptr);
    std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
    for (auto& row : m_OpenedFileHandles) {
        if (row.second.iFile != -1) close(row.second.iFile);
    }
}

// ---- log routing -----------------------------------------------------------

#define FORMAT_AND_CALL(slot)                          \
    char text[LOG_MESSAGE_SIZE];                       \
    va_list args;                                      \
    va_start(args, fmt);                               \
    vsnprintf(text, sizeof text, fmt, args);           \
    va_end(args);                                      \
    slot(rp, text)

void CUtilities::LogInfo(CRuntimeParam* rp, const char* fmt, ...) { FORMAT_AND_CALL(LogInfo); }
void CUtilities::LogError(CRuntimeParam* rp, const char* fmt, ...) { FORMAT_AND_CALL(LogError); }
void CUtilities::LogRaw(CRuntimeParam* rp, const char* fmt, ...) { FORMAT_AND_CALL(LogRaw); }

#undef FORMAT_AND_CALL

static const char* IdOf(CRuntimeParam* rp) { return rp ? rp->GetID() : ""; }

void CUtilities::LogInfo(CRuntimeParam* rp, char* text) { LogInfo(IdOf(rp), text); }
void CUtilities::LogError(CRuntimeParam* rp, char* text) { LogError(IdOf(rp), text); }
void CUtilities::LogRaw(CRuntimeParam* rp, char* text) { LogRaw(IdOf(rp), text); }

void CUtilities::LogInfo(const char* id, char* text) {
    ICallback* callback = m_pCallback.load();
    if (callback && callback->LogInfo(id, text)) return;
    if (m_pFileLogger && m_pFileLogger->LogInfo(text)) return;
    fprintf(stdout, "[info] (%s) %s\n", id, text);
    fflush(stdout);
}

void CUtilities::LogError(const char* id, char* text) {
    ICallback* callback = m_pCallback.load();
    if (callback && callback->LogError(id, text)) return;
    if (m_pFileLogger && m_pFileLogger->LogError(text)) return;
    fprintf(stdout, "[erro] (%s) %s\n", id, text);
    fflush(stdout);
}

void CUtilities::LogRaw(const char* id, char* text) {
    ICallback* callback = m_pCallback.load();
    if (callback && callback->LogRaw(id, text)) return;
    if (m_pFileLogger && m_pFileLogger->LogRaw(text)) return;
    fprintf(stdout, "%s", text);
    fflush(stdout);
}

int CUtilities::LogUpdateRedirectedFileAttributes(CRuntimeParam* rp, const char* pcPath, bool bSize,
                                                  unsigned long long iSize, bool bAccessTime,
                                                  unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                                  unsigned long lLastModifiedTimeSec) {
    return UpdateRedirectedFileAttributes(IdOf(rp), pcPath, bSize, iSize, bAccessTime, lAccessTimeSec,
                                          bLastModifiedTime, lLastModifiedTimeSec);
}

int CUtilities::LogRemoveRedirectedFile(CRuntimeParam* rp, const char* pcPath) {
    return RemoveRedirectedFile(IdOf(rp), pcPath);
}

int CUtilities::LogRenameRedirectedFile(CRuntimeParam* rp, const char* pcPathFm, const char* pcPathTo) {
    return RenameRedirectedFile(IdOf(rp), pcPathFm, pcPathTo);
}

int CUtilities::LogWriteRedirectedFile(CRuntimeParam* rp, const char* pcPath, unsigned long long iSeek,
                                       int iSeekType, unsigned int iLen) {
    return WriteRedirectedFile(IdOf(rp), pcPath, iSeek, iSeekType, iLen);
}

int CUtilities::UpdateRedirectedFileAttributes(const char* id, const char* pcPath, bool bSize,
                                               unsigned long long iSize, bool bAccessTime,
                                               unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                               unsigned long lLastModifiedTimeSec) {
    ICallback* callback = m_pCallback.load();
    if (!callback) return -1;
    return callback->UpdateRedirectedFileAttributes(id, pcPath, bSize, iSize, bAccessTime, lAccessTimeSec,
                                                    bLastModifiedTime, lLastModifiedTimeSec);
}

int CUtilities::RemoveRedirectedFile(const char* id, const char* pcPath) {
    ICallback* callback = m_pCallback.load();
    return callback ? callback->RemoveRedirectedFile(id, pcPath) : -1;
}

int CUtilities::RenameRedirectedFile(const char* id, const char* pcPathFm, const char* pcPathTo) {
    ICallback* callback = m_pCallback.load();
    return callback ? callback->RenameRedirectedFile(id, pcPathFm, pcPathTo) : -1;
}

int CUtilities::WriteRedirectedFile(const char* id, const char* pcPath, unsigned long long iSeek, int iSeekType,
                                    unsigned int iLen) {
    ICallback* callback = m_pCallback.load();
    return callback ? callback->WriteRedirectedFile(id, pcPath, iSeek, iSeekType, iLen) : -1;
}

void CUtilities::GetLastErrorText(char* buffer, int errnum, size_t size) {
    const char* text = strerrordesc_np(errnum);
    if (buffer == nullptr || text == nullptr || size == 0) return;
    snprintf(buffer, size, "%s (%d)", text, errnum);
}

// ---- OS file primitives ----------------------------------------------------

// Reports one system call: the failure line with the error text (also copied
// to err) when result is -1, else the success line. fmt forms the subject
// that both lines share.
long long CUtilities::ReportCall(CRuntimeParam* rp, long long result, int errnum, const char* errText, char* err,
                                 const char* fmt, ...) {
    bool failed = result == -1;
    char ownText[256] = "";
    if (failed && errText == nullptr) {
        GetLastErrorText(ownText, errnum, sizeof ownText);
        errText = ownText;
    }
    if (failed) CopyText(err, errText, ERROR_TEXT_SIZE);
    if (rp == nullptr || !(failed ? rp->IsLogError() : rp->IsLogFileAccess())) return result;

    char subject[LOG_MESSAGE_SIZE];
    va_list args;
    va_start(args, fmt);
    vsnprintf(subject, sizeof subject, fmt, args);
    va_end(args);
    if (failed)
        LogError(rp, "%s. Error=%s", subject, errText);
    else
        LogInfo(rp, "%s", subject);
    return result;
}

static const char* const BAD_DESCRIPTOR = "Bad file descriptor";

int CUtilities::OS_FileCreate(CRuntimeParam* rp, LogArgu* la, const char* path, char* err, int flags) {
    int fd = open(path, O_RDWR | O_CREAT | flags, 0666);
    int e = errno;
    ReportCall(rp, fd, e, nullptr, err, "[%s] OS create file \"%s\"", NameOf(la), path);
    errno = e;  // the caller may retry out of descriptors
    return fd;
}

int CUtilities::OS_FileRemove(CRuntimeParam* rp, LogArgu* la, const char* path, char* err) {
    int r = remove(path);
    int e = errno;
    return (int)ReportCall(rp, r, e, nullptr, err, "[%s] OS remove file \"%s\"", NameOf(la), path);
}

int CUtilities::OS_FileRename(CRuntimeParam* rp, LogArgu* la, const char* pathOld, const char* pathNew,
                              char* err) {
    int r = rename(pathOld, pathNew);
    int e = errno;
    return (int)ReportCall(rp, r, e, nullptr, err, "[%s] OS rename file from \"%s\" to \"%s\"", NameOf(la),
                           pathOld, pathNew);
}

int CUtilities::OS_FileOpen(CRuntimeParam* rp, LogArgu* la, const char* path, int flags, bool retry, char* err) {
    int fd = open(path, flags);
    int e = errno;
    ReportCall(rp, fd, e, nullptr, err, "[%s] OS open file \"%s\"", NameOf(la), path);
    if (fd == -1 && e == EMFILE && retry) {
        CloseExceededCachedFileHandle(rp, la);
        return OS_FileOpen(rp, la, path, flags, false, err);
    }
    return fd;
}

int CUtilities::OS_FileClose(CRuntimeParam* rp, LogArgu* la, const char* path, int fd, char* err) {
    if (fd == -1) return (int)ReportCall(rp, -1, 0, BAD_DESCRIPTOR, err, "[%s] OS close file \"%s\"", NameOf(la), path);
    int r = close(fd);
    int e = errno;
    return (int)ReportCall(rp, r, e, nullptr, err, "[%s] OS close file \"%s\"", NameOf(la), path);
}

int CUtilities::OS_FileRead(CRuntimeParam* rp, LogArgu* la, int fd, void* buf, unsigned int len, char* err) {
    if (fd == -1) return (int)ReportCall(rp, -1, 0, BAD_DESCRIPTOR, err, "[%s] OS read file (%d)", NameOf(la), fd);
    ssize_t r = read(fd, buf, len);
    int e = errno;
    return (int)ReportCall(rp, r, e, nullptr, err, "[%s] OS read file (%d)", NameOf(la), fd);
}

int CUtilities::OS_FileWrite(CRuntimeParam* rp, LogArgu* la, int fd, const void* buf, unsigned int len, char* err) {
    if (fd == -1) return (int)ReportCall(rp, -1, 0, BAD_DESCRIPTOR, err, "[%s] OS write file (%d)", NameOf(la), fd);
    ssize_t r = write(fd, buf, len);
    int e = errno;
    return (int)ReportCall(rp, r, e, nullptr, err, "[%s] OS write file (%d)", NameOf(la), fd);
}

long long CUtilities::OS_FileSeek(CRuntimeParam* rp, LogArgu* la, int fd, long long offset, int whence, char* err) {
    if (fd == -1) return ReportCall(rp, -1, 0, BAD_DESCRIPTOR, err, "[%s] OS seek file (%d)", NameOf(la), fd);
    off64_t r = lseek64(fd, offset, whence);
    int e = errno;
    return ReportCall(rp, r, e, nullptr, err, "[%s] OS seek file (%d)", NameOf(la), fd);
}

int CUtilities::OS_FileReadAt(CRuntimeParam* rp, LogArgu* la, int fd, void* buf, unsigned int len, long long offset,
                              char* err) {
    if (fd == -1) return (int)ReportCall(rp, -1, 0, BAD_DESCRIPTOR, err, "[%s] OS read file (%d)", NameOf(la), fd);
    ssize_t r = pread64(fd, buf, len, offset);
    int e = errno;
    return (int)ReportCall(rp, r, e, nullptr, err, "[%s] OS read file (%d) at %lld", NameOf(la), fd, offset);
}

int CUtilities::OS_FileWriteAt(CRuntimeParam* rp, LogArgu* la, int fd, const void* buf, unsigned int len,
                               long long offset, char* err) {
    if (fd == -1) return (int)ReportCall(rp, -1, 0, BAD_DESCRIPTOR, err, "[%s] OS write file (%d)", NameOf(la), fd);
    ssize_t r = pwrite64(fd, buf, len, offset);
    int e = errno;
    return (int)ReportCall(rp, r, e, nullptr, err, "[%s] OS write file (%d)", NameOf(la), fd);
}

long long CUtilities::OS_FileTell(CRuntimeParam* rp, LogArgu* la, int fd, char* err) {
    if (fd == -1) return ReportCall(rp, -1, 0, BAD_DESCRIPTOR, err, "[%s] OS tell file (%d)", NameOf(la), fd);
    off64_t r = lseek64(fd, 0, SEEK_CUR);
    int e = errno;
    return ReportCall(rp, r, e, nullptr, err, "[%s] OS tell file (%d)", NameOf(la), fd);
}

int CUtilities::OS_FolderCreate(CRuntimeParam* rp, LogArgu* la, const char* path, int mode, char* err) {
    int r = mkdir(path, (mode_t)mode);
    int e = errno;
    return (int)ReportCall(rp, r, e, nullptr, err, "[%s] OS create folder \"%s\" (mode = %d)", NameOf(la), path,
                           mode);
}

int CUtilities::OS_FolderRemove(CRuntimeParam* rp, LogArgu* la, const char* path, char* err) {
    int r = rmdir(path);
    int e = errno;
    return (int)ReportCall(rp, r, e, nullptr, err, "[%s] OS remove folder \"%s\"", NameOf(la), path);
}

int CUtilities::OS_SetFileMode(CRuntimeParam* rp, LogArgu* la, const char* path, int mode, char* err) {
    int r = chmod(path, (mode_t)mode);
    int e = errno;
    return (int)ReportCall(rp, r, e, nullptr, err, "[%s] OS set file mode \"%s\" (mode = %d)", NameOf(la), path,
                           mode);
}

int CUtilities::OS_GetFileStat(CRuntimeParam* rp, LogArgu* la, const char* path, struct stat* st, char* err,
                               const struct stat* known) {
    int r = 0, e = 0;
    if (known != nullptr)
        *st = *known;
    else {
        r = lstat(path, st);
        e = errno;
    }
    return (int)ReportCall(rp, r, e, nullptr, err, "[%s] OS get file stat \"%s\"", NameOf(la), path);
}

bool CUtilities::OS_SetFileSize(CRuntimeParam* rp, LogArgu* la, const char* path, unsigned long long size,
                                char* err) {
    static const char* const subject = "[%s] OS set file file \"%s\"";
    int fd = open(path, O_RDWR | O_CREAT, 0755);
    if (fd == -1) {
        ReportCall(rp, -1, errno, nullptr, err, subject, NameOf(la), path);
        return false;
    }
    struct stat st;
    if (fstat(fd, &st) == -1) {
        ReportCall(rp, -1, errno, nullptr, err, subject, NameOf(la), path);
        close(fd);
        return false;
    }
    if ((unsigned long long)st.st_size == size) {
        close(fd);
        return true;
    }
    int r = ftruncate64(fd, (off64_t)size);
    int e = errno;
    close(fd);
    return ReportCall(rp, r, e, nullptr, err, subject, NameOf(la), path) == 0;
}

int CUtilities::OS_FileForceOpen(CRuntimeParam* rp, LogArgu* la, const char* path, char* err) {
    std::vector<std::string> pieces;
    SplitIntoVector(path, '/', pieces);
    bool logAccess = rp && rp->IsLogFileAccess();
    if (logAccess)
        LogInfo(rp, "[%s] OS splited path \"%s\" into %d elements", NameOf(la), path, (int)pieces.size());
    if (pieces.size() > 1) {
        // The first piece is taken as it stands: the root for an absolute
        // path, a folder that must exist for a relative one.
        std::string folder = pieces[0];
        for (size_t i = 1; i + 1 < pieces.size(); ++i) {
            folder += "/";
            folder += pieces[i];
            if (logAccess) LogInfo(rp, "[%s] Check folder \"%s\" exists", NameOf(la), folder.c_str());
            if (!OS_IsFileExists(folder.c_str(), nullptr)) {
                if (logAccess) LogInfo(rp, "[%s] Create folder \"%s\"", NameOf(la), folder.c_str());
                if (OS_FolderCreate(rp, la, folder.c_str(), 0755, err) == -1) return -1;
            }
        }
    }
    if (OS_IsFileExists(path, nullptr)) return OS_FileOpen(rp, la, path, O_RDWR | O_APPEND, true, err);
    return OS_FileCreate(rp, la, path, err);
}

bool CUtilities::OS_IsFileExists(const char* path, char* err) {
    struct stat64 st;
    if (stat64(path, &st) == 0) return true;
    if (err) snprintf(err, ERROR_TEXT_SIZE, "ErrCode=%d", errno);
    return false;
}

// ---- file-system figures ---------------------------------------------------

static const unsigned long long ALL_ONES = ~0ULL;

#define STATVFS_FIGURE(name, expr)                           \
    unsigned long long CUtilities::name(const char* path) { \
        struct statvfs64 s;                                  \
        if (statvfs64(path, &s) != 0) return ALL_ONES;       \
        return (unsigned long long)(expr);                   \
    }

STATVFS_FIGURE(GetTotalDiskSpace, s.f_blocks * s.f_frsize)
STATVFS_FIGURE(GetFreeDiskSpace, s.f_bfree * s.f_frsize)
STATVFS_FIGURE(GetFreeDiskSpaceAvailableToCaller, s.f_bavail * s.f_frsize)
STATVFS_FIGURE(GetTotalFileSlots, s.f_files)
STATVFS_FIGURE(GetFreeFileSlots, s.f_ffree)
// Deliberately the free inodes, not the ones available to unprivileged users.
STATVFS_FIGURE(GetFreeFileSlotsAvailableToCaller, s.f_ffree)

#undef STATVFS_FIGURE

unsigned long long CUtilities::GetFileSystemID(const char* path) {
    struct statvfs64 s;
    if (statvfs64(path, &s) != 0) return UNKNOWN_FILE_SYSTEM_ID;
    return (unsigned long long)s.f_fsid;
}

unsigned long long CUtilities::GetMaxFileSize(const char* path) {
    struct statfs64 s;
    unsigned long type = 0;
    if (statfs64(path, &s) == 0) type = (unsigned long)s.f_type;
    return MaxFileSizeOfType(type);
}

unsigned long long CUtilities::MaxFileSizeOfType(unsigned long type) {
    switch (type) {
        case 0x4D44: return 1ULL << 32;      // FAT
        case 0x52654973: return 1ULL << 43;  // ReiserFS
        default: return 1ULL << 41;          // ext2/3/4 and the rest
    }
}

unsigned long long CUtilities::GetCurrentSystemTimeInMilliseconds() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return (unsigned long long)tv.tv_sec * 1000ULL + (unsigned long long)tv.tv_usec / 1000ULL;
}

void CUtilities::GetPrintableFileSize(unsigned long long size, char* out, size_t outSize) {
    static const char* const formats[] = {"%.1fB", "%.1fKB", "%.1fMB", "%.1fGB", "%.1fTB", "%.1fPB", "%.1fEB"};
    double v = (double)size / 1024.0;
    int unit = 0;
    // Strictly greater: exactly 1024 of a unit stays in that unit.
    while (v > 1.0 && unit <= 5) {
        v /= 1024.0;
        ++unit;
    }
    snprintf(out, outSize, formats[unit], v * 1024.0);
}

void CUtilities::SplitIntoVector(const char* text, char delimiter, std::vector<std::string>& out) {
    if (text == nullptr || *text == '\0') return;
    const char* start = text;
    for (;;) {
        const char* end = strchr(start, delimiter);
        if (end == nullptr) {
            if (*start) out.emplace_back(start);
            return;
        }
        out.emplace_back(start, (size_t)(end - start));
        start = end + 1;
        if (*start == '\0') return;  // a trailing delimiter ends the text
    }
}

// ---- cached descriptors ----------------------------------------------------

size_t CUtilities::MaxCachedFileHandles() {
    // At most 1024, and never so many that sockets, new files and the
    // process's other descriptors find none: a quarter of the limit, and at
    // least 64, stays free.
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return MAX_CACHED_FILE_HANDLES;
    const rlim_t reserve = std::max<rlim_t>(64, limit.rlim_cur / 4);
    if (limit.rlim_cur <= reserve + 16) return 16;
    return (size_t)std::min<rlim_t>(MAX_CACHED_FILE_HANDLES, limit.rlim_cur - reserve);
}

void CUtilities::RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void CUtilities::CloseExceededCachedFileHandle(CRuntimeParam* rp, LogArgu* la) {
    // Recursive: callers inside the cache already hold it; the retry of
    // OS_FileOpen from elsewhere does not.
    std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
    bool logAccess = rp && rp->IsLogFileAccess();
    size_t toFree = m_OpenedFileHandles.size() / 10;
    if (toFree >= 1) {
        if (logAccess) LogInfo(rp, "[%s] Close exceeded cached file handle: %d", NameOf(la), (int)toFree);
        size_t freed = 0;
        while (freed < toFree && !m_OpenedFileLastAccessList.empty()) {
            auto oldest = m_OpenedFileLastAccessList.begin();
            auto row = m_OpenedFileHandles.find(oldest->second);
            if (row != m_OpenedFileHandles.end()) {
                if (row->second.iFile != -1)
                    OS_FileClose(rp, la, row->second.sPath.c_str(), row->second.iFile, nullptr);
                m_OpenedFileHandles.erase(row);
                ++m_iCachedRowsClosed;
                ++freed;
            }
            m_OpenedFileLastAccessList.erase(oldest);
        }
        return;
    }
    if (logAccess) LogInfo(rp, "[%s] Close exceeded cached file handle: ALL", NameOf(la));
    CloseAllCachedFileHandles(rp, la);
}

// ---- path convention -------------------------------------------------------

void CUtilities::GetCanonicalPath(CRuntimeParam* rp, LogArgu* la, char* out, const char* in, bool isCanonical) {
    if (in == nullptr) in = "";
    bool logInfo = rp && rp->IsLogGeneralInfo();
    char resolved[PATH_MAX];
    if (isCanonical || (strlen(in) < PATH_BUFFER_SIZE && realpath(in, resolved) != nullptr)) {
        CopyText(out, isCanonical ? in : resolved, PATH_BUFFER_SIZE);
        if (logInfo) LogInfo(rp, "[%s] Get canonical path successfully: %s", NameOf(la), out);
        return;
    }
    CopyText(out, in, PATH_BUFFER_SIZE);
    if (logInfo) LogInfo(rp, "[%s] Fail to get canonical path from non-exist path: %s", NameOf(la), in);
}

void CUtilities::SetPathToCompare(char* path, size_t size) {
    size_t len = strnlen(path, size);
    if (len == 0 || path[len - 1] == '/' || len + 1 >= size) return;
    path[len] = '/';
    path[len + 1] = '\0';
}

void CUtilities::SetPathToCompare(std::string& path) {
    if (!path.empty() && path.back() != '/') path += '/';
}

// ---- file table, export and session tables, file operations ----------------

// -- file IDs and handles --

unsigned int CUtilities::GetFileID(CRuntimeParam* param, LogArgu* argu, const char* path, bool isCanonical) {
    if (path == nullptr) return NO_FILE_ID;  // the table has no row for a null path
    char canonical[PATH_BUFFER_SIZE];
    GetCanonicalPath(param, argu, canonical, path, isCanonical);
    std::lock_guard<std::mutex> lock(m_hMutexFileTable);
    if (!m_pFileTable) return NO_FILE_ID;
    return m_pFileTable->GetIDByPath(canonical);
}

bool CUtilities::GetFileHandle(CRuntimeParam* param, LogArgu* argu, const char* path, unsigned char* handle,
                               int size, bool isCanonical) {
    if (handle == nullptr) return false;
    if (size > 0) memset(handle, 0, (size_t)size);
    // Room for the ID and at least one more byte: exactly 4 is refused.
    if (size < 5 || path == nullptr) {
        if (size >= 5) memcpy(handle, &NO_FILE_ID, sizeof NO_FILE_ID);
        return false;
    }
    char canonical[PATH_BUFFER_SIZE];
    GetCanonicalPath(param, argu, canonical, path, isCanonical);
    // The ID and the verifier of one table: a reset in between would pair
    // an old ID with a new verifier.
    std::lock_guard<std::mutex> lock(m_hMutexFileTable);
    unsigned int id = m_pFileTable ? m_pFileTable->GetIDByPath(canonical) : NO_FILE_ID;
    memcpy(handle, &id, sizeof id);
    size_t room = (size_t)size - HANDLE_VERIFIER_OFFSET;
    memcpy(handle + HANDLE_VERIFIER_OFFSET, m_cHandleVerifier,
           room < HANDLE_VERIFIER_SIZE ? room : HANDLE_VERIFIER_SIZE);
    return id != NO_FILE_ID;
}

bool CUtilities::GetFilePath(CRuntimeParam*, const unsigned char* handle, char* buffer, int size,
                             size_t handleSize, bool* stale) {
    if (stale) *stale = false;
    if (handle == nullptr) return false;
    std::lock_guard<std::mutex> lock(m_hMutexFileTable);
    if (handleSize < HANDLE_VERIFIER_OFFSET + HANDLE_VERIFIER_SIZE ||
        memcmp(handle + HANDLE_VERIFIER_OFFSET, m_cHandleVerifier, HANDLE_VERIFIER_SIZE) != 0) {
        if (stale) *stale = true;
        return false;
    }
    unsigned int id;
    memcpy(&id, handle, sizeof id);
    if (id == NO_FILE_ID || !m_pFileTable) return false;
    return m_pFileTable->GetPathByID(id, buffer, size);
}

void CUtilities::ResetFileTable() {
    std::lock_guard<std::mutex> lock(m_hMutexFileTable);
    if (m_pFileTable) m_pFileTable->Clear();
    RenewHandleVerifier();
}

void CUtilities::RenewHandleVerifier() {
    unsigned char fresh[HANDLE_VERIFIER_SIZE];
    if (getrandom(fresh, sizeof fresh, 0) != (ssize_t)sizeof fresh) {
        // No random source: the clock and the previous value still change it.
        unsigned long long mix = GetCurrentSystemTimeInMilliseconds() * 0x9E3779B97F4A7C15ULL;
        for (size_t i = 0; i < sizeof fresh; ++i)
            fresh[i] = (unsigned char)(m_cHandleVerifier[i] + 1 + (mix >> (8 * i)));
    }
    memcpy(m_cHandleVerifier, fresh, sizeof fresh);
}

// -- export table --

static const char* OrEmpty(const char* text) { return text ? text : ""; }

bool CUtilities::FindMountConflict(CRuntimeParam* rp, LogArgu* la, const char* localPath, const char* exportName,
                                   char* err) {
    if (exportName != nullptr && m_MountInfos.count(exportName) != 0) {
        if (err) snprintf(err, ERROR_TEXT_SIZE, "Export name \"%s\" already defined", exportName);
        return true;
    }
    if (localPath == nullptr) return false;
    char canonical[PATH_BUFFER_SIZE];
    GetCanonicalPath(rp, la, canonical, localPath);
    for (const auto& row : m_MountInfos) {
        if (strcmp(row.second.sLocalMountPath.c_str(), canonical) == 0) {
            if (err) snprintf(err, ERROR_TEXT_SIZE, "Local mount path \"%s\" already defined",
                              row.second.sLocalMountPath.c_str());
            return true;
        }
    }
    return false;
}

bool CUtilities::IsMountInfoExists(CRuntimeParam* rp, LogArgu* la, const char* localPath, const char* exportName,
                                   char* err) {
    std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    return FindMountConflict(rp, la, localPath, exportName, err);
}

bool CUtilities::AddMountInfo(CRuntimeParam* rp, LogArgu* la, const char* localPath, const char* exportName,
                              const char* ipcId, char* err) {
    exportName = OrEmpty(exportName);
    char canonical[PATH_BUFFER_SIZE];
    GetCanonicalPath(rp, la, canonical, OrEmpty(localPath));
    // Check and store under one hold of the mutex, so that two concurrent
    // adds cannot both pass the check.
    std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    // A name that is both taken and malformed is reported as taken.
    if (FindMountConflict(rp, la, canonical, exportName, err)) return false;
    for (const char* c = exportName; *c; ++c) {
        if (*c == '/' || *c == ' ') {
            if (err) snprintf(err, ERROR_TEXT_SIZE, "Invalid char \"%c\" inside export name", *c);
            return false;
        }
    }
    MountInfo& row = m_MountInfos[exportName];
    row.sLocalMountPath = canonical;
    row.sExportName = exportName;
    row.sIcpID = OrEmpty(ipcId);
    row.sRemoteIpAddr.clear();
    return true;
}

void CUtilities::RemoveMountInfoByLocalMountPath(CRuntimeParam* rp, LogArgu* la, const char* localPath) {
    char canonical[PATH_BUFFER_SIZE];
    GetCanonicalPath(rp, la, canonical, OrEmpty(localPath));
    std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    for (auto row = m_MountInfos.begin(); row != m_MountInfos.end(); ++row) {
        if (row->second.sLocalMountPath == canonical) {
            m_MountInfos.erase(row);
            break;
        }
    }
    if (m_MountInfos.empty()) ResetFileTable();
}

void CUtilities::RemoveMountInfoByExportName(const char* exportName) {
    std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    m_MountInfos.erase(OrEmpty(exportName));
    if (m_MountInfos.empty()) ResetFileTable();
}

void CUtilities::RemoveAllMountInfo() {
    std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    m_MountInfos.clear();
    ResetFileTable();
}

bool CUtilities::UpdateMountClientIpAddrByExportName(const char* exportName, const char* addr, MountInfo* out,
                                                     char* err) {
    exportName = OrEmpty(exportName);
    std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    auto row = m_MountInfos.find(exportName);
    if (row == m_MountInfos.end()) {
        if (err) snprintf(err, ERROR_TEXT_SIZE, "Undefined export name \"%s\"", exportName);
        return false;
    }
    // One client at a time, even the same one again, until it unmounts.
    if (addr != nullptr && !row->second.sRemoteIpAddr.empty()) {
        if (err)
            snprintf(err, ERROR_TEXT_SIZE, "This mount point \"%s\" already mounted by %s", exportName,
                     row->second.sRemoteIpAddr.c_str());
        return false;
    }
    row->second.sRemoteIpAddr = OrEmpty(addr);
    if (out) *out = row->second;
    return true;
}

bool CUtilities::ReleaseMountClientIpAddrByExportName(const char* exportName, const char* addr, char* err) {
    exportName = OrEmpty(exportName);
    addr = OrEmpty(addr);
    std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    auto row = m_MountInfos.find(exportName);
    if (row == m_MountInfos.end()) {
        if (err) snprintf(err, ERROR_TEXT_SIZE, "Undefined export name \"%s\"", exportName);
        return false;
    }
    if (!row->second.sRemoteIpAddr.empty() && row->second.sRemoteIpAddr != addr) {
        if (err)
            snprintf(err, ERROR_TEXT_SIZE, "This mount point \"%s\" is mounted by %s, not by %s", exportName,
                     row->second.sRemoteIpAddr.c_str(), addr);
        return false;
    }
    row->second.sRemoteIpAddr.clear();
    return true;
}

bool CUtilities::GetMountInfoByPath(CRuntimeParam* rp, LogArgu* la, const char* path, MountInfo* out) {
    std::string working = OrEmpty(path);
    SetPathToCompare(working);
    bool logInfo = rp && rp->IsLogGeneralInfo();
    std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    // The first export in name order wins, not the longest match.
    for (const auto& row : m_MountInfos) {
        const std::string& local = row.second.sLocalMountPath;
        if (logInfo)
            LogInfo(rp, "[%s] Path scan: \"%s\" vs \"%s\"", NameOf(la), working.c_str(), local.c_str());
        if (working.compare(0, local.size(), local) != 0) continue;
        std::string slashed = local;
        SetPathToCompare(slashed);
        if (logInfo)
            LogInfo(rp, "[%s] Path compare: \"%s\" vs \"%s\"", NameOf(la), working.c_str(), slashed.c_str());
        if (working.compare(0, slashed.size(), slashed) != 0) continue;
        if (logInfo) LogInfo(rp, "[%s] Path match", NameOf(la));
        if (out) *out = row.second;
        return true;
    }
    return false;
}

bool CUtilities::IsRemoteAddrExists(const char* addr) {
    addr = OrEmpty(addr);
    std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    for (const auto& row : m_MountInfos) {
        if (row.second.sRemoteIpAddr == addr) return true;
    }
    return false;
}

int CUtilities::GetMountInfo(CRuntimeParam* rp, bool bClientMountedOnly, bool bPrintDetails) {
    std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    int count = 0;
    for (const auto& entry : m_MountInfos) {
        const MountInfo& row = entry.second;
        if (bClientMountedOnly && row.sRemoteIpAddr.empty()) continue;
        ++count;
        if (bPrintDetails)
            LogRaw(rp, " Mount %d - %s : %s (%s) [%s]", count, row.sLocalMountPath.c_str(), row.sExportName.c_str(),
                   row.sRemoteIpAddr.c_str(), row.sIcpID.c_str());
    }
    return count;
}

// -- session table --

void CUtilities::AddSessionInfo(const char* sessionId, const char* localPath) {
    std::lock_guard<std::mutex> lock(m_hMutexSessionInfos);
    SessionInfo& row = m_SessionInfos[OrEmpty(sessionId)];
    row.sSessionID = OrEmpty(sessionId);
    row.sLocalMountPath = OrEmpty(localPath);
}

void CUtilities::RemoveSessionInfo(const char* sessionId) {
    std::lock_guard<std::mutex> lock(m_hMutexSessionInfos);
    m_SessionInfos.erase(OrEmpty(sessionId));
}

void CUtilities::RemoveSessionInfoByLocalMountPath(const char* localPath) {
    localPath = OrEmpty(localPath);
    std::lock_guard<std::mutex> lock(m_hMutexSessionInfos);
    for (auto row = m_SessionInfos.begin(); row != m_SessionInfos.end();) {
        if (row->second.sLocalMountPath == localPath)
            row = m_SessionInfos.erase(row);
        else
            ++row;
    }
}

void CUtilities::RemoveAllSessionInfo() {
    std::lock_guard<std::mutex> lock(m_hMutexSessionInfos);
    m_SessionInfos.clear();
}

bool CUtilities::IsSessionExists(const char* sessionId) {
    std::lock_guard<std::mutex> lock(m_hMutexSessionInfos);
    return m_SessionInfos.count(OrEmpty(sessionId)) != 0;
}

int CUtilities::GetSessionInfo(CRuntimeParam* rp, bool bPrintDetails) {
    std::lock_guard<std::mutex> lock(m_hMutexSessionInfos);
    int count = 0;
    for (const auto& entry : m_SessionInfos) {
        ++count;
        if (bPrintDetails)
            LogRaw(rp, " Session %d - %s : %s", count, entry.second.sSessionID.c_str(),
                   entry.second.sLocalMountPath.c_str());
    }
    return count;
}

void CUtilities::Reset(CRuntimeParam* rp, LogArgu* la) {
    RemoveAllMountInfo();  // also resets the file table
    RemoveAllSessionInfo();
    CloseAllCachedFileHandles(rp, la);
    CloseAllRedirectedFiles(rp);
    RemoveAllNetDeviceCredential(rp);
}

// -- descriptor cache --

// Last-access key: whole seconds in 16 digits, then the descriptor. Rows
// whose open failed all carry -1, so a key already taken within the same
// second gets "#n" added; '#' sorts below every digit and '-', so the order
// by (second, descriptor text) is kept.
std::string CUtilities::AddTimeKey(int fd, time_t now, const char* path) {
    char base[48];
    snprintf(base, sizeof base, "%016llu%d", (unsigned long long)now, fd);
    std::string key = base;
    for (unsigned n = 1; !m_OpenedFileLastAccessList.try_emplace(key, path).second; ++n)
        key = std::string(base) + "#" + std::to_string(n);
    return key;
}

// The whole seconds a last-access key starts with.
static time_t KeySecond(const std::string& key) {
    unsigned long long seconds = 0;
    for (size_t i = 0; i < 16 && i < key.size(); ++i) seconds = seconds * 10 + (unsigned)(key[i] - '0');
    return (time_t)seconds;
}

void CUtilities::CloseCachedRow(CRuntimeParam* rp, LogArgu* la, OpenedFileMap::iterator row) {
    m_OpenedFileLastAccessList.erase(row->second.sTimeKey);
    if (row->second.iFile != -1) OS_FileClose(rp, la, row->second.sPath.c_str(), row->second.iFile, nullptr);
    m_OpenedFileHandles.erase(row);
    ++m_iCachedRowsClosed;
}

int CUtilities::GetCachedFileHandle(CRuntimeParam* rp, LogArgu* la, const char* pcPath, bool bAlwaysReadWrite) {
    if (pcPath == nullptr || *pcPath == '\0') return -1;
    std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
    const time_t now = time(nullptr);
    // The row is worked on in place: where the path is, or where it goes.
    auto row = m_OpenedFileHandles.lower_bound(pcPath);
    bool found = row != m_OpenedFileHandles.end() && row->first == pcPath;
    // An open row already touched within this second would get back the
    // very key it has: nothing to refresh.
    if (found && row->second.iFile != -1 && KeySecond(row->second.sTimeKey) == now) return row->second.iFile;
    if (!found || row->second.iFile == -1) {
        // The descriptor limit is looked up once a second, not for every open:
        // it seldom changes, and an open that finds it lowered meanwhile
        // thins the cache and retries all the same.
        if (now != m_iCacheBoundSecond) {
            m_iCacheBound = MaxCachedFileHandles();
            m_iCacheBoundSecond = now;
        }
        const unsigned long long closes = m_iCachedRowsClosed;
        if (m_OpenedFileHandles.size() >= m_iCacheBound) CloseExceededCachedFileHandle(rp, la);
        bool readWrite = bAlwaysReadWrite || GetMountInfoByPath(rp, la, pcPath, nullptr);
        if (rp && rp->IsLogFileAccess())
            LogInfo(rp, "[%s] open %s mode %s", NameOf(la), readWrite ? "read/write" : "read only", pcPath);
        const int fd = OS_FileOpen(rp, la, pcPath, readWrite ? O_RDWR : O_RDONLY, true, nullptr);
        // Thinning, here or in the open's retry, may have closed this very
        // row and moved the place of a new one.
        if (closes != m_iCachedRowsClosed) {
            row = m_OpenedFileHandles.lower_bound(pcPath);
            found = row != m_OpenedFileHandles.end() && row->first == pcPath;
        }
        if (!found) row = m_OpenedFileHandles.emplace_hint(row, pcPath, OpenedFileInfo());
        row->second.iFile = fd;
        row->second.sPath = pcPath;
    }
    // Refresh the last access; a failed open stays as a row with -1 so that
    // the next access retries it. Thinning may have dropped the old entry.
    OpenedFileInfo& info = row->second;
    auto old = m_OpenedFileLastAccessList.find(info.sTimeKey);
    if (old != m_OpenedFileLastAccessList.end() && old->second == pcPath) m_OpenedFileLastAccessList.erase(old);
    info.sTimeKey = AddTimeKey(info.iFile, now, pcPath);
    return info.iFile;
}

void CUtilities::CloseCachedFileHandle(CRuntimeParam* rp, LogArgu* la, const char* pcPath) {
    if (pcPath == nullptr || *pcPath == '\0') return;
    std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
    auto row = m_OpenedFileHandles.find(pcPath);
    if (row != m_OpenedFileHandles.end()) CloseCachedRow(rp, la, row);
}

void CUtilities::CloseAllCachedFileHandles(CRuntimeParam* rp, LogArgu* la, const char* pcPath) {
    if (pcPath == nullptr || *pcPath == '\0') return;
    std::string given = pcPath;
    SetPathToCompare(given);
    bool logInfo = rp && rp->IsLogGeneralInfo();
    std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
    for (auto row = m_OpenedFileHandles.begin(); row != m_OpenedFileHandles.end();) {
        std::string rowPath = row->first;
        SetPathToCompare(rowPath);
        if (logInfo)
            LogInfo(rp, "[CloseAllCachedFileHandles] Path compare: \"%s\" vs \"%s\"", given.c_str(), rowPath.c_str());
        if (rowPath.compare(0, given.size(), given) == 0) {
            CloseCachedRow(rp, la, row);
            row = m_OpenedFileHandles.begin();  // the walk restarts after each close
        } else {
            ++row;
        }
    }
}

void CUtilities::CloseAllCachedFileHandles(CRuntimeParam* rp, LogArgu* la) {
    std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
    for (auto& row : m_OpenedFileHandles) {
        if (row.second.iFile != -1) OS_FileClose(rp, la, row.second.sPath.c_str(), row.second.iFile, nullptr);
    }
    m_iCachedRowsClosed += m_OpenedFileHandles.size();
    m_OpenedFileHandles.clear();
    m_OpenedFileLastAccessList.clear();
}

// -- file operations --

int CUtilities::ReadFile(CRuntimeParam* rp, LogArgu* la, const char* pcPath, unsigned long long iSeek,
                         int iSeekType, void* pvBuf, unsigned int iLen, bool* pbEof) {
    if (rp && rp->IsLogFileAccess())
        LogInfo(rp, "[%s] Read file, path=%s, iSeek=%llu, iSeekType=%d, length=%u", NameOf(la), OrEmpty(pcPath),
                iSeek, iSeekType, iLen);
    bool eofSink;
    if (pbEof == nullptr) pbEof = &eofSink;
    *pbEof = true;
    if (CRedirectedFile* redirected = GetRedirectedFile(pcPath)) {
        // Assembled from its segments; the seek origin does not apply.
        if (pvBuf == nullptr && iLen > 0) return -1;
        return redirected->Read(rp, (long long)iSeek, static_cast<char*>(pvBuf), iLen, pbEof);
    }
    int fd = GetCachedFileHandle(rp, la, pcPath, false);
    if (fd == -1) return -1;
    if (iSeekType == SEEK_SET && iSeek <= (unsigned long long)INT64_MAX) {
        // One positional read and the size from the descriptor: the same
        // count and end-of-file answer as seeking, reading and seeking to
        // the end, at half the system calls.
        // The system refuses a positional read that would end past 2^63 - 1.
        const unsigned long long room = (unsigned long long)INT64_MAX - iSeek;
        const unsigned int len = iLen < room ? iLen : (unsigned int)room;
        int count = OS_FileReadAt(rp, la, fd, pvBuf, len, (long long)iSeek, nullptr);
        struct stat st;
        *pbEof = fstat(fd, &st) != 0 || (long long)iSeek + (count > 0 ? count : 0) >= (long long)st.st_size;
        return count;
    }
    OS_FileSeek(rp, la, fd, (long long)iSeek, iSeekType, nullptr);
    int count = OS_FileRead(rp, la, fd, pvBuf, iLen, nullptr);
    long long position = OS_FileTell(rp, la, fd, nullptr);
    long long size = OS_FileSeek(rp, la, fd, 0, SEEK_END, nullptr);
    *pbEof = position >= size;
    return count;
}

int CUtilities::WriteFile(CRuntimeParam* rp, LogArgu* la, const char* pcPath, unsigned long long iSeek,
                          int iSeekType, const void* pvBuf, unsigned int iLen, WriteSync* pSync) {
    if (rp && rp->IsLogFileAccess())
        LogInfo(rp, "[%s] Write file, path=%s, iSeek=%llu, iSeekType=%d, length=%u", NameOf(la), OrEmpty(pcPath),
                iSeek, iSeekType, iLen);
    // Nothing is written to a redirected file: the controller is told where
    // and how much, and its answer is the count.
    if (GetRedirectedFile(pcPath)) return LogWriteRedirectedFile(rp, pcPath, iSeek, iSeekType, iLen);
    int fd;
    if (pSync == nullptr) {
        fd = GetCachedFileHandle(rp, la, pcPath, false);
    } else {
        std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
        for (int attempt = 0; attempt < 2; ++attempt) {
            fd = GetCachedFileHandle(rp, la, pcPath, false);
            if (fd != -1 && pSync->held != -1 && pSync->closes == m_iCachedRowsClosed) break;
            pSync->held = -1;
            pSync->closes = m_iCachedRowsClosed;
            pSync->duplicate.Reset(fd == -1 ? -1 : fcntl(fd, F_DUPFD_CLOEXEC, 0));
            if (fd == -1 || pSync->duplicate.IsOpen() || errno != EMFILE) break;
            // Out of descriptors: cached ones make room, as for an open.
            CloseExceededCachedFileHandle(rp, la);
        }
        fd = pSync->held != -1 ? pSync->held : pSync->duplicate.Get();
    }
    if (fd == -1) return -1;
    // Where a seek could not fail, one positional write does what the seek
    // and the write do, save the descriptor's position; the two calls stay
    // where file access is logged, so that the lines are the same.
    const bool logged = rp && rp->IsLogFileAccess();
    if (!logged && iSeekType == SEEK_SET && iSeek <= (unsigned long long)INT64_MAX - iLen)
        return OS_FileWriteAt(rp, la, fd, pvBuf, iLen, (long long)iSeek, nullptr);
    OS_FileSeek(rp, la, fd, (long long)iSeek, iSeekType, nullptr);
    return OS_FileWrite(rp, la, fd, pvBuf, iLen, nullptr);
}

long long CUtilities::GetFileSize(CRuntimeParam* rp, LogArgu* la, const char* pcPath, long long iSize) {
    if (CRedirectedFile* redirected = GetRedirectedFile(pcPath)) return redirected->GetFileSize();
    int fd = GetCachedFileHandle(rp, la, pcPath, false);
    if (fd == -1) return iSize;
    long long size = OS_FileSeek(rp, la, fd, 0, SEEK_END, nullptr);
    return size == -1 ? iSize : size;
}

bool CUtilities::NewFile(CRuntimeParam* rp, LogArgu* la, const char* pcPath, CFileDescriptor* pCreated) {
    pcPath = OrEmpty(pcPath);
    // A link in the file's place would have it made wherever the link points.
    int fd = OS_FileCreate(rp, la, pcPath, nullptr, O_NOFOLLOW);
    if (fd == -1 && errno == EMFILE) {
        // Out of descriptors: cached ones make room, as for an open.
        CloseExceededCachedFileHandle(rp, la);
        fd = OS_FileCreate(rp, la, pcPath, nullptr, O_NOFOLLOW);
    }
    if (fd == -1) return false;
    if (pCreated != nullptr)
        pCreated->Reset(fd);
    else
        OS_FileClose(rp, la, pcPath, fd, nullptr);
    return true;
}

bool CUtilities::RemoveFile(CRuntimeParam* rp, LogArgu* la, const char* pcPath) {
    pcPath = OrEmpty(pcPath);
    if (rp && rp->IsLogFileAccess()) LogInfo(rp, "[%s] Remove file, path=%s", NameOf(la), pcPath);
    CloseCachedFileHandle(rp, la, pcPath);
    if (OS_FileRemove(rp, la, pcPath, nullptr) == -1) return false;
    if (!GetRedirectedFile(pcPath)) return true;
    CloseRedirectedFile(rp, pcPath);
    return LogRemoveRedirectedFile(rp, pcPath) == 0;
}

bool CUtilities::RenameFile(CRuntimeParam* rp, LogArgu* la, const char* pathFrom, const char* pathTo) {
    pathFrom = OrEmpty(pathFrom);
    pathTo = OrEmpty(pathTo);
    if (rp && rp->IsLogFileAccess())
        LogInfo(rp, "[%s] Rename file, pathFrom=%s, pathTo=%s", NameOf(la), pathFrom, pathTo);
    if (OS_IsFileExists(pathTo, nullptr) && !RemoveFile(rp, la, pathTo)) return false;
    if (OS_IsFileExists(pathFrom, nullptr)) {
        CloseCachedFileHandle(rp, la, pathFrom);
        if (OS_FileRename(rp, la, pathFrom, pathTo, nullptr) == -1) return false;
    }
    if (GetRedirectedFile(pathFrom)) {
        RenameRedirectedFile(rp, pathFrom, pathTo);
        if (LogRenameRedirectedFile(rp, pathFrom, pathTo) != 0) return false;
    }
    // The file ID, and with it the client's handle, follows the file.
    std::lock_guard<std::mutex> lock(m_hMutexFileTable);
    if (!m_pFileTable) return true;
    return m_pFileTable->UpdateItemPath(pathFrom, pathTo);
}

bool CUtilities::UpdateFileAttributes(CRuntimeParam* rp, LogArgu* la, const char* pcPath, bool bMode,
                                      unsigned int iMode, bool bUid, unsigned int iUid, bool bGid,
                                      unsigned int iGid, bool bSize, unsigned long long lSize, bool bAccessTime,
                                      unsigned int lAccessTimeSec, unsigned int lAccessTimeNanoSec,
                                      bool bLastModifiedTime, unsigned int lLastModifiedTimeSec,
                                      unsigned int lLastModifiedTimeNanoSec) {
    pcPath = OrEmpty(pcPath);
    if (rp && rp->IsLogFileAccess())
        LogInfo(rp,
                "[%s] Update file attributes, path=%s, set_mode=%d, mode=%u, set_uid=%d, uid=%u, set_gid=%d, "
                "gid=%u, set_size=%d, size=%llu, set_atime=%d, atime.sec=%u, atime.nsec=%u, set_mtime=%d, "
                "mtime.sec=%u, mtime.nsec=%u",
                NameOf(la), pcPath, bMode ? 1 : 0, iMode, bUid ? 1 : 0, iUid, bGid ? 1 : 0, iGid, bSize ? 1 : 0,
                lSize, bAccessTime ? 1 : 0, lAccessTimeSec, lAccessTimeNanoSec, bLastModifiedTime ? 1 : 0,
                lLastModifiedTimeSec, lLastModifiedTimeNanoSec);
    if (!bMode && !bUid && !bGid && !bSize && !bAccessTime && !bLastModifiedTime) return true;
    // A redirected file changes nothing locally: size and times go to the
    // controller, mode, owner, group and nanoseconds are dropped.
    if (GetRedirectedFile(pcPath))
        return LogUpdateRedirectedFileAttributes(rp, pcPath, bSize, lSize, bAccessTime, lAccessTimeSec,
                                                 bLastModifiedTime, lLastModifiedTimeSec) == 0;
    if (bMode || bSize) CloseCachedFileHandle(rp, la, pcPath);
    if (bMode) {
        // A failed mode change skips the size.
        if (OS_SetFileMode(rp, la, pcPath, (int)iMode, nullptr) == -1) return false;
    }
    if (bSize) return OS_SetFileSize(rp, la, pcPath, lSize, nullptr);
    return true;
}

// ---- redirected-file registry ------------------------------------------------

CRedirectedFile* CUtilities::OpenRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath, long long iSize,
                                                bool bCreateInfoFile, int iInfoFileSegmentSizeMB,
                                                int iInfoFileCheckPointSizeMB) {
    if (pcPath == nullptr) return nullptr;
    // Before taking the mutex, which is not recursive.
    CloseRedirectedFile(pRuntimeParam, pcPath);
    std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    auto file = std::make_unique<CRedirectedFile>(this);
    // IDs count the files registered now, so they can repeat after closes.
    file->Open(pRuntimeParam, iSize, (int)m_mRedirectedFiles.size(), bCreateInfoFile ? pcPath : nullptr,
               iInfoFileSegmentSizeMB, iInfoFileCheckPointSizeMB);
    std::unique_ptr<CRedirectedFile>& slot = m_mRedirectedFiles[pcPath];
    // Another thread may have opened the path in between: it is replaced.
    if (slot) slot->Close(pRuntimeParam);
    slot = std::move(file);
    return slot.get();
}

void CUtilities::CloseRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    if (pcPath == nullptr) return;
    std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    auto entry = m_mRedirectedFiles.find(pcPath);
    if (entry == m_mRedirectedFiles.end()) return;
    entry->second->Close(pRuntimeParam);
    m_mRedirectedFiles.erase(entry);
}

void CUtilities::CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    if (pcPath == nullptr) return;
    std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    if (m_mRedirectedFiles.empty()) return;
    std::string given = pcPath;
    SetPathToCompare(given);
    bool logInfo = pRuntimeParam && pRuntimeParam->IsLogGeneralInfo();
    for (auto entry = m_mRedirectedFiles.begin(); entry != m_mRedirectedFiles.end();) {
        std::string entryPath = entry->first;
        SetPathToCompare(entryPath);
        if (logInfo)
            LogInfo(pRuntimeParam, "[CloseAllRedirectedFiles] Path compare: \"%s\" vs \"%s\"", given.c_str(),
                    entryPath.c_str());
        // Slashed on both sides: the folder /e/v holds /e/v/a, not /e/vm/a.
        if (entryPath.compare(0, given.size(), given) == 0) {
            entry->second->Close(pRuntimeParam);
            m_mRedirectedFiles.erase(entry);
            entry = m_mRedirectedFiles.begin();  // the walk restarts after each close
        } else {
            ++entry;
        }
    }
}

void CUtilities::CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam) {
    std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    for (auto& entry : m_mRedirectedFiles) entry.second->Close(pRuntimeParam);
    m_mRedirectedFiles.clear();
}

bool CUtilities::AddRedirectedFileSegment(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                          const char* pcSourcePath, long long iSrcFileOffset, long long iOffset,
                                          long long iLength, char* pcStatus) {
    if (pcPath == nullptr) return false;
    std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    auto entry = m_mRedirectedFiles.find(pcPath);
    if (entry == m_mRedirectedFiles.end()) return false;
    return entry->second->AddSegment(pRuntimeParam, pcSourcePath, iSrcFileOffset, iOffset, iLength, pcStatus);
}

void CUtilities::ExportRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcExportPath) {
    if (pcPath == nullptr) return;
    // Held for the whole export.
    std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    auto entry = m_mRedirectedFiles.find(pcPath);
    if (entry != m_mRedirectedFiles.end()) entry->second->Export(pRuntimeParam, pcExportPath);
}

void CUtilities::ExportRedirectedFileInfo(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                          const char* pcExportPath, bool bMergeRange) {
    if (pcPath == nullptr) return;
    std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    auto entry = m_mRedirectedFiles.find(pcPath);
    if (entry != m_mRedirectedFiles.end()) entry->second->ExportInfo(pRuntimeParam, pcExportPath, bMergeRange);
}

void CUtilities::RenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pathFrom, const char* pathTo) {
    if (pathFrom == nullptr || pathTo == nullptr) return;
    // Before taking the mutex, which is not recursive.
    CloseRedirectedFile(pRuntimeParam, pathTo);
    std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    auto moved = m_mRedirectedFiles.extract(pathFrom);
    if (moved.empty()) return;
    // Another thread may have opened pathTo in between: it is replaced.
    auto taken = m_mRedirectedFiles.find(pathTo);
    if (taken != m_mRedirectedFiles.end()) {
        taken->second->Close(pRuntimeParam);
        m_mRedirectedFiles.erase(taken);
    }
    moved.key() = pathTo;
    m_mRedirectedFiles.insert(std::move(moved));
}

CRedirectedFile* CUtilities::GetRedirectedFile(const char* pcPath) {
    if (pcPath == nullptr) return nullptr;
    std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    auto entry = m_mRedirectedFiles.find(pcPath);
    return entry == m_mRedirectedFiles.end() ? nullptr : entry->second.get();
}

// ---- platform tests, system commands, vSphere records ----------------------

#include <algorithm>
#include <memory>

#include "VSphereWebController.h"

namespace {

const char* const TEST_STEP_OK = "[ OK ] ";
const char* const TEST_STEP_FAIL = "[FAIL] ";
const char* const TEST_CANNOT_START = "Cannot start platrorm test. Error=";

// The text of a step or reason, whatever its length (paths may be long).
std::string TestText(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string TestText(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list again;
    va_copy(again, args);
    int length = vsnprintf(nullptr, 0, fmt, args);
    va_end(args);
    std::string text;
    if (length > 0) {
        text.resize((size_t)length + 1);
        vsnprintf(&text[0], text.size(), fmt, again);
        text.resize((size_t)length);
    }
    va_end(again);
    return text;
}

// One line of the platform test's report: "[ OK ] step." or
// "[FAIL] step. Error=reason".
void ReportTestStep(CUtilities& utilities, CRuntimeParam* rp, bool ok, const std::string& step,
                    const std::string& reason) {
    if (ok)
        utilities.LogInfo(rp, "%s%s.", TEST_STEP_OK, step.c_str());
    else
        utilities.LogInfo(rp, "%s%s. Error=%s", TEST_STEP_FAIL, step.c_str(), reason.c_str());
}

std::string WithTrailingSlash(std::string path) {
    CUtilities::SetPathToCompare(path);
    return path;
}

// The credential commands of this build. They take no arguments: device
// path, user and password are not put into them.
const char* const ADD_NET_DEVICE_CREDENTIAL_CMD = "Add_Net_Device_Credential_Command_Not_Defined";
const char* const REMOVE_NET_DEVICE_CREDENTIAL_CMD = "Remove_Net_Device_Credential_Command_Not_Defined";

// Output of a system command is read in pieces of at most this many
// characters.
constexpr int SYSTEM_CMD_PIECE = 127;

const char* const SYSTEM_CMD_SEPARATOR = "\n------\n";

std::string TextOrEmpty(const char* text) { return text ? text : ""; }

}  // namespace

void CUtilities::RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcDirPath, long long iFileSize) {
    CRuntimeParam* rp = pRuntimeParam;
    if (rp == nullptr) return;
    LogArgu la = {"Utilities.RunTestMode"};
    if (pcDirPath == nullptr || *pcDirPath == '\0') {
        LogInfo(rp, "%sTarget directory is NULL", TEST_CANNOT_START);
        return;
    }
    if (iFileSize <= 0) {
        LogInfo(rp, "%sFile size is ZERO", TEST_CANNOT_START);
        return;
    }
    char folder[PATH_BUFFER_SIZE];
    GetCanonicalPath(rp, &la, folder, pcDirPath);
    char err[ERROR_TEXT_SIZE] = "";
    if (!OS_IsFileExists(folder, err)) {
        LogInfo(rp, "%sFail to access directory \"%s\" (%s)", TEST_CANNOT_START, folder, err);
        return;
    }
    const std::string testFolder = WithTrailingSlash(folder) + "_test";
    const std::string testFile = WithTrailingSlash(testFolder) + "test.bak";
    const std::string secondFile = testFile + "2";
    const char* const pcFolder = testFolder.c_str();
    const char* const pcFile = testFile.c_str();
    const char* const pcSecond = secondFile.c_str();
    if (OS_IsFileExists(pcFolder, nullptr)) {
        LogInfo(rp, "%sTest directory \"%s\" already exist", TEST_CANNOT_START, pcFolder);
        return;
    }

    LogInfo(rp, "%s", "=============================== START TEST ===============================");
    LogInfo(rp, " >> Directory : \"%s\"", pcFolder);
    LogInfo(rp, " >> File      : \"%s\"", pcFile);
    LogInfo(rp, "%s", "");
    LogInfo(rp, "%s", "------------------------ ATTRIBUTES of file system -----------------------");

    char printable[64];
    LogInfo(rp, "%-40s: %llu", "Current time (in milliseconds)", GetCurrentSystemTimeInMilliseconds());
    const std::pair<const char*, unsigned long long> sizes[] = {
        {"Maximum File Size", GetMaxFileSize(folder)},
        {"Total Disk Space", GetTotalDiskSpace(folder)},
        {"Free Disk Space", GetFreeDiskSpace(folder)},
        {"Free Disk Space To Caller", GetFreeDiskSpaceAvailableToCaller(folder)},
    };
    for (const auto& size : sizes) {
        GetPrintableFileSize(size.second, printable, sizeof printable);
        LogInfo(rp, "%-40s: %s", size.first, printable);
    }
    const std::pair<const char*, unsigned long long> slots[] = {
        {"Total File Slots", GetTotalFileSlots(folder)},
        {"Free File Slots", GetFreeFileSlots(folder)},
        {"Free File Slots To Caller", GetFreeFileSlotsAvailableToCaller(folder)},
    };
    for (const auto& count : slots) LogInfo(rp, "%-40s: %llu(%llX)", count.first, count.second, count.second);
    LogInfo(rp, "%s", "");
    LogInfo(rp, "%s", "-------------------------------- FILE IO ---------------------------------");

    // Every step runs and is reported even after a failure, so that the
    // report shows all that the file system cannot do.
    bool created = OS_FolderCreate(rp, &la, pcFolder, 0755, err) == 0;
    ReportTestStep(*this, rp, created && OS_IsFileExists(pcFolder, nullptr),
                   TestText("Create directory \"%s\"", pcFolder), created ? "Directory not exist" : err);

    int file = OS_FileCreate(rp, &la, pcFile, err);
    ReportTestStep(*this, rp, file != -1 && OS_IsFileExists(pcFile, nullptr),
                   TestText("Create file \"%s\"", pcFile), file != -1 ? "File not exist" : err);
    bool closed = OS_FileClose(rp, &la, pcFile, file, err) == 0;
    ReportTestStep(*this, rp, closed, TestText("Close file \"%s\"", pcFile), err);

    unsigned long long size = (unsigned long long)iFileSize;
    RunTestUpdateFileSize(rp, &la, pcFile, "Enlarge file", size + 1024);
    RunTestUpdateFileSize(rp, &la, pcFile, "Shrink file", size);

    file = OS_FileOpen(rp, &la, pcFile, O_RDWR, false, err);
    ReportTestStep(*this, rp, file != -1, TestText("Open file \"%s\"", pcFile), err);
    RunTestReadWriteFile(rp, &la, file, 0);
    RunTestReadWriteFile(rp, &la, file, size);

    struct stat st;
    int savedMode = 0;
    bool statOk = OS_GetFileStat(rp, &la, pcFile, &st, err) == 0;
    if (statOk) savedMode = (int)st.st_mode;
    ReportTestStep(*this, rp, statOk, TestText("Get file stat from file \"%s\"", pcFile), err);
    RunTestUpdateFileAttribute(rp, &la, pcFile, 33060);  // 0100444: a regular file readable by all
    RunTestUpdateFileAttribute(rp, &la, pcFile, savedMode);

    closed = OS_FileClose(rp, &la, pcFile, file, err) == 0;
    ReportTestStep(*this, rp, closed, TestText("Close file \"%s\"", pcFile), err);

    bool renamed = OS_FileRename(rp, &la, pcFile, pcSecond, err) == 0;
    ReportTestStep(*this, rp, renamed, TestText("Rename file from \"%s\" to \"%s\"", pcFile, pcSecond), err);
    bool removed = OS_FileRemove(rp, &la, pcSecond, err) == 0;
    ReportTestStep(*this, rp, removed, TestText("Remove file \"%s\"", pcSecond), err);
    removed = OS_FolderRemove(rp, &la, pcFolder, err) == 0;
    ReportTestStep(*this, rp, removed && !OS_IsFileExists(pcFolder, nullptr),
                   TestText("Remove directory \"%s\"", pcFolder), removed ? "Directory still exist" : err);

    // Whatever failed above, leave nothing behind.
    unlink(pcFile);
    unlink(pcSecond);
    rmdir(pcFolder);
    LogInfo(rp, "%s", "================================ END TEST ================================");
}

void CUtilities::RunTestUpdateFileSize(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcFilePath,
                                       const char* pcAction, unsigned long long iSize) {
    CRuntimeParam* rp = pRuntimeParam;
    char err[ERROR_TEXT_SIZE] = "";
    bool sized = OS_SetFileSize(rp, pLogArgu, pcFilePath, iSize, err);
    ReportTestStep(*this, rp, sized, TestText("%s \"%s\" size to %lld", pcAction, pcFilePath, (long long)iSize), err);

    int file = -1;
    if (sized) file = OS_FileOpen(rp, pLogArgu, pcFilePath, O_RDWR, false, err);
    ReportTestStep(*this, rp, file != -1, TestText("Open file \"%s\"", pcFilePath),
                   sized ? err : "Set file size failed");

    unsigned long long current = 0;
    bool verified = false;
    if (file != -1) {
        current = (unsigned long long)OS_FileSeek(rp, pLogArgu, file, 0, SEEK_END, err);
        verified = current == iSize;
    }
    ReportTestStep(*this, rp, verified, "Verify file size",
                   file == -1 ? std::string("Open file failed")
                              : TestText("Size not match (current size = %llu)", current));

    bool closed = OS_FileClose(rp, pLogArgu, pcFilePath, file, err) == 0;
    ReportTestStep(*this, rp, closed, TestText("Close file \"%s\"", pcFilePath), err);
}

void CUtilities::RunTestReadWriteFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                                      unsigned long long iPos) {
    CRuntimeParam* rp = pRuntimeParam;
    char err[ERROR_TEXT_SIZE] = "";
    // 2047 bytes of value 1, ended by a zero so that they compare as text.
    char data[2048];
    memset(data, 1, sizeof data - 1);
    data[sizeof data - 1] = '\0';
    const int length = (int)strlen(data);

    unsigned long long at = (unsigned long long)OS_FileSeek(rp, pLogArgu, iFile, (long long)iPos, SEEK_SET, err);
    bool seeked = at == iPos;
    ReportTestStep(*this, rp, seeked, TestText("File seek to position %llu", iPos),
                   TestText("Position not match (current pos = %llu)", at));

    int written = -1;
    if (seeked) written = OS_FileWrite(rp, pLogArgu, iFile, data, (unsigned int)length, err);
    bool wrote = seeked && written == length;
    ReportTestStep(*this, rp, wrote, TestText("Write data with length %d", length),
                   seeked ? TestText("Data lenght not match (write length = %d)", written)
                          : std::string("File seek failed"));

    bool moved = false;
    if (wrote) {
        at = (unsigned long long)OS_FileSeek(rp, pLogArgu, iFile, (long long)iPos, SEEK_SET, err);
        moved = at == iPos;
    }
    ReportTestStep(*this, rp, moved, TestText("Move pointer to position %llu", iPos),
                   wrote ? TestText("Position not match (current pos = %llu)", at) : std::string("File write failed"));

    char readBack[sizeof data] = {0};
    int read = -1;
    if (moved) read = OS_FileRead(rp, pLogArgu, iFile, readBack, (unsigned int)length, err);
    bool readOk = moved && read == length;
    ReportTestStep(*this, rp, readOk, TestText("Read data with length %d", length),
                   moved ? TestText("Data lenght not match (read length = %d)", read)
                         : std::string("File seek failed"));

    bool same = readOk && strcmp(readBack, data) == 0;
    ReportTestStep(*this, rp, same, TestText("Verify data with size %d", length),
                   readOk ? "Data content not match" : "File read failed");
}

void CUtilities::RunTestUpdateFileAttribute(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                            const char* pcFilePath, int iMode) {
    CRuntimeParam* rp = pRuntimeParam;
    char err[ERROR_TEXT_SIZE] = "";
    bool set = OS_SetFileMode(rp, pLogArgu, pcFilePath, iMode, err) == 0;
    ReportTestStep(*this, rp, set, TestText("Set file mode %X to file \"%s\"", (unsigned)iMode, pcFilePath), err);

    struct stat st;
    bool got = false;
    if (set) got = OS_GetFileStat(rp, pLogArgu, pcFilePath, &st, err) == 0;
    ReportTestStep(*this, rp, got, TestText("Get file mode from file \"%s\"", pcFilePath),
                   set ? err : "Set file mode failed");

    // The whole mode word, file type bits included.
    bool same = got && (int)st.st_mode == iMode;
    ReportTestStep(*this, rp, same, TestText("Verify file mode %X from file \"%s\"", (unsigned)iMode, pcFilePath),
                   got ? TestText("File mode not match (current file mode = %X)", (unsigned)st.st_mode)
                       : std::string("Get file mode failed"));
}

bool CUtilities::RunQuickTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, int iMode, char* pcStatus) {
    CRuntimeParam* rp = pRuntimeParam;
    LogArgu la = {"Utilities.RunQuickTestMode"};
    if (rp == nullptr || pcPath == nullptr || *pcPath == '\0') {
        const char* reason = "Invalid argument";
        if (rp && rp->IsLogGeneralInfo()) LogInfo(rp, "Quick test failed. Error=\"%s\"", reason);
        if (pcStatus) snprintf(pcStatus, ERROR_TEXT_SIZE, "%s", reason);
        return false;
    }
    if (iMode != 0) {
        if (pcStatus) snprintf(pcStatus, ERROR_TEXT_SIZE, "Unknown mode (%d)", iMode);
        return false;
    }
    char path[PATH_BUFFER_SIZE];
    GetCanonicalPath(rp, &la, path, pcPath);
    char reason[ERROR_TEXT_SIZE] = "";
    if (OS_IsFileExists(path, reason)) return true;
    if (rp->IsLogGeneralInfo()) LogInfo(rp, "Quick exist test failed. Error=\"%s\"", reason);
    if (pcStatus) snprintf(pcStatus, ERROR_TEXT_SIZE, "%s", reason);
    return false;
}

int CUtilities::ExecuteSystemCmd(CRuntimeParam* pRuntimeParam, const char* pcCmd, bool bLogAlways) {
    CRuntimeParam* rp = pRuntimeParam;
    if (pcCmd == nullptr) return -1;
    const bool logOutput = bLogAlways || (rp && rp->IsLogGeneralInfo());
    if (logOutput) LogInfo(rp, "%s", pcCmd);

    FILE* pipe = popen(pcCmd, "r");
    if (pipe == nullptr) {
        if (logOutput || (rp && rp->IsLogError())) LogError(rp, "%s", "Fail to execute cmd (popen() failed)");
        return -1;
    }
    if (logOutput) LogRaw(rp, "%s", SYSTEM_CMD_SEPARATOR);
    char piece[SYSTEM_CMD_PIECE + 1];
    while (fgets(piece, sizeof piece, pipe) != nullptr) {
        if (logOutput) LogRaw(rp, "%s", piece);
    }

    int status = -1;
    char statusText[64];
    if (feof(pipe)) {
        status = pclose(pipe);
        snprintf(statusText, sizeof statusText, "Process returned %d\n", status);
    } else {
        pclose(pipe);
        snprintf(statusText, sizeof statusText, "%s", "Error: Failed to read the pipe to the end\n");
    }
    if (logOutput) {
        LogRaw(rp, "%s", SYSTEM_CMD_SEPARATOR);
        LogRaw(rp, "%s", statusText);
    }
    return status;
}

int CUtilities::ExecuteAddNetDeviceCredentialCmd(CRuntimeParam* pRuntimeParam, const char* /*pcPath*/,
                                                 const char* /*pcUser*/, const char* /*pcPwd*/) {
    return ExecuteSystemCmd(pRuntimeParam, ADD_NET_DEVICE_CREDENTIAL_CMD, false);
}

int CUtilities::ExecuteRemoveNetDeviceCredentialCmd(CRuntimeParam* pRuntimeParam, const char* /*pcPath*/) {
    return ExecuteSystemCmd(pRuntimeParam, REMOVE_NET_DEVICE_CREDENTIAL_CMD, false);
}

bool CUtilities::AddNetDeviceCredential(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcUser,
                                        const char* pcPwd) {
    if (pcPath == nullptr) return false;
    std::lock_guard<std::mutex> lock(m_hMutexNetDeviceCredential);
    if (ExecuteAddNetDeviceCredentialCmd(pRuntimeParam, pcPath, pcUser, pcPwd) != 0) return false;
    if (std::find(m_NetDeviceCredential.begin(), m_NetDeviceCredential.end(), pcPath) == m_NetDeviceCredential.end())
        m_NetDeviceCredential.emplace_back(pcPath);
    return true;
}

bool CUtilities::RemoveNetDeviceCredential(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    if (pcPath == nullptr) return false;
    std::lock_guard<std::mutex> lock(m_hMutexNetDeviceCredential);
    if (ExecuteRemoveNetDeviceCredentialCmd(pRuntimeParam, pcPath) != 0) return false;
    auto listed = std::find(m_NetDeviceCredential.begin(), m_NetDeviceCredential.end(), pcPath);
    if (listed != m_NetDeviceCredential.end()) m_NetDeviceCredential.erase(listed);
    return true;
}

void CUtilities::RemoveAllNetDeviceCredential(CRuntimeParam* pRuntimeParam) {
    std::lock_guard<std::mutex> lock(m_hMutexNetDeviceCredential);
    for (const std::string& path : m_NetDeviceCredential)
        ExecuteRemoveNetDeviceCredentialCmd(pRuntimeParam, path.c_str());
    m_NetDeviceCredential.clear();
}

int CUtilities::GetNetDeviceCredential(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    std::lock_guard<std::mutex> lock(m_hMutexNetDeviceCredential);
    int count = (int)m_NetDeviceCredential.size();
    if (bPrintDetails) {
        for (int i = 0; i < count; ++i)
            LogRaw(pRuntimeParam, " Net device path %d - %s", i + 1, m_NetDeviceCredential[(size_t)i].c_str());
    }
    return count;
}

void CUtilities::AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                                const char* pcUser, const char* pcPwd) {
    if (pcDatastoreMoid == nullptr) return;
    VSphereInfo info{pcDatastoreMoid, TextOrEmpty(pcHost), TextOrEmpty(pcPort), TextOrEmpty(pcUser),
                     TextOrEmpty(pcPwd)};
    std::lock_guard<std::mutex> lock(m_hMutexVSphereInfos);
    m_mVSphereInfos[info.sDatastoreMoid] = std::move(info);
}

void CUtilities::RemoveVSphereInfo(const char* pcDatastoreMoid) {
    if (pcDatastoreMoid == nullptr) return;
    std::lock_guard<std::mutex> lock(m_hMutexVSphereInfos);
    m_mVSphereInfos.erase(pcDatastoreMoid);
}

int CUtilities::GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    std::lock_guard<std::mutex> lock(m_hMutexVSphereInfos);
    if (bPrintDetails) {
        int number = 0;
        for (const auto& row : m_mVSphereInfos) {
            const VSphereInfo& info = row.second;
            LogRaw(pRuntimeParam, " NFS datastore %d - %s (%s:%s)", ++number, info.sDatastoreMoid.c_str(),
                   info.sHost.c_str(), info.sPort.c_str());
        }
    }
    return (int)m_mVSphereInfos.size();
}

void CUtilities::RemoveAllVSphereInfoWithWebCtrl(CRuntimeParam* pRuntimeParam) {
    CRuntimeParam* rp = pRuntimeParam;
    std::lock_guard<std::mutex> lock(m_hMutexVSphereInfos);
    if (m_mVSphereInfos.empty()) return;
    const bool logInfo = rp && rp->IsLogGeneralInfo();
    auto controller = std::make_unique<CVSphereWebController>();
    if (logInfo) LogInfo(rp, "%s", "Start cleanup mounted NFS datastores");
    // Lowest MOID first; a record goes whether the unmount worked or not.
    while (!m_mVSphereInfos.empty()) {
        auto first = m_mVSphereInfos.begin();
        const VSphereInfo& info = first->second;
        if (logInfo)
            LogInfo(rp, "Unmount NFS datastore with MOID \"%s\" on host \"%s:%s\"", info.sDatastoreMoid.c_str(),
                    info.sHost.c_str(), info.sPort.c_str());
        controller->RemoveSession(info.sDatastoreMoid.c_str(), info.sHost.c_str(), info.sPort.c_str(),
                                  info.sUser.c_str(), info.sPwd.c_str());
        m_mVSphereInfos.erase(first);
    }
    controller.reset();
    m_mVSphereInfos.clear();
}
