#include "PortmapProg.h"

#include "DataTruncatedExpt.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "Utilities.h"

namespace {

constexpr unsigned long FIRST_PROGRAM = 100000;
constexpr uint32_t PMAPPROC_GETPORT = 3;

}  // namespace

CPortmapProg::CPortmapProg(CUtilities* utilities) : CRpcProg(utilities) {}

void CPortmapProg::Set(unsigned long prog, unsigned long port) {
    if (prog >= FIRST_PROGRAM && prog < FIRST_PROGRAM + PORT_TABLE_SIZE) m_lPortTable[prog - FIRST_PROGRAM] = port;
}

int CPortmapProg::Process(CInputStream* in, COutputStream* out, ProcessParam* param) {
    CRuntimeParam* rp = param->pRuntimeParam;
    try {
        if (param->iProc == PMAPPROC_GETPORT && m_pUtilities != nullptr) return ProcedureGETPORT(in, out, param);
        return ProcedureNOIMP(param);
    } catch (const CDataTruncatedExpt& e) {
        CDataTruncatedExpt copy(e);
        if (m_pUtilities && rp && rp->IsLogError())
            m_pUtilities->LogError(rp, "[%s] %s", "PortmapProg.Process", copy.what());
        return RESULT_TRUNCATED;
    } catch (...) {
        if (m_pUtilities && rp && rp->IsLogError())
            m_pUtilities->LogError(rp, "[%s] Unknown exception", "PortmapProg.Process");
        return RESULT_GARBAGE_ARGS;
    }
}

int CPortmapProg::ProcedureGETPORT(CInputStream* in, COutputStream* out, ProcessParam* param) {
    CRuntimeParam* rp = param->pRuntimeParam;
    LogArgu la{"PortmapProg.ProcedureGETPORT"};
    if (rp && rp->IsLogProcFuncName()) m_pUtilities->LogInfo(rp, "[%s]", la.pcName);
    PORTMAP_HEADER mapping;
    in->Read(&mapping.lProg);
    in->Skip(12);  // version, protocol and port do not matter
    unsigned long port = 0;
    if (mapping.lProg >= FIRST_PROGRAM && mapping.lProg < FIRST_PROGRAM + PORT_TABLE_SIZE)
        port = m_lPortTable[mapping.lProg - FIRST_PROGRAM];
    out->Write((uint32_t)port);
    if (rp && rp->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(rp, "[%s] lProg = %d, lPort = %d", la.pcName, (int)mapping.lProg, (int)port);
    return RESULT_DONE;
}

int CPortmapProg::ProcedureNOIMP(ProcessParam* param) {
    CRuntimeParam* rp = param->pRuntimeParam;
    if (m_pUtilities && rp && rp->IsLogProcFuncName())
        m_pUtilities->LogInfo(rp, "[%s]", "PortmapProg.ProcedureNOIMP");
    return RESULT_PROC_UNAVAIL;
}
