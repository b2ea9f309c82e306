// The arithmetic of the transform: Stockham passes, chained over one row or run over groups of
// rows. The file is plain declarations, so that it can be shared by code that is compiled for
// different instruction sets.
#pragma once

#include <cstdint>

namespace kevra::host_fft {

// What the passes read of a plan.
template <class T>
struct PassTables {
  const int* radices;
  int passes;
  const int64_t* twiddle_offsets;
  const T* twiddles;
  const int64_t* packed_offsets;
  const T* packed_twiddles;
  const int64_t* root_offsets;
  const T* root_re;
  const T* root_im;
};

// One row. `in`, `out`, `buffer0` and `buffer1` are n complex values each and do not overlap.
template <class T>
struct RowChain {
  PassTables<T> tables;
  int n;
  bool inverse;
  T scale;
  const T* in;
  T* out;
  T* buffer0;
  T* buffer1;
  // Each real (imaginary) part twice in a row, of n numbers that the input is multiplied by on its
  // way into the first pass; null for none. Only first radices 4, 8, 16 and 32 take them.
  const T* multiply_re = nullptr;
  const T* multiply_im = nullptr;
};

// Rows of one group, lane by lane: element k of lane l at k kLanes + l.
template <class T>
inline constexpr int kLanes = 64 / sizeof(T);

template <class T>
struct GroupPass {
  int n;
  int radix;
  int before;           // product of the radices before this pass
  const double* roots;  // n complex numbers exp(-2 pi i k / n)
  const T* in_re;
  const T* in_im;
  T* out_re;
  T* out_im;
};

// The passes as built for one instruction set.
template <class T>
struct Passes {
  void (*row_chain)(const RowChain<T>& chain);
  void (*group_pass)(const GroupPass<T>& pass);
};

}  // namespace kevra::host_fft
