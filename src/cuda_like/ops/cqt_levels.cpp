#include "cuda_like/ops/cqt_levels.h"

#include <complex>

#include "codegen/kernels/cqt.h"
#include "cuda_like/ops/stft.h"

namespace kevra::ops {

const WindowSpec& untapered() {
  static const WindowSpec boxcar = named_window("boxcar");
  return boxcar;
}

void launch_rows(kernel_t fn, int64_t width, const CqtCall& call, void** args, const char* name) {
  constexpr unsigned kBlock = 256;
  launch_kernel(fn, static_cast<unsigned>((width + kBlock - 1) / kBlock),
                static_cast<unsigned>(call.batch), kBlock, 0, args, name, call.stream);
}

template <class T>
DeviceBuffer padded_zeros(const CqtStep& step, const CqtCall& call) {
  const int64_t B = call.batch;
  const int64_t plen = step.padded;
  const stream_t stream = call.stream;
  DeviceBuffer padded((size_t)B * plen * sizeof(T), stream);
  KEVRA_CHECK(memsetD8Async(padded.p, 0, (size_t)B * plen * sizeof(T), (stream_t)stream));
  return padded;
}

template <class T>
void place_signal(const CqtStep& step, int64_t n, const CqtCall& call, devptr_t signal,
                  devptr_t padded) {
  Copy2D c;
  c.src.address = signal;
  c.src.pitch = static_cast<size_t>(n) * sizeof(T);
  c.dst.address = static_cast<T*>(padded) + cqt_padding(step.octave.n_fft);
  c.dst.pitch = static_cast<size_t>(step.padded) * sizeof(T);
  c.width_bytes = c.src.pitch;
  c.height = static_cast<size_t>(call.batch);
  const stream_t stream = call.stream;
  KEVRA_CHECK(memcpy2DAsync(&c, (stream_t)stream));
}

template <class T>
DeviceBuffer queue_spectra(const CqtStep& step, const CqtCall& call, devptr_t padded) {
  const CqtOctave& o = step.octave;
  DeviceBuffer spectra(
      static_cast<size_t>(call.batch * step.frames) * o.bins() * sizeof(std::complex<T>),
      call.stream);
  stft_dispatch<T>({.y = padded,
                    .out = spectra.p,
                    .batch = call.batch,
                    .length = step.padded,
                    .n_fft = o.n_fft,
                    .hop = o.hop,
                    .center = false,
                    .window = untapered(),
                    .device = call.device,
                    .stream = call.stream});
  return spectra;
}

template <class T>
DeviceBuffer queue_decimation(kernel_t decimate, devptr_t taps, int64_t n, int64_t on,
                              const CqtCall& call, devptr_t signal) {
  DeviceBuffer next(static_cast<size_t>(call.batch * on) * sizeof(T), call.stream);
  void* args[] = {&signal, &next.p, &taps, &n, &on};
  launch_rows(decimate, on, call, args, codegen::HalfBandKernel::kName);
  return next;
}

template DeviceBuffer padded_zeros<float>(const CqtStep&, const CqtCall&);
template DeviceBuffer padded_zeros<double>(const CqtStep&, const CqtCall&);
template void place_signal<float>(const CqtStep&, int64_t, const CqtCall&, devptr_t, devptr_t);
template void place_signal<double>(const CqtStep&, int64_t, const CqtCall&, devptr_t, devptr_t);
template DeviceBuffer queue_spectra<float>(const CqtStep&, const CqtCall&, devptr_t);
template DeviceBuffer queue_spectra<double>(const CqtStep&, const CqtCall&, devptr_t);
template DeviceBuffer queue_decimation<float>(kernel_t, devptr_t, int64_t, int64_t, const CqtCall&,
                                              devptr_t);
template DeviceBuffer queue_decimation<double>(kernel_t, devptr_t, int64_t, int64_t, const CqtCall&,
                                               devptr_t);

}  // namespace kevra::ops
