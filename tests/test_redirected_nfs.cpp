// Redirected files served by the whole server (started through the
// controller) to real clients: libnfs reads a virtual disk assembled from
// three sparse sources, holes and a range without source, byte for byte; its
// size over NFS is the declared one; the changes a client makes (WRITE,
// SETATTR of size, times and mode, REMOVE, RENAME) reach the controller's
// callback with their exact fields, and its answer decides the NFS result.
// Wire-level calls (an RPC client speaking MOUNT and NFS) check the exact
// statuses and counts. The server uses its fixed ports, so every test runs
// in a network namespace of its own.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <nfsc/libnfs.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "LibnfsMount.h"
#include "Nfs3TestServer.h"
#include "NfsMain.h"
#include "NotificationRecorder.h"
#include "PrivateNetwork.h"
#include "RpcTestClient.h"
#include "TestSupport.h"
#include "Utilities.h"

namespace {

using Call = NotificationRecorder::Call;
using nfs3wire::Join;

const char* const EXPORT_NAME = "datastore";
const char* const MOUNT_OPTIONS = "nfsport=2049&mountport=1058&auto-traverse-mounts=0";
constexpr long long MiB = 1LL << 20;
constexpr long long GiB = 1LL << 30;
constexpr int NFS_PORT = 2049;
constexpr int MOUNT_PORT = 1058;

enum : uint32_t { NFS3_OK = 0, NFS3ERR_IO = 5, NFS3ERR_INVAL = 22, NFS3ERR_NOT_SYNC = 10002 };

uint64_t Mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// Bytes of the content numbered seed at [offset, offset + n): every
// position of every content has its own byte.
std::string Content(uint64_t seed, uint64_t offset, size_t n) {
    std::string out(n, '\0');
    for (size_t i = 0; i < n;) {
        uint64_t p = offset + i;
        uint64_t word = Mix((seed << 40) ^ (p / 8));
        for (unsigned b = (unsigned)(p % 8); b < 8 && i < n; ++b, ++i) out[i] = (char)(word >> (8 * b));
    }
    return out;
}

// A 64-bit checksum of the bytes and their length, taken eight at a time.
uint64_t Checksum(const std::string& bytes) {
    const char* p = bytes.data();
    size_t n = bytes.size();
    uint64_t h = Mix(n);
    for (; n >= 8; p += 8, n -= 8) {
        uint64_t word;
        memcpy(&word, p, 8);
        h = Mix(h ^ word);
    }
    uint64_t last = 0;
    memcpy(&last, p, n);
    return Mix(h ^ last);
}

// Position of the first byte where a and b differ, or their common length.
size_t FirstDifference(const std::string& a, const std::string& b) {
    size_t n = std::min(a.size(), b.size());
    if (memcmp(a.data(), b.data(), n) == 0) return n;
    size_t at = 0;
    while (a[at] == b[at]) ++at;
    return at;
}

// A sparse file of size bytes whose content numbered seed is written only
// in the ranges given; the rest are holes that read as zeros.
void WriteSparse(const std::string& path, uint64_t seed, long long size,
                 const std::vector<std::pair<long long, long long>>& ranges) {
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_NE(-1, fd) << path;
    ASSERT_EQ(0, ftruncate(fd, size));
    for (const auto& r : ranges) {
        std::string bytes = Content(seed, (uint64_t)r.first, (size_t)r.second);
        ASSERT_EQ((ssize_t)bytes.size(), pwrite(fd, bytes.data(), bytes.size(), r.first));
    }
    close(fd);
}

std::string LocalRange(const std::string& path, long long offset, long long n) {
    std::string out((size_t)n, '\0');
    int fd = open(path.c_str(), O_RDONLY);
    EXPECT_NE(-1, fd) << path;
    if (fd == -1) return out;
    EXPECT_EQ((ssize_t)n, pread(fd, &out[0], (size_t)n, offset)) << path;
    close(fd);
    return out;
}

long long LocalSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (long long)st.st_size : -1;
}

// Answers every notification with the recorder's answer, except that writes
// may be answered with their own length (a controller that takes them all).
class Controller : public NotificationRecorder {
public:
    int WriteRedirectedFile(const char* id, const char* path, unsigned long long iSeek, int iSeekType,
                            unsigned int iLen) override {
        int answer = NotificationRecorder::WriteRedirectedFile(id, path, iSeek, iSeekType, iLen);
        return m_acceptWrites ? (int)iLen : answer;
    }
    void AcceptWrites(bool accept) { m_acceptWrites = accept; }

private:
    std::atomic<bool> m_acceptWrites{false};
};

Call WriteCall(const std::string& path, unsigned long long seek, unsigned int len) {
    Call c;
    c.op = "write";
    c.id = EXPORT_NAME;
    c.path = path;
    c.iSeek = seek;
    c.iLen = len;
    return c;
}

Call AttributesCall(const std::string& path, bool bSize, unsigned long long size, bool bAtime, unsigned long atime,
                    bool bMtime, unsigned long mtime) {
    Call c;
    c.op = "attributes";
    c.id = EXPORT_NAME;
    c.path = path;
    c.bSize = bSize;
    c.iSize = size;
    c.bAccessTime = bAtime;
    c.lAccessTimeSec = atime;
    c.bLastModifiedTime = bMtime;
    c.lLastModifiedTimeSec = mtime;
    return c;
}

Call RemoveCall(const std::string& path) {
    Call c;
    c.op = "remove";
    c.id = EXPORT_NAME;
    c.path = path;
    return c;
}

Call RenameCall(const std::string& from, const std::string& to) {
    Call c;
    c.op = "rename";
    c.id = EXPORT_NAME;
    c.path = from;
    c.pathTo = to;
    return c;
}

// MOUNT and NFS calls on the wire, for the exact fields of the replies.
class WireClient {
public:
    WireClient() : m_mount(RpcTestClient::TCP, MOUNT_PORT), m_nfs(RpcTestClient::TCP, NFS_PORT) {}

    // The export's root handle from MNT.
    Bytes Mount() {
        XdrEncoder args;
        args.PutString(EXPORT_NAME);
        RpcReply reply;
        if (!m_mount.Call(++m_xid, 100005, 3, 1, args.GetBytes(), reply)) {
            ADD_FAILURE() << "no MNT reply";
            return {};
        }
        XdrDecoder d = reply.Results();
        EXPECT_EQ(0u, d.GetUint32());
        return d.GetOpaque();
    }
    // The handle of name in the folder of dir, from LOOKUP.
    Bytes Lookup(const Bytes& dir, const std::string& name) {
        XdrDecoder d = Results(nfs3wire::PROC_LOOKUP, nfs3wire::DirOpArgs(dir, name));
        EXPECT_EQ(NFS3_OK, d.GetUint32()) << name;
        return d.GetOpaque();
    }
    // The reply body of one NFS call.
    XdrDecoder Results(uint32_t proc, const Bytes& args) {
        RpcReply reply;
        if (!m_nfs.Call(++m_xid, nfs3wire::PROGRAM, 3, proc, args, reply)) ADD_FAILURE() << "no reply to " << proc;
        EXPECT_EQ(0u, reply.acceptStat);
        return reply.Results();
    }
    Bytes ResultBytes(uint32_t proc, const Bytes& args) {
        XdrDecoder d = Results(proc, args);
        Bytes rest;
        while (d.Remaining() > 0) {
            uint32_t w = d.GetUint32();
            for (int shift = 24; shift >= 0; shift -= 8) rest.push_back((uint8_t)(w >> shift));
        }
        return rest;
    }

private:
    RpcTestClient m_mount;
    RpcTestClient m_nfs;
    uint32_t m_xid = 0x5000;
};

Bytes Words(std::initializer_list<uint32_t> words) {
    XdrEncoder e;
    for (uint32_t w : words) e.PutUint32(w);
    return e.GetBytes();
}

// SETATTR arguments: handle, sattr3 (mode, uid, gid, size, atime, mtime),
// guard. A time_how of 2 sends the given seconds and nanoseconds.
struct SetAttr {
    bool setMode = false;
    uint32_t mode = 0;
    bool setSize = false;
    uint64_t size = 0;
    uint32_t atimeHow = 0, atimeSec = 0, atimeNsec = 0;
    uint32_t mtimeHow = 0, mtimeSec = 0, mtimeNsec = 0;
    bool guard = false;
    uint32_t guardSec = 0;
};

Bytes SetAttrArgs(const Bytes& handle, const SetAttr& a) {
    XdrEncoder e;
    e.PutOpaque(handle);
    e.PutUint32(a.setMode ? 1 : 0);
    if (a.setMode) e.PutUint32(a.mode);
    e.PutUint32(0).PutUint32(0);  // uid, gid unset
    e.PutUint32(a.setSize ? 1 : 0);
    if (a.setSize) e.PutUint64(a.size);
    e.PutUint32(a.atimeHow);
    if (a.atimeHow == 2) e.PutUint32(a.atimeSec).PutUint32(a.atimeNsec);
    e.PutUint32(a.mtimeHow);
    if (a.mtimeHow == 2) e.PutUint32(a.mtimeSec).PutUint32(a.mtimeNsec);
    e.PutUint32(a.guard ? 1 : 0);
    if (a.guard) e.PutUint32(a.guardSec).PutUint32(0);
    return e.GetBytes();
}

// A WRITE reply: status, wcc_data both absent, then on success the count,
// the committed level and the verifier.
struct WriteReply {
    uint32_t status = ~0u;
    uint32_t count = 0;
    uint32_t committed = 0;
};

WriteReply ParseWrite(XdrDecoder d) {
    WriteReply w;
    w.status = d.GetUint32();
    EXPECT_EQ(0u, d.GetUint32());  // before absent
    EXPECT_EQ(0u, d.GetUint32());  // after absent
    if (w.status == NFS3_OK) {
        w.count = d.GetUint32();
        w.committed = d.GetUint32();
        d.GetUint64();
    }
    EXPECT_EQ(0u, d.Remaining());
    return w;
}

class RedirectedNfs : public testing::Test {
protected:
    void SetUp() override {
        std::string why;
        ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
        root_ = Canonical(export_.Path());
        char err[ERROR_TEXT_SIZE] = "";
        ASSERT_TRUE(main_.Initial(err)) << err;
        ASSERT_TRUE(main_.StartServer(0, 0, 0, 0, false, err)) << err;  // 2049 and 1058
        ASSERT_TRUE(main_.AddMountPoint(root_.c_str(), EXPORT_NAME, err)) << err;
    }
    void TearDown() override {
        main_.StopServer();
        main_.SetCallback(nullptr);
    }

    std::string PathOf(const std::string& name) const { return root_ + "/" + name; }

    void Mount(LibnfsMount& client) {
        std::string why;
        ASSERT_TRUE(client.Mount(MOUNT_OPTIONS, EXPORT_NAME, &why)) << why;
    }

    // A registered redirected file named name with an existing local file
    // holding local, its segments kept in memory.
    std::string Register(const std::string& name, long long size, const std::string& local = "local bytes") {
        std::string path = PathOf(name);
        WriteWholeFile(path, local);
        main_.OpenRedirectedFile(path.c_str(), size, false, 0, 0);
        EXPECT_NE(nullptr, main_.GetUtils()->GetRedirectedFile(path.c_str()));
        return path;
    }

    bool Registered(const std::string& path) { return main_.GetUtils()->GetRedirectedFile(path.c_str()) != nullptr; }

    TempDir export_;
    TempDir sources_;
    std::string root_;
    Controller controller_;
    CNfsMain main_{"redirected-nfs-test", CRuntimeParam::LOG_ERROR};
};

// ---- reading --------------------------------------------------------------------------

// One segment of the layout: the bytes of source (-1: none) from fox on,
// placed gap bytes after the end of the previous segment.
struct Piece {
    int source;
    long long fox;
    long long length;
    long long gap;
};

TEST_F(RedirectedNfs, AClientReadsTheAssembledBytesOfSparseSourcesHolesAndARangeWithoutSource) {
    // Three sparse 16 MiB sources, each with data in three ranges that the
    // segments below cross into and out of.
    std::vector<std::string> sources;
    for (int i = 0; i < 3; ++i) {
        sources.push_back(Canonical(sources_.Path()) + "/source" + std::to_string(i) + ".vmdk");
        WriteSparse(sources.back(), 10 + (uint64_t)i, 16 * MiB,
                    {{0, 3 * MiB / 2}, {7 * MiB / 2 + i * 4099, 3 * MiB / 2}, {10 * MiB, 2 * MiB + 123}});
    }
    // 1 MiB blocks, a checkpoint every 4 MiB; the holes are shorter than a
    // block, so that every block holds a record. The last segment runs
    // past the size and is clipped to end there.
    const long long size = 11 * MiB + 4321;
    const std::vector<Piece> layout = {
        {0, 3 * MiB + 17, MiB + 300000, 0}, {1, 5, 2 * MiB + 5, 200000}, {-1, 0, 700001, 0},
        {2, 9 * MiB + 3, 3 * MiB, 0},       {0, 0, MiB, 65543},          {1, 11 * MiB + 1, 1500000, 1},
        {2, 2 * MiB, 10 * MiB, 333},
    };
    std::string disk = PathOf("vm-flat.vmdk");
    WriteWholeFile(disk, "");  // the info file: the local file at the path
    main_.OpenRedirectedFile(disk.c_str(), size, true, 1, 4);

    std::string reference((size_t)size, '\0');
    long long ox = 0;
    int records = 0;
    for (const Piece& p : layout) {
        ox += p.gap;
        ASSERT_LT(p.gap, MiB);
        char err[ERROR_TEXT_SIZE] = "";
        const char* source = p.source < 0 ? "" : sources[(size_t)p.source].c_str();
        ASSERT_TRUE(main_.AddRedirectedFileSegment(disk.c_str(), source, p.fox, ox, p.length, err)) << err;
        long long length = std::min(p.length, size - ox);
        if (p.source >= 0) reference.replace((size_t)ox, (size_t)length, LocalRange(source, p.fox, length));
        records += (int)((ox + length - 1) / MiB - ox / MiB + 1);
        ox += length;
    }
    ASSERT_EQ(size, ox);
    EXPECT_EQ(records * 28LL, LocalSize(disk));

    LibnfsMount client;
    Mount(client);
    struct nfs_stat_64 st;
    ASSERT_EQ(0, nfs_stat64(client.Get(), "/vm-flat.vmdk", &st)) << nfs_get_error(client.Get());
    EXPECT_EQ((uint64_t)size, st.nfs_size);

    struct nfsfh* fh = nullptr;
    ASSERT_EQ(0, nfs_open(client.Get(), "/vm-flat.vmdk", O_RDONLY, &fh)) << nfs_get_error(client.Get());
    // The whole file, sequentially, to its end.
    std::string whole;
    std::string buffer((size_t)MiB, '\0');
    for (;;) {
        int n = nfs_pread(client.Get(), fh, whole.size(), buffer.size(), &buffer[0]);
        ASSERT_GE(n, 0) << nfs_get_error(client.Get());
        if (n == 0) break;
        whole.append(buffer, 0, (size_t)n);
        ASSERT_LE((long long)whole.size(), size);
    }
    ASSERT_EQ((size_t)size, whole.size());
    EXPECT_EQ(Checksum(reference), Checksum(whole));
    EXPECT_EQ((size_t)size, FirstDifference(reference, whole));

    // Random ranges, some starting in holes or running past the end.
    std::mt19937_64 gen(20240611);
    for (int i = 0; i < 150; ++i) {
        long long offset = (long long)(gen() % (uint64_t)size);
        long long length = 1 + (long long)(gen() % 300000);
        long long expected = std::min(length, size - offset);
        std::string got((size_t)length, '\x5A');
        int n = nfs_pread(client.Get(), fh, (uint64_t)offset, (uint64_t)length, &got[0]);
        ASSERT_EQ(expected, n) << "offset " << offset << " length " << length << " " << nfs_get_error(client.Get());
        EXPECT_TRUE(got.compare(0, (size_t)expected, reference, (size_t)offset, (size_t)expected) == 0)
            << "offset " << offset << " length " << length;
    }
    EXPECT_EQ(0, nfs_pread(client.Get(), fh, (uint64_t)size, 100, &buffer[0]));
    nfs_close(client.Get(), fh);
}

TEST_F(RedirectedNfs, ItsSizeIsTheDeclaredSizeWhileItsLocalFileHoldsTheSegmentRecords) {
    std::string source = sources_ / "source";
    WriteWholeFile(source, "0123456789");
    std::string disk = PathOf("big.vmdk");
    WriteWholeFile(disk, "");
    const long long size = 5 * GiB + 3;  // beyond 32 bits
    main_.OpenRedirectedFile(disk.c_str(), size, true, 0, 0);
    char err[ERROR_TEXT_SIZE] = "";
    // 32 MiB blocks: 1 + 3 + 1 records.
    ASSERT_TRUE(main_.AddRedirectedFileSegment(disk.c_str(), source.c_str(), 0, 0, 10, err)) << err;
    ASSERT_TRUE(main_.AddRedirectedFileSegment(disk.c_str(), source.c_str(), 0, 16 * MiB, 64 * MiB, err)) << err;
    ASSERT_TRUE(main_.AddRedirectedFileSegment(disk.c_str(), "", 0, 5 * GiB, 100, err)) << err;
    ASSERT_EQ(5 * 28, LocalSize(disk));

    LibnfsMount client;
    Mount(client);
    // GETATTR: the declared size, used as much.
    struct nfs_stat_64 st;
    ASSERT_EQ(0, nfs_stat64(client.Get(), "/big.vmdk", &st)) << nfs_get_error(client.Get());
    EXPECT_EQ((uint64_t)size, st.nfs_size);
    EXPECT_EQ((uint64_t)size, st.nfs_used);
    EXPECT_TRUE(S_ISREG(st.nfs_mode));
    // READDIRPLUS: the same.
    struct nfsdir* dir = nullptr;
    ASSERT_EQ(0, nfs_opendir(client.Get(), "/", &dir)) << nfs_get_error(client.Get());
    uint64_t listed = 0;
    int seen = 0;
    while (struct nfsdirent* e = nfs_readdir(client.Get(), dir)) {
        if (std::string(e->name) == "big.vmdk") {
            uint64_t entrySize;
            memcpy(&entrySize, &e->size, sizeof entrySize);  // the entry may sit unaligned
            listed = entrySize;
            ++seen;
        }
    }
    nfs_closedir(client.Get(), dir);
    EXPECT_EQ(1, seen);
    EXPECT_EQ((uint64_t)size, listed);
    // The end of the file is at the declared size.
    struct nfsfh* fh = nullptr;
    ASSERT_EQ(0, nfs_open(client.Get(), "/big.vmdk", O_RDONLY, &fh)) << nfs_get_error(client.Get());
    char tail[16];
    EXPECT_EQ(3, nfs_pread(client.Get(), fh, (uint64_t)size - 3, sizeof tail, tail));
    EXPECT_EQ(0, nfs_pread(client.Get(), fh, (uint64_t)size, sizeof tail, tail));
    char head[16];
    ASSERT_EQ(16, nfs_pread(client.Get(), fh, 0, sizeof head, head));
    EXPECT_EQ(std::string("0123456789") + std::string(6, '\0'), std::string(head, sizeof head));

    // Closed by the controller, the path is a plain file again: the client
    // sees the records themselves.
    main_.CloseRedirectedFile(disk.c_str());
    ASSERT_EQ(0, nfs_fstat64(client.Get(), fh, &st)) << nfs_get_error(client.Get());
    EXPECT_EQ(5u * 28u, st.nfs_size);
    std::string records(5 * 28, '\0');
    ASSERT_EQ(5 * 28, nfs_pread(client.Get(), fh, 0, records.size(), &records[0]));
    EXPECT_TRUE(records == ReadWholeFile(disk));
    nfs_close(client.Get(), fh);
}

TEST_F(RedirectedNfs, ARegisteredPathIsFoundOnlyWhileItsLocalFileExists) {
    std::string source = sources_ / "source";
    WriteWholeFile(source, "ABCDEFGHIJ");
    std::string disk = PathOf("disk.vmdk");
    // Segments in memory: no local file is needed to add them.
    main_.OpenRedirectedFile(disk.c_str(), 100, false, 0, 0);
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(main_.AddRedirectedFileSegment(disk.c_str(), source.c_str(), 2, 40, 5, err)) << err;

    LibnfsMount client;
    Mount(client);
    struct nfs_stat_64 st;
    EXPECT_NE(0, nfs_stat64(client.Get(), "/disk.vmdk", &st));
    struct nfsfh* fh = nullptr;
    EXPECT_NE(0, nfs_open(client.Get(), "/disk.vmdk", O_RDONLY, &fh));

    WriteWholeFile(disk, "a local file of its own");
    ASSERT_EQ(0, nfs_stat64(client.Get(), "/disk.vmdk", &st)) << nfs_get_error(client.Get());
    EXPECT_EQ(100u, st.nfs_size);
    ASSERT_EQ(0, nfs_open(client.Get(), "/disk.vmdk", O_RDONLY, &fh)) << nfs_get_error(client.Get());
    std::string got(200, 'x');
    ASSERT_EQ(100, nfs_pread(client.Get(), fh, 0, got.size(), &got[0]));
    EXPECT_EQ(std::string(40, '\0') + "CDEFG" + std::string(55, '\0'), got.substr(0, 100));
    nfs_close(client.Get(), fh);
}

// ---- changes through a real client --------------------------------------------------

TEST_F(RedirectedNfs, WritesAreReportedWithTheirPositionAndLengthAndTheAnswerIsTheCount) {
    main_.SetCallback(&controller_);
    std::string disk = Register("disk.vmdk", 8 * GiB);
    LibnfsMount client;
    Mount(client);
    ASSERT_EQ(16384u, nfs_get_writemax(client.Get()));
    struct nfsfh* fh = nullptr;
    ASSERT_EQ(0, nfs_open(client.Get(), "/disk.vmdk", O_WRONLY, &fh)) << nfs_get_error(client.Get());

    // The client splits 40000 bytes into WRITEs of at most 16384 bytes;
    // each is reported and taken whole.
    controller_.AcceptWrites(true);
    const unsigned long long at = 5 * GiB + 1;
    std::string data = Content(1, 0, 40000);
    EXPECT_EQ(40000, nfs_pwrite(client.Get(), fh, at, data.size(), data.data())) << nfs_get_error(client.Get());
    std::vector<Call> calls = controller_.Calls();
    std::sort(calls.begin(), calls.end(), [](const Call& a, const Call& b) { return a.iSeek < b.iSeek; });
    EXPECT_EQ((std::vector<Call>{WriteCall(disk, at, 16384), WriteCall(disk, at + 16384, 16384),
                                 WriteCall(disk, at + 32768, 40000 - 32768)}),
              calls);

    // Refused: the client's write fails, and was reported all the same.
    controller_.Clear();
    controller_.AcceptWrites(false);
    controller_.SetAnswer(-1);
    EXPECT_LT(nfs_pwrite(client.Get(), fh, 100, 10, data.data()), 0);
    EXPECT_EQ((std::vector<Call>{WriteCall(disk, 100, 10)}), controller_.Calls());
    nfs_close(client.Get(), fh);

    // Nothing was written locally.
    EXPECT_EQ("local bytes", ReadWholeFile(disk));
}

TEST_F(RedirectedNfs, SizeTimesAndModeChangesAreReportedWithTheirFlagsAndSeconds) {
    main_.SetCallback(&controller_);
    std::string disk = Register("disk.vmdk", 8 * GiB);
    struct stat before;
    ASSERT_EQ(0, stat(disk.c_str(), &before));
    LibnfsMount client;
    Mount(client);

    EXPECT_EQ(0, nfs_truncate(client.Get(), "/disk.vmdk", 3 * GiB + 5)) << nfs_get_error(client.Get());
    struct timeval times[2] = {{1111111111, 999999}, {1222222222, 5}};
    EXPECT_EQ(0, nfs_utimes(client.Get(), "/disk.vmdk", times)) << nfs_get_error(client.Get());
    // Mode is not carried: the report says that nothing of it applies.
    EXPECT_EQ(0, nfs_chmod(client.Get(), "/disk.vmdk", 0600)) << nfs_get_error(client.Get());
    EXPECT_EQ((std::vector<Call>{AttributesCall(disk, true, 3 * GiB + 5, false, 0, false, 0),
                                 AttributesCall(disk, false, 0, true, 1111111111, true, 1222222222),
                                 AttributesCall(disk, false, 0, false, 0, false, 0)}),
              controller_.Calls());

    // Any answer other than 0 refuses the change.
    controller_.Clear();
    controller_.SetAnswer(1);
    EXPECT_NE(0, nfs_truncate(client.Get(), "/disk.vmdk", 7));
    controller_.SetAnswer(-1);
    EXPECT_NE(0, nfs_utimes(client.Get(), "/disk.vmdk", times));
    EXPECT_EQ((std::vector<Call>{AttributesCall(disk, true, 7, false, 0, false, 0),
                                 AttributesCall(disk, false, 0, true, 1111111111, true, 1222222222)}),
              controller_.Calls());

    // The local file was never touched.
    struct stat after;
    ASSERT_EQ(0, stat(disk.c_str(), &after));
    EXPECT_EQ("local bytes", ReadWholeFile(disk));
    EXPECT_EQ(before.st_mode, after.st_mode);
    EXPECT_EQ(before.st_mtime, after.st_mtime);
    EXPECT_EQ(before.st_atime, after.st_atime);
    // And the client still sees the declared size.
    struct nfs_stat_64 st;
    ASSERT_EQ(0, nfs_stat64(client.Get(), "/disk.vmdk", &st)) << nfs_get_error(client.Get());
    EXPECT_EQ((uint64_t)(8 * GiB), st.nfs_size);
}

TEST_F(RedirectedNfs, AnAcceptedRemovalIsReportedAfterTheFileAndItsEntryAreGone) {
    main_.SetCallback(&controller_);
    std::string disk = Register("disk.vmdk", GiB);
    LibnfsMount client;
    Mount(client);
    EXPECT_EQ(0, nfs_unlink(client.Get(), "/disk.vmdk")) << nfs_get_error(client.Get());
    EXPECT_EQ((std::vector<Call>{RemoveCall(disk)}), controller_.Calls());
    EXPECT_FALSE(PathExists(disk));
    EXPECT_FALSE(Registered(disk));
    struct nfs_stat_64 st;
    EXPECT_NE(0, nfs_stat64(client.Get(), "/disk.vmdk", &st));
}

TEST_F(RedirectedNfs, ARefusedRemovalFailsButTheFileAndItsEntryAreGoneAlready) {
    main_.SetCallback(&controller_);
    controller_.SetAnswer(3);
    std::string disk = Register("disk.vmdk", GiB);
    LibnfsMount client;
    Mount(client);
    EXPECT_NE(0, nfs_unlink(client.Get(), "/disk.vmdk"));
    EXPECT_EQ((std::vector<Call>{RemoveCall(disk)}), controller_.Calls());
    EXPECT_FALSE(PathExists(disk));
    EXPECT_FALSE(Registered(disk));
}

TEST_F(RedirectedNfs, AnAcceptedRenameMovesTheEntryAndTheClientsHandleFollows) {
    main_.SetCallback(&controller_);
    std::string from = Register("old.vmdk", 3 * GiB);
    std::string to = PathOf("new.vmdk");
    LibnfsMount client;
    Mount(client);
    struct nfsfh* fh = nullptr;
    ASSERT_EQ(0, nfs_open(client.Get(), "/old.vmdk", O_RDONLY, &fh)) << nfs_get_error(client.Get());
    EXPECT_EQ(0, nfs_rename(client.Get(), "/old.vmdk", "/new.vmdk")) << nfs_get_error(client.Get());
    EXPECT_EQ((std::vector<Call>{RenameCall(from, to)}), controller_.Calls());
    EXPECT_FALSE(PathExists(from));
    EXPECT_EQ("local bytes", ReadWholeFile(to));
    EXPECT_FALSE(Registered(from));
    EXPECT_TRUE(Registered(to));
    // The handle taken before the rename reaches the redirected file under
    // its new name.
    struct nfs_stat_64 st;
    ASSERT_EQ(0, nfs_fstat64(client.Get(), fh, &st)) << nfs_get_error(client.Get());
    EXPECT_EQ((uint64_t)(3 * GiB), st.nfs_size);
    ASSERT_EQ(0, nfs_stat64(client.Get(), "/new.vmdk", &st)) << nfs_get_error(client.Get());
    EXPECT_EQ((uint64_t)(3 * GiB), st.nfs_size);
    nfs_close(client.Get(), fh);
}

TEST_F(RedirectedNfs, ARefusedRenameFailsAndTheOldHandleNoLongerReachesTheFile) {
    main_.SetCallback(&controller_);
    controller_.SetAnswer(-1);
    std::string from = Register("old.vmdk", 3 * GiB);
    std::string to = PathOf("new.vmdk");
    LibnfsMount client;
    Mount(client);
    struct nfsfh* fh = nullptr;
    ASSERT_EQ(0, nfs_open(client.Get(), "/old.vmdk", O_RDONLY, &fh)) << nfs_get_error(client.Get());
    EXPECT_NE(0, nfs_rename(client.Get(), "/old.vmdk", "/new.vmdk"));
    EXPECT_EQ((std::vector<Call>{RenameCall(from, to)}), controller_.Calls());
    // The local file and the entry moved before the report; the file table
    // did not, so the old handle names a path that is gone.
    EXPECT_FALSE(PathExists(from));
    EXPECT_TRUE(PathExists(to));
    EXPECT_TRUE(Registered(to));
    struct nfs_stat_64 st;
    EXPECT_NE(0, nfs_fstat64(client.Get(), fh, &st));
    ASSERT_EQ(0, nfs_stat64(client.Get(), "/new.vmdk", &st)) << nfs_get_error(client.Get());
    EXPECT_EQ((uint64_t)(3 * GiB), st.nfs_size);
    nfs_close(client.Get(), fh);
}

TEST_F(RedirectedNfs, WithoutACallbackEveryChangeFails) {
    std::string disk = Register("disk.vmdk", GiB);
    std::string other = Register("other.vmdk", GiB);
    LibnfsMount client;
    Mount(client);
    struct nfsfh* fh = nullptr;
    ASSERT_EQ(0, nfs_open(client.Get(), "/disk.vmdk", O_WRONLY, &fh)) << nfs_get_error(client.Get());
    EXPECT_LT(nfs_pwrite(client.Get(), fh, 0, 5, "abcde"), 0);
    nfs_close(client.Get(), fh);
    EXPECT_NE(0, nfs_truncate(client.Get(), "/disk.vmdk", 10));
    struct timeval times[2] = {{1, 0}, {2, 0}};
    EXPECT_NE(0, nfs_utimes(client.Get(), "/disk.vmdk", times));
    EXPECT_EQ("local bytes", ReadWholeFile(disk));
    EXPECT_NE(0, nfs_rename(client.Get(), "/disk.vmdk", "/moved.vmdk"));
    EXPECT_TRUE(Registered(PathOf("moved.vmdk")));
    EXPECT_NE(0, nfs_unlink(client.Get(), "/other.vmdk"));
    EXPECT_FALSE(PathExists(other));
    EXPECT_FALSE(Registered(other));
}

// ---- exact fields on the wire --------------------------------------------------------

TEST_F(RedirectedNfs, TheWriteReplyCountIsTheCallbacksAnswer) {
    main_.SetCallback(&controller_);
    std::string disk = Register("disk.vmdk", 8 * GiB);
    WireClient wire;
    Bytes file = wire.Lookup(wire.Mount(), "disk.vmdk");
    const uint64_t at = 0x100000001ull;
    std::string data(300, 'w');

    struct {
        int answer;
        uint32_t status;
        uint32_t count;
    } cases[] = {{300, NFS3_OK, 300}, {120, NFS3_OK, 120}, {0, NFS3_OK, 0}, {-1, NFS3ERR_INVAL, 0},
                 {-7, NFS3ERR_INVAL, 0}};
    for (const auto& c : cases) {
        controller_.Clear();
        controller_.SetAnswer(c.answer);
        WriteReply w = ParseWrite(wire.Results(nfs3wire::PROC_WRITE, nfs3wire::WriteArgs(file, at, 300, data, 0)));
        EXPECT_EQ(c.status, w.status) << c.answer;
        EXPECT_EQ(c.count, w.count) << c.answer;
        if (c.status == NFS3_OK) {
            EXPECT_EQ(2u, w.committed);  // FILE_SYNC
        }
        EXPECT_EQ((std::vector<Call>{WriteCall(disk, at, 300)}), controller_.Calls()) << c.answer;
    }
    // One call carries at most 16384 bytes: that is what is reported.
    controller_.Clear();
    controller_.AcceptWrites(true);
    std::string big(20000, 'b');
    WriteReply w = ParseWrite(wire.Results(nfs3wire::PROC_WRITE, nfs3wire::WriteArgs(file, 7, 20000, big, 2)));
    EXPECT_EQ(NFS3_OK, w.status);
    EXPECT_EQ(16384u, w.count);
    EXPECT_EQ((std::vector<Call>{WriteCall(disk, 7, 16384)}), controller_.Calls());
    EXPECT_EQ("local bytes", ReadWholeFile(disk));
}

TEST_F(RedirectedNfs, SetattrReportsSizeAndTimeFlagsExactlyAndItsAnswerDecidesTheStatus) {
    main_.SetCallback(&controller_);
    std::string disk = Register("disk.vmdk", 8 * GiB);
    WireClient wire;
    Bytes file = wire.Lookup(wire.Mount(), "disk.vmdk");
    const Bytes emptyWcc = Words({0, 0});

    // Size past 32 bits; access time from the client (nanoseconds dropped);
    // modification time from the server, which passes as set with zero.
    SetAttr a;
    a.setSize = true;
    a.size = 0x200000007ull;
    a.atimeHow = 2;
    a.atimeSec = 0xFEDCBA98u;
    a.atimeNsec = 123456789;
    a.mtimeHow = 1;
    EXPECT_EQ(Join({Words({NFS3_OK}), emptyWcc}), wire.ResultBytes(nfs3wire::PROC_SETATTR, SetAttrArgs(file, a)));
    // Times only.
    SetAttr t;
    t.atimeHow = 1;
    t.mtimeHow = 2;
    t.mtimeSec = 1700000000;
    t.mtimeNsec = 5;
    EXPECT_EQ(Join({Words({NFS3_OK}), emptyWcc}), wire.ResultBytes(nfs3wire::PROC_SETATTR, SetAttrArgs(file, t)));
    EXPECT_EQ((std::vector<Call>{AttributesCall(disk, true, 0x200000007ull, true, 0xFEDCBA98u, true, 0),
                                 AttributesCall(disk, false, 0, true, 0, true, 1700000000)}),
              controller_.Calls());

    // Refused: NFS3ERR_INVAL, still with empty weak-cache data.
    controller_.Clear();
    controller_.SetAnswer(2);
    EXPECT_EQ(Join({Words({NFS3ERR_INVAL}), emptyWcc}),
              wire.ResultBytes(nfs3wire::PROC_SETATTR, SetAttrArgs(file, a)));
    EXPECT_EQ((std::vector<Call>{AttributesCall(disk, true, 0x200000007ull, true, 0xFEDCBA98u, true, 0)}),
              controller_.Calls());

    // Nothing to set, or a failed guard: no report at all.
    controller_.Clear();
    EXPECT_EQ(Join({Words({NFS3_OK}), emptyWcc}),
              wire.ResultBytes(nfs3wire::PROC_SETATTR, SetAttrArgs(file, SetAttr())));
    SetAttr guarded = a;
    guarded.guard = true;
    guarded.guardSec = 1;
    EXPECT_EQ(Join({Words({NFS3ERR_NOT_SYNC}), emptyWcc}),
              wire.ResultBytes(nfs3wire::PROC_SETATTR, SetAttrArgs(file, guarded)));
    EXPECT_TRUE(controller_.Calls().empty());
    EXPECT_EQ("local bytes", ReadWholeFile(disk));
}

TEST_F(RedirectedNfs, RemoveAndRenameStatusesFollowTheCallbacksAnswer) {
    main_.SetCallback(&controller_);
    WireClient wire;
    Bytes root = wire.Mount();
    for (int answer : {0, 1}) {
        std::string name = "disk" + std::to_string(answer);
        std::string path = Register(name, GiB);
        std::string moved = Register(name + ".moved.src", GiB);
        // A client looks the file up before renaming it: the rename moves
        // the file ID it was given.
        wire.Lookup(root, name + ".moved.src");
        controller_.Clear();
        controller_.SetAnswer(answer);
        uint32_t expected = answer == 0 ? NFS3_OK : NFS3ERR_IO;
        // REMOVE: status, dir_wcc.
        EXPECT_EQ(Join({Words({expected}), Words({0, 0})}),
                  wire.ResultBytes(nfs3wire::PROC_REMOVE, nfs3wire::DirOpArgs(root, name)));
        // RENAME: status, fromdir_wcc, todir_wcc.
        EXPECT_EQ(Join({Words({expected}), Words({0, 0, 0, 0})}),
                  wire.ResultBytes(nfs3wire::PROC_RENAME, Join({nfs3wire::DirOpArgs(root, name + ".moved.src"),
                                                                nfs3wire::DirOpArgs(root, name + ".moved")})));
        EXPECT_EQ((std::vector<Call>{RemoveCall(path), RenameCall(moved, PathOf(name + ".moved"))}),
                  controller_.Calls());
    }
    // Without a callback both fail.
    main_.SetCallback(nullptr);
    std::string path = Register("lonely", GiB);
    EXPECT_EQ(Join({Words({NFS3ERR_IO}), Words({0, 0})}),
              wire.ResultBytes(nfs3wire::PROC_REMOVE, nfs3wire::DirOpArgs(root, "lonely")));
    EXPECT_FALSE(PathExists(path));
}

}  // namespace
