#include "NfsMain.h"

#include <cstdarg>
#include <cstdio>

#include "DatagramSocket.h"
#include "MountProg.h"
#include "NfsProg.h"
#include "Portmap.h"
#include "PortmapProg.h"
#include "RpcServer.h"
#include "RuntimeParam.h"
#include "Utilities.h"

namespace {

void PutText(char* err, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void PutText(char* err, const char* fmt, ...) {
    if (err == nullptr) return;
    va_list args;
    va_start(args, fmt);
    vsnprintf(err, ERROR_TEXT_SIZE, fmt, args);
    va_end(args);
}

}  // namespace

CNfsMain::CNfsMain() = default;

CNfsMain::CNfsMain(const char* id, int logControl) { InitMemberVaribles(id, logControl); }

CNfsMain::~CNfsMain() {
    ReleaseServer();
    delete m_pUtilities;
    delete m_pRuntimeParam;
}

void CNfsMain::InitMemberVaribles(const char* id, int logControl) {
    m_pRuntimeParam = new CRuntimeParam(id, logControl);
    m_pUtilities = CreateUtilities();
    for (SocketHandle& pair : m_Sockets) pair = SocketHandle();
    m_pMountProg = nullptr;
    m_pRpcServer = nullptr;
    m_pPortmapProg = nullptr;
    m_pPortmap = nullptr;
    m_pNfsProg = nullptr;
    m_bNetworkInitialized = false;
    m_bServerRunning = false;
    m_bAutoShutdownEnabled = false;
    m_bAutoShutdownRequested = false;
    m_bDebugActionEnabled = false;
}

CUtilities* CNfsMain::CreateUtilities() { return new CUtilities(); }

bool CNfsMain::HasFileLogger() const { return m_pUtilities->GetFileLogger() != nullptr; }

// ---- lifecycle and status ----------------------------------------------------

bool CNfsMain::Initial(char* err) {
    if (HasFileLogger()) m_pUtilities->LogInfo(m_pRuntimeParam, "%s", "Initial NFS");
    if (*m_pRuntimeParam->GetID() == '\0') {
        PutText(err, "ID is not defined");
        return false;
    }
    return InitialNetwork(err);
}

bool CNfsMain::InitialNetwork(char*) {
    m_bNetworkInitialized = true;
    return true;
}

void CNfsMain::Terminate() {
    if (HasFileLogger()) m_pUtilities->LogInfo(m_pRuntimeParam, "%s", "Terminate NFS");
    TerminateNetwork();
}

void CNfsMain::TerminateNetwork() { m_bNetworkInitialized = false; }

bool CNfsMain::StartRemoteController(char*) {
    if (HasFileLogger()) m_pUtilities->LogInfo(m_pRuntimeParam, "%s", "Start Remote Controller");
    if (m_pRuntimeParam->IsLogGeneralInfo())
        m_pUtilities->LogInfo(m_pRuntimeParam,
                              "[%s] No remote controller to start. It is NOT support in internal server mode.",
                              "NfsMain.StartRemoteController");
    return true;
}

void CNfsMain::StopRemoteController() {
    if (HasFileLogger()) m_pUtilities->LogInfo(m_pRuntimeParam, "%s", "Stop Remote Controller");
    if (m_pRuntimeParam->IsLogGeneralInfo())
        m_pUtilities->LogInfo(m_pRuntimeParam,
                              "[%s] No remote controller to stop. It is NOT support in internal server mode.",
                              "NfsMain.StopRemoteController");
}

bool CNfsMain::OpenPair(int pair, unsigned long prog, int port, int slots, char* reason) {
    SocketHandle& sockets = m_Sockets[pair];
    return sockets.pServerSocket->Open(prog, port, slots, m_pUtilities, reason) &&
           sockets.pDatagramSocket->Open(prog, port, m_pUtilities, reason);
}

bool CNfsMain::StartServer(int mountPort, int nfsPort, unsigned int uid, unsigned int gid, bool readOnly,
                           char* err) {
    CRuntimeParam* rp = m_pRuntimeParam;
    LogArgu la{"NfsMain.StartServer"};
    // A second start without a stop would otherwise lose the running stack.
    ReleaseServer();
    // Connections, cached descriptors and new files all need descriptors.
    CUtilities::RaiseDescriptorLimit();

    m_pMountProg = new CMountProg(m_pUtilities);
    m_pPortmap = new CPortmap(m_pUtilities, rp);
    const bool external = m_pPortmap->IsRunning();
    if (!external) m_pPortmapProg = new CPortmapProg(m_pUtilities);
    m_pNfsProg = new CNfsProg(m_pUtilities);
    m_pRpcServer = new CRpcServer(m_pUtilities, rp);
    SetLogControl(rp->GetLogControl());

    if (mountPort < 1) mountPort = DEFAULT_MOUNT_PORT + (external ? 1 : 0);
    if (nfsPort < 1) nfsPort = DEFAULT_NFS_PORT + (external ? 1 : 0);
    if (HasFileLogger()) {
        if (external)
            m_pUtilities->LogInfo(rp, "Start NFS with external portmapper: MountPort = %d, NfsPort = %d", mountPort,
                                  nfsPort);
        else
            m_pUtilities->LogInfo(rp, "Start NFS with internal portmapper: MountPort = %d, NfsPort = %d", mountPort,
                                  nfsPort);
    }

    if (m_pPortmapProg) {
        m_pPortmapProg->Set(MOUNT_PROGRAM, (unsigned long)mountPort);
        m_pPortmapProg->Set(NFS_PROGRAM, (unsigned long)nfsPort);
    }
    m_pNfsProg->SetUserID(uid, gid);
    m_pNfsProg->SetReadOnly(readOnly);
    if (m_pPortmapProg) m_pRpcServer->Set(PORTMAP_PROGRAM, m_pPortmapProg);
    m_pRpcServer->Set(NFS_PROGRAM, m_pNfsProg);
    m_pRpcServer->Set(MOUNT_PROGRAM, m_pMountProg);

    for (SocketHandle& pair : m_Sockets) {
        pair.pServerSocket = new CServerSocket();
        pair.pServerSocket->SetListener(m_pRpcServer);
        pair.pDatagramSocket = new CDatagramSocket();
        pair.pDatagramSocket->SetListener(m_pRpcServer);
    }

    const bool logError = rp->IsLogError();
    const bool fileLogger = HasFileLogger();
    char reason[ERROR_TEXT_SIZE] = "";
    bool started = true;
    if (!external && !OpenPair(PAIR_PORTMAP, PORTMAP_PROGRAM, PORTMAP_PORT, PORTMAP_SLOTS, reason)) {
        started = false;
        if (logError) m_pUtilities->LogError(rp, "Fail to start PortMap daemon. Reason=%s", reason);
        if (fileLogger)
            m_pUtilities->LogError(rp, "Fail to start PortMap daemon on port %d. Reason=%s", PORTMAP_PORT, reason);
        PutText(err, "PortMap daemon failed to open port %d", PORTMAP_PORT);
    }
    if (started && !OpenPair(PAIR_NFS, NFS_PROGRAM, nfsPort, NFS_SLOTS, reason)) {
        started = false;
        if (logError) m_pUtilities->LogError(rp, "[%s] Fail to start NFS daemon. Reason=%s", la.pcName, reason);
        if (fileLogger)
            m_pUtilities->LogError(rp, "Fail to start NFS daemon on port %d. Reason=%s", nfsPort, reason);
        PutText(err, "NFS daemon failed to open port %d", nfsPort);
    }
    if (started && !OpenPair(PAIR_MOUNT, MOUNT_PROGRAM, mountPort, MOUNT_SLOTS, reason)) {
        started = false;
        if (logError) m_pUtilities->LogError(rp, "[%s] Fail to start Mount daemon. Reason=%s", la.pcName, reason);
        if (fileLogger)
            m_pUtilities->LogError(rp, "Fail to start Mount daemon on port %d. Reason=%s", mountPort, reason);
        PutText(err, "Mount daemon failed to open port %d", mountPort);
    }

    if (started && external) {
        // Both registrations are tried; the first failure names the reason.
        if (!m_pPortmap->Register(NFS_PROGRAM, NFS_VERSION, m_Sockets[PAIR_NFS].pServerSocket, reason)) {
            if (fileLogger)
                m_pUtilities->LogError(rp, "Fail to register NFS daemon to external portmapper. Reason=%s", reason);
            PutText(err, "Fail to register NFS daemon to external portmapper. Reason=%s", reason);
            started = false;
        }
        if (!m_pPortmap->Register(MOUNT_PROGRAM, MOUNT_VERSION, m_Sockets[PAIR_MOUNT].pServerSocket, reason)) {
            if (fileLogger)
                m_pUtilities->LogError(rp, "Fail to register Mount daemon to external portmapper. Reason=%s",
                                       reason);
            if (started)
                PutText(err, "Fail to register Mount daemon to external portmapper. Reason=%s", reason);
            started = false;
        }
    }

    m_bServerRunning = started;
    if (!started) StopServer();
    return started;
}

void CNfsMain::ReleaseServer() {
    m_bServerRunning = false;
    for (SocketHandle& pair : m_Sockets) {
        if (pair.pServerSocket) pair.pServerSocket->Close();
        delete pair.pServerSocket;
        pair.pServerSocket = nullptr;
        if (pair.pDatagramSocket) pair.pDatagramSocket->Close();
        delete pair.pDatagramSocket;
        pair.pDatagramSocket = nullptr;
    }
    delete m_pMountProg;
    m_pMountProg = nullptr;
    delete m_pPortmapProg;
    m_pPortmapProg = nullptr;
    if (m_pPortmap) {
        if (m_pPortmap->IsRunning()) {
            m_pPortmap->Unregister(NFS_PROGRAM, NFS_VERSION, nullptr);
            m_pPortmap->Unregister(MOUNT_PROGRAM, MOUNT_VERSION, nullptr);
        }
        delete m_pPortmap;
        m_pPortmap = nullptr;
    }
    delete m_pNfsProg;
    m_pNfsProg = nullptr;
    delete m_pRpcServer;
    m_pRpcServer = nullptr;
}

void CNfsMain::StopServer() {
    LogArgu la{"NfsMain.StopServer"};
    if (HasFileLogger() && m_bServerRunning) m_pUtilities->LogInfo(m_pRuntimeParam, "%s", "Stop NFS");
    m_pUtilities->RemoveAllVSphereInfoWithWebCtrl(m_pRuntimeParam);
    ReleaseServer();
    m_pUtilities->Reset(m_pRuntimeParam, &la);
}

int CNfsMain::GetAccessMode() { return 0; }

void CNfsMain::GetVersion(char* buf) {
    if (buf) snprintf(buf, INFO_TEXT_SIZE, "%s", "1.4");
}

void CNfsMain::GetDescription(char* buf) {
    if (buf) snprintf(buf, INFO_TEXT_SIZE, "%s", "Internal NFS Server");
}

bool CNfsMain::IsServerRunning() { return m_bServerRunning; }

int CNfsMain::GetServerStatus() {
    int status = STATUS_ALIVE;
    if (IsServerRunning()) status += STATUS_RUNNING;
    if (m_bDebugActionEnabled) status += STATUS_DEBUG_ACTIONS;
    return status;
}

bool CNfsMain::SetDebugActionEnabled(bool enabled) {
    m_bDebugActionEnabled = enabled;
    return true;
}

void CNfsMain::EnableAutoShutdown(bool enable) { m_bAutoShutdownEnabled = enable; }

bool CNfsMain::RequestAutoShutdown() {
    if (!m_bAutoShutdownEnabled) return false;
    m_bAutoShutdownRequested = true;
    return true;
}

void CNfsMain::SetLogControl(int logControl) {
    m_pRuntimeParam->SetLogControl(logControl);
    if (m_pRpcServer) m_pRpcServer->SetLogControl(logControl);
}

void CNfsMain::SetCallback(ICallback* callback) { m_pUtilities->SetCallback(callback); }

ICallback* CNfsMain::GetCallback() { return m_pUtilities->GetCallback(); }

void CNfsMain::SetFileLogger(CFileLogger* logger) { m_pUtilities->SetFileLogger(logger); }

// ---- forwarding to the file service -------------------------------------------

bool CNfsMain::AddMountPoint(const char* localPath, const char* exportName, char* err) {
    return AddMountPoint(localPath, exportName, "", err);
}

bool CNfsMain::AddMountPoint(const char* localPath, const char* exportName, const char* ipcId, char* err) {
    LogArgu la{"NfsMain.AddMountPoint"};
    return m_pUtilities->AddMountInfo(m_pRuntimeParam, &la, localPath, exportName, ipcId, err);
}

void CNfsMain::RemoveMountPoint(const char* localPath) {
    LogArgu la{"NfsMain.RemoveMountPoint"};
    m_pUtilities->RemoveMountInfoByLocalMountPath(m_pRuntimeParam, &la, localPath);
}

void CNfsMain::AddSessionInfo(const char* sessionId, const char* localPath) {
    m_pUtilities->AddSessionInfo(sessionId, localPath);
}

void CNfsMain::RemoveSessionInfo(const char* sessionId) { m_pUtilities->RemoveSessionInfo(sessionId); }

bool CNfsMain::IsSessionExists(const char* sessionId) { return IsLocalSessionExists(sessionId); }

bool CNfsMain::IsLocalSessionExists(const char* sessionId) { return m_pUtilities->IsSessionExists(sessionId); }

void CNfsMain::OpenRedirectedFile(const char* path, long long size, bool createInfoFile, int infoFileSegmentSizeMB,
                                  int infoFileCheckPointSizeMB) {
    m_pUtilities->OpenRedirectedFile(m_pRuntimeParam, path, size, createInfoFile, infoFileSegmentSizeMB,
                                     infoFileCheckPointSizeMB);
}

void CNfsMain::CloseRedirectedFile(const char* path) { m_pUtilities->CloseRedirectedFile(m_pRuntimeParam, path); }

void CNfsMain::CloseAllRedirectedFiles(const char* path) {
    m_pUtilities->CloseAllRedirectedFiles(m_pRuntimeParam, path);
}

bool CNfsMain::AddRedirectedFileSegment(const char* path, const char* sourcePath, long long srcFileOffset,
                                        long long offset, long long length, char* err) {
    return m_pUtilities->AddRedirectedFileSegment(m_pRuntimeParam, path, sourcePath, srcFileOffset, offset, length,
                                                  err);
}

void CNfsMain::ExportRedirectedFile(const char* path, const char* exportPath) {
    m_pUtilities->ExportRedirectedFile(m_pRuntimeParam, path, exportPath);
}

void CNfsMain::ExportRedirectedFileInfo(const char* path, const char* exportPath, bool mergeRange) {
    m_pUtilities->ExportRedirectedFileInfo(m_pRuntimeParam, path, exportPath, mergeRange);
}

void CNfsMain::CloseCachedFileHandle(const char* path) {
    LogArgu la{"NfsMain.CloseCachedFileHandle"};
    m_pUtilities->CloseCachedFileHandle(m_pRuntimeParam, &la, path);
}

void CNfsMain::CloseAllCachedFileHandles(const char* path) {
    LogArgu la{"NfsMain.CloseAllCachedFileHandles"};
    m_pUtilities->CloseAllCachedFileHandles(m_pRuntimeParam, &la, path);
}

int CNfsMain::GetMountInfo(CRuntimeParam* rp, bool clientMountedOnly, bool printDetails) {
    return m_pUtilities->GetMountInfo(rp, clientMountedOnly, printDetails);
}

int CNfsMain::GetSessionInfo(CRuntimeParam* rp, bool printDetails) {
    return m_pUtilities->GetSessionInfo(rp, printDetails);
}

void CNfsMain::RunTestMode(CRuntimeParam* rp, const char* dirPath, long long fileSize) {
    m_pUtilities->RunTestMode(rp, dirPath, fileSize);
}

int CNfsMain::GetVSphereInfo(CRuntimeParam* rp, bool printDetails) {
    return m_pUtilities->GetVSphereInfo(rp, printDetails);
}

void CNfsMain::AddVSphereInfo(const char* datastoreMoid, const char* host, const char* port, const char* user,
                              const char* pwd) {
    m_pUtilities->AddVSphereInfo(datastoreMoid, host, port, user, pwd);
}

void CNfsMain::RemoveVSphereInfo(const char* datastoreMoid) { m_pUtilities->RemoveVSphereInfo(datastoreMoid); }

bool CNfsMain::RunQuickTestMode(CRuntimeParam* rp, const char* path, int mode, char* status) {
    return m_pUtilities->RunQuickTestMode(rp, path, mode, status);
}

int CNfsMain::ExecuteSystemCmd(CRuntimeParam* rp, const char* cmd, bool logAlways) {
    return m_pUtilities->ExecuteSystemCmd(rp, cmd, logAlways);
}

int CNfsMain::GetNetDeviceCredential(CRuntimeParam* rp, bool printDetails) {
    return m_pUtilities->GetNetDeviceCredential(rp, printDetails);
}

bool CNfsMain::AddNetDeviceCredential(const char* path, const char* user, const char* pwd) {
    return m_pUtilities->AddNetDeviceCredential(m_pRuntimeParam, path, user, pwd);
}

bool CNfsMain::RemoveNetDeviceCredential(const char* path) {
    return m_pUtilities->RemoveNetDeviceCredential(m_pRuntimeParam, path);
}

int CNfsMain::GetMountInfo(bool clientMountedOnly, bool printDetails) {
    return GetMountInfo(m_pRuntimeParam, clientMountedOnly, printDetails);
}

int CNfsMain::GetSessionInfo(bool printDetails) { return GetSessionInfo(m_pRuntimeParam, printDetails); }

void CNfsMain::RunTestMode(const char* dirPath, long long fileSize) {
    RunTestMode(m_pRuntimeParam, dirPath, fileSize);
}

int CNfsMain::GetVSphereInfo(bool printDetails) { return GetVSphereInfo(m_pRuntimeParam, printDetails); }

bool CNfsMain::RunQuickTestMode(const char* path, int mode, char* status) {
    return RunQuickTestMode(m_pRuntimeParam, path, mode, status);
}

int CNfsMain::ExecuteSystemCmd(const char* cmd, bool logAlways) {
    return ExecuteSystemCmd(m_pRuntimeParam, cmd, logAlways);
}

int CNfsMain::GetNetDeviceCredential(bool printDetails) {
    return GetNetDeviceCredential(m_pRuntimeParam, printDetails);
}
