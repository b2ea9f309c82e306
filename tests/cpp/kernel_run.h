// Runs kernel texts on the device at hand, and the transforms that their results are held against.
#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "codegen/backend.h"
#include "codegen/kernel_signature.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "cuda_like/device.h"
#include "rocm/compile.h"

namespace kevra_test {

using Spectrum = std::vector<std::complex<double>>;

// exp(2 pi i k / n), its angle reduced and rounded once.
inline std::complex<long double> root(long long k, int n) {
  return std::polar(1.0L, 2 * std::numbers::pi_v<long double> * (k % n) / n);
}

// The definition, summed in extended precision: X[k] = sum of x[j] exp(sign 2 pi i j k / n).
inline Spectrum dft(const Spectrum& x, int sign = -1) {
  const int n = static_cast<int>(x.size());
  std::vector<std::complex<long double>> roots(n);
  for (int k = 0; k < n; ++k) roots[k] = root(sign < 0 ? n - k : k, n);
  Spectrum out(n);
  for (int k = 0; k < n; ++k) {
    std::complex<long double> sum = 0;
    long long place = 0;
    for (int j = 0; j < n; ++j, place = (place + k) % n) {
      sum += std::complex<long double>(x[j]) * roots[place];
    }
    out[k] = {static_cast<double>(sum.real()), static_cast<double>(sum.imag())};
  }
  return out;
}

// |got - want| / |want| in the Euclidean norm.
inline double relative_error(const Spectrum& got, const Spectrum& want) {
  double difference = 0;
  double size = 0;
  for (size_t i = 0; i < want.size(); ++i) {
    difference += std::norm(got[i] - want[i]);
    size += std::norm(want[i]);
  }
  return std::sqrt(difference / size);
}

// What a transform of size n may lose, by precision of its arithmetic.
inline double tolerance(int prec, int n) {
  const double growth = std::sqrt(std::max(1.0, std::log2(n)));
  return growth * (prec == kevra::codegen::kDouble ? 0x1p-52 : 2.5 * 0x1p-23);
}

// Numbers that float and double hold alike.
inline Spectrum random_values(size_t count, unsigned seed) {
  std::mt19937 engine(seed);
  std::uniform_real_distribution<float> uniform(-1, 1);
  Spectrum values(count);
  for (auto& value : values) {
    const float re = uniform(engine);
    value = {re, uniform(engine)};
  }
  return values;
}

// An array of T on the device.
template <class T>
struct OnDevice {
  explicit OnDevice(const std::vector<T>& values)
      : count(values.size()), buffer(count * sizeof(T), nullptr) {
    KEVRA_CHECK(kevra::memcpyHtoD(buffer.p, values.data(), count * sizeof(T)));
  }
  std::vector<T> values() const {
    std::vector<T> host(count);
    KEVRA_CHECK(kevra::memcpyDtoH(host.data(), buffer.p, count * sizeof(T)));
    return host;
  }
  size_t count;
  kevra::DeviceBuffer buffer;
};

struct Launch {
  const char* name;
  unsigned grid;
  unsigned block;
  size_t shared;
};

template <class... Args>
void run_text(const std::string& text, const Launch& launch, Args... args) {
  const kevra::kernel_t fn = kevra::compile_function(kevra::select_device(0), text, launch.name);
  void* list[] = {&args...};
  kevra::launch_kernel(fn, launch.grid, 1, launch.block, launch.shared, list, launch.name, nullptr);
}

// A kernel `probe(x, out, tw)` on complex values around a body that finds the thread in `tid`.
inline std::string probe_text(int prec, const std::string& defines, const std::string& body) {
  const kevra::codegen::Backend& hip = kevra::backend();
  return kevra::codegen::complex_prelude(hip, prec) + defines +
         kevra::codegen::KernelSignature("probe", hip)
             .add_const_pointer("cplx", "x")
             .add_pointer("cplx", "out")
             .add_const_pointer("cplx", "tw")
             .set_shared("cplx", "sh_all")
             .head() +
         "  int tid = threadIdx.x;\n" + body + "}\n";
}

template <class T>
std::vector<std::complex<T>> narrowed(const Spectrum& values) {
  std::vector<std::complex<T>> out;
  for (const auto& v : values) out.emplace_back(static_cast<T>(v.real()), static_cast<T>(v.imag()));
  return out;
}

// Runs one block of a probe kernel and hands back its `results` values.
template <class T>
Spectrum run_probe_as(const std::string& text, const Spectrum& x, size_t results, int threads,
                      size_t shared_values, const Spectrum& table) {
  const OnDevice<std::complex<T>> in(narrowed<T>(x));
  const OnDevice<std::complex<T>> out(std::vector<std::complex<T>>(results, {NAN, NAN}));
  const OnDevice<std::complex<T>> tw(narrowed<T>(table));
  run_text(text, {"probe", 1, static_cast<unsigned>(threads), shared_values * 2 * sizeof(T)},
           in.buffer.p, out.buffer.p, tw.buffer.p);
  Spectrum wide;
  for (const auto& v : out.values()) wide.emplace_back(v.real(), v.imag());
  return wide;
}
inline Spectrum run_probe(int prec, const std::string& text, const Spectrum& x, size_t results,
                          int threads = 1, size_t shared_values = 1, const Spectrum& table = {0}) {
  return prec == kevra::codegen::kDouble
             ? run_probe_as<double>(text, x, results, threads, shared_values, table)
             : run_probe_as<float>(text, x, results, threads, shared_values, table);
}

// The table of a double kernel: n forward roots.
inline Spectrum forward_roots(int n) {
  Spectrum roots;
  for (int k = 0; k < n; ++k) roots.emplace_back(std::conj(root(k, n)));
  return roots;
}

}  // namespace kevra_test
