// Check mode: kernels that are wrong on purpose, each told by name, and right ones that pass.
#include "kernel_api.h"

using namespace hip;

namespace {

const char* const text = R"(
extern "C" __global__ void shared_race(float* out) {
  extern __shared__ float cells[];
  cells[threadIdx.x] = threadIdx.x;
  __syncthreads();
  out[threadIdx.x] = cells[threadIdx.x];
  cells[(threadIdx.x + 1) & 255] = 3.0f;
}
extern "C" __global__ void missing_barrier(float* out) {
  extern __shared__ float cells[];
  cells[threadIdx.x] = threadIdx.x;
  __syncthreads();
  for (int s = 128; s > 0; s >>= 1) {
    if (threadIdx.x < s) cells[threadIdx.x] += cells[threadIdx.x + s];
    if (s > 64) __syncthreads();
  }
  out[threadIdx.x] = cells[0];
}
extern "C" __global__ void static_race(float* out) {
  __shared__ float cell[1];
  if (threadIdx.x == 7) cell[0] = 1;
  out[threadIdx.x] = cell[0];
}
extern "C" __global__ void block_race(float* out) { out[threadIdx.x] = blockIdx.x; }
extern "C" __global__ void block_read(float* out) {
  out[blockIdx.x * 64 + threadIdx.x] = 1;
  if (blockIdx.x == 3) out[0] = out[2 * 64];
}
extern "C" __global__ void atomic_and_store(int* out) {
  if (blockIdx.x == 2) out[0] = 5; else atomicAdd(out, 1);
}
extern "C" __global__ void stray_read(float* out, int at) {
  out[threadIdx.x] = out[threadIdx.x + (threadIdx.x == 9 ? at : 0)];
}
extern "C" __global__ void stray_write(float* out, long long at) {
  if (blockIdx.x == 1 && threadIdx.x == 9) out[at] = 1;
}
extern "C" __global__ void stray_copy(float4* out, int at) {
  if (threadIdx.x == 3) out[at] = out[0];
}
extern "C" __global__ void stray_atomic(int* out, int at) { atomicAdd(out + at, 1); }
extern "C" __global__ void stray_shared(float* out) {
  extern __shared__ float cells[];
  cells[threadIdx.x] = 1;
  out[threadIdx.x] = cells[threadIdx.x];
}
extern "C" __global__ void unset_shared(float* out) {
  extern __shared__ float cells[];
  out[threadIdx.x] = cells[threadIdx.x];
}
extern "C" __global__ void divergent(float* out) {
  if (threadIdx.x > 3) __syncthreads();
  out[threadIdx.x] = 1;
}
extern "C" __global__ void stray_loop(const float* x, float* out) {
  float held[12];
  for (int i = 0; i < 12; ++i) held[i] = x[i];
  out[threadIdx.x] = held[threadIdx.x % 12];
}
)";

TEST(CheckFaults, EveryFaultIsToldByKernelBlockAndThread) {
  if (!in_child_with({{"KEVRA_CPU_CHECK", "1"}})) return;
  const Kernels kernels(text);
  Buffer<float> out(256);
  Buffer<int> counts(256);
  const auto expect = [](const char* name, const std::string& report,
                         std::vector<std::string> parts) {
    parts.push_back(std::string("kernel '") + name + "'");
    for (const std::string& part : parts)
      EXPECT_TRUE(contains(report, part)) << "'" << part << "' is not in: " << report;
  };
  const auto run = [&](const char* name, Extent grid, unsigned shared, auto... arguments) {
    return kernels.run(name, grid, {256}, shared, arguments...);
  };
  float* const p = out.device;
  expect("shared_race", run("shared_race", {}, 1024, p),
         {"race", "block (0,0,0), thread (1,0,0) reads shared memory at byte 4",
          "thread (0,0,0) wrote", "since the one of line 5", "(test.hip:6)"});
  expect("missing_barrier", run("missing_barrier", {}, 1024, p),
         {"race", "thread (1,0,0) writes shared memory at byte 4, which other threads read",
          "since the one of line 15"});
  expect("static_race", run("static_race", {}, 0, p),
         {"race", "thread (7,0,0) writes static shared memory at byte 0", "thread (6,0,0) read"});
  expect("block_race", run("block_race", {2}, 0, p),
         {"race", "block (1,0,0), thread (0,0,0) writes byte 0", "block (0,0,0) wrote"});
  expect("block_read", kernels.run("block_read", {4}, {64}, 0, p),
         {"race", "block (3,0,0), thread (0,0,0) reads byte 512", "block (2,0,0) wrote",
          "(test.hip:27)"});
  expect("atomic_and_store", run("atomic_and_store", {4}, 0, counts.device),
         {"race", "block (2,0,0)", "writes byte 0", "changed atomically"});
  expect("stray_read", run("stray_read", {}, 0, p, 250),
         {"stray access", "block (0,0,0), thread (9,0,0) reads 4 bytes", "at byte 1036",
          "1024 bytes at"});
  expect("stray_write", run("stray_write", {3}, 0, p, -1000000000000ll),
         {"stray access", "block (1,0,0), thread (9,0,0) writes 4 bytes", "before"});
  expect("stray_copy", run("stray_copy", {}, 0, p, 64),
         {"stray access", "thread (3,0,0) writes", "at byte 1024", "(test.hip:39)"});
  expect("stray_atomic", run("stray_atomic", {}, 0, counts.device, 256),
         {"stray access", "thread (0,0,0) changes 4 bytes", "at byte 1024", "(test.hip:41)"});
  expect("stray_shared", run("stray_shared", {}, 512, p),
         {"stray access", "thread (128,0,0) writes", "512 bytes into the block's shared memory"});
  expect("stray_loop", run("stray_loop", {}, 0, p + 250, p),
         {"stray access", "thread (0,0,0) reads 4 bytes", "at byte 1024", "(test.hip:57)"});
  expect("divergent", run("divergent", {}, 0, p), {"barrier of line"});

  EXPECT_EQ(run("unset_shared", {}, 1024, p), "");
  for (const float v : out.download()) ASSERT_NE(v, v) << "fresh shared memory is no number";
  EXPECT_EQ(run("block_race", {1}, 0, p), "") << "the checker goes on after faults";
}

TEST(CheckFaults, RightKernelsPass) {
  if (!in_child_with({{"KEVRA_CPU_CHECK", "1"}, {"KEVRA_CPU_ORDER", "shuffle:3"}})) return;
  const Kernels kernels(R"(
extern "C" __global__ void tree(const float* x, float* out, int n) {
  extern __shared__ float red[];
  int tid = threadIdx.x;
  float sum = 0;
  for (int i = tid; i < n; i += 256) sum += x[i];
  red[tid] = sum;
  __syncthreads();
  for (int s = 128; s > 0; s >>= 1) {
    if (tid < s) red[tid] += red[tid + s];
    __syncthreads();
  }
  if (tid == 0) out[blockIdx.x] = red[0];
}
// Neighbouring halves of one word belong to different threads and blocks.
extern "C" __global__ void halves(const float* x, __half* out) {
  extern __shared__ __half cells[];
  cells[threadIdx.x] = __float2half_rn(x[threadIdx.x]);
  __syncthreads();
  out[blockIdx.x * 63 + threadIdx.x] = cells[62 - threadIdx.x];
}
// A shuffle orders a group: each thread writes what its neighbour has read before.
extern "C" __global__ void by_shuffle(const float* x, float* out) {
  extern __shared__ float cells[];
  int tid = threadIdx.x;
  cells[tid] = x[tid];
  float token = __shfl_xor(1.0f, 1, 32);
  float v = cells[tid ^ 1] + cells[tid & 32];
  token = __shfl_xor(token, 1, 32);
  if (tid % 32 == 0) cells[tid] = 5;
  out[tid] = v * token;
}
extern "C" __global__ void counted(int* count) { atomicAdd(count, 1); }
extern "C" __global__ void local_array(const float* x, float* out) {
  float kept[40];
  for (int i = 0; i < 40; ++i) kept[i] = x[i];
  __syncthreads();
  float sum = 0;
  for (int i = 0; i < 40; ++i) sum += kept[(i * 7 + threadIdx.x) % 40];
  out[threadIdx.x] = sum;
}
)");
  Buffer<float> x(1024, 0.5f), out(1024);
  Buffer<uint16_t> halves(1024);
  Buffer<int> count(1);
  EXPECT_EQ(kernels.run("tree", {5}, {256}, 1024, x.device, out.device, 1024), "");
  EXPECT_EQ(out.download()[4], 512.0f);
  EXPECT_EQ(kernels.run("halves", {16}, {63}, 126, x.device, halves.device), "");
  EXPECT_EQ(kernels.run("by_shuffle", {}, {64}, 256, x.device, out.device), "");
  EXPECT_EQ(kernels.run("counted", {16}, {64}, 0, count.device), "");
  EXPECT_EQ(count.download()[0], 1024);
  EXPECT_EQ(kernels.run("local_array", {1}, {256}, 0, x.device, out.device), "");
}

TEST(CheckFaults, MemoryCountsOnlyWhileItLives) {
  if (!in_child_with({{"KEVRA_CPU_CHECK", "1"}})) return;
  const Kernels kernels(R"(
extern "C" __global__ void fill(float* out) { out[threadIdx.x] = blockIdx.x * 0 + 1; }
extern "C" __global__ void number(float* out) { out[threadIdx.x] = blockIdx.x + 2; }
)");
  float* freed = nullptr;
  {
    Buffer<float> out(64);
    freed = out.device;
    EXPECT_TRUE(contains(kernels.run("fill", {2}, {64}, 0, out.device), "race"))
        << "equal values race too";
    EXPECT_TRUE(contains(kernels.run("number", {2}, {64}, 0, out.device), "race"));
    EXPECT_EQ(kernels.run("number", {1}, {64}, 0, out.device), "")
        << "what earlier launches wrote is over";
  }
  EXPECT_TRUE(contains(kernels.run("fill", {1}, {64}, 0, freed), "stray access"));
}

// Counts are exact: bytes of both directions, segments by wave, conflicts by bank.
TEST(CheckFaults, ProfileCountsWhatTheMemorySees) {
  const std::string file = testing::TempDir() + "kevra_profile_" + std::to_string(getpid());
  if (std::getenv("KEVRA_TEST_CHILD")) {
    const Kernels kernels(R"(
extern "C" __global__ void copy(const float* x, float* out, int stride) {
  int i = blockIdx.x * 64 + threadIdx.x;
  out[i] = x[i * stride];
}
extern "C" __global__ void column(float* out, int pitch) {
  extern __shared__ float cells[];
  cells[threadIdx.x * pitch] = 1;
  __syncthreads();
  if (threadIdx.x & 1) out[threadIdx.x] = cells[threadIdx.x * pitch];
}
)");
    Buffer<float> x(128 * 32), out(128);
    for (int stride : {1, 32})
      EXPECT_EQ(kernels.run("copy", {2}, {64}, 0, x.device, out.device, stride), "");
    for (int pitch : {1, 32, 33})
      EXPECT_EQ(kernels.run("column", {}, {64}, 64 * 33 * 4, out.device, pitch), "");
    return;
  }
  in_child_with({{"KEVRA_CPU_CHECK", "1"}, {"KEVRA_CPU_PROFILE", file.c_str()}});
  std::vector<std::string> lines;
  FILE* profile = fopen(file.c_str(), "r");
  ASSERT_NE(profile, nullptr);
  char line[1024];
  while (fgets(line, sizeof line, profile)) lines.push_back(line);
  fclose(profile);
  unlink(file.c_str());
  ASSERT_EQ(lines.size(), 5u);
  const auto expect = [&](size_t i, const char* field, long value) {
    const std::string part = std::string("\"") + field + "\": " + std::to_string(value);
    EXPECT_TRUE(contains(lines[i], part + ",") || contains(lines[i], part + "}"))
        << part << " is not in " << lines[i];
  };
  for (size_t i : {0, 1}) {
    expect(i, "bytes_read", 512);
    expect(i, "bytes_written", 512);
  }
  expect(0, "segment_bytes", 1024);
  expect(0, "touched_bytes", 1024);
  expect(1, "segment_bytes", 512 + 128 * 64);
  expect(1, "touched_bytes", 512 + 128 * 64);
  for (size_t i : {2, 3, 4}) {
    expect(i, "bytes_written", 128);
    expect(i, "barriers", 1);
    expect(i, "shared_accesses", 4);
  }
  // A column of pitch 32 lies in one bank: 32 words take 32 cycles in place of one. Of the 16
  // threads that read, each word costs a cycle as well.
  expect(2, "bank_conflicts_32", 0);
  expect(3, "bank_conflicts_32", 2 * 31 + 2 * 15);
  expect(4, "bank_conflicts_32", 0);
  expect(3, "bank_conflicts_64", 62 + 31);
}

}  // namespace
