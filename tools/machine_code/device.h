// The device language in front of a kernel that is compiled for its machine code alone, without a
// HIP installation or a device library. Bodies have the weight of the real ones; none is ever run.
#pragma once

#define __global__ __attribute__((global))
#define __device__ __attribute__((device))
#define __host__ __attribute__((host))
#define __constant__ __attribute__((constant))
#define __shared__ __attribute__((shared))
#define __forceinline__ inline __attribute__((always_inline))
#define __launch_bounds__(threads) __attribute__((amdgpu_flat_work_group_size(1, threads)))
#define KEVRA_DEVICE static __device__ __forceinline__

// Indices: members that read a register of the launch, without storage of their own.
#define KEVRA_INDEX(Name, builtin)     \
  struct Name {                        \
    KEVRA_INDEX_MEMBER(x, builtin##_x) \
    KEVRA_INDEX_MEMBER(y, builtin##_y) \
    KEVRA_INDEX_MEMBER(z, builtin##_z) \
  };
#define KEVRA_INDEX_MEMBER(axis, builtin)                  \
  __declspec(property(get = get_##axis)) unsigned axis;    \
  __device__ __forceinline__ unsigned get_##axis() const { \
    return builtin();                                      \
  }
KEVRA_INDEX(KevraThreadIndex, __builtin_amdgcn_workitem_id)
KEVRA_INDEX(KevraBlockIndex, __builtin_amdgcn_workgroup_id)
KEVRA_INDEX(KevraBlockSize, __builtin_amdgcn_workgroup_size)
extern const __device__ __attribute__((weak)) KevraThreadIndex threadIdx;
extern const __device__ __attribute__((weak)) KevraBlockIndex blockIdx;
extern const __device__ __attribute__((weak)) KevraBlockSize blockDim;

KEVRA_DEVICE void __syncthreads() {
  __builtin_amdgcn_fence(__ATOMIC_RELEASE, "workgroup");
  __builtin_amdgcn_s_barrier();
  __builtin_amdgcn_fence(__ATOMIC_ACQUIRE, "workgroup");
}

KEVRA_DEVICE int kevra_lane() {
  const int low = __builtin_amdgcn_mbcnt_lo(~0u, 0u);
  return __builtin_amdgcn_wavefrontsize() == 64 ? __builtin_amdgcn_mbcnt_hi(~0u, low) : low;
}
KEVRA_DEVICE int __shfl_xor(int value, int mask, int width) {
  const int self = kevra_lane();
  const int other = self ^ mask;
  const int lane = other >= ((self + width) & ~(width - 1)) ? self : other;
  return __builtin_amdgcn_ds_bpermute(lane << 2, value);
}
KEVRA_DEVICE float __shfl_xor(float value, int mask, int width) {
  return __builtin_bit_cast(float, __shfl_xor(__builtin_bit_cast(int, value), mask, width));
}
KEVRA_DEVICE double __shfl_xor(double value, int mask, int width) {
  const long long bits = __builtin_bit_cast(long long, value);
  const unsigned low = __shfl_xor((int)bits, mask, width);
  const unsigned high = __shfl_xor((int)(bits >> 32), mask, width);
  return __builtin_bit_cast(double, (unsigned long long)high << 32 | low);
}

template <class T>
KEVRA_DEVICE T atomicAdd(T* target, T value) {
  return __hip_atomic_fetch_add(target, value, __ATOMIC_RELAXED, __HIP_MEMORY_SCOPE_AGENT);
}
KEVRA_DEVICE unsigned __brev(unsigned x) {
  return __builtin_bitreverse32(x);
}

// Vector types are aligned as a whole, which is what allows one wide access.
#define KEVRA_VECTORS(Element, Name)                                                \
  struct __attribute__((aligned(2 * sizeof(Element)))) Name##2 {                    \
    Element x, y;                                                                   \
  };                                                                                \
  struct Name##3 {                                                                  \
    Element x, y, z;                                                                \
  };                                                                                \
  struct __attribute__((aligned(16))) Name##4 {                                     \
    Element x, y, z, w;                                                             \
  };                                                                                \
  KEVRA_DEVICE Name##2 make_##Name##2(Element x, Element y) {                       \
    return {x, y};                                                                  \
  }                                                                                 \
  KEVRA_DEVICE Name##3 make_##Name##3(Element x, Element y, Element z) {            \
    return {x, y, z};                                                               \
  }                                                                                 \
  KEVRA_DEVICE Name##4 make_##Name##4(Element x, Element y, Element z, Element w) { \
    return {x, y, z, w};                                                            \
  }
KEVRA_VECTORS(float, float)
KEVRA_VECTORS(double, double)
KEVRA_VECTORS(int, int)
KEVRA_VECTORS(unsigned, uint)

struct __half {
  __half() = default;
  __device__ __forceinline__ __half(_Float16 value) : bits(value) {}
  __device__ __forceinline__ __half(float value) : bits(value) {}
  __device__ __forceinline__ __half(double value) : bits(value) {}
  __device__ __forceinline__ __half(int value) : bits(value) {}
  __device__ __forceinline__ operator float() const { return bits; }
  _Float16 bits;
};
struct __attribute__((aligned(4))) __half2 {
  __half x, y;
};
typedef _Float16 KevraHalves __attribute__((ext_vector_type(2)));

KEVRA_DEVICE __half __float2half(float x) {
  return x;
}
KEVRA_DEVICE __half __float2half_rn(float x) {
  return x;
}
KEVRA_DEVICE float __half2float(__half x) {
  return x;
}
KEVRA_DEVICE __half2 __floats2half2_rn(float x, float y) {
  return {x, y};
}
KEVRA_DEVICE __half2 __float2half2_rn(float x) {
  return {x, x};
}
KEVRA_DEVICE __half2 __halves2half2(__half x, __half y) {
  return {x, y};
}
KEVRA_DEVICE __half2 __half2half2(__half x) {
  return {x, x};
}
KEVRA_DEVICE __half __low2half(__half2 v) {
  return v.x;
}
KEVRA_DEVICE __half __high2half(__half2 v) {
  return v.y;
}
KEVRA_DEVICE float __low2float(__half2 v) {
  return v.x;
}
KEVRA_DEVICE float __high2float(__half2 v) {
  return v.y;
}
KEVRA_DEVICE float2 __half22float2(__half2 v) {
  return {v.x, v.y};
}
// As a native vector, so that one packed instruction does both.
#define KEVRA_HALF_OPERATION(name, sign)                                                      \
  KEVRA_DEVICE __half name(__half a, __half b) {                                              \
    return a.bits sign b.bits;                                                                \
  }                                                                                           \
  KEVRA_DEVICE __half2 name##2(__half2 a, __half2 b) {                                        \
    return __builtin_bit_cast(                                                                \
        __half2, __builtin_bit_cast(KevraHalves, a) sign __builtin_bit_cast(KevraHalves, b)); \
  }
KEVRA_HALF_OPERATION(__hadd, +)
KEVRA_HALF_OPERATION(__hsub, -)
KEVRA_HALF_OPERATION(__hmul, *)

#include "device_math.h"
