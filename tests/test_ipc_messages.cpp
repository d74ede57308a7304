// IPC records: the initialisers' headers and sizes for every type, bounded
// text fields, received records zero-extended, the dumps of PrintData and
// the client's reply readers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "IpcBasic.h"
#include "IpcClient.h"
#include "LogRecorder.h"
#include "Utilities.h"

namespace {

const Ipc_Header* HeaderOf(const IpcDataBuf& buf) { return reinterpret_cast<const Ipc_Header*>(buf.cBuf); }

// Sizes of the request records by type.
const unsigned REQUEST_SIZES[33] = {0,    16,   16,  16,   36,  1552, 1040, 1296, 272,  272,  1060,
                                    1040, 1040, 2088, 2064, 2068, 1040, 1040, 20,   276,  276,  3352,
                                    16,   16,   20,   276,  1296, 272,  1300, 1300, 276,  1552, 1040};

TEST(IpcMessages, EveryRequestTypeGetsItsHeaderAndRecordSize) {
    for (int type = 1; type <= 32; ++type) {
        IpcDataInst data;
        memset(&data, 0xA5, sizeof data);
        CIpcBasic::InitialRequestData(&data, type);
        EXPECT_EQ(IPC_GROUP_REQUEST, HeaderOf(data.request)->iGroup) << type;
        EXPECT_EQ(type, HeaderOf(data.request)->iType);
        EXPECT_EQ(0, memcmp(HeaderOf(data.request)->cVersion, "1.4\0\0\0\0\0", 8)) << type;
        EXPECT_EQ(REQUEST_SIZES[type], data.request.lDataLen) << type;
        // The payload starts zeroed: unset texts are empty.
        for (unsigned i = 16; i < data.request.lDataLen; ++i) ASSERT_EQ(0, data.request.cBuf[i]) << type;
    }
}

TEST(IpcMessages, AnUnknownRequestTypeIsStoredAsZeroWithABareHeader) {
    for (int type : {33, 0, -1, 1000}) {
        IpcDataInst data;
        CIpcBasic::InitialRequestData(&data, type);
        EXPECT_EQ(IPC_GROUP_REQUEST, HeaderOf(data.request)->iGroup);
        EXPECT_EQ(0, HeaderOf(data.request)->iType) << type;
        EXPECT_EQ(16u, data.request.lDataLen) << type;
    }
}

TEST(IpcMessages, ReplyTypesGetTheirSizesAndOthersABareHeaderOfTypeZero) {
    const unsigned sizes[6] = {16, 20, 20, 20, 2064, 2064};
    for (int type = 0; type <= 7; ++type) {
        IpcDataBuf buf;
        CIpcBasic::InitialReplyData(&buf, type);
        EXPECT_EQ(IPC_GROUP_REPLY, HeaderOf(buf)->iGroup);
        bool known = type >= 1 && type <= 5;
        EXPECT_EQ(known ? type : 0, HeaderOf(buf)->iType) << type;
        EXPECT_EQ(known ? sizes[type] : 16u, buf.lDataLen) << type;
        EXPECT_STREQ("1.4", HeaderOf(buf)->cVersion);
    }
}

TEST(IpcMessages, CallbackTypesGetTheirSizesAndOthersABareHeaderOfTypeZero) {
    const unsigned sizes[6] = {16, 2324, 1324, 1296, 2320, 1312};
    for (int type = 0; type <= 7; ++type) {
        IpcDataBuf buf;
        CIpcBasic::InitialCallbackData(&buf, type);
        EXPECT_EQ(IPC_GROUP_CALLBACK, HeaderOf(buf)->iGroup);
        bool known = type >= 1 && type <= 5;
        EXPECT_EQ(known ? type : 0, HeaderOf(buf)->iType) << type;
        EXPECT_EQ(known ? sizes[type] : 16u, buf.lDataLen) << type;
    }
}

TEST(IpcMessages, TextsAreCutToTheirFieldAndAlwaysTerminatedInside) {
    IpcDataInst data;
    CIpcBasic::InitialRequestData(&data, IPC_REQ_ADD_MOUNT_POINT);
    auto* r = CIpcBasic::Record<IpcRequest_AddMountPoint>(&data.request);
    std::string longName(1000, 'n');
    CIpcBasic::SetText(r->cExportName, longName.c_str());
    CIpcBasic::SetText(r->cIpcID, "ctl");
    EXPECT_EQ(std::string(255, 'n'), std::string(r->cExportName));
    EXPECT_STREQ("ctl", r->cIpcID);  // the neighbour is untouched
    CIpcBasic::SetText(r->cLocalMountFolder, nullptr);
    EXPECT_STREQ("", r->cLocalMountFolder);

    IpcRequest_AddNetDeviceCredential cred;
    memset(&cred, 'x', sizeof cred);
    CIpcBasic::SetText(cred.cUser, std::string(300, 'u').c_str());
    EXPECT_EQ(std::string(254, 'u'), std::string(cred.cUser));
    EXPECT_EQ('x', cred.cPwd[0]);
}

TEST(IpcMessages, AReceivedTextIsReadOnlyToItsFieldsLastByte) {
    IpcRequest_AddSession r;
    memset(&r, 'A', sizeof r);
    EXPECT_EQ(std::string(255, 'A'), std::string(CIpcBasic::Text(r.cSessionID)));
    EXPECT_EQ(std::string(1023, 'A'), std::string(CIpcBasic::Text(r.cLocalMountFolder)));
}

TEST(IpcMessages, AReceivedRecordIsCutAt4096AndZeroExtended) {
    IpcDataBuf buf;
    memset(&buf, 0x7F, sizeof buf);
    std::string shortRecord(20, 'z');
    CIpcBasic::SetReceived(&buf, shortRecord.data(), shortRecord.size());
    EXPECT_EQ(20u, buf.lDataLen);
    EXPECT_EQ('z', buf.cBuf[19]);
    for (size_t i = 20; i < sizeof buf.cBuf; ++i) ASSERT_EQ(0, buf.cBuf[i]) << i;

    std::string big(5000, 'b');
    CIpcBasic::SetReceived(&buf, big.data(), big.size());
    EXPECT_EQ(4096u, buf.lDataLen);
    EXPECT_EQ('b', buf.cBuf[4095]);
}

class IpcPrintData : public testing::Test {
protected:
    void SetUp() override { utils_.SetCallback(&log_); }
    CUtilities utils_;
    LogRecorder log_;
};

TEST_F(IpcPrintData, EachGroupIsDumpedWithTypeVersionAndLength) {
    CRuntimeParam rp("dump", CRuntimeParam::LOG_IPC);
    CIpcBasic basic(&utils_, &rp);
    LogArgu la{"Test.Dump"};
    IpcDataInst data;
    CIpcBasic::InitialRequestData(&data, IPC_REQ_START_SERVER);
    basic.PrintData(&la, &data.request);
    CIpcBasic::InitialCallbackData(&data.reply, IPC_CB_WRITE_REDIRECTED_FILE);
    basic.PrintData(&la, &data.reply);
    CIpcBasic::InitialReplyData(&data.reply, IPC_REPLY_MESSAGE);
    basic.PrintData(&la, &data.reply);
    CIpcBasic::InitialReplyData(&data.reply, IPC_REPLY_BOOL);
    reinterpret_cast<Ipc_Header*>(data.reply.cBuf)->iGroup = 9;
    basic.PrintData(&la, &data.reply);
    EXPECT_EQ((std::vector<std::string>{
                  "[Test.Dump] Request action group (type = 4, ver = 1.4, dataLen = 36)",
                  "[Test.Dump] Callback action group (type = 5, ver = 1.4, dataLen = 1312)",
                  "[Test.Dump] Reply action group (type = 5, ver = 1.4, dataLen = 2064)",
                  "[Test.Dump] Unknown action group: 9 (type = 1, ver = 1.4, dataLen = 20)",
              }),
              log_.Texts("info"));
    for (const auto& line : log_.Lines()) EXPECT_EQ("dump", line.id);
}

TEST_F(IpcPrintData, NothingIsDumpedWithoutTheIpcBitAndAnUnterminatedVersionStaysInside) {
    CRuntimeParam quiet("dump", CRuntimeParam::LOG_IPC_STATE | CRuntimeParam::LOG_ERROR);
    CIpcBasic basic(&utils_, &quiet);
    LogArgu la{"Test.Dump"};
    IpcDataInst data;
    CIpcBasic::InitialRequestData(&data, IPC_REQ_GET_VERSION);
    basic.PrintData(&la, &data.request);
    EXPECT_TRUE(log_.Lines().empty());

    CRuntimeParam loud("dump", CRuntimeParam::LOG_IPC);
    CIpcBasic dumper(&utils_, &loud);
    memcpy(reinterpret_cast<Ipc_Header*>(data.request.cBuf)->cVersion, "12345678", 8);
    dumper.PrintData(&la, &data.request);
    EXPECT_EQ((std::vector<std::string>{"[Test.Dump] Request action group (type = 1, ver = 12345678, dataLen = 16)"}),
              log_.Texts("info"));
}

// The readers of CIpcClient on replies placed in its buffer.
class IpcReplyReaders : public testing::Test {
protected:
    void Put(int group, int type, int32_t value, const char* text = nullptr) {
        IpcDataBuf* reply = &client_.GetDataInst()->reply;
        CIpcBasic::InitialReplyData(reply, type);
        reinterpret_cast<Ipc_Header*>(reply->cBuf)->iGroup = group;
        reinterpret_cast<Ipc_Header*>(reply->cBuf)->iType = type;
        memcpy(reply->cBuf + 16, &value, 4);
        if (text) CIpcBasic::SetText(CIpcBasic::Record<IpcReply_Message>(reply)->cMsg, text);
    }
    CUtilities utils_;
    CRuntimeParam rp_{"reader", 0};
    CIpcClient client_{&utils_, &rp_};
};

TEST_F(IpcReplyReaders, AnExceptionReplyReadsAsFalseMinusOneAndNoText) {
    Put(IPC_GROUP_REPLY, IPC_REPLY_EXCEPTION, 1, "boom");
    EXPECT_FALSE(client_.GetBoolReply());
    EXPECT_EQ(-1, client_.GetIntReply());
    EXPECT_EQ(-1, client_.GetLongReply());
    EXPECT_EQ(nullptr, client_.GetMsgReply());
    ASSERT_NE(nullptr, client_.GetExptReply());
    EXPECT_STREQ("boom", client_.GetExptReply());
}

TEST_F(IpcReplyReaders, EachReaderTakesOnlyItsOwnTypeOfTheReplyGroup) {
    Put(IPC_GROUP_REPLY, IPC_REPLY_BOOL, 1);
    EXPECT_TRUE(client_.GetBoolReply());
    EXPECT_EQ(-1, client_.GetIntReply());
    Put(IPC_GROUP_REPLY, IPC_REPLY_INT, 42);
    EXPECT_EQ(42, client_.GetIntReply());
    EXPECT_FALSE(client_.GetBoolReply());
    Put(IPC_GROUP_REPLY, IPC_REPLY_LONG, 7);
    EXPECT_EQ(7, client_.GetLongReply());
    Put(IPC_GROUP_REPLY, IPC_REPLY_MESSAGE, 0, "text");
    EXPECT_STREQ("text", client_.GetMsgReply());
    EXPECT_EQ(nullptr, client_.GetExptReply());
    // The same types in another group are no replies.
    Put(IPC_GROUP_REQUEST, IPC_REPLY_BOOL, 1);
    EXPECT_FALSE(client_.GetBoolReply());
    Put(IPC_GROUP_CALLBACK, IPC_REPLY_INT, 5);
    EXPECT_EQ(-1, client_.GetIntReply());
}

TEST_F(IpcReplyReaders, AMessageFilledToItsLastByteIsReadWithinTheField) {
    Put(IPC_GROUP_REPLY, IPC_REPLY_MESSAGE, 0);
    IpcDataBuf* reply = &client_.GetDataInst()->reply;
    memset(reply->cBuf + 16, 'm', sizeof reply->cBuf - 16);
    ASSERT_NE(nullptr, client_.GetMsgReply());
    EXPECT_EQ(std::string(2047, 'm'), std::string(client_.GetMsgReply()));
}

TEST_F(IpcReplyReaders, WithoutAChannelSendingFailsWithItsText) {
    char err[ERROR_TEXT_SIZE] = "";
    client_.NewRequest<Ipc_Header>(IPC_REQ_GET_VERSION);
    EXPECT_FALSE(client_.SendRequest(nullptr, err));
    EXPECT_STREQ("Channel is not defined", err);
    EXPECT_EQ(nullptr, client_.GetMsgReply());
}

}  // namespace
