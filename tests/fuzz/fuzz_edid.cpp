// Any bytes as the monitor's EDID file "/tmp/tv.edid.bin": the EDID reader and its audio list, and
// the daemon's decisions that consume it (whether the HDMI output needs its fallback stream for a
// new format, and the stream or fallback choice when a monitor connects) for a few stream kinds.
#include <cstdint>
#include <string>

#include "Edid_Parser.h"
#include "fuzz_board.h"
#include "qb_audio_misc.h"
#include "qb_audio_misc_bridge.h"
#include "qb_audio_oper_format.h"
#include "qb_audio_stream.h"

namespace {

constexpr int kHdmiSid = 1, kHdmiFallbackSid = 2;
// Audio_On, rate code, channels, size, io, up, down, 16-bit, type, S/PDIF, AUD_DB (decoder code
// first), ChStat (byte 1: 0 LPCM, 1 compressed, 2 compressed HBR, 3 one-bit).
const qb_audio_info kRecords[] = {
    {1, 2, 2, 24, 2, 0, 0, 0, -128, 0, {0, 0, 0, 0, 0}, {0, 0, 0, 2, 0}},        // LPCM 2ch 48 kHz
    {1, 14, 8, 24, 2, 0, 0, 0, -128, 0, {0, 0, 0, 0x13, 0}, {0, 0, 0, 14, 0}},   // LPCM 8ch 192 kHz
    {1, 2, 2, 16, 2, 0, 0, 0, -112, 1, {2, 0, 0, 0, 0}, {2, 1, 0, 2, 0}},        // AC-3
    {1, 9, 8, 24, 2, 0, 0, 0, -64, 0, {30, 0, 0, 0, 0}, {2, 2, 0, 9, 0}},        // DTS-HD MA, HBR
    {1, 2, 2, 24, 2, 0, 0, 0, -96, 0, {0, 0, 0, 0, 0}, {0, 3, 0, 2, 0}},         // one-bit
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz_board::setup();
  qb_bridge_edid_wait_ms_set(0);
  qb_audio_misc_init();
  qb_audio_stream_input_select(QB_AUDIO_OUTPUT_HDMI, kHdmiSid, kHdmiFallbackSid);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz_board::write(EDID_TV_FILE_PATH, std::string(reinterpret_cast<const char*>(data), size));
  EdidParser parser;
  T_Edid_Audio_Info_ list{};
  if (parser.init(EDID_TV_FILE_PATH) == 1) parser.getEdidAudioInfo(&list);
  const int hdmi_channel = qb_misc_audio_get_chn_saiid_by_sid(kHdmiSid);
  for (const qb_audio_info& rec : kRecords) {
    (void)hdmi_output_needs_fallback(&rec);
    qb_audio_channel_state_set(hdmi_channel, &rec);
    set_hdmi_monitor_status(0);
    set_hdmi_monitor_status(QB_HDMI_MONITOR_CONNECTED);
  }
  return 0;
}
