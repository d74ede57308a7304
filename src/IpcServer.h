#pragma once

#include <sys/un.h>

#include <atomic>
#include <mutex>

#include "IpcBasic.h"

class CNfsMain;

// The listening side of one channel.
struct IpcServerInst {
    std::atomic<int> iSocket{-1};  // listening socket; -1 when closed
    sockaddr_un socketAddr{};      // the channel path
    IpcDataInst data;              // the exchange being served
};

// Serves a Unix-domain channel one connection at a time: each connection
// carries one request (or callback) record and gets one reply. Requests are
// carried out on the controller; callbacks are handed to the base routing
// and notifications of the controller's file service.
class CIpcServer : public CIpcBasic {
public:
    explicit CIpcServer(CNfsMain* nfs);
    ~CIpcServer() override;

    // False with the reason in errText (ERROR_TEXT_SIZE bytes, may be null).
    bool Open(const char* channel, char* errText);
    // Shuts the listening socket down (a blocked accept returns), closes it
    // and removes the socket file.
    void Close();
    // Only wakes a blocked accept, or a read of a connection being served;
    // Close completes the work. Used by the serving thread's owner before it
    // joins the thread.
    void Shutdown();
    bool IsOpened() const { return m_bOpened; }
    bool IsAutoShutdownRequested() const { return m_bAutoShutdownRequested; }

    // Serves one connection; false with the reason in errText.
    bool ReadRequest(char* errText);
    // One turn of the serving loop: serve one connection unless a shutdown
    // was granted, log a failure, pass a granted shutdown to the controller.
    void ReadRequest();

    // Answers the record held in data->request (its lDataLen bytes; the rest
    // of the buffer must be zero, see SetReceived) into data->reply. Public
    // so that tests and the fuzz target feed the same parser.
    void ParseData(IpcDataInst* data);

protected:
    void ProcessRequest(IpcDataInst* data);
    void ProcessCallback(IpcDataInst* data);

private:
    void ReplyBool(IpcDataInst* data, bool value);
    void ReplyInt(IpcDataInst* data, int value);
    void ReplyMessage(IpcDataInst* data, int type, const char* text);
    // Exception reply whose message field the operation fills; returns it.
    char* PrepareException(IpcDataInst* data);

    std::atomic<bool> m_bOpened{false};
    IpcServerInst m_IpcServerInst;
    CNfsMain* m_pNfsHandle;
    std::atomic<bool> m_bAutoShutdownRequested{false};
    // The connection being served, so that Shutdown can end a wait for a
    // peer that sends nothing; -1 between connections.
    int m_iConnection = -1;
    std::mutex m_hMutexConnection;
};
