// Saved audio records (raw bytes, no header), the MAC text of "eth0" and which mix types a sink's
// audio list takes.
#include <sys/stat.h>

#include "am_unit.h"
#include "diff_time.h"
#include "qb_audio_debug.h"
#include "qb_audio_buf.h"
#include "qb_audio_misc_private.h"
#include "qb_audio_misc_stream.h"
#include "qb_audio_misc_util.h"
#include "qb_audio_oper_format.h"
#include "qb_audio_oper_packet.h"
#include "qb_audio_parse.h"
#include "qb_audio_stream.h"

namespace am_unit {
namespace {

TEST(AudioInfoFile, RoundTripShortReadAndRefusals) {
  am_test::TempRoot root({"tmp"});
  const qb_audio_info recs[2] = {make_record(14, 8, 0xC0, 1), make_record(2, 2, 0x80)};
  qb_audio_info back[2] = {};
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", &recs[0], 0) + audio_info_to_flash("/tmp/ainfo.bin", nullptr, 20) + audio_info_to_flash(nullptr, &recs[0], 20) +
                access(root.at("/tmp/ainfo.bin").c_str(), F_OK) + audio_info_to_flash("/tmp/ainfo.bin", recs, 40), 36);  // no file until then
  EXPECT_EQ(audio_info_to_flash("/tmp/ainfo.bin", &recs[1], 20), 20);  // truncates
  EXPECT_EQ(audio_info_from_flash("/tmp/ainfo.bin", back, 40), 20);
  EXPECT_TRUE(same(back[0], recs[1]));
  EXPECT_EQ(audio_info_from_flash("/tmp/ainfo.bin", back, -1) + audio_info_from_flash("/tmp/missing.bin", back, 20) +
                audio_info_to_flash("/nodir/x.bin", back, 20), -3);
}

// get_mac in a named namespace the test thread joins, with and without an "eth0".
TEST(MacIdentity, Eth0OfTheNamespaceAndNone) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces";
  am_test::NetNs ns;
  ASSERT_TRUE(ns.ok());
  const int home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC), there = open(("/run/netns/" + ns.name()).c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(setns(there, CLONE_NEWNET), 0);
  char buf[13] = "unchanged";
  const int without = get_mac(buf, sizeof buf);
  am_test::shell("ip -n " + ns.name() + " link add eth0 address 02:1a:2b:3c:4d:5e type veth peer name eth1");
  char full[13], part[7];
  const std::vector<int> got = {without, get_mac(full, sizeof full), get_mac(part, sizeof part), get_mac(nullptr, 4)};
  setns(home, CLONE_NEWNET), close(home), close(there);
  EXPECT_EQ(got, (std::vector<int>{-1, 12, 12, -1}));
  EXPECT_EQ(std::string(buf) + " " + full + " " + part, "unchanged 021a2b3c4d5e 021a2b");
}

// A sink listing one format takes mix types 0-10 as shown: the other Dolby types only exactly,
// the DTS family up to the listed one.
TEST(SinkCapabilities, MixTypesTakenPerListedFormat) {
  const std::tuple<const char*, E_Audio_Format, uint8_t, const char*> rows[] = {
      {"aac", ENUM_AAC, 0, "01000000000"}, {"ac-3", ENUM_AC3, 0, "00100000000"}, {"dd+", ENUM_DDP, 0, "00010000000"},
      {"mat", ENUM_MAT, 0, "00001000000"}, {"dts", ENUM_DTS, 0, "00000100000"}, {"dts-hd", ENUM_DTS_HD, 0, "00000110000"},
      {"dts-hd ma", ENUM_DTS_HD, 1, "00000111000"}, {"dts:x", ENUM_DTS_HD, 2, "00000111100"},
      {"dts:x imax", ENUM_DTS_HD, 6, "00000111110"}, {"lpcm", ENUM_LPCM, 0, "00000000000"}};
  for (const auto& [name, format, flag, expected] : rows) {
    T_Edid_Audio_Info_ list{};
    list.u8AudioInfoNum = 1, list.ptAudioInfo[0].eAudioFomat = format, list.ptAudioInfo[0].u8BitFlag = flag;
    std::string got;
    for (int wanted = 0; wanted <= 10; ++wanted) got += static_cast<char>('0' + aud_support(wanted, &list));
    EXPECT_EQ(got, expected) << name;
  }
  EXPECT_EQ(aud_support(2, nullptr), 0);
}

TEST(DiffTime, IntervalTextOfAFullTrace) {
  set_diff_time(3, DIFF_TM_START, "s");
  for (int i = 0; i < 2 * DIFF_TM_ELEM_MAX; ++i) set_diff_time(3, DIFF_TM_POINT, "p");  // kept up to the limit
  const std::string text = get_diff_time(3);
  EXPECT_EQ(am_test::count(text, "-"), DIFF_TM_ELEM_MAX - 1);
  EXPECT_EQ(text.front() + std::string() + text.back(), "[]");
  set_diff_time(DIFF_TM_TRACE_NUM, DIFF_TM_START, "none");
  EXPECT_EQ(get_diff_time(DIFF_TM_TRACE_NUM), "");
}

TEST(PacketRing, HandOutAndReleaseRefusals) {
  CAudioBuf ring(8, 2);
  EXPECT_EQ(ring.get_buf_data(), nullptr);  // empty
  EXPECT_EQ(ring.push_data("abc", 3) + ring.push_data(nullptr, 3) + ring.push_data("123456789", 9), -1);
  AUD_BUF_T* slot = ring.get_buf_data();
  ASSERT_NE(slot, nullptr);
  EXPECT_EQ(ring.get_buf_data(), nullptr);  // already handed out
  AUD_BUF_T other{};
  EXPECT_EQ(ring.push_buf_free(&other) + ring.push_buf_free(nullptr) + ring.reset_buf_status(nullptr), -3);
  EXPECT_EQ(ring.reset_buf_status(slot), 0);
  EXPECT_EQ(ring.get_buf_data(), slot);
}

// Channels outside the table are refused by every access; records of every type are kept whole.
using ChannelTable = RoutingTest;
TEST_F(ChannelTable, OutOfTableChannelsAndEveryRecordType) {
  qb_audio_info r = make_record(2, 2, QB_AUDIO_TYPE_HBR);
  int n = 0;
  for (int ch : {-1, 0, QB_AUDIO_CHN_MAX + 1}) {
    EXPECT_EQ(qb_audio_channel_state_get(ch), nullptr) << ch;
    EXPECT_EQ(qb_audio_channel_state_set(ch, &r) + qb_audio_channel_state_copy(ch, &r) + qb_audio_channel_state_copy_chn(ch, 1) +
                  qb_audio_channel_state_copy_chn(1, ch) + qb_audio_channel_state_store(ch, &r) +
                  qb_audio_channel_state_byte_set(ch, QB_AUDIO_INFO_AUDIO_ON, 0) + get_sample_frequency(ch, 1) +
                  qb_audio_channel_state_validch_get(ch, &n) + qb_audio_channel_state_samplefreq_get(ch, &n) +
                  is_qb_audio_output_mute_from_ch(ch), 0) << ch;
  }
  EXPECT_EQ(qb_audio_channel_state_store(1, nullptr) + get_sample_frequency(QB_AUDIO_CHN_SPDIF, 99) +
                qb_audio_channel_state_validch_get(1, nullptr) + qb_audio_channel_state_samplefreq_get(1, nullptr) +
                qb_audio_channel_state_compare(nullptr, &r), 0);
  EXPECT_EQ(qb_audio_channel_state_set(1, nullptr) + qb_audio_channel_state_copy(1, nullptr) + qb_audio_channel_state_compare(&r, nullptr) +
                qb_audio_channel_state_byte_set(1, static_cast<qb_audio_info_byte_e>(2), 0) + qb_misc_audio_status_valid_get(99), 0);
  for (int type : {0xC0, 0xA0, 0x90, 0x55}) {  // HBR, DSD, NLPCM, unknown: kept whole, not played on the analog output
    r = make_record(2, 2, type);
    EXPECT_EQ(qb_audio_channel_state_set(QB_AUDIO_CHN_SPDIF, &r) + same(record(QB_AUDIO_CHN_SPDIF), r) + is_qb_audio_output_mute(&r), 3) << type;
  }
  r = make_record(2, 8, QB_AUDIO_TYPE_LPCM);
  EXPECT_EQ(is_qb_audio_output_mute(&r), 1);  // more than two channels
  EXPECT_EQ(qb_audio_channel_state_set(QB_AUDIO_CHN_VIDEO, &r) + audio_hdmi_audio_on(), 2);  // the HDMI input plays
  EXPECT_EQ(qb_audio_channel_state_byte_set(QB_AUDIO_CHN_VIDEO, QB_AUDIO_INFO_AUDIO_ON, 0) + audio_hdmi_audio_on(), 1);
  EXPECT_EQ(record(QB_AUDIO_CHN_VIDEO).Audio_On, 0);
}

// The status dump's refusals: no file, no bus, no value pointer; a register without a sink and a
// source without a name are shown as unknown; a dump file that cannot be opened is skipped.
TEST(DebugDump, RefusalsAndUnknownNames) {
  am_test::TempRoot root;  // neither a bus nor a /tmp
  char text[128] = {};
  FILE* file = fmemopen(text, sizeof text, "w");
  dump_detail_info(nullptr, FPGA_REG_ROUTE_MIN, 1, 0), dump_fpga_status(nullptr);
  dump_fpga_status(file), dump_detail_info(file, 0x7F, 0x40, 0);
  std::fclose(file);
  EXPECT_EQ(std::string(text), "[0x7f][UNKONWN] <-- [0x40][UNKONWN] mute:0\n");
  qb_u8_t value = 0;
  EXPECT_EQ(i2c_read_a8d8(-1, kFpga, FPGA_REG_ROUTE_MIN, nullptr) + i2c_read_a8d8(-1, kFpga, FPGA_REG_ROUTE_MIN, &value), -2);
  qb_debug_serve_request("dump");
  EXPECT_EQ(am_test::read_file(root.at(QB_DEBUG_DUMP_FILE)), "");
}

// The encoding a report names per port: the DSP's decoder for the HDMI and network inputs, LPCM or
// Unknown for the other local inputs, Unknown for any other port.
TEST(EncodingNames, PerPortAndRecordType) {
  qb_audio_info r = make_record(2, 2, QB_AUDIO_TYPE_NLPCM);
  r.AUD_DB[0] = 2;
  char out[32];
  std::string got;
  for (int port : {1, 3, 6, 9}) got += (get_encodingType(port, &r, out), std::string(out)) + "|";
  EXPECT_EQ(got, "Unknown|Dolby Digit|Dolby Digit|Unknown|");
  EXPECT_EQ(get_encodingType(1, nullptr, out) + get_dsp_encodingType(&r, nullptr), -2);
  EXPECT_STREQ(audio_type_name(0x55), "UNKNOWN");
}

// Arguments out of range are refused without a bus write: outputs, stream ids, route values and
// registers, input gates, null payloads and buffers.
TEST_F(ChannelTable, OutOfRangeArgumentsAreRefused) {
  EXPECT_EQ(qb_audio_stream_input_select(QB_AUDIO_OUTPUT_COUNT, 0, 0) + qb_audio_stream_input_select(QB_AUDIO_OUTPUT_SPDIF, 5, -1), 0);
  EXPECT_EQ(qb_audio_fpga_ch_route_set(FPGA_REG_ROUTE_MIN, 0) + qb_audio_fpga_ch_route_set(FPGA_REG_ROUTE_MIN, FPGA_SRC_MAX + 1) +
                qb_audio_fpga_ch_route_set(FPGA_REG_ROUTE_MIN - 1, 1) + qb_audio_fpga_ch_route_set(FPGA_REG_ROUTE_MAX + 1, 1), 0);
  EXPECT_EQ(input_mute_ctrl(99, 1) + qb_audio_fpga_earc_chs_write(QB_AUDIO_CHN_MAX + 1), -1);
  qb_audio_info r = make_record(2, 2, QB_AUDIO_TYPE_LPCM);
  const Bytes state = le32(1);
  EXPECT_EQ(it6621_mode_set(nullptr, 4) + monitor_status_set(nullptr, 4) + monitor_status_set(state.data(), 0), 0);
  for (uint32_t ch : {0u, 9u, 13u}) EXPECT_EQ(call(audio_channel_info_note, channel_note(ch, r)), 0) << ch;
  char out[32];
  EXPECT_EQ(get_encodingType(1, &r, nullptr) + get_dsp_encodingType(nullptr, out), -2);
  qb_u8_t mac[6] = {};
  EXPECT_EQ(macaddr_str2hex("0a", nullptr) + macaddr_str2hex(nullptr, mac) + macaddr_str2hex("0aFb:z", mac), 1);  // short text: zero bytes
  EXPECT_EQ(Bytes(mac, mac + 6), (Bytes{0x0a, 0xfb, 0, 0, 0, 0}));
  EXPECT_EQ(bus.transfer_count(kBus, kFpga), 0u);
  std::string groups;  // only the base group itself stands for none
  for (const auto& [b, c, d] : std::initializer_list<std::tuple<int, int, int>>{{48, 0, 1}, {48, 1, 0}, {48, 0, 0}, {61, 14, 15}})
    groups += (audio_ipaddr_create(234, b, c, d, out, sizeof out), std::string(out)) + " ";
  EXPECT_EQ(groups, "234.48.0.1 234.48.1.0  234.61.14.15 ");
}

}  // namespace
}  // namespace am_unit
