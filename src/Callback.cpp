#include "Callback.h"

#include <pthread.h>

#include <cstdio>

std::string CCallback::ToModifiedUtf8(const char* text) {
    std::string out;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    while (*p) {
        unsigned char c = *p;
        int extra = c < 0x80 ? 0 : (c & 0xE0) == 0xC0 ? 1 : (c & 0xF0) == 0xE0 ? 2 : (c & 0xF8) == 0xF0 ? 3 : -1;
        unsigned long cp = extra == 0 ? c : extra == 1 ? (c & 0x1Fu) : extra == 2 ? (c & 0x0Fu) : (c & 0x07u);
        bool valid = extra >= 0;
        for (int i = 1; valid && i <= extra; ++i) {
            if ((p[i] & 0xC0) != 0x80) valid = false;  // also stops at the terminating zero
            else cp = (cp << 6) | (p[i] & 0x3Fu);
        }
        // Overlong forms, surrogates and values past U+10FFFF are refused.
        static const unsigned long kMin[] = {0, 0x80, 0x800, 0x10000};
        if (valid && (cp < kMin[extra] || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF)) valid = false;
        if (!valid) {
            out += '?';
            ++p;
            continue;
        }
        if (extra < 3) {
            out.append(reinterpret_cast<const char*>(p), extra + 1);
        } else {
            unsigned long v = cp - 0x10000;
            for (unsigned long s : {0xD800 + (v >> 10), 0xDC00 + (v & 0x3FF)}) {
                out += static_cast<char>(0xE0 | (s >> 12));
                out += static_cast<char>(0x80 | ((s >> 6) & 0x3F));
                out += static_cast<char>(0x80 | (s & 0x3F));
            }
        }
        p += extra + 1;
    }
    return out;
}

namespace {

jstring MakeString(JNIEnv* env, const char* text) {
    if (!text) return nullptr;
    jstring s = env->NewStringUTF(CCallback::ToModifiedUtf8(text).c_str());
    if (!s) env->ExceptionClear();  // out of memory: the argument stays null
    return s;
}

// A pending exception of a lookup or of the Java method is not the
// caller's: it is dropped here.
void DropException(JNIEnv* env) {
    if (env->ExceptionCheck()) env->ExceptionClear();
}

}  // namespace

CCallback::CCallback(JNIEnv* env, jobject obj) {
    if (!env || env->GetJavaVM(&m_jVM) != JNI_OK || !m_jVM) {
        m_jVM = nullptr;
        printf("[Callback::Constructor] vm = NULL\n");
        fflush(stdout);
        return;
    }
    JNIEnv* own = nullptr;
    if (GetEnv(&own) == JNI_OK && obj) m_jObj = own->NewGlobalRef(obj);
}

CCallback::~CCallback() {
    // FreeGlobalRef: deleting a global reference is allowed with an
    // exception pending, so a thrown IOException survives it.
    JNIEnv* env = nullptr;
    if (m_jObj && GetEnv(&env) == JNI_OK) env->DeleteGlobalRef(m_jObj);
    m_jObj = nullptr;
    m_jVM = nullptr;
}

jint CCallback::GetEnv(JNIEnv** env) {
    *env = nullptr;
    if (!m_jVM) return -1;
    return m_jVM->GetEnv(reinterpret_cast<void**>(env), JNI_VERSION_1_4);
}

JNIEnv* CCallback::AttrachThisThread(bool* attached) {
    *attached = false;
    JNIEnv* env = nullptr;
    jint rc = GetEnv(&env);
    if (rc == JNI_EDETACHED) {
        if (m_jVM->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr) != JNI_OK) {
            printf("GetEnv: fail to attach thread (%lu)\n", static_cast<unsigned long>(pthread_self()));
            fflush(stdout);
            return nullptr;
        }
        *attached = true;
        return env;
    }
    return rc == JNI_OK ? env : nullptr;
}

// Only a thread attached for this call: a library thread must not stay
// attached, while a thread that was attached before (a Java thread in a
// native call, which the virtual machine would refuse to detach anyway, or a
// native thread that created the virtual machine) keeps its environment and
// any exception pending in it.
void CCallback::DetachThisThread(bool attached) {
    if (attached && m_jVM) m_jVM->DetachCurrentThread();
}

bool CCallback::IsInterrupted() {
    JNIEnv* env = nullptr;
    if (GetEnv(&env) != JNI_OK || !m_jObj) return false;
    bool result = false;
    jclass cls = env->GetObjectClass(m_jObj);
    jmethodID mid = cls ? env->GetMethodID(cls, "isInterrupted", "()Z") : nullptr;
    DropException(env);
    if (mid) {
        result = env->CallBooleanMethod(m_jObj, mid) == JNI_TRUE;
        if (env->ExceptionCheck()) {
            env->ExceptionClear();
            result = false;
        }
    }
    if (cls) env->DeleteLocalRef(cls);
    return result;
}

bool CCallback::FireMessageLog(const char* method, const char* id, const char* text) {
    bool attached = false;
    JNIEnv* env = AttrachThisThread(&attached);
    if (!env) return false;
    bool reached = m_jObj != nullptr;
    if (reached) {
        jclass cls = env->GetObjectClass(m_jObj);
        jmethodID mid = cls ? env->GetMethodID(cls, method, "(Ljava/lang/String;Ljava/lang/String;)V") : nullptr;
        DropException(env);
        if (mid) {
            jstring jId = MakeString(env, id);
            jstring jText = MakeString(env, text);
            env->CallVoidMethod(m_jObj, mid, jId, jText);
            DropException(env);
            if (jId) env->DeleteLocalRef(jId);
            if (jText) env->DeleteLocalRef(jText);
        }
        if (cls) env->DeleteLocalRef(cls);
    }
    DetachThisThread(attached);
    return reached;
}

bool CCallback::LogInfo(const char* id, const char* text) { return FireMessageLog("logInfo", id, text); }
bool CCallback::LogError(const char* id, const char* text) { return FireMessageLog("logError", id, text); }
bool CCallback::LogRaw(const char* id, const char* text) { return FireMessageLog("logRaw", id, text); }

int CCallback::CallIntMethod(const char* method, const char* signature, const char* const* strings,
                             int stringCount, const jvalue* tail, int tailCount) {
    bool attached = false;
    JNIEnv* env = AttrachThisThread(&attached);
    if (!env) return -1;
    int result = -1;
    if (m_jObj) {
        jclass cls = env->GetObjectClass(m_jObj);
        jmethodID mid = cls ? env->GetMethodID(cls, method, signature) : nullptr;
        DropException(env);
        if (mid) {
            jvalue args[8] = {};
            int n = 0;
            for (int i = 0; i < stringCount && n < 8; ++i) args[n++].l = MakeString(env, strings[i]);
            for (int i = 0; i < tailCount && n < 8; ++i) args[n++] = tail[i];
            jint answer = env->CallIntMethodA(m_jObj, mid, args);
            if (env->ExceptionCheck()) env->ExceptionClear();
            else result = answer;
            for (int i = 0; i < stringCount && i < 8; ++i)
                if (args[i].l) env->DeleteLocalRef(args[i].l);
        }
        if (cls) env->DeleteLocalRef(cls);
    }
    DetachThisThread(attached);
    return result;
}

int CCallback::UpdateRedirectedFileAttributes(const char* id, const char* path, bool bSize, unsigned long long iSize,
                                              bool bAccessTime, unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                              unsigned long lLastModifiedTimeSec) {
    const char* strings[] = {id, path};
    jvalue tail[6];
    tail[0].z = bSize ? JNI_TRUE : JNI_FALSE;
    tail[1].j = static_cast<jlong>(iSize);
    tail[2].z = bAccessTime ? JNI_TRUE : JNI_FALSE;
    // The times are 32-bit seconds, widened without sign.
    tail[3].j = static_cast<jlong>(static_cast<unsigned long long>(lAccessTimeSec & 0xFFFFFFFFul));
    tail[4].z = bLastModifiedTime ? JNI_TRUE : JNI_FALSE;
    tail[5].j = static_cast<jlong>(static_cast<unsigned long long>(lLastModifiedTimeSec & 0xFFFFFFFFul));
    return CallIntMethod("setRedirectedFileAttributes", "(Ljava/lang/String;Ljava/lang/String;ZJZJZJ)I", strings, 2,
                         tail, 6);
}

int CCallback::RemoveRedirectedFile(const char* id, const char* path) {
    const char* strings[] = {id, path};
    return CallIntMethod("removeRedirectedFile", "(Ljava/lang/String;Ljava/lang/String;)I", strings, 2, nullptr, 0);
}

int CCallback::RenameRedirectedFile(const char* id, const char* pathFrom, const char* pathTo) {
    const char* strings[] = {id, pathFrom, pathTo};
    return CallIntMethod("renameRedirectedFile", "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)I", strings,
                         3, nullptr, 0);
}

int CCallback::WriteRedirectedFile(const char* id, const char* path, unsigned long long iSeek, int iSeekType,
                                   unsigned int iLen) {
    const char* strings[] = {id, path};
    jvalue tail[3];
    tail[0].j = static_cast<jlong>(iSeek);
    tail[1].i = iSeekType;
    tail[2].i = static_cast<jint>(iLen);
    return CallIntMethod("writeRedirectedFile", "(Ljava/lang/String;Ljava/lang/String;JII)I", strings, 2, tail, 3);
}

void CCallback::ThrowIOException(const char* text) {
    bool attached = false;
    JNIEnv* env = AttrachThisThread(&attached);
    if (!env) return;
    jstring msg = MakeString(env, text ? text : "");
    jclass cls = env->FindClass("java/io/IOException");
    jmethodID ctor = cls ? env->GetMethodID(cls, "<init>", "(Ljava/lang/String;)V") : nullptr;
    DropException(env);
    if (ctor) {
        jobject ex = env->NewObject(cls, ctor, msg);
        DropException(env);
        if (ex) {
            env->Throw(static_cast<jthrowable>(ex));
            env->DeleteLocalRef(ex);
        }
    }
    if (cls) env->DeleteLocalRef(cls);
    if (msg) env->DeleteLocalRef(msg);
    DetachThisThread(attached);
}
