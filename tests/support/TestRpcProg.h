#pragma once

// A small RPC program for transport tests, served by the real dispatcher.
// Procedures:
//   0 NULL      no arguments, no results
//   1 ECHO      opaque in, the same opaque out (padding stepped over at the end)
//   2 SUM       four unsigned words in, their sum out
//   3 UNAVAIL   writes 0xDEADBEEF, then answers "procedure unavailable"
//   4 GARBAGE   writes 0x0BADBAD0, then answers "garbage arguments"
//   5 EXCLUSIVE no arguments; checks that no other call runs at the same time
//   6 SLOW      no arguments, no results; keeps its thread busy for a millisecond
//   other       procedure unavailable

#include <atomic>
#include <mutex>
#include <string>

#include "RpcProg.h"

class TestRpcProg : public CRpcProg {
public:
    enum Proc { PROC_NULL = 0, PROC_ECHO = 1, PROC_SUM = 2, PROC_UNAVAIL = 3, PROC_GARBAGE = 4, PROC_EXCLUSIVE = 5, PROC_SLOW = 6 };

    explicit TestRpcProg(CUtilities* utilities, unsigned int version = ANY, unsigned int procs = ANY)
        : CRpcProg(utilities), m_iVersion(version), m_iProcs(procs) {}

    int Process(CInputStream* in, COutputStream* out, ProcessParam* param) override;
    unsigned int GetVersion() override { return m_iVersion; }
    unsigned int GetMaxSupportProc() override { return m_iProcs; }

    int Calls() const { return m_iCalls; }
    int MaxConcurrent() const { return m_iMaxConcurrent; }
    // The parameters and result of the latest call.
    ProcessParam LastParam() const;
    int LastResult() const;
    // The dispatcher's runtime ID and log control as the latest call saw them.
    std::string LastRuntimeID() const;
    int LastLogControl() const;
    // The system ID of the thread that served the latest call.
    int LastThread() const { return m_iLastThread; }

private:
    unsigned int m_iVersion;
    unsigned int m_iProcs;
    std::atomic<int> m_iCalls{0};
    std::atomic<int> m_iInside{0};
    std::atomic<int> m_iMaxConcurrent{0};
    std::atomic<int> m_iLastThread{0};
    mutable std::mutex m_mutex;
    ProcessParam m_last;
    int m_iLastResult = -1;
    std::string m_sLastRuntimeID;
    int m_iLastLogControl = -1;
};
