#ifndef LODESTONE_UTIL_ALTYPES_H
#define LODESTONE_UTIL_ALTYPES_H

#include <stdint.h>
#include <type_traits>

#include "ALTypes_extif.h"

/// The host interface's types under their short names. `int32_t`, `uint32_t` and `uint8_t` are those of
/// <stdint.h> already.

typedef alif_char_t char_t;
typedef alif_float32_t float32_t;
typedef alif_float64_t float64_t;

static_assert(std::is_same<alif_int32_t, int32_t>::value, "the short name is the host's type");
static_assert(std::is_same<alif_uint32_t, uint32_t>::value, "the short name is the host's type");
static_assert(std::is_same<alif_uint8_t, uint8_t>::value, "the short name is the host's type");
static_assert(sizeof(char_t) == 1, "sizes in characters are sizes in bytes");
static_assert(sizeof(float32_t) == 4, "single precision on the wire");
static_assert(sizeof(float64_t) == 8, "double precision on the wire");

#endif
