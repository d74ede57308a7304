#pragma once

#include <cstdint>

// A fixed 1 MiB byte buffer with a position and a fill size; the base of the
// XDR input and output streams of one connection.
class CSocketStream {
public:
    CSocketStream();
    virtual ~CSocketStream();
    CSocketStream(const CSocketStream&) = delete;
    CSocketStream& operator=(const CSocketStream&) = delete;

    static uint32_t GetMaxBufferSize() { return MAX_BUFFER_SIZE; }
    // The big-endian word stored at p, without moving any position.
    static uint32_t ReverseByteOrder(const uint32_t* p);

protected:
    static constexpr uint32_t MAX_BUFFER_SIZE = 1048576;
    unsigned char* m_pcBuffer;
    uint32_t m_iIndex = 0;
    uint32_t m_iSize = 0;
};
