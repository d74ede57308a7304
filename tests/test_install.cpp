// Installation with cmake --install: the library, the console program and
// the systemd unit of the external server land where a Debian system looks
// for them, and the installed program finds its installed library.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "PrivateMounts.h"
#include "PrivateNetwork.h"
#include "TestSupport.h"
#include "VSphereToolStandIn.h"

namespace {

// The build folder holds the tests folder.
std::string BuildFolder() { return FolderOf(OwnExecutablePath()) + ".."; }

// A value of the build's cache, such as CMAKE_INSTALL_LIBDIR.
std::string CacheValue(const std::string& name) {
    for (const std::string& line : SplitLines(ReadWholeFile(BuildFolder() + "/CMakeCache.txt"))) {
        size_t colon = line.find(':');
        size_t equals = line.find('=');
        if (colon != std::string::npos && equals != std::string::npos && line.substr(0, colon) == name)
            return line.substr(equals + 1);
    }
    return "";
}

// Installs the build with prefix (and DESTDIR destDir when not empty).
bool Install(const std::string& destDir, const std::string& prefix, std::string* output) {
    std::string command = (destDir.empty() ? std::string() : "DESTDIR='" + destDir + "' ") + "cmake --install '" +
                          BuildFolder() + "' --prefix '" + prefix + "' 2>&1";
    int status = -1;
    *output = RunCommand(command, &status);
    return status == 0;
}

bool IsExecutableFile(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & S_IXUSR);
}

}  // namespace

TEST(Install, IntoAStagingFolderWhereDebianExpectsTheFiles) {
    TempDir stage;
    std::string out;
    ASSERT_TRUE(Install(stage.Path(), "/usr", &out)) << out;
    const std::string libDir = CacheValue("CMAKE_INSTALL_LIBDIR");
    ASSERT_FALSE(libDir.empty());
    EXPECT_TRUE(PathExists(stage / "usr/" + libDir + "/libnfsengine.so")) << out;
    EXPECT_TRUE(IsExecutableFile(stage / "usr/sbin/nfsengine")) << out;
    const std::string unitPath = stage / "usr/lib/systemd/system/nfsengine.service";
    ASSERT_TRUE(PathExists(unitPath)) << out;

    std::string unit = ReadWholeFile(unitPath);
    EXPECT_NE(std::string::npos,
              unit.find("\nExecStart=/usr/sbin/nfsengine -md svr -id nfsengine -log 1 -pidfile "
                        "/run/nfsengine/nfsengine.pid -logfile /var/log/nfsengine/nfsengine.log\n"))
        << unit;
    EXPECT_NE(std::string::npos, unit.find("\nKillSignal=SIGTERM\n")) << unit;
    EXPECT_NE(std::string::npos, unit.find("\nRuntimeDirectory=nfsengine\n")) << unit;
    EXPECT_NE(std::string::npos, unit.find("\nLogsDirectory=nfsengine\n")) << unit;

    // The installed program runs with the installed library, not the build's.
    int status = -1;
    std::string ldd = RunCommand("ldd '" + stage / "usr/sbin/nfsengine" + "'", &status);
    EXPECT_NE(std::string::npos, ldd.find(stage.Path())) << ldd;
    std::string help = RunCommand("'" + stage / "usr/sbin/nfsengine" + "' -help", &status);
    EXPECT_EQ(0, status);
    EXPECT_NE(std::string::npos, help.find("Usage: ")) << help;

}

TEST(Install, TheUnitNamesTheProgramUnderTheGivenPrefix) {
    TempDir stage;
    std::string out;
    ASSERT_TRUE(Install(stage.Path(), "/opt/nfsengine", &out)) << out;
    std::string unit = ReadWholeFile(stage / "opt/nfsengine/lib/systemd/system/nfsengine.service");
    EXPECT_NE(std::string::npos, unit.find("\nExecStart=/opt/nfsengine/sbin/nfsengine -md svr ")) << unit;
}

TEST(Install, SystemdAcceptsTheUnit) {
    int status = -1;
    RunCommand("command -v systemd-analyze", &status);
    if (status != 0) GTEST_SKIP() << "systemd-analyze is not installed";
    // Installed under a real folder (no DESTDIR), so that the program the
    // unit starts exists where the unit says.
    TempDir root;
    std::string out;
    ASSERT_TRUE(Install("", root / "usr", &out)) << out;
    const std::string unit = root / "usr/lib/systemd/system/nfsengine.service";
    std::string verify = RunCommand("systemd-analyze verify '" + unit + "' 2>&1", &status);
    EXPECT_EQ(0, status) << verify;
    // Warnings (a directive it cannot parse, say) do not change the status.
    EXPECT_EQ("", verify);
}
