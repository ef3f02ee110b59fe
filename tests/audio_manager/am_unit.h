// Shared pieces of the daemon's unit tests: a log recorder, channel records, a routing fixture
// (temporary board root, I2C bus, routing module on a board) and a control fixture that adds the
// loopback peers inside a private network namespace the test thread enters for each test.
#pragma once

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "am_i2c_fake.h"
#include "am_log.h"
#include "am_test_env.h"
#include "qb_audio_aplay.h"
#include "qb_audio_main.h"
#include "qb_audio_misc.h"
#include "qb_audio_misc_bridge.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_oper_report.h"

namespace am_unit {

using Bytes = std::vector<uint8_t>;
using Writes = am_test::I2cFake::RegWrites;
inline constexpr const char* kBus = "/dev/i2c-2";
inline constexpr uint16_t kFpga = 0x48;

// Every log line, without its " --[file:line]" ending.
class Log {
 public:
  Log() { am_log_set_observer(&Log::observe, this); }
  ~Log() { am_log_set_observer(nullptr, nullptr); }
  // How many lines read `text` (all lines when it is null).
  int count(const char* text = nullptr) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(text == nullptr ? lines_.size() : std::count(lines_.begin(), lines_.end(), text));
  }

 private:
  static void observe(int, const char* message, void* ctx) {
    auto* self = static_cast<Log*>(ctx);
    const std::string text(message);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->lines_.push_back(text.substr(0, text.rfind(" --[")));
  }
  mutable std::mutex mutex_;  // workers may log while a test reads
  std::vector<std::string> lines_;
};

// A record with the given format fields; the rest as the daemon builds them.
inline qb_audio_info make_record(int sf, int ch, int type, int bspdif = 0) {
  qb_audio_info r{};
  r.Audio_On = 1, r.SampleSize = 24, r.io_in_use = 2;
  r.SampleFrequency = static_cast<qb_s8_t>(sf), r.ValidCh = static_cast<qb_s8_t>(ch);
  r.Audio_Type = static_cast<qb_s8_t>(type), r.bSPDIF = static_cast<qb_s8_t>(bspdif);
  return r;
}
inline qb_audio_info record(int ch) {
  qb_audio_info r{};
  qb_audio_channel_state_copy(ch, &r);
  return r;
}
inline bool same(const qb_audio_info& a, const qb_audio_info& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// One bus transfer, compactly: "R 52" (read of 0x52) or "W 52=bf".
inline std::vector<std::string> transfers(const am_test::I2cFake& bus) {
  std::vector<std::string> out;
  for (const am_test::I2cRecord& r : bus.records()) {
    char buf[32];
    if (r.is_read) std::snprintf(buf, sizeof buf, "R %02x", r.reg);
    else std::snprintf(buf, sizeof buf, "W %02x=%02x", r.reg, r.bytes.empty() ? 0 : r.bytes[0]);
    out.push_back(buf);
  }
  return out;
}

// Stop flags of the playback (network input channels 6, 7, 8) and capture engines.
inline void clear_aborts() {
  for (auto& c : qb_audio_aplay_ctrl_get()->pctrl) c.in_aborting = 0;
  for (auto& c : qb_audio_aplay_ctrl_get()->cctrl) c.in_aborting = 0;
}
inline bool aborted(int ch) { return qb_audio_aplay_ctrl_get()->pctrl[ch - 6].in_aborting != 0; }
inline int capture_abort(int i) { return qb_audio_aplay_ctrl_get()->cctrl[i].in_aborting.load(); }

// Little-endian 32-bit words as a payload.
inline Bytes words(std::initializer_list<uint32_t> values) {
  Bytes out;
  for (uint32_t v : values)
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
  return out;
}
inline Bytes le32(uint32_t v) { return words({v}); }
inline Bytes text_bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }
// A channel-information payload: the channel number, then its record.
inline Bytes channel_note(uint32_t ch, const qb_audio_info& r) {
  Bytes out = le32(ch);
  return out.insert(out.end(), reinterpret_cast<const uint8_t*>(&r), reinterpret_cast<const uint8_t*>(&r) + sizeof r), out;
}
// A TLV message {outer: {key: value}} as the daemon sends it.
inline Bytes tlv_message(int32_t outer, int32_t key, const Bytes& value) {
  Bytes out = words({static_cast<uint32_t>(outer), static_cast<uint32_t>(8 + value.size()),
                     static_cast<uint32_t>(key), static_cast<uint32_t>(value.size())});
  out.insert(out.end(), value.begin(), value.end());
  return out;
}
using Handler = int (*)(const void*, int);
inline int call(Handler fn, const Bytes& p) { return fn(p.data(), static_cast<int>(p.size())); }

// The routing module started on a chosen board of a temporary root.
class RoutingTest : public ::testing::Test {
 protected:
  void SetUp() override { start(1); }
  void TearDown() override { qb_audio_misc_uninit(); }
  void start(int board) {
    audio_board_id_set(board);
    qb_audio_misc_init();
    bus.clear_records();
  }
  Writes fpga_writes() const { return bus.writes(kBus, kFpga); }

  am_test::TempRoot root{{"dev", "tmp", "customer/bin"}};
  am_test::I2cFake bus;
};

// A private network namespace for the test thread, created once per process.
class PrivateNet {
 public:
  static PrivateNet& get() {
    static PrivateNet net;
    return net;
  }
  bool ok() const { return ns_fd_ >= 0 && home_fd_ >= 0; }
  bool enter() const { return ok() && setns(ns_fd_, CLONE_NEWNET) == 0; }
  void leave() const {
    if (ok()) (void)setns(home_fd_, CLONE_NEWNET);
  }

 private:
  PrivateNet() {
    home_fd_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (home_fd_ < 0 || unshare(CLONE_NEWNET) != 0) return;
    ns_fd_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq ifr {};
    std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    if (fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &ifr) == 0) {
      ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
      (void)ioctl(fd, SIOCSIFFLAGS, &ifr);
    }
    if (fd >= 0) close(fd);
    (void)setns(home_fd_, CLONE_NEWNET);
  }
  int home_fd_ = -1;
  int ns_fd_ = -1;
};

// Loopback peers and how long a test waits for a datagram that must (not) come.
inline constexpr int kIt6620Port = 8380;
inline constexpr int kIt6621Port = 8382;
inline constexpr int kAvpPort = 9991;
inline constexpr int kMdinPort = 8370;
inline constexpr int kReportPort = 9995;
inline constexpr int kExpectMs = 2000;
inline constexpr int kQuietMs = 150;
inline constexpr const char* kCodecPath = "/customer/bin/audio_codec";
inline constexpr const char* kCodecArgsPath = "/tmp/codec.args";

// The report text carried by a report datagram ("" when the datagram is not a report).
inline std::string report_text(const Bytes& d) {
  if (d.size() < 17) return "";
  int32_t head[4];
  std::memcpy(head, d.data(), sizeof head);
  if (head[0] != QB_REPORT_OUTER_TYPE || head[2] != QB_REPORT_INNER_TYPE || head[3] < 1 ||
      static_cast<size_t>(head[3]) + 16 != d.size() || d.back() != 0) {
    return "";
  }
  return std::string(reinterpret_cast<const char*>(d.data() + 16), d.size() - 17);
}

// Routing on a TR-A board, a recording codec program and the loopback peers.
class ControlTest : public RoutingTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(root.write(kCodecPath, std::string("#!/bin/sh\necho \"$*\" >> ") + root.at(kCodecArgsPath) + "\n"));
    ASSERT_EQ(chmod(root.at(kCodecPath).c_str(), 0755), 0);
    start(QB_BOARD_MODE_TR_A);
    set_update_chs(0);
    if (getuid() != 0 || !PrivateNet::get().ok()) GTEST_SKIP() << "needs root for a private network namespace";
    ASSERT_TRUE(PrivateNet::get().enter());
    entered_ = true;
    qb_report_socket_reset();
    for (int port : {kIt6620Port, kIt6621Port, kAvpPort, kMdinPort, kReportPort}) ASSERT_TRUE((peers_[port] = std::make_unique<am_test::UdpReceiver>(port))->ok()) << port;
    bus.clear_records();
    clear_aborts();
  }
  void TearDown() override {
    clear_aborts();
    peers_.clear();
    qb_report_socket_reset();
    if (entered_) PrivateNet::get().leave();
    RoutingTest::TearDown();
  }
  Bytes next(int port, int timeout_ms = kExpectMs) {
    Bytes out;
    return peers_[port]->receive(&out, timeout_ms) ? out : Bytes{};
  }
  bool quiet(int port) {
    Bytes out;
    return !peers_[port]->receive(&out, kQuietMs);
  }
  std::string next_report() { return report_text(next(kReportPort)); }

 private:
  std::map<int, std::unique_ptr<am_test::UdpReceiver>> peers_;
  bool entered_ = false;
};

}  // namespace am_unit
