// The audio thread manager (first cut: entry points only; the workers follow).
#include "qb_audio_aplay.h"

namespace {
qb_audio_aplay_main_ctrl_t g_aplay;
}  // namespace

qb_audio_aplay_main_ctrl_t* qb_audio_aplay_ctrl_get() { return &g_aplay; }

int qb_audio_aplay_init() { return 1; }
int qb_audio_aplay_uninit() { return 0; }
int qb_audio_aplay_playback_init() { return 1; }
int qb_audio_aplay_capture_init() { return 1; }
int qb_audio_aplay_playback_uninit() { return 1; }
int qb_audio_aplay_capture_uninit() { return 1; }

void qb_audio_aplay_in_abort_capture1() { g_aplay.cctrl[0].in_aborting.store(1); }
void qb_audio_aplay_in_abort_capture3() { g_aplay.cctrl[1].in_aborting.store(1); }
void qb_audio_aplay_in_abort_capture5() { g_aplay.cctrl[2].in_aborting.store(1); }
void qb_audio_aplay_in_abort_playback1() { g_aplay.pctrl[0].in_aborting.store(1); }
void qb_audio_aplay_in_abort_playback3() { g_aplay.pctrl[1].in_aborting.store(1); }
void qb_audio_aplay_in_abort_playback5() { g_aplay.pctrl[2].in_aborting.store(1); }
void qb_audio_aplay_info_change_set(int) {}
void dump_aplay_param(FILE*) {}
void dump_capture_param(FILE*) {}
void dump_playback_param(FILE*) {}
