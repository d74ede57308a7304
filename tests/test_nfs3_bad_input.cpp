// Bad input to the NFS program: truncated arguments, handles of odd
// lengths, over-long names and random arguments. The server answers what
// it can, never reads outside what was received, and keeps serving.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "Nfs3TestServer.h"
#include "TestSupport.h"

using namespace nfs3wire;

namespace {

class Nfs3BadInput : public testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(server.Start(&err)) << err;
        WriteWholeFile(server.PathOf("f"), "some data");
        WriteWholeFile(server.PathOf("w"), "");
    }


    // The server still answers over both transports, with real results.
    void ExpectServing() {
        for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
            RpcReply reply;
            ASSERT_TRUE(server.Call(PROC_NULL, {}, reply, transport));
            EXPECT_EQ(0u, reply.acceptStat);
            XdrDecoder d(server.Results(PROC_GETATTR, HandleArgs(server.Handle(server.PathOf("f"))), transport));
            EXPECT_EQ(0u, d.GetUint32());
            EXPECT_EQ(9u, GetFattr3(d).size);
        }
    }

    // Valid arguments of every procedure this program serves.
    std::vector<std::pair<uint32_t, Bytes>> ValidCalls() {
        Bytes root = server.Handle(server.Root());
        Bytes file = server.Handle(server.PathOf("f"));
        XdrEncoder readdir, readdirplus;
        readdir.PutOpaque(root).PutUint64(0).PutUint64(0).PutUint32(4096);
        readdirplus.PutOpaque(root).PutUint64(0).PutUint64(0).PutUint32(4096).PutUint32(8192);
        return {
            {PROC_GETATTR, HandleArgs(file)},
            {PROC_SETATTR, Join({HandleArgs(file), Words({1, 0644, 0, 0, 0, 0, 0, 1, 0, 0})})},
            {PROC_LOOKUP, DirOpArgs(root, "f")},
            {PROC_ACCESS, Join({HandleArgs(file), Words({0x3F})})},
            {PROC_READLINK, HandleArgs(file)},
            {PROC_READDIR, readdir.GetBytes()},
            {PROC_READDIRPLUS, readdirplus.GetBytes()},
            {PROC_FSSTAT, HandleArgs(root)},
            {PROC_FSINFO, HandleArgs(root)},
            {PROC_PATHCONF, HandleArgs(root)},
            // The data and namespace procedures, with arguments whose answers
            // stay the same once repeated.
            {PROC_READ, ReadArgs(file, 0, 100)},
            {PROC_WRITE, WriteArgs(server.Handle(server.PathOf("w")), 0, 5, "hello")},
            {PROC_CREATE, Join({DirOpArgs(root, "c"), Words({0, 0, 0, 0, 0, 0, 0})})},
            {PROC_MKDIR, Join({DirOpArgs(root, "m"), Words({1, 0755, 0, 0, 0, 0, 0})})},
            {PROC_SYMLINK, Join({DirOpArgs(root, "s"), Words({0, 0, 0, 0, 0, 0}), Words({1}), Bytes{'f', 0, 0, 0}})},
            {PROC_MKNOD, Join({DirOpArgs(root, "n"), Words({7, 0, 0, 0, 0, 0, 0})})},
            {PROC_REMOVE, DirOpArgs(root, "missing")},
            {PROC_RMDIR, DirOpArgs(root, "missing")},
            {PROC_RENAME, Join({DirOpArgs(root, "missing"), DirOpArgs(root, "b")})},
            {PROC_LINK, Join({HandleArgs(file), DirOpArgs(root, "l")})},
            {PROC_COMMIT, ReadArgs(file, 0, 0)},
        };
    }

    Nfs3TestServer server;
};

Bytes Prefix(const Bytes& bytes, size_t n) { return Bytes(bytes.begin(), bytes.begin() + (long)n); }

}  // namespace

TEST_F(Nfs3BadInput, HandlesTooShortForTheVerifierAreStaleWhateverFollows) {
    Bytes file = server.Handle(server.PathOf("f"));
    Bytes root = server.Handle(server.Root());
    // The words after an empty handle hold a valid ID and verifier: they are
    // not taken for them.
    EXPECT_EQ(Words({70}), server.Results(PROC_GETATTR, Words({0})));
    EXPECT_EQ(Words({70, 0}),
              server.Results(PROC_ACCESS, Join({Words({0}), Bytes(root.begin(), root.begin() + 12)})));
    EXPECT_EQ(Words({70}), server.Results(PROC_GETATTR, HandleArgs(Prefix(file, 3))));
    EXPECT_EQ(Words({70}), server.Results(PROC_GETATTR, HandleArgs(Prefix(file, 11))));
    XdrEncoder lookup;
    lookup.PutOpaque(nullptr, 0).PutString("f");
    EXPECT_EQ(Words({70, 0}), server.Results(PROC_LOOKUP, lookup.GetBytes()));
}

TEST_F(Nfs3BadInput, HandlesOfTwelveAndSixtyFourBytesAreTakenByTheirIdAndVerifier) {
    Bytes file = server.Handle(server.PathOf("f"));
    Bytes longer = file;
    longer.insert(longer.end(), 8, 0xAB);  // 64 bytes
    Fattr3 expected = ExpectedFattr3(server.PathOf("f"));
    for (const Bytes& handle : {Prefix(file, 12), longer}) {
        for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
            XdrDecoder d(server.Results(PROC_GETATTR, HandleArgs(handle), transport));
            ASSERT_EQ(0u, d.GetUint32()) << handle.size();
            EXPECT_EQ(expected.fileid, GetFattr3(d).fileid);
            EXPECT_EQ(0u, d.Remaining());
        }
        // The arguments behind the handle are read in step.
        XdrDecoder access(server.Results(PROC_ACCESS, Join({HandleArgs(handle), Words({0x21})})));
        ASSERT_EQ(0u, access.GetUint32());
        ASSERT_TRUE(GetPostOpAttr(access));
        EXPECT_EQ(0x21u, access.GetUint32());
    }
    Bytes root = server.Handle(server.Root());
    XdrDecoder d(server.Results(PROC_LOOKUP, DirOpArgs(Prefix(root, 12), "f")));
    ASSERT_EQ(0u, d.GetUint32());
    EXPECT_EQ(file, d.GetOpaque());
    ExpectServing();
}

TEST_F(Nfs3BadInput, LongNamesAreReadInStepAndAnswerNameTooLong) {
    Bytes root = server.Handle(server.Root());
    // Over 255 bytes, whatever the length: never the folder itself.
    for (size_t length : {256, 4095, 4096, 70000}) {
        EXPECT_EQ(Words({63, 0}), server.Results(PROC_LOOKUP, DirOpArgs(root, std::string(length, 'n')))) << length;
        if (length < 60000) {
            EXPECT_EQ(Words({63, 0}),
                      server.Results(PROC_LOOKUP, DirOpArgs(root, std::string(length, 'n')), RpcTestClient::UDP))
                << length;
        }
    }
    // A name of 255 bytes that does not exist.
    EXPECT_EQ(Words({2, 0}), server.Results(PROC_LOOKUP, DirOpArgs(root, std::string(255, 'n'))));
    ExpectServing();
}

TEST_F(Nfs3BadInput, EveryProcedureArrivingByteByByteIsAnsweredAsIfWhole) {
    RpcTestClient& client = server.Client(RpcTestClient::TCP);
    int one = 1;
    ASSERT_EQ(0, setsockopt(client.Fd(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one));
    const std::string truncated = "[Nfs3Prog.Process] Data is truncated.Missing";
    const std::string noHeader = "[RpcServer.SocketReceived] Cannot find valid header!!";
    const std::string waiting = "[RpcServer.SocketReceived] Waiting for the rest of the record";
    uint32_t xid = 0x9000;
    for (const auto& call : ValidCalls()) {
        // Twice whole first, so that access times and new IDs have settled.
        RpcReply whole;
        ASSERT_TRUE(client.Call(++xid, PROGRAM, 3, call.first, call.second, whole));
        ASSERT_TRUE(client.Call(++xid, PROGRAM, 3, call.first, call.second, whole));
        Bytes record = WithRecordMark(BuildRpcCall(++xid, PROGRAM, 3, call.first, call.second));
        // Every byte is looked at before the next is sent: short of the
        // call header nothing is found, short of the record nothing runs.
        int truncatedBefore = server.Log().CountContaining(truncated);
        int waitingBefore = server.Log().Count(waiting);
        for (size_t i = 0; i + 1 < record.size(); ++i) {
            int seen = server.Log().Count(waiting) + server.Log().Count(noHeader);
            ASSERT_TRUE(client.SendRaw(&record[i], 1));
            ASSERT_TRUE(WaitUntil([&] { return server.Log().Count(waiting) + server.Log().Count(noHeader) > seen; }))
                << call.first << " at byte " << i;
        }
        ASSERT_TRUE(client.SendRaw(&record.back(), 1));
        RpcReply pieces;
        ASSERT_TRUE(client.ReceiveReply(pieces));
        EXPECT_EQ(xid, pieces.xid);
        EXPECT_EQ(0u, pieces.acceptStat);
        if (call.first == PROC_FSSTAT) {
            // The free space figures are live: the rest must match.
            ASSERT_EQ(whole.results.size(), pieces.results.size());
            EXPECT_EQ(Prefix(whole.results, 4 + 88), Prefix(pieces.results, 4 + 88));
        } else {
            EXPECT_EQ(whole.results, pieces.results) << call.first;
        }
        // 44 bytes of record mark and call header, then one wait per byte;
        // the call never ran cut.
        EXPECT_EQ((int)record.size() - 44, server.Log().Count(waiting) - waitingBefore) << call.first;
        EXPECT_EQ(truncatedBefore, server.Log().CountContaining(truncated)) << call.first;
    }
    ExpectServing();
}

TEST_F(Nfs3BadInput, CallsCutAtEveryPointAndAbandonedLeaveTheServerServing) {
    for (const auto& call : ValidCalls()) {
        for (size_t cut = 0; cut < call.second.size(); cut += 3) {
            int before = server.Log().CountContaining("[Nfs3Prog.Process] Data is truncated.Missing");
            {
                RpcTestClient client(RpcTestClient::TCP, server.TcpPort());
                ASSERT_TRUE(client.IsOpen());
                ASSERT_TRUE(client.SendMessage(BuildRpcCall(1, PROGRAM, 3, call.first, Prefix(call.second, cut))));
                ASSERT_TRUE(WaitUntil([&] {
                    return server.Log().CountContaining("[Nfs3Prog.Process] Data is truncated.Missing") > before;
                })) << call.first << " cut at " << cut;
            }
            ASSERT_TRUE(server.WaitForConnections(0));
        }
    }
    ExpectServing();
}

TEST_F(Nfs3BadInput, HandleLengthNearFourGigabytesIsTruncationNotAnOverrun) {
    RpcTestClient& client = server.Client(RpcTestClient::TCP);
    Bytes getattr = WithRecordMark(BuildRpcCall(0xA1, PROGRAM, 3, PROC_GETATTR, Words({0xFFFFFFFF})));
    Bytes null1 = WithRecordMark(BuildRpcCall(0xA2, PROGRAM, 3, PROC_NULL));
    ASSERT_TRUE(client.SendRaw(Join({getattr, null1})));
    RpcReply reply;
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(0xA1u, reply.xid);
    EXPECT_EQ(0u, reply.acceptStat);
    EXPECT_TRUE(reply.results.empty());
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.Process] Data is truncated.Missing 4294967295 data"));
    ASSERT_TRUE(client.SendMessage(BuildRpcCall(0xA3, PROGRAM, 3, PROC_NULL)));
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(0xA2u, reply.xid);
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(0xA3u, reply.xid);
}

TEST_F(Nfs3BadInput, RandomArgumentsOfEveryProcedure) {
    std::mt19937 random(20240611);
    std::vector<std::pair<uint32_t, Bytes>> valid = ValidCalls();
    for (int sample = 0; sample < 300; ++sample) {
        uint32_t proc = random() % 23;
        Bytes args;
        switch (sample % 3) {
            case 0: {  // random bytes
                args.resize(random() % 160);
                for (uint8_t& b : args) b = (uint8_t)random();
                break;
            }
            case 1: {  // valid arguments with some bytes changed
                const auto& call = valid[random() % valid.size()];
                proc = call.first;
                args = call.second;
                for (int i = 0; i < 3; ++i) args[random() % args.size()] = (uint8_t)random();
                break;
            }
            default: {  // small words, likely lengths and flags
                for (int i = random() % 40; i > 0; --i) {
                    uint32_t w = random() % 8 == 0 ? (uint32_t)random() : random() % 70;
                    Bytes word = Words({w});
                    args.insert(args.end(), word.begin(), word.end());
                }
            }
        }
        int processed = server.Log().Count("[Nfs3Prog.Process]");
        int unavailable = server.Log().Count("[Nfs3Prog.ProcedureNOIMP]");
        {
            RpcTestClient client(RpcTestClient::TCP, server.TcpPort());
            ASSERT_TRUE(client.IsOpen());
            ASSERT_TRUE(client.SendMessage(BuildRpcCall(7, PROGRAM, 3, proc, args)));
            // Procedure 22 and above never reach the program once it knows its count.
            if (proc < 22) {
                ASSERT_TRUE(WaitUntil([&] {
                    return server.Log().Count("[Nfs3Prog.Process]") > processed ||
                           server.Log().Count("[Nfs3Prog.ProcedureNOIMP]") > unavailable;
                })) << sample;
            }
        }
        ASSERT_TRUE(server.WaitForConnections(0)) << sample;
    }
    ExpectServing();
}
