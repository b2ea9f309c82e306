#include "cuda_like/ops/stft.h"

#include <stdexcept>

#include "codegen/kernels/stft.h"
#include "codegen/precision.h"
#include "codegen/sizes.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/stft_plan.h"
#include "cuda_like/ops/stft_staged.h"

namespace kevra::ops {
namespace {

using codegen::StftConfig;
using codegen::StftKernel;

template <class T>
FramePrecision precision_of(const StftCall& call) {
  return frame_precision(call.n_fft, sizeof(T) == 8, call.half, call.half_compute);
}

void launch(const StftPlan& plan, const StftCall& call) {
  devptr_t y = call.y;
  devptr_t out = call.out;
  devptr_t twiddles = plan.twiddles;
  devptr_t window = plan.window;
  int frames = plan.frames;
  int length = static_cast<int>(call.length);
  void* args[] = {&y, &out, &twiddles, &window, &frames, &length};
  launch_kernel(plan.fn, plan.blocks, static_cast<unsigned>(call.batch), plan.block, plan.shared,
                args, StftKernel::kName, call.stream);
}

}  // namespace

int FramePrecision::hint_bits() const {
  return compute == codegen::kDouble ? 64 : compute == codegen::kHalf ? 8 : storage == 0 ? 16 : 32;
}

FramePrecision frame_precision(int64_t n_fft, bool wide, bool half, bool half_compute) {
  if (wide) return {codegen::kDouble, codegen::kDouble};
  const bool packed = half && half_compute && codegen::is_power_of_two(static_cast<int>(n_fft));
  return {packed ? codegen::kHalf : codegen::kFloat, half ? codegen::kHalf : codegen::kFloat};
}

template <class T>
void stft_dispatch(const StftCall& call) {
  const FramePrecision prec = precision_of<T>(call);
  const PlanKey key = stft_plan_key(call, prec);
  StftPlan plan;
  if (call.override == nullptr && find_stft_plan(key, &plan) && !plan.staged) {
    check_frame_batch("stft", StftKernel::kName, call.batch);
    select_device(call.device);
    return launch(plan, call);
  }

  const int64_t frames = frame_count(call.length, call.n_fft, call.hop,
                                     frame_padding(call.n_fft, call.center), "stft");
  check_stft(call);
  select_device(call.device);
  const StftConfig config = route_call(call, prec, frames);
  plan = build_stft_plan(call, config);
  if (call.override == nullptr) keep_stft_plan(key, plan);
  if (plan.staged) return staged_stft<T>(call, config);
  launch(plan, call);
}

template void stft_dispatch<float>(const StftCall&);
template void stft_dispatch<double>(const StftCall&);

void stft_resident(const StftCall& call, int prec) {
  StftCall twin = call;
  twin.half = prec == 0 || prec == 3;
  twin.half_compute = prec == 3;
  prec == 2 ? stft_dispatch<double>(twin) : stft_dispatch<float>(twin);
}

template <class T, class Element>
PinnedArray<Element> stft_staged(const HostArray<T>& y, const StftOptions& options) {
  if (y.dims() != 2) throw std::invalid_argument("expected a 2-D (batch, samples) array");
  StftCall call{.y = nullptr,
                .out = nullptr,
                .batch = y.shape[0],
                .length = y.shape[1],
                .n_fft = options.n_fft,
                .hop = options.hop,
                .center = options.center,
                .form = options.form,
                .eps = options.eps,
                .window = options.window};
  const int64_t B = call.batch;
  const int64_t nf = frame_count(call.length, call.n_fft, call.hop,
                                 frame_padding(call.n_fft, call.center), "stft");
  check_stft(call);
  const int64_t nb = call.n_fft / 2 + 1;
  const size_t oel = sizeof(Element);

  select_device(0);
  DeviceBuffer dy = upload_staged(y.data, static_cast<size_t>(B) * call.length);
  DeviceBuffer dout((size_t)B * nf * nb * oel, nullptr);
  call.y = dy.p;
  call.out = dout.p;
  stft_dispatch<T>(call);

  PinnedArray<Element> out({B, nf, nb});
  KEVRA_CHECK(memcpyDtoH(out.mutable_data(), dout.p, (size_t)B * nf * nb * oel));
  return out;
}

template PinnedArray<float> stft_staged(const HostArray<float>&, const StftOptions&);
template PinnedArray<double> stft_staged(const HostArray<double>&, const StftOptions&);
template PinnedArray<std::complex<float>> stft_staged(const HostArray<float>&, const StftOptions&);
template PinnedArray<std::complex<double>> stft_staged(const HostArray<double>&,
                                                       const StftOptions&);

}  // namespace kevra::ops
