// Gradient of decibels of whole arrays.
#pragma once

#include <cstddef>
#include <string>

#include "codegen/backend.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// gS = g mul / (ln 10 S), 0 below amin. With `hastop` what an item's values at the floor receive
// goes to the item's largest, split evenly among equals; a value exactly at the floor gives half.
// Takes (S, g, gS, n, mul, amin, topdb, hastop); a block goes over one item.
struct DbAdjointKernel {
  static constexpr const char* kName = "kevra_db_adj";
  static constexpr int kBlock = 256;  // the halving sums want a power of two

  int prec;  // float or double

  std::string key() const { return "db_adj_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
  // Two sums a thread.
  size_t shared_bytes() const { return 2 * kBlock * (prec == kDouble ? 8 : 4); }
};

}  // namespace kevra::codegen
