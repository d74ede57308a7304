// A real NFS client (libnfs) against the whole server started through the
// controller: files copied in and out of an export byte for byte (sizes
// around the transfer caps and a large file), files and folders created,
// renamed and removed, a handle that follows its renamed file, a read-only
// server, and ten clients copying at once on the ten NFS connection slots.
// The server uses its fixed ports, so every test runs in a network
// namespace of its own.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <nfsc/libnfs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "LibnfsMount.h"
#include "LogRecorder.h"
#include "NfsMain.h"
#include "PrivateNetwork.h"
#include "RpcTestClient.h"
#include "TestSupport.h"
#include "Utilities.h"

namespace {

const char* const MOUNT_OPTIONS = "nfsport=2049&mountport=1058&auto-traverse-mounts=0";
constexpr size_t CHUNK = 4 << 20;  // bytes handed to libnfs per call; it splits them into RPCs

// Size of the large copy: 300 MiB, or NFSENGINE_LARGE_COPY_MIB when set
// (for a build too slow to copy 300 MiB in reasonable time).
uint64_t LargeCopyBytes() {
    const char* mib = getenv("NFSENGINE_LARGE_COPY_MIB");
    uint64_t n = mib && *mib ? strtoull(mib, nullptr, 10) : 300;
    return (n ? n : 300) << 20;
}

uint64_t Mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// Bytes [offset, offset + n) of the content numbered seed: every position
// of every content has its own byte.
void Fill(uint64_t seed, uint64_t offset, unsigned char* out, size_t n) {
    for (size_t i = 0; i < n;) {
        uint64_t p = offset + i;
        uint64_t word = Mix((seed << 40) ^ (p / 8));
        for (unsigned b = (unsigned)(p % 8); b < 8 && i < n; ++b, ++i) out[i] = (unsigned char)(word >> (8 * b));
    }
}

// A 64-bit checksum of a byte stream, whatever pieces it comes in.
class Checksum {
public:
    void Update(const unsigned char* p, size_t n) {
        m_total += n;
        while (n > 0) {
            if (m_carried == 0 && n >= 8) {  // whole words straight from the input
                MixWord(p);
                p += 8;
                n -= 8;
                continue;
            }
            m_carry[m_carried++] = *p++;
            --n;
            if (m_carried == 8) {
                MixWord(m_carry);
                m_carried = 0;
            }
        }
    }
    uint64_t Value() const {
        unsigned char last[8] = {};
        memcpy(last, m_carry, m_carried);
        uint64_t word;
        memcpy(&word, last, 8);
        return Mix(m_hash ^ word) ^ Mix(m_total);
    }
    uint64_t Size() const { return m_total; }

private:
    void MixWord(const unsigned char* p) {
        uint64_t word;
        memcpy(&word, p, 8);
        m_hash = (m_hash ^ word) * 0x100000001B3ull;
        m_hash ^= m_hash >> 29;
    }
    uint64_t m_hash = 0xCBF29CE484222325ull;
    uint64_t m_total = 0;
    unsigned char m_carry[8] = {};
    size_t m_carried = 0;
};

uint64_t GeneratedChecksum(uint64_t seed, uint64_t size) {
    std::vector<unsigned char> buffer(CHUNK);
    Checksum sum;
    for (uint64_t at = 0; at < size; at += CHUNK) {
        size_t n = (size_t)std::min<uint64_t>(CHUNK, size - at);
        Fill(seed, at, buffer.data(), n);
        sum.Update(buffer.data(), n);
    }
    return sum.Value();
}

Checksum LocalChecksum(const std::string& path) {
    Checksum sum;
    int fd = open(path.c_str(), O_RDONLY);
    if (fd == -1) {
        ADD_FAILURE() << "cannot open " << path;
        return sum;
    }
    std::vector<unsigned char> buffer(CHUNK);
    ssize_t n;
    while ((n = read(fd, buffer.data(), buffer.size())) > 0) sum.Update(buffer.data(), (size_t)n);
    close(fd);
    return sum;
}

// Writes the content numbered seed into a local file.
void WriteLocal(const std::string& path, uint64_t seed, uint64_t size) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_NE(-1, fd) << path;
    std::vector<unsigned char> buffer(CHUNK);
    for (uint64_t at = 0; at < size; at += CHUNK) {
        size_t n = (size_t)std::min<uint64_t>(CHUNK, size - at);
        Fill(seed, at, buffer.data(), n);
        ASSERT_EQ((ssize_t)n, write(fd, buffer.data(), n));
    }
    close(fd);
}

// Copies the content numbered seed into a new file of the export through
// the client; empty on success, else what failed.
std::string CopyIn(struct nfs_context* nfs, const std::string& path, uint64_t seed, uint64_t size) {
    struct nfsfh* fh = nullptr;
    if (nfs_creat(nfs, path.c_str(), 0644, &fh) != 0) return std::string("creat: ") + nfs_get_error(nfs);
    std::vector<unsigned char> buffer(CHUNK);
    std::string failure;
    for (uint64_t at = 0; at < size && failure.empty(); at += CHUNK) {
        size_t n = (size_t)std::min<uint64_t>(CHUNK, size - at);
        Fill(seed, at, buffer.data(), n);
        int written = nfs_pwrite(nfs, fh, at, n, buffer.data());
        if (written != (int)n)
            failure = "pwrite at " + std::to_string(at) + ": " + std::to_string(written) + " " + nfs_get_error(nfs);
    }
    nfs_close(nfs, fh);
    return failure;
}

// Reads a file of the export to its end through the client.
Checksum CopyOut(struct nfs_context* nfs, const std::string& path, std::string* failure) {
    Checksum sum;
    struct nfsfh* fh = nullptr;
    if (nfs_open(nfs, path.c_str(), O_RDONLY, &fh) != 0) {
        *failure = std::string("open: ") + nfs_get_error(nfs);
        return sum;
    }
    std::vector<unsigned char> buffer(CHUNK);
    for (uint64_t at = 0;;) {
        int n = nfs_pread(nfs, fh, at, buffer.size(), buffer.data());
        if (n < 0) *failure = "pread at " + std::to_string(at) + ": " + nfs_get_error(nfs);
        if (n <= 0) break;
        sum.Update(buffer.data(), (size_t)n);
        at += (uint64_t)n;
    }
    nfs_close(nfs, fh);
    return sum;
}

// The controller, with a view of how many connections its listeners hold.
class ObservedNfsMain : public CNfsMain {
public:
    using CNfsMain::CNfsMain;
    int Connections(int pair) {
        CServerSocket* listener = m_Sockets[pair].pServerSocket;
        int active = 0;
        for (int i = 0; listener && i < listener->GetMaxNum(); ++i) {
            CSocket* connection = listener->GetConnection(i);
            active += connection && connection->IsActive();
        }
        return active;
    }
};

class LibnfsCopy : public testing::Test {
protected:
    void SetUp() override {
        std::string why;
        ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
        main_.SetCallback(&log_);
        char err[ERROR_TEXT_SIZE] = "";
        ASSERT_TRUE(main_.Initial(err)) << err;
        ASSERT_TRUE(Start(false));
    }
    void TearDown() override {
        main_.StopServer();
        main_.SetCallback(nullptr);
    }

    bool Start(bool readOnly) {
        char err[ERROR_TEXT_SIZE] = "";
        if (!main_.StartServer(0, 0, 0, 0, readOnly, err) ||
            !main_.AddMountPoint(export_.Path().c_str(), "datastore", err)) {
            ADD_FAILURE() << err;
            return false;
        }
        return true;
    }

    // Mounts, then waits until the server has let go of the MOUNT
    // connection, so that the next client finds a free slot.
    void Mount(LibnfsMount& client, const std::string& exportName = "datastore") {
        std::string why;
        ASSERT_TRUE(client.Mount(MOUNT_OPTIONS, exportName, &why)) << why;
        ASSERT_TRUE(WaitUntil([&] { return main_.Connections(CNfsMain::PAIR_MOUNT) == 0; }));
    }

    // Both ways through the client: content numbered seed copied in and
    // checked in the export; a local file of it copied out and checked.
    void CopyInAndOut(struct nfs_context* nfs, const std::string& name, uint64_t seed, uint64_t size) {
        uint64_t expected = GeneratedChecksum(seed, size);
        EXPECT_EQ("", CopyIn(nfs, "/" + name, seed, size)) << name;
        Checksum in = LocalChecksum(export_ / name);
        EXPECT_EQ(size, in.Size()) << name;
        EXPECT_EQ(expected, in.Value()) << name;

        WriteLocal(export_ / (name + ".out"), seed, size);
        std::string failure;
        Checksum out = CopyOut(nfs, "/" + name + ".out", &failure);
        EXPECT_EQ("", failure) << name;
        EXPECT_EQ(size, out.Size()) << name;
        EXPECT_EQ(expected, out.Value()) << name;
    }

    // Error lines other than the expected ones: records that arrive in
    // pieces are parsed again once whole, and the client's COMMIT after its
    // writes is always refused (every WRITE is FILE_SYNC already).
    std::string UnexpectedErrors() {
        std::string unexpected;
        for (const std::string& text : log_.Texts("error")) {
            if (text.find("[Nfs3Prog.Process] Data is truncated.Missing ") == 0) continue;
            if (text == "[Nfs3Prog.ProcedureCOMMIT] Path record not found") continue;
            unexpected += text + "\n";
        }
        return unexpected;
    }

    TempDir export_;
    LogRecorder log_;
    ObservedNfsMain main_{"libnfs-copy", CRuntimeParam::LOG_ERROR};
};

}  // namespace

TEST_F(LibnfsCopy, CopiesFilesInAndOutByteForByte) {
    LibnfsMount client;
    Mount(client);
    for (uint64_t size : {0, 1, 16383, 16384, 16385, 65535, 65536, 65537, 1000000}) {
        CopyInAndOut(client.Get(), "file-" + std::to_string(size), size + 1, size);
    }
    EXPECT_EQ("", UnexpectedErrors());
}

TEST_F(LibnfsCopy, CopiesALargeFileInAndOut) {
    LibnfsMount client;
    Mount(client);
    const uint64_t size = LargeCopyBytes();
    uint64_t expected = GeneratedChecksum(7, size);
    ASSERT_EQ("", CopyIn(client.Get(), "/large.vmdk", 7, size));
    Checksum in = LocalChecksum(export_ / "large.vmdk");
    EXPECT_EQ(size, in.Size());
    EXPECT_EQ(expected, in.Value());
    // Read back through the client.
    std::string failure;
    Checksum out = CopyOut(client.Get(), "/large.vmdk", &failure);
    EXPECT_EQ("", failure);
    EXPECT_EQ(size, out.Size());
    EXPECT_EQ(expected, out.Value());
    struct nfs_stat_64 st;
    ASSERT_EQ(0, nfs_stat64(client.Get(), "/large.vmdk", &st)) << nfs_get_error(client.Get());
    EXPECT_EQ(size, st.nfs_size);
    EXPECT_EQ("", UnexpectedErrors());
}

TEST_F(LibnfsCopy, CreatesRenamesAndRemovesFilesAndFolders) {
    LibnfsMount client;
    Mount(client);
    struct nfs_context* nfs = client.Get();
    ASSERT_EQ(0, nfs_mkdir(nfs, "/dir")) << nfs_get_error(nfs);
    struct stat st;
    ASSERT_EQ(0, stat((export_ / "dir").c_str(), &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    ASSERT_EQ(0, nfs_mkdir(nfs, "/dir/sub")) << nfs_get_error(nfs);
    EXPECT_NE(0, nfs_mkdir(nfs, "/dir/sub"));  // exists already

    EXPECT_EQ("", CopyIn(nfs, "/dir/a", 3, 5000));
    EXPECT_EQ(GeneratedChecksum(3, 5000), LocalChecksum(export_ / "dir/a").Value());

    ASSERT_EQ(0, nfs_rename(nfs, "/dir/a", "/dir/b")) << nfs_get_error(nfs);
    EXPECT_FALSE(PathExists(export_ / "dir/a"));
    EXPECT_EQ(GeneratedChecksum(3, 5000), LocalChecksum(export_ / "dir/b").Value());
    struct nfs_stat_64 nst;
    ASSERT_EQ(0, nfs_stat64(nfs, "/dir/b", &nst)) << nfs_get_error(nfs);
    EXPECT_EQ(5000u, nst.nfs_size);
    EXPECT_NE(0, nfs_stat64(nfs, "/dir/a", &nst));
    EXPECT_NE(0, nfs_rename(nfs, "/dir/a", "/dir/c"));  // gone

    ASSERT_EQ(0, nfs_rename(nfs, "/dir/sub", "/sub2")) << nfs_get_error(nfs);
    EXPECT_TRUE(PathExists(export_ / "sub2"));
    EXPECT_FALSE(PathExists(export_ / "dir/sub"));

    EXPECT_NE(0, nfs_rmdir(nfs, "/dir"));  // still holds b
    EXPECT_TRUE(PathExists(export_ / "dir/b"));
    ASSERT_EQ(0, nfs_unlink(nfs, "/dir/b")) << nfs_get_error(nfs);
    EXPECT_FALSE(PathExists(export_ / "dir/b"));
    EXPECT_NE(0, nfs_unlink(nfs, "/dir/b"));
    ASSERT_EQ(0, nfs_rmdir(nfs, "/dir")) << nfs_get_error(nfs);
    EXPECT_FALSE(PathExists(export_ / "dir"));

    // What is left, as the client lists it.
    struct nfsdir* dir = nullptr;
    ASSERT_EQ(0, nfs_opendir(nfs, "/", &dir)) << nfs_get_error(nfs);
    std::set<std::string> names;
    while (struct nfsdirent* e = nfs_readdir(nfs, dir)) names.insert(e->name);
    nfs_closedir(nfs, dir);
    EXPECT_EQ((std::set<std::string>{"sub2"}), names);
    ASSERT_EQ(0, nfs_rmdir(nfs, "/sub2")) << nfs_get_error(nfs);
    EXPECT_FALSE(PathExists(export_ / "sub2"));
}

TEST_F(LibnfsCopy, AHandleFollowsARenamedFile) {
    WriteLocal(export_ / "a", 11, 100000);
    LibnfsMount client;
    Mount(client);
    struct nfs_context* nfs = client.Get();
    struct nfsfh* fh = nullptr;
    ASSERT_EQ(0, nfs_open(nfs, "/a", O_RDWR, &fh)) << nfs_get_error(nfs);
    ASSERT_EQ(0, nfs_rename(nfs, "/a", "/b")) << nfs_get_error(nfs);
    ASSERT_FALSE(PathExists(export_ / "a"));
    // Read and written through the handle of before the rename.
    std::vector<unsigned char> data(100000);
    EXPECT_EQ(100000, nfs_pread(nfs, fh, 0, data.size(), data.data())) << nfs_get_error(nfs);
    Checksum sum;
    sum.Update(data.data(), data.size());
    EXPECT_EQ(GeneratedChecksum(11, 100000), sum.Value());
    EXPECT_EQ(3, nfs_pwrite(nfs, fh, 10, 3, "XYZ")) << nfs_get_error(nfs);
    nfs_close(nfs, fh);
    EXPECT_EQ("XYZ", ReadWholeFile(export_ / "b").substr(10, 3));
    EXPECT_FALSE(PathExists(export_ / "a"));
}

TEST_F(LibnfsCopy, AReadOnlyServerServesReadsAndRefusesChanges) {
    WriteLocal(export_ / "f", 5, 70000);
    main_.StopServer();
    ASSERT_TRUE(Start(true));
    LibnfsMount client;
    Mount(client);
    struct nfs_context* nfs = client.Get();
    std::string failure;
    EXPECT_EQ(GeneratedChecksum(5, 70000), CopyOut(nfs, "/f", &failure).Value());
    EXPECT_EQ("", failure);
    struct nfsfh* fh = nullptr;
    EXPECT_NE(0, nfs_creat(nfs, "/new", 0644, &fh));
    EXPECT_NE(0, nfs_mkdir(nfs, "/d"));
    EXPECT_NE(0, nfs_unlink(nfs, "/f"));
    EXPECT_NE(0, nfs_rename(nfs, "/f", "/g"));
    EXPECT_FALSE(PathExists(export_ / "new"));
    EXPECT_FALSE(PathExists(export_ / "d"));
    EXPECT_EQ(GeneratedChecksum(5, 70000), LocalChecksum(export_ / "f").Value());
}

TEST_F(LibnfsCopy, TenClientsCopyAtOnce) {
    constexpr int CLIENTS = CNfsMain::NFS_SLOTS;
    // An export holds one client at a time: one export each.
    std::vector<std::unique_ptr<TempDir>> folders;
    std::vector<std::unique_ptr<LibnfsMount>> clients;
    for (int i = 0; i < CLIENTS; ++i) {
        folders.emplace_back(new TempDir);
        char err[ERROR_TEXT_SIZE] = "";
        std::string name = "store" + std::to_string(i);
        ASSERT_TRUE(main_.AddMountPoint(folders.back()->Path().c_str(), name.c_str(), err)) << err;
        clients.emplace_back(new LibnfsMount);
        Mount(*clients.back(), name);
    }
    EXPECT_EQ(CLIENTS, main_.Connections(CNfsMain::PAIR_NFS));

    const uint64_t size = 3 * 1000 * 1000;
    std::vector<std::string> failures(CLIENTS);
    std::vector<uint64_t> readBack(CLIENTS);
    std::vector<std::thread> threads;
    for (int i = 0; i < CLIENTS; ++i) {
        threads.emplace_back([&, i] {
            struct nfs_context* nfs = clients[i]->Get();
            failures[i] = CopyIn(nfs, "/copy.vmdk", 100 + i, size + i);
            if (failures[i].empty()) readBack[i] = CopyOut(nfs, "/copy.vmdk", &failures[i]).Value();
        });
    }
    for (std::thread& t : threads) t.join();
    for (int i = 0; i < CLIENTS; ++i) {
        uint64_t expected = GeneratedChecksum(100 + i, size + i);
        EXPECT_EQ("", failures[i]) << i;
        EXPECT_EQ(expected, readBack[i]) << i;
        Checksum local = LocalChecksum(*folders[i] / "copy.vmdk");
        EXPECT_EQ(size + i, local.Size()) << i;
        EXPECT_EQ(expected, local.Value()) << i;
    }
    EXPECT_EQ("", UnexpectedErrors());
}
