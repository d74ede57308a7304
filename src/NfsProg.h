#pragma once

#include "RpcProg.h"

class CNfs3Prog;
class CUtilities;

// The NFS program (100003) as the dispatcher sees it: serves version 3 only,
// through a CNfs3Prog made on the first version 3 call. The user, group and
// read-only flag given by the server controller are kept here and handed on.
class CNfsProg : public CRpcProg {
public:
    explicit CNfsProg(CUtilities* utilities);
    ~CNfsProg() override;

    // Any other version answers "procedure unavailable" (result 2).
    int Process(CInputStream* in, COutputStream* out, ProcessParam* param) override;
    // The version 3 handler's answers once it exists, the base class's before.
    unsigned int GetVersion() override;
    unsigned int GetMaxSupportProc() override;

    void SetUserID(unsigned int uid, unsigned int gid);
    void SetReadOnly(bool flag);

    // The version 3 handler; null before the first version 3 call.
    CNfs3Prog* GetNfs3Prog() const { return m_pNfs3Prog; }

protected:
    unsigned int m_iUId = 0;
    unsigned int m_iGId = 0;
    bool m_bReadOnly = false;
    CNfs3Prog* m_pNfs3Prog = nullptr;
};
