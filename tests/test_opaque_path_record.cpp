// COpaquePath is one record: the MOUNT program reads export names into it
// and the NFS program's filename3 is the same type. This executable uses
// the record as the NFS program sees it and runs MNT and UMNT: were there
// two different definitions under the one name, the linker would keep one
// constructor for both and the MOUNT program would run the NFS one's (or
// the reverse) on its own objects.
#include <gtest/gtest.h>

#include "Nfs3Prog.h"
#include "RpcFuzzHarness.h"
#include "RpcTestClient.h"
#include "TestSupport.h"

namespace {

Bytes PathCall(uint32_t xid, uint32_t proc) {
    XdrEncoder args;
    args.PutString(RpcFuzzHarness::EXPORT_NAME);
    return WithRecordMark(BuildRpcCall(xid, 100005, 3, proc, args.GetBytes()));
}

}  // namespace

TEST(OpaquePathRecord, NfsNameStartsEmpty) {
    filename3 name;
    EXPECT_STREQ("", name.sPath);
    diropargs3 args;
    EXPECT_STREQ("", args.dir.sPath);
    EXPECT_STREQ("", args.name.sPath);
}

TEST(OpaquePathRecord, MountProgramServesInAnExecutableThatUsesTheNfsRecord) {
    filename3 name;  // this file's own use of the record
    ASSERT_STREQ("", name.sPath);
    TempDir dir;
    RpcFuzzHarness harness(dir.Path());
    Bytes input{RpcFuzzHarness::Selector(RpcFuzzHarness::MOUNT, RpcFuzzHarness::TCP)};
    for (auto call : {PathCall(1, 1), PathCall(2, 3), PathCall(3, 1)}) input.insert(input.end(), call.begin(), call.end());
    harness.Run(input);
    ASSERT_EQ(3u, harness.Replies().size());
    for (size_t i = 0; i < 3; ++i) {
        RpcReply reply;
        const Bytes& sent = harness.Replies()[i];
        ASSERT_TRUE(ParseRpcReply(Bytes(sent.begin() + 4, sent.end()), reply));
        EXPECT_EQ(i + 1, reply.xid);
        EXPECT_EQ(0u, reply.acceptStat);
        if (i == 1) {
            EXPECT_TRUE(reply.results.empty());  // UMNT
            continue;
        }
        // Mounted again after the unmount: status 0 and the root's handle
        // (ID 0 and the harness's verifier).
        XdrDecoder results = reply.Results();
        EXPECT_EQ(0u, results.GetUint32());
        Bytes root(56, 0);
        memcpy(root.data() + 4, RpcFuzzHarness::HANDLE_VERIFIER, sizeof RpcFuzzHarness::HANDLE_VERIFIER);
        EXPECT_EQ(root, results.GetOpaque());
    }
}
