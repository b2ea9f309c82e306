// Blocks in SIMD lanes: kernels give what they give block by block, groups whose blocks part leave
// no trace, and kernels without a lane form run as before.
#include <cmath>
#include <fstream>

#include "lane_fate.h"

using namespace hip;

namespace {

// Every kernel turns its block's elements around through shared memory and parts somewhere.
const char* const parting_text = R"(
#define READ cells[threadIdx.x] = x[blockIdx.x * 32 + threadIdx.x]; __syncthreads()
extern "C" __global__ void never(const float* x, float* out) {
  __shared__ float cells[32];
  READ;
  float v = cells[31 - threadIdx.x];
  out[blockIdx.x * 32 + threadIdx.x] = v + 1.0f;
}
extern "C" __global__ void before_a_store(const float* x, float* out) {
  __shared__ float cells[32];
  READ;
  float v = cells[31 - threadIdx.x];
  if (blockIdx.x == 20) v = -v;
  out[blockIdx.x * 32 + threadIdx.x] = v;
}
extern "C" __global__ void behind_a_store(const float* x, float* out) {
  __shared__ float cells[32];
  READ;
  float v = cells[31 - threadIdx.x];
  out[blockIdx.x * 32 + threadIdx.x] = v;
  __syncthreads();
  if (blockIdx.x == 20) out[blockIdx.x * 32 + threadIdx.x] = -v;
}
extern "C" __global__ void in_place(const float* x, float* out) {
  __shared__ float cells[32];
  READ;
  float v = cells[31 - threadIdx.x];
  out[blockIdx.x * 32 + threadIdx.x] = v;
  __syncthreads();
  if (blockIdx.x == 20 && threadIdx.x == 31) out[blockIdx.x * 32] = 0.5f;
}
extern "C" __global__ void adding(float* x) {
  __shared__ float cells[32];
  float* out = x;
  READ;
  float v = cells[31 - threadIdx.x];
  out[blockIdx.x * 32 + threadIdx.x] += 1.0f + 0.0f * v;
  __syncthreads();
  if (blockIdx.x == 20) out[blockIdx.x * 32 + threadIdx.x] += 1.0f;
}
extern "C" __global__ void last_rows(const float* x, float* out, int rows) {
  __shared__ float cells[32];
  int row = blockIdx.x < rows - 1 ? blockIdx.x : rows - 1;
  cells[threadIdx.x] = x[row * 32 + threadIdx.x];
  __syncthreads();
  if (blockIdx.x >= rows) return;
  out[blockIdx.x * 32 + threadIdx.x] = cells[31 - threadIdx.x];
}
extern "C" __global__ void edge_frames(const float* x, float* out, int length, int hop, int pad) {
  __shared__ float cells[32];
  long long start = (long long)blockIdx.x * hop - pad;
  float sum = 0.0f;
  for (int j = threadIdx.x; j < 64; j += 32) {
    long long q = start + j;
    if (q < 0 || q >= length) {
      long long period = 2 * (length - 1);
      q %= period; if (q < 0) q += period;
      if (q >= length) q = period - q;
    }
    sum += x[q];
  }
  cells[threadIdx.x] = sum;
  __syncthreads();
  out[blockIdx.x * 32 + threadIdx.x] = cells[31 - threadIdx.x];
}
extern "C" __global__ void on_data(const float* x, float* out) {
  __shared__ float cells[32];
  READ;
  float v = cells[31 - threadIdx.x];
  if (v > 1990.0f) v = 1990.0f;
  out[blockIdx.x * 32 + threadIdx.x] = v;
}
)";

float turned(unsigned i) {
  return float(i / threads * threads + threads - 1 - i % threads);
}

// The kernel's output for x[i] = i.
template <typename... More>
std::vector<float> output_of(const Kernels& kernels, const char* name, More... more) {
  Buffer<float> x(count), out(count, -1.0f);
  for (unsigned i = 0; i < count; ++i) x.values[i] = float(i);
  x.upload();
  EXPECT_EQ(kernels.run(name, {blocks}, {threads}, 0, x.device, out.device, more...), "");
  return out.download();
}

template <typename Expected>
void expect_each(const char* name, const std::vector<float>& values, Expected expected) {
  for (unsigned i = 0; i < count; ++i) ASSERT_EQ(values[i], expected(i)) << name << ", " << i;
}

float reflected(int q, int length) {
  while (q < 0 || q >= length) q = q < 0 ? -q : 2 * (length - 1) - q;
  return float(q);
}

void run_parting_kernels() {
  const Kernels kernels(parting_text);
  expect_each("never", output_of(kernels, "never"), [](unsigned i) { return turned(i) + 1; });
  const auto negative_20 = [](unsigned i) { return i / threads == 20 ? -turned(i) : turned(i); };
  expect_each("before_a_store", output_of(kernels, "before_a_store"), negative_20);
  expect_each("behind_a_store", output_of(kernels, "behind_a_store"), negative_20);
  expect_each("last_rows", output_of(kernels, "last_rows", 53),
              [](unsigned i) { return i < 53 * threads ? turned(i) : -1.0f; });
  expect_each("edge_frames", output_of(kernels, "edge_frames", 500, 8, 32), [](unsigned i) {
    const int j = int(threads - 1 - i % threads), start = int(i / threads) * 8 - 32;
    return reflected(start + j, 500) + reflected(start + j + 32, 500);
  });
  expect_each("on_data", output_of(kernels, "on_data"),
              [](unsigned i) { return std::min(turned(i), 1990.0f); });

  // What ran twice would be turned, or counted, twice.
  Buffer<float> x(count);
  for (unsigned i = 0; i < count; ++i) x.values[i] = float(i);
  x.upload();
  EXPECT_EQ(kernels.run("in_place", {blocks}, {threads}, 0, x.device, x.device), "");
  expect_each("in_place", x.download(),
              [](unsigned i) { return i == 20 * threads ? 0.5f : turned(i); });
  EXPECT_EQ(kernels.run("adding", {blocks}, {threads}, 0, x.device), "");
  expect_each("adding", x.download(), [](unsigned i) {
    return (i == 20 * threads ? 0.5f : turned(i)) + (i / threads == 20 ? 2 : 1);
  });
}

TEST(Lanes, GroupsThatPartLeaveNoTrace) {
  std::string output;
  if (!in_child_with(told, &output)) {
    const auto diverged = [&](const char* name) {
      const Fate fate = fate_of(output, name);
      EXPECT_GT(fate.groups, 0U) << name << "\n" << output;
      EXPECT_EQ(fate.groups * fate.lanes, blocks) << name;
      EXPECT_EQ(fate.alone, fate.diverged * fate.lanes) << name;
      return fate.diverged;
    };
    EXPECT_EQ(diverged("never"), 0U);
    for (const char* name :
         {"before_a_store", "behind_a_store", "in_place", "adding", "last_rows", "on_data"})
      EXPECT_EQ(diverged(name), 1U) << name;
    EXPECT_GE(diverged("edge_frames"), 2U) << "the first frames and the last";
    return;
  }
  run_parting_kernels();
}

// The same kernels and results where nothing runs in lanes, among them the modes that watch or
// reorder single blocks.
TEST(Lanes, AreOffByTheSwitchAndInModesOfSingleBlocks) {
  if (std::getenv("KEVRA_TEST_CHILD")) return run_parting_kernels();
  for (const char* name : {"KEVRA_CPU_LANES=0", "KEVRA_CPU_CHECK=1", "KEVRA_CPU_ORDER=shuffle:3",
                           "KEVRA_CPU_ORDER=forward", "KEVRA_CPU_QUICK=1"}) {
    const std::string text = name;
    const std::string variable = text.substr(0, text.find('=')),
                      value = text.substr(text.find('=') + 1);
    std::string output;
    in_child_with({{"KEVRA_DEBUG", "1"}, {variable.c_str(), value.c_str()}}, &output);
    EXPECT_EQ(fate_of(output, "never").groups, 0U) << name << "\n" << output;
  }
}

// 6400 blocks whose groups all part, and as many whose groups do not: few of the first are tried in
// lanes, and most of the second run in them.
void expect_lanes_back(unsigned launches) {
  std::string output;
  if (!in_child_with({{"KEVRA_DEBUG", "1"}, {"KEVRA_CPU_THREADS", "1"}}, &output)) {
    const Fate fate = fate_of(output, "odd");
    EXPECT_GE(fate.diverged, 16U) << output;
    EXPECT_LT(fate.diverged, 80U) << output;
    EXPECT_GT((fate.groups - fate.diverged) * fate.lanes, 4800U) << output;
    return;
  }
  const Kernels kernels(R"(
extern "C" __global__ void odd(int* out, int modulus) {
  __syncthreads();
  int remainder = blockIdx.x % modulus;
  out[blockIdx.x] = remainder;
}
)");
  Buffer<int> out(6400);
  ASSERT_EQ(kernels.run("odd", {6400}, {1}, 0, out.device, 2), "");
  out.download();
  for (int i = 0; i < 6400; ++i) ASSERT_EQ(out.values[i], i & 1);
  for (unsigned i = 0; i < launches; ++i)
    ASSERT_EQ(kernels.run("odd", {6400 / launches}, {1}, 0, out.device, 1), "");
  out.download();
  for (int i = 0; i < 6400; ++i) ASSERT_EQ(out.values[i], i < int(6400 / launches) ? 0 : i & 1);
}

TEST(Lanes, KernelThatMostlyPartsHasThemBackInALongLaunch) { expect_lanes_back(1); }

TEST(Lanes, KernelThatMostlyPartsHasThemBackInShortLaunches) { expect_lanes_back(100); }

// Rows of every element type into lanes and back, turned around: each lane has a row of its own.
TEST(Lanes, EveryElementTypeMovesThroughThem) {
  std::string output;
  const std::vector<const char*> names = {"float",   "float2", "float4",  "double",
                                          "double2", "__half", "__half2", "int"};
  if (!in_child_with(told, &output)) {
    for (const char* name : names)
      EXPECT_GT(fate_of(output, std::string("turn_") + name).groups, 0U) << name << "\n" << output;
    return;
  }
  for (const std::string name : names) {
    const std::string text = "extern \"C\" __global__ void turn_" + name + "(const " + name +
                             "* __restrict__ x, " + name + R"(* __restrict__ out) {
  extern __shared__ )" + name +
                             R"( cells[];
  )" + name + R"( value = x[(long long)blockIdx.x * 32 + threadIdx.x];
  cells[threadIdx.x] = value;
  __syncthreads();
  out[(long long)blockIdx.x * 32 + threadIdx.x] = cells[31 - threadIdx.x];
})";
    const Kernels kernels(text.c_str());
    const unsigned words = name == "__half"                       ? 1
                           : name == "__half2" || name == "float" ? 2
                           : name == "int"                        ? 2
                           : name == "float2" || name == "double" ? 4
                                                                  : 8;
    Buffer<uint16_t> x(count * words), out(count * words);
    for (unsigned i = 0; i < x.values.size(); ++i) x.values[i] = uint16_t(i % 30000);
    x.upload();
    ASSERT_EQ(kernels.run(("turn_" + name).c_str(), {blocks}, {threads}, threads * words * 2,
                          x.device, out.device),
              "");
    out.download();
    for (unsigned i = 0; i < count; ++i)
      for (unsigned w = 0; w < words; ++w)
        ASSERT_EQ(out.values[i * words + w], x.values[unsigned(turned(i)) * words + w])
            << name << ", element " << i;
  }
}

// Overlapping frames of two signals, the second at an odd place: in pairs where the whole frame
// lies within the signal, one by one with reflection elsewhere. Only the groups at the edges part.
TEST(Lanes, FramesOfASignalPartAtItsEdgesAlone) {
  constexpr int hop = 16, pad = 32, length = 1023, frame = 2 * int(threads);
  std::string output;
  if (!in_child_with(told, &output)) {
    const Fate fate = fate_of(output, "frames");
    EXPECT_EQ(fate.groups * fate.lanes, 2 * blocks) << output;
    EXPECT_EQ(fate.diverged, 4U) << output;
    return;
  }
  const Kernels kernels(R"(
#define REFLECTED(q) ((q) < 0 ? -(q) : ((q) >= length ? 2 * (length - 1) - (q) : (q)))
extern "C" __global__ void frames(const float* __restrict__ x, float* __restrict__ out, int length) {
  __shared__ float2 cells[32];
  int tid = threadIdx.x;
  const float* row = x + (long long)blockIdx.y * length;
  int start = blockIdx.x * 16 - 32;
  float a = (float)0, b = (float)0;
  if (((long long)row & 7) == 0 && start >= 0 && start + 64 <= length) {
    float2 pair = *(const float2*)(row + start + 2 * tid);
    a = pair.x;
    b = pair.y;
  } else {
    a = row[REFLECTED(start + 2 * tid)];
    b = row[REFLECTED(start + 2 * tid + 1)];
  }
  cells[tid] = make_float2(a, b);
  __syncthreads();
  float2 other = cells[31 - tid];
  long long at = ((long long)blockIdx.y * gridDim.x + blockIdx.x) * 64;
  out[at + 63 - 2 * tid] = other.y;
  out[at + 62 - 2 * tid] = other.x;
}
)");
  Buffer<float> x(2 * length), out(2 * blocks * frame);
  for (int i = 0; i < 2 * length; ++i) x.values[unsigned(i)] = float(i);
  x.upload();
  ASSERT_EQ(kernels.run("frames", {blocks, 2}, {threads}, 0, x.device, out.device, length), "");
  out.download();
  for (int i = 0; i < int(out.values.size()); ++i) {
    const int signal = i / frame / int(blocks), block = i / frame % int(blocks);
    ASSERT_EQ(out.values[unsigned(i)],
              float(signal * length) + reflected(block * hop - pad + i % frame, length))
        << "signal " << signal << ", frame " << block << ", sample " << i % frame;
  }
}

TEST(Lanes, LogarithmsAreTheNearestFloats) {
  std::string output;
  if (!in_child_with(told, &output)) {
    EXPECT_GT(fate_of(output, "logarithms").groups, 0U) << output;
    return;
  }
  const Kernels kernels(R"(
extern "C" __global__ void logarithms(const float* x, float* out) {
  __shared__ float cells[32];
  int at = blockIdx.x * 32 + threadIdx.x;
  cells[threadIdx.x] = x[at];
  __syncthreads();
  out[3 * at] = logf(cells[threadIdx.x]);
  out[3 * at + 1] = log2f(cells[threadIdx.x]);
  out[3 * at + 2] = log10f(cells[threadIdx.x]);
}
)");
  Buffer<float> x(count), out(3 * count);
  const float special[] = {0.0f,   -0.0f,    1.0f,      -1.0f,    INFINITY, -INFINITY,
                           NAN,    1e-45f,   1.17e-38f, 3.4e38f,  0.5f,     1024.0f,
                           1000.f, 0.70710f, 1.41421f,  1.00001f, 0.99999f, 10.0f};
  for (unsigned i = 0; i < count; ++i)
    x.values[i] = i < std::size(special) ? special[i] : std::exp2(float(i) / 8 - 128);
  x.upload();
  ASSERT_EQ(kernels.run("logarithms", {blocks}, {threads}, 0, x.device, out.device), "");
  out.download();
  for (unsigned i = 0; i < count; ++i) {
    const double value = x.values[i];
    const double expected[] = {std::log(value), std::log2(value), std::log10(value)};
    for (unsigned k = 0; k < 3; ++k) {
      const float result = out.values[3 * i + k], nearest = float(expected[k]);
      if (std::isfinite(nearest)) {
        ASSERT_NEAR(result, expected[k], std::abs(nearest) * 6.1e-8) << k << ", of " << value;
      } else {
        ASSERT_EQ(std::isnan(result), std::isnan(nearest)) << k << ", of " << value;
        ASSERT_TRUE(std::isnan(result) || result == nearest) << k << ", of " << value;
      }
    }
  }
}

// A product and what its rounding has lost, as a function leaves them in variables that begin as
// numbers common to all lanes.
TEST(Lanes, VariablesChangeThroughReferencesAndProductsAreFused) {
  std::string output;
  if (!in_child_with(told, &output)) {
    EXPECT_GT(fate_of(output, "products").groups, 0U) << output;
    return;
  }
  const Kernels kernels(R"(
__device__ void product(double& high, double& low, double a, double b) {
  double p = fma(a, b, 0.0);
  low += fma(a, b, -p);
  high += p;
}
extern "C" __global__ void products(const double* x, double* out) {
  __shared__ double cells[32];
  int at = blockIdx.x * 32 + threadIdx.x;
  cells[threadIdx.x] = x[at];
  __syncthreads();
  double high = 0, low = 0;
  product(high, low, cells[threadIdx.x], cells[31 - threadIdx.x]);
  out[2 * at] = high;
  out[2 * at + 1] = low;
}
)");
  Buffer<double> x(count), out(2 * count);
  for (unsigned i = 0; i < count; ++i) x.values[i] = 1 + 1.0 / (i + 3);
  x.upload();
  ASSERT_EQ(kernels.run("products", {blocks}, {threads}, 0, x.device, out.device), "");
  out.download();
  for (unsigned i = 0; i < count; ++i) {
    const double a = x.values[i], b = x.values[unsigned(turned(i))], p = a * b;
    ASSERT_EQ(out.values[2 * i], p) << i;
    ASSERT_EQ(out.values[2 * i + 1], std::fma(a, b, -p)) << i;
  }
}

TEST(Lanes, TextsWithoutALaneFormRunAndSayWhy) {
  std::string output;
  if (!in_child_with(told, &output)) {
    EXPECT_TRUE(contains(output, "not in lanes: its text has 'atomicMax'")) << output;
    EXPECT_TRUE(contains(output, "test.hip:6:")) << "the line that keeps lanes away: " << output;
    EXPECT_EQ(fate_of(output, "counted").groups, 0U);
    EXPECT_EQ(fate_of(output, "counted").alone, blocks) << output;
    EXPECT_EQ(fate_of(output, "looked_up").alone, blocks) << output;
    return;
  }
  const Kernels counting(R"(
extern "C" __global__ void counted(int* out) {
  __syncthreads();
  atomicMax(out, (int)blockIdx.x);
}
)");
  const Kernels looking(R"(
extern "C" __global__ void looked_up(const int* x, int* out) {
  __shared__ int cells[32];
  cells[threadIdx.x] = x[blockIdx.x * 32 + threadIdx.x];
  __syncthreads();
  out[blockIdx.x * 32 + threadIdx.x] = cells[cells[threadIdx.x]];
}
)");
  Buffer<int> x(count), out(count);
  for (unsigned i = 0; i < count; ++i) x.values[i] = int(i * 7 % threads);
  x.upload();
  ASSERT_EQ(counting.run("counted", {blocks}, {threads}, 0, out.device), "");
  EXPECT_EQ(out.download()[0], int(blocks) - 1);
  ASSERT_EQ(looking.run("looked_up", {blocks}, {threads}, 0, x.device, out.device), "");
  out.download();
  for (unsigned i = 0; i < count; ++i) {
    const unsigned row = i / threads * threads;
    ASSERT_EQ(out.values[i], x.values[row + unsigned(x.values[i])]) << i;
  }
}

// A grid that no group divides, with rows of blocks in y, from several threads.
TEST(Lanes, RestsOfRowsRunAlone) {
  std::string output;
  if (!in_child_with({{"KEVRA_DEBUG", "1"}, {"KEVRA_CPU_THREADS", "4"}}, &output)) {
    const Fate fate = fate_of(output, "scaled");
    ASSERT_GT(fate.lanes, 1U) << output;
    EXPECT_EQ(fate.groups, 100 * (21 / fate.lanes));
    EXPECT_EQ(fate.alone, 100 * (21 % fate.lanes));
    return;
  }
  const Kernels kernels(R"(
__device__ float scale(float v, int by) { return v * by; }
extern "C" __global__ void scaled(const float* x, float* out) {
  __shared__ float cells[32];
  unsigned row = blockIdx.y * gridDim.x + blockIdx.x;
  cells[threadIdx.x] = scale(x[row * 32 + threadIdx.x], 3);
  __syncthreads();
  out[row * 32 + threadIdx.x] = cells[31 - threadIdx.x];
}
)");
  Buffer<float> x(2100 * threads), out(2100 * threads);
  for (unsigned i = 0; i < x.values.size(); ++i) x.values[i] = float(i);
  x.upload();
  ASSERT_EQ(kernels.run("scaled", {21, 100}, {threads}, 0, x.device, out.device), "");
  out.download();
  for (unsigned i = 0; i < x.values.size(); ++i) ASSERT_EQ(out.values[i], 3 * turned(i)) << i;
}

TEST(Lanes, CodeMadeWithThemIsNotLoadedWithout) {
  const char* const path = std::getenv("KEVRA_TEST_CODE");
  if (path != nullptr) {
    std::ifstream file(path, std::ios::binary);
    std::string code((std::istreambuf_iterator<char>(file)), {});
    code.resize(code.size() + 4096);
    void* module = nullptr;
    EXPECT_EQ(ModuleLoadData(&module, code.data()), 209);
    return;
  }
  if (std::getenv("KEVRA_CPU_CHECK") || std::getenv("KEVRA_CPU_ORDER")) GTEST_SKIP();
  char name[] = "/tmp/kevra-lanes-XXXXXX";
  const int file = mkstemp(name);
  ASSERT_GE(file, 0);
  close(file);
  std::ofstream(name, std::ios::binary) << code_object();
  in_child_with({{"KEVRA_CPU_LANES", "0"}, {"KEVRA_TEST_CODE", name}});
  unlink(name);
}

}  // namespace
