#pragma once

// Stands in for the controlling application: records the change
// notifications of redirected files with all their fields, answers them with
// a value the test chooses, and keeps the log lines. Safe from any thread.

#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "ICallback.h"

class NotificationRecorder : public ICallback {
public:
    // One notification. Fields that the operation does not carry stay at
    // their defaults.
    struct Call {
        std::string op;  // "write", "attributes", "remove" or "rename"
        std::string id;
        std::string path;
        std::string pathTo;
        unsigned long long iSeek = 0;
        int iSeekType = 0;
        unsigned int iLen = 0;
        bool bSize = false;
        unsigned long long iSize = 0;
        bool bAccessTime = false;
        unsigned long lAccessTimeSec = 0;
        bool bLastModifiedTime = false;
        unsigned long lLastModifiedTimeSec = 0;
        bool operator==(const Call& other) const;
    };

    bool LogInfo(const char* id, const char* text) override { return Keep(id, text); }
    bool LogError(const char* id, const char* text) override { return Keep(id, text); }
    bool LogRaw(const char* id, const char* text) override { return Keep(id, text); }
    int UpdateRedirectedFileAttributes(const char* id, const char* path, bool bSize, unsigned long long iSize,
                                       bool bAccessTime, unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                       unsigned long lLastModifiedTimeSec) override;
    int RemoveRedirectedFile(const char* id, const char* path) override;
    int RenameRedirectedFile(const char* id, const char* pathFrom, const char* pathTo) override;
    int WriteRedirectedFile(const char* id, const char* path, unsigned long long iSeek, int iSeekType,
                            unsigned int iLen) override;

    // The answer given to every later notification.
    void SetAnswer(int answer);
    std::vector<Call> Calls() const;
    // Log lines (all kinds) that begin with prefix, in order.
    std::vector<std::string> LinesStarting(const std::string& prefix) const;
    void Clear();

private:
    bool Keep(const char* id, const char* text);
    int Record(Call call);

    mutable std::mutex m_mutex;
    int m_answer = 0;
    std::vector<Call> m_calls;
    std::vector<std::string> m_lines;
};

void PrintTo(const NotificationRecorder::Call& call, std::ostream* os);
