// One-shot loopback datagrams to the bridge, video processor and scaler services.
#include "qb_peer_send.h"

#include "qb_socket.h"

int qb_cmd_send_to_it6621(const void* buffer, int size) {
  return qb_udp_send_data(QB_PEER_ADDRESS, QB_IT6621_SERVICE_PORT, buffer, size);
}

int qb_cmd_send_to_it6620(const void* buffer, int size) {
  return qb_udp_send_data(QB_PEER_ADDRESS, QB_IT6620_SERVICE_PORT, buffer, size);
}

int qb_cmd_send_to_avp(const void* buffer, int size) {
  return qb_udp_send_data(QB_PEER_ADDRESS, QB_AVP_SERVICE_PORT, buffer, size);
}

int qb_cmd_send_to_mdin(const void* buffer, int size) {
  return qb_udp_send_data(QB_PEER_ADDRESS, QB_MDIN_SERVICE_PORT, buffer, size);
}
