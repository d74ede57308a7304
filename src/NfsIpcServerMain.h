#pragma once

#include "NfsMain.h"

class CIpcServerThread;

// The controller of the external server process: the in-process server,
// driven by requests that arrive on the channel "/tmp/nfs-server", with log
// lines and notifications sent back to each requester's callback channel.
class CNfsIpcServerMain : public CNfsMain {
public:
    CNfsIpcServerMain(const char* id, int logControl);
    ~CNfsIpcServerMain() override;

    // Refuses the IDs "server" and those holding '/' or a blank.
    bool Initial(char* err) override;
    // Fails when another process answers on the channel; else opens it and
    // starts the thread that serves it.
    bool StartRemoteController(char* err) override;
    void StopRemoteController() override;
    int GetAccessMode() override;
    void GetDescription(char* buf) override;
    // The channel this controller serves, into buf (IPC_CHANNEL_SIZE bytes).
    virtual void GetIpcServerThreadChannel(char* buf);

protected:
    // Leaves initialisation to the subclass, as CNfsMain's.
    CNfsIpcServerMain();
    void InitMemberVaribles(const char* id, int logControl) override;
    CUtilities* CreateUtilities() override;
    // Closes and deletes the serving thread.
    void ReleaseIpcServerThread();

    CIpcServerThread* m_pIpcServerThread = nullptr;
};
