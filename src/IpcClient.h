#pragma once

#include "IpcBasic.h"

// One exchange over an IPC channel: connect, send the request record, read
// the reply record, close. An object serves one exchange.
class CIpcClient : public CIpcBasic {
public:
    CIpcClient(CUtilities* utilities, CRuntimeParam* runtimeParam);

    IpcDataInst* GetDataInst() { return &m_IpcDataInst; }
    // InitialRequestData on this client's request and the payload as T.
    template <class T>
    T* NewRequest(int type) {
        InitialRequestData(&m_IpcDataInst, type);
        return Record<T>(&m_IpcDataInst.request);
    }

    // False with the reason in errText (ERROR_TEXT_SIZE bytes, may be null).
    bool SendRequest(const char* channel, char* errText);
    // The same, logging a failure as an error.
    bool SendRequest(const char* channel);

    // Readers of the reply; each checks group and type and gives its failure
    // value otherwise (false, -1, -1, null, null).
    bool GetBoolReply();
    int GetLongReply();
    int GetIntReply();
    const char* GetExptReply();
    const char* GetMsgReply();

private:
    bool IsReply(int type);
    IpcDataInst m_IpcDataInst;
};
