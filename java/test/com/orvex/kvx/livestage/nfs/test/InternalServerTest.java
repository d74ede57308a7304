package com.orvex.kvx.livestage.nfs.test;

import static com.orvex.kvx.livestage.nfs.test.TestKit.check;
import static com.orvex.kvx.livestage.nfs.test.TestKit.checkEquals;
import static com.orvex.kvx.livestage.nfs.test.TestKit.checkIOException;

import java.net.InetAddress;
import java.net.ServerSocket;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import java.util.Random;

/**
 * The server inside the Java process (access mode 5, any mode but 1 and 2)
 * on its private loopback: a real NFS client reads a redirected file
 * assembled from segments and changes it, and the Java callbacks receive
 * the changes while a Java thread runs receiveCallbackLoop.
 */
public final class InternalServerTest {
    private static final String ID = "jni-internal";
    // The file service names the export as the ID of its notifications.
    private static final String EXPORT = "vmstore";

    public static void main(String[] args) throws Exception {
        TestKit.begin();
        RecordingNative n = new RecordingNative();
        long h = n.initial(ID, 5, 1 | 2 | 8);
        check(n.startRemoteController(h), "startRemoteController is a no-op success in-process");

        // A busy NFS port fails the start with the controller's text.
        try (ServerSocket busy = new ServerSocket(2049, 1, InetAddress.getLoopbackAddress())) {
            checkIOException("NFS daemon failed to open port 2049", () -> n.startServer(h, 0, 0, false),
                             "startServer with port 2049 taken");
        }
        check(!n.isServerRunning(h), "not running after the failed start");
        check(n.startServer(h, 0, 0, false), "startServer on the default ports");
        check(n.isServerRunning(h), "running");
        checkEquals(3, n.getServerStatus(h), "status while running");

        Path root = TestKit.tempDir("jni-export");
        Path sources = TestKit.tempDir("jni-sources");
        check(n.addMountPoint(h, root.toString(), EXPORT), "addMountPoint");

        // Two source files; the disk is source A's bytes 100..(100+70000),
        // a hole of 5000 bytes, then source B from offset 7 for 30000 bytes.
        byte[] a = random(200_000, 1);
        byte[] b = random(50_000, 2);
        Path srcA = sources.resolve("a.bin");
        Path srcB = sources.resolve("b.bin");
        Files.write(srcA, a);
        Files.write(srcB, b);
        Path disk = root.resolve("disk.vmdk");
        Files.write(disk, new byte[0]);
        int size = 70_000 + 5_000 + 30_000;
        n.openRedirectedFile(h, disk.toString(), size, true, 0, 0);
        n.addRedirectedFileSegment(h, disk.toString(), srcA.toString(), 100, 0, 70_000);
        n.addRedirectedFileSegment(h, disk.toString(), srcB.toString(), 7, 75_000, 30_000);
        byte[] infoRecords = Files.readAllBytes(disk);
        check(infoRecords.length > 0, "the segments went to the info file, the local file of that name");
        Path second = root.resolve("second.vmdk");
        Path third = root.resolve("third.vmdk");
        for (Path p : new Path[] {second, third}) {
            Files.write(p, new byte[] {1, 2, 3});
            n.openRedirectedFile(h, p.toString(), 1000, false, 0, 0);
        }
        byte[] expected = new byte[size];
        System.arraycopy(a, 100, expected, 0, 70_000);
        System.arraycopy(b, 7, expected, 75_000, 30_000);

        // Without a callback installed, a write has nobody to answer it.
        TestKit.Result noLoop = TestKit.nfsClient(EXPORT, "write", "/disk.vmdk", "10", "100");
        check(!"0".equals(noLoop.value("status")), "a WRITE fails while no callback is installed");

        Thread loop = n.startLoop(h);
        n.clearLogs();
        n.takeCalls();

        Path copy = sources.resolve("copy.bin");
        TestKit.Result read = TestKit.nfsClient(EXPORT, "read", "/disk.vmdk", copy.toString());
        checkEquals(0, read.status, "the client read the redirected file");
        check(Arrays.equals(expected, Files.readAllBytes(copy)), "the client read the segments byte for byte");

        // WRITE: the exact fields reach Java and its answer is the count.
        n.writeAnswer = 1234;
        TestKit.Result write = TestKit.nfsClient(EXPORT, "write", "/disk.vmdk", "5000000000", "4000");
        checkEquals("0", write.value("status"), "WRITE succeeds");
        checkEquals("1234", write.value("count"), "Java's answer is the WRITE count");
        checkEquals(List.of("write|" + EXPORT + "|" + disk + "|5000000000|0|4000"), n.takeCalls(),
                    "writeRedirectedFile receives id, path, position, seek type and length");
        n.writeAnswer = -1;
        write = TestKit.nfsClient(EXPORT, "write", "/disk.vmdk", "0", "10");
        check(!"0".equals(write.value("status")), "a refused write fails the WRITE");
        n.takeCalls();
        check(Arrays.equals(infoRecords, Files.readAllBytes(disk)), "nothing was written locally");

        // SETATTR of the size, then of both times.
        TestKit.Result truncate = TestKit.nfsClient(EXPORT, "truncate", "/disk.vmdk", "3000000000");
        checkEquals("0", truncate.value("result"), "truncate accepted by Java");
        TestKit.Result utimes = TestKit.nfsClient(EXPORT, "utimes", "/disk.vmdk", "1111111111", "3222222222");
        checkEquals("0", utimes.value("result"), "utimes accepted by Java");
        checkEquals(List.of("attributes|" + EXPORT + "|" + disk + "|true|3000000000|false|0|false|0",
                            "attributes|" + EXPORT + "|" + disk + "|false|0|true|1111111111|true|3222222222"),
                    n.takeCalls(), "setRedirectedFileAttributes receives the flags, the size and the seconds");
        n.attributesAnswer = 5;
        truncate = TestKit.nfsClient(EXPORT, "truncate", "/disk.vmdk", "1");
        check(!"0".equals(truncate.value("result")), "a non-zero answer refuses the size change");
        n.takeCalls();

        // RENAME: accepted, then refused.
        n.renameAnswer = 0;
        Path moved = root.resolve("moved.vmdk");
        TestKit.Result rename = TestKit.nfsClient(EXPORT, "rename", "/second.vmdk", "/moved.vmdk");
        checkEquals("0", rename.value("result"), "an accepted rename succeeds");
        checkEquals(List.of("rename|" + EXPORT + "|" + second + "|" + moved), n.takeCalls(),
                    "renameRedirectedFile receives both paths");
        n.renameAnswer = 1;
        rename = TestKit.nfsClient(EXPORT, "rename", "/third.vmdk", "/gone.vmdk");
        check(!"0".equals(rename.value("result")), "a non-zero answer fails the rename");
        checkEquals(List.of("rename|" + EXPORT + "|" + third + "|" + root.resolve("gone.vmdk")), n.takeCalls(),
                    "renameRedirectedFile of the refused rename");

        // REMOVE: the answer decides the result.
        n.removeAnswer = 0;
        TestKit.Result unlink = TestKit.nfsClient(EXPORT, "unlink", "/moved.vmdk");
        checkEquals("0", unlink.value("result"), "an accepted remove succeeds");
        checkEquals(List.of("remove|" + EXPORT + "|" + moved), n.takeCalls(), "removeRedirectedFile receives the path");
        check(!Files.exists(moved), "the accepted remove removed the local file");

        // Log lines of the server's own threads reached Java through the loop's callback.
        check(n.hasLogFromLibraryThread("127.0.0.1"), "log lines from the server's threads reach logInfo");
        check(n.hasLog("info", "127.0.0.1", "READ") || n.hasLog("info", "127.0.0.1", "Read"),
              "a procedure-name line of a READ reached Java with the caller's address as ID");

        n.stopLoop(loop);
        check(!loop.isAlive(), "the loop ended after isInterrupted turned true");
        write = TestKit.nfsClient(EXPORT, "write", "/disk.vmdk", "0", "10");
        check(!"0".equals(write.value("status")), "after the loop, writes fail again");

        n.closeAllRedirectedFiles(h, root.toString());
        n.removeMountPoint(h, root.toString());
        n.stopServer(h);
        check(!n.isServerRunning(h), "stopped");
        n.stopRemoteController(h);
        n.terminate(h);
        TestKit.finish();
    }

    static byte[] random(int size, long seed) {
        byte[] bytes = new byte[size];
        new Random(seed).nextBytes(bytes);
        return bytes;
    }
}
