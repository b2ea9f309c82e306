// What convolutions through transforms and their gradients have in common.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"

namespace kevra::ops {

// Where and how one call's kernels run.
struct ConvQueue {
  int prec;
  int device;
  stream_t stream;
  bool is_complex = false;

  // One thread to a value of `width` a row.
  void launch(kernel_t fn, int64_t width, int64_t rows, void** args, const char* name) const;
  int64_t bins(int64_t nf) const { return is_complex ? nf : nf / 2 + 1; }
};

// rows x nf values to rows x bins(nf) of a spectrum; the inverse goes back. Complex rows may be
// transformed in place.
template <class T>
void transform_rows(const ConvQueue& queue, devptr_t x, devptr_t out, int64_t rows, int64_t nf,
                    bool inverse);

// z *= w over spectra of nb bins; one row of w serves all where it is shared.
template <class T>
void multiply_spectra(const ConvQueue& queue, devptr_t w, devptr_t z, int64_t rows, int64_t nb,
                      bool share_w);

// Samples start to start + length of each row of nf.
struct RowWindow {
  int64_t nf;
  int64_t start;
  int64_t length;
};
// To rows x length values: complex ones as they are, reals in the queue's storage.
template <class T>
void cut_rows(const ConvQueue& queue, devptr_t x, const RowWindow& window, int64_t rows,
              devptr_t out);

}  // namespace kevra::ops
