// What Griffin-Lim does to spectra between two transforms. Planes are [batch][frame][bin], `total`
// values; a thread takes one value, complex ones as two scalars side by side.
#pragma once

#include <string>

#include "codegen/backend.h"

namespace kevra::codegen {

// Zc = S ang: magnitudes times phases.
struct GriffinLimMultiply {
  static constexpr const char* kName = "kevra_gl_mul";
  static constexpr int kBlock = 256;

  int prec;

  std::string key() const { return "gl_mul_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
};

// The phase of Z - alpha prev, and Z into prev. `tiny` keeps the phase of a silent bin finite: 0.
struct GriffinLimStep {
  static constexpr const char* kName = "kevra_gl_step";
  static constexpr int kBlock = 256;

  int prec;

  std::string key() const { return "gl_step_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
