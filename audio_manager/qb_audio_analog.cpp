// Analog line output: route register 0x11, no channel-status bytes.
#include "qb_audio_analog.h"

#include "qb_audio_misc.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_port_table.h"

namespace {

constexpr port_output_t kAnalogOutput = {FPGA_REG_ROUTE_ANALOG_OUT, nullptr, analog_output_mute,
                                         analog_output_unmute};

// Cells in board order: board 1, board 2, board 3, board 4.
constexpr port_row_t kAnalogTable[] = {
    {QB_AUDIO_SRC_ANALOG,
     {port_route(FPGA_SRC_PCM1804), port_route(FPGA_SRC_PCM1804), port_route(FPGA_SRC_PCM1804),
      port_route(FPGA_SRC_PCM1804)}},
    // HDMI goes through the DSP on boards 1 and 3.
    {QB_AUDIO_SRC_HDMI,
     {port_route_via_dsp(), port_if_stereo(QB_AUDIO_CHN_VIDEO, FPGA_SRC_HDMI_IN),
      port_route_via_dsp(), port_if_stereo(QB_AUDIO_CHN_VIDEO, FPGA_SRC_HDMI_IN)}},
    {QB_AUDIO_SRC_SPDIF, {port_mute(), port_mute(), port_mute(), port_mute()}},
    {QB_AUDIO_SRC_EARC,
     {port_mute(), port_if_stereo(QB_AUDIO_CHN_EARC, FPGA_SRC_IT6620),
      port_if_stereo(QB_AUDIO_CHN_EARC, FPGA_SRC_IT6620),
      port_if_stereo(QB_AUDIO_CHN_EARC, FPGA_SRC_IT6620)}},
    {QB_AUDIO_SRC_STREAM,
     {port_unmute_stream(), port_stream(), port_stream(), port_stream()}},
    {PORT_OTHER_SOURCE, {port_refuse(), port_refuse(), port_refuse(), port_refuse()}},
};

}  // namespace

int qb_audio_analog_init(void) { return 1; }
int qb_audio_analog_uninit(void) { return 1; }

int qb_audio_analog_output_src_select(int src, int sid) {
  return port_select(kAnalogOutput, kAnalogTable,
                     static_cast<int>(sizeof kAnalogTable / sizeof kAnalogTable[0]), src, sid);
}
