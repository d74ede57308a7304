package com.orvex.kvx.livestage.nfs;

/**
 * The Java face of libnfsengine.so: one instance drives one engine through
 * a handle returned by {@link #initial}. The engine calls the callback
 * methods below on the object that made the native call, or, for work of
 * its own threads, on the object that runs {@link #receiveCallbackLoop}.
 * Applications subclass it to receive log lines and to answer the changes
 * that NFS clients make to redirected files.
 *
 * <p>The library is loaded from the path in the system property
 * "nfsengine.library" when it is set, else by name from java.library.path.
 */
public class NfsLibNative {
    public static final int ACCESS_MODE_INTERNAL = 0;
    public static final int ACCESS_MODE_EXTERNAL_SERVER = 1;
    public static final int ACCESS_MODE_CLIENT = 2;

    static {
        String path = System.getProperty("nfsengine.library");
        if (path != null && !path.isEmpty()) {
            System.load(path);
        } else {
            System.loadLibrary("nfsengine");
        }
    }

    // ---- natives --------------------------------------------------------------
    // The handle is the engine's controller, 0 when initial failed; every
    // native does nothing for 0. Those that declare IOException throw it with
    // the engine's reason when the operation fails.
    public native long initial(String jLogID, int jAccessMode, int jLogControl) throws java.io.IOException;
    public native void terminate(long jHandle);
    public native boolean isServerRunning(long jHandle);
    public native boolean startRemoteController(long jHandle) throws java.io.IOException;
    public native void stopRemoteController(long jHandle);
    public native boolean startServer(long jHandle, int jMountPort, int jNfsPort, boolean jReadOnly) throws java.io.IOException;
    public native void stopServer(long jHandle);
    public native boolean receiveCallbackLoop(long jHandle, int jLifeTimeInSec);
    public native boolean addMountPoint(long jHandle, String jLocalMountPath, String jExportName) throws java.io.IOException;
    public native void removeMountPoint(long jHandle, String jLocalMountPath);
    public native void addSession(long jHandle, String jSessionID, String jLocalMountPath);
    public native void removeSession(long jHandle, String jSessionID);
    public native boolean isSessionExists(long jHandle, String jSessionID);
    public native boolean isLocalSessionExists(long jHandle, String jSessionID);
    public native void openRedirectedFile(long jHandle, String jPath, long jSize, boolean jCreateInfoFile, int jInfoFileSegmentSizeMB, int jInfoFileCheckPointSizeMB);
    public native void closeRedirectedFile(long jHandle, String jPath);
    public native void closeAllRedirectedFiles(long jHandle, String jPath);
    public native void addRedirectedFileSegment(long jHandle, String jPath, String jSrcPath, long jSrcFileOffset, long jOffset, long jLength) throws java.io.IOException;
    public native void exportRedirectedFile(long jHandle, String jPath, String jExportPath);
    public native void exportRedirectedFileInfo(long jHandle, String jPath, String jExportPath, boolean jMergeRange);
    public native void closeOpenedFile(long jHandle, String jPath);
    public native void closeAllOpenedFiles(long jHandle, String jPath);
    public native void setLogControl(long jHandle, int jLogControl);
    public native String getVersion(long jHandle);
    public native String getDescription(long jHandle);
    public native int getAccessMode(long jHandle);
    public native int getMountInfo(long jHandle, boolean jClientMountedOnly, boolean jPrintDetails);
    public native int getSessionInfo(long jHandle, boolean jPrintDetails);
    public native void runTestMode(long jHandle, String jDirPath, long jFileSize);
    public native int getServerStatus(long jHandle);
    public native void addVSphereInfo(long jHandle, String jDatastoreMoid, String jHost, String jPort, String jUser, String jPwd);
    public native void removeVSphereInfo(long jHandle, String jDatastoreMoid);
    public native boolean runQuickTestMode(long jHandle, String jPath, int iMode) throws java.io.IOException;
    public native boolean addNetDeviceCredential(long jHandle, String jPath, String jUser, String jPwd);
    public native boolean removeNetDeviceCredential(long jHandle, String jPath);

    // ---- called by the engine -------------------------------------------------

    /** Polled every second by receiveCallbackLoop: true ends the loop. */
    public boolean isInterrupted() {
        return Thread.currentThread().isInterrupted();
    }

    public void logInfo(String id, String text) {
        System.out.println("[info] (" + id + ") " + text);
    }

    public void logError(String id, String text) {
        System.err.println("[erro] (" + id + ") " + text);
    }

    public void logRaw(String id, String text) {
        System.out.print(text);
    }

    /**
     * An NFS client changed the size or times of a redirected file; each
     * flag says whether the value beside it applies. 0 accepts the change.
     */
    public int setRedirectedFileAttributes(String id, String path, boolean bSize, long iSize, boolean bAccessTime,
                                           long lAccessTimeSec, boolean bLastModifiedTime, long lLastModifiedTimeSec) {
        return -1;
    }

    /** An NFS client removed a redirected file. 0 accepts. */
    public int removeRedirectedFile(String id, String path) {
        return -1;
    }

    /** An NFS client renamed a redirected file. 0 accepts. */
    public int renameRedirectedFile(String id, String pathFrom, String pathTo) {
        return -1;
    }

    /**
     * An NFS client wrote iLen bytes at iSeek; the data itself is not passed.
     * The answer is the count reported to the client as written.
     */
    public int writeRedirectedFile(String id, String path, long iSeek, int iSeekType, int iLen) {
        return -1;
    }
}
