// Check mode: the compiler calls these at every load and store of the kernel's own code, and
// they pass the address on to the checker.
#pragma once

#include "compiler/device/block.h"

#ifdef KEVRA_CPU_CHECK

// A function's loads and stores follow it into another one, so what is not to be traced and what
// is must stay functions of their own.
#define KEVRA_CPU_UNTRACED __attribute__((no_sanitize("coverage")))
#define KEVRA_CPU_UNCHECKED KEVRA_CPU_UNTRACED __attribute__((noinline))
#define KEVRA_CPU_KERNEL_FUNCTION static __attribute__((noinline))

extern "C" {
kevra_cpu_device::CheckHooks kevra_check_hooks = {};

#define KEVRA_CPU_TRACE(bytes)                                                 \
  KEVRA_CPU_UNCHECKED void __sanitizer_cov_load##bytes(const void* address) {  \
    kevra_check_hooks.load(address, bytes, __builtin_return_address(0));       \
  }                                                                            \
  KEVRA_CPU_UNCHECKED void __sanitizer_cov_store##bytes(const void* address) { \
    kevra_check_hooks.store(address, bytes, __builtin_return_address(0));      \
  }
KEVRA_CPU_TRACE(1)
KEVRA_CPU_TRACE(2)
KEVRA_CPU_TRACE(4)
KEVRA_CPU_TRACE(8)
KEVRA_CPU_TRACE(16)
}

namespace kevra_cpu_device {
KEVRA_CPU_UNCHECKED static void note_atomic(const void* address, unsigned bytes) {
  kevra_check_hooks.atomic(address, bytes, __builtin_return_address(0));
}
}  // namespace kevra_cpu_device

#else

#define KEVRA_CPU_UNTRACED
#define KEVRA_CPU_UNCHECKED
#define KEVRA_CPU_KERNEL_FUNCTION static
namespace kevra_cpu_device {
static inline void note_atomic(const void*, unsigned) {}
}  // namespace kevra_cpu_device

#endif
