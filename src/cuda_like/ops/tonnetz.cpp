#include "cuda_like/ops/tonnetz.h"

#include <stdexcept>

#include "codegen/kernels/tonnetz.h"
#include "codegen/precision.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/transpose.h"

namespace kevra::ops {

using codegen::TonnetzKernel;

void check_tonnetz(int64_t rows) {
  require_at_least("tonnetz", "rows", rows, 0);
  // Grid x is a 31-bit quantity.
  constexpr int64_t kBlock = TonnetzKernel::kBlock;
  require_at_most("tonnetz", "rows", rows, (int64_t{1} << 31) * kBlock - kBlock);
}

void tonnetz_resident(devptr_t c, devptr_t out, int64_t rows, int prec, int device,
                      stream_t stream) {
  check_tonnetz(rows);
  select_device(device);
  if (rows == 0) return;

  constexpr int64_t kBlock = TonnetzKernel::kBlock;
  const TonnetzKernel kernel{prec};
  kernel_t fn = kernel_function(kernel, device);
  void* args[] = {&c, &out, &rows};
  launch_kernel(fn, static_cast<unsigned>((rows + kBlock - 1) / kBlock), 1, kernel.kBlock, 0, args,
                kernel.kName, stream);
}

template <class T>
PinnedArray<T> tonnetz_staged(const HostArray<T>& c) {
  constexpr int64_t kClasses = TonnetzKernel::kClasses;
  constexpr int64_t kCoordinates = TonnetzKernel::kCoordinates;
  if (c.dims() != 3 || c.shape[1] != kClasses) {
    throw std::invalid_argument("tonnetz expects (batch, 12, frames)");
  }
  const int64_t batch = c.shape[0];
  const int64_t frames = c.shape[2];
  const int64_t rows = batch * frames;

  select_device(0);
  const size_t bytes = static_cast<size_t>(rows) * kClasses * sizeof(T);
  DeviceBuffer dx(bytes, nullptr);
  DeviceBuffer dy(static_cast<size_t>(rows) * kCoordinates * sizeof(T), nullptr);
  {
    // Turned round on the way into pinned memory: no copy beside that one.
    const PinnedBlock turned(bytes);
    transpose(c.data, static_cast<T*>(turned.p), batch, kClasses, frames);
    KEVRA_CHECK(memcpyHtoD(dx.p, turned.p, bytes));
  }
  tonnetz_resident(dx.p, dy.p, rows, codegen::kPrecisionOf<T>, 0, nullptr);

  PinnedArray<T> out({batch, frames, kCoordinates});
  KEVRA_CHECK(memcpyDtoH(out.mutable_data(), dy.p, (size_t)rows * kCoordinates * sizeof(T)));
  return out;
}

template PinnedArray<float> tonnetz_staged(const HostArray<float>&);
template PinnedArray<double> tonnetz_staged(const HostArray<double>&);

}  // namespace kevra::ops
