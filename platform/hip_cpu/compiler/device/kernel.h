// Indices of the kernel language, and the entry that offers a kernel to the
// block runner. `kevra_thread` is the first parameter of every kernel.
#pragma once

#include "compiler/device/check.h"
#include "compiler/device/coroutine.h"

// What the rewriting makes of shared arrays; their types stand before these.
#define KEVRA_CPU_DYNAMIC_SHARED(name) \
  auto& name = *reinterpret_cast<kevra_type_##name*>(kevra_thread.block->shared)
#define KEVRA_CPU_STATIC_SHARED(name, taken)                                                   \
  constexpr unsigned kevra_begin_##name =                                                      \
      (taken + KEVRA_CPU_LANES * 16 - 1) / (KEVRA_CPU_LANES * 16) * KEVRA_CPU_LANES * 16;      \
  constexpr unsigned kevra_end_##name = kevra_begin_##name + sizeof(kevra_type_##name);        \
  static_assert(kevra_end_##name <= KEVRA_CPU_LANES * ::kevra_cpu_device::static_shared_bytes, \
                "a kernel has at most 64 KiB of static shared memory");                        \
  auto& name = *reinterpret_cast<kevra_type_##name*>(kevra_thread.block->static_shared +       \
                                                     kevra_begin_##name)

#define threadIdx (kevra_thread.thread_index)
#ifndef KEVRA_CPU_LANE_CODE
#define blockIdx (kevra_thread.block_index)
#endif
#define blockDim (kevra_thread.block_size)
#define gridDim (kevra_thread.grid_size)
#define warpSize 32

namespace kevra_cpu_device {

template <typename Number, Number...>
struct Sequence {};

template <typename... Types>
struct ArgumentLayout {
  Argument of[sizeof...(Types) + 1] = {};

  constexpr ArgumentLayout() {
    unsigned end = 0, i = 0;
    ((of[i].offset = (end + alignof(Types) - 1) / alignof(Types) * alignof(Types),
      of[i].bytes = sizeof(Types), end = of[i].offset + sizeof(Types), ++i),
     ...);
  }
};

template <auto kernel, typename Kernel = decltype(kernel)>
struct Starter;

template <auto kernel, typename Result, typename... Types>
struct Starter<kernel, Result (*)(Thread, Types...)> {
  static constexpr ArgumentLayout<Types...> layout{};
  static constexpr unsigned arguments = sizeof...(Types);
  static constexpr bool suspends = __is_same(Result, Task);

  KEVRA_CPU_UNTRACED static void start(Block* block, Index3 first, unsigned count) {
    start(block, first, count, __make_integer_seq<Sequence, unsigned, sizeof...(Types)>{});
  }

  template <unsigned... I>
  KEVRA_CPU_UNTRACED static void start(Block* block, Index3 first, unsigned count,
                                       Sequence<unsigned, I...>) {
    run(block, first, count,
        *reinterpret_cast<const Types*>(block->arguments + layout.of[I].offset)...);
  }

  KEVRA_CPU_UNTRACED static inline __attribute__((always_inline)) void run(Block* block,
                                                                           Index3 first,
                                                                           unsigned count,
                                                                           Types... arguments) {
    const unsigned number = (first.z * block->size.y + first.y) * block->size.x + first.x;
    Thread thread(block, number, first);
    for (unsigned i = 0; i < count; ++i) {
      thread.thread_index.x = first.x + i;
      thread.number = number + i;
      if constexpr (suspends) {
        block->frames[number + i] = kernel(thread, arguments...).frame;
        block->places[number + i] = block->place;
      } else {
        kernel(thread, arguments...);
      }
    }
  }
};

}  // namespace kevra_cpu_device

#ifndef KEVRA_CPU_LANE_CODE

// Stands behind every kernel. The linker gathers the entries of one text into one array.
#define KEVRA_CPU_KERNEL(kernel, bound)                                                       \
  __attribute__((section("kevra_kernels"),                                                    \
                 used)) static const ::kevra_cpu_device::KernelEntry kevra_entry_##kernel = { \
      #kernel,                                                                                \
      bound,                                                                                  \
      ::kevra_cpu_device::Starter<&kernel>::suspends,                                         \
      ::kevra_cpu_device::Starter<&kernel>::arguments,                                        \
      ::kevra_cpu_device::Starter<&kernel>::layout.of,                                        \
      &::kevra_cpu_device::Starter<&kernel>::start};

extern "C" {
extern const kevra_cpu_device::KernelEntry __start_kevra_kernels[]
    __attribute__((weak, visibility("hidden")));
extern const kevra_cpu_device::KernelEntry __stop_kevra_kernels[]
    __attribute__((weak, visibility("hidden")));
extern const kevra_cpu_device::LaneEntry __start_kevra_lane_kernels[]
    __attribute__((weak, visibility("hidden")));
extern const kevra_cpu_device::LaneEntry __stop_kevra_lane_kernels[]
    __attribute__((weak, visibility("hidden")));
extern kevra_cpu_device::LaneHooks kevra_lane_hooks __attribute__((weak, visibility("hidden")));
#ifdef KEVRA_CPU_CHECK
extern kevra_cpu_device::CheckHooks kevra_check_hooks;
#endif
__attribute__((
    visibility("default"))) extern const kevra_cpu_device::KernelTable kevra_kernel_table;
const kevra_cpu_device::KernelTable kevra_kernel_table = {
    __start_kevra_kernels,      __stop_kevra_kernels,
#ifdef KEVRA_CPU_CHECK
    &kevra_check_hooks,
#else
                                                          nullptr,
#endif
    __start_kevra_lane_kernels, __stop_kevra_lane_kernels, &kevra_lane_hooks};
}

#endif

// In the kernel's own text a product fuses with a sum wherever it can, as on a GPU.
#pragma clang fp contract(fast)
