// Scale of a redirected file: a 2 TiB virtual disk assembled from many
// segments of sparse source files.
//
//   bench_redirected_file                       1,000,000 segments
//   REDIRECTED_BENCH_SEGMENTS=10000000 bench_redirected_file
//
// AddSegments: time to add every segment to the object and the resident
// memory before and after (it must stay flat: the segments live in the info
// file). AddSegmentsThroughController: the same through the controller, as
// the application adds them: the registry finds the file by its path for
// every segment, and the info file is the local file at that path.
// RandomRead: 64 KiB reads at random offsets of the whole file through the
// file service (the path an NFS READ takes: registry, then the file), with
// the info-file records examined per lookup, against reads of the same
// ranges from one source file directly.
// Scattered*: the layout of a restored backup chain (ScatteredLayout.h): as
// many segments of 4 KiB to 1 MiB over eight sparse sources.
// AddScatteredSegments adds them through the controller (time, resident
// memory growth: the info file holds the records, the index about a third of
// a byte each); ScatteredRandomRead as RandomRead, with the info-file reads
// and bytes per lookup, and two references: a plain file read through the
// service, and one raw read of a lookup's info-file bytes at a random record
// (one_info_read_ceiling: the best ratio to plain reads that any lookup
// reading the info file once can reach here); ScatteredReopen opens the info file again in a new
// object and reads once (the index is built from the file), timed.
//
//   REDIRECTED_BENCH_SEGMENTS=10000000 bench_redirected_file --benchmark_filter=Scattered
//
// HoleRead: 64 KiB reads that start in a hole, in a file whose segments
// each cover only the first half of their slot: no record covers the
// offset, so the lookup reads the info file from the estimate to its end
// (a segment added later over the hole would be found there).
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "NfsMain.h"
#include "RedirectedFile.h"
#include "ScatteredLayout.h"
#include "Utilities.h"

namespace {

constexpr long long TiB = 1LL << 40;
constexpr long long FILE_SIZE = 2 * TiB;
constexpr unsigned int READ_SIZE = 65536;
constexpr int SCATTERED_SOURCES = 8;  // after the three of the even layout

long long ResidentKiB() {
    FILE* f = fopen("/proc/self/status", "r");
    if (!f) return -1;
    char line[256];
    long long kib = -1;
    while (fgets(line, sizeof line, f))
        if (sscanf(line, "VmRSS: %lld kB", &kib) == 1) break;
    fclose(f);
    return kib;
}

// A folder with three sparse 2 TiB sources and an empty info file.
class Workspace {
public:
    Workspace() {
        char pattern[] = "/tmp/redirected-bench-XXXXXX";
        if (!mkdtemp(pattern)) abort();
        m_folder = pattern;
        for (int i = 0; i < 3 + SCATTERED_SOURCES; ++i) {
            sources.push_back(m_folder + "/source" + std::to_string(i));
            int fd = open(sources.back().c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
            if (fd == -1 || ftruncate(fd, FILE_SIZE) != 0) abort();
            close(fd);
        }
    }
    ~Workspace() {
        for (const std::string& p : created) unlink(p.c_str());
        for (const std::string& p : sources) unlink(p.c_str());
        rmdir(m_folder.c_str());
    }
    std::string NewInfoFile() {
        created.push_back(m_folder + "/info" + std::to_string(created.size()));
        int fd = open(created.back().c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        if (fd == -1) abort();
        close(fd);
        return created.back();
    }

    std::vector<std::string> sources;

private:
    std::string m_folder;
    std::vector<std::string> created;
};

Workspace& Space() {
    static Workspace space;
    return space;
}

CUtilities& Utilities() {
    static CUtilities utilities;
    return utilities;
}

CRuntimeParam& Quiet() {
    static CRuntimeParam rp("bench", 0);
    return rp;
}

// Segment i covers [i*size/n, (i+1)*size/n) from source i%3 at the same
// offset; add is called with the source, the offset and the length.
template <typename Add>
void ForEachSegment(long long n, Add add) {
    for (long long i = 0; i < n; ++i) {
        long long begin = (long long)((__int128)FILE_SIZE * i / n);
        long long end = (long long)((__int128)FILE_SIZE * (i + 1) / n);
        add(Space().sources[(size_t)(i % 3)].c_str(), begin, end - begin);
    }
}

void AddAll(CRedirectedFile& file, long long n) {
    ForEachSegment(n, [&](const char* source, long long offset, long long length) {
        file.AddSegment(&Quiet(), source, offset, offset, length, nullptr);
    });
}

// Adds through the controller; false when one was refused.
bool AddAll(CNfsMain& main, const std::string& path, long long n) {
    bool ok = true;
    char err[ERROR_TEXT_SIZE] = "";
    ForEachSegment(n, [&](const char* source, long long offset, long long length) {
        ok = main.AddRedirectedFileSegment(path.c_str(), source, offset, offset, length, err) && ok;
    });
    return ok;
}

CNfsMain& Controller() {
    static CNfsMain main("bench", 0);
    return main;
}

std::unique_ptr<CRedirectedFile> NewFile() {
    auto file = std::make_unique<CRedirectedFile>(&Utilities());
    file->Open(&Quiet(), FILE_SIZE, 0, Space().NewInfoFile().c_str(), 0, 0);
    return file;
}

// Registered through the controller once per segment count and shared by
// the read benchmarks; the path of the file.
std::string BuiltFile(long long n) {
    static std::map<long long, std::string> files;
    std::string& path = files[n];
    if (path.empty()) {
        path = Space().NewInfoFile();
        Controller().OpenRedirectedFile(path.c_str(), FILE_SIZE, true, 0, 0);
        if (!AddAll(Controller(), path, n)) abort();
    }
    return path;
}

void AddSegments(benchmark::State& state) {
    long long n = state.range(0);
    long long before = 0, after = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::unique_ptr<CRedirectedFile> file = NewFile();
        before = ResidentKiB();
        state.ResumeTiming();
        AddAll(*file, n);
        state.PauseTiming();
        after = ResidentKiB();
        file.reset();
        state.ResumeTiming();
    }
    state.counters["segments_per_s"] = benchmark::Counter((double)n * (double)state.iterations(),
                                                          benchmark::Counter::kIsRate);
    state.counters["rss_before_KiB"] = (double)before;
    state.counters["rss_after_KiB"] = (double)after;
    state.counters["rss_growth_KiB"] = (double)(after - before);
}

void AddSegmentsThroughController(benchmark::State& state) {
    long long n = state.range(0);
    long long before = 0, after = 0;
    for (auto _ : state) {
        state.PauseTiming();
        std::string path = Space().NewInfoFile();
        Controller().OpenRedirectedFile(path.c_str(), FILE_SIZE, true, 0, 0);
        before = ResidentKiB();
        state.ResumeTiming();
        if (!AddAll(Controller(), path, n)) state.SkipWithError("a segment was refused");
        state.PauseTiming();
        after = ResidentKiB();
        Controller().CloseRedirectedFile(path.c_str());
        state.ResumeTiming();
    }
    state.counters["segments_per_s"] = benchmark::Counter((double)n * (double)state.iterations(),
                                                          benchmark::Counter::kIsRate);
    state.counters["rss_before_KiB"] = (double)before;
    state.counters["rss_after_KiB"] = (double)after;
    state.counters["rss_growth_KiB"] = (double)(after - before);
}

// Each iteration reads 64 KiB at a random offset through the file service
// and then the same range of one source directly; both are timed apart, so
// that their ratio is taken under the same machine load.
void RandomRead(benchmark::State& state) {
    long long n = state.range(0);
    std::string path = BuiltFile(n);
    CUtilities& service = *Controller().GetUtils();
    CRedirectedFile& file = *service.GetRedirectedFile(path.c_str());
    LogArgu la{"bench"};
    int plain = open(Space().sources[0].c_str(), O_RDONLY);
    std::vector<char> buffer(READ_SIZE);
    std::mt19937_64 gen(5);
    long long recordsBefore = file.GetInfoFileRecordsRead();
    long long rssBefore = ResidentKiB();
    double redirectedSeconds = 0, plainSeconds = 0;
    for (auto _ : state) {
        long long offset = (long long)(gen() % (unsigned long long)(FILE_SIZE - READ_SIZE));
        bool eof;
        auto t0 = std::chrono::steady_clock::now();
        int count = service.ReadFile(&Quiet(), &la, path.c_str(), (unsigned long long)offset, SEEK_SET,
                                     buffer.data(), READ_SIZE, &eof);
        auto t1 = std::chrono::steady_clock::now();
        ssize_t direct = pread(plain, buffer.data(), READ_SIZE, offset);
        auto t2 = std::chrono::steady_clock::now();
        if (count != (int)READ_SIZE || direct != (ssize_t)READ_SIZE) state.SkipWithError("short read");
        benchmark::DoNotOptimize(buffer.data());
        redirectedSeconds += std::chrono::duration<double>(t1 - t0).count();
        plainSeconds += std::chrono::duration<double>(t2 - t1).count();
    }
    close(plain);
    double reads = (double)state.iterations();
    state.counters["redirected_us"] = redirectedSeconds / reads * 1e6;
    state.counters["plain_us"] = plainSeconds / reads * 1e6;
    state.counters["redirected_reads_per_s"] = reads / redirectedSeconds;
    state.counters["plain_reads_per_s"] = reads / plainSeconds;
    state.counters["time_ratio"] = redirectedSeconds / plainSeconds;
    state.counters["records_per_lookup"] = (double)(file.GetInfoFileRecordsRead() - recordsBefore) / reads;
    state.counters["rss_growth_KiB"] = (double)(ResidentKiB() - rssBefore);
}

// The scattered file, registered through the controller once per segment
// count; the resident memory growth and seconds of adding its segments.
struct ScatteredFile {
    std::string path;
    long long segments = 0;
    long long rssGrowthKiB = 0;
    double seconds = 0;
};

const ScatteredFile& Scattered(long long n) {
    static std::map<long long, ScatteredFile> files;
    ScatteredFile& file = files[n];
    if (!file.path.empty()) return file;
    file.path = Space().NewInfoFile();
    Controller().OpenRedirectedFile(file.path.c_str(), FILE_SIZE, true, 0, 0);
    char err[ERROR_TEXT_SIZE] = "";
    long long before = ResidentKiB();
    auto t0 = std::chrono::steady_clock::now();
    ForEachScatteredSegment(n, FILE_SIZE, SCATTERED_SOURCES, SCATTERED_WINDOW,
                            [&](int source, long long sourceOffset, long long offset, long long length) {
                                const std::string& path = Space().sources[(size_t)(3 + source)];
                                if (!Controller().AddRedirectedFileSegment(file.path.c_str(), path.c_str(),
                                                                           sourceOffset, offset, length, err))
                                    abort();
                                ++file.segments;
                            });
    file.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    file.rssGrowthKiB = ResidentKiB() - before;
    return file;
}

void AddScatteredSegments(benchmark::State& state) {
    const ScatteredFile* file = nullptr;
    for (auto _ : state) file = &Scattered(state.range(0));
    state.counters["segments"] = (double)file->segments;
    state.counters["seconds"] = file->seconds;
    state.counters["rss_growth_KiB"] = (double)file->rssGrowthKiB;
    struct stat st;
    if (stat(file->path.c_str(), &st) == 0) state.counters["info_file_MiB"] = (double)st.st_size / (1 << 20);
}

void ScatteredRandomRead(benchmark::State& state) {
    const ScatteredFile& scattered = Scattered(state.range(0));
    CUtilities& service = *Controller().GetUtils();
    CRedirectedFile& file = *service.GetRedirectedFile(scattered.path.c_str());
    LogArgu la{"bench"};
    int plain = open(Space().sources[3].c_str(), O_RDONLY);
    std::vector<char> buffer(READ_SIZE);
    // Every source window, and so the plain one, in the page cache.
    for (int k = 0; k < SCATTERED_SOURCES; ++k) {
        int fd = open(Space().sources[(size_t)(3 + k)].c_str(), O_RDONLY);
        for (long long at = 0; at < SCATTERED_WINDOW; at += READ_SIZE)
            if (pread(fd, buffer.data(), READ_SIZE, at) != (ssize_t)READ_SIZE) abort();
        close(fd);
    }
    bool warmEof;  // one lookup first, so that its read size is known
    service.ReadFile(&Quiet(), &la, scattered.path.c_str(), 0, SEEK_SET, buffer.data(), READ_SIZE, &warmEof);
    std::mt19937_64 gen(6);
    long long recordsBefore = file.GetInfoFileRecordsRead();
    long long readsBefore = file.GetInfoFileLookupReads();
    long long sourceReadsBefore = file.GetSourceReads();
    long long rssBefore = ResidentKiB();
    // Two references for the lookup's share: a plain file read through the
    // same service, and one raw read of as many info-file bytes as a lookup
    // reads, at a random record. Any lookup that reads the info file once
    // costs at least the latter, so plain / (plain + info read) is the best
    // ratio such a lookup can reach on this machine.
    const std::string& plainPath = Space().sources[3];
    int info = open(scattered.path.c_str(), O_RDONLY);
    struct stat infoStat;
    if (info == -1 || fstat(info, &infoStat) != 0) abort();
    const long long infoRecords = (long long)infoStat.st_size / SEGMENT_RECORD_SIZE;
    const long long lookupBytes = (long long)file.GetInfoFileLookupMaxBytes();
    std::mt19937_64 recordGen(7);
    double redirectedSeconds = 0, plainSeconds = 0, serviceSeconds = 0, infoSeconds = 0;
    for (auto _ : state) {
        long long offset = (long long)(gen() % (unsigned long long)(FILE_SIZE - READ_SIZE));
        long long plainOffset = offset % (SCATTERED_WINDOW - READ_SIZE);
        // Elsewhere than the plain read, which would leave its bytes in the CPU's caches.
        long long serviceOffset = (long long)(recordGen() % (unsigned long long)(SCATTERED_WINDOW - READ_SIZE));
        long long record = infoRecords > 0 ? (long long)(recordGen() % (unsigned long long)infoRecords) : 0;
        bool eof;
        auto t0 = std::chrono::steady_clock::now();
        int count = service.ReadFile(&Quiet(), &la, scattered.path.c_str(), (unsigned long long)offset, SEEK_SET,
                                     buffer.data(), READ_SIZE, &eof);
        auto t1 = std::chrono::steady_clock::now();
        ssize_t direct = pread(plain, buffer.data(), READ_SIZE, plainOffset);
        auto t2 = std::chrono::steady_clock::now();
        int served = service.ReadFile(&Quiet(), &la, plainPath.c_str(), (unsigned long long)serviceOffset, SEEK_SET,
                                      buffer.data(), READ_SIZE, &eof);
        auto t3 = std::chrono::steady_clock::now();
        if (lookupBytes > 0 && pread(info, buffer.data(), (size_t)lookupBytes, record * SEGMENT_RECORD_SIZE) < 0)
            state.SkipWithError("info read");
        auto t4 = std::chrono::steady_clock::now();
        if (count != (int)READ_SIZE || direct != (ssize_t)READ_SIZE || served != (int)READ_SIZE)
            state.SkipWithError("short read");
        benchmark::DoNotOptimize(buffer.data());
        redirectedSeconds += std::chrono::duration<double>(t1 - t0).count();
        plainSeconds += std::chrono::duration<double>(t2 - t1).count();
        serviceSeconds += std::chrono::duration<double>(t3 - t2).count();
        infoSeconds += std::chrono::duration<double>(t4 - t3).count();
    }
    close(info);
    close(plain);
    double reads = (double)state.iterations();
    state.counters["redirected_us"] = redirectedSeconds / reads * 1e6;
    state.counters["plain_us"] = plainSeconds / reads * 1e6;
    state.counters["plain_service_us"] = serviceSeconds / reads * 1e6;
    state.counters["info_read_us"] = infoSeconds / reads * 1e6;
    state.counters["redirected_to_plain"] = plainSeconds / redirectedSeconds;  // reads-per-second ratio
    state.counters["redirected_to_plain_service"] = serviceSeconds / redirectedSeconds;
    state.counters["one_info_read_ceiling"] = plainSeconds / (plainSeconds + infoSeconds);
    state.counters["records_per_lookup"] = (double)(file.GetInfoFileRecordsRead() - recordsBefore) / reads;
    state.counters["info_reads_per_lookup"] = (double)(file.GetInfoFileLookupReads() - readsBefore) / reads;
    state.counters["source_reads_per_read"] = (double)(file.GetSourceReads() - sourceReadsBefore) / reads;
    state.counters["max_info_bytes_per_lookup"] = (double)file.GetInfoFileLookupMaxBytes();
    state.counters["rss_growth_KiB"] = (double)(ResidentKiB() - rssBefore);
}

void ScatteredReopen(benchmark::State& state) {
    const ScatteredFile& scattered = Scattered(state.range(0));
    std::vector<char> buffer(READ_SIZE);
    long long rssGrowth = 0;
    for (auto _ : state) {
        state.PauseTiming();
        // The descriptor cache keeps the info file open: a new object on it
        // knows none of its records.
        CRedirectedFile file(&Utilities());
        long long before = ResidentKiB();
        state.ResumeTiming();
        file.Open(&Quiet(), FILE_SIZE, 1, scattered.path.c_str(), 0, 0);
        bool eof;
        if (file.Read(&Quiet(), FILE_SIZE / 3, buffer.data(), READ_SIZE, &eof) != (int)READ_SIZE)
            state.SkipWithError("short read");
        state.PauseTiming();
        rssGrowth = ResidentKiB() - before;
        file.Close(&Quiet());
        state.ResumeTiming();
    }
    state.counters["rss_growth_KiB"] = (double)rssGrowth;
}

void HoleRead(benchmark::State& state) {
    long long n = state.range(0);
    static std::map<long long, std::string> files;
    std::string& path = files[n];
    if (path.empty()) {
        path = Space().NewInfoFile();
        Controller().OpenRedirectedFile(path.c_str(), FILE_SIZE, true, 0, 0);
        char err[ERROR_TEXT_SIZE] = "";
        ForEachSegment(n, [&](const char* source, long long offset, long long length) {
            Controller().AddRedirectedFileSegment(path.c_str(), source, offset, offset, length / 2, err);
        });
    }
    CUtilities& service = *Controller().GetUtils();
    CRedirectedFile& file = *service.GetRedirectedFile(path.c_str());
    LogArgu la{"bench"};
    std::vector<char> buffer(READ_SIZE);
    std::mt19937_64 gen(9);
    long long recordsBefore = file.GetInfoFileRecordsRead();
    for (auto _ : state) {
        long long slot = (long long)(gen() % (unsigned long long)(n - 1));
        long long begin = (long long)((__int128)FILE_SIZE * slot / n);
        long long end = (long long)((__int128)FILE_SIZE * (slot + 1) / n);
        long long offset = begin + (end - begin) / 2 + 1;  // just past the segment
        bool eof;
        int count = service.ReadFile(&Quiet(), &la, path.c_str(), (unsigned long long)offset, SEEK_SET,
                                     buffer.data(), READ_SIZE, &eof);
        if (count != (int)READ_SIZE) state.SkipWithError("short read");
        benchmark::DoNotOptimize(buffer.data());
    }
    double reads = (double)state.iterations();
    state.counters["reads_per_s"] = benchmark::Counter(reads, benchmark::Counter::kIsRate);
    state.counters["records_per_lookup"] = (double)(file.GetInfoFileRecordsRead() - recordsBefore) / reads;
}

}  // namespace

int main(int argc, char** argv) {
    long long segments = 1000000;
    if (const char* env = getenv("REDIRECTED_BENCH_SEGMENTS")) segments = atoll(env);
    benchmark::RegisterBenchmark("AddSegments", AddSegments)
        ->Arg(segments)
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("AddSegmentsThroughController", AddSegmentsThroughController)
        ->Arg(segments)
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
    // One segment per 32 MiB block (the estimate hits at once), then many.
    for (long long n : {FILE_SIZE >> 25, segments})
        benchmark::RegisterBenchmark("RandomRead", RandomRead)->Arg(n)->Unit(benchmark::kMicrosecond)->UseRealTime();
    benchmark::RegisterBenchmark("AddScatteredSegments", AddScatteredSegments)
        ->Arg(segments)
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("ScatteredRandomRead", ScatteredRandomRead)
        ->Arg(segments)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("ScatteredReopen", ScatteredReopen)
        ->Arg(segments)
        ->Iterations(3)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("HoleRead", HoleRead)
        ->Arg(segments)
        ->Iterations(50)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
