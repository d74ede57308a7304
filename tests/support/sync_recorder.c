/* Preload library for the stable-write tests: records the writes and syncs
 * a process makes on regular files and folders, one line each, in the file
 * named by NFSENGINE_SYNC_LOG:
 *     <call> <inode> <offset> <length> <start ns> <end ns> <result>
 * (CLOCK_MONOTONIC, so that another process can compare its own times).
 * A sync of a file whose path holds NFSENGINE_SYNC_FAIL fails with EIO. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

typedef ssize_t (*write_fn)(int, const void*, size_t);
typedef ssize_t (*pwrite_fn)(int, const void*, size_t, off_t);
typedef int (*sync_fn)(int);

static int g_log = -1;
static const char* g_fail = NULL;

static void* Next(const char* name) { return dlsym(RTLD_NEXT, name); }

__attribute__((constructor)) static void Start(void) {
    const char* path = getenv("NFSENGINE_SYNC_LOG");
    if (path != NULL && *path != '\0') g_log = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    g_fail = getenv("NFSENGINE_SYNC_FAIL");
    if (g_fail != NULL && *g_fail == '\0') g_fail = NULL;
}

static long long Now(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

/* The inode of a regular file (or, with folders, a folder) behind fd; 0 for
 * anything else. */
static unsigned long long Inode(int fd, int folders) {
    struct stat st;
    if (g_log == -1 || fd == g_log || fstat(fd, &st) != 0) return 0;
    if (S_ISREG(st.st_mode) || (folders && S_ISDIR(st.st_mode))) return (unsigned long long)st.st_ino;
    return 0;
}

static void Record(const char* call, unsigned long long ino, long long offset, long long length, long long start,
                   long long end, long long result) {
    static write_fn real = NULL;
    if (real == NULL) real = (write_fn)Next("write");
    char line[200];
    int n = snprintf(line, sizeof line, "%s %llu %lld %lld %lld %lld %lld\n", call, ino, offset, length, start, end,
                     result);
    if (n > 0 && real != NULL) real(g_log, line, (size_t)n < sizeof line ? (size_t)n : sizeof line - 1);
}

static int ShouldFail(int fd) {
    if (g_fail == NULL) return 0;
    char link[64], target[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, target, sizeof target - 1);
    if (n <= 0) return 0;
    target[n] = '\0';
    return strstr(target, g_fail) != NULL;
}

ssize_t write(int fd, const void* buf, size_t count) {
    static write_fn real = NULL;
    if (real == NULL) real = (write_fn)Next("write");
    unsigned long long ino = Inode(fd, 0);
    if (ino == 0) return real(fd, buf, count);
    long long offset = (long long)lseek(fd, 0, SEEK_CUR);
    long long start = Now();
    ssize_t result = real(fd, buf, count);
    int saved = errno;
    Record("write", ino, offset, (long long)count, start, Now(), (long long)result);
    errno = saved;
    return result;
}

ssize_t pwrite(int fd, const void* buf, size_t count, off_t offset) {
    static pwrite_fn real = NULL;
    if (real == NULL) real = (pwrite_fn)Next("pwrite");
    unsigned long long ino = Inode(fd, 0);
    if (ino == 0) return real(fd, buf, count, offset);
    long long start = Now();
    ssize_t result = real(fd, buf, count, offset);
    int saved = errno;
    Record("write", ino, (long long)offset, (long long)count, start, Now(), (long long)result);
    errno = saved;
    return result;
}

ssize_t pwrite64(int fd, const void* buf, size_t count, off_t offset) { return pwrite(fd, buf, count, offset); }

static int Sync(const char* call, int fd) {
    sync_fn real = (sync_fn)Next(call);
    unsigned long long ino = Inode(fd, 1);
    if (ino == 0) return real ? real(fd) : -1;
    long long start = Now();
    int result;
    if (ShouldFail(fd)) {
        result = -1;
        errno = EIO;
    } else {
        result = real ? real(fd) : -1;
    }
    int saved = errno;
    Record(call, ino, 0, 0, start, Now(), result);
    errno = saved;
    return result;
}

int fdatasync(int fd) { return Sync("fdatasync", fd); }
int fsync(int fd) { return Sync("fsync", fd); }
