#ifndef LODESTONE_UTIL_ALTYPES_EXTIF_H
#define LODESTONE_UTIL_ALTYPES_EXTIF_H

#include <stdint.h>

/// Types of the host interface, with one width on every platform. For C99 and for C++11 and later; the host
/// includes this header through ALStructs_extif.h.

typedef int8_t alif_int8_t;
typedef uint8_t alif_uint8_t;
typedef int32_t alif_int32_t;
typedef uint32_t alif_uint32_t;
typedef uint64_t alif_uint64_t;

typedef char alif_char_t;      ///< Text, one byte a character; signed or not as the platform has it.
typedef float alif_float32_t;  ///< IEEE 754 single precision, 4 bytes.
typedef double alif_float64_t; ///< IEEE 754 double precision, 8 bytes.

#endif
