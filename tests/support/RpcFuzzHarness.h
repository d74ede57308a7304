#pragma once

// Runs one input of the RPC fuzz target: arbitrary bytes fed to the
// dispatcher as what one TCP connection or one UDP socket of the portmapper,
// MOUNT or NFS program received, over a small export that is built afresh
// for every input. No network is used: the connection is a CSocket without
// a descriptor whose replies go to a send sink, and the receives of its
// thread are replayed here step by step. Shared by the fuzz target and by
// the tests that replay its findings and its seed corpus.
//
// Input layout:
//   byte 0   selector: bits 0-1 program (0 portmapper 100000, 1 MOUNT
//            100005, 2 and 3 NFS 100003); bit 2 transport (0 TCP, 1 UDP);
//            bit 3 NFS read-only; bits 4-7 count k of extra receives.
//   then     k big-endian 16-bit lengths: the sizes of the first k receives
//            (datagrams on UDP), each cut to the bytes that are left;
//   the rest the last receive.
// On TCP a receive of 0 bytes is the peer closing: nothing more is fed. On
// UDP an empty datagram is skipped, as the receive thread does.
//
// The export (named EXPORT_NAME) holds, with the file IDs that the file
// table hands out for them, in this order:
//   0 the export folder        1 file.txt (100 bytes)   2 dir/
//   3 dir/nested.bin (5000)     4 dir/sub/               5 disk.vmdk
//   6 empty (0 bytes)           7 ../outside.txt (beside the export)
//   8 the folder that holds the export
//   9 socket (a socket file)
// plus "link", a symbolic link to file.txt. disk.vmdk is a registered
// redirected file of 16384 bytes whose first 8192 come from ../source.bin.
// Handles carry the fixed verifier HANDLE_VERIFIER in bytes 4..11, so that
// seeds can name these files. For inputs of the NFS program the export is
// mounted by CLIENT_ADDRESS, as a client leaves it before its NFS calls; for
// the MOUNT program it is left unmounted.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class CSocket;

class RpcFuzzHarness {
public:
    static constexpr const char* EXPORT_NAME = "export";
    static constexpr const char* EXPORT_IPC_ID = "fuzz-ipc";
    static constexpr const char* CLIENT_ADDRESS = "127.0.0.1";
    static constexpr uint8_t HANDLE_VERIFIER[8] = {'f', 'u', 'z', 'z', 'v', 'e', 'r', 'f'};
    // Every log category: the formatting of every line is exercised.
    static constexpr int LOG_CONTROL = 0x3FF;

    // Programs and transports of the selector byte.
    static constexpr uint8_t PORTMAP = 0, MOUNT = 1, NFS = 2;
    static constexpr uint8_t TCP = 0, UDP = 4;
    static constexpr uint8_t READ_ONLY = 8;

    // The export lives in <workDir>/fuzz-export (made and removed here): one
    // harness per work folder.
    explicit RpcFuzzHarness(const std::string& workDir);
    ~RpcFuzzHarness();
    RpcFuzzHarness(const RpcFuzzHarness&) = delete;
    RpcFuzzHarness& operator=(const RpcFuzzHarness&) = delete;

    // Runs one input; every reply sent is kept until the next run.
    void Run(const uint8_t* data, size_t size);
    void Run(const std::vector<uint8_t>& input) { Run(input.data(), input.size()); }

    // What the last run sent, one entry per reply (with the TCP record mark).
    const std::vector<std::vector<uint8_t>>& Replies() const { return m_replies; }
    // Number of log lines of the last run.
    size_t LogLines() const { return m_logLines; }
    const std::string& ExportPath() const { return m_export; }

    // The selector byte for a program, transport and extra receive count.
    static uint8_t Selector(uint8_t program, uint8_t transport, unsigned extraReceives = 0, bool readOnly = false);

private:
    void BuildTree();
    void RemoveTree();

    std::string m_base;    // holds the export, outside.txt and source.bin
    std::string m_export;  // the exported folder
    // Connections by transport (TCP, UDP) and program (selector bits 0-1).
    std::unique_ptr<CSocket> m_sockets[2][4];
    std::vector<std::vector<uint8_t>> m_replies;
    size_t m_logLines = 0;
};
