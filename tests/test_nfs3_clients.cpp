// Real NFS clients read the program's replies: libnfs's raw NFSv3 client
// calls every procedure of this program over TCP and decodes the results
// with its own XDR code, and tshark dissects a capture of the same calls
// over UDP. This file uses libnfs's NFS types, so it names none of the
// engine's own.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

// libnfs.h first: the raw headers need what it defines.
#include <nfsc/libnfs.h>
#include <nfsc/libnfs-raw.h>
#include <nfsc/libnfs-raw-nfs.h>

#include "Nfs3TestServer.h"
#include "NfsProg.h"
#include "PrivateNetwork.h"
#include "TestSupport.h"

namespace {

// A synchronous front on libnfs's asynchronous raw client.
class LibnfsClient {
public:
    LibnfsClient() : m_rpc(rpc_init_context()) {}
    ~LibnfsClient() {
        if (m_rpc) rpc_destroy_context(m_rpc);
    }
    LibnfsClient(const LibnfsClient&) = delete;
    LibnfsClient& operator=(const LibnfsClient&) = delete;

    bool Connect(uint16_t port) {
        Pending p;
        if (!m_rpc || rpc_connect_port_async(m_rpc, "127.0.0.1", port, 100003, 3, Callback, &p) != 0) return false;
        return Wait(p) && p.status == RPC_STATUS_SUCCESS;
    }

    // Starts a call through start (which is given the callback and its
    // data), serves the context until the reply is in, and hands the
    // decoded result to onReply. False when the call failed or the reply
    // could not be decoded.
    bool Call(const std::function<int(rpc_cb, void*)>& start, const std::function<void(void*)>& onReply) {
        Pending p;
        p.onReply = onReply;
        if (start(Callback, &p) != 0) return false;
        if (!Wait(p)) return false;
        if (p.status != RPC_STATUS_SUCCESS) ADD_FAILURE() << "libnfs: " << rpc_get_error(m_rpc);
        return p.status == RPC_STATUS_SUCCESS;
    }

    rpc_context* Context() { return m_rpc; }

private:
    struct Pending {
        bool done = false;
        int status = -1;
        std::function<void(void*)> onReply;
    };

    static void Callback(rpc_context*, int status, void* data, void* privateData) {
        Pending* p = static_cast<Pending*>(privateData);
        p->status = status;
        if (status == RPC_STATUS_SUCCESS && p->onReply) p->onReply(data);
        p->done = true;
    }

    // Serves the context until the callback ran; the poll bound only keeps
    // a lost reply from hanging the test.
    bool Wait(Pending& p) {
        for (int round = 0; round < 300 && !p.done; ++round) {
            pollfd pfd{rpc_get_fd(m_rpc), (short)rpc_which_events(m_rpc), 0};
            if (poll(&pfd, 1, 100) < 0) return false;
            if (rpc_service(m_rpc, pfd.revents) < 0) return false;
        }
        return p.done;
    }

    rpc_context* m_rpc;
};

// libnfs decodes list entries into 4-byte aligned memory: copy them out
// before reading their 64-bit fields.
template <class T>
T Aligned(const void* p) {
    T copy;
    memcpy(&copy, p, sizeof copy);
    return copy;
}

nfs_fh3 Fh(Bytes& handle) {
    nfs_fh3 fh;
    fh.data.data_len = (u_int)handle.size();
    fh.data.data_val = reinterpret_cast<char*>(handle.data());
    return fh;
}

uint64_t InodeOf(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

class Nfs3Clients : public testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(server.Start(&err)) << err;
        WriteWholeFile(server.PathOf("f"), "some data");
        ASSERT_EQ(0, mkdir(server.PathOf("dir").c_str(), 0755));
        for (int i = 0; i < 12; ++i) WriteWholeFile(server.PathOf("dir/entry" + std::to_string(i)), "");
    }
    Nfs3TestServer server;
};

// ---- a capture file for tshark ---------------------------------------------------

void Put16(std::vector<uint8_t>& b, uint16_t v) {
    b.push_back((uint8_t)(v >> 8));
    b.push_back((uint8_t)v);
}

void PutLE32(std::vector<uint8_t>& b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back((uint8_t)(v >> (8 * i)));
}

// One UDP datagram between 127.0.0.1:port pairs as a raw IPv4 packet record.
void AddPacket(std::vector<uint8_t>& pcap, uint32_t second, uint16_t from, uint16_t to, const Bytes& payload) {
    std::vector<uint8_t> ip = {0x45, 0};
    Put16(ip, (uint16_t)(20 + 8 + payload.size()));
    Put16(ip, 1);
    Put16(ip, 0x4000);
    ip.push_back(64);
    ip.push_back(17);
    Put16(ip, 0);  // header checksum, filled below
    for (int i = 0; i < 2; ++i) ip.insert(ip.end(), {127, 0, 0, 1});
    uint32_t sum = 0;
    for (size_t i = 0; i < 20; i += 2) sum += (uint32_t)(ip[i] << 8 | ip[i + 1]);
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    ip[10] = (uint8_t)(~sum >> 8);
    ip[11] = (uint8_t)~sum;
    Put16(ip, from);
    Put16(ip, to);
    Put16(ip, (uint16_t)(8 + payload.size()));
    Put16(ip, 0);  // no UDP checksum
    ip.insert(ip.end(), payload.begin(), payload.end());
    PutLE32(pcap, second);
    PutLE32(pcap, 0);
    PutLE32(pcap, (uint32_t)ip.size());
    PutLE32(pcap, (uint32_t)ip.size());
    pcap.insert(pcap.end(), ip.begin(), ip.end());
}

}  // namespace

TEST_F(Nfs3Clients, LibnfsDecodesEveryReplyOfTheProgram) {
    LibnfsClient client;
    ASSERT_TRUE(client.Connect(server.TcpPort()));
    rpc_context* rpc = client.Context();
    Bytes root = server.Handle(server.Root());
    Bytes dir = server.Handle(server.PathOf("dir"));

    EXPECT_TRUE(client.Call([&](rpc_cb cb, void* p) { return rpc_nfs3_null_async(rpc, cb, p); }, nullptr));

    GETATTR3args getattr{};
    getattr.object = Fh(root);
    EXPECT_TRUE(client.Call([&](rpc_cb cb, void* p) { return rpc_nfs3_getattr_async(rpc, cb, &getattr, p); },
                            [&](void* data) {
                                GETATTR3res* res = static_cast<GETATTR3res*>(data);
                                ASSERT_EQ(NFS3_OK, res->status);
                                EXPECT_EQ(NF3DIR, res->GETATTR3res_u.resok.obj_attributes.type);
                                EXPECT_EQ(InodeOf(server.Root()), res->GETATTR3res_u.resok.obj_attributes.fileid);
                            }));

    Bytes fileHandle;
    LOOKUP3args lookup{};
    lookup.what.dir = Fh(root);
    lookup.what.name = const_cast<char*>("f");
    EXPECT_TRUE(client.Call([&](rpc_cb cb, void* p) { return rpc_nfs3_lookup_async(rpc, cb, &lookup, p); },
                            [&](void* data) {
                                LOOKUP3res* res = static_cast<LOOKUP3res*>(data);
                                ASSERT_EQ(NFS3_OK, res->status);
                                LOOKUP3resok& ok = res->LOOKUP3res_u.resok;
                                ASSERT_EQ(56u, ok.object.data.data_len);
                                fileHandle.assign(ok.object.data.data_val, ok.object.data.data_val + 56);
                                ASSERT_TRUE(ok.obj_attributes.attributes_follow);
                                EXPECT_EQ(9u, ok.obj_attributes.post_op_attr_u.attributes.size);
                                EXPECT_FALSE(ok.dir_attributes.attributes_follow);
                            }));
    EXPECT_EQ(server.Handle(server.PathOf("f")), fileHandle);

    LOOKUP3args missing{};
    missing.what.dir = Fh(root);
    missing.what.name = const_cast<char*>("missing");
    EXPECT_TRUE(client.Call([&](rpc_cb cb, void* p) { return rpc_nfs3_lookup_async(rpc, cb, &missing, p); },
                            [&](void* data) {
                                LOOKUP3res* res = static_cast<LOOKUP3res*>(data);
                                EXPECT_EQ(NFS3ERR_NOENT, res->status);
                                EXPECT_FALSE(res->LOOKUP3res_u.resfail.dir_attributes.attributes_follow);
                            }));

    ACCESS3args access{};
    access.object = Fh(fileHandle);
    access.access = 0x3F;
    EXPECT_TRUE(client.Call([&](rpc_cb cb, void* p) { return rpc_nfs3_access_async(rpc, cb, &access, p); },
                            [&](void* data) {
                                ACCESS3res* res = static_cast<ACCESS3res*>(data);
                                ASSERT_EQ(NFS3_OK, res->status);
                                EXPECT_EQ(0x3Fu, res->ACCESS3res_u.resok.access);
                                EXPECT_TRUE(res->ACCESS3res_u.resok.obj_attributes.attributes_follow);
                            }));

    SETATTR3args setattr{};
    setattr.object = Fh(fileHandle);
    setattr.new_attributes.mode.set_it = 1;
    setattr.new_attributes.mode.set_mode3_u.mode = 0604;
    EXPECT_TRUE(client.Call([&](rpc_cb cb, void* p) { return rpc_nfs3_setattr_async(rpc, cb, &setattr, p); },
                            [&](void* data) {
                                SETATTR3res* res = static_cast<SETATTR3res*>(data);
                                EXPECT_EQ(NFS3_OK, res->status);
                                EXPECT_FALSE(res->SETATTR3res_u.resok.obj_wcc.before.attributes_follow);
                                EXPECT_FALSE(res->SETATTR3res_u.resok.obj_wcc.after.attributes_follow);
                            }));
    struct stat st;
    ASSERT_EQ(0, lstat(server.PathOf("f").c_str(), &st));
    EXPECT_EQ(0604u, st.st_mode & 07777);

    READLINK3args readlink{};
    readlink.symlink = Fh(fileHandle);
    EXPECT_TRUE(client.Call([&](rpc_cb cb, void* p) { return rpc_nfs3_readlink_async(rpc, cb, &readlink, p); },
                            [&](void* data) { EXPECT_EQ(NFS3ERR_IO, static_cast<READLINK3res*>(data)->status); }));

    // READDIR in two pages: ten entries, then the last two.
    std::vector<std::string> names;
    for (uint64_t cookie : {0, 10}) {
        READDIR3args readdir{};
        readdir.dir = Fh(dir);
        readdir.cookie = cookie;
        readdir.count = 4096;
        EXPECT_TRUE(client.Call([&](rpc_cb cb, void* p) { return rpc_nfs3_readdir_async(rpc, cb, &readdir, p); },
                                [&](void* data) {
                                    READDIR3res* res = static_cast<READDIR3res*>(data);
                                    ASSERT_EQ(NFS3_OK, res->status);
                                    uint64_t expected = cookie;
                                    for (const void* p = res->READDIR3res_u.resok.reply.entries; p;) {
                                        entry3 e = Aligned<entry3>(p);
                                        EXPECT_EQ(++expected, e.cookie);
                                        names.push_back(e.name);
                                        p = e.nextentry;
                                    }
                                    EXPECT_EQ(cookie == 0 ? 0u : 1u, res->READDIR3res_u.resok.reply.eof);
                                }));
    }
    EXPECT_EQ(12u, names.size());

    READDIRPLUS3args readdirplus{};
    readdirplus.dir = Fh(dir);
    readdirplus.dircount = 1024;
    readdirplus.maxcount = 8192;
    int plusEntries = 0;
    EXPECT_TRUE(client.Call(
        [&](rpc_cb cb, void* p) { return rpc_nfs3_readdirplus_async(rpc, cb, &readdirplus, p); },
        [&](void* data) {
            READDIRPLUS3res* res = static_cast<READDIRPLUS3res*>(data);
            ASSERT_EQ(NFS3_OK, res->status);
            EXPECT_TRUE(res->READDIRPLUS3res_u.resok.dir_attributes.attributes_follow);
            for (const void* p = res->READDIRPLUS3res_u.resok.reply.entries; p;) {
                entryplus3 e = Aligned<entryplus3>(p);
                p = e.nextentry;
                ++plusEntries;
                EXPECT_TRUE(e.name_attributes.attributes_follow);
                EXPECT_EQ(InodeOf(server.PathOf("dir/" + std::string(e.name))),
                          e.name_attributes.post_op_attr_u.attributes.fileid);
                ASSERT_TRUE(e.name_handle.handle_follows);
                uint32_t id;
                memcpy(&id, e.name_handle.post_op_fh3_u.handle.data.data_val, 4);
                EXPECT_EQ(e.fileid, id);
            }
            EXPECT_EQ(0u, res->READDIRPLUS3res_u.resok.reply.eof);
        }));
    EXPECT_EQ(10, plusEntries);

    FSSTAT3args fsstat{};
    fsstat.fsroot = Fh(root);
    EXPECT_TRUE(client.Call([&](rpc_cb cb, void* p) { return rpc_nfs3_fsstat_async(rpc, cb, &fsstat, p); },
                            [&](void* data) {
                                FSSTAT3res* res = static_cast<FSSTAT3res*>(data);
                                ASSERT_EQ(NFS3_OK, res->status);
                                EXPECT_GT(res->FSSTAT3res_u.resok.tbytes, 0u);
                                EXPECT_EQ(0u, res->FSSTAT3res_u.resok.invarsec);
                            }));

    FSINFO3args fsinfo{};
    fsinfo.fsroot = Fh(root);
    EXPECT_TRUE(client.Call([&](rpc_cb cb, void* p) { return rpc_nfs3_fsinfo_async(rpc, cb, &fsinfo, p); },
                            [&](void* data) {
                                FSINFO3res* res = static_cast<FSINFO3res*>(data);
                                ASSERT_EQ(NFS3_OK, res->status);
                                FSINFO3resok& ok = res->FSINFO3res_u.resok;
                                EXPECT_EQ(65536u, ok.rtmax);
                                EXPECT_EQ(65536u, ok.rtpref);
                                EXPECT_EQ(512u, ok.rtmult);
                                EXPECT_EQ(16384u, ok.wtmax);
                                EXPECT_EQ(16384u, ok.wtpref);
                                EXPECT_EQ(512u, ok.wtmult);
                                EXPECT_EQ(8192u, ok.dtpref);
                                EXPECT_EQ(1u, ok.time_delta.seconds);
                                EXPECT_EQ(0u, ok.time_delta.nseconds);
                                EXPECT_EQ(24u, ok.properties);
                            }));

    PATHCONF3args pathconf{};
    pathconf.object = Fh(root);
    EXPECT_TRUE(client.Call([&](rpc_cb cb, void* p) { return rpc_nfs3_pathconf_async(rpc, cb, &pathconf, p); },
                            [&](void* data) { EXPECT_EQ(NFS3ERR_IO, static_cast<PATHCONF3res*>(data)->status); }));
}

TEST_F(Nfs3Clients, TsharkDissectsEveryReplyWithoutAMalformedPacket) {
    Bytes root = server.Handle(server.Root());
    Bytes dir = server.Handle(server.PathOf("dir"));
    Bytes file = server.Handle(server.PathOf("f"));
    XdrEncoder readdir, readdirplus, access, setattr;
    readdir.PutOpaque(dir).PutUint64(0).PutUint64(0).PutUint32(4096);
    readdirplus.PutOpaque(dir).PutUint64(10).PutUint64(0).PutUint32(1024).PutUint32(8192);
    access.PutOpaque(file).PutUint32(0x3F);
    setattr.PutOpaque(file).PutUint32(1).PutUint32(0600);
    for (int i = 0; i < 5; ++i) setattr.PutUint32(0);
    setattr.PutUint32(0);
    struct Exchange {
        uint32_t proc;
        Bytes args;
        uint32_t status;
    } exchanges[] = {
        {nfs3wire::PROC_GETATTR, nfs3wire::HandleArgs(root), 0},
        {nfs3wire::PROC_SETATTR, setattr.GetBytes(), 0},
        {nfs3wire::PROC_LOOKUP, nfs3wire::DirOpArgs(root, "f"), 0},
        {nfs3wire::PROC_LOOKUP, nfs3wire::DirOpArgs(root, "missing"), 2},
        {nfs3wire::PROC_ACCESS, access.GetBytes(), 0},
        {nfs3wire::PROC_READLINK, nfs3wire::HandleArgs(file), 5},
        {nfs3wire::PROC_READDIR, readdir.GetBytes(), 0},
        {nfs3wire::PROC_READDIRPLUS, readdirplus.GetBytes(), 0},
        {nfs3wire::PROC_FSSTAT, nfs3wire::HandleArgs(root), 0},
        {nfs3wire::PROC_FSINFO, nfs3wire::HandleArgs(root), 0},
        {nfs3wire::PROC_PATHCONF, nfs3wire::HandleArgs(root), 5},
        {nfs3wire::PROC_GETATTR, nfs3wire::HandleArgs(Bytes(56, 0xEE)), 70},
    };

    std::vector<uint8_t> pcap;
    PutLE32(pcap, 0xA1B2C3D4);
    pcap.insert(pcap.end(), {2, 0, 4, 0});  // version 2.4
    PutLE32(pcap, 0);
    PutLE32(pcap, 0);
    PutLE32(pcap, 65535);
    PutLE32(pcap, 101);  // raw IP
    RpcTestClient& client = server.Client(RpcTestClient::UDP);
    uint32_t second = 1000;
    std::map<uint32_t, uint32_t> statusByXid;
    for (const Exchange& x : exchanges) {
        uint32_t xid = server.NextXid();
        Bytes call = BuildRpcCall(xid, nfs3wire::PROGRAM, 3, x.proc, x.args, RpcAuth::Unix(1, "client", 0, 0));
        ASSERT_TRUE(client.SendMessage(call));
        Bytes reply;
        ASSERT_TRUE(client.ReceiveMessage(reply));
        AddPacket(pcap, second++, 700, 2049, call);
        AddPacket(pcap, second++, 2049, 700, reply);
        statusByXid[xid] = x.status;
    }
    TempDir out;
    std::string capture = out / "nfs3.pcap";
    WriteWholeFile(capture, std::string(pcap.begin(), pcap.end()));

    std::string tshark = "tshark -n -r " + capture + " -d udp.port==2049,rpc ";
    EXPECT_EQ("", RunCommand(tshark + "-Y '_ws.malformed || _ws.expert.severity >= error' -T fields -e frame.number "
                                       "2>/dev/null"));
    // Every reply is tied to its call and carries the status sent.
    std::string fields = RunCommand(tshark + "-Y 'rpc.msgtyp == 1' -T fields -E separator=, -e rpc.xid "
                                             "-e rpc.procedure -e nfs.status 2>/dev/null");
    std::vector<std::string> lines = SplitLines(fields);
    ASSERT_EQ(sizeof exchanges / sizeof exchanges[0], lines.size()) << fields;
    for (size_t i = 0; i < lines.size(); ++i) {
        unsigned xid = 0, proc = 0, status = 0;
        ASSERT_EQ(3, sscanf(lines[i].c_str(), "%x,%u,%u", &xid, &proc, &status)) << lines[i];
        EXPECT_EQ(exchanges[i].proc, proc) << lines[i];
        EXPECT_EQ(statusByXid[xid], status) << lines[i];
    }
    std::string fsinfo = RunCommand(tshark + "-Y 'nfs.fsinfo.rtmax' -T fields -E separator=, -e nfs.fsinfo.rtmax "
                                             "-e nfs.fsinfo.wtmax -e nfs.fsinfo.dtpref -e nfs.fsinfo.properties "
                                             "2>/dev/null");
    EXPECT_EQ("65536,16384,8192,0x00000018\n", fsinfo);
    std::string names = RunCommand(tshark + "-Y 'rpc.msgtyp == 1' -T fields -e nfs.readdir.entry3.name "
                                            "-e nfs.readdirplus.entry.name 2>/dev/null");
    int listed = 0;
    for (size_t at = names.find("entry"); at != std::string::npos; at = names.find("entry", at + 1)) ++listed;
    EXPECT_EQ(12, listed) << names;  // ten of READDIR, the last two of READDIRPLUS
}
