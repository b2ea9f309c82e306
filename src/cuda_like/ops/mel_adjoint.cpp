#include "cuda_like/ops/mel_adjoint.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <stdexcept>

#include "codegen/kernels/mel_adjoint.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/gradient_frames.h"
#include "cuda_like/ops/gradient_tail.h"
#include "cuda_like/ops/gradients.h"
#include "cuda_like/ops/mel_plan.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/ops/stft.h"

namespace kevra::ops {
namespace {

using codegen::MelAdjointKernel;
using codegen::MelGradientPack;
using codegen::MelGradientSums;

constexpr const char* kOp = "mel_adjoint";

struct MelAdjointPlan {
  FilterBankTable bank{};
  codegen::BandRule rule{};
  bool staged = false;
  // Staged, the kernels from the bands to the bins and the steps behind them.
  kernel_t sums = nullptr;
  kernel_t pack = nullptr;
  GradientTail tail;
  // Else the kernel of frames and the crop behind it.
  FusedGradient fused;
};

template <class T>
PlanMap<MelAdjointPlan>& plans() {
  static thread_local PlanMap<MelAdjointPlan> map;
  return map;
}

PlanKey plan_key(const MelAdjointCall& call) {
  const MelOptions& o = call.options;
  const uint64_t flags =
      static_cast<uint64_t>(o.form) << 2 | (o.center ? 2u : 0u) | (deterministic() ? 1u : 0u);
  return {key_of({o.window.key, o.bank.hash, uint64_t(o.bank.n_mels), uint64_t(o.bank.bins),
                  std::bit_cast<uint64_t>(o.power), uint64_t(o.n_fft), uint64_t(o.hop),
                  uint64_t(call.device), flags, eps_word(o.form, o.eps)}),
          0};
}

template <class T>
MelAdjointPlan build_plan(const MelAdjointCall& call, const GradientSizes& sizes) {
  constexpr int kPrec = codegen::kPrecisionOf<T>;
  const MelOptions& o = call.options;
  MelAdjointPlan plan;
  plan.bank = filter_bank_table(o.bank, kPrec == codegen::kDouble);
  plan.rule = {.n_mels = static_cast<int>(o.bank.n_mels),
               .power = static_cast<int>(o.power),
               .form = o.form,
               .eps = o.eps,
               .crowded = plan.bank.crowded};
  plan.staged = !gradient_is_fused(sizes.n_fft, kPrec, call.device);
  if (!plan.staged) {
    const MelAdjointKernel kernel{gradient_frame(sizes, kPrec), plan.rule};
    plan.fused = fused_gradient(kernel, o.window, call.device, "mel_adjoint: n_fft");
    return plan;
  }
  plan.sums = kernel_function(MelGradientSums{sizes.n_fft, kPrec, plan.rule}, call.device);
  plan.pack = kernel_function(MelGradientPack{sizes.n_fft, kPrec, plan.rule}, call.device);
  plan.tail = gradient_tail(sizes, kPrec, o.window, call.device);
  return plan;
}

template <class T>
void run_fused(const MelAdjointPlan& plan, const MelAdjointCall& call, const GradientSizes& sizes,
               int64_t rows) {
  const FusedGradient& fused = plan.fused;
  const DeviceBuffer raw = raw_gradient<T>(fused, sizes, rows, call.stream);
  MelAdjointCall at = call;
  FilterBankTable bank = plan.bank;
  devptr_t graw = raw.p;
  devptr_t window = fused.window;
  devptr_t twiddles = fused.twiddles;
  int frames = sizes.frames;
  int length = sizes.length;
  int64_t out_len = sizes.out_len;
  void* args[] = {&at.g,   &at.x,    &graw,    &window,          &bank.lo,       &bank.off,
                  &bank.w, &bank.b0, &bank.b1, &bank.w0,         &bank.w1,       &twiddles,
                  &frames, &length,  &out_len, &at.stride_batch, &at.stride_bin, &at.stride_frame};
  launch_kernel(fused.frames, static_cast<unsigned>(frames), static_cast<unsigned>(rows),
                fused.block, fused.shared, args, MelAdjointKernel::kName, call.stream);
  launch_gradient_crop(fused.crop, sizes, rows, graw, call.gx, call.stream);
}

// The conjugate gradients of the bins to `z`, through the spectra and the sums' gradients.
template <class T>
void launch_fronts(const MelAdjointPlan& plan, MelAdjointCall call, const GradientSizes& sizes,
                   int64_t batch, devptr_t z) {
  constexpr int kPrec = codegen::kPrecisionOf<T>;
  const size_t rows = static_cast<size_t>(batch * sizes.frames);
  const DeviceBuffer spectra =
      gradient_spectra<T>(call.x, sizes, batch, call.options.window, call.device, call.stream);
  const DeviceBuffer sums(rows * plan.rule.n_mels * sizeof(T), call.stream);
  FilterBankTable bank = plan.bank;
  devptr_t x = spectra.p;
  devptr_t coef = sums.p;
  int frames = sizes.frames;
  const MelGradientSums first{sizes.n_fft, kPrec, plan.rule};
  const MelGradientPack second{sizes.n_fft, kPrec, plan.rule};
  in_chunks(rows, [&](int64_t row, int64_t count) {
    void* args[] = {&call.g, &x,      &bank.lo,           &bank.off,        &bank.w,
                    &coef,   &frames, &call.stride_batch, &call.stride_bin, &call.stride_frame,
                    &row};
    launch_kernel(plan.sums, first.blocks(), static_cast<unsigned>(count), first.kBlock, 0, args,
                  first.kName, call.stream);
  });
  in_chunks(rows, [&](int64_t row, int64_t count) {
    void* args[] = {&x,       &coef,    &bank.lo, &bank.off, &bank.w, &bank.b0,
                    &bank.b1, &bank.w0, &bank.w1, &z,        &row};
    launch_kernel(plan.pack, second.blocks(), static_cast<unsigned>(count), second.kBlock, 0, args,
                  second.kName, call.stream);
  });
}

template <class T>
void run_staged(const MelAdjointPlan& plan, const MelAdjointCall& call, const GradientSizes& sizes,
                int64_t rows) {
  const size_t points = static_cast<size_t>(rows) * sizes.frames * sizes.n_fft;
  const DeviceBuffer z(points * 2 * sizeof(T), call.stream);
  launch_fronts<T>(plan, call, sizes, rows, z.p);
  run_gradient_tail<T>(plan.tail, sizes, rows, z.p, call.gx, call.device, call.stream);
}

template <class T>
void run(const MelAdjointPlan& plan, MelAdjointCall call, const GradientSizes& sizes) {
  const int64_t most = gradient_rows_at_once(sizes, call.batch, plan.staged);
  for (int64_t left = call.batch; left > 0; left -= most) {
    const int64_t rows = std::min(left, most);
    plan.staged ? run_staged<T>(plan, call, sizes, rows) : run_fused<T>(plan, call, sizes, rows);
    call.g = at(call.g, rows * call.stride_batch, sizeof(T));
    call.x = at(call.x, rows * call.length, sizeof(T));
    call.gx = at(call.gx, rows * call.length, sizeof(T));
  }
}

}  // namespace

template <class T>
void mel_adjoint_dispatch(const MelAdjointCall& call) {
  const MelOptions& o = call.options;
  const GradientSizes sizes =
      gradient_sizes(kOp, call.batch, call.length, call.frames, o.n_fft, o.hop, o.center);
  const PlanKey key = plan_key(call);
  if (const auto it = plans<T>().find(key); it != plans<T>().end()) {
    select_device(call.device);
    return run<T>(it->second, call, sizes);
  }
  check_mel(o, call.length);
  select_device(call.device);
  if (call.batch == 0) return;
  const MelAdjointPlan plan = build_plan<T>(call, sizes);
  plans<T>().emplace(key, plan);
  run<T>(plan, call, sizes);
}

template void mel_adjoint_dispatch<float>(const MelAdjointCall&);
template void mel_adjoint_dispatch<double>(const MelAdjointCall&);

void mel_adjoint_resident(const MelAdjointCall& call, int64_t n_mels, int prec) {
  require_full_precision(prec);
  const FilterBank& bank = call.options.bank;
  if (bank.n_mels != n_mels || bank.bins != call.options.n_fft / 2 + 1) {
    throw std::invalid_argument("mel_adjoint: filterbank shape must be (n_mels, n_fft/2+1)");
  }
  MelAdjointCall rounded = call;
  rounded.options.power = std::round(call.options.power);
  prec == codegen::kDouble ? mel_adjoint_dispatch<double>(rounded)
                           : mel_adjoint_dispatch<float>(rounded);
}

}  // namespace kevra::ops
