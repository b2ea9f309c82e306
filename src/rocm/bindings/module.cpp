// The extension module _rocm. Importing it registers entry points and touches no device.
#include "rocm/bindings/bindings.h"

// The macro refuses an interpreter of another version than the one the module was built for.
PYBIND11_MODULE(_rocm, m) {
  m.doc() = "kevra ROCm runtime for numpy arrays (HIP + hipRTC)";
  kevra::bindings::bind_queries(m);
  kevra::bindings::bind_fft(m);
  kevra::bindings::bind_features(m);
  kevra::bindings::bind_db(m);
  kevra::bindings::bind_spectrograms(m);
  kevra::bindings::bind_istft(m);
  kevra::bindings::bind_stft_gradients(m);
  kevra::bindings::bind_griffinlim(m);
  kevra::bindings::bind_mel(m);
  kevra::bindings::bind_cepstra(m);
  kevra::bindings::bind_inverse_mel(m);
  kevra::bindings::bind_statistics(m);
  kevra::bindings::bind_cqt(m);
  kevra::bindings::bind_icqt(m);
  kevra::bindings::bind_cqt_gradients(m);
  kevra::bindings::bind_chroma(m);
  kevra::bindings::bind_convolution(m);
  kevra::bindings::bind_lfilter(m);
  kevra::bindings::bind_feature_gradients(m);
  kevra::bindings::bind_routing(m);
  kevra::bindings::bind_tuners(m);
}
