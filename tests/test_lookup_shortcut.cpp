// LOOKUP and the entries of READDIRPLUS resolve a name against the folder's
// canonical path with one lstat where that gives what realpath gives. Every
// answer must be the same as with realpath alone: each call is made with the
// shortcut on and off (same reply bytes, so the same file table row) and the
// handle's path is compared with realpath's answer.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <string>

#include "Nfs3Prog.h"
#include "Nfs3TestServer.h"
#include "TestSupport.h"
#include "Utilities.h"

using namespace nfs3wire;

namespace {

constexpr uint32_t NFS3ERR_NOENT_ = 2;
constexpr uint32_t NFS3ERR_ACCES_ = 13;

std::string RealPath(const std::string& path) {
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) ? resolved : "";
}

class LookupShortcut : public testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(server.Start(&err)) << err;
        root = server.Root();
        ASSERT_EQ(RealPath(root), root);
        ASSERT_EQ(0, mkdir((root + "/d").c_str(), 0755));
        WriteWholeFile(root + "/f", "file");
        WriteWholeFile(root + "/d/g", "inner");
    }

    void Shortcut(bool on) { server.Version3().SetResolveShortcut(on); }

    // The LOOKUP reply with the shortcut on, checked to be the same with it
    // off and on again.
    Bytes Lookup(const Bytes& dir, const std::string& name) {
        Shortcut(true);
        Bytes first = server.Results(PROC_LOOKUP, DirOpArgs(dir, name));
        Shortcut(false);
        Bytes plain = server.Results(PROC_LOOKUP, DirOpArgs(dir, name));
        Shortcut(true);
        Bytes again = server.Results(PROC_LOOKUP, DirOpArgs(dir, name));
        EXPECT_EQ(plain, first) << name;
        EXPECT_EQ(plain, again) << name;
        return first;
    }

    // A successful LOOKUP's handle; its path must be expected.
    Bytes Found(const Bytes& dir, const std::string& name, const std::string& expected) {
        Bytes reply = Lookup(dir, name);
        XdrDecoder d(reply);
        EXPECT_EQ(0u, d.GetUint32()) << name;
        Bytes handle = d.GetOpaque();
        EXPECT_EQ(expected, PathOf(handle)) << name;
        EXPECT_EQ(server.Handle(expected), handle) << name;
        return handle;
    }

    uint32_t Status(const Bytes& dir, const std::string& name) { return XdrDecoder(Lookup(dir, name)).GetUint32(); }

    std::string PathOf(const Bytes& handle) {
        char path[PATH_BUFFER_SIZE];
        if (!server.Utilities().GetFilePath(nullptr, handle.data(), path, (int)sizeof path, handle.size()))
            return "";
        return path;
    }

    Nfs3TestServer server;
    std::string root;
};

TEST_F(LookupShortcut, PlainEntriesResolveToTheFolderPlusTheName) {
    Bytes top = server.Handle(root);
    Found(top, "f", root + "/f");
    Bytes d = Found(top, "d", root + "/d");
    Found(d, "g", root + "/d/g");
}

TEST_F(LookupShortcut, DotAndDotDotResolveAsRealpathDoesAndStopAtTheRoot) {
    Bytes top = server.Handle(root);
    Bytes d = Found(top, "d", root + "/d");
    Found(d, ".", root + "/d");
    Found(d, "..", root);
    Found(top, ".", root);
    Found(top, "..", root);  // the root's parent is outside: the root stands for it
}

TEST_F(LookupShortcut, LinksInsideTheExportLeadToTheirTargets) {
    ASSERT_EQ(0, symlink("d/g", (root + "/to-file").c_str()));
    ASSERT_EQ(0, symlink((root + "/d").c_str(), (root + "/to-folder").c_str()));
    ASSERT_EQ(0, symlink("../f", (root + "/d/up-to-file").c_str()));
    Bytes top = server.Handle(root);
    Found(top, "to-file", root + "/d/g");
    // A folder reached through a link is its real path, and so are its entries.
    Bytes viaLink = Found(top, "to-folder", root + "/d");
    Found(viaLink, "g", root + "/d/g");
    Found(viaLink, "up-to-file", root + "/f");
    Found(viaLink, "..", root);
}

TEST_F(LookupShortcut, LinksOutOfTheExportAndDanglingLinksAreRefused) {
    ASSERT_EQ(0, symlink("/etc", (root + "/abs-out").c_str()));
    ASSERT_EQ(0, symlink("../..", (root + "/d/rel-out").c_str()));
    ASSERT_EQ(0, symlink("nowhere", (root + "/dangling").c_str()));
    ASSERT_EQ(0, symlink("/nonexistent-folder/x", (root + "/dangling-out").c_str()));
    Bytes top = server.Handle(root);
    Bytes d = Found(top, "d", root + "/d");
    int outBefore = server.Log().CountContaining("Entry leads out of its export");
    EXPECT_EQ(NFS3ERR_ACCES_, Status(top, "abs-out"));
    EXPECT_EQ(NFS3ERR_ACCES_, Status(d, "rel-out"));
    EXPECT_EQ(outBefore + 6, server.Log().CountContaining("Entry leads out of its export"));  // three calls each
    int nowhereBefore = server.Log().CountContaining("Link leads nowhere");
    EXPECT_EQ(NFS3ERR_ACCES_, Status(top, "dangling"));
    EXPECT_EQ(NFS3ERR_ACCES_, Status(top, "dangling-out"));
    EXPECT_EQ(nowhereBefore + 6, server.Log().CountContaining("Link leads nowhere"));
}

TEST_F(LookupShortcut, MissingNamesAreNotFound) {
    Bytes top = server.Handle(root);
    EXPECT_EQ(NFS3ERR_NOENT_, Status(top, "missing"));
    Bytes d = Found(top, "d", root + "/d");
    EXPECT_EQ(NFS3ERR_NOENT_, Status(d, "missing"));
}

TEST_F(LookupShortcut, NamesInAFileOrAMissingFolderAreNotFound) {
    Bytes top = server.Handle(root);
    Bytes f = Found(top, "f", root + "/f");
    EXPECT_EQ(NFS3ERR_NOENT_, Status(f, "x"));
    Bytes d = Found(top, "d", root + "/d");
    ASSERT_EQ(0, unlink((root + "/d/g").c_str()));
    ASSERT_EQ(0, rmdir((root + "/d").c_str()));
    EXPECT_EQ(NFS3ERR_NOENT_, Status(d, "g"));
}

TEST_F(LookupShortcut, NewEntriesAreMadeAtTheFolderPlusTheirName) {
    Bytes d = Found(server.Handle(root), "d", root + "/d");
    for (bool on : {true, false}) {
        Shortcut(on);
        std::string name = on ? "made-with" : "made-without";
        // CREATE, UNCHECKED, nothing set: status, then the new handle.
        Bytes made = server.Results(PROC_CREATE, Join({DirOpArgs(d, name), Words({0, 0, 0, 0, 0, 0, 0})}));
        XdrDecoder dec(made);
        ASSERT_EQ(0u, dec.GetUint32()) << name;
        ASSERT_EQ(1u, dec.GetUint32()) << name;
        EXPECT_EQ(root + "/d/" + name, PathOf(dec.GetOpaque())) << name;
    }
}

TEST_F(LookupShortcut, NamesOfARenamedFolderFollowItsNewPath) {
    Bytes top = server.Handle(root);
    Bytes d = Found(top, "d", root + "/d");
    Found(d, "g", root + "/d/g");
    Bytes renamed = server.Results(PROC_RENAME, Join({DirOpArgs(top, "d"), DirOpArgs(top, "e")}));
    ASSERT_EQ(0u, XdrDecoder(renamed).GetUint32());
    EXPECT_EQ(root + "/e", PathOf(d));  // the handle follows the folder
    Found(d, "g", root + "/e/g");
    Found(d, "..", root);
    EXPECT_EQ(NFS3ERR_NOENT_, Status(top, "d"));
}

TEST_F(LookupShortcut, ReaddirplusHandlesAreTheSameWithAndWithoutTheShortcut) {
    ASSERT_EQ(0, symlink("d/g", (root + "/to-file").c_str()));
    ASSERT_EQ(0, symlink("/etc", (root + "/abs-out").c_str()));
    ASSERT_EQ(0, symlink("nowhere", (root + "/dangling").c_str()));
    ASSERT_EQ(0, symlink("d", (root + "/to-folder").c_str()));
    XdrEncoder e;
    e.PutOpaque(server.Handle(root)).PutUint64(0).PutUint64(0).PutUint32(4096).PutUint32(16384);
    Bytes args = e.GetBytes();
    Shortcut(true);
    Bytes on = server.Results(PROC_READDIRPLUS, args);
    Shortcut(false);
    Bytes off = server.Results(PROC_READDIRPLUS, args);
    // Past the status and the folder's attributes (its access time moves).
    constexpr size_t DIR_ATTR_END = 4 + 4 + 84;
    ASSERT_GT(on.size(), DIR_ATTR_END);
    ASSERT_GT(off.size(), DIR_ATTR_END);
    EXPECT_EQ(Bytes(off.begin() + DIR_ATTR_END, off.end()), Bytes(on.begin() + DIR_ATTR_END, on.end()));
    // The entries' handles name their real paths.
    Bytes toFile = Found(server.Handle(root), "to-file", root + "/d/g");
    EXPECT_EQ(server.Handle(root + "/d/g"), toFile);
}

TEST(LookupShortcutForm, OnlyPathsInTheFormRealpathGivesQualify) {
    EXPECT_TRUE(CNfs3Prog::IsPlainPath("/a"));
    EXPECT_TRUE(CNfs3Prog::IsPlainPath("/a/b.c/..d/.e"));
    EXPECT_FALSE(CNfs3Prog::IsPlainPath("/"));
    EXPECT_FALSE(CNfs3Prog::IsPlainPath(""));
    EXPECT_FALSE(CNfs3Prog::IsPlainPath(nullptr));
    EXPECT_FALSE(CNfs3Prog::IsPlainPath("a/b"));
    EXPECT_FALSE(CNfs3Prog::IsPlainPath("/a/"));
    EXPECT_FALSE(CNfs3Prog::IsPlainPath("/a//b"));
    EXPECT_FALSE(CNfs3Prog::IsPlainPath("/a/./b"));
    EXPECT_FALSE(CNfs3Prog::IsPlainPath("/a/../b"));
    EXPECT_FALSE(CNfs3Prog::IsPlainPath("/a/.."));
    EXPECT_FALSE(CNfs3Prog::IsPlainPath("/a/."));
}

}  // namespace
