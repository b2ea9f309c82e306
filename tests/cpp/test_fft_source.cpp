// The complex FFT kernels whole: golden texts, keys, and every way of loading and storing rows.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>

#include "codegen/kernels/fft.h"
#include "codegen/kernels/fft_register.h"
#include "codegen/sizes.h"
#include "golden.h"
#include "kernel_run.h"

namespace kevra::codegen {
namespace {

using kevra_test::expect_golden;
using kevra_test::Spectrum;

const HipBackend hip;

TEST(ComplexFftKernel, WholeTextsMatchTheGoldenFiles) {
  struct Golden {
    const char* file;
    ComplexFftKernel kernel;
  };
  const Golden goldens[] = {
      {"fft_float_64.hip",
       {.n = 64, .compute = kFloat, .storage = kFloat, .tpf = 16, .rows_per_block = 4}},
      {"fft_double_720_inverse.hip",
       {.n = 720,
        .compute = kDouble,
        .storage = kDouble,
        .inverse = true,
        .tpf = 45,
        .rows_per_block = 2}},
      {"fft_half_100.hip",
       {.n = 100, .compute = kFloat, .storage = kHalf, .tpf = 16, .padded = true}},
  };
  for (const Golden& golden : goldens) {
    expect_golden(complex_fft_source(golden.kernel, hip), golden.file);
  }
}

TEST(RegisterFftKernel, WholeTextsMatchTheGoldenFiles) {
  const RegisterFftKernel uniform{.form = RegisterFftKernel::kMixed,
                                  .data = {96, kFloat, kFloat, true},
                                  .radices = {12, 4, 2},
                                  .rows = 8,
                                  .windows = true};
  expect_golden(register_fft_source(uniform, hip), "fft_register_float_96_inverse.hip");
  const RegisterFftKernel square{.form = RegisterFftKernel::kTwoPass,
                                 .data = {64, kDouble, kDouble, false},
                                 .radices = {8, 8},
                                 .rows = 4};
  expect_golden(register_fft_source(square, hip), "fft_register_double_64.hip");
}

TEST(ComplexFftKernel, TheDocumentationQuotesItsTextInOrder) {
  const std::string text = complex_fft_source(
      {.n = 64, .compute = kFloat, .storage = kFloat, .tpf = 16, .rows_per_block = 4}, hip);
  std::ifstream page(std::string(KEVRA_GOLDEN_FOLDER) + "/../../docs/kernels.md");
  const std::string words{std::istreambuf_iterator<char>(page), {}};
  const std::string fence = "```cpp\n";
  size_t at = 0;
  size_t quotation = words.find(fence);
  ASSERT_NE(quotation, std::string::npos);
  for (; quotation != std::string::npos; quotation = words.find(fence, quotation)) {
    quotation += fence.size();
    const std::string quoted = words.substr(quotation, words.find("```", quotation) - quotation);
    at = text.find(quoted, at);
    ASSERT_NE(at, std::string::npos) << "not in the kernel:\n" << quoted;
  }
}

TEST(ComplexFftKernel, EveryVariantHasItsOwnKey) {
  EXPECT_EQ((ComplexFftKernel{600, kFloat, kHalf, true, 75, 2, true, true}).key(),
            "cfft_600_1_0_i_75x2_pr");
  std::set<std::string> keys;
  std::set<std::string> texts;
  for (int bits = 0; bits < 64; ++bits) {
    const ComplexFftKernel kernel{.n = 600,
                                  .compute = kFloat,
                                  .storage = bits & 1 ? kHalf : kFloat,
                                  .inverse = (bits & 2) != 0,
                                  .tpf = bits & 4 ? 75 : 60,
                                  .rows_per_block = bits & 8 ? 2 : 1,
                                  .padded = (bits & 16) != 0,
                                  .radix25 = (bits & 32) != 0};
    keys.insert(kernel.key());
    texts.insert(complex_fft_source(kernel, hip));
  }
  EXPECT_EQ(keys.size(), 64u);
  EXPECT_EQ(texts.size(), 64u);
}

// Half floats for values that they hold exactly, and back.
uint16_t to_half(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  const int exponent = static_cast<int>(bits >> 23 & 0xff) - 127 + 15;
  const uint32_t magnitude = exponent <= 0 ? 0 : exponent << 10 | (bits >> 13 & 0x3ff);
  return static_cast<uint16_t>(bits >> 16 & 0x8000) | magnitude;
}
float from_half(uint16_t half) {
  const int exponent = half >> 10 & 0x1f;
  const float mantissa = exponent == 0 ? (half & 0x3ff) : 0x400 + (half & 0x3ff);
  return (half & 0x8000 ? -1 : 1) * std::ldexp(mantissa, std::max(exponent, 1) - 25);
}

// One stored real number, as T.
template <class T>
T stored(double value) {
  if constexpr (std::is_same_v<T, uint16_t>) return to_half(static_cast<float>(value));
  return static_cast<T>(value);
}
template <class T>
double loaded(T value) {
  if constexpr (std::is_same_v<T, uint16_t>) return from_half(value);
  return value;
}

// Runs `rows` rows and compares each; the array has one row more, which must stay as it is.
template <class T>
void expect_rows(const ComplexFftKernel& k, int rows, bool in_place) {
  const std::string what = k.key() + (in_place ? " in place" : "");
  Spectrum x = kevra_test::random_values(static_cast<size_t>(rows + 1) * k.n, k.n);
  std::vector<T> host;
  for (auto& value : x) {
    // Eight bits below the point: half storage holds them too.
    value = {std::round(value.real() * 256) / 256, std::round(value.imag() * 256) / 256};
    host.push_back(stored<T>(value.real()));
    host.push_back(stored<T>(value.imag()));
  }
  const kevra_test::OnDevice<T> in(host);
  const kevra_test::OnDevice<T> other(host);
  const kevra_test::OnDevice<T>& out = in_place ? in : other;
  const kevra_test::OnDevice<std::complex<double>> tw(kevra_test::forward_roots(k.n));
  const int f = k.rows_per_block;
  kevra_test::run_text(complex_fft_source(k, hip),
                       {ComplexFftKernel::kName, static_cast<unsigned>((rows + f - 1) / f),
                        static_cast<unsigned>(k.block()), k.shared_bytes()},
                       in.buffer.p, out.buffer.p, tw.buffer.p, rows);
  const std::vector<T> got = out.values();
  const double rounding = k.storage == kHalf ? 0x1p-11 : 0;  // of what is stored
  for (int row = 0; row < rows; ++row) {
    const auto first = x.begin() + static_cast<ptrdiff_t>(row) * k.n;
    Spectrum want = kevra_test::dft(Spectrum(first, first + k.n), k.inverse ? 1 : -1);
    Spectrum y(k.n);
    for (int i = 0; i < k.n; ++i) {
      if (k.inverse) want[i] /= k.n;
      const size_t at = 2 * (static_cast<size_t>(row) * k.n + i);
      y[i] = {loaded(got[at]), loaded(got[at + 1])};
    }
    EXPECT_LT(kevra_test::relative_error(y, want), rounding + kevra_test::tolerance(k.compute, k.n))
        << what << " row " << row;
  }
  const auto behind = static_cast<ptrdiff_t>(2) * rows * k.n;
  EXPECT_TRUE(std::equal(got.begin() + behind, got.end(), host.begin() + behind)) << what;
}

// Both directions, out of place and in place; a last block with surplus rows.
template <class T>
void expect_kernel(ComplexFftKernel k) {
  for (bool inverse : {false, true}) {
    k.inverse = inverse;
    expect_rows<T>(k, 2 * k.rows_per_block + 1, inverse);
  }
  expect_rows<T>(k, 1, !k.inverse);
}

ComplexFftKernel kernel(int prec, int n, int tpf, int rows_per_block) {
  return {.n = n,
          .compute = compute_precision(prec),
          .storage = prec,
          .tpf = tpf,
          .rows_per_block = rows_per_block};
}

TEST(ComplexFft, FloatRowsMoveInPairsOrOneByOne) {
  expect_kernel<float>(kernel(kFloat, 64, 16, 4));
  expect_kernel<float>(kernel(kFloat, 2, 16, 4));
  expect_kernel<float>(kernel(kFloat, 1, 16, 4));
  expect_kernel<float>(kernel(kFloat, 45, 7, 3));
  ComplexFftKernel padded = kernel(kFloat, 240, 30, 2);
  padded.padded = true;
  expect_kernel<float>(padded);
  ComplexFftKernel radix25 = kernel(kFloat, 600, 75, 1);
  radix25.radix25 = true;
  expect_kernel<float>(radix25);
  expect_kernel<float>(kernel(kFloat, 4096, 256, 1));
}

TEST(ComplexFft, DoubleRowsMoveOneByOne) {
  expect_kernel<double>(kernel(kDouble, 64, 16, 4));
  expect_kernel<double>(kernel(kDouble, 143, 17, 3));
  ComplexFftKernel padded = kernel(kDouble, 720, 45, 2);
  padded.padded = true;
  expect_kernel<double>(padded);
  expect_kernel<double>(kernel(kDouble, 3125, 128, 1));
}

TEST(ComplexFft, HalfRowsMoveInFoursOrOneByOne) {
  expect_kernel<uint16_t>(kernel(kHalf, 100, 16, 4));
  expect_kernel<uint16_t>(kernel(kHalf, 6, 16, 4));
  ComplexFftKernel padded = kernel(kHalf, 256, 32, 2);
  padded.padded = true;
  expect_kernel<uint16_t>(padded);
}

}  // namespace
}  // namespace kevra::codegen
