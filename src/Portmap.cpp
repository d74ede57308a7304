#include "Portmap.h"

#include <netinet/in.h>
#include <rpc/pmap_clnt.h>
#include <rpc/rpc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "ServerSocket.h"
#include "Utilities.h"

// Under the leak checker: the transports registered with the system
// portmapper are never destroyed by design (destroying one would close the
// listener's descriptor), and the library's registration call itself loses a
// small address buffer. Neither is a leak of this engine.
#if defined(__SANITIZE_ADDRESS__)
#define PORTMAP_LEAK_CHECKED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PORTMAP_LEAK_CHECKED 1
#endif
#endif
#ifdef PORTMAP_LEAK_CHECKED
// The engine's one list for the process: the Java virtual machine that loads
// the library (or that a JNI test creates) keeps its memory to the end too.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libtirpc.so\nleak:libjvm.so\nleak:libjli.so\n";
}
#endif

namespace {

// The registered transports are never served: every call reaches the
// server's own sockets.
void Dispatch(struct svc_req*, SVCXPRT*) {}

void PutText(char* err, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void PutText(char* err, const char* fmt, ...) {
    if (err == nullptr) return;
    va_list args;
    va_start(args, fmt);
    vsnprintf(err, ERROR_TEXT_SIZE, fmt, args);
    va_end(args);
}

}  // namespace

CPortmap::CPortmap(CUtilities* utilities, CRuntimeParam* runtimeParam)
    : bIsRunning(false), m_pUtilities(utilities), m_pRuntimeParam(runtimeParam) {
    bIsRunning = IsRunning(true);
}

CPortmap::~CPortmap() = default;

bool CPortmap::IsRunning(bool probe) {
    if (!probe) return bIsRunning;
    int sock = CreateSocket(PORTMAPPER_PORT);
    if (sock == -2) {
        if (m_pUtilities && m_pRuntimeParam && m_pRuntimeParam->IsLogPortmap())
            m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Port %ld is already in used", "Portmap.IsRunning",
                                  (long)PORTMAPPER_PORT);
        return true;
    }
    if (sock >= 0) close(sock);
    return false;
}

int CPortmap::CreateSocket(unsigned long port, char* err) {
    int sock = socket(AF_INET, SOCK_STREAM, 0);
    if (sock == -1) {
        PutText(err, "Error opening socket for port %lu", port);
        return -1;
    }
    int on = 1;
    setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons((uint16_t)port);
    if (bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == -1) {
        PutText(err, "Error binding socket with port %lu", port);
        close(sock);  // nobody could use it
        return -2;
    }
    return sock;
}

bool CPortmap::Register(unsigned long prog, unsigned long vers, CServerSocket* listener, char* err) {
    return Register(prog, vers, listener->GetSocket(), (unsigned long)listener->GetPort(), err);
}

bool CPortmap::Register(unsigned long prog, unsigned long vers, int sock, unsigned long port, char* err) {
    if (!bIsRunning) {
        PutText(err, "Portmapper is not running.");
        return false;
    }
    pmap_unset(prog, vers);
    char reason[ERROR_TEXT_SIZE] = "";
    if (sock == 0) {
        sock = CreateSocket(port, reason);
        if (sock < 0) {
            PutText(err, "Fail to opening register socket for port %lu. Reason=%s", port, reason);
            return false;
        }
    }
    if (!RegisterSvc((long)prog, (long)vers, sock, reason)) {
        PutText(err, "Fail to register socket for port %lu. Reason=%s", port, reason);
        return false;
    }
    return true;
}

bool CPortmap::RegisterSvc(long prog, long vers, int sock, char* err) {
    const char* name = "Portmap.RegisterSvc";
    const bool log = m_pUtilities && m_pRuntimeParam && m_pRuntimeParam->IsLogPortmap();
    // Both transports sit on the same TCP listener, so the portmapper maps
    // TCP and UDP to its port, which the server's UDP socket shares.
    if (log) m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Creating UDP for %ld ver=%ld", name, prog, vers);
    SVCXPRT* udp = svcudp_create(sock);
    if (udp == nullptr) {
        PutText(err, "Cannot create UDP for %ld ver=%ld", prog, vers);
        return false;
    }
    if (log) m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Registering UDP for %ld ver=%ld", name, prog, vers);
    if (!svc_register(udp, (u_long)prog, (u_long)vers, Dispatch, IPPROTO_UDP)) {
        PutText(err, "Unable to register UDP for %ld ver=%ld", prog, vers);
        return false;
    }
    if (log) m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Registered UDP for %ld ver=%ld", name, prog, vers);

    if (log) m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Creating TCP for %ld ver=%ld", name, prog, vers);
    SVCXPRT* tcp = svctcp_create(sock, 0, 0);
    if (tcp == nullptr) {
        PutText(err, "Cannot create TCP for %ld ver=%ld", prog, vers);
        return false;
    }
    if (log) m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Registering TCP for %ld ver=%ld", name, prog, vers);
    if (!svc_register(tcp, (u_long)prog, (u_long)vers, Dispatch, IPPROTO_TCP)) {
        PutText(err, "Unable to register TCP for %ld ver=%ld", prog, vers);
        return false;
    }
    if (log) m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Registered TCP for %ld ver=%ld", name, prog, vers);
    return true;
}

bool CPortmap::Unregister(unsigned long prog, unsigned long vers, char* err) {
    if (!bIsRunning) {
        PutText(err, "Portmapper is not running.");
        return false;
    }
    svc_unregister(prog, vers);
    pmap_unset(prog, vers);
    if (m_pUtilities && m_pRuntimeParam && m_pRuntimeParam->IsLogPortmap())
        m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Unregistered the program %ld ver=%ld", "Portmap.Unregister",
                              (long)prog, (long)vers);
    return true;
}
