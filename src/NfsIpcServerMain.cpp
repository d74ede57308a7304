#include "NfsIpcServerMain.h"

#include <cstdio>

#include "IpcClient.h"
#include "IpcServerThread.h"
#include "UtilitiesIpcServer.h"

CNfsIpcServerMain::CNfsIpcServerMain() = default;

CNfsIpcServerMain::CNfsIpcServerMain(const char* id, int logControl) { InitMemberVaribles(id, logControl); }

CNfsIpcServerMain::~CNfsIpcServerMain() { ReleaseIpcServerThread(); }

void CNfsIpcServerMain::InitMemberVaribles(const char* id, int logControl) {
    CNfsMain::InitMemberVaribles(id, logControl);
    m_pIpcServerThread = nullptr;
}

CUtilities* CNfsIpcServerMain::CreateUtilities() { return new CUtilitiesIpcServer(); }

void CNfsIpcServerMain::ReleaseIpcServerThread() {
    if (m_pIpcServerThread == nullptr) return;
    m_pIpcServerThread->Close();
    delete m_pIpcServerThread;
    m_pIpcServerThread = nullptr;
}

bool CNfsIpcServerMain::Initial(char* err) {
    char reason[ERROR_TEXT_SIZE] = "";
    if (!CRuntimeParam::CheckInstanceID(m_pRuntimeParam->GetID(), reason, sizeof reason)) {
        if (err) snprintf(err, ERROR_TEXT_SIZE, "%s", reason);
        return false;
    }
    return CNfsMain::Initial(err);
}

int CNfsIpcServerMain::GetAccessMode() { return 1; }

void CNfsIpcServerMain::GetDescription(char* buf) {
    if (buf) snprintf(buf, INFO_TEXT_SIZE, "%s", "External NFS Server");
}

void CNfsIpcServerMain::GetIpcServerThreadChannel(char* buf) {
    snprintf(buf, IPC_CHANNEL_SIZE, "%s%s%s%s", "/tmp/", "nfs-", "server", "");
}

bool CNfsIpcServerMain::StartRemoteController(char* err) {
    const char* name = "NfsIpcServerMain.StartRemoteController";
    if (m_pUtilities->GetFileLogger()) m_pUtilities->LogInfo(m_pRuntimeParam, "%s", "Start Remote Controller");
    if (m_pIpcServerThread) return true;

    char channel[IPC_CHANNEL_SIZE];
    GetIpcServerThreadChannel(channel);
    {
        // Someone who answers a version request owns the channel; a socket
        // file nobody answers on is left over from a crash and is replaced.
        CIpcClient probe(m_pUtilities, m_pRuntimeParam);
        probe.NewRequest<Ipc_Header>(IPC_REQ_GET_VERSION);
        char ignored[ERROR_TEXT_SIZE];
        if (probe.SendRequest(channel, ignored) && probe.GetMsgReply() != nullptr) {
            if (err) snprintf(err, ERROR_TEXT_SIZE, "%s", "Ipc channel is already created by others.");
            return false;
        }
    }
    char reason[ERROR_TEXT_SIZE] = "";
    CIpcServerThread* thread = new CIpcServerThread();
    if (!thread->Open(channel, this, reason)) {
        delete thread;
        if (m_pRuntimeParam->IsLogError())
            m_pUtilities->LogError(m_pRuntimeParam, "[%s] Fail to start ipc server thread. Reason=%s", name, reason);
        if (err) snprintf(err, ERROR_TEXT_SIZE, "%s", reason);
        return false;
    }
    m_pIpcServerThread = thread;
    return true;
}

void CNfsIpcServerMain::StopRemoteController() {
    if (m_pUtilities->GetFileLogger()) m_pUtilities->LogInfo(m_pRuntimeParam, "%s", "Stop Remote Controller");
    ReleaseIpcServerThread();
}
