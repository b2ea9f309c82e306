// The caching pools of device and of pinned memory.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cuda_like/device.h"
#include "rocm/device_pool.h"
#include "rocm/hip_dl.h"
#include "rocm/pinned_pool.h"
#include "two_devices.h"

namespace kevra {
namespace {

constexpr size_t kMiB = size_t{1} << 20;

// A handle that only names a list: the pools never hand it to HIP.
stream_t fake_stream(uintptr_t value) {
  return reinterpret_cast<stream_t>(value);
}

class Pools : public testing::Test {
 protected:
  void SetUp() override {
    select_device(0);
    drain();
  }
  void TearDown() override {
    EXPECT_EQ(device_pool_figures().in_use_blocks, 0u);
    EXPECT_EQ(device_pool_figures().in_use_bytes, 0u);
    EXPECT_EQ(pinned_pool_figures().in_use_blocks, 0u);
    drain();
    EXPECT_EQ(device_pool_figures().cached_bytes + pinned_pool_figures().cached_bytes, 0u);
  }
  static void drain() {
    device_drain();
    pinned_drain();
  }
};

// What both pools promise about sizes, told once.
template <class Alloc, class Free, class Figures>
void check_size_rule(Alloc alloc, Free free, Figures figures) {
  void* b2000 = alloc(2000);
  free(b2000);
  EXPECT_EQ(alloc(1000), b2000) << "a block of twice the request serves it";
  EXPECT_EQ(figures().in_use_bytes, 2000u) << "and keeps its size";
  free(b2000);
  void* b2001 = alloc(2001);
  EXPECT_NE(b2001, b2000) << "a smaller block never serves";
  free(b2001);
  EXPECT_EQ(alloc(1500), b2000) << "the smallest block that fits serves";
  void* fresh = alloc(1000);
  EXPECT_NE(fresh, b2001) << "a block above twice the request is left alone";
  EXPECT_EQ(figures().cached_bytes, 2001u);
  free(fresh);
  free(b2000);

  void* least = alloc(0);
  ASSERT_NE(least, nullptr);
  EXPECT_EQ(figures().in_use_bytes, 256u) << "small requests count as 256 bytes";
  void* second = alloc(255);
  free(least);
  free(second);
  EXPECT_EQ(alloc(256), least) << "the oldest among equals serves first";
  EXPECT_EQ(alloc(1), second);
  free(least);
  free(second);
  free(nullptr);
}

TEST_F(Pools, ServeBySizeWithinTwiceTheRequest) {
  check_size_rule([](size_t n) { return device_alloc(n, nullptr); },
                  [](void* p) { device_free(p, nullptr); }, device_pool_figures);
  check_size_rule(pinned_alloc, pinned_free, pinned_pool_figures);
}

TEST_F(Pools, WhatStaysForGoodTakesNoCachedBlock) {
  const devptr_t cached = device_alloc(1000, nullptr);
  device_free(cached, nullptr);
  {
    const DeviceBuffer table = DeviceBuffer::for_good(1000);
    EXPECT_NE(table.p, cached);
    EXPECT_EQ(device_pool_figures().in_use_blocks, 1u);
    EXPECT_EQ(device_pool_figures().cached_blocks, 1u);
  }
}

TEST_F(Pools, ABlockServesOnlyTheStreamItWasReleasedOn) {
  devptr_t p = device_alloc(1000, nullptr);
  device_free(p, fake_stream(5));
  devptr_t other = device_alloc(1000, nullptr);
  EXPECT_NE(other, p);
  EXPECT_EQ(device_alloc(1000, fake_stream(5)), p);
  device_free(other, nullptr);
  device_free(p, fake_stream(5));
}

TEST_F(Pools, ABlockServesOnlyTheDeviceItCameFrom) {
  select_device(1);
  devptr_t p = device_alloc(1000, nullptr);
  select_device(0);
  device_free(p, nullptr);  // another device is current at the release
  devptr_t other = device_alloc(1000, nullptr);
  EXPECT_NE(other, p);
  device_free(other, nullptr);
  select_device(1);
  EXPECT_EQ(device_alloc(1000, nullptr), p);
  device_free(p, nullptr);
}

TEST_F(Pools, OutOfMemoryTrimsTheCacheOfEveryDeviceAndStream) {
  for (int device : {1, 0}) {
    select_device(device);
    std::vector<std::pair<devptr_t, stream_t>> blocks;
    for (uintptr_t s : {0, 1, 2}) {
      blocks.push_back({device_alloc(20 * kMiB, fake_stream(s)), fake_stream(s)});
    }
    for (auto [p, stream] : blocks) device_free(p, stream);
  }
  ASSERT_EQ(device_pool_figures().cached_blocks, 6u);
  DeviceBuffer large(50 * kMiB, nullptr);  // does not fit beside device 0's cached 60 MiB
  EXPECT_EQ(device_pool_figures().cached_blocks, 0u);

  try {
    device_alloc(20 * kMiB, nullptr);
    ADD_FAILURE() << "70 MiB of 64 were handed out";
  } catch (const std::runtime_error& error) {
    const std::string text = error.what();
    EXPECT_TRUE(text.starts_with("src/rocm/device_pool.cpp:")) << text;
    EXPECT_NE(text.find(": r [memAlloc] failed: "), text.npos) << text;
  }
  EXPECT_EQ(device_pool_figures().in_use_bytes, 50 * kMiB);
}

TEST_F(Pools, AGraphsScratchIsTheLendersAndOutOfReachUntilTheLoanEnds) {
  const stream_t lender = fake_stream(1), borrower = fake_stream(2);
  const devptr_t scratch = device_alloc(20 * kMiB, lender);
  device_free(scratch, lender);
  {
    const StreamLoan loan(borrower, lender);
    EXPECT_EQ(device_alloc(20 * kMiB, borrower), scratch) << "the lender's block serves";
    device_free(scratch, borrower);
    EXPECT_EQ(device_alloc(20 * kMiB, borrower), scratch) << "and again";
    device_free(scratch, borrower);
    const devptr_t of_lender = device_alloc(20 * kMiB, lender);
    EXPECT_NE(of_lender, scratch) << "but not on the lender's stream";
    device_free(of_lender, lender);

    std::thread(device_drain).join();
    EXPECT_EQ(device_pool_figures().cached_bytes, 20 * kMiB) << "the lender's own block is gone";
    EXPECT_THROW(device_alloc(50 * kMiB, nullptr), std::runtime_error) << "44 MiB are to be had";
    EXPECT_EQ(device_pool_figures().cached_bytes, 20 * kMiB);
  }
  EXPECT_EQ(device_alloc(20 * kMiB, lender), scratch) << "back with the lender";
  device_free(scratch, lender);
  device_drain();
  EXPECT_EQ(device_pool_figures().cached_blocks, 0u);
}

TEST_F(Pools, AGraphReplaysWhileAnotherThreadDrainsThePool) {
  constexpr int64_t kReplays = 20;
  constexpr size_t kBytes = 64 << 10;
  stream_t stream = nullptr;
  KEVRA_CHECK(hip_dl::api().StreamCreateWithFlags(&stream, 1));
  std::atomic<bool> done{false};
  std::thread drains([&] {
    select_device(0);
    while (!done) device_drain();
  });
  {
    const DeviceBuffer result(kBytes, stream);
    const int64_t replayed = replay_recorded(
        [&](stream_t on) {
          for (int i = 1; i <= 20; ++i) {
            // Released at the end of a round and served again in the next one.
            const DeviceBuffer scratch(kBytes, on);
            KEVRA_CHECK(memsetD8Async(scratch.p, static_cast<unsigned char>(i), kBytes, on));
            KEVRA_CHECK(memcpyDtoDAsync(result.p, scratch.p, kBytes, on));
            std::this_thread::yield();
          }
        },
        kReplays, stream);
    EXPECT_EQ(replayed, kReplays);
    std::vector<unsigned char> bytes(kBytes);
    KEVRA_CHECK(memcpyDtoH(bytes.data(), result.p, kBytes));
    EXPECT_EQ(bytes, std::vector<unsigned char>(kBytes, 20));
  }
  done = true;
  drains.join();
  EXPECT_EQ(hip_dl::api().StreamDestroy(stream), 0);
}

TEST_F(Pools, WorkThatFailsWhileItIsRecordedLeavesNothingBehind) {
  const DeviceBuffer result(1000, nullptr);
  const auto work = [&](stream_t on) {
    const DeviceBuffer scratch(1000, on);
    KEVRA_CHECK(memsetD8Async(scratch.p, 1, 1000, on));
    throw std::logic_error("on the way");
  };
  EXPECT_EQ(replay_recorded(work, 3, nullptr), 0);
  const devptr_t scratch = device_alloc(1000, nullptr);
  EXPECT_EQ(device_pool_figures().cached_blocks, 0u) << "it is the null stream's again";
  device_free(scratch, nullptr);
}

TEST_F(Pools, UnknownPointersGoStraightBackToHip) {
  for (int i = 0; i < 3; ++i) {  // 120 MiB in all: only a real free makes room
    devptr_t p = nullptr;
    KEVRA_CHECK(memAlloc(&p, 40 * kMiB));
    device_free(p, nullptr);
  }
  void* host = nullptr;
  KEVRA_CHECK(hip_dl::api().HostMalloc(&host, 1000, 0));
  pinned_free(host);
  EXPECT_NE(hip_dl::api().HostFree(host), 0) << "it was not freed";
  EXPECT_EQ(device_pool_figures().cached_blocks + pinned_pool_figures().cached_blocks, 0u);
}

TEST_F(Pools, DrainLeavesBlocksInUseAloneAndTheirReleaseCachesThem) {
  DeviceBuffer buffer(1000, nullptr);
  DeviceBuffer moved(std::move(buffer));
  EXPECT_EQ(buffer.p, nullptr);
  devptr_t p = moved.p;
  {
    DeviceBuffer held(std::move(moved));
    PinnedBlock pinned(1000);
    drain();
    EXPECT_EQ(device_pool_figures().in_use_blocks, 1u);
    KEVRA_CHECK(memcpyHtoD(held.p, pinned.p, 1000));
  }
  EXPECT_EQ(device_pool_figures().cached_blocks, 1u);
  EXPECT_EQ(pinned_pool_figures().cached_blocks, 1u);
  EXPECT_EQ(device_alloc(1000, nullptr), p);
  device_free(p, nullptr);
}

TEST_F(Pools, ThreadsNeverShareABlock) {
  std::mutex mutex;
  std::set<void*> in_use;
  const auto claim = [&](void* p) {
    std::lock_guard lock(mutex);
    EXPECT_TRUE(in_use.insert(p).second) << "handed out twice";
  };
  const auto release = [&](void* p) {
    std::lock_guard lock(mutex);
    in_use.erase(p);
  };
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      select_device(t % 2);
      for (unsigned i = 0; i < 400; ++i) {
        const stream_t stream = fake_stream(t % 3);
        void* p = device_alloc(256 << (i * (t + 1) % 6), stream);
        void* q = pinned_alloc(256 << (i * (t + 3) % 6));
        claim(p), claim(q);
        release(p), release(q);
        device_free(p, stream);
        pinned_free(q);
        if (i % 100 == t) device_drain(), pinned_drain();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace kevra
