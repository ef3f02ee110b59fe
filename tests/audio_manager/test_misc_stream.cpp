// Network stream endpoints: group derivation from the peer MAC and the output requests.
#include "am_unit.h"
#include "qb_audio_misc_stream.h"

namespace am_unit {
namespace {

qb_audio_output_stream_t out_req(int sid, int src, const char* mac) {
  qb_audio_output_stream_t r{};
  r.streamID = sid, r.source = src;
  std::memcpy(r.vaxoMac, mac, std::min(std::strlen(mac), sizeof r.vaxoMac));
  return r;
}

using Stream = RoutingTest;

TEST_F(Stream, RequestsSetTheGroupsAndTheOutputSelection) {
  start(3);
  clear_aborts();
  qb_audio_input_stream_t r{};
  r.subscriptionID = 1;
  std::memcpy(r.deviceID, "0011223F0000", 12);
  EXPECT_EQ(qb_audio_stream_input_from_net_set(&r), 1);
  qb_misc_net_stream_in5_ipaddr_set(nullptr), qb_misc_net_stream_ipaddr_copy(nullptr);  // no address: the group stays
  EXPECT_STREQ(qb_misc_net_stream_in5_ipaddr_get(), "234.63.0.0");
  r.subscriptionID = 3;
  EXPECT_EQ(qb_audio_stream_input_from_net_set(&r) + qb_audio_stream_input_from_net_set(nullptr), 0);
  const qb_audio_output_stream_t o = out_req(1, 1, "001122334455");
  EXPECT_EQ(qb_audio_stream_output_to_net_set(&o) + qb_audio_stream_output_to_net_set(nullptr), 1);
  net_stream_ipaddr_t ip;
  qb_misc_net_stream_ipaddr_copy(&ip);
  EXPECT_EQ(std::string(qb_misc_net_stream_out5_ipaddr_get()) + " " + ip.sai5_out_deviceid, "234.51.68.85 001122334455");
  // Board 3, HDMI on stream 1: route 0x15 <- 3 first, capture 5 restarted.
  EXPECT_EQ(bus.writes(kBus, kFpga)[0], (std::pair<uint16_t, uint8_t>{0x15, 3}));
  EXPECT_EQ(capture_abort(2) + qb_net_second_stream_select_get(), 2);
  // The group from the MAC, in either case.
  for (const auto& a : {out_req(0, 0, "a1b2c3d4e5f6"), out_req(2, 0, "A1B2C3D4E5F6")}) qb_misc_net_stream_out_ipaddr_set(&a);
  EXPECT_EQ(std::string(qb_misc_net_stream_out1_ipaddr_get()) + " " + qb_misc_net_stream_out3_ipaddr_get(), "234.52.229.246 234.52.229.246");
  EXPECT_EQ(qb_misc_net_stream_out_ipaddr_set(nullptr), 0);
}

}  // namespace
}  // namespace am_unit
