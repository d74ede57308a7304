#pragma once

#include "SocketStream.h"

// Reply buffer of one connection. Writes past the end are cut silently;
// GetBufferSize() is what is to be sent, whatever the position.
class COutputStream : public CSocketStream {
public:
    ~COutputStream() override = default;

    uint32_t Write(const void* src, uint32_t n);
    uint32_t Write(uint32_t v);
    uint32_t Write8(uint64_t v);
    void Seek(int64_t offset, int origin);
    // Moves past the XDR padding of an opaque body of len bytes; the padding
    // is neither written nor counted into the size.
    uint32_t WriteRemainOpaque(uint32_t len);
    // Drops the first n bytes after a partial send.
    void FreeBuffer(uint32_t n);
    unsigned char* GetBuffer() { return m_pcBuffer; }
    uint32_t GetBufferSize() const { return m_iSize; }
    uint32_t GetBufferIndex() const { return m_iIndex; }
    uint32_t GetFreeBufferSize() const { return m_iIndex < MAX_BUFFER_SIZE ? MAX_BUFFER_SIZE - m_iIndex : 0; }
    unsigned char* GetCurrentBuffer() { return m_pcBuffer + m_iIndex; }
    void ResetBuffer() { m_iIndex = m_iSize = m_iReplyStart = 0; }

    // Several replies may share the buffer until they are sent. A handler's
    // room checks are taken from the start of its own reply, as if it began
    // an empty buffer, so that no result depends on the replies before it.
    void MarkReplyStart() { m_iReplyStart = m_iIndex; }
    uint32_t GetFreeReplySize() const {
        const uint32_t used = m_iIndex > m_iReplyStart ? m_iIndex - m_iReplyStart : 0;
        return used < MAX_BUFFER_SIZE ? MAX_BUFFER_SIZE - used : 0;
    }
    // Takes back everything from size on (a reply that is not to be sent).
    void CutBack(uint32_t size) {
        if (size < m_iSize) m_iSize = size;
        m_iIndex = m_iSize;
    }

private:
    uint32_t m_iReplyStart = 0;
};
