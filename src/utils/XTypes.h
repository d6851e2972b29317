// Fixed-width names used in the library's internal signatures (they appear in trace lines).
#pragma once

#include <cstdint>

typedef uint8_t U8;
typedef uint16_t U16;
typedef uint32_t U32;
typedef uint64_t U64;
