// The whole server (portmapper, MOUNT, NFS on their standard ports) over one
// folder, as its own process, so that a test can run it under a preload
// library: exports FOLDER as NAME, prints "Ready" and serves until its
// standard input ends.
//   stable_write_host FOLDER NAME
#include <unistd.h>

#include <cstdio>

#include "NfsMain.h"
#include "Utilities.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        printf("Usage: %s FOLDER NAME\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    CNfsMain nfs("stable", CRuntimeParam::LOG_ERROR);
    char err[ERROR_TEXT_SIZE] = "";
    if (!nfs.Initial(err) || !nfs.StartServer(0, 0, 0, 0, false, err) || !nfs.AddMountPoint(argv[1], argv[2], err)) {
        printf("%s\n", err);
        return 1;
    }
    printf("Ready\n");
    char buf[256];
    while (read(STDIN_FILENO, buf, sizeof buf) > 0) {
    }
    nfs.StopServer();
    nfs.Terminate();
    return 0;
}
