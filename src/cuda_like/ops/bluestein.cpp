#include "cuda_like/ops/bluestein.h"

#include <algorithm>
#include <complex>

#include "cuda_like/ops/bluestein_route.h"
#include "cuda_like/ops/bluestein_tables.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/fft_route.h"
#include "cuda_like/ops/four_step.h"
#include "cuda_like/ops/four_step_route.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/twiddles.h"

namespace kevra::ops {
namespace {

using codegen::BluesteinKernel;
using codegen::BluesteinMode;
using codegen::BluesteinSteps;

// Of the form through device memory `fn` is the first of three kernels.
struct BluesteinPlan : LaunchPlan {
  int m = 0;
  BluesteinTables tables;
  double scale = 1;
  const char* name = nullptr;
  kernel_t multiply = nullptr;
  kernel_t post = nullptr;
  std::pair<int, int> sides{0, 0};  // of a padded row that is too long for a block

  bool in_shared() const { return multiply == nullptr; }
};

enum class Form { kByFit, kGlobal };

template <class T>
BluesteinShape shape_of(const BluesteinCall& call) {
  return {.mode = call.mode,
          .n = call.n,
          .wide = sizeof(T) == 8,
          .inverse = call.inverse,
          .half = call.half};
}

PlanKey plan_key(const BluesteinCall& call, Form form) {
  uint64_t shape = static_cast<uint64_t>(call.n) << 20 | static_cast<unsigned>(call.device) << 5;
  shape |= static_cast<unsigned>(call.mode) << 3 | (call.inverse ? 4u : 0u) |
           (call.half ? 2u : 0u) | (form == Form::kGlobal ? 1u : 0u);
  return {shape, shape_epoch()};
}

template <class T>
BluesteinPlan build_shared(const BluesteinCall& call, const BluesteinKernel& kernel) {
  check_shared(kernel.shared_bytes(), call.device, "bluestein: M");
  BluesteinPlan plan;
  plan.fn = kernel_function(
      kernel.key(), call.device, [&] { return bluestein_source(kernel, backend()); },
      kernel.name());
  plan.block = static_cast<unsigned>(kernel.block());
  plan.shared = kernel.shared_bytes();
  plan.group = kernel.rows_per_block();
  plan.twiddles = fft_twiddles(kernel.m, 0, sizeof(T) == 8);  // no prime of m needs a stage
  plan.m = kernel.m;
  plan.scale = kernel.scale();
  plan.name = kernel.name();
  return plan;
}

BluesteinPlan build_global(const BluesteinCall& call, const BluesteinSteps& steps, bool wide) {
  BluesteinPlan plan;
  plan.fn = kernel_function(
      steps.pre_key(), call.device, [&] { return bluestein_pre_source(steps, backend()); },
      steps.kPreName);
  plan.multiply = kernel_function(
      steps.multiply_key(), call.device,
      [&] { return bluestein_multiply_source(steps, backend()); }, steps.kMultiplyName);
  plan.post = kernel_function(
      steps.post_key(), call.device, [&] { return bluestein_post_source(steps, backend()); },
      steps.kPostName);
  plan.block = steps.kBlock;
  plan.m = steps.m;
  plan.scale = call.inverse ? 1.0 / call.n : 1.0;
  const FftShape padded{.n = plan.m, .wide = wide, .inverse = false, .half = false, .pair = false};
  const int64_t limit = device_shared_limit(call.device);
  if (route_fft(padded, {}, limit).form == FftForm::kFourStep) {
    plan.sides = four_step_sides(plan.m, wide, limit);
  }
  return plan;
}

template <class T>
BluesteinPlan build_plan(const BluesteinCall& call, Form form) {
  // The padded length and what is computed from it have to stay 32-bit numbers.
  require_at_most("bluestein", "n", call.n, 1 << 29);
  const BluesteinShape shape = shape_of<T>(call);
  std::optional<BluesteinKernel> kernel;
  if (form == Form::kByFit) kernel = bluestein_in_shared(shape, device_shared_limit(call.device));
  BluesteinPlan plan = kernel ? build_shared<T>(call, *kernel)
                              : build_global(call, bluestein_steps(shape), shape.wide);
  plan.tables = bluestein_tables<T>(call.n, plan.m, call.inverse, plan.sides);
  return plan;
}

template <class T>
void run_shared(const BluesteinPlan& plan, const BluesteinCall& call) {
  devptr_t x = call.x;
  devptr_t out = call.out;
  devptr_t twiddles = plan.twiddles;
  BluesteinTables tables = plan.tables;
  T scale = static_cast<T>(plan.scale);
  int rows = static_cast<int>(call.rows);
  void* args[] = {&x, &out, &twiddles, &tables.chirp, &tables.filter, &scale, &rows};
  launch_kernel(plan.fn, plan.blocks(call.rows), 1, plan.block, plan.shared, args, plan.name,
                call.stream);
}

// Bytes of one row of the transform's input and output.
struct RowBytes {
  size_t in;
  size_t out;
};

template <class T>
RowBytes row_bytes(const BluesteinCall& call) {
  const size_t scalar = call.half ? 2 : sizeof(T);
  const size_t n = static_cast<size_t>(call.n);
  const size_t real = n * scalar;
  const size_t half_spectrum = (n / 2 + 1) * 2 * scalar;
  switch (call.mode) {
    case BluesteinMode::kRealForward:
      return {real, half_spectrum};
    case BluesteinMode::kRealInverse:
      return {half_spectrum, real};
    default:
      return {2 * real, 2 * real};
  }
}

template <class T>
void run_global(const BluesteinPlan& plan, const BluesteinCall& call) {
  const size_t z_row = sizeof(std::complex<T>) * plan.m;
  const RowBytes bytes = row_bytes<T>(call);
  DeviceBuffer z(z_row * call.rows, call.stream);
  BluesteinTables tables = plan.tables;
  const unsigned block = plan.block;
  const auto blocks = [block](int count) { return (static_cast<unsigned>(count) - 1) / block + 1; };
  const auto transform = [&](bool inverse) {
    const FftCall padded{.x = z.p,
                         .out = z.p,
                         .rows = call.rows,
                         .n = plan.m,
                         .inverse = inverse,
                         .device = call.device,
                         .stream = call.stream};
    plan.sides.first != 0 ? four_step_transposed<T>(padded) : fft_dispatch<T>(padded);
  };

  in_chunks(call.rows, [&](int64_t first, int64_t count) {
    devptr_t x = at(call.x, first, bytes.in);
    devptr_t to = at(z.p, first, z_row);
    void* args[] = {&x, &to, &tables.chirp};
    launch_kernel(plan.fn, blocks(plan.m), static_cast<unsigned>(count), block, 0, args,
                  BluesteinSteps::kPreName, call.stream);
  });
  transform(false);
  in_chunks(call.rows, [&](int64_t first, int64_t count) {
    devptr_t product = at(z.p, first, z_row);
    void* args[] = {&product, &tables.filter};
    launch_kernel(plan.multiply, blocks(plan.m), static_cast<unsigned>(count), block, 0, args,
                  BluesteinSteps::kMultiplyName, call.stream);
  });
  transform(true);
  in_chunks(call.rows, [&](int64_t first, int64_t count) {
    devptr_t from = at(z.p, first, z_row);
    devptr_t out = at(call.out, first, bytes.out);
    T scale = static_cast<T>(plan.scale);
    void* args[] = {&from, &out, &tables.chirp, &scale};
    const int outputs = call.mode == BluesteinMode::kRealForward ? call.n / 2 + 1 : call.n;
    launch_kernel(plan.post, blocks(outputs), static_cast<unsigned>(count), block, 0, args,
                  BluesteinSteps::kPostName, call.stream);
  });
}

template <class T>
void run(const BluesteinCall& call, Form form) {
  static thread_local PlanMap<BluesteinPlan> plans;
  const PlanKey key = plan_key(call, form);
  auto it = plans.find(key);
  if (it == plans.end()) it = plans.emplace(key, build_plan<T>(call, form)).first;
  const BluesteinPlan& plan = it->second;
  plan.in_shared() ? run_shared<T>(plan, call) : run_global<T>(plan, call);
}

}  // namespace

template <class T>
void bluestein_global(const BluesteinCall& call) {
  run<T>(call, Form::kGlobal);
}

template <class T>
void bluestein_complex(const FftCall& call) {
  run<T>({.x = call.x,
          .out = call.out,
          .rows = call.rows,
          .n = call.n,
          .mode = BluesteinMode::kComplex,
          .inverse = call.inverse,
          .half = call.half,
          .device = call.device,
          .stream = call.stream},
         Form::kByFit);
}

template <class T>
void bluestein_real(const RfftCall& call) {
  run<T>({.x = call.x,
          .out = call.out,
          .rows = call.rows,
          .n = call.n,
          .mode = call.inverse ? BluesteinMode::kRealInverse : BluesteinMode::kRealForward,
          .inverse = call.inverse,
          .half = call.half,
          .device = call.device,
          .stream = call.stream},
         Form::kByFit);
}

template void bluestein_global<float>(const BluesteinCall&);
template void bluestein_global<double>(const BluesteinCall&);
template void bluestein_complex<float>(const FftCall&);
template void bluestein_complex<double>(const FftCall&);
template void bluestein_real<float>(const RfftCall&);
template void bluestein_real<double>(const RfftCall&);

}  // namespace kevra::ops
