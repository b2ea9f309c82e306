// Which kernel a real transform takes, with and without wishes, and what tells the kernels apart.
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <map>
#include <numeric>
#include <string>
#include <vector>

#include "codegen/kernels/rfft.h"
#include "cuda_like/device.h"
#include "cuda_like/ops/rfft.h"
#include "cuda_like/ops/rfft_route.h"
#include "golden.h"

namespace kevra::ops {
namespace {

using codegen::ShapeHint;
using kevra_test::expect_golden;

constexpr int64_t kLimit = 65536;
const codegen::HipBackend hip;

RfftShape shape_of(int n, const std::string& data, bool inverse) {
  return {.n = n, .wide = data == "double", .inverse = inverse, .half = data == "half"};
}

std::string spelled(const RfftRoute& r) {
  std::string text = rfft_form_name(r.form);
  if (r.form == RfftForm::kShared) {
    return text + " " + std::to_string(r.shared.tpf) + "x" +
           std::to_string(r.shared.transforms_per_block) + (r.shared.padded ? " padded" : "") +
           (r.shared.radix25 ? " radix25" : "");
  }
  if (r.form != RfftForm::kRegister) return text;
  text += " [";
  for (int radix : r.registers.radices) text += std::to_string(radix) + " ";
  text.back() = ']';
  return text + " x" + std::to_string(r.registers.transforms_per_block) + " " +
         std::to_string(r.registers.shared_bytes());
}

std::string forward(int n, const char* data, const ShapeHint& hint = {}, int64_t limit = kLimit) {
  return spelled(route_rfft(shape_of(n, data, false), hint, limit));
}
std::string inverse(int n, const char* data, const ShapeHint& hint = {}, int64_t limit = kLimit) {
  return spelled(route_rfft(shape_of(n, data, true), hint, limit));
}

TEST(RfftRoute, TakesTheKernelOfItsSize) {
  EXPECT_EQ(forward(3, "float"), "tiny");
  EXPECT_EQ(forward(5, "float"), "Bluestein");
  EXPECT_EQ(inverse(7, "double"), "Bluestein");
  EXPECT_EQ(forward(97, "float"), "Bluestein");
  EXPECT_EQ(forward(141, "double"), "Bluestein") << "46 = 2 23 has no small radices";
  EXPECT_EQ(forward(4, "float"), "shared-memory 16x4");
  EXPECT_EQ(forward(62, "float"), "shared-memory 16x1");
  EXPECT_EQ(forward(64, "float"), "register [4 4 2] x8 2304");
  EXPECT_EQ(inverse(64, "float"), "shared-memory 16x4");
  EXPECT_EQ(inverse(64, "double"), "register [8 4] x16 8704");
  EXPECT_EQ(forward(16, "double"), "shared-memory 16x4");
  EXPECT_EQ(forward(512, "float"), "register [8 8 4] x2 4096");
  EXPECT_EQ(forward(512, "half"), "register [16 16] x4 8192");
  EXPECT_EQ(forward(2048, "float"), "register [8 8 8 2] x1 8192");
  EXPECT_EQ(forward(2048, "half"), "register [16 16 4] x1 8192");
  EXPECT_EQ(inverse(8192, "double"), "register [16 16 16] x1 35072");
  EXPECT_EQ(forward(96, "float"), "register [6 2 2 2] x8 3072");
  EXPECT_EQ(forward(1000, "float"), "register [10 10 5] x1 4000");
  EXPECT_EQ(forward(1250, "double"), "register [5 5 5 5] x1 10000");
  EXPECT_EQ(forward(9, "float"), "register [9] x64 10752");
  EXPECT_EQ(inverse(45, "double"), "register [15 3] x21 13440");
  EXPECT_EQ(forward(143, "float"), "shared-memory 17x1");
  EXPECT_EQ(forward(51, "float"), "shared-memory 16x1");
  EXPECT_EQ(forward(16384, "float"), "register [16 16 16 2] x1 65536");
  EXPECT_EQ(inverse(16384, "float"), "shared-memory 256x1");
  EXPECT_EQ(forward(32768, "float"), "four-step");
  EXPECT_EQ(forward(16384, "double", {}, 1 << 30), "four-step");
  EXPECT_EQ(forward(16386, "float", {}, 1 << 30), "Bluestein");
  EXPECT_EQ(forward(16500, "float", {}, 1 << 30), "four-step");
  EXPECT_EQ(forward(12000, "double"), "four-step");
  EXPECT_EQ(forward(6250, "double"), "register [5 5 5 5 5] x1 50000");
}

TEST(RfftRoute, OddSizesAreNativeWhereStagesFit) {
  for (int n : {9, 15, 17, 51, 143, 145, 3125}) EXPECT_TRUE(odd_native(n, true, kLimit)) << n;
  for (int n : {1, 3, 5, 7, 10, 141, 323, 529}) EXPECT_FALSE(odd_native(n, false, kLimit)) << n;
  EXPECT_TRUE(odd_native(5625, false, kLimit));
  EXPECT_FALSE(odd_native(5625, true, kLimit));
}

TEST(RfftRoute, FollowsWishesThatItCanHonour) {
  EXPECT_EQ(forward(64, "float", {.core = 1}), "shared-memory 16x4");
  EXPECT_EQ(inverse(64, "float", {.core = 2}), "register [4 4 2] x8 2304");
  EXPECT_EQ(forward(2048, "float", {.ept = 20}), "register [2 2 2 2 2 2 2 2 2 2] x1 8192");
  EXPECT_EQ(forward(2048, "float", {.ept = 1}), "shared-memory 128x1");
  EXPECT_EQ(forward(2048, "float", {.ept = INT_MAX}), "register [32 32] x2 16384");
  EXPECT_EQ(forward(6, "float", {.core = 2}), "shared-memory 16x1");
  EXPECT_EQ(forward(45, "float", {.ept = 9}), "shared-memory 16x1") << "5 does not divide 9";
  EXPECT_EQ(forward(45, "float", {.fpb = 4, .core = 1}), "shared-memory 16x1");
  EXPECT_EQ(forward(128, "float", {.fpb = INT_MAX, .core = 1}), "shared-memory 16x64");
  EXPECT_EQ(forward(360, "float", {.tpf = INT_MAX, .core = 1}), "shared-memory 1024x1");
  EXPECT_EQ(forward(1200, "float", {.core = 1, .var = 5}), "shared-memory 75x1 padded radix25");
  EXPECT_EQ(forward(16000, "float", {.core = 1, .var = 4}), "shared-memory 256x1")
      << "fits unpadded only";
}

std::string fault_of(const RfftRoute& r, const RfftShape& s, int64_t limit) {
  int64_t threads = 1;
  size_t bytes = 0;
  if (r.form == RfftForm::kShared) {
    threads = r.shared.block();
    bytes = r.shared.shared_bytes();
  } else if (r.form == RfftForm::kRegister) {
    const auto& radices = r.registers.radices;
    threads = r.registers.block();
    bytes = r.registers.shared_bytes();
    if (std::accumulate(radices.begin(), radices.end(), 1, std::multiplies<>()) !=
        s.rows().length()) {
      return "radices";
    }
  }
  if (threads < 1 || threads > 1024) return std::to_string(threads) + " threads";
  return static_cast<int64_t>(bytes) > limit ? std::to_string(bytes) + " bytes" : "";
}

// Kernels of one key are one kernel to the cache: their texts, blocks and memory must agree.
struct Keys {
  std::map<std::string, std::string> texts;

  template <class Kernel>
  void add(const Kernel& kernel, std::string text) {
    text += std::to_string(kernel.block()) + " " + std::to_string(kernel.shared_bytes());
    const auto [entry, fresh] = texts.emplace(kernel.key(), text);
    ASSERT_TRUE(fresh || entry->second == text) << kernel.key();
  }
};

TEST(RfftRoute, KeepsWithinBlockAndMemoryWhateverIsWished) {
  std::vector<ShapeHint> hints;
  for (int core : {-1, 0, 1, 2}) {
    for (int wish : {INT_MIN, 1, 2, 7, 1024, INT_MAX}) {
      hints.push_back({.ept = wish, .core = core});
      hints.push_back({.fpb = wish, .core = core});
      hints.push_back({.tpf = wish, .core = core});
      hints.push_back({.core = core, .var = wish});
      hints.push_back({wish, wish, wish, core, wish});
    }
  }
  std::vector<int> sizes(130);
  std::iota(sizes.begin(), sizes.end(), 1);
  for (int n : {225, 323, 343, 529, 625, 646, 1000, 2048, 3125, 5625, 8192, 16000, 16384}) {
    sizes.push_back(n);
  }
  Keys keys;
  for (int n : sizes) {
    for (const char* data : {"float", "double", "half"}) {
      for (bool back : {false, true}) {
        for (const ShapeHint& h : hints) {
          for (int64_t limit : {int64_t{16384}, kLimit, int64_t{163840}}) {
            const RfftShape s = shape_of(n, data, back);
            const RfftRoute r = route_rfft(s, h, limit);
            ASSERT_EQ(fault_of(r, s, limit), "") << spelled(r) << " for " << n << " " << data;
            if (n != 64 && n != 75 && n != 100) continue;
            if (r.form == RfftForm::kShared) keys.add(r.shared, real_fft_source(r.shared, hip));
            if (r.form == RfftForm::kRegister) {
              keys.add(r.registers, register_rfft_source(r.registers, hip));
            }
          }
        }
      }
    }
  }
  EXPECT_GT(keys.texts.size(), 100u);
}

TEST(RfftKernel, WholeTextsMatchTheGoldenFiles) {
  const codegen::RealFftKernel shared{.data = {60, 1, 1, true}, .tpf = 16};
  expect_golden(real_fft_source(shared, hip), "rfft_float_60_inverse.hip");
  const codegen::RegisterRealFftKernel odd{
      .data = {45, 1, 0, false}, .radices = {15, 3}, .transforms_per_block = 21};
  expect_golden(register_rfft_source(odd, hip), "rfft_register_half_45.hip");
}

// The two kernels of this size have other radices, so their results differ in the last bits.
TEST(RfftDispatch, AnOverrideComesBeforePlansAndLeavesNone) {
  select_device(0);
  constexpr int kSize = 80;
  std::vector<float> x(kSize);
  for (int i = 0; i < kSize; ++i) x[i] = static_cast<float>((i * i + 3) % 17) / 7;
  DeviceBuffer in(x.size() * sizeof(float), nullptr);
  DeviceBuffer out((x.size() + 2) * sizeof(float), nullptr);
  KEVRA_CHECK(memcpyHtoD(in.p, x.data(), x.size() * sizeof(float)));
  const auto result = [&](const ShapeHint* override) {
    rfft_dispatch<float>({.x = in.p, .out = out.p, .rows = 1, .n = kSize, .override = override});
    KEVRA_CHECK(deviceSynchronize());
    std::vector<float> y(x.size() + 2);
    KEVRA_CHECK(memcpyDtoH(y.data(), out.p, y.size() * sizeof(float)));
    return y;
  };
  const ShapeHint none, in_memory{.core = 1};
  const std::vector<float> registers = result(&none);
  set_shape_hint("rfft", {.op = HintOp::kRfft, .n = kSize}, "", in_memory);
  const std::vector<float> hinted = result(nullptr);
  EXPECT_NE(hinted, registers);
  EXPECT_EQ(result(&none), registers);
  shape_hint_clear();
  EXPECT_EQ(result(&in_memory), hinted);
  EXPECT_EQ(result(nullptr), registers);
}

}  // namespace
}  // namespace kevra::ops
