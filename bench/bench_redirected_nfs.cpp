// Sequential NFS READ of a redirected file against NFS READ of the same
// bytes as a plain file: the whole server (started through the controller)
// on loopback, and a libnfs client reading each file from start to end in
// 64 KiB READs, one at a time or 16 in flight. The redirected file is made
// of segments taken in turn from four source files, one at a time or in
// runs that continue each other in one source, so that its content equals
// the plain file's (checked on the first pass). Both files are read in every
// iteration, in alternating order, and timed apart, so that their ratio is
// taken under the same machine load.
//
// NfsRandomRead: 64 KiB READs at random offsets of a 2 TiB redirected file
// of many segments of 4 KiB to 1 MiB over eight sparse sources (the layout
// of ScatteredLayout.h), against READs of a sparse 2 TiB plain file inside
// its first window, one at a time or 16 in flight, with the info-file
// records examined per lookup.
//
//   bench_redirected_nfs                          256 MiB files, 1,000,000 segments
//   REDIRECTED_NFS_BENCH_MIB=1024 REDIRECTED_NFS_BENCH_SEGMENTS=10000000 bench_redirected_nfs
//
// The server takes its fixed ports (2049, 1058, 111), so the program moves
// itself into a network namespace of its own first (it must run as root).
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <nfsc/libnfs.h>
#include <poll.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "LoopbackBench.h"
#include "NfsMain.h"
#include "RedirectedFile.h"
#include "ScatteredLayout.h"
#include "Utilities.h"

namespace {

constexpr long long MiB = 1LL << 20;
constexpr long long HUGE_SIZE = 2LL << 40;  // 2 TiB
constexpr unsigned int READ_SIZE = 65536;
constexpr int SOURCES = 4;
constexpr int HUGE_SOURCES = 8;
constexpr int RANDOM_BATCH = 64;  // READs per file and iteration of NfsRandomRead
const char* const EXPORT_NAME = "bench";

long long SegmentCount() {
    const char* count = getenv("REDIRECTED_NFS_BENCH_SEGMENTS");
    long long n = count && *count ? atoll(count) : 1000000;
    return n > 0 ? n : 1000000;
}

void MakeSparse(const std::string& path, long long size) {
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd == -1 || ftruncate(fd, size) != 0) abort();
    close(fd);
}

long long FileBytes() {
    const char* mib = getenv("REDIRECTED_NFS_BENCH_MIB");
    long long n = mib && *mib ? atoll(mib) : 256;
    return (n > 0 ? n : 256) * MiB;
}

bool EnterPrivateNetwork() {
    if (unshare(CLONE_NEWNET) != 0) {
        perror("unshare(CLONE_NEWNET)");
        return false;
    }
    if (BringLoopbackUp()) return true;
    perror("bring lo up");
    return false;
}

// An exported folder holding the plain file, the redirected file's local
// file and, beside it, the four sources; the server and one mounted client.
class Setup {
public:
    Setup() : m_main("bench", 0) {
        char pattern[] = "/tmp/redirected-nfs-bench-XXXXXX";
        if (!mkdtemp(pattern)) abort();
        m_folder = pattern;
        m_export = m_folder + "/export";
        if (mkdir(m_export.c_str(), 0755) != 0) abort();
        m_size = FileBytes();
        WriteFile(m_export + "/plain.bin", {{0, m_size}});
        char err[ERROR_TEXT_SIZE] = "";
        if (!m_main.Initial(err) || !m_main.StartServer(0, 0, 0, 0, false, err) ||
            !m_main.AddMountPoint(m_export.c_str(), EXPORT_NAME, err)) {
            fprintf(stderr, "server: %s\n", err);
            abort();
        }
    }
    ~Setup() {
        m_client.reset();
        m_main.StopServer();
        std::string command = "rm -rf " + m_folder;
        if (system(command.c_str()) != 0) fprintf(stderr, "could not remove %s\n", m_folder.c_str());
    }

    // Registers export/name as a redirected file of segments of segment
    // bytes, taken from the four sources in turn, run consecutive segments
    // at a time: the segments of a run continue each other in one source
    // (as the pieces of a backup chain often do). Its content is the plain
    // file's. Sources are written once per layout.
    std::string Redirected(long long segment, long long run) {
        std::string name = "redirected-" + std::to_string(segment) + "-" + std::to_string(run) + ".bin";
        std::string path = m_export + "/" + name;
        if (access(path.c_str(), F_OK) == 0) return name;
        std::vector<std::vector<std::pair<long long, long long>>> pieces(SOURCES);
        long long count = (m_size + segment - 1) / segment;
        auto sourceOf = [&](long long i) { return (size_t)((i / run) % SOURCES); };
        for (long long i = 0; i < count; ++i)
            pieces[sourceOf(i)].push_back({i * segment, std::min(segment, m_size - i * segment)});
        std::vector<std::string> sources;
        for (int k = 0; k < SOURCES; ++k) {
            sources.push_back(m_folder + "/source-" + std::to_string(segment) + "-" + std::to_string(run) + "-" +
                              std::to_string(k));
            WriteFile(sources.back(), pieces[(size_t)k]);
        }
        WriteFile(path, {});  // the local file, which holds the segment records
        m_main.OpenRedirectedFile(path.c_str(), m_size, true, 0, 0);
        char err[ERROR_TEXT_SIZE] = "";
        for (long long i = 0; i < count; ++i) {
            long long length = std::min(segment, m_size - i * segment);
            // Segment i is the (i / run / SOURCES * run + i % run)-th piece of its source.
            long long fox = (i / run / SOURCES * run + i % run) * segment;
            if (!m_main.AddRedirectedFileSegment(path.c_str(), sources[sourceOf(i)].c_str(), fox, i * segment,
                                                 length, err))
                abort();
        }
        return name;
    }

    // Registers export/huge-<count>.bin: a 2 TiB redirected file of count
    // scattered segments over eight sparse sources, with a sparse plain file
    // of the same size beside it (export/huge-plain.bin).
    std::string Huge(long long count) {
        std::string name = "huge-" + std::to_string(count) + ".bin";
        std::string path = m_export + "/" + name;
        if (access(path.c_str(), F_OK) == 0) return name;
        MakeSparse(m_export + "/huge-plain.bin", HUGE_SIZE);
        std::vector<std::string> sources;
        for (int k = 0; k < HUGE_SOURCES; ++k) {
            sources.push_back(m_folder + "/huge-source-" + std::to_string(k));
            MakeSparse(sources.back(), HUGE_SIZE);
        }
        WriteFile(path, {});
        m_main.OpenRedirectedFile(path.c_str(), HUGE_SIZE, true, 0, 0);
        char err[ERROR_TEXT_SIZE] = "";
        ForEachScatteredSegment(count, HUGE_SIZE, HUGE_SOURCES, SCATTERED_WINDOW,
                                [&](int source, long long sourceOffset, long long offset, long long length) {
                                    if (!m_main.AddRedirectedFileSegment(path.c_str(), sources[(size_t)source].c_str(),
                                                                         sourceOffset, offset, length, err))
                                        abort();
                                });
        // The source windows and the plain window in the page cache.
        sources.push_back(m_export + "/huge-plain.bin");
        std::vector<char> buffer(READ_SIZE);
        for (const std::string& source : sources) {
            int fd = open(source.c_str(), O_RDONLY);
            for (long long at = 0; at < SCATTERED_WINDOW; at += READ_SIZE)
                if (pread(fd, buffer.data(), READ_SIZE, at) != (ssize_t)READ_SIZE) abort();
            close(fd);
        }
        return name;
    }
    long long RecordsRead(const std::string& name) {
        CRedirectedFile* file = m_main.GetUtils()->GetRedirectedFile((m_export + "/" + name).c_str());
        return file ? file->GetInfoFileRecordsRead() : 0;
    }
    long long SourceReads(const std::string& name) {
        CRedirectedFile* file = m_main.GetUtils()->GetRedirectedFile((m_export + "/" + name).c_str());
        return file ? file->GetSourceReads() : 0;
    }

    struct nfs_context* Client() {
        if (!m_client) {
            m_client.reset(nfs_init_context());
            std::string url = "nfs://127.0.0.1/?nfsport=2049&mountport=1058&auto-traverse-mounts=0";
            struct nfs_url* parsed = nfs_parse_url_incomplete(m_client.get(), url.c_str());
            if (!parsed) abort();
            nfs_destroy_url(parsed);
            if (nfs_mount(m_client.get(), "127.0.0.1", EXPORT_NAME) != 0) {
                fprintf(stderr, "mount: %s\n", nfs_get_error(m_client.get()));
                abort();
            }
        }
        return m_client.get();
    }
    long long Size() const { return m_size; }

private:
    struct ContextDeleter {
        void operator()(struct nfs_context* nfs) const { nfs_destroy_context(nfs); }
    };
    std::string m_folder;
    std::string m_export;
    long long m_size = 0;
    CNfsMain m_main;
    std::unique_ptr<struct nfs_context, ContextDeleter> m_client;
};

Setup* g_setup = nullptr;

struct InFlight {
    int pending = 0;
    bool failed = false;
};

void OnRead(int status, struct nfs_context*, void*, void* privateData) {
    InFlight* flight = static_cast<InFlight*>(privateData);
    --flight->pending;
    if (status != (int)READ_SIZE) flight->failed = true;
}

// READ_SIZE READs at offsets, up to depth in flight; the seconds they took,
// or -1 when one failed or came back short.
double ReadAt(struct nfsfh* fh, const std::vector<uint64_t>& offsets, int depth) {
    struct nfs_context* nfs = g_setup->Client();
    InFlight flight;
    size_t next = 0;
    auto start = std::chrono::steady_clock::now();
    while ((next < offsets.size() || flight.pending > 0) && !flight.failed) {
        while (next < offsets.size() && flight.pending < depth) {
            if (nfs_pread_async(nfs, fh, offsets[next], READ_SIZE, OnRead, &flight) != 0) return -1;
            ++flight.pending;
            ++next;
        }
        struct pollfd pfd = {nfs_get_fd(nfs), (short)nfs_which_events(nfs), 0};
        if (poll(&pfd, 1, 5000) <= 0 || nfs_service(nfs, pfd.revents) < 0) return -1;
    }
    if (flight.failed) return -1;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Reads the whole file with depth READs in flight (its size a multiple of
// READ_SIZE); the seconds, or -1.
double ReadAllInFlight(const std::string& name, int depth) {
    struct nfsfh* fh = nullptr;
    if (nfs_open(g_setup->Client(), ("/" + name).c_str(), O_RDONLY, &fh) != 0) return -1;
    std::vector<uint64_t> offsets;
    for (long long offset = 0; offset < g_setup->Size(); offset += READ_SIZE) offsets.push_back((uint64_t)offset);
    double seconds = ReadAt(fh, offsets, depth);
    nfs_close(g_setup->Client(), fh);
    return seconds;
}

// Reads the whole file in READ_SIZE READs; the seconds it took, and the
// bytes compared with the content when check is set (-1 on any failure).
double ReadAll(const std::string& name, bool check, long long* bytes) {
    struct nfs_context* nfs = g_setup->Client();
    struct nfsfh* fh = nullptr;
    *bytes = -1;
    if (nfs_open(nfs, ("/" + name).c_str(), O_RDONLY, &fh) != 0) return 0;
    std::vector<char> buffer(READ_SIZE), expected(READ_SIZE);
    long long offset = 0;
    bool same = true;
    auto start = std::chrono::steady_clock::now();
    for (;;) {
        int n = nfs_pread(nfs, fh, (uint64_t)offset, READ_SIZE, buffer.data());
        if (n <= 0) {
            if (n < 0) offset = -1;
            break;
        }
        if (check) {
            Fill(offset, expected.data(), (size_t)n);
            same = same && memcmp(expected.data(), buffer.data(), (size_t)n) == 0;
        }
        offset += n;
    }
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    nfs_close(nfs, fh);
    *bytes = same ? offset : -1;
    return seconds;
}

void SequentialRead(benchmark::State& state) {
    long long segment = state.range(0);
    int depth = (int)state.range(1);
    long long run = state.range(2);
    std::string redirected = g_setup->Redirected(segment, run);
    const long long size = g_setup->Size();
    long long bytes = 0;
    // A first pass of each checks the bytes and warms the caches.
    ReadAll("plain.bin", true, &bytes);
    if (bytes != size) return state.SkipWithError("plain file read wrong");
    ReadAll(redirected, true, &bytes);
    if (bytes != size) return state.SkipWithError("redirected file read wrong");

    double plainSeconds = 0, redirectedSeconds = 0;
    bool plainFirst = true;
    long long sourceReadsBefore = g_setup->SourceReads(redirected);
    for (auto _ : state) {
        long long plainBytes = 0, redirectedBytes = 0;
        auto read = [&](const std::string& name, long long* bytes) {
            if (depth <= 1) return ReadAll(name, false, bytes);
            double seconds = ReadAllInFlight(name, depth);
            *bytes = seconds < 0 ? -1 : size;
            return seconds;
        };
        if (plainFirst) {
            plainSeconds += read("plain.bin", &plainBytes);
            redirectedSeconds += read(redirected, &redirectedBytes);
        } else {
            redirectedSeconds += read(redirected, &redirectedBytes);
            plainSeconds += read("plain.bin", &plainBytes);
        }
        plainFirst = !plainFirst;
        if (plainBytes != size || redirectedBytes != size) return state.SkipWithError("short read");
    }
    double megabytes = (double)size * (double)state.iterations() / 1e6;
    state.counters["plain_MBps"] = megabytes / plainSeconds;
    state.counters["redirected_MBps"] = megabytes / redirectedSeconds;
    state.counters["redirected_to_plain"] = plainSeconds / redirectedSeconds;  // throughput ratio
    state.counters["segments"] = (double)((size + segment - 1) / segment);
    state.counters["in_flight"] = depth;
    state.counters["run"] = (double)run;
    state.counters["source_reads_per_READ"] = (double)(g_setup->SourceReads(redirected) - sourceReadsBefore) /
                                              ((double)size / READ_SIZE * (double)state.iterations());
}

// The plain file is read inside its first window, in the page cache as
// the redirected file's sources are (see ScatteredLayout.h).
uint64_t PlainOffset(uint64_t offset) { return offset % (uint64_t)(SCATTERED_WINDOW - READ_SIZE); }

// Each iteration sends one READ at a random offset to each file (a batch of
// them with several in flight), in alternating order, timed apart.
void RandomRead(benchmark::State& state) {
    std::string redirected = g_setup->Huge(state.range(0));
    struct nfs_context* nfs = g_setup->Client();
    struct nfsfh* plainFh = nullptr;
    struct nfsfh* redirectedFh = nullptr;
    if (nfs_open(nfs, "/huge-plain.bin", O_RDONLY, &plainFh) != 0 ||
        nfs_open(nfs, ("/" + redirected).c_str(), O_RDONLY, &redirectedFh) != 0)
        return state.SkipWithError("open failed");
    std::vector<char> buffer(READ_SIZE);
    std::mt19937_64 gen(7);
    long long recordsBefore = g_setup->RecordsRead(redirected);
    double plainSeconds = 0, redirectedSeconds = 0;
    bool plainFirst = true;
    const int depth = (int)state.range(1);
    if (depth > 1) {
        // A batch of random READs to each file per iteration, depth in flight.
        for (auto _ : state) {
            std::vector<uint64_t> offsets;
            for (int i = 0; i < RANDOM_BATCH; ++i) offsets.push_back(gen() % (uint64_t)(HUGE_SIZE - READ_SIZE));
            std::vector<uint64_t> plainOffsets;
            for (uint64_t offset : offsets) plainOffsets.push_back(PlainOffset(offset));
            for (int turn = 0; turn < 2; ++turn) {
                bool plain = (turn == 0) == plainFirst;
                double seconds = ReadAt(plain ? plainFh : redirectedFh, plain ? plainOffsets : offsets, depth);
                if (seconds < 0) return state.SkipWithError("READ failed");
                (plain ? plainSeconds : redirectedSeconds) += seconds;
            }
            plainFirst = !plainFirst;
        }
        nfs_close(nfs, plainFh);
        nfs_close(nfs, redirectedFh);
        double reads = (double)state.iterations() * RANDOM_BATCH;
        state.counters["plain_reads_per_s"] = reads / plainSeconds;
        state.counters["redirected_reads_per_s"] = reads / redirectedSeconds;
        state.counters["redirected_to_plain"] = plainSeconds / redirectedSeconds;
        state.counters["records_per_lookup"] = (double)(g_setup->RecordsRead(redirected) - recordsBefore) / reads;
        state.counters["in_flight"] = depth;
        return;
    }
    for (auto _ : state) {
        uint64_t offset = gen() % (uint64_t)(HUGE_SIZE - READ_SIZE);
        for (int turn = 0; turn < 2; ++turn) {
            bool plain = (turn == 0) == plainFirst;
            auto start = std::chrono::steady_clock::now();
            int n = nfs_pread(nfs, plain ? plainFh : redirectedFh, plain ? PlainOffset(offset) : offset, READ_SIZE,
                              buffer.data());
            double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            (plain ? plainSeconds : redirectedSeconds) += seconds;
            if (n != (int)READ_SIZE) return state.SkipWithError("short read");
        }
        plainFirst = !plainFirst;
    }
    nfs_close(nfs, plainFh);
    nfs_close(nfs, redirectedFh);
    double reads = (double)state.iterations();
    state.counters["plain_reads_per_s"] = reads / plainSeconds;
    state.counters["redirected_reads_per_s"] = reads / redirectedSeconds;
    state.counters["redirected_to_plain"] = plainSeconds / redirectedSeconds;  // reads-per-second ratio
    state.counters["records_per_lookup"] = (double)(g_setup->RecordsRead(redirected) - recordsBefore) / reads;
}

}  // namespace

int main(int argc, char** argv) {
    if (!EnterPrivateNetwork()) {
        fprintf(stderr, "needs root: the server takes its fixed ports in a network namespace of its own\n");
        return 1;
    }
    Setup setup;
    g_setup = &setup;
    // Segments of 1 MiB, of 64 KiB (one per READ) and of 16 KiB (four per
    // READ), each from another source than the one before; then 16 KiB
    // segments in runs of four that continue each other in one source. One
    // READ at a time, then 16 in flight.
    for (int depth : {1, 16})
        for (auto layout : {std::pair<long long, long long>{MiB, 1}, {64 * 1024LL, 1}, {16 * 1024LL, 1},
                            {16 * 1024LL, 4}})
            benchmark::RegisterBenchmark("NfsSequentialRead", SequentialRead)
                ->Args({layout.first, depth, layout.second})
                ->Iterations(4)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
    // One segment per 32 MiB block (the estimate hits at once), then many.
    for (int depth : {1, 16})
        for (long long count : {HUGE_SIZE >> 25, SegmentCount()})
            benchmark::RegisterBenchmark("NfsRandomRead", RandomRead)
                ->Args({count, depth})
                ->Iterations(depth > 1 ? 100 : 3000)
                ->Unit(benchmark::kMicrosecond)
                ->UseRealTime();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    g_setup = nullptr;
    return 0;
}
