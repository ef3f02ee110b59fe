// Helpers of the amctl tests: running the tool in-process and building expected datagrams.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../../tools/amctl.h"

namespace amctl_test {

struct Run {
  int status = -1;
  std::string out;
  std::string err;
};

// amctl_main with the given words after the program name; stdout and stderr captured.
inline Run run_amctl(const std::vector<std::string>& words) {
  std::vector<std::string> storage = {"amctl"};
  storage.insert(storage.end(), words.begin(), words.end());
  std::vector<char*> argv;
  for (std::string& w : storage) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  Run r;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  r.status = amctl_main(static_cast<int>(storage.size()), argv.data());
  fflush(stdout);
  r.err = testing::internal::GetCapturedStderr();
  r.out = testing::internal::GetCapturedStdout();
  return r;
}

// The local port a bound socket got.
inline int bound_port(int fd) {
  sockaddr_in addr{};
  socklen_t len = sizeof addr;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) return -1;
  return ntohs(addr.sin_port);
}

// Little-endian 32-bit words and raw bytes, appended in order.
class Bytes {
 public:
  Bytes& u32(uint32_t v) {
    for (int i = 0; i < 4; ++i) b_.push_back(static_cast<uint8_t>(v >> (8 * i)));
    return *this;
  }
  Bytes& raw(std::initializer_list<uint8_t> bytes) {
    b_.insert(b_.end(), bytes.begin(), bytes.end());
    return *this;
  }
  // Text in a field of `width` bytes, zero-padded (the terminating NUL included when it fits).
  Bytes& text(const std::string& t, size_t width) {
    for (size_t i = 0; i < width; ++i) b_.push_back(i < t.size() ? static_cast<uint8_t>(t[i]) : 0);
    return *this;
  }
  const std::vector<uint8_t>& get() const { return b_; }

 private:
  std::vector<uint8_t> b_;
};

// A command message: outer type 2 and length 8 + n, inner operation (low half) and command id
// (high half) of the type, length n, payload.
inline std::vector<uint8_t> command_message(uint16_t id, uint16_t op, const std::vector<uint8_t>& payload) {
  std::vector<uint8_t> m;
  Bytes head;
  head.u32(2).u32(static_cast<uint32_t>(8 + payload.size()));
  head.raw({static_cast<uint8_t>(op), static_cast<uint8_t>(op >> 8), static_cast<uint8_t>(id),
            static_cast<uint8_t>(id >> 8)});
  head.u32(static_cast<uint32_t>(payload.size()));
  m = head.get();
  m.insert(m.end(), payload.begin(), payload.end());
  return m;
}

}  // namespace amctl_test
