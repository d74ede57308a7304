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
#include "StableBatch.h"
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

constexpr uint32_t LAST_FRAGMENT = 0x80000000;
// The fixed part of a call behind its record mark: xid to verifier length.
constexpr uint32_t MIN_CALL_SIZE = 40;

uint32_t BigEndianAt(const unsigned char* p) {
    return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | (uint32_t)p[3];
}

void PutBigEndian(unsigned char* p, uint32_t v) {
    p[0] = (unsigned char)(v >> 24);
    p[1] = (unsigned char)(v >> 16);
    p[2] = (unsigned char)(v >> 8);
    p[3] = (unsigned char)v;
}

enum class Record { COMPLETE, INCOMPLETE, UNFRAMED };

// Follows the record marks of the call found at the read position. A
// record longer than the input buffer could ever hold, or too short for a
// call, is UNFRAMED: its mark is not trusted. A complete record of several
// fragments is joined in place into one fragment, so that the call decodes
// as one run of bytes; span gets the record's length with its mark.
Record ExamineRecord(CInputStream* in, uint32_t* span) {
    const uint32_t capacity = CSocketStream::GetMaxBufferSize();
    uint32_t end = 0;
    uint32_t fragments = 0;
    for (bool last = false; !last;) {
        if (end > capacity - 4) return Record::UNFRAMED;
        const unsigned char* mark = in->GetFilledBuffer(end, 4);
        if (mark == nullptr) return Record::INCOMPLETE;
        const uint32_t word = BigEndianAt(mark);
        const uint32_t length = word & ~LAST_FRAGMENT;
        if (length > capacity - 4 - end) return Record::UNFRAMED;
        end += 4 + length;
        ++fragments;
        last = (word & LAST_FRAGMENT) != 0;
        if (last && end - 4 * fragments < MIN_CALL_SIZE) return Record::UNFRAMED;
        if (in->GetFilledBuffer(0, end) == nullptr) return Record::INCOMPLETE;
    }
    unsigned char* base = in->GetCurrentBuffer();
    uint32_t joined = 4 + (BigEndianAt(base) & ~LAST_FRAGMENT);
    for (uint32_t at = joined; at < end;) {
        const uint32_t length = BigEndianAt(base + at) & ~LAST_FRAGMENT;
        memmove(base + joined, base + at + 4, length);
        joined += length;
        at += 4 + length;
    }
    if (joined != end) {
        PutBigEndian(base, LAST_FRAGMENT | (joined - 4));
        in->RemoveFilledBuffer(joined, end - joined);
    }
    *span = joined;
    return Record::COMPLETE;
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
    // The calls of one receive run one at a time under the mutex and their
    // replies collect in the output. Once no whole call is left, or the
    // room left could not hold the largest reply, what they changed is
    // synced outside the mutex and the replies leave together, so that a
    // peer that does not take its replies holds up only its own connection.
    CStableBatch batch;
    COutputStream* out = socket->GetOutputStream();
    for (bool more = true; more;) {
        {
            std::lock_guard<std::mutex> lock(m_hMutex);
            more = ExecuteNextCall(socket, &batch);
        }
        // Calls that arrived meanwhile join the batch before its syncs: a
        // pipeline's next writes share them instead of waiting behind them.
        if (!more && !batch.IsEmpty()) more = socket->ReceiveArrived();
        if (more && out->GetFreeBufferSize() >= CStableBatch::FLUSH_ROOM) continue;
        int error = 0;
        if (batch.Flush(out, &error) > 0) {
            char reason[256] = "";
            CUtilities::GetLastErrorText(reason, error, sizeof reason);
            Log(m_pRuntimeParam->IsLogError(), true, "[RpcServer.SocketReceived] Sync failed: %s", reason);
        }
        if (!socket->Send()) break;
    }
}

bool CRpcServer::ExecuteNextCall(CSocket* socket, CStableBatch* batch) {
    const std::string remoteAddr = socket->GetRemoteAddress();
    m_pRuntimeParam->SetID(remoteAddr.c_str());
    CRuntimeParam* rp = m_pRuntimeParam;
    LogArgu la{"RpcServer.SocketReceived"};
    CInputStream* in = socket->GetInputStream();
    COutputStream* out = socket->GetOutputStream();
    const unsigned long progId = socket->GetProgId();
    const int type = socket->GetType();

    if (in->GetFilledBufferSize() == 0) return false;
    Log(rp->IsLogRpc(), false, "[%s] Input buf size(%u) pos(%u)", la.pcName, in->GetFilledBufferSize(),
        in->GetBufferIndex());
    if (!LookForValidHeader(rp, &la, progId, type, in, out)) {
        Log(rp->IsLogRpc(), false, "[%s] Cannot find valid header!!", la.pcName);
        return false;
    }
    const uint32_t callStart = in->GetBufferIndex();
    uint32_t span = 0;
    const Record record = type == CSocket::TYPE_TCP ? ExamineRecord(in, &span) : Record::UNFRAMED;
    if (record == Record::INCOMPLETE) {
        // Nothing of a call runs, and nothing inside it is scanned, before
        // its whole record is here.
        Log(rp->IsLogRpc(), false, "[%s] Waiting for the rest of the record", la.pcName);
        return false;
    }
    const uint32_t replyStart = out->GetBufferSize();
    int result;
    if (record == Record::COMPLETE) {
        // The call decodes inside its record only; whatever it leaves
        // unread there is dropped with it.
        const uint32_t received = in->GetBufferSize();
        in->SetBufferSize(callStart + span);
        result = Process(rp, progId, type, in, out, remoteAddr.c_str(), batch);
        in->SetBufferSize(received);
        in->SetBufferIndex(callStart + span);
    } else {
        // Datagrams, and marks no buffer could hold: calls are delimited by
        // the header scan alone.
        result = Process(rp, progId, type, in, out, remoteAddr.c_str(), batch);
        if (result == CRpcProg::RESULT_TRUNCATED && type == CSocket::TYPE_UDP) {
            // A datagram stands alone: what it lacks never comes.
            out->CutBack(replyStart);
            batch->DropReply();
            Log(rp->IsLogRpc(), false, "[%s] Datagram holds no whole call, dropped", la.pcName);
        } else if (result == CRpcProg::RESULT_TRUNCATED && !LookForValidHeader(rp, &la, progId, type, in, out)) {
            // The call is still arriving: parse it again once the rest is there.
            out->CutBack(replyStart);
            batch->DropReply();
            in->SetBufferIndex(callStart);
            Log(rp->IsLogRpc(), false, "[%s] Reset input buffer postion", la.pcName);
        }
    }
    Log(rp->IsLogRpc(), false, "[%s] Output buf size(%u)", la.pcName, out->GetBufferSize());
    // A datagram gets one reply (its other bytes are dropped with it); after
    // a failed call on a stream the rest waits for the next receive.
    return result == CRpcProg::RESULT_DONE && type == CSocket::TYPE_TCP && in->GetFilledBufferSize() != 0;
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
                        const char* remoteAddr, CStableBatch* batch) {
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

    // Replies of earlier calls may stand before this one in the output.
    out->Seek(out->GetBufferSize(), 0);
    const uint32_t replyStart = out->GetBufferIndex();
    out->MarkReplyStart();
    if (tcp) out->Write(h.lHeader);  // placeholder of the record mark
    out->Write(h.lXID);
    out->Write(MSG_REPLY);
    out->Write(MSG_ACCEPTED);
    // Only the verifier's flavor and length are echoed, never its body.
    out->Write(h.verf.lFlavor);
    out->Write(h.verf.lLength);
    // The program's results follow the accept status.
    if (batch) batch->BeginReply(replyStart, out->GetBufferIndex() + 4, tcp);

    CRpcProg* prog = ProgramFor(h.lProg);
    if (result == CRpcProg::RESULT_GARBAGE_ARGS) {
        out->Write(ACCEPT_GARBAGE_ARGS);
    } else if (prog == nullptr) {
        out->Write(ACCEPT_PROG_UNAVAIL);
    } else if (result == CRpcProg::RESULT_TRUNCATED) {
        // The header itself is cut: the program is not run on bytes that
        // are not its arguments (they may be a credential, or another call).
        out->Write(ACCEPT_SUCCESS);
    } else {
        const uint32_t statusAt = out->GetBufferIndex();
        out->Write(ACCEPT_SUCCESS);
        ProcessParam param;
        param.iVersion = h.lVers;
        param.iProc = h.lProc;
        param.sRemoteAddr = remoteAddr;
        param.pRuntimeParam = m_pRuntimeParam;
        param.iTransport = type;
        param.pStableBatch = batch;
        result = prog->Process(in, out, &param);
        const uint32_t replyEnd = std::max(out->GetBufferIndex(), out->GetBufferSize());
        if (result == CRpcProg::RESULT_PROC_UNAVAIL || result == CRpcProg::RESULT_GARBAGE_ARGS) {
            // Whatever results were written stay behind the patched status.
            out->Seek(statusAt, 0);
            out->Write(result == CRpcProg::RESULT_PROC_UNAVAIL ? ACCEPT_PROC_UNAVAIL : ACCEPT_GARBAGE_ARGS);
        }
        out->Seek(replyEnd, 0);
    }
    const bool results = result == CRpcProg::RESULT_DONE;

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
        out->Seek(end, 0);
    }
    if (batch) batch->EndReply(end, results);
    return result;
}
