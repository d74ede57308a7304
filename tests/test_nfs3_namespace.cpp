// CREATE, MKDIR, SYMLINK, MKNOD, REMOVE, RMDIR, RENAME and LINK on the wire,
// against real files of an exported temporary folder: which status wins
// (read-only, missing, stale), the file IDs that new and renamed entries
// keep, and the procedures that are always refused.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "Nfs3Prog.h"
#include "Nfs3TestServer.h"
#include "NfsProg.h"
#include "TestSupport.h"
#include "Utilities.h"

using namespace nfs3wire;

namespace {

// sattr3 values: nothing set, only the mode, mode and size.
Bytes NoAttributes() { return Words({0, 0, 0, 0, 0, 0}); }
Bytes ModeOnly(uint32_t mode) { return Words({1, mode, 0, 0, 0, 0, 0}); }
Bytes ModeAndSize(uint32_t mode, uint64_t size) {
    XdrEncoder e;
    e.PutUint32(1).PutUint32(mode).PutUint32(0).PutUint32(0).PutUint32(1).PutUint64(size).PutUint32(0).PutUint32(0);
    return e.GetBytes();
}

// CREATE arguments: UNCHECKED (0) and GUARDED (1) carry attributes,
// EXCLUSIVE (2) a verifier; other modes nothing.
Bytes CreateArgs(const Bytes& dir, const std::string& name, uint32_t mode, const Bytes& attributes = NoAttributes()) {
    return Join({DirOpArgs(dir, name), Words({mode}), mode <= 1 ? attributes : Bytes{}});
}
Bytes CreateExclusiveArgs(const Bytes& dir, const std::string& name, uint64_t verifier) {
    XdrEncoder e;
    e.PutUint32(2).PutUint64(verifier);
    return Join({DirOpArgs(dir, name), e.GetBytes()});
}
Bytes RenameArgs(const Bytes& fromDir, const std::string& from, const Bytes& toDir, const std::string& to) {
    return Join({DirOpArgs(fromDir, from), DirOpArgs(toDir, to)});
}

mode_t ModeOf(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

// A handle of no file table of this server (its verifier is zero): stale.
Bytes UnknownHandle() {
    Bytes h(56, 0);
    uint32_t id = 0x7FFFFF00;
    memcpy(h.data(), &id, 4);
    return h;
}

// The successful reply of CREATE and MKDIR.
struct NewEntry {
    Bytes handle;
    Fattr3 attr;
};

class Nfs3Namespace : public testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(server.Start(&err)) << err;
        root = server.Handle(server.Root());
    }


    // A CREATE or MKDIR that must succeed: handle, attributes, empty dir_wcc.
    NewEntry Made(uint32_t proc, const Bytes& args, RpcTestClient::Transport t = RpcTestClient::TCP) {
        XdrDecoder d(server.Results(proc, args, t));
        NewEntry entry;
        EXPECT_EQ(0u, d.GetUint32());
        EXPECT_EQ(1u, d.GetUint32());  // handle_follows
        entry.handle = d.GetOpaque();
        EXPECT_EQ(56u, entry.handle.size());
        EXPECT_TRUE(GetPostOpAttr(d, &entry.attr));
        EXPECT_EQ(0u, d.GetUint32());  // dir_wcc before
        EXPECT_EQ(0u, d.GetUint32());  // dir_wcc after
        EXPECT_EQ(0u, d.Remaining());
        return entry;
    }

    // GETATTR of a handle: the attributes, or a failure status alone.
    Bytes Getattr(const Bytes& handle) { return server.Results(PROC_GETATTR, HandleArgs(handle)); }

    Nfs3TestServer server;
    Bytes root;
};

}  // namespace

// ---- CREATE -------------------------------------------------------------------------

TEST_F(Nfs3Namespace, CreateMakesTheFileAndAnswersItsHandleAndAttributes) {
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        std::string name = transport == RpcTestClient::TCP ? "new-tcp" : "new-udp";
        NewEntry entry = Made(PROC_CREATE, CreateArgs(root, name, 0), transport);
        ASSERT_TRUE(PathExists(server.PathOf(name)));
        EXPECT_TRUE(S_ISREG(ModeOf(server.PathOf(name))));
        // The handle is the file's own: it names the new path.
        EXPECT_EQ(server.Handle(server.PathOf(name)), entry.handle);
        Fattr3 expected = ExpectedFattr3(server.PathOf(name));
        EXPECT_EQ(1u, entry.attr.type);
        EXPECT_EQ(0u, entry.attr.size);
        EXPECT_EQ(expected.fileid, entry.attr.fileid);
        EXPECT_EQ(expected.mode, entry.attr.mode);
    }
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureCREATE] Mode: 0, Is file exist before create: 0"));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureCREATE] Is file exist after create: 1"));
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureCREATE] End stat=0"));
}

TEST_F(Nfs3Namespace, CreateGuardedOfAnExistingFileIsExistAndUncheckedKeepsItsFileId) {
    NewEntry first = Made(PROC_CREATE, CreateArgs(root, "f", 1));
    WriteWholeFile(server.PathOf("f"), "contents");
    EXPECT_EQ(Words({17, 0, 0}), server.Results(PROC_CREATE, CreateArgs(root, "f", 1)));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureCREATE] Mode: 1, Is file exist before create: 1"));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureCREATE] End stat=17"));
    EXPECT_EQ("contents", ReadWholeFile(server.PathOf("f")));
    // UNCHECKED goes through the file service again: the same file, the same
    // ID, and its contents are kept.
    NewEntry again = Made(PROC_CREATE, CreateArgs(root, "f", 0));
    EXPECT_EQ(first.handle, again.handle);
    EXPECT_EQ(HandleID(first.handle), HandleID(again.handle));
    EXPECT_EQ(8u, again.attr.size);
    EXPECT_EQ("contents", ReadWholeFile(server.PathOf("f")));
}

TEST_F(Nfs3Namespace, CreateExclusiveTwiceWithTheSameVerifierSucceedsBothTimes) {
    NewEntry first = Made(PROC_CREATE, CreateExclusiveArgs(root, "x", 0x0123456789ABCDEFull));
    NewEntry second = Made(PROC_CREATE, CreateExclusiveArgs(root, "x", 0x0123456789ABCDEFull));
    EXPECT_EQ(first.handle, second.handle);
    // Nor is a different verifier compared.
    EXPECT_EQ(first.handle, Made(PROC_CREATE, CreateExclusiveArgs(root, "x", 7)).handle);
    EXPECT_EQ(1, server.Log().Count("[Nfs3Prog.ProcedureCREATE] Mode: 2, Is file exist before create: 0"));
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureCREATE] Mode: 2, Is file exist before create: 1"));
}

TEST_F(Nfs3Namespace, CreateAppliesTheAttributesAsSetattrDoes) {
    // The sticky bit is dropped; mode and size are applied.
    NewEntry entry = Made(PROC_CREATE, CreateArgs(root, "sized", 0, ModeAndSize(01640, 100)));
    EXPECT_EQ(0640u, ModeOf(server.PathOf("sized")) & 07777);
    EXPECT_EQ(100u, ReadWholeFile(server.PathOf("sized")).size());
    EXPECT_EQ(0640u, entry.attr.mode);
    EXPECT_EQ(100u, entry.attr.size);
}

TEST_F(Nfs3Namespace, CreateWithAnUnknownModeOrInAMissingFolderIsIo) {
    EXPECT_EQ(Words({5, 0, 0}), server.Results(PROC_CREATE, CreateArgs(root, "odd", 3)));
    EXPECT_FALSE(PathExists(server.PathOf("odd")));
    ASSERT_EQ(0, mkdir(server.PathOf("gone").c_str(), 0755));
    Bytes gone = server.Handle(server.PathOf("gone"));
    ASSERT_EQ(0, rmdir(server.PathOf("gone").c_str()));
    EXPECT_EQ(Words({5, 0, 0}), server.Results(PROC_CREATE, CreateArgs(gone, "f", 0)));
    // A directory handle of no file table of this server is stale.
    EXPECT_EQ(Words({70, 0, 0}), server.Results(PROC_CREATE, CreateArgs(UnknownHandle(), "f", 0)));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureCREATE] Path record not found"));
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureCREATE] End stat=5"));
    EXPECT_EQ(1, server.Log().Count("[Nfs3Prog.ProcedureCREATE] End stat=70"));
}

TEST_F(Nfs3Namespace, CreateAndMkdirOnAReadOnlyServerAreAccesEvenWithAStaleDirectoryHandle) {
    server.Program().SetReadOnly(true);
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        EXPECT_EQ(Words({13, 0, 0}), server.Results(PROC_CREATE, CreateArgs(root, "f", 0), transport));
        EXPECT_EQ(Words({13, 0, 0}), server.Results(PROC_CREATE, CreateArgs(UnknownHandle(), "f", 0), transport));
        EXPECT_EQ(Words({13, 0, 0}), server.Results(PROC_MKDIR, Join({DirOpArgs(root, "d"), NoAttributes()}), transport));
        EXPECT_EQ(Words({13, 0, 0}),
                  server.Results(PROC_MKDIR, Join({DirOpArgs(UnknownHandle(), "d"), NoAttributes()}), transport));
    }
    EXPECT_FALSE(PathExists(server.PathOf("f")));
    EXPECT_FALSE(PathExists(server.PathOf("d")));
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureCREATE] Stale file handle"));
}

// ---- MKDIR --------------------------------------------------------------------------

TEST_F(Nfs3Namespace, MkdirWithoutAModeCreatesTheFolderWith0755) {
    umask(0);  // the modes below reach the file system as they are
    NewEntry entry = Made(PROC_MKDIR, Join({DirOpArgs(root, "d"), NoAttributes()}));
    EXPECT_EQ(S_IFDIR | 0755u, ModeOf(server.PathOf("d")));
    EXPECT_EQ(2u, entry.attr.type);
    EXPECT_EQ(0755u, entry.attr.mode);
    EXPECT_EQ(server.Handle(server.PathOf("d")), entry.handle);
    // A mode that is sent is used as sent (the sticky bit too); the reply
    // reports it without the sticky bit. Other attributes are ignored.
    entry = Made(PROC_MKDIR, Join({DirOpArgs(root, "sticky"), ModeAndSize(01700, 5)}), RpcTestClient::UDP);
    EXPECT_EQ(S_IFDIR | 01700u, ModeOf(server.PathOf("sticky")));
    EXPECT_EQ(0700u, entry.attr.mode);
    // Inside the new folder.
    Made(PROC_MKDIR, Join({DirOpArgs(entry.handle, "inner"), ModeOnly(0750)}));
    EXPECT_EQ(S_IFDIR | 0750u, ModeOf(server.PathOf("sticky/inner")));
}

TEST_F(Nfs3Namespace, MkdirOfAnExistingNameIsIoAndOfANameHoldingASlashAcces) {
    ASSERT_EQ(0, mkdir(server.PathOf("d").c_str(), 0755));
    WriteWholeFile(server.PathOf("f"), "");
    EXPECT_EQ(Words({5, 0, 0}), server.Results(PROC_MKDIR, Join({DirOpArgs(root, "d"), NoAttributes()})));
    EXPECT_EQ(Words({5, 0, 0}), server.Results(PROC_MKDIR, Join({DirOpArgs(root, "f"), NoAttributes()})));
    EXPECT_EQ(Words({13, 0, 0}), server.Results(PROC_MKDIR, Join({DirOpArgs(root, "none/d"), NoAttributes()})));
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureMKDIR] End stat=5"));
    EXPECT_FALSE(PathExists(server.PathOf("none")));
}

// ---- REMOVE and RMDIR ---------------------------------------------------------------

TEST_F(Nfs3Namespace, RemoveDeletesTheFileAndItsOldHandleThenFindsNothing) {
    WriteWholeFile(server.PathOf("f"), "data");
    Bytes file = server.Handle(server.PathOf("f"));
    EXPECT_EQ(Words({0, 0, 0}), server.Results(PROC_REMOVE, DirOpArgs(root, "f")));
    EXPECT_FALSE(PathExists(server.PathOf("f")));
    // The file table keeps the row: the handle resolves, the file is gone.
    EXPECT_EQ(Words({5}), Getattr(file));
    EXPECT_EQ(Words({2, 0, 0}), server.Results(PROC_REMOVE, DirOpArgs(root, "f"), RpcTestClient::UDP));
    // A file made again under the name gets the same ID back.
    EXPECT_EQ(HandleID(file), HandleID(Made(PROC_CREATE, CreateArgs(root, "f", 0)).handle));
    EXPECT_EQ(0u, XdrDecoder(Getattr(file)).GetUint32());
}

TEST_F(Nfs3Namespace, RemoveOfAMissingNameIsNoentOnAReadOnlyServerAsWellAndOfAnExistingOneAcces) {
    WriteWholeFile(server.PathOf("f"), "data");
    server.Program().SetReadOnly(true);
    for (uint32_t proc : {PROC_REMOVE, PROC_RMDIR}) {
        EXPECT_EQ(Words({2, 0, 0}), server.Results(proc, DirOpArgs(root, "missing"))) << proc;
        // Read-only wins over a stale handle.
        EXPECT_EQ(Words({13, 0, 0}), server.Results(proc, DirOpArgs(UnknownHandle(), "f"))) << proc;
        EXPECT_EQ(Words({13, 0, 0}), server.Results(proc, DirOpArgs(root, "f"))) << proc;
    }
    EXPECT_EQ("data", ReadWholeFile(server.PathOf("f")));
    server.Program().SetReadOnly(false);
    EXPECT_EQ(Words({70, 0, 0}), server.Results(PROC_REMOVE, DirOpArgs(UnknownHandle(), "f")));
    EXPECT_EQ(Words({2, 0, 0}), server.Results(PROC_REMOVE, DirOpArgs(root, "missing")));
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureREMOVE] End stat=2"));
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureREMOVE] End stat=13"));
    EXPECT_EQ(1, server.Log().Count("[Nfs3Prog.ProcedureREMOVE] End stat=70"));
}

TEST_F(Nfs3Namespace, RmdirRemovesAnEmptyFolderAndANonEmptyOneIsIo) {
    ASSERT_EQ(0, mkdir(server.PathOf("full").c_str(), 0755));
    WriteWholeFile(server.PathOf("full/f"), "x");
    ASSERT_EQ(0, mkdir(server.PathOf("empty").c_str(), 0755));
    EXPECT_EQ(Words({5, 0, 0}), server.Results(PROC_RMDIR, DirOpArgs(root, "full")));
    EXPECT_TRUE(PathExists(server.PathOf("full/f")));
    EXPECT_EQ(Words({0, 0, 0}), server.Results(PROC_RMDIR, DirOpArgs(root, "empty"), RpcTestClient::UDP));
    EXPECT_FALSE(PathExists(server.PathOf("empty")));
    EXPECT_EQ(Words({2, 0, 0}), server.Results(PROC_RMDIR, DirOpArgs(root, "empty")));
    // A file is no folder.
    EXPECT_EQ(Words({5, 0, 0}), server.Results(PROC_RMDIR, DirOpArgs(server.Handle(server.PathOf("full")), "f")));
    EXPECT_TRUE(PathExists(server.PathOf("full/f")));
}

// ---- RENAME -------------------------------------------------------------------------

TEST_F(Nfs3Namespace, RenameKeepsTheFileId) {
    WriteWholeFile(server.PathOf("a"), "0123456789");
    Bytes before = server.Handle(server.PathOf("a"));
    EXPECT_EQ(Words({0, 0, 0, 0, 0}), server.Results(PROC_RENAME, RenameArgs(root, "a", root, "b")));
    EXPECT_FALSE(PathExists(server.PathOf("a")));
    EXPECT_EQ("0123456789", ReadWholeFile(server.PathOf("b")));
    // The old handle reaches the file under its new name.
    XdrDecoder d(Getattr(before));
    ASSERT_EQ(0u, d.GetUint32());
    EXPECT_EQ(ExpectedFattr3(server.PathOf("b")).fileid, GetFattr3(d).fileid);
    XdrDecoder read(server.Results(PROC_READ, ReadArgs(before, 2, 3)));
    ASSERT_EQ(0u, read.GetUint32());
    read.GetUint32();
    read.GetUint32();
    read.GetUint32();
    EXPECT_EQ((Bytes{'2', '3', '4'}), read.GetOpaque());
    XdrDecoder lookup(server.Results(PROC_LOOKUP, DirOpArgs(root, "b")));
    ASSERT_EQ(0u, lookup.GetUint32());
    EXPECT_EQ(before, lookup.GetOpaque());
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureRENAME] End stat=0"));
}

TEST_F(Nfs3Namespace, RenameMovesFoldersAndIntoOtherFoldersAndReplacesATarget) {
    ASSERT_EQ(0, mkdir(server.PathOf("d").c_str(), 0755));
    ASSERT_EQ(0, mkdir(server.PathOf("e").c_str(), 0755));
    WriteWholeFile(server.PathOf("d/f"), "moved");
    WriteWholeFile(server.PathOf("e/g"), "replaced");
    Bytes folder = server.Handle(server.PathOf("d"));
    Bytes file = server.Handle(server.PathOf("d/f"));
    EXPECT_EQ(Words({0, 0, 0, 0, 0}), server.Results(PROC_RENAME, RenameArgs(folder, "f", server.Handle(server.PathOf("e")),
                                                                       "g"), RpcTestClient::UDP));
    EXPECT_EQ("moved", ReadWholeFile(server.PathOf("e/g")));
    EXPECT_EQ(HandleID(file), HandleID(server.Handle(server.PathOf("e/g"))));
    EXPECT_EQ(Words({0, 0, 0, 0, 0}), server.Results(PROC_RENAME, RenameArgs(root, "d", root, "d2")));
    EXPECT_TRUE(PathExists(server.PathOf("d2")));
    EXPECT_EQ(HandleID(folder), HandleID(server.Handle(server.PathOf("d2"))));
    XdrDecoder d(Getattr(folder));
    ASSERT_EQ(0u, d.GetUint32());
    EXPECT_EQ(2u, GetFattr3(d).type);
}

TEST_F(Nfs3Namespace, RenameOfAMissingSourceIsNoentAndOnAReadOnlyServerAcces) {
    WriteWholeFile(server.PathOf("a"), "a");
    EXPECT_EQ(Words({2, 0, 0, 0, 0}), server.Results(PROC_RENAME, RenameArgs(root, "missing", root, "b")));
    EXPECT_EQ(Words({70, 0, 0, 0, 0}), server.Results(PROC_RENAME, RenameArgs(UnknownHandle(), "a", root, "b")));
    server.Program().SetReadOnly(true);
    EXPECT_EQ(Words({2, 0, 0, 0, 0}), server.Results(PROC_RENAME, RenameArgs(root, "missing", root, "b")));
    EXPECT_EQ(Words({13, 0, 0, 0, 0}), server.Results(PROC_RENAME, RenameArgs(root, "a", root, "b")));
    EXPECT_TRUE(PathExists(server.PathOf("a")));
    EXPECT_FALSE(PathExists(server.PathOf("b")));
    // A target name holding "/" is refused.
    server.Program().SetReadOnly(false);
    EXPECT_EQ(Words({13, 0, 0, 0, 0}), server.Results(PROC_RENAME, RenameArgs(root, "a", root, "none/b")));
    EXPECT_TRUE(PathExists(server.PathOf("a")));
}

// ---- the refused procedures ---------------------------------------------------------

TEST_F(Nfs3Namespace, MknodOfAFifoIsNotsuppAndOfARegularFileTypeBadtype) {
    auto mknod = [&](uint32_t type, const Bytes& data) {
        return server.Results(PROC_MKNOD, Join({DirOpArgs(root, "node"), Words({type}), data}));
    };
    Bytes device = Join({NoAttributes(), Words({8, 1})});
    EXPECT_EQ(Words({10004, 0, 0}), mknod(7, NoAttributes()));  // FIFO
    EXPECT_EQ(Words({10004, 0, 0}), mknod(6, ModeOnly(0600)));  // socket
    EXPECT_EQ(Words({10004, 0, 0}), mknod(4, device));          // character device
    EXPECT_EQ(Words({10004, 0, 0}), mknod(3, device));          // block device
    for (uint32_t type : {1u, 2u, 5u, 0u, 99u}) EXPECT_EQ(Words({10007, 0, 0}), mknod(type, {})) << type;
    EXPECT_FALSE(PathExists(server.PathOf("node")));
    // The mount check of the stepped-over arguments is logged, and ignored.
    EXPECT_EQ(9, server.Log().Count("[Nfs3Prog.ProcedureMKNOD] Path record not found"));
    EXPECT_EQ(4, server.Log().Count("[Nfs3Prog.ProcedureMKNOD] End stat=10004"));
    server.Program().SetReadOnly(true);
    EXPECT_EQ(Words({10004, 0, 0}), mknod(7, NoAttributes()));
}

TEST_F(Nfs3Namespace, SymlinkAndLinkAreIo) {
    WriteWholeFile(server.PathOf("f"), "x");
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        XdrEncoder target;
        target.PutString("f");
        EXPECT_EQ(Words({5, 0, 0}),
                  server.Results(PROC_SYMLINK, Join({DirOpArgs(root, "link"), ModeOnly(0777), target.GetBytes()}), transport));
        EXPECT_EQ(Words({5, 0, 0, 0}),
                  server.Results(PROC_LINK, Join({HandleArgs(server.Handle(server.PathOf("f"))), DirOpArgs(root, "hard")}),
                          transport));
    }
    EXPECT_FALSE(PathExists(server.PathOf("link")));
    EXPECT_FALSE(PathExists(server.PathOf("hard")));
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureSYMLINK] Path record not found"));
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureLINK] End stat=5"));
}

TEST_F(Nfs3Namespace, SteppedOverArgumentsAreReadInStep) {
    // Calls whose arguments are skipped, each followed in the same send by a
    // call that must be answered: the skipping ends where the call ends.
    XdrEncoder target;
    target.PutString("some/target");
    std::vector<std::pair<uint32_t, Bytes>> calls = {
        {PROC_SYMLINK, Join({DirOpArgs(root, "link"), ModeAndSize(0777, 3), target.GetBytes()})},
        {PROC_MKNOD, Join({DirOpArgs(root, "n"), Words({4}), ModeAndSize(0600, 1), Words({8, 1})})},
        {PROC_MKNOD, Join({DirOpArgs(root, "n"), Words({7}), ModeOnly(0600)})},
        {PROC_LINK, Join({HandleArgs(root), DirOpArgs(root, "hard-link-name")})},
        {PROC_COMMIT, ReadArgs(root, 1, 2)},
    };
    RpcTestClient& client = server.Client(RpcTestClient::TCP);
    uint32_t xid = 0x5000;
    for (const auto& call : calls) {
        Bytes first = WithRecordMark(BuildRpcCall(++xid, PROGRAM, 3, call.first, call.second));
        Bytes second = WithRecordMark(BuildRpcCall(++xid, PROGRAM, 3, PROC_GETATTR, HandleArgs(root)));
        ASSERT_TRUE(client.SendRaw(Join({first, second})));
        RpcReply reply;
        ASSERT_TRUE(client.ReceiveReply(reply));
        EXPECT_EQ(xid - 1, reply.xid);
        ASSERT_TRUE(client.ReceiveReply(reply));
        EXPECT_EQ(xid, reply.xid) << call.first;
        XdrDecoder d(reply.results);
        EXPECT_EQ(0u, d.GetUint32()) << call.first;
    }
    EXPECT_EQ(0, server.Log().CountContaining("Data is truncated"));
}
