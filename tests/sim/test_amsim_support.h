// Shared helpers of the virtual sound card tests: a private ALSA environment and PCM set-up.
#pragma once

#include <alsa/asoundlib.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "am_test_env.h"

namespace amsim_test {

// A private HOME and board root, the built card configuration; the environment as it was after.
class AmsimEnv : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Host path of a board path ("/tmp/amsim/play1.raw" -> "<root>/tmp/amsim/play1.raw").
  std::string board(const std::string& path) const { return root_->at(path); }
  // Sets an environment variable for the duration of the test.
  void set_env(const std::string& name, const std::string& value);

 private:
  std::unique_ptr<am_test::TempRoot> root_;
  std::vector<std::pair<std::string, std::unique_ptr<std::string>>> saved_env_;
};

struct PcmSetup {
  snd_pcm_format_t format = SND_PCM_FORMAT_S24_LE;
  unsigned int channels = 2;
  unsigned int rate = 48000;
  unsigned int period_us = 5000;
  unsigned int buffer_us = 200000;
  snd_pcm_uframes_t start_threshold = 1;
  bool nonblock = false;
  size_t frame_bytes() const;
};

// Opens and configures a PCM; returns nullptr (with a test failure) when that fails.
snd_pcm_t* open_pcm(const char* name, snd_pcm_stream_t stream, const PcmSetup& setup);

int64_t now_ns();
int64_t to_ns(const snd_htimestamp_t& ts);
// Number of open file descriptors of this process.
int open_fd_count();
bool write_file(const std::string& path, const void* data, size_t len, long offset = 0);
// "<frame> <ns>" lines of a card's time log.
std::vector<std::pair<long long, long long>> read_timelog(const std::string& path);

// Writes frames from data (silence when null) / reads frames into data until all are moved;
// returns the first error or the number of frames moved.
long write_all(snd_pcm_t* pcm, const uint8_t* data, size_t frames, size_t frame_size);
long read_all(snd_pcm_t* pcm, uint8_t* data, size_t frames, size_t frame_size);

// A value read from the card with the monotonic time it was read at. A reading whose bracket
// of clock reads is wider than max_ns (the thread was preempted in between) is taken again.
struct Stamped {
  double ns;
  long value;
};
template <class Read>
Stamped stamped(Read read, int64_t max_ns = 100000) {
  for (int i = 0;; i++) {
    const int64_t before = now_ns();
    const long value = read();
    const int64_t after = now_ns();
    if (after - before <= max_ns || i == 1000) return {(before + after) / 2.0, value};
  }
}

}  // namespace amsim_test
