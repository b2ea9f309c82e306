#include "platform/common/faults.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "platform/common/variables.h"

namespace kevra_platform {
namespace {

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

std::vector<Failure> read_failures() {
  std::vector<Failure> out;
  std::string_view text = variable(failure_switch);
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
  return out;
}

}  // namespace

const std::vector<Failure>& failures_on_demand() {
  // Never destroyed: threads may still run when the process ends.
  static const auto& entries = *new std::vector<Failure>(read_failures());
  return entries;
}

int due_failure(const char* name) {
  const std::vector<Failure>& entries = failures_on_demand();
  static std::atomic<uint64_t>* const calls = new std::atomic<uint64_t>[entries.size()]();
  int code = 0;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (entries[i].name != name) continue;
    const uint64_t call = calls[i].fetch_add(1, std::memory_order_relaxed) + 1;
    if (call != entries[i].call) continue;
    code = entries[i].code;
    std::fprintf(stderr, "kevra %s: call %llu of %s fails with %d, as %s asks\n", device_label,
                 static_cast<unsigned long long>(call), name, code, failure_switch);
  }
  return code;
}

}  // namespace kevra_platform
