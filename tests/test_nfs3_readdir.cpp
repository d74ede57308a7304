// READDIR and READDIRPLUS on the wire: pages of ten entries, cookies that
// are positions, file table IDs, attributes and handles of the entries.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "Nfs3TestServer.h"
#include "TestSupport.h"

using namespace nfs3wire;

namespace {

constexpr uint64_t VERIFIER = 0x0102030405060708ULL;

struct Entry {
    uint64_t fileid = 0;
    std::string name;
    uint64_t cookie = 0;
    bool attrFollows = false;
    Fattr3 attr;
    bool handleFollows = false;
    Bytes handle;
};

struct Listing {
    uint32_t status = 0xFFFFFFFF;
    bool dirAttrFollows = false;
    Fattr3 dirAttr;
    uint64_t verifier = 0;
    std::vector<Entry> entries;
    bool eof = false;
    size_t remaining = 0;  // bytes after the listing: must be 0
};

Listing Parse(const Bytes& results, bool plus) {
    Listing l;
    XdrDecoder d(results);
    l.status = d.GetUint32();
    l.dirAttrFollows = GetPostOpAttr(d, &l.dirAttr);
    if (l.status != 0) {
        l.remaining = d.Remaining();
        return l;
    }
    l.verifier = d.GetUint64();
    while (d.GetUint32() == 1) {
        Entry e;
        e.fileid = d.GetUint64();
        e.name = d.GetString();
        e.cookie = d.GetUint64();
        if (plus) {
            e.attrFollows = GetPostOpAttr(d, &e.attr);
            e.handleFollows = d.GetUint32() == 1;
            if (e.handleFollows) e.handle = d.GetOpaque();
        }
        l.entries.push_back(e);
    }
    l.eof = d.GetUint32() == 1;
    l.remaining = d.Remaining();
    return l;
}

class Nfs3Readdir : public testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(server.Start(&err)) << err;
    }

    Bytes Args(const Bytes& handle, uint64_t cookie, bool plus, uint32_t count = 4096) {
        XdrEncoder e;
        e.PutOpaque(handle).PutUint64(cookie).PutUint64(VERIFIER).PutUint32(count);
        if (plus) e.PutUint32(count * 4);
        return e.GetBytes();
    }


    Listing List(const std::string& dir, uint64_t cookie, bool plus, uint32_t count = 4096,
                 RpcTestClient::Transport t = RpcTestClient::TCP) {
        Bytes results = server.Results(plus ? PROC_READDIRPLUS : PROC_READDIR, Args(server.Handle(dir), cookie, plus, count), t);
        return Parse(results, plus);
    }

    // A folder holding count empty files named prefix + number.
    std::string Folder(const std::string& name, int count, const std::string& prefix = "file") {
        std::string dir = server.PathOf(name);
        EXPECT_EQ(0, mkdir(dir.c_str(), 0755));
        for (int i = 0; i < count; ++i) WriteWholeFile(dir + "/" + prefix + std::to_string(i), "");
        return dir;
    }

    Nfs3TestServer server;
};

}  // namespace

TEST_F(Nfs3Readdir, EmptyDirectoryAnswersAttributesVerifierAndEofOnly) {
    std::string dir = Folder("empty", 0);
    for (bool plus : {false, true}) {
        // Taken before the call: listing updates the folder's access time.
        Fattr3 expected = ExpectedFattr3(dir);
        Bytes results = server.Results(plus ? PROC_READDIRPLUS : PROC_READDIR, Args(server.Handle(dir), 0, plus));
        XdrEncoder verifier;
        verifier.PutUint64(VERIFIER);
        EXPECT_EQ(Join({Words({0, 1}), Encode(expected), verifier.GetBytes(), Words({0, 1})}), results) << plus;
    }
}

TEST_F(Nfs3Readdir, TenEntriesFillOnePageWithoutEof) {
    std::string dir = Folder("ten", 10);
    for (bool plus : {false, true}) {
        Listing l = List(dir, 0, plus);
        ASSERT_EQ(0u, l.status);
        EXPECT_TRUE(l.dirAttrFollows);
        EXPECT_EQ(VERIFIER, l.verifier);
        ASSERT_EQ(10u, l.entries.size());
        std::vector<std::string> names;
        for (size_t i = 0; i < 10; ++i) {
            EXPECT_EQ(i + 1, l.entries[i].cookie);
            names.push_back(l.entries[i].name);
        }
        EXPECT_EQ(FolderNames(dir), names);
        EXPECT_FALSE(l.eof);  // ten entries end a page without looking further
        EXPECT_EQ(0u, l.remaining);

        Listing next = List(dir, 10, plus);
        ASSERT_EQ(0u, next.status);
        EXPECT_TRUE(next.entries.empty());
        EXPECT_TRUE(next.eof);
        EXPECT_EQ(0u, next.remaining);
    }
}

TEST_F(Nfs3Readdir, TwentyFiveEntriesTakeThreeCalls) {
    std::string dir = Folder("many", 25);
    for (bool plus : {false, true}) {
        std::vector<std::string> names;
        uint64_t cookie = 0;
        size_t sizes[3];
        bool eofs[3];
        for (int call = 0; call < 3; ++call) {
            Listing l = List(dir, cookie, plus);
            ASSERT_EQ(0u, l.status);
            sizes[call] = l.entries.size();
            eofs[call] = l.eof;
            for (const Entry& e : l.entries) {
                EXPECT_EQ(++cookie, e.cookie);
                names.push_back(e.name);
            }
        }
        EXPECT_EQ(10u, sizes[0]);
        EXPECT_EQ(10u, sizes[1]);
        EXPECT_EQ(5u, sizes[2]);
        EXPECT_FALSE(eofs[0]);
        EXPECT_FALSE(eofs[1]);
        EXPECT_TRUE(eofs[2]);
        EXPECT_EQ(25u, cookie);
        EXPECT_EQ(FolderNames(dir), names);
    }
}

TEST_F(Nfs3Readdir, CookieBeyondTheEntriesAnswersNoEntriesAndEof) {
    std::string dir = Folder("few", 3);
    for (uint64_t cookie : {3ULL, 4ULL, 100ULL, 0x7FFFFFFFULL}) {
        Listing l = List(dir, cookie, false);
        ASSERT_EQ(0u, l.status);
        EXPECT_TRUE(l.entries.empty()) << cookie;
        EXPECT_TRUE(l.eof) << cookie;
    }
}

TEST_F(Nfs3Readdir, OnlyTheLow32BitsOfTheCookieCountAsASignedPosition) {
    std::string dir = Folder("cookies", 5);
    std::vector<std::string> names = FolderNames(dir);
    // High bits are carried on, but do not move the position.
    Listing high = List(dir, 0x100000003ULL, false);
    ASSERT_EQ(2u, high.entries.size());
    EXPECT_EQ(names[3], high.entries[0].name);
    EXPECT_EQ(0x100000004ULL, high.entries[0].cookie);
    EXPECT_EQ(0x100000005ULL, high.entries[1].cookie);
    EXPECT_TRUE(high.eof);
    // A negative position skips nothing.
    Listing negative = List(dir, 0xFFFFFFFFULL, false);
    ASSERT_EQ(5u, negative.entries.size());
    EXPECT_EQ(names[0], negative.entries[0].name);
    EXPECT_EQ(0x100000000ULL, negative.entries[0].cookie);
}

TEST_F(Nfs3Readdir, DotAndDotDotNeverAppearNorShiftTheNumbering) {
    std::string dir = Folder("dots", 12);
    std::vector<std::string> all;
    for (uint64_t cookie = 0;;) {
        Listing l = List(dir, cookie, false);
        for (const Entry& e : l.entries) {
            EXPECT_NE(".", e.name);
            EXPECT_NE("..", e.name);
            EXPECT_EQ(cookie + 1, e.cookie);
            cookie = e.cookie;
            all.push_back(e.name);
        }
        if (l.eof) break;
    }
    EXPECT_EQ(FolderNames(dir), all);
    EXPECT_EQ(12u, all.size());
}

TEST_F(Nfs3Readdir, PagesAreNeverCutForSize) {
    std::string dir = server.PathOf("long");
    ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    for (int i = 0; i < 12; ++i) {
        std::string name = std::to_string(i);
        WriteWholeFile(dir + "/" + name + std::string(255 - name.size(), 'n'), "");
    }
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        Listing l = List(dir, 0, false, 512, transport);
        ASSERT_EQ(0u, l.status);
        ASSERT_EQ(10u, l.entries.size());
        for (const Entry& e : l.entries) EXPECT_EQ(255u, e.name.size());
        EXPECT_FALSE(l.eof);
    }
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureREADDIR] Cookie=0, cookieverf=72623859790382856, count=512"));
}

TEST_F(Nfs3Readdir, EntryFileIdIsTheIdOfTheHandleThatLookupGives) {
    std::string dir = Folder("ids", 4);
    Listing l = List(dir, 0, false);
    ASSERT_EQ(4u, l.entries.size());
    for (const Entry& e : l.entries) {
        RpcReply reply;
        ASSERT_TRUE(server.Call(PROC_LOOKUP, DirOpArgs(server.Handle(dir), e.name), reply));
        XdrDecoder d = reply.Results();
        ASSERT_EQ(0u, d.GetUint32());
        EXPECT_EQ(e.fileid, HandleID(d.GetOpaque())) << e.name;
        // The file table ID, not the inode that the attributes carry.
        Fattr3 a;
        ASSERT_TRUE(GetPostOpAttr(d, &a));
        struct stat st;
        ASSERT_EQ(0, lstat((dir + "/" + e.name).c_str(), &st));
        EXPECT_EQ((uint64_t)st.st_ino, a.fileid);
    }
}

TEST_F(Nfs3Readdir, ReaddirplusSendsTheAttributesAndHandleOfEveryEntry) {
    std::string dir = Folder("plus", 3);
    ASSERT_EQ(0, mkdir((dir + "/sub").c_str(), 0700));
    WriteWholeFile(dir + "/data", std::string(1000, 'x'));
    Listing l = List(dir, 0, true);
    ASSERT_EQ(0u, l.status);
    ASSERT_EQ(5u, l.entries.size());
    EXPECT_TRUE(l.eof);
    for (const Entry& e : l.entries) {
        std::string path = dir + "/" + e.name;
        ASSERT_TRUE(e.attrFollows) << e.name;
        EXPECT_EQ(Encode(ExpectedFattr3(path)), Encode(e.attr)) << e.name;
        ASSERT_TRUE(e.handleFollows) << e.name;
        EXPECT_EQ(server.Handle(path), e.handle) << e.name;
        EXPECT_EQ(e.fileid, HandleID(e.handle)) << e.name;
    }
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureREADDIRPLUS] Cookie=0, cookieverf=72623859790382856, "
                                 "dircount=4096, maxcount=16384"));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureREADDIRPLUS] Cookie=1, name=" + l.entries[0].name));
}

TEST_F(Nfs3Readdir, MissingDirectoryAnswersIoAndAStaleHandleStaleWithAnAbsentAttribute) {
    std::string dir = Folder("gone", 1);
    Bytes handle = server.Handle(dir);
    ASSERT_EQ(0, unlink((dir + "/file0").c_str()));
    ASSERT_EQ(0, rmdir(dir.c_str()));
    Bytes unknown(56, 0xEE);
    for (bool plus : {false, true}) {
        uint32_t proc = plus ? PROC_READDIRPLUS : PROC_READDIR;
        EXPECT_EQ(Words({5, 0}), server.Results(proc, Args(handle, 0, plus)));
        EXPECT_EQ(Words({70, 0}), server.Results(proc, Args(unknown, 0, plus)));
    }
    EXPECT_EQ(1, server.Log().Count("[Nfs3Prog.ProcedureREADDIR] End stat=5"));
    EXPECT_EQ(1, server.Log().Count("[Nfs3Prog.ProcedureREADDIRPLUS] End stat=5"));
    EXPECT_EQ(1, server.Log().Count("[Nfs3Prog.ProcedureREADDIRPLUS] End stat=70"));
}

TEST_F(Nfs3Readdir, FileThatCannotBeOpenedAsADirectoryListsAsEmpty) {
    std::string file = server.PathOf("plain");
    WriteWholeFile(file, "x");
    Listing l = List(file, 0, false);
    EXPECT_EQ(0u, l.status);
    EXPECT_TRUE(l.dirAttrFollows);
    EXPECT_EQ(1u, l.dirAttr.type);
    EXPECT_TRUE(l.entries.empty());
    EXPECT_TRUE(l.eof);
    EXPECT_EQ(0u, l.remaining);
}
