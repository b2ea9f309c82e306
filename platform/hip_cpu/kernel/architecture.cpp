#include "kernel/architecture.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "common/settings.h"
#include "kernel/toolchain.h"
#include "platform/common/device_text.h"
#include "platform/common/hash.h"

namespace fs = std::filesystem;

using namespace kevra_platform;

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

// What the kernel says the processor can do; the empty string where it does not tell.
std::string processor_flags() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);)
    if (line.rfind("flags", 0) == 0 || line.rfind("Features", 0) == 0) return line;
  return {};
}

// Where the compiler's answer is kept: the dry run costs 20 ms, twenty times what the first call
// of a process costs otherwise. Another compiler, processor or user has a file of its own.
fs::path answer_file() {
  std::error_code failed;
  const fs::path folder = fs::temp_directory_path(failed);
  const auto changed = fs::last_write_time(clang_path(), failed).time_since_epoch().count();
  uint64_t key = hash_text(processor_flags());
  key = hash_text(clang_path() + std::to_string(changed) + "/" + std::to_string(getuid()), key);
  return folder / ("kevra_cpu_processor_" + short_hash(key));
}

bool is_name(const std::string& text) {
  const auto fits = [](unsigned char c) { return std::isalnum(c) || c == '-' || c == '_'; };
  return !text.empty() && text.size() < 100 && std::all_of(text.begin(), text.end(), fits);
}

// A file that cannot be written costs the next process another dry run, nothing else.
void keep_answer(const fs::path& file, const std::string& name) {
  const fs::path temporary = file.string() + "." + std::to_string(getpid());
  std::error_code failed;
  if (std::ofstream(temporary) << name << '\n') fs::rename(temporary, file, failed);
  fs::remove(temporary, failed);
}

std::string kept_compiler_name() {
  if (clang_path().empty()) return {};
  const fs::path file = answer_file();
  std::string name;
  std::getline(std::ifstream(file) >> std::ws, name);
  if (is_name(name)) return name;
  name = compiler_name();
  if (is_name(name)) keep_answer(file, name);
  return name;
}

// Code objects of one way of compiling are of no use to another.
std::string compiled_how() {
  if (settings().check) return "-check";
  if (settings().quick) return "-quick";
  return settings().lanes ? "" : "-blocks";
}

std::string make_name() {
  std::string name = kept_compiler_name();
  if (name.empty()) name = short_hash(hash_text(processor_flags()));
  return "cpu-" + name + compiled_how();
}

}  // namespace

std::string architecture_name() {
  static const std::string name = make_name();
  return name;
}

kevra_platform::ImageTag code_object_tag() {
  return {"KEVRACPU", device_version, architecture_name()};
}

}  // namespace kevra_cpu
