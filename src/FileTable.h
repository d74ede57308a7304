#pragma once

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

// Size of an NFS version 3 file handle as this server gives them out.
constexpr size_t FILE_HANDLE_SIZE = 56;
// The file ID that names no row.
constexpr unsigned int NO_FILE_ID = 0xFFFFFFFF;

// The handle's verifier: bytes 4..11, renewed whenever the file table is
// emptied, so that a handle from before, whose ID may since name another
// file, is known as stale.
constexpr size_t HANDLE_VERIFIER_OFFSET = 4;
constexpr size_t HANDLE_VERIFIER_SIZE = 8;

// The NFS file handle: bytes 0..3 hold the file ID in the host's own byte
// order (not network order), bytes 4..11 the verifier, bytes 12..55 are zero.
struct nfs_fh3 {
    unsigned char cHandle[FILE_HANDLE_SIZE];
};

// One row of the file table.
struct FileItem {
    std::string sPath;
    unsigned int iID = NO_FILE_ID;
};

// Canonical paths by file ID. IDs are handed out in order of first sight and
// never reused until Clear; rows live in buckets of BUCKET_ROWS so that they
// keep their addresses while the table grows. Not synchronised: the owner
// holds its file-table mutex around every call.
//
// Lookup by path is a scan of the recently found IDs, then of the whole
// table. The optional path index answers both scans from hash lookups
// instead; it gives the same rows and leaves the recent-ID list exactly as
// the scans would.
class CFileTable {
public:
    static constexpr unsigned int BUCKET_ROWS = 1024;
    // The recent-ID list is trimmed when it holds more than this many IDs.
    static constexpr size_t CACHE_LIMIT = 1023;

    explicit CFileTable(bool bPathIndex = true);
    ~CFileTable();
    CFileTable(const CFileTable&) = delete;
    CFileTable& operator=(const CFileTable&) = delete;

    void Clear();
    // The row of path, added when missing; NO_FILE_ID for a null path.
    unsigned int GetIDByPath(const char* path);
    // Copies the path of id into buffer (size bytes); a null buffer only
    // tests that the row exists. False when there is no such row or the
    // path and its terminating zero do not fit.
    bool GetPathByID(unsigned int id, char* buffer, int size);
    // Moves the row of oldPath to newPath, keeping its ID.
    bool UpdateItemPath(const char* oldPath, const char* newPath);

    // Inspection.
    const std::vector<unsigned int>& GetCache() const { return m_vCache; }
    size_t GetRowCount() const;
    bool HasPathIndex() const { return m_bPathIndex; }

protected:
    FileItem* AddItem(const char* path);
    bool IsMatchItem(FileItem* item, const char* path, int pathLength);
    FileItem* FindItemByPath(const char* path);
    FileItem* GetItemByID(unsigned int id);

private:
    FileItem* FindByScan(const char* path);
    FileItem* FindByIndex(const char* path);
    void RecordInCache(unsigned int id);
    void IndexAdd(const std::string& path, unsigned int id);
    void IndexRemove(const std::string& path, unsigned int id);

    std::vector<std::vector<FileItem>> m_vvTable;
    std::vector<unsigned int> m_vCache;

    bool m_bPathIndex;
    // path -> IDs of the rows holding it, ascending (one unless renames
    // made two rows share a path).
    std::unordered_map<std::string, std::vector<unsigned int>> m_mPathIDs;
    std::string m_sLookupKey;  // the key of the last index lookup
    // ID -> order of its entry in m_vCache (IDs in the list are unique).
    std::unordered_map<unsigned int, unsigned long long> m_mCacheOrder;
    unsigned long long m_lNextCacheOrder = 0;
};
