#pragma once

#include <cstdint>

#include "RpcProg.h"

// Argument of GETPORT: a portmapper mapping.
struct PORTMAP_HEADER {
    uint32_t lProg = 0;
    uint32_t lVers = 0;
    uint32_t lProto = 0;
    uint32_t lPort = 0;
};

// The internal portmapper (program 100000), served when no system
// portmapper holds port 111. It answers GETPORT only: the port of a program
// is the same for TCP and UDP and for every version. Every other procedure,
// NULL included, is PROC_UNAVAIL.
class CPortmapProg : public CRpcProg {
public:
    static constexpr int PORT_TABLE_SIZE = 10;

    explicit CPortmapProg(CUtilities* utilities);

    // Port of program prog (100000 .. 100009).
    void Set(unsigned long prog, unsigned long port);

    int Process(CInputStream* in, COutputStream* out, ProcessParam* param) override;
    unsigned int GetMaxSupportProc() override { return 6; }

private:
    int ProcedureGETPORT(CInputStream* in, COutputStream* out, ProcessParam* param);
    int ProcedureNOIMP(ProcessParam* param);

    unsigned long m_lPortTable[PORT_TABLE_SIZE] = {};
};
