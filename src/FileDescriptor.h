#pragma once

#include <unistd.h>

// Owns one descriptor and closes it once; movable, not copyable.
class CFileDescriptor {
public:
    CFileDescriptor() = default;
    explicit CFileDescriptor(int fd) : m_fd(fd < 0 ? -1 : fd) {}
    ~CFileDescriptor() { Reset(); }
    CFileDescriptor(CFileDescriptor&& other) noexcept : m_fd(other.Release()) {}
    CFileDescriptor& operator=(CFileDescriptor&& other) noexcept {
        if (this != &other) Reset(other.Release());
        return *this;
    }
    CFileDescriptor(const CFileDescriptor&) = delete;
    CFileDescriptor& operator=(const CFileDescriptor&) = delete;

    int Get() const { return m_fd; }
    bool IsOpen() const { return m_fd != -1; }
    int Release() {
        int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    void Reset(int fd = -1) {
        if (m_fd != -1) close(m_fd);
        m_fd = fd < 0 ? -1 : fd;
    }

private:
    int m_fd = -1;
};
