// A host program that embeds the NFS engine the way an application does:
// it creates a server controller, starts the server, adds exports, serves
// until SIGINT or SIGTERM, and stops cleanly.
//
//   nfs_demo [--mount-port N] [--nfs-port N] [--read-only] [--log N]
//            [--log-file PATH] [PATH=NAME ...]
//
// Without exports it serves a demo folder, /tmp/nfsengine-demo, as "demo".

#include <arpa/inet.h>
#include <netinet/in.h>
#include <rpc/pmap_clnt.h>
#include <rpc/rpc.h>
#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
    int logControl = CRuntimeParam::LOG_ERROR | CRuntimeParam::LOG_GENERAL_INFO;
    std::string logFile;
    std::vector<std::pair<std::string, std::string>> exports;  // local path, export name
};

void PrintUsage(FILE* to) {
    fprintf(to,
            "Usage: nfs_demo [options] [PATH=NAME ...]\n"
            "Serves each local folder PATH as the export NAME until SIGINT or SIGTERM.\n"
            "Without exports, serves %s (created with two files) as \"%s\".\n"
            "  --mount-port N   MOUNT port (default 1058, or 1059 beside a system portmapper)\n"
            "  --nfs-port N     NFS port (default 2049, or 2050 beside a system portmapper)\n"
            "  --read-only      serve the exports read-only\n"
            "  --log N          log control bits (default 3: errors and general info; 0x3FF: all)\n"
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
    std::ofstream out(path, std::ios::trunc);
    out << text;
    return (bool)out;
}

// The built-in export: a folder with two small files.
bool MakeDemoFolder(std::string& why) {
    if (mkdir(DEMO_FOLDER, 0755) == -1 && errno != EEXIST) {
        why = std::string("cannot create ") + DEMO_FOLDER + ": " + strerror(errno);
        return false;
    }
    const std::string folder = DEMO_FOLDER;
    if (!WriteFile(folder + "/README.txt", "This folder is served by the nfsengine demo as the export \"demo\".\n") ||
        !WriteFile(folder + "/hello.txt", "Hello from the NFS engine.\n")) {
        why = "cannot write the demo files in " + folder;
        return false;
    }
    return true;
}

// The port that the portmapper on this host gives for prog over TCP: what
// a client finds, whichever portmapper answers.
int AskPortmapper(unsigned long prog, unsigned long vers) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return pmap_getport(&addr, prog, vers, IPPROTO_TCP);
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

    if (exported) {
        const int mountPort = AskPortmapper(CNfsMain::MOUNT_PROGRAM, CNfsMain::MOUNT_VERSION);
        const int nfsPort = AskPortmapper(CNfsMain::NFS_PROGRAM, CNfsMain::NFS_VERSION);
        printf("nfs_demo: serving with the %s portmapper on port %d\n", systemPortmapper ? "system" : "internal",
               CNfsMain::PORTMAP_PORT);
        printf("nfs_demo: MOUNT port %d, NFS port %d%s\n", mountPort, nfsPort, options.readOnly ? ", read-only" : "");
        for (const auto& e : options.exports)
            printf("nfs_demo: export \"%s\" = %s\n", e.second.c_str(), e.first.c_str());
        const std::string& name = options.exports.front().second;
        printf("nfs_demo: a libnfs client reaches the export \"%s\" with:\n", name.c_str());
        printf("    nfs_parse_url_incomplete(nfs, \"nfs://127.0.0.1/?nfsport=%d&mountport=%d&auto-traverse-mounts=0\");\n",
               nfsPort, mountPort);
        printf("    nfs_mount(nfs, \"127.0.0.1\", \"%s\");\n", name.c_str());
        printf("nfs_demo: the export name is mounted as it is, without a leading slash\n");
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
    return exported ? 0 : 1;
}
