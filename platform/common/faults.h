// Failures on demand, for testing how callers take them.
#pragma once

#include <cstdint>

namespace kevra_platform {

// At first they are what the device's switch asks for: "function:call" or "function:call:code",
// several with commas between. A process may ask for others while it runs, by these two exports.

// Drops what was asked before; `plan` is as in the switch, and calls are counted from here on.
extern "C" __attribute__((visibility("default"))) void kevra_fail(const char* plan);
// Calls, since the plan was made, of a function that it names; 0 of any other.
extern "C" __attribute__((visibility("default"))) uint64_t kevra_fail_calls(const char* name);

// Counts the call against the entries for `name`; the code of the one that is due, or 0.
int due_failure(const char* name);

// Whether any call is to fail, or to be counted.
bool failures_on_demand();

// Stands at the head of every exported function, before it does anything.
inline int injected_failure(const char* name) {
  return failures_on_demand() ? due_failure(name) : 0;
}

}  // namespace kevra_platform
