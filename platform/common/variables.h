// Reading a device's switches from the environment. A value that is not accepted is reported on
// stderr, and the default stays.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kevra_platform {

// What messages call the device, such as "CPU device", and the switch that asks for failures.
// Each device defines both.
extern const char* const device_label;
extern const char* const failure_switch;

// The variable's value; empty when it is unset, which all switches treat alike.
std::string_view variable(const char* name);

void report_variable(const char* name, std::string_view value, const char* accepted,
                     const std::string& used);

std::optional<uint64_t> whole_number(std::string_view text);

// A whole number, or one followed by K, M or G (powers of 1024).
std::optional<uint64_t> byte_count(std::string_view text);

using ParseNumber = std::optional<uint64_t> (*)(std::string_view);

template <typename T>
void read_number(const char* name, uint64_t low, uint64_t high, const char* accepted, T& out,
                 ParseNumber parse = whole_number) {
  const std::string_view text = variable(name);
  if (text.empty()) return;
  const auto value = parse(text);
  if (value && *value >= low && *value <= high) {
    out = static_cast<T>(*value);
  } else {
    report_variable(name, text, accepted, std::to_string(out));
  }
}

}  // namespace kevra_platform
