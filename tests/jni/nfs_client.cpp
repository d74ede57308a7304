// A real NFS client (libnfs) that the Java tests of the JNI binding run as a
// child process against the server on 127.0.0.1:
//   jni_nfs_client EXPORT read PATH OUTFILE     whole file into OUTFILE; "size=N"
//   jni_nfs_client EXPORT write PATH OFFSET LEN one WRITE; "status=S count=C"
//   jni_nfs_client EXPORT truncate PATH SIZE    "result=R"
//   jni_nfs_client EXPORT utimes PATH ATIME MTIME
//   jni_nfs_client EXPORT unlink PATH
//   jni_nfs_client EXPORT rename FROM TO
// The server listens on the default ports, 2049 (NFS) and 1058 (MOUNT). The write goes out as one raw
// WRITE call, so that the count printed is the server's reply as it came
// (libnfs's file API would retry a short count). Every command unmounts at
// the end: the server lets one client at a time mount an export. Exit 2
// when the export could not be reached.

#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <nfsc/libnfs.h>
#include <nfsc/libnfs-raw.h>
#include <nfsc/libnfs-raw-mount.h>
#include <nfsc/libnfs-raw-nfs.h>

#include "LibnfsMount.h"

namespace {

const int NFS_PORT = 2049;
const int MOUNT_PORT = 1058;

struct Exchange {
    bool done = false;
    int status = RPC_STATUS_ERROR;
    std::vector<char> handle;  // MNT and LOOKUP: the handle of the reply
    int nfsStatus = -1;
    unsigned count = 0;
};

bool Wait(struct rpc_context* rpc, Exchange& ex) {
    for (int rounds = 0; !ex.done && rounds < 300; ++rounds) {
        struct pollfd pfd = {rpc_get_fd(rpc), static_cast<short>(rpc_which_events(rpc)), 0};
        if (poll(&pfd, 1, 100) < 0) return false;
        if (rpc_service(rpc, pfd.revents) < 0) return false;
    }
    return ex.done && ex.status == RPC_STATUS_SUCCESS;
}

void OnDone(struct rpc_context*, int status, void*, void* priv) {
    Exchange* ex = static_cast<Exchange*>(priv);
    ex->status = status;
    ex->done = true;
}

void OnMount(struct rpc_context*, int status, void* data, void* priv) {
    Exchange* ex = static_cast<Exchange*>(priv);
    ex->status = status;
    ex->done = true;
    if (status != RPC_STATUS_SUCCESS) return;
    mountres3* res = static_cast<mountres3*>(data);
    ex->nfsStatus = res->fhs_status;
    if (res->fhs_status == MNT3_OK) {
        const fhandle3& fh = res->mountres3_u.mountinfo.fhandle;
        ex->handle.assign(fh.fhandle3_val, fh.fhandle3_val + fh.fhandle3_len);
    }
}

void OnLookup(struct rpc_context*, int status, void* data, void* priv) {
    Exchange* ex = static_cast<Exchange*>(priv);
    ex->status = status;
    ex->done = true;
    if (status != RPC_STATUS_SUCCESS) return;
    LOOKUP3res* res = static_cast<LOOKUP3res*>(data);
    ex->nfsStatus = res->status;
    if (res->status == NFS3_OK) {
        const nfs_fh3& fh = res->LOOKUP3res_u.resok.object;
        ex->handle.assign(fh.data.data_val, fh.data.data_val + fh.data.data_len);
    }
}

void OnWrite(struct rpc_context*, int status, void* data, void* priv) {
    Exchange* ex = static_cast<Exchange*>(priv);
    ex->status = status;
    ex->done = true;
    if (status != RPC_STATUS_SUCCESS) return;
    WRITE3res* res = static_cast<WRITE3res*>(data);
    ex->nfsStatus = res->status;
    if (res->status == NFS3_OK) ex->count = res->WRITE3res_u.resok.count;
}

struct RpcContext {
    struct rpc_context* rpc = rpc_init_context();
    ~RpcContext() {
        if (rpc) rpc_destroy_context(rpc);
    }
    bool Connect(int port, int program, int version) {
        Exchange ex;
        return rpc && rpc_connect_port_async(rpc, "127.0.0.1", port, program, version, OnDone, &ex) == 0 &&
               Wait(rpc, ex);
    }
};

int Fail(const char* what, const char* why) {
    fprintf(stderr, "%s: %s\n", what, why ? why : "");
    return 2;
}

void Unmount(struct rpc_context* rpc, std::string& exportName) {
    Exchange umnt;
    if (rpc_mount3_umnt_async(rpc, OnDone, &exportName[0], &umnt) == 0) Wait(rpc, umnt);
}

// MNT, one LOOKUP per path component, then one WRITE of len bytes.
int RawWrite(const char* exportName, const char* path, unsigned long long offset, unsigned len) {
    RpcContext mount;
    if (!mount.Connect(MOUNT_PORT, MOUNT_PROGRAM, MOUNT_V3)) return Fail("connect mount", rpc_get_error(mount.rpc));
    Exchange mnt;
    std::string name = exportName;
    if (rpc_mount3_mnt_async(mount.rpc, OnMount, &name[0], &mnt) != 0 || !Wait(mount.rpc, mnt) || mnt.handle.empty())
        return Fail("mnt", rpc_get_error(mount.rpc));

    RpcContext nfs;
    if (!nfs.Connect(NFS_PORT, NFS_PROGRAM, NFS_V3)) return Fail("connect nfs", rpc_get_error(nfs.rpc));
    std::vector<char> fh = mnt.handle;
    std::string rest = path;
    size_t at = 0;
    while (at < rest.size()) {
        size_t slash = rest.find('/', at);
        std::string part = rest.substr(at, slash == std::string::npos ? std::string::npos : slash - at);
        at = slash == std::string::npos ? rest.size() : slash + 1;
        if (part.empty()) continue;
        LOOKUP3args args{};
        args.what.dir.data.data_len = fh.size();
        args.what.dir.data.data_val = fh.data();
        args.what.name = &part[0];
        Exchange lookup;
        if (rpc_nfs3_lookup_async(nfs.rpc, OnLookup, &args, &lookup) != 0 || !Wait(nfs.rpc, lookup) ||
            lookup.handle.empty()) {
            Unmount(mount.rpc, name);
            return Fail("lookup", part.c_str());
        }
        fh = lookup.handle;
    }
    std::vector<char> data(len, 'w');
    WRITE3args args{};
    args.file.data.data_len = fh.size();
    args.file.data.data_val = fh.data();
    args.offset = offset;
    args.count = len;
    args.stable = FILE_SYNC;
    args.data.data_len = len;
    args.data.data_val = data.data();
    Exchange write;
    bool sent = rpc_nfs3_write_async(nfs.rpc, OnWrite, &args, &write) == 0 && Wait(nfs.rpc, write);
    Unmount(mount.rpc, name);
    if (!sent) return Fail("write", rpc_get_error(nfs.rpc));
    printf("status=%d count=%u\n", write.nfsStatus, write.count);
    return 0;
}

int ReadWhole(struct nfs_context* nfs, const char* path, const char* outPath) {
    struct nfsfh* fh = nullptr;
    if (nfs_open(nfs, path, O_RDONLY, &fh) != 0) return Fail("open", nfs_get_error(nfs));
    FILE* out = fopen(outPath, "wb");
    if (!out) {
        nfs_close(nfs, fh);
        return Fail("create", outPath);
    }
    std::vector<char> buffer(65536);
    unsigned long long total = 0;
    int rc = 0;
    for (;;) {
        int n = nfs_pread(nfs, fh, total, buffer.size(), buffer.data());
        if (n < 0) {
            rc = Fail("read", nfs_get_error(nfs));
            break;
        }
        if (n == 0) break;
        fwrite(buffer.data(), 1, n, out);
        total += n;
    }
    fclose(out);
    nfs_close(nfs, fh);
    if (rc == 0) printf("size=%llu\n", total);
    return rc;
}

int Run(struct nfs_context* nfs, int argc, char** argv) {
    std::string command = argv[2];
    int result;
    if (command == "read" && argc == 5) return ReadWhole(nfs, argv[3], argv[4]);
    if (command == "truncate" && argc == 5) {
        result = nfs_truncate(nfs, argv[3], strtoull(argv[4], nullptr, 10));
    } else if (command == "utimes" && argc == 6) {
        struct timeval times[2] = {{strtol(argv[4], nullptr, 10), 0}, {strtol(argv[5], nullptr, 10), 0}};
        result = nfs_utimes(nfs, argv[3], times);
    } else if (command == "unlink" && argc == 4) {
        result = nfs_unlink(nfs, argv[3]);
    } else if (command == "rename" && argc == 5) {
        // Looked up first, as a client renames what it has seen.
        struct nfs_stat_64 st;
        nfs_stat64(nfs, argv[3], &st);
        result = nfs_rename(nfs, argv[3], argv[4]);
    } else {
        return Fail("usage", command.c_str());
    }
    printf("result=%d\n", result);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return Fail("usage", "EXPORT COMMAND ARGS...");
    const char* exportName = argv[1];
    if (std::string(argv[2]) == "write" && argc == 6)
        return RawWrite(exportName, argv[3], strtoull(argv[4], nullptr, 10), strtoul(argv[5], nullptr, 10));

    LibnfsMount client;
    std::string why;
    if (!client.Mount("nfsport=2049&mountport=1058&auto-traverse-mounts=0", exportName, &why))
        return Fail("mount", why.c_str());
    int rc = Run(client.Get(), argc, argv);
    nfs_umount(client.Get());
    return rc;
}
