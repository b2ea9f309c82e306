// Recursive filters over rows of samples.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

// y[n] = sum of b[m] x[n - m] for m < m1, less the sum of a[j] y[n - 1 - j] for j < p.
struct LfilterOrder {
  int64_t p;   // feedback taps; 0 is a filter without feedback
  int64_t m1;  // feedforward taps
};

// What came before a row's first sample: m1 - 1 inputs, oldest first, and the p latest outputs,
// latest first. Both null: the filter starts from rest.
struct LfilterHistory {
  devptr_t xh = nullptr;
  devptr_t zy = nullptr;

  bool any() const { return xh != nullptr || zy != nullptr; }
};

struct LfilterCall {
  devptr_t x;
  devptr_t y;   // must not overlap x
  devptr_t cf;  // m1 values b, p values a, 8 matrices of p x p
  int64_t rows;
  int64_t n;
  LfilterOrder order;
  LfilterHistory history = {};
  int64_t threads = 256;
  int64_t seq = 16;
};

// Fills a coefficient block from b and a; prec 2 is double, every other float.
void lfilter_pack_resident(devptr_t b, devptr_t a, devptr_t cf, const LfilterOrder& order, int prec,
                           int device, stream_t stream);

void lfilter_resident(const LfilterCall& call, int prec, int device, stream_t stream);

// x is (rows, samples), cf a coefficient block; xh and zy, both or none, are (rows, m1 - 1) and
// (rows, p). The result has the shape of x.
template <class T>
PinnedArray<T> lfilter_staged(const HostArray<T>& x, const HostArray<T>& cf,
                              const LfilterOrder& order, const HostArray<T>* xh,
                              const HostArray<T>* zy);

}  // namespace kevra::ops
