// Vectors of complex numbers, in the compiler's vector types. All of it lives in a namespace named
// after the instruction set that the including file is compiled for: the same templates are built
// several times, and the linker must not take one build's code for another's.
#pragma once

#include <cstdint>

#if defined(__AVX__)
#include <immintrin.h>
#endif

#define KEVRA_INLINE inline __attribute__((always_inline))
#define KEVRA_INLINE_LAMBDA __attribute__((always_inline))

namespace kevra::host_fft::KEVRA_ISA {

#if defined(__AVX__)
inline constexpr int kVectorBytes = 32;
#else
inline constexpr int kVectorBytes = 16;
#endif

// Columns that one step of a row pass covers: a vector of interleaved complex values.
template <class T>
inline constexpr int kWidth = kVectorBytes / (2 * sizeof(T));

template <class T, int Count>
struct VectorOf {
  using type [[gnu::vector_size(Count * sizeof(T))]] = T;
};
template <class T, int Count>
using Vector = typename VectorOf<T, Count>::type;

template <class T>
struct BitsOf;
template <>
struct BitsOf<float> {
  using type = int32_t;
};
template <>
struct BitsOf<double> {
  using type = int64_t;
};
template <class T, int Count>
using BitVector = Vector<typename BitsOf<T>::type, Count>;

// Elements I... of a followed by b.
template <class T, int... I>
KEVRA_INLINE auto shuffled(Vector<T, sizeof...(I)> a, Vector<T, sizeof...(I)> b) {
#if defined(__clang__) || __GNUC__ >= 12
  return __builtin_shufflevector(a, b, I...);
#else
  return __builtin_shuffle(a, b, BitVector<T, sizeof...(I)>{I...});
#endif
}

template <class T, int... I, class V>
KEVRA_INLINE void shuffled_store(V a, V b, T* to) {
  const V both = shuffled<T, I...>(a, b);
  __builtin_memcpy(to, &both, sizeof both);
}

// W complex numbers, real and imaginary parts in turn.
template <class T, int W>
struct Packed {
  using Real = T;
  static constexpr int kColumns = W;
  Vector<T, 2 * W> v;

  KEVRA_INLINE static Packed load(const T* from) {
    Packed x;
    __builtin_memcpy(&x.v, from, sizeof x.v);
    return x;
  }
  KEVRA_INLINE void store(T* to) const { __builtin_memcpy(to, &v, sizeof v); }

  friend KEVRA_INLINE Packed operator+(Packed a, Packed b) { return {a.v + b.v}; }
  friend KEVRA_INLINE Packed operator-(Packed a, Packed b) { return {a.v - b.v}; }
  friend KEVRA_INLINE Packed operator*(Packed a, T factor) { return {a.v * factor}; }
};

template <int N>
struct Index {
  static constexpr int value = N;
  constexpr operator int() const { return N; }  // NOLINT(google-explicit-constructor)
};

// body(Index<First>) ... body(Index<Last - 1>): arrays that it indexes can stay in registers.
template <int First, int Last, class Body>
KEVRA_INLINE void unrolled(const Body& body) {
  if constexpr (First < Last) {
    body(Index<First>{});
    unrolled<First + 1, Last>(body);
  }
}

template <class T, int W>
KEVRA_INLINE Packed<T, W> swapped(Packed<T, W> x) {
  if constexpr (W == 1) {
    return {shuffled<T, 1, 0>(x.v, x.v)};
  } else if constexpr (W == 2) {
    return {shuffled<T, 1, 0, 3, 2>(x.v, x.v)};
  } else {
    return {shuffled<T, 1, 0, 3, 2, 5, 4, 7, 6>(x.v, x.v)};
  }
}

// What a transform's direction is to a vector: the signs that a quarter turn changes.
template <class T, int W>
class Turn {
 public:
  KEVRA_INLINE explicit Turn(bool inverse) {
    const T even = inverse ? T(-0.0) : T(0), odd = inverse ? T(0) : T(-0.0);
    unrolled<0, W>([&](auto i) KEVRA_INLINE_LAMBDA {
      signs_[2 * i] = even;
      signs_[2 * i + 1] = odd;
    });
  }
  // x times i, or times -i in the forward direction.
  KEVRA_INLINE Packed<T, W> operator()(Packed<T, W> x) const {
    using Bits = BitVector<T, 2 * W>;
    return {(Vector<T, 2 * W>)((Bits)swapped(x).v ^ (Bits)signs_)};
  }

 private:
  Vector<T, 2 * W> signs_;
};

// a b with the odd elements of c added and the even ones subtracted.
template <class T, int W>
KEVRA_INLINE Packed<T, W> product_alternating(Packed<T, W> a, Packed<T, W> b, Packed<T, W> c) {
#if defined(__FMA__)
  if constexpr (sizeof a == 32 && sizeof(T) == 8) {
    return {(Vector<T, 2 * W>)_mm256_fmaddsub_pd((__m256d)a.v, (__m256d)b.v, (__m256d)c.v)};
  } else if constexpr (sizeof a == 32) {
    return {(Vector<T, 2 * W>)_mm256_fmaddsub_ps((__m256)a.v, (__m256)b.v, (__m256)c.v)};
  } else if constexpr (sizeof a == 16 && sizeof(T) == 8) {
    return {(Vector<T, 2 * W>)_mm_fmaddsub_pd((__m128d)a.v, (__m128d)b.v, (__m128d)c.v)};
  }
#endif
  const Packed<T, W> product{a.v * b.v};
  const auto sum = product + c, difference = product - c;
  if constexpr (W == 1) {
    return {shuffled<T, 0, 3>(difference.v, sum.v)};
  } else if constexpr (W == 2) {
    return {shuffled<T, 0, 5, 2, 7>(difference.v, sum.v)};
  } else {
    return {shuffled<T, 0, 9, 2, 11, 4, 13, 6, 15>(difference.v, sum.v)};
  }
}

// x (re + i im), each part standing twice in a row.
template <class T, int W>
KEVRA_INLINE Packed<T, W> multiplied(Packed<T, W> x, Packed<T, W> re, Packed<T, W> im) {
  return product_alternating(x, re, Packed<T, W>{swapped(x).v * im.v});
}

// W values that stand two apart, each twice in a row. As a load it leaves the shuffle ports alone.
template <class T, int W>
KEVRA_INLINE Packed<T, W> load_doubled(const T* from) {
#if defined(__AVX__)
  if constexpr (W == 2 && sizeof(T) == 8) {
    return {(Vector<T, 2 * W>)_mm256_movedup_pd(_mm256_loadu_pd(from))};
  } else if constexpr (W == 4) {
    return {(Vector<T, 2 * W>)_mm256_moveldup_ps(_mm256_loadu_ps(from))};
  }
#endif
  const auto x = Packed<T, W>::load(from);
  if constexpr (W == 1) {
    return {shuffled<T, 0, 0>(x.v, x.v)};
  } else if constexpr (W == 2) {
    return {shuffled<T, 0, 0, 2, 2>(x.v, x.v)};
  } else {
    return {shuffled<T, 0, 0, 2, 2, 4, 4, 6, 6>(x.v, x.v)};
  }
}

// W vectors with rows and columns exchanged, each row stored `stride` elements behind the one
// before.
template <class T>
KEVRA_INLINE void store_tile(const Packed<T, 2>* x, T* to, int stride) {
  shuffled_store<T, 0, 1, 4, 5>(x[0].v, x[1].v, to);
  shuffled_store<T, 2, 3, 6, 7>(x[0].v, x[1].v, to + stride);
}
KEVRA_INLINE void store_tile(const Packed<float, 4>* x, float* to, int stride) {
  const auto low01 = shuffled<float, 0, 1, 8, 9, 4, 5, 12, 13>(x[0].v, x[1].v);
  const auto high01 = shuffled<float, 2, 3, 10, 11, 6, 7, 14, 15>(x[0].v, x[1].v);
  const auto low23 = shuffled<float, 0, 1, 8, 9, 4, 5, 12, 13>(x[2].v, x[3].v);
  const auto high23 = shuffled<float, 2, 3, 10, 11, 6, 7, 14, 15>(x[2].v, x[3].v);
  shuffled_store<float, 0, 1, 2, 3, 8, 9, 10, 11>(low01, low23, to);
  shuffled_store<float, 0, 1, 2, 3, 8, 9, 10, 11>(high01, high23, to + stride);
  shuffled_store<float, 4, 5, 6, 7, 12, 13, 14, 15>(low01, low23, to + 2 * stride);
  shuffled_store<float, 4, 5, 6, 7, 12, 13, 14, 15>(high01, high23, to + 3 * stride);
}

// Stores R vectors so that column c of all of them follows column c - 1: R complex numbers each.
template <int R, class T, int W>
KEVRA_INLINE void store_transposed(const Packed<T, W>* x, T* to) {
  constexpr int kTiles = W == 1 ? 0 : R / W;
  if constexpr (kTiles > 0) {
    unrolled<0, kTiles>(
        [&](auto tile) KEVRA_INLINE_LAMBDA { store_tile(x + tile * W, to + 2 * tile * W, 2 * R); });
  }
  unrolled<kTiles * W, R>([&](auto k) KEVRA_INLINE_LAMBDA {
    unrolled<0, W>([&](auto column) KEVRA_INLINE_LAMBDA {
      T* const at = to + 2 * (column * R + k);
      at[0] = x[k].v[2 * column];
      at[1] = x[k].v[2 * column + 1];
    });
  });
}

}  // namespace kevra::host_fft::KEVRA_ISA
