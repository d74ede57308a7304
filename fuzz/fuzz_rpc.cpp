// libFuzzer target: everything a client can send to the server. Each input
// is fed to the RPC dispatcher as the bytes one TCP connection or one UDP
// socket of the portmapper, MOUNT or NFS program received, possibly in
// several receives; the input layout is described in RpcFuzzHarness.h.
//
// The export is made under $NFSENGINE_FUZZ_DIR (else $TMPDIR, else /tmp);
// scripts/fuzz.sh puts it on a private tmpfs.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "RpcFuzzHarness.h"

namespace {

std::string WorkDir() {
    for (const char* name : {"NFSENGINE_FUZZ_DIR", "TMPDIR"}) {
        const char* value = getenv(name);
        if (value != nullptr && *value != '\0') return value;
    }
    return "/tmp";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static RpcFuzzHarness harness(WorkDir());
    harness.Run(data, size);
    return 0;
}
