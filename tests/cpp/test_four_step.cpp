// Rows too long for one block: how they are split, and real rows both ways.
#include <gtest/gtest.h>

#include <optional>

#include "cuda_like/ops/four_step.h"
#include "cuda_like/ops/four_step_route.h"
#include "kernel_run.h"

namespace kevra::ops {
namespace {

using codegen::padded_bytes;
using kevra_test::OnDevice;
using kevra_test::Spectrum;

constexpr int64_t kLimit = 65536;

std::string spelled(const std::optional<FourStepRoute>& r) {
  if (!r) return "none";
  const auto side = [](const codegen::ColumnPass& p) {
    return std::to_string(p.length()) + " x" + std::to_string(p.tile) + " by " +
           std::to_string(p.threads);
  };
  return side(r->first) + ", " + side(r->second);
}
std::string routed(int n, bool wide, int64_t limit = kLimit) {
  return spelled(route_four_step({n, wide, false, false, false}, limit));
}

TEST(FourStepRoute, SplitsNearTheRootAndFillsTheTile) {
  EXPECT_EQ(padded_bytes(1024, codegen::kDouble), 17408);
  EXPECT_EQ(routed(1 << 20, true), "1024 x1 by 128, 1024 x1 by 128");
  EXPECT_EQ(routed(1 << 20, false), "1024 x4 by 256, 1024 x4 by 256");
  EXPECT_EQ(routed(16384, true), "128 x8 by 128, 128 x8 by 128");
  EXPECT_EQ(routed(44100, false), "210 x2 by 128, 210 x2 by 128");
  EXPECT_EQ(routed(19683, false), "243 x1 by 128, 81 x1 by 128") << "columns are divided evenly";
  EXPECT_EQ(routed(97 * 101 * 103, false), "none");
  EXPECT_EQ(routed(1 << 23, true), "none");
  EXPECT_NE(routed(1 << 24, false), "none");
  EXPECT_FALSE(route_four_step_real(19683, false, false, kLimit)) << "an odd n2 has no middle";
}

TEST(FourStepRoute, EveryBlockFitsAndEveryColumnHasOne) {
  for (int64_t limit : {512, 4096, 65536, 163840}) {
    for (int n = 4; n < 70000; n = n * 9 / 8 + 1) {
      for (bool wide : {false, true}) {
        const auto route = route_four_step({n, wide, false, false, false}, limit);
        if (!route) continue;
        for (const auto& pass : {route->first, route->second}) {
          ASSERT_EQ(pass.columns() * pass.length(), n);
          ASSERT_EQ(pass.columns() % pass.tile, 0) << n;
          ASSERT_LE(pass.shared_bytes(), static_cast<size_t>(limit)) << n;
        }
        const auto real = route_four_step_real(n, wide, false, limit);
        if (!real) continue;
        ASSERT_EQ(real->second.n2 / 2 % real->second.tile, 0) << n;
        ASSERT_LE(real->second.shared_bytes(), static_cast<size_t>(limit)) << n;
      }
    }
  }
}

template <class T>
Spectrum widened(const std::vector<std::complex<T>>& values) {
  return {values.begin(), values.end()};
}

// Forward and back. The inverse has to ignore the imaginary parts of the first and the last bin.
template <class T>
void expect_real_rows(int n, int rows) {
  SCOPED_TRACE(testing::Message() << "n = " << n << ", " << sizeof(T) << " bytes");
  const int prec = sizeof(T) == 8 ? codegen::kDouble : codegen::kFloat;
  const double bound = prec == codegen::kDouble ? 2 * 0x1p-52 : 4 * 0x1p-23;
  const double allowed = bound * std::sqrt(std::log2(n));
  const int bins = n / 2 + 1;
  select_device(0);

  std::vector<T> x;
  for (const auto& v : kevra_test::random_values(static_cast<size_t>(rows) * n, n)) {
    x.push_back(static_cast<T>(v.real()));
  }
  const OnDevice<T> dx(x);
  const std::complex<T> filler{7, 7};
  const OnDevice<std::complex<T>> dy(
      std::vector<std::complex<T>>(static_cast<size_t>(rows) * bins + 16, filler));
  four_step_real<T>({.x = dx.buffer.p, .out = dy.buffer.p, .rows = rows, .n = n});
  KEVRA_CHECK(streamSynchronize(nullptr));
  std::vector<std::complex<T>> y = dy.values();
  for (int i = 0; i < 16; ++i) EXPECT_EQ(y[static_cast<size_t>(rows) * bins + i], filler);

  for (int row = 0; row < rows; ++row) {
    const Spectrum want = kevra_test::dft(Spectrum(x.begin() + row * n, x.begin() + (row + 1) * n));
    const auto first = y.begin() + row * bins;
    EXPECT_LE(kevra_test::relative_error(widened<T>({first, first + bins}),
                                         Spectrum(want.begin(), want.begin() + bins)),
              allowed);
    first->imag(9);
    (first + n / 2)->imag(-9);
  }

  const OnDevice<std::complex<T>> dback(y);
  const OnDevice<T> dz(std::vector<T>(x.size(), 7));
  four_step_real<T>(
      {.x = dback.buffer.p, .out = dz.buffer.p, .rows = rows, .n = n, .inverse = true});
  KEVRA_CHECK(streamSynchronize(nullptr));
  const std::vector<T> z = dz.values();
  EXPECT_LE(kevra_test::relative_error(Spectrum(z.begin(), z.end()), Spectrum(x.begin(), x.end())),
            2 * allowed);
}

// Halves 2 x 2, 32 x 32 and 30 x 30 end in the second pass; 3 x 9 and 17 x 17 have no middle
// column and are split by a kernel of their own.
TEST(FourStepReal, TransformsRowsBothWays) {
  for (int n : {8, 54, 578, 1800, 2048}) {
    expect_real_rows<float>(n, 3);
    expect_real_rows<double>(n, 3);
  }
}

TEST(FourStepReal, RefusesALengthOfSmallFactorsThatIsTooLong) {
  for (bool inverse : {false, true}) {
    EXPECT_THROW(four_step_real<double>(
                     {.x = nullptr, .out = nullptr, .rows = 1, .n = 1 << 24, .inverse = inverse}),
                 std::invalid_argument);
  }
}

}  // namespace
}  // namespace kevra::ops
