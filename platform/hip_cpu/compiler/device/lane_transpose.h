// Elements of a group's rows, one row a lane, into lanes and back. Records of 8 and 16 bytes move
// whole and are transposed in registers: within each piece of 16 bytes of the vectors, since
// crossing pieces costs more.
#pragma once

#include "compiler/device/lane_math.h"

#ifdef KEVRA_CPU_LANE_CODE

namespace kevra_cpu_device {

template <typename T, int count>
using Few = T __attribute__((ext_vector_type(count)));

template <typename T>
constexpr int piece = 16 / int(sizeof(T));  // elements of 16 bytes

// Element k of a piece of two vectors' shuffle: below `piece` it comes from the first vector's
// piece, else from the second's.
template <typename T, typename Pattern, int... I>
static inline Vector<T> shuffle_pieces(Vector<T> a, Vector<T> b, Pattern, Sequence<int, I...>) {
  return __builtin_shufflevector(a, b,
                                 (I / piece<T> * piece<T> + Pattern::at(I % piece<T>) % piece<T> +
                                  Pattern::at(I % piece<T>) / piece<T> * lanes)...);
}
template <typename Pattern, typename T>
static inline Vector<T> shuffle(const Lanes<T>& a, const Lanes<T>& b) {
  return shuffle_pieces<T>(a.v, b.v, Pattern(), __make_integer_seq<Sequence, int, lanes>{});
}

template <int... from>
struct Pattern {
  static constexpr int at(int k) {
    constexpr int all[] = {from...};
    return all[k];
  }
};
using InterleaveLow = Pattern<0, 4, 1, 5>;
using InterleaveHigh = Pattern<2, 6, 3, 7>;
using LowHalves = Pattern<0, 1, 4, 5>;
using HighHalves = Pattern<2, 3, 6, 7>;
using Even = Pattern<0, 2, 4, 6>;
using Odd = Pattern<1, 3, 5, 7>;
using FirstOfTwo = Pattern<0, 2>;
using SecondOfTwo = Pattern<1, 3>;

template <typename T, int count, int... I>
static inline Few<T, 2 * count> joined(Few<T, count> a, Few<T, count> b, Sequence<int, I...>) {
  return __builtin_shufflevector(a, b, I...);
}

// A piece from one row, or two halves of it from neighbouring rows.
template <typename T, int bytes>
static inline Few<T, piece<T>> load_piece(const char* from, long long step) {
  Few<T, piece<T>> loaded;
  if constexpr (bytes == 16) {
    __builtin_memcpy(&loaded, from, 16);
  } else {
    Few<T, piece<T> / 2> low, high;
    __builtin_memcpy(&low, from, 8);
    __builtin_memcpy(&high, from + step, 8);
    loaded = joined<T, piece<T> / 2>(low, high, __make_integer_seq<Sequence, int, piece<T>>{});
  }
  return loaded;
}

// A vector whose piece number q comes from the row `piece` * q behind the first.
template <typename T, int bytes, int count = lanes>
static inline Few<T, count> load_pieces(const char* from, long long step) {
  if constexpr (count == piece<T>) {
    return load_piece<T, bytes>(from, step);
  } else {
    return joined<T, count / 2>(load_pieces<T, bytes, count / 2>(from, step),
                                load_pieces<T, bytes, count / 2>(from + count / 2 * step, step),
                                __make_integer_seq<Sequence, int, count>{});
  }
}

template <int first, typename T, int... I>
static inline Few<T, sizeof...(I)> part(Vector<T> v, Sequence<int, I...>) {
  return __builtin_shufflevector(v, v, (first + I)...);
}

template <typename T, int bytes, int first = 0>
static inline void store_pieces(char* to, long long step, Vector<T> v) {
  constexpr int count = bytes / int(sizeof(T));
  const auto low = part<first, T>(v, __make_integer_seq<Sequence, int, count>{});
  __builtin_memcpy(to + first * step, &low, bytes);
  if constexpr (bytes == 8) {
    const auto high = part<first + count, T>(v, __make_integer_seq<Sequence, int, count>{});
    __builtin_memcpy(to + (first + 1) * step, &high, bytes);
  }
  if constexpr (first + piece<T> < lanes) store_pieces<T, bytes, first + piece<T>>(to, step, v);
}

template <typename T>
struct Rows {
  static Lanes<T> load(const char* first, long long step) {
    Lanes<T> result;
    for (int i = 0; i < lanes; ++i) {
      T value;
      __builtin_memcpy(&value, first + i * step, sizeof value);
      result.v[i] = value;
    }
    return result;
  }
  static void store(char* first, long long step, const Lanes<T>& x) {
    for (int i = 0; i < lanes; ++i) {
      const T value = x.v[i];
      __builtin_memcpy(first + i * step, &value, sizeof value);
    }
  }
};

// Templates even where a single type is meant: a text that does not move such records is not made
// to compile their shuffles, a twentieth of a short compile.
template <typename T>
  requires(__is_same(T, float2))
struct Rows<T> {
  static Lanes<float2> load(const char* first, long long step) {
    // Pieces of rows 0, 1 and of rows 2, 3 of each four.
    const Lanes<float> a(load_pieces<float, 8>(first, step)),
        b(load_pieces<float, 8>(first + 2 * step, step));
    return {shuffle<Even>(a, b), shuffle<Odd>(a, b)};
  }
  static void store(char* first, long long step, const Lanes<float2>& x) {
    store_pieces<float, 8>(first, step, shuffle<InterleaveLow>(x.x, x.y));
    store_pieces<float, 8>(first + 2 * step, step, shuffle<InterleaveHigh>(x.x, x.y));
  }
};

template <typename T>
  requires(__is_same(T, float4))
struct Rows<T> {
  static Lanes<float4> load(const char* first, long long step) {
    const Lanes<float> a(load_pieces<float, 16>(first, step)),
        b(load_pieces<float, 16>(first + step, step)),
        c(load_pieces<float, 16>(first + 2 * step, step)),
        d(load_pieces<float, 16>(first + 3 * step, step));
    const Lanes<float> xy0(shuffle<InterleaveLow>(a, b)), xy1(shuffle<InterleaveLow>(c, d)),
        zw0(shuffle<InterleaveHigh>(a, b)), zw1(shuffle<InterleaveHigh>(c, d));
    return {shuffle<LowHalves>(xy0, xy1), shuffle<HighHalves>(xy0, xy1),
            shuffle<LowHalves>(zw0, zw1), shuffle<HighHalves>(zw0, zw1)};
  }
  static void store(char* first, long long step, const Lanes<float4>& x) {
    const Lanes<float> xy0(shuffle<InterleaveLow>(x.x, x.y)),
        xy1(shuffle<InterleaveHigh>(x.x, x.y)), zw0(shuffle<InterleaveLow>(x.z, x.w)),
        zw1(shuffle<InterleaveHigh>(x.z, x.w));
    store_pieces<float, 16>(first, step, shuffle<LowHalves>(xy0, zw0));
    store_pieces<float, 16>(first + step, step, shuffle<HighHalves>(xy0, zw0));
    store_pieces<float, 16>(first + 2 * step, step, shuffle<LowHalves>(xy1, zw1));
    store_pieces<float, 16>(first + 3 * step, step, shuffle<HighHalves>(xy1, zw1));
  }
};

template <typename T>
  requires(__is_same(T, double2))
struct Rows<T> {
  static Lanes<double2> load(const char* first, long long step) {
    const Lanes<double> a(load_pieces<double, 16>(first, step)),
        b(load_pieces<double, 16>(first + step, step));
    return {shuffle<FirstOfTwo>(a, b), shuffle<SecondOfTwo>(a, b)};
  }
  static void store(char* first, long long step, const Lanes<double2>& x) {
    store_pieces<double, 16>(first, step, shuffle<FirstOfTwo>(x.x, x.y));
    store_pieces<double, 16>(first + step, step, shuffle<SecondOfTwo>(x.x, x.y));
  }
};

template <typename T>
  requires(__is_same(T, __half))
struct Rows<T> {
  static Lanes<__half> load(const char* first, long long step) {
    Lanes<__half> result;
    result.bits = Rows<unsigned short>::load(first, step).v;
    return result;
  }
  static void store(char* first, long long step, const Lanes<__half>& x) {
    Rows<unsigned short>::store(first, step, Lanes<unsigned short>(x.bits));
  }
};

// A pair of halves moves as one word.
template <typename T>
  requires(__is_same(T, __half2))
struct Rows<T> {
  static Lanes<__half2> load(const char* first, long long step) {
    const Vector<unsigned> words = Rows<unsigned>::load(first, step).v;
    Lanes<__half2> result;
    result.x.bits = __builtin_convertvector(words & 0xffff, Vector<unsigned short>);
    result.y.bits = __builtin_convertvector(words >> 16, Vector<unsigned short>);
    return result;
  }
  static void store(char* first, long long step, const Lanes<__half2>& x) {
    const auto low = __builtin_convertvector(x.x.bits, Vector<unsigned>);
    const auto high = __builtin_convertvector(x.y.bits, Vector<unsigned>);
    Rows<unsigned>::store(first, step, Lanes<unsigned>(Vector<unsigned>(low | high << 16)));
  }
};

// Lines that are needed soon, each asked for by one of the threads that share the line before it:
// where in a line an element lies says which lane's line its thread asks for. Where the rows of a
// group are short, those of the group that most likely runs next on this core are read ahead; the
// processor sees no pattern in so many rows, and longer ones would drive out what this group needs.
constexpr long long ahead_bytes = 1 << 16, line_bytes = 64;

template <int bytes, bool write>
static inline void fetch_ahead(const char* first, long long step) {
  const long long group = step * lanes;
  const long long ahead = write || group > ahead_bytes ? line_bytes : group;
  const auto in_line = reinterpret_cast<unsigned long long>(first) / 8;
  for (int i = 0; i < (bytes + 7) / 8; ++i)
    __builtin_prefetch(first + ahead + (long long)((in_line + i) % lanes) * step, write, 2);
}

template <typename T>
static inline Lanes<T> load_rows(const char* first, long long step) {
  fetch_ahead<sizeof(T), false>(first, step);
  return Rows<T>::load(first, step);
}
template <typename T>
static inline void store_rows(char* first, long long step, const Lanes<T>& x) {
  fetch_ahead<sizeof(T), true>(first, step);
  Rows<T>::store(first, step, x);
}

}  // namespace kevra_cpu_device

#endif
