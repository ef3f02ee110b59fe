// S/PDIF output: route register 0x18, with the S/PDIF transmitter's channel-status bytes.
#include "qb_audio_spdif.h"

#include "am_log.h"
#include "qb_audio_misc.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_port_table.h"

namespace {

constexpr port_output_t kSpdifOutput = {FPGA_REG_ROUTE_SPDIF_OUT, qb_audio_fpga_spdif_chs_write,
                                        spdif_output_mute, spdif_output_unmute};

// Cells in board order: board 1, board 2, board 3, board 4. Board 2 has no S/PDIF output.
constexpr port_row_t kSpdifTable[] = {
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
     {port_stream_or_mute(), port_mute(), port_stream_or_mute(), port_stream_or_mute()}},
    // DSP and any other source.
    {PORT_OTHER_SOURCE, {port_refuse(), port_refuse(), port_refuse(), port_refuse()}},
};

constexpr int kBoardTxA = 1;

}  // namespace

int qb_audio_spdif_init(void) { return 1; }
int qb_audio_spdif_uninit(void) { return 1; }

int qb_audio_spdif_output_src_select(int src, int sid) {
  if (port_board_index() == kBoardTxA) {
    AM_LOG_INFO("qb_audio_spdif_output_src_select_txa sel = %d,streamId = %d", src, sid);
  }
  return port_select(kSpdifOutput, kSpdifTable,
                     static_cast<int>(sizeof kSpdifTable / sizeof kSpdifTable[0]), src, sid);
}
