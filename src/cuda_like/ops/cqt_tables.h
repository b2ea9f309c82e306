// The device tables of a constant-Q design. They are named by its plan_key, made once, and read by
// the transform, its adjoint and its inverse.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/ops/cqt_design.h"

namespace kevra::ops {

// One record, its basis in device memory.
struct CqtOctave {
  int level;
  int hop;
  int n_fft;
  int row_lo;
  int rows;
  devptr_t br, bi;
  // Where the basis is not zero: first and last column of a row, first and last row of a column. A
  // row without any has (columns, -1), a column (rows, -1).
  devptr_t blo, bhi, klo, khi;

  int bins() const { return n_fft / 2 + 1; }
};

// Both on the current device, T being the type of the arithmetic. The design has passed its check.
// Throws std::invalid_argument, naming `op`, where the plan_key has stood for a basis of another
// shape: kernels would read past its tables.
template <class T>
CqtOctave octave_tables(const char* op, const CqtDesign& design, size_t index);
template <class T>
devptr_t taps_table(const CqtDesign& design);

// An octave of dual filters, for frames of n_d samples of a signal whose rate is 2^shift times
// lower than that of the result: `filters` has rows x n_d / 2 + 1 complex values, real and
// imaginary parts in turn.
struct DualRecord {
  int64_t shift;
  int64_t n_d;
  int64_t row_lo;
  int64_t rows;
  LazyMatrix filters;

  int64_t half() const { return n_d / 2 + 1; }
  int64_t span() const { return n_d << shift; }  // samples of a frame of the result
  int64_t half_at_full_rate() const { return span() / 2 + 1; }
};
// As octave_tables; `index` is the record's place in messages.
template <class T>
devptr_t dual_table(const char* op, std::string_view plan_key, const DualRecord& record,
                    size_t index);

// A design's pitch classes, one a bin.
struct LazyClasses {
  int64_t count;
  std::function<std::vector<int64_t>()> read;
};
// Throws std::invalid_argument, naming `op`, unless there are n_bins classes, each below n_chroma.
template <class T>
devptr_t classes_table(const char* op, const CqtDesign& design, const LazyClasses& classes,
                       int64_t n_chroma);

}  // namespace kevra::ops
