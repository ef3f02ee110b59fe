// Output control commands: mute, delay, source selection, downmix, analog levels and the eARC
// output of the bridge; the all-gates mute and unmute of the FPGA matrix; the ARC mode requests to
// the bridge services.
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "am_log.h"
#include "i2c_device.h"
#include "posix_system.h"
#include "qb_audio_analog.h"
#include "qb_audio_earc.h"
#include "qb_audio_hdmi.h"
#include "qb_audio_misc_bridge.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_parse.h"
#include "qb_audio_parse_private.h"
#include "qb_audio_spdif.h"
#include "qb_audio_stream.h"
#include "qb_tlv_box.h"

namespace {

// Enable bits of the route sinks (0x52, 0x53) and the capture-input enables (0x55..0x5B).
constexpr qb_u8_t kFpgaUnmuteAllRegs[] = {0x52, 0x53, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5A, 0x5B};
constexpr qb_u8_t kFpgaGatesClosed = 0x00;
constexpr qb_u8_t kFpgaGatesOpen = 0xFF;

// The analog codec's control program.
constexpr const char* kCodecVolumeCmd = "/customer/bin/audio_codec -v %d";
constexpr const char* kCodecFullScaleCmd = "/customer/bin/audio_codec -f %d";
constexpr size_t kCodecCmdSize = 128;

// Output port number of the DSP in the commands (ports 0-3 are QB_AUDIO_OUTPUT_*).
constexpr qb_u32_t kPortDsp = 5;

// A mute value of 1 mutes; anything else unmutes.
constexpr qb_u32_t kMuteOn = 1;

// Analog input full-scale levels and the value of register 0x50 for each.
constexpr qb_u32_t kInputVrmsHigh = 1;
constexpr qb_u32_t kInputVrmsLow = 2;
constexpr qb_u8_t kInputVrmsHighReg = 1;
constexpr qb_u8_t kInputVrmsLowReg = 0;

// The delay is a 15-bit value: the low byte, then the high 7 bits.
constexpr qb_u32_t kLatencyLowMask = 0xFF;
constexpr qb_u32_t kLatencyHighMask = 0x7F;

// The eARC enable request: enable 1 switches the output on.
constexpr qb_u32_t kEarcEnableOn = 1;

qb_audio_cmd_module_t g_cmd_module;

void fpga_write_byte(qb_u8_t reg, qb_u8_t value) {
  (void)I2C_Device_Write(QB_AUDIO_FPGA_I2C_DEV, QB_AUDIO_FPGA_I2C_ADDR, reg, &value, 1);
}

// One output port: its word in the log lines, its mute and unmute, its delay registers (low byte,
// then the high bits in the next register; 0 for none) and its source selection (none for the
// DSP).
struct port_row_t {
  qb_u32_t port;
  const char* word;
  const char* mute_word;  // in the mute log line
  int (*mute)(void);
  int (*unmute)(void);
  qb_u8_t latency_reg;
  int (*select)(int src, int sid);
  const char* separator;  // before the stream id in the source selection log line
};

constexpr qb_u8_t kNoLatency = 0;

constexpr port_row_t kPorts[] = {
    {QB_AUDIO_OUTPUT_ANALOG, "analog", "analog", analog_output_mute, analog_output_unmute,
     FPGA_REG_LATENCY_ANALOG, qb_audio_analog_output_src_select, ","},
    {QB_AUDIO_OUTPUT_HDMI, "hdmi", "hdmi", hdmi_output_mute, hdmi_output_unmute,
     FPGA_REG_LATENCY_HDMI, qb_audio_hdmi_output_src_select, ","},
    {QB_AUDIO_OUTPUT_SPDIF, "spdif", "spdif", spdif_output_mute, spdif_output_unmute,
     FPGA_REG_LATENCY_SPDIF, qb_audio_spdif_output_src_select, " "},
    {QB_AUDIO_OUTPUT_EARC, "earc", "arc/earc", earc_output_mute, earc_output_unmute,
     FPGA_REG_LATENCY_EARC, qb_audio_earc_output_src_select, " ; "},
    {kPortDsp, "dsp", "dsp", dsp_output_mute, dsp_output_unmute, kNoLatency, nullptr, nullptr},
};

const port_row_t* port_row(qb_u32_t port) {
  for (const port_row_t& row : kPorts) {
    if (row.port == port) {
      return &row;
    }
  }
  return nullptr;
}

void latency_write(const port_row_t& row, qb_u8_t reg, qb_u8_t value) {
  fpga_write_byte(reg, value);
  AM_LOG_INFO("set fpga %s channel add:%02x reg:%02x val:%02x", row.word, QB_AUDIO_FPGA_I2C_ADDR, reg, value);
}

// Runs one codec command built from a format and a value. 1, or 0 when the shell failed.
int run_codec(const char* handler, const char* format, int value) {
  char command[kCodecCmdSize] = {};
  std::snprintf(command, sizeof(command), format, value);
  if (posix_system(command) < 0) {
    AM_LOG_ERROR("%s, system[%s] fail", handler, command);
    return 0;
  }
  return 1;
}

// An ARC mode request: the 4-byte mode to one bridge service.
void send_arc_mode(qb_s32_t outer_type, int mode) {
  const qb_s32_t value = mode;
  (void)audio_tlv_packet(outer_type, QB_BRIDGE_KEY_ARC_MODE, &value, sizeof(value));
}

}  // namespace

qb_audio_cmd_module_t& qb_audio_cmd_module() { return g_cmd_module; }

const char* qb_audio_output_port_name(qb_u32_t ch) {
  static constexpr const char* kNames[] = {"analog", "hdmi", "spdif", "earc", "stream", "dsp"};
  return ch < sizeof(kNames) / sizeof(kNames[0]) ? kNames[ch] : "unknown";
}

void audio_mute_all(void) {
  fpga_write_byte(FPGA_REG_OUTPUT_ENABLE, kFpgaGatesClosed);
  AM_LOG_INFO("%s audio mute all, fpga addr:%02x, reg:%02x, value:%02x", __func__, QB_AUDIO_FPGA_I2C_ADDR,
              FPGA_REG_OUTPUT_ENABLE, kFpgaGatesClosed);
}

void audio_unmute_all(void) {
  for (const qb_u8_t reg : kFpgaUnmuteAllRegs) {
    fpga_write_byte(reg, kFpgaGatesOpen);
    AM_LOG_INFO("%s audio unmute all, fpga addr:0x%02x, reg:0x%02x, value:0x%02x", __func__,
                QB_AUDIO_FPGA_I2C_ADDR, reg, kFpgaGatesOpen);
  }
}

int arc_on_off_ctrl(int mode) {
  AM_LOG_INFO("%s,arc on/off %d", __func__, mode);
  send_arc_mode(TLV_OUTER_TYPE_IT6620, mode);
  return 1;
}

int it6621_arc_on_off_ctrl(int mode) {
  AM_LOG_INFO("%s,it6621_arc_on_off_ctrl arc on/off %d", __func__, mode);
  send_arc_mode(TLV_OUTER_TYPE_IT6621, mode);
  return 1;
}

qb_s32_t analog_volume_get(void) { return qb_audio_cmd_module().g_stAnalogVolume.load(); }

// Get requests that have nothing to report.
int output_mute_ctrl_get(const void*, int) { return 1; }
int output_latency_ctrl_get(const void*, int) { return 1; }
int output_dwm_mode_get(const void*, int) { return 1; }
int output_analog_volume_get(const void*, int) { return 1; }
int output_analog_fullscalevrms_get(const void*, int) { return 1; }
int output_earc_enable_ctrl_get(const void*, int) { return 1; }

int output_mute_ctrl_set(const void* buf, int len) {
  qb_audio_output_mute_ctrl_t req;
  if (!qb_payload_read(buf, len, &req)) {
    return 0;
  }
  AM_LOG_INFO("%s, chn[%s][%d] mute=%d enable=%d", __func__, qb_audio_output_port_name(req.ch),
              req.ch, req.mute, req.enable);
  const port_row_t* row = port_row(req.ch);
  if (row == nullptr) {
    return 0;  // the network stream output and unknown ports have no mute of their own
  }
  const bool mute = req.mute == kMuteOn;
  // The recorded analog mute follows the bus: it changes only once the register took the bit.
  if ((mute ? row->mute() : row->unmute()) == 1 && req.ch == QB_AUDIO_OUTPUT_ANALOG) {
    set_output_analog_mute(mute ? 1 : 0);
  }
  AM_LOG_INFO("set %s output %s", row->mute_word, mute ? "mute" : "unmute");
  return 1;
}

int output_latency_ctrl_set(const void* buf, int len) {
  qb_audio_output_latency_ctrl_t req;
  if (!qb_payload_read(buf, len, &req)) {
    return 0;
  }
  AM_LOG_INFO("%s output latency ctrl,ch[%s][%d], time[%d] buflen[%d]", __func__,
              qb_audio_output_port_name(req.ch), req.ch, req.time, len);
  const port_row_t* row = port_row(req.ch);
  if (row == nullptr || row->latency_reg == kNoLatency) {
    AM_LOG_ERROR("output latency set invalid channel");
    return 0;
  }
  // The delay passes through unchanged, in the unit of the FPGA delay line.
  latency_write(*row, row->latency_reg, static_cast<qb_u8_t>(req.time & kLatencyLowMask));
  latency_write(*row, static_cast<qb_u8_t>(row->latency_reg + 1),
                static_cast<qb_u8_t>((req.time >> 8) & kLatencyHighMask));
  return 1;
}

int output_src_select_set(const void* buf, int len) {
  qb_audio_output_src_select_t req;
  // A request shorter than its 8-byte record is refused silently; a longer one is read for its
  // first 8.
  if (!qb_payload_read(buf, len, &req, QB_PAYLOAD_PREFIX)) {
    return 0;
  }
  int sids[QB_AUDIO_OUTPUT_COUNT] = {};
  for (int out = 0; out < QB_AUDIO_OUTPUT_COUNT; ++out) {
    sids[out] = qb_misc_audio_output_sid_get(out);
  }
  const char* src_name = qb_audio_output_port_name(req.src);
  const int src = static_cast<int>(req.src);
  AM_LOG_INFO(
      "%s, chn[%s][%d] src[%s][%d],s32sid_analog = %d,s32sid_hdmi = %d,s32sid_spdif = %d,"
      "s32sid_earc = %d",
      __func__, qb_audio_output_port_name(req.ch), req.ch, src_name, src,
      sids[QB_AUDIO_OUTPUT_ANALOG], sids[QB_AUDIO_OUTPUT_HDMI], sids[QB_AUDIO_OUTPUT_SPDIF],
      sids[QB_AUDIO_OUTPUT_EARC]);
  const port_row_t* row = port_row(req.ch);
  if (row == nullptr || row->select == nullptr) {
    AM_LOG_ERROR("output src set invalid channel");
    return 0;
  }
  const int out = static_cast<int>(req.ch);
  if (out != QB_AUDIO_OUTPUT_ANALOG) {
    set_output_stream_mode(out, 0);
  }
  const int ret = row->select(src, sids[out]);
  if (out == QB_AUDIO_OUTPUT_ANALOG) {
    qb_misc_audio_local_port_analog_src_set(req.src);
  }
  AM_LOG_INFO("set %s src %s:%d%ss32sid_%s = %d", row->word, src_name, src, row->separator,
              row->word, sids[out]);
  return ret;
}

int output_src_select_get(const void* buf, int len) {
  qb_audio_output_src_select_t req;
  if (!qb_payload_read(buf, len, &req)) {
    return 0;
  }
  AM_LOG_INFO("%s, buflen[%d], ch[%d], src[%d]", __func__, len, req.ch, req.src);
  return 1;
}

int output_dwm_mode_set(const void* buf, int len) {
  qb_audio_output_dwm_mode_t req;
  if (!qb_payload_read(buf, len, &req)) {
    AM_LOG_ERROR("output downmix mode param invalid");
    return 0;
  }
  // The analog output and the other ports have no downmix.
  if (req.ch < static_cast<qb_u32_t>(QB_AUDIO_OUTPUT_COUNT)) {
    qb_misc_audio_downmix_set(static_cast<int>(req.ch), &req);
  }
  return 1;
}

int output_analog_volume_set(const void* buf, int len) {
  qb_audio_output_analog_volume_t req;
  if (!qb_payload_read(buf, len, &req)) {
    return 0;
  }
  const qb_s32_t volume = static_cast<qb_s32_t>(req.vol);
  AM_LOG_INFO("%s, buflen[%d], volume[%d]", __func__, len, volume);
  if (volume == qb_audio_cmd_module().g_stAnalogVolume.load()) {
    AM_LOG_INFO("no need set volume of analog");
    return 1;
  }
  qb_audio_cmd_module().g_stAnalogVolume.store(volume);
  return run_codec(__func__, kCodecVolumeCmd, volume);
}

int output_analog_fullscalevrms_set(const void* buf, int len) {
  qb_audio_output_analog_fullscalevrms_t req;
  if (!qb_payload_read(buf, len, &req)) {
    return 0;
  }
  const int vrms = static_cast<int>(req.vrms);
  AM_LOG_INFO("%s, buflen[%d], fullscalevrms[%d]", __func__, len, vrms);
  return run_codec(__func__, kCodecFullScaleCmd, vrms);
}

int input_analog_volume_set(const void* buf, int len) {
  qb_audio_input_analog_fullscalevrms_t req;
  if (!qb_payload_read(buf, len, &req)) {
    return 0;
  }
  const int vrms = static_cast<int>(req.vrms);
  AM_LOG_INFO("%s, analog input vrms[%d]", __func__, vrms);
  if (req.vrms != kInputVrmsHigh && req.vrms != kInputVrmsLow) {
    AM_LOG_ERROR("invalid input analog vrms:%d", vrms);
    return 0;
  }
  const qb_u8_t value = req.vrms == kInputVrmsHigh ? kInputVrmsHighReg : kInputVrmsLowReg;
  if (I2C_Device_Write(QB_AUDIO_FPGA_I2C_DEV, QB_AUDIO_FPGA_I2C_ADDR, FPGA_REG_ANALOG_IN_VOLUME, &value, 1) != 0) {
    AM_LOG_ERROR("set input analog vrms:%d fpga fail", vrms);
    return 0;
  }
  return 1;
}

int output_earc_enable_ctrl_set(const void* buf, int len) {
  qb_audio_output_earc_enable_ctrl_t req;
  if (!qb_payload_read(buf, len, &req)) {
    return 0;
  }
  AM_LOG_INFO("%s, chn[%s][%d] enable=%d onlyArc=%d", __func__, qb_audio_output_port_name(req.ch),
              req.ch, req.enable, req.onlyArc);
  if (req.ch != QB_AUDIO_OUTPUT_EARC) {
    return 1;
  }
  if (req.enable != kEarcEnableOn) {
    it6621_arc_on_off_ctrl(QB_ARC_MODE_OFF);
    AM_LOG_INFO("set arc/earc output disable in it6621");
  } else if (req.onlyArc != 0) {
    it6621_arc_on_off_ctrl(QB_ARC_MODE_ARC_ONLY);
    AM_LOG_INFO("set arc only output enable in it6621");
  } else {
    it6621_arc_on_off_ctrl(QB_ARC_MODE_ARC_EARC);
    AM_LOG_INFO("set arc&earc output enable in it6621");
  }
  return 1;
}

int input_earc_onlyarc_ctrl_set(const void* buf, int len) {
  qb_audio_input_earc_onlyarc_t req;
  if (!qb_payload_read(buf, len, &req)) {
    return 0;
  }
  qb_audio_cmd_module().g_stAudInputEarcOnlyarc = static_cast<qb_s32_t>(req.onlyArc);
  AM_LOG_INFO("%s, audio input earc onlyarc=%d", __func__, static_cast<int>(req.onlyArc));
  return 1;
}
