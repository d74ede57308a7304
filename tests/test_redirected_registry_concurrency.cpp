// Readers read their own redirected files through ReadFile while other
// threads open, fill, export, rename, remove and close registry entries,
// change the export table and thin the descriptor cache: the registry and
// the cache are taken in one order everywhere, so nothing deadlocks, and the
// reads stay exact.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "NotificationRecorder.h"
#include "TestSupport.h"
#include "Utilities.h"

namespace {

constexpr long long KiB = 1024;
constexpr long long MiB = 1024 * KiB;

std::string RandomBytes(size_t n, unsigned seed) {
    std::string data(n, '\0');
    std::mt19937 gen(seed);
    for (char& c : data) c = (char)(gen() & 0xff);
    return data;
}

class Service : public CUtilities {
public:
    size_t CachedCount() {
        std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
        return m_OpenedFileHandles.size();
    }
    size_t RegisteredCount() {
        std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
        return m_mRedirectedFiles.size();
    }
};

struct ReaderFile {
    std::string path;
    std::string reference;
};

// A file of two sources of its own, with holes, a segment without source
// and a last segment that ends at the size.
ReaderFile MakeReaderFile(Service& u, CRuntimeParam* rp, const std::string& exportDir, const std::string& backupDir,
                          int reader) {
    ReaderFile file;
    file.path = exportDir + "/r" + std::to_string(reader) + ".vmdk";
    WriteWholeFile(file.path, "");
    std::vector<std::string> sources, contents;
    for (int s = 0; s < 2; ++s) {
        contents.push_back(RandomBytes((size_t)(2 * MiB), 1000 + (unsigned)(reader * 10 + s)));
        sources.push_back(backupDir + "/r" + std::to_string(reader) + "-s" + std::to_string(s));
        WriteWholeFile(sources.back(), contents.back());
    }
    const long long size = 3 * MiB + 777;
    file.reference.assign((size_t)size, '\0');
    u.OpenRedirectedFile(rp, file.path.c_str(), size, true, 1, 2);
    std::mt19937_64 gen(500 + (unsigned)reader);
    long long off = 10 * KiB;
    while (off < size - 300 * KiB) {
        long long len = 1 + (long long)(gen() % (250 * KiB));
        int which = (int)(gen() % 3);  // 2: no source
        long long fox = (long long)(gen() % (unsigned long long)(2 * MiB - len));
        EXPECT_TRUE(u.AddRedirectedFileSegment(rp, file.path.c_str(), which < 2 ? sources[(size_t)which].c_str() : nullptr,
                                               fox, off, len, nullptr));
        if (which < 2) file.reference.replace((size_t)off, (size_t)len, contents[(size_t)which], (size_t)fox, (size_t)len);
        off += len + (gen() % 2 ? 0 : (long long)(gen() % (40 * KiB)));
    }
    EXPECT_TRUE(u.AddRedirectedFileSegment(rp, file.path.c_str(), sources[0].c_str(), 0, off, size - off, nullptr));
    file.reference.replace((size_t)off, (size_t)(size - off), contents[0], 0, (size_t)(size - off));
    return file;
}

}  // namespace

TEST(RedirectedRegistryConcurrency, ReadsStayExactWhileTheRegistryAndTheCacheChange) {
    TempDir dir;
    NotificationRecorder callback;  // accepts every change
    Service u;
    u.SetCallback(&callback);
    CRuntimeParam rp("t", 0);
    LogArgu la{"Test.Concurrency"};
    const std::string base = Canonical(dir.Path());
    const std::string exportDir = base + "/export", backupDir = base + "/backup", extraDir = base + "/extra";
    for (const std::string& folder : {exportDir, backupDir, extraDir, backupDir + "/filler"})
        ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
    ASSERT_TRUE(u.AddMountInfo(&rp, &la, exportDir.c_str(), "export", "", nullptr));

    const int readers = 3, churners = 2, minRounds = 300, thinRounds = 60, fillers = 1100;
    std::vector<ReaderFile> files;
    for (int r = 0; r < readers; ++r) files.push_back(MakeReaderFile(u, &rp, exportDir, backupDir, r));
    for (int f = 0; f < fillers; ++f) WriteWholeFile(backupDir + "/filler/" + std::to_string(f), "f");

    // The cache may close a descriptor under a running read, which the
    // design accepts; here every use of a descriptor outside the cache runs
    // under its thread's gate and thinning takes all gates, so that thinning
    // falls between reads and every read can be checked byte for byte.
    std::vector<std::mutex> gates(readers + churners);
    std::atomic<bool> thinningDone{false};
    std::atomic<int> failures{0}, ready{0};
    std::atomic<int> removals{0}, renames{0};
    auto check = [&](bool ok) {
        if (!ok) failures.fetch_add(1);
    };
    const int threadCount = readers + churners + 1;
    auto startTogether = [&] {
        ready.fetch_add(1);
        while (ready.load() < threadCount) std::this_thread::yield();
    };

    std::vector<std::thread> threads;
    for (int r = 0; r < readers; ++r) {
        threads.emplace_back([&, r] {
            const ReaderFile& file = files[(size_t)r];
            const long long size = (long long)file.reference.size();
            std::mt19937_64 gen(77 + (unsigned)r);
            std::vector<char> buf(64 * KiB);
            startTogether();
            for (int round = 0; round < minRounds || !thinningDone.load(); ++round) {
                unsigned long long seek = gen() % (unsigned long long)(size + 100);
                unsigned int len = 1 + (unsigned int)(gen() % buf.size());
                bool eof = false;
                int n;
                {
                    std::lock_guard<std::mutex> gate(gates[(size_t)r]);
                    n = u.ReadFile(&rp, &la, file.path.c_str(), seek, SEEK_SET, buf.data(), len, &eof);
                }
                long long expected = std::max(0LL, std::min<long long>(len, size - (long long)seek));
                check(n == expected);
                check(n <= 0 || memcmp(buf.data(), file.reference.data() + seek, (size_t)n) == 0);
                check(eof == ((long long)seek + std::max(n, 0) >= size));
            }
        });
    }

    for (int c = 0; c < churners; ++c) {
        threads.emplace_back([&, c] {
            std::mutex& gate = gates[(size_t)(readers + c)];
            const std::string folder = exportDir + "/churn" + std::to_string(c);
            check(mkdir(folder.c_str(), 0755) == 0);
            const std::string source = backupDir + "/churn-source" + std::to_string(c);
            const std::string content = RandomBytes((size_t)(300 * KiB), 900 + (unsigned)c);
            WriteWholeFile(source, content);
            const std::string exported = folder + "/export.bin", listing = folder + "/listing.txt";
            WriteWholeFile(exported, "");
            WriteWholeFile(listing, "");
            std::vector<char> buf(4096);
            startTogether();
            for (int i = 0; i < minRounds || !thinningDone.load(); ++i) {
                const std::string path = folder + "/f" + std::to_string(i % 4), moved = path + ".moved";
                WriteWholeFile(path, "");
                check(u.OpenRedirectedFile(&rp, path.c_str(), 200 * KiB, i % 2 == 0, 1, 0) != nullptr);
                {
                    std::lock_guard<std::mutex> hold(gate);
                    check(u.AddRedirectedFileSegment(&rp, path.c_str(), source.c_str(), 1000, 0, 100 * KiB, nullptr));
                    check(u.AddRedirectedFileSegment(&rp, path.c_str(), nullptr, 0, 150 * KiB, KiB, nullptr));
                    bool eof = false;
                    int n = u.ReadFile(&rp, &la, path.c_str(), 500, SEEK_SET, buf.data(), (unsigned)buf.size(), &eof);
                    check(n == (int)buf.size() && memcmp(buf.data(), content.data() + 1500, buf.size()) == 0);
                    if (i % 8 == 0) u.ExportRedirectedFile(&rp, path.c_str(), exported.c_str());
                    if (i % 8 == 4) u.ExportRedirectedFileInfo(&rp, path.c_str(), listing.c_str(), i % 16 == 4);
                }
                check(u.GetFileSize(&rp, &la, path.c_str(), -1) == 200 * KiB);
                switch (i % 4) {
                    case 0:
                        u.RenameRedirectedFile(&rp, path.c_str(), moved.c_str());
                        check(u.GetRedirectedFile(moved.c_str()) != nullptr);
                        u.CloseRedirectedFile(&rp, moved.c_str());
                        break;
                    case 1:
                        u.GetFileID(&rp, &la, path.c_str());
                        check(u.RenameFile(&rp, &la, path.c_str(), moved.c_str()));
                        renames.fetch_add(1);
                        u.CloseAllRedirectedFiles(&rp, folder.c_str());
                        break;
                    case 2:
                        check(u.RemoveFile(&rp, &la, path.c_str()));
                        removals.fetch_add(1);
                        break;
                    default:
                        u.CloseRedirectedFile(&rp, path.c_str());
                        break;
                }
                check(u.GetRedirectedFile(path.c_str()) == nullptr && u.GetRedirectedFile(moved.c_str()) == nullptr);
                if (c == 0) {
                    // The export table changes too (taken after the cache).
                    check(u.AddMountInfo(&rp, &la, extraDir.c_str(), "extra", "", nullptr));
                    u.RemoveMountInfoByExportName("extra");
                }
            }
        });
    }

    threads.emplace_back([&] {
        startTogether();
        for (int round = 0; round < thinRounds; ++round) {
            std::vector<std::unique_lock<std::mutex>> held;
            for (std::mutex& gate : gates) held.emplace_back(gate);
            if (round % 20 == 19) {
                // Few rows left: the next thinning closes them all.
                u.CloseAllCachedFileHandles(&rp, &la, backupDir.c_str());
            } else if (round == 0) {
                // Past 1023 rows the next open thins the cache first.
                for (int f = 0; f < fillers; ++f)
                    check(u.GetCachedFileHandle(&rp, &la, (backupDir + "/filler/" + std::to_string(f)).c_str(),
                                                false) != -1);
                check(u.CachedCount() <= 1024);
            } else {
                for (int f = 0; f < 25; ++f)
                    u.GetCachedFileHandle(&rp, &la, (backupDir + "/filler/" + std::to_string((round * 25 + f) % fillers)).c_str(),
                                          false);
            }
            size_t before = u.CachedCount();
            u.CloseExceededCachedFileHandle(&rp, &la);
            check(u.CachedCount() < before || before == 0);
            if (round % 10 == 5) u.CloseAllCachedFileHandles(&rp, &la, exportDir.c_str());
        }
        thinningDone.store(true);
    });

    for (auto& t : threads) t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ((size_t)readers, u.RegisteredCount());
    int reportedRemovals = 0, reportedRenames = 0;
    for (const auto& call : callback.Calls()) {
        if (call.op == "remove") ++reportedRemovals;
        if (call.op == "rename") ++reportedRenames;
    }
    EXPECT_EQ(removals.load(), reportedRemovals);
    EXPECT_EQ(renames.load(), reportedRenames);
    for (const ReaderFile& file : files) {
        std::vector<char> whole(file.reference.size());
        bool eof = false;
        ASSERT_EQ((int)whole.size(), u.ReadFile(&rp, &la, file.path.c_str(), 0, SEEK_SET, whole.data(),
                                                 (unsigned)whole.size(), &eof));
        EXPECT_TRUE(eof);
        EXPECT_EQ(0, memcmp(whole.data(), file.reference.data(), whole.size()));
    }
}
