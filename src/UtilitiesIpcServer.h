#pragma once

#include <mutex>

#include "IpcMessages.h"
#include "Utilities.h"

// The file service of the external server process: log lines are routed
// locally and, for work done for a requester that named its callback
// channel (a non-empty IPC ID), also sent there; the change notifications
// of redirected files go only there and return the requester's answer.
class CUtilitiesIpcServer : public CUtilities {
public:
    CUtilitiesIpcServer();

    using CUtilities::LogError;
    using CUtilities::LogInfo;
    using CUtilities::LogRaw;
    void LogInfo(CRuntimeParam* rp, char* text) override;
    void LogError(CRuntimeParam* rp, char* text) override;
    void LogRaw(CRuntimeParam* rp, char* text) override;
    int LogUpdateRedirectedFileAttributes(CRuntimeParam* rp, const char* pcPath, bool bSize,
                                          unsigned long long iSize, bool bAccessTime, unsigned long lAccessTimeSec,
                                          bool bLastModifiedTime, unsigned long lLastModifiedTimeSec) override;
    int LogRemoveRedirectedFile(CRuntimeParam* rp, const char* pcPath) override;
    int LogRenameRedirectedFile(CRuntimeParam* rp, const char* pcPathFm, const char* pcPathTo) override;
    int LogWriteRedirectedFile(CRuntimeParam* rp, const char* pcPath, unsigned long long iSeek, int iSeekType,
                               unsigned int iLen) override;

    // "/tmp/nfs-<ipcID>" into buffer (IPC_CHANNEL_SIZE bytes), cut to fit.
    static void GetIpcCallbackChannel(const char* ipcID, char* buffer);

private:
    static bool HasIpcID(CRuntimeParam* rp) { return rp && *rp->GetIpcID() != '\0'; }
    void SendLog(CRuntimeParam* rp, char* text, int logType);
    // Remembers the channel of rp's IPC ID as the last one used and copies
    // it into channel (IPC_CHANNEL_SIZE bytes).
    void TakeChannel(CRuntimeParam* rp, char* channel);

    char m_cIpcChannel[IPC_CHANNEL_SIZE];  // the last callback channel used
    std::mutex m_hMutexIpcChannel;
};
