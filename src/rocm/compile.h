// From kernel text to a callable function: memo, disk cache, hipRTC, module load.
// kernel_function, the road that operations take, is declared in cuda_like/device.h.
#pragma once

#include <string>

#include "cuda_like/device.h"

namespace kevra {

// The function `kernel_name` of `source` for device `dev`, which must be current. Throws
// std::runtime_error when the text does not compile or the driver refuses the object.
kernel_t compile_function(int dev, const std::string& source, const std::string& kernel_name);

// The architecture that names cached objects; "gfxunknown" when the device does not tell.
std::string arch_name(int dev);

void check_rtc(int err, int line, const char* expr);

}  // namespace kevra
