// Network stream endpoints: group derivation, requests, output starts, the network player and the
// selection words.
#include "am_unit.h"
#include "qb_audio_misc_spdif.h"
#include "qb_audio_misc_stream.h"

namespace am_unit {
namespace {

using Seq = std::vector<std::string>;

qb_audio_output_stream_t out_req(int sid, int src, const char* mac) {
  qb_audio_output_stream_t r;
  std::memset(&r, 0, sizeof r);
  r.streamID = sid;
  r.source = src;
  std::memcpy(r.vaxoMac, mac, std::min(std::strlen(mac), sizeof r.vaxoMac));
  return r;
}

qb_audio_input_stream_t in_req(int sub, const char* dev) {
  qb_audio_input_stream_t r;
  std::memset(&r, 0, sizeof r);
  r.subscriptionID = sub;
  std::memcpy(r.deviceID, dev, std::min(std::strlen(dev), sizeof r.deviceID));
  return r;
}

class Stream : public RoutingTest {
 protected:
  void SetUp() override {
    start(3);
    clear_aborts();
  }
};

TEST_F(Stream, OutputRequestDerivesGroupAndSelects) {
  const qb_audio_output_stream_t r = out_req(1, 1, "001122334455");
  EXPECT_EQ(qb_audio_stream_output_to_net_set(&r), 1);
  EXPECT_STREQ(qb_misc_net_stream_out5_ipaddr_get(), "234.51.68.85");
  EXPECT_STREQ(qb_misc_net_stream_out5_deviceid_get(), "001122334455");
  EXPECT_EQ(qb_net_second_stream_select_get(), 1);
  // Board 3, HDMI on stream 1: route 0x15 <- 3 first, capture 5 restarted.
  EXPECT_EQ(bus.writes(kBus, kFpga)[0], (std::pair<uint16_t, uint8_t>{0x15, 3}));
  EXPECT_EQ(capture_abort(2), 1);

  // The documented group example, in either case, and a 16-character MAC without terminator.
  qb_audio_output_stream_t a = out_req(0, 0, "a1b2c3d4e5f6");
  qb_misc_net_stream_out_ipaddr_set(&a);
  EXPECT_STREQ(qb_misc_net_stream_out1_ipaddr_get(), "234.52.229.246");
  a = out_req(2, 0, "A1B2C3D4E5F6");
  qb_misc_net_stream_out_ipaddr_set(&a);
  EXPECT_STREQ(qb_misc_net_stream_out3_ipaddr_get(), "234.52.229.246");
  std::memset(a.vaxoMac, 'f', sizeof a.vaxoMac);
  qb_misc_net_stream_out_ipaddr_set(&a);
  EXPECT_STREQ(qb_misc_net_stream_out3_ipaddr_get(), "234.63.255.255");
  EXPECT_STREQ(qb_misc_net_stream_out3_deviceid_get(), "fffffffffffffff");  // 15 characters
  // An empty MAC clears the address and keeps the device id.
  a = out_req(2, 0, "");
  qb_misc_net_stream_out_ipaddr_set(&a);
  EXPECT_STREQ(qb_misc_net_stream_out3_ipaddr_get(), "");
  EXPECT_STREQ(qb_misc_net_stream_out3_deviceid_get(), "fffffffffffffff");
  EXPECT_EQ(qb_misc_net_stream_out_ipaddr_set(nullptr), 0);
}

TEST_F(Stream, RefusedRequestsStillUpdateTheAddress) {
  for (int src : {4, 5, 7}) {
    const qb_audio_output_stream_t r = out_req(0, src, "00112233AABB");
    EXPECT_EQ(qb_audio_stream_output_to_net_set(&r), 0) << src;
  }
  EXPECT_STREQ(qb_misc_net_stream_out1_ipaddr_get(), "234.51.170.187");
  EXPECT_EQ(qb_net_first_stream_select_get(), 1);
  const qb_audio_output_stream_t bad = out_req(3, 0, "00112233AABB");
  EXPECT_EQ(qb_audio_stream_output_to_net_set(&bad), 0);
  EXPECT_EQ(qb_audio_stream_output_to_net_set(nullptr), 0);
  EXPECT_EQ(bus.records().size(), 0u);
  EXPECT_EQ(capture_abort(0) + capture_abort(1) + capture_abort(2), 0);
}

TEST_F(Stream, InputRequests) {
  struct Case { int sub; const char* dev; char* (*addr)(void); const char* expect; };
  const Case cases[] = {{0, "001122300000", qb_misc_net_stream_in1_ipaddr_get, ""},
                        {1, "0011223F0000", qb_misc_net_stream_in5_ipaddr_get, "234.63.0.0"},
                        {2, "a1b2c3d4e5f6", qb_misc_net_stream_in3_ipaddr_get, "234.52.229.246"}};
  for (const Case& c : cases) {
    const qb_audio_input_stream_t r = in_req(c.sub, c.dev);
    EXPECT_EQ(qb_audio_stream_input_from_net_set(&r), 1) << c.sub;
    EXPECT_STREQ(c.addr(), c.expect) << c.sub;
  }
  EXPECT_STREQ(qb_misc_net_stream_in1_deviceid_get(), "001122300000");
  const qb_audio_input_stream_t r = in_req(3, "a1b2c3d4e5f6");
  EXPECT_EQ(qb_audio_stream_input_from_net_set(&r), 0);
  EXPECT_STREQ(qb_misc_net_stream_in1_ipaddr_get(), "");
  EXPECT_STREQ(qb_misc_net_stream_in5_ipaddr_get(), "234.63.0.0");
  EXPECT_EQ(qb_audio_stream_input_from_net_set(nullptr), 0);
}

TEST(StreamHelpers, MacTextAddressFormattingAndMaps) {
  qb_u8_t hex[6] = {};
  EXPECT_EQ(macaddr_str2hex("0aF9zz10Ab", hex), 1);  // short text: the rest counts as 0
  const qb_u8_t expect[6] = {0x0A, 0xF9, 0x00, 0x10, 0xAB, 0x00};
  EXPECT_EQ(std::memcmp(hex, expect, 6), 0);
  EXPECT_EQ(macaddr_str2hex(nullptr, hex), 0);
  char buf[32];
  audio_ipaddr_create(234, 48, 0, 0, buf, sizeof buf);
  EXPECT_STREQ(buf, "");
  audio_ipaddr_create(234, 48, 0, 1, buf, sizeof buf);
  EXPECT_STREQ(buf, "234.48.0.1");
  audio_ipaddr_create(234, 63, 255, 255, buf, 8);
  EXPECT_STREQ(buf, "234.63.");

  const int sel[][2] = {{1, 0}, {2, 3}, {3, 1}, {4, 6}, {5, 2}, {6, -1}, {0, -1}};
  for (const auto& c : sel) EXPECT_EQ(qb_audio_channel_state_id_switch_netstreamsel(c[0]), c[1]);
  const int chn[][2] = {{0, 1}, {1, 3}, {2, 5}, {3, 2}, {4, 5}, {-1, 5}};
  for (const auto& c : chn) EXPECT_EQ(qb_audio_netstreamsel_switch_channel_state_id(c[0]), c[1]);
  const int ids[][2] = {{1, 2}, {2, 1}, {3, 3}, {4, 8}, {5, 9}, {6, 4}, {7, 5}, {8, 6}, {9, 0}, {13, 0}, {0, 0}};
  for (const auto& c : ids) EXPECT_EQ(qb_audio_channel_state_id_switch(c[0]), c[1]);
}

TEST_F(Stream, Out1AndOut3StartRouteAndCopyRestartsRestart) {
  const qb_audio_info rec = make_record(10, 2, 0x80);
  qb_audio_channel_state_set(1, &rec);
  bus.clear_records();
  EXPECT_EQ(qb_audio_net_stream_out1_start(1), 1);
  EXPECT_EQ(qb_audio_net_stream_out3_start(3), 1);
  EXPECT_EQ(transfers(bus), (Seq{"W 13=02", "R 13", "W 14=03", "R 14"}));
  EXPECT_EQ(std::memcmp(qb_audio_channel_state_get(10), &rec, sizeof rec), 0);
  EXPECT_EQ(capture_abort(0) + capture_abort(1), 0);  // starts do not restart
  EXPECT_EQ(qb_audio_net_stream_out1_restart(1), 1);
  EXPECT_EQ(capture_abort(0), 1);
  EXPECT_EQ(qb_audio_net_stream_out3_restart(1), 1);
  EXPECT_EQ(capture_abort(1), 1);
  EXPECT_EQ(std::memcmp(qb_audio_channel_state_get(11), &rec, sizeof rec), 0);
}

TEST_F(Stream, Out5StartBySourceChannel) {
  qb_audio_info zero;
  std::memset(&zero, 0, sizeof zero);  // the receiver's record without a mapping
  // S/PDIF input: S/PDIF-type source, all enable bits, the receiver's record.
  EXPECT_EQ(qb_audio_net_stream_out5_start(5), 1);
  EXPECT_EQ(transfers(bus), (Seq{"W 15=09", "R 15", "W 19=02", "R 19", "W 53=ff", "R 53"}));
  EXPECT_EQ(is_qb_net_second_stream_select_spdif(), 1);
  EXPECT_EQ(std::memcmp(qb_audio_channel_state_get(12), &zero, sizeof zero), 0);
  EXPECT_EQ(capture_abort(2), 1);

  // eARC without S/PDIF framing: 0x19 untouched, channel 2 copied.
  qb_audio_info earc = make_record(14, 8, 0x80);
  qb_audio_channel_state_set(2, &earc);
  bus.clear_records();
  EXPECT_EQ(qb_audio_net_stream_out5_start(2), 1);
  EXPECT_EQ(transfers(bus), (Seq{"W 15=01", "R 15"}));
  EXPECT_EQ(std::memcmp(qb_audio_channel_state_get(12), &earc, sizeof earc), 0);
  EXPECT_EQ(is_qb_net_second_stream_select_spdif(), 0);
  EXPECT_EQ(qb_misc_net_stream_arc_flag_get(), 0);

  // ARC: S/PDIF-framed, the receiver's record goes to channel 12.
  earc.bSPDIF = 1;
  qb_audio_channel_state_set(2, &earc);
  qb_net_second_stream_select_set(3);
  bus.clear_records();
  EXPECT_EQ(qb_audio_net_stream_out5_start(2), 1);
  EXPECT_EQ(transfers(bus), (Seq{"W 15=01", "R 15", "W 19=01", "R 19", "W 53=ff", "R 53"}));
  EXPECT_EQ(is_qb_net_second_stream_select_arc(), 1);
  EXPECT_EQ(std::memcmp(qb_audio_channel_state_get(12), &zero, sizeof zero), 0);

  // Any other channel clears both flags and copies its own record.
  EXPECT_EQ(qb_audio_net_stream_out5_start(1), 1);
  EXPECT_EQ(is_qb_net_second_stream_select_arc(), 0);
  EXPECT_EQ(std::memcmp(qb_audio_channel_state_get(12), qb_audio_channel_state_get(1), sizeof zero), 0);
}

TEST_F(Stream, SelectionPredicatesAndWords) {
  qb_net_first_stream_select_set(2);
  qb_net_second_stream_select_set(3);
  qb_net_third_stream_select_set(3);
  EXPECT_EQ(is_qb_net_first_stream_select_spdif(), 1);
  EXPECT_EQ(is_qb_net_third_stream_select_arc(), 1);
  EXPECT_EQ(is_qb_net_second_stream_select_arc(), 0);  // arc flag not set
  EXPECT_EQ(audio_hdmi_streamout(), 0);
  qb_net_second_stream_select_set(1);
  EXPECT_EQ(audio_hdmi_streamout(), 1);
  qb_net_first_stream_select_set(3);
  EXPECT_EQ(is_qb_net_first_stream_select_arc(), 1);
  EXPECT_EQ(is_qb_net_third_stream_select_spdif(), 0);
  qb_msic_net_spdif_out_src_set(1);
  qb_misc_audio_streamId_set(2);
  qb_net_stream_select_set(7);
  EXPECT_EQ(qb_msic_net_spdif_out_src_get() * 100 + qb_misc_audio_streamId_get() * 10 +
                qb_net_stream_select_get(),
            127);
}

TEST_F(Stream, AddressSettersKeepTheLastByte) {
  qb_misc_net_stream_in3_ipaddr_set(std::string(40, '1').c_str());
  EXPECT_EQ(std::string(qb_misc_net_stream_in3_ipaddr_get()), std::string(31, '1'));
  qb_misc_net_stream_in5_ipaddr_set2("234.50.1.2", "0123456789abcdefXYZ");
  EXPECT_STREQ(qb_misc_net_stream_in5_deviceid_get(), "0123456789abcde");
  qb_misc_net_stream_out5_ipaddr_set("234.50.1.3", "dev");
  EXPECT_STREQ(qb_misc_net_stream_out5_ipaddr_get(), "234.50.1.3");
  EXPECT_EQ(qb_audio_net_stream_ipaddr_set(nullptr), 0);
  int any = 0;
  EXPECT_EQ(qb_audio_net_stream_ipaddr_set(&any), 1);
  for (char* (*get)(void) : {qb_misc_net_stream_in1_ipaddr_get, qb_misc_net_stream_in3_ipaddr_get,
                              qb_misc_net_stream_in5_ipaddr_get}) {
    EXPECT_STREQ(get(), "225.0.0.1");
  }
  EXPECT_STREQ(qb_misc_net_stream_in5_deviceid_get(), "0123456789abcde");
}

TEST_F(Stream, NetworkPlayerCommand) {
  ASSERT_TRUE(root.write("/customer/bin/myaplay",
                         "#!/bin/sh\necho \"$@\" > " + root.at("/tmp/myaplay.args") + "\n"));
  chmod(root.at("/customer/bin/myaplay").c_str(), 0755);
  qb_misc_net_stream_in3_ipaddr_set("234.50.1.2");
  qb_audio_info rec = make_record(10, 6, 0x80);
  qb_audio_channel_state_set(7, &rec);
  EXPECT_EQ(qb_audio_net_stream_in3_start(), 1);
  const std::string args = "-Dhw:2,0 -r 96000 -f S24_LE -c 6 --addr 234.50.1.2 --port 59301 --group";
  EXPECT_TRUE(am_test::wait_for(
      [&] { return !am_test::read_file(root.at("/tmp/myaplay.args")).empty(); }, 10000));
  EXPECT_EQ(am_test::read_file(root.at("/tmp/myaplay.args")), args + "\n");

  // Records the player cannot take are refused before any command.
  EXPECT_EQ(qb_audio_net_stream_in_start(6, 1, 59300, nullptr), 0);
  rec = make_record(2, 3, 0x80);  // 3 channels
  qb_audio_channel_state_set(6, &rec);
  EXPECT_EQ(qb_audio_net_stream_in1_start(), 0);
  rec = make_record(3, 2, 0x80);  // 32 kHz
  qb_audio_channel_state_set(8, &rec);
  EXPECT_EQ(qb_audio_net_stream_in5_start(), 0);
  EXPECT_EQ(qb_audio_pkill_all_myarecord(), 1);
}

}  // namespace
}  // namespace am_unit
