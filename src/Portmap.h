#pragma once

class CRuntimeParam;
class CServerSocket;
class CUtilities;

// Access to the host's portmapper: finds out at construction whether one
// holds port 111, and registers or unregisters the server's programs with it
// through the system RPC library. The library's service loop is never run;
// the registered transports only publish the port of the server's own
// listener.
class CPortmap {
public:
    static constexpr unsigned long PORTMAPPER_PORT = 111;

    CPortmap(CUtilities* utilities, CRuntimeParam* runtimeParam);
    virtual ~CPortmap();
    CPortmap(const CPortmap&) = delete;
    CPortmap& operator=(const CPortmap&) = delete;

    // Whether a system portmapper runs: the answer found at construction, or
    // with probe a new test of whether port 111 can be bound.
    bool IsRunning(bool probe);
    bool IsRunning() { return IsRunning(false); }

    // Maps prog/vers on TCP and UDP to the listener's port; false with the
    // reason in err (ERROR_TEXT_SIZE bytes).
    bool Register(unsigned long prog, unsigned long vers, CServerSocket* listener, char* err);
    // The same for a descriptor (0: make one bound to port).
    bool Register(unsigned long prog, unsigned long vers, int sock, unsigned long port, char* err);
    // Removes the mappings of prog/vers; false when no portmapper runs.
    bool Unregister(unsigned long prog, unsigned long vers, char* err);

    bool bIsRunning;

private:
    // A TCP socket bound to port with SO_REUSEADDR: the descriptor, -1 when
    // no socket could be made, -2 when the port cannot be bound.
    int CreateSocket(unsigned long port, char* err = nullptr);
    bool RegisterSvc(long prog, long vers, int sock, char* err);

    CUtilities* m_pUtilities;
    CRuntimeParam* m_pRuntimeParam;
};
