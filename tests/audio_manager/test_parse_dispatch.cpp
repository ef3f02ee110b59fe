// Command dispatch: the table, the execution order, the operation choice and the checks on the
// outer item, driven through a recording copy of the daemon's table.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "qb_audio_parse.h"
#include "test_frame_log_capture.h"

namespace {

using Bytes = std::vector<uint8_t>;

void put_le32(Bytes& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

struct Item {
  uint32_t type;
  Bytes value;
};

Bytes items_bytes(const std::vector<Item>& items) {
  Bytes out;
  for (const Item& item : items) {
    put_le32(out, item.type);
    put_le32(out, static_cast<uint32_t>(item.value.size()));
    out.insert(out.end(), item.value.begin(), item.value.end());
  }
  return out;
}

// A command message: outer item of the given type holding the inner items.
Bytes message(const std::vector<Item>& inner, uint32_t outer_type = 2) {
  return items_bytes({{outer_type, items_bytes(inner)}});
}
uint32_t cmd(uint32_t id, uint32_t op) { return (id << 16) | op; }
Bytes payload(size_t n, uint8_t first = 0x10) {
  Bytes p(n);
  for (size_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(first + i);
  return p;
}

// ---- recording table: the daemon's rows with every handler replaced by a recorder -----------
struct Call {
  int id;
  int op;
  Bytes bytes;
  bool operator==(const Call& o) const { return id == o.id && op == o.op && bytes == o.bytes; }
};
std::vector<Call> g_calls;

template <int Row, int Op>
int record(const void* buf, int len) {
  const auto* p = static_cast<const uint8_t*>(buf);
  g_calls.push_back({qb_audio_cmd_table_get()[Row].id, Op, Bytes(p, p + (len > 0 ? len : 0))});
  return 1;
}

template <size_t... Rows>
std::vector<qb_audio_cmd_operation_t> make_recording_table(std::index_sequence<Rows...>) {
  const qb_audio_cmd_operation_t* real = qb_audio_cmd_table_get();
  return {qb_audio_cmd_operation_t{real[Rows].id, real[Rows].fun_get ? record<Rows, 1> : nullptr,
                                   real[Rows].fun_set ? record<Rows, 2> : nullptr,
                                   real[Rows].fun_not ? record<Rows, 3> : nullptr}...};
}

class ParseDispatch : public ::testing::Test {
 protected:
  void SetUp() override { g_calls.clear(); }
  // Dispatches a copy of exactly the given bytes (no slack, so a read past the end is a fault).
  void dispatch(const Bytes& bytes) {
    Bytes exact(bytes);
    audio_recv_data_proc_table(exact.empty() ? nullptr : exact.data(), static_cast<int>(exact.size()),
                               table_.data());
  }
  std::vector<qb_audio_cmd_operation_t> table_ =
      make_recording_table(std::make_index_sequence<QB_AUDIO_CMD_TABLE_ROWS>());
  am_test_frame::LogCapture log_;
};

TEST(ParseTable, RowsInExecutionOrder) {
  struct Row {
    int id;
    qb_audio_cmd_fun_t get, set, notify;
  };
  const Row expected[QB_AUDIO_CMD_TABLE_ROWS] = {
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
    EXPECT_EQ(table[row].id, expected[row].id) << row;
    EXPECT_EQ(table[row].fun_get, expected[row].get) << row;
    EXPECT_EQ(table[row].fun_set, expected[row].set) << row;
    EXPECT_EQ(table[row].fun_not, expected[row].notify) << row;
  }
}

TEST_F(ParseDispatch, MuteSetExampleCallsTheSetHandlerWithTwelveBytes) {
  const Bytes p = payload(12);
  const Bytes msg = message({{0x00020002, p}});
  const Bytes head = {0x02, 0, 0, 0, 0x14, 0, 0, 0, 0x02, 0, 0x02, 0, 0x0C, 0, 0, 0};
  ASSERT_EQ(Bytes(msg.begin(), msg.begin() + 16), head);
  dispatch(msg);
  EXPECT_EQ(g_calls, (std::vector<Call>{{2, 2, p}}));
}

TEST_F(ParseDispatch, OperationChoosesTheHandler) {
  const Bytes p = payload(4);
  struct Case {
    uint32_t id, op;
    std::vector<Call> calls;
  };
  const Case cases[] = {
      {2, 1, {{2, 1, p}}}, {2, 2, {{2, 2, p}}}, {2, 3, {}},  // no notify handler
      {17, 2, {}},                                            // no set handler
      {17, 1, {{17, 1, p}}}, {8, 3, {{8, 3, p}}}, {8, 2, {}}, {2, 0, {}}, {2, 4, {}},
      {2, 0xFFFF, {}},       {20, 2, {}},         {0, 2, {}}, {0xFFFF, 2, {}},
  };
  for (const Case& c : cases) {
    g_calls.clear();
    dispatch(message({{cmd(c.id, c.op), p}}));
    EXPECT_EQ(g_calls, c.calls) << c.id << "/" << c.op;
  }
  g_calls.clear();
  dispatch(message({{cmd(13, 2), {}}}));  // an empty payload still reaches the handler
  EXPECT_EQ(g_calls, (std::vector<Call>{{13, 2, {}}}));
  EXPECT_EQ(log_.count("invalid cmd"), 0);
}

TEST_F(ParseDispatch, TableOrderAndFirstItemOfEachCommand) {
  const Bytes mute = payload(12, 0x20);
  const Bytes level = payload(4, 0x40);
  const Bytes mac = payload(12, 0x60);
  dispatch(message({{cmd(2, 2), mute}, {cmd(19, 2), level}, {cmd(14, 2), level}, {cmd(1, 2), mac},
                    {cmd(2, 2), payload(12, 0x81)}}));
  EXPECT_EQ(g_calls, (std::vector<Call>{{1, 2, mac}, {14, 2, level}, {2, 2, mute}, {19, 2, level}}));
  // The first item decides even when its operation has no handler.
  g_calls.clear();
  dispatch(message({{cmd(17, 2), mute}, {cmd(17, 1), mute}}));
  EXPECT_TRUE(g_calls.empty());
}

TEST_F(ParseDispatch, OuterItemChecks) {
  const Bytes good = message({{cmd(2, 2), payload(12)}});
  dispatch(message({{cmd(2, 2), payload(12)}}, 3));
  EXPECT_EQ(log_.count("invalid cmd --["), 1);
  // Outer length zero or negative: dropped without a log.
  for (uint32_t length : {0u, 0x80000000u, 0xFFFFFFFFu}) {
    Bytes msg = good;
    std::memcpy(msg.data() + 4, &length, 4);
    dispatch(msg);
  }
  EXPECT_EQ(log_.size(), 1u);
  // An outer length beyond the datagram: nothing read past it, no command.
  for (uint32_t length : {static_cast<uint32_t>(good.size()), 1016u, 4096u, 0x7FFFFFFFu}) {
    Bytes msg = good;
    std::memcpy(msg.data() + 4, &length, 4);
    dispatch(msg);
  }
  EXPECT_EQ(log_.count("invalid cmd"), 5);
  // Datagrams shorter than one item.
  for (size_t n = 0; n < 16; ++n) dispatch(Bytes(good.begin(), good.begin() + static_cast<long>(n)));
  EXPECT_TRUE(g_calls.empty());

  // Only the first outer item is looked at.
  const Bytes second = message({{cmd(3, 2), payload(8)}});
  Bytes bad_first = message({{cmd(2, 2), payload(12)}}, 5);
  bad_first.insert(bad_first.end(), second.begin(), second.end());
  dispatch(bad_first);
  EXPECT_TRUE(g_calls.empty());
  Bytes good_first = message({{cmd(6, 2), payload(4)}});
  good_first.insert(good_first.end(), second.begin(), second.end());
  dispatch(good_first);
  EXPECT_EQ(g_calls, (std::vector<Call>{{6, 2, payload(4)}}));
}

TEST_F(ParseDispatch, RandomDatagramsNeverCrash) {
  std::mt19937 rng(20261122);
  for (int round = 0; round < 3000; ++round) {
    const size_t n = rng() % (QB_AUDIO_CMD_BUF_SIZE + 1);
    Bytes bytes(n);
    for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
    if (n >= 8 && round % 2 == 0) {  // a plausible head half of the time
      const uint32_t head[2] = {2, static_cast<uint32_t>(rng() % (n + 16))};
      std::memcpy(bytes.data(), head, 8);
    }
    dispatch(bytes);
  }
}

}  // namespace
