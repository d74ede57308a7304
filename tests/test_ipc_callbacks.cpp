// Callback records: a controlling process's callback channel hands log
// lines to its local routing and notifications to its callback, answering
// with the callback's int; the external server's file service sends them
// there for work that carries an IPC ID. Each test has a private /tmp.
#include <gtest/gtest.h>

#include <string>

#include "IpcBasic.h"
#include "IpcServerThread.h"
#include "IpcTestSupport.h"
#include "LogRecorder.h"
#include "NfsMain.h"
#include "NotificationRecorder.h"
#include "UtilitiesIpcServer.h"

namespace {

using Call = NotificationRecorder::Call;
const char* const CHANNEL = "/tmp/nfs-ctl";

class IpcCallbacks : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(tmp_.Ok()) << tmp_.Error();
        char err[ERROR_TEXT_SIZE] = "";
        ASSERT_TRUE(thread_.Open(CHANNEL, &controller_, err)) << err;
    }
    void TearDown() override { thread_.Close(); }

    template <class T>
    T* New(int type) {
        CIpcBasic::InitialCallbackData(&buf_, type);
        auto* r = CIpcBasic::Record<T>(&buf_);
        CIpcBasic::SetText(reinterpret_cast<char*>(r) + 16, 256, "srv");
        return r;
    }
    ParsedReply Send() { return ParseReply(RawExchange(CHANNEL, RecordBytes(buf_))); }

    PrivateTmp tmp_;
    CNfsMain controller_{"ctl", CRuntimeParam::LOG_ERROR};
    CIpcServerThread thread_;
    IpcDataBuf buf_;
};

TEST_F(IpcCallbacks, LogLinesAreRoutedByKindAndAnUnknownKindIsInfo) {
    LogRecorder log;
    controller_.SetCallback(&log);
    const int kinds[] = {IPC_LOG_INFO, IPC_LOG_ERROR, IPC_LOG_RAW, 7};
    for (int kind : kinds) {
        auto* r = New<IpcCb_LogMessage>(IPC_CB_LOG_MESSAGE);
        CIpcBasic::SetText(r->cMsg, ("line " + std::to_string(kind)).c_str());
        r->iType = kind;
        ParsedReply reply = Send();
        EXPECT_EQ(20u, reply.size);
        EXPECT_EQ(IPC_REPLY_BOOL, reply.type);
        EXPECT_EQ(1, reply.value);
    }
    EXPECT_EQ((std::vector<LogRecorder::Line>{{"info", "srv", "line 1"},
                                              {"error", "srv", "line 2"},
                                              {"raw", "srv", "line 3"},
                                              {"info", "srv", "line 7"}}),
              log.Lines());
    for (const auto& line : log.Lines()) EXPECT_EQ("srv", line.id);
}

TEST_F(IpcCallbacks, NotificationsReachTheCallbackWithEveryFieldAndItsAnswerComesBack) {
    NotificationRecorder rec;
    rec.SetAnswer(17);
    controller_.SetCallback(&rec);

    auto* a = New<IpcCb_SetRedirectedFileAttributes>(IPC_CB_SET_REDIRECTED_FILE_ATTRIBUTES);
    CIpcBasic::SetText(a->cPath, "/e/disk.vmdk");
    a->bSize = 1;
    a->iSize = 0x123456789ULL;
    a->bAccessTime = 0;
    a->lAccessTimeSec = 0xFFFFFFF0u;
    a->bLastModifiedTime = 1;
    a->lLastModifiedTimeSec = 4000000000u;
    ParsedReply reply = Send();
    EXPECT_EQ(IPC_REPLY_INT, reply.type);
    EXPECT_EQ(17, reply.value);

    CIpcBasic::SetText(New<IpcCb_RemoveRedirectedFile>(IPC_CB_REMOVE_REDIRECTED_FILE)->cPath, "/e/gone.vmdk");
    EXPECT_EQ(17, Send().value);

    auto* n = New<IpcCb_RenameRedirectedFile>(IPC_CB_RENAME_REDIRECTED_FILE);
    CIpcBasic::SetText(n->cPathFm, "/e/old.vmdk");
    CIpcBasic::SetText(n->cPathTo, "/e/new.vmdk");
    rec.SetAnswer(-5);
    EXPECT_EQ(-5, Send().value);

    auto* w = New<IpcCb_WriteRedirectedFile>(IPC_CB_WRITE_REDIRECTED_FILE);
    CIpcBasic::SetText(w->cPath, "/e/disk.vmdk");
    w->iSeek = 5ULL << 32;
    w->iSeekType = 2;
    w->iLen = 65536;
    rec.SetAnswer(65536);
    reply = Send();
    EXPECT_EQ(IPC_REPLY_INT, reply.type);
    EXPECT_EQ(65536, reply.value);

    Call attr;
    attr.op = "attributes";
    attr.id = "srv";
    attr.path = "/e/disk.vmdk";
    attr.bSize = true;
    attr.iSize = 0x123456789ULL;
    attr.lAccessTimeSec = 0xFFFFFFF0u;
    attr.bLastModifiedTime = true;
    attr.lLastModifiedTimeSec = 4000000000u;
    Call remove;
    remove.op = "remove";
    remove.id = "srv";
    remove.path = "/e/gone.vmdk";
    Call rename;
    rename.op = "rename";
    rename.id = "srv";
    rename.path = "/e/old.vmdk";
    rename.pathTo = "/e/new.vmdk";
    Call write;
    write.op = "write";
    write.id = "srv";
    write.path = "/e/disk.vmdk";
    write.iSeek = 5ULL << 32;
    write.iSeekType = 2;
    write.iLen = 65536;
    EXPECT_EQ((std::vector<Call>{attr, remove, rename, write}), rec.Calls());
}

TEST_F(IpcCallbacks, WithoutACallbackNotificationsAnswerMinusOne) {
    CIpcBasic::SetText(New<IpcCb_RemoveRedirectedFile>(IPC_CB_REMOVE_REDIRECTED_FILE)->cPath, "/e/x");
    ParsedReply reply = Send();
    EXPECT_EQ(IPC_REPLY_INT, reply.type);
    EXPECT_EQ(-1, reply.value);
}

TEST_F(IpcCallbacks, AnUnknownCallbackTypeIsAnsweredWithItsNumber) {
    New<Ipc_Header>(IPC_CB_LOG_MESSAGE);
    CIpcBasic::Record<Ipc_Header>(&buf_)->iType = 9;
    ParsedReply reply = Send();
    EXPECT_EQ(2064u, reply.size);
    EXPECT_EQ(IPC_REPLY_EXCEPTION, reply.type);
    EXPECT_EQ("Unknown callback type (9)", reply.text);
}

TEST_F(IpcCallbacks, AnUnterminatedMessageIsCutAtItsFieldsLastByte) {
    LogRecorder log;
    controller_.SetCallback(&log);
    auto* r = New<IpcCb_LogMessage>(IPC_CB_LOG_MESSAGE);
    memset(r->cID, 'i', sizeof r->cID);
    memset(r->cMsg, 'm', sizeof r->cMsg);
    r->iType = IPC_LOG_ERROR;
    EXPECT_EQ(1, Send().value);
    ASSERT_EQ(1u, log.Lines().size());
    EXPECT_EQ(std::string(255, 'i'), log.Lines()[0].id);
    EXPECT_EQ(std::string(2047, 'm'), log.Lines()[0].text);
}

// The sending side: the external server's file service.
class IpcServerUtilities : public IpcCallbacks {
protected:
    CUtilitiesIpcServer utils_;
    CRuntimeParam rp_{"datastore", CRuntimeParam::LOG_ERROR};
};

TEST_F(IpcServerUtilities, LogLinesGoLocallyAndToTheChannelOfTheIpcId) {
    LogRecorder local;
    LogRecorder remote;
    utils_.SetCallback(&local);
    controller_.SetCallback(&remote);
    utils_.LogInfo(&rp_, "%s", "only here");
    rp_.SetIpcID("ctl");
    utils_.LogInfo(&rp_, "%s %d", "info", 1);
    utils_.LogError(&rp_, "%s", "error 2");
    utils_.LogRaw(&rp_, "%s", "raw 3");
    EXPECT_EQ((std::vector<LogRecorder::Line>{{"info", "", "only here"},
                                              {"info", "", "info 1"},
                                              {"error", "", "error 2"},
                                              {"raw", "", "raw 3"}}),
              local.Lines());
    EXPECT_EQ((std::vector<LogRecorder::Line>{{"info", "", "info 1"}, {"error", "", "error 2"}, {"raw", "", "raw 3"}}),
              remote.Lines());
    for (const auto& line : remote.Lines()) EXPECT_EQ("datastore", line.id);
}

TEST_F(IpcServerUtilities, NotificationsGoOnlyToTheChannelAndReturnItsAnswer) {
    NotificationRecorder local;
    NotificationRecorder remote;
    local.SetAnswer(1);
    remote.SetAnswer(0);
    utils_.SetCallback(&local);
    controller_.SetCallback(&remote);
    // Without an IPC ID: the local callback, as in process.
    EXPECT_EQ(1, utils_.LogRemoveRedirectedFile(&rp_, "/e/a"));
    rp_.SetIpcID("ctl");
    EXPECT_EQ(0, utils_.LogRemoveRedirectedFile(&rp_, "/e/b"));
    EXPECT_EQ(0, utils_.LogRenameRedirectedFile(&rp_, "/e/c", "/e/d"));
    remote.SetAnswer(300);
    EXPECT_EQ(300, utils_.LogWriteRedirectedFile(&rp_, "/e/f", 1ULL << 40, 0, 300));
    remote.SetAnswer(0);
    EXPECT_EQ(0, utils_.LogUpdateRedirectedFileAttributes(&rp_, "/e/g", true, 10, true, 20, false, 30));
    ASSERT_EQ(1u, local.Calls().size());
    EXPECT_EQ("/e/a", local.Calls()[0].path);
    std::vector<Call> calls = remote.Calls();
    ASSERT_EQ(4u, calls.size());
    EXPECT_EQ("remove", calls[0].op);
    EXPECT_EQ("datastore", calls[0].id);
    EXPECT_EQ("/e/b", calls[0].path);
    EXPECT_EQ("/e/d", calls[1].pathTo);
    EXPECT_EQ(1ULL << 40, calls[2].iSeek);
    EXPECT_EQ(300u, calls[2].iLen);
    EXPECT_TRUE(calls[3].bSize);
    EXPECT_EQ(10u, calls[3].iSize);
    EXPECT_TRUE(calls[3].bAccessTime);
    EXPECT_EQ(20u, calls[3].lAccessTimeSec);
    EXPECT_FALSE(calls[3].bLastModifiedTime);
    EXPECT_EQ(30u, calls[3].lLastModifiedTimeSec);
}

TEST_F(IpcServerUtilities, ANotificationToAChannelNobodyServesFailsWithMinusOne) {
    LogRecorder local;
    utils_.SetCallback(&local);
    rp_.SetIpcID("nobody");
    EXPECT_EQ(-1, utils_.LogWriteRedirectedFile(&rp_, "/e/f", 0, 0, 10));
    EXPECT_EQ(-1, utils_.LogRemoveRedirectedFile(&rp_, "/e/f"));
    // The failure was logged locally, not sent anywhere.
    EXPECT_LE(1, local.CountContaining("[IpcClient.SendRequest] Fail to connect ipc client socket. "))
        << local.Dump();
    char channel[IPC_CHANNEL_SIZE];
    CUtilitiesIpcServer::GetIpcCallbackChannel("nobody", channel);
    EXPECT_STREQ("/tmp/nfs-nobody", channel);
}

}  // namespace
