// The tuners of what works on frames of a signal.
#include "codegen/kernels/mel.h"
#include "codegen/precision.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/istft_route.h"
#include "cuda_like/ops/mel_plan.h"
#include "cuda_like/ops/stft_plan.h"
#include "cuda_like/tune/candidates.h"
#include "cuda_like/tune/sizes.h"
#include "cuda_like/tune/tune.h"

namespace kevra::tune {
namespace {

constexpr ShapeHint kNoWish;

ops::FramePrecision precision_of(int64_t n_fft, int prec) {
  return ops::frame_precision(n_fft, prec == 2, is_half(prec), prec == 3);
}

}  // namespace

std::optional<Winner> tune_stft(ops::StftCall call, int prec, const RunCounts& counts) {
  check_counts("stft", counts);
  const int64_t frames = ops::frame_count(call.length, call.n_fft, call.hop,
                                          ops::frame_padding(call.n_fft, call.center), "stft");
  ops::check_stft(call);
  select_device(call.device);
  call.override = &kNoWish;
  const auto route = ops::route_call(call, precision_of(call.n_fft, prec), frames);
  if (route.core == codegen::StftCore::kFourStep) return std::nullopt;

  const int64_t bins = call.n_fft / 2 + 1;
  const DeviceBuffer spectra(
      bytes_of("stft", {bins, call.form == 0 ? 2 : 1, element_bytes(prec), frames, call.batch}),
      nullptr);
  call.out = spectra.p;
  return fastest(stft_candidates(static_cast<int>(call.n_fft)), call.device, counts,
                 [&](const ShapeHint& hint) {
                   call.override = &hint;
                   ops::stft_resident(call, prec);
                 });
}

std::optional<Winner> tune_istft(ops::IstftCall call, int prec, const RunCounts& counts) {
  check_counts("istft", counts);
  if (ops::istft_length(call) == 0) return std::nullopt;
  select_device(call.device);
  // Both twins are held to the shared memory that doubles need: longer frames keep the default.
  if (ops::istft_is_staged(static_cast<int>(call.n_fft), codegen::kDouble,
                           device_shared_limit(call.device))) {
    return std::nullopt;
  }
  const int64_t samples = (call.frames - 1) * call.hop + call.n_fft;
  const DeviceBuffer signals(bytes_of("istft", {samples, element_bytes(prec), call.batch}),
                             nullptr);
  call.y = signals.p;
  return fastest(frame_candidates(), call.device, counts, [&](const ShapeHint& hint) {
    call.override = &hint;
    ops::istft_resident(call, prec);
  });
}

std::optional<Winner> tune_mel(ops::MelCall call, int prec, const RunCounts& counts) {
  check_counts("mel", counts);
  const ops::MelOptions& o = call.options;
  const int64_t frames = ops::check_mel(o, call.length);
  ops::check_frame_batch("mel", codegen::MelKernel::kName, call.batch);
  select_device(call.device);
  // The four-step core also stands for bands that leave a frame no shared memory.
  const auto route = ops::mel_config(call, precision_of(o.n_fft, prec), frames, kNoWish);
  if (route.core == codegen::StftCore::kFourStep) return std::nullopt;

  const DeviceBuffer bands(
      bytes_of("mel", {element_bytes(prec), o.bank.n_mels, frames, call.batch}), nullptr);
  call.mel = bands.p;
  return fastest(stft_candidates(static_cast<int>(o.n_fft)), call.device, counts,
                 [&](const ShapeHint& hint) {
                   call.override = &hint;
                   ops::mel_resident(call, prec);
                 });
}

}  // namespace kevra::tune
