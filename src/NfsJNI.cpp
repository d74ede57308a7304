#include "NfsJNI.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <thread>

#include "Callback.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "NfsMain.h"
#include "Utilities.h"

namespace {

CNfsMain* Controller(jlong handle) { return reinterpret_cast<CNfsMain*>(static_cast<intptr_t>(handle)); }

// A Java string as modified UTF-8 for the length of one call; a null
// string is a null pointer. Released before any exception is thrown.
class JString {
public:
    JString(JNIEnv* env, jstring s) : m_env(env), m_s(s) {
        if (s) {
            m_chars = env->GetStringUTFChars(s, nullptr);
            if (!m_chars && env->ExceptionCheck()) env->ExceptionClear();
        }
    }
    ~JString() { Release(); }
    JString(const JString&) = delete;
    JString& operator=(const JString&) = delete;
    void Release() {
        if (m_chars) m_env->ReleaseStringUTFChars(m_s, m_chars);
        m_chars = nullptr;
    }
    operator const char*() const { return m_chars; }

private:
    JNIEnv* m_env;
    jstring m_s;
    const char* m_chars = nullptr;
};

// The callback scope: a controller without a callback gets one for the
// calling Java object for the length of the call; one already installed
// (a receiveCallbackLoop in another thread) is used and left in place.
class CallbackScope {
public:
    CallbackScope(JNIEnv* env, jobject obj, CNfsMain* controller) : m_env(env), m_obj(obj), m_controller(controller) {
        if (!controller->GetCallback()) {
            m_own = std::make_unique<CCallback>(env, obj);
            controller->SetCallback(m_own.get());
        }
    }
    ~CallbackScope() {
        if (m_own) m_controller->SetCallback(nullptr);
    }
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

    // The calling object itself, whichever callback is installed: the loop
    // asks it whether to stop, and exceptions go to the calling thread.
    CCallback* Caller() {
        if (m_own) return m_own.get();
        if (!m_caller) m_caller = std::make_unique<CCallback>(m_env, m_obj);
        return m_caller.get();
    }

private:
    JNIEnv* m_env;
    jobject m_obj;
    CNfsMain* m_controller;
    std::unique_ptr<CCallback> m_own;
    std::unique_ptr<CCallback> m_caller;
};

void ThrowIOException(JNIEnv* env, jobject obj, const char* text) {
    CCallback callback(env, obj);
    callback.ThrowIOException(text);
}

// 1: this process is the external server; 2: a client of one; any other
// value: the server inside this process.
CNfsMain* CreateController(int accessMode, const char* id, int logControl) {
    if (accessMode == 1) return new CNfsIpcServerMain(id, logControl);
    if (accessMode == 2) return new CNfsIpcClientMain(id, logControl);
    return new CNfsMain(id, logControl);
}

}  // namespace

#define NATIVE(name) JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_##name

extern "C" {

JNIEXPORT jlong NATIVE(initial)(JNIEnv* env, jobject obj, jstring jLogID, jint jAccessMode, jint jLogControl) {
    char err[ERROR_TEXT_SIZE] = "";
    CNfsMain* controller;
    {
        JString id(env, jLogID);
        controller = CreateController(jAccessMode, id, jLogControl);
    }
    if (controller->Initial(err)) return static_cast<jlong>(reinterpret_cast<intptr_t>(controller));
    delete controller;
    ThrowIOException(env, obj, err);
    return 0;
}

JNIEXPORT void NATIVE(terminate)(JNIEnv*, jobject, jlong jHandle) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    controller->Terminate();
    delete controller;
}

JNIEXPORT jboolean NATIVE(isServerRunning)(JNIEnv*, jobject, jlong jHandle) {
    CNfsMain* controller = Controller(jHandle);
    return controller && controller->IsServerRunning() ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean NATIVE(startRemoteController)(JNIEnv* env, jobject obj, jlong jHandle) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return JNI_FALSE;
    CallbackScope scope(env, obj, controller);
    char err[ERROR_TEXT_SIZE] = "";
    if (controller->StartRemoteController(err)) return JNI_TRUE;
    scope.Caller()->ThrowIOException(err);
    return JNI_FALSE;
}

JNIEXPORT void NATIVE(stopRemoteController)(JNIEnv*, jobject, jlong jHandle) {
    if (CNfsMain* controller = Controller(jHandle)) controller->StopRemoteController();
}

JNIEXPORT jboolean NATIVE(startServer)(JNIEnv* env, jobject obj, jlong jHandle, jint jMountPort, jint jNfsPort,
                                       jboolean jReadOnly) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return JNI_FALSE;
    CallbackScope scope(env, obj, controller);
    char err[ERROR_TEXT_SIZE] = "";
    if (controller->StartServer(jMountPort, jNfsPort, 0, 0, jReadOnly == JNI_TRUE, err)) return JNI_TRUE;
    scope.Caller()->ThrowIOException(err);
    return JNI_FALSE;
}

JNIEXPORT void NATIVE(stopServer)(JNIEnv*, jobject, jlong jHandle) {
    if (CNfsMain* controller = Controller(jHandle)) controller->StopServer();
}

JNIEXPORT jboolean NATIVE(receiveCallbackLoop)(JNIEnv* env, jobject obj, jlong jHandle, jint jLifeTimeInSec) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return JNI_FALSE;
    CallbackScope scope(env, obj, controller);
    for (jint left = jLifeTimeInSec; left != 0;) {
        if (scope.Caller()->IsInterrupted()) break;
        if (left > 0) --left;
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    return JNI_FALSE;
}

JNIEXPORT jboolean NATIVE(addMountPoint)(JNIEnv* env, jobject obj, jlong jHandle, jstring jLocalMountPath,
                                         jstring jExportName) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return JNI_FALSE;
    CallbackScope scope(env, obj, controller);
    char err[ERROR_TEXT_SIZE] = "";
    bool ok;
    {
        JString path(env, jLocalMountPath), name(env, jExportName);
        ok = controller->AddMountPoint(path, name, err);
    }
    if (ok) return JNI_TRUE;
    scope.Caller()->ThrowIOException(err);
    return JNI_FALSE;
}

JNIEXPORT void NATIVE(removeMountPoint)(JNIEnv* env, jobject obj, jlong jHandle, jstring jLocalMountPath) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    CallbackScope scope(env, obj, controller);
    JString path(env, jLocalMountPath);
    controller->RemoveMountPoint(path);
}

JNIEXPORT void NATIVE(addSession)(JNIEnv* env, jobject obj, jlong jHandle, jstring jSessionID,
                                  jstring jLocalMountPath) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    CallbackScope scope(env, obj, controller);
    JString session(env, jSessionID), path(env, jLocalMountPath);
    controller->AddSessionInfo(session, path);
}

JNIEXPORT void NATIVE(removeSession)(JNIEnv* env, jobject obj, jlong jHandle, jstring jSessionID) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    CallbackScope scope(env, obj, controller);
    JString session(env, jSessionID);
    controller->RemoveSessionInfo(session);
}

JNIEXPORT jboolean NATIVE(isSessionExists)(JNIEnv* env, jobject obj, jlong jHandle, jstring jSessionID) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return JNI_FALSE;
    CallbackScope scope(env, obj, controller);
    JString session(env, jSessionID);
    return controller->IsSessionExists(session) ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean NATIVE(isLocalSessionExists)(JNIEnv* env, jobject obj, jlong jHandle, jstring jSessionID) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return JNI_FALSE;
    CallbackScope scope(env, obj, controller);
    JString session(env, jSessionID);
    return controller->IsLocalSessionExists(session) ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void NATIVE(openRedirectedFile)(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath, jlong jSize,
                                          jboolean jCreateInfoFile, jint jInfoFileSegmentSizeMB,
                                          jint jInfoFileCheckPointSizeMB) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    CallbackScope scope(env, obj, controller);
    JString path(env, jPath);
    controller->OpenRedirectedFile(path, jSize, jCreateInfoFile == JNI_TRUE, jInfoFileSegmentSizeMB,
                                   jInfoFileCheckPointSizeMB);
}

JNIEXPORT void NATIVE(closeRedirectedFile)(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    CallbackScope scope(env, obj, controller);
    JString path(env, jPath);
    controller->CloseRedirectedFile(path);
}

JNIEXPORT void NATIVE(closeAllRedirectedFiles)(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    CallbackScope scope(env, obj, controller);
    JString path(env, jPath);
    controller->CloseAllRedirectedFiles(path);
}

JNIEXPORT void NATIVE(addRedirectedFileSegment)(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath,
                                                jstring jSrcPath, jlong jSrcFileOffset, jlong jOffset,
                                                jlong jLength) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    CallbackScope scope(env, obj, controller);
    char err[ERROR_TEXT_SIZE] = "";
    bool ok;
    {
        JString path(env, jPath), source(env, jSrcPath);
        ok = controller->AddRedirectedFileSegment(path, source, jSrcFileOffset, jOffset, jLength, err);
    }
    if (!ok) scope.Caller()->ThrowIOException(err);
}

JNIEXPORT void NATIVE(exportRedirectedFile)(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath,
                                            jstring jExportPath) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    CallbackScope scope(env, obj, controller);
    JString path(env, jPath), exportPath(env, jExportPath);
    controller->ExportRedirectedFile(path, exportPath);
}

JNIEXPORT void NATIVE(exportRedirectedFileInfo)(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath,
                                                jstring jExportPath, jboolean jMergeRange) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    CallbackScope scope(env, obj, controller);
    JString path(env, jPath), exportPath(env, jExportPath);
    controller->ExportRedirectedFileInfo(path, exportPath, jMergeRange == JNI_TRUE);
}

JNIEXPORT void NATIVE(closeOpenedFile)(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    CallbackScope scope(env, obj, controller);
    JString path(env, jPath);
    controller->CloseCachedFileHandle(path);
}

JNIEXPORT void NATIVE(closeAllOpenedFiles)(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    CallbackScope scope(env, obj, controller);
    JString path(env, jPath);
    controller->CloseAllCachedFileHandles(path);
}

JNIEXPORT void NATIVE(setLogControl)(JNIEnv*, jobject, jlong jHandle, jint jLogControl) {
    if (CNfsMain* controller = Controller(jHandle)) controller->SetLogControl(jLogControl);
}

JNIEXPORT jstring NATIVE(getVersion)(JNIEnv* env, jobject, jlong jHandle) {
    char text[CNfsMain::INFO_TEXT_SIZE] = "Not Defined";
    if (CNfsMain* controller = Controller(jHandle)) controller->GetVersion(text);
    text[sizeof(text) - 1] = '\0';
    return env->NewStringUTF(text);
}

JNIEXPORT jstring NATIVE(getDescription)(JNIEnv* env, jobject, jlong jHandle) {
    char text[CNfsMain::INFO_TEXT_SIZE] = "Unknown";
    if (CNfsMain* controller = Controller(jHandle)) controller->GetDescription(text);
    text[sizeof(text) - 1] = '\0';
    return env->NewStringUTF(text);
}

JNIEXPORT jint NATIVE(getAccessMode)(JNIEnv*, jobject, jlong jHandle) {
    CNfsMain* controller = Controller(jHandle);
    return controller ? controller->GetAccessMode() : 0;
}

JNIEXPORT jint NATIVE(getMountInfo)(JNIEnv* env, jobject obj, jlong jHandle, jboolean jClientMountedOnly,
                                    jboolean jPrintDetails) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return 0;
    CallbackScope scope(env, obj, controller);
    return controller->GetMountInfo(jClientMountedOnly == JNI_TRUE, jPrintDetails == JNI_TRUE);
}

JNIEXPORT jint NATIVE(getSessionInfo)(JNIEnv* env, jobject obj, jlong jHandle, jboolean jPrintDetails) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return 0;
    CallbackScope scope(env, obj, controller);
    return controller->GetSessionInfo(jPrintDetails == JNI_TRUE);
}

JNIEXPORT void NATIVE(runTestMode)(JNIEnv* env, jobject obj, jlong jHandle, jstring jDirPath, jlong jFileSize) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    CallbackScope scope(env, obj, controller);
    JString dir(env, jDirPath);
    controller->RunTestMode(dir, jFileSize);
}

JNIEXPORT jint NATIVE(getServerStatus)(JNIEnv*, jobject, jlong jHandle) {
    CNfsMain* controller = Controller(jHandle);
    return controller ? controller->GetServerStatus() : 0;
}

JNIEXPORT void NATIVE(addVSphereInfo)(JNIEnv* env, jobject obj, jlong jHandle, jstring jDatastoreMoid,
                                      jstring jHost, jstring jPort, jstring jUser, jstring jPwd) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    CallbackScope scope(env, obj, controller);
    JString moid(env, jDatastoreMoid), host(env, jHost), port(env, jPort), user(env, jUser), pwd(env, jPwd);
    controller->AddVSphereInfo(moid, host, port, user, pwd);
}

JNIEXPORT void NATIVE(removeVSphereInfo)(JNIEnv* env, jobject obj, jlong jHandle, jstring jDatastoreMoid) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return;
    CallbackScope scope(env, obj, controller);
    JString moid(env, jDatastoreMoid);
    controller->RemoveVSphereInfo(moid);
}

JNIEXPORT jboolean NATIVE(runQuickTestMode)(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath, jint iMode) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return JNI_FALSE;
    CallbackScope scope(env, obj, controller);
    char err[ERROR_TEXT_SIZE] = "";
    bool ok;
    {
        JString path(env, jPath);
        ok = controller->RunQuickTestMode(path, iMode, err);
    }
    if (ok) return JNI_TRUE;
    scope.Caller()->ThrowIOException(err);
    return JNI_FALSE;
}

JNIEXPORT jboolean NATIVE(addNetDeviceCredential)(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath,
                                                  jstring jUser, jstring jPwd) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return JNI_FALSE;
    CallbackScope scope(env, obj, controller);
    JString path(env, jPath), user(env, jUser), pwd(env, jPwd);
    return controller->AddNetDeviceCredential(path, user, pwd) ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean NATIVE(removeNetDeviceCredential)(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath) {
    CNfsMain* controller = Controller(jHandle);
    if (!controller) return JNI_FALSE;
    CallbackScope scope(env, obj, controller);
    JString path(env, jPath);
    return controller->RemoveNetDeviceCredential(path) ? JNI_TRUE : JNI_FALSE;
}

}  // extern "C"
