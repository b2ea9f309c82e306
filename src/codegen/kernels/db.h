// Decibels of whole arrays, element by element, and the way back.
#pragma once

#include <cstddef>
#include <string>

#include "codegen/backend.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// d = mul * log10(max(S, amin)) - cref; with `hastop` nothing of an item lies more than topdb below
// the item's largest d. A block goes over one item; `out` may be `S`.
struct DbKernel {
  static constexpr const char* kName = "kevra_db";
  static constexpr int kBlock = 256;  // the halving maximum wants a power of two

  int prec;  // float or double

  std::string key() const { return "db_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
  // One maximum a thread.
  size_t shared_bytes() const { return kBlock * (prec == kDouble ? 8 : 4); }
};

// out = ref * 10^(D / mul), a value a thread.
struct DbInverseKernel {
  static constexpr const char* kName = "kevra_db_inv";
  static constexpr int kBlock = 256;

  int prec;

  std::string key() const { return "db_inv_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
