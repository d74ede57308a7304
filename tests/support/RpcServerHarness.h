#pragma once

// A running dispatcher for wire tests: a file service whose log lines are
// recorded, the dispatcher, and any number of listening TCP/UDP socket pairs
// that feed it. Programs are registered by the test with Server().Set(...).

#include <memory>
#include <string>
#include <vector>

#include "DatagramSocket.h"
#include "LogRecorder.h"
#include "RpcServer.h"
#include "ServerSocket.h"
#include "Utilities.h"

class RpcServerHarness {
public:
    static constexpr int ALL_LOGS = 0x3FF;

    explicit RpcServerHarness(int logControl = ALL_LOGS);
    ~RpcServerHarness() { Close(); }

    CRpcServer& Server() { return *m_pServer; }
    CUtilities& Utilities() { return m_utilities; }
    CRuntimeParam& Runtime() { return m_runtime; }
    LogRecorder& Log() { return m_log; }

    struct Endpoint {
        std::unique_ptr<CServerSocket> tcp;
        std::unique_ptr<CDatagramSocket> udp;
        uint16_t tcpPort = 0;
        uint16_t udpPort = 0;
    };
    // Opens a TCP listener with slots connections and a UDP socket for
    // progId; port 0 picks a free port for each. Null with the reason in
    // err when a socket cannot be opened.
    Endpoint* Listen(unsigned long progId, int tcpPort, int udpPort, int slots = 10, std::string* err = nullptr);
    // Closes every socket (joining their threads).
    void Close();

private:
    LogRecorder m_log;
    CUtilities m_utilities;
    CRuntimeParam m_runtime;
    std::unique_ptr<CRpcServer> m_pServer;
    std::vector<std::unique_ptr<Endpoint>> m_endpoints;
};
