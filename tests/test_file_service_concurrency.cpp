// Several threads use the file table, the descriptor cache, reads and the
// export table at once, as the RPC connection threads and the controller do.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "Utilities.h"

namespace {

std::string Content(int reader, int file) {
    std::string text;
    for (int i = 0; i < 50; ++i) text += "r" + std::to_string(reader) + "f" + std::to_string(file) + ";";
    return text;
}

}  // namespace

TEST(FileServiceConcurrency, TableCacheReadsAndExportsUnderLoad) {
    TempDir dir;
    CUtilities u;
    CRuntimeParam rp("t", 0);
    LogArgu la{"Test.Concurrency"};
    const std::string base = Canonical(dir.Path());
    const int readers = 3, filesPerReader = 8, shared = 16, rounds = 1000;

    // A permanent export: removing the others never empties the table, so
    // the file table keeps its IDs throughout.
    ASSERT_EQ(0, mkdir((base + "/data").c_str(), 0755));
    ASSERT_TRUE(u.AddMountInfo(&rp, &la, (base + "/data").c_str(), "data", "", nullptr));
    for (int r = 0; r < readers; ++r) {
        ASSERT_EQ(0, mkdir((base + "/data/r" + std::to_string(r)).c_str(), 0755));
        for (int f = 0; f < filesPerReader; ++f)
            WriteWholeFile(base + "/data/r" + std::to_string(r) + "/f" + std::to_string(f), Content(r, f));
    }
    std::vector<unsigned int> sharedIds;
    for (int i = 0; i < shared; ++i) {
        std::string path = base + "/data/shared" + std::to_string(i);
        WriteWholeFile(path, "s");
        sharedIds.push_back(u.GetFileID(&rp, &la, path.c_str()));
    }

    std::atomic<int> failures{0};
    auto check = [&](bool ok) {
        if (!ok) failures.fetch_add(1);
    };
    std::vector<std::thread> threads;
    // Every thread starts its work at the same moment.
    std::atomic<int> ready{0};
    const int threadCount = readers + 2;
    auto startTogether = [&] {
        ready.fetch_add(1);
        while (ready.load() < threadCount) std::this_thread::yield();
    };

    for (int r = 0; r < readers; ++r) {
        threads.emplace_back([&, r] {
            std::string folder = base + "/data/r" + std::to_string(r);
            char buf[2048];
            char path[PATH_BUFFER_SIZE];
            startTogether();
            for (int round = 0; round < rounds; ++round) {
                int f = round % filesPerReader;
                std::string file = folder + "/f" + std::to_string(f);
                std::string expected = Content(r, f);
                // The same path always yields the same ID, and the ID the path.
                unsigned char handle[FILE_HANDLE_SIZE];
                check(u.GetFileHandle(&rp, &la, file.c_str(), handle, sizeof handle));
                unsigned int id;
                memcpy(&id, handle, 4);
                check(id == u.GetFileID(&rp, &la, file.c_str()));
                check(u.GetFilePath(&rp, handle, path, sizeof path) && file == path);
                int s = round % shared;
                check(sharedIds[s] == u.GetFileID(&rp, &la, (base + "/data/shared" + std::to_string(s)).c_str()));
                // Inside the export: read-write, and the content of this file only.
                int fd = u.GetCachedFileHandle(&rp, &la, file.c_str(), false);
                check(fd != -1);
                unsigned int offset = (unsigned)(round * 7) % (unsigned)expected.size();
                bool eof = false;
                int n = u.ReadFile(&rp, &la, file.c_str(), offset, 0, buf, 100, &eof);
                size_t want = std::min<size_t>(100, expected.size() - offset);
                check(n == (int)want && memcmp(buf, expected.data() + offset, want) == 0);
                check(eof == (offset + want >= expected.size()));
                if (round % 50 == 49) u.CloseAllCachedFileHandles(&rp, &la, folder.c_str());
            }
        });
    }

    std::vector<unsigned int> newIds;
    threads.emplace_back([&] {
        startTogether();
        // New paths grow the table while the others look theirs up.
        for (int i = 0; i < rounds * 2; ++i)
            newIds.push_back(u.GetFileID(&rp, &la, (base + "/data/new/n" + std::to_string(i)).c_str()));
        // A renamed file keeps its ID.
        std::string a = base + "/data/mover-a", b = base + "/data/mover-b";
        WriteWholeFile(a, "m");
        unsigned int id = u.GetFileID(&rp, &la, a.c_str());
        for (int i = 0; i < rounds / 4; ++i) {
            check(u.RenameFile(&rp, &la, a.c_str(), b.c_str()));
            check(id == u.GetFileID(&rp, &la, b.c_str()));
            check(u.RenameFile(&rp, &la, b.c_str(), a.c_str()));
        }
    });

    threads.emplace_back([&] {
        startTogether();
        for (int i = 0; i < rounds; ++i) {
            std::string name = "extra" + std::to_string(i % 4);
            std::string local = base + "/" + name;
            char err[ERROR_TEXT_SIZE];
            check(u.AddMountInfo(&rp, &la, local.c_str(), name.c_str(), "ipc", err));
            MountInfo m;
            check(u.GetMountInfoByPath(&rp, &la, (local + "/x").c_str(), &m) && m.sExportName == name);
            check(u.UpdateMountClientIpAddrByExportName(name.c_str(), "10.1.1.1", nullptr, err));
            check(!u.UpdateMountClientIpAddrByExportName(name.c_str(), "10.1.1.2", nullptr, err));
            check(u.GetMountInfo(&rp, true, false) == 1);
            if (i % 2)
                u.RemoveMountInfoByExportName(name.c_str());
            else
                u.RemoveMountInfoByLocalMountPath(&rp, &la, local.c_str());
            check(!u.GetMountInfoByPath(&rp, &la, (local + "/x").c_str(), nullptr));
        }
    });

    for (auto& t : threads) t.join();
    EXPECT_EQ(0, failures.load());
    std::set<unsigned int> distinct(newIds.begin(), newIds.end());
    EXPECT_EQ(newIds.size(), distinct.size());
    EXPECT_EQ(0u, distinct.count(NO_FILE_ID));
    for (unsigned int id : sharedIds) EXPECT_EQ(0u, distinct.count(id));
    EXPECT_EQ(1, u.GetMountInfo(&rp, false, false));
}
