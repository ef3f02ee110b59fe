// Network outputs and the per-output stream selection. The source each network output captures
// is chosen from a table with one row per output-source number and one cell per board.
#include "qb_audio_stream.h"

#include "am_log.h"
#include "qb_audio_aplay.h"
#include "qb_audio_misc_bridge.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_misc_private.h"
#include "qb_audio_misc_stream.h"
#include "qb_audio_port_table.h"

namespace {

// What a network output does for a source on one board.
enum net_action_e : qb_u8_t {
  NET_START,           // start the stream from the cell's channel, unmute, restart the capture
  NET_START_SPDIF,     // register 0x19 <- S/PDIF input, then as NET_START with channel 5
  NET_START_DSP,       // DSP input 0x17 <- HDMI input, then as NET_START with channel 4
  NET_UNMUTE_ONLY,     // unmute and restart the capture, no start
  NET_NONE,            // restart the capture only; result 1
  NET_REFUSED,         // nothing; result 0
};

struct net_cell_t {
  net_action_e action;
  int ch;
};

struct net_row_t {
  int source;
  net_cell_t board[PORT_BOARDS];
};

constexpr net_cell_t net_start(int ch) { return {NET_START, ch}; }
constexpr net_cell_t net_start_spdif() { return {NET_START_SPDIF, QB_AUDIO_CHN_SPDIF}; }
constexpr net_cell_t net_start_dsp() { return {NET_START_DSP, QB_AUDIO_CHN_DSP}; }
constexpr net_cell_t net_unmute_only() { return {NET_UNMUTE_ONLY, 0}; }
constexpr net_cell_t net_none() { return {NET_NONE, 0}; }
constexpr net_cell_t net_refused() { return {NET_REFUSED, 0}; }

// Cells in board order: board 1, board 2, board 3, board 4.
constexpr net_row_t kNetOutputTable[] = {
    {QB_AUDIO_SRC_ANALOG,
     {net_start(QB_AUDIO_CHN_ANALOG), net_start(QB_AUDIO_CHN_ANALOG),
      net_start(QB_AUDIO_CHN_ANALOG), net_start(QB_AUDIO_CHN_ANALOG)}},
    {QB_AUDIO_SRC_HDMI,
     {net_start(QB_AUDIO_CHN_VIDEO), net_none(), net_start(QB_AUDIO_CHN_VIDEO),
      net_start(QB_AUDIO_CHN_VIDEO)}},
    {QB_AUDIO_SRC_SPDIF, {net_none(), net_start_spdif(), net_start_spdif(), net_start_spdif()}},
    {QB_AUDIO_SRC_EARC,
     {net_none(), net_start(QB_AUDIO_CHN_EARC), net_start(QB_AUDIO_CHN_EARC),
      net_start(QB_AUDIO_CHN_EARC)}},
    {QB_AUDIO_SRC_STREAM, {net_none(), net_none(), net_none(), net_none()}},
    {QB_AUDIO_SRC_DSP, {net_refused(), net_refused(), net_refused(), net_refused()}},
    {QB_AUDIO_SRC_HDMI_DOWNMIX, {net_start_dsp(), net_none(), net_start_dsp(), net_unmute_only()}},
    // Any other source (the last row).
    {PORT_OTHER_SOURCE, {net_refused(), net_refused(), net_refused(), net_refused()}},
};

// Start function and capture restart of each network output stream id.
struct net_stream_t {
  int (*start)(int ch);
  void (*restart)(void);
};

constexpr net_stream_t kNetStreams[] = {
    {qb_audio_net_stream_out1_start, qb_audio_aplay_in_abort_capture1},
    {qb_audio_net_stream_out5_start, qb_audio_aplay_in_abort_capture5},
    {qb_audio_net_stream_out3_start, qb_audio_aplay_in_abort_capture3},
};
constexpr int kBoardTxA = 1;

bool sid_valid(int sid) { return sid >= 0 && sid < QB_NET_STREAM_COUNT; }

}  // namespace

int qb_audio_stream_init(void) { return 1; }
int qb_audio_stream_uninit(void) { return 1; }

int qb_audio_stream_output_src_select(int src, int sid) {
  const int board = port_board_index();
  if (board == 0) {
    return 0;
  }
  if (board == kBoardTxA) {
    AM_LOG_INFO("sel = %d ; streamId = %d", src, sid);
  }
  if (!sid_valid(sid)) {
    return 0;
  }
  const net_stream_t& stream = kNetStreams[sid];
  const net_cell_t& cell = port_find_row(kNetOutputTable, src).board[board - 1];
  switch (cell.action) {
    case NET_REFUSED:
      return 0;
    case NET_START_SPDIF:
      qb_audio_fpga_i2c_write(FPGA_REG_SAO5_SPDIF_SRC, FPGA_SAO5_SPDIF_SRC_SPDIF);
      break;
    case NET_START_DSP:
      qb_audio_fpga_ch_route_set(FPGA_REG_ROUTE_DSP_IN, FPGA_SRC_HDMI_IN);
      break;
    case NET_START:
    case NET_UNMUTE_ONLY:
    case NET_NONE:
      break;
  }
  if (cell.action == NET_START || cell.action == NET_START_SPDIF ||
      cell.action == NET_START_DSP) {
    stream.start(cell.ch);
  }
  if (cell.action != NET_NONE) {
    stream_output_unmute();
  }
  stream.restart();
  return 1;
}

int qb_audio_stream_input_select(int output, int sid, int fallback) {
  AM_LOG_INFO(" ch = %d ; subid = %d ,fallback_sid = %d", output, sid, fallback);
  if (output < 0 || output >= QB_AUDIO_OUTPUT_COUNT) {
    return 0;
  }
  qb_misc_audio_output_sid_set(output, sid);
  qb_misc_audio_fallback_sid_set(output, fallback);
  if (!sid_valid(sid)) {
    return 0;
  }
  qb_msic_net_stream_in_set(output, qb_misc_audio_get_saiid_by_sid(sid));
  if (output == QB_AUDIO_OUTPUT_ANALOG) {
    qb_misc_audio_local_port_analog_src_set(static_cast<qb_u32_t>(sid));
  } else if (output == QB_AUDIO_OUTPUT_HDMI) {
    // The video processor learns that the HDMI output plays a local multi-channel source.
    set_avp_hdmi_out_audio_src_multi_local();
  }
  AM_LOG_INFO("\n\n");
  return 1;
}

int qb_audio_stream_input_fallback_select(int) { return 1; }
