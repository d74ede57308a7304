// The harness of the IPC fuzz target and its seed corpus replayed: every
// seed is a record that the parser answers with a reply of its type; cut
// and oversized records are answered too, and nothing stays behind.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "IpcBasic.h"
#include "IpcFuzzHarness.h"

namespace {

std::string CorpusDir() {
    std::string here = __FILE__;
    return here.substr(0, here.rfind('/')) + "/../fuzz/ipc_corpus";
}

std::vector<std::string> CorpusNames() {
    std::vector<std::string> names;
    if (DIR* dir = opendir(CorpusDir().c_str())) {
        while (dirent* entry = readdir(dir))
            if (entry->d_name[0] != '.') names.push_back(entry->d_name);
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string ReadSeed(const std::string& name) {
    std::ifstream in(CorpusDir() + "/" + name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

const Ipc_Header* HeaderOf(const IpcDataBuf& buf) { return reinterpret_cast<const Ipc_Header*>(buf.cBuf); }

// The reply type of each request type.
int ReplyTypeOf(int request) {
    switch (request) {
        case 1:
        case 2: return IPC_REPLY_MESSAGE;
        case 19:
        case 20:
        case 23:
        case 25:
        case 29:
        case 30: return IPC_REPLY_INT;
        default: return request >= 1 && request <= 32 ? IPC_REPLY_BOOL : IPC_REPLY_EXCEPTION;
    }
}

TEST(IpcFuzzHarness, EverySeedIsAnsweredWithTheReplyOfItsType) {
    std::vector<std::string> names = CorpusNames();
    ASSERT_EQ(39u, names.size()) << CorpusDir();
    IpcFuzzHarness harness;
    for (const std::string& name : names) {
        std::string seed = ReadSeed(name);
        ASSERT_GE(seed.size(), 16u) << name;
        const IpcDataBuf& reply = harness.Run(reinterpret_cast<const uint8_t*>(seed.data()), seed.size());
        const Ipc_Header* request = reinterpret_cast<const Ipc_Header*>(seed.data());
        EXPECT_EQ(IPC_GROUP_REPLY, HeaderOf(reply)->iGroup) << name;
        int expected = request->iGroup == IPC_GROUP_REQUEST   ? ReplyTypeOf(request->iType)
                       : request->iGroup == IPC_GROUP_CALLBACK ? (request->iType == 1 ? IPC_REPLY_BOOL : IPC_REPLY_INT)
                                                               : IPC_REPLY_EXCEPTION;
        // Requests that can fail may answer with their exception instead.
        bool canFail = request->iGroup == IPC_GROUP_REQUEST &&
                       (request->iType == 4 || request->iType == 5 || request->iType == 13 || request->iType == 28);
        if (canFail && HeaderOf(reply)->iType == IPC_REPLY_EXCEPTION) continue;
        EXPECT_EQ(expected, HeaderOf(reply)->iType) << name;
        EXPECT_EQ(CIpcBasic::ReplySize(expected), reply.lDataLen) << name;
    }
}

TEST(IpcFuzzHarness, CutOversizedAndEmptyRecordsAreAnswered) {
    IpcFuzzHarness harness;
    std::string seed = ReadSeed("req-05-add-mount-point");
    ASSERT_EQ(1552u, seed.size());
    for (size_t n : {0u, 1u, 8u, 15u, 16u, 17u, 1040u, 1551u}) {
        const IpcDataBuf& reply = harness.Run(reinterpret_cast<const uint8_t*>(seed.data()), n);
        EXPECT_EQ(IPC_GROUP_REPLY, HeaderOf(reply)->iGroup) << n;
        EXPECT_LE(reply.lDataLen, 2064u);
    }
    std::string big(6000, '\xff');
    const IpcDataBuf& reply = harness.Run(reinterpret_cast<const uint8_t*>(big.data()), big.size());
    EXPECT_EQ(IPC_REPLY_EXCEPTION, HeaderOf(reply)->iType);
    EXPECT_STREQ("Unknown action group: -1 (-1)", CIpcBasic::Record<IpcReply_Message>(const_cast<IpcDataBuf*>(&reply))->cMsg);
}

}  // namespace
