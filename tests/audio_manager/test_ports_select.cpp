// Output port source selection: every (board, source, stream id) of the four local outputs and of
// the network outputs against the expected tables below, checking the register writes in order
// and the result.
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "qb_audio_analog.h"
#include "qb_audio_aplay.h"
#include "qb_audio_earc.h"
#include "qb_audio_hdmi.h"
#include "qb_audio_misc_stream.h"
#include "qb_audio_spdif.h"
#include "qb_audio_stream.h"
#include "test_misc_helpers.h"

namespace {

using routing_test::kBus;
using routing_test::kFpga;
using routing_test::make_record;
using Writes = am_test::I2cFake::RegWrites;

// ---- Expected tables -------------------------------------------------------------------------
// Cell codes, per board 1, 2, 3, 4:
//   "R<v>"     route source value v          "M"   mute, result 1      "X"  mute, result 0
//   "D"        DSP input 0x17 <- 3, then route 8
//   "S<c>:<v>" route v when channel c is stereo LPCM, else mute
//   "T"        route by stream id, other stream id: nothing
//   "TM"       route by stream id, other stream id: mute
//   "UT"       unmute, then route by stream id, other stream id: nothing
struct Expected {
  int source;
  const char* board[4];
};

const Expected kAnalog[] = {
    {0, {"R2", "R2", "R2", "R2"}},
    {1, {"D", "S3:3", "D", "S3:3"}},
    {2, {"M", "M", "M", "M"}},
    {3, {"M", "S2:1", "S2:1", "S2:1"}},
    {4, {"UT", "T", "T", "T"}},
    {5, {"X", "X", "X", "X"}},
    {6, {"X", "X", "X", "X"}},
    {7, {"X", "X", "X", "X"}},
    {-1, {"X", "X", "X", "X"}},
};

const Expected kEarc[] = {
    {0, {"R2", "M", "R2", "R2"}},
    {1, {"R3", "M", "R3", "R3"}},
    {2, {"M", "M", "M", "M"}},
    {3, {"M", "M", "R1", "R1"}},
    {4, {"T", "M", "TM", "TM"}},
    {5, {"X", "X", "X", "X"}},
    {6, {"X", "X", "X", "X"}},
    {7, {"X", "X", "X", "X"}},
    {-1, {"X", "X", "X", "X"}},
};

const Expected kHdmi[] = {
    {0, {"M", "R2", "R2", "R2"}},
    {1, {"M", "R3", "R3", "R3"}},
    {2, {"M", "M", "M", "M"}},
    {3, {"M", "R1", "R1", "R1"}},
    {4, {"M", "TM", "TM", "TM"}},
    {5, {"X", "X", "X", "X"}},
    {6, {"X", "X", "X", "X"}},
    {7, {"X", "X", "X", "X"}},
    {-1, {"X", "X", "X", "X"}},
};

const Expected kSpdif[] = {
    {0, {"R2", "M", "R2", "R2"}},
    {1, {"R3", "M", "R3", "R3"}},
    {2, {"M", "M", "M", "M"}},
    {3, {"M", "M", "R1", "R1"}},
    {4, {"TM", "M", "TM", "TM"}},
    {5, {"X", "X", "X", "X"}},
    {6, {"X", "X", "X", "X"}},
    {7, {"X", "X", "X", "X"}},
    {-1, {"X", "X", "X", "X"}},
};

// Network outputs, per board 1, 2, 3, 4:
//   "C<c>" start from channel c   "P" 0x19 <- 2, start from channel 5   "E" 0x17 <- 3, start from 4
//   "U" unmute and restart only   "-" restart only                      "X" refused
const Expected kNetwork[] = {
    {0, {"C1", "C1", "C1", "C1"}},
    {1, {"C3", "-", "C3", "C3"}},
    {2, {"-", "P", "P", "P"}},
    {3, {"-", "C2", "C2", "C2"}},
    {4, {"-", "-", "-", "-"}},
    {5, {"X", "X", "X", "X"}},
    {6, {"E", "-", "E", "U"}},
    {7, {"X", "X", "X", "X"}},
    {-1, {"X", "X", "X", "X"}},
};

// ---- The board's registers as the outputs see them ----------------------------------------------
struct Output {
  const char* name;
  int (*select)(int, int);
  const Expected* table;
  uint8_t route_reg;
  int chs_base;  // -1: no channel status
  uint8_t enable_reg;
  uint8_t enable_bit;
};

const Output kOutputs[] = {
    {"analog", qb_audio_analog_output_src_select, kAnalog, 0x11, -1, 0x52, 6},
    {"earc", qb_audio_earc_output_src_select, kEarc, 0x10, 0x30, 0x52, 7},
    {"hdmi", qb_audio_hdmi_output_src_select, kHdmi, 0x12, -1, 0x52, 5},
    {"spdif", qb_audio_spdif_output_src_select, kSpdif, 0x18, 0x36, 0x53, 1},
};

constexpr uint8_t kEnableAll = 0xFF;
// Matrix source of a stream id (255: none) and the channel whose status goes with a source.
int sai_of_sid(int sid) { return sid == 0 ? 4 : sid == 1 ? 6 : sid == 2 ? 5 : 255; }
int chs_channel_of(int src) {
  static const std::map<int, int> m = {{1, 2}, {2, 1}, {3, 3}, {4, 6}, {5, 7}, {6, 8}};
  auto it = m.find(src);
  return it == m.end() ? 0 : it->second;
}
// Distinct channel-status bytes per channel, so a wrong channel shows.
uint8_t chs_byte(int ch, int i) { return static_cast<uint8_t>(ch * 16 + i); }
// Matrix source of a channel id.
int src_of_channel(int ch) {
  static const std::map<int, int> m = {{1, 2}, {2, 1}, {3, 3}, {4, 8}, {5, 9},
                                       {6, 4}, {7, 5}, {8, 6}};
  auto it = m.find(ch);
  return it == m.end() ? 0 : it->second;
}

class Ports : public routing_test::RoutingTest {
 protected:
  // Fresh state for one combination: defaults with distinct channel status, all gates open.
  void prepare(int board) {
    start(board);
    for (int ch = 1; ch <= 8; ++ch) {
      qb_audio_info rec = make_record(2, 2, 0x80);
      for (int i = 0; i < 5; ++i) rec.ChStat[i] = static_cast<qb_s8_t>(chs_byte(ch, i));
      rec.AUD_DB[0] = static_cast<qb_s8_t>(ch);  // tells the records apart
      qb_audio_channel_state_set(ch, &rec);
    }
    bus.set_reg(kBus, kFpga, 0x52, kEnableAll);
    bus.set_reg(kBus, kFpga, 0x53, kEnableAll);
    for (int i = 0; i < 3; ++i) qb_audio_aplay_ctrl_get()->cctrl[i].in_aborting.store(0);
    bus.clear_records();
    log.clear();
  }
};

// Writes of a local output's cell.
void expect_route(const Output& out, int src, Writes* w) {
  if (out.chs_base >= 0) {
    const int ch = chs_channel_of(src);
    for (int i = 0; i < 5; ++i) w->push_back({out.chs_base + i, chs_byte(ch, i)});
    w->push_back({out.chs_base + 5, 0});
  }
  w->push_back({out.route_reg, static_cast<uint8_t>(src)});
}

void expect_mute(const Output& out, Writes* w) {
  w->push_back({out.enable_reg, static_cast<uint8_t>(kEnableAll & ~(1u << out.enable_bit))});
}

int expected_local(const Output& out, const std::string& cell, int sid, Writes* w) {
  if (cell == "M") return expect_mute(out, w), 1;
  if (cell == "X") return expect_mute(out, w), 0;
  if (cell[0] == 'R') return expect_route(out, std::stoi(cell.substr(1)), w), 1;
  if (cell == "D") {
    w->push_back({0x17, 3});
    return expect_route(out, 8, w), 1;
  }
  if (cell[0] == 'S') return expect_route(out, std::stoi(cell.substr(cell.find(':') + 1)), w), 1;
  if (cell == "UT") w->push_back({out.enable_reg, kEnableAll});
  if (cell == "T" || cell == "UT" || cell == "TM") {
    if (sai_of_sid(sid) != 255) return expect_route(out, sai_of_sid(sid), w), 1;
    if (cell == "TM") expect_mute(out, w);
    return 1;
  }
  ADD_FAILURE() << "bad cell " << cell;
  return -1;
}

const char* cell_of(const Expected* table, int source, int board) {
  for (int i = 0;; ++i) {
    if (table[i].source == source) return table[i].board[board - 1];
  }
}

std::string describe(const Writes& w) {
  std::ostringstream os;
  for (const auto& p : w) os << std::hex << p.first << "=" << int(p.second) << " ";
  return os.str();
}

TEST_F(Ports, EveryLocalOutputCombination) {
  const int boards[] = {1, 2, 3, 4, 0, 5};
  const int sources[] = {0, 1, 2, 3, 4, 5, 6, 7, -1};
  for (const Output& out : kOutputs) {
    for (int board : boards) {
      for (int src : sources) {
        for (int sid = 0; sid <= 3; ++sid) {
          prepare(board);
          Writes expect;
          int result = 0;
          if (board >= 1 && board <= 4) {
            result = expected_local(out, cell_of(out.table, src, board), sid, &expect);
          }
          const int got = out.select(src, sid);
          const std::string where = std::string(out.name) + " board " + std::to_string(board) +
                                    " src " + std::to_string(src) + " sid " + std::to_string(sid);
          EXPECT_EQ(got, result) << where;
          const Writes writes = bus.writes(kBus, kFpga);
          EXPECT_EQ(writes, expect) << where << ": got " << describe(writes) << " expected "
                                    << describe(expect);
          if (board < 1 || board > 4) {
            EXPECT_EQ(bus.records().size(), 0u) << where;
          }
        }
      }
    }
  }
}

// Expected effect of a network-output cell.
struct NetExpect {
  int result;
  Writes writes;
  int start_ch;  // 0: no start
};

NetExpect expected_network(const std::string& cell, int sid) {
  NetExpect e{1, {}, 0};
  if (cell == "X") return {0, {}, 0};
  const uint8_t route_reg = sid == 0 ? 0x13 : sid == 1 ? 0x15 : 0x14;
  if (cell == "P") {
    e.writes.push_back({0x19, 2});
    e.start_ch = 5;
  } else if (cell == "E") {
    e.writes.push_back({0x17, 3});
    e.start_ch = 4;
  } else if (cell[0] == 'C') {
    e.start_ch = std::stoi(cell.substr(1));
  }
  if (e.start_ch != 0) {
    e.writes.push_back({route_reg, static_cast<uint8_t>(src_of_channel(e.start_ch))});
    if (sid == 1 && e.start_ch == 5) {
      e.writes.push_back({0x19, 2});
      e.writes.push_back({0x53, 0xFF});
    }
  }
  if (cell != "-") {
    for (int i = 0; i < 3; ++i) e.writes.push_back({0x52, kEnableAll});  // stream outputs unmuted
  }
  return e;
}

TEST_F(Ports, EveryNetworkOutputCombination) {
  const int boards[] = {1, 2, 3, 4, 0, 5};
  const int sources[] = {0, 1, 2, 3, 4, 5, 6, 7, -1};
  const int out_channel[] = {10, 12, 11};
  const int capture_of_sid[] = {0, 2, 1};
  for (int board : boards) {
    for (int src : sources) {
      for (int sid = 0; sid <= 3; ++sid) {
        prepare(board);
        NetExpect e{0, {}, 0};
        if (board >= 1 && board <= 4 && sid <= 2) {
          e = expected_network(cell_of(kNetwork, src, board), sid);
        }
        qb_audio_info before[3];
        for (int i = 0; i < 3; ++i) qb_audio_channel_state_copy(out_channel[i], &before[i]);

        const int got = qb_audio_stream_output_src_select(src, sid);
        const std::string where = "board " + std::to_string(board) + " src " +
                                  std::to_string(src) + " sid " + std::to_string(sid);
        EXPECT_EQ(got, e.result) << where;
        const Writes writes = bus.writes(kBus, kFpga);
        EXPECT_EQ(writes, e.writes) << where << ": got " << describe(writes) << " expected "
                                    << describe(e.writes);
        for (int i = 0; i < 3; ++i) {
          const bool restarted = e.result == 1 && capture_of_sid[sid <= 2 ? sid : 0] == i;
          EXPECT_EQ(qb_audio_aplay_ctrl_get()->cctrl[i].in_aborting.load(), restarted ? 1 : 0)
              << where << " capture " << i;
        }
        for (int i = 0; i < 3; ++i) {
          qb_audio_info now;
          qb_audio_channel_state_copy(out_channel[i], &now);
          qb_audio_info expect = before[i];
          if (e.start_ch != 0 && i == sid) {
            if (sid == 1 && e.start_ch == 5) {
              std::memset(&expect, 0, sizeof expect);  // the receiver's record (none mapped)
            } else {
              qb_audio_channel_state_copy(e.start_ch, &expect);
            }
          }
          EXPECT_EQ(std::memcmp(&now, &expect, sizeof now), 0) << where << " channel "
                                                               << out_channel[i];
        }
        if (board == 1) {
          const std::string line =
              "sel = " + std::to_string(src) + " ; streamId = " + std::to_string(sid);
          EXPECT_EQ(log.count(line), 1) << where;
        }
      }
    }
  }
}

TEST_F(Ports, StereoChecksMuteMultiChannelSources) {
  prepare(3);
  qb_audio_info six = make_record(2, 6, 0x80);
  qb_audio_channel_state_set(2, &six);
  bus.set_reg(kBus, kFpga, 0x11, 0x02);
  bus.clear_records();
  EXPECT_EQ(qb_audio_analog_output_src_select(3, 0), 1);
  EXPECT_EQ(bus.writes(kBus, kFpga), (Writes{{0x52, 0xBF}}));
  EXPECT_EQ(bus.reg(kBus, kFpga, 0x11), 0x02);

  prepare(2);
  qb_audio_info hbr = make_record(14, 8, 0xC0);
  qb_audio_channel_state_set(3, &hbr);
  bus.clear_records();
  EXPECT_EQ(qb_audio_analog_output_src_select(1, 0), 1);
  EXPECT_EQ(bus.writes(kBus, kFpga), (Writes{{0x52, 0xBF}}));
}

TEST_F(Ports, SpdifOnBoardOneLogsTheSelection) {
  prepare(1);
  EXPECT_EQ(qb_audio_spdif_output_src_select(4, 2), 1);
  EXPECT_EQ(log.count("qb_audio_spdif_output_src_select_txa sel = 4,streamId = 2"), 1);
  // Channel 7's status bytes, 0 as byte 5, then the route to sai3.
  EXPECT_EQ(bus.writes(kBus, kFpga),
            (Writes{{0x36, 0x70}, {0x37, 0x71}, {0x38, 0x72}, {0x39, 0x73}, {0x3A, 0x74},
                    {0x3B, 0x00}, {0x18, 0x05}}));
}

TEST_F(Ports, NetworkStreamOneWithDownmixOnBoardFour) {
  prepare(4);
  qb_audio_info before;
  qb_audio_channel_state_copy(12, &before);
  bus.set_reg(kBus, kFpga, 0x52, 0x00);
  EXPECT_EQ(qb_audio_stream_output_src_select(6, 1), 1);
  EXPECT_EQ(bus.writes(kBus, kFpga), (Writes{{0x52, 0x10}, {0x52, 0x18}, {0x52, 0x1C}}));
  EXPECT_EQ(qb_audio_aplay_ctrl_get()->cctrl[2].in_aborting.load(), 1);
  qb_audio_info after;
  qb_audio_channel_state_copy(12, &after);
  EXPECT_EQ(std::memcmp(&before, &after, sizeof after), 0);
}

TEST_F(Ports, StreamInputSelection) {
  prepare(1);
  qb_msic_net_stream_in_hdmi_set(6);
  EXPECT_EQ(qb_audio_stream_input_select(1, 5, 2), 0);
  EXPECT_EQ(qb_misc_audio_sid_hdmi_get(), 5);
  EXPECT_EQ(qb_misc_audio_fallback_sid_hdmi_get(), 2);
  EXPECT_EQ(qb_msic_net_stream_in_hdmi_get(), 6);
  EXPECT_EQ(qb_misc_audio_saiid_hdmi_get(), 255);
  EXPECT_EQ(log.count(" ch = 1 ; subid = 5 ,fallback_sid = 2"), 1);

  EXPECT_EQ(qb_audio_stream_input_select(0, 2, 1), 1);
  EXPECT_EQ(qb_misc_audio_sid_analog_get(), 2);
  EXPECT_EQ(qb_msic_net_stream_in_analog_get(), 5);
  EXPECT_EQ(qb_misc_audio_info_analog_port_copy().src, 2u);
  EXPECT_EQ(qb_misc_audio_info_analog_port_copy().ch, 0u);
  EXPECT_EQ(qb_misc_audio_fallback_sid_hdmi_get(), 2);  // analog has no fallback

  EXPECT_EQ(qb_audio_stream_input_select(2, 1, -1), 1);
  EXPECT_EQ(qb_msic_net_stream_in_spdif_get(), 6);
  EXPECT_EQ(qb_misc_audio_fallback_sid_spdif_get(), -1);
  EXPECT_EQ(qb_misc_audio_saiid_spdif_get(), 6);
  EXPECT_EQ(qb_audio_stream_input_select(3, 0, 2), 1);
  EXPECT_EQ(qb_msic_net_stream_in_earc_get(), 4);
  EXPECT_EQ(qb_misc_audio_fallback_sid_earc_get(), 2);
  EXPECT_EQ(qb_misc_audio_sid_earc_get(), 0);
  EXPECT_EQ(qb_audio_stream_input_select(1, 1, 0), 1);
  EXPECT_EQ(qb_msic_net_stream_in_hdmi_get(), 6);
  EXPECT_EQ(qb_audio_stream_input_select(4, 0, 0), 0);
  EXPECT_EQ(log.count("\n\n"), 4);
  EXPECT_EQ(bus.records().size(), 0u);  // the FPGA is not touched
  EXPECT_EQ(qb_audio_stream_input_fallback_select(0), 1);
}

TEST_F(Ports, HdmiStreamSelectionTellsTheVideoProcessor) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::NetNs ns;
  ASSERT_TRUE(ns.ok());
  prepare(3);
  const int rc = ns.run([] {
    am_test::UdpReceiver avp(9991);
    if (!avp.ok()) return 1;
    if (qb_audio_stream_input_select(0, 1, -1) != 1) return 2;  // analog: no message
    std::vector<uint8_t> msg;
    if (avp.receive(&msg, 300)) return 3;
    if (qb_audio_stream_input_select(1, 1, -1) != 1) return 4;
    if (!avp.receive(&msg, 5000)) return 5;
    const std::string text(msg.begin(), msg.end());
    return text.find("multi-channel-local") != std::string::npos ? 0 : 6;
  });
  EXPECT_EQ(rc, 0);
}

TEST_F(Ports, SelectionAccessors) {
  prepare(1);
  EXPECT_EQ(qb_misc_audio_sid_hdmi_get(), 0);  // zero at start
  EXPECT_EQ(get_output_hdmi_stream_mode(), 0);
  set_output_hdmi_stream_mode(1);
  set_output_spdif_stream_mode(1);
  set_output_earc_stream_actual_sid(2);
  set_output_hdmi_stream_actual_sid(1);
  set_output_spdif_stream_actual_sid(0);
  set_output_analog_mute(1);
  EXPECT_EQ(get_output_hdmi_stream_mode(), 1);
  EXPECT_EQ(get_output_spdif_stream_mode(), 1);
  EXPECT_EQ(get_output_earc_stream_mode(), 0);
  EXPECT_EQ(get_output_earc_stream_actual_sid(), 2);
  EXPECT_EQ(get_output_hdmi_stream_actual_sid(), 1);
  EXPECT_EQ(get_output_analog_mute(), 1);
  const qb_audio_output_dwm_mode_t mode = {6, 3};
  qb_misc_audio_downmix_earc_set(&mode);
  qb_misc_audio_downmix_hdmi_set(nullptr);
  EXPECT_EQ(qb_misc_audio_downmix_earc_get(), 3u);
  EXPECT_EQ(qb_misc_audio_downmix_hdmi_get(), 0u);
  qb_misc_audio_local_port_analog_src_set(1);
  EXPECT_EQ(qb_misc_audio_info_analog_port_get()->src, 1u);
  EXPECT_EQ(qb_misc_audio_get_chn_saiid_by_sid(1), 8);
  EXPECT_EQ(qb_misc_audio_get_chn_saiid_by_sid(2), 7);
  EXPECT_EQ(qb_misc_audio_get_chn_saiid_by_sid(3), 255);
  EXPECT_EQ(qb_audio_analog_init() + qb_audio_earc_uninit() + qb_audio_stream_init(), 3);
}

}  // namespace
