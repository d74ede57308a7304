package com.orvex.kvx.livestage.nfs.test;

import com.orvex.kvx.livestage.nfs.NfsLibNative;
import java.util.ArrayList;
import java.util.List;

/**
 * Records every callback with the thread that made it, and answers the
 * change notifications with preset values.
 */
class RecordingNative extends NfsLibNative {
    private final List<String> calls = new ArrayList<>();
    private final List<String> logs = new ArrayList<>();
    private final List<String> logThreads = new ArrayList<>();
    volatile boolean interrupted;
    volatile int isInterruptedCalls;
    volatile int writeAnswer = -1;
    volatile int attributesAnswer = 0;
    volatile int removeAnswer = 0;
    volatile int renameAnswer = 0;
    volatile boolean throwFromLog;

    @Override
    public boolean isInterrupted() {
        isInterruptedCalls++;
        return interrupted;
    }

    private synchronized void log(String kind, String id, String text) {
        logs.add(kind + "|" + id + "|" + text);
        logThreads.add(Thread.currentThread().getName());
    }

    @Override
    public void logInfo(String id, String text) {
        log("info", id, text);
        if (throwFromLog) throw new IllegalStateException("thrown by logInfo");
    }

    @Override
    public void logError(String id, String text) {
        log("error", id, text);
    }

    @Override
    public void logRaw(String id, String text) {
        log("raw", id, text);
    }

    @Override
    public synchronized int setRedirectedFileAttributes(String id, String path, boolean bSize, long iSize,
                                                        boolean bAccessTime, long lAccessTimeSec,
                                                        boolean bLastModifiedTime, long lLastModifiedTimeSec) {
        calls.add("attributes|" + id + "|" + path + "|" + bSize + "|" + iSize + "|" + bAccessTime + "|"
                  + lAccessTimeSec + "|" + bLastModifiedTime + "|" + lLastModifiedTimeSec);
        return attributesAnswer;
    }

    @Override
    public synchronized int removeRedirectedFile(String id, String path) {
        calls.add("remove|" + id + "|" + path);
        return removeAnswer;
    }

    @Override
    public synchronized int renameRedirectedFile(String id, String pathFrom, String pathTo) {
        calls.add("rename|" + id + "|" + pathFrom + "|" + pathTo);
        return renameAnswer;
    }

    @Override
    public synchronized int writeRedirectedFile(String id, String path, long iSeek, int iSeekType, int iLen) {
        calls.add("write|" + id + "|" + path + "|" + iSeek + "|" + iSeekType + "|" + iLen);
        return writeAnswer;
    }

    synchronized List<String> takeCalls() {
        List<String> copy = new ArrayList<>(calls);
        calls.clear();
        return copy;
    }

    synchronized List<String> logs() {
        return new ArrayList<>(logs);
    }

    synchronized List<String> logThreads() {
        return new ArrayList<>(logThreads);
    }

    synchronized boolean hasLog(String kind, String id, String contains) {
        for (String line : logs) {
            String[] f = line.split("\\|", 3);
            if (f[0].equals(kind) && f[1].equals(id) && f[2].contains(contains)) return true;
        }
        return false;
    }

    /** True when a line with this ID came on a thread that Java did not start (one the library attached). */
    synchronized boolean hasLogFromLibraryThread(String id) {
        for (int i = 0; i < logs.size(); i++) {
            String thread = logThreads.get(i);
            if (logs.get(i).split("\\|", 3)[1].equals(id) && !thread.equals("main") && !thread.equals("callback-loop"))
                return true;
        }
        return false;
    }

    synchronized void clearLogs() {
        logs.clear();
        logThreads.clear();
    }

    /** Runs receiveCallbackLoop(handle, -1) in a thread of its own until stopLoop. */
    Thread startLoop(long handle) throws InterruptedException {
        interrupted = false;
        int before = isInterruptedCalls;
        Thread t = new Thread(() -> receiveCallbackLoop(handle, -1), "callback-loop");
        t.setDaemon(true);
        t.start();
        // Installed once the loop asked for the first time.
        for (int i = 0; i < 500 && isInterruptedCalls == before; i++) Thread.sleep(10);
        return t;
    }

    void stopLoop(Thread t) throws InterruptedException {
        interrupted = true;
        t.join(10000);
    }
}
