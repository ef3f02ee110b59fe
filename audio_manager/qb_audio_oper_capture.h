// Pieces of the capture-to-network sender, exposed for the tests.
#pragma once

#include <cstddef>

#include "qb_audio_oper.h"

// Datagrams sent by one multi-message send call.
inline constexpr size_t kCaptureBatch = 3;

// Sends one chunk as datagrams of at most pktSize payload bytes, in batches of up to three, on the
// connected tx_fd; advances rollingSampleDataSizeTotal. Returns the number of send calls.
int capture_send_chunk(qb_audio_oper_ctrl_t* ctrl, const qb_u8_t* data, size_t bytes);
