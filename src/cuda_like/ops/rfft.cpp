#include "cuda_like/ops/rfft.h"

#include <stdexcept>

#include "codegen/sizes.h"
#include "cuda_like/ops/bluestein.h"
#include "cuda_like/ops/four_step.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/ops/rfft_route.h"
#include "cuda_like/twiddles.h"

namespace kevra::ops {

namespace {

using codegen::TinyRealFftKernel;

// Forms of several launches keep their own plans; this one tells the way to them.
struct RfftPlan : LaunchPlan {
  RfftForm form = RfftForm::kShared;
  const char* kernel_name = "";
};

template <class T>
PlanMap<RfftPlan>& plans() {
  static thread_local PlanMap<RfftPlan> map;
  return map;
}

template <class T>
RfftShape shape_of(const RfftCall& call) {
  return {.n = call.n, .wide = sizeof(T) == 8, .inverse = call.inverse, .half = call.half};
}

PlanKey plan_key(const RfftCall& call, const RfftShape& shape) {
  const uint64_t device = static_cast<unsigned>(call.device);
  const uint64_t flags = (shape.storage() * 2 + (call.inverse ? 1 : 0)) * 2 + (shape.wide ? 1 : 0);
  return {(static_cast<uint64_t>(call.n) << 20) | (device << 4) | flags, shape_epoch()};
}

ShapeHint hint_for(const RfftCall& call, const RfftShape& shape) {
  if (call.override != nullptr) return *call.override;
  ShapeHint hint;
  hint_lookup(hint_key({.op = HintOp::kRfft,
                        .n = call.n,
                        .center = call.inverse,
                        .bits = shape.wide  ? 64
                                : call.half ? 16
                                            : 32,
                        .device = call.device}),
              &hint);
  return hint;
}

// What a kernel of one launch needs beside its text.
template <class Kernel>
void plan_kernel(RfftPlan& plan, const Kernel& kernel, int device, int rader, auto source) {
  check_shared(kernel.shared_bytes(), device, "rfft: n");
  const codegen::RealRows& rows = kernel.data;
  plan.kernel_name = rows.kernel_name();
  plan.fn = kernel_function(
      kernel.key(), device, [&] { return source(kernel, backend()); }, plan.kernel_name);
  plan.block = static_cast<unsigned>(kernel.block());
  plan.shared = kernel.shared_bytes();
  plan.group = kernel.rows_per_block();
  plan.twiddles = fft_twiddles(rows.n, rader, rows.compute == 2);
}

RfftPlan build_plan(const RfftCall& call, const RfftShape& shape) {
  const RfftRoute route =
      route_rfft(shape, hint_for(call, shape), device_shared_limit(call.device));
  RfftPlan plan;
  plan.form = route.form;
  if (route.form == RfftForm::kTiny) {
    const TinyRealFftKernel kernel{shape.rows()};
    plan.kernel_name = kernel.kName;
    plan.fn = kernel_function(
        kernel.key(), call.device, [&] { return tiny_rfft_source(kernel, backend()); },
        plan.kernel_name);
    plan.block = plan.group = TinyRealFftKernel::kBlock;
  } else if (route.form == RfftForm::kRegister) {
    plan_kernel(plan, route.registers, call.device, 0, codegen::register_rfft_source);
  } else if (route.form == RfftForm::kShared) {
    plan_kernel(plan, route.shared, call.device, codegen::rader_prime(shape.rows().length()),
                codegen::real_fft_source);
  }
  return plan;
}

template <class T>
void run(const RfftPlan& plan, const RfftCall& call) {
  if (plan.form == RfftForm::kBluestein) return bluestein_real<T>(call);
  if (plan.form == RfftForm::kFourStep) return four_step_real<T>(call);

  devptr_t x = call.x;
  devptr_t out = call.out;
  devptr_t twiddles = plan.twiddles;
  int rows = static_cast<int>(call.rows);
  void* tiny_args[] = {&x, &out, &rows};
  void* args[] = {&x, &out, &twiddles, &rows};
  launch_kernel(plan.fn, plan.blocks(call.rows), 1, plan.block, plan.shared,
                plan.form == RfftForm::kTiny ? tiny_args : args, plan.kernel_name, call.stream);
}

void check_rfft(const char* op, int64_t rows, int64_t n) {
  require_int32(op, "batch", rows, 1);
  require_int32(op, "n", n, 1);
}

void run_resident(const char* op, bool inverse, devptr_t x, devptr_t out, int64_t rows, int64_t n,
                  int prec, int device, stream_t stream) {
  check_rfft(op, rows, n);
  const RfftCall call{.x = x,
                      .out = out,
                      .rows = rows,
                      .n = static_cast<int>(n),
                      .inverse = inverse,
                      .half = prec == 0 || prec == 3,
                      .device = device,
                      .stream = stream};
  prec == 2 ? rfft_dispatch<double>(call) : rfft_dispatch<float>(call);
}

// Through device memory and back: `in` of `count` values to (rows, columns) of Out.
template <class T, class Out, class In>
PinnedArray<Out> run_staged(bool inverse, const In* in, size_t count, int64_t rows, int n,
                            int64_t columns) {
  select_device(0);
  const size_t in_bytes = count * sizeof(In);
  const size_t out_bytes = static_cast<size_t>(rows) * columns * sizeof(Out);
  DeviceBuffer dx(in_bytes, nullptr);
  DeviceBuffer dy(out_bytes, nullptr);
  KEVRA_CHECK(memcpyHtoD(dx.p, in, in_bytes));
  rfft_dispatch<T>({.x = dx.p, .out = dy.p, .rows = rows, .n = n, .inverse = inverse});
  KEVRA_CHECK(streamSynchronize(nullptr));

  PinnedArray<Out> out({rows, columns});
  KEVRA_CHECK(memcpyDtoH(out.mutable_data(), dy.p, out_bytes));
  return out;
}

}  // namespace

template <class T>
void rfft_dispatch(const RfftCall& call) {
  select_device(call.device);
  const RfftShape shape = shape_of<T>(call);
  if (call.override != nullptr) return run<T>(build_plan(call, shape), call);

  const PlanKey key = plan_key(call, shape);
  auto it = plans<T>().find(key);
  if (it == plans<T>().end()) it = plans<T>().emplace(key, build_plan(call, shape)).first;
  run<T>(it->second, call);
}

template void rfft_dispatch<float>(const RfftCall&);
template void rfft_dispatch<double>(const RfftCall&);

void rfft_resident(devptr_t x, devptr_t out, int64_t rows, int64_t n, int prec, int device,
                   stream_t stream) {
  run_resident("rfft", false, x, out, rows, n, prec, device, stream);
}

void irfft_resident(devptr_t x, devptr_t out, int64_t rows, int64_t n, int prec, int device,
                    stream_t stream) {
  run_resident("irfft", true, x, out, rows, n, prec, device, stream);
}

template <class T>
PinnedArray<std::complex<T>> rfft_staged(const HostArray<T>& x) {
  if (x.dims() != 2) throw std::invalid_argument("rfft: x must be [B, N] real");
  const int64_t rows = x.shape[0];
  const int64_t n = x.shape[1];
  check_rfft("rfft", rows, n);
  return run_staged<T, std::complex<T>>(false, x.data, static_cast<size_t>(rows) * n, rows,
                                        static_cast<int>(n), n / 2 + 1);
}

template <class T>
PinnedArray<T> irfft_staged(const HostArray<std::complex<T>>& x, int64_t n) {
  constexpr const char* kShape = "irfft: X must be [B, n // 2 + 1] complex";
  if (x.dims() != 2) throw std::invalid_argument(kShape);
  const int64_t rows = x.shape[0];
  check_rfft("irfft", rows, n);
  if (x.shape[1] != n / 2 + 1) throw std::invalid_argument(kShape);
  return run_staged<T, T>(true, x.data, static_cast<size_t>(rows) * x.shape[1], rows,
                          static_cast<int>(n), n);
}

template PinnedArray<std::complex<float>> rfft_staged(const HostArray<float>&);
template PinnedArray<std::complex<double>> rfft_staged(const HostArray<double>&);
template PinnedArray<float> irfft_staged(const HostArray<std::complex<float>>&, int64_t);
template PinnedArray<double> irfft_staged(const HostArray<std::complex<double>>&, int64_t);

}  // namespace kevra::ops
