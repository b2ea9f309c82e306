#include "cuda_like/ops/istft_adjoint.h"

#include <algorithm>
#include <limits>

#include "codegen/kernels/istft_adjoint.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/gradient_frames.h"
#include "cuda_like/ops/gradients.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/ops/rfft.h"

namespace kevra::ops {
namespace {

using codegen::IstftAdjointKernel;
using codegen::IstftGradientGather;
using codegen::IstftGradientPre;
using codegen::IstftGradientStore;

constexpr const char* kOp = "istft_adjoint";

struct IstftAdjointPlan {
  bool staged = false;
  kernel_t pre = nullptr;
  devptr_t window = nullptr;
  // Fused: from samples to bins in one kernel.
  kernel_t frames = nullptr;
  unsigned block = 0;
  size_t shared = 0;
  devptr_t twiddles = nullptr;
  // Staged: what stands around the real transform.
  kernel_t gather = nullptr;
  kernel_t store = nullptr;
};

template <class T>
PlanMap<IstftAdjointPlan>& plans() {
  static thread_local PlanMap<IstftAdjointPlan> map;
  return map;
}

PlanKey plan_key(const IstftAdjointCall& call) {
  return {
      key_of({call.window.key, uint64_t(call.n_fft), uint64_t(call.hop), uint64_t(call.device)}),
      0};
}

GradientSizes checked_sizes(const IstftAdjointCall& call) {
  constexpr int64_t kMost = std::numeric_limits<int>::max();
  require_int32(kOp, "batch", call.batch, 0);
  require_int32(kOp, "frames", call.frames, 0);
  require_int32(kOp, "length", call.length, 0);
  require_at_least(kOp, "n_fft", call.n_fft, 2);
  require_at_most(kOp, "n_fft", call.n_fft, kMost / 2);
  require_at_least(kOp, "hop", call.hop, 1);
  require_at_most(kOp, "hop", call.hop, call.n_fft);
  // A sample's position over hop is 32 bits wide in the kernel, and so is grid x.
  require_at_most(kOp, "frames", call.frames, kMost - call.n_fft);
  require_at_most(kOp, "frames x n_fft", call.frames * call.n_fft, int64_t{1} << 38);
  return {.n_fft = static_cast<int>(call.n_fft),
          .hop = static_cast<int>(call.hop),
          .pad = static_cast<int>(frame_padding(call.n_fft, call.center)),
          .frames = static_cast<int>(call.frames),
          .length = static_cast<int>(call.length),
          .out_len = (call.frames - 1) * call.hop + call.n_fft};
}

template <class T>
IstftAdjointPlan build_plan(const IstftAdjointCall& call, const GradientSizes& sizes) {
  constexpr int kPrec = codegen::kPrecisionOf<T>;
  const int n = sizes.n_fft;
  IstftAdjointPlan plan;
  plan.staged = !gradient_is_fused(n, kPrec, call.device);
  plan.window = window_table(call.window, n, kPrec);
  plan.pre = kernel_function(IstftGradientPre{n, sizes.hop, kPrec}, call.device);
  if (plan.staged) {
    plan.gather = kernel_function(IstftGradientGather{n, kPrec}, call.device);
    plan.store = kernel_function(IstftGradientStore{n, kPrec}, call.device);
    return plan;
  }
  const IstftAdjointKernel kernel{
      {.n_fft = n, .hop = sizes.hop, .pad = 0, .prec = kPrec, .slots = false}};
  check_shared(kernel.shared_bytes(), call.device, "istft_adjoint: n_fft");
  plan.twiddles = gradient_twiddles(kernel.frame);
  plan.frames = kernel_function(kernel, call.device);
  plan.block = static_cast<unsigned>(kernel.frame.threads());
  plan.shared = kernel.shared_bytes();
  return plan;
}

void launch_pre(const IstftAdjointPlan& plan, const IstftAdjointCall& call,
                const GradientSizes& sizes, int64_t rows, devptr_t g) {
  devptr_t gy = call.gy;
  devptr_t window = plan.window;
  int length = sizes.length;
  int pad = sizes.pad;
  int frames = sizes.frames;
  int64_t out_len = sizes.out_len;
  void* args[] = {&gy, &g, &window, &length, &pad, &frames, &out_len};
  constexpr int kBlock = IstftGradientPre::kBlock;
  launch_kernel(plan.pre, static_cast<unsigned>((out_len + kBlock - 1) / kBlock),
                static_cast<unsigned>(rows), kBlock, 0, args, IstftGradientPre::kName, call.stream);
}

void launch_frames(const IstftAdjointPlan& plan, const IstftAdjointCall& call,
                   const GradientSizes& sizes, int64_t rows, devptr_t g) {
  devptr_t gz = call.gz;
  devptr_t window = plan.window;
  devptr_t twiddles = plan.twiddles;
  int frames = sizes.frames;
  int64_t out_len = sizes.out_len;
  void* args[] = {&g, &gz, &window, &twiddles, &frames, &out_len};
  launch_kernel(plan.frames, static_cast<unsigned>(frames), static_cast<unsigned>(rows), plan.block,
                plan.shared, args, IstftAdjointKernel::kName, call.stream);
}

template <class T>
void run_staged(const IstftAdjointPlan& plan, const IstftAdjointCall& call,
                const GradientSizes& sizes, int64_t rows, devptr_t g) {
  constexpr int kPrec = codegen::kPrecisionOf<T>;
  const int64_t transforms = rows * sizes.frames;
  const DeviceBuffer samples(static_cast<size_t>(transforms) * sizes.n_fft * sizeof(T),
                             call.stream);
  devptr_t into = samples.p;
  devptr_t window = plan.window;
  int frames = sizes.frames;
  int hop = sizes.hop;
  int64_t out_len = sizes.out_len;
  const IstftGradientGather gather{sizes.n_fft, kPrec};
  in_chunks(transforms, [&](int64_t row, int64_t count) {
    void* args[] = {&g, &into, &window, &frames, &hop, &out_len, &row};
    launch_kernel(plan.gather, gather.blocks(), static_cast<unsigned>(count), gather.kBlock, 0,
                  args, gather.kName, call.stream);
  });
  const DeviceBuffer spectra(static_cast<size_t>(transforms) * sizes.bins() * 2 * sizeof(T),
                             call.stream);
  rfft_dispatch<T>({.x = into,
                    .out = spectra.p,
                    .rows = transforms,
                    .n = sizes.n_fft,
                    .device = call.device,
                    .stream = call.stream});
  devptr_t bins = spectra.p;
  devptr_t gz = call.gz;
  const IstftGradientStore store{sizes.n_fft, kPrec};
  in_chunks(transforms, [&](int64_t row, int64_t count) {
    void* args[] = {&bins, &gz, &row};
    launch_kernel(plan.store, store.blocks(), static_cast<unsigned>(count), store.kBlock, 0, args,
                  store.kName, call.stream);
  });
}

template <class T>
void run(const IstftAdjointPlan& plan, IstftAdjointCall call, const GradientSizes& sizes) {
  const int64_t most = gradient_rows_at_once(sizes, call.batch, plan.staged);
  const DeviceBuffer g(static_cast<size_t>(most * sizes.out_len) * sizeof(T), call.stream);
  for (int64_t left = call.batch; left > 0; left -= most) {
    const int64_t rows = std::min(left, most);
    launch_pre(plan, call, sizes, rows, g.p);
    plan.staged ? run_staged<T>(plan, call, sizes, rows, g.p)
                : launch_frames(plan, call, sizes, rows, g.p);
    call.gy = at(call.gy, rows * call.length, sizeof(T));
    call.gz = at(call.gz, rows * sizes.frames * sizes.bins(), 2 * sizeof(T));
  }
}

}  // namespace

template <class T>
void istft_adjoint_dispatch(const IstftAdjointCall& call) {
  const GradientSizes sizes = checked_sizes(call);
  const bool empty = call.batch == 0 || call.frames == 0;
  const PlanKey key = plan_key(call);
  if (const auto it = plans<T>().find(key); !empty && it != plans<T>().end()) {
    select_device(call.device);
    return run<T>(it->second, call, sizes);
  }
  check_window(call.window, call.n_fft);
  select_device(call.device);
  if (empty) return;
  const IstftAdjointPlan plan = build_plan<T>(call, sizes);
  plans<T>().emplace(key, plan);
  run<T>(plan, call, sizes);
}

template void istft_adjoint_dispatch<float>(const IstftAdjointCall&);
template void istft_adjoint_dispatch<double>(const IstftAdjointCall&);

void istft_adjoint_resident(const IstftAdjointCall& call, int prec) {
  require_full_precision(prec);
  prec == codegen::kDouble ? istft_adjoint_dispatch<double>(call)
                           : istft_adjoint_dispatch<float>(call);
}

}  // namespace kevra::ops
