#include "cuda_like/ops/feature_adjoints.h"

#include "codegen/kernels/onset_adjoint.h"
#include "codegen/kernels/rms_adjoint.h"
#include "codegen/kernels/tonnetz_adjoint.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/gradients.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/onset.h"
#include "cuda_like/ops/tonnetz.h"

namespace kevra::ops {
namespace {

// Blocks of `block` threads for `count` threads. Grid x is a 31-bit quantity.
unsigned blocks_for(int64_t count, int block) {
  return static_cast<unsigned>((count + block - 1) / block);
}

}  // namespace

void rms_adjoint_resident(const RmsAdjointCall& call, int prec, int device, stream_t stream) {
  require_full_precision(prec, "rms adjoint requires widened f32 tensors");
  check_rms(call.shape);
  constexpr int64_t kBlock = codegen::RmsAdjointKernel::kBlock;
  require_at_most("rms", "length", call.shape.length, (int64_t{1} << 31) * kBlock - kBlock);
  select_device(device);

  const codegen::RmsAdjointKernel kernel{codegen::compute_precision(prec)};
  const kernel_t fn = kernel_function(kernel, device);
  const size_t element = kernel.prec == codegen::kDouble ? sizeof(double) : sizeof(float);
  int64_t length = call.shape.length;
  int64_t frames = call.shape.frames;
  int frame_length = static_cast<int>(call.shape.frame_length);
  int hop = static_cast<int>(call.shape.hop);
  int pad = call.shape.center ? frame_length / 2 : 0;
  in_chunks(call.shape.batch, [&](int64_t first, int64_t count) {
    char* x = at(call.x, first * length, element);
    char* rms = at(call.rms, first * frames, element);
    char* gy = at(call.gy, first * frames, element);
    char* gx = at(call.gx, first * length, element);
    void* args[] = {&x, &rms, &gy, &gx, &length, &frames, &frame_length, &hop, &pad};
    launch_kernel(fn, blocks_for(length, kernel.kBlock), static_cast<unsigned>(count),
                  kernel.kBlock, 0, args, kernel.kName, stream);
  });
}

void onset_strength_adjoint_resident(devptr_t m, devptr_t gy, devptr_t gm, int64_t batch,
                                     int64_t frames, int64_t bins, int prec, int device,
                                     stream_t stream) {
  require_full_precision(prec, "onset adjoint requires widened f32 tensors");
  check_onset(batch, frames, bins);
  select_device(device);
  if (batch == 0 || frames == 0) return;

  const codegen::OnsetAdjointKernel kernel{codegen::compute_precision(prec)};
  const kernel_t fn = kernel_function(kernel, device);
  void* args[] = {&m, &gy, &gm, &frames, &bins};
  launch_kernel(fn, static_cast<unsigned>(batch * frames), 1, kernel.kBlock, 0, args, kernel.kName,
                stream);
}

void tonnetz_adjoint_resident(devptr_t c, devptr_t gy, devptr_t gc, int64_t rows, int prec,
                              int device, stream_t stream) {
  require_full_precision(prec, "tonnetz adjoint requires widened f32 tensors");
  check_tonnetz(rows);
  select_device(device);
  if (rows == 0) return;

  const codegen::TonnetzAdjointKernel kernel{codegen::compute_precision(prec)};
  const kernel_t fn = kernel_function(kernel, device);
  void* args[] = {&c, &gy, &gc, &rows};
  launch_kernel(fn, blocks_for(rows, kernel.kBlock), 1, kernel.kBlock, 0, args, kernel.kName,
                stream);
}

}  // namespace kevra::ops
