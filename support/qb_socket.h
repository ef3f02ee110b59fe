// Socket helpers over BSD sockets: kinds by a small enumeration, IPv4 addresses as host-order
// integers, time-outs in milliseconds, readiness codes carrying the descriptor and the kind of
// readiness, and short bounded retries on EAGAIN/EINTR. Diagnostics go to standard output.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include "qb_types.h"

// Socket kinds: odd kinds are stream sockets, even kinds datagram sockets; 1 and 2 are AF_INET,
// 3 and 4 AF_UNIX.
typedef enum _QB_SOCK_TYPE_ {
  QB_TCP_SOCK = 1,
  QB_UDP_SOCK = 2,
  QB_LOCAL_TCP_SOCK = 3,
  QB_LOCAL_UDP_SOCK = 4,
} QB_SOCK_TYPE_E;

// Mode mask of qb_select.
inline constexpr int QB_SELECT_READ = 1;
inline constexpr int QB_SELECT_WRITE = 2;
inline constexpr int QB_SELECT_EXCEPT = 4;

// Readiness codes of qb_select: the ready descriptor plus one of these.
inline constexpr int QB_SOCK_READABLE = 0x10000;
inline constexpr int QB_SOCK_WRITABLE = 0x20000;
inline constexpr int QB_SOCK_EXCEPTION = 0x40000;

// Ports accepted by qb_udp_send_data.
inline constexpr int QB_UDP_PORT_MIN = 1024;
inline constexpr int QB_UDP_PORT_MAX = 65535;

// socket() of the kind: the descriptor or -1.
int qb_create_sock(int kind);
// SO_REUSEADDR (for fd > 0), then bind to ip:port (both host order). 0, or -1 if bind fails.
int qb_bind_sock(int fd, qb_u32_t ip, int port);
// Closes *fd when fd >= 1 and stores -1. 0, or -1 when there was nothing to close.
int qb_close_socket(int* fd);
// Reuse flag, send/receive time-outs (ms; a zero send time-out leaves both unset), send/receive
// buffer sizes (0 = leave). 0, or -1 if fd <= 0 or any option failed.
int qb_set_sock_attr(int fd, int reuse, int send_timeout_ms, int recv_timeout_ms, int send_buf,
                     int recv_buf);
// FIONBIO 1. 0, or -1 if fd < 1 or the call fails.
int qb_set_sock_noblock(int fd);
// IP_MULTICAST_LOOP 0; the setsockopt result.
int qb_set_sock_multicast_noloop(int fd);
// IP_ADD_MEMBERSHIP of the group on the interface (network order; callers pass 0).
int qb_set_sock_multi_membership(int fd, const char* group, qb_u32_t if_addr);
// IP_DROP_MEMBERSHIP of the group on interface 0.
int qb_set_sock_rm_multi_membership(int fd, const char* group);
// Dotted IPv4 text or a host name to a host-order address; 0xFFFFFFFF on failure.
qb_u32_t qb_ip_a2n(const char* text);
// Receives wanted bytes (wanted < 1: one datagram of up to buf_size). Refuses (-1) when more bytes
// are pending than buf_size, leaving them queued. from/from_len may be null.
int qb_udp_recv(int fd, void* buf, int buf_size, int wanted, struct sockaddr_in* from,
                socklen_t* from_len);
// One recvfrom of wanted bytes (buf_size when wanted < 1); 0 on EAGAIN/EINTR; -1 on errors.
int qb_udp_recv2(int fd, void* buf, int buf_size, int wanted, struct sockaddr_in* from,
                 socklen_t* from_len);
// Sends all bytes to dest; the length, -1, or 0 for invalid arguments.
int qb_udp_send(int fd, const void* data, int len, const struct sockaddr_in* dest);
// One datagram from a fresh UDP socket to address:port (port 1024..65535). 0, or -1.
int qb_udp_send_data(const char* address, int port, const void* data, int len);
// Waits for readiness of the descriptors (> 0) in the classes of `mode`; time-out <= 0 waits
// forever. Readiness code, 0 (time-out or nothing ready in the first requested class) or -1.
int qb_select(const int* fds, int count, int mode, int timeout_ms);
