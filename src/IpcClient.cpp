#include "IpcClient.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "Utilities.h"

namespace {

const char* const SEND_NAME = "IpcClient.SendRequest";

void PutReason(char* errText, const char* what) {
    if (errText == nullptr) return;
    char reason[ERROR_TEXT_SIZE] = "";
    CUtilities::GetLastErrorText(reason, errno);
    snprintf(errText, ERROR_TEXT_SIZE, what, reason);
}

// Closes the descriptor on every way out.
struct SocketGuard {
    int fd;
    ~SocketGuard() {
        if (fd != -1) {
            shutdown(fd, SHUT_RDWR);
            close(fd);
        }
    }
};

}  // namespace

CIpcClient::CIpcClient(CUtilities* utilities, CRuntimeParam* runtimeParam) : CIpcBasic(utilities, runtimeParam) {
    memset(&m_IpcDataInst, 0, sizeof m_IpcDataInst);
}

bool CIpcClient::SendRequest(const char* channel, char* errText) {
    LogArgu la{SEND_NAME};
    const bool state = m_pRuntimeParam && m_pRuntimeParam->IsLogIpcState();
    // A failed exchange must not leave an earlier reply to be read.
    SetReceived(&m_IpcDataInst.reply, nullptr, 0);
    if (channel == nullptr) {
        if (errText) snprintf(errText, ERROR_TEXT_SIZE, "%s", "Channel is not defined");
        return false;
    }
    if (state) LogInfo("[%s] Open channel: %s", SEND_NAME, channel);
    PrintData(&la, &m_IpcDataInst.request);
    if (state) LogInfo("[%s] Open ipc client socket", SEND_NAME);
    SocketGuard sock{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    if (sock.fd == -1) {
        PutReason(errText, "Fail to open ipc client socket. %s");
        return false;
    }
    if (state) LogInfo("[%s] Connect ipc client socket", SEND_NAME);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (strlen(channel) >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        PutReason(errText, "Fail to connect ipc client socket. %s");
        return false;
    }
    SetText(addr.sun_path, channel);
    if (connect(sock.fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == -1) {
        PutReason(errText, "Fail to connect ipc client socket. %s");
        return false;
    }
    if (state) LogInfo("[%s] Send ipc client request", SEND_NAME);
    size_t target = m_IpcDataInst.request.lDataLen;
    if (target > sizeof m_IpcDataInst.request.cBuf) target = sizeof m_IpcDataInst.request.cBuf;
    ssize_t sent = send(sock.fd, m_IpcDataInst.request.cBuf, target, MSG_NOSIGNAL);
    if (sent == -1) {
        PutReason(errText, "Fail to send ipc client request. %s");
        return false;
    }
    if ((size_t)sent != target)
        LogError("[%s] Fail to send complete ipc client request. (Send = %d, Target = %ld)", SEND_NAME, (int)sent,
                 (long)target);
    if (state) LogInfo("[%s] Read ipc server reply", SEND_NAME);
    ssize_t got;
    do {
        got = read(sock.fd, m_IpcDataInst.reply.cBuf, sizeof m_IpcDataInst.reply.cBuf);
    } while (got == -1 && errno == EINTR);
    if (got == -1) {
        PutReason(errText, "Fail to read ipc server reply. %s");
        return false;
    }
    SetReceived(&m_IpcDataInst.reply, m_IpcDataInst.reply.cBuf, (size_t)got);
    PrintData(&la, &m_IpcDataInst.reply);
    return true;
}

bool CIpcClient::SendRequest(const char* channel) {
    char err[ERROR_TEXT_SIZE] = "";
    if (SendRequest(channel, err)) return true;
    if (m_pRuntimeParam && m_pRuntimeParam->IsLogError()) LogError("[%s] %s", SEND_NAME, err);
    return false;
}

bool CIpcClient::IsReply(int type) {
    const Ipc_Header* header = Header(&m_IpcDataInst.reply);
    return header->iGroup == IPC_GROUP_REPLY && header->iType == type;
}

bool CIpcClient::GetBoolReply() {
    return IsReply(IPC_REPLY_BOOL) && Record<IpcReply_Bool>(&m_IpcDataInst.reply)->bVal != 0;
}

int CIpcClient::GetLongReply() {
    return IsReply(IPC_REPLY_LONG) ? Record<IpcReply_Long>(&m_IpcDataInst.reply)->lVal : -1;
}

int CIpcClient::GetIntReply() {
    return IsReply(IPC_REPLY_INT) ? Record<IpcReply_Int>(&m_IpcDataInst.reply)->iVal : -1;
}

const char* CIpcClient::GetExptReply() {
    if (!IsReply(IPC_REPLY_EXCEPTION)) return nullptr;
    return Text(Record<IpcReply_Message>(&m_IpcDataInst.reply)->cMsg);
}

const char* CIpcClient::GetMsgReply() {
    if (!IsReply(IPC_REPLY_MESSAGE)) return nullptr;
    return Text(Record<IpcReply_Message>(&m_IpcDataInst.reply)->cMsg);
}
