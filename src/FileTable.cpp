#include "FileTable.h"

#include <algorithm>
#include <cstring>

CFileTable::CFileTable(bool bPathIndex) : m_bPathIndex(bPathIndex) {}

CFileTable::~CFileTable() { Clear(); }

void CFileTable::Clear() {
    for (auto& bucket : m_vvTable) bucket.clear();
    m_vvTable.clear();
    m_vCache.clear();
    m_mPathIDs.clear();
    m_mCacheOrder.clear();
    m_lNextCacheOrder = 0;
}

size_t CFileTable::GetRowCount() const {
    if (m_vvTable.empty()) return 0;
    return (m_vvTable.size() - 1) * BUCKET_ROWS + m_vvTable.back().size();
}

unsigned int CFileTable::GetIDByPath(const char* path) {
    FileItem* item = FindItemByPath(path);
    if (item == nullptr) item = AddItem(path);
    return item ? item->iID : NO_FILE_ID;
}

bool CFileTable::GetPathByID(unsigned int id, char* buffer, int size) {
    FileItem* item = GetItemByID(id);
    if (item == nullptr) return false;
    if (buffer == nullptr) return true;
    if (size <= 0 || item->sPath.size() >= (size_t)size) return false;
    memcpy(buffer, item->sPath.c_str(), item->sPath.size() + 1);
    return true;
}

bool CFileTable::UpdateItemPath(const char* oldPath, const char* newPath) {
    if (oldPath == nullptr || newPath == nullptr) return false;
    FileItem* item = FindItemByPath(oldPath);
    if (item == nullptr) return false;
    if (m_bPathIndex) IndexRemove(item->sPath, item->iID);
    item->sPath = newPath;
    if (m_bPathIndex) IndexAdd(item->sPath, item->iID);
    return true;
}

FileItem* CFileTable::AddItem(const char* path) {
    if (path == nullptr) return nullptr;
    if (m_vvTable.empty() || m_vvTable.back().size() > BUCKET_ROWS - 1) {
        m_vvTable.emplace_back();
        m_vvTable.back().reserve(BUCKET_ROWS);  // rows never move
    }
    std::vector<FileItem>& bucket = m_vvTable.back();
    bucket.emplace_back();
    FileItem& item = bucket.back();
    item.sPath = path;
    item.iID = (unsigned int)(m_vvTable.size() * BUCKET_ROWS + bucket.size() - (BUCKET_ROWS + 1));
    if (m_bPathIndex) IndexAdd(item.sPath, item.iID);
    return &item;
}

bool CFileTable::IsMatchItem(FileItem* item, const char* path, int pathLength) {
    if (item == nullptr || path == nullptr || pathLength < 0 || item->sPath.size() != (size_t)pathLength)
        return false;
    return memcmp(item->sPath.data(), path, (size_t)pathLength) == 0;
}

FileItem* CFileTable::GetItemByID(unsigned int id) {
    unsigned int bucket = id >> 10;
    unsigned int row = id & 0x3FF;
    if (bucket >= m_vvTable.size()) return nullptr;
    if (row >= m_vvTable[bucket].size()) return nullptr;
    return &m_vvTable[bucket][row];
}

FileItem* CFileTable::FindItemByPath(const char* path) {
    if (path == nullptr) return nullptr;
    return m_bPathIndex ? FindByIndex(path) : FindByScan(path);
}

// The recent IDs first (oldest first, a hit does not reorder them), then the
// whole table in ID order; a row found by the full pass joins the recent IDs.
FileItem* CFileTable::FindByScan(const char* path) {
    int length = (int)strlen(path);
    for (unsigned int id : m_vCache) {
        FileItem* item = GetItemByID(id);
        if (IsMatchItem(item, path, length)) return item;
    }
    for (auto& bucket : m_vvTable) {
        for (FileItem& item : bucket) {
            if (IsMatchItem(&item, path, length)) {
                RecordInCache(item.iID);
                return &item;
            }
        }
    }
    return nullptr;
}

// Same answer as FindByScan: among the rows holding the path, the recent
// pass would stop at the one whose ID entered the recent list first, and the
// full pass at the lowest ID.
FileItem* CFileTable::FindByIndex(const char* path) {
    m_sLookupKey.assign(path);  // reuses its room: no allocation per lookup
    auto found = m_mPathIDs.find(m_sLookupKey);
    if (found == m_mPathIDs.end()) return nullptr;
    const std::vector<unsigned int>& ids = found->second;
    FileItem* recent = nullptr;
    unsigned long long recentOrder = 0;
    for (unsigned int id : ids) {
        auto cached = m_mCacheOrder.find(id);
        if (cached != m_mCacheOrder.end() && (recent == nullptr || cached->second < recentOrder)) {
            recent = GetItemByID(id);
            recentOrder = cached->second;
        }
    }
    if (recent) return recent;
    RecordInCache(ids.front());
    return GetItemByID(ids.front());
}

// Trims the oldest tenth when the list is full, then appends id.
void CFileTable::RecordInCache(unsigned int id) {
    if (m_vCache.size() > CACHE_LIMIT) {
        size_t drop = m_vCache.size() / 10;
        if (m_bPathIndex) {
            for (size_t i = 0; i < drop; ++i) m_mCacheOrder.erase(m_vCache[i]);
        }
        m_vCache.erase(m_vCache.begin(), m_vCache.begin() + (std::ptrdiff_t)drop);
    }
    m_vCache.push_back(id);
    if (m_bPathIndex) m_mCacheOrder[id] = m_lNextCacheOrder++;
}

void CFileTable::IndexAdd(const std::string& path, unsigned int id) {
    std::vector<unsigned int>& ids = m_mPathIDs[path];
    ids.insert(std::lower_bound(ids.begin(), ids.end(), id), id);
}

void CFileTable::IndexRemove(const std::string& path, unsigned int id) {
    auto found = m_mPathIDs.find(path);
    if (found == m_mPathIDs.end()) return;
    std::vector<unsigned int>& ids = found->second;
    auto at = std::lower_bound(ids.begin(), ids.end(), id);
    if (at != ids.end() && *at == id) ids.erase(at);
    if (ids.empty()) m_mPathIDs.erase(found);
}
