#include "TestRpcProg.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "DataTruncatedExpt.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "RuntimeParam.h"
#include "TestSupport.h"

namespace {

int Serve(CInputStream* in, COutputStream* out, uint32_t proc) {
    switch (proc) {
        case TestRpcProg::PROC_NULL:
        case TestRpcProg::PROC_EXCLUSIVE:
            return CRpcProg::RESULT_DONE;
        case TestRpcProg::PROC_SLOW:
            // Busy, not asleep: the thread's sleeps are its receives'.
            StayBusy(std::chrono::milliseconds(1));
            return CRpcProg::RESULT_DONE;
        case TestRpcProg::PROC_ECHO: {
            uint32_t len = 0;
            in->Read(&len);
            if (len > in->GetFilledBufferSize()) throw CDataTruncatedExpt(len, (int)in->GetFilledBufferSize());
            std::vector<unsigned char> body(len);
            in->Read(body.data(), len);
            in->SkipRemainOpaque(len);
            out->Write(len);
            out->Write(body.data(), len);
            out->WriteRemainOpaque(len);
            return CRpcProg::RESULT_DONE;
        }
        case TestRpcProg::PROC_SUM: {
            uint32_t v[4];
            for (uint32_t& x : v) in->Read(&x);
            out->Write(v[0] + v[1] + v[2] + v[3]);
            return CRpcProg::RESULT_DONE;
        }
        case TestRpcProg::PROC_UNAVAIL:
            out->Write(0xDEADBEEFu);
            return CRpcProg::RESULT_PROC_UNAVAIL;
        case TestRpcProg::PROC_GARBAGE:
            out->Write(0x0BADBAD0u);
            return CRpcProg::RESULT_GARBAGE_ARGS;
        default:
            return CRpcProg::RESULT_PROC_UNAVAIL;
    }
}

}  // namespace

int TestRpcProg::Process(CInputStream* in, COutputStream* out, ProcessParam* param) {
    ++m_iCalls;
    m_iLastThread = (int)syscall(SYS_gettid);
    int inside = ++m_iInside;
    int seen = m_iMaxConcurrent;
    while (inside > seen && !m_iMaxConcurrent.compare_exchange_weak(seen, inside)) {
    }
    if (param->iProc == PROC_EXCLUSIVE) std::this_thread::yield();  // widen the window for an overlap
    int result;
    try {
        result = Serve(in, out, param->iProc);
    } catch (const CDataTruncatedExpt&) {
        result = RESULT_TRUNCATED;
    }
    --m_iInside;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_last = *param;
    m_iLastResult = result;
    m_sLastRuntimeID = param->pRuntimeParam ? param->pRuntimeParam->GetID() : "";
    m_iLastLogControl = param->pRuntimeParam ? param->pRuntimeParam->GetLogControl() : -1;
    return result;
}

ProcessParam TestRpcProg::LastParam() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_last;
}

std::string TestRpcProg::LastRuntimeID() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_sLastRuntimeID;
}

int TestRpcProg::LastLogControl() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_iLastLogControl;
}

int TestRpcProg::LastResult() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_iLastResult;
}
