package com.orvex.kvx.livestage.nfs.test;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.TimeUnit;

/** Checks that print what they check, and the exit status of a test program. */
final class TestKit {
    private static int passed;
    private static int failed;

    private TestKit() {}

    /** A test that dies of an exception in any thread fails at once. */
    static void begin() {
        Thread.setDefaultUncaughtExceptionHandler((t, e) -> {
            e.printStackTrace();
            System.out.println("FAIL - uncaught " + e + " in " + t.getName());
            System.out.flush();
            Runtime.getRuntime().halt(1);
        });
    }

    static void check(boolean condition, String what) {
        if (condition) {
            passed++;
            System.out.println("ok - " + what);
        } else {
            failed++;
            System.out.println("FAIL - " + what);
        }
    }

    static void checkEquals(Object expected, Object actual, String what) {
        boolean same = expected == null ? actual == null : expected.equals(actual);
        check(same, what + (same ? "" : " (expected <" + expected + ">, got <" + actual + ">)"));
    }

    /** Runs body and checks that it throws an IOException with exactly text. */
    static void checkIOException(String text, ThrowingRunnable body, String what) {
        try {
            body.run();
            check(false, what + ": no IOException");
        } catch (IOException e) {
            checkEquals(text, e.getMessage(), what + ": IOException text");
        } catch (Throwable t) {
            check(false, what + ": unexpected " + t);
        }
    }

    interface ThrowingRunnable {
        void run() throws Exception;
    }

    /** Prints the counts and exits 0 only when every check passed. */
    static void finish() {
        System.out.println(passed + " passed, " + failed + " failed");
        System.out.flush();
        System.exit(failed == 0 && passed > 0 ? 0 : 1);
    }

    static Path tempDir(String prefix) throws IOException {
        return Files.createTempDirectory(prefix);
    }

    /** Output and exit status of a child process, which must end within a minute. */
    static final class Result {
        final int status;
        final String output;

        Result(int status, String output) {
            this.status = status;
            this.output = output;
        }

        /** The value of "key=" in the output, or null. */
        String value(String key) {
            for (String word : output.split("\\s+")) {
                if (word.startsWith(key + "=")) return word.substring(key.length() + 1);
            }
            return null;
        }

        /** The quoted text of key="..." that ends its line, or null. */
        String text(String key) {
            java.util.regex.Matcher m =
                java.util.regex.Pattern.compile("(?m)\\b" + key + "=\"(.*)\"$").matcher(output);
            return m.find() ? m.group(1) : null;
        }
    }

    /** The IPC client program that drives an external server. */
    static Result ipcDriver(String id, String... args) throws Exception {
        List<String> command = new ArrayList<>();
        command.add(property("nfsengine.ipcdriver"));
        command.add(id);
        command.addAll(Arrays.asList(args));
        return run(command.toArray(new String[0]));
    }

    /**
     * The console program. It finds the engine's library beside the one this
     * JVM loaded (a build under /tmp is reached through copies).
     */
    static Result console(String... args) throws Exception {
        List<String> command = new ArrayList<>();
        command.add(property("nfsengine.console"));
        command.addAll(Arrays.asList(args));
        ProcessBuilder pb = processBuilder(command.toArray(new String[0]));
        pb.environment().put("LD_LIBRARY_PATH",
                             java.nio.file.Path.of(property("nfsengine.library")).getParent().toString());
        return run(pb, command.toArray(new String[0]));
    }

    /**
     * A child process of the test. A sanitizer runtime preloaded into the JVM
     * is not passed on: the children are sanitized programs with their own.
     */
    static ProcessBuilder processBuilder(String... command) {
        ProcessBuilder pb = new ProcessBuilder(command);
        pb.environment().remove("LD_PRELOAD");
        pb.redirectErrorStream(true);
        return pb;
    }

    static Result run(String... command) throws Exception {
        return run(processBuilder(command), command);
    }

    static Result run(ProcessBuilder pb, String... command) throws Exception {
        Process p = pb.start();
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        try (InputStream in = p.getInputStream()) {
            in.transferTo(out);
        }
        if (!p.waitFor(60, TimeUnit.SECONDS)) {
            p.destroyForcibly();
            throw new IOException("timeout: " + Arrays.toString(command));
        }
        String text = out.toString();
        System.out.println("  $ " + String.join(" ", command) + " -> " + p.exitValue() + ": " + text.trim());
        return new Result(p.exitValue(), text);
    }

    /** The libnfs client helper against the export on 127.0.0.1. */
    static Result nfsClient(String exportName, String... args) throws Exception {
        List<String> command = new ArrayList<>();
        command.add(System.getProperty("nfsengine.client"));
        command.add(exportName);
        command.addAll(Arrays.asList(args));
        return run(command.toArray(new String[0]));
    }

    static String property(String name) {
        String value = System.getProperty(name);
        if (value == null) throw new IllegalStateException("system property " + name + " is not set");
        return value;
    }

    static Path path(String first, String... more) {
        return Paths.get(first, more);
    }
}
