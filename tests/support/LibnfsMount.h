#pragma once

// One context of the libnfs client, mounted on an export of a server on
// 127.0.0.1 and destroyed with the object. This header names no libnfs
// type beyond the context, so that it can be included beside the engine's
// own NFS records.

#include <string>

struct nfs_context;

class LibnfsMount {
public:
    LibnfsMount();
    ~LibnfsMount();
    LibnfsMount(const LibnfsMount&) = delete;
    LibnfsMount& operator=(const LibnfsMount&) = delete;

    // Options first (such as "nfsport=2049&mountport=1058&auto-traverse-mounts=0"),
    // then MNT with the bare export name. False with libnfs's reason in why.
    bool Mount(const std::string& options, const std::string& exportName, std::string* why);
    struct nfs_context* Get() { return m_nfs; }

private:
    struct nfs_context* m_nfs;
};
