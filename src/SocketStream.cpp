#include "SocketStream.h"

CSocketStream::CSocketStream() : m_pcBuffer(new unsigned char[MAX_BUFFER_SIZE]()) {}

CSocketStream::~CSocketStream() { delete[] m_pcBuffer; }

uint32_t CSocketStream::ReverseByteOrder(const uint32_t* p) {
    const unsigned char* b = reinterpret_cast<const unsigned char*>(p);
    return ((uint32_t)b[0] << 24) | ((uint32_t)b[1] << 16) | ((uint32_t)b[2] << 8) | (uint32_t)b[3];
}
