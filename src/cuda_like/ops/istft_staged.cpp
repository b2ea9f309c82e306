#include "cuda_like/ops/istft_staged.h"

#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/fft.h"
#include "cuda_like/ops/rfft.h"
#include "cuda_like/twiddles.h"

namespace kevra::ops {
namespace {

using codegen::FrameWindow;
using codegen::IstftGather;

// Lays the bins of all frames side by side at `to`, folded to half as many where n_fft is even.
void gather(const StagedFrames& plan, const IstftCall& call, const IstftSizes& sizes, int64_t rows,
            devptr_t to) {
  const IstftGather& kernel = plan.kernel;
  devptr_t z = call.z;
  devptr_t twiddles = plan.twiddles;
  int frames = sizes.frames;
  int64_t sb = call.stride_batch;
  int64_t sk = call.stride_bin;
  int64_t st = call.stride_frame;
  const int64_t all = rows * frames;
  const auto blocks = static_cast<unsigned>((kernel.count() + kernel.kBlock - 1) / kernel.kBlock);
  in_chunks(all, [&](int64_t row, int64_t count) {
    void* packed[] = {&z, &to, &twiddles, &frames, &sb, &sk, &st, &row};
    void* plain[] = {&z, &to, &frames, &sb, &sk, &st, &row};
    launch_kernel(plan.gather, blocks, static_cast<unsigned>(count), kernel.kBlock, 0,
                  kernel.packs() ? packed : plain, kernel.name(), call.stream);
  });
}

void apply_window(const StagedFrames& plan, const IstftCall& call, const IstftSizes& sizes,
                  int64_t rows, devptr_t to) {
  devptr_t window = plan.window;
  int frames = sizes.frames;
  void* args[] = {&to, &window, &frames};
  launch_kernel(plan.apply_window, static_cast<unsigned>(frames), static_cast<unsigned>(rows),
                FrameWindow::kBlock, 0, args, FrameWindow::kName, call.stream);
}

}  // namespace

StagedFrames staged_frames(const codegen::IstftKernel& kernel, devptr_t window, int device) {
  const IstftGather gather{kernel.n_fft, kernel.compute, kernel.storage};
  const FrameWindow multiply{kernel.n_fft, kernel.compute};
  StagedFrames plan;
  plan.kernel = gather;
  plan.window = window;
  plan.gather = kernel_function(gather, device);
  plan.apply_window = kernel_function(multiply, device);
  if (gather.packs()) {
    plan.twiddles = fft_twiddles(kernel.n_fft, 0, kernel.compute == codegen::kDouble);
  }
  return plan;
}

template <class T>
void make_staged_frames(const StagedFrames& plan, const IstftCall& call, const IstftSizes& sizes,
                        int64_t rows, devptr_t frames) {
  const int64_t transforms = rows * sizes.frames;
  if (sizes.n_fft % 2 == 0) {
    // As many complex values as there are pairs of samples: the transform works in place.
    gather(plan, call, sizes, rows, frames);
    fft_dispatch<T>({.x = frames,
                     .out = frames,
                     .rows = transforms,
                     .n = sizes.n_fft / 2,
                     .inverse = true,
                     .device = call.device,
                     .stream = call.stream});
  } else {
    DeviceBuffer bins(static_cast<size_t>(transforms) * call.bins * 2 * sizeof(T), call.stream);
    gather(plan, call, sizes, rows, bins.p);
    rfft_dispatch<T>({.x = bins.p,
                      .out = frames,
                      .rows = transforms,
                      .n = sizes.n_fft,
                      .inverse = true,
                      .device = call.device,
                      .stream = call.stream});
  }
  apply_window(plan, call, sizes, rows, frames);
}

template void make_staged_frames<float>(const StagedFrames&, const IstftCall&, const IstftSizes&,
                                        int64_t, devptr_t);
template void make_staged_frames<double>(const StagedFrames&, const IstftCall&, const IstftSizes&,
                                         int64_t, devptr_t);

}  // namespace kevra::ops
