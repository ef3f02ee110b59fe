// The network audio datagram header and the format code tables.
#include "qb_audio_oper_packet.h"

#include <cstring>

#include "am_log.h"
#include "qb_audio_misc.h"
#include "qb_audio_oper.h"

namespace {

// Initial value of the process-wide header change counter, and the value used when it wraps to 0.
constexpr qb_u32_t kChangeCounterInit = 0x123456;
constexpr qb_u32_t kHeadFrom = 3900;

}  // namespace

std::atomic<qb_u32_t> g_s32Audio_change{kChangeCounterInit};

namespace {

struct sample_frequency_row_t {
  qb_u8_t code;
  unsigned alsa_rate;
  int edid_flag;
};

// Sample-frequency code -> ALSA rate and EDID rate flag; code 3 (32 kHz) plays at 48000 Hz.
constexpr sample_frequency_row_t kSampleFrequencyTable[] = {
    {0, 44100, 2}, {2, 48000, 4}, {3, 48000, 1}, {8, 88200, 8}, {10, 96000, 16}, {12, 176400, 32}, {14, 192000, 64},
};
constexpr unsigned kDefaultAlsaRate = 48000;
constexpr int kDefaultEdidFlag = 4;

const sample_frequency_row_t* sample_frequency_row(qb_u8_t code) {
  for (const auto& row : kSampleFrequencyTable) {
    if (row.code == code) {
      return &row;
    }
  }
  return nullptr;
}

struct audio_type_name_t {
  int type;
  const char* name;
};
constexpr audio_type_name_t kAudioTypeNames[] = {
    {QB_AUDIO_TYPE_LPCM, "LPCM"},
    {QB_AUDIO_TYPE_NLPCM, "NLPCM"},
    {QB_AUDIO_TYPE_DSD, "DSD"},
    {QB_AUDIO_TYPE_HBR, "HBR"},
};

// Decoder code ranges (inclusive) to encoding names; codes outside every row are "Unknown".
struct dsp_range_t {
  int lo;
  int hi;
  const char* name;
};
constexpr dsp_range_t kDspEncodingNames[] = {
    {2, 2, "Dolby Digit"}, {3, 3, "Dolby Digit Plus"}, {5, 10, "Dolby TrueHD"},
    {11, 16, "DTS"},       {17, 29, "DTS HD"},         {30, 40, "DTS HD Master"},
};

struct dsp_mix_range_t {
  int lo;
  int hi;
  MIX_AUD_E mix;
};
constexpr dsp_mix_range_t kDspMixTypes[] = {
    {0, 1, MIX_AUD_AAC},   {2, 2, MIX_AUD_AC3},     {3, 3, MIX_AUD_DDP},       {4, 10, MIX_AUD_TRUEHD},
    {11, 15, MIX_AUD_DTS}, {16, 29, MIX_AUD_DTSHD}, {30, 40, MIX_AUD_DTDHDMA},
};

constexpr const char* kEncodingUnknown = "Unknown";
constexpr size_t kEncodingNameMin = 17;

void copy_name(char* out, const char* name) {
  strncpy(out, name, kEncodingNameMin - 1);
  out[kEncodingNameMin - 1] = '\0';
}

// Next value of the change counter for a new header: 0x123456 instead of 0 after a wrap.
qb_u32_t audio_change_counter_next() {
  const qb_u32_t value = g_s32Audio_change.fetch_add(1) + 1;
  return value == 0 ? kChangeCounterInit : value;
}

unsigned alsa_rate_of_code(qb_u8_t sample_frequency) {
  const sample_frequency_row_t* row = sample_frequency_row(sample_frequency);
  return row != nullptr ? row->alsa_rate : kDefaultAlsaRate;
}

unsigned alsa_channels_of_code(qb_u8_t valid_ch) {
  if (valid_ch == 2) {
    return 2;
  }
  if (valid_ch == 3) {
    return 6;
  }
  if (valid_ch >= 4 && valid_ch <= 8) {
    return 8;
  }
  AM_LOG_WARN("ainfo->ValidCh:%d, use default 8 channels", valid_ch);
  return 8;
}

snd_pcm_format_t alsa_format_of_code(qb_u8_t sample_size) {
  return sample_size == 16 ? SND_PCM_FORMAT_S16_LE : SND_PCM_FORMAT_S24_LE;
}

}  // namespace

int audio_channel_tags_write(qb_u8_t* data, size_t bytes, unsigned channels, size_t bits_per_sample) {
  if (data == nullptr || bits_per_sample != 32) {
    return 0;
  }
  const qb_u8_t* tags = nullptr;
  if (channels == 8) {
    tags = AUDIO_CHANNEL_TAGS_8CH;
  } else if (channels == 2) {
    tags = AUDIO_CHANNEL_TAGS_2CH;
  } else {
    return 0;
  }
  const size_t samples = bytes / 4;
  unsigned ch = 0;
  for (size_t i = 0; i < samples; ++i) {
    data[i * 4 + 3] = tags[ch];
    if (++ch == channels) {
      ch = 0;
    }
  }
  return 1;
}

int get_audio_samplerate(qb_u8_t sample_frequency) {
  const sample_frequency_row_t* row = sample_frequency_row(sample_frequency);
  return row != nullptr ? row->edid_flag : kDefaultEdidFlag;
}

MIX_AUD_E get_audio_type_from_dsp(int code) {
  for (const auto& row : kDspMixTypes) {
    if (code >= row.lo && code <= row.hi) {
      return row.mix;
    }
  }
  return MIX_AUD_INVALID;
}

bool spdif_is_support(int code) { return (code >= 0 && code <= 4) || (code >= 11 && code <= 15); }

bool arc_is_support(int code) { return spdif_is_support(code); }

const char* audio_type_name(int audio_type) {
  for (const auto& row : kAudioTypeNames) {
    if (row.type == audio_type) {
      return row.name;
    }
  }
  return "UNKNOWN";
}

const char* audio_dsp_encoding_name(int code) {
  for (const auto& row : kDspEncodingNames) {
    if (code >= row.lo && code <= row.hi) {
      return row.name;
    }
  }
  return kEncodingUnknown;
}

int get_dsp_encodingType(const qb_audio_info* ainfo, char* out) {
  if (ainfo == nullptr || out == nullptr) {
    return -1;
  }
  const int code = static_cast<qb_u8_t>(ainfo->AUD_DB[0]);
  AM_LOG_INFO("ainfo->AUD_DB[0]:[%d]", code);
  copy_name(out, audio_dsp_encoding_name(code));
  return 0;
}

int get_encodingType(int port, const qb_audio_info* ainfo, char* out) {
  if (ainfo == nullptr || out == nullptr) {
    return -1;
  }
  switch (port) {
    case 3:
    case 6:
    case 7:
    case 8:
      get_dsp_encodingType(ainfo, out);
      break;
    case 1:
    case 2:
    case 5: {
      const char* name = audio_type_name(static_cast<qb_u8_t>(ainfo->Audio_Type));
      copy_name(out, strcmp(name, "LPCM") == 0 ? name : kEncodingUnknown);
      break;
    }
    default:
      copy_name(out, kEncodingUnknown);
      break;
  }
  AM_LOG_INFO("%s encodingType:[%s]", "get_encodingType", out);
  return 0;
}

void audio_info_head_set(qb_audio_oper_ctrl_t* ctrl, const qb_audio_info* ainfo) {
  if (ctrl == nullptr || ainfo == nullptr) {
    return;
  }
  audio_transport_head_t& head = ctrl->net.audio_info_head;
  head.Sample_Frequency = static_cast<qb_u8_t>(ainfo->SampleFrequency);
  head.Channels = static_cast<qb_u8_t>(ainfo->ValidCh);
  head.Sample_Size = static_cast<qb_u8_t>(ainfo->SampleSize);
  head.Audio_Type = static_cast<qb_u8_t>(ainfo->Audio_Type);
  head.SPDIF = 0;
  head.Magic = AUDIO_HEAD_MAGIC;
  head.Audio_On = 1;
  head.IO_In_Use = AUDIO_HEAD_IO_IN_USE;
  head.From = kHeadFrom;
  head.Mode_16bits = 0;
  head.Cfg_Change_Number = audio_change_counter_next();
  memcpy(head.IEC60958_Channel_Stats, ainfo->ChStat, sizeof(head.IEC60958_Channel_Stats));
  memcpy(head.Audio_Info_Frame, ainfo->AUD_DB, sizeof(head.Audio_Info_Frame));
  AM_LOG_INFO("%s,sf:%d,chn:%d,ss:%d,ad:%d,spd:%d", "audio_info_head_set", head.Sample_Frequency, head.Channels,
              head.Sample_Size, head.Audio_Type, head.SPDIF);
  const qb_u8_t* cs = head.IEC60958_Channel_Stats;
  AM_LOG_INFO("%s,IEC60958_Channel_Stats[%02x,%02x,%02x,%02x,%02x]", "audio_info_head_set", cs[0], cs[1], cs[2], cs[3],
              cs[4]);
}

void _file_param_set(qb_audio_oper_ctrl_t* ctrl, const qb_audio_info* ainfo) {
  if (ctrl == nullptr) {
    return;
  }
  audio_info_head_set(ctrl, ainfo);
  if (ainfo != nullptr) {
    ctrl->pcm.rhwparams.format = alsa_format_of_code(static_cast<qb_u8_t>(ainfo->SampleSize));
    ctrl->pcm.rhwparams.channels = alsa_channels_of_code(static_cast<qb_u8_t>(ainfo->ValidCh));
    ctrl->pcm.rhwparams.rate = alsa_rate_of_code(static_cast<qb_u8_t>(ainfo->SampleFrequency));
  }
  ctrl->pcm.hwparams = ctrl->pcm.rhwparams;
}

int get_pkt_size(qb_audio_oper_ctrl_t* ctrl) {
  AM_LOG_INFO("ctrl->pcm_name = %s, pkt_size:%d", ctrl != nullptr && ctrl->pcm_name != nullptr ? ctrl->pcm_name : "",
              AUDIO_PKT_PAYLOAD_SIZE);
  return AUDIO_PKT_PAYLOAD_SIZE;
}
