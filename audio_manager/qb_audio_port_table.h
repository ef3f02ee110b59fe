// Source selection of the local outputs as data: each output has a table with one row per
// output-source number (and one row for any other number) and one cell per board, and one
// function that carries out a cell. The four output modules (analog, earc, hdmi, spdif) hold the
// tables.
#pragma once

#include "qb_types.h"

// What a selection does on one board.
enum port_action_e : qb_u8_t {
  PORT_MUTE,              // mute the output; result 1
  PORT_MUTE_REFUSE,       // mute the output; result 0
  PORT_ROUTE,             // route the fixed source value
  PORT_ROUTE_VIA_DSP,     // DSP input 0x17 <- HDMI input, then route the DSP output
  PORT_ROUTE_IF_STEREO,   // route when the channel's record plays on a stereo sink, else mute
  PORT_STREAM,            // route by stream id; any other stream id: nothing
  PORT_STREAM_OR_MUTE,    // route by stream id; any other stream id: mute
  PORT_UNMUTE_STREAM,     // unmute the output, then route by stream id; other stream id: nothing
};

struct port_cell_t {
  port_action_e action;
  qb_u8_t src;  // matrix source value (PORT_ROUTE, PORT_ROUTE_IF_STEREO)
  int ch;       // channel whose record decides (PORT_ROUTE_IF_STEREO)
};

inline constexpr int PORT_BOARDS = 4;        // boards 1-4, cells in board order
inline constexpr int PORT_OTHER_SOURCE = -1;  // the row for any source without a row of its own

struct port_row_t {
  int source;
  port_cell_t board[PORT_BOARDS];
};

// One local output: its route register, its channel-status writer (none for HDMI and analog) and
// its mute and unmute functions.
struct port_output_t {
  qb_u8_t route_reg;
  int (*chs_write)(int ch);
  int (*mute)(void);
  int (*unmute)(void);
};

inline constexpr port_cell_t port_mute() { return {PORT_MUTE, 0, 0}; }
inline constexpr port_cell_t port_refuse() { return {PORT_MUTE_REFUSE, 0, 0}; }
inline constexpr port_cell_t port_route(qb_u8_t src) { return {PORT_ROUTE, src, 0}; }
inline constexpr port_cell_t port_route_via_dsp() { return {PORT_ROUTE_VIA_DSP, 0, 0}; }
inline constexpr port_cell_t port_if_stereo(int ch, qb_u8_t src) {
  return {PORT_ROUTE_IF_STEREO, src, ch};
}
inline constexpr port_cell_t port_stream() { return {PORT_STREAM, 0, 0}; }
inline constexpr port_cell_t port_stream_or_mute() { return {PORT_STREAM_OR_MUTE, 0, 0}; }
inline constexpr port_cell_t port_unmute_stream() { return {PORT_UNMUTE_STREAM, 0, 0}; }

// Board id of the running board when it has tables (1-4), else 0.
int port_board_index(void);

// Carries out the cell of (src, board) of a table. 1 handled, 0 refused; 0 without touching the
// FPGA on a board without tables.
int port_select(const port_output_t& output, const port_row_t* rows, int nrows, int src, int sid);
