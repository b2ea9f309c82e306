// Passes over one row of interleaved complex values. With L the product of the radices before a
// pass and m = n / (R L), the pass takes, for every g < m and i < L,
//   t[j] = source[j n / R + g L + i] exp(+-2 pi i j i' / (R L)),   i' the number of the column i,
// and stores its R-point transform's k-th value to destination[g R L + k L + i].
#pragma once

#include "host_fft/dft.h"
#include "host_fft/passes.h"

namespace kevra::host_fft::KEVRA_ISA {

template <class T>
struct RowPass {
  int n;
  int before;
  bool inverse;
  T scale;
  const T* source;
  T* destination;
  const T* multiply_re;  // first passes only, else null
  const T* multiply_im;
};

template <int R, class C, class T>
KEVRA_INLINE void scale_all(C* x, T scale) {
  if (scale == T(1)) return;
  unrolled<0, R>([&](auto k) KEVRA_INLINE_LAMBDA { x[k] = x[k] * scale; });
}

// step(Packed<T, width>, first column) until every column below `count` is covered. The last step
// may cover columns again, which is harmless: a pass never writes what it reads.
template <class T, class Step>
KEVRA_INLINE void for_columns(int count, const Step& step) {
  constexpr int kColumns = kWidth<T>;
  using Wide = Packed<T, kColumns>;
  using Narrow = Packed<T, 1>;
  int i = 0;
  for (; i + kColumns <= count; i += kColumns) step(Wide{}, i);
  if (i == count) return;
  if (count >= kColumns) {
    step(Wide{}, count - kColumns);
  } else {
    for (; i < count; ++i) step(Narrow{}, i);
  }
}

template <int R, class T>
void first_pass(const RowPass<T>& pass) {
  const int64_t groups = pass.n / R;
  for_columns<T>(groups, [&](auto shape, int64_t g) KEVRA_INLINE_LAMBDA {
    using C = decltype(shape);
    const Turn<T, C::kColumns> turn(pass.inverse);
    C x[R];
    unrolled<0, R>([&](auto j)
                       KEVRA_INLINE_LAMBDA { x[j] = C::load(pass.source + 2 * (j * groups + g)); });
    if constexpr (R == 4 || R == 8 || R == 16 || R == 32) {
      if (pass.multiply_re != nullptr) {
        unrolled<0, R>([&](auto j) KEVRA_INLINE_LAMBDA {
          const int64_t at = 2 * (j * groups + g);
          x[j] = multiplied(x[j], C::load(pass.multiply_re + at), C::load(pass.multiply_im + at));
        });
      }
    }
    dft<R>(x, turn);
    scale_all<R>(x, pass.scale);
    store_transposed<R>(x, pass.destination + 2 * g * R);
  });
}

// Twiddles of a later pass as its table lays them out: all cosines of one j, each twice, then all
// sines; or, for radix 4, pairs of both.
template <class T>
struct DoubledTwiddles {
  const T* table;
  int64_t before;

  template <class C>
  KEVRA_INLINE C times(C x, int j, int64_t column) const {
    const T* cosines = table + (j - 1) * 4 * before + 2 * column;
    return multiplied(x, C::load(cosines), C::load(cosines + 2 * before));
  }
};

template <class T>
struct PackedTwiddles {
  const T* table;
  int64_t before;

  template <class C>
  KEVRA_INLINE C times(C x, int j, int64_t column) const {
    constexpr int kColumns = C::kColumns;
    const T* w = table + 2 * ((j - 1) * before + column);
    return multiplied(x, load_doubled<T, kColumns>(w), load_doubled<T, kColumns>(w + 1));
  }
};

// step(shape, g, i) for every group g and column i; unless All, only as far as whole vectors go.
template <bool All, class T, class Step>
KEVRA_INLINE void for_groups(int groups, int before, const Step& step) {
  constexpr int kColumns = kWidth<T>;
  for (int64_t g = 0; g < groups; ++g) {
    if constexpr (All) {
      for_columns<T>(before, [&](auto shape, int64_t i) KEVRA_INLINE_LAMBDA { step(shape, g, i); });
    } else {
      for (int64_t i = 0; i + kColumns <= before; i += kColumns) {
        step(Packed<T, kColumns>{}, g, i);
      }
    }
  }
}

template <int R, bool All, class T, class Twiddles>
void later_pass(const RowPass<T>& pass, Twiddles twiddles) {
  const int64_t before = pass.before, stride = pass.n / R;
  for_groups<All, T>(
      stride / before, before, [&](auto shape, int64_t g, int64_t i) KEVRA_INLINE_LAMBDA {
        using C = decltype(shape);
        const Turn<T, C::kColumns> turn(pass.inverse);
        const T* from = pass.source + 2 * (g * before + i);
        C x[R];
        x[0] = C::load(from);
        unrolled<1, R>([&](auto j) KEVRA_INLINE_LAMBDA {
          x[j] = twiddles.times(C::load(from + 2 * j * stride), j, i);
        });
        dft<R>(x, turn);
        scale_all<R>(x, pass.scale);
        T* to = pass.destination + 2 * (g * R * before + i);
        unrolled<0, R>([&](auto k) KEVRA_INLINE_LAMBDA { x[k].store(to + 2 * k * before); });
      });
}

// Two later passes of radix R in one reading and one writing of the data.
template <int R, class T, class Twiddles>
void fused_pass(const RowPass<T>& pass, Twiddles inner, Twiddles outer) {
  constexpr int kBoth = R * R;
  const int64_t before = pass.before, stride = pass.n / kBoth;
  for_groups<true, T>(
      stride / before, before, [&](auto shape, int64_t g, int64_t i) KEVRA_INLINE_LAMBDA {
        using C = decltype(shape);
        const Turn<T, C::kColumns> turn(pass.inverse);
        const T* from = pass.source + 2 * (g * before + i);
        C between[R][R];
        unrolled<0, R>([&](auto j2) KEVRA_INLINE_LAMBDA {
          C x[R];
          x[0] = C::load(from + 2 * j2 * stride);
          unrolled<1, R>([&](auto j) KEVRA_INLINE_LAMBDA {
            x[j] = inner.times(C::load(from + 2 * (j * R + j2) * stride), j, i);
          });
          dft<R>(x, turn);
          unrolled<0, R>([&](auto k) KEVRA_INLINE_LAMBDA { between[k][j2] = x[k]; });
        });
        T* to = pass.destination + 2 * (g * kBoth * before + i);
        unrolled<0, R>([&](auto k) KEVRA_INLINE_LAMBDA {
          C* x = between[k];
          unrolled<1, R>(
              [&](auto j2) KEVRA_INLINE_LAMBDA { x[j2] = outer.times(x[j2], j2, k * before + i); });
          dft<R>(x, turn);
          scale_all<R>(x, pass.scale);
          unrolled<0, R>([&](auto k2)
                             KEVRA_INLINE_LAMBDA { x[k2].store(to + 2 * (k2 * R + k) * before); });
        });
      });
}

// The columns that a later pass of `radix` left because they do not fill a vector, by the sum as
// it stands.
template <class T>
void remaining_columns(const RowPass<T>& pass, int radix, const T* twiddles, const T* root_re,
                       const T* root_im) {
  const int64_t before = pass.before, stride = pass.n / radix;
  for (int64_t g = 0; g < stride / before; ++g) {
    for (int64_t i = before / kWidth<T> * kWidth<T>; i < before; ++i) {
      const T* x = pass.source + 2 * (g * before + i);
      T re[7] = {x[0]}, im[7] = {x[1]};
      for (int j = 1; j < radix; ++j) {
        x += 2 * stride;
        const T c = twiddles[(j - 1) * 4 * before + 2 * i];
        const T s = twiddles[(j - 1) * 4 * before + 2 * before + 2 * i];
        re[j] = x[0] * c - x[1] * s;
        im[j] = x[0] * s + x[1] * c;
      }
      for (int k = 0; k < radix; ++k) {
        T sum_re = 0, sum_im = 0;
        for (int j = 0; j < radix; ++j) {
          const T c = root_re[j * k % radix], s = root_im[j * k % radix];
          sum_re += re[j] * c - im[j] * s;
          sum_im += re[j] * s + im[j] * c;
        }
        T* y = pass.destination + 2 * (g * radix * before + k * before + i);
        y[0] = sum_re * pass.scale;
        y[1] = sum_im * pass.scale;
      }
    }
  }
}

}  // namespace kevra::host_fft::KEVRA_ISA
