#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

// A live capture of the loopback interface with tshark, for checking that
// real traffic dissects cleanly. Start returns once packets are reaching the
// capture file; Stop returns once everything sent before it is in the file.
// Both know this from marker datagrams to the discard port (UDP 9), which
// the capture filter takes in besides the caller's traffic.
class TsharkCapture {
public:
    explicit TsharkCapture(std::string file) : m_file(std::move(file)) {}
    ~TsharkCapture() { Stop(); }
    TsharkCapture(const TsharkCapture&) = delete;
    TsharkCapture& operator=(const TsharkCapture&) = delete;

    bool Start(const std::string& captureFilter, std::string* why = nullptr);
    void Stop();
    const std::string& File() const { return m_file; }

private:
    bool MarkerCaptured(size_t length);
    std::string m_file;
    pid_t m_pid = -1;
};
