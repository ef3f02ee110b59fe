// Messages to the bridge, video processor and scaler services, and the two decisions taken on the
// output bridge's mode and the HDMI monitor's state.
#include "qb_audio_misc_bridge.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "Edid_Audio_Info.h"
#include "Edid_Parser.h"
#include "am_log.h"
#include "am_platform.h"
#include "qb_audio_aplay.h"
#include "qb_audio_earc.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_misc_private.h"
#include "qb_audio_oper_format.h"
#include "qb_audio_oper_packet.h"
#include "qb_audio_oper_switch.h"
#include "qb_audio_stream.h"
#include "qb_peer_send.h"
#include "qb_tlv_box.h"

namespace {

// Outer type, key and sender of the messages to the scaler and the video processor (the
// bridges' outer types are TLV_OUTER_TYPE_IT6620 and TLV_OUTER_TYPE_IT6621 of the TLV library).
struct peer_message_t {
  qb_s32_t outer_type;
  qb_s32_t key;
  int (*send)(const void* buffer, int size);
};
constexpr peer_message_t kMdinAudioSwitch = {6, 0x80009, qb_cmd_send_to_mdin};
constexpr peer_message_t kAvpHdmiOutAudio = {3, 0x80802, qb_cmd_send_to_avp};
constexpr qb_s32_t kIt6621KeyChannelStatus = 0x10002;
constexpr int kIt6621ChannelStatusLen = 6;

// Texts sent without a terminator.
constexpr const char kMdinAudioSwitchText[] = "switch audio";
constexpr const char kAvpHdmiOutSrcText[] = "{\"hdmi_out_audio_src\":\"multi-channel-local\"}";
// Longest HDMI-output-format text.
constexpr int kAvpParamTextMax = 255;

// Output bridge modes.
constexpr int kIt6621ModeEarc = 1;
constexpr int kIt6621ModeArc = 2;

// HDMI output format text sent to the video processor.
constexpr const char* kAvpParamFormat =
    "{\"hdmi_out_audio_sampling_frequency\":%d,\"hdmi_out_audio_number_of_channels\":%d,"
    "\"hdmi_out_audio_channel_allocation\":%d,\"hdmi_out_audio_audio_encoding_type\":\"%s\"}";
constexpr const char* kEncodingLpcm = "LPCM";
constexpr const char* kEncodingHbr = "ENCODED_HBR";
constexpr const char* kEncodingOther = "ENCODED_OTHER";

// The video processor plays a sample-frequency code the PCM devices do not take as 48000.
constexpr int kAvpDefaultHz = 48000;

// Channel-status byte 3 value of a high-bit-rate stream.
constexpr qb_u8_t kChStatHbr = 9;
void send_text(const peer_message_t& message, const char* text, size_t length) {
  (void)tlv_packet(message.outer_type, message.key, text, static_cast<qb_s32_t>(length),
                   message.send);
}

// Channel-status byte 1 values: LPCM, compressed, high bit rate (1, 2) and one-bit audio.
enum chstat_kind_e : qb_u8_t { kChStatLpcm, kChStatCompressed, kChStatCompressedHbr, kChStatOneBit };
// Byte 4 of the InfoFrame: the CEA-861 channel allocation.
constexpr int kAudDbAllocation = 3;

constexpr int kNoFallback = -1;

qb_u8_t u8(qb_s8_t v) { return static_cast<qb_u8_t>(v); }

qb_audio_misc_main_ctrl_t& misc() { return qb_audio_misc_ctrl(); }

int avp_frequency(int code) {
  int hz = kAvpDefaultHz;
  if (!misc_playable_hz(code, &hz)) {
    AM_LOG_ERROR("unknown audio sample frequency:%d, using default 48000", code);
  }
  return hz;
}

unsigned edid_entries(const T_Edid_Audio_Info_& list) {
  return list.u8AudioInfoNum < EDID_AUDIO_INFO_MAX_NUM ? list.u8AudioInfoNum : EDID_AUDIO_INFO_MAX_NUM;
}

// Whether an ARC link cannot carry what stream 0 plays, so the eARC output takes stream 2.
bool sai1_needs_earc(const qb_audio_info& rec) {
  const qb_u8_t kind = u8(rec.ChStat[1]);
  const qb_u8_t rate = u8(rec.ChStat[2]);
  return kind == 2 || u8(rec.ChStat[3]) == kChStatHbr || rate == 8 || (kind == 0 && rate > 2) ||
         (kind == 1 && rate > 6);
}

// Moves the eARC output's network input (sai1 for stream 0, sai3 for stream 2); the route is
// rewritten from the configured stream.
void earc_switch(qb_s32_t nsi, int changed_channel, const char* message) {
  misc_word_set(misc().nsi.earc, nsi);
  qb_audio_earc_output_src_select(QB_AUDIO_SRC_STREAM, qb_misc_audio_sid_earc_get());
  AM_LOG_INFO("%s", message);
  qb_audio_aplay_info_change_set(changed_channel);
}

// Loads the monitor's audio list. False when the file cannot be loaded.
bool load_monitor_edid(T_Edid_Audio_Info_* list) {
  if (access(am_path(EDID_TV_FILE_PATH).c_str(), F_OK) != 0) {
    usleep(static_cast<useconds_t>(qb_audio_misc_module().edid_wait_ms.load()) * 1000u);
  }
  EdidParser parser;
  if (parser.init(EDID_TV_FILE_PATH) != 1) {
    AM_LOG_ERROR("load edid file /tmp/tv.edid.bin err");
    return false;
  }
  parser.getEdidAudioInfo(list);
  for (unsigned i = 0; i < edid_entries(*list); ++i) {
    AM_LOG_INFO("monitor edid audio support type[%d]=0x%x u8bit=0x%x", static_cast<int>(i),
                static_cast<unsigned>(list->ptAudioInfo[i].eAudioFomat),
                list->ptAudioInfo[i].u8BitFlag);
  }
  return true;
}

// Whether the monitor can play an LPCM record: its first LPCM entry must allow the channel count
// and a rate mask at least as high as the record's.
bool monitor_takes_lpcm(const qb_audio_info& rec, const T_Edid_Audio_Info_& list) {
  for (unsigned i = 0; i < edid_entries(list); ++i) {
    const T_Audio_Info& entry = list.ptAudioInfo[i];
    if (entry.eAudioFomat != ENUM_LPCM) {
      continue;
    }
    const int rate = get_audio_samplerate1(u8(rec.SampleFrequency));
    AM_LOG_INFO("lpcm tv[maxchannel:%u,sample:%d] audio[channel:%d,sample:%d]",
                entry.u8MaxChannels, static_cast<int>(entry.eSampleRateFlags), u8(rec.ValidCh),
                rate);
    return u8(rec.ValidCh) <= entry.u8MaxChannels &&
           static_cast<qb_u32_t>(rate) <= static_cast<qb_u32_t>(entry.eSampleRateFlags);
  }
  return false;
}

// Whether the monitor can play the record of the HDMI output's stream. Unknown when the record's
// decoder code is unusable (no decision is taken then).
enum monitor_verdict_e { MONITOR_SUPPORTED, MONITOR_UNSUPPORTED, MONITOR_UNKNOWN };

monitor_verdict_e monitor_verdict(const qb_audio_info& rec, const T_Edid_Audio_Info_& list) {
  const int code = u8(rec.AUD_DB[0]);
  AM_LOG_INFO("dts-- dsp audio type value:%d", code);
  const int mix = get_audio_type_from_dsp(code);
  AM_LOG_INFO("dts-- dsp audio type value:%d, MIX TYPE:%d", code, mix);
  if (mix == MIX_AUD_INVALID) {
    AM_LOG_WARN("cannot get audio fromat form AUD_DB of dsp");
    return MONITOR_UNKNOWN;
  }
  const qb_u8_t kind = u8(rec.ChStat[1]);
  bool supported = true;
  if (kind == kChStatLpcm) {
    supported = monitor_takes_lpcm(rec, list);
  } else if (kind == kChStatCompressed || kind == kChStatCompressedHbr) {
    supported = aud_support(mix, &list) != 0;
  } else if (kind != kChStatOneBit) {
    AM_LOG_ERROR("invalid channel state:0x%x", kind);
  }
  return supported ? MONITOR_SUPPORTED : MONITOR_UNSUPPORTED;
}

// A newly connected monitor: the HDMI output plays its stream when the monitor takes it, else its
// fallback.
void decide_hdmi_on_connect() {
  const int fallback = qb_misc_audio_fallback_sid_hdmi_get();
  if (fallback == kNoFallback) {
    return;
  }
  const int sid = qb_misc_audio_sid_hdmi_get();
  T_Edid_Audio_Info_ list{};
  if (!load_monitor_edid(&list)) {
    return;
  }
  qb_audio_info rec{};
  if (qb_audio_channel_state_copy(qb_misc_audio_get_chn_saiid_by_sid(sid), &rec) != 1) {
    return;
  }
  const monitor_verdict_e verdict = monitor_verdict(rec, list);
  const int mode = get_output_hdmi_stream_mode();
  if (verdict == MONITOR_SUPPORTED && mode == 1) {
    set_output_hdmi_stream(0, static_cast<unsigned>(sid));
  } else if (verdict == MONITOR_UNSUPPORTED && mode == 0) {
    set_output_hdmi_stream(1, static_cast<unsigned>(fallback));
  }
}

}  // namespace

int it6621_channel_state_set(qb_u8_t* buf, int len) {
  if (buf == nullptr || len != kIt6621ChannelStatusLen) {
    return 0;
  }
  AM_LOG_INFO("%s, channel status [%02x,%02x,%02x,%02x,%02x,%02x]", __func__, buf[0], buf[1],
              buf[2], buf[3], buf[4], buf[5]);
  (void)audio_tlv_packet(TLV_OUTER_TYPE_IT6621, kIt6621KeyChannelStatus, buf, len);
  return 1;
}

int send_audio_switch_to_mdin(void) {
  send_text(kMdinAudioSwitch, kMdinAudioSwitchText, sizeof kMdinAudioSwitchText - 1);
  return 1;
}

int set_avp_hdmi_out_audio_src_multi_local(void) {
  send_text(kAvpHdmiOutAudio, kAvpHdmiOutSrcText, sizeof kAvpHdmiOutSrcText - 1);
  AM_LOG_INFO("send to avp:%s", kAvpHdmiOutSrcText);
  misc_word_set(misc().audio_src_multi_channel_local, 1);
  return 1;
}

int set_avp_hdmi_out_audio_src_param(int frequency, int channels, int allocation,
                                     const char* encoding) {
  char text[kAvpParamTextMax + 1] = {};
  std::snprintf(text, sizeof(text), kAvpParamFormat, frequency, channels, allocation,
                encoding != nullptr ? encoding : kEncodingOther);
  send_text(kAvpHdmiOutAudio, text, std::strlen(text));
  AM_LOG_INFO("send to avp:%s", text);
  return 1;
}

int set_avp_hdmi_out_audio_param(qb_audio_info_t* rec) {
  send_audio_switch_to_mdin();
  if (rec == nullptr) {
    return -1;
  }
  const qb_audio_info& a = rec->ainfo;
  const int frequency = avp_frequency(u8(a.SampleFrequency));
  const int channels = u8(a.ValidCh);
  const char* encoding = kEncodingOther;
  int allocation = 0;
  if (u8(a.ChStat[3]) == kChStatHbr) {
    encoding = kEncodingHbr;
  } else if (u8(a.Audio_Type) == QB_AUDIO_TYPE_LPCM) {
    encoding = kEncodingLpcm;
    allocation = u8(a.AUD_DB[kAudDbAllocation]);
  } else if (u8(a.Audio_Type) == QB_AUDIO_TYPE_HBR) {
    encoding = kEncodingHbr;
  }
  if (misc_word_get(misc().audio_src_multi_channel_local) != 0) {
    set_avp_hdmi_out_audio_src_multi_local();
  }
  return set_avp_hdmi_out_audio_src_param(frequency, channels, allocation, encoding);
}

int set_it6621_status(int mode) {
  qb_audio_misc_main_ctrl_t& m = misc();
  const int previous = misc_word_get(m.it6621_mode);
  const int nsi = misc_word_get(m.nsi.earc);
  const bool has_fallback = qb_misc_audio_fallback_sid_earc_get() != kNoFallback;
  if (has_fallback && mode == kIt6621ModeEarc && previous != kIt6621ModeEarc &&
      nsi == FPGA_SRC_SAI3) {
    earc_switch(FPGA_SRC_SAI1, QB_AUDIO_CHN_NSI1,
                "6621 switch to earc mode, earc output switch to sai1");
  } else if (has_fallback && mode == kIt6621ModeArc && previous != kIt6621ModeArc &&
             nsi == FPGA_SRC_SAI1) {
    qb_audio_info rec{};
    if (qb_audio_channel_state_copy(QB_AUDIO_CHN_NSI1, &rec) != 1) {
      AM_LOG_ERROR("get sai1 audio info fail");
    } else {
      AM_LOG_INFO("nsi1 chnstat[0x%02x-0x%02x-0x%02x-0x%02x-0x%02x]", u8(rec.ChStat[0]),
                  u8(rec.ChStat[1]), u8(rec.ChStat[2]), u8(rec.ChStat[3]), u8(rec.ChStat[4]));
      if (sai1_needs_earc(rec)) {
        earc_switch(FPGA_SRC_SAI3, QB_AUDIO_CHN_NSI3, "earc switch to sai3");
      }
    }
  }
  misc_word_set(m.it6621_mode, static_cast<qb_s32_t>(mode));
  return 0;
}

int get_it6621_status(void) { return misc_word_get(misc().it6621_mode); }

int set_hdmi_monitor_status(int state) {
  qb_audio_misc_main_ctrl_t& m = misc();
  const int previous = misc_word_get(m.monitor_status);
  if (state != previous) {
    AM_LOG_INFO("hdmi monitor connected status:%d", state);
    if (state == QB_HDMI_MONITOR_CONNECTED) {
      decide_hdmi_on_connect();
    }
  }
  misc_word_set(m.monitor_status, static_cast<qb_s32_t>(state));
  return 0;
}

int audio_hdmi_audio_on(void) {
  qb_audio_info rec{};
  return qb_audio_channel_state_copy(QB_AUDIO_CHN_VIDEO, &rec) == 1 && rec.Audio_On != 0 ? 1 : 0;
}

void qb_bridge_edid_wait_ms_set(int ms) { qb_audio_misc_module().edid_wait_ms.store(ms < 0 ? QB_EDID_WAIT_DEFAULT_MS : ms); }
