// Switching a local output between network streams: the HDMI, eARC and S/PDIF outputs each play
// either their chosen stream (mode 0) or their fallback stream (mode 1). A switch records the mode
// and the stream actually played, routes the stream's serial audio port to the output and, for
// HDMI and eARC, ends the playback run of that stream so it restarts for its new listener.
#pragma once

// Stream modes of an output.
inline constexpr int QB_OUTPUT_STREAM_MODE_NORMAL = 0;
inline constexpr int QB_OUTPUT_STREAM_MODE_FALLBACK = 1;
// Highest stream id.
inline constexpr unsigned QB_OUTPUT_STREAM_SID_MAX = 2;

// Each returns 1 when the output was switched, 0 for a stream id above 2 (logged, nothing
// changed).
int set_output_hdmi_stream(int mode, unsigned sid);
int set_output_earc_stream(int mode, unsigned sid);
int set_output_spdif_stream(int mode, unsigned sid);
