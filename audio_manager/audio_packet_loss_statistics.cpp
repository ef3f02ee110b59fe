// Packet-loss statistics: records, the published file and the drop event.
#include "audio_packet_loss_statistics.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "am_log.h"
#include "am_platform.h"
#include "am_status_file.h"
#include "qb_tlv_box.h"

namespace {

// The module's state. The stream records are written by the receiver threads and read by the main
// loop: every access holds `lock`; the check copies a stream under the lock and sums the copy.
// The report socket is the main loop's alone: -1 until first used.
struct audio_loss_module_t {
  std::mutex lock;
  AUDIO_LOSS_INFO_T stAudioLossInfo[AUDIO_LOSS_STREAMS];
  int g_s32DropFd = -1;
  struct sockaddr_in g_reportaddr;
  std::atomic<qb_s64_t (*)(void)> clock_override{nullptr};
};

audio_loss_module_t g_loss;

// Mode of the lock file and of the published file.
constexpr mode_t kLossFileMode = 0777;
// Room for the file text: fixed parts plus six 20-digit numbers.
constexpr size_t kLossTextSize = 512;

// The lock on "/tmp/pktdrop.lock"; closing the descriptor releases it.
class CFileLock {
 public:
  CFileLock() = default;
  ~CFileLock() { close_fd(); }
  CFileLock(const CFileLock&) = delete;
  CFileLock& operator=(const CFileLock&) = delete;

  // Opens (creating) the lock file and takes the exclusive lock, waiting as long as needed.
  bool lock(const std::string& path) {
    fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kLossFileMode);
    if (fd < 0) {
      AM_LOG_ERROR("open %s err", path.c_str());
      AM_LOG_ERROR("fd = %d", fd);
      AM_LOG_ERROR("lock %s err", path.c_str());
      return false;
    }
    int rc;
    do {
      rc = flock(fd, LOCK_EX);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
      AM_LOG_ERROR("flock err");
      AM_LOG_ERROR("lock %s err", path.c_str());
      close_fd();
      return false;
    }
    return true;
  }

  void close_fd() {
    if (fd >= 0) {
      close(fd);
      fd = -1;
    }
  }

  int fd = -1;
};

// Sum of the losses of a stream in the window ending at `now`.
qb_u64_t window_bytes(const AUDIO_LOSS_INFO_T& info, qb_s64_t now) {
  qb_u64_t sum = 0;
  for (const LOSS_INFO_T& slot : info.stLostInfo) {
    if (slot.lossBytes > 0 && now - static_cast<qb_s64_t>(slot.lossTime) <= AUDIO_LOSS_WINDOW_SECONDS) {
      sum += static_cast<qb_u64_t>(slot.lossBytes);
    }
  }
  return sum;
}

// Creates the report socket on first use. False when it cannot be created.
bool ensure_report_socket(void) {
  if (g_loss.g_s32DropFd >= 0) {
    return true;
  }
  g_loss.g_s32DropFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (g_loss.g_s32DropFd < 0) {
    AM_LOG_ERROR("Creat Async Report Socket Error!!!");
    return false;
  }
  g_loss.g_reportaddr = {};
  g_loss.g_reportaddr.sin_family = AF_INET;
  g_loss.g_reportaddr.sin_port = htons(QB_REPORT_PORT);  // cmd_core
  inet_pton(AF_INET, QB_REPORT_ADDRESS, &g_loss.g_reportaddr.sin_addr);
  return true;
}

// Sends one datagram to cmd_core; true when it went out whole.
bool send_report(const void* data, size_t len) {
  const ssize_t sent = sendto(g_loss.g_s32DropFd, data, len, 0,
                              reinterpret_cast<const struct sockaddr*>(&g_loss.g_reportaddr),
                              sizeof(g_loss.g_reportaddr));
  return sent == static_cast<ssize_t>(len);
}

}  // namespace

qb_s64_t time2(void) {
  qb_s64_t (*clock_fn)(void) = g_loss.clock_override.load();
  if (clock_fn != nullptr) {
    return clock_fn();
  }
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<qb_s64_t>(ts.tv_sec);
}

void audio_loss_set_clock(qb_s64_t (*clock_fn)(void)) { g_loss.clock_override.store(clock_fn); }

void audio_loss_info_reset(void) {
  std::lock_guard<std::mutex> lock(g_loss.lock);
  std::memset(g_loss.stAudioLossInfo, 0, sizeof(g_loss.stAudioLossInfo));
}

int audio_loss_info_get(int chn, AUDIO_LOSS_INFO_T* out) {
  if (chn < 0 || chn >= AUDIO_LOSS_STREAMS || out == nullptr) {
    return -1;
  }
  std::lock_guard<std::mutex> lock(g_loss.lock);
  *out = g_loss.stAudioLossInfo[chn];
  return 0;
}

int set_audio_loss_info(int chn, int bytes) {
  if (bytes < 0 || chn < 0 || chn >= AUDIO_LOSS_STREAMS) {
    AM_LOG_ERROR("invalid chn:%d bytes:%d", chn, bytes);
    return -1;
  }
  const qb_s64_t now = time2();
  std::lock_guard<std::mutex> lock(g_loss.lock);
  AUDIO_LOSS_INFO_T& info = g_loss.stAudioLossInfo[chn];
  bool matched = false;
  for (LOSS_INFO_T& slot : info.stLostInfo) {
    if (static_cast<qb_s64_t>(slot.lossTime) == now) {
      // a second's count stops at the largest 32-bit value instead of wrapping
      slot.lossBytes = (slot.lossBytes > INT_MAX - bytes) ? INT_MAX : slot.lossBytes + bytes;
      matched = true;
    }
  }
  if (!matched) {
    LOSS_INFO_T& slot = info.stLostInfo[info.idx];
    slot.lossTime = static_cast<time_t>(now);
    slot.lossBytes = bytes;
    info.idx = (info.idx + 1) % AUDIO_LOSS_SECONDS;
  }
  info.lossBytesTotal += static_cast<qb_u64_t>(bytes);
  return 0;
}

int check_drop_status(void) {
  const qb_s64_t now = time2();
  struct stat st;
  const bool file_exists = stat(am_path(AUDIO_LOSS_FILE).c_str(), &st) == 0;

  qb_u64_t in10[AUDIO_LOSS_STREAMS];
  qb_u64_t total[AUDIO_LOSS_STREAMS];
  bool any_loss = false;
  for (int i = 0; i < AUDIO_LOSS_STREAMS; ++i) {
    AUDIO_LOSS_INFO_T info;
    (void)audio_loss_info_get(i, &info);  // copied under the lock, summed outside it
    in10[i] = window_bytes(info, now);
    total[i] = info.lossBytesTotal;
    any_loss = any_loss || in10[i] != 0;
  }
  if (file_exists && !any_loss) {
    return 0;
  }
  char text[kLossTextSize];
  const int len = std::snprintf(
      text, sizeof(text),
      "{\"audioDropInfo\":{\"stream0\":{\"bytesDropIn10\":%" PRIu64 ",\"bytesDropTotal\":%" PRIu64
      "},\"stream1\":{\"bytesDropIn10\":%" PRIu64 ",\"bytesDropTotal\":%" PRIu64
      "},\"stream2\":{\"bytesDropIn10\":%" PRIu64 ",\"bytesDropTotal\":%" PRIu64 "}}}",
      in10[0], total[0], in10[1], total[1], in10[2], total[2]);
  if (len < 0 || static_cast<size_t>(len) >= sizeof(text)) {
    return 0;
  }
  return (write_file(text) == 0 && any_loss) ? 1 : 0;
}

int write_file(const char* text) {
  if (text == nullptr) {
    return -1;
  }
  CFileLock file_lock;
  if (!file_lock.lock(am_path(AUDIO_LOSS_LOCK_FILE))) {
    return -1;
  }
  // A reader sees the old statistics or the new ones, whole; a full disk keeps the old file.
  return am_status_file_replace(AUDIO_LOSS_FILE, AUDIO_LOSS_TMP_FILE, text, std::strlen(text),
                                kLossFileMode);  // the lock is released when file_lock closes
}

std::string get_audio_drop_event(void) {
  char text[160];
  std::snprintf(text, sizeof(text),
                "{\"eventType\":\"DETAILS_CHANGED\",\"timeStamp\":%lld,\"requestUrl\":\"/api/v1/"
                "details/audio/pktDrop\"}",
                static_cast<long long>(time(nullptr)));
  return text;
}

int report_audio_drop_msg(const char* text) {
  if (text == nullptr || text[0] == '\0' || !ensure_report_socket()) {
    return 0;
  }
  AM_LOG_INFO("Send Msg To cmd_core port:[%d]-[%s]", QB_REPORT_PORT, text);
  tlv_box_t* inner = tlv_box_create();
  tlv_box_t* outer = tlv_box_create();
  bool serialized = false;
  if (inner != nullptr && outer != nullptr) {
    serialized = tlv_box_put_string(inner, AUDIO_LOSS_EVENT_TYPE, text) == 0 &&
                 tlv_box_serialize(inner) == 0 &&
                 tlv_box_put_object(outer, AUDIO_LOSS_EVENT_OUTER_TYPE, inner) == 0 &&
                 tlv_box_serialize(outer) == 0;
  }
  // a message that cannot be built goes out empty
  const bool sent =
      serialized ? send_report(tlv_box_get_buffer(outer), static_cast<size_t>(tlv_box_get_size(outer)))
                 : send_report("", 0);
  tlv_box_destroy(inner);  // either may be null
  tlv_box_destroy(outer);
  return sent ? 1 : 0;
}

void audio_loss_proc(void) {
  for (;;) {
    if (check_drop_status() >= 1) {
      (void)report_audio_drop_msg(get_audio_drop_event().c_str());
      AM_LOG_INFO("report audio drop event");
    }
    unsigned left = AUDIO_LOSS_CHECK_PERIOD_S;
    while (left > 0) {
      left = sleep(left);  // a signal cuts a sleep short; the rest is slept after it
    }
  }
}

int dump_audio_loss_info(void) { return 0; }
