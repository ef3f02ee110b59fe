// eARC/ARC output (route register 0x10, with channel status): source selection per board.
#pragma once

int qb_audio_earc_init(void);
int qb_audio_earc_uninit(void);
int qb_audio_earc_output_src_select(int src, int sid);
