#include "cuda_like/ops/convolution_adjoint.h"

#include <optional>
#include <stdexcept>
#include <string>

#include "codegen/kernels/convolution_adjoint.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/convolution_steps.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {
namespace {

using codegen::ConvRowSumKernel;
using codegen::ConvStageKernel;

constexpr const char* kOp = "conv_adjoint";

void require_within(const char* what, int64_t offset, int64_t length, int64_t nf) {
  if (offset > nf || length > nf - offset) {
    throw std::invalid_argument(std::string(kOp) + ": " + what + " is " + std::to_string(offset) +
                                " + " + std::to_string(length) +
                                ", must be at most nf = " + std::to_string(nf));
  }
}

void check(const ConvAdjointCall& call) {
  require_int32(kOp, "rows", call.rows, 0);
  require_at_least(kOp, "len_g", call.len_g, 1);
  require_at_least(kOp, "len_w", call.len_w, 1);
  require_at_least(kOp, "off", call.off, 0);
  require_at_least(kOp, "sl_start", call.sl_start, 0);
  require_at_least(kOp, "sl_len", call.sl_len, 0);
  require_int32(kOp, "nf", call.nf, 1);
  if (call.len_w > call.nf) {
    throw std::invalid_argument(std::string(kOp) + ": len_w is " + std::to_string(call.len_w) +
                                ", must be at most nf = " + std::to_string(call.nf));
  }
  require_within("off + len_g", call.off, call.len_g, call.nf);
  require_within("sl_start + sl_len", call.sl_start, call.sl_len, call.nf);
}

// Of a value of the caller's arrays.
size_t stored_bytes(const ConvQueue& queue) {
  const size_t part = queue.prec == codegen::kDouble ? 8 : queue.prec == codegen::kHalf ? 2 : 4;
  return queue.is_complex ? 2 * part : part;
}

// `rows` rows of `len` stored values to rows of nf at `off`.
template <class T>
void stage(const ConvQueue& queue, const ConvStageKernel& kernel, devptr_t x, devptr_t out,
           int64_t rows, int64_t len, int64_t nf, int64_t off) {
  const size_t stored = stored_bytes(queue);
  const size_t staged = (queue.is_complex ? 2 : 1) * sizeof(T);
  const kernel_t fn = kernel_function(kernel, queue.device);
  in_chunks(rows, [&](int64_t first, int64_t count) {
    char* from = at(x, first * len, stored);
    char* to = at(out, first * nf, staged);
    void* args[] = {&from, &to, &len, &nf, &off};
    queue.launch(fn, len, count, args, kernel.kName);
  });
}

// The transforms of rows, in their place where they are complex.
template <class T>
struct Spectra {
  Spectra(const ConvQueue& queue, devptr_t x, int64_t rows, int64_t nf) : p(x) {
    if (!queue.is_complex) {
      own.emplace(static_cast<size_t>(rows * queue.bins(nf)) * 2 * sizeof(T), queue.stream);
      p = own->p;
    }
    transform_rows<T>(queue, x, p, rows, nf, false);
  }

  std::optional<DeviceBuffer> own;
  devptr_t p;
};

void sum_rows(const ConvQueue& queue, const ConvAdjointCall& call, devptr_t x) {
  const ConvRowSumKernel kernel{queue.prec, queue.is_complex};
  devptr_t y = call.out;
  int64_t rows = call.rows;
  int64_t len = call.sl_len;
  void* args[] = {&x, &y, &rows, &len};
  queue.launch(kernel_function(kernel, queue.device), len, 1, args, kernel.kName);
}

template <class T>
void conv_adjoint(const ConvAdjointCall& call, const ConvQueue& queue) {
  const int64_t R = call.rows;
  const int64_t Rw = call.shares_w() ? 1 : R;
  const int64_t nf = call.nf;
  const size_t es = (queue.is_complex ? 2 : 1) * sizeof(T);
  const stream_t stream = queue.stream;
  const DeviceBuffer pg((size_t)R * nf * es, stream);
  const DeviceBuffer pw((size_t)Rw * nf * es, stream);
  KEVRA_CHECK(memsetD8Async(pg.p, 0, (size_t)R * nf * es, (stream_t)stream));
  KEVRA_CHECK(memsetD8Async(pw.p, 0, (size_t)Rw * nf * es, (stream_t)stream));
  stage<T>(queue, {queue.prec, queue.is_complex}, call.gy, pg.p, R, call.len_g, nf, call.off);
  stage<T>(queue, {queue.prec, queue.is_complex, true, queue.is_complex}, call.w, pw.p, Rw,
           call.len_w, nf, 0);

  const Spectra<T> g(queue, pg.p, R, nf);
  const Spectra<T> w(queue, pw.p, Rw, nf);
  multiply_spectra<T>(queue, w.p, g.p, R, queue.bins(nf), call.shares_w());
  transform_rows<T>(queue, g.p, pg.p, R, nf, true);

  const RowWindow window{nf, call.sl_start, call.sl_len};
  if (!call.sum_rows) return cut_rows<T>(queue, pg.p, window, R, call.out);
  // Sums are rounded to half once, at the end.
  ConvQueue wide = queue;
  wide.prec = codegen::kPrecisionOf<T>;
  const DeviceBuffer rows((size_t)R * call.sl_len * es, stream);
  cut_rows<T>(wide, pg.p, window, R, rows.p);
  sum_rows(queue, call, rows.p);
}

}  // namespace

void conv_adjoint_resident(const ConvAdjointCall& call, int prec, int device, stream_t stream) {
  check(call);
  select_device(device);
  if (call.sl_len == 0) return;
  const int storage =
      call.is_complex ? codegen::compute_precision(prec) : codegen::storage_precision(prec);
  const ConvQueue queue{storage, device, stream, call.is_complex};
  if (call.rows == 0) {
    if (!call.sum_rows) return;
    const size_t bytes = static_cast<size_t>(call.sl_len) * stored_bytes(queue);
    KEVRA_CHECK(memsetD8Async(call.out, 0, bytes, stream));
    return;
  }
  storage == codegen::kDouble ? conv_adjoint<double>(call, queue)
                              : conv_adjoint<float>(call, queue);
}

}  // namespace kevra::ops
