#include "cuda_like/ops/features.h"

#include <limits>
#include <stdexcept>
#include <string>

#include "codegen/kernels/rms.h"
#include "codegen/precision.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {
namespace {

// Whether some frame reaches past an end of the signal.
bool needs_reflection(const RmsShape& s, int64_t pad) {
  return pad > 0 || s.frame_length - pad + (s.frames - 1) * s.hop > s.length;
}

int64_t rms_frames(int64_t samples, int64_t frame_length, int64_t hop, bool center) {
  if (center) return (samples - frame_length % 2) / hop + 1;
  if (samples < frame_length) {
    throw std::invalid_argument("input of " + std::to_string(samples) +
                                " samples is shorter than n_fft with center=False");
  }
  return (samples - frame_length) / hop + 1;
}

}  // namespace

void check_rms(const RmsShape& s) {
  require_at_least("rms", "batch", s.batch, 1);
  require_at_least("rms", "length", s.length, 1);
  require_at_least("rms", "frames", s.frames, 1);
  require_int32("rms", "frame_length", s.frame_length, 1);
  require_int32("rms", "hop", s.hop, 1);
  // Grid x is a 31-bit quantity; with both factors below it the product cannot overflow.
  constexpr int64_t kGridLimit = std::numeric_limits<int>::max();
  require_at_most("rms", "batch", s.batch, kGridLimit);
  require_at_most("rms", "frames", s.frames, kGridLimit);
  require_at_most("rms", "batch x frames", s.batch * s.frames, kGridLimit);
  const int64_t pad = s.center ? s.frame_length / 2 : 0;
  if (s.length < 2 && needs_reflection(s, pad)) {
    throw std::invalid_argument(
        "rms: length is 1, must be at least 2 where a frame reaches past the signal's ends, "
        "since one sample cannot be reflected");
  }
}

void rms_resident(devptr_t x, devptr_t out, const RmsShape& shape, int prec, int device,
                  stream_t stream) {
  check_rms(shape);
  select_device(device);

  const codegen::RmsKernel kernel{prec};
  kernel_t fn = kernel_function(kernel, device);

  int64_t length = shape.length;
  int64_t frames = shape.frames;
  int frame_length = static_cast<int>(shape.frame_length);
  int hop = static_cast<int>(shape.hop);
  int pad = shape.center ? frame_length / 2 : 0;
  void* args[] = {&x, &out, &length, &frames, &frame_length, &hop, &pad};
  launch_kernel(fn, static_cast<unsigned>(shape.batch * shape.frames), 1, kernel.kBlock,
                kernel.shared_bytes(), args, kernel.kName, stream);
}

template <class T>
PinnedArray<T> rms_staged(const HostArray<T>& y, int64_t frame_length, int64_t hop, bool center) {
  if (y.dims() != 2) throw std::invalid_argument("rms expects (batch, samples)");
  const int64_t batch = y.shape[0];
  const int64_t samples = y.shape[1];
  require_at_least("rms", "frame_length", frame_length, 1);
  require_at_least("rms", "hop", hop, 1);
  const int64_t frames = rms_frames(samples, frame_length, hop, center);
  const RmsShape shape{batch, samples, frames, frame_length, hop, center};
  check_rms(shape);

  select_device(0);
  DeviceBuffer dx = upload_staged(y.data, (size_t)batch * samples);
  DeviceBuffer dy((size_t)batch * frames * sizeof(T), nullptr);
  rms_resident(dx.p, dy.p, shape, codegen::kPrecisionOf<T>, 0, nullptr);

  PinnedArray<T> out({batch, frames});
  KEVRA_CHECK(memcpyDtoH(out.mutable_data(), dy.p, (size_t)batch * frames * sizeof(T)));
  return out;
}

template PinnedArray<float> rms_staged(const HostArray<float>&, int64_t, int64_t, bool);
template PinnedArray<double> rms_staged(const HostArray<double>&, int64_t, int64_t, bool);

}  // namespace kevra::ops
