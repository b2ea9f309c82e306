// Filling text templates, and the numbers that go into them.
#pragma once

#include <string>
#include <vector>

namespace kevra::codegen {

// Replaces each `$` of `fmt` by the next argument, whole and unscanned. There is no escape for
// `$`. Throws std::logic_error when the counts differ: that is a generator's fault.
std::string format(const char* fmt, const std::vector<std::string>& args);

// A double as it enters kernel text: 17 significant digits, no suffix. The use site casts it.
std::string number_literal(double value);

}  // namespace kevra::codegen
