// Least squares by conjugate gradient on the normal equations: y moves towards the signal whose
// image under a linear map is nearest to given coefficients, abs(A y - c)^2.
#pragma once

#include <cstdint>
#include <functional>

#include "cuda_like/device.h"

namespace kevra::ops {

// A and its adjoint, of rows of `length` reals to rows of `coefficients` complex numbers. Both
// queue on the stream that they are given, overwrite the result, and queue only what a graph can
// hold once they have run before.
struct LinearMap {
  std::function<void(devptr_t x, devptr_t c, stream_t stream)> forward;
  std::function<void(devptr_t c, devptr_t x, stream_t stream)> adjoint;
};

struct LeastSquaresCall {
  devptr_t c;  // batch x coefficients
  devptr_t y;  // batch x length: where to start, and the result
  int64_t batch;
  int64_t length;
  int64_t coefficients;
  int64_t n_iter;  // every row takes as many steps
  int device;
  stream_t stream;
};

// The device is current. Returns when the result is there.
template <class T>
void solve_least_squares(const LinearMap& map, const LeastSquaresCall& call);

}  // namespace kevra::ops
