#include "DatagramSocket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "Utilities.h"

CDatagramSocket::~CDatagramSocket() { Close(); }

bool CDatagramSocket::Open(unsigned long progId, int port, CUtilities*, char* err) {
    Close();
    m_Socket = socket(AF_INET, SOCK_DGRAM, 0);
    if (m_Socket == -1) {
        ReportSocketError(err, "Fail to create datagram socket", errno);
        return false;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons((uint16_t)port);
    if (bind(m_Socket, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == -1) {
        ReportSocketError(err, "Fail to bind datagram socket", errno);
        SocketClose();
        return false;
    }
    m_bClosed = false;
    m_iPort = port;
    m_pSocket = new CSocket(CSocket::TYPE_UDP, progId);
    m_pSocket->Open(m_Socket, m_pListener, nullptr);
    return true;
}

void CDatagramSocket::Close() {
    if (m_bClosed) return;
    m_bClosed = true;
    // The connection object owns the descriptor from Open on: it shuts it
    // down, joins its receive thread and closes the descriptor exactly once.
    delete m_pSocket;
    m_pSocket = nullptr;
    m_Socket = -1;
}

void CDatagramSocket::SocketClose() {
    if (m_pSocket != nullptr) {
        m_pSocket->Close();  // the descriptor is the connection's
    } else if (m_Socket != -1) {
        shutdown(m_Socket, SHUT_RDWR);
        close(m_Socket);
    }
    m_Socket = -1;
}
