#include "cuda_like/ops/gradient_tail.h"

#include <algorithm>
#include <limits>

#include "codegen/kernels/gradient_frames.h"
#include "codegen/kernels/spectrum_output.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/fft.h"
#include "cuda_like/ops/stft.h"

namespace kevra::ops {

using codegen::GradientCrop;
using codegen::GradientWindow;

kernel_t gradient_crop(int n_fft, int hop, int prec, bool slots, int device) {
  return kernel_function(GradientCrop{n_fft, hop, prec, slots}, device);
}

void launch_gradient_crop(kernel_t crop, const GradientSizes& sizes, int64_t rows, devptr_t graw,
                          devptr_t gx, stream_t stream) {
  int length = sizes.length;
  int pad = sizes.pad;
  int frames = sizes.frames;
  int64_t out_len = sizes.out_len;
  void* args[] = {&graw, &gx, &length, &pad, &frames, &out_len};
  constexpr int kBlock = GradientCrop::kBlock;
  launch_kernel(crop, static_cast<unsigned>((int64_t{length} + kBlock - 1) / kBlock),
                static_cast<unsigned>(rows), kBlock, 0, args, GradientCrop::kName, stream);
}

template <class T>
DeviceBuffer gradient_spectra(devptr_t x, const GradientSizes& sizes, int64_t rows,
                              const WindowSpec& window, int device, stream_t stream) {
  const size_t values = static_cast<size_t>(rows) * sizes.frames * sizes.bins() * 2;
  DeviceBuffer spectra(values * sizeof(T), stream);
  stft_dispatch<T>({.y = x,
                    .out = spectra.p,
                    .batch = rows,
                    .length = sizes.length,
                    .n_fft = sizes.n_fft,
                    .hop = sizes.hop,
                    .center = sizes.pad > 0,
                    .form = codegen::kComplexForm,
                    .window = window,
                    .device = device,
                    .stream = stream});
  return spectra;
}

template DeviceBuffer gradient_spectra<float>(devptr_t, const GradientSizes&, int64_t,
                                              const WindowSpec&, int, stream_t);
template DeviceBuffer gradient_spectra<double>(devptr_t, const GradientSizes&, int64_t,
                                               const WindowSpec&, int, stream_t);

GradientTail gradient_tail(const GradientSizes& sizes, int prec, const WindowSpec& window,
                           int device) {
  return {.window_frames = kernel_function(GradientWindow{sizes.n_fft, prec}, device),
          .crop = gradient_crop(sizes.n_fft, sizes.hop, prec, true, device),
          .window = window_table(window, sizes.n_fft, prec)};
}

template <class T>
void run_gradient_tail(const GradientTail& tail, const GradientSizes& sizes, int64_t rows,
                       devptr_t z, devptr_t gx, int device, stream_t stream) {
  fft_dispatch<T>({.x = z,
                   .out = z,
                   .rows = rows * sizes.frames,
                   .n = sizes.n_fft,
                   .device = device,
                   .stream = stream});
  const DeviceBuffer raw(static_cast<size_t>(rows * sizes.raw(true)) * sizeof(T), stream);
  devptr_t frames = raw.p;
  devptr_t window = tail.window;
  int count = sizes.frames;
  void* args[] = {&z, &frames, &window, &count};
  launch_kernel(tail.window_frames, static_cast<unsigned>(count), static_cast<unsigned>(rows),
                GradientWindow::kBlock, 0, args, GradientWindow::kName, stream);
  launch_gradient_crop(tail.crop, sizes, rows, frames, gx, stream);
}

template void run_gradient_tail<float>(const GradientTail&, const GradientSizes&, int64_t, devptr_t,
                                       devptr_t, int, stream_t);
template void run_gradient_tail<double>(const GradientTail&, const GradientSizes&, int64_t,
                                        devptr_t, devptr_t, int, stream_t);

int64_t gradient_rows_at_once(const GradientSizes& sizes, int64_t batch, bool staged) {
  const int64_t rows = std::min(batch, kRowsOfALaunch);
  if (!staged) return rows;
  return std::min(rows, int64_t{std::numeric_limits<int>::max()} / sizes.frames);
}

}  // namespace kevra::ops
