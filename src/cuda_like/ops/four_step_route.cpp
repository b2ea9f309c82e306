#include "cuda_like/ops/four_step_route.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "codegen/precision.h"

namespace kevra::ops {
namespace {

using codegen::ColumnPass;
using codegen::padded_bytes;
using codegen::RealPass;

constexpr int kLargestTile = 16;  // 16 adjacent floats-complex fill a cache line of 128 bytes

// What the twins differ in.
struct Twin {
  int compute;
  int64_t tile_limit;  // bytes of a tile; in double two blocks share a compute unit's memory
  int per_thread;      // values
};
Twin twin_of(bool wide, int64_t shared_limit) {
  return wide ? Twin{codegen::kDouble, shared_limit / 2, 8}
              : Twin{codegen::kFloat, shared_limit, 16};
}

// The widest tile of columns that divides `columns`. `values` are those of one column.
int tile_of(int columns, int64_t values, const Twin& twin) {
  int tile = kLargestTile;
  while (tile > 1 &&
         (columns % tile != 0 || padded_bytes(tile * values, twin.compute) > twin.tile_limit)) {
    tile /= 2;
  }
  return tile;
}

int threads_of(int64_t values, const Twin& twin) {
  return static_cast<int>(std::clamp<int64_t>(values / twin.per_thread, 128, 1024));
}

void fit_tile(ColumnPass& pass, const Twin& twin) {
  pass.tile = tile_of(pass.columns(), pass.length(), twin);
  pass.threads = threads_of(int64_t{pass.tile} * pass.length(), twin);
}

}  // namespace

std::pair<int, int> four_step_sides(int n, bool wide, int64_t shared_limit) {
  const int compute = twin_of(wide, shared_limit).compute;
  const auto fits = [&](int length) { return padded_bytes(length, compute) <= shared_limit; };
  int n1 = static_cast<int>(std::sqrt(static_cast<double>(n)));
  for (; n1 >= 2; --n1) {
    if (n % n1 == 0 && fits(n1) && fits(n / n1)) return {n1, n / n1};
  }
  return {0, 0};
}

std::optional<FourStepRoute> route_four_step(const FourStepShape& s, int64_t shared_limit,
                                             Between between) {
  const auto [n1, n2] = four_step_sides(s.n, s.wide, shared_limit);
  if (n1 == 0) return std::nullopt;
  const Twin twin = twin_of(s.wide, shared_limit);
  ColumnPass first{.n1 = n1,
                   .n2 = n2,
                   .first = true,
                   .compute = twin.compute,
                   .storage_in = s.half_in ? codegen::kHalf : twin.compute,
                   .storage_out = twin.compute,
                   .inverse = s.inverse,
                   .tile = 1,
                   .threads = 1,
                   .roots = s.n,
                   .lines_out = between == Between::kLines};
  ColumnPass second = first;
  second.lines_in = between == Between::kKept;
  second.lines_out = false;
  second.first = false;
  second.storage_in = twin.compute;
  second.storage_out = s.half_out ? codegen::kHalf : twin.compute;
  fit_tile(first, twin);
  fit_tile(second, twin);
  return FourStepRoute{first, second};
}

std::optional<FourStepRoute> route_transposed(int n, bool wide, bool inverse,
                                              int64_t shared_limit) {
  auto route = route_four_step({n, wide, inverse, false, false}, shared_limit, Between::kKept);
  if (!route) return route;
  if (!inverse) {
    route->second.lines_out = true;
    return route;
  }
  // The sides change parts: lines of k1 first, then columns of k2.
  const Twin twin = twin_of(wide, shared_limit);
  for (ColumnPass* pass : {&route->first, &route->second}) {
    std::swap(pass->n1, pass->n2);
    pass->lines_in = pass->lines_out = pass->first;
    fit_tile(*pass, twin);
  }
  return route;
}

std::optional<FourStepRealRoute> route_four_step_real(int m, bool wide, bool half,
                                                      int64_t shared_limit) {
  const auto route = route_four_step({m, wide, false, half, false}, shared_limit);
  if (!route || route->first.n2 % 2 != 0) return std::nullopt;
  const Twin twin = twin_of(wide, shared_limit);
  ColumnPass first = route->first;
  first.roots = 2 * m;
  // A column and its mirror are one unit of the tile.
  const int64_t values = int64_t{2} * first.n1;
  const int tile = tile_of(first.n2 / 2, values, twin);
  const RealPass second{.n1 = first.n1,
                        .n2 = first.n2,
                        .compute = twin.compute,
                        .storage = half ? codegen::kHalf : twin.compute,
                        .tile = tile,
                        .threads = threads_of(tile * values, twin)};
  if (static_cast<int64_t>(second.shared_bytes()) > shared_limit) return std::nullopt;
  return FourStepRealRoute{first, second};
}

}  // namespace kevra::ops
