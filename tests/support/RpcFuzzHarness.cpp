#include "RpcFuzzHarness.h"

#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ICallback.h"
#include "InputStream.h"
#include "MountProg.h"
#include "NfsProg.h"
#include "OutputStream.h"
#include "PortmapProg.h"
#include "RpcServer.h"
#include "RuntimeParam.h"
#include "Socket.h"
#include "Utilities.h"

namespace {

constexpr unsigned long PROGRAMS[4] = {100000, 100005, 100003, 100003};
// Ports the internal portmapper reports.
constexpr unsigned long NFS_PORT = 2049, MOUNT_PORT = 1058;
constexpr long long REDIRECTED_SIZE = 16384, SEGMENT_SIZE = 8192;

// Takes every log line (reading it whole, so an unterminated text shows)
// and accepts every change of a redirected file.
class DiscardingCallback : public ICallback {
public:
    size_t lines = 0;
    bool LogInfo(const char* id, const char* text) override { return Take(id, text); }
    bool LogError(const char* id, const char* text) override { return Take(id, text); }
    bool LogRaw(const char* id, const char* text) override { return Take(id, text); }
    int UpdateRedirectedFileAttributes(const char* id, const char* path, bool, unsigned long long, bool,
                                       unsigned long, bool, unsigned long) override {
        return Touch(id, path);
    }
    int RemoveRedirectedFile(const char* id, const char* path) override { return Touch(id, path); }
    int RenameRedirectedFile(const char* id, const char* from, const char* to) override {
        return Touch(id, from) + Touch(id, to);
    }
    int WriteRedirectedFile(const char* id, const char* path, unsigned long long, int, unsigned int len) override {
        Touch(id, path);
        return (int)len;
    }

private:
    bool Take(const char* id, const char* text) {
        Touch(id, text);
        ++lines;
        return true;
    }
    int Touch(const char* id, const char* text) {
        volatile size_t n = (id ? strlen(id) : 0) + (text ? strlen(text) : 0);
        (void)n;
        return 0;
    }
};

// A file service whose handles carry the harness's fixed verifier.
class FuzzUtilities : public CUtilities {
public:
    FuzzUtilities() {
        static_assert(sizeof RpcFuzzHarness::HANDLE_VERIFIER == HANDLE_VERIFIER_SIZE, "verifier size");
        memcpy(m_cHandleVerifier, RpcFuzzHarness::HANDLE_VERIFIER, HANDLE_VERIFIER_SIZE);
    }
};

// Leaves a socket file at path: bound, then closed.
void MakeSocketFile(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd == -1) return;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) perror("fuzz harness: bind");
    close(fd);
}

void WriteFile(const std::string& path, size_t size, char fill) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd == -1) return;
    std::string data(size, fill);
    for (size_t i = 0; i < size; ++i) data[i] = (char)(fill + i % 23);
    if (write(fd, data.data(), data.size()) != (ssize_t)data.size()) perror("fuzz harness: write");
    close(fd);
}

int RemoveEntry(const char* path, const struct stat*, int type, struct FTW*) {
    // Folders are left writable and searchable by a fuzzed SETATTR only as
    // far as root does not care; remove whatever is there.
    return type == FTW_DP ? rmdir(path) : unlink(path);
}

// Checks the framing of one TCP reply: the record mark is one last
// fragment holding every byte behind it.
void CheckTcpReply(const unsigned char* data, uint32_t size) {
    if (size < 28) {
        fprintf(stderr, "fuzz harness: TCP reply of %u bytes is shorter than a reply header\n", size);
        abort();
    }
    uint32_t mark = ((uint32_t)data[0] << 24) | ((uint32_t)data[1] << 16) | ((uint32_t)data[2] << 8) | data[3];
    if (mark != 0x80000000u + (size - 4)) {
        fprintf(stderr, "fuzz harness: record mark 0x%08x does not frame a reply of %u bytes\n", mark, size);
        abort();
    }
}

// The length of the first TCP reply of a send that may hold several: the
// record mark's length and the mark itself, or all of size when the mark
// is not a last fragment that fits (CheckTcpReply then refuses it).
uint32_t FirstTcpReplySize(const unsigned char* data, uint32_t size) {
    if (size < 4) return size;
    uint32_t mark = ((uint32_t)data[0] << 24) | ((uint32_t)data[1] << 16) | ((uint32_t)data[2] << 8) | data[3];
    if ((mark & 0x80000000u) == 0 || (mark & 0x7FFFFFFFu) > size - 4) return size;
    return 4 + (mark & 0x7FFFFFFFu);
}

}  // namespace

RpcFuzzHarness::RpcFuzzHarness(const std::string& workDir) {
    char resolved[PATH_MAX];
    std::string dir = realpath(workDir.c_str(), resolved) ? resolved : workDir;
    m_base = dir + "/fuzz-export";
    m_export = m_base + "/" + EXPORT_NAME;
}

RpcFuzzHarness::~RpcFuzzHarness() { RemoveTree(); }

uint8_t RpcFuzzHarness::Selector(uint8_t program, uint8_t transport, unsigned extraReceives, bool readOnly) {
    return (uint8_t)(program | transport | (readOnly ? READ_ONLY : 0) | ((extraReceives & 15) << 4));
}

void RpcFuzzHarness::RemoveTree() { nftw(m_base.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS); }

void RpcFuzzHarness::BuildTree() {
    // A fuzzed call may have changed modes, sizes and names: start afresh.
    RemoveTree();
    mkdir(m_base.c_str(), 0755);
    mkdir(m_export.c_str(), 0755);
    mkdir((m_export + "/dir").c_str(), 0755);
    mkdir((m_export + "/dir/sub").c_str(), 0755);
    WriteFile(m_export + "/file.txt", 100, 'a');
    WriteFile(m_export + "/dir/nested.bin", 5000, 'A');
    WriteFile(m_export + "/disk.vmdk", 0, 0);
    WriteFile(m_export + "/empty", 0, 0);
    WriteFile(m_base + "/outside.txt", 10, '0');
    WriteFile(m_base + "/source.bin", SEGMENT_SIZE, 'S');
    if (symlink("file.txt", (m_export + "/link").c_str()) != 0) perror("fuzz harness: symlink");
    MakeSocketFile(m_export + "/socket");
}

void RpcFuzzHarness::Run(const uint8_t* data, size_t size) {
    m_replies.clear();
    m_logLines = 0;
    if (size == 0) return;
    const uint8_t selector = data[0];
    const unsigned long progId = PROGRAMS[selector & 3];
    const int type = (selector & UDP) ? CSocket::TYPE_UDP : CSocket::TYPE_TCP;
    const bool readOnly = (selector & READ_ONLY) != 0;
    size_t pos = 1;
    std::vector<size_t> receives;
    for (unsigned i = 0; i < (unsigned)(selector >> 4) && pos + 2 <= size; ++i, pos += 2)
        receives.push_back(((size_t)data[pos] << 8) | data[pos + 1]);

    BuildTree();
    DiscardingCallback callback;
    CRuntimeParam runtime("fuzz", LOG_CONTROL);
    LogArgu la{"RpcFuzzHarness.Run"};
    std::unique_ptr<CUtilities> utilities(new FuzzUtilities);
    utilities->SetCallback(&callback);
    char err[ERROR_TEXT_SIZE] = "";
    if (!utilities->AddMountInfo(&runtime, &la, m_export.c_str(), EXPORT_NAME, EXPORT_IPC_ID, err)) {
        fprintf(stderr, "fuzz harness: cannot export %s: %s\n", m_export.c_str(), err);
        abort();
    }
    if (progId == 100003 &&
        !utilities->UpdateMountClientIpAddrByExportName(EXPORT_NAME, CLIENT_ADDRESS, nullptr, err)) {
        fprintf(stderr, "fuzz harness: cannot mount %s: %s\n", EXPORT_NAME, err);
        abort();
    }
    // The file IDs of the layout described in the header.
    const std::string known[] = {m_export,           m_export + "/file.txt", m_export + "/dir",
                                 m_export + "/dir/nested.bin", m_export + "/dir/sub", m_export + "/disk.vmdk",
                                 m_export + "/empty", m_base + "/outside.txt", m_base,
                                 m_export + "/socket"};
    unsigned char handle[FILE_HANDLE_SIZE];
    for (const std::string& path : known) utilities->GetFileHandle(&runtime, &la, path.c_str(), handle, sizeof handle);
    const std::string disk = m_export + "/disk.vmdk";
    utilities->OpenRedirectedFile(&runtime, disk.c_str(), REDIRECTED_SIZE, false, 0, 0);
    utilities->AddRedirectedFileSegment(&runtime, disk.c_str(), (m_base + "/source.bin").c_str(), 0, 0,
                                        SEGMENT_SIZE, err);

    {
        CPortmapProg portmap(utilities.get());
        portmap.Set(100003, NFS_PORT);
        portmap.Set(100005, MOUNT_PORT);
        CMountProg mount(utilities.get());
        CNfsProg nfs(utilities.get());
        nfs.SetUserID(0, 0);
        nfs.SetReadOnly(readOnly);
        CRpcServer server(utilities.get(), &runtime);
        server.Set(100000, &portmap);
        server.Set(100003, &nfs);
        server.Set(100005, &mount);

        // The connections are kept from run to run, their 1 MiB streams
        // emptied: allocating them is most of the cost of a short input.
        std::unique_ptr<CSocket>& slot = m_sockets[type == CSocket::TYPE_UDP][selector & 3];
        if (!slot) slot.reset(new CSocket(type, progId));
        CSocket& socket = *slot;
        socket.GetInputStream()->ResetBuffer();
        socket.GetOutputStream()->ResetBuffer();
        sockaddr_in remote{};
        remote.sin_family = AF_INET;
        remote.sin_port = htons(1023);
        inet_pton(AF_INET, CLIENT_ADDRESS, &remote.sin_addr);
        // No descriptor: no receive thread, only the listener and the peer.
        socket.Open(-1, &server, &remote);
        socket.SetSendSink([&](const unsigned char* sent, uint32_t length) -> ssize_t {
            if (type == CSocket::TYPE_UDP) {
                m_replies.emplace_back(sent, sent + length);
                return (ssize_t)length;
            }
            // The replies of one receive leave in one send.
            for (uint32_t at = 0; at < length;) {
                const uint32_t size = FirstTcpReplySize(sent + at, length - at);
                CheckTcpReply(sent + at, size);
                m_replies.emplace_back(sent + at, sent + at + size);
                at += size;
            }
            return (ssize_t)length;
        });

        // The receive loop of the connection's thread, one receive per piece.
        CInputStream* in = socket.GetInputStream();
        bool open = true;
        for (size_t piece = 0; open && piece <= receives.size(); ++piece) {
            size_t length = piece < receives.size() ? receives[piece] : size - pos;
            if (length > size - pos) length = size - pos;
            const uint8_t* bytes = data + pos;
            pos += length;
            if (length == 0) {
                open = type == CSocket::TYPE_UDP;  // end of stream, or an empty datagram
                continue;
            }
            while (length > 0) {
                // A datagram stands alone; a stream keeps its unread bytes.
                if (type == CSocket::TYPE_UDP)
                    in->ResetBuffer();
                else
                    in->ConsolidateBuffer(0);
                const uint32_t room = in->GetFreeBufferSize();
                if (room == 0) {
                    open = false;  // a full stream buffer ends the connection
                    break;
                }
                const uint32_t taken = length < room ? (uint32_t)length : room;
                memcpy(in->GetFreeBuffer(), bytes, taken);
                in->AddFilledBufferSize(taken);
                server.SocketReceived(&socket);
                bytes += taken;
                length -= taken;
                // The tail of a datagram that did not fit is lost.
                if (type == CSocket::TYPE_UDP) length = 0;
            }
        }
        socket.SetSendSink(nullptr);
        socket.Open(-1, nullptr, nullptr);
    }
    m_logLines = callback.lines;
    utilities.reset();
}
