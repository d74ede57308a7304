#include "UtilitiesIpcServer.h"

#include <cstdio>

#include "IpcClient.h"

CUtilitiesIpcServer::CUtilitiesIpcServer() { m_cIpcChannel[0] = '\0'; }

void CUtilitiesIpcServer::GetIpcCallbackChannel(const char* ipcID, char* buffer) {
    snprintf(buffer, IPC_CHANNEL_SIZE, "%s%s%s%s", "/tmp/", "nfs-", ipcID ? ipcID : "", "");
}

void CUtilitiesIpcServer::TakeChannel(CRuntimeParam* rp, char* channel) {
    GetIpcCallbackChannel(rp->GetIpcID(), channel);
    std::lock_guard<std::mutex> lock(m_hMutexIpcChannel);
    CIpcBasic::SetText(m_cIpcChannel, channel);
}

void CUtilitiesIpcServer::SendLog(CRuntimeParam* rp, char* text, int logType) {
    if (!HasIpcID(rp)) return;
    CIpcClient client(this, rp);
    auto* cb = client.GetDataInst();
    CIpcBasic::InitialCallbackData(&cb->request, IPC_CB_LOG_MESSAGE);
    auto* r = CIpcBasic::Record<IpcCb_LogMessage>(&cb->request);
    CIpcBasic::SetText(r->cID, rp->GetID());
    CIpcBasic::SetText(r->cMsg, text);
    r->iType = logType;
    char channel[IPC_CHANNEL_SIZE];
    TakeChannel(rp, channel);
    client.SendRequest(channel);
}

void CUtilitiesIpcServer::LogInfo(CRuntimeParam* rp, char* text) {
    CUtilities::LogInfo(rp, text);
    SendLog(rp, text, IPC_LOG_INFO);
}

void CUtilitiesIpcServer::LogError(CRuntimeParam* rp, char* text) {
    CUtilities::LogError(rp, text);
    SendLog(rp, text, IPC_LOG_ERROR);
}

void CUtilitiesIpcServer::LogRaw(CRuntimeParam* rp, char* text) {
    CUtilities::LogRaw(rp, text);
    SendLog(rp, text, IPC_LOG_RAW);
}

// The notifications: one exchange each, answered with an Int reply.
#define SEND_NOTIFICATION(RecordType, cbType, fill)                        \
    CIpcClient client(this, rp);                                           \
    auto* cb = client.GetDataInst();                                       \
    CIpcBasic::InitialCallbackData(&cb->request, cbType);                  \
    auto* r = CIpcBasic::Record<RecordType>(&cb->request);                 \
    CIpcBasic::SetText(r->cID, rp->GetID());                               \
    fill;                                                                  \
    char channel[IPC_CHANNEL_SIZE];                                        \
    TakeChannel(rp, channel);                                              \
    if (!client.SendRequest(channel)) return -1;                           \
    return client.GetIntReply()

int CUtilitiesIpcServer::LogUpdateRedirectedFileAttributes(CRuntimeParam* rp, const char* pcPath, bool bSize,
                                                           unsigned long long iSize, bool bAccessTime,
                                                           unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                                           unsigned long lLastModifiedTimeSec) {
    if (!HasIpcID(rp))
        return CUtilities::LogUpdateRedirectedFileAttributes(rp, pcPath, bSize, iSize, bAccessTime, lAccessTimeSec,
                                                             bLastModifiedTime, lLastModifiedTimeSec);
    SEND_NOTIFICATION(IpcCb_SetRedirectedFileAttributes, IPC_CB_SET_REDIRECTED_FILE_ATTRIBUTES, {
        CIpcBasic::SetText(r->cPath, pcPath);
        r->bSize = bSize ? 1 : 0;
        r->iSize = iSize;
        r->bAccessTime = bAccessTime ? 1 : 0;
        r->lAccessTimeSec = (uint32_t)lAccessTimeSec;
        r->bLastModifiedTime = bLastModifiedTime ? 1 : 0;
        r->lLastModifiedTimeSec = (uint32_t)lLastModifiedTimeSec;
    });
}

int CUtilitiesIpcServer::LogRemoveRedirectedFile(CRuntimeParam* rp, const char* pcPath) {
    if (!HasIpcID(rp)) return CUtilities::LogRemoveRedirectedFile(rp, pcPath);
    SEND_NOTIFICATION(IpcCb_RemoveRedirectedFile, IPC_CB_REMOVE_REDIRECTED_FILE,
                      CIpcBasic::SetText(r->cPath, pcPath));
}

int CUtilitiesIpcServer::LogRenameRedirectedFile(CRuntimeParam* rp, const char* pcPathFm, const char* pcPathTo) {
    if (!HasIpcID(rp)) return CUtilities::LogRenameRedirectedFile(rp, pcPathFm, pcPathTo);
    SEND_NOTIFICATION(IpcCb_RenameRedirectedFile, IPC_CB_RENAME_REDIRECTED_FILE, {
        CIpcBasic::SetText(r->cPathFm, pcPathFm);
        CIpcBasic::SetText(r->cPathTo, pcPathTo);
    });
}

int CUtilitiesIpcServer::LogWriteRedirectedFile(CRuntimeParam* rp, const char* pcPath, unsigned long long iSeek,
                                                int iSeekType, unsigned int iLen) {
    if (!HasIpcID(rp)) return CUtilities::LogWriteRedirectedFile(rp, pcPath, iSeek, iSeekType, iLen);
    SEND_NOTIFICATION(IpcCb_WriteRedirectedFile, IPC_CB_WRITE_REDIRECTED_FILE, {
        CIpcBasic::SetText(r->cPath, pcPath);
        r->iSeek = iSeek;
        r->iSeekType = iSeekType;
        r->iLen = iLen;
    });
}

#undef SEND_NOTIFICATION
