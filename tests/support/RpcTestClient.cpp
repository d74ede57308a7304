#include "RpcTestClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

// ---- XDR -------------------------------------------------------------------

XdrEncoder& XdrEncoder::PutUint32(uint32_t v) {
    uint8_t b[4] = {(uint8_t)(v >> 24), (uint8_t)(v >> 16), (uint8_t)(v >> 8), (uint8_t)v};
    return PutRaw(b, 4);
}

XdrEncoder& XdrEncoder::PutUint64(uint64_t v) {
    PutUint32((uint32_t)(v >> 32));
    return PutUint32((uint32_t)v);
}

XdrEncoder& XdrEncoder::PutOpaque(const void* data, size_t len) {
    PutUint32((uint32_t)len);
    return PutFixedOpaque(data, len);
}

XdrEncoder& XdrEncoder::PutFixedOpaque(const void* data, size_t len) {
    PutRaw(data, len);
    m_bytes.resize(m_bytes.size() + (4 - len % 4) % 4, 0);
    return *this;
}

XdrEncoder& XdrEncoder::PutRaw(const void* data, size_t len) {
    const uint8_t* p = static_cast<const uint8_t*>(data);
    m_bytes.insert(m_bytes.end(), p, p + len);
    return *this;
}

void XdrDecoder::Need(size_t n) const {
    if (n > Remaining()) throw std::out_of_range("XDR data ends early");
}

uint32_t XdrDecoder::GetUint32() {
    Need(4);
    uint32_t v = WordAt(m_bytes, m_pos);
    m_pos += 4;
    return v;
}

uint64_t XdrDecoder::GetUint64() {
    uint64_t high = GetUint32();
    return (high << 32) | GetUint32();
}

Bytes XdrDecoder::GetOpaque() { return GetFixedOpaque(GetUint32()); }

Bytes XdrDecoder::GetFixedOpaque(size_t len) {
    size_t padded = len + (4 - len % 4) % 4;
    Need(padded);
    Bytes body(m_bytes.begin() + (long)m_pos, m_bytes.begin() + (long)(m_pos + len));
    m_pos += padded;
    return body;
}

std::string XdrDecoder::GetString() {
    Bytes b = GetOpaque();
    return std::string(b.begin(), b.end());
}

// ---- messages --------------------------------------------------------------

RpcAuth RpcAuth::Unix(uint32_t stamp, const std::string& machine, uint32_t uid, uint32_t gid,
                      const std::vector<uint32_t>& gids) {
    XdrEncoder e;
    e.PutUint32(stamp).PutString(machine).PutUint32(uid).PutUint32(gid).PutUint32((uint32_t)gids.size());
    for (uint32_t g : gids) e.PutUint32(g);
    RpcAuth auth;
    auth.flavor = 1;
    auth.body = e.GetBytes();
    return auth;
}

Bytes BuildRpcCall(uint32_t xid, uint32_t prog, uint32_t vers, uint32_t proc, const Bytes& args,
                   const RpcAuth& cred, const RpcAuth& verf) {
    XdrEncoder e;
    e.PutUint32(xid).PutUint32(0).PutUint32(2).PutUint32(prog).PutUint32(vers).PutUint32(proc);
    e.PutUint32(cred.flavor).PutOpaque(cred.body);
    e.PutUint32(verf.flavor).PutOpaque(verf.body);
    e.PutRaw(args);
    return e.GetBytes();
}

Bytes WithRecordMark(const Bytes& message) {
    XdrEncoder e;
    e.PutUint32(0x80000000u | (uint32_t)message.size()).PutRaw(message);
    return e.GetBytes();
}

uint32_t WordAt(const Bytes& b, size_t offset) {
    if (offset + 4 > b.size()) throw std::out_of_range("word beyond the bytes");
    return ((uint32_t)b[offset] << 24) | ((uint32_t)b[offset + 1] << 16) | ((uint32_t)b[offset + 2] << 8) |
           (uint32_t)b[offset + 3];
}

bool ParseRpcReply(const Bytes& message, RpcReply& reply) {
    uint32_t mark = reply.recordMark;
    reply = RpcReply();
    reply.recordMark = mark;
    reply.message = message;
    try {
        XdrDecoder d(message);
        reply.xid = d.GetUint32();
        reply.msgType = d.GetUint32();
        reply.replyStat = d.GetUint32();
        if (reply.replyStat != 0) {  // denied: the rest as results
            reply.results.assign(message.begin() + (long)d.Position(), message.end());
            return true;
        }
        reply.verfFlavor = d.GetUint32();
        reply.verfLength = d.GetUint32();
        d.GetFixedOpaque(reply.verfLength);
        reply.acceptStat = d.GetUint32();
        reply.results.assign(message.begin() + (long)d.Position(), message.end());
        return true;
    } catch (const std::out_of_range&) {
        return false;
    }
}

// ---- client ----------------------------------------------------------------

RpcTestClient::RpcTestClient(Transport transport, uint16_t port, const char* host, int receiveTimeoutMs,
                             const char* localAddress)
    : m_transport(transport) {
    m_fd = socket(AF_INET, transport == TCP ? SOCK_STREAM : SOCK_DGRAM, 0);
    if (m_fd == -1) return;
    timeval tv{receiveTimeoutMs / 1000, (receiveTimeoutMs % 1000) * 1000};
    setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if (localAddress != nullptr) {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        inet_pton(AF_INET, localAddress, &local.sin_addr);
        if (bind(m_fd, reinterpret_cast<sockaddr*>(&local), sizeof local) == -1) {
            Close();
            return;
        }
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    inet_pton(AF_INET, host, &addr.sin_addr);
    // UDP is "connected" too, so that only the server's datagrams arrive.
    if (connect(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == -1) Close();
}

RpcTestClient::~RpcTestClient() { Close(); }

void RpcTestClient::Close() {
    if (m_fd != -1) close(m_fd);
    m_fd = -1;
}

uint16_t RpcTestClient::LocalPort() const { return GetBoundPort(m_fd); }

bool RpcTestClient::SendRaw(const void* data, size_t len) {
    if (m_fd == -1) return false;
    const uint8_t* p = static_cast<const uint8_t*>(data);
    if (m_transport == UDP) return send(m_fd, p, len, MSG_NOSIGNAL) == (ssize_t)len;
    while (len > 0) {
        ssize_t n = send(m_fd, p, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= (size_t)n;
    }
    return true;
}

bool RpcTestClient::SendMessage(const Bytes& message) {
    return SendRaw(m_transport == TCP ? WithRecordMark(message) : message);
}

bool RpcTestClient::SendCall(uint32_t xid, uint32_t prog, uint32_t vers, uint32_t proc, const Bytes& args,
                             const RpcAuth& cred) {
    return SendMessage(BuildRpcCall(xid, prog, vers, proc, args, cred));
}

bool RpcTestClient::ReceiveExactly(void* data, size_t len) {
    uint8_t* p = static_cast<uint8_t*>(data);
    while (len > 0) {
        ssize_t n = recv(m_fd, p, len, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= (size_t)n;
    }
    return true;
}

bool RpcTestClient::ReceiveMessage(Bytes& message, uint32_t* firstMark) {
    message.clear();
    if (m_fd == -1) return false;
    if (m_transport == UDP) {
        message.resize(65536);
        ssize_t n;
        do n = recv(m_fd, message.data(), message.size(), 0);
        while (n < 0 && errno == EINTR);
        if (n < 0) return false;
        message.resize((size_t)n);
        if (firstMark) *firstMark = 0;
        return true;
    }
    bool first = true;
    for (;;) {
        uint8_t markBytes[4];
        if (!ReceiveExactly(markBytes, 4)) return false;
        uint32_t mark = WordAt(Bytes(markBytes, markBytes + 4), 0);
        if (first && firstMark) *firstMark = mark;
        first = false;
        size_t length = mark & 0x7FFFFFFFu;
        if (length > (64u << 20)) return false;  // not a sane reply
        size_t old = message.size();
        message.resize(old + length);
        if (!ReceiveExactly(message.data() + old, length)) return false;
        if (mark & 0x80000000u) return true;
    }
}

bool RpcTestClient::ReceiveReply(RpcReply& reply) {
    Bytes message;
    uint32_t mark = 0;
    if (!ReceiveMessage(message, &mark)) return false;
    reply.recordMark = mark;
    return ParseRpcReply(message, reply);
}

bool RpcTestClient::WaitForClose() {
    if (m_fd == -1 || m_transport != TCP) return false;
    uint8_t b[256];
    for (;;) {
        ssize_t n = recv(m_fd, b, sizeof b, 0);
        if (n == 0) return true;
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno == ECONNRESET;
    }
}

bool RpcTestClient::Call(uint32_t xid, uint32_t prog, uint32_t vers, uint32_t proc, const Bytes& args,
                         RpcReply& reply, const RpcAuth& cred) {
    return SendCall(xid, prog, vers, proc, args, cred) && ReceiveReply(reply) && reply.xid == xid;
}

uint16_t GetBoundPort(int fd) {
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == -1) return 0;
    return ntohs(addr.sin_port);
}

bool WaitUntil(const std::function<bool()>& condition, int maxWaitMs) {
    for (int waited = 0; waited <= maxWaitMs; waited += 2) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return condition();
}
