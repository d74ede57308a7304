#include "RpcServerHarness.h"

#include "RpcTestClient.h"

RpcServerHarness::RpcServerHarness(int logControl) : m_runtime("harness", logControl) {
    m_utilities.SetCallback(&m_log);
    m_pServer.reset(new CRpcServer(&m_utilities, &m_runtime));
}

RpcServerHarness::Endpoint* RpcServerHarness::Listen(unsigned long progId, int tcpPort, int udpPort, int slots,
                                                     std::string* err) {
    char text[ERROR_TEXT_SIZE] = "";
    std::unique_ptr<Endpoint> e(new Endpoint);
    e->tcp.reset(new CServerSocket);
    e->tcp->SetListener(m_pServer.get());
    if (!e->tcp->Open(progId, tcpPort, slots, &m_utilities, text)) {
        if (err) *err = text;
        return nullptr;
    }
    e->udp.reset(new CDatagramSocket);
    e->udp->SetListener(m_pServer.get());
    if (!e->udp->Open(progId, udpPort, &m_utilities, text)) {
        if (err) *err = text;
        return nullptr;
    }
    e->tcpPort = GetBoundPort(e->tcp->GetSocket());
    e->udpPort = GetBoundPort(e->udp->GetSocket());
    m_endpoints.push_back(std::move(e));
    return m_endpoints.back().get();
}

void RpcServerHarness::Close() {
    for (auto& e : m_endpoints) {
        e->tcp->Close();
        e->udp->Close();
    }
    m_endpoints.clear();
}
