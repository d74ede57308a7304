#pragma once

#include <cstdint>
#include <mutex>

#include "RuntimeParam.h"
#include "Socket.h"

class CInputStream;
class COutputStream;
class CRpcProg;
class CStableBatch;
class CUtilities;

// Credential or verifier of a call; its body follows on the wire.
struct OPAQUE_AUTH {
    uint32_t lFlavor = 0;
    uint32_t lLength = 0;
};

// Fixed part of a TCP call (lHeader is the record mark). The UDP form,
// RPC_HEADER, is the same without lHeader.
struct RPC_STM_HEADER {
    uint32_t lHeader = 0;
    uint32_t lXID = 0;
    uint32_t lMsg = 0;
    uint32_t lRpcvers = 0;
    uint32_t lProg = 0;
    uint32_t lVers = 0;
    uint32_t lProc = 0;
    OPAQUE_AUTH cred;
    OPAQUE_AUTH verf;
};

// The ONC RPC dispatcher shared by every socket of the server. It finds call
// headers in a connection's input, routes each call to the program
// registered for it and sends the replies, once what their calls changed is
// on stable storage. One mutex serialises all RPC work of the process.
class CRpcServer : public ISocketListener {
public:
    static constexpr unsigned long FIRST_PROGRAM = 100000;
    static constexpr int PROGRAM_SLOTS = 10;

    CRpcServer(CUtilities* utilities, CRuntimeParam* runtimeParam);
    ~CRpcServer() override;
    CRpcServer(const CRpcServer&) = delete;
    CRpcServer& operator=(const CRpcServer&) = delete;

    // Serves program progNumber (100000 .. 100009) with prog, not owned.
    void Set(int progNumber, CRpcProg* prog);
    void SetLogControl(int logControl) { m_pRuntimeParam->SetLogControl(logControl); }

    void SocketReceived(CSocket* socket) override;

private:
    void Log(bool enabled, bool error, const char* fmt, ...) __attribute__((format(printf, 4, 5)));
    CRpcProg* ProgramFor(unsigned long progId) const;
    // Under the mutex: finds and runs the next call of the socket's input,
    // appending its reply to the output and what it changed to batch. True
    // when a further call may follow in what was received.
    bool ExecuteNextCall(CSocket* socket, CStableBatch* batch);
    bool LookForValidHeader(CRuntimeParam* rp, LogArgu* la, unsigned long progId, int type, CInputStream* in,
                            COutputStream* out);
    int Process(CRuntimeParam* rp, unsigned long progId, int type, CInputStream* in, COutputStream* out,
                const char* remoteAddr, CStableBatch* batch);

    CRpcProg* m_pProgTable[PROGRAM_SLOTS] = {};
    std::mutex m_hMutex;
    CUtilities* m_pUtilities;
    CRuntimeParam* m_pRuntimeParam;
};
