#include "NfsProg.h"

#include "Nfs3Prog.h"

CNfsProg::CNfsProg(CUtilities* utilities) : CRpcProg(utilities) {}

CNfsProg::~CNfsProg() { delete m_pNfs3Prog; }

int CNfsProg::Process(CInputStream* in, COutputStream* out, ProcessParam* param) {
    // Other versions get PROC_UNAVAIL, not PROG_MISMATCH.
    if (param == nullptr || param->iVersion != 3) return RESULT_PROC_UNAVAIL;
    if (m_pNfs3Prog == nullptr) {
        m_pNfs3Prog = new CNfs3Prog(m_pUtilities);
        m_pNfs3Prog->SetUserID(m_iUId, m_iGId);
        m_pNfs3Prog->SetReadOnly(m_bReadOnly);
    }
    return m_pNfs3Prog->Process(in, out, param);
}

unsigned int CNfsProg::GetVersion() { return m_pNfs3Prog ? m_pNfs3Prog->GetVersion() : CRpcProg::GetVersion(); }

unsigned int CNfsProg::GetMaxSupportProc() {
    return m_pNfs3Prog ? m_pNfs3Prog->GetMaxSupportProc() : CRpcProg::GetMaxSupportProc();
}

void CNfsProg::SetUserID(unsigned int uid, unsigned int gid) {
    m_iUId = uid;
    m_iGId = gid;
    if (m_pNfs3Prog) m_pNfs3Prog->SetUserID(uid, gid);
}

void CNfsProg::SetReadOnly(bool flag) {
    m_bReadOnly = flag;
    if (m_pNfs3Prog) m_pNfs3Prog->SetReadOnly(flag);
}
