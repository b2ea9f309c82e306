#include "kernel/order.h"

#include <algorithm>
#include <numeric>
#include <random>

#include "common/settings.h"

namespace kevra_cpu {

std::vector<uint32_t> run_order(uint32_t count, uint64_t salt) {
  if (settings().order == Order::forward) return {};
  std::vector<uint32_t> order(count);
  std::iota(order.begin(), order.end(), 0u);
  if (settings().order == Order::reverse) {
    std::reverse(order.begin(), order.end());
    return order;
  }
  // Written out, since std::shuffle may differ between standard libraries.
  std::mt19937_64 random(settings().order_seed * 0x9e3779b97f4a7c15 + salt);
  for (uint32_t i = count; i > 1; --i) std::swap(order[i - 1], order[random() % i]);
  return order;
}

}  // namespace kevra_cpu
