#pragma once

#include "SocketStream.h"

// Receive buffer of one connection: bytes are appended at the end and XDR
// items are decoded from the read position. Reading past the received bytes
// throws CDataTruncatedExpt and leaves the position where it was.
class CInputStream : public CSocketStream {
public:
    ~CInputStream() override = default;

    void ConsolidateBuffer(uint32_t min);
    unsigned char* GetFreeBuffer() { return m_pcBuffer + m_iSize; }
    uint32_t GetFreeBufferSize() const { return MAX_BUFFER_SIZE - m_iSize; }
    void AddFilledBufferSize(uint32_t n) { m_iSize += n; }
    uint32_t GetBufferIndex() const { return m_iIndex; }
    void SetBufferIndex(uint32_t i) { m_iIndex = i; }
    // Peeks at len bytes at offset from the read position; null when they
    // have not all been received.
    unsigned char* GetFilledBuffer(uint32_t offset, uint32_t len);
    uint32_t GetFilledBufferSize() const { return m_iSize - m_iIndex; }
    unsigned char* GetCurrentBuffer() { return m_pcBuffer + m_iIndex; }
    void ResetBuffer() { m_iIndex = m_iSize = 0; }
    // End of the received bytes. A caller may lower it for a while so that
    // decoding cannot run past the end of one record.
    uint32_t GetBufferSize() const { return m_iSize; }
    void SetBufferSize(uint32_t size) { m_iSize = size; }
    // Drops n received bytes at offset from the read position, moving the
    // bytes behind them down.
    void RemoveFilledBuffer(uint32_t offset, uint32_t n);

    uint32_t Read(void* dst, uint32_t n);
    uint32_t Read(uint32_t* v);
    uint32_t Read8(uint64_t* v);
    uint32_t Skip(uint32_t n);
    // Steps over the XDR padding behind an opaque body of len bytes.
    uint32_t SkipRemainOpaque(uint32_t len);
};
