#pragma once

// Records exchanged over the IPC channels between a controlling process and
// the external server process. Both ends run on one machine, so integers are
// in host order; the layout is the 32-bit one (4-byte `long`, 64-bit fields
// aligned to 4, one-byte booleans), fixed here with pack(4) and checked by
// the static_asserts below. Booleans are bytes (IpcBool): a received byte
// other than 0 or 1 must not be loaded as a C++ bool.

#include <cstddef>
#include <cstdint>

using IpcBool = uint8_t;

// Size of the unit of transfer: one read, one write.
constexpr size_t IPC_BUFFER_SIZE = 4096;
// Size of the channel path buffers.
constexpr size_t IPC_CHANNEL_SIZE = 256;
// Version text carried in every header.
#define IPC_VERSION_TEXT "1.4"

enum IpcGroup : int32_t { IPC_GROUP_REPLY = 1, IPC_GROUP_REQUEST = 2, IPC_GROUP_CALLBACK = 3 };

enum IpcReplyType : int32_t {
    IPC_REPLY_BOOL = 1,
    IPC_REPLY_LONG = 2,
    IPC_REPLY_INT = 3,
    IPC_REPLY_EXCEPTION = 4,
    IPC_REPLY_MESSAGE = 5,
};

enum IpcRequestType : int32_t {
    IPC_REQ_GET_VERSION = 1,
    IPC_REQ_GET_DESCRIPTION = 2,
    IPC_REQ_IS_SERVER_RUNNING = 3,
    IPC_REQ_START_SERVER = 4,
    IPC_REQ_ADD_MOUNT_POINT = 5,
    IPC_REQ_REMOVE_MOUNT_POINT = 6,
    IPC_REQ_ADD_SESSION = 7,
    IPC_REQ_REMOVE_SESSION = 8,
    IPC_REQ_IS_SESSION_EXISTS = 9,
    IPC_REQ_OPEN_REDIRECTED_FILE = 10,
    IPC_REQ_CLOSE_REDIRECTED_FILE = 11,
    IPC_REQ_CLOSE_ALL_REDIRECTED_FILES = 12,
    IPC_REQ_ADD_REDIRECTED_FILE_SEGMENT = 13,
    IPC_REQ_EXPORT_REDIRECTED_FILE = 14,
    IPC_REQ_EXPORT_REDIRECTED_FILE_INFO = 15,
    IPC_REQ_CLOSE_OPENED_FILE = 16,
    IPC_REQ_CLOSE_ALL_OPENED_FILES = 17,
    IPC_REQ_SET_LOG_CONTROL = 18,
    IPC_REQ_GET_MOUNT_INFO = 19,
    IPC_REQ_GET_SESSION_INFO = 20,
    IPC_REQ_RUN_TEST_MODE = 21,
    IPC_REQ_REQUEST_AUTO_SHUTDOWN = 22,
    IPC_REQ_GET_SERVER_STATUS = 23,
    IPC_REQ_SET_DEBUG_ACTION_ENABLED = 24,
    IPC_REQ_GET_VSPHERE_INFO = 25,
    IPC_REQ_ADD_VSPHERE_INFO = 26,
    IPC_REQ_REMOVE_VSPHERE_INFO = 27,
    IPC_REQ_RUN_QUICK_TEST_MODE = 28,
    IPC_REQ_EXECUTE_SYSTEM_CMD = 29,
    IPC_REQ_GET_NET_DEVICE_CREDENTIAL = 30,
    IPC_REQ_ADD_NET_DEVICE_CREDENTIAL = 31,
    IPC_REQ_REMOVE_NET_DEVICE_CREDENTIAL = 32,
    IPC_REQ_LAST = 32,
};

enum IpcCallbackType : int32_t {
    IPC_CB_LOG_MESSAGE = 1,
    IPC_CB_SET_REDIRECTED_FILE_ATTRIBUTES = 2,
    IPC_CB_REMOVE_REDIRECTED_FILE = 3,
    IPC_CB_RENAME_REDIRECTED_FILE = 4,
    IPC_CB_WRITE_REDIRECTED_FILE = 5,
};

// iType of IpcCb_LogMessage.
enum IpcLogType : int32_t { IPC_LOG_INFO = 1, IPC_LOG_ERROR = 2, IPC_LOG_RAW = 3 };

#pragma pack(push, 4)

struct Ipc_Header {
    int32_t iGroup;
    int32_t iType;
    char cVersion[8];
};

// ---- replies ---------------------------------------------------------------
struct IpcReply_Bool {
    Ipc_Header header;
    IpcBool bVal;
};
struct IpcReply_Long {
    Ipc_Header header;
    int32_t lVal;
};
struct IpcReply_Int {
    Ipc_Header header;
    int32_t iVal;
};
struct IpcReply_Message {
    Ipc_Header header;
    char cMsg[2048];
};

// ---- requests ----------------------------------------------------------------
struct IpcRequest_Start {
    Ipc_Header header;
    int32_t iMountPort;
    int32_t iNfsPort;
    uint32_t iUId;
    uint32_t iGId;
    IpcBool bReadOnly;
};
struct IpcRequest_AddMountPoint {
    Ipc_Header header;
    char cLocalMountFolder[1024];
    char cExportName[256];
    char cIpcID[256];
};
struct IpcRequest_RemoveMountPoint {
    Ipc_Header header;
    char cLocalMountFolder[1024];
};
struct IpcRequest_AddSession {
    Ipc_Header header;
    char cSessionID[256];
    char cLocalMountFolder[1024];
};
struct IpcRequest_RemoveSession {
    Ipc_Header header;
    char cSessionID[256];
};
struct IpcRequest_IsSessionExists {
    Ipc_Header header;
    char cSessionID[256];
};
struct IpcRequest_OpenRedirectedFile {
    Ipc_Header header;
    char cPath[1024];
    int64_t iSize;
    IpcBool bCreateInfoFile;
    int32_t iInfoFileSegmentSizeMB;
    int32_t iInfoFileCheckPointSizeMB;
};
struct IpcRequest_CloseRedirectedFile {
    Ipc_Header header;
    char cPath[1024];
};
struct IpcRequest_CloseAllRedirectedFiles {
    Ipc_Header header;
    char cPath[1024];
};
struct IpcRequest_AddRedirectedFileSegment {
    Ipc_Header header;
    char cPath[1024];
    char cSrcPath[1024];
    int64_t iSrcFileOffset;
    int64_t iOffset;
    int64_t iLength;
};
struct IpcRequest_ExportRedirectedFile {
    Ipc_Header header;
    char cPath[1024];
    char cExportPath[1024];
};
struct IpcRequest_ExportRedirectedFileInfo {
    Ipc_Header header;
    char cPath[1024];
    char cExportPath[1024];
    IpcBool bMergeRange;
};
struct IpcRequest_CloseOpenedFile {
    Ipc_Header header;
    char cPath[1024];
};
struct IpcRequest_CloseAllOpenedFiles {
    Ipc_Header header;
    char cPath[1024];
};
struct IpcRequest_SetLogControl {
    Ipc_Header header;
    int32_t iLogControl;
};
struct IpcRequest_GetMountInfo {
    Ipc_Header header;
    char cIpcID[256];
    IpcBool bClientMountedOnly;
    IpcBool bPrintDetails;
};
struct IpcRequest_GetSessionInfo {
    Ipc_Header header;
    char cIpcID[256];
    IpcBool bPrintDetails;
};
struct IpcRequest_RunTestMode {
    Ipc_Header header;
    char cIpcID[256];
    char cDirPath[3072];
    int64_t iFileSize;
};
struct IpcRequest_SetBoolean {
    Ipc_Header header;
    IpcBool bVal;
};
struct IpcRequest_GetVSphereInfo {
    Ipc_Header header;
    char cIpcID[256];
    IpcBool bPrintDetails;
};
struct IpcRequest_AddVSphereInfo {
    Ipc_Header header;
    char cDatastoreMoid[256];
    char cHost[256];
    char cPort[256];
    char cUser[256];
    char cPwd[256];
};
struct IpcRequest_RemoveVSphereInfo {
    Ipc_Header header;
    char cDatastoreMoid[256];
};
struct IpcRequest_RunQuickTestMode {
    Ipc_Header header;
    char cIpcID[256];
    char cPath[1024];
    int32_t iMode;
};
struct IpcRequest_ExecuteSystemCmd {
    Ipc_Header header;
    char cIpcID[256];
    char cCmd[1024];
    IpcBool bLogResult;
};
struct IpcRequest_GetNetDeviceCredential {
    Ipc_Header header;
    char cIpcID[256];
    IpcBool bPrintDetails;
};
struct IpcRequest_AddNetDeviceCredential {
    Ipc_Header header;
    char cPath[1024];
    char cUser[255];
    char cPwd[255];
};
struct IpcRequest_RemoveNetDeviceCredential {
    Ipc_Header header;
    char cPath[1024];
};

// ---- callbacks -----------------------------------------------------------------
struct IpcCb_LogMessage {
    Ipc_Header header;
    char cID[256];
    char cMsg[2048];
    int32_t iType;
};
struct IpcCb_SetRedirectedFileAttributes {
    Ipc_Header header;
    char cID[256];
    char cPath[1024];
    IpcBool bSize;
    uint64_t iSize;
    IpcBool bAccessTime;
    uint32_t lAccessTimeSec;
    IpcBool bLastModifiedTime;
    uint32_t lLastModifiedTimeSec;
};
struct IpcCb_RemoveRedirectedFile {
    Ipc_Header header;
    char cID[256];
    char cPath[1024];
};
struct IpcCb_RenameRedirectedFile {
    Ipc_Header header;
    char cID[256];
    char cPathFm[1024];
    char cPathTo[1024];
};
struct IpcCb_WriteRedirectedFile {
    Ipc_Header header;
    char cID[256];
    char cPath[1024];
    uint64_t iSeek;
    int32_t iSeekType;
    uint32_t iLen;
};

// ---- transfer units ----------------------------------------------------------
struct IpcDataBuf {
    char cBuf[IPC_BUFFER_SIZE];  // the record
    uint32_t lDataLen;           // bytes of cBuf in use (sent, or received)
};
struct IpcDataInst {
    IpcDataBuf request;
    IpcDataBuf reply;
};

#pragma pack(pop)

// ---- layout checks -------------------------------------------------------------
#define IPC_AT(rec, field, off) static_assert(offsetof(rec, field) == (off), #rec "." #field)
#define IPC_SIZE(rec, n) static_assert(sizeof(rec) == (n), "size of " #rec)

IPC_SIZE(Ipc_Header, 16);
IPC_AT(Ipc_Header, iGroup, 0);
IPC_AT(Ipc_Header, iType, 4);
IPC_AT(Ipc_Header, cVersion, 8);

IPC_SIZE(IpcReply_Bool, 20);
IPC_AT(IpcReply_Bool, bVal, 16);
IPC_SIZE(IpcReply_Long, 20);
IPC_AT(IpcReply_Long, lVal, 16);
IPC_SIZE(IpcReply_Int, 20);
IPC_AT(IpcReply_Int, iVal, 16);
IPC_SIZE(IpcReply_Message, 2064);
IPC_AT(IpcReply_Message, cMsg, 16);

IPC_SIZE(IpcRequest_Start, 36);
IPC_AT(IpcRequest_Start, iMountPort, 16);
IPC_AT(IpcRequest_Start, iNfsPort, 20);
IPC_AT(IpcRequest_Start, iUId, 24);
IPC_AT(IpcRequest_Start, iGId, 28);
IPC_AT(IpcRequest_Start, bReadOnly, 32);
IPC_SIZE(IpcRequest_AddMountPoint, 1552);
IPC_AT(IpcRequest_AddMountPoint, cLocalMountFolder, 16);
IPC_AT(IpcRequest_AddMountPoint, cExportName, 1040);
IPC_AT(IpcRequest_AddMountPoint, cIpcID, 1296);
IPC_SIZE(IpcRequest_RemoveMountPoint, 1040);
IPC_AT(IpcRequest_RemoveMountPoint, cLocalMountFolder, 16);
IPC_SIZE(IpcRequest_AddSession, 1296);
IPC_AT(IpcRequest_AddSession, cSessionID, 16);
IPC_AT(IpcRequest_AddSession, cLocalMountFolder, 272);
IPC_SIZE(IpcRequest_RemoveSession, 272);
IPC_AT(IpcRequest_RemoveSession, cSessionID, 16);
IPC_SIZE(IpcRequest_IsSessionExists, 272);
IPC_AT(IpcRequest_IsSessionExists, cSessionID, 16);
IPC_SIZE(IpcRequest_OpenRedirectedFile, 1060);
IPC_AT(IpcRequest_OpenRedirectedFile, cPath, 16);
IPC_AT(IpcRequest_OpenRedirectedFile, iSize, 1040);
IPC_AT(IpcRequest_OpenRedirectedFile, bCreateInfoFile, 1048);
IPC_AT(IpcRequest_OpenRedirectedFile, iInfoFileSegmentSizeMB, 1052);
IPC_AT(IpcRequest_OpenRedirectedFile, iInfoFileCheckPointSizeMB, 1056);
IPC_SIZE(IpcRequest_CloseRedirectedFile, 1040);
IPC_AT(IpcRequest_CloseRedirectedFile, cPath, 16);
IPC_SIZE(IpcRequest_CloseAllRedirectedFiles, 1040);
IPC_AT(IpcRequest_CloseAllRedirectedFiles, cPath, 16);
IPC_SIZE(IpcRequest_AddRedirectedFileSegment, 2088);
IPC_AT(IpcRequest_AddRedirectedFileSegment, cPath, 16);
IPC_AT(IpcRequest_AddRedirectedFileSegment, cSrcPath, 1040);
IPC_AT(IpcRequest_AddRedirectedFileSegment, iSrcFileOffset, 2064);
IPC_AT(IpcRequest_AddRedirectedFileSegment, iOffset, 2072);
IPC_AT(IpcRequest_AddRedirectedFileSegment, iLength, 2080);
IPC_SIZE(IpcRequest_ExportRedirectedFile, 2064);
IPC_AT(IpcRequest_ExportRedirectedFile, cPath, 16);
IPC_AT(IpcRequest_ExportRedirectedFile, cExportPath, 1040);
IPC_SIZE(IpcRequest_ExportRedirectedFileInfo, 2068);
IPC_AT(IpcRequest_ExportRedirectedFileInfo, cPath, 16);
IPC_AT(IpcRequest_ExportRedirectedFileInfo, cExportPath, 1040);
IPC_AT(IpcRequest_ExportRedirectedFileInfo, bMergeRange, 2064);
IPC_SIZE(IpcRequest_CloseOpenedFile, 1040);
IPC_AT(IpcRequest_CloseOpenedFile, cPath, 16);
IPC_SIZE(IpcRequest_CloseAllOpenedFiles, 1040);
IPC_AT(IpcRequest_CloseAllOpenedFiles, cPath, 16);
IPC_SIZE(IpcRequest_SetLogControl, 20);
IPC_AT(IpcRequest_SetLogControl, iLogControl, 16);
IPC_SIZE(IpcRequest_GetMountInfo, 276);
IPC_AT(IpcRequest_GetMountInfo, cIpcID, 16);
IPC_AT(IpcRequest_GetMountInfo, bClientMountedOnly, 272);
IPC_AT(IpcRequest_GetMountInfo, bPrintDetails, 273);
IPC_SIZE(IpcRequest_GetSessionInfo, 276);
IPC_AT(IpcRequest_GetSessionInfo, cIpcID, 16);
IPC_AT(IpcRequest_GetSessionInfo, bPrintDetails, 272);
IPC_SIZE(IpcRequest_RunTestMode, 3352);
IPC_AT(IpcRequest_RunTestMode, cIpcID, 16);
IPC_AT(IpcRequest_RunTestMode, cDirPath, 272);
IPC_AT(IpcRequest_RunTestMode, iFileSize, 3344);
IPC_SIZE(IpcRequest_SetBoolean, 20);
IPC_AT(IpcRequest_SetBoolean, bVal, 16);
IPC_SIZE(IpcRequest_GetVSphereInfo, 276);
IPC_AT(IpcRequest_GetVSphereInfo, cIpcID, 16);
IPC_AT(IpcRequest_GetVSphereInfo, bPrintDetails, 272);
IPC_SIZE(IpcRequest_AddVSphereInfo, 1296);
IPC_AT(IpcRequest_AddVSphereInfo, cDatastoreMoid, 16);
IPC_AT(IpcRequest_AddVSphereInfo, cHost, 272);
IPC_AT(IpcRequest_AddVSphereInfo, cPort, 528);
IPC_AT(IpcRequest_AddVSphereInfo, cUser, 784);
IPC_AT(IpcRequest_AddVSphereInfo, cPwd, 1040);
IPC_SIZE(IpcRequest_RemoveVSphereInfo, 272);
IPC_AT(IpcRequest_RemoveVSphereInfo, cDatastoreMoid, 16);
IPC_SIZE(IpcRequest_RunQuickTestMode, 1300);
IPC_AT(IpcRequest_RunQuickTestMode, cIpcID, 16);
IPC_AT(IpcRequest_RunQuickTestMode, cPath, 272);
IPC_AT(IpcRequest_RunQuickTestMode, iMode, 1296);
IPC_SIZE(IpcRequest_ExecuteSystemCmd, 1300);
IPC_AT(IpcRequest_ExecuteSystemCmd, cIpcID, 16);
IPC_AT(IpcRequest_ExecuteSystemCmd, cCmd, 272);
IPC_AT(IpcRequest_ExecuteSystemCmd, bLogResult, 1296);
IPC_SIZE(IpcRequest_GetNetDeviceCredential, 276);
IPC_AT(IpcRequest_GetNetDeviceCredential, cIpcID, 16);
IPC_AT(IpcRequest_GetNetDeviceCredential, bPrintDetails, 272);
IPC_SIZE(IpcRequest_AddNetDeviceCredential, 1552);
IPC_AT(IpcRequest_AddNetDeviceCredential, cPath, 16);
IPC_AT(IpcRequest_AddNetDeviceCredential, cUser, 1040);
IPC_AT(IpcRequest_AddNetDeviceCredential, cPwd, 1295);
IPC_SIZE(IpcRequest_RemoveNetDeviceCredential, 1040);
IPC_AT(IpcRequest_RemoveNetDeviceCredential, cPath, 16);

IPC_SIZE(IpcCb_LogMessage, 2324);
IPC_AT(IpcCb_LogMessage, cID, 16);
IPC_AT(IpcCb_LogMessage, cMsg, 272);
IPC_AT(IpcCb_LogMessage, iType, 2320);
IPC_SIZE(IpcCb_SetRedirectedFileAttributes, 1324);
IPC_AT(IpcCb_SetRedirectedFileAttributes, cID, 16);
IPC_AT(IpcCb_SetRedirectedFileAttributes, cPath, 272);
IPC_AT(IpcCb_SetRedirectedFileAttributes, bSize, 1296);
IPC_AT(IpcCb_SetRedirectedFileAttributes, iSize, 1300);
IPC_AT(IpcCb_SetRedirectedFileAttributes, bAccessTime, 1308);
IPC_AT(IpcCb_SetRedirectedFileAttributes, lAccessTimeSec, 1312);
IPC_AT(IpcCb_SetRedirectedFileAttributes, bLastModifiedTime, 1316);
IPC_AT(IpcCb_SetRedirectedFileAttributes, lLastModifiedTimeSec, 1320);
IPC_SIZE(IpcCb_RemoveRedirectedFile, 1296);
IPC_AT(IpcCb_RemoveRedirectedFile, cID, 16);
IPC_AT(IpcCb_RemoveRedirectedFile, cPath, 272);
IPC_SIZE(IpcCb_RenameRedirectedFile, 2320);
IPC_AT(IpcCb_RenameRedirectedFile, cID, 16);
IPC_AT(IpcCb_RenameRedirectedFile, cPathFm, 272);
IPC_AT(IpcCb_RenameRedirectedFile, cPathTo, 1296);
IPC_SIZE(IpcCb_WriteRedirectedFile, 1312);
IPC_AT(IpcCb_WriteRedirectedFile, cID, 16);
IPC_AT(IpcCb_WriteRedirectedFile, cPath, 272);
IPC_AT(IpcCb_WriteRedirectedFile, iSeek, 1296);
IPC_AT(IpcCb_WriteRedirectedFile, iSeekType, 1304);
IPC_AT(IpcCb_WriteRedirectedFile, iLen, 1308);

IPC_SIZE(IpcDataBuf, IPC_BUFFER_SIZE + 4);
IPC_AT(IpcDataBuf, lDataLen, IPC_BUFFER_SIZE);

#undef IPC_AT
#undef IPC_SIZE
