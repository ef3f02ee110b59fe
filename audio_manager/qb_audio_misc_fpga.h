// The FPGA audio matrix: every source and sink of the board is wired through it. Each sink has a
// route register holding the number of the source feeding it; further registers mute sinks and
// capture inputs and carry the channel-status bytes of the eARC and S/PDIF transmitters. The FPGA
// sits at address 0x48 on "/dev/i2c-2"; registers are one byte wide.
#pragma once

#include "qb_types.h"

inline constexpr const char* QB_AUDIO_FPGA_I2C_DEV = "/dev/i2c-2";
inline constexpr qb_u8_t QB_AUDIO_FPGA_I2C_ADDR = 0x48;

// Matrix source values (what a route register holds).
enum fpga_src_e : qb_u8_t {
  FPGA_SRC_IT6620 = 1,  // eARC/ARC input
  FPGA_SRC_PCM1804,     // analog input
  FPGA_SRC_HDMI_IN,
  FPGA_SRC_SAI1,
  FPGA_SRC_SAI3,
  FPGA_SRC_SAI5,
  FPGA_SRC_SAI6,
  FPGA_SRC_DSP_DAO,
  FPGA_SRC_SPDIF_IN,
  FPGA_SRC_MIN = FPGA_SRC_IT6620,
  FPGA_SRC_MAX = FPGA_SRC_SPDIF_IN,
};

// Route registers, one per sink.
enum fpga_route_reg_e : qb_u8_t {
  FPGA_REG_ROUTE_EARC_OUT = 0x10,
  FPGA_REG_ROUTE_ANALOG_OUT,
  FPGA_REG_ROUTE_HDMI_OUT,
  FPGA_REG_ROUTE_SAO1,  // capture paths of network outputs 1, 3, 5
  FPGA_REG_ROUTE_SAO3,
  FPGA_REG_ROUTE_SAO5,
  FPGA_REG_ROUTE_UNUSED,
  FPGA_REG_ROUTE_DSP_IN,
  FPGA_REG_ROUTE_SPDIF_OUT,
  FPGA_REG_ROUTE_MIN = FPGA_REG_ROUTE_EARC_OUT,
  FPGA_REG_ROUTE_MAX = FPGA_REG_ROUTE_SPDIF_OUT,
};
// S/PDIF-type source of network output 5: 2 = S/PDIF input, 1 = ARC.
inline constexpr qb_u8_t FPGA_REG_SAO5_SPDIF_SRC = 0x19;
inline constexpr qb_u8_t FPGA_SAO5_SPDIF_SRC_SPDIF = 2;
inline constexpr qb_u8_t FPGA_SAO5_SPDIF_SRC_ARC = 1;
// Output latency registers (low byte, then high 7 bits).
inline constexpr qb_u8_t FPGA_REG_LATENCY_EARC = 0x20;
inline constexpr qb_u8_t FPGA_REG_LATENCY_ANALOG = 0x22;
inline constexpr qb_u8_t FPGA_REG_LATENCY_HDMI = 0x24;
inline constexpr qb_u8_t FPGA_REG_LATENCY_SPDIF = 0x26;
// Channel-status bytes 0-5 of the eARC and S/PDIF transmitters.
inline constexpr qb_u8_t FPGA_REG_EARC_CHS0 = 0x30;
inline constexpr qb_u8_t FPGA_REG_SPDIF_CHS0 = 0x36;
inline constexpr int FPGA_CHS_BYTES = 6;
inline constexpr qb_u8_t FPGA_REG_ANALOG_IN_VOLUME = 0x50;
// Output enable bits, 1 = sound.
inline constexpr qb_u8_t FPGA_REG_OUTPUT_ENABLE = 0x52;
inline constexpr qb_u8_t FPGA_REG_OUTPUT_ENABLE2 = 0x53;
// Capture-input enable registers, 1 = sound.
inline constexpr qb_u8_t FPGA_REG_INPUT_ENABLE_HDMI = 0x55;
inline constexpr qb_u8_t FPGA_REG_INPUT_ENABLE_DOWNMIX = 0x56;
inline constexpr qb_u8_t FPGA_REG_INPUT_ENABLE_EARC = 0x57;
inline constexpr qb_u8_t FPGA_REG_INPUT_ENABLE_ANALOG = 0x58;
inline constexpr qb_u8_t FPGA_REG_INPUT_ENABLE_7 = 0x59;
inline constexpr qb_u8_t FPGA_REG_INPUT_ENABLE_8 = 0x5A;
inline constexpr qb_u8_t FPGA_REG_INPUT_ENABLE_9 = 0x5B;

// One byte of a register. 1 read, 0 failed (logged).
int qb_audio_fpga_i2c_read(qb_u8_t reg, qb_u8_t* val);
// Writes one register and reads it back. 1 written and verified, 0 otherwise (logged).
int qb_audio_fpga_i2c_write(qb_u8_t reg, qb_u8_t val);
// Route register 0x10-0x18 <- source 1-9. 0 without bus traffic for anything else.
int qb_audio_fpga_ch_route_set(qb_u8_t reg, qb_u8_t src);

// Clears (mute 1) or sets (mute 0) the enable bit of a sink route register. 1/0.
int output_mute_ctrl(qb_u8_t reg, int mute);
// output_mute_ctrl with a log line naming the sink; the named sink mutes below are this.
int sink_mute_ctrl(qb_u8_t reg, int mute);
inline int analog_output_mute(void) { return sink_mute_ctrl(FPGA_REG_ROUTE_ANALOG_OUT, 1); }
inline int analog_output_unmute(void) { return sink_mute_ctrl(FPGA_REG_ROUTE_ANALOG_OUT, 0); }
inline int hdmi_output_mute(void) { return sink_mute_ctrl(FPGA_REG_ROUTE_HDMI_OUT, 1); }
inline int hdmi_output_unmute(void) { return sink_mute_ctrl(FPGA_REG_ROUTE_HDMI_OUT, 0); }
inline int spdif_output_mute(void) { return sink_mute_ctrl(FPGA_REG_ROUTE_SPDIF_OUT, 1); }
inline int spdif_output_unmute(void) { return sink_mute_ctrl(FPGA_REG_ROUTE_SPDIF_OUT, 0); }
inline int earc_output_mute(void) { return sink_mute_ctrl(FPGA_REG_ROUTE_EARC_OUT, 1); }
inline int earc_output_unmute(void) { return sink_mute_ctrl(FPGA_REG_ROUTE_EARC_OUT, 0); }
inline int dsp_output_mute(void) { return sink_mute_ctrl(FPGA_REG_ROUTE_DSP_IN, 1); }
inline int dsp_output_unmute(void) { return sink_mute_ctrl(FPGA_REG_ROUTE_DSP_IN, 0); }
// The three network-output capture paths. Always 1.
int stream_output_mute_ctrl(int mute);
inline int stream_output_mute(void) { return stream_output_mute_ctrl(1); }
inline int stream_output_unmute(void) { return stream_output_mute_ctrl(0); }
// Capture-input gate of an output-source number (0, 1, 3, 6, 7, 8, 9). Result of the verified
// write, or -1 for any other number.
int input_mute_ctrl(int src, int mute);
// 1 when the HDMI capture input is muted (or unreadable), else 0.
int audio_hdmi_to_fpga_mute(void);

// Channel-status bytes of a channel record into the eARC / S/PDIF transmitter. 1, or 0 for an
// unknown channel.
int qb_audio_fpga_earc_chs_write(int ch);
int qb_audio_fpga_spdif_chs_write(int ch);

// Route the analog output (0x11) from one source. Result of the verified write.
int qb_audio_output_from_earc_in(void);
int qb_audio_output_from_analog_in(void);
int qb_audio_output_from_hdmi_in(void);
int qb_audio_output_from_sai1_tx(void);
int qb_audio_output_from_sai3_tx(void);
int qb_audio_output_from_sai5_tx(void);
int qb_audio_output_from_sai6_tx(void);
int qb_audio_output_from_dsp_out(void);
int qb_audio_output_from_spdif_in(void);
