// The engine record, ALSA device set-up and parameter negotiation, and the stream sockets.
#include "qb_audio_oper.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "am_log.h"
#include "multicast_route.h"
#include "qb_audio_buf.h"
#include "qb_audio_misc_stream.h"
#include "qb_si5351.h"
#include "qb_socket.h"

namespace {

// Stop requests (an engine's own or the engine-wide one) are set under the mutex and announced on
// the condition variable, so that an engine waiting in qb_audio_oper_wait_unless_aborting wakes at
// once.
struct engine_stop_t {
  std::atomic<int> shutdown{0};
  std::mutex mutex;
  std::condition_variable cv;
};
engine_stop_t g_stop;

// After the device and ALSA's configuration cache are released, before the run's buffers go.
constexpr unsigned kUninitSettleMs = 100;

// Period in µs and start chunks of 8-channel streams at high rates, per sample format (0 chunks =
// the default).
struct rate_override_t {
  unsigned rate;
  unsigned period_s24;
  unsigned period_s16;
  int chunks_s24;
  int chunks_s16;
};
constexpr rate_override_t kOverrides8ch[] = {
    {88200, 5000, 5000, 0, 0},
    {96000, 4000, 5000, 8, 0},
    {176400, 2500, 5000, 14, 7},
    {192000, 2000, 4000, 18, 9},
};
constexpr unsigned kPeriodTimeDefault = 5000;
constexpr unsigned kPeriodMinBufferTime = 40000;
constexpr int kStartChunksDefault = 6;

const rate_override_t* override_8ch(const qb_audio_oper_hwparam_t& hw) {
  if (hw.channels != 8) {
    return nullptr;
  }
  for (const auto& row : kOverrides8ch) {
    if (row.rate == hw.rate) {
      return &row;
    }
  }
  return nullptr;
}

constexpr unsigned kPlayBufferTimeFloor = 10000;
constexpr unsigned kPlayBufferTimeStep = 10000;
constexpr unsigned kPlayBufferTimeCap = 200000;
constexpr int kRingSlotsMin = 60;
constexpr int kDelayUsecMin = 20;
constexpr int kAlsaFormatsLast = 52;

// Chunk size in frames before negotiation.
constexpr snd_pcm_uframes_t kDefaultChunkSize = 2048;
// Send and receive socket buffer sizes.
constexpr int kSockBufSize = 8388608;

const char* const kHwDumpRule = "--------------------\n";
// Where the network switch driver takes the multicast groups it forwards.
const char* const kSwitchSysfsDir = "/sys/devices/platform/soc@0/soc@0:bus@30800000/30a30000.i2c/i2c-1/1-005c";

// Grows a buffer to `need` bytes when it holds less; false (logged) when memory is short, the old
// buffer kept. grow_log, when given, announces the growth.
bool ensure_capacity(qb_u8_t** buf, size_t* capacity, size_t need, const char* grow_log) {
  if (need <= *capacity) {
    return true;
  }
  if (grow_log != nullptr) {
    am_log_write(AM_LOG_LEVEL_WARN, grow_log, static_cast<unsigned long>(need), AM_LOG_FILE,
                 static_cast<unsigned>(__LINE__));
  }
  void* grown = realloc(*buf, need);
  if (grown == nullptr) {
    AM_LOG_ERROR("not enough memory");
    return false;
  }
  *buf = static_cast<qb_u8_t*>(grown);
  *capacity = need;
  return true;
}

void dump_hw_space(qb_audio_oper_ctrl_t* ctrl, snd_pcm_hw_params_t* params) {
  AM_LOG_INFO("HW Params of device \"%s\":\n", ctrl->pcm_name);
  fputs(kHwDumpRule, stderr);
  if (ctrl->pcm.log != nullptr) {
    snd_pcm_hw_params_dump(params, ctrl->pcm.log);
  }
  fputs(kHwDumpRule, stderr);
}

bool rate_is_accurate(unsigned requested, unsigned granted) {
  return !(static_cast<double>(granted) * 1.05 < requested || static_cast<double>(granted) * 0.95 > requested);
}

// Access, format, channels and rate of both directions.
int set_basic_hw_params(qb_audio_oper_ctrl_t* ctrl, snd_pcm_hw_params_t* params) {
  int err = snd_pcm_hw_params_any(ctrl->pcm.handle, params);
  if (err < 0) {
    AM_LOG_ERROR("Broken configuration for this PCM: no configurations available");
    return -1;
  }
  if (ctrl->pcm.dump_hw_params) {
    dump_hw_space(ctrl, params);
  }
  err = snd_pcm_hw_params_set_access(ctrl->pcm.handle, params, SND_PCM_ACCESS_RW_INTERLEAVED);
  if (err < 0) {
    AM_LOG_ERROR("Access type not available");
    return -1;
  }
  err = snd_pcm_hw_params_set_format(ctrl->pcm.handle, params, ctrl->pcm.hwparams.format);
  if (err < 0) {
    AM_LOG_ERROR("Sample format non available");
    show_available_sample_formats(ctrl, params);
    return -1;
  }
  err = snd_pcm_hw_params_set_channels(ctrl->pcm.handle, params, ctrl->pcm.hwparams.channels);
  if (err < 0) {
    AM_LOG_ERROR("Channels count non available");
    return -1;
  }
  const unsigned requested = ctrl->pcm.hwparams.rate;
  unsigned rate = requested;
  err = snd_pcm_hw_params_set_rate_near(ctrl->pcm.handle, params, &rate, nullptr);
  if (err < 0) {
    AM_LOG_ERROR("Rate non available");
    return -1;
  }
  if (!rate_is_accurate(requested, rate)) {
    char plug[64] = "";
    if (ctrl->pcm_name != nullptr && strchr(ctrl->pcm_name, ':') == nullptr) {
      snprintf(plug, sizeof(plug), "(-Dplug:%s)", ctrl->pcm_name);
    }
    AM_LOG_ERROR("Warning: rate is not accurate (requested = %iHz, got = %iHz)\n", static_cast<int>(requested),
                 static_cast<int>(rate));
    AM_LOG_ERROR("please, try the plug plugin %s\n", plug);
  }
  ctrl->pcm.hwparams.rate = rate;
  return 0;
}

// Logs a failed ALSA call with its error code; true when it failed.
bool alsa_failed(int err, const char* fmt) {
  if (err >= 0) {
    return false;
  }
  am_log_write(AM_LOG_LEVEL_ERROR, fmt, err, AM_LOG_FILE, static_cast<unsigned>(__LINE__));
  return true;
}

// Logs a failed installation of a parameter set, with a dump of the set; true when it failed.
template <typename Params>
bool install_failed(const qb_audio_oper_ctrl_t* ctrl, int err, const char* what, Params* params,
                    int (*dump)(Params*, snd_output_t*)) {
  if (err >= 0) {
    return false;
  }
  AM_LOG_ERROR("%s", what);
  if (ctrl->pcm.log != nullptr) {
    dump(params, ctrl->pcm.log);
  }
  return true;
}

// Period and buffer time, installation, chunk size; set_err names the failure text of the
// period/buffer calls.
int set_geometry(qb_audio_oper_ctrl_t* ctrl, snd_pcm_hw_params_t* params, const char* set_err,
                 snd_pcm_uframes_t* buffer_size) {
  ctrl->pcm.period_time = get_period_time_play(ctrl);
  int dir = 0;
  int err = snd_pcm_hw_params_set_period_time_near(ctrl->pcm.handle, params, &ctrl->pcm.period_time, &dir);
  if (err >= 0) {
    dir = 0;
    err = snd_pcm_hw_params_set_buffer_time_near(ctrl->pcm.handle, params, &ctrl->pcm.buffer_time, &dir);
  }
  if (alsa_failed(err, set_err)) {
    return -1;
  }
  ctrl->pcm.monotonic = snd_pcm_hw_params_is_monotonic(params);
  ctrl->pcm.can_pause = snd_pcm_hw_params_can_pause(params);
  err = snd_pcm_hw_params(ctrl->pcm.handle, params);
  if (install_failed(ctrl, err, "Unable to install hw params:", params, snd_pcm_hw_params_dump)) {
    return -1;
  }
  snd_pcm_hw_params_get_period_size(params, &ctrl->pcm.chunk_size, nullptr);
  snd_pcm_hw_params_get_buffer_size(params, buffer_size);
  if (ctrl->pcm.chunk_size == *buffer_size) {
    AM_LOG_ERROR("Can't use period equal to buffer size (%lu == %lu)", ctrl->pcm.chunk_size, *buffer_size);
    return -1;
  }
  ctrl->pcm.period_frames = ctrl->pcm.chunk_size;
  return 0;
}

// Software parameters: wake-up at one chunk, the given start threshold, stop at the buffer size.
int set_sw_params(qb_audio_oper_ctrl_t* ctrl, snd_pcm_uframes_t buffer_size, snd_pcm_uframes_t start_threshold,
                  const char* start_err, const char* stop_err) {
  snd_pcm_sw_params_t* swparams = nullptr;
  snd_pcm_sw_params_alloca(&swparams);
  int err = snd_pcm_sw_params_current(ctrl->pcm.handle, swparams);
  if (err < 0) {
    AM_LOG_ERROR("Unable to get current sw params.");
    return -1;
  }
  const snd_pcm_uframes_t avail_min =
      ctrl->pcm.avail_min < 0 ? ctrl->pcm.chunk_size : static_cast<snd_pcm_uframes_t>(ctrl->pcm.avail_min);
  snd_pcm_sw_params_set_avail_min(ctrl->pcm.handle, swparams, avail_min);
  err = snd_pcm_sw_params_set_start_threshold(ctrl->pcm.handle, swparams, start_threshold);
  if (alsa_failed(err, start_err)) {
    return -1;
  }
  ctrl->pcm.start_delay = static_cast<int>(start_threshold);
  const snd_pcm_uframes_t stop_threshold =
      ctrl->pcm.stop_delay <= 0 ? buffer_size + static_cast<snd_pcm_uframes_t>(-ctrl->pcm.stop_delay) : buffer_size;
  err = snd_pcm_sw_params_set_stop_threshold(ctrl->pcm.handle, swparams, stop_threshold);
  if (alsa_failed(err, stop_err)) {
    return -1;
  }
  ctrl->pcm.stop_delay = static_cast<int>(stop_threshold);
  // Trigger time stamps on the monotonic clock when the device offers them (the kernel driver and
  // user-space cards alike); the hardware flag alone misses cards that only honour this request.
  if (snd_pcm_sw_params_set_tstamp_type(ctrl->pcm.handle, swparams, SND_PCM_TSTAMP_TYPE_MONOTONIC) == 0) {
    ctrl->pcm.monotonic = 1;
  }
  AM_LOG_INFO("hw buffer size:%lu, start threshold:%lu, stop threshold:%lu", buffer_size, start_threshold,
              stop_threshold);
  err = snd_pcm_sw_params(ctrl->pcm.handle, swparams);
  return install_failed(ctrl, err, "unable to install sw params:", swparams, snd_pcm_sw_params_dump) ? -1 : 0;
}

// What differs between the two directions: the failure texts, and whether the buffer time is
// bounded and the start threshold follows the start chunks (playback) or is one frame (capture).
struct negotiation_t {
  bool playback;
  const char* max_err;
  const char* set_err;
  const char* start_err;
  const char* stop_err;
};
constexpr negotiation_t kPlayNegotiation = {
    true,
    "get buffer time max err:%d --[%s:%u]",
    "hw params set err:%d --[%s:%u]",
    "sw params set start threshold err:%d --[%s:%u]",
    "sw params set stop threshold err:%d --[%s:%u]",
};
constexpr negotiation_t kCaptureNegotiation = {
    false,
    "hw param get err:%d --[%s:%u]",
    "hw param set err:%d --[%s:%u]",
    "sw param set err:%d --[%s:%u]",
    "sw param set err:%d --[%s:%u]",
};

// Hardware and software parameters of one direction, then the sample geometry.
int negotiate(qb_audio_oper_ctrl_t* ctrl, const negotiation_t& how) {
  qb_audio_oper_pcm_t& pcm = ctrl->pcm;
  snd_pcm_hw_params_t* params = nullptr;
  snd_pcm_hw_params_alloca(&params);
  if (set_basic_hw_params(ctrl, params) < 0) {
    return -1;
  }
  int dir = 0;
  const int err = snd_pcm_hw_params_get_buffer_time_max(params, &pcm.buffer_time, &dir);
  if (alsa_failed(err, how.max_err)) {
    return -1;
  }
  pcm.max_buffer_time = pcm.buffer_time;
  if (how.playback) {
    if (pcm.buffer_time < kPlayBufferTimeFloor) {
      AM_LOG_ERROR("get buffer time:%u less than 10000", pcm.buffer_time);
      return -1;
    }
    pcm.buffer_time = std::min(pcm.buffer_time / kPlayBufferTimeStep * kPlayBufferTimeStep, kPlayBufferTimeCap);
  }
  snd_pcm_uframes_t buffer_size = 0;
  if (set_geometry(ctrl, params, how.set_err, &buffer_size) < 0) {
    return -1;
  }
  pcm.buffer_frames = buffer_size;
  const snd_pcm_uframes_t start =
      how.playback ? std::min(buffer_size, std::max<snd_pcm_uframes_t>(1, get_start_threshold_play(ctrl))) : 1;
  if (set_sw_params(ctrl, buffer_size, start, how.start_err, how.stop_err) < 0) {
    return -1;
  }
  pcm.bits_per_sample = static_cast<size_t>(snd_pcm_format_physical_width(pcm.hwparams.format));
  pcm.significant_bits_per_sample = static_cast<size_t>(snd_pcm_format_width(pcm.hwparams.format));
  pcm.bits_per_frame = pcm.bits_per_sample * pcm.hwparams.channels;
  pcm.chunk_bytes = pcm.chunk_size * pcm.bits_per_frame / 8;
  return 0;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Engine-wide stop and the stop flag
// ---------------------------------------------------------------------------------------------

void qb_audio_oper_shutdown_set(int on) {
  {
    std::lock_guard<std::mutex> lock(g_stop.mutex);
    g_stop.shutdown.store(on != 0 ? 1 : 0);
  }
  g_stop.cv.notify_all();
}

int qb_audio_oper_shutdown_get() { return g_stop.shutdown.load(); }

bool qb_audio_oper_is_aborting(const qb_audio_oper_ctrl_t* ctrl) {
  return ctrl->in_aborting.load(std::memory_order_relaxed) != 0 || g_stop.shutdown.load(std::memory_order_relaxed) != 0;
}

void qb_audio_oper_abort(qb_audio_oper_ctrl_t* ctrl) {
  if (ctrl != nullptr) {
    {
      std::lock_guard<std::mutex> lock(g_stop.mutex);
      ctrl->in_aborting.store(1);
    }
    g_stop.cv.notify_all();
  }
}

void qb_audio_oper_wait_unless_aborting(const qb_audio_oper_ctrl_t* ctrl, unsigned ms) {
  std::unique_lock<std::mutex> lock(g_stop.mutex);
  g_stop.cv.wait_for(lock, std::chrono::milliseconds(ms), [ctrl] { return qb_audio_oper_is_aborting(ctrl); });
}

void qb_audio_oper_pause_ms(unsigned ms) { usleep(ms * 1000U); }

// ---------------------------------------------------------------------------------------------
// Record and device
// ---------------------------------------------------------------------------------------------

int qb_audio_oper_default(qb_audio_oper_ctrl_t* ctrl) {
  if (ctrl == nullptr) {
    return -1;
  }
  // Zero everything but the stop flag, which other threads may touch at any time.
  char* base = reinterpret_cast<char*>(ctrl);
  const size_t flag_at = offsetof(qb_audio_oper_ctrl_t, in_aborting);
  const size_t after_flag = flag_at + sizeof(ctrl->in_aborting);
  memset(base, 0, flag_at);
  memset(base + after_flag, 0, sizeof(*ctrl) - after_flag);
  ctrl->dump.file_type = -1;
  ctrl->pcm.interleaved = 1;
  ctrl->pcm.nonblock = 1;
  ctrl->in_aborting.store(0);
  ctrl->pcm.avail_min = -1;
  ctrl->pcm.test_coef = 8;
  ctrl->dump.term_c_lflag = -1;
  ctrl->dump.fd = -1;
  ctrl->dump.pbrec_count = LLONG_MAX;
  ctrl->net.audio_net_addr = "225.0.0.1";
  ctrl->net.net_port = QB_AUDIO_NET_PORT;
  ctrl->pcm.rhwparams.format = SND_PCM_FORMAT_S24_LE;
  ctrl->pcm.rhwparams.channels = 2;
  ctrl->pcm.rhwparams.rate = 48000;
  ctrl->steer.clifd = -1;
  return 0;
}

void qb_audio_oper_run_begin(qb_audio_oper_ctrl_t* ctrl, snd_pcm_stream_t stream, const char* pcm_name,
                             const char* group, const int channels[QB_AUDIO_OPER_STREAMS]) {
  qb_audio_oper_default(ctrl);
  ctrl->pcm.stream = stream;
  if (stream == SND_PCM_STREAM_CAPTURE) {
    ctrl->pcm.start_delay = 1;
    ctrl->command = "arecord";
    ctrl->net.audio_tx = 1;
  } else {
    ctrl->pcm.open_mode = SND_PCM_NONBLOCK;
    ctrl->command = "aplay";
  }
  ctrl->pcm_name = pcm_name;
  ctrl->net.audio_net_addr = group;
  set_mcast_route_rtl8364(group);
  AM_LOG_INFO("echo %s 1 > %s/set_mcastaddr", group, kSwitchSysfsDir);
  ctrl->net.audio_group_ip = 1;
  ctrl->pcm.verbose = 1;
  ctrl->pcm.dump_hw_params = 1;
  ctrl->file_param_num = strcmp(pcm_name, "hw:1,0") == 0 ? 1 : strcmp(pcm_name, "hw:2,0") == 0 ? 2 : 3;
  qb_audio_info source;
  const bool have_source = qb_audio_channel_state_copy(channels[ctrl->file_param_num - 1], &source) == 1;
  _file_param_set(ctrl, have_source ? &source : nullptr);
}

void qb_audio_oper_run_end(qb_audio_oper_ctrl_t* ctrl, const char* group) {
  net_data_close(ctrl);
  qb_audio_oper_general_uninit(ctrl);
  del_mcast_route_rtl8364(group);
  AM_LOG_INFO("echo %s > %s/del_mcastaddr", group, kSwitchSysfsDir);
  qb_audio_oper_publish(ctrl);
}

void qb_audio_oper_describe(const qb_audio_oper_ctrl_t* ctrl) {
  if (ctrl->pcm.quiet_mode) {
    return;
  }
  const qb_audio_oper_hwparam_t& hw = ctrl->pcm.hwparams;
  fprintf(stderr, "%s raw data '%s' : %s, Rate %d Hz, ",
          ctrl->pcm.stream == SND_PCM_STREAM_PLAYBACK ? "Playing" : "Recording", ctrl->pcm_name,
          snd_pcm_format_description(hw.format), hw.rate);
  if (hw.channels == 1) {
    fprintf(stderr, "Mono\n");
  } else if (hw.channels == 2) {
    fprintf(stderr, "Stereo\n");
  } else {
    fprintf(stderr, "Channels %i\n", hw.channels);
  }
}

int qb_audio_oper_general_init(qb_audio_oper_ctrl_t* ctrl) {
  AM_LOG_INFO("%s beg", "qb_audio_oper_general_init");
  int err = snd_output_stdio_attach(&ctrl->pcm.log, stderr, 0);
  if (err < 0) {
    AM_LOG_ERROR("snd_output_stdio_attach err:%d", err);
    return -1;
  }
  err = snd_pcm_open(&ctrl->pcm.handle, ctrl->pcm_name, ctrl->pcm.stream, ctrl->pcm.open_mode);
  if (err < 0) {
    AM_LOG_ERROR("audio open error: %s", snd_strerror(err));
    ctrl->pcm.handle = nullptr;
    return -2;
  }
  snd_pcm_info_t* info = nullptr;
  snd_pcm_info_alloca(&info);
  err = snd_pcm_info(ctrl->pcm.handle, info);
  if (err < 0) {
    AM_LOG_ERROR("info error: %s", snd_strerror(err));
    return -1;
  }
  ctrl->pcm.chunk_size = kDefaultChunkSize;
  ctrl->pcm.hwparams = ctrl->pcm.rhwparams;
  ctrl->audiobuf = static_cast<qb_u8_t*>(malloc(QB_AUDIO_BUF_DEFAULT_SIZE));
  ctrl->net_audiobuf = static_cast<qb_u8_t*>(malloc(QB_AUDIO_BUF_DEFAULT_SIZE));
  if (ctrl->audiobuf == nullptr || ctrl->net_audiobuf == nullptr) {
    AM_LOG_ERROR("not enough memory");
    return -1;
  }
  ctrl->audiobuf_capacity = QB_AUDIO_BUF_DEFAULT_SIZE;
  ctrl->net_audiobuf_capacity = QB_AUDIO_BUF_DEFAULT_SIZE;
  AM_LOG_INFO("audiobuf=%p net_audiobuf=%p", static_cast<void*>(ctrl->audiobuf),
              static_cast<void*>(ctrl->net_audiobuf));
  ctrl->init = 1;
  return 0;
}

int qb_audio_oper_general_uninit(qb_audio_oper_ctrl_t* ctrl) {
  AM_LOG_INFO("%s [%s] %d audiobuf=%p  net_audiobuf=%p beg", "qb_audio_oper_general_uninit",
              ctrl->pcm_name != nullptr ? ctrl->pcm_name : "", ctrl->net.audio_tx, static_cast<void*>(ctrl->audiobuf),
              static_cast<void*>(ctrl->net_audiobuf));
  if (ctrl->steer.clifd >= 0) {
    close(ctrl->steer.clifd);
    ctrl->steer.clifd = -1;
  }
  ctrl->init = 0;
  if (ctrl->pcm.handle != nullptr) {
    snd_pcm_close(ctrl->pcm.handle);
    ctrl->pcm.handle = nullptr;
  }
  if (ctrl->audiobuf != nullptr) {
    AM_LOG_INFO("free audiobuf=%p", static_cast<void*>(ctrl->audiobuf));
    free(ctrl->audiobuf);
    ctrl->audiobuf = nullptr;
  }
  if (ctrl->net_audiobuf != nullptr) {
    AM_LOG_INFO("free net_audiobuf=%p", static_cast<void*>(ctrl->net_audiobuf));
    free(ctrl->net_audiobuf);
    ctrl->net_audiobuf = nullptr;
  }
  ctrl->audiobuf_capacity = 0;
  ctrl->net_audiobuf_capacity = 0;
  if (ctrl->pcm.log != nullptr) {
    snd_output_close(ctrl->pcm.log);
    ctrl->pcm.log = nullptr;
  }
  snd_config_update_free_global();
  qb_audio_oper_pause_ms(kUninitSettleMs);
  ctrl->steer.arrChunkNum = nullptr;
  delete ctrl->pAudBuf;
  ctrl->pAudBuf = nullptr;
  AM_LOG_INFO("%s [%s] %d end", "qb_audio_oper_general_uninit", ctrl->pcm_name != nullptr ? ctrl->pcm_name : "",
              ctrl->net.audio_tx);
  return 1;
}

unsigned int get_period_time_play(qb_audio_oper_ctrl_t* ctrl) {
  unsigned period = kPeriodTimeDefault;
  if (ctrl->pcm.buffer_time < kPeriodMinBufferTime) {
    AM_LOG_ERROR("buffer time:%u less than 40000", ctrl->pcm.buffer_time);
    period = ctrl->pcm.buffer_time / 4;
  }
  const rate_override_t* row = override_8ch(ctrl->pcm.rhwparams);
  if (row != nullptr) {
    period = ctrl->pcm.rhwparams.format == SND_PCM_FORMAT_S16_LE ? row->period_s16 : row->period_s24;
  }
  return period;
}

int get_start_chunks(qb_audio_oper_ctrl_t* ctrl) {
  const rate_override_t* row = override_8ch(ctrl->pcm.hwparams);
  const snd_pcm_format_t format = ctrl->pcm.hwparams.format;
  const int chunks = row == nullptr                    ? 0
                     : format == SND_PCM_FORMAT_S16_LE ? row->chunks_s16
                     : format == SND_PCM_FORMAT_S24_LE ? row->chunks_s24
                                                       : 0;
  return chunks > 0 ? chunks : kStartChunksDefault;
}

snd_pcm_uframes_t get_start_threshold_play(qb_audio_oper_ctrl_t* ctrl) {
  const snd_pcm_uframes_t wanted = static_cast<snd_pcm_uframes_t>(get_start_chunks(ctrl)) * ctrl->pcm.chunk_size;
  return wanted < ctrl->pcm.buffer_frames ? wanted : ctrl->pcm.buffer_frames;
}

int get_delay_usec(qb_audio_oper_ctrl_t* ctrl) {
  if (ctrl->net.pktSize <= 0) {
    return kDelayUsecMin;
  }
  const size_t pkts =
      (ctrl->pcm.chunk_bytes + static_cast<size_t>(ctrl->net.pktSize) - 1) / static_cast<size_t>(ctrl->net.pktSize);
  if (pkts == 0) {
    return kDelayUsecMin;
  }
  const int delay = static_cast<int>((ctrl->pcm.period_time * 6 / 10) / pkts);
  return delay < 1 ? kDelayUsecMin : delay;
}

int set_buffer_param(qb_audio_oper_ctrl_t* ctrl) {
  const double start_chunks_ceil =
      ctrl->pcm.chunk_size > 0
          ? std::ceil(static_cast<double>(ctrl->pcm.start_delay) / static_cast<double>(ctrl->pcm.chunk_size))
          : 0.0;
  int slots = static_cast<int>(start_chunks_ceil * 10 + 10);
  if (slots < kRingSlotsMin) {
    slots = kRingSlotsMin;
  }
  delete ctrl->pAudBuf;
  ctrl->pAudBuf = new (std::nothrow) CAudioBuf(static_cast<int>(ctrl->pcm.chunk_bytes), slots);
  AM_LOG_INFO("pobjAudBuf=%p", static_cast<void*>(ctrl->pAudBuf));
  if (ctrl->pAudBuf == nullptr || !ctrl->pAudBuf->is_valid()) {
    AM_LOG_ERROR("not enough memory");
    delete ctrl->pAudBuf;
    ctrl->pAudBuf = nullptr;
    return -1;
  }
  memset(ctrl->steer.latency_history, 0, sizeof(ctrl->steer.latency_history));
  ctrl->steer.arrChunkNum = ctrl->steer.latency_history;
  ctrl->dump.maxFrmNum = slots;
  ctrl->dump.minFrmNum = 0;
  const int chunk = static_cast<int>(ctrl->pcm.chunk_size);
  ctrl->steer.incStartNum = (get_start_chunks(ctrl) + 2) * chunk;
  ctrl->steer.incStopNum = ctrl->steer.incStartNum - chunk;
  ctrl->steer.decStartNum = ctrl->steer.incStopNum - 3 * chunk;
  ctrl->steer.decStopNum = ctrl->steer.decStartNum + chunk;
  const qb_u64_t per_second = ctrl->pcm.chunk_size > 0 ? ctrl->pcm.hwparams.rate / ctrl->pcm.chunk_size : 0;
  ctrl->dump.adjustWaitCnt = per_second == 0 ? 1000 : 10 * per_second;
  ctrl->dump.oneSecondCnt = 100;
  ctrl->dump.asyncStartNum = 4;
  ctrl->dump.syncSend = ctrl->pcm.buffer_time >= 80000 ? 1 : 0;
  return 0;
}

void show_available_sample_formats(qb_audio_oper_ctrl_t* ctrl, snd_pcm_hw_params_t* params) {
  AM_LOG_INFO("Available formats:");
  for (int format = 0; format <= kAlsaFormatsLast; ++format) {
    const auto f = static_cast<snd_pcm_format_t>(format);
    if (snd_pcm_hw_params_test_format(ctrl->pcm.handle, params, f) == 0) {
      AM_LOG_INFO("formatname: %s", snd_pcm_format_name(f));
    }
  }
}

int set_params_play(qb_audio_oper_ctrl_t* ctrl) {
  if (negotiate(ctrl, kPlayNegotiation) < 0 ||
      !ensure_capacity(&ctrl->audiobuf, &ctrl->audiobuf_capacity, 3 * ctrl->pcm.chunk_bytes,
                       "audio buf realloc size:%lu --[%s:%u]") ||
      !ensure_capacity(&ctrl->net_audiobuf, &ctrl->net_audiobuf_capacity,
                       (ctrl->pcm.chunk_bytes / AUDIO_PKT_PAYLOAD_SIZE + 6) * QB_AUDIO_RX_SLOT_SIZE,
                       "net audio buf realloc size:%lu --[%s:%u]") ||
      set_buffer_param(ctrl) < 0) {
    return -1;
  }
  set_fifo_status(ctrl->steer.clifd, ctrl->file_param_num, static_cast<int>(ctrl->pcm.buffer_frames), 0);
  return 0;
}

int set_params_capture(qb_audio_oper_ctrl_t* ctrl) {
  if (negotiate(ctrl, kCaptureNegotiation) < 0 ||
      !ensure_capacity(&ctrl->audiobuf, &ctrl->audiobuf_capacity, 2 * ctrl->pcm.chunk_bytes, nullptr) ||
      !ensure_capacity(&ctrl->net_audiobuf, &ctrl->net_audiobuf_capacity, 2 * ctrl->pcm.chunk_bytes, nullptr)) {
    return -1;
  }
  ctrl->net.pktSize = get_pkt_size(ctrl);
  ctrl->dump.pktDelayMicrosecond = get_delay_usec(ctrl);
  ctrl->dump.tmr = -1;
  ctrl->dump.availsum = 0;
  ctrl->dump.delaysum = 0;
  ctrl->dump.samples = 0;
  ctrl->dump.maxavail = 0;
  ctrl->dump.maxdelay = 0;
  ctrl->dump.minavail = static_cast<snd_pcm_sframes_t>(ctrl->pcm.buffer_frames * 16);
  ctrl->dump.mindelay = static_cast<snd_pcm_sframes_t>(ctrl->pcm.buffer_frames * 16);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Sockets
// ---------------------------------------------------------------------------------------------

namespace {

struct sockaddr_in group_sockaddr(const qb_audio_oper_ctrl_t* ctrl) {
  struct sockaddr_in addr;
  memset(&addr, 0, sizeof(addr));
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(qb_ip_a2n(ctrl->net.audio_net_addr));
  addr.sin_port = htons(static_cast<uint16_t>(ctrl->net.net_port));
  return addr;
}

// Loop-back off and membership of the group; false (logged) when either fails.
bool join_group(int fd, const char* group) {
  if (qb_set_sock_multicast_noloop(fd) < 0) {
    AM_LOG_ERROR("qb_set_sock_multicast_noloop:%s err", group);
    return false;
  }
  if (qb_set_sock_multi_membership(fd, group, 0) < 0) {
    AM_LOG_ERROR("socket join multigroup:%s err", group);
    return false;
  }
  AM_LOG_INFO("join group ip %s  ok", group);
  return true;
}

}  // namespace

int net_data_open(qb_audio_oper_ctrl_t* ctrl) {
  if (ctrl == nullptr || ctrl->net.audio_net_addr == nullptr) {
    return -1;
  }
  const bool tx = ctrl->net.audio_tx == 1;
  const char* group = ctrl->net.audio_net_addr;
  const int fd = qb_create_sock(QB_UDP_SOCK);
  if (fd < 1) {
    AM_LOG_ERROR("create socket err");
    return -1;
  }
  if (qb_set_sock_attr(fd, 1, 0, 0, kSockBufSize, kSockBufSize) < 0) {
    AM_LOG_ERROR("set socket attr err");
  }
  (tx ? ctrl->net.tx_fd : ctrl->net.rx_fd) = fd;
  // The receiver binds to the group; the sender too when it joins it, and sends to it connected.
  if (!tx || ctrl->net.audio_group_ip == 1) {
    if (qb_set_sock_noblock(fd) < 0) {
      AM_LOG_ERROR("set socket noblock err");
      return -1;
    }
    if (qb_bind_sock(fd, qb_ip_a2n(group), ctrl->net.net_port) < 0) {
      AM_LOG_ERROR("bind socket err");
      return -1;
    }
    struct sockaddr_in dest = group_sockaddr(ctrl);
    if (tx && connect(fd, reinterpret_cast<struct sockaddr*>(&dest), sizeof(dest)) < 0) {
      AM_LOG_ERROR("connect to server<%s:%d> err", group, ctrl->net.net_port);
      return -1;
    }
    if (ctrl->net.audio_group_ip == 1 && !join_group(fd, group)) {
      return -1;
    }
  }
  if (tx) {
    ctrl->net.svr_addr = group_sockaddr(ctrl);
    AM_LOG_INFO("tx net init ok:%d", fd);
  } else {
    AM_LOG_INFO("rx net init ok:%d-%s", fd, group);
  }
  return 0;
}

int net_data_close(qb_audio_oper_ctrl_t* ctrl) {
  if (ctrl == nullptr) {
    return -1;
  }
  int* fd = ctrl->net.audio_tx == 1 ? &ctrl->net.tx_fd : &ctrl->net.rx_fd;
  if (*fd > 0) {
    if (ctrl->net.audio_group_ip == 1 && qb_set_sock_rm_multi_membership(*fd, ctrl->net.audio_net_addr) < 0) {
      AM_LOG_ERROR("socket drop multigroup:%s fd:%d err", ctrl->net.audio_net_addr, *fd);
    }
    close(*fd);
    *fd = 0;
  }
  return 0;
}
