#pragma once

// The IPC server's record parsing, fed with arbitrary bytes as one received
// record (a request or a callback, whatever its header says), on a
// controller whose operations that would reach outside the process (NFS
// sockets, commands, platform tests, file exports, info files) do nothing.
// The tables it fills are emptied after every record.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "IpcMessages.h"

class CIpcServer;
class HarmlessController;
class NullCallback;

class IpcFuzzHarness {
public:
    IpcFuzzHarness();
    ~IpcFuzzHarness();
    IpcFuzzHarness(const IpcFuzzHarness&) = delete;
    IpcFuzzHarness& operator=(const IpcFuzzHarness&) = delete;

    // Parses data (cut to one buffer, as the single read does) and returns
    // the reply record.
    const IpcDataBuf& Run(const uint8_t* data, size_t size);

private:
    std::unique_ptr<NullCallback> m_callback;
    std::unique_ptr<HarmlessController> m_controller;
    std::unique_ptr<CIpcServer> m_server;
    std::unique_ptr<IpcDataInst> m_data;
};
