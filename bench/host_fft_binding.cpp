// Timing loops around the CPU transform and, where the system has it, FFTW: one row on one thread,
// without a call from Python in between.
#include <dlfcn.h>
#include <pybind11/complex.h>
#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <chrono>
#include <complex>
#include <optional>

#include "host_fft/host_fft.h"

namespace py = pybind11;

namespace {

template <class T>
using Row = py::array_t<std::complex<T>, py::array::c_style>;

// The least seconds of one call of `transform` over `rounds` rounds of `calls` calls.
template <class Transform>
double least_seconds(int rounds, int calls, const Transform& transform) {
  using clock = std::chrono::steady_clock;
  double least = 1e9;
  for (int round = 0; round < rounds; ++round) {
    const auto started = clock::now();
    for (int call = 0; call < calls; ++call) transform();
    least = std::min(least, std::chrono::duration<double>(clock::now() - started).count() / calls);
  }
  return least;
}

template <class T>
double time_host_fft(const Row<T>& in, Row<T>& out, int rounds, int calls) {
  const int n = static_cast<int>(in.size());
  const auto* from = reinterpret_cast<const T*>(in.data());
  auto* to = reinterpret_cast<T*>(out.mutable_data());
  return least_seconds(rounds, calls, [&] { kevra::host_fft::host_fft<T>(from, to, n); });
}

// FFTW as the loader finds it: its functions for one precision, planned without measuring.
template <class T>
struct Fftw {
  using Plan = void*;
  Plan (*plan)(int, void*, void*, int, unsigned);
  void (*execute)(Plan);
  void (*destroy)(Plan);
};

template <class T>
std::optional<Fftw<T>> find_fftw() {
  constexpr bool kDouble = sizeof(T) == 8;
  void* library = dlopen(kDouble ? "libfftw3.so.3" : "libfftw3f.so.3", RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return std::nullopt;
  const auto find = [&](auto& function, const char* of_double, const char* of_float) {
    const char* name = kDouble ? of_double : of_float;
    function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(dlsym(library, name));
    return function != nullptr;
  };
  Fftw<T> fftw{};
  if (!find(fftw.plan, "fftw_plan_dft_1d", "fftwf_plan_dft_1d") ||
      !find(fftw.execute, "fftw_execute", "fftwf_execute") ||
      !find(fftw.destroy, "fftw_destroy_plan", "fftwf_destroy_plan")) {
    return std::nullopt;
  }
  return fftw;
}

// None where FFTW is not installed.
template <class T>
std::optional<double> time_fftw(Row<T>& in, Row<T>& out, int rounds, int calls) {
  static const auto fftw = find_fftw<T>();
  if (!fftw) return std::nullopt;
  constexpr int kForward = -1;
  constexpr unsigned kEstimate = 1U << 6;
  const auto plan = fftw->plan(static_cast<int>(in.size()), in.mutable_data(), out.mutable_data(),
                               kForward, kEstimate);
  const double seconds = least_seconds(rounds, calls, [&] { fftw->execute(plan); });
  fftw->destroy(plan);
  return seconds;
}

template <class T>
void define(py::module_& m) {
  m.def("time_host_fft", &time_host_fft<T>);
  m.def("time_fftw", &time_fftw<T>);
}

}  // namespace

PYBIND11_MODULE(_host_fft_bench, m) {
  define<double>(m);
  define<float>(m);
}
