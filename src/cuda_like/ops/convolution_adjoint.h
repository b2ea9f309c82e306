// The gradient of a convolution, for either of its operands: a correlation through transforms.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"

namespace kevra::ops {

// With gy[r] at offset `off` of a row of nf zeros, c[r][j] is the circular sum over i of
// padded[i] conj(w[r][i + len_w - 1 - j]); out[r][j] = c[r][sl_start + j], or its sum over the
// rows.
struct ConvAdjointCall {
  devptr_t gy;   // rows x len_g
  devptr_t w;    // rows_w x len_w; of any number of rows but `rows`, the first serves all
  devptr_t out;  // rows x sl_len; one row of sl_len with sum_rows
  int64_t rows;
  int64_t rows_w;
  int64_t len_g;
  int64_t len_w;
  int64_t nf;
  int64_t off;
  int64_t sl_start;
  int64_t sl_len;
  bool sum_rows;
  bool is_complex;  // all three arrays

  bool shares_w() const { return rows_w != rows; }
};

// prec 0 is half storage with float arithmetic, for complex data float; 2 double, else float.
// Throws std::invalid_argument for what does not fit into nf.
void conv_adjoint_resident(const ConvAdjointCall& call, int prec, int device, stream_t stream);

}  // namespace kevra::ops
