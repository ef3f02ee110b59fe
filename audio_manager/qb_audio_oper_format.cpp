// The receiver's output decisions on a new stream format.
#include "qb_audio_oper_format.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "Edid_Parser.h"
#include "am_log.h"
#include "posix_system.h"
#include "qb_audio_misc_bridge.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_oper_report.h"
#include "qb_audio_oper_switch.h"
#include "qb_audio_parse.h"
#include "qb_audio_stream.h"

namespace {

constexpr const char* kCodecMute = "/customer/bin/audio_codec -v 0";
constexpr const char* kCodecVolume = "/customer/bin/audio_codec -v %d";
constexpr int kStreamOutputMode = 4;
constexpr int kNoFallback = -1;
constexpr qb_u8_t kHbrRateCode = 9;
// Mix type of each sink capability but DTS-HD.
struct edid_mix_t {
  E_Audio_Format format;
  MIX_AUD_E mix;
};
constexpr edid_mix_t kEdidMixTypes[] = {
    {ENUM_DTS, MIX_AUD_DTS},    {ENUM_AC3, MIX_AUD_AC3}, {ENUM_DDP, MIX_AUD_DDP},
    {ENUM_MAT, MIX_AUD_TRUEHD}, {ENUM_AAC, MIX_AUD_AAC},
};
// Bridge link state in which the eARC output's decision is made.
constexpr int kBridgeStateDecide = 2;
// Length of the channel-status record sent to the eARC bridge.
constexpr int kEarcChannelStatusSize = 6;

int load_edid_file(T_Edid_Audio_Info_* list) {
  EdidParser parser;
  if (parser.init(EDID_TV_FILE_PATH) != 1) {
    return 0;
  }
  parser.getEdidAudioInfo(list);
  return 1;
}

// The decision's collaborators, bound at link time: a missing one is a link error. Tests install
// a record of their own with qb_audio_new_format_ops_set.
constexpr qb_audio_new_format_ops_t kDefaultOps = {
    set_update_chs_or,       set_avp_hdmi_out_audio_param,
    get_it6621_status,       it6621_channel_state_set,
    set_output_hdmi_stream,  set_output_earc_stream,
    set_output_spdif_stream, reportDetailsAudioStatus,
    load_edid_file,          posix_system,
};

std::atomic<const qb_audio_new_format_ops_t*> g_ops{&kDefaultOps};

const qb_audio_new_format_ops_t& ops() { return *g_ops.load(); }

void update_chs_or(int bit) {
  if (ops().set_update_chs_or != nullptr) {
    ops().set_update_chs_or(bit);
  }
}

void avp_param(qb_audio_info_t* record) {
  if (ops().set_avp_hdmi_out_audio_param != nullptr) {
    ops().set_avp_hdmi_out_audio_param(record);
  }
}

qb_u8_t u8(qb_s8_t v) { return static_cast<qb_u8_t>(v); }

// Whether the eARC or S/PDIF output needs its fallback for the record; `support` is the
// pass-through test of that output.
bool output_needs_fallback(const qb_audio_info* ainfo, bool (*support)(int), const char* support_name) {
  const qb_u8_t kind = u8(ainfo->ChStat[1]);
  if (kind == 2) {
    return true;
  }
  if (kind == 1) {
    const int code = u8(ainfo->AUD_DB[0]);
    const bool supported = support(code);
    AM_LOG_INFO("dts-- dsp audio type value:%d %s:%d", code, support_name, supported ? 1 : 0);
    if (!supported) {
      return true;
    }
  }
  if (kind == 0 && u8(ainfo->ChStat[2]) >= 3) {
    return true;
  }
  // Channel-status byte 3 equal to 9 marks a high-bit-rate stream.
  return u8(ainfo->ChStat[3]) == kHbrRateCode;
}

// An output that can switch between its normal and its fallback stream.
struct output_rule_t {
  int (*listened)(void);  // source number the output listens to
  int (*fed)(void);       // source number fed to it now
  int (*fallback)(void);  // fallback stream, -1 for none
  int (*normal)(void);    // normal stream
  int (*mode)(void);      // 0 normal, 1 fallback
  int change_bit;
  int (*qb_audio_new_format_ops_t::*switch_to)(int mode, unsigned sid);
  const char* no_fallback_log;  // source number, 4, mode
  const char* fallback_log;     // logged with the fallback stream after a switch to it, or null
  bool (*support)(int code);    // pass-through test (eARC and S/PDIF)
  const char* support_name;
  bool needs_bridge;  // decided only in the bridge's link state 2, and told the channel status
};

// clang-format off
constexpr output_rule_t kHdmiRule = {
    qb_misc_audio_saiid_hdmi_get, qb_msic_net_stream_in_hdmi_get, qb_misc_audio_fallback_sid_hdmi_get,
    qb_misc_audio_sid_hdmi_get, get_output_hdmi_stream_mode, QB_REPORT_PORT_HDMI,
    &qb_audio_new_format_ops_t::set_output_hdmi_stream, " saiSrc=%d ,  %d ; hdmi stream mode = %d --[%s:%u]",
    "switch to fallback:%d --[%s:%u]", nullptr, nullptr, false};
constexpr output_rule_t kEarcRule = {
    qb_misc_audio_saiid_earc_get, qb_msic_net_stream_in_earc_get, qb_misc_audio_fallback_sid_earc_get,
    qb_misc_audio_sid_earc_get, get_output_earc_stream_mode, QB_REPORT_PORT_EARC,
    &qb_audio_new_format_ops_t::set_output_earc_stream, " saiSrc=%d , %d ; earc stream mode = %d --[%s:%u]",
    nullptr, arc_is_support, "arcSupport", true};
constexpr output_rule_t kSpdifRule = {
    qb_misc_audio_saiid_spdif_get, qb_msic_net_stream_in_spdif_get, qb_misc_audio_fallback_sid_spdif_get,
    qb_misc_audio_sid_spdif_get, get_output_spdif_stream_mode, QB_REPORT_PORT_SPDIF,
    &qb_audio_new_format_ops_t::set_output_spdif_stream, " saiSrc=%d ,  %d ; spdif stream mode = %d --[%s:%u]",
    nullptr, spdif_is_support, "spdifSupport", false};
// clang-format on

// Marks the output changed; false (logged) when it has no fallback stream to decide about.
bool has_fallback(const output_rule_t& out, int src) {
  update_chs_or(out.change_bit);
  if (out.fallback() != kNoFallback) {
    return true;
  }
  am_log_write(AM_LOG_LEVEL_INFO, out.no_fallback_log, src, kStreamOutputMode, out.mode(), AM_LOG_FILE,
               static_cast<unsigned>(__LINE__));
  return false;
}

// Switches the output to its fallback stream when needed, back to its normal stream when not.
void apply_fallback(const output_rule_t& out, bool needed) {
  const int mode = out.mode();
  int (*switch_to)(int, unsigned) = ops().*out.switch_to;
  if (switch_to == nullptr) {
    return;
  }
  if (needed && mode == QB_OUTPUT_STREAM_MODE_NORMAL) {
    const int fallback = out.fallback();
    switch_to(QB_OUTPUT_STREAM_MODE_FALLBACK, static_cast<unsigned>(fallback));
    if (out.fallback_log != nullptr) {
      am_log_write(AM_LOG_LEVEL_INFO, out.fallback_log, fallback, AM_LOG_FILE, static_cast<unsigned>(__LINE__));
    }
  } else if (!needed && mode == QB_OUTPUT_STREAM_MODE_FALLBACK) {
    switch_to(QB_OUTPUT_STREAM_MODE_NORMAL, static_cast<unsigned>(out.normal()));
  }
}

// HDMI output: direct, or its fallback when the sink cannot take the format.
void decide_hdmi(int src, qb_audio_info_t* record) {
  const int listened = kHdmiRule.listened();
  if (listened != src) {
    if (kHdmiRule.fed() == src) {
      avp_param(record);
    }
    return;
  }
  if (!has_fallback(kHdmiRule, src)) {
    avp_param(record);
    apply_fallback(kHdmiRule, false);
    return;
  }
  const int downmix = hdmi_output_needs_fallback(&record->ainfo);
  AM_LOG_INFO("s32Downmix=%d", downmix);
  apply_fallback(kHdmiRule, downmix == 1);
  if (downmix != 1) {
    avp_param(record);
    AM_LOG_INFO(" s32Downmix = %d output_hdmi_stream_mode = %d", downmix, kHdmiRule.mode());
  }
  AM_LOG_INFO("saiSrc=%d hdmi saiSrc =%d hdmi stream mode = %d", src, listened, kHdmiRule.mode());
}

void send_earc_channel_status(qb_audio_oper_ctrl_t* ctrl, const qb_audio_info& ainfo) {
  qb_u8_t record[kEarcChannelStatusSize];
  for (int i = 0; i < 5; ++i) {
    record[i] = u8(ainfo.ChStat[i]);
  }
  record[5] = u8(ainfo.AUD_DB[3]);
  if (ops().it6621_channel_state_set != nullptr) {
    ops().it6621_channel_state_set(record, kEarcChannelStatusSize);
  }
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  ctrl->runtime = static_cast<long>(now.tv_sec);
}

bool bridge_ready() {
  const int state = ops().get_it6621_status != nullptr ? ops().get_it6621_status() : -1;
  AM_LOG_INFO("it6621 status:%d", state);
  return state == kBridgeStateDecide;
}

// eARC and S/PDIF outputs: direct, or their fallback when they cannot pass the format through.
void decide_pass_through(qb_audio_oper_ctrl_t* ctrl, const output_rule_t& out, int src, const qb_audio_info_t* record) {
  if (out.listened() != src) {
    return;
  }
  if (!has_fallback(out, src)) {
    apply_fallback(out, false);
  } else if (!out.needs_bridge || bridge_ready()) {
    apply_fallback(out, output_needs_fallback(&record->ainfo, out.support, out.support_name));
  }
  if (out.needs_bridge && out.fed() == src) {
    send_earc_channel_status(ctrl, record->ainfo);
  }
}

// Analog output: muted for anything but stereo LPCM. False when the codec command failed.
bool decide_analog(int src, const qb_audio_info_t* record) {
  if (qb_misc_audio_saiid_analog_get() != src) {
    return true;
  }
  update_chs_or(QB_REPORT_PORT_ANALOG);
  char command[64];
  if (is_qb_audio_output_mute(&record->ainfo)) {
    AM_LOG_INFO("analog_output_mute() ");
    analog_output_mute();
    snprintf(command, sizeof(command), "%s", kCodecMute);
  } else if (get_output_analog_mute() == 0) {
    AM_LOG_INFO("analog_output_unmute()");
    analog_output_unmute();
    snprintf(command, sizeof(command), kCodecVolume, static_cast<int>(analog_volume_get()));
  } else {
    return true;
  }
  const int ret = ops().system != nullptr ? ops().system(command) : 0;
  if (ret < 0) {
    AM_LOG_ERROR("%s, system[%s] fail", "audio_head_oper", command);
    return false;
  }
  return true;
}

// The channel record of a stream (1..3) from an arriving header.
qb_audio_info_t record_from_head(int stream, const audio_transport_head_t* head) {
  qb_audio_info_t record;
  memset(&record, 0, sizeof(record));
  record.ch = QB_AUDIO_CHN_NSI1 + (stream - 1);
  qb_audio_info& a = record.ainfo;
  a.Audio_On = 1;
  a.SampleFrequency = static_cast<qb_s8_t>(head->Sample_Frequency);
  a.ValidCh = static_cast<qb_s8_t>(head->Channels);
  a.SampleSize = static_cast<qb_s8_t>(head->Sample_Size);
  a.io_in_use = static_cast<qb_s8_t>(AUDIO_HEAD_IO_IN_USE);
  a.Audio_Type = static_cast<qb_s8_t>(head->Audio_Type);
  a.bSPDIF = static_cast<qb_s8_t>(head->SPDIF);
  memcpy(a.AUD_DB, head->Audio_Info_Frame, sizeof(a.AUD_DB));
  memcpy(a.ChStat, head->IEC60958_Channel_Stats, sizeof(a.ChStat));
  return record;
}

}  // namespace

void qb_audio_new_format_ops_set(const qb_audio_new_format_ops_t* ops_in) {
  g_ops.store(ops_in != nullptr ? ops_in : &kDefaultOps);
}

int get_aud_cap(E_Audio_Format format, qb_u8_t bitFlag) {
  if (format == ENUM_DTS_HD) {  // flag bits 2, 1 and 0 name the profiles above plain DTS-HD
    return bitFlag & 0x04   ? MIX_AUD_HDX2
           : bitFlag & 0x02 ? MIX_AUD_HDX
           : bitFlag & 0x01 ? MIX_AUD_DTDHDMA
                            : MIX_AUD_DTSHD;
  }
  for (const auto& row : kEdidMixTypes) {
    if (row.format == format) {
      return row.mix;
    }
  }
  return MIX_AUD_INVALID;
}

int aud_support(int wanted, const T_Edid_Audio_Info_* list) {
  if (list == nullptr || wanted < MIX_AUD_AAC || wanted > MIX_AUD_HDX2) {
    return 0;
  }
  // The DTS family takes any sink capability of the family at least as high; the others an equal one.
  const bool dts_family = wanted >= MIX_AUD_DTS;
  const unsigned count = std::min<unsigned>(list->u8AudioInfoNum, EDID_AUDIO_INFO_MAX_NUM);
  for (unsigned i = 0; i < count; ++i) {
    const T_Audio_Info& e = list->ptAudioInfo[i];
    const int cap = get_aud_cap(e.eAudioFomat, static_cast<qb_u8_t>(e.u8BitFlag));
    if (!dts_family && cap == wanted) {
      return 1;
    }
    if (dts_family && cap != MIX_AUD_INVALID && cap >= wanted) {
      AM_LOG_INFO("eType=%d eAudType=%d", static_cast<int>(e.eAudioFomat), wanted);
      return 1;
    }
  }
  return 0;
}

int hdmi_output_needs_fallback(const qb_audio_info* ainfo) {
  T_Edid_Audio_Info_ list;
  memset(&list, 0, sizeof(list));
  if (ops().load_edid_audio == nullptr || ops().load_edid_audio(&list) != 1) {
    AM_LOG_ERROR("load edid file /tmp/tv.edid.bin err");
    return 0;
  }
  const unsigned count = std::min<unsigned>(list.u8AudioInfoNum, EDID_AUDIO_INFO_MAX_NUM);
  for (unsigned i = 0; i < count; ++i) {
    AM_LOG_INFO("monitor edid audio support type[%d]=0x%x u8bit=0x%x", static_cast<int>(i),
                static_cast<unsigned>(list.ptAudioInfo[i].eAudioFomat), list.ptAudioInfo[i].u8BitFlag);
  }
  const int code = u8(ainfo->AUD_DB[0]);
  const int mix = get_audio_type_from_dsp(code);
  AM_LOG_INFO("dts-- dsp audio type value:%d, MIX TYPE:%d", code, mix);
  if (mix == MIX_AUD_INVALID) {
    AM_LOG_WARN("cannot get audio fromat form AUD_DB of dsp");
    return 0;
  }
  const qb_u8_t kind = u8(ainfo->ChStat[1]);
  if (kind == 0) {
    for (unsigned i = 0; i < count; ++i) {
      const T_Audio_Info& e = list.ptAudioInfo[i];
      if (e.eAudioFomat != ENUM_LPCM) {
        continue;
      }
      const int stream_flag = get_audio_samplerate(u8(ainfo->SampleFrequency));
      AM_LOG_INFO("lpcm tv[maxchannel:%u,sample:%d] audio[channel:%d,sample:%d]", e.u8MaxChannels,
                  static_cast<int>(e.eSampleRateFlags), u8(ainfo->ValidCh), stream_flag);
      if (u8(ainfo->ValidCh) <= e.u8MaxChannels) {
        return static_cast<int>(e.eSampleRateFlags) < stream_flag ? 1 : 0;
      }
      return 1;
    }
    return 1;
  }
  if (kind == 1 || kind == 2) {
    return aud_support(mix, &list) == 0 ? 1 : 0;
  }
  if (kind == 3) {
    return 0;
  }
  AM_LOG_ERROR("invalid channel state:0x%x", kind);
  return 0;
}

int qb_audio_oper_new_format(qb_audio_oper_ctrl_t* ctrl, const audio_transport_head_t* head) {
  const int stream = ctrl->file_param_num >= 1 && ctrl->file_param_num <= 3 ? ctrl->file_param_num : 3;
  const int src = 3 + stream;  // matrix source of the stream: 4, 5, 6
  input_mute_ctrl(6 + stream, 1);
  qb_audio_info_t record = record_from_head(stream, head);
  AM_LOG_INFO("aplay head change,sf:%d,chn:%d,ss:%d", head->Sample_Frequency, head->Channels, head->Sample_Size);
  AM_LOG_INFO("saiSrc=%d hdmiSrc=[%d:%d] earcSrc=[%d:%d] spdifSrc=[%d:%d]", src, qb_msic_net_stream_in_hdmi_get(),
              qb_misc_audio_saiid_hdmi_get(), qb_msic_net_stream_in_earc_get(), qb_misc_audio_saiid_earc_get(),
              qb_msic_net_stream_in_spdif_get(), qb_misc_audio_saiid_spdif_get());
  decide_hdmi(src, &record);
  decide_pass_through(ctrl, kEarcRule, src, &record);
  decide_pass_through(ctrl, kSpdifRule, src, &record);
  if (!decide_analog(src, &record)) {
    return 0;
  }
  audio_info_head_set(ctrl, &record.ainfo);
  qb_audio_channel_state_set(record.ch, &record.ainfo);
  if (ops().reportDetailsAudioStatus != nullptr) {
    ops().reportDetailsAudioStatus(0);
  }
  AM_LOG_INFO("new audio head, aborting");
  qb_audio_oper_abort(ctrl);
  return 1;
}
