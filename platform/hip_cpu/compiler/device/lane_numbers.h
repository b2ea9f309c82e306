// Values in lane code. A plain number is the same in all lanes; Lanes<T> holds one for each;
// Affine<T> stands for numbers of equal distance, which block indices and what is computed from
// them are: two scalars instead of a vector.
#pragma once

#include "compiler/device/math.h"

#ifdef KEVRA_CPU_LANE_CODE

extern "C" {
extern kevra_cpu_device::LaneHooks kevra_lane_hooks __attribute__((visibility("hidden")));
}

#pragma clang fp contract(fast)

namespace kevra_cpu_device {

constexpr int lanes = KEVRA_CPU_LANES;

[[noreturn]] static inline __attribute__((cold, noinline)) void diverge() {
  kevra_lane_hooks.diverge();
  __builtin_unreachable();
}

// A condition whose values in the first and the last lane stand for all others.
static inline bool agreed(bool first, bool last) {
  if (first != last) diverge();
  return first;
}

template <typename T>
using Vector = T __attribute__((ext_vector_type(lanes)));
using Truths = bool __attribute__((ext_vector_type(lanes)));

template <typename T>
concept Number = __is_arithmetic(T);
template <typename T>
concept Integer = __is_integral(T);

template <typename T>
struct Affine;

template <typename T>
struct Lanes {
  Vector<T> v;
  Lanes() = default;
  Lanes(Vector<T> v) : v(v) {}
  template <Number U>
  Lanes(U x) : v(Vector<T>(T(x))) {}
  template <Number U>
  Lanes(const Lanes<U>& other) : v(__builtin_convertvector(other.v, Vector<T>)) {}
  template <typename U>
  Lanes(const Affine<U>& other) {
    for (int i = 0; i < lanes; ++i) v[i] = T(U(other.first + U(i) * other.step));
  }
};

// What differs among lanes is asked for all of them: they agree, or the group diverges.
struct Mask {
  Truths v;
  explicit operator bool() const {
    if (__builtin_reduce_and(v)) return true;
    if (__builtin_reduce_or(v)) diverge();
    return false;
  }
  Mask operator!() const { return {!v}; }
};

template <typename T>
struct Affine {
  T first, step;
  Affine() = default;
  Affine(T first, T step) : first(first), step(step) {}
  template <Number U>
    requires __is_same
  (decltype(T() + U()), T) Affine(U x) : first(T(x)), step(0) {}
  T last() const { return T(first + T(lanes - 1) * step); }
  explicit operator bool() const {
    const bool some = first != 0;
    for (int i = 1; i < lanes; ++i)
      if ((T(first + T(i) * step) != 0) != some) diverge();
    return some;
  }
};

// The same numbers in another integer type; unsigned ones may wrap around among the lanes.
template <Integer T, typename U>
static inline Affine<T> affine(const Affine<U>& x) {
  const T first = T(x.first), step = T(T(U(x.first + x.step)) - first);
  if (T(x.last()) != T(first + T(lanes - 1) * step)) diverge();
  return {first, step};
}
template <Integer T, Number U>
static inline Affine<T> affine(U x) {
  return {T(x), T(0)};
}

template <typename T>
struct Kind {
  static constexpr int rank = 0;  // nothing that lane arithmetic knows
};
template <Number T>
struct Kind<T> {
  static constexpr int rank = 1;
  using Element = T;
};
template <typename T>
struct Kind<Affine<T>> {
  static constexpr int rank = 2;
  using Element = T;
};
template <Number T>
struct Kind<Lanes<T>> {
  static constexpr int rank = 3;
  using Element = T;
};

template <typename T>
using Element = typename Kind<T>::Element;

// At least one of two operands differs among lanes.
template <typename A, typename B>
concept Mixed = Kind<A>::rank != 0 && Kind<B>::rank != 0 && Kind<A>::rank + Kind<B>::rank > 2;
// Both are whole numbers, so that the result may be a pair of scalars again.
template <typename A, typename B>
concept Indices = Mixed<A, B> && Kind<A>::rank < 3 && Kind<B>::rank < 3 && Integer<Element<A>> &&
                  Integer<Element<B>>;
template <typename A, typename B>
concept Values = Mixed<A, B> && !Indices<A, B>;

template <typename A, typename B>
using Common = decltype(Element<A>() + Element<B>());

#define KEVRA_LANE_ARITHMETIC(sign)                               \
  template <typename A, typename B>                               \
    requires Values<A, B>                                         \
  static inline auto operator sign(const A& a, const B& b) {      \
    using T = Common<A, B>;                                       \
    return Lanes<T>(Vector<T>(Lanes<T>(a).v sign Lanes<T>(b).v)); \
  }
KEVRA_LANE_ARITHMETIC(+)
KEVRA_LANE_ARITHMETIC(-)
KEVRA_LANE_ARITHMETIC(*)
KEVRA_LANE_ARITHMETIC(/)
KEVRA_LANE_ARITHMETIC(%)
KEVRA_LANE_ARITHMETIC(&)
KEVRA_LANE_ARITHMETIC(|)
KEVRA_LANE_ARITHMETIC(^)

#define KEVRA_LANE_COMPARISON(sign)                                             \
  template <typename A, typename B>                                             \
    requires Values<A, B>                                                       \
  static inline Mask operator sign(const A& a, const B& b) {                    \
    using T = Common<A, B>;                                                     \
    return {__builtin_convertvector(Lanes<T>(a).v sign Lanes<T>(b).v, Truths)}; \
  }
KEVRA_LANE_COMPARISON(<)
KEVRA_LANE_COMPARISON(>)
KEVRA_LANE_COMPARISON(<=)
KEVRA_LANE_COMPARISON(>=)
KEVRA_LANE_COMPARISON(==)
KEVRA_LANE_COMPARISON(!=)

// Differences of indices grow or fall from lane to lane, so the outer lanes speak for all.
#define KEVRA_AFFINE_COMPARISON(sign)                            \
  template <typename A, typename B>                              \
    requires Indices<A, B>                                       \
  static inline bool operator sign(const A& a, const B& b) {     \
    using T = Common<A, B>;                                      \
    const Affine<T> x = affine<T>(a), y = affine<T>(b);          \
    return agreed(x.first sign y.first, x.last() sign y.last()); \
  }
KEVRA_AFFINE_COMPARISON(<)
KEVRA_AFFINE_COMPARISON(>)
KEVRA_AFFINE_COMPARISON(<=)
KEVRA_AFFINE_COMPARISON(>=)

template <typename A, typename B>
static inline auto least(const A& a, const B& b) {
  if constexpr (Indices<A, B>) {
    using T = Common<A, B>;
    const Affine<T> x = affine<T>(a), y = affine<T>(b);
    return agreed(x.first <= y.first, x.last() <= y.last()) ? x : y;
  } else {
    return a < b ? a : b;
  }
}

template <typename A, typename B>
  requires Indices<A, B>
static inline bool operator!=(const A& a, const B& b) {
  using T = Common<A, B>;
  const Affine<T> x = affine<T>(a), y = affine<T>(b);
  return bool(Affine<T>(T(x.first - y.first), T(x.step - y.step)));
}
template <typename A, typename B>
  requires Indices<A, B>
static inline bool operator==(const A& a, const B& b) {
  return !(a != b);
}

template <typename A, typename B>
  requires Indices<A, B>
static inline auto operator+(const A& a, const B& b) {
  using T = Common<A, B>;
  const Affine<T> x = affine<T>(a), y = affine<T>(b);
  return Affine<T>(T(x.first + y.first), T(x.step + y.step));
}
template <typename A, typename B>
  requires Indices<A, B>
static inline auto operator-(const A& a, const B& b) {
  using T = Common<A, B>;
  const Affine<T> x = affine<T>(a), y = affine<T>(b);
  return Affine<T>(T(x.first - y.first), T(x.step - y.step));
}
template <typename A, typename B>
  requires Indices<A, B>
static inline auto operator*(const A& a, const B& b) {
  using T = Common<A, B>;
  const Affine<T> x = affine<T>(a), y = affine<T>(b);
  if (x.step != 0 && y.step != 0) diverge();
  return Affine<T>(T(x.first * y.first), T(x.first * y.step + x.step * y.first));
}

// A quotient is of equal distance where all lanes share it, or where the divisor divides the step.
template <typename A, typename B>
  requires Indices<A, B>
static inline auto operator/(const A& a, const B& b) {
  using T = Common<A, B>;
  const Affine<T> x = affine<T>(a), y = affine<T>(b);
  const T first = x.first / y.first, last = x.last() / y.first;
  const T step = first == last ? T(0) : T(x.step / y.first);
  if (y.step != 0 || (step != 0 && T(step * y.first) != x.step) || (first < 0) != (last < 0) ||
      T(first + T(lanes - 1) * step) != last)
    diverge();
  return Affine<T>(first, step);
}
template <typename A, typename B>
  requires Indices<A, B>
static inline auto operator%(const A& a, const B& b) {
  return a - a / b * b;
}

template <Number T>
static inline Lanes<T> operator-(const Lanes<T>& x) {
  return Lanes<T>(Vector<T>(-x.v));
}
template <typename T>
static inline Affine<T> operator-(const Affine<T>& x) {
  return {T(-x.first), T(-x.step)};
}

#define KEVRA_LANE_ASSIGNMENT(sign)                                      \
  template <typename T, typename U>                                      \
    requires Mixed<Lanes<T>, U>                                          \
  static inline Lanes<T>& operator sign##=(Lanes<T>& a, const U & b) {   \
    return a = Lanes<T>(a sign b);                                       \
  }                                                                      \
  template <typename T, typename U>                                      \
    requires Indices<Affine<T>, U>                                       \
  static inline Affine<T>& operator sign##=(Affine<T>& a, const U & b) { \
    return a = affine<T>(a sign b);                                      \
  }
KEVRA_LANE_ASSIGNMENT(+)
KEVRA_LANE_ASSIGNMENT(-)
KEVRA_LANE_ASSIGNMENT(*)
KEVRA_LANE_ASSIGNMENT(/)
KEVRA_LANE_ASSIGNMENT(%)

}  // namespace kevra_cpu_device

#endif
