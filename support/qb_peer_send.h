// One-shot loopback datagrams to the neighbouring services of the board. Each sender has the
// shape of tlv_send_fn_t and returns what qb_udp_send_data returns (0, or -1).
#pragma once

// Loopback address of every peer service.
inline constexpr const char* QB_PEER_ADDRESS = "127.0.0.1";
// eARC/ARC output bridge service.
inline constexpr int QB_IT6621_SERVICE_PORT = 8382;
// eARC/ARC input bridge service.
inline constexpr int QB_IT6620_SERVICE_PORT = 8380;
// Video processor service "avp".
inline constexpr int QB_AVP_SERVICE_PORT = 9991;
// Scaler service "mdin".
inline constexpr int QB_MDIN_SERVICE_PORT = 8370;

int qb_cmd_send_to_it6621(const void* buffer, int size);
int qb_cmd_send_to_it6620(const void* buffer, int size);
int qb_cmd_send_to_avp(const void* buffer, int size);
int qb_cmd_send_to_mdin(const void* buffer, int size);
