#include "PrivateMounts.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

bool EnterPrivateMountNamespace(std::string& err) {
    if (unshare(CLONE_NEWNS) != 0) {
        err = std::string("unshare: ") + strerror(errno);
        return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        err = std::string("make / private: ") + strerror(errno);
        return false;
    }
    return true;
}

ScopedTmpfs::ScopedTmpfs(const std::string& folder, const std::string& options) : m_folder(folder) {
    // The build itself (the test, the programs it starts and their library)
    // may lie in the folder, as in a clone under /tmp: the top folder that
    // holds it stays visible on the new tmpfs.
    const std::string exe = OwnExecutablePath();
    const std::string prefix = folder + "/";
    std::string keep;
    int keepFd = -1;
    if (exe.compare(0, prefix.size(), prefix) == 0) {
        keep = exe.substr(0, exe.find('/', prefix.size()));
        keepFd = open(keep.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    }
    m_mounted = mount("tmpfs", folder.c_str(), "tmpfs", 0, options.empty() ? nullptr : options.c_str()) == 0;
    if (!m_mounted) m_error = "mount tmpfs on " + folder + ": " + strerror(errno);
    if (m_mounted && keepFd != -1) {
        const std::string from = "/proc/self/fd/" + std::to_string(keepFd);
        if (mkdir(keep.c_str(), 0755) != 0 || mount(from.c_str(), keep.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
            m_error = "keep " + keep + " visible: " + strerror(errno);
    }
    if (keepFd != -1) close(keepFd);
}

ScopedTmpfs::~ScopedTmpfs() {
    if (m_mounted) umount2(m_folder.c_str(), MNT_DETACH);
}

std::string OwnExecutablePath() {
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return "";
    return std::string(path, (size_t)n);
}
