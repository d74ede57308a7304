#include "TestSupport.h"

#include <dirent.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "Utilities.h"

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/nfsengine-test-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_path = buf.data();
}

static int RemoveEntry(const char* path, const struct stat*, int type, struct FTW*) {
    // Folders made unreadable by a test must still go. A link is never
    // followed: chmod through it would change whatever it points at.
    if (type == FTW_DP || type == FTW_DNR) chmod(path, 0700);
    return remove(path);
}

TempDir::~TempDir() {
    // Reopen permissions top-down first so that the walk can enter folders.
    chmod(m_path.c_str(), 0700);
    nftw(m_path.c_str(), RemoveEntry, 32, FTW_DEPTH | FTW_PHYS);
}

void WriteWholeFile(const std::string& path, const std::string& data) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + path);
    out.write(data.data(), (std::streamsize)data.size());
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string Canonical(const std::string& path) {
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) ? std::string(resolved) : path;
}

bool PathExists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

static int CountEntries(const char* folder) {
    DIR* d = opendir(folder);
    if (!d) return -1;
    int n = 0;
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') ++n;
    }
    closedir(d);
    return n;
}

int CountOpenDescriptors() { return CountEntries("/proc/self/fd") - 1; /* the walk's own */ }
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define NFSENGINE_TEST_UNDER_TSAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__) || defined(NFSENGINE_TEST_UNDER_TSAN)
// ThreadSanitizer starts a thread of its own with the first thread the
// program makes; one made and joined at start keeps it out of the counts
// that tests take before and after their servers.
static const bool sanitizerThreadStarted = [] {
    std::thread([] {}).join();
    return true;
}();
#endif

void StayBusy(std::chrono::microseconds time) {
    const auto until = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < until) {
    }
}

int CountThreads() { return CountEntries("/proc/self/task"); }

namespace {

// Reaches the verifier that CUtilities keeps to itself.
struct HandleVerifierAccess : CUtilities {
    static const unsigned char* Of(const CUtilities& u) { return u.*(&HandleVerifierAccess::m_cHandleVerifier); }
};

}  // namespace

std::vector<unsigned char> HandleOfId(const CUtilities& u, unsigned int id) {
    std::vector<unsigned char> handle(FILE_HANDLE_SIZE, 0);
    memcpy(handle.data(), &id, sizeof id);
    memcpy(handle.data() + HANDLE_VERIFIER_OFFSET, HandleVerifierAccess::Of(u), HANDLE_VERIFIER_SIZE);
    return handle;
}

std::vector<std::string> FolderNames(const std::string& folder) {
    std::vector<std::string> names;
    DIR* d = opendir(folder.c_str());
    if (d == nullptr) return names;
    while (dirent* e = readdir(d))
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    closedir(d);
    return names;
}
