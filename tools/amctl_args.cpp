// amctl: the command line and the text forms of the command fields.
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "amctl.h"
#include "qb_audio_protocol.h"

namespace {

struct amctl_name_t {
  const char* name;
  int value;
};

// Port and source names as the daemon's log lines print them.
constexpr amctl_name_t kPortNames[] = {
    {"analog", 0}, {"hdmi", 1}, {"spdif", 2}, {"earc", 3}, {"stream", 4}, {"dsp", 5},
};
constexpr amctl_name_t kSourceNames[] = {
    {"analog", QB_AUDIO_SRC_ANALOG}, {"hdmi", QB_AUDIO_SRC_HDMI},
    {"spdif", QB_AUDIO_SRC_SPDIF},   {"earc", QB_AUDIO_SRC_EARC},
    {"stream", QB_AUDIO_SRC_STREAM}, {"dsp", QB_AUDIO_SRC_DSP},
    {"hdmiDownmix", QB_AUDIO_SRC_HDMI_DOWNMIX},
};
// Channel ids by dump name; "hdmi" names the HDMI input, whose dump name is "video".
constexpr amctl_name_t kChannelNames[] = {
    {"analog", QB_AUDIO_CHN_ANALOG}, {"earc", QB_AUDIO_CHN_EARC},      {"video", QB_AUDIO_CHN_VIDEO},
    {"hdmi", QB_AUDIO_CHN_VIDEO},    {"dsp", QB_AUDIO_CHN_DSP},        {"spdif", QB_AUDIO_CHN_SPDIF},
    {"nsi1", QB_AUDIO_CHN_NSI1},     {"nsi3", QB_AUDIO_CHN_NSI3},      {"nsi5", QB_AUDIO_CHN_NSI5},
    {"nsispdif", QB_AUDIO_CHN_NSI_SPDIF}, {"nso1", QB_AUDIO_CHN_NSO1}, {"nso3", QB_AUDIO_CHN_NSO3},
    {"nso5", QB_AUDIO_CHN_NSO5},     {"nsospdif", QB_AUDIO_CHN_NSO_SPDIF},
};
constexpr amctl_name_t kOnOffNames[] = {
    {"on", 1},    {"off", 0}, {"yes", 1}, {"no", 0}, {"true", 1}, {"false", 0},
    {"connected", 1}, {"disconnected", 0}, {"1", 1}, {"0", 0},
};

// Sample-frequency codes of the channel records (IEC 60958-3 channel-status byte 3).
struct amctl_rate_t {
  qb_u8_t code;
  long long hz;
};
constexpr amctl_rate_t kRateCodes[] = {
    {0, 44100}, {2, 48000},  {3, 32000},   {4, 22050},  {6, 24000},
    {8, 88200}, {9, 768000}, {10, 96000}, {12, 176400}, {14, 192000},
};

bool equal_ignoring_case(const std::string& a, const char* b) {
  const size_t n = std::strlen(b);
  if (a.size() != n) {
    return false;
  }
  for (size_t i = 0; i < n; ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

template <size_t N>
bool lookup_name(const amctl_name_t (&table)[N], const std::string& text, int* out) {
  for (const amctl_name_t& entry : table) {
    if (equal_ignoring_case(text, entry.name)) {
      *out = entry.value;
      return true;
    }
  }
  return false;
}

// A name from the table, or a number in [min, max].
template <size_t N>
bool parse_named(const amctl_name_t (&table)[N], const std::string& text, long long min,
                 long long max, long long* out) {
  int value = 0;
  if (lookup_name(table, text, &value)) {
    *out = value;
    return true;
  }
  return amctl_parse_number(text, min, max, out);
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool is_option_word(const std::string& word) {
  return word.size() > 1 && word[0] == '-' &&
         !(std::isdigit(static_cast<unsigned char>(word[1])) != 0);
}

}  // namespace

// ---- the command line ---------------------------------------------------------------------------

amctl_args_t::amctl_args_t(int argc, char* const* argv) {
  for (int i = 0; i < argc; ++i) {
    words_.emplace_back(argv[i] != nullptr ? argv[i] : "");
  }
}

bool amctl_args_t::flag(const char* name) {
  bool found = false;
  for (auto it = words_.begin(); it != words_.end();) {
    if (*it == "--") {
      break;
    }
    if (*it == name) {
      it = words_.erase(it);
      found = true;
    } else {
      ++it;
    }
  }
  return found;
}

bool amctl_args_t::value(const char* name, std::string* out, bool* present, std::string* err) {
  const std::string prefix = std::string(name) + "=";
  *present = false;
  for (size_t i = 0; i < words_.size(); ++i) {
    if (words_[i] == "--") {
      break;
    }
    if (words_[i].compare(0, prefix.size(), prefix) == 0) {
      *out = words_[i].substr(prefix.size());
      words_.erase(words_.begin() + static_cast<long>(i));
      *present = true;
      return true;
    }
    if (words_[i] == name) {
      if (i + 1 >= words_.size()) {
        *err = std::string("option ") + name + " needs a value";
        return false;
      }
      *out = words_[i + 1];
      words_.erase(words_.begin() + static_cast<long>(i), words_.begin() + static_cast<long>(i) + 2);
      *present = true;
      return true;
    }
  }
  return true;
}

bool amctl_args_t::positionals(std::vector<std::string>* out, std::string* err) const {
  out->clear();
  bool after_dashes = false;
  for (const std::string& word : words_) {
    if (!after_dashes && word == "--") {
      after_dashes = true;
      continue;
    }
    if (!after_dashes && is_option_word(word)) {
      *err = "unknown option " + word;
      return false;
    }
    out->push_back(word);
  }
  return true;
}

// ---- field texts --------------------------------------------------------------------------------

bool amctl_parse_number(const std::string& text, long long min, long long max, long long* out) {
  if (text.empty()) {
    return false;
  }
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const long long value = std::strtoll(begin, &end, hex ? 16 : 10);
  if (errno != 0 || end == begin || *end != '\0' || value < min || value > max) {
    return false;
  }
  *out = value;
  return true;
}

bool amctl_parse_port(const std::string& text, qb_u32_t* out) {
  long long value = 0;
  if (!parse_named(kPortNames, text, 0, 5, &value)) {
    return false;
  }
  *out = static_cast<qb_u32_t>(value);
  return true;
}

bool amctl_parse_source(const std::string& text, qb_u32_t* out) {
  long long value = 0;
  if (!parse_named(kSourceNames, text, QB_AUDIO_SRC_ANALOG, QB_AUDIO_SRC_HDMI_DOWNMIX, &value)) {
    return false;
  }
  *out = static_cast<qb_u32_t>(value);
  return true;
}

bool amctl_parse_channel(const std::string& text, qb_s32_t* out) {
  long long value = 0;
  if (!parse_named(kChannelNames, text, QB_AUDIO_CHN_MIN, QB_AUDIO_CHN_MAX, &value)) {
    return false;
  }
  *out = static_cast<qb_s32_t>(value);
  return true;
}

bool amctl_parse_onoff(const std::string& text, qb_u32_t* out) {
  int value = 0;
  if (!lookup_name(kOnOffNames, text, &value)) {
    return false;
  }
  *out = static_cast<qb_u32_t>(value);
  return true;
}

bool amctl_parse_mac(const std::string& text, char out[13]) {
  int digits = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if ((c == ':' || c == '-') && digits % 2 == 0 && digits > 0 && digits < 12 && i + 1 < text.size()) {
      continue;
    }
    if (hex_digit(c) < 0 || digits >= 12) {
      return false;
    }
    out[digits++] = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  if (digits != 12) {
    return false;
  }
  out[12] = '\0';
  return true;
}

bool amctl_parse_cec(const std::string& text, qb_u32_t* out) {
  // "1.0.0.0": four hex digits, one per level of the HDMI topology.
  if (text.size() == 7 && text[1] == '.' && text[3] == '.' && text[5] == '.') {
    qb_u32_t value = 0;
    for (size_t i = 0; i < text.size(); i += 2) {
      const int d = hex_digit(text[i]);
      if (d < 0) {
        return false;
      }
      value = (value << 4) | static_cast<qb_u32_t>(d);
    }
    *out = value;
    return true;
  }
  long long value = 0;
  if (!amctl_parse_number(text, 0, 0xFFFFFFFFLL, &value)) {
    return false;
  }
  *out = static_cast<qb_u32_t>(value);
  return true;
}

bool amctl_rate_code(long long hz, qb_u8_t* code) {
  for (const amctl_rate_t& rate : kRateCodes) {
    if (rate.hz == hz) {
      *code = rate.code;
      return true;
    }
  }
  return false;
}
