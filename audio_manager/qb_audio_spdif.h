// S/PDIF output (route register 0x18, with channel status): source selection per board.
#pragma once

int qb_audio_spdif_init(void);
int qb_audio_spdif_uninit(void);
int qb_audio_spdif_output_src_select(int src, int sid);
