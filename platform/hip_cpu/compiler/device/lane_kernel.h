// The entry that offers a kernel's lane form to the block runner.
#pragma once

#include "compiler/device/lane_atomic.h"

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

// What values across barriers are kept in.
constexpr unsigned cell_size = lanes * sizeof(float);

template <typename T>
constexpr bool in_lanes = false;
template <typename T>
constexpr bool in_lanes<Lanes<T>> = true;

// Cells `first` on of the thread's `all`, where a value of this type moves into them.
template <typename T, unsigned count>
constexpr bool kept_in_cells = in_lanes<T> && sizeof(T) <= count * cell_size;
template <typename T>
static inline T& cell(const Thread& thread, unsigned all, unsigned first) {
  const unsigned long own = thread.number;
  return *reinterpret_cast<T*>(thread.block->cells + own * (all * cell_size) + first * cell_size);
}
template <unsigned all, unsigned first, unsigned count, typename T>
static inline void keep(const Thread& thread, const T& x) {
  if constexpr (kept_in_cells<T, count>) cell<T>(thread, all, first) = x;
}
template <unsigned all, unsigned first, unsigned count, typename T>
static inline void bring(const Thread& thread, T& x) {
  if constexpr (kept_in_cells<T, count>) x = cell<T>(thread, all, first);
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

#define KEVRA_CPU_KEEP(first, count, x) \
  ::kevra_cpu_device::keep<kevra_cells, first, count>(kevra_thread, x)
#define KEVRA_CPU_BRING(first, count, x) \
  ::kevra_cpu_device::bring<kevra_cells, first, count>(kevra_thread, x)

#define KEVRA_CPU_LANE_KERNEL(kernel, cells)                                                     \
  __attribute__((section("kevra_lane_kernels"),                                                  \
                 used)) static const ::kevra_cpu_device::LaneEntry kevra_lane_entry_##kernel = { \
      #kernel, ::kevra_cpu_device::lanes, cells * ::kevra_cpu_device::cell_size,                 \
      ::kevra_cpu_device::LaneKinds<&kernel>::of, &::kevra_cpu_device::Starter<&kernel>::start};

extern "C" __attribute__((visibility("hidden"))) kevra_cpu_device::LaneHooks kevra_lane_hooks = {};

#pragma clang fp contract(fast)

#endif
