// The thread manager's singleton with the engine records, and the stop entries through which other
// modules end an engine's current run. Kept apart from the threads (qb_audio_aplay.cpp): the
// modules that stop runs do not depend on the code that runs them.
#include "qb_audio_aplay.h"

#include "qb_audio_misc.h"

namespace {

qb_audio_aplay_main_ctrl_t g_aplay;

}  // namespace

qb_audio_aplay_main_ctrl_t* qb_audio_aplay_ctrl_get() { return &g_aplay; }

void qb_audio_aplay_in_abort_capture1() { qb_audio_oper_abort(&g_aplay.cctrl[0]); }
void qb_audio_aplay_in_abort_capture3() { qb_audio_oper_abort(&g_aplay.cctrl[1]); }
void qb_audio_aplay_in_abort_capture5() { qb_audio_oper_abort(&g_aplay.cctrl[2]); }

void qb_audio_aplay_info_change_set(int channel_id) {
  if (channel_id < QB_AUDIO_CHN_NSI1 || channel_id > QB_AUDIO_CHN_NSI5) {
    return;
  }
  qb_audio_oper_abort(&g_aplay.pctrl[channel_id - QB_AUDIO_CHN_NSI1]);
  qb_audio_channel_state_reset(channel_id);
  qb_misc_audio_status_valid_set(channel_id, 0);
}
