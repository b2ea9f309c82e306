// The KEVRA_CPU_* switches of the environment, read once a process into one record; failures on
// demand (KEVRA_CPU_FAIL) are in platform/common/faults.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kevra_cpu {

enum class Order { forward, reverse, shuffle };

struct Settings {
  std::string clang;  // CLANG: compiler to run; empty when unset: the compiler side finds one
  int threads = 1;    // THREADS: worker threads; unset: the processors of this process
  int devices = 1;    // DEVICES: 0 to 64
  size_t memory = 0;  // MEMORY: bytes a device; unset: half of the machine's memory
  size_t cache = 0;   // CACHE: bytes that the device tells as its cache; 0: the processor's
  size_t shared_limit = 65536;   // SHARED_LIMIT: bytes of shared memory a block may ask for
  Order order = Order::forward;  // ORDER: forward, reverse or shuffle:seed
  uint64_t order_seed = 0;
  bool quick = false;  // QUICK: kernels compile sooner and run slower; check mode has its own way
  bool lanes =
      true;  // LANES: kernels may run in SIMD lanes; never quick, checked or in a set order
  bool null_launches = false;  // NULL: launches are accepted and do nothing
  bool check = false;          // CHECK: check mode
  bool debug = false;          // KEVRA_DEBUG above 0: which kernels run in lanes, and how they fare
  std::string profile;         // PROFILE: file that check mode appends to; empty: none
};

// The first call reads the environment and reports each value it cannot accept on stderr.
const Settings& settings();

}  // namespace kevra_cpu
