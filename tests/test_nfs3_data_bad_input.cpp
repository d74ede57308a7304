// Bad input to the data and namespace procedures over real sockets: opaque
// and string lengths near 2^32, names of 4095, 4096 and 70,000 bytes,
// handles of 0, 4 and 64 bytes, cookies past the end, offsets near 2^64 and
// READ counts larger than the reply buffer. Each call gets its answer, and
// the server keeps serving: a valid call right behind it is answered.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>
#include <vector>

#include "Nfs3TestServer.h"
#include "TestSupport.h"
#include "Utilities.h"

using namespace nfs3wire;

namespace {

Bytes U64(uint64_t v) {
    XdrEncoder e;
    e.PutUint64(v);
    return e.GetBytes();
}
Bytes Text(const std::string& s) { return Bytes(s.begin(), s.end()); }
Bytes Prefix(const Bytes& bytes, size_t n) { return Bytes(bytes.begin(), bytes.begin() + (long)n); }

const Bytes NO_ATTRIBUTES = Words({0, 0, 0, 0, 0, 0});
// The largest datagram a loopback UDP socket carries, less room for headers.
constexpr size_t DATAGRAM_ROOM = 65000;

struct Case {
    std::string what;
    uint32_t proc;
    Bytes args;
    Bytes expected;  // the whole result body
};

class Nfs3DataBadInput : public testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(server.Start(&err)) << err;
        WriteWholeFile(server.PathOf("f"), "0123456789");
        ASSERT_EQ(0, mkdir(server.PathOf("d").c_str(), 0755));
        WriteWholeFile(server.PathOf("d/inner"), "x");
        root = server.Handle(server.Root());
        file = server.Handle(server.PathOf("f"));
    }

    // The server still answers on the transport, with the real file, and
    // nothing in the export was harmed.
    void ExpectServing(RpcTestClient::Transport t, const std::string& after) {
        RpcReply reply;
        ASSERT_TRUE(server.Call(PROC_GETATTR, HandleArgs(file), reply, t)) << after;
        XdrDecoder d(reply.results);
        ASSERT_EQ(0u, d.GetUint32()) << after;
        EXPECT_EQ(10u, GetFattr3(d).size) << after;
        EXPECT_EQ("0123456789", ReadWholeFile(server.PathOf("f"))) << after;
        EXPECT_EQ("x", ReadWholeFile(server.PathOf("d/inner"))) << after;
    }

    // Each case over TCP, and over UDP when it fits a datagram; each
    // followed by a valid call.
    void Run(const std::vector<Case>& cases) {
        for (const Case& c : cases) {
            for (auto t : {RpcTestClient::TCP, RpcTestClient::UDP}) {
                if (t == RpcTestClient::UDP && c.args.size() > DATAGRAM_ROOM) continue;
                std::string what = c.what + (t == RpcTestClient::TCP ? " (TCP)" : " (UDP)");
                RpcReply reply;
                ASSERT_TRUE(server.Call(c.proc, c.args, reply, t)) << what;
                EXPECT_EQ(0u, reply.acceptStat) << what;
                EXPECT_EQ(c.expected, reply.results) << what;
                ExpectServing(t, what);
            }
        }
    }

    // A call that claims more bytes than will ever come, over TCP. It is
    // answered with what was built before its arguments ran out (nothing)
    // once a next call is there; the stream then goes on with the next
    // receive. (Over UDP the cut call waits in the same way for the next
    // datagram, which then answers it in place of its own call.)
    void RunCut(const std::string& what, uint32_t proc, const Bytes& args) {
        int before = server.Log().CountContaining("[Nfs3Prog.Process] Data is truncated.Missing");
        RpcTestClient& tcp = server.Client(RpcTestClient::TCP);
        uint32_t xid = server.NextXid();
        server.NextXid();
        server.NextXid();
        Bytes cut = WithRecordMark(BuildRpcCall(xid, PROGRAM, 3, proc, args));
        Bytes next = WithRecordMark(BuildRpcCall(xid + 1, PROGRAM, 3, PROC_GETATTR, HandleArgs(file)));
        ASSERT_TRUE(tcp.SendRaw(Join({cut, next}))) << what;
        RpcReply reply;
        ASSERT_TRUE(tcp.ReceiveReply(reply)) << what;
        EXPECT_EQ(xid, reply.xid) << what;
        EXPECT_EQ(0u, reply.acceptStat) << what;
        EXPECT_TRUE(reply.results.empty()) << what;
        ASSERT_TRUE(tcp.SendMessage(BuildRpcCall(xid + 2, PROGRAM, 3, PROC_GETATTR, HandleArgs(file)))) << what;
        for (uint32_t served : {xid + 1, xid + 2}) {
            ASSERT_TRUE(tcp.ReceiveReply(reply)) << what;
            EXPECT_EQ(served, reply.xid) << what;
            EXPECT_EQ(0u, XdrDecoder(reply.results).GetUint32()) << what;
        }

        ExpectServing(RpcTestClient::TCP, what);
        EXPECT_EQ(before + 1, server.Log().CountContaining("[Nfs3Prog.Process] Data is truncated.Missing")) << what;
    }

    Nfs3TestServer server;
    Bytes root, file;
};

}  // namespace

TEST_F(Nfs3DataBadInput, LengthsNearFourGigabytesAreTruncationNeverAnOverrun) {
    const Bytes dataAbcd = Text("abcd");
    RunCut("READ handle", PROC_READ, Join({Words({0xFFFFFFFF}), file}));
    RunCut("WRITE handle", PROC_WRITE, Join({Words({0xFFFFFFFC}), file, U64(0), Words({4, 2, 4}), dataAbcd}));
    RunCut("WRITE data", PROC_WRITE, Join({HandleArgs(file), U64(0), Words({4, 2, 0xFFFFFFFF}), dataAbcd}));
    RunCut("WRITE data, aligned", PROC_WRITE, Join({HandleArgs(file), U64(0), Words({4, 2, 0xFFFFFFFC}), dataAbcd}));
    RunCut("COMMIT handle", PROC_COMMIT, Join({Words({0xFFFFFFFF}), file, U64(0), Words({4})}));
    RunCut("CREATE name", PROC_CREATE, Join({HandleArgs(root), Words({0xFFFFFFF0}), Text("name"), Words({0})}));
    RunCut("MKDIR name", PROC_MKDIR, Join({HandleArgs(root), Words({0xFFFFFFFF}), Text("name"), NO_ATTRIBUTES}));
    RunCut("REMOVE name", PROC_REMOVE, Join({HandleArgs(root), Words({0xFFFFFFFF}), Text("f")}));
    RunCut("RMDIR name", PROC_RMDIR, Join({HandleArgs(root), Words({0xFFFFFFFF}), Text("d")}));
    RunCut("RENAME from name", PROC_RENAME, Join({HandleArgs(root), Words({0xFFFFFFFF}), DirOpArgs(root, "g")}));
    RunCut("RENAME to handle", PROC_RENAME, Join({DirOpArgs(root, "f"), Words({0xFFFFFFFF}), root}));
    RunCut("RENAME to name", PROC_RENAME, Join({DirOpArgs(root, "f"), HandleArgs(root), Words({0xFFFFFFFF})}));
    RunCut("SYMLINK name", PROC_SYMLINK, Join({HandleArgs(root), Words({0xFFFFFFFF}), Text("link")}));
    RunCut("SYMLINK text", PROC_SYMLINK, Join({DirOpArgs(root, "link"), NO_ATTRIBUTES, Words({0xFFFFFFFF})}));
    RunCut("MKNOD name", PROC_MKNOD, Join({HandleArgs(root), Words({0xFFFFFFFF}), Words({7})}));
    RunCut("LINK file handle", PROC_LINK, Join({Words({0xFFFFFFFF}), file}));
    RunCut("LINK directory handle", PROC_LINK, Join({HandleArgs(file), Words({0xFFFFFFFD}), root}));
    EXPECT_FALSE(PathExists(server.PathOf("name")));
    EXPECT_FALSE(PathExists(server.PathOf("g")));
}

TEST_F(Nfs3DataBadInput, NamesOver255BytesAnswerNameTooLongInEveryProcedure) {
    std::vector<Case> cases;
    for (size_t length : {256, 4095, 4096, 70000}) {
        std::string name(length, 'n');
        std::string n = std::to_string(length) + "-byte name: ";
        // Whatever the length, the name is refused as such: the folder
        // itself is never made, removed or moved.
        cases.push_back({n + "CREATE", PROC_CREATE, Join({DirOpArgs(root, name), Words({0}), NO_ATTRIBUTES}),
                         Words({63, 0, 0})});
        cases.push_back({n + "CREATE GUARDED", PROC_CREATE, Join({DirOpArgs(root, name), Words({1}), NO_ATTRIBUTES}),
                         Words({63, 0, 0})});
        cases.push_back({n + "CREATE EXCLUSIVE", PROC_CREATE, Join({DirOpArgs(root, name), Words({2}), U64(9)}),
                         Words({63, 0, 0})});
        cases.push_back({n + "MKDIR", PROC_MKDIR, Join({DirOpArgs(root, name), NO_ATTRIBUTES}), Words({63, 0, 0})});
        cases.push_back({n + "REMOVE", PROC_REMOVE, DirOpArgs(root, name), Words({63, 0, 0})});
        cases.push_back({n + "RMDIR", PROC_RMDIR, DirOpArgs(root, name), Words({63, 0, 0})});
        cases.push_back({n + "RENAME from", PROC_RENAME, Join({DirOpArgs(root, name), DirOpArgs(root, "g")}),
                         Words({63, 0, 0, 0, 0})});
        cases.push_back({n + "RENAME to", PROC_RENAME, Join({DirOpArgs(root, "f"), DirOpArgs(root, name)}),
                         Words({63, 0, 0, 0, 0})});
        cases.push_back({n + "SYMLINK", PROC_SYMLINK, Join({DirOpArgs(root, name), NO_ATTRIBUTES, Words({0})}),
                         Words({63, 0, 0})});
        cases.push_back({n + "MKNOD", PROC_MKNOD, Join({DirOpArgs(root, name), Words({7}), NO_ATTRIBUTES}),
                         Words({63, 0, 0})});
        cases.push_back({n + "LINK", PROC_LINK, Join({HandleArgs(file), DirOpArgs(root, name)}),
                         Words({63, 0, 0, 0})});
        cases.push_back({n + "LOOKUP", PROC_LOOKUP, DirOpArgs(root, name), Words({63, 0})});
    }
    Run(cases);
    EXPECT_TRUE(PathExists(server.PathOf("d")));
    EXPECT_FALSE(PathExists(server.PathOf("g")));
    // A name of 255 bytes is an ordinary name.
    std::string name(255, 'n');
    RpcReply reply;
    ASSERT_TRUE(server.Call(PROC_MKDIR, Join({DirOpArgs(root, name), NO_ATTRIBUTES}), reply));
    EXPECT_EQ(0u, XdrDecoder(reply.results).GetUint32());
    EXPECT_TRUE(PathExists(server.PathOf(name)));
    ASSERT_TRUE(server.Call(PROC_RMDIR, DirOpArgs(root, name), reply));
    EXPECT_EQ(Words({0, 0, 0}), reply.results);
}

TEST_F(Nfs3DataBadInput, NamesThatAreNoEntryOfTheFolderNeverLeaveIt) {
    // The export's parent folder, reachable by name from the export's root.
    std::string outside = server.Root().substr(0, server.Root().rfind('/'));
    std::string escapee = "escapee-" + std::to_string(getpid());
    std::vector<Case> cases;
    // Names holding "/" are refused as such (NFS3ERR_ACCES); "." and ".."
    // name the folder and its parent, no entry to make, remove or move to.
    for (const std::string& name : {"../" + escapee, "d/../../" + escapee, std::string("."), std::string("..")}) {
        std::string n = "name \"" + name + "\": ";
        const bool slash = name.find('/') != std::string::npos;
        const uint32_t made = slash ? 13 : 5, gone = slash ? 13 : 2;
        cases.push_back({n + "CREATE", PROC_CREATE, Join({DirOpArgs(root, name), Words({0}), NO_ATTRIBUTES}),
                         Words({made, 0, 0})});
        cases.push_back({n + "MKDIR", PROC_MKDIR, Join({DirOpArgs(root, name), NO_ATTRIBUTES}), Words({made, 0, 0})});
        cases.push_back({n + "REMOVE", PROC_REMOVE, DirOpArgs(root, name), Words({gone, 0, 0})});
        cases.push_back({n + "RMDIR", PROC_RMDIR, DirOpArgs(root, name), Words({gone, 0, 0})});
        cases.push_back({n + "RENAME to", PROC_RENAME, Join({DirOpArgs(root, "f"), DirOpArgs(root, name)}),
                         Words({made, 0, 0, 0, 0})});
    }
    Run(cases);
    EXPECT_FALSE(PathExists(outside + "/" + escapee));
    EXPECT_TRUE(PathExists(server.PathOf("d")));
    EXPECT_TRUE(PathExists(server.Root()));

    // A folder handle outside every export is no target of a rename.
    Bytes parent = server.Handle(outside);
    RpcReply reply;
    ASSERT_TRUE(server.Call(PROC_RENAME, Join({DirOpArgs(root, "f"), DirOpArgs(parent, escapee)}), reply));
    EXPECT_EQ(Words({5, 0, 0, 0, 0}), reply.results);
    EXPECT_FALSE(PathExists(outside + "/" + escapee));
    EXPECT_EQ("0123456789", ReadWholeFile(server.PathOf("f")));
}

TEST_F(Nfs3DataBadInput, HandlesOfZeroBytesAreStaleAndOfTwelveAndSixtyFourAreTakenByTheirIdAndVerifier) {
    Bytes longer = file;
    longer.insert(longer.end(), 8, 0xAB);
    Bytes rootLonger = root;
    rootLonger.insert(rootLonger.end(), 8, 0xCD);
    Run({
        {"READ, empty handle", PROC_READ, ReadArgs({}, 0, 10), Words({70, 0})},
        {"WRITE, empty handle", PROC_WRITE, WriteArgs({}, 0, 1, "a"), Words({70, 0, 0})},
        {"COMMIT, empty handle", PROC_COMMIT, ReadArgs({}, 0, 0), Words({5, 0, 0})},
        {"REMOVE, empty handle", PROC_REMOVE, DirOpArgs({}, "f"), Words({70, 0, 0})},
        {"RMDIR, empty handle", PROC_RMDIR, DirOpArgs({}, "d"), Words({70, 0, 0})},
        // The name is left unread; what follows is read from there on.
        {"CREATE, empty handle", PROC_CREATE, Join({DirOpArgs({}, "c"), Words({0}), NO_ATTRIBUTES}),
         Words({70, 0, 0})},
        {"MKDIR, empty handle", PROC_MKDIR, Join({DirOpArgs({}, "c"), NO_ATTRIBUTES}), Words({70, 0, 0})},
        {"RENAME, empty from handle", PROC_RENAME, Join({DirOpArgs({}, "f"), DirOpArgs(root, "g")}),
         Words({70, 0, 0, 0, 0})},
        {"RENAME, empty to handle", PROC_RENAME, Join({DirOpArgs(root, "f"), DirOpArgs({}, "g")}),
         Words({70, 0, 0, 0, 0})},
        {"READ, 12-byte handle", PROC_READ, ReadArgs(Prefix(file, 12), 8, 10),
         Join({Words({0, 0, 2, 1, 2}), Text("89"), Bytes(2, 0)})},
        {"READ, 64-byte handle", PROC_READ, ReadArgs(longer, 0, 3),
         Join({Words({0, 0, 3, 0, 3}), Text("012"), Bytes(1, 0)})},
        {"COMMIT, 64-byte handle", PROC_COMMIT, ReadArgs(longer, 0, 3), Words({5, 0, 0})},
        {"MKNOD, 64-byte handle", PROC_MKNOD, Join({DirOpArgs(rootLonger, "n"), Words({7}), NO_ATTRIBUTES}),
         Words({10004, 0, 0})},
    });
    EXPECT_FALSE(PathExists(server.PathOf("c")));
    EXPECT_FALSE(PathExists(server.PathOf("g")));

    // Changes through short and long handles reach the right files.
    RpcReply reply;
    ASSERT_TRUE(server.Call(PROC_WRITE, WriteArgs(Prefix(file, 12), 10, 2, "ab"), reply));
    EXPECT_EQ(0u, XdrDecoder(reply.results).GetUint32());
    ASSERT_TRUE(server.Call(PROC_WRITE, WriteArgs(longer, 12, 2, "cd"), reply));
    EXPECT_EQ(0u, XdrDecoder(reply.results).GetUint32());
    EXPECT_EQ("0123456789abcd", ReadWholeFile(server.PathOf("f")));
    for (const Bytes& dir : {Prefix(root, 12), rootLonger}) {
        ASSERT_TRUE(server.Call(PROC_CREATE, Join({DirOpArgs(dir, "made"), Words({1}), NO_ATTRIBUTES}), reply));
        EXPECT_EQ(0u, XdrDecoder(reply.results).GetUint32()) << dir.size();
        EXPECT_TRUE(PathExists(server.PathOf("made")));
        ASSERT_TRUE(server.Call(PROC_RENAME, Join({DirOpArgs(dir, "made"), DirOpArgs(dir, "moved")}), reply));
        EXPECT_EQ(Words({0, 0, 0, 0, 0}), reply.results);
        ASSERT_TRUE(server.Call(PROC_REMOVE, DirOpArgs(dir, "moved"), reply));
        EXPECT_EQ(Words({0, 0, 0}), reply.results);
        EXPECT_FALSE(PathExists(server.PathOf("moved")));
    }
}

TEST_F(Nfs3DataBadInput, CookiesPastTheEndListNothing) {
    Bytes folder = server.Handle(server.PathOf("d"));  // one entry
    for (uint64_t cookie : {1ull, 2ull, 100ull, (1ull << 32) + 100, 0x7FFFFFFFull}) {
        for (bool plus : {false, true}) {
            XdrEncoder args;
            args.PutOpaque(folder).PutUint64(cookie).PutUint64(0x1122334455667788ull).PutUint32(4096);
            if (plus) args.PutUint32(8192);
            for (auto t : {RpcTestClient::TCP, RpcTestClient::UDP}) {
                RpcReply reply;
                ASSERT_TRUE(server.Call(plus ? PROC_READDIRPLUS : PROC_READDIR, args.GetBytes(), reply, t));
                XdrDecoder d(reply.results);
                ASSERT_EQ(0u, d.GetUint32()) << cookie;
                EXPECT_TRUE(GetPostOpAttr(d)) << cookie;
                EXPECT_EQ(0x1122334455667788ull, d.GetUint64()) << cookie;
                EXPECT_EQ(0u, d.GetUint32()) << cookie;  // no entry
                EXPECT_EQ(1u, d.GetUint32()) << cookie;  // eof
                EXPECT_EQ(0u, d.Remaining()) << cookie;
                ExpectServing(t, "cookie " + std::to_string(cookie));
            }
        }
    }
}

TEST_F(Nfs3DataBadInput, OffsetsNearTwoToTheSixtyFourAreAtTheEndOrTooBig) {
    std::vector<Case> cases;
    for (uint64_t offset : {~0ull, ~0ull - 9, 1ull << 63, (1ull << 63) - 1, 1ull << 62}) {
        std::string n = "offset " + std::to_string(offset) + ": ";
        cases.push_back({n + "READ", PROC_READ, ReadArgs(file, offset, 10), Words({0, 0, 0, 1, 0})});
        cases.push_back({n + "WRITE", PROC_WRITE, WriteArgs(file, offset, 4, "abcd"), Words({27, 0, 0})});
        cases.push_back({n + "COMMIT", PROC_COMMIT, ReadArgs(file, offset, 4), Words({5, 0, 0})});
    }
    // The answer does not depend on where the file's cached descriptor
    // stands: first at the start of a fresh one, then behind a write.
    LogArgu la{"test"};
    server.Utilities().CloseAllCachedFileHandles(&server.Runtime(), &la);
    Run(cases);
    RpcReply reply;
    ASSERT_TRUE(server.Call(PROC_WRITE, WriteArgs(file, 0, 4, "0123"), reply));
    EXPECT_EQ(0u, XdrDecoder(reply.results).GetUint32());
    Run(cases);
}

TEST_F(Nfs3DataBadInput, ReadCountsLargerThanTheReplyBufferAreInval) {
    std::vector<Case> cases;
    for (uint32_t count : {0xFFFFFFFFu, 0x80000000u, 1048577u, 1048576u}) {
        cases.push_back({"count " + std::to_string(count), PROC_READ, ReadArgs(file, 0, count), Words({22, 0})});
    }
    Run(cases);
    EXPECT_EQ(8, server.Log().Count("[Nfs3Prog.ProcedureREAD] Read fail"));
}
