// Half precision: 16 bits in memory, arithmetic in float, every result rounded to nearest even.
#pragma once

#include "compiler/device/vector.h"

namespace kevra_cpu_device {

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

// To float with the last bit sticky, so that the step to half rounds as if it were direct.
static inline float sticky_float(double value) {
  float nearest = static_cast<float>(value);
  const double back = nearest;
  unsigned bits = __builtin_bit_cast(unsigned, nearest);
  if (back == value || back != back || bits & 1) return nearest;
  const bool away = (back > value) == (value > 0);  // rounded away from zero
  return __builtin_bit_cast(float, away ? bits - 1 : bits + 1);
}

}  // namespace kevra_cpu_device

struct __half {
  __half() = default;
  __half(float value) : bits(kevra_cpu_device::half_bits(value)) {}
  __half(double value) : __half(kevra_cpu_device::sticky_float(value)) {}
  __half(int value) : __half(static_cast<double>(value)) {}
  __half(unsigned value) : __half(static_cast<double>(value)) {}
  __half(long long value) : __half(static_cast<double>(value)) {}
  operator float() const { return kevra_cpu_device::half_value(bits); }
  unsigned short bits;
};
typedef __half half;

struct __half2 {
  __half x, y;
};
typedef __half2 half2;

static inline __half __float2half(float value) {
  return __half(value);
}
static inline __half __float2half_rn(float value) {
  return __half(value);
}
static inline __half __double2half(double value) {
  return __half(value);
}
static inline float __half2float(__half value) {
  return value;
}
static inline unsigned short __half_as_ushort(__half value) {
  return value.bits;
}
static inline __half __ushort_as_half(unsigned short bits) {
  return __builtin_bit_cast(__half, bits);
}

static inline __half2 __halves2half2(__half x, __half y) {
  return {x, y};
}
static inline __half2 make_half2(__half x, __half y) {
  return {x, y};
}
static inline __half2 __half2half2(__half value) {
  return {value, value};
}
static inline __half2 __float2half2_rn(float value) {
  return __half2half2(__half(value));
}
static inline __half2 __floats2half2_rn(float x, float y) {
  return {__half(x), __half(y)};
}
static inline __half __low2half(__half2 value) {
  return value.x;
}
static inline __half __high2half(__half2 value) {
  return value.y;
}
static inline float __low2float(__half2 value) {
  return value.x;
}
static inline float __high2float(__half2 value) {
  return value.y;
}
static inline float2 __half22float2(__half2 value) {
  return {value.x, value.y};
}

// A float holds sums and products of halves well enough that rounding it once more gives the
// correctly rounded half. Without contraction: processors with half arithmetic would fuse a
// product with the sum behind it, others could not.
#define KEVRA_CPU_HALF_OPERATION(name, sign)                                 \
  static inline __half name(__half a, __half b) {                            \
    _Pragma("clang fp contract(off)") return __half(float(a) sign float(b)); \
  }                                                                          \
  static inline __half2 name##2(__half2 a, __half2 b) {                      \
    return {name(a.x, b.x), name(a.y, b.y)};                                 \
  }
KEVRA_CPU_HALF_OPERATION(__hadd, +)
KEVRA_CPU_HALF_OPERATION(__hsub, -)
KEVRA_CPU_HALF_OPERATION(__hmul, *)
