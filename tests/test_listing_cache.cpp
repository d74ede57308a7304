// The order of entries kept between the pages of a listing: every page must
// be what a fresh scan of the folder gives at that moment, whatever changed
// in between (entries added, removed, renamed, the folder replaced), and a
// whole listing must be the same with and without the cache. Pages are
// asked for on the wire; CListingCache is also driven directly for its
// bounds.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "ListingCache.h"
#include "Nfs3Prog.h"
#include "Nfs3TestServer.h"
#include "TestSupport.h"

using namespace nfs3wire;

namespace {

// Short, yet well above the tick of the clock that stamps change times.
constexpr long long TEST_MARGIN_NS = 50 * 1000 * 1000;

void WaitPastMargin() { std::this_thread::sleep_for(std::chrono::milliseconds(80)); }

struct Page {
    uint32_t status = 0xFFFFFFFF;
    std::vector<std::string> names;
    std::vector<uint64_t> cookies;
    bool eof = false;
    Bytes raw;  // the whole results
};

Page ParsePage(const Bytes& results, bool plus) {
    Page p;
    p.raw = results;
    XdrDecoder d(results);
    p.status = d.GetUint32();
    GetPostOpAttr(d);
    if (p.status != 0) return p;
    d.GetUint64();  // verifier
    while (d.GetUint32() == 1) {
        d.GetUint64();  // fileid
        p.names.push_back(d.GetString());
        p.cookies.push_back(d.GetUint64());
        if (plus) {
            GetPostOpAttr(d);
            if (d.GetUint32() == 1) d.GetOpaque();
        }
    }
    p.eof = d.GetUint32() == 1;
    return p;
}

std::vector<std::string> Slice(const std::vector<std::string>& all, size_t first, size_t count) {
    std::vector<std::string> part;
    for (size_t i = first; i < all.size() && part.size() < count; ++i) part.push_back(all[i]);
    return part;
}

class ListingCacheWire : public testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(server.Start(&err)) << err;
        Cache().SetMargin(TEST_MARGIN_NS);
    }

    CListingCache& Cache() { return server.Version3().GetListingCache(); }

    Page List(const std::string& dir, uint64_t cookie, bool plus = false) {
        XdrEncoder e;
        e.PutOpaque(server.Handle(dir)).PutUint64(cookie).PutUint64(7).PutUint32(4096);
        if (plus) e.PutUint32(16384);
        return ParsePage(server.Results(plus ? PROC_READDIRPLUS : PROC_READDIR, e.GetBytes()), plus);
    }

    // A fresh scan's page: the names from position cookie on, at most ten,
    // and whether the folder ended before ten.
    void ExpectFreshPage(const std::string& dir, uint64_t cookie, const Page& page) {
        std::vector<std::string> now = FolderNames(dir);
        EXPECT_EQ(Slice(now, (size_t)cookie, 10), page.names) << "cookie " << cookie;
        EXPECT_EQ(cookie >= now.size() || now.size() - cookie < 10, page.eof) << "cookie " << cookie;
        for (size_t i = 0; i < page.cookies.size(); ++i) EXPECT_EQ(cookie + i + 1, page.cookies[i]);
    }

    // The rest of a listing from cookie on, each page checked against a
    // fresh scan; the names given.
    std::vector<std::string> ListRest(const std::string& dir, uint64_t cookie, bool plus = false) {
        std::vector<std::string> names;
        for (int calls = 0; calls < 1000; ++calls) {
            Page p = List(dir, cookie, plus);
            EXPECT_EQ(0u, p.status);
            ExpectFreshPage(dir, cookie, p);
            names.insert(names.end(), p.names.begin(), p.names.end());
            cookie += p.names.size();
            if (p.eof || p.status != 0) break;
        }
        return names;
    }

    std::string Folder(const std::string& name, int count, const std::string& prefix = "file") {
        std::string dir = server.PathOf(name);
        EXPECT_EQ(0, mkdir(dir.c_str(), 0755));
        for (int i = 0; i < count; ++i) WriteWholeFile(dir + "/" + prefix + std::to_string(i), "");
        return dir;
    }

    Nfs3TestServer server{0x3FF & ~0x10};  // without the per-entry argument lines
};

TEST_F(ListingCacheWire, AnUnchangedFolderIsScannedOncePerListing) {
    std::string dir = Folder("steady", 95);
    WaitPastMargin();
    unsigned long long before = Cache().EntriesRead();
    std::vector<std::string> names = ListRest(dir, 0);
    EXPECT_EQ(FolderNames(dir), names);
    EXPECT_EQ(95u, Cache().EntriesRead() - before);  // fresh scans would read 10 + 20 + ... + 95
    EXPECT_EQ(1u, Cache().Folders());
}

TEST_F(ListingCacheWire, EntriesAddedBetweenPagesAreListedAsAFreshScanWould) {
    std::string dir = Folder("added", 25);
    WaitPastMargin();
    ExpectFreshPage(dir, 0, List(dir, 0));
    ASSERT_EQ(1u, Cache().Folders());
    for (int i = 0; i < 20; ++i) WriteWholeFile(dir + "/new" + std::to_string(i), "");
    std::vector<std::string> rest = ListRest(dir, 10);
    EXPECT_EQ(Slice(FolderNames(dir), 10, 1000), rest);
    EXPECT_EQ(35u, rest.size());  // a stale order would end after 15
}

TEST_F(ListingCacheWire, EntriesRemovedBetweenPagesAreNotListed) {
    std::string dir = Folder("removed", 40);
    WaitPastMargin();
    std::vector<std::string> before = FolderNames(dir);
    ExpectFreshPage(dir, 0, List(dir, 0));
    for (size_t i = 10; i < 30; ++i) ASSERT_EQ(0, unlink((dir + "/" + before[i]).c_str()));
    std::vector<std::string> rest = ListRest(dir, 10);
    EXPECT_EQ(10u, rest.size());
    for (size_t i = 10; i < 30; ++i) EXPECT_EQ(rest.end(), std::find(rest.begin(), rest.end(), before[i])) << before[i];
}

TEST_F(ListingCacheWire, EntriesRenamedBetweenPagesAreListedUnderTheirNewNames) {
    std::string dir = Folder("renamed", 30);
    WaitPastMargin();
    std::vector<std::string> before = FolderNames(dir);
    ExpectFreshPage(dir, 0, List(dir, 0));
    ExpectFreshPage(dir, 10, List(dir, 10));
    // Through the server (the listing gave the entry its file ID) and behind it.
    Bytes renamed = server.Results(PROC_RENAME, Join({DirOpArgs(server.Handle(dir), before[0]),
                                                     DirOpArgs(server.Handle(dir), "again")}));
    ASSERT_EQ(0u, XdrDecoder(renamed).GetUint32());
    for (size_t i = 1; i < before.size(); ++i)
        ASSERT_EQ(0, rename((dir + "/" + before[i]).c_str(), (dir + "/moved-" + before[i]).c_str()));
    std::vector<std::string> rest = ListRest(dir, 10);
    EXPECT_EQ(20u, rest.size());
    for (const std::string& name : rest) EXPECT_TRUE(name.rfind("moved-", 0) == 0 || name == "again") << name;
}

TEST_F(ListingCacheWire, AFolderReplacedByAnotherOfTheSameNameIsScannedAfresh) {
    std::string dir = Folder("swap", 30, "old");
    std::string other = Folder("swap-next", 30, "new");
    WaitPastMargin();
    ExpectFreshPage(dir, 0, List(dir, 0));
    ASSERT_EQ(0, rename(dir.c_str(), server.PathOf("swap-gone").c_str()));
    ASSERT_EQ(0, rename(other.c_str(), dir.c_str()));
    WaitPastMargin();  // the new folder's change time is as old as the margin asks
    std::vector<std::string> rest = ListRest(dir, 10);
    ASSERT_EQ(20u, rest.size());
    for (const std::string& name : rest) EXPECT_EQ(0u, name.rfind("new", 0)) << name;
}

TEST_F(ListingCacheWire, TwoFoldersListedAlternatelyKeepTheirOwnOrders) {
    std::string a = Folder("alpha", 47, "a");
    std::string b = Folder("beta", 33, "b");
    WaitPastMargin();
    unsigned long long before = Cache().EntriesRead();
    std::vector<std::string> fromA, fromB;
    uint64_t ca = 0, cb = 0;
    bool endA = false, endB = false;
    while (!endA || !endB) {
        if (!endA) {
            Page p = List(a, ca, true);
            ExpectFreshPage(a, ca, p);
            fromA.insert(fromA.end(), p.names.begin(), p.names.end());
            ca += p.names.size();
            endA = p.eof;
        }
        if (!endB) {
            Page p = List(b, cb, true);
            ExpectFreshPage(b, cb, p);
            fromB.insert(fromB.end(), p.names.begin(), p.names.end());
            cb += p.names.size();
            endB = p.eof;
        }
    }
    EXPECT_EQ(FolderNames(a), fromA);
    EXPECT_EQ(FolderNames(b), fromB);
    EXPECT_EQ(47u + 33u, Cache().EntriesRead() - before);
    EXPECT_EQ(2u, Cache().Folders());
}

TEST_F(ListingCacheWire, AFolderAboveTheCapIsListedByFreshScansAndNotKept) {
    Cache().SetLimits(8, 15);
    std::string dir = Folder("big", 42);
    WaitPastMargin();
    std::vector<std::string> names = ListRest(dir, 0, true);
    EXPECT_EQ(FolderNames(dir), names);
    EXPECT_EQ(0u, Cache().Folders());
    // At the cap exactly it is kept.
    std::string small = Folder("small", 15);
    WaitPastMargin();
    EXPECT_EQ(FolderNames(small), ListRest(small, 0));
    EXPECT_EQ(1u, Cache().Folders());
}

TEST_F(ListingCacheWire, AFolderChangedWithinTheMarginIsNotKept) {
    Cache().SetMargin(CListingCache::DEFAULT_MARGIN_NS);
    std::string dir = Folder("fresh", 25);
    EXPECT_EQ(FolderNames(dir), ListRest(dir, 0));
    EXPECT_EQ(0u, Cache().Folders());
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(FolderNames(dir), ListRest(dir, 0));
    EXPECT_EQ(1u, Cache().Folders());
}

TEST_F(ListingCacheWire, AWholeListingIsTheSameWithAndWithoutTheCache) {
    std::string dir = Folder("same", 37);
    ASSERT_EQ(0, mkdir((dir + "/sub").c_str(), 0700));
    WriteWholeFile(dir + "/data", std::string(3000, 'x'));
    ASSERT_EQ(0, symlink("data", (dir + "/inside-link").c_str()));
    ASSERT_EQ(0, symlink("/etc", (dir + "/outside-link").c_str()));
    ASSERT_EQ(0, symlink("nothing-here", (dir + "/dangling-link").c_str()));
    WaitPastMargin();
    for (bool plus : {false, true}) {
        std::vector<Bytes> cached, fresh;
        for (bool enabled : {true, false}) {
            Cache().SetEnabled(enabled);
            std::vector<Bytes>& pages = enabled ? cached : fresh;
            for (uint64_t cookie = 0;; cookie += 10) {
                Page p = List(dir, cookie, plus);
                ASSERT_EQ(0u, p.status);
                pages.push_back(p.raw);
                if (p.eof) break;
            }
            EXPECT_EQ(enabled ? 1u : 0u, Cache().Folders());
        }
        ASSERT_EQ(5u, cached.size());
        // Byte for byte, save the folder's own attributes: listing it
        // moves its access time.
        for (size_t i = 0; i < cached.size(); ++i) {
            constexpr size_t DIR_ATTR_END = 4 + 4 + 84;
            ASSERT_GT(cached[i].size(), DIR_ATTR_END);
            EXPECT_EQ(Bytes(cached[i].begin() + DIR_ATTR_END, cached[i].end()),
                      Bytes(fresh[i].begin() + DIR_ATTR_END, fresh[i].end()))
                << "page " << i << " plus " << plus;
        }
    }
}

// ---- the cache on its own ---------------------------------------------------

class ListingCacheDirect : public testing::Test {
protected:
    void SetUp() override { cache.SetMargin(TEST_MARGIN_NS); }

    std::string Folder(const std::string& name, int count) {
        std::string dir = tmp.Path() + "/" + name;
        EXPECT_EQ(0, mkdir(dir.c_str(), 0755));
        for (int i = 0; i < count; ++i) WriteWholeFile(dir + "/e" + std::to_string(i), "");
        return dir;
    }

    std::vector<std::string> All(const std::string& dir) {
        std::vector<std::string> all, page;
        bool eof = false;
        for (int32_t skip = 0; !eof; skip += 10) {
            cache.Page(dir.c_str(), skip, 10, &page, &eof);
            all.insert(all.end(), page.begin(), page.end());
            if (skip > 100000) break;
        }
        return all;
    }

    TempDir tmp;
    CListingCache cache{2, 1000};
};

TEST_F(ListingCacheDirect, TheLeastRecentlyUsedFolderIsDroppedFirst) {
    std::string a = Folder("a", 12), b = Folder("b", 12), c = Folder("c", 12);
    WaitPastMargin();
    EXPECT_EQ(FolderNames(a), All(a));
    EXPECT_EQ(FolderNames(b), All(b));
    EXPECT_EQ(FolderNames(a), All(a));  // a is now the most recent
    unsigned long long read = cache.EntriesRead();
    EXPECT_EQ(FolderNames(c), All(c));  // drops b
    EXPECT_EQ(2u, cache.Folders());
    EXPECT_EQ(FolderNames(a), All(a));
    EXPECT_EQ(read + 12, cache.EntriesRead());
    EXPECT_EQ(FolderNames(b), All(b));
    EXPECT_EQ(read + 24, cache.EntriesRead());
}

TEST_F(ListingCacheDirect, PagesEndAsAFreshScanEnds) {
    std::string dir = Folder("ten", 10);
    WaitPastMargin();
    std::vector<std::string> page;
    bool eof = true;
    cache.Page(dir.c_str(), 0, 10, &page, &eof);
    EXPECT_EQ(10u, page.size());
    EXPECT_FALSE(eof);  // ten given: not looked further
    cache.Page(dir.c_str(), 10, 10, &page, &eof);
    EXPECT_TRUE(page.empty());
    EXPECT_TRUE(eof);
    cache.Page(dir.c_str(), 0x7FFFFFFF, 10, &page, &eof);
    EXPECT_TRUE(page.empty());
    EXPECT_TRUE(eof);
    cache.Page(dir.c_str(), -5, 10, &page, &eof);  // skips nothing
    EXPECT_EQ(Slice(FolderNames(dir), 0, 10), page);
    cache.Page(dir.c_str(), 7, 10, &page, &eof);
    EXPECT_EQ(Slice(FolderNames(dir), 7, 10), page);
    EXPECT_TRUE(eof);
    EXPECT_EQ(1u, cache.Folders());
}

TEST_F(ListingCacheDirect, AFolderThatCannotBeOpenedIsAnEmptyListing) {
    std::vector<std::string> page{"left over"};
    bool eof = false;
    cache.Page((tmp.Path() + "/missing").c_str(), 0, 10, &page, &eof);
    EXPECT_TRUE(page.empty());
    EXPECT_TRUE(eof);
    std::string file = tmp.Path() + "/plain";
    WriteWholeFile(file, "x");
    eof = false;
    cache.Page(file.c_str(), 0, 10, &page, &eof);
    EXPECT_TRUE(page.empty());
    EXPECT_TRUE(eof);
    EXPECT_EQ(0u, cache.Folders());
}

TEST_F(ListingCacheDirect, ConcurrentListingsAllSeeTheFolderAsItIs) {
    std::string a = Folder("a", 55), b = Folder("b", 23), c = Folder("c", 31);
    WaitPastMargin();
    std::vector<std::string> wantA = FolderNames(a), wantB = FolderNames(b), wantC = FolderNames(c);
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 30; ++round) {
                if (All(a) != wantA) ++failures[t];
                if (All(b) != wantB) ++failures[t];
                if (All(c) != wantC) ++failures[t];
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 0; t < 4; ++t) EXPECT_EQ(0, failures[t]) << t;
}

}  // namespace
