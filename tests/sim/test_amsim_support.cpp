// Shared helpers of the virtual sound card tests.
#include "test_amsim_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <fstream>

#include "am_test_paths.h"

namespace amsim_test {

void AmsimEnv::SetUp() {
  root_ = std::make_unique<am_test::TempRoot>(std::vector<std::string>{"tmp/amsim", "dev"});
  ASSERT_TRUE(root_->ok());
  set_env("HOME", root_->path());
  set_env("ALSA_CONFIG_PATH",
          std::string("/usr/share/alsa/alsa.conf:") + am_test::kLibDir + "/asound.conf");
}

void AmsimEnv::TearDown() {
  for (auto it = saved_env_.rbegin(); it != saved_env_.rend(); ++it) {
    if (it->second) {
      setenv(it->first.c_str(), it->second->c_str(), 1);
    } else {
      unsetenv(it->first.c_str());
    }
  }
  root_.reset();
}

void AmsimEnv::set_env(const std::string& name, const std::string& value) {
  const char* old = getenv(name.c_str());
  saved_env_.emplace_back(name, old != nullptr ? std::make_unique<std::string>(old) : nullptr);
  setenv(name.c_str(), value.c_str(), 1);
}

size_t PcmSetup::frame_bytes() const {
  return channels * static_cast<size_t>(snd_pcm_format_physical_width(format)) / 8;
}

snd_pcm_t* open_pcm(const char* name, snd_pcm_stream_t stream, const PcmSetup& s) {
  snd_pcm_t* pcm = nullptr;
  int err = snd_pcm_open(&pcm, name, stream, s.nonblock ? SND_PCM_NONBLOCK : 0);
  EXPECT_EQ(err, 0) << name << ": " << snd_strerror(err);
  if (err < 0) return nullptr;
  snd_pcm_hw_params_t* hw;
  snd_pcm_hw_params_alloca(&hw);
  unsigned int rate = s.rate, period = s.period_us, buffer = s.buffer_us;
  int dir = 0;
  snd_pcm_uframes_t buffer_frames = 0;
  bool ok = snd_pcm_hw_params_any(pcm, hw) >= 0 &&
            snd_pcm_hw_params_set_access(pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED) >= 0 &&
            snd_pcm_hw_params_set_format(pcm, hw, s.format) >= 0 &&
            snd_pcm_hw_params_set_channels(pcm, hw, s.channels) >= 0 &&
            snd_pcm_hw_params_set_rate_near(pcm, hw, &rate, &dir) >= 0 &&
            snd_pcm_hw_params_set_period_time_near(pcm, hw, &period, &(dir = 0)) >= 0 &&
            snd_pcm_hw_params_set_buffer_time_near(pcm, hw, &buffer, &(dir = 0)) >= 0 &&
            snd_pcm_hw_params(pcm, hw) >= 0 &&
            snd_pcm_hw_params_get_buffer_size(hw, &buffer_frames) >= 0;
  snd_pcm_sw_params_t* sw;
  snd_pcm_sw_params_alloca(&sw);
  ok = ok && snd_pcm_sw_params_current(pcm, sw) >= 0 &&
       snd_pcm_sw_params_set_start_threshold(pcm, sw, s.start_threshold) >= 0 &&
       snd_pcm_sw_params_set_stop_threshold(pcm, sw, buffer_frames) >= 0 &&
       snd_pcm_sw_params_set_tstamp_mode(pcm, sw, SND_PCM_TSTAMP_ENABLE) >= 0 &&
       snd_pcm_sw_params_set_tstamp_type(pcm, sw, SND_PCM_TSTAMP_TYPE_MONOTONIC) >= 0 &&
       snd_pcm_sw_params(pcm, sw) >= 0 && snd_pcm_prepare(pcm) >= 0;
  EXPECT_TRUE(ok) << "set-up of " << name << " failed";
  if (!ok) {
    snd_pcm_close(pcm);
    return nullptr;
  }
  return pcm;
}

int64_t now_ns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return to_ns(ts);
}

int64_t to_ns(const snd_htimestamp_t& ts) {
  return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

int open_fd_count() {
  int n = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  while (dirent* e = readdir(dir)) n += e->d_name[0] != '.' ? 1 : 0;
  closedir(dir);
  return n - 1;  // the directory stream itself
}

bool write_file(const std::string& path, const void* data, size_t len, long offset) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0644);
  if (fd < 0) return false;
  bool ok = pwrite(fd, data, len, offset) == static_cast<ssize_t>(len);
  close(fd);
  return ok;
}

std::vector<std::pair<long long, long long>> read_timelog(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::pair<long long, long long>> lines;
  long long pos = 0, ns = 0;
  while (in >> pos >> ns) lines.emplace_back(pos, ns);
  return lines;
}

long write_all(snd_pcm_t* pcm, const uint8_t* data, size_t frames, size_t frame_size) {
  static const std::vector<uint8_t> silence(65536, 0);
  size_t done = 0;
  while (done < frames) {
    size_t chunk = frames - done;
    if (data == nullptr && chunk * frame_size > silence.size()) chunk = silence.size() / frame_size;
    const uint8_t* p = data != nullptr ? data + done * frame_size : silence.data();
    snd_pcm_sframes_t n = snd_pcm_writei(pcm, p, chunk);
    if (n < 0) return n;
    done += static_cast<size_t>(n);
  }
  return static_cast<long>(done);
}

long read_all(snd_pcm_t* pcm, uint8_t* data, size_t frames, size_t frame_size) {
  size_t done = 0;
  while (done < frames) {
    snd_pcm_sframes_t n = snd_pcm_readi(pcm, data + done * frame_size, frames - done);
    if (n < 0) return n;
    done += static_cast<size_t>(n);
  }
  return static_cast<long>(done);
}

}  // namespace amsim_test
