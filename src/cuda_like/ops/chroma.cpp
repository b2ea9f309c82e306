#include "cuda_like/ops/chroma.h"

#include <memory>
#include <stdexcept>
#include <utility>

#include "codegen/kernels/chroma.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"
#include "cuda_like/hash.h"
#include "cuda_like/ops/cqt.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {
namespace {

using codegen::ChromaKernel;

constexpr const char* kOp = "chroma";
constexpr unsigned kBlock = 256;

struct FoldPlan {
  kernel_t fn = nullptr;
  devptr_t classes = nullptr;
};

template <class T>
FoldPlan fold_plan(const CqtCall& call, const ChromaClasses& c, bool half) {
  static thread_local PlanMap<FoldPlan> plans;
  const PlanKey key = fold_key(call, c, half);
  if (const auto it = plans.find(key); it != plans.end()) return it->second;
  const int compute = codegen::kPrecisionOf<T>;
  const ChromaKernel kernel{compute, static_cast<int>(c.n_chroma), half ? codegen::kHalf : compute};
  FoldPlan plan;
  plan.classes = classes_table<T>(kOp, call.design, c.classes, c.n_chroma);
  plan.fn = kernel_function(kernel, call.device);
  plans.emplace(key, plan);
  return plan;
}

// Plans of the two stages; what is wrong with the arguments is told here.
struct ChromaPlan {
  std::shared_ptr<const CqtPlan> magnitudes;
  FoldPlan fold;
};

template <class T>
ChromaPlan chroma_plan(const CqtCall& magnitudes, const ChromaClasses& classes, bool half) {
  check_classes(kOp, classes);
  std::shared_ptr<const CqtPlan> plan = cqt_plan<T>(magnitudes);
  return {std::move(plan), fold_plan<T>(magnitudes, classes, half)};
}

template <class T>
void queue_chroma(const ChromaPlan& plan, CqtCall magnitudes, devptr_t out) {
  int n_bins = static_cast<int>(magnitudes.design.n_bins);
  int64_t nf = magnitudes.design.frames;
  DeviceBuffer mag(static_cast<size_t>(magnitudes.batch * n_bins * nf) * sizeof(T),
                   magnitudes.stream);
  magnitudes.out = mag.p;
  queue_cqt<T>(*plan.magnitudes, magnitudes);
  devptr_t classes = plan.fold.classes;
  void* args[] = {&mag.p, &out, &classes, &n_bins, &nf};
  launch_kernel(plan.fold.fn, static_cast<unsigned>((nf + kBlock - 1) / kBlock),
                static_cast<unsigned>(magnitudes.batch), kBlock, 0, args, ChromaKernel::kName,
                magnitudes.stream);
}

template <class T>
void chroma(const CqtCall& call, const ChromaClasses& classes) {
  const CqtCall magnitudes = magnitudes_of(kOp, call);
  if (call.is_empty()) {
    check_classes(kOp, classes);
    return check_cqt(magnitudes);
  }
  queue_chroma<T>(chroma_plan<T>(magnitudes, classes, call.half_output), magnitudes, call.out);
}

}  // namespace

void check_classes(const char* op, const ChromaClasses& classes) {
  // The sums of a frame are one thread's.
  constexpr int64_t kMostClasses = 1024;
  require_at_least(op, "n_chroma", classes.n_chroma, 1);
  require_at_most(op, "n_chroma", classes.n_chroma, kMostClasses);
}

CqtCall magnitudes_of(const char* op, const CqtCall& call) {
  CqtCall magnitudes = call;
  magnitudes.op = op;
  magnitudes.form = codegen::kMagnitudeForm;
  magnitudes.eps = 0;
  magnitudes.half_output = false;
  return magnitudes;
}

PlanKey fold_key(const CqtCall& call, const ChromaClasses& classes, bool half) {
  return {key_of({content_hash(call.design.plan_key), uint64_t(call.design.n_bins),
                  uint64_t(classes.classes.count), uint64_t(classes.n_chroma),
                  uint64_t(call.device), half}),
          0};
}

void chroma_resident(const CqtCall& call, const ChromaClasses& classes, int prec) {
  CqtCall twin = call;
  twin.half_input = twin.half_output = prec == 0;
  prec == 2 ? chroma<double>(twin, classes) : chroma<float>(twin, classes);
}

template <class T>
PinnedArray<T> chroma_staged(const HostArray<T>& y, const CqtDesign& design,
                             const ChromaClasses& classes) {
  if (y.dims() != 2) throw std::invalid_argument("expected a 2-D (batch, samples) array");
  CqtCall call = magnitudes_of(
      kOp,
      {.x = nullptr, .out = nullptr, .batch = y.shape[0], .length = y.shape[1], .design = design});
  const int64_t B = call.batch;
  const int64_t n_chroma = classes.n_chroma;
  const int64_t nf = design.frames;
  if (call.is_empty()) {
    check_classes(kOp, classes);
    check_cqt(call);
    select_device(0);
    return PinnedArray<T>({B, n_chroma, nf});
  }
  const ChromaPlan plan = chroma_plan<T>(call, classes, false);
  DeviceBuffer dy = upload_staged(y.data, static_cast<size_t>(B * call.length));
  DeviceBuffer dout((size_t)B * n_chroma * nf * sizeof(T), nullptr);
  call.x = dy.p;
  queue_chroma<T>(plan, call, dout.p);

  PinnedArray<T> out({B, n_chroma, nf});
  KEVRA_CHECK(memcpyDtoH(out.mutable_data(), dout.p, (size_t)B * n_chroma * nf * sizeof(T)));
  return out;
}

template PinnedArray<float> chroma_staged(const HostArray<float>&, const CqtDesign&,
                                          const ChromaClasses&);
template PinnedArray<double> chroma_staged(const HostArray<double>&, const CqtDesign&,
                                           const ChromaClasses&);

}  // namespace kevra::ops
