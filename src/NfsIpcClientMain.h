#pragma once

#include "IpcMessages.h"
#include "NfsIpcServerMain.h"

class CIpcClient;

// The controller of a process that drives an external server process: each
// operation is one exchange on the server's channel "/tmp/nfs-server". Its
// own channel "/tmp/nfs-<ID>" receives the server's log lines and change
// notifications, which go to this controller's plain file service (and so
// to its callback).
class CNfsIpcClientMain : public CNfsIpcServerMain {
public:
    CNfsIpcClientMain(const char* id, int logControl);

    // Versions of the server that lack some requests.
    static bool IsConnectable(const char* version);
    static bool IsGetServerStatusSupported(const char* version);
    static bool IsVSphereSupported(const char* version);
    static bool IsNetDeviceSupported(const char* version);

    bool StartServer(int mountPort, int nfsPort, unsigned int uid, unsigned int gid, bool readOnly,
                     char* err) override;
    void StopServer() override;
    int GetAccessMode() override;
    void GetVersion(char* buf) override;
    void GetDescription(char* buf) override;
    bool IsServerRunning() override;
    void GetIpcServerThreadChannel(char* buf) override;

    using CNfsMain::AddMountPoint;
    bool AddMountPoint(const char* localPath, const char* exportName, char* err) override;
    void RemoveMountPoint(const char* localPath) override;
    void AddSessionInfo(const char* sessionId, const char* localPath) override;
    void RemoveSessionInfo(const char* sessionId) override;
    bool IsSessionExists(const char* sessionId) override;
    void OpenRedirectedFile(const char* path, long long size, bool createInfoFile, int infoFileSegmentSizeMB,
                            int infoFileCheckPointSizeMB) override;
    void CloseRedirectedFile(const char* path) override;
    void CloseAllRedirectedFiles(const char* path) override;
    bool AddRedirectedFileSegment(const char* path, const char* sourcePath, long long srcFileOffset,
                                  long long offset, long long length, char* err) override;
    void ExportRedirectedFile(const char* path, const char* exportPath) override;
    void ExportRedirectedFileInfo(const char* path, const char* exportPath, bool mergeRange) override;
    void CloseCachedFileHandle(const char* path) override;
    void CloseAllCachedFileHandles(const char* path) override;

    void SetLogControl(int logControl) override;
    using CNfsMain::GetMountInfo;
    using CNfsMain::GetSessionInfo;
    using CNfsMain::RunTestMode;
    using CNfsMain::GetVSphereInfo;
    using CNfsMain::RunQuickTestMode;
    using CNfsMain::ExecuteSystemCmd;
    using CNfsMain::GetNetDeviceCredential;
    int GetMountInfo(CRuntimeParam* rp, bool clientMountedOnly, bool printDetails) override;
    int GetSessionInfo(CRuntimeParam* rp, bool printDetails) override;
    void RunTestMode(CRuntimeParam* rp, const char* dirPath, long long fileSize) override;
    void EnableAutoShutdown(bool enable) override;
    bool RequestAutoShutdown() override;
    int GetServerStatus() override;
    bool SetDebugActionEnabled(bool enabled) override;
    int GetVSphereInfo(CRuntimeParam* rp, bool printDetails) override;
    void AddVSphereInfo(const char* datastoreMoid, const char* host, const char* port, const char* user,
                        const char* pwd) override;
    void RemoveVSphereInfo(const char* datastoreMoid) override;
    bool RunQuickTestMode(CRuntimeParam* rp, const char* path, int mode, char* status) override;
    int ExecuteSystemCmd(CRuntimeParam* rp, const char* cmd, bool logAlways) override;
    int GetNetDeviceCredential(CRuntimeParam* rp, bool printDetails) override;
    bool AddNetDeviceCredential(const char* path, const char* user, const char* pwd) override;
    bool RemoveNetDeviceCredential(const char* path) override;

    // The server's request channel.
    const char* GetIpcChannel() const { return m_cIpcChannel; }

protected:
    void InitMemberVaribles(const char* id, int logControl) override;
    CUtilities* CreateUtilities() override;
    bool InitialNetwork(char* err) override;
    void TerminateNetwork() override;

private:
    // Sends the client's request; false when the exchange failed (logged).
    bool Send(CIpcClient& client);
    // Takes an exception reply's text into err and gives false, else the
    // Bool reply.
    bool BoolOrException(CIpcClient& client, char* err);
    // The server's version text, "Unknown" when it does not answer.
    void AskVersion(char* buf);

    char m_cIpcChannel[IPC_CHANNEL_SIZE];
};
