#pragma once

// The order in which one scan of a folder found its entries, kept for the
// pages of a listing that follow, so that a folder of E entries is read
// about once per listing instead of E/10 times. A page served from it is
// exactly what a fresh scan would give: an order is reused only while the
// folder keeps its device, inode and change time (to the nanosecond), and
// only when that change time was already older than the scan by a margin,
// since file systems stamp it from a coarse clock (a change shortly after a
// scan could otherwise leave it equal). Bounded: a few folders, least
// recently used dropped first, folders above an entry cap not kept, and at
// most twice that cap of names held in all.
// Thread-safe.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <vector>

class CListingCache {
public:
    static constexpr size_t DEFAULT_FOLDERS = 8;
    static constexpr size_t DEFAULT_MAX_ENTRIES = 1000000;
    static constexpr long long DEFAULT_MARGIN_NS = 1000000000LL;

    explicit CListingCache(size_t folders = DEFAULT_FOLDERS, size_t maxEntries = DEFAULT_MAX_ENTRIES);
    CListingCache(const CListingCache&) = delete;
    CListingCache& operator=(const CListingCache&) = delete;

    // One page of the folder's real entries ("." and ".." never count): up
    // to count names after the first skip ones (skip below 1 skips none),
    // into names. eof is true when the folder ended before count names were
    // given, false after count names without looking further. A folder that
    // cannot be opened is an empty listing (eof true).
    void Page(const char* path, int32_t skip, size_t count, std::vector<std::string>* names, bool* eof);

    // Off: every page is a fresh scan, as if there were no cache.
    void SetEnabled(bool enabled);
    // Folders kept, and entries above which a folder is not kept.
    void SetLimits(size_t folders, size_t maxEntries);
    // How much older than the scan a folder's change time must be for its
    // order to be kept.
    void SetMargin(long long nanoseconds);
    // Folders held, and directory entries read from the file system so far
    // (for tests and measurements).
    size_t Folders() const;
    unsigned long long EntriesRead() const;
    void Clear();

private:
    struct Folder {
        std::string sPath;
        dev_t iDevice = 0;
        ino_t iInode = 0;
        long long lChangeTime = 0;  // nanoseconds
        // The names one after the other, and where each ends: far less
        // memory than a string per name.
        std::string sNames;
        std::vector<uint32_t> vEnds;

        size_t Size() const { return vEnds.size(); }
        void Add(const char* name);
        std::string Name(size_t i) const;
    };

    // A cached order of path that still holds, moved to the front; null if none.
    const Folder* Find(const std::string& path, const struct stat& st);
    void Keep(Folder folder);
    void Drop(std::list<Folder>::iterator it);
    void DropAll();
    static void PageOf(const Folder& all, bool complete, int32_t skip, size_t count, std::vector<std::string>* names,
                       bool* eof);

    size_t m_iMaxFolders;
    size_t m_iMaxEntries;
    mutable std::mutex m_hMutex;
    std::list<Folder> m_lFolders;  // most recently used first
    size_t m_iNamesHeld = 0;
    bool m_bEnabled = true;
    long long m_lMarginNs = DEFAULT_MARGIN_NS;
    unsigned long long m_iEntriesRead = 0;
};
