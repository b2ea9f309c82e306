// Cepstra of the frames of a signal: c[frame][k] = w[k] times coefficient k of the orthonormal
// DCT-II of the frame's bands in decibels.
#pragma once

#include <cstdint>

#include "cuda_like/dct.h"
#include "cuda_like/device.h"
#include "cuda_like/ops/mel.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

struct CepstraOptions {
  int64_t n_out;
  double lifter;  // w[k] = 1 + lifter / 2 sin(pi (k + 1) / lifter); 1 where lifter is not above 0
  double
      top_db;  // bands are at least their signal's loudest less top_db; below 0 there is no floor
};

// `bands` is a call for powers in decibels whose `mel` takes batch x frames x n_out coefficients.
// Nothing is queued for no batch.
struct CepstraCall {
  MelCall bands;
  CepstraOptions options;
};

// The frames of a signal. Throws std::invalid_argument for arguments that cannot be served.
int64_t check_cepstra(const CepstraCall& call);
// The matrix that takes a frame's bands to its cepstra.
CosineMatrix cepstra_cosines(const CepstraOptions& options, const FilterBank& bank);

// Throws what check_cepstra throws, before anything is queued.
template <class T>
void cepstra_dispatch(const CepstraCall& call);

// prec 2 is double, every other float.
void cepstra_resident(const CepstraCall& call, int prec);

// y is (batch, samples); the result (batch, frames, n_out).
PinnedArray<double> cepstra_staged(const HostArray<double>& y, const MelOptions& bands,
                                   const CepstraOptions& options);

}  // namespace kevra::ops
