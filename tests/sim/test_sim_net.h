// A UDP socket living in a network namespace, for the tests of the simulated network.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace sim_test {

// A datagram socket created inside a namespace (the socket stays in it for its whole life).
class NsSocket {
 public:
  explicit NsSocket(const std::string& ns) {
    std::thread t([&] {
      const int nsfd = open(("/var/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
      if (nsfd >= 0 && setns(nsfd, CLONE_NEWNET) == 0) {
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      }
      if (nsfd >= 0) close(nsfd);
    });
    t.join();
  }
  ~NsSocket() {
    if (fd_ >= 0) close(fd_);
  }
  NsSocket(const NsSocket&) = delete;
  NsSocket& operator=(const NsSocket&) = delete;
  int fd() const { return fd_; }

  // Receiver: port bound, member of group through the namespace's multicast route.
  bool listen(const char* group, uint16_t port) {
    const int one = 1;
    const int zero = 0;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    ip_mreqn mreq{};
    inet_pton(AF_INET, group, &mreq.imr_multiaddr);
    return fd_ >= 0 && setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) == 0 &&
           setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_ALL, &zero, sizeof zero) == 0 &&
           bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
           setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof mreq) == 0;
  }

  // Datagrams until none arrives for idle_ms.
  std::vector<std::vector<uint8_t>> drain(int idle_ms) {
    std::vector<std::vector<uint8_t>> got;
    uint8_t buf[2048];
    pollfd p{fd_, POLLIN, 0};
    while (poll(&p, 1, idle_ms) > 0) {
      const ssize_t n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
      if (n >= 0) got.emplace_back(buf, buf + n);
    }
    return got;
  }

  bool send(const char* group, uint16_t port, const std::vector<uint8_t>& d) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    inet_pton(AF_INET, group, &to.sin_addr);
    return sendto(fd_, d.data(), d.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) ==
           static_cast<ssize_t>(d.size());
  }

 private:
  int fd_ = -1;
};

}  // namespace sim_test
