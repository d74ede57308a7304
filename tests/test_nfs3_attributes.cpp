// GETATTR, SETATTR, LOOKUP, ACCESS and READLINK on the wire, against real
// files of an exported temporary folder.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "Nfs3Prog.h"
#include "Nfs3TestServer.h"
#include "NfsProg.h"
#include "TestSupport.h"
#include "Utilities.h"

using namespace nfs3wire;

namespace {

mode_t ModeOf(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : (mode_t)-1;
}

off_t SizeOf(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// SETATTR arguments: handle, sattr3 words, guard words.
Bytes SetattrArgs(const Bytes& handle, const Bytes& sattr, const Bytes& guard = Words({0})) {
    return Join({HandleArgs(handle), sattr, guard});
}
// sattr3 setting only the mode, or only the size.
Bytes SetMode(uint32_t mode) { return Words({1, mode, 0, 0, 0, 0, 0}); }
Bytes SetSize(uint64_t size) {
    XdrEncoder e;
    e.PutUint32(0).PutUint32(0).PutUint32(0).PutUint32(1).PutUint64(size).PutUint32(0).PutUint32(0);
    return e.GetBytes();
}

// A handle of no file table of this server (its verifier is zero): stale.
Bytes UnknownHandle() {
    Bytes h(56, 0);
    uint32_t id = 0x7FFFFF00;
    memcpy(h.data(), &id, 4);
    return h;
}

class Nfs3Attributes : public testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(server.Start(&err)) << err;
    }


    std::string File(const std::string& name, const std::string& data = "hello world") {
        std::string path = server.PathOf(name);
        WriteWholeFile(path, data);
        return path;
    }

    // A handle with this server's verifier whose ID was never given out.
    Bytes UnknownId() { return HandleOfId(server.Utilities(), 0x7FFFFF00); }

    // Returns the id of the first line whose text is text.
    std::string IdOf(const std::string& text) {
        for (const auto& line : server.Log().Lines())
            if (line.text == text) return line.id;
        return "<none>";
    }

    Nfs3TestServer server;
};

}  // namespace

// ---- GETATTR ----------------------------------------------------------------------------

TEST_F(Nfs3Attributes, GetattrSendsTheAttributesByteForByte) {
    std::string file = File("f");
    ASSERT_EQ(0, chmod(file.c_str(), 0640));
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        for (const std::string& path : {file, server.Root()}) {
            Bytes results = server.Results(PROC_GETATTR, HandleArgs(server.Handle(path)), transport);
            EXPECT_EQ(Join({Words({0}), Encode(ExpectedFattr3(path))}), results) << path;
        }
    }
    XdrDecoder d(server.Results(PROC_GETATTR, HandleArgs(server.Handle(file))));
    EXPECT_EQ(0u, d.GetUint32());
    Fattr3 a = GetFattr3(d);
    EXPECT_EQ(1u, a.type);
    EXPECT_EQ(0640u, a.mode);
    EXPECT_EQ(11u, a.size);
    EXPECT_EQ(11u, a.used);
    struct stat st;
    ASSERT_EQ(0, lstat(file.c_str(), &st));
    EXPECT_EQ((uint64_t)st.st_ino, a.fileid);  // the inode, not the file table ID
    EXPECT_EQ((uint32_t)st.st_mtime, a.mtime);
    EXPECT_EQ(0u, a.mtimeNs);
}

// A handle's path that became a link: the link must lead somewhere, and its
// attributes are those of the link itself as they stand after it was
// followed (following it may move its access time).
TEST_F(Nfs3Attributes, GetattrOfAPathThatBecameALinkFollowsItToCheckAndShowsTheLink) {
    std::string target = File("target");
    std::string replaced = File("replaced");
    std::string dangling = File("dangling");
    Bytes replacedHandle = server.Handle(replaced);
    Bytes danglingHandle = server.Handle(dangling);
    ASSERT_EQ(0, unlink(replaced.c_str()));
    ASSERT_EQ(0, symlink("target", replaced.c_str()));
    ASSERT_EQ(0, unlink(dangling.c_str()));
    ASSERT_EQ(0, symlink("nowhere", dangling.c_str()));
    const timespec oldAccess[2] = {{1000000, 0}, {0, UTIME_OMIT}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, replaced.c_str(), oldAccess, AT_SYMLINK_NOFOLLOW));

    Bytes results = server.Results(PROC_GETATTR, HandleArgs(replacedHandle));
    Fattr3 expected = ExpectedFattr3(replaced);
    EXPECT_EQ(5u, expected.type);
    EXPECT_NE(1000000u, expected.atime);  // following it moved the access time
    EXPECT_EQ(Join({Words({0}), Encode(expected)}), results);
    EXPECT_EQ(Words({5}), server.Results(PROC_GETATTR, HandleArgs(danglingHandle)));
    ASSERT_EQ(0, unlink(target.c_str()));
    EXPECT_EQ(Words({5}), server.Results(PROC_GETATTR, HandleArgs(replacedHandle)));
}

TEST_F(Nfs3Attributes, GetattrReportsMode01777As0777) {
    std::string file = File("sticky");
    ASSERT_EQ(0, chmod(file.c_str(), 01777));
    std::string dir = server.PathOf("stickydir");
    ASSERT_EQ(0, mkdir(dir.c_str(), 0700));
    ASSERT_EQ(0, chmod(dir.c_str(), 01777));
    std::string setid = File("setid");
    ASSERT_EQ(0, chmod(setid.c_str(), 06755));
    struct Case {
        std::string path;
        uint32_t type;
        uint32_t mode;
    } cases[] = {{file, 1, 0777}, {dir, 2, 0777}, {setid, 1, 06755}};
    for (const Case& c : cases) {
        XdrDecoder d(server.Results(PROC_GETATTR, HandleArgs(server.Handle(c.path))));
        ASSERT_EQ(0u, d.GetUint32());
        Fattr3 a = GetFattr3(d);
        EXPECT_EQ(c.type, a.type) << c.path;
        EXPECT_EQ(c.mode, a.mode) << c.path;
    }
}

TEST_F(Nfs3Attributes, GetattrGivesDeviceNumbersInTheOldEightBitForm) {
    std::string chr = server.PathOf("chr");
    std::string blk = server.PathOf("blk");
    std::string fifo = server.PathOf("fifo");
    std::string sock = server.PathOf("sock");
    ASSERT_EQ(0, mknod(chr.c_str(), S_IFCHR | 0600, makedev(4, 64))) << strerror(errno);
    ASSERT_EQ(0, mknod(blk.c_str(), S_IFBLK | 0600, makedev(8, 1))) << strerror(errno);
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    ASSERT_LT(sock.size(), sizeof addr.sun_path);
    strcpy(addr.sun_path, sock.c_str());
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    close(fd);

    struct stat st;
    ASSERT_EQ(0, lstat(server.Root().c_str(), &st));
    struct Case {
        std::string path;
        uint32_t type, rdev1, rdev2;
    } cases[] = {
        {chr, 4, 4, 64},
        {blk, 3, 8, 1},
        {fifo, 7, (uint32_t)(st.st_dev >> 8) & 0xFF, (uint32_t)st.st_dev & 0xFF},
        {sock, 6, (uint32_t)(st.st_dev >> 8) & 0xFF, (uint32_t)st.st_dev & 0xFF},
        // A directory gives the device of its file system.
        {server.Root(), 2, (uint32_t)(st.st_dev >> 8) & 0xFF, (uint32_t)st.st_dev & 0xFF},
    };
    for (const Case& c : cases) {
        Bytes results = server.Results(PROC_GETATTR, HandleArgs(server.Handle(c.path)));
        EXPECT_EQ(Join({Words({0}), Encode(ExpectedFattr3(c.path))}), results) << c.path;
        XdrDecoder d(results);
        ASSERT_EQ(0u, d.GetUint32());
        Fattr3 a = GetFattr3(d);
        EXPECT_EQ(c.type, a.type) << c.path;
        EXPECT_EQ(c.rdev1, a.rdev1) << c.path;
        EXPECT_EQ(c.rdev2, a.rdev2) << c.path;
    }
}

TEST_F(Nfs3Attributes, GetattrWithAHandleFromBeforeTheLastExportRemovalIsStaleEvenWhenItsIdIsGivenOutAgain) {
    std::string file = File("f");
    Bytes old = server.Handle(file);
    server.Utilities().RemoveMountInfoByExportName(Nfs3TestServer::EXPORT_NAME);
    EXPECT_EQ(Words({70}), server.Results(PROC_GETATTR, HandleArgs(old)));

    // Exported and mounted again, the file table starts over under a new
    // verifier: the old ID goes to whatever file is handed out first, but
    // the old handle never reaches it.
    char err[ERROR_TEXT_SIZE] = "";
    LogArgu la{"test"};
    ASSERT_TRUE(server.Utilities().AddMountInfo(&server.Runtime(), &la, server.Root().c_str(),
                                                Nfs3TestServer::EXPORT_NAME, "", err))
        << err;
    ASSERT_TRUE(server.Utilities().UpdateMountClientIpAddrByExportName(Nfs3TestServer::EXPORT_NAME,
                                                                       Nfs3TestServer::CLIENT_ADDRESS, nullptr, err));
    EXPECT_EQ(Words({70}), server.Results(PROC_GETATTR, HandleArgs(old)));
    std::string other = File("other", "12345");
    Bytes reissued = server.Handle(other);
    ASSERT_EQ(HandleID(old), HandleID(reissued));
    EXPECT_EQ(Words({70}), server.Results(PROC_GETATTR, HandleArgs(old)));
    EXPECT_EQ(Join({Words({0}), Encode(ExpectedFattr3(other))}),
              server.Results(PROC_GETATTR, HandleArgs(reissued)));
    EXPECT_EQ(3, server.Log().Count("[Nfs3Prog.ProcedureGETATTR] Stale file handle"));
}

TEST_F(Nfs3Attributes, GetattrRefusesPathsOutsideTheExportAndMissingFiles) {
    Bytes outside = server.Handle(server.Root() + "/..");
    EXPECT_EQ(Words({5}), server.Results(PROC_GETATTR, HandleArgs(outside)));
    EXPECT_EQ(1, server.Log().Count("[Nfs3Prog.ProcedureGETATTR] Path record not found"));

    std::string file = File("gone");
    Bytes handle = server.Handle(file);
    ASSERT_EQ(0, unlink(file.c_str()));
    EXPECT_EQ(Words({5}), server.Results(PROC_GETATTR, HandleArgs(handle)));
    EXPECT_EQ(Words({5}), server.Results(PROC_GETATTR, HandleArgs(UnknownId())));
    EXPECT_EQ(3, server.Log().Count("[Nfs3Prog.ProcedureGETATTR] End stat=5"));
    EXPECT_EQ(Words({70}), server.Results(PROC_GETATTR, HandleArgs(UnknownHandle())));
}

TEST_F(Nfs3Attributes, GetattrLogsItsStepsUnderItsOwnNameAndTheExportsId) {
    std::string file = File("f");
    server.Results(PROC_GETATTR, HandleArgs(server.Handle(file)));
    LogRecorder& log = server.Log();
    EXPECT_TRUE(log.Has("[Nfs3Prog.Process]"));
    EXPECT_TRUE(log.Has("[Nfs3Prog.ProcedureGETATTR]"));
    EXPECT_TRUE(log.Has("[Nfs3Prog.ProcedureGETATTR] Path = " + file));
    EXPECT_EQ(1, log.CountContaining("[Nfs3Prog.ProcedureGETATTR] Path=" + file + ", type=1, mode=" +
                                     [&] {
                                         char m[16];
                                         snprintf(m, sizeof m, "%x", (unsigned)ModeOf(file));
                                         return std::string(m);
                                     }() +
                                     ", nlink=1, "))
        << log.Dump();
    EXPECT_TRUE(log.Has("[Nfs3Prog.ProcedureGETATTR] End stat=0"));
    // Before the mount check the call is the caller's; after it, the export's.
    EXPECT_EQ("127.0.0.1", IdOf("[Nfs3Prog.ProcedureGETATTR]"));
    EXPECT_EQ(Nfs3TestServer::EXPORT_NAME, IdOf("[Nfs3Prog.ProcedureGETATTR] End stat=0"));
}

// ---- LOOKUP ------------------------------------------------------------------------------

TEST_F(Nfs3Attributes, LookupOfAMissingNameAnswersNoentWithOneAbsentAttribute) {
    EXPECT_EQ(Words({2, 0}), server.Results(PROC_LOOKUP, DirOpArgs(server.Handle(server.Root()), "missing")));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureLOOKUP] End stat=2"));
}

TEST_F(Nfs3Attributes, LookupOfAnExistingNameAnswersHandleAttributesAndAnAbsentDirectoryAttribute) {
    std::string file = File("f");
    Bytes results = server.Results(PROC_LOOKUP, DirOpArgs(server.Handle(server.Root()), "f"));
    ASSERT_EQ(4u + 4 + 56 + 4 + 84 + 4, results.size());
    XdrDecoder d(results);
    EXPECT_EQ(0u, d.GetUint32());
    Bytes handle = d.GetOpaque();
    ASSERT_EQ(56u, handle.size());
    EXPECT_EQ(server.Handle(file), handle);  // the same ID and verifier, zeros behind them
    EXPECT_EQ(Bytes(44, 0), Bytes(handle.begin() + 12, handle.end()));
    Fattr3 a;
    ASSERT_TRUE(GetPostOpAttr(d, &a));
    EXPECT_EQ(Encode(ExpectedFattr3(file)), Encode(a));
    EXPECT_FALSE(GetPostOpAttr(d));
    EXPECT_EQ(0u, d.Remaining());
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureLOOKUP] Read path=" + server.Root() + ", name=f"));
}

TEST_F(Nfs3Attributes, LookupGivesNewPathsNewIds) {
    File("a");
    File("b");
    Bytes root = server.Handle(server.Root());
    XdrDecoder da(server.Results(PROC_LOOKUP, DirOpArgs(root, "a")));
    XdrDecoder db(server.Results(PROC_LOOKUP, DirOpArgs(root, "b")));
    ASSERT_EQ(0u, da.GetUint32());
    ASSERT_EQ(0u, db.GetUint32());
    uint32_t a = HandleID(da.GetOpaque());
    uint32_t b = HandleID(db.GetOpaque());
    EXPECT_NE(a, b);
    EXPECT_EQ(HandleID(root), 0u);
    EXPECT_EQ(1u, a);
    EXPECT_EQ(2u, b);
}

TEST_F(Nfs3Attributes, LookupWithAStaleDirectoryHandleLeavesTheNameUnread) {
    RpcTestClient& client = server.Client(RpcTestClient::TCP);
    RpcReply reply;
    ASSERT_TRUE(client.Call(0x71, PROGRAM, 3, PROC_LOOKUP, DirOpArgs(UnknownHandle(), "abc"), reply));
    EXPECT_EQ(Words({70, 0}), reply.results);
    // The name's 8 bytes are dropped with the rest of the call's record;
    // the next call starts right behind it.
    ASSERT_TRUE(client.Call(0x72, PROGRAM, 3, PROC_NULL, {}, reply));
    EXPECT_EQ(0, server.Log().CountContaining("for next vaild header")) << server.Log().Dump();
    EXPECT_EQ(0, server.Log().CountContaining("name=abc"));
}

TEST_F(Nfs3Attributes, LookupResolvesDotAndDotDotButNeverAboveTheExport) {
    std::string sub = server.PathOf("sub");
    ASSERT_EQ(0, mkdir(sub.c_str(), 0755));
    Bytes root = server.Handle(server.Root());
    Bytes subHandle = server.Handle(sub);

    XdrDecoder dot(server.Results(PROC_LOOKUP, DirOpArgs(root, ".")));
    ASSERT_EQ(0u, dot.GetUint32());
    EXPECT_EQ(root, dot.GetOpaque());

    XdrDecoder up(server.Results(PROC_LOOKUP, DirOpArgs(subHandle, "..")));
    ASSERT_EQ(0u, up.GetUint32());
    EXPECT_EQ(root, up.GetOpaque());

    // Above the export lies outside every mount: ".." of the root is the root.
    XdrDecoder top(server.Results(PROC_LOOKUP, DirOpArgs(root, "..")));
    ASSERT_EQ(0u, top.GetUint32());
    EXPECT_EQ(root, top.GetOpaque());
}

// ---- ACCESS -------------------------------------------------------------------------------

TEST_F(Nfs3Attributes, AccessGrantsEverythingAskedOnAWritableServer) {
    std::string file = File("f");
    ASSERT_EQ(0, chmod(file.c_str(), 0));  // no permission is examined
    Bytes results = server.Results(PROC_ACCESS, Join({HandleArgs(server.Handle(file)), Words({0x3F})}));
    EXPECT_EQ(Join({Words({0, 1}), Encode(ExpectedFattr3(file)), Words({0x3F})}), results);
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureACCESS] Readonly: 0, access: 3f"));
}

TEST_F(Nfs3Attributes, AccessOnAReadOnlyServerGrantsReadAndLookupOnly) {
    server.Program().SetReadOnly(true);
    std::string file = File("f");
    Bytes handle = server.Handle(file);
    struct Case {
        uint32_t asked, granted;
    } cases[] = {{0x3F, 0x03}, {0x01, 0x01}, {0x02, 0x02}, {0x3C, 0x00}, {0x20, 0x00}, {0xFFFFFFFF, 0xFFFFFFC3}};
    for (const Case& c : cases) {
        XdrDecoder d(server.Results(PROC_ACCESS, Join({HandleArgs(handle), Words({c.asked})})));
        ASSERT_EQ(0u, d.GetUint32());
        ASSERT_TRUE(GetPostOpAttr(d));
        EXPECT_EQ(c.granted, d.GetUint32()) << c.asked;
        EXPECT_EQ(0u, d.Remaining());
    }
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureACCESS] Readonly: 1, access: 3f"));
}

TEST_F(Nfs3Attributes, AccessWithAnUnknownOrStaleHandleAnswersIoOrStaleWithAnAbsentAttribute) {
    EXPECT_EQ(Words({5, 0}), server.Results(PROC_ACCESS, Join({HandleArgs(UnknownId()), Words({0x3F})})));
    EXPECT_EQ(Words({70, 0}), server.Results(PROC_ACCESS, Join({HandleArgs(UnknownHandle()), Words({0x3F})})));
}

// ---- SETATTR ------------------------------------------------------------------------------

TEST_F(Nfs3Attributes, SetattrWithoutAGuardAppliesAndAnswersEmptyWeakCacheData) {
    std::string file = File("f");
    Bytes handle = server.Handle(file);
    EXPECT_EQ(Words({0, 0, 0}), server.Results(PROC_SETATTR, SetattrArgs(handle, SetMode(0600))));
    EXPECT_EQ(0600u, ModeOf(file));
    EXPECT_EQ(Words({0, 0, 0}), server.Results(PROC_SETATTR, SetattrArgs(handle, SetSize(3))));
    EXPECT_EQ(3, SizeOf(file));
    EXPECT_EQ("hel", ReadWholeFile(file));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureSETATTR] Guard check: 0, time: 0"));
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureSETATTR] End stat=0"));
}

TEST_F(Nfs3Attributes, SetattrWithMode01777Applies0777) {
    std::string file = File("f");
    EXPECT_EQ(Words({0, 0, 0}), server.Results(PROC_SETATTR, SetattrArgs(server.Handle(file), SetMode(01777))));
    EXPECT_EQ(0777u, ModeOf(file));
}

TEST_F(Nfs3Attributes, SetattrWithAGuardOfNonZeroCtimeAnswersNotSync) {
    std::string file = File("f");
    ASSERT_EQ(0, chmod(file.c_str(), 0644));
    struct stat st;
    ASSERT_EQ(0, lstat(file.c_str(), &st));
    uint32_t ctime = (uint32_t)st.st_ctime;
    // The server takes no before-attributes: even the true ctime fails.
    Bytes results = server.Results(PROC_SETATTR, SetattrArgs(server.Handle(file), SetMode(0600), Words({1, ctime, 0})));
    EXPECT_EQ(Words({10002, 0, 0}), results);
    EXPECT_EQ(0644u, ModeOf(file));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureSETATTR] Guard check fail, client: " + std::to_string(ctime) +
                                 ", server: 0"));
    // A guard of zero seconds matches the empty before-record.
    EXPECT_EQ(Words({0, 0, 0}),
              server.Results(PROC_SETATTR, SetattrArgs(server.Handle(file), SetMode(0600), Words({1, 0, 12345}))));
    EXPECT_EQ(0600u, ModeOf(file));
}

TEST_F(Nfs3Attributes, SetattrFlagOfTwoMisreadsTheFieldsBehindIt) {
    std::string file = File("f");
    ASSERT_EQ(0, chmod(file.c_str(), 0644));
    // Flag 2 before the mode reads as false and the mode value is not read:
    // the 0 meant as the mode becomes the uid flag, the next 0 the gid flag,
    // and the 1 after it the size flag, with 5 as the size.
    Bytes sattr = Words({2, 0, 0, 1, 0, 5, 0, 0});
    EXPECT_EQ(Words({0, 0, 0}), server.Results(PROC_SETATTR, SetattrArgs(server.Handle(file), sattr)));
    EXPECT_EQ(0644u, ModeOf(file));
    EXPECT_EQ(5, SizeOf(file));
}

TEST_F(Nfs3Attributes, SetattrOnAReadOnlyServerStillApplies) {
    server.Program().SetReadOnly(true);
    std::string file = File("f");
    EXPECT_EQ(Words({0, 0, 0}), server.Results(PROC_SETATTR, SetattrArgs(server.Handle(file), SetMode(0604))));
    EXPECT_EQ(0604u, ModeOf(file));
}

TEST_F(Nfs3Attributes, SetattrPassesServerTimeAsSetWithAZeroTime) {
    std::string file = File("f");
    Bytes sattr = Words({0, 0, 0, 0, 1, 2, 1000, 7});
    EXPECT_EQ(Words({0, 0, 0}), server.Results(PROC_SETATTR, SetattrArgs(server.Handle(file), sattr)));
    EXPECT_EQ(1, server.Log().CountContaining(
                     "set_atime=1, atime.sec=0, atime.nsec=0, set_mtime=1, mtime.sec=1000, mtime.nsec=7"))
        << server.Log().Dump();
}

TEST_F(Nfs3Attributes, SetattrThatTheFileServiceRefusesAnswersInval) {
    std::string dir = server.PathOf("dir");
    ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    EXPECT_EQ(Words({22, 0, 0}), server.Results(PROC_SETATTR, SetattrArgs(server.Handle(dir), SetSize(0))));
    std::vector<std::string> errors = server.Log().Texts("error");
    EXPECT_NE(errors.end(),
              std::find(errors.begin(), errors.end(), "[Nfs3Prog.ProcedureSETATTR] Update file attribute to " + dir + " fail"))
        << server.Log().Dump();
}

TEST_F(Nfs3Attributes, SetattrWithAnUnknownHandleAnswersIoAndWithAStaleOneStale) {
    EXPECT_EQ(Words({5, 0, 0}), server.Results(PROC_SETATTR, SetattrArgs(UnknownId(), SetMode(0600))));
    EXPECT_EQ(Words({70, 0, 0}), server.Results(PROC_SETATTR, SetattrArgs(UnknownHandle(), SetMode(0600))));
    std::string file = File("gone");
    Bytes handle = server.Handle(file);
    ASSERT_EQ(0, unlink(file.c_str()));
    EXPECT_EQ(Words({5, 0, 0}), server.Results(PROC_SETATTR, SetattrArgs(handle, SetSize(10))));
    EXPECT_FALSE(PathExists(file));
}

// ---- READLINK -----------------------------------------------------------------------------

TEST_F(Nfs3Attributes, ReadlinkAnswersIoOnAnyHandle) {
    std::string target = File("target");
    std::string link = server.PathOf("link");
    ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
    for (const Bytes& handle : {server.Handle(link), server.Handle(server.Root()), UnknownHandle()})
        EXPECT_EQ(Words({5, 0}), server.Results(PROC_READLINK, HandleArgs(handle)));
    EXPECT_EQ(3, server.Log().Count("[Nfs3Prog.ProcedureREADLINK] Path record not found"));
    EXPECT_EQ(3, server.Log().Count("[Nfs3Prog.ProcedureREADLINK] End stat=5"));
}
