#include "cuda_like/ops/chroma_adjoint.h"

#include "codegen/kernels/chroma.h"
#include "codegen/precision.h"
#include "cuda_like/ops/cqt.h"
#include "cuda_like/ops/gradients.h"

namespace kevra::ops {
namespace {

using codegen::ChromaAdjointKernel;

constexpr const char* kOp = "chroma_adjoint";

struct UnfoldPlan {
  kernel_t fn = nullptr;
  devptr_t classes = nullptr;
};

template <class T>
UnfoldPlan unfold_plan(const CqtCall& forward, const ChromaClasses& c) {
  static thread_local PlanMap<UnfoldPlan> plans;
  const PlanKey key = fold_key(forward, c, false);
  if (const auto it = plans.find(key); it != plans.end()) return it->second;
  const ChromaAdjointKernel kernel{codegen::kPrecisionOf<T>, static_cast<int>(c.n_chroma)};
  UnfoldPlan plan;
  plan.classes = classes_table<T>(kOp, forward.design, c.classes, c.n_chroma);
  plan.fn = kernel_function(kernel, forward.device);
  plans.emplace(key, plan);
  return plan;
}

// From the gradient of chroma and the magnitudes to the gradient of these.
void launch_unfold(UnfoldPlan plan, const CqtCall& forward, devptr_t mag, devptr_t g,
                   devptr_t gmag) {
  constexpr unsigned kBlock = 256;
  int n_bins = static_cast<int>(forward.design.n_bins);
  int64_t nf = forward.design.frames;
  void* args[] = {&mag, &gmag, &g, &plan.classes, &n_bins, &nf};
  launch_kernel(plan.fn, static_cast<unsigned>((nf + kBlock - 1) / kBlock),
                static_cast<unsigned>(forward.batch), kBlock, 0, args, ChromaAdjointKernel::kName,
                forward.stream);
}

template <class T>
void chroma_adjoint(CqtAdjointCall call, const ChromaClasses& classes) {
  CqtCall& forward = call.forward;
  forward = magnitudes_of(kOp, forward);
  check_classes(kOp, classes);
  if (forward.is_empty()) {
    check_cqt_adjoint(forward);
    return queue_no_gradient<T>(call);
  }
  const auto gradients = cqt_adjoint_plan<T>(forward);
  const auto magnitudes = cqt_plan<T>(forward);
  const UnfoldPlan unfold = unfold_plan<T>(forward, classes);

  const CqtDesign& d = forward.design;
  const size_t bytes = static_cast<size_t>(forward.batch * d.n_bins * d.frames) * sizeof(T);
  const DeviceBuffer gmag(bytes, forward.stream);
  {
    const DeviceBuffer mag(bytes, forward.stream);
    forward.out = mag.p;
    queue_cqt<T>(*magnitudes, forward);
    launch_unfold(unfold, forward, mag.p, call.g, gmag.p);
  }
  call.g = gmag.p;
  queue_cqt_adjoint<T>(*gradients, call);
}

}  // namespace

void chroma_adjoint_resident(const CqtAdjointCall& call, const ChromaClasses& classes, int prec) {
  require_full_precision(prec);
  prec == codegen::kDouble ? chroma_adjoint<double>(call, classes)
                           : chroma_adjoint<float>(call, classes);
}

}  // namespace kevra::ops
