// Command line of netrelay.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "netrelay_plan.h"

namespace netrelay {

inline constexpr uint16_t kDefaultPort = 59300;  // the network audio port
inline constexpr size_t kMaxGroups = 8;
inline constexpr size_t kMaxOutputs = 4;

// An interface named either by its name or by one of its local IPv4 addresses.
struct Endpoint {
  std::string ifname;
  std::string addr;
  bool set() const { return !ifname.empty() || !addr.empty(); }
};

struct Options {
  std::string groups[kMaxGroups];
  size_t group_count = 0;
  uint16_t port = kDefaultPort;
  Endpoint in;
  Endpoint out[kMaxOutputs];
  size_t out_count = 0;
  int ttl = 1;
  Plan plan;
  size_t corrupt_offset = 0;
  size_t corrupt_length = 4;
  size_t truncate_to = 16;
  unsigned hold_ms = 100;   // a held (reordered) datagram goes out after this long without a successor
  uint64_t count = 0;       // stop after this many datagrams (0: no limit)
  double duration_s = 0.0;  // stop after this long (0: no limit)
  std::string ready_file;   // created once the relay listens
  bool trace = false;       // one line per datagram
};

// Fills opts from argv. Returns 0 on success, 1 when help was printed, -1 on a usage error
// (message in err).
int parse_options(int argc, char** argv, Options* opts, std::string* err);

void print_usage(const char* program);

}  // namespace netrelay
