// S/PDIF output: route register 0x18, with the S/PDIF transmitter's channel-status bytes. Its
// source selection is the output's column of the selection table (qb_audio_port_table.cpp).
#include "qb_audio_spdif.h"

#include "am_log.h"
#include "qb_audio_misc_output.h"
#include "qb_audio_port_table.h"

namespace {
constexpr int kBoardTxA = 1;
}  // namespace

int qb_audio_spdif_init(void) { return 1; }
int qb_audio_spdif_uninit(void) { return 1; }

int qb_audio_spdif_output_src_select(int src, int sid) {
  if (port_board_index() == kBoardTxA) {
    AM_LOG_INFO("qb_audio_spdif_output_src_select_txa sel = %d,streamId = %d", src, sid);
  }
  return port_output_select(QB_AUDIO_OUTPUT_SPDIF, src, sid);
}
