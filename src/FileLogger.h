#pragma once

#include <mutex>
#include <string>

class CUtilities;
class CRuntimeParam;

// Writes log lines with a time stamp and a level word to one file and
// rotates the file to "<path>.<n>" once it has reached its size limit.
class CFileLogger {
public:
    explicit CFileLogger(const char* path);
    virtual ~CFileLogger();
    CFileLogger(const CFileLogger&) = delete;
    CFileLogger& operator=(const CFileLogger&) = delete;

    bool Open(int logControl);
    void Close();
    bool LogInfo(const char* msg) { return LogMessage("info", msg); }
    bool LogError(const char* msg) { return LogMessage("error", msg); }
    bool LogRaw(const char* msg) { return LogMessage("", msg); }

    long long GetMaxLogSize();
    void SetMaxLogSize(long long size);
    bool IsOpen();

private:
    bool LogMessage(const char* level, const char* msg);
    bool Rotate();

    std::string m_LogFile;
    int m_iLogFile = -1;
    long long m_iMaxLogSize = 33554432;
    int m_iLastLogIndex = 1;
    // Private file service (no callback, no logger): the logger's own
    // failures go to standard output.
    CUtilities* m_pUtilities;
    CRuntimeParam* m_pRuntimeParam;
    std::mutex m_hMutex;
};
