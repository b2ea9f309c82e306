#include "host_fft/host_fft.h"

#include <algorithm>
#include <atomic>
#include <vector>

#include "host_fft/aligned_vector.h"
#include "host_fft/dispatch.h"
#include "host_fft/host_plan.h"
#include "host_fft/parallel_for.h"
#include "host_fft/plan_cache.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kevra::host_fft {
namespace {

// Results of the group route that the caches cannot hold are written past them.
constexpr int64_t kStreamingBytes = 24 << 20;
std::atomic<bool> streaming{false};

// Bytes between the two buffers of a row, over what they hold. Rows are often a multiple of a page,
// and a load waits for a store that is a whole number of pages off: half a page and a line between
// the buffers made lengths from 2048 up 10 to 25% faster.
constexpr int kApart = 2048 + 64;

// The thread's own scratch, at least `count` values. It grows and never shrinks.
template <class T>
T* scratch(size_t count) {
  thread_local AlignedVector<T> values;
  if (values.size() < count) values.resize(count);
  return values.data();
}

template <class T>
struct Rows {
  const T* in;
  T* out;
  int n;
  int64_t rows;
  bool inverse;
  T scale;
};

template <class T>
void planned_rows(const Rows<T>& rows) {
  const int64_t n = rows.n;
  const auto tables = host_plan<T>(rows.n, rows.inverse ? 1 : 0)->tables();
  const int64_t chunk = parallel_chunk(std::max(16384 / rows.n, 1), rows.rows);
  parallel_for(static_cast<int>((rows.rows + chunk - 1) / chunk), [&](int index) {
    constexpr int kGap = kApart / sizeof(T);
    T* const buffers = scratch<T>(4 * n + kGap);
    const int64_t last = std::min((index + 1) * chunk, rows.rows);
    for (int64_t row = index * chunk; row < last; ++row) {
      passes<T>().row_chain({.tables = tables,
                             .n = rows.n,
                             .inverse = rows.inverse,
                             .scale = rows.scale,
                             .in = rows.in + row * 2 * n,
                             .out = rows.out + row * 2 * n,
                             .buffer0 = buffers,
                             .buffer1 = buffers + 2 * n + kGap});
    }
  });
}

// a[k] b[k] `scale`, complex, for k below n.
template <class T>
void multiply_complex(const T* a, const T* b, T scale, T* out, int64_t n) {
  for (int64_t k = 0; k < 2 * n; k += 2) {
    const T re = a[k] * b[k] - a[k + 1] * b[k + 1];
    const T im = a[k] * b[k + 1] + a[k + 1] * b[k];
    out[k] = re * scale;
    out[k + 1] = im * scale;
  }
}

template <class T>
void chirp_row(const BluesteinHostPlan<T>& plan, const T* in, T* out, T scale) {
  const int64_t n = plan.n, m = plan.m;
  T* const row = scratch<T>(8 * m);
  T* const spectrum = row + 2 * m;
  multiply_complex(in, plan.chirp.data(), T(1), row, n);
  std::fill(row + 2 * n, row + 2 * m, T(0));
  RowChain<T> chain{.tables = host_plan<T>(plan.m, 0)->tables(),
                    .n = plan.m,
                    .inverse = false,
                    .scale = 1,
                    .in = row,
                    .out = spectrum,
                    .buffer0 = row + 4 * m,
                    .buffer1 = row + 6 * m};
  passes<T>().row_chain(chain);
  chain.tables = host_plan<T>(plan.m, 1)->tables();
  chain.inverse = true;
  chain.scale = static_cast<T>(1.0 / m);
  chain.in = spectrum;
  chain.out = row;
  chain.multiply_re = plan.filter_re.data();
  chain.multiply_im = plan.filter_im.data();
  passes<T>().row_chain(chain);
  multiply_complex(row, plan.chirp.data(), scale, out, n);
}

template <class T>
void chirp_rows(const Rows<T>& rows) {
  const auto& plan = *bluestein_host_plan<T>(rows.n, rows.inverse ? 1 : 0);
  parallel_for(static_cast<int>(rows.rows), [&](int index) {
    const int64_t at = int64_t{2} * index * rows.n;
    chirp_row(plan, rows.in + at, rows.out + at, rows.scale);
  });
}

template <class T>
struct Area {
  T* re;
  T* im;
};

// One complex value past the caches.
void store_streaming(const float* value, float* to) {
#if defined(__SSE2__) && defined(__x86_64__)
  long long bits;
  __builtin_memcpy(&bits, value, sizeof bits);
  _mm_stream_si64(reinterpret_cast<long long*>(to), bits);
#else
  std::copy_n(value, 2, to);
#endif
}
void store_streaming(const double* value, double* to) {
#if defined(__SSE2__) && defined(__x86_64__)
  long long bits[2];
  __builtin_memcpy(bits, value, sizeof bits);
  _mm_stream_si64(reinterpret_cast<long long*>(to), bits[0]);
  _mm_stream_si64(reinterpret_cast<long long*>(to + 1), bits[1]);
#else
  std::copy_n(value, 2, to);
#endif
}

template <class T>
void copy_in(const Rows<T>& rows, int64_t first, int64_t count, Area<T> area) {
  for (int64_t lane = 0; lane < kLanes<T>; ++lane) {
    const T* row = rows.in + (first + std::min(lane, count - 1)) * 2 * rows.n;
    for (int64_t k = 0; k < rows.n; ++k) {
      area.re[k * kLanes<T> + lane] = row[2 * k];
      area.im[k * kLanes<T> + lane] = row[2 * k + 1];
    }
  }
}

template <class T>
void copy_out(const Rows<T>& rows, int64_t first, int64_t count, Area<T> area) {
  const bool stream = streaming.load(std::memory_order_relaxed);
  for (int64_t lane = 0; lane < count; ++lane) {
    T* row = rows.out + (first + lane) * 2 * rows.n;
    for (int64_t k = 0; k < rows.n; ++k, row += 2) {
      const T value[] = {area.re[k * kLanes<T> + lane] * rows.scale,
                         area.im[k * kLanes<T> + lane] * rows.scale};
      if (stream) {
        store_streaming(value, row);
      } else {
        std::copy_n(value, 2, row);
      }
    }
  }
#if defined(__SSE2__)
  if (stream) _mm_sfence();
#endif
}

template <class T>
void group_rows(const Rows<T>& rows) {
  const std::vector<int> factors = host_group_factors(rows.n);
  const auto* roots = reinterpret_cast<const double*>(host_roots(rows.n));
  streaming = rows.n * rows.rows * static_cast<int64_t>(2 * sizeof(T)) > kStreamingBytes;
  parallel_for(static_cast<int>((rows.rows + kLanes<T> - 1) / kLanes<T>), [&](int index) {
    const int64_t first = int64_t{index} * kLanes<T>;
    const int64_t count = std::min<int64_t>(kLanes<T>, rows.rows - first);
    const int64_t size = int64_t{rows.n} * kLanes<T>;
    T* const values = scratch<T>(4 * size);
    Area<T> source{values, values + size}, target{values + 2 * size, values + 3 * size};
    // The passes go forward: with the parts swapped on both ways, that is the inverse.
    const auto outward = [&](Area<T> area) {
      return rows.inverse ? Area<T>{area.im, area.re} : area;
    };
    copy_in(rows, first, count, outward(source));
    int before = 1;
    for (int factor : factors) {
      passes<T>().group_pass({.n = rows.n,
                              .radix = factor,
                              .before = before,
                              .roots = roots,
                              .in_re = source.re,
                              .in_im = source.im,
                              .out_re = target.re,
                              .out_im = target.im});
      std::swap(source, target);
      before *= factor;
    }
    copy_out(rows, first, count, outward(source));
  });
}

}  // namespace

template <class T>
void host_fft_rows(const T* in, T* out, int n, int64_t rows, bool inverse, T scale) {
  const Rows<T> all{in, out, n, rows, inverse, scale};
  switch (*cached<HostRoute>(n, [n] { return host_route(n); })) {
    case HostRoute::kPlanned:
      return planned_rows(all);
    case HostRoute::kGroup:
      return group_rows(all);
    case HostRoute::kChirp:
      return chirp_rows(all);
  }
}

template <class T>
void host_fft(const T* in, T* out, int n) {
  host_fft_rows<T>(in, out, n, 1, false, T(1));
}

template void host_fft_rows<float>(const float*, float*, int, int64_t, bool, float);
template void host_fft_rows<double>(const double*, double*, int, int64_t, bool, double);
template void host_fft<float>(const float*, float*, int);
template void host_fft<double>(const double*, double*, int);

}  // namespace kevra::host_fft
