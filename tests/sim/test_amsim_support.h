// Shared helpers of the virtual sound card tests: a private ALSA environment and PCM set-up.
#pragma once

#include <alsa/asoundlib.h>

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace amsim_test {

// A private HOME and board root, the built card configuration, no leftover AMSIM_* settings.
class AmsimEnv : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Host path of a board path ("/tmp/amsim/play1.raw" -> "<root>/tmp/amsim/play1.raw").
  std::string board(const std::string& path) const { return root_ + path; }
  // Sets an environment variable for the duration of the test.
  void set_env(const std::string& name, const std::string& value);

  std::string root_;

 private:
  std::vector<std::string> env_set_;
};

struct PcmSetup {
  snd_pcm_format_t format = SND_PCM_FORMAT_S24_LE;
  unsigned int channels = 2;
  unsigned int rate = 48000;
  unsigned int period_us = 5000;
  unsigned int buffer_us = 200000;
  snd_pcm_uframes_t start_threshold = 1;
  bool nonblock = false;
};

// Opens and configures a PCM; returns nullptr (with a test failure) when that fails.
snd_pcm_t* open_pcm(const char* name, snd_pcm_stream_t stream, const PcmSetup& setup);

int64_t now_ns();
int64_t to_ns(const snd_htimestamp_t& ts);
size_t frame_bytes(const PcmSetup& setup);
// Number of open file descriptors of this process.
int open_fd_count();
std::vector<uint8_t> read_file(const std::string& path);
bool write_file(const std::string& path, const void* data, size_t len, long offset = 0);

// Writes frames from data (or silence when data is null) until all are written; returns the
// first error, or the number of frames written.
long write_all(snd_pcm_t* pcm, const uint8_t* data, size_t frames, size_t frame_size);

}  // namespace amsim_test
