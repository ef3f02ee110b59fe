// Every command handler with payloads of the wrong size and with out-of-range values. Each payload
// lives in a heap block of exactly its size, so a read past its end is caught by the address
// sanitizer build.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "qb_audio_aplay.h"
#include "qb_audio_parse.h"
#include "qb_audio_stream.h"
#include "test_control_helpers.h"

namespace control_test {
namespace {

using Handler = int (*)(const void*, int);

// A handler, the size of its record, what it returns for a payload of the wrong size, and the
// ERROR line it logs then ("" when it refuses silently; %d is the length).
struct HandlerRow {
  const char* name;
  Handler fn;
  int record;
  int refused_result;
  const char* error;
  bool longer_accepted;  // a longer payload is read for its record
};

const HandlerRow kHandlers[] = {
    {"output_mute_ctrl_set", output_mute_ctrl_set, 12, 0, "", false},
    {"output_latency_ctrl_set", output_latency_ctrl_set, 8, 0, "", false},
    {"output_src_select_set", output_src_select_set, 8, 0, "output src set invalid buflen %d",
     true},
    {"output_src_select_get", output_src_select_get, 8, 0, "", false},
    {"output_dwm_mode_set", output_dwm_mode_set, 8, 0, "output downmix mode param invalid", false},
    {"output_analog_volume_set", output_analog_volume_set, 4, 0, "", false},
    {"output_analog_fullscalevrms_set", output_analog_fullscalevrms_set, 4, 0, "", false},
    {"input_analog_volume_set", input_analog_volume_set, 4, 0, "", false},
    {"output_earc_enable_ctrl_set", output_earc_enable_ctrl_set, 12, 0, "", false},
    {"input_earc_onlyarc_ctrl_set", input_earc_onlyarc_ctrl_set, 4, 0, "", false},
    {"stream_input_select_set", stream_input_select_set, 12, 0, "", false},
    {"stream_input_fallback_select_set", stream_input_fallback_select_set, 12, 0, "", false},
    {"stream_input_fromnet_set", stream_input_fromnet_set, 24, 0, "", false},
    {"stream_output_tonet_set", stream_output_tonet_set, 24, 0,
     "stream output to net param error", false},
    {"cec_phyaddr_set", cec_phyaddr_set, 4, 0, "invalid buflen %d", false},
    {"details_audio_status_get", details_audio_status_get, 4, 0,
     "details_audio_status_get,%d buffer NULL error\r\n", false},
    {"audio_channel_info_note", audio_channel_info_note, 24, 0, "", false},
};

// A payload in a heap block of exactly n bytes, filled with a byte.
struct Payload {
  Payload(int n, uint8_t fill) : size(n), bytes(new uint8_t[static_cast<size_t>(n)]) {
    std::memset(bytes.get(), fill, static_cast<size_t>(n));
  }
  int call(Handler fn) const { return fn(bytes.get(), size); }
  int size;
  std::unique_ptr<uint8_t[]> bytes;
};

class BadInputTest : public ControlTest {
 protected:
  void TearDown() override {
    for (auto& c : qb_audio_aplay_ctrl_get()->pctrl) c.in_aborting = 0;
    ControlTest::TearDown();
  }
  std::string error_line(const char* format, int len) {
    char line[128];
    std::snprintf(line, sizeof line, format, len);
    return line;
  }
};

TEST_F(BadInputTest, WrongLengthsAreRefusedWithTheirErrorLine) {
  for (const HandlerRow& h : kHandlers) {
    for (int len : {0, 1, h.record - 1, h.record + 1, 1024}) {
      if (h.longer_accepted && len > h.record) continue;
      SCOPED_TRACE(testing::Message() << h.name << " len " << len);
      log.clear();
      const Payload p(len, 0x5A);
      EXPECT_EQ(p.call(h.fn), h.refused_result);
      if (h.error[0] != '\0') {
        EXPECT_TRUE(log.has(error_line(h.error, len), AM_LOG_LEVEL_ERROR));
      } else {
        for (const auto& line : log.lines()) EXPECT_NE(line.level, AM_LOG_LEVEL_ERROR) << line.text;
      }
    }
    SCOPED_TRACE(h.name);
    EXPECT_EQ(h.fn(nullptr, h.record), h.refused_result);
  }
  EXPECT_EQ(bus.transfer_count(kBus, kFpga), 0u);
  EXPECT_TRUE(codec_calls().empty());
  EXPECT_TRUE(quiet(kIt6620Port));
  EXPECT_TRUE(quiet(kIt6621Port));
}

TEST_F(BadInputTest, HandlersThatTakeAnyLengthReadNoFurtherThanThePayload) {
  const Handler any_length[] = {it6621_mode_set, monitor_status_set, input_src_mac_get};
  for (Handler fn : any_length) {
    for (int len : {0, 1, 3, 5, 1024}) {
      const Payload p(len, 0x02);
      fn(p.bytes.get(), p.size);
    }
    fn(nullptr, 0);
    fn(nullptr, 100);
  }
  // The MAC text: refused up to 11 bytes, any longer payload read for 12 characters.
  for (int len : {0, 1, 11}) {
    const Payload p(len, 'A');
    EXPECT_EQ(p.call(input_src_mac_set), 0) << len;
  }
  for (int len : {12, 13, 1024}) {
    const Payload p(len, 'A');
    EXPECT_EQ(p.call(input_src_mac_set), 1) << len;
  }
  const Payload junk(12, 0xFF);
  EXPECT_EQ(junk.call(input_src_mac_set), 1);
  EXPECT_EQ(input_src_mac_set(nullptr, 12), 0);
  // A longer source selection is read for its first eight bytes.
  const Payload longer(1024, 0);
  EXPECT_EQ(longer.call(output_src_select_set), 1);
}

TEST_F(BadInputTest, OutOfRangeValuesChangeNothingTheyShouldNot) {
  const uint32_t huge = 0xFFFFFFFFu;
  const std::vector<std::pair<Handler, Bytes>> calls = {
      {output_mute_ctrl_set, words({huge, huge, huge})},
      {output_mute_ctrl_set, words({0x80000000u, 1, 1})},
      {output_latency_ctrl_set, words({huge, huge})},
      {output_src_select_set, words({huge, huge})},
      {output_src_select_set, words({0, huge})},
      {output_dwm_mode_set, words({huge, huge})},
      {input_analog_volume_set, words({huge})},
      {input_analog_volume_set, words({0})},
      {output_earc_enable_ctrl_set, words({huge, 1, 1})},
      {stream_input_select_set, words({huge, huge, huge})},
      {stream_input_select_set, words({1, 3, huge})},
      {stream_input_fallback_select_set, words({huge, huge, huge})},
      {details_audio_status_get, words({huge})},
  };
  for (const auto& c : calls) {
    const Payload p(static_cast<int>(c.second.size()), 0);
    std::memcpy(p.bytes.get(), c.second.data(), c.second.size());
    p.call(c.first);
  }
  // Unknown ports and channels leave the delay, input level and downmix registers alone.
  for (qb_u8_t reg : {0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x50}) {
    EXPECT_EQ(bus.reg(kBus, kFpga, reg), 0) << int(reg);
  }
  EXPECT_EQ(qb_misc_audio_downmix_hdmi_get(), 0u);
  EXPECT_TRUE(quiet(kIt6621Port));

  // Output requests with streams out of range, and channel notes for every invalid id.
  for (int32_t sid : {3, -1, 0x7FFFFFFF, static_cast<int32_t>(0x80000000)}) {
    Bytes req = words({static_cast<uint32_t>(sid), huge});
    req.resize(24, 0xFF);  // a MAC field without a terminator
    const Payload p(24, 0);
    std::memcpy(p.bytes.get(), req.data(), 24);
    EXPECT_EQ(p.call(stream_output_tonet_set), 0);
  }
  for (int32_t ch : {0, -1, 9, 10, 13, 14, 0x7FFFFFFF, static_cast<int32_t>(0x80000000)}) {
    Bytes note = le32(static_cast<uint32_t>(ch));
    note.resize(24, 0xEE);
    const Payload p(24, 0);
    std::memcpy(p.bytes.get(), note.data(), 24);
    EXPECT_EQ(p.call(audio_channel_info_note), 0) << ch;
  }
  // Network inputs and local inputs take any record bytes.
  for (int32_t ch : {1, 3, 4, 6, 8}) {
    Bytes note = le32(static_cast<uint32_t>(ch));
    note.resize(24, 0xFF);
    const Payload p(24, 0);
    std::memcpy(p.bytes.get(), note.data(), 24);
    EXPECT_EQ(p.call(audio_channel_info_note), 1) << ch;
  }
}

TEST_F(BadInputTest, BridgeFunctionsTakeAnyValue) {
  for (int mode : {-1, 0, 3, 0x7FFFFFFF}) EXPECT_EQ(set_it6621_status(mode), 0);
  for (int state : {-1, 0, 2, 0x7FFFFFFF}) EXPECT_EQ(set_hdmi_monitor_status(state), 0);
  EXPECT_EQ(set_avp_hdmi_out_audio_src_param(-1, -1, -1, nullptr), 1);
  qb_audio_info_t rec{};
  std::memset(&rec, 0xFF, sizeof rec);
  EXPECT_EQ(set_avp_hdmi_out_audio_param(&rec), 1);
  qb_u8_t chs[6] = {};
  EXPECT_EQ(it6621_channel_state_set(chs, -6), 0);
  EXPECT_EQ(it6621_channel_state_set(chs, 1024), 0);
}

}  // namespace
}  // namespace control_test
