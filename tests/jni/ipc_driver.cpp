// A second process that drives the external server of the Java tests over
// its channel, as the console's client mode would (the IPC client
// controller, one request per command):
//   jni_ipc_driver ID COMMAND [ARGS...]
//     version | description | running | status | shutdown
//     start                          StartServer on the default ports
//     addmount PATH NAME             AddMountPoint
//     quicktest PATH MODE            RunQuickTestMode
//     mountinfo                      GetMountInfo with details
// Prints the result as "result=..." (texts quoted) and, for failures, the
// error text as "error=\"...\"". Exit 2 on a wrong command line.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "NfsIpcClientMain.h"
#include "Utilities.h"

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: jni_ipc_driver ID COMMAND [ARGS...]\n");
        return 2;
    }
    CNfsIpcClientMain client(argv[1], CRuntimeParam::LOG_ERROR | CRuntimeParam::LOG_GENERAL_INFO);
    char err[ERROR_TEXT_SIZE] = "";
    if (!client.Initial(err)) {
        printf("error=\"%s\"\n", err);
        return 1;
    }
    std::string command = argv[2];
    char text[CNfsMain::INFO_TEXT_SIZE] = "";
    if (command == "version") {
        client.GetVersion(text);
        printf("result=\"%s\"\n", text);
    } else if (command == "description") {
        client.GetDescription(text);
        printf("result=\"%s\"\n", text);
    } else if (command == "running") {
        printf("result=%d\n", client.IsServerRunning() ? 1 : 0);
    } else if (command == "status") {
        printf("result=%d\n", client.GetServerStatus());
    } else if (command == "shutdown") {
        printf("result=%d\n", client.RequestAutoShutdown() ? 1 : 0);
    } else if (command == "start") {
        bool ok = client.StartServer(0, 0, 0, 0, false, err);
        printf("result=%d error=\"%s\"\n", ok ? 1 : 0, err);
    } else if (command == "addmount" && argc == 5) {
        bool ok = client.AddMountPoint(argv[3], argv[4], err);
        printf("result=%d error=\"%s\"\n", ok ? 1 : 0, err);
    } else if (command == "quicktest" && argc == 5) {
        bool ok = client.RunQuickTestMode(argv[3], atoi(argv[4]), err);
        printf("result=%d error=\"%s\"\n", ok ? 1 : 0, err);
    } else if (command == "mountinfo") {
        printf("result=%d\n", client.GetMountInfo(false, true));
    } else {
        fprintf(stderr, "unknown command: %s\n", command.c_str());
        client.Terminate();
        return 2;
    }
    client.Terminate();
    return 0;
}
