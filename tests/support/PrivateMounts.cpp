#include "PrivateMounts.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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
    m_mounted = mount("tmpfs", folder.c_str(), "tmpfs", 0, options.empty() ? nullptr : options.c_str()) == 0;
    if (!m_mounted) m_error = "mount tmpfs on " + folder + ": " + strerror(errno);
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
