// The precision codes that callers pass and kernels are written for.
#pragma once

namespace kevra::codegen {

inline constexpr int kHalf = 0;
inline constexpr int kFloat = 1;
inline constexpr int kDouble = 2;

// Half data is computed in float; every code but the double one runs as float.
constexpr int compute_precision(int prec) {
  return prec == kDouble ? kDouble : kFloat;
}
constexpr int storage_precision(int prec) {
  return prec == kHalf ? kHalf : compute_precision(prec);
}

// Of the twin that computes in T.
template <class T>
inline constexpr int kPrecisionOf = sizeof(T) == 8 ? kDouble : kFloat;

}  // namespace kevra::codegen
