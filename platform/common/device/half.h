// Half precision: 16 bits in memory, arithmetic in float, every result rounded to nearest even. The
// device gives kevra_device::half_bits, from float and from double, half_value, and the alignment
// of a pair.
#pragma once

struct __half {
  __half() = default;
  __device__ __half(float value) : bits(kevra_device::half_bits(value)) {}
  __device__ __half(double value) : bits(kevra_device::half_bits(value)) {}
  __device__ __half(int value) : __half(static_cast<double>(value)) {}
  __device__ __half(unsigned value) : __half(static_cast<double>(value)) {}
  __device__ __half(long long value) : __half(static_cast<double>(value)) {}
  __device__ operator float() const { return kevra_device::half_value(bits); }
  unsigned short bits;
};
typedef __half half;

struct KEVRA_HALF2_ALIGNMENT __half2 {
  __half x, y;
};
typedef __half2 half2;

__device__ inline __half __float2half(float value) {
  return __half(value);
}
__device__ inline __half __float2half_rn(float value) {
  return __half(value);
}
__device__ inline __half __double2half(double value) {
  return __half(value);
}
__device__ inline float __half2float(__half value) {
  return value;
}
__device__ inline unsigned short __half_as_ushort(__half value) {
  return value.bits;
}
__device__ inline __half __ushort_as_half(unsigned short bits) {
  __half value;
  value.bits = bits;
  return value;
}

__device__ inline __half2 __halves2half2(__half x, __half y) {
  return {x, y};
}
__device__ inline __half2 make_half2(__half x, __half y) {
  return {x, y};
}
__device__ inline __half2 __half2half2(__half value) {
  return {value, value};
}
__device__ inline __half2 __float2half2_rn(float value) {
  return __half2half2(__half(value));
}
__device__ inline __half2 __floats2half2_rn(float x, float y) {
  return {__half(x), __half(y)};
}
__device__ inline __half __low2half(__half2 value) {
  return value.x;
}
__device__ inline __half __high2half(__half2 value) {
  return value.y;
}
__device__ inline float __low2float(__half2 value) {
  return value.x;
}
__device__ inline float __high2float(__half2 value) {
  return value.y;
}
__device__ inline float2 __half22float2(__half2 value) {
  return {value.x, value.y};
}

// A float holds sums and products of halves well enough that rounding it once more gives the
// correctly rounded half. Without contraction: processors with half arithmetic would fuse a
// product with the sum behind it, others could not. Where the conversion is assembly, nothing can.
#ifdef __clang__
#define KEVRA_UNFUSED _Pragma("clang fp contract(off)")
#else
#define KEVRA_UNFUSED
#endif
#define KEVRA_HALF_OPERATION(name, sign)                    \
  __device__ inline __half name(__half a, __half b) {       \
    KEVRA_UNFUSED return __half(float(a) sign float(b));    \
  }                                                         \
  __device__ inline __half2 name##2(__half2 a, __half2 b) { \
    return {name(a.x, b.x), name(a.y, b.y)};                \
  }
KEVRA_HALF_OPERATION(__hadd, +)
KEVRA_HALF_OPERATION(__hsub, -)
KEVRA_HALF_OPERATION(__hmul, *)
