// The entry that offers a kernel's lane form to the block runner.
#pragma once

#include "compiler/device/lane_memory.h"

#ifdef KEVRA_CPU_LANE_CODE

namespace kevra_cpu_device {

// Neighbouring blocks differ in x alone.
struct LaneBlockIndex {
  Affine<unsigned> x;
  unsigned y, z;
};
static inline LaneBlockIndex lane_block_index(const Index3& first) {
  return {{first.x, 1u}, first.y, first.z};
}

template <typename T>
constexpr char argument_kind = 'v';
template <typename T>
constexpr char argument_kind<T*> = 'o';
template <typename T>
constexpr char argument_kind<const T*> = 'i';

template <auto kernel, typename Kernel = decltype(kernel)>
struct LaneKinds;
template <auto kernel, typename... Types>
struct LaneKinds<kernel, Task (*)(Thread, Types...)> {
  static constexpr char of[] = {argument_kind<Types>..., 0};
};

}  // namespace kevra_cpu_device

#define blockIdx (::kevra_cpu_device::lane_block_index(kevra_thread.block_index))

#define KEVRA_CPU_LANE_KERNEL(kernel)                                                            \
  __attribute__((section("kevra_lane_kernels"),                                                  \
                 used)) static const ::kevra_cpu_device::LaneEntry kevra_lane_entry_##kernel = { \
      #kernel, ::kevra_cpu_device::lanes, ::kevra_cpu_device::LaneKinds<&kernel>::of,            \
      &::kevra_cpu_device::Starter<&kernel>::start};

extern "C" __attribute__((visibility("hidden"))) kevra_cpu_device::LaneHooks kevra_lane_hooks = {};

#pragma clang fp contract(fast)

#endif
