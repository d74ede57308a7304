#pragma once

// A stand-in for the vSphere web control tool: a shell script that appends
// each command line it was run with to the file named by DSUNMOUNTER_RUNS
// (when set) and exits with DSUNMOUNTER_EXIT (default 0).

#include <string>

extern const char* const VSPHERE_TOOL_SCRIPT;

// The folder part of path, with its trailing slash.
std::string FolderOf(const std::string& path);

// Puts the stand-in beside the running executable under the tool's name
// and returns its path. Every caller writes the same content and renames
// it into place, so parallel tests don't disturb each other.
std::string InstallToolBesideExecutable();
