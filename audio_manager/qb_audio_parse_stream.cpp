// Stream selection and monitor commands.
#include "am_log.h"
#include "qb_audio_parse.h"

namespace {

int not_implemented_yet(const char* name) {
  AM_LOG_WARN("%s: not implemented yet", name);
  return 0;
}

}  // namespace

int input_src_mac_get(const void*, int) { return not_implemented_yet(__func__); }
int input_src_mac_set(const void*, int) { return not_implemented_yet(__func__); }
int stream_input_select_set(const void*, int) { return not_implemented_yet(__func__); }
int stream_input_fromnet_set(const void*, int) { return not_implemented_yet(__func__); }
int stream_output_tonet_set(const void*, int) { return not_implemented_yet(__func__); }
int cec_phyaddr_set(const void*, int) { return not_implemented_yet(__func__); }
int it6621_mode_set(const void*, int) { return not_implemented_yet(__func__); }
int monitor_status_set(const void*, int) { return not_implemented_yet(__func__); }
int stream_input_fallback_select_set(const void*, int) { return not_implemented_yet(__func__); }
int details_audio_status_get(const void*, int) { return not_implemented_yet(__func__); }
int audio_channel_info_note(const void*, int) { return not_implemented_yet(__func__); }
