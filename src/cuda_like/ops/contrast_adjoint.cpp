#include "cuda_like/ops/contrast_adjoint.h"

#include "codegen/kernels/contrast_adjoint.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/gradients.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {
namespace {

using codegen::ContrastAdjointKernel;

template <class T>
void adjoint(devptr_t m, devptr_t gy, devptr_t gm, int64_t rows, int64_t n,
             const ContrastOptions& contrast, int device, stream_t stream) {
  const int64_t pad = band_pad(contrast.bands);
  const auto kernel =
      ContrastAdjointKernel::chosen(codegen::kPrecisionOf<T>, pad, device_shared_limit(device));
  const kernel_t fn = kernel_function(kernel, device);
  int n_bands = static_cast<int>(contrast.bands.n_bands);
  devptr_t bt = upload_bands(contrast.bands);
  char* bq = at(bt, n_bands + 1, sizeof(int32_t));
  T amin = static_cast<T>(contrast.amin);
  int linear = contrast.linear ? 1 : 0;
  in_chunks(rows, [&](int64_t first, int64_t count) {
    char* magnitudes = at(m, first * n, sizeof(T));
    char* incoming = at(gy, first * n_bands, sizeof(T));
    char* to = at(gm, first * n, sizeof(T));
    void* args[] = {&magnitudes, &incoming, &to, &bt, &bq, &n, &n_bands, &amin, &linear};
    launch_kernel(fn, static_cast<unsigned>(count), static_cast<unsigned>(n_bands), kernel.kBlock,
                  kernel.shared_bytes(pad), args, kernel.name(), stream);
  });
}

}  // namespace

void contrast_adjoint_resident(devptr_t m, devptr_t gy, devptr_t gm, int64_t rows, int64_t n,
                               const ContrastOptions& contrast, int prec, int device,
                               stream_t stream) {
  require_full_precision(prec, "contrast: half gradients compute in f32 - upcast the tensors");
  check_band_edges(contrast.bands);
  require_at_least("contrast", "rows", rows, 0);
  require_at_least("contrast", "n", n, 1);
  require_rows("contrast", "rows", rows, n);
  check_bands(contrast.bands, n);
  select_device(device);
  if (rows == 0) return;
  if (contrast.bands.n_bands == 0) {
    const size_t element = prec == codegen::kDouble ? sizeof(double) : sizeof(float);
    KEVRA_CHECK(memsetD8Async(gm, 0, static_cast<size_t>(rows * n) * element, stream));
    return;
  }
  prec == codegen::kDouble ? adjoint<double>(m, gy, gm, rows, n, contrast, device, stream)
                           : adjoint<float>(m, gy, gm, rows, n, contrast, device, stream);
}

}  // namespace kevra::ops
