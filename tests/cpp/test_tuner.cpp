// What tuners try, how they time it, and which of equals they keep.
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "codegen/kernels/istft.h"
#include "codegen/kernels/mel.h"
#include "codegen/kernels/stft.h"
#include "codegen/sizes.h"
#include "cuda_like/ops/fft_route.h"
#include "cuda_like/ops/istft_route.h"
#include "cuda_like/ops/rfft_route.h"
#include "cuda_like/tune/candidates.h"
#include "cuda_like/tune/measure.h"
#include "rocm/device_pool.h"
#include "two_devices.h"

namespace kevra::tune {
namespace {

// "ept fpb tpf core var" of each record.
std::string spelled(const std::vector<ShapeHint>& list) {
  std::string text;
  for (const ShapeHint& h : list) {
    for (int value : {h.ept, h.fpb, h.tpf, h.core, h.var}) text += std::to_string(value) + " ";
    text.back() = '|';
  }
  return text;
}

TEST(Candidates, OfRowsFollowTheirFactors) {
  const std::string shared =
      "0 0 0 0 0|0 2 0 1 0|0 0 64 1 0|0 2 64 1 0|0 0 128 1 0|0 2 128 1 0|0 0 256 1 0|"
      "0 2 256 1 0|0 1 0 1 0|0 4 0 1 0|";
  EXPECT_EQ(spelled(fft_candidates(8, false)),
            shared + "4 0 0 2 0|4 2 0 2 0|8 0 0 2 0|8 2 0 2 0|0 0 0 1 4|0 0 0 2 8|");
  EXPECT_EQ(spelled(fft_candidates(50, true)),
            shared + "10 0 0 2 0|10 2 0 2 0|0 0 0 1 4|0 0 0 1 1|0 0 0 1 5|0 0 0 2 2|0 0 0 2 8|");
  EXPECT_EQ(spelled(fft_candidates(17 * 25, false)), shared + "0 0 0 1 1|0 0 0 2 8|");
  EXPECT_EQ(ept_candidates(4096), (std::vector<int>{4, 8, 16, 32}));
  EXPECT_EQ(ept_candidates(2), std::vector<int>{});
  EXPECT_EQ(ept_candidates(72), (std::vector<int>{6, 12, 18, 24}));
  EXPECT_EQ(stft_candidates(512).size(), stft_candidates(1024).size() + 2) << "eight frames fit";
}

constexpr int kMostThreads = 1024;

// A candidate whose kernel no device would take ends a whole search.
struct KernelLimits {
  int64_t shared;

  template <class Kernel>
  void check(const Kernel& kernel, int n, const ShapeHint& h) const {
    check(kernel.block(), kernel.shared_bytes(), n, h);
  }
  void check(int block, size_t bytes, int n, const ShapeHint& h) const {
    EXPECT_TRUE(block >= 1 && block <= kMostThreads && static_cast<int64_t>(bytes) <= shared)
        << "n " << n << ", hint " << spelled({h}) << " " << block << " threads, " << bytes
        << " bytes";
  }
};

void check_fft(const ops::FftShape& shape, const KernelLimits& limits) {
  if (ops::fft_form_by_size(shape, limits.shared)) return;
  for (const ShapeHint& h : fft_candidates(shape.n, shape.half)) {
    const ops::FftRoute route = ops::route_fft(shape, h, limits.shared);
    if (route.form == ops::FftForm::kShared) limits.check(route.shared, shape.n, h);
    if (route.registers.rows == 0) continue;
    const auto kernel = ops::register_kernel(shape, route);
    limits.check(kernel.block(), route.registers.shared_bytes, shape.n, h);
  }
}

void check_rfft(const ops::RfftShape& shape, const KernelLimits& limits) {
  if (ops::rfft_form_by_size(shape, limits.shared)) return;
  for (const ShapeHint& h : fft_candidates(shape.rows().length(), false)) {
    const ops::RfftRoute route = ops::route_rfft(shape, h, limits.shared);
    if (route.form == ops::RfftForm::kShared) limits.check(route.shared, shape.n, h);
    if (route.form == ops::RfftForm::kRegister) limits.check(route.registers, shape.n, h);
  }
}

void check_frames(int n, int prec, const KernelLimits& limits) {
  const codegen::StftRequest request{prec, n, n / 4 + 1, n / 2, 8 * n, 8, 0, 1e-10};
  for (const ShapeHint& h : stft_candidates(n)) {
    const auto stft = codegen::route_stft(request, h, limits.shared);
    if (stft.core != codegen::StftCore::kFourStep) limits.check(codegen::StftKernel{stft}, n, h);
    const auto mel = codegen::route_mel(request, {.n_mels = 40, .power = 2}, h, limits.shared);
    if (mel.core != codegen::StftCore::kFourStep) limits.check(codegen::MelKernel{mel}, n, h);
  }
}

void check_istft(int n, bool wide, const KernelLimits& limits) {
  if (ops::istft_is_staged(n, 2, limits.shared)) return;
  for (const ShapeHint& h : frame_candidates()) {
    const auto kernel =
        ops::route_istft({n, n / 4 + 1, wide, false, false}, h, limits.shared).kernel;
    limits.check(kernel.tpf, kernel.shared_bytes(), n, h);
  }
}

TEST(Candidates, MakeKernelsThatDevicesTake) {
  std::vector<int> sizes{8192, 8640, 9000, 10000, 12288, 16384};
  for (int n = 4; n <= 4096; ++n) sizes.push_back(n);
  for (const KernelLimits limits : {KernelLimits{65536}, KernelLimits{32768}}) {
    for (int n : sizes) {
      for (bool inverse : {false, true}) {
        check_fft({n, true, inverse, false, false}, limits);
        check_rfft({n, true, inverse, false}, limits);
        for (bool half : {false, true}) {
          check_fft({n, false, inverse, half, half}, limits);
          check_rfft({n, false, inverse, half}, limits);
        }
      }
      for (int prec : {0, 1, 2}) check_frames(n, prec, limits);
      for (bool wide : {false, true}) check_istft(n, wide, limits);
    }
  }
}

TEST(Winner, KeepsTheEarlierOfEquals) {
  Winner winner;
  winner.offer({}, 1e30f);
  EXPECT_EQ(winner.ms, 1e30f);
  winner.offer({.ept = 1}, 2.0f);
  winner.offer({.ept = 2}, 2.0f);
  EXPECT_EQ(winner.hint.ept, 1);
  winner.offer({.ept = 3}, 1.5f);
  EXPECT_EQ(spelled({winner.hint}) + std::to_string(winner.ms), "3 0 0 0 0|1.500000");
}

// A run of that long as the device's events see it: what was queued before has ended.
void rest(int ms) {
  KEVRA_CHECK(streamSynchronize(nullptr));
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

TEST(Measuring, TakesTheFastestRunAndEachRunByItself) {
  select_device(0);
  FlushBuffer& fl = flush_buffer(0);
  int runs = 0;
  const auto run = [&] { rest(++runs == 2 ? 20 : 200); };
  const float ms = time_kernel(fl, run, 3);
  EXPECT_EQ(runs, 3);
  EXPECT_GE(ms, 19.0f);
  EXPECT_LT(ms, 150.0f);
  EXPECT_EQ(time_kernel(fl, run, 0), 1e30f);
}

TEST(Measuring, RunsAsOftenAsAskedAndAsTimeAllows) {
  select_device(0);
  int runs = 0;
  const auto count = [&](int iters, int warmup, int ms) {
    runs = 0;
    fastest({{}}, 0, {iters, warmup}, [&](const ShapeHint&) {
      ++runs;
      rest(ms);
    });
    return runs;
  };
  EXPECT_EQ(count(3, 4, 1), 1 + 4 + 3) << "one to compile";
  EXPECT_EQ(count(0, 0, 1), 1 + 1 + 1);
  EXPECT_EQ(count(50, 1, 40), 1 + 1 + 1) << "one run takes more than the time for all";
  const int some = count(50, 2, 5);
  EXPECT_TRUE(some > 3 && some <= 3 + 5) << some << " runs of 5 ms in 25";
}

TEST(Measuring, KeepsOneFlushBufferADevice) {
  for (int device : {0, 1}) {
    select_device(device);
    FlushBuffer& fl = flush_buffer(device);
    EXPECT_GT(fl.bytes, 0u);
    const size_t before = device_pool_figures().in_use_blocks;
    EXPECT_EQ(flush_buffer(device).buf->p, fl.buf->p);
    device_drain();
    EXPECT_EQ(device_pool_figures().in_use_blocks, before);
    KEVRA_CHECK(memsetD8Async(fl.buf->p, 1, fl.bytes, nullptr));
    KEVRA_CHECK(streamSynchronize(nullptr));
  }
  EXPECT_NE(flush_buffer(0).buf->p, flush_buffer(1).buf->p);
}

}  // namespace
}  // namespace kevra::tune
