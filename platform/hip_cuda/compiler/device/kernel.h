// What stands in front of every kernel: the part of the kernel language that NVRTC spells
// otherwise or leaves to headers of its own.
#pragma once

// A load of a pair of halves is one load.
#define KEVRA_HALF2_ALIGNMENT __align__(4)

// The value of the lane whose number differs by the mask. Every lane of the warp takes part.
template <typename Value>
__device__ __forceinline__ Value __shfl_xor(Value value, int mask, int width = 32) {
  return __shfl_xor_sync(0xffffffffu, value, mask, width);
}

namespace kevra_device {

__device__ __forceinline__ unsigned short half_bits(float value) {
  unsigned short bits;
  asm("cvt.rn.f16.f32 %0, %1;" : "=h"(bits) : "f"(value));
  return bits;
}
__device__ __forceinline__ unsigned short half_bits(double value) {
  unsigned short bits;
  asm("cvt.rn.f16.f64 %0, %1;" : "=h"(bits) : "d"(value));
  return bits;
}
__device__ __forceinline__ float half_value(unsigned short bits) {
  float value;
  asm("cvt.f32.f16 %0, %1;" : "=f"(value) : "h"(bits));
  return value;
}

}  // namespace kevra_device
