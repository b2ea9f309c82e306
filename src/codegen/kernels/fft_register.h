// Complex transforms whose rows live in registers: each thread holds whole butterflies, and shared
// memory only carries values from one stage to the next. Same parameters and conventions as the
// kernel in shared memory (fft.h).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "codegen/backend.h"
#include "codegen/kernels/fft_parts.h"

namespace kevra::codegen {

struct RegisterFftKernel {
  enum Form {
    kTwoPass,    // n = p p: columns, a transpose, rows
    kThreePass,  // n = p p p
    kMixed,      // any radices that divide the first
    kPair,       // kMixed in half arithmetic, two rows in the lanes of each value; forward only
  };
  Form form;
  FftRows data;
  std::vector<int> radices;  // the first is the number of elements that a thread holds
  int rows = 1;              // to a block; 2 of the pair form
  // Each thread writes its values to a window of its own, one component at a time; else the whole
  // row stands in the buffer in its order.
  bool windows = false;
  bool half_exchange = false;  // windows of halves under float arithmetic

  int ept() const { return radices.front(); }
  int threads() const { return data.n / ept(); }  // to a row
  int block() const { return threads() * (form == kPair ? 1 : rows); }
  std::string key() const;
};

std::string register_fft_source(const RegisterFftKernel& kernel, const Backend& backend);

}  // namespace kevra::codegen
