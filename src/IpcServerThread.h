#pragma once

#include <pthread.h>

#include <atomic>

class CIpcServer;
class CNfsMain;

// The thread that serves one IPC channel, connection after connection,
// until the channel is closed.
class CIpcServerThread {
public:
    CIpcServerThread() = default;
    ~CIpcServerThread();
    CIpcServerThread(const CIpcServerThread&) = delete;
    CIpcServerThread& operator=(const CIpcServerThread&) = delete;

    // Opens the channel for the controller and starts serving it; false
    // with the reason in errText (ERROR_TEXT_SIZE bytes, may be null).
    bool Open(const char* channel, CNfsMain* nfs, char* errText);
    // Closes the channel (a blocked accept returns), joins the thread and
    // deletes the server. Safe to call twice.
    void Close();
    // True from the start of the thread until its loop ends.
    bool IsActive() const { return m_bActive; }
    // The serving loop.
    void Run();
    CIpcServer* GetServer() { return m_pServer; }

private:
    static void* ThreadMain(void* self);

    CIpcServer* m_pServer = nullptr;
    std::atomic<bool> m_bActive{false};
    pthread_t m_hThread{};
    int m_iThreadCreated = -1;  // pthread_create's result; 0 while a thread is to be joined
};
