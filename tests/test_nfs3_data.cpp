// READ, WRITE and COMMIT on the wire, against real files of an exported
// temporary folder: the caps of one call, end of file, the provisional READ
// header that a failure leaves no trace of, FILE_SYNC and the verifier,
// read-only and size limits, redirected files, and the verifier of a
// restarted server.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "LogRecorder.h"
#include "Nfs3Prog.h"
#include "Nfs3TestServer.h"
#include "NfsMain.h"
#include "NfsProg.h"
#include "PrivateNetwork.h"
#include "TestSupport.h"
#include "Utilities.h"

using namespace nfs3wire;

namespace {

// size bytes that differ from one position to the next.
std::string Pattern(size_t size, unsigned seed = 1) {
    std::string s(size, '\0');
    uint32_t x = seed * 2654435761u + 1;
    for (char& c : s) {
        x = x * 1103515245u + 12345u;
        c = (char)(x >> 16);
    }
    return s;
}

std::string AsText(const Bytes& b) { return std::string(b.begin(), b.end()); }

// A handle of no file table of this server (its verifier is zero): stale.
Bytes UnknownHandle() {
    Bytes h(56, 0);
    uint32_t id = 0x7FFFFF00;
    memcpy(h.data(), &id, 4);
    return h;
}

// A successful READ reply taken apart.
struct ReadResult {
    uint32_t count = 0;
    bool eof = false;
    std::string data;
};

// A successful WRITE reply taken apart.
struct WriteResult {
    uint32_t count = 0;
    uint32_t committed = 0;
    uint64_t verifier = 0;
};

class Nfs3Data : public testing::Test {
protected:
    void SetUp() override {
        std::string err;
        ASSERT_TRUE(server.Start(&err)) << err;
    }


    // A READ that must succeed.
    ReadResult Read(const Bytes& handle, uint64_t offset, uint32_t count,
                    RpcTestClient::Transport t = RpcTestClient::TCP) {
        XdrDecoder d(server.Results(PROC_READ, ReadArgs(handle, offset, count), t));
        ReadResult r;
        EXPECT_EQ(0u, d.GetUint32());
        EXPECT_FALSE(GetPostOpAttr(d));  // never sent with READ
        r.count = d.GetUint32();
        uint32_t eof = d.GetUint32();
        EXPECT_TRUE(eof == 0 || eof == 1) << eof;
        r.eof = eof == 1;
        r.data = AsText(d.GetOpaque());
        EXPECT_EQ(r.count, r.data.size());
        EXPECT_EQ(0u, d.Remaining());
        return r;
    }

    // A WRITE that must succeed.
    WriteResult Write(const Bytes& args, RpcTestClient::Transport t = RpcTestClient::TCP) {
        XdrDecoder d(server.Results(PROC_WRITE, args, t));
        WriteResult w;
        EXPECT_EQ(0u, d.GetUint32());
        EXPECT_EQ(0u, d.GetUint32());  // wcc before
        EXPECT_EQ(0u, d.GetUint32());  // wcc after
        w.count = d.GetUint32();
        w.committed = d.GetUint32();
        w.verifier = d.GetUint64();
        EXPECT_EQ(0u, d.Remaining());
        return w;
    }

    uint64_t StartTime() {
        CNfs3Prog* handler = server.Program().GetNfs3Prog();
        return handler ? handler->GetSysUpTime() : 0;
    }

    Nfs3TestServer server;
};

}  // namespace

// ---- READ ---------------------------------------------------------------------------

TEST_F(Nfs3Data, ReadOf100000BytesFromALargeFileReturns65536AndNoEof) {
    std::string content = Pattern(200000);
    WriteWholeFile(server.PathOf("big"), content);
    ReadResult r = Read(server.Handle(server.PathOf("big")), 0, 100000);
    EXPECT_EQ(65536u, r.count);
    EXPECT_FALSE(r.eof);
    EXPECT_TRUE(r.data == content.substr(0, 65536));
    // Further on, and up to the end.
    r = Read(server.Handle(server.PathOf("big")), 150000, 100000);
    EXPECT_EQ(50000u, r.count);
    EXPECT_TRUE(r.eof);
    EXPECT_TRUE(r.data == content.substr(150000));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureREAD] Offset=0, length=100000"));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureREAD] Read=65536 (eof=F)"));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureREAD] Read=50000 (eof=T)"));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureREAD] End stat=0"));
}

TEST_F(Nfs3Data, ReadWithCountZeroAnswersNoDataAndEof) {
    WriteWholeFile(server.PathOf("f"), "0123456789");
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        EXPECT_EQ(Words({0, 0, 0, 1, 0}), server.Results(PROC_READ, ReadArgs(server.Handle(server.PathOf("f")), 3, 0),
                                                   transport));
    }
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureREAD] Read=0 (eof=T)"));
}

TEST_F(Nfs3Data, ReadAtAndPastTheEndGivesWhatTheFileHoldsWithItsEof) {
    WriteWholeFile(server.PathOf("f"), "0123456789");
    Bytes file = server.Handle(server.PathOf("f"));
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        ReadResult r = Read(file, 0, 9, transport);
        EXPECT_EQ("012345678", r.data);
        EXPECT_FALSE(r.eof);
        r = Read(file, 0, 10, transport);
        EXPECT_EQ("0123456789", r.data);
        EXPECT_TRUE(r.eof);  // the read ends at the size
        r = Read(file, 4, 100, transport);
        EXPECT_EQ("456789", r.data);
        EXPECT_TRUE(r.eof);
        for (uint64_t offset : {10ull, 11ull, 1000000ull}) {
            r = Read(file, offset, 5, transport);
            EXPECT_EQ(0u, r.count) << offset;
            EXPECT_TRUE(r.eof) << offset;
        }
    }
    // An empty file.
    WriteWholeFile(server.PathOf("empty"), "");
    ReadResult r = Read(server.Handle(server.PathOf("empty")), 0, 4096);
    EXPECT_EQ(0u, r.count);
    EXPECT_TRUE(r.eof);
}

TEST_F(Nfs3Data, ReadDataIsPaddedWithZerosAndCountedInTheRecordMark) {
    WriteWholeFile(server.PathOf("x"), std::string(64, 'x'));
    WriteWholeFile(server.PathOf("f"), "abcde");
    // A reply full of non-zero bytes first, so that stale bytes would show.
    Read(server.Handle(server.PathOf("x")), 0, 64);
    for (uint32_t length = 1; length <= 5; ++length) {
        RpcReply reply;
        ASSERT_TRUE(server.Call(PROC_READ, ReadArgs(server.Handle(server.PathOf("f")), 0, length), reply));
        uint32_t padded = (length + 3) / 4 * 4;
        ASSERT_EQ(4 * 5 + padded, reply.results.size()) << length;
        EXPECT_EQ(0x80000000u | (uint32_t)reply.message.size(), reply.recordMark);
        EXPECT_EQ(std::string("abcde", length), std::string(reply.results.begin() + 20,
                                                             reply.results.begin() + 20 + length));
        for (uint32_t i = length; i < padded; ++i) EXPECT_EQ(0, reply.results[20 + i]) << length;
    }
}

TEST_F(Nfs3Data, ReadCountLargerThanTheFreeReplySpaceIsInvalAndLeavesNoHeader) {
    WriteWholeFile(server.PathOf("f"), "0123456789");
    Bytes file = server.Handle(server.PathOf("f"));
    // Over TCP 28 bytes of record mark and reply header, the status and the
    // READ header (16 bytes) come before the data in the 1 MiB buffer.
    const uint32_t room = 1048576 - 28 - 4 - 16;
    for (uint32_t count : {0xFFFFFFFFu, 1048576u, room + 1}) {
        EXPECT_EQ(Words({22, 0}), server.Results(PROC_READ, ReadArgs(file, 0, count))) << count;
    }
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureREAD] Count bigger than free buffer (path=" +
                                 server.PathOf("f") + ", offset=0 length=4294967295)"));
    EXPECT_EQ(3, server.Log().Count("[Nfs3Prog.ProcedureREAD] Read fail"));
    EXPECT_EQ(3, server.Log().Count("[Nfs3Prog.ProcedureREAD] End stat=22"));
    // The largest count that fits is read (capped) and answered.
    EXPECT_EQ("0123456789", Read(file, 0, room).data);
    // A datagram has no record mark: 4 bytes more room.
    EXPECT_EQ("0123456789", Read(file, 0, room + 4, RpcTestClient::UDP).data);
    EXPECT_EQ(Words({22, 0}), server.Results(PROC_READ, ReadArgs(file, 0, room + 5), RpcTestClient::UDP));
}

TEST_F(Nfs3Data, ReadOfAMissingFileIsIoAndOfAStaleHandleStale) {
    WriteWholeFile(server.PathOf("gone"), "data");
    Bytes gone = server.Handle(server.PathOf("gone"));
    ASSERT_EQ(0, unlink(server.PathOf("gone").c_str()));
    EXPECT_EQ(Words({5, 0}), server.Results(PROC_READ, ReadArgs(gone, 0, 4)));
    EXPECT_EQ(Words({70, 0}), server.Results(PROC_READ, ReadArgs(UnknownHandle(), 0, 4)));
    EXPECT_EQ(Words({70, 0}), server.Results(PROC_READ, ReadArgs(UnknownHandle(), 0, 4), RpcTestClient::UDP));
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureREAD] Stale file handle"));
    EXPECT_EQ(1, server.Log().Count("[Nfs3Prog.ProcedureREAD] End stat=5"));
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureREAD] End stat=70"));
    EXPECT_EQ(0, server.Log().Count("[Nfs3Prog.ProcedureREAD] Read fail"));
}

TEST_F(Nfs3Data, ReadThatTheFileServiceCannotDoIsInval) {
    // A folder cannot be opened for reading and writing.
    ASSERT_EQ(0, mkdir(server.PathOf("folder").c_str(), 0755));
    EXPECT_EQ(Words({22, 0}), server.Results(PROC_READ, ReadArgs(server.Handle(server.PathOf("folder")), 0, 10)));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureREAD] Read return -1 (path=" + server.PathOf("folder") +
                                 ", offset=0 length=10)"));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureREAD] Read fail"));
    // A count of 0 reads nothing, so nothing can fail.
    EXPECT_EQ(Words({0, 0, 0, 1, 0}), server.Results(PROC_READ, ReadArgs(server.Handle(server.PathOf("folder")), 0, 0)));
}

TEST_F(Nfs3Data, ReadOfARedirectedFileServesItsSegments) {
    TempDir sources;
    WriteWholeFile(sources / "source", "ABCDEFGHIJ");
    WriteWholeFile(server.PathOf("disk.vmdk"), "");  // the local file must exist
    std::string path = server.PathOf("disk.vmdk");
    ASSERT_NE(nullptr, server.Utilities().OpenRedirectedFile(&server.Runtime(), path.c_str(), 30, false, 0, 0));
    char status[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(server.Utilities().AddRedirectedFileSegment(&server.Runtime(), path.c_str(),
                                                            (sources / "source").c_str(), 2, 5, 4, status));
    ReadResult r = Read(server.Handle(path), 0, 100);
    EXPECT_EQ(30u, r.count);
    EXPECT_TRUE(r.eof);
    EXPECT_EQ(std::string(5, '\0') + "CDEF" + std::string(21, '\0'), r.data);
    r = Read(server.Handle(path), 6, 3);
    EXPECT_EQ("DEF", r.data);
    EXPECT_FALSE(r.eof);
}

// ---- WRITE --------------------------------------------------------------------------

TEST_F(Nfs3Data, WriteOf20000BytesWritesTheFirst16384FileSyncWithTheStartTimeAsVerifier) {
    WriteWholeFile(server.PathOf("f"), "");
    std::string data = Pattern(20000);
    WriteResult w = Write(WriteArgs(server.Handle(server.PathOf("f")), 0, 20000, data, 0 /* UNSTABLE */));
    EXPECT_EQ(16384u, w.count);
    EXPECT_EQ(2u, w.committed);  // FILE_SYNC whatever was asked
    EXPECT_NE(0u, StartTime());
    EXPECT_EQ(StartTime(), w.verifier);
    EXPECT_TRUE(ReadWholeFile(server.PathOf("f")) == data.substr(0, 16384));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureWRITE] Offset=0, length=20000, count=20000"));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureWRITE] Write=16384"));
    EXPECT_TRUE(server.Log().Has("[Nfs3Prog.ProcedureWRITE] End stat=0"));
    // The client sends the rest again.
    w = Write(WriteArgs(server.Handle(server.PathOf("f")), 16384, 20000 - 16384, data.substr(16384), 1));
    EXPECT_EQ(20000u - 16384u, w.count);
    EXPECT_EQ(2u, w.committed);
    EXPECT_TRUE(ReadWholeFile(server.PathOf("f")) == data);
}

TEST_F(Nfs3Data, WriteChangesOnlyTheBytesAtItsOffset) {
    WriteWholeFile(server.PathOf("f"), "0123456789");
    Bytes file = server.Handle(server.PathOf("f"));
    EXPECT_EQ(3u, Write(WriteArgs(file, 5, 3, "abc")).count);
    EXPECT_EQ("01234abc89", ReadWholeFile(server.PathOf("f")));
    EXPECT_EQ(2u, Write(WriteArgs(file, 12, 2, "yz"), RpcTestClient::UDP).count);
    EXPECT_EQ(std::string("01234abc89\0\0yz", 14), ReadWholeFile(server.PathOf("f")));
    // What was written reads back through the same handle.
    EXPECT_EQ("4abc8", Read(file, 4, 5).data);
}

TEST_F(Nfs3Data, WriteLengthIsTakenFromTheCountWithinTheReceivedBytes) {
    WriteWholeFile(server.PathOf("f"), "0123456789");
    Bytes file = server.Handle(server.PathOf("f"));
    // Count 4 over 2 data bytes: the data and its 2 padding bytes.
    EXPECT_EQ(4u, Write(WriteArgs(file, 0, 4, "ab")).count);
    EXPECT_EQ(std::string("ab\0\0" "456789", 10), ReadWholeFile(server.PathOf("f")));
    // A count past everything received is cut to what was received from the
    // data's start: 2 bytes and their padding.
    EXPECT_EQ(4u, Write(WriteArgs(file, 6, 16384, "cd"), RpcTestClient::UDP).count);
    EXPECT_EQ(std::string("ab\0\0" "45cd\0\0", 10), ReadWholeFile(server.PathOf("f")));
    // Count 0 writes nothing whatever the data.
    EXPECT_EQ(0u, Write(WriteArgs(file, 0, 0, "zzzz")).count);
    EXPECT_EQ(std::string("ab\0\0" "45cd\0\0", 10), ReadWholeFile(server.PathOf("f")));
}

TEST_F(Nfs3Data, WriteOnAReadOnlyServerIsAccesWithEmptyWccDataEvenForAStaleHandle) {
    WriteWholeFile(server.PathOf("f"), "0123456789");
    server.Program().SetReadOnly(true);
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        EXPECT_EQ(Words({13, 0, 0}),
                  server.Results(PROC_WRITE, WriteArgs(server.Handle(server.PathOf("f")), 0, 3, "abc"), transport));
        EXPECT_EQ(Words({13, 0, 0}), server.Results(PROC_WRITE, WriteArgs(UnknownHandle(), 0, 3, "abc"), transport));
    }
    EXPECT_EQ("0123456789", ReadWholeFile(server.PathOf("f")));
    EXPECT_EQ(4, server.Log().Count("[Nfs3Prog.ProcedureWRITE] Write fail"));
    EXPECT_EQ(4, server.Log().Count("[Nfs3Prog.ProcedureWRITE] End stat=13"));
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureWRITE] Stale file handle"));
    // Reading is still allowed.
    EXPECT_EQ("012", Read(server.Handle(server.PathOf("f")), 0, 3).data);
}

TEST_F(Nfs3Data, WritePastTheMaximumFileSizeIsFbigAndWritesNothing) {
    WriteWholeFile(server.PathOf("f"), "0123456789");
    Bytes file = server.Handle(server.PathOf("f"));
    const uint64_t max = CUtilities::GetMaxFileSize(server.PathOf("f").c_str());
    struct {
        uint64_t offset;
        uint32_t count;
    } cases[] = {{max - 10, 11}, {max, 1}, {max + 1, 0}, {~0ull, 1}, {1ull << 63, 4}};
    for (const auto& c : cases) {
        EXPECT_EQ(Words({27, 0, 0}), server.Results(PROC_WRITE, WriteArgs(file, c.offset, c.count, "abcd")))
            << c.offset << " " << c.count;
    }
    EXPECT_EQ("0123456789", ReadWholeFile(server.PathOf("f")));
    EXPECT_EQ(5, server.Log().Count("[Nfs3Prog.ProcedureWRITE] Write fail"));
    EXPECT_EQ(5, server.Log().Count("[Nfs3Prog.ProcedureWRITE] End stat=27"));
    EXPECT_FALSE(server.Log().Has("[Nfs3Prog.ProcedureWRITE] Write=4"));
}

TEST_F(Nfs3Data, WriteThatTheFileServiceCannotDoIsInval) {
    ASSERT_EQ(0, mkdir(server.PathOf("folder").c_str(), 0755));
    EXPECT_EQ(Words({22, 0, 0}), server.Results(PROC_WRITE, WriteArgs(server.Handle(server.PathOf("folder")), 0, 3, "abc")));
    EXPECT_EQ(Words({70, 0, 0}), server.Results(PROC_WRITE, WriteArgs(UnknownHandle(), 0, 3, "abc")));
    EXPECT_EQ(2, server.Log().Count("[Nfs3Prog.ProcedureWRITE] Write fail"));
}

namespace {

// A controller that accepts redirected writes and answers with a count.
class AcceptingController : public LogRecorder {
public:
    int WriteRedirectedFile(const char*, const char* path, unsigned long long seek, int seekType,
                            unsigned int length) override {
        std::lock_guard<std::mutex> lock(m_callsMutex);
        calls.push_back(std::string(path) + " " + std::to_string(seek) + " " + std::to_string(seekType) + " " +
                        std::to_string(length));
        return (int)length - 1;
    }
    std::vector<std::string> Calls() {
        std::lock_guard<std::mutex> lock(m_callsMutex);
        return calls;
    }

private:
    std::mutex m_callsMutex;
    std::vector<std::string> calls;
};

}  // namespace

TEST_F(Nfs3Data, WriteToARedirectedFileIsReportedAndTheAnswerIsTheCount) {
    std::string path = server.PathOf("disk.vmdk");
    WriteWholeFile(path, "local");
    ASSERT_NE(nullptr, server.Utilities().OpenRedirectedFile(&server.Runtime(), path.c_str(), 1000, false, 0, 0));
    // Nobody answers: the write fails.
    EXPECT_EQ(Words({22, 0, 0}), server.Results(PROC_WRITE, WriteArgs(server.Handle(path), 0, 3, "abc")));
    AcceptingController controller;
    server.Utilities().SetCallback(&controller);
    EXPECT_EQ(99u, Write(WriteArgs(server.Handle(path), 500, 100, std::string(100, 'w'))).count);
    server.Utilities().SetCallback(&server.Log());
    EXPECT_EQ(std::vector<std::string>{path + " 500 0 100"}, controller.Calls());
    EXPECT_EQ("local", ReadWholeFile(path));  // nothing written locally
}

TEST_F(Nfs3Data, TwoWritesOfOneRunCarryTheSameVerifier) {
    WriteWholeFile(server.PathOf("f"), "");
    Bytes file = server.Handle(server.PathOf("f"));
    uint64_t first = Write(WriteArgs(file, 0, 1, "a")).verifier;
    uint64_t second = Write(WriteArgs(file, 1, 1, "b"), RpcTestClient::UDP).verifier;
    EXPECT_EQ(first, second);
    EXPECT_EQ(StartTime(), first);
}

// ---- COMMIT -------------------------------------------------------------------------

TEST_F(Nfs3Data, CommitAnswersIoWithEmptyWccData) {
    WriteWholeFile(server.PathOf("f"), "0123456789");
    Bytes file = server.Handle(server.PathOf("f"));
    for (auto transport : {RpcTestClient::TCP, RpcTestClient::UDP}) {
        EXPECT_EQ(Words({5, 0, 0}), server.Results(PROC_COMMIT, ReadArgs(file, 0, 10), transport));
        EXPECT_EQ(Words({5, 0, 0}), server.Results(PROC_COMMIT, ReadArgs(UnknownHandle(), 0, 0), transport));
    }
    server.Program().SetReadOnly(true);
    EXPECT_EQ(Words({5, 0, 0}), server.Results(PROC_COMMIT, ReadArgs(file, 0, 10)));
    EXPECT_EQ(5, server.Log().Count("[Nfs3Prog.ProcedureCOMMIT] Path record not found"));
    EXPECT_EQ(5, server.Log().Count("[Nfs3Prog.ProcedureCOMMIT] End stat=5"));
    // The arguments were read in step: a call right behind is served.
    RpcTestClient& client = server.Client(RpcTestClient::TCP);
    Bytes commit = WithRecordMark(BuildRpcCall(0xC1, PROGRAM, 3, PROC_COMMIT, ReadArgs(file, 0, 10)));
    Bytes read = WithRecordMark(BuildRpcCall(0xC2, PROGRAM, 3, PROC_READ, ReadArgs(file, 0, 3)));
    ASSERT_TRUE(client.SendRaw(Join({commit, read})));
    RpcReply reply;
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(0xC1u, reply.xid);
    ASSERT_TRUE(client.ReceiveReply(reply));
    EXPECT_EQ(0xC2u, reply.xid);
    EXPECT_EQ(Join({Words({0, 0, 3, 0, 3}), Bytes{'0', '1', '2', 0}}), reply.results);
}

// ---- the verifier across a restart --------------------------------------------------

TEST(Nfs3DataRestart, TheVerifierChangesWhenTheServerIsStartedAgain) {
    std::string why;
    ASSERT_TRUE(EnterPrivateNetwork(&why)) << why;
    TempDir exportDir;
    WriteWholeFile(exportDir / "f", "");
    LogRecorder log;
    CNfsMain main("restart-test", CRuntimeParam::LOG_ERROR);
    main.SetCallback(&log);
    char err[ERROR_TEXT_SIZE] = "";
    ASSERT_TRUE(main.Initial(err)) << err;

    auto writeVerifier = [&](const std::string& data) {
        Bytes handle(FILE_HANDLE_SIZE);
        LogArgu la{"test"};
        char real[PATH_BUFFER_SIZE];
        EXPECT_NE(nullptr, realpath((exportDir / "f").c_str(), real));
        EXPECT_TRUE(main.GetUtils()->GetFileHandle(main.GetRuntimeParam(), &la, real, handle.data(),
                                                   (int)handle.size()));
        RpcTestClient client(RpcTestClient::TCP, CNfsMain::DEFAULT_NFS_PORT);
        RpcReply reply;
        EXPECT_TRUE(client.Call(1, PROGRAM, 3, PROC_WRITE, WriteArgs(handle, 0, (uint32_t)data.size(), data), reply));
        XdrDecoder d(reply.results);
        EXPECT_EQ(0u, d.GetUint32());
        d.GetUint32();
        d.GetUint32();
        EXPECT_EQ(data.size(), d.GetUint32());
        EXPECT_EQ(2u, d.GetUint32());
        return d.GetUint64();
    };

    // The export as a client's MNT leaves it: mounted by its address.
    auto mount = [&] {
        EXPECT_TRUE(main.GetUtils()->UpdateMountClientIpAddrByExportName("export", "127.0.0.1", nullptr, err)) << err;
    };
    ASSERT_TRUE(main.StartServer(0, 0, 0, 0, false, err)) << err;
    ASSERT_TRUE(main.AddMountPoint(exportDir.Path().c_str(), "export", err)) << err;
    mount();
    uint64_t first = writeVerifier("one");
    EXPECT_EQ(first, writeVerifier("two"));
    main.StopServer();
    // The start time is taken in milliseconds: let the clock move on.
    unsigned long long stopped = CUtilities::GetCurrentSystemTimeInMilliseconds();
    ASSERT_TRUE(WaitUntil([&] { return CUtilities::GetCurrentSystemTimeInMilliseconds() > stopped; }));
    ASSERT_TRUE(main.StartServer(0, 0, 0, 0, false, err)) << err;
    ASSERT_TRUE(main.AddMountPoint(exportDir.Path().c_str(), "export", err)) << err;
    mount();
    uint64_t restarted = writeVerifier("three");
    EXPECT_NE(first, restarted);
    EXPECT_GT(restarted, first);
    EXPECT_EQ(restarted, writeVerifier("four"));
    main.StopServer();
    main.SetCallback(nullptr);
    EXPECT_EQ("four", ReadWholeFile(exportDir / "f").substr(0, 4));
}
