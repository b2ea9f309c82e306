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
