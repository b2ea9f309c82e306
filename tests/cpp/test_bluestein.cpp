// Transforms by convolution with a chirp: their tables, their routes, and both forms of the
// kernels on real and complex rows.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numbers>
#include <set>
#include <string>

#include "codegen/sizes.h"
#include "cuda_like/ops/bluestein.h"
#include "cuda_like/ops/bluestein_route.h"
#include "cuda_like/ops/bluestein_tables.h"
#include "cuda_like/tables.h"
#include "kernel_run.h"

namespace kevra::ops {
namespace {

using codegen::BluesteinMode;
using kevra_test::OnDevice;
using kevra_test::Spectrum;

constexpr BluesteinMode kComplex = BluesteinMode::kComplex;
constexpr BluesteinMode kForward = BluesteinMode::kRealForward;
constexpr BluesteinMode kInverse = BluesteinMode::kRealInverse;

template <class T>
Spectrum widened(const std::vector<std::complex<T>>& values) {
  return {values.begin(), values.end()};
}

TEST(BluesteinTables, HoldTheChirpAndItsMirroredConjugatesTransform) {
  const int m = codegen::bluestein_m(127);
  for (const bool inverse : {false, true}) {
    Spectrum chirp(127), mirrored(m);
    for (int k = 0; k < 127; ++k) {
      const auto b = kevra_test::root(inverse ? k * k : 254 * 127 - k * k, 254);
      chirp[k] = std::complex<double>(b);
      mirrored[k] = mirrored[(m - k) % m] = std::complex<double>(std::conj(b));
    }
    const auto wide = bluestein_arrays<double>(127, m, inverse);
    EXPECT_LT(kevra_test::relative_error(wide.chirp, chirp), 0x1p-53);
    EXPECT_LT(kevra_test::relative_error(wide.filter, kevra_test::dft(mirrored)),
              kevra_test::tolerance(codegen::kDouble, m));
    const auto narrow = bluestein_arrays<float>(127, m, inverse);
    EXPECT_LT(kevra_test::relative_error(widened(narrow.chirp), chirp), 0x1p-24);
    EXPECT_LT(kevra_test::relative_error(widened(narrow.filter), kevra_test::dft(mirrored)),
              kevra_test::tolerance(codegen::kFloat, m));
  }
}

// The square of an index passes 2^32 here; from one element to the next the chirp turns by
// (2 k + 1) / (2 n) of a circle, which needs no square.
TEST(BluesteinTables, LargeSquaresKeepTheirAngle) {
  constexpr int n = 262147;
  const auto chirp = bluestein_arrays<double>(n, codegen::bluestein_m(n), false).chirp;
  double worst = 0;
  for (int k = 0; k + 1 < n; ++k) {
    const std::complex<double> turn(kevra_test::root(2 * n - (2 * k + 1) % (2 * n), 2 * n));
    worst = std::max(worst, std::abs(chirp[k + 1] - chirp[k] * turn));
  }
  EXPECT_LT(worst, 0x1p-50);
}

TEST(BluesteinTables, AreUploadedOnceUnderTheirNames) {
  select_device(0);
  const int m = codegen::bluestein_m(53);
  const BluesteinTables tables = bluestein_tables<float>(53, m, true);
  const BluesteinTables again = bluestein_tables<float>(53, m, true);
  EXPECT_EQ(again.chirp, tables.chirp);
  EXPECT_EQ(again.filter, tables.filter);
  const auto arrays = bluestein_arrays<float>(53, m, true);
  std::vector<std::complex<float>> stored(53);
  KEVRA_CHECK(memcpyDtoH(stored.data(), tables.chirp, stored.size() * sizeof stored[0]));
  EXPECT_EQ(stored, arrays.chirp);
  stored.resize(m);
  KEVRA_CHECK(memcpyDtoH(stored.data(), tables.filter, stored.size() * sizeof stored[0]));
  EXPECT_EQ(stored, arrays.filter);
  // A name that is there is not read again.
  EXPECT_EQ(device_table("blueb_53_1_4", nullptr, 0), tables.chirp);
  EXPECT_EQ(device_table("bluef_53_" + std::to_string(m) + "_1_4", nullptr, 0), tables.filter);
  std::set<devptr_t> apart{tables.chirp, tables.filter};
  for (const auto& other :
       {bluestein_tables<float>(53, m, false), bluestein_tables<double>(53, m, true),
        bluestein_tables<float>(54, m, true)}) {
    EXPECT_TRUE(apart.insert(other.chirp).second);
    EXPECT_TRUE(apart.insert(other.filter).second);
  }
}

std::string routed(BluesteinMode mode, int n, bool wide, bool half = false, int64_t limit = 65536) {
  const auto kernel = bluestein_in_shared({mode, n, wide, mode == kInverse, half}, limit);
  return kernel ? std::to_string(kernel->tpf) + " threads, " +
                      std::to_string(kernel->shared_bytes()) + " bytes"
                : "through device memory";
}

TEST(BluesteinRoute, StaysInSharedMemoryWhereARowFits) {
  EXPECT_EQ(routed(kComplex, 41, false), "16 threads, 720 bytes");
  EXPECT_EQ(routed(kComplex, 1031, false), "131 threads, 17856 bytes");
  EXPECT_EQ(routed(kComplex, 1031, true), "300 threads, 37808 bytes");
  EXPECT_EQ(routed(kForward, 509, false), "32 threads, 8712 bytes");
  EXPECT_EQ(routed(kInverse, 1031, false), "131 threads, 17856 bytes");
  // The longest rows of 64 KiB: m = 7680 in float, 3600 in double.
  EXPECT_EQ(routed(kComplex, 3840, false), "480 threads, 65288 bytes");
  EXPECT_EQ(routed(kForward, 3841, false), "through device memory");
  EXPECT_EQ(routed(kComplex, 1800, true), "400 threads, 64816 bytes");
  EXPECT_EQ(routed(kComplex, 1823, true), "through device memory");
  // A block ends at 1024 threads whatever the device's memory.
  EXPECT_EQ(routed(kComplex, 16384, false, false, 1 << 20), "1024 threads, 278536 bytes");
  EXPECT_EQ(routed(kComplex, 127, false, true), "through device memory") << "half storage";
  EXPECT_EQ(routed(kForward, 127, true), "through device memory") << "double real data";
}

TEST(BluesteinKernel, EveryVariantHasItsOwnKey) {
  std::set<std::string> keys, texts;
  for (const BluesteinMode mode : {kComplex, kForward, kInverse}) {
    for (int bits = 0; bits < 8; ++bits) {
      const int n = bits & 1 ? 41 : 42;  // of one padded length
      const int compute = bits & 2 ? codegen::kDouble : codegen::kFloat;
      const codegen::BluesteinKernel kernel{
          mode, n, 84, compute, mode == kInverse, bits & 4 ? 16 : 32};
      keys.insert(kernel.key());
      texts.insert(bluestein_source(kernel, backend()));
      const codegen::BluesteinSteps steps{mode, n, 84, compute,
                                          bits & 4 ? compute : codegen::kHalf};
      keys.insert({steps.pre_key(), steps.multiply_key(), steps.post_key()});
      texts.insert({bluestein_pre_source(steps, backend()),
                    bluestein_multiply_source(steps, backend()),
                    bluestein_post_source(steps, backend())});
    }
  }
  EXPECT_EQ(keys.size(), 3 * 8 * 3 + 2u);
  EXPECT_EQ(texts.size(), 3 * 8 * 3 + 2u);
}

// Storage types by what stands for a number in them.
struct HalfBits {
  uint16_t bits;
};
template <class Stored>
Stored stored(double value) {
  return static_cast<Stored>(value);
}
template <>
HalfBits stored(double value) {
  return {float_to_half(static_cast<float>(value))};
}
double number(double value) {
  return value;
}
double number(HalfBits value) {
  _Float16 half;
  std::memcpy(&half, &value.bits, sizeof half);
  return static_cast<double>(half);
}

// Runs one form on rows of scalars, complex ones as pairs, and checks that nothing follows them.
template <class T, class Stored>
std::vector<double> transformed(bool global, BluesteinCall call, const std::vector<double>& rows,
                                size_t results) {
  std::vector<Stored> in;
  for (double v : rows) in.push_back(stored<Stored>(v));
  const OnDevice<Stored> x(in);
  const OnDevice<Stored> out(std::vector<Stored>(results + 8, stored<Stored>(7)));
  call.half = sizeof(Stored) == 2;
  call.x = x.buffer.p;
  call.out = out.buffer.p;
  if (global) {
    bluestein_global<T>(call);
  } else if (call.mode == kComplex) {
    bluestein_complex<T>({.x = call.x,
                          .out = call.out,
                          .rows = call.rows,
                          .n = call.n,
                          .inverse = call.inverse,
                          .half = call.half});
  } else {
    bluestein_real<T>({.x = call.x,
                       .out = call.out,
                       .rows = call.rows,
                       .n = call.n,
                       .inverse = call.inverse,
                       .half = call.half});
  }
  KEVRA_CHECK(deviceSynchronize());
  std::vector<double> values;
  for (const Stored& v : out.values()) values.push_back(number(v));
  for (size_t i = results; i < values.size(); ++i) EXPECT_EQ(values[i], 7) << "behind the rows";
  values.resize(results);
  return values;
}

// One row of the definition, scalars in and scalars out.
std::vector<double> defined(const BluesteinCall& call, const double* row) {
  const int n = call.n;
  Spectrum full(n);
  for (int k = 0; k < n; ++k) {
    if (call.mode == kForward) {
      full[k] = row[k];
    } else if (call.mode == kComplex) {
      full[k] = {row[2 * k], row[2 * k + 1]};
    } else {
      const int bin = std::min(k, n - k);
      const bool real = bin == 0 || 2 * bin == n;
      full[k] = {row[2 * bin], real ? 0 : k <= n / 2 ? row[2 * bin + 1] : -row[2 * bin + 1]};
    }
  }
  Spectrum result = kevra_test::dft(full, call.inverse ? 1 : -1);
  if (call.mode == kForward) result.resize(n / 2 + 1);
  std::vector<double> scalars;
  for (auto value : result) {
    if (call.inverse) value /= n;
    scalars.push_back(value.real());
    if (call.mode != kInverse) scalars.push_back(value.imag());
  }
  return scalars;
}

size_t scalars_in(BluesteinMode mode, int n) {
  return mode == kForward ? n : mode == kInverse ? 2 * (n / 2 + 1) : 2 * n;
}
size_t scalars_out(BluesteinMode mode, int n) {
  return mode == kInverse ? n : mode == kForward ? 2 * (n / 2 + 1) : 2 * n;
}

double relative_error(const double* got, const double* want, size_t count) {
  double difference = 0;
  double size = 0;
  for (size_t i = 0; i < count; ++i) {
    difference += (got[i] - want[i]) * (got[i] - want[i]);
    size += want[i] * want[i];
  }
  return std::sqrt(difference / size);
}

template <class T, class Stored>
void expect_both_forms_right(int n, int64_t rows, BluesteinMode mode, bool inverse) {
  const BluesteinCall call{
      .x = nullptr, .out = nullptr, .rows = rows, .n = n, .mode = mode, .inverse = inverse};
  const size_t width = scalars_in(mode, n);
  const size_t results = scalars_out(mode, n);
  std::vector<double> x;
  for (const auto& v : kevra_test::random_values(width * rows, n)) {
    // Rows of very different sizes show what one leaks into another.
    const double size = x.size() / width % 2 == 0 ? 1 : 0x1p-7;
    x.push_back(number(stored<Stored>(v.real() * size)));
  }
  const bool half = sizeof(Stored) == 2;
  // A row of a pair may carry its neighbour's roundings in float, not in half, where none shares.
  const double eps = sizeof(T) == 8 ? 2 * 0x1p-52 : 4 * 0x1p-23;
  const double bound = (mode == kComplex || half || sizeof(T) == 8 ? 1 : 0x1p7) * eps *
                           std::sqrt(std::max(1.0, std::log2(n))) +
                       (half ? 0x1p-11 : 0);
  for (const bool global : {false, true}) {
    const auto got = transformed<T, Stored>(global, call, x, results * rows);
    for (int64_t row = 0; row < rows; ++row) {
      const auto want = defined(call, &x[row * width]);
      ASSERT_LT(relative_error(&got[row * results], want.data(), results), bound)
          << "n " << n << ", row " << row << " of " << rows << ", mode " << static_cast<int>(mode)
          << (inverse ? " inverse" : "") << (global ? ", through device memory" : "");
    }
  }
}

TEST(Bluestein, BothFormsMatchTheDefinition) {
  select_device(0);
  for (int n : {1, 5, 82, 127}) {
    for (const auto& [mode, inverse] :
         {std::pair{kComplex, false}, {kComplex, true}, {kForward, false}, {kInverse, true}}) {
      expect_both_forms_right<float, float>(n, 5, mode, inverse);
      expect_both_forms_right<double, double>(n, 2, mode, inverse);
      expect_both_forms_right<float, HalfBits>(n, 3, mode, inverse);
    }
  }
  expect_both_forms_right<float, float>(1031, 1, kForward, false);
  expect_both_forms_right<float, float>(1031, 4, kInverse, true);
}

// Bin 0 and, of an even n, bin n / 2 are real in the spectrum of real data.
template <class T, class Stored>
void expect_real_bins_without_imaginary_part(int n, double imaginary) {
  const BluesteinCall call{
      .x = nullptr, .out = nullptr, .rows = 3, .n = n, .mode = kInverse, .inverse = true};
  const size_t width = scalars_in(kInverse, n);
  std::vector<double> x;
  for (const auto& v : kevra_test::random_values(width * 3, n)) x.push_back(v.real());
  std::vector<double> spoilt = x;
  for (size_t row = 0; row < 3; ++row) {
    for (size_t at : {size_t{1}, width - 1}) {
      if (at != 1 && n % 2 != 0) continue;
      x[row * width + at] = 0;
      spoilt[row * width + at] = row == 1 ? -imaginary : imaginary;
    }
  }
  for (const bool global : {false, true}) {
    EXPECT_EQ((transformed<T, Stored>(global, call, spoilt, n * 3)),
              (transformed<T, Stored>(global, call, x, n * 3)))
        << "n " << n << (global ? ", through device memory" : "");
  }
}

TEST(Bluestein, ImaginaryPartsOfRealBinsReachNoRow) {
  select_device(0);
  for (int n : {41, 82, 254}) {
    for (const double imaginary : {3.0, std::numeric_limits<double>::quiet_NaN()}) {
      expect_real_bins_without_imaginary_part<float, float>(n, imaginary);
      expect_real_bins_without_imaginary_part<double, double>(n, imaginary);
      expect_real_bins_without_imaginary_part<float, HalfBits>(n, imaginary);
    }
  }
}

TEST(Bluestein, RefusesWhatItCannotPad) {
  select_device(0);
  try {
    bluestein_real<double>({.x = nullptr, .out = nullptr, .rows = 1, .n = (1 << 29) + 1});
    FAIL() << "accepted";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "bluestein: n is 536870913, must be at most 536870912");
  }
}

}  // namespace
}  // namespace kevra::ops
