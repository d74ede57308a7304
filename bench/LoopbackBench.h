// Pieces shared by the benchmarks that drive NFS servers over loopback:
// bringing up the loopback device of a fresh network namespace, and the
// known content of the files they serve.
#pragma once

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

// Sets lo up in the calling thread's network namespace.
inline bool BringLoopbackUp() {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd == -1) return false;
    ifreq ifr{};
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "lo");
    bool ok = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
    if (ok) {
        ifr.ifr_flags = (short)(ifr.ifr_flags | IFF_UP | IFF_RUNNING);
        ok = ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
    }
    close(fd);
    return ok;
}

// Byte offset + i of the content, for i < n.
inline void Fill(long long offset, char* out, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        unsigned long long p = (unsigned long long)offset + i;
        out[i] = (char)((p * 2654435761ull) >> 13 ^ (p >> 20));
    }
}

// Writes path as the pieces (content offset, length), one after the other,
// gathered into writes of 1 MiB: the page cache then holds a file of small
// pieces in folios as large as a file written in one piece, and reads of
// the two compare like with like.
inline void WriteFile(const std::string& path, const std::vector<std::pair<long long, long long>>& pieces) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd == -1) abort();
    const size_t chunk = 1 << 20;
    std::vector<char> buffer(chunk);
    size_t used = 0;
    auto flush = [&]() {
        if (used > 0 && write(fd, buffer.data(), used) != (ssize_t)used) abort();
        used = 0;
    };
    for (const auto& piece : pieces) {
        for (long long done = 0; done < piece.second;) {
            size_t n = (size_t)std::min<long long>((long long)(chunk - used), piece.second - done);
            Fill(piece.first + done, buffer.data() + used, n);
            used += n;
            done += (long long)n;
            if (used == chunk) flush();
        }
    }
    flush();
    close(fd);
}
