#include "cuda_like/ops/spectral.h"

#include <cmath>
#include <stdexcept>
#include <string>

#include "codegen/kernels/spectral.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {
namespace {

using codegen::SpectralKernel;

template <class T>
void reduce(devptr_t m, devptr_t out, int64_t rows, int64_t n, const SpectralStatistic& s, int prec,
            int device, stream_t stream) {
  const SpectralKernel kernel{prec, s.stat};
  const kernel_t fn = kernel_function(kernel, device);
  const size_t stored = prec == codegen::kHalf ? 2 : sizeof(T);
  T fstep = static_cast<T>(s.fstep);
  T p = static_cast<T>(s.p);
  T amin = static_cast<T>(s.amin);
  T roll = static_cast<T>(s.roll);
  in_chunks(rows, [&](int64_t first, int64_t count) {
    char* from = at(m, first * n, stored);
    char* to = at(out, first, stored);
    void* args[] = {&from, &to, &fstep, &p, &amin, &roll, &n};
    launch_kernel(fn, static_cast<unsigned>(count), 1, kernel.kBlock, kernel.kSharedBytes, args,
                  kernel.kName, stream);
  });
}

}  // namespace

void check_statistic(const SpectralStatistic& s) {
  if (s.stat < codegen::kCentroid || s.stat > codegen::kRolloff) {
    throw std::invalid_argument(
        "spectral: stat is " + std::to_string(s.stat) +
        ", must be 0 (centroid), 1 (bandwidth), 2 (flatness) or 3 (rolloff)");
  }
  if (s.stat == codegen::kBandwidth && !(s.p > 0 && std::isfinite(s.p))) {
    throw std::invalid_argument("spectral: p is " + shown(s.p) + ", must be finite and above 0");
  }
}

bool spectral_signal_resident(const StftCall& call, const SpectralStatistic& s, int prec) {
  if (prec == codegen::kHalf) return false;
  check_statistic(s);
  const codegen::FrameStatistic statistic{.stat = s.stat};
  const StatisticArguments arguments{.fstep = s.fstep, .p = s.p, .amin = s.amin, .roll = s.roll};
  return prec == codegen::kDouble ? frame_statistic<double>(call, statistic, arguments)
                                  : frame_statistic<float>(call, statistic, arguments);
}

void spectral_reduce_resident(devptr_t m, devptr_t out, int64_t rows, int64_t n,
                              const SpectralStatistic& statistic, int prec, int device,
                              stream_t stream) {
  check_statistic(statistic);
  require_at_least("spectral", "rows", rows, 0);
  require_at_least("spectral", "n", n, 1);
  require_rows("spectral", "rows", rows, n);
  select_device(device);
  prec == codegen::kDouble ? reduce<double>(m, out, rows, n, statistic, prec, device, stream)
                           : reduce<float>(m, out, rows, n, statistic, prec, device, stream);
}

PinnedArray<double> spectral_staged(const HostArray<double>& y, const StatisticOptions& options,
                                    const SpectralStatistic& statistic) {
  check_statistic(statistic);
  constexpr int kPrec = codegen::kDouble;
  PinnedArray<double> out = staged_statistic(
      y, options,
      {.width = 1,
       .signal =
           [&](const StftCall& call) { return spectral_signal_resident(call, statistic, kPrec); },
       .reduce =
           [&](devptr_t m, devptr_t values, int64_t rows, int64_t bins) {
             spectral_reduce_resident(m, values, rows, bins, statistic, kPrec, 0, nullptr);
           }});
  out.shape.pop_back();
  return out;
}

}  // namespace kevra::ops
