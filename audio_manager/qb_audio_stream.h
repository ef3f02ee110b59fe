// Network outputs and the per-output stream selection: which local source each network output
// stream captures, which network input stream feeds each local output. The routing state these
// selections keep (fallbacks, modes, downmix, the analog output's local-port record) has its
// accessors in qb_audio_misc_output.h.
#pragma once

#include "qb_audio_misc_output.h"

// Outputs of qb_audio_stream_input_select: QB_AUDIO_OUTPUT_* (qb_audio_misc_output.h).

int qb_audio_stream_init(void);
int qb_audio_stream_uninit(void);

// Network output stream sid captures the source. 1/0.
int qb_audio_stream_output_src_select(int src, int sid);
// Output 0-3 plays network stream sid, falling back to fallback. 1/0.
int qb_audio_stream_input_select(int output, int sid, int fallback);
int qb_audio_stream_input_fallback_select(int output);
