#include "Socket.h"

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
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
    m_llBytesQueued = m_llPeerAcked = 0;
    m_llPeerProgressMs = CUtilities::GetCurrentSystemTimeInMilliseconds();
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

bool CSocket::Send() {
    const unsigned char* data = m_pOutputStream->GetBuffer();
    const uint32_t size = m_pOutputStream->GetBufferSize();
    bool delivered = true;
    if (size == 0 || (m_Socket == -1 && !m_SendSink)) {
        delivered = size == 0;
    } else if (m_SendSink) {
        for (uint32_t done = 0; delivered && done < size;) {
            ssize_t sent = m_SendSink(data + done, size - done);
            delivered = sent > 0;
            if (delivered) done += (uint32_t)sent;
        }
    } else if (m_iType == TYPE_UDP) {
        sendto(m_Socket, data, size, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&m_RemoteAddr),
               sizeof m_RemoteAddr);
    } else {
        delivered = SendAll(data, size);
        // A peer that takes no replies loses its connection rather than
        // keeping its slot, and whatever was left of its reply.
        if (!delivered) shutdown(m_Socket, SHUT_RDWR);
    }
    m_pOutputStream->ResetBuffer();
    return delivered;
}

bool CSocket::ReceiveArrived() {
    if (m_iType != TYPE_TCP || m_Socket == -1) return false;
    ssize_t n = ReceiveStream(MSG_DONTWAIT);
    if (n <= 0) return false;
    m_pInputStream->AddFilledBufferSize((uint32_t)n);
    return true;
}

ssize_t CSocket::ReceiveStream(int flags) {
    // Behind what is still unparsed, at the end of the input.
    m_pInputStream->ConsolidateBuffer(0);
    return recv(m_Socket, m_pInputStream->GetFreeBuffer(), m_pInputStream->GetFreeBufferSize(), flags);
}

bool CSocket::SendAll(const unsigned char* data, uint32_t size) {
    uint32_t done = 0;
    while (done < size) {
        ssize_t sent = send(m_Socket, data + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            done += (uint32_t)sent;
            m_llBytesQueued += (unsigned long long)sent;
            continue;
        }
        if (sent < 0 && errno == EINTR) continue;
        if (sent == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return false;
        // The send queue is full. Room made by the kernel growing its buffer
        // is no sign of life: only bytes the peer acknowledged are.
        const unsigned long long now = CUtilities::GetCurrentSystemTimeInMilliseconds();
        int unacked = 0;
        if (ioctl(m_Socket, SIOCOUTQ, &unacked) != 0 || unacked < 0) unacked = 0;
        const unsigned long long acked = m_llBytesQueued - (unsigned long long)unacked;
        if (unacked == 0 || acked > m_llPeerAcked) m_llPeerProgressMs = now;
        m_llPeerAcked = acked;
        if (now - m_llPeerProgressMs >= (unsigned long long)SEND_TIMEOUT_MS) return false;
        pollfd writable{m_Socket, POLLOUT, 0};
        if (poll(&writable, 1, 1000) < 0 && errno != EINTR) return false;
    }
    return true;
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

namespace {
// Stream connections whose receive thread is running, in the whole process.
std::atomic<int> g_openStreams{0};
}  // namespace

ssize_t CSocket::ReceiveSoonOrWait(bool poll) {
    // Waking a sleeping thread costs a virtual machine's processor more than
    // a small call's whole round trip. So the only connection of a process,
    // whose last calls were answered quickly, looks for the next call for a
    // few microseconds before it sleeps. With several connections the
    // processors belong to their peers and their calls; after a sync or a
    // read from the disk, to the kernel's own work.
    if (poll && g_openStreams.load() == 1) {
        const auto until = std::chrono::steady_clock::now() + POLL_BEFORE_SLEEP;
        do {
            ssize_t n = ReceiveStream(MSG_DONTWAIT);
            if (n >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return n;
        } while (std::chrono::steady_clock::now() < until);
    }
    return ReceiveStream(0);
}

void CSocket::Run() {
    if (m_iType == TYPE_TCP) g_openStreams.fetch_add(1);
    bool lastServiceQuick = false;
    while (m_Socket != -1) {
        ssize_t n;
        if (m_iType == TYPE_TCP) {
            n = ReceiveSoonOrWait(lastServiceQuick);
            if (n < 0 && errno == EINTR) continue;
        } else {
            // Every datagram stands alone: nothing of an earlier one, whole
            // call or not, is joined to it.
            m_pInputStream->ResetBuffer();
            socklen_t len = sizeof m_RemoteAddr;
            n = recvfrom(m_Socket, m_pInputStream->GetFreeBuffer(), m_pInputStream->GetFreeBufferSize(), 0,
                         reinterpret_cast<sockaddr*>(&m_RemoteAddr), &len);
        }
        if (n > 0) {
            m_pInputStream->AddFilledBufferSize((uint32_t)n);
            const auto began = std::chrono::steady_clock::now();
            if (m_pListener != nullptr) m_pListener->SocketReceived(this);
            lastServiceQuick = std::chrono::steady_clock::now() - began < QUICK_SERVICE;
            continue;
        }
        // An empty datagram or a signal does not end the datagram service;
        // only Close does.
        if (m_iType == TYPE_UDP && !m_bClosing && (n == 0 || errno == EINTR)) continue;
        break;
    }
    // The peer learns at once that the connection is over (an idle one timed
    // out, say); the descriptor itself is closed when the slot is reused.
    if (m_iType == TYPE_TCP && m_Socket != -1) shutdown(m_Socket, SHUT_RDWR);
    if (m_iType == TYPE_TCP) g_openStreams.fetch_sub(1);
    m_bActive = false;
}
