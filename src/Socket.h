#pragma once

#include <netinet/in.h>
#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

class CInputStream;
class COutputStream;
class CSocket;

// Told about the bytes a connection received, on that connection's thread.
class ISocketListener {
public:
    virtual ~ISocketListener() = default;
    virtual void SocketReceived(CSocket* socket) = 0;
};

// One RPC connection: a descriptor, its receive thread and its pair of 1 MiB
// XDR streams. A TCP connection serves one accepted peer; the single UDP
// connection of a datagram socket answers whoever sent the last datagram.
class CSocket {
public:
    enum { TYPE_TCP = 1, TYPE_UDP = 2 };

    CSocket(int type, unsigned long progId);
    virtual ~CSocket();
    CSocket(const CSocket&) = delete;
    CSocket& operator=(const CSocket&) = delete;

    // Takes fd (closing any previous descriptor and thread first) and, when
    // fd is not -1, starts the receive thread.
    void Open(int fd, ISocketListener* listener, const sockaddr_in* remote);
    // Shuts the descriptor down, joins the receive thread, closes the descriptor.
    void Close();
    // Sends the whole output stream and empties it. A TCP peer that has
    // acknowledged nothing for SEND_TIMEOUT_MS while a reply waits is cut
    // off: the connection is shut down (its thread ends and the slot frees)
    // and false is returned. A datagram goes out whole or not at all.
    bool Send();
    // Takes in what has already arrived on a stream, without waiting; false
    // when nothing has (an end or an error is left to the receive loop).
    bool ReceiveArrived();
    static constexpr int SEND_TIMEOUT_MS = 30000;

    // Takes what Send would send instead of a descriptor: returns the number
    // of bytes taken, or -1 for a failed send. It lets a harness drive the
    // dispatcher without a network (the fuzz target fills the input stream
    // itself and calls SocketReceived); served connections never have one.
    using SendSink = std::function<ssize_t(const unsigned char* data, uint32_t size)>;
    void SetSendSink(SendSink sink) { m_SendSink = std::move(sink); }

    bool IsActive() const { return m_bActive; }
    int GetType() const { return m_iType; }
    unsigned long GetProgId() const { return m_lProgId; }
    CInputStream* GetInputStream() { return m_pInputStream; }
    COutputStream* GetOutputStream() { return m_pOutputStream; }
    std::string GetRemoteAddress() const;
    int GetRemotePort() const;

private:
    static void* ThreadMain(void* self);
    void Run();
    bool SendAll(const unsigned char* data, uint32_t size);
    // recv of a stream into the free end of the input stream.
    ssize_t ReceiveStream(int flags);
    // The next bytes of a stream: polled for POLL_BEFORE_SLEEP first when
    // poll is set and this is the process's only stream, then waited for.
    ssize_t ReceiveSoonOrWait(bool poll);
    static constexpr std::chrono::microseconds POLL_BEFORE_SLEEP{25};
    // Calls served within this time leave the processor to the next poll.
    static constexpr std::chrono::microseconds QUICK_SERVICE{200};

    int m_iType;
    int m_Socket = -1;
    sockaddr_in m_RemoteAddr{};
    ISocketListener* m_pListener = nullptr;
    CInputStream* m_pInputStream;
    COutputStream* m_pOutputStream;
    std::atomic<bool> m_bActive{false};
    // Set while Close runs, so that the datagram receive loop can tell the
    // wake-up of a shutdown from an empty datagram.
    std::atomic<bool> m_bClosing{false};
    pthread_t m_hThread = (pthread_t)-1;
    int m_iThreadCreated = -1;
    unsigned long m_lProgId;
    SendSink m_SendSink;
    // What the peer took of the replies: bytes handed to the kernel, bytes
    // it acknowledged when last looked at, and when that last grew.
    unsigned long long m_llBytesQueued = 0;
    unsigned long long m_llPeerAcked = 0;
    unsigned long long m_llPeerProgressMs = 0;
};

// Writes "<what>. <system text> (<errnum>)" into err (ERROR_TEXT_SIZE bytes)
// when err is given: the failure texts of the listening sockets.
void ReportSocketError(char* err, const char* what, int errnum);

// Joins a thread made by pthread_create (created == 0) unless a signal-0
// probe says it no longer exists; sets created back to -1.
void JoinSocketThread(pthread_t thread, int& created);
