// Atomic additions of lane code. They are made when the group has come to its end, since nothing
// undoes them where it diverges first. Their results are not to be had.
#pragma once

#include "compiler/device/lane_memory.h"

#ifdef KEVRA_CPU_LANE_CODE

namespace kevra_cpu_device {

template <typename T>
static inline void make_additions(void* first, long long step, const void* values) {
  for (int i = 0; i < lanes; ++i)
    atomicAdd(reinterpret_cast<T*>(static_cast<char*>(first) + i * step),
              static_cast<const T*>(values)[i]);
}

template <typename T>
static inline void note_additions(void* first, long long step, const Lanes<T>& values) {
  kevra_lane_hooks.add(make_additions<T>, first, step, &values.v, sizeof values.v);
}

}  // namespace kevra_cpu_device

template <typename T, typename U>
static inline void atomicAdd(const kevra_cpu_device::RowPointer<T>& to, const U& value) {
  kevra_cpu_device::note_additions<T>(to.first, to.step, kevra_cpu_device::Lanes<T>(value));
}
template <typename T, typename U>
static inline void atomicAdd(const kevra_cpu_device::Pointer<T>& to, const U& value) {
  kevra_cpu_device::note_additions<T>(to.address, 0, kevra_cpu_device::Lanes<T>(value));
}
// To shared memory: the lanes' own cells, which nobody else reaches.
template <typename T, typename U>
static inline void atomicAdd(kevra_cpu_device::Lanes<T>* cell, const U& value) {
  *cell = kevra_cpu_device::Lanes<T>(*cell + value);
}

#endif
