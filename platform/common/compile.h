// Kernel text to code object. Each device defines it; the C interface (hiprtc.cpp) is one.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kevra_platform {

struct KernelSource {
  std::string text;
  std::string name;  // what error messages call the text
};

struct Compiled {
  std::vector<std::byte> image;  // empty when the compile failed
  std::string log;               // the compiler's own
};

// `includes` are options of the form -I<folder>.
Compiled compile_kernels(const KernelSource& source, const std::vector<std::string>& includes);

}  // namespace kevra_platform
