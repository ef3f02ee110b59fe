// Carries out one cell of an output's selection table.
#include "qb_audio_port_table.h"

#include "qb_audio_main.h"
#include "qb_audio_misc.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_stream.h"

namespace {

// Channel whose channel-status bytes go with a matrix source value.
struct chs_channel_t {
  qb_u8_t src;
  int ch;
};

constexpr chs_channel_t kChsChannels[] = {
    {FPGA_SRC_IT6620, QB_AUDIO_CHN_EARC},  {FPGA_SRC_PCM1804, QB_AUDIO_CHN_ANALOG},
    {FPGA_SRC_HDMI_IN, QB_AUDIO_CHN_VIDEO}, {FPGA_SRC_SAI1, QB_AUDIO_CHN_NSI1},
    {FPGA_SRC_SAI3, QB_AUDIO_CHN_NSI3},     {FPGA_SRC_SAI5, QB_AUDIO_CHN_NSI5},
};
constexpr qb_u8_t kNoSource = 255;

const port_row_t& find_row(const port_row_t* rows, int nrows, int src) {
  const port_row_t* other = &rows[nrows - 1];
  for (int i = 0; i < nrows; ++i) {
    if (rows[i].source == src) {
      return rows[i];
    }
    if (rows[i].source == PORT_OTHER_SOURCE) {
      other = &rows[i];
    }
  }
  return *other;
}

// The channel-status bytes of the source's channel first, then the route register.
int route(const port_output_t& output, qb_u8_t src) {
  if (output.chs_write != nullptr) {
    for (const chs_channel_t& row : kChsChannels) {
      if (row.src == src) {
        output.chs_write(row.ch);
      }
    }
  }
  qb_audio_fpga_ch_route_set(output.route_reg, src);
  return 1;
}

// Matrix source of a stream id, or kNoSource.
qb_u8_t stream_source(int sid) {
  const int src = qb_misc_audio_get_saiid_by_sid(sid);
  return (src >= FPGA_SRC_MIN && src <= FPGA_SRC_MAX) ? static_cast<qb_u8_t>(src) : kNoSource;
}

}  // namespace

int port_board_index(void) {
  const int board = audio_board_id_get();
  return (board >= 1 && board <= PORT_BOARDS) ? board : 0;
}

int port_select(const port_output_t& output, const port_row_t* rows, int nrows, int src, int sid) {
  const int board = port_board_index();
  if (board == 0 || rows == nullptr || nrows <= 0) {
    return 0;
  }
  const port_cell_t& cell = find_row(rows, nrows, src).board[board - 1];
  switch (cell.action) {
    case PORT_MUTE:
      output.mute();
      return 1;
    case PORT_MUTE_REFUSE:
      output.mute();
      return 0;
    case PORT_ROUTE:
      return route(output, cell.src);
    case PORT_ROUTE_VIA_DSP:
      qb_audio_fpga_ch_route_set(FPGA_REG_ROUTE_DSP_IN, FPGA_SRC_HDMI_IN);
      return route(output, FPGA_SRC_DSP_DAO);
    case PORT_ROUTE_IF_STEREO:
      if (is_qb_audio_output_mute_from_ch(cell.ch) == 0) {
        return route(output, cell.src);
      }
      output.mute();
      return 1;
    case PORT_UNMUTE_STREAM:
      output.unmute();
      [[fallthrough]];
    case PORT_STREAM:
      if (stream_source(sid) != kNoSource) {
        route(output, stream_source(sid));
      }
      return 1;
    case PORT_STREAM_OR_MUTE:
      if (stream_source(sid) != kNoSource) {
        return route(output, stream_source(sid));
      }
      output.mute();
      return 1;
  }
  return 0;
}
