#pragma once

#include <jni.h>

#include <string>

#include "ICallback.h"

// The Java object that drives the engine, seen as the engine's callback:
// log lines, redirected-file change notifications and IOExceptions reach
// it from any thread. Library threads attach to the virtual machine for
// each call and detach afterwards.
class CCallback : public ICallback {
public:
    // Keeps a global reference to obj; without a virtual machine the
    // reference stays null and every call answers -1 or false.
    CCallback(JNIEnv* env, jobject obj);
    ~CCallback() override;
    CCallback(const CCallback&) = delete;
    CCallback& operator=(const CCallback&) = delete;

    // The object's "isInterrupted"; only for Java threads (no attach).
    bool IsInterrupted();

    bool LogInfo(const char* id, const char* text) override;
    bool LogError(const char* id, const char* text) override;
    bool LogRaw(const char* id, const char* text) override;
    int UpdateRedirectedFileAttributes(const char* id, const char* path, bool bSize, unsigned long long iSize,
                                       bool bAccessTime, unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                       unsigned long lLastModifiedTimeSec) override;
    int RemoveRedirectedFile(const char* id, const char* path) override;
    int RenameRedirectedFile(const char* id, const char* pathFrom, const char* pathTo) override;
    int WriteRedirectedFile(const char* id, const char* path, unsigned long long iSeek, int iSeekType,
                            unsigned int iLen) override;

    // Leaves a java/io/IOException with text pending in the calling thread.
    void ThrowIOException(const char* text);

    // Text as the virtual machine takes it (modified UTF-8): supplementary
    // characters as two encoded surrogates, and every byte that is no part
    // of a valid UTF-8 sequence (names from the network can hold anything)
    // replaced by '?'.
    static std::string ToModifiedUtf8(const char* text);

private:
    // The calling thread's environment, or null; a thread that is not
    // attached yet is attached, and attached says so.
    JNIEnv* AttrachThisThread(bool* attached);
    // Detaches the thread again when AttrachThisThread attached it.
    void DetachThisThread(bool attached);
    // JNI_OK and env, JNI_EDETACHED, or -1 without a virtual machine.
    jint GetEnv(JNIEnv** env);
    bool FireMessageLog(const char* method, const char* id, const char* text);
    // Calls an int method of the object whose arguments start with the
    // strings; -1 when the call could not be made.
    int CallIntMethod(const char* method, const char* signature, const char* const* strings, int stringCount,
                      const jvalue* tail, int tailCount);

    JavaVM* m_jVM = nullptr;
    jobject m_jObj = nullptr;
};
