#include "cuda_like/ops/convolution.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "codegen/kernels/convolution.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/convolution_steps.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {
namespace {

using codegen::ConvDirectKernel;
using codegen::ConvPadKernel;

void check_sizes(const char* op, const ConvolutionCall& call) {
  require_int32(op, "rows", call.rows, 0);
  require_at_least(op, "n", call.n, 1);
  require_at_least(op, "m", call.m, 1);
  require_at_least(op, "start", call.start, 0);
  require_at_least(op, "outlen", call.outlen, 0);
}

void check_transform(const char* op, const ConvolutionCall& call, int64_t nf) {
  check_sizes(op, call);
  require_int32(op, "nf", nf, 1);
  if (nf < std::max(call.n, call.m)) {
    throw std::invalid_argument(std::string(op) + ": nf is " + std::to_string(nf) +
                                ", must be at least n and m, " + std::to_string(call.n) + " and " +
                                std::to_string(call.m) + "; a linear convolution needs n + m - 1");
  }
  if (call.start > nf || call.outlen > nf - call.start) {
    throw std::invalid_argument(std::string(op) + ": start + outlen is " +
                                std::to_string(call.start) + " + " + std::to_string(call.outlen) +
                                ", must be at most nf = " + std::to_string(nf));
  }
}

bool is_empty(const ConvolutionCall& call) {
  return call.rows == 0 || call.outlen == 0;
}

// rows x n stored values to rows x plen values of T.
template <class T>
void pad(const ConvQueue& queue, devptr_t x, devptr_t out, int64_t rows, int64_t n, int64_t plen) {
  const ConvPadKernel kernel{queue.prec};
  const kernel_t fn = kernel_function(kernel, queue.device);
  const size_t stored = queue.prec == codegen::kHalf ? 2 : sizeof(T);
  in_chunks(rows, [&](int64_t first, int64_t count) {
    char* from = at(x, first * n, stored);
    char* to = at(out, first * plen, sizeof(T));
    void* args[] = {&from, &to, &n, &plen};
    queue.launch(fn, plen, count, args, kernel.kName);
  });
}

template <class T>
void conv_fft(const ConvolutionCall& call, int64_t nf, const ConvQueue& queue) {
  const int64_t rows_b = call.shares_b() ? 1 : call.rows;
  const int64_t nb = queue.bins(nf);
  const auto buffer = [&](int64_t count) {
    return DeviceBuffer(static_cast<size_t>(count) * sizeof(T), queue.stream);
  };
  const DeviceBuffer a = buffer(call.rows * nf);
  const DeviceBuffer b = buffer(rows_b * nf);
  pad<T>(queue, call.a, a.p, call.rows, call.n, nf);
  pad<T>(queue, call.b, b.p, rows_b, call.m, nf);

  const DeviceBuffer a_spectrum = buffer(call.rows * nb * 2);
  const DeviceBuffer b_spectrum = buffer(rows_b * nb * 2);
  transform_rows<T>(queue, a.p, a_spectrum.p, call.rows, nf, false);
  transform_rows<T>(queue, b.p, b_spectrum.p, rows_b, nf, false);
  multiply_spectra<T>(queue, b_spectrum.p, a_spectrum.p, call.rows, nb, call.shares_b());
  transform_rows<T>(queue, a_spectrum.p, a.p, call.rows, nf, true);
  cut_rows<T>(queue, a.p, {nf, call.start, call.outlen}, call.rows, call.y);
}

template <class T>
void conv_cplx(const ConvolutionCall& call, int64_t nf, const ConvQueue& queue) {
  constexpr size_t kElement = 2 * sizeof(T);
  const int64_t rows_b = call.shares_b() ? 1 : call.rows;
  const DeviceBuffer a(static_cast<size_t>(call.rows * nf) * kElement, queue.stream);
  const DeviceBuffer b(static_cast<size_t>(rows_b * nf) * kElement, queue.stream);
  // Reals of twice the length: a pair stays a pair.
  pad<T>(queue, call.a, a.p, call.rows, 2 * call.n, 2 * nf);
  pad<T>(queue, call.b, b.p, rows_b, 2 * call.m, 2 * nf);

  // In place, since the padded rows are not needed again.
  transform_rows<T>(queue, a.p, a.p, call.rows, nf, false);
  transform_rows<T>(queue, b.p, b.p, rows_b, nf, false);
  multiply_spectra<T>(queue, b.p, a.p, call.rows, nf, call.shares_b());
  transform_rows<T>(queue, a.p, a.p, call.rows, nf, true);
  cut_rows<T>(queue, a.p, {nf, call.start, call.outlen}, call.rows, call.y);
}

// The texts of shapes that do not fit, which differ by family.
struct ShapeTexts {
  const char* dims;
  const char* rows;
};
constexpr ShapeTexts kTransformTexts{"expected 2-D (rows, samples) arrays",
                                     "conv: b rows must be 1 or match a"};
constexpr ShapeTexts kDirectTexts{"conv_direct: expected 2-D (rows, samples) arrays",
                                  "conv_direct: kernel rows must be 1 or match the signal rows"};

template <class T>
ConvolutionCall shapes_of(const HostArray<T>& a, const HostArray<T>& b, int64_t start,
                          int64_t outlen, const ShapeTexts& texts) {
  if (a.dims() != 2 || b.dims() != 2) throw std::invalid_argument(texts.dims);
  const int64_t rows = a.shape[0];
  const int64_t rows_b = b.shape[0];
  if (rows_b != 1 && rows_b != rows) throw std::invalid_argument(texts.rows);
  return {nullptr, nullptr, nullptr, rows, rows_b, a.shape[1], b.shape[1], start, outlen};
}

// To the device, through `resident` and back.
template <class T, class Resident>
PinnedArray<T> run_staged(const HostArray<T>& a, const HostArray<T>& b, ConvolutionCall call,
                          const Resident& resident) {
  const int64_t R = call.rows;
  const int64_t outlen = call.outlen;
  select_device(0);
  const DeviceBuffer da = upload_staged(a.data, static_cast<size_t>(R) * call.n);
  const DeviceBuffer db = upload_staged(b.data, static_cast<size_t>(call.rows_b) * call.m);
  const DeviceBuffer dy((size_t)R * outlen * sizeof(T), nullptr);
  call.a = da.p;
  call.b = db.p;
  call.y = dy.p;
  resident(call);

  PinnedArray<T> y({R, outlen});
  KEVRA_CHECK(memcpyDtoH(y.mutable_data(), dy.p, (size_t)R * outlen * sizeof(T)));
  return y;
}

}  // namespace

void conv_fft_resident(const ConvolutionCall& call, int64_t nf, int prec, int device,
                       stream_t stream) {
  check_transform("conv_fft", call, nf);
  select_device(device);
  if (is_empty(call)) return;
  const ConvQueue queue{prec, device, stream};
  prec == codegen::kDouble ? conv_fft<double>(call, nf, queue) : conv_fft<float>(call, nf, queue);
}

void conv_cplx_resident(const ConvolutionCall& call, int64_t nf, int prec, int device,
                        stream_t stream) {
  check_transform("conv_cplx", call, nf);
  select_device(device);
  if (is_empty(call)) return;
  const ConvQueue queue{codegen::compute_precision(prec), device, stream, true};
  prec == codegen::kDouble ? conv_cplx<double>(call, nf, queue) : conv_cplx<float>(call, nf, queue);
}

void conv_direct_resident(const ConvolutionCall& call, int prec, int device, stream_t stream) {
  check_sizes("conv_direct", call);
  select_device(device);
  if (is_empty(call)) return;
  const ConvQueue queue{prec, device, stream};
  const ConvDirectKernel kernel{prec};
  const kernel_t fn = kernel_function(kernel, queue.device);
  const int storage = codegen::storage_precision(prec);
  const size_t stored = storage == codegen::kHalf ? 2 : storage == codegen::kDouble ? 8 : 4;
  int64_t n = call.n;
  int64_t m = call.m;
  int64_t outlen = call.outlen;
  int64_t start = call.start;
  int shared_b = call.shares_b() ? 1 : 0;
  in_chunks(call.rows, [&](int64_t first, int64_t count) {
    char* a = at(call.a, first * n, stored);
    char* b = at(call.b, shared_b != 0 ? 0 : first * m, stored);
    char* y = at(call.y, first * outlen, stored);
    void* args[] = {&a, &b, &y, &n, &m, &outlen, &start, &shared_b};
    queue.launch(fn, outlen, count, args, kernel.kName);
  });
}

template <class T>
PinnedArray<T> conv_fft_staged(const HostArray<T>& a, const HostArray<T>& b, int64_t nf,
                               int64_t start, int64_t outlen) {
  const ConvolutionCall shapes = shapes_of(a, b, start, outlen, kTransformTexts);
  check_transform("conv_fft", shapes, nf);
  return run_staged(a, b, shapes, [nf](const ConvolutionCall& call) {
    conv_fft_resident(call, nf, codegen::kPrecisionOf<T>, 0, nullptr);
  });
}

template <class T>
PinnedArray<std::complex<T>> conv_cplx_staged(const HostArray<std::complex<T>>& a,
                                              const HostArray<std::complex<T>>& b, int64_t nf,
                                              int64_t start, int64_t outlen) {
  const ConvolutionCall shapes = shapes_of(a, b, start, outlen, kTransformTexts);
  check_transform("conv_cplx", shapes, nf);
  return run_staged(a, b, shapes, [nf](const ConvolutionCall& call) {
    conv_cplx_resident(call, nf, codegen::kPrecisionOf<T>, 0, nullptr);
  });
}

template <class T>
PinnedArray<T> conv_direct_staged(const HostArray<T>& a, const HostArray<T>& b, int64_t start,
                                  int64_t outlen) {
  const ConvolutionCall shapes = shapes_of(a, b, start, outlen, kDirectTexts);
  check_sizes("conv_direct", shapes);
  return run_staged(a, b, shapes, [](const ConvolutionCall& call) {
    conv_direct_resident(call, codegen::kPrecisionOf<T>, 0, nullptr);
  });
}

template PinnedArray<float> conv_fft_staged(const HostArray<float>&, const HostArray<float>&,
                                            int64_t, int64_t, int64_t);
template PinnedArray<double> conv_fft_staged(const HostArray<double>&, const HostArray<double>&,
                                             int64_t, int64_t, int64_t);
template PinnedArray<std::complex<float>> conv_cplx_staged(const HostArray<std::complex<float>>&,
                                                           const HostArray<std::complex<float>>&,
                                                           int64_t, int64_t, int64_t);
template PinnedArray<std::complex<double>> conv_cplx_staged(const HostArray<std::complex<double>>&,
                                                            const HostArray<std::complex<double>>&,
                                                            int64_t, int64_t, int64_t);
template PinnedArray<float> conv_direct_staged(const HostArray<float>&, const HostArray<float>&,
                                               int64_t, int64_t);
template PinnedArray<double> conv_direct_staged(const HostArray<double>&, const HostArray<double>&,
                                                int64_t, int64_t);

}  // namespace kevra::ops
