// Math functions on lanes: lane by lane the function that a single block calls, which the compiler
// makes vectors of where the processor has the instruction.
#pragma once

#include "compiler/device/lane_records.h"

#ifdef KEVRA_CPU_LANE_CODE

#define KEVRA_LANE_VECTOR_MATH(name, builtin)                                                     \
  template <typename T>                                                                           \
  static inline kevra_cpu_device::Lanes<T> name(const kevra_cpu_device::Lanes<T>& x) {            \
    return kevra_cpu_device::Lanes<T>(kevra_cpu_device::Vector<T>(builtin(x.v)));                 \
  }                                                                                               \
  static inline kevra_cpu_device::Lanes<float> name##f(const kevra_cpu_device::Lanes<float>& x) { \
    return name(x);                                                                               \
  }
KEVRA_LANE_VECTOR_MATH(fabs, __builtin_elementwise_abs)
KEVRA_LANE_VECTOR_MATH(floor, __builtin_elementwise_floor)
KEVRA_LANE_VECTOR_MATH(ceil, __builtin_elementwise_ceil)
KEVRA_LANE_VECTOR_MATH(trunc, __builtin_elementwise_trunc)

#define KEVRA_LANE_MATH1(name)                                                                    \
  template <typename T>                                                                           \
  static inline kevra_cpu_device::Lanes<T> name(const kevra_cpu_device::Lanes<T>& x) {            \
    kevra_cpu_device::Lanes<T> result;                                                            \
    for (int i = 0; i < kevra_cpu_device::lanes; ++i) result.v[i] = name(T(x.v[i]));              \
    return result;                                                                                \
  }                                                                                               \
  static inline kevra_cpu_device::Lanes<float> name##f(const kevra_cpu_device::Lanes<float>& x) { \
    return name(x);                                                                               \
  }
KEVRA_LANE_MATH1(sqrt)
KEVRA_LANE_MATH1(rint)
KEVRA_LANE_MATH1(exp)
KEVRA_LANE_MATH1(exp2)
KEVRA_LANE_MATH1(log)
KEVRA_LANE_MATH1(log2)
KEVRA_LANE_MATH1(log10)
KEVRA_LANE_MATH1(log1p)
KEVRA_LANE_MATH1(sin)
KEVRA_LANE_MATH1(cos)
KEVRA_LANE_MATH1(tanh)

#define KEVRA_LANE_MATH2(name)                                                                  \
  template <typename A, typename B>                                                             \
    requires kevra_cpu_device::Values<A, B>                                                     \
  static inline auto name(const A& a, const B& b) {                                             \
    using T = kevra_cpu_device::Common<A, B>;                                                   \
    const kevra_cpu_device::Lanes<T> x(a), y(b);                                                \
    kevra_cpu_device::Lanes<T> result;                                                          \
    for (int i = 0; i < kevra_cpu_device::lanes; ++i) result.v[i] = name(T(x.v[i]), T(y.v[i])); \
    return result;                                                                              \
  }                                                                                             \
  template <typename A, typename B>                                                             \
    requires kevra_cpu_device::Values<A, B>                                                     \
  static inline kevra_cpu_device::Lanes<float> name##f(const A& a, const B& b) {                \
    return name(kevra_cpu_device::Lanes<float>(a), kevra_cpu_device::Lanes<float>(b));          \
  }
KEVRA_LANE_MATH2(pow)
KEVRA_LANE_MATH2(atan2)
KEVRA_LANE_MATH2(fmin)
KEVRA_LANE_MATH2(fmax)
KEVRA_LANE_MATH2(hypot)

// Angles are mostly the thread's, the same in all lanes.
#define KEVRA_LANE_SINCOS(name, T)                                                                \
  static inline void name(T angle, kevra_cpu_device::Lanes<T>* sine,                              \
                          kevra_cpu_device::Lanes<T>* cosine) {                                   \
    T s, c;                                                                                       \
    name(angle, &s, &c);                                                                          \
    *sine = s;                                                                                    \
    *cosine = c;                                                                                  \
  }                                                                                               \
  static inline void name(const kevra_cpu_device::Lanes<T>& angle,                                \
                          kevra_cpu_device::Lanes<T>* sine, kevra_cpu_device::Lanes<T>* cosine) { \
    for (int i = 0; i < kevra_cpu_device::lanes; ++i) {                                           \
      T s, c;                                                                                     \
      name(T(angle.v[i]), &s, &c);                                                                \
      sine->v[i] = s;                                                                             \
      cosine->v[i] = c;                                                                           \
    }                                                                                             \
  }
KEVRA_LANE_SINCOS(__sincosf, float)
KEVRA_LANE_SINCOS(sincosf, float)
KEVRA_LANE_SINCOS(sincos, double)

#endif
