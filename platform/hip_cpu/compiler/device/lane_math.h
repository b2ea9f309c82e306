// Math functions on lanes: lane by lane the function that a single block calls, which the compiler
// makes vectors of where the processor has the instruction. Logarithms of floats are vectors of
// their own, since decibels take one for every value.
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

namespace kevra_cpu_device {

// The natural logarithm of floats above 0. In doubles with this many terms it is off by 2e-12 at
// most, so that the float made of it is nearly always the nearest one.
static inline Vector<double> natural_logarithm(Vector<float> x) {
  const auto bits =
      __builtin_bit_cast(Vector<long long>, __builtin_convertvector(x, Vector<double>));
  // x = m 2^e with m from sqrt(1/2) to sqrt(2), and log m = 2 atanh((m - 1) / (m + 1)).
  const Vector<long long> e = (bits - 0x3fe6a09e667f3bcdLL) >> 52;
  const auto m = __builtin_bit_cast(Vector<double>, bits - (e << 52));
  const Vector<double> s = (m - 1.0) / (m + 1.0), z = s * s;
  Vector<double> sum = z * (1.0 / 13) + 1.0 / 11;
  sum = sum * z + 1.0 / 9;
  sum = sum * z + 1.0 / 7;
  sum = sum * z + 1.0 / 5;
  sum = sum * z + 1.0 / 3;
  const Vector<double> whole =
      __builtin_convertvector(__builtin_convertvector(e, Vector<int>), Vector<double>);
  return whole * 0.69314718055994530942 + 2.0 * s * (sum * z + 1.0);
}

static inline Lanes<float> logarithm(const Lanes<float>& x, double of_e) {
  const Vector<float> inside =
      __builtin_convertvector(natural_logarithm(x.v) * of_e, Vector<float>);
  const Vector<float> infinity = __builtin_inff();
  const Vector<float> outside = x.v == 0.0f ? -infinity : Vector<float>(__builtin_nanf(""));
  return Lanes<float>(Vector<float>(x.v > 0.0f ? (x.v < infinity ? inside : infinity) : outside));
}

}  // namespace kevra_cpu_device

#define KEVRA_LANE_LOGARITHM(name, of_e)                                                       \
  static inline kevra_cpu_device::Lanes<float> name(const kevra_cpu_device::Lanes<float>& x) { \
    return kevra_cpu_device::logarithm(x, of_e);                                               \
  }
KEVRA_LANE_LOGARITHM(log, 1.0)
KEVRA_LANE_LOGARITHM(log2, 1.4426950408889634074)
KEVRA_LANE_LOGARITHM(log10, 0.43429448190325182765)

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

// Rounded once, as their callers need it.
template <typename A, typename B, typename C>
  requires kevra_cpu_device::Values<A, B> || kevra_cpu_device::Values<B, C> ||
           kevra_cpu_device::Values<A, C>
static inline auto fma(const A& a, const B& b, const C& c) {
  using T = decltype(kevra_cpu_device::Common<A, B>() + kevra_cpu_device::Element<C>());
  const kevra_cpu_device::Lanes<T> x(a), y(b), z(c);
  return kevra_cpu_device::Lanes<T>(
      kevra_cpu_device::Vector<T>(__builtin_elementwise_fma(x.v, y.v, z.v)));
}
template <typename A, typename B, typename C>
  requires kevra_cpu_device::Values<A, B> || kevra_cpu_device::Values<B, C> ||
           kevra_cpu_device::Values<A, C>
static inline auto fmaf(const A& a, const B& b, const C& c) {
  using Floats = kevra_cpu_device::Lanes<float>;
  return fma(Floats(a), Floats(b), Floats(c));
}

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
