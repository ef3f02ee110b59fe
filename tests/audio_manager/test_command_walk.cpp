// Commands as the control service sends them, through the daemon's dispatch table: what every
// output plays after each source selection on each board, the network outputs' capture paths, the
// bridge and codec requests, the HDMI stream chosen when a monitor connects, the captures restarted
// by a changed input, the stream groups and player command lines, and the packet-loss report.
#include <dirent.h>

#include "Edid_Parser.h"
#include "am_test_edid.h"
#include "am_unit.h"
#include "audio_packet_loss_statistics.h"
#include "qb_audio_parse.h"
#include "qb_audio_misc_stream.h"
#include "qb_audio_oper_switch.h"
#include "qb_audio_stream.h"

namespace am_unit {
namespace {

void send(int id, const Bytes& payload, int op = QB_AUDIO_CMD_OP_SET) {
  const Bytes m = tlv_message(QB_AUDIO_MSG_TYPE_CMD, qb_audio_cmd_type(id, op), payload);
  audio_recv_data_proc(m.data(), static_cast<int>(m.size()));
}
std::string hex(int v) { char b[8]; return std::snprintf(b, sizeof b, "%x", v), b; }

class CommandWalk : public ControlTest {
 protected:
  // Board `board`, LPCM records of `channels` on every channel, every output on stream `sid`, every
  // gate open, the routes unset.
  void prepare(int board, int channels = 2, uint32_t sid = 1) {
    start(board);
    const qb_audio_info rec = make_record(2, channels, 0x80);
    for (int ch = 1; ch <= 8; ++ch) qb_audio_channel_state_set(ch, &rec);
    for (uint8_t reg : {0x52, 0x53}) bus.set_reg(kBus, kFpga, reg, 0xFF);
    for (int reg = FPGA_REG_ROUTE_MIN; reg <= 0x19; ++reg) bus.set_reg(kBus, kFpga, static_cast<uint8_t>(reg), kUnset);
    for (uint32_t out = 0; out < 4; ++out) send(QB_AUDIO_CMD_STREAM_INPUT_FORLOCAL, words({out, sid, 2}));
  }
  // One selection as the output's register shows it: "d" first when the DSP input was routed,
  // then the route value, "m" when the gate closed instead, "-" when nothing changed.
  std::string cell(uint8_t route, uint8_t gate, int bit) {
    std::string s = bus.reg(kBus, kFpga, FPGA_REG_ROUTE_DSP_IN) != kUnset ? "d" : "";
    if ((bus.reg(kBus, kFpga, gate) & (1 << bit)) == 0) return s + "m";
    return s + (bus.reg(kBus, kFpga, route) != kUnset ? hex(bus.reg(kBus, kFpga, route)) : "-");
  }
  // The output requests are cached for the process: leave them as a fresh daemon has them.
  void TearDown() override {
    for (uint32_t sid = 0; sid < 3 && !IsSkipped(); ++sid) send(QB_AUDIO_CMD_STREAM_OUTPUT_TONET, words({sid, 0, 0, 0, 0, 0}));
    ControlTest::TearDown();
  }
  static constexpr uint8_t kUnset = 0xEE;
};

TEST_F(CommandWalk, EveryBoardOutputAndSource) {
  struct Output { const char* name; uint32_t port; uint8_t route, gate; int bit; };
  const Output outputs[] = {{"analog", 0, 0x11, 0x52, 6}, {"hdmi", 1, 0x12, 0x52, 5}, {"spdif", 2, 0x18, 0x53, 1}, {"earc", 3, 0x10, 0x52, 7}};
  // Sources 0-7 per output on boards 1-4 (TX-A, RX, TR-A, TR), with stereo records and stream 1,
  // then with 8-channel records and no stream; an unknown board refuses every selection.
  const std::map<std::string, std::vector<std::string>> expected = {
      {"analog", {"2 d8 m m 6 m m m", "2 3 m 1 6 m m m", "2 d8 m 1 6 m m m", "2 3 m 1 6 m m m"}},
      {"hdmi", {"m m m m m m m m", "2 3 m 1 6 m m m", "2 3 m 1 6 m m m", "2 3 m 1 6 m m m"}},
      {"spdif", {"2 3 m m 6 m m m", "m m m m m m m m", "2 3 m 1 6 m m m", "2 3 m 1 6 m m m"}},
      {"earc", {"2 3 m m 6 m m m", "m m m m m m m m", "2 3 m 1 6 m m m", "2 3 m 1 6 m m m"}},
      {"analog 8ch", {"2 d8 m m - m m m", "2 m m m - m m m", "2 d8 m m - m m m", "2 m m m - m m m"}},
      {"hdmi 8ch", {"m m m m m m m m", "2 3 m 1 m m m m", "2 3 m 1 m m m m", "2 3 m 1 m m m m"}},
      {"spdif 8ch", {"2 3 m m m m m m", "m m m m m m m m", "2 3 m 1 m m m m", "2 3 m 1 m m m m"}},
      {"earc 8ch", {"2 3 m m - m m m", "m m m m m m m m", "2 3 m 1 m m m m", "2 3 m 1 m m m m"}},
  };
  for (const bool eight : {false, true}) {
    for (const Output& o : outputs) {
      for (int board = 0; board <= 5; ++board) {
        std::string got;
        for (uint32_t src = 0; src < 8; ++src) {
          prepare(board, eight ? 8 : 2, eight ? 3 : 1);
          send(QB_AUDIO_CMD_OUTPUT_SRC_SELECT, words({o.port, src}));
          got += (src ? " " : "") + cell(o.route, o.gate, o.bit);
        }
        const bool known = board >= 1 && board <= 4;
        EXPECT_EQ(got, known ? expected.at(o.name + std::string(eight ? " 8ch" : ""))[board - 1] : "- - - - - - - -")
            << o.name << " board " << board << (eight ? " 8ch" : "");
      }
    }
  }
}

// The capture path of each network stream per source 0-7 ("s": S/PDIF type of the third stream set),
// the same for every stream on a board.
TEST_F(CommandWalk, NetworkOutputsPerBoardStreamAndSource) {
  const uint8_t capture_route[] = {FPGA_REG_ROUTE_SAO1, FPGA_REG_ROUTE_SAO5, FPGA_REG_ROUTE_SAO3};
  const std::string expected[] = {"- - - - - - - -", "2 3 - - - - d8 -", "2 - 9s 1 - - - -", "2 3 9s 1 - - d8 -", "2 3 9s 1 - - - -"};
  for (int board = 0; board <= 4; ++board) {  // 0: no known board
    for (uint32_t sid = 0; sid < 3; ++sid) {
      std::string got;
      for (uint32_t src = 0; src < 8; ++src) {
        prepare(board);
        send(QB_AUDIO_CMD_STREAM_OUTPUT_TONET, words({sid, src, static_cast<uint32_t>(board), 0, 0, 0}));  // MAC per board
        got += (src ? " " : "") + cell(capture_route[sid], 0x52, 0) + (bus.reg(kBus, kFpga, 0x19) != kUnset ? "s" : "");
      }
      EXPECT_EQ(got, expected[board]) << "board " << board << " stream " << sid;
    }
  }
  EXPECT_EQ(qb_audio_stream_output_src_select(5, 0) + qb_audio_stream_output_src_select(0, 3), 0);  // no such source, stream
}

TEST_F(CommandWalk, BridgeAndCodecRequests) {
  auto arc = [](uint32_t mode) { return tlv_message(8, QB_BRIDGE_KEY_ARC_MODE, le32(mode)); };
  struct Row { const char* name; int id; Bytes payload; int port; Bytes datagram; std::vector<std::string> fpga; };
  const Row rows[] = {
      {"earc output off", QB_AUDIO_CMD_EARC_ENABLE_CTRL, words({3, 0, 0}), kIt6621Port, arc(QB_ARC_MODE_OFF), {}},
      {"earc output on", QB_AUDIO_CMD_EARC_ENABLE_CTRL, words({3, 1, 0}), kIt6621Port, arc(QB_ARC_MODE_ARC_EARC), {}},
      {"earc output arc only", QB_AUDIO_CMD_EARC_ENABLE_CTRL, words({3, 1, 1}), kIt6621Port, arc(QB_ARC_MODE_ARC_ONLY), {}},
      {"enable on the hdmi port: nothing", QB_AUDIO_CMD_EARC_ENABLE_CTRL, words({1, 0, 0}), 0, {}, {}},
      {"cec address", QB_AUDIO_CMD_CEC_PHY_ADDR, words({0x1000}), kIt6620Port, tlv_message(7, QB_BRIDGE_KEY_CEC_PHY_ADDR, le32(0x1000)), {}},
      {"input level low", QB_AUDIO_CMD_INPUT_ANALOG_FULLSCALEVRMS, words({2}), 0, {}, {"W 50=00"}},
      {"hdmi delay", QB_AUDIO_CMD_OUTPUT_LATENCY_CTRL, words({1, 0x1234}), 0, {}, {"W 24=34", "W 25=12"}},
      {"delay of the stream port refused", QB_AUDIO_CMD_OUTPUT_LATENCY_CTRL, words({4, 5}), 0, {}, {}},
      {"selection on the stream port refused", QB_AUDIO_CMD_OUTPUT_SRC_SELECT, words({4, 0}), 0, {}, {}},
      {"analog volume", QB_AUDIO_CMD_OUTPUT_ANALOG_VOLUME, words({40}), 0, {}, {}},
      {"same volume again", QB_AUDIO_CMD_OUTPUT_ANALOG_VOLUME, words({40}), 0, {}, {}},
      {"full scale", QB_AUDIO_CMD_OUTPUT_ANALOG_FULLSCALEVRMS, words({2}), 0, {}, {}},
      {"downmix hdmi", QB_AUDIO_CMD_OUTPUT_DWM_MODE, words({1, 3}), 0, {}, {}},
      {"downmix spdif", QB_AUDIO_CMD_OUTPUT_DWM_MODE, words({2, 4}), 0, {}, {}},
      {"downmix earc", QB_AUDIO_CMD_OUTPUT_DWM_MODE, words({3, 5}), 0, {}, {}},
  };
  for (const Row& r : rows) {
    bus.clear_records();
    send(r.id, r.payload);
    EXPECT_EQ(transfers(bus), r.fpga) << r.name;
    EXPECT_EQ(r.port != 0 ? next(r.port) : Bytes{}, r.datagram) << r.name;
  }
  for (int id : {2, 3, 4, 5, 6, 7, 18}) send(id, Bytes(8, 0), QB_AUDIO_CMD_OP_GET);  // nothing to report
  EXPECT_EQ(am_test::read_file(root.at(kCodecArgsPath)), "-v 40\n-f 2\n");
  audio_mute_all();
  EXPECT_EQ(transfers(bus), (std::vector<std::string>{"W 52=00"}));
  EXPECT_EQ(qb_misc_audio_downmix_hdmi_get() * 100 + qb_misc_audio_downmix_spdif_get() * 10 + qb_misc_audio_downmix_earc_get(), 345u);
  for (int port : {kIt6620Port, kIt6621Port, kAvpPort}) EXPECT_TRUE(quiet(port)) << port;
}

// A monitor connecting decides between the HDMI output's stream (0) and its fallback (2) from the
// monitor's audio list (AC-3 and LPCM up to 2 channels at 32-48 kHz): its first LPCM entry decides.
TEST_F(CommandWalk, MonitorConnectChoosesTheStreamItsEdidTakes) {
  qb_bridge_edid_wait_ms_set(0);
  send(QB_AUDIO_CMD_STREAM_INPUT_FORLOCAL, words({1, 0, 2}));
  const am_test::EdidBytes edid = am_test::edid_with({0x26, 0x17, 0x07, 0x50, 0x09, 0x07, 0x07});  // AC-3 8ch before LPCM 2ch
  struct Row { const char* name; int kind, code, ch, mode_before, mode_after; bool edid = true; };
  const Row rows[] = {
      {"stereo lpcm: back to the stream", 0, 0, 2, 1, 0},
      {"8-channel lpcm: fallback", 0, 0, 8, 0, 1},
      {"ac-3 listed: back to the stream", 1, 2, 2, 1, 0},
      {"dts not listed: fallback", 1, 12, 2, 0, 1},
      {"hbr truehd not listed: fallback", 2, 5, 8, 0, 1},
      {"one-bit audio: back to the stream", 3, 0, 2, 1, 0},
      {"unknown channel status: taken as supported", 7, 0, 2, 1, 0},
      {"unknown dsp code: no decision", 0, 50, 2, 1, 1},
      {"supported and already on the stream", 0, 0, 2, 0, 0},
      {"no edid file: no decision", 0, 0, 8, 0, 0, false},
  };
  for (const Row& r : rows) {
    ASSERT_TRUE(r.edid ? root.write(EDID_TV_FILE_PATH, std::string(edid.begin(), edid.end())) : std::remove(root.at(EDID_TV_FILE_PATH).c_str()) == 0);
    qb_audio_info rec = make_record(2, r.ch, 0x80);
    rec.ChStat[1] = static_cast<qb_s8_t>(r.kind);
    rec.AUD_DB[0] = static_cast<qb_s8_t>(r.code);
    set_output_hdmi_stream(r.mode_before, r.mode_before ? 2u : 0u);
    qb_audio_channel_state_set(QB_AUDIO_CHN_NSI1, &rec);
    send(QB_AUDIO_CMD_MONITOR_STATUS, le32(0));
    send(QB_AUDIO_CMD_MONITOR_STATUS, le32(QB_HDMI_MONITOR_CONNECTED));
    EXPECT_EQ(get_output_hdmi_stream_mode(), r.mode_after) << r.name;
    EXPECT_EQ(bus.reg(kBus, kFpga, FPGA_REG_ROUTE_HDMI_OUT), r.mode_after ? FPGA_SRC_SAI3 : FPGA_SRC_SAI1) << r.name;
  }
  qb_bridge_edid_wait_ms_set(-1);  // the daemon's default wait again
}

// A changed local input restarts the network outputs capturing it: capture aborts of streams
// 0, 1, 2, the third stream's capture route and its S/PDIF and ARC flags; the DSP's decoder code reaches the HDMI records.
TEST_F(CommandWalk, ChannelInfoRestartsTheCapturesOfItsInput) {
  const std::pair<int, const char*> rows[] = {{1, "1 1 1 r2 f00"}, {2, "1 1 1 r1 f01"}, {3, "1 1 1 r3 f00"}, {4, "1 1 1 r8 f00"}, {5, "1 1 1 r9 f10"}};
  auto note = [](int ch, const qb_audio_info& rec) { send(QB_AUDIO_CMD_CHANNEL_INFO, channel_note(static_cast<uint32_t>(ch), rec), QB_AUDIO_CMD_OP_NOTIFY); };
  auto select_all = [](int src) {
    for (uint32_t sid = 0; sid < 3; ++sid) send(QB_AUDIO_CMD_STREAM_OUTPUT_TONET, words({sid, static_cast<uint32_t>(src), 0x41414141, 0, 0, 0}));
  };
  for (const auto& [ch, expected] : rows) {
    prepare(QB_BOARD_MODE_TR_A);
    select_all(qb_audio_channel_state_id_switch_netstreamsel(ch));
    clear_aborts();
    bus.set_reg(kBus, kFpga, FPGA_REG_ROUTE_SAO5, kUnset);
    note(ch, make_record(10, 8, 0x90, 1));  // an S/PDIF-framed eARC input takes the ARC capture type
    const std::string got = std::to_string(capture_abort(0)) + " " + std::to_string(capture_abort(1)) + " " + std::to_string(capture_abort(2)) +
                            " r" + hex(bus.reg(kBus, kFpga, FPGA_REG_ROUTE_SAO5)) +
                            " f" + std::to_string(is_qb_net_second_stream_select_spdif()) + std::to_string(is_qb_net_second_stream_select_arc());
    EXPECT_EQ(got, expected) << ch;
  }
  // A network input's changed format restarts its player once; the same note again does not.
  std::string restarts;
  for (int i = 0; i < 2; ++i, clear_aborts()) {
    note(QB_AUDIO_CHN_NSI3, make_record(4, 2, 0x80));
    restarts += std::to_string(qb_audio_aplay_ctrl_get()->pctrl[1].in_aborting.load());
  }
  EXPECT_EQ(restarts, "10");
  select_all(QB_AUDIO_SRC_HDMI);
  const qb_audio_info video = make_record(2, 2, QB_AUDIO_TYPE_NLPCM);
  qb_audio_channel_state_set(QB_AUDIO_CHN_VIDEO, &video);
  qb_audio_info dsp = make_record(2, 2, 0x90);
  dsp.AUD_DB[0] = 21;
  note(QB_AUDIO_CHN_DSP, dsp);
  for (int ch : {QB_AUDIO_CHN_VIDEO, QB_AUDIO_CHN_NSO1, QB_AUDIO_CHN_NSO3, QB_AUDIO_CHN_NSO5}) EXPECT_EQ(record(ch).AUD_DB[0], 21) << ch;
}

// Stream groups: each output's from its receiver's MAC in either case (an empty MAC clears it), the
// inputs' from the source MAC or one input's own peer; a reset puts the inputs back on the default group.
TEST_F(CommandWalk, StreamGroupsFromTheMacs) {
  net_stream_ipaddr_t ip{};
  auto all = [&] {
    qb_misc_net_stream_ipaddr_copy(&ip);
    std::string s;
    for (const char* t : {ip.sai1_out_ipaddr, ip.sai1_out_deviceid, ip.sai5_out_ipaddr, ip.sai5_out_deviceid, ip.sai3_out_ipaddr, ip.sai3_out_deviceid,
                          ip.sai1_in_ipaddr, ip.sai1_in_deviceid, ip.sai3_in_ipaddr, ip.sai3_in_deviceid, ip.sai5_in_ipaddr, ip.sai5_in_deviceid}) s += std::string(t) + "|";
    return s;
  };
  send(QB_AUDIO_CMD_INPUT_SRC_MAC, text_bytes("0A0b0c0d0e0f"));
  Bytes in5 = text_bytes("0011223F0000");  // the input of stream 5 from another peer
  in5.resize(16), in5.insert(in5.end(), {0, 0, 0, 0, 1, 0, 0, 0});
  send(QB_AUDIO_CMD_STREAM_INPUT_FROMNET, in5);
  for (uint32_t sid = 0; sid < 3; ++sid) {
    Bytes req = words({sid, 0});
    for (char c : std::string(sid == 1 ? "aabbccddee0" : "AABBCCDDEE0") + std::to_string(sid)) req.push_back(static_cast<uint8_t>(c));
    send(QB_AUDIO_CMD_STREAM_OUTPUT_TONET, (req.resize(24), req));
  }
  EXPECT_EQ(all(), "234.61.238.0|AABBCCDDEE00|234.61.238.1|aabbccddee01|234.61.238.2|AABBCCDDEE02|"
                   "234.61.14.15|0a0b0c0d0e0f|234.61.14.15|0a0b0c0d0e0f|234.63.0.0|0011223F0000|");
  for (auto set : {qb_misc_net_stream_out1_ipaddr_set, qb_misc_net_stream_out5_ipaddr_set}) set("234.1.2.3", "d");
  send(QB_AUDIO_CMD_STREAM_OUTPUT_TONET, words({1, 1, 0, 0, 0, 0}));
  qb_audio_net_stream_ipaddr_set(&ip);
  EXPECT_EQ(all(), "234.1.2.3|d||d|234.61.238.2|AABBCCDDEE02|"
                   "225.0.0.1|0a0b0c0d0e0f|225.0.0.1|0a0b0c0d0e0f|225.0.0.1|0011223F0000|");
}

// The analog output's direct routes and the player started for each network input.
TEST_F(CommandWalk, AnalogRoutesAndPlayerCommands) {
  const std::pair<int (*)(void), int> routes[] = {{qb_audio_output_from_earc_in, FPGA_SRC_IT6620}, {qb_audio_output_from_analog_in, FPGA_SRC_PCM1804},
      {qb_audio_output_from_hdmi_in, FPGA_SRC_HDMI_IN}, {qb_audio_output_from_sai1_tx, FPGA_SRC_SAI1}, {qb_audio_output_from_sai3_tx, FPGA_SRC_SAI3},
      {qb_audio_output_from_sai5_tx, FPGA_SRC_SAI5}, {qb_audio_output_from_sai6_tx, FPGA_SRC_SAI6}, {qb_audio_output_from_dsp_out, FPGA_SRC_DSP_DAO},
      {qb_audio_output_from_spdif_in, FPGA_SRC_SPDIF_IN}};
  for (const auto& [fn, src] : routes) EXPECT_EQ(fn() * 100 + bus.reg(kBus, kFpga, FPGA_REG_ROUTE_ANALOG_OUT), 100 + src) << src;
  bus.set_reg(kBus, kFpga, FPGA_REG_INPUT_ENABLE_HDMI, 0);
  EXPECT_EQ(audio_hdmi_to_fpga_mute() + stream_output_mute(), 2);
  ASSERT_TRUE(root.write(QB_AUDIO_MYAPLAY_PATH, "#!/bin/sh\necho \"$*\" >> " + root.at("/tmp/myaplay.args") + "\n"));
  ASSERT_EQ(chmod(root.at(QB_AUDIO_MYAPLAY_PATH).c_str(), 0755), 0);
  send(QB_AUDIO_CMD_INPUT_SRC_MAC, text_bytes("0A0b0c0d0e0f"));
  const qb_audio_info six = make_record(10, 6, 0x80);
  qb_audio_channel_state_set(QB_AUDIO_CHN_NSI3, &six);
  EXPECT_EQ(qb_audio_net_stream_in1_start() + qb_audio_net_stream_in3_start() + qb_audio_net_stream_in5_start(), 3);
  ASSERT_TRUE(am_test::wait_for([&] { return am_test::count(am_test::read_file(root.at("/tmp/myaplay.args")), "\n") == 3; }, kExpectMs));
  std::istringstream in(am_test::read_file(root.at("/tmp/myaplay.args")));
  std::vector<std::string> lines;
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  std::sort(lines.begin(), lines.end());  // the players start in the background, in any order
  const std::string to = " --addr 234.61.14.15 --port 5930";
  EXPECT_EQ(lines, (std::vector<std::string>{"-Dhw:1,0 -r 48000 -f S24_LE -c 2" + to + "0 --group",
                                             "-Dhw:2,0 -r 96000 -f S24_LE -c 6" + to + "1 --group",
                                             "-Dhw:3,0 -r 48000 -f S24_LE -c 2" + to + "2 --group"}));
}

// Descriptors of this process without close-on-exec, which a child program would inherit.
std::vector<std::string> inheritable_fds() {
  std::vector<std::string> out;
  DIR* dir = opendir("/proc/self/fd");
  for (struct dirent* e; dir != nullptr && (e = readdir(dir)) != nullptr;) {
    const int fd = std::atoi(e->d_name);
    if (e->d_name[0] != '.' && fd > 2 && fd != dirfd(dir) && (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) out.push_back(e->d_name);
  }
  if (dir != nullptr) closedir(dir);
  return out;
}

// Lost bytes of the last seconds: the loss file shows them, the control service hears of them once
// per cycle, and nothing the module opens is inherited by child programs.
TEST_F(CommandWalk, PacketLossReachesTheFileAndTheControlService) {
  const std::vector<std::string> before = inheritable_fds();
  audio_loss_info_reset();
  ASSERT_EQ(set_audio_loss_info(1, 1408), 0);
  EXPECT_EQ(check_drop_status() + report_audio_drop_msg(get_audio_drop_event().c_str()), 2);
  const std::string none = "{\"bytesDropIn10\":0,\"bytesDropTotal\":0}";
  EXPECT_EQ(am_test::read_file(root.at(AUDIO_LOSS_FILE)), "{\"audioDropInfo\":{\"stream0\":" + none +
            ",\"stream1\":{\"bytesDropIn10\":1408,\"bytesDropTotal\":1408},\"stream2\":" + none + "}}");
  const Bytes d = next(kReportPort);
  ASSERT_GT(d.size(), 16u);
  EXPECT_EQ(Bytes(d.begin() + 8, d.begin() + 12), le32(AUDIO_LOSS_EVENT_TYPE));
  EXPECT_NE(std::string(d.begin() + 16, d.end()).find("\"requestUrl\":\"/api/v1/details/audio/pktDrop\""), std::string::npos);
  EXPECT_EQ(inheritable_fds(), before);
  audio_loss_info_reset();
  EXPECT_EQ(check_drop_status() + report_audio_drop_msg(""), 0);  // nothing lost: the file stays, nothing sent
  EXPECT_TRUE(quiet(kReportPort));
}

}  // namespace
}  // namespace am_unit
