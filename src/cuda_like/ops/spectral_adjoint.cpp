#include "cuda_like/ops/spectral_adjoint.h"

#include <stdexcept>
#include <string>

#include "codegen/kernels/spectral_adjoint.h"
#include "codegen/precision.h"
#include "codegen/stft_config.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/gradients.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {
namespace {

void check_gradient(const SpectralStatistic& s) {
  if (s.stat == codegen::kRolloff) {
    throw std::invalid_argument(
        "spectral: stat is 3, the rolloff, which moves from bin to bin and has no gradient; "
        "use 0 (centroid), 1 (bandwidth) or 2 (flatness)");
  }
  check_statistic(s);
}

template <class T>
void adjoint(devptr_t m, devptr_t gy, devptr_t gm, int64_t rows, int64_t n,
             const SpectralStatistic& s, int device, stream_t stream) {
  const codegen::SpectralAdjointKernel kernel{codegen::kPrecisionOf<T>, s.stat};
  const kernel_t fn = kernel_function(kernel, device);
  T fstep = static_cast<T>(s.fstep);
  T p = static_cast<T>(s.p);
  T amin = static_cast<T>(s.amin);
  in_chunks(rows, [&](int64_t first, int64_t count) {
    char* magnitudes = at(m, first * n, sizeof(T));
    char* incoming = at(gy, first, sizeof(T));
    char* to = at(gm, first * n, sizeof(T));
    void* args[] = {&magnitudes, &incoming, &to, &n, &fstep, &p, &amin};
    launch_kernel(fn, static_cast<unsigned>(count), 1, kernel.kBlock, kernel.shared_bytes(), args,
                  kernel.kName, stream);
  });
}

}  // namespace

void spectral_adjoint_resident(devptr_t m, devptr_t gy, devptr_t gm, int64_t rows, int64_t n,
                               const SpectralStatistic& statistic, int prec, int device,
                               stream_t stream) {
  require_full_precision(prec, "spectral: half gradients compute in f32 - upcast the tensors");
  check_gradient(statistic);
  require_at_least("spectral", "rows", rows, 0);
  require_at_least("spectral", "n", n, 1);
  require_rows("spectral", "rows", rows, n);
  select_device(device);
  if (rows == 0) return;
  prec == codegen::kDouble ? adjoint<double>(m, gy, gm, rows, n, statistic, device, stream)
                           : adjoint<float>(m, gy, gm, rows, n, statistic, device, stream);
}

}  // namespace kevra::ops
