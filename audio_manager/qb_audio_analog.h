// Analog line output (route register 0x11): source selection per board.
#pragma once

int qb_audio_analog_init(void);
int qb_audio_analog_uninit(void);
// Output-source number and stream id of a network source. 1 handled, 0 refused.
int qb_audio_analog_output_src_select(int src, int sid);
