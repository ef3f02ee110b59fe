// The network audio datagram: a 56-byte little-endian transport header followed by up to 1408
// bytes of interleaved PCM. The header is sent as the in-memory record of the little-endian host.
// Also the small code tables that turn the header's format codes into EDID rate flags, mix types
// and encoding names.
#pragma once

#include <atomic>
#include <cstddef>

#include "qb_types.h"

// Size of the transport header on the wire.
inline constexpr size_t AUDIO_TRANSPORT_HEAD_SIZE = 56;
// Largest PCM payload of one datagram.
inline constexpr int AUDIO_PKT_PAYLOAD_SIZE = 1408;
// Values the sender writes into the fixed header fields.
inline constexpr qb_u32_t AUDIO_HEAD_MAGIC = 0x49325344;
inline constexpr qb_u8_t AUDIO_HEAD_IO_IN_USE = 2;

typedef struct audio_transport_head_t {
  qb_u32_t Magic;
  qb_u32_t From;
  qb_u32_t Cfg_Change_Number;
  qb_u32_t Packet_Size;
  qb_u32_t cts;
  qb_u32_t HDCP2_Encrypted;
  qb_u8_t Input_Controller[8];
  qb_u8_t Audio_On;
  qb_u8_t Sample_Frequency;
  qb_u8_t Channels;
  qb_u8_t Sample_Size;
  qb_u8_t IO_In_Use;
  qb_u8_t Enable_Upstream;
  qb_u8_t Down_Sampling;
  qb_u8_t Mode_16bits;
  qb_u8_t Audio_Type;
  qb_u8_t SPDIF;
  qb_u8_t Audio_Info_Frame[5];
  qb_u8_t IEC60958_Channel_Stats[5];
  qb_u32_t Rolling_Sample_Data_Size_Total;
} audio_transport_head_t;

static_assert(sizeof(audio_transport_head_t) == AUDIO_TRANSPORT_HEAD_SIZE, "transport header is 56 bytes");
// Every field is naturally aligned, so the size fixes the layout; the byte fields start at 32.
static_assert(offsetof(audio_transport_head_t, Audio_On) == 32);
static_assert(offsetof(audio_transport_head_t, Rolling_Sample_Data_Size_Total) == 52);

// Process-wide header change counter shared by every stream (atomic: several capture threads
// refresh their headers at once).
extern std::atomic<qb_u32_t> g_s32Audio_change;

// Channel tags written into byte 3 of every 32-bit sample (channel 0 is always 0x00).
inline constexpr qb_u8_t AUDIO_CHANNEL_TAGS_8CH[8] = {0x00, 0x40, 0x80, 0xC0, 0x20, 0x60, 0xA0, 0xE0};
inline constexpr qb_u8_t AUDIO_CHANNEL_TAGS_2CH[2] = {0x00, 0x20};
inline constexpr qb_u8_t AUDIO_CHANNEL0_TAG = 0x00;

// Writes the channel tags into a block of interleaved 32-bit samples that starts on a frame
// boundary; only 2- and 8-channel streams are tagged. Returns 1 when tags were written.
int audio_channel_tags_write(qb_u8_t* data, size_t bytes, unsigned channels, size_t bits_per_sample);

// EDID sample-rate flag of a sample-frequency code.
int get_audio_samplerate(qb_u8_t sample_frequency);

// Decoder stream-type code (Audio_Info_Frame[0]) to mix type.
typedef enum {
  MIX_AUD_LPCM = 0,
  MIX_AUD_AAC = 1,
  MIX_AUD_AC3 = 2,
  MIX_AUD_DDP = 3,
  MIX_AUD_TRUEHD = 4,
  MIX_AUD_DTS = 5,
  MIX_AUD_DTSHD = 6,
  MIX_AUD_DTDHDMA = 7,
  MIX_AUD_HDX = 8,
  MIX_AUD_HDX2 = 9,
  MIX_AUD_INVALID = 10,
} MIX_AUD_E;

MIX_AUD_E get_audio_type_from_dsp(int code);
// Pass-through support of a decoder code by the S/PDIF and ARC outputs.
bool spdif_is_support(int code);
bool arc_is_support(int code);
// Names of the encodings.
const char* audio_type_name(int audio_type);    // "LPCM", "NLPCM", "DSD", "HBR", "UNKNOWN"
const char* audio_dsp_encoding_name(int code);  // decoder code to encoding name
