// Path lookups against a growing file table, with and without the path
// index. Arguments: path index on (1) or off (0), number of rows.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "FileTable.h"
#include "Utilities.h"

namespace {

std::vector<std::string> MakePaths(const std::string& folder, int count) {
    std::vector<std::string> paths;
    paths.reserve((size_t)count);
    for (int i = 0; i < count; ++i) paths.push_back(folder + "/vm-disk-" + std::to_string(i) + "-flat.vmdk");
    return paths;
}

// Random rows across the whole table: nearly every lookup misses the list
// of recently found IDs.
void BM_GetIDByPath_Spread(benchmark::State& state) {
    CFileTable table(state.range(0) != 0);
    std::vector<std::string> paths = MakePaths("/backup/store/session", (int)state.range(1));
    for (const auto& p : paths) table.GetIDByPath(p.c_str());
    std::mt19937 rng(7);
    for (auto _ : state) {
        const std::string& p = paths[rng() % paths.size()];
        benchmark::DoNotOptimize(table.GetIDByPath(p.c_str()));
    }
}

// A working set of 100 files, as during a stream of READs and WRITEs: the
// lookups hit the list of recently found IDs.
void BM_GetIDByPath_WorkingSet(benchmark::State& state) {
    CFileTable table(state.range(0) != 0);
    std::vector<std::string> paths = MakePaths("/backup/store/session", (int)state.range(1));
    for (const auto& p : paths) table.GetIDByPath(p.c_str());
    std::mt19937 rng(7);
    for (auto _ : state) {
        const std::string& p = paths[paths.size() - 1 - rng() % 100];
        benchmark::DoNotOptimize(table.GetIDByPath(p.c_str()));
    }
}

// The file service's operation, canonicalisation included, on paths in an
// existing folder.
class BenchUtilities : public CUtilities {
public:
    void UsePathIndex(bool on) { m_pFileTable.reset(new CFileTable(on)); }
};

void BM_GetFileID_Spread(benchmark::State& state) {
    char folder[] = "/tmp/bench-file-table-XXXXXX";
    if (mkdtemp(folder) == nullptr) {
        state.SkipWithError("mkdtemp failed");
        return;
    }
    BenchUtilities u;
    u.UsePathIndex(state.range(0) != 0);
    LogArgu la{"Bench.GetFileID"};
    std::vector<std::string> paths = MakePaths(folder, (int)state.range(1));
    for (const auto& p : paths) u.GetFileID(nullptr, &la, p.c_str());
    std::mt19937 rng(7);
    for (auto _ : state) {
        const std::string& p = paths[rng() % paths.size()];
        benchmark::DoNotOptimize(u.GetFileID(nullptr, &la, p.c_str()));
    }
    rmdir(folder);
}

void Sizes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"index", "rows"});
    for (int rows : {10000, 100000})
        for (int index : {1, 0}) b->Args({index, rows});
}

}  // namespace

BENCHMARK(BM_GetIDByPath_Spread)->Apply(Sizes);
BENCHMARK(BM_GetIDByPath_WorkingSet)->Apply(Sizes);
BENCHMARK(BM_GetFileID_Spread)->Apply(Sizes);
BENCHMARK_MAIN();
