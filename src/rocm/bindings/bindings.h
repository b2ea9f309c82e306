// The binding layer: arguments in, twin picked, exceptions out. One function a family registers
// its entry points.
#pragma once

#include <pybind11/pybind11.h>

namespace kevra::bindings {

void bind_queries(pybind11::module_& m);
void bind_fft(pybind11::module_& m);
void bind_features(pybind11::module_& m);
void bind_db(pybind11::module_& m);
void bind_spectrograms(pybind11::module_& m);
void bind_istft(pybind11::module_& m);
void bind_stft_gradients(pybind11::module_& m);
void bind_griffinlim(pybind11::module_& m);
void bind_mel(pybind11::module_& m);
void bind_cepstra(pybind11::module_& m);
void bind_inverse_mel(pybind11::module_& m);
void bind_statistics(pybind11::module_& m);
void bind_convolution(pybind11::module_& m);
void bind_cqt(pybind11::module_& m);
void bind_icqt(pybind11::module_& m);
void bind_cqt_gradients(pybind11::module_& m);
void bind_chroma(pybind11::module_& m);
void bind_lfilter(pybind11::module_& m);
void bind_feature_gradients(pybind11::module_& m);
void bind_routing(pybind11::module_& m);
void bind_tuners(pybind11::module_& m);

}  // namespace kevra::bindings
