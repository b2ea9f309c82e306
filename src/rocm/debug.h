// What KEVRA_DEBUG shows on stderr: level 1 names, keys and times of compiles and launches, level 2
// the sources too. Silent, and free but for one test, at level 0.
#pragma once

#include <chrono>
#include <string>

#include "cuda_like/device.h"

namespace kevra::debug {

using Clock = std::chrono::steady_clock;

// The level as it stood when it was first asked for.
int level();

// One kernel became available: how ("compiled", "from disk"), and since when it was in the making.
void made(const std::string& kernel_name, const char* how, Clock::time_point since,
          const std::string& source);

// A key leads to this function, so that launches can name it.
void keyed(kernel_t fn, const std::string& key);

// A launch was queued; the time is the host's.
void launched(kernel_t fn, const char* name, unsigned gx, unsigned gy, unsigned block,
              size_t shared, stream_t stream, Clock::time_point since);

// The text with a number in front of each line, as compilers count them.
std::string numbered(const std::string& source);

}  // namespace kevra::debug
