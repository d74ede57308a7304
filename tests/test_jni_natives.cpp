// The natives and CCallback called straight from C++ inside a JVM that the
// test creates: what Java cannot see (a native's result while its exception
// is pending, attach and detach of library threads, a callback without a
// virtual machine). The callback object is a plain java.lang.Object, which
// has none of the callback methods.
#include <gtest/gtest.h>
#include <jni.h>

#include <string>
#include <thread>

#include "Callback.h"
#include "NfsJNI.h"
#include "NfsMain.h"
#include "TestSupport.h"
#include "Utilities.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

#if defined(__SANITIZE_ADDRESS__)
#define JNI_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define JNI_TEST_SANITIZED 1
#endif
#endif

#ifdef JNI_TEST_SANITIZED
// The JVM handles its own SIGSEGV (null checks, safepoint polls); its
// memory is left out of the leak check by the engine's suppressions.
extern "C" const char* __asan_default_options() { return "handle_segv=0:allow_user_segv_handler=1"; }
#endif

namespace {

class JniNatives : public testing::Test {
protected:
    void SetUp() override {
        JavaVMOption options[] = {{const_cast<char*>("-Xcheck:jni"), nullptr},
                                   {const_cast<char*>("-Xint"), nullptr},
                                   {const_cast<char*>("-Xrs"), nullptr}};
        JavaVMInitArgs args{};
        args.version = JNI_VERSION_1_8;
        args.nOptions = 3;
        args.options = options;
        ASSERT_EQ(JNI_OK, JNI_CreateJavaVM(&vm_, reinterpret_cast<void**>(&env_), &args));
        jclass cls = env_->FindClass("java/lang/Object");
        jmethodID ctor = env_->GetMethodID(cls, "<init>", "()V");
        obj_ = env_->NewObject(cls, ctor);
        env_->DeleteLocalRef(cls);
        ASSERT_NE(nullptr, obj_);
    }
    void TearDown() override {
        // A JVM cannot be created twice in one process; every test case runs
        // in a process of its own, so it is simply left to the exit.
    }

    long long Initial(const char* id, int mode) {
        jstring jId = env_->NewStringUTF(id);
        jlong h = Java_com_orvex_kvx_livestage_nfs_NfsLibNative_initial(env_, obj_, jId, mode, 3);
        env_->DeleteLocalRef(jId);
        return h;
    }

    // The pending exception's class name and message, cleared.
    std::string TakeException() {
        jthrowable ex = env_->ExceptionOccurred();
        if (!ex) return "";
        env_->ExceptionClear();
        jclass cls = env_->GetObjectClass(ex);
        jclass classClass = env_->FindClass("java/lang/Class");
        jmethodID getName = env_->GetMethodID(classClass, "getName", "()Ljava/lang/String;");
        jstring name = static_cast<jstring>(env_->CallObjectMethod(cls, getName));
        if (env_->ExceptionCheck()) env_->ExceptionClear();
        jclass throwable = env_->FindClass("java/lang/Throwable");
        jmethodID getMessage = env_->GetMethodID(throwable, "getMessage", "()Ljava/lang/String;");
        jstring message = static_cast<jstring>(env_->CallObjectMethod(ex, getMessage));
        if (env_->ExceptionCheck()) env_->ExceptionClear();
        std::string text = Utf(name) + ": " + Utf(message);
        return text;
    }

    std::string Utf(jstring s) {
        if (!s) return "(null)";
        const char* chars = env_->GetStringUTFChars(s, nullptr);
        std::string text = chars;
        env_->ReleaseStringUTFChars(s, chars);
        return text;
    }

    JavaVM* vm_ = nullptr;
    JNIEnv* env_ = nullptr;
    jobject obj_ = nullptr;
};

TEST_F(JniNatives, AFailingAddMountPointReturnsFalseWithTheIOExceptionPending) {
    jlong h = Initial("gtest", 5);
    ASSERT_NE(0, h);
    TempDir dir;
    jstring path = env_->NewStringUTF(dir.Path().c_str());
    jstring name = env_->NewStringUTF("a b");
    EXPECT_EQ(JNI_FALSE, Java_com_orvex_kvx_livestage_nfs_NfsLibNative_addMountPoint(env_, obj_, h, path, name));
    EXPECT_EQ("java.io.IOException: Invalid char \" \" inside export name", TakeException());
    // The callback scope ended with the call.
    EXPECT_EQ(nullptr, reinterpret_cast<CNfsMain*>(static_cast<intptr_t>(h))->GetCallback());
    Java_com_orvex_kvx_livestage_nfs_NfsLibNative_terminate(env_, obj_, h);
}

TEST_F(JniNatives, AFailingInitialReturnsZeroWithTheIOExceptionPending) {
    EXPECT_EQ(0, Initial("", 5));
    EXPECT_EQ("java.io.IOException: ID is not defined", TakeException());
    EXPECT_EQ(0, Initial("server", 2));
    EXPECT_EQ("java.io.IOException: Cannot use \"server\" as ID", TakeException());
}

TEST_F(JniNatives, AnObjectWithoutTheLogMethodsStillTakesTheLines) {
    jlong h = Initial("gtest", 0);
    CaptureStdout();
    // Inside the call's callback scope the general-info line goes to the
    // object, which lacks "logInfo": lost, not printed.
    EXPECT_EQ(JNI_TRUE, Java_com_orvex_kvx_livestage_nfs_NfsLibNative_startRemoteController(env_, obj_, h));
    EXPECT_EQ("", GetCapturedStdout());
    EXPECT_FALSE(env_->ExceptionCheck()) << "the NoSuchMethodError of the lookup is not left to Java";
    Java_com_orvex_kvx_livestage_nfs_NfsLibNative_terminate(env_, obj_, h);
}

TEST_F(JniNatives, ALibraryThreadIsAttachedForTheCallAndDetachedAfterwards) {
    CCallback callback(env_, obj_);
    bool delivered = false;
    int answer = 0;
    jint attachedAfter = JNI_OK;
    std::thread t([&] {
        delivered = callback.LogInfo("id", "text");
        answer = callback.WriteRedirectedFile("id", "/p", 1, 0, 2);
        JNIEnv* env = nullptr;
        attachedAfter = vm_->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_4);
    });
    t.join();
    EXPECT_TRUE(delivered) << "reaching the object counts, whatever its methods";
    EXPECT_EQ(-1, answer) << "no writeRedirectedFile method: the call could not be made";
    EXPECT_EQ(JNI_EDETACHED, attachedAfter);
    // The Java thread that called stays attached.
    JNIEnv* env = nullptr;
    EXPECT_EQ(JNI_OK, vm_->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_4));
    EXPECT_FALSE(callback.IsInterrupted());
}

TEST_F(JniNatives, WithoutAVirtualMachineTheCallbackReachesNobodyAndLinesGoToTheConsole) {
    CaptureStdout();
    CCallback callback(nullptr, nullptr);
    std::string constructed = GetCapturedStdout();
    EXPECT_EQ("[Callback::Constructor] vm = NULL\n", constructed);
    EXPECT_FALSE(callback.LogInfo("id", "x"));
    EXPECT_FALSE(callback.IsInterrupted());
    EXPECT_EQ(-1, callback.WriteRedirectedFile("id", "/p", 0, 0, 1));
    EXPECT_EQ(-1, callback.RemoveRedirectedFile("id", "/p"));
    EXPECT_EQ(-1, callback.RenameRedirectedFile("id", "/p", "/q"));
    EXPECT_EQ(-1, callback.UpdateRedirectedFileAttributes("id", "/p", true, 1, false, 0, false, 0));
    CUtilities utilities;
    utilities.SetCallback(&callback);
    CRuntimeParam rp("abc", 3);
    CaptureStdout();
    utilities.LogError(&rp, "%s", "x");
    EXPECT_EQ("[erro] (abc) x\n", GetCapturedStdout());
    utilities.SetCallback(nullptr);
}

TEST(JniStrings, TextsBecomeModifiedUtf8AndBytesOutsideUtf8BecomeQuestionMarks) {
    EXPECT_EQ("plain /path.vmdk", CCallback::ToModifiedUtf8("plain /path.vmdk"));
    EXPECT_EQ("caf\xc3\xa9 \xe2\x82\xac", CCallback::ToModifiedUtf8("caf\xc3\xa9 \xe2\x82\xac"));
    // U+1F600 as two surrogates of three bytes each.
    EXPECT_EQ("\xed\xa0\xbd\xed\xb8\x80", CCallback::ToModifiedUtf8("\xf0\x9f\x98\x80"));
    EXPECT_EQ("bad ?? name", CCallback::ToModifiedUtf8("bad \xff\xfe name"));
    // Cut sequences, overlong forms and encoded surrogates.
    EXPECT_EQ("?x", CCallback::ToModifiedUtf8("\xc3x"));
    EXPECT_EQ("??", CCallback::ToModifiedUtf8("\xc0\x80"));
    EXPECT_EQ("???", CCallback::ToModifiedUtf8("\xed\xa0\x80"));
    EXPECT_EQ("??", CCallback::ToModifiedUtf8("\xe2\x82"));
    EXPECT_EQ("", CCallback::ToModifiedUtf8(""));
}

}  // namespace
