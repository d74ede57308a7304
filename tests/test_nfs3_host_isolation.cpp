// What one host may reach of another's data, over real sockets with two
// client addresses on loopback (127.0.0.1 and 127.0.0.2): an export answers
// only the host that mounted it, only that host may unmount it, handles from
// before a restart are stale, and no name, "..", or link (dangling or not)
// leads out of the export it was looked up in.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "LogRecorder.h"
#include "Nfs3TestServer.h"
#include "NfsMain.h"
#include "PrivateNetwork.h"
#include "TestSupport.h"
#include "Utilities.h"

using namespace nfs3wire;

namespace {

constexpr const char* HOST_A = "127.0.0.1";
constexpr const char* HOST_B = "127.0.0.2";
constexpr uint32_t MOUNT_PROGRAM = 100005, MNT = 1, UMNT = 3;
constexpr uint32_t OK = 0, NOENT = 2, ACCES = 13, XDEV = 18, NAMETOOLONG = 63, STALE = 70;

// One call from a client socket bound to local; the results, empty when no
// accepted reply came.
Bytes CallFrom(const char* local, RpcTestClient::Transport t, uint16_t port, uint32_t prog, uint32_t proc,
               const Bytes& args) {
    static uint32_t xid = 0x5EC000;
    RpcTestClient client(t, port, "127.0.0.1", 30000, local);
    EXPECT_TRUE(client.IsOpen()) << local;
    RpcReply reply;
    if (!client.Call(++xid, prog, 3, proc, args, reply) || reply.acceptStat != 0) return {};
    return reply.results;
}

uint32_t StatusOf(const Bytes& results) { return results.size() >= 4 ? WordAt(results, 0) : 0xFFFFFFFF; }

// CREATE UNCHECKED without attributes; READDIRPLUS from the start.
Bytes CreateArgs(const Bytes& dir, const std::string& name) {
    return Join({DirOpArgs(dir, name), Words({0, 0, 0, 0, 0, 0, 0})});
}
Bytes ReaddirplusArgs(const Bytes& dir) {
    XdrEncoder e;
    e.PutOpaque(dir).PutUint64(0).PutUint64(0).PutUint32(4096).PutUint32(65536);
    return e.GetBytes();
}

// The handle of an entry that a successful LOOKUP answered.
Bytes LookedUp(const Bytes& results) {
    XdrDecoder d(results);
    EXPECT_EQ(OK, d.GetUint32());
    return d.GetOpaque();
}

// READDIRPLUS entries by name: whether a handle came with each.
std::map<std::string, bool> HandlesListed(const Bytes& results) {
    std::map<std::string, bool> listed;
    XdrDecoder d(results);
    EXPECT_EQ(OK, d.GetUint32());
    GetPostOpAttr(d);
    d.GetUint64();  // cookie verifier
    while (d.GetUint32() == 1) {
        d.GetUint64();  // fileid
        std::string name = d.GetString();
        d.GetUint64();  // cookie
        GetPostOpAttr(d);
        bool follows = d.GetUint32() == 1;
        if (follows) d.GetOpaque();
        listed[name] = follows;
    }
    return listed;
}

class HostIsolation : public testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(server.Start(&err)) << err;
        WriteWholeFile(server.PathOf("f"), "secret");
        root = server.Handle(server.Root());
    }

    Bytes From(const char* local, uint32_t proc, const Bytes& args,
               RpcTestClient::Transport t = RpcTestClient::TCP) {
        Bytes results = CallFrom(local, t, t == RpcTestClient::TCP ? server.TcpPort() : server.UdpPort(),
                                 PROGRAM, proc, args);
        // The connection's slot is given back before the next one is opened.
        if (t == RpcTestClient::TCP) {
            EXPECT_TRUE(server.WaitForConnections(0));
        }
        return results;
    }

    // A second export in a folder beside the first, mounted by addr.
    std::string AddSecondExport(const char* addr) {
        char resolved[PATH_MAX];
        std::string path = realpath(second.Path().c_str(), resolved) ? resolved : second.Path();
        WriteWholeFile(path + "/bfile.txt", "B's data");
        char err[ERROR_TEXT_SIZE] = "";
        LogArgu la{"test"};
        EXPECT_TRUE(server.Utilities().AddMountInfo(&server.Runtime(), &la, path.c_str(), "exB", "", err)) << err;
        EXPECT_TRUE(server.Utilities().UpdateMountClientIpAddrByExportName("exB", addr, nullptr, err)) << err;
        return path;
    }

    Nfs3TestServer server;
    TempDir second;
    Bytes root;
};

// ---- 1. an export answers only the host that mounted it -----------------------------

TEST_F(HostIsolation, AnotherHostReachesNothingOfAnExportItDidNotMount) {
    Bytes file = server.Handle(server.PathOf("f"));
    Bytes forged(56, 0);  // file ID 0, the export's root, made by hand
    for (auto t : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        // Even with handles that the mounting host was given.
        EXPECT_EQ(Words({ACCES}), From(HOST_B, PROC_GETATTR, HandleArgs(root), t));
        Bytes readdir = Join({HandleArgs(root), Words({0, 0, 0, 0, 4096})});
        EXPECT_EQ(Words({ACCES, 0}), From(HOST_B, PROC_READDIR, readdir, t));
        EXPECT_EQ(Words({ACCES, 0}), From(HOST_B, PROC_READ, ReadArgs(file, 0, 6), t));
        EXPECT_EQ(Words({ACCES, 0, 0}), From(HOST_B, PROC_WRITE, WriteArgs(file, 0, 4, "evil"), t));
        EXPECT_EQ(Words({ACCES, 0, 0}), From(HOST_B, PROC_CREATE, CreateArgs(root, "planted"), t));
        EXPECT_EQ(Words({ACCES, 0}), From(HOST_B, PROC_LOOKUP, DirOpArgs(root, "f"), t));
        // A handle made by hand has no verifier.
        EXPECT_EQ(Words({STALE}), From(HOST_B, PROC_GETATTR, HandleArgs(forged), t));
        EXPECT_EQ(Words({STALE, 0, 0}), From(HOST_B, PROC_WRITE, WriteArgs(forged, 0, 4, "evil"), t));
    }
    EXPECT_EQ("secret", ReadWholeFile(server.PathOf("f")));
    EXPECT_FALSE(PathExists(server.PathOf("planted")));
    EXPECT_EQ(12, server.Log().CountContaining("\"export\" is not mounted by 127.0.0.2"));
    // The mounting host is served.
    EXPECT_EQ(OK, StatusOf(From(HOST_A, PROC_READ, ReadArgs(file, 0, 6))));

    // Unmounted, the export answers nobody, its former host included.
    ASSERT_TRUE(server.Utilities().UpdateMountClientIpAddrByExportName(Nfs3TestServer::EXPORT_NAME, nullptr,
                                                                       nullptr, nullptr));
    EXPECT_EQ(Words({ACCES}), From(HOST_A, PROC_GETATTR, HandleArgs(root)));
    EXPECT_EQ(Words({ACCES, 0, 0}), From(HOST_A, PROC_WRITE, WriteArgs(file, 0, 4, "evil"), RpcTestClient::UDP));
    EXPECT_EQ("secret", ReadWholeFile(server.PathOf("f")));
}

// ---- 3. names are one entry, and never lead into another export ----------------------

TEST_F(HostIsolation, NamesAndDotDotStayInsideTheirExport) {
    std::string other = AddSecondExport(HOST_B);
    std::string otherName = other.substr(other.rfind('/') + 1);
    for (const std::string& name : {"../" + otherName + "/bfile.txt", other + "/bfile.txt", std::string("./f")}) {
        EXPECT_EQ(Words({ACCES, 0}), From(HOST_A, PROC_LOOKUP, DirOpArgs(root, name))) << name;
        EXPECT_EQ(Words({ACCES, 0, 0}), From(HOST_A, PROC_CREATE, CreateArgs(root, name))) << name;
    }
    // ".." of the export's root is the root; "." is the folder itself.
    EXPECT_EQ(root, LookedUp(From(HOST_A, PROC_LOOKUP, DirOpArgs(root, ".."))));
    EXPECT_EQ(root, LookedUp(From(HOST_A, PROC_LOOKUP, DirOpArgs(root, "."))));
    ASSERT_EQ(0, mkdir(server.PathOf("sub").c_str(), 0755));
    Bytes sub = LookedUp(From(HOST_A, PROC_LOOKUP, DirOpArgs(root, "sub")));
    EXPECT_EQ(root, LookedUp(From(HOST_A, PROC_LOOKUP, DirOpArgs(sub, ".."))));
    // A link to an existing file of the other export is not followed there.
    ASSERT_EQ(0, symlink((other + "/bfile.txt").c_str(), server.PathOf("toB").c_str()));
    EXPECT_EQ(Words({ACCES, 0}), From(HOST_A, PROC_LOOKUP, DirOpArgs(root, "toB")));
    std::map<std::string, bool> listed = HandlesListed(From(HOST_A, PROC_READDIRPLUS, ReaddirplusArgs(root)));
    ASSERT_EQ(1u, listed.count("toB"));
    EXPECT_FALSE(listed["toB"]);
    EXPECT_TRUE(listed["f"]);

    // RENAME moves nothing into another export, whoever has it mounted.
    Bytes otherRoot = server.Handle(other);
    Bytes renameArgs = Join({DirOpArgs(root, "f"), DirOpArgs(otherRoot, "moved")});
    EXPECT_EQ(Words({XDEV, 0, 0, 0, 0}), From(HOST_A, PROC_RENAME, renameArgs));
    ASSERT_TRUE(server.Utilities().UpdateMountClientIpAddrByExportName("exB", nullptr, nullptr, nullptr));
    ASSERT_TRUE(server.Utilities().UpdateMountClientIpAddrByExportName("exB", HOST_A, nullptr, nullptr));
    EXPECT_EQ(Words({XDEV, 0, 0, 0, 0}), From(HOST_A, PROC_RENAME, renameArgs));
    EXPECT_EQ("secret", ReadWholeFile(server.PathOf("f")));
    EXPECT_FALSE(PathExists(other + "/moved"));
    EXPECT_EQ("B's data", ReadWholeFile(other + "/bfile.txt"));
    // Within the export it still works.
    EXPECT_EQ(Words({OK, 0, 0, 0, 0}), From(HOST_A, PROC_RENAME, Join({DirOpArgs(root, "f"), DirOpArgs(sub, "g")})));
    EXPECT_EQ("secret", ReadWholeFile(server.PathOf("sub/g")));
}

// ---- 5. a dangling link leads nowhere ---------------------------------------------------

TEST_F(HostIsolation, ADanglingLinkIsNeverFollowedOutOfTheExport) {
    TempDir outside;
    std::string target = outside / "planted.txt";
    ASSERT_EQ(0, symlink(target.c_str(), server.PathOf("evil").c_str()));
    ASSERT_EQ(0, mkdir(server.PathOf("sub").c_str(), 0755));
    ASSERT_EQ(0, symlink((outside / "deeper").c_str(), server.PathOf("sub/evil").c_str()));
    Bytes sub = server.Handle(server.PathOf("sub"));
    for (const Bytes& dir : {root, sub}) {
        for (auto t : {RpcTestClient::TCP, RpcTestClient::UDP}) {
            EXPECT_EQ(Words({ACCES, 0, 0}), From(HOST_A, PROC_CREATE, CreateArgs(dir, "evil"), t));
            Bytes mkdir = Join({DirOpArgs(dir, "evil"), Words({0, 0, 0, 0, 0, 0})});
            EXPECT_EQ(Words({ACCES, 0, 0}), From(HOST_A, PROC_MKDIR, mkdir, t));
            EXPECT_EQ(Words({ACCES, 0}), From(HOST_A, PROC_LOOKUP, DirOpArgs(dir, "evil"), t));
        }
    }
    // No handle is listed for it either, so nothing can size or write it.
    std::map<std::string, bool> listed = HandlesListed(From(HOST_A, PROC_READDIRPLUS, ReaddirplusArgs(root)));
    ASSERT_EQ(1u, listed.count("evil"));
    EXPECT_FALSE(listed["evil"]);
    EXPECT_FALSE(PathExists(target));
    EXPECT_FALSE(PathExists(outside / "deeper"));
    EXPECT_GE(server.Log().CountContaining("Link leads nowhere: " + server.PathOf("evil")), 6);

    // Files are made without following a link in their place.
    LogArgu la{"test"};
    EXPECT_FALSE(server.Utilities().NewFile(&server.Runtime(), &la, server.PathOf("evil").c_str()));
    EXPECT_FALSE(PathExists(target));
    // An ordinary new name is still made.
    EXPECT_EQ(OK, StatusOf(From(HOST_A, PROC_CREATE, CreateArgs(root, "fine"))));
    EXPECT_TRUE(PathExists(server.PathOf("fine")));
}

// ---- 6. over-long names and names holding a zero byte -------------------------------------

TEST_F(HostIsolation, OverlongNamesAndNamesWithAZeroByteAreRefused) {
    for (size_t length : {256, 4096, 5000}) {
        for (auto t : {RpcTestClient::TCP, RpcTestClient::UDP}) {
            const std::string name(length, 'n');
            EXPECT_EQ(Words({NAMETOOLONG, 0}), From(HOST_A, PROC_LOOKUP, DirOpArgs(root, name), t)) << length;
            EXPECT_EQ(Words({NAMETOOLONG, 0, 0}), From(HOST_A, PROC_CREATE, CreateArgs(root, name), t)) << length;
        }
    }
    const std::string withZero("f\0.txt", 6);
    EXPECT_EQ(Words({ACCES, 0}), From(HOST_A, PROC_LOOKUP, DirOpArgs(root, withZero)));
    EXPECT_EQ(Words({ACCES, 0, 0}), From(HOST_A, PROC_CREATE, CreateArgs(root, std::string("g\0", 2))));
    EXPECT_EQ(Words({ACCES, 0, 0}), From(HOST_A, PROC_REMOVE, DirOpArgs(root, withZero)));
    EXPECT_EQ(Words({ACCES, 0}), From(HOST_A, PROC_LOOKUP, DirOpArgs(root, "")));
    EXPECT_FALSE(PathExists(server.PathOf("g")));
    EXPECT_EQ("secret", ReadWholeFile(server.PathOf("f")));
    // 255 bytes is an ordinary name.
    std::string longest(255, 'l');
    WriteWholeFile(server.PathOf(longest), "x");
    EXPECT_EQ(server.Handle(server.PathOf(longest)), LookedUp(From(HOST_A, PROC_LOOKUP, DirOpArgs(root, longest))));
    EXPECT_EQ(Words({NOENT, 0}), From(HOST_A, PROC_LOOKUP, DirOpArgs(root, std::string(255, 'm'))));
}

// ---- a whole server: MNT, UMNT and a restart -----------------------------------------

class HostIsolationServer : public testing::Test {
protected:
    void SetUp() override {
        std::string why;
        ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
        WriteWholeFile(a / "a_file.txt", "A's disk");
        WriteWholeFile(b / "b_file.txt", "B's disk");
        main.reset(new CNfsMain("isolation-test", CRuntimeParam::LOG_ERROR | CRuntimeParam::LOG_GENERAL_INFO));
        main->SetCallback(&log);
        ASSERT_TRUE(main->Initial(err)) << err;
        Start();
    }
    void TearDown() override {
        if (!main) return;
        main->StopServer();
        main->SetCallback(nullptr);
    }

    void Start() {
        ASSERT_TRUE(main->StartServer(0, 0, 0, 0, false, err)) << err;
        ASSERT_TRUE(main->AddMountPoint(a.Path().c_str(), "exA", err)) << err;
        ASSERT_TRUE(main->AddMountPoint(b.Path().c_str(), "exB", err)) << err;
    }

    Bytes Mount(const char* host, uint32_t proc, const std::string& name) {
        XdrEncoder args;
        args.PutString(name);
        return CallFrom(host, RpcTestClient::TCP, CNfsMain::DEFAULT_MOUNT_PORT, MOUNT_PROGRAM, proc, args.GetBytes());
    }
    // MNT's root handle; empty when refused.
    Bytes RootOf(const char* host, const std::string& name) {
        Bytes results = Mount(host, MNT, name);
        if (StatusOf(results) != 0) return {};
        XdrDecoder d(results, 4);
        return d.GetOpaque();
    }
    Bytes Nfs(const char* host, uint32_t proc, const Bytes& args) {
        return CallFrom(host, RpcTestClient::UDP, CNfsMain::DEFAULT_NFS_PORT, PROGRAM, proc, args);
    }

    TempDir a, b;
    LogRecorder log;
    std::unique_ptr<CNfsMain> main;  // made once in the private network
    char err[ERROR_TEXT_SIZE] = "";
};

// ---- 4. only the mounting host unmounts ----------------------------------------------------

TEST_F(HostIsolationServer, UmntFromAnotherHostChangesNothing) {
    Bytes rootA = RootOf(HOST_A, "exA");
    ASSERT_EQ(56u, rootA.size());
    EXPECT_EQ(Bytes{}, Mount(HOST_B, UMNT, "exA"));  // UMNT has no results, whatever it did
    EXPECT_EQ(1, log.CountContaining("This mount point \"exA\" is mounted by 127.0.0.1, not by 127.0.0.2"))
        << log.Dump();
    EXPECT_TRUE(log.Has("[MountProg.ProcedureUMNT] Umount FAIL"));
    EXPECT_EQ(Bytes{}, RootOf(HOST_B, "exA"));  // still A's: B's MNT is refused
    EXPECT_EQ(OK, StatusOf(Nfs(HOST_A, PROC_GETATTR, HandleArgs(rootA))));
    EXPECT_EQ(Words({ACCES}), Nfs(HOST_B, PROC_GETATTR, HandleArgs(rootA)));
    EXPECT_TRUE(main->GetUtils()->IsRemoteAddrExists(HOST_A));

    // A gives it up; then B may mount it.
    EXPECT_EQ(Bytes{}, Mount(HOST_A, UMNT, "exA"));
    EXPECT_TRUE(log.Has("[MountProg.ProcedureUMNT] Umount OK"));
    EXPECT_EQ(Words({ACCES}), Nfs(HOST_A, PROC_GETATTR, HandleArgs(rootA)));
    Bytes rootB = RootOf(HOST_B, "exA");
    EXPECT_EQ(rootA, rootB);
    EXPECT_EQ(OK, StatusOf(Nfs(HOST_B, PROC_GETATTR, HandleArgs(rootB))));
}

// ---- 2. handles from before a restart ------------------------------------------------------

TEST_F(HostIsolationServer, HandlesFromBeforeARestartAreStaleAndNeverReachAnotherHostsFile) {
    Bytes rootA = RootOf(HOST_A, "exA");
    ASSERT_EQ(56u, rootA.size());
    Bytes fileA = LookedUp(Nfs(HOST_A, PROC_LOOKUP, DirOpArgs(rootA, "a_file.txt")));
    ASSERT_EQ(56u, fileA.size());

    main->StopServer();
    Start();
    // B mounts first: its root and file get the IDs that A's had.
    Bytes rootB = RootOf(HOST_B, "exB");
    ASSERT_EQ(56u, rootB.size());
    Bytes fileB = LookedUp(Nfs(HOST_B, PROC_LOOKUP, DirOpArgs(rootB, "b_file.txt")));
    ASSERT_EQ(HandleID(rootA), HandleID(rootB));
    ASSERT_EQ(HandleID(fileA), HandleID(fileB));
    EXPECT_NE(fileA, fileB);  // the verifiers differ
    Bytes newRootA = RootOf(HOST_A, "exA");
    ASSERT_EQ(56u, newRootA.size());

    EXPECT_EQ(Words({STALE, 0, 0}), Nfs(HOST_A, PROC_WRITE, WriteArgs(fileA, 0, 4, "XXXX")));
    EXPECT_EQ(Words({STALE, 0}), Nfs(HOST_A, PROC_READ, ReadArgs(fileA, 0, 8)));
    EXPECT_EQ(Words({STALE, 0}), Nfs(HOST_A, PROC_READDIRPLUS, ReaddirplusArgs(rootA)));
    EXPECT_EQ(Words({STALE}), Nfs(HOST_A, PROC_GETATTR, HandleArgs(rootA)));
    EXPECT_EQ("B's disk", ReadWholeFile(b / "b_file.txt"));
    EXPECT_EQ("A's disk", ReadWholeFile(a / "a_file.txt"));
    // With the handles of the new start A reaches its own file again.
    Bytes again = LookedUp(Nfs(HOST_A, PROC_LOOKUP, DirOpArgs(newRootA, "a_file.txt")));
    EXPECT_EQ(OK, StatusOf(Nfs(HOST_A, PROC_WRITE, WriteArgs(again, 0, 4, "a's "))));
    EXPECT_EQ("a's disk", ReadWholeFile(a / "a_file.txt"));
    EXPECT_EQ("B's disk", ReadWholeFile(b / "b_file.txt"));
}

}  // namespace
