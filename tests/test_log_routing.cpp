// Runtime parameters, log-control bits and the routing of log lines.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "FileLogger.h"
#include "TestSupport.h"
#include "Utilities.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// Stands in for the Java callback: records what reached it and says
// whether the application could be reached.
class RecordingCallback : public ICallback {
public:
    bool reachable = true;
    std::string lines;
    int answer = 0;
    std::string lastCall;

    bool LogInfo(const char* id, const char* text) override { return Take("info", id, text); }
    bool LogError(const char* id, const char* text) override { return Take("error", id, text); }
    bool LogRaw(const char* id, const char* text) override { return Take("raw", id, text); }
    int UpdateRedirectedFileAttributes(const char* id, const char* path, bool bSize, unsigned long long iSize,
                                       bool bA, unsigned long a, bool bM, unsigned long m) override {
        lastCall = std::string("attr ") + id + " " + path + " " + std::to_string(bSize) + " " +
                   std::to_string(iSize) + " " + std::to_string(bA) + " " + std::to_string(a) + " " +
                   std::to_string(bM) + " " + std::to_string(m);
        return answer;
    }
    int RemoveRedirectedFile(const char* id, const char* path) override {
        lastCall = std::string("remove ") + id + " " + path;
        return answer;
    }
    int RenameRedirectedFile(const char* id, const char* from, const char* to) override {
        lastCall = std::string("rename ") + id + " " + from + " " + to;
        return answer;
    }
    int WriteRedirectedFile(const char* id, const char* path, unsigned long long seek, int type,
                            unsigned int len) override {
        lastCall = std::string("write ") + id + " " + path + " " + std::to_string(seek) + " " +
                   std::to_string(type) + " " + std::to_string(len);
        return answer;
    }

private:
    bool Take(const char* kind, const char* id, const char* text) {
        if (!reachable) return false;
        lines += std::string(kind) + "|" + id + "|" + text + "\n";
        return true;
    }
};

}  // namespace

TEST(RuntimeParam, ConstructionAndAccessors) {
    CRuntimeParam rp(nullptr, 3);
    EXPECT_STREQ("", rp.GetID());
    EXPECT_STREQ("", rp.GetIpcID());
    EXPECT_EQ(3, rp.GetLogControl());
    rp.SetID("inst");
    rp.SetIpcID("chan");
    EXPECT_STREQ("inst", rp.GetID());
    EXPECT_STREQ("chan", rp.GetIpcID());
    rp.SetID(nullptr);
    rp.SetIpcID(nullptr);
    EXPECT_STREQ("", rp.GetID());
    EXPECT_STREQ("", rp.GetIpcID());

    CRuntimeParam copy(rp);
    rp.SetID("changed");
    rp.SetIpcID("x");
    rp.SetLogControl(7);
    EXPECT_STREQ("", copy.GetID());
    EXPECT_EQ(3, copy.GetLogControl());
    copy = rp;
    EXPECT_STREQ("changed", copy.GetID());
    EXPECT_STREQ("x", copy.GetIpcID());
    EXPECT_EQ(7, copy.GetLogControl());
}

TEST(RuntimeParam, EachAccessorTestsItsBit) {
    using Acc = bool (CRuntimeParam::*)() const;
    const Acc accessors[] = {&CRuntimeParam::IsLogError,        &CRuntimeParam::IsLogGeneralInfo,
                             &CRuntimeParam::IsLogRpc,          &CRuntimeParam::IsLogProcFuncName,
                             &CRuntimeParam::IsLogProcFuncArgu, &CRuntimeParam::IsLogRedirectFile,
                             &CRuntimeParam::IsLogIpc,          &CRuntimeParam::IsLogIpcState,
                             &CRuntimeParam::IsLogFileAccess,   &CRuntimeParam::IsLogPortmap};
    for (int bit = 0; bit < 10; ++bit) {
        CRuntimeParam rp("", 1 << bit);
        for (int other = 0; other < 10; ++other)
            EXPECT_EQ(bit == other, (rp.*accessors[other])()) << "control " << (1 << bit) << " accessor " << other;
    }
}

TEST(RuntimeParam, IsLogEnabledIsASignedComparison) {
    CRuntimeParam rp("", 2 | 8);
    EXPECT_FALSE(rp.IsLogEnabled(1 | 4));
    EXPECT_TRUE(rp.IsLogEnabled(8));
    CRuntimeParam high("", (int)0x80000001u);
    EXPECT_FALSE(high.IsLogEnabled((int)0x80000000u));
    EXPECT_TRUE(high.IsLogEnabled(1));
    EXPECT_TRUE(CRuntimeParam("", -1).IsLogEnabled(0x7fffffff));
}

TEST(RuntimeParam, InstanceIdRule) {
    char err[ERROR_TEXT_SIZE];
    EXPECT_FALSE(CRuntimeParam::CheckInstanceID("server", err, sizeof err));
    EXPECT_STREQ("Cannot use \"server\" as ID", err);
    EXPECT_FALSE(CRuntimeParam::CheckInstanceID("a/b", err, sizeof err));
    EXPECT_STREQ("Invalid char \"/\" inside ID", err);
    EXPECT_FALSE(CRuntimeParam::CheckInstanceID("my id", err, sizeof err));
    EXPECT_STREQ("Invalid char \" \" inside ID", err);
    EXPECT_FALSE(CRuntimeParam::CheckInstanceID("a b/c", err, sizeof err));
    EXPECT_STREQ("Invalid char \" \" inside ID", err);  // the first offending character
    EXPECT_TRUE(CRuntimeParam::CheckInstanceID("", err, sizeof err));
    EXPECT_TRUE(CRuntimeParam::CheckInstanceID("server2", err, sizeof err));
}

TEST(LogRouting, ConsoleFormats) {
    CUtilities u;
    char text[] = "x";
    CaptureStdout();
    u.LogError("abc", text);
    EXPECT_EQ("[erro] (abc) x\n", GetCapturedStdout());
    CaptureStdout();
    u.LogInfo("abc", text);
    EXPECT_EQ("[info] (abc) x\n", GetCapturedStdout());
    CaptureStdout();
    u.LogRaw("abc", text);
    EXPECT_EQ("x", GetCapturedStdout());
}

TEST(LogRouting, FormattingFrontEndsUseTheParameterId) {
    CUtilities u;
    CRuntimeParam rp("inst", 1);
    CaptureStdout();
    u.LogInfo(&rp, "[%s] value %d", "Op.Name", 42);
    u.LogError(&rp, "[%s] failed", "Op.Name");
    u.LogRaw(&rp, "raw %s\n", "line");
    EXPECT_EQ("[info] (inst) [Op.Name] value 42\n[erro] (inst) [Op.Name] failed\nraw line\n", GetCapturedStdout());
}

TEST(LogRouting, ControlZeroSilencesGatedMessagesAndOneGivesErrorsOnly) {
    TempDir dir;
    CUtilities u;
    LogArgu la = {"Test.Gating"};
    std::string missing = dir / "missing";
    std::string present = dir / "present";
    WriteWholeFile(present, "abc");

    for (int control : {0, 1}) {
        CRuntimeParam rp("id", control);
        CaptureStdout();
        int fd = u.OS_FileOpen(&rp, &la, present.c_str(), 0, false, nullptr);  // success line is gated by 256
        u.OS_FileClose(&rp, &la, present.c_str(), fd, nullptr);
        u.OS_FileOpen(&rp, &la, missing.c_str(), 0, false, nullptr);  // failure line is gated by 1
        std::string out = GetCapturedStdout();
        if (control == 0) {
            EXPECT_EQ("", out);
        } else {
            EXPECT_EQ("[erro] (id) [Test.Gating] OS open file \"" + missing + "\". Error=" + strerror(ENOENT) +
                          " (2)\n",
                      out);
        }
    }
}

TEST(LogRouting, ReachableCallbackTakesTheLineAlone) {
    TempDir dir;
    CUtilities u;
    RecordingCallback cb;
    CFileLogger logger((dir / "log.txt").c_str());
    ASSERT_TRUE(logger.Open(0));
    u.SetCallback(&cb);
    u.SetFileLogger(&logger);
    CRuntimeParam rp("inst", 1);
    CaptureStdout();
    u.LogInfo(&rp, "hello %d", 1);
    u.LogError(&rp, "bad");
    u.LogRaw(&rp, "raw");
    EXPECT_EQ("", GetCapturedStdout());
    EXPECT_EQ("info|inst|hello 1\nerror|inst|bad\nraw|inst|raw\n", cb.lines);
    logger.Close();
    EXPECT_EQ("", ReadWholeFile(dir / "log.txt"));
}

TEST(LogRouting, UnreachableCallbackFallsToFileLoggerThenConsole) {
    TempDir dir;
    CUtilities u;
    RecordingCallback cb;
    cb.reachable = false;  // as when the Java virtual machine is gone
    u.SetCallback(&cb);
    CFileLogger logger((dir / "log.txt").c_str());
    ASSERT_TRUE(logger.Open(0));
    u.SetFileLogger(&logger);
    CRuntimeParam rp("inst", 1);

    CaptureStdout();
    u.LogError(&rp, "to the file");
    EXPECT_EQ("", GetCapturedStdout());
    std::string file = ReadWholeFile(dir / "log.txt");
    EXPECT_NE(std::string::npos, file.find("[error] to the file\n")) << file;
    EXPECT_EQ(std::string::npos, file.find("inst")) << "the file logger writes no ID";

    logger.Close();  // a closed logger refuses the line: it ends on the console
    CaptureStdout();
    u.LogError(&rp, "to the console");
    EXPECT_EQ("[erro] (inst) to the console\n", GetCapturedStdout());
    EXPECT_EQ("", cb.lines);
}

TEST(LogRouting, LongMessagesAreCutNotOverrun) {
    TempDir dir;
    CUtilities u;
    CRuntimeParam rp("id", 1);
    std::string big(10000, 'm');
    CaptureStdout();
    u.LogInfo(&rp, "%s", big.c_str());
    std::string out = GetCapturedStdout();
    EXPECT_EQ("[info] (id) " + std::string(LOG_MESSAGE_SIZE - 1, 'm') + "\n", out);

    CFileLogger logger((dir / "log.txt").c_str());
    ASSERT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.LogInfo(big.c_str()));
    logger.Close();
    std::string file = ReadWholeFile(dir / "log.txt");
    EXPECT_EQ(4095u, file.size());
    EXPECT_EQ('\n', file.back());
}

TEST(LogRouting, NotificationsGoToTheCallbackWithTheCallerId) {
    CUtilities u;
    CRuntimeParam rp("inst", 0);
    EXPECT_EQ(-1, u.LogRemoveRedirectedFile(&rp, "/p"));
    EXPECT_EQ(-1, u.LogRenameRedirectedFile(&rp, "/a", "/b"));
    EXPECT_EQ(-1, u.LogWriteRedirectedFile(&rp, "/p", 1, 0, 2));
    EXPECT_EQ(-1, u.LogUpdateRedirectedFileAttributes(&rp, "/p", true, 1, false, 0, false, 0));

    RecordingCallback cb;
    cb.answer = 7;
    u.SetCallback(&cb);
    EXPECT_EQ(7, u.LogUpdateRedirectedFileAttributes(&rp, "/p", true, 4096, false, 11, true, 12));
    EXPECT_EQ("attr inst /p 1 4096 0 11 1 12", cb.lastCall);
    EXPECT_EQ(7, u.LogRemoveRedirectedFile(&rp, "/p"));
    EXPECT_EQ("remove inst /p", cb.lastCall);
    EXPECT_EQ(7, u.LogRenameRedirectedFile(&rp, "/a", "/b"));
    EXPECT_EQ("rename inst /a /b", cb.lastCall);
    EXPECT_EQ(7, u.LogWriteRedirectedFile(&rp, "/p", 5000000000ULL, 0, 16384));
    EXPECT_EQ("write inst /p 5000000000 0 16384", cb.lastCall);
}

TEST(LogRouting, LastErrorText) {
    char buf[256] = "untouched";
    CUtilities::GetLastErrorText(buf, 13);
    EXPECT_EQ(std::string(strerror(13)) + " (13)", buf);
    CUtilities::GetLastErrorText(buf, 2);
    EXPECT_EQ(std::string(strerror(2)) + " (2)", buf);
    strcpy(buf, "untouched");
    CUtilities::GetLastErrorText(buf, 99999);  // no system text for this number
    EXPECT_STREQ("untouched", buf);
    char tiny[8];
    CUtilities::GetLastErrorText(tiny, 13, sizeof tiny);
    EXPECT_EQ(7u, strlen(tiny));
}
