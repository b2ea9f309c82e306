// Memory in lane code. Shared memory is an array of Lanes<T>, one cell an element, so pointers into
// it are plain ones. Pointers into device memory are wrapped: one address for all lanes, or rows
// of equal distance, one a lane, whose elements are transposed in registers on their way.
#pragma once

#include "compiler/device/lane_save.h"
#include "compiler/device/lane_transpose.h"

#ifdef KEVRA_CPU_LANE_CODE

namespace kevra_cpu_device {

// The kernel reads through a pointer that it may have written through, so a group that ran twice
// would read its own results.
static inline void note_reading() {
  if (__atomic_load_n(&kevra_lane_hooks.adds, __ATOMIC_RELAXED) != 0) diverge();
  if (logging()) return;
  kevra_lane_hooks.need_log();
  __builtin_unreachable();
}

template <typename T>
struct RowPointer;

// An element of the group's rows that can be stored to.
template <typename T>
struct RowElement {
  char* first;
  long long step;

  template <typename U>
  void operator=(const U& x) const {
    note_store(first, step, sizeof(T));
    store_rows<T>(first, step, Lanes<T>(LaneCast<T>::of(x)));
  }
  void operator=(const RowElement& other) const { *this = Lanes<T>(other); }
  template <typename U>
  void operator+=(const U& x) const {
    *this = Lanes<T>(*this) + x;
  }
  operator Lanes<T>() const {
    note_reading();
    return load_rows<T>(first, step);
  }
  RowPointer<T> operator&() const { return {first, step}; }
};

template <Number T>
struct Kind<RowElement<T>> {
  static constexpr int rank = 3;
  using Element = T;
};

// An element at one address for all lanes; of what they store the last lane's value stays.
template <typename T>
struct SharedElement {
  T* address;

  void operator=(const T& x) const {
    note_store(address, 0, sizeof(T));
    *address = x;
  }
  void operator=(const Lanes<T>& x) const {
    note_store(address, 0, sizeof(T));
    store_rows<T>(reinterpret_cast<char*>(address), 0, x);
  }
  void operator=(const SharedElement& other) const { *this = T(other); }
  operator T() const {
    note_reading();
    return *address;
  }
  RowPointer<T> operator&() const { return {reinterpret_cast<char*>(address), 0}; }
};

template <typename T>
struct RowPointer {
  char* first;
  long long step;  // bytes

  auto operator*() const {
    if constexpr (__is_const(T)) {
      return load_rows<typename Plain<T>::type>(first, step);
    } else {
      return RowElement<T>{first, step};
    }
  }
  template <typename I>
  auto operator[](const I& i) const {
    return *(*this + i);
  }
  template <typename I>
  RowPointer operator+(const I& i) const {
    const Affine<long long> at = affine<long long>(i);
    return {first + at.first * (long long)sizeof(T), step + at.step * (long long)sizeof(T)};
  }
  template <typename I>
  RowPointer operator-(const I& i) const {
    return *this + -affine<long long>(i);
  }
};

template <typename T>
struct Pointer {
  T* address;

  template <Integer I>
  decltype(auto) operator[](I i) const {
    if constexpr (__is_const(T)) {
      return (address[i]);
    } else {
      return SharedElement<T>{address + i};
    }
  }
  template <typename I>
  auto operator[](const Affine<I>& i) const {
    return *(*this + i);
  }
  decltype(auto) operator*() const { return (*this)[0]; }
  template <Integer I>
  Pointer operator+(I i) const {
    return {address + i};
  }
  template <Integer I>
  Pointer operator-(I i) const {
    return {address - i};
  }
  template <typename I>
  RowPointer<T> operator+(const Affine<I>& i) const {
    return RowPointer<T>{const_cast<char*>(reinterpret_cast<const char*>(address)), 0} + i;
  }
  explicit operator bool() const { return address != nullptr; }
};

template <typename T>
static inline T lane_argument(const T& x) {
  return x;
}
template <typename T>
static inline Pointer<T> lane_argument(T* x) {
  return {x};
}

// The halves within words of a local record, such as a float4 that carries eight of them.
struct HalvesOfWords {
  Lanes<float>* words;

  struct Element {
    Lanes<float>* word;
    Lanes<__half> x, y;
    void operator=(const Lanes<__half2>& value) const {
      const auto low = __builtin_convertvector(value.x.bits, Vector<unsigned>);
      const auto high = __builtin_convertvector(value.y.bits, Vector<unsigned>);
      word->v = __builtin_bit_cast(Vector<float>, Vector<unsigned>(low | high << 16));
    }
    operator Lanes<__half2>() const { return {x, y}; }
  };
  Element operator[](int i) const {
    const auto bits = __builtin_bit_cast(Vector<unsigned>, words[i].v);
    Element element{words + i, {}, {}};
    element.x.bits = __builtin_convertvector(bits & 0xffff, Vector<unsigned short>);
    element.y.bits = __builtin_convertvector(bits >> 16, Vector<unsigned short>);
    return element;
  }
};

// Elements of one width can be looked at as each other, cell by cell; bytes become anything.
template <typename T>
constexpr int cell_bytes = 0;
template <>
constexpr int cell_bytes<char> = 1;
template <>
constexpr int cell_bytes<unsigned char> = 1;
template <>
constexpr int cell_bytes<__half> = 2;
template <>
constexpr int cell_bytes<__half2> = 2;
template <>
constexpr int cell_bytes<float> = 4;
template <>
constexpr int cell_bytes<float2> = 4;
template <>
constexpr int cell_bytes<float4> = 4;
template <>
constexpr int cell_bytes<int> = 4;
template <>
constexpr int cell_bytes<unsigned> = 4;
template <>
constexpr int cell_bytes<double> = 8;
template <>
constexpr int cell_bytes<double2> = 8;
template <>
constexpr int cell_bytes<long long> = 8;

template <typename T>
struct LaneCast<T*> {
  using To = typename Plain<T>::type;
  template <typename U>
  static Pointer<T> of(const Pointer<U>& p) {
    static_assert(__is_const(T) || !__is_const(U), "a pointer that is only read through");
    return {reinterpret_cast<T*>(p.address)};
  }
  template <typename U>
  static RowPointer<T> of(const RowPointer<U>& p) {
    static_assert(__is_const(T) || !__is_const(U), "a pointer that is only read through");
    return {p.first, p.step};
  }
  static HalvesOfWords of(const HalvesOfWords& p) { return p; }
  template <typename U>
  static auto of(Lanes<U>* p) {
    if constexpr (cell_bytes<To> == 2 && cell_bytes<U> == 4) {
      return HalvesOfWords{reinterpret_cast<Lanes<float>*>(p)};
    } else {
      static_assert(cell_bytes<To> != 0 && (cell_bytes<U> == 1 || cell_bytes<U> == cell_bytes<To>),
                    "elements of another width lie elsewhere");
      return reinterpret_cast<Lanes<To>*>(p);
    }
  }
};
template <typename T>
struct LaneCast<T* __restrict> : LaneCast<T*> {};
template <typename T>
struct LaneCast<T* const> : LaneCast<T*> {};

// An address as a number, which tells how it is aligned.
template <Integer T, typename U>
static inline T lane_cast(const Pointer<U>& p) {
  return T(reinterpret_cast<unsigned long long>(p.address));
}

}  // namespace kevra_cpu_device

#endif
