#pragma once

#include <cstddef>
#include <cstring>

#include "IpcMessages.h"
#include "RuntimeParam.h"

class CUtilities;

// Shared part of the IPC client and server: record initialisation, bounded
// text fields, record dumps and the IPC objects' own log lines, which go
// straight to the local routing of the file service and so never travel
// back over IPC.
class CIpcBasic {
public:
    static constexpr size_t LOG_BUFFER_SIZE = 2048;

    // Neither is owned.
    CIpcBasic(CUtilities* utilities, CRuntimeParam* runtimeParam);
    virtual ~CIpcBasic() = default;
    CIpcBasic(const CIpcBasic&) = delete;
    CIpcBasic& operator=(const CIpcBasic&) = delete;

    // Write the header (group, type, version) and set lDataLen to the
    // record's size; an unknown type is stored as 0 with a bare header.
    // The payload is zeroed, so unset fields read as 0 and empty texts.
    static void InitialRequestData(IpcDataInst* data, int type);
    static void InitialReplyData(IpcDataBuf* buf, int type);
    static void InitialCallbackData(IpcDataBuf* buf, int type);
    // Record sizes by type; 16 (the header) for unknown types.
    static unsigned int RequestSize(int type);
    static unsigned int ReplySize(int type);
    static unsigned int CallbackSize(int type);

    // Stores n received bytes (at most IPC_BUFFER_SIZE are kept) as a record
    // and zeroes the rest of the buffer, so that fields past the received
    // length read as zero instead of stale or foreign bytes.
    static void SetReceived(IpcDataBuf* buf, const void* bytes, size_t n);
    // The record in buf as type T (all records fit in the buffer).
    template <class T>
    static T* Record(IpcDataBuf* buf) {
        static_assert(sizeof(T) <= IPC_BUFFER_SIZE, "record larger than the buffer");
        return reinterpret_cast<T*>(buf->cBuf);
    }
    static const Ipc_Header* Header(const IpcDataBuf* buf) {
        return reinterpret_cast<const Ipc_Header*>(buf->cBuf);
    }

    // Writes text into a fixed field, cut to the width and always
    // terminated inside it.
    static void SetText(char* field, size_t width, const char* text);
    template <size_t N>
    static void SetText(char (&field)[N], const char* text) {
        SetText(field, N, text);
    }
    // A received text field as a terminated string: the field's last byte
    // is forced to zero, whatever the sender put there.
    template <size_t N>
    static char* Text(char (&field)[N]) {
        field[N - 1] = '\0';
        return field;
    }

    // Dumps the record's header as info when IPC dumps are enabled.
    void PrintData(LogArgu* la, IpcDataBuf* buf);

    void LogInfo(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void LogError(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void LogInfo(char* text);
    void LogError(char* text);

    CUtilities* GetUtilities() const { return m_pUtilities; }
    CRuntimeParam* GetRuntimeParamOf() const { return m_pRuntimeParam; }

protected:
    CUtilities* m_pUtilities;
    CRuntimeParam* m_pRuntimeParam;
    char m_cLogBuf[LOG_BUFFER_SIZE];
};
