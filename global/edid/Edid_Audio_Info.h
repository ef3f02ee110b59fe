// The sink's audio capabilities as the daemon reads them from the TV's EDID: one entry per Short
// Audio Descriptor of the CEA-861 extension, at most ten.
#pragma once

#include "qb_types.h"

// Audio format codes. 0-15 are the CEA-861 audio format codes; ENUM_HBR and ENUM_UNKNOWN are the
// system's own and never come out of an EDID. Descriptor codes 16-31 are stored as they stand.
enum E_Audio_Format : qb_u32_t {
  ENUM_RESERVED0 = 0,
  ENUM_LPCM = 1,
  ENUM_AC3 = 2,
  ENUM_MPEG1 = 3,
  ENUM_MP3 = 4,
  ENUM_MPEG2 = 5,
  ENUM_AAC = 6,
  ENUM_DTS = 7,
  ENUM_ATRAC = 8,
  ENUM_ONE_BIT_AUDIO = 9,
  ENUM_DDP = 10,
  ENUM_DTS_HD = 11,
  ENUM_MAT = 12,
  ENUM_DST = 13,
  ENUM_WMA_PRO = 14,
  ENUM_RESERVED15 = 15,
  ENUM_HBR = 254,
  ENUM_UNKNOWN = 255,
};

// The CEA-861 sample-rate bits of descriptor byte 2; a capability holds an OR of them (all eight
// bits of the byte are kept as they stand).
enum E_Audio_Samplerate_Flag : qb_u32_t {
  ENUM_SAMPLERATE_32_FLAG = 1,
  ENUM_SAMPLERATE_44_1_FLAG = 2,
  ENUM_SAMPLERATE_48_FLAG = 4,
  ENUM_SAMPLERATE_88_2_FLAG = 8,
  ENUM_SAMPLERATE_96_FLAG = 16,
  ENUM_SAMPLERATE_176_4_FLAG = 32,
  ENUM_SAMPLERATE_192_FLAG = 64,
};

// One capability of the sink.
typedef struct T_Audio_Info_ {
  E_Audio_Format eAudioFomat;                // the descriptor's format code
  E_Audio_Samplerate_Flag eSampleRateFlags;  // sample-rate bits
  qb_u32_t u8MaxChannels;                    // 1-8
  // LPCM: sample sizes (bit 0 16-bit, bit 1 20-bit, bit 2 24-bit); codes 2-8: maximum bit rate in
  // kHz; 15: the extension type code; any other code: the descriptor's third byte as it stands.
  qb_u32_t u8BitFlag;
} T_Audio_Info;

// Room in the capability list: one full Audio Data Block of ten descriptors.
inline constexpr qb_u32_t EDID_AUDIO_INFO_MAX_NUM = 10;

// The sink's capability list; entries beyond u8AudioInfoNum are zero.
typedef struct T_Edid_Audio_Info_ {
  qb_u8_t u8AudioInfoNum;
  T_Audio_Info ptAudioInfo[EDID_AUDIO_INFO_MAX_NUM];
} T_Edid_Audio_Info;
