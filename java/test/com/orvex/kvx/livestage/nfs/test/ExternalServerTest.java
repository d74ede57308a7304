package com.orvex.kvx.livestage.nfs.test;

import static com.orvex.kvx.livestage.nfs.test.TestKit.check;
import static com.orvex.kvx.livestage.nfs.test.TestKit.checkEquals;
import static com.orvex.kvx.livestage.nfs.test.TestKit.checkIOException;

import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;

/**
 * Access mode 1: the Java process is the external server. A second process
 * (the IPC client program) drives it over /tmp/nfs-server; the requests run
 * on the library's IPC thread, whose log lines reach Java through the loop's
 * callback, and the NFS clients' changes to a redirected file that Java
 * opened are answered by Java.
 */
public final class ExternalServerTest {
    private static final String ID = "jni-external";
    private static final String DRIVER = "jni-driver";

    public static void main(String[] args) throws Exception {
        TestKit.begin();
        RecordingNative n = new RecordingNative();
        checkIOException("Cannot use \"server\" as ID", () -> n.initial("server", 1, 3), "the ID server is refused");
        checkIOException("Invalid char \"/\" inside ID", () -> n.initial("a/b", 1, 3), "an ID with / is refused");
        checkIOException("Invalid char \" \" inside ID", () -> n.initial("a b", 1, 3), "an ID with a blank is refused");

        long h = n.initial(ID, 1, 1 | 2);
        checkEquals(1, n.getAccessMode(h), "access mode 1");
        checkEquals("External NFS Server", n.getDescription(h), "description");
        check(n.startRemoteController(h), "startRemoteController opens the server channel");
        check(Files.exists(Path.of("/tmp/nfs-server")), "the channel /tmp/nfs-server exists");

        // A second external server on this machine is refused.
        RecordingNative other = new RecordingNative();
        long h2 = other.initial("jni-external-2", 1, 1);
        checkIOException("Ipc channel is already created by others.", () -> other.startRemoteController(h2),
                         "a second external server");
        other.terminate(h2);

        Thread loop = n.startLoop(h);
        n.clearLogs();

        checkEquals("1.4", TestKit.ipcDriver(DRIVER, "version").text("result"), "the driver reads the version");
        checkEquals("External NFS Server", TestKit.ipcDriver(DRIVER, "description").text("result"),
                    "the driver reads the description");
        checkEquals("1", TestKit.ipcDriver(DRIVER, "status").value("result"), "status before the start");
        TestKit.Result start = TestKit.ipcDriver(DRIVER, "start");
        checkEquals("1", start.value("result"), "the driver starts the NFS server in the Java process");
        check(n.isServerRunning(h), "Java sees the server running");
        checkEquals(3, n.getServerStatus(h), "Java's status is running");
        checkEquals("3", TestKit.ipcDriver(DRIVER, "status").value("result"), "the driver's status is running");
        // The operator's console asks the Java process for its status too.
        TestKit.Result query = TestKit.console("-query");
        checkEquals(0, query.status, "nfsengine -query exits 0");
        check(query.output.contains("Server Description: External NFS Server"),
              "nfsengine -query reaches the Java process");
        check(query.output.contains("Server Status: Started"), "nfsengine -query sees its NFS server started");

        Path root = TestKit.tempDir("jni-ext-export");
        TestKit.Result bad = TestKit.ipcDriver(DRIVER, "addmount", root.toString(), "a b");
        checkEquals("0", bad.value("result"), "a bad export name fails over IPC");
        checkEquals("Invalid char \" \" inside export name", bad.text("error"), "with the controller's text");
        TestKit.Result quick = TestKit.ipcDriver(DRIVER, "quicktest", root.toString(), "3");
        checkEquals("Unknown mode (3)", quick.text("error"), "quick test failure text over IPC");
        checkEquals("0", TestKit.ipcDriver(DRIVER, "shutdown").value("result"),
                    "a shutdown request is refused: auto-shutdown is not enabled in the Java process");
        check(n.isServerRunning(h), "still running after the refused shutdown");

        // Java exports a folder with a redirected file and answers the changes.
        check(n.addMountPoint(h, root.toString(), "vmstore"), "Java adds an export");
        checkEquals(1, n.getMountInfo(h, false, false), "one export");
        Path source = root.resolve("source.bin");
        byte[] bytes = InternalServerTest.random(40_000, 3);
        Files.write(source, bytes);
        Path disk = root.resolve("disk.vmdk");
        Files.write(disk, new byte[] {9});
        n.openRedirectedFile(h, disk.toString(), 40_000, false, 0, 0);
        n.addRedirectedFileSegment(h, disk.toString(), source.toString(), 0, 0, 40_000);
        Path copy = TestKit.tempDir("jni-ext-copy").resolve("copy.bin");
        checkEquals(0, TestKit.nfsClient("vmstore", "read", "/disk.vmdk", copy.toString()).status, "client read");
        check(java.util.Arrays.equals(bytes, Files.readAllBytes(copy)), "read byte for byte");
        n.writeAnswer = 512;
        TestKit.Result write = TestKit.nfsClient("vmstore", "write", "/disk.vmdk", "100", "700");
        checkEquals("512", write.value("count"), "Java's answer is the WRITE count");
        checkEquals(List.of("write|vmstore|" + disk + "|100|0|700"), n.takeCalls(), "writeRedirectedFile fields");

        // Lines of the IPC thread reached Java with this server's ID.
        check(n.hasLogFromLibraryThread(ID), "log lines of the IPC thread reached Java with this server's ID");
        check(n.hasLogFromLibraryThread("127.0.0.1"), "log lines of the NFS threads reached Java");

        n.stopLoop(loop);
        n.stopServer(h);
        check(!n.isServerRunning(h), "stopped");
        n.stopRemoteController(h);
        check(!Files.exists(Path.of("/tmp/nfs-server")), "the channel is gone after stopRemoteController");
        checkEquals("\"Unknown\"", "\"" + TestKit.ipcDriver(DRIVER, "version").text("result") + "\"",
                    "the driver reaches nobody afterwards");
        n.terminate(h);
        TestKit.finish();
    }
}
