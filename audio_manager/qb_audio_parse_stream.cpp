// Stream selection and monitor commands: which peer the network inputs come from, which stream
// each local output plays, what each network output sends, the HDMI side's notifications (CEC
// physical address, bridge mode, monitor state), the full status request and the per-channel
// format notification.
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "am_log.h"
#include "qb_audio_aplay.h"
#include "qb_audio_misc.h"
#include "qb_audio_misc_bridge.h"
#include "qb_audio_misc_stream.h"
#include "qb_audio_oper_packet.h"
#include "qb_audio_oper_report.h"
#include "qb_audio_parse.h"
#include "qb_audio_parse_private.h"
#include "qb_audio_stream.h"
#include "qb_tlv_box.h"

namespace {

// The MAC text of a peer: twelve hexadecimal characters, two per byte.
constexpr int kMacTextChars = 12;
constexpr int kMacBytes = 6;
// Longest payload echoed as text in a log line.
constexpr int kMacLogMax = 1024;

// Pause after an input-from-network request, letting the playback worker pick up the address.
constexpr useconds_t kFromNetSettleUs = 100 * 1000;

// The network output that carries the ARC/eARC input.
constexpr qb_s32_t kArcStreamId = 1;
constexpr qb_s32_t kStreamIdCount = QB_AUDIO_NET_OUTPUTS;
// Payload size of a full status request, in its log line.
constexpr int kDetailsPayload = 4;
// Report mask of a DSP change: the video channel.
constexpr int kDspReportMask = 1 << QB_AUDIO_CHN_VIDEO;

// Change counter value that replaces 0 after a wrap.
constexpr qb_u32_t kChangeCounterRestart = 0x123456;

// The channel information payload: channel id, then one format record.
struct channel_info_payload_t {
  qb_s32_t ch;
  qb_audio_info info;
};
static_assert(sizeof(channel_info_payload_t) == 24, "24-byte channel information");

// Reads the first 32-bit value of a payload; bytes past its end count as zero.
qb_s32_t read_first_s32(const void* buf, int len) {
  qb_s32_t value;
  (void)qb_payload_read(buf, len, &value, QB_PAYLOAD_PARTIAL);
  return value;
}

bool same_output_request(const qb_audio_output_stream_t& cached,
                         const qb_audio_output_stream_t& req) {
  return cached.streamID == req.streamID && cached.source == req.source &&
         strncasecmp(cached.vaxoMac, req.vaxoMac, QB_AUDIO_MAC_TEXT_SIZE) == 0;
}

// ARC mode for the IT6620 service from an output request on the ARC stream.
int arc_mode_for_source(qb_s32_t source) {
  if (source != QB_AUDIO_SRC_EARC) {
    return QB_ARC_MODE_OFF;
  }
  const bool only_arc = qb_audio_cmd_module().g_stAudInputEarcOnlyarc != 0;
  return only_arc ? QB_ARC_MODE_ARC_ONLY : QB_ARC_MODE_ARC_EARC;
}

// Next value of the process-wide header change counter (0x123456 instead of 0 after a wrap).
void bump_change_counter() {
  qb_u32_t old_value = g_s32Audio_change.load();
  qb_u32_t new_value = 0;
  do {
    new_value = old_value + 1;
    if (new_value == 0) {
      new_value = kChangeCounterRestart;
    }
  } while (!g_s32Audio_change.compare_exchange_weak(old_value, new_value));
}

qb_u8_t u8(qb_s8_t v) { return static_cast<qb_u8_t>(v); }

// Each network output stream, indexed by stream id: its channel record, what restarts it when
// its source changes, and the capture number in the restart log line.
struct net_out_t {
  int channel;
  int (*restart)(int ch);
  int capture;
};
constexpr net_out_t kNetOutputs[kStreamIdCount] = {
    {QB_AUDIO_CHN_NSO1, qb_audio_net_stream_out1_restart, 1},
    {QB_AUDIO_CHN_NSO5, qb_audio_net_stream_out5_start, 3},
    {QB_AUDIO_CHN_NSO3, qb_audio_net_stream_out3_restart, 2},
};

// Each network input stream: stream id, name in the log line and channel record, in the order
// in1, in3, in5.
struct net_in_t {
  int sid;
  const char* name;
  int channel;
};
constexpr net_in_t kNetInputs[] = {
    {0, "in1", QB_AUDIO_CHN_NSI1}, {2, "in3", QB_AUDIO_CHN_NSI3}, {1, "in5", QB_AUDIO_CHN_NSI5}};

// The DSP's decoder code goes into the first InfoFrame byte of the video record when the HDMI
// input is not LPCM, and into every network output record that carries the HDMI input.
void spread_dsp_code(const qb_audio_info& dsp) {
  qb_audio_info video{};
  if (qb_audio_channel_state_copy(QB_AUDIO_CHN_VIDEO, &video) != 1 ||
      u8(video.Audio_Type) == QB_AUDIO_TYPE_LPCM) {
    return;
  }
  qb_audio_channel_state_byte_set(QB_AUDIO_CHN_VIDEO, QB_AUDIO_INFO_AUD_DB0, dsp.AUD_DB[0]);
  for (int sid = 0; sid < kStreamIdCount; ++sid) {
    if (qb_net_n_stream_select_get(sid) == QB_AUDIO_SRC_HDMI) {
      qb_audio_channel_state_byte_set(kNetOutputs[sid].channel, QB_AUDIO_INFO_AUD_DB0,
                                      dsp.AUD_DB[0]);
    }
  }
}

// A new HDMI input record: audio off switches the DSP record off; a non-LPCM stream takes the
// DSP's decoder code.
void merge_dsp_into_video(qb_audio_info* video) {
  qb_audio_info dsp{};
  if (qb_audio_channel_state_copy(QB_AUDIO_CHN_DSP, &dsp) != 1) {
    return;
  }
  if (video->Audio_On == 0) {
    qb_audio_channel_state_byte_set(QB_AUDIO_CHN_DSP, QB_AUDIO_INFO_AUDIO_ON, 0);
  }
  if (u8(video->Audio_Type) != QB_AUDIO_TYPE_LPCM) {
    video->AUD_DB[0] = dsp.AUD_DB[0];
  }
}

// Re-applies the analog output's selection when it plays the HDMI input.
void reapply_analog_hdmi() {
  const local_port_info_t port = qb_misc_audio_info_analog_port_copy();
  if (port.src != static_cast<qb_u32_t>(QB_AUDIO_SRC_HDMI)) {
    return;
  }
  const qb_audio_output_src_select_t sel = {0, port.src};
  output_src_select_set(&sel, sizeof(sel));
}

// Restarts every network output whose stream captures the selection sel, with channel arg.
void restart_outputs_of(int sel, int arg) {
  int selected[kStreamIdCount] = {};
  for (int sid = 0; sid < kStreamIdCount; ++sid) {
    selected[sid] = qb_net_n_stream_select_get(sid);
  }
  for (int sid = 0; sid < kStreamIdCount; ++sid) {
    if (selected[sid] == sel) {
      kNetOutputs[sid].restart(arg);
      AM_LOG_INFO("%s,capture%d restart:%d", "audio_channel_info_note", kNetOutputs[sid].capture,
                  selected[sid]);
    }
  }
}

// Whether a note brings nothing new for the channel: the stored record is the same byte for byte
// (for the HDMI input: the same format).
bool record_unchanged(int ch, const qb_audio_info& info) {
  qb_audio_info old{};
  if (qb_audio_channel_state_copy(ch, &old) != 1) {
    return false;
  }
  if (ch == QB_AUDIO_CHN_VIDEO) {
    return cmp_aiinfo(&info, &old) == 0;
  }
  return std::memcmp(&old, &info, sizeof(info)) == 0;
}

// A network input's expected format: stored when it differs, the playback run restarts.
void note_network_input(int ch, const qb_audio_info& info) {
  if (!record_unchanged(ch, info) && qb_audio_channel_state_set(ch, &info) == 1) {
    qb_audio_aplay_info_change_set(ch);
  }
}

// Stores a changed local input and restarts what captures it. Returns the report mask.
int note_local_input(int ch, qb_audio_info info) {
  bump_change_counter();
  const int mask = ch == QB_AUDIO_CHN_DSP ? kDspReportMask : (1 << ch);
  if (ch == QB_AUDIO_CHN_DSP) {
    spread_dsp_code(info);
  } else if (ch == QB_AUDIO_CHN_VIDEO) {
    merge_dsp_into_video(&info);
  }
  if (qb_audio_channel_state_set(ch, &info) != 1) {
    if (ch == QB_AUDIO_CHN_VIDEO) {
      reapply_analog_hdmi();
    }
    return mask;
  }
  const int sel = qb_audio_channel_state_id_switch_netstreamsel(ch);
  AM_LOG_INFO("%s, channel[%s] info update ok, ch[%d],%d,%d,%d", "audio_channel_info_note",
              qb_audio_channel_name(ch), ch, sel, qb_net_first_stream_select_get(),
              qb_net_second_stream_select_get());
  restart_outputs_of(sel, ch);
  if (ch == QB_AUDIO_CHN_VIDEO) {
    restart_outputs_of(QB_AUDIO_SRC_HDMI_DOWNMIX, QB_AUDIO_CHN_DSP);
    reapply_analog_hdmi();
  }
  return mask;
}

}  // namespace

int input_src_mac_get(const void*, int len) {
  AM_LOG_INFO("%s,%d", __func__, len);
  return 1;
}

int input_src_mac_set(const void* buf, int len) {
  // The payload is echoed only as far as it goes: the log copy is bounded and terminated.
  char shown[kMacLogMax + 1] = {};
  if (buf != nullptr && len > 0) {
    std::memcpy(shown, buf, static_cast<size_t>(std::min(len, kMacLogMax)));
  }
  AM_LOG_INFO("%s,mac[%s] len[%d]", __func__, shown, len);
  if (buf == nullptr || len <= kMacTextChars - 1) {
    return 0;
  }
  char text[kMacTextChars + 1] = {};
  std::memcpy(text, buf, kMacTextChars);
  qb_u8_t m[kMacBytes] = {};
  macaddr_str2hex(text, m);
  AM_LOG_INFO("%s,mac=[%02x:%02x:%02x:%02x:%02x:%02x]", __func__, m[0], m[1], m[2], m[3], m[4],
              m[5]);
  char mac[QB_AUDIO_MAC_TEXT_SIZE] = {};
  std::snprintf(mac, sizeof(mac), "%02x%02x%02x%02x%02x%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
  char group[QB_NET_IPADDR_SIZE] = {};
  std::snprintf(group, sizeof(group), "%d.%d.%d.%d", QB_AUDIO_MCAST_OCTET1,
                QB_AUDIO_MCAST_OCTET2_BASE | (m[3] & 0x0F), m[4], m[5]);
  for (const net_in_t& in : kNetInputs) {
    qb_misc_net_stream_addr_set(in.sid, false, group, mac);
    AM_LOG_INFO("%s,%s ip:%s", __func__, in.name, group);
  }
  for (const net_in_t& in : kNetInputs) {
    qb_audio_aplay_info_change_set(in.channel);
  }
  return 1;
}

int stream_input_select_set(const void* buf, int len) {
  qb_audio_stream_input_select_t req;
  const bool whole = qb_payload_read(buf, len, &req, QB_PAYLOAD_PARTIAL);
  AM_LOG_INFO("%s,stream input select ch[%s][%d], subid[%d] , fallback subsid[%d]", __func__,
              qb_audio_output_port_name(req.ch), req.ch, req.sid, req.fallback_sid);
  if (!whole) {
    return 0;
  }
  return qb_audio_stream_input_select(static_cast<int>(req.ch), static_cast<int>(req.sid),
                                      static_cast<int>(req.fallback_sid));
}

int stream_input_fallback_select_set(const void* buf, int len) {
  qb_audio_stream_input_select_t req;
  const bool whole = qb_payload_read(buf, len, &req, QB_PAYLOAD_PARTIAL);
  AM_LOG_INFO("%s,stream input select ch[%s][%d], fullback_subid[%d]", __func__,
              qb_audio_output_port_name(req.ch), req.ch, req.fallback_sid);
  if (!whole) {
    return 0;
  }
  return qb_audio_stream_input_fallback_select(static_cast<int>(req.ch));
}

int stream_input_fromnet_set(const void* buf, int len) {
  AM_LOG_INFO("%s,stream input from net %d,%d", __func__, len,
              static_cast<int>(sizeof(qb_audio_input_stream_t)));
  qb_audio_input_stream_t req;
  if (!qb_payload_read(buf, len, &req)) {
    return 0;
  }
  qb_audio_stream_input_from_net_set(&req);
  usleep(kFromNetSettleUs);
  return 1;
}

int stream_output_tonet_set(const void* buf, int len) {
  qb_audio_output_stream_t req;
  if (!qb_payload_read(buf, len, &req)) {
    AM_LOG_ERROR("stream output to net param error");
    return 0;
  }
  AM_LOG_INFO("%s,stream output to net buflen:%d ,source = %d ,streamID = %d, vaxoMac=%.*s",
              __func__, len, req.source, req.streamID, QB_AUDIO_MAC_TEXT_SIZE, req.vaxoMac);
  if (req.streamID == kArcStreamId) {
    arc_on_off_ctrl(arc_mode_for_source(req.source));
  }
  if (static_cast<qb_u32_t>(req.streamID) >= static_cast<qb_u32_t>(kStreamIdCount)) {
    AM_LOG_ERROR("invalid param streamID:%d", req.streamID);
    AM_LOG_INFO("stream output to net has been set");
    return 0;
  }
  qb_audio_output_stream_t& cached = qb_audio_cmd_module().g_stAudStream[req.streamID];
  if (same_output_request(cached, req)) {
    AM_LOG_INFO("stream output to net has been set");
    return 0;
  }
  cached = req;
  return qb_audio_stream_output_to_net_set(&req);
}

int cec_phyaddr_set(const void* buf, int len) {
  // The logged address takes as many of its four bytes as the payload holds, the rest zero.
  const qb_u32_t addr = static_cast<qb_u32_t>(read_first_s32(buf, len));
  AM_LOG_INFO("%s, cec payaddr[%08x], buflen[%d]", __func__, addr, len);
  if (buf == nullptr || len != static_cast<int>(sizeof(addr))) {
    AM_LOG_ERROR("invalid buflen %d", len);
    return 0;
  }
  (void)audio_tlv_packet(TLV_OUTER_TYPE_IT6620, QB_BRIDGE_KEY_CEC_PHY_ADDR, buf, sizeof(addr));
  return 1;
}

int it6621_mode_set(const void* buf, int len) {
  if (buf == nullptr || len <= 0) {
    AM_LOG_ERROR("invalid param buflen %d", len);
    return 0;
  }
  // A payload shorter than four bytes is read as far as it goes, the rest as zero.
  const qb_s32_t mode = read_first_s32(buf, len);
  AM_LOG_INFO("it6621 arc/earc status %d", mode);
  set_it6621_status(mode);
  return 0;
}

int monitor_status_set(const void* buf, int len) {
  if (buf == nullptr || len <= 0) {
    AM_LOG_ERROR("invalid param buflen %d", len);
    return 0;
  }
  set_hdmi_monitor_status(read_first_s32(buf, len));  // a short state is read as far as it goes
  return 0;
}

int details_audio_status_get(const void* buf, int len) {
  qb_detail_audio_status req;
  if (!qb_payload_read(buf, len, &req)) {
    AM_LOG_ERROR("%s,%d buffer NULL error\r\n", __func__, len);
    return 0;
  }
  set_update_chs(QB_REPORT_ALL_PORTS);
  reportDetailsAudioStatus(QB_REPORT_ALL_PORTS);
  AM_LOG_INFO("%s,%d chs[%x]\n", __func__, kDetailsPayload, static_cast<unsigned>(req.chs));
  return 1;
}

int audio_channel_info_note(const void* buf, int len) {
  channel_info_payload_t note;
  if (!qb_payload_read(buf, len, &note)) {
    return 0;
  }
  const int ch = note.ch;
  if (ch >= QB_AUDIO_CHN_NSI1 && ch <= QB_AUDIO_CHN_NSI5) {
    note_network_input(ch, note.info);
    reportDetailsAudioStatus(0);
    return 1;
  }
  if (ch <= 0 || ch >= QB_AUDIO_CHN_NSI_SPDIF) {
    AM_LOG_ERROR("invalid ch:%d", ch);
    return 0;
  }
  int mask = 0;
  if (!record_unchanged(ch, note.info)) {
    mask = note_local_input(ch, note.info);
  }
  reportDetailsAudioStatus(mask);
  return 1;
}
