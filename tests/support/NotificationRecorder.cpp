#include "NotificationRecorder.h"

#include <tuple>

namespace {

auto Fields(const NotificationRecorder::Call& c) {
    return std::tie(c.op, c.id, c.path, c.pathTo, c.iSeek, c.iSeekType, c.iLen, c.bSize, c.iSize, c.bAccessTime,
                    c.lAccessTimeSec, c.bLastModifiedTime, c.lLastModifiedTimeSec);
}

std::string Text(const char* text) { return text ? text : "(null)"; }

}  // namespace

bool NotificationRecorder::Call::operator==(const Call& other) const { return Fields(*this) == Fields(other); }

void PrintTo(const NotificationRecorder::Call& c, std::ostream* os) {
    *os << c.op << "(id=" << c.id << ", path=" << c.path << ", pathTo=" << c.pathTo << ", seek=" << c.iSeek
        << ", seekType=" << c.iSeekType << ", len=" << c.iLen << ", size=" << c.bSize << "/" << c.iSize
        << ", atime=" << c.bAccessTime << "/" << c.lAccessTimeSec << ", mtime=" << c.bLastModifiedTime << "/"
        << c.lLastModifiedTimeSec << ")";
}

int NotificationRecorder::UpdateRedirectedFileAttributes(const char* id, const char* path, bool bSize,
                                                         unsigned long long iSize, bool bAccessTime,
                                                         unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                                         unsigned long lLastModifiedTimeSec) {
    Call call;
    call.op = "attributes";
    call.id = Text(id);
    call.path = Text(path);
    call.bSize = bSize;
    call.iSize = iSize;
    call.bAccessTime = bAccessTime;
    call.lAccessTimeSec = lAccessTimeSec;
    call.bLastModifiedTime = bLastModifiedTime;
    call.lLastModifiedTimeSec = lLastModifiedTimeSec;
    return Record(call);
}

int NotificationRecorder::RemoveRedirectedFile(const char* id, const char* path) {
    Call call;
    call.op = "remove";
    call.id = Text(id);
    call.path = Text(path);
    return Record(call);
}

int NotificationRecorder::RenameRedirectedFile(const char* id, const char* pathFrom, const char* pathTo) {
    Call call;
    call.op = "rename";
    call.id = Text(id);
    call.path = Text(pathFrom);
    call.pathTo = Text(pathTo);
    return Record(call);
}

int NotificationRecorder::WriteRedirectedFile(const char* id, const char* path, unsigned long long iSeek,
                                              int iSeekType, unsigned int iLen) {
    Call call;
    call.op = "write";
    call.id = Text(id);
    call.path = Text(path);
    call.iSeek = iSeek;
    call.iSeekType = iSeekType;
    call.iLen = iLen;
    return Record(call);
}

void NotificationRecorder::SetAnswer(int answer) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_answer = answer;
}

std::vector<NotificationRecorder::Call> NotificationRecorder::Calls() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls;
}

std::vector<std::string> NotificationRecorder::LinesStarting(const std::string& prefix) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    for (const std::string& line : m_lines)
        if (line.compare(0, prefix.size(), prefix) == 0) out.push_back(line);
    return out;
}

void NotificationRecorder::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.clear();
    m_lines.clear();
}

bool NotificationRecorder::Keep(const char*, const char* text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back(Text(text));
    return true;
}

int NotificationRecorder::Record(Call call) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.push_back(std::move(call));
    return m_answer;
}
