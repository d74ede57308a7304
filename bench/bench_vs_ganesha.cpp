// The engine against nfs-ganesha (VFS), side by side: both servers run as
// separate processes on loopback, each in a network and mount namespace of
// its own (so both take 2049 and ganesha its own rpcbind on 111), and the
// same libnfs client code drives both over one TCP connection per client.
// Every figure is measured on both servers in each iteration, in alternating
// order; each repetition records the engine's value, ganesha's value and
// their ratio, and the program ends with a table of the medians.
//
// Both servers export the same data folder (same files, same page cache):
//   read.bin              the file of the READ figures
//   client-0 .. client-9  one file per client of the ten-client figure
//   names/                10,000 files (LOOKUP cycling, READDIRPLUS)
//   small/                1,000 files (READDIRPLUS)
//   write-engine.bin, write-ganesha.bin   written by one server each
//
// Environment:
//   NFS_VS_GANESHA_DIR    parent of the temporary data folder (/var/tmp);
//                         a disk file system, not tmpfs
//   NFS_VS_GANESHA_MIB    size of each read and written file (256)
//   NFS_VS_GANESHA_CALLS  GETATTR/LOOKUP calls per pass (20000)
//   NFS_VS_GANESHA_ENGINE the console program (../nfsengine beside bench/)
//   NFS_VS_GANESHA_BIN, NFS_VS_GANESHA_RPCBIND, NFS_VS_GANESHA_STRACE
//                         ganesha.nfsd, rpcbind and strace
//   NFS_VS_GANESHA_KEEP   set: keep the temporary folder (logs of both
//                         servers, ganesha's configuration, strace output)
//
// Must run as root. Run through scripts/bench-vs-ganesha.sh.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <nfsc/libnfs.h>
// after libnfs.h
#include <nfsc/libnfs-raw.h>
#include <nfsc/libnfs-zdr.h>
#include <nfsc/libnfs-raw-mount.h>
#include <nfsc/libnfs-raw-nfs.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "LoopbackBench.h"

namespace {

constexpr long long MiB = 1LL << 20;
constexpr uint32_t READ_SIZE = 65536;
constexpr uint32_t WRITE_SIZE = 16384;
constexpr int DEPTH = 16;
constexpr int CLIENTS = 10;
constexpr int BIG_FOLDER = 10000;
constexpr int SMALL_FOLDER = 1000;
// READDIRPLUS sizes asked for: bytes of names and cookies, bytes of reply.
constexpr uint32_t DIRCOUNT = 8192;
constexpr uint32_t MAXCOUNT = 32768;
constexpr int SYNC_COUNT_WRITES = 1024;  // WRITEs of each traced pass
const char* const ENGINE_EXPORT = "bench";
enum { ENGINE = 0, GANESHA = 1 };
const char* const SERVER_NAMES[2] = {"engine", "ganesha"};

long long EnvNumber(const char* name, long long fallback) {
    const char* text = getenv(name);
    long long n = text && *text ? atoll(text) : fallback;
    return n > 0 ? n : fallback;
}
std::string EnvText(const char* name, const std::string& fallback) {
    const char* text = getenv(name);
    return text && *text ? text : fallback;
}

// What must go at exit, also when the run fails: the processes started
// (killed) and the temporary folder (removed). Kept in plain arrays so that
// the signal handler can use them.
pid_t g_children[32];
int g_childCount = 0;
char g_tempFolder[PATH_MAX] = "";
bool g_keep = false;  // NFS_VS_GANESHA_KEEP: leave the folder (logs, traces) for a look

void AddChild(pid_t pid) {
    if (g_childCount == (int)(sizeof g_children / sizeof g_children[0])) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        abort();
    }
    g_children[g_childCount++] = pid;
}

void ForgetChild(pid_t pid) {
    for (int i = 0; i < g_childCount; ++i)
        if (g_children[i] == pid) g_children[i] = -1;
}

// Only async-signal-safe calls: used from the signal handler too.
void KillAllAndRemove() {
    for (int i = 0; i < g_childCount; ++i)
        if (g_children[i] > 0) kill(g_children[i], SIGKILL);
    for (int i = 0; i < g_childCount; ++i)
        if (g_children[i] > 0) waitpid(g_children[i], nullptr, 0);
    g_childCount = 0;
    if (g_tempFolder[0] && g_keep) {
        static const char kept[] = "bench_vs_ganesha: kept the temporary folder (NFS_VS_GANESHA_KEEP)\n";
        ssize_t written = write(2, kept, sizeof kept - 1);
        (void)written;
        g_tempFolder[0] = '\0';
    }
    if (g_tempFolder[0]) {
        pid_t pid = fork();
        if (pid == 0) {
            execl("/bin/rm", "rm", "-rf", g_tempFolder, (char*)nullptr);
            _exit(127);
        }
        if (pid > 0) waitpid(pid, nullptr, 0);
        g_tempFolder[0] = '\0';
    }
}

void OnSignal(int) {
    KillAllAndRemove();
    _exit(2);
}

[[noreturn]] void Fail(const char* format, ...) {
    va_list args;
    va_start(args, format);
    fprintf(stderr, "bench_vs_ganesha: ");
    vfprintf(stderr, format, args);
    fprintf(stderr, "\n");
    va_end(args);
    KillAllAndRemove();
    _exit(1);
}

double Now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

bool WaitForPath(const std::string& path, double seconds) {
    for (double end = Now() + seconds; Now() < end; usleep(20000))
        if (access(path.c_str(), F_OK) == 0) return true;
    return false;
}

// Waits up to seconds for pid to end; kills it after that.
void Reap(pid_t pid, double seconds) {
    if (pid <= 0) return;
    for (double end = Now() + seconds; Now() < end; usleep(20000))
        if (waitpid(pid, nullptr, WNOHANG) == pid) return ForgetChild(pid);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    ForgetChild(pid);
}

// A network and mount namespace, held by a child process that only waits;
// it ends with this object or with the benchmark. /run (rpcbind's socket,
// ganesha's state) and /var/lib/nfs are private to it.
class Namespace {
public:
    Namespace() {
        int ready[2], hold[2];
        if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(hold, O_CLOEXEC) != 0) Fail("pipe: %s", strerror(errno));
        m_holder = fork();
        if (m_holder == -1) Fail("fork: %s", strerror(errno));
        if (m_holder == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(hold[1]);
            bool ok = unshare(CLONE_NEWNET | CLONE_NEWNS) == 0 &&
                      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                      mount("tmpfs", "/run", "tmpfs", 0, "mode=0755") == 0 && BringLoopbackUp();
            if (ok && access("/var/lib/nfs", F_OK) == 0)
                ok = mount("tmpfs", "/var/lib/nfs", "tmpfs", 0, "mode=0755") == 0;
            char c = ok ? '1' : '0';
            if (write(ready[1], &c, 1) != 1) _exit(1);
            char b;
            while (read(hold[0], &b, 1) != 0 && errno == EINTR) {
            }
            _exit(0);
        }
        AddChild(m_holder);
        close(ready[1]);
        close(hold[0]);
        m_hold = hold[1];
        char c = '0';
        bool ok = read(ready[0], &c, 1) == 1 && c == '1';
        close(ready[0]);
        if (!ok) Fail("could not make a network and mount namespace (needs root)");
        std::string proc = "/proc/" + std::to_string(m_holder) + "/ns/";
        m_net = open((proc + "net").c_str(), O_RDONLY | O_CLOEXEC);
        m_mnt = open((proc + "mnt").c_str(), O_RDONLY | O_CLOEXEC);
        if (m_net == -1 || m_mnt == -1) Fail("open %s: %s", proc.c_str(), strerror(errno));
    }
    ~Namespace() {
        close(m_net);
        close(m_mnt);
        close(m_hold);
        Reap(m_holder, 5);
    }
    Namespace(const Namespace&) = delete;
    Namespace& operator=(const Namespace&) = delete;

    // Moves the calling thread into the network namespace: sockets made
    // afterwards belong to it, wherever they are used later.
    void Enter() const {
        if (setns(m_net, CLONE_NEWNET) != 0) Fail("setns: %s", strerror(errno));
    }
    // path as the processes inside see it.
    std::string Inside(const std::string& path) const { return "/proc/" + std::to_string(m_holder) + "/root" + path; }

    // Starts argv inside, stdin from in (or /dev/null when -1), stdout and
    // stderr appended to log.
    pid_t Spawn(const std::vector<std::string>& argv, int in, const std::string& log) const {
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (out == -1 || null == -1) Fail("open %s: %s", log.c_str(), strerror(errno));
        pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (setns(m_mnt, CLONE_NEWNS) != 0 || setns(m_net, CLONE_NEWNET) != 0 || chdir("/") != 0) _exit(126);
            signal(SIGPIPE, SIG_DFL);
            if (dup2(in >= 0 ? in : null, 0) == -1 || dup2(out, 1) == -1 || dup2(out, 2) == -1) _exit(126);
            execv(args[0], args.data());
            _exit(127);
        }
        close(out);
        close(null);
        if (pid == -1) Fail("fork: %s", strerror(errno));
        AddChild(pid);
        return pid;
    }

private:
    pid_t m_holder = -1;
    int m_hold = -1;
    int m_net = -1;
    int m_mnt = -1;
};

// One server process in its namespace, with what its clients mount.
class Server {
public:
    Server(const char* name, std::string mountPath) : m_name(name), m_mountPath(std::move(mountPath)) {}
    ~Server() { Stop(); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    const Namespace& Ns() const { return m_ns; }
    const char* Name() const { return m_name; }
    const std::string& MountPath() const { return m_mountPath; }

    // The engine's console program serving folder; under strace when
    // traceFile is set (then the process is strace, and its CPU says nothing).
    void StartEngine(const std::string& program, const std::string& folder, const std::string& log,
                     const std::string& traceFile = "") {
        int in[2];
        if (pipe2(in, O_CLOEXEC) != 0) Fail("pipe: %s", strerror(errno));
        std::vector<std::string> argv = {program, "-md", "int"};
        if (!traceFile.empty())
            argv.insert(argv.begin(), {EnvText("NFS_VS_GANESHA_STRACE", "/usr/bin/strace"), "-f", "-qq", "-o",
                                       traceFile, "-e", "trace=fsync,fdatasync,sync_file_range,syncfs,open,openat",
                                       "-e", "signal=none"});
        m_pid = m_ns.Spawn(argv, in[0], log);
        close(in[0]);
        m_stdin = in[1];
        std::string commands = "debug\nstart\nmount " + folder + "=" + ENGINE_EXPORT + "\n";
        if (write(m_stdin, commands.data(), commands.size()) != (ssize_t)commands.size())
            Fail("engine stdin: %s", strerror(errno));
    }

    // ganesha.nfsd in the foreground with an rpcbind of its own.
    void StartGanesha(const std::string& folder, const std::string& runFolder) {
        m_rpcbind = m_ns.Spawn({EnvText("NFS_VS_GANESHA_RPCBIND", "/usr/sbin/rpcbind"), "-f", "-w"}, -1,
                               runFolder + "/rpcbind.log");
        if (!WaitForPath(m_ns.Inside("/run/rpcbind.sock"), 10)) Fail("rpcbind did not start");
        std::string conf = runFolder + "/ganesha.conf";
        FILE* f = fopen(conf.c_str(), "w");
        if (!f) Fail("%s: %s", conf.c_str(), strerror(errno));
        fprintf(f,
                "NFS_CORE_PARAM {\n Protocols = 3;\n Enable_NLM = false;\n Enable_RQUOTA = false;\n"
                " NFS_Port = 2049;\n MNT_Port = 1058;\n}\n"
                "NFSV4 { Graceless = true; }\n"
                "LOG { Default_Log_Level = EVENT; }\n"
                "EXPORT {\n Export_Id = 1;\n Path = %s;\n Pseudo = /bench;\n Access_Type = RW;\n"
                " Squash = No_Root_Squash;\n SecType = sys;\n Protocols = 3;\n Transports = TCP;\n"
                " FSAL { Name = VFS; }\n}\n",
                folder.c_str());
        fclose(f);
        m_pid = m_ns.Spawn({EnvText("NFS_VS_GANESHA_BIN", "/usr/bin/ganesha.nfsd"), "-F", "-f", conf, "-L",
                            runFolder + "/ganesha.log", "-p", runFolder + "/ganesha.pid"},
                           -1, runFolder + "/ganesha.out");
    }

    void Stop() {
        if (m_stdin != -1) {
            const char quit[] = "quit\n";
            if (write(m_stdin, quit, sizeof quit - 1) < 0) perror("engine stdin");
            close(m_stdin);
            m_stdin = -1;
        } else if (m_pid > 0) {
            kill(m_pid, SIGTERM);
        }
        Reap(m_pid, 20);
        m_pid = -1;
        if (m_rpcbind > 0) kill(m_rpcbind, SIGTERM);
        Reap(m_rpcbind, 5);
        m_rpcbind = -1;
    }

    // Whether the server process has ended (it is reaped then).
    bool Ended() {
        if (m_pid <= 0 || waitpid(m_pid, nullptr, WNOHANG) != m_pid) return false;
        ForgetChild(m_pid);
        m_pid = -1;
        return true;
    }

    // User plus system CPU seconds of the server process, all its threads.
    double CpuSeconds() const {
        char path[64];
        snprintf(path, sizeof path, "/proc/%d/stat", (int)m_pid);
        FILE* f = fopen(path, "r");
        if (!f) Fail("%s gone", m_name);
        char text[1024] = "";
        size_t n = fread(text, 1, sizeof text - 1, f);
        fclose(f);
        text[n] = '\0';
        // The fields after the command name in parentheses: state is field 3,
        // utime 14 and stime 15.
        const char* p = strrchr(text, ')');
        unsigned long long utime = 0, stime = 0;
        if (!p || sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &utime, &stime) != 2)
            Fail("cannot parse %s", path);
        return (double)(utime + stime) / (double)sysconf(_SC_CLK_TCK);
    }

private:
    const char* m_name;
    std::string m_mountPath;
    Namespace m_ns;
    pid_t m_pid = -1;
    pid_t m_rpcbind = -1;
    int m_stdin = -1;
};

// A file handle as bytes, with the nfs_fh3 view the calls take.
struct Handle {
    std::string bytes;
    nfs_fh3 Fh() { return nfs_fh3{{(u_int)bytes.size(), &bytes[0]}}; }
};

// Sends count calls, up to depth in flight: issue(i, cb, tag) queues call i,
// check(i, reply) judges its reply (called only for an RPC success). False
// when a call could not be sent, failed or was judged wrong; the calls in
// flight are waited for in any case.
using Issue = std::function<int(long long, rpc_cb, void*)>;
using Check = std::function<bool(long long, void*)>;

bool RunCalls(rpc_context* rpc, long long count, int depth, const Issue& issue, const Check& check) {
    struct Flight {
        long long pending = 0;
        bool failed = false;
        const Check* check;
    } flight;
    flight.check = &check;
    struct Tag {
        Flight* flight;
        long long index;
    };
    std::vector<Tag> tags((size_t)count);
    rpc_cb done = [](rpc_context*, int status, void* data, void* privateData) {
        Tag* tag = static_cast<Tag*>(privateData);
        --tag->flight->pending;
        if (status != RPC_STATUS_SUCCESS) {
            if (!tag->flight->failed) fprintf(stderr, "RPC failed: %s\n", status == RPC_STATUS_ERROR ? (char*)data : "");
            tag->flight->failed = true;
        } else if (!(*tag->flight->check)(tag->index, data)) {
            tag->flight->failed = true;
        }
    };
    long long next = 0;
    while ((next < count && !flight.failed) || flight.pending > 0) {
        while (next < count && !flight.failed && flight.pending < depth) {
            tags[(size_t)next] = {&flight, next};
            if (issue(next, done, &tags[(size_t)next]) != 0) {
                flight.failed = true;
                break;
            }
            ++flight.pending;
            ++next;
        }
        if (flight.pending == 0) break;
        struct pollfd pfd = {rpc_get_fd(rpc), (short)rpc_which_events(rpc), 0};
        if (poll(&pfd, 1, 20000) <= 0 || rpc_service(rpc, pfd.revents) < 0)
            Fail("no progress on the connection (%lld calls in flight)", flight.pending);
    }
    return !flight.failed;
}

bool RunOne(rpc_context* rpc, const std::function<int(rpc_cb, void*)>& issue, const std::function<bool(void*)>& check) {
    return RunCalls(
        rpc, 1, 1, [&](long long, rpc_cb cb, void* tag) { return issue(cb, tag); },
        [&](long long, void* reply) { return check(reply); });
}

// Serves rpc until done is set; false when the connection failed first.
bool Serve(rpc_context* rpc, const bool& done) {
    while (!done) {
        struct pollfd pfd = {rpc_get_fd(rpc), (short)rpc_which_events(rpc), 0};
        if (poll(&pfd, 1, 20000) <= 0 || rpc_service(rpc, pfd.revents) < 0) return false;
    }
    return true;
}

// A raw RPC context with AUTH_UNIX credentials connected to port of
// 127.0.0.1 (in the calling thread's network namespace), or null.
rpc_context* Connect(int port) {
    rpc_context* rpc = rpc_init_context();
    if (!rpc) Fail("rpc_init_context");
    rpc_set_auth(rpc, libnfs_authunix_create_default());
    struct Result {
        bool done = false;
        bool ok = false;
    } result;
    rpc_cb connected = [](rpc_context*, int status, void*, void* privateData) {
        Result* r = static_cast<Result*>(privateData);
        r->done = true;
        r->ok = status == RPC_STATUS_SUCCESS;
    };
    if (rpc_connect_async(rpc, "127.0.0.1", port, connected, &result) == 0 && Serve(rpc, result.done) && result.ok)
        return rpc;
    rpc_destroy_context(rpc);
    return nullptr;
}

// The root handle of the server's export from a MOUNT call, retried while
// the server starts (up to 30 seconds).
Handle MountRoot(Server& server) {
    server.Ns().Enter();
    struct Result {
        bool done = false;
        bool ok = false;
        std::string fh;
    } result;
    rpc_cb mounted = [](rpc_context*, int status, void* data, void* privateData) {
        Result* r = static_cast<Result*>(privateData);
        r->done = true;
        mountres3* res = static_cast<mountres3*>(data);
        if (status != RPC_STATUS_SUCCESS || res->fhs_status != MNT3_OK) return;
        const fhandle3& fh = res->mountres3_u.mountinfo.fhandle;
        r->fh.assign(fh.fhandle3_val, fh.fhandle3_len);
        r->ok = true;
    };
    std::vector<char> name(server.MountPath().begin(), server.MountPath().end());
    name.push_back('\0');
    for (double end = Now() + 30; !result.ok; usleep(100000)) {
        if (server.Ended()) Fail("%s ended at start (NFS_VS_GANESHA_KEEP=1 keeps its log)", server.Name());
        if (Now() > end) Fail("MOUNT of %s on %s failed", server.MountPath().c_str(), server.Name());
        rpc_context* rpc = Connect(1058);
        if (!rpc) continue;
        result = Result();
        if (rpc_mount3_mnt_async(rpc, mounted, name.data(), &result) != 0 || !Serve(rpc, result.done))
            result.ok = false;
        rpc_destroy_context(rpc);
    }
    return Handle{result.fh};
}

// One client connection to a server's NFS port (a mounted client: it has
// the export's root handle).
class Client {
public:
    Client(const Server& server, const Handle& root) : m_root(root) {
        server.Ns().Enter();
        m_rpc = Connect(2049);
        if (!m_rpc) Fail("cannot connect to %s", server.Name());
    }
    ~Client() { rpc_destroy_context(m_rpc); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    rpc_context* Rpc() { return m_rpc; }
    // The handle of path ("/" or "/name/name...") under the root, by LOOKUP.
    Handle Open(const std::string& path) {
        Handle h = m_root;
        size_t at = 1;
        while (at < path.size()) {
            size_t end = path.find('/', at);
            if (end == std::string::npos) end = path.size();
            std::string name = path.substr(at, end - at);
            at = end + 1;
            nfs_fh3 dir = h.Fh();
            bool ok = RunOne(
                m_rpc,
                [&](rpc_cb cb, void* tag) {
                    LOOKUP3args args{{dir, &name[0]}};
                    return rpc_nfs3_lookup_async(m_rpc, cb, &args, tag);
                },
                [&](void* reply) {
                    LOOKUP3res* res = static_cast<LOOKUP3res*>(reply);
                    if (res->status != NFS3_OK) return false;
                    const nfs_fh3& fh = res->LOOKUP3res_u.resok.object;
                    h.bytes.assign(fh.data.data_val, fh.data.data_len);
                    return true;
                });
            if (!ok) Fail("LOOKUP of %s failed", path.c_str());
        }
        return h;
    }

private:
    Handle m_root;
    rpc_context* m_rpc = nullptr;
};

// The shared data folder, both servers and a client of each.
struct Bench {
    std::string folder;  // the data folder
    std::string run;     // configuration, logs, traces
    std::string engineProgram;
    long long fileBytes = 0;
    long long callsPerPass = 0;
    std::unique_ptr<Server> servers[2];
    std::unique_ptr<Client> clients[2];
    Handle mountRoot[2];  // from the one MOUNT of each server
    Handle root[2], readFile[2], names[2], small[2], write[2];
    std::vector<std::string> nameList;
    std::vector<char> writeContent;
    bool readChecked[2] = {false, false};
    bool writeChecked[2] = {false, false};
    bool clientsChecked[2] = {false, false};
};
Bench* g_bench = nullptr;

std::string Name(int i) {
    char text[16];
    snprintf(text, sizeof text, "n%05d", i);
    return text;
}

// A folder of count empty files; the size of file i is i, so that replies
// can be checked against the name.
void MakeFolder(const std::string& path, int count) {
    if (mkdir(path.c_str(), 0755) != 0) Fail("mkdir %s: %s", path.c_str(), strerror(errno));
    for (int i = 0; i < count; ++i) {
        std::string file = path + "/" + Name(i);
        int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd == -1 || ftruncate(fd, i) != 0) Fail("%s: %s", file.c_str(), strerror(errno));
        close(fd);
    }
}

// Index of a name made by Name(), or -1.
int NameIndex(const char* name) {
    if (name[0] != 'n' || strlen(name) != 6) return -1;
    int i = 0;
    for (const char* p = name + 1; *p; ++p) {
        if (*p < '0' || *p > '9') return -1;
        i = i * 10 + (*p - '0');
    }
    return i;
}

// Pass results per server, over the iterations of one repetition.
struct Tally {
    double seconds = 0;
    double cpu = 0;
    double calls = 0;
    double passes = 0;
};

// One row of the final table: a value per server and repetition.
struct Row {
    std::string figure;
    const char* better;  // "higher", "lower", or "-" for a count to read
    std::vector<double> engine, ganesha, ratio;
};
std::vector<Row> g_rows;

Row& RowOf(const std::string& figure, const char* better) {
    for (Row& row : g_rows)
        if (row.figure == figure) return row;
    g_rows.push_back(Row{figure, better, {}, {}, {}});
    return g_rows.back();
}

// Reports a figure of this repetition as counters (key_engine, key_ganesha,
// key_ratio = engine/ganesha) and keeps it for the table.
void Report(benchmark::State& state, const std::string& key, const std::string& figure, bool higherBetter,
            double engine, double ganesha) {
    state.counters[key + "_engine"] = engine;
    state.counters[key + "_ganesha"] = ganesha;
    state.counters[key + "_ratio"] = engine / ganesha;
    Row& row = RowOf(figure, higherBetter ? "higher" : "lower");
    row.engine.push_back(engine);
    row.ganesha.push_back(ganesha);
    row.ratio.push_back(engine / ganesha);
}

// The order of the servers in a figure's next iteration, and whether
// untimed passes have warmed both (caches of ganesha, page cache): one
// each, or as many as fill warmSeconds.
struct Order {
    bool engineFirst = true;
    bool warmed = false;
    double warmSeconds = 0;
};

// Runs pass on both servers in every iteration, in the order that
// alternates from one iteration (and repetition) to the next, with the
// server's CPU seconds of each pass added to its tally.
bool Interleaved(benchmark::State& state, Order& order, const std::function<bool(int, Tally&)>& pass,
                 Tally tally[2]) {
    const double warmEnd = Now() + order.warmSeconds;
    for (bool first = true; !order.warmed && (first || Now() < warmEnd); first = false)
        for (int s = ENGINE; s <= GANESHA; ++s) {
            Tally ignored;
            if (!pass(s, ignored)) {
                state.SkipWithError((std::string(SERVER_NAMES[s]) + " answered wrong").c_str());
                return false;
            }
        }
    order.warmed = true;
    bool& engineFirst = order.engineFirst;
    for (auto _ : state) {
        for (int k = 0; k < 2; ++k) {
            int s = (k == 0) == engineFirst ? ENGINE : GANESHA;
            double cpu = g_bench->servers[s]->CpuSeconds();
            if (!pass(s, tally[s])) {
                state.SkipWithError((std::string(SERVER_NAMES[s]) + " answered wrong").c_str());
                return false;
            }
            tally[s].cpu += g_bench->servers[s]->CpuSeconds() - cpu;
            tally[s].passes += 1;
        }
        engineFirst = !engineFirst;
    }
    return true;
}

// Reads a whole file of fileBytes in 64 KiB READs, depth in flight,
// comparing the bytes with the content at salt when check is set.
bool ReadPass(rpc_context* rpc, Handle& h, long long fileBytes, long long salt, int depth, bool check,
              double* seconds) {
    nfs_fh3 fh = h.Fh();
    std::vector<char> expected(READ_SIZE);
    double start = Now();
    bool ok = RunCalls(
        rpc, fileBytes / READ_SIZE, depth,
        [&](long long i, rpc_cb cb, void* tag) {
            READ3args args{fh, (offset3)(i * READ_SIZE), READ_SIZE};
            return rpc_nfs3_read_async(rpc, cb, &args, tag);
        },
        [&](long long i, void* reply) {
            READ3res* res = static_cast<READ3res*>(reply);
            if (res->status != NFS3_OK || res->READ3res_u.resok.count != READ_SIZE ||
                res->READ3res_u.resok.data.data_len != READ_SIZE)
                return false;
            if (!check) return true;
            Fill(salt + i * READ_SIZE, expected.data(), READ_SIZE);
            return memcmp(expected.data(), res->READ3res_u.resok.data.data_val, READ_SIZE) == 0;
        });
    *seconds = Now() - start;
    return ok;
}

void SequentialRead(benchmark::State& state) {
    static Order order[2] = {{true, true}, {true, true}};  // the checking pass warms
    const int depth = (int)state.range(0);
    Bench& b = *g_bench;
    for (int s : {ENGINE, GANESHA}) {
        if (b.readChecked[s]) continue;
        double seconds = 0;
        if (!ReadPass(b.clients[s]->Rpc(), b.readFile[s], b.fileBytes, 0, DEPTH, true, &seconds))
            return state.SkipWithError((std::string(SERVER_NAMES[s]) + " read wrong content").c_str());
        b.readChecked[s] = true;
    }
    Tally tally[2];
    bool ok = Interleaved(
        state, order[depth > 1],
        [&](int s, Tally& t) {
            double seconds = 0;
            bool ok = ReadPass(b.clients[s]->Rpc(), b.readFile[s], b.fileBytes, 0, depth, false, &seconds);
            t.seconds += seconds;
            t.calls += (double)(b.fileBytes / READ_SIZE);
            return ok;
        },
        tally);
    if (!ok) return;
    double mb = (double)b.fileBytes / 1e6;
    std::string title = "sequential READ 64 KiB, " + std::to_string(depth) + " in flight (MB/s)";
    Report(state, "MBps", title, true, mb * tally[0].passes / tally[0].seconds, mb * tally[1].passes / tally[1].seconds);
    if (depth > 1)
        Report(state, "cpu_us", "server CPU per 64 KiB READ, 16 in flight (us)", false,
               tally[0].cpu / tally[0].calls * 1e6, tally[1].cpu / tally[1].calls * 1e6);
}

void Getattr(benchmark::State& state) {
    static Order order[2];
    const int depth = (int)state.range(0);
    Bench& b = *g_bench;
    long long calls = depth > 1 ? b.callsPerPass : b.callsPerPass / 4;
    Tally tally[2];
    bool ok = Interleaved(
        state, order[depth > 1],
        [&](int s, Tally& t) {
            rpc_context* rpc = b.clients[s]->Rpc();
            nfs_fh3 fh = b.readFile[s].Fh();
            double start = Now();
            bool ok = RunCalls(
                rpc, calls, depth,
                [&](long long, rpc_cb cb, void* tag) {
                    GETATTR3args args{fh};
                    return rpc_nfs3_getattr_async(rpc, cb, &args, tag);
                },
                [&](long long, void* reply) {
                    GETATTR3res* res = static_cast<GETATTR3res*>(reply);
                    return res->status == NFS3_OK && res->GETATTR3res_u.resok.obj_attributes.type == NF3REG &&
                           (long long)res->GETATTR3res_u.resok.obj_attributes.size == b.fileBytes;
                });
            t.seconds += Now() - start;
            t.calls += (double)calls;
            return ok;
        },
        tally);
    if (!ok) return;
    if (depth > 1)
        Report(state, "calls_per_s", "GETATTR, 16 in flight (calls/s)", true, tally[0].calls / tally[0].seconds,
               tally[1].calls / tally[1].seconds);
    else
        Report(state, "round_trip_us", "GETATTR, 1 in flight (round trip us)", false,
               tally[0].seconds / tally[0].calls * 1e6, tally[1].seconds / tally[1].calls * 1e6);
}

// LOOKUP of "read.bin" in the root (names == 1), or of the names of names/
// in turn (names == BIG_FOLDER), 16 in flight.
void Lookup(benchmark::State& state) {
    static Order order[2];
    const bool cycling = state.range(0) > 1;
    Bench& b = *g_bench;
    Tally tally[2];
    bool ok = Interleaved(
        state, order[cycling],
        [&](int s, Tally& t) {
            rpc_context* rpc = b.clients[s]->Rpc();
            nfs_fh3 dir = (cycling ? b.names[s] : b.root[s]).Fh();
            std::string one = "read.bin";
            double start = Now();
            bool ok = RunCalls(
                rpc, b.callsPerPass, DEPTH,
                [&](long long i, rpc_cb cb, void* tag) {
                    LOOKUP3args args{{dir, cycling ? &b.nameList[(size_t)(i % BIG_FOLDER)][0] : &one[0]}};
                    return rpc_nfs3_lookup_async(rpc, cb, &args, tag);
                },
                [&](long long i, void* reply) {
                    LOOKUP3res* res = static_cast<LOOKUP3res*>(reply);
                    if (res->status != NFS3_OK || res->LOOKUP3res_u.resok.object.data.data_len == 0) return false;
                    const post_op_attr& attr = res->LOOKUP3res_u.resok.obj_attributes;
                    long long size = cycling ? i % BIG_FOLDER : b.fileBytes;
                    return !attr.attributes_follow || (long long)attr.post_op_attr_u.attributes.size == size;
                });
            t.seconds += Now() - start;
            t.calls += (double)b.callsPerPass;
            return ok;
        },
        tally);
    if (!ok) return;
    Report(state, "calls_per_s",
           cycling ? "LOOKUP cycling 10,000 names, 16 in flight (calls/s)" : "LOOKUP one name, 16 in flight (calls/s)",
           true, tally[0].calls / tally[0].seconds, tally[1].calls / tally[1].seconds);
}

// Lists a folder of count files made by MakeFolder with READDIRPLUS from
// cookie 0 to eof; every name must come exactly once, "." and ".." may.
bool ListPass(rpc_context* rpc, Handle& dir, int count, double* seconds, long long* calls) {
    nfs_fh3 fh = dir.Fh();
    std::vector<char> seen((size_t)count, 0);
    int names = 0;
    cookie3 cookie = 0;
    cookieverf3 verifier = {};
    bool eof = false, ok = true;
    *calls = 0;
    double start = Now();
    while (ok && !eof) {
        ok = RunOne(
            rpc,
            [&](rpc_cb cb, void* tag) {
                READDIRPLUS3args args{};
                args.dir = fh;
                args.cookie = cookie;
                memcpy(args.cookieverf, verifier, sizeof verifier);
                args.dircount = DIRCOUNT;
                args.maxcount = MAXCOUNT;
                return rpc_nfs3_readdirplus_async(rpc, cb, &args, tag);
            },
            [&](void* reply) {
                READDIRPLUS3res* res = static_cast<READDIRPLUS3res*>(reply);
                if (res->status != NFS3_OK) return false;
                READDIRPLUS3resok& resok = res->READDIRPLUS3res_u.resok;
                memcpy(verifier, resok.cookieverf, sizeof verifier);
                eof = resok.reply.eof != 0;
                bool progress = false;
                // libnfs may place the entries at addresses not aligned for
                // them: each is copied out before use.
                entryplus3 entry;
                for (const void* at = resok.reply.entries; at; at = entry.nextentry) {
                    memcpy(&entry, at, sizeof entry);
                    const entryplus3* e = &entry;
                    cookie = e->cookie;
                    progress = true;
                    if (!strcmp(e->name, ".") || !strcmp(e->name, "..")) continue;
                    int i = NameIndex(e->name);
                    if (i < 0 || i >= count || seen[(size_t)i]) return false;
                    seen[(size_t)i] = 1;
                    ++names;
                    if (e->name_attributes.attributes_follow &&
                        (long long)e->name_attributes.post_op_attr_u.attributes.size != i)
                        return false;
                }
                return progress || eof;
            });
        ++*calls;
    }
    *seconds = Now() - start;
    return ok && names == count;
}

void Readdirplus(benchmark::State& state) {
    // The engine's descriptor cache forgets by whole seconds: right after
    // the 10,000 files of the figures before, a smaller folder's listing
    // reopens its files for up to a second, so its warm-up outlasts that.
    static Order order[2] = {{true, false, 1.5}, {}};
    const int count = (int)state.range(0);
    const bool big = count == BIG_FOLDER;
    Bench& b = *g_bench;
    Tally tally[2];
    bool ok = Interleaved(
        state, order[big],
        [&](int s, Tally& t) {
            double seconds = 0;
            long long calls = 0;
            bool ok = ListPass(b.clients[s]->Rpc(), big ? b.names[s] : b.small[s], count, &seconds, &calls);
            t.seconds += seconds;
            t.calls += (double)calls;
            return ok;
        },
        tally);
    if (!ok) return;
    std::string files = big ? "10,000" : "1,000";
    Report(state, "ms", "READDIRPLUS listing of " + files + " files (ms)", false,
           tally[0].seconds / tally[0].passes * 1e3, tally[1].seconds / tally[1].passes * 1e3);
    Report(state, "calls", "READDIRPLUS listing of " + files + " files (calls)", false,
           tally[0].calls / tally[0].passes, tally[1].calls / tally[1].passes);
}

// Ten clients of each server, each reading its own file client-k in 64 KiB
// READs, one at a time; aggregate MB/s from the start of all to the end of
// the last.
void TenClients(benchmark::State& state) {
    static Order order{true, true};  // the checking pass warms
    Bench& b = *g_bench;
    // The first is the client of the other figures: the engine serves at
    // most 10 NFS connections (one more ends it).
    std::vector<std::unique_ptr<Client>> more;
    Client* clients[2][CLIENTS];
    Handle files[2][CLIENTS];
    for (int s : {ENGINE, GANESHA})
        for (int k = 0; k < CLIENTS; ++k) {
            if (k > 0) more.emplace_back(new Client(*b.servers[s], b.mountRoot[s]));
            clients[s][k] = k > 0 ? more.back().get() : b.clients[s].get();
            files[s][k] = clients[s][k]->Open("/client-" + std::to_string(k));
        }
    auto readAll = [&](int s, bool check, double* seconds) {
        bool ok[CLIENTS];
        std::vector<std::thread> threads;
        double start = Now();
        for (int k = 0; k < CLIENTS; ++k)
            threads.emplace_back([&, k] {
                double ignored = 0;
                ok[k] = ReadPass(clients[s][k]->Rpc(), files[s][k], b.fileBytes, (k + 1) * b.fileBytes, 1, check,
                                 &ignored);
            });
        for (std::thread& t : threads) t.join();
        *seconds = Now() - start;
        return std::all_of(ok, ok + CLIENTS, [](bool x) { return x; });
    };
    for (int s : {ENGINE, GANESHA}) {
        double seconds = 0;
        if (!b.clientsChecked[s] && !readAll(s, true, &seconds))
            return state.SkipWithError((std::string(SERVER_NAMES[s]) + " read wrong content").c_str());
        b.clientsChecked[s] = true;
    }
    Tally tally[2];
    bool ok = Interleaved(
        state, order,
        [&](int s, Tally& t) {
            double seconds = 0;
            bool ok = readAll(s, false, &seconds);
            t.seconds += seconds;
            return ok;
        },
        tally);
    if (!ok) return;
    double mb = (double)b.fileBytes * CLIENTS / 1e6;
    Report(state, "MBps", "10 clients reading their own file, 64 KiB READs, aggregate (MB/s)", true,
           mb * tally[0].passes / tally[0].seconds, mb * tally[1].passes / tally[1].seconds);
}

bool Truncate(rpc_context* rpc, Handle& h) {
    nfs_fh3 fh = h.Fh();
    return RunOne(
        rpc,
        [&](rpc_cb cb, void* tag) {
            SETATTR3args args{};
            args.object = fh;
            args.new_attributes.size.set_it = 1;
            args.new_attributes.size.set_size3_u.size = 0;
            return rpc_nfs3_setattr_async(rpc, cb, &args, tag);
        },
        [](void* reply) { return static_cast<SETATTR3res*>(reply)->status == NFS3_OK; });
}

// Writes count 16 KiB WRITEs of the write content from offset 0, UNSTABLE,
// depth in flight; when a reply promised less than FILE_SYNC, one COMMIT of
// the whole file follows (a client's usual behaviour). The seconds from the
// first WRITE to the last reply.
bool WritePass(rpc_context* rpc, Handle& h, long long count, int depth, double* seconds) {
    nfs_fh3 fh = h.Fh();
    std::vector<char>& content = g_bench->writeContent;
    bool commit = false;
    double start = Now();
    bool ok = RunCalls(
        rpc, count, depth,
        [&](long long i, rpc_cb cb, void* tag) {
            WRITE3args args{};
            args.file = fh;
            args.offset = (offset3)(i * WRITE_SIZE);
            args.count = WRITE_SIZE;
            args.stable = UNSTABLE;
            args.data.data_len = WRITE_SIZE;
            args.data.data_val = &content[(size_t)(i * WRITE_SIZE)];
            return rpc_nfs3_write_async(rpc, cb, &args, tag);
        },
        [&](long long, void* reply) {
            WRITE3res* res = static_cast<WRITE3res*>(reply);
            if (res->status != NFS3_OK || res->WRITE3res_u.resok.count != WRITE_SIZE) return false;
            if (res->WRITE3res_u.resok.committed != FILE_SYNC) commit = true;
            return true;
        });
    if (ok && commit)
        ok = RunOne(
            rpc,
            [&](rpc_cb cb, void* tag) {
                COMMIT3args args{fh, 0, 0};
                return rpc_nfs3_commit_async(rpc, cb, &args, tag);
            },
            [](void* reply) { return static_cast<COMMIT3res*>(reply)->status == NFS3_OK; });
    *seconds = Now() - start;
    return ok;
}

// The written file on disk: its size, and its bytes when check is set.
bool WrittenRight(const std::string& path, long long size, bool check) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || st.st_size != size) return false;
    if (!check) return true;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) return false;
    std::vector<char> buffer((size_t)MiB);
    bool same = true;
    for (long long at = 0; same && at < size; at += MiB) {
        size_t n = (size_t)std::min(MiB, size - at);
        same = pread(fd, buffer.data(), n, at) == (ssize_t)n &&
               memcmp(buffer.data(), &g_bench->writeContent[(size_t)at], n) == 0;
    }
    close(fd);
    return same;
}

void SequentialWrite(benchmark::State& state) {
    static Order order[2];
    const int depth = (int)state.range(0);
    Bench& b = *g_bench;
    Tally tally[2];
    bool ok = Interleaved(
        state, order[depth > 1],
        [&](int s, Tally& t) {
            rpc_context* rpc = b.clients[s]->Rpc();
            if (!Truncate(rpc, b.write[s])) return false;
            double seconds = 0;
            if (!WritePass(rpc, b.write[s], b.fileBytes / WRITE_SIZE, depth, &seconds)) return false;
            t.seconds += seconds;
            bool check = !b.writeChecked[s];
            b.writeChecked[s] = true;
            return WrittenRight(b.folder + "/write-" + SERVER_NAMES[s] + ".bin", b.fileBytes, check);
        },
        tally);
    if (!ok) return;
    double mb = (double)b.fileBytes / 1e6;
    Report(state, "MBps", "WRITE 16 KiB sequential, " + std::to_string(depth) + " in flight (MB/s)", true,
           mb * tally[0].passes / tally[0].seconds, mb * tally[1].passes / tally[1].seconds);
}

// The engine alone under strace, in a namespace of its own: sync calls per
// WRITE over SYNC_COUNT_WRITES WRITEs (the SETATTR before them included),
// and how many files it opened with O_DSYNC or O_SYNC.
void EngineSyncs(benchmark::State& state) {
    Bench& b = *g_bench;
    const int depth = (int)state.range(0);
    if (access(EnvText("NFS_VS_GANESHA_STRACE", "/usr/bin/strace").c_str(), X_OK) != 0)
        return state.SkipWithError("strace is missing");
    const long long count = std::min<long long>(SYNC_COUNT_WRITES, b.fileBytes / WRITE_SIZE);
    double syncs = 0, syncOpens = 0, writes = 0;
    for (auto _ : state) {
        std::string trace = b.run + "/engine-" + std::to_string(depth) + ".strace";
        unlink(trace.c_str());
        {
            Server traced("traced engine", ENGINE_EXPORT);
            traced.StartEngine(b.engineProgram, b.folder, b.run + "/engine-traced.log", trace);
            Client client(traced, MountRoot(traced));
            Handle h = client.Open("/write-engine.bin");
            double seconds = 0;
            if (!Truncate(client.Rpc(), h) || !WritePass(client.Rpc(), h, count, depth, &seconds))
                return state.SkipWithError("traced engine answered wrong");
        }
        writes += (double)count;
        FILE* f = fopen(trace.c_str(), "r");
        if (!f) return state.SkipWithError("no strace output");
        char line[4096];
        while (fgets(line, sizeof line, f)) {
            if (strstr(line, "resumed>")) continue;  // the second half of an interrupted call
            if (strstr(line, "fsync(") || strstr(line, "fdatasync(") || strstr(line, "sync_file_range(") ||
                strstr(line, "syncfs("))
                syncs += 1;
            else if (strstr(line, "open") && (strstr(line, "O_DSYNC") || strstr(line, "O_SYNC")))
                syncOpens += 1;
        }
        fclose(f);
    }
    state.counters["syncs_per_write"] = syncs / writes;
    state.counters["dsync_opens"] = syncOpens;
    Row& row = RowOf("engine sync calls per WRITE, " + std::to_string(depth) + " in flight (untimed, strace)", "-");
    row.engine.push_back(syncs / writes);
    Row& opens = RowOf("engine files opened O_DSYNC/O_SYNC during those WRITEs", "-");
    opens.engine.push_back(syncOpens);
}

double Median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

std::string Format(double v) {
    char text[32];
    snprintf(text, sizeof text, v >= 100 ? "%.0f" : "%.3g", v);
    std::string out = text;
    // Thousands separators in the integer part.
    size_t end = out.find('.') == std::string::npos ? out.size() : out.find('.');
    for (size_t at = end; at > 3 && isdigit((unsigned char)out[at - 4]); at -= 3) out.insert(at - 3, ",");
    return out;
}

void PrintTable() {
    printf("\nMedians over the repetitions; ratio = engine / ganesha in each repetition, then its median;\n"
           "\"better\" says whether a higher or a lower ratio favours the engine.\n");
    printf("| figure | engine | ganesha | ratio | better |\n|---|---|---|---|---|\n");
    for (const Row& row : g_rows) {
        if (row.ganesha.empty()) {
            printf("| %s | %s | - | - | %s |\n", row.figure.c_str(), Format(Median(row.engine)).c_str(), row.better);
            continue;
        }
        printf("| %s | %s | %s | %.3f | %s |\n", row.figure.c_str(), Format(Median(row.engine)).c_str(),
               Format(Median(row.ganesha)).c_str(), Median(row.ratio), row.better);
    }
}

std::string DefaultEngineProgram() {
    char exe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return "nfsengine";
    exe[n] = '\0';
    std::string path = exe;
    path = path.substr(0, path.rfind('/'));  // bench/
    path = path.substr(0, path.rfind('/'));  // the build folder
    return path + "/nfsengine";
}

void Prepare(Bench& b) {
    std::string parent = EnvText("NFS_VS_GANESHA_DIR", "/var/tmp");
    std::string pattern = parent + "/nfs-vs-ganesha-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (!mkdtemp(name.data())) Fail("mkdtemp %s: %s", pattern.c_str(), strerror(errno));
    snprintf(g_tempFolder, sizeof g_tempFolder, "%s", name.data());
    g_keep = getenv("NFS_VS_GANESHA_KEEP") != nullptr;
    b.folder = std::string(name.data()) + "/data";
    b.run = std::string(name.data()) + "/run";
    if (mkdir(b.folder.c_str(), 0755) != 0 || mkdir(b.run.c_str(), 0755) != 0) Fail("mkdir: %s", strerror(errno));
    b.fileBytes = EnvNumber("NFS_VS_GANESHA_MIB", 256) * MiB;
    b.callsPerPass = EnvNumber("NFS_VS_GANESHA_CALLS", 20000);
    b.engineProgram = EnvText("NFS_VS_GANESHA_ENGINE", DefaultEngineProgram());
    char absolute[PATH_MAX];  // the servers start in /
    if (access(b.engineProgram.c_str(), X_OK) != 0 || !realpath(b.engineProgram.c_str(), absolute))
        Fail("no console program at %s", b.engineProgram.c_str());
    b.engineProgram = absolute;
    fprintf(stderr, "data in %s\n", b.folder.c_str());
    WriteFile(b.folder + "/read.bin", {{0, b.fileBytes}});
    for (int k = 0; k < CLIENTS; ++k)
        WriteFile(b.folder + "/client-" + std::to_string(k), {{(k + 1) * b.fileBytes, b.fileBytes}});
    MakeFolder(b.folder + "/names", BIG_FOLDER);
    MakeFolder(b.folder + "/small", SMALL_FOLDER);
    for (const char* server : SERVER_NAMES) WriteFile(b.folder + "/write-" + server + ".bin", {});
    for (int i = 0; i < BIG_FOLDER; ++i) b.nameList.push_back(Name(i));
    b.writeContent.resize((size_t)b.fileBytes);
    Fill(7 * b.fileBytes / 3, b.writeContent.data(), b.writeContent.size());
    sync();  // the data on disk before anything is timed

    b.servers[ENGINE].reset(new Server("engine", ENGINE_EXPORT));
    b.servers[ENGINE]->StartEngine(b.engineProgram, b.folder, b.run + "/engine.log");
    b.servers[GANESHA].reset(new Server("ganesha", b.folder));
    b.servers[GANESHA]->StartGanesha(b.folder, b.run);
    for (int s : {ENGINE, GANESHA}) {
        b.mountRoot[s] = MountRoot(*b.servers[s]);
        b.clients[s].reset(new Client(*b.servers[s], b.mountRoot[s]));
        Client& c = *b.clients[s];
        b.root[s] = c.Open("/");
        b.readFile[s] = c.Open("/read.bin");
        b.names[s] = c.Open("/names");
        b.small[s] = c.Open("/small");
        b.write[s] = c.Open(std::string("/write-") + SERVER_NAMES[s] + ".bin");
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (geteuid() != 0) {
        fprintf(stderr, "must run as root: each server gets network and mount namespaces of its own\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    signal(SIGHUP, OnSignal);
    signal(SIGPIPE, SIG_IGN);
    {
        Bench bench;
        g_bench = &bench;
        Prepare(bench);
        auto add = [](const char* name, void (*fn)(benchmark::State&), long long arg, int iterations) {
            benchmark::RegisterBenchmark(name, fn)
                ->Arg(arg)
                ->Iterations(iterations)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
        };
        add("SequentialRead/in_flight", SequentialRead, DEPTH, 4);
        add("SequentialRead/in_flight", SequentialRead, 1, 2);
        add("Getattr/in_flight", Getattr, DEPTH, 2);
        add("Getattr/in_flight", Getattr, 1, 2);
        add("Lookup/names", Lookup, 1, 2);
        add("Lookup/names", Lookup, BIG_FOLDER, 2);
        add("Readdirplus/files", Readdirplus, BIG_FOLDER, 2);
        add("Readdirplus/files", Readdirplus, SMALL_FOLDER, 10);
        add("TenClients", TenClients, CLIENTS, 1);
        add("SequentialWrite/in_flight", SequentialWrite, DEPTH, 2);
        add("SequentialWrite/in_flight", SequentialWrite, 1, 1);
        for (int depth : {DEPTH, 1})
            benchmark::RegisterBenchmark("EngineSyncs/in_flight", EngineSyncs)
                ->Arg(depth)
                ->Iterations(1)
                ->Repetitions(1)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
        for (auto& client : bench.clients) client.reset();
        for (auto& server : bench.servers) server.reset();
        g_bench = nullptr;
    }
    KillAllAndRemove();
    PrintTable();
    return 0;
}
