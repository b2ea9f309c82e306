#include "common/faults.h"

#include <atomic>
#include <cstdio>

namespace kevra_cpu {

int due_failure(const char* name) {
  const std::vector<Failure>& entries = settings().failures;
  static std::atomic<uint64_t>* const calls = new std::atomic<uint64_t>[entries.size()]();
  int code = 0;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (entries[i].name != name) continue;
    const uint64_t call = calls[i].fetch_add(1, std::memory_order_relaxed) + 1;
    if (call != entries[i].call) continue;
    code = entries[i].code;
    std::fprintf(stderr,
                 "kevra CPU device: call %llu of %s fails with %d, as KEVRA_CPU_FAIL asks\n",
                 static_cast<unsigned long long>(call), name, code);
  }
  return code;
}

}  // namespace kevra_cpu
