// The network-to-playback receiver: joins a multicast group, checks each datagram's header, bridges
// small losses with silence, realigns on channel 0, parks chunks in the ring while the device is
// busy and writes them to the ALSA playback device; samples the queued audio for clock steering.
#include "qb_audio_oper_playback.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "am_log.h"
#include "audio_packet_loss_statistics.h"
#include "qb_audio_buf.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_oper_format.h"
#include "qb_si5351.h"

namespace {

constexpr int kGenlockBasePort = 11000;
constexpr const char* kGenlockAddress = "127.0.0.1";
constexpr unsigned kEpollAfterRecvCalls = 10;
constexpr int kEpollWaitMs = 1;
constexpr size_t kMaxRxMessages = 128;
// Receive calls in one pass of the loop: a flood of datagrams (valid or not) is read in slices, and
// the device writes of each pass still happen.
constexpr unsigned kRxCallsPerPass = 8;

// After the end of a run (device drained, epoll closed), before the tear-down.
constexpr unsigned kRunEndPauseMs = 100;
// After the sample rate is sent to the genlock service, before the device is set up.
constexpr unsigned kGenlockParamPauseMs = 100;
// The queued audio plays out at the end of a run, looked at every period of this length, for at
// most five times the largest playback buffer (200 ms): a device that stopped taking data is
// dropped then instead of holding the worker for ever.
constexpr unsigned kDrainPollMs = 10;
constexpr unsigned kDrainLimitMs = 1000;

// Lets the device play what it holds, for at most kDrainLimitMs (not at all when the daemon is
// stopping), then stops it. Non-blocking set again: the open mode alone does not keep every
// device's drain from waiting.
void drain_bounded(snd_pcm_t* handle) {
  snd_pcm_nonblock(handle, 1);
  for (unsigned waited = 0; waited < kDrainLimitMs && !qb_audio_oper_shutdown_get() && snd_pcm_drain(handle) == -EAGAIN;
       waited += kDrainPollMs) {
    qb_audio_oper_pause_ms(kDrainPollMs);
  }
  snd_pcm_drop(handle);
}

// Channel state of the network input each playback stream plays, by stream number.
constexpr int kPlaybackChannels[QB_AUDIO_OPER_STREAMS] = {QB_AUDIO_CHN_NSI1, QB_AUDIO_CHN_NSI3, QB_AUDIO_CHN_NSI5};

// Continuity of the rolling counter and the append of one payload (with bridged silence).
playback_rx_e playback_append(qb_audio_oper_ctrl_t* ctrl, const audio_transport_head_t& head, const qb_u8_t* payload,
                              size_t len) {
  const qb_u32_t expected = ctrl->loss.rollingSampleDataSizeTotal;
  const qb_u32_t current = head.Rolling_Sample_Data_Size_Total;
  const qb_u32_t size = head.Packet_Size;
  qb_u32_t lost = 0;
  if (expected != 0 && current != 0 && current != expected) {
    lost = current - expected;  // modulo 2^32
    AM_LOG_ERROR("audio packet lost %u, Rolling_Sample_Data_Size_Total last:%u, current:%u packet size:%u, aborting",
                 lost, expected, current, size);
    set_audio_loss_info(ctrl->file_param_num - 1, static_cast<int>(lost));
    if (lost == 0 || lost > QB_AUDIO_MAX_BRIDGED_LOSS) {
      AM_LOG_ERROR("audio lost packet size %d byte, aborting", static_cast<int>(lost));
      qb_audio_oper_abort(ctrl);
      return PLAYBACK_RX_ABORT;
    }
    AM_LOG_WARN("audio lost packet size %d byte, replace with mute audio packet", static_cast<int>(lost));
  }
  const size_t need = static_cast<size_t>(lost) + size;
  if (ctrl->audiobuf == nullptr || ctrl->audiobuf_datalen + need > ctrl->audiobuf_capacity) {
    AM_LOG_ERROR("count=%lu dst=%p src=%p param err", static_cast<unsigned long>(len),
                 static_cast<void*>(ctrl->audiobuf), static_cast<const void*>(payload));
    return PLAYBACK_RX_DROPPED;
  }
  qb_u8_t* dst = ctrl->audiobuf + ctrl->audiobuf_datalen;
  memset(dst, 0, lost);
  memcpy(dst + lost, payload, size);
  ctrl->audiobuf_datalen += static_cast<unsigned>(need);
  ctrl->loss.rollingSampleDataSizeTotal = current + size;
  return PLAYBACK_RX_APPENDED;
}

// Kind of header change.
enum playback_change_e {
  PLAYBACK_CHANGE_NONE = 0,
  PLAYBACK_CHANGE_HEAD,   // a format field differs
  PLAYBACK_CHANGE_FRAME,  // only Audio_Info_Frame[0] or [3] differs
};

// Compares a header with the one being played.
playback_change_e playback_head_change(const audio_transport_head_t* playing, const audio_transport_head_t* head) {
  if (head->Sample_Frequency != playing->Sample_Frequency || head->Channels != playing->Channels ||
      head->Sample_Size != playing->Sample_Size || head->Audio_Type != playing->Audio_Type ||
      head->SPDIF != playing->SPDIF ||
      memcmp(head->IEC60958_Channel_Stats, playing->IEC60958_Channel_Stats, sizeof(head->IEC60958_Channel_Stats)) !=
          0) {
    return PLAYBACK_CHANGE_HEAD;
  }
  if (head->Audio_Info_Frame[0] != playing->Audio_Info_Frame[0] ||
      head->Audio_Info_Frame[3] != playing->Audio_Info_Frame[3]) {
    return PLAYBACK_CHANGE_FRAME;
  }
  return PLAYBACK_CHANGE_NONE;
}

}  // namespace

playback_rx_e playback_handle_datagram(qb_audio_oper_ctrl_t* ctrl, const qb_u8_t* dgram, size_t len) {
  if (len <= AUDIO_TRANSPORT_HEAD_SIZE) {
    AM_LOG_ERROR("count=%lu less then head=%u", static_cast<unsigned long>(len),
                 static_cast<unsigned>(AUDIO_TRANSPORT_HEAD_SIZE));
    return PLAYBACK_RX_DROPPED;
  }
  const qb_u8_t* payload = dgram + AUDIO_TRANSPORT_HEAD_SIZE;
  if (ctrl->audiobuf == nullptr) {
    AM_LOG_ERROR("count=%lu dst=%p src=%p param err", static_cast<unsigned long>(len), static_cast<void*>(nullptr),
                 static_cast<const void*>(payload));
    return PLAYBACK_RX_DROPPED;
  }
  audio_transport_head_t head;
  memcpy(&head, dgram, sizeof(head));
  if (len != static_cast<size_t>(head.Packet_Size) + AUDIO_TRANSPORT_HEAD_SIZE) {
    AM_LOG_ERROR("count=%lu not equal plen=%u add head=%u", static_cast<unsigned long>(len), head.Packet_Size,
                 static_cast<unsigned>(AUDIO_TRANSPORT_HEAD_SIZE));
    return PLAYBACK_RX_DROPPED;
  }
  const playback_change_e change = playback_head_change(&ctrl->net.audio_info_head, &head);
  // A header the handler refused before is not handed to it again (compared only on a change).
  if (change != PLAYBACK_CHANGE_NONE &&
      (ctrl->net.refused_head_valid == 0 ||
       playback_head_change(&ctrl->net.refused_head, &head) != PLAYBACK_CHANGE_NONE)) {
    AM_LOG_INFO("%s", change == PLAYBACK_CHANGE_HEAD ? "New audio information head" : "New audio information frame");
    if (qb_audio_oper_new_format(ctrl, &head) != 0) {
      return PLAYBACK_RX_ABORT;
    }
    ctrl->net.refused_head = head;  // the handler could not apply it: once per format change is enough
    ctrl->net.refused_head_valid = 1;
  }
  return playback_append(ctrl, head, payload, len);
}

size_t playback_realign(qb_audio_oper_ctrl_t* ctrl) {
  if (ctrl->pcm.hwparams.channels <= 2 || ctrl->pcm.bits_per_sample != 32 || ctrl->audiobuf_datalen < 4 ||
      ctrl->audiobuf[3] == AUDIO_CHANNEL0_TAG) {
    return 0;
  }
  const size_t samples = ctrl->audiobuf_datalen / 4;
  for (size_t k = 1; k < samples; ++k) {
    if (ctrl->audiobuf[k * 4 + 3] == AUDIO_CHANNEL0_TAG) {
      const size_t drop = k * 4;
      memmove(ctrl->audiobuf, ctrl->audiobuf + drop, ctrl->audiobuf_datalen - drop);
      ctrl->audiobuf_datalen -= static_cast<unsigned>(drop);
      AM_LOG_WARN("remove %d bytes for not start 00 channel", static_cast<int>(drop));
      return drop;
    }
  }
  return 0;
}

unsigned playback_move_chunks(qb_audio_oper_ctrl_t* ctrl, playback_write_fn write) {
  unsigned written = 0;
  CAudioBuf* ring = ctrl->pAudBuf;
  const size_t frame_bits = ctrl->pcm.bits_per_frame;
  if (ring == nullptr || frame_bits == 0 || ctrl->pcm.chunk_bytes == 0) {
    return 0;
  }
  // Parked chunks go first, so that the byte order of the stream is kept.
  while (ring->get_buf_size() > 0) {
    AUD_BUF_T* slot = ring->get_buf_data();
    if (slot == nullptr) {
      AM_LOG_ERROR("get pBuf err");
      break;
    }
    const size_t frames = static_cast<size_t>(slot->data_size) * 8 / frame_bits;
    if (write(ctrl, reinterpret_cast<qb_u8_t*>(slot->buf), frames) < 1) {
      ring->reset_buf_status(slot);
      break;
    }
    ring->push_buf_free(slot);
    ++written;
    ctrl->loss.chunkCountPlay += 1;
  }
  size_t consumed = 0;
  const size_t chunk = ctrl->pcm.chunk_bytes;
  if (ring->get_buf_size() == 0) {
    while (ctrl->audiobuf_datalen - consumed >= chunk) {
      if (write(ctrl, ctrl->audiobuf + consumed, ctrl->pcm.chunk_size) < 1) {
        break;
      }
      consumed += chunk;
      ++written;
      ctrl->loss.chunkCountPlay += 1;
    }
  }
  while (ctrl->audiobuf_datalen - consumed >= chunk) {
    if (ring->push_data(reinterpret_cast<const char*>(ctrl->audiobuf + consumed), static_cast<int>(chunk)) != 0) {
      qb_audio_oper_abort(ctrl);
      AM_LOG_ERROR("buffer is full, aborting");
      AM_LOG_ERROR("alsa status:%d",
                   ctrl->pcm.handle != nullptr ? static_cast<int>(snd_pcm_state(ctrl->pcm.handle)) : -1);
      break;
    }
    consumed += chunk;
  }
  if (consumed > 0) {
    memmove(ctrl->audiobuf, ctrl->audiobuf + consumed, ctrl->audiobuf_datalen - consumed);
    ctrl->audiobuf_datalen -= static_cast<unsigned>(consumed);
  }
  return written;
}

snd_pcm_sframes_t pcm_write(qb_audio_oper_ctrl_t* ctrl, qb_u8_t* data, size_t frames) {
  if (frames == 0) {
    return 0;
  }
  const size_t frame_bytes = ctrl->pcm.bits_per_frame / 8;
  if (frames < ctrl->pcm.chunk_size) {  // the rest of the chunk becomes silence of the current format
    AM_LOG_INFO("cout=%lu not equal chunk size=%lu, silence", static_cast<unsigned long>(frames), ctrl->pcm.chunk_size);
    const size_t missing = ctrl->pcm.chunk_size - frames;
    snd_pcm_format_set_silence(ctrl->pcm.hwparams.format, data + frames * frame_bytes,
                               static_cast<unsigned>(missing * ctrl->pcm.hwparams.channels));
    frames = ctrl->pcm.chunk_size;
  }
  size_t count = frames;
  snd_pcm_sframes_t total = 0;
  while (count > 0 && !qb_audio_oper_is_aborting(ctrl)) {
    const snd_pcm_sframes_t r = snd_pcm_writei(ctrl->pcm.handle, data, count);
    if (r == -EAGAIN) {
      AM_LOG_WARN("write audio data, get -EAGAIN");
      return 0;
    }
    if (r == -EPIPE) {
      if (xrun(ctrl) == 0) {
        AM_LOG_WARN("prepare ok after xrun, continue");
        return static_cast<snd_pcm_sframes_t>(ctrl->pcm.chunk_size);
      }
      qb_audio_oper_abort(ctrl);
      AM_LOG_ERROR("%s EPIPE aborting", ctrl->pcm_name);
      return -1;
    }
    if (r == -ESTRPIPE) {
      qb_audio_oper_abort(ctrl);
      AM_LOG_ERROR("%s ESTRPIPE aborting", ctrl->pcm_name);
      return -1;
    }
    if (r < 0) {
      AM_LOG_ERROR("write error: %s,%s, aborting", ctrl->pcm_name, snd_strerror(static_cast<int>(r)));
      qb_audio_oper_abort(ctrl);
      return -1;
    }
    total += r;
    count -= static_cast<size_t>(r);
    if (count > 0) {
      data += static_cast<size_t>(r) * frame_bytes;
      AM_LOG_WARN("left count=%lu, continue write data", static_cast<unsigned long>(count));
    }
  }
  return total;
}

// ---------------------------------------------------------------------------------------------
// One run
// ---------------------------------------------------------------------------------------------

namespace {

struct playback_run_t {
  int epfd = -1;
  size_t messages = 0;
  struct mmsghdr msgs[kMaxRxMessages];
  struct iovec iov[kMaxRxMessages];
  playback_steer_t steer{};
};

void rx_vector_build(qb_audio_oper_ctrl_t* ctrl, playback_run_t* run) {
  for (size_t i = 0; i < run->messages; ++i) {
    run->iov[i].iov_base = ctrl->net_audiobuf + i * QB_AUDIO_RX_SLOT_SIZE;
    run->iov[i].iov_len = QB_AUDIO_RX_SLOT_SIZE;
    memset(&run->msgs[i], 0, sizeof(run->msgs[i]));
    run->msgs[i].msg_hdr.msg_iov = &run->iov[i];
    run->msgs[i].msg_hdr.msg_iovlen = 1;
  }
}

// Receives until the socket is empty, the run is aborted, the staging room runs short or the
// pass has made its share of receive calls. True when the socket may still hold datagrams.
bool rx_drain_socket(qb_audio_oper_ctrl_t* ctrl, playback_run_t* run) {
  const size_t room_needed = playback_rx_room_needed(run->messages);
  for (unsigned calls = 0; !qb_audio_oper_is_aborting(ctrl); ++calls) {
    if (calls == kRxCallsPerPass || ctrl->audiobuf_capacity - ctrl->audiobuf_datalen < room_needed) {
      return true;
    }
    rx_vector_build(ctrl, run);
    const int got = recvmmsg(ctrl->net.rx_fd, run->msgs, static_cast<unsigned>(run->messages), MSG_DONTWAIT, nullptr);
    run->steer.recv_calls += 1;
    if (got < 0) {
      return false;
    }
    for (int i = 0; i < got; ++i) {
      const qb_u8_t* dgram = static_cast<const qb_u8_t*>(run->iov[i].iov_base);
      if (playback_handle_datagram(ctrl, dgram, run->msgs[i].msg_len) == PLAYBACK_RX_ABORT) {
        return false;
      }
    }
  }
  return false;
}

void flush_socket(qb_audio_oper_ctrl_t* ctrl) {
  if (ctrl->net.rx_fd <= 0 || ctrl->audiobuf == nullptr) {
    return;
  }
  while (recv(ctrl->net.rx_fd, ctrl->audiobuf, QB_AUDIO_BUF_DEFAULT_SIZE, MSG_DONTWAIT) >= 0) {
  }
}

int playback_loop(qb_audio_oper_ctrl_t* ctrl, const char* group) {
  playback_run_t run;
  run.epfd = epoll_create1(EPOLL_CLOEXEC);
  if (run.epfd >= 0 && ctrl->net.rx_fd > 0) {
    struct epoll_event ev;
    memset(&ev, 0, sizeof(ev));
    ev.events = EPOLLIN | EPOLLET;
    ev.data.fd = ctrl->net.rx_fd;
    epoll_ctl(run.epfd, EPOLL_CTL_ADD, ctrl->net.rx_fd, &ev);
  }
  size_t messages = ctrl->pcm.chunk_bytes / AUDIO_PKT_PAYLOAD_SIZE + 1;
  const size_t fit = ctrl->net_audiobuf_capacity / QB_AUDIO_RX_SLOT_SIZE;
  messages = messages > fit ? fit : messages;
  run.messages = messages > kMaxRxMessages ? kMaxRxMessages : messages;
  AM_LOG_INFO("%s,%ld,%ld,%ld name:%s, %p", "playback_new", static_cast<long>(ctrl->pcm.chunk_bytes),
              static_cast<long>(ctrl->pcm.chunk_size), static_cast<long>(ctrl->dump.pbrec_count), group,
              static_cast<void*>(ctrl->pAudBuf));
  input_mute_ctrl(6 + ctrl->file_param_num, 0);
  flush_socket(ctrl);
  clock_gettime(CLOCK_MONOTONIC, &ctrl->loss.tsStartPlay);

  bool backlog = false;  // the last pass left datagrams queued: no new edge will announce them
  while (!qb_audio_oper_is_aborting(ctrl)) {
    bool receive = true;
    if (!backlog && run.steer.recv_calls > kEpollAfterRecvCalls && run.epfd >= 0) {
      struct epoll_event ev;
      receive = epoll_wait(run.epfd, &ev, 1, kEpollWaitMs) > 0;
    }
    backlog = receive && rx_drain_socket(ctrl, &run);
    if (qb_audio_oper_is_aborting(ctrl)) {
      break;
    }
    playback_realign(ctrl);
    run.steer.written_chunks += playback_move_chunks(ctrl, pcm_write);
    playback_steer_pass(ctrl, &run.steer);
    qb_audio_oper_publish(ctrl);
  }

  if (ctrl->pcm.handle != nullptr) {
    drain_bounded(ctrl->pcm.handle);
  }
  if (run.epfd >= 0) {
    close(run.epfd);
  }
  qb_audio_oper_pause_ms(kRunEndPauseMs);
  return 0;
}

}  // namespace

int qb_audio_oper_playback(qb_audio_oper_ctrl_t* ctrl, const char* pcm_name, const char* group) {
  if (ctrl == nullptr || pcm_name == nullptr || group == nullptr) {
    return -1;
  }
  AM_LOG_INFO("%s,%s,%s", "qb_audio_oper_playback", pcm_name, group);
  qb_audio_oper_run_begin(ctrl, SND_PCM_STREAM_PLAYBACK, pcm_name, group, kPlaybackChannels);
  ctrl->steer.clifd = udp_socket_create(kGenlockAddress, kGenlockBasePort + ctrl->file_param_num);
  if (!qb_audio_oper_is_aborting(ctrl)) {
    // A genlock service that does not answer holds the run up for at most three 2 s waits; a stop
    // request (a new format, the daemon's shutdown) ends the wait at once.
    const auto stopping = [](void* c) {
      return qb_audio_oper_is_aborting(static_cast<const qb_audio_oper_ctrl_t*>(c));
    };
    send_set_param2(ctrl->steer.clifd, ctrl->file_param_num, static_cast<int>(ctrl->pcm.hwparams.rate), stopping, ctrl);
  }
  qb_audio_oper_pause_ms(kGenlockParamPauseMs);

  net_data_open(ctrl);
  int ret = qb_audio_oper_general_init(ctrl);
  if (ret == 0) {
    AM_LOG_INFO("ctrl->pcm_name = %s", ctrl->pcm_name);
    qb_audio_oper_describe(ctrl);
    if (set_params_play(ctrl) < 0) {
      ret = -2;
    } else {
      dump_audio_ctrl(ctrl);
      ret = playback_loop(ctrl, group);
    }
  }
  qb_audio_oper_run_end(ctrl, group);
  AM_LOG_INFO("%s %s end", "qb_audio_oper_playback", pcm_name);
  return ret;
}
