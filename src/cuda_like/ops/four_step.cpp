#include "cuda_like/ops/four_step.h"

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>
#include <string>

#include "codegen/precision.h"
#include "codegen/sizes.h"
#include "cuda_like/ops/bluestein.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/four_step_route.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/twiddles.h"

namespace kevra::ops {
namespace {

using codegen::ColumnPass;
using codegen::RealPass;
using codegen::RealStep;

enum Buffer { kInput, kBetween, kOutput };

// One kernel of a chain: from which buffer to which, and the bytes of a row in either.
struct ChainStep : LaunchPlan {
  const char* name = nullptr;
  unsigned blocks_per_row = 0;
  Buffer from = kInput;
  Buffer to = kOutput;
  size_t from_bytes = 0;
  size_t to_bytes = 0;
};

// The kernels of a transform, and the one buffer between input and output, if they take one. A
// length without sides has no kernels: it is a convolution.
struct Chain {
  std::array<ChainStep, 3> steps;
  int count = 0;
  size_t between_bytes = 0;  // of a row

  void add(const ChainStep& step) { steps[count++] = step; }
};

size_t row_bytes(int64_t values, int prec) {
  return static_cast<size_t>(values) * codegen::complex_bytes(prec);
}

ChainStep column_step(const ColumnPass& pass, int device, Buffer from, Buffer to) {
  ChainStep step;
  step.fn = kernel_function(
      pass.key(), device, [&] { return column_pass_source(pass, backend()); }, pass.kName);
  step.name = pass.kName;
  step.block = static_cast<unsigned>(pass.threads);
  step.shared = pass.shared_bytes();
  step.twiddles = fft_twiddles(pass.roots, 0, pass.compute == codegen::kDouble);
  step.blocks_per_row = static_cast<unsigned>(pass.blocks());
  step.from = from;
  step.to = to;
  step.from_bytes = row_bytes(pass.n(), pass.storage_in);
  step.to_bytes = row_bytes(pass.n(), pass.storage_out);
  return step;
}

ChainStep real_step(const RealPass& pass, int device) {
  ChainStep step;
  step.fn = kernel_function(
      pass.key(), device, [&] { return real_pass_source(pass, backend()); }, pass.kName);
  step.name = pass.kName;
  step.block = static_cast<unsigned>(pass.threads);
  step.shared = pass.shared_bytes();
  step.twiddles = fft_twiddles(2 * pass.m(), 0, pass.compute == codegen::kDouble);
  step.blocks_per_row = static_cast<unsigned>(pass.blocks());
  step.from = kBetween;
  step.from_bytes = row_bytes(pass.m(), pass.compute);
  step.to_bytes = row_bytes(pass.m() + 1, pass.storage);
  return step;
}

// Split and pack: the one between `kBetween` and the output, the other between it and the input.
ChainStep half_length_step(const RealStep& real, int device, bool split) {
  ChainStep step;
  step.name = split ? RealStep::kSplit : RealStep::kPack;
  step.fn = kernel_function(
      split ? real.split_key() : real.pack_key(), device,
      [&] {
        return split ? real_split_source(real, backend()) : real_pack_source(real, backend());
      },
      step.name);
  step.block = RealStep::kBlock;
  step.twiddles = fft_twiddles(real.n, 0, real.compute == codegen::kDouble);
  step.blocks_per_row = static_cast<unsigned>(split ? real.split_blocks() : real.pack_blocks());
  const size_t bins = row_bytes(int64_t{real.m()} + 1, real.storage);
  const size_t values = row_bytes(real.m(), real.compute);
  step.from = split ? kBetween : kInput;
  step.to = split ? kOutput : kBetween;
  step.from_bytes = split ? values : bins;
  step.to_bytes = split ? bins : values;
  return step;
}

// Twiddles are read by the device that holds them: the caller has selected it.
Chain build_complex(const FourStepShape& shape, int device) {
  Chain chain;
  const auto route = route_four_step(shape, device_shared_limit(device));
  if (!route) return chain;
  chain.add(column_step(route->first, device, kInput, kBetween));
  chain.add(column_step(route->second, device, kBetween, kOutput));
  chain.between_bytes = chain.steps[0].to_bytes;
  return chain;
}

Chain build_transposed(const FftCall& call, bool wide) {
  Chain chain;
  const auto route = route_transposed(call.n, wide, call.inverse, device_shared_limit(call.device));
  if (!route) throw std::invalid_argument("fft: n exceeds the device shared-memory limit");
  for (const ColumnPass& pass : {route->first, route->second}) {
    chain.add(column_step(pass, call.device, kInput, kInput));
  }
  return chain;
}

// Split and pack work on the one buffer between, and so do the passes beside them: the second pass
// stores where it has loaded, and the first of an inverse keeps its places.
template <class T>
Chain build_real(const RfftCall& call) {
  const int64_t limit = device_shared_limit(call.device);
  const bool wide = sizeof(T) == 8;
  const int m = call.n / 2;
  const RealStep real{call.n, codegen::kPrecisionOf<T>,
                      call.half ? codegen::kHalf : codegen::kPrecisionOf<T>};
  Chain chain;
  if (!call.inverse) {
    if (const auto route = route_four_step_real(m, wide, call.half, limit)) {
      chain.add(column_step(route->first, call.device, kInput, kBetween));
      chain.add(real_step(route->second, call.device));
    } else if (const auto parts = route_four_step({m, wide, false, call.half, false}, limit)) {
      chain.add(column_step(parts->first, call.device, kInput, kBetween));
      chain.add(column_step(parts->second, call.device, kBetween, kBetween));
      chain.add(half_length_step(real, call.device, true));
    }
  } else if (const auto parts =
                 route_four_step({m, wide, true, false, call.half}, limit, Between::kKept)) {
    chain.add(half_length_step(real, call.device, false));
    chain.add(column_step(parts->first, call.device, kBetween, kBetween));
    chain.add(column_step(parts->second, call.device, kBetween, kOutput));
  }
  chain.between_bytes = row_bytes(m, codegen::kPrecisionOf<T>);
  return chain;
}

void launch(const ChainStep& step, devptr_t from, devptr_t to, int64_t row, int64_t rows,
            stream_t stream) {
  devptr_t x = static_cast<char*>(from) + row * step.from_bytes;
  devptr_t out = static_cast<char*>(to) + row * step.to_bytes;
  devptr_t twiddles = step.twiddles;
  int count = static_cast<int>(rows);
  void* args[] = {&x, &out, &twiddles, &count};
  launch_kernel(step.fn, step.blocks_per_row, static_cast<unsigned>(rows), step.block, step.shared,
                args, step.name, stream);
}

void run_chain(const Chain& chain, devptr_t x, devptr_t out, int64_t rows, stream_t stream) {
  std::optional<DeviceBuffer> between;
  if (chain.between_bytes != 0) between.emplace(rows * chain.between_bytes, stream);
  const devptr_t buffers[] = {x, between ? between->p : nullptr, out};
  in_chunks(rows, [&](int64_t row, int64_t count) {
    for (int i = 0; i < chain.count; ++i) {
      const ChainStep& step = chain.steps[i];
      launch(step, buffers[step.from], buffers[step.to], row, count, stream);
    }
  });
}

// Large primes can leave a length without sides that fit, while the convolution's padded length
// has small primes alone. A length of small primes without sides is too long for the device.
void require_large_primes(int n, bool full_in, bool full_out) {
  int rest = 1;
  codegen::factorize(n, &rest);
  // The convolution stores as it loads.
  if (rest == 1 || full_in != full_out) {
    throw std::invalid_argument("fft: n exceeds the device shared-memory limit");
  }
}

// No hint reaches this route, so its plans outlive all epochs.
PlanKey plan_key(int n, int device, unsigned flags) {
  return {static_cast<uint64_t>(n) << 20 | static_cast<uint64_t>(device) << 3 | flags, 0};
}

template <class Build>
const Chain& planned(PlanMap<Chain>& plans, const PlanKey& key, Build build) {
  if (const auto it = plans.find(key); it != plans.end()) return it->second;
  return plans.emplace(key, build()).first->second;
}

}  // namespace

template <class T>
void four_step_complex(const FftCall& call, bool full_in, bool full_out) {
  static thread_local PlanMap<Chain> plans;
  const unsigned flags = (call.inverse ? 4u : 0u) | (full_in ? 2u : 0u) | (full_out ? 1u : 0u);
  const Chain& chain = planned(plans, plan_key(call.n, call.device, flags), [&] {
    return build_complex({call.n, sizeof(T) == 8, call.inverse, !full_in, !full_out}, call.device);
  });
  if (chain.count != 0) return run_chain(chain, call.x, call.out, call.rows, call.stream);
  require_large_primes(call.n, full_in, full_out);
  FftCall convolution = call;
  convolution.half = !full_in;
  bluestein_complex<T>(convolution);
}

template <class T>
void four_step_real(const RfftCall& call) {
  static thread_local PlanMap<Chain> plans;
  const unsigned flags = (call.inverse ? 2u : 0u) | (call.half ? 1u : 0u);
  const Chain& chain =
      planned(plans, plan_key(call.n, call.device, flags), [&] { return build_real<T>(call); });
  if (chain.count != 0) return run_chain(chain, call.x, call.out, call.rows, call.stream);
  require_large_primes(call.n / 2, true, true);
  bluestein_real<T>(call);
}

template <class T>
void four_step_transposed(const FftCall& call) {
  static thread_local PlanMap<Chain> plans;
  const Chain& chain = planned(plans, plan_key(call.n, call.device, call.inverse ? 1u : 0u),
                               [&] { return build_transposed(call, sizeof(T) == 8); });
  run_chain(chain, call.x, call.x, call.rows, call.stream);
}

template void four_step_transposed<float>(const FftCall&);
template void four_step_transposed<double>(const FftCall&);
template void four_step_complex<float>(const FftCall&, bool, bool);
template void four_step_complex<double>(const FftCall&, bool, bool);
template void four_step_real<float>(const RfftCall&);
template void four_step_real<double>(const RfftCall&);

}  // namespace kevra::ops
