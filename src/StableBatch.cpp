#include "StableBatch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "OutputStream.h"

namespace {

constexpr uint32_t LAST_FRAGMENT = 0x80000000;
constexpr uint32_t STATUS_IO = 5;        // NFS3ERR_IO
constexpr uint32_t EMPTY_WCC_SIZE = 8;   // wcc_data with before and after absent

void PutWord(std::vector<unsigned char>& to, uint32_t v) {
    unsigned char b[4] = {(unsigned char)(v >> 24), (unsigned char)(v >> 16), (unsigned char)(v >> 8),
                          (unsigned char)v};
    to.insert(to.end(), b, b + 4);
}

}  // namespace

void CStableBatch::BeginReply(uint32_t replyStart, uint32_t bodyStart, bool tcp) {
    m_current = Reply();
    m_current.start = replyStart;
    m_current.body = bodyStart;
    m_current.tcp = tcp;
    m_currentAdded = false;
}

void CStableBatch::EndReply(uint32_t replyEnd, bool results) {
    if (!m_currentAdded) return;
    Reply& reply = m_replies.back();
    reply.end = replyEnd;
    reply.ended = true;
    reply.dropped = !results;
}

void CStableBatch::DropReply() {
    if (m_currentAdded) m_replies.back().dropped = true;
}

void CStableBatch::Add(CFileDescriptor fd, bool folder, int wccCount) {
    bool added;
    AddTarget(std::move(fd), folder, wccCount, &added);
}

void CStableBatch::AddWritten(const char* path, CFileDescriptor duplicate, int held, unsigned long long closes) {
    if (duplicate.IsOpen()) {
        bool added;
        const size_t target = AddTarget(std::move(duplicate), false, 1, &added);
        // Only a descriptor of the write's own stands for the next writes: a
        // file already here may be held through one opened only to sync it.
        if (target != NO_TARGET && added) m_written.push_back(Written{path, closes, target});
        return;
    }
    if (held == -1) return;
    for (const Written& written : m_written) {
        if (m_targets[written.target].fd.Get() != held) continue;
        AddReply(written.target, 1);
        return;
    }
}

int CStableBatch::HeldFor(const char* path, unsigned long long* closes) const {
    for (auto written = m_written.rbegin(); written != m_written.rend(); ++written) {
        if (written->path != path) continue;
        *closes = written->closes;
        return m_targets[written->target].fd.Get();
    }
    return -1;
}

size_t CStableBatch::AddTarget(CFileDescriptor fd, bool folder, int wccCount, bool* added) {
    *added = false;
    struct stat st;
    if (!fd.IsOpen() || fstat(fd.Get(), &st) != 0) return NO_TARGET;
    // One sync per file: the descriptor that came first stands for all.
    size_t target = NO_TARGET;
    for (size_t t = 0; t < m_targets.size(); ++t) {
        if (m_targets[t].dev == st.st_dev && m_targets[t].ino == st.st_ino && m_targets[t].folder == folder) target = t;
    }
    if (target == NO_TARGET) {
        m_targets.emplace_back();
        target = m_targets.size() - 1;
        m_targets[target].fd = std::move(fd);
        m_targets[target].folder = folder;
        m_targets[target].dev = st.st_dev;
        m_targets[target].ino = st.st_ino;
        *added = true;
    }
    AddReply(target, wccCount);
    return target;
}

void CStableBatch::AddReply(size_t target, int wccCount) {
    if (!m_currentAdded) {
        m_replies.push_back(m_current);
        m_currentAdded = true;
    }
    const size_t reply = m_replies.size() - 1;
    if (wccCount > m_replies[reply].wccCount) m_replies[reply].wccCount = wccCount;
    std::vector<size_t>& replies = m_targets[target].replies;
    if (replies.empty() || replies.back() != reply) replies.push_back(reply);
}

int CStableBatch::Flush(COutputStream* out, int* error) {
    int failures = 0;
    for (Target& target : m_targets) {
        if (Sync(target.fd.Get(), target.folder)) continue;
        ++failures;
        if (error) *error = errno;
        for (size_t reply : target.replies) m_replies[reply].failed = true;
    }
    if (failures > 0 && out != nullptr) RewriteFailed(out);
    m_targets.clear();
    m_written.clear();
    m_replies.clear();
    m_currentAdded = false;
    return failures;
}

void CStableBatch::RewriteFailed(COutputStream* out) {
    const unsigned char* data = out->GetBuffer();
    const uint32_t size = out->GetBufferSize();
    std::vector<unsigned char> rebuilt;
    rebuilt.reserve(size);
    uint32_t at = 0;
    for (const Reply& reply : m_replies) {
        if (!reply.failed || !reply.ended || reply.dropped) continue;
        if (reply.start < at || reply.body < reply.start || reply.end < reply.body || reply.end > size) continue;
        rebuilt.insert(rebuilt.end(), data + at, data + reply.body);
        const size_t markAt = rebuilt.size() - (reply.body - reply.start);
        PutWord(rebuilt, STATUS_IO);
        rebuilt.insert(rebuilt.end(), (size_t)reply.wccCount * EMPTY_WCC_SIZE, 0);
        if (reply.tcp) {
            // One last fragment holding everything behind the mark.
            std::vector<unsigned char> mark;
            PutWord(mark, LAST_FRAGMENT | (uint32_t)(rebuilt.size() - markAt - 4));
            memcpy(rebuilt.data() + markAt, mark.data(), 4);
        }
        at = reply.end;
    }
    rebuilt.insert(rebuilt.end(), data + at, data + size);
    out->ResetBuffer();
    out->Write(rebuilt.data(), (uint32_t)rebuilt.size());
}

CFileDescriptor CStableBatch::OpenForSync(const char* path, bool folder) {
    if (path == nullptr || *path == '\0') return CFileDescriptor();
    const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | (folder ? O_DIRECTORY : 0);
    return CFileDescriptor(open(path, flags));
}

bool CStableBatch::Sync(int fd, bool folder) {
    int result;
    do {
        result = folder ? fsync(fd) : fdatasync(fd);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}
