// Calls over TCP run only once their whole record has arrived: pipelined
// WRITEs cut at every byte, WRITE data that holds call headers, and calls
// sent as several record fragments, against the real NFS program.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "Nfs3TestServer.h"
#include "RpcTestClient.h"
#include "TestSupport.h"

using namespace nfs3wire;

namespace {

constexpr uint32_t NFS3_OK = 0;
constexpr uint32_t FILE_SYNC = 2;
constexpr uint32_t WRITE_SIZE = 16384;
constexpr int RPC_LOGGING = 4;

// A credential as the Linux client sends it: stamp 0, machine name, uid,
// gid and the caller's groups. Cut inside it, its words also decode as
// WRITE arguments (empty handle, no data), which is how a cut call once
// ran on the wrong bytes.
RpcAuth LinuxCredential() { return RpcAuth::Unix(0, "backup01", 0, 0, {0, 1, 2, 3, 4, 6, 10, 11, 26, 27}); }

// size bytes that change with seed.
std::string Pattern(size_t size, uint32_t seed) {
    std::string s(size, '\0');
    uint32_t x = seed * 2654435761u + 7;
    for (char& c : s) {
        x = x * 1103515245u + 12345u;
        c = (char)(x >> 16);
    }
    return s;
}

// A WRITE reply taken apart: status, count and how stable.
struct WriteReply {
    uint32_t status = ~0u;
    uint32_t count = 0;
    uint32_t committed = 0;
};

WriteReply ParseWrite(const RpcReply& reply) {
    WriteReply w;
    XdrDecoder d = reply.Results();
    w.status = d.GetUint32();
    if (d.GetUint32() != 0) d.GetFixedOpaque(24);  // pre-op size and times
    GetPostOpAttr(d);
    if (w.status == NFS3_OK) {
        w.count = d.GetUint32();
        w.committed = d.GetUint32();
    }
    return w;
}

class RecordTest : public testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(server.Start(&err)) << err;
        WriteWholeFile(server.PathOf("disk-flat.vmdk"), "");
        handle = server.Handle(server.PathOf("disk-flat.vmdk"));
        client = std::make_unique<RpcTestClient>(RpcTestClient::TCP, server.TcpPort());
        ASSERT_TRUE(client->IsOpen());
        // Each piece leaves at once, as a real client's do.
        int noDelay = 1;
        setsockopt(client->Fd(), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    }

    // The file's bytes from offset.
    std::string FileBytes(uint64_t offset, size_t size) {
        std::string data(size, '\0');
        int fd = open(server.PathOf("disk-flat.vmdk").c_str(), O_RDONLY);
        if (fd < 0) return "";
        ssize_t n = pread(fd, &data[0], size, (off_t)offset);
        close(fd);
        data.resize(n < 0 ? 0 : (size_t)n);
        return data;
    }

    // Waits until the dispatcher has taken in everything sent and stopped
    // in front of an incomplete call (or found no header in what is left).
    bool WaitForServerToStop() {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            if (server.Log().Has("[RpcServer.SocketReceived] Waiting for the rest of the record") ||
                server.Log().Has("[RpcServer.SocketReceived] Cannot find valid header!!") ||
                server.Log().Has("[RpcServer.SocketReceived] Reset input buffer postion"))
                return true;
            std::this_thread::yield();
        }
        return false;
    }

    Nfs3TestServer server{RPC_LOGGING};
    Bytes handle;
    std::unique_ptr<RpcTestClient> client;
};

TEST_F(RecordTest, PipelinedWritesCutAtEveryByteAreAllAppliedUnderTheirOwnXids) {
    // Three WRITEs of 16 KiB in one stream; for every offset of that stream
    // it is sent in two pieces. The first piece's whole calls are answered
    // before the rest is sent, and the cut call waits in the server.
    const RpcAuth cred = LinuxCredential();
    Bytes stream;
    std::vector<size_t> ends;  // end of each call in the stream
    auto build = [&](uint32_t round, std::vector<std::string>& data) {
        stream.clear();
        ends.clear();
        data.clear();
        for (uint32_t i = 0; i < 3; ++i) {
            data.push_back(Pattern(WRITE_SIZE, round * 3 + i));
            Bytes call = WithRecordMark(BuildRpcCall(round * 3 + i + 1, PROGRAM, 3, PROC_WRITE,
                                                     WriteArgs(handle, i * WRITE_SIZE, WRITE_SIZE, data.back(), FILE_SYNC),
                                                     cred));
            stream.insert(stream.end(), call.begin(), call.end());
            ends.push_back(stream.size());
        }
    };
    std::vector<std::string> data;
    build(0, data);
    const size_t total = stream.size();
    ASSERT_GT(total, 3 * WRITE_SIZE);

    for (size_t cut = 1; cut < total; ++cut) {
        const uint32_t round = (uint32_t)cut;
        build(round, data);
        ASSERT_EQ(total, stream.size());
        server.Log().Clear();
        ASSERT_TRUE(client->SendRaw(stream.data(), cut));
        size_t answered = 0;
        RpcReply reply;
        auto expectNext = [&]() {
            ASSERT_TRUE(client->ReceiveReply(reply)) << "cut " << cut;
            ASSERT_EQ(round * 3 + answered + 1, reply.xid) << "cut " << cut;
            ASSERT_EQ(0u, reply.acceptStat) << "cut " << cut;
            WriteReply w = ParseWrite(reply);
            ASSERT_EQ(NFS3_OK, w.status) << "cut " << cut;
            ASSERT_EQ(WRITE_SIZE, w.count);
            ASSERT_EQ(FILE_SYNC, w.committed);
            ++answered;
        };
        while (answered < 3 && ends[answered] <= cut) {
            expectNext();
            if (testing::Test::HasFatalFailure()) return;
        }
        const bool cutInsideACall = answered == 0 || ends[answered - 1] != cut;
        if (cutInsideACall) {
            ASSERT_TRUE(WaitForServerToStop()) << "cut " << cut << "\n" << server.Log().Dump();
        }
        ASSERT_TRUE(client->SendRaw(stream.data() + cut, total - cut));
        while (answered < 3) {
            expectNext();
            if (testing::Test::HasFatalFailure()) return;
        }
        if (cut % 997 == 1 || cut + 1 == total) {
            for (uint32_t i = 0; i < 3; ++i) ASSERT_EQ(data[i], FileBytes(i * WRITE_SIZE, WRITE_SIZE)) << "cut " << cut;
        }
    }
    // Nothing else was ever answered: the next reply is the NULL's.
    RpcReply reply;
    ASSERT_TRUE(client->Call(7, PROGRAM, 3, PROC_NULL, {}, reply));
    EXPECT_EQ(7u, reply.xid);
    EXPECT_EQ(0, server.Log().CountContaining("Data is truncated")) << server.Log().Dump();
}

TEST_F(RecordTest, WriteDataHoldingCallHeadersIsWrittenWhole) {
    // Calls of the NFS program, GETATTR and WRITE, with their record marks,
    // stand inside the data at the start, the middle and the end.
    Bytes getattr = WithRecordMark(BuildRpcCall(0x11111111, PROGRAM, 3, PROC_GETATTR, HandleArgs(handle)));
    Bytes write = WithRecordMark(
        BuildRpcCall(0x22222222, PROGRAM, 3, PROC_WRITE, WriteArgs(handle, 0, 4, "evil", FILE_SYNC)));
    std::string data = Pattern(WRITE_SIZE, 99);
    for (size_t at : {size_t(0), size_t(1), size_t(5000), size_t(8191), WRITE_SIZE - write.size()})
        data.replace(at, write.size(), std::string(write.begin(), write.end()));
    for (size_t at : {size_t(300), size_t(12001), WRITE_SIZE - getattr.size() - 1})
        data.replace(at, getattr.size(), std::string(getattr.begin(), getattr.end()));
    ASSERT_EQ(WRITE_SIZE, data.size());

    uint32_t xid = 1;
    for (size_t piece : {1, 3, 7, 44, 100, 1459, 4096}) {
        Bytes call = WithRecordMark(
            BuildRpcCall(xid, PROGRAM, 3, PROC_WRITE, WriteArgs(handle, 0, WRITE_SIZE, data, FILE_SYNC), LinuxCredential()));
        for (size_t at = 0; at < call.size(); at += piece) {
            ASSERT_TRUE(client->SendRaw(call.data() + at, std::min(piece, call.size() - at)));
            if (piece >= 1459) std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        RpcReply reply;
        ASSERT_TRUE(client->ReceiveReply(reply)) << "pieces of " << piece;
        EXPECT_EQ(xid, reply.xid);
        WriteReply w = ParseWrite(reply);
        EXPECT_EQ(NFS3_OK, w.status);
        EXPECT_EQ(WRITE_SIZE, w.count);
        EXPECT_EQ(data, FileBytes(0, WRITE_SIZE)) << "pieces of " << piece;
        // The headers inside the data were never answered.
        ASSERT_TRUE(client->Call(1000 + xid, PROGRAM, 3, PROC_NULL, {}, reply));
        EXPECT_EQ(1000 + xid, reply.xid) << "pieces of " << piece;
        ++xid;
    }
    EXPECT_EQ(0, server.Log().CountContaining("for next vaild header")) << server.Log().Dump();
}

// message cut into fragments at the given offsets, each with its own mark;
// only the last carries the last-fragment bit.
Bytes Fragments(const Bytes& message, std::vector<size_t> cuts) {
    cuts.push_back(message.size());
    Bytes out;
    size_t from = 0;
    for (size_t i = 0; i < cuts.size(); ++i) {
        uint32_t length = (uint32_t)(cuts[i] - from);
        uint32_t mark = length | (i + 1 == cuts.size() ? 0x80000000u : 0);
        for (int shift = 24; shift >= 0; shift -= 8) out.push_back((uint8_t)(mark >> shift));
        out.insert(out.end(), message.begin() + from, message.begin() + cuts[i]);
        from = cuts[i];
    }
    return out;
}

TEST_F(RecordTest, CallsSentAsSeveralFragmentsAreAnsweredOnceUnderTheirOwnXid) {
    std::string data = Pattern(1000, 5);
    Bytes message =
        BuildRpcCall(0xABCD0001, PROGRAM, 3, PROC_WRITE, WriteArgs(handle, 100, 1000, data, FILE_SYNC), LinuxCredential());
    struct Case {
        std::vector<size_t> cuts;
        size_t piece;  // sent in pieces of this size (0: at once)
    } cases[] = {{{60}, 0}, {{200}, 0}, {{100, 700}, 0}, {{44, 45, 900}, 0}, {{60, 800}, 5}, {{28}, 3}};
    uint32_t xid = 0xABCD0001;
    for (const Case& c : cases) {
        message = BuildRpcCall(xid, PROGRAM, 3, PROC_WRITE, WriteArgs(handle, 100, 1000, data, FILE_SYNC),
                               LinuxCredential());
        Bytes wire = Fragments(message, c.cuts);
        if (c.piece == 0) {
            ASSERT_TRUE(client->SendRaw(wire));
        } else {
            for (size_t at = 0; at < wire.size(); at += c.piece)
                ASSERT_TRUE(client->SendRaw(wire.data() + at, std::min(c.piece, wire.size() - at)));
        }
        RpcReply reply;
        ASSERT_TRUE(client->ReceiveReply(reply)) << c.cuts.size() + 1 << " fragments";
        EXPECT_EQ(xid, reply.xid);
        EXPECT_EQ(0u, reply.acceptStat);
        WriteReply w = ParseWrite(reply);
        EXPECT_EQ(NFS3_OK, w.status);
        EXPECT_EQ(1000u, w.count);
        EXPECT_EQ(data, FileBytes(100, 1000));
        // Answered once: the next reply on the stream is the NULL's.
        ASSERT_TRUE(client->Call(xid + 0x100, PROGRAM, 3, PROC_NULL, {}, reply));
        EXPECT_EQ(xid + 0x100, reply.xid);
        data = Pattern(1000, xid);
        ++xid;
    }
}

TEST_F(RecordTest, FragmentsFollowedByFurtherCallsInOneSendAreAllAnswered) {
    Bytes stream;
    for (uint32_t xid = 1; xid <= 4; ++xid) {
        Bytes message = BuildRpcCall(xid, PROGRAM, 3, PROC_GETATTR, HandleArgs(handle), LinuxCredential());
        Bytes wire = xid % 2 ? Fragments(message, {48, 90}) : WithRecordMark(message);
        stream.insert(stream.end(), wire.begin(), wire.end());
    }
    ASSERT_TRUE(client->SendRaw(stream));
    for (uint32_t xid = 1; xid <= 4; ++xid) {
        RpcReply reply;
        ASSERT_TRUE(client->ReceiveReply(reply));
        EXPECT_EQ(xid, reply.xid);
        EXPECT_EQ(NFS3_OK, reply.Results().GetUint32());
    }
}

}  // namespace
