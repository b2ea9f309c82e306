// How many threads are worth running on this machine.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace kevra::host_fft {

// Logical processors of the fastest cores on a machine with cores of unequal speed, else physical
// cores, else what the standard library reports, and at least 1. Asked of the system once.
int hardware_threads();

// The first two steps of that, of a machine that a folder laid out like /sys/devices describes; 0
// where the folder does not tell.
int fastest_processors(const std::filesystem::path& devices);
int physical_cores(const std::filesystem::path& devices);

// The numbers of a kernel's list such as "0-3,8". Ends at the first thing that is none.
std::vector<int> processor_list(const std::string& text);

}  // namespace kevra::host_fft
