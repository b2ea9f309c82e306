// From the gradient of a real form of output to the gradient of the complex bin behind it. A bin's
// gradient G is dE/dRe X + i dE/dIm X; for the forms of output it is c X with a real c.
#pragma once

#include <string>

#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// Names `c` for a bin X and the gradient g of its form, both names of the kernel: g / |X| for the
// magnitude, 2 g for the power, and for decibels, with EPS defined by eps_define, 20 g / (ln 10
// (|X|^2 + EPS)). A magnitude up to 1e-12 has no direction to follow and gives 0.
void emit_chain_rule(KernelWriter& w, int form, double eps, const std::string& bin,
                     const std::string& gradient);

// factor * gradient / (value + eps), and 0 where a value of 0 and an eps too small for the
// arithmetic leave nothing to divide by. `name` is what the kernel calls eps.
std::string over_eps(const KernelWriter& w, double eps, double factor, const std::string& gradient,
                     const std::string& value, const std::string& name = "EPS");

// Names `c` for the gradient of |X|: gradient / mag, `mag` being the root of `power`, or 0.
void emit_magnitude_rule(KernelWriter& w, const std::string& power, const std::string& gradient);

}  // namespace kevra::codegen
