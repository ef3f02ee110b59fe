// The debug request pipe: a word written into "/tmp/request" makes the daemon write a dump of its
// state into "/tmp/dump-status.txt"; "/tmp/request-ok" is present again once the dump is complete.
#pragma once

#include <cstdio>

#include "qb_audio_protocol.h"  // the files of the pipe protocol
#include "qb_types.h"

// Serves the pipe until it cannot be created or opened; returns 0 then.
int handle_cmd(void);

// Serves one request word (what one read returned): removes the marker, writes the dumps asked
// for, recreates the marker.
void qb_debug_serve_request(const char* text);

// Writes the FPGA matrix section; nothing for an empty file.
void dump_fpga_status(FILE* file);

// Writes one route line of the FPGA section.
void dump_detail_info(FILE* file, qb_u8_t reg, qb_u8_t value, qb_u8_t enable);

// Reads one 8-bit register of an 8-bit-addressed device on an open bus descriptor. 0 or -1 (out
// unchanged, logged).
int i2c_read_a8d8(int fd, qb_u8_t addr, qb_u8_t reg, qb_u8_t* out);
