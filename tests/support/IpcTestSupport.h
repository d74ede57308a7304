#pragma once

// Helpers of the IPC tests: a private /tmp (the channel paths are fixed
// under it), raw exchanges on a channel, and replies taken apart.

#include <cstdint>
#include <memory>
#include <string>

#include "IpcMessages.h"
#include "PrivateMounts.h"

// Enters a mount namespace of its own (unless network was asked for, which
// brings one too) and mounts a tmpfs on /tmp for the life of the object.
// Call first in a test, while the process has one thread.
class PrivateTmp {
public:
    explicit PrivateTmp(bool network = false);
    bool Ok() const { return m_ok; }
    const std::string& Error() const { return m_error; }

private:
    bool m_ok = false;
    std::string m_error;
    std::unique_ptr<ScopedTmpfs> m_tmpfs;
};

// The bytes of a record built in an IpcDataBuf (its lDataLen bytes).
std::string RecordBytes(const IpcDataBuf& buf);

// Connects to channel, sends bytes in one write, reads the reply to its
// end (the server closes the connection). Empty when nothing came back.
// why gets the reason of a failure.
std::string RawExchange(const std::string& channel, const std::string& bytes, std::string* why = nullptr,
                        int timeoutMs = 10000);

// A reply record taken apart.
struct ParsedReply {
    size_t size = 0;
    int32_t group = 0;
    int32_t type = 0;
    std::string version;
    int32_t value = 0;  // bVal, lVal or iVal
    std::string text;   // cMsg of types 4 and 5
};
ParsedReply ParseReply(const std::string& bytes);
