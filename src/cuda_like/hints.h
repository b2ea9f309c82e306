// The hint table: wishes of a tuner, or of a caller, for exact shapes.
#pragma once

#include <cstdint>
#include <string>

#include "codegen/stft_config.h"

namespace kevra {

using codegen::ShapeHint;

enum class HintOp { kStft = 1, kIstft = 2, kMel = 3, kFft = 4, kRfft = 5, kCqt = 6 };

// The shape that a hint names. `bits` is the storage width: 64, 32, 16, or 8 for packed 16-bit
// arithmetic. `form` is the code of the output form; only stft, mel and cqt have one.
struct HintShape {
  HintOp op;
  int n = 0;
  int hop = 0;
  bool center = false;
  int bits = 32;
  int form = 0;
  int extra = 0;
  int device = 0;
};

uint64_t hint_key(const HintShape& shape);
// The hint of that key; all zero and false when there is none.
bool hint_lookup(uint64_t key, ShapeHint* out);

// "magnitude" 1, "power" 2, "db" 3, anything else 0 (complex).
int output_form(const std::string& output);

// Stores one hint and moves the epoch. Throws std::invalid_argument for an unknown op.
void set_shape_hint(const std::string& op, HintShape shape, const std::string& output,
                    const ShapeHint& hint);
void shape_hint_clear();

// Counts changes of the table. Plans hold the epoch that they were made in and are found in no
// other.
uint64_t shape_epoch();

}  // namespace kevra
