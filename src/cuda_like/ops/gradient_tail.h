// The last steps from gradients of spectra to the gradient of a signal: from n_fft complex values a
// frame through device memory, or from frames that a fused kernel has laid down already.
#pragma once

#include "cuda_like/device.h"
#include "cuda_like/ops/gradients.h"
#include "cuda_like/window.h"

namespace kevra::ops {

// stft_adjoint_crop over `rows` batch rows: from `graw`, [rows][raw(slots)], to `gx`, [rows][L].
// `crop` is gradient_crop of the sizes at hand.
kernel_t gradient_crop(int n_fft, int hop, int prec, bool slots, int device);
void launch_gradient_crop(kernel_t crop, const GradientSizes& sizes, int64_t rows, devptr_t graw,
                          devptr_t gx, stream_t stream);

// Spectra of `rows` signals of the forward pass: [rows][frames][bins], complex.
template <class T>
DeviceBuffer gradient_spectra(devptr_t x, const GradientSizes& sizes, int64_t rows,
                              const WindowSpec& window, int device, stream_t stream);

// The kernels behind the front of a staged route.
struct GradientTail {
  kernel_t window_frames = nullptr;
  kernel_t crop = nullptr;
  devptr_t window = nullptr;
};
GradientTail gradient_tail(const GradientSizes& sizes, int prec, const WindowSpec& window,
                           int device);

// Overwrites `z`, [rows][frames][n_fft] conjugate gradients, zeros above bin n_fft / 2, with their
// transforms, and `gx`, [rows][L], with the gradient of the signal. rows x frames has to be a
// 32-bit number, rows at most kRowsOfALaunch.
template <class T>
void run_gradient_tail(const GradientTail& tail, const GradientSizes& sizes, int64_t rows,
                       devptr_t z, devptr_t gx, int device, stream_t stream);

// Batch rows that one pass takes: as many as a grid has, and with the staged route a transform.
int64_t gradient_rows_at_once(const GradientSizes& sizes, int64_t batch, bool staged);

}  // namespace kevra::ops
