// Rows through a matrix: out[f][k] = sum over m of Tt[k][m] M[f][m], a value a thread.
#pragma once

#include <string>

#include "codegen/backend.h"
#include "codegen/kernels/matrix_product.h"

namespace kevra::codegen {

// What a value becomes on its way out.
enum class ProductStore {
  kPlain = 0,
  kClamp = 1,  // at least 0
  kGate = 2,   // 0 where it is below 0, else the value of `aux` at its place
};

// Takes (M, out, Tt, aux, nt), nt being the number of rows; `aux` is read by the gate alone.
struct RowProductKernel {
  static constexpr const char* kName = "kevra_pmatmul";
  static constexpr int kBlock = kProductBlock;

  int prec;  // float or double
  int n_in;
  int n_out;
  ProductStore mode;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
