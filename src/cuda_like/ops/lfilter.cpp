#include "cuda_like/ops/lfilter.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "codegen/kernels/lfilter.h"
#include "codegen/kernels/lfilter_pack.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {
namespace {

using codegen::LfilterKernel;
using codegen::LfilterPackKernel;

constexpr int64_t kLargestBlock = 256;
// Below a wave fewer threads win nothing on a GPU, and each count is a kernel to compile.
constexpr int64_t kSmallestBlock = 32;
// Where rows alone fill the device, four waves to each of a multiprocessor's four SIMDs, a block is
// one wave: every halving of the threads saves a round of the scan. On the CPU device 32 threads
// instead of 256 take a tenth to two fifths off the time of 64 rows, since the states and the tile
// of eight rows stay in a nearer cache.
constexpr int64_t kWavesThatFill = 16;

void check_order(const char* op, const LfilterOrder& order) {
  require_int32(op, "p", order.p, 0);
  require_int32(op, "m1", order.m1, 1);
}

void check_lfilter(const LfilterCall& call) {
  check_order("lfilter", call.order);
  require_at_least("lfilter", "rows", call.rows, 0);
  require_at_least("lfilter", "n", call.n, 0);
  require_rows("lfilter", "rows", call.rows, call.n);
  require_int32("lfilter", "seq", call.seq, 1);
  if (call.threads < 1 || call.threads > kLargestBlock ||
      !std::has_single_bit(static_cast<uint64_t>(call.threads))) {
    throw std::invalid_argument("lfilter: threads is " + std::to_string(call.threads) +
                                ", must be a power of two from 1 to 256");
  }
  if (!call.history.any()) return;
  if (call.history.xh == nullptr && call.order.m1 > 1) {
    throw std::invalid_argument("lfilter: zy_ptr is given without xh_ptr, the inputs before");
  }
  if (call.history.zy == nullptr && call.order.p > 0) {
    throw std::invalid_argument("lfilter: xh_ptr is given without zy_ptr, the outputs before");
  }
}

// The companion matrix to the power of `seq`, row-major.
std::vector<double> companion_power(const std::vector<double>& a, int64_t seq) {
  const size_t p = a.size();
  std::vector<double> power(p * p, 0.0);
  for (size_t i = 0; i < p; ++i) power[i * p + i] = 1;
  std::vector<double> top(p);
  for (int64_t s = 0; s < seq; ++s) {
    std::fill(top.begin(), top.end(), 0.0);
    for (size_t j = 0; j < p; ++j) {
      for (size_t c = 0; c < p; ++c) top[c] -= a[j] * power[j * p + c];
    }
    std::copy_backward(power.begin(), power.end() - static_cast<std::ptrdiff_t>(p), power.end());
    std::copy(top.begin(), top.end(), power.begin());
  }
  return power;
}

// A block of lfilter_pack_resident is for stretches of 16. Whether this is one shows in its first
// matrix, which the host has to wait for; callers with a `seq` of their own are rare. Shared memory
// bounds `seq` before: the power is made step by step.
template <class T>
void refuse_packed(const LfilterCall& call, stream_t stream) {
  const size_t p = static_cast<size_t>(call.order.p);
  std::vector<T> held(p + p * p);
  KEVRA_CHECK(streamSynchronize(stream));
  KEVRA_CHECK(
      memcpyDtoH(held.data(), static_cast<T*>(call.cf) + call.order.m1, held.size() * sizeof(T)));
  const std::vector<double> a(held.begin(), held.begin() + static_cast<std::ptrdiff_t>(p));
  const auto distance = [&](int64_t seq) {
    const std::vector<double> power = companion_power(a, seq);
    double sum = 0;
    for (size_t i = 0; i < p * p; ++i) sum += std::abs(static_cast<double>(held[p + i]) - power[i]);
    return sum;
  };
  if (distance(LfilterPackKernel::kSeq) < distance(call.seq)) {
    throw std::invalid_argument(
        "lfilter: seq is " + std::to_string(call.seq) +
        ", must be 16 with a packed block; the first matrix of cf is not A^seq but A^16");
  }
}

// The asked threads, or fewer: no more than a row has stretches for or than rows leave the device
// room for, and no more than fit into shared memory with p values of state each. The result does
// not depend on it but for rounding.
LfilterKernel choose_kernel(const LfilterCall& call, int prec, int device) {
  const int compute = codegen::compute_precision(prec);
  LfilterKernel kernel{static_cast<int>(call.order.p), static_cast<int>(call.order.m1), compute,
                       static_cast<int>(call.threads), static_cast<int>(call.seq)};
  const auto limit = static_cast<size_t>(device_shared_limit(device));
  while (kernel.threads > kSmallestBlock && kernel.threads / 2 * call.seq >= call.n) {
    kernel.threads /= 2;
  }
  const int64_t wave = device_wave_size(device);
  const int64_t filling = kWavesThatFill * wave * device_multiprocessors(device);
  while (kernel.threads > wave && filling > 0 && call.rows >= filling / (kernel.threads / 2)) {
    kernel.threads /= 2;
  }
  while (kernel.threads > 1 && kernel.shared_bytes() > limit) kernel.threads /= 2;
  check_shared(kernel.shared_bytes(), device, "lfilter: m1");
  return kernel;
}

// One block from b and a, for a LfilterPackKernel or a LfilterBasisKernel.
template <class Kernel>
void launch_block(const Kernel& kernel, devptr_t b, devptr_t a, devptr_t out, int device,
                  stream_t stream) {
  check_shared(kernel.shared_bytes(), device, "lfilter: p");
  const kernel_t fn = kernel_function(kernel, device);
  void* args[] = {&b, &a, &out};
  launch_kernel(fn, 1, 1, kernel.kBlock, kernel.shared_bytes(), args, kernel.kName, stream);
}

template <class T>
void run(const LfilterCall& call, int prec, int device, stream_t stream) {
  const LfilterKernel kernel = choose_kernel(call, prec, device);
  if (call.seq != LfilterPackKernel::kSeq && call.order.p > 0) refuse_packed<T>(call, stream);
  const codegen::LfilterBasisKernel block = kernel.basis();
  const DeviceBuffer coefficients(static_cast<size_t>(block.values()) * sizeof(double), stream);
  T* const b = static_cast<T*>(call.cf);
  launch_block(block, b, b + call.order.m1, coefficients.p, device, stream);

  const kernel_t fn = kernel_function(kernel, device);
  devptr_t cf = coefficients.p;
  int64_t n = call.n;
  int has_history = call.history.any() ? 1 : 0;
  const auto history = [](devptr_t values, int64_t before) {
    return values != nullptr ? at(values, before, sizeof(T)) : nullptr;
  };
  in_chunks(call.rows, [&](int64_t first, int64_t rows) {
    char* x = at(call.x, first * n, sizeof(T));
    char* y = at(call.y, first * n, sizeof(T));
    char* xh = history(call.history.xh, first * (call.order.m1 - 1));
    char* zy = history(call.history.zy, first * call.order.p);
    void* args[] = {&x, &y, &cf, &xh, &zy, &n, &has_history};
    launch_kernel(fn, static_cast<unsigned>(rows), 1, static_cast<unsigned>(kernel.threads),
                  kernel.shared_bytes(), args, kernel.kName, stream);
  });
}

// `width` values a row; for a width of 0 a placeholder column is as good as none.
template <class T>
void check_history(const HostArray<T>& history, const char* what, int64_t rows, int64_t width) {
  const std::vector<int64_t>& shape = history.shape;
  const bool fits =
      shape.size() == 2 && shape[0] == rows && (shape[1] == width || (width == 0 && shape[1] == 1));
  if (!fits) {
    throw std::invalid_argument(std::string("lfilter: ") + what + " must be (rows, samples) = (" +
                                std::to_string(rows) + ", " + std::to_string(width) + ")");
  }
}

template <class T>
void check_staged(const HostArray<T>& x, const HostArray<T>& cf, const LfilterOrder& order,
                  const HostArray<T>* xh, const HostArray<T>* zy) {
  if (x.dims() != 2) {
    throw std::invalid_argument("lfilter: expected a 2-D (rows, samples) array");
  }
  if (cf.dims() == 0) throw std::invalid_argument("invalid axis");
  check_order("lfilter", order);
  const int64_t p = order.p;
  constexpr int64_t kLevels = LfilterPackKernel::kLevels;
  // Divided, not multiplied: a p beyond all blocks would overflow.
  const int64_t matrices = cf.shape[0] - order.m1 - p;
  const bool holds =
      p == 0 ? matrices == 0 : matrices % (kLevels * p) == 0 && matrices / (kLevels * p) == p;
  if (cf.dims() != 1 || !holds) {
    throw std::invalid_argument(
        "lfilter: cf must be 1-D of m1 + p + 8 p^2 values with p = " + std::to_string(p) +
        " and m1 = " + std::to_string(order.m1) + ", has " + std::to_string(cf.shape[0]) +
        (cf.dims() == 1 ? "" : " rows"));
  }
  if (xh == nullptr) return;
  check_history(*xh, "xh", x.shape[0], order.m1 - 1);
  if (zy == nullptr) {
    throw std::invalid_argument("lfilter: xh is given without zy, the outputs before");
  }
  check_history(*zy, "zy", x.shape[0], p);
}

template <class T>
DeviceBuffer upload_all(const HostArray<T>& array) {
  return upload_staged(array.data, PinnedArray<T>::element_count(array.shape));
}

}  // namespace

void lfilter_pack_resident(devptr_t b, devptr_t a, devptr_t cf, const LfilterOrder& order, int prec,
                           int device, stream_t stream) {
  check_order("lfilter_pack", order);
  select_device(device);
  const LfilterPackKernel kernel{static_cast<int>(order.p), static_cast<int>(order.m1),
                                 codegen::compute_precision(prec)};
  launch_block(kernel, b, a, cf, device, stream);
}

void lfilter_resident(const LfilterCall& call, int prec, int device, stream_t stream) {
  check_lfilter(call);
  select_device(device);
  if (call.rows == 0 || call.n == 0) return;
  prec == codegen::kDouble ? run<double>(call, prec, device, stream)
                           : run<float>(call, prec, device, stream);
}

template <class T>
PinnedArray<T> lfilter_staged(const HostArray<T>& x, const HostArray<T>& cf,
                              const LfilterOrder& order, const HostArray<T>* xh,
                              const HostArray<T>* zy) {
  check_staged(x, cf, order, xh, zy);
  const int64_t rows = x.shape[0];
  const int64_t n = x.shape[1];

  select_device(0);
  const DeviceBuffer dx = upload_all(x);
  const DeviceBuffer dcf = upload_all(cf);
  // Without history the two stay empty: the kernel does not look at them.
  const DeviceBuffer dxh = xh != nullptr ? upload_all(*xh) : DeviceBuffer(0, nullptr);
  const DeviceBuffer dzy = xh != nullptr ? upload_all(*zy) : DeviceBuffer(0, nullptr);
  const DeviceBuffer dout((size_t)rows * n * sizeof(T), nullptr);
  LfilterCall call{.x = dx.p, .y = dout.p, .cf = dcf.p, .rows = rows, .n = n, .order = order};
  if (xh != nullptr) call.history = {dxh.p, dzy.p};
  lfilter_resident(call, codegen::kPrecisionOf<T>, 0, nullptr);

  PinnedArray<T> y({rows, n});
  KEVRA_CHECK(memcpyDtoH(y.mutable_data(), dout.p, (size_t)rows * n * sizeof(T)));
  return y;
}

template PinnedArray<float> lfilter_staged(const HostArray<float>&, const HostArray<float>&,
                                           const LfilterOrder&, const HostArray<float>*,
                                           const HostArray<float>*);
template PinnedArray<double> lfilter_staged(const HostArray<double>&, const HostArray<double>&,
                                            const LfilterOrder&, const HostArray<double>*,
                                            const HostArray<double>*);

}  // namespace kevra::ops
