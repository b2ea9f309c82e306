// Short waits without a system call: most commands are done within microseconds, and waking
// a sleeping thread costs about as much.
#pragma once

#include <chrono>
#include <thread>

namespace kevra_cpu {

inline void pause_briefly() {
#if defined(__x86_64__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

// Polls for at most `limit`, giving way to other threads; whether `done` came true.
template <typename Done>
bool spin_until(Done done, std::chrono::microseconds limit = std::chrono::microseconds(30)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  do {
    for (int i = 0; i < 16; ++i) {
      if (done()) return true;
      pause_briefly();
    }
    std::this_thread::yield();
  } while (std::chrono::steady_clock::now() < end);
  return done();
}

}  // namespace kevra_cpu
