#include "cuda_like/ops/stft_adjoint.h"

#include <algorithm>
#include <stdexcept>

#include "codegen/kernels/gradient_frames.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/kernels/stft_adjoint.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/gradient_frames.h"
#include "cuda_like/ops/gradient_tail.h"
#include "cuda_like/ops/gradients.h"
#include "cuda_like/ops/plan_map.h"

namespace kevra::ops {
namespace {

using codegen::GradientChain;
using codegen::GradientPack;
using codegen::StftAdjointKernel;

constexpr const char* kOp = "stft_adjoint";

struct StftAdjointPlan {
  bool staged = false;
  // Staged, the kernel that lays down the conjugate gradients, and the steps behind it.
  kernel_t front = nullptr;
  GradientTail tail;
  // Else the kernel of frames and the crop behind it.
  FusedGradient fused;
};

template <class T>
PlanMap<StftAdjointPlan>& plans() {
  static thread_local PlanMap<StftAdjointPlan> map;
  return map;
}

bool is_complex(const StftAdjointCall& call) {
  return call.form == codegen::kComplexForm;
}

PlanKey plan_key(const StftAdjointCall& call) {
  const uint64_t flags = static_cast<uint64_t>(call.device) << 8 |
                         static_cast<uint64_t>(call.form) << 2 | (call.center ? 2u : 0u) |
                         (deterministic() ? 1u : 0u);
  return {key_of({call.window.key, uint64_t(call.n_fft), uint64_t(call.hop), flags,
                  eps_word(call.form, call.eps)}),
          0};
}

template <class T>
StftAdjointPlan build_plan(const StftAdjointCall& call, const GradientSizes& sizes) {
  constexpr int kPrec = codegen::kPrecisionOf<T>;
  StftAdjointPlan plan;
  plan.staged = !gradient_is_fused(sizes.n_fft, kPrec, call.device);
  if (!plan.staged) {
    const StftAdjointKernel kernel{gradient_frame(sizes, kPrec), call.form, call.eps};
    plan.fused = fused_gradient(kernel, call.window, call.device, "stft_adjoint: n_fft");
    return plan;
  }
  plan.tail = gradient_tail(sizes, kPrec, call.window, call.device);
  plan.front =
      is_complex(call)
          ? kernel_function(GradientPack{sizes.n_fft, kPrec}, call.device)
          : kernel_function(GradientChain{sizes.n_fft, kPrec, call.form, call.eps}, call.device);
  return plan;
}

template <class T>
void launch_pack(const StftAdjointPlan& plan, const StftAdjointCall& call,
                 const GradientSizes& sizes, int64_t rows, devptr_t z) {
  devptr_t g = call.g;
  int frames = sizes.frames;
  int64_t sb = call.stride_batch;
  int64_t sk = call.stride_bin;
  int64_t st = call.stride_frame;
  const GradientPack kernel{sizes.n_fft, codegen::kPrecisionOf<T>};
  in_chunks(rows * frames, [&](int64_t row, int64_t count) {
    void* args[] = {&g, &z, &frames, &sb, &sk, &st, &row};
    launch_kernel(plan.front, kernel.blocks(), static_cast<unsigned>(count), kernel.kBlock, 0, args,
                  kernel.kName, call.stream);
  });
}

// The forward pass of the rows at hand, and the chain rule over its bins.
template <class T>
void launch_chain(const StftAdjointPlan& plan, const StftAdjointCall& call,
                  const GradientSizes& sizes, int64_t rows, devptr_t z) {
  const DeviceBuffer spectra =
      gradient_spectra<T>(call.x, sizes, rows, call.window, call.device, call.stream);
  devptr_t g = call.g;
  devptr_t x = spectra.p;
  int frames = sizes.frames;
  int64_t sb = call.stride_batch;
  int64_t sk = call.stride_bin;
  int64_t st = call.stride_frame;
  const GradientChain kernel{sizes.n_fft, codegen::kPrecisionOf<T>, call.form, call.eps};
  in_chunks(rows * frames, [&](int64_t row, int64_t count) {
    void* args[] = {&g, &x, &z, &frames, &sb, &sk, &st, &row};
    launch_kernel(plan.front, kernel.blocks(), static_cast<unsigned>(count), kernel.kBlock, 0, args,
                  kernel.kName, call.stream);
  });
}

template <class T>
void run_staged(const StftAdjointPlan& plan, const StftAdjointCall& call,
                const GradientSizes& sizes, int64_t rows) {
  const size_t points = static_cast<size_t>(rows) * sizes.frames * sizes.n_fft;
  const DeviceBuffer z(points * 2 * sizeof(T), call.stream);
  is_complex(call) ? launch_pack<T>(plan, call, sizes, rows, z.p)
                   : launch_chain<T>(plan, call, sizes, rows, z.p);
  run_gradient_tail<T>(plan.tail, sizes, rows, z.p, call.gx, call.device, call.stream);
}

template <class T>
void run_fused(const StftAdjointPlan& plan, const StftAdjointCall& call, const GradientSizes& sizes,
               int64_t rows) {
  const FusedGradient& fused = plan.fused;
  const DeviceBuffer raw = raw_gradient<T>(fused, sizes, rows, call.stream);
  devptr_t g = call.g;
  devptr_t x = call.x;
  devptr_t graw = raw.p;
  devptr_t window = fused.window;
  devptr_t twiddles = fused.twiddles;
  int frames = sizes.frames;
  int length = sizes.length;
  int64_t out_len = sizes.out_len;
  int64_t sb = call.stride_batch;
  int64_t sk = call.stride_bin;
  int64_t st = call.stride_frame;
  void* complex_args[] = {&g, &graw, &window, &twiddles, &frames, &out_len, &sb, &sk, &st};
  void* mode_args[] = {&g,      &x,       &graw, &window, &twiddles, &frames,
                       &length, &out_len, &sb,   &sk,     &st};
  launch_kernel(fused.frames, static_cast<unsigned>(frames), static_cast<unsigned>(rows),
                fused.block, fused.shared, is_complex(call) ? complex_args : mode_args, kOp,
                call.stream);
  launch_gradient_crop(fused.crop, sizes, rows, graw, call.gx, call.stream);
}

template <class T>
void run(const StftAdjointPlan& plan, StftAdjointCall call, const GradientSizes& sizes) {
  const int64_t most = gradient_rows_at_once(sizes, call.batch, plan.staged);
  for (int64_t left = call.batch; left > 0; left -= most) {
    const int64_t rows = std::min(left, most);
    plan.staged ? run_staged<T>(plan, call, sizes, rows) : run_fused<T>(plan, call, sizes, rows);
    const int64_t element = is_complex(call) ? 2 * sizeof(T) : sizeof(T);
    call.g = static_cast<char*>(call.g) + rows * call.stride_batch * element;
    if (!is_complex(call)) call.x = at(call.x, rows * call.length, sizeof(T));
    call.gx = at(call.gx, rows * call.length, sizeof(T));
  }
}

}  // namespace

template <class T>
void stft_adjoint_dispatch(const StftAdjointCall& call) {
  const GradientSizes sizes =
      gradient_sizes(kOp, call.batch, call.length, call.frames, call.n_fft, call.hop, call.center);
  const PlanKey key = plan_key(call);
  if (const auto it = plans<T>().find(key); it != plans<T>().end()) {
    select_device(call.device);
    return run<T>(it->second, call, sizes);
  }
  check_window(call.window, call.n_fft);
  check_eps(kOp, call.form, call.eps);
  select_device(call.device);
  if (call.batch == 0) return;
  const StftAdjointPlan plan = build_plan<T>(call, sizes);
  plans<T>().emplace(key, plan);
  run<T>(plan, call, sizes);
}

template void stft_adjoint_dispatch<float>(const StftAdjointCall&);
template void stft_adjoint_dispatch<double>(const StftAdjointCall&);

void stft_adjoint_resident(const StftAdjointCall& call, int64_t bins, int prec) {
  require_full_precision(prec);
  if (bins != call.n_fft / 2 + 1) {
    throw std::invalid_argument("stft_adjoint: bins must be n_fft/2+1");
  }
  prec == codegen::kDouble ? stft_adjoint_dispatch<double>(call)
                           : stft_adjoint_dispatch<float>(call);
}

void stft_adjoint_mode_resident(const StftAdjointCall& call, int64_t bins, int prec) {
  if (is_complex(call)) {
    throw std::invalid_argument(
        "stft_adjoint_mode: output must be magnitude, power or db; the gradient of a complex "
        "spectrogram goes to stft_adjoint_resident");
  }
  stft_adjoint_resident(call, bins, prec);
}

}  // namespace kevra::ops
