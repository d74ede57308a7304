// XDR input and output streams.
#include <gtest/gtest.h>

#include <cstring>

#include "DataTruncatedExpt.h"
#include "InputStream.h"
#include "OutputStream.h"

namespace {

void Fill(CInputStream& in, const void* data, uint32_t n) {
    memcpy(in.GetFreeBuffer(), data, n);
    in.AddFilledBufferSize(n);
}

}  // namespace

TEST(XdrStreams, BufferSizeAndByteOrder) {
    EXPECT_EQ(1048576u, CSocketStream::GetMaxBufferSize());
    const unsigned char bytes[4] = {0x12, 0x34, 0x56, 0x78};
    uint32_t word;
    memcpy(&word, bytes, 4);
    EXPECT_EQ(0x12345678u, CSocketStream::ReverseByteOrder(&word));
}

TEST(XdrStreams, ReadsBigEndianItems) {
    CInputStream in;
    const unsigned char bytes[] = {0, 0, 0, 5, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 'a', 'b'};
    Fill(in, bytes, sizeof bytes);
    uint32_t v = 0;
    uint64_t w = 0;
    EXPECT_EQ(4u, in.Read(&v));
    EXPECT_EQ(5u, v);
    EXPECT_EQ(8u, in.Read8(&w));
    EXPECT_EQ(0x0102030405060708ull, w);
    char two[2];
    EXPECT_EQ(2u, in.Read(two, 2));
    EXPECT_EQ(0, memcmp(two, "ab", 2));
    EXPECT_EQ(0u, in.GetFilledBufferSize());
}

TEST(XdrStreams, SkipRemainOpaque) {
    CInputStream in;
    unsigned char zeros[8] = {0};
    Fill(in, zeros, sizeof zeros);
    EXPECT_EQ(0u, in.SkipRemainOpaque(0));
    EXPECT_EQ(0u, in.SkipRemainOpaque(8));
    EXPECT_EQ(0u, in.GetBufferIndex());
    EXPECT_EQ(3u, in.SkipRemainOpaque(5));
    EXPECT_EQ(3u, in.GetBufferIndex());
}

TEST(XdrStreams, TruncatedReadThrowsAndKeepsPosition) {
    CInputStream in;
    unsigned char three[3] = {1, 2, 3};
    Fill(in, three, 3);
    char dst[4];
    try {
        in.Read(dst, 4);
        FAIL() << "no exception";
    } catch (CDataTruncatedExpt& e) {
        EXPECT_STREQ("Data is truncated.Missing 1 data", e.what());
        CDataTruncatedExpt copy(e);
        EXPECT_STREQ("Data is truncated.Missing 1 data", copy.what());
    }
    EXPECT_EQ(0u, in.GetBufferIndex());
    uint32_t v;
    EXPECT_THROW(in.Read(&v), CDataTruncatedExpt);
    EXPECT_THROW(in.Skip(4), CDataTruncatedExpt);
    EXPECT_EQ(0u, in.GetBufferIndex());
    EXPECT_EQ(3u, in.Skip(3));
}

TEST(XdrStreams, GetFilledBufferPeeksWithoutMoving) {
    CInputStream in;
    unsigned char data[40];
    for (int i = 0; i < 40; ++i) data[i] = (unsigned char)i;
    Fill(in, data, 40);
    EXPECT_EQ(nullptr, in.GetFilledBuffer(1, 40));
    ASSERT_NE(nullptr, in.GetFilledBuffer(0, 40));
    EXPECT_EQ(39, *in.GetFilledBuffer(39, 1));
    EXPECT_EQ(nullptr, in.GetFilledBuffer(0xFFFFFFFFu, 2));  // no wrap-around
    EXPECT_EQ(0u, in.GetBufferIndex());
}

TEST(XdrStreams, ConsolidateMovesTheUnreadTail) {
    CInputStream in;
    unsigned char data[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    Fill(in, data, 10);
    in.Skip(6);
    in.ConsolidateBuffer(7);  // index below min: nothing
    EXPECT_EQ(6u, in.GetBufferIndex());
    in.ConsolidateBuffer(0);
    EXPECT_EQ(0u, in.GetBufferIndex());
    EXPECT_EQ(4u, in.GetFilledBufferSize());
    EXPECT_EQ(6, in.GetCurrentBuffer()[0]);
    EXPECT_EQ(1048576u - 4u, in.GetFreeBufferSize());
    in.Skip(4);
    in.ConsolidateBuffer(0);
    EXPECT_EQ(1048576u, in.GetFreeBufferSize());
    in.ResetBuffer();
    EXPECT_EQ(0u, in.GetFilledBufferSize());
}

TEST(XdrStreams, WritesBigEndianItems) {
    COutputStream out;
    out.Write(0x01020304u);
    out.Write8(0x1122334455667788ull);
    const unsigned char expected[] = {1, 2, 3, 4, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};
    ASSERT_EQ(12u, out.GetBufferSize());
    EXPECT_EQ(0, memcmp(expected, out.GetBuffer(), 12));
}

TEST(XdrStreams, FreeBufferKeepsAnIndexBeyondTheDroppedBytes) {
    COutputStream out;
    unsigned char data[30];
    for (int i = 0; i < 30; ++i) data[i] = (unsigned char)i;
    out.Write(data, 30);
    out.Seek(20, 0);
    out.FreeBuffer(10);
    EXPECT_EQ(20u, out.GetBufferSize());
    EXPECT_EQ(20u, out.GetBufferIndex());
    EXPECT_EQ(10, out.GetBuffer()[0]);

    COutputStream out2;
    out2.Write(data, 30);
    out2.Seek(8, 0);
    out2.FreeBuffer(10);
    EXPECT_EQ(20u, out2.GetBufferSize());
    EXPECT_EQ(0u, out2.GetBufferIndex());

    out2.FreeBuffer(20);
    EXPECT_EQ(0u, out2.GetBufferSize());
    EXPECT_EQ(0u, out2.GetBufferIndex());
}

TEST(XdrStreams, PatchingAPlaceholderKeepsTheSize) {
    COutputStream out;
    unsigned char data[100] = {0};
    out.Write(data, 100);
    out.Seek(0, 0);
    out.Write(0xAABBCCDDu);
    EXPECT_EQ(100u, out.GetBufferSize());
    EXPECT_EQ(4u, out.GetBufferIndex());
    EXPECT_EQ(0xAA, out.GetBuffer()[0]);
    out.Seek(-4, 2);
    EXPECT_EQ(96u, out.GetBufferIndex());
    out.Seek(2, 1);
    EXPECT_EQ(98u, out.GetBufferIndex());
    out.Seek(5, 3);  // unknown origin: nothing
    EXPECT_EQ(98u, out.GetBufferIndex());
}

TEST(XdrStreams, NullWriteReservesSpaceWithoutTouchingIt) {
    COutputStream out;
    out.GetBuffer()[0] = 0x5A;
    out.GetBuffer()[7] = 0xA5;
    EXPECT_EQ(8u, out.Write(nullptr, 8));
    EXPECT_EQ(8u, out.GetBufferIndex());
    EXPECT_EQ(8u, out.GetBufferSize());
    EXPECT_EQ(0x5A, out.GetBuffer()[0]);
    EXPECT_EQ(0xA5, out.GetBuffer()[7]);
}

TEST(XdrStreams, WriteRemainOpaqueOnlyMovesThePosition) {
    COutputStream out;
    out.Write("abcde", 5);
    EXPECT_EQ(3u, out.WriteRemainOpaque(5));
    EXPECT_EQ(8u, out.GetBufferIndex());
    EXPECT_EQ(5u, out.GetBufferSize());
    EXPECT_EQ(0u, out.WriteRemainOpaque(8));
    EXPECT_EQ(0u, out.WriteRemainOpaque(0));
    out.Write(1u);
    EXPECT_EQ(12u, out.GetBufferSize());
    // The padding holds zeros, as XDR wants.
    EXPECT_EQ(0, out.GetBuffer()[5]);
    EXPECT_EQ(0, out.GetBuffer()[7]);
}

TEST(XdrStreams, WritingPastTheEndIsCutSilently) {
    COutputStream out;
    out.Seek(1048576 - 2, 0);
    EXPECT_EQ(2u, out.Write(0x01020304u));
    EXPECT_EQ(1048576u, out.GetBufferSize());
    EXPECT_EQ(0u, out.GetFreeBufferSize());
    EXPECT_EQ(0u, out.Write(7u));
    out.Seek(100, 1);  // the position stays inside the buffer
    EXPECT_EQ(1048576u, out.GetBufferIndex());
    EXPECT_EQ(0u, out.WriteRemainOpaque(1) == 3 ? out.Write("x", 1) : 0u);
    out.ResetBuffer();
    EXPECT_EQ(0u, out.GetBufferSize());
    EXPECT_EQ(0u, out.GetBufferIndex());
}
