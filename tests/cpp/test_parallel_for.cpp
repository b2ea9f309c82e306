// The pool: every index once, exceptions, nesting, callers side by side, limits from the
// environment, and how many threads machines of several shapes are given.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "environment.h"
#include "host_fft/hardware_threads.h"
#include "host_fft/parallel_for.h"

namespace kevra::host_fft {
namespace {

void expect_every_index_once(int count) {
  std::vector<std::atomic<int>> calls(count);
  parallel_for(count, [&](int index) { ++calls[index]; });
  for (int index = 0; index < count; ++index) ASSERT_EQ(calls[index], 1) << index << "/" << count;
}

TEST(ParallelFor, CallsEveryIndexOnceAlsoAfterTheWorkersFellAsleep) {
  parallel_for(-1, [](int) { FAIL(); });
  parallel_for(0, [](int) { FAIL(); });
  for (int count = 1; count < 300; ++count) expect_every_index_once(count);
  for (int round = 0; round < 3; ++round) {
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    expect_every_index_once(1000);
  }
}

TEST(ParallelFor, RunsInnerLoopsSeriallyOnTheirThread) {
  std::atomic<int> calls{0}, elsewhere{0};
  parallel_for(20, [&](int) {
    const auto here = std::this_thread::get_id();
    int expected = 0;
    parallel_for(10, [&](int index) {
      ++calls;
      if (std::this_thread::get_id() != here || index != expected++) ++elsewhere;
    });
  });
  EXPECT_EQ(calls, 200);
  EXPECT_EQ(elsewhere, 0);
}

TEST(ParallelFor, RethrowsOneExceptionAndStaysUsable) {
  for (int round = 0; round < 50; ++round) {
    EXPECT_THROW(parallel_for(100,
                              [](int index) {
                                if (index % 3 == 0) throw std::out_of_range("index");
                              }),
                 std::out_of_range);
    expect_every_index_once(64);
  }
  // One alone runs here, and the indices behind it are not begun.
  int begun = 0;
  EXPECT_THROW(parallel_for(1, [&](int) { throw std::out_of_range(std::to_string(++begun)); }),
               std::out_of_range);
  EXPECT_EQ(begun, 1);
}

TEST(ParallelFor, ServesCallersSideBySide) {
  std::vector<std::thread> callers;
  std::atomic<int64_t> sum{0};
  for (int caller = 0; caller < 4; ++caller) {
    callers.emplace_back([&] {
      for (int round = 0; round < 50; ++round) parallel_for(40, [&](int index) { sum += index; });
    });
  }
  for (auto& caller : callers) caller.join();
  EXPECT_EQ(sum, 4 * 50 * 780);
}

// Run by ThreadsFollowTheEnvironment in processes of its own: the limit is read as they start.
TEST(ParallelFor, DISABLED_TellsItsThreads) {
  std::mutex mutex;
  std::set<std::thread::id> threads;
  for (int round = 0; round < 20; ++round) {
    parallel_for(64, [&](int) {
      std::this_thread::sleep_for(std::chrono::microseconds(50));
      const std::lock_guard lock(mutex);
      threads.insert(std::this_thread::get_id());
    });
  }
  std::printf("\n# %d %zu %d %d %d\n", max_threads(), threads.size(), parallel_chunk(100, 1000),
              parallel_chunk(10, 1000), parallel_chunk(100, 1));
}

struct Told {
  int limit, used, chunk, small_grain, one_row;
};

Told told_under(const std::string& variables) {
  const auto self = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::string command = "env -u KEVRA_NUM_THREADS -u OMP_NUM_THREADS " + variables + " '" +
                              self + "' --gtest_also_run_disabled_tests " +
                              "--gtest_filter=ParallelFor.DISABLED_TellsItsThreads";
  FILE* pipe = popen(command.c_str(), "r");
  Told told{};
  char line[512];
  while (pipe != nullptr && std::fgets(line, sizeof line, pipe) != nullptr) {
    std::sscanf(line, "# %d %d %d %d %d", &told.limit, &told.used, &told.chunk, &told.small_grain,
                &told.one_row);
  }
  EXPECT_EQ(pclose(pipe), 0) << command;
  return told;
}

TEST(ParallelFor, ThreadsFollowTheEnvironment) {
  const Told one = told_under("KEVRA_NUM_THREADS=1");
  EXPECT_EQ(one.limit, 1);
  EXPECT_EQ(one.used, 1);
  EXPECT_EQ(one.chunk, 1000);
  const Told two = told_under("OMP_NUM_THREADS=2");
  EXPECT_EQ(two.limit, 2);
  EXPECT_LE(two.used, 2);
  EXPECT_EQ(two.chunk, 100);  // an eighth is 125, the grain less
  EXPECT_EQ(two.small_grain, 10);
  EXPECT_EQ(two.one_row, 1);
  const int processors = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
  const Told many = told_under("KEVRA_NUM_THREADS=4096");
  EXPECT_EQ(many.limit, 4096);
  EXPECT_LE(many.used, processors);
  EXPECT_EQ(many.used > 1, processors > 1);
  EXPECT_EQ(many.chunk, 1);
  EXPECT_EQ(told_under("").limit, hardware_threads());
}

TEST(ThreadLimit, ReadsTheFirstVariableThatHoldsANumberInRange) {
  struct Case {
    const char* kevra;
    const char* omp;
    int limit;
  };
  const Case cases[] = {{nullptr, nullptr, 0}, {"0", "3", 0},       {"5000", "3", 3},
                        {"", "3", 3},          {"4096", "3", 4096}, {"-1", "3", 3},
                        {"2x", "3", 2},        {"x", "x", 0},       {nullptr, "0", 0},
                        {"many", "0", 0},      {" 7", "3", 7},      {nullptr, "4097", 0}};
  for (const auto& [kevra, omp, limit] : cases) {
    unsetenv("KEVRA_NUM_THREADS");
    unsetenv("OMP_NUM_THREADS");
    if (kevra != nullptr) setenv("KEVRA_NUM_THREADS", kevra, 1);
    if (omp != nullptr) setenv("OMP_NUM_THREADS", omp, 1);
    EXPECT_EQ(environment::thread_limit(), limit)
        << (kevra ? kevra : "unset") << ", " << (omp ? omp : "unset");
  }
  unsetenv("KEVRA_NUM_THREADS");
  unsetenv("OMP_NUM_THREADS");
}

// A folder laid out like /sys/devices, of a machine that exists nowhere.
class Machine {
 public:
  Machine() {
    std::string name = (std::filesystem::temp_directory_path() / "kevra-cpus-XXXXXX").string();
    devices_ = mkdtemp(name.data());
  }
  ~Machine() { std::filesystem::remove_all(devices_); }
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;

  void write(const std::string& file, const std::string& text) const {
    std::filesystem::create_directories((devices_ / file).parent_path());
    std::ofstream(devices_ / file) << text << "\n";
  }
  void write_cpu(int cpu, const std::string& file, const std::string& text) const {
    write("system/cpu/cpu" + std::to_string(cpu) + "/" + file, text);
  }
  const std::filesystem::path& devices() const { return devices_; }

 private:
  std::filesystem::path devices_;
};

TEST(HardwareThreads, CountsTheCoresOfAUniformMachineOnce) {
  const Machine machine;
  EXPECT_EQ(physical_cores(machine.devices()), 0);
  EXPECT_EQ(fastest_processors(machine.devices()), 0);
  machine.write("system/cpu/online", "0-2,4-7");
  const int boost[] = {5200000, 5200000, 5500000, 0, 5500000, 5200000, 5200000, 5200000};
  for (int cpu : {0, 1, 2, 4, 5, 6, 7}) {
    const int first = cpu % 4;
    machine.write_cpu(cpu, "topology/thread_siblings_list",
                      std::to_string(first) + "," + std::to_string(first + 4));
    machine.write_cpu(cpu, "cpufreq/cpuinfo_max_freq", std::to_string(boost[cpu]));
    machine.write_cpu(cpu, "cpu_capacity", "1024");
  }
  EXPECT_EQ(physical_cores(machine.devices()), 4);  // the fourth by the one thread that is online
  EXPECT_EQ(fastest_processors(machine.devices()), 0);
}

TEST(HardwareThreads, CountsTheProcessorsOfTheFastestCoresOfAHybridMachine) {
  const Machine by_capacity, by_frequency, by_kind;
  for (const Machine* machine : {&by_capacity, &by_frequency, &by_kind}) {
    machine->write("system/cpu/online", "0-5");
    for (int cpu = 0; cpu < 6; ++cpu) {
      machine->write_cpu(cpu, "topology/core_cpus_list", std::to_string(cpu < 4 ? cpu / 2 : cpu));
    }
  }
  const char* capacities[] = {"1024", "1009", "1024", "1024", "640", "640"};
  const char* frequencies[] = {"5100000", "5100000", "5000000", "3900000", "3900000", "3900000"};
  for (int cpu = 0; cpu < 6; ++cpu) {
    by_capacity.write_cpu(cpu, "cpu_capacity", capacities[cpu]);
    by_frequency.write_cpu(cpu, "cpufreq/cpuinfo_max_freq", frequencies[cpu]);
  }
  by_kind.write("cpu_core/cpus", "0-3,7");  // the last is offline
  EXPECT_EQ(fastest_processors(by_capacity.devices()), 4);
  EXPECT_EQ(fastest_processors(by_frequency.devices()), 3);
  EXPECT_EQ(fastest_processors(by_kind.devices()), 4);
}

}  // namespace
}  // namespace kevra::host_fft
