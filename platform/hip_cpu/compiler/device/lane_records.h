// The kernel language's vectors and halves in lanes, and what declarations and casts become.
#pragma once

#include "compiler/device/lane_numbers.h"

#ifdef KEVRA_CPU_LANE_CODE

namespace kevra_cpu_device {

#define KEVRA_LANE_RECORDS(Element, Name)                                         \
  template <>                                                                     \
  struct Lanes<Name##2> {                                                         \
    Lanes() = default;                                                            \
    Lanes(Lanes<Element> x, Lanes<Element> y) : x(x), y(y) {}                     \
    Lanes(const Name##2 & u) : x(u.x), y(u.y) {}                                  \
    Lanes<Element> x, y;                                                          \
  };                                                                              \
  template <>                                                                     \
  struct Lanes<Name##4> {                                                         \
    Lanes() = default;                                                            \
    Lanes(Lanes<Element> x, Lanes<Element> y, Lanes<Element> z, Lanes<Element> w) \
        : x(x), y(y), z(z), w(w) {}                                               \
    Lanes(const Name##4 & u) : x(u.x), y(u.y), z(u.z), w(u.w) {}                  \
    Lanes<Element> x, y, z, w;                                                    \
  };
KEVRA_LANE_RECORDS(float, float)
KEVRA_LANE_RECORDS(double, double)
KEVRA_LANE_RECORDS(int, int)
KEVRA_LANE_RECORDS(unsigned, uint)

// Sixteen bits in memory, floats in arithmetic. On a processor without conversions of its own each
// lane is converted like a single half.
template <>
struct Lanes<__half> {
  Vector<unsigned short> bits;
  Lanes() = default;
  Lanes(__half x) : bits(Vector<unsigned short>(x.bits)) {}
  Lanes(const Lanes<float>& x) {
#if defined(__F16C__) || defined(__aarch64__)
    bits =
        __builtin_bit_cast(Vector<unsigned short>, __builtin_convertvector(x.v, Vector<_Float16>));
#else
    for (int i = 0; i < lanes; ++i) bits[i] = ::kevra_device::half_bits(x.v[i]);
#endif
  }
  Lanes(const Lanes<double>& x) {
    for (int i = 0; i < lanes; ++i) bits[i] = ::kevra_device::half_bits(x.v[i]);
  }
  operator Lanes<float>() const {
#if defined(__F16C__) || defined(__aarch64__)
    return Lanes<float>(Vector<float>(
        __builtin_convertvector(__builtin_bit_cast(Vector<_Float16>, bits), Vector<float>)));
#else
    Lanes<float> x;
    for (int i = 0; i < lanes; ++i) x.v[i] = ::kevra_device::half_value(bits[i]);
    return x;
#endif
  }
};
template <>
struct Lanes<__half2> {
  Lanes() = default;
  Lanes(Lanes<__half> x, Lanes<__half> y) : x(x), y(y) {}
  Lanes(const __half2& u) : x(u.x), y(u.y) {}
  Lanes<__half> x, y;
};

template <typename T>
struct Plain {
  using type = T;
};
template <typename T>
struct Plain<const T> {
  using type = T;
};

// A variable whose value comes later: whole numbers are the same in all lanes, others are not.
template <typename T, bool whole = __is_integral(T)>
struct VariableOf {
  using type = T;
};
template <typename T>
struct VariableOf<T, false> {
  using type = Lanes<T>;
};
template <typename T>
using LaneVariable = typename VariableOf<typename Plain<T>::type>::type;

// Conversions keep what is the same in all lanes a scalar.
template <typename T>
struct LaneCast {
  using To = typename Plain<T>::type;
  static To of(const To& x) { return x; }
  static Lanes<To> of(const Lanes<To>& x) { return x; }
  template <Number U>
    requires(!__is_same(U, To))
  static To of(U x) {
    return To(x);
  }
  template <typename U>
    requires(!__is_same(U, To) && !Number<U>)
  static auto of(const U& x) {
    if constexpr (Kind<U>::rank == 2 && __is_integral(To)) {
      return affine<To>(x);
    } else if constexpr (__is_same(U, __half)) {
      return To(float(x));
    } else if constexpr (__is_same(To, bool)) {
      return bool(x);
    } else {
      return varying(x);
    }
  }
  template <typename U>
  static Lanes<To> varying(const U& x) {
    if constexpr (__is_same(U, Lanes<__half>)) {
      return Lanes<To>(Lanes<float>(x));
    } else {
      return Lanes<To>(x);
    }
  }
};

template <typename T, typename U>
static inline auto lane_cast(const U& x) {
  return LaneCast<T>::of(x);
}

// Shared arrays, dynamic and static ones, become pointers to their first cell.
template <typename T, typename U>
static inline auto lane_cast(Lanes<U> (&x)[]) {
  return LaneCast<T>::of(&x[0]);
}
template <typename T, typename U, unsigned long count>
static inline auto lane_cast(Lanes<U> (&x)[count]) {
  return LaneCast<T>::of(&x[0]);
}

// The value of a variable that gets others later.
template <typename T, typename U>
static inline auto lane_variable(U&& x) {
  using To = typename Plain<T>::type;
  if constexpr (__is_integral(To) || __is_pointer(To)) {
    return lane_cast<T>(x);
  } else {
    return Lanes<To>(lane_cast<T>(x));
  }
}

template <typename T>
concept Varying = Kind<T>::rank > 1;

}  // namespace kevra_cpu_device

#define KEVRA_LANE_MAKE(Element, Name)                                                    \
  template <typename X, typename Y>                                                       \
    requires(kevra_cpu_device::Varying<X> || kevra_cpu_device::Varying<Y>)                \
  static inline kevra_cpu_device::Lanes<Name##2> make_##Name##2(const X& x, const Y& y) { \
    return {kevra_cpu_device::Lanes<Element>(x), kevra_cpu_device::Lanes<Element>(y)};    \
  }                                                                                       \
  template <typename X, typename Y, typename Z, typename W>                               \
    requires(kevra_cpu_device::Varying<X> || kevra_cpu_device::Varying<Y> ||              \
             kevra_cpu_device::Varying<Z> || kevra_cpu_device::Varying<W>)                \
  static inline kevra_cpu_device::Lanes<Name##4> make_##Name##4(const X& x, const Y& y,   \
                                                                const Z& z, const W& w) { \
    return {kevra_cpu_device::Lanes<Element>(x), kevra_cpu_device::Lanes<Element>(y),     \
            kevra_cpu_device::Lanes<Element>(z), kevra_cpu_device::Lanes<Element>(w)};    \
  }
KEVRA_LANE_MAKE(float, float)
KEVRA_LANE_MAKE(double, double)

static inline kevra_cpu_device::Lanes<__half2> __floats2half2_rn(
    const kevra_cpu_device::Lanes<float>& x, const kevra_cpu_device::Lanes<float>& y) {
  return {kevra_cpu_device::Lanes<__half>(x), kevra_cpu_device::Lanes<__half>(y)};
}
static inline kevra_cpu_device::Lanes<__half> __float2half(
    const kevra_cpu_device::Lanes<float>& x) {
  return kevra_cpu_device::Lanes<__half>(x);
}
static inline kevra_cpu_device::Lanes<__half> __float2half_rn(
    const kevra_cpu_device::Lanes<float>& x) {
  return kevra_cpu_device::Lanes<__half>(x);
}
static inline kevra_cpu_device::Lanes<float> __half2float(
    const kevra_cpu_device::Lanes<__half>& x) {
  return x;
}

#endif
