#include "kernel/architecture.h"

#include <cstdio>
#include <fstream>

#include "common/settings.h"
#include "kernel/hash.h"
#include "kernel/toolchain.h"

namespace kevra_cpu {

namespace {

std::string short_hash(uint64_t hash) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "%08x", static_cast<unsigned>(hash ^ hash >> 32));
  return digits;
}

// The quoted word behind `option` in the compiler's printed command, from `from` on.
std::string option_value(const std::string& command, const std::string& option, size_t& from) {
  const std::string lead = "\"" + option + "\" \"";
  const size_t found = command.find(lead, from);
  if (found == std::string::npos) return {};
  const size_t begin = found + lead.size(), end = command.find('"', begin);
  from = end;
  return end == std::string::npos ? std::string() : command.substr(begin, end - begin);
}

// Asked by the compiler's dry run: what -march=native stands for here.
std::string compiler_name() {
  if (clang_path().empty()) return {};
  const std::string command =
      run_program({clang_path(), "-march=native", "-###", "-c", "-x", "c++", "/dev/null"}).output;
  size_t from = 0;
  const std::string processor = option_value(command, "-target-cpu", from);
  if (processor.empty()) return {};
  uint64_t features = hash_seed;
  from = 0;
  for (;;) {
    const std::string feature = option_value(command, "-target-feature", from);
    if (feature.empty()) break;
    features = hash_text(feature, features);
  }
  return processor + "-" + short_hash(features);
}

std::string processor_flags_name() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);)
    if (line.rfind("flags", 0) == 0 || line.rfind("Features", 0) == 0)
      return short_hash(hash_text(line));
  return "unknown";
}

std::string make_name() {
  std::string name = compiler_name();
  if (name.empty()) name = processor_flags_name();
  return "cpu-" + name + (settings().check ? "-check" : "");
}

}  // namespace

std::string architecture_name() {
  static const std::string name = make_name();
  return name;
}

}  // namespace kevra_cpu
