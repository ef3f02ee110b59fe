// eARC/ARC output: route register 0x10, with the eARC transmitter's channel-status bytes.
#include "qb_audio_earc.h"

#include "qb_audio_misc.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_port_table.h"

namespace {

constexpr port_output_t kEarcOutput = {FPGA_REG_ROUTE_EARC_OUT, qb_audio_fpga_earc_chs_write,
                                       earc_output_mute, earc_output_unmute};

// Cells in board order: board 1, board 2, board 3, board 4. Board 2 has no eARC output.
constexpr port_row_t kEarcTable[] = {
    {QB_AUDIO_SRC_ANALOG,
     {port_route(FPGA_SRC_PCM1804), port_mute(), port_route(FPGA_SRC_PCM1804),
      port_route(FPGA_SRC_PCM1804)}},
    {QB_AUDIO_SRC_HDMI,
     {port_route(FPGA_SRC_HDMI_IN), port_mute(), port_route(FPGA_SRC_HDMI_IN),
      port_route(FPGA_SRC_HDMI_IN)}},
    {QB_AUDIO_SRC_SPDIF, {port_mute(), port_mute(), port_mute(), port_mute()}},
    {QB_AUDIO_SRC_EARC,
     {port_mute(), port_mute(), port_route(FPGA_SRC_IT6620), port_route(FPGA_SRC_IT6620)}},
    {QB_AUDIO_SRC_STREAM,
     {port_stream(), port_mute(), port_stream_or_mute(), port_stream_or_mute()}},
    {QB_AUDIO_SRC_DSP, {port_refuse(), port_refuse(), port_refuse(), port_refuse()}},
    {PORT_OTHER_SOURCE, {port_refuse(), port_refuse(), port_refuse(), port_refuse()}},
};

}  // namespace

int qb_audio_earc_init(void) { return 1; }
int qb_audio_earc_uninit(void) { return 1; }

int qb_audio_earc_output_src_select(int src, int sid) {
  return port_select(kEarcOutput, kEarcTable,
                     static_cast<int>(sizeof kEarcTable / sizeof kEarcTable[0]), src, sid);
}
