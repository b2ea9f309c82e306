// How a transform too long for one block is split, and the kernels of its passes. Pure functions of
// size, precision and the device's shared memory; nothing here touches a device.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "codegen/kernels/four_step.h"

namespace kevra::ops {

struct FourStepShape {
  int n;  // complex values to a row
  bool wide;
  bool inverse;
  bool half_in;  // 16-bit storage
  bool half_out;
};

// The most balanced (n1, n2), n1 the smaller, with a column of either in shared memory; (0, 0) when
// there is none.
std::pair<int, int> four_step_sides(int n, bool wide, int64_t shared_limit);

struct FourStepRoute {
  codegen::ColumnPass first;
  codegen::ColumnPass second;
};
// Where values stand between the passes: as lines that the second pass reads by columns and may
// store in place, or where the inputs stood, so that the first pass may work in place.
enum class Between { kLines, kKept };
// None for an n that has no sides.
std::optional<FourStepRoute> route_four_step(const FourStepShape& shape, int64_t shared_limit,
                                             Between between = Between::kLines);

// A transform whose both passes work in place, at full precision: the forward one leaves value
// k1 n2 + k2 at k2 n1 + k1, and the inverse takes it there.
std::optional<FourStepRoute> route_transposed(int n, bool wide, bool inverse, int64_t shared_limit);

// The forward transform of 2 m reals, whose second pass splits as well.
struct FourStepRealRoute {
  codegen::ColumnPass first;
  codegen::RealPass second;
};
// None when m has no sides or n2 is odd, where no tile of columns ends at the middle.
std::optional<FourStepRealRoute> route_four_step_real(int m, bool wide, bool half,
                                                      int64_t shared_limit);

}  // namespace kevra::ops
