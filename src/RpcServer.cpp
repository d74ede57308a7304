#include "RpcServer.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "DataTruncatedExpt.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "RpcProg.h"
#include "Utilities.h"

namespace {

// The reply to a call: REPLY, MSG_ACCEPTED, and the accept states used.
constexpr uint32_t MSG_REPLY = 1;
constexpr uint32_t MSG_ACCEPTED = 0;
constexpr uint32_t ACCEPT_SUCCESS = 0;
constexpr uint32_t ACCEPT_PROG_UNAVAIL = 1;
constexpr uint32_t ACCEPT_PROC_UNAVAIL = 3;
constexpr uint32_t ACCEPT_GARBAGE_ARGS = 4;
// Last-fragment bit of a record mark, less the 4 bytes of the mark itself.
constexpr uint32_t RECORD_MARK_BIAS = 0x7FFFFFFC;

uint32_t BigEndianAt(const unsigned char* p) {
    return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | (uint32_t)p[3];
}

}  // namespace

CRpcServer::CRpcServer(CUtilities* utilities, CRuntimeParam* runtimeParam)
    : m_pUtilities(utilities),
      m_pRuntimeParam(new CRuntimeParam("", runtimeParam ? runtimeParam->GetLogControl() : 0)) {}

CRpcServer::~CRpcServer() { delete m_pRuntimeParam; }

void CRpcServer::Set(int progNumber, CRpcProg* prog) {
    long slot = (long)progNumber - (long)FIRST_PROGRAM;
    if (slot >= 0 && slot < PROGRAM_SLOTS) m_pProgTable[slot] = prog;
}

CRpcProg* CRpcServer::ProgramFor(unsigned long progId) const {
    if (progId < FIRST_PROGRAM || progId >= FIRST_PROGRAM + PROGRAM_SLOTS) return nullptr;
    return m_pProgTable[progId - FIRST_PROGRAM];
}

void CRpcServer::Log(bool enabled, bool error, const char* fmt, ...) {
    if (!enabled || m_pUtilities == nullptr) return;
    char text[LOG_MESSAGE_SIZE];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    if (error)
        m_pUtilities->LogError(m_pRuntimeParam, text);
    else
        m_pUtilities->LogInfo(m_pRuntimeParam, text);
}

void CRpcServer::SocketReceived(CSocket* socket) {
    std::lock_guard<std::mutex> lock(m_hMutex);
    const std::string remoteAddr = socket->GetRemoteAddress();
    m_pRuntimeParam->SetID(remoteAddr.c_str());
    CRuntimeParam* rp = m_pRuntimeParam;
    LogArgu la{"RpcServer.SocketReceived"};
    CInputStream* in = socket->GetInputStream();
    COutputStream* out = socket->GetOutputStream();
    const unsigned long progId = socket->GetProgId();
    const int type = socket->GetType();

    while (in->GetFilledBufferSize() != 0) {
        Log(rp->IsLogRpc(), false, "[%s] Input buf size(%u) pos(%u)", la.pcName, in->GetFilledBufferSize(),
            in->GetBufferIndex());
        if (!LookForValidHeader(rp, &la, progId, type, in, out)) {
            Log(rp->IsLogRpc(), false, "[%s] Cannot find valid header!!", la.pcName);
            break;
        }
        const uint32_t callStart = in->GetBufferIndex();
        int result = Process(rp, progId, type, in, out, remoteAddr.c_str());
        if (result == CRpcProg::RESULT_TRUNCATED && !LookForValidHeader(rp, &la, progId, type, in, out)) {
            // The call is still arriving: parse it again once the rest is there.
            out->ResetBuffer();
            in->SetBufferIndex(callStart);
            Log(rp->IsLogRpc(), false, "[%s] Reset input buffer postion", la.pcName);
        }
        Log(rp->IsLogRpc(), false, "[%s] Output buf size(%u)", la.pcName, out->GetBufferSize());
        socket->Send();
        // A datagram gets one reply; after a failed call on a stream the rest
        // waits for the next receive.
        if (result != CRpcProg::RESULT_DONE || type == CSocket::TYPE_UDP) break;
    }
}

bool CRpcServer::LookForValidHeader(CRuntimeParam* rp, LogArgu* la, unsigned long progId, int type,
                                    CInputStream* in, COutputStream*) {
    // A candidate is the fixed part of a call with empty auth bodies; on a
    // stream it starts with the record mark.
    const uint32_t length = type == CSocket::TYPE_TCP ? 44 : 40;
    const uint32_t progAt = type == CSocket::TYPE_TCP ? 16 : 12;
    CRpcProg* prog = ProgramFor(progId);
    for (uint32_t offset = 0;; ++offset) {
        const unsigned char* candidate = in->GetFilledBuffer(offset, length);
        if (candidate == nullptr) return false;
        const uint32_t lProg = BigEndianAt(candidate + progAt);
        const uint32_t lVers = BigEndianAt(candidate + progAt + 4);
        const uint32_t lProc = BigEndianAt(candidate + progAt + 8);
        if (lProg == progId) {
            // An empty slot accepts like the base program: any version, any procedure.
            const unsigned int version = prog ? prog->GetVersion() : CRpcProg::ANY;
            if (version != CRpcProg::ANY && lVers != version) continue;
            const unsigned int procs = prog ? prog->GetMaxSupportProc() : CRpcProg::ANY;
            if (procs != CRpcProg::ANY && lProc >= procs) continue;
            if (offset != 0) {
                in->SetBufferIndex(in->GetBufferIndex() + offset);
                Log(rp->IsLogRpc(), false, "[%s] Skipped %u data for next vaild header", la->pcName, offset);
            }
            return true;
        }
        if (lProg >= 100000 && lProg <= 199999 && lProc <= 99)
            Log(rp->IsLogRpc(), false, "[%s] A possible valid header may be skipped, ProcId=%u, ProcId=%u",
                la->pcName, lProg, lProc);
    }
}

int CRpcServer::Process(CRuntimeParam* rp, unsigned long, int type, CInputStream* in, COutputStream* out,
                        const char* remoteAddr) {
    LogArgu la{"RpcServer.Process"};
    const bool tcp = type == CSocket::TYPE_TCP;
    RPC_STM_HEADER h;
    int result = CRpcProg::RESULT_DONE;
    try {
        if (tcp) in->Read(&h.lHeader);
        in->Read(&h.lXID);
        in->Read(&h.lMsg);
        in->Read(&h.lRpcvers);
        in->Read(&h.lProg);
        in->Read(&h.lVers);
        in->Read(&h.lProc);
        // Auth bodies are stepped over by their stated length and never read.
        in->Read(&h.cred.lFlavor);
        in->Read(&h.cred.lLength);
        in->Skip(h.cred.lLength);
        in->Read(&h.verf.lFlavor);
        in->Read(&h.verf.lLength);
        in->Skip(h.verf.lLength);
    } catch (const CDataTruncatedExpt& e) {
        CDataTruncatedExpt copy(e);
        Log(rp->IsLogError(), true, "[%s] %s", la.pcName, copy.what());
        result = CRpcProg::RESULT_TRUNCATED;
    } catch (...) {
        Log(rp->IsLogError(), true, "[%s] Unknown exception", la.pcName);
        result = CRpcProg::RESULT_GARBAGE_ARGS;
    }

    if (rp->IsLogRpc()) {
        Log(true, false, "[%s] request header", la.pcName);
        if (tcp) Log(true, false, " --- header=%u", h.lHeader);
        Log(true, false, " --- nXID=%u", h.lXID);
        Log(true, false, " --- nmsg=%u", h.lMsg);
        Log(true, false, " --- nrpcvers=%u", h.lRpcvers);
        Log(true, false, " --- nprog=%u", h.lProg);
        Log(true, false, " --- nvers=%u", h.lVers);
        Log(true, false, " --- nproc=%u", h.lProc);
    }

    const uint32_t replyStart = out->GetBufferIndex();
    if (tcp) out->Write(h.lHeader);  // placeholder of the record mark
    out->Write(h.lXID);
    out->Write(MSG_REPLY);
    out->Write(MSG_ACCEPTED);
    // Only the verifier's flavor and length are echoed, never its body.
    out->Write(h.verf.lFlavor);
    out->Write(h.verf.lLength);

    CRpcProg* prog = ProgramFor(h.lProg);
    if (result == CRpcProg::RESULT_GARBAGE_ARGS) {
        out->Write(ACCEPT_GARBAGE_ARGS);
    } else if (prog == nullptr) {
        out->Write(ACCEPT_PROG_UNAVAIL);
    } else {
        const uint32_t statusAt = out->GetBufferIndex();
        out->Write(ACCEPT_SUCCESS);
        ProcessParam param;
        param.iVersion = h.lVers;
        param.iProc = h.lProc;
        param.sRemoteAddr = remoteAddr;
        param.pRuntimeParam = m_pRuntimeParam;
        // The program's code replaces a truncation found while decoding.
        result = prog->Process(in, out, &param);
        const uint32_t replyEnd = std::max(out->GetBufferIndex(), out->GetBufferSize());
        if (result == CRpcProg::RESULT_PROC_UNAVAIL || result == CRpcProg::RESULT_GARBAGE_ARGS) {
            // Whatever results were written stay behind the patched status.
            out->Seek(statusAt, 0);
            out->Write(result == CRpcProg::RESULT_PROC_UNAVAIL ? ACCEPT_PROC_UNAVAIL : ACCEPT_GARBAGE_ARGS);
        }
        out->Seek(replyEnd, 0);
    }

    // Padding the program stepped over at the end is part of the reply:
    // zero it and count it into what is sent.
    const uint32_t size = out->GetBufferSize();
    const uint32_t end = out->GetBufferIndex();
    if (end > size) {
        out->Seek(size, 0);
        memset(out->GetCurrentBuffer(), 0, end - size);
        out->Write(nullptr, end - size);
    }
    if (tcp) {
        // One last fragment holding everything behind the mark.
        out->Seek(replyStart, 0);
        out->Write(end - replyStart + RECORD_MARK_BIAS);
    }
    return result;
}
