// Sender-path cost: CPU time of the sending thread per second of audio, for the engine's path
// (channel tags written into each captured chunk, the chunk cut into datagrams behind transport
// headers, multi-message sends of three) against a bare loop that sends the same datagrams, built
// beforehand, with the same multi-message sends. Chunks come from memory, not from a sound card;
// the datagrams go to a loopback socket that nobody reads. Also counts the allocations made on the
// engine's path. Prints figures only.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "alloc_count.h"
#include "am_log.h"
#include "bench_util.h"
#include "qb_audio_oper.h"

namespace {

constexpr double kSeconds = 20.0;  // seconds of audio pushed through each path per round
constexpr int kRounds = 3;         // rounds of each path, alternating; the quickest counts
constexpr size_t kHead = sizeof(audio_transport_head_t);
constexpr size_t kPayload = AUDIO_PKT_PAYLOAD_SIZE;

struct Format {
  const char* name;
  unsigned rate, channels;
  size_t chunk_frames;  // the capture period the daemon negotiates for the format
};

// A UDP socket connected to a bound loopback socket that is never read (datagrams beyond its
// small buffer are dropped by the kernel, the sender sees no error).
struct Loopback {
  int tx = -1, sink = -1;
  Loopback() {
    sink = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    tx = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(sink, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    socklen_t len = sizeof(addr);
    getsockname(sink, reinterpret_cast<sockaddr*>(&addr), &len);
    connect(tx, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  }
  ~Loopback() {
    close(tx);
    close(sink);
  }
};

void bench_format(const Format& f) {
  const size_t chunk_bytes = f.chunk_frames * f.channels * 4;
  const size_t chunks = static_cast<size_t>(kSeconds * f.rate / static_cast<double>(f.chunk_frames));
  std::vector<uint8_t> pcm(chunks * chunk_bytes);
  for (size_t i = 0; i < pcm.size(); ++i) pcm[i] = static_cast<uint8_t>(i * 13);
  Loopback net;

  qb_audio_oper_ctrl_t ctrl;
  qb_audio_oper_default(&ctrl);
  ctrl.pcm.hwparams = {SND_PCM_FORMAT_S24_LE, f.channels, f.rate};
  ctrl.pcm.bits_per_sample = 32;
  ctrl.pcm.bits_per_frame = 32 * f.channels;
  ctrl.pcm.chunk_size = f.chunk_frames;
  ctrl.pcm.chunk_bytes = chunk_bytes;
  ctrl.net.pktSize = AUDIO_PKT_PAYLOAD_SIZE;
  std::vector<uint8_t> net_buf(2 * chunk_bytes);
  ctrl.net_audiobuf = net_buf.data();
  ctrl.net_audiobuf_capacity = net_buf.size();
  ctrl.net.tx_fd = net.tx;
  ctrl.net.audio_info_head.Magic = AUDIO_HEAD_MAGIC;
  ctrl.net.audio_info_head.Channels = static_cast<qb_u8_t>(f.channels);
  ctrl.net.audio_info_head.Sample_Size = 24;

  // The reference: the same datagrams (header + payload, contiguous), sent as they are.
  std::vector<std::vector<uint8_t>> datagrams;
  uint32_t rolling = 0;
  for (size_t c = 0; c < chunks; ++c) {
    for (size_t off = 0; off < chunk_bytes; off += kPayload) {
      const size_t n = std::min(chunk_bytes - off, kPayload);
      std::vector<uint8_t> d(kHead + n);
      audio_transport_head_t h = ctrl.net.audio_info_head;
      h.Packet_Size = static_cast<qb_u32_t>(n);
      h.Rolling_Sample_Data_Size_Total = rolling;
      rolling += static_cast<uint32_t>(n);
      std::memcpy(d.data(), &h, kHead);
      std::memcpy(d.data() + kHead, pcm.data() + c * chunk_bytes + off, n);
      datagrams.push_back(std::move(d));
    }
  }
  std::vector<struct mmsghdr> msgs(datagrams.size());
  std::vector<struct iovec> iov(datagrams.size());
  for (size_t i = 0; i < datagrams.size(); ++i) {
    iov[i] = {datagrams[i].data(), datagrams[i].size()};
    std::memset(&msgs[i], 0, sizeof(msgs[i]));
    msgs[i].msg_hdr.msg_iov = &iov[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
  }
  const size_t per_chunk = (chunk_bytes + kPayload - 1) / kPayload;

  double engine = 1e9, bare = 1e9;
  unsigned long allocs = 0;
  long calls = 0;
  for (int round = 0; round < kRounds; ++round) {
    ctrl.loss.rollingSampleDataSizeTotal = 0;
    calls = 0;
    am_alloc_count_start();
    double t0 = bench::thread_cpu_s();
    for (size_t c = 0; c < chunks; ++c) {
      uint8_t* chunk = pcm.data() + c * chunk_bytes;
      audio_channel_tags_write(chunk, chunk_bytes, f.channels, ctrl.pcm.bits_per_sample);
      calls += capture_send_chunk(&ctrl, chunk, chunk_bytes);
    }
    engine = std::min(engine, bench::thread_cpu_s() - t0);
    am_alloc_count_stop();
    allocs = am_alloc_count_of_thread();

    t0 = bench::thread_cpu_s();
    for (size_t c = 0; c < chunks; ++c) {  // per chunk, in sends of the engine's batch size
      for (size_t i = 0; i < per_chunk; i += kCaptureBatch) {
        const size_t n = std::min(kCaptureBatch, per_chunk - i);
        sendmmsg(net.tx, &msgs[c * per_chunk + i], static_cast<unsigned>(n), 0);
      }
    }
    bare = std::min(bare, bench::thread_cpu_s() - t0);
  }
  std::printf("%-16s %7zu datagrams in %6ld sends  engine %7.3f ms CPU per s of audio   bare sendmmsg %7.3f ms   "
              "ratio %.2f   allocations %.1f per s\n",
              f.name, datagrams.size(), calls, engine * 1000 / kSeconds, bare * 1000 / kSeconds,
              bare > 0 ? engine / bare : 0.0, static_cast<double>(allocs) / kSeconds);
}

}  // namespace

int main() {
  bench::stderr_to(bench::out_dir() + "/bench_sender_path.log");
  const Format formats[] = {{"2ch/48k/24-bit", 48000, 2, 240}, {"8ch/192k/24-bit", 192000, 8, 384}};
  for (const Format& f : formats) bench_format(f);
  return 0;
}
