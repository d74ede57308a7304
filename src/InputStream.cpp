#include "InputStream.h"

#include <cstring>

#include "DataTruncatedExpt.h"

void CInputStream::ConsolidateBuffer(uint32_t min) {
    if (m_iIndex < min) return;
    if (m_iSize > m_iIndex) memmove(m_pcBuffer, m_pcBuffer + m_iIndex, m_iSize - m_iIndex);
    m_iSize -= m_iIndex;
    m_iIndex = 0;
}

unsigned char* CInputStream::GetFilledBuffer(uint32_t offset, uint32_t len) {
    // 64-bit sum: offset + len must not wrap around.
    if ((uint64_t)offset + len > GetFilledBufferSize()) return nullptr;
    return m_pcBuffer + m_iIndex + offset;
}

void CInputStream::RemoveFilledBuffer(uint32_t offset, uint32_t n) {
    if (GetFilledBuffer(offset, n) == nullptr) return;
    unsigned char* at = m_pcBuffer + m_iIndex + offset;
    memmove(at, at + n, m_iSize - (m_iIndex + offset + n));
    m_iSize -= n;
}

uint32_t CInputStream::Read(void* dst, uint32_t n) {
    uint32_t unread = GetFilledBufferSize();
    if (n > unread) throw CDataTruncatedExpt(n, (int)unread);
    memcpy(dst, m_pcBuffer + m_iIndex, n);
    m_iIndex += n;
    return n;
}

uint32_t CInputStream::Read(uint32_t* v) {
    unsigned char b[4];
    Read(b, 4);
    *v = ((uint32_t)b[0] << 24) | ((uint32_t)b[1] << 16) | ((uint32_t)b[2] << 8) | (uint32_t)b[3];
    return 4;
}

uint32_t CInputStream::Read8(uint64_t* v) {
    unsigned char b[8];
    Read(b, 8);
    uint64_t r = 0;
    for (unsigned char c : b) r = (r << 8) | c;
    *v = r;
    return 8;
}

uint32_t CInputStream::Skip(uint32_t n) {
    uint32_t unread = GetFilledBufferSize();
    if (n > unread) throw CDataTruncatedExpt(n, (int)unread);
    m_iIndex += n;
    return n;
}

uint32_t CInputStream::SkipRemainOpaque(uint32_t len) {
    uint32_t pad = 4 - (len % 4);
    if (pad == 4) return 0;
    Skip(pad);
    return pad;
}
