#include "cuda_like/ops/frame_statistic.h"

#include <bit>
#include <stdexcept>

#include "codegen/kernels/spectrum_output.h"
#include "codegen/kernels/stft.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/stft_plan.h"

namespace kevra::ops {
namespace {

using codegen::FrameStatistic;
using codegen::StftKernel;

// The frames of a call that may run.
int64_t check_frames(const StftCall& call) {
  const int64_t frames = frame_count(call.length, call.n_fft, call.hop,
                                     frame_padding(call.n_fft, call.center), "stft");
  if (call.batch != 0) check_frame_batch("stft", StftKernel::kName, call.batch);
  check_window(call.window, call.n_fft);
  return frames;
}

StftPlan plan_of(const StftCall& call, const FramePrecision& prec, int64_t frames,
                 const FrameStatistic& statistic) {
  const PlanKey key = stft_plan_key(call, prec, statistic);
  StftPlan plan;
  if (find_stft_plan(key, &plan)) return plan;
  plan = build_stft_plan(call, route_call(call, prec, frames, statistic));
  keep_stft_plan(key, plan);
  return plan;
}

template <class T>
void launch(const StftPlan& plan, const StftCall& call, const StatisticArguments& arguments) {
  devptr_t y = call.y;
  devptr_t out = call.out;
  devptr_t twiddles = plan.twiddles;
  devptr_t window = plan.window;
  int frames = plan.frames;
  int length = static_cast<int>(call.length);
  T fstep = static_cast<T>(arguments.fstep);
  T p = static_cast<T>(arguments.p);
  T amin = static_cast<T>(arguments.amin);
  T roll = static_cast<T>(arguments.roll);
  const auto queue = [&](void** args) {
    launch_kernel(plan.fn, plan.blocks, static_cast<unsigned>(call.batch), plan.block, plan.shared,
                  args, StftKernel::kName, call.stream);
  };
  if (arguments.bands == nullptr) {
    void* args[] = {&y, &out, &twiddles, &window, &frames, &length, &fstep, &p, &amin, &roll};
    return queue(args);
  }
  devptr_t bt = upload_bands(*arguments.bands);
  char* bq = at(bt, arguments.bands->edges, sizeof(int32_t));
  void* args[] = {&y,      &out,    &twiddles, &window, &bt,   &bq,
                  &frames, &length, &fstep,    &p,      &amin, &roll};
  queue(args);
}

}  // namespace

template <class T>
bool frame_statistic(const StftCall& given, const FrameStatistic& statistic,
                     const StatisticArguments& arguments) {
  StftCall call = given;
  call.form = codegen::kMagnitudeForm;
  if (call.n_fft >= 2 && !std::has_single_bit(static_cast<uint64_t>(call.n_fft))) return false;
  const int64_t frames = check_frames(call);
  select_device(call.device);
  if (call.batch == 0) return true;
  if (arguments.bands != nullptr && arguments.bands->n_bands == 0) return true;
  const FramePrecision prec = frame_precision(call.n_fft, sizeof(T) == 8, false, false);
  const StftPlan plan = plan_of(call, prec, frames, statistic);
  if (!plan.staged) launch<T>(plan, call, arguments);
  return !plan.staged;
}

template bool frame_statistic<float>(const StftCall&, const FrameStatistic&,
                                     const StatisticArguments&);
template bool frame_statistic<double>(const StftCall&, const FrameStatistic&,
                                      const StatisticArguments&);

PinnedArray<double> staged_statistic(const HostArray<double>& y, const StatisticOptions& options,
                                     const StatisticForms& forms) {
  if (y.dims() != 2) throw std::invalid_argument("expected a 2-D (batch, samples) array");
  StftCall call{.y = nullptr,
                .out = nullptr,
                .batch = y.shape[0],
                .length = y.shape[1],
                .n_fft = options.n_fft,
                .hop = options.hop,
                .center = options.center,
                .form = codegen::kMagnitudeForm,
                .window = options.window};
  const int64_t nf = check_frames(call);
  const int64_t B = call.batch;
  const int64_t width = forms.width;
  select_device(0);
  PinnedArray<double> out({B, nf, width});
  if (B == 0 || width == 0) return out;

  const DeviceBuffer dy = upload_staged(y.data, static_cast<size_t>(B) * call.length);
  const DeviceBuffer dout((size_t)B * nf * width * sizeof(double), nullptr);
  call.y = dy.p;
  call.out = dout.p;
  if (!forms.signal(call)) {
    const int64_t nb = call.n_fft / 2 + 1;
    const DeviceBuffer magnitudes((size_t)B * nf * nb * sizeof(double), nullptr);
    call.out = magnitudes.p;
    stft_dispatch<double>(call);
    forms.reduce(magnitudes.p, dout.p, B * nf, nb);
  }
  KEVRA_CHECK(memcpyDtoH(out.mutable_data(), dout.p, (size_t)B * nf * width * sizeof(double)));
  return out;
}

}  // namespace kevra::ops
