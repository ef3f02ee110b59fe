// Every command handler with payloads of the wrong size and with out-of-range values. Each payload
// lives in a heap block of exactly its size, so a read past its end is caught by the address
// sanitizer build.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "qb_audio_parse.h"
#include "qb_audio_stream.h"
#include "test_control_helpers.h"

namespace control_test {
namespace {

// A handler, the size of its record, and the ERROR line it logs for a payload of the wrong size
// ("" when it refuses silently; %d is the length). Every one returns 0 then.
struct HandlerRow {
  const char* name;
  Handler fn;
  int record;
  const char* error;
  bool longer_accepted;  // a longer payload is read for its record
};

const HandlerRow kHandlers[] = {
    {"output_mute_ctrl_set", output_mute_ctrl_set, 12, "", false},
    {"output_latency_ctrl_set", output_latency_ctrl_set, 8, "", false},
    {"output_src_select_set", output_src_select_set, 8, "", true},
    {"output_src_select_get", output_src_select_get, 8, "", false},
    {"output_dwm_mode_set", output_dwm_mode_set, 8, "output downmix mode param invalid", false},
    {"output_analog_volume_set", output_analog_volume_set, 4, "", false},
    {"output_analog_fullscalevrms_set", output_analog_fullscalevrms_set, 4, "", false},
    {"input_analog_volume_set", input_analog_volume_set, 4, "", false},
    {"output_earc_enable_ctrl_set", output_earc_enable_ctrl_set, 12, "", false},
    {"input_earc_onlyarc_ctrl_set", input_earc_onlyarc_ctrl_set, 4, "", false},
    {"stream_input_select_set", stream_input_select_set, 12, "", false},
    {"stream_input_fallback_select_set", stream_input_fallback_select_set, 12, "", false},
    {"stream_input_fromnet_set", stream_input_fromnet_set, 24, "", false},
    {"stream_output_tonet_set", stream_output_tonet_set, 24, "stream output to net param error",
     false},
    {"cec_phyaddr_set", cec_phyaddr_set, 4, "invalid buflen %d", false},
    {"details_audio_status_get", details_audio_status_get, 4,
     "details_audio_status_get,%d buffer NULL error\r\n", false},
    {"audio_channel_info_note", audio_channel_info_note, 24, "", false},
};

// A payload in a heap block of exactly n bytes.
struct Payload {
  Payload(int n, uint8_t fill) : size(n), bytes(new uint8_t[static_cast<size_t>(n)]) {
    std::memset(bytes.get(), fill, static_cast<size_t>(n));
  }
  Payload(const Bytes& b) : Payload(static_cast<int>(b.size()), 0) {
    std::memcpy(bytes.get(), b.data(), b.size());
  }
  int call(Handler fn) const { return fn(bytes.get(), size); }
  int size;
  std::unique_ptr<uint8_t[]> bytes;
};

using BadInputTest = ControlTest;

TEST_F(BadInputTest, WrongLengthsAreRefusedWithTheirErrorLine) {
  for (const HandlerRow& h : kHandlers) {
    for (int len : {0, 1, h.record - 1, h.record + 1, 1024}) {
      if (h.longer_accepted && len > h.record) continue;
      SCOPED_TRACE(testing::Message() << h.name << " len " << len);
      log.clear();
      EXPECT_EQ(Payload(len, 0x5A).call(h.fn), 0);
      if (h.error[0] != '\0') {
        char line[128];
        std::snprintf(line, sizeof line, h.error, len);
        EXPECT_TRUE(log.has(line, AM_LOG_LEVEL_ERROR));
      } else {
        for (const auto& l : log.lines()) EXPECT_NE(l.level, AM_LOG_LEVEL_ERROR) << l.text;
      }
    }
    EXPECT_EQ(h.fn(nullptr, h.record), 0) << h.name;
  }
  EXPECT_EQ(bus.transfer_count(kBus, kFpga), 0u);
  EXPECT_TRUE(codec_calls().empty());
  EXPECT_TRUE(quiet(kIt6620Port));
  EXPECT_TRUE(quiet(kIt6621Port));
  EXPECT_TRUE(quiet(kReportPort));
}

TEST_F(BadInputTest, HandlersThatTakeAnyLengthReadNoFurtherThanThePayload) {
  for (Handler fn : {it6621_mode_set, monitor_status_set, input_src_mac_get}) {
    for (int len : {1, 3, 5, 1024}) Payload(len, 0x02).call(fn);
    fn(nullptr, 0);
    fn(nullptr, 100);
  }
  log.clear();
  EXPECT_EQ(call(it6621_mode_set, Bytes{}), 0);
  EXPECT_EQ(call(monitor_status_set, Bytes{}), 0);
  EXPECT_EQ(log.count("invalid param buflen 0"), 2);
  // A one-byte mode is read as far as it goes.
  EXPECT_EQ(Payload(Bytes{1}).call(it6621_mode_set), 0);
  EXPECT_EQ(get_it6621_status(), 1);
  EXPECT_EQ(log.count("it6621 arc/earc status 1"), 1);
  // The MAC text: refused up to 11 bytes, any longer payload read for 12 characters.
  for (int len : {0, 1, 11}) EXPECT_EQ(Payload(len, 'A').call(input_src_mac_set), 0) << len;
  for (int len : {12, 13, 1024}) EXPECT_EQ(Payload(len, 'A').call(input_src_mac_set), 1) << len;
  EXPECT_EQ(Payload(12, 0xFF).call(input_src_mac_set), 1);
  EXPECT_EQ(input_src_mac_set(nullptr, 12), 0);
  // A longer source selection is read for its first eight bytes.
  EXPECT_EQ(Payload(1024, 0).call(output_src_select_set), 1);
}

TEST_F(BadInputTest, OutOfRangeValuesChangeNothingTheyShouldNot) {
  const uint32_t huge = 0xFFFFFFFFu;
  const std::pair<Handler, Bytes> calls[] = {
      {output_mute_ctrl_set, words({huge, huge, huge})},
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
  };
  for (const auto& c : calls) Payload(c.second).call(c.first);
  for (qb_u8_t reg : {0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x50}) {
    EXPECT_EQ(bus.reg(kBus, kFpga, reg), 0) << int(reg);
  }
  EXPECT_EQ(qb_misc_audio_downmix_hdmi_get(), 0u);
  EXPECT_TRUE(quiet(kIt6621Port));
  // Output requests out of range with a MAC field without a terminator.
  for (uint32_t sid : {3u, huge, 0x7FFFFFFFu, 0x80000000u}) {
    Bytes req = words({sid, huge});
    req.resize(24, 0xFF);
    EXPECT_EQ(Payload(req).call(stream_output_tonet_set), 0);
  }
  // Network and local inputs take any record bytes.
  for (uint32_t ch : {1u, 3u, 4u, 6u, 8u}) {
    Bytes note = le32(ch);
    note.resize(24, 0xFF);
    EXPECT_EQ(Payload(note).call(audio_channel_info_note), 1) << ch;
  }
  // The bridge functions take any value.
  for (int v : {-1, 0, 3, 0x7FFFFFFF}) {
    EXPECT_EQ(set_it6621_status(v), 0);
    EXPECT_EQ(set_hdmi_monitor_status(v), 0);
  }
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
