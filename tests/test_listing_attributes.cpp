// The attributes of READDIRPLUS entries are built from the lstat that
// resolving the entry made and from one statvfs per device of the listing.
// Every entry must still carry exactly what GETATTR of its path gives: the
// file system ID of a link is that of where it points, and an entry with a
// file system mounted on it has that file system's ID.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>

#include "Nfs3TestServer.h"
#include "PrivateMounts.h"
#include "TestSupport.h"
#include "Utilities.h"

using namespace nfs3wire;

namespace {

// name -> attributes of every entry of a READDIRPLUS listing of dir.
std::map<std::string, Fattr3> ListWithAttributes(Nfs3TestServer& server, const std::string& dir) {
    std::map<std::string, Fattr3> entries;
    uint64_t cookie = 0;
    for (bool eof = false; !eof;) {
        XdrEncoder e;
        e.PutOpaque(server.Handle(dir)).PutUint64(cookie).PutUint64(0).PutUint32(4096).PutUint32(16384);
        Bytes reply = server.Results(PROC_READDIRPLUS, e.GetBytes());
        XdrDecoder d(reply);
        EXPECT_EQ(0u, d.GetUint32());
        if (testing::Test::HasFailure()) return entries;
        GetPostOpAttr(d);
        d.GetUint64();  // cookieverf
        while (d.GetUint32() == 1) {
            d.GetUint64();  // file table ID
            std::string name = d.GetString();
            cookie = d.GetUint64();
            Fattr3 attr;
            EXPECT_TRUE(GetPostOpAttr(d, &attr)) << name;
            entries[name] = attr;
            if (d.GetUint32() == 1) d.GetOpaque();  // handle
        }
        eof = d.GetUint32() == 1;
    }
    return entries;
}

// Its own process and mount namespace: tmpfs file systems are mounted
// inside the export.
TEST(ListingAttributes, EntriesOnOtherFileSystemsAndLinksCarryWhatGetattrGives) {
    std::string err;
    ASSERT_TRUE(EnterPrivateMountNamespace(err)) << err;
    std::unique_ptr<Nfs3TestServer> server(new Nfs3TestServer);
    const std::string root = server->Root();
    ASSERT_EQ(0, mkdir((root + "/mounted").c_str(), 0755));
    ASSERT_EQ(0, mkdir((root + "/plain").c_str(), 0755));
    ASSERT_EQ(0, mkdir((root + "/second").c_str(), 0755));
    ScopedTmpfs mounted(root + "/mounted", "size=64k");
    ASSERT_TRUE(mounted.Ok()) << mounted.Error();
    ScopedTmpfs second(root + "/second", "size=128k");
    ASSERT_TRUE(second.Ok()) << second.Error();
    WriteWholeFile(root + "/mounted/inner", "on the first tmpfs");
    for (const char* name : {"a", "b", "c"}) WriteWholeFile(root + "/" + name, name);
    // Links to other file systems, listed between plain entries.
    ASSERT_EQ(0, symlink("mounted", (root + "/link-to-mounted").c_str()));
    ASSERT_EQ(0, symlink("second", (root + "/link-to-second").c_str()));
    ASSERT_EQ(0, symlink("/proc", (root + "/link-to-proc").c_str()));
    ASSERT_EQ(0, symlink("a", (root + "/link-to-a").c_str()));
    // Links with an access time older than their change: resolving one reads
    // it, which moves its access time, and its entry must show the new one.
    for (const char* link : {"link-to-mounted", "link-to-second", "link-to-proc", "link-to-a"}) {
        const timespec times[2] = {{1000000, 0}, {0, UTIME_OMIT}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, (root + "/" + link).c_str(), times, AT_SYMLINK_NOFOLLOW)) << link;
    }
    ASSERT_TRUE(server->Start(&err)) << err;

    // Three file systems' IDs among the entries, or the test proves nothing.
    const unsigned long long diskId = CUtilities::GetFileSystemID(root.c_str());
    ASSERT_NE(diskId, CUtilities::GetFileSystemID((root + "/mounted").c_str()));
    ASSERT_NE(diskId, CUtilities::GetFileSystemID((root + "/second").c_str()));
    ASSERT_NE(diskId, CUtilities::GetFileSystemID("/proc"));

    std::map<std::string, Fattr3> entries = ListWithAttributes(*server, root);
    ASSERT_EQ(10u, entries.size());
    for (const auto& entry : entries) {
        const std::string path = root + "/" + entry.first;
        EXPECT_EQ(Encode(ExpectedFattr3(path)), Encode(entry.second)) << entry.first;
        if (entry.second.type == 5) continue;  // a handle names where a link leads
        Bytes reply = server->Results(PROC_GETATTR, HandleArgs(server->Handle(path)));
        XdrDecoder d(reply);
        ASSERT_EQ(0u, d.GetUint32()) << entry.first;
        Fattr3 got = GetFattr3(d);
        EXPECT_EQ(got.fsid, entry.second.fsid) << entry.first;
    }
    EXPECT_EQ(CUtilities::GetFileSystemID("/proc"), entries["link-to-proc"].fsid);
    EXPECT_EQ(entries["mounted"].fsid, entries["link-to-mounted"].fsid);
    EXPECT_EQ(entries["second"].fsid, entries["link-to-second"].fsid);
    EXPECT_NE(entries["mounted"].fsid, entries["second"].fsid);
    EXPECT_EQ(diskId, entries["link-to-a"].fsid);
    EXPECT_EQ(diskId, entries["plain"].fsid);
    EXPECT_EQ(5u, entries["link-to-proc"].type);  // the link itself, not where it points
    EXPECT_EQ(2u, entries["mounted"].type);

    // Inside a mounted folder, its own entries carry its ID.
    std::map<std::string, Fattr3> inner = ListWithAttributes(*server, root + "/mounted");
    ASSERT_EQ(1u, inner.size());
    EXPECT_EQ(Encode(ExpectedFattr3(root + "/mounted/inner")), Encode(inner["inner"]));
    EXPECT_EQ(entries["mounted"].fsid, inner["inner"].fsid);
}

}  // namespace
