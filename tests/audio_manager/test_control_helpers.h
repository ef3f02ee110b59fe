// Shared fixture of the command handler, bridge and report tests: a temporary board root with a
// recording codec program, the in-process I2C bus, a log recorder, the routing module started on
// a board, and the loopback peers (the two bridge services, the video processor, the scaler and
// cmd_core's report port) bound inside a private network namespace that the test thread enters
// for the duration of each test.
#pragma once

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "am_i2c_fake.h"
#include "am_log.h"
#include "am_test_env.h"
#include "qb_audio_aplay.h"
#include "qb_audio_main.h"
#include "qb_audio_misc.h"
#include "qb_audio_misc_bridge.h"
#include "qb_audio_oper_report.h"
#include "test_misc_helpers.h"

namespace control_test {

using Bytes = std::vector<uint8_t>;
using routing_test::LogRecorder;
using routing_test::make_record;

inline constexpr const char* kBus = "/dev/i2c-2";
inline constexpr uint16_t kFpga = 0x48;

// Loopback peers.
inline constexpr int kIt6620Port = 8380;
inline constexpr int kIt6621Port = 8382;
inline constexpr int kAvpPort = 9991;
inline constexpr int kMdinPort = 8370;
inline constexpr int kReportPort = 9995;

// How long a test waits for a datagram that must come, and for one that must not.
inline constexpr int kExpectMs = 2000;
inline constexpr int kQuietMs = 150;

// The codec program: records each call's arguments as one line.
inline constexpr const char* kCodecPath = "/customer/bin/audio_codec";
inline constexpr const char* kCodecArgsPath = "/tmp/codec.args";

// A private network namespace for the test thread, created once per process; the thread enters it
// with enter() and goes back to its own with leave().
class PrivateNet {
 public:
  static PrivateNet& get() {
    static PrivateNet net;
    return net;
  }
  bool ok() const { return ns_fd_ >= 0 && home_fd_ >= 0; }
  bool enter() const { return ok() && setns(ns_fd_, CLONE_NEWNET) == 0; }
  void leave() const {
    if (ok()) {
      (void)setns(home_fd_, CLONE_NEWNET);
    }
  }

 private:
  PrivateNet() {
    home_fd_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (home_fd_ < 0 || unshare(CLONE_NEWNET) != 0) {
      return;
    }
    ns_fd_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    loopback_up();
    (void)setns(home_fd_, CLONE_NEWNET);
  }
  static void loopback_up() {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
      return;
    }
    struct ifreq ifr;
    std::memset(&ifr, 0, sizeof ifr);
    std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    if (ioctl(fd, SIOCGIFFLAGS, &ifr) == 0) {
      ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
      (void)ioctl(fd, SIOCSIFFLAGS, &ifr);
    }
    close(fd);
  }
  int home_fd_ = -1;
  int ns_fd_ = -1;
};

// Little-endian 32-bit words as a payload.
inline Bytes words(std::initializer_list<uint32_t> values) {
  Bytes out;
  for (uint32_t v : values) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&v);
    out.insert(out.end(), p, p + 4);
  }
  return out;
}
inline Bytes le32(uint32_t v) { return words({v}); }
inline Bytes text_bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }
// A TLV message {outer: {key: value}} as the daemon sends it.
inline Bytes tlv_message(int32_t outer, int32_t key, const Bytes& value) {
  Bytes out = words({static_cast<uint32_t>(outer), static_cast<uint32_t>(8 + value.size()),
                     static_cast<uint32_t>(key), static_cast<uint32_t>(value.size())});
  out.insert(out.end(), value.begin(), value.end());
  return out;
}

using Handler = int (*)(const void*, int);
inline int call(Handler fn, const Bytes& payload) {
  return fn(payload.data(), static_cast<int>(payload.size()));
}

// Playback engine stop flags of network input channels 6, 7, 8.
inline void clear_aborts() {
  for (auto& c : qb_audio_aplay_ctrl_get()->pctrl) c.in_aborting = 0;
}
inline bool aborted(int ch) { return qb_audio_aplay_ctrl_get()->pctrl[ch - 6].in_aborting != 0; }

// A channel's stored record.
inline qb_audio_info record(int ch) {
  qb_audio_info r{};
  qb_audio_channel_state_copy(ch, &r);
  return r;
}

// The report text carried by a report datagram ("" when the datagram is not a report).
inline std::string report_text(const Bytes& d) {
  if (d.size() < 17) return "";
  int32_t outer = 0, inner = 0, inner_len = 0;
  std::memcpy(&outer, d.data(), 4);
  std::memcpy(&inner, d.data() + 8, 4);
  std::memcpy(&inner_len, d.data() + 12, 4);
  if (outer != QB_REPORT_OUTER_TYPE || inner != QB_REPORT_INNER_TYPE || inner_len < 1 ||
      static_cast<size_t>(inner_len) + 16 != d.size() || d.back() != 0) {
    return "";
  }
  return std::string(reinterpret_cast<const char*>(d.data() + 16), d.size() - 17);
}

class ControlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(root.ok());
    ASSERT_TRUE(root.write(kCodecPath, std::string("#!/bin/sh\necho \"$*\" >> ") +
                                           root.at(kCodecArgsPath) + "\n"));
    ASSERT_EQ(chmod(root.at(kCodecPath).c_str(), 0755), 0);
    audio_board_id_set(QB_BOARD_MODE_TR_A);
    qb_audio_misc_init();
    set_update_chs(0);
    if (getuid() != 0 || !PrivateNet::get().ok()) {
      GTEST_SKIP() << "needs root to give the test thread a network namespace of its own";
    }
    ASSERT_TRUE(PrivateNet::get().enter());
    entered_ = true;
    qb_report_socket_reset();
    for (int port : {kIt6620Port, kIt6621Port, kAvpPort, kMdinPort, kReportPort}) {
      peers_[port] = std::make_unique<am_test::UdpReceiver>(port);
      ASSERT_TRUE(peers_[port]->ok()) << port;
    }
    bus.clear_records();
    clear_aborts();
    log.clear();
  }

  void TearDown() override {
    clear_aborts();
    peers_.clear();
    qb_report_socket_reset();
    if (entered_) PrivateNet::get().leave();
    qb_audio_misc_uninit();
  }

  // The next datagram a peer received ("" bytes on time-out).
  Bytes next(int port, int timeout_ms = kExpectMs) {
    Bytes out;
    if (!peers_[port]->receive(&out, timeout_ms)) out.clear();
    return out;
  }
  // True when the peer receives nothing within the quiet time.
  bool quiet(int port) {
    Bytes out;
    return !peers_[port]->receive(&out, kQuietMs);
  }
  // The next report text.
  std::string next_report() { return report_text(next(kReportPort)); }

  // Lines of the codec program's calls so far.
  std::vector<std::string> codec_calls() const {
    std::vector<std::string> out;
    const std::string all = am_test::read_file(root.at(kCodecArgsPath));
    size_t start = 0;
    while (start < all.size()) {
      const size_t end = all.find('\n', start);
      out.push_back(all.substr(start, end - start));
      if (end == std::string::npos) break;
      start = end + 1;
    }
    return out;
  }

  // FPGA register writes as (register, value) pairs.
  am_test::I2cFake::RegWrites fpga_writes() const { return bus.writes(kBus, kFpga); }

  am_test::TempRoot root{{"dev", "tmp", "customer/bin"}};
  am_test::I2cFake bus;
  LogRecorder log;

 private:
  std::map<int, std::unique_ptr<am_test::UdpReceiver>> peers_;
  bool entered_ = false;
};

}  // namespace control_test
