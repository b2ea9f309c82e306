// Written-out transforms of R points held in registers, for every R that a pass has.
#pragma once

#include "host_fft/lanes.h"

namespace kevra::host_fft::KEVRA_ISA {

struct Root {
  long double re, im;
};

// exp(2 pi i q / n), by the power series; exact where it falls on an axis.
constexpr Root root_of_unity(int q, int n) {
  q %= n;
  if (q * 4 % n == 0) {
    constexpr Root kAxes[] = {{1, 0}, {0, 1}, {-1, 0}, {0, -1}};
    return kAxes[q * 4 / n];
  }
  if (2 * q > n) q -= n;
  const long double angle = 6.283185307179586476925286766559L * q / n;
  Root sum{0, 0};
  long double term = 1;
  for (int k = 0; k < 40; ++k) {
    const long double sign = k & 2 ? -1 : 1;
    (k & 1 ? sum.im : sum.re) += sign * term;
    term *= angle / (k + 1);
  }
  return sum;
}

// x exp(+-2 pi i Q / N) by a constant, the sign that of the direction.
template <int Q, int N, class C, class Turned>
KEVRA_INLINE C times_root(C x, const Turned& turn) {
  using T = typename C::Real;
  constexpr Root w = root_of_unity(Q, N);
  if constexpr (Q % N == 0) {
    return x;
  } else if constexpr (Q * 4 == N) {
    return turn(x);
  } else {
    return x * T(w.re) + turn(x) * T(w.im);
  }
}

// Sums and differences of the points that mirror each other share their cosines and sines.
template <int R, class C, class Turned>
KEVRA_INLINE void dft_odd(C* x, const Turned& turn) {
  using T = typename C::Real;
  constexpr int kHalf = R / 2;
  C sum[kHalf + 1], difference[kHalf + 1];
  C total = x[0];
  unrolled<1, kHalf + 1>([&](auto j) KEVRA_INLINE_LAMBDA {
    sum[j] = x[j] + x[R - j];
    difference[j] = turn(x[j] - x[R - j]);
    total = total + sum[j];
  });
  const C first = x[0];
  x[0] = total;
  unrolled<1, kHalf + 1>([&](auto k) KEVRA_INLINE_LAMBDA {
    constexpr int kOutput = decltype(k)::value;
    C even = first + sum[1] * T(root_of_unity(kOutput, R).re);
    C odd = difference[1] * T(root_of_unity(kOutput, R).im);
    unrolled<2, kHalf + 1>([&](auto j) KEVRA_INLINE_LAMBDA {
      constexpr Root w = root_of_unity(decltype(j)::value * kOutput, R);
      even = even + sum[j] * T(w.re);
      odd = odd + difference[j] * T(w.im);
    });
    x[k] = even + odd;
    x[R - k] = even - odd;
  });
}

template <int R, class C, class Turned>
KEVRA_INLINE void dft(C* x, const Turned& turn);

// R1 x R2 points: the columns, the roots between, the rows.
template <int R1, int R2, class C, class Turned>
KEVRA_INLINE void dft_composite(C* x, const Turned& turn) {
  C between[R1][R2];
  unrolled<0, R2>([&](auto j) KEVRA_INLINE_LAMBDA {
    C column[R1];
    unrolled<0, R1>([&](auto i) KEVRA_INLINE_LAMBDA { column[i] = x[i * R2 + j]; });
    dft<R1>(column, turn);
    unrolled<0, R1>([&](auto k) KEVRA_INLINE_LAMBDA {
      constexpr int kPower = decltype(j)::value * decltype(k)::value;
      between[k][j] = times_root<kPower, R1 * R2>(column[k], turn);
    });
  });
  unrolled<0, R1>([&](auto k) KEVRA_INLINE_LAMBDA {
    dft<R2>(between[k], turn);
    unrolled<0, R2>([&](auto k2) KEVRA_INLINE_LAMBDA { x[k2 * R1 + k] = between[k][k2]; });
  });
}

template <int R, class C, class Turned>
KEVRA_INLINE void dft(C* x, const Turned& turn) {
  if constexpr (R == 2) {
    const C sum = x[0] + x[1];
    x[1] = x[0] - x[1];
    x[0] = sum;
  } else if constexpr (R == 4) {
    const C even = x[0] + x[2], even_turned = x[0] - x[2];
    const C odd = x[1] + x[3], odd_turned = turn(x[1] - x[3]);
    x[0] = even + odd;
    x[1] = even_turned + odd_turned;
    x[2] = even - odd;
    x[3] = even_turned - odd_turned;
  } else if constexpr (R == 8) {
    dft_composite<2, 4>(x, turn);
  } else if constexpr (R == 32) {
    dft_composite<8, 4>(x, turn);
  } else if constexpr (R == 9 || R == 16 || R == 25 || R == 49) {
    constexpr int kSide = R == 9 ? 3 : R == 16 ? 4 : R == 25 ? 5 : 7;
    dft_composite<kSide, kSide>(x, turn);
  } else {
    static_assert(R == 3 || R == 5 || R == 7 || R == 11 || R == 13);
    dft_odd<R>(x, turn);
  }
}

}  // namespace kevra::host_fft::KEVRA_ISA
