package com.orvex.kvx.livestage.nfs.test;

import static com.orvex.kvx.livestage.nfs.test.TestKit.check;
import static com.orvex.kvx.livestage.nfs.test.TestKit.checkEquals;
import static com.orvex.kvx.livestage.nfs.test.TestKit.checkIOException;

import java.io.File;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.TimeUnit;

/**
 * Access mode 2: Java drives an external server process over IPC. The
 * server's log lines and the NFS clients' changes come back through this
 * process's callback channel, /tmp/nfs-ID, and Java's answers decide the
 * NFS results.
 */
public final class ClientTest {
    private static final String ID = "jni-client";
    private static final String EXPORT = "vmstore";

    public static void main(String[] args) throws Exception {
        TestKit.begin();
        RecordingNative n = new RecordingNative();
        long h = n.initial(ID, 2, 1 | 2);
        checkEquals(2, n.getAccessMode(h), "access mode 2");
        checkEquals("Unknown", n.getVersion(h), "no server yet: version Unknown");
        checkEquals(0, n.getServerStatus(h), "no server yet: status 0");
        check(!n.isServerRunning(h), "no server yet: not running");

        File hostOut = File.createTempFile("jni-host", ".out");
        Process host = TestKit.processBuilder(TestKit.property("nfsengine.ipchost"), "-md", "svr", "-id",
                                              "jni-server-1", "-log", "3")
                           .redirectOutput(hostOut)
                           .start();
        try {
            for (int i = 0; i < 500 && !Files.readString(hostOut.toPath()).contains("Ready"); i++) Thread.sleep(10);
            check(Files.readString(hostOut.toPath()).contains("Ready"), "the external server process is ready");
            run(n, h);
        } finally {
            host.destroy();
            host.waitFor(10, TimeUnit.SECONDS);
            host.destroyForcibly();
        }
        n.terminate(h);
        TestKit.finish();
    }

    static void run(RecordingNative n, long h) throws Exception {
        checkEquals("1.4", n.getVersion(h), "version of the server process");
        checkEquals("External NFS Server", n.getDescription(h), "description of the server process");
        check(n.startRemoteController(h), "startRemoteController opens the callback channel");
        check(Files.exists(Path.of("/tmp/nfs-" + ID)), "the callback channel /tmp/nfs-" + ID + " exists");

        try (ServerSocket busy = new ServerSocket(2049, 1, InetAddress.getLoopbackAddress())) {
            checkIOException("NFS daemon failed to open port 2049", () -> n.startServer(h, 0, 0, false),
                             "the server process's start fails on a taken port, with its text");
        }
        check(n.startServer(h, 0, 0, false), "startServer in the server process");
        check(n.isServerRunning(h), "running");
        checkEquals(3, n.getServerStatus(h), "status running");

        Path root = TestKit.tempDir("jni-client-export");
        checkIOException("Invalid char \" \" inside export name", () -> n.addMountPoint(h, root.toString(), "a b"),
                         "a failing addMountPoint carries the server's text");
        checkIOException("Unknown mode (3)", () -> n.runQuickTestMode(h, root.toString(), 3),
                         "a failing runQuickTestMode carries the server's text");
        check(n.addMountPoint(h, root.toString(), EXPORT), "addMountPoint in the server process");

        n.addSession(h, "session-1", root.toString());
        check(n.isSessionExists(h, "session-1"), "isSessionExists asks the server process");
        check(!n.isLocalSessionExists(h, "session-1"), "isLocalSessionExists asks only this process");
        n.removeSession(h, "session-1");
        check(!n.isSessionExists(h, "session-1"), "session removed");

        byte[] a = InternalServerTest.random(90_000, 4);
        Path source = root.resolve("source.bin");
        Files.write(source, a);
        Path disk = root.resolve("disk.vmdk");
        Files.write(disk, new byte[] {1});
        n.openRedirectedFile(h, disk.toString(), 100_000, false, 0, 0);
        n.addRedirectedFileSegment(h, disk.toString(), source.toString(), 1000, 10_000, 80_000);
        checkIOException("", () -> n.addRedirectedFileSegment(h, root + "/none", source.toString(), 0, 0, 1),
                         "addRedirectedFileSegment of a file that is not open fails over IPC");
        byte[] expected = new byte[100_000];
        System.arraycopy(a, 1000, expected, 10_000, 80_000);

        // Without a callback installed here the server's notification finds
        // a channel whose answer is -1: the write fails.
        TestKit.Result early = TestKit.nfsClient(EXPORT, "write", "/disk.vmdk", "0", "10");
        check(!"0".equals(early.value("status")), "a WRITE fails while no callback is installed in Java");

        Thread loop = n.startLoop(h);
        n.clearLogs();
        n.takeCalls();
        Path copy = TestKit.tempDir("jni-client-copy").resolve("copy.bin");
        checkEquals(0, TestKit.nfsClient(EXPORT, "read", "/disk.vmdk", copy.toString()).status, "client read");
        check(Arrays.equals(expected, Files.readAllBytes(copy)), "the client read the segments byte for byte");

        n.writeAnswer = 333;
        TestKit.Result write = TestKit.nfsClient(EXPORT, "write", "/disk.vmdk", "4294967296", "1000");
        checkEquals("0", write.value("status"), "WRITE succeeds");
        checkEquals("333", write.value("count"), "Java's answer, sent back over IPC, is the WRITE count");
        checkEquals(List.of("write|" + EXPORT + "|" + disk + "|4294967296|0|1000"), n.takeCalls(),
                    "writeRedirectedFile receives the fields from the server process");
        n.attributesAnswer = 0;
        checkEquals("0", TestKit.nfsClient(EXPORT, "truncate", "/disk.vmdk", "77").value("result"), "truncate");
        checkEquals(List.of("attributes|" + EXPORT + "|" + disk + "|true|77|false|0|false|0"), n.takeCalls(),
                    "setRedirectedFileAttributes from the server process");
        n.renameAnswer = 0;
        checkEquals("0", TestKit.nfsClient(EXPORT, "rename", "/disk.vmdk", "/new.vmdk").value("result"), "rename");
        Path renamed = root.resolve("new.vmdk");
        checkEquals(List.of("rename|" + EXPORT + "|" + disk + "|" + renamed), n.takeCalls(),
                    "renameRedirectedFile from the server process");
        n.removeAnswer = 7;
        check(!"0".equals(TestKit.nfsClient(EXPORT, "unlink", "/new.vmdk").value("result")),
              "Java's refusal fails the remove");
        checkEquals(List.of("remove|" + EXPORT + "|" + renamed), n.takeCalls(),
                    "removeRedirectedFile from the server process");

        // The server's lines for this client's requests come back here.
        n.clearLogs();
        checkEquals(1, n.getMountInfo(h, false, true), "getMountInfo counts the export in the server process");
        check(n.hasLogFromLibraryThread("jni-server-1") && n.hasLog("raw", "jni-server-1", EXPORT),
              "the server process's detail line reached Java through the callback channel: " + n.logs());

        n.stopServer(h);
        check(n.isServerRunning(h), "stopServer in client mode leaves the server process running");
        n.stopLoop(loop);
        n.stopRemoteController(h);
        check(!Files.exists(Path.of("/tmp/nfs-" + ID)), "the callback channel is gone");
    }
}
