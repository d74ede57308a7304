#pragma once

#include <cstdint>
#include <string>

class CInputStream;
class COutputStream;
class CRuntimeParam;
class CStableBatch;
class CUtilities;

// What a program learns about one call.
struct ProcessParam {
    uint32_t iVersion = 0;         // the call's program version
    uint32_t iProc = 0;            // the procedure number
    std::string sRemoteAddr;       // the caller's IPv4 address, dotted
    int iTransport = 1;            // the socket type: 1 TCP, 2 UDP
    CRuntimeParam* pRuntimeParam = nullptr;
    // What the call changed is synced here before its reply leaves; null
    // when the call runs alone (the program then syncs at once).
    CStableBatch* pStableBatch = nullptr;
};

// Base of every RPC program served by the dispatcher. Process decodes the
// arguments from in, writes the results to out and returns one of the
// result codes below.
class CRpcProg {
public:
    enum Result {
        RESULT_DONE = 0,           // results written: SUCCESS
        RESULT_GARBAGE_ARGS = 1,   // bad arguments or an unknown exception
        RESULT_PROC_UNAVAIL = 2,   // procedure not implemented
        RESULT_TRUNCATED = 3,      // the input ended inside the call
    };
    static constexpr unsigned int ANY = 0xFFFFFFFF;

    explicit CRpcProg(CUtilities* utilities);
    virtual ~CRpcProg();
    CRpcProg(const CRpcProg&) = delete;
    CRpcProg& operator=(const CRpcProg&) = delete;

    virtual int Process(CInputStream* in, COutputStream* out, ProcessParam* param) = 0;
    // The one version served; ANY accepts every version.
    virtual unsigned int GetVersion() { return ANY; }
    // The number of procedures (0 .. n-1 are valid); ANY accepts every number.
    virtual unsigned int GetMaxSupportProc() { return ANY; }

protected:
    CUtilities* m_pUtilities;
};
