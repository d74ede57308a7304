#include "OutputStream.h"

#include <cstring>

uint32_t COutputStream::Write(const void* src, uint32_t n) {
    uint32_t room = GetFreeBufferSize();
    if (n > room) n = room;
    if (src != nullptr && n > 0) memcpy(m_pcBuffer + m_iIndex, src, n);
    m_iIndex += n;
    if (m_iIndex > m_iSize) m_iSize = m_iIndex;
    return n;
}

uint32_t COutputStream::Write(uint32_t v) {
    unsigned char b[4] = {(unsigned char)(v >> 24), (unsigned char)(v >> 16), (unsigned char)(v >> 8),
                          (unsigned char)v};
    return Write(b, 4);
}

uint32_t COutputStream::Write8(uint64_t v) {
    unsigned char b[8];
    for (int i = 7; i >= 0; --i, v >>= 8) b[i] = (unsigned char)v;
    return Write(b, 8);
}

void COutputStream::Seek(int64_t offset, int origin) {
    // The position is kept inside the buffer so that no later write can
    // land outside it.
    int64_t target;
    switch (origin) {
        case 0: target = offset; break;
        case 1: target = (int64_t)m_iIndex + offset; break;
        case 2: target = (int64_t)m_iSize + offset; break;
        default: return;
    }
    if (target < 0) target = 0;
    if (target > (int64_t)MAX_BUFFER_SIZE) target = MAX_BUFFER_SIZE;
    m_iIndex = (uint32_t)target;
}

uint32_t COutputStream::WriteRemainOpaque(uint32_t len) {
    uint32_t pad = 4 - (len % 4);
    if (pad == 4) return 0;
    // Zero the padding where it fits, so stale bytes of an earlier reply never
    // go out, but leave the size alone: only a later write counts it.
    uint32_t room = GetFreeBufferSize();
    memset(m_pcBuffer + m_iIndex, 0, pad < room ? pad : room);
    Seek(pad, 1);
    return pad;
}

void COutputStream::FreeBuffer(uint32_t n) {
    m_iReplyStart = 0;
    if (m_iSize > n) {
        memmove(m_pcBuffer, m_pcBuffer + n, m_iSize - n);
        m_iSize -= n;
        // Deliberately not reduced by n when beyond it.
        if (m_iIndex <= n) m_iIndex = 0;
    } else {
        m_iIndex = m_iSize = 0;
    }
}
