// FPGA audio matrix access: verified register writes, routes, sink and capture-input gates, and
// the channel-status bytes of the eARC and S/PDIF transmitters.
#include "qb_audio_misc_fpga.h"

#include <cstring>
#include <mutex>

#include "am_log.h"
#include "i2c_device.h"
#include "qb_audio_misc_private.h"

namespace {

// Enable bit of a sink route register: which enable register holds it, and which bit; the sink's
// name in the mute log lines.
struct sink_enable_bit_t {
  qb_u8_t route_reg;
  qb_u8_t enable_reg;
  qb_u8_t bit;
  const char* name;
};

constexpr sink_enable_bit_t kSinkEnableBits[] = {
    {FPGA_REG_ROUTE_EARC_OUT, FPGA_REG_OUTPUT_ENABLE, 7, "earc"},
    {FPGA_REG_ROUTE_ANALOG_OUT, FPGA_REG_OUTPUT_ENABLE, 6, "analog"},
    {FPGA_REG_ROUTE_HDMI_OUT, FPGA_REG_OUTPUT_ENABLE, 5, "hdmi"},
    {FPGA_REG_ROUTE_SAO1, FPGA_REG_OUTPUT_ENABLE, 4, "stream"},
    {FPGA_REG_ROUTE_SAO3, FPGA_REG_OUTPUT_ENABLE, 3, "stream"},
    {FPGA_REG_ROUTE_SAO5, FPGA_REG_OUTPUT_ENABLE, 2, "stream"},
    {FPGA_REG_ROUTE_UNUSED, FPGA_REG_OUTPUT_ENABLE, 1, "unused"},
    {FPGA_REG_ROUTE_DSP_IN, FPGA_REG_OUTPUT_ENABLE, 0, "dsp"},
    {FPGA_REG_ROUTE_SPDIF_OUT, FPGA_REG_OUTPUT_ENABLE2, 1, "spdif"},
};

// Capture-input enable register of an output-source number.
struct input_gate_t {
  int src;
  qb_u8_t reg;
};

constexpr input_gate_t kInputGates[] = {
    {0, FPGA_REG_INPUT_ENABLE_ANALOG}, {1, FPGA_REG_INPUT_ENABLE_HDMI},
    {3, FPGA_REG_INPUT_ENABLE_EARC},   {6, FPGA_REG_INPUT_ENABLE_DOWNMIX},
    {7, FPGA_REG_INPUT_ENABLE_7},      {8, FPGA_REG_INPUT_ENABLE_8},
    {9, FPGA_REG_INPUT_ENABLE_9},
};

// The three network-output capture paths, muted and unmuted in this order.
constexpr qb_u8_t kStreamOutputRoutes[] = {FPGA_REG_ROUTE_SAO1, FPGA_REG_ROUTE_SAO3,
                                           FPGA_REG_ROUTE_SAO5};

const sink_enable_bit_t* sink_enable_bit(qb_u8_t reg) {
  for (const sink_enable_bit_t& row : kSinkEnableBits) {
    if (row.route_reg == reg) {
      return &row;
    }
  }
  return nullptr;
}

// Channel-status bytes 0-4 of a channel, then 0 as byte 5, from register first on.
int chs_write(int ch, qb_u8_t first, const char* what) {
  if (qb_audio_channel_state_get(ch) == nullptr) {
    return 0;
  }
  qb_audio_info rec;
  qb_audio_channel_state_copy(ch, &rec);
  qb_u8_t bytes[FPGA_CHS_BYTES] = {};
  std::memcpy(bytes, rec.ChStat, sizeof rec.ChStat);  // byte 5 stays 0
  for (int i = 0; i < FPGA_CHS_BYTES; ++i) {
    qb_audio_fpga_i2c_write(static_cast<qb_u8_t>(first + i), bytes[i]);
  }
  AM_LOG_INFO("wite %s channel stat[%02d-%02d-%02d-%02d-%02d] to fpga", what, bytes[0], bytes[1],
              bytes[2], bytes[3], bytes[4]);
  return 1;
}

int analog_route(const char* function, qb_u8_t src) {
  AM_LOG_INFO("function:%s", function);
  return qb_audio_fpga_i2c_write(FPGA_REG_ROUTE_ANALOG_OUT, src);
}

}  // namespace

int qb_audio_fpga_i2c_read(qb_u8_t reg, qb_u8_t* val) {
  if (I2C_Device_Read(QB_AUDIO_FPGA_I2C_DEV, QB_AUDIO_FPGA_I2C_ADDR, reg, val, 1) != 0) {
    AM_LOG_ERROR("audio fpga i2c read addr:0x%02x reg:0x%02x error", QB_AUDIO_FPGA_I2C_ADDR, reg);
    return 0;
  }
  return 1;
}

int qb_audio_fpga_i2c_write(qb_u8_t reg, qb_u8_t val) {
  if (I2C_Device_Write(QB_AUDIO_FPGA_I2C_DEV, QB_AUDIO_FPGA_I2C_ADDR, reg, &val, 1) != 0) {
    AM_LOG_ERROR("audio fpga i2c write addr:0x%02x reg:0x%02x val:0x%02x error",
                 QB_AUDIO_FPGA_I2C_ADDR, reg, val);
    return 0;
  }
  qb_u8_t back = static_cast<qb_u8_t>(~val);
  if (I2C_Device_Read(QB_AUDIO_FPGA_I2C_DEV, QB_AUDIO_FPGA_I2C_ADDR, reg, &back, 1) != 0) {
    AM_LOG_ERROR("audio fpga i2c write addr:0x%02x reg:0x%02x val:0x%02x ok, read back fail",
                 QB_AUDIO_FPGA_I2C_ADDR, reg, val);
    return 0;
  }
  if (back != val) {
    AM_LOG_ERROR(
        "audio fpga i2c write addr:0x%02x reg:0x%02x val:0x%02x ok, read back val:0x%02x error",
        QB_AUDIO_FPGA_I2C_ADDR, reg, val, back);
    return 0;
  }
  AM_LOG_INFO("audio fpga i2c write addr:0x%02x reg:0x%02x val:0x%02x", QB_AUDIO_FPGA_I2C_ADDR,
              reg, val);
  return 1;
}

int qb_audio_fpga_ch_route_set(qb_u8_t reg, qb_u8_t src) {
  if (src < FPGA_SRC_MIN || src > FPGA_SRC_MAX || reg < FPGA_REG_ROUTE_MIN ||
      reg > FPGA_REG_ROUTE_MAX) {
    return 0;
  }
  return qb_audio_fpga_i2c_write(reg, src);
}

// The output-enable registers 0x52/0x53 hold one bit per sink; the command thread and the
// stream workers both change bits, so each read-modify-write holds this module's lock throughout.
// Register 0x52 is read first in every case; the S/PDIF bit's 0x53 is read over it.
int output_mute_ctrl(qb_u8_t reg, int mute) {
  std::lock_guard<std::mutex> hold(qb_audio_misc_module().enable_lock);
  qb_u8_t value = 0;
  if (!qb_audio_fpga_i2c_read(FPGA_REG_OUTPUT_ENABLE, &value)) {
    return 0;
  }
  const sink_enable_bit_t* row = sink_enable_bit(reg);
  if (row == nullptr) {
    return 0;
  }
  if (row->enable_reg != FPGA_REG_OUTPUT_ENABLE) {
    qb_audio_fpga_i2c_read(row->enable_reg, &value);
  }
  const qb_u8_t mask = static_cast<qb_u8_t>(1u << row->bit);
  value = (mute == 1) ? static_cast<qb_u8_t>(value & ~mask) : static_cast<qb_u8_t>(value | mask);
  return qb_audio_fpga_i2c_write(row->enable_reg, value);
}

int sink_mute_ctrl(qb_u8_t reg, int mute) {
  const sink_enable_bit_t* row = sink_enable_bit(reg);
  AM_LOG_INFO("%s output %s", row != nullptr ? row->name : "unknown",
              mute == 1 ? "mute" : "unmute");
  return output_mute_ctrl(reg, mute);
}

int stream_output_mute_ctrl(int mute) {
  AM_LOG_INFO("stream output %s", mute == 1 ? "mute" : "unmute");
  for (qb_u8_t reg : kStreamOutputRoutes) {
    output_mute_ctrl(reg, mute);
  }
  return 1;
}

int input_mute_ctrl(int src, int mute) {
  for (const input_gate_t& gate : kInputGates) {
    if (gate.src == src) {
      const qb_u8_t val = (mute == 1) ? 0 : 1;
      AM_LOG_INFO("mute:%d ch:%d reg:0x%x val:0x%x", mute, src, gate.reg, val);
      return qb_audio_fpga_i2c_write(gate.reg, val);
    }
  }
  return -1;
}

int audio_hdmi_to_fpga_mute(void) {
  qb_u8_t value = 0;
  qb_audio_fpga_i2c_read(FPGA_REG_INPUT_ENABLE_HDMI, &value);
  return value == 0 ? 1 : 0;
}

int qb_audio_fpga_earc_chs_write(int ch) { return chs_write(ch, FPGA_REG_EARC_CHS0, "earc"); }

int qb_audio_fpga_spdif_chs_write(int ch) { return chs_write(ch, FPGA_REG_SPDIF_CHS0, "spdif"); }

int qb_audio_output_from_earc_in(void) { return analog_route(__func__, FPGA_SRC_IT6620); }
int qb_audio_output_from_analog_in(void) { return analog_route(__func__, FPGA_SRC_PCM1804); }
int qb_audio_output_from_hdmi_in(void) { return analog_route(__func__, FPGA_SRC_HDMI_IN); }
int qb_audio_output_from_sai1_tx(void) { return analog_route(__func__, FPGA_SRC_SAI1); }
int qb_audio_output_from_sai3_tx(void) { return analog_route(__func__, FPGA_SRC_SAI3); }
int qb_audio_output_from_sai5_tx(void) { return analog_route(__func__, FPGA_SRC_SAI5); }
int qb_audio_output_from_sai6_tx(void) { return analog_route(__func__, FPGA_SRC_SAI6); }
int qb_audio_output_from_dsp_out(void) { return analog_route(__func__, FPGA_SRC_DSP_DAO); }
int qb_audio_output_from_spdif_in(void) { return analog_route(__func__, FPGA_SRC_SPDIF_IN); }
