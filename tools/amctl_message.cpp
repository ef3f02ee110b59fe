// amctl: command messages, built with the TLV message builder and sent to the command socket.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "amctl.h"
#include "qb_audio_protocol.h"
#include "qb_tlv_box.h"

namespace {

// tlv_packet hands the finished message to a send function without context: the message being
// built is held here for the one call (the tool is single-threaded).
amctl_message_t* g_amctl_target = nullptr;

int amctl_capture(const void* data, int size) {
  if (g_amctl_target == nullptr || size < 0 || size > AMCTL_MESSAGE_MAX) {
    return -1;
  }
  std::memcpy(g_amctl_target->bytes.data(), data, static_cast<size_t>(size));
  g_amctl_target->size = size;
  return size;
}

}  // namespace

bool amctl_encode(qb_s32_t id, qb_s32_t op, const amctl_payload_t& payload, amctl_message_t* out) {
  if (out == nullptr || payload.size < 0 || payload.size > AMCTL_PAYLOAD_MAX) {
    return false;
  }
  out->size = 0;
  g_amctl_target = out;
  tlv_packet(QB_AUDIO_MSG_TYPE_CMD, qb_audio_cmd_type(id, op), payload.bytes.data(), payload.size,
             amctl_capture);
  g_amctl_target = nullptr;
  return out->size == 16 + payload.size;
}

bool amctl_send(const amctl_message_t& message, int port) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    std::fprintf(stderr, "amctl: socket: %s\n", std::strerror(errno));
    return false;
  }
  sockaddr_in dest{};
  dest.sin_family = AF_INET;
  dest.sin_port = htons(static_cast<uint16_t>(port));
  dest.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const ssize_t sent = sendto(fd, message.bytes.data(), static_cast<size_t>(message.size), 0,
                              reinterpret_cast<const sockaddr*>(&dest), sizeof dest);
  const int saved = errno;
  close(fd);
  if (sent != message.size) {
    std::fprintf(stderr, "amctl: send to 127.0.0.1:%d failed: %s\n", port,
                 sent < 0 ? std::strerror(saved) : "short send");
    return false;
  }
  return true;
}

std::string amctl_hex(const qb_u8_t* data, int size) {
  std::string text;
  char piece[4];
  for (int i = 0; i < size; ++i) {
    std::snprintf(piece, sizeof piece, i == 0 ? "%02X" : " %02X", data[i]);
    text += piece;
  }
  return text;
}
