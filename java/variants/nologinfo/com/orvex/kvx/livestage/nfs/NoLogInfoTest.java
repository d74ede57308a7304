package com.orvex.kvx.livestage.nfs;

import java.io.IOException;

/**
 * An object without "logInfo" still takes the engine's info lines: they are
 * lost, not printed (the runner checks the output). Lines made outside a
 * callback scope go to standard output as before.
 */
public final class NoLogInfoTest {
    public static void main(String[] args) throws Exception {
        NfsLibNative n = new NfsLibNative();
        long h = n.initial("jni-nologinfo", 5, 3);
        int failed = 0;
        if (h == 0) failed++;
        // General-info line, inside a callback scope: goes to the missing method.
        boolean started = n.startRemoteController(h);
        System.out.println((started ? "ok" : "FAIL") + " - startRemoteController is true");
        if (!started) failed++;
        // Outside a callback scope: printed by the engine.
        n.stopRemoteController(h);
        // An error line still reaches "logError", which exists.
        try {
            n.addMountPoint(h, "/nonexistent-folder-of-the-test", "a b");
            failed++;
        } catch (IOException e) {
            System.out.println("ok - addMountPoint throws: " + e.getMessage());
        }
        n.terminate(h);
        System.out.println("logError lines: " + n.errors.size());
        System.out.println((failed == 0 ? 1 : 0) + " passed, " + failed + " failed");
        System.exit(failed == 0 ? 0 : 1);
    }
}
