// The gradient of a function of cepstra back to the signal. A band that the floor raised follows
// its signal's loudest band, the first of equals.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/ops/cepstra.h"
#include "cuda_like/ops/mel.h"

namespace kevra::ops {

struct CepstraAdjointCall {
  devptr_t gc;  // with respect to the cepstra, batch x n_out x frames
  devptr_t x;   // the forward pass's signal, batch x length
  devptr_t gx;  // batch x length, overwritten
  int64_t batch;
  int64_t length;
  MelOptions bands;  // powers in decibels
  CepstraOptions cepstra;
  int device = 0;
  stream_t stream = nullptr;
};

// prec 1 float, 2 double; half is refused. Throws std::invalid_argument for arguments that cannot
// be served, before anything is queued. Queues nothing for no batch.
void cepstra_adjoint_resident(const CepstraAdjointCall& call, int prec);

}  // namespace kevra::ops
