// The r-point transform of values in registers as straight-line statements, and the twiddles of a
// Stockham stage. Every stage emitter goes through these two.
#pragma once

#include <string>
#include <vector>

#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// y[k] = sum over j of x[j] exp(-2 pi i j k / r), over names of `cplx` variables. With `conjugate`
// the roots are conjugate and a composite r also divides by r, while a prime r does not: the gain
// of a whole schedule is then the product of its prime radices.
std::vector<std::string> butterfly(KernelWriter& w, const std::vector<std::string>& x, int r,
                                   bool conjugate);

// The roots exp(-2 pi i q index / order), or their conjugates, for q = 1, 2, ... in turn: each read
// from a table, or a chain of products from one sincos.
class TwiddlePowers {
 public:
  TwiddlePowers(KernelWriter& w, std::string index, int order, bool conjugate);
  std::string next();

 private:
  std::string root(int q);

  KernelWriter& w_;
  std::string index_;
  int order_;
  bool conjugate_;
  int q_ = 0;
  std::string first_;
  std::string power_;
};

// Multiplies g[q] by exp(-2 pi i q index / stage_len), or its conjugate, for q from 1 to r - 1 and
// puts the new names in place.
void stage_twiddles(KernelWriter& w, std::vector<std::string>& g, const std::string& index,
                    int stage_len, int r, bool conjugate);

}  // namespace kevra::codegen
