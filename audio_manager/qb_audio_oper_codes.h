// The format code tables of the transport header in one place: sample-frequency codes to ALSA
// rates and EDID rate flags, channel-count and sample-size codes to ALSA parameters, audio types
// and decoder stream-type codes to encoding names and mix types, sink capabilities to mix types,
// and the pass-through support of the S/PDIF and ARC outputs. The tables live with the transport
// header (qb_audio_oper_packet) and the output decision (qb_audio_oper_format).
#pragma once

#include "qb_audio_oper.h"
#include "qb_audio_oper_format.h"
#include "qb_audio_oper_packet.h"
