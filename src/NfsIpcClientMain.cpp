#include "NfsIpcClientMain.h"

#include <cstdio>
#include <cstring>

#include "IpcClient.h"
#include "Utilities.h"

CNfsIpcClientMain::CNfsIpcClientMain(const char* id, int logControl) { InitMemberVaribles(id, logControl); }

void CNfsIpcClientMain::InitMemberVaribles(const char* id, int logControl) {
    CNfsIpcServerMain::InitMemberVaribles(id, logControl);
    snprintf(m_cIpcChannel, sizeof m_cIpcChannel, "%s%s%s%s", "/tmp/", "nfs-", "server", "");
}

// Callbacks received are routed locally, never forwarded again.
CUtilities* CNfsIpcClientMain::CreateUtilities() { return new CUtilities(); }

// The client opens no RPC sockets.
bool CNfsIpcClientMain::InitialNetwork(char*) { return true; }
void CNfsIpcClientMain::TerminateNetwork() {}

int CNfsIpcClientMain::GetAccessMode() { return 2; }

void CNfsIpcClientMain::GetIpcServerThreadChannel(char* buf) {
    snprintf(buf, IPC_CHANNEL_SIZE, "%s%s%s%s", "/tmp/", "nfs-", m_pRuntimeParam->GetID(), "");
}

bool CNfsIpcClientMain::IsConnectable(const char* version) {
    return version != nullptr && strcmp(version, "Unknown") != 0;
}
bool CNfsIpcClientMain::IsGetServerStatusSupported(const char* version) {
    return IsConnectable(version) && strcmp(version, "1.0") != 0;
}
bool CNfsIpcClientMain::IsVSphereSupported(const char* version) {
    return IsGetServerStatusSupported(version) && strcmp(version, "1.1") != 0;
}
bool CNfsIpcClientMain::IsNetDeviceSupported(const char* version) {
    return IsVSphereSupported(version) && strcmp(version, "1.2") != 0;
}

bool CNfsIpcClientMain::Send(CIpcClient& client) { return client.SendRequest(m_cIpcChannel); }

bool CNfsIpcClientMain::BoolOrException(CIpcClient& client, char* err) {
    const char* expt = client.GetExptReply();
    if (expt != nullptr) {
        if (err) snprintf(err, ERROR_TEXT_SIZE, "%s", expt);
        return false;
    }
    return client.GetBoolReply();
}

void CNfsIpcClientMain::AskVersion(char* buf) {
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    client.NewRequest<Ipc_Header>(IPC_REQ_GET_VERSION);
    Send(client);
    const char* text = client.GetMsgReply();
    snprintf(buf, INFO_TEXT_SIZE, "%s", text ? text : "Unknown");
}

void CNfsIpcClientMain::GetVersion(char* buf) {
    if (buf) AskVersion(buf);
}

void CNfsIpcClientMain::GetDescription(char* buf) {
    if (buf == nullptr) return;
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    client.NewRequest<Ipc_Header>(IPC_REQ_GET_DESCRIPTION);
    Send(client);
    const char* text = client.GetMsgReply();
    snprintf(buf, INFO_TEXT_SIZE, "%s", text ? text : "Unknown");
}

bool CNfsIpcClientMain::IsServerRunning() {
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    client.NewRequest<Ipc_Header>(IPC_REQ_IS_SERVER_RUNNING);
    Send(client);
    return client.GetBoolReply();
}

bool CNfsIpcClientMain::StartServer(int mountPort, int nfsPort, unsigned int uid, unsigned int gid, bool readOnly,
                                    char* err) {
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_Start>(IPC_REQ_START_SERVER);
    r->iMountPort = mountPort;
    r->iNfsPort = nfsPort;
    r->iUId = uid;
    r->iGId = gid;
    r->bReadOnly = readOnly ? 1 : 0;
    Send(client);
    return BoolOrException(client, err);
}

void CNfsIpcClientMain::StopServer() {
    if (m_pRuntimeParam->IsLogGeneralInfo())
        m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Cannot stop NFS service in client mode.",
                              "NfsIpcClientMain.StopServer");
}

bool CNfsIpcClientMain::AddMountPoint(const char* localPath, const char* exportName, char* err) {
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_AddMountPoint>(IPC_REQ_ADD_MOUNT_POINT);
    CIpcBasic::SetText(r->cLocalMountFolder, localPath);
    CIpcBasic::SetText(r->cExportName, exportName);
    CIpcBasic::SetText(r->cIpcID, m_pRuntimeParam->GetID());
    Send(client);
    return BoolOrException(client, err);
}

// Requests that carry one text field and whose reply is not needed.
#define SEND_TEXT_REQUEST(RecordType, type, field, value)                     \
    CIpcClient client(m_pUtilities, m_pRuntimeParam);                         \
    CIpcBasic::SetText(client.NewRequest<RecordType>(type)->field, value);    \
    Send(client)

void CNfsIpcClientMain::RemoveMountPoint(const char* localPath) {
    SEND_TEXT_REQUEST(IpcRequest_RemoveMountPoint, IPC_REQ_REMOVE_MOUNT_POINT, cLocalMountFolder, localPath);
}

void CNfsIpcClientMain::AddSessionInfo(const char* sessionId, const char* localPath) {
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_AddSession>(IPC_REQ_ADD_SESSION);
    CIpcBasic::SetText(r->cSessionID, sessionId);
    CIpcBasic::SetText(r->cLocalMountFolder, localPath);
    Send(client);
}

void CNfsIpcClientMain::RemoveSessionInfo(const char* sessionId) {
    SEND_TEXT_REQUEST(IpcRequest_RemoveSession, IPC_REQ_REMOVE_SESSION, cSessionID, sessionId);
}

bool CNfsIpcClientMain::IsSessionExists(const char* sessionId) {
    SEND_TEXT_REQUEST(IpcRequest_IsSessionExists, IPC_REQ_IS_SESSION_EXISTS, cSessionID, sessionId);
    return client.GetBoolReply();
}

void CNfsIpcClientMain::OpenRedirectedFile(const char* path, long long size, bool createInfoFile,
                                           int infoFileSegmentSizeMB, int infoFileCheckPointSizeMB) {
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_OpenRedirectedFile>(IPC_REQ_OPEN_REDIRECTED_FILE);
    CIpcBasic::SetText(r->cPath, path);
    r->iSize = size;
    r->bCreateInfoFile = createInfoFile ? 1 : 0;
    r->iInfoFileSegmentSizeMB = infoFileSegmentSizeMB;
    r->iInfoFileCheckPointSizeMB = infoFileCheckPointSizeMB;
    Send(client);
}

void CNfsIpcClientMain::CloseRedirectedFile(const char* path) {
    SEND_TEXT_REQUEST(IpcRequest_CloseRedirectedFile, IPC_REQ_CLOSE_REDIRECTED_FILE, cPath, path);
}

void CNfsIpcClientMain::CloseAllRedirectedFiles(const char* path) {
    SEND_TEXT_REQUEST(IpcRequest_CloseAllRedirectedFiles, IPC_REQ_CLOSE_ALL_REDIRECTED_FILES, cPath, path);
}

bool CNfsIpcClientMain::AddRedirectedFileSegment(const char* path, const char* sourcePath, long long srcFileOffset,
                                                 long long offset, long long length, char* err) {
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_AddRedirectedFileSegment>(IPC_REQ_ADD_REDIRECTED_FILE_SEGMENT);
    CIpcBasic::SetText(r->cPath, path);
    CIpcBasic::SetText(r->cSrcPath, sourcePath);
    r->iSrcFileOffset = srcFileOffset;
    r->iOffset = offset;
    r->iLength = length;
    Send(client);
    return BoolOrException(client, err);
}

void CNfsIpcClientMain::ExportRedirectedFile(const char* path, const char* exportPath) {
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_ExportRedirectedFile>(IPC_REQ_EXPORT_REDIRECTED_FILE);
    CIpcBasic::SetText(r->cPath, path);
    CIpcBasic::SetText(r->cExportPath, exportPath);
    Send(client);
}

void CNfsIpcClientMain::ExportRedirectedFileInfo(const char* path, const char* exportPath, bool mergeRange) {
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_ExportRedirectedFileInfo>(IPC_REQ_EXPORT_REDIRECTED_FILE_INFO);
    CIpcBasic::SetText(r->cPath, path);
    CIpcBasic::SetText(r->cExportPath, exportPath);
    r->bMergeRange = mergeRange ? 1 : 0;
    Send(client);
}

void CNfsIpcClientMain::CloseCachedFileHandle(const char* path) {
    SEND_TEXT_REQUEST(IpcRequest_CloseOpenedFile, IPC_REQ_CLOSE_OPENED_FILE, cPath, path);
}

void CNfsIpcClientMain::CloseAllCachedFileHandles(const char* path) {
    SEND_TEXT_REQUEST(IpcRequest_CloseAllOpenedFiles, IPC_REQ_CLOSE_ALL_OPENED_FILES, cPath, path);
}

void CNfsIpcClientMain::SetLogControl(int logControl) {
    CNfsMain::SetLogControl(logControl);
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    client.NewRequest<IpcRequest_SetLogControl>(IPC_REQ_SET_LOG_CONTROL)->iLogControl = logControl;
    Send(client);
}

int CNfsIpcClientMain::GetMountInfo(CRuntimeParam* rp, bool clientMountedOnly, bool printDetails) {
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_GetMountInfo>(IPC_REQ_GET_MOUNT_INFO);
    CIpcBasic::SetText(r->cIpcID, rp ? rp->GetID() : "");
    r->bClientMountedOnly = clientMountedOnly ? 1 : 0;
    r->bPrintDetails = printDetails ? 1 : 0;
    Send(client);
    return client.GetIntReply();
}

int CNfsIpcClientMain::GetSessionInfo(CRuntimeParam* rp, bool printDetails) {
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_GetSessionInfo>(IPC_REQ_GET_SESSION_INFO);
    CIpcBasic::SetText(r->cIpcID, rp ? rp->GetID() : "");
    r->bPrintDetails = printDetails ? 1 : 0;
    Send(client);
    return client.GetIntReply();
}

void CNfsIpcClientMain::RunTestMode(CRuntimeParam* rp, const char* dirPath, long long fileSize) {
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_RunTestMode>(IPC_REQ_RUN_TEST_MODE);
    CIpcBasic::SetText(r->cIpcID, rp ? rp->GetID() : "");
    CIpcBasic::SetText(r->cDirPath, dirPath);
    r->iFileSize = fileSize;
    Send(client);
}

void CNfsIpcClientMain::EnableAutoShutdown(bool) {
    if (m_pRuntimeParam->IsLogGeneralInfo())
        m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Auto shutdown is supported in client mode.",
                              "NfsIpcClientMain.EnableAutoShutdown");
    CNfsMain::EnableAutoShutdown(false);
}

bool CNfsIpcClientMain::RequestAutoShutdown() {
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    client.NewRequest<Ipc_Header>(IPC_REQ_REQUEST_AUTO_SHUTDOWN);
    Send(client);
    return client.GetBoolReply();
}

int CNfsIpcClientMain::GetServerStatus() {
    char version[INFO_TEXT_SIZE];
    AskVersion(version);
    if (!IsConnectable(version)) return 0;
    int status = STATUS_ALIVE;
    if (IsGetServerStatusSupported(version)) {
        CIpcClient client(m_pUtilities, m_pRuntimeParam);
        client.NewRequest<Ipc_Header>(IPC_REQ_GET_SERVER_STATUS);
        if (Send(client)) status = client.GetIntReply();
        return status;
    }
    if (IsServerRunning()) status += STATUS_RUNNING;
    return status;
}

bool CNfsIpcClientMain::SetDebugActionEnabled(bool enabled) {
    char version[INFO_TEXT_SIZE];
    AskVersion(version);
    if (!IsGetServerStatusSupported(version)) return false;
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    client.NewRequest<IpcRequest_SetBoolean>(IPC_REQ_SET_DEBUG_ACTION_ENABLED)->bVal = enabled ? 1 : 0;
    Send(client);
    return client.GetBoolReply();
}

int CNfsIpcClientMain::GetVSphereInfo(CRuntimeParam* rp, bool printDetails) {
    char version[INFO_TEXT_SIZE];
    AskVersion(version);
    if (!IsVSphereSupported(version)) return 0;
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_GetVSphereInfo>(IPC_REQ_GET_VSPHERE_INFO);
    CIpcBasic::SetText(r->cIpcID, rp ? rp->GetID() : "");
    r->bPrintDetails = printDetails ? 1 : 0;
    Send(client);
    return client.GetIntReply();
}

void CNfsIpcClientMain::AddVSphereInfo(const char* datastoreMoid, const char* host, const char* port,
                                       const char* user, const char* pwd) {
    char version[INFO_TEXT_SIZE];
    AskVersion(version);
    if (!IsVSphereSupported(version)) return;
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_AddVSphereInfo>(IPC_REQ_ADD_VSPHERE_INFO);
    CIpcBasic::SetText(r->cDatastoreMoid, datastoreMoid);
    CIpcBasic::SetText(r->cHost, host);
    CIpcBasic::SetText(r->cPort, port);
    CIpcBasic::SetText(r->cUser, user);
    CIpcBasic::SetText(r->cPwd, pwd);
    Send(client);
}

void CNfsIpcClientMain::RemoveVSphereInfo(const char* datastoreMoid) {
    char version[INFO_TEXT_SIZE];
    AskVersion(version);
    if (!IsVSphereSupported(version)) return;
    SEND_TEXT_REQUEST(IpcRequest_RemoveVSphereInfo, IPC_REQ_REMOVE_VSPHERE_INFO, cDatastoreMoid, datastoreMoid);
}

bool CNfsIpcClientMain::RunQuickTestMode(CRuntimeParam* rp, const char* path, int mode, char* status) {
    char version[INFO_TEXT_SIZE];
    AskVersion(version);
    if (!IsNetDeviceSupported(version)) return false;
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_RunQuickTestMode>(IPC_REQ_RUN_QUICK_TEST_MODE);
    CIpcBasic::SetText(r->cIpcID, rp ? rp->GetID() : "");
    CIpcBasic::SetText(r->cPath, path);
    r->iMode = mode;
    Send(client);
    return BoolOrException(client, status);
}

int CNfsIpcClientMain::ExecuteSystemCmd(CRuntimeParam* rp, const char* cmd, bool logAlways) {
    char version[INFO_TEXT_SIZE];
    AskVersion(version);
    if (!IsNetDeviceSupported(version)) return 0;
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_ExecuteSystemCmd>(IPC_REQ_EXECUTE_SYSTEM_CMD);
    CIpcBasic::SetText(r->cIpcID, rp ? rp->GetID() : "");
    CIpcBasic::SetText(r->cCmd, cmd);
    r->bLogResult = logAlways ? 1 : 0;
    Send(client);
    return client.GetIntReply();
}

int CNfsIpcClientMain::GetNetDeviceCredential(CRuntimeParam* rp, bool printDetails) {
    char version[INFO_TEXT_SIZE];
    AskVersion(version);
    if (!IsNetDeviceSupported(version)) return 0;
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_GetNetDeviceCredential>(IPC_REQ_GET_NET_DEVICE_CREDENTIAL);
    CIpcBasic::SetText(r->cIpcID, rp ? rp->GetID() : "");
    r->bPrintDetails = printDetails ? 1 : 0;
    Send(client);
    return client.GetIntReply();
}

bool CNfsIpcClientMain::AddNetDeviceCredential(const char* path, const char* user, const char* pwd) {
    char version[INFO_TEXT_SIZE];
    AskVersion(version);
    if (!IsNetDeviceSupported(version)) return false;
    CIpcClient client(m_pUtilities, m_pRuntimeParam);
    auto* r = client.NewRequest<IpcRequest_AddNetDeviceCredential>(IPC_REQ_ADD_NET_DEVICE_CREDENTIAL);
    CIpcBasic::SetText(r->cPath, path);
    CIpcBasic::SetText(r->cUser, user);
    CIpcBasic::SetText(r->cPwd, pwd);
    Send(client);
    return client.GetBoolReply();
}

bool CNfsIpcClientMain::RemoveNetDeviceCredential(const char* path) {
    char version[INFO_TEXT_SIZE];
    AskVersion(version);
    if (!IsNetDeviceSupported(version)) return false;
    SEND_TEXT_REQUEST(IpcRequest_RemoveNetDeviceCredential, IPC_REQ_REMOVE_NET_DEVICE_CREDENTIAL, cPath, path);
    return client.GetBoolReply();
}

#undef SEND_TEXT_REQUEST
