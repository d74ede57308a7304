#include "IpcServerThread.h"

#include <cstdio>

#include "IpcServer.h"
#include "Utilities.h"

CIpcServerThread::~CIpcServerThread() { Close(); }

bool CIpcServerThread::Open(const char* channel, CNfsMain* nfs, char* errText) {
    Close();
    CIpcServer* server = new CIpcServer(nfs);
    if (!server->Open(channel, errText)) {
        delete server;
        return false;
    }
    m_pServer = server;
    m_bActive = true;
    m_iThreadCreated = pthread_create(&m_hThread, nullptr, ThreadMain, this);
    if (m_iThreadCreated != 0) {
        m_bActive = false;
        if (errText) {
            char reason[ERROR_TEXT_SIZE] = "";
            CUtilities::GetLastErrorText(reason, m_iThreadCreated);
            snprintf(errText, ERROR_TEXT_SIZE, "%s", reason);
        }
        delete m_pServer;
        m_pServer = nullptr;
        return false;
    }
    return true;
}

void CIpcServerThread::Close() {
    if (m_pServer) m_pServer->Shutdown();
    if (m_iThreadCreated == 0) {
        // Joinable until joined, even when its loop has ended already.
        pthread_join(m_hThread, nullptr);
        m_iThreadCreated = -1;
    }
    if (m_pServer) {
        m_pServer->Close();
        delete m_pServer;
        m_pServer = nullptr;
    }
    m_bActive = false;
}

void* CIpcServerThread::ThreadMain(void* self) {
    static_cast<CIpcServerThread*>(self)->Run();
    return nullptr;
}

void CIpcServerThread::Run() {
    while (m_pServer && m_pServer->IsOpened()) m_pServer->ReadRequest();
    m_bActive = false;
}
