#include "ServerSocket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "Utilities.h"

namespace {

// Keepalive probes after 20 s of silence, every 5 s; a peer that answers
// none of them, or leaves data unacknowledged, is given up after 45 s, so
// the slot of a vanished host comes back within a minute.
constexpr int KEEPALIVE_IDLE_S = 20;
constexpr int KEEPALIVE_INTERVAL_S = 5;
constexpr int KEEPALIVE_COUNT = 4;
constexpr unsigned USER_TIMEOUT_MS = 45000;
// MOUNT and portmapper clients make a call or two and leave; their few
// slots come back when a connection stays quiet this long.
constexpr int SHORT_LIVED_IDLE_S = 5;
constexpr unsigned long NFS_PROGRAM = 100003;
// Pause after a failed accept (out of descriptors, say) before the next try.
constexpr int ACCEPT_BACKOFF_MS = 100;

void ConfigureConnection(int fd, unsigned long progId) {
    // Each reply goes out in one send: holding its last partial segment
    // back until the previous one is acknowledged (Nagle) only delays
    // clients that keep several calls in flight.
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    int idle = KEEPALIVE_IDLE_S, interval = KEEPALIVE_INTERVAL_S, count = KEEPALIVE_COUNT;
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count);
    unsigned userTimeout = USER_TIMEOUT_MS;
    setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &userTimeout, sizeof userTimeout);
    if (progId != NFS_PROGRAM) {
        timeval quiet{SHORT_LIVED_IDLE_S, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &quiet, sizeof quiet);
    }
}

}  // namespace

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
            // A failure that the next call would repeat at once (no
            // descriptor left, say) must not spin the thread.
            if (fd == -1 && errno != EINTR && errno != ECONNABORTED && !m_bClosed)
                std::this_thread::sleep_for(std::chrono::milliseconds(ACCEPT_BACKOFF_MS));
            continue;
        }
        ConfigureConnection(fd, m_pSockets.empty() ? 0 : m_pSockets[0]->GetProgId());
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
