#include "kernel/source_line.h"

#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "kernel/memory_file.h"
#include "kernel/toolchain.h"

namespace kevra_cpu {

std::string source_line(const std::vector<std::byte>& elf, uintptr_t offset) {
  const std::string tool = find_program("addr2line");
  const MemoryFile file("kevra-kernel");
  if (tool.empty() || !file.write(elf)) return {};
  const std::string path =
      "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(file.descriptor());
  char address[24];
  std::snprintf(address, sizeof address, "0x%zx", static_cast<size_t>(offset));
  // Functions of the device header are inlined: the first line outside it is the kernel's.
  std::istringstream lines(run_program({tool, "-s", "-i", "-e", path, address}).output);
  for (std::string line; std::getline(lines, line);)
    if (line.rfind("??", 0) != 0 && line.find("kevra device:") == std::string::npos)
      return line.substr(0, line.find(" (discriminator"));
  return {};
}

}  // namespace kevra_cpu
