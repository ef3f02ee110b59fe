// Command intake: dispatch through a recording copy of the daemon's table (execution order,
// operation choice, outer item checks) and the command socket (oversized and empty datagrams).
#include <arpa/inet.h>

#include <utility>

#include "am_unit.h"
#include "qb_audio_parse.h"

namespace am_unit {
namespace {

struct Item { uint32_t type; Bytes value; };
Bytes items_bytes(const std::vector<Item>& items) {
  Bytes out;
  for (const Item& item : items) {
    const Bytes head = words({item.type, static_cast<uint32_t>(item.value.size())});
    out.insert(out.end(), head.begin(), head.end());
    out.insert(out.end(), item.value.begin(), item.value.end());
  }
  return out;
}
// A command message: outer item of the given type holding the inner items.
Bytes message(const std::vector<Item>& inner, uint32_t outer_type = 2) { return items_bytes({{outer_type, items_bytes(inner)}}); }
uint32_t cmd(uint32_t id, uint32_t op) { return (id << 16) | op; }
Bytes payload(size_t n, uint8_t first = 0x10) {
  Bytes p(n);
  for (size_t i = 0; i < n; ++i) p[i] = static_cast<uint8_t>(first + i);
  return p;
}

// The daemon's rows with every handler replaced by a recorder.
struct Call {
  int id, op;
  Bytes bytes;
  bool operator==(const Call& o) const { return std::tie(id, op, bytes) == std::tie(o.id, o.op, o.bytes); }
};
std::vector<Call> g_calls;
template <int Row, int Op>
int record_call(const void* buf, int len) {
  const auto* p = static_cast<const uint8_t*>(buf);
  g_calls.push_back({qb_audio_cmd_table_get()[Row].id, Op, Bytes(p, p + (len > 0 ? len : 0))});
  return 1;
}
template <size_t... Rows>
std::vector<qb_audio_cmd_operation_t> make_recording_table(std::index_sequence<Rows...>) {
  const qb_audio_cmd_operation_t* real = qb_audio_cmd_table_get();
  return {qb_audio_cmd_operation_t{real[Rows].id, real[Rows].fun_get ? record_call<Rows, 1> : nullptr,
                                   real[Rows].fun_set ? record_call<Rows, 2> : nullptr,
                                   real[Rows].fun_not ? record_call<Rows, 3> : nullptr}...};
}

class ParseDispatch : public ::testing::Test {
 protected:
  void SetUp() override { g_calls.clear(); }
  // Dispatches a copy of exactly the given bytes (no slack, so a read past the end is a fault).
  void dispatch(const Bytes& bytes) {
    Bytes exact(bytes);
    audio_recv_data_proc_table(exact.empty() ? nullptr : exact.data(), static_cast<int>(exact.size()), table_.data());
  }
  std::vector<qb_audio_cmd_operation_t> table_ = make_recording_table(std::make_index_sequence<QB_AUDIO_CMD_TABLE_ROWS>());
  Log log;
};

TEST_F(ParseDispatch, OperationChoosesTheHandler) {
  const Bytes p = payload(4);
  struct Case { uint32_t id, op; std::vector<Call> calls; };
  const Case cases[] = {{2, 1, {{2, 1, p}}}, {2, 2, {{2, 2, p}}}, {2, 3, {}} /* no notify handler */, {17, 2, {}} /* no set handler */,
      {17, 1, {{17, 1, p}}}, {8, 3, {{8, 3, p}}}, {8, 2, {}}, {2, 0, {}}, {2, 4, {}}, {2, 0xFFFF, {}}, {20, 2, {}}, {0, 2, {}}, {0xFFFF, 2, {}}, {1, 1, {{1, 1, p}}}};
  for (const Case& c : cases) {
    g_calls.clear();
    dispatch(message({{cmd(c.id, c.op), p}}));
    EXPECT_EQ(g_calls, c.calls) << c.id << "/" << c.op;
  }
  EXPECT_EQ(log.count("invalid cmd"), 0);
}

TEST_F(ParseDispatch, TableOrderAndFirstItemOfEachCommand) {
  const Bytes mute = payload(12, 0x20), level = payload(4, 0x40), mac = payload(12, 0x60);
  dispatch(message({{cmd(2, 2), mute}, {cmd(19, 2), level}, {cmd(14, 2), level}, {cmd(1, 2), mac}, {cmd(2, 2), payload(12, 0x81)}}));
  EXPECT_EQ(g_calls, (std::vector<Call>{{1, 2, mac}, {14, 2, level}, {2, 2, mute}, {19, 2, level}}));
  g_calls.clear();  // the first item decides even when its operation has no handler
  dispatch(message({{cmd(17, 2), mute}, {cmd(17, 1), mute}}));
  EXPECT_TRUE(g_calls.empty());
}

TEST_F(ParseDispatch, OuterItemChecks) {
  const Bytes good = message({{cmd(2, 2), payload(12)}});
  dispatch(message({{cmd(2, 2), payload(12)}}, 3));
  EXPECT_EQ(log.count("invalid cmd"), 1);
  auto with_length = [&](uint32_t length) { Bytes msg = good; return std::memcpy(msg.data() + 4, &length, 4), msg; };
  for (uint32_t length : {0u, 0x80000000u, 0xFFFFFFFFu}) dispatch(with_length(length));  // dropped silently
  EXPECT_EQ(log.count(), 1);
  for (uint32_t length : {static_cast<uint32_t>(good.size()), 1016u, 4096u, 0x7FFFFFFFu}) dispatch(with_length(length));
  EXPECT_EQ(log.count("invalid cmd"), 5);  // beyond the datagram: nothing read past it
  for (size_t n = 0; n < 16; ++n) dispatch(Bytes(good.begin(), good.begin() + static_cast<long>(n)));
  EXPECT_TRUE(g_calls.empty());
}

// A message whose outer type is 3: always logged as "invalid cmd", whatever the handlers do.
const Bytes kInvalidCmd = {0x03, 0, 0, 0, 0x0C, 0, 0, 0, 0x02, 0, 0x02, 0, 0x04, 0, 0, 0, 1, 2, 3, 4};

TEST(ParseReceive, OversizedAndEmptyDatagramsAreRefusedAndTheNextOneIsServed) {
  am_test::UdpReceiver cmd(0);  // an ephemeral loopback socket stands in for the daemon's command socket
  audio_cmd_fd_set(cmd.fd());
  const int tx = cmd.connected_sender();
  Log log;
  Bytes full = kInvalidCmd;
  full.resize(QB_AUDIO_CMD_BUF_SIZE, 0);
  for (const Bytes& d : {Bytes(1500, 0x02), kInvalidCmd, Bytes{}, full}) ASSERT_EQ(send(tx, d.data(), d.size(), 0), static_cast<ssize_t>(d.size()));
  // 1500 bytes: refused and drained; empty: refused; exactly the buffer size: served.
  const int invalid_after[] = {0, 1, 1, 2};
  for (int expect : invalid_after) {
    EXPECT_EQ(audio_proc(), 1);
    EXPECT_EQ(log.count("invalid cmd"), expect);
  }
  audio_cmd_fd_set(0);
  close(tx);
}

}  // namespace
}  // namespace am_unit
