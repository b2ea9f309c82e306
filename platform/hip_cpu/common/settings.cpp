#include "common/settings.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "platform/common/variables.h"

const char* const kevra_platform::device_label = "CPU device";
const char* const kevra_platform::failure_switch = "KEVRA_CPU_FAIL";

using namespace kevra_platform;

namespace kevra_cpu {
namespace {

void read_flag(const char* name, bool& out) {
  const std::string_view text = variable(name);
  if (text == "0" || text == "1") {
    out = text == "1";
  } else if (!text.empty()) {
    report_variable(name, text, "0 or 1", out ? "1" : "0");
  }
}

// Check mode watches single blocks, and an order of blocks, whichever, means one after the other.
// Lanes are more than half of a compile.
void read_lanes(Settings& out) {
  read_flag("KEVRA_CPU_LANES", out.lanes);
  out.lanes &= !out.check && !out.quick && variable("KEVRA_CPU_ORDER").empty();
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
    report_variable(name, text, "forward, reverse or shuffle:seed with a whole number as seed",
                    "forward");
    return;
  }
  out.order = Order::shuffle;
  out.order_seed = *seed;
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
  read_number("KEVRA_CPU_CACHE", 1, size_t{1} << 30,
              "bytes from 1 to 1G as a whole number, or with K, M or G behind", out.cache,
              byte_count);
  read_number("KEVRA_CPU_SHARED_LIMIT", 0, size_t{1} << 30,
              "bytes from 0 to 1G as a whole number, or with K, M or G behind", out.shared_limit,
              byte_count);
  read_order(out);
  read_flag("KEVRA_CPU_NULL", out.null_launches);
  read_flag("KEVRA_CPU_CHECK", out.check);
  read_flag("KEVRA_CPU_QUICK", out.quick);
  read_lanes(out);
  const std::string_view debug = variable("KEVRA_DEBUG");
  out.debug = !debug.empty() && debug.front() >= '1' && debug.front() <= '9';
  return out;
}

}  // namespace

const Settings& settings() {
  // Never destroyed: threads may still run when the process ends.
  static const Settings& value = *new Settings(read_environment());
  return value;
}

}  // namespace kevra_cpu
