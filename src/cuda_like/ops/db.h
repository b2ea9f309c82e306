// Decibels of arrays in device memory, and the way back.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"

namespace kevra::ops {

// `items` rows of `n` values: out = mul * log10(max(s, amin)) - cref, and where `has_top` no value
// further than `top` below its row's largest.
struct Decibels {
  int64_t items;
  int64_t n;
  double mul;
  double amin;
  double cref;
  double top;
  bool has_top;
};

// prec 2 is double, every other float; `out` may be `s`.
void db_resident(devptr_t s, devptr_t out, const Decibels& db, int prec, int device,
                 stream_t stream);

// out = ref * 10^(d / mul) over `total` values.
void db_inv_resident(devptr_t d, devptr_t out, int64_t total, double mul, double ref, int prec,
                     int device, stream_t stream);

}  // namespace kevra::ops
