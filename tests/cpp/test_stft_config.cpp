// What frame kernels are asked to do beyond what callers can see: schedules under any wish, keys,
// and the maps from threads to elements of rows.
#include <gtest/gtest.h>

#include <bit>
#include <map>
#include <random>
#include <set>

#include "codegen/kernels/stft.h"
#include "codegen/thread_map.h"
#include "kernel_run.h"

namespace kevra::codegen {
namespace {

const HipBackend hip;
constexpr int64_t kCap = 65536;

StftConfig routed(int n_fft, int prec, const ShapeHint& hint = {}, int64_t cap = kCap,
                  const FrameStatistic& statistic = {}) {
  return route_stft(
      {prec, n_fft, std::max(n_fft / 4, 1), n_fft / 2, 8 * n_fft, 8, 0, 1e-10, statistic}, hint,
      cap);
}

TEST(FrameRoute, LeavesForDeviceMemoryWhereNoPaddedRowFits) {
  EXPECT_EQ(routed(16384, kFloat).core, StftCore::kFourStep) << "69640 bytes";
  EXPECT_EQ(routed(8192, kDouble).core, StftCore::kFourStep);
  EXPECT_EQ(routed(8192, kFloat).core, StftCore::kEpt16);
  EXPECT_EQ(routed(16384, kFloat, {}, 69640).core, StftCore::kEpt16);
  EXPECT_EQ(routed(1 << 17, kFloat, {}, 1 << 30).core, StftCore::kFourStep) << "4096 threads";
}

TEST(FrameRoute, TurnsDownWhatAKernelCannotDo) {
  EXPECT_EQ(routed(32, kFloat, {.tpf = 32}).core, StftCore::kCooleyTukey) << "16 points, 32 lanes";
  EXPECT_EQ(routed(64, kFloat, {.tpf = 32}).core, StftCore::kWarp);
  EXPECT_EQ(routed(64, kDouble, {.tpf = 32}).core, StftCore::kCooleyTukey);
  EXPECT_EQ(routed(4096, kFloat, {.ept = 4096}).ept, 16);
  EXPECT_EQ(routed(4096, kFloat, {.ept = 4096, .core = 1}).ept, 64);
  // 8192 points padded by one slot in two would need 1.5 times their memory.
  EXPECT_EQ(routed(8192, kFloat, {.var = 1 << 4}).shp_shift, 1);
  EXPECT_EQ(routed(8192, kFloat, {.var = 1 << 4}, 40000).shp_shift, 4);
}

TEST(FrameRoute, EveryWishedKernelFits) {
  std::mt19937 engine(1);
  const int wishes[] = {-1, 0, 1, 3, 32, 48, 1000, 1 << 30};
  const auto wish = [&] { return wishes[engine() % std::size(wishes)]; };
  for (int i = 0; i < 4000; ++i) {
    const int n_fft = i % 2 == 0 ? 2 << engine() % 14 : 2 + static_cast<int>(engine() % 9000);
    const int prec = static_cast<int>(engine() % 3);
    const int64_t cap = int64_t{1} << (9 + engine() % 9);
    const ShapeHint hint{wish(), wish(), wish(), static_cast<int>(engine() % 4),
                         static_cast<int>(engine() % 512)};
    FrameStatistic statistic;
    if (i % 4 == 0 && prec != kHalf) {
      statistic.stat = static_cast<int>(engine() % 5);
      if (statistic.stat == kContrast) statistic.band_pad = 2 << engine() % 12;
    }
    const StftKernel kernel{routed(n_fft, prec, hint, cap, statistic)};
    if (kernel.config.core == StftCore::kFourStep) continue;
    if (statistic.stat != kNoStatistic) {
      ASSERT_TRUE(std::has_single_bit(static_cast<unsigned>(kernel.config.tpf))) << "halved sums";
    }
    SCOPED_TRACE(testing::Message()
                 << n_fft << ", " << prec << ", " << cap << ": " << hint.ept << " " << hint.fpb
                 << " " << hint.tpf << " " << hint.core << " " << hint.var);
    ASSERT_LE(static_cast<int64_t>(kernel.shared_bytes()), cap);
    ASSERT_LE(kernel.block(), 1024);
  }
}

TEST(FrameKernel, EqualKeysHaveEqualTexts) {
  std::map<std::string, std::string> texts;
  const auto add = [&](StftConfig config, int storage) {
    config.in_prec = config.out_prec = storage;
    const StftKernel kernel{config};
    const std::string text = stft_source(kernel, hip);
    const auto [it, fresh] = texts.emplace(kernel.key(), text);
    EXPECT_TRUE(fresh || it->second == text) << kernel.key();
  };
  for (int n_fft : {64, 100, 45}) {
    for (int prec : {kHalf, kFloat, kDouble}) {
      for (const ShapeHint& hint :
           {ShapeHint{}, ShapeHint{.ept = 4}, ShapeHint{.tpf = 32}, ShapeHint{.fpb = 1},
            ShapeHint{.var = 4}, ShapeHint{.var = 3 << 4}, ShapeHint{.core = 1}}) {
        for (int64_t cap : {kCap, int64_t{1200}}) {
          StftConfig config = routed(n_fft, prec, hint, cap);
          if (config.core == StftCore::kFourStep) continue;
          for (int form : {0, 1, 2, 3}) {
            for (double eps : {1e-10, 1.0000001e-10}) {
              config.form = form;
              config.eps = eps;
              add(config, prec);
              if (prec == kFloat) add(config, kHalf);
            }
          }
        }
      }
    }
  }
  for (int prec : {kFloat, kDouble}) {
    for (int stat : {kCentroid, kBandwidth, kFlatness, kRolloff, kContrast}) {
      for (int n_bands : {2, 3}) {
        for (int band_pad : {8, 16}) {
          StftConfig config = routed(64, prec, {}, kCap, {stat, n_bands, band_pad});
          config.form = 1;
          add(config, prec);
        }
      }
    }
  }
  std::set<std::string> distinct;
  for (const auto& [key, text] : texts) distinct.insert(text);
  EXPECT_GT(distinct.size(), 100u);
}

TEST(ThreadMap, FlatRowsCoverEveryElementOnce) {
  constexpr int kElements = 600;
  KernelWriter w(kFloat, hip);
  flat_row_index(w, "k", std::to_string(kElements));
  split_row(w, "bb", "tt");
  w.stmt("out[row * $ + k] = (int)(bb * 1000000 + tt * 10000 + k);", kElements);
  const std::string text = i64_prelude(hip) + "#define NF 3\n" +
                           KernelSignature("probe", hip).add_pointer("int", "out").head() +
                           w.str() + "}\n";
  constexpr int kRows = 7;
  const kevra_test::OnDevice<int> out(std::vector<int>(kRows * kElements, -1));
  devptr_t p = out.buffer.p;
  void* args[] = {&p};
  launch_kernel(compile_function(select_device(0), text, "probe"), 3, kRows, 256, 0, args, "probe",
                nullptr);
  const std::vector<int> got = out.values();
  for (int row = 0; row < kRows; ++row) {
    for (int k = 0; k < kElements; ++k) {
      ASSERT_EQ(got[row * kElements + k], row / 3 * 1000000 + row % 3 * 10000 + k);
    }
  }
}

}  // namespace
}  // namespace kevra::codegen
