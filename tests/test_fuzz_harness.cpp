// The send sink of a connection, the harness of the RPC fuzz target, and its
// seed corpus replayed: every seed is a call that the server answers.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "OutputStream.h"
#include "RpcFuzzHarness.h"
#include "RpcTestClient.h"
#include "Socket.h"
#include "TestSupport.h"

namespace {

std::string CorpusDir() {
    std::string here = __FILE__;
    return here.substr(0, here.rfind('/')) + "/../fuzz/corpus";
}

std::vector<std::string> CorpusNames() {
    std::vector<std::string> names;
    if (DIR* dir = opendir(CorpusDir().c_str())) {
        while (dirent* entry = readdir(dir))
            if (entry->d_name[0] != '.') names.push_back(entry->d_name);
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

Bytes ReadSeed(const std::string& name) {
    std::ifstream in(CorpusDir() + "/" + name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The xids of the calls in a seed, in order: every place where a call
// message starts (xid, CALL, RPC version 2, one of the three programs).
std::vector<uint32_t> CallXids(const Bytes& seed) {
    std::vector<uint32_t> xids;
    for (size_t p = 1; p + 16 <= seed.size(); ++p) {
        uint32_t prog = WordAt(seed, p + 12);
        if (WordAt(seed, p + 4) == 0 && WordAt(seed, p + 8) == 2 &&
            (prog == 100000 || prog == 100003 || prog == 100005))
            xids.push_back(WordAt(seed, p));
    }
    return xids;
}

bool IsTcp(const Bytes& seed) { return (seed[0] & RpcFuzzHarness::UDP) == 0; }

// The reply message of one send (the record mark taken off on TCP).
RpcReply Parse(const Bytes& sent, bool tcp) {
    RpcReply reply;
    Bytes message(sent.begin() + (tcp ? 4 : 0), sent.end());
    EXPECT_TRUE(ParseRpcReply(message, reply));
    if (tcp) reply.recordMark = WordAt(sent, 0);
    return reply;
}

Bytes Input(uint8_t selector, const Bytes& bytes) {
    Bytes input{selector};
    input.insert(input.end(), bytes.begin(), bytes.end());
    return input;
}

Bytes MntCall(uint32_t xid) {
    XdrEncoder args;
    args.PutString(RpcFuzzHarness::EXPORT_NAME);
    return WithRecordMark(BuildRpcCall(xid, 100005, 3, 1, args.GetBytes()));
}

class FuzzHarness : public testing::Test {
protected:
    TempDir dir;
    RpcFuzzHarness harness{dir.Path()};
};

}  // namespace

// ---- the send sink of a connection --------------------------------------------

TEST(SocketSendSink, TakesTheWholeOutputOfAConnectionWithoutDescriptor) {
    CSocket socket(CSocket::TYPE_TCP, 100003);
    Bytes taken;
    socket.SetSendSink([&](const unsigned char* data, uint32_t size) -> ssize_t {
        taken.assign(data, data + size);
        return size;
    });
    socket.GetOutputStream()->Write("0123456789", 10);
    socket.Send();
    EXPECT_EQ(Bytes({'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'}), taken);
    EXPECT_EQ(0u, socket.GetOutputStream()->GetBufferSize());
}

TEST(SocketSendSink, PartialTakesAreFollowedByTheRestInOneSend) {
    CSocket socket(CSocket::TYPE_TCP, 100003);
    std::vector<Bytes> sends;
    socket.SetSendSink([&](const unsigned char* data, uint32_t size) -> ssize_t {
        sends.emplace_back(data, data + size);
        return sends.size() == 1 ? 4 : size;
    });
    socket.GetOutputStream()->Write("abcdefghij", 10);
    EXPECT_TRUE(socket.Send());
    ASSERT_EQ(2u, sends.size());
    EXPECT_EQ(Bytes({'e', 'f', 'g', 'h', 'i', 'j'}), sends[1]);
    EXPECT_EQ(0u, socket.GetOutputStream()->GetBufferSize());
}

TEST(SocketSendSink, AFailedSendDropsTheReply) {
    for (int type : {CSocket::TYPE_UDP, CSocket::TYPE_TCP}) {
        CSocket socket(type, 100003);
        socket.SetSendSink([](const unsigned char*, uint32_t) -> ssize_t { return -1; });
        socket.GetOutputStream()->Write("reply", 5);
        EXPECT_FALSE(socket.Send()) << type;
        EXPECT_EQ(0u, socket.GetOutputStream()->GetBufferSize()) << type;
    }
}

TEST(SocketSendSink, WithoutSinkOrDescriptorNothingIsSent) {
    CSocket socket(CSocket::TYPE_UDP, 100003);
    EXPECT_TRUE(socket.Send());  // nothing to send
    socket.GetOutputStream()->Write("reply", 5);
    EXPECT_FALSE(socket.Send());
    EXPECT_EQ(0u, socket.GetOutputStream()->GetBufferSize());
}

// ---- the harness ------------------------------------------------------------------

TEST_F(FuzzHarness, BuildsTheExportOfTheLayoutAndRemovesItWhenDone) {
    std::string exportPath;
    {
        mkdir((dir / "own").c_str(), 0755);
        RpcFuzzHarness own(dir / "own");
        own.Run(Input(RpcFuzzHarness::Selector(RpcFuzzHarness::NFS, RpcFuzzHarness::TCP), {}));
        exportPath = own.ExportPath();
        EXPECT_EQ(100, (int)ReadWholeFile(exportPath + "/file.txt").size());
        EXPECT_EQ(5000, (int)ReadWholeFile(exportPath + "/dir/nested.bin").size());
        EXPECT_TRUE(PathExists(exportPath + "/dir/sub"));
        struct stat st;
        ASSERT_EQ(0, lstat((exportPath + "/socket").c_str(), &st));
        EXPECT_TRUE(S_ISSOCK(st.st_mode));
        EXPECT_TRUE(PathExists(exportPath + "/../outside.txt"));
        char target[64] = "";
        ASSERT_GT(readlink((exportPath + "/link").c_str(), target, sizeof target - 1), 0);
        EXPECT_STREQ("file.txt", target);
    }
    EXPECT_FALSE(PathExists(exportPath));
}

TEST_F(FuzzHarness, EveryRunStartsFromTheSameExportAndFileTable) {
    // Two mounts in two runs: the second is not refused as a second mount by
    // the same client, and the root is file ID 0 with the same verifier both
    // times.
    const Bytes mnt = Input(RpcFuzzHarness::Selector(RpcFuzzHarness::MOUNT, RpcFuzzHarness::TCP), MntCall(7));
    for (int run = 0; run < 2; ++run) {
        harness.Run(mnt);
        ASSERT_EQ(1u, harness.Replies().size());
        RpcReply reply = Parse(harness.Replies()[0], true);
        XdrDecoder results = reply.Results();
        EXPECT_EQ(0u, results.GetUint32()) << run;
        Bytes handle = results.GetOpaque();
        ASSERT_EQ(56u, handle.size());
        // ID 0, then the harness's fixed verifier, so that seeds name files.
        Bytes expected(56, 0);
        memcpy(expected.data() + 4, RpcFuzzHarness::HANDLE_VERIFIER, sizeof RpcFuzzHarness::HANDLE_VERIFIER);
        EXPECT_EQ(expected, handle) << run;
    }
    // A size change of one run is gone in the next.
    harness.Run(ReadSeed("nfs-02-setattr-tcp"));
    EXPECT_EQ(50, (int)ReadWholeFile(harness.ExportPath() + "/file.txt").size());
    harness.Run(ReadSeed("nfs-00-null-tcp"));
    EXPECT_EQ(100, (int)ReadWholeFile(harness.ExportPath() + "/file.txt").size());
}

TEST_F(FuzzHarness, CallSplitOverReceivesIsAnsweredOnceComplete) {
    const Bytes call = MntCall(9);
    for (size_t cut = 1; cut < call.size(); cut += 7) {
        Bytes input{RpcFuzzHarness::Selector(RpcFuzzHarness::MOUNT, RpcFuzzHarness::TCP, 1),
                    (uint8_t)(cut >> 8), (uint8_t)cut};
        input.insert(input.end(), call.begin(), call.end());
        harness.Run(input);
        ASSERT_EQ(1u, harness.Replies().size()) << cut;
        EXPECT_EQ(9u, Parse(harness.Replies()[0], true).xid);
    }
}

TEST_F(FuzzHarness, EmptyReceiveEndsTheStreamButNotTheDatagramService) {
    Bytes datagram = BuildRpcCall(5, 100003, 3, 0);
    for (uint8_t transport : {RpcFuzzHarness::TCP, RpcFuzzHarness::UDP}) {
        Bytes bytes = transport == RpcFuzzHarness::TCP ? WithRecordMark(datagram) : datagram;
        // A first receive of 0 bytes, then the call.
        Bytes input{RpcFuzzHarness::Selector(RpcFuzzHarness::NFS, transport, 1), 0, 0};
        input.insert(input.end(), bytes.begin(), bytes.end());
        harness.Run(input);
        EXPECT_EQ(transport == RpcFuzzHarness::TCP ? 0u : 1u, harness.Replies().size());
    }
}

TEST_F(FuzzHarness, EveryLogCategoryIsWritten) {
    harness.Run(ReadSeed("nfs-17-readdirplus-tcp"));
    EXPECT_GT(harness.LogLines(), 10u);
}

// ---- the seed corpus ----------------------------------------------------------------

TEST_F(FuzzHarness, CorpusHasASeedForEveryProcedure) {
    std::vector<std::string> names = CorpusNames();
    auto has = [&](const std::string& prefix) {
        return std::any_of(names.begin(), names.end(), [&](const std::string& n) { return n.rfind(prefix, 0) == 0; });
    };
    for (int proc = 0; proc <= 21; ++proc) {
        char prefix[16];
        snprintf(prefix, sizeof prefix, "nfs-%02d-", proc);
        EXPECT_TRUE(has(prefix)) << prefix;
    }
    for (const char* p : {"mount-null", "mount-mnt", "mount-dump", "mount-umnt", "mount-umntall", "mount-export",
                          "pmap-null", "pmap-set", "pmap-unset", "pmap-getport", "pmap-dump", "pmap-callit"})
        EXPECT_TRUE(has(p)) << p;
}

TEST_F(FuzzHarness, EverySeedCallIsAnsweredInOrderAndAccepted) {
    std::vector<std::string> names = CorpusNames();
    ASSERT_GT(names.size(), 100u);
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        Bytes seed = ReadSeed(name);
        ASSERT_FALSE(seed.empty());
        harness.Run(seed);
        const bool tcp = IsTcp(seed);
        std::vector<uint32_t> expected = CallXids(seed), answered;
        ASSERT_FALSE(expected.empty());
        uint32_t lastStatus = 0;
        for (const Bytes& sent : harness.Replies()) {
            RpcReply reply = Parse(sent, tcp);
            answered.push_back(reply.xid);
            EXPECT_EQ(1u, reply.msgType);
            EXPECT_EQ(0u, reply.replyStat);
            // Procedures still to be served answer PROC_UNAVAIL.
            EXPECT_TRUE(reply.acceptStat == 0 || reply.acceptStat == 3) << reply.acceptStat;
            lastStatus = reply.acceptStat;
        }
        if (!tcp && (seed[0] >> 4) != 0) continue;  // a runt datagram costs a call: checked elsewhere
        ASSERT_FALSE(answered.empty());
        // On a stream the calls behind one that was not a success wait for
        // the next receive.
        if (tcp && lastStatus != 0) expected.resize(std::min(expected.size(), answered.size()));
        EXPECT_EQ(expected, answered);
    }
}

TEST_F(FuzzHarness, SeedsOfServedProceduresSucceed) {
    struct Expect {
        const char* seed;
        uint32_t acceptStat;
        uint32_t firstResult;  // the first word of the results
    };
    const Expect expects[] = {
        {"pmap-getport-nfs-tcp", 0, 2049},      {"pmap-getport-mount-tcp", 0, 1058},
        {"pmap-getport-unknown-tcp", 0, 0},     {"pmap-getport-udp", 0, 1058},
        {"mount-mnt-tcp", 0, 0},                {"mount-mnt-v1-tcp", 0, 0},
        {"mount-mnt-udp", 0, 0},                {"mount-mnt-unknown-tcp", 0, 13},
        {"nfs-01-getattr-root-tcp", 0, 0},      {"nfs-01-getattr-redirected-udp", 0, 0},
        {"nfs-01-getattr-socket-tcp", 0, 0},    {"nfs-01-getattr-outside-tcp", 0, 5},
        {"nfs-02-setattr-tcp", 0, 0},           {"nfs-03-lookup-tcp", 0, 0},
        {"nfs-03-lookup-dotdot-udp", 0, 0},     {"nfs-04-access-tcp", 0, 0},
        {"nfs-16-readdir-tcp", 0, 0},           {"nfs-17-readdirplus-udp", 0, 0},
        {"nfs-18-fsstat-tcp", 0, 0},            {"nfs-19-fsinfo-tcp", 0, 0},
        {"nfs-20-pathconf-udp", 0, 5},  // always NFS3ERR_IO
    };
    for (const Expect& e : expects) {
        SCOPED_TRACE(e.seed);
        Bytes seed = ReadSeed(e.seed);
        harness.Run(seed);
        ASSERT_EQ(1u, harness.Replies().size());
        RpcReply reply = Parse(harness.Replies()[0], IsTcp(seed));
        EXPECT_EQ(e.acceptStat, reply.acceptStat);
        ASSERT_GE(reply.results.size(), 4u);
        EXPECT_EQ(e.firstResult, WordAt(reply.results, 0));
    }
    // The portmapper's NULL is not served; the unknown NFS procedure neither.
    for (const char* name : {"pmap-null-tcp", "nfs-proc22-tcp", "nfs-version2-tcp"}) {
        harness.Run(ReadSeed(name));
        ASSERT_EQ(1u, harness.Replies().size()) << name;
        EXPECT_EQ(3u, Parse(harness.Replies()[0], true).acceptStat) << name;
    }
}
