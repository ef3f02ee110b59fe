// The packet ring: capacity, refusals, hand-out discipline and wrap-around.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qb_audio_buf.h"
#include "test_oper_helpers.h"

namespace {

using Log = engine_test::Log;

std::vector<char> chunk(int size, char fill) { return std::vector<char>(static_cast<size_t>(size), fill); }

TEST(BufRing, HoldsCountMinusOneChunksThenRefusesWithLog) {
  Log log;
  CAudioBuf ring(16, 4);
  ASSERT_TRUE(ring.is_valid());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(0, ring.push_data(chunk(16, static_cast<char>(i)).data(), 16));
  }
  EXPECT_EQ(1, ring.buf_is_full());
  EXPECT_EQ(3, ring.get_buf_size());
  EXPECT_EQ(-1, ring.push_data(chunk(16, 9).data(), 16));
  EXPECT_EQ(1, log.count("buff is full, widx:3 ridx:0"));
  EXPECT_EQ(3, ring.get_buf_size());
}

TEST(BufRing, OversizeNullAndEmptyPushesStoreNothing) {
  Log log;
  CAudioBuf ring(16, 4);
  EXPECT_EQ(-1, ring.push_data(chunk(17, 1).data(), 17));
  EXPECT_EQ(1, log.count("push data size=17 > buf_size:16"));
  EXPECT_EQ(0, ring.push_data(nullptr, 16));
  EXPECT_EQ(0, ring.push_data(chunk(16, 1).data(), 0));
  EXPECT_EQ(0, ring.push_data(chunk(16, 1).data(), -5));
  EXPECT_EQ(0, ring.get_buf_size());
  EXPECT_EQ(nullptr, ring.get_buf_data());
  EXPECT_EQ(1, log.count("buf is empty, ridx=0 widx=0"));
}

TEST(BufRing, SlotIsHandedOutOnceUntilReleasedOrGivenBack) {
  Log log;
  CAudioBuf ring(8, 4);
  ASSERT_EQ(0, ring.push_data("abcdefgh", 8));
  ASSERT_EQ(0, ring.push_data("ijkl", 4));
  AUD_BUF_T* first = ring.get_buf_data();
  ASSERT_NE(nullptr, first);
  EXPECT_EQ(std::string("abcdefgh"), std::string(first->buf, 8));
  EXPECT_EQ(8, first->data_size);
  EXPECT_EQ(nullptr, ring.get_buf_data());
  EXPECT_EQ(1, log.count("ridx:0 ref :1 is not zero"));
  EXPECT_EQ(0, ring.reset_buf_status(first));
  AUD_BUF_T* again = ring.get_buf_data();
  EXPECT_EQ(first, again);
  EXPECT_EQ(2, ring.get_buf_size());  // the read index does not move on hand-out
  EXPECT_EQ(0, ring.push_buf_free(again));
  EXPECT_EQ(1, ring.get_buf_size());
  AUD_BUF_T* second = ring.get_buf_data();
  ASSERT_NE(nullptr, second);
  EXPECT_EQ(4, second->data_size);
  EXPECT_EQ(-1, ring.reset_buf_status(nullptr));
  EXPECT_EQ(-1, ring.push_buf_free(nullptr));
}

TEST(BufRing, ReleasingAnotherSlotFailsAndKeepsIndices) {
  Log log;
  CAudioBuf ring(4, 4);
  ASSERT_EQ(0, ring.push_data("aaaa", 4));
  ASSERT_EQ(0, ring.push_data("bbbb", 4));
  AUD_BUF_T* head = ring.get_buf_data();
  ASSERT_NE(nullptr, head);
  AUD_BUF_T stranger = *head;
  stranger.buf = nullptr;
  EXPECT_EQ(-1, ring.push_buf_free(&stranger));
  EXPECT_EQ(1, log.count_prefix("buf ref:1 buf:"));
  EXPECT_EQ(2, ring.get_buf_size());
  EXPECT_EQ(0, ring.push_buf_free(head));
  EXPECT_EQ(1, ring.get_buf_size());
}

TEST(BufRing, SizeIsRightAcrossWrapAround) {
  CAudioBuf ring(4, 5);
  // Advance both indices to 4, then wrap the write index to 1: R=4 > W=1.
  for (int round = 0; round < 4; ++round) {
    ASSERT_EQ(0, ring.push_data("xxxx", 4));
    AUD_BUF_T* s = ring.get_buf_data();
    ASSERT_NE(nullptr, s);
    ASSERT_EQ(0, ring.push_buf_free(s));
  }
  EXPECT_EQ(0, ring.get_buf_size());
  ASSERT_EQ(0, ring.push_data("0000", 4));
  ASSERT_EQ(0, ring.push_data("1111", 4));
  EXPECT_EQ(2, ring.get_buf_size());
  ASSERT_EQ(0, ring.push_data("2222", 4));
  ASSERT_EQ(0, ring.push_data("3333", 4));
  EXPECT_EQ(4, ring.get_buf_size());
  EXPECT_EQ(1, ring.buf_is_full());
  // Chunks come out in push order across the wrap.
  for (char expect : {'0', '1', '2', '3'}) {
    AUD_BUF_T* s = ring.get_buf_data();
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(expect, s->buf[0]);
    ASSERT_EQ(0, ring.push_buf_free(s));
  }
  EXPECT_EQ(0, ring.get_buf_size());
}

}  // namespace
