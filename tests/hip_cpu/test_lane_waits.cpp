// What threads of lane code keep and exchange while they wait: values across barriers, shuffles,
// and additions that wait for the group's end.
#include <algorithm>

#include "lane_fate.h"

using namespace hip;

namespace {

// Values that wait at barriers: used again behind several of them, changed in between, set under a
// condition or where a loop is left, a record's members at different ones, names that stand for two
// variables, barriers in loops and in branches of the preprocessor between those in sequence.
TEST(LaneWaits, ValuesComeThroughBarriersUnchanged) {
  std::string output;
  if (!in_child_with(told, &output)) {
    EXPECT_GT(fate_of(output, "waiting").groups, 0U) << output;
    return;
  }
  const Kernels kernels(R"(
typedef float2 cplx;
extern "C" __global__ void waiting(const float* __restrict__ x, float* __restrict__ out) {
  __shared__ float cells[32];
  int tid = threadIdx.x, at = blockIdx.x * 32 + tid;
  float first = x[at], second = 2.0f * first;
  cplx pair, late;
  pair.x = 3.0f * first;
  pair.y = 4.0f * first;
  cells[tid] = first;
  __syncthreads();
  late.x = cells[31 - tid];
  if (tid < 16) { late.y = 5.0f * first; } else { late.y = 6.0f * first; }
  __syncthreads();
  cells[tid] = pair.y;
  second = second + 1.0f;
  __syncthreads();
  {
    float first = cells[tid ^ 1], third = first + second;
    __syncthreads();
    cells[tid] = third;
#ifdef NOWHERE
    __syncthreads();
    late.x = 0.0f;
#endif
    for (int i = 0; i < 3; ++i) {
      __syncthreads();
      float more = cells[tid ^ i];
      __syncthreads();
      cells[tid] = more;
      pair.x += more;
    }
  }
  cplx whole = pair;
  for (int i = 0; i < 3; ++i) {
    if (i == 1) { late.y = late.y + 1.0f; break; }
  }
  __syncthreads();
  double wide = first;
  __syncthreads();
  out[5 * at] = first + (float)wide;
  out[5 * at + 1] = second;
  out[5 * at + 2] = whole.x;
  out[5 * at + 3] = late.x;
  out[5 * at + 4] = late.y + whole.y;
}
)");
  Buffer<float> x(count), out(5 * count);
  for (unsigned i = 0; i < count; ++i) x.values[i] = float(i % 97);
  x.upload();
  ASSERT_EQ(kernels.run("waiting", {blocks}, {threads}, 0, x.device, out.device), "");
  out.download();
  for (unsigned i = 0; i < count; ++i) {
    const unsigned row = i / threads * threads, thread = i % threads;
    const auto value = [&](unsigned t) { return x.values[row + t]; };
    const auto third = [&](unsigned t) { return 4 * value(t ^ 1) + 2 * value(t) + 1; };
    const float v = value(thread);
    // What the loop turns around: by 0, by 1, and from there by 2.
    const float sum = third(thread) + third(thread ^ 1) + third(thread ^ 3);
    const float expected[] = {2 * v, 2 * v + 1, 3 * v + sum, value(31 - thread),
                              (thread < 16 ? 9 : 10) * v + 1};
    for (unsigned k = 0; k < 5; ++k)
      ASSERT_EQ(out.values[5 * i + k], expected[k]) << k << ", thread " << thread;
  }
}

TEST(LaneWaits, ShufflesExchangeLaneByLane) {
  std::string output;
  if (!in_child_with(told, &output)) {
    EXPECT_GT(fate_of(output, "exchanged").groups, 0U) << output;
    EXPECT_EQ(fate_of(output, "exchanged").diverged, 0U) << output;
    return;
  }
  const Kernels kernels(R"(
extern "C" __global__ void exchanged(const float* __restrict__ x, float* __restrict__ out) {
  int at = blockIdx.x * 40 + threadIdx.x;
  float v = x[at];
  double wide = __shfl_xor((double)v, 3, 32);
  int number = __shfl_xor((int)threadIdx.x, 1, 32);
  for (int mask = 16; mask > 0; mask /= 2) v += __shfl_xor(v, mask, 32);
  out[3 * at] = v;
  out[3 * at + 1] = (float)wide;
  out[3 * at + 2] = (float)number;
}
)");
  constexpr unsigned width = 40;  // the last 8 threads make a group of their own
  Buffer<float> x(blocks * width), out(3 * blocks * width);
  for (unsigned i = 0; i < x.values.size(); ++i) x.values[i] = float(i % 51);
  x.upload();
  ASSERT_EQ(kernels.run("exchanged", {blocks}, {width}, 0, x.device, out.device), "");
  out.download();
  for (unsigned i = 0; i < x.values.size(); ++i) {
    const unsigned thread = i % width, row = i - thread;
    float sums[width];
    for (unsigned t = 0; t < width; ++t) sums[t] = x.values[row + t];
    for (unsigned mask = 16; mask > 0; mask /= 2) {
      float before[width];
      std::copy(sums, sums + width, before);
      for (unsigned t = 0; t < width; ++t)  // who has no partner gets its own value
        sums[t] += before[(t ^ mask) < width && (t ^ mask) / 32 == t / 32 ? t ^ mask : t];
    }
    ASSERT_EQ(out.values[3 * i], sums[thread]) << "thread " << thread;
    ASSERT_EQ(out.values[3 * i + 1], x.values[row + (thread ^ 3)]);
    ASSERT_EQ(out.values[3 * i + 2], float(thread ^ 1));
  }
}

// Each addition counts once, also in a group that parts behind it, and a block that reads where it
// has added sees it.
TEST(LaneWaits, AdditionsCountOnceEach) {
  std::string output;
  if (!in_child_with(told, &output)) {
    EXPECT_GT(fate_of(output, "added").groups, 0U) << output;
    EXPECT_EQ(fate_of(output, "added").diverged, 1U) << output;
    EXPECT_GT(fate_of(output, "read_back").diverged, 0U) << output;
    return;
  }
  const Kernels kernels(R"(
extern "C" __global__ void added(const float* __restrict__ x, float* sums, int* total) {
  __shared__ float cells[32];
  cells[threadIdx.x] = 0.0f;
  __syncthreads();
  atomicAdd(&cells[threadIdx.x / 2 * 2], x[blockIdx.x * 32 + threadIdx.x]);
  __syncthreads();
  atomicAdd(&sums[blockIdx.x * 16 + threadIdx.x], cells[threadIdx.x] + 1.0f);
  atomicAdd(total, 1);
  if (blockIdx.x == 20) atomicAdd(&(total[1]), 1);
}
extern "C" __global__ void read_back(float* sums, float* out) {
  __syncthreads();
  int at = blockIdx.x * 32 + threadIdx.x;
  atomicAdd(&sums[at], 1.0f);
  float sum = sums[at];
  out[at] = sum;
}
)");
  Buffer<float> x(count), sums(16 * blocks + 16, 0.0f), seen(count, 0.0f), out(count);
  Buffer<int> total(2);
  for (unsigned i = 0; i < count; ++i) x.values[i] = float(i % 13);
  x.upload();
  ASSERT_EQ(kernels.run("added", {blocks}, {threads}, 0, x.device, sums.device, total.device), "");
  std::vector<float> expected(sums.values.size());
  for (unsigned i = 0; i < count; ++i) {
    const float both = i % 2 == 0 ? x.values[i] + x.values[i + 1] : 0.0f;
    expected[i / threads * 16 + i % threads] += both + 1;
  }
  EXPECT_EQ(sums.download(), expected);
  total.download();
  EXPECT_EQ(total.values[0], int(count));
  EXPECT_EQ(total.values[1], int(threads));
  ASSERT_EQ(kernels.run("read_back", {blocks}, {threads}, 0, seen.device, out.device), "");
  EXPECT_EQ(out.download(), std::vector<float>(count, 1.0f));
}

}  // namespace
