package com.orvex.kvx.livestage.nfs.test;

import static com.orvex.kvx.livestage.nfs.test.TestKit.check;
import static com.orvex.kvx.livestage.nfs.test.TestKit.checkEquals;
import static com.orvex.kvx.livestage.nfs.test.TestKit.checkIOException;

import java.nio.file.Files;
import java.nio.file.Path;

/** The natives without a running server: handles, texts, the loop, IOExceptions. */
public final class BasicsTest {
    private static final String ID = "jni-basics";

    public static void main(String[] args) throws Exception {
        TestKit.begin();
        RecordingNative n = new RecordingNative();
        zeroHandle(n);
        long h = n.initial(ID, 5, 3);
        check(h != 0, "initial with access mode 5 gives a handle");
        checkEquals(0, n.getAccessMode(h), "access mode 5 makes the in-process controller (mode 0)");
        checkEquals("Internal NFS Server", n.getDescription(h), "description");
        checkEquals("1.4", n.getVersion(h), "version");
        checkEquals(1, n.getServerStatus(h), "status of a stopped server");
        check(!n.isServerRunning(h), "not running before startServer");
        callbackLoop(n, h);
        failures(n, h);
        sessionsAndExports(n, h);
        nullStrings(n, h);
        n.terminate(h);
        checkIOException("ID is not defined", () -> n.initial("", 5, 3), "initial with an empty ID");
        checkIOException("ID is not defined", () -> n.initial(null, 0, 3), "initial with a null ID");
        TestKit.finish();
    }

    static void zeroHandle(RecordingNative n) throws Exception {
        checkEquals("Not Defined", n.getVersion(0), "getVersion(0)");
        checkEquals("Unknown", n.getDescription(0), "getDescription(0)");
        check(!n.isServerRunning(0), "isServerRunning(0) is false");
        check(!n.startRemoteController(0), "startRemoteController(0) is false, no exception");
        check(!n.startServer(0, 1, 1, false), "startServer(0) is false, no exception");
        check(!n.addMountPoint(0, "/", "x"), "addMountPoint(0) is false, no exception");
        check(!n.isSessionExists(0, "s"), "isSessionExists(0) is false");
        check(!n.isLocalSessionExists(0, "s"), "isLocalSessionExists(0) is false");
        check(!n.runQuickTestMode(0, "/", 0), "runQuickTestMode(0) is false");
        check(!n.addNetDeviceCredential(0, "/", "u", "p"), "addNetDeviceCredential(0) is false");
        check(!n.removeNetDeviceCredential(0, "/"), "removeNetDeviceCredential(0) is false");
        checkEquals(0, n.getAccessMode(0), "getAccessMode(0)");
        checkEquals(0, n.getServerStatus(0), "getServerStatus(0)");
        checkEquals(0, n.getMountInfo(0, false, true), "getMountInfo(0)");
        checkEquals(0, n.getSessionInfo(0, true), "getSessionInfo(0)");
        long start = System.nanoTime();
        check(!n.receiveCallbackLoop(0, 5), "receiveCallbackLoop(0, 5) is false");
        check(System.nanoTime() - start < 500_000_000L, "receiveCallbackLoop(0, 5) returns at once");
        // Every void native is a no-op for the zero handle.
        n.terminate(0);
        n.stopRemoteController(0);
        n.stopServer(0);
        n.removeMountPoint(0, "/");
        n.addSession(0, "s", "/");
        n.removeSession(0, "s");
        n.openRedirectedFile(0, "/f", 10, false, 0, 0);
        n.closeRedirectedFile(0, "/f");
        n.closeAllRedirectedFiles(0, "/");
        n.addRedirectedFileSegment(0, "/f", "/g", 0, 0, 1);
        n.exportRedirectedFile(0, "/f", "/g");
        n.exportRedirectedFileInfo(0, "/f", "/g", true);
        n.closeOpenedFile(0, "/f");
        n.closeAllOpenedFiles(0, "/");
        n.setLogControl(0, 3);
        n.runTestMode(0, "/", 1);
        n.addVSphereInfo(0, "m", "h", "p", "u", "w");
        n.removeVSphereInfo(0, "m");
        check(n.logs().isEmpty(), "the zero handle logs nothing");
    }

    static void callbackLoop(RecordingNative n, long h) throws Exception {
        n.interrupted = false;
        long start = System.nanoTime();
        check(!n.receiveCallbackLoop(h, 3), "receiveCallbackLoop(h, 3) returns false");
        double took = (System.nanoTime() - start) / 1e9;
        check(took >= 2.8 && took < 4.5, "receiveCallbackLoop(h, 3) took about three seconds (" + took + " s)");

        start = System.nanoTime();
        int calls = n.isInterruptedCalls;
        n.receiveCallbackLoop(h, 0);
        took = (System.nanoTime() - start) / 1e9;
        check(took < 0.5, "receiveCallbackLoop(h, 0) returns at once (" + took + " s)");
        checkEquals(calls, n.isInterruptedCalls, "receiveCallbackLoop(h, 0) does not ask isInterrupted");

        n.interrupted = true;
        start = System.nanoTime();
        n.receiveCallbackLoop(h, 3);
        took = (System.nanoTime() - start) / 1e9;
        check(took < 0.5, "an interrupted receiveCallbackLoop(h, 3) returns at once (" + took + " s)");

        n.interrupted = false;
        Thread stopper = new Thread(() -> {
            try {
                Thread.sleep(2500);
            } catch (InterruptedException e) {
                return;
            }
            n.interrupted = true;
        });
        start = System.nanoTime();
        stopper.start();
        n.receiveCallbackLoop(h, -1);
        took = (System.nanoTime() - start) / 1e9;
        stopper.join();
        check(took >= 2.4 && took < 4.5, "receiveCallbackLoop(h, -1) returns once isInterrupted is true (" + took
                                             + " s)");
        n.interrupted = false;

        // A second loop on the same handle asks its own object, not the one
        // whose callback is installed.
        Thread first = n.startLoop(h);
        RecordingNative other = new RecordingNative();
        other.interrupted = true;
        start = System.nanoTime();
        other.receiveCallbackLoop(h, -1);
        took = (System.nanoTime() - start) / 1e9;
        check(took < 0.5, "a second loop whose object is interrupted returns at once (" + took + " s)");
        check(first.isAlive(), "the first loop goes on");
        n.stopLoop(first);
        check(!first.isAlive(), "the first loop ends when its object is interrupted");
        n.interrupted = false;
    }

    static void failures(RecordingNative n, long h) throws Exception {
        Path dir = TestKit.tempDir("jni-basics");
        checkIOException("Invalid char \" \" inside export name", () -> n.addMountPoint(h, dir.toString(), "a b"),
                         "addMountPoint with a blank in the export name");
        boolean returned = true;
        try {
            returned = n.addMountPoint(h, dir.toString(), "c/d");
        } catch (java.io.IOException e) {
            returned = false;
        }
        check(!returned, "a failing addMountPoint does not return true");
        checkIOException("Unknown mode (3)", () -> n.runQuickTestMode(h, dir.toString(), 3),
                         "runQuickTestMode with an unknown mode");
        Path missing = dir.resolve("missing");
        try {
            n.runQuickTestMode(h, missing.toString(), 0);
            check(false, "runQuickTestMode of a missing path throws");
        } catch (java.io.IOException e) {
            check(e.getMessage() != null && !e.getMessage().isEmpty(),
                  "runQuickTestMode of a missing path throws with the reason: " + e.getMessage());
        }
        check(n.runQuickTestMode(h, dir.toString(), 0), "runQuickTestMode of an existing folder is true");
        // A path that was never opened: the controller gives no reason.
        checkIOException("", () -> n.addRedirectedFileSegment(h, dir + "/never.vmdk", dir.toString(), 0, 0, 1),
                         "addRedirectedFileSegment of a file that is not open");
        Path disk = dir.resolve("disk.vmdk");
        Files.write(disk, new byte[0]);
        n.openRedirectedFile(h, disk.toString(), 100, false, 0, 0);
        checkIOException("", () -> n.addRedirectedFileSegment(h, disk.toString(), dir.toString(), 0, 100, 1),
                         "addRedirectedFileSegment past the end of the file");
        n.addRedirectedFileSegment(h, disk.toString(), dir.toString(), 0, 10, 1);
        check(true, "addRedirectedFileSegment inside the file throws nothing");
        n.closeRedirectedFile(h, disk.toString());
    }

    static void sessionsAndExports(RecordingNative n, long h) throws Exception {
        Path dir = TestKit.tempDir("jni-exports");
        n.setLogControl(h, 3);
        n.clearLogs();
        check(n.addMountPoint(h, dir.toString(), "exp"), "addMountPoint of a folder");
        checkEquals(1, n.getMountInfo(h, false, true), "getMountInfo counts the export");
        check(!n.logs().isEmpty(), "getMountInfo's details reach Java during the call");
        for (String t : n.logThreads()) checkEquals("main", t, "a log line of a short call comes on its own thread");
        n.addSession(h, "session-1", dir.toString());
        check(n.isSessionExists(h, "session-1"), "isSessionExists after addSession");
        check(n.isLocalSessionExists(h, "session-1"), "isLocalSessionExists after addSession");
        checkEquals(1, n.getSessionInfo(h, true), "getSessionInfo counts the session");
        n.removeSession(h, "session-1");
        check(!n.isSessionExists(h, "session-1"), "no session after removeSession");
        n.removeMountPoint(h, dir.toString());
        checkEquals(0, n.getMountInfo(h, false, false), "no export after removeMountPoint");

        // A Java exception in logInfo still counts as delivered and stays in Java's hands.
        n.throwFromLog = true;
        n.clearLogs();
        n.getMountInfo(h, false, true);
        n.startRemoteController(h);
        n.throwFromLog = false;
        check(n.hasLog("info", ID, "No remote controller to start"),
              "startRemoteController's line reaches logInfo even though it throws");
        n.addVSphereInfo(h, "datastore-1", "host", "443", "user", "secret");
        n.removeVSphereInfo(h, "datastore-1");
        n.addNetDeviceCredential(h, dir.toString(), "user", "pwd");
        n.removeNetDeviceCredential(h, dir.toString());
        n.closeAllOpenedFiles(h, dir.toString());
        n.closeOpenedFile(h, dir.resolve("x").toString());
        n.exportRedirectedFile(h, dir.resolve("none").toString(), dir.resolve("out").toString());
        n.exportRedirectedFileInfo(h, dir.resolve("none").toString(), dir.resolve("out").toString(), true);
        n.closeAllRedirectedFiles(h, dir.toString());
    }

    static void nullStrings(RecordingNative n, long h) {
        // A null Java string is a null pointer to the controller: nothing crashes.
        try {
            n.addMountPoint(h, null, null);
        } catch (java.io.IOException e) {
            check(true, "addMountPoint(null, null) throws: " + e.getMessage());
        }
        n.removeMountPoint(h, null);
        n.addSession(h, null, null);
        n.removeSession(h, null);
        check(!n.isSessionExists(h, null), "isSessionExists(null) is false");
        check(!n.isLocalSessionExists(h, null), "isLocalSessionExists(null) is false");
        n.openRedirectedFile(h, null, 10, false, 0, 0);
        n.closeRedirectedFile(h, null);
        n.closeAllRedirectedFiles(h, null);
        try {
            n.addRedirectedFileSegment(h, null, null, 0, 0, 1);
        } catch (java.io.IOException e) {
            check(true, "addRedirectedFileSegment(null) throws");
        }
        n.exportRedirectedFile(h, null, null);
        n.exportRedirectedFileInfo(h, null, null, false);
        n.closeOpenedFile(h, null);
        n.closeAllOpenedFiles(h, null);
        n.runTestMode(h, null, 0);
        n.addVSphereInfo(h, null, null, null, null, null);
        n.removeVSphereInfo(h, null);
        try {
            n.runQuickTestMode(h, null, 0);
            check(false, "runQuickTestMode(null) throws");
        } catch (java.io.IOException e) {
            checkEquals("Invalid argument", e.getMessage(), "runQuickTestMode(null) text");
        }
        n.addNetDeviceCredential(h, null, null, null);
        n.removeNetDeviceCredential(h, null);
        check(true, "null strings reach every native without a crash");
    }
}
