// Output control commands: mute, delay, source selection, downmix, analog levels and the eARC
// output of the bridge; the all-gates mute and unmute of the FPGA matrix.
#include <cstddef>

#include "am_log.h"
#include "i2c_device.h"
#include "qb_audio_parse.h"

namespace {

// The FPGA audio matrix on its I2C bus.
constexpr const char* kFpgaI2cBus = "/dev/i2c-2";
constexpr qb_u8_t kFpgaI2cAddr = 0x48;
// Enable bits of the route sinks (0x52, 0x53) and the capture-input enables (0x55..0x5B).
constexpr qb_u8_t kFpgaRegRouteEnable = 0x52;
constexpr qb_u8_t kFpgaUnmuteAllRegs[] = {0x52, 0x53, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5A, 0x5B};
constexpr qb_u8_t kFpgaGatesClosed = 0x00;
constexpr qb_u8_t kFpgaGatesOpen = 0xFF;

void fpga_write_byte(qb_u8_t reg, qb_u8_t value) {
  (void)I2C_Device_Write(kFpgaI2cBus, kFpgaI2cAddr, reg, &value, 1);
}

int not_implemented_yet(const char* name) {
  AM_LOG_WARN("%s: not implemented yet", name);
  return 0;
}

}  // namespace

void audio_mute_all(void) {
  fpga_write_byte(kFpgaRegRouteEnable, kFpgaGatesClosed);
  AM_LOG_INFO("%s audio mute all, fpga addr:%02x, reg:%02x, value:%02x", __func__, kFpgaI2cAddr,
              kFpgaRegRouteEnable, kFpgaGatesClosed);
}

void audio_unmute_all(void) {
  for (const qb_u8_t reg : kFpgaUnmuteAllRegs) {
    fpga_write_byte(reg, kFpgaGatesOpen);
    AM_LOG_INFO("%s audio unmute all, fpga addr:0x%02x, reg:0x%02x, value:0x%02x", __func__,
                kFpgaI2cAddr, reg, kFpgaGatesOpen);
  }
}

// Get requests that have nothing to report.
int output_mute_ctrl_get(const void*, int) { return 1; }
int output_latency_ctrl_get(const void*, int) { return 1; }
int output_dwm_mode_get(const void*, int) { return 1; }
int output_analog_volume_get(const void*, int) { return 1; }
int output_analog_fullscalevrms_get(const void*, int) { return 1; }
int output_earc_enable_ctrl_get(const void*, int) { return 1; }

int output_mute_ctrl_set(const void*, int) { return not_implemented_yet(__func__); }
int output_latency_ctrl_set(const void*, int) { return not_implemented_yet(__func__); }
int output_src_select_get(const void*, int) { return not_implemented_yet(__func__); }
int output_src_select_set(const void*, int) { return not_implemented_yet(__func__); }
int output_dwm_mode_set(const void*, int) { return not_implemented_yet(__func__); }
int output_analog_volume_set(const void*, int) { return not_implemented_yet(__func__); }
int output_analog_fullscalevrms_set(const void*, int) { return not_implemented_yet(__func__); }
int input_analog_volume_set(const void*, int) { return not_implemented_yet(__func__); }
int output_earc_enable_ctrl_set(const void*, int) { return not_implemented_yet(__func__); }
int input_earc_onlyarc_ctrl_set(const void*, int) { return not_implemented_yet(__func__); }

int arc_on_off_ctrl(int) {
  (void)not_implemented_yet(__func__);
  return 1;
}

int it6621_arc_on_off_ctrl(int) {
  (void)not_implemented_yet(__func__);
  return 1;
}

qb_s32_t analog_volume_get(void) { return 0; }
