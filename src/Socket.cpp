#include "Socket.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "InputStream.h"
#include "OutputStream.h"
#include "Utilities.h"

void ReportSocketError(char* err, const char* what, int errnum) {
    if (err == nullptr) return;
    char reason[256] = "";
    CUtilities::GetLastErrorText(reason, errnum, sizeof reason);
    snprintf(err, ERROR_TEXT_SIZE, "%s. %s", what, reason);
}

void JoinSocketThread(pthread_t thread, int& created) {
    if (created != 0) return;
    int probe = pthread_kill(thread, 0);
    if (probe != ESRCH && probe != EINVAL) pthread_join(thread, nullptr);
    created = -1;
}

CSocket::CSocket(int type, unsigned long progId)
    : m_iType(type), m_pInputStream(new CInputStream()), m_pOutputStream(new COutputStream()), m_lProgId(progId) {}

CSocket::~CSocket() {
    Close();
    delete m_pInputStream;
    delete m_pOutputStream;
}

void CSocket::Open(int fd, ISocketListener* listener, const sockaddr_in* remote) {
    Close();
    m_Socket = fd;
    m_pListener = listener;
    if (remote != nullptr) m_RemoteAddr = *remote;
    if (fd == -1) return;
    // A new peer starts with empty streams.
    m_pInputStream->ResetBuffer();
    m_pOutputStream->ResetBuffer();
    m_bActive = true;
    m_iThreadCreated = pthread_create(&m_hThread, nullptr, ThreadMain, this);
    if (m_iThreadCreated != 0) m_bActive = false;
}

void CSocket::Close() {
    if (m_Socket == -1 && m_iThreadCreated != 0) return;
    m_bClosing = true;
    // Shutting down releases the blocked receive; the descriptor is closed
    // only after the thread is gone so that it never reads a reused number.
    if (m_Socket != -1) shutdown(m_Socket, SHUT_RDWR);
    JoinSocketThread(m_hThread, m_iThreadCreated);
    if (m_Socket != -1) close(m_Socket);
    m_Socket = -1;
    m_bActive = false;
    m_bClosing = false;
}

void CSocket::Send() {
    uint32_t size = m_pOutputStream->GetBufferSize();
    if (size == 0 || (m_Socket == -1 && !m_SendSink)) return;
    ssize_t sent;
    if (m_SendSink) {
        sent = m_SendSink(m_pOutputStream->GetBuffer(), size);
    } else if (m_iType == TYPE_TCP) {
        sent = send(m_Socket, m_pOutputStream->GetBuffer(), size, MSG_NOSIGNAL);
    } else {
        sent = sendto(m_Socket, m_pOutputStream->GetBuffer(), size, MSG_NOSIGNAL,
                      reinterpret_cast<const sockaddr*>(&m_RemoteAddr), sizeof m_RemoteAddr);
    }
    // A datagram goes out whole or not at all; one that failed is dropped
    // rather than left to prefix every later reply.
    if (m_iType == TYPE_UDP && sent < 0) m_pOutputStream->ResetBuffer();
    if (sent >= 1) m_pOutputStream->FreeBuffer((uint32_t)sent);
}

std::string CSocket::GetRemoteAddress() const {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &m_RemoteAddr.sin_addr, text, sizeof text);
    return text;
}

int CSocket::GetRemotePort() const { return ntohs(m_RemoteAddr.sin_port); }

void* CSocket::ThreadMain(void* self) {
    static_cast<CSocket*>(self)->Run();
    return nullptr;
}

void CSocket::Run() {
    while (m_Socket != -1) {
        m_pInputStream->ConsolidateBuffer(0);
        ssize_t n;
        if (m_iType == TYPE_TCP) {
            n = recv(m_Socket, m_pInputStream->GetFreeBuffer(), m_pInputStream->GetFreeBufferSize(), 0);
        } else {
            // Bytes of earlier datagrams that never formed a call must not
            // block the datagram service for good.
            if (m_pInputStream->GetFreeBufferSize() == 0) m_pInputStream->ResetBuffer();
            socklen_t len = sizeof m_RemoteAddr;
            n = recvfrom(m_Socket, m_pInputStream->GetFreeBuffer(), m_pInputStream->GetFreeBufferSize(), 0,
                         reinterpret_cast<sockaddr*>(&m_RemoteAddr), &len);
        }
        if (n > 0) {
            m_pInputStream->AddFilledBufferSize((uint32_t)n);
            if (m_pListener != nullptr) m_pListener->SocketReceived(this);
            continue;
        }
        // An empty datagram or a signal does not end the datagram service;
        // only Close does.
        if (m_iType == TYPE_UDP && !m_bClosing && (n == 0 || errno == EINTR)) continue;
        break;
    }
    m_bActive = false;
}
