#pragma once

// A small ONC RPC client for wire tests: builds call messages byte by byte,
// sends them (or any raw bytes) over TCP with record marks or over UDP, and
// parses the replies.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

// XDR encoding (big-endian words, opaque bodies padded with zeros to 4 bytes).
class XdrEncoder {
public:
    XdrEncoder& PutUint32(uint32_t v);
    XdrEncoder& PutUint64(uint64_t v);
    // Variable-length opaque: length word, body, padding.
    XdrEncoder& PutOpaque(const void* data, size_t len);
    XdrEncoder& PutOpaque(const Bytes& data) { return PutOpaque(data.data(), data.size()); }
    // Fixed-length opaque: body and padding, no length word.
    XdrEncoder& PutFixedOpaque(const void* data, size_t len);
    XdrEncoder& PutString(const std::string& s) { return PutOpaque(s.data(), s.size()); }
    // Bytes as they are, no padding.
    XdrEncoder& PutRaw(const void* data, size_t len);
    XdrEncoder& PutRaw(const Bytes& data) { return PutRaw(data.data(), data.size()); }

    const Bytes& GetBytes() const { return m_bytes; }
    size_t Size() const { return m_bytes.size(); }

private:
    Bytes m_bytes;
};

// XDR decoding; every getter throws std::out_of_range when the bytes run out.
class XdrDecoder {
public:
    explicit XdrDecoder(const Bytes& bytes, size_t position = 0) : m_bytes(bytes), m_pos(position) {}
    uint32_t GetUint32();
    uint64_t GetUint64();
    Bytes GetOpaque();                  // length word, body, padding
    Bytes GetFixedOpaque(size_t len);   // body and padding
    std::string GetString();
    size_t Remaining() const { return m_bytes.size() - m_pos; }
    size_t Position() const { return m_pos; }

private:
    void Need(size_t n) const;
    Bytes m_bytes;
    size_t m_pos;
};

// Credential or verifier of a call.
struct RpcAuth {
    uint32_t flavor = 0;  // 0 AUTH_NULL, 1 AUTH_UNIX
    Bytes body;

    static RpcAuth None() { return RpcAuth{}; }
    static RpcAuth Unix(uint32_t stamp, const std::string& machine, uint32_t uid, uint32_t gid,
                        const std::vector<uint32_t>& gids = {});
};

// The bytes of a call message, without record mark: xid, CALL, RPC version
// 2, prog, vers, proc, cred, verf, then args.
Bytes BuildRpcCall(uint32_t xid, uint32_t prog, uint32_t vers, uint32_t proc, const Bytes& args = {},
                   const RpcAuth& cred = RpcAuth::None(), const RpcAuth& verf = RpcAuth::None());
// message preceded by a record mark that makes it one last fragment.
Bytes WithRecordMark(const Bytes& message);
// Big-endian word at offset of bytes.
uint32_t WordAt(const Bytes& bytes, size_t offset);

// A parsed reply message.
struct RpcReply {
    uint32_t recordMark = 0;  // TCP: the mark of the (first) fragment as received
    uint32_t xid = 0;
    uint32_t msgType = 0;     // 1 REPLY
    uint32_t replyStat = 0;   // 0 MSG_ACCEPTED, 1 MSG_DENIED
    uint32_t verfFlavor = 0;
    uint32_t verfLength = 0;
    uint32_t acceptStat = 0;  // 0 SUCCESS, 1 PROG_UNAVAIL, 2 PROG_MISMATCH, 3 PROC_UNAVAIL, 4 GARBAGE_ARGS
    Bytes results;            // every byte behind accept_stat
    Bytes message;            // the whole message (without record marks)

    XdrDecoder Results() const { return XdrDecoder(results); }
};
// Parses an accepted (or denied) reply; false when the message is too short.
bool ParseRpcReply(const Bytes& message, RpcReply& reply);

class RpcTestClient {
public:
    enum Transport { TCP, UDP };

    // Connects (TCP) or addresses (UDP) host:port, from localAddress when
    // given (another loopback address: a second host); IsOpen() tells whether
    // it worked. Receives give up after receiveTimeoutMs so that a missing
    // reply fails a test instead of hanging it.
    RpcTestClient(Transport transport, uint16_t port, const char* host = "127.0.0.1",
                  int receiveTimeoutMs = 30000, const char* localAddress = nullptr);
    ~RpcTestClient();
    RpcTestClient(const RpcTestClient&) = delete;
    RpcTestClient& operator=(const RpcTestClient&) = delete;

    bool IsOpen() const { return m_fd != -1; }
    int Fd() const { return m_fd; }
    Transport GetTransport() const { return m_transport; }
    uint16_t LocalPort() const;
    void Close();

    // TCP: the bytes as they are on the stream; UDP: one datagram.
    bool SendRaw(const void* data, size_t len);
    bool SendRaw(const Bytes& data) { return SendRaw(data.data(), data.size()); }
    // A call message: one record on TCP, one datagram on UDP.
    bool SendMessage(const Bytes& message);
    bool SendCall(uint32_t xid, uint32_t prog, uint32_t vers, uint32_t proc, const Bytes& args = {},
                  const RpcAuth& cred = RpcAuth::None());

    // TCP: one whole record (fragments joined; firstMark gets the first
    // fragment's mark); UDP: one datagram. False on timeout, error or close.
    bool ReceiveMessage(Bytes& message, uint32_t* firstMark = nullptr);
    bool ReceiveReply(RpcReply& reply);
    // TCP: true when the server has closed the connection (reads end of stream).
    bool WaitForClose();

    // SendCall, then ReceiveReply; false also when the xid does not match.
    bool Call(uint32_t xid, uint32_t prog, uint32_t vers, uint32_t proc, const Bytes& args, RpcReply& reply,
              const RpcAuth& cred = RpcAuth::None());

private:
    bool ReceiveExactly(void* data, size_t len);

    Transport m_transport;
    int m_fd = -1;
};

// The port a bound socket got (for listeners opened on port 0).
uint16_t GetBoundPort(int fd);
// Calls condition until it holds, at most maxWaitMs; true when it held.
// For waiting on another thread's progress, never for measuring time.
bool WaitUntil(const std::function<bool()>& condition, int maxWaitMs = 30000);
