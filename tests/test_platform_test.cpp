// The platform test (RunTestMode) and the quick test (RunQuickTestMode) on
// real folders: full reports, start conditions and forced failures.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "LogRecorder.h"
#include "PrivateMounts.h"
#include "TestSupport.h"
#include "Utilities.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const char* const START_LINE = "=============================== START TEST ===============================";
const char* const ATTRIBUTES_LINE = "------------------------ ATTRIBUTES of file system -----------------------";
const char* const FILE_IO_LINE = "-------------------------------- FILE IO ---------------------------------";
const char* const END_LINE = "================================ END TEST ================================";

std::string ErrorText(int errnum) {
    char text[ERROR_TEXT_SIZE] = "";
    CUtilities::GetLastErrorText(text, errnum);
    return text;
}

std::string Hex(unsigned value) {
    char text[16];
    snprintf(text, sizeof text, "%X", value);
    return text;
}

// The paths the platform test works with for the folder dir.
struct TestNames {
    explicit TestNames(const std::string& dir)
        : folder(dir + "/_test"), file(folder + "/test.bak"), second(file + "2") {}
    std::string folder;
    std::string file;
    std::string second;
};

// The figure lines (all but the current time, which moves) as the test
// must print them for dir.
std::vector<std::string> FigureLines(const std::string& dir) {
    std::vector<std::string> lines;
    char text[256];
    char printable[64];
    const std::pair<const char*, unsigned long long> sizes[] = {
        {"Maximum File Size", CUtilities::GetMaxFileSize(dir.c_str())},
        {"Total Disk Space", CUtilities::GetTotalDiskSpace(dir.c_str())},
        {"Free Disk Space", CUtilities::GetFreeDiskSpace(dir.c_str())},
        {"Free Disk Space To Caller", CUtilities::GetFreeDiskSpaceAvailableToCaller(dir.c_str())},
    };
    for (const auto& size : sizes) {
        CUtilities::GetPrintableFileSize(size.second, printable, sizeof printable);
        snprintf(text, sizeof text, "%-40s: %s", size.first, printable);
        lines.push_back(text);
    }
    const std::pair<const char*, unsigned long long> slots[] = {
        {"Total File Slots", CUtilities::GetTotalFileSlots(dir.c_str())},
        {"Free File Slots", CUtilities::GetFreeFileSlots(dir.c_str())},
        {"Free File Slots To Caller", CUtilities::GetFreeFileSlotsAvailableToCaller(dir.c_str())},
    };
    for (const auto& count : slots) {
        snprintf(text, sizeof text, "%-40s: %llu(%llX)", count.first, count.second, count.second);
        lines.push_back(text);
    }
    return lines;
}

// How each step of a report is expected to end: "." or ". Error=...".
using Outcome = std::function<std::string(const std::string& step)>;

// The whole expected report of a test in dir with the given outcome of
// each step, and with the mode the file had before the mode step.
std::vector<std::string> ExpectedReport(const std::string& dir, long long size, unsigned savedMode,
                                        const Outcome& outcome) {
    TestNames n(dir);
    const std::string q = "\"";
    std::vector<std::string> lines = {START_LINE, " >> Directory : \"" + n.folder + q,
                                      " >> File      : \"" + n.file + q, "", ATTRIBUTES_LINE,
                                      "<current time>"};
    for (const std::string& figure : FigureLines(dir)) lines.push_back(figure);
    lines.push_back("");
    lines.push_back(FILE_IO_LINE);
    std::vector<std::string> steps = {"Create directory \"" + n.folder + q, "Create file \"" + n.file + q,
                                      "Close file \"" + n.file + q};
    const std::pair<const char*, long long> sizeSteps[] = {{"Enlarge file", size + 1024}, {"Shrink file", size}};
    for (const auto& s : sizeSteps) {
        steps.push_back(std::string(s.first) + " \"" + n.file + "\" size to " + std::to_string(s.second));
        steps.push_back("Open file \"" + n.file + q);
        steps.push_back("Verify file size");
        steps.push_back("Close file \"" + n.file + q);
    }
    steps.push_back("Open file \"" + n.file + q);
    for (long long pos : {0LL, size}) {
        steps.push_back("File seek to position " + std::to_string(pos));
        steps.push_back("Write data with length 2047");
        steps.push_back("Move pointer to position " + std::to_string(pos));
        steps.push_back("Read data with length 2047");
        steps.push_back("Verify data with size 2047");
    }
    steps.push_back("Get file stat from file \"" + n.file + q);
    for (unsigned mode : {33060u, savedMode}) {
        steps.push_back("Set file mode " + Hex(mode) + " to file \"" + n.file + q);
        steps.push_back("Get file mode from file \"" + n.file + q);
        steps.push_back("Verify file mode " + Hex(mode) + " from file \"" + n.file + q);
    }
    steps.push_back("Close file \"" + n.file + q);
    steps.push_back("Rename file from \"" + n.file + "\" to \"" + n.second + q);
    steps.push_back("Remove file \"" + n.second + q);
    steps.push_back("Remove directory \"" + n.folder + q);
    for (const std::string& step : steps) lines.push_back(outcome(step));
    lines.push_back(END_LINE);
    return lines;
}

std::string Ok(const std::string& step) { return "[ OK ] " + step + "."; }

// Runs the platform test with a recorder installed; returns the info lines.
std::vector<std::string> RunTest(CUtilities& u, CRuntimeParam* rp, const char* path, long long size,
                                 LogRecorder& recorder) {
    u.SetCallback(&recorder);
    u.RunTestMode(rp, path, size);
    u.SetCallback(nullptr);
    return recorder.Texts("info");
}

// Replaces the current-time line (index 5) after checking its form.
void MaskTimeLine(std::vector<std::string>& lines) {
    ASSERT_GT(lines.size(), 5u);
    const std::string label = "Current time (in milliseconds)";
    std::string prefix = label + std::string(40 - label.size(), ' ') + ": ";
    ASSERT_EQ(0u, lines[5].rfind(prefix, 0)) << lines[5];
    std::string digits = lines[5].substr(prefix.size());
    ASSERT_FALSE(digits.empty());
    EXPECT_EQ(std::string::npos, digits.find_first_not_of("0123456789")) << lines[5];
    lines[5] = "<current time>";
}

// Names of the entries of a folder tree, depth first, for before/after
// comparisons.
void ListTree(const std::string& dir, std::vector<std::string>& out) {
    DIR* d = opendir(dir.c_str());
    if (!d) return;
    while (struct dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        out.push_back(dir + "/" + name);
        ListTree(dir + "/" + name, out);
    }
    closedir(d);
}

class PlatformTest : public testing::Test {
protected:
    void SetUp() override { umask(022); }
    CUtilities u;
    LogRecorder recorder;
};

}  // namespace

TEST_F(PlatformTest, FullReportOnPrivateTmpfsMatchesEveryLineInOrder) {
    std::string err;
    ASSERT_TRUE(EnterPrivateMountNamespace(err)) << err;
    TempDir tmp;
    ASSERT_EQ(0, mkdir((tmp / "volume").c_str(), 0755));
    std::string dir = Canonical(tmp / "volume");
    ScopedTmpfs volume(dir, "size=4m,nr_inodes=64");
    ASSERT_TRUE(volume.Ok()) << volume.Error();

    const long long size = 100000;
    std::vector<std::string> expected = ExpectedReport(dir, size, 0100644, Ok);
    CRuntimeParam rp("inst", 0);  // the report ignores the log categories
    std::vector<std::string> lines = RunTest(u, &rp, dir.c_str(), size, recorder);
    MaskTimeLine(lines);
    EXPECT_EQ(expected, lines);
    EXPECT_TRUE(recorder.Texts("error").empty());
    EXPECT_TRUE(recorder.Texts("raw").empty());
    // A tmpfs is not a type with its own limit.
    EXPECT_EQ(expected[6], "Maximum File Size                       : 2.0TB");
    EXPECT_EQ(expected[7], "Total Disk Space                        : 4.0MB");
    EXPECT_EQ(expected[10], "Total File Slots                        : 64(40)");

    std::vector<std::string> left;
    ListTree(dir, left);
    EXPECT_TRUE(left.empty()) << left[0];
}

TEST_F(PlatformTest, TrailingSlashAndUnresolvedPartsAreCanonicalised) {
    TempDir tmp;
    std::string dir = Canonical(tmp.Path());
    ASSERT_EQ(0, mkdir((dir + "/sub").c_str(), 0755));
    std::string given = dir + "/sub/../";
    CRuntimeParam rp("inst", 0);
    std::vector<std::string> lines = RunTest(u, &rp, given.c_str(), 4096, recorder);
    ASSERT_GT(lines.size(), 3u);
    EXPECT_EQ(" >> Directory : \"" + dir + "/_test\"", lines[1]);
    EXPECT_EQ(" >> File      : \"" + dir + "/_test/test.bak\"", lines[2]);
    EXPECT_EQ(END_LINE, lines.back());
    for (const std::string& line : lines) EXPECT_EQ(std::string::npos, line.find("[FAIL] ")) << line;
    EXPECT_FALSE(PathExists(dir + "/_test"));
}

TEST_F(PlatformTest, ReportGoesToStandardOutputWithoutCallback) {
    TempDir tmp;
    std::string dir = Canonical(tmp.Path());
    CRuntimeParam rp("inst", 0);
    CaptureStdout();
    u.RunTestMode(&rp, dir.c_str(), 1);
    std::vector<std::string> lines = SplitLines(GetCapturedStdout());
    ASSERT_GT(lines.size(), 16u);
    EXPECT_EQ(std::string("[info] (inst) ") + START_LINE, lines[0]);
    EXPECT_EQ("[info] (inst) [ OK ] Create directory \"" + dir + "/_test\".", lines[15]);
    EXPECT_EQ(std::string("[info] (inst) ") + END_LINE, lines.back());
}

TEST_F(PlatformTest, WithoutRuntimeParametersNothingHappens) {
    TempDir tmp;
    CaptureStdout();
    u.SetCallback(&recorder);
    u.RunTestMode(nullptr, tmp.Path().c_str(), 1024);
    u.SetCallback(nullptr);
    EXPECT_EQ("", GetCapturedStdout());
    EXPECT_TRUE(recorder.Lines().empty());
    EXPECT_FALSE(PathExists(tmp / "_test"));
}

TEST_F(PlatformTest, MissingFolderPathOrSizeStopsAtOnce) {
    TempDir tmp;
    CRuntimeParam rp("inst", 0);
    u.SetCallback(&recorder);
    u.RunTestMode(&rp, nullptr, 1024);
    u.RunTestMode(&rp, "", 1024);
    u.RunTestMode(&rp, tmp.Path().c_str(), 0);
    u.RunTestMode(&rp, tmp.Path().c_str(), -5);
    u.SetCallback(nullptr);
    std::vector<std::string> expected = {
        "Cannot start platrorm test. Error=Target directory is NULL",
        "Cannot start platrorm test. Error=Target directory is NULL",
        "Cannot start platrorm test. Error=File size is ZERO",
        "Cannot start platrorm test. Error=File size is ZERO",
    };
    EXPECT_EQ(expected, recorder.Texts("info"));
    EXPECT_FALSE(PathExists(tmp / "_test"));
}

TEST_F(PlatformTest, MissingFolderStopsWithTheExistenceError) {
    TempDir tmp;
    std::string missing = Canonical(tmp.Path()) + "/missing";
    CRuntimeParam rp("inst", 0);
    std::vector<std::string> lines = RunTest(u, &rp, missing.c_str(), 1024, recorder);
    std::vector<std::string> expected = {"Cannot start platrorm test. Error=Fail to access directory \"" + missing +
                                         "\" (ErrCode=2)"};
    EXPECT_EQ(expected, lines);
}

TEST_F(PlatformTest, ExistingTestFolderStopsBeforeCreatingAnything) {
    TempDir tmp;
    std::string dir = Canonical(tmp.Path());
    ASSERT_EQ(0, mkdir((dir + "/_test").c_str(), 0700));
    WriteWholeFile(dir + "/_test/keep", "data");
    std::vector<std::string> before;
    ListTree(dir, before);

    CRuntimeParam rp("inst", CRuntimeParam::LOG_ERROR | CRuntimeParam::LOG_FILE_ACCESS);
    std::vector<std::string> lines = RunTest(u, &rp, dir.c_str(), 1024, recorder);
    std::vector<std::string> expected = {"Cannot start platrorm test. Error=Test directory \"" + dir +
                                         "/_test\" already exist"};
    EXPECT_EQ(expected, lines);
    EXPECT_TRUE(recorder.Texts("error").empty());
    std::vector<std::string> after;
    ListTree(dir, after);
    EXPECT_EQ(before, after);
    EXPECT_EQ("data", ReadWholeFile(dir + "/_test/keep"));
}

TEST_F(PlatformTest, ModeStepSetsBackTheSavedModeInItsSecondRound) {
    umask(027);  // the file is created 0640: a mode no other round would set
    TempDir tmp;
    std::string dir = Canonical(tmp.Path());
    TestNames n(dir);
    CRuntimeParam rp("inst", CRuntimeParam::LOG_FILE_ACCESS);
    std::vector<std::string> lines = RunTest(u, &rp, dir.c_str(), 512, recorder);

    std::vector<std::string> modeLines;
    for (const std::string& line : lines)
        if (line.rfind("[ OK ] ", 0) == 0 && line.find("file mode") != std::string::npos) modeLines.push_back(line);
    std::vector<std::string> expected = {
        "[ OK ] Set file mode 8124 to file \"" + n.file + "\".",
        "[ OK ] Get file mode from file \"" + n.file + "\".",
        "[ OK ] Verify file mode 8124 from file \"" + n.file + "\".",
        "[ OK ] Set file mode 81A0 to file \"" + n.file + "\".",
        "[ OK ] Get file mode from file \"" + n.file + "\".",
        "[ OK ] Verify file mode 81A0 from file \"" + n.file + "\".",
    };
    EXPECT_EQ(expected, modeLines);

    // The chmod calls themselves, in decimal: 0100444, then the saved 0100640.
    std::vector<std::string> chmods;
    for (const std::string& line : lines)
        if (line.find("OS set file mode") != std::string::npos) chmods.push_back(line);
    std::vector<std::string> expectedChmods = {
        "[Utilities.RunTestMode] OS set file mode \"" + n.file + "\" (mode = 33060)",
        "[Utilities.RunTestMode] OS set file mode \"" + n.file + "\" (mode = 33184)",
    };
    EXPECT_EQ(expectedChmods, chmods);
}

TEST_F(PlatformTest, FolderThatIsAFileFailsEveryStepAndStillEnds) {
    // On a volume of its own: the report's figures are live counts that
    // other processes would change between the expectation and the run.
    std::string err;
    ASSERT_TRUE(EnterPrivateMountNamespace(err)) << err;
    TempDir tmp;
    ASSERT_EQ(0, mkdir((tmp / "volume").c_str(), 0755));
    std::string dir = Canonical(tmp / "volume");
    ScopedTmpfs volume(dir, "size=1m,nr_inodes=64");
    ASSERT_TRUE(volume.Ok()) << volume.Error();
    std::string file = dir + "/plain";
    WriteWholeFile(file, "x");
    const std::string notDir = ErrorText(ENOTDIR);
    const std::string badFd = "Bad file descriptor";
    const std::string noPos = "Position not match (current pos = 18446744073709551615)";
    // The reason of each failed step, by the start of its text.
    const std::pair<const char*, std::string> reasons[] = {
        {"Create directory", notDir},
        {"Create file", notDir},
        {"Close file", badFd},
        {"Enlarge file", notDir},
        {"Shrink file", notDir},
        {"Open file", ""},  // decided below: after a size step or the main open
        {"Verify file size", "Open file failed"},
        {"File seek to position", noPos},
        {"Write data", "File seek failed"},
        {"Move pointer", "File write failed"},
        {"Read data", "File seek failed"},
        {"Verify data", "File read failed"},
        {"Get file stat", notDir},
        {"Set file mode", notDir},
        {"Get file mode", "Set file mode failed"},
        {"Verify file mode", "Get file mode failed"},
        {"Rename file", notDir},
        {"Remove file", notDir},
        {"Remove directory", notDir},
    };
    int openCount = 0;
    Outcome fail = [&](const std::string& step) {
        std::string reason;
        for (const auto& r : reasons)
            if (step.rfind(r.first, 0) == 0) reason = r.second;
        if (step.rfind("Open file", 0) == 0) reason = ++openCount <= 2 ? "Set file size failed" : notDir;
        return "[FAIL] " + step + ". Error=" + reason;
    };
    // The file's mode could not be read, so the second round sets mode 0.
    std::vector<std::string> expected = ExpectedReport(file, 3000, 0, fail);

    CRuntimeParam rp("inst", CRuntimeParam::LOG_ERROR);
    std::vector<std::string> lines = RunTest(u, &rp, file.c_str(), 3000, recorder);
    MaskTimeLine(lines);
    EXPECT_EQ(expected, lines);
    EXPECT_EQ(3, openCount);
    // The wrappers report their own failures on the error channel.
    std::vector<std::string> errors = recorder.Texts("error");
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ("[Utilities.RunTestMode] OS create folder \"" + file + "/_test\" (mode = 493). Error=" + notDir,
              errors[0]);
    EXPECT_EQ("x", ReadWholeFile(file));
}

TEST_F(PlatformTest, FullFileSystemFailsTheWritesAndTheRestCarriesOn) {
    std::string err;
    ASSERT_TRUE(EnterPrivateMountNamespace(err)) << err;
    TempDir tmp;
    ASSERT_EQ(0, mkdir((tmp / "volume").c_str(), 0755));
    std::string dir = Canonical(tmp / "volume");
    ScopedTmpfs volume(dir, "size=64k");
    ASSERT_TRUE(volume.Ok()) << volume.Error();
    // Take every block; the folder, the file and its sparse sizes need none.
    int filler = open((dir + "/filler").c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_NE(-1, filler);
    char block[4096] = {0};
    while (write(filler, block, sizeof block) > 0) {
    }
    EXPECT_EQ(ENOSPC, errno);
    close(filler);

    Outcome outcome = [](const std::string& step) {
        if (step.rfind("Write data", 0) == 0)
            return "[FAIL] " + step + ". Error=Data lenght not match (write length = -1)";
        if (step.rfind("Move pointer", 0) == 0) return "[FAIL] " + step + ". Error=File write failed";
        if (step.rfind("Read data", 0) == 0) return "[FAIL] " + step + ". Error=File seek failed";
        if (step.rfind("Verify data", 0) == 0) return "[FAIL] " + step + ". Error=File read failed";
        return Ok(step);
    };
    std::vector<std::string> expected = ExpectedReport(dir, 8192, 0100644, outcome);
    CRuntimeParam rp("inst", CRuntimeParam::LOG_ERROR);
    std::vector<std::string> lines = RunTest(u, &rp, dir.c_str(), 8192, recorder);
    MaskTimeLine(lines);
    EXPECT_EQ(expected, lines);

    std::vector<std::string> errors = recorder.Texts("error");
    ASSERT_EQ(2u, errors.size());
    for (const std::string& line : errors) {
        EXPECT_EQ(0u, line.rfind("[Utilities.RunTestMode] OS write file (", 0)) << line;
        EXPECT_NE(std::string::npos, line.find(". Error=" + ErrorText(ENOSPC))) << line;
    }
    std::vector<std::string> left;
    ListTree(dir, left);
    EXPECT_EQ(std::vector<std::string>{dir + "/filler"}, left);
}

TEST_F(PlatformTest, NamesTooLongForTheSystemFailAndTheCleanUpStillRemovesTheRest) {
    // A folder whose test file name is 4095 characters long: the test file
    // can be created, but its renamed copy (one more character) cannot.
    TempDir tmp;
    std::string dir = Canonical(tmp.Path());
    const size_t folderLength = 4095 - strlen("/_test/test.bak");
    while (dir.size() < folderLength) {
        size_t need = folderLength - dir.size();
        size_t chunk = need - 1 < 200 ? need - 1 : 200;
        if (need - (chunk + 1) == 1) --chunk;  // never leave room for a single "/" alone
        dir += "/" + std::string(chunk, 'd');
        ASSERT_EQ(0, mkdir(dir.c_str(), 0755)) << dir.size();
    }
    ASSERT_EQ(folderLength, dir.size());
    TestNames n(dir);
    ASSERT_EQ(4095u, n.file.size());

    CRuntimeParam rp("inst", 0);
    std::vector<std::string> lines = RunTest(u, &rp, dir.c_str(), 2048, recorder);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(START_LINE, lines.front());
    EXPECT_EQ(END_LINE, lines.back());
    std::vector<std::string> failed;
    size_t okCount = 0;
    for (const std::string& line : lines) {
        EXPECT_LT(line.size(), LOG_MESSAGE_SIZE);  // long lines are cut, never overrun
        if (line.rfind("[ OK ] ", 0) == 0) ++okCount;
        if (line.rfind("[FAIL] ", 0) == 0) failed.push_back(line.substr(0, line.find('"')));
    }
    std::vector<std::string> expectedFailed = {"[FAIL] Rename file from ", "[FAIL] Remove file ",
                                               "[FAIL] Remove directory "};
    EXPECT_EQ(expectedFailed, failed);
    EXPECT_EQ(30u, okCount);  // 33 steps, 3 failed
    // The clean-up removed the file that could not be renamed and the folder.
    EXPECT_FALSE(PathExists(n.file));
    EXPECT_FALSE(PathExists(n.folder));
    EXPECT_TRUE(PathExists(dir));
}

// ---- quick test -------------------------------------------------------------

TEST_F(PlatformTest, QuickTestFindsAnExistingPath) {
    TempDir tmp;
    WriteWholeFile(tmp / "file", "x");
    CRuntimeParam rp("inst", CRuntimeParam::LOG_GENERAL_INFO);
    char status[ERROR_TEXT_SIZE] = "untouched";
    u.SetCallback(&recorder);
    EXPECT_TRUE(u.RunQuickTestMode(&rp, (tmp / "file").c_str(), 0, status));
    EXPECT_TRUE(u.RunQuickTestMode(&rp, (tmp.Path() + "/./").c_str(), 0, status));
    EXPECT_TRUE(u.RunQuickTestMode(&rp, (tmp / "file").c_str(), 0, nullptr));
    u.SetCallback(nullptr);
    EXPECT_STREQ("untouched", status);
    std::vector<std::string> lines = recorder.Texts("info");
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("[Utilities.RunQuickTestMode] Get canonical path successfully: " + Canonical(tmp / "file"), lines[0]);
    for (const std::string& line : lines) EXPECT_EQ(std::string::npos, line.find("failed")) << line;
}

TEST_F(PlatformTest, QuickTestOfAMissingPathGivesTheErrorCode) {
    TempDir tmp;
    std::string missing = tmp / "missing";
    CRuntimeParam rp("inst", CRuntimeParam::LOG_GENERAL_INFO);
    char status[ERROR_TEXT_SIZE] = "";
    u.SetCallback(&recorder);
    EXPECT_FALSE(u.RunQuickTestMode(&rp, missing.c_str(), 0, status));
    u.SetCallback(nullptr);
    EXPECT_STREQ("ErrCode=2", status);
    std::vector<std::string> lines = recorder.Texts("info");
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("Quick exist test failed. Error=\"ErrCode=2\"", lines.back());

    // A path through a plain file: not a directory.
    WriteWholeFile(tmp / "plain", "x");
    EXPECT_FALSE(u.RunQuickTestMode(&rp, (tmp / "plain/inner").c_str(), 0, status));
    EXPECT_STREQ("ErrCode=20", status);
}

TEST_F(PlatformTest, QuickTestLogsOnlyWithGeneralInfo) {
    TempDir tmp;
    CRuntimeParam rp("inst", CRuntimeParam::LOG_ERROR);
    char status[ERROR_TEXT_SIZE] = "";
    u.SetCallback(&recorder);
    EXPECT_FALSE(u.RunQuickTestMode(&rp, (tmp / "missing").c_str(), 0, status));
    EXPECT_FALSE(u.RunQuickTestMode(&rp, "", 0, status));
    u.SetCallback(nullptr);
    EXPECT_STREQ("Invalid argument", status);
    EXPECT_TRUE(recorder.Lines().empty());
}

TEST_F(PlatformTest, QuickTestUnknownModeNamesTheMode) {
    TempDir tmp;
    CRuntimeParam rp("inst", CRuntimeParam::LOG_GENERAL_INFO);
    char status[ERROR_TEXT_SIZE] = "";
    EXPECT_FALSE(u.RunQuickTestMode(&rp, tmp.Path().c_str(), 1, status));
    EXPECT_STREQ("Unknown mode (1)", status);
    EXPECT_FALSE(u.RunQuickTestMode(&rp, tmp.Path().c_str(), -7, status));
    EXPECT_STREQ("Unknown mode (-7)", status);
    EXPECT_FALSE(u.RunQuickTestMode(&rp, tmp.Path().c_str(), 1, nullptr));
}

TEST_F(PlatformTest, QuickTestRefusesMissingArguments) {
    CRuntimeParam rp("inst", CRuntimeParam::LOG_GENERAL_INFO);
    char status[ERROR_TEXT_SIZE] = "";
    u.SetCallback(&recorder);
    EXPECT_FALSE(u.RunQuickTestMode(nullptr, "/", 0, status));
    EXPECT_STREQ("Invalid argument", status);
    status[0] = '\0';
    EXPECT_FALSE(u.RunQuickTestMode(&rp, nullptr, 0, status));
    EXPECT_STREQ("Invalid argument", status);
    status[0] = '\0';
    EXPECT_FALSE(u.RunQuickTestMode(&rp, "", 1, status));  // arguments are checked before the mode
    EXPECT_STREQ("Invalid argument", status);
    u.SetCallback(nullptr);
    std::vector<std::string> expected = {"Quick test failed. Error=\"Invalid argument\"",
                                         "Quick test failed. Error=\"Invalid argument\""};
    EXPECT_EQ(expected, recorder.Texts("info"));
}

TEST_F(PlatformTest, QuickTestOfAnOverlongPathStaysInItsBuffers) {
    std::string path = "/" + std::string(10000, 'p');
    CRuntimeParam rp("inst", CRuntimeParam::LOG_GENERAL_INFO);
    char status[ERROR_TEXT_SIZE] = "";
    u.SetCallback(&recorder);
    EXPECT_FALSE(u.RunQuickTestMode(&rp, path.c_str(), 0, status));
    u.SetCallback(nullptr);
    EXPECT_EQ(0, strncmp(status, "ErrCode=", 8)) << status;
    for (const auto& line : recorder.Lines()) EXPECT_LT(line.text.size(), LOG_MESSAGE_SIZE);
}
