#include "Nfs3TestServer.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "NfsProg.h"
#include "RpcServerHarness.h"
#include "ServerSocket.h"
#include "Socket.h"
#include "TestSupport.h"
#include "Utilities.h"

namespace nfs3wire {

Fattr3 GetFattr3(XdrDecoder& d) {
    Fattr3 a;
    a.type = d.GetUint32();
    a.mode = d.GetUint32();
    a.nlink = d.GetUint32();
    a.uid = d.GetUint32();
    a.gid = d.GetUint32();
    a.size = d.GetUint64();
    a.used = d.GetUint64();
    a.rdev1 = d.GetUint32();
    a.rdev2 = d.GetUint32();
    a.fsid = d.GetUint64();
    a.fileid = d.GetUint64();
    a.atime = d.GetUint32();
    a.atimeNs = d.GetUint32();
    a.mtime = d.GetUint32();
    a.mtimeNs = d.GetUint32();
    a.ctime = d.GetUint32();
    a.ctimeNs = d.GetUint32();
    return a;
}

bool GetPostOpAttr(XdrDecoder& d, Fattr3* attr) {
    uint32_t follows = d.GetUint32();
    if (follows != 1) return false;
    Fattr3 a = GetFattr3(d);
    if (attr) *attr = a;
    return true;
}

Fattr3 ExpectedFattr3(const std::string& path) {
    struct stat st;
    Fattr3 a;
    if (lstat(path.c_str(), &st) != 0) return a;
    switch (st.st_mode & S_IFMT) {
        case S_IFREG: a.type = 1; break;
        case S_IFDIR: a.type = 2; break;
        case S_IFBLK: a.type = 3; break;
        case S_IFCHR: a.type = 4; break;
        case S_IFLNK: a.type = 5; break;
        case S_IFSOCK: a.type = 6; break;
        case S_IFIFO: a.type = 7; break;
    }
    a.mode = st.st_mode & 07777 & ~01000u;
    a.nlink = (uint32_t)st.st_nlink;
    a.uid = st.st_uid;
    a.gid = st.st_gid;
    a.size = a.used = (uint64_t)st.st_size;
    dev_t device = (a.type == 3 || a.type == 4) ? st.st_rdev : st.st_dev;
    a.rdev1 = (uint32_t)((device >> 8) & 0xFF);
    a.rdev2 = (uint32_t)(device & 0xFF);
    a.fsid = CUtilities::GetFileSystemID(path.c_str());
    a.fileid = st.st_ino;
    a.atime = (uint32_t)st.st_atime;
    a.mtime = (uint32_t)st.st_mtime;
    a.ctime = (uint32_t)st.st_ctime;
    return a;
}

Bytes HandleArgs(const Bytes& handle) {
    XdrEncoder e;
    e.PutOpaque(handle);
    return e.GetBytes();
}

Bytes DirOpArgs(const Bytes& dirHandle, const std::string& name) {
    XdrEncoder e;
    e.PutOpaque(dirHandle).PutString(name);
    return e.GetBytes();
}

Bytes ReadArgs(const Bytes& handle, uint64_t offset, uint32_t count) {
    XdrEncoder e;
    e.PutOpaque(handle).PutUint64(offset).PutUint32(count);
    return e.GetBytes();
}

Bytes WriteArgs(const Bytes& handle, uint64_t offset, uint32_t count, const std::string& data, uint32_t stable) {
    XdrEncoder e;
    e.PutOpaque(handle).PutUint64(offset).PutUint32(count).PutUint32(stable).PutString(data);
    return e.GetBytes();
}

Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

uint32_t HandleID(const Bytes& handle) {
    uint32_t id = 0;
    if (handle.size() >= 4) memcpy(&id, handle.data(), 4);
    return id;
}

Bytes Words(std::initializer_list<uint32_t> words) {
    XdrEncoder e;
    for (uint32_t w : words) e.PutUint32(w);
    return e.GetBytes();
}

Bytes Encode(const Fattr3& a) {
    XdrEncoder e;
    e.PutUint32(a.type).PutUint32(a.mode).PutUint32(a.nlink).PutUint32(a.uid).PutUint32(a.gid);
    e.PutUint64(a.size).PutUint64(a.used).PutUint32(a.rdev1).PutUint32(a.rdev2).PutUint64(a.fsid);
    e.PutUint64(a.fileid).PutUint32(a.atime).PutUint32(a.atimeNs).PutUint32(a.mtime).PutUint32(a.mtimeNs);
    e.PutUint32(a.ctime).PutUint32(a.ctimeNs);
    return e.GetBytes();
}

}  // namespace nfs3wire

Nfs3TestServer::Nfs3TestServer(int logControl)
    : m_dir(new TempDir), m_harness(new RpcServerHarness(logControl)) {
    char resolved[PATH_MAX];
    m_root = realpath(m_dir->Path().c_str(), resolved) ? resolved : m_dir->Path();
    m_prog.reset(new CNfsProg(&m_harness->Utilities()));
    m_harness->Server().Set(nfs3wire::PROGRAM, m_prog.get());
}

Nfs3TestServer::~Nfs3TestServer() {
    m_tcp.reset();
    m_udp.reset();
    // The sockets' threads use the program: close them before it goes.
    Stop();
}

bool Nfs3TestServer::Start(std::string* err) {
    char text[ERROR_TEXT_SIZE] = "";
    LogArgu la{"Nfs3TestServer.Start"};
    if (!Utilities().AddMountInfo(&Runtime(), &la, m_root.c_str(), EXPORT_NAME, EXPORT_IPC_ID, text)) {
        if (err) *err = std::string("export: ") + text;
        return false;
    }
    if (!Utilities().UpdateMountClientIpAddrByExportName(EXPORT_NAME, CLIENT_ADDRESS, nullptr, text)) {
        if (err) *err = std::string("mount: ") + text;
        return false;
    }
    RpcServerHarness::Endpoint* end = m_harness->Listen(nfs3wire::PROGRAM, 0, 0, 10, err);
    if (end == nullptr) return false;
    m_listener = end->tcp.get();
    m_tcpPort = end->tcpPort;
    m_udpPort = end->udpPort;
    return true;
}

void Nfs3TestServer::Stop() {
    m_harness->Close();
    m_listener = nullptr;
}

int Nfs3TestServer::ActiveConnections() const {
    int active = 0;
    for (int i = 0; m_listener && i < m_listener->GetMaxNum(); ++i) {
        CSocket* connection = m_listener->GetConnection(i);
        active += connection && connection->IsActive();
    }
    return active;
}

bool Nfs3TestServer::WaitForConnections(int count) {
    return WaitUntil([&] { return ActiveConnections() == count; });
}

Bytes Nfs3TestServer::Handle(const std::string& path) {
    unsigned char handle[FILE_HANDLE_SIZE];
    LogArgu la{"Nfs3TestServer.Handle"};
    Utilities().GetFileHandle(&Runtime(), &la, path.c_str(), handle, (int)sizeof handle);
    return Bytes(handle, handle + sizeof handle);
}

CNfs3Prog& Nfs3TestServer::Version3() {
    if (m_prog->GetNfs3Prog() == nullptr) Results(nfs3wire::PROC_NULL, Bytes());
    return *m_prog->GetNfs3Prog();
}

CUtilities& Nfs3TestServer::Utilities() { return m_harness->Utilities(); }
CRuntimeParam& Nfs3TestServer::Runtime() { return m_harness->Runtime(); }
LogRecorder& Nfs3TestServer::Log() { return m_harness->Log(); }

RpcTestClient& Nfs3TestServer::Client(RpcTestClient::Transport transport) {
    std::unique_ptr<RpcTestClient>& client = transport == RpcTestClient::TCP ? m_tcp : m_udp;
    if (!client) client.reset(new RpcTestClient(transport, transport == RpcTestClient::TCP ? m_tcpPort : m_udpPort));
    return *client;
}

bool Nfs3TestServer::Call(uint32_t proc, const Bytes& args, RpcReply& reply, RpcTestClient::Transport transport,
                          uint32_t version) {
    return Client(transport).Call(NextXid(), nfs3wire::PROGRAM, version, proc, args, reply);
}

Bytes Nfs3TestServer::Results(uint32_t proc, const Bytes& args, RpcTestClient::Transport transport) {
    RpcReply reply;
    EXPECT_TRUE(Call(proc, args, reply, transport)) << "procedure " << proc;
    EXPECT_EQ(0u, reply.acceptStat) << "procedure " << proc;
    return reply.results;
}
