// Status reports to cmd_core: a JSON text describing the reported inputs (their channel records)
// and outputs (the record of the network stream each one actually plays), sent in a TLV message
// as one UDP datagram to 127.0.0.1:9995.
//
// The output mask update_chs collects the outputs whose played stream or format changed since
// the last report; it is guarded by a recursive mutex.
#pragma once

#include <json/value.h>

#include <string>

// Report mask bits (bit n stands for port n).
inline constexpr int QB_REPORT_PORT_ANALOG = 1;
inline constexpr int QB_REPORT_PORT_EARC = 2;
inline constexpr int QB_REPORT_PORT_HDMI = 3;
inline constexpr int QB_REPORT_PORT_SPDIF = 5;
// Every port: bits 1, 2, 3 and 5.
inline constexpr int QB_REPORT_ALL_PORTS = 46;

// Builds and sends a report of the given inputs and the pending outputs, then clears the pending
// outputs. Nothing happens when both masks are 0. Returns the result of ReportAudioMsg (0 when
// nothing was sent).
int reportDetailsAudioStatus(int inputs);
// The report text; empty when neither mask yields an entry.
void GetReportMsg(std::string& out, int inputs, int outputs);
// The entries of the input and output arrays (appended to out).
void GetInputReportMsg(Json::Value& out, int inputs);
void GetOutputReportMsg(Json::Value& out, int outputs);
// Sends a report text. 1 when the datagram was handed to the socket, 0 otherwise.
int ReportAudioMsg(const std::string& text);

// Test hook: closes the report socket; the next report creates a new one.
void qb_report_socket_reset(void);

// The pending output mask.
void set_update_chs(int value);
void set_update_chs_or(int bit);
int get_update_chs(void);
