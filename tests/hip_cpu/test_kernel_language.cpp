// The kernel language: what the device gives to a kernel text.
#include <bit>
#include <cmath>
#include <cstdint>

#include "kernel_api.h"

using namespace hip;

namespace {

TEST(KernelLanguage, IndicesCoverGridAndBlockInThreeDimensions) {
  const Kernels kernels(R"(
extern "C" __global__ void number(unsigned* out) {
  unsigned block = (blockIdx.z * gridDim.y + blockIdx.y) * gridDim.x + blockIdx.x;
  unsigned thread = (threadIdx.z * blockDim.y + threadIdx.y) * blockDim.x + threadIdx.x;
  unsigned threads = blockDim.x * blockDim.y * blockDim.z;
  out[block * threads + thread] += block * threads + thread;
}
extern "C" __global__ void number_waiting(unsigned* out) {
  unsigned block = (blockIdx.z * gridDim.y + blockIdx.y) * gridDim.x + blockIdx.x;
  __syncthreads();
  unsigned thread = (threadIdx.z * blockDim.y + threadIdx.y) * blockDim.x + threadIdx.x;
  __syncthreads();
  out[block * blockDim.x * blockDim.y * blockDim.z + thread] += block * 1000 + thread;
}
)");
  Buffer<unsigned> out(3 * 4 * 5 * 5 * 6 * 7);
  EXPECT_EQ(kernels.run("number", {3, 4, 5}, {5, 6, 7}, 0, out.device), "");
  for (unsigned i = 0; i < out.download().size(); ++i) ASSERT_EQ(out.values[i], i);
  out.values.assign(out.values.size(), 0);
  out.upload();
  EXPECT_EQ(kernels.run("number_waiting", {3, 4, 5}, {5, 6, 7}, 0, out.device), "");
  for (unsigned i = 0; i < out.download().size(); ++i)
    ASSERT_EQ(out.values[i], i / 210 * 1000 + i % 210);
}

// What must survive the rewriting: returns of helpers, of kernels with and without waits, waits
// that come out of a macro, comments, text that looks like code, branches of conditions.
TEST(KernelLanguage, TextIsRewrittenOnlyWhereAKernelNeedsIt) {
  const Kernels kernels(R"(
// extern "C" __global__ void commented(float* out) { return; }
#define MEET() \
  __syncthreads()
#define QUOTED "__global__ { return;"
typedef struct { int a, b; } Pair;
static const int table[4] = {1, 2, 3, 4};
__device__ __forceinline__ int helper(int x) { if (x > 2) return x; /* return; } */ return -x; }
__device__ int brace() { return '{' == '}' ? 0 : 5; }
extern "C" __global__ void __launch_bounds__(64, 2) first(int* __restrict__ out, Pair pair) {
  extern __shared__ int cells[];
  int tid = threadIdx.x;
#if __CUDA_ARCH__ >= 800
  if (tid > 3) {
    asm volatile("cp.async.wait_group 0; return; }");
#else
  if (tid > 5) {
#endif
    cells[tid] = helper(tid) + table[tid & 3];
  } else {
    cells[tid] = brace();
  }
  MEET();
  if (tid >= 32) return;
  out[tid] = cells[tid] * pair.a + pair.b;
}
extern "C"
__global__ void
second(
  int* out
) {
  if (threadIdx.x == 1) return;
  out[threadIdx.x] = __LINE__;
}
extern "C" __global__ void none() {}
)");
  Buffer<int> out(64);
  EXPECT_EQ(kernels.run("first", {}, {64}, 256, out.device, std::pair<int, int>{10, 1}), "");
  out.download();
  EXPECT_EQ(out.values[5], 51);
  EXPECT_EQ(out.values[6], (6 + 3) * 10 + 1);
  EXPECT_EQ(out.values[31], (31 + 4) * 10 + 1);
  EXPECT_EQ(out.values[32], 0);
  EXPECT_EQ(kernels.run("second", {}, {2}, 0, out.device), "");
  EXPECT_EQ(out.download()[0], 33) << "the text's own lines";
  EXPECT_EQ(kernels.run("none", {}, {2}, 0), "");
  EXPECT_TRUE(contains(kernels.run("first", {}, {65}, 256, out.device, 0LL), "1 to 64"));
}

TEST(KernelLanguage, SharedMemoryHoldsReductionsOfEveryWidth) {
  const Kernels kernels(R"(
extern "C" __global__ void total(const float* x, double* out, int n) {
  extern __shared__ char smem[];
  double* sums = (double*)smem;
  __shared__ unsigned long long unused[3][2];
  __shared__ int __align__(16) visits[4];
  int tid = threadIdx.x;
  for (int i = tid; i < 4; i += blockDim.x) visits[i] = 0;
  double sum = 0;
  for (int i = tid; i < n; i += blockDim.x) sum += x[(long long)blockIdx.x * n + i];
  sums[tid] = sum;
  __syncthreads();
  for (int s = blockDim.x / 2; s > 0; s >>= 1) {
    if (tid < s) sums[tid] += sums[tid + s];
    if (tid == s) visits[s & 3] += 1;
    __syncthreads();
  }
  if (tid == 0) out[blockIdx.x] = sums[0] + 1e6 * (visits[0] + visits[1] + visits[2]);
}
)");
  const unsigned n = 1000, rows = 300;
  Buffer<float> x(n * rows);
  for (unsigned i = 0; i < x.values.size(); ++i) x.values[i] = static_cast<float>(i % 251) / 8;
  x.upload();
  Buffer<double> out(rows);
  for (const unsigned threads : {1u, 2u, 64u, 256u, 1024u}) {
    ASSERT_EQ(kernels.run("total", {rows}, {threads}, threads * 8, x.device, out.device, n), "");
    out.download();
    for (unsigned row = 0; row < rows; ++row) {
      double sum = 1e6 * std::log2(threads);
      for (unsigned i = 0; i < n; ++i) sum += x.values[row * n + i];
      ASSERT_EQ(out.values[row], sum) << threads << " threads, row " << row;
    }
  }
}

TEST(KernelLanguage, ShufflesExchangeWithinGroupsAndSegments) {
  const Kernels kernels(R"(
extern "C" __global__ void exchange(const float* x, float* out, double* wide, int width) {
  int tid = threadIdx.x;
  float v = x[tid];
  for (int d = width / 2; d > 0; d >>= 1) {
    float2 other = make_float2(__shfl_xor(v, d, 32), __shfl_xor(2 * v, d, 32));
    v += other.y - other.x;
  }
  out[tid] = v;
  wide[tid] = __shfl_xor((double)tid, 3, 4) + 100 * __shfl_xor(tid, 8, 4) + 1e6 * __shfl_xor(tid, 1);
}
)");
  Buffer<float> x(96), out(96);
  for (int i = 0; i < 96; ++i) x.values[i] = static_cast<float>(i * i % 37);
  x.upload();
  Buffer<double> wide(96);
  ASSERT_EQ(kernels.run("exchange", {}, {90}, 0, x.device, out.device, wide.device, 32), "");
  out.download();
  wide.download();
  for (unsigned i = 0; i < 64; ++i) {
    float sum = 0;
    for (unsigned j = i / 32 * 32; j < i / 32 * 32 + 32; ++j) sum += x.values[j];
    ASSERT_EQ(out.values[i], sum) << i;
  }
  for (unsigned i = 0; i < 90; ++i) {
    // A partner above the segment, or beyond the block, is the thread itself.
    const unsigned wrapped = (i ^ 8) > (i | 3) ? i : i ^ 8, near = (i ^ 1) < 90 ? i ^ 1 : i,
                   far = (i ^ 3) < 90 ? i ^ 3 : i;
    ASSERT_EQ(wide.values[i], far + 100.0 * wrapped + 1e6 * near) << i;
  }
}

TEST(KernelLanguage, HalfRoundsToNearestEvenOverTheWholeRange) {
  const Kernels kernels(R"(
extern "C" __global__ void widen(const __half* x, float* out) {
  int i = blockIdx.x * 256 + threadIdx.x;
  out[i] = (float)x[i];
}
extern "C" __global__ void narrow(const float* x, __half* out, const double* y, __half* from_double) {
  int i = blockIdx.x * 256 + threadIdx.x;
  out[i] = __float2half_rn(x[i]);
  from_double[i] = (__half)y[i];
}
extern "C" __global__ void pairs(const __half2* x, __half2* out) {
  int i = blockIdx.x * 256 + threadIdx.x;
  __half2 a = x[i], b = __halves2half2(__high2half(a), __low2half(a));
  __half2 c = __hsub2(__hmul2(a, b), __hadd2(a, __half2half2(a.x)));
  out[i] = __hadd2(c, __floats2half2_rn((float)(a.y), (float)(__float2half2_rn(0.1f).x)));
}
)");
  // 0.1f is no half; the sums, products and differences below round at every step.
  Buffer<uint16_t> all(65536), narrowed(65536 * 4), doubles(65536 * 4);
  for (unsigned i = 0; i < 65536; ++i) all.values[i] = static_cast<uint16_t>(i);
  all.upload();
  Buffer<float> wide(65536);
  ASSERT_EQ(kernels.run("widen", {256}, {256}, 0, all.device, wide.device), "");
  wide.download();
  Buffer<float> x(65536 * 4);
  Buffer<double> y(65536 * 4);
  for (unsigned i = 0; i < 65536; ++i) {
    const float value = static_cast<float>(std::bit_cast<_Float16>(all.values[i]));
    ASSERT_TRUE(std::isnan(value)
                    ? std::isnan(wide.values[i])
                    : std::bit_cast<uint32_t>(value) == std::bit_cast<uint32_t>(wide.values[i]))
        << i;
    // The value, its way half up to the next, and that just below and above.
    const auto next = static_cast<float>(std::bit_cast<_Float16>(static_cast<uint16_t>(i + 1)));
    const float middle = value + (next - value) / 2;
    const float samples[] = {value, middle, std::nextafter(middle, 0.0f),
                             std::nextafter(middle, 1e9f)};
    std::copy(samples, samples + 4, &x.values[i * 4]);
    for (int k = 0; k < 4; ++k)
      y.values[i * 4 + k] = k < 2 ? samples[k] : std::nextafter(double(middle), k == 2 ? 0.0 : 1e9);
  }
  x.upload();
  y.upload();
  ASSERT_EQ(
      kernels.run("narrow", {1024}, {256}, 0, x.device, narrowed.device, y.device, doubles.device),
      "");
  narrowed.download();
  doubles.download();
  for (unsigned i = 0; i < x.values.size(); ++i) {
    if (std::isnan(x.values[i])) continue;
    ASSERT_EQ(narrowed.values[i], std::bit_cast<uint16_t>(static_cast<_Float16>(x.values[i])))
        << x.values[i];
    ASSERT_EQ(doubles.values[i], std::bit_cast<uint16_t>(static_cast<_Float16>(y.values[i])))
        << y.values[i];
  }

  Buffer<uint16_t> lanes(2048), result(2048);
  for (unsigned i = 0; i < 2048; ++i)
    lanes.values[i] = std::bit_cast<uint16_t>(static_cast<_Float16>(0.37f * float(i % 97) - 11));
  lanes.upload();
  ASSERT_EQ(kernels.run("pairs", {4}, {256}, 0, lanes.device, result.device), "");
  result.download();
  for (unsigned i = 0; i < 2048; i += 2) {
    const auto a = std::bit_cast<_Float16>(lanes.values[i]);
    const auto b = std::bit_cast<_Float16>(lanes.values[i + 1]);
    const auto round = [](double v) { return static_cast<_Float16>(v); };
    const auto product = round(double(a) * double(b));
    const auto low = round(double(product) - double(round(double(a) + double(a))));
    const auto high = round(double(product) - double(round(double(b) + double(a))));
    ASSERT_EQ(result.values[i], std::bit_cast<uint16_t>(round(double(low) + double(b))));
    ASSERT_EQ(result.values[i + 1],
              std::bit_cast<uint16_t>(round(double(high) + double(round(0.1f)))));
  }
}

// Error in units of the last place of the exact value, no smaller than those of `floor`.
double ulps(float got, double exact, double floor) {
  const double size = std::max(std::fabs(exact), floor);
  return std::fabs(got - exact) / std::ldexp(1.0, std::ilogb(size) - 23);
}

TEST(KernelLanguage, FastSineAndCosineAreGoodEnoughForTwiddles) {
  const Kernels kernels(R"(
extern "C" __global__ void both(const float* angle, float* s, float* c, float* s1, float* c1) {
  int i = blockIdx.x * 256 + threadIdx.x;
  __sincosf(angle[i], &s[i], &c[i]);
  s1[i] = __sinf(angle[i]);
  c1[i] = __cosf(angle[i]);
}
)");
  const unsigned count = 1 << 20;
  Buffer<float> angle(count), s(count), c(count), s1(count), c1(count);
  const double pi = 3.14159265358979323846;
  for (unsigned i = 0; i < count; ++i) {
    angle.values[i] = static_cast<float>((double(i) / (count / 2) - 1) * 2 * pi);
    if (i % 8 == 7) angle.values[i] *= 5000;  // far outside: reduction
  }
  angle.upload();
  ASSERT_EQ(kernels.run("both", {count / 256}, {256}, 0, angle.device, s.device, c.device,
                        s1.device, c1.device),
            "");
  s.download(), c.download(), s1.download(), c1.download();
  double worst = 0, worst_far = 0;
  for (unsigned i = 0; i < count; ++i) {
    const double a = angle.values[i];
    const double error =
        std::max(ulps(s.values[i], std::sin(a), 1e-30), ulps(c.values[i], std::cos(a), 1e-30));
    double& most = i % 8 == 7 ? worst_far : worst;
    most = std::max(most, error);
    ASSERT_EQ(s.values[i], s1.values[i]);
    ASSERT_EQ(c.values[i], c1.values[i]);
  }
  EXPECT_LE(worst, 1.6);
  EXPECT_LE(worst_far, 2.0);
}

TEST(KernelLanguage, MathFollowsItsArgumentsType) {
  const Kernels kernels(R"(
extern "C" __global__ void values(float* f, double* d, unsigned* u, float x, double y) {
  double sine, cosine;
  sincos(y, &sine, &cosine);
  f[0] = sqrtf(x); f[1] = logf(x); f[2] = log10f(x); f[3] = expf(x); f[4] = powf(x, 1.5f);
  f[5] = cosf(x); f[6] = sinf(x); f[7] = fabsf(-x); f[8] = fminf(x, 1); f[9] = fmaxf(x, 7.0f);
  f[10] = rsqrtf(x); f[11] = fmaf(x, x, 1.0f); f[12] = min(x, 9.0f); f[13] = max(x, 9);
  d[0] = sqrt(y); d[1] = log(y); d[2] = log10(y); d[3] = exp(y); d[4] = pow(y, 1.5);
  d[5] = cosine; d[6] = sine; d[7] = fabs(-y); d[8] = floor(y); d[9] = rint(y);
  d[10] = fmax(y, 1.0); d[11] = fma(y, y, 1.0); d[12] = pow(y, 2); d[13] = sqrt(16);
  u[0] = __brev(0x12345678u); u[1] = __brev(1u) >> (32 - 10); u[2] = __popc(0xf0f0u);
  u[3] = __clz(1); u[4] = abs(-5); u[5] = sizeof(sqrt(x)); u[6] = sizeof(min(1, 2.0));
}
)");
  Buffer<float> f(14);
  Buffer<double> d(14);
  Buffer<unsigned> u(7);
  const float x = 2.75f;
  const double y = 2.625;
  ASSERT_EQ(kernels.run("values", {}, {1}, 0, f.device, d.device, u.device, x, y), "");
  const double floats[] = {std::sqrt(x),
                           std::log(x),
                           std::log10(x),
                           std::exp(x),
                           std::pow(x, 1.5f),
                           std::cos(x),
                           std::sin(x),
                           x,
                           1,
                           7,
                           1 / std::sqrt(x),
                           double(x) * x + 1,
                           x,
                           9};
  const double doubles[] = {std::sqrt(y),
                            std::log(y),
                            std::log10(y),
                            std::exp(y),
                            std::pow(y, 1.5),
                            std::cos(y),
                            std::sin(y),
                            y,
                            2,
                            3,
                            y,
                            y * y + 1,
                            y * y,
                            4};
  f.download(), d.download(), u.download();
  for (int i = 0; i < 14; ++i) {
    EXPECT_LE(ulps(f.values[i], floats[i], 1e-30), 1.0) << i;
    EXPECT_DOUBLE_EQ(d.values[i], doubles[i]) << i;
  }
  EXPECT_EQ(u.values, (std::vector<unsigned>{0x1e6a2c48u, 512, 8, 31, 5, 4, 8}));
}

TEST(KernelLanguage, VectorsLoadAtAnyMultipleOfTheirElement) {
  const Kernels kernels(R"(
typedef float2 cplx;
extern "C" __global__ void turn(const float* x, float* out, int shift) {
  const float4* v = (const float4*)(x + shift);
  float4 t = v[threadIdx.x];
  cplx a; a.x = t.x; a.y = t.y;
  cplx b = make_float2(t.z, t.w);
  ((float4*)(out + shift))[threadIdx.x] = make_float4(b.x, b.y, a.x, a.y);
}
extern "C" __global__ void sizes(unsigned* out, double2 d, int4 i, longlong2 l) {
  out[0] = sizeof(float2) + 100 * sizeof(float4) + 10000 * sizeof(double2) + 1000000 * sizeof(int4);
  out[1] = (unsigned)(d.x + 10 * d.y) + 1000 * (i.w + 10 * l.y);
}
)");
  struct Double2 {
    double x, y;
  };
  struct Int4 {
    int x, y, z, w;
  };
  struct Long2 {
    long long x, y;
  };
  for (const int shift : {0, 1, 2, 3}) {
    Buffer<float> x(64 * 4 + 4), out(64 * 4 + 4);
    for (unsigned i = 0; i < x.values.size(); ++i) x.values[i] = static_cast<float>(i);
    x.upload();
    ASSERT_EQ(kernels.run("turn", {}, {64}, 0, x.device, out.device, shift), "");
    out.download();
    for (int i = 0; i < 256; ++i)
      ASSERT_EQ(out.values[i + shift], x.values[(i ^ 2) + shift]) << shift << " " << i;
  }
  Buffer<unsigned> sizes(2);
  ASSERT_EQ(
      kernels.run("sizes", {}, {1}, 0, sizes.device, Double2{1, 2}, Int4{0, 0, 0, 3}, Long2{0, 4}),
      "");
  EXPECT_EQ(sizes.download(), (std::vector<unsigned>{16161608, 43021}));
}

TEST(KernelLanguage, AtomicsCountEveryThreadOfEveryBlock) {
  const Kernels kernels(R"(
extern "C" __global__ void count(float* f, double* d, int* i, unsigned* u, unsigned long long* l) {
  __shared__ int local[1];
  if (threadIdx.x == 0) local[0] = 0;
  __syncthreads();
  atomicAdd(&local[0], 1);
  atomicAdd(&(f[0]), 1.0f);
  atomicAdd(&(d[0]), 0.5);
  atomicAdd(i, 1);
  atomicAdd(u, 3u);
  atomicAdd(l, 1ull << 32);
  int own = blockIdx.x * 256 + threadIdx.x;
  atomicMax(&i[1], own);
  atomicMin(&i[2], -own);
  atomicCAS(&u[1], 0u, (unsigned)own + 1);
  for (unsigned seen = 0, old; ; seen = old)  // a hand-made atomic add
    if ((old = atomicCAS(&u[2], seen, seen + 1)) == seen) break;
  __threadfence();
  __syncthreads();
  if (threadIdx.x == 0) atomicAdd(&i[3], local[0]);
}
)");
  Buffer<float> f(1);
  Buffer<double> d(1);
  Buffer<int> i(4);
  Buffer<unsigned> u(3);
  Buffer<unsigned long long> l(1);
  ASSERT_EQ(
      kernels.run("count", {2000}, {256}, 0, f.device, d.device, i.device, u.device, l.device), "");
  const int threads = 2000 * 256;
  EXPECT_EQ(f.download()[0], float(threads));
  EXPECT_EQ(d.download()[0], threads / 2.0);
  EXPECT_EQ(i.download(), (std::vector<int>{threads, threads - 1, 1 - threads, threads}));
  u.download();
  EXPECT_EQ(u.values[0], 3u * threads);
  EXPECT_NE(u.values[1], 0u);
  EXPECT_EQ(u.values[2], unsigned(threads));
  EXPECT_EQ(l.download()[0], (unsigned long long)threads << 32);
}

}  // namespace
