// The CPU transform against sums by definition in extended precision, on every route, in every
// build of the passes, over rows and from several threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "codegen/sizes.h"
#include "host_fft/dispatch.h"
#include "host_fft/host_fft.h"
#include "host_fft/host_plan.h"

namespace kevra::host_fft {
namespace {

using Exact = std::complex<long double>;
template <class T>
using Row = std::vector<std::complex<T>>;

template <class T>
double bound(int n) {
  const double eps = sizeof(T) == 8 ? 0x1p-52 : 0x1p-23;
  return 2 * eps * std::sqrt(std::log2(std::max(n, 2)));
}

template <class T>
Row<T> random_row(int64_t n) {
  std::mt19937 random(static_cast<unsigned>(n));
  std::uniform_real_distribution<double> uniform(-1, 1);
  Row<T> row(n);
  for (auto& x : row) x = {static_cast<T>(uniform(random)), static_cast<T>(uniform(random))};
  return row;
}

std::vector<Exact> exact_roots(int n) {
  std::vector<Exact> roots(n);
  for (int k = 0; k < n; ++k) {
    const long double turn = -2 * 3.14159265358979323846264338327950288L;
    roots[k] = std::polar(1.0L, turn * k / n);
  }
  return roots;
}

template <class T>
Exact exact_bin(const Row<T>& row, const std::vector<Exact>& roots, int64_t k) {
  const auto n = static_cast<int64_t>(row.size());
  long double re = 0, im = 0;
  for (int64_t j = 0, at = 0; j < n; ++j, at = (at + k) % n) {
    re += row[j].real() * roots[at].real() - row[j].imag() * roots[at].imag();
    im += row[j].real() * roots[at].imag() + row[j].imag() * roots[at].real();
  }
  return {re, im};
}

// Relative L2 error over every `step`-th bin.
template <class T>
double error_of(const Row<T>& in, const Row<T>& out, bool inverse, int step = 1) {
  const int n = static_cast<int>(in.size());
  const auto roots = exact_roots(n);
  long double wrong = 0, all = 0;
  for (int k = 0; k < n; k += step) {
    const Exact exact = exact_bin(in, roots, inverse ? (n - k) % n : k);
    wrong += std::norm(Exact(out[k]) - exact);
    all += std::norm(exact);
  }
  return static_cast<double>(std::sqrt(wrong / all));
}

template <class T>
const T* parts(const Row<T>& row) {
  return reinterpret_cast<const T*>(row.data());
}
template <class T>
T* parts(Row<T>& row) {
  return reinterpret_cast<T*>(row.data());
}

template <class T>
Row<T> transformed(const Row<T>& in, int n, bool inverse = false, T scale = 1) {
  Row<T> out(in.size());
  host_fft_rows<T>(parts(in), parts(out), n, in.size() / n, inverse, scale);
  return out;
}

template <class T>
class HostFft : public testing::Test {};
using Precisions = testing::Types<float, double>;
TYPED_TEST_SUITE(HostFft, Precisions);

TYPED_TEST(HostFft, EveryLengthUpTo600IsAccurateInBothDirections) {
  using T = TypeParam;
  for (int n = 1; n <= 600; ++n) {
    const auto in = random_row<T>(n);
    for (bool inverse : {false, true}) {
      EXPECT_LE(error_of(in, transformed(in, n, inverse), inverse), bound<T>(n))
          << "n " << n << (inverse ? " inverse" : " forward");
    }
  }
}

// One length for every chain of passes, and the longest filters' lengths; and chirps beyond 600.
TYPED_TEST(HostFft, LongLengthsAreAccurate) {
  using T = TypeParam;
  for (int n : {945, 1001, 1024, 1274, 2048, 2100, 2401, 3125, 4096, 6561, 10648, 28561, 50000,
                65536, 2 * 509, 4099, 20011}) {
    const auto in = random_row<T>(n);
    Row<T> out(n);
    host_fft<T>(parts(in), parts(out), n);
    EXPECT_LE(error_of(in, out, false, n / 150 + 1), bound<T>(n)) << "n " << n;
  }
}

TYPED_TEST(HostFft, EveryBuildOfThePassesIsAccurate) {
  using T = TypeParam;
  for (const Passes<T>* build : supported_passes<T>()) {
    for (int n : {16, 22, 32, 36, 64, 84, 98, 128, 256, 512, 585, 600, 945, 1001, 1225, 1274}) {
      ASSERT_EQ(host_route(n), HostRoute::kPlanned) << n;
      const auto in = random_row<T>(n);
      for (bool inverse : {false, true}) {
        Row<T> out(n), buffers(2 * n);
        build->row_chain({.tables = host_plan<T>(n, inverse)->tables(),
                          .n = n,
                          .inverse = inverse,
                          .scale = T(0.5),
                          .in = parts(in),
                          .out = parts(out),
                          .buffer0 = parts(buffers),
                          .buffer1 = parts(buffers) + 2 * n});
        for (auto& x : out) x *= T(2);
        EXPECT_LE(error_of(in, out, inverse), bound<T>(n))
            << "n " << n << " inverse " << inverse << " build "
            << (build - supported_passes<T>().front());
      }
    }
  }
}

// 7 rows leave lanes of a group empty, 2000 are several groups and chunks.
TYPED_TEST(HostFft, RowsAreTransformedEachForItself) {
  using T = TypeParam;
  for (int n : {1, 15, 45, 84, 100, 513, 37}) {
    for (int rows : {7, 2000}) {
      const auto in = random_row<T>(int64_t{n} * rows);
      const auto out = transformed(in, n, true, T(0.25));
      for (int row : {0, 1, rows / 2, rows - 1}) {
        const Row<T> one(in.begin() + int64_t{row} * n, in.begin() + int64_t{row + 1} * n);
        const auto expected = transformed(one, n, true, T(0.25));
        const Row<T> found(out.begin() + int64_t{row} * n, out.begin() + int64_t{row + 1} * n);
        EXPECT_EQ(found, expected) << "n " << n << ", row " << row << " of " << rows;
      }
    }
  }
}

TYPED_TEST(HostFft, ResultsTooLargeForTheCachesAreWhole) {
  using T = TypeParam;
  const int n = 15, rows = 26 * 1024 * 1024 / (n * 2 * static_cast<int>(sizeof(T)));
  Row<T> in(int64_t{n} * rows);
  for (int row = 0; row < rows; ++row) in[int64_t{n} * row] = static_cast<T>(row % 1021);
  const auto out = transformed(in, n);
  for (int row = 0; row < rows; ++row) {
    for (int k = 0; k < n; ++k) {
      ASSERT_EQ(out[int64_t{n} * row + k], std::complex<T>(static_cast<T>(row % 1021)))
          << "row " << row << ", bin " << k;
    }
  }
}

std::string listed(const std::vector<int>& numbers) {
  std::string text;
  for (int number : numbers) text += (text.empty() ? "" : " ") + std::to_string(number);
  return text;
}

TEST(HostPlan, RadicesComeInTheOrderThatSpareTwiddles) {
  const std::pair<int, const char*> cases[] = {
      {2, "2"},           {8, "4 2"},        {32, "8 4"},        {64, "4 4 4"},
      {128, "8 4 4"},     {84, "4 3 7"},     {512, "8 4 4 4"},   {1001, "13 7 11"},
      {945, "3 3 3 5 7"}, {585, "13 3 3 5"}, {1274, "7 7 13 2"}, {36, "4 3 3"},
      {24, "4 2 3"},      {22, "11 2"},      {1750, "5 5 5 7 2"}};
  for (const auto& [n, radices] : cases) EXPECT_EQ(listed(host_radices(n)), radices) << n;
}

TEST(HostPlan, RoutesAndGroupFactorsFollowThePrimes) {
  EXPECT_EQ(listed(host_group_factors(45)), "9 5");
  EXPECT_EQ(listed(host_group_factors(12)), "4 3");
  EXPECT_EQ(listed(host_group_factors(343)), "7 7 7");
  EXPECT_EQ(listed(host_group_factors(175)), "25 7");
  EXPECT_EQ(listed(host_group_factors(1)), "");
  const std::pair<int, HostRoute> routes[] = {
      {1, HostRoute::kGroup},   {15, HostRoute::kGroup},  {16, HostRoute::kPlanned},
      {511, HostRoute::kChirp}, {507, HostRoute::kGroup}, {525, HostRoute::kPlanned},
      {513, HostRoute::kChirp}, {17, HostRoute::kChirp},  {1001, HostRoute::kPlanned}};
  for (const auto& [n, route] : routes) EXPECT_EQ(host_route(n), route) << n;
}

// Every thread finds the same plans, whoever builds them, and right results meanwhile. Lengths
// that no other case has asked for.
TYPED_TEST(HostFft, ThreadsShareTheirPlans) {
  using T = TypeParam;
  const std::vector<int> lengths = {1408, 1404, 613, 1456, 619, 1430};
  std::vector<std::vector<const void*>> found(8);
  std::vector<double> worst(found.size());
  std::vector<std::thread> threads;
  for (size_t i = 0; i < found.size(); ++i) {
    threads.emplace_back([&, i] {
      for (int n : lengths) {
        const auto in = random_row<T>(n);
        const double error = error_of(in, transformed(in, n), false, 97) / bound<T>(n);
        worst[i] = std::max(worst[i], error);
        found[i].push_back(host_plan<T>(codegen::bluestein_m(n), 0));
        found[i].push_back(bluestein_host_plan<T>(n, 0));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (size_t i = 0; i < found.size(); ++i) {
    EXPECT_EQ(found[i], found[0]);
    EXPECT_LE(worst[i], 1);
  }
}

}  // namespace
}  // namespace kevra::host_fft
