// Source selection of the local outputs as data: one table with a row per output-source number
// (and one row for any other number), in each row one cell per output and board, and one function
// that carries out a cell.
#pragma once

inline constexpr int PORT_BOARDS = 4;         // boards 1-4, cells in board order
inline constexpr int PORT_OTHER_SOURCE = -1;  // the row for any source without a row of its own

// The row of a source in a selection table whose last row is the PORT_OTHER_SOURCE row.
template <typename Row, int N>
const Row& port_find_row(const Row (&rows)[N], int src) {
  for (const Row& row : rows) {
    if (row.source == src) {
      return row;
    }
  }
  return rows[N - 1];
}

// Board id of the running board when it has a selection table (1-4), else 0.
int port_board_index(void);

// Output 0-3 (QB_AUDIO_OUTPUT_*) takes source src (stream id sid for a network stream) on this
// board. 1 handled, 0 refused; 0 without touching the FPGA on a board without a table.
int port_output_select(int output, int src, int sid);
