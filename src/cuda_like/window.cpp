#include "cuda_like/window.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <numbers>
#include <stdexcept>

#include "codegen/precision.h"
#include "codegen/sizes.h"
#include "cuda_like/hash.h"
#include "cuda_like/tables.h"

namespace kevra {
namespace {

struct NamedWindow {
  const char* name;
  int code;
};
constexpr NamedWindow kNamed[] = {
    {"hann", 0},    {"hamming", 1},  {"blackman", 2}, {"blackmanharris", 3},
    {"nuttall", 4}, {"bartlett", 5}, {"boxcar", 6},   {"rect", 6},
};
constexpr int kBartlett = 5;

// Coefficients of 1, -cos a, cos 2a, -cos 3a, by code; the last row is the rectangle.
constexpr double kCosines[][4] = {
    {0.5, 0.5, 0, 0},
    {0.54, 0.46, 0, 0},
    {0.42, 0.5, 0.08, 0},
    {0.35875, 0.48829, 0.14128, 0.01168},
    {0.3635819, 0.4891775, 0.1365995, 0.0106411},
    {},
    {1, 0, 0, 0},
};

double named_sample(int code, int64_t i, int64_t length) {
  if (code == kBartlett) {
    return 1 - std::abs(2 * static_cast<double>(i) / static_cast<double>(length) - 1);
  }
  const double a = 2 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(length);
  const double(&c)[4] = kCosines[code];
  return c[0] - c[1] * std::cos(a) + c[2] * std::cos(2 * a) - c[3] * std::cos(3 * a);
}

void check_length(const WindowSpec& window, int64_t win_length, int64_t n_fft) {
  if (win_length < 1 || win_length > n_fft) {
    throw std::invalid_argument("win_length must be in [1, n_fft], got " +
                                std::to_string(win_length));
  }
  if (window.kind == WindowSpec::kArray && window.count != win_length) {
    throw std::invalid_argument("window array must have win_length (" + std::to_string(win_length) +
                                ") samples, got " + std::to_string(window.count));
  }
}

template <class Element>
devptr_t upload_window(const std::vector<Element>& values) {
  return content_table(values.data(), values.size(), sizeof(Element));
}

devptr_t build_table(const WindowSpec& window, int n_fft, int prec) {
  const std::vector<double> values = build_window(window, n_fft, n_fft);
  if (prec == codegen::kDouble) return upload_window(values);
  const std::vector<float> narrow(values.begin(), values.end());
  return prec == codegen::kHalf ? upload_window(float_to_half(narrow)) : upload_window(narrow);
}

}  // namespace

int window_code(const std::string& name) {
  const auto found = std::find_if(std::begin(kNamed), std::end(kNamed),
                                  [&](const NamedWindow& w) { return name == w.name; });
  if (found == std::end(kNamed)) {
    throw std::invalid_argument(
        "window must be one of ('hann', 'hamming', 'blackman', 'blackmanharris', 'nuttall', "
        "'bartlett', 'boxcar') or a float array; got '" +
        name + "'");
  }
  return found->code;
}

WindowSpec named_window(const std::string& name) {
  constexpr uint64_t kKeyOfFirst = 1000;
  const int code = window_code(name);
  return {.key = kKeyOfFirst + static_cast<uint64_t>(code), .kind = code};
}

WindowSpec array_window(const double* samples, int64_t count) {
  return {.key = content_hash(samples, static_cast<size_t>(count) * sizeof(double)),
          .kind = WindowSpec::kArray,
          .samples = samples,
          .count = count};
}

std::vector<double> build_window(const WindowSpec& window, int64_t win_length, int64_t n_fft) {
  check_length(window, win_length, n_fft);
  std::vector<double> values(n_fft);
  double* first = values.data() + (n_fft - win_length) / 2;
  for (int64_t i = 0; i < win_length; ++i) {
    first[i] = window.kind == WindowSpec::kArray ? window.samples[i]
                                                 : named_sample(window.kind, i, win_length);
  }
  return values;
}

void check_window(const WindowSpec& window, int64_t n_fft) {
  check_length(window, n_fft, n_fft);
}

devptr_t window_table(const WindowSpec& window, int n_fft, int prec) {
  constexpr uint64_t kSeed = 119;
  const uint64_t key =
      key_of({kSeed, window.key, uint64_t(n_fft), uint64_t(codegen::complex_bytes(prec) / 2)});
  return device_table_built(key, [&] { return build_table(window, n_fft, prec); });
}

}  // namespace kevra
