// Output port source selection: every (board, source, stream id) of the four local outputs and of
// the network outputs against the expected tables below (register writes in order and result),
// then the documented examples and the per-output selection state.
#include <sstream>

#include "am_unit.h"
#include "qb_audio_analog.h"
#include "qb_audio_earc.h"
#include "qb_audio_hdmi.h"
#include "qb_audio_misc_stream.h"
#include "qb_audio_spdif.h"
#include "qb_audio_stream.h"

namespace am_unit {
namespace {

// ---- Expected tables, cells for boards 1, 2, 3, 4 ---------------------------------------------
//   "R<v>" route v   "M" mute, 1   "X" mute, 0   "D" 0x17 <- 3, then route 8
//   "S<c>:<v>" route v when channel c is stereo LPCM, else mute
//   "T" route by stream id, other: nothing   "TM" ... other: mute   "UT" unmute, then "T"
struct Expected { int source; const char* board[4]; };
#define AM_REFUSED(src) {src, {"X", "X", "X", "X"}}
const Expected kAnalog[] = {
    {0, {"R2", "R2", "R2", "R2"}}, {1, {"D", "S3:3", "D", "S3:3"}}, {2, {"M", "M", "M", "M"}},
    {3, {"M", "S2:1", "S2:1", "S2:1"}}, {4, {"UT", "T", "T", "T"}}, AM_REFUSED(5), AM_REFUSED(6),
    AM_REFUSED(7), AM_REFUSED(-1)};
const Expected kEarc[] = {
    {0, {"R2", "M", "R2", "R2"}}, {1, {"R3", "M", "R3", "R3"}}, {2, {"M", "M", "M", "M"}},
    {3, {"M", "M", "R1", "R1"}}, {4, {"T", "M", "TM", "TM"}}, AM_REFUSED(5), AM_REFUSED(6),
    AM_REFUSED(7), AM_REFUSED(-1)};
const Expected kHdmi[] = {
    {0, {"M", "R2", "R2", "R2"}}, {1, {"M", "R3", "R3", "R3"}}, {2, {"M", "M", "M", "M"}},
    {3, {"M", "R1", "R1", "R1"}}, {4, {"M", "TM", "TM", "TM"}}, AM_REFUSED(5), AM_REFUSED(6),
    AM_REFUSED(7), AM_REFUSED(-1)};
const Expected kSpdif[] = {
    {0, {"R2", "M", "R2", "R2"}}, {1, {"R3", "M", "R3", "R3"}}, {2, {"M", "M", "M", "M"}},
    {3, {"M", "M", "R1", "R1"}}, {4, {"TM", "M", "TM", "TM"}}, AM_REFUSED(5), AM_REFUSED(6),
    AM_REFUSED(7), AM_REFUSED(-1)};
// Network outputs: "C<c>" start from channel c   "P" 0x19 <- 2, start from 5
//   "E" 0x17 <- 3, start from 4   "U" unmute and restart only   "-" restart only   "X" refused
const Expected kNetwork[] = {
    {0, {"C1", "C1", "C1", "C1"}}, {1, {"C3", "-", "C3", "C3"}}, {2, {"-", "P", "P", "P"}},
    {3, {"-", "C2", "C2", "C2"}}, {4, {"-", "-", "-", "-"}}, AM_REFUSED(5),
    {6, {"E", "-", "E", "U"}}, AM_REFUSED(7), AM_REFUSED(-1)};
#undef AM_REFUSED

const int kBoards[] = {1, 2, 3, 4, 0, 5};
const int kSources[] = {0, 1, 2, 3, 4, 5, 6, 7, -1};

struct Output { const char* name; int (*select)(int, int); const Expected* table; uint8_t route_reg; int chs_base; uint8_t enable_reg, enable_bit; };
const Output kOutputs[] = {
    {"analog", qb_audio_analog_output_src_select, kAnalog, 0x11, -1, 0x52, 6},
    {"earc", qb_audio_earc_output_src_select, kEarc, 0x10, 0x30, 0x52, 7},
    {"hdmi", qb_audio_hdmi_output_src_select, kHdmi, 0x12, -1, 0x52, 5},
    {"spdif", qb_audio_spdif_output_src_select, kSpdif, 0x18, 0x36, 0x53, 1},
};

int sai_of_sid(int sid) { return sid == 0 ? 4 : sid == 1 ? 6 : sid == 2 ? 5 : 255; }
// Channel whose status goes with a matrix source, and matrix source of a channel.
const int kChsChannelOfSrc[] = {0, 2, 1, 3, 6, 7, 8};
const int kSrcOfChannel[] = {0, 2, 1, 3, 8, 9, 4, 5, 6};
int chs_channel_of(int src) { return src >= 1 && src <= 6 ? kChsChannelOfSrc[src] : 0; }
int src_of_channel(int ch) { return ch >= 1 && ch <= 8 ? kSrcOfChannel[ch] : 0; }
// Distinct channel-status bytes per channel, so a wrong channel shows.
uint8_t chs_byte(int ch, int i) { return static_cast<uint8_t>(ch * 16 + i); }
int capture_abort(int i) { return qb_audio_aplay_ctrl_get()->cctrl[i].in_aborting.load(); }

class Ports : public RoutingTest {
 protected:
  // Fresh state: distinct records in channels 1-8, every gate open, no capture restart pending.
  void prepare(int board) {
    start(board);
    for (int ch = 1; ch <= 8; ++ch) {
      qb_audio_info rec = make_record(2, 2, 0x80);
      for (int i = 0; i < 5; ++i) rec.ChStat[i] = static_cast<qb_s8_t>(chs_byte(ch, i));
      rec.AUD_DB[0] = static_cast<qb_s8_t>(ch);
      qb_audio_channel_state_set(ch, &rec);
    }
    bus.set_reg(kBus, kFpga, 0x52, 0xFF);
    bus.set_reg(kBus, kFpga, 0x53, 0xFF);
    for (int i = 0; i < 3; ++i) qb_audio_aplay_ctrl_get()->cctrl[i].in_aborting.store(0);
    bus.clear_records();
  }
};

void expect_route(const Output& out, int src, Writes* w) {
  if (out.chs_base >= 0) {
    for (int i = 0; i < 5; ++i) w->push_back({out.chs_base + i, chs_byte(chs_channel_of(src), i)});
    w->push_back({out.chs_base + 5, 0});
  }
  w->push_back({out.route_reg, static_cast<uint8_t>(src)});
}
void expect_mute(const Output& out, Writes* w) {
  w->push_back({out.enable_reg, static_cast<uint8_t>(0xFF & ~(1u << out.enable_bit))});
}

int expected_local(const Output& out, const std::string& cell, int sid, Writes* w) {
  if (cell == "M" || cell == "X") return expect_mute(out, w), cell == "M" ? 1 : 0;
  if (cell[0] == 'R') return expect_route(out, std::stoi(cell.substr(1)), w), 1;
  if (cell[0] == 'S') return expect_route(out, std::stoi(cell.substr(cell.find(':') + 1)), w), 1;
  if (cell == "D") return w->push_back({0x17, 3}), expect_route(out, 8, w), 1;
  if (cell == "UT") w->push_back({out.enable_reg, 0xFF});
  if (sai_of_sid(sid) != 255) return expect_route(out, sai_of_sid(sid), w), 1;
  if (cell == "TM") expect_mute(out, w);
  return 1;
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
  for (const Output& out : kOutputs) {
    for (int board : kBoards) {
      for (int src : kSources) {
        for (int sid = 0; sid <= 3; ++sid) {
          prepare(board);
          Writes expect;
          const bool tables = board >= 1 && board <= 4;
          const int result = tables ? expected_local(out, cell_of(out.table, src, board), sid, &expect) : 0;
          const std::string where = std::string(out.name) + " board " + std::to_string(board) +
                                    " src " + std::to_string(src) + " sid " + std::to_string(sid);
          EXPECT_EQ(out.select(src, sid), result) << where;
          const Writes writes = bus.writes(kBus, kFpga);
          EXPECT_EQ(writes, expect) << where << ": got " << describe(writes);
          if (!tables) {
            EXPECT_EQ(bus.records().size(), 0u) << where;
          }
        }
      }
    }
  }
}

// Writes of a network-output cell; start_ch 0 when nothing is started.
int expected_network(const std::string& cell, int sid, Writes* w, int* start_ch) {
  *start_ch = 0;
  if (cell == "X") return 0;
  if (cell == "P") w->push_back({0x19, 2}), *start_ch = 5;
  if (cell == "E") w->push_back({0x17, 3}), *start_ch = 4;
  if (cell[0] == 'C') *start_ch = std::stoi(cell.substr(1));
  if (*start_ch != 0) {
    const uint8_t route_reg = sid == 0 ? 0x13 : sid == 1 ? 0x15 : 0x14;
    w->push_back({route_reg, static_cast<uint8_t>(src_of_channel(*start_ch))});
    if (sid == 1 && *start_ch == 5) w->insert(w->end(), {{0x19, 2}, {0x53, 0xFF}});
  }
  if (cell != "-") w->insert(w->end(), 3, {0x52, 0xFF});  // the stream outputs unmuted
  return 1;
}

TEST_F(Ports, EveryNetworkOutputCombination) {
  const int out_channel[] = {10, 12, 11};
  const int capture_of_sid[] = {0, 2, 1};
  for (int board : kBoards) {
    for (int src : kSources) {
      for (int sid = 0; sid <= 3; ++sid) {
        prepare(board);
        Writes expect;
        int start_ch = 0;
        const int result = (board >= 1 && board <= 4 && sid <= 2)
                               ? expected_network(cell_of(kNetwork, src, board), sid, &expect, &start_ch)
                               : 0;
        qb_audio_info before[3];
        for (int i = 0; i < 3; ++i) qb_audio_channel_state_copy(out_channel[i], &before[i]);
        const std::string where = "board " + std::to_string(board) + " src " +
                                  std::to_string(src) + " sid " + std::to_string(sid);
        EXPECT_EQ(qb_audio_stream_output_src_select(src, sid), result) << where;
        EXPECT_EQ(bus.writes(kBus, kFpga), expect) << where << ": got " << describe(bus.writes(kBus, kFpga));
        for (int i = 0; i < 3; ++i) {
          EXPECT_EQ(capture_abort(i), (result == 1 && capture_of_sid[sid % 3] == i) ? 1 : 0) << where;
          qb_audio_info now;
          qb_audio_info want = before[i];
          qb_audio_channel_state_copy(out_channel[i], &now);
          if (start_ch != 0 && i == sid) {
            if (sid == 1 && start_ch == 5) {
              std::memset(&want, 0, sizeof want);  // the receiver's record (none mapped)
            } else {
              qb_audio_channel_state_copy(start_ch, &want);
            }
          }
          EXPECT_EQ(std::memcmp(&now, &want, sizeof now), 0) << where << " channel " << out_channel[i];
        }
      }
    }
  }
}

TEST_F(Ports, StereoChecksMuteMultiChannelSources) {
  prepare(3);  // board 3, analog output, eARC holding 6-channel LPCM
  qb_audio_info six = make_record(2, 6, 0x80);
  qb_audio_channel_state_set(2, &six);
  bus.set_reg(kBus, kFpga, 0x11, 0x02);
  bus.clear_records();
  EXPECT_EQ(qb_audio_analog_output_src_select(3, 0), 1);
  EXPECT_EQ(bus.writes(kBus, kFpga), (Writes{{0x52, 0xBF}}));
  EXPECT_EQ(bus.reg(kBus, kFpga, 0x11), 0x02);

  prepare(2);  // board 2, HDMI input carrying HBR
  qb_audio_info hbr = make_record(14, 8, 0xC0);
  qb_audio_channel_state_set(3, &hbr);
  bus.clear_records();
  EXPECT_EQ(qb_audio_analog_output_src_select(1, 0), 1);
  EXPECT_EQ(bus.writes(kBus, kFpga), (Writes{{0x52, 0xBF}}));
}

TEST_F(Ports, StreamInputSelection) {
  prepare(1);
  qb_msic_net_stream_in_hdmi_set(6);
  EXPECT_EQ(qb_audio_stream_input_select(1, 5, 2), 0);  // stored, but no such stream
  EXPECT_EQ(qb_misc_audio_sid_hdmi_get(), 5);
  EXPECT_EQ(qb_misc_audio_fallback_sid_hdmi_get(), 2);
  EXPECT_EQ(qb_msic_net_stream_in_hdmi_get(), 6);
  EXPECT_EQ(qb_misc_audio_saiid_hdmi_get(), 255);

  struct Case { int output, sid, fallback, (*sid_get)(void), (*nsi_get)(void), (*saiid_get)(void), (*fallback_get)(void), nsi; };
  const Case cases[] = {
      {0, 2, 1, qb_misc_audio_sid_analog_get, qb_msic_net_stream_in_analog_get, qb_misc_audio_saiid_analog_get, nullptr, 5},
      {2, 1, -1, qb_misc_audio_sid_spdif_get, qb_msic_net_stream_in_spdif_get, qb_misc_audio_saiid_spdif_get,
       qb_misc_audio_fallback_sid_spdif_get, 6},
      {3, 0, 2, qb_misc_audio_sid_earc_get, qb_msic_net_stream_in_earc_get, qb_misc_audio_saiid_earc_get,
       qb_misc_audio_fallback_sid_earc_get, 4},
      {1, 1, 0, qb_misc_audio_sid_hdmi_get, qb_msic_net_stream_in_hdmi_get, qb_misc_audio_saiid_hdmi_get,
       qb_misc_audio_fallback_sid_hdmi_get, 6},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(qb_audio_stream_input_select(c.output, c.sid, c.fallback), 1) << c.output;
    EXPECT_EQ((std::vector<int>{c.sid, c.nsi, c.nsi, c.fallback_get ? c.fallback : 0}),
              (std::vector<int>{c.sid_get(), c.nsi_get(), c.saiid_get(), c.fallback_get ? c.fallback_get() : 0}))
        << c.output;
  }
  EXPECT_EQ(qb_misc_audio_info_analog_port_copy().src, 2u);  // the analog output's stream id
  EXPECT_EQ(qb_misc_audio_info_analog_port_copy().ch, 0u);
  EXPECT_EQ(qb_audio_stream_input_select(4, 0, 0), 0);
  EXPECT_EQ(bus.records().size(), 0u);  // the FPGA is not touched
}

TEST_F(Ports, DownmixAndStreamChannelsKeepTheirOwnOutput) {
  const qb_audio_output_dwm_mode_t mode = {6, 3};
  qb_misc_audio_downmix_earc_set(&mode);
  qb_misc_audio_downmix_hdmi_set(nullptr);  // ignored
  EXPECT_EQ(qb_misc_audio_downmix_earc_get(), 3u);
  EXPECT_EQ(qb_misc_audio_downmix_hdmi_get(), 0u);
  EXPECT_EQ(qb_misc_audio_downmix_spdif_get(), 0u);
  qb_misc_audio_local_port_analog_src_set(1);
  EXPECT_EQ(qb_misc_audio_info_analog_port_get()->src, 1u);
  const int chn[][2] = {{0, 6}, {1, 8}, {2, 7}, {3, 255}, {-1, 255}};
  for (const auto& c : chn) EXPECT_EQ(qb_misc_audio_get_chn_saiid_by_sid(c[0]), c[1]) << c[0];
  EXPECT_EQ(qb_audio_stream_input_fallback_select(0), 1);
}

}  // namespace
}  // namespace am_unit
