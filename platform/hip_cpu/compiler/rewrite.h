// Kernel text made into C++ that the device header completes. Three things change: the head of
// a kernel gains the thread as its first parameter, `return` in a kernel that waits becomes
// `co_return`, and a shared array becomes a place in the block's shared memory. Line numbers stay.
#pragma once

#include <string>
#include <string_view>

namespace kevra_cpu {

std::string rewrite_kernels(std::string_view text);

}  // namespace kevra_cpu
