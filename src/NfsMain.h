#pragma once

#include <atomic>
#include <cstddef>

#include "ServerSocket.h"

class CFileLogger;
class CMountProg;
class CNfsProg;
class CPortmap;
class CPortmapProg;
class CRpcServer;
class CRuntimeParam;
class CUtilities;
class ICallback;

// The server controller: owns the runtime parameters and the file service,
// builds the whole RPC stack (programs, dispatcher, sockets, portmapper
// access) in StartServer and tears it down in StopServer, and forwards the
// front ends' data operations to the file service. The public operations
// are virtual so that the IPC variants can carry them to another process.
// Control operations take no lock: a front end drives one controller from
// one thread at a time.
class CNfsMain {
public:
    static constexpr unsigned long PORTMAP_PROGRAM = 100000;
    static constexpr unsigned long NFS_PROGRAM = 100003;
    static constexpr unsigned long MOUNT_PROGRAM = 100005;
    static constexpr unsigned long NFS_VERSION = 3;
    static constexpr unsigned long MOUNT_VERSION = 3;
    static constexpr int PORTMAP_PORT = 111;
    // Default ports; each is one higher when a system portmapper runs.
    static constexpr int DEFAULT_MOUNT_PORT = 1058;
    static constexpr int DEFAULT_NFS_PORT = 2049;
    // Connection slots of each TCP listener.
    static constexpr int PORTMAP_SLOTS = 3;
    static constexpr int NFS_SLOTS = 10;
    static constexpr int MOUNT_SLOTS = 3;
    // Index of each program's socket pair in m_Sockets.
    enum { PAIR_PORTMAP = 0, PAIR_NFS = 1, PAIR_MOUNT = 2, PAIR_COUNT = 3 };
    // Bits of GetServerStatus().
    enum { STATUS_ALIVE = 1, STATUS_RUNNING = 2, STATUS_DEBUG_ACTIONS = 4 };
    // Size of the buffers given to GetVersion and GetDescription.
    static constexpr size_t INFO_TEXT_SIZE = 256;

    CNfsMain(const char* id, int logControl);
    virtual ~CNfsMain();
    CNfsMain(const CNfsMain&) = delete;
    CNfsMain& operator=(const CNfsMain&) = delete;

    // ---- lifecycle and status ----------------------------------------------
    // Every err is a buffer of ERROR_TEXT_SIZE bytes (or null).
    virtual bool Initial(char* err);
    virtual void Terminate();
    virtual bool StartRemoteController(char* err);
    virtual void StopRemoteController();
    // Ports below 1 take the defaults. False with the reason in err; then
    // nothing stays open (StopServer has run).
    virtual bool StartServer(int mountPort, int nfsPort, unsigned int uid, unsigned int gid, bool readOnly,
                             char* err);
    // Closes everything StartServer opened and empties the file service.
    virtual void StopServer();
    virtual int GetAccessMode();
    virtual void GetVersion(char* buf);      // buf holds INFO_TEXT_SIZE bytes
    virtual void GetDescription(char* buf);  // buf holds INFO_TEXT_SIZE bytes
    virtual bool IsServerRunning();

    // ---- exports, sessions, cached descriptors -------------------------------
    virtual bool AddMountPoint(const char* localPath, const char* exportName, char* err);
    // The same, recording the IPC ID of the process that defined the export.
    bool AddMountPoint(const char* localPath, const char* exportName, const char* ipcId, char* err);
    virtual void RemoveMountPoint(const char* localPath);
    virtual void AddSessionInfo(const char* sessionId, const char* localPath);
    virtual void RemoveSessionInfo(const char* sessionId);
    virtual bool IsSessionExists(const char* sessionId);
    // Asks this process's own session table, whatever the variant.
    bool IsLocalSessionExists(const char* sessionId);
    // Redirected files: virtual files assembled from segments of sources.
    virtual void OpenRedirectedFile(const char* path, long long size, bool createInfoFile, int infoFileSegmentSizeMB,
                                    int infoFileCheckPointSizeMB);
    virtual void CloseRedirectedFile(const char* path);
    virtual void CloseAllRedirectedFiles(const char* path);
    virtual bool AddRedirectedFileSegment(const char* path, const char* sourcePath, long long srcFileOffset,
                                          long long offset, long long length, char* err);
    virtual void ExportRedirectedFile(const char* path, const char* exportPath);
    virtual void ExportRedirectedFileInfo(const char* path, const char* exportPath, bool mergeRange);
    virtual void CloseCachedFileHandle(const char* path);
    virtual void CloseAllCachedFileHandles(const char* path);

    // ---- log control, listings, tests ---------------------------------------
    virtual void SetLogControl(int logControl);
    virtual int GetMountInfo(CRuntimeParam* rp, bool clientMountedOnly, bool printDetails);
    virtual int GetSessionInfo(CRuntimeParam* rp, bool printDetails);
    virtual void RunTestMode(CRuntimeParam* rp, const char* dirPath, long long fileSize);
    virtual void EnableAutoShutdown(bool enable);
    // Marks the request when auto-shutdown is enabled; false otherwise.
    virtual bool RequestAutoShutdown();
    // STATUS_ALIVE, plus STATUS_RUNNING and STATUS_DEBUG_ACTIONS as they hold.
    virtual int GetServerStatus();
    virtual bool SetDebugActionEnabled(bool enabled);
    virtual int GetVSphereInfo(CRuntimeParam* rp, bool printDetails);
    virtual void AddVSphereInfo(const char* datastoreMoid, const char* host, const char* port, const char* user,
                                const char* pwd);
    virtual void RemoveVSphereInfo(const char* datastoreMoid);
    virtual bool RunQuickTestMode(CRuntimeParam* rp, const char* path, int mode, char* status);
    virtual int ExecuteSystemCmd(CRuntimeParam* rp, const char* cmd, bool logAlways);
    virtual int GetNetDeviceCredential(CRuntimeParam* rp, bool printDetails);
    virtual bool AddNetDeviceCredential(const char* path, const char* user, const char* pwd);
    virtual bool RemoveNetDeviceCredential(const char* path);

    // The same with the controller's own runtime parameters.
    int GetMountInfo(bool clientMountedOnly, bool printDetails);
    int GetSessionInfo(bool printDetails);
    void RunTestMode(const char* dirPath, long long fileSize);
    int GetVSphereInfo(bool printDetails);
    bool RunQuickTestMode(const char* path, int mode, char* status);
    int ExecuteSystemCmd(const char* cmd, bool logAlways);
    int GetNetDeviceCredential(bool printDetails);

    bool IsAutoShutdownEnabled() const { return m_bAutoShutdownEnabled; }
    bool IsAutoShutdownRequested() const { return m_bAutoShutdownRequested; }

    CUtilities* GetUtils() { return m_pUtilities; }
    CRuntimeParam* GetRuntimeParam() { return m_pRuntimeParam; }
    // Not owned; forwarded to the file service, which routes log lines.
    void SetCallback(ICallback* callback);
    ICallback* GetCallback();
    void SetFileLogger(CFileLogger* logger);

protected:
    // Leaves every member empty: the subclass calls InitMemberVaribles.
    CNfsMain();
    virtual void InitMemberVaribles(const char* id, int logControl);
    virtual CUtilities* CreateUtilities();
    virtual bool InitialNetwork(char* err);
    virtual void TerminateNetwork();

    CRuntimeParam* m_pRuntimeParam = nullptr;
    CUtilities* m_pUtilities = nullptr;
    CMountProg* m_pMountProg = nullptr;
    SocketHandle m_Sockets[PAIR_COUNT];
    CRpcServer* m_pRpcServer = nullptr;
    CPortmapProg* m_pPortmapProg = nullptr;
    CPortmap* m_pPortmap = nullptr;
    CNfsProg* m_pNfsProg = nullptr;
    // Atomic because front-end threads (the IPC thread, the console loop)
    // read what another thread set.
    std::atomic<bool> m_bNetworkInitialized{false};
    std::atomic<bool> m_bServerRunning{false};
    std::atomic<bool> m_bAutoShutdownEnabled{false};
    std::atomic<bool> m_bAutoShutdownRequested{false};
    std::atomic<bool> m_bDebugActionEnabled{false};

private:
    // Opens the TCP listener and then the UDP socket of one pair; false with
    // the socket layer's reason.
    bool OpenPair(int pair, unsigned long prog, int port, int slots, char* reason);
    // Closes the sockets (joining their threads), deletes the programs, the
    // dispatcher and the portmapper access, and unregisters from a system
    // portmapper: everything StartServer made.
    void ReleaseServer();
    bool HasFileLogger() const;
};
