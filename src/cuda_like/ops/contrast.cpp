#include "cuda_like/ops/contrast.h"

#include "codegen/kernels/contrast.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {
namespace {

using codegen::ContrastKernel;

template <class T>
void reduce(devptr_t m, devptr_t out, int64_t rows, int64_t n, const ContrastOptions& contrast,
            int prec, int device, stream_t stream) {
  const int64_t pad = band_pad(contrast.bands);
  const ContrastKernel kernel = ContrastKernel::chosen(prec, pad, device_shared_limit(device));
  const kernel_t fn = kernel_function(kernel, device);
  const size_t shared = kernel.shared_bytes(pad);
  const size_t stored = prec == codegen::kHalf ? 2 : sizeof(T);
  int n_bands = static_cast<int>(contrast.bands.n_bands);
  devptr_t bt = upload_bands(contrast.bands);
  char* bq = at(bt, n_bands + 1, sizeof(int32_t));
  T amin = static_cast<T>(contrast.amin);
  int linear = contrast.linear ? 1 : 0;
  in_chunks(rows, [&](int64_t first, int64_t count) {
    char* from = at(m, first * n, stored);
    char* to = at(out, first * n_bands, stored);
    void* args[] = {&from, &to, &bt, &bq, &n, &n_bands, &amin, &linear};
    launch_kernel(fn, static_cast<unsigned>(count), static_cast<unsigned>(n_bands), kernel.kBlock,
                  shared, args, kernel.name(), stream);
  });
}

template <class T>
bool signal(const StftCall& call, const ContrastOptions& contrast) {
  const BandTable& bands = contrast.bands;
  return frame_statistic<T>(
      call,
      {.stat = codegen::kContrast,
       .n_bands = static_cast<int>(bands.n_bands),
       .band_pad = static_cast<int>(band_pad(bands))},
      {.amin = contrast.amin, .roll = contrast.linear ? 1.0 : 0.0, .bands = &bands});
}

void check_frame_bands(const BandTable& bands, int64_t n_fft) {
  check_band_edges(bands);
  require_int32("stft", "n_fft", n_fft, 2);
  check_bands(bands, n_fft / 2 + 1);
}

}  // namespace

bool contrast_signal_resident(const StftCall& call, const ContrastOptions& contrast, int prec) {
  if (prec == codegen::kHalf) return false;
  check_frame_bands(contrast.bands, call.n_fft);
  return prec == codegen::kDouble ? signal<double>(call, contrast) : signal<float>(call, contrast);
}

void contrast_reduce_resident(devptr_t m, devptr_t out, int64_t rows, int64_t n,
                              const ContrastOptions& contrast, int prec, int device,
                              stream_t stream) {
  check_band_edges(contrast.bands);
  require_at_least("contrast", "rows", rows, 0);
  require_at_least("contrast", "n", n, 1);
  require_rows("contrast", "rows", rows, n);
  check_bands(contrast.bands, n);
  select_device(device);
  if (rows == 0 || contrast.bands.n_bands == 0) return;
  prec == codegen::kDouble ? reduce<double>(m, out, rows, n, contrast, prec, device, stream)
                           : reduce<float>(m, out, rows, n, contrast, prec, device, stream);
}

PinnedArray<double> contrast_staged(const HostArray<double>& y, const StatisticOptions& options,
                                    const ContrastOptions& contrast) {
  check_frame_bands(contrast.bands, options.n_fft);
  constexpr int kPrec = codegen::kDouble;
  return staged_statistic(
      y, options,
      {.width = contrast.bands.n_bands,
       .signal =
           [&](const StftCall& call) { return contrast_signal_resident(call, contrast, kPrec); },
       .reduce =
           [&](devptr_t m, devptr_t values, int64_t rows, int64_t bins) {
             contrast_reduce_resident(m, values, rows, bins, contrast, kPrec, 0, nullptr);
           }});
}

}  // namespace kevra::ops
