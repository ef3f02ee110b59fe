// Measurements for scripts/demo (build/bin/demo_probe):
//
//   demo_probe clock BUS CHANNEL RATE
//       The clock adjustment, in ppm, of a genlock channel as the emulated Si5351 registers on
//       BUS (a board's /dev/i2c-1 register file) program it.
//   demo_probe verify --received FILE --rate HZ --channels N --size 16|24
//                     [--cap-timelog FILE --play-timelog FILE] [--rough-ms MS]
//       Checks what the receiver's playback card played against the transmitter's test pattern
//       (every sample: channel number in the top bits, capture frame counter below) and, from
//       the two cards' time logs, the capture-to-playout latency. Prints a human summary and one
//       "VERIFY key=value ..." line.
//
// With 32-bit samples the network carries a channel tag in byte 3 of every sample, so only the
// 24-bit value (the low three bytes) is compared.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" {
#include "amsim.h"
}

namespace {

// Test pattern of the virtual card: channel number above the frame counter.
constexpr unsigned kPatternBitsS16 = 13;
constexpr unsigned kPatternBitsS24 = 21;
// Latency is measured at this many points of the received audio.
constexpr int kLatencyPoints = 64;

struct TimePoint {
  uint64_t pos;
  int64_t ns;
};

struct Args {
  std::string received, cap_timelog, play_timelog;
  long rate = 48000;
  int channels = 2;
  int size = 24;
  double rough_ms = -1;
};

std::vector<TimePoint> read_timelog(const std::string& path) {
  std::vector<TimePoint> points;
  std::ifstream in(path);
  unsigned long long pos = 0;
  long long ns = 0;
  while (in >> pos >> ns) points.push_back({pos, ns});
  return points;
}

// Time at which a card's position reached `pos`; false outside the log. A position logged twice
// (stop, then start again after an xrun) takes the later time.
bool time_of(const std::vector<TimePoint>& log, double pos, double* ns) {
  if (log.size() < 2 || pos < static_cast<double>(log.front().pos) ||
      pos > static_cast<double>(log.back().pos)) {
    return false;
  }
  size_t a = 0;
  for (size_t i = 0; i < log.size(); ++i) {
    if (static_cast<double>(log[i].pos) <= pos) a = i;
  }
  size_t b = a + 1;
  if (b >= log.size()) {
    *ns = static_cast<double>(log[a].ns);
    return true;
  }
  const double span = static_cast<double>(log[b].pos - log[a].pos);
  const double f = span > 0 ? (pos - static_cast<double>(log[a].pos)) / span : 0.0;
  *ns = static_cast<double>(log[a].ns) + f * static_cast<double>(log[b].ns - log[a].ns);
  return true;
}

uint32_t sample_at(const std::vector<uint8_t>& data, size_t offset, int bytes) {
  if (bytes == 2) return static_cast<uint32_t>(data[offset] | (data[offset + 1] << 8));
  return static_cast<uint32_t>(data[offset] | (data[offset + 1] << 8) | (data[offset + 2] << 16));
}

int verify(const Args& a) {
  std::ifstream in(a.received, std::ios::binary);
  std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const int bytes = a.size == 16 ? 2 : 4;
  const size_t frame_bytes = static_cast<size_t>(a.channels * bytes);
  const size_t frames = data.size() / frame_bytes;
  const unsigned bits = a.size == 16 ? kPatternBitsS16 : kPatternBitsS24;
  const uint32_t mask = (1u << bits) - 1u;

  size_t first = frames;
  for (size_t j = 0; j < frames && first == frames; ++j) {
    for (int c = 0; c < a.channels; ++c) {
      if (sample_at(data, j * frame_bytes + static_cast<size_t>(c * bytes), bytes) != 0) first = j;
    }
  }
  if (first == frames) {
    std::printf("received audio       : none (%zu frames of silence)\n", frames);
    std::printf("VERIFY frames=0 seconds=0 bitexact=0 silenced=0 skips=0 skipped=0 corrupt=0 latency_ms=-1\n");
    return 1;
  }
  // Channel 1's value is never 0, so it names the frame counter even where channel 0 reads 0.
  auto counter_of = [&](size_t j) {
    return sample_at(data, j * frame_bytes + static_cast<size_t>(bytes), bytes) & mask;
  };
  // True when every sample of frame j is the pattern for counter idx.
  auto frame_is = [&](size_t j, uint32_t idx) {
    for (int c = 0; c < a.channels; ++c) {
      if (sample_at(data, j * frame_bytes + static_cast<size_t>(c * bytes), bytes) !=
          ((static_cast<uint32_t>(c) << bits) | idx)) {
        return false;
      }
    }
    return true;
  };
  uint64_t silenced = 0, corrupt = 0, skips = 0, skipped = 0;
  uint32_t expected = counter_of(first);
  for (size_t j = first; j < frames; ++j, expected = (expected + 1) & mask) {
    if (frame_is(j, expected)) continue;
    const uint32_t idx = counter_of(j);
    if (idx != 0 && frame_is(j, idx)) {
      // The stream jumped: frames between the expected counter and this one never arrived.
      ++skips;
      skipped += (idx - expected) & mask;
      expected = idx;
      continue;
    }
    // Zero samples where the pattern has a value: a gap bridged with silence.
    bool only_zeros = true;
    for (int c = 0; c < a.channels; ++c) {
      const uint32_t got = sample_at(data, j * frame_bytes + static_cast<size_t>(c * bytes), bytes);
      const uint32_t want = (static_cast<uint32_t>(c) << bits) | expected;
      if (got == want) continue;
      if (got == 0) ++silenced;
      else only_zeros = false;
    }
    if (!only_zeros) ++corrupt;
  }
  const size_t audio_frames = frames - first;
  const bool exact = silenced == 0 && corrupt == 0 && skips == 0;
  std::printf("received audio       : %.2f s (%zu frames after %.1f ms of leading silence)\n",
              static_cast<double>(audio_frames) / static_cast<double>(a.rate), audio_frames,
              1000.0 * static_cast<double>(first) / static_cast<double>(a.rate));
  if (exact) {
    std::printf("bit-exact            : yes, every sample equals the transmitted test signal\n");
  } else {
    std::printf("bit-exact            : no: %llu samples bridged with silence, %llu frames skipped in %llu jumps,"
                " %llu frames differ\n",
                static_cast<unsigned long long>(silenced), static_cast<unsigned long long>(skipped),
                static_cast<unsigned long long>(skips), static_cast<unsigned long long>(corrupt));
  }

  // Latency: frame j of the played file was played when the playback card reached position j;
  // it was captured when the capture card reached the counter it carries (unwrapped).
  double latency_ms = -1, lat_min = 0, lat_max = 0;
  const std::vector<TimePoint> cap = read_timelog(a.cap_timelog);
  const std::vector<TimePoint> play = read_timelog(a.play_timelog);
  if (cap.size() >= 2 && play.size() >= 2) {
    const double wrap = static_cast<double>(mask) + 1.0;
    const double wrap_ms = 1000.0 * wrap / static_cast<double>(a.rate);
    std::vector<double> lat;
    for (int k = 0; k < kLatencyPoints; ++k) {
      const size_t j = first + audio_frames / 5 + static_cast<size_t>(k) * (audio_frames * 4 / 5) / kLatencyPoints;
      if (j >= frames) break;
      double t_play = 0;
      if (!frame_is(j, counter_of(j)) || !time_of(play, static_cast<double>(j), &t_play)) continue;
      const double idx = static_cast<double>(counter_of(j));
      double best = -1;
      for (double c = idx; c <= static_cast<double>(cap.back().pos); c += wrap) {
        double t_cap = 0;
        if (!time_of(cap, c, &t_cap)) continue;
        const double ms = (t_play - t_cap) / 1e6;
        if (ms < 0) continue;
        const bool better = best < 0 || (a.rough_ms >= 0 ? std::fabs(ms - a.rough_ms) < std::fabs(best - a.rough_ms)
                                                          : ms < best);
        if (better) best = ms;
      }
      if (best >= 0) lat.push_back(best);
    }
    if (!lat.empty()) {
      std::sort(lat.begin(), lat.end());
      latency_ms = lat[lat.size() / 2];
      lat_min = lat.front();
      lat_max = lat.back();
      std::printf("latency              : %.1f ms capture to playout (median of %zu points, %.1f-%.1f)%s\n",
                  latency_ms, lat.size(), lat_min, lat_max,
                  a.rough_ms < 0 && wrap_ms < 1000 ? " (pattern repeats every short period)" : "");
    }
  }
  if (latency_ms < 0) std::printf("latency              : not measured\n");
  std::printf("VERIFY frames=%zu seconds=%.2f bitexact=%d silenced=%llu skips=%llu skipped=%llu corrupt=%llu"
              " latency_ms=%.1f\n",
              audio_frames, static_cast<double>(audio_frames) / static_cast<double>(a.rate), exact ? 1 : 0,
              static_cast<unsigned long long>(silenced), static_cast<unsigned long long>(skips),
              static_cast<unsigned long long>(skipped), static_cast<unsigned long long>(corrupt), latency_ms);
  return 0;
}

int usage() {
  std::fprintf(stderr,
               "usage: demo_probe clock BUS CHANNEL RATE\n"
               "       demo_probe verify --received FILE --rate HZ --channels N --size 16|24\n"
               "                         [--cap-timelog FILE --play-timelog FILE] [--rough-ms MS]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 5 && std::strcmp(argv[1], "clock") == 0) {
    const double factor = amsim_si5351_read_factor(argv[2], std::atoi(argv[3]),
                                                   static_cast<unsigned>(std::atol(argv[4])));
    std::printf("%.2f\n", (factor - 1.0) * 1e6);
    return 0;
  }
  if (argc < 2 || std::strcmp(argv[1], "verify") != 0) return usage();
  Args a;
  for (int i = 2; i + 1 < argc; i += 2) {
    const std::string k = argv[i];
    const char* v = argv[i + 1];
    if (k == "--received") a.received = v;
    else if (k == "--rate") a.rate = std::atol(v);
    else if (k == "--channels") a.channels = std::atoi(v);
    else if (k == "--size") a.size = std::atoi(v);
    else if (k == "--cap-timelog") a.cap_timelog = v;
    else if (k == "--play-timelog") a.play_timelog = v;
    else if (k == "--rough-ms") a.rough_ms = std::atof(v);
    else return usage();
  }
  if (a.received.empty() || a.rate <= 0 || a.channels < 2 || (a.size != 16 && a.size != 24)) return usage();
  return verify(a);
}
