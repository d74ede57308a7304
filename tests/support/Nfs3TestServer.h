#pragma once

// The NFS program served for real for wire tests: a CNfsProg registered as
// 100003 with a dispatcher behind a TCP listener and a UDP socket on
// ephemeral loopback ports, over a temporary folder exported as "export".
// Handles are taken from the file service, as the MOUNT program does.
//
// This header names no NFS record types of the engine, so that a test can
// include it together with the headers of a real NFS client library.

#include <cstdint>
#include <memory>
#include <string>

#include "LogRecorder.h"
#include "RpcTestClient.h"

class CNfs3Prog;
class CNfsProg;
class CRuntimeParam;
class CServerSocket;
class CUtilities;
class RpcServerHarness;
class TempDir;

namespace nfs3wire {

constexpr uint32_t PROGRAM = 100003;

// Procedure numbers.
enum : uint32_t {
    PROC_NULL = 0, PROC_GETATTR = 1, PROC_SETATTR = 2, PROC_LOOKUP = 3, PROC_ACCESS = 4, PROC_READLINK = 5,
    PROC_READ = 6, PROC_WRITE = 7, PROC_CREATE = 8, PROC_MKDIR = 9, PROC_SYMLINK = 10, PROC_MKNOD = 11,
    PROC_REMOVE = 12, PROC_RMDIR = 13, PROC_RENAME = 14, PROC_LINK = 15, PROC_READDIR = 16,
    PROC_READDIRPLUS = 17, PROC_FSSTAT = 18, PROC_FSINFO = 19, PROC_PATHCONF = 20, PROC_COMMIT = 21,
};

// An fattr3 as it comes off the wire (84 bytes).
struct Fattr3 {
    uint32_t type = 0, mode = 0, nlink = 0, uid = 0, gid = 0;
    uint64_t size = 0, used = 0;
    uint32_t rdev1 = 0, rdev2 = 0;
    uint64_t fsid = 0, fileid = 0;
    uint32_t atime = 0, atimeNs = 0, mtime = 0, mtimeNs = 0, ctime = 0, ctimeNs = 0;
};
Fattr3 GetFattr3(XdrDecoder& d);
// A post_op_attr: false when absent; attr (may be null) gets the attributes.
bool GetPostOpAttr(XdrDecoder& d, Fattr3* attr = nullptr);
// The fattr3 the server must send for path, taken from lstat; the size of
// a regular file is its length.
Fattr3 ExpectedFattr3(const std::string& path);

// Arguments holding one handle, and directory arguments.
Bytes HandleArgs(const Bytes& handle);
Bytes DirOpArgs(const Bytes& dirHandle, const std::string& name);
// READ and COMMIT arguments: handle, offset, count.
Bytes ReadArgs(const Bytes& handle, uint64_t offset, uint32_t count);
// WRITE arguments: handle, offset, count, stable, then data as an opaque
// (count and the data's length need not agree).
Bytes WriteArgs(const Bytes& handle, uint64_t offset, uint32_t count, const std::string& data,
                uint32_t stable = 0);
// Concatenation.
Bytes Join(std::initializer_list<Bytes> parts);
// XDR words, in order.
Bytes Words(std::initializer_list<uint32_t> words);
// An fattr3 as the server writes it.
Bytes Encode(const Fattr3& a);
// A word in host order read from bytes 0..3 of a handle (the file ID).
uint32_t HandleID(const Bytes& handle);

}  // namespace nfs3wire

class Nfs3TestServer {
public:
    static constexpr const char* EXPORT_NAME = "export";
    static constexpr const char* EXPORT_IPC_ID = "export-ipc";
    // The export is mounted by this address, as a client's MNT would leave
    // it: the shared clients call from there.
    static constexpr const char* CLIENT_ADDRESS = "127.0.0.1";

    explicit Nfs3TestServer(int logControl = 0x3FF);
    ~Nfs3TestServer();
    Nfs3TestServer(const Nfs3TestServer&) = delete;
    Nfs3TestServer& operator=(const Nfs3TestServer&) = delete;

    // Exports the folder, mounted by CLIENT_ADDRESS, and opens the sockets;
    // false with the reason.
    bool Start(std::string* err = nullptr);
    // Closes the sockets (joining their threads).
    void Stop();

    // Canonical path of the exported folder, and of a path inside it.
    const std::string& Root() const { return m_root; }
    std::string PathOf(const std::string& relative) const { return m_root + "/" + relative; }
    // The 56-byte handle of path from the file service.
    Bytes Handle(const std::string& path);

    CNfsProg& Program() { return *m_prog; }
    // The version 3 program, made by a NULL call if no call has made it yet.
    CNfs3Prog& Version3();
    CUtilities& Utilities();
    CRuntimeParam& Runtime();
    RpcServerHarness& Harness() { return *m_harness; }
    LogRecorder& Log();
    uint16_t TcpPort() const { return m_tcpPort; }
    uint16_t UdpPort() const { return m_udpPort; }
    // Connections the TCP listener holds open. The listener has 10 slots and
    // ends the process when they run out: tests that open connections of
    // their own wait for closed ones to be released.
    int ActiveConnections() const;
    // Waits until the listener holds exactly count connections: after a
    // connect, so that it is known to be accepted; after a close, so that
    // its slot is free again.
    bool WaitForConnections(int count);

    // The shared client of a transport (one TCP connection, one UDP socket).
    RpcTestClient& Client(RpcTestClient::Transport transport);
    uint32_t NextXid() { return ++m_xid; }
    // One call and its reply; false when no matching reply came.
    bool Call(uint32_t proc, const Bytes& args, RpcReply& reply,
              RpcTestClient::Transport transport = RpcTestClient::TCP, uint32_t version = 3);
    // A call that must be answered and accepted (the test fails otherwise);
    // its results.
    Bytes Results(uint32_t proc, const Bytes& args, RpcTestClient::Transport transport = RpcTestClient::TCP);

private:
    std::unique_ptr<TempDir> m_dir;
    std::string m_root;
    std::unique_ptr<RpcServerHarness> m_harness;
    std::unique_ptr<CNfsProg> m_prog;
    std::unique_ptr<RpcTestClient> m_tcp;
    std::unique_ptr<RpcTestClient> m_udp;
    CServerSocket* m_listener = nullptr;
    uint16_t m_tcpPort = 0;
    uint16_t m_udpPort = 0;
    uint32_t m_xid = 0x1000;
};
