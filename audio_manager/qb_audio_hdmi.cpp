// HDMI output: route register 0x12, no channel-status bytes.
#include "qb_audio_hdmi.h"

#include "qb_audio_misc.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_port_table.h"

namespace {

constexpr port_output_t kHdmiOutput = {FPGA_REG_ROUTE_HDMI_OUT, nullptr, hdmi_output_mute,
                                       hdmi_output_unmute};

// Cells in board order: board 1, board 2, board 3, board 4. Board 1 routes nothing to HDMI.
constexpr port_row_t kHdmiTable[] = {
    {QB_AUDIO_SRC_ANALOG,
     {port_mute(), port_route(FPGA_SRC_PCM1804), port_route(FPGA_SRC_PCM1804),
      port_route(FPGA_SRC_PCM1804)}},
    {QB_AUDIO_SRC_HDMI,
     {port_mute(), port_route(FPGA_SRC_HDMI_IN), port_route(FPGA_SRC_HDMI_IN),
      port_route(FPGA_SRC_HDMI_IN)}},
    {QB_AUDIO_SRC_SPDIF, {port_mute(), port_mute(), port_mute(), port_mute()}},
    {QB_AUDIO_SRC_EARC,
     {port_mute(), port_route(FPGA_SRC_IT6620), port_route(FPGA_SRC_IT6620),
      port_route(FPGA_SRC_IT6620)}},
    {QB_AUDIO_SRC_STREAM,
     {port_mute(), port_stream_or_mute(), port_stream_or_mute(), port_stream_or_mute()}},
    // DSP and any other source.
    {PORT_OTHER_SOURCE, {port_refuse(), port_refuse(), port_refuse(), port_refuse()}},
};

}  // namespace

int qb_audio_hdmi_init(void) { return 1; }
int qb_audio_hdmi_uninit(void) { return 1; }

int qb_audio_hdmi_output_src_select(int src, int sid) {
  return port_select(kHdmiOutput, kHdmiTable,
                     static_cast<int>(sizeof kHdmiTable / sizeof kHdmiTable[0]), src, sid);
}
