#include "cuda_like/ops/stft_staged.h"

#include "codegen/kernels/four_step.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/kernels/stft_staged.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/fft.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/rfft.h"
#include "cuda_like/twiddles.h"

namespace kevra::ops {
namespace {

using codegen::FramesKernel;
using codegen::RealStep;
using codegen::SpectrumFormKernel;
using codegen::StftConfig;

void queue_frames(const StftCall& call, const StftConfig& config, devptr_t frames) {
  const FramesKernel kernel{config};
  kernel_t fn = kernel_function(
      kernel.key(), call.device, [&] { return frames_source(kernel, backend()); }, kernel.kName);
  devptr_t y = call.y;
  devptr_t window = window_table(call.window, config.n_fft, config.prec);
  int count = config.frames;
  int length = config.length;
  void* args[] = {&y, &frames, &window, &count, &length};
  launch_kernel(fn, static_cast<unsigned>(count), static_cast<unsigned>(call.batch),
                FramesKernel::kBlock, 0, args, kernel.kName, call.stream);
}

// Even frames: their transform as n_fft / 2 complex values, then the split.
template <class T>
void transform_even(const StftCall& call, const StftConfig& s, devptr_t frames, int64_t rows) {
  const RealStep step{s.n_fft, s.prec, s.out_prec, s.form, s.eps};
  fft_dispatch<T>({.x = frames,
                   .out = frames,
                   .rows = rows,
                   .n = step.m(),
                   .device = call.device,
                   .stream = call.stream});
  kernel_t fn = kernel_function(
      step.split_key(), call.device, [&] { return real_split_source(step, backend()); },
      RealStep::kSplit);
  devptr_t twiddles = fft_twiddles(s.n_fft, 0, s.prec == codegen::kDouble);
  const size_t stored = (step.m() + 1) * codegen::output_bytes(s.form, s.out_prec);
  in_chunks(rows, [&](int64_t first, int64_t launched) {
    char* z = at(frames, first * step.m(), 2 * sizeof(T));
    char* out = at(call.out, first, stored);
    int count = static_cast<int>(launched);
    void* args[] = {&z, &out, &twiddles, &count};
    launch_kernel(fn, static_cast<unsigned>(step.split_blocks()), static_cast<unsigned>(count),
                  RealStep::kBlock, 0, args, RealStep::kSplit, call.stream);
  });
}

template <class T>
void transform_odd(const StftCall& call, const StftConfig& s, devptr_t frames, int64_t rows) {
  const SpectrumFormKernel kernel{s.n_fft / 2 + 1, s.prec, s.out_prec, s.form, s.eps};
  const size_t bins = static_cast<size_t>(kernel.bins);
  DeviceBuffer spectrum(rows * bins * 2 * sizeof(T), call.stream);
  rfft_dispatch<T>({.x = frames,
                    .out = spectrum.p,
                    .rows = rows,
                    .n = s.n_fft,
                    .device = call.device,
                    .stream = call.stream});
  kernel_t fn = kernel_function(
      kernel.key(), call.device, [&] { return spectrum_form_source(kernel, backend()); },
      kernel.kName);
  const size_t stored = bins * codegen::output_bytes(s.form, s.out_prec);
  in_chunks(rows, [&](int64_t first, int64_t launched) {
    char* z = at(spectrum.p, first, bins * 2 * sizeof(T));
    char* out = at(call.out, first, stored);
    int count = static_cast<int>(launched);
    void* args[] = {&z, &out, &count};
    launch_kernel(fn, kernel.blocks(), static_cast<unsigned>(count), kernel.kBlock, 0, args,
                  kernel.kName, call.stream);
  });
}

}  // namespace

template <class T>
void staged_stft(const StftCall& call, const StftConfig& given) {
  StftConfig config = given;
  config.prec = codegen::kPrecisionOf<T>;
  const int64_t rows = call.batch * config.frames;
  require_int32("stft", "batch x frames", rows, 1);

  DeviceBuffer frames(static_cast<size_t>(rows) * config.n_fft * sizeof(T), call.stream);
  queue_frames(call, config, frames.p);
  config.n_fft % 2 == 0 ? transform_even<T>(call, config, frames.p, rows)
                        : transform_odd<T>(call, config, frames.p, rows);
}

template void staged_stft<float>(const StftCall&, const StftConfig&);
template void staged_stft<double>(const StftCall&, const StftConfig&);

}  // namespace kevra::ops
