#include "VSphereToolStandIn.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "PrivateMounts.h"
#include "TestSupport.h"
#include "VSphereWebController.h"

const char* const VSPHERE_TOOL_SCRIPT =
    "#!/bin/sh\n"
    "# Stand-in for the vSphere web control tool: records how it was called.\n"
    "[ -n \"$DSUNMOUNTER_RUNS\" ] || exit 0\n"
    "{ printf '%s' \"$0\"; for a in \"$@\"; do printf ' [%s]' \"$a\"; done; printf '\\n'; } >> "
    "\"$DSUNMOUNTER_RUNS\"\n"
    "exit \"${DSUNMOUNTER_EXIT:-0}\"\n";

std::string FolderOf(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

std::string InstallToolBesideExecutable() {
    std::string tool = FolderOf(OwnExecutablePath()) + CVSphereWebController::ToolName();
    std::string temporary = tool + "." + std::to_string(getpid());
    WriteWholeFile(temporary, VSPHERE_TOOL_SCRIPT);
    chmod(temporary.c_str(), 0755);
    rename(temporary.c_str(), tool.c_str());
    return tool;
}
