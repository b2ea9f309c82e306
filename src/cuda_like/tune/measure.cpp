#include "cuda_like/tune/measure.h"

#include <algorithm>
#include <map>
#include <mutex>

#include "cuda_like/ops/guards.h"

namespace kevra::tune {
namespace {

// Destroys what it holds when an exception passes, too.
struct Events {
  std::vector<event_t> v;

  Events() = default;
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;
  ~Events() {
    for (event_t event : v) eventDestroy(event);
  }

  void create(int count) {
    v.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
      event_t ev = nullptr;
      KEVRA_CHECK(eventCreate(&ev));
      v.push_back(ev);
    }
  }
};

void flush(FlushBuffer& fl) {
  KEVRA_CHECK(memsetD8Async(fl.buf->p, 0, fl.bytes, nullptr));
}

// Milliseconds of one candidate, the better of two measurements.
float measured(int device, const RunCounts& counts, const std::function<void()>& run) {
  FlushBuffer& fl = flush_buffer(device);
  run();  // compiles
  KEVRA_CHECK(streamSynchronize(nullptr));
  const float t1 = time_kernel(fl, run, std::max(counts.warmup, 1));

  constexpr float kSecondMeasurement = 25.0f;  // ms
  int n2 = counts.iters;
  if (t1 > 0) {
    // The lesser of the two before the conversion: the quotient of a tiny time fits no integer.
    const float affordable = std::min(static_cast<float>(counts.iters), kSecondMeasurement / t1);
    n2 = std::max(1, static_cast<int>(affordable));
  }
  // Memory traffic without a gap, so that the clocks are up when the second measurement starts.
  constexpr int kFlushesBetween = 100;
  for (int i = 0; i < kFlushesBetween; ++i) flush(fl);
  return std::min(t1, time_kernel(fl, run, n2));
}

}  // namespace

FlushBuffer& flush_buffer(int device) {
  constexpr size_t kBytesWhenUntold = size_t{64} << 20;
  std::lock_guard lock(runtime_mutex);
  static auto* buffers = new std::map<int, FlushBuffer>;
  FlushBuffer& fl = (*buffers)[device];
  if (!fl.buf) {
    const int told = device_cache_bytes(device);
    fl.bytes = told < 1 ? kBytesWhenUntold : static_cast<size_t>(told);
    fl.buf.emplace(fl.bytes, nullptr);
  }
  return fl;
}

float time_kernel(FlushBuffer& fl, const std::function<void()>& run, int N) {
  Events se;
  Events ee;
  se.create(N);
  ee.create(N);
  for (int i = 0; i < N; ++i) {
    flush(fl);
    KEVRA_CHECK(eventRecord(se.v[i], nullptr));
    run();
    KEVRA_CHECK(eventRecord(ee.v[i], nullptr));
  }
  KEVRA_CHECK(streamSynchronize(nullptr));

  float best = Winner{}.ms;
  for (int i = 0; i < N; ++i) {
    float ms = 0;
    KEVRA_CHECK(eventElapsedTime(&ms, se.v[i], ee.v[i]));
    best = std::min(best, ms);
  }
  return best;
}

void check_counts(const char* op, const RunCounts& counts) {
  constexpr int kMost = 100000;  // two events each
  for (const auto& [name, count] : {std::pair{"iters", counts.iters}, {"warmup", counts.warmup}}) {
    ops::require_at_least(op, name, count, 0);
    ops::require_at_most(op, name, count, kMost);
  }
}

void Winner::offer(const ShapeHint& candidate, float candidate_ms) {
  if (candidate_ms >= ms) return;
  hint = candidate;
  ms = candidate_ms;
}

Winner fastest(const std::vector<ShapeHint>& candidates, int device, const RunCounts& counts,
               const std::function<void(const ShapeHint&)>& run) {
  Winner winner;
  for (const ShapeHint& candidate : candidates) {
    winner.offer(candidate, measured(device, counts, [&] { run(candidate); }));
  }
  return winner;
}

}  // namespace kevra::tune
