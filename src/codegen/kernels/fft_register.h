// Complex transforms whose rows live in registers: each thread holds whole butterflies, and shared
// memory only carries values from one stage to the next. Same parameters and conventions as the
// kernel in shared memory (fft.h).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "codegen/backend.h"
#include "codegen/kernels/fft_parts.h"
#include "codegen/kernels/fft_register_stages.h"

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
  std::vector<int> radices;
  int rows = 1;          // to a block; 2 of the pair form
  bool windows = false;  // as RegisterLayout has them
  bool half_exchange = false;

  RegisterLayout layout() const { return {data.n, radices, windows, half_exchange}; }
  int ept() const { return radices.front(); }
  int threads() const { return data.n / ept(); }  // to a row
  int block() const { return threads() * (form == kPair ? 1 : rows); }
  std::string key() const;
};

std::string register_fft_source(const RegisterFftKernel& kernel, const Backend& backend);

}  // namespace kevra::codegen
