// Conversions between float and the 16 bits of a half, rounded to nearest even.
#pragma once

#include "compiler/device/vector.h"

// Like the other vectors, a pair may stand wherever one of its elements may.
#define KEVRA_HALF2_ALIGNMENT

namespace kevra_device {

// The compiler's own conversions are instructions only where the processor has them; elsewhere
// they are calls into its support library, which kernels are not linked with.
#if defined(__F16C__) || defined(__aarch64__)

static inline unsigned short half_bits(float value) {
  return __builtin_bit_cast(unsigned short, static_cast<_Float16>(value));
}
static inline float half_value(unsigned short bits) {
  return static_cast<float>(__builtin_bit_cast(_Float16, bits));
}

#else

static inline unsigned short half_bits(float value) {
  const unsigned bits = __builtin_bit_cast(unsigned, value);
  const unsigned sign = bits >> 16 & 0x8000, magnitude = bits & 0x7fffffff;
  if (magnitude > 0x7f800000) return sign | 0x7e00 | (magnitude >> 13 & 0x3ff);  // not a number
  if (magnitude >= 0x477ff000) return sign | 0x7c00;  // rounds to infinity
  if (magnitude < 0x38800000) {
    // Subnormal: adding 0.5 leaves the rounded multiple of 2^-24 in the low bits.
    const float shifted = __builtin_bit_cast(float, magnitude) + 0.5f;
    return sign | (__builtin_bit_cast(unsigned, shifted) - 0x3f000000);
  }
  const unsigned rounded = magnitude + 0xfff + (magnitude >> 13 & 1);
  return sign | (rounded - 0x38000000) >> 13;
}

static inline float half_value(unsigned short bits) {
  const unsigned sign = unsigned(bits & 0x8000) << 16, magnitude = bits & 0x7fff;
  if (magnitude >= 0x7c00)
    return __builtin_bit_cast(
        float, sign | 0x7f800000 | (magnitude & 0x3ff) << 13 | (magnitude > 0x7c00 ? 0x400000 : 0));
  if (magnitude < 0x400) {
    const float value = float(magnitude) * 0x1p-24f;
    return sign ? -value : value;
  }
  return __builtin_bit_cast(float, sign | ((magnitude << 13) + 0x38000000));
}

#endif

// Through a float with the last bit sticky, so that the second step rounds as if it were direct.
static inline unsigned short half_bits(double value) {
  float nearest = static_cast<float>(value);
  const double back = nearest;
  unsigned bits = __builtin_bit_cast(unsigned, nearest);
  if (back == value || back != back || bits & 1) return half_bits(nearest);
  const bool away = (back > value) == (value > 0);  // rounded away from zero
  return half_bits(__builtin_bit_cast(float, away ? bits - 1 : bits + 1));
}

}  // namespace kevra_device
