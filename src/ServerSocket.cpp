#include "ServerSocket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "Utilities.h"

CServerSocket::~CServerSocket() { Close(); }

bool CServerSocket::Open(unsigned long progId, int port, int maxNum, CUtilities*, char* err) {
    Close();
    m_nPort = port;
    m_nMaxNum = maxNum;
    m_ServerSocket = socket(AF_INET, SOCK_STREAM, 0);
    if (m_ServerSocket == -1) {
        ReportSocketError(err, "Fail to create server socket", errno);
        return false;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons((uint16_t)port);
    // A stop with clients still connected leaves the port in TIME_WAIT;
    // without this the server could not start again on it for a minute.
    // A second listener on a port in use is still refused.
    int reuse = 1;
    setsockopt(m_ServerSocket, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    const char* failure = nullptr;
    if (bind(m_ServerSocket, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == -1)
        failure = "Fail to bind server socket";
    else if (listen(m_ServerSocket, maxNum) == -1)
        failure = "Fail to listen server socket";
    if (failure != nullptr) {
        ReportSocketError(err, failure, errno);
        SocketClose();
        return false;
    }
    m_pSockets.clear();
    for (int i = 0; i < maxNum; ++i) m_pSockets.push_back(std::make_unique<CSocket>(CSocket::TYPE_TCP, progId));
    m_bClosed = false;
    m_iThreadCreated = pthread_create(&m_hThread, nullptr, ThreadMain, this);
    return true;
}

void CServerSocket::Close() {
    if (m_bClosed) return;
    m_bClosed = true;
    // Shut down first to release accept(); close only once the accept
    // thread is gone so that it never waits on a reused number.
    if (m_ServerSocket != -1) shutdown(m_ServerSocket, SHUT_RDWR);
    JoinSocketThread(m_hThread, m_iThreadCreated);
    SocketClose();
    m_pSockets.clear();
}

void CServerSocket::SocketClose() {
    if (m_ServerSocket == -1) return;
    shutdown(m_ServerSocket, SHUT_RDWR);
    close(m_ServerSocket);
    m_ServerSocket = -1;
}

CSocket* CServerSocket::GetConnection(int index) const {
    if (index < 0 || (size_t)index >= m_pSockets.size()) return nullptr;
    return m_pSockets[(size_t)index].get();
}

void* CServerSocket::ThreadMain(void* self) {
    static_cast<CServerSocket*>(self)->Run();
    return nullptr;
}

void CServerSocket::Run() {
    while (!m_bClosed) {
        sockaddr_in remote{};
        socklen_t len = sizeof remote;
        int fd = accept(m_ServerSocket, reinterpret_cast<sockaddr*>(&remote), &len);
        if (fd == -1 || fd == 0) {
            // Descriptor 0 is not taken for a connection; it is not kept either.
            if (fd == 0) close(fd);
            continue;
        }
        // Each reply goes out in one send: holding its last partial segment
        // back until the previous one is acknowledged (Nagle) only delays
        // clients that keep several calls in flight.
        int noDelay = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
        int i = 0;
        while (i < m_nMaxNum && m_pSockets[i]->IsActive()) ++i;
        // The listener never refuses or queues a connection beyond its slots:
        // running out of them ends the process, whatever the build.
        if (!(i < m_nMaxNum)) {
            fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", __FILE__, __LINE__, __func__, "i < m_nMaxNum");
            fflush(stderr);
            std::abort();
        }
        m_pSockets[i]->Open(fd, m_pListener, &remote);
    }
}
