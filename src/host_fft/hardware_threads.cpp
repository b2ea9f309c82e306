#include "host_fft/hardware_threads.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

namespace kevra::host_fft {
namespace {

using std::filesystem::path;

std::string first_line(const path& file) {
  std::string line;
  std::ifstream stream(file);
  std::getline(stream, line);
  return line;
}

path folder_of(const path& devices, int processor) {
  return devices / "system/cpu" / ("cpu" + std::to_string(processor));
}

// Processors whose core is of the fastest kind, judged by a number that a file of each holds: 0
// when the numbers are all alike or one is missing. Cores of one kind differ by a few hundredths,
// as a processor boosts some of them further, while slow ones lack a fifth and more; so a tenth
// below the best still counts as fast.
int fastest_by(const path& devices, const std::vector<int>& online, const char* file) {
  std::vector<long> speeds;
  for (int processor : online) {
    long speed = 0;
    std::istringstream(first_line(folder_of(devices, processor) / file)) >> speed;
    if (speed <= 0) return 0;
    speeds.push_back(speed);
  }
  if (speeds.empty()) return 0;
  const long best = *std::max_element(speeds.begin(), speeds.end());
  const auto fast = std::count_if(speeds.begin(), speeds.end(),
                                  [best](long speed) { return speed > best - best / 10; });
  return fast == static_cast<long>(speeds.size()) ? 0 : static_cast<int>(fast);
}

std::vector<int> online_processors(const path& devices) {
  return processor_list(first_line(devices / "system/cpu/online"));
}

}  // namespace

std::vector<int> processor_list(const std::string& text) {
  std::vector<int> processors;
  std::istringstream stream(text);
  for (int first = 0; stream >> first;) {
    int last = first;
    if (stream.peek() == '-') stream.ignore() >> last;
    for (int processor = first; stream && processor <= last; ++processor) {
      processors.push_back(processor);
    }
    if (stream.peek() != ',') break;
    stream.ignore();
  }
  return processors;
}

int fastest_processors(const path& devices) {
  const std::vector<int> online = online_processors(devices);
  // A kernel that knows kinds of cores lists those of the fast kind.
  const std::vector<int> fast = processor_list(first_line(devices / "cpu_core/cpus"));
  const auto is_online = [&](int processor) {
    return std::find(online.begin(), online.end(), processor) != online.end();
  };
  const auto count = static_cast<int>(std::count_if(fast.begin(), fast.end(), is_online));
  if (count > 0 && count < static_cast<int>(online.size())) return count;
  for (const char* file : {"cpu_capacity", "cpufreq/cpuinfo_max_freq"}) {
    const int processors = fastest_by(devices, online, file);
    if (processors > 0) return processors;
  }
  return 0;
}

int physical_cores(const path& devices) {
  std::set<std::string> cores;
  for (int processor : online_processors(devices)) {
    const path topology = folder_of(devices, processor) / "topology";
    std::string siblings = first_line(topology / "core_cpus_list");
    if (siblings.empty()) siblings = first_line(topology / "thread_siblings_list");
    if (siblings.empty()) return 0;
    cores.insert(siblings);
  }
  return static_cast<int>(cores.size());
}

int hardware_threads() {
  static const int threads = [] {
    const path devices = "/sys/devices";
    const int candidates[] = {fastest_processors(devices), physical_cores(devices),
                              static_cast<int>(std::thread::hardware_concurrency())};
    for (int candidate : candidates) {
      if (candidate >= 1) return candidate;
    }
    return 1;
  }();
  return threads;
}

}  // namespace kevra::host_fft
