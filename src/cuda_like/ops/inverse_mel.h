// From mel bands back to the bins of spectra, by a matrix of the caller's: out[row][k] = sum over m
// of P[k][m] M[row][m].
#pragma once

#include <cstdint>
#include <string_view>

#include "cuda_like/device.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

// Row-major, n_out x n_in, borrowed for the length of a call. It is uploaded at the first call and
// known by its shape and by `key` from then on: one key stands for one matrix.
struct InverseMelMatrix {
  const double* values;
  int64_t n_out;
  int64_t n_in;
  std::string_view key;
};

// rows x n_in values in, rows x n_out out.
struct InverseMelCall {
  devptr_t m;
  devptr_t out;
  int64_t rows;
  InverseMelMatrix matrix;
  bool clamp;  // values below 0 become 0
  int device = 0;
  stream_t stream = nullptr;
};

// prec 2 is double, every other float. Nothing is queued for no rows. Throws std::invalid_argument
// for sizes out of bounds before anything is queued.
void inverse_mel_scale_resident(const InverseMelCall& call, int prec);

// The gradient of a function of the bins, rows x n_out, back to its bands, rows x n_in.
struct InverseMelAdjointCall {
  devptr_t m;   // the forward pass's bands; read where it clamped
  devptr_t g;   // with respect to the bins
  devptr_t gm;  // overwritten
  int64_t rows;
  InverseMelMatrix matrix;
  bool clamp;  // a bin that came out below 0 passes nothing on
  int device = 0;
  stream_t stream = nullptr;
};

// prec 1 float, 2 double; half is refused. All else as inverse_mel_scale_resident.
void inverse_mel_scale_adjoint_resident(const InverseMelAdjointCall& call, int prec);

// m is (rows, n_in); the result (rows, n_out).
template <class T>
PinnedArray<T> inverse_mel_scale_staged(const HostArray<T>& m, const InverseMelMatrix& matrix,
                                        bool clamp);

}  // namespace kevra::ops
