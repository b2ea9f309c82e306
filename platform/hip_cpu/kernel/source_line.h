// Which line of the kernel text a piece of machine code came from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kevra_cpu {

// "rms.hip:12" for the code at `offset` in the shared object, or nothing when it has no line
// tables or the machine no addr2line.
std::string source_line(const std::vector<std::byte>& elf, uintptr_t offset);

}  // namespace kevra_cpu
