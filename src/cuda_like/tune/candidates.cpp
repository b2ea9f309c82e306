#include "cuda_like/tune/candidates.h"

#include "codegen/sizes.h"
#include "cuda_like/ops/fft_route.h"

namespace kevra::tune {
namespace {

using codegen::is_power_of_two;
using ops::kVarFlipLayout;
using ops::kVarHalfExchange;
using ops::kVarPadded;
using ops::kVarRadix25;

constexpr int kShared = 1;  // a hint's `core` for transforms of rows
constexpr int kRegister = 2;

// A frame kernel's padding, in bits 4 to 7 of `var`.
constexpr int kUnpadded = 15 << 4;
constexpr int kPadEveryEight = 3 << 4;

}  // namespace

std::vector<ShapeHint> frame_candidates() {
  return {{}, {.tpf = 64}, {.tpf = 128}, {.tpf = 256}, {.var = kVarPadded}};
}

std::vector<ShapeHint> stft_candidates(int n) {
  if (!is_power_of_two(n)) return frame_candidates();
  constexpr int kEightFramesFit = 512;  // longer frames fill a block in fewer
  std::vector<int> frames{1, 2, 4};
  if (n <= kEightFramesFit) frames.push_back(8);

  std::vector<ShapeHint> list{{}};
  for (int ept : {8, 16}) {
    for (int fpb : frames) list.push_back({.ept = ept, .fpb = fpb});
  }
  list.push_back({.var = kUnpadded});
  list.push_back({.var = kPadEveryEight});
  return list;
}

std::vector<int> ept_candidates(int n) {
  constexpr size_t kMost = 5;
  std::vector<int> list;
  if (is_power_of_two(n)) {
    for (int e = 4; e <= ops::kLargestEpt && e <= n; e *= 2) list.push_back(e);
    return list;
  }
  for (int e = 4; e <= ops::kLargestEpt && list.size() < kMost; ++e) {
    if (n % e == 0 && !codegen::find_uniform_schedule(n, e, e).empty()) list.push_back(e);
  }
  return list;
}

std::vector<ShapeHint> fft_candidates(int n, bool half) {
  std::vector<ShapeHint> list{{}};
  for (int tpf : {0, 64, 128, 256}) {
    for (int fpb : {0, 2}) {
      if (tpf != 0 || fpb != 0) list.push_back({.fpb = fpb, .tpf = tpf, .core = kShared});
    }
  }
  for (int fpb : {1, 4}) list.push_back({.fpb = fpb, .core = kShared});
  for (int ept : ept_candidates(n)) {
    for (int fpb : {0, 2}) list.push_back({.ept = ept, .fpb = fpb, .core = kRegister});
  }
  // A prime stage keeps its scratch behind the row: no padding there.
  const bool may_pad = codegen::rader_extra(n) == 0;
  if (may_pad) list.push_back({.core = kShared, .var = kVarPadded});
  if (n % 25 == 0) {
    list.push_back({.core = kShared, .var = kVarRadix25});
    if (may_pad) list.push_back({.core = kShared, .var = kVarPadded | kVarRadix25});
  }
  if (half) list.push_back({.core = kRegister, .var = kVarHalfExchange});
  list.push_back({.core = kRegister, .var = kVarFlipLayout});
  return list;
}

}  // namespace kevra::tune
