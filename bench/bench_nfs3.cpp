// NFSv3 handlers called straight through CNfs3Prog::Process on in-memory
// streams (no sockets): GETATTR of a file, the listing of a whole folder
// page by page with READDIR and READDIRPLUS (argument: the number of
// entries in the folder), and READ and WRITE through a 16 MiB file at
// moving offsets (argument: the bytes per call). The listing and LOOKUP
// benchmarks take a second argument: 1 with the listing cache and the
// LOOKUP shortcut, 0 without them (every page a fresh scan, every name
// through realpath).
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "InputStream.h"
#include "Nfs3Prog.h"
#include "OutputStream.h"
#include "Utilities.h"

namespace {

void PutWord(std::string& b, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) b.push_back((char)(v >> shift));
}

// An exported folder of entries empty files, the program and a call's streams.
class Bench {
public:
    explicit Bench(int entries) : m_rp("bench", 0), m_prog(&m_utilities) {
        char pattern[] = "/tmp/nfsengine-bench-XXXXXX";
        m_root = mkdtemp(pattern);
        for (int i = 0; i < entries; ++i) {
            std::string path = m_root + "/vm-disk-" + std::to_string(i) + "-flat.vmdk";
            if (FILE* f = fopen(path.c_str(), "w")) fclose(f);
        }
        LogArgu la{"bench"};
        m_utilities.AddMountInfo(&m_rp, &la, m_root.c_str(), "bench", "", nullptr);
        // Mounted by the calls' address, as a client leaves it: else every
        // call would be refused before it does its work.
        m_utilities.UpdateMountClientIpAddrByExportName("bench", "127.0.0.1", nullptr, nullptr);
        m_param.iVersion = 3;
        m_param.sRemoteAddr = "127.0.0.1";
        m_param.pRuntimeParam = &m_rp;
    }
    ~Bench() {
        std::string command = "rm -rf " + m_root;
        if (system(command.c_str()) != 0) fprintf(stderr, "could not remove %s\n", m_root.c_str());
    }

    std::string HandleArgs(const std::string& path) {
        unsigned char handle[FILE_HANDLE_SIZE];
        LogArgu la{"bench"};
        m_utilities.GetFileHandle(&m_rp, &la, path.c_str(), handle, (int)sizeof handle);
        std::string b;
        PutWord(b, FILE_HANDLE_SIZE);
        b.append(reinterpret_cast<char*>(handle), sizeof handle);
        return b;
    }

    // Runs one call; the size of its reply.
    uint32_t Call(uint32_t proc, const std::string& args) {
        m_in.ResetBuffer();
        memcpy(m_in.GetFreeBuffer(), args.data(), args.size());
        m_in.AddFilledBufferSize((uint32_t)args.size());
        m_out.ResetBuffer();
        m_param.iProc = proc;
        m_prog.Process(&m_in, &m_out, &m_param);
        return m_out.GetBufferSize();
    }

    // Lists the whole folder; the number of calls it took.
    int ListAll(bool plus) {
        std::string handle = HandleArgs(m_root);
        int calls = 0;
        for (uint64_t cookie = 0;; cookie += 10) {
            std::string args = handle;
            PutWord(args, (uint32_t)(cookie >> 32));
            PutWord(args, (uint32_t)cookie);
            PutWord(args, 0);
            PutWord(args, 0);
            PutWord(args, 8192);
            if (plus) PutWord(args, 32768);
            uint32_t size = Call(plus ? 17 : 16, args);
            ++calls;
            // The last word is eof.
            const unsigned char* end = m_out.GetBuffer() + size - 4;
            if (size < 8 || end[3] == 1) break;
        }
        return calls;
    }

    const std::string& Root() const { return m_root; }
    CNfs3Prog& Program() { return m_prog; }

    // With or without the listing cache and the LOOKUP shortcut.
    void SetFast(bool fast) {
        m_prog.GetListingCache().SetEnabled(fast);
        m_prog.SetResolveShortcut(fast);
    }
    // The cache keeps the order of a folder only once its last change is a
    // second old: a datastore's folders are listed long after they changed.
    static void Settle() { std::this_thread::sleep_for(std::chrono::milliseconds(1100)); }

    // LOOKUP arguments: the folder's handle and a name.
    std::string LookupArgs(const std::string& folderHandle, const std::string& name) {
        std::string b = folderHandle;
        PutWord(b, (uint32_t)name.size());
        b += name;
        while (b.size() % 4) b.push_back('\0');
        return b;
    }

private:
    CUtilities m_utilities;
    CRuntimeParam m_rp;
    CNfs3Prog m_prog;
    ProcessParam m_param;
    CInputStream m_in;
    COutputStream m_out;
    std::string m_root;
};

void PutWord64(std::string& b, uint64_t v) {
    PutWord(b, (uint32_t)(v >> 32));
    PutWord(b, (uint32_t)v);
}

constexpr uint64_t DATA_FILE_SIZE = 16 << 20;

// A file of DATA_FILE_SIZE bytes in the bench's folder; its handle arguments.
std::string DataFile(Bench& bench) {
    std::string path = bench.Root() + "/vm-disk-0-flat.vmdk";
    if (truncate(path.c_str(), (off_t)DATA_FILE_SIZE) != 0) fprintf(stderr, "could not size %s\n", path.c_str());
    return bench.HandleArgs(path);
}

void BM_Read(benchmark::State& state) {
    Bench bench(1);
    std::string handle = DataFile(bench);
    const uint32_t count = (uint32_t)state.range(0);
    uint64_t offset = 0;
    for (auto _ : state) {
        std::string args = handle;
        PutWord64(args, offset);
        PutWord(args, count);
        benchmark::DoNotOptimize(bench.Call(6, args));
        offset = (offset + count) % DATA_FILE_SIZE;
    }
    state.SetBytesProcessed((int64_t)state.iterations() * count);
}

void BM_Write(benchmark::State& state) {
    Bench bench(1);
    std::string handle = DataFile(bench);
    const uint32_t count = (uint32_t)state.range(0);
    const std::string data(count, 'w');
    uint64_t offset = 0;
    for (auto _ : state) {
        std::string args = handle;
        PutWord64(args, offset);
        PutWord(args, count);
        PutWord(args, 0);  // UNSTABLE
        PutWord(args, count);
        args += data;
        benchmark::DoNotOptimize(bench.Call(7, args));
        offset = (offset + count) % DATA_FILE_SIZE;
    }
    state.SetBytesProcessed((int64_t)state.iterations() * count);
}

void BM_Getattr(benchmark::State& state) {
    Bench bench(1);
    std::string args = bench.HandleArgs(bench.Root() + "/vm-disk-0-flat.vmdk");
    for (auto _ : state) benchmark::DoNotOptimize(bench.Call(1, args));
}

void ListWholeFolder(benchmark::State& state, bool plus) {
    Bench bench((int)state.range(0));
    bench.SetFast(state.range(1) != 0);
    Bench::Settle();
    int calls = 0;
    unsigned long long before = bench.Program().GetListingCache().EntriesRead();
    for (auto _ : state) calls = bench.ListAll(plus);
    state.counters["calls"] = calls;
    state.counters["entries_read"] =
        (double)(bench.Program().GetListingCache().EntriesRead() - before) / (double)state.iterations();
}

void BM_ReaddirWholeFolder(benchmark::State& state) { ListWholeFolder(state, false); }
void BM_ReaddirplusWholeFolder(benchmark::State& state) { ListWholeFolder(state, true); }

// LOOKUP of the folder's names in turn (argument: the number of names).
void BM_Lookup(benchmark::State& state) {
    const int names = (int)state.range(0);
    Bench bench(names);
    bench.SetFast(state.range(1) != 0);
    std::string folder = bench.HandleArgs(bench.Root());
    std::vector<std::string> args;
    for (int i = 0; i < names; ++i)
        args.push_back(bench.LookupArgs(folder, "vm-disk-" + std::to_string(i) + "-flat.vmdk"));
    size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(bench.Call(3, args[next]));
        next = (next + 1) % args.size();
    }
}

}  // namespace

BENCHMARK(BM_Getattr);
BENCHMARK(BM_Read)->Arg(4096)->Arg(65536);
BENCHMARK(BM_Write)->Arg(4096)->Arg(16384);
BENCHMARK(BM_ReaddirWholeFolder)->ArgsProduct({{10, 100, 1000, 10000}, {0, 1}})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReaddirplusWholeFolder)->ArgsProduct({{10, 100, 1000, 10000}, {0, 1}})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Lookup)->ArgsProduct({{1, 1000}, {0, 1}});
BENCHMARK_MAIN();
