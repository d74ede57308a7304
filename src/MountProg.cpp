#include "MountProg.h"

#include <cstdio>
#include <cstring>

#include "DataTruncatedExpt.h"
#include "FileTable.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "Utilities.h"

namespace {

constexpr uint32_t MNT_OK = 0;
// The file service fills a handle buffer of this size; the replies carry its
// first FILE_HANDLE_SIZE bytes (version 3) or V1_HANDLE_SIZE bytes (version 1).
constexpr int HANDLE_BUFFER_SIZE = 88;
constexpr uint32_t V1_HANDLE_SIZE = 32;
constexpr uint32_t MOUNT_V1 = 1;

}  // namespace

const CMountProg::Procedure CMountProg::s_Procedures[PROCEDURE_COUNT] = {
    &CMountProg::ProcedureNULL,   // 0 NULL
    &CMountProg::ProcedureMNT,    // 1 MNT
    &CMountProg::ProcedureNOIMP,  // 2 DUMP
    &CMountProg::ProcedureUMNT,   // 3 UMNT
    &CMountProg::ProcedureNOIMP,  // 4 UMNTALL
    &CMountProg::ProcedureNOIMP,  // 5 EXPORT
};

CMountProg::CMountProg(CUtilities* utilities) : CRpcProg(utilities) {}

void CMountProg::LogName(CRuntimeParam* rp, const char* name) {
    if (m_pUtilities && rp && rp->IsLogProcFuncName()) m_pUtilities->LogInfo(rp, "[%s]", name);
}

int CMountProg::Process(CInputStream* in, COutputStream* out, ProcessParam* param) {
    CRuntimeParam* rp = param->pRuntimeParam;
    LogArgu la{"MountProg.Process"};
    LogName(rp, la.pcName);
    try {
        if (m_pUtilities == nullptr || param->iProc >= PROCEDURE_COUNT) return ProcedureNOIMP(in, out, param);
        return (this->*s_Procedures[param->iProc])(in, out, param);
    } catch (const CDataTruncatedExpt& e) {
        if (m_pUtilities && rp && rp->IsLogError()) m_pUtilities->LogError(rp, "[%s] %s", la.pcName, e.what());
        return RESULT_TRUNCATED;
    } catch (...) {
        if (m_pUtilities && rp && rp->IsLogError()) m_pUtilities->LogError(rp, "[%s] Unknown exception", la.pcName);
        return RESULT_GARBAGE_ARGS;
    }
}

bool CMountProg::ReadPath(CRuntimeParam* rp, LogArgu* la, CInputStream* in, COpaquePath* path) {
    if (path == nullptr) return false;
    uint32_t length = 0;
    in->Read(&length);
    if (length >= MAX_PATH_LENGTH) return false;
    char text[MAX_PATH_LENGTH];
    if (length > 0) in->Read(text, length);
    in->SkipRemainOpaque(length);
    text[length] = '\0';
    // An embedded zero ends the name, as it would for any C text.
    snprintf(path->sPath, sizeof path->sPath, "%s", text);
    if (m_pUtilities && rp && rp->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(rp, "[%s] Read path = %s", la && la->pcName ? la->pcName : "", text);
    return true;
}

int CMountProg::ProcedureNULL(CInputStream*, COutputStream*, ProcessParam* param) {
    LogName(param->pRuntimeParam, "MountProg.ProcedureNULL");
    return RESULT_DONE;
}

bool CMountProg::Mount(CRuntimeParam* rp, LogArgu* la, CInputStream* in, ProcessParam* param,
                       unsigned char* handle) {
    const bool logError = rp && rp->IsLogError();
    COpaquePath path;
    if (!ReadPath(rp, la, in, &path) || path.sPath[0] == '\0') {
        if (logError) m_pUtilities->LogInfo(rp, "[%s] Fail to read export name", la->pcName);
        return false;
    }
    if (param->sRemoteAddr.empty()) {
        if (logError) m_pUtilities->LogInfo(rp, "[%s] Fail to get remote address", la->pcName);
        return false;
    }
    MountInfo mountInfo;
    char err[ERROR_TEXT_SIZE] = "";
    if (!m_pUtilities->UpdateMountClientIpAddrByExportName(path.sPath, param->sRemoteAddr.c_str(),
                                                           &mountInfo, err)) {
        if (logError) m_pUtilities->LogError(rp, "[%s] %s", la->pcName, err);
        return false;
    }
    return m_pUtilities->GetFileHandle(rp, la, mountInfo.sLocalMountPath.c_str(), handle, HANDLE_BUFFER_SIZE);
}

int CMountProg::ProcedureMNT(CInputStream* in, COutputStream* out, ProcessParam* param) {
    CRuntimeParam* rp = param->pRuntimeParam;
    LogArgu la{"MountProg.ProcedureMNT"};
    LogName(rp, la.pcName);
    if (rp && rp->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(rp, "[%s] From %s, NFS Protocol Version=%u", la.pcName, param->sRemoteAddr.c_str(),
                              param->iVersion);
    unsigned char handle[HANDLE_BUFFER_SIZE] = {};
    const bool mounted = Mount(rp, &la, in, param, handle);
    const bool logInfo = rp && rp->IsLogGeneralInfo();
    if (!mounted) {
        if (logInfo) m_pUtilities->LogInfo(rp, "[%s] Mount FAIL", la.pcName);
        out->Write(MNT_ERR_ACCES);
        return RESULT_DONE;
    }
    if (logInfo) m_pUtilities->LogInfo(rp, "[%s] Mount OK", la.pcName);
    out->Write(MNT_OK);
    if (param->iVersion == MOUNT_V1) {
        out->Write(handle, V1_HANDLE_SIZE);
    } else {
        out->Write((uint32_t)FILE_HANDLE_SIZE);
        out->Write(handle, FILE_HANDLE_SIZE);
        out->Write((uint32_t)0);  // no authentication flavors listed
    }
    return RESULT_DONE;
}

int CMountProg::ProcedureUMNT(CInputStream* in, COutputStream*, ProcessParam* param) {
    CRuntimeParam* rp = param->pRuntimeParam;
    LogArgu la{"MountProg.ProcedureUMNT"};
    LogName(rp, la.pcName);
    if (rp && rp->IsLogProcFuncArgu())
        m_pUtilities->LogInfo(rp, "[%s] From %s", la.pcName, param->sRemoteAddr.c_str());
    COpaquePath path;
    const bool logInfo = rp && rp->IsLogGeneralInfo();
    if (!ReadPath(rp, &la, in, &path)) {
        if (logInfo) m_pUtilities->LogInfo(rp, "[%s] Umount FAIL", la.pcName);
        return RESULT_DONE;
    }
    // Only the host that mounted an export may give it up: any other would
    // take it over with its next MNT.
    char err[ERROR_TEXT_SIZE] = "";
    if (m_pUtilities->IsMountInfoExists(rp, &la, nullptr, path.sPath, nullptr) &&
        !m_pUtilities->ReleaseMountClientIpAddrByExportName(path.sPath, param->sRemoteAddr.c_str(), err)) {
        if (rp && rp->IsLogError()) m_pUtilities->LogError(rp, "[%s] %s", la.pcName, err);
        if (logInfo) m_pUtilities->LogInfo(rp, "[%s] Umount FAIL", la.pcName);
        return RESULT_DONE;
    }
    if (logInfo) m_pUtilities->LogInfo(rp, "[%s] Umount OK", la.pcName);
    return RESULT_DONE;
}

int CMountProg::ProcedureNOIMP(CInputStream*, COutputStream*, ProcessParam* param) {
    LogName(param->pRuntimeParam, "MountProg.ProcedureNOIMP");
    return RESULT_PROC_UNAVAIL;
}
