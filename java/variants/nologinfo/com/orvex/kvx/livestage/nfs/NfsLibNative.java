package com.orvex.kvx.livestage.nfs;

/** An application's own class of this name, with only some natives and no "logInfo". */
public class NfsLibNative {
    static {
        System.load(System.getProperty("nfsengine.library"));
    }

    public native long initial(String jLogID, int jAccessMode, int jLogControl) throws java.io.IOException;
    public native void terminate(long jHandle);
    public native boolean startRemoteController(long jHandle) throws java.io.IOException;
    public native void stopRemoteController(long jHandle);
    public native boolean addMountPoint(long jHandle, String jLocalMountPath, String jExportName) throws java.io.IOException;

    final java.util.List<String> errors = new java.util.ArrayList<>();

    public void logError(String id, String text) {
        errors.add(id + "|" + text);
    }
}
