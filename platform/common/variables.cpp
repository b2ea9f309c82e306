#include "platform/common/variables.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>

namespace kevra_platform {
std::string_view variable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

void report_variable(const char* name, std::string_view value, const char* accepted,
                     const std::string& used) {
  std::fprintf(stderr, "kevra %s: %s=%.*s is not accepted: give %s; using %s\n", device_label, name,
               static_cast<int>(value.size()), value.data(), accepted, used.c_str());
}

std::optional<uint64_t> whole_number(std::string_view text) {
  uint64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<uint64_t> byte_count(std::string_view text) {
  constexpr std::string_view units = "KMG";
  const size_t unit = text.empty() ? units.npos : units.find(text.back());
  if (unit == units.npos) return whole_number(text);
  const auto count = whole_number(text.substr(0, text.size() - 1));
  const unsigned shift = 10 * (static_cast<unsigned>(unit) + 1);
  if (!count || *count > (UINT64_MAX >> shift)) return std::nullopt;
  return *count << shift;
}

}  // namespace kevra_platform
