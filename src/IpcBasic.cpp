#include "IpcBasic.h"

#include <cstdarg>
#include <cstdio>

#include "Utilities.h"

namespace {

void InitialHeader(IpcDataBuf* buf, int group, int type, unsigned int size) {
    memset(buf->cBuf, 0, sizeof buf->cBuf);
    Ipc_Header* header = CIpcBasic::Record<Ipc_Header>(buf);
    header->iGroup = group;
    header->iType = size > sizeof(Ipc_Header) || (group == IPC_GROUP_REQUEST && type >= 1 && type <= IPC_REQ_LAST)
                        ? type
                        : 0;
    CIpcBasic::SetText(header->cVersion, IPC_VERSION_TEXT);
    buf->lDataLen = size;
}

}  // namespace

CIpcBasic::CIpcBasic(CUtilities* utilities, CRuntimeParam* runtimeParam)
    : m_pUtilities(utilities), m_pRuntimeParam(runtimeParam) {
    m_cLogBuf[0] = '\0';
}

unsigned int CIpcBasic::RequestSize(int type) {
    switch (type) {
        case IPC_REQ_START_SERVER: return sizeof(IpcRequest_Start);
        case IPC_REQ_ADD_MOUNT_POINT: return sizeof(IpcRequest_AddMountPoint);
        case IPC_REQ_REMOVE_MOUNT_POINT: return sizeof(IpcRequest_RemoveMountPoint);
        case IPC_REQ_ADD_SESSION: return sizeof(IpcRequest_AddSession);
        case IPC_REQ_REMOVE_SESSION: return sizeof(IpcRequest_RemoveSession);
        case IPC_REQ_IS_SESSION_EXISTS: return sizeof(IpcRequest_IsSessionExists);
        case IPC_REQ_OPEN_REDIRECTED_FILE: return sizeof(IpcRequest_OpenRedirectedFile);
        case IPC_REQ_CLOSE_REDIRECTED_FILE: return sizeof(IpcRequest_CloseRedirectedFile);
        case IPC_REQ_CLOSE_ALL_REDIRECTED_FILES: return sizeof(IpcRequest_CloseAllRedirectedFiles);
        case IPC_REQ_ADD_REDIRECTED_FILE_SEGMENT: return sizeof(IpcRequest_AddRedirectedFileSegment);
        case IPC_REQ_EXPORT_REDIRECTED_FILE: return sizeof(IpcRequest_ExportRedirectedFile);
        case IPC_REQ_EXPORT_REDIRECTED_FILE_INFO: return sizeof(IpcRequest_ExportRedirectedFileInfo);
        case IPC_REQ_CLOSE_OPENED_FILE: return sizeof(IpcRequest_CloseOpenedFile);
        case IPC_REQ_CLOSE_ALL_OPENED_FILES: return sizeof(IpcRequest_CloseAllOpenedFiles);
        case IPC_REQ_SET_LOG_CONTROL: return sizeof(IpcRequest_SetLogControl);
        case IPC_REQ_GET_MOUNT_INFO: return sizeof(IpcRequest_GetMountInfo);
        case IPC_REQ_GET_SESSION_INFO: return sizeof(IpcRequest_GetSessionInfo);
        case IPC_REQ_RUN_TEST_MODE: return sizeof(IpcRequest_RunTestMode);
        case IPC_REQ_SET_DEBUG_ACTION_ENABLED: return sizeof(IpcRequest_SetBoolean);
        case IPC_REQ_GET_VSPHERE_INFO: return sizeof(IpcRequest_GetVSphereInfo);
        case IPC_REQ_ADD_VSPHERE_INFO: return sizeof(IpcRequest_AddVSphereInfo);
        case IPC_REQ_REMOVE_VSPHERE_INFO: return sizeof(IpcRequest_RemoveVSphereInfo);
        case IPC_REQ_RUN_QUICK_TEST_MODE: return sizeof(IpcRequest_RunQuickTestMode);
        case IPC_REQ_EXECUTE_SYSTEM_CMD: return sizeof(IpcRequest_ExecuteSystemCmd);
        case IPC_REQ_GET_NET_DEVICE_CREDENTIAL: return sizeof(IpcRequest_GetNetDeviceCredential);
        case IPC_REQ_ADD_NET_DEVICE_CREDENTIAL: return sizeof(IpcRequest_AddNetDeviceCredential);
        case IPC_REQ_REMOVE_NET_DEVICE_CREDENTIAL: return sizeof(IpcRequest_RemoveNetDeviceCredential);
        default: return sizeof(Ipc_Header);  // types 1, 2, 3, 22, 23 and unknown ones
    }
}

unsigned int CIpcBasic::ReplySize(int type) {
    switch (type) {
        case IPC_REPLY_BOOL: return sizeof(IpcReply_Bool);
        case IPC_REPLY_LONG: return sizeof(IpcReply_Long);
        case IPC_REPLY_INT: return sizeof(IpcReply_Int);
        case IPC_REPLY_EXCEPTION:
        case IPC_REPLY_MESSAGE: return sizeof(IpcReply_Message);
        default: return sizeof(Ipc_Header);
    }
}

unsigned int CIpcBasic::CallbackSize(int type) {
    switch (type) {
        case IPC_CB_LOG_MESSAGE: return sizeof(IpcCb_LogMessage);
        case IPC_CB_SET_REDIRECTED_FILE_ATTRIBUTES: return sizeof(IpcCb_SetRedirectedFileAttributes);
        case IPC_CB_REMOVE_REDIRECTED_FILE: return sizeof(IpcCb_RemoveRedirectedFile);
        case IPC_CB_RENAME_REDIRECTED_FILE: return sizeof(IpcCb_RenameRedirectedFile);
        case IPC_CB_WRITE_REDIRECTED_FILE: return sizeof(IpcCb_WriteRedirectedFile);
        default: return sizeof(Ipc_Header);
    }
}

void CIpcBasic::InitialRequestData(IpcDataInst* data, int type) {
    InitialHeader(&data->request, IPC_GROUP_REQUEST, type, RequestSize(type));
}

void CIpcBasic::InitialReplyData(IpcDataBuf* buf, int type) {
    InitialHeader(buf, IPC_GROUP_REPLY, type, ReplySize(type));
}

void CIpcBasic::InitialCallbackData(IpcDataBuf* buf, int type) {
    InitialHeader(buf, IPC_GROUP_CALLBACK, type, CallbackSize(type));
}

void CIpcBasic::SetReceived(IpcDataBuf* buf, const void* bytes, size_t n) {
    if (n > sizeof buf->cBuf) n = sizeof buf->cBuf;
    if (n > 0 && bytes != buf->cBuf) memmove(buf->cBuf, bytes, n);
    memset(buf->cBuf + n, 0, sizeof buf->cBuf - n);
    buf->lDataLen = (uint32_t)n;
}

void CIpcBasic::SetText(char* field, size_t width, const char* text) {
    if (field == nullptr || width == 0) return;
    size_t n = text ? strnlen(text, width - 1) : 0;
    if (n > 0) memmove(field, text, n);
    field[n] = '\0';
}

void CIpcBasic::PrintData(LogArgu* la, IpcDataBuf* buf) {
    if (m_pRuntimeParam == nullptr || !m_pRuntimeParam->IsLogIpc() || buf == nullptr) return;
    const Ipc_Header* header = Header(buf);
    char version[sizeof header->cVersion + 1];
    memcpy(version, header->cVersion, sizeof header->cVersion);
    version[sizeof header->cVersion] = '\0';
    const char* name = la && la->pcName ? la->pcName : "";
    unsigned long len = buf->lDataLen;
    switch (header->iGroup) {
        case IPC_GROUP_REQUEST:
            LogInfo("[%s] Request action group (type = %d, ver = %s, dataLen = %lu)", name, header->iType, version,
                    len);
            break;
        case IPC_GROUP_CALLBACK:
            LogInfo("[%s] Callback action group (type = %d, ver = %s, dataLen = %lu)", name, header->iType, version,
                    len);
            break;
        case IPC_GROUP_REPLY:
            LogInfo("[%s] Reply action group (type = %d, ver = %s, dataLen = %lu)", name, header->iType, version,
                    len);
            break;
        default:
            LogInfo("[%s] Unknown action group: %d (type = %d, ver = %s, dataLen = %lu)", name, header->iGroup,
                    header->iType, version, len);
            break;
    }
}

static const char* IdOf(CRuntimeParam* rp) { return rp ? rp->GetID() : ""; }

void CIpcBasic::LogInfo(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vsnprintf(m_cLogBuf, sizeof m_cLogBuf, fmt, args);
    va_end(args);
    LogInfo(m_cLogBuf);
}

void CIpcBasic::LogError(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vsnprintf(m_cLogBuf, sizeof m_cLogBuf, fmt, args);
    va_end(args);
    LogError(m_cLogBuf);
}

void CIpcBasic::LogInfo(char* text) {
    if (m_pUtilities) m_pUtilities->LogInfo(IdOf(m_pRuntimeParam), text);
}

void CIpcBasic::LogError(char* text) {
    if (m_pUtilities) m_pUtilities->LogError(IdOf(m_pRuntimeParam), text);
}
