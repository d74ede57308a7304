// FSSTAT, FSINFO and PATHCONF on the wire. The FSSTAT figures are checked
// on a small tmpfs of the test's own, in a private mount namespace, so that
// nothing else changes them between calls.
#include <gtest/gtest.h>

#include <sys/statvfs.h>

#include <memory>
#include <string>

#include "Nfs3TestServer.h"
#include "PrivateMounts.h"
#include "TestSupport.h"
#include "Utilities.h"

using namespace nfs3wire;

namespace {

Bytes Uint64(uint64_t v) {
    XdrEncoder e;
    e.PutUint64(v);
    return e.GetBytes();
}

class Nfs3FsInfo : public testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(server.Start(&err)) << err;
    }
    Bytes Results(uint32_t proc, const Bytes& args) {
        RpcReply reply;
        EXPECT_TRUE(server.Call(proc, args, reply));
        EXPECT_EQ(0u, reply.acceptStat);
        return reply.results;
    }
    Nfs3TestServer server;
};

struct FsStat {
    uint64_t tbytes, fbytes, abytes, tfiles, ffiles, afiles;
};

}  // namespace

TEST_F(Nfs3FsInfo, FsinfoOnTheExportRootAnswersTheFixedTransferSizes) {
    Fattr3 root = ExpectedFattr3(server.Root());
    Bytes results = Results(PROC_FSINFO, HandleArgs(server.Handle(server.Root())));
    Bytes expected = Join({Words({0, 1}), Encode(root), Words({65536, 65536, 512, 16384, 16384, 512, 8192}),
                           Uint64(CUtilities::GetMaxFileSize(server.Root().c_str())), Words({1, 0, 24})});
    EXPECT_EQ(expected, results);
    EXPECT_EQ(4u + 4 + 84 + 28 + 8 + 8 + 4, results.size());
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureFSINFO] End stat=0"));
}

TEST_F(Nfs3FsInfo, FsinfoAndFsstatWithAHandleFromBeforeTheExportRemovalAreStale) {
    std::string file = server.PathOf("f");
    WriteWholeFile(file, "data");
    Bytes root = server.Handle(server.Root());
    Bytes fileHandle = server.Handle(file);
    server.Utilities().RemoveMountInfoByExportName(Nfs3TestServer::EXPORT_NAME);
    for (const Bytes& handle : {root, fileHandle}) {
        EXPECT_EQ(Words({70, 0}), Results(PROC_FSINFO, HandleArgs(handle)));
        EXPECT_EQ(Words({70, 0}), Results(PROC_FSSTAT, HandleArgs(handle)));
    }
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureFSSTAT] End stat=70"));
}

TEST_F(Nfs3FsInfo, FsstatOfAMissingObjectAnswersIo) {
    std::string file = server.PathOf("gone");
    WriteWholeFile(file, "data");
    Bytes handle = server.Handle(file);
    ASSERT_EQ(0, unlink(file.c_str()));
    EXPECT_EQ(Words({5, 0}), Results(PROC_FSSTAT, HandleArgs(handle)));
    EXPECT_EQ(Words({5, 0}), Results(PROC_FSINFO, HandleArgs(handle)));
}

TEST_F(Nfs3FsInfo, PathconfAnswersIoOnAnyHandle) {
    for (const Bytes& handle : {server.Handle(server.Root()), Bytes(56, 0), Bytes()})
        EXPECT_EQ(Words({5, 0}), Results(PROC_PATHCONF, HandleArgs(handle)));
    EXPECT_EQ(3, server.Log().Count("[Nfs3Prog.ProcedurePATHCONF] Path record not found"));
    EXPECT_EQ(3, server.Log().Count("[Nfs3Prog.ProcedurePATHCONF] End stat=5"));
}

// Its own process and mount namespace: the export is a 4 MiB tmpfs.
TEST(Nfs3FsStat, FiguresFollowTheFreeSpaceOfTheFileSystemBetweenCalls) {
    std::string err;
    ASSERT_TRUE(EnterPrivateMountNamespace(err)) << err;
    std::unique_ptr<Nfs3TestServer> server(new Nfs3TestServer);
    std::unique_ptr<ScopedTmpfs> fs(new ScopedTmpfs(server->Root(), "size=4m,nr_inodes=64"));
    ASSERT_TRUE(fs->Ok()) << fs->Error();
    ASSERT_TRUE(server->Start(&err)) << err;
    Bytes root = server->Handle(server->Root());

    auto fsstat = [&](FsStat& figures) {
        Fattr3 attr = ExpectedFattr3(server->Root());
        RpcReply reply;
        ASSERT_TRUE(server->Call(PROC_FSSTAT, HandleArgs(root), reply));
        ASSERT_EQ(4u + 4 + 84 + 48 + 4, reply.results.size());
        XdrDecoder d = reply.Results();
        ASSERT_EQ(0u, d.GetUint32());
        Fattr3 got;
        ASSERT_TRUE(GetPostOpAttr(d, &got));
        EXPECT_EQ(Encode(attr), Encode(got));
        figures.tbytes = d.GetUint64();
        figures.fbytes = d.GetUint64();
        figures.abytes = d.GetUint64();
        figures.tfiles = d.GetUint64();
        figures.ffiles = d.GetUint64();
        figures.afiles = d.GetUint64();
        EXPECT_EQ(0u, d.GetUint32());  // invarsec
        struct statvfs s;
        ASSERT_EQ(0, statvfs(server->Root().c_str(), &s));
        EXPECT_EQ((uint64_t)s.f_bfree * s.f_frsize, figures.fbytes);
        EXPECT_EQ((uint64_t)s.f_bavail * s.f_frsize, figures.abytes);
        EXPECT_EQ((uint64_t)s.f_ffree, figures.ffiles);
    };

    FsStat before{}, after{};
    fsstat(before);
    EXPECT_EQ(4u << 20, before.tbytes);
    EXPECT_EQ(64u, before.tfiles);
    EXPECT_EQ(before.ffiles, before.afiles);

    WriteWholeFile(server->PathOf("big"), std::string(1 << 20, 'b'));
    fsstat(after);
    EXPECT_EQ(4u << 20, after.tbytes);
    EXPECT_EQ(before.fbytes - (1u << 20), after.fbytes);
    EXPECT_EQ(before.abytes - (1u << 20), after.abytes);
    EXPECT_EQ(before.ffiles - 1, after.ffiles);
    EXPECT_EQ(before.afiles - 1, after.afiles);

    // The maximum file size of a tmpfs is the default one.
    RpcReply reply;
    ASSERT_TRUE(server->Call(PROC_FSINFO, HandleArgs(root), reply));
    XdrDecoder d = reply.Results();
    ASSERT_EQ(0u, d.GetUint32());
    ASSERT_TRUE(GetPostOpAttr(d));
    for (int i = 0; i < 7; ++i) d.GetUint32();
    EXPECT_EQ(1ULL << 41, d.GetUint64());

    fs.reset();  // before the folder under it is removed
}
