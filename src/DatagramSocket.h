#pragma once

#include <atomic>
#include <cerrno>

#include "Socket.h"

class CUtilities;

// UDP socket of one RPC program, received and answered by one connection
// object of type UDP.
class CDatagramSocket {
public:
    CDatagramSocket() = default;
    ~CDatagramSocket();
    CDatagramSocket(const CDatagramSocket&) = delete;
    CDatagramSocket& operator=(const CDatagramSocket&) = delete;

    // Binds port on all local IPv4 addresses and starts receiving for
    // program progId; false with the reason in err (ERROR_TEXT_SIZE bytes).
    // The listener must be set before.
    bool Open(unsigned long progId, int port, CUtilities* utilities, char* err);
    void Close();

    void SetListener(ISocketListener* listener) { m_pListener = listener; }
    int GetPort() const { return m_iPort; }
    int GetSocket() const { return m_Socket; }
    int SocketGetLastError() const { return errno; }
    void SocketClose();
    CSocket* GetConnection() const { return m_pSocket; }

private:
    int m_iPort = 0;
    int m_Socket = -1;
    CSocket* m_pSocket = nullptr;
    std::atomic<bool> m_bClosed{true};
    ISocketListener* m_pListener = nullptr;
};
