// One PCM engine: the record that drives one capture stream (local input to network) or one
// playback stream (network to local output), its defaults, the opening and closing of the ALSA
// device and the hardware/software parameter negotiation, the capture-to-network sender, the
// network-to-playback receiver, xrun recovery and the buffer-level clock steering.
#pragma once

#include <alsa/asoundlib.h>
#include <netinet/in.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <ctime>

#include "qb_audio_misc.h"
#include "qb_audio_oper_packet.h"
#include "qb_types.h"

class CAudioBuf;

// Size of the PCM staging buffer and of the datagram buffer at open.
inline constexpr size_t QB_AUDIO_BUF_DEFAULT_SIZE = 196608;
// Receive slot of one datagram in the datagram buffer.
inline constexpr size_t QB_AUDIO_RX_SLOT_SIZE = 2048;
// Largest gap in bytes that is bridged with silence; a larger one ends the run.
inline constexpr qb_u32_t QB_AUDIO_MAX_BRIDGED_LOSS = 5120;
// Entries of the latency sample history.
inline constexpr size_t QB_AUDIO_LATENCY_HISTORY = 100;
// Streams per direction.
inline constexpr int QB_AUDIO_OPER_STREAMS = 3;

typedef struct qb_audio_oper_hwparam_t {
  snd_pcm_format_t format;
  unsigned int channels;
  unsigned int rate;
} qb_audio_oper_hwparam_t;

typedef enum {
  MCLK_STATE_CHECK = 0,
  MCLK_STATE_DEC = 1,
  MCLK_STATE_INC = 2,
  MCLK_STATE_RESET = 3,
} MCLK_STATE_E;

// PCM parameters: the device, its format and the negotiated geometry.
struct qb_audio_oper_pcm_t {
  snd_pcm_t* handle;
  qb_audio_oper_hwparam_t hwparams;   // in use
  qb_audio_oper_hwparam_t rhwparams;  // requested from the stream's format
  int quiet_mode;                     // 0 keeps the recovery messages on
  int open_mode;
  snd_pcm_stream_t stream;
  int mmap_flag;
  int interleaved;
  int nonblock;
  snd_pcm_uframes_t chunk_size;
  unsigned int period_time;
  unsigned int buffer_time;
  unsigned int max_buffer_time;
  snd_pcm_uframes_t period_frames;
  snd_pcm_uframes_t buffer_frames;
  int avail_min;
  int start_delay;  // the start threshold in frames once negotiated
  int stop_delay;   // the stop threshold in frames once negotiated
  int monotonic;
  int can_pause;
  int fatal_errors;
  int verbose;  // 1 dumps the device status on recovery
  size_t significant_bits_per_sample;
  size_t bits_per_sample;
  size_t bits_per_frame;
  size_t chunk_bytes;
  int test_position;
  int test_coef;
  int test_nowait;
  snd_output_t* log;  // where ALSA dumps go
  int dump_hw_params;
};

// Transport: the stream's socket, group and the header of the format sent or played.
struct qb_audio_oper_transport_t {
  const char* audio_net_addr;
  int audio_tx;  // 1 = sender
  int tx_fd;
  int rx_fd;
  struct sockaddr_in svr_addr;
  int net_port;
  int audio_group_ip;  // 1 = multicast membership
  audio_transport_head_t audio_info_head;
  int pktSize;
  // A header whose format change could not be applied in this run (the codec program failed):
  // datagrams that carry it again play on as before, without another attempt.
  audio_transport_head_t refused_head;
  int refused_head_valid;
};

// Loss accounting: the running byte counter, and the start time and chunk count the xrun reports
// measure from.
struct qb_audio_oper_loss_t {
  qb_u32_t rollingSampleDataSizeTotal;
  struct timespec tsStartCapture;
  unsigned int chunkCountCapture;
  struct timespec tsStartPlay;
  unsigned int chunkCountPlay;
};

// Clock steering of a playback run: thresholds in frames, the latency samples, the clock state.
struct qb_audio_oper_steering_t {
  int incStartNum;
  int incStopNum;
  int decStartNum;
  int decStopNum;
  qb_u64_t sumLatency;
  size_t* arrChunkNum;  // points at latency_history while a playback run lasts
  size_t latency_history[QB_AUDIO_LATENCY_HISTORY];
  qb_u64_t latencyCnt;
  int clifd;  // socket to the genlock service
  MCLK_STATE_E mclkState;
  qb_u64_t lastAdjustAvg;
  qb_u64_t lastAdjustCnt;
};

// Fields that only the record dumps print; they drive no behaviour.
struct qb_audio_oper_dump_only_t {
  int timelimit;
  int sampleslimit;
  int file_type;
  int interactive;
  int vumeter;
  int buffer_pos;
  long long max_file_size;
  int max_file_time;
  int use_strftime;
  int recycle_capture_file;
  int term_c_lflag;
  int fd;
  long long pbrec_count;
  int fdcount;
  int vocmajor;
  int vocminor;
  int file_param;
  const char* pidfile_name;
  int pidf;
  int pidfile_written;
  void* channel_map;
  int* hw_map;
  long counter;
  time_t tmr;
  time_t now;
  float availsum;
  float delaysum;
  float samples;
  snd_pcm_sframes_t maxavail;
  snd_pcm_sframes_t maxdelay;
  snd_pcm_sframes_t minavail;
  snd_pcm_sframes_t mindelay;
  snd_pcm_sframes_t badavail;
  snd_pcm_sframes_t baddelay;
  qb_u64_t read_count;
  snd_pcm_sframes_t totalIOLatency;
  snd_pcm_sframes_t availFrmInRingBuf;
  int maxFrmNum;
  int minFrmNum;
  pthread_mutex_t mutexLatency;
  qb_u64_t adjustWaitCnt;
  qb_u64_t oneSecondCnt;
  int asyncStart;
  int asyncStartNum;
  snd_async_handler_t* ahandler;
  int startRecv;
  int syncSend;
  int pktDelayMicrosecond;
};

typedef struct qb_audio_oper_ctrl_t {
  const char* command;   // "arecord" or "aplay"
  const char* pcm_name;  // ALSA device name such as "hw:1,0"
  // Stop flag: any thread sets it to 1 to end the current run; the engine loop polls it.
  std::atomic<int> in_aborting;
  qb_u8_t* audiobuf;  // PCM staging buffer
  unsigned int audiobuf_datalen;
  qb_u8_t* net_audiobuf;  // datagram buffer
  size_t audiobuf_capacity;
  size_t net_audiobuf_capacity;
  CAudioBuf* pAudBuf;  // chunks parked while the playback device is busy
  int file_param_num;  // stream number 1, 2 or 3
  int init;            // 1 after a successful open
  long runtime;        // monotonic seconds of the last eARC channel-status update
  qb_audio_oper_pcm_t pcm;
  qb_audio_oper_transport_t net;
  qb_audio_oper_loss_t loss;
  qb_audio_oper_steering_t steer;
  qb_audio_oper_dump_only_t dump;
} qb_audio_oper_ctrl_t;

// ---- Engine-wide stop: set by the thread manager while the daemon shuts down, so that a run
// started just before the shutdown ends as well (a run resets its own in_aborting at start).
void qb_audio_oper_shutdown_set(int on);
int qb_audio_oper_shutdown_get();
// Whether the current run of this engine must end (its stop flag or the engine-wide stop).
bool qb_audio_oper_is_aborting(const qb_audio_oper_ctrl_t* ctrl);
// Ends the current run of an engine (any thread); wakes the engine if it waits.
void qb_audio_oper_abort(qb_audio_oper_ctrl_t* ctrl);
// Waits `ms` milliseconds, or less when the engine's run is told to end.
void qb_audio_oper_wait_unless_aborting(const qb_audio_oper_ctrl_t* ctrl, unsigned ms);
// A fixed pause of the engine's sequence (a device or peer settles), not ended by a stop request.
void qb_audio_oper_pause_ms(unsigned ms);

// ---- Record and device set-up
int qb_audio_oper_default(qb_audio_oper_ctrl_t* ctrl);
int qb_audio_oper_general_init(qb_audio_oper_ctrl_t* ctrl);
int qb_audio_oper_general_uninit(qb_audio_oper_ctrl_t* ctrl);
int set_params_play(qb_audio_oper_ctrl_t* ctrl);
int set_params_capture(qb_audio_oper_ctrl_t* ctrl);
unsigned int get_period_time_play(qb_audio_oper_ctrl_t* ctrl);
int get_start_chunks(qb_audio_oper_ctrl_t* ctrl);
snd_pcm_uframes_t get_start_threshold_play(qb_audio_oper_ctrl_t* ctrl);
int get_delay_usec(qb_audio_oper_ctrl_t* ctrl);
int set_buffer_param(qb_audio_oper_ctrl_t* ctrl);
void show_available_sample_formats(qb_audio_oper_ctrl_t* ctrl, snd_pcm_hw_params_t* params);
// The start of a run of either direction: the record's defaults and role, the stream number of the
// device ("hw:1,0" 1, "hw:2,0" 2, any other 3), the switch's forwarding of the group, and the format
// of the stream's channel record (channels, by stream number).
void qb_audio_oper_run_begin(qb_audio_oper_ctrl_t* ctrl, snd_pcm_stream_t stream, const char* pcm_name,
                             const char* group, const int channels[QB_AUDIO_OPER_STREAMS]);
// The end of a run: sockets and device closed, the group's forwarding removed, the record published.
void qb_audio_oper_run_end(qb_audio_oper_ctrl_t* ctrl, const char* group);
// Describes the device's format on standard error (unless quiet).
void qb_audio_oper_describe(const qb_audio_oper_ctrl_t* ctrl);
// Payload size of one datagram.
int get_pkt_size(qb_audio_oper_ctrl_t* ctrl);

// ---- Transport header of the engine
// Refreshes audio_info_head from a channel record (a null record does nothing).
void audio_info_head_set(qb_audio_oper_ctrl_t* ctrl, const qb_audio_info* ainfo);
// audio_info_head_set, then the requested hardware parameters from the record's codes, copied
// into hwparams.
void _file_param_set(qb_audio_oper_ctrl_t* ctrl, const qb_audio_info* ainfo);
// Encoding name of a port's record into out (at least 17 bytes). 0, or -1 for null arguments.
int get_encodingType(int port, const qb_audio_info* ainfo, char* out);
int get_dsp_encodingType(const qb_audio_info* ainfo, char* out);

// ---- Record dumps
// Logs every field of the record in field order.
void dump_audio_ctrl(qb_audio_oper_ctrl_t* ctrl);
// Prints every field of the record in field order to a file (nothing for a null file). Called from
// another thread than the record's worker: it prints the copy the worker last published.
void dump_audio_ctrl1(qb_audio_oper_ctrl_t* ctrl, FILE* file);
// Publishes a copy of the record for readers on other threads (the status dump). The worker calls
// it where its record is consistent: once per pass of its loop and when a run ends.
void qb_audio_oper_publish(const qb_audio_oper_ctrl_t* ctrl);

// ---- Sockets of both directions
int net_data_open(qb_audio_oper_ctrl_t* ctrl);
int net_data_close(qb_audio_oper_ctrl_t* ctrl);

// ---- Capture-to-network sender
int qb_audio_oper_capture(qb_audio_oper_ctrl_t* ctrl, const char* pcm_name, const char* group);
int capture_new(qb_audio_oper_ctrl_t* ctrl, const char* file);
// Datagrams sent by one multi-message send call.
inline constexpr size_t kCaptureBatch = 3;
// Sends one chunk as datagrams of at most pktSize payload bytes, in batches of up to three, on the
// connected tx_fd; advances rollingSampleDataSizeTotal. Returns the number of send calls.
int capture_send_chunk(qb_audio_oper_ctrl_t* ctrl, const qb_u8_t* data, size_t bytes);
int unmute_audio_input(qb_audio_oper_ctrl_t* ctrl);

// ---- Network-to-playback receiver
int qb_audio_oper_playback(qb_audio_oper_ctrl_t* ctrl, const char* pcm_name, const char* group);
snd_pcm_sframes_t pcm_write(qb_audio_oper_ctrl_t* ctrl, qb_u8_t* data, size_t frames);

// ---- Xrun recovery and clock steering
int xrun(qb_audio_oper_ctrl_t* ctrl);
void check_alsa_buffer_status(qb_audio_oper_ctrl_t* ctrl);
void check_5351_status(qb_audio_oper_ctrl_t* ctrl);
const char* get_mclk_status(MCLK_STATE_E state);
void printf_status_xrun(qb_audio_oper_ctrl_t* ctrl);
