#include "IpcTestSupport.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "PrivateNetwork.h"

PrivateTmp::PrivateTmp(bool network) {
    if (network) {
        if (!EnterPrivateNetwork(&m_error)) return;
    } else if (!EnterPrivateMountNamespace(m_error)) {
        return;
    }
    m_tmpfs.reset(new ScopedTmpfs("/tmp", "size=512m,mode=1777"));
    m_ok = m_tmpfs->Ok();
    if (!m_ok) m_error = m_tmpfs->Error();
}

std::string RecordBytes(const IpcDataBuf& buf) {
    size_t n = buf.lDataLen <= sizeof buf.cBuf ? buf.lDataLen : sizeof buf.cBuf;
    return std::string(buf.cBuf, n);
}

std::string RawExchange(const std::string& channel, const std::string& bytes, std::string* why, int timeoutMs) {
    std::string reply;
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        if (why) *why = std::string("socket: ") + strerror(errno);
        return reply;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, channel.c_str(), sizeof addr.sun_path - 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        if (why) *why = std::string("connect: ") + strerror(errno);
        close(fd);
        return reply;
    }
    if (!bytes.empty() && send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) != (ssize_t)bytes.size()) {
        if (why) *why = std::string("send: ") + strerror(errno);
    }
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0) {
            if (why) *why = "no reply in time";
            break;
        }
        char buf[8192];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) break;
        reply.append(buf, (size_t)n);
    }
    close(fd);
    return reply;
}

ParsedReply ParseReply(const std::string& bytes) {
    ParsedReply r;
    r.size = bytes.size();
    IpcDataBuf buf;
    memset(&buf, 0, sizeof buf);
    memcpy(buf.cBuf, bytes.data(), bytes.size() < sizeof buf.cBuf ? bytes.size() : sizeof buf.cBuf);
    const Ipc_Header* h = reinterpret_cast<const Ipc_Header*>(buf.cBuf);
    r.group = h->iGroup;
    r.type = h->iType;
    r.version.assign(h->cVersion, strnlen(h->cVersion, sizeof h->cVersion));
    if (r.type >= IPC_REPLY_BOOL && r.type <= IPC_REPLY_INT) {
        if (r.type == IPC_REPLY_BOOL)
            r.value = reinterpret_cast<const IpcReply_Bool*>(buf.cBuf)->bVal;
        else
            memcpy(&r.value, buf.cBuf + 16, 4);
    } else if (r.type == IPC_REPLY_EXCEPTION || r.type == IPC_REPLY_MESSAGE) {
        const char* msg = buf.cBuf + 16;
        r.text.assign(msg, strnlen(msg, 2048));
    }
    return r;
}
