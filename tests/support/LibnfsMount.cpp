#include "LibnfsMount.h"

#include <nfsc/libnfs.h>

LibnfsMount::LibnfsMount() : m_nfs(nfs_init_context()) {}

LibnfsMount::~LibnfsMount() {
    if (m_nfs) nfs_destroy_context(m_nfs);
}

bool LibnfsMount::Mount(const std::string& options, const std::string& exportName, std::string* why) {
    auto fail = [why](const char* text) {
        if (why) *why = text ? text : "";
        return false;
    };
    if (!m_nfs) return fail("no context");
    std::string url = "nfs://127.0.0.1/?" + options;
    struct nfs_url* parsed = nfs_parse_url_incomplete(m_nfs, url.c_str());
    if (!parsed) return fail(nfs_get_error(m_nfs));
    nfs_destroy_url(parsed);
    if (nfs_mount(m_nfs, "127.0.0.1", exportName.c_str()) != 0) return fail(nfs_get_error(m_nfs));
    return true;
}
