#pragma once

#include <stdexcept>

// Thrown when a decoder asks for more bytes than were received.
class CDataTruncatedExpt : public std::runtime_error {
public:
    CDataTruncatedExpt(unsigned int expected, int got);
    const char* what() const noexcept override { return m_cMessage; }

    char m_cMessage[255];
};
