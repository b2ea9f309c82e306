// The device context: is there a GPU, which one is current, and how a failed HIP call becomes an
// exception. The calls of cuda_like/device.h are defined here and in the other files of this
// floor.
#pragma once

#include <string>

namespace kevra {

// Whether a HIP runtime loads, starts and reports a device. Answered once a process; never throws.
bool available();
// The remembered answer: -1 not asked yet, else 0 or 1.
int availability();

// Throws std::runtime_error "file:line: expr [context] failed: words" unless err is 0.
void check_hip(int err, const char* file, int line, const char* expr, const char* context);

// Whether this process was forked from one that had asked for a device: nothing of the runtime may
// be called then.
bool forked();

int device_count();
// Properties of a device; the empty string when the runtime does not tell. The architecture is
// cut before the first ":", so that feature suffixes go.
std::string device_name(int dev);
std::string device_arch(int dev);

void set_deterministic(bool on);

}  // namespace kevra
