// What a transform keeps from its first call for the next ones, so that a repeated call costs one
// look-up and its launches.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "cuda_like/device.h"
#include "cuda_like/hash.h"

namespace kevra::ops {

// One kernel, ready to go over any number of rows.
struct LaunchPlan {
  kernel_t fn = nullptr;
  unsigned block = 0;
  size_t shared = 0;
  int group = 1;  // rows to a block
  devptr_t twiddles = nullptr;

  unsigned blocks(int64_t rows) const { return static_cast<unsigned>((rows + group - 1) / group); }
};

// `shape` holds all that tells two plans apart, the device included; a plan of a past epoch is
// never found again.
struct PlanKey {
  uint64_t shape;
  uint64_t epoch;

  bool operator==(const PlanKey&) const = default;
};

struct PlanKeyHash {
  size_t operator()(const PlanKey& key) const { return combine(key.shape, key.epoch); }
};

// Kept by thread and by twin, so that a hit takes no lock.
template <class Plan>
using PlanMap = std::unordered_map<PlanKey, Plan, PlanKeyHash>;

}  // namespace kevra::ops
