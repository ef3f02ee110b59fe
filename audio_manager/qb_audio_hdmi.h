// HDMI output (route register 0x12): source selection per board.
#pragma once

int qb_audio_hdmi_init(void);
int qb_audio_hdmi_uninit(void);
int qb_audio_hdmi_output_src_select(int src, int sid);
