#include "cuda_like/ops/fft.h"

#include <limits>
#include <stdexcept>
#include <string>

#include "codegen/kernels/fft.h"
#include "codegen/sizes.h"
#include "cuda_like/ops/bluestein.h"
#include "cuda_like/ops/fft_route.h"
#include "cuda_like/ops/four_step.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/twiddles.h"

namespace kevra::ops {
namespace {

using codegen::ComplexFftKernel;

// Forms of several launches keep their own plans; this one tells the way to them.
struct FftPlan : LaunchPlan {
  FftForm form = FftForm::kShared;
};

template <class T>
PlanMap<FftPlan>& plans() {
  static thread_local PlanMap<FftPlan> map;
  return map;
}

template <class T>
FftShape shape_of(const FftCall& call) {
  return {.n = call.n,
          .wide = sizeof(T) == 8,
          .inverse = call.inverse,
          .half = call.half,
          .pair = call.pair};
}

PlanKey plan_key(const FftCall& call, const FftShape& shape) {
  const uint64_t device =
      static_cast<unsigned>(call.device) | (call.half && call.pair ? 0x8000u : 0u);
  const uint64_t flags = (shape.storage() * 2 + (call.inverse ? 1 : 0)) * 2 + (shape.wide ? 1 : 0);
  return {(static_cast<uint64_t>(call.n) << 20) | (device << 4) | flags, shape_epoch()};
}

ShapeHint hint_for(const FftCall& call, const FftShape& shape) {
  if (call.override != nullptr) return *call.override;
  const int bits = shape.wide ? 64 : !call.half ? 32 : call.pair ? 8 : 16;
  ShapeHint hint;
  hint_lookup(hint_key({.op = HintOp::kFft,
                        .n = call.n,
                        .center = call.inverse,
                        .bits = bits,
                        .device = call.device}),
              &hint);
  return hint;
}

FftPlan build_plan(const FftCall& call, const FftShape& shape, const FftRoute& route) {
  FftPlan plan;
  plan.form = route.form;
  if (route.registers.rows != 0) {
    const codegen::RegisterFftKernel kernel = register_kernel(shape, route);
    check_shared(route.registers.shared_bytes, call.device, "fft: n");
    plan.fn = kernel_function(
        kernel.key(), call.device, [&] { return register_fft_source(kernel, backend()); },
        codegen::kFftKernelName);
    plan.block = static_cast<unsigned>(kernel.block());
    plan.shared = route.registers.shared_bytes;
    plan.group = kernel.rows;
    plan.twiddles = fft_twiddles(call.n, 0, shape.wide);
  } else if (route.form == FftForm::kShared) {
    const ComplexFftKernel& kernel = route.shared;
    check_shared(kernel.shared_bytes(), call.device, "fft: n");
    plan.fn = kernel_function(
        kernel.key(), call.device, [&] { return complex_fft_source(kernel, backend()); },
        kernel.kName);
    plan.block = static_cast<unsigned>(kernel.block());
    plan.shared = kernel.shared_bytes();
    plan.group = kernel.rows_per_block;
    plan.twiddles = fft_twiddles(call.n, codegen::rader_prime(call.n), shape.wide);
  }
  return plan;
}

template <class T>
void run(const FftPlan& plan, const FftCall& call) {
  if (plan.form == FftForm::kBluestein) return bluestein_complex<T>(call);
  if (plan.form == FftForm::kFourStep) return four_step_complex<T>(call, !call.half, !call.half);

  devptr_t x = call.x;
  devptr_t out = call.out;
  devptr_t twiddles = plan.twiddles;
  int rows = static_cast<int>(call.rows);
  void* args[] = {&x, &out, &twiddles, &rows};
  launch_kernel(plan.fn, plan.blocks(call.rows), 1, plan.block, plan.shared, args,
                codegen::kFftKernelName, call.stream);
}

void check_fft(int64_t rows, int64_t n) {
  require_int32("fft", "batch", rows, 1);
  require_int32("fft", "n", n, 1);
}

}  // namespace

template <class T>
void fft_dispatch(const FftCall& call) {
  select_device(call.device);
  const FftShape shape = shape_of<T>(call);
  const PlanKey key = plan_key(call, shape);
  if (call.override == nullptr) {
    if (const auto it = plans<T>().find(key); it != plans<T>().end()) {
      return run<T>(it->second, call);
    }
  }
  const FftRoute route = route_fft(shape, hint_for(call, shape), device_shared_limit(call.device));
  const FftPlan plan = build_plan(call, shape, route);
  if (call.override == nullptr) plans<T>().emplace(key, plan);
  run<T>(plan, call);
}

template void fft_dispatch<float>(const FftCall&);
template void fft_dispatch<double>(const FftCall&);

void fft_resident(devptr_t x, devptr_t out, int64_t rows, int64_t n, bool inverse, int prec,
                  int device, stream_t stream) {
  check_fft(rows, n);
  const FftCall call{.x = x,
                     .out = out,
                     .rows = rows,
                     .n = static_cast<int>(n),
                     .inverse = inverse,
                     .half = prec == 0 || prec == 3,
                     .pair = prec == 3,
                     .device = device,
                     .stream = stream};
  prec == 2 ? fft_dispatch<double>(call) : fft_dispatch<float>(call);
}

template <class T>
PinnedArray<std::complex<T>> fft_staged(const HostArray<std::complex<T>>& x, bool inverse) {
  if (x.dims() != 2) throw std::invalid_argument("fft: x must be [B, N] complex");
  const int64_t rows = x.shape[0];
  const int64_t n = x.shape[1];
  check_fft(rows, n);

  select_device(0);
  const size_t bytes = static_cast<size_t>(rows) * n * sizeof(std::complex<T>);
  DeviceBuffer dx(bytes, nullptr);
  DeviceBuffer dy(bytes, nullptr);
  KEVRA_CHECK(memcpyHtoD(dx.p, x.data, bytes));
  fft_dispatch<T>(
      {.x = dx.p, .out = dy.p, .rows = rows, .n = static_cast<int>(n), .inverse = inverse});
  KEVRA_CHECK(streamSynchronize(nullptr));

  PinnedArray<std::complex<T>> out(x.shape);
  KEVRA_CHECK(memcpyDtoH(out.mutable_data(), dy.p, bytes));
  return out;
}

template PinnedArray<std::complex<float>> fft_staged(const HostArray<std::complex<float>>&, bool);
template PinnedArray<std::complex<double>> fft_staged(const HostArray<std::complex<double>>&, bool);

}  // namespace kevra::ops
