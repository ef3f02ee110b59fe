// The routing singleton and the channel table: one audio-format record per channel id, its status
// flag, the format-code tables and the dump and compare helpers.
#include "qb_audio_misc.h"

#include <unistd.h>

#include <cstring>
#include <mutex>
#include <utility>

#include "am_log.h"
#include "qb_audio_misc_fpga.h"  // the matrix source numbers
#include "qb_audio_misc_private.h"

namespace {

// The module record (qb_audio_misc_private.h).
qb_audio_misc_module_t g_module;

// One row of the channel table: slot, status flag, dump name, matrix source value.
struct channel_row_t {
  qb_audio_info misc_channel_state_t::*slot;
  qb_s32_t misc_channel_state_t::*status;
  const char* name;
  int matrix_src;
};

constexpr channel_row_t kChannelTable[QB_AUDIO_CHN_COUNT] = {
    {&misc_channel_state_t::analog, &misc_channel_state_t::analog_status, "analog", 2},
    {&misc_channel_state_t::earc, &misc_channel_state_t::earc_status, "earc", 1},
    {&misc_channel_state_t::video, &misc_channel_state_t::video_status, "video", 3},
    {&misc_channel_state_t::dsp, &misc_channel_state_t::dsp_status, "dsp", 8},
    {&misc_channel_state_t::spdif, &misc_channel_state_t::spdif_status, "spdif", 9},
    {&misc_channel_state_t::net_stream_in1, &misc_channel_state_t::sai1_status, "nsi1", 4},
    {&misc_channel_state_t::net_stream_in3, &misc_channel_state_t::sai3_status, "nsi3", 5},
    {&misc_channel_state_t::net_stream_in5, &misc_channel_state_t::sai5_status, "nsi5", 6},
    {&misc_channel_state_t::net_stream_in_spdif, &misc_channel_state_t::spdif_in_status,
     "nsispdif", 0},
    {&misc_channel_state_t::net_stream_out1, &misc_channel_state_t::sao1_status, "nso1", 0},
    {&misc_channel_state_t::net_stream_out3, &misc_channel_state_t::sao3_status, "nso3", 0},
    {&misc_channel_state_t::net_stream_out5, &misc_channel_state_t::sao5_status, "nso5", 0},
    {&misc_channel_state_t::net_stream_out_spdif, &misc_channel_state_t::spdif_out_status,
     "nsospdif", 0},
};

// A code and its value (Hz for the frequency tables).
struct code_hz_t {
  int code;
  int hz;
};

// Sample-frequency codes (IEC 60958-3 channel-status byte 3).
constexpr code_hz_t kSampleFrequencyCodes[] = {
    {0, 44100}, {1, 0},      {2, 48000}, {3, 32000},   {4, 22050},   {6, 24000},
    {8, 88200}, {9, 768000}, {10, 96000}, {12, 176400}, {14, 192000},
};
// Raw sampling-frequency nibble of the S/PDIF receiver.
constexpr code_hz_t kSpdifReceiverCodes[] = {
    {0, 44100}, {1, 88200}, {3, 176400}, {4, 48000}, {5, 96000}, {7, 192000},
};
// Codes a channel may carry to be played (the ones the PCM devices take).
constexpr code_hz_t kPlayableFrequencyCodes[] = {
    {0, 44100}, {2, 48000}, {8, 88200}, {10, 96000}, {12, 176400}, {14, 192000},
};
// CEA-861 short-audio-descriptor rate bit of a sample-frequency code.
constexpr code_hz_t kSampleRateMask[] = {
    {0, 2}, {2, 4}, {3, 1}, {8, 8}, {10, 16}, {12, 32}, {14, 64},
};
constexpr int kSampleRateMaskDefault = 4;
constexpr int kValidChannelCounts[] = {2, 4, 6, 8};
constexpr int kDefaultValidCh = 2;

// Audio-format number of a decoder type value: the first row whose code is at least the value
// (values 0-40; anything else is 0).
constexpr code_hz_t kAudioTypeUpTo[] = {
    {1, 6}, {2, 2}, {3, 10}, {4, 12}, {10, 10}, {15, 7}, {40, 11},
};

// Channels that get the default record at start, in this order.
constexpr int kDefaultChannels[] = {1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12};
// Two-channel 48 kHz 24-bit LPCM.
constexpr qb_audio_info kDefaultRecord = {
    1, 2, 2, 24, 2, 0, 0, 0, static_cast<qb_s8_t>(QB_AUDIO_TYPE_LPCM), 0,
    {0x11, 0x0F, 0, 0, 0}, {0, 0, 2, 2, 0x0B}};
// AUD_DB[0] of the dsp record at start: no decoder type known yet.
constexpr qb_s8_t kDspAudDbUnknown = static_cast<qb_s8_t>(0xFF);
// Matrix source value of the S/PDIF-type network output at start (S/PDIF input).
constexpr qb_s32_t kNetSpdifOutSrcDefault = 9;
constexpr qb_s32_t kNetStreamFirstDefault = 1;
constexpr qb_s32_t kNetStreamSecondDefault = 2;
constexpr qb_s32_t kNetStreamThirdDefault = 3;

// Matrix source and network-input channel of each network stream id (0, 1, 2).
constexpr int kSaiOfSid[] = {FPGA_SRC_SAI1, FPGA_SRC_SAI5, FPGA_SRC_SAI3};
constexpr int kChannelOfSid[] = {QB_AUDIO_CHN_NSI1, QB_AUDIO_CHN_NSI5, QB_AUDIO_CHN_NSI3};
constexpr int kStreamIds = static_cast<int>(sizeof kSaiOfSid / sizeof kSaiOfSid[0]);
constexpr int kNoSid = 255;

bool channel_id_valid(int ch) { return ch >= QB_AUDIO_CHN_MIN && ch <= QB_AUDIO_CHN_MAX; }

const channel_row_t* channel_row(int ch) {
  return channel_id_valid(ch) ? &kChannelTable[ch - 1] : nullptr;
}

qb_audio_info* slot_of(int ch) {
  const channel_row_t* row = channel_row(ch);
  return row == nullptr ? nullptr : &(g_module.ctrl.channel_state.*(row->slot));
}

qb_s32_t* status_of(int ch) {
  const channel_row_t* row = channel_row(ch);
  return row == nullptr ? nullptr : &(g_module.ctrl.channel_state.*(row->status));
}

template <size_t N>
bool lookup_hz(const code_hz_t (&table)[N], int code, int* hz) {
  for (const code_hz_t& row : table) {
    if (row.code == code) {
      *hz = row.hz;
      return true;
    }
  }
  return false;
}

// The value of a code, or 0 (logged) for a code the table lacks.
template <size_t N>
int hz_or_warn(const code_hz_t (&table)[N], int ch, int code) {
  int hz = 0;
  if (!lookup_hz(table, code, &hz)) {
    AM_LOG_WARN("chn:%d , samplefrequency:%d invalid", ch, code);
  }
  return hz;
}

qb_u8_t u8(qb_s8_t v) { return static_cast<qb_u8_t>(v); }

const char* audio_type_name(qb_u8_t type) {
  static constexpr std::pair<qb_u8_t, const char*> kNames[] = {{QB_AUDIO_TYPE_LPCM, "LPCM"},
      {QB_AUDIO_TYPE_HBR, "HBR"}, {QB_AUDIO_TYPE_NLPCM, "NLPCM"}, {QB_AUDIO_TYPE_DSD, "DSD"}};
  for (const auto& [value, name] : kNames) {
    if (value == type) {
      return name;
    }
  }
  return "UNKNOWN";
}

}  // namespace

const char* qb_audio_channel_name(int ch) {
  const channel_row_t* row = channel_row(ch);
  return row == nullptr ? "unknown" : row->name;
}

qb_audio_misc_module_t& qb_audio_misc_module() { return g_module; }

bool misc_playable_hz(int code, int* hz) { return lookup_hz(kPlayableFrequencyCodes, code, hz); }

int qb_audio_channel_state_copy_chn(int dst, int src) {
  qb_audio_info* to = slot_of(dst);
  const qb_audio_info* from = slot_of(src);
  if (to == nullptr || from == nullptr) {
    return 0;
  }
  std::lock_guard<std::mutex> lock(g_module.channel_lock);
  *to = *from;
  return 1;
}

int qb_audio_channel_state_store(int ch, const qb_audio_info* info) {
  qb_audio_info* slot = slot_of(ch);
  if (slot == nullptr || info == nullptr) {
    return 0;
  }
  const qb_audio_info copy = *info;
  std::lock_guard<std::mutex> lock(g_module.channel_lock);
  *slot = copy;
  return 1;
}

void qb_audio_misc_state_reset(void) {
  {
    std::lock_guard<std::mutex> channels(g_module.channel_lock);
    std::lock_guard<std::mutex> addresses(g_module.ipaddr_lock);
    std::memset(&g_module.ctrl, 0, sizeof g_module.ctrl);
  }
  misc_word_set(g_module.ctrl.net_spdif_out_src, kNetSpdifOutSrcDefault);
  misc_word_set(g_module.ctrl.net_stream.first, kNetStreamFirstDefault);
  misc_word_set(g_module.ctrl.net_stream.second, kNetStreamSecondDefault);
  misc_word_set(g_module.ctrl.net_stream.third, kNetStreamThirdDefault);
  for (int ch : kDefaultChannels) {
    qb_audio_channel_state_set(ch, &kDefaultRecord);
  }
  {
    std::lock_guard<std::mutex> lock(g_module.channel_lock);
    g_module.ctrl.channel_state.dsp.AUD_DB[0] = kDspAudDbUnknown;
  }
  misc_word_set(g_module.ctrl.it6621_mode, 0);
}

qb_audio_info* qb_audio_channel_state_get(int ch) {
  qb_audio_info* slot = slot_of(ch);
  if (slot == nullptr) {
    AM_LOG_ERROR("invalid audio channel:%d", ch);
  }
  return slot;
}

int qb_audio_channel_state_set(int ch, const qb_audio_info* info) {
  if (info == nullptr) {
    return 0;
  }
  const qb_audio_info copy = *info;
  const int result = qb_audio_channel_state_store(ch, &copy);
  if (result == 0) {
    AM_LOG_ERROR("invalid audio channel:%d", ch);
  }
  qb_misc_audio_status_valid_set(ch, 1);
  dump_channel_stat(ch, &copy);
  return result;
}

int qb_audio_channel_state_copy(int ch, qb_audio_info* out) {
  const qb_audio_info* slot = slot_of(ch);
  if (slot == nullptr || out == nullptr) {
    return 0;
  }
  std::lock_guard<std::mutex> lock(g_module.channel_lock);
  *out = *slot;
  return 1;
}

int qb_audio_channel_state_reset(int ch) {
  qb_audio_info* slot = slot_of(ch);
  if (slot == nullptr) {
    AM_LOG_ERROR("invalid audio channel:%d", ch);
    return -1;
  }
  std::lock_guard<std::mutex> lock(g_module.channel_lock);
  std::memset(slot->ChStat, 0, sizeof slot->ChStat);
  return 0;
}

int qb_audio_channel_state_byte_set(int ch, qb_audio_info_byte_e field, qb_s8_t value) {
  qb_audio_info* slot = slot_of(ch);
  if (slot == nullptr) {
    return 0;
  }
  std::lock_guard<std::mutex> lock(g_module.channel_lock);
  switch (field) {
    case QB_AUDIO_INFO_AUDIO_ON:
      slot->Audio_On = value;
      return 1;
    case QB_AUDIO_INFO_AUD_DB0:
      slot->AUD_DB[0] = value;
      return 1;
  }
  return 0;
}

int qb_misc_audio_status_valid_set(int ch, int value) {
  qb_s32_t* status = status_of(ch);
  if (status != nullptr) {
    misc_word_set(*status, static_cast<qb_s32_t>(value));
  }
  return 0;
}

int qb_misc_audio_status_valid_get(int ch) {
  const qb_s32_t* status = status_of(ch);
  return status == nullptr ? 0 : misc_word_get(*status);
}

int is_qb_audio_channel_state_valid(const qb_audio_info* info) {
  if (info == nullptr) {
    return 0;
  }
  int hz = 0;
  if (!misc_playable_hz(u8(info->SampleFrequency), &hz)) {
    AM_LOG_ERROR("%s,sample frequency=%d error", __func__, u8(info->SampleFrequency));
    return 0;
  }
  if (u8(info->SampleSize) != 16 && u8(info->SampleSize) != 24) {
    AM_LOG_ERROR("%s,sample size:%d error", __func__, u8(info->SampleSize));
    return 0;
  }
  switch (u8(info->Audio_Type)) {
    case QB_AUDIO_TYPE_LPCM:
    case QB_AUDIO_TYPE_NLPCM:
    case QB_AUDIO_TYPE_DSD:
    case QB_AUDIO_TYPE_HBR:
      return 1;
    default:
      AM_LOG_ERROR("%s,audio type:%d error", __func__, u8(info->Audio_Type));
      return 0;
  }
}

int qb_audio_channel_state_validch_get(int ch, int* validch) {
  qb_audio_info rec;
  if (validch == nullptr || !qb_audio_channel_state_copy(ch, &rec)) {
    return 0;
  }
  const int count = u8(rec.ValidCh);
  for (int accepted : kValidChannelCounts) {
    if (count == accepted) {
      *validch = count;
      AM_LOG_INFO("ch=%d valid ch num:%d", ch, count);
      return 1;
    }
  }
  *validch = kDefaultValidCh;
  return 0;
}

int qb_audio_channel_state_samplefreq_get(int ch, int* freq) {
  qb_audio_info rec;
  if (freq == nullptr || !qb_audio_channel_state_copy(ch, &rec)) {
    return 0;
  }
  int hz = 0;
  if (!misc_playable_hz(u8(rec.SampleFrequency), &hz)) {
    return 0;
  }
  *freq = hz;
  AM_LOG_INFO("ch=%d sample frequency:%d", ch, hz);
  return 1;
}

int qb_audio_channel_state_compare(const qb_audio_info* a, const qb_audio_info* b) {
  return (a != nullptr && b != nullptr) ? 1 : 0;
}

int cmp_aiinfo(const qb_audio_info* a, const qb_audio_info* b) {
  if (a == nullptr || b == nullptr) {
    return 1;
  }
  qb_audio_info ca = *a;
  qb_audio_info cb = *b;
  // The InfoFrame bytes are ignored for anything but LPCM.
  if (u8(cb.Audio_Type) != QB_AUDIO_TYPE_LPCM) {
    std::memset(ca.AUD_DB, 0, sizeof ca.AUD_DB);
    std::memset(cb.AUD_DB, 0, sizeof cb.AUD_DB);
  }
  return std::memcmp(&ca, &cb, sizeof ca) != 0 ? 1 : 0;
}

int qb_audio_channel_state_id_switch(int ch) {
  const channel_row_t* row = channel_row(ch);
  return row == nullptr ? 0 : row->matrix_src;
}

int get_sample_frequency2(int ch, int code) { return hz_or_warn(kSampleFrequencyCodes, ch, code); }

int get_sample_frequency(int ch, int code) {
  return ch == QB_AUDIO_CHN_SPDIF ? hz_or_warn(kSpdifReceiverCodes, ch, code)
                                  : get_sample_frequency2(ch, code);
}

int get_audio_samplerate1(int code) {
  int mask = 0;
  return lookup_hz(kSampleRateMask, code, &mask) ? mask : kSampleRateMaskDefault;
}

int get_audio_type(int value) {
  for (const code_hz_t& row : kAudioTypeUpTo) {
    if (value >= 0 && value <= row.code) {
      return row.hz;
    }
  }
  return 0;
}

int is_qb_audio_output_mute(const qb_audio_info* info) {
  if (info == nullptr || u8(info->Audio_Type) != QB_AUDIO_TYPE_LPCM) {
    return 1;
  }
  return u8(info->ValidCh) > 2 ? 1 : 0;
}

int is_qb_audio_output_mute_from_ch(int ch) {
  qb_audio_info rec;
  if (!qb_audio_channel_state_copy(ch, &rec)) {
    return 0;
  }
  AM_LOG_INFO("%s,%02x,%02x,%02x,%02x", __func__, u8(rec.Audio_Type), u8(rec.SampleFrequency),
              u8(rec.ValidCh), u8(rec.SampleSize));
  return is_qb_audio_output_mute(&rec);
}

const char* qb_audio_matrix_source_name(int src) {
  static constexpr const char* kNames[] = {"it6620", "pcm1804", "hdmi in",  "sai1",    "sai3",
                                           "sai5",   "sai6",    "dsp dao", "spdif in"};
  if (src < 1 || src > static_cast<int>(sizeof kNames / sizeof kNames[0])) {
    return "UNKNOWN";
  }
  return kNames[src - 1];
}

int qb_misc_audio_get_saiid_by_sid(int sid) { return sid >= 0 && sid < kStreamIds ? kSaiOfSid[sid] : kNoSid; }

int qb_misc_audio_get_chn_saiid_by_sid(int sid) {
  return sid >= 0 && sid < kStreamIds ? kChannelOfSid[sid] : kNoSid;
}

void dump_channel_stat(int ch, const qb_audio_info* info) {
  if (info == nullptr) {
    AM_LOG_ERROR("param invalid");
    return;
  }
  const qb_audio_info r = *info;
  AM_LOG_INFO(
      "chn:[%s][%d],Audio_On:%d,SampleFrequency:%d,ValidCh:%d,SampleSize:%d,io_in_use:%d,"
      "enable_upstream:%d,DownSampling:%d,Mode16bits:%d,Audio_Type:[%d-%s],bSPDIF:%d,"
      "aud_db-0x[%02x-%02x-%02x-%02x-%02x]chn stat-0x[%02x-%02x-%02x-%02x-%02x]",
      qb_audio_channel_name(ch), ch, u8(r.Audio_On), get_sample_frequency2(ch, u8(r.SampleFrequency)),
      u8(r.ValidCh), u8(r.SampleSize), u8(r.io_in_use), u8(r.enable_upstream), u8(r.DownSampling),
      u8(r.Mode16bits), u8(r.Audio_Type), audio_type_name(u8(r.Audio_Type)), u8(r.bSPDIF),
      u8(r.AUD_DB[0]), u8(r.AUD_DB[1]), u8(r.AUD_DB[2]), u8(r.AUD_DB[3]), u8(r.AUD_DB[4]),
      u8(r.ChStat[0]), u8(r.ChStat[1]), u8(r.ChStat[2]), u8(r.ChStat[3]), u8(r.ChStat[4]));
}

void dump_channel_stat2file(FILE* fp, int ch, const qb_audio_info* info) {
  if (fp == nullptr || info == nullptr) {
    return;
  }
  const qb_audio_info r = *info;
  std::fprintf(
      fp,
      "chn:[%s][%d],Audio_On:%d,SampleFrequency:%d,ValidCh:%d,SampleSize:%d,io_in_use:%d,"
      "enable_upstream:%d,DownSampling:%d,Mode16bits:%d,Audio_Type:%d,bSPDIF:%d,"
      "aud_db-0x[%02x-%02x-%02x-%02x-%02x]chn stat-0x[%02x-%02x-%02x-%02x-%02x]\n",
      qb_audio_channel_name(ch), ch, u8(r.Audio_On), get_sample_frequency2(ch, u8(r.SampleFrequency)),
      u8(r.ValidCh), u8(r.SampleSize), u8(r.io_in_use), u8(r.enable_upstream), u8(r.DownSampling),
      u8(r.Mode16bits), u8(r.Audio_Type), u8(r.bSPDIF), u8(r.AUD_DB[0]), u8(r.AUD_DB[1]),
      u8(r.AUD_DB[2]), u8(r.AUD_DB[3]), u8(r.AUD_DB[4]), u8(r.ChStat[0]), u8(r.ChStat[1]),
      u8(r.ChStat[2]), u8(r.ChStat[3]), u8(r.ChStat[4]));
  usleep(QB_MISC_DUMP_PAUSE_US);
}

void channel_stat_printf(const qb_audio_info* info) {
  if (info == nullptr) {
    return;
  }
  constexpr size_t kSecondLine = 16;
  const auto* bytes = reinterpret_cast<const qb_u8_t*>(info);
  for (size_t i = 0; i < sizeof(qb_audio_info); ++i) {
    if (i == 0 || i == kSecondLine) {
      std::printf("\n");
    }
    std::printf("%02x ", bytes[i]);
  }
  std::printf("\n");
}

