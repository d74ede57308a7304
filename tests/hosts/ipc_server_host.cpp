// Stand-in for the console program in mode svr, for the two-process tests:
// runs the external server controller until a client's shutdown request is
// granted or SIGTERM arrives.
//   ipc_server_host -md svr -id ID [-log N] [-noautoshutdown]
// Prints "Ready" once the channel is served, error texts on failure (exit 1)
// and "Exit by request" after a granted shutdown request.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "NfsIpcServerMain.h"
#include "Utilities.h"

namespace {

volatile sig_atomic_t g_stop = 0;

void OnTerm(int) { g_stop = 1; }

}  // namespace

int main(int argc, char** argv) {
    std::string id;
    int logControl = CRuntimeParam::LOG_ERROR;
    bool autoShutdown = true;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "-id" && i + 1 < argc) {
            id = argv[++i];
        } else if (arg == "-log" && i + 1 < argc) {
            logControl = atoi(argv[++i]);
        } else if (arg == "-md" && i + 1 < argc) {
            if (strcmp(argv[++i], "svr") != 0) {
                printf("Un-supported mode: %s\n", "-md");
                return 1;
            }
        } else if (arg == "-noautoshutdown") {
            autoShutdown = false;
        } else {
            printf("Unknown option: %s\n", argv[i]);
            return 1;
        }
    }
    struct sigaction sa {};
    sa.sa_handler = OnTerm;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    setvbuf(stdout, nullptr, _IOLBF, 0);

    CNfsIpcServerMain nfs(id.c_str(), logControl);
    nfs.EnableAutoShutdown(autoShutdown);
    char err[ERROR_TEXT_SIZE] = "";
    if (!nfs.Initial(err)) {
        printf("%s\n", err);
        return 1;
    }
    if (!nfs.StartRemoteController(err)) {
        printf("%s\n", err);
        nfs.Terminate();
        return 1;
    }
    printf("Ready\n");
    while (!g_stop && !nfs.IsAutoShutdownRequested()) usleep(100 * 1000);
    if (nfs.IsAutoShutdownRequested()) printf("\nExit by request\n");
    nfs.StopServer();
    nfs.StopRemoteController();
    nfs.Terminate();
    return 0;
}
