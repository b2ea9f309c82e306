#include "cuda_like/ops/icqt.h"

#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "codegen/kernels/icqt.h"
#include "codegen/precision.h"
#include "cuda_like/ops/cqt_design.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/rfft.h"

namespace kevra::ops {
namespace {

using codegen::IcqtDualKernel;
using codegen::IcqtOverlapKernel;

constexpr const char* kOp = "icqt";
constexpr int64_t kBlock = 256;
constexpr int64_t kInt = std::numeric_limits<int>::max();

struct Kernels {
  kernel_t dual;
  kernel_t overlap;
};

void check_octave(const IcqtCall& call, size_t index) {
  const DualRecord& r = call.octaves[index];
  const std::string name = octave_name(kOp, index);
  require_at_least(name.c_str(), "s", r.shift, 0);
  require_at_most(name.c_str(), "s", r.shift, 30);
  require_at_least(name.c_str(), "n_d", r.n_d, 2);
  require_at_most(name.c_str(), "n_d", r.n_d, kInt);
  require_at_most(name.c_str(), "n_d * 2**s, the samples of a frame,", r.span(), kInt);
  require_at_least(name.c_str(), "rows", r.rows, 1);
  require_at_least(name.c_str(), "row_lo", r.row_lo, 0);
  if (r.row_lo > call.n_bins || r.rows > call.n_bins - r.row_lo) {
    throw std::invalid_argument(name + ": row_lo " + std::to_string(r.row_lo) + " and " +
                                std::to_string(r.rows) +
                                " rows reach past n_bins = " + std::to_string(call.n_bins));
  }
  if (r.filters.rows != r.rows || r.filters.cols != 2 * r.half()) {
    throw std::invalid_argument(name + ": D has shape (" + std::to_string(r.filters.rows) + ", " +
                                std::to_string(r.filters.cols / 2) +
                                "), must be (rows, n_d // 2 + 1) = (" + std::to_string(r.rows) +
                                ", " + std::to_string(r.half()) + ")");
  }
  // Tables of one plan are told apart by s alone.
  for (size_t other = 0; other < index; ++other) {
    if (call.octaves[other].shift == r.shift) {
      throw std::invalid_argument(name + ": s is " + std::to_string(r.shift) +
                                  ", that of octaves[" + std::to_string(other) +
                                  "]; every octave has an s of its own");
    }
  }
  if (call.is_empty()) return;
  require_at_most(name.c_str(), "batch x frames", call.batch * call.frames, kInt);
  const int64_t most = kInt * kBlock / r.half_at_full_rate();
  require_at_most(name.c_str(), "frames", call.frames, most);
}

void check_icqt(const IcqtCall& call) {
  require_at_least(kOp, "batch", call.batch, 0);
  require_int32(kOp, "n_bins", call.n_bins, 1);
  require_int32(kOp, "frames", call.frames, 0);
  require_int32(kOp, "hop", call.hop, 1);
  require_at_least(kOp, "length", call.length, 0);
  require_at_most(kOp, "length", call.length, kInt * kBlock);
  if (call.batch > 0) check_frame_batch(kOp, IcqtDualKernel::kName, call.batch);
  for (size_t i = 0; i < call.octaves.size(); ++i) check_octave(call, i);
}

void queue_dual(const IcqtCall& call, const DualRecord& record, kernel_t fn, devptr_t table,
                devptr_t spectra) {
  devptr_t c = call.c;
  int64_t frames = call.frames;
  int half_f = static_cast<int>(record.half_at_full_rate());
  int half_d = static_cast<int>(record.half());
  int rows = static_cast<int>(record.rows);
  int n_bins = static_cast<int>(call.n_bins);
  int row_lo = static_cast<int>(record.row_lo);
  void* args[] = {&c, &spectra, &table, &frames, &half_f, &half_d, &rows, &n_bins, &row_lo};
  launch_kernel(fn, static_cast<unsigned>((frames * half_f + kBlock - 1) / kBlock),
                static_cast<unsigned>(call.batch), kBlock, 0, args, IcqtDualKernel::kName,
                call.stream);
}

template <class T>
void queue_overlap(const IcqtCall& call, const DualRecord& record, kernel_t fn, devptr_t frames) {
  devptr_t y = call.y;
  int64_t length = call.length;
  int64_t count = call.frames;
  int span = static_cast<int>(record.span());
  int hop = static_cast<int>(call.hop);
  T scale = static_cast<T>(int64_t{1} << record.shift);
  void* args[] = {&frames, &y, &length, &count, &span, &hop, &scale};
  launch_kernel(fn, static_cast<unsigned>((length + kBlock - 1) / kBlock),
                static_cast<unsigned>(call.batch), kBlock, 0, args, IcqtOverlapKernel::kName,
                call.stream);
}

template <class T>
void queue_octave(const IcqtCall& call, const DualRecord& record, const Kernels& kernels,
                  devptr_t table) {
  const int64_t rows = call.batch * call.frames;
  const DeviceBuffer spectra(
      static_cast<size_t>(rows * record.half_at_full_rate()) * sizeof(std::complex<T>),
      call.stream);
  queue_dual(call, record, kernels.dual, table, spectra.p);
  const DeviceBuffer frames(static_cast<size_t>(rows * record.span()) * sizeof(T), call.stream);
  rfft_dispatch<T>({.x = spectra.p,
                    .out = frames.p,
                    .rows = rows,
                    .n = static_cast<int>(record.span()),
                    .inverse = true,
                    .device = call.device,
                    .stream = call.stream});
  queue_overlap<T>(call, record, kernels.overlap, frames.p);
}

template <class T>
void icqt_direct(const IcqtCall& call) {
  check_icqt(call);
  select_device(call.device);
  if (call.batch == 0 || call.length == 0) return;
  const int64_t B = call.batch;
  const int64_t Tlen = call.length;
  const devptr_t yp = call.y;
  const stream_t stream = call.stream;

  // What fails here leaves y as it was.
  std::vector<devptr_t> tables;
  for (size_t i = 0; i < call.octaves.size(); ++i) {
    tables.push_back(dual_table<T>(kOp, call.plan_key, call.octaves[i], i));
  }
  const Kernels kernels{kernel_function(IcqtDualKernel{codegen::kPrecisionOf<T>}, call.device),
                        kernel_function(IcqtOverlapKernel{codegen::kPrecisionOf<T>}, call.device)};
  KEVRA_CHECK(memsetD8Async((devptr_t)yp, 0, (size_t)B * Tlen * sizeof(T), (stream_t)stream));
  if (call.is_empty()) return;
  for (size_t i = 0; i < call.octaves.size(); ++i) {
    queue_octave<T>(call, call.octaves[i], kernels, tables[i]);
  }
}

}  // namespace

void check_bins(const std::vector<int64_t>& shape, int64_t n_bins, int64_t frames) {
  if (shape[1] == n_bins && shape[2] == frames) return;
  throw std::invalid_argument("icqt: C has " + std::to_string(shape[1]) + " bins and " +
                              std::to_string(shape[2]) + " frames, must have n_bins = " +
                              std::to_string(n_bins) + " and frames = " + std::to_string(frames));
}

void icqt_direct_resident(const IcqtCall& call, int prec) {
  if (prec == 0) {
    throw std::invalid_argument("icqt: half estimates compute in f32 - upcast the tensors");
  }
  prec == 2 ? icqt_direct<double>(call) : icqt_direct<float>(call);
}

template <class T>
PinnedArray<T> icqt_direct_staged(const HostArray<std::complex<T>>& c, const IcqtCall& options) {
  if (c.dims() != 3) throw std::invalid_argument("icqt: expected C (batch, n_bins, frames)");
  IcqtCall call = options;
  call.batch = c.shape[0];
  check_bins(c.shape, call.n_bins, call.frames);
  check_icqt(call);
  select_device(0);
  PinnedArray<T> y({call.batch, call.length});
  const size_t bytes = static_cast<size_t>(call.batch * call.length) * sizeof(T);
  if (bytes == 0) return y;
  DeviceBuffer dc = upload_staged(c.data, PinnedArray<T>::element_count(c.shape));
  DeviceBuffer dy(bytes, nullptr);
  call.c = dc.p;
  call.y = dy.p;
  icqt_direct<T>(call);
  KEVRA_CHECK(memcpyDtoH(y.mutable_data(), dy.p, bytes));
  return y;
}

template PinnedArray<float> icqt_direct_staged(const HostArray<std::complex<float>>&,
                                               const IcqtCall&);
template PinnedArray<double> icqt_direct_staged(const HostArray<std::complex<double>>&,
                                                const IcqtCall&);

}  // namespace kevra::ops
