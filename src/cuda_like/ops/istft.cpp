#include "cuda_like/ops/istft.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "codegen/precision.h"
#include "codegen/sizes.h"
#include "cuda_like/hash.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/istft_route.h"
#include "cuda_like/ops/istft_sizes.h"
#include "cuda_like/ops/istft_staged.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/twiddles.h"

namespace kevra::ops {
namespace {

using codegen::IstftKernel;

struct IstftPlan {
  bool slots = false;
  bool staged = false;
  StagedFrames steps;         // staged: what makes the frames
  kernel_t frames = nullptr;  // else this one kernel
  unsigned block = 0;
  size_t shared = 0;
  devptr_t twiddles = nullptr;
  kernel_t normalize = nullptr;
  devptr_t window = nullptr;
};

template <class T>
PlanMap<IstftPlan>& plans() {
  static thread_local PlanMap<IstftPlan> map;
  return map;
}

template <class T>
IstftShape shape_of(const IstftCall& call) {
  return {.n_fft = static_cast<int>(call.n_fft),
          .hop = static_cast<int>(call.hop),
          .wide = sizeof(T) == 8,
          .half = call.half,
          .slots = deterministic()};
}

PlanKey plan_key(const IstftCall& call, const IstftShape& shape) {
  const uint64_t sizes =
      static_cast<uint64_t>(shape.n_fft) << 32 | static_cast<uint64_t>(shape.hop);
  const uint64_t flags = static_cast<uint64_t>(call.device) << 8 | (call.center ? 4u : 0u) |
                         (shape.half ? 2u : 0u) | (shape.slots ? 1u : 0u);
  return {key_of({call.window.key, sizes, flags}), shape_epoch()};
}

ShapeHint hint_for(const IstftCall& call, const IstftShape& shape) {
  if (call.override != nullptr) return *call.override;
  ShapeHint hint;
  hint_lookup(hint_key({.op = HintOp::kIstft,
                        .n = shape.n_fft,
                        .hop = shape.hop,
                        .center = call.center,
                        .bits = shape.wide   ? 64
                                : shape.half ? 16
                                             : 32,
                        .device = call.device}),
              &hint);
  return hint;
}

IstftPlan build_plan(const IstftCall& call, const IstftRoute& route) {
  const IstftKernel& kernel = route.kernel;
  IstftPlan plan;
  plan.slots = kernel.slots;
  plan.staged = route.staged;
  plan.window = window_table(call.window, kernel.n_fft, kernel.compute);
  if (route.staged) {
    plan.steps = staged_frames(kernel, plan.window, call.device);
  } else {
    check_shared(kernel.shared_bytes(), call.device, "istft: n_fft");
    plan.twiddles = fft_twiddles(kernel.table_size(), codegen::rader_prime(kernel.length()),
                                 kernel.compute == codegen::kDouble);
    plan.frames = kernel_function(
        kernel.frames_key(), call.device, [&] { return istft_frames_source(kernel, backend()); },
        kernel.kFramesName);
    plan.block = static_cast<unsigned>(kernel.tpf);
    plan.shared = kernel.shared_bytes();
  }
  plan.normalize = kernel_function(
      kernel.normalize_key(), call.device,
      [&] { return istft_normalize_source(kernel, backend()); }, kernel.kNormalizeName);
  return plan;
}

void launch_frames(const IstftPlan& plan, const IstftCall& call, const IstftSizes& sizes,
                   int64_t rows, devptr_t yraw) {
  devptr_t z = call.z;
  devptr_t window = plan.window;
  devptr_t twiddles = plan.twiddles;
  int frames = sizes.frames;
  int64_t out_len = sizes.out_len;
  int64_t sb = call.stride_batch;
  int64_t sk = call.stride_bin;
  int64_t st = call.stride_frame;
  void* args[] = {&z, &yraw, &window, &twiddles, &frames, &out_len, &sb, &sk, &st};
  const int blocks = sizes.n_fft % 2 == 0 ? frames : (frames + 1) / 2;
  launch_kernel(plan.frames, static_cast<unsigned>(blocks), static_cast<unsigned>(rows), plan.block,
                plan.shared, args, IstftKernel::kFramesName, call.stream);
}

void launch_normalize(const IstftPlan& plan, const IstftCall& call, const IstftSizes& sizes,
                      int64_t rows, devptr_t yraw) {
  devptr_t y = call.y;
  devptr_t window = plan.window;
  int64_t length = sizes.length;
  int pad = sizes.pad;
  int frames = sizes.frames;
  int64_t out_len = sizes.out_len;
  void* args[] = {&yraw, &y, &window, &length, &pad, &frames, &out_len};
  constexpr int kBlock = IstftKernel::kNormalizeBlock;
  launch_kernel(plan.normalize, static_cast<unsigned>((length + kBlock - 1) / kBlock),
                static_cast<unsigned>(rows), kBlock, 0, args, IstftKernel::kNormalizeName,
                call.stream);
}

// As many batch rows as one grid takes, and with the staged route one transform.
int64_t rows_at_once(const IstftPlan& plan, const IstftCall& call, const IstftSizes& sizes) {
  const int64_t most =
      plan.staged ? std::numeric_limits<int>::max() / sizes.frames : kRowsOfALaunch;
  return std::min({call.batch, kRowsOfALaunch, most});
}

template <class T>
void run(const IstftPlan& plan, IstftCall call, const IstftSizes& sizes) {
  const int64_t samples = plan.slots ? int64_t{sizes.frames} * sizes.n_fft : sizes.out_len;
  const size_t storage = call.half ? 2 : sizeof(T);
  const int64_t most = rows_at_once(plan, call, sizes);
  const DeviceBuffer yraw(static_cast<size_t>(most * samples) * sizeof(T), call.stream);
  for (int64_t left = call.batch; left > 0; left -= most) {
    const int64_t rows = std::min(left, most);
    if (plan.staged) {
      make_staged_frames<T>(plan.steps, call, sizes, rows, yraw.p);
    } else {
      if (!plan.slots) {
        KEVRA_CHECK(
            memsetD8Async(yraw.p, 0, static_cast<size_t>(rows * samples) * sizeof(T), call.stream));
      }
      launch_frames(plan, call, sizes, rows, yraw.p);
    }
    launch_normalize(plan, call, sizes, rows, yraw.p);
    call.z = static_cast<char*>(call.z) + rows * call.stride_batch * 2 * int64_t(storage);
    call.y = static_cast<char*>(call.y) + rows * sizes.length * int64_t(storage);
  }
}

}  // namespace

template <class T>
void istft_dispatch(const IstftCall& call) {
  const IstftSizes sizes = istft_sizes(call);
  const IstftShape shape = shape_of<T>(call);
  const PlanKey key = plan_key(call, shape);
  if (call.override == nullptr && sizes.length != 0) {
    if (const auto it = plans<T>().find(key); it != plans<T>().end()) {
      select_device(call.device);
      return run<T>(it->second, call, sizes);
    }
  }
  check_overlap(call.window, sizes);
  select_device(call.device);
  if (sizes.length == 0) return;
  const IstftPlan plan =
      build_plan(call, route_istft(shape, hint_for(call, shape), device_shared_limit(call.device)));
  if (call.override == nullptr) plans<T>().emplace(key, plan);
  run<T>(plan, call, sizes);
}

template void istft_dispatch<float>(const IstftCall&);
template void istft_dispatch<double>(const IstftCall&);

void istft_resident(const IstftCall& call, int prec) {
  IstftCall twin = call;
  twin.half = prec == 0 || prec == 3;
  prec == 2 ? istft_dispatch<double>(twin) : istft_dispatch<float>(twin);
}

template <class T>
PinnedArray<T> istft_staged(const HostArray<std::complex<T>>& z, const IstftOptions& options) {
  if (z.dims() != 3) throw std::invalid_argument("expected a 3-D (batch, frames, bins) array");
  IstftCall call{.z = nullptr,
                 .y = nullptr,
                 .batch = z.shape[0],
                 .bins = z.shape[2],
                 .frames = z.shape[1],
                 .stride_batch = z.shape[1] * z.shape[2],
                 .stride_bin = 1,
                 .stride_frame = z.shape[2],
                 .n_fft = options.n_fft,
                 .hop = options.hop,
                 .center = options.center,
                 .length = options.length,
                 .window = options.window};
  const int64_t batch = call.batch;
  const int64_t L = istft_length(call);

  select_device(0);
  PinnedArray<T> y({batch, L});
  if (L == 0) return y;
  DeviceBuffer dz = upload_staged(z.data, static_cast<size_t>(batch) * call.stride_batch);
  DeviceBuffer dy((size_t)batch * L * sizeof(T), nullptr);
  call.z = dz.p;
  call.y = dy.p;
  istft_dispatch<T>(call);
  KEVRA_CHECK(memcpyDtoH(y.mutable_data(), dy.p, (size_t)batch * L * sizeof(T)));
  return y;
}

template PinnedArray<float> istft_staged(const HostArray<std::complex<float>>&,
                                         const IstftOptions&);
template PinnedArray<double> istft_staged(const HostArray<std::complex<double>>&,
                                          const IstftOptions&);

}  // namespace kevra::ops
