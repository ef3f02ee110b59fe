// Network stream endpoints: addresses and device ids of the six streams, source selections of the
// three network outputs, group derivation from a peer's MAC, the start of each output's capture
// routing, and the routing section of the status dump.
#include "qb_audio_misc_stream.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "am_log.h"
#include "posix_system.h"
#include "qb_audio_aplay.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_misc_private.h"
#include "qb_audio_misc_spdif.h"
#include "qb_audio_stream.h"

namespace {

constexpr int kMacBytes = 6;
constexpr int kMacTextLen = 2 * kMacBytes;
// Longest command line of the network player, and its format when the channel does not tell.
constexpr size_t kCommandSize = 256;
constexpr int kDefaultPlayerChannels = 2;
constexpr int kDefaultPlayerRate = 48000;

// Everything that belongs to one stream id.
struct stream_row_t {
  qb_s32_t net_stream_output_sel_t::*selection;
  int out_channel;
  char (net_stream_ipaddr_t::*out_ipaddr)[QB_NET_IPADDR_SIZE];
  char (net_stream_ipaddr_t::*out_deviceid)[QB_NET_DEVICEID_SIZE];
  int in_channel;
  char (net_stream_ipaddr_t::*in_ipaddr)[QB_NET_IPADDR_SIZE];
  char (net_stream_ipaddr_t::*in_deviceid)[QB_NET_DEVICEID_SIZE];
  qb_u8_t out_route;  // route register of the output's capture path
  int number;       // the stream's number in names and log lines (in1, sai1, ...)
  int player_card;  // sound card and port of the network player of the input
  int player_port;
  void (*abort_capture)(void);  // restarts the capture of the output
};

constexpr stream_row_t kStreams[QB_NET_STREAM_COUNT] = {
    {&net_stream_output_sel_t::first, QB_AUDIO_CHN_NSO1, &net_stream_ipaddr_t::sai1_out_ipaddr,
     &net_stream_ipaddr_t::sai1_out_deviceid, QB_AUDIO_CHN_NSI1,
     &net_stream_ipaddr_t::sai1_in_ipaddr, &net_stream_ipaddr_t::sai1_in_deviceid, FPGA_REG_ROUTE_SAO1, 1, 1,
     QB_AUDIO_NET_PORT, qb_audio_aplay_in_abort_capture1},
    {&net_stream_output_sel_t::second, QB_AUDIO_CHN_NSO5, &net_stream_ipaddr_t::sai5_out_ipaddr,
     &net_stream_ipaddr_t::sai5_out_deviceid, QB_AUDIO_CHN_NSI5,
     &net_stream_ipaddr_t::sai5_in_ipaddr, &net_stream_ipaddr_t::sai5_in_deviceid, FPGA_REG_ROUTE_SAO5, 5, 3,
     QB_AUDIO_NET_PORT + 2, qb_audio_aplay_in_abort_capture5},
    {&net_stream_output_sel_t::third, QB_AUDIO_CHN_NSO3, &net_stream_ipaddr_t::sai3_out_ipaddr,
     &net_stream_ipaddr_t::sai3_out_deviceid, QB_AUDIO_CHN_NSI3,
     &net_stream_ipaddr_t::sai3_in_ipaddr, &net_stream_ipaddr_t::sai3_in_deviceid, FPGA_REG_ROUTE_SAO3, 3, 2,
     QB_AUDIO_NET_PORT + 1, qb_audio_aplay_in_abort_capture3},
};

// Stream ids in the order of their numbers 1, 3, 5.
constexpr int kSidsByNumber[] = {QB_NET_SID_1, QB_NET_SID_3, QB_NET_SID_5};

// Sources a network output may carry.
constexpr int kOutputSources[] = {QB_AUDIO_SRC_ANALOG, QB_AUDIO_SRC_HDMI, QB_AUDIO_SRC_SPDIF,
                                  QB_AUDIO_SRC_EARC, QB_AUDIO_SRC_HDMI_DOWNMIX};

constexpr const char* kSourceNames[] = {"analog", "hdmi", "spdif", "earc",
                                        "stream", "dsp",  "hdmiDownmix"};
constexpr const char* kSourceShortNames[] = {"analog", "hdmi", "spdif", "earc",
                                             "stream", "dsp",  "downmix"};

struct int_map_t {
  int from;
  int to;
};
// Channel id of a local input to its output-source number.
constexpr int_map_t kChannelToSource[] = {{1, 0}, {2, 3}, {3, 1}, {4, 6}, {5, 2}};
constexpr int kChannelToSourceNone = -1;
// Output-source number to the channel id of its local input.
constexpr int_map_t kSourceToChannel[] = {{0, 1}, {1, 3}, {2, 5}, {3, 2}};
constexpr int kSourceToChannelDefault = 5;

const stream_row_t* stream_row(int sid) {
  return (sid >= 0 && sid < QB_NET_STREAM_COUNT) ? &kStreams[sid] : nullptr;
}

template <size_t N>
int map_int(const int_map_t (&table)[N], int from, int fallback) {
  for (const int_map_t& row : table) {
    if (row.from == from) {
      return row.to;
    }
  }
  return fallback;
}

// Bounded copy that never writes the last byte of the destination (it stays 0).
template <size_t N>
void copy_text(char (&dst)[N], const char* src) {
  if (src != nullptr) {
    std::strncpy(dst, src, N - 1);
  }
}

// A request's MAC text (QB_AUDIO_MAC_TEXT_SIZE characters), zero-terminated.
struct mac_text_t {
  char text[QB_AUDIO_MAC_TEXT_SIZE + 1];
};
mac_text_t mac_text(const void* field) {
  mac_text_t mac = {};
  std::memcpy(mac.text, field, QB_AUDIO_MAC_TEXT_SIZE);
  return mac;
}

template <size_t N>
const char* source_name(const char* const (&names)[N], int src) {
  return (src >= 0 && src < static_cast<int>(N)) ? names[src] : "unknown";
}

// One MAC byte from the two characters at pos of a text of length len, read as hexadecimal.
long mac_piece(const char* mac, size_t len, size_t pos) {
  char piece[3] = {};
  std::strncpy(piece, mac + std::min(pos, len), 2);  // stops at the text's end
  return std::strtol(piece, nullptr, 16);
}

// A hex digit in either case; anything else counts as 0.
qb_u8_t SwitchChar(char c) {
  const char digit[2] = {c, '\0'};
  return std::isxdigit(static_cast<unsigned char>(c)) != 0
             ? static_cast<qb_u8_t>(std::strtol(digit, nullptr, 16))
             : 0;
}

qb_audio_misc_main_ctrl_t& misc() { return qb_audio_misc_ctrl(); }

// 1 when network output stream sid carries the source, else 0.
int selects(int sid, int src) {
  return misc_word_get(misc().net_stream.*(kStreams[sid].selection)) == src ? 1 : 0;
}

// Route register of network output stream sid <- the matrix source of channel ch.
void route_output(const char* function, int sid, int ch) {
  AM_LOG_INFO("%s ch = %d", function, ch);
  qb_audio_fpga_ch_route_set(kStreams[sid].out_route,
                             static_cast<qb_u8_t>(qb_audio_channel_state_id_switch(ch)));
}

// Route register and channel record of network output stream sid <- channel ch. 1.
int route_and_copy(const char* function, int sid, int ch) {
  route_output(function, sid, ch);
  qb_audio_channel_state_copy_chn(kStreams[sid].out_channel, ch);
  return 1;
}

// Network output 5 takes an S/PDIF-type source: the source register and all enable bits.
void select_sao5_spdif_type(qb_u8_t source) {
  qb_audio_fpga_i2c_write(FPGA_REG_SAO5_SPDIF_SRC, source);
  qb_audio_fpga_i2c_write(FPGA_REG_OUTPUT_ENABLE2, 0xFF);
}

void store_receiver_format_in(int ch) {
  qb_audio_info rec;
  qb_misc_audio_spdif_info_copy(&rec);
  qb_audio_channel_state_store(ch, &rec);
}

}  // namespace

int qb_misc_net_stream_out_ipaddr_set(const qb_audio_output_stream_t* req) {
  if (req == nullptr) {
    return 0;
  }
  const stream_row_t* row = stream_row(req->streamID);
  if (row == nullptr) {
    return 1;
  }
  const mac_text_t mac = mac_text(req->vaxoMac);
  const size_t len = std::strlen(mac.text);
  if (len == 0) {
    AM_LOG_WARN("stream ID %d vaxoMac is null", req->streamID);
    qb_misc_net_stream_addr_set(req->streamID, true, "", nullptr);  // the address cleared
    return 1;
  }
  const long m3 = mac_piece(mac.text, len, 6);
  const long m4 = mac_piece(mac.text, len, 8);
  const long m5 = mac_piece(mac.text, len, 10);
  char addr[QB_NET_IPADDR_SIZE] = {};
  std::snprintf(addr, sizeof addr, "%d.%ld.%ld.%ld", QB_AUDIO_MCAST_OCTET1,
                QB_AUDIO_MCAST_OCTET2_BASE + (m3 & 0x0F), m4, m5);
  AM_LOG_INFO("%s,ptr->streamID = %d,ptr->vaxoMac =%s , stream out ipaddr %s,len = %d", __func__,
              req->streamID, mac.text, addr, static_cast<int>(len));
  qb_misc_net_stream_addr_set(req->streamID, true, addr, mac.text);
  return 1;
}

int qb_audio_stream_input_from_net_set(const qb_audio_input_stream_t* req) {
  if (req == nullptr) {
    return 0;
  }
  const mac_text_t dev = mac_text(req->deviceID);
  AM_LOG_INFO("ptr->subscriptionID = %d,ptr->deviceID = %s", req->subscriptionID, dev.text);
  qb_u8_t hex[kMacBytes] = {};
  macaddr_str2hex(dev.text, hex);
  char addr[QB_NET_IPADDR_SIZE] = {};
  audio_ipaddr_create(QB_AUDIO_MCAST_OCTET1, QB_AUDIO_MCAST_OCTET2_BASE + (hex[3] & 0x0F), hex[4],
                      hex[5], addr, sizeof addr);
  const stream_row_t* row = stream_row(req->subscriptionID);
  if (row == nullptr) {
    return 0;
  }
  qb_misc_net_stream_addr_set(req->subscriptionID, false, addr, dev.text);
  qb_audio_aplay_info_change_set(row->in_channel);
  AM_LOG_INFO("%s,in%d ip:%s", __func__, row->number, addr);
  return 1;
}

int qb_audio_stream_output_to_net_set(const qb_audio_output_stream_t* req) {
  if (req == nullptr) {
    return 0;
  }
  const mac_text_t mac = mac_text(req->vaxoMac);
  AM_LOG_INFO("%s,stream id[%d], source[%s][%d] , vaxoMac[%s]", __func__, req->streamID,
              source_name(kSourceNames, req->source), req->source, mac.text);
  qb_misc_net_stream_out_ipaddr_set(req);
  const bool source_ok = std::find(std::begin(kOutputSources), std::end(kOutputSources),
                                   req->source) != std::end(kOutputSources);
  if (stream_row(req->streamID) == nullptr || !source_ok) {
    return 0;
  }
  qb_net_n_stream_select_set(req->streamID, req->source);
  AM_LOG_INFO("first= %d,second = %d, third = %d", qb_net_first_stream_select_get(),
              qb_net_second_stream_select_get(), qb_net_third_stream_select_get());
  qb_audio_stream_output_src_select(req->source, req->streamID);
  AM_LOG_INFO("\n\n");
  return 1;
}

int qb_audio_net_stream_out1_start(int ch) { return route_and_copy(__func__, QB_NET_SID_1, ch); }
int qb_audio_net_stream_out3_start(int ch) { return route_and_copy(__func__, QB_NET_SID_3, ch); }

int qb_audio_net_stream_out5_start(int ch) {
  route_output(__func__, QB_NET_SID_5, ch);
  qb_audio_misc_main_ctrl_t& m = misc();
  if (ch == QB_AUDIO_CHN_SPDIF) {
    select_sao5_spdif_type(FPGA_SAO5_SPDIF_SRC_SPDIF);
    misc_word_set(m.spdif.spdif, 1);
    store_receiver_format_in(QB_AUDIO_CHN_NSO5);
    AM_LOG_INFO("%s,spdif", __func__);
  } else if (ch == QB_AUDIO_CHN_EARC) {
    misc_word_set(m.spdif.spdif, 0);
    qb_audio_info earc;
    qb_audio_channel_state_copy(QB_AUDIO_CHN_EARC, &earc);
    if (earc.bSPDIF == 1) {
      select_sao5_spdif_type(FPGA_SAO5_SPDIF_SRC_ARC);
      misc_word_set(m.spdif.arc, 1);
      store_receiver_format_in(QB_AUDIO_CHN_NSO5);
      AM_LOG_INFO("%s,arc", __func__);
    } else {
      misc_word_set(m.spdif.arc, 0);
      qb_audio_channel_state_copy_chn(QB_AUDIO_CHN_NSO5, QB_AUDIO_CHN_EARC);
      AM_LOG_INFO("%s,earc", __func__);
    }
  } else {
    misc_word_set(m.spdif.spdif, 0);
    misc_word_set(m.spdif.arc, 0);
    qb_audio_channel_state_copy_chn(QB_AUDIO_CHN_NSO5, ch);
    AM_LOG_INFO("%s,analog/hdmi", __func__);
  }
  // The record shown is the source channel's own, also when the receiver's format was taken.
  qb_audio_info rec;
  dump_channel_stat(ch, qb_audio_channel_state_copy(ch, &rec) ? &rec : nullptr);
  qb_audio_channel_state_copy(QB_AUDIO_CHN_NSO5, &rec);
  dump_channel_stat(QB_AUDIO_CHN_NSO5, &rec);
  qb_audio_aplay_in_abort_capture5();
  return 1;
}

int qb_audio_net_stream_out_restart(int sid, int ch) {
  qb_audio_channel_state_copy_chn(kStreams[sid].out_channel, ch);
  kStreams[sid].abort_capture();
  return 1;
}

int qb_audio_net_stream_in_start(int ch, int card, int port, const char* ipaddr) {
  int channels = kDefaultPlayerChannels;
  int rate = kDefaultPlayerRate;
  if (ipaddr == nullptr) {
    return 0;
  }
  if (!qb_audio_channel_state_validch_get(ch, &channels) ||
      !qb_audio_channel_state_samplefreq_get(ch, &rate)) {
    return 0;
  }
  char command[kCommandSize] = {};
  std::snprintf(command, sizeof command,
                "%s -Dhw:%d,0 -r %d -f S24_LE -c %d --addr %s --port %d --group &",
                QB_AUDIO_MYAPLAY_PATH, card, rate, channels, ipaddr, port);
  AM_LOG_INFO("%s,%s", __func__, command);
  if (posix_system(command) < 0) {
    AM_LOG_ERROR("%s,%s fail", __func__, command);
    return 0;
  }
  return 1;
}

int qb_audio_net_stream_in_sid_start(int sid) {
  const stream_row_t& row = kStreams[sid];
  net_stream_ipaddr_t ip;
  qb_misc_net_stream_ipaddr_copy(&ip);
  return qb_audio_net_stream_in_start(row.in_channel, row.player_card, row.player_port,
                                      ip.*(row.in_ipaddr));
}

int qb_audio_pkill_all_myaplay(void) {
  const char* command = "pkill -9 myaplay";
  std::printf("%s,%s\n", __func__, command);
  if (posix_system(command) < 0) {
    std::printf("%s,%s fail\n", __func__, command);
  }
  return 1;
}

int qb_audio_pkill_all_myarecord(void) { return 1; }

int qb_audio_net_stream_ipaddr_set(const void* unused) {
  if (unused == nullptr) {
    return 0;
  }
  for (int sid : kSidsByNumber) {
    qb_misc_net_stream_addr_set(sid, false, QB_AUDIO_DEFAULT_IN_IPADDR, nullptr);
  }
  return 1;
}

void audio_ipaddr_create(int a, int b, int c, int d, char* buf, size_t size) {
  if (buf == nullptr || size == 0) {
    return;
  }
  buf[0] = '\0';
  if (b == QB_AUDIO_MCAST_OCTET2_BASE && c == 0 && d == 0) {
    return;
  }
  std::snprintf(buf, size, "%d.%d.%d.%d", a, b, c, d);
}

int macaddr_str2hex(const char* str, qb_u8_t* hex) {
  if (str == nullptr || hex == nullptr) {
    return 0;
  }
  char chars[kMacTextLen + 1] = {};
  std::strncpy(chars, str, kMacTextLen);  // nothing read past the text's end; the rest stays 0
  for (int i = 0; i < kMacBytes; ++i) {
    hex[i] = static_cast<qb_u8_t>((SwitchChar(chars[2 * i]) << 4) | SwitchChar(chars[2 * i + 1]));
  }
  return 1;
}

int qb_audio_channel_state_id_switch_netstreamsel(int ch) {
  return map_int(kChannelToSource, ch, kChannelToSourceNone);
}

int qb_audio_netstreamsel_switch_channel_state_id(int src) {
  return map_int(kSourceToChannel, src, kSourceToChannelDefault);
}

int qb_net_stream_select_get(void) { return misc_word_get(misc().net_stream_sel); }
void qb_net_stream_select_set(int sel) { misc_word_set(misc().net_stream_sel, sel); }
int qb_net_n_stream_select_get(int sid) {
  const stream_row_t* row = stream_row(sid);
  return row == nullptr ? 0 : misc_word_get(misc().net_stream.*(row->selection));
}
void qb_net_n_stream_select_set(int sid, int sel) {
  misc_word_set(misc().net_stream.*(kStreams[sid].selection), sel);
}
int qb_msic_net_spdif_out_src_get(void) { return misc_word_get(misc().net_spdif_out_src); }
void qb_msic_net_spdif_out_src_set(int src) { misc_word_set(misc().net_spdif_out_src, src); }
int qb_misc_audio_streamId_get(void) { return misc_word_get(misc().streamout_streamId.streamId); }
void qb_misc_audio_streamId_set(int sid) {
  misc_word_set(misc().streamout_streamId.streamId, sid);
}

void qb_misc_net_stream_addr_set(int sid, bool out, const char* ipaddr, const char* deviceid) {
  const stream_row_t& row = kStreams[sid];
  std::lock_guard<std::mutex> lock(qb_audio_misc_module().ipaddr_lock);
  net_stream_ipaddr_t& ip = misc().ipaddr;
  copy_text(ip.*(out ? row.out_ipaddr : row.in_ipaddr), ipaddr);
  copy_text(ip.*(out ? row.out_deviceid : row.in_deviceid), deviceid);
}

// The address text copied under the lock into the stream's snapshot in the module record.
char* qb_misc_net_stream_ipaddr_get(int sid, bool out) {
  qb_audio_misc_module_t& m = qb_audio_misc_module();
  std::lock_guard<std::mutex> lock(m.ipaddr_lock);
  char* snap = out ? m.out_ipaddr_snapshot[sid] : m.in_ipaddr_snapshot[sid];
  std::memcpy(snap, m.ctrl.ipaddr.*(out ? kStreams[sid].out_ipaddr : kStreams[sid].in_ipaddr),
              QB_NET_IPADDR_SIZE);
  return snap;
}

void qb_misc_net_stream_ipaddr_copy(net_stream_ipaddr_t* out) {
  if (out == nullptr) {
    return;
  }
  std::lock_guard<std::mutex> lock(qb_audio_misc_module().ipaddr_lock);
  *out = misc().ipaddr;
}

int is_qb_net_second_stream_select_spdif(void) {
  return misc_word_get(misc().spdif.spdif) == 1 ? 1 : 0;
}
int is_qb_net_second_stream_select_arc(void) {
  return (selects(QB_NET_SID_5, QB_AUDIO_SRC_EARC) && misc_word_get(misc().spdif.arc) == 1) ? 1 : 0;
}
int audio_hdmi_streamout(void) {
  for (int sid = 0; sid < QB_NET_STREAM_COUNT; ++sid) {
    if (selects(sid, QB_AUDIO_SRC_HDMI)) {
      return 1;
    }
  }
  return 0;
}

// ---- the routing state section of the status dump: channel records, sources, addresses,
// selections and the S/PDIF receiver
void dump_misc_param(FILE* fp) {
  if (fp == nullptr) {
    return;
  }
  std::fprintf(fp, "dump misc param begin\n");
  for (int ch = QB_AUDIO_CHN_MIN; ch <= QB_AUDIO_CHN_MAX; ++ch) {
    qb_audio_info rec;
    qb_audio_channel_state_copy(ch, &rec);
    dump_channel_stat2file(fp, ch, &rec);
  }
  const int nsi_analog = misc_word_get(misc().nsi.analog);
  const int nsi_hdmi = misc_word_get(misc().nsi.hdmi);
  const int nsi_earc = misc_word_get(misc().nsi.earc);
  const int nsi_spdif = misc_word_get(misc().nsi.spdif);
  std::fprintf(fp, "nsi analog<--%s:%d  hdmi<--%s:%d  earc<--%s:%d  spdif<--%s:%d\n",
               qb_audio_matrix_source_name(nsi_analog), nsi_analog,
               qb_audio_matrix_source_name(nsi_hdmi), nsi_hdmi,
               qb_audio_matrix_source_name(nsi_earc), nsi_earc,
               qb_audio_matrix_source_name(nsi_spdif), nsi_spdif);
  std::fprintf(fp, "net_spdif_out_src :%d\n", misc_word_get(misc().net_spdif_out_src));
  net_stream_ipaddr_t ip;
  qb_misc_net_stream_ipaddr_copy(&ip);
  for (const bool out : {false, true}) {  // the inputs, then the outputs
    for (int sid : kSidsByNumber) {
      const stream_row_t& row = kStreams[sid];
      std::fprintf(fp, out ? "ipadd sao%d:%s deviceid:%s\n" : "ipadd sai%d:%s deviceid:%s\n", row.number,
                   ip.*(out ? row.out_ipaddr : row.in_ipaddr), ip.*(out ? row.out_deviceid : row.in_deviceid));
    }
  }
  const int first = misc_word_get(misc().net_stream.first);
  const int second = misc_word_get(misc().net_stream.second);
  const int third = misc_word_get(misc().net_stream.third);
  std::fprintf(fp, "net_stream first:[%s][%d] second:[%s][%d] third:[%s][%d]\n",
               source_name(kSourceShortNames, first), first,
               source_name(kSourceShortNames, second), second,
               source_name(kSourceShortNames, third), third);
  std::fprintf(fp, "net_stream_spdif spdif:%d arc:%d\n", misc_word_get(misc().spdif.spdif),
               misc_word_get(misc().spdif.arc));
  std::fprintf(fp, "spdif fd:%d mmap:%p \n", misc_word_get(misc().spdif_mreg.fd),
               static_cast<void*>(misc_word_get(misc().spdif_mreg.map_base)));
  qb_audio_info spdif;
  qb_misc_audio_spdif_info_copy(&spdif);
  dump_channel_stat2file(fp, QB_AUDIO_CHN_SPDIF, &spdif);
  usleep(QB_MISC_DUMP_PAUSE_US);
  std::fprintf(fp, "\n");
}
