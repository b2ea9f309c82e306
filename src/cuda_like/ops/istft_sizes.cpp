#include "cuda_like/ops/istft_sizes.h"

#include <algorithm>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <unordered_set>
#include <vector>

#include "cuda_like/hash.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {
namespace {

std::unordered_set<uint64_t>& passed_overlaps() {  // under runtime_mutex
  static auto* keys = new std::unordered_set<uint64_t>;
  return *keys;
}

bool overlaps(const std::vector<double>& window, int hop) {
  constexpr double kLeastEnvelope = 1e-11;
  std::vector<double> envelope(hop);
  for (size_t i = 0; i < window.size(); ++i) envelope[i % hop] += window[i] * window[i];
  return std::all_of(envelope.begin(), envelope.end(), [](double e) { return e > kLeastEnvelope; });
}

}  // namespace

IstftSizes istft_sizes(const IstftCall& call) {
  if (call.bins != call.n_fft / 2 + 1) {
    throw std::invalid_argument("istft: bins must be n_fft/2+1");
  }
  constexpr int64_t kMost = std::numeric_limits<int>::max();
  require_at_most("istft", "n_fft", call.n_fft, kMost / 2);
  check_window(call.window, call.n_fft);
  if (call.hop < 1 || call.hop > call.n_fft) {
    throw std::invalid_argument("istft: hop must be in [1, n_fft]");
  }
  require_int32("istft", "batch", call.batch, 1);
  require_at_least("istft", "frames", call.frames, 1);
  // A sample's position over hop is 32 bits wide in the kernel.
  require_at_most("istft", "frames", call.frames, kMost - call.n_fft);
  // Keeps bytes and grids of 65535 rows within their types.
  require_at_most("istft", "frames x n_fft", call.frames * call.n_fft, int64_t{1} << 38);

  const int64_t pad = frame_padding(call.n_fft, call.center);
  const int64_t out_len = (call.frames - 1) * call.hop + call.n_fft;
  const int64_t wanted = call.length >= 1 ? call.length : out_len - 2 * pad;
  return {.n_fft = static_cast<int>(call.n_fft),
          .hop = static_cast<int>(call.hop),
          .frames = static_cast<int>(call.frames),
          .pad = static_cast<int>(pad),
          .out_len = out_len,
          .length = std::min(wanted, out_len - pad)};
}

void check_overlap(const WindowSpec& window, const IstftSizes& sizes) {
  const uint64_t key = key_of({window.key, uint64_t(sizes.n_fft), uint64_t(sizes.hop)});
  {
    std::lock_guard lock(runtime_mutex);
    if (passed_overlaps().contains(key)) return;
  }
  if (!overlaps(build_window(window, sizes.n_fft, sizes.n_fft), sizes.hop)) {
    throw std::invalid_argument("istft: window/hop combination violates NOLA");
  }
  std::lock_guard lock(runtime_mutex);
  passed_overlaps().insert(key);
}

int64_t istft_length(const IstftCall& call) {
  const IstftSizes sizes = istft_sizes(call);
  check_overlap(call.window, sizes);
  return sizes.length;
}

}  // namespace kevra::ops
