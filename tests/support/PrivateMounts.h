#pragma once

#include <string>

// Moves this process into a mount namespace of its own whose mounts do not
// propagate back, so that a test can mount file systems without affecting
// the machine or other tests. Needs root and a single-threaded process.
// False with the reason in err.
bool EnterPrivateMountNamespace(std::string& err);

// A tmpfs mounted on an existing folder for the life of the object (then
// lazily unmounted, so that the folder can be removed afterwards).
class ScopedTmpfs {
public:
    // options as for mount(8), such as "size=64k,nr_inodes=32".
    ScopedTmpfs(const std::string& folder, const std::string& options);
    ~ScopedTmpfs();
    ScopedTmpfs(const ScopedTmpfs&) = delete;
    ScopedTmpfs& operator=(const ScopedTmpfs&) = delete;

    bool Ok() const { return m_mounted; }
    const std::string& Error() const { return m_error; }

private:
    std::string m_folder;
    std::string m_error;
    bool m_mounted = false;
};

// Path of the running executable.
std::string OwnExecutablePath();
