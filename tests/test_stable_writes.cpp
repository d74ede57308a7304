// Stable writes: the whole server runs as its own process under a preload
// library that records every write and sync it makes on files and folders
// (with CLOCK_MONOTONIC times); a real NFS client (libnfs) writes and
// changes names, and the test checks that each reply came only after a
// sync of what the call changed, that a pipeline of WRITEs shares its
// syncs, and that a failed sync answers an error. A last group checks that
// replies collected in one output give the same results as alone.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <nfsc/libnfs.h>
#include <nfsc/libnfs-raw.h>
#include <nfsc/libnfs-raw-nfs.h>
#include <poll.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "LibnfsMount.h"
#include "Nfs3TestServer.h"
#include "PrivateNetwork.h"
#include "TestSupport.h"

namespace {

const char* const EXPORT_NAME = "datastore";
const char* const MOUNT_OPTIONS = "nfsport=2049&mountport=1058&auto-traverse-mounts=0";
constexpr uint32_t WRITE_SIZE = 16384;
constexpr int PIPELINE = 16;

long long NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

unsigned long long InodeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (unsigned long long)st.st_ino : 0;
}

// libnfs 4 hands out a file's handle for its RPC layer (nfs_get_fh) but
// leaves the record undefined in its public headers; this is its layout.
struct LibnfsHandle {
    int len;
    char* val;
};

// One line of the recorder.
struct Record {
    std::string call;  // write, fdatasync or fsync
    unsigned long long ino = 0;
    long long offset = 0, length = 0, start = 0, end = 0, result = 0;
};

// A WRITE as the client saw it: where, and when its reply came.
struct SentWrite {
    unsigned long long ino = 0;
    uint64_t offset = 0;
    long long replied = 0;
    int status = 1;  // the callback's status; 1 while no reply came
    // Through the RPC layer of the client: the reply's own status and
    // committed level.
    uint32_t nfsStatus = ~0u;
    uint32_t committed = ~0u;
};

class StableWrites : public testing::Test {
protected:
    void SetUp() override {
        std::string why;
        ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
        log_ = logDir_ / "syncs.log";
    }
    void TearDown() override {
        client_.reset();
        if (host_) {
            host_->CloseInput();
            EXPECT_EQ(0, host_->Finish(0)) << host_->Output();
        }
    }

    // Starts the server under the recorder (syncs of paths holding failing
    // fail) and mounts the export.
    void Start(const std::string& failing = "") {
        int program = open(STABLE_WRITE_HOST, O_RDONLY | O_CLOEXEC);
        ASSERT_NE(-1, program);
        setenv("LD_PRELOAD", SYNC_RECORDER, 1);
        setenv("NFSENGINE_SYNC_LOG", log_.c_str(), 1);
        if (!failing.empty()) setenv("NFSENGINE_SYNC_FAIL", failing.c_str(), 1);
        host_.reset(new ChildProcess);
        bool started = host_->Start(program, "stable_write_host", {export_.Path(), EXPORT_NAME});
        unsetenv("LD_PRELOAD");
        unsetenv("NFSENGINE_SYNC_LOG");
        unsetenv("NFSENGINE_SYNC_FAIL");
        close(program);
        ASSERT_TRUE(started);
        ASSERT_TRUE(host_->ReadUntil("Ready")) << host_->Output();
        client_.reset(new LibnfsMount);
        std::string why;
        ASSERT_TRUE(client_->Mount(MOUNT_OPTIONS, EXPORT_NAME, &why)) << why;
    }
    nfs_context* Nfs() { return client_->Get(); }

    std::vector<Record> Records() {
        std::vector<Record> records;
        std::ifstream in(log_);
        for (std::string line; std::getline(in, line);) {
            std::istringstream fields(line);
            Record r;
            if (fields >> r.call >> r.ino >> r.offset >> r.length >> r.start >> r.end >> r.result) records.push_back(r);
        }
        return records;
    }
    // Successful syncs of ino by call that ran wholly between from and to.
    int SyncsWithin(const std::string& call, unsigned long long ino, long long from, long long to) {
        int n = 0;
        for (const Record& r : Records())
            n += r.call == call && r.ino == ino && r.result == 0 && r.start >= from && r.end <= to;
        return n;
    }

    // Each successful WRITE's reply came after an fdatasync of its file
    // that started once its write() had ended.
    void ExpectSyncedBeforeReply(const std::vector<SentWrite>& writes) {
        const std::vector<Record> records = Records();
        for (const SentWrite& w : writes) {
            ASSERT_EQ((int)WRITE_SIZE, w.status) << "offset " << w.offset;
            const Record* written = nullptr;
            for (const Record& r : records)
                if (r.call == "write" && r.ino == w.ino && r.offset == (long long)w.offset && r.end <= w.replied)
                    written = &r;
            ASSERT_NE(nullptr, written) << "no write() before the reply at offset " << w.offset;
            bool synced = false;
            for (const Record& r : records)
                synced |= r.call == "fdatasync" && r.ino == w.ino && r.result == 0 && r.start >= written->end &&
                          r.end <= w.replied;
            EXPECT_TRUE(synced) << "reply at offset " << w.offset << " left before its data was synced";
        }
    }

    // Sends a WRITE of WRITE_SIZE bytes for each offset at once (all in
    // flight together) and waits for every reply. raw: through the client's
    // RPC layer, which tells the reply's status (the file layer reports
    // every failed WRITE as EFAULT).
    std::vector<SentWrite> Pipeline(const std::vector<std::pair<nfsfh*, uint64_t>>& targets,
                                    const std::vector<unsigned long long>& inodes, bool raw = false) {
        std::vector<SentWrite> writes(targets.size());
        static const std::string data(WRITE_SIZE, 'p');
        auto done = [](int status, nfs_context*, void*, void* self) {
            SentWrite* w = static_cast<SentWrite*>(self);
            w->status = status;
            w->replied = NowNs();
        };
        auto rawDone = [](rpc_context*, int status, void* res, void* self) {
            SentWrite* w = static_cast<SentWrite*>(self);
            w->replied = NowNs();
            w->status = status == RPC_STATUS_SUCCESS ? 0 : -1;
            if (status != RPC_STATUS_SUCCESS || res == nullptr) return;
            const WRITE3res* r = static_cast<const WRITE3res*>(res);
            w->nfsStatus = r->status;
            if (r->status != NFS3_OK) return;
            w->status = (int)r->WRITE3res_u.resok.count;
            w->committed = r->WRITE3res_u.resok.committed;
        };
        for (size_t i = 0; i < targets.size(); ++i) {
            writes[i].ino = inodes[i];
            writes[i].offset = targets[i].second;
            if (!raw) {
                EXPECT_EQ(0, nfs_pwrite_async(Nfs(), targets[i].first, targets[i].second, WRITE_SIZE, data.data(),
                                              done, &writes[i]));
                continue;
            }
            const LibnfsHandle* fh = reinterpret_cast<const LibnfsHandle*>(nfs_get_fh(targets[i].first));
            WRITE3args args{};
            args.file.data.data_len = (u_int)fh->len;
            args.file.data.data_val = fh->val;
            args.offset = targets[i].second;
            args.count = WRITE_SIZE;
            args.stable = UNSTABLE;
            args.data.data_len = WRITE_SIZE;
            args.data.data_val = const_cast<char*>(data.data());
            EXPECT_EQ(0, rpc_nfs3_write_async(nfs_get_rpc_context(Nfs()), rawDone, &args, &writes[i]));
        }
        const long long deadline = NowNs() + 30000000000LL;
        for (;;) {
            bool pending = false;
            for (const SentWrite& w : writes) pending |= w.replied == 0;
            if (!pending || NowNs() > deadline) break;
            pollfd p{nfs_get_fd(Nfs()), (short)nfs_which_events(Nfs()), 0};
            if (poll(&p, 1, 100) < 0) break;
            if (nfs_service(Nfs(), p.revents) < 0) break;
        }
        return writes;
    }

    nfsfh* Open(const std::string& name) {
        nfsfh* fh = nullptr;
        EXPECT_EQ(0, nfs_open(Nfs(), ("/" + name).c_str(), O_RDWR, &fh)) << nfs_get_error(Nfs());
        return fh;
    }

    TempDir export_;
    TempDir logDir_;
    std::string log_;
    std::unique_ptr<ChildProcess> host_;
    std::unique_ptr<LibnfsMount> client_;
};

}  // namespace

TEST_F(StableWrites, EachWriteIsSyncedBeforeItsReplyLeaves) {
    WriteWholeFile(export_ / "single.vmx", "");
    Start();
    const unsigned long long ino = InodeOf(export_ / "single.vmx");
    nfsfh* fh = Open("single.vmx");
    ASSERT_NE(nullptr, fh);
    const std::string data(WRITE_SIZE, 's');
    std::vector<SentWrite> writes;
    const long long from = NowNs();
    for (int i = 0; i < 8; ++i) {
        SentWrite w;
        w.ino = ino;
        w.offset = (uint64_t)i * WRITE_SIZE;
        w.status = nfs_pwrite(Nfs(), fh, w.offset, WRITE_SIZE, data.data());
        w.replied = NowNs();
        writes.push_back(w);
    }
    ExpectSyncedBeforeReply(writes);
    const int syncs = SyncsWithin("fdatasync", ino, from, NowNs());
    printf("1 in flight: %d fdatasync for %zu WRITEs\n", syncs, writes.size());
    EXPECT_EQ((int)writes.size(), syncs);
    nfs_close(Nfs(), fh);
    EXPECT_EQ(std::string(8 * WRITE_SIZE, 's'), ReadWholeFile(export_ / "single.vmx"));
}

TEST_F(StableWrites, PipelinedWritesToOneFileShareTheirSyncs) {
    WriteWholeFile(export_ / "flat.vmdk", "");
    Start();
    const unsigned long long ino = InodeOf(export_ / "flat.vmdk");
    nfsfh* fh = Open("flat.vmdk");
    ASSERT_NE(nullptr, fh);
    std::vector<std::pair<nfsfh*, uint64_t>> targets;
    for (int i = 0; i < PIPELINE; ++i) targets.emplace_back(fh, (uint64_t)i * WRITE_SIZE);
    const long long from = NowNs();
    std::vector<SentWrite> writes = Pipeline(targets, std::vector<unsigned long long>(PIPELINE, ino));
    ExpectSyncedBeforeReply(writes);
    const int syncs = SyncsWithin("fdatasync", ino, from, NowNs());
    printf("%d in flight: %d fdatasync for %d WRITEs\n", PIPELINE, syncs, PIPELINE);
    EXPECT_GE(syncs, 1);
    EXPECT_LE(syncs, PIPELINE / 2) << "the WRITEs of one receive share one sync";
    nfs_close(Nfs(), fh);
    EXPECT_EQ(std::string(PIPELINE * WRITE_SIZE, 'p'), ReadWholeFile(export_ / "flat.vmdk"));
}

TEST_F(StableWrites, AFailedSyncAnswersIoAndLeavesTheOtherRepliesOfItsBatchIntact) {
    WriteWholeFile(export_ / "failing.vmdk", "");
    WriteWholeFile(export_ / "good.vmdk", "");
    Start("failing");
    const unsigned long long bad = InodeOf(export_ / "failing.vmdk");
    const unsigned long long good = InodeOf(export_ / "good.vmdk");
    nfsfh* badFh = Open("failing.vmdk");
    nfsfh* goodFh = Open("good.vmdk");
    ASSERT_TRUE(badFh && goodFh);

    // Alone, through the file layer: the failure reaches the application.
    const std::string data(WRITE_SIZE, 'f');
    EXPECT_GT(0, nfs_pwrite(Nfs(), badFh, 0, WRITE_SIZE, data.data()));
    EXPECT_EQ((int)WRITE_SIZE, nfs_pwrite(Nfs(), goodFh, 0, WRITE_SIZE, data.data())) << nfs_get_error(Nfs());

    // In one pipeline, alternating: the failing file's replies are
    // NFS3ERR_IO, the others FILE_SYNC as ever, each under its own xid.
    std::vector<std::pair<nfsfh*, uint64_t>> targets;
    std::vector<unsigned long long> inodes;
    for (int i = 0; i < PIPELINE; ++i) {
        targets.emplace_back(i % 2 ? badFh : goodFh, (uint64_t)(i / 2) * WRITE_SIZE);
        inodes.push_back(i % 2 ? bad : good);
    }
    std::vector<SentWrite> writes = Pipeline(targets, inodes, true);
    std::vector<SentWrite> goodWrites;
    for (int i = 0; i < PIPELINE; ++i) {
        if (i % 2) {
            EXPECT_EQ(5u, writes[i].nfsStatus) << i;  // NFS3ERR_IO
        } else {
            EXPECT_EQ(0u, writes[i].nfsStatus) << i;
            EXPECT_EQ(2u, writes[i].committed) << i;  // FILE_SYNC
            goodWrites.push_back(writes[i]);
        }
    }
    ExpectSyncedBeforeReply(goodWrites);
    // Nothing after the failure is out of step: the connection still serves.
    EXPECT_EQ((int)WRITE_SIZE, nfs_pwrite(Nfs(), goodFh, 0, WRITE_SIZE, data.data())) << nfs_get_error(Nfs());
    nfs_close(Nfs(), badFh);
    nfs_close(Nfs(), goodFh);
}

TEST_F(StableWrites, NameChangesSyncTheirFoldersAndNewFilesBeforeTheReply) {
    Start();
    const unsigned long long root = InodeOf(export_.Path());

    long long from = NowNs();
    ASSERT_EQ(0, nfs_mkdir(Nfs(), "/sub")) << nfs_get_error(Nfs());
    EXPECT_EQ(1, SyncsWithin("fsync", root, from, NowNs())) << "MKDIR";
    const unsigned long long sub = InodeOf(export_ / "sub");

    from = NowNs();
    nfsfh* fh = nullptr;
    ASSERT_EQ(0, nfs_creat(Nfs(), "/sub/new.vmx", 0644, &fh)) << nfs_get_error(Nfs());
    long long to = NowNs();
    const unsigned long long created = InodeOf(export_ / "sub/new.vmx");
    EXPECT_GE(SyncsWithin("fsync", sub, from, to), 1) << "CREATE: its folder";
    EXPECT_GE(SyncsWithin("fdatasync", created, from, to), 1) << "CREATE: the new file";
    nfs_close(Nfs(), fh);

    from = NowNs();
    ASSERT_EQ(0, nfs_rename(Nfs(), "/sub/new.vmx", "/moved.vmx")) << nfs_get_error(Nfs());
    to = NowNs();
    EXPECT_EQ(1, SyncsWithin("fsync", sub, from, to)) << "RENAME: the source folder";
    EXPECT_EQ(1, SyncsWithin("fsync", root, from, to)) << "RENAME: the target folder";

    from = NowNs();
    ASSERT_EQ(0, nfs_unlink(Nfs(), "/moved.vmx")) << nfs_get_error(Nfs());
    EXPECT_EQ(1, SyncsWithin("fsync", root, from, NowNs())) << "REMOVE";

    from = NowNs();
    ASSERT_EQ(0, nfs_rmdir(Nfs(), "/sub")) << nfs_get_error(Nfs());
    EXPECT_EQ(1, SyncsWithin("fsync", root, from, NowNs())) << "RMDIR";
    EXPECT_FALSE(PathExists(export_ / "sub"));
}

TEST_F(StableWrites, SetattrOfTheSizeSyncsTheFile) {
    WriteWholeFile(export_ / "disk.vmdk", std::string(1000, 'd'));
    Start();
    const unsigned long long ino = InodeOf(export_ / "disk.vmdk");
    const long long from = NowNs();
    ASSERT_EQ(0, nfs_truncate(Nfs(), "/disk.vmdk", 100)) << nfs_get_error(Nfs());
    EXPECT_EQ(1, SyncsWithin("fdatasync", ino, from, NowNs()));
    EXPECT_EQ(std::string(100, 'd'), ReadWholeFile(export_ / "disk.vmdk"));
}

TEST_F(StableWrites, ASizeChangeAndWritesOfOneFileInOnePipelineAllReachTheFile) {
    // The size change brings the file into the batch through a descriptor
    // opened only to sync it; the writes behind it must not be lent that one.
    WriteWholeFile(export_ / "grown.vmdk", std::string(4 * WRITE_SIZE, 'o'));
    Start();
    const unsigned long long ino = InodeOf(export_ / "grown.vmdk");
    nfsfh* fh = Open("grown.vmdk");
    ASSERT_NE(nullptr, fh);
    int truncated = 1;
    auto done = [](int status, nfs_context*, void*, void* result) { *static_cast<int*>(result) = status; };
    ASSERT_EQ(0, nfs_ftruncate_async(Nfs(), fh, 2 * WRITE_SIZE, done, &truncated));
    std::vector<std::pair<nfsfh*, uint64_t>> targets;
    for (int i = 0; i < PIPELINE; ++i) targets.emplace_back(fh, (uint64_t)i * WRITE_SIZE);
    std::vector<SentWrite> writes = Pipeline(targets, std::vector<unsigned long long>(PIPELINE, ino));
    EXPECT_EQ(0, truncated);
    ExpectSyncedBeforeReply(writes);
    nfs_close(Nfs(), fh);
    EXPECT_EQ(std::string(PIPELINE * WRITE_SIZE, 'p'), ReadWholeFile(export_ / "grown.vmdk"));
}

TEST_F(StableWrites, AFailedFolderSyncAnswersIo) {
    Start("failing");
    EXPECT_EQ(0, nfs_mkdir(Nfs(), "/failing")) << nfs_get_error(Nfs());
    // The entry is made, but its folder cannot be synced.
    nfsfh* fh = nullptr;
    EXPECT_GT(0, nfs_creat(Nfs(), "/failing/new.vmx", 0644, &fh));
    EXPECT_NE(std::string::npos, std::string(nfs_get_error(Nfs())).find("NFS3ERR_IO")) << nfs_get_error(Nfs());
    EXPECT_GT(0, nfs_mkdir(Nfs(), "/failing/sub"));
    EXPECT_NE(std::string::npos, std::string(nfs_get_error(Nfs())).find("NFS3ERR_IO")) << nfs_get_error(Nfs());
}

// ---- replies collected in one output ---------------------------------------------------

namespace {

using namespace nfs3wire;

class BatchedReplies : public testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(server.Start(&err)) << err;
    }

    // The calls sent at once on the shared TCP connection; their replies'
    // results, in order (xids checked).
    std::vector<Bytes> Pipeline(uint32_t proc, const std::vector<Bytes>& args) {
        RpcTestClient& client = server.Client(RpcTestClient::TCP);
        Bytes all;
        std::vector<uint32_t> xids;
        for (const Bytes& a : args) {
            xids.push_back(server.NextXid());
            Bytes record = WithRecordMark(BuildRpcCall(xids.back(), PROGRAM, 3, proc, a));
            all.insert(all.end(), record.begin(), record.end());
        }
        EXPECT_TRUE(client.SendRaw(all));
        std::vector<Bytes> results;
        for (uint32_t xid : xids) {
            RpcReply reply;
            if (!client.ReceiveReply(reply)) {
                ADD_FAILURE() << "no reply for xid " << xid;
                break;
            }
            EXPECT_EQ(xid, reply.xid);
            EXPECT_EQ(0u, reply.acceptStat);
            results.push_back(reply.results);
        }
        return results;
    }

    Nfs3TestServer server;
};

}  // namespace

TEST_F(BatchedReplies, AReadBehindOthersInOneReceiveAnswersAsItWouldAlone) {
    WriteWholeFile(server.PathOf("f"), "0123456789");
    Bytes file = server.Handle(server.PathOf("f"));
    // The largest count a READ may ask for alone over TCP, and one more.
    const uint32_t room = 1048576 - 28 - 4 - 16;
    const Bytes fits = server.Results(PROC_READ, ReadArgs(file, 0, room));
    const Bytes over = server.Results(PROC_READ, ReadArgs(file, 0, room + 1));
    ASSERT_EQ(Words({22, 0}), over);
    const Bytes small = server.Results(PROC_READ, ReadArgs(file, 2, 5));

    std::vector<Bytes> args(15, ReadArgs(file, 2, 5));
    args.push_back(ReadArgs(file, 0, room));
    args.push_back(ReadArgs(file, 0, room + 1));
    std::vector<Bytes> results = Pipeline(PROC_READ, args);
    ASSERT_EQ(args.size(), results.size());
    for (int i = 0; i < 15; ++i) EXPECT_EQ(small, results[i]) << i;
    EXPECT_EQ(fits, results[15]);
    EXPECT_EQ(over, results[16]);
}

TEST_F(BatchedReplies, LargeReadsOfOneReceiveOverflowNoBufferAndAllArrive) {
    std::string data;
    for (int i = 0; i < 65536 * 2; ++i) data.push_back((char)('a' + i % 23));
    WriteWholeFile(server.PathOf("big"), data);
    Bytes file = server.Handle(server.PathOf("big"));
    // 24 replies of 64 KiB are more than one output buffer holds.
    std::vector<Bytes> args;
    for (int i = 0; i < 24; ++i) args.push_back(ReadArgs(file, (uint64_t)(i % 2) * 65536, 65536));
    std::vector<Bytes> results = Pipeline(PROC_READ, args);
    ASSERT_EQ(args.size(), results.size());
    for (int i = 0; i < 24; ++i) {
        XdrDecoder d(results[i]);
        ASSERT_EQ(0u, d.GetUint32()) << i;
        EXPECT_EQ(0u, d.GetUint32());  // no attributes
        EXPECT_EQ(65536u, d.GetUint32());
        d.GetUint32();  // eof
        Bytes got = d.GetOpaque();
        EXPECT_EQ(data.substr((size_t)(i % 2) * 65536, 65536), std::string(got.begin(), got.end())) << i;
    }
}

TEST_F(BatchedReplies, PipelinedWritesAreAnsweredInOrderFileSync) {
    WriteWholeFile(server.PathOf("w"), "");
    Bytes file = server.Handle(server.PathOf("w"));
    std::vector<Bytes> args;
    for (int i = 0; i < 16; ++i) args.push_back(WriteArgs(file, (uint64_t)i * 4, 4, std::string(4, (char)('A' + i))));
    std::vector<Bytes> results = Pipeline(PROC_WRITE, args);
    ASSERT_EQ(args.size(), results.size());
    for (const Bytes& r : results) {
        XdrDecoder d(r);
        EXPECT_EQ(0u, d.GetUint32());
        d.GetUint32();
        d.GetUint32();
        EXPECT_EQ(4u, d.GetUint32());
        EXPECT_EQ(2u, d.GetUint32());  // FILE_SYNC
    }
    EXPECT_EQ("AAAABBBBCCCCDDDDEEEEFFFFGGGGHHHHIIIIJJJJKKKKLLLLMMMMNNNNOOOOPPPP", ReadWholeFile(server.PathOf("w")));
}
