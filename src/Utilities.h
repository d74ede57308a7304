#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FileTable.h"
#include "ICallback.h"
#include "FileDescriptor.h"
#include "RedirectedFile.h"
#include "RuntimeParam.h"

class CFileLogger;

// Length of the one-line reason texts that operations write for their callers.
constexpr size_t ERROR_TEXT_SIZE = 2048;
// Size of the path buffers of the file service (the system's PATH_MAX).
constexpr size_t PATH_BUFFER_SIZE = 4096;
// Length of the buffer that one formatted log message may fill.
constexpr size_t LOG_MESSAGE_SIZE = 2048;

// One cached open descriptor.
struct OpenedFileInfo {
    int iFile = -1;
    std::string sTimeKey;
    std::string sPath;
};

// One export: a local folder offered to clients under a name.
struct MountInfo {
    std::string sLocalMountPath;  // canonical; no trailing slash unless the root
    std::string sExportName;      // the key of the export table
    std::string sIcpID;           // IPC ID of the controller that defined it
    std::string sRemoteIpAddr;    // the client that mounted it; empty when none
};

// One backup session announced by the controller.
struct SessionInfo {
    std::string sSessionID;
    std::string sLocalMountPath;  // as given, not canonicalised
};

// The file service: log routing, OS file primitives, and the tables the
// server keeps about exports, files and redirected files.
class CUtilities {
public:
    CUtilities();
    virtual ~CUtilities();
    CUtilities(const CUtilities&) = delete;
    CUtilities& operator=(const CUtilities&) = delete;

    // ---- log routing -------------------------------------------------------
    void SetCallback(ICallback* callback) { m_pCallback = callback; }
    ICallback* GetCallback() const { return m_pCallback.load(); }
    void SetFileLogger(CFileLogger* logger) { m_pFileLogger = logger; }
    CFileLogger* GetFileLogger() const { return m_pFileLogger; }

    // printf-style front ends: format (bounded) and hand to the virtual slot.
    void LogInfo(CRuntimeParam* rp, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    void LogError(CRuntimeParam* rp, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    void LogRaw(CRuntimeParam* rp, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

    // Output slots, overridden by the external server to copy lines over IPC.
    virtual void LogInfo(CRuntimeParam* rp, char* text);
    virtual void LogError(CRuntimeParam* rp, char* text);
    virtual void LogRaw(CRuntimeParam* rp, char* text);

    // Change notifications of redirected files: 0 accepts, -1 when nobody
    // is there to answer.
    virtual int LogUpdateRedirectedFileAttributes(CRuntimeParam* rp, const char* pcPath, bool bSize,
                                                  unsigned long long iSize, bool bAccessTime,
                                                  unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                                  unsigned long lLastModifiedTimeSec);
    virtual int LogRemoveRedirectedFile(CRuntimeParam* rp, const char* pcPath);
    virtual int LogRenameRedirectedFile(CRuntimeParam* rp, const char* pcPathFm, const char* pcPathTo);
    virtual int LogWriteRedirectedFile(CRuntimeParam* rp, const char* pcPath, unsigned long long iSeek,
                                       int iSeekType, unsigned int iLen);

    // Routing by ID: callback, else file logger, else standard output.
    void LogInfo(const char* id, char* text);
    void LogError(const char* id, char* text);
    void LogRaw(const char* id, char* text);

    // Twins of the notifications that take the caller's ID.
    int UpdateRedirectedFileAttributes(const char* id, const char* pcPath, bool bSize, unsigned long long iSize,
                                       bool bAccessTime, unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                       unsigned long lLastModifiedTimeSec);
    int RemoveRedirectedFile(const char* id, const char* pcPath);
    int RenameRedirectedFile(const char* id, const char* pcPathFm, const char* pcPathTo);
    int WriteRedirectedFile(const char* id, const char* pcPath, unsigned long long iSeek, int iSeekType,
                            unsigned int iLen);

    // "<system text> (<errnum>)"; the buffer is left alone when the system
    // has no text for the number.
    static void GetLastErrorText(char* buffer, int errnum, size_t size = ERROR_TEXT_SIZE);

    // ---- OS file primitives ------------------------------------------------
    // Each makes one system call, logs its success (file access) or failure
    // (error) and copies the error text into err when err is not null; err
    // must hold ERROR_TEXT_SIZE bytes.
    // flags are added to the open flags (O_NOFOLLOW: never create through a link).
    int OS_FileCreate(CRuntimeParam* rp, LogArgu* la, const char* path, char* err, int flags = 0);
    int OS_FileRemove(CRuntimeParam* rp, LogArgu* la, const char* path, char* err);
    int OS_FileRename(CRuntimeParam* rp, LogArgu* la, const char* pathOld, const char* pathNew, char* err);
    int OS_FileOpen(CRuntimeParam* rp, LogArgu* la, const char* path, int flags, bool retry, char* err);
    int OS_FileClose(CRuntimeParam* rp, LogArgu* la, const char* path, int fd, char* err);
    int OS_FileRead(CRuntimeParam* rp, LogArgu* la, int fd, void* buf, unsigned int len, char* err);
    int OS_FileWrite(CRuntimeParam* rp, LogArgu* la, int fd, const void* buf, unsigned int len, char* err);
    long long OS_FileSeek(CRuntimeParam* rp, LogArgu* la, int fd, long long offset, int whence, char* err);
    long long OS_FileTell(CRuntimeParam* rp, LogArgu* la, int fd, char* err);
    // Reads at offset without moving the descriptor's position (one call
    // where a seek and a read would take two).
    int OS_FileReadAt(CRuntimeParam* rp, LogArgu* la, int fd, void* buf, unsigned int len, long long offset,
                      char* err);
    // Writes at offset without moving the descriptor's position; reports as
    // OS_FileWrite does.
    int OS_FileWriteAt(CRuntimeParam* rp, LogArgu* la, int fd, const void* buf, unsigned int len, long long offset,
                       char* err);
    int OS_FolderCreate(CRuntimeParam* rp, LogArgu* la, const char* path, int mode, char* err);
    int OS_FolderRemove(CRuntimeParam* rp, LogArgu* la, const char* path, char* err);
    int OS_SetFileMode(CRuntimeParam* rp, LogArgu* la, const char* path, int mode, char* err);
    // known: an lstat of path the caller took moments before, reported as
    // this one's result instead of asking again.
    int OS_GetFileStat(CRuntimeParam* rp, LogArgu* la, const char* path, struct stat* st, char* err,
                       const struct stat* known = nullptr);
    bool OS_SetFileSize(CRuntimeParam* rp, LogArgu* la, const char* path, unsigned long long size, char* err);
    int OS_FileForceOpen(CRuntimeParam* rp, LogArgu* la, const char* path, char* err);
    static bool OS_IsFileExists(const char* path, char* err);

    // ---- file-system figures ----------------------------------------------
    static unsigned long long GetTotalDiskSpace(const char* path);
    static unsigned long long GetFreeDiskSpace(const char* path);
    static unsigned long long GetFreeDiskSpaceAvailableToCaller(const char* path);
    static unsigned long long GetTotalFileSlots(const char* path);
    static unsigned long long GetFreeFileSlots(const char* path);
    static unsigned long long GetFreeFileSlotsAvailableToCaller(const char* path);
    // What GetFileSystemID answers when statvfs fails.
    static constexpr unsigned long long UNKNOWN_FILE_SYSTEM_ID = 4;
    static unsigned long long GetFileSystemID(const char* path);
    static unsigned long long GetMaxFileSize(const char* path);
    static unsigned long long MaxFileSizeOfType(unsigned long fsType);
    // The least MaxFileSizeOfType answers (FAT's).
    static constexpr unsigned long long SMALLEST_MAX_FILE_SIZE = 1ULL << 32;

    static unsigned long long GetCurrentSystemTimeInMilliseconds();
    static void GetPrintableFileSize(unsigned long long size, char* out, size_t outSize = 32);
    static void SplitIntoVector(const char* text, char delimiter, std::vector<std::string>& out);

    // ---- cached descriptors ------------------------------------------------
    // Thins the descriptor cache: closes the least recently used tenth, or
    // everything when fewer than ten are cached. The caller holds
    // m_hMutexOpenedFileHandles, except on the out-of-descriptors retry of
    // OS_FileOpen reached from outside the cache.
    void CloseExceededCachedFileHandle(CRuntimeParam* rp, LogArgu* la);
    // How many descriptors the cache keeps before it thins: at most
    // MAX_CACHED_FILE_HANDLES, less under a low descriptor limit.
    static size_t MaxCachedFileHandles();
    static constexpr size_t MAX_CACHED_FILE_HANDLES = 1024;
    // Raises the soft limit of open descriptors to the hard limit.
    static void RaiseDescriptorLimit();

    // ---- path convention ---------------------------------------------------
    // Resolves in (through realpath) into out, which holds PATH_BUFFER_SIZE
    // bytes; a path that cannot be resolved is copied unchanged (cut to fit).
    // A path the caller knows to be canonical is copied without realpath
    // and logged as a resolved one.
    void GetCanonicalPath(CRuntimeParam* rp, LogArgu* la, char* out, const char* in, bool isCanonical = false);
    // Appends "/" to a non-empty path that lacks one, so that "is inside"
    // tests can compare by prefix. size is the buffer's size.
    static void SetPathToCompare(char* path, size_t size = PATH_BUFFER_SIZE);
    static void SetPathToCompare(std::string& path);

    // ---- file table, export and session tables, file operations ------------
    // File IDs and handles. GetFileID canonicalises path first; NO_FILE_ID
    // when there is no table. GetFileHandle zero-fills size bytes of handle,
    // stores the ID in bytes 0..3 (size must be at least 5) and the verifier
    // in bytes 4..11, as far as they fit. GetFilePath reads the ID from bytes
    // 0..3 of a handle of handleSize bytes; a handle whose verifier is not
    // the current one names no file and sets *stale. A caller that already
    // holds the canonical form of path passes canonical and saves the
    // realpath walk (the same log line is written).
    unsigned int GetFileID(CRuntimeParam* param, LogArgu* argu, const char* path, bool canonical = false);
    bool GetFileHandle(CRuntimeParam* param, LogArgu* argu, const char* path, unsigned char* handle, int size,
                       bool canonical = false);
    bool GetFilePath(CRuntimeParam* param, const unsigned char* handle, char* buffer, int size,
                     size_t handleSize = FILE_HANDLE_SIZE, bool* stale = nullptr);
    // Empties the file table and renews the verifier.
    void ResetFileTable();

    // Export table. Error texts are written into err (ERROR_TEXT_SIZE bytes)
    // when err is not null. Removing the last export resets the file table.
    bool AddMountInfo(CRuntimeParam* rp, LogArgu* la, const char* localPath, const char* exportName,
                      const char* ipcId, char* err);
    bool IsMountInfoExists(CRuntimeParam* rp, LogArgu* la, const char* localPath, const char* exportName,
                           char* err);
    void RemoveMountInfoByLocalMountPath(CRuntimeParam* rp, LogArgu* la, const char* localPath);
    void RemoveMountInfoByExportName(const char* exportName);
    void RemoveAllMountInfo();
    // addr given: mount (refused while someone holds the export); null: unmount.
    bool UpdateMountClientIpAddrByExportName(const char* exportName, const char* addr, MountInfo* out, char* err);
    // Unmount asked by addr: refused, changing nothing, when another address
    // holds the export.
    bool ReleaseMountClientIpAddrByExportName(const char* exportName, const char* addr, char* err);
    // The first export (in export-name order) that holds path.
    bool GetMountInfoByPath(CRuntimeParam* rp, LogArgu* la, const char* path, MountInfo* out);
    bool IsRemoteAddrExists(const char* addr);
    int GetMountInfo(CRuntimeParam* rp, bool bClientMountedOnly, bool bPrintDetails);

    // Session table.
    void AddSessionInfo(const char* sessionId, const char* localPath);
    void RemoveSessionInfo(const char* sessionId);
    void RemoveSessionInfoByLocalMountPath(const char* localPath);
    void RemoveAllSessionInfo();
    bool IsSessionExists(const char* sessionId);
    int GetSessionInfo(CRuntimeParam* rp, bool bPrintDetails);

    // Empties every table of the file service (server stop).
    void Reset(CRuntimeParam* rp, LogArgu* la);

    // Descriptor cache. GetCachedFileHandle opens read-write when asked to or
    // when the path lies in an export, else read-only; -1 when the open fails.
    int GetCachedFileHandle(CRuntimeParam* rp, LogArgu* la, const char* pcPath, bool bAlwaysReadWrite);
    void CloseCachedFileHandle(CRuntimeParam* rp, LogArgu* la, const char* pcPath);
    // Closes the file or folder pcPath and everything beneath it.
    void CloseAllCachedFileHandles(CRuntimeParam* rp, LogArgu* la, const char* pcPath);
    void CloseAllCachedFileHandles(CRuntimeParam* rp, LogArgu* la);

    // File operations by path; iSeekType is the lseek origin.
    int ReadFile(CRuntimeParam* rp, LogArgu* la, const char* pcPath, unsigned long long iSeek, int iSeekType,
                 void* pvBuf, unsigned int iLen, bool* pbEof);
    // The descriptor a write of a plain file went through, for the caller
    // that syncs the data. The write goes through a duplicate of the cached
    // descriptor, so that another thread thinning the cache cannot close it
    // meanwhile: `held`, one the caller already has of this path's cached
    // descriptor, as long as the cache has closed nothing since `closes`;
    // otherwise a new one, left in `duplicate` (with `held` -1 and `closes`
    // the count it was taken at). A redirected file leaves both unset.
    struct WriteSync {
        int held = -1;
        unsigned long long closes = 0;
        CFileDescriptor duplicate;
    };
    // With pSync, as above; -1 when no duplicate can be taken.
    int WriteFile(CRuntimeParam* rp, LogArgu* la, const char* pcPath, unsigned long long iSeek, int iSeekType,
                  const void* pvBuf, unsigned int iLen, WriteSync* pSync = nullptr);
    // iSize is returned when the size cannot be found.
    long long GetFileSize(CRuntimeParam* rp, LogArgu* la, const char* pcPath, long long iSize);
    // pCreated, when given, receives the new file's descriptor instead of it
    // being closed.
    bool NewFile(CRuntimeParam* rp, LogArgu* la, const char* pcPath, CFileDescriptor* pCreated = nullptr);
    bool RemoveFile(CRuntimeParam* rp, LogArgu* la, const char* pcPath);
    bool RenameFile(CRuntimeParam* rp, LogArgu* la, const char* pathFrom, const char* pathTo);
    // Only mode and size are applied to local files; owner, group and times
    // are logged only.
    bool UpdateFileAttributes(CRuntimeParam* rp, LogArgu* la, const char* pcPath, bool bMode, unsigned int iMode,
                              bool bUid, unsigned int iUid, bool bGid, unsigned int iGid, bool bSize,
                              unsigned long long lSize, bool bAccessTime, unsigned int lAccessTimeSec,
                              unsigned int lAccessTimeNanoSec, bool bLastModifiedTime,
                              unsigned int lLastModifiedTimeSec, unsigned int lLastModifiedTimeNanoSec);

    // ---- redirected files ---------------------------------------------------
    // The registry of open redirected files, by their path in the exported
    // tree. It owns the files; a returned pointer is borrowed and stays valid
    // until the path is closed (the controller closes a file only when no
    // client reads it). Unknown and null paths are ignored.

    // Replaces any file registered under pcPath with a new one of iSize
    // bytes, whose ID is the number of files registered at that moment. With
    // bCreateInfoFile its segments go to the local file pcPath itself (which
    // must exist when segments are added), else they stay in memory. Sizes
    // in MiB; zero or negative keeps 32 and 1024.
    CRedirectedFile* OpenRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath, long long iSize,
                                        bool bCreateInfoFile, int iInfoFileSegmentSizeMB,
                                        int iInfoFileCheckPointSizeMB);
    void CloseRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath);
    // Closes the file pcPath, or every file beneath the folder pcPath.
    void CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam, const char* pcPath);
    void CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam);
    // The file's AddSegment; false for an unknown path (pcStatus untouched).
    bool AddRedirectedFileSegment(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcSourcePath,
                                  long long iSrcFileOffset, long long iOffset, long long iLength, char* pcStatus);
    void ExportRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcExportPath);
    void ExportRedirectedFileInfo(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcExportPath,
                                  bool bMergeRange);
    // Closes any file registered under pathTo, then registers the file of
    // pathFrom under pathTo. Its info file keeps the name pathFrom.
    void RenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pathFrom, const char* pathTo);
    CRedirectedFile* GetRedirectedFile(const char* pcPath);

    // ---- platform tests, system commands, vSphere records -------------------
    // Checks that the file system under pcDirPath supports what the server
    // needs: creates "<pcDirPath>/_test", a file of iFileSize bytes in it,
    // resizes, writes, reads, changes modes, renames and removes, and logs a
    // report of every step whatever the log categories. Needs pRuntimeParam.
    void RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcDirPath, long long iFileSize);
    // Mode 0 tests that pcPath exists; other modes are unknown. On false the
    // reason goes to pcStatus (ERROR_TEXT_SIZE bytes; may be null).
    bool RunQuickTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, int iMode, char* pcStatus);
    // Runs pcCmd through the shell and returns its wait status (exit code 1
    // gives 256), or -1 when it could not be run or its output not read to
    // the end. The output is logged when bLogAlways or general info is on.
    int ExecuteSystemCmd(CRuntimeParam* pRuntimeParam, const char* pcCmd, bool bLogAlways);

    // Network devices whose credentials were registered through the external
    // credential commands. User names and passwords are handed to the
    // command runner only; they are never stored or logged.
    bool AddNetDeviceCredential(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcUser,
                                const char* pcPwd);
    bool RemoveNetDeviceCredential(CRuntimeParam* pRuntimeParam, const char* pcPath);
    void RemoveAllNetDeviceCredential(CRuntimeParam* pRuntimeParam);
    int GetNetDeviceCredential(CRuntimeParam* pRuntimeParam, bool bPrintDetails);

    // One NFS datastore that a vSphere host mounted from this server, with
    // the credentials needed to unmount it when the server stops.
    struct VSphereInfo {
        std::string sDatastoreMoid;
        std::string sHost;
        std::string sPort;
        std::string sUser;
        std::string sPwd;  // kept in memory only, never logged
    };
    // Stores the record under its MOID, replacing one with the same MOID.
    void AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort, const char* pcUser,
                        const char* pcPwd);
    void RemoveVSphereInfo(const char* pcDatastoreMoid);
    // Number of records; with bPrintDetails each one is logged raw.
    int GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails);
    // Unmounts every recorded datastore through the vSphere web control tool,
    // in ascending MOID order, and forgets all records whatever the outcome.
    void RemoveAllVSphereInfoWithWebCtrl(CRuntimeParam* pRuntimeParam);

protected:
    // Atomic: the JNI binding installs and removes the callback from a Java
    // thread while server threads route lines through it.
    std::atomic<ICallback*> m_pCallback{nullptr};
    CFileLogger* m_pFileLogger = nullptr;

    // Descriptor cache: path -> descriptor, and time key -> path ordered by
    // last access.
    using OpenedFileMap = std::map<std::string, OpenedFileInfo, std::less<>>;  // found by const char* too
    OpenedFileMap m_OpenedFileHandles;
    std::map<std::string, std::string> m_OpenedFileLastAccessList;
    std::recursive_mutex m_hMutexOpenedFileHandles;
    // MaxCachedFileHandles as of the second m_iCacheBoundSecond.
    size_t m_iCacheBound = MAX_CACHED_FILE_HANDLES;
    time_t m_iCacheBoundSecond = 0;
    // Rows that left the cache (their descriptors closed): while it stands
    // still, every cached path still has the descriptor it had.
    unsigned long long m_iCachedRowsClosed = 0;

    // ---- members of the file table, export and session tables ---------------
    // Lock order: descriptor cache, then export table, then file table; the
    // session table is taken alone.
    std::unique_ptr<CFileTable> m_pFileTable{new CFileTable};
    std::mutex m_hMutexFileTable;
    // Bytes 4..11 of every handle given out since the table was last emptied
    // (file-table mutex).
    unsigned char m_cHandleVerifier[HANDLE_VERIFIER_SIZE] = {};
    // A new random verifier (file-table mutex held, or in the constructor).
    void RenewHandleVerifier();
    std::map<std::string, MountInfo> m_MountInfos;  // by export name
    std::mutex m_hMutexMountInfos;
    std::map<std::string, SessionInfo> m_SessionInfos;  // by session ID
    std::mutex m_hMutexSessionInfos;

    // Unlocked parts shared by the export operations (mount mutex held).
    bool FindMountConflict(CRuntimeParam* rp, LogArgu* la, const char* localPath, const char* exportName,
                           char* err);
    // Descriptor cache helpers (cache mutex held).
    // Files path in the last-access list under a fresh key for fd; the key.
    std::string AddTimeKey(int fd, time_t now, const char* path);
    void CloseCachedRow(CRuntimeParam* rp, LogArgu* la, OpenedFileMap::iterator row);

    // ---- members of the redirected-file registry -----------------------------
    // Lock order: registry, then the descriptor cache and the tables after it
    // (the files open their descriptors through the cache). Reads through a
    // borrowed file run without the registry mutex.
    std::map<std::string, std::unique_ptr<CRedirectedFile>, std::less<>> m_mRedirectedFiles;
    std::mutex m_hMutexRedirectedFiles;

    // ---- members of the platform tests, system commands, vSphere records ----
    // Steps of the platform test; each logs its lines of the report.
    void RunTestUpdateFileSize(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcFilePath,
                               const char* pcAction, unsigned long long iSize);
    void RunTestReadWriteFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                              unsigned long long iPos);
    void RunTestUpdateFileAttribute(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcFilePath,
                                    int iMode);
    // Run the credential commands; return the wait status, or -1.
    int ExecuteAddNetDeviceCredentialCmd(CRuntimeParam* pRuntimeParam, const char* pcPath, const char* pcUser,
                                         const char* pcPwd);
    int ExecuteRemoveNetDeviceCredentialCmd(CRuntimeParam* pRuntimeParam, const char* pcPath);

    // Device paths in insertion order, without duplicates; the mutex is also
    // held while a credential command runs.
    std::vector<std::string> m_NetDeviceCredential;
    std::mutex m_hMutexNetDeviceCredential;

    // Datastore records by MOID; the mutex is held for a whole cleanup,
    // including the tool runs.
    std::map<std::string, VSphereInfo> m_mVSphereInfos;
    std::mutex m_hMutexVSphereInfos;

private:
    long long ReportCall(CRuntimeParam* rp, long long result, int errnum, const char* errText, char* err,
                         const char* fmt, ...) __attribute__((format(printf, 7, 8)));
};
