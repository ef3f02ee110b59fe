// netrelay: receives the multicast groups on one interface and sends every datagram on to the
// same group out of other interfaces, dropping, duplicating, reordering, corrupting or
// truncating the datagrams chosen on its command line. It stands in for an impaired network
// between simulated boards, where the kernel offers no way to impair traffic.
#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "netrelay_options.h"
#include "netrelay_plan.h"

namespace {

using netrelay::Options;

constexpr size_t kDatagramMax = 65536;    // largest UDP payload, with room to spare
constexpr int kRcvBufBytes = 4 << 20;     // absorbs bursts while the relay is descheduled
constexpr int kPollSliceMs = 100;         // signals and deadlines are looked at this often

volatile sig_atomic_t g_stop = 0;
volatile sig_atomic_t g_report = 0;

void on_stop(int) { g_stop = 1; }
void on_report(int) { g_report = 1; }

struct Counters {
  uint64_t received = 0;
  uint64_t forwarded = 0;
  uint64_t dropped = 0;
  uint64_t dropped_bytes = 0;  // whole datagrams, as they arrived
  uint64_t duplicated = 0;
  uint64_t reordered = 0;
  uint64_t reordered_bytes = 0;
  uint64_t corrupted = 0;
  uint64_t truncated = 0;
  uint64_t sent = 0;
  uint64_t send_errors = 0;
  uint64_t ignored = 0;  // not addressed to a multicast group
};

void print_counters(const Counters& c) {
  std::printf(
      "netrelay received=%llu forwarded=%llu dropped=%llu duplicated=%llu reordered=%llu "
      "corrupted=%llu truncated=%llu sent=%llu send_errors=%llu ignored=%llu dropped_bytes=%llu "
      "reordered_bytes=%llu\n",
      static_cast<unsigned long long>(c.received), static_cast<unsigned long long>(c.forwarded),
      static_cast<unsigned long long>(c.dropped), static_cast<unsigned long long>(c.duplicated),
      static_cast<unsigned long long>(c.reordered), static_cast<unsigned long long>(c.corrupted),
      static_cast<unsigned long long>(c.truncated), static_cast<unsigned long long>(c.sent),
      static_cast<unsigned long long>(c.send_errors), static_cast<unsigned long long>(c.ignored),
      static_cast<unsigned long long>(c.dropped_bytes), static_cast<unsigned long long>(c.reordered_bytes));
  std::fflush(stdout);
}

double now_s() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Closes its descriptor on every path.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  void reset(int fd) {
    if (fd_ >= 0) {
      close(fd_);
    }
    fd_ = fd;
  }
  int get() const { return fd_; }
  // Hands the descriptor over to the caller.
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

// An interface resolved to its index and name.
struct Iface {
  unsigned index = 0;
  char name[IF_NAMESIZE] = {};
};

bool resolve(const netrelay::Endpoint& e, Iface* out) {
  if (!e.ifname.empty()) {
    out->index = if_nametoindex(e.ifname.c_str());
    if (out->index == 0) {
      std::fprintf(stderr, "netrelay: no interface %s\n", e.ifname.c_str());
      return false;
    }
    std::snprintf(out->name, sizeof out->name, "%s", e.ifname.c_str());
    return true;
  }
  in_addr want{};
  inet_pton(AF_INET, e.addr.c_str(), &want);
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    std::perror("netrelay: getifaddrs");
    return false;
  }
  for (ifaddrs* i = list; i != nullptr; i = i->ifa_next) {
    if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) {
      continue;
    }
    const auto* sin = reinterpret_cast<const sockaddr_in*>(i->ifa_addr);
    if (sin->sin_addr.s_addr == want.s_addr) {
      std::snprintf(out->name, sizeof out->name, "%s", i->ifa_name);
      out->index = if_nametoindex(i->ifa_name);
      break;
    }
  }
  freeifaddrs(list);
  if (out->index == 0) {
    std::fprintf(stderr, "netrelay: no interface holds %s\n", e.addr.c_str());
    return false;
  }
  return true;
}

bool set_int(int fd, int level, int name, int value, const char* what) {
  if (setsockopt(fd, level, name, &value, sizeof value) != 0) {
    std::fprintf(stderr, "netrelay: %s: %s\n", what, std::strerror(errno));
    return false;
  }
  return true;
}

// The receiving socket: bound to the port on the input interface only, members of the groups
// there and nowhere else.
int open_input(const Options& o, const Iface& in) {
  Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) {
    std::perror("netrelay: socket");
    return -1;
  }
  if (!set_int(fd.get(), SOL_SOCKET, SO_REUSEADDR, 1, "SO_REUSEADDR") ||
      !set_int(fd.get(), IPPROTO_IP, IP_MULTICAST_ALL, 0, "IP_MULTICAST_ALL") ||
      !set_int(fd.get(), IPPROTO_IP, IP_PKTINFO, 1, "IP_PKTINFO")) {
    return -1;
  }
  set_int(fd.get(), SOL_SOCKET, SO_RCVBUF, kRcvBufBytes, "SO_RCVBUF");
  if (setsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, in.name,
                 static_cast<socklen_t>(std::strlen(in.name))) != 0) {
    std::fprintf(stderr, "netrelay: SO_BINDTODEVICE %s: %s\n", in.name, std::strerror(errno));
    return -1;
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(o.port);
  addr.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    std::fprintf(stderr, "netrelay: bind port %u: %s\n", o.port, std::strerror(errno));
    return -1;
  }
  for (size_t g = 0; g < o.group_count; ++g) {
    ip_mreqn mreq{};
    inet_pton(AF_INET, o.groups[g].c_str(), &mreq.imr_multiaddr);
    mreq.imr_ifindex = static_cast<int>(in.index);
    if (setsockopt(fd.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof mreq) != 0) {
      std::fprintf(stderr, "netrelay: join %s on %s: %s\n", o.groups[g].c_str(), in.name,
                   std::strerror(errno));
      return -1;
    }
  }
  return fd.release();
}

// A sending socket for one output interface; multicast loop off so that nothing sent comes back.
int open_output(const Options& o, const Iface& out) {
  Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) {
    std::perror("netrelay: socket");
    return -1;
  }
  ip_mreqn mif{};
  mif.imr_ifindex = static_cast<int>(out.index);
  if (setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_IF, &mif, sizeof mif) != 0) {
    std::fprintf(stderr, "netrelay: IP_MULTICAST_IF %s: %s\n", out.name, std::strerror(errno));
    return -1;
  }
  if (!set_int(fd.get(), IPPROTO_IP, IP_MULTICAST_LOOP, 0, "IP_MULTICAST_LOOP") ||
      !set_int(fd.get(), IPPROTO_IP, IP_MULTICAST_TTL, o.ttl, "IP_MULTICAST_TTL")) {
    return -1;
  }
  return fd.release();
}

// One datagram on its way: payload and destination group.
struct Datagram {
  uint8_t data[kDatagramMax];
  size_t size = 0;
  in_addr group{};
  unsigned copies = 1;
};

class Relay {
 public:
  Relay(const Options& o, int in_fd, const int* out_fds, size_t out_count)
      : o_(o), in_fd_(in_fd), out_fds_(out_fds), out_count_(out_count) {}

  int run();

 private:
  bool receive(Datagram* d);
  void handle(Datagram* d);
  void send(const Datagram& d);
  void release_held();
  int poll_timeout_ms(double now) const;

  const Options& o_;
  int in_fd_;
  const int* out_fds_;
  size_t out_count_;
  Counters c_;
  Datagram current_;
  Datagram held_;
  bool holding_ = false;
  double held_deadline_ = 0.0;
  double end_ = 0.0;  // 0: no time limit
};

bool Relay::receive(Datagram* d) {
  sockaddr_in from{};
  iovec iov{d->data, sizeof d->data};
  alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(in_pktinfo))];
  msghdr msg{};
  msg.msg_name = &from;
  msg.msg_namelen = sizeof from;
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  const ssize_t n = recvmsg(in_fd_, &msg, MSG_DONTWAIT);
  if (n < 0) {
    return false;
  }
  d->size = static_cast<size_t>(n);
  d->group.s_addr = 0;
  for (cmsghdr* cm = CMSG_FIRSTHDR(&msg); cm != nullptr; cm = CMSG_NXTHDR(&msg, cm)) {
    if (cm->cmsg_level == IPPROTO_IP && cm->cmsg_type == IP_PKTINFO &&
        cm->cmsg_len >= CMSG_LEN(sizeof(in_pktinfo))) {
      in_pktinfo info{};
      std::memcpy(&info, CMSG_DATA(cm), sizeof info);
      d->group = info.ipi_addr;
    }
  }
  return true;
}

void Relay::send(const Datagram& d) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(o_.port);
  to.sin_addr = d.group;
  for (unsigned copy = 0; copy < d.copies; ++copy) {
    for (size_t i = 0; i < out_count_; ++i) {
      const ssize_t n = sendto(out_fds_[i], d.data, d.size, 0,
                               reinterpret_cast<const sockaddr*>(&to), sizeof to);
      if (n == static_cast<ssize_t>(d.size)) {
        ++c_.sent;
      } else {
        ++c_.send_errors;
      }
    }
  }
}

void Relay::release_held() {
  if (holding_) {
    holding_ = false;
    send(held_);
  }
}

void Relay::handle(Datagram* d) {
  if (!IN_MULTICAST(ntohl(d->group.s_addr))) {
    ++c_.ignored;
    return;
  }
  const uint64_t index = c_.received++;
  const netrelay::Action a = o_.plan.decide(index);
  if (o_.trace) {
    std::printf("netrelay-trace index=%llu size=%zu%s%s%s%s%s\n",
                static_cast<unsigned long long>(index), d->size, a.drop ? " drop" : "",
                a.dup ? " dup" : "", a.reorder ? " reorder" : "", a.corrupt ? " corrupt" : "",
                a.truncate ? " truncate" : "");
  }
  if (a.drop) {
    ++c_.dropped;  // a held datagram keeps waiting for the next forwarded one
    c_.dropped_bytes += d->size;
    return;
  }
  if (a.truncate) {
    if (d->size > o_.truncate_to) {
      d->size = o_.truncate_to;
    }
    ++c_.truncated;
  }
  if (a.corrupt) {
    netrelay::corrupt_bytes(d->data, d->size, o_.corrupt_offset, o_.corrupt_length);
    ++c_.corrupted;
  }
  d->copies = a.dup ? 2 : 1;
  if (a.dup) {
    ++c_.duplicated;
  }
  ++c_.forwarded;
  if (holding_) {
    // A datagram marked for reordering while another one is held goes out normally.
    send(*d);
    release_held();
    return;
  }
  if (a.reorder) {
    std::memcpy(held_.data, d->data, d->size);
    held_.size = d->size;
    held_.group = d->group;
    held_.copies = d->copies;
    holding_ = true;
    held_deadline_ = now_s() + o_.hold_ms / 1000.0;
    ++c_.reordered;
    c_.reordered_bytes += d->size;
    return;
  }
  send(*d);
}

int Relay::poll_timeout_ms(double now) const {
  double limit = now + kPollSliceMs / 1000.0;
  if (holding_ && held_deadline_ < limit) {
    limit = held_deadline_;
  }
  if (end_ > 0.0 && end_ < limit) {
    limit = end_;
  }
  const double ms = (limit - now) * 1000.0;
  return ms <= 0.0 ? 0 : static_cast<int>(ms) + 1;
}

int Relay::run() {
  if (o_.duration_s > 0.0) {
    end_ = now_s() + o_.duration_s;
  }
  while (g_stop == 0) {
    if (g_report != 0) {
      g_report = 0;
      print_counters(c_);
    }
    const double now = now_s();
    if (holding_ && now >= held_deadline_) {
      release_held();
    }
    if (end_ > 0.0 && now >= end_) {
      break;
    }
    if (o_.count > 0 && c_.received >= o_.count) {
      break;
    }
    pollfd p{in_fd_, POLLIN, 0};
    const int r = poll(&p, 1, poll_timeout_ms(now));
    if (r < 0 && errno != EINTR) {
      std::perror("netrelay: poll");
      break;
    }
    if (r > 0 && (p.revents & POLLIN) != 0) {
      while ((o_.count == 0 || c_.received < o_.count) && receive(&current_)) {
        handle(&current_);
      }
    }
  }
  release_held();
  print_counters(c_);
  return 0;
}

void install_signals() {
  struct sigaction sa {};
  sigemptyset(&sa.sa_mask);
  sa.sa_handler = on_stop;  // no SA_RESTART: poll returns at once
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
  sa.sa_handler = on_report;
  sigaction(SIGUSR1, &sa, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

bool touch(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    std::fprintf(stderr, "netrelay: %s: %s\n", path.c_str(), std::strerror(errno));
    return false;
  }
  close(fd);
  return true;
}

// Large records live here, not on the stack.
Options g_options;

}  // namespace

int main(int argc, char** argv) {
  std::string err;
  const int parsed = netrelay::parse_options(argc, argv, &g_options, &err);
  if (parsed > 0) {
    return 0;
  }
  if (parsed < 0) {
    std::fprintf(stderr, "netrelay: %s (--help for usage)\n", err.c_str());
    return 2;
  }
  const Options& o = g_options;
  Iface in;
  if (!resolve(o.in, &in)) {
    return 1;
  }
  Fd in_fd(open_input(o, in));
  if (in_fd.get() < 0) {
    return 1;
  }
  int out_fds[netrelay::kMaxOutputs] = {-1, -1, -1, -1};
  Fd out_owner[netrelay::kMaxOutputs];
  for (size_t i = 0; i < o.out_count; ++i) {
    Iface out;
    if (!resolve(o.out[i], &out)) {
      return 1;
    }
    out_fds[i] = open_output(o, out);
    out_owner[i].reset(out_fds[i]);
    if (out_fds[i] < 0) {
      return 1;
    }
  }
  install_signals();
  if (!o.ready_file.empty() && !touch(o.ready_file)) {
    return 1;
  }
  static Relay relay(o, in_fd.get(), out_fds, o.out_count);
  return relay.run();
}
