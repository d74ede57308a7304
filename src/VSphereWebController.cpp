#include "VSphereWebController.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Size of the buffer that receives the executable's path.
constexpr size_t EXECUTABLE_PATH_SIZE = 4096;
// Size of the tool's command line.
constexpr size_t COMMAND_LINE_SIZE = 1024;

}  // namespace

const char* CVSphereWebController::ToolName() {
    static const char* const name = "DsUnmounterLinX86";
    return name;
}

int CVSphereWebController::RemoveSession(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                                         const char* pcUser, const char* pcPwd) {
    if (!pcDatastoreMoid || !pcHost || !pcPort || !pcUser || !pcPwd) return -1;
    std::lock_guard<std::mutex> lock(m_hMutex);

    // The tool sits beside the running executable.
    char link[64];
    snprintf(link, sizeof link, "/proc/%d/exe", (int)getpid());
    char tool[EXECUTABLE_PATH_SIZE];
    ssize_t length = readlink(link, tool, sizeof tool - 1);
    if (length <= 0 || (size_t)length >= sizeof tool - 1) return -1;
    tool[length] = '\0';
    char* lastSlash = strrchr(tool, '/');
    size_t folderLength = lastSlash ? (size_t)(lastSlash - tool) + 1 : 0;
    int written = snprintf(tool + folderLength, sizeof tool - folderLength, "%s", ToolName());
    if (written < 0 || (size_t)written >= sizeof tool - folderLength) return -1;

    char command[COMMAND_LINE_SIZE];
    written = snprintf(command, sizeof command,
                       "\"%s\" -host %s -port %s -user %s -pwd %s -method removeDatastore -argu %s", tool, pcHost,
                       pcPort, pcUser, pcPwd, pcDatastoreMoid);
    if (written < 0 || (size_t)written >= sizeof command) {
        explicit_bzero(command, sizeof command);
        return -1;
    }
    int status = system(command);
    explicit_bzero(command, sizeof command);  // it holds the password
    return status;
}
