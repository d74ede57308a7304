// The NFS program's front: version and procedure routing, the lazily made
// version 3 handler, truncated calls, and the NFSv3 XDR readers and writers,
// mode conversion and path helpers that every handler shares.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "DataTruncatedExpt.h"
#include "InputStream.h"
#include "Nfs3Prog.h"
#include "Nfs3TestServer.h"
#include "NfsProg.h"
#include "OutputStream.h"
#include "RpcServerHarness.h"
#include "TestSupport.h"
#include "Utilities.h"

using namespace nfs3wire;

namespace {

constexpr uint32_t PROC_UNAVAIL = 3;

class Nfs3Front : public testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(server.Start(&err)) << err;
    }
    Nfs3TestServer server;
};

void Fill(CInputStream& in, const Bytes& bytes) {
    memcpy(in.GetFreeBuffer(), bytes.data(), bytes.size());
    in.AddFilledBufferSize((uint32_t)bytes.size());
}

Bytes Written(COutputStream& out) { return Bytes(out.GetBuffer(), out.GetBuffer() + out.GetBufferSize()); }

}  // namespace

// ---- routing ------------------------------------------------------------------------

TEST_F(Nfs3Front, VersionTwoCallAnswersProcUnavail) {
    // Before the first version 3 call the program accepts every version.
    EXPECT_EQ(CRpcProg::ANY, server.Program().GetVersion());
    EXPECT_EQ(CRpcProg::ANY, server.Program().GetMaxSupportProc());
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        RpcReply reply;
        ASSERT_TRUE(server.Call(PROC_GETATTR, HandleArgs(server.Handle(server.Root())), reply, transport, 2));
        EXPECT_EQ(0u, reply.replyStat);
        EXPECT_EQ(PROC_UNAVAIL, reply.acceptStat);
        EXPECT_TRUE(reply.results.empty());
    }
    EXPECT_EQ(nullptr, server.Program().GetNfs3Prog());
}

TEST_F(Nfs3Front, Procedure22AnswersProcUnavail) {
    RpcReply reply;
    ASSERT_TRUE(server.Call(22, {}, reply));
    EXPECT_EQ(PROC_UNAVAIL, reply.acceptStat);
    EXPECT_TRUE(reply.results.empty());
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.Process]"));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureNOIMP]"));
    // The handler now exists and speaks for the program.
    ASSERT_NE(nullptr, server.Program().GetNfs3Prog());
    EXPECT_EQ(3u, server.Program().GetVersion());
    EXPECT_EQ(22u, server.Program().GetMaxSupportProc());
}

TEST_F(Nfs3Front, NullAnswersWithAnEmptyBodyOverTcpAndUdp) {
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        RpcReply reply;
        ASSERT_TRUE(server.Call(PROC_NULL, {}, reply, transport));
        EXPECT_EQ(1u, reply.msgType);
        EXPECT_EQ(0u, reply.acceptStat);
        EXPECT_TRUE(reply.results.empty());
        EXPECT_EQ(24u, reply.message.size());
        EXPECT_EQ(transport == RpcTestClient::TCP ? 0x80000018u : 0u, reply.recordMark);
    }
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureNULL]"));
}

TEST_F(Nfs3Front, HandlerIsMadeOnTheFirstVersion3CallWithTheStoredSettings) {
    server.Program().SetUserID(1001, 1002);
    server.Program().SetReadOnly(true);
    EXPECT_EQ(nullptr, server.Program().GetNfs3Prog());
    unsigned long long before = CUtilities::GetCurrentSystemTimeInMilliseconds();
    RpcReply reply;
    ASSERT_TRUE(server.Call(PROC_NULL, {}, reply));
    unsigned long long after = CUtilities::GetCurrentSystemTimeInMilliseconds();
    CNfs3Prog* handler = server.Program().GetNfs3Prog();
    ASSERT_NE(nullptr, handler);
    EXPECT_EQ(1001u, handler->GetUserID());
    EXPECT_EQ(1002u, handler->GetGroupID());
    EXPECT_TRUE(handler->IsReadOnly());
    EXPECT_GE(handler->GetSysUpTime(), before);
    EXPECT_LE(handler->GetSysUpTime(), after);

    // Later settings reach the existing handler at once; it is kept.
    server.Program().SetUserID(7, 8);
    server.Program().SetReadOnly(false);
    EXPECT_EQ(7u, handler->GetUserID());
    EXPECT_EQ(8u, handler->GetGroupID());
    EXPECT_FALSE(handler->IsReadOnly());
    ASSERT_TRUE(server.Call(PROC_NULL, {}, reply));
    EXPECT_EQ(handler, server.Program().GetNfs3Prog());
}

TEST_F(Nfs3Front, GetattrCutAfterTheHandleLengthAnswersSuccessWithAnEmptyBody) {
    RpcTestClient& client = server.Client(RpcTestClient::TCP);
    // The handle claims 1000 bytes and the record ends behind its length
    // word: the call is cut inside a complete record, and what was built
    // for it is sent.
    Bytes getattr = BuildRpcCall(0x51, PROGRAM, 3, PROC_GETATTR, Words({1000}));
    Bytes null1 = BuildRpcCall(0x52, PROGRAM, 3, PROC_NULL);
    ASSERT_TRUE(client.SendRaw(Join({WithRecordMark(getattr), WithRecordMark(null1)})));
    RpcReply reply;
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(0x51u, reply.xid);
    EXPECT_EQ(0u, reply.acceptStat);
    EXPECT_TRUE(reply.results.empty());
    EXPECT_EQ(0x80000018u, reply.recordMark);
    // None of the 1000 bytes asked were in the record: the NULL call behind
    // it is no part of the handle.
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.Process] Data is truncated.Missing 1000 data")) << server.Log().Dump();

    // The NULL call waited in the buffer; the next receive serves it and
    // the call that came with it.
    ASSERT_TRUE(client.SendMessage(BuildRpcCall(0x53, PROGRAM, 3, PROC_NULL)));
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(0x52u, reply.xid);
    EXPECT_EQ(0u, reply.acceptStat);
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(0x53u, reply.xid);
}

TEST_F(Nfs3Front, CallArrivingByteByByteIsAnsweredOnceWhole) {
    RpcTestClient& client = server.Client(RpcTestClient::TCP);
    Bytes call = WithRecordMark(BuildRpcCall(0x61, PROGRAM, 3, PROC_GETATTR, HandleArgs(server.Handle(server.Root()))));
    for (uint8_t byte : call) ASSERT_TRUE(client.SendRaw(&byte, 1));
    RpcReply reply;
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(0x61u, reply.xid);
    XdrDecoder d = reply.Results();
    EXPECT_EQ(0u, d.GetUint32());
    EXPECT_EQ(2u, GetFattr3(d).type);
    EXPECT_EQ(0u, d.Remaining());
}

// ---- the mount check sets the call's identity -----------------------------------

TEST_F(Nfs3Front, MountCheckGivesTheCallTheExportsIdentity) {
    CNfs3Prog prog(&server.Utilities());
    CRuntimeParam rp("10.0.0.1", RpcServerHarness::ALL_LOGS);
    ProcessParam param;
    param.pRuntimeParam = &rp;
    LogArgu la{"Nfs3Prog.ProcedureGETATTR"};
    // Only the address that mounted the export passes.
    param.sRemoteAddr = "10.0.0.1";
    EXPECT_EQ(NFS3ERR_ACCES, prog.CheckProcessParam(&param, &la, server.PathOf("a/b").c_str()));
    EXPECT_STREQ("10.0.0.1", rp.GetID());
    EXPECT_EQ(1, server.Log().Count("[Nfs3Prog.ProcedureGETATTR] Export \"export\" is not mounted by 10.0.0.1"));
    param.sRemoteAddr = Nfs3TestServer::CLIENT_ADDRESS;
    EXPECT_EQ(NFS3_OK, prog.CheckProcessParam(&param, &la, server.PathOf("a/b").c_str()));
    EXPECT_STREQ(Nfs3TestServer::EXPORT_NAME, rp.GetID());
    EXPECT_STREQ(Nfs3TestServer::EXPORT_IPC_ID, rp.GetIpcID());

    CRuntimeParam other("10.0.0.2", RpcServerHarness::ALL_LOGS);
    param.pRuntimeParam = &other;
    EXPECT_EQ(NFS3ERR_IO, prog.CheckProcessParam(&param, &la, "/proc"));
    EXPECT_EQ(NFS3ERR_IO, prog.CheckProcessParam(&param, &la, ""));
    EXPECT_EQ(NFS3ERR_IO, prog.CheckProcessParam(&param, &la, nullptr));
    EXPECT_STREQ("10.0.0.2", other.GetID());
    EXPECT_EQ(3, server.Log().Count("[Nfs3Prog.ProcedureGETATTR] Path record not found"));
}

TEST_F(Nfs3Front, CheckPathTellsNullMissingAndPresentPaths) {
    CNfs3Prog prog(&server.Utilities());
    EXPECT_EQ(NFS3ERR_STALE, prog.CheckPath(nullptr, true));
    EXPECT_EQ(NFS3ERR_STALE, prog.CheckPath(nullptr, false));
    EXPECT_EQ(NFS3_OK, prog.CheckPath(server.PathOf("missing").c_str(), false));
    EXPECT_EQ(NFS3ERR_IO, prog.CheckPath(server.PathOf("missing").c_str(), true));
    EXPECT_EQ(NFS3_OK, prog.CheckPath(server.Root().c_str(), true));
}

TEST_F(Nfs3Front, PreOperationAttributesAreNeverTaken) {
    CNfs3Prog prog(&server.Utilities());
    wcc_attr attr;
    attr.size = 99;
    EXPECT_FALSE(prog.GetNfsFileAttributes(server.Root().c_str(), &attr));
    EXPECT_EQ(99u, attr.size);
    nfs_fh3* none = nullptr;
    EXPECT_FALSE(prog.GetNfsFileHandle(nullptr, nullptr, server.Root().c_str(), none));
}

// ---- helpers ---------------------------------------------------------------------------

TEST(Nfs3Helpers, ModeConversionDropsTheStickyBitAndTheFileType) {
    EXPECT_EQ(0777u, CNfs3Prog::ConvertFileModeToNfsFileMode(01777));
    EXPECT_EQ(0777u, CNfs3Prog::ConvertNfsFileModeToFileMode(01777));
    EXPECT_EQ(06755u, CNfs3Prog::ConvertFileModeToNfsFileMode(0106755));
    EXPECT_EQ(06755u, CNfs3Prog::ConvertNfsFileModeToFileMode(0107755));
    EXPECT_EQ(0644u, CNfs3Prog::ConvertFileModeToNfsFileMode(040644));
    EXPECT_EQ(0u, CNfs3Prog::ConvertNfsFileModeToFileMode(0xFFFFF000 | 01000));
    for (uint32_t bit = 1; bit != 0; bit <<= 1) {
        bool kept = bit == 04000 || bit == 02000 || (bit & 0777) != 0;
        EXPECT_EQ(kept ? bit : 0u, CNfs3Prog::ConvertFileModeToNfsFileMode(bit)) << bit;
        EXPECT_EQ(kept ? bit : 0u, CNfs3Prog::ConvertNfsFileModeToFileMode(bit)) << bit;
    }
}

TEST(Nfs3Helpers, AppendFilePathJoinsWithASlashWithinTheBuffer) {
    char out[PATH_BUFFER_SIZE];
    EXPECT_TRUE(CNfs3Prog::AppendFilePath("/a/b", "c", out));
    EXPECT_STREQ("/a/b/c", out);
    EXPECT_TRUE(CNfs3Prog::AppendFilePath("/", "c", out));
    EXPECT_STREQ("//c", out);
    EXPECT_FALSE(CNfs3Prog::AppendFilePath(nullptr, "c", out));
    EXPECT_FALSE(CNfs3Prog::AppendFilePath("/a", nullptr, out));
    EXPECT_FALSE(CNfs3Prog::AppendFilePath("/a", "c", nullptr));
    std::string dir = "/" + std::string(4000, 'd');
    EXPECT_TRUE(CNfs3Prog::AppendFilePath(dir.c_str(), std::string(4094 - dir.size(), 'n').c_str(), out));
    EXPECT_EQ(4095u, strlen(out));
    // One byte more would be cut: refused, and nothing half-written is left.
    EXPECT_FALSE(CNfs3Prog::AppendFilePath(dir.c_str(), std::string(4095 - dir.size(), 'n').c_str(), out));
    EXPECT_STREQ("", out);
}

TEST(Nfs3Helpers, DotNamesAreInvalidDirectoryNames) {
    EXPECT_TRUE(CNfs3Prog::IsInVaildDirName(nullptr));
    EXPECT_TRUE(CNfs3Prog::IsInVaildDirName("."));
    EXPECT_TRUE(CNfs3Prog::IsInVaildDirName(".."));
    EXPECT_FALSE(CNfs3Prog::IsInVaildDirName("..."));
    EXPECT_FALSE(CNfs3Prog::IsInVaildDirName(".a"));
    EXPECT_FALSE(CNfs3Prog::IsInVaildDirName(""));
}

// ---- XDR readers -----------------------------------------------------------------------

TEST(Nfs3Xdr, BooleanIsTrueOnlyForOne) {
    CInputStream in;
    Fill(in, Words({1, 0, 2, 0xFFFFFFFF}));
    EXPECT_TRUE(CNfs3Prog::ReadBool(&in));
    EXPECT_FALSE(CNfs3Prog::ReadBool(&in));
    EXPECT_FALSE(CNfs3Prog::ReadBool(&in));
    EXPECT_FALSE(CNfs3Prog::ReadBool(&in));
    EXPECT_THROW(CNfs3Prog::ReadBool(&in), CDataTruncatedExpt);
}

TEST(Nfs3Xdr, OpaqueStaysInTheInputBuffer) {
    CInputStream in;
    XdrEncoder e;
    e.PutOpaque("hello", 5).PutUint32(77);
    Fill(in, e.GetBytes());
    opaque o;
    CNfs3Prog::Read(&in, &o);
    EXPECT_EQ(5u, o.iBufLen);
    EXPECT_EQ(in.GetCurrentBuffer() - 8, o.pBuf);
    EXPECT_EQ(0, memcmp("hello", o.pBuf, 5));
    EXPECT_EQ(77u, CNfs3Prog::ReadUint32(&in));

    CInputStream cut;
    Fill(cut, Words({9, 1, 2}));
    EXPECT_THROW(CNfs3Prog::Read(&cut, &o), CDataTruncatedExpt);
}

TEST(Nfs3Xdr, NamesOf4096BytesOrMoreReadAsEmpty) {
    for (size_t length : {0, 1, 255, 4095, 4096, 70000}) {
        CInputStream in;
        XdrEncoder e;
        std::string name(length, 'x');
        e.PutString(name).PutUint32(0xABCD);
        Fill(in, e.GetBytes());
        filename3 f;
        CNfs3Prog::Read(&in, &f, false);
        EXPECT_EQ(length < 4096 ? name : std::string(), std::string(f.sPath)) << length;
        EXPECT_EQ(0xABCDu, CNfs3Prog::ReadUint32(&in)) << length;
    }
    CInputStream in;
    XdrEncoder e;
    e.PutString("skipped").PutUint32(0xABCD);
    Fill(in, e.GetBytes());
    filename3 f;
    strcpy(f.sPath, "old");
    CNfs3Prog::Read(&in, &f, true);
    EXPECT_STREQ("", f.sPath);
    EXPECT_EQ(0xABCDu, CNfs3Prog::ReadUint32(&in));
}

TEST(Nfs3Xdr, SattrReadsEveryValueThatIsSet) {
    CInputStream in;
    XdrEncoder e;
    e.PutUint32(1).PutUint32(0644);              // mode
    e.PutUint32(1).PutUint32(501);               // uid
    e.PutUint32(1).PutUint32(20);                // gid
    e.PutUint32(1).PutUint64(0x100000002ULL);    // size
    e.PutUint32(2).PutUint32(1000).PutUint32(5); // atime: client time
    e.PutUint32(1);                              // mtime: server time
    Fill(in, e.GetBytes());
    sattr3 s;
    CNfs3Prog::Read(&in, &s, false);
    EXPECT_TRUE(s.mode.set_it);
    EXPECT_EQ(0644u, s.mode.mode);
    EXPECT_TRUE(s.uid.set_it);
    EXPECT_EQ(501u, s.uid.uid);
    EXPECT_TRUE(s.gid.set_it);
    EXPECT_EQ(20u, s.gid.gid);
    EXPECT_TRUE(s.size.set_it);
    EXPECT_EQ(0x100000002ULL, s.size.size);
    EXPECT_EQ((uint32_t)SET_TO_CLIENT_TIME, s.atime.set_it);
    EXPECT_EQ(1000u, s.atime.atime.seconds);
    EXPECT_EQ(5u, s.atime.atime.nseconds);
    EXPECT_EQ((uint32_t)SET_TO_SERVER_TIME, s.mtime.set_it);
    EXPECT_EQ(0u, s.mtime.mtime.seconds);
    EXPECT_EQ(0u, in.GetFilledBufferSize());
}

TEST(Nfs3Xdr, SattrSkippingStepsOverValuesAndUnsetsThem) {
    CInputStream in;
    XdrEncoder e;
    e.PutUint32(1).PutUint32(0644).PutUint32(0).PutUint32(1).PutUint32(20);
    e.PutUint32(1).PutUint64(77).PutUint32(2).PutUint32(1000).PutUint32(5).PutUint32(1);
    e.PutUint32(0xFEED);
    Fill(in, e.GetBytes());
    sattr3 s;
    CNfs3Prog::Read(&in, &s, true);
    EXPECT_FALSE(s.mode.set_it);
    EXPECT_EQ(0u, s.mode.mode);
    EXPECT_FALSE(s.uid.set_it);
    EXPECT_FALSE(s.gid.set_it);
    EXPECT_EQ(0u, s.gid.gid);
    EXPECT_FALSE(s.size.set_it);
    EXPECT_EQ(0u, s.size.size);
    EXPECT_EQ((uint32_t)DONT_CHANGE, s.atime.set_it);
    EXPECT_EQ(0u, s.atime.atime.seconds);
    EXPECT_EQ((uint32_t)SET_TO_SERVER_TIME, s.mtime.set_it);
    EXPECT_EQ(0xFEEDu, CNfs3Prog::ReadUint32(&in));
}

TEST(Nfs3Xdr, SetFlagOfTwoReadsAsFalseAndMisreadsWhatFollows) {
    CInputStream in;
    // Meant: mode set (flag 2) to 1, uid unset... but 2 is not true, so the
    // value 1 is taken as the uid's flag and 501 as the uid.
    Fill(in, Words({2, 1, 501, 0, 0, 0, 0}));
    sattr3 s;
    CNfs3Prog::Read(&in, &s, false);
    EXPECT_FALSE(s.mode.set_it);
    EXPECT_EQ(0u, s.mode.mode);
    EXPECT_TRUE(s.uid.set_it);
    EXPECT_EQ(501u, s.uid.uid);
    EXPECT_FALSE(s.gid.set_it);
    EXPECT_FALSE(s.size.set_it);
    EXPECT_EQ(0u, in.GetFilledBufferSize());
}

TEST(Nfs3Xdr, GuardReadsItsTimeOnlyWhenChecked) {
    CInputStream in;
    Fill(in, Words({1, 300, 7, 0, 0xFEED}));
    sattrguard3 g;
    CNfs3Prog::Read(&in, &g);
    EXPECT_TRUE(g.check);
    EXPECT_EQ(300u, g.obj_ctime.seconds);
    EXPECT_EQ(7u, g.obj_ctime.nseconds);
    CNfs3Prog::Read(&in, &g);
    EXPECT_FALSE(g.check);
    EXPECT_EQ(0u, g.obj_ctime.seconds);
    EXPECT_EQ(0xFEEDu, CNfs3Prog::ReadUint32(&in));
}

TEST(Nfs3Xdr, CreateHowReadsAttributesOrTheVerifier) {
    CInputStream in;
    XdrEncoder e;
    e.PutUint32(GUARDED).PutUint32(1).PutUint32(0600).PutUint32(0).PutUint32(0).PutUint32(0).PutUint32(0).PutUint32(0);
    e.PutUint32(EXCLUSIVE).PutUint64(0x0102030405060708ULL);
    e.PutUint32(3);
    e.PutUint32(0xFEED);
    Fill(in, e.GetBytes());
    createhow3 how;
    CNfs3Prog::Read(&in, &how);
    EXPECT_EQ((uint32_t)GUARDED, how.mode);
    EXPECT_TRUE(how.obj_attributes.mode.set_it);
    EXPECT_EQ(0600u, how.obj_attributes.mode.mode);
    CNfs3Prog::Read(&in, &how);
    EXPECT_EQ((uint32_t)EXCLUSIVE, how.mode);
    EXPECT_FALSE(how.obj_attributes.mode.set_it);
    EXPECT_EQ(0x0102030405060708ULL, how.verf);
    CNfs3Prog::Read(&in, &how);
    EXPECT_EQ(3u, how.mode);
    EXPECT_EQ(0u, how.verf);
    EXPECT_EQ(0xFEEDu, CNfs3Prog::ReadUint32(&in));
}

TEST(Nfs3Xdr, MknodDataReadsByType) {
    CInputStream in;
    XdrEncoder e;
    e.PutUint32(NF3CHR).PutUint32(1).PutUint32(0600).PutUint32(0).PutUint32(0).PutUint32(0).PutUint32(0).PutUint32(0);
    e.PutUint32(4).PutUint32(64);
    e.PutUint32(NF3BLK).PutUint32(1).PutUint32(0600).PutUint32(0).PutUint32(0).PutUint32(0).PutUint32(0).PutUint32(0);
    e.PutUint32(8).PutUint32(1);  // skipped
    e.PutUint32(NF3FIFO).PutUint32(0).PutUint32(0).PutUint32(0).PutUint32(0).PutUint32(0).PutUint32(0);
    e.PutUint32(NF3REG);
    e.PutUint32(0xFEED);
    Fill(in, e.GetBytes());
    mknoddata3 m;
    CNfs3Prog::Read(&in, &m, false);
    EXPECT_EQ((uint32_t)NF3CHR, m.type);
    EXPECT_TRUE(m.dev_attributes.mode.set_it);
    EXPECT_EQ(4u, m.dev_spec.specdata1);
    EXPECT_EQ(64u, m.dev_spec.specdata2);
    CNfs3Prog::Read(&in, &m, true);
    EXPECT_EQ((uint32_t)NF3BLK, m.type);
    EXPECT_FALSE(m.dev_attributes.mode.set_it);
    EXPECT_EQ(0u, m.dev_spec.specdata1);
    CNfs3Prog::Read(&in, &m, false);
    EXPECT_EQ((uint32_t)NF3FIFO, m.type);
    EXPECT_FALSE(m.pipe_attributes.mode.set_it);
    CNfs3Prog::Read(&in, &m, false);
    EXPECT_EQ((uint32_t)NF3REG, m.type);
    EXPECT_EQ(0xFEEDu, CNfs3Prog::ReadUint32(&in));
}

TEST(Nfs3Xdr, ShortInputThrowsWithTheMissingCount) {
    CInputStream in;
    Fill(in, Words({1, 2}));
    sattr3 s;
    try {
        CNfs3Prog::Read(&in, &s, false);
        FAIL() << "no exception";
    } catch (const CDataTruncatedExpt& e) {
        EXPECT_STREQ("Data is truncated.Missing 4 data", e.what());
    }
}

// ---- XDR writers -----------------------------------------------------------------------

TEST(Nfs3Xdr, FattrIsWrittenInWireOrder) {
    fattr3 a;
    a.type = NF3REG;
    a.mode = 0644;
    a.nlink = 2;
    a.uid = 3;
    a.gid = 4;
    a.size = 0x0000000500000006ULL;
    a.used = 7;
    a.rdev = specdata3{8, 9};
    a.fsid = 10;
    a.fileid = 0x0B0000000CULL;
    a.atime = nfstime3{13, 14};
    a.mtime = nfstime3{15, 16};
    a.ctime = nfstime3{17, 18};
    COutputStream out;
    CNfs3Prog::Write(&out, a);
    XdrEncoder e;
    e.PutUint32(1).PutUint32(0644).PutUint32(2).PutUint32(3).PutUint32(4).PutUint64(0x0000000500000006ULL);
    e.PutUint64(7).PutUint32(8).PutUint32(9).PutUint64(10).PutUint64(0x0B0000000CULL);
    e.PutUint32(13).PutUint32(14).PutUint32(15).PutUint32(16).PutUint32(17).PutUint32(18);
    EXPECT_EQ(e.GetBytes(), Written(out));
    EXPECT_EQ(84u, Written(out).size());
}

TEST(Nfs3Xdr, OptionalRecordsWriteTheirFlagFirst) {
    COutputStream out;
    CNfs3Prog::Write(&out, wcc_data());
    CNfs3Prog::Write(&out, post_op_attr());
    CNfs3Prog::Write(&out, post_op_fh3());
    EXPECT_EQ(Words({0, 0, 0, 0}), Written(out));

    COutputStream fh;
    post_op_fh3 handle;
    handle.handle_follows = true;
    handle.handle.cHandle[0] = 0x2A;
    handle.handle.cHandle[55] = 0x55;
    CNfs3Prog::Write(&fh, handle);
    Bytes bytes = Written(fh);
    ASSERT_EQ(64u, bytes.size());
    EXPECT_EQ(1u, WordAt(bytes, 0));
    EXPECT_EQ(56u, WordAt(bytes, 4));
    EXPECT_EQ(0x2A, bytes[8]);
    EXPECT_EQ(0x55, bytes[63]);

    COutputStream pre;
    pre_op_attr before;
    before.attributes_follow = true;
    before.attributes.size = 5;
    before.attributes.mtime = nfstime3{6, 7};
    before.attributes.ctime = nfstime3{8, 9};
    CNfs3Prog::Write(&pre, before);
    XdrEncoder e;
    e.PutUint32(1).PutUint64(5).PutUint32(6).PutUint32(7).PutUint32(8).PutUint32(9);
    EXPECT_EQ(e.GetBytes(), Written(pre));
}

TEST(Nfs3Xdr, NamesAndOpaquesArePaddedUnlessOnlyTheLengthIsAsked) {
    COutputStream out;
    filename3 name;
    strcpy(name.sPath, "abcde");
    CNfs3Prog::Write(&out, name, false);
    CNfs3Prog::WriteUint32(&out, 0xFEED);
    XdrEncoder e;
    e.PutString("abcde").PutUint32(0xFEED);
    EXPECT_EQ(e.GetBytes(), Written(out));

    COutputStream lengthOnly;
    CNfs3Prog::Write(&lengthOnly, name, true);
    nfs_fh3 fh{};
    CNfs3Prog::Write(&lengthOnly, fh, true);
    EXPECT_EQ(Words({5, 56}), Written(lengthOnly));
}
