#include "FileLogger.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "Utilities.h"

CFileLogger::CFileLogger(const char* path)
    : m_LogFile(path ? path : ""), m_pUtilities(new CUtilities()), m_pRuntimeParam(new CRuntimeParam("", 1)) {}

CFileLogger::~CFileLogger() {
    // The owner closes the file first; the descriptor is not closed here.
    delete m_pUtilities;
    delete m_pRuntimeParam;
}

bool CFileLogger::Open(int logControl) {
    std::lock_guard<std::mutex> lock(m_hMutex);
    if (m_iLogFile != -1) return true;
    LogArgu la = {"CFileLogger.Open"};
    int saved = m_pRuntimeParam->GetLogControl();
    m_pRuntimeParam->SetLogControl(logControl | saved);
    char err[ERROR_TEXT_SIZE] = "";
    m_iLogFile = m_pUtilities->OS_FileForceOpen(m_pRuntimeParam, &la, m_LogFile.c_str(), err);
    if (m_iLogFile == -1) {
        char reason[256] = "";
        CUtilities::GetLastErrorText(reason, errno, sizeof reason);
        if (m_pRuntimeParam->IsLogError())
            m_pUtilities->LogError(m_pRuntimeParam, "Fail to create log file \"%s\". Reason=%s", m_LogFile.c_str(),
                                   err[0] ? err : reason);
    }
    m_pRuntimeParam->SetLogControl(saved);
    return m_iLogFile != -1;
}

void CFileLogger::Close() {
    std::lock_guard<std::mutex> lock(m_hMutex);
    if (m_iLogFile != -1) {
        close(m_iLogFile);
        m_iLogFile = -1;
    }
}

bool CFileLogger::IsOpen() {
    std::lock_guard<std::mutex> lock(m_hMutex);
    return m_iLogFile != -1;
}

long long CFileLogger::GetMaxLogSize() {
    std::lock_guard<std::mutex> lock(m_hMutex);
    return m_iMaxLogSize;
}

void CFileLogger::SetMaxLogSize(long long size) {
    std::lock_guard<std::mutex> lock(m_hMutex);
    if (size > 0) m_iMaxLogSize = size;
}

// Moves the full file aside to the first free "<path>.<n>" and starts a new
// one. The caller holds the mutex. A failure leaves the logger closed.
bool CFileLogger::Rotate() {
    LogArgu la = {"CFileLogger.LogMessage"};
    if (m_pUtilities->OS_FileClose(m_pRuntimeParam, &la, m_LogFile.c_str(), m_iLogFile, nullptr) != 0) return false;
    m_iLogFile = -1;
    std::string rotated;
    do {
        rotated = m_LogFile + "." + std::to_string(m_iLastLogIndex++);
    } while (CUtilities::OS_IsFileExists(rotated.c_str(), nullptr));
    if (m_pUtilities->OS_FileRename(m_pRuntimeParam, &la, m_LogFile.c_str(), rotated.c_str(), nullptr) != 0)
        return false;
    m_iLogFile = m_pUtilities->OS_FileCreate(m_pRuntimeParam, &la, m_LogFile.c_str(), nullptr);
    return m_iLogFile != -1;
}

bool CFileLogger::LogMessage(const char* level, const char* msg) {
    std::lock_guard<std::mutex> lock(m_hMutex);
    if (m_iLogFile < 0) return false;
    LogArgu la = {"CFileLogger.LogMessage"};
    long long written = m_pUtilities->OS_FileTell(m_pRuntimeParam, &la, m_iLogFile, nullptr);
    if (written >= m_iMaxLogSize && !Rotate()) return false;

    char stamp[80];
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(stamp, sizeof stamp, "%Y/%m/%d %H:%M:%S", &local);

    char line[4096];
    int n = level[0] ? snprintf(line, sizeof line, "[%s][%s] %s\n", stamp, level, msg)
                     : snprintf(line, sizeof line, "[%s] %s\n", stamp, msg);
    if (n < 0) return false;
    size_t len = (size_t)n < sizeof line ? (size_t)n : sizeof line - 1;
    if (len == sizeof line - 1) line[len - 1] = '\n';  // a cut line still ends its line
    return write(m_iLogFile, line, len) != -1;
}
