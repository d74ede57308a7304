// libFuzzer target: everything a process can send to an IPC channel. Each
// input is one received record (request or callback, as its header says),
// parsed by the IPC server's own code on a controller that does nothing
// outside the process; see IpcFuzzHarness.h.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "IpcFuzzHarness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static IpcFuzzHarness harness;
    const IpcDataBuf& reply = harness.Run(data, size);
    // Every record gets a reply record of the reply group within one buffer.
    const Ipc_Header* header = reinterpret_cast<const Ipc_Header*>(reply.cBuf);
    if (reply.lDataLen < sizeof(Ipc_Header) || reply.lDataLen > IPC_BUFFER_SIZE || header->iGroup != IPC_GROUP_REPLY)
        abort();
    return 0;
}
