// The processor's S/PDIF receiver: its channel-status registers are read through a mapping of
// "/dev/mem" and decoded into a channel record; the thread manager polls for format changes.
#pragma once

#include <cstddef>

#include "qb_audio_misc.h"

inline constexpr const char* NXP_SPDIF_MEM_DEV = "/dev/mem";
inline constexpr long NXP_SPDIF_PHYS_BASE = 0x30090000;
inline constexpr size_t NXP_SPDIF_MAP_SIZE = 255;
inline constexpr size_t NXP_SPDIF_REG_SRCSH = 0x1C;  // received channel status, high word
inline constexpr size_t NXP_SPDIF_REG_SRCSL = 0x20;  // received channel status, low word

// The received channel status as the receiver delivers it: high word (0x1C) in bits 0-31, low
// word (0x20) in bits 32-63; within each byte the first-received bit is the most significant.
union iec60958_channel_status_mode_0_nxp {
  qb_u64_t value;
  struct {
    qb_u8_t data2;
    qb_u8_t data1;
    qb_u8_t data0;
    qb_u8_t Res4;
    qb_u8_t data5;
    qb_u8_t data4;
    qb_u8_t data3;
    qb_u8_t Res5;
  } pktbyte;
  struct {
    qb_u64_t R0 : 2;
    qb_u64_t ChannelNumber : 2;
    qb_u64_t SourceNumber : 4;
    qb_u64_t CategoryCode : 8;
    qb_u64_t Mode : 2;
    qb_u64_t AdditionalFormatInformation : 3;
    qb_u64_t CopyrightInformation : 1;
    qb_u64_t LinearPCM : 1;
    qb_u64_t Use : 1;
    qb_u64_t Res1 : 8;
    qb_u64_t Res2 : 8;
    qb_u64_t OriginalSamplingFrequency : 4;
    qb_u64_t WordLength : 4;
    qb_u64_t ClockAccuracy : 4;
    qb_u64_t SamplingFrequency : 4;
    qb_u64_t Res3 : 8;
  } info;
};
static_assert(sizeof(iec60958_channel_status_mode_0_nxp) == 8, "8-byte receiver view");

// Channel-status bytes 0-4 in IEC 60958-3 order, bit 0 first: the layout of ChStat.
union iec60958_channel_status_mode_0 {
  struct {
    qb_u8_t data[5];
  } pktbyte;
  struct {
    qb_u8_t Use : 1;
    qb_u8_t LinearPCM : 1;
    qb_u8_t CopyrightInformation : 1;
    qb_u8_t AdditionalFormatInformation : 3;
    qb_u8_t Mode : 2;
    qb_u8_t CategoryCode : 8;
    qb_u8_t SourceNumber : 4;
    qb_u8_t ChannelNumber : 2;
    qb_u8_t R0 : 2;
    qb_u8_t SamplingFrequency : 4;
    qb_u8_t ClockAccuracy : 4;
    qb_u8_t WordLength : 4;
    qb_u8_t OriginalSamplingFrequency : 4;
  } info;
};
static_assert(sizeof(iec60958_channel_status_mode_0) == 5, "5 channel-status bytes");

// Decodes the receiver registers into rec. 1 decoded; 0 without a mapping or record.
int qb_misc_nxp_spdif_register_map_unpdate(qb_audio_info* rec);
// 1 when the receiver's format changed since the last accepted one (which it then replaces).
int is_qb_misc_nxp_spdif_register_info_change(void);
// The receiver's last accepted format (live record; use the copy function from other threads).
qb_audio_info* qb_misc_audio_spdif_info_get(void);
// Race-free copy of the receiver's last accepted format. 1, or 0 for null out.
int qb_misc_audio_spdif_info_copy(qb_audio_info* out);
