#pragma once

#include <jni.h>

// The native methods of com.orvex.kvx.livestage.nfs.NfsLibNative. The
// handle is the controller's address carried in a Java long; every native
// but initial takes it first and does nothing for a zero handle.

#ifdef __cplusplus
extern "C" {
#endif

JNIEXPORT jlong JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_initial(JNIEnv* env, jobject obj, jstring jLogID, jint jAccessMode, jint jLogControl);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_terminate(JNIEnv* env, jobject obj, jlong jHandle);
JNIEXPORT jboolean JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_isServerRunning(JNIEnv* env, jobject obj, jlong jHandle);
JNIEXPORT jboolean JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_startRemoteController(JNIEnv* env, jobject obj, jlong jHandle);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_stopRemoteController(JNIEnv* env, jobject obj, jlong jHandle);
JNIEXPORT jboolean JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_startServer(JNIEnv* env, jobject obj, jlong jHandle, jint jMountPort, jint jNfsPort, jboolean jReadOnly);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_stopServer(JNIEnv* env, jobject obj, jlong jHandle);
JNIEXPORT jboolean JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_receiveCallbackLoop(JNIEnv* env, jobject obj, jlong jHandle, jint jLifeTimeInSec);
JNIEXPORT jboolean JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_addMountPoint(JNIEnv* env, jobject obj, jlong jHandle, jstring jLocalMountPath, jstring jExportName);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_removeMountPoint(JNIEnv* env, jobject obj, jlong jHandle, jstring jLocalMountPath);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_addSession(JNIEnv* env, jobject obj, jlong jHandle, jstring jSessionID, jstring jLocalMountPath);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_removeSession(JNIEnv* env, jobject obj, jlong jHandle, jstring jSessionID);
JNIEXPORT jboolean JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_isSessionExists(JNIEnv* env, jobject obj, jlong jHandle, jstring jSessionID);
JNIEXPORT jboolean JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_isLocalSessionExists(JNIEnv* env, jobject obj, jlong jHandle, jstring jSessionID);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_openRedirectedFile(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath, jlong jSize, jboolean jCreateInfoFile, jint jInfoFileSegmentSizeMB, jint jInfoFileCheckPointSizeMB);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_closeRedirectedFile(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_closeAllRedirectedFiles(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_addRedirectedFileSegment(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath, jstring jSrcPath, jlong jSrcFileOffset, jlong jOffset, jlong jLength);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_exportRedirectedFile(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath, jstring jExportPath);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_exportRedirectedFileInfo(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath, jstring jExportPath, jboolean jMergeRange);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_closeOpenedFile(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_closeAllOpenedFiles(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_setLogControl(JNIEnv* env, jobject obj, jlong jHandle, jint jLogControl);
JNIEXPORT jstring JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_getVersion(JNIEnv* env, jobject obj, jlong jHandle);
JNIEXPORT jstring JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_getDescription(JNIEnv* env, jobject obj, jlong jHandle);
JNIEXPORT jint JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_getAccessMode(JNIEnv* env, jobject obj, jlong jHandle);
JNIEXPORT jint JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_getMountInfo(JNIEnv* env, jobject obj, jlong jHandle, jboolean jClientMountedOnly, jboolean jPrintDetails);
JNIEXPORT jint JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_getSessionInfo(JNIEnv* env, jobject obj, jlong jHandle, jboolean jPrintDetails);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_runTestMode(JNIEnv* env, jobject obj, jlong jHandle, jstring jDirPath, jlong jFileSize);
JNIEXPORT jint JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_getServerStatus(JNIEnv* env, jobject obj, jlong jHandle);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_addVSphereInfo(JNIEnv* env, jobject obj, jlong jHandle, jstring jDatastoreMoid, jstring jHost, jstring jPort, jstring jUser, jstring jPwd);
JNIEXPORT void JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_removeVSphereInfo(JNIEnv* env, jobject obj, jlong jHandle, jstring jDatastoreMoid);
JNIEXPORT jboolean JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_runQuickTestMode(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath, jint iMode);
JNIEXPORT jboolean JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_addNetDeviceCredential(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath, jstring jUser, jstring jPwd);
JNIEXPORT jboolean JNICALL Java_com_orvex_kvx_livestage_nfs_NfsLibNative_removeNetDeviceCredential(JNIEnv* env, jobject obj, jlong jHandle, jstring jPath);

#ifdef __cplusplus
}
#endif
