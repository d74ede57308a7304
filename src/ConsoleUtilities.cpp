#include "ConsoleUtilities.h"

#include <fcntl.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "FileLogger.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "NfsMain.h"
#include "RuntimeParam.h"
#include "Utilities.h"

namespace {

const char* const VERSION = "1.4";
const char* const DASHES = "------------------------------------";
const char* const HELP = "help";
const char* const PROMPT = "Command";

enum AccessMode { MODE_INTERNAL = 0, MODE_SERVER = 1, MODE_CLIENT = 2 };

// Everything one run of the console is told on its command line.
struct Options {
    std::string id = "cRun";
    bool idGiven = false;
    int logControl = 0;
    int accessMode = MODE_SERVER;
    bool modeGiven = false;
    std::string logFile;
    std::string pidFile;
    std::string testPath;
    long long testSize = 0;
    bool shutdown = false;
    bool query = false;
    bool test = false;
};

// Copies at most limit characters of text.
std::string Bounded(const std::string& text, size_t limit) { return text.size() > limit ? text.substr(0, limit) : text; }

void PrintPrompt() {
    printf("\n%s: ", PROMPT);
    fflush(stdout);
}

void PrintTypeHelp() { printf("Type '%s' to see help\n", HELP); }

// The words of text between blanks (runs of blanks count as one).
std::vector<std::string> SplitWords(const char* text) {
    std::vector<std::string> words;
    std::vector<std::string> pieces;
    CUtilities::SplitIntoVector(text, ' ', pieces);
    for (const std::string& p : pieces)
        if (!p.empty()) words.push_back(p);
    return words;
}

// A port of the start command: a decimal number from 0 to 65535.
bool ParsePort(const char* text, int& port) {
    char* end = nullptr;
    errno = 0;
    long n = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || n < 0 || n > 65535) return false;
    port = (int)n;
    return true;
}

// The argument of a command: the text after prefix when line starts with
// it and is longer, else null.
const char* ArgumentOf(const char* line, const char* prefix) {
    size_t n = strlen(prefix);
    if (strncmp(line, prefix, n) != 0 || strlen(line) <= n) return nullptr;
    return line + n;
}

// SIGTERM and SIGINT end the interactive loop like "quit", so that the
// pid file and the IPC socket file are removed (systemd stops the external
// server with SIGTERM). They are blocked in every thread and collected by
// the loop, so no server thread is interrupted or killed by them.
sigset_t StopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

bool StopSignalPending() {
    sigset_t set = StopSignals();
    timespec zero{0, 0};
    return sigtimedwait(&set, nullptr, &zero) > 0;
}

// The controller of a placement, or null for an unknown one.
CNfsMain* CreateController(int accessMode, const char* id, int logControl) {
    switch (accessMode) {
    case MODE_INTERNAL:
        return new CNfsMain(id, logControl);
    case MODE_SERVER:
        return new CNfsIpcServerMain(id, logControl);
    case MODE_CLIENT:
        return new CNfsIpcClientMain(id, logControl);
    default:
        return nullptr;
    }
}

}  // namespace

// ---- options and the run -------------------------------------------------

int CConsoleUtilities::Run(const char* programName, const char* arguments) {
    std::vector<std::string> words;
    CUtilities::SplitIntoVector(arguments, '\n', words);
    Options o;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& w = words[i];
        // An option that takes a value and comes last is given the empty value.
        const bool hasValue = i + 1 < words.size();
        const std::string value = hasValue ? words[i + 1] : std::string();
        if (w == "-help") {
            PrintUsage(programName);
            return 0;
        } else if (w == "-shutdown") {
            o.shutdown = true;
        } else if (w == "-query") {
            o.query = true;
        } else if (w == "-id") {
            o.id = Bounded(value, NAME_TEXT_SIZE - 1);
            o.idGiven = true;
            ++i;
        } else if (w == "-log") {
            o.logControl = atoi(value.c_str());
            ++i;
        } else if (w == "-md") {
            if (value == "int") {
                o.accessMode = MODE_INTERNAL;
            } else if (value == "svr") {
                o.accessMode = MODE_SERVER;
            } else if (value == "cli") {
                o.accessMode = MODE_CLIENT;
            } else {
                printf("Un-supported mode: %s\n", "-md");
                return 1;
            }
            o.modeGiven = true;
            ++i;
        } else if (w == "-logfile") {
            o.logFile = Bounded(value, PATH_BUFFER_SIZE - 1);
            ++i;
        } else if (w == "-pidfile") {
            o.pidFile = Bounded(value, PATH_BUFFER_SIZE - 1);
            ++i;
        } else if (w == "-test") {
            std::string left(value.size() + 1, '\0'), right(value.size() + 1, '\0');
            if (!SplitValue(nullptr, value.c_str(), &left[0], &right[0])) {
                printf("In-valid test mode value: %s\n", value.c_str());
                return 1;
            }
            o.testPath = Bounded(left.c_str(), PATH_BUFFER_SIZE - 1);
            o.testSize = atoll(right.c_str());
            o.test = true;
            ++i;
        } else {
            ++i;  // an unknown word takes the next one with it
        }
    }
    if (!o.modeGiven) o.accessMode = (o.shutdown || o.query) ? MODE_CLIENT : MODE_SERVER;
    if (!o.idGiven) {
        if (o.shutdown) o.id = "shRun";
        if (o.query) o.id = "qyRun";
        if (o.test) o.id = "tmRun";
    }

    char errText[ERROR_TEXT_SIZE] = "";
    if (!CreatePidFile(o.pidFile.c_str(), o.logControl, errText)) {
        printf("Fail to create pid file \"%s\". Reason=%s\n", o.pidFile.c_str(), errText);
        return 1;
    }
    if (o.accessMode != MODE_CLIENT && o.shutdown) {
        printf("Auto shutdown is activated, terminate now\n");
        RemovePidFile(o.pidFile.c_str(), o.logControl);
        return 0;
    }
    // The stop signals are blocked before any thread exists (the IPC
    // thread starts with the controller), so that every thread inherits the
    // mask and only the loop collects them.
    const bool interactive = !o.shutdown && !o.query && !o.test;
    sigset_t stop = StopSignals();
    sigset_t previous;
    if (interactive) pthread_sigmask(SIG_BLOCK, &stop, &previous);
    std::unique_ptr<CNfsMain> nfs(CreateController(o.accessMode, o.id.c_str(), o.logControl));
    if (!nfs) {
        printf("Un-supported access mode: %d\n", o.accessMode);
        RemovePidFile(o.pidFile.c_str(), o.logControl);
        if (interactive) pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        return 1;
    }
    if (o.accessMode != MODE_CLIENT) nfs->EnableAutoShutdown(true);

    std::unique_ptr<CFileLogger> logger;
    if (!o.logFile.empty()) {
        logger.reset(new CFileLogger(o.logFile.c_str()));
        if (logger->Open(o.logControl))
            nfs->SetFileLogger(logger.get());
        else
            printf("Fail to create log file: %s\n", o.logFile.c_str());
        CUtilities* utils = nfs->GetUtils();
        utils->LogInfo(nfs->GetRuntimeParam(), "ID = %s, LogControl = %d, AccessMode = %d", o.id.c_str(),
                       o.logControl, o.accessMode);
        if (!o.pidFile.empty()) utils->LogInfo(nfs->GetRuntimeParam(), "Create pid file \"%s\"", o.pidFile.c_str());
    }

    char version[NAME_TEXT_SIZE] = "";
    char description[NAME_TEXT_SIZE] = "";
    nfs->GetVersion(version);
    nfs->GetDescription(description);
    printf("%s\n", DASHES);
    printf("%s %s\n", "Execute Version:", VERSION);
    printf("%s %s\n", "Server Version:", version);
    printf("%s %s\n", "Server Description:", description);
    printf("%s\n", DASHES);

    bool ok = true;
    if (strcmp(version, "Unknown") == 0) {
        if (o.query) {
            printf("%s %s\n", "Server Status:", "NotAccessible");
            printf("%s\n", DASHES);
        } else {
            ok = false;
            snprintf(errText, sizeof errText, "%s", "Fail to get server version");
        }
    } else if (!nfs->Initial(errText)) {
        ok = false;
    } else if (!nfs->StartRemoteController(errText)) {
        nfs->Terminate();
        ok = false;
    } else {
        if (o.shutdown)
            nfs->RequestAutoShutdown();
        else if (o.query)
            PrintStatus(nfs.get());
        else if (o.test)
            nfs->RunTestMode(o.testPath.c_str(), o.testSize);
        else
            ProcessCommand(nfs.get());
        nfs->StopServer();
        nfs->StopRemoteController();
        nfs->Terminate();
    }

    if (!ok) printf("Terminated. Reason=%s\n", errText);
    fflush(stdout);
    nfs.reset();
    if (logger) logger->Close();
    logger.reset();
    RemovePidFile(o.pidFile.c_str(), o.logControl);
    if (interactive) pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return ok ? 0 : 1;
}

void CConsoleUtilities::PrintUsage(const char* programName) {
    printf("\n");
    printf("Usage: %s [%s]\n", programName, "-help");
    printf("       [%s]\n", "-shutdown");
    printf("       [%s]\n", "-query");
    printf("       [%s <path=max_file_size>]\n", "-test");
    printf("       [%s <name>] [%s <num>] [%s <%s|%s|%s>] [%s <path>] [%s <path>]\n", "-id", "-log", "-md", "int", "svr",
           "cli", "-logfile", "-pidfile");
}

// ---- the interactive loop --------------------------------------------------

void CConsoleUtilities::PrintCommandHelp(bool debugMode) {
    printf("==========================\n");
    printf("%s:\n", PROMPT);
    printf("  %s: display help\n", "help");
    printf("  %s: quit this program\n", "quit");
    printf("  %s<num>: display log messages or not\n", "log ");
    printf("  %s: show status\n", "status");
    if (debugMode) {
        printf("  %s<mount_port=nfs_port]: start server\n", "start");
        printf("  %s<path=exportName>: add mount point\n", "mount ");
        printf("  %s<path>: remove mount point\n", "umount ");
        printf("  %s<dirPath=fileSizeInByte>: run platform test on target path\n", "test ");
        printf("  %s<size>: set max log file size\n", "logfilesize ");
        printf("  %s<message>: print message to log\n", "print ");
        printf("  %s<num>: turn on/off debug action control in VRS\n", "debugaction ");
        printf("  %s<datastore MOID> <host> <port> <user> <password>: add VSphere info\n", "addvsphereinfo ");
        printf("  %s<datastore MOID>: remove VSphere info\n", "removevsphereinfo ");
        printf("  %s<path> <mode>: run quick test on target path / file\n", "qtest ");
        printf("  %s<cmd>: run system command\n", "exec ");
        printf("  %s<path> <user> <password>: add net device credential\n", "addnet ");
        printf("  %s<path>: remove net device credential\n", "removenet ");
    }
    printf("==========================\n");
}

void CConsoleUtilities::PrintStatus(CNfsMain* nfs) {
    printf("%s %s\n", "Server Status:", nfs->IsServerRunning() ? "Started" : "Stopped");
    printf("%s\n", DASHES);
    struct Block {
        const char* label;
        int (*list)(CNfsMain*, bool details);
    };
    const Block blocks[] = {
        {"Number of Mount Point:", [](CNfsMain* n, bool d) { return n->GetMountInfo(false, d); }},
        {"Number of Session:", [](CNfsMain* n, bool d) { return n->GetSessionInfo(d); }},
        {"Number of mounted NFS datastore:", [](CNfsMain* n, bool d) { return n->GetVSphereInfo(d); }},
        {"Number of Net Device info:", [](CNfsMain* n, bool d) { return n->GetNetDeviceCredential(d); }},
    };
    for (const Block& b : blocks) {
        int count = b.list(nfs, false);
        printf("%s %d\n", b.label, count);
        if (count > 0) {
            fflush(stdout);
            b.list(nfs, true);
            printf("\n");
        }
        printf("%s\n", DASHES);
    }
    fflush(stdout);
}

void CConsoleUtilities::ProcessCommand(CNfsMain* nfs) {
    sigset_t stop = StopSignals();
    sigset_t previous;
    pthread_sigmask(SIG_BLOCK, &stop, &previous);

    CUtilities* utils = nfs->GetUtils();
    CRuntimeParam* rp = nfs->GetRuntimeParam();
    bool debugMode = false;
    char line[COMMAND_TEXT_SIZE];
    char errText[ERROR_TEXT_SIZE];
    printf("Type '%s' to see help\n", HELP);
    PrintPrompt();
    while (true) {
        if (nfs->IsAutoShutdownRequested() || StopSignalPending()) {
            printf("\nExit by request\n");
            break;
        }
        if (!IsKeyboardHit()) {
            MsSleep(100);
            continue;
        }
        if (fgets(line, sizeof line, stdin) == nullptr) {
            clearerr(stdin);
            continue;
        }
        size_t len = strlen(line);
        if (len > 0 && line[len - 1] == '\n') line[--len] = '\0';
        errText[0] = '\0';
        // Both halves of a "left=right" argument fit in a line.
        char left[COMMAND_TEXT_SIZE];
        char right[COMMAND_TEXT_SIZE];
        const char* arg = nullptr;
        bool prompt = true;

        if (strcmp(line, "help") == 0) {
            PrintCommandHelp(debugMode);
        } else if (strcmp(line, "quit") == 0) {
            printf("\nExit\n");
            break;
        } else if ((arg = ArgumentOf(line, "log "))) {
            nfs->SetLogControl(atoi(arg));
        } else if (strcmp(line, "status") == 0) {
            printf("\n");
            PrintStatus(nfs);
        } else if (strcmp(line, "debug") == 0) {
            debugMode = true;
        } else if (debugMode && (strcmp(line, "start") == 0 || (arg = ArgumentOf(line, "start ")))) {
            int mountPort = 0;
            int nfsPort = 0;
            if (arg && !(SplitValue(utils, arg, left, right) && ParsePort(left, mountPort) &&
                         ParsePort(right, nfsPort))) {
                printf("Fail to start NFS. Reason=In-valid input value: %s\n", arg);
                prompt = false;
            } else if (nfs->IsServerRunning()) {
                printf("NFS already running\n");
            } else if (nfs->StartServer(mountPort, nfsPort, 0, 0, false, errText)) {
                printf("Start NFS success\n");
            } else {
                printf("Fail to start NFS. %s\n", errText);
            }
        } else if (debugMode && (arg = ArgumentOf(line, "mount "))) {
            if (!SplitValue(utils, arg, left, right))
                printf("Fail to add mount point to NFS. Reason=In-valid input value: %s\n", arg);
            else if (!nfs->AddMountPoint(left, right, errText))
                printf("Fail to add mount point to NFS. Reason=%s\n", errText);
        } else if (debugMode && (arg = ArgumentOf(line, "umount "))) {
            nfs->RemoveMountPoint(arg);
        } else if (debugMode && (arg = ArgumentOf(line, "test "))) {
            if (!SplitValue(utils, arg, left, right)) {
                printf("Fail to run test. Reason=In-valid input value: %s\n", arg);
                prompt = false;
            } else {
                nfs->RunTestMode(left, atoll(right));
            }
        } else if (debugMode && (arg = ArgumentOf(line, "logfilesize "))) {
            CFileLogger* logger = utils->GetFileLogger();
            if (logger) {
                printf("Current max log file size: %llu\n", (unsigned long long)logger->GetMaxLogSize());
                logger->SetMaxLogSize(atoll(arg));
                printf("Updated max log file size: %llu\n", (unsigned long long)logger->GetMaxLogSize());
            } else {
                utils->LogInfo(rp, "%s", "No file logger is defined");
            }
        } else if (debugMode && (arg = ArgumentOf(line, "print "))) {
            utils->LogInfo(rp, "%s", arg);
        } else if (debugMode && (arg = ArgumentOf(line, "debugaction "))) {
            nfs->SetDebugActionEnabled(atoi(arg) != 0);
            printf("Current Server Status=%d\n", nfs->GetServerStatus());
        } else if (debugMode && (arg = ArgumentOf(line, "addvsphereinfo "))) {
            std::vector<std::string> w = SplitWords(arg);
            if (w.size() >= 5)
                nfs->AddVSphereInfo(w[0].c_str(), w[1].c_str(), w[2].c_str(), w[3].c_str(), w[4].c_str());
            else
                printf("Fail to add VSphere info to NFS. Reason=In-valid input value: %s\n", arg);
        } else if (debugMode && (arg = ArgumentOf(line, "removevsphereinfo "))) {
            nfs->RemoveVSphereInfo(arg);
        } else if (debugMode && (arg = ArgumentOf(line, "qtest "))) {
            std::vector<std::string> w = SplitWords(arg);
            if (w.size() < 2)
                printf("Fail to run quick test. Reason=In-valid input value: %s\n", arg);
            else if (nfs->RunQuickTestMode(w[0].c_str(), atoi(w[1].c_str()), errText))
                printf("Quick test OK\n");
            else
                printf("Quick test FAIL. %s\n", errText);
        } else if (debugMode && (arg = ArgumentOf(line, "exec "))) {
            printf("Return code: %d\n", nfs->ExecuteSystemCmd(arg, true));
        } else if (debugMode && (arg = ArgumentOf(line, "addnet "))) {
            std::vector<std::string> w = SplitWords(arg);
            if (w.size() >= 3)
                printf("%s\n", nfs->AddNetDeviceCredential(w[0].c_str(), w[1].c_str(), w[2].c_str()) ? "Done" : "Failed");
            else
                printf("Fail to add net device credential to NFS. Reason=In-valid input value: %s\n", arg);
        } else if (debugMode && (arg = ArgumentOf(line, "removenet "))) {
            printf("%s\n", nfs->RemoveNetDeviceCredential(arg) ? "Done" : "Failed");
        } else if (line[0] != '\0') {
            printf("Unknown command: '%s'\n", line);
            PrintTypeHelp();
        }
        if (prompt)
            PrintPrompt();
        else
            fflush(stdout);
    }
    fflush(stdout);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

bool CConsoleUtilities::SplitValue(CUtilities*, const char* text, char* left, char* right) {
    std::vector<std::string> pieces;
    CUtilities::SplitIntoVector(text, '=', pieces);
    if (pieces.size() < 2) return false;
    // Each piece is part of text, so it fits where text would.
    memcpy(left, pieces[0].c_str(), pieces[0].size() + 1);
    memcpy(right, pieces[1].c_str(), pieces[1].size() + 1);
    return true;
}

bool CConsoleUtilities::IsKeyboardHit() {
    termios saved;
    const bool terminal = tcgetattr(STDIN_FILENO, &saved) == 0;
    if (terminal) {
        termios raw = saved;
        raw.c_lflag &= ~(ICANON | ECHO);
        raw.c_cc[VMIN] = 1;
        raw.c_cc[VTIME] = 0;
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    const int flags = fcntl(STDIN_FILENO, F_GETFL, 0);
    if (flags != -1) fcntl(STDIN_FILENO, F_SETFL, flags | O_NONBLOCK);
    const int c = getchar();
    if (terminal) tcsetattr(STDIN_FILENO, TCSANOW, &saved);
    if (flags != -1) fcntl(STDIN_FILENO, F_SETFL, flags);
    if (c == EOF) {
        // Nothing yet, or the end of a pipe or file: keep polling, so that
        // an external server with no input (systemd) runs on.
        clearerr(stdin);
        return false;
    }
    ungetc(c, stdin);
    return true;
}

void CConsoleUtilities::MsSleep(int ms) {
    timespec t{ms / 1000, (long)(ms % 1000) * 1000000L};
    while (nanosleep(&t, &t) == -1 && errno == EINTR) {
    }
}

// ---- pid file ----------------------------------------------------------------

bool CConsoleUtilities::CreatePidFile(const char* path, int logControl, char* errText) {
    if (path == nullptr || *path == '\0') return true;
    CUtilities utils;
    CRuntimeParam rp("", logControl | CRuntimeParam::LOG_ERROR);
    LogArgu la{"CConsoleUtilities.CreatePidFile"};
    if (CUtilities::OS_IsFileExists(path, nullptr)) {
        int fd = utils.OS_FileOpen(&rp, &la, path, O_RDONLY, false, errText);
        if (fd == -1) return false;
        char text[256] = "";
        int n = utils.OS_FileRead(&rp, &la, fd, text, sizeof text - 1, errText);
        utils.OS_FileClose(&rp, &la, path, fd, nullptr);
        // Unreadable (a folder, say): not ours to replace.
        if (n < 0) return false;
        size_t len = (size_t)n;
        text[len] = '\0';
        if (len > 0 && text[len - 1] == '\n') text[--len] = '\0';
        if (len > 0 && text[len - 1] == '\r') text[--len] = '\0';
        if (len > 0) {
            // Text that is no number probes process 0, which always answers.
            long pid = strtol(text, nullptr, 10);
            if (pid > INT_MAX) pid = INT_MAX;
            if (pid < INT_MIN) pid = INT_MIN;
            if (kill((pid_t)pid, 0) == 0) {
                snprintf(errText, ERROR_TEXT_SIZE, "Process ID \"%d\" is still running", (int)pid);
                return false;
            }
        }
        if (utils.OS_FileRemove(&rp, &la, path, errText) == -1) return false;
    }
    int fd = utils.OS_FileForceOpen(&rp, &la, path, errText);
    if (fd == -1) {
        utils.LogError(&rp, "Fail to create pid file \"%s\". Reason=%s", path, errText);
        return false;
    }
    char text[32];
    int len = snprintf(text, sizeof text, "%d\n", (int)getpid());
    int written = utils.OS_FileWrite(&rp, &la, fd, text, (unsigned int)len, errText);
    utils.OS_FileClose(&rp, &la, path, fd, nullptr);
    return written == len;
}

void CConsoleUtilities::RemovePidFile(const char* path, int logControl) {
    if (path == nullptr || *path == '\0' || !CUtilities::OS_IsFileExists(path, nullptr)) return;
    CUtilities utils;
    CRuntimeParam rp("", logControl | CRuntimeParam::LOG_ERROR);
    LogArgu la{"CConsoleUtilities.RemovePidFile"};
    utils.OS_FileRemove(&rp, &la, path, nullptr);
}
