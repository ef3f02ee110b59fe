// Socket helpers: creation, options, multicast membership, bounded-retry datagram I/O, select.
#include "qb_socket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Pause before retrying a call that failed with EAGAIN or EINTR.
constexpr useconds_t QB_SOCK_RETRY_SLEEP_US = 1000;
// qb_udp_send gives up after this many EAGAIN/EINTR retries.
constexpr int QB_UDP_SEND_MAX_RETRIES = 3;
// Failure of qb_ip_a2n: all ones.
constexpr qb_u32_t QB_IP_INVALID = 0xFFFFFFFFU;

bool is_retry_errno(int err) { return err == EAGAIN || err == EWOULDBLOCK || err == EINTR; }

int set_int_option(int fd, int level, int name, int value) {
  return setsockopt(fd, level, name, &value, sizeof(value));
}

int set_timeout_option(int fd, int name, int timeout_ms) {
  struct timeval tv;
  tv.tv_sec = timeout_ms / 1000;
  tv.tv_usec = (timeout_ms % 1000) * 1000;
  return setsockopt(fd, SOL_SOCKET, name, &tv, sizeof(tv));
}

ssize_t recv_from(int fd, void* buf, size_t len, struct sockaddr_in* from, socklen_t* from_len) {
  if (from == nullptr || from_len == nullptr) {
    return recvfrom(fd, buf, len, 0, nullptr, nullptr);
  }
  return recvfrom(fd, buf, len, 0, reinterpret_cast<struct sockaddr*>(from), from_len);
}

// Bytes the caller may receive into: the wanted count, never more than the buffer holds.
int receive_limit(int buf_size, int wanted) { return (wanted < 1 || wanted > buf_size) ? buf_size : wanted; }

// One datagram of up to buf_size bytes, with one retry after EAGAIN/EINTR.
int udp_recv_one(int fd, void* buf, int buf_size, struct sockaddr_in* from, socklen_t* from_len) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    const ssize_t n = recv_from(fd, buf, static_cast<size_t>(buf_size), from, from_len);
    if (n > 0) {
      return static_cast<int>(n);
    }
    if (n == 0 || !is_retry_errno(errno)) {
      return -1;
    }
    if (attempt == 0) {
      usleep(QB_SOCK_RETRY_SLEEP_US);
    }
  }
  return 0;
}

// Gathers exactly wanted bytes; two EAGAIN/EINTR in a row return what arrived so far.
int udp_recv_wanted(int fd, qb_u8_t* buf, int wanted, struct sockaddr_in* from, socklen_t* from_len) {
  int got = 0;
  int retries_in_row = 0;
  while (got < wanted) {
    const ssize_t n = recv_from(fd, buf + got, static_cast<size_t>(wanted - got), from, from_len);
    if (n > 0) {
      got += static_cast<int>(n);
      retries_in_row = 0;
      continue;
    }
    if (n == 0 || !is_retry_errno(errno)) {
      return -1;
    }
    if (++retries_in_row >= 2) {
      return got;
    }
    usleep(QB_SOCK_RETRY_SLEEP_US);
  }
  return got;
}

// Fills the requested sets from the usable descriptors; returns the highest one, or -1 if none.
int build_fd_sets(const int* fds, int count, int mode, fd_set* rd, fd_set* wr, fd_set* ex) {
  FD_ZERO(rd);
  FD_ZERO(wr);
  FD_ZERO(ex);
  int max_fd = -1;
  for (int i = 0; i < count; ++i) {
    // Descriptors beyond what an fd_set holds are skipped like empty ones.
    if (fds[i] <= 0 || fds[i] >= FD_SETSIZE) {
      continue;
    }
    if ((mode & QB_SELECT_READ) != 0) FD_SET(fds[i], rd);
    if ((mode & QB_SELECT_WRITE) != 0) FD_SET(fds[i], wr);
    if ((mode & QB_SELECT_EXCEPT) != 0) FD_SET(fds[i], ex);
    if (fds[i] > max_fd) max_fd = fds[i];
  }
  return max_fd;
}

// The first descriptor of the array ready in the set, as descriptor + code; 0 if none.
int first_ready(const int* fds, int count, const fd_set* set, int code) {
  for (int i = 0; i < count; ++i) {
    if (fds[i] > 0 && fds[i] < FD_SETSIZE && FD_ISSET(fds[i], set)) {
      return fds[i] + code;
    }
  }
  return 0;
}

}  // namespace

int qb_create_sock(int kind) {
  const int family = (kind >= -2 && kind <= 2) ? AF_INET : AF_UNIX;
  const int type = (kind % 2 != 0) ? SOCK_STREAM : SOCK_DGRAM;
  return socket(family, type | SOCK_CLOEXEC, 0);
}

int qb_bind_sock(int fd, qb_u32_t ip, int port) {
  if (fd > 0) {
    set_int_option(fd, SOL_SOCKET, SO_REUSEADDR, 1);
  }
  struct sockaddr_in addr;
  memset(&addr, 0, sizeof(addr));
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(ip);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0) {
    return -1;
  }
  return 0;
}

int qb_close_socket(int* fd) {
  if (fd == nullptr || *fd < 1) {
    return -1;
  }
  close(*fd);
  *fd = -1;
  return 0;
}

int qb_set_sock_attr(int fd, int reuse, int send_timeout_ms, int recv_timeout_ms, int send_buf,
                     int recv_buf) {
  if (fd <= 0) {
    return -1;
  }
  int result = 0;
  if (reuse != 0 && set_int_option(fd, SOL_SOCKET, SO_REUSEADDR, 1) != 0) {
    result = -1;
  }
  if (send_timeout_ms != 0) {
    if (set_timeout_option(fd, SO_SNDTIMEO, send_timeout_ms) != 0) result = -1;
    if (set_timeout_option(fd, SO_RCVTIMEO, recv_timeout_ms) != 0) result = -1;
  }
  if (send_buf != 0 && set_int_option(fd, SOL_SOCKET, SO_SNDBUF, send_buf) != 0) {
    result = -1;
  }
  if (recv_buf != 0 && set_int_option(fd, SOL_SOCKET, SO_RCVBUF, recv_buf) != 0) {
    result = -1;
  }
  return result;
}

int qb_set_sock_noblock(int fd) {
  if (fd < 1) {
    return -1;
  }
  int on = 1;
  return ioctl(fd, FIONBIO, &on) == 0 ? 0 : -1;
}

int qb_set_sock_multicast_noloop(int fd) {
  const unsigned char loop = 0;
  return setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof(loop));
}

int qb_set_sock_multi_membership(int fd, const char* group, qb_u32_t if_addr) {
  struct ip_mreq mreq;
  memset(&mreq, 0, sizeof(mreq));
  mreq.imr_multiaddr.s_addr = group != nullptr ? inet_addr(group) : INADDR_NONE;
  mreq.imr_interface.s_addr = if_addr;
  return setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof(mreq));
}

int qb_set_sock_rm_multi_membership(int fd, const char* group) {
  struct ip_mreq mreq;
  memset(&mreq, 0, sizeof(mreq));
  mreq.imr_multiaddr.s_addr = group != nullptr ? inet_addr(group) : INADDR_NONE;
  mreq.imr_interface.s_addr = 0;
  const int result = setsockopt(fd, IPPROTO_IP, IP_DROP_MEMBERSHIP, &mreq, sizeof(mreq));
  if (result != 0) {
    const int err = errno;
    printf("setsockopt IP_DROP_MEMBERSHIP errno:%d info:%s\n", err, strerror(err));
    fflush(stdout);
  }
  return result;
}

qb_u32_t qb_ip_a2n(const char* text) {
  if (text == nullptr) {
    return QB_IP_INVALID;
  }
  struct in_addr addr;
  if (inet_pton(AF_INET, text, &addr) == 1) {
    return ntohl(addr.s_addr);
  }
  struct addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_INET;
  struct addrinfo* list = nullptr;
  const int rc = getaddrinfo(text, nullptr, &hints, &list);
  if (rc != 0) {
    printf("getaddrinfo error: %s\n", gai_strerror(rc));
    fflush(stdout);
    return QB_IP_INVALID;
  }
  qb_u32_t result = QB_IP_INVALID;
  for (const struct addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
    if (ai->ai_family == AF_INET && ai->ai_addr != nullptr) {
      result = ntohl(reinterpret_cast<const struct sockaddr_in*>(ai->ai_addr)->sin_addr.s_addr);
      break;
    }
  }
  freeaddrinfo(list);
  return result;
}

int qb_udp_recv(int fd, void* buf, int buf_size, int wanted, struct sockaddr_in* from,
                socklen_t* from_len) {
  if (buf == nullptr || buf_size <= 0) {
    return -1;
  }
  int pending = 0;
  if (ioctl(fd, FIONREAD, &pending) == 0 && pending > buf_size) {
    printf("socket buffer len[%ld] > bufSize[%d] error\n", static_cast<long>(pending), buf_size);
    fflush(stdout);
    return -1;
  }
  if (wanted < 1) {
    return udp_recv_one(fd, buf, buf_size, from, from_len);
  }
  // A wanted count larger than the buffer is cut to the buffer size.
  return udp_recv_wanted(fd, static_cast<qb_u8_t*>(buf), receive_limit(buf_size, wanted), from,
                         from_len);
}

int qb_udp_recv2(int fd, void* buf, int buf_size, int wanted, struct sockaddr_in* from,
                 socklen_t* from_len) {
  if (buf == nullptr || buf_size <= 0) {
    return -1;
  }
  const ssize_t n =
      recv_from(fd, buf, static_cast<size_t>(receive_limit(buf_size, wanted)), from, from_len);
  if (n >= 0) {
    return static_cast<int>(n);
  }
  return is_retry_errno(errno) ? 0 : -1;
}

int qb_udp_send(int fd, const void* data, int len, const struct sockaddr_in* dest) {
  if (fd < 1 || data == nullptr || dest == nullptr || len < 1) {
    return 0;
  }
  const qb_u8_t* bytes = static_cast<const qb_u8_t*>(data);
  int sent = 0;
  int retries = 0;
  while (sent < len) {
    const ssize_t n = sendto(fd, bytes + sent, static_cast<size_t>(len - sent), MSG_NOSIGNAL,
                             reinterpret_cast<const struct sockaddr*>(dest), sizeof(*dest));
    if (n > 0) {
      sent += static_cast<int>(n);
      continue;
    }
    if (n == 0 || !is_retry_errno(errno) || retries >= QB_UDP_SEND_MAX_RETRIES) {
      return -1;
    }
    ++retries;
    usleep(QB_SOCK_RETRY_SLEEP_US);
  }
  return len;
}

int qb_udp_send_data(const char* address, int port, const void* data, int len) {
  if (address == nullptr || port < QB_UDP_PORT_MIN || port > QB_UDP_PORT_MAX || data == nullptr ||
      len <= 0) {
    return -1;
  }
  int fd = qb_create_sock(QB_UDP_SOCK);
  if (fd < 0) {
    printf("send create sock error %s\n", strerror(errno));
    fflush(stdout);
    return -1;
  }
  struct sockaddr_in dest;
  memset(&dest, 0, sizeof(dest));
  dest.sin_family = AF_INET;
  dest.sin_addr.s_addr = htonl(qb_ip_a2n(address));
  dest.sin_port = htons(static_cast<uint16_t>(port));
  if (qb_udp_send(fd, data, len, &dest) != len) {
    printf("send data error:%s\n", strerror(errno));
    fflush(stdout);
  }
  close(fd);
  return 0;
}

int qb_select(const int* fds, int count, int mode, int timeout_ms) {
  if (fds == nullptr || count <= 0) {
    return -1;
  }
  fd_set rd;
  fd_set wr;
  fd_set ex;
  struct timeval tv;
  int ready = 0;
  do {
    const int max_fd = build_fd_sets(fds, count, mode, &rd, &wr, &ex);
    if (max_fd < 0) {
      return -1;
    }
    tv.tv_sec = timeout_ms / 1000;
    tv.tv_usec = (timeout_ms % 1000) * 1000;
    ready = select(max_fd + 1, &rd, &wr, &ex, timeout_ms > 0 ? &tv : nullptr);
  } while (ready < 0 && errno == EINTR);
  if (ready < 0) {
    return -1;
  }
  if (ready == 0) {
    return 0;
  }
  if ((mode & QB_SELECT_READ) != 0) {
    return first_ready(fds, count, &rd, QB_SOCK_READABLE);
  }
  if ((mode & QB_SELECT_WRITE) != 0) {
    return first_ready(fds, count, &wr, QB_SOCK_WRITABLE);
  }
  if ((mode & QB_SELECT_EXCEPT) != 0) {
    return first_ready(fds, count, &ex, QB_SOCK_EXCEPTION);
  }
  return 0;
}
