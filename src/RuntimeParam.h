#pragma once

#include <atomic>
#include <string>

// Names the operation that does the work; log lines begin with "[name]".
struct LogArgu {
    const char* pcName;
};

// Identity of the caller and the set of wanted log kinds, handed to nearly
// every operation of the engine.
class CRuntimeParam {
public:
    enum LogBits {
        LOG_ERROR = 1,
        LOG_GENERAL_INFO = 2,
        LOG_RPC = 4,
        LOG_PROC_FUNC_NAME = 8,
        LOG_PROC_FUNC_ARGU = 16,
        LOG_REDIRECT_FILE = 32,
        LOG_IPC = 64,
        LOG_IPC_STATE = 128,
        LOG_FILE_ACCESS = 256,
        LOG_PORTMAP = 512,
    };

    CRuntimeParam(const char* id, int logControl);
    CRuntimeParam(const CRuntimeParam& other);
    CRuntimeParam& operator=(const CRuntimeParam& other);
    virtual ~CRuntimeParam() = default;

    const char* GetID() const { return m_sID.c_str(); }
    void SetID(const char* id) { m_sID = id ? id : ""; }
    const char* GetIpcID() const { return m_sIpcID.c_str(); }
    void SetIpcID(const char* id) { m_sIpcID = id ? id : ""; }
    int GetLogControl() const { return m_iLogControl.load(std::memory_order_relaxed); }
    void SetLogControl(int logControl) { m_iLogControl.store(logControl, std::memory_order_relaxed); }

    // True when the masked bits, taken as a signed int, are above zero:
    // bit 31 alone therefore never counts as enabled.
    bool IsLogEnabled(int mask) const { return (GetLogControl() & mask) > 0; }
    bool IsLogError() const { return IsLogEnabled(LOG_ERROR); }
    bool IsLogGeneralInfo() const { return IsLogEnabled(LOG_GENERAL_INFO); }
    bool IsLogRpc() const { return IsLogEnabled(LOG_RPC); }
    bool IsLogProcFuncName() const { return IsLogEnabled(LOG_PROC_FUNC_NAME); }
    bool IsLogProcFuncArgu() const { return IsLogEnabled(LOG_PROC_FUNC_ARGU); }
    bool IsLogRedirectFile() const { return IsLogEnabled(LOG_REDIRECT_FILE); }
    bool IsLogIpc() const { return IsLogEnabled(LOG_IPC); }
    bool IsLogIpcState() const { return IsLogEnabled(LOG_IPC_STATE); }
    bool IsLogFileAccess() const { return IsLogEnabled(LOG_FILE_ACCESS); }
    bool IsLogPortmap() const { return IsLogEnabled(LOG_PORTMAP); }

    // Rule for instance IDs of the external placements: false with the
    // reason in err (at least 64 bytes) when the ID is not acceptable.
    static bool CheckInstanceID(const char* id, char* err, size_t errSize);

private:
    std::string m_sID;
    std::string m_sIpcID;
    // Set by a control thread while connection threads read it.
    std::atomic<int> m_iLogControl;
};
