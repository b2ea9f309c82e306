// Compiled once for every instruction set that the dispatcher chooses from; KEVRA_ISA is its name.
#include "host_fft/passes.h"

#include "host_fft/row_passes.h"

namespace kevra::host_fft::KEVRA_ISA {
namespace {

// What the next pass consumes: the product of `count` radices.
struct Step {
  int radix;
  int count;
};

template <class T>
Step next_step(const RowChain<T>& chain, int p, int before, bool all_fours) {
  const auto& tables = chain.tables;
  const int radix = tables.radices[p];
  if (p + 1 >= tables.passes) return {radix, 1};
  const int next = tables.radices[p + 1];
  if (p == 0 && chain.n == 512) return {32, 2};
  if (p == 0 && chain.n == 32) return {radix, 1};
  if (p == 0 && all_fours && chain.n != 64) return {16, 2};
  const bool squares = radix == next && (radix == 3 || radix == 5 || radix == 7);
  if (p == 0) return squares ? Step{radix * radix, 2} : Step{radix, 1};
  if (radix == 4 && next == 4 && before % kWidth<T> == 0) return {16, 2};
  return squares ? Step{radix * radix, 2} : Step{radix, 1};
}

template <class T>
void run_first(const RowPass<T>& pass, int radix) {
  switch (radix) {
    case 2:
      return first_pass<2>(pass);
    case 3:
      return first_pass<3>(pass);
    case 4:
      return first_pass<4>(pass);
    case 5:
      return first_pass<5>(pass);
    case 7:
      return first_pass<7>(pass);
    case 8:
      return first_pass<8>(pass);
    case 9:
      return first_pass<9>(pass);
    case 11:
      return first_pass<11>(pass);
    case 13:
      return first_pass<13>(pass);
    case 16:
      return first_pass<16>(pass);
    case 25:
      return first_pass<25>(pass);
    case 32:
      return first_pass<32>(pass);
    case 49:
      return first_pass<49>(pass);
  }
}

template <class T>
void run_later(const RowPass<T>& pass, const PassTables<T>& tables, int p, int radix) {
  const int64_t before = pass.before;
  const auto doubled = [&](int index, int64_t columns) {
    return DoubledTwiddles<T>{tables.twiddles + tables.twiddle_offsets[index], columns};
  };
  const auto packed = [&](int index, int64_t columns) {
    return PackedTwiddles<T>{tables.packed_twiddles + tables.packed_offsets[index], columns};
  };
  switch (radix) {
    case 2:
      later_pass<2, false>(pass, packed(p, before));
      break;
    case 3:
      later_pass<3, false>(pass, doubled(p, before));
      break;
    case 4:
      later_pass<4, false>(pass, packed(p, before));
      break;
    case 5:
      later_pass<5, false>(pass, doubled(p, before));
      break;
    case 7:
      later_pass<7, false>(pass, doubled(p, before));
      break;
    case 9:
      return fused_pass<3>(pass, doubled(p, before), doubled(p + 1, 3 * before));
    case 11:
      return later_pass<11, true>(pass, doubled(p, before));
    case 13:
      return later_pass<13, true>(pass, doubled(p, before));
    case 16:
      return fused_pass<4>(pass, packed(p, before), packed(p + 1, 4 * before));
    case 25:
      return fused_pass<5>(pass, doubled(p, before), doubled(p + 1, 5 * before));
    case 49:
      return fused_pass<7>(pass, doubled(p, before), doubled(p + 1, 7 * before));
  }
  if (before % kWidth<T> != 0) {
    const int64_t roots = tables.root_offsets[p];
    remaining_columns(pass, radix, tables.twiddles + tables.twiddle_offsets[p],
                      tables.root_re + roots, tables.root_im + roots);
  }
}

template <class T>
void run_row_chain(const RowChain<T>& chain) {
  const auto& tables = chain.tables;
  bool all_fours = tables.passes % 2 == 0;
  for (int p = 0; p < tables.passes; ++p) all_fours = all_fours && tables.radices[p] == 4;
  const T* source = chain.in;
  T* buffer = chain.buffer0;
  T* other = chain.buffer1;
  int before = 1;
  for (int p = 0; p < tables.passes;) {
    const Step step = next_step(chain, p, before, all_fours);
    const bool last = p + step.count == tables.passes;
    RowPass<T> pass{chain.n, before,  chain.inverse, last ? chain.scale : T(1),
                    source,  nullptr, nullptr,       nullptr};
    pass.destination = last ? chain.out : buffer;
    if (p == 0) {
      pass.multiply_re = chain.multiply_re;
      pass.multiply_im = chain.multiply_im;
      run_first(pass, step.radix);
    } else {
      run_later(pass, tables, p, step.radix);
    }
    source = buffer;
    T* const filled = buffer;
    buffer = other;
    other = filled;
    before *= step.radix;
    p += step.count;
  }
}

// One vector of lanes, real and imaginary parts apart.
template <class T>
struct Split {
  using Real = T;
  static constexpr int kVector = kVectorBytes / sizeof(T);
  Vector<T, kVector> re, im;

  friend KEVRA_INLINE Split operator+(Split a, Split b) { return {a.re + b.re, a.im + b.im}; }
  friend KEVRA_INLINE Split operator-(Split a, Split b) { return {a.re - b.re, a.im - b.im}; }
  friend KEVRA_INLINE Split operator*(Split a, T factor) { return {a.re * factor, a.im * factor}; }
};

// A group's passes go forward; for the inverse the caller swaps real and imaginary parts.
struct ForwardTurn {
  template <class T>
  KEVRA_INLINE Split<T> operator()(Split<T> x) const {
    return {x.im, -x.re};
  }
};

template <int R, class T>
void group_columns(const GroupPass<T>& pass) {
  using C = Split<T>;
  constexpr int kVectors = kLanes<T> / C::kVector;
  const int64_t before = pass.before, stride = pass.n / R, groups = stride / before;
  for (int64_t at = 0; at < stride; ++at) {
    const int64_t g = at / before, i = at % before;
    T cosine[R], sine[R];
    for (int j = 1; j < R; ++j) {
      cosine[j] = T(pass.roots[2 * j * i * groups]);
      sine[j] = T(pass.roots[2 * j * i * groups + 1]);
    }
    for (int lane = 0; lane < kVectors; ++lane) {
      C x[R];
      unrolled<0, R>([&](auto j) KEVRA_INLINE_LAMBDA {
        const int64_t from = (j * stride + at) * kLanes<T> + lane * C::kVector;
        __builtin_memcpy(&x[j].re, pass.in_re + from, sizeof x[j].re);
        __builtin_memcpy(&x[j].im, pass.in_im + from, sizeof x[j].im);
      });
      if (i != 0) {
        unrolled<1, R>([&](auto j) KEVRA_INLINE_LAMBDA {
          const T c = cosine[j], s = sine[j];
          x[j] = C{x[j].re * c - x[j].im * s, x[j].re * s + x[j].im * c};
        });
      }
      dft<R>(x, ForwardTurn{});
      unrolled<0, R>([&](auto k) KEVRA_INLINE_LAMBDA {
        const int64_t to = ((g * R + k) * before + i) * kLanes<T> + lane * C::kVector;
        __builtin_memcpy(pass.out_re + to, &x[k].re, sizeof x[k].re);
        __builtin_memcpy(pass.out_im + to, &x[k].im, sizeof x[k].im);
      });
    }
  }
}

template <class T>
void run_group_pass(const GroupPass<T>& pass) {
  switch (pass.radix) {
    case 2:
      return group_columns<2>(pass);
    case 3:
      return group_columns<3>(pass);
    case 4:
      return group_columns<4>(pass);
    case 5:
      return group_columns<5>(pass);
    case 7:
      return group_columns<7>(pass);
    case 9:
      return group_columns<9>(pass);
    case 11:
      return group_columns<11>(pass);
    case 13:
      return group_columns<13>(pass);
    case 16:
      return group_columns<16>(pass);
    case 25:
      return group_columns<25>(pass);
  }
}

}  // namespace

extern const Passes<double> kDoublePasses;
extern const Passes<float> kFloatPasses;
const Passes<double> kDoublePasses{run_row_chain<double>, run_group_pass<double>};
const Passes<float> kFloatPasses{run_row_chain<float>, run_group_pass<float>};

}  // namespace kevra::host_fft::KEVRA_ISA
