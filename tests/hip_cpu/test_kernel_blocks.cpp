// How blocks run: orders of threads and blocks, waits that do not match, launches side by side.
#include <thread>

#include "kernel_api.h"

using namespace hip;

namespace {

// An FFT-like kernel: shared memory rewritten between barriers, shuffles, early ends, uneven work.
const char* const mixing_text = R"(
extern "C" __global__ void __launch_bounds__(96) mix(const float* x, float* out, int n) {
  extern __shared__ float cells[];
  int tid = threadIdx.x;
  float v = x[blockIdx.x * 96 + tid];
  for (int round = 0; round < n; ++round) {
    cells[tid] = v;
    __syncthreads();
    v = 0.5f * cells[(tid * 7 + round) % 96] + 0.25f * v;
    for (int i = 0; i < tid % 3; ++i) v += 0.125f;
    v += __shfl_xor(v, 1 << (round % 5), 32);
    __syncthreads();
  }
  if (tid & 1) return;
  out[blockIdx.x * 48 + tid / 2] = v;
}
)";

uint64_t mixed_hash() {
  const Kernels kernels(mixing_text);
  const unsigned blocks = 500;
  Buffer<float> x(blocks * 96), out(blocks * 48);
  for (unsigned i = 0; i < x.values.size(); ++i) x.values[i] = float(i % 89) / 64;
  x.upload();
  EXPECT_EQ(kernels.run("mix", {blocks}, {96}, 384, x.device, out.device, 12), "");
  uint64_t hash = 0;
  for (const float v : out.download()) {
    uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    hash = (hash ^ bits) * 0x100000001b3;
  }
  return hash;
}

TEST(KernelBlocks, ResultsDoNotDependOnOrderOrThreads) {
  const std::string expected = "hash " + std::to_string(mixed_hash());
  if (std::getenv("KEVRA_TEST_CHILD")) {
    std::printf("%s\n", expected.c_str());
    return;
  }
  for (const Environment& environment :
       {Environment{{"KEVRA_CPU_ORDER", "reverse"}}, Environment{{"KEVRA_CPU_ORDER", "shuffle:1"}},
        Environment{{"KEVRA_CPU_ORDER", "shuffle:2"}, {"KEVRA_CPU_CHECK", "1"}},
        Environment{{"KEVRA_CPU_THREADS", "1"}}, Environment{{"KEVRA_CPU_THREADS", "9"}}}) {
    std::string output;
    in_child_with(environment, &output);
    EXPECT_TRUE(contains(output, expected)) << environment[0].second << ": " << output;
  }
}

// The last writer wins in a racing kernel, so its result shows the order.
TEST(KernelBlocks, OrderIsWhatTheSwitchSays) {
  if (std::getenv("KEVRA_TEST_CHILD")) {
    const Kernels kernels(R"(
extern "C" __global__ void last(int* out) {
  out[0] = threadIdx.x;
  __syncthreads();
  out[1] = threadIdx.x;
  out[2] = blockIdx.x;
}
)");
    Buffer<int> out(3);
    ASSERT_EQ(kernels.run("last", {20}, {64}, 0, out.device), "");
    out.download();
    std::printf("last %d %d %d;\n", out.values[0], out.values[1], out.values[2]);
    return;
  }
  const auto run = [](const char* order) {
    std::string output;
    in_child_with({{"KEVRA_CPU_ORDER", order}, {"KEVRA_CPU_THREADS", "1"}}, &output);
    return output.substr(output.find("last "), output.find(';') - output.find("last "));
  };
  EXPECT_EQ(run("forward"), "last 63 63 19");
  EXPECT_EQ(run("reverse"), "last 0 0 0");
  const std::string shuffled = run("shuffle:5");
  EXPECT_EQ(run("shuffle:5"), shuffled) << "the same seed, the same order";
  EXPECT_TRUE(run("shuffle:6") != shuffled || run("shuffle:7") != shuffled);
}

TEST(KernelBlocks, WaitsThatDoNotMatchFailTheLaunchAndSayWhere) {
  const Kernels kernels(R"(
extern "C" __global__ void some_only(float* out) {
  if (threadIdx.x > 3)
    __syncthreads();
  out[threadIdx.x] = 1;
}
extern "C" __global__ void ended_early(float* out) {
  if (blockIdx.y == 1 && threadIdx.x == 33 && threadIdx.y == 1) return;
  __syncthreads();
  out[threadIdx.x] = 1;
}
extern "C" __global__ void two_places(float* out) {
  if (threadIdx.x < 32) { __syncthreads(); out[0] = 1; } else { __syncthreads(); out[1] = 2; }
}
extern "C" __global__ void shuffle_ended(float* out) {
  if (threadIdx.x == 40) return;
  out[threadIdx.x] = __shfl_xor(out[threadIdx.x], 1, 32);
}
extern "C" __global__ void shuffle_or_barrier(float* out) {
  if (threadIdx.x == 5)
    __syncthreads();
  else
    out[threadIdx.x] = __shfl_xor(out[threadIdx.x], 1, 32);
}
extern "C" __global__ void uneven_loop(float* out) {
  for (unsigned i = 0; i < 3 + (threadIdx.x == 62); ++i)
    __syncthreads();
}
extern "C" __global__ void fine(float* out) {
  if (threadIdx.x < 32)
    for (int i = 0; i < 5; ++i) out[threadIdx.x] = __shfl_xor(1.0f, 1, 32);
  __syncthreads();
  if (threadIdx.x >= 32) out[threadIdx.x] = __shfl_xor(2.0f, 1, 32);
}
)");
  Buffer<float> out(256);
  const auto expect = [&](const char* name, Extent grid, Extent block,
                          std::vector<std::string> parts) {
    const std::string report = kernels.run(name, grid, block, 0, out.device);
    parts.push_back(std::string("'") + name + "'");
    for (const std::string& part : parts)
      EXPECT_TRUE(contains(report, part)) << "'" << part << "' is not in: " << report;
  };
  expect("some_only", {}, {8},
         {"thread (0,0,0) has ended", "thread (4,0,0) waits at the barrier of line 4"});
  expect("ended_early", {1, 2}, {64, 2},
         {"block (0,1,0)", "thread (33,1,0) has ended", "barrier of line 9"});
  expect("two_places", {}, {64},
         {"thread (0,0,0) waits at the barrier of line 13",
          "thread (32,0,0) waits at the barrier of line 13"});
  expect("shuffle_ended", {}, {64}, {"thread (40,0,0) has ended", "shuffle of line 17"});
  expect("shuffle_or_barrier", {}, {64},
         {"thread (5,0,0) waits at the barrier of line 21", "shuffle of line 23"});
  expect("uneven_loop", {}, {64}, {"thread (62,0,0) waits at the barrier of line 27"});

  EXPECT_EQ(kernels.run("fine", {}, {64}, 0, out.device), "") << "groups may go apart";
  EXPECT_EQ(out.download()[3], 1.0f);
  EXPECT_EQ(out.values[40], 2.0f);
}

TEST(KernelBlocks, LaunchesFromManyThreadsShareTheWorkers) {
  if (!in_child_with({{"KEVRA_CPU_THREADS", "4"}})) return;
  const Kernels kernels(R"(
extern "C" __global__ void work(int* out, int rounds) {
  extern __shared__ int sums[];
  sums[threadIdx.x] = 1;
  for (int r = 0; r < rounds; ++r) {
    __syncthreads();
    int v = sums[(threadIdx.x + 1) & 63];
    __syncthreads();
    sums[threadIdx.x] = v + 1;
  }
  atomicAdd(out, sums[threadIdx.x]);
}
)");
  void* const function = kernels.function("work");
  std::vector<std::thread> callers;
  for (int caller = 0; caller < 4; ++caller)
    callers.emplace_back([&, caller] {
      void* stream = new_stream(non_blocking);
      Buffer<int> out(1);
      int expected = 0;
      // Tiny launches, where no help comes, and large ones, where it does.
      for (int i = 0; i < 200; ++i) {
        int rounds = i % 7;
        const unsigned blocks = i % 5 == 0 ? 40 + caller : 1 + i % 3;
        void* arguments[] = {&out.device, &rounds};
        ASSERT_EQ(
            ModuleLaunchKernel(function, blocks, 1, 1, 64, 1, 1, 256, stream, arguments, nullptr),
            0);
        expected += static_cast<int>(blocks) * 64 * (rounds + 1);
      }
      ASSERT_EQ(StreamSynchronize(stream), 0);
      EXPECT_EQ(out.download()[0], expected);
      StreamDestroy(stream);
    });
  for (std::thread& caller : callers) caller.join();
}

TEST(KernelBlocks, FramesOfAnySizeAndBlocksOfAnySizeFit) {
  const Kernels kernels(R"(
extern "C" __global__ void heavy(const int* x, int* out) {
  int kept[700];
  for (int i = 0; i < 700; ++i) kept[i] = x[(threadIdx.x * 31 + i) & 1023];
  __syncthreads();
  int sum = 0;
  for (int i = 0; i < 700; ++i) sum += kept[i] * (i + (int)threadIdx.x % 5);
  out[blockIdx.x * blockDim.x + threadIdx.x] = sum;
}
)");
  Buffer<int> x(1024), out(3 * 1024);
  for (int i = 0; i < 1024; ++i) x.values[i] = i * i % 1009;
  x.upload();
  for (const unsigned threads : {1u, 33u, 1024u}) {
    ASSERT_EQ(kernels.run("heavy", {3}, {threads}, 0, x.device, out.device), "");
    out.download();
    for (unsigned t = 0; t < 3 * threads; ++t) {
      int sum = 0;
      for (unsigned i = 0; i < 700; ++i)
        sum += x.values[(t % threads * 31 + i) & 1023] * int(i + t % threads % 5);
      ASSERT_EQ(out.values[t], sum) << threads << " threads, " << t;
    }
  }
}

}  // namespace
