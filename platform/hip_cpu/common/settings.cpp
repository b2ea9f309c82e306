#include "common/settings.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace kevra_cpu {
namespace {

// The variable's value; empty when it is unset, which all switches treat alike.
std::string_view variable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

void report(const char* name, std::string_view value, const char* accepted,
            const std::string& used) {
  std::fprintf(stderr, "kevra CPU device: %s=%.*s is not accepted: give %s; using %s\n", name,
               static_cast<int>(value.size()), value.data(), accepted, used.c_str());
}

std::optional<uint64_t> whole_number(std::string_view text) {
  uint64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// A whole number, or one followed by K, M or G (powers of 1024).
std::optional<uint64_t> byte_count(std::string_view text) {
  constexpr std::string_view units = "KMG";
  const size_t unit = text.empty() ? units.npos : units.find(text.back());
  if (unit == units.npos) return whole_number(text);
  const auto count = whole_number(text.substr(0, text.size() - 1));
  const unsigned shift = 10 * (static_cast<unsigned>(unit) + 1);
  if (!count || *count > (UINT64_MAX >> shift)) return std::nullopt;
  return *count << shift;
}

template <typename T>
void read_number(const char* name, uint64_t low, uint64_t high, const char* accepted, T& out,
                 std::optional<uint64_t> (*parse)(std::string_view) = whole_number) {
  const std::string_view text = variable(name);
  if (text.empty()) return;
  const auto value = parse(text);
  if (value && *value >= low && *value <= high) {
    out = static_cast<T>(*value);
  } else {
    report(name, text, accepted, std::to_string(out));
  }
}

void read_flag(const char* name, bool& out) {
  const std::string_view text = variable(name);
  if (text == "1") {
    out = true;
  } else if (!text.empty() && text != "0") {
    report(name, text, "0 or 1", "0");
  }
}

void read_order(Settings& out) {
  constexpr const char* name = "KEVRA_CPU_ORDER";
  constexpr std::string_view shuffle = "shuffle:";
  const std::string_view text = variable(name);
  if (text.empty() || text == "forward") return;
  if (text == "reverse") {
    out.order = Order::reverse;
    return;
  }
  const auto seed =
      text.starts_with(shuffle) ? whole_number(text.substr(shuffle.size())) : std::nullopt;
  if (!seed) {
    report(name, text, "forward, reverse or shuffle:seed with a whole number as seed", "forward");
    return;
  }
  out.order = Order::shuffle;
  out.order_seed = *seed;
}

std::optional<Failure> parse_failure(std::string_view text) {
  const size_t colon = text.find(':');
  if (!text.starts_with("hip") || colon == text.npos) return std::nullopt;
  Failure entry;
  entry.name = text.substr(0, colon);
  // What a failed compile gives (6) in hipRTC's numbering, "invalid value" in HIP's.
  entry.code = entry.name.starts_with("hiprtc") ? 6 : 1;
  text.remove_prefix(colon + 1);
  const size_t second = text.find(':');
  const auto call = whole_number(text.substr(0, second));
  if (!call || *call == 0) return std::nullopt;
  entry.call = *call;
  if (second != text.npos) {
    const auto code = whole_number(text.substr(second + 1));
    if (!code || *code == 0 || *code > 9999) return std::nullopt;
    entry.code = static_cast<int>(*code);
  }
  return entry;
}

void read_failures(std::vector<Failure>& out) {
  constexpr const char* name = "KEVRA_CPU_FAIL";
  std::string_view text = variable(name);
  while (!text.empty()) {
    const size_t comma = std::min(text.find(','), text.size());
    const std::string_view item = text.substr(0, comma);
    if (auto entry = parse_failure(item)) {
      out.push_back(std::move(*entry));
    } else {
      report(name, item, "function:call or function:call:code, as in hipMalloc:3:2", "no failure");
    }
    text.remove_prefix(std::min(comma + 1, text.size()));
  }
}

int usable_processors() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof set, &set) != 0) return 1;
  return std::max(1, CPU_COUNT(&set));
}

Settings read_environment() {
  Settings out;
  out.threads = usable_processors();
  out.memory = static_cast<size_t>(sysconf(_SC_PHYS_PAGES)) *
               static_cast<size_t>(sysconf(_SC_PAGE_SIZE)) / 2;
  out.clang = variable("KEVRA_CPU_CLANG");
  out.profile = variable("KEVRA_CPU_PROFILE");
  read_number("KEVRA_CPU_THREADS", 1, 1024, "a whole number from 1 to 1024", out.threads);
  read_number("KEVRA_CPU_DEVICES", 0, 64, "a whole number from 0 to 64", out.devices);
  read_number("KEVRA_CPU_MEMORY", 1, SIZE_MAX, "bytes as a whole number, or with K, M or G behind",
              out.memory, byte_count);
  read_number("KEVRA_CPU_SHARED_LIMIT", 0, size_t{1} << 30,
              "bytes from 0 to 1G as a whole number, or with K, M or G behind", out.shared_limit,
              byte_count);
  read_failures(out.failures);
  read_order(out);
  read_flag("KEVRA_CPU_NULL", out.null_launches);
  read_flag("KEVRA_CPU_CHECK", out.check);
  return out;
}

}  // namespace

const Settings& settings() {
  // Never destroyed: threads may still run when the process ends.
  static const Settings& value = *new Settings(read_environment());
  return value;
}

}  // namespace kevra_cpu
