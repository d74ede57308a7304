// The log file: line format, size limit and rotation.
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstring>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "FileLogger.h"
#include "TestSupport.h"
#include "Utilities.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const std::string kStamp = R"(\[\d{4}/\d{2}/\d{2} \d{2}:\d{2}:\d{2}\])";

// A message that makes a line of exactly 60 bytes with the "info" word:
// "[YYYY/MM/DD HH:MM:SS][info] " is 28 bytes, plus the line end.
std::string SixtyByteMessage(char c) { return std::string(60 - 28 - 1, c); }

}  // namespace

TEST(FileLogger, LineFormats) {
    TempDir dir;
    std::string path = dir / "log.txt";
    CFileLogger logger(path.c_str());
    ASSERT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.LogInfo("hello"));
    EXPECT_TRUE(logger.LogError("broken"));
    EXPECT_TRUE(logger.LogRaw("abc"));
    EXPECT_TRUE(logger.LogRaw("ends\n"));
    logger.Close();
    std::string text = ReadWholeFile(path);
    std::regex expected(kStamp + R"(\[info\] hello\n)" + kStamp + R"(\[error\] broken\n)" + kStamp + R"( abc\n)" +
                        kStamp + R"( ends\n\n)");
    EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

TEST(FileLogger, ClosedLoggerRefusesLines) {
    TempDir dir;
    CFileLogger logger((dir / "log.txt").c_str());
    EXPECT_FALSE(logger.LogInfo("nothing"));
    EXPECT_FALSE(logger.IsOpen());
    EXPECT_FALSE(PathExists(dir / "log.txt"));
}

TEST(FileLogger, OpenTwiceDoesNotReopen) {
    TempDir dir;
    std::string path = dir / "log.txt";
    CFileLogger logger(path.c_str());
    ASSERT_TRUE(logger.Open(0));
    int before = CountOpenDescriptors();
    EXPECT_TRUE(logger.Open(0));
    EXPECT_EQ(before, CountOpenDescriptors());
    logger.Close();
    EXPECT_FALSE(logger.IsOpen());
}

TEST(FileLogger, OpenCreatesMissingFoldersAndAppends) {
    TempDir dir;
    std::string path = dir / "x/y/z/log.txt";
    {
        CFileLogger logger(path.c_str());
        ASSERT_TRUE(logger.Open(0));
        EXPECT_TRUE(logger.LogInfo("one"));
        logger.Close();
    }
    CFileLogger again(path.c_str());
    ASSERT_TRUE(again.Open(0));
    EXPECT_TRUE(again.LogInfo("two"));
    again.Close();
    std::vector<std::string> lines = SplitLines(ReadWholeFile(path));
    ASSERT_EQ(2u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("one"));
    EXPECT_NE(std::string::npos, lines[1].find("two"));
}

TEST(FileLogger, OpenFailureIsReportedOnTheConsole) {
    TempDir dir;
    WriteWholeFile(dir / "file", "");
    std::string path = dir / "file/log.txt";  // a folder that is a file
    CFileLogger logger(path.c_str());
    CaptureStdout();
    EXPECT_FALSE(logger.Open(0));
    std::string out = GetCapturedStdout();
    std::string reason = std::string(strerror(ENOTDIR)) + " (20)";
    EXPECT_NE(std::string::npos,
              out.find("[erro] () Fail to create log file \"" + path + "\". Reason=" + reason + "\n"))
        << out;
}

TEST(FileLogger, FileAccessLinesOfTheOpenFollowTheCallersControl) {
    TempDir dir;
    std::string path = dir / "log.txt";
    CFileLogger logger(path.c_str());
    CaptureStdout();
    ASSERT_TRUE(logger.Open(CRuntimeParam::LOG_FILE_ACCESS));
    std::string out = GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("[info] () [CFileLogger.Open] OS create file \"" + path + "\"")) << out;
    // Afterwards the logger is back to errors only: rotation lines stay quiet.
    logger.SetMaxLogSize(1);
    CaptureStdout();
    EXPECT_TRUE(logger.LogInfo("a"));
    EXPECT_TRUE(logger.LogInfo("b"));
    EXPECT_EQ("", GetCapturedStdout());
    logger.Close();
}

TEST(FileLogger, CheckBeforeWriteThenRotateToDotOne) {
    TempDir dir;
    std::string path = dir / "log.txt";
    CFileLogger logger(path.c_str());
    logger.SetMaxLogSize(100);
    ASSERT_TRUE(logger.Open(0));
    ASSERT_TRUE(logger.LogInfo(SixtyByteMessage('a').c_str()));
    ASSERT_EQ(60u, ReadWholeFile(path).size());
    ASSERT_TRUE(logger.LogInfo(SixtyByteMessage('b').c_str()));  // 60 < 100: same file
    EXPECT_EQ(120u, ReadWholeFile(path).size());
    EXPECT_FALSE(PathExists(path + ".1"));
    ASSERT_TRUE(logger.LogInfo(SixtyByteMessage('c').c_str()));  // 120 >= 100: rotate first
    logger.Close();
    std::string rotated = ReadWholeFile(path + ".1");
    EXPECT_EQ(120u, rotated.size());
    EXPECT_EQ(std::string::npos, rotated.find('c'));
    std::string current = ReadWholeFile(path);
    EXPECT_EQ(60u, current.size());
    EXPECT_NE(std::string::npos, current.find(SixtyByteMessage('c')));
}

TEST(FileLogger, RotationSkipsNamesOnDisk) {
    TempDir dir;
    std::string path = dir / "log.txt";
    WriteWholeFile(path + ".1", "old1");
    WriteWholeFile(path + ".2", "old2");
    CFileLogger logger(path.c_str());
    logger.SetMaxLogSize(10);
    ASSERT_TRUE(logger.Open(0));
    ASSERT_TRUE(logger.LogInfo("first line"));
    ASSERT_TRUE(logger.LogInfo("second line"));
    ASSERT_TRUE(logger.LogInfo("third line"));
    logger.Close();
    EXPECT_EQ("old1", ReadWholeFile(path + ".1"));
    EXPECT_EQ("old2", ReadWholeFile(path + ".2"));
    EXPECT_NE(std::string::npos, ReadWholeFile(path + ".3").find("first line"));
    EXPECT_NE(std::string::npos, ReadWholeFile(path + ".4").find("second line"));  // the index never resets
    EXPECT_NE(std::string::npos, ReadWholeFile(path).find("third line"));
}

TEST(FileLogger, SizeLimitSetter) {
    TempDir dir;
    std::string path = dir / "log.txt";
    CFileLogger logger(path.c_str());
    EXPECT_EQ(33554432, logger.GetMaxLogSize());
    logger.SetMaxLogSize(0);
    logger.SetMaxLogSize(-5);
    EXPECT_EQ(33554432, logger.GetMaxLogSize());
    logger.SetMaxLogSize(1);
    EXPECT_EQ(1, logger.GetMaxLogSize());
    ASSERT_TRUE(logger.Open(0));
    for (const char* m : {"l1", "l2", "l3"}) ASSERT_TRUE(logger.LogInfo(m));
    logger.Close();
    // Every line after the first goes to a fresh file.
    EXPECT_NE(std::string::npos, ReadWholeFile(path + ".1").find("l1"));
    EXPECT_NE(std::string::npos, ReadWholeFile(path + ".2").find("l2"));
    EXPECT_EQ(1u, SplitLines(ReadWholeFile(path)).size());
    EXPECT_NE(std::string::npos, ReadWholeFile(path).find("l3"));
}

TEST(FileLogger, FailedRotationLeavesTheLoggerClosed) {
    TempDir dir;
    std::string sub = dir / "sub";
    ASSERT_EQ(0, mkdir(sub.c_str(), 0755));
    std::string path = sub + "/log.txt";
    CFileLogger logger(path.c_str());
    logger.SetMaxLogSize(1);
    ASSERT_TRUE(logger.Open(0));
    ASSERT_TRUE(logger.LogInfo("first"));
    // Make the rename impossible: the folder becomes read-only (a read-only
    // bind mount in a private mount namespace, which binds root too).
    ASSERT_EQ(0, unshare(CLONE_NEWNS));
    ASSERT_EQ(0, mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
    ASSERT_EQ(0, mount(sub.c_str(), sub.c_str(), nullptr, MS_BIND, nullptr));
    ASSERT_EQ(0, mount(nullptr, sub.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr));
    CaptureStdout();
    EXPECT_FALSE(logger.LogInfo("second"));
    EXPECT_FALSE(logger.IsOpen());
    EXPECT_FALSE(logger.LogInfo("third"));
    std::string out = GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("OS rename file from \"" + path + "\"")) << out;
    umount(sub.c_str());
}

TEST(FileLogger, ConcurrentLinesAreNeverInterleaved) {
    TempDir dir;
    std::string path = dir / "log.txt";
    CFileLogger logger(path.c_str());
    logger.SetMaxLogSize(4000);
    ASSERT_TRUE(logger.Open(0));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&logger, t] {
            std::string msg(50, (char)('a' + t));
            for (int i = 0; i < 200; ++i) logger.LogInfo(msg.c_str());
        });
    }
    for (auto& th : threads) th.join();
    logger.Close();
    int lines = 0;
    std::regex line(kStamp + R"(\[info\] (a{50}|b{50}|c{50}|d{50}))");
    for (int i = 0;; ++i) {
        std::string name = i == 0 ? path : path + "." + std::to_string(i);
        if (!PathExists(name)) break;
        for (const std::string& l : SplitLines(ReadWholeFile(name))) {
            EXPECT_TRUE(std::regex_match(l, line)) << l;
            ++lines;
        }
    }
    EXPECT_EQ(800, lines);
}
