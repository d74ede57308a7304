// The RPC dispatcher on the wire: header scan, replies, record marks,
// result codes and the retry of calls that are still arriving.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "RpcServerHarness.h"
#include "RpcTestClient.h"
#include "TestRpcProg.h"
#include "TestSupport.h"

namespace {

constexpr uint32_t NFS = 100003;
constexpr uint32_t MOUNT = 100005;
constexpr uint32_t EMPTY_SLOT = 100007;

// The test program serves as NFS (version 3, 22 procedures) and as MOUNT
// (version 3, 6 procedures); each has a TCP and a UDP socket.
class Dispatcher : public testing::Test {
protected:
    void SetUp() override {
        harness.Server().Set(NFS, &nfs);
        harness.Server().Set(MOUNT, &mount);
        std::string err;
        nfsEnd = harness.Listen(NFS, 0, 0, 10, &err);
        ASSERT_NE(nullptr, nfsEnd) << err;
        mountEnd = harness.Listen(MOUNT, 0, 0, 3, &err);
        ASSERT_NE(nullptr, mountEnd) << err;
    }

    LogRecorder& Log() { return harness.Log(); }
    bool Logged(const std::string& text) { return Log().Has(text); }

    RpcServerHarness harness;
    TestRpcProg nfs{&harness.Utilities(), 3, 22};
    TestRpcProg mount{&harness.Utilities(), 3, 6};
    RpcServerHarness::Endpoint* nfsEnd = nullptr;
    RpcServerHarness::Endpoint* mountEnd = nullptr;
};

Bytes SumArgs(uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
    XdrEncoder e;
    e.PutUint32(a).PutUint32(b).PutUint32(c).PutUint32(d);
    return e.GetBytes();
}

Bytes EchoArgs(size_t len) {
    Bytes body(len);
    for (size_t i = 0; i < len; ++i) body[i] = (uint8_t)(i + 1);
    XdrEncoder e;
    e.PutOpaque(body);
    return e.GetBytes();
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

}  // namespace

TEST_F(Dispatcher, AnswersCallsOverTcpAndUdp) {
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        bool tcp = transport == RpcTestClient::TCP;
        RpcTestClient client(transport, tcp ? nfsEnd->tcpPort : nfsEnd->udpPort);
        RpcReply reply;
        ASSERT_TRUE(client.Call(41, NFS, 3, TestRpcProg::PROC_NULL, {}, reply));
        EXPECT_EQ(1u, reply.msgType);
        EXPECT_EQ(0u, reply.replyStat);
        EXPECT_EQ(0u, reply.verfFlavor);
        EXPECT_EQ(0u, reply.verfLength);
        EXPECT_EQ(0u, reply.acceptStat);
        EXPECT_TRUE(reply.results.empty());
        EXPECT_EQ(24u, reply.message.size());
        EXPECT_EQ(tcp ? 0x80000018u : 0u, reply.recordMark);

        ASSERT_TRUE(client.Call(42, NFS, 3, TestRpcProg::PROC_SUM, SumArgs(1, 2, 3, 400), reply));
        EXPECT_EQ(0u, reply.acceptStat);
        XdrDecoder results = reply.Results();
        EXPECT_EQ(406u, results.GetUint32());
        EXPECT_EQ(0u, results.Remaining());

        ProcessParam p = nfs.LastParam();
        EXPECT_EQ(3u, p.iVersion);
        EXPECT_EQ((uint32_t)TestRpcProg::PROC_SUM, p.iProc);
        EXPECT_EQ("127.0.0.1", p.sRemoteAddr);
        EXPECT_NE(nullptr, p.pRuntimeParam);
        EXPECT_EQ("127.0.0.1", nfs.LastRuntimeID());
        EXPECT_EQ(RpcServerHarness::ALL_LOGS, nfs.LastLogControl());
    }
    EXPECT_EQ(4, nfs.Calls());
}

TEST_F(Dispatcher, ReplyHeaderIsWrittenWordByWord) {
    // xid, REPLY, MSG_ACCEPTED, the call's verifier flavor and length (its
    // body is not copied), accept status, results.
    RpcTestClient client(RpcTestClient::UDP, nfsEnd->udpPort);
    RpcAuth verf;
    verf.flavor = 1;
    verf.body = Bytes(8, 0xAB);
    ASSERT_TRUE(client.SendRaw(BuildRpcCall(0x01020304, NFS, 3, TestRpcProg::PROC_SUM, SumArgs(1, 1, 1, 1),
                                            RpcAuth::Unix(9, "machine", 10, 20, {30, 40}), verf)));
    Bytes message;
    ASSERT_TRUE(client.ReceiveMessage(message));
    ASSERT_EQ(28u, message.size());
    EXPECT_EQ(0x01020304u, WordAt(message, 0));
    EXPECT_EQ(1u, WordAt(message, 4));
    EXPECT_EQ(0u, WordAt(message, 8));
    EXPECT_EQ(1u, WordAt(message, 12));
    EXPECT_EQ(8u, WordAt(message, 16));
    EXPECT_EQ(0u, WordAt(message, 20));
    EXPECT_EQ(4u, WordAt(message, 24));
}

TEST_F(Dispatcher, SkipsGarbageBeforeACall) {
    RpcTestClient client(RpcTestClient::TCP, nfsEnd->tcpPort);
    Bytes stream = Concat({Bytes{0xEE, 0xEE, 0xEE}, WithRecordMark(BuildRpcCall(5, NFS, 3, TestRpcProg::PROC_NULL))});
    ASSERT_TRUE(client.SendRaw(stream));
    RpcReply reply;
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(5u, reply.xid);
    EXPECT_EQ(0u, reply.acceptStat);
    EXPECT_TRUE(Logged("[RpcServer.SocketReceived] Skipped 3 data for next vaild header")) << Log().Dump();
}

TEST_F(Dispatcher, CallForAnotherProgramIsNeverAnswered) {
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        Log().Clear();
        bool tcp = transport == RpcTestClient::TCP;
        RpcTestClient client(transport, tcp ? nfsEnd->tcpPort : nfsEnd->udpPort);
        ASSERT_TRUE(client.SendCall(1, 100004, 3, 1));
        ASSERT_TRUE(client.SendCall(2, NFS, 3, TestRpcProg::PROC_NULL));
        // The first reply is the second call's: the first got none.
        RpcReply reply;
        ASSERT_TRUE(client.ReceiveReply(reply));
        EXPECT_EQ(2u, reply.xid);
        EXPECT_GE(Log().Count("[RpcServer.SocketReceived] A possible valid header may be skipped, "
                              "ProcId=100004, ProcId=1"),
                  1)
            << Log().Dump();
        // On a stream the scan steps over the other call; a datagram holding
        // only such a call is dropped whole.
        EXPECT_TRUE(Logged(tcp ? "[RpcServer.SocketReceived] Skipped 44 data for next vaild header"
                               : "[RpcServer.SocketReceived] Cannot find valid header!!"))
            << Log().Dump();
    }
    EXPECT_EQ(2, nfs.Calls());
}

TEST_F(Dispatcher, ProcedurePastTheProgramsCountIsNeverDispatched) {
    RpcTestClient client(RpcTestClient::TCP, mountEnd->tcpPort);
    ASSERT_TRUE(client.SendCall(1, MOUNT, 3, 6));
    ASSERT_TRUE(client.SendCall(2, MOUNT, 2, TestRpcProg::PROC_NULL));  // wrong version
    RpcReply reply;
    ASSERT_TRUE(client.Call(3, MOUNT, 3, 5, {}, reply));
    EXPECT_EQ(0u, reply.acceptStat);
    EXPECT_EQ(1, mount.Calls());
    EXPECT_EQ(5u, mount.LastParam().iProc);
    EXPECT_TRUE(Logged("[RpcServer.SocketReceived] Skipped 88 data for next vaild header")) << Log().Dump();
}

TEST_F(Dispatcher, CallCutInItsCredentialsIsAnsweredOnceComplete) {
    RpcTestClient client(RpcTestClient::TCP, nfsEnd->tcpPort);
    Bytes call = WithRecordMark(
        BuildRpcCall(99, NFS, 3, TestRpcProg::PROC_SUM, SumArgs(10, 20, 30, 40), RpcAuth::Unix(1, "host", 0, 0)));
    // 44 bytes: the candidate is complete, but 16 of the 24 credential bytes
    // are missing. Nothing of the call runs before its whole record is here.
    ASSERT_TRUE(client.SendRaw(Bytes(call.begin(), call.begin() + 44)));
    ASSERT_TRUE(WaitUntil([&] { return Logged("[RpcServer.SocketReceived] Waiting for the rest of the record"); }))
        << Log().Dump();
    EXPECT_EQ(0, nfs.Calls());
    EXPECT_EQ(0, Log().CountContaining("Data is truncated")) << Log().Dump();

    ASSERT_TRUE(client.SendRaw(Bytes(call.begin() + 44, call.end())));
    RpcReply reply;
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(99u, reply.xid);
    EXPECT_EQ(0u, reply.acceptStat);
    EXPECT_EQ(100u, reply.Results().GetUint32());
    EXPECT_EQ(0x8000001Cu, reply.recordMark);
    EXPECT_EQ(1, nfs.Calls());
}

TEST_F(Dispatcher, CallWithAMarkNoBufferHoldsIsCutAndRetriedByTheHeaderScan) {
    // A mark announcing 2 GiB is not trusted: the call is delimited by the
    // scan alone, and one cut in its credentials is parsed again once the
    // rest is there. The program never runs on a cut header.
    RpcTestClient client(RpcTestClient::TCP, nfsEnd->tcpPort);
    Bytes call = WithRecordMark(
        BuildRpcCall(98, NFS, 3, TestRpcProg::PROC_SUM, SumArgs(1, 2, 3, 4), RpcAuth::Unix(1, "host", 0, 0)));
    call[0] = call[1] = call[2] = call[3] = 0xFF;
    ASSERT_TRUE(client.SendRaw(Bytes(call.begin(), call.begin() + 44)));
    ASSERT_TRUE(WaitUntil([&] { return Logged("[RpcServer.SocketReceived] Reset input buffer postion"); }))
        << Log().Dump();
    EXPECT_EQ(1, Log().Count("[RpcServer.Process] Data is truncated.Missing 16 data")) << Log().Dump();
    EXPECT_EQ(0, nfs.Calls());

    ASSERT_TRUE(client.SendRaw(Bytes(call.begin() + 44, call.end())));
    RpcReply reply;
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(98u, reply.xid);
    EXPECT_EQ(10u, reply.Results().GetUint32());
    EXPECT_EQ(1, nfs.Calls());
}

TEST_F(Dispatcher, CallWhoseCredentialsOverrunItsRecordIsAnsweredWithoutRunningTheProgram) {
    // Call 1 claims 1000 credential bytes in a record of 44: decoding stops
    // at the record's end, the reply goes out as built (accepted, no
    // results) and the program is not run on bytes that are not its
    // arguments. Call 2 waits behind the failed call for the next receive.
    XdrEncoder first;
    first.PutUint32(1).PutUint32(0).PutUint32(2).PutUint32(NFS).PutUint32(3).PutUint32(TestRpcProg::PROC_ECHO);
    first.PutUint32(1).PutUint32(1000).PutUint32(0x7FFFFFFF).PutUint32(0).PutUint32(0);
    Bytes stream = Concat({WithRecordMark(first.GetBytes()),
                           WithRecordMark(BuildRpcCall(2, NFS, 3, TestRpcProg::PROC_SUM, SumArgs(1, 2, 3, 4)))});
    RpcTestClient client(RpcTestClient::TCP, nfsEnd->tcpPort);
    ASSERT_TRUE(client.SendRaw(stream));

    RpcReply reply;
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(1u, reply.xid);
    EXPECT_EQ(0u, reply.acceptStat);
    EXPECT_TRUE(reply.results.empty());
    EXPECT_EQ(0x80000018u, reply.recordMark);
    EXPECT_EQ(1, Log().Count("[RpcServer.Process] Data is truncated.Missing 988 data")) << Log().Dump();
    EXPECT_FALSE(Logged("[RpcServer.SocketReceived] Reset input buffer postion"));
    EXPECT_EQ(0, nfs.Calls());

    ASSERT_TRUE(client.SendCall(3, NFS, 3, TestRpcProg::PROC_NULL));
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(2u, reply.xid);
    EXPECT_EQ(10u, reply.Results().GetUint32());
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(3u, reply.xid);
}

TEST_F(Dispatcher, RecordMarkCountsEveryByteBehindIt) {
    RpcTestClient client(RpcTestClient::TCP, nfsEnd->tcpPort);
    // 24 header bytes + 4 length + 72 body = 100 bytes behind the mark.
    RpcReply reply;
    ASSERT_TRUE(client.Call(1, NFS, 3, TestRpcProg::PROC_ECHO, EchoArgs(72), reply));
    EXPECT_EQ(0x80000064u, reply.recordMark);
    EXPECT_EQ(100u, reply.message.size());

    // 69 body bytes: the 3 padding bytes the program only stepped over are
    // sent as zeros and counted.
    ASSERT_TRUE(client.Call(2, NFS, 3, TestRpcProg::PROC_ECHO, EchoArgs(69), reply));
    EXPECT_EQ(0x80000064u, reply.recordMark);
    ASSERT_EQ(100u, reply.message.size());
    XdrDecoder results = reply.Results();
    Bytes echoed = results.GetOpaque();
    EXPECT_EQ(69u, echoed.size());
    EXPECT_EQ(69, echoed[68]);
    EXPECT_EQ(0u, results.Remaining());
    EXPECT_EQ(0, reply.message[97]);
    EXPECT_EQ(0, reply.message[98]);
    EXPECT_EQ(0, reply.message[99]);

    // The next reply on the stream starts right behind the padding.
    ASSERT_TRUE(client.Call(3, NFS, 3, TestRpcProg::PROC_NULL, {}, reply));
    EXPECT_EQ(0x80000018u, reply.recordMark);
}

TEST_F(Dispatcher, PaddedUdpReplyIsSentWhole) {
    RpcTestClient client(RpcTestClient::UDP, nfsEnd->udpPort);
    RpcReply reply;
    ASSERT_TRUE(client.Call(1, NFS, 3, TestRpcProg::PROC_ECHO, EchoArgs(5), reply));
    ASSERT_EQ(24u + 4 + 8, reply.message.size());
    XdrDecoder results = reply.Results();
    EXPECT_EQ(5u, results.GetOpaque().size());
    EXPECT_EQ(0u, results.Remaining());
}

TEST_F(Dispatcher, DatagramGetsAtMostOneReply) {
    RpcTestClient client(RpcTestClient::UDP, nfsEnd->udpPort);
    // Calls 1 and 2 in one datagram: only 1 is answered, and 2 is dropped
    // with its datagram; each later datagram gets its own call's reply.
    ASSERT_TRUE(client.SendRaw(Concat({BuildRpcCall(1, NFS, 3, 0), BuildRpcCall(2, NFS, 3, 0)})));
    RpcReply reply;
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(1u, reply.xid);
    ASSERT_TRUE(client.SendCall(3, NFS, 3, 0));
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(3u, reply.xid);
    ASSERT_TRUE(client.SendCall(4, NFS, 3, 0));
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(4u, reply.xid);
    EXPECT_EQ(3, nfs.Calls());
}

TEST_F(Dispatcher, StreamAnswersEveryCallOfOneReceiveUntilOneFails) {
    RpcTestClient client(RpcTestClient::TCP, nfsEnd->tcpPort);
    ASSERT_TRUE(client.SendRaw(Concat({WithRecordMark(BuildRpcCall(1, NFS, 3, 0)),
                                       WithRecordMark(BuildRpcCall(2, NFS, 3, 0)),
                                       WithRecordMark(BuildRpcCall(3, NFS, 3, TestRpcProg::PROC_UNAVAIL)),
                                       WithRecordMark(BuildRpcCall(4, NFS, 3, 0))})));
    RpcReply reply;
    for (uint32_t xid = 1; xid <= 3; ++xid) {
        ASSERT_TRUE(client.ReceiveReply(reply));
        EXPECT_EQ(xid, reply.xid);
    }
    EXPECT_EQ(3u, reply.acceptStat);
    // Call 4 waits behind the failed call until more bytes arrive.
    EXPECT_EQ(3, nfs.Calls());
    ASSERT_TRUE(client.SendCall(5, NFS, 3, 0));
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(4u, reply.xid);
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(5u, reply.xid);
}

TEST_F(Dispatcher, EmptySlotAnswersProgUnavail) {
    RpcServerHarness::Endpoint* e = harness.Listen(EMPTY_SLOT, 0, 0, 3);
    ASSERT_NE(nullptr, e);
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        bool tcp = transport == RpcTestClient::TCP;
        RpcTestClient client(transport, tcp ? e->tcpPort : e->udpPort);
        RpcReply reply;
        ASSERT_TRUE(client.Call(7, EMPTY_SLOT, 1, 2, SumArgs(1, 2, 3, 4), reply));
        EXPECT_EQ(0u, reply.replyStat);
        EXPECT_EQ(1u, reply.acceptStat);
        EXPECT_TRUE(reply.results.empty());
        EXPECT_EQ(tcp ? 0x80000018u : 0u, reply.recordMark);
    }
}

TEST_F(Dispatcher, FailedProcedureKeepsWhatItWroteBehindTheStatus) {
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        bool tcp = transport == RpcTestClient::TCP;
        RpcTestClient client(transport, tcp ? nfsEnd->tcpPort : nfsEnd->udpPort);
        RpcReply reply;
        ASSERT_TRUE(client.Call(1, NFS, 3, TestRpcProg::PROC_UNAVAIL, {}, reply));
        EXPECT_EQ(3u, reply.acceptStat);
        ASSERT_EQ(4u, reply.results.size());
        EXPECT_EQ(0xDEADBEEFu, WordAt(reply.results, 0));
        EXPECT_EQ(tcp ? 0x8000001Cu : 0u, reply.recordMark);

        ASSERT_TRUE(client.Call(2, NFS, 3, TestRpcProg::PROC_GARBAGE, {}, reply));
        EXPECT_EQ(4u, reply.acceptStat);
        ASSERT_EQ(4u, reply.results.size());
        EXPECT_EQ(0x0BADBAD0u, WordAt(reply.results, 0));

        ASSERT_TRUE(client.Call(3, NFS, 3, 21, {}, reply));  // within the count, not served
        EXPECT_EQ(3u, reply.acceptStat);
        EXPECT_TRUE(reply.results.empty());
    }
}

TEST_F(Dispatcher, LogsTheRequestHeaderUnderRpcLogging) {
    RpcTestClient client(RpcTestClient::TCP, nfsEnd->tcpPort);
    RpcReply reply;
    ASSERT_TRUE(client.Call(7, NFS, 3, TestRpcProg::PROC_NULL, {}, reply));
    for (const char* line : {"[RpcServer.SocketReceived] Input buf size(44) pos(0)", "[RpcServer.Process] request header",
                             " --- header=2147483688", " --- nXID=7", " --- nmsg=0", " --- nrpcvers=2",
                             " --- nprog=100003", " --- nvers=3", " --- nproc=0",
                             "[RpcServer.SocketReceived] Output buf size(28)"}) {
        EXPECT_TRUE(Logged(line)) << line << "\n" << Log().Dump();
    }
    for (const LogRecorder::Line& l : Log().Lines()) EXPECT_EQ("127.0.0.1", l.id);

    Log().Clear();
    RpcTestClient udp(RpcTestClient::UDP, nfsEnd->udpPort);
    ASSERT_TRUE(udp.Call(8, NFS, 3, TestRpcProg::PROC_NULL, {}, reply));
    EXPECT_TRUE(Logged(" --- nXID=8"));
    EXPECT_EQ(0, Log().CountContaining("--- header="));
}

TEST(DispatcherLogging, NothingIsLoggedWithoutTheBits) {
    RpcServerHarness harness(0);
    TestRpcProg prog(&harness.Utilities(), 3, 22);
    harness.Server().Set(NFS, &prog);
    RpcServerHarness::Endpoint* e = harness.Listen(NFS, 0, 0);
    ASSERT_NE(nullptr, e);
    RpcTestClient client(RpcTestClient::TCP, e->tcpPort);
    ASSERT_TRUE(client.SendRaw(Bytes{1, 2, 3}));
    RpcReply reply;
    ASSERT_TRUE(client.Call(1, NFS, 3, 0, {}, reply));
    EXPECT_TRUE(harness.Log().Lines().empty()) << harness.Log().Dump();

    // Switched on later through the dispatcher.
    harness.Server().SetLogControl(CRuntimeParam::LOG_RPC);
    ASSERT_TRUE(client.Call(2, NFS, 3, 0, {}, reply));
    EXPECT_TRUE(harness.Log().Has(" --- nXID=2"));
}

TEST_F(Dispatcher, OneMutexSerialisesAllTraffic) {
    constexpr int CLIENTS = 4;
    constexpr int CALLS = 200;
    std::vector<std::thread> threads;
    std::vector<int> answered(CLIENTS * 2, 0);
    for (int i = 0; i < CLIENTS * 2; ++i) {
        threads.emplace_back([&, i] {
            bool tcp = i % 2 == 0;
            RpcTestClient client(tcp ? RpcTestClient::TCP : RpcTestClient::UDP,
                                 tcp ? nfsEnd->tcpPort : nfsEnd->udpPort);
            RpcReply reply;
            for (int n = 0; n < CALLS; ++n) {
                uint32_t xid = (uint32_t)(i * 100000 + n);
                if (client.Call(xid, NFS, 3, TestRpcProg::PROC_EXCLUSIVE, {}, reply) && reply.acceptStat == 0)
                    ++answered[i];
            }
        });
    }
    for (auto& t : threads) t.join();
    for (int i = 0; i < CLIENTS * 2; ++i) EXPECT_EQ(CALLS, answered[i]) << "client " << i;
    EXPECT_EQ(1, nfs.MaxConcurrent());
    EXPECT_EQ(CLIENTS * 2 * CALLS, nfs.Calls());
}
