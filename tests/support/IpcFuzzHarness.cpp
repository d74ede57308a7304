#include "IpcFuzzHarness.h"

#include <cstdio>
#include <cstring>

#include "ICallback.h"
#include "IpcServer.h"
#include "NfsMain.h"
#include "Utilities.h"

// Takes every log line and accepts every change, silently.
class NullCallback : public ICallback {
public:
    bool LogInfo(const char*, const char*) override { return true; }
    bool LogError(const char*, const char*) override { return true; }
    bool LogRaw(const char*, const char*) override { return true; }
    int UpdateRedirectedFileAttributes(const char*, const char*, bool, unsigned long long, bool, unsigned long, bool,
                                       unsigned long) override {
        return 0;
    }
    int RemoveRedirectedFile(const char*, const char*) override { return 0; }
    int RenameRedirectedFile(const char*, const char*, const char*) override { return 0; }
    int WriteRedirectedFile(const char*, const char*, unsigned long long, int, unsigned int iLen) override {
        return (int)iLen;
    }
};

class HarmlessController : public CNfsMain {
public:
    HarmlessController() : CNfsMain("fuzz", 0) {}
    bool StartServer(int, int, unsigned int, unsigned int, bool, char* err) override {
        if (err) snprintf(err, ERROR_TEXT_SIZE, "%s", "not in the fuzz target");
        return false;
    }
    void StopServer() override {}
    void SetLogControl(int) override {}  // stays silent
    // Info files and exports write into files named by the record.
    void OpenRedirectedFile(const char* path, long long size, bool, int segmentSizeMB,
                            int checkPointSizeMB) override {
        CNfsMain::OpenRedirectedFile(path, size, false, segmentSizeMB, checkPointSizeMB);
    }
    void ExportRedirectedFile(const char*, const char*) override {}
    void ExportRedirectedFileInfo(const char*, const char*, bool) override {}
    void RunTestMode(CRuntimeParam*, const char*, long long) override {}
    int ExecuteSystemCmd(CRuntimeParam*, const char*, bool) override { return 0; }
    bool AddNetDeviceCredential(const char*, const char*, const char*) override { return true; }
    bool RemoveNetDeviceCredential(const char*) override { return true; }
};

IpcFuzzHarness::IpcFuzzHarness()
    : m_callback(new NullCallback),
      m_controller(new HarmlessController),
      m_server(new CIpcServer(m_controller.get())),
      m_data(new IpcDataInst) {
    m_controller->SetCallback(m_callback.get());
    memset(m_data.get(), 0, sizeof *m_data);
}

IpcFuzzHarness::~IpcFuzzHarness() = default;

const IpcDataBuf& IpcFuzzHarness::Run(const uint8_t* data, size_t size) {
    CIpcBasic::SetReceived(&m_data->request, data, size);
    m_server->ParseData(m_data.get());
    CRuntimeParam* rp = m_controller->GetRuntimeParam();
    LogArgu la{"IpcFuzzHarness.Run"};
    m_controller->GetUtils()->Reset(rp, &la);
    const Ipc_Header* header = CIpcBasic::Header(&m_data->request);
    if (header->iGroup == IPC_GROUP_REQUEST && header->iType == IPC_REQ_ADD_VSPHERE_INFO) {
        auto* r = CIpcBasic::Record<IpcRequest_AddVSphereInfo>(&m_data->request);
        m_controller->RemoveVSphereInfo(CIpcBasic::Text(r->cDatastoreMoid));
    }
    return m_data->reply;
}
