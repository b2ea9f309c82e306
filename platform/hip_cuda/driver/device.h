// The devices of the process and their primary contexts, which other users of CUDA in the process
// share: so their addresses and streams are good here, and ours there.
#pragma once

#include <string>

#include "driver/driver.h"
#include "platform/common/image.h"

namespace kevra_cuda {

// Makes the device's primary context the calling thread's. 0 or an error.
int set_current_device(int index);

// 0 once the calling thread has a device; a thread that has chosen none works on device 0.
int current_device(int* index);

int device_query(int* value, DeviceQuery query, int index);

// Bytes of shared memory that a block of the device may ask for.
int shared_limit(int* bytes, int index);

// KEVRA_CUDA_ARCH, else the device's, as in sm_90. Empty when there is no such device.
std::string architecture_name(int index);

// What code objects for that architecture are marked with.
kevra_platform::ImageTag code_object_tag(const std::string& architecture);

}  // namespace kevra_cuda
