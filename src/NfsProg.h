#pragma once

#include "RpcProg.h"

// The NFS program (100003), version 3. This build answers every procedure
// with PROC_UNAVAIL; it keeps the identity and the read-only flag that the
// server controller gives it at start.
class CNfsProg : public CRpcProg {
public:
    static constexpr unsigned int NFS_VERSION = 3;
    static constexpr unsigned int PROCEDURE_COUNT = 22;

    explicit CNfsProg(CUtilities* utilities);
    ~CNfsProg() override;

    int Process(CInputStream* in, COutputStream* out, ProcessParam* param) override;
    unsigned int GetVersion() override { return NFS_VERSION; }
    unsigned int GetMaxSupportProc() override { return PROCEDURE_COUNT; }

    // User and group that the server acts as.
    void SetUserID(unsigned int uid, unsigned int gid);
    void SetReadOnly(bool readOnly);

protected:
    unsigned int m_iUID = 0;
    unsigned int m_iGID = 0;
    bool m_bReadOnly = false;
};
