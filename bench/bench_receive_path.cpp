// Receive-path cost: CPU time of the receiving thread per second of audio, for the engine's
// datagram path (multi-message receive, header checks, continuity, staging, chunking into the
// ring's consumer) against a bare multi-message receive plus copy. Also counts the allocations made
// on the engine's path. Prints figures only.
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "alloc_count.h"
#include "am_log.h"
#include "bench_util.h"
#include "qb_audio_buf.h"
#include "qb_audio_oper.h"
#include "qb_audio_oper_playback.h"

namespace {

constexpr double kSeconds = 20.0;  // seconds of audio pushed through each path
constexpr size_t kBatch = 16;
constexpr int kRounds = 3;  // rounds of each path, alternating; the quickest counts

struct Format {
  const char* name;
  unsigned rate, channels;
  size_t chunk_frames;  // the period the daemon negotiates for the format
};

// The datagrams of `seconds` of audio in the format, as the sender would cut them.
std::vector<std::vector<uint8_t>> make_stream(const Format& f, const audio_transport_head_t& head, double seconds) {
  const size_t total = static_cast<size_t>(seconds * f.rate) * f.channels * 4;
  std::vector<uint8_t> pcm(total);
  for (size_t i = 0; i < total; ++i) pcm[i] = static_cast<uint8_t>(i * 13);
  audio_channel_tags_write(pcm.data(), pcm.size(), f.channels, 32);
  std::vector<std::vector<uint8_t>> out;
  uint32_t rolling = 0;
  for (size_t off = 0; off < total; off += 1408) {
    const size_t n = total - off < 1408 ? total - off : 1408;
    std::vector<uint8_t> d(56 + n);
    std::memcpy(d.data() + 56, pcm.data() + off, n);
    audio_transport_head_t h = head;
    h.Packet_Size = static_cast<uint32_t>(n);
    h.Rolling_Sample_Data_Size_Total = rolling;
    rolling += static_cast<uint32_t>(n);
    std::memcpy(d.data(), &h, sizeof(h));
    out.push_back(std::move(d));
  }
  return out;
}

snd_pcm_sframes_t null_write(qb_audio_oper_ctrl_t*, qb_u8_t*, size_t frames) {
  return static_cast<snd_pcm_sframes_t>(frames);
}

// Pushes the datagrams into one end of a datagram socket pair from another thread, paced only by
// the socket buffer; the consumer runs `consume` on every batch it receives. Returns the consumer's
// CPU time; `allocs` gets the allocations the consumer made while receiving.
template <typename Consume>
double run_path(const std::vector<std::vector<uint8_t>>& stream, Consume consume, unsigned long* allocs) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, sv) != 0) return -1;
  int size = 4 << 20;
  setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
  setsockopt(sv[1], SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  std::thread producer([&] {
    for (const auto& d : stream) {
      while (send(sv[0], d.data(), d.size(), 0) < 0) {
      }
    }
    send(sv[0], "", 0, 0);  // end marker
  });
  std::vector<uint8_t> slots(kBatch * 2048);
  struct mmsghdr msgs[kBatch];
  struct iovec iov[kBatch];
  am_alloc_count_start();
  const double t0 = bench::thread_cpu_s();
  bool done = false;
  while (!done) {
    for (size_t i = 0; i < kBatch; ++i) {
      iov[i] = {slots.data() + i * 2048, 2048};
      std::memset(&msgs[i], 0, sizeof(msgs[i]));
      msgs[i].msg_hdr.msg_iov = &iov[i];
      msgs[i].msg_hdr.msg_iovlen = 1;
    }
    const int got = recvmmsg(sv[1], msgs, kBatch, MSG_WAITFORONE, nullptr);
    for (int i = 0; i < got; ++i) {
      if (msgs[i].msg_len == 0) {
        done = true;
        break;
      }
      consume(slots.data() + i * 2048, msgs[i].msg_len);
    }
  }
  const double cpu = bench::thread_cpu_s() - t0;
  am_alloc_count_stop();
  *allocs = am_alloc_count_of_thread();
  producer.join();
  close(sv[0]);
  close(sv[1]);
  return cpu;
}

void bench_format(const Format& f) {
  qb_audio_oper_ctrl_t ctrl;
  qb_audio_oper_default(&ctrl);
  ctrl.file_param_num = 1;
  ctrl.pcm.hwparams = {SND_PCM_FORMAT_S24_LE, f.channels, f.rate};
  ctrl.pcm.bits_per_sample = 32;
  ctrl.pcm.bits_per_frame = 32 * f.channels;
  ctrl.pcm.chunk_size = f.chunk_frames;
  ctrl.pcm.chunk_bytes = f.chunk_frames * f.channels * 4;
  std::vector<uint8_t> staging(QB_AUDIO_BUF_DEFAULT_SIZE);
  ctrl.audiobuf = staging.data();
  ctrl.audiobuf_capacity = staging.size();
  ctrl.pAudBuf = new CAudioBuf(static_cast<int>(ctrl.pcm.chunk_bytes), 70);
  ctrl.net.audio_info_head.Sample_Frequency = 2;
  ctrl.net.audio_info_head.Channels = static_cast<qb_u8_t>(f.channels);
  ctrl.net.audio_info_head.Sample_Size = 24;
  ctrl.net.audio_info_head.Audio_Type = 0x80;
  const auto stream = make_stream(f, ctrl.net.audio_info_head, kSeconds);

  std::vector<uint8_t> sink(QB_AUDIO_BUF_DEFAULT_SIZE);
  double engine = 1e9, bare = 1e9;
  unsigned long allocs = 0, bare_allocs = 0;
  for (int round = 0; round < kRounds; ++round) {
    engine = std::min(engine, run_path(stream, [&](const uint8_t* d, size_t len) {
                        playback_handle_datagram(&ctrl, d, len);
                        if (ctrl.audiobuf_datalen >= ctrl.pcm.chunk_bytes) {
                          playback_realign(&ctrl);
                          playback_move_chunks(&ctrl, null_write);
                        }
                      }, &allocs));
    size_t fill = 0;
    bare = std::min(bare, run_path(stream, [&](const uint8_t* d, size_t len) {
                      if (len > 56) {
                        if (fill + len > sink.size()) fill = 0;
                        std::memcpy(sink.data() + fill, d + 56, len - 56);
                        fill += len - 56;
                      }
                    }, &bare_allocs));
  }
  std::printf("%-16s %8zu datagrams  engine %7.3f ms CPU per s of audio   bare recvmmsg+copy %7.3f ms   ratio %.2f   "
              "allocations %.1f per s\n",
              f.name, stream.size(), engine * 1000 / kSeconds, bare * 1000 / kSeconds, bare > 0 ? engine / bare : 0.0,
              static_cast<double>(allocs) / kSeconds);
  delete ctrl.pAudBuf;
}

}  // namespace

int main() {
  bench::stderr_to(bench::out_dir() + "/bench_receive_path.log");
  const Format formats[] = {{"2ch/48k/24-bit", 48000, 2, 240}, {"8ch/192k/24-bit", 192000, 8, 384}};
  for (const Format& f : formats) bench_format(f);
  return 0;
}
