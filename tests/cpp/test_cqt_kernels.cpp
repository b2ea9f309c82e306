// Which constant-Q records run in one kernel, and that equal keys stand for equal texts.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "codegen/kernels/cqt.h"
#include "codegen/kernels/cqt_adjoint.h"
#include "codegen/kernels/cqt_fused.h"
#include "codegen/precision.h"
#include "codegen/sizes.h"

namespace kevra::codegen {
namespace {

const HipBackend hip;
constexpr int64_t kCap = 65536;

std::optional<CqtFusedKernel> routed(int n_fft, int prec, int64_t cap, int form = 0,
                                     int storage = kFloat, int device = 0) {
  return route_cqt({prec, n_fft, n_fft / 4 + 1, 0, 8 * n_fft, 8, form, 1e-10},
                   prec == kDouble ? kDouble : storage, device, cap);
}

TEST(CqtRoute, TakesWhatFitsABlockWithItsSpectrum) {
  EXPECT_TRUE(routed(4096, kFloat, kCap));
  EXPECT_FALSE(routed(8192, kFloat, kCap)) << "69640 bytes";
  EXPECT_TRUE(routed(8192, kFloat, 69640));
  EXPECT_TRUE(routed(2048, kDouble, kCap));
  EXPECT_FALSE(routed(4096, kDouble, kCap));
  EXPECT_FALSE(routed(400, kFloat, kCap)) << "no power of two";
}

TEST(CqtRoute, LeavesRoomForTheSpectraOfAllFramesOfABlock) {
  std::set<StftCore> cores;
  for (int n_fft = 2; n_fft <= 1 << 14; n_fft *= 2) {
    for (int prec : {kFloat, kDouble}) {
      for (int64_t cap = 256; cap <= 1 << 18; cap += cap / 3) {
        const auto kernel = routed(n_fft, prec, cap);
        if (!kernel) continue;
        const StftConfig& s = kernel->config;
        cores.insert(s.core);
        const size_t bins = n_fft / 2 + 1;
        const size_t table = s.wide && !s.tw_global ? 3 * n_fft / 4 : 0;
        const size_t least = (s.fpb * (2 * bins + (n_fft / 2 >> 4)) + table) * complex_bytes(prec);
        ASSERT_EQ(kernel->shared_bytes(), least) << n_fft << " " << prec << " " << cap;
        ASSERT_LE(static_cast<int64_t>(least), cap);
        ASSERT_LE(kernel->block(), 1024);
      }
    }
  }
  EXPECT_EQ(cores, (std::set{StftCore::kCooleyTukey, StftCore::kWarp, StftCore::kEpt16}));
}

TEST(CqtKernels, EqualKeysHaveEqualTexts) {
  std::map<std::string, std::string> texts;
  const auto add = [&](const std::string& key, const std::string& text) {
    const auto [it, fresh] = texts.emplace(key, text);
    EXPECT_TRUE(fresh || it->second == text) << key;
  };
  for (int form : {0, 1, 2, 3}) {
    for (int storage : {kHalf, kFloat}) {
      for (int prec : {kFloat, kDouble}) {
        const CqtReduceKernel reduce{prec, form, prec == kDouble ? kDouble : storage, 1e-10};
        add(reduce.key(), reduce.source(hip));
        for (double eps : {1e-10, 1e-3, 0.0}) {
          const CqtBinGradientKernel gradient{prec, form, eps};
          add(gradient.key(), gradient.source(hip));
        }
        // Devices of different shared memory: a double kernel may keep its roots elsewhere.
        int device = 0;
        for (int64_t cap : {kCap, int64_t{3000}, int64_t{2400}}) {
          const auto kernel = routed(128, prec, cap, form, storage, device++);
          if (kernel) add(kernel->key(), kernel->source(hip));
        }
      }
    }
  }
  EXPECT_GT(texts.size(), 40U);
}

}  // namespace
}  // namespace kevra::codegen
