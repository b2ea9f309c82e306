// Atomic operations. Blocks run on several threads of the host, so these are real ones.
#pragma once

#include "compiler/device/check.h"

namespace kevra_cpu_device {

// Replaces *address by change(*address); gives what stood there.
template <typename Value, typename Change>
KEVRA_CPU_UNCHECKED static inline Value atomic_replace(Value* address, Change change) {
  note_atomic(address, sizeof(Value));
  Value old, next;
  __atomic_load(address, &old, __ATOMIC_RELAXED);
  do next = change(old);
  while (
      !__atomic_compare_exchange(address, &old, &next, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED));
  return old;
}

}  // namespace kevra_cpu_device

#define KEVRA_CPU_ATOMICS(Value)                                                                   \
  static inline Value atomicMax(Value* address, Value value) {                                     \
    return kevra_cpu_device::atomic_replace(address,                                               \
                                            [&](Value old) { return old < value ? value : old; }); \
  }                                                                                                \
  static inline Value atomicMin(Value* address, Value value) {                                     \
    return kevra_cpu_device::atomic_replace(address,                                               \
                                            [&](Value old) { return value < old ? value : old; }); \
  }                                                                                                \
  static inline Value atomicExch(Value* address, Value value) {                                    \
    return kevra_cpu_device::atomic_replace(address, [&](Value) { return value; });                \
  }

#define KEVRA_CPU_INTEGER_ATOMICS(Value)                                       \
  KEVRA_CPU_ATOMICS(Value)                                                     \
  static inline Value atomicAdd(Value* address, Value value) {                 \
    kevra_cpu_device::note_atomic(address, sizeof(Value));                     \
    return __atomic_fetch_add(address, value, __ATOMIC_RELAXED);               \
  }                                                                            \
  static inline Value atomicCAS(Value* address, Value expected, Value value) { \
    return kevra_cpu_device::atomic_replace(                                   \
        address, [&](Value old) { return old == expected ? value : old; });    \
  }

#define KEVRA_CPU_FLOAT_ATOMICS(Value)                                                        \
  KEVRA_CPU_ATOMICS(Value)                                                                    \
  static inline Value atomicAdd(Value* address, Value value) {                                \
    return kevra_cpu_device::atomic_replace(address, [&](Value old) { return old + value; }); \
  }

KEVRA_CPU_FLOAT_ATOMICS(float)
KEVRA_CPU_FLOAT_ATOMICS(double)
KEVRA_CPU_INTEGER_ATOMICS(int)
KEVRA_CPU_INTEGER_ATOMICS(unsigned)
KEVRA_CPU_INTEGER_ATOMICS(unsigned long long)

static inline void __threadfence() {
  __atomic_thread_fence(__ATOMIC_SEQ_CST);
}
static inline void __threadfence_block() {
  __atomic_thread_fence(__ATOMIC_SEQ_CST);
}
