#pragma once

#include <mutex>

// Runs the external vSphere web control tool, which lives in the folder of
// the running executable, to unmount NFS datastores from a vSphere host.
class CVSphereWebController {
public:
    CVSphereWebController() = default;
    virtual ~CVSphereWebController() = default;
    CVSphereWebController(const CVSphereWebController&) = delete;
    CVSphereWebController& operator=(const CVSphereWebController&) = delete;

    // Removes the datastore pcDatastoreMoid from the host: runs
    //   "<folder>/DsUnmounterLinX86" -host H -port P -user U -pwd W
    //       -method removeDatastore -argu MOID
    // through the shell and waits for it. The values are inserted as they
    // are (callers pass plain tokens). Returns the shell's wait status, or
    // -1 when nothing was run: a null argument, the executable's folder not
    // readable, or a command line that does not fit its 1024-byte buffer
    // (a cut line could name another datastore).
    int RemoveSession(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort, const char* pcUser,
                      const char* pcPwd);

    // File name of the tool.
    static const char* ToolName();

private:
    // Serialises the runs of the tool.
    std::mutex m_hMutex;
};
