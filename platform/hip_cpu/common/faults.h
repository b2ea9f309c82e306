// Failures on demand (KEVRA_CPU_FAIL), for testing how callers take them.
#pragma once

#include "common/settings.h"

namespace kevra_cpu {

// Counts the call against the entries for `name`; the code of the one that is due, or 0.
int due_failure(const char* name);

// Stands at the head of every exported function, before it does anything.
inline int injected_failure(const char* name) {
  return settings().failures.empty() ? 0 : due_failure(name);
}

}  // namespace kevra_cpu
