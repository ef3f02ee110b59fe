// amctl: one sub-command per row of the daemon's command table. Each sub-command is described by
// the fields of its payload record, in wire order; the record is built from the command line and
// sent as the inner item {id << 16 | op: record} of a command message.
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "amctl.h"
#include "qb_audio_protocol.h"

namespace {

enum amctl_field_kind_e {
  AMCTL_F_PORT,    // output port name or number (u32)
  AMCTL_F_SOURCE,  // output-source name or number (u32)
  AMCTL_F_UINT,    // unsigned number (u32)
  AMCTL_F_INT,     // signed number (s32)
  AMCTL_F_ONOFF,   // on/off (u32 1/0)
  AMCTL_F_SID,     // stream id 0-2, or none (-1) where the field allows it
  AMCTL_F_MAC16,   // MAC text in a 16-byte field, zero-padded
  AMCTL_F_CEC,     // CEC physical address (u32)
  AMCTL_F_FLAG,    // option without a value: 1 when given, else 0 (u32)
  AMCTL_F_FIXED,   // not on the command line: always `fallback` (u32)
};

// One field of a payload record. Positional fields have no option name; an optional field left
// out takes `fallback`.
struct amctl_field_t {
  const char* label;
  amctl_field_kind_e kind;
  long long min;
  long long max;
  const char* option;
  bool optional;
  long long fallback;
};

constexpr int field_width(const amctl_field_t& f) {
  return f.kind == AMCTL_F_MAC16 ? QB_AUDIO_MAC_TEXT_SIZE : 4;
}

template <size_t N>
constexpr int record_width(const amctl_field_t (&fields)[N]) {
  int n = 0;
  for (const amctl_field_t& f : fields) {
    n += field_width(f);
  }
  return n;
}

constexpr long long kU32Max = 0xFFFFFFFFLL;
constexpr long long kS32Min = -2147483648LL;
constexpr long long kS32Max = 2147483647LL;
// Stream id "none" of a fallback selection.
constexpr long long kSidNone = -1;
// Ports whose delay line, source selection and stream selection exist: analog, hdmi, spdif, earc.
constexpr long long kLastLocalPort = 3;
// The latency register pair holds a 15-bit delay.
constexpr long long kLatencyMax = 0x7FFF;
// The details request's mask when none is given: analog, earc, hdmi, spdif.
constexpr long long kDetailsAllPorts = 46;

// ---- the records, field by field, in wire order ----------------------------------------------
constexpr amctl_field_t kInputLevel[] = {
    {"1|2", AMCTL_F_UINT, 1, 2, nullptr, false, 0},
};
constexpr amctl_field_t kMute[] = {
    {"PORT", AMCTL_F_PORT, 0, 5, nullptr, false, 0},
    {"N", AMCTL_F_UINT, 0, kU32Max, "--enable", true, 1},
    {"on|off", AMCTL_F_ONOFF, 0, 1, nullptr, false, 0},
};
constexpr amctl_field_t kLatency[] = {
    {"PORT", AMCTL_F_PORT, 0, kLastLocalPort, nullptr, false, 0},
    {"TIME", AMCTL_F_UINT, 0, kLatencyMax, nullptr, false, 0},
};
constexpr amctl_field_t kOutputSrc[] = {
    {"PORT", AMCTL_F_PORT, 0, kLastLocalPort, nullptr, false, 0},
    {"SOURCE", AMCTL_F_SOURCE, QB_AUDIO_SRC_ANALOG, QB_AUDIO_SRC_HDMI_DOWNMIX, nullptr, false, 0},
};
constexpr amctl_field_t kDownmix[] = {
    {"PORT", AMCTL_F_PORT, 1, kLastLocalPort, nullptr, false, 0},
    {"MODE", AMCTL_F_UINT, 0, kU32Max, nullptr, false, 0},
};
constexpr amctl_field_t kVolume[] = {
    {"VOLUME", AMCTL_F_UINT, 0, kS32Max, nullptr, false, 0},
};
constexpr amctl_field_t kOutputVrms[] = {
    {"VRMS", AMCTL_F_UINT, 0, kU32Max, nullptr, false, 0},
};
constexpr amctl_field_t kStreamIn[] = {
    {"PORT", AMCTL_F_PORT, 0, kLastLocalPort, nullptr, false, 0},
    {"SID", AMCTL_F_SID, 0, 2, nullptr, false, 0},
    {"FALLBACK_SID|none", AMCTL_F_SID, kSidNone, 2, nullptr, true, kSidNone},
};
constexpr amctl_field_t kFromNet[] = {
    {"MAC", AMCTL_F_MAC16, 0, 0, nullptr, false, 0},
    {"N", AMCTL_F_INT, kS32Min, kS32Max, "--stream-id", true, 0},
    {"SID", AMCTL_F_SID, 0, 2, nullptr, false, 0},
};
constexpr amctl_field_t kToNet[] = {
    {"SID", AMCTL_F_SID, 0, 2, nullptr, false, 0},
    {"SOURCE", AMCTL_F_SOURCE, QB_AUDIO_SRC_ANALOG, QB_AUDIO_SRC_HDMI_DOWNMIX, nullptr, false, 0},
    {"MAC", AMCTL_F_MAC16, 0, 0, nullptr, true, 0},
};
constexpr amctl_field_t kCecAddr[] = {
    {"ADDR", AMCTL_F_CEC, 0, kU32Max, nullptr, false, 0},
};
constexpr amctl_field_t kIt6621Mode[] = {
    {"MODE", AMCTL_F_INT, kS32Min, kS32Max, nullptr, false, 0},
};
constexpr amctl_field_t kMonitor[] = {
    {"connected|disconnected", AMCTL_F_ONOFF, 0, 1, nullptr, false, 0},
};
constexpr amctl_field_t kFallback[] = {
    {"PORT", AMCTL_F_PORT, 0, kLastLocalPort, nullptr, false, 0},
    {nullptr, AMCTL_F_FIXED, 0, 0, nullptr, true, 0},  // sid: not read by this command
    {"FALLBACK_SID|none", AMCTL_F_SID, kSidNone, 2, nullptr, false, 0},
};
constexpr amctl_field_t kDetails[] = {
    {"CHS", AMCTL_F_UINT, 0, kU32Max, nullptr, true, kDetailsAllPorts},
};
constexpr amctl_field_t kEarcEnable[] = {
    {"PORT", AMCTL_F_PORT, 0, 5, nullptr, false, 0},
    {"on|off", AMCTL_F_ONOFF, 0, 1, nullptr, false, 0},
    {nullptr, AMCTL_F_FLAG, 0, 1, "--only-arc", true, 0},
};
constexpr amctl_field_t kEarcOnlyArc[] = {
    {"on|off", AMCTL_F_ONOFF, 0, 1, nullptr, false, 0},
};

// The records the daemon reads, checked against its own types.
static_assert(record_width(kInputLevel) == sizeof(qb_audio_input_analog_fullscalevrms_t), "cmd 14");
static_assert(record_width(kMute) == sizeof(qb_audio_output_mute_ctrl_t), "cmd 2");
static_assert(record_width(kLatency) == sizeof(qb_audio_output_latency_ctrl_t), "cmd 3");
static_assert(record_width(kOutputSrc) == sizeof(qb_audio_output_src_select_t), "cmd 4");
static_assert(record_width(kDownmix) == sizeof(qb_audio_output_dwm_mode_t), "cmd 5");
static_assert(record_width(kVolume) == sizeof(qb_audio_output_analog_volume_t), "cmd 6");
static_assert(record_width(kOutputVrms) == sizeof(qb_audio_output_analog_fullscalevrms_t), "cmd 7");
static_assert(record_width(kStreamIn) == sizeof(qb_audio_stream_input_select_t), "cmd 9");
static_assert(record_width(kFromNet) == sizeof(qb_audio_input_stream_t), "cmd 10");
static_assert(record_width(kToNet) == sizeof(qb_audio_output_stream_t), "cmd 11");
static_assert(record_width(kCecAddr) == sizeof(qb_u32_t), "cmd 12");
static_assert(record_width(kIt6621Mode) == sizeof(qb_it6621_mode), "cmd 13");
static_assert(record_width(kMonitor) == sizeof(qb_hdmi_moitor_status), "cmd 15");
static_assert(record_width(kFallback) == sizeof(qb_audio_stream_input_select_t), "cmd 16");
static_assert(record_width(kDetails) == sizeof(qb_detail_audio_status), "cmd 17");
static_assert(record_width(kEarcEnable) == sizeof(qb_audio_output_earc_enable_ctrl_t), "cmd 18");
static_assert(record_width(kEarcOnlyArc) == sizeof(qb_audio_input_earc_onlyarc_t), "cmd 19");

// Sub-commands whose payload is not a plain field record.
enum amctl_special_e { AMCTL_PLAIN, AMCTL_SRC_MAC, AMCTL_CHANNEL_INFO };

struct amctl_command_t {
  const char* name;
  qb_s32_t id;
  qb_s32_t op;    // operation of the plain form
  bool gettable;  // --get sends the same record with QB_AUDIO_CMD_OP_GET
  const amctl_field_t* fields;
  int field_count;
  amctl_special_e special;
  const char* summary;
};

template <size_t N>
constexpr int count_of(const amctl_field_t (&)[N]) {
  return static_cast<int>(N);
}

#define AMCTL_FIELDS(f) f, count_of(f)

// In the order of the daemon's dispatch table.
constexpr amctl_command_t kCommands[] = {
    {"src-mac", QB_AUDIO_CMD_INPUT_SRC_MAC, QB_AUDIO_CMD_OP_SET, true, nullptr, 0, AMCTL_SRC_MAC,
     "receive the network streams of the device with this MAC (its multicast group)"},
    {"input-level", QB_AUDIO_CMD_INPUT_ANALOG_FULLSCALEVRMS, QB_AUDIO_CMD_OP_SET, false,
     AMCTL_FIELDS(kInputLevel), AMCTL_PLAIN, "analog input full-scale level (1 or 2)"},
    {"mute", QB_AUDIO_CMD_OUTPUT_MUTE_CTRL, QB_AUDIO_CMD_OP_SET, true, AMCTL_FIELDS(kMute),
     AMCTL_PLAIN, "mute (on) or unmute (off) an output port"},
    {"latency", QB_AUDIO_CMD_OUTPUT_LATENCY_CTRL, QB_AUDIO_CMD_OP_SET, true, AMCTL_FIELDS(kLatency),
     AMCTL_PLAIN, "delay of an output port, in steps of the FPGA delay line (0-32767)"},
    {"output-src", QB_AUDIO_CMD_OUTPUT_SRC_SELECT, QB_AUDIO_CMD_OP_SET, true,
     AMCTL_FIELDS(kOutputSrc), AMCTL_PLAIN, "source of an output port"},
    {"downmix", QB_AUDIO_CMD_OUTPUT_DWM_MODE, QB_AUDIO_CMD_OP_SET, true, AMCTL_FIELDS(kDownmix),
     AMCTL_PLAIN, "downmix mode of the hdmi, spdif or earc output"},
    {"volume", QB_AUDIO_CMD_OUTPUT_ANALOG_VOLUME, QB_AUDIO_CMD_OP_SET, true, AMCTL_FIELDS(kVolume),
     AMCTL_PLAIN, "analog output volume (passed to the codec program)"},
    {"output-vrms", QB_AUDIO_CMD_OUTPUT_ANALOG_FULLSCALEVRMS, QB_AUDIO_CMD_OP_SET, true,
     AMCTL_FIELDS(kOutputVrms), AMCTL_PLAIN, "analog output full-scale level"},
    {"channel-info", QB_AUDIO_CMD_CHANNEL_INFO, QB_AUDIO_CMD_OP_NOTIFY, false, nullptr, 0,
     AMCTL_CHANNEL_INFO, "notify the audio format of an input channel"},
    {"stream-in", QB_AUDIO_CMD_STREAM_INPUT_FORLOCAL, QB_AUDIO_CMD_OP_SET, false,
     AMCTL_FIELDS(kStreamIn), AMCTL_PLAIN, "play network stream SID on an output port"},
    {"from-net", QB_AUDIO_CMD_STREAM_INPUT_FROMNET, QB_AUDIO_CMD_OP_SET, false,
     AMCTL_FIELDS(kFromNet), AMCTL_PLAIN, "receive network stream SID from the device with this MAC"},
    {"to-net", QB_AUDIO_CMD_STREAM_OUTPUT_TONET, QB_AUDIO_CMD_OP_SET, false, AMCTL_FIELDS(kToNet),
     AMCTL_PLAIN, "send SOURCE as network stream SID (group from MAC, the sender's own)"},
    {"cec-addr", QB_AUDIO_CMD_CEC_PHY_ADDR, QB_AUDIO_CMD_OP_SET, false, AMCTL_FIELDS(kCecAddr),
     AMCTL_PLAIN, "CEC physical address (a.b.c.d or a number)"},
    {"it6621-mode", QB_AUDIO_CMD_IT6621_MODE, QB_AUDIO_CMD_OP_SET, false,
     AMCTL_FIELDS(kIt6621Mode), AMCTL_PLAIN, "ARC/eARC state reported by the output bridge"},
    {"monitor", QB_AUDIO_CMD_MONITOR_STATUS, QB_AUDIO_CMD_OP_SET, false, AMCTL_FIELDS(kMonitor),
     AMCTL_PLAIN, "HDMI monitor connected or disconnected"},
    {"fallback", QB_AUDIO_CMD_STREAM_INPUT_FALLBACK_FORLOCAL, QB_AUDIO_CMD_OP_SET, false,
     AMCTL_FIELDS(kFallback), AMCTL_PLAIN, "fallback network stream of an output port"},
    {"details", QB_AUDIO_CMD_DETAILS_STATUS, QB_AUDIO_CMD_OP_GET, false, AMCTL_FIELDS(kDetails),
     AMCTL_PLAIN, "ask for a full status report (see watch)"},
    {"earc-enable", QB_AUDIO_CMD_EARC_ENABLE_CTRL, QB_AUDIO_CMD_OP_SET, true,
     AMCTL_FIELDS(kEarcEnable), AMCTL_PLAIN, "ARC/eARC output of the earc port on or off"},
    {"earc-onlyarc", QB_AUDIO_CMD_EARC_ONLYARC, QB_AUDIO_CMD_OP_SET, false,
     AMCTL_FIELDS(kEarcOnlyArc), AMCTL_PLAIN, "eARC input limited to ARC"},
};

const amctl_command_t* find_command(const std::string& name) {
  for (const amctl_command_t& c : kCommands) {
    if (name == c.name) {
      return &c;
    }
  }
  return nullptr;
}

// ---- payload writing ------------------------------------------------------------------------
bool put_bytes(amctl_payload_t* p, const void* data, int n) {
  if (n < 0 || p->size + n > AMCTL_PAYLOAD_MAX) {
    return false;
  }
  std::memcpy(p->bytes.data() + p->size, data, static_cast<size_t>(n));
  p->size += n;
  return true;
}

bool put_u32(amctl_payload_t* p, qb_u32_t v) {
  const qb_u8_t le[4] = {static_cast<qb_u8_t>(v), static_cast<qb_u8_t>(v >> 8),
                         static_cast<qb_u8_t>(v >> 16), static_cast<qb_u8_t>(v >> 24)};
  return put_bytes(p, le, 4);
}

// ---- one field from its text ----------------------------------------------------------------
std::string range_text(const amctl_field_t& f) {
  std::ostringstream s;
  s << f.min << "-" << f.max;
  return s.str();
}

std::string field_name(const amctl_field_t& f) {
  return f.option != nullptr ? std::string(f.option) : std::string(f.label);
}

bool parse_field(const amctl_field_t& f, const std::string& text, qb_u32_t* value,
                 char mac[QB_AUDIO_MAC_TEXT_SIZE], std::string* err) {
  long long n = 0;
  const std::string what = field_name(f) + " '" + text + "'";
  switch (f.kind) {
    case AMCTL_F_PORT:
      if (!amctl_parse_port(text, value) || *value < f.min || *value > f.max) {
        *err = what + ": not a port here (analog, hdmi, spdif, earc, stream, dsp: " +
               range_text(f) + ")";
        return false;
      }
      return true;
    case AMCTL_F_SOURCE:
      if (!amctl_parse_source(text, value)) {
        *err = what + ": not a source (analog, hdmi, spdif, earc, stream, dsp, hdmiDownmix)";
        return false;
      }
      return true;
    case AMCTL_F_SID:
      if (f.min == kSidNone && text == "none") {
        *value = static_cast<qb_u32_t>(kSidNone);
        return true;
      }
      if (!amctl_parse_number(text, f.min, f.max, &n)) {
        *err = what + ": not a stream id (" + range_text(f) + (f.min == kSidNone ? ", none)" : ")");
        return false;
      }
      *value = static_cast<qb_u32_t>(n);
      return true;
    case AMCTL_F_ONOFF:
      if (!amctl_parse_onoff(text, value)) {
        *err = what + ": expected " + f.label;
        return false;
      }
      return true;
    case AMCTL_F_MAC16:
      std::memset(mac, 0, QB_AUDIO_MAC_TEXT_SIZE);
      if (!amctl_parse_mac(text, mac)) {
        *err = what + ": not a MAC address (12 hex digits, ':' or '-' between pairs allowed)";
        return false;
      }
      return true;
    case AMCTL_F_CEC:
      if (!amctl_parse_cec(text, value)) {
        *err = what + ": not a CEC physical address (a.b.c.d or a number)";
        return false;
      }
      return true;
    case AMCTL_F_UINT:
    case AMCTL_F_INT:
      if (!amctl_parse_number(text, f.min, f.max, &n)) {
        *err = what + ": expected a number in " + range_text(f);
        return false;
      }
      *value = static_cast<qb_u32_t>(n);
      return true;
    case AMCTL_F_FLAG:
    case AMCTL_F_FIXED:
      break;
  }
  *err = what + ": not accepted";
  return false;
}

// The text of every field: positional ones in order, options by name. Missing required fields
// are an error except with `all_optional` (the get form).
bool gather_texts(const amctl_command_t& c, amctl_args_t* args, bool all_optional,
                  std::vector<std::string>* texts, std::vector<bool>* given, std::string* err) {
  texts->assign(static_cast<size_t>(c.field_count), std::string());
  given->assign(static_cast<size_t>(c.field_count), false);
  for (int i = 0; i < c.field_count; ++i) {
    const amctl_field_t& f = c.fields[i];
    if (f.kind == AMCTL_F_FLAG) {
      (*given)[i] = args->flag(f.option);
      (*texts)[i] = (*given)[i] ? "1" : "0";
    } else if (f.option != nullptr) {
      bool present = false;
      if (!args->value(f.option, &(*texts)[i], &present, err)) {
        return false;
      }
      (*given)[i] = present;
    }
  }
  std::vector<std::string> words;
  if (!args->positionals(&words, err)) {
    return false;
  }
  size_t next = 0;
  for (int i = 0; i < c.field_count; ++i) {
    const amctl_field_t& f = c.fields[i];
    if (f.option != nullptr || f.kind == AMCTL_F_FIXED) {
      continue;
    }
    if (next < words.size()) {
      (*texts)[i] = words[next++];
      (*given)[i] = true;
    } else if (!f.optional && !all_optional) {
      *err = std::string("missing ") + f.label;
      return false;
    }
  }
  if (next < words.size()) {
    *err = "unexpected argument '" + words[next] + "'";
    return false;
  }
  return true;
}

bool build_plain(const amctl_command_t& c, amctl_args_t* args, bool get, amctl_payload_t* payload,
                 std::string* err) {
  std::vector<std::string> texts;
  std::vector<bool> given;
  if (!gather_texts(c, args, get, &texts, &given, err)) {
    return false;
  }
  for (int i = 0; i < c.field_count; ++i) {
    const amctl_field_t& f = c.fields[i];
    char mac[QB_AUDIO_MAC_TEXT_SIZE] = {};
    qb_u32_t value = static_cast<qb_u32_t>(get ? 0 : f.fallback);
    if (f.kind == AMCTL_F_FLAG) {
      value = given[i] ? 1U : 0U;
    } else if (given[i] && !parse_field(f, texts[i], &value, mac, err)) {
      return false;
    }
    const bool ok = f.kind == AMCTL_F_MAC16 ? put_bytes(payload, mac, QB_AUDIO_MAC_TEXT_SIZE)
                                           : put_u32(payload, value);
    if (!ok) {
      *err = "record too large";
      return false;
    }
  }
  return true;
}

// The MAC text as cmd_core sends it: twelve hex digits and a terminating NUL. The get form
// carries nothing.
bool build_src_mac(amctl_args_t* args, bool get, amctl_payload_t* payload, std::string* err) {
  std::vector<std::string> words;
  if (!args->positionals(&words, err)) {
    return false;
  }
  if (get) {
    if (!words.empty()) {
      *err = "unexpected argument '" + words[0] + "'";
      return false;
    }
    return true;
  }
  if (words.size() != 1) {
    *err = words.empty() ? "missing MAC" : "unexpected argument '" + words[1] + "'";
    return false;
  }
  char mac[13] = {};
  if (!amctl_parse_mac(words[0], mac)) {
    *err = "MAC '" + words[0] + "': not a MAC address (12 hex digits, ':' or '-' between pairs allowed)";
    return false;
  }
  return put_bytes(payload, mac, sizeof mac);
}

// ---- the channel information record ---------------------------------------------------------
struct amctl_type_name_t {
  const char* name;
  qb_u8_t type;
};
constexpr amctl_type_name_t kAudioTypes[] = {
    {"lpcm", QB_AUDIO_TYPE_LPCM}, {"nlpcm", QB_AUDIO_TYPE_NLPCM},
    {"dsd", QB_AUDIO_TYPE_DSD},   {"hbr", QB_AUDIO_TYPE_HBR},
};
constexpr int kIoInUse = 2;           // io_in_use of every record the daemon builds
constexpr qb_u8_t kChStat2 = 2;       // ChStat[2] of the records the daemon builds
constexpr qb_u8_t kWordLength24 = 0x0B;
constexpr qb_u8_t kWordLength16 = 0x02;
constexpr qb_u8_t kChStat0NonAudio = 0x02;  // consumer byte 0 bit 1: not linear PCM
// Network inputs are the last channels a notification may name.
constexpr long long kLastNotifiedChannel = QB_AUDIO_CHN_NSI5;

bool parse_byte_list(const std::string& text, qb_s8_t out[5], std::string* err) {
  std::stringstream s(text);
  std::string piece;
  int n = 0;
  while (std::getline(s, piece, ',')) {
    long long v = 0;
    if (n >= 5 || !amctl_parse_number(piece, 0, 255, &v)) {
      *err = "'" + text + "': expected five bytes B,B,B,B,B (0-255 or 0xNN)";
      return false;
    }
    out[n++] = static_cast<qb_s8_t>(v);
  }
  if (n != 5) {
    *err = "'" + text + "': expected five bytes B,B,B,B,B";
    return false;
  }
  return true;
}

bool parse_audio_type(const std::string& text, qb_u8_t* out) {
  for (const amctl_type_name_t& t : kAudioTypes) {
    if (text == t.name) {
      *out = t.type;
      return true;
    }
  }
  long long v = 0;
  if (!amctl_parse_number(text, 0, 255, &v)) {
    return false;
  }
  *out = static_cast<qb_u8_t>(v);
  return true;
}

// Reads one valued option into *text; *present tells whether it was given.
bool take_option(amctl_args_t* args, const char* name, std::string* text, bool* present,
                 std::string* err) {
  return args->value(name, text, present, err);
}

bool fill_format(amctl_args_t* args, qb_audio_info* rec, std::string* err) {
  std::string text;
  bool present = false;
  long long hz = 48000;
  long long channels = 2;
  long long size = 24;
  qb_u8_t type = QB_AUDIO_TYPE_LPCM;
  qb_u8_t code = 0;
  if (!take_option(args, "--rate", &text, &present, err)) return false;
  if (present && !amctl_parse_number(text, 0, 768000, &hz)) hz = -1;
  if (!amctl_rate_code(hz, &code)) {
    *err = "--rate '" + text + "': not a sample rate (32000, 44100, 48000, 88200, 96000, 176400, 192000 ...)";
    return false;
  }
  if (!take_option(args, "--channels", &text, &present, err)) return false;
  if (present && (!amctl_parse_number(text, 2, 8, &channels) || channels % 2 != 0)) {
    *err = "--channels '" + text + "': expected 2, 4, 6 or 8";
    return false;
  }
  if (!take_option(args, "--size", &text, &present, err)) return false;
  if (present && (!amctl_parse_number(text, 16, 24, &size) || (size != 16 && size != 24))) {
    *err = "--size '" + text + "': expected 16 or 24";
    return false;
  }
  if (!take_option(args, "--type", &text, &present, err)) return false;
  if (present && !parse_audio_type(text, &type)) {
    *err = "--type '" + text + "': expected lpcm, nlpcm, dsd, hbr or a number";
    return false;
  }
  const bool lpcm = type == QB_AUDIO_TYPE_LPCM;
  rec->Audio_On = static_cast<qb_s8_t>(args->flag("--off") ? 0 : 1);
  rec->SampleFrequency = static_cast<qb_s8_t>(code);
  rec->ValidCh = static_cast<qb_s8_t>(channels);
  rec->SampleSize = static_cast<qb_s8_t>(size);
  rec->io_in_use = static_cast<qb_s8_t>(kIoInUse);
  rec->Audio_Type = static_cast<qb_s8_t>(type);
  rec->bSPDIF = static_cast<qb_s8_t>(args->flag("--spdif") ? 1 : 0);
  rec->AUD_DB[0] = static_cast<qb_s8_t>((channels - 1) & 0x07);  // channel count - 1
  rec->ChStat[0] = static_cast<qb_s8_t>(lpcm ? 0 : kChStat0NonAudio);
  rec->ChStat[1] = static_cast<qb_s8_t>(lpcm ? 0 : 1);
  rec->ChStat[2] = static_cast<qb_s8_t>(kChStat2);
  rec->ChStat[3] = static_cast<qb_s8_t>(code);
  rec->ChStat[4] = static_cast<qb_s8_t>(size == 24 ? kWordLength24 : kWordLength16);
  if (!take_option(args, "--aud-db", &text, &present, err)) return false;
  if (present && !parse_byte_list(text, rec->AUD_DB, err)) return false;
  if (!take_option(args, "--ch-stat", &text, &present, err)) return false;
  if (present && !parse_byte_list(text, rec->ChStat, err)) return false;
  return true;
}

bool build_channel_info(amctl_args_t* args, amctl_payload_t* payload, std::string* err) {
  qb_audio_info rec{};
  if (!fill_format(args, &rec, err)) {
    return false;
  }
  std::vector<std::string> words;
  if (!args->positionals(&words, err)) {
    return false;
  }
  if (words.size() != 1) {
    *err = words.empty() ? "missing CHANNEL" : "unexpected argument '" + words[1] + "'";
    return false;
  }
  qb_s32_t ch = 0;
  if (!amctl_parse_channel(words[0], &ch) || ch > kLastNotifiedChannel) {
    *err = "CHANNEL '" + words[0] +
           "': expected analog, earc, video (hdmi), dsp, spdif, nsi1, nsi3, nsi5 or 1-8";
    return false;
  }
  return put_u32(payload, static_cast<qb_u32_t>(ch)) &&
         put_bytes(payload, &rec, static_cast<int>(sizeof rec));
}

// ---- usage ----------------------------------------------------------------------------------
std::string synopsis(const amctl_command_t& c) {
  std::string s = "amctl " + std::string(c.name);
  if (c.special == AMCTL_SRC_MAC) {
    return s + " MAC";
  }
  if (c.special == AMCTL_CHANNEL_INFO) {
    return s + " CHANNEL [--rate HZ] [--channels N] [--size 16|24] [--type lpcm|nlpcm|dsd|hbr]"
               " [--off] [--spdif] [--aud-db B,B,B,B,B] [--ch-stat B,B,B,B,B]";
  }
  for (int i = 0; i < c.field_count; ++i) {
    const amctl_field_t& f = c.fields[i];
    if (f.kind == AMCTL_F_FIXED) continue;
    std::string part = f.kind == AMCTL_F_FLAG ? std::string(f.option)
                       : f.option != nullptr  ? std::string(f.option) + " " + f.label
                                              : std::string(f.label);
    s += f.optional ? " [" + part + "]" : " " + part;
  }
  return s;
}

}  // namespace

bool amctl_is_table_command(const std::string& name) { return find_command(name) != nullptr; }

int amctl_build_command(const std::string& name, amctl_args_t* args, qb_s32_t* id, qb_s32_t* op,
                        amctl_payload_t* payload, std::string* err) {
  const amctl_command_t* c = find_command(name);
  if (c == nullptr) {
    *err = "unknown command '" + name + "'";
    return AMCTL_EXIT_USAGE;
  }
  const bool get = args->flag("--get");
  if (get && !c->gettable) {
    *err = "--get: this command has no get form";
    return AMCTL_EXIT_USAGE;
  }
  *id = c->id;
  *op = get ? QB_AUDIO_CMD_OP_GET : c->op;
  payload->size = 0;
  bool ok = false;
  switch (c->special) {
    case AMCTL_SRC_MAC:
      ok = build_src_mac(args, get, payload, err);
      break;
    case AMCTL_CHANNEL_INFO:
      ok = build_channel_info(args, payload, err);
      break;
    case AMCTL_PLAIN:
      ok = build_plain(*c, args, get, payload, err);
      break;
  }
  return ok ? AMCTL_EXIT_OK : AMCTL_EXIT_USAGE;
}

namespace {

struct amctl_tool_usage_t {
  const char* name;
  const char* text;
};

constexpr amctl_tool_usage_t kToolUsages[] = {
    {"watch",
     "usage: amctl watch [--count N] [--timeout S] [--raw] [--port N]\n\n"
     "Listens on 127.0.0.1:9995 (where cmd_core listens) and prints every status report and\n"
     "packet-drop event as it arrives. --count: stop after N messages (exit 1 when fewer came);\n"
     "--timeout: stop after S seconds; --raw: one line per message, compact JSON.\n"},
    {"dump",
     "usage: amctl dump [dump|d0|d1|d2|d3|d4|d5] [--timeout S]\n\n"
     "Writes the request word into the debug pipe /tmp/request, waits for /tmp/request-ok and\n"
     "prints /tmp/dump-status.txt. dump or d0: everything; d1 routing state; d2 capture engines;\n"
     "d3 playback engines; d4 FPGA matrix; d5 clock synthesiser. --timeout: default 30 s.\n"},
    {"genlock",
     "usage: amctl genlock [--json]\n\n"
     "Shows /tmp/genlock.json (buffer fill and clock adjustment per genlock channel) and\n"
     "/tmp/pktdrop.json (bytes lost per stream). --json: the files as they are.\n"},
};

}  // namespace

std::string amctl_command_usage(const std::string& name) {
  for (const amctl_tool_usage_t& t : kToolUsages) {
    if (name == t.name) {
      return std::string(t.text) + "\nFiles are looked up under $AUDIO_MANAGER_ROOT when it is set.\n";
    }
  }
  const amctl_command_t* c = find_command(name);
  if (c == nullptr) {
    return "";
  }
  std::ostringstream s;
  s << "usage: " << synopsis(*c) << "\n";
  if (c->gettable) {
    s << "       amctl " << c->name << " --get [ARGS]   (the get form of the same record)\n";
  }
  s << "\n" << c->summary << ".\n";
  s << "Command " << c->id << ", operation " << (c->op == QB_AUDIO_CMD_OP_GET ? "get" :
                                                 c->op == QB_AUDIO_CMD_OP_NOTIFY ? "notify" : "set")
    << "; sent to 127.0.0.1:" << QB_AUDIO_CMD_PORT << ".\n";
  s << "\nPORT: analog, hdmi, spdif, earc, stream, dsp (or 0-5).\n"
       "SOURCE: analog, hdmi, spdif, earc, stream, dsp, hdmiDownmix (or 0-6).\n"
       "MAC: 001122334455 or 00:11:22:33:44:55. Numbers: decimal or 0x hex.\n"
       "Options: --port N (destination port), --dry-run (print the datagram, send nothing),\n"
       "         -v (print the datagram and send it).\n";
  return s.str();
}

std::string amctl_short_usage(const std::string& name) {
  const std::string full = amctl_command_usage(name);
  std::string lines;
  size_t start = 0;
  while (start < full.size()) {
    const size_t end = full.find('\n', start);
    const std::string line = full.substr(start, end == std::string::npos ? end : end - start);
    if (line.empty()) {
      break;
    }
    lines += line + "\n";
    if (end == std::string::npos) {
      break;
    }
    start = end + 1;
  }
  return lines + "(amctl " + name + " --help for details)\n";
}

std::string amctl_usage() {
  std::ostringstream s;
  s << "usage: amctl [--port N] [--dry-run] [-v] COMMAND [ARGS]\n"
       "       amctl COMMAND --help\n\n"
       "Commands to the audio daemon on 127.0.0.1:"
    << QB_AUDIO_CMD_PORT << ":\n";
  for (const amctl_command_t& c : kCommands) {
    s << "  " << synopsis(c).substr(6) << "\n      " << c.summary << "\n";
  }
  s << "\nTools:\n"
       "  watch [--count N] [--timeout S] [--raw]\n"
       "      print the JSON reports and drop events the daemon sends to 127.0.0.1:9995\n"
       "  dump [dump|d0|d1|d2|d3|d4|d5] [--timeout S]\n"
       "      ask the debug pipe for a state dump and print it\n"
       "  genlock [--json]\n"
       "      show the genlock state and the packet-loss statistics files\n\n"
       "Files are looked up under $AUDIO_MANAGER_ROOT when it is set.\n";
  return s.str();
}
