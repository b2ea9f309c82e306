// Hashes, half patterns, device tables, twiddles and the hint table.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <climits>
#include <cmath>
#include <complex>
#include <cstdint>
#include <numbers>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "cuda_like/hash.h"
#include "cuda_like/hints.h"
#include "cuda_like/tables.h"
#include "cuda_like/twiddles.h"
#include "rocm/device_pool.h"
#include "two_devices.h"

namespace kevra {
namespace {

// The figures come from an implementation apart, in integers of any length.
TEST(Hash, MatchesKnownFigures) {
  EXPECT_EQ(content_hash(""), 0x14650fb0739d0383u);
  EXPECT_EQ(content_hash(std::string_view("\0\xff\1", 3)), 0xa896f44f39ff1309u);
  EXPECT_EQ(combine(35, 1024), 0x9e3779b97f4a88feu);
  EXPECT_EQ(combine(~0ull, ~0ull), 0x21c8864680b5842cu);
  std::vector<double> values(3000);
  for (size_t i = 0; i < values.size(); ++i) values[i] = 0.5 * static_cast<double>(i);
  EXPECT_EQ(matrix_hash(nullptr, 0, 0), 0xa8f1a672f0ef9e36u);
  EXPECT_EQ(matrix_hash(values.data(), 2, 256), 0xb64541db7734883bu) << "no samples";
  EXPECT_EQ(matrix_hash(values.data(), 3, 1000), 0xf7ae79cb510dece4u) << "every fifth sampled";

  const uint64_t sampled = matrix_hash(values.data(), 3, 1000);
  values[2996] += 1;
  EXPECT_EQ(matrix_hash(values.data(), 3, 1000), sampled) << "between two samples";
  values[2995] += 1;
  EXPECT_NE(matrix_hash(values.data(), 3, 1000), sampled);
}

TEST(Hash, KeysOfSmallValuesStayApart) {
  std::set<uint64_t> keys;
  size_t asked = 0;
  for (uint64_t name = 1000; name < 1007; ++name) {
    for (uint64_t n = 1; n <= 5000; ++n) {
      for (uint64_t bytes : {4, 8}) asked += keys.insert(key_of({119, name, n, bytes})).second;
    }
  }
  EXPECT_EQ(asked, 70000u);
}

TEST(FloatToHalf, AgreesWithTheCompiler) {
  const auto check = [](uint32_t bits) {
    const float value = std::bit_cast<float>(bits);
    const uint16_t want =
        std::isnan(value) ? 0x7e00 : std::bit_cast<uint16_t>(static_cast<_Float16>(value));
    ASSERT_EQ(float_to_half(value), want) << value << ", bits " << bits;
  };
  // Every half, the middle to the next, and the floats beside both.
  for (uint32_t pattern = 0; pattern <= 0xffff; ++pattern) {
    const auto half = static_cast<float>(std::bit_cast<_Float16>(static_cast<uint16_t>(pattern)));
    const uint32_t bits = std::bit_cast<uint32_t>(half);
    const auto next =
        static_cast<float>(std::bit_cast<_Float16>(static_cast<uint16_t>(pattern + 1)));
    const uint32_t middle = std::bit_cast<uint32_t>((half + next) / 2);
    for (uint32_t near : {bits - 1, bits, bits + 1, middle - 1, middle, middle + 1}) check(near);
  }
  for (uint64_t bits = 0; bits <= UINT32_MAX; bits += 1009) check(static_cast<uint32_t>(bits));
  EXPECT_EQ(float_to_half(std::vector<float>{1, -2}), (std::vector<uint16_t>{0x3c00, 0xc000}));
}

template <class T>
std::vector<T> read_table(devptr_t p, size_t count) {
  std::vector<T> host(count);
  KEVRA_CHECK(memcpyDtoH(host.data(), p, count * sizeof(T)));
  return host;
}

// Blocks that `body` takes from the pool and does not give back.
template <class Body>
size_t blocks_kept(Body body) {
  const size_t before = device_pool_figures().in_use_blocks;
  body();
  return device_pool_figures().in_use_blocks - before;
}

class Tables : public testing::Test {
 protected:
  void SetUp() override { select_device(0); }
};

TEST_F(Tables, AreUploadedOnceForEachDeviceAndStay) {
  const std::vector<int32_t> first{1, 2, 3}, second{4, 5, 6};
  devptr_t p0 = nullptr, p1 = nullptr;
  EXPECT_EQ(blocks_kept([&] {
              p0 = device_table("once", first.data(), 12);
              select_device(1);
              p1 = device_table("once", second.data(), 12);
              EXPECT_EQ(device_table("once", nullptr, 12), p1) << "a hit reads no data";
            }),
            2u);
  select_device(0);
  device_drain();
  EXPECT_EQ(device_table("once", nullptr, 12), p0);
  EXPECT_EQ(read_table<int32_t>(p0, 3), first);
  EXPECT_EQ(read_table<int32_t>(p1, 3), second);
  EXPECT_NE(device_table("empty", nullptr, 0), nullptr);
}

template <class T>
devptr_t vector_table(const std::string& name, const std::vector<T>& values) {
  return device_vector_table<T>(name, [&] { return values; });
}

TEST_F(Tables, OfEachElementTypeHaveAStoreOfTheirOwn) {
  const std::set<devptr_t> tables{
      vector_table<int32_t>("typed", {7}), vector_table<uint16_t>("typed", {8, 9}),
      vector_table<float>("typed", {0.5f}), vector_table<double>("typed", {0.25, 0.75}),
      device_table("typed", "x", 1)};
  EXPECT_EQ(tables.size(), 5u);
  const auto untouched = []() -> std::vector<double> { throw std::logic_error("asked on a hit"); };
  const devptr_t p = device_vector_table<double>("typed", untouched);
  EXPECT_EQ(read_table<double>(p, 2), (std::vector<double>{0.25, 0.75}));
  select_device(1);
  EXPECT_THROW(device_vector_table<double>("typed", untouched), std::logic_error);
}

TEST_F(Tables, KeyedOnesAreBuiltOnceForEachDevice) {
  int builds = 0;
  const auto build = [&] {
    ++builds;
    return device_table("named inside", "abc", 3);
  };
  const devptr_t p = device_table_built(77, build);
  EXPECT_EQ(device_table_built(77, build), p);
  EXPECT_EQ(device_table_built(78, build), p) << "equal content is shared through its name";
  select_device(1);
  EXPECT_NE(device_table_built(77, build), p);
  EXPECT_EQ(builds, 3);
}

TEST_F(Tables, AFailureStoresNothingAndLosesNoBlock) {
  const std::vector<float> huge(20'000'000);  // 80 MB where the device has 64 MiB
  EXPECT_EQ(blocks_kept([&] {
              EXPECT_THROW(device_table("failed", huge.data(), huge.size() * 4),
                           std::runtime_error);
              EXPECT_THROW(vector_table("failed", huge), std::runtime_error);
              EXPECT_THROW(device_table("failed", nullptr, 4), std::runtime_error) << "no source";
              EXPECT_THROW(device_table_built(79, []() -> devptr_t { throw 1; }), int);
            }),
            0u);
  EXPECT_EQ(read_table<char>(device_table("failed", "ok", 2), 2), (std::vector{'o', 'k'}));
  EXPECT_EQ(read_table<float>(vector_table<float>("failed", {3}), 1)[0], 3);
  EXPECT_NO_THROW(device_table_built(79, [] { return device_table("failed", nullptr, 2); }));
}

TEST_F(Tables, ThreadsThatAskTogetherGetOne) {
  std::vector<devptr_t> got(8);
  EXPECT_EQ(blocks_kept([&] {
              std::vector<std::jthread> threads;
              for (devptr_t& p : got) {
                threads.emplace_back([&p] {
                  select_device(1);
                  p = vector_table<double>("together", {1, 2});
                });
              }
            }),
            1u);
  for (devptr_t p : got) EXPECT_EQ(p, got[0]);
}

using Complex = std::complex<double>;

TEST(Twiddles, AreRootsRoundedOnce) {
  const auto check = [](const std::vector<Complex>& table, int first, int count, int n) {
    for (int k = 0; k < count; ++k) {
      const auto want = std::polar(1.0L, -2 * std::numbers::pi_v<long double> * k / n);
      const Complex off = table[first + k] - Complex(want);
      ASSERT_LE(std::abs(off), 0x1p-52) << k << " of " << n;
    }
  };
  for (int n : {1, 2, 12, 1000, 8191}) {
    const std::vector<Complex> table = twiddle_table(n, 0);
    ASSERT_EQ(table.size(), static_cast<size_t>(n));
    check(table, 0, n, n);
  }
  const std::vector<Complex> two_levels = twiddle_table_pow2(8);
  ASSERT_EQ(two_levels.size(), 6u);
  check(two_levels, 0, 2, 4);
  check(two_levels, 2, 4, 8);
}

// The sections behind the roots turn a prime transform into a cyclic convolution.
TEST(Twiddles, OfAPrimeStageTransformByConvolution) {
  constexpr int n = 34, p = 17, m = p - 1;
  const std::vector<Complex> table = twiddle_table(n, p);
  ASSERT_EQ(table.size(), static_cast<size_t>(n + 3 * m));
  const Complex* roots = &table[n];
  const Complex* filter = roots + m;
  const Complex* maps = filter + m;
  const auto value = [](int j) { return Complex(j * j - 20, 3 * j); };
  std::vector<Complex> cyclic(m), spectrum(m);
  for (int k = 0; k < m; ++k) cyclic[std::lround(maps[k].real())] = value(k + 1);
  for (int k = 0; k < m; ++k) {
    for (int j = 0; j < m; ++j) spectrum[k] += cyclic[j] * roots[j * k % m];
    spectrum[k] *= filter[k];
  }
  for (int i = 0; i < m; ++i) {
    Complex got = value(0), want = 0;
    for (int k = 0; k < m; ++k) got += spectrum[k] * std::conj(roots[i * k % m]) / double{m};
    const int out = static_cast<int>(std::lround(maps[i].imag()));
    for (int j = 0; j < p; ++j) want += value(j) * std::polar(1.0, -2 * M_PI * j * out / p);
    EXPECT_LE(std::abs(got - want), 1e-11) << "output " << out;
  }
}

TEST_F(Tables, OfTwiddlesFollowSizePrimeTwinAndDevice) {
  const devptr_t p = fft_twiddles(34, 17, true);
  EXPECT_EQ(fft_twiddles(34, 17, true), p);
  EXPECT_EQ(read_table<Complex>(p, 34 + 48), twiddle_table(34, 17));
  EXPECT_NE(fft_twiddles(34, 0, true), p);
  EXPECT_NE(fft_twiddles(35, 0, true), p);
  const devptr_t placeholder = fft_twiddles(34, 17, false);
  EXPECT_NE(placeholder, p);
  EXPECT_EQ(read_table<std::complex<float>>(placeholder, 1)[0], 0.0f);
  select_device(1);
  EXPECT_NE(fft_twiddles(34, 17, true), p);
}

std::array<int, 5> fields(const ShapeHint& h) {
  return {h.ept, h.fpb, h.tpf, h.core, h.var};
}

TEST(Hints, KeysMatchKnownFigures) {
  EXPECT_EQ(hint_key({HintOp::kFft, 1024, 0, true, 32}), 0x4867eabfed0ce819u);
  EXPECT_EQ(hint_key({HintOp::kStft, 2048, 512, true, 64, 3, 7, 1}), 0x4867eaa8cb53888fu);
  EXPECT_EQ(hint_key({HintOp::kCqt, -5, -1, false, 8, 1, -2, -1}), 0x4867ea902b89ce98u);
}

TEST(Hints, FitTheExactShapeThatTheyName) {
  const HintShape shape{HintOp::kStft, 1024, 256, true, 32, 3, 5, 1};
  const ShapeHint hint{1, -2, 3, INT_MAX, INT_MIN};
  for (const ShapeHint& wanted : {ShapeHint{.tpf = 9}, hint}) {  // the second replaces the first
    set_shape_hint("stft", shape, "db", wanted);
    ShapeHint got;
    EXPECT_TRUE(hint_lookup(hint_key(shape), &got));
    EXPECT_EQ(fields(got), fields(wanted));
  }
  std::vector<HintShape> others(8, shape);
  others[0].op = HintOp::kMel, others[1].n = 1023, others[2].hop = 255, others[3].center = false;
  others[4].bits = 16, others[5].form = 2, others[6].extra = 4, others[7].device = 0;
  for (const HintShape& other : others) {
    ShapeHint got = hint;
    EXPECT_FALSE(hint_lookup(hint_key(other), &got));
    EXPECT_EQ(fields(got), fields({})) << "a miss leaves nothing behind";
  }
  shape_hint_clear();
  ShapeHint got;
  EXPECT_FALSE(hint_lookup(hint_key(shape), &got));
}

TEST(Hints, HaveAFormInFramesAndConstantQAlone) {
  constexpr const char* kOps[] = {"stft", "istft", "mel", "fft", "rfft", "cqt"};
  constexpr const char* kOutputs[] = {"complex", "magnitude", "power", "db"};
  for (int op = 0; op < 6; ++op) {
    const bool has_form = op == 0 || op == 2 || op == 5;
    for (int form = 0; form < 4; ++form) {
      shape_hint_clear();
      set_shape_hint(kOps[op], {HintOp::kFft, 64}, kOutputs[form], {.ept = 4});
      ShapeHint got;
      const HintShape stored{.op = HintOp{op + 1}, .n = 64, .form = has_form ? form : 0};
      EXPECT_TRUE(hint_lookup(hint_key(stored), &got)) << kOps[op] << " " << kOutputs[form];
    }
  }
  shape_hint_clear();
}

TEST(Hints, EveryChangeMovesTheEpochAndARefusalDoesNot) {
  shape_hint_clear();
  const uint64_t before = shape_epoch();
  for (int i = 0; i < 2; ++i) set_shape_hint("fft", {HintOp::kFft, 8}, "", {.tpf = 4});
  EXPECT_EQ(shape_epoch(), before + 2);
  for (int i = 0; i < 2; ++i) shape_hint_clear();
  EXPECT_EQ(shape_epoch(), before + 4);
  for (const char* op : {"", "FFT", "fft ", "chroma"}) {
    EXPECT_THROW(set_shape_hint(op, {HintOp::kFft, 8}, "", {}), std::invalid_argument) << op;
  }
  EXPECT_EQ(shape_epoch(), before + 4);
}

}  // namespace
}  // namespace kevra
