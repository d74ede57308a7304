// The MOUNT program on the wire: NULL, MNT in its version 1 and version 3
// reply forms, UMNT, the unimplemented procedures, and what each logs. The
// program is served by a dispatcher on ephemeral TCP and UDP ports.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "FileTable.h"
#include "InputStream.h"
#include "MountProg.h"
#include "OutputStream.h"
#include "RpcServerHarness.h"
#include "RpcTestClient.h"
#include "TestSupport.h"

namespace {

constexpr uint32_t MOUNT = 100005;
constexpr uint32_t NULLPROC = 0;
constexpr uint32_t MNT = 1;
constexpr uint32_t UMNT = 3;
constexpr uint32_t SUCCESS = 0;
constexpr uint32_t PROC_UNAVAIL = 3;

Bytes PathArgs(const std::string& path) {
    XdrEncoder e;
    e.PutString(path);
    return e.GetBytes();
}

Bytes Word(uint32_t v) {
    XdrEncoder e;
    e.PutUint32(v);
    return e.GetBytes();
}

class MountProgram : public testing::Test {
protected:
    void SetUp() override {
        prog.reset(new CMountProg(&harness.Utilities()));
        harness.Server().Set(MOUNT, prog.get());
        std::string why;
        endpoint = harness.Listen(MOUNT, 0, 0, 3, &why);
        ASSERT_NE(nullptr, endpoint) << why;
        char err[ERROR_TEXT_SIZE] = "";
        ASSERT_TRUE(harness.Utilities().AddMountInfo(&harness.Runtime(), nullptr, exported.Path().c_str(), "demo",
                                                     "", err))
            << err;
        harness.Log().Clear();
    }
    void TearDown() override { harness.Close(); }

    uint16_t Port(RpcTestClient::Transport t) const { return t == RpcTestClient::TCP ? endpoint->tcpPort : endpoint->udpPort; }

    RpcReply Call(RpcTestClient::Transport t, uint32_t vers, uint32_t proc, const Bytes& args) {
        RpcTestClient client(t, Port(t));
        RpcReply reply;
        EXPECT_TRUE(client.IsOpen());
        EXPECT_TRUE(client.Call(++xid, MOUNT, vers, proc, args, reply));
        EXPECT_EQ(0u, reply.replyStat);
        return reply;
    }

    // The root handle of the export as the file service hands it out: the
    // file ID in the host's byte order, the verifier, then zeros.
    Bytes RootHandle(size_t size) {
        unsigned int id = harness.Utilities().GetFileID(&harness.Runtime(), nullptr, exported.Path().c_str());
        Bytes handle = HandleOfId(harness.Utilities(), id);
        handle.resize(size);
        return handle;
    }

    bool MountedBy(const char* addr) { return harness.Utilities().IsRemoteAddrExists(addr); }

    TempDir exported;
    RpcServerHarness harness;
    std::unique_ptr<CMountProg> prog;
    RpcServerHarness::Endpoint* endpoint = nullptr;
    uint32_t xid = 100;
};

}  // namespace

TEST_F(MountProgram, NullAnswersAnEmptySuccess) {
    for (auto t : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        RpcReply reply = Call(t, 3, NULLPROC, {});
        EXPECT_EQ(SUCCESS, reply.acceptStat);
        EXPECT_TRUE(reply.results.empty());
    }
    EXPECT_EQ(2, harness.Log().Count("[MountProg.Process]")) << harness.Log().Dump();
    EXPECT_EQ(2, harness.Log().Count("[MountProg.ProcedureNULL]"));
}

TEST_F(MountProgram, MntVersion3ReplyIsStatusLengthHandleAndNoFlavors) {
    RpcTestClient client(RpcTestClient::TCP, endpoint->tcpPort);
    Bytes message;
    uint32_t mark = 0;
    ASSERT_TRUE(client.SendCall(0x01020304, MOUNT, 3, MNT, PathArgs("demo")));
    ASSERT_TRUE(client.ReceiveMessage(message, &mark));

    // The whole reply, byte for byte: header, accept status, then 68 bytes.
    XdrEncoder expected;
    expected.PutUint32(0x01020304).PutUint32(1).PutUint32(0).PutUint32(0).PutUint32(0).PutUint32(SUCCESS);
    expected.PutUint32(0).PutUint32(56).PutRaw(RootHandle(56)).PutUint32(0);
    EXPECT_EQ(expected.GetBytes(), message);
    EXPECT_EQ(0x80000000u | 92u, mark);
    RpcReply reply;
    ASSERT_TRUE(ParseRpcReply(message, reply));
    EXPECT_EQ(68u, reply.results.size());

    EXPECT_TRUE(MountedBy("127.0.0.1"));
    EXPECT_EQ(1, harness.Utilities().GetMountInfo(&harness.Runtime(), true, false));
    EXPECT_TRUE(harness.Log().Has("[MountProg.ProcedureMNT] Mount OK")) << harness.Log().Dump();
}

TEST_F(MountProgram, MntVersion1ReplyIsStatusAndA32ByteHandle) {
    for (auto t : {RpcTestClient::UDP, RpcTestClient::TCP}) {
        RpcReply reply = Call(t, 1, MNT, PathArgs("demo"));
        EXPECT_EQ(SUCCESS, reply.acceptStat);
        XdrEncoder expected;
        expected.PutUint32(0).PutRaw(RootHandle(32));
        EXPECT_EQ(expected.GetBytes(), reply.results);
        EXPECT_EQ(36u, reply.results.size());
        Call(t, 1, UMNT, PathArgs("demo"));
    }
}

TEST_F(MountProgram, EveryVersionOtherThan1GetsTheVersion3Form) {
    for (uint32_t vers : {2u, 3u, 4u, 0u}) {
        RpcReply reply = Call(RpcTestClient::UDP, vers, MNT, PathArgs("demo"));
        EXPECT_EQ(SUCCESS, reply.acceptStat) << vers;
        XdrEncoder expected;
        expected.PutUint32(0).PutUint32(56).PutRaw(RootHandle(56)).PutUint32(0);
        EXPECT_EQ(expected.GetBytes(), reply.results) << vers;
        Call(RpcTestClient::UDP, vers, UMNT, PathArgs("demo"));
    }
}

TEST_F(MountProgram, MntOfAnUnknownExportIsAccessDeniedWithTheFileServiceText) {
    for (auto t : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        RpcReply reply = Call(t, 3, MNT, PathArgs("nope"));
        EXPECT_EQ(SUCCESS, reply.acceptStat);
        EXPECT_EQ(Word(13), reply.results);
    }
    EXPECT_EQ(2, harness.Log().Count("[MountProg.ProcedureMNT] Mount FAIL"));
    std::vector<std::string> errors = harness.Log().Texts("error");
    ASSERT_EQ(2u, errors.size()) << harness.Log().Dump();
    EXPECT_EQ("[MountProg.ProcedureMNT] Undefined export name \"nope\"", errors[0]);
    EXPECT_FALSE(MountedBy("127.0.0.1"));
}

TEST_F(MountProgram, MntWithAnEmptyPathIsAccessDenied) {
    RpcReply reply = Call(RpcTestClient::TCP, 3, MNT, PathArgs(""));
    EXPECT_EQ(SUCCESS, reply.acceptStat);
    EXPECT_EQ(Word(13), reply.results);
    // Written as an info line, under the error bit.
    std::vector<std::string> info = harness.Log().Texts("info");
    EXPECT_EQ(1, harness.Log().Count("[MountProg.ProcedureMNT] Fail to read export name")) << harness.Log().Dump();
    EXPECT_NE(std::find(info.begin(), info.end(), "[MountProg.ProcedureMNT] Fail to read export name"), info.end());
    EXPECT_TRUE(harness.Log().Texts("error").empty());
}

TEST_F(MountProgram, MntWithTheExportPathInsteadOfItsNameIsAccessDenied) {
    RpcReply reply = Call(RpcTestClient::TCP, 3, MNT, PathArgs("/demo"));
    EXPECT_EQ(Word(13), reply.results);
    reply = Call(RpcTestClient::TCP, 3, MNT, PathArgs(exported.Path()));
    EXPECT_EQ(Word(13), reply.results);
    EXPECT_FALSE(MountedBy("127.0.0.1"));
}

TEST_F(MountProgram, PathOf4096BytesIsRefusedAfterReadingItsLengthOnly) {
    RpcTestClient client(RpcTestClient::TCP, endpoint->tcpPort);
    RpcReply reply;
    ASSERT_TRUE(client.Call(1, MOUNT, 3, MNT, PathArgs(std::string(4096, 'a')), reply));
    EXPECT_EQ(Word(13), reply.results);
    EXPECT_TRUE(harness.Log().Has("[MountProg.ProcedureMNT] Fail to read export name")) << harness.Log().Dump();
    // The unread path stays in the stream; the next call is still found and answered.
    ASSERT_TRUE(client.Call(2, MOUNT, 3, NULLPROC, {}, reply));
    EXPECT_EQ(SUCCESS, reply.acceptStat);

    // One byte less is read as a name (which no export has); the log line
    // is cut to the log buffer.
    ASSERT_TRUE(client.Call(3, MOUNT, 3, MNT, PathArgs(std::string(4095, 'a')), reply));
    EXPECT_EQ(Word(13), reply.results);
    EXPECT_EQ(1, harness.Log().CountContaining("[MountProg.ProcedureMNT] Undefined export name \"aaaa"));
}

TEST_F(MountProgram, ASecondMntIsRefusedUntilTheClientUnmounts) {
    RpcReply reply = Call(RpcTestClient::TCP, 3, MNT, PathArgs("demo"));
    EXPECT_EQ(0u, WordAt(reply.results, 0));
    reply = Call(RpcTestClient::TCP, 3, MNT, PathArgs("demo"));
    EXPECT_EQ(Word(13), reply.results);
    EXPECT_TRUE(harness.Log().Has("[MountProg.ProcedureMNT] This mount point \"demo\" already mounted by 127.0.0.1"))
        << harness.Log().Dump();

    reply = Call(RpcTestClient::UDP, 3, UMNT, PathArgs("demo"));
    EXPECT_EQ(SUCCESS, reply.acceptStat);
    EXPECT_TRUE(reply.results.empty());
    EXPECT_TRUE(harness.Log().Has("[MountProg.ProcedureUMNT] Umount OK"));
    EXPECT_FALSE(MountedBy("127.0.0.1"));

    reply = Call(RpcTestClient::TCP, 3, MNT, PathArgs("demo"));
    EXPECT_EQ(0u, WordAt(reply.results, 0));
    EXPECT_TRUE(MountedBy("127.0.0.1"));
}

TEST_F(MountProgram, UmntOfAnExportNeverMountedStillAnswersAnEmptySuccess) {
    for (const char* name : {"demo", "unknown"}) {
        RpcReply reply = Call(RpcTestClient::TCP, 3, UMNT, PathArgs(name));
        EXPECT_EQ(SUCCESS, reply.acceptStat) << name;
        EXPECT_TRUE(reply.results.empty()) << name;
    }
    EXPECT_EQ(2, harness.Log().Count("[MountProg.ProcedureUMNT] Umount OK"));
    EXPECT_EQ(1, harness.Utilities().GetMountInfo(&harness.Runtime(), false, false));
    EXPECT_EQ(0, harness.Utilities().GetMountInfo(&harness.Runtime(), true, false));
}

TEST_F(MountProgram, UmntWithAPathTooLongFailsButStillAnswersAnEmptySuccess) {
    Call(RpcTestClient::TCP, 3, MNT, PathArgs("demo"));
    RpcReply reply = Call(RpcTestClient::TCP, 3, UMNT, PathArgs(std::string(5000, 'b')));
    EXPECT_EQ(SUCCESS, reply.acceptStat);
    EXPECT_TRUE(reply.results.empty());
    EXPECT_TRUE(harness.Log().Has("[MountProg.ProcedureUMNT] Umount FAIL")) << harness.Log().Dump();
    EXPECT_TRUE(MountedBy("127.0.0.1"));
}

TEST_F(MountProgram, DumpUmntallAndExportAreProcUnavail) {
    for (auto t : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        for (uint32_t proc : {2u, 4u, 5u}) {
            RpcReply reply = Call(t, 3, proc, {});
            EXPECT_EQ(PROC_UNAVAIL, reply.acceptStat) << proc;
            EXPECT_TRUE(reply.results.empty()) << proc;
        }
    }
    EXPECT_EQ(6, harness.Log().Count("[MountProg.ProcedureNOIMP]")) << harness.Log().Dump();
}

TEST_F(MountProgram, ProcedureSixNeverReachesTheProgram) {
    RpcTestClient client(RpcTestClient::TCP, endpoint->tcpPort);
    ASSERT_TRUE(client.SendCall(1, MOUNT, 3, 6, PathArgs("demo")));
    RpcReply reply;
    ASSERT_TRUE(client.Call(2, MOUNT, 3, NULLPROC, {}, reply));  // the first answer is the NULL's
    EXPECT_EQ(SUCCESS, reply.acceptStat);
    EXPECT_EQ(1, harness.Log().Count("[MountProg.Process]")) << harness.Log().Dump();
    EXPECT_EQ(0, harness.Log().Count("[MountProg.ProcedureNOIMP]"));
}

TEST_F(MountProgram, MntCutInItsPathIsAnsweredOnceComplete) {
    RpcTestClient client(RpcTestClient::TCP, endpoint->tcpPort);
    Bytes call = WithRecordMark(BuildRpcCall(9, MOUNT, 3, MNT, PathArgs("demo")));
    ASSERT_TRUE(client.SendRaw(Bytes(call.begin(), call.end() - 4)));
    // Nothing of the call runs before its whole record is here.
    ASSERT_TRUE(WaitUntil([&] { return harness.Log().Has("[RpcServer.SocketReceived] Waiting for the rest of the record"); }))
        << harness.Log().Dump();
    EXPECT_EQ(0, harness.Log().CountContaining("Data is truncated")) << harness.Log().Dump();
    EXPECT_FALSE(MountedBy("127.0.0.1"));
    ASSERT_TRUE(client.SendRaw(Bytes(call.end() - 4, call.end())));
    RpcReply reply;
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(9u, reply.xid);
    EXPECT_EQ(68u, reply.results.size());
    EXPECT_EQ(0u, WordAt(reply.results, 0));
    EXPECT_TRUE(MountedBy("127.0.0.1"));
}

TEST_F(MountProgram, ArgumentLinesNameTheCallerVersionAndPath) {
    harness.Server().SetLogControl(CRuntimeParam::LOG_PROC_FUNC_ARGU);
    Call(RpcTestClient::TCP, 3, MNT, PathArgs("demo"));
    Call(RpcTestClient::UDP, 1, UMNT, PathArgs("demo"));
    std::vector<std::string> expected = {
        "[MountProg.ProcedureMNT] From 127.0.0.1, NFS Protocol Version=3",
        "[MountProg.ProcedureMNT] Read path = demo",
        "[MountProg.ProcedureUMNT] From 127.0.0.1",
        "[MountProg.ProcedureUMNT] Read path = demo",
    };
    EXPECT_EQ(expected, harness.Log().Texts("info")) << harness.Log().Dump();
    EXPECT_EQ(4u, harness.Log().Lines().size());
}

TEST_F(MountProgram, EveryLineIsGatedByItsBit) {
    harness.Server().SetLogControl(0);
    Call(RpcTestClient::TCP, 3, MNT, PathArgs("demo"));
    Call(RpcTestClient::TCP, 3, MNT, PathArgs("nope"));
    Call(RpcTestClient::TCP, 3, MNT, PathArgs(""));
    Call(RpcTestClient::TCP, 3, UMNT, PathArgs("demo"));
    Call(RpcTestClient::TCP, 3, 5, {});
    EXPECT_TRUE(harness.Log().Lines().empty()) << harness.Log().Dump();

    // Errors only: the failures' reasons, not the outcome lines.
    harness.Server().SetLogControl(CRuntimeParam::LOG_ERROR);
    Call(RpcTestClient::TCP, 3, MNT, PathArgs("nope"));
    Call(RpcTestClient::TCP, 3, MNT, PathArgs(""));
    std::vector<LogRecorder::Line> expected = {
        {"error", "", "[MountProg.ProcedureMNT] Undefined export name \"nope\""},
        {"info", "", "[MountProg.ProcedureMNT] Fail to read export name"},
    };
    EXPECT_EQ(expected, harness.Log().Lines()) << harness.Log().Dump();

    // General info only: the outcome lines.
    harness.Log().Clear();
    harness.Server().SetLogControl(CRuntimeParam::LOG_GENERAL_INFO);
    Call(RpcTestClient::TCP, 3, MNT, PathArgs("nope"));
    Call(RpcTestClient::TCP, 3, MNT, PathArgs("demo"));
    Call(RpcTestClient::TCP, 3, UMNT, PathArgs("demo"));
    for (const char* line : {"[MountProg.ProcedureMNT] Mount FAIL", "[MountProg.ProcedureMNT] Mount OK",
                             "[MountProg.ProcedureUMNT] Umount OK"})
        EXPECT_EQ(1, harness.Log().Count(line)) << line << "\n" << harness.Log().Dump();
    EXPECT_EQ(0, harness.Log().CountContaining("Undefined export name"));
}

TEST(MountProgramAlone, WithoutAFileServiceEveryProcedureIsUnavailable) {
    CMountProg prog(nullptr);
    CInputStream in;
    COutputStream out;
    CRuntimeParam rp("id", 0x3FF);
    ProcessParam param;
    param.iVersion = 3;
    param.sRemoteAddr = "10.0.0.1";
    param.pRuntimeParam = &rp;
    for (uint32_t proc : {0u, 1u, 3u, 6u}) {
        param.iProc = proc;
        EXPECT_EQ(CRpcProg::RESULT_PROC_UNAVAIL, prog.Process(&in, &out, &param)) << proc;
    }
    EXPECT_EQ(0u, out.GetBufferSize());
    EXPECT_EQ(6u, prog.GetMaxSupportProc());
    EXPECT_EQ(CRpcProg::ANY, prog.GetVersion());
}

namespace {

// A MOUNT program called directly with a prepared input stream.
class MountProgramDirect : public testing::Test {
protected:
    void SetUp() override {
        utilities.SetCallback(&log);
        char err[ERROR_TEXT_SIZE] = "";
        ASSERT_TRUE(utilities.AddMountInfo(&rp, nullptr, exported.Path().c_str(), "demo", "", err)) << err;
        param.iVersion = 3;
        param.iProc = 1;
        param.pRuntimeParam = &rp;
    }
    void Feed(const Bytes& bytes) {
        memcpy(in.GetFreeBuffer(), bytes.data(), bytes.size());
        in.AddFilledBufferSize((uint32_t)bytes.size());
    }
    Bytes Output() { return Bytes(out.GetBuffer(), out.GetBuffer() + out.GetBufferSize()); }

    TempDir exported;
    LogRecorder log;
    CUtilities utilities;
    CRuntimeParam rp{"id", 0x3FF};
    CMountProg prog{&utilities};
    CInputStream in;
    COutputStream out;
    ProcessParam param;
};

}  // namespace

TEST_F(MountProgramDirect, MntWithoutTheCallerAddressIsRefused) {
    Feed(PathArgs("demo"));
    param.sRemoteAddr = "";
    EXPECT_EQ(CRpcProg::RESULT_DONE, prog.Process(&in, &out, &param));
    EXPECT_EQ(Word(13), Output());
    EXPECT_TRUE(log.Has("[MountProg.ProcedureMNT] Fail to get remote address")) << log.Dump();
    EXPECT_TRUE(log.Has("[MountProg.ProcedureMNT] Mount FAIL"));
    EXPECT_EQ(0, utilities.GetMountInfo(&rp, true, false));
}

TEST_F(MountProgramDirect, MntRecordsTheCallerAddress) {
    Feed(PathArgs("demo"));
    param.sRemoteAddr = "192.0.2.7";
    EXPECT_EQ(CRpcProg::RESULT_DONE, prog.Process(&in, &out, &param));
    EXPECT_EQ(68u, Output().size());
    EXPECT_TRUE(utilities.IsRemoteAddrExists("192.0.2.7"));
}

TEST_F(MountProgramDirect, ATruncatedCallIsResultThree) {
    Feed({0, 0, 0, 9, 'd', 'e'});  // 9 bytes announced, 2 there
    param.sRemoteAddr = "192.0.2.7";
    EXPECT_EQ(CRpcProg::RESULT_TRUNCATED, prog.Process(&in, &out, &param));
    EXPECT_TRUE(log.Has("[MountProg.Process] Data is truncated.Missing 7 data")) << log.Dump();
    EXPECT_EQ(0, utilities.GetMountInfo(&rp, true, false));
}

TEST_F(MountProgramDirect, ReadPathTakesTheStringAndItsPadding) {
    LogArgu la{"Caller.Name"};
    COpaquePath path;
    Feed(PathArgs("abcde"));
    Feed(Word(7));
    EXPECT_TRUE(prog.ReadPath(&rp, &la, &in, &path));
    EXPECT_STREQ("abcde", path.sPath);
    EXPECT_EQ(12u, in.GetBufferIndex());  // length, 5 bytes, 3 of padding
    EXPECT_TRUE(log.Has("[Caller.Name] Read path = abcde")) << log.Dump();
    EXPECT_FALSE(prog.ReadPath(&rp, &la, &in, nullptr));
    EXPECT_EQ(12u, in.GetBufferIndex());
}

TEST_F(MountProgramDirect, ReadPathRefuses4096BytesAfterTheLength) {
    LogArgu la{"Caller.Name"};
    COpaquePath path;
    snprintf(path.sPath, sizeof path.sPath, "before");
    Feed(PathArgs(std::string(4096, 'x')));
    EXPECT_FALSE(prog.ReadPath(&rp, &la, &in, &path));
    EXPECT_EQ(4u, in.GetBufferIndex());
    EXPECT_STREQ("before", path.sPath);
}
