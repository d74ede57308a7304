#include "IpcServer.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "NfsMain.h"
#include "Utilities.h"

namespace {

const char* const READ_NAME = "IpcServer.ReadRequest";
const char* const LOOP_NAME = "IpcServer.SendRequest";
// A connection that sends nothing must not hold the channel forever.
constexpr int CONNECTION_TIMEOUT_SEC = 30;

void PutReason(char* errText, const char* what) {
    if (errText == nullptr) return;
    char reason[ERROR_TEXT_SIZE] = "";
    CUtilities::GetLastErrorText(reason, errno);
    snprintf(errText, ERROR_TEXT_SIZE, what, reason);
}

void PutText(char* errText, const char* text) {
    if (errText) snprintf(errText, ERROR_TEXT_SIZE, "%s", text);
}

// Publishes the connection being served for Shutdown and closes it on
// every way out.
struct ConnectionGuard {
    int fd;
    int& published;
    std::mutex& mutex;
    ConnectionGuard(int connection, int& slot, std::mutex& m) : fd(connection), published(slot), mutex(m) {
        std::lock_guard<std::mutex> lock(mutex);
        published = fd;
    }
    ~ConnectionGuard() {
        std::lock_guard<std::mutex> lock(mutex);
        published = -1;
        if (fd != -1) close(fd);
    }
};

}  // namespace

CIpcServer::CIpcServer(CNfsMain* nfs)
    : CIpcBasic(nfs ? nfs->GetUtils() : nullptr, nfs ? nfs->GetRuntimeParam() : nullptr), m_pNfsHandle(nfs) {
    memset(&m_IpcServerInst.data, 0, sizeof m_IpcServerInst.data);
}

CIpcServer::~CIpcServer() { Close(); }

bool CIpcServer::Open(const char* channel, char* errText) {
    if (channel == nullptr) {
        PutText(errText, "Channel is not defined");
        return false;
    }
    if (m_bOpened) {
        PutText(errText, "Channel already opened");
        return false;
    }
    const bool state = m_pRuntimeParam && m_pRuntimeParam->IsLogIpcState();
    LogArgu la{"IpcServer.Open"};
    if (state) LogInfo("[%s] Open channel: %s", la.pcName, channel);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        PutReason(errText, "Fail to bind ipc server socket. %s");
        return false;
    }
    m_IpcServerInst.iSocket = fd;
    sockaddr_un& addr = m_IpcServerInst.socketAddr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (strlen(channel) >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        PutReason(errText, "Fail to bind ipc server socket. %s");
        Close();
        return false;
    }
    SetText(addr.sun_path, channel);
    unlink(addr.sun_path);
    if (state) LogInfo("[%s] Bind ipc server socket", la.pcName);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == -1) {
        PutReason(errText, "Fail to bind ipc server socket. %s");
        memset(&addr, 0, sizeof addr);  // not ours: Close must not remove it
        Close();
        return false;
    }
    m_bOpened = true;
    // Processes of other users may connect.
    if (m_pUtilities->OS_SetFileMode(m_pRuntimeParam, &la, addr.sun_path, 0777, errText) != 0) {
        Close();
        return false;
    }
    if (listen(fd, 5) == -1) {
        PutReason(errText, "Fail to listen ipc server socket. %s");
        Close();
        return false;
    }
    return true;
}

void CIpcServer::Shutdown() {
    m_bOpened = false;
    int fd = m_IpcServerInst.iSocket;
    if (fd != -1) shutdown(fd, SHUT_RDWR);
    std::lock_guard<std::mutex> lock(m_hMutexConnection);
    if (m_iConnection != -1) shutdown(m_iConnection, SHUT_RDWR);
}

void CIpcServer::Close() {
    m_bOpened = false;
    int fd = m_IpcServerInst.iSocket.exchange(-1);
    if (fd != -1) {
        shutdown(fd, SHUT_RDWR);
        close(fd);
    }
    if (m_IpcServerInst.socketAddr.sun_path[0] != '\0') unlink(m_IpcServerInst.socketAddr.sun_path);
    memset(&m_IpcServerInst.socketAddr, 0, sizeof m_IpcServerInst.socketAddr);
}

bool CIpcServer::ReadRequest(char* errText) {
    const bool state = m_pRuntimeParam && m_pRuntimeParam->IsLogIpcState();
    if (state) LogInfo("[%s] Start", READ_NAME);
    if (!m_bOpened) {
        PutText(errText, "Channel not yet opened.");
        return false;
    }
    int listening = m_IpcServerInst.iSocket;
    if (listening == -1) {
        if (state) LogInfo("[%s] Socket closed", READ_NAME);
        return true;
    }
    if (state) LogInfo("[%s] Accept ipc request", READ_NAME);
    const int accepted = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    const int acceptError = errno;
    ConnectionGuard conn(accepted, m_iConnection, m_hMutexConnection);
    if (conn.fd == -1) {
        if (!m_bOpened || acceptError == EINTR) {  // woken by Shutdown or Close, or a signal
            if (state) LogInfo("[%s] Socket closed", READ_NAME);
            return true;
        }
        errno = acceptError;
        PutReason(errText, "Fail to accept ipc request. %s");
        return false;
    }
    if (!m_bOpened) {
        if (state) LogInfo("[%s] Socket closed", READ_NAME);
        return true;
    }
    timeval timeout{CONNECTION_TIMEOUT_SEC, 0};
    setsockopt(conn.fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    setsockopt(conn.fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    if (state) LogInfo("[%s] Read ipc request", READ_NAME);
    IpcDataInst* data = &m_IpcServerInst.data;
    ssize_t got;
    do {
        got = read(conn.fd, data->request.cBuf, sizeof data->request.cBuf);
    } while (got == -1 && errno == EINTR);
    if (got == -1) {
        PutReason(errText, "Fail to read ipc request. %s");
        return false;
    }
    SetReceived(&data->request, data->request.cBuf, (size_t)got);
    ParseData(data);
    if (state) LogInfo("[%s] Send ipc reply", READ_NAME);
    size_t target = data->reply.lDataLen;
    ssize_t sent = send(conn.fd, data->reply.cBuf, target, MSG_NOSIGNAL);
    if (sent == -1) {
        PutReason(errText, "Fail to send ipc reply. %s");
        return false;
    }
    if ((size_t)sent != target)
        LogError("Fail to send ipc complete reply. (Send = %d, Target = %ld)", (int)sent, (long)target);
    return true;
}

void CIpcServer::ReadRequest() {
    if (m_bAutoShutdownRequested) {
        if (m_pRuntimeParam && m_pRuntimeParam->IsLogIpcState()) LogInfo("[%s] Waiting to auto shutdown", LOOP_NAME);
        // The owner closes the channel soon; yield the core meanwhile.
        usleep(10 * 1000);
        return;
    }
    char err[ERROR_TEXT_SIZE] = "";
    // A failure because the owner closed the channel meanwhile is the end of
    // the loop, not an error.
    if (!ReadRequest(err) && m_bOpened) LogError("[%s] %s", LOOP_NAME, err);
    if (m_bAutoShutdownRequested && m_pNfsHandle) m_pNfsHandle->RequestAutoShutdown();
}

void CIpcServer::ParseData(IpcDataInst* data) {
    LogArgu la{"IpcServer.ParseData"};
    PrintData(&la, &data->request);
    const Ipc_Header* header = Header(&data->request);
    int group = header->iGroup;
    int type = header->iType;
    char text[ERROR_TEXT_SIZE];
    switch (group) {
        case IPC_GROUP_REQUEST: ProcessRequest(data); break;
        case IPC_GROUP_CALLBACK: ProcessCallback(data); break;
        case IPC_GROUP_REPLY:
            snprintf(text, sizeof text, "Reply action group is not support (%d)", type);
            ReplyMessage(data, IPC_REPLY_EXCEPTION, text);
            break;
        default:
            snprintf(text, sizeof text, "Unknown action group: %d (%d)", group, type);
            ReplyMessage(data, IPC_REPLY_EXCEPTION, text);
            break;
    }
    PrintData(&la, &data->reply);
}

void CIpcServer::ReplyBool(IpcDataInst* data, bool value) {
    InitialReplyData(&data->reply, IPC_REPLY_BOOL);
    Record<IpcReply_Bool>(&data->reply)->bVal = value ? 1 : 0;
}

void CIpcServer::ReplyInt(IpcDataInst* data, int value) {
    InitialReplyData(&data->reply, IPC_REPLY_INT);
    Record<IpcReply_Int>(&data->reply)->iVal = value;
}

void CIpcServer::ReplyMessage(IpcDataInst* data, int type, const char* text) {
    InitialReplyData(&data->reply, type);
    SetText(Record<IpcReply_Message>(&data->reply)->cMsg, text);
}

char* CIpcServer::PrepareException(IpcDataInst* data) {
    InitialReplyData(&data->reply, IPC_REPLY_EXCEPTION);
    return Record<IpcReply_Message>(&data->reply)->cMsg;
}

void CIpcServer::ProcessRequest(IpcDataInst* data) {
    IpcDataBuf* req = &data->request;
    const int type = Header(req)->iType;
    CNfsMain* nfs = m_pNfsHandle;
    if (nfs == nullptr) {
        ReplyMessage(data, IPC_REPLY_EXCEPTION, "Channel is not defined");
        return;
    }
    // Work done for a requester that named its callback channel logs there.
    auto paramFor = [this](char* ipcId, size_t width) {
        ipcId[width - 1] = '\0';
        std::unique_ptr<CRuntimeParam> rp(new CRuntimeParam(m_pRuntimeParam->GetID(), m_pRuntimeParam->GetLogControl()));
        rp->SetIpcID(ipcId);
        return rp;
    };
    char text[CNfsMain::INFO_TEXT_SIZE] = "";
    switch (type) {
        case IPC_REQ_GET_VERSION:
            nfs->GetVersion(text);
            ReplyMessage(data, IPC_REPLY_MESSAGE, text);
            break;
        case IPC_REQ_GET_DESCRIPTION:
            nfs->GetDescription(text);
            ReplyMessage(data, IPC_REPLY_MESSAGE, text);
            break;
        case IPC_REQ_IS_SERVER_RUNNING: ReplyBool(data, nfs->IsServerRunning()); break;
        case IPC_REQ_START_SERVER: {
            auto* r = Record<IpcRequest_Start>(req);
            char* err = PrepareException(data);
            if (nfs->StartServer(r->iMountPort, r->iNfsPort, r->iUId, r->iGId, r->bReadOnly != 0, err))
                ReplyBool(data, true);
            break;
        }
        case IPC_REQ_ADD_MOUNT_POINT: {
            auto* r = Record<IpcRequest_AddMountPoint>(req);
            char* err = PrepareException(data);
            if (nfs->AddMountPoint(Text(r->cLocalMountFolder), Text(r->cExportName), Text(r->cIpcID), err))
                ReplyBool(data, true);
            break;
        }
        case IPC_REQ_REMOVE_MOUNT_POINT:
            nfs->RemoveMountPoint(Text(Record<IpcRequest_RemoveMountPoint>(req)->cLocalMountFolder));
            ReplyBool(data, true);
            break;
        case IPC_REQ_ADD_SESSION: {
            auto* r = Record<IpcRequest_AddSession>(req);
            nfs->AddSessionInfo(Text(r->cSessionID), Text(r->cLocalMountFolder));
            ReplyBool(data, true);
            break;
        }
        case IPC_REQ_REMOVE_SESSION:
            nfs->RemoveSessionInfo(Text(Record<IpcRequest_RemoveSession>(req)->cSessionID));
            ReplyBool(data, true);
            break;
        case IPC_REQ_IS_SESSION_EXISTS:
            ReplyBool(data, nfs->IsSessionExists(Text(Record<IpcRequest_IsSessionExists>(req)->cSessionID)));
            break;
        case IPC_REQ_OPEN_REDIRECTED_FILE: {
            auto* r = Record<IpcRequest_OpenRedirectedFile>(req);
            nfs->OpenRedirectedFile(Text(r->cPath), r->iSize, r->bCreateInfoFile != 0, r->iInfoFileSegmentSizeMB,
                                    r->iInfoFileCheckPointSizeMB);
            ReplyBool(data, true);
            break;
        }
        case IPC_REQ_CLOSE_REDIRECTED_FILE:
            nfs->CloseRedirectedFile(Text(Record<IpcRequest_CloseRedirectedFile>(req)->cPath));
            ReplyBool(data, true);
            break;
        case IPC_REQ_CLOSE_ALL_REDIRECTED_FILES:
            nfs->CloseAllRedirectedFiles(Text(Record<IpcRequest_CloseAllRedirectedFiles>(req)->cPath));
            ReplyBool(data, true);
            break;
        case IPC_REQ_ADD_REDIRECTED_FILE_SEGMENT: {
            auto* r = Record<IpcRequest_AddRedirectedFileSegment>(req);
            char* err = PrepareException(data);
            if (nfs->AddRedirectedFileSegment(Text(r->cPath), Text(r->cSrcPath), r->iSrcFileOffset, r->iOffset,
                                              r->iLength, err))
                ReplyBool(data, true);
            break;
        }
        case IPC_REQ_EXPORT_REDIRECTED_FILE: {
            auto* r = Record<IpcRequest_ExportRedirectedFile>(req);
            nfs->ExportRedirectedFile(Text(r->cPath), Text(r->cExportPath));
            ReplyBool(data, true);
            break;
        }
        case IPC_REQ_EXPORT_REDIRECTED_FILE_INFO: {
            auto* r = Record<IpcRequest_ExportRedirectedFileInfo>(req);
            nfs->ExportRedirectedFileInfo(Text(r->cPath), Text(r->cExportPath), r->bMergeRange != 0);
            ReplyBool(data, true);
            break;
        }
        case IPC_REQ_CLOSE_OPENED_FILE:
            nfs->CloseCachedFileHandle(Text(Record<IpcRequest_CloseOpenedFile>(req)->cPath));
            ReplyBool(data, true);
            break;
        case IPC_REQ_CLOSE_ALL_OPENED_FILES:
            nfs->CloseAllCachedFileHandles(Text(Record<IpcRequest_CloseAllOpenedFiles>(req)->cPath));
            ReplyBool(data, true);
            break;
        case IPC_REQ_SET_LOG_CONTROL:
            nfs->SetLogControl(Record<IpcRequest_SetLogControl>(req)->iLogControl);
            ReplyBool(data, true);
            break;
        case IPC_REQ_GET_MOUNT_INFO: {
            auto* r = Record<IpcRequest_GetMountInfo>(req);
            auto rp = paramFor(r->cIpcID, sizeof r->cIpcID);
            ReplyInt(data, nfs->GetMountInfo(rp.get(), r->bClientMountedOnly != 0, r->bPrintDetails != 0));
            break;
        }
        case IPC_REQ_GET_SESSION_INFO: {
            auto* r = Record<IpcRequest_GetSessionInfo>(req);
            auto rp = paramFor(r->cIpcID, sizeof r->cIpcID);
            ReplyInt(data, nfs->GetSessionInfo(rp.get(), r->bPrintDetails != 0));
            break;
        }
        case IPC_REQ_RUN_TEST_MODE: {
            auto* r = Record<IpcRequest_RunTestMode>(req);
            auto rp = paramFor(r->cIpcID, sizeof r->cIpcID);
            nfs->RunTestMode(rp.get(), Text(r->cDirPath), r->iFileSize);
            ReplyBool(data, true);
            break;
        }
        case IPC_REQ_REQUEST_AUTO_SHUTDOWN:
            if (nfs->IsAutoShutdownEnabled()) {
                m_bAutoShutdownRequested = true;
                ReplyBool(data, true);
            } else {
                ReplyBool(data, false);
            }
            break;
        case IPC_REQ_GET_SERVER_STATUS: ReplyInt(data, nfs->GetServerStatus()); break;
        case IPC_REQ_SET_DEBUG_ACTION_ENABLED:
            nfs->SetDebugActionEnabled(Record<IpcRequest_SetBoolean>(req)->bVal != 0);
            ReplyBool(data, true);
            break;
        case IPC_REQ_GET_VSPHERE_INFO: {
            auto* r = Record<IpcRequest_GetVSphereInfo>(req);
            auto rp = paramFor(r->cIpcID, sizeof r->cIpcID);
            ReplyInt(data, nfs->GetVSphereInfo(rp.get(), r->bPrintDetails != 0));
            break;
        }
        case IPC_REQ_ADD_VSPHERE_INFO: {
            auto* r = Record<IpcRequest_AddVSphereInfo>(req);
            nfs->AddVSphereInfo(Text(r->cDatastoreMoid), Text(r->cHost), Text(r->cPort), Text(r->cUser),
                                Text(r->cPwd));
            ReplyBool(data, true);
            break;
        }
        case IPC_REQ_REMOVE_VSPHERE_INFO:
            nfs->RemoveVSphereInfo(Text(Record<IpcRequest_RemoveVSphereInfo>(req)->cDatastoreMoid));
            ReplyBool(data, true);
            break;
        case IPC_REQ_RUN_QUICK_TEST_MODE: {
            auto* r = Record<IpcRequest_RunQuickTestMode>(req);
            auto rp = paramFor(r->cIpcID, sizeof r->cIpcID);
            char* err = PrepareException(data);
            if (nfs->RunQuickTestMode(rp.get(), Text(r->cPath), r->iMode, err)) ReplyBool(data, true);
            break;
        }
        case IPC_REQ_EXECUTE_SYSTEM_CMD: {
            auto* r = Record<IpcRequest_ExecuteSystemCmd>(req);
            auto rp = paramFor(r->cIpcID, sizeof r->cIpcID);
            ReplyInt(data, nfs->ExecuteSystemCmd(rp.get(), Text(r->cCmd), r->bLogResult != 0));
            break;
        }
        case IPC_REQ_GET_NET_DEVICE_CREDENTIAL: {
            auto* r = Record<IpcRequest_GetNetDeviceCredential>(req);
            auto rp = paramFor(r->cIpcID, sizeof r->cIpcID);
            ReplyInt(data, nfs->GetNetDeviceCredential(rp.get(), r->bPrintDetails != 0));
            break;
        }
        case IPC_REQ_ADD_NET_DEVICE_CREDENTIAL: {
            auto* r = Record<IpcRequest_AddNetDeviceCredential>(req);
            ReplyBool(data, nfs->AddNetDeviceCredential(Text(r->cPath), Text(r->cUser), Text(r->cPwd)));
            break;
        }
        case IPC_REQ_REMOVE_NET_DEVICE_CREDENTIAL:
            ReplyBool(data,
                      nfs->RemoveNetDeviceCredential(Text(Record<IpcRequest_RemoveNetDeviceCredential>(req)->cPath)));
            break;
        default: {
            char unknown[ERROR_TEXT_SIZE];
            snprintf(unknown, sizeof unknown, "Unknown request type (%d)", type);
            ReplyMessage(data, IPC_REPLY_EXCEPTION, unknown);
            break;
        }
    }
}

void CIpcServer::ProcessCallback(IpcDataInst* data) {
    IpcDataBuf* req = &data->request;
    const int type = Header(req)->iType;
    CUtilities* u = m_pUtilities;
    if (u == nullptr) {
        ReplyMessage(data, IPC_REPLY_EXCEPTION, "Channel is not defined");
        return;
    }
    switch (type) {
        case IPC_CB_LOG_MESSAGE: {
            auto* r = Record<IpcCb_LogMessage>(req);
            const char* id = Text(r->cID);
            char* msg = Text(r->cMsg);
            if (r->iType == IPC_LOG_ERROR)
                u->LogError(id, msg);
            else if (r->iType == IPC_LOG_RAW)
                u->LogRaw(id, msg);
            else
                u->LogInfo(id, msg);
            ReplyBool(data, true);
            break;
        }
        case IPC_CB_SET_REDIRECTED_FILE_ATTRIBUTES: {
            auto* r = Record<IpcCb_SetRedirectedFileAttributes>(req);
            ReplyInt(data, u->UpdateRedirectedFileAttributes(Text(r->cID), Text(r->cPath), r->bSize != 0, r->iSize,
                                                             r->bAccessTime != 0, r->lAccessTimeSec,
                                                             r->bLastModifiedTime != 0, r->lLastModifiedTimeSec));
            break;
        }
        case IPC_CB_REMOVE_REDIRECTED_FILE: {
            auto* r = Record<IpcCb_RemoveRedirectedFile>(req);
            ReplyInt(data, u->RemoveRedirectedFile(Text(r->cID), Text(r->cPath)));
            break;
        }
        case IPC_CB_RENAME_REDIRECTED_FILE: {
            auto* r = Record<IpcCb_RenameRedirectedFile>(req);
            ReplyInt(data, u->RenameRedirectedFile(Text(r->cID), Text(r->cPathFm), Text(r->cPathTo)));
            break;
        }
        case IPC_CB_WRITE_REDIRECTED_FILE: {
            auto* r = Record<IpcCb_WriteRedirectedFile>(req);
            ReplyInt(data, u->WriteRedirectedFile(Text(r->cID), Text(r->cPath), r->iSeek, r->iSeekType, r->iLen));
            break;
        }
        default: {
            char unknown[ERROR_TEXT_SIZE];
            snprintf(unknown, sizeof unknown, "Unknown callback type (%d)", type);
            ReplyMessage(data, IPC_REPLY_EXCEPTION, unknown);
            break;
        }
    }
}
