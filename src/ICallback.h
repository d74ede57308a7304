#pragma once

// What the engine needs from the controlling application: a place for log
// lines and the answers to changes of redirected files. The JNI binding
// implements it towards the Java object.
class ICallback {
public:
    virtual ~ICallback() = default;

    // True when the application was reached (even if it failed to handle
    // the line); false sends the line on to the next channel.
    virtual bool LogInfo(const char* id, const char* text) = 0;
    virtual bool LogError(const char* id, const char* text) = 0;
    virtual bool LogRaw(const char* id, const char* text) = 0;

    // Change notifications of redirected files: 0 accepts the change.
    virtual int UpdateRedirectedFileAttributes(const char* id, const char* path, bool bSize,
                                               unsigned long long iSize, bool bAccessTime,
                                               unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                               unsigned long lLastModifiedTimeSec) = 0;
    virtual int RemoveRedirectedFile(const char* id, const char* path) = 0;
    virtual int RenameRedirectedFile(const char* id, const char* pathFrom, const char* pathTo) = 0;
    virtual int WriteRedirectedFile(const char* id, const char* path, unsigned long long iSeek,
                                    int iSeekType, unsigned int iLen) = 0;
};
