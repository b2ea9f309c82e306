#include "cuda_like/ops/onset.h"

#include <limits>
#include <stdexcept>

#include "codegen/kernels/onset.h"
#include "codegen/precision.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/transpose.h"

namespace kevra::ops {
void check_onset(int64_t batch, int64_t frames, int64_t bins) {
  constexpr const char* kOp = "onset_strength";
  require_at_least(kOp, "batch", batch, 0);
  require_at_least(kOp, "frames", frames, 0);
  require_at_least(kOp, "bins", bins, 1);
  // Grid x is a 31-bit quantity; with both factors below it the product cannot overflow.
  constexpr int64_t kGridLimit = std::numeric_limits<int>::max();
  require_at_most(kOp, "batch", batch, kGridLimit);
  require_at_most(kOp, "frames", frames, kGridLimit);
  require_at_most(kOp, "batch x frames", batch * frames, kGridLimit);
}

void onset_strength_resident(devptr_t m, devptr_t out, int64_t batch, int64_t frames, int64_t bins,
                             int prec, int device, stream_t stream) {
  check_onset(batch, frames, bins);
  select_device(device);
  if (batch == 0 || frames == 0) return;

  const codegen::OnsetKernel kernel{prec};
  kernel_t fn = kernel_function(kernel, device);
  void* args[] = {&m, &out, &frames, &bins};
  launch_kernel(fn, static_cast<unsigned>(batch * frames), 1, kernel.kBlock, kernel.shared_bytes(),
                args, kernel.kName, stream);
}

template <class T>
PinnedArray<T> onset_strength_staged(const HostArray<T>& s) {
  if (s.dims() != 3) {
    throw std::invalid_argument("onset strength expects (batch, bins, frames)");
  }
  const int64_t batch = s.shape[0];
  const int64_t bins = s.shape[1];
  const int64_t frames = s.shape[2];
  check_onset(batch, frames, bins);

  select_device(0);
  const size_t bytes = static_cast<size_t>(batch) * bins * frames * sizeof(T);
  DeviceBuffer dx(bytes, nullptr);
  DeviceBuffer dy((size_t)batch * frames * sizeof(T), nullptr);
  {
    // Turned round on the way into pinned memory: no copy beside that one.
    const PinnedBlock turned(bytes);
    transpose(s.data, static_cast<T*>(turned.p), batch, bins, frames);
    KEVRA_CHECK(memcpyHtoD(dx.p, turned.p, bytes));
  }
  onset_strength_resident(dx.p, dy.p, batch, frames, bins, codegen::kPrecisionOf<T>, 0, nullptr);

  PinnedArray<T> out({batch, frames});
  KEVRA_CHECK(memcpyDtoH(out.mutable_data(), dy.p, (size_t)batch * frames * sizeof(T)));
  return out;
}

template PinnedArray<float> onset_strength_staged(const HostArray<float>&);
template PinnedArray<double> onset_strength_staged(const HostArray<double>&);

}  // namespace kevra::ops
