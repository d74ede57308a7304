#pragma once

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <vector>

#include "Socket.h"

class CUtilities;
class CDatagramSocket;

// TCP listener of one RPC program: an accept thread that hands each new
// connection to the first free slot of a fixed pool.
class CServerSocket {
public:
    CServerSocket() = default;
    ~CServerSocket();
    CServerSocket(const CServerSocket&) = delete;
    CServerSocket& operator=(const CServerSocket&) = delete;

    // Listens on port (all local IPv4 addresses) with maxNum slots for
    // connections of program progId; false with the reason in err
    // (ERROR_TEXT_SIZE bytes) when the port cannot be had.
    bool Open(unsigned long progId, int port, int maxNum, CUtilities* utilities, char* err);
    // Stops accepting, then closes every connection and joins every thread.
    void Close();

    void SetListener(ISocketListener* listener) { m_pListener = listener; }
    int GetPort() const { return m_nPort; }
    int GetSocket() const { return m_ServerSocket; }
    int SocketGetLastError() const { return errno; }
    void SocketClose();
    // Slot index of the pool (0 .. maxNum-1), for whoever watches the slots.
    CSocket* GetConnection(int index) const;
    int GetMaxNum() const { return m_nMaxNum; }

private:
    static void* ThreadMain(void* self);
    void Run();

    int m_nPort = 0;
    int m_nMaxNum = 0;
    int m_ServerSocket = -1;
    std::atomic<bool> m_bClosed{true};
    ISocketListener* m_pListener = nullptr;
    pthread_t m_hThread = (pthread_t)-1;
    int m_iThreadCreated = -1;
    std::vector<std::unique_ptr<CSocket>> m_pSockets;  // the connection slots
};

// The record the server controller keeps for each program's pair of sockets.
struct SocketHandle {
    CServerSocket* pServerSocket = nullptr;
    CDatagramSocket* pDatagramSocket = nullptr;
};
