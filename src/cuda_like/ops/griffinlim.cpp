#include "cuda_like/ops/griffinlim.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>

#include "codegen/kernels/griffinlim.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/istft.h"
#include "cuda_like/ops/istft_sizes.h"
#include "cuda_like/ops/stft.h"

namespace kevra::ops {
namespace {

using codegen::GriffinLimMultiply;
using codegen::GriffinLimStep;

constexpr const char* kNoRoundTrip = "griffinlim: this frame count does not round-trip";

struct GriffinLimSizes {
  int64_t inner;   // samples of a row within the iteration
  int64_t length;  // and of the result
};

void check_round_trip(const GriffinLimCall& call, int64_t inner, int64_t pad) {
  int64_t frames = 0;
  try {
    frames = frame_count(inner, call.options.n_fft, call.options.hop, pad, "stft");
  } catch (const std::invalid_argument& reason) {
    throw std::invalid_argument(std::string(kNoRoundTrip) + ": " + reason.what());
  }
  if (frames != call.frames) throw std::invalid_argument(kNoRoundTrip);
}

IstftCall inverse(const GriffinLimCall& call, devptr_t spectrum, devptr_t y, int64_t length) {
  return {.z = spectrum,
          .y = y,
          .batch = call.batch,
          .bins = call.bins,
          .frames = call.frames,
          .stride_batch = call.frames * call.bins,
          .stride_bin = 1,
          .stride_frame = call.bins,
          .n_fft = call.options.n_fft,
          .hop = call.options.hop,
          .center = call.options.center,
          .length = length,
          .window = call.options.window,
          .device = call.device,
          .stream = call.stream};
}

// All that the transforms would refuse in the middle of the iteration is refused here.
GriffinLimSizes checked_sizes(const GriffinLimCall& call) {
  const GriffinLimOptions& options = call.options;
  if (call.bins != options.n_fft / 2 + 1) {
    throw std::invalid_argument("griffinlim: bins must be n_fft/2+1");
  }
  if (!std::isfinite(options.momentum) || options.momentum == -1) {
    throw std::invalid_argument("griffinlim: momentum is " + shown(options.momentum) +
                                ", must be finite and not -1");
  }
  require_int32("griffinlim", "batch", call.batch, 0);
  if (call.frames < 1) {
    throw std::invalid_argument(std::string(kNoRoundTrip) + ": frames is " +
                                std::to_string(call.frames) + ", must be at least 1");
  }
  IstftCall back = inverse(call, nullptr, nullptr, options.length);
  back.batch = std::max<int64_t>(call.batch, 1);
  const IstftSizes sizes = istft_sizes(back);
  const int64_t inner = sizes.out_len - 2 * sizes.pad;
  check_round_trip(call, inner, sizes.pad);
  check_overlap(options.window, sizes);
  return {inner, sizes.length};
}

// Rows that one launch of every kernel on the way takes.
int64_t rows_at_once(const GriffinLimCall& call) {
  constexpr int64_t kGrid = std::numeric_limits<int>::max();
  return std::min({call.batch, kRowsOfALaunch, kGrid / call.frames,
                   kGrid * GriffinLimStep::kBlock / (call.frames * call.bins)});
}

// Memory for `rows` rows; without iterations there are no spectra beside the product.
template <class T>
struct Scratch {
  Scratch(const GriffinLimCall& call, const GriffinLimSizes& sizes, int64_t rows)
      : plane(static_cast<size_t>(rows * call.frames * call.bins) * 2 * sizeof(T)),
        looped(call.options.n_iter >= 1),
        product(plane, call.stream),
        spectrum(looped ? plane : 0, call.stream),
        previous(looped ? plane : 0, call.stream),
        signal(looped ? static_cast<size_t>(rows * sizes.inner) * sizeof(T) : 0, call.stream) {}

  size_t plane;
  bool looped;
  DeviceBuffer product, spectrum, previous, signal;
};

template <class T>
struct Kernels {
  explicit Kernels(int device)
      : multiply(kernel_function(GriffinLimMultiply{codegen::kPrecisionOf<T>}, device)),
        step(kernel_function(GriffinLimStep{codegen::kPrecisionOf<T>}, device)) {}

  kernel_t multiply, step;
};

template <class T>
void iterate(const GriffinLimCall& call, const GriffinLimSizes& sizes, const Kernels<T>& kernels,
             const Scratch<T>& scratch) {
  int64_t total = call.batch * call.frames * call.bins;
  devptr_t s = call.s;
  devptr_t angles = call.angles;
  devptr_t product = scratch.product.p;
  devptr_t spectrum = scratch.spectrum.p;
  devptr_t previous = scratch.previous.p;
  T alpha = static_cast<T>(call.options.momentum / (1 + call.options.momentum));
  T tiny = static_cast<T>(1e-16);
  void* multiply_args[] = {&s, &angles, &product, &total};
  void* step_args[] = {&spectrum, &previous, &angles, &alpha, &tiny, &total};
  const auto blocks =
      static_cast<unsigned>((total + GriffinLimStep::kBlock - 1) / GriffinLimStep::kBlock);
  const auto multiply = [&] {
    launch_kernel(kernels.multiply, blocks, 1, GriffinLimMultiply::kBlock, 0, multiply_args,
                  GriffinLimMultiply::kName, call.stream);
  };
  const IstftCall back = inverse(call, product, scratch.signal.p, -1);
  const StftCall forth{.y = scratch.signal.p,
                       .out = spectrum,
                       .batch = call.batch,
                       .length = sizes.inner,
                       .n_fft = call.options.n_fft,
                       .hop = call.options.hop,
                       .center = call.options.center,
                       .window = call.options.window,
                       .device = call.device,
                       .stream = call.stream};

  if (scratch.looped) KEVRA_CHECK(memsetD8Async(previous, 0, scratch.plane, call.stream));
  for (int64_t i = 0; i < call.options.n_iter; ++i) {
    multiply();
    istft_dispatch<T>(back);
    stft_dispatch<T>(forth);
    launch_kernel(kernels.step, blocks, 1, GriffinLimStep::kBlock, 0, step_args,
                  GriffinLimStep::kName, call.stream);
  }
  multiply();
  istft_dispatch<T>(inverse(call, product, call.y, call.options.length));
}

template <class T>
void run(const GriffinLimCall& whole, const GriffinLimSizes& sizes) {
  select_device(whole.device);
  if (whole.batch == 0) return;
  const Kernels<T> kernels(whole.device);
  const int64_t most = rows_at_once(whole);
  const Scratch<T> scratch(whole, sizes, most);
  const int64_t row = whole.frames * whole.bins;
  GriffinLimCall call = whole;
  for (int64_t left = whole.batch; left > 0; left -= most) {
    call.batch = std::min(left, most);
    iterate(call, sizes, kernels, scratch);
    call.s = static_cast<T*>(call.s) + most * row;
    call.angles = static_cast<T*>(call.angles) + 2 * most * row;
    call.y = static_cast<T*>(call.y) + most * sizes.length;
  }
}

}  // namespace

void griffinlim_resident(const GriffinLimCall& call, int prec) {
  if (prec == 0 || prec == 3) {
    throw std::invalid_argument("griffinlim: half planes compute in f32 - upcast the tensors");
  }
  const GriffinLimSizes sizes = checked_sizes(call);
  prec == 2 ? run<double>(call, sizes) : run<float>(call, sizes);
}

template <class T>
PinnedArray<T> griffinlim_staged(const HostArray<T>& s, const HostArray<std::complex<T>>& angles,
                                 const GriffinLimOptions& options) {
  if (s.dims() != 3 || angles.dims() != 3) {
    throw std::invalid_argument("griffinlim: expected (batch, frames, bins) planes");
  }
  if (s.shape != angles.shape) {
    throw std::invalid_argument("griffinlim: phase plane must match S");
  }
  GriffinLimCall call{.s = nullptr,
                      .angles = nullptr,
                      .y = nullptr,
                      .batch = s.shape[0],
                      .frames = s.shape[1],
                      .bins = s.shape[2],
                      .options = options};
  const GriffinLimSizes sizes = checked_sizes(call);
  const int64_t B = call.batch;
  const size_t total = static_cast<size_t>(B * call.frames * call.bins);

  select_device(0);
  PinnedArray<T> y({B, sizes.length});
  if (B == 0) return y;
  DeviceBuffer ds = upload_staged(s.data, total);
  DeviceBuffer dangles = upload_staged(angles.data, total);
  DeviceBuffer dy((size_t)B * sizes.length * sizeof(T), nullptr);
  call.s = ds.p;
  call.angles = dangles.p;
  call.y = dy.p;
  run<T>(call, sizes);
  KEVRA_CHECK(memcpyDtoH(y.mutable_data(), dy.p, (size_t)B * sizes.length * sizeof(T)));
  return y;
}

template PinnedArray<float> griffinlim_staged(const HostArray<float>&,
                                              const HostArray<std::complex<float>>&,
                                              const GriffinLimOptions&);
template PinnedArray<double> griffinlim_staged(const HostArray<double>&,
                                               const HostArray<std::complex<double>>&,
                                               const GriffinLimOptions&);

}  // namespace kevra::ops
