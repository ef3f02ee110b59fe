// eARC/ARC output: route register 0x10, with the eARC transmitter's channel-status bytes. Its
// source selection is the output's column of the selection table (qb_audio_port_table.cpp).
#include "qb_audio_earc.h"

#include "qb_audio_misc_output.h"
#include "qb_audio_port_table.h"

int qb_audio_earc_init(void) { return 1; }
int qb_audio_earc_uninit(void) { return 1; }

int qb_audio_earc_output_src_select(int src, int sid) {
  return port_output_select(QB_AUDIO_OUTPUT_EARC, src, sid);
}
