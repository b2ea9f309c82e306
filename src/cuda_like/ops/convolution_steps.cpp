#include "cuda_like/ops/convolution_steps.h"

#include "codegen/kernels/convolution.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/fft.h"
#include "cuda_like/ops/rfft.h"

namespace kevra::ops {
namespace {

using codegen::ConvMultiplyKernel;
using codegen::ConvSliceKernel;

constexpr unsigned kBlock = 256;

template <class T>
void cut_complex(const ConvQueue& queue, devptr_t x, const RowWindow& window, int64_t rows,
                 devptr_t out) {
  constexpr size_t kElement = 2 * sizeof(T);
  const size_t out_bytes = static_cast<size_t>(window.length) * kElement;
  const Copy2D c{.src = {.x_bytes = static_cast<size_t>(window.start) * kElement,
                         .address = x,
                         .pitch = static_cast<size_t>(window.nf) * kElement},
                 .dst = {.address = out, .pitch = out_bytes},
                 .width_bytes = out_bytes,
                 .height = static_cast<size_t>(rows)};
  const stream_t stream = queue.stream;
  KEVRA_CHECK(memcpy2DAsync(&c, (stream_t)stream));
}

template <class T>
void cut_real(const ConvQueue& queue, devptr_t x, RowWindow window, int64_t rows, devptr_t out) {
  const ConvSliceKernel kernel{queue.prec};
  const kernel_t fn = kernel_function(kernel, queue.device);
  const size_t stored = queue.prec == codegen::kHalf ? 2 : sizeof(T);
  in_chunks(rows, [&](int64_t first, int64_t count) {
    char* from = at(x, first * window.nf, sizeof(T));
    char* to = at(out, first * window.length, stored);
    void* args[] = {&from, &to, &window.nf, &window.start, &window.length};
    queue.launch(fn, window.length, count, args, kernel.kName);
  });
}

}  // namespace

void ConvQueue::launch(kernel_t fn, int64_t width, int64_t rows, void** args,
                       const char* name) const {
  launch_kernel(fn, static_cast<unsigned>((width + kBlock - 1) / kBlock),
                static_cast<unsigned>(rows), kBlock, 0, args, name, stream);
}

template <class T>
void transform_rows(const ConvQueue& queue, devptr_t x, devptr_t out, int64_t rows, int64_t nf,
                    bool inverse) {
  const auto run = [&]<class Call>(Call call, void (*dispatch)(const Call&)) {
    call.x = x;
    call.out = out;
    call.rows = rows;
    call.n = static_cast<int>(nf);
    call.inverse = inverse;
    call.device = queue.device;
    call.stream = queue.stream;
    dispatch(call);
  };
  queue.is_complex ? run(FftCall{}, &fft_dispatch<T>) : run(RfftCall{}, &rfft_dispatch<T>);
}

template <class T>
void multiply_spectra(const ConvQueue& queue, devptr_t w, devptr_t z, int64_t rows, int64_t nb,
                      bool share_w) {
  const ConvMultiplyKernel kernel{queue.prec};
  const kernel_t fn = kernel_function(kernel, queue.device);
  int w_stride = share_w ? 0 : 1;
  in_chunks(rows, [&](int64_t first, int64_t count) {
    char* factor = at(w, w_stride * first * nb, 2 * sizeof(T));
    char* product = at(z, first * nb, 2 * sizeof(T));
    void* args[] = {&factor, &product, &nb, &w_stride};
    queue.launch(fn, nb, count, args, kernel.kName);
  });
}

template <class T>
void cut_rows(const ConvQueue& queue, devptr_t x, const RowWindow& window, int64_t rows,
              devptr_t out) {
  queue.is_complex ? cut_complex<T>(queue, x, window, rows, out)
                   : cut_real<T>(queue, x, window, rows, out);
}

template void transform_rows<float>(const ConvQueue&, devptr_t, devptr_t, int64_t, int64_t, bool);
template void transform_rows<double>(const ConvQueue&, devptr_t, devptr_t, int64_t, int64_t, bool);
template void multiply_spectra<float>(const ConvQueue&, devptr_t, devptr_t, int64_t, int64_t, bool);
template void multiply_spectra<double>(const ConvQueue&, devptr_t, devptr_t, int64_t, int64_t,
                                       bool);
template void cut_rows<float>(const ConvQueue&, devptr_t, const RowWindow&, int64_t, devptr_t);
template void cut_rows<double>(const ConvQueue&, devptr_t, const RowWindow&, int64_t, devptr_t);

}  // namespace kevra::ops
