#include "platform/common/faults.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/common/variables.h"

namespace kevra_platform {
namespace {

// The `call`-th call of `name` (counted from 1) gives `code`.
struct Failure {
  std::string name;
  uint64_t call = 1;
  int code = 1;
};

struct FailurePlan {
  explicit FailurePlan(std::vector<Failure> failures)
      : entries(std::move(failures)), calls(new std::atomic<uint64_t>[entries.size()]()) {}

  std::vector<Failure> entries;
  std::unique_ptr<std::atomic<uint64_t>[]> calls;
};

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

FailurePlan* read_plan(std::string_view text) {
  std::vector<Failure> out;
  while (!text.empty()) {
    const size_t comma = std::min(text.find(','), text.size());
    const std::string_view item = text.substr(0, comma);
    if (auto entry = parse_failure(item)) {
      out.push_back(std::move(*entry));
    } else {
      report_variable(failure_switch, item,
                      "function:call or function:call:code, as in hipMalloc:3:2", "no failure");
    }
    text.remove_prefix(std::min(comma + 1, text.size()));
  }
  return new FailurePlan(std::move(out));
}

// A plan is never destroyed: other threads may be counting when it is replaced, and when the
// process ends.
std::atomic<FailurePlan*>& present_plan() {
  static std::atomic<FailurePlan*> plan{read_plan(variable(failure_switch))};
  return plan;
}

}  // namespace

bool failures_on_demand() {
  return !present_plan().load(std::memory_order_acquire)->entries.empty();
}

int due_failure(const char* name) {
  FailurePlan& plan = *present_plan().load(std::memory_order_acquire);
  int code = 0;
  for (size_t i = 0; i < plan.entries.size(); ++i) {
    const Failure& entry = plan.entries[i];
    if (entry.name != name) continue;
    const uint64_t call = plan.calls[i].fetch_add(1, std::memory_order_relaxed) + 1;
    if (call != entry.call) continue;
    code = entry.code;
    std::fprintf(stderr, "kevra %s: call %llu of %s fails with %d, as %s asks\n", device_label,
                 static_cast<unsigned long long>(call), name, code, failure_switch);
  }
  return code;
}

void kevra_fail(const char* plan) {
  present_plan().store(read_plan(plan), std::memory_order_release);
}

uint64_t kevra_fail_calls(const char* name) {
  const FailurePlan& plan = *present_plan().load(std::memory_order_acquire);
  for (size_t i = 0; i < plan.entries.size(); ++i) {
    if (plan.entries[i].name == name) return plan.calls[i].load(std::memory_order_relaxed);
  }
  return 0;
}

}  // namespace kevra_platform
