// Status reports to cmd_core.
#include "qb_audio_oper_report.h"

#include <arpa/inet.h>
#include <json/writer.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include "am_log.h"
#include "qb_audio_misc.h"
#include "qb_audio_oper.h"
#include "qb_audio_protocol.h"
#include "qb_audio_stream.h"
#include "qb_socket.h"
#include "qb_tlv_box.h"

namespace {

// A reported port: its mask bit, its name, the channel of its input and the stream its output
// actually plays.
struct report_port_t {
  int bit;
  const char* name;
  int input_channel;
  int (*output_sid)(void);
};

constexpr report_port_t kReportPorts[] = {
    {QB_REPORT_PORT_ANALOG, "analog", QB_AUDIO_CHN_ANALOG, qb_misc_audio_sid_analog_get},
    {QB_REPORT_PORT_EARC, "earc", QB_AUDIO_CHN_EARC, get_output_earc_stream_actual_sid},
    {QB_REPORT_PORT_HDMI, "hdmi", QB_AUDIO_CHN_VIDEO, get_output_hdmi_stream_actual_sid},
    {QB_REPORT_PORT_SPDIF, "spdif", QB_AUDIO_CHN_SPDIF, get_output_spdif_stream_actual_sid},
};

constexpr int kMaskBits = 32;
constexpr const char* kStateOn = "on";
constexpr const char* kFormatLpcm = "LPCM";
// Room for an encoding name.
constexpr size_t kEncodingNameSize = 32;
constexpr int kNoStream = -1;
constexpr int kNoChannel = 255;

// The module's state. The pending output mask update_chs is guarded by a recursive lock: a report
// may be made from a thread that already holds it. The report socket is created on first use and
// kept for the process, under its own lock.
struct report_state_t {
  std::recursive_mutex update_chs_mutex;
  int update_chs = 0;
  std::mutex socket_mutex;
  int fd = -1;
  sockaddr_in dest{};
};
report_state_t g_report;

qb_u8_t u8(qb_s8_t v) { return static_cast<qb_u8_t>(v); }

// Whether a mask names a port (its bits without a port produce no entry).
bool masked(int mask, const report_port_t& port) { return (static_cast<unsigned>(mask) & (1u << port.bit)) != 0; }

// One array entry from a channel record.
Json::Value make_entry(const char* port, int ch, const qb_audio_info& rec) {
  const char* format = audio_type_name(u8(rec.Audio_Type));
  char encoding[kEncodingNameSize];
  std::memset(encoding, 0, sizeof(encoding));
  get_encodingType(ch, &rec, encoding);
  if (std::strcmp(format, kFormatLpcm) == 0) {
    AM_LOG_INFO("encodingType change from [%s] to [%s]", encoding, kFormatLpcm);
    std::snprintf(encoding, sizeof(encoding), "%s", kFormatLpcm);
  }
  Json::Value entry(Json::objectValue);
  entry["port"] = port;
  entry["state"] = kStateOn;
  entry["format"] = format;
  entry["encodingType"] = encoding;
  entry["channels"] = static_cast<int>(u8(rec.ValidCh));
  entry["sampleFrequency"] = get_sample_frequency2(ch, u8(rec.SampleFrequency));
  entry["sampleSize"] = static_cast<int>(u8(rec.SampleSize));
  return entry;
}

void dump_output_record(int ch, const qb_audio_info& a) {
  const int freq_code = u8(a.SampleFrequency);
  AM_LOG_INFO(
      "%s:%d ainfo :\nAudio_On:[%d] \nSampleFrequency:[%d:%d] \nValidCh:[%d] \nSampleSize:[%d] "
      "\nenable_upstream:[%d] \nDownSampling:[%d] \nMode16bits:[%d] \nAudio_Type:[%d:%s] "
      "\nbSPDIF:[%d] \nAUD_DB[0]:[%d:%s] \nChStat[0]:[%d]\n",
      "GetOutputReportMsg", __LINE__, u8(a.Audio_On), freq_code, get_sample_frequency2(ch, freq_code), u8(a.ValidCh),
      u8(a.SampleSize), u8(a.enable_upstream), u8(a.DownSampling), u8(a.Mode16bits), u8(a.Audio_Type),
      audio_type_name(u8(a.Audio_Type)), u8(a.bSPDIF), u8(a.AUD_DB[0]), audio_dsp_encoding_name(u8(a.AUD_DB[0])),
      u8(a.ChStat[0]));
}

// The report socket, created on first use. -1 when it cannot be created.
int report_socket() {
  std::lock_guard<std::mutex> lock(g_report.socket_mutex);
  if (g_report.fd != -1) {
    return g_report.fd;
  }
  const int fd = qb_create_sock(QB_UDP_SOCK);
  if (fd < 0) {
    AM_LOG_ERROR("Creat Async Report Socket Error!!!");
    return -1;
  }
  std::memset(&g_report.dest, 0, sizeof(g_report.dest));
  g_report.dest.sin_family = AF_INET;
  g_report.dest.sin_port = htons(static_cast<uint16_t>(QB_REPORT_PORT));
  g_report.dest.sin_addr.s_addr = htonl(qb_ip_a2n(QB_REPORT_ADDRESS));
  g_report.fd = fd;
  return g_report.fd;
}

// Frees the boxes of one message.
struct box_guard_t {
  tlv_box_t* box;
  ~box_guard_t() {
    if (box != nullptr) {
      tlv_box_destroy(box);
    }
  }
};

}  // namespace

void qb_report_socket_reset(void) {
  std::lock_guard<std::mutex> lock(g_report.socket_mutex);
  if (g_report.fd != -1) {
    qb_close_socket(&g_report.fd);
    g_report.fd = -1;
  }
}

void set_update_chs(int value) {
  std::lock_guard<std::recursive_mutex> lock(g_report.update_chs_mutex);
  g_report.update_chs = value;
}

void set_update_chs_or(int bit) {
  if (bit < 0 || bit >= kMaskBits) {
    return;
  }
  std::lock_guard<std::recursive_mutex> lock(g_report.update_chs_mutex);
  g_report.update_chs |= static_cast<int>(1u << bit);
}

int get_update_chs(void) {
  std::lock_guard<std::recursive_mutex> lock(g_report.update_chs_mutex);
  return g_report.update_chs;
}

// Both arrays list the ports in rising bit order, as the port table does.
void GetInputReportMsg(Json::Value& out, int inputs) {
  for (const report_port_t& port : kReportPorts) {
    qb_audio_info rec{};
    if (!masked(inputs, port) || qb_audio_channel_state_copy(port.input_channel, &rec) != 1) {
      continue;
    }
    AM_LOG_INFO("%s:%d create json port : [%s] ch[%d]", "GetInputReportMsg", __LINE__, port.name, port.input_channel);
    out.append(make_entry(port.name, port.input_channel, rec));
  }
}

void GetOutputReportMsg(Json::Value& out, int outputs) {
  for (const report_port_t& port : kReportPorts) {
    const int sid = masked(outputs, port) ? port.output_sid() : kNoStream;
    const int ch = sid != kNoStream ? qb_misc_audio_get_chn_saiid_by_sid(sid) : kNoChannel;
    qb_audio_info rec{};
    if (ch == kNoChannel || qb_audio_channel_state_copy(ch, &rec) != 1) {
      continue;
    }
    AM_LOG_INFO("%s:%d create json port : [%s] ch[%d] actual_sid[%d] saiid[%d]", "GetOutputReportMsg", __LINE__,
                port.name, ch, sid, qb_misc_audio_get_saiid_by_sid(sid));
    dump_output_record(ch, rec);
    out.append(make_entry(port.name, ch, rec));
  }
}

void GetReportMsg(std::string& out, int inputs, int outputs) {
  out.clear();
  Json::Value input(Json::arrayValue);
  Json::Value output(Json::arrayValue);
  GetInputReportMsg(input, inputs);
  GetOutputReportMsg(output, outputs);
  Json::Value status(Json::objectValue);
  if (!input.empty()) {
    status["input"] = input;
  }
  if (!output.empty()) {
    status["output"] = output;
  }
  if (status.empty()) {
    return;
  }
  Json::Value root(Json::objectValue);
  root["status"] = status;
  Json::FastWriter writer;
  out = writer.write(root);
}

int ReportAudioMsg(const std::string& text) {
  if (text.empty()) {
    return 0;
  }
  const int fd = report_socket();
  if (fd < 0) {
    return 0;
  }
  AM_LOG_INFO("Send Msg To cmd_core port:[%d]-[%s]", QB_REPORT_PORT, text.c_str());
  box_guard_t inner{tlv_box_create()};
  box_guard_t outer{tlv_box_create()};
  if (inner.box == nullptr || outer.box == nullptr ||
      tlv_box_put_string(inner.box, QB_REPORT_INNER_TYPE, text.c_str()) != 0 || tlv_box_serialize(inner.box) != 0 ||
      tlv_box_put_object(outer.box, QB_REPORT_OUTER_TYPE, inner.box) != 0 || tlv_box_serialize(outer.box) != 0) {
    return 0;
  }
  const ssize_t sent = sendto(fd, tlv_box_get_buffer(outer.box), static_cast<size_t>(tlv_box_get_size(outer.box)), 0,
                              reinterpret_cast<const sockaddr*>(&g_report.dest), sizeof(g_report.dest));
  return sent >= 0 ? 1 : 0;
}

int reportDetailsAudioStatus(int inputs) {
  // The mask stays locked from reading to clearing, so an output change made meanwhile by another
  // thread waits for the next report instead of being cleared unreported.
  std::lock_guard<std::recursive_mutex> lock(g_report.update_chs_mutex);
  const int outputs = g_report.update_chs;
  if (inputs == 0 && outputs == 0) {
    return 0;
  }
  AM_LOG_INFO("audio change ch_types : input:[0x%x] output:[0x%x]", static_cast<unsigned>(inputs),
              static_cast<unsigned>(outputs));
  std::string text;
  GetReportMsg(text, inputs, outputs);
  const int ret = ReportAudioMsg(text);
  g_report.update_chs = 0;
  return ret;
}
