// Which kernel a complex transform takes, with and without wishes.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <numeric>
#include <string>
#include <vector>

#include "codegen/sizes.h"
#include "cuda_like/ops/fft.h"
#include "cuda_like/ops/fft_route.h"

namespace kevra::ops {
namespace {

using codegen::ShapeHint;

constexpr int64_t kLimit = 65536;
constexpr int64_t kLarge = 163840;  // for sizes whose kernels need more than kLimit

// The forms of data by their names in the rows below.
FftShape shape_of(int n, const std::string& data, bool inverse = false) {
  const bool packed = data == "packed";
  return {n, data == "double", inverse, packed || data == "half", packed};
}

// A route in one line: the form, and what tells its kernel from others.
std::string spelled(const FftRoute& r) {
  std::string text = fft_form_name(r.form);
  if (r.form == FftForm::kShared) {
    const auto& k = r.shared;
    return text + " " + std::to_string(k.tpf) + "x" + std::to_string(k.rows_per_block) +
           (k.padded ? " padded" : "") + (k.radix25 ? " radix25" : "");
  }
  if (r.registers.rows == 0) return text;
  text += " [";
  for (int radix : r.registers.radices) text += std::to_string(radix) + " ";
  text.back() = ']';
  return text + " x" + std::to_string(r.registers.rows) + " " +
         std::to_string(r.registers.shared_bytes) + (r.registers.window_layout ? " windows" : "") +
         (r.registers.half_exchange ? " half exchange" : "");
}

std::string routed(int n, const char* data, const ShapeHint& hint = {}, int64_t limit = kLimit) {
  return spelled(route_fft(shape_of(n, data), hint, limit));
}

TEST(FftRoute, TakesTheKernelOfItsSize) {
  EXPECT_EQ(routed(1, "float"), "shared-memory 16x4");
  EXPECT_EQ(routed(12, "double"), "shared-memory 16x8");
  EXPECT_EQ(routed(64, "float"), "two-pass register [8 8] x4 2304");
  EXPECT_EQ(routed(256, "double"), "two-pass register [16 16] x4 17408");
  EXPECT_EQ(routed(121, "double"), "two-pass register [11 11] x8 16896");
  EXPECT_EQ(routed(169, "double"), "two-pass register [13 13] x12 34944");
  EXPECT_EQ(routed(169, "float"), "shared-memory 21x6");
  EXPECT_EQ(routed(343, "double"), "three-pass register [7 7 7] x6 32928");
  EXPECT_EQ(routed(343, "float"), "shared-memory 42x3");
  EXPECT_EQ(routed(1331, "double"), "three-pass register [11 11 11] x2 42592");
  EXPECT_EQ(routed(4096, "packed"), "packed-pair register [32 16 8] x2 17024 windows");
  EXPECT_EQ(route_fft(shape_of(512, "packed", true), {}, kLimit).form, FftForm::kRegister);
  EXPECT_EQ(routed(512, "half"), "register [16 16 2] x1 2304 windows");
  EXPECT_EQ(routed(1024, "float"), "shared-memory 128x1");
  EXPECT_EQ(routed(1024, "half"), "register [16 16 4] x1 4480 windows");
  EXPECT_EQ(routed(8192, "float"), "register [32 16 16] x1 33920 windows");
  EXPECT_EQ(routed(8192, "double"), "four-step");
  EXPECT_EQ(routed(8192, "double", {}, kLarge), "register [8 8 8 8 2] x1 73984 windows");
  EXPECT_EQ(routed(96, "float"), "register [12 4 2] x8 4352 windows");
  EXPECT_EQ(routed(384, "double"), "register [6 2 2 2 2 2 2] x1 3840 windows");
  EXPECT_EQ(routed(625, "float"), "register [5 5 5 5] x1 3128 windows");
  EXPECT_EQ(routed(1000, "float"), "register [10 10 10] x1 4528 windows");
  EXPECT_EQ(routed(720, "double"), "shared-memory 45x2");
  EXPECT_EQ(routed(3125, "double"), "shared-memory 128x1");
  EXPECT_EQ(routed(127, "float"), "Bluestein");
  EXPECT_EQ(routed(8800, "float"), "four-step");
  EXPECT_EQ(routed(8800, "float", {}, kLarge), "shared-memory 256x1");
  EXPECT_EQ(routed(16384, "float"), "four-step");
  EXPECT_EQ(routed(16384, "float", {}, kLarge), "shared-memory 256x1");
  EXPECT_EQ(routed(16384, "half"), "four-step");
  EXPECT_EQ(routed(16384, "double", {}, 1 << 30), "four-step");
  EXPECT_EQ(routed(32768, "float", {}, 1 << 30), "four-step");
  EXPECT_EQ(routed(2147483640, "double"), "four-step");
}

TEST(FftRoute, FollowsWishesThatItCanHonour) {
  EXPECT_EQ(routed(64, "float", {.core = 1}), "shared-memory 16x4");
  EXPECT_EQ(routed(512, "packed", {.core = 1}), "shared-memory 64x1");
  EXPECT_EQ(routed(1000, "double", {.core = 1}), "shared-memory 125x1");
  EXPECT_EQ(routed(1024, "float", {.core = 2}), "register [16 16 4] x1 8712");
  EXPECT_EQ(routed(1024, "float", {.core = 2, .var = 8}), "register [16 16 4] x1 4480 windows");
  EXPECT_EQ(routed(1024, "half", {.var = 2}), "register [16 16 4] x1 2240 windows half exchange");
  EXPECT_EQ(routed(1024, "half", {.var = 10}), "register [16 16 4] x1 8712");
  EXPECT_EQ(routed(8, "float", {.core = 2}), "register [8] x1 72");
  EXPECT_EQ(routed(1, "float", {.core = 2}), "shared-memory 16x4");
  EXPECT_EQ(routed(72, "float", {.core = 2}), "register [24 3] x21 8988 windows");
  EXPECT_EQ(routed(22, "double", {.core = 2}), "shared-memory 16x8");
  EXPECT_EQ(routed(4096, "float", {.ept = 20}), "register [16 16 16] x1 17536 windows");
  EXPECT_EQ(routed(4096, "float", {.ept = 1}), "shared-memory 256x1");
  EXPECT_EQ(routed(1000, "float", {.ept = 1}), "shared-memory 125x1");
  EXPECT_EQ(routed(1000, "float", {.ept = 20}), "register [20 10 5] x1 4328 windows");
  EXPECT_EQ(routed(64, "float", {.fpb = INT_MAX}), "two-pass register [8 8] x113 65088");
  EXPECT_EQ(routed(1331, "double", {.fpb = 5}), "shared-memory 166x3");
  EXPECT_EQ(routed(8192, "double", {.var = 8}, kLarge), "register [8 8 8 8 2] x1 139280");
  EXPECT_EQ(routed(360, "float", {.fpb = 3, .tpf = 30}), "shared-memory 30x3");
  EXPECT_EQ(routed(360, "float", {.tpf = INT_MAX}), "shared-memory 1024x1");
  EXPECT_EQ(routed(360, "float", {.fpb = INT_MAX}), "shared-memory 45x22");
  EXPECT_EQ(routed(600, "float", {.var = 5}), "shared-memory 75x1 padded radix25");
  EXPECT_EQ(routed(600, "float", {-1, INT_MIN, -1, -1, -1}), "shared-memory 75x1");
  EXPECT_EQ(routed(34, "double", {.var = 5}), "shared-memory 16x8");
  EXPECT_EQ(routed(8000, "float", {.var = 4}), "shared-memory 256x1") << "fits unpadded only";
}

// What is wrong with a route; empty when nothing is.
std::string fault_of(const FftRoute& r, const FftShape& s, const ShapeHint& h, int64_t limit) {
  int64_t threads = 1;
  int64_t bytes = 0;
  if (r.form == FftForm::kShared) {
    threads = int64_t{r.shared.tpf} * r.shared.rows_per_block;
    bytes = static_cast<int64_t>(r.shared.shared_bytes());
    if (std::min(r.shared.tpf, r.shared.rows_per_block) < 1) return "no threads or rows";
  } else if (r.registers.rows != 0) {
    const auto& radices = r.registers.radices;
    threads = int64_t{s.n} / r.registers.ept * (r.form == FftForm::kPair ? 1 : r.registers.rows);
    bytes = static_cast<int64_t>(r.registers.shared_bytes);
    if (h.core == 1) return "a register kernel";
    if (std::accumulate(radices.begin(), radices.end(), 1, std::multiplies<>()) != s.n ||
        radices.front() != r.registers.ept ||
        std::any_of(radices.begin(), radices.end(),
                    [&](int radix) { return radix < 2 || radix > r.registers.ept; })) {
      return "radices";
    }
  }
  if (threads < 1 || threads > 1024) return std::to_string(threads) + " threads";
  const bool size_fits = codegen::fits_shared(s.n, s.wide ? 2 : 1, limit);
  return bytes > limit && size_fits ? std::to_string(bytes) + " bytes" : "";
}

TEST(FftRoute, KeepsWithinBlockAndMemoryWhateverIsWished) {
  std::vector<ShapeHint> hints;
  for (int core : {-1, 0, 1, 2}) {
    for (int wish : {INT_MIN, 1, 7, 1024, INT_MAX}) {
      hints.push_back({.ept = wish, .core = core});
      hints.push_back({.fpb = wish, .core = core});
      hints.push_back({.tpf = wish, .core = core});
      hints.push_back({.core = core, .var = wish});
      hints.push_back({wish, wish, wish, core, wish});
    }
  }
  std::vector<int> sizes(66);
  std::iota(sizes.begin(), sizes.end(), 1);
  for (int n : {169,  256,  343,  384,  512,  625,  720,  1000, 1024,  1331,
                2048, 3125, 4096, 4913, 7999, 8000, 8192, 8200, 16384, 32768}) {
    sizes.push_back(n);
  }
  for (int n : sizes) {
    for (const char* data : {"float", "double", "half", "packed"}) {
      for (int64_t limit : {int64_t{16384}, kLimit, kLarge}) {
        for (const ShapeHint& h : hints) {
          const FftShape s = shape_of(n, data);
          const FftRoute r = route_fft(s, h, limit);
          ASSERT_EQ(fault_of(r, s, h, limit), "")
              << spelled(r) << " for " << n << " " << data << ", limit " << limit << ", wish "
              << h.ept << " " << h.fpb << " " << h.tpf << " " << h.core << " " << h.var;
        }
      }
    }
  }
}

// The two kernels of this size have other radices, so their results differ in the last bits.
TEST(FftDispatch, AnOverrideComesBeforePlansAndLeavesNone) {
  select_device(0);
  constexpr int kSize = 40;
  std::vector<float> x(2 * kSize);
  for (int i = 0; i < 2 * kSize; ++i) x[i] = static_cast<float>((i * i + 3) % 17) / 7;
  DeviceBuffer in(x.size() * sizeof(float), nullptr);
  DeviceBuffer out(x.size() * sizeof(float), nullptr);
  KEVRA_CHECK(memcpyHtoD(in.p, x.data(), x.size() * sizeof(float)));
  const auto result = [&](const ShapeHint* override) {
    fft_dispatch<float>({.x = in.p, .out = out.p, .rows = 1, .n = kSize, .override = override});
    KEVRA_CHECK(deviceSynchronize());
    std::vector<float> y(x.size());
    KEVRA_CHECK(memcpyDtoH(y.data(), out.p, y.size() * sizeof(float)));
    return y;
  };
  const ShapeHint none, register_kernel{.core = 2};
  const std::vector<float> shared = result(&none);
  set_shape_hint("fft", {HintOp::kFft, kSize}, "", register_kernel);
  const std::vector<float> hinted = result(nullptr);
  EXPECT_NE(hinted, shared);
  EXPECT_EQ(result(&none), shared);
  shape_hint_clear();
  EXPECT_EQ(result(&register_kernel), hinted);
  EXPECT_EQ(result(nullptr), shared);
}

}  // namespace
}  // namespace kevra::ops
