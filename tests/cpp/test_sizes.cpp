// Sizes and schedules, against tables and against searches by definition over ranges.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <functional>
#include <numeric>
#include <string>
#include <vector>

#include "codegen/sizes.h"
#include "codegen/stft_config.h"

namespace kevra::codegen {
namespace {

using Radices = std::vector<int>;

int product(const Radices& radices) {
  return std::accumulate(radices.begin(), radices.end(), 1, std::multiplies<>());
}

// n without its prime factors up to `most`.
int without_small_primes(int n, int most) {
  for (int p = 2; p <= most; ++p) {
    while (n % p == 0) n /= p;
  }
  return n;
}

bool prime_by_trial(int n) {
  for (int d = 2; d < n; ++d) {
    if (n % d == 0) return false;
  }
  return n > 1;
}

int largest_prime_of(int n) {
  int largest = 1;
  for (int d = 2; n > 1; ++d) {
    for (; n % d == 0; n /= d) largest = d;
  }
  return largest;
}

TEST(Factorize, GivesTheKnownSchedules) {
  const auto spelled = [](int n, bool radix25 = false) {
    int rest = -1;
    std::string text;
    for (int r : factorize(n, &rest, radix25)) text += std::to_string(r) + " ";
    return text + "rest " + std::to_string(rest);
  };
  for (int n : {INT_MIN, 0, 1}) EXPECT_EQ(spelled(n), "rest 1");
  EXPECT_EQ(spelled(8192), "16 8 8 8 rest 1");
  EXPECT_EQ(spelled(1024, true), "16 8 8 rest 1");
  EXPECT_EQ(spelled(600), "8 5 5 3 rest 1");
  EXPECT_EQ(spelled(600, true), "25 8 3 rest 1");
  EXPECT_EQ(spelled(2 * 17 * 19), "2 323 rest 323");
  EXPECT_EQ(spelled(INT_MAX), "2147483647 rest 2147483647");
}

TEST(Factorize, PeelsTheLargestUsableRadixAndLeavesLargePrimesTogether) {
  for (bool radix25 : {false, true}) {
    for (int n = 2; n <= 6000; ++n) {
      SCOPED_TRACE("n = " + std::to_string(n));
      int rest = 0;
      Radices radices = factorize(n, &rest, radix25);
      ASSERT_EQ(product(radices), n);
      ASSERT_EQ(rest, without_small_primes(n, 13));
      if (is_power_of_two(n)) {
        ASSERT_LE(radices.front(), std::min(16, 2 * radices.back()));
        ASSERT_EQ(static_cast<int>(radices.size()), (ceil_log2(n) + 3) / 4);
        continue;
      }
      if (rest != 1) radices.pop_back();
      int left = n;
      for (int r : radices) {
        for (int larger : {25, 16, 13, 11, 9, 8, 7, 5, 4, 3, 2}) {
          if (larger <= r || (larger == 25 && !radix25)) continue;
          ASSERT_NE(left % larger, 0) << larger << " was passed over for " << r;
        }
        left /= r;
      }
    }
  }
}

TEST(PrimeFactors, AreThePrimesInTheOrderOfTheRegisterStages) {
  const auto rank = [](int p) { return p <= 7 ? -p : p; };
  for (int n = 1; n <= 3000; ++n) {
    const Radices primes = prime_factors(n);
    ASSERT_EQ(product(primes), n);
    ASSERT_EQ(is_prime(n), prime_by_trial(n));
    for (size_t i = 0; i < primes.size(); ++i) {
      ASSERT_TRUE(prime_by_trial(primes[i])) << n;
      ASSERT_TRUE(i == 0 || rank(primes[i - 1]) <= rank(primes[i])) << n;
    }
  }
}

TEST(PrimeStage, IsTheLonePrimeAboveThirteen) {
  EXPECT_EQ(rader_prime(323), 0) << "the rest is one entry, and no prime";
  for (int n = 1; n <= 3000; ++n) {
    const int rest = without_small_primes(n, 13);
    const int want = prime_by_trial(rest) ? rest : 0;
    ASSERT_EQ(rader_prime(n), want) << n;
    ASSERT_EQ(rader_extra(n), want == 0 ? 0 : n + n / want) << n;
  }
}

TEST(UniformSchedule, TakesTheLargestFirstRadixThatAllOthersDivide) {
  EXPECT_EQ(find_uniform_schedule(96, 12, 12), (Radices{12, 4, 2}));
  for (auto [lo, hi] : {std::pair{5, 12}, {8, 25}, {6, 6}, {-3, 1}, {1, INT_MAX}}) {
    for (int n = 1; n <= 1500; ++n) {
      int first = 0;
      for (int e = std::max(lo, 2); e <= std::min(n, hi); ++e) {
        if (n % e != 0) continue;
        bool divides = true;  // every prime of the rest divides e, and is a radix
        for (int left = n / e, p = 2; left > 1; ++p) {
          for (; left % p == 0; left /= p) divides = divides && e % p == 0 && p <= 16;
        }
        if (divides) first = e;
      }
      const Radices got = find_uniform_schedule(n, lo, hi);
      SCOPED_TRACE(std::to_string(n) + " in " + std::to_string(lo) + ".." + std::to_string(hi));
      ASSERT_EQ(got.empty() ? 0 : got.front(), first);
      if (got.empty()) continue;
      ASSERT_EQ(product(got), n);
      for (size_t i = 1; i < got.size(); ++i) {
        ASSERT_TRUE(got[i] <= 16 && first % got[i] == 0);
      }
    }
  }
}

TEST(FourStepSplit, IsTheMostBalancedThatFits) {
  EXPECT_EQ(four_step_split(46340 * 46340, 1, 1 << 20), std::pair(46340, 46340));
  for (int prec : {0, 1, 2}) {
    for (int64_t cap : {INT64_MIN, int64_t{0}, int64_t{32}, int64_t{264}, int64_t{1024}}) {
      for (int n = 0; n <= 1200; ++n) {
        const auto fits = [&](int size) {
          return int64_t(size + rader_extra(size)) * int64_t(complex_bytes(prec)) <= cap;
        };
        std::pair want(0, 0);
        for (int d = 2; n >= 4 && d * d <= n && !fits(n); ++d) {
          if (n % d == 0 && fits(d) && fits(n / d)) want = {d, n / d};
        }
        ASSERT_EQ(four_step_split(n, prec, cap), want) << n << ", " << prec << ", " << cap;
        ASSERT_EQ(fits_shared(n, prec, cap), fits(n)) << n << ", " << prec << ", " << cap;
      }
    }
  }
}

TEST(Bluestein, TakesSizesWithAPrimeLargeAgainstTheirLogarithm) {
  for (int n : {127, 254, 1009, INT_MAX}) EXPECT_TRUE(needs_bluestein(n)) << n;
  for (int n : {-1, 0, 1, 2, 3, 29, 1000, 1 << 30}) EXPECT_FALSE(needs_bluestein(n)) << n;
  for (int n = 1; n <= 4000; ++n) {
    const bool want = largest_prime_of(n) > 6 * std::log2(2.0 * n);
    ASSERT_EQ(needs_bluestein(n), want && !is_power_of_two(n)) << n;
  }
}

TEST(Bluestein, PadsToTheLeastMultipleOfFourWithoutLargePrimes) {
  for (auto [n, m] : {std::pair{1, 4}, {3, 8}, {9, 20}, {1000, 2000}, {(1 << 28) - 1, 1 << 29}}) {
    EXPECT_EQ(bluestein_m(n), m) << n;
  }
  for (int n = 1; n <= 3000; ++n) {
    int m = (2 * n - 1 + 3) / 4 * 4;
    while (without_small_primes(m, 7) != 1) m += 4;
    ASSERT_EQ(bluestein_m(n), m) << n;
  }
}

StftRequest request(int n_fft, int prec) {
  return {prec, n_fft, std::max(n_fft / 4, 1), n_fft / 2, 8 * n_fft, 8, 0, 1e-10};
}

StftConfig routed(int n_fft, int prec, const ShapeHint& hint = {}) {
  return route_stft(request(n_fft, prec), hint, 65536);
}

TEST(FrameSchedule, GivesTheKnownShapes) {
  const auto spelled = [](int n_fft, int prec, const ShapeHint& hint = {}) {
    const StftConfig s = routed(n_fft, prec, hint);
    std::string text = core_name(s.core);
    for (int value : {s.ept, s.tpf, s.fpb}) text += " " + std::to_string(value);
    return s.n1 == 0 ? text : text + ", " + std::to_string(s.n1) + " x " + std::to_string(s.n2);
  };
  EXPECT_EQ(spelled(1, 1), "cooley_tukey 1 1 8");
  EXPECT_EQ(spelled(16, 1, {.ept = 64}), "cooley_tukey 8 1 8");
  EXPECT_EQ(spelled(512, 1), "warp 8 32 8");
  EXPECT_EQ(spelled(512, 2), "cooley_tukey 8 32 8");
  EXPECT_EQ(spelled(512, 1, {.core = 1}), "cooley_tukey 8 32 8");
  EXPECT_EQ(spelled(1024, 1), "cooley_tukey 8 64 2");
  EXPECT_EQ(spelled(1024, 1, {.fpb = INT_MAX}), "cooley_tukey 8 64 15");
  EXPECT_EQ(spelled(1024, 1, {.core = 3}), "ept16 8 64 4");
  EXPECT_EQ(spelled(256, 1, {.core = 3}), "cooley_tukey 8 16 8") << "too short for that core";
  EXPECT_EQ(spelled(2048, 1, {-1, -1, -1, -1, -1}), "ept16 16 64 4");
  EXPECT_EQ(spelled(65536, 1), "four_step 16 2048 1, 128 x 256");
  EXPECT_EQ(spelled(0, 1), "mixed 8 32 1");
  EXPECT_EQ(spelled(77, 1), "mixed 8 77 1");
  EXPECT_EQ(spelled(1000, 1), "mixed 8 128 1");
  EXPECT_EQ(spelled(1000, 1, {.tpf = INT_MAX}), "mixed 8 1024 1");
  EXPECT_EQ(spelled(254, 1), "four_step 8 127 1") << "127 needs Bluestein";
  EXPECT_EQ(spelled(18000, 1), "four_step 8 256 1, 90 x 100");
}

TEST(FrameSchedule, VariantBitsPickThePadding) {
  EXPECT_EQ(routed(512, 1, {.var = 5 << 4}).shp_shift, 5);
  EXPECT_EQ(routed(512, 1, {.var = -1}).shp_shift, 4) << "a negative field is no wish";
  EXPECT_FALSE(routed(1000, 1, {.var = -1}).padded);
  EXPECT_FALSE(routed(68, 1, {.var = 4}).padded) << "the prime stage's scratch lies there";
  EXPECT_EQ(frame_shared_bytes(routed(512, 1)), (257u + 16) * 8 * 8);
  EXPECT_EQ(frame_shared_bytes(routed(512, 1, {.var = 15 << 4})), 257u * 8 * 8);
  EXPECT_EQ(frame_shared_bytes(routed(512, 2)), ((257u + 16) * 8 + 384) * 16);
  EXPECT_EQ(frame_shared_bytes(routed(1000, 1, {.var = 4})), (500u + 31 + 1) * 8);
  EXPECT_EQ(frame_shared_bytes(routed(68, 1)), (34u + 36) * 8);
}

TEST(FrameSchedule, KeepsWithinCapacityAndBlockWhateverIsWished) {
  const int wishes[] = {INT_MIN, -1, 0, 1, 3, 64, 5000, INT_MAX};
  for (int64_t cap : {INT64_MIN, int64_t{0}, int64_t{1}, int64_t{1000}, int64_t{49152},
                      int64_t{65536}, INT64_MAX / 32}) {
    for (int prec : {0, 1, 2}) {
      for (int e = 1; e <= 14; ++e) {
        for (int wish : wishes) {
          for (int core : {0, 1, 2, 3}) {
            const ShapeHint hint{.ept = wish, .fpb = wish, .tpf = wish, .core = core};
            const StftConfig s = build_pow2_schedule(request(1 << e, prec), hint, cap);
            const int64_t held = static_cast<int64_t>(frame_shared_bytes(s));
            SCOPED_TRACE(testing::Message() << "n_fft " << (1 << e) << ", prec " << prec << ", cap "
                                            << cap << ", wish " << wish << ", core " << core);
            ASSERT_GE(std::min({s.ept, s.tpf, s.fpb}), 1);
            ASSERT_LE(s.ept, 1 << (e - 1));
            ASSERT_LE(int64_t{s.tpf} * s.fpb, 1024);
            ASSERT_TRUE(s.fpb == 1 || held <= (cap > 0 ? cap : 98304));
          }
        }
      }
    }
  }
}

TEST(FrameSchedule, ExactCapacitiesHoldAFrameMoreThanOneByteLess) {
  for (int prec : {1, 2}) {
    for (int n : {32, 256, 1024, 4096}) {
      const StftRequest r = request(n, prec);
      const StftConfig roomy = build_pow2_schedule(r, {}, 1 << 20);
      const int64_t exact = static_cast<int64_t>(frame_shared_bytes(roomy));
      EXPECT_EQ(build_pow2_schedule(r, {}, exact).fpb, roomy.fpb);
      const int fewer = std::max(roomy.fpb - 1, 1);
      EXPECT_EQ(build_pow2_schedule(r, {}, exact - 1).fpb, fewer) << n << ", " << prec;
    }
  }
  const StftConfig small = build_pow2_schedule(request(256, 2), {}, 2 * 137 * 16);
  EXPECT_TRUE(small.tw_global) << "the table leaves before frames do";
  EXPECT_EQ(small.fpb, 2);
  EXPECT_EQ(build_mixed_schedule(request(1000, 1), {}, 4000).core, StftCore::kMixed);
  EXPECT_EQ(build_mixed_schedule(request(1000, 1), {}, 3999).n1, 20);
  EXPECT_EQ(build_mixed_schedule(request(999, 1), {}, 3999).n1, 0) << "odd frames are not split";
}

}  // namespace
}  // namespace kevra::codegen
