// amctl sends exactly the command datagrams of the control protocol: every sub-command, checked
// byte for byte by a receiver on a loopback port against the message and record layouts.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "am_test_env.h"
#include "qb_audio_parse.h"
#include "test_amctl_support.h"

namespace {

using amctl_test::Bytes;
using amctl_test::command_message;
using amctl_test::run_amctl;

constexpr uint16_t kGet = 1;
constexpr uint16_t kSet = 2;
constexpr uint16_t kNotify = 3;

struct DatagramCase {
  const char* name;
  std::vector<std::string> words;
  uint16_t id;
  uint16_t op;
  std::vector<uint8_t> payload;
};

// The parameter prints as its name (short test listings).
void PrintTo(const DatagramCase& c, std::ostream* os) { *os << c.name; }

// A 20-byte format record: on, code, channels, size, io_in_use 2, three carried zeros, type,
// S/PDIF flag, then InfoFrame bytes and channel-status bytes.
std::vector<uint8_t> channel_info(uint32_t ch, uint8_t on, uint8_t code, uint8_t channels,
                                  uint8_t size, uint8_t type, uint8_t spdif,
                                  std::initializer_list<uint8_t> aud_db,
                                  std::initializer_list<uint8_t> ch_stat) {
  Bytes b;
  b.u32(ch).raw({on, code, channels, size, 2, 0, 0, 0, type, spdif}).raw(aud_db).raw(ch_stat);
  return b.get();
}

std::vector<DatagramCase> datagram_cases() {
  return {
      // Command 1: the MAC as twelve lower-case hex digits and a NUL; the get form is empty.
      {"src_mac", {"src-mac", "00:11:22:3F:44:55"}, 1, kSet, Bytes().text("0011223f4455", 13).get()},
      {"src_mac_plain", {"src-mac", "a1b2c3d4e5f6"}, 1, kSet, Bytes().text("a1b2c3d4e5f6", 13).get()},
      {"src_mac_get", {"src-mac", "--get"}, 1, kGet, {}},
      // Command 14: vrms.
      {"input_level", {"input-level", "2"}, 14, kSet, Bytes().u32(2).get()},
      // Command 2: ch, enable, mute.
      {"mute_analog_on", {"mute", "analog", "on"}, 2, kSet, Bytes().u32(0).u32(1).u32(1).get()},
      {"mute_dsp_off_enable0", {"mute", "dsp", "off", "--enable", "0"}, 2, kSet,
       Bytes().u32(5).u32(0).u32(0).get()},
      {"mute_get", {"mute", "--get", "hdmi"}, 2, kGet, Bytes().u32(1).u32(0).u32(0).get()},
      // Command 3: ch, time.
      {"latency_hdmi", {"latency", "hdmi", "0x1234"}, 3, kSet, Bytes().u32(1).u32(0x1234).get()},
      {"latency_earc", {"latency", "3", "100"}, 3, kSet, Bytes().u32(3).u32(100).get()},
      // Command 4: ch, src.
      {"output_src", {"output-src", "analog", "stream"}, 4, kSet, Bytes().u32(0).u32(4).get()},
      {"output_src_downmix", {"output-src", "spdif", "hdmiDownmix"}, 4, kSet, Bytes().u32(2).u32(6).get()},
      {"output_src_get", {"output-src", "--get", "earc", "hdmi"}, 4, kGet, Bytes().u32(3).u32(1).get()},
      // Command 5: ch, mode.
      {"downmix", {"downmix", "spdif", "7"}, 5, kSet, Bytes().u32(2).u32(7).get()},
      // Commands 6 and 7: one word.
      {"volume", {"volume", "30"}, 6, kSet, Bytes().u32(30).get()},
      {"volume_get", {"volume", "--get"}, 6, kGet, Bytes().u32(0).get()},
      {"output_vrms", {"output-vrms", "2"}, 7, kSet, Bytes().u32(2).get()},
      // Command 8 (notify): channel id, then the 20-byte record.
      {"channel_info_default", {"channel-info", "analog"}, 8, kNotify,
       channel_info(1, 1, 2, 2, 24, 0x80, 0, {1, 0, 0, 0, 0}, {0, 0, 2, 2, 0x0B})},
      {"channel_info_format", {"channel-info", "nsi3", "--rate", "44100", "--channels", "8", "--size", "16"},
       8, kNotify, channel_info(7, 1, 0, 8, 16, 0x80, 0, {7, 0, 0, 0, 0}, {0, 0, 2, 0, 0x02})},
      {"channel_info_nlpcm", {"channel-info", "hdmi", "--type", "nlpcm", "--rate", "192000", "--spdif"},
       8, kNotify, channel_info(3, 1, 14, 2, 24, 0x90, 1, {1, 0, 0, 0, 0}, {2, 1, 2, 14, 0x0B})},
      {"channel_info_bytes",
       {"channel-info", "4", "--off", "--aud-db", "0x11,2,3,4,5", "--ch-stat", "6,7,8,9,0xff"}, 8,
       kNotify, channel_info(4, 0, 2, 2, 24, 0x80, 0, {0x11, 2, 3, 4, 5}, {6, 7, 8, 9, 0xFF})},
      // Command 9: ch, sid, fallback sid (none = -1).
      {"stream_in", {"stream-in", "analog", "0"}, 9, kSet, Bytes().u32(0).u32(0).u32(0xFFFFFFFF).get()},
      {"stream_in_fallback", {"stream-in", "hdmi", "2", "1"}, 9, kSet, Bytes().u32(1).u32(2).u32(1).get()},
      // Command 10: deviceID (16 characters), streamID, subscriptionID.
      {"from_net", {"from-net", "02:00:00:00:00:01", "1"}, 10, kSet,
       Bytes().text("020000000001", 16).u32(0).u32(1).get()},
      {"from_net_stream_id", {"from-net", "0011223F0000", "2", "--stream-id", "-3"}, 10, kSet,
       Bytes().text("0011223f0000", 16).u32(0xFFFFFFFD).u32(2).get()},
      // Command 11: streamID, source, vaxoMac (16 characters, empty when not given).
      {"to_net", {"to-net", "0", "analog", "02-00-00-00-00-01"}, 11, kSet,
       Bytes().u32(0).u32(0).text("020000000001", 16).get()},
      {"to_net_no_mac", {"to-net", "1", "earc"}, 11, kSet, Bytes().u32(1).u32(3).text("", 16).get()},
      // Command 12: the 32-bit address.
      {"cec_dotted", {"cec-addr", "1.2.0.0"}, 12, kSet, Bytes().u32(0x1200).get()},
      {"cec_number", {"cec-addr", "0x3000"}, 12, kSet, Bytes().u32(0x3000).get()},
      // Commands 13 and 15: one signed word.
      {"it6621_mode", {"it6621-mode", "2"}, 13, kSet, Bytes().u32(2).get()},
      {"monitor", {"monitor", "disconnected"}, 15, kSet, Bytes().u32(0).get()},
      // Command 16: the record of command 9, sid unused.
      {"fallback", {"fallback", "earc", "2"}, 16, kSet, Bytes().u32(3).u32(0).u32(2).get()},
      {"fallback_none", {"fallback", "spdif", "none"}, 16, kSet, Bytes().u32(2).u32(0).u32(0xFFFFFFFF).get()},
      // Command 17 (get): chs, all ports by default.
      {"details", {"details"}, 17, kGet, Bytes().u32(46).get()},
      {"details_mask", {"details", "0xFFFF"}, 17, kGet, Bytes().u32(0xFFFF).get()},
      // Command 18: ch, enable, onlyArc.
      {"earc_enable", {"earc-enable", "earc", "on", "--only-arc"}, 18, kSet, Bytes().u32(3).u32(1).u32(1).get()},
      {"earc_disable", {"earc-enable", "earc", "off"}, 18, kSet, Bytes().u32(3).u32(0).u32(0).get()},
      // Command 19: onlyArc.
      {"earc_onlyarc", {"earc-onlyarc", "on"}, 19, kSet, Bytes().u32(1).get()},
  };
}

class AmctlDatagram : public testing::TestWithParam<DatagramCase> {};

TEST_P(AmctlDatagram, SendsTheMessageLayout) {
  const DatagramCase& c = GetParam();
  am_test::UdpReceiver receiver(0);
  ASSERT_TRUE(receiver.ok());
  std::vector<std::string> words = {"--port", std::to_string(amctl_test::bound_port(receiver.fd()))};
  words.insert(words.end(), c.words.begin(), c.words.end());
  const amctl_test::Run r = run_amctl(words);
  ASSERT_EQ(r.status, AMCTL_EXIT_OK) << r.err;
  EXPECT_EQ(r.err, "");
  std::vector<uint8_t> got;
  ASSERT_TRUE(receiver.receive(&got, 2000));
  EXPECT_EQ(amctl_hex(got.data(), static_cast<int>(got.size())),
            amctl_hex(command_message(c.id, c.op, c.payload).data(),
                      static_cast<int>(command_message(c.id, c.op, c.payload).size())));
  EXPECT_FALSE(receiver.receive(&got, 50)) << "one datagram per command";
}

INSTANTIATE_TEST_SUITE_P(EveryCommand, AmctlDatagram, testing::ValuesIn(datagram_cases()),
                         [](const testing::TestParamInfo<DatagramCase>& i) { return i.param.name; });

// Every row of the daemon's dispatch table has a sub-command that reaches it.
TEST(AmctlDatagram, EveryTableRowHasASubCommand) {
  std::vector<bool> covered(QB_AUDIO_CMD_MAX, false);
  for (const DatagramCase& c : datagram_cases()) covered[c.id] = true;
  const qb_audio_cmd_operation_t* table = qb_audio_cmd_table_get();
  for (int row = 0; table[row].id != 0; ++row) {
    EXPECT_TRUE(covered[table[row].id]) << "command " << table[row].id;
  }
}

// The example of the protocol: a mute set is 02 00 00 00 | 14 00 00 00 | 02 00 02 00 | 0C 00 00 00.
TEST(AmctlDatagram, DryRunPrintsTheBytesAndSendsNothing) {
  am_test::UdpReceiver receiver(0);
  ASSERT_TRUE(receiver.ok());
  const amctl_test::Run r = run_amctl({"--port", std::to_string(amctl_test::bound_port(receiver.fd())),
                                       "--dry-run", "mute", "analog", "off"});
  EXPECT_EQ(r.status, AMCTL_EXIT_OK);
  EXPECT_EQ(r.out,
            "02 00 00 00 14 00 00 00 02 00 02 00 0C 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00\n");
  std::vector<uint8_t> got;
  EXPECT_FALSE(receiver.receive(&got, 100));
}

TEST(AmctlDatagram, VerbosePrintsAndSends) {
  am_test::UdpReceiver receiver(0);
  ASSERT_TRUE(receiver.ok());
  const int port = amctl_test::bound_port(receiver.fd());
  const amctl_test::Run r = run_amctl({"-v", "volume", "7", "--port", std::to_string(port)});
  EXPECT_EQ(r.status, AMCTL_EXIT_OK);
  EXPECT_EQ(r.out, "02 00 00 00 0C 00 00 00 02 00 06 00 04 00 00 00 07 00 00 00\nsent 20 bytes to 127.0.0.1:" +
                       std::to_string(port) + "\n");
  std::vector<uint8_t> got;
  EXPECT_TRUE(receiver.receive(&got, 2000));
}

}  // namespace
