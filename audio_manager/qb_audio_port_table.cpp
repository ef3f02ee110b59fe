// The source-selection table of the local outputs and the function that carries out its cells.
#include "qb_audio_port_table.h"

#include "qb_audio_main.h"
#include "qb_audio_misc.h"
#include "qb_audio_misc_fpga.h"
#include "qb_audio_stream.h"

namespace {

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

using port_cells_t = port_cell_t[PORT_BOARDS];

struct port_row_t {
  int source;
  port_cells_t output[QB_AUDIO_OUTPUT_COUNT];  // analog, hdmi, spdif, earc
};

constexpr port_cell_t mute() { return {PORT_MUTE, 0, 0}; }
constexpr port_cell_t refuse() { return {PORT_MUTE_REFUSE, 0, 0}; }
constexpr port_cell_t route(qb_u8_t src) { return {PORT_ROUTE, src, 0}; }
constexpr port_cell_t via_dsp() { return {PORT_ROUTE_VIA_DSP, 0, 0}; }
constexpr port_cell_t if_stereo(int ch, qb_u8_t src) { return {PORT_ROUTE_IF_STEREO, src, ch}; }
constexpr port_cell_t stream() { return {PORT_STREAM, 0, 0}; }
constexpr port_cell_t stream_or_mute() { return {PORT_STREAM_OR_MUTE, 0, 0}; }
constexpr port_cell_t unmute_stream() { return {PORT_UNMUTE_STREAM, 0, 0}; }

constexpr port_cell_t kPcm = route(FPGA_SRC_PCM1804);
constexpr port_cell_t kHdmiIn = route(FPGA_SRC_HDMI_IN);
constexpr port_cell_t kEarcIn = route(FPGA_SRC_IT6620);
constexpr port_cell_t kHdmiIfStereo = if_stereo(QB_AUDIO_CHN_VIDEO, FPGA_SRC_HDMI_IN);
constexpr port_cell_t kEarcIfStereo = if_stereo(QB_AUDIO_CHN_EARC, FPGA_SRC_IT6620);

// Per output, cells in board order (board 1, 2, 3, 4). Board 1 routes nothing to HDMI; board 2
// has no S/PDIF or eARC output; HDMI goes to the analog output through the DSP on boards 1 and 3.
constexpr port_row_t kPortTable[] = {
    {QB_AUDIO_SRC_ANALOG,
     {/* analog */ {kPcm, kPcm, kPcm, kPcm},
      /* hdmi   */ {mute(), kPcm, kPcm, kPcm},
      /* spdif  */ {kPcm, mute(), kPcm, kPcm},
      /* earc   */ {kPcm, mute(), kPcm, kPcm}}},
    {QB_AUDIO_SRC_HDMI,
     {/* analog */ {via_dsp(), kHdmiIfStereo, via_dsp(), kHdmiIfStereo},
      /* hdmi   */ {mute(), kHdmiIn, kHdmiIn, kHdmiIn},
      /* spdif  */ {kHdmiIn, mute(), kHdmiIn, kHdmiIn},
      /* earc   */ {kHdmiIn, mute(), kHdmiIn, kHdmiIn}}},
    {QB_AUDIO_SRC_SPDIF,
     {/* analog */ {mute(), mute(), mute(), mute()},
      /* hdmi   */ {mute(), mute(), mute(), mute()},
      /* spdif  */ {mute(), mute(), mute(), mute()},
      /* earc   */ {mute(), mute(), mute(), mute()}}},
    {QB_AUDIO_SRC_EARC,
     {/* analog */ {mute(), kEarcIfStereo, kEarcIfStereo, kEarcIfStereo},
      /* hdmi   */ {mute(), kEarcIn, kEarcIn, kEarcIn},
      /* spdif  */ {mute(), mute(), kEarcIn, kEarcIn},
      /* earc   */ {mute(), mute(), kEarcIn, kEarcIn}}},
    {QB_AUDIO_SRC_STREAM,
     {/* analog */ {unmute_stream(), stream(), stream(), stream()},
      /* hdmi   */ {mute(), stream_or_mute(), stream_or_mute(), stream_or_mute()},
      /* spdif  */ {stream_or_mute(), mute(), stream_or_mute(), stream_or_mute()},
      /* earc   */ {stream(), mute(), stream_or_mute(), stream_or_mute()}}},
    // The DSP and any other source (the last row).
    {PORT_OTHER_SOURCE,
     {/* analog */ {refuse(), refuse(), refuse(), refuse()},
      /* hdmi   */ {refuse(), refuse(), refuse(), refuse()},
      /* spdif  */ {refuse(), refuse(), refuse(), refuse()},
      /* earc   */ {refuse(), refuse(), refuse(), refuse()}}},
};

// One local output: its route register, its channel-status writer (none for HDMI and analog) and
// its mute and unmute functions.
struct port_output_t {
  qb_u8_t route_reg;
  int (*chs_write)(int ch);
  int (*mute)(void);
  int (*unmute)(void);
};

constexpr port_output_t kOutputs[QB_AUDIO_OUTPUT_COUNT] = {
    {FPGA_REG_ROUTE_ANALOG_OUT, nullptr, analog_output_mute, analog_output_unmute},
    {FPGA_REG_ROUTE_HDMI_OUT, nullptr, hdmi_output_mute, hdmi_output_unmute},
    {FPGA_REG_ROUTE_SPDIF_OUT, qb_audio_fpga_spdif_chs_write, spdif_output_mute,
     spdif_output_unmute},
    {FPGA_REG_ROUTE_EARC_OUT, qb_audio_fpga_earc_chs_write, earc_output_mute, earc_output_unmute},
};

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

int port_output_select(int output_index, int src, int sid) {
  const int board = port_board_index();
  if (board == 0 || output_index < 0 || output_index >= QB_AUDIO_OUTPUT_COUNT) {
    return 0;
  }
  const port_output_t& output = kOutputs[output_index];
  const port_cell_t& cell = port_find_row(kPortTable, src).output[output_index][board - 1];
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
