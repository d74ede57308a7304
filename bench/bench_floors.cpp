// What this machine charges for the system calls that the engine's hot
// paths cannot do without, made bare, with no server around them. Each one
// bounds what any server on this machine can reach for that path:
//
//   ListingEntry      one READDIRPLUS entry: the lstat of its attributes and
//                     the open, seek to the end and close of its size through
//                     a cached descriptor (a listing larger than the cache
//                     opens one per entry and closes as many when thinning).
//   ReadCall/mode:0   the server's side of one 64 KiB READ over loopback TCP,
//                     16 in flight: receive the call, pread the data, fstat,
//                     send header and data; CPU time of the serving thread.
//   ReadCall/mode:1   the same with the data spliced from the file through a
//                     pipe to the socket instead of read and sent.
//   ReadCall/mode:2   copied, with the calls that arrived together taken in
//                     one receive and their replies sent in one send.
//   SyncBatch/N       N writes of 16 KiB appended to a new file on the disk's
//                     file system, then one fdatasync: what a stable batch of
//                     N pipelined WRITEs costs at least.
//   RecordRead        a random 64 KiB read against a random read of one
//                     lookup's 1,792 bytes of a 256 MiB file, both cached:
//                     plain / (plain + record) is the best ratio a redirected
//                     read that reads its info file once can reach; and the
//                     record taken from a mapping of the file instead.
//
//   bench_floors [--benchmark_filter=...]     (files under /var/tmp)
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int READ_SIZE = 65536;
constexpr int HEADER_SIZE = 128;  // a READ reply's header, about
constexpr int CALL_SIZE = 100;    // a READ call, about
constexpr int IN_FLIGHT = 16;

std::string NewFolder() {
    char pattern[] = "/var/tmp/nfsengine-floors-XXXXXX";
    if (mkdtemp(pattern) == nullptr) abort();
    return pattern;
}

double ThreadCpuMicroseconds() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return (double)t.tv_sec * 1e6 + (double)t.tv_nsec / 1e3;
}

// A file of size bytes, written and so in the page cache.
std::string CachedFile(const std::string& folder, long long size) {
    std::string path = folder + "/data";
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    std::vector<char> chunk(1 << 20, 7);
    for (long long at = 0; fd != -1 && at < size; at += (long long)chunk.size())
        if (write(fd, chunk.data(), chunk.size()) != (ssize_t)chunk.size()) abort();
    if (fd == -1) abort();
    close(fd);
    return path;
}

void ListingEntry(benchmark::State& state) {
    const int entries = (int)state.range(0);
    const std::string folder = NewFolder();
    std::vector<std::string> paths;
    for (int i = 0; i < entries; ++i) {
        paths.push_back(folder + "/file-" + std::to_string(i));
        int fd = open(paths.back().c_str(), O_WRONLY | O_CREAT, 0644);
        if (fd == -1) abort();
        close(fd);
    }
    double seconds = 0;
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        for (const std::string& path : paths) {
            struct stat st;
            if (lstat(path.c_str(), &st) != 0) abort();
            int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
            benchmark::DoNotOptimize(lseek(fd, 0, SEEK_END));
            close(fd);
        }
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    }
    state.counters["us_per_entry"] = seconds / ((double)state.iterations() * entries) * 1e6;
    for (const std::string& path : paths) unlink(path.c_str());
    rmdir(folder.c_str());
}

bool ReceiveAll(int fd, char* to, int n) {
    for (int got = 0; got < n;) {
        ssize_t r = recv(fd, to + got, (size_t)(n - got), 0);
        if (r <= 0) return false;
        got += (int)r;
    }
    return true;
}

bool SendAll(int fd, const char* from, int n, int flags) {
    for (int done = 0; done < n;) {
        ssize_t r = send(fd, from + done, (size_t)(n - done), flags | MSG_NOSIGNAL);
        if (r <= 0) return false;
        done += (int)r;
    }
    return true;
}

enum ReadMode { COPY, SPLICE, COPY_BATCHED };

// Serves calls READs of the file on the connection; the CPU time it took.
// COPY_BATCHED takes every call that has arrived in one receive and sends
// their replies in one send, as the engine does.
double ServeReads(int connection, int file, long long fileSize, int calls, ReadMode mode) {
    std::vector<char> replies((size_t)IN_FLIGHT * (HEADER_SIZE + READ_SIZE));
    std::vector<char> received((size_t)IN_FLIGHT * CALL_SIZE);
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) abort();
    fcntl(pipeEnds[1], F_SETPIPE_SZ, 1 << 20);
    const double start = ThreadCpuMicroseconds();
    long long offset = 0;
    int pending = 0;  // bytes of calls received and not yet served
    for (int served = 0; served < calls;) {
        int batch = 1;
        if (mode == COPY_BATCHED) {
            while (pending < CALL_SIZE) {
                ssize_t n = recv(connection, received.data() + pending, received.size() - (size_t)pending, 0);
                if (n <= 0) return ThreadCpuMicroseconds() - start;
                pending += (int)n;
            }
            batch = pending / CALL_SIZE;
            pending -= batch * CALL_SIZE;
            memmove(received.data(), received.data() + batch * CALL_SIZE, (size_t)pending);
        } else if (!ReceiveAll(connection, received.data(), CALL_SIZE)) {
            break;
        }
        struct stat st;
        if (mode == SPLICE) {
            loff_t at = offset;
            ssize_t moved = splice(file, &at, pipeEnds[1], nullptr, READ_SIZE, 0);
            fstat(file, &st);
            if (moved != READ_SIZE || !SendAll(connection, replies.data(), HEADER_SIZE, MSG_MORE)) break;
            for (ssize_t sent = 0; sent < moved;) {
                ssize_t r = splice(pipeEnds[0], nullptr, connection, nullptr, (size_t)(moved - sent), SPLICE_F_MORE);
                if (r <= 0) abort();
                sent += r;
            }
        } else {
            for (int k = 0; k < batch; ++k) {
                char* reply = replies.data() + (size_t)k * (HEADER_SIZE + READ_SIZE);
                if (pread(file, reply + HEADER_SIZE, READ_SIZE, offset) != READ_SIZE) abort();
                fstat(file, &st);
                offset = (offset + READ_SIZE) % fileSize;
            }
            if (!SendAll(connection, replies.data(), batch * (HEADER_SIZE + READ_SIZE), 0)) break;
        }
        if (mode == SPLICE) offset = (offset + READ_SIZE) % fileSize;
        served += batch;
    }
    const double used = ThreadCpuMicroseconds() - start;
    close(pipeEnds[0]);
    close(pipeEnds[1]);
    return used;
}

void ReadCall(benchmark::State& state) {
    const ReadMode mode = (ReadMode)state.range(0);
    const int calls = 20000;
    const long long fileSize = 256LL << 20;
    const std::string folder = NewFolder();
    const std::string path = CachedFile(folder, fileSize);
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener == -1 || bind(listener, (sockaddr*)&address, sizeof address) != 0 || listen(listener, 1) != 0 ||
        getsockname(listener, (sockaddr*)&address, &length) != 0) {
        state.SkipWithError("no loopback socket");
        return;
    }
    const int on = 1;
    double serverCpu = 0;
    long long served = 0;
    for (auto _ : state) {
        double cpu = 0;
        std::thread server([&] {
            int connection = accept(listener, nullptr, nullptr);
            int file = open(path.c_str(), O_RDONLY);
            setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            cpu = ServeReads(connection, file, fileSize, calls, mode);
            close(file);
            close(connection);
        });
        int client = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(client, (sockaddr*)&address, sizeof address) != 0) abort();
        setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        char call[CALL_SIZE] = {};
        std::vector<char> replies(1 << 20);
        const long long wanted = (long long)calls * (HEADER_SIZE + READ_SIZE);
        long long received = 0;
        int sent = 0;
        for (; sent < IN_FLIGHT; ++sent) SendAll(client, call, CALL_SIZE, 0);
        while (received < wanted) {
            ssize_t n = recv(client, replies.data(), replies.size(), 0);
            if (n <= 0) break;
            const long long before = received / (HEADER_SIZE + READ_SIZE);
            received += n;
            for (long long k = before; k < received / (HEADER_SIZE + READ_SIZE) && sent < calls; ++k, ++sent)
                SendAll(client, call, CALL_SIZE, 0);
        }
        close(client);
        server.join();
        serverCpu += cpu;
        served += calls;
    }
    close(listener);
    state.counters["server_cpu_us_per_read"] = serverCpu / (double)served;
    unlink(path.c_str());
    rmdir(folder.c_str());
}

void SyncBatch(benchmark::State& state) {
    const int writes = (int)state.range(0);
    const std::string folder = NewFolder();
    const std::string path = folder + "/synced";
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    std::vector<char> data(16384, 's');
    long long offset = 0;
    double syncSeconds = 0;
    for (auto _ : state) {
        for (int i = 0; i < writes; ++i, offset += (long long)data.size())
            if (pwrite(fd, data.data(), data.size(), offset) != (ssize_t)data.size()) abort();
        auto t0 = std::chrono::steady_clock::now();
        if (fdatasync(fd) != 0) abort();
        syncSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        if (offset >= (256LL << 20)) {
            state.PauseTiming();
            if (ftruncate(fd, 0) != 0 || fsync(fd) != 0) abort();
            offset = 0;
            state.ResumeTiming();
        }
    }
    close(fd);
    state.counters["sync_us"] = syncSeconds / (double)state.iterations() * 1e6;
    // Bytes made stable per second by batches of this size alone, syncs back to back.
    state.counters["MBps_at_most"] =
        (double)writes * (double)data.size() * (double)state.iterations() / syncSeconds / 1e6;
    unlink(path.c_str());
    rmdir(folder.c_str());
}

void RecordRead(benchmark::State& state) {
    const long long fileSize = 256LL << 20;
    const int recordBytes = 1792;  // 64 records of 28 bytes
    const std::string folder = NewFolder();
    const std::string path = CachedFile(folder, fileSize);
    int fd = open(path.c_str(), O_RDONLY);
    std::vector<char> buffer(READ_SIZE);
    std::mt19937_64 random(18);
    double plainSeconds = 0, recordSeconds = 0;
    for (auto _ : state) {
        const long long plainAt = (long long)(random() % (unsigned long long)(fileSize - READ_SIZE));
        const long long recordAt = (long long)(random() % (unsigned long long)(fileSize / 28 - 64)) * 28;
        auto t0 = std::chrono::steady_clock::now();
        if (pread(fd, buffer.data(), READ_SIZE, plainAt) != READ_SIZE) abort();
        auto t1 = std::chrono::steady_clock::now();
        if (pread(fd, buffer.data(), recordBytes, recordAt) != recordBytes) abort();
        auto t2 = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(buffer.data());
        plainSeconds += std::chrono::duration<double>(t1 - t0).count();
        recordSeconds += std::chrono::duration<double>(t2 - t1).count();
    }
    // The same records through a mapping of the file instead: no system
    // call, but a page fault for every record on a page not touched yet.
    // Only the first 16,384 records are taken (most land on new pages), so
    // this is the cheap end: a mapping kept this way grows resident memory
    // up to the file's size, and dropping pages again costs more.
    const int touches = (int)std::min<long long>(16384, std::max<long long>(1, (long long)state.iterations()));
    char* mapped = (char*)mmap(nullptr, (size_t)fileSize, PROT_READ, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED) abort();
    auto m0 = std::chrono::steady_clock::now();
    for (int i = 0; i < touches; ++i) {
        const long long recordAt = (long long)(random() % (unsigned long long)(fileSize / 28 - 64)) * 28;
        memcpy(buffer.data(), mapped + recordAt, (size_t)recordBytes);
        benchmark::DoNotOptimize(buffer.data());
    }
    const double mappedSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m0).count();
    munmap(mapped, (size_t)fileSize);
    close(fd);
    const double reads = (double)state.iterations();
    state.counters["plain_us"] = plainSeconds / reads * 1e6;
    state.counters["record_us"] = recordSeconds / reads * 1e6;
    const double mappedUs = mappedSeconds / touches * 1e6;
    state.counters["mapped_record_us"] = mappedUs;
    state.counters["one_record_read_ceiling"] = plainSeconds / (plainSeconds + recordSeconds);
    state.counters["mapped_record_ceiling"] = (plainSeconds / reads * 1e6) / (plainSeconds / reads * 1e6 + mappedUs);
    unlink(path.c_str());
    rmdir(folder.c_str());
}

}  // namespace

BENCHMARK(ListingEntry)->Arg(10000)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(ReadCall)->ArgName("mode")->Arg(COPY)->Arg(SPLICE)->Arg(COPY_BATCHED)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(SyncBatch)->ArgName("writes")->Arg(8)->Arg(16)->Unit(benchmark::kMicrosecond)->Iterations(500);
BENCHMARK(RecordRead)->Unit(benchmark::kMicrosecond)->Iterations(200000);

BENCHMARK_MAIN();
