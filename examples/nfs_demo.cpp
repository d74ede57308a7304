// A host program that embeds the NFS engine the way an application does:
// it creates a server controller, starts the server, adds exports, serves
// until SIGINT or SIGTERM, and stops cleanly.
//
//   nfs_demo [--mount-port N] [--nfs-port N] [--read-only] [--log N]
//            [--log-file PATH] [PATH=NAME ...]
//
// Without exports it shows the engine's job: it makes a small demo backup
// (three source files) in /tmp/nfsengine-demo, serves it as "demo" together
// with a virtual disk assembled from segments of those files (with a hole
// and a range without source), reads the disk once through a real NFS
// client (libnfs) to compare it with a locally assembled copy, and prints
// how a Linux host, an ESXi host and libnfs mount the export.

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <nfsc/libnfs.h>
#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "FileLogger.h"
#include "NfsMain.h"
#include "Portmap.h"
#include "RuntimeParam.h"
#include "Utilities.h"

namespace {

const char* const DEMO_FOLDER = "/tmp/nfsengine-demo";
const char* const DEMO_EXPORT = "demo";

struct Options {
    int mountPort = 0;  // 0: the server's default
    int nfsPort = 0;
    bool readOnly = false;
    int logControl = CRuntimeParam::LOG_ERROR;  // the demo's own lines stay readable
    std::string logFile;
    std::vector<std::pair<std::string, std::string>> exports;  // local path, export name
};

void PrintUsage(FILE* to) {
    fprintf(to,
            "Usage: nfs_demo [options] [PATH=NAME ...]\n"
            "Serves each local folder PATH as the export NAME until SIGINT or SIGTERM.\n"
            "Without exports, serves a demo backup and a virtual disk assembled from it in %s\n"
            "as \"%s\", after reading the disk once through NFS.\n"
            "  --mount-port N   MOUNT port (default 1058, or 1059 beside a system portmapper)\n"
            "  --nfs-port N     NFS port (default 2049, or 2050 beside a system portmapper)\n"
            "  --read-only      serve the exports read-only\n"
            "  --log N          log control bits (default 1: errors; 3: and general info; 0x3FF: all)\n"
            "  --log-file PATH  write the log to PATH instead of standard output\n"
            "  --help           show this text\n",
            DEMO_FOLDER, DEMO_EXPORT);
}

bool ParseNumber(const char* text, int low, int high, int& value) {
    char* end = nullptr;
    errno = 0;
    long n = strtol(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0' || n < low || n > high) return false;
    value = (int)n;
    return true;
}

// Parses argv into options. False when the program is to end at once, with
// exitCode set (0 after --help, 1 for a bad argument).
bool ParseArguments(int argc, char** argv, Options& options, int& exitCode) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        const size_t equals = arg.rfind('=');
        bool ok = true;
        if (arg == "--help" || arg == "-h") {
            PrintUsage(stdout);
            exitCode = 0;
            return false;
        } else if (arg == "--read-only") {
            options.readOnly = true;
        } else if (arg == "--mount-port") {
            ok = value && ParseNumber(argv[++i], 0, 65535, options.mountPort);
        } else if (arg == "--nfs-port") {
            ok = value && ParseNumber(argv[++i], 0, 65535, options.nfsPort);
        } else if (arg == "--log") {
            ok = value && ParseNumber(argv[++i], 0, 0x3FF, options.logControl);
        } else if (arg == "--log-file") {
            ok = value != nullptr;
            if (ok) options.logFile = argv[++i];
        } else if (arg[0] != '-' && equals != std::string::npos && equals != 0 && equals + 1 < arg.size()) {
            options.exports.emplace_back(arg.substr(0, equals), arg.substr(equals + 1));
        } else {
            ok = false;
        }
        if (!ok) {
            fprintf(stderr, "nfs_demo: bad argument \"%s\"\n", arg.c_str());
            PrintUsage(stderr);
            exitCode = 1;
            return false;
        }
    }
    return true;
}

bool WriteFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return (bool)out;
}

// ---- the demo backup and its virtual disk ----------------------------------

const char* const DISK_NAME = "vm-disk.vmdk";
constexpr long long KiB = 1024;

// One range of the virtual disk: bytes of a backup file, or zeros.
struct DiskRange {
    const char* source;  // file under the demo folder; nullptr: no segment (a hole); "": a range without source
    long long sourceOffset;
    long long offset;
    long long length;
};

const char* const BACKUP_FILES[] = {"backup/disk-0.bin", "backup/disk-1.bin", "backup/disk-2.bin"};
const DiskRange DISK_LAYOUT[] = {
    {"backup/disk-0.bin", 0, 0, 64 * KiB},
    {nullptr, 0, 64 * KiB, 32 * KiB},  // a hole: no segment at all
    {"backup/disk-1.bin", 4 * KiB, 96 * KiB, 64 * KiB},
    {"", 0, 160 * KiB, 32 * KiB},  // a segment without source
    {"backup/disk-2.bin", 8 * KiB, 192 * KiB, 64 * KiB},
};
constexpr long long DISK_SIZE = 256 * KiB;
constexpr long long BACKUP_FILE_SIZE = 96 * KiB;

// Content of a backup file: a pseudo-random sequence of its own.
std::string BackupContent(unsigned seed) {
    std::string data((size_t)BACKUP_FILE_SIZE, '\0');
    uint32_t x = 2463534242u + seed * 7919u;
    for (char& c : data) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        c = (char)(x & 0xFF);
    }
    return data;
}

// The virtual disk as the server is to serve it, assembled from the files.
std::string AssembleDisk() {
    std::string disk((size_t)DISK_SIZE, '\0');
    for (const DiskRange& r : DISK_LAYOUT) {
        if (r.source == nullptr || *r.source == '\0') continue;
        std::ifstream in(std::string(DEMO_FOLDER) + "/" + r.source, std::ios::binary);
        in.seekg(r.sourceOffset);
        in.read(&disk[(size_t)r.offset], r.length);
    }
    return disk;
}

// 64-bit FNV-1a.
uint64_t Checksum(const std::string& data) {
    uint64_t h = 14695981039346656037ull;
    for (unsigned char c : data) {
        h ^= c;
        h *= 1099511628211ull;
    }
    return h;
}

// The demo folder: a README, the backup files, and the local file of the
// virtual disk (empty: its content comes from its segments).
bool MakeDemoFolder(std::string& why) {
    const std::string folder = DEMO_FOLDER;
    for (const std::string& f : {folder, folder + "/backup"}) {
        if (mkdir(f.c_str(), 0755) == -1 && errno != EEXIST) {
            why = "cannot create " + f + ": " + strerror(errno);
            return false;
        }
    }
    bool ok = WriteFile(folder + "/README.txt",
                        "This folder is served by the nfsengine demo as the export \"demo\".\n"
                        "backup/ holds the files of a small demo backup; vm-disk.vmdk is a virtual disk\n"
                        "assembled by the server from segments of them.\n") &&
              WriteFile(folder + "/" + DISK_NAME, "");
    unsigned seed = 0;
    for (const char* f : BACKUP_FILES) ok = ok && WriteFile(folder + "/" + f, BackupContent(++seed));
    if (!ok) why = "cannot write the demo files in " + folder;
    return ok;
}

// Registers the virtual disk with the server, segment by segment.
bool RegisterDisk(CNfsMain& server, char* err) {
    const std::string disk = std::string(DEMO_FOLDER) + "/" + DISK_NAME;
    server.OpenRedirectedFile(disk.c_str(), DISK_SIZE, false, 0, 0);
    for (const DiskRange& r : DISK_LAYOUT) {
        if (r.source == nullptr) continue;
        const std::string source = *r.source ? std::string(DEMO_FOLDER) + "/" + r.source : std::string();
        if (!server.AddRedirectedFileSegment(disk.c_str(), source.c_str(), r.sourceOffset, r.offset, r.length, err))
            return false;
    }
    return true;
}

void PrintDiskLayout() {
    printf("nfs_demo: %s (%lld bytes) is assembled from segments of the backup:\n", DISK_NAME, DISK_SIZE);
    for (const DiskRange& r : DISK_LAYOUT) {
        printf("    [%7lld, %7lld) ", r.offset, r.offset + r.length);
        if (r.source == nullptr)
            printf("hole (no segment): zeros\n");
        else if (*r.source == '\0')
            printf("segment without source: zeros\n");
        else
            printf("%s from offset %lld\n", r.source, r.sourceOffset);
    }
}

// Reads the virtual disk through a real NFS client, as a host would, and
// unmounts again (the server lets one client mount an export at a time).
bool ReadThroughNfs(int nfsPort, int mountPort, const std::string& exportName, std::string& data, std::string& why) {
    struct nfs_context* nfs = nfs_init_context();
    if (nfs == nullptr) {
        why = "no libnfs context";
        return false;
    }
    const std::string url = "nfs://127.0.0.1/?nfsport=" + std::to_string(nfsPort) +
                            "&mountport=" + std::to_string(mountPort) + "&auto-traverse-mounts=0";
    struct nfsfh* fh = nullptr;
    bool ok = false;
    struct nfs_url* parsed = nfs_parse_url_incomplete(nfs, url.c_str());
    if (parsed != nullptr && nfs_mount(nfs, "127.0.0.1", exportName.c_str()) == 0 &&
        nfs_open(nfs, (std::string("/") + DISK_NAME).c_str(), O_RDONLY, &fh) == 0) {
        data.clear();
        char buf[65536];
        int n;
        while ((n = nfs_pread(nfs, fh, (uint64_t)data.size(), sizeof buf, buf)) > 0) data.append(buf, (size_t)n);
        ok = n == 0;
        nfs_close(nfs, fh);
    }
    if (!ok) why = nfs_get_error(nfs) ? nfs_get_error(nfs) : "read failed";
    if (parsed != nullptr) {
        nfs_umount(nfs);
        nfs_destroy_url(parsed);
    }
    nfs_destroy_context(nfs);
    return ok;
}

// The address other hosts reach this one by: the first IPv4 address of an
// interface that is up and not the loopback, else 127.0.0.1.
std::string HostAddress() {
    std::string address = "127.0.0.1";
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return address;
    for (struct ifaddrs* i = list; i != nullptr; i = i->ifa_next) {
        if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
        if (!(i->ifa_flags & IFF_UP) || (i->ifa_flags & IFF_LOOPBACK)) continue;
        char text[INET_ADDRSTRLEN];
        if (inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(i->ifa_addr)->sin_addr, text, sizeof text)) {
            address = text;
            break;
        }
    }
    freeifaddrs(list);
    return address;
}

// The port the server listens on for a requested one (0: the default,
// one higher beside a system portmapper), as StartServer picks it.
int ServedPort(int requested, int defaultPort, bool systemPortmapper) {
    return requested > 0 ? requested : defaultPort + (systemPortmapper ? 1 : 0);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    int exitCode = 0;
    if (!ParseArguments(argc, argv, options, exitCode)) return exitCode;

    bool demoFolder = options.exports.empty();
    if (demoFolder) {
        std::string why;
        if (!MakeDemoFolder(why)) {
            fprintf(stderr, "nfs_demo: %s\n", why.c_str());
            return 1;
        }
        options.exports.emplace_back(DEMO_FOLDER, DEMO_EXPORT);
    }

    // The server's threads inherit this mask, so the signals reach sigwait below.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    CNfsMain server("nfs-demo", options.logControl);
    std::unique_ptr<CFileLogger> logger;
    if (!options.logFile.empty()) {
        logger.reset(new CFileLogger(options.logFile.c_str()));
        if (!logger->Open(options.logControl)) {
            fprintf(stderr, "nfs_demo: cannot open the log file %s\n", options.logFile.c_str());
            return 1;
        }
        server.SetFileLogger(logger.get());
    }

    char err[ERROR_TEXT_SIZE] = "";
    if (!server.Initial(err) || !server.StartRemoteController(err)) {
        fprintf(stderr, "nfs_demo: %s\n", err);
        return 1;
    }
    bool systemPortmapper = false;
    {
        CPortmap probe(server.GetUtils(), server.GetRuntimeParam());
        systemPortmapper = probe.IsRunning();
    }
    if (!server.StartServer(options.mountPort, options.nfsPort, 0, 0, options.readOnly, err)) {
        fprintf(stderr, "nfs_demo: cannot start the server: %s\n", err);
        server.StopRemoteController();
        server.Terminate();
        return 1;
    }

    bool exported = true;
    for (const auto& e : options.exports) {
        if (!server.AddMountPoint(e.first.c_str(), e.second.c_str(), err)) {
            fprintf(stderr, "nfs_demo: cannot export %s as \"%s\": %s\n", e.first.c_str(), e.second.c_str(), err);
            exported = false;
            break;
        }
    }

    if (exported && demoFolder) {
        exported = RegisterDisk(server, err);
        if (!exported) fprintf(stderr, "nfs_demo: cannot assemble %s: %s\n", DISK_NAME, err);
    }

    int status = exported ? 0 : 1;
    if (exported) {
        const int mountPort = ServedPort(options.mountPort, CNfsMain::DEFAULT_MOUNT_PORT, systemPortmapper);
        const int nfsPort = ServedPort(options.nfsPort, CNfsMain::DEFAULT_NFS_PORT, systemPortmapper);
        printf("nfs_demo: serving with the %s portmapper on port %d\n", systemPortmapper ? "system" : "internal",
               CNfsMain::PORTMAP_PORT);
        printf("nfs_demo: MOUNT port %d, NFS port %d%s\n", mountPort, nfsPort, options.readOnly ? ", read-only" : "");
        for (const auto& e : options.exports)
            printf("nfs_demo: export \"%s\" = %s\n", e.second.c_str(), e.first.c_str());
        const std::string& name = options.exports.front().second;

        if (demoFolder) {
            PrintDiskLayout();
            std::string data, why;
            if (!ReadThroughNfs(nfsPort, mountPort, name, data, why)) {
                printf("nfs_demo: cannot read %s through NFS: %s\n", DISK_NAME, why.c_str());
                status = 1;
            } else {
                const uint64_t served = Checksum(data);
                const uint64_t reference = Checksum(AssembleDisk());
                printf("nfs_demo: read %zu bytes of %s through NFS (libnfs): checksum %016llx, local reference "
                       "%016llx: %s\n",
                       data.size(), DISK_NAME, (unsigned long long)served, (unsigned long long)reference,
                       served == reference && data.size() == (size_t)DISK_SIZE ? "match" : "MISMATCH");
                if (served != reference || data.size() != (size_t)DISK_SIZE) status = 1;
            }
        }

        const std::string host = HostAddress();
        printf("nfs_demo: a Linux host mounts the export \"%s\" with:\n", name.c_str());
        printf("    mount -t nfs -o vers=3,proto=tcp,port=%d,mountport=%d,mountproto=tcp,nolock,noacl%s %s:%s /mnt/%s\n",
               nfsPort, mountPort, options.readOnly ? ",ro" : "", host.c_str(), name.c_str(), name.c_str());
        printf("nfs_demo: an ESXi host (NFS on port 2049, MOUNT port from the portmapper) with:\n");
        printf("    esxcli storage nfs add --host=%s --share=%s --volume-name=%s%s\n", host.c_str(), name.c_str(),
               name.c_str(), options.readOnly ? " --readonly" : "");
        printf("nfs_demo: a libnfs client with:\n");
        printf("    nfs_parse_url_incomplete(nfs, \"nfs://%s/?nfsport=%d&mountport=%d&auto-traverse-mounts=0\");\n",
               host.c_str(), nfsPort, mountPort);
        printf("    nfs_mount(nfs, \"%s\", \"%s\");\n", host.c_str(), name.c_str());
        printf("nfs_demo: the export name is mounted as it is, without a leading slash\n");
    }
    if (status == 0) {
        printf("nfs_demo: press Ctrl+C to stop\n");
        fflush(stdout);

        int signal = 0;
        sigwait(&stopSignals, &signal);
        printf("nfs_demo: %s received, stopping\n", signal == SIGINT ? "SIGINT" : "SIGTERM");
        fflush(stdout);
    }

    server.StopServer();
    server.StopRemoteController();
    server.Terminate();
    printf("nfs_demo: stopped\n");
    fflush(stdout);
    return status;
}
