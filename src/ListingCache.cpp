#include "ListingCache.h"

#include <dirent.h>
#include <sys/stat.h>
#include <time.h>

#include <cstring>
#include <iterator>
#include <utility>

namespace {

// Names of long entries count too: a folder whose names take more is not kept.
constexpr size_t MAX_NAME_BYTES = 64u << 20;

long long Nanoseconds(const struct timespec& t) { return (long long)t.tv_sec * 1000000000LL + t.tv_nsec; }

// A directory stream that yields the real entries only ("." and ".." are
// passed over), counts them and closes itself.
class DirectoryReader {
public:
    DirectoryReader(const char* path, unsigned long long* read) : m_pDir(opendir(path)), m_pRead(read) {}
    ~DirectoryReader() {
        if (m_pDir) closedir(m_pDir);
    }
    DirectoryReader(const DirectoryReader&) = delete;
    DirectoryReader& operator=(const DirectoryReader&) = delete;

    bool IsOpen() const { return m_pDir != nullptr; }
    // The next name, or null at the end.
    const char* Next() {
        while (struct dirent* entry = readdir(m_pDir)) {
            const char* name = entry->d_name;
            if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
            ++*m_pRead;
            return name;
        }
        return nullptr;
    }

private:
    DIR* m_pDir;
    unsigned long long* m_pRead;
};

}  // namespace

CListingCache::CListingCache(size_t folders, size_t maxEntries) : m_iMaxFolders(folders), m_iMaxEntries(maxEntries) {}

void CListingCache::Page(const char* path, int32_t skip, size_t count, std::vector<std::string>* names, bool* eof) {
    names->clear();
    *eof = true;
    if (path == nullptr) return;
    std::lock_guard<std::mutex> lock(m_hMutex);
    // The clock before the stat: any change that the stat missed is then
    // stamped later than the scan's start, so it cannot leave the change
    // time equal to one that was already a margin older.
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct stat st;
    bool known = m_bEnabled && stat(path, &st) == 0 && S_ISDIR(st.st_mode);
    if (known) {
        if (const Folder* folder = Find(path, st)) {
            PageOf(*folder, true, skip, count, names, eof);
            return;
        }
    }
    bool keep = known && m_iMaxFolders > 0 && Nanoseconds(st.st_ctim) + m_lMarginNs <= Nanoseconds(now);
    DirectoryReader dir(path, &m_iEntriesRead);
    if (!dir.IsOpen()) return;  // an empty listing
    size_t first = skip < 1 ? 0 : (size_t)skip;
    size_t position = 0;
    if (keep) {
        Folder folder;
        bool complete = false;
        while (folder.Size() <= m_iMaxEntries && folder.sNames.size() <= MAX_NAME_BYTES) {
            const char* name = dir.Next();
            if (name == nullptr) {
                complete = true;
                break;
            }
            folder.Add(name);
        }
        if (complete || first + count <= folder.Size()) {
            PageOf(folder, complete, skip, count, names, eof);
            if (!complete) return;  // too big to keep
            folder.sPath = path;
            folder.iDevice = st.st_dev;
            folder.iInode = st.st_ino;
            folder.lChangeTime = Nanoseconds(st.st_ctim);
            Keep(std::move(folder));
            return;
        }
        // Too big to keep, and the page ends further on: what was read of
        // it, then read on.
        position = folder.Size();
        for (size_t i = first; i < position; ++i) names->push_back(folder.Name(i));
    }
    for (; position < first; ++position) {
        if (dir.Next() == nullptr) return;
    }
    while (names->size() < count) {
        const char* name = dir.Next();
        if (name == nullptr) return;
        names->emplace_back(name);
    }
    *eof = false;  // a full page: whether more follow is not looked at
}

void CListingCache::Folder::Add(const char* name) {
    sNames += name;
    vEnds.push_back((uint32_t)sNames.size());
}

std::string CListingCache::Folder::Name(size_t i) const {
    size_t start = i == 0 ? 0 : vEnds[i - 1];
    return sNames.substr(start, vEnds[i] - start);
}

void CListingCache::PageOf(const Folder& all, bool complete, int32_t skip, size_t count,
                           std::vector<std::string>* names, bool* eof) {
    size_t first = skip < 1 ? 0 : (size_t)skip;
    size_t taken = 0;
    for (size_t i = first; i < all.Size() && taken < count; ++i, ++taken) names->push_back(all.Name(i));
    // An incomplete order is only asked for pages that lie within it.
    *eof = complete && taken < count;
}

const CListingCache::Folder* CListingCache::Find(const std::string& path, const struct stat& st) {
    for (auto it = m_lFolders.begin(); it != m_lFolders.end(); ++it) {
        if (it->sPath != path) continue;
        if (it->iDevice != st.st_dev || it->iInode != st.st_ino || it->lChangeTime != Nanoseconds(st.st_ctim)) {
            Drop(it);  // changed or replaced
            return nullptr;
        }
        m_lFolders.splice(m_lFolders.begin(), m_lFolders, it);
        return &m_lFolders.front();
    }
    return nullptr;
}

void CListingCache::Keep(Folder folder) {
    for (auto it = m_lFolders.begin(); it != m_lFolders.end(); ++it) {
        if (it->sPath == folder.sPath) {
            Drop(it);
            break;
        }
    }
    m_iNamesHeld += folder.Size();
    m_lFolders.push_front(std::move(folder));
    while (m_lFolders.size() > m_iMaxFolders || (m_iNamesHeld > 2 * m_iMaxEntries && m_lFolders.size() > 1))
        Drop(std::prev(m_lFolders.end()));
}

void CListingCache::Drop(std::list<Folder>::iterator it) {
    m_iNamesHeld -= it->Size();
    m_lFolders.erase(it);
}

void CListingCache::SetEnabled(bool enabled) {
    std::lock_guard<std::mutex> lock(m_hMutex);
    m_bEnabled = enabled;
    if (!enabled) DropAll();
}

void CListingCache::SetLimits(size_t folders, size_t maxEntries) {
    std::lock_guard<std::mutex> lock(m_hMutex);
    m_iMaxFolders = folders;
    m_iMaxEntries = maxEntries;
    DropAll();
}

void CListingCache::SetMargin(long long nanoseconds) {
    std::lock_guard<std::mutex> lock(m_hMutex);
    m_lMarginNs = nanoseconds;
    DropAll();
}

size_t CListingCache::Folders() const {
    std::lock_guard<std::mutex> lock(m_hMutex);
    return m_lFolders.size();
}

unsigned long long CListingCache::EntriesRead() const {
    std::lock_guard<std::mutex> lock(m_hMutex);
    return m_iEntriesRead;
}

void CListingCache::Clear() {
    std::lock_guard<std::mutex> lock(m_hMutex);
    DropAll();
}

void CListingCache::DropAll() {
    m_lFolders.clear();
    m_iNamesHeld = 0;
}
