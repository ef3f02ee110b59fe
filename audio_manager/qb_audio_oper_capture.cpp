// The capture-to-network sender: reads PCM chunks from a local ALSA capture device and sends them
// to a UDP multicast group, each datagram a transport header plus up to 1408 bytes of PCM.

#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "am_log.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_misc_stream.h"
#include "qb_audio_oper.h"

namespace {

constexpr int kCaptureWaitMs = 100;
constexpr unsigned kUnmuteAfterChunks = 11;
constexpr int kSelectionArc = 3;
// A suspended device is asked to resume once per period until it does.
constexpr unsigned kSuspendRetryMs = 1000;
// After a failed read the chunk is dropped; a failing device is not read again at once.
constexpr unsigned kReadErrorPauseMs = static_cast<unsigned>(kCaptureWaitMs);
// After the run's tear-down, before the worker's next pass.
constexpr unsigned kRunEndPauseMs = 100;

// Channel state of the network output each capture stream feeds, by stream number.
constexpr int kCaptureChannels[QB_AUDIO_OPER_STREAMS] = {QB_AUDIO_CHN_NSO1, QB_AUDIO_CHN_NSO3, QB_AUDIO_CHN_NSO5};

// Output-source selection of the network stream this engine feeds.
int capture_stream_selection(int stream) {
  return stream == 1   ? qb_net_first_stream_select_get()
         : stream == 2 ? qb_net_third_stream_select_get()
                       : qb_net_second_stream_select_get();
}

void handle_suspend(qb_audio_oper_ctrl_t* ctrl) {
  if (!ctrl->pcm.quiet_mode) {
    AM_LOG_INFO("Suspended. Trying resume. ");
  }
  int res = snd_pcm_resume(ctrl->pcm.handle);
  while (res == -EAGAIN && !qb_audio_oper_is_aborting(ctrl)) {
    qb_audio_oper_wait_unless_aborting(ctrl, kSuspendRetryMs);
    AM_LOG_INFO("suspended, wait suspend flag is released");
    res = snd_pcm_resume(ctrl->pcm.handle);
  }
  if (res < 0) {
    if (!ctrl->pcm.quiet_mode) {
      AM_LOG_INFO("Failed. Restarting stream. ");
    }
    res = snd_pcm_prepare(ctrl->pcm.handle);
    if (res < 0) {
      AM_LOG_ERROR("suspend: prepare error: %s, aborting", snd_strerror(res));
      qb_audio_oper_abort(ctrl);
    }
  }
  if (!ctrl->pcm.quiet_mode) {
    AM_LOG_INFO("suspend Done.");
  }
}

// Waits (bounded) until the running device holds a chunk, so that a stalled device never blocks the
// read and the stop flag is seen within 100 ms. False when the whole wait passed without data.
bool wait_for_capture_data(qb_audio_oper_ctrl_t* ctrl, size_t frames) {
  if (snd_pcm_state(ctrl->pcm.handle) != SND_PCM_STATE_RUNNING) {
    return true;
  }
  const snd_pcm_sframes_t avail = snd_pcm_avail_update(ctrl->pcm.handle);
  if (avail >= 0 && static_cast<size_t>(avail) >= frames) {
    return true;
  }
  return snd_pcm_wait(ctrl->pcm.handle, kCaptureWaitMs) != 0;
}

// Read errors after which the device will not come back within this run: the run ends and the
// thread manager starts the next one.
bool capture_device_gone(snd_pcm_sframes_t err) { return err == -EIO || err == -ENODEV || err == -EBADFD; }

// Reads one chunk of `frames` frames into data; frames read, or -1 when the chunk was dropped.
snd_pcm_sframes_t capture_read_chunk(qb_audio_oper_ctrl_t* ctrl, qb_u8_t* data, size_t frames) {
  size_t count = frames;
  size_t done = 0;
  const size_t frame_bytes = ctrl->pcm.bits_per_frame / 8;
  while (count > 0 && !qb_audio_oper_is_aborting(ctrl)) {
    const bool woken = wait_for_capture_data(ctrl, count);
    if (snd_pcm_state(ctrl->pcm.handle) == SND_PCM_STATE_RUNNING) {
      const snd_pcm_sframes_t avail = snd_pcm_avail_update(ctrl->pcm.handle);
      if (avail >= 0 && static_cast<size_t>(avail) < count) {
        if (!woken) {  // a device that delivers nothing is waited for, 100 ms at a time
          AM_LOG_INFO("wait 100 ms r = %ld count = %lu", static_cast<long>(-EAGAIN), static_cast<unsigned long>(count));
          AM_LOG_WARN("readi_func get -EAGAIN");
        }
        continue;  // not a whole chunk after the bounded wait: look at the stop flag again
      }
    }
    const snd_pcm_sframes_t r = snd_pcm_readi(ctrl->pcm.handle, data + done * frame_bytes, count);
    if (r == -EAGAIN || (r >= 0 && static_cast<size_t>(r) < count)) {
      if (!ctrl->pcm.test_nowait) {
        snd_pcm_wait(ctrl->pcm.handle, kCaptureWaitMs);
        AM_LOG_INFO("wait 100 ms r = %ld count = %lu", static_cast<long>(r), static_cast<unsigned long>(count));
      }
      AM_LOG_WARN("readi_func get -EAGAIN");
    } else if (r == -EPIPE) {
      if (xrun(ctrl) < 0) {
        qb_audio_oper_abort(ctrl);
      }
      continue;
    } else if (r == -ESTRPIPE) {
      handle_suspend(ctrl);
      continue;
    } else if (r < 0) {
      if (capture_device_gone(r)) {
        AM_LOG_ERROR("read error: %s,%s, aborting", ctrl->pcm_name, snd_strerror(static_cast<int>(r)));
        qb_audio_oper_abort(ctrl);
      } else {
        qb_audio_oper_wait_unless_aborting(ctrl, kReadErrorPauseMs);
      }
      return -1;
    }
    if (r > 0) {
      done += static_cast<size_t>(r);
      count -= static_cast<size_t>(r);
    }
  }
  return static_cast<snd_pcm_sframes_t>(done);
}

}  // namespace

int capture_send_chunk(qb_audio_oper_ctrl_t* ctrl, const qb_u8_t* data, size_t bytes) {
  audio_transport_head_t* slots = reinterpret_cast<audio_transport_head_t*>(ctrl->net_audiobuf);
  for (size_t i = 0; i < kCaptureBatch; ++i) {
    memcpy(&slots[i], &ctrl->net.audio_info_head, sizeof(audio_transport_head_t));
  }
  const size_t pkt = ctrl->net.pktSize > 0 ? static_cast<size_t>(ctrl->net.pktSize) : AUDIO_PKT_PAYLOAD_SIZE;
  struct mmsghdr msgs[kCaptureBatch];
  struct iovec iov[kCaptureBatch][2];
  int batches = 0;
  size_t offset = 0;
  while (offset < bytes) {
    unsigned vlen = 0;
    memset(msgs, 0, sizeof(msgs));
    while (vlen < kCaptureBatch && offset < bytes) {
      const size_t slice = bytes - offset < pkt ? bytes - offset : pkt;
      audio_transport_head_t* head = &slots[vlen];
      head->Packet_Size = static_cast<qb_u32_t>(slice);
      head->Rolling_Sample_Data_Size_Total = ctrl->loss.rollingSampleDataSizeTotal;
      ctrl->loss.rollingSampleDataSizeTotal += static_cast<qb_u32_t>(slice);
      iov[vlen][0].iov_base = head;
      iov[vlen][0].iov_len = sizeof(audio_transport_head_t);
      iov[vlen][1].iov_base = const_cast<qb_u8_t*>(data + offset);
      iov[vlen][1].iov_len = slice;
      msgs[vlen].msg_hdr.msg_iov = iov[vlen];
      msgs[vlen].msg_hdr.msg_iovlen = 2;
      offset += slice;
      ++vlen;
    }
    const int ret = sendmmsg(ctrl->net.tx_fd, msgs, vlen, 0);
    ++batches;
    if (ret != static_cast<int>(vlen)) {
      const int err = errno;
      AM_LOG_ERROR("sendmmsg errno:%d:%s, ret=%d vlen=%u", err, strerror(err), ret, vlen);
    }
  }
  return batches;
}

int unmute_audio_input(qb_audio_oper_ctrl_t* ctrl) {
  return input_mute_ctrl(capture_stream_selection(ctrl->file_param_num), 0);
}

int capture_new(qb_audio_oper_ctrl_t* ctrl, const char* file) {
  (void)file;  // PCM goes to the network only
  if (ctrl->init != 1) {
    AM_LOG_ERROR("not init");
    return -2;
  }
  qb_audio_oper_describe(ctrl);
  if (set_params_capture(ctrl) < 0) {
    AM_LOG_ERROR("set params err");
    return -2;
  }
  dump_audio_ctrl(ctrl);

  const size_t chunk_frames = ctrl->pcm.chunk_size;
  const int channel = kCaptureChannels[ctrl->file_param_num - 1];
  if (ctrl->pcm_name != nullptr && strcmp(ctrl->pcm_name, "hw:0,0") == 0 &&
      capture_stream_selection(ctrl->file_param_num) == kSelectionArc) {
    unmute_audio_input(ctrl);
  }
  clock_gettime(CLOCK_MONOTONIC, &ctrl->loss.tsStartCapture);
  size_t last_save = ctrl->pcm.chunk_bytes;
  while (!qb_audio_oper_is_aborting(ctrl)) {
    qb_audio_oper_publish(ctrl);
    qb_audio_info live;
    if (qb_audio_channel_state_copy(channel, &live) == 1) {  // the decoder code may change while streaming
      ctrl->net.audio_info_head.Audio_Info_Frame[0] = static_cast<qb_u8_t>(live.AUD_DB[0]);
    }
    const snd_pcm_sframes_t frames = capture_read_chunk(ctrl, ctrl->audiobuf, chunk_frames);
    if (frames <= 0) {
      continue;
    }
    const size_t save = static_cast<size_t>(frames) * ctrl->pcm.bits_per_frame / 8;
    if (save != last_save) {
      AM_LOG_WARN("pcm_read c=%lu f=%lu read=%lu, [save=%lu not equal lastsave=%lu]",
                  static_cast<unsigned long>(chunk_frames), static_cast<unsigned long>(frames),
                  static_cast<unsigned long>(save), static_cast<unsigned long>(save),
                  static_cast<unsigned long>(last_save));
    }
    last_save = save;
    audio_channel_tags_write(ctrl->audiobuf, save, ctrl->pcm.hwparams.channels, ctrl->pcm.bits_per_sample);
    capture_send_chunk(ctrl, ctrl->audiobuf, save);
    ctrl->loss.chunkCountCapture += 1;
    if (ctrl->loss.chunkCountCapture == kUnmuteAfterChunks) {
      unmute_audio_input(ctrl);
    }
  }
  AM_LOG_WARN("aborting restart");
  return -1;
}

int qb_audio_oper_capture(qb_audio_oper_ctrl_t* ctrl, const char* pcm_name, const char* group) {
  if (ctrl == nullptr || pcm_name == nullptr || group == nullptr) {
    return -1;
  }
  AM_LOG_INFO("%s,%s,%s start", "qb_audio_oper_capture", pcm_name, group);
  qb_audio_oper_run_begin(ctrl, SND_PCM_STREAM_CAPTURE, pcm_name, group, kCaptureChannels);
  net_data_open(ctrl);
  int ret = qb_audio_oper_general_init(ctrl);
  if (ret == 0) {
    ret = capture_new(ctrl, nullptr);
  }
  qb_audio_oper_run_end(ctrl, group);
  AM_LOG_INFO("%s %s ret=%d stop", "qb_audio_oper_capture", pcm_name, ret);
  qb_audio_oper_pause_ms(kRunEndPauseMs);
  return ret;
}
