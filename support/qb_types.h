// Fixed-width scalar names used by every module of the daemon.
#pragma once

#include <cstdint>

typedef int8_t qb_s8_t;
typedef uint8_t qb_u8_t;
typedef int16_t qb_s16_t;
typedef uint16_t qb_u16_t;
typedef int32_t qb_s32_t;
typedef uint32_t qb_u32_t;
typedef int64_t qb_s64_t;
typedef uint64_t qb_u64_t;
