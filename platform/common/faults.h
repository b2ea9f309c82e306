// Failures on demand, for testing how callers take them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kevra_platform {

// The `call`-th call of `name` (counted from 1) gives `code`.
struct Failure {
  std::string name;
  uint64_t call = 1;
  int code = 1;
};

// What the device's switch asks for: "function:call" or "function:call:code", several with commas
// between. Read once a process.
const std::vector<Failure>& failures_on_demand();

// Counts the call against the entries for `name`; the code of the one that is due, or 0.
int due_failure(const char* name);

// Stands at the head of every exported function, before it does anything.
inline int injected_failure(const char* name) {
  return failures_on_demand().empty() ? 0 : due_failure(name);
}

}  // namespace kevra_platform
