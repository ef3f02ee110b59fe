// Command dispatch: the table, the execution order, the operation choice and the checks on the
// outer item, driven through a recording copy of the daemon's table.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "qb_audio_parse.h"
#include "test_frame_log_capture.h"

namespace {

// ---- message building ----------------------------------------------------------------------
void put_le32(std::vector<uint8_t>& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) {
    out.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
}

struct Item {
  uint32_t type;
  std::vector<uint8_t> value;
};

std::vector<uint8_t> items_bytes(const std::vector<Item>& items) {
  std::vector<uint8_t> out;
  for (const Item& item : items) {
    put_le32(out, item.type);
    put_le32(out, static_cast<uint32_t>(item.value.size()));
    out.insert(out.end(), item.value.begin(), item.value.end());
  }
  return out;
}

// A command message: outer item of the given type holding the inner items.
std::vector<uint8_t> message(const std::vector<Item>& inner, uint32_t outer_type = 2) {
  return items_bytes({{outer_type, items_bytes(inner)}});
}

uint32_t cmd(uint32_t id, uint32_t op) { return (id << 16) | op; }

std::vector<uint8_t> payload(size_t n, uint8_t first = 0x10) {
  std::vector<uint8_t> p(n);
  for (size_t i = 0; i < n; ++i) {
    p[i] = static_cast<uint8_t>(first + i);
  }
  return p;
}

// ---- recording table -----------------------------------------------------------------------
struct Call {
  int id;
  int op;
  std::vector<uint8_t> bytes;
  bool operator==(const Call& o) const { return id == o.id && op == o.op && bytes == o.bytes; }
};
std::vector<Call> g_calls;

template <int Row, int Op>
int record(const void* buf, int len) {
  const int id = qb_audio_cmd_table_get()[Row].id;
  const auto* p = static_cast<const uint8_t*>(buf);
  g_calls.push_back({id, Op, std::vector<uint8_t>(p, p + (len > 0 ? len : 0))});
  return 1;
}

template <int Row>
qb_audio_cmd_operation_t recording_row(const qb_audio_cmd_operation_t& real) {
  return {real.id, real.fun_get ? record<Row, 1> : nullptr, real.fun_set ? record<Row, 2> : nullptr,
          real.fun_not ? record<Row, 3> : nullptr};
}

// The daemon's table with every handler replaced by a recorder (same ids, same order, same empty
// entries).
template <size_t... Rows>
std::vector<qb_audio_cmd_operation_t> make_recording_table(std::index_sequence<Rows...>) {
  const qb_audio_cmd_operation_t* real = qb_audio_cmd_table_get();
  return {recording_row<static_cast<int>(Rows)>(real[Rows])...};
}

using am_test_frame::LogCapture;

class ParseDispatch : public ::testing::Test {
 protected:
  void SetUp() override {
    g_calls.clear();
    table_ = make_recording_table(std::make_index_sequence<QB_AUDIO_CMD_TABLE_ROWS>());
  }
  // Dispatches a copy of exactly the given bytes (no slack, so a read past the end is a fault).
  void dispatch(const std::vector<uint8_t>& bytes) {
    std::vector<uint8_t> exact(bytes);
    audio_recv_data_proc_table(exact.empty() ? nullptr : exact.data(), static_cast<int>(exact.size()),
                               table_.data());
  }
  std::vector<qb_audio_cmd_operation_t> table_;
  LogCapture log_;
};

// ---- the table -------------------------------------------------------------------------------
struct RowCase {
  int id;
  qb_audio_cmd_fun_t get;
  qb_audio_cmd_fun_t set;
  qb_audio_cmd_fun_t notify;
};

TEST(ParseTable, RowsInExecutionOrder) {
  const RowCase expected[QB_AUDIO_CMD_TABLE_ROWS] = {
      {1, input_src_mac_get, input_src_mac_set, nullptr},
      {14, nullptr, input_analog_volume_set, nullptr},
      {2, output_mute_ctrl_get, output_mute_ctrl_set, nullptr},
      {3, output_latency_ctrl_get, output_latency_ctrl_set, nullptr},
      {4, output_src_select_get, output_src_select_set, nullptr},
      {5, output_dwm_mode_get, output_dwm_mode_set, nullptr},
      {6, output_analog_volume_get, output_analog_volume_set, nullptr},
      {7, output_analog_fullscalevrms_get, output_analog_fullscalevrms_set, nullptr},
      {8, nullptr, nullptr, audio_channel_info_note},
      {9, nullptr, stream_input_select_set, nullptr},
      {10, nullptr, stream_input_fromnet_set, nullptr},
      {11, nullptr, stream_output_tonet_set, nullptr},
      {12, nullptr, cec_phyaddr_set, nullptr},
      {13, nullptr, it6621_mode_set, nullptr},
      {15, nullptr, monitor_status_set, nullptr},
      {16, nullptr, stream_input_fallback_select_set, nullptr},
      {17, details_audio_status_get, nullptr, nullptr},
      {18, output_earc_enable_ctrl_get, output_earc_enable_ctrl_set, nullptr},
      {19, nullptr, input_earc_onlyarc_ctrl_set, nullptr},
      {0, nullptr, nullptr, nullptr},
  };
  const qb_audio_cmd_operation_t* table = qb_audio_cmd_table_get();
  for (int row = 0; row < QB_AUDIO_CMD_TABLE_ROWS; ++row) {
    SCOPED_TRACE("row " + std::to_string(row));
    EXPECT_EQ(table[row].id, expected[row].id);
    EXPECT_EQ(table[row].fun_get, expected[row].get);
    EXPECT_EQ(table[row].fun_set, expected[row].set);
    EXPECT_EQ(table[row].fun_not, expected[row].notify);
  }
}

// ---- dispatch ----------------------------------------------------------------------------------
TEST_F(ParseDispatch, MuteSetExampleCallsTheSetHandlerWithTwelveBytes) {
  const std::vector<uint8_t> p = payload(12);
  const std::vector<uint8_t> msg = message({{0x00020002, p}});
  const std::vector<uint8_t> head = {0x02, 0, 0, 0, 0x14, 0, 0, 0, 0x02, 0, 0x02, 0, 0x0C, 0, 0, 0};
  ASSERT_EQ(std::vector<uint8_t>(msg.begin(), msg.begin() + 16), head);
  dispatch(msg);
  EXPECT_EQ(g_calls, (std::vector<Call>{{2, 2, p}}));
}

struct OpCase {
  const char* name;
  uint32_t id;
  uint32_t op;
  std::vector<Call> calls;
};

TEST_F(ParseDispatch, OperationChoosesTheHandler) {
  const std::vector<uint8_t> p = payload(4);
  const OpCase cases[] = {
      {"get of 2", 2, 1, {{2, 1, p}}},
      {"set of 2", 2, 2, {{2, 2, p}}},
      {"notify of 2 (no handler)", 2, 3, {}},
      {"set of 17 (no handler)", 17, 2, {}},
      {"get of 17", 17, 1, {{17, 1, p}}},
      {"notify of 8", 8, 3, {{8, 3, p}}},
      {"set of 8 (no handler)", 8, 2, {}},
      {"operation 0", 2, 0, {}},
      {"operation 4", 2, 4, {}},
      {"operation 0xFFFF", 2, 0xFFFF, {}},
      {"id not in the table", 20, 2, {}},
      {"id 0", 0, 2, {}},
      {"id 0xFFFF", 0xFFFF, 2, {}},
  };
  for (const OpCase& c : cases) {
    g_calls.clear();
    dispatch(message({{cmd(c.id, c.op), p}}));
    EXPECT_EQ(g_calls, c.calls) << c.name;
  }
  EXPECT_EQ(log_.count("invalid cmd"), 0);
}

TEST_F(ParseDispatch, CommandsRunInTableOrderNotMessageOrder) {
  const std::vector<uint8_t> mute = payload(12, 0x20);
  const std::vector<uint8_t> level = payload(4, 0x40);
  const std::vector<uint8_t> mac = payload(12, 0x60);
  dispatch(message({{cmd(2, 2), mute}, {cmd(19, 2), level}, {cmd(14, 2), level}, {cmd(1, 2), mac}}));
  EXPECT_EQ(g_calls, (std::vector<Call>{{1, 2, mac}, {14, 2, level}, {2, 2, mute}, {19, 2, level}}));
}

TEST_F(ParseDispatch, OnlyTheFirstItemOfACommandRuns) {
  const std::vector<uint8_t> first = payload(12, 0x01);
  const std::vector<uint8_t> second = payload(12, 0x81);
  dispatch(message({{cmd(2, 2), first}, {cmd(2, 2), second}}));
  EXPECT_EQ(g_calls, (std::vector<Call>{{2, 2, first}}));
  // The first item decides even when its operation has no handler.
  g_calls.clear();
  dispatch(message({{cmd(17, 2), first}, {cmd(17, 1), second}}));
  EXPECT_TRUE(g_calls.empty());
}

TEST_F(ParseDispatch, EmptyPayloadReachesTheHandler) {
  dispatch(message({{cmd(13, 2), {}}}));
  ASSERT_EQ(g_calls.size(), 1u);
  EXPECT_TRUE(g_calls[0].bytes.empty());
}

TEST_F(ParseDispatch, OuterTypeOtherThanTwoIsInvalid) {
  dispatch(message({{cmd(2, 2), payload(12)}}, 3));
  EXPECT_TRUE(g_calls.empty());
  EXPECT_EQ(log_.count("invalid cmd --["), 1);
}

TEST_F(ParseDispatch, OuterLengthZeroOrNegativeIsDroppedSilently) {
  for (uint32_t length : {0u, 0x80000000u, 0xFFFFFFFFu}) {
    std::vector<uint8_t> msg = message({{cmd(2, 2), payload(12)}});
    std::memcpy(msg.data() + 4, &length, 4);
    dispatch(msg);
  }
  EXPECT_TRUE(g_calls.empty());
  EXPECT_EQ(log_.size(), 0u);
}

TEST_F(ParseDispatch, OuterLengthBeyondTheDatagramReadsNothingPastIt) {
  std::vector<uint8_t> msg = message({{cmd(2, 2), payload(12)}});
  for (uint32_t length : {static_cast<uint32_t>(msg.size()), 1016u, 4096u, 0x7FFFFFFFu}) {
    std::memcpy(msg.data() + 4, &length, 4);
    dispatch(msg);
  }
  EXPECT_TRUE(g_calls.empty());
  EXPECT_EQ(log_.count("invalid cmd"), 4);
}

TEST_F(ParseDispatch, OnlyTheFirstOuterItemIsLookedAt) {
  std::vector<uint8_t> msg = message({{cmd(2, 2), payload(12)}}, 5);
  const std::vector<uint8_t> second = message({{cmd(3, 2), payload(8)}});
  msg.insert(msg.end(), second.begin(), second.end());
  dispatch(msg);
  EXPECT_TRUE(g_calls.empty());
  EXPECT_EQ(log_.count("invalid cmd"), 1);
  // A valid first item: what follows it is ignored.
  g_calls.clear();
  std::vector<uint8_t> good = message({{cmd(6, 2), payload(4)}});
  good.insert(good.end(), second.begin(), second.end());
  dispatch(good);
  EXPECT_EQ(g_calls, (std::vector<Call>{{6, 2, payload(4)}}));
}

TEST_F(ParseDispatch, ShortDatagramsAreHandledWithoutOverread) {
  const std::vector<uint8_t> full = message({{cmd(2, 2), payload(12)}});
  for (size_t n = 0; n < 16; ++n) {
    dispatch(std::vector<uint8_t>(full.begin(), full.begin() + static_cast<long>(n)));
  }
  EXPECT_TRUE(g_calls.empty());
}

TEST_F(ParseDispatch, RandomDatagramsNeverCrash) {
  std::mt19937 rng(20261122);
  for (int round = 0; round < 3000; ++round) {
    const size_t n = rng() % (QB_AUDIO_CMD_BUF_SIZE + 1);
    std::vector<uint8_t> bytes(n);
    for (uint8_t& b : bytes) {
      b = static_cast<uint8_t>(rng());
    }
    if (n >= 8 && round % 2 == 0) {  // a plausible head half of the time
      const uint32_t outer_type = 2;
      const uint32_t length = static_cast<uint32_t>(rng() % (n + 16));
      std::memcpy(bytes.data(), &outer_type, 4);
      std::memcpy(bytes.data() + 4, &length, 4);
    }
    dispatch(bytes);
  }
  SUCCEED();
}

// ---- lookups ----------------------------------------------------------------------------------
TEST(ParseLookup, HeadValidityHelpers) {
  tlv_box_t* box = tlv_box_create();
  ASSERT_NE(box, nullptr);
  ASSERT_EQ(tlv_box_put_int(box, static_cast<qb_s32_t>(cmd(0x11, 1)), 1), 0);
  ASSERT_EQ(tlv_box_put_int(box, static_cast<qb_s32_t>(cmd(0x11, 3)), 3), 0);
  ASSERT_EQ(tlv_box_put_int(box, 2, 7), 0);
  tlv_t* node = is_audio_cmd_head_valid(box, 0x11);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(static_cast<uint32_t>(node->type), cmd(0x11, 1));
  EXPECT_EQ(is_audio_cmd_head_valid(box, 0x12), nullptr);
  node = is_cmd_first_type_valid(box);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->type, 2);
  EXPECT_EQ(is_cmd_first_type_valid(nullptr), nullptr);
  EXPECT_EQ(is_audio_cmd_head_valid(nullptr, 2), nullptr);
  tlv_box_destroy(box);
}

}  // namespace
