#include "cuda_like/ops/cepstra_adjoint.h"

#include <bit>

#include "codegen/kernels/cepstra_adjoint.h"
#include "codegen/precision.h"
#include "cuda_like/dct.h"
#include "cuda_like/ops/gradients.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/mel_adjoint.h"
#include "cuda_like/ops/plan_map.h"

namespace kevra::ops {
namespace {

using codegen::CepstraFirstPeak;
using codegen::CepstraFloorSum;
using codegen::CepstraGradient;

struct CepstraAdjointPlan {
  devptr_t cosines;
  kernel_t product;
  kernel_t peaks;  // these two with a floor alone
  kernel_t floor_sum;
};

CepstraCall forward_call(const CepstraAdjointCall& call, devptr_t mel) {
  return {.bands = {.y = call.x,
                    .mel = mel,
                    .batch = call.batch,
                    .length = call.length,
                    .options = call.bands,
                    .device = call.device,
                    .stream = call.stream},
          .options = call.cepstra};
}

template <class T>
const CepstraAdjointPlan& adjoint_plan(const CepstraAdjointCall& call) {
  static thread_local PlanMap<CepstraAdjointPlan> plans;
  constexpr int kPrec = codegen::kPrecisionOf<T>;
  const CosineMatrix cosines = cepstra_cosines(call.cepstra, call.bands.bank);
  const bool floored = call.cepstra.top_db >= 0;
  const PlanKey key{
      key_of({uint64_t(cosines.n_out), uint64_t(cosines.n_mels),
              std::bit_cast<uint64_t>(cosines.lifter), uint64_t(floored), uint64_t(call.device)}),
      0};
  if (const auto it = plans.find(key); it != plans.end()) return it->second;
  const CepstraGradient product{kPrec, static_cast<int>(cosines.n_mels),
                                static_cast<int>(cosines.n_out)};
  const CepstraAdjointPlan plan{
      .cosines = cosine_table(cosines, kPrec == codegen::kDouble),
      .product = kernel_function(product, call.device),
      .peaks = floored ? kernel_function(CepstraFirstPeak{kPrec}, call.device) : nullptr,
      .floor_sum = floored ? kernel_function(CepstraFloorSum{kPrec}, call.device) : nullptr};
  return plans.emplace(key, plan).first->second;
}

// From the coefficients' gradients to `gm`, those of the bands as if there were no floor.
void launch_transposed(const CepstraAdjointPlan& plan, const CepstraAdjointCall& call,
                       int64_t frames, devptr_t gm) {
  devptr_t gc = call.gc;
  devptr_t cosines = plan.cosines;
  int64_t rows = call.batch * frames;
  void* args[] = {&gm, &gc, &cosines, &rows, &frames};
  launch_kernel(plan.product, codegen::product_blocks(rows, call.bands.bank.n_mels), 1,
                CepstraGradient::kBlock, 0, args, CepstraGradient::kName, call.stream);
}

// The bands `gm` belongs to, computed anew, and what lies below their floor.
template <class T>
void follow_peaks(const CepstraAdjointPlan& plan, const CepstraAdjointCall& call, int64_t n,
                  devptr_t gm) {
  constexpr int kPrec = codegen::kPrecisionOf<T>;
  const DeviceBuffer decibels(static_cast<size_t>(call.batch * n) * sizeof(T), call.stream);
  mel_dispatch<T>(forward_call(call, decibels.p).bands);
  const DeviceBuffer peaks(static_cast<size_t>(call.batch) * sizeof(T), call.stream);
  const DeviceBuffer places(static_cast<size_t>(call.batch) * sizeof(int64_t), call.stream);
  devptr_t m = decibels.p;
  devptr_t peak = peaks.p;
  devptr_t place = places.p;
  T top = static_cast<T>(call.cepstra.top_db);
  const unsigned rows = static_cast<unsigned>(call.batch);
  void* peak_args[] = {&m, &peak, &place, &n};
  launch_kernel(plan.peaks, rows, 1, CepstraFirstPeak::kBlock,
                CepstraFirstPeak{kPrec}.shared_bytes(), peak_args, CepstraFirstPeak::kName,
                call.stream);
  void* sum_args[] = {&m, &gm, &peak, &place, &n, &top};
  launch_kernel(plan.floor_sum, rows, 1, CepstraFloorSum::kBlock,
                CepstraFloorSum{kPrec}.shared_bytes(), sum_args, CepstraFloorSum::kName,
                call.stream);
}

template <class T>
void cepstra_adjoint(const CepstraAdjointCall& call) {
  const int64_t frames = check_cepstra(forward_call(call, nullptr));
  const int64_t n_mels = call.bands.bank.n_mels;
  require_at_most("cepstra", "batch x frames", call.batch * frames,
                  codegen::kProductLimit / n_mels);
  select_device(call.device);
  if (call.batch == 0) return;

  const CepstraAdjointPlan& plan = adjoint_plan<T>(call);
  const int64_t n = frames * n_mels;
  const DeviceBuffer gm(static_cast<size_t>(call.batch * n) * sizeof(T), call.stream);
  launch_transposed(plan, call, frames, gm.p);
  if (call.cepstra.top_db >= 0) follow_peaks<T>(plan, call, n, gm.p);
  mel_adjoint_dispatch<T>({.g = gm.p,
                           .x = call.x,
                           .gx = call.gx,
                           .batch = call.batch,
                           .length = call.length,
                           .frames = frames,
                           .stride_batch = n,
                           .stride_bin = 1,
                           .stride_frame = n_mels,
                           .options = call.bands,
                           .device = call.device,
                           .stream = call.stream});
}

}  // namespace

void cepstra_adjoint_resident(const CepstraAdjointCall& call, int prec) {
  require_full_precision(prec);
  prec == codegen::kDouble ? cepstra_adjoint<double>(call) : cepstra_adjoint<float>(call);
}

}  // namespace kevra::ops
